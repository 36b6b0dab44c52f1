/**
 * @file dm_export.h
 * What every exported header shares: symbol visibility, C linkage and layout assertions.
 *
 * The headers are plain C (C11) and are accepted by a C++ compiler (C++11 and later) as well.
 */
#ifndef DM_EXPORT_H
#define DM_EXPORT_H

/** Marks a symbol that the shared library exports; everything else is hidden. */
#define DM_API __attribute__((visibility("default")))

/**
 * @def DM_BEGIN_DECLS
 * Begins declarations of C linkage.
 *
 * @def DM_END_DECLS
 * Ends them.
 *
 * @def DM_STATIC_ASSERT
 * Asserts a condition when the header is compiled, with a text for the failure.
 */
#ifdef __cplusplus
#define DM_BEGIN_DECLS extern "C" {
#define DM_END_DECLS }
#define DM_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#include <assert.h>
#define DM_BEGIN_DECLS
#define DM_END_DECLS
#define DM_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

/** Asserts the place of a record's field, in bytes, for the LP64 targets that the library serves.
 */
#define DM_ASSERT_OFFSET(record, field, offset)                                 \
    DM_STATIC_ASSERT(sizeof(void*) != 8 || offsetof(record, field) == (offset), \
                     #record "." #field " is at byte " #offset)

/** Asserts the size of a record, in bytes, for the LP64 targets that the library serves. */
#define DM_ASSERT_SIZE(record, size)                                                               \
    DM_STATIC_ASSERT(sizeof(void*) != 8 || sizeof(record) == (size), #record " has " #size " byte" \
                                                                             "s")

#endif
