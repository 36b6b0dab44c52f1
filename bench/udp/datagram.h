// Datagrams with the library's header, and their sockets.
#pragma once

#include "dm_udp.h"

#include "support/payload.h"
#include "support/require.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace udp {

using bench::Payload;
using bench::require;

using Frame = DM_UDP_MSG_ST;

inline constexpr size_t kHeader = sizeof(Frame) - DM_MAX_DATA_LEN;
inline constexpr size_t kSmall = kHeader + sizeof(Payload);
inline constexpr size_t kFull = sizeof(Frame); // what the library always sends

inline void make_request(Frame& frame, uint64_t request) {
    const Payload payload = bench::payload_of(request);
    frame.marker = 1;
    frame.type = DM_MSG_REQ;
    frame.req_id = request;
    frame.data_len = sizeof(payload);
    std::memcpy(frame.data, payload.data(), sizeof(payload));
}

inline bool is_answer(const Frame& frame, uint64_t request) {
    return frame.type == DM_MSG_RSP && frame.req_id == request &&
           bench::is_payload_of(request, frame.data, frame.data_len);
}

inline sockaddr_in loopback() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

inline const sockaddr* generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

inline sockaddr_in address_of(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    require(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0, "getsockname");
    return address;
}

// Makes room for what is under way, for a datagram that is dropped would be waited for. It takes a
// privilege, where the system's own bound is not that high.
// @return for how many datagrams there is room.
inline int make_room(int fd) {
    constexpr int most = 8 << 20;
    constexpr int datagram = 16 << 10; // with all that the kernel counts for one
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &most, sizeof(most)) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &most, sizeof(most));
    int bytes = 0;
    socklen_t size = sizeof(bytes);
    require(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, &size) == 0, "getsockopt");
    return bytes / datagram;
}

// A non-blocking socket on a port of the system's choice.
class Socket {
public:
    Socket() {
        const sockaddr_in any = loopback();
        require(bind(fd_, generic(any), sizeof(any)) == 0, "bind");
        room_ = make_room(fd_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() { close(fd_); }

    int fd() const { return fd_; }
    int room() const { return room_; }

    void send(const Frame& frame, size_t size, const sockaddr_in& to) const {
        require(sendto(fd_, &frame, size, 0, generic(to), sizeof(to)) == static_cast<ssize_t>(size),
                "sendto");
    }
    // @return false when there is none.
    bool receive(Frame& frame, size_t size, sockaddr_in& from) const {
        socklen_t from_size = sizeof(from);
        const ssize_t got =
            recvfrom(fd_, &frame, size, 0, reinterpret_cast<sockaddr*>(&from), &from_size);
        require(got == static_cast<ssize_t>(size) || (got < 0 && errno == EAGAIN), "recvfrom");
        return got >= 0;
    }

private:
    const int fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int room_ = 0;
};

} // namespace udp
