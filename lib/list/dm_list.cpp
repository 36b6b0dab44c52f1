#include "dm_list.h"

#include "base/atomic_field.h"
#include "base/memory.h"
#include "list/dm_list_private.h"
#include "list/dm_list_walk.h"
#include "platform_adapter.h"

#include <cerrno>
#include <memory>
#include <utility>

namespace {

using dm::ListLock;

enum class Mark { keep, removed };

// Links of the sentinel and marks are read without the lock, so every link is an atomic reference.
LIST_NODE_ST* __next(const LIST_NODE_ST* node) {
    return dm::load(node->next);
}
LIST_NODE_ST* __prev(const LIST_NODE_ST* node) {
    return dm::load(node->prev);
}

LIST_COMPARE __compare_in_use(const LIST_ST* list, LIST_COMPARE compare) {
    return compare != nullptr ? compare : list->compare;
}

// Takes an unlinked node off its list's count, also when the free callback is cancelled.
struct UncountNode {
    void operator()(LIST_NODE_ST* node) const {
        LIST_ST* owner = node->owner;
        std::free(node);
        std::atomic_ref(owner->count).fetch_sub(1);
    }
};

void __take_out(LIST_NODE_ST* node) {
    dm::store(__next(node)->prev, __prev(node));
    dm::store(__prev(node)->next, __next(node));
}

void __unlink(LIST_NODE_ST* node) {
    const std::unique_ptr<LIST_NODE_ST, UncountNode> unlinked(node);
    __take_out(node);
    if (const LIST_FREE free_item = node->owner->free_item; free_item != nullptr)
        free_item(node->item);
}

// Drops one reference; the last one takes the node out.
void __release(LIST_NODE_ST* node, Mark mark) {
    if (mark == Mark::removed)
        dm::store(node->removed, 1U);
    if (std::atomic_ref(node->refs).fetch_sub(1) <= 1)
        __unlink(node);
}

LIST_NODE_ST* __node_at(LIST_ST* list, int32_t position) {
    LIST_NODE_ST* node = __next(&list->sentinel);
    for (; position > 0 && node != &list->sentinel; --position)
        node = __next(node);
    return node;
}

LIST_NODE_ST* __find(LIST_ST* list, const void* key, LIST_COMPARE compare) {
    for (LIST_NODE_ST* node = __next(&list->sentinel); node != &list->sentinel;
         node = __next(node)) {
        if (!dm::is_removed(node) && compare(node->item, key) == 0)
            return node;
    }
    return nullptr;
}

int __init_recursive(pthread_mutex_t* mutex) {
    pthread_mutexattr_t attr;
    int status = pthread_mutexattr_init(&attr);
    if (status != 0)
        return status;
    status = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    if (status == 0)
        status = pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    return status;
}

// Makes a node for the item and links it behind the node that `find_before` gives, which is called
// with the list locked.
template<class FindBefore>
int __insert_behind(LIST_ST* list, void* item, FindBefore find_before) {
    dm::Owned<LIST_NODE_ST> node;
    if (const int status = dm::make_node(list, item, node); status != 0)
        return status;
    const ListLock lock(list);
    dm::link_behind(find_before(), std::move(node));
    return 0;
}

// The first node, seen from the tail, that does not sort behind the new item, so that equal items
// keep the order in which they came. `sign` is 1 for ascending, -1 for descending.
LIST_NODE_ST* __ordered_place(LIST_ST* list, const void* item, LIST_COMPARE compare, int sign) {
    const LIST_COMPARE in_use = __compare_in_use(list, compare);
    const auto sorts_behind = [=](int result) { return sign > 0 ? result > 0 : result < 0; };
    LIST_NODE_ST* node = __prev(&list->sentinel);
    while (node != &list->sentinel && sorts_behind(in_use(node->item, item)))
        node = __prev(node);
    return node;
}

// Moves the whole chain of `source` between two neighbouring nodes of another list.
void __splice(LIST_ST* source, LIST_NODE_ST* before, LIST_NODE_ST* behind) {
    LIST_NODE_ST* first = __next(&source->sentinel);
    LIST_NODE_ST* last = __prev(&source->sentinel);
    if (first == &source->sentinel)
        return;
    dm::store(first->prev, before);
    dm::store(before->next, first);
    dm::store(last->next, behind);
    dm::store(behind->prev, last);
}

// A node that was moved here by a concatenation names a list that is gone as its owner, and was
// never counted.
void __destroy_first(LIST_ST* list) {
    const dm::Owned<LIST_NODE_ST> first(__next(&list->sentinel));
    __take_out(first.get());
    if (first->owner == list)
        std::atomic_ref(list->count).fetch_sub(1);
    if (list->free_item != nullptr)
        list->free_item(first->item);
}

void __dispose_handle(LIST_ST* list) {
    mmMutexDestroy(&list->mutex);
    std::free(list);
}

enum class End { head, tail };

int __concat(LIST_ST* list, LIST_ST* source, End end) {
    if (list == nullptr || source == nullptr || list == source)
        return EINVAL;
    {
        const ListLock lock(list);
        const ListLock source_lock(source);
        LIST_NODE_ST* sentinel = &list->sentinel;
        if (end == End::tail)
            __splice(source, __prev(sentinel), sentinel);
        else
            __splice(source, sentinel, __next(sentinel));
    }
    __dispose_handle(source);
    return 0;
}

} // namespace

