// Finds timers by their handle, and the place of a new one by its deadline.
#ifndef DM_TIMER_INDEX_H
#define DM_TIMER_INDEX_H

#include "base/address_set.h"
#include "poller/entry.h"

#include <cstddef>
#include <cstdint>

namespace dm {

// Lies beside the sorted list of timers, so that neither a handle nor a place is looked for along
// it. It knows those that poller_timer_add() has listed, each until its entry is released; the list
// is what counts. Guarded by the list's lock.
//
// The places are a treap: a search tree by deadline that is a heap of priorities, too. These look
// random, so the tree is balanced whatever comes. A timer that comes last or goes first costs the
// same however many there are, and where one interval is in use all of them do.
class TimerIndex {
public:
    TimerIndex() = default;
    TimerIndex(const TimerIndex&) = delete;
    TimerIndex& operator=(const TimerIndex&) = delete;

    std::size_t size() const { return handles_.size(); }

    // Null when there is no timer of that handle, which may be stale.
    TimerEntry* find(const POLLER_TIMER_ENTRY_ST* handle) const {
        return handles_.find(reinterpret_cast<uintptr_t>(handle));
    }

    // Gives the timer that comes just before the new one: the last of those that are due at the
    // same time or before. Null when there is none.
    TimerEntry* insert(TimerEntry* timer);
    void remove(TimerEntry* timer);

private:
    struct SameBucket {
        static TimerEntry*& of(TimerEntry* timer) { return timer->tail.same_bucket; }
    };

    TimerEntry* attach(TimerEntry* timer);
    void replace(const TimerEntry* timer, TimerEntry* other);
    void rise(TimerEntry* timer);

    AddressSet<TimerEntry, SameBucket> handles_;
    TimerEntry* root_ = nullptr;
    TimerEntry* last_ = nullptr; // in the order of deadlines
};

} // namespace dm

#endif
