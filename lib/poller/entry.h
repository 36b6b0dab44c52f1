// The entries of the poller's lists with what they have beyond their public fields.
#ifndef DM_POLLER_ENTRY_H
#define DM_POLLER_ENTRY_H

#include "base/atomic_field.h"
#include "base/memory.h"
#include "dm_poller.h"
#include "poller/dm_poller_private.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace dm {

class MarkedEntries;
class TimerIndex;
struct TimerEntry;

// What both kinds of entry carry behind their common public fields.
struct EntryTail {
    LIST_NODE_ST* node; // that it is listed with

    MarkedEntries* marked; // that it is among, or null
    EntryTail* older_marked;
    EntryTail* younger_marked;

    // Of a timer.
    TimerIndex* index; // that it is in, or null
    TimerEntry* same_bucket;
    int64_t due;     // nanoseconds, its deadline
    uint64_t number; // how many were added before

    POLLER_RELEASE release; // called with the user data when the entry goes, or null
};

struct FdEntry : POLLER_FD_ENTRY_ST {
    EntryTail tail;
};

struct TimerEntry : POLLER_TIMER_ENTRY_ST {
    EntryTail tail;
};

// One free callback serves both lists, so what it touches lies at the same place in both.
static_assert(sizeof(FdEntry) == sizeof(TimerEntry));
static_assert(sizeof(POLLER_FD_ENTRY_ST) == sizeof(POLLER_TIMER_ENTRY_ST));
static_assert(offsetof(POLLER_FD_ENTRY_ST, user_data) ==
              offsetof(POLLER_TIMER_ENTRY_ST, user_data));
static_assert(offsetof(POLLER_FD_ENTRY_ST, removed) == offsetof(POLLER_TIMER_ENTRY_ST, removed));

template<class Entry>
bool is_marked(const Entry* entry) {
    return std::atomic_ref(const_cast<Entry*>(entry)->removed).load() != 0;
}

template<class Entry>
Entry* entry_of(LIST_NODE_ST* node) {
    return static_cast<Entry*>(list_to_item(node));
}

// The entries of a list that are marked as removed and not yet released, so that a sweep need not
// look for them. Guarded by the list's lock.
class MarkedEntries {
public:
    MarkedEntries() = default;
    MarkedEntries(const MarkedEntries&) = delete;
    MarkedEntries& operator=(const MarkedEntries&) = delete;

    // Without the lock it may be out of date.
    uint32_t count() const { return count_; }
    EntryTail* oldest() const { return oldest_; }

    template<class Entry>
    void mark(Entry* entry, LIST_NODE_ST* node) {
        if (std::atomic_ref(entry->removed).exchange(1) != 0)
            return;
        entry->tail.node = node;
        put_in(&entry->tail);
    }

    void take_out(EntryTail* tail) {
        tail->marked = nullptr;
        (tail->older_marked != nullptr ? tail->older_marked->younger_marked : oldest_) =
            tail->younger_marked;
        (tail->younger_marked != nullptr ? tail->younger_marked->older_marked : youngest_) =
            tail->older_marked;
        --count_;
    }

private:
    void put_in(EntryTail* tail) {
        tail->marked = this;
        tail->older_marked = youngest_;
        tail->younger_marked = nullptr;
        (youngest_ != nullptr ? youngest_->younger_marked : oldest_) = tail;
        youngest_ = tail;
        ++count_;
    }

    EntryTail* oldest_ = nullptr;
    EntryTail* youngest_ = nullptr;
    std::atomic<uint32_t> count_{0};
};

} // namespace dm

#endif
