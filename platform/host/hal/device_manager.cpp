// The device manager's message channel: each endpoint is a datagram socket in the directory, and a
// message goes to all of them but the sender's own.
//
// Endpoints are closed with close(2), which leaves their files behind; whoever opens the next one
// removes them. The files' names are random, and so never used again.
#include "hal/complaint.h"
#include "hal/directory.h"
#include "hal/socket.h"
#include "platform_hal.h"
#include "platform_hal_codes.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

namespace {

constexpr std::string_view kPrefix = "dmp-";

struct Packet {
    uint32_t device_id;
    char data[HAL_DMP_MAX_LEN];
};

constexpr size_t kHeaderSize = offsetof(Packet, data);

struct DirCloser {
    void operator()(DIR* listing) const { closedir(listing); }
};

using Listing = std::unique_ptr<DIR, DirCloser>;

Listing __list(const hal::Directory& directory) {
    hal::Descriptor opened = hal::make_descriptor([&] {
        return openat(directory.descriptor.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    });
    Listing listing(opened ? fdopendir(opened.get()) : nullptr);
    if (listing)
        opened.release();
    return listing;
}

// @return the name of the next endpoint's file; null behind the last one.
const char* __next_endpoint(DIR* listing) {
    while (const dirent* entry = readdir(listing)) {
        if (std::string_view(entry->d_name).starts_with(kPrefix))
            return entry->d_name;
    }
    return nullptr;
}

// Removes the files of closed endpoints. One that is just being bound looks like them, so that who
// binds and who removes holds the lock.
void __remove_closed(const hal::Directory& directory, DIR* listing) {
    const hal::Descriptor probe = hal::open_socket(SOCK_DGRAM | SOCK_NONBLOCK);
    while (const char* name = __next_endpoint(listing)) {
        if (hal::connect_socket(probe, directory, name) != 0 && errno == ECONNREFUSED)
            unlinkat(directory.descriptor.get(), name, 0);
    }
}

// @return an endpoint under a new name, which others of this user may send to.
hal::Descriptor __bind(const hal::Directory& directory) {
    uint64_t number = 0;
    if (getrandom(&number, sizeof(number), 0) != static_cast<ssize_t>(sizeof(number)))
        return {};
    std::array<char, 32> name = {};
    std::snprintf(name.data(), name.size(), "%s%016" PRIx64, kPrefix.data(), number);
    return hal::bind_socket(SOCK_DGRAM, directory, name.data(), 0600);
}

int32_t __system_error(const hal::Directory& directory) {
    return hal::complain(directory.path, HAL_ERR_SYSTEM, strerrordesc_np(errno));
}

int32_t __open(hal::Descriptor& endpoint) {
    hal::Directory directory;
    if (const int32_t code = hal::open_own_directory(directory); code != 0)
        return code;
    const Listing listing = __list(directory);
    const hal::DirectoryLock lock(directory);
    if (!listing || !lock.held())
        return __system_error(directory);
    __remove_closed(directory, listing.get());
    endpoint = __bind(directory);
    return endpoint ? 0 : __system_error(directory);
}

// @return the name of an endpoint's file; empty when the descriptor is not an endpoint.
std::string __name_of(int fd) {
    sockaddr_un own = {};
    socklen_t size = sizeof(own);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size) != 0 || own.sun_family != AF_UNIX)
        return {};
    const std::string path(own.sun_path, strnlen(own.sun_path, sizeof(own.sun_path)));
    std::string name = path.substr(path.rfind('/') + 1);
    return name.starts_with(kPrefix) ? name : std::string();
}

// Sends to all endpoints but one. Who is closed, or has no room, misses the message.
int32_t __broadcast(const Packet& packet, size_t size, std::string_view but) {
    hal::Directory directory;
    if (const int32_t code = hal::open_own_directory(directory); code != 0)
        return code;
    const Listing listing = __list(directory);
    // A socket for this message alone: what lies unread at one endpoint counts against the sending
    // socket, and would take the room of messages to the others.
    const hal::Descriptor sender = hal::open_socket(SOCK_DGRAM | SOCK_NONBLOCK);
    if (!listing || !sender)
        return __system_error(directory);
    while (const char* name = __next_endpoint(listing.get())) {
        if (name == but)
            continue;
        const sockaddr_un address = hal::address_in(directory, name);
        sendto(sender.get(), &packet, size, MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
    return 0;
}

} // namespace

int32_t devdrv_open_device_manager(void) try {
    const hal::CancelGuard guard;
    hal::Descriptor endpoint;
    const int32_t code = __open(endpoint);
    return code == 0 ? endpoint.release() : -code;
} catch (const std::bad_alloc&) {
    return -HAL_ERR_NO_MEMORY;
}

int32_t devdrv_imu_dmp_msg_send(int32_t fd, uint32_t device_id, const void* data,
                                uint8_t length) try {
    if (length > HAL_DMP_MAX_LEN)
        return HAL_ERR_TOO_LONG;
    if (data == nullptr && length != 0)
        return HAL_ERR_INVALID_ARGUMENT;
    const hal::CancelGuard guard;
    const std::string own = __name_of(fd);
    if (own.empty())
        return HAL_ERR_BAD_HANDLE;
    Packet packet = {device_id, {}};
    if (length != 0)
        std::memcpy(packet.data, data, length);
    return __broadcast(packet, kHeaderSize + length, own);
} catch (const std::bad_alloc&) {
    return HAL_ERR_NO_MEMORY;
}

int32_t devdrv_imu_dmp_msg_recv(int32_t fd, uint32_t device_id, void* buffer, uint32_t capacity,
                                uint8_t* length) try {
    if (buffer == nullptr || length == nullptr)
        return HAL_ERR_INVALID_ARGUMENT;
    if (__name_of(fd).empty())
        return HAL_ERR_BAD_HANDLE;
    Packet packet = {};
    const ssize_t size = recv(fd, &packet, sizeof(packet), MSG_DONTWAIT | MSG_TRUNC);
    if (size < 0)
        return errno == EAGAIN ? HAL_ERR_WOULD_BLOCK : HAL_ERR_SYSTEM;
    const auto received = static_cast<size_t>(size);
    if (received < kHeaderSize || received > sizeof(packet))
        return HAL_ERR_BAD_MESSAGE;
    if (packet.device_id != device_id)
        return HAL_ERR_OTHER_DEVICE;
    const size_t payload = received - kHeaderSize;
    if (payload > capacity)
        return HAL_ERR_TOO_LONG;
    std::memcpy(buffer, packet.data, payload);
    *length = static_cast<uint8_t>(payload);
    return 0;
} catch (const std::bad_alloc&) {
    return HAL_ERR_NO_MEMORY;
}
