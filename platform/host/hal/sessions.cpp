#include "hal/sessions.h"

#include "hal/complaint.h"
#include "hal/handles.h"
#include "hal/immortal.h"
#include "platform_hal_codes.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <map>
#include <string>

namespace {

// What may be open at once. The rest of the process's descriptors stays free for what else it does.
constexpr size_t kMostOfUser = 256;
constexpr size_t kShareOfUser = 4;
constexpr size_t kShareOfAll = 2;

// Longer than a client of the library waits: 3 s to send, five times 3 s for the answer.
constexpr auto kLongestWait = std::chrono::seconds(20);

// A peer that only has no more to send still waits for its answer. The first message of a gone one
// is read by whoever is about to; what else it has sent may never be.
bool __is_gone(const hal::Session& session) {
    pollfd state = {session.socket.get(), 0, 0};
    if (poll(&state, 1, 0) != 1 || (state.revents & POLLHUP) == 0)
        return false;
    int unread = 0;
    return session.has_given || (ioctl(session.socket.get(), SIOCINQ, &unread) == 0 && unread == 0);
}

std::atomic<uint64_t> counted_steps = 0;

void __count_step() {
    ++counted_steps;
}

const bool kForksAreCounted = pthread_atfork(__count_step, __count_step, __count_step) == 0;

} // namespace

namespace hal {

uint64_t fork_steps() {
    return kForksAreCounted ? counted_steps.load() : 1;
}

SessionTable& SessionTable::only() {
    return immortal<SessionTable>();
}

uint64_t SessionTable::add(std::shared_ptr<Session> session) {
    const std::scoped_lock lock(mutex_);
    const uint64_t handle = ++last_handle;
    open_.emplace(handle, std::move(session));
    return handle;
}

int32_t SessionTable::admit(std::shared_ptr<Session> session, uint64_t* handle) {
    const uid_t uid = session->peer_uid;
    const Bounds most = bounds();
    {
        const std::scoped_lock lock(mutex_);
        look_now_and_then();
        if ((!is_full_of(uid, most) && !is_full(most)) || make_room(uid, most)) {
            const uint64_t admitted = ++last_handle;
            open_.emplace(admitted, std::move(session));
            *handle = admitted;
            return 0;
        }
    }
    return complain("sessions with user " + std::to_string(uid), HAL_ERR_TOO_MANY);
}

int32_t SessionTable::find(uint64_t handle, std::shared_ptr<Session>& session) {
    const std::scoped_lock lock(mutex_);
    const auto found = open_.find(handle);
    if (found == open_.end())
        return find_closed(handle) != nullptr ? HAL_ERR_PEER_GONE : HAL_ERR_BAD_HANDLE;
    session = found->second;
    return 0;
}

std::optional<uid_t> SessionTable::peer_uid(uint64_t handle) {
    const std::scoped_lock lock(mutex_);
    if (const auto found = open_.find(handle); found != open_.end())
        return found->second->peer_uid;
    if (const Closed* closed = find_closed(handle))
        return closed->peer_uid;
    return std::nullopt;
}

int32_t SessionTable::take(uint64_t handle, std::shared_ptr<Session>& session) {
    const std::scoped_lock lock(mutex_);
    if (auto node = open_.extract(handle)) {
        session = std::move(node.mapped());
        return 0;
    }
    Closed* closed = find_closed(handle);
    if (closed == nullptr)
        return HAL_ERR_BAD_HANDLE;
    *closed = {};
    return 0;
}

size_t SessionTable::release_gone() {
    const std::scoped_lock lock(mutex_);
    return close_gone();
}

// Closes accepted sessions. @return how many.
template<class Condition>
size_t SessionTable::close_where(Condition condition) {
    const CancelGuard guard;
    return std::erase_if(open_, [&](const auto& entry) {
        const auto& [handle, session] = entry;
        if (session->client != nullptr || !condition(*session))
            return false;
        shutdown(session->socket.get(), SHUT_RDWR); // wakes who waits on it
        closed_.at(closed_count_++ % closed_.size()) = {handle, session->peer_uid};
        return true;
    });
}

SessionTable::Bounds SessionTable::bounds() {
    rlimit descriptors = {};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    const size_t all = descriptors.rlim_cur;
    return {std::min(kMostOfUser, all / kShareOfUser), all / kShareOfAll};
}

size_t SessionTable::close_gone() {
    return close_where(__is_gone);
}

void SessionTable::look_now_and_then() {
    if (open_.size() < next_look_)
        return;
    close_gone();
    next_look_ = std::max(kFewSessions, 2 * open_.size());
}

// Makes room for one more session of a user, as far as that is possible. A user who is at its own
// bound costs the others nothing. @return whether there is room.
bool SessionTable::make_room(uid_t uid, const Bounds& bounds) {
    close_gone();
    const auto oldest = Clock::now() - kLongestWait;
    if (is_full_of(uid, bounds))
        close_where([&](const Session& session) {
            return session.peer_uid == uid && session.opened < oldest;
        });
    if (is_full_of(uid, bounds))
        return false;
    if (!is_full(bounds))
        return true;
    close_where([&](const Session& session) { return session.opened < oldest; });
    if (is_full(bounds))
        close_one_of_most(uid);
    return !is_full(bounds);
}

// Closes the oldest session of the user who has most, unless that user would have less than the
// newcomer's then: a few users must not keep all others out.
void SessionTable::close_one_of_most(uid_t uid) {
    std::map<uid_t, size_t> counts = {{uid, 1}}; // with the newcomer
    for (const auto& [handle, session] : open_)
        counts[session->peer_uid] += session->client == nullptr ? 1 : 0;
    const auto most =
        std::max_element(counts.begin(), counts.end(),
                         [](const auto& a, const auto& b) { return a.second < b.second; });
    if (most->second <= counts[uid])
        return;
    bool is_closed = false;
    close_where([&](const Session& session) {
        return session.peer_uid == most->first && !std::exchange(is_closed, true);
    });
}

// Says whether all users together have as many accepted sessions open as they may.
bool SessionTable::is_full(const Bounds& bounds) const {
    const auto all = std::count_if(open_.begin(), open_.end(), [](const auto& entry) {
        return entry.second->client == nullptr;
    });
    return static_cast<size_t>(all) >= bounds.of_all;
}

// Says whether a user has as many accepted sessions open as one may.
bool SessionTable::is_full_of(uid_t uid, const Bounds& bounds) const {
    const auto own = std::count_if(open_.begin(), open_.end(), [uid](const auto& entry) {
        return entry.second->client == nullptr && entry.second->peer_uid == uid;
    });
    return static_cast<size_t>(own) >= bounds.of_user;
}

SessionTable::Closed* SessionTable::find_closed(uint64_t handle) {
    const auto found = std::find_if(closed_.begin(), closed_.end(), [handle](const Closed& closed) {
        return handle != 0 && closed.handle == handle;
    });
    return found != closed_.end() ? &*found : nullptr;
}

} // namespace hal
