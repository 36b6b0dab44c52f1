// Finds timers by their handle, and the place of a new one by its deadline.
#ifndef DM_TIMER_INDEX_H
#define DM_TIMER_INDEX_H

#include "base/address_set.h"
#include "poller/sorted_timers.h"

#include <cstddef>
#include <cstdint>

namespace dm {

// Lies beside the sorted list of timers, so that neither a handle nor a place is looked for along
// it. The list is what counts: a timer that is not in here is found there. Guarded by the list's
// lock.
class TimerIndex {
public:
    std::size_t size() const { return handles_.size(); }

    // Null when there is no timer of that handle, which may be stale.
    TimerEntry* find(const POLLER_TIMER_ENTRY_ST* handle) const {
        return handles_.find(reinterpret_cast<uintptr_t>(handle));
    }

    // Takes a timer in, and gives the one behind which it comes. False, with nothing done, when
    // SortedTimers cannot have it.
    bool insert(TimerEntry* timer, LIST_NODE_ST*& before) {
        if (!sorted_.insert(timer, before))
            return false;
        handles_.insert(timer);
        timer->tail.index = this;
        return true;
    }

    void remove(TimerEntry* timer) {
        sorted_.remove(timer);
        handles_.remove(timer);
        timer->tail.index = nullptr;
    }

private:
    struct SameBucket {
        static TimerEntry*& of(TimerEntry* timer) { return timer->tail.same_bucket; }
    };

    AddressSet<TimerEntry, SameBucket> handles_;
    SortedTimers sorted_;
};

} // namespace dm

#endif
