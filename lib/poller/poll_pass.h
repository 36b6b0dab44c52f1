// The steps of a pass of the poll thread's loop, by subject.
#ifndef DM_POLL_PASS_H
#define DM_POLL_PASS_H

#include "poller/poller_record.h"

// Calls back for the `ready` slots in which poll() returned events.
void __poller_dispatch_fds(dm::Poller* poller, int ready);

// How many entries that other threads have marked or added a step deals with: they make more as
// long as it goes on, and the next pass comes at once.
constexpr uint32_t kMostSwept = 4096;

// Fires the timers that are due.
void __poller_run_timers(dm::Poller* poller);

// Removes marked entries of a list, the oldest first, and gives their number: at most kMostSwept.
uint32_t __poller_sweep_removed(LIST_ST* list, dm::MarkedEntries& marked);

#endif
