// The steps of a pass of the poll thread's loop, by subject.
#ifndef DM_POLL_PASS_H
#define DM_POLL_PASS_H

#include "poller/poller_record.h"

// Calls back for the `ready` slots in which poll() returned events.
void __poller_dispatch_fds(dm::Poller* poller, int ready);

// Fires the timers that are due.
void __poller_run_timers(dm::Poller* poller);

// Removes the marked entries of a list. True when there was one.
bool __poller_sweep_removed(LIST_ST* list, dm::MarkedEntries& marked);

#endif
