#include "dm_poller.h"

#include "base/cancellation.h"
#include "base/descriptor.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/pipe.h"
#include "list/dm_list_private.h"
#include "platform_adapter.h"
#include "poller/poll_array.h"
#include "poller/poll_pass.h"
#include "poller/poller_record.h"

#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

constinit dm::SubjectLog poller_log;

namespace {

using dm::PollArray;
using dm::Poller;
using Phase = dm::PollerPhase;

constexpr int kIdleWaitMs = 50;
constexpr uint8_t kNoticeExit = 1;
constexpr uint8_t kNoticeDestory = 2;
constexpr uint8_t kNoticeWake = 3; // ends the wait, and means nothing else
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

// ---- notices: one-byte messages from other threads into the loop ----

bool __poller_send_notice(POLLER_ST* poller, uint8_t notice) {
    return mmWriteFile(poller->notify_fd[1], &notice, sizeof(notice)) == sizeof(notice);
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
    if (notice == kNoticeWake)
        dm::private_of(poller)->wake_sent = false;
    return 0;
}

// Notices to a thread that has left would stop the next one.
void __drain_notices(Poller* poller) {
    uint8_t notice = 0;
    while (mmReadFile(poller->notify_fd[0], &notice, sizeof(notice)) > 0) {
    }
    poller->wake_sent = false;
}

void __close_unused_end(int fd) {
    const int ret_t = mmCloseFile(fd);
    DM_ASSERT_CLOSED_IN(poller_log, "__poller_self_notifier_init", ret_t, "ret_t == 0");
}

using NotifierEnd = dm::Descriptor<__close_unused_end>;

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

void __close_notifier_end(int32_t& end) {
    const int fd = std::exchange(end, -1);
    if (fd < 0)
        return;
    const int ret = mmCloseFile(fd);
    DM_ASSERT_CLOSED_IN(poller_log, "__poller_free", ret, "ret == 0");
}

// Asks the thread to release the poller. The notice ends its wait; where none can be written, the
// end of the pipe does. The life is locked.
void __request_destroy(Poller* poller) {
    poller->phase = Phase::destroying;
    poller->destroy_requested = true;
    errno = 0;
    if (!__poller_send_notice(poller, kNoticeDestory) && errno != EAGAIN)
        __close_notifier_end(poller->notify_fd[1]);
}

// ---- release ----

struct HandleDrop {
    void operator()(Poller* poller) const { __poller_drop(poller); }
};

using HandleShare = std::unique_ptr<Poller, HandleDrop>;

// Releases all but the handle, whose lists are null from then on. Not left half done. The phase is
// `released`: nobody else does.
void __poller_free(Poller* poller) {
    const dm::CancellationOff whole;
    const HandleShare creators(poller);
    list_destroy(std::exchange(poller->fd_list, nullptr));
    list_destroy(std::exchange(poller->timer_list, nullptr));
    __close_notifier_end(poller->notify_fd[0]);
    __close_notifier_end(poller->notify_fd[1]);
    if (poller->owner.on_end != nullptr)
        poller->owner.on_end(poller->owner.arg);
}

// ---- the poll thread ----

int __wait_ms(const POLLER_ST* poller, uint32_t loaded) {
    if (list_is_empty(poller->timer_list) != 0 || list_size(poller->fd_list) != loaded)
        return kIdleWaitMs;
    POLLER_TIMER_ENTRY_ST first{};
    {
        const dm::ListLock lock(poller->timer_list);
        LIST_NODE_ST* node = dm::first_node(poller->timer_list);
        if (node == nullptr)
            return kIdleWaitMs;
        first.deadline = dm::entry_of<POLLER_TIMER_ENTRY_ST>(node)->deadline;
    }
    return std::max(poller_ms_until(&first), 1);
}

// Tells that the loop is left, and why.
class ExitLine {
public:
    explicit ExitLine(const Poller* poller) : poller_(poller) {}
    ExitLine(const ExitLine&) = delete;
    ExitLine& operator=(const ExitLine&) = delete;
    ~ExitLine() noexcept(false) {
        DM_LOG_WARNING_IN("__do_poll_free_resource", "do poll exit, poll state = %d\n",
                          static_cast<int>(dm::load(poller_->state)));
    }

private:
    const Poller* poller_;
};

// The loop on its thread, and the end of the thread however it ends: a callback may be cancelled.
class PollThread {
public:
    explicit PollThread(Poller* poller) : poller_(poller), share_(poller) {}
    PollThread(const PollThread&) = delete;
    PollThread& operator=(const PollThread&) = delete;
    ~PollThread() noexcept(false) {
        const dm::CancellationOff whole;
        if (leave())
            __poller_free(poller_);
    }

