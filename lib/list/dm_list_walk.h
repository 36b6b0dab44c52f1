// A walk along a list that leaves its node at the end of its scope.
#ifndef DM_LIST_WALK_H
#define DM_LIST_WALK_H

#include "base/atomic_field.h"
#include "dm_list.h"

#include <utility>

namespace dm {

// While the walk stands on a node, neither the node nor its item is released. Leaving the last
// reference runs the list's free callback, which may close descriptors: a cancellation point.
class ListWalk {
public:
    explicit ListWalk(LIST_ST* list) { list_iter_init(list, &iter_); }
    ListWalk(const ListWalk&) = delete;
    ListWalk& operator=(const ListWalk&) = delete;
    ~ListWalk() noexcept(false) {
        if (iter_.node != nullptr) // at the end there is nothing to leave
            list_iter_destroy(&iter_);
    }

    LIST_NODE_ST* next() { return list_iter_next(&iter_); }
    LIST_NODE_ST* node() const { return iter_.node; }

    // Gives up the node without leaving it: that is due with list_iter_destroy().
    LIST_ITER_ST release() { return std::exchange(iter_, {}); }

private:
    LIST_ITER_ST iter_{};
};

inline bool is_removed(const LIST_NODE_ST* node) {
    return load(node->removed) != 0;
}

} // namespace dm

#endif
