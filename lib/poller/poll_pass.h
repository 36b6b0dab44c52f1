// The steps of a pass of the poll thread's loop, by subject.
#ifndef DM_POLL_PASS_H
#define DM_POLL_PASS_H

#include "list/dm_list_walk.h"
#include "poller/poller_record.h"

// Calls back for the `ready` slots in which poll() returned events.
void __poller_dispatch_fds(dm::Poller* poller, int ready);

// Fires the timers that are due.
void __poller_run_timers(dm::Poller* poller);

// Removes the marked entries. True when there may have been one.
template<class Entry>
bool __poller_sweep_removed(LIST_ST* list, const dm::MarkedCount& marked) {
    const int32_t expected = marked.load();
    if (expected <= 0)
        return false;
    dm::ListWalk walk(list);
    for (int32_t left = expected; left > 0;) {
        LIST_NODE_ST* node = walk.next();
        if (node == nullptr)
            break;
        if (!dm::is_marked(dm::entry_of<Entry>(node)))
            continue;
        list_remove(list, node);
        --left;
    }
    return true;
}

#endif
