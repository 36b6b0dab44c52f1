#include "dm_udp.h"

#include "support/framework.h"
#include "support/platform_hooks.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace {

using support::Call;
using support::Context;
using support::Event;
using support::MsgFunction;

DM_ADDR_ST udp_addr(uint16_t port, uint32_t peer_id = 0) {
    DM_ADDR_ST addr{};
    addr.kind = DM_KIND_UDP;
    addr.family = DM_FAMILY_UDP;
    addr.peer_id = peer_id;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::memcpy(addr.sa, &sa, sizeof(sa));
    return addr;
}

uint16_t port_of(int fd) {
    sockaddr_in sa{};
    socklen_t len = sizeof(sa);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len), 0);
    return ntohs(sa.sin_port);
}

// A plain socket on loopback.
class Peer {
public:
    Peer() : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
        DM_ADDR_ST addr = udp_addr(0);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(addr.sa), sizeof(sockaddr_in)), 0);
    }
    ~Peer() { close(fd_); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    uint16_t port() const { return port_of(fd_); }
    void send(const void* bytes, size_t size, uint16_t to) const {
        DM_ADDR_ST addr = udp_addr(to);
        EXPECT_EQ(
            sendto(fd_, bytes, size, 0, reinterpret_cast<sockaddr*>(addr.sa), sizeof(sockaddr_in)),
            static_cast<ssize_t>(size));
    }
    DM_UDP_MSG_ST receive() const {
        DM_UDP_MSG_ST frame;
        pollfd ready{fd_, POLLIN, 0};
        EXPECT_EQ(poll(&ready, 1, 30000), 1);
        EXPECT_EQ(recv(fd_, &frame, sizeof(frame), 0), 4138);
        return frame;
    }

private:
    int fd_;
};

class Udp : public testing::Test {
protected:
    void SetUp() override {
        support::skip_log_interval();
        support::clear_log();
        DM_ADDR_ST addr = udp_addr(0);
        ASSERT_EQ(dm_udp_init(&intf_, context_.get(), nullptr, &addr, nullptr, 0), 0);
        port_ = port_of(intf_->fd);
    }

    Context context_;
    DM_INTF_ST* intf_ = nullptr;
    uint16_t port_ = 0;
};

TEST_F(Udp, FrameHasItsFields) {
    const Peer peer;
    EXPECT_EQ(intf_->retry_cnt, 2);
    EXPECT_EQ(intf_->timeout_ms, 30000U);
    EXPECT_EQ(intf_->max_data_len, 512U);
    EXPECT_EQ(intf_->fd, intf_->wfd);
    EXPECT_NE(fcntl(intf_->fd, F_GETFL) & O_NONBLOCK, 0);
    ASSERT_EQ(support::send(intf_, "hello", nullptr, udp_addr(peer.port(), 77)), 0);
    const DM_UDP_MSG_ST frame = peer.receive();
    EXPECT_EQ(frame.src_port, 0) << "the port of the address given, not the one the system chose";
    EXPECT_EQ(frame.dst_port, peer.port());
    EXPECT_EQ(frame.reserved1, 0);
    EXPECT_EQ(frame.marker, 1);
    EXPECT_EQ(frame.data_len, 5);
    EXPECT_EQ(frame.type, DM_MSG_REQ);
    EXPECT_EQ(frame.peer_id, 77U);
    EXPECT_NE(frame.req_id, 0U);
    EXPECT_EQ(std::string(frame.data, frame.data + 6), std::string("hello\0", 6));
    DM_DATA_ST too_long{4097, const_cast<uint8_t*>(frame.data)};
    DM_ADDR_ST addr = udp_addr(peer.port());
    EXPECT_EQ(intf_->send_msg(intf_, 0, &addr, 28, &too_long, 1), -22);
    EXPECT_EQ(support::logged('E', "msg->data_len(4097) exceed allow size(4096)\n"), 1);
}

