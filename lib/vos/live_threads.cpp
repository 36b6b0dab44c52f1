#include "vos/live_threads.h"

#include "ipmi_osal_task.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <mutex>

namespace dm {

[[gnu::tls_model("initial-exec")]] constinit thread_local bool this_thread_is_recorded = false;

namespace {

// A recorded thread: a link in the list of those alive, in the thread's own memory, which stays
// until the hook of its end has run.
struct LiveThread {
    pthread_t id;
    LiveThread* prev;
    LiveThread* next;
};

// An identifier that pthread_create() once gave to osal_create_task().
struct KnownId {
    pthread_t id;
    bool is_starting; // the thread with it has not begun yet
};

// All that is below is never destroyed: threads may go on while the process exits.
constinit std::mutex record_mutex;
constinit LiveThread* live_threads = nullptr;
constinit ThreadBirth* births = nullptr;

// Grows with the identifiers that were seen, not with the threads: the C library gives those of
// ended threads out again.
constinit KnownId* known_ids = nullptr;
constinit std::size_t known_count = 0;
constinit std::size_t known_capacity = 0;
constinit std::size_t birth_count = 0;

thread_local constinit LiveThread this_thread{};

void forget_this_thread(void* /*recorded*/) {
    const std::lock_guard lock(record_mutex);
    LiveThread*& from = this_thread.prev != nullptr ? this_thread.prev->next : live_threads;
    from = this_thread.next;
    if (this_thread.next != nullptr)
        this_thread.next->prev = this_thread.prev;
    this_thread_is_recorded = false;
}

// The hook of a thread's end, cancelled or not. It is taken away when the library is unloaded, so
// that no thread runs code that is gone.
class EndHook {
public:
    EndHook() : is_made_(pthread_key_create(&key_, forget_this_thread) == 0) {}
    EndHook(const EndHook&) = delete;
    EndHook& operator=(const EndHook&) = delete;
    ~EndHook() {
        if (is_made_)
            pthread_key_delete(key_);
    }

    bool arm() const { return is_made_ && pthread_setspecific(key_, &this_thread) == 0; }

private:
    pthread_key_t key_{};
    bool is_made_;
};

const EndHook end_hook;

// ---- with the lock held ----

void list_this_thread() {
    if (this_thread_is_recorded)
        return;
    this_thread_is_recorded = true;
    this_thread = {pthread_self(), nullptr, live_threads};
    if (live_threads != nullptr)
        live_threads->prev = &this_thread;
    live_threads = &this_thread;
}

bool is_live(pthread_t id) {
    for (const LiveThread* thread = live_threads; thread != nullptr; thread = thread->next)
        if (pthread_equal(thread->id, id) != 0)
            return true;
    return false;
}

KnownId* find_known(pthread_t id) {
    KnownId* const end = known_ids + known_count;
    KnownId* const found = std::find_if(
        known_ids, end, [id](const KnownId& known) { return pthread_equal(known.id, id) != 0; });
    return found != end ? found : nullptr;
}

// Makes room for one identifier of each birth under way.
bool reserve_known() {
    const std::size_t needed = known_count + birth_count;
    if (needed <= known_capacity)
        return true;
    const std::size_t capacity = std::max(needed, 2 * known_capacity);
    auto* const grown = static_cast<KnownId*>(std::realloc(known_ids, capacity * sizeof(KnownId)));
    if (grown == nullptr)
        return false;
    known_ids = grown;
    known_capacity = capacity;
    return true;
}

// True for what cannot be given to the C library.
bool is_gone(pthread_t id) {
    if (id == 0 || id == OSAL_NO_THREAD)
        return true;
    if (is_live(id))
        return false;
    const KnownId* known = find_known(id);
    return known != nullptr && !known->is_starting;
}

} // namespace

ThreadBirth::ThreadBirth(const void* start) : start_(start) {
    const std::lock_guard lock(record_mutex);
    next_ = births;
    births = this;
    ++birth_count;
    is_prepared_ = reserve_known();
}

ThreadBirth::~ThreadBirth() {
    const std::lock_guard lock(record_mutex);
    ThreadBirth** link = &births;
    while (*link != this)
        link = &(*link)->next_;
    *link = next_;
    --birth_count;
}

// When the thread has begun, it may have ended as well, and the identifier be another thread's.
void ThreadBirth::created(pthread_t id) {
    const std::lock_guard lock(record_mutex);
    KnownId* known = find_known(id);
    if (known == nullptr) {
        known = &known_ids[known_count++];
        *known = {id, false};
    }
    if (!has_begun_)
        known->is_starting = true;
}

// A thread whose end cannot be hooked counts as starting for ever: the C library then answers for
// it.
void ThreadBirth::begin(const void* start) {
    if (!end_hook.arm())
        return;
    const std::lock_guard lock(record_mutex);
    list_this_thread();
    for (ThreadBirth* birth = births; birth != nullptr; birth = birth->next_) {
        // A record that a thread has freed may begin another one while its creator is still here.
        if (birth->start_ == start && !birth->has_begun_) {
            birth->has_begun_ = true;
            break;
        }
    }
    if (KnownId* known = find_known(this_thread.id); known != nullptr)
        known->is_starting = false;
}

void start_record_of_this_thread() {
    if (!end_hook.arm())
        return;
    const std::lock_guard lock(record_mutex);
    list_this_thread();
}

int cancel_thread(pthread_t id) {
    const std::lock_guard lock(record_mutex);
    return is_gone(id) ? ESRCH : pthread_cancel(id);
}

bool has_ended(pthread_t id) {
    const std::lock_guard lock(record_mutex);
    return !is_live(id) || pthread_kill(id, 0) == ESRCH;
}

} // namespace dm