int dm::make_node(LIST_ST* list, void* item, Owned<LIST_NODE_ST>& made) {
    if (list == nullptr || item == nullptr)
        return EINVAL;
    auto node = allocate<LIST_NODE_ST>();
    if (!node)
        return ENOMEM;
    if (const int status = zero(node.get()); status != 0)
        return status;
    node->owner = list;
    node->item = item;
    node->refs = 1;
    made = std::move(node);
    return 0;
}

void dm::link_behind(LIST_NODE_ST* before, Owned<LIST_NODE_ST> node) {
    LIST_NODE_ST* linked = node.release();
    LIST_NODE_ST* behind = __next(before);
    store(linked->prev, before);
    store(linked->next, behind);
    store(before->next, linked);
    store(behind->prev, linked);
    std::atomic_ref(linked->owner->count).fetch_add(1);
}

LIST_NODE_ST* dm::ascending_place(LIST_ST* list, const void* item, LIST_COMPARE compare) {
    return __ordered_place(list, item, compare, 1);
}

// The list's own reference goes only once, however often a node is removed.
void dm::remove_node(LIST_NODE_ST* node) {
    if (!is_removed(node))
        __release(node, Mark::removed);
}

void dm::leave_node(LIST_NODE_ST* node) {
    __release(node, Mark::keep);
}

int list_create(LIST_ST** list, LIST_COMPARE compare, LIST_FREE free_item) {
    if (list == nullptr)
        return EINVAL;
    auto made = dm::allocate<LIST_ST>();
    if (!made)
        return ENOMEM;
    if (const int status = dm::zero(made.get()); status != 0)
        return status;
    if (const int status = __init_recursive(&made->mutex); status != 0) {
        *list = nullptr;
        return status;
    }
    made->lock = mmMutexLock;
    made->unlock = mmMutexUnLock;
    made->sentinel.owner = made.get();
    made->sentinel.prev = &made->sentinel;
    made->sentinel.next = &made->sentinel;
    made->compare = compare != nullptr ? compare : list_default_compare;
    made->free_item = free_item;
    *list = made.release();
    return 0;
}

// Each node is out of the list before its item is released, so that a free callback may use what is
// left of the list.
void list_destroy(LIST_ST* list) {
    if (list == nullptr)
        return;
    {
        const ListLock lock(list);
        while (list_is_empty(list) == 0)
            __destroy_first(list);
    }
    __dispose_handle(list);
}

