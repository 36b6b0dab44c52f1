/**
 * @file hash_table.h
 * A table of pointer-sized values by string tag, with a release function for each value.
 *
 * The table has 1024 buckets for ever: it is at its best up to a few thousand tags, and a look-up
 * among many more walks a long chain. Tags are copied and compared byte by byte (strcmp(3)), so
 * upper and lower case differ and the empty string is a tag like any other.
 *
 * Values are the caller's: the table stores them as they are, and releases one only through the
 * release function that was stored with it. Two values may be the same pointer, but then only one
 * of them may have a release function.
 *
 * Threads: the table has no lock. Callers that share one hold their own lock over every call. The
 * release functions run inside hash_table_put2(), hash_table_rm() and hash_table_delete(), and so
 * under that lock; they must not use the table.
 *
 * Tables and tags that are passed must not be null, but for hash_table_delete(); this is not
 * checked.
 */
#ifndef HASH_TABLE_H
#define HASH_TABLE_H

#include "dm_export.h"

#include <stddef.h>
#include <stdint.h>

DM_BEGIN_DECLS

/** Buckets of every table. */
#define HASH_TABLE_BUCKETS 1024

/**
 * Releases a value.
 * @param value as it was stored.
 */
typedef void (*HASH_FREE)(void* value);

/** One tag and its value. */
typedef struct HASH_NODE_ST {
    struct HASH_NODE_ST* next; /**< the next node of the bucket, or null */
    char* tag;                 /**< the node's own copy */
    void* value;               /**< the caller's value */
    HASH_FREE free_value;      /**< releases the value; may be null */
} HASH_NODE_ST;

/** A table. Callers hold it by pointer and do not change its fields. */
typedef struct HASH_TABLE_ST {
    HASH_NODE_ST** buckets; /**< HASH_TABLE_BUCKETS chains, each in the order of storing */
} HASH_TABLE_ST;

DM_ASSERT_SIZE(HASH_NODE_ST, 32);
DM_ASSERT_OFFSET(HASH_NODE_ST, next, 0);
DM_ASSERT_OFFSET(HASH_NODE_ST, tag, 8);
DM_ASSERT_OFFSET(HASH_NODE_ST, value, 16);
DM_ASSERT_OFFSET(HASH_NODE_ST, free_value, 24);
DM_ASSERT_SIZE(HASH_TABLE_ST, 8);
DM_ASSERT_OFFSET(HASH_TABLE_ST, buckets, 0);

/**
 * The hash of a string: from 0 on, 33 times the value so far plus the next byte, modulo 2^32. Bytes
 * from 0x80 on count as negative numbers, on every machine. A tag's bucket is its hash modulo
 * HASH_TABLE_BUCKETS. Any thread.
 * @param text a zero-terminated string; must not be null.
 * @return the hash.
 */
DM_API uint32_t hash_33(const char* text);

/**
 * Makes an empty table, which the caller releases with hash_table_delete(). Any thread.
 * @return the table; null when there is no memory or it could not be zeroed.
 */
DM_API HASH_TABLE_ST* hash_table_new(void);

/**
 * Releases all values that have a release function, and the table.
 * @param table not used again; null is ignored.
 */
DM_API void hash_table_delete(HASH_TABLE_ST* table);

/**
 * Stores a value.
 *
 * When the tag is stored already, the release function that it has is called on its old value;
 * then the new value and the new release function take their place, a null one included. Storing
 * the very pointer that is stored already therefore releases it, and leaves the table with a
 * pointer to what was released: take a new copy of the value instead.
 *
 * @param table      the table.
 * @param tag        copied; may point into the old value.
 * @param value      any value. A null one cannot be told from a missing tag by hash_table_get().
 * @param free_value releases the value when it is replaced or removed, or when the table goes; null
 *                   when the table shall not release it.
 * @return 0. Else the table is as it was and the value still the caller's: -1 when there was no
 *         memory for the tag, ENOMEM (12, errno(3)) when there was none for the node, or the code
 *         of a failed memset_s() or strcpy_s().
 */
DM_API int hash_table_put2(HASH_TABLE_ST* table, const char* tag, void* value,
                           HASH_FREE free_value);

/**
 * Looks a tag up.
 * @param table the table.
 * @param tag   the tag.
 * @return the value stored for the tag, which stays the table's; null when there is none.
 */
DM_API void* hash_table_get(const HASH_TABLE_ST* table, const char* tag);

/**
 * Removes a tag and releases its value. A tag that is not stored changes nothing.
 * @param table the table.
 * @param tag   may point into the value.
 */
DM_API void hash_table_rm(HASH_TABLE_ST* table, const char* tag);

/**
 * Counts the tags, by walking the whole table.
 * @param table the table.
 * @return the number of stored tags, modulo 65536.
 */
DM_API uint16_t count_hash_table(const HASH_TABLE_ST* table);

/**
 * Lists values by ascending bucket, and within a bucket in the order in which their tags were first
 * stored.
 * @param table    the table.
 * @param values   receives the values, which stay the table's.
 * @param capacity elements of @p values. It is taken modulo 65536, so more than 65535 values cannot
 *                 be listed, and a negative capacity is a large one.
 * @return the number of values listed.
 */
DM_API uint16_t get_hash_table_value(const HASH_TABLE_ST* table, void** values, int32_t capacity);

/**
 * Walks the table and shows nothing. It is there for callers that were built against it.
 * @param table the table.
 */
DM_API void display_hash_table(const HASH_TABLE_ST* table);

DM_END_DECLS

#endif
