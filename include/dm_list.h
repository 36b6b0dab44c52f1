/**
 * @file dm_list.h
 * A locked, circular, doubly linked list of opaque items.
 *
 * Every list has a recursive mutex of its own, a compare callback and a free callback. Nodes are
 * counted by reference, so that an iterator can keep standing on a node while another caller
 * removes it: the node is unlinked, and its item given to the free callback, when the last
 * reference goes.
 *
 * Threads: the operations that lock (marked "locks") may be called from any thread at any time
 * between list_create() and list_destroy(). The others read without the lock: list_size(),
 * list_is_empty() give a value that may be out of date at once; list_first_item(),
 * list_last_item(), list_to_item() and list_search() are for callers that keep others from
 * removing nodes meanwhile. Compare and free callbacks run with the list locked; they may call the
 * same list again, but must not wait for another thread that uses it.
 *
 * Results: 0, or a positive errno number (errno(3)): EINVAL (22), ENOMEM (12), or the code of a
 * failed memset_s() or pthread_mutex_init(3). Nothing is logged.
 */
#ifndef DM_LIST_H
#define DM_LIST_H

#include "dm_export.h"

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

DM_BEGIN_DECLS

struct LIST_ST;

/** One linked item. */
typedef struct LIST_NODE_ST {
    struct LIST_ST* owner;     /**< the list that made the node */
    void* item;                /**< the caller's item */
    struct LIST_NODE_ST* prev; /**< the node before, or the list's sentinel */
    struct LIST_NODE_ST* next; /**< the node behind, or the list's sentinel */
    uint32_t removed;          /**< 1 once the node was removed */
    int32_t refs;              /**< one of the list, one of each iterator that stands here */
} LIST_NODE_ST;

/**
 * Compares a listed item with a key.
 * @param item a listed item.
 * @param key what it is compared with.
 * @return 0 for a match, above 0 when the item sorts behind the key, below 0 when before it.
 */
typedef int (*LIST_COMPARE)(const void* item, const void* key);

/**
 * Releases an item.
 * @param item the item, which is in no list any more.
 */
typedef void (*LIST_FREE)(void* item);

/**
 * Visits an item.
 * @param item the item.
 * @param arg as given to list_iterate().
 * @param value as given to list_iterate().
 */
typedef void (*LIST_VISITOR)(void* item, void* arg, uint32_t value);

/** A list. Callers hold it by pointer and do not change its fields. */
typedef struct LIST_ST {
    uint32_t count;        /**< linked nodes, those removed but still referenced included */
    LIST_NODE_ST sentinel; /**< its next is the first node and its prev the last one */
    LIST_COMPARE compare;  /**< never null: list_default_compare() stands for none */
    LIST_FREE free_item;   /**< may be null: items are then never freed by the list */
    int (*lock)(pthread_mutex_t* mutex);   /**< locks the mutex; 0 or an errno */
    int (*unlock)(pthread_mutex_t* mutex); /**< unlocks it; 0 or an errno */
    pthread_mutex_t mutex;                 /**< recursive */
} LIST_ST;

/** An iterator, owned by the caller. One thread uses it. */
typedef struct LIST_ITER_ST {
    LIST_ST* list;      /**< the list that is walked */
    LIST_NODE_ST* node; /**< where it stands, null before the first step and behind the last */
} LIST_ITER_ST;

DM_ASSERT_SIZE(LIST_NODE_ST, 40);
DM_ASSERT_OFFSET(LIST_NODE_ST, owner, 0);
DM_ASSERT_OFFSET(LIST_NODE_ST, item, 8);
DM_ASSERT_OFFSET(LIST_NODE_ST, prev, 16);
DM_ASSERT_OFFSET(LIST_NODE_ST, next, 24);
DM_ASSERT_OFFSET(LIST_NODE_ST, removed, 32);
DM_ASSERT_OFFSET(LIST_NODE_ST, refs, 36);
DM_ASSERT_OFFSET(LIST_ST, count, 0);
DM_ASSERT_OFFSET(LIST_ST, sentinel, 8);
DM_ASSERT_OFFSET(LIST_ST, compare, 48);
DM_ASSERT_OFFSET(LIST_ST, free_item, 56);
DM_ASSERT_OFFSET(LIST_ST, lock, 64);
DM_ASSERT_OFFSET(LIST_ST, unlock, 72);
DM_ASSERT_OFFSET(LIST_ST, mutex, 80);
DM_ASSERT_SIZE(LIST_ITER_ST, 16);
DM_ASSERT_OFFSET(LIST_ITER_ST, list, 0);
DM_ASSERT_OFFSET(LIST_ITER_ST, node, 8);

