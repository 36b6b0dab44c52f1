// A plain socket that speaks, or does not speak, the datagrams of the UDP interface.
#ifndef TESTS_PROGRAMS_UDP_SOCKET_H
#define TESTS_PROGRAMS_UDP_SOCKET_H

#include "dm_udp.h"

#include <arpa/inet.h>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

class UdpSocket {
public:
    UdpSocket() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in any = loopback(0);
        if (bind(fd_, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0)
            throw std::runtime_error("bind");
        const int on = 1;
        setsockopt(fd_, SOL_SOCKET, SO_TIMESTAMP, &on, sizeof on);
        const timeval limit{60, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;
    ~UdpSocket() { close(fd_); }

    std::string url() const {
        sockaddr_in own{};
        socklen_t len = sizeof own;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&own), &len);
        return "udp://127.0.0.1:" + std::to_string(ntohs(own.sin_port));
    }

    void connect_to(const std::string& url) const {
        const sockaddr_in peer =
            loopback(static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1))));
        if (connect(fd_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0)
            throw std::runtime_error("connect");
    }

    void send_bytes(const void* bytes, std::size_t len) const { send(fd_, bytes, len, 0); }

    // Receives a datagram and gives the time of its arrival in microseconds. Without MSG_DONTWAIT
    // it waits, for a limited time. Gives none when none came.
    std::optional<std::int64_t> receive(DM_UDP_MSG_ST& datagram, int flags = 0) {
        iovec bytes{&datagram, sizeof datagram};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timeval))];
        msghdr message{&sender_, sizeof sender_, &bytes, 1, control, sizeof control, 0};
        if (recvmsg(fd_, &message, flags) != sizeof datagram)
            return std::nullopt;
        const cmsghdr* stamp = CMSG_FIRSTHDR(&message);
        if (stamp == nullptr)
            return std::nullopt;
        timeval arrival{};
        std::memcpy(&arrival, CMSG_DATA(stamp), sizeof arrival);
        return arrival.tv_sec * std::int64_t{1'000'000} + arrival.tv_usec;
    }

    // Sends a datagram back to the sender of the one received last.
    void reply(const DM_UDP_MSG_ST& datagram) const {
        sendto(fd_, &datagram, sizeof datagram, 0, reinterpret_cast<const sockaddr*>(&sender_),
               sizeof sender_);
    }

private:
    static sockaddr_in loopback(std::uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        return address;
    }

    int fd_;
    sockaddr_in sender_{};
};

#endif
