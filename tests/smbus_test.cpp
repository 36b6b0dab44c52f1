#include "dm_smbus.h"

#include "support/platform_hooks.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>

#include <cstdarg>
#include <cstring>
#include <filesystem>

namespace {

// The device, behind realpath() and ioctl(), and what was asked of it.
struct Bus {
    unsigned long failing = 0; // a request
    std::string block;         // as it is read: its count byte, and the bytes
    std::vector<unsigned long> requests;
    i2c_smbus_ioctl_data request{};
    i2c_smbus_data written{};
    i2c_msg read{};
};
Bus bus;
uint8_t bytes[40];
using Requests = std::vector<unsigned long>;

TEST(Smbus, OpensWhatTheLinkLeadsTo) {
    const int fd = smbus_save_open();
    EXPECT_EQ(fcntl(fd, F_GETFL) & ~O_LARGEFILE & ~0100000, O_RDWR | O_NONBLOCK);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)), "/dev/null");
    close(fd);
}

TEST(Smbus, WritesBlocksOfUpTo32Bytes) {
    bus = {};
    std::memset(bytes, 'x', sizeof(bytes));
    EXPECT_EQ(smbus_msg_send(1, nullptr, 1), -22);
    EXPECT_EQ(smbus_msg_send(1, bytes, 33), -22);
    EXPECT_EQ(support::logged('W', "Drv_check:(data_len <= 32)\n"), 1);
    EXPECT_TRUE(bus.requests.empty());
    EXPECT_EQ(smbus_msg_send(1, bytes, 32), 0);
    EXPECT_EQ(bus.requests, (Requests{I2C_SLAVE_FORCE, I2C_SMBUS}));
    EXPECT_EQ(std::tuple(bus.request.command, bus.request.size), std::tuple(0x20, 5));
    EXPECT_EQ(std::string(bus.written.block, bus.written.block + 34),
              '\x20' + std::string(32, 'x') + '\0');
    bus.failing = I2C_SLAVE_FORCE;
    EXPECT_EQ(smbus_msg_send(1, bytes, 1), -1);
    EXPECT_EQ(support::logged('E', "ioctl set slave addr fail:64\n"), 1);
}

TEST(Smbus, LogsEvery601stFailureWhateverSucceeds) {
    const auto logged = [] { return support::logged('E', "ioctl fail\n", "smbus_msg_send"); };
    for (int failures = 1; failures <= 2 * 601; ++failures) {
        support::skip_log_interval();
        bus.failing = I2C_SMBUS;
        ASSERT_EQ(smbus_msg_send(1, bytes, 1), -1);
        bus.failing = 0;
        ASSERT_EQ(smbus_msg_send(1, bytes, 1), 0);
        ASSERT_EQ(logged(), failures / 601);
    }
}

TEST(Smbus, ReadsWhatTheDeviceAnnounces) {
    bus = {};
    uint32_t length = 9;
    EXPECT_EQ(smbus_msg_recv(1, nullptr, &length), -22);
    EXPECT_EQ(smbus_msg_recv(1, bytes, nullptr), -22);
    EXPECT_TRUE(bus.requests.empty());
    bus.block = '\x21' + std::string(32, 'y');
    EXPECT_EQ(smbus_msg_recv(1, bytes, &length), -22);
    EXPECT_EQ(length, 9U);
    bus.block[0] = 32;
    bus.requests.clear();
    EXPECT_EQ(smbus_msg_recv(1, bytes, &length), 0);
    EXPECT_EQ(bus.requests, (Requests{I2C_SMBUS, I2C_RDWR})) << "it sets no slave address";
    EXPECT_EQ(std::tuple(bus.request.command, bus.request.size), std::tuple(0x21, 2));
    EXPECT_EQ(std::tuple(bus.read.addr, bus.read.flags, bus.read.len), std::tuple(100, 1, 33));
    EXPECT_EQ(length, 32U);
    EXPECT_EQ(std::string(bytes, bytes + 33), std::string(32, 'y') + 'x');
    bus.failing = I2C_RDWR;
    EXPECT_EQ(smbus_msg_recv(1, bytes, &length), 0) << "a failed read is not noticed";
    EXPECT_EQ(bytes[31], 0);
    bus.failing = I2C_SMBUS;
    EXPECT_EQ(smbus_msg_recv(1, bytes, &length), 0);
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(bytes[32], 'x') << "left as it is";
}

} // namespace

extern "C" char* realpath(const char* path, char* resolved) noexcept {
    EXPECT_STREQ(path, "/dev/i2c-0");
    return std::strcpy(resolved, "/dev/null");
}

extern "C" int ioctl(int /*fd*/, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    bus.requests.push_back(request);
    if (request == I2C_SMBUS) {
        bus.request = *static_cast<i2c_smbus_ioctl_data*>(arg);
        if (bus.request.read_write == I2C_SMBUS_WRITE)
            bus.written = *bus.request.data;
        else if (request != bus.failing)
            bus.request.data->byte = static_cast<uint8_t>(bus.block[0]);
    } else if (request == I2C_RDWR) {
        bus.read = *static_cast<i2c_rdwr_ioctl_data*>(arg)->msgs;
        if (request != bus.failing)
            std::memcpy(bus.read.buf, bus.block.data(), bus.block.size());
    } else {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(arg), 100U);
    }
    return request == bus.failing ? -1 : 0;
}
