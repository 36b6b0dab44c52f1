// HDC sessions: what goes over them, and what is known of them.
#include "hal/directory.h"
#include "hal/hdc.h"
#include "hal/socket.h"
#include "platform_hal_codes.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <new>

namespace {

constexpr int32_t kDefaultRunEnv = 1;

// Where the processes run: what DM_HAL_RUN_ENV says, also a number that has no meaning.
int32_t __run_env() {
    int32_t value = kDefaultRunEnv;
    if (const char* text = hal::setting("DM_HAL_RUN_ENV"))
        std::from_chars(text, text + std::strlen(text), value);
    return value;
}

int32_t __try_send(const hal::Session& session, HAL_HDC_MSG& msg) {
    msghdr header = {};
    header.msg_iov = msg.room.data();
    header.msg_iovlen = msg.used;
    if (sendmsg(session.socket.get(), &header, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0)
        return 0;
    if (errno == EAGAIN || errno == EINTR)
        return HAL_ERR_WOULD_BLOCK;
    return errno == EPIPE || errno == ECONNRESET ? HAL_ERR_PEER_GONE : HAL_ERR_SYSTEM;
}

int32_t __try_receive(const hal::Session& session, HAL_HDC_MSG& msg, int flags) {
    const ssize_t size =
        recv(session.socket.get(), msg.received.get(), hal::kMaxMessage, flags | MSG_TRUNC);
    // A peer that closed with messages unread resets the session, once; what it had sent before is
    // still to be read.
    if (size < 0)
        return errno == EAGAIN || errno == EINTR || errno == ECONNRESET ? HAL_ERR_WOULD_BLOCK
                                                                        : HAL_ERR_SYSTEM;
    // The end of the session: messages without bytes are not sent.
    if (size == 0)
        return HAL_ERR_PEER_GONE;
    if (static_cast<size_t>(size) > hal::kMaxMessage)
        return HAL_ERR_TOO_LONG;
    msg.room[0] = {msg.received.get(), static_cast<size_t>(size)};
    msg.used = 1;
    return 0;
}

// Repeats an attempt that would block until the session is ready for it, or the time is over.
template<class Attempt>
int32_t __in_time(const hal::Session& session, short events, hal::Clock::duration timeout,
                  Attempt attempt) {
    int32_t code = attempt();
    if (code != HAL_ERR_WOULD_BLOCK)
        return code;
    const auto deadline = hal::Clock::now() + timeout;
    while (code == HAL_ERR_WOULD_BLOCK) {
        if (hal::wait_ready(session.socket, events, deadline) == 0)
            return HAL_HDC_TIMEOUT;
        code = attempt();
    }
    return code;
}

int32_t __send(const hal::Session& session, HAL_HDC_MSG& msg, std::chrono::milliseconds timeout) {
    return __in_time(session, POLLOUT, timeout, [&] { return __try_send(session, msg); });
}

// As long as there is time enough, recv(2) waits by itself: one call of the system in place of
// three.
int32_t __receive(const hal::Session& session, HAL_HDC_MSG& msg,
                  std::chrono::milliseconds timeout) {
    const auto deadline = hal::Clock::now() + timeout;
    hal::Clock::duration left = timeout;
    for (; left >= hal::kReceiveWait; left = deadline - hal::Clock::now()) {
        if (const int32_t code = __try_receive(session, msg, 0); code != HAL_ERR_WOULD_BLOCK)
            return code;
    }
    return __in_time(session, POLLIN, left,
                     [&] { return __try_receive(session, msg, MSG_DONTWAIT); });
}

} // namespace

int32_t drvHdcSessionClose(HDC_SESSION session) {
    std::shared_ptr<hal::Session> closed;
    const int32_t code = hal::SessionTable::only().take(session, closed);
    // Wakes who waits on it, and reaches the peer although others have it open. The last one closes
    // it, and where that is here, the peer needs no more.
    if (closed && (closed.use_count() > 1 || closed->may_be_shared()))
        shutdown(closed->socket.get(), SHUT_RDWR);
    return code;
}

int32_t drvHdcSetSessionReference(HDC_SESSION session) {
    // A connection belongs to its process from the start.
    std::shared_ptr<hal::Session> found;
    return hal::SessionTable::only().find(session, found);
}

int32_t halHdcSend(HDC_SESSION session, HAL_HDC_MSG* msg, uint64_t flag, uint32_t timeout_ms) {
    if (msg == nullptr || msg->used == 0 || flag != HAL_HDC_WAIT_TIMEOUT)
        return HAL_ERR_INVALID_ARGUMENT;
    std::shared_ptr<hal::Session> sending;
    if (const int32_t code = hal::SessionTable::only().find(session, sending); code != 0)
        return code;
    return __send(*sending, *msg, std::chrono::milliseconds(timeout_ms));
}

int32_t halHdcRecv(HDC_SESSION session, HAL_HDC_MSG* msg, int32_t /*buffer_length*/, uint64_t flag,
                   int32_t* count, uint32_t timeout_ms) try {
    if (msg == nullptr || count == nullptr || flag != HAL_HDC_WAIT_TIMEOUT)
        return HAL_ERR_INVALID_ARGUMENT;
    std::shared_ptr<hal::Session> receiving;
    if (const int32_t code = hal::SessionTable::only().find(session, receiving); code != 0)
        return code;
    msg->used = 0;
    msg->received = std::make_unique_for_overwrite<char[]>(hal::kMaxMessage);
    const int32_t code = __receive(*receiving, *msg, std::chrono::milliseconds(timeout_ms));
    if (code == 0)
        receiving->has_given = true;
    *count = static_cast<int32_t>(msg->used);
    return code;
} catch (const std::bad_alloc&) {
    return HAL_ERR_NO_MEMORY;
}

int32_t halHdcGetSessionAttr(HDC_SESSION session, int32_t attribute, int32_t* value) {
    const std::optional<uid_t> uid = hal::SessionTable::only().peer_uid(session);
    if (!uid)
        return HAL_ERR_BAD_HANDLE;
    if (value == nullptr || (attribute != HAL_HDC_ATTR_UID && attribute != HAL_HDC_ATTR_RUN_ENV))
        return HAL_ERR_INVALID_ARGUMENT;
    *value = attribute == HAL_HDC_ATTR_UID ? static_cast<int32_t>(*uid) : __run_env();
    return 0;
}
