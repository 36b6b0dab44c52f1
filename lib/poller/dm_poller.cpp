#include "dm_poller.h"

#include "base/atomic_field.h"
#include "base/counted.h"
#include "base/descriptor.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/pipe.h"
#include "list/dm_list_walk.h"
#include "platform_adapter.h"
#include "poller/dm_poller_private.h"

#include <sched.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <new>
#include <optional>

namespace {

constinit dm::SubjectLog poller_log;

constexpr int kIdleWaitMs = 50;
constexpr uint32_t kSlotStep = 8;
constexpr uint8_t kNoticeExit = 1;
constexpr uint8_t kNoticeDestory = 2;
constexpr const char* kThreadName = "do_poll";
constexpr MM_THREAD_ATTR_ST kThreadAttr{
    .detach_flag = 0,
    .priority_flag = 1,
    .priority = 60,
    .policy_flag = 1,
    .policy = SCHED_RR,
    .stack_flag = 1,
    .stack_size = 131072,
};

// How many entries of a list are marked as removed and not yet released. A sweep walks a list only
// as far as it must.
using MarkedCount = std::atomic<int32_t>;

// What both kinds of entry carry behind their common public fields.
struct EntryTail {
    MarkedCount* marked;    // the count that the entry is in once it is marked
    POLLER_RELEASE release; // called with the user data when the entry goes, or null
    uint64_t number;        // timers: how many were added before
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

// What runs once no callback will run any more.
struct EndHook {
    void (*run)(void* arg) = nullptr;
    void* arg = nullptr;

    void operator()() const {
        if (run != nullptr)
            run(arg);
    }
};

struct Poller : POLLER_ST {
    // Guards the beginning and the end of the poll thread, so that a release is never lost between
    // a thread that starts or leaves and poller_destory().
    std::mutex life;
    bool starting = false;          // a thread was created and has not begun yet
    bool destroy_requested = false; // the poll thread releases the poller as it leaves
    EndHook end_hook;

    // Guards which descriptor's callback runs, so that a removal can wait for it.
    std::mutex gate;
    std::condition_variable callback_ended;
    const POLLER_FD_ENTRY_ST* running = nullptr;
    uint64_t callbacks_ended = 0;
    uint32_t waiting = 0; // removals that wait for a callback

