// A poller with what it has beyond its public fields, for the files of the poller.
#ifndef DM_POLLER_RECORD_H
#define DM_POLLER_RECORD_H

#include "base/atomic_field.h"
#include "base/log.h"
#include "base/memory.h"
#include "dm_poller.h"
#include "list/dm_list_private.h"
#include "poller/dm_poller_private.h"
#include "poller/entry.h"
#include "poller/timer_index.h"

#include <unistd.h>

#include <atomic>
#include <mutex>

extern constinit dm::SubjectLog poller_log;

namespace dm {

// Something that the poll thread does again and again, and that others wait for the end of. The
// turn is odd while it does it, and no turn comes again. Waiting is no cancellation point.
class Turn {
public:
    // Orders what the poll thread does next behind what others did before they looked.
    void begin() { turn_.fetch_add(1); }
    void end() {
        turn_.fetch_add(1);
        turn_.notify_all();
    }
    // The turn under way, or 0.
    uint64_t current() const {
        const uint64_t turn = turn_.load();
        return turn % 2 != 0 ? turn : 0;
    }
    void await_end(uint64_t turn) const { turn_.wait(turn); }

private:
    std::atomic<uint64_t> turn_{0};
};

class TurnScope {
public:
    explicit TurnScope(Turn& turn) : turn_(turn) { turn_.begin(); }
    TurnScope(const TurnScope&) = delete;
    TurnScope& operator=(const TurnScope&) = delete;
    ~TurnScope() { turn_.end(); }

private:
    Turn& turn_;
};

// Where a poller is in its life. POLLER_ST::state shows it to others: idle before the thread has
// begun and after it has left, and while it runs how far the loop has got with a request to stop.
enum class PollerPhase {
    idle,       // there is no thread
    starting,   // a thread was created and has not begun yet
    running,    // the thread is in the loop
    destroying, // the same, and it is to release the poller as it leaves
    released,   // only the handle is left, for who holds it
};

struct Poller : POLLER_ST {
    // Guards the two fields that follow, and the write end of the notice pipe.
    std::mutex life;
    PollerPhase phase = PollerPhase::idle;
    pthread_t poll_thread{};                    // while it runs
    std::atomic<bool> destroy_requested{false}; // read by the loop without the lock
    std::atomic<pid_t> process{0};              // whose thread it is; a forked child has none of it
    std::atomic<int> holders{1};                // of the handle: the creator, the thread, an owner
    POLLER_OWNER owner{};

    // What the poll thread is at, so that a removal can wait until it is past that.
    Turn wait;     // poll() holds the files behind the descriptors that it was given
    Turn callback; // of a descriptor
    std::atomic<const POLLER_FD_ENTRY_ST*> running = nullptr; // the entry whose callback it is
    std::atomic<bool> wake_sent{false};

    std::atomic<uint64_t> fd_changes{1}; // goes up as entries are added, marked or removed
    std::atomic<uint64_t> closings{0};   // goes up as entries are removed to be closed
    MarkedEntries marked_fds;
    MarkedEntries marked_timers;
    TimerIndex timer_index;
    bool timers_astray = false; // the list has them in another order than the index
    std::atomic<uint64_t> timers_added{1};
};

inline Poller* private_of(POLLER_ST* poller) {
    return static_cast<Poller*>(poller);
}

inline bool is_running(const POLLER_ST* poller) {
    return load(poller->state) == POLLER_RUN;
}

// Takes an entry out of its list. While the poller runs it is only marked, for the sweep: a
// callback may be at it.
template<class Entry>
void remove_entry(const POLLER_ST* poller, MarkedEntries& marked, Entry* entry,
                  LIST_NODE_ST* node) {
    if (is_running(poller))
        marked.mark(entry, node);
    else
        remove_node(node);
}

// Gives an entry its copy of the user data. The lines of a failure are the adding operation's:
// `zero_failed` and `copy_failed`.
template<class Entry>
int copy_user_data(Entry* entry, const void* user_data, uint32_t len, const LogSite& zero_failed,
                   const char* zero_line, const LogSite& copy_failed) {
    Duplicate copy = duplicate(user_data, len, memmove_s);
    if (copy.failed == Duplicate::Step::zero)
        DM_LOG_ERROR_AT(zero_failed, "%s", zero_line);
    if (copy.failed == Duplicate::Step::copy)
        DM_LOG_ERROR_AT(copy_failed, "memmove_s error\n");
    if (copy.status != 0)
        return copy.status;
    entry->user_data = copy.bytes.release();
    entry->user_data_len = len;
    return 0;
}

struct EntryDeleter {
    void operator()(void* entry) const { poller_entry_free(entry); }
};

} // namespace dm

#endif
