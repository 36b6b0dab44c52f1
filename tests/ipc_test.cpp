#include "dm_ipc.h"

#include "support/framework.h"
#include "support/scripted_hal.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

using support::hal;

class Ipc : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(init(1, &intf_), 0); }
    void TearDown() override { hal.reset(); }
    int init(uint32_t device_id, DM_INTF_ST** intf, uint32_t kind = 102, int32_t opt_len = 31) {
        DM_ADDR_ST addr{kind, DM_FAMILY_IPC, {}, device_id, {}};
        return dm_ipc_init(intf, context_.get(), nullptr, &addr, "", opt_len);
    }

    support::Context context_;
    DM_INTF_ST* intf_ = nullptr;
};

TEST_F(Ipc, EveryMessageIsANumberedRequest) {
    DM_ADDR_ST addr{};
    char buffer[DM_MAX_DATA_LEN]{};
    DM_MSG_ST msg{9, 9, 9, 9, &addr, 40, 0, {DM_MAX_DATA_LEN, buffer}};
    EXPECT_EQ(intf_->recv_msg(intf_, intf_->fd, POLLHUP, &msg), 0);
    EXPECT_EQ(msg.type, 9U) << "not readable: nothing is touched";
    ASSERT_EQ(intf_->recv_msg(intf_, intf_->fd, POLLIN, &msg), 0);
    EXPECT_EQ(support::text_of(&msg), "hello");
    EXPECT_EQ(hal.length, 32);
    EXPECT_EQ(std::tuple(msg.src_id, msg.src_type, msg.src_index, msg.addr_len),
              std::tuple(1, 0, 255, 12));
    EXPECT_EQ(msg.type, DM_MSG_REQ);
    EXPECT_EQ(addr.kind, 102U);
    EXPECT_EQ(addr.peer_id, 1U);
    const uint64_t first = msg.req_id;
    hal.code["dmp_recv"] = 42;
    EXPECT_EQ(intf_->recv_msg(intf_, intf_->fd, POLLIN, &msg), 42);
    hal.code.clear();
    DM_INTF_ST* other = nullptr;
    ASSERT_EQ(init(2, &other), 0);
    EXPECT_EQ(other->recv_msg(other, other->fd, POLLIN, &msg), 0);
    EXPECT_EQ(msg.req_id, first + 1) << "counted across interfaces";
}

TEST_F(Ipc, SendsTheLowByteOfTheLength) {
    char text[300]{};
    hal.code["dmp_send"] = 21;
    DM_ADDR_ST addr{DM_KIND_IPC, DM_FAMILY_IPC, {}, 7, {}};
    for (const auto length : std::initializer_list<uint16_t>{32, 300, 256}) {
        DM_DATA_ST data{length, text};
        EXPECT_EQ(intf_->send_msg_ex(intf_, 0, &addr, 12, &data, 1, 2, 3), 21);
        EXPECT_EQ(hal.length, length % 256);
        EXPECT_EQ(hal.device_id, 7U);
    }
}

TEST_F(Ipc, ChecksItsArguments) {
    EXPECT_STREQ(intf_->name, "dm_ipc1");
    EXPECT_EQ(intf_->timeout_ms, 10000U);
    EXPECT_EQ(fcntl(intf_->wfd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(init(2, nullptr, DM_KIND_HDC), 22);
    EXPECT_EQ(init(2, nullptr, DM_KIND_IPC, 32), 22);
    EXPECT_EQ(init(2, nullptr, DM_KIND_IPC, -1), 0);
    char name[7];
    EXPECT_EQ(dm_ipc_get_intf_name(1, name, sizeof(name)), 5);
}

} // namespace
