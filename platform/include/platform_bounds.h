/**
 * @file platform_bounds.h
 * The platform's bounds-checked memory and string functions, as the library imports them.
 *
 * They behave like the functions of the same names in C11 (ISO/IEC 9899:2011) Annex K with an
 * "ignore" constraint handler: a refused call returns its code and clears the destination.
 *
 * Results of all but sprintf_s: 0; EINVAL (22) for a null pointer, even with a count of zero, or
 * for a source and a destination that overlap where they may not; ERANGE (34) for a size or count
 * above SIZE_MAX / 2, a destination too small for what is to be written, or a size of zero for a
 * string. Sizes and counts are in bytes. The destination stays as it is when its size itself is
 * refused.
 *
 * All of them may be called from any thread, keep no memory and are not cancellation points.
 */
#ifndef PLATFORM_BOUNDS_H
#define PLATFORM_BOUNDS_H

#include "dm_export.h"

#include <stddef.h>

DM_BEGIN_DECLS

/**
 * Fills the first @p count bytes of @p dest with @p value, converted to unsigned char. The fill is
 * not optimised away, even when the memory is not read again. A refused call fills all @p dest_size
 * bytes.
 * @param dest what is written to.
 * @param dest_size its size in bytes.
 * @param value the byte.
 * @param count how many bytes are filled.
 * @return 0, EINVAL or ERANGE, see above.
 */
DM_API int memset_s(void* dest, size_t dest_size, int value, size_t count);

/**
 * Copies @p count bytes; the two regions of @p count bytes must not overlap.
 * A refused call clears all @p dest_size bytes.
 * @param dest what is written to.
 * @param dest_size its size in bytes.
 * @param src what is read.
 * @param count how many bytes are copied.
 * @return 0, EINVAL or ERANGE, see above.
 */
DM_API int memcpy_s(void* dest, size_t dest_size, const void* src, size_t count);

/**
 * Copies @p count bytes; the regions may overlap. A refused call clears as memcpy_s() does.
 * @param dest what is written to.
 * @param dest_size its size in bytes.
 * @param src what is read.
 * @param count how many bytes are copied.
 * @return 0, EINVAL or ERANGE, see above.
 */
DM_API int memmove_s(void* dest, size_t dest_size, const void* src, size_t count);

/**
 * Copies at most @p count characters of @p src, up to its terminating zero, and terminates @p dest.
 * @p count may exceed @p dest_size when the string fits; a string that does not is refused, not
 * cut. What is read and what is written must not overlap. A refused call makes @p dest the empty
 * string.
 * @param dest what is written to.
 * @param dest_size its size in bytes.
 * @param src the string, of which @p count bytes are read at most.
 * @param count most characters that are copied.
 * @return 0, EINVAL or ERANGE, see above.
 */
DM_API int strncpy_s(char* dest, size_t dest_size, const char* src, size_t count);

/**
 * Copies the whole string @p src. A refused call makes @p dest the empty string.
 * @param dest what is written to.
 * @param dest_size its size in bytes.
 * @param src the string.
 * @return 0, EINVAL or ERANGE, see above.
 */
DM_API int strcpy_s(char* dest, size_t dest_size, const char* src);

/**
 * Formats into @p dest as sprintf(3) does; @p dest must not be one of the arguments.
 * @param dest what is written to.
 * @param dest_size its size in bytes.
 * @param format as in printf(3).
 * @param ... what it asks for.
 * @return the length written, without the terminating zero; -1 (for which Annex K may have 0) when
 *         @p dest or @p format is null, @p dest_size is refused, or the text does not fit or cannot
 *         be formatted. @p dest is then the empty string.
 */
DM_API int sprintf_s(char* dest, size_t dest_size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

DM_END_DECLS

#endif