/**
 * Creates a list.
 * @param list      receives the list; left alone when there is no memory for it, set to null when
 *                  its mutex could not be made.
 * @param compare   null for list_default_compare().
 * @param free_item null when the list shall never free items.
 * @return 0, EINVAL for a null @p list, ENOMEM, or the code of the failed initialisation.
 */
DM_API int list_create(LIST_ST** list, LIST_COMPARE compare, LIST_FREE free_item);

/**
 * Gives every item to the free callback, iterators or not, and releases the list. Locks while it
 * does. The callback may use the list, in which the item that it was given and those before it are
 * not listed any more. No other thread may use the list.
 * @param list null is ignored.
 */
DM_API void list_destroy(LIST_ST* list);

/**
 * Compares two pointers as numbers. Any thread.
 * @param item the listed pointer.
 * @param key the pointer to compare with.
 * @return 0 when equal, 1 when @p item is greater, else -1.
 */
DM_API int list_default_compare(const void* item, const void* key);

/**
 * Counts without the lock.
 * @param list may be null.
 * @return the number of linked nodes; 0 for a null list.
 */
DM_API uint32_t list_size(LIST_ST* list);

/**
 * Looks without the lock.
 * @param list may be null.
 * @return 1 when no node is linked or the list is null, else 0.
 */
DM_API int list_is_empty(LIST_ST* list);

/**
 * Gives the item of a node.
 * @param node may be null.
 * @return the item, which stays the list's; null for a null node.
 */
DM_API void* list_to_item(LIST_NODE_ST* node);

/**
 * Gives the first item, even of a node marked removed. Does not lock.
 * @param list may be null.
 * @return the item, which stays the list's; null for a null or empty list.
 */
DM_API void* list_first_item(LIST_ST* list);

/**
 * Gives the last item, even of a node marked removed. Does not lock.
 * @param list may be null.
 * @return the item, which stays the list's; null for a null or empty list.
 */
DM_API void* list_last_item(LIST_ST* list);

/**
 * Adds an item at the tail; locks.
 * @param list the list.
 * @param item the caller's; the list frees it with its free callback, if it has one.
 * @return 0, EINVAL for a null argument, ENOMEM.
 */
DM_API int list_append(LIST_ST* list, void* item);

/**
 * Adds an item at the head; locks.
 * @param list the list.
 * @param item as for list_append().
 * @return 0, EINVAL for a null argument, ENOMEM.
 */
DM_API int list_prepend(LIST_ST* list, void* item);

/**
 * Adds an item so that it takes the index @p position; locks. Nodes removed but still linked count.
 * @param list the list.
 * @param item as for list_append().
 * @param position 0 or below: the head; at or above the number of nodes: the tail.
 * @return 0, EINVAL for a null argument, ENOMEM.
 */
DM_API int list_insert_pos(LIST_ST* list, void* item, int32_t position);

/**
 * Adds an item to a list kept in ascending order, behind all that compare equal; locks. The walk
 * begins at the tail.
 * @param list the list.
 * @param item as for list_append().
 * @param compare called with (listed item, new item); null for the list's own.
 * @return 0, EINVAL for a null list or item, ENOMEM.
 */
DM_API int list_insert_ascend(LIST_ST* list, void* item, LIST_COMPARE compare);

/**
 * The same for a list kept in descending order; locks.
 * @param list the list.
 * @param item as for list_append().
 * @param compare called with (listed item, new item); null for the list's own.
 * @return 0, EINVAL for a null list or item, ENOMEM.
 */
