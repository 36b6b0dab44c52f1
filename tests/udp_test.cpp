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

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

using support::Context;
using support::Event;
using support::MsgFunction;

// An address of loopback.
DM_ADDR_ST udp_addr(uint16_t port, uint32_t peer_id = 0) {
    const auto high = static_cast<uint8_t>(port >> 8);
    const auto low = static_cast<uint8_t>(port);
    return {DM_KIND_UDP, DM_FAMILY_UDP, {}, peer_id, {AF_INET, 0, high, low, 127, 0, 0, 1}};
}

uint16_t port_of(int fd) {
    sockaddr_in sa{};
    socklen_t len = sizeof(sa);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len), 0);
    return ntohs(sa.sin_port);
}

class Udp : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(dm_udp_init(&intf_, context_.get(), nullptr, &addr_, nullptr, 0), 0);
        port_ = port_of(intf_->fd);
    }

    Context context_;
    DM_ADDR_ST addr_ = udp_addr(0);
    DM_INTF_ST* intf_ = nullptr;
    uint16_t port_ = 0;
};

TEST_F(Udp, FrameHasItsFields) {
    const int peer = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(bind(peer, reinterpret_cast<sockaddr*>(addr_.sa), sizeof(sockaddr_in)), 0);
    DM_ADDR_ST to = udp_addr(port_of(peer), 77);
    EXPECT_EQ(std::tuple(intf_->retry_cnt, intf_->timeout_ms, intf_->max_data_len),
              std::tuple(2, 30000, 512));
    EXPECT_EQ(intf_->fd, intf_->wfd);
    EXPECT_NE(fcntl(intf_->fd, F_GETFL) & O_NONBLOCK, 0);
    ASSERT_EQ(support::send(intf_, "hello", nullptr, to), 0);
    DM_UDP_MSG_ST frame;
    ASSERT_EQ(recv(peer, &frame, sizeof(frame), MSG_DONTWAIT), 4138);
    EXPECT_NE(frame.req_id, 0U);
    // The own port is that of the address given, not the one that the system chose.
    const DM_UDP_MSG_ST expected{
        0, port_of(peer), 0, 1, 5, DM_MSG_REQ, 77, frame.req_id, {}, {'h', 'e', 'l', 'l', 'o'}};
    EXPECT_EQ(std::memcmp(&frame, &expected, sizeof(frame)), 0);
    close(peer);
    DM_DATA_ST too_long{4097, const_cast<uint8_t*>(frame.data)};
    EXPECT_EQ(intf_->send_msg(intf_, 0, &to, 28, &too_long, 1), -22);
    EXPECT_EQ(support::logged('E', "msg->data_len(4097) exceed allow size(4096)\n"), 1);
    support::skip_log_interval();
    intf_->wfd = -1;
    EXPECT_EQ(support::send(intf_, "hello"), DM_ERR_SEND);
    EXPECT_EQ(support::logged('E', "sendto fail.errno=9\r\n", "__dm_udp_send"), 1);
}

TEST_F(Udp, AnswersRequestsAndDropsMalformedDatagrams) {
    Context other;
    DM_INTF_ST* client = nullptr;
    ASSERT_EQ(dm_udp_init(&client, other.get(), nullptr, &addr_, "client", 7), 0);
    std::vector<uint16_t> lengths;
    Event handled;
    MsgFunction handler = [&](DM_INTF_ST* intf, DM_MSG_ST* msg) {
        EXPECT_EQ(std::tuple(msg->src_id, msg->src_type, msg->src_index, msg->addr_len),
                  std::tuple(5, 1, 1, 28));
        lengths.push_back(msg->data.data_len);
        handled.set();
        if (msg->data.data_len == 6)
            support::answer(intf, msg, support::text_of(msg) + " too");
    };
    context_.on_request(handler);
    DM_UDP_MSG_ST frame{};
    frame.peer_id = 5;
    addr_ = udp_addr(port_, 5);
    const auto arrive = [&](size_t size, uint16_t marker, uint16_t reserved, uint16_t data_len) {
        frame.marker = marker;
        frame.reserved1 = reserved;
        frame.data_len = data_len;
        const auto* to = reinterpret_cast<const sockaddr*>(addr_.sa);
        EXPECT_EQ(sendto(client->fd, &frame, size, 0, to, sizeof(sockaddr_in)),
                  static_cast<ssize_t>(size));
    };
    arrive(0, 1, 0, 1);
    arrive(5, 1, 0, 1);
    arrive(sizeof(frame), 2, 0, 1);
    arrive(sizeof(frame), 1, 1, 1);
    arrive(sizeof(frame), 1, 0, 5000); // announces more than there is
    arrive(42, 1, 0, 3);               // a short one counts as far as it goes
    Event answered;
    MsgFunction on_response = [&](DM_INTF_ST* intf, DM_MSG_ST* msg) {
        EXPECT_EQ(intf, client);
        EXPECT_EQ(support::text_of(msg), "hello! too");
        answered.set();
    };
    ASSERT_EQ(support::send(client, "hello!", &on_response, addr_), 0);
    ASSERT_TRUE(answered.wait() && handled.wait(3));
    EXPECT_EQ(lengths, (std::vector<uint16_t>{5000, 3, 6}));
}