    void run() {
        if (!enter())
            return;
        PollArray array(poller_);
        const ExitLine line(poller_);
        while (goes_on())
            pass(array);
    }

private:
    // False when the poller was destroyed before its thread had begun.
    bool enter() {
        const std::lock_guard lock(poller_->life);
        if (poller_->phase == Phase::released)
            return false;
        poller_->phase = Phase::running;
        poller_->poll_thread = pthread_self();
        dm::store<uint32_t>(poller_->state, POLLER_RUN);
        return true;
    }

    // True when the poller is to be released. Otherwise it is idle, and may be run or released by
    // another thread, as soon as the lock is left.
    bool leave() {
        const std::lock_guard lock(poller_->life);
        poller_->poll_thread = {};
        if (poller_->phase == Phase::released)
            return false;
        if (poller_->phase == Phase::destroying || dm::load(poller_->state) == POLLER_DESTORY) {
            poller_->phase = Phase::released;
            return true;
        }
        __drain_notices(poller_);
        poller_->phase = Phase::idle;
        poller_->process = 0;
        dm::store<uint32_t>(poller_->state, POLLER_IDLE);
        return false;
    }

    // A request to destroy the poller ends the loop also when its notice did not get through.
    bool goes_on() {
        if (poller_->destroy_requested)
            dm::store<uint32_t>(poller_->state, POLLER_DESTORY);
        return dm::is_running(poller_);
    }

    void pass(PollArray& array) {
        // The failing pass has not done it, and too many descriptors may be what made it fail.
        if (failures_ > 0)
            sweep_fds();
        if (failures_ > 1)
            await_notice();
        const int ready = wait(array);
        if (ready < 0)
            return;
        __poller_dispatch_fds(poller_, ready);
        __poller_run_timers(poller_);
        sweep_fds();
        const uint32_t swept = __poller_sweep_removed(poller_->timer_list, poller_->marked_timers);
        is_behind_ = swept == kMostSwept;
        if (poller_->owner.on_pass != nullptr)
            looks_again_ = poller_->owner.on_pass(poller_->owner.arg);
    }

    // Gives the number of ready descriptors, or -1 when the pass ends here.
    int wait(PollArray& array) {
        const int ret = poll_loaded(array);
        if (ret >= 0 || ret == -EINTR) {
            failures_ = 0;
            return std::max(ret, 0);
        }
        DM_LOG_ERROR_IN(poller_log, "__do_poll", "do poll failed, ret = %d, errno:%d\n", -1, -ret);
        ++failures_;
        return -1;
    }

    // A descriptor that is removed after the loading and before the wait is not waited for: who
    // removed it relies on that.
    //
    // Gives the result of poll(), or its negative error number.
    int poll_loaded(PollArray& array) {
        for (;;) {
            pollfd* fds = nullptr;
            nfds_t nfds = 0;
            if (list_is_empty(poller_->fd_list) == 0) {
                array.refresh();
                fds = array.slots();
                nfds = array.count();
            }
            int wait_ms = __wait_ms(poller_, array.count());
            if (looks_again_)
                wait_ms = std::min(wait_ms, kIdleWaitMs);
            if (is_behind_)
                wait_ms = 1;
            const dm::TurnScope turn(poller_->wait);
            if (fds != nullptr && !array.is_fresh())
                continue;
            const int ret = poll(fds, nfds, wait_ms);
            return ret < 0 ? -errno : ret;
        }
    }

    void sweep_fds() {
        if (__poller_sweep_removed(poller_->fd_list, poller_->marked_fds) != 0)
            ++poller_->fd_changes;
    }

    // While poll() keeps failing, the loop waits for notices alone.
    void await_notice() {
        pollfd notifier{poller_->notify_fd[0], POLLIN, 0};
        const int ret = poll(&notifier, 1, kIdleWaitMs);
        POLLER_ST* poller = poller_;
        if (ret > 0)
            __poller_recv_notice(notifier.fd, notifier.revents, &poller, sizeof(poller));
        if (ret < 0)
            mmSleep(kIdleWaitMs);
    }