DM_API int list_insert_descend(LIST_ST* list, void* item, LIST_COMPARE compare);

/**
 * Moves all nodes of @p source to the tail of @p list and releases @p source, whether or not it
 * held nodes; locks both. Its items are not freed, its free callback is never called again.
 *
 * The moved nodes still name the released list as their owner and are not counted by list_size().
 * So a caller must not remove a moved node (list_remove(), list_remove_by_tag()), must not
 * concatenate while any iterator stands in @p source, and must not rely on list_size() afterwards.
 * Walking the moved nodes and list_destroy(), which frees them, are fine. Two threads must not
 * concatenate the same two lists in opposite directions.
 * @param list gains the nodes.
 * @param source is released; not used again after success.
 * @return 0, EINVAL for a null list or a list given twice.
 */
DM_API int list_concat_after(LIST_ST* list, LIST_ST* source);

/**
 * The same, to the head of @p list; locks both.
 * @param list gains the nodes.
 * @param source is released; not used again after success.
 * @return 0, EINVAL for a null list or a list given twice.
 */
DM_API int list_concat_before(LIST_ST* list, LIST_ST* source);

/**
 * Removes a node; locks. It is unlinked and its item freed at once, or when the last iterator has
 * left it. A node that is marked removed already loses nothing more.
 * @param list the list that made the node.
 * @param node one that is still linked; may be null.
 * @return 0, also for a null node; EINVAL for a null list.
 */
DM_API int list_remove(LIST_ST* list, LIST_NODE_ST* node);

/**
 * Removes the first node, from the head, whose item matches; locks.
 * @param list the list.
 * @param key given to @p compare.
 * @param compare called with (item, key); null for the list's own.
 * @return 0, whether or not one matched; EINVAL for a null list.
 */
DM_API int list_remove_by_tag(LIST_ST* list, const void* key, LIST_COMPARE compare);

/**
 * Finds the first node, from the head, whose item matches and that is not marked removed. Does not
 * lock, so all users of the list must be serialised by other means.
 * @param list must not be null.
 * @param key given to @p compare.
 * @param compare called with (item, key); null for the list's own.
 * @return the node or null.
 */
DM_API LIST_NODE_ST* list_search(LIST_ST* list, const void* key, LIST_COMPARE compare);

/**
 * Places an iterator before the head; does nothing when either argument is null.
 * @param list the list to walk, which must outlive the walk.
 * @param iter the caller's; what it held before is overwritten.
 */
DM_API void list_iter_init(LIST_ST* list, LIST_ITER_ST* iter);

/**
 * Places an iterator on a node, which gains a reference, or before the head.
 * @param list the list to walk; must not be null.
 * @param iter the caller's; must not be null.
 * @param node one that cannot go meanwhile: one that another iterator of the caller stands on, for
 *             example. Null places the iterator before the head.
 */
DM_API void list_iter_init_node(LIST_ST* list, LIST_ITER_ST* iter, LIST_NODE_ST* node);

/**
 * Steps to the next node that is not marked removed; locks. The node left behind may be freed.
 * @param iter a placed iterator.
 * @return the node, which stays valid until the next step; null at the end, and the step after
 *         that begins at the head again.
 */
DM_API LIST_NODE_ST* list_iter_next(LIST_ITER_ST* iter);

/**
 * Leaves the node that the iterator stands on, which may then be freed; locks.
 * @param iter a placed iterator, not used again.
 */
DM_API void list_iter_destroy(LIST_ITER_ST* iter);

/**
 * Visits all items from head to tail; locks in each step, not while the visitor runs, so that the
 * visitor may remove nodes. There is no early stop. Does nothing without a list or a visitor.
 * @param list the list.
 * @param visitor called with each item on the calling thread.
 * @param arg given to @p visitor.
 * @param value given to @p visitor.
 */
DM_API void list_iterate(LIST_ST* list, LIST_VISITOR visitor, void* arg, uint32_t value);

DM_END_DECLS

#endif
