// Timers: arming and disarming them, and firing those that are due.
#include "dm_poller.h"

#include "list/dm_list_walk.h"
#include "platform_adapter.h"
#include "poller/poll_pass.h"
#include "poller/poller_record.h"

#include <cerrno>
#include <memory>

namespace {

using dm::Poller;
using dm::TimerEntry;

// True while all timers of the list are in the index.
bool __is_index_whole(const Poller* poller) {
    return poller->timer_index.size() == list_size(poller->timer_list);
}

// Puts a timer into the index. Gives the node behind which the list has it.
//
// While the list has an entry that is not in the index, it is searched. Where that entry stood out
// of order, the two orders differ from then on, and it is searched until it is empty again.
LIST_NODE_ST* __place(Poller* poller, TimerEntry* timer) {
    LIST_ST* list = poller->timer_list;
    if (list_is_empty(list) != 0)
        poller->timers_astray = false;
    const bool is_whole = __is_index_whole(poller) && !poller->timers_astray;
    LIST_NODE_ST* before = nullptr;
    const bool is_indexed = poller->timer_index.insert(timer, before);
    if (before == nullptr)
        before = &list->sentinel;
    if (is_whole && is_indexed)
        return before;
    LIST_NODE_ST* place = dm::ascending_place(list, timer, poller_timer_deadline_cmp);
    poller->timers_astray |= place != before;
    return place;
}

LIST_NODE_ST* __find(const Poller* poller, const POLLER_TIMER_ENTRY_ST* handle) {
    if (const TimerEntry* timer = poller->timer_index.find(handle); timer != nullptr)
        return dm::is_removed(timer->tail.node) ? nullptr : timer->tail.node;
    if (__is_index_whole(poller))
        return nullptr;
    return list_search(poller->timer_list, handle, poller_timer_entry_cmp);
}

POLLER_TIME_ST __now() {
    const MM_TIMESPEC_ST tick = mmGetTickCount();
    return {tick.tv_sec, tick.tv_nsec};
}

// Removes marked timers at the head of the list. False when none behind them is due `now`, which is
// set; true without a look when there are many.
bool __clear_head(const Poller* poller, POLLER_TIME_ST& now) {
    constexpr int most_at_once = 16; // with the list locked
    if (list_is_empty(poller->timer_list) != 0)
        return false;
    now = __now();
    const dm::ListLock lock(poller->timer_list);
    for (int i = 0; i < most_at_once; ++i) {
        LIST_NODE_ST* node = dm::first_node(poller->timer_list);
        if (node == nullptr)
            return false;
        const auto* first = dm::entry_of<POLLER_TIMER_ENTRY_ST>(node);
        if (!dm::is_marked(first))
            return poller_time_diff_ms(nullptr, &first->deadline, &now) <= 0;
        dm::remove_node(node);
    }
    return true;
}

// As poller_ms_until(). The clock is not asked again for what was over when it was asked last.
int32_t __ms_until(const POLLER_TIMER_ENTRY_ST* timer, const POLLER_TIME_ST& now) {
    const bool was_over = poller_time_cmp(&timer->deadline, &now) <= 0;
    return was_over ? poller_time_diff_ms(nullptr, &timer->deadline, &now) : poller_ms_until(timer);
}

// Takes a timer out at the end of a scope, also when its callback ends the thread: it fires once.
class TakenOut {
public:
    TakenOut(LIST_ST* list, LIST_NODE_ST* node) : list_(list), node_(node) {}
    TakenOut(const TakenOut&) = delete;
    TakenOut& operator=(const TakenOut&) = delete;
    ~TakenOut() noexcept(false) { list_remove(list_, node_); }

private:
    LIST_ST* list_;
    LIST_NODE_ST* node_;
};

void __fire(const TimerEntry* entry, int32_t left_ms) {
    if (entry->callback != nullptr)
        entry->callback(entry->interval_ms,
                        static_cast<int32_t>(entry->interval_ms - static_cast<uint32_t>(left_ms)),
                        entry->user_data, entry->user_data_len);
}

int __add(POLLER_ST* poller, uint32_t interval_ms, POLLER_TIMER_CALLBACK callback,
          const void* user_data, int32_t user_data_len, POLLER_RELEASE release,
          POLLER_TIMER_ENTRY_ST** timer) {
    constexpr const char* operation = "poller_timer_add";
    if (poller == nullptr || user_data_len <= 0)
        return EINVAL;
    POLLER_TIMER_ENTRY_ST* made = nullptr;
    if (const int status = poller_timer_init_entry(&made, interval_ms, callback); status != 0) {
        DM_LOG_ERROR_IN(poller_log, operation, "init poller timer entry fail ret = %d\n", status);
        return status;
    }
    std::unique_ptr<POLLER_TIMER_ENTRY_ST, dm::EntryDeleter> entry(made);
    if (user_data != nullptr) {
        const int status =
            dm::copy_user_data(made, user_data, static_cast<uint32_t>(user_data_len),
                               DM_LOG_SITE_IN(poller_log, operation), "entry->user_data fail!\n",
                               DM_LOG_SITE_IN(poller_log, operation));
        if (status != 0)
            return status;
    }
    auto* timer_entry = static_cast<TimerEntry*>(made);
    dm::Owned<LIST_NODE_ST> node;
    if (const int status = dm::make_node(poller->timer_list, made, node); status != 0) {
        DM_LOG_ERROR_IN(poller_log, operation, "failed to call list_insert_ascend\n");
        return status;
    }
    Poller* self = dm::private_of(poller);
    timer_entry->tail.node = node.get();
    timer_entry->tail.release = release;
    // The handle is stored before the timer can fire, so that no late store brings back a handle
    // that is dead by then.
    if (timer != nullptr)
        dm::store(*timer, made);
    static_cast<void>(entry.release()); // it is the list's from here on
    const dm::ListLock lock(poller->timer_list);
    timer_entry->tail.number = self->timers_added++;
    dm::link_behind(__place(self, timer_entry), std::move(node));
    return 0;
}

} // namespace

