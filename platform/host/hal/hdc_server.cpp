// HDC servers: a listening socket for each device id.
#include "hal/complaint.h"
#include "hal/directory.h"
#include "hal/handles.h"
#include "hal/hdc.h"
#include "hal/socket.h"
#include "platform_hal_codes.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

namespace {

// Clients that may wait to be accepted: as many as one user may have sessions.
constexpr int kBacklog = 256;

// What accept4(2) lacks is free again some time later.
constexpr timespec kPause = {0, 100'000'000};

// With other users allowed, the session checks who connects, not the socket's file.
constexpr mode_t kModeOwn = 0600;
constexpr mode_t kModeAll = 0666;

// The device id is held by a lock on a byte of the directory itself, the one at its number: it goes
// with the process, and with the children that it forked and that have started no program, and no
// file can be removed from under it. A directory cannot be opened for writing, so it is a lock for
// reading, which is looked for and set while DirectoryLock is held.
struct Server {
    ~Server() { release_id(); }

    int32_t take_id();
    void release_id() const;

    // A forked child has the handle, too, and shares all that is behind it.
    bool is_of_this_process() const { return maker == getpid(); }

    const pid_t maker = getpid();
    int32_t device_id = 0;
    hal::Directory directory;
    hal::Descriptor listener;
};

using Servers = hal::Handles<Server>;

struct flock __lock_of(const Server& server, int type) {
    struct flock lock = {};
    lock.l_type = static_cast<short>(type);
    lock.l_whence = SEEK_SET;
    lock.l_start = server.device_id;
    lock.l_len = 1;
    return lock;
}

std::string __path(const Server& server) {
    return server.directory.path_of(hal::socket_name(server.device_id).data());
}

int32_t __system_error(const Server& server) {
    return hal::complain(__path(server), HAL_ERR_SYSTEM, strerrordesc_np(errno));
}

int32_t Server::take_id() {
    struct flock other = __lock_of(*this, F_WRLCK);
    if (fcntl(directory.descriptor.get(), F_OFD_GETLK, &other) != 0)
        return __system_error(*this);
    if (other.l_type != F_UNLCK)
        return hal::complain(__path(*this), HAL_ERR_SERVER_EXISTS);
    struct flock own = __lock_of(*this, F_RDLCK);
    return fcntl(directory.descriptor.get(), F_OFD_SETLK, &own) == 0 ? 0 : __system_error(*this);
}

// By hand, for a child that another thread has forked shares the lock until it starts its program.
void Server::release_id() const {
    if (!is_of_this_process())
        return;
    struct flock none = __lock_of(*this, F_UNLCK);
    fcntl(directory.descriptor.get(), F_OFD_SETLK, &none);
}

// A directory below, in which a socket is completed where nobody looks for it. Each device id has
// one: what a killed server left is in no other's way, and the next server of its id removes it.
class Workshop {
public:
    Workshop(const hal::Directory& place, int32_t device_id)
        : place_(place.descriptor.get()), socket_(hal::socket_name(device_id)) {
        std::snprintf(name_.data(), name_.size(), "unfinished-%d", device_id);
        mkdirat(place_, name_.data(), S_IRWXU);
        below_.descriptor = hal::make_descriptor([this] {
            return openat(place_, name_.data(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        });
    }
    Workshop(const Workshop&) = delete;
    Workshop& operator=(const Workshop&) = delete;
    ~Workshop() {
        const int error = errno;
        if (is_own())
            clear();
        unlinkat(place_, name_.data(), AT_REMOVEDIR);
        errno = error;
    }

    // Says whether it is there and nobody else can change what is in it; if not, errno says why.
    bool is_own() const {
        struct stat status = {};
        if (!below_.descriptor || fstat(below_.descriptor.get(), &status) != 0)
            return false;
        errno = EPERM;
        return status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
    }

    void clear() const { unlinkat(below_.descriptor.get(), socket_.data(), 0); }

    hal::Descriptor make_socket(mode_t mode) const {
        return hal::bind_socket(SOCK_SEQPACKET, below_, socket_.data(), mode);
    }

    // Moves the socket to its place: that is the place of the one that an ended server left.
    bool hand_over() const {
        return renameat(below_.descriptor.get(), socket_.data(), place_, socket_.data()) == 0;
    }

private:
    const int place_;
    const hal::FileName socket_;
    hal::FileName name_ = {};
    hal::Directory below_;
};

// The kernel lists a socket under the name that it was bound to, so it has its own name from the
// start.
bool __make_listener(Server& server) {
    const Workshop workshop(server.directory, server.device_id);
    if (!workshop.is_own())
        return false;
    workshop.clear();
    const mode_t mode = hal::setting("DM_HAL_ALLOW_UIDS") != nullptr ? kModeAll : kModeOwn;
    server.listener = workshop.make_socket(mode);
    return server.listener && listen(server.listener.get(), kBacklog) == 0 && workshop.hand_over();
}

int32_t __listen(Server& server) {
    if (const int32_t code = hal::open_own_directory(server.directory); code != 0)
        return code;
    const hal::DirectoryLock lock(server.directory);
    if (!lock.held())
        return __system_error(server);
    if (const int32_t code = server.take_id(); code != 0)
        return code;
    return __make_listener(server) ? 0 : __system_error(server);
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
    accepted->socket = hal::make_descriptor(
        [&] { return accept4(server.listener.get(), nullptr, nullptr, SOCK_CLOEXEC); });
    if (!accepted->socket)
        return __is_passing(errno) ? HAL_ERR_WOULD_BLOCK : __system_error(server);
    const std::optional<uid_t> peer = hal::peer_of(accepted->socket);
    if (!peer || !hal::limit_receive(accepted->socket))
        return HAL_ERR_WOULD_BLOCK;
    if (!hal::is_allowed(*peer)) {
        hal::complain(__path(server) + " and user " + std::to_string(*peer), HAL_ERR_REFUSED);
        return HAL_ERR_WOULD_BLOCK;
    }
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
    created->device_id = device_id;
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
    if (!ended->is_of_this_process())
        return 0;
    // An accept that is under way keeps the descriptors open: it is woken, and the device id is
    // given back by hand, the lock last.
    shutdown(ended->listener.get(), SHUT_RDWR);
    unlinkat(ended->directory.descriptor.get(), hal::socket_name(ended->device_id).data(), 0);
    ended->release_id();
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