    std::atomic<pthread_t> current{}; // the poll thread while it runs
    MarkedCount marked_fds{0};
    MarkedCount marked_timers{0};
    std::atomic<uint64_t> timers_added{0};
    std::atomic<uint64_t> fd_changes{1}; // goes up as entries are added, marked or removed
};

Poller* __private(POLLER_ST* poller) {
    return static_cast<Poller*>(poller);
}

bool __is_running(const POLLER_ST* poller) {
    return dm::load(poller->state) == POLLER_RUN;
}

template<class Entry>
bool __is_marked(const Entry* entry) {
    return dm::load(entry->removed) != 0;
}

template<class Entry>
Entry* __entry(LIST_NODE_ST* node) {
    return static_cast<Entry*>(list_to_item(node));
}

// Marks an entry for the sweep. The count goes up first: a sweep may then look in vain, but never
// misses a mark.
template<class Entry>
void __mark(Entry* entry, MarkedCount& marked) {
    marked.fetch_add(1);
    if (std::atomic_ref(entry->removed).exchange(1) != 0)
        marked.fetch_sub(1);
}

// ---- notices: one-byte messages from other threads into the loop ----

void __poller_send_notice(POLLER_ST* poller, uint8_t notice) {
    mmWriteFile(poller->notify_fd[1], &notice, sizeof(notice));
}

int __poller_recv_notice(int fd, int events, void* user_data, uint32_t /*user_data_len*/) {
    POLLER_ST* poller = *static_cast<POLLER_ST**>(user_data);
    uint8_t notice = 0;
    if ((events & POLLIN) != 0 && mmReadFile(fd, &notice, sizeof(notice)) < 0)
        DM_LOG_ERROR(poller_log, "read %u error\r\n", static_cast<unsigned>(notice));
    if (notice == kNoticeExit)
        dm::store<uint32_t>(poller->state, POLLER_EXIT);
    if (notice == kNoticeDestory)
        dm::store<uint32_t>(poller->state, POLLER_DESTORY);
    return 0;
}

// Notices to a thread that has left would stop the next one.
void __drain_notices(POLLER_ST* poller) {
    uint8_t notice = 0;
    while (mmReadFile(poller->notify_fd[0], &notice, sizeof(notice)) > 0) {
    }
}

void __close_notifier_end(int fd) {
    const int ret_t = mmCloseFile(fd);
    DM_ASSERT_CLOSED_IN(poller_log, __func__, ret_t, "ret_t == 0");
}

using NotifierEnd = dm::Descriptor<__close_notifier_end>;

int __poller_self_notifier_init(POLLER_ST* poller) {
    poller->notify_fd[0] = -1;
    poller->notify_fd[1] = -1;
    NotifierEnd read_end;
    NotifierEnd write_end;
    int status = dm::open_pipe(read_end, write_end);
    if (status != 0)
        return status;
    status = poller_fd_add(poller, read_end.get(), POLLIN, __poller_recv_notice, &poller,
                           sizeof(poller));
    if (status != 0)
        return status;
    poller->notify_fd[0] = read_end.release();
    poller->notify_fd[1] = write_end.release();
    return 0;
}

// ---- release ----

void __close_notifier(int fd) {
    const int ret = mmCloseFile(fd);
    DM_ASSERT_CLOSED_IN(poller_log, __func__, ret, "ret == 0");
}

struct PollerDeleter {
    void operator()(Poller* poller) const {
        poller->~Poller();
        std::free(poller);
    }
};

void __poller_free(Poller* poller) {
    const std::unique_ptr<Poller, PollerDeleter> released(poller);
    list_destroy(poller->fd_list);
    list_destroy(poller->timer_list);
    __close_notifier(poller->notify_fd[0]);
    __close_notifier(poller->notify_fd[1]);
    poller->end_hook();
}

// ---- descriptors in a pass ----

// The array that poll() gets, kept from pass to pass.
struct PollArray {
    dm::Owned<pollfd> fds;
    uint32_t count = 0;  // slots handed to poll()
    uint32_t size = 0;   // slots allocated
    uint64_t loaded = 0; // the state of Poller::fd_changes that the slots reflect
};

// No entry may keep a slot of an array that is released or not polled.
void __clear_slots(LIST_ST* list) {
    dm::ListWalk walk(list);
    while (LIST_NODE_ST* node = walk.next())
        __entry<POLLER_FD_ENTRY_ST>(node)->slot = nullptr;
}

// Replaces the array by one with room for `count` slots. False leaves nothing to poll.
bool __grow_fds(dm::Owned<pollfd>* fds, uint32_t count, uint32_t* size) {
    const uint32_t grown = (count + kSlotStep) & ~(kSlotStep - 1);
    auto array = dm::allocate<pollfd>(grown * sizeof(pollfd));
    if (!array) {
        DM_LOG_ERROR(poller_log, "malloc fail. errno=%d.", errno);
        return false;
    }
    if (dm::zero(array.get(), grown * sizeof(pollfd)) != 0) {
        DM_LOG_ERROR(poller_log, "memset_s fail. errno=%d.", errno);
        return false;
    }
    *fds = std::move(array);
    *size = grown;
    return true;
}

// Gives every entry that is not marked a slot. When the array cannot grow, the count becomes 0 and
// no entry has a slot: the pass polls nothing and dispatches nothing.
void __poller_load_fds(LIST_ST* list, dm::Owned<pollfd>* fds, uint32_t* nfds, uint32_t* size) {
    if (!DM_CHECK(fds != nullptr, "(fds != ((void *)0))") ||
        !DM_CHECK(nfds != nullptr, "(nfds != ((void *)0))") ||
        !DM_CHECK(size != nullptr, "(size != ((void *)0))"))
        return;
    *nfds = list_size(list);
    if ((*size == 0 || *size < *nfds) && !__grow_fds(fds, *nfds, size)) {
        *nfds = 0;
        __clear_slots(list);
        return;
    }
    // poll() gets as many slots as the list has nodes, even when marked entries take none; the
    // last slots then keep what an earlier pass left there, which no entry refers to.
    pollfd* slot = fds->get();
    const pollfd* end = slot + *nfds;
    dm::ListWalk walk(list);
    while (LIST_NODE_ST* node = walk.next()) {
        auto* entry = __entry<POLLER_FD_ENTRY_ST>(node);
        const bool takes_slot = slot != end && !__is_marked(entry);
        entry->slot = takes_slot ? slot : nullptr;
        if (takes_slot)
            *slot++ = {entry->fd, entry->events, entry->revents};
    }
}

// Loads the array anew when the descriptors have changed since.
void __refresh_fds(Poller* poller, PollArray& array) {
    const uint64_t changes = poller->fd_changes;
    if (array.loaded == changes)
        return;
    __poller_load_fds(poller->fd_list, &array.fds, &array.count, &array.size);
    array.loaded = array.count != 0 ? changes : 0; // the next pass tries again to grow
}

// The time that a descriptor's callback runs.
class CallbackScope {
public:
    // Begins the callback unless its entry was removed.
    CallbackScope(Poller* poller, const LIST_NODE_ST* node, const POLLER_FD_ENTRY_ST* entry)
        : poller_(poller) {
        const std::lock_guard lock(poller_->gate);
        begun_ = !__is_marked(entry) && dm::load(node->removed) == 0;
        if (begun_)
            poller_->running = entry;
    }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;
    ~CallbackScope() {
        if (!begun_)
            return;
        const std::lock_guard lock(poller_->gate);
        poller_->running = nullptr;
        ++poller_->callbacks_ended;
        if (poller_->waiting != 0)
            poller_->callback_ended.notify_all();
    }

