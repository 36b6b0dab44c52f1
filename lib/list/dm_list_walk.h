// A walk along a list that leaves its node at the end of its scope.
#ifndef DM_LIST_WALK_H
#define DM_LIST_WALK_H

#include "dm_list.h"
#include "list/dm_list_private.h"

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
        if (iter_.node != nullptr && !leave_shared(iter_.node)) // at the end there is none to leave
            list_iter_destroy(&iter_);
    }

    LIST_NODE_ST* next() { return list_iter_next(&iter_); }
    // The next one whose item is wanted, which is asked with the list locked.
    template<class Wanted>
    LIST_NODE_ST* next_where(Wanted wanted) {
        return advance(&iter_, wanted);
    }
    LIST_NODE_ST* node() const { return iter_.node; }

    // Gives up the node without leaving it: that is due with list_iter_destroy().
    LIST_ITER_ST release() { return std::exchange(iter_, {}); }

private:
    LIST_ITER_ST iter_{};
};

} // namespace dm

#endif