int list_default_compare(const void* item, const void* key) {
    const auto a = reinterpret_cast<uintptr_t>(item);
    const auto b = reinterpret_cast<uintptr_t>(key);
    if (a == b)
        return 0;
    return a > b ? 1 : -1;
}

uint32_t list_size(LIST_ST* list) {
    return list != nullptr ? dm::load(list->count) : 0;
}

int list_is_empty(LIST_ST* list) {
    return list == nullptr || __next(&list->sentinel) == &list->sentinel;
}

void* list_to_item(LIST_NODE_ST* node) {
    return node != nullptr ? node->item : nullptr;
}

// The sentinel's item is null, which is the answer for an empty list.
void* list_first_item(LIST_ST* list) {
    return list != nullptr ? __next(&list->sentinel)->item : nullptr;
}

void* list_last_item(LIST_ST* list) {
    return list != nullptr ? __prev(&list->sentinel)->item : nullptr;
}

int list_append(LIST_ST* list, void* item) {
    return __insert_behind(list, item, [=] { return __prev(&list->sentinel); });
}

int list_prepend(LIST_ST* list, void* item) {
    return __insert_behind(list, item, [=] { return &list->sentinel; });
}

int list_insert_pos(LIST_ST* list, void* item, int32_t position) {
    return __insert_behind(list, item, [=] { return __prev(__node_at(list, position)); });
}

int list_insert_ascend(LIST_ST* list, void* item, LIST_COMPARE compare) {
    return __insert_behind(list, item, [=] { return __ordered_place(list, item, compare, 1); });
}

int list_insert_descend(LIST_ST* list, void* item, LIST_COMPARE compare) {
    return __insert_behind(list, item, [=] { return __ordered_place(list, item, compare, -1); });
}

int list_concat_after(LIST_ST* list, LIST_ST* source) {
    return __concat(list, source, End::tail);
}

int list_concat_before(LIST_ST* list, LIST_ST* source) {
    return __concat(list, source, End::head);
}

int list_remove(LIST_ST* list, LIST_NODE_ST* node) {
    if (list == nullptr)
        return EINVAL;
    if (node == nullptr)
        return 0;
    const ListLock lock(list);
    dm::remove_node(node);
    return 0;
}

int list_remove_by_tag(LIST_ST* list, const void* key, LIST_COMPARE compare) {
    if (list == nullptr)
        return EINVAL;
    const ListLock lock(list);
    if (LIST_NODE_ST* node = __find(list, key, __compare_in_use(list, compare)); node != nullptr)
        dm::remove_node(node);
    return 0;
}

LIST_NODE_ST* list_search(LIST_ST* list, const void* key, LIST_COMPARE compare) {
    return __find(list, key, __compare_in_use(list, compare));
}

void list_iter_init(LIST_ST* list, LIST_ITER_ST* iter) {
    if (list != nullptr && iter != nullptr)
        list_iter_init_node(list, iter, nullptr);
}

// References are counted atomically, so the one taken here needs no lock against a remover.
void list_iter_init_node(LIST_ST* list, LIST_ITER_ST* iter, LIST_NODE_ST* node) {
    iter->list = list;
    iter->node = node;
    if (node != nullptr)
        std::atomic_ref(node->refs).fetch_add(1);
}

LIST_NODE_ST* list_iter_next(LIST_ITER_ST* iter) {
    return iter != nullptr ? dm::advance(iter, [](const void*) { return true; }) : nullptr;
}

void list_iter_destroy(LIST_ITER_ST* iter) {
    if (iter == nullptr || iter->list == nullptr)
        return;
    const ListLock lock(iter->list);
    if (iter->node != nullptr)
        dm::leave_node(iter->node);
}

void list_iterate(LIST_ST* list, LIST_VISITOR visitor, void* arg, uint32_t value) {
    if (list == nullptr || visitor == nullptr)
        return;
    dm::ListWalk walk(list);
    while (LIST_NODE_ST* node = walk.next())
        visitor(list_to_item(node), arg, value);
}