    bool begun() const { return begun_; }

private:
    Poller* poller_;
    bool begun_;
};

// Calls back for the `ready` slots in which poll() returned events.
void __poller_dispatch_fds(Poller* poller, int ready) {
    dm::ListWalk walk(poller->fd_list);
    while (ready > 0) {
        LIST_NODE_ST* node = walk.next();
        if (node == nullptr)
            return; // the slot of an entry that was removed
        const auto* entry = __entry<POLLER_FD_ENTRY_ST>(node);
        if (entry->slot == nullptr || entry->slot->revents == 0)
            continue;
        --ready;
        const CallbackScope scope(poller, node, entry);
        if (scope.begun() && entry->callback != nullptr)
            entry->callback(entry->slot->fd, entry->slot->revents, entry->user_data,
                            entry->user_data_len);
    }
}

// ---- timers in a pass ----

void __poller_run_timers(Poller* poller) {
    if (list_is_empty(poller->timer_list) != 0)
        return;
    // A timer that is added from here on waits for the next pass, however short it is, so that
    // callbacks that add timers cannot hold the loop.
    const uint64_t added_before = poller->timers_added.load();
    dm::ListWalk walk(poller->timer_list);
    while (LIST_NODE_ST* node = walk.next()) {
        auto* entry = __entry<TimerEntry>(node);
        if (!__is_marked(entry)) {
            const int32_t left_ms = poller_ms_until(entry);
            if (left_ms > 0)
                break;
            if (entry->tail.number >= added_before)
                continue;
            if (entry->callback != nullptr)
                entry->callback(
                    entry->interval_ms,
                    static_cast<int32_t>(entry->interval_ms - static_cast<uint32_t>(left_ms)),
                    entry->user_data, entry->user_data_len);
        }
        list_remove(poller->timer_list, node);
    }
}

// Removes the marked entries. True when there may have been one.
template<class Entry>
bool __poller_sweep_removed(LIST_ST* list, const MarkedCount& marked) {
    const int32_t expected = marked.load();
    if (expected <= 0)
        return false;
    dm::ListWalk walk(list);
    for (int32_t left = expected; left > 0;) {
        LIST_NODE_ST* node = walk.next();
        if (node == nullptr)
            break;
        if (!__is_marked(__entry<Entry>(node)))
            continue;
        list_remove(list, node);
        --left;
    }
    return true;
}

// ---- the poll thread ----

int __wait_ms(const POLLER_ST* poller, uint32_t loaded) {
    if (list_is_empty(poller->timer_list) != 0 || list_size(poller->fd_list) != loaded)
        return kIdleWaitMs;
    // The walk keeps the first timer: another thread may be about to leave it, as its last visitor.
    dm::ListWalk walk(poller->timer_list);
    LIST_NODE_ST* first = walk.next();
    if (first == nullptr)
        return kIdleWaitMs;
    return std::max(poller_ms_until(__entry<POLLER_TIMER_ENTRY_ST>(first)), 1);
}

void __poll_pass(Poller* poller, PollArray& array) {
    pollfd* fds = nullptr;
    nfds_t nfds = 0;
    if (list_is_empty(poller->fd_list) == 0) {
        __refresh_fds(poller, array);
        fds = array.fds.get();
        nfds = array.count;
    }
    const int ret = poll(fds, nfds, __wait_ms(poller, array.count));
    if (ret > 0)
        __poller_dispatch_fds(poller, ret);
    if (ret < 0 && errno != EINTR) {
        DM_LOG_ERROR(poller_log, "do poll failed, ret = %d, errno:%d\n", ret, errno);
        return;
    }
    __poller_run_timers(poller);
    if (__poller_sweep_removed<POLLER_FD_ENTRY_ST>(poller->fd_list, poller->marked_fds))
        ++poller->fd_changes;
    __poller_sweep_removed<POLLER_TIMER_ENTRY_ST>(poller->timer_list, poller->marked_timers);
}

// False when the poller was destroyed before its thread had begun.
bool __enter_loop(Poller* poller) {
    const std::lock_guard lock(poller->life);
    poller->starting = false;
    if (poller->destroy_requested)
        return false;
    poller->current.store(pthread_self());
    dm::store<uint32_t>(poller->state, POLLER_RUN);
    return true;
}

// True when the poller is to be released. Otherwise it is idle, and may be run or released by
// another thread, as soon as the lock is left.
bool __leave_loop(Poller* poller) {
    const std::lock_guard lock(poller->life);
    poller->current.store({});
    if (poller->destroy_requested || dm::load(poller->state) == POLLER_DESTORY)
        return true;
    __drain_notices(poller);
    dm::store<uint32_t>(poller->state, POLLER_IDLE);
    return false;
}

void __do_poll_free_resource(Poller* poller, PollArray array) {
    DM_LOG_WARNING("do poll exit, poll state = %d\n", static_cast<int>(dm::load(poller->state)));
    __clear_slots(poller->fd_list);
    array.fds.reset();
    if (__leave_loop(poller))
        __poller_free(poller);
}

void* __do_poll(void* arg) {
    auto* poller = static_cast<Poller*>(arg);
    pthread_detach(pthread_self());
    mmSetCurrentThreadName(kThreadName);
    if (!__enter_loop(poller)) {
        __poller_free(poller);
        return nullptr;
    }
    PollArray array;
    while (__is_running(poller))
        __poll_pass(poller, array);
    __do_poll_free_resource(poller, std::move(array));
    return nullptr;
}

int __create_thread(Poller* poller) {
    const MM_USER_BLOCK_ST block{__do_poll, poller};
    if (mmCreateTaskWithThreadAttr(&poller->thread, &block, &kThreadAttr) == 0)
        return 0;
    DM_LOG_WARNING("The system does not support ajusting sched priority, "
                   "try using default thread prority\n");
    return mmCreateTask(&poller->thread, &block);
}

// ---- adding and removing ----

// Gives an entry its copy of the user data. `zero_failed` is the line for a failed zeroing.
template<class Entry>
int __copy_user_data(Entry* entry, const void* user_data, uint32_t len, const char* zero_failed) {
    dm::Duplicate copy = dm::duplicate(user_data, len, memmove_s);
    if (copy.failed == dm::Duplicate::Step::zero)
        DM_LOG_ERROR(poller_log, "%s", zero_failed);
    if (copy.failed == dm::Duplicate::Step::copy)
        DM_LOG_ERROR(poller_log, "memmove_s error\n");
    if (copy.status != 0)
        return copy.status;
    entry->user_data = copy.bytes.release();
    entry->user_data_len = len;
    return 0;
}

struct EntryDeleter {
    void operator()(void* entry) const { poller_entry_free(entry); }
};

// Removes the entries that match. Gives how many callbacks must have ended before none of the
// removed entries' callbacks runs any more; nothing when none does.
std::optional<uint64_t> __remove_fd_entries(Poller* poller, const POLLER_FD_ENTRY_ST& key) {
    std::optional<uint64_t> awaited;
    dm::ListWalk walk(poller->fd_list);
    while (LIST_NODE_ST* node = walk.next()) {
        auto* entry = __entry<POLLER_FD_ENTRY_ST>(node);
        if (poller_fd_entry_cmp(entry, &key) != 0)
            continue;
        if (__is_running(poller))
            __mark(entry, poller->marked_fds);
        else
            list_remove(poller->fd_list, node);
        ++poller->fd_changes;
        // A callback begins under the gate, after a look at the entry and its node: from here on
        // it either runs already or will not begin.
        const std::lock_guard lock(poller->gate);
        if (poller->running == entry)
            awaited = poller->callbacks_ended + 1;
    }
    return awaited;
}

POLLER_FD_ENTRY_ST __fd_key(int fd, int events) {
    POLLER_FD_ENTRY_ST key{};
    key.fd = fd;
    key.events = static_cast<int16_t>(events);
    return key;
}

} // namespace

int poller_create(POLLER_ST** poller) {
    if (poller == nullptr)
        return EINVAL;
    *poller = nullptr;
    auto block = dm::allocate<void>(sizeof(Poller));
    if (!block)
        return ENOMEM;
    if (const int status = memset_s(block.get(), sizeof(Poller), 0, sizeof(Poller)); status != 0) {
        DM_LOG_ERROR(poller_log, "memset_s fail!\n");
        return status;
    }
    std::unique_ptr<Poller, PollerDeleter> made(new (block.release()) Poller());

    int status = list_create(&made->fd_list, poller_fd_entry_cmp, poller_entry_free);
    if (status != 0)
        return status;
    struct ListDeleter {
        void operator()(LIST_ST* list) const { list_destroy(list); }
    };
    std::unique_ptr<LIST_ST, ListDeleter> fd_list(made->fd_list);
    status = list_create(&made->timer_list, poller_timer_entry_cmp, poller_entry_free);
    if (status != 0)
        return status;
    std::unique_ptr<LIST_ST, ListDeleter> timer_list(made->timer_list);

    made->owner_tid = pthread_self();
    made->state = POLLER_IDLE;
    status = __poller_self_notifier_init(made.get());
    if (status != 0)
        return status;
    static_cast<void>(fd_list.release()); // they are the poller's now
    static_cast<void>(timer_list.release());
    *poller = made.release();
    return 0;
}

int poller_run(POLLER_ST* poller) {
    if (poller == nullptr)
        return EINVAL;
    if (pthread_equal(pthread_self(), poller->owner_tid) == 0)
        return 1;
    Poller* self = __private(poller);
    {
        const std::lock_guard lock(self->life);
        if (dm::load(poller->state) != POLLER_IDLE || self->starting)
            return 1;
        self->starting = true;
    }
    const int status = __create_thread(self);
    // From here on a thread that was created may have released the poller.
    if (status == 0)
        return 0;
    bool destroy_requested = false;
    {
        const std::lock_guard lock(self->life);
        self->starting = false;
        destroy_requested = self->destroy_requested;
    }
    if (destroy_requested)
        __poller_free(self);
    return status;
}

int poller_exit(POLLER_ST* poller) {
    if (pthread_equal(pthread_self(), poller->owner_tid) == 0)
        return 1;
    __poller_send_notice(poller, kNoticeExit);
    return 0;
}

int poller_destory(POLLER_ST* poller) {
    if (poller == nullptr)
        return EINVAL;
    Poller* self = __private(poller);
    EndHook hook;
    bool is_starting = false;
    {
        const std::lock_guard lock(self->life);
        const uint32_t state = dm::load(poller->state);
        if (state == POLLER_EXIT || state == POLLER_DESTORY)
            return 0;
        if (state == POLLER_RUN) {
            // The notice ends the wait; the request itself outlives an exit notice before it.
            self->destroy_requested = true;
            __poller_send_notice(poller, kNoticeDestory);
            return 0;
        }
        is_starting = self->starting;
        if (is_starting) {
            self->destroy_requested = true;
            hook = std::exchange(self->end_hook, {});
        }
    }
    // A thread that is about to start releases the poller before it runs anything, if it ever does.
    if (is_starting)
        hook();
    else
        __poller_free(self);
    return 0;
}

void __poller_on_end(POLLER_ST* poller, void (*hook)(void* arg), void* arg) {
    __private(poller)->end_hook = {hook, arg};
}

bool __poller_is_current(POLLER_ST* poller) {
    return pthread_equal(__private(poller)->current.load(), pthread_self()) != 0;
}

int poller_init_entry(POLLER_FD_ENTRY_ST** entry, int fd, int16_t events,
                      POLLER_FD_CALLBACK callback) {
    auto made = dm::allocate<FdEntry>();
    if (!made) {
        DM_LOG_ERROR(poller_log, "malloc fail\n");
        return ENOMEM;
    }
    if (const int status = dm::zero(made.get()); status != 0) {
        DM_LOG_ERROR(poller_log, "memset_s fail!\n");
        return status;
    }
    made->fd = fd;
    made->events = events;
    made->callback = callback;
    *entry = made.release();
    return 0;
}

int poller_fd_add(POLLER_ST* poller, int fd, int16_t events, POLLER_FD_CALLBACK callback,
                  const void* user_data, int32_t user_data_len) {
    if (poller == nullptr || user_data_len == 0)
        return EINVAL;
    POLLER_FD_ENTRY_ST* made = nullptr;
    if (const int status = poller_init_entry(&made, fd, events, callback); status != 0) {
        DM_LOG_ERROR(poller_log, "init entry fail ret = %d\n", status);
        return status;
    }
    std::unique_ptr<POLLER_FD_ENTRY_ST, EntryDeleter> entry(made);
    static_cast<FdEntry*>(made)->tail.marked = &__private(poller)->marked_fds;
    if (user_data != nullptr && user_data_len > 0) {
        const int status = __copy_user_data(made, user_data, static_cast<uint32_t>(user_data_len),
                                            "memset_s fail!\n");
        if (status != 0)
            return status;
    }
    const int status = list_append(poller->fd_list, made);
    if (status != 0)
        return status;
    static_cast<void>(entry.release()); // it is the list's now
    ++__private(poller)->fd_changes;
    return 0;
}

int poller_fd_remove(POLLER_ST* poller, int fd, int events) {
    if (poller == nullptr)
        return EINVAL;
    __remove_fd_entries(__private(poller), __fd_key(fd, events));
    return 0;
}

int __poller_fd_remove_and_wait(POLLER_ST* poller, int fd, int events) {
    if (poller == nullptr)
        return EINVAL;
    Poller* self = __private(poller);
    const auto awaited = __remove_fd_entries(self, __fd_key(fd, events));
    if (!awaited || __poller_is_current(poller))
        return 0;
    std::unique_lock lock(self->gate);
    const dm::Counted waiting(self->waiting);
    self->callback_ended.wait(lock, [&] { return self->callbacks_ended >= *awaited; });
    return 0;
}

int poller_timer_init_entry(POLLER_TIMER_ENTRY_ST** entry, uint32_t interval_ms,
                            POLLER_TIMER_CALLBACK callback) {
    auto made = dm::allocate<TimerEntry>();
    if (!made)
        return ENOMEM;
    if (const int status = dm::zero(made.get()); status != 0) {
        DM_LOG_ERROR(poller_log, "entry memset fail!\n");
        return status;
    }
    const MM_TIMESPEC_ST tick = mmGetTickCount();
    const POLLER_TIME_ST now{tick.tv_sec, tick.tv_nsec};
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
    if (poller == nullptr || user_data_len <= 0)
        return EINVAL;
    POLLER_TIMER_ENTRY_ST* made = nullptr;
    if (const int status = poller_timer_init_entry(&made, interval_ms, callback); status != 0) {
        DM_LOG_ERROR(poller_log, "init poller timer entry fail ret = %d\n", status);
        return status;
    }
    std::unique_ptr<POLLER_TIMER_ENTRY_ST, EntryDeleter> entry(made);
    if (user_data != nullptr) {
        const int status = __copy_user_data(made, user_data, static_cast<uint32_t>(user_data_len),
                                            "entry->user_data fail!\n");
        if (status != 0)
            return status;
    }
    Poller* self = __private(poller);
    EntryTail& tail = static_cast<TimerEntry*>(made)->tail;
    tail = {&self->marked_timers, release, self->timers_added.fetch_add(1)};
    // The handle is stored before the timer can fire, so that no late store brings back a handle
    // that is dead by then.
    const auto store_handle = [timer](POLLER_TIMER_ENTRY_ST* handle) {
        return timer != nullptr ? std::atomic_ref(*timer).exchange(handle) : nullptr;
    };
    POLLER_TIMER_ENTRY_ST* before = store_handle(made);
    const int status = list_insert_ascend(poller->timer_list, made, poller_timer_deadline_cmp);
    if (status != 0) {
        DM_LOG_ERROR(poller_log, "failed to call list_insert_ascend\n");
        store_handle(before);
        tail.release = nullptr;
        return status;
    }
    static_cast<void>(entry.release()); // it is the list's now
    return 0;
}

int poller_timer_add(POLLER_ST* poller, uint32_t interval_ms, POLLER_TIMER_CALLBACK callback,
                     const void* user_data, int32_t user_data_len, POLLER_TIMER_ENTRY_ST** timer) {
    return __poller_timer_add_owning(poller, interval_ms, callback, user_data, user_data_len,
                                     nullptr, timer);
}

int poller_timer_remove(POLLER_ST* poller, POLLER_TIMER_ENTRY_ST* const* timer) {
    if (poller == nullptr || timer == nullptr)
        return EINVAL;
    const POLLER_TIMER_ENTRY_ST* handle = dm::load(*timer);
    if (handle == nullptr)
        return 0;
    dm::ListWalk walk(poller->timer_list);
    while (LIST_NODE_ST* node = walk.next()) {
        auto* entry = __entry<POLLER_TIMER_ENTRY_ST>(node);
        if (poller_timer_entry_cmp(entry, handle) != 0)
            continue;
        if (__is_running(poller))
            __mark(entry, __private(poller)->marked_timers);
        else
            list_remove(poller->timer_list, node);
        break; // an address is listed once
    }
    return 0;
}

void poller_entry_free(void* entry) {
    if (entry == nullptr)
        return;
    auto* released = static_cast<TimerEntry*>(entry);
    if (released->tail.marked != nullptr && __is_marked(released))
        released->tail.marked->fetch_sub(1);
    if (released->tail.release != nullptr)
        released->tail.release(released->user_data);
    std::free(released->user_data);
    std::free(released);
}

int poller_fd_entry_cmp(const void* entry, const void* key) {
    const auto* a = static_cast<const POLLER_FD_ENTRY_ST*>(entry);
    const auto* b = static_cast<const POLLER_FD_ENTRY_ST*>(key);
    return a->fd == b->fd && (a->events & b->events) != 0 ? 0 : 1;
}

int poller_timer_entry_cmp(const void* entry, const void* key) {
    return -list_default_compare(key, entry);
}

int poller_timer_deadline_cmp(const void* entry, const void* key) {
    return poller_time_cmp(&static_cast<const POLLER_TIMER_ENTRY_ST*>(entry)->deadline,
                           &static_cast<const POLLER_TIMER_ENTRY_ST*>(key)->deadline);
}
