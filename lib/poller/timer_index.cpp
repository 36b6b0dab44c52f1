#include "poller/timer_index.h"

namespace dm {

namespace {

bool is_due_before(const TimerEntry* timer, const TimerEntry* other) {
    const POLLER_TIME_ST& a = timer->deadline;
    const POLLER_TIME_ST& b = other->deadline;
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

// The bits of the address, well mixed.
uint64_t priority_of(const TimerEntry* timer) {
    uint64_t bits = reinterpret_cast<uintptr_t>(timer);
    bits = (bits ^ (bits >> 33)) * 0xFF51AFD7ED558CCDU;
    bits = (bits ^ (bits >> 33)) * 0xC4CEB9FE1A85EC53U;
    return bits ^ (bits >> 33);
}

TimerEntry* last_below(TimerEntry* timer) {
    while (timer->tail.later != nullptr)
        timer = timer->tail.later;
    return timer;
}

} // namespace

TimerEntry* TimerIndex::insert(TimerEntry* timer) {
    TimerEntry* before = attach(timer);
    if (before == last_)
        last_ = timer;
    while (timer->tail.parent != nullptr && priority_of(timer) > priority_of(timer->tail.parent))
        rise(timer);
    handles_.insert(timer);
    timer->tail.index = this;
    return before;
}

// Hangs a timer in as a leaf. Gives the one that comes before it.
TimerEntry* TimerIndex::attach(TimerEntry* timer) {
    TimerEntry* before = nullptr;
    TimerEntry* parent = nullptr;
    TimerEntry** link = &root_;
    if (last_ != nullptr && !is_due_before(timer, last_)) {
        before = parent = last_;
        link = &last_->tail.later;
    }
    while (*link != nullptr) {
        parent = *link;
        const bool is_earlier = is_due_before(timer, parent);
        if (!is_earlier)
            before = parent;
        link = is_earlier ? &parent->tail.earlier : &parent->tail.later;
    }
    *link = timer;
    timer->tail.parent = parent;
    return before;
}

void TimerIndex::remove(TimerEntry* timer) {
    handles_.remove(timer);
    timer->tail.index = nullptr;
    EntryTail& tail = timer->tail;
    if (timer == last_)
        last_ = tail.earlier != nullptr ? last_below(tail.earlier) : tail.parent;
    while (tail.earlier != nullptr && tail.later != nullptr)
        rise(priority_of(tail.earlier) > priority_of(tail.later) ? tail.earlier : tail.later);
    replace(timer, tail.earlier != nullptr ? tail.earlier : tail.later);
}

// Hangs another timer, or none, in where one hung.
void TimerIndex::replace(const TimerEntry* timer, TimerEntry* other) {
    TimerEntry* parent = timer->tail.parent;
    TimerEntry*& link = parent == nullptr               ? root_
                        : parent->tail.earlier == timer ? parent->tail.earlier
                                                        : parent->tail.later;
    link = other;
    if (other != nullptr)
        other->tail.parent = parent;
}

// Makes a timer its parent's parent.
void TimerIndex::rise(TimerEntry* timer) {
    TimerEntry* parent = timer->tail.parent;
    const bool is_earlier = parent->tail.earlier == timer;
    TimerEntry*& between = is_earlier ? timer->tail.later : timer->tail.earlier;
    replace(parent, timer);
    (is_earlier ? parent->tail.earlier : parent->tail.later) = between;
    if (between != nullptr)
        between->tail.parent = parent;
    between = parent;
    parent->tail.parent = timer;
}

} // namespace dm
