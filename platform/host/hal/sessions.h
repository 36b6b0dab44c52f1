// The open sessions, and what holds them within bounds.
#ifndef HAL_SESSIONS_H
#define HAL_SESSIONS_H

#include "hal/descriptor.h"
#include "hal/directory.h"

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace hal {

using Clock = std::chrono::steady_clock;

// Counts the beginnings and ends of fork(3): a child shares what was open then. @return an odd
// number during a fork, and 1 when forks cannot be counted.
uint64_t fork_steps();

struct Client {
    int32_t max_sessions = 0;
    std::atomic<int32_t> sessions = 0;
    ServersDirectory directory;
};

// One connection. A session that was accepted has no client.
struct Session {
    explicit Session(std::shared_ptr<Client> of) : client(std::move(of)) {
        if (client)
            ++client->sessions;
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() {
        if (client)
            --client->sessions;
    }

    // Says whether a forked child may have the connection, too.
    bool may_be_shared() const { return forks % 2 != 0 || forks != fork_steps(); }

    const uint64_t forks = fork_steps();
    const std::shared_ptr<Client> client;
    const Clock::time_point opened = Clock::now();
    Descriptor socket;
    uid_t peer_uid = 0;
    std::atomic<bool> has_given = false; // a message was received from it
};

// The sessions by their handles. A call shares the session while it works on it: closing the handle
// takes it out of the table, and the last call that is under way releases it.
//
// The library closes the sessions that it answers. Whose peer sends what gets no answer stays here,
// so the table closes sessions by itself: those whose peer has gone, when descriptors are short,
// when a bound is reached, and now and then; at a bound also those that are older than a client
// waits; and at the bound of all, one of the user who has most. Their handles are remembered for a
// while, for the library may still ask whose they were.
//
// A handle is a number that is never given again.
class SessionTable {
public:
    // @return the only table.
    static SessionTable& only();

    // Opens a handle for a session that was connected.
    uint64_t add(std::shared_ptr<Session> session);

    // Opens a handle for a session that was accepted, if its user is within the bound.
    // @return 0, or HAL_ERR_TOO_MANY.
    int32_t admit(std::shared_ptr<Session> session, uint64_t* handle);

    // @return 0; HAL_ERR_PEER_GONE when the table has closed it; or HAL_ERR_BAD_HANDLE.
    int32_t find(uint64_t handle, std::shared_ptr<Session>& session);

    // @return whom a session is, or was, with; nothing for a handle that is not open.
    std::optional<uid_t> peer_uid(uint64_t handle);

    // Closes a handle. @return 0 or HAL_ERR_BAD_HANDLE; no session if the table had closed it.
    int32_t take(uint64_t handle, std::shared_ptr<Session>& session);

    // Closes the accepted sessions whose peer has gone, but for those that hold a first message
    // that is still to be read. Needs no memory. @return how many descriptors it gave back.
    size_t release_gone();

private:
    using Open = std::map<uint64_t, std::shared_ptr<Session>>;

    // A handle whose session the table has closed.
    struct Closed {
        uint64_t handle = 0;
        uid_t peer_uid = 0;
    };

    // The accepted sessions that may be open at once: with one user, and with all.
    struct Bounds {
        size_t of_user;
        size_t of_all;
    };

    static Bounds bounds();
    template<class Condition>
    size_t close_where(Condition condition);
    size_t close_gone();
    void look_now_and_then();
    bool make_room(uid_t uid, const Bounds& bounds);
    void close_one_of_most(uid_t uid);
    bool is_full(const Bounds& bounds) const;
    bool is_full_of(uid_t uid, const Bounds& bounds) const;
    Closed* find_closed(uint64_t handle);

    static constexpr size_t kFewSessions = 64; // with so few, nobody looks for gone ones

    std::mutex mutex_;
    Open open_;                         // the oldest first
    std::array<Closed, 1024> closed_{}; // a ring
    size_t closed_count_ = 0;
    size_t next_look_ = kFewSessions;
};

// Makes a descriptor. When the process or the system has none left, gone sessions give theirs back.
// @param make gives a descriptor, or -1 with errno set.
template<class Make>
Descriptor make_descriptor(Make make) {
    Descriptor made(make());
    if (!made && (errno == EMFILE || errno == ENFILE)) {
        const int error = errno;
        if (SessionTable::only().release_gone() > 0)
            made = Descriptor(make());
        else
            errno = error;
    }
    return made;
}

} // namespace hal

#endif