int poller_timer_init_entry(POLLER_TIMER_ENTRY_ST** entry, uint32_t interval_ms,
                            POLLER_TIMER_CALLBACK callback) {
    auto made = dm::allocate<TimerEntry>();
    if (!made)
        return ENOMEM;
    if (const int status = dm::zero(made.get()); status != 0) {
        DM_LOG_ERROR(poller_log, "entry memset fail!\n");
        return status;
    }
    const POLLER_TIME_ST now = __now();
    poller_time_add_ms(&made->deadline, &now, static_cast<int32_t>(interval_ms));
    made->interval_ms = interval_ms;
    made->callback = callback;
    *entry = made.release();
    return 0;
}

int __poller_timer_add_owning(POLLER_ST* poller, uint32_t interval_ms,
                              POLLER_TIMER_CALLBACK callback, const void* user_data,
                              int32_t user_data_len, POLLER_RELEASE release,
                              POLLER_TIMER_ENTRY_ST** timer) {
    return __add(poller, interval_ms, callback, user_data, user_data_len, release, timer);
}

int poller_timer_add(POLLER_ST* poller, uint32_t interval_ms, POLLER_TIMER_CALLBACK callback,
                     const void* user_data, int32_t user_data_len, POLLER_TIMER_ENTRY_ST** timer) {
    return __add(poller, interval_ms, callback, user_data, user_data_len, nullptr, timer);
}

int poller_timer_remove(POLLER_ST* poller, POLLER_TIMER_ENTRY_ST* const* timer) {
    if (poller == nullptr || timer == nullptr)
        return EINVAL;
    const POLLER_TIMER_ENTRY_ST* handle = dm::load(*timer);
    if (handle == nullptr || poller->timer_list == nullptr) // a poller whose end has come has none
        return 0;
    const dm::ListLock lock(poller->timer_list);
    Poller* self = dm::private_of(poller);
    if (LIST_NODE_ST* node = __find(self, handle); node != nullptr)
        dm::remove_entry(poller, self->marked_timers, dm::entry_of<TimerEntry>(node), node);
    return 0;
}

void __poller_run_timers(Poller* poller) {
    POLLER_TIME_ST now;
    if (!__clear_head(poller, now))
        return;
    // A timer that is added from here on waits for the next pass, however short it is, so that
    // callbacks that add timers cannot hold the loop. Nor can other threads, which make more to
    // pass by as long as this goes on.
    const uint64_t added_before = poller->timers_added.load();
    uint32_t passed_by = 0;
    dm::ListWalk walk(poller->timer_list);
    while (LIST_NODE_ST* node = passed_by < kMostSwept ? walk.next() : nullptr) {
        const auto* entry = dm::entry_of<TimerEntry>(node);
        if (dm::is_marked(entry)) {
            list_remove(poller->timer_list, node);
            ++passed_by;
            continue;
        }
        const int32_t left_ms = __ms_until(entry, now);
        if (left_ms > 0)
            break;
        if (entry->tail.number >= added_before) {
            ++passed_by;
            continue;
        }
        const TakenOut fired(poller->timer_list, node);
        __fire(entry, left_ms);
    }
}

int poller_timer_entry_cmp(const void* entry, const void* key) {
    return -list_default_compare(key, entry);
}

int poller_timer_deadline_cmp(const void* entry, const void* key) {
    return poller_time_cmp(&static_cast<const POLLER_TIMER_ENTRY_ST*>(entry)->deadline,
                           &static_cast<const POLLER_TIMER_ENTRY_ST*>(key)->deadline);
}
