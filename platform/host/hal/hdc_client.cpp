// HDC clients, which open sessions.
#include "hal/codes.h"
#include "hal/directory.h"
#include "hal/hdc.h"
#include "hal/socket.h"

#include <sys/socket.h>

#include <cerrno>
#include <new>

namespace {

using Clients = hal::Handles<hal::Client>;

// Connects a session's socket, without waiting.
int32_t __connect(hal::Session& session, int32_t device_id) {
    const hal::Descriptor directory = hal::open_directory();
    if (!directory)
        return hal::bad_directory;
    session.socket = hal::open_socket(SOCK_SEQPACKET);
    if (!session.socket)
        return hal::system_error;
    if (hal::connect_socket(session.socket, directory, hal::socket_name(device_id).data()) != 0) {
        // No socket, a socket of a process that has ended, or too many clients waiting.
        if (errno == ENOENT || errno == ECONNREFUSED || errno == EAGAIN)
            return HAL_HDC_NOT_READY;
        return errno == EACCES ? hal::refused : hal::system_error;
    }
    const std::optional<uid_t> peer = hal::allowed_peer(session.socket);
    if (!peer)
        return hal::refused;
    session.peer_uid = *peer;
    return 0;
}

} // namespace

int32_t drvHdcClientCreate(HDC_CLIENT* client, int32_t max_sessions, int32_t service_type,
                           int32_t flags) try {
    if (client == nullptr || max_sessions <= 0 || service_type != 0 || flags != 0)
        return hal::invalid_argument;
    auto created = std::make_shared<hal::Client>();
    created->max_sessions = max_sessions;
    *client = Clients::table().add(std::move(created));
    return 0;
} catch (const std::bad_alloc&) {
    return hal::no_memory;
}

int32_t drvHdcClientDestroy(HDC_CLIENT client) {
    return Clients::table().take(client) ? 0 : hal::bad_handle;
}

int32_t drvHdcSessionConnect(int32_t peer_node, int32_t peer_device_id, HDC_CLIENT client,
                             HDC_SESSION* session) try {
    if (peer_node != 0 || peer_device_id < 0 || session == nullptr)
        return hal::invalid_argument;
    const auto owner = Clients::table().find(client);
    if (!owner)
        return hal::bad_handle;
    const hal::CancelGuard guard;
    auto opened = std::make_shared<hal::Session>(owner);
    if (owner->sessions > owner->max_sessions)
        return hal::too_many;
    if (const int32_t code = __connect(*opened, peer_device_id); code != 0)
        return code;
    *session = hal::Sessions::table().add(std::move(opened));
    return 0;
} catch (const std::bad_alloc&) {
    return hal::no_memory;
}
