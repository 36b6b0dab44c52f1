#include "dm_ipc.h"

#include "platform_hal.h"
#include "support/framework.h"
#include "support/platform_hooks.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using support::Call;

// The device manager: what it gives, and what it was given.
struct Manager {
    int opened = -1; // the last channel
    int closed = 0;  // how often that was closed
    int recv_code = 0;
    uint32_t device_id = 0;
    int length = -1; // of the message sent
};
Manager manager;

class Ipc : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(init(1, &intf_), 0); }
    int init(uint32_t device_id, DM_INTF_ST** intf, uint32_t kind = 102, int32_t opt_len = 31) {
        manager = {};
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
    EXPECT_EQ(msg.type, DM_MSG_REQ);
    EXPECT_EQ(msg.src_id, 1U);
    EXPECT_EQ(msg.src_type, 0);
    EXPECT_EQ(msg.src_index, 255U);
    EXPECT_EQ(msg.addr_len, 12U);
    EXPECT_EQ(addr.kind, 102U);
    EXPECT_EQ(addr.peer_id, 1U);
    const uint64_t first = msg.req_id;
    manager.recv_code = 42;
    EXPECT_EQ(intf_->recv_msg(intf_, intf_->fd, POLLIN, &msg), 42);
    DM_INTF_ST* other = nullptr;
    ASSERT_EQ(init(2, &other), 0);
    EXPECT_EQ(other->recv_msg(other, other->fd, POLLIN, &msg), 0);
    EXPECT_EQ(msg.req_id, first + 1) << "counted across interfaces";
}

TEST_F(Ipc, SendsTheLowByteOfTheLength) {
    char text[300]{};
    DM_ADDR_ST addr{DM_KIND_IPC, DM_FAMILY_IPC, {}, 7, {}};
    for (const auto length : std::initializer_list<uint16_t>{32, 300, 256}) {
        DM_DATA_ST data{length, text};
        EXPECT_EQ(intf_->send_msg_ex(intf_, 0, &addr, 12, &data, 1, 2, 3), 21);
        EXPECT_EQ(manager.length, length % 256);
        EXPECT_EQ(manager.device_id, 7U);
    }
}

TEST_F(Ipc, ChecksItsArguments) {
    EXPECT_STREQ(intf_->name, "dm_ipc1");
    EXPECT_EQ(intf_->timeout_ms, 10000U);
    EXPECT_EQ(fcntl(intf_->wfd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(init(1, nullptr), 16);
    EXPECT_EQ(dm_get_intf(context_.get(), "dm_ipc1", 8), intf_);
    EXPECT_EQ(init(2, nullptr, DM_KIND_HDC), 22);
    EXPECT_EQ(init(2, nullptr, DM_KIND_IPC, 32), 22);
    EXPECT_EQ(init(2, nullptr, DM_KIND_IPC, -1), 0);
    char name[7];
    EXPECT_EQ(dm_ipc_get_intf_name(1, name, sizeof(name)), 5);
}

TEST_F(Ipc, FailedInitClosesOnce) {
    dm_intf_deregister(intf_);
    EXPECT_EQ(manager.closed, 1);
    int opened = 0;
    const auto try_it = [&] {
        DM_INTF_ST* made = nullptr;
        const int status = init(1, &made);
        EXPECT_EQ(made != nullptr, status == 0);
        dm_intf_deregister(made);
        EXPECT_EQ(manager.closed, manager.opened != -1 ? 1 : 0);
        opened += manager.closed;
    };
    for (const Call call : {Call::malloc, Call::memset_s, Call::memmove_s, Call::strncpy_s})
        EXPECT_GT(support::fail_each(call, try_it), 0);
    EXPECT_GT(opened, 4) << "some failures came after the channel was open";
}

} // namespace

extern "C" int close(int fd) {
    manager.closed += fd == manager.opened ? 1 : 0;
    return static_cast<int>(syscall(SYS_close, fd));
}

int32_t devdrv_open_device_manager(void) {
    return manager.opened = eventfd(0, 0);
}

int32_t devdrv_imu_dmp_msg_send(int32_t /*fd*/, uint32_t device_id, const void* /*data*/,
                                uint8_t length) {
    manager.device_id = device_id;
    manager.length = length;
    return 21;
}

int32_t devdrv_imu_dmp_msg_recv(int32_t /*fd*/, uint32_t /*device_id*/, void* buffer,
                                uint32_t capacity, uint8_t* length) {
    EXPECT_EQ(capacity, 32U);
    std::copy_n("hello", *length = 5, static_cast<char*>(buffer));
    return manager.recv_code;
}