    Poller* poller_;
    const HandleShare share_;
    uint32_t failures_ = 0;   // of poll(), one after another
    bool looks_again_ = true; // the owner wants the next pass soon, as far as is known
    bool is_behind_ = false;  // there were more marked timers than a pass sweeps
};

void* __do_poll(void* arg) {
    PollThread thread(static_cast<Poller*>(arg));
    pthread_detach(pthread_self());
    mmSetCurrentThreadName(kThreadName);
    thread.run();
    return nullptr;
}

int __create_thread(Poller* poller) {
    const MM_USER_BLOCK_ST block{__do_poll, poller};
    if (mmCreateTaskWithThreadAttr(&poller->thread, &block, &kThreadAttr) == 0)
        return 0;
    DM_LOG_WARNING_IN("poller_run", "The system does not support ajusting sched priority, "
                                    "try using default thread prority\n");
    return mmCreateTask(&poller->thread, &block);
}

// In a forked child there is no poll thread, and the notice pipe is the parent's.
bool __is_anothers(const Poller* poller) {
    const pid_t process = poller->process;
    return process != 0 && process != getpid();
}

enum class While { running, stopping };

// Releases a poller without a thread, or has its thread do it. A thread that is about to start
// finds the poller released.
void __destroy(Poller* poller, While at_most) {
    const dm::CancellationOff whole;
    if (__is_anothers(poller))
        return;
    {
        const std::lock_guard lock(poller->life);
        switch (poller->phase) {
        case Phase::running:
            if (dm::is_running(poller))
                __request_destroy(poller);
            else if (at_most == While::stopping)
                poller->phase = Phase::destroying;
            return;
        case Phase::idle:
        case Phase::starting:
            poller->phase = Phase::released;
            break;
        default:
            return;
        }
    }
    __poller_free(poller);
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
    HandleShare made(new (block.release()) Poller());

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
    const dm::CancellationOff whole;
    Poller* self = dm::private_of(poller);
    {
        const std::lock_guard lock(self->life);
        if (self->phase != Phase::idle)
            return 1;
        self->phase = Phase::starting;
        self->process = getpid();
    }
    self->holders.fetch_add(1);
    HandleShare threads(self);
    const int status = __create_thread(self);
    if (status == 0) {
        static_cast<void>(threads.release()); // which may have given it up by now
        return 0;
    }
    const std::lock_guard lock(self->life);
    if (self->phase == Phase::starting)
        self->phase = Phase::idle;
    self->process = 0;
    return status;
}

int poller_exit(POLLER_ST* poller) {
    Poller* self = dm::private_of(poller);
    if (pthread_equal(pthread_self(), poller->owner_tid) == 0 || __is_anothers(self))
        return 1;
    const std::lock_guard lock(self->life);
    __poller_send_notice(poller, kNoticeExit);
    return 0;
}

int poller_destory(POLLER_ST* poller) {
    if (poller == nullptr)
        return EINVAL;
    __destroy(dm::private_of(poller), While::running);
    return 0;
}

void __poller_end(POLLER_ST* poller) {
    __destroy(dm::private_of(poller), While::stopping);
}

// A thread that is cancelled in the write would leave word of a notice that is not there.
bool __poller_wake(POLLER_ST* poller) {
    const dm::CancellationOff whole;
    Poller* self = dm::private_of(poller);
    const std::lock_guard lock(self->life);
    if (self->wake_sent.exchange(true))
        return true;
    errno = 0;
    if (__poller_send_notice(poller, kNoticeWake))
        return true;
    self->wake_sent = false;
    return errno == EAGAIN; // a full pipe ends the wait as well
}

void __poller_hold(POLLER_ST* poller, const POLLER_OWNER& owner) {
    dm::private_of(poller)->holders.fetch_add(1);
    dm::private_of(poller)->owner = owner;
}

void __poller_drop(POLLER_ST* poller) {
    Poller* self = dm::private_of(poller);
    if (self->holders.fetch_sub(1) != 1)
        return;
    self->~Poller();
    std::free(self);
}

bool __poller_is_current(POLLER_ST* poller) {
    Poller* self = dm::private_of(poller);
    const std::lock_guard lock(self->life);
    return pthread_equal(self->poll_thread, pthread_self()) != 0;
}

uint32_t __poller_sweep_removed(LIST_ST* list, dm::MarkedEntries& marked) {
    const uint32_t count = std::min(marked.count(), kMostSwept);
    for (uint32_t i = 0; i < count; ++i) {
        const dm::ListLock lock(list);
        dm::EntryTail* tail = marked.oldest();
        if (tail == nullptr)
            break;
        marked.take_out(tail);
        dm::remove_node(tail->node);
    }
    return count;
}

void poller_entry_free(void* entry) {
    if (entry == nullptr)
        return;
    auto* released = static_cast<dm::TimerEntry*>(entry);
    dm::EntryTail& tail = released->tail;
    if (tail.marked != nullptr)
        tail.marked->take_out(&tail);
    if (tail.index != nullptr)
        tail.index->remove(released);
    if (tail.release != nullptr)
        tail.release(released->user_data);
    std::free(released->user_data);
    std::free(released);
}
