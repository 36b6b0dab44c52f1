// HDC clients, which open sessions.
#include "hal/complaint.h"
#include "hal/directory.h"
#include "hal/handles.h"
#include "hal/hdc.h"
#include "hal/socket.h"
#include "platform_hal_codes.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace {

using Clients = hal::Handles<hal::Client>;

// Connects a session's socket.
int32_t __connect(hal::Session& session, int32_t device_id) {
    std::shared_ptr<const hal::Directory> directory;
    if (const int32_t code = session.client->directory.get(directory); code != 0)
        return code;
    const hal::FileName name = hal::socket_name(device_id);
    session.socket = hal::open_socket(SOCK_SEQPACKET);
    if (!session.socket || !hal::limit_receive(session.socket) ||
        hal::connect_in_time(session.socket, *directory, name.data()) != 0) {
        // No socket, a socket of a process that has ended, or too many clients waiting.
        if (errno == ENOENT || errno == ECONNREFUSED || errno == EAGAIN || errno == EINTR)
            return HAL_HDC_NOT_READY;
        const int32_t code = errno == EACCES ? HAL_ERR_REFUSED : HAL_ERR_SYSTEM;
        return hal::complain(directory->path_of(name.data()), code, strerrordesc_np(errno));
    }
    // A server owns its directory. Who else answers is behind a link that was laid there.
    const std::optional<uid_t> peer = hal::peer_of(session.socket);
    if (peer != directory->owner)
        return hal::complain(directory->path_of(name.data()), HAL_ERR_REFUSED);
    session.peer_uid = *peer;
    return 0;
}

} // namespace

int32_t drvHdcClientCreate(HDC_CLIENT* client, int32_t max_sessions, int32_t service_type,
                           int32_t flags) try {
    if (client == nullptr || max_sessions <= 0 || service_type != 0 || flags != 0)
        return HAL_ERR_INVALID_ARGUMENT;
    auto created = std::make_shared<hal::Client>();
    created->max_sessions = max_sessions;
    *client = Clients::table().add(std::move(created));
    return 0;
} catch (const std::bad_alloc&) {
    return HAL_ERR_NO_MEMORY;
}

int32_t drvHdcClientDestroy(HDC_CLIENT client) {
    return Clients::table().take(client) ? 0 : HAL_ERR_BAD_HANDLE;
}

int32_t drvHdcSessionConnect(int32_t peer_node, int32_t peer_device_id, HDC_CLIENT client,
                             HDC_SESSION* session) try {
    if (peer_node != 0 || peer_device_id < 0 || session == nullptr)
        return HAL_ERR_INVALID_ARGUMENT;
    const auto owner = Clients::table().find(client);
    if (!owner)
        return HAL_ERR_BAD_HANDLE;
    const hal::CancelGuard guard;
    auto opened = std::make_shared<hal::Session>(owner);
    if (owner->sessions > owner->max_sessions)
        return HAL_ERR_TOO_MANY;
    if (const int32_t code = __connect(*opened, peer_device_id); code != 0)
        return code;
    *session = hal::SessionTable::only().add(std::move(opened));
    return 0;
} catch (const std::bad_alloc&) {
    return HAL_ERR_NO_MEMORY;
}