TEST_F(Udp, RequestIsAnsweredToWhereItCameFrom) {
    Context other;
    DM_ADDR_ST addr = udp_addr(0);
    DM_INTF_ST* client = nullptr;
    ASSERT_EQ(dm_udp_init(&client, other.get(), nullptr, &addr, "client", 7), 0);
    MsgFunction handler = [&](DM_INTF_ST* intf, DM_MSG_ST* msg) {
        EXPECT_EQ(msg->addr_len, 28U);
        EXPECT_EQ(msg->src_id, 5U);
        EXPECT_EQ(msg->src_type, 1);
        EXPECT_EQ(msg->src_index, 1U);
        support::answer(intf, msg, support::text_of(msg) + " too");
    };
    context_.on_request(handler);
    std::string text;
    Event answered;
    MsgFunction on_response = [&](DM_INTF_ST* intf, DM_MSG_ST* msg) {
        EXPECT_EQ(intf, client);
        text = support::text_of(msg);
        answered.set();
    };
    ASSERT_EQ(support::send(client, "hello", &on_response, udp_addr(port_, 5)), 0);
    ASSERT_TRUE(answered.wait());
    EXPECT_EQ(text, "hello too");
    const int fd = client->fd;
    EXPECT_EQ(dm_intf_deregister(client), 0);
    EXPECT_EQ(close(fd), 0) << "another name keeps its socket open";
}

TEST_F(Udp, DropsMalformedDatagramsOnly) {
    std::vector<uint16_t> lengths;
    Event received;
    MsgFunction handler = [&](DM_INTF_ST*, DM_MSG_ST* msg) {
        lengths.push_back(msg->data.data_len);
        received.set();
    };
    context_.on_request(handler);
    const Peer peer;
    DM_UDP_MSG_ST frame{};
    frame.marker = 1;
    frame.data_len = 5000;
    peer.send(&frame, 0, port_);
    peer.send(&frame, 5, port_);
    frame.marker = 2;
    peer.send(&frame, sizeof(frame), port_);
    frame.marker = 1;
    frame.reserved1 = 1;
    peer.send(&frame, sizeof(frame), port_);
    frame.reserved1 = 0;
    peer.send(&frame, sizeof(frame), port_); // announces more than there is
    frame.data_len = 3;
    peer.send(&frame, 42, port_); // a short one counts as far as it goes
    ASSERT_TRUE(received.wait(2));
    EXPECT_EQ(lengths, (std::vector<uint16_t>{5000, 3}));
}

TEST_F(Udp, ChecksItsArguments) {
    DM_ADDR_ST addr = udp_addr(0);
    DM_CB_ST* dm_cb = context_.get();
    EXPECT_EQ(dm_udp_init(nullptr, nullptr, nullptr, &addr, nullptr, 0), 22);
    EXPECT_EQ(support::logged('E', "udp init fail ret = 22\n"), 1);
    EXPECT_EQ(dm_udp_init(nullptr, dm_cb, nullptr, nullptr, nullptr, 0), 22);
    EXPECT_EQ(dm_udp_init(nullptr, dm_cb, nullptr, &addr, "name", 32), 22);
    support::skip_log_interval();
    EXPECT_EQ(dm_udp_init(nullptr, dm_cb, nullptr, &addr, nullptr, 0), 16);
    EXPECT_EQ(support::logged('E', "duplicate interface [dm_udp]\r\n"), 1);
    addr = udp_addr(port_);
    EXPECT_EQ(dm_udp_init(nullptr, dm_cb, nullptr, &addr, "other", 6), EADDRINUSE);
    addr.family = 1;
    EXPECT_EQ(dm_udp_init(nullptr, dm_cb, nullptr, &addr, "other", 6), 22);
    addr.family = 2;
    addr.kind = 97;
    EXPECT_EQ(dm_udp_init(nullptr, dm_cb, nullptr, &addr, "other", 6), 22);
}

TEST_F(Udp, FailedInitLeavesNothing) {
    EXPECT_EQ(dm_intf_deregister(intf_), 0);
    const int before = dup(0);
    close(before);
    for (const char* name : {"dm_udp", "other"})
        for (const Call call : {Call::malloc, Call::memset_s, Call::memmove_s, Call::strncpy_s})
            EXPECT_GT(support::fail_each(call,
                                         [&] {
                                             DM_ADDR_ST addr = udp_addr(0);
                                             DM_INTF_ST* made = nullptr;
                                             errno = 0;
                                             if (dm_udp_init(&made, context_.get(), nullptr, &addr,
                                                             name, 7) != 0) {
                                                 EXPECT_EQ(made, nullptr);
                                                 return;
                                             }
                                             const int fd = made->fd;
                                             dm_intf_deregister(made);
                                             close(fd);
                                         }),
                      0);
    const int now = dup(0);
    close(now);
    EXPECT_EQ(now, before);
    EXPECT_EQ(dm_get_intf(context_.get(), "dm_udp", 7), nullptr);
}

} // namespace
