// A walk along a list that leaves its node at the end of its scope.
#ifndef DM_LIST_WALK_H
#define DM_LIST_WALK_H

#include "dm_list.h"

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

private:
    LIST_ITER_ST iter_{};
};

} // namespace dm

#endif
