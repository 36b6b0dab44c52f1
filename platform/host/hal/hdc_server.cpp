// HDC servers: a listening socket for each device id.
#include "hal/directory.h"
#include "hal/handles.h"
#include "hal/hdc.h"
#include "hal/socket.h"
#include "platform_hal_codes.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>

#include <cerrno>
#include <ctime>
#include <new>

namespace {

// Clients that may wait to be accepted: as many as one client of the library has sessions.
constexpr int kBacklog = 64;

// What accept4(2) lacks is free again some time later.
constexpr timespec kPause = {0, 100'000'000};

// With other users allowed, the session checks who connects, not the socket's file.
constexpr mode_t kModeOwn = 0600;
constexpr mode_t kModeAll = 0666;

struct Server {
    hal::FileName name = {};
    hal::Descriptor directory;
    hal::Descriptor lock;
    hal::Descriptor listener;
};

using Servers = hal::Handles<Server>;

// Takes the device id for as long as the process lives. The lock's file is never removed: another
// process may be about to lock it.
int32_t __lock(Server& server) {
    hal::FileName name = {};
    std::snprintf(name.data(), name.size(), "%s.lock", server.name.data());
    server.lock = hal::Descriptor(openat(server.directory.get(), name.data(),
                                         O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kModeOwn));
    if (!server.lock)
        return HAL_ERR_SYSTEM;
    if (flock(server.lock.get(), LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? HAL_ERR_SERVER_EXISTS : HAL_ERR_SYSTEM;
    return 0;
}

int32_t __listen(Server& server) {
    server.directory = hal::open_directory();
    if (!server.directory)
        return HAL_ERR_BAD_DIRECTORY;
    if (const int32_t code = __lock(server); code != 0)
        return code;
    // Under the lock, a socket that lies there is what a killed server left.
    unlinkat(server.directory.get(), server.name.data(), 0);
    const mode_t mode = hal::setting("DM_HAL_ALLOW_UIDS") != nullptr ? kModeAll : kModeOwn;
    server.listener = hal::bind_socket(SOCK_SEQPACKET, server.directory, server.name.data(), mode);
    if (!server.listener || listen(server.listener.get(), kBacklog) != 0)
        return HAL_ERR_SYSTEM;
    return 0;
}

// Says whether accept4(2) failed for a reason that the next wait clears up.
bool __is_passing(int error) {
    return error == EAGAIN || error == EINTR || error == ECONNABORTED ||
           error == EINVAL; // destroyed since the wait
}

// Accepts one client. @return HAL_ERR_WOULD_BLOCK when there is none that may have a session.
int32_t __accept(const Server& server, HDC_SESSION* session) {
    const hal::CancelGuard guard;
    auto accepted = std::make_shared<hal::Session>(nullptr);
    accepted->socket = hal::make_descriptor([&] {
        return accept4(server.listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    });
    if (!accepted->socket)
        return __is_passing(errno) ? HAL_ERR_WOULD_BLOCK : HAL_ERR_SYSTEM;
    const std::optional<uid_t> peer = hal::allowed_peer(accepted->socket);
    if (!peer)
        return HAL_ERR_WOULD_BLOCK;
    accepted->peer_uid = *peer;
    const int32_t code = hal::SessionTable::only().admit(std::move(accepted), session);
    return code == HAL_ERR_TOO_MANY ? HAL_ERR_WOULD_BLOCK : code;
}

} // namespace

int32_t drvHdcServerCreate(int32_t device_id, int32_t service_type, HDC_SERVER* server) try {
    if (device_id < 0 || service_type != 0 || server == nullptr)
        return HAL_ERR_INVALID_ARGUMENT;
    const hal::CancelGuard guard;
    auto created = std::make_shared<Server>();
    created->name = hal::socket_name(device_id);
    if (const int32_t code = __listen(*created); code != 0)
        return code;
    *server = Servers::table().add(std::move(created));
    return 0;
} catch (const std::bad_alloc&) {
    return HAL_ERR_NO_MEMORY;
}

int32_t drvHdcServerDestroy(HDC_SERVER server) {
    const hal::CancelGuard guard;
    const auto ended = Servers::table().take(server);
    if (!ended)
        return HAL_ERR_BAD_HANDLE;
    // An accept that is under way keeps the descriptors open: it is woken, and the device id is
    // given back by hand, the lock last.
    shutdown(ended->listener.get(), SHUT_RDWR);
    unlinkat(ended->directory.get(), ended->name.data(), 0);
    flock(ended->lock.get(), LOCK_UN);
    return 0;
}

int32_t drvHdcSessionAccept(HDC_SERVER server, HDC_SESSION* session) try {
    if (session == nullptr)
        return HAL_ERR_INVALID_ARGUMENT;
    const auto listening = Servers::table().find(server);
    if (!listening)
        return HAL_ERR_BAD_HANDLE;
    for (;;) {
        if ((hal::wait_ready(listening->listener, POLLIN, std::nullopt) & POLLHUP) != 0)
            return HAL_ERR_SERVER_ENDED;
        const int32_t code = __accept(*listening, session);
        if (code == HAL_ERR_SYSTEM)
            nanosleep(&kPause, nullptr);
        if (code != HAL_ERR_WOULD_BLOCK)
            return code;
    }
} catch (const std::bad_alloc&) {
    return HAL_ERR_NO_MEMORY;
}
