#include "vos/live_threads.h"

#include <cerrno>
#include <csignal>
#include <utility>

namespace dm {

// Nothing here is ever destroyed: threads may go on while the process exits.
[[gnu::tls_model("initial-exec")]] constinit thread_local ThisThread this_thread{};

namespace {

constinit ThreadTable threads;
constinit StartRecord* unborn = nullptr; // the records of threads that have not begun

void end_this_thread(void* /*recorded*/) {
    ThreadEntry* entry = nullptr;
    {
        const std::lock_guard lock(record_lock);
        entry = threads.find(pthread_self());
        if (entry == nullptr)
            return;
        entry->state = ThreadState::ending;
    }
    // No point of cancellation, other than a condition variable: this thread was cancelled.
    while (const uint32_t pins = entry->pins)
        entry->pins.wait(pins);
    const std::lock_guard lock(record_lock);
    threads.end(*entry);
}

// The hook of a thread's end, cancelled or not. It runs once: who uses the layer in a later
// destructor of thread-specific data is not recorded again, for nothing would end that record.
class EndHook {
public:
    EndHook() : is_made_(pthread_key_create(&key_, end_this_thread) == 0) {}

    bool arm() const { return is_made_ && pthread_setspecific(key_, &this_thread) == 0; }

private:
    pthread_key_t key_{};
    bool is_made_;
};

const EndHook end_hook;

// Gives `record` if it is that of a thread which has not begun.
StartRecord* take_unborn(const void* record) {
    for (StartRecord** link = &unborn; *link != nullptr; link = &(*link)->next)
        if (*link == record)
            return std::exchange(*link, (*link)->next);
    return nullptr;
}

} // namespace

Birth::Birth(StartRecord& record) : record_(&record) {
    const std::lock_guard lock(record_lock);
    record.birth = this;
    record.next = std::exchange(unborn, &record);
}

Birth::~Birth() {
    if (record_ == nullptr)
        return;
    const std::lock_guard lock(record_lock);
    take_unborn(record_);
}

// When the thread has begun, it may have ended as well, and the identifier be another thread's.
void Birth::created(pthread_t id) {
    const std::lock_guard lock(record_lock);
    StartRecord* const record = std::exchange(record_, nullptr);
    if (has_begun_)
        return;
    record->birth = nullptr;
    threads.enter(id, ThreadState::starting, true);
}

// A thread whose end cannot be hooked counts as starting for ever: the C library then answers for
// it.
BegunThread::BegunThread(const void* record) {
    const bool is_hooked = end_hook.arm();
    const std::lock_guard lock(record_lock);
    StartRecord* const start = take_unborn(record);
    if (start != nullptr && start->birth != nullptr)
        start->birth->has_begun_ = true;
    threads.enter(pthread_self(), is_hooked ? ThreadState::live : ThreadState::starting,
                  start != nullptr);
    outer_ = std::exchange(this_thread.start, start);
    this_thread.is_recorded = true;
    this_thread.is_told_apart = true;
}

BegunThread::~BegunThread() {
    this_thread.start = outer_;
}

void start_record_of_this_thread() {
    if (!end_hook.arm())
        return;
    const std::lock_guard lock(record_lock);
    threads.enter(pthread_self(), ThreadState::live, false);
    this_thread.is_recorded = true;
}

// While this thread is there, no other one ends with its identifier: once is enough. A handler may
// have interrupted the allocator: so this thread is not recorded, which may need memory.
void tell_this_thread_apart() {
    this_thread.is_told_apart = true;
    if (this_thread.is_recorded)
        return;
    const std::lock_guard lock(record_lock);
    ThreadEntry* const anothers = threads.find(pthread_self());
    if (anothers != nullptr)
        anothers->is_ours = false;
}

PinnedThread::~PinnedThread() {
    if (entry_ != nullptr && entry_->pins.fetch_sub(1) == 1)
        entry_->pins.notify_all();
}

bool PinnedThread::pin(pthread_t id) {
    if (id == 0 || id == OSAL_NO_THREAD)
        return false;
    id_ = id;
    ThreadEntry* const entry = threads.find(id);
    if (entry == nullptr || (entry->is_gone() && !entry->is_ours))
        return true; // there may be such a thread, which the caller has made
    if (entry->is_gone())
        return false;
    ++entry->pins;
    entry_ = entry;
    return true;
}

int cancel_thread(pthread_t id) {
    PinnedThread thread;
    {
        const std::lock_guard lock(record_lock);
        if (!thread.pin(id))
            return ESRCH;
    }
    return thread.cancel();
}

bool has_ended(pthread_t id) {
    const std::lock_guard lock(record_lock);
    const ThreadEntry* const entry = threads.find(id);
    if (entry == nullptr)
        return !threads.is_incomplete();
    return entry->is_gone() || pthread_kill(id, 0) == ESRCH;
}

void keep_only_this_thread() {
    threads.end_all_but(pthread_self());
    unborn = nullptr;
}

} // namespace dm
