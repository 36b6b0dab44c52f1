// What the list offers to the rest of the library beyond its exported interface.
#ifndef DM_LIST_PRIVATE_H
#define DM_LIST_PRIVATE_H

#include "base/atomic_field.h"
#include "base/memory.h"
#include "dm_list.h"

#include <utility>

namespace dm {

// Holds a list's lock for a scope. The lock is recursive.
class ListLock {
public:
    explicit ListLock(LIST_ST* list) : list_(list) { list_->lock(&list_->mutex); }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;
    ~ListLock() { list_->unlock(&list_->mutex); }

private:
    LIST_ST* list_;
};

inline bool is_removed(const LIST_NODE_ST* node) {
    return load(node->removed) != 0;
}

// A node for the item, not linked yet. Gives 0, EINVAL for a null list or item, ENOMEM or the
// status of memset_s().
int make_node(LIST_ST* list, void* item, Owned<LIST_NODE_ST>& made);

// The first node that is not removed; null for none. The list is locked.
inline LIST_NODE_ST* first_node(LIST_ST* list) {
    LIST_NODE_ST* node = load(list->sentinel.next);
    while (node != &list->sentinel && is_removed(node))
        node = load(node->next);
    return node != &list->sentinel ? node : nullptr;
}

// Links a node behind another one of its list, or behind the sentinel. The list is locked.
void link_behind(LIST_NODE_ST* before, Owned<LIST_NODE_ST> node);

// The node behind which list_insert_ascend() would link the item. The list is locked.
LIST_NODE_ST* ascending_place(LIST_ST* list, const void* item, LIST_COMPARE compare);

// What list_remove() does. The list is locked.
void remove_node(LIST_NODE_ST* node);

// Drops one reference on a node without marking it; the last one takes it out. The list is locked.
void leave_node(LIST_NODE_ST* node);

// Drops one reference that is not the last. False, with nothing done, when it is: that needs the
// lock.
inline bool leave_shared(LIST_NODE_ST* node) {
    const std::atomic_ref refs(node->refs);
    int32_t seen = refs.load();
    while (seen > 1)
        if (refs.compare_exchange_weak(seen, seen - 1))
            return true;
    return false;
}

// Moves an iterator to the next node that is not removed and whose item is wanted, with one locking
// for all the nodes between. Gives that node, or null at the end.
//
// Leaving a node may run the free callback, which may change the list: the next node is held
// before, and passed over when it was removed by that.
template<class Wanted>
LIST_NODE_ST* advance(LIST_ITER_ST* iter, Wanted wanted) {
    LIST_ST* list = iter->list;
    if (list == nullptr)
        return nullptr;
    LIST_NODE_ST* end = &list->sentinel;
    const ListLock lock(list);
    do {
        LIST_NODE_ST* left = std::exchange(iter->node, nullptr);
        LIST_NODE_ST* node = load((left != nullptr ? left : end)->next);
        while (node != end && (is_removed(node) || !wanted(node->item)))
            node = load(node->next);
        if (node != end) {
            std::atomic_ref(node->refs).fetch_add(1);
            iter->node = node;
        }
        if (left != nullptr)
            leave_node(left);
    } while (iter->node != nullptr && is_removed(iter->node));
    return iter->node;
}

} // namespace dm

#endif