// Datagrams that wait behind one another are read in a row. That there is none any more is no
// error.
TEST_F(Udp, ReadsOnWhileThereAreMore) {
    constexpr int kRequests = 100;
    Event handled, go, answered;
    MsgFunction handler = [&](DM_INTF_ST* intf, DM_MSG_ST* msg) {
        handled.set();
        EXPECT_TRUE(go.wait());
        support::answer(intf, msg, "answer");
    };
    MsgFunction on_response = [&](DM_INTF_ST*, DM_MSG_ST*) { answered.set(); };
    context_.on_request(handler);
    const int room = 4 << 20;
    setsockopt(intf_->fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof(room));
    for (int round = 1; round <= 3; ++round) {
        const int window = kRequests / 10 * round;
        go.reset();
        const int before = answered.count();
        for (int i = 0; i < window; ++i)
            ASSERT_EQ(support::send(intf_, "request", &on_response, udp_addr(port_)), 0);
        ASSERT_TRUE(handled.wait());
        go.set();
        EXPECT_TRUE(answered.wait(before + window));
    }
    EXPECT_EQ(support::lines_of('E'), std::vector<std::string>{});
}

// The slots may stand in a record of somebody's own, and be called by one of his. That is called
// only when there is something to read.
TEST_F(Udp, SlotsInAnotherRecord) {
    static DM_RECV_MSG original;
    static std::atomic<int> in_vain;
    original = intf_->recv_msg;
    in_vain = 0;
    const DM_RECV_MSG wrapper = [](DM_INTF_ST* intf, int32_t fd, int16_t events, DM_MSG_ST* msg) {
        pollfd ready{fd, POLLIN, 0};
        in_vain += poll(&ready, 1, 0) == 1 ? 0 : 1;
        return original(intf, fd, events, msg);
    };
    Event handled;
    MsgFunction handler = [&](DM_INTF_ST*, DM_MSG_ST*) { handled.set(); };
    context_.on_request(handler);
    auto* own = static_cast<DM_INTF_ST*>(std::malloc(sizeof(DM_INTF_ST)));
    *own = *intf_;
    std::strcpy(own->name, "own");
    own->close = nullptr;
    own->fd = own->wfd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    ASSERT_EQ(bind(own->fd, reinterpret_cast<sockaddr*>(addr_.sa), sizeof(sockaddr_in)), 0);
    ASSERT_EQ(dm_intf_register(context_.get(), own), 0);
    intf_->recv_msg = wrapper;
    for (int round = 1; round <= 20; ++round) {
        EXPECT_EQ(support::send(intf_, "x", nullptr, udp_addr(port_of(own->fd))), 0);
        EXPECT_EQ(support::send(own, "x", nullptr, udp_addr(port_)), 0);
        ASSERT_TRUE(handled.wait(2 * round));
    }
    EXPECT_EQ(in_vain, 0);
    const int fd = own->fd;
    EXPECT_EQ(dm_intf_deregister(own), 0);
    close(fd);
}

TEST_F(Udp, ChecksItsArguments) {
    const auto init = [&](DM_ADDR_ST addr, const char* name, uint32_t name_len) {
        return dm_udp_init(nullptr, context_.get(), nullptr, &addr, name, name_len);
    };
    EXPECT_EQ(dm_udp_init(nullptr, nullptr, nullptr, &addr_, nullptr, 0), 22);
    EXPECT_EQ(support::logged('E', "udp init fail ret = 22\n", "dm_udp_init"), 1);
    EXPECT_EQ(dm_udp_init(nullptr, context_.get(), nullptr, nullptr, nullptr, 0), 22);
    EXPECT_EQ(init(addr_, "name", 32), 22);
    EXPECT_EQ(init({97, 2, {}, 0, {}}, "other", 6), 22);
    EXPECT_EQ(init({98, 1, {}, 0, {}}, "other", 6), 22);
    EXPECT_EQ(init(udp_addr(port_), "other", 6), EADDRINUSE);
}

} // namespace
