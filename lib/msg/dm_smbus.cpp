#include "dm_smbus.h"

#include "base/descriptor.h"
#include "base/log.h"
#include "base/memory.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constinit dm::SubjectLog smbus_log;

constexpr const char* kDevice = "/dev/i2c-0";
constexpr unsigned long kSlaveAddr = 0x64;
constexpr uint8_t kWriteBlock = 0x20; // commands of the device
constexpr uint8_t kReadLength = 0x21;
constexpr size_t kPathMax = 4096;
constexpr uint32_t kFailuresUnlogged = 600;

static_assert(DM_SMBUS_BLOCK_MAX == I2C_SMBUS_BLOCK_MAX);

void __close_device(int fd) {
    close(fd);
}

using Device = dm::Descriptor<__close_device>;

// Since the last one that was logged. A success does not reset it: on a bad bus some transfers do
// succeed.
std::atomic<uint32_t> g_send_failures{0};

int __transfer(int fd, uint8_t read_write, uint8_t command, uint32_t size, i2c_smbus_data* data) {
    i2c_smbus_ioctl_data request{read_write, command, size, data};
    return ioctl(fd, I2C_SMBUS, &request);
}

// ---- open ----

// Opens what the path leads to. Gives the descriptor or -1.
int __safe_open(const char* path, int flags) {
    if (path == nullptr || strnlen(path, kPathMax + 1) > kPathMax)
        return -1;
    const auto resolved = dm::allocate<char>(kPathMax + 1);
    if (!resolved || dm::zero(resolved.get(), kPathMax + 1) != 0)
        return -1;
    if (realpath(path, resolved.get()) == nullptr)
        return -1;
    return open(resolved.get(), flags);
}

// ---- send ----

int __fill_block(i2c_smbus_data* block, const uint8_t* data, uint32_t data_len) {
    block->block[0] = static_cast<uint8_t>(data_len);
    const int ret = memcpy_s(block->block + 1, sizeof(block->block) - 1, data, data_len);
    if (!DM_CHECK_IN("smbus_msg_send", ret == 0, "(ret == 0)"))
        DM_LOG_ERROR_IN(smbus_log, "smbus_msg_send", "memcpy_s error\n");
    return ret;
}

void __count_failure() {
    const uint32_t count = ++g_send_failures;
    if (DM_CHECK_IN("smbus_msg_send", count <= kFailuresUnlogged, "(count <= 600)"))
        return;
    DM_LOG_ERROR_IN(smbus_log, "smbus_msg_send", "__dm_smbus_send: ioctl fail\n");
    g_send_failures = 0;
}

// ---- receive ----

// Reads a block of the length that the device announced, behind its count byte.
void __read_block(int fd, uint8_t (&bytes)[DM_SMBUS_BLOCK_MAX + 1], uint8_t length) {
    i2c_msg msg{static_cast<uint16_t>(kSlaveAddr), I2C_M_RD, static_cast<uint16_t>(length + 1),
                bytes};
    i2c_rdwr_ioctl_data transfer{&msg, 1};
    ioctl(fd, I2C_RDWR, &transfer);
}

} // namespace

int32_t smbus_save_open(void) {
    Device device(__safe_open(kDevice, O_RDWR));
    const int fd = device.get();
    if (!DM_CHECK(fd >= 0, "(fd >= 0)"))
        return -1;
    if (fcntl(fd, F_SETFL, O_NONBLOCK) == -1 || fcntl(fd, F_SETFD, FD_CLOEXEC) == -1)
        return -1;
    return device.release();
}

int32_t smbus_msg_send(int32_t fd, const uint8_t* data, uint32_t data_len) {
    if (!DM_CHECK(data != nullptr, "(data != ((void *)0))") ||
        !DM_CHECK(data_len <= DM_SMBUS_BLOCK_MAX, "(data_len <= 32)"))
        return -EINVAL;
    if (ioctl(fd, I2C_SLAVE_FORCE, kSlaveAddr) < 0) {
        DM_LOG_ERROR(smbus_log, "__dm_smbus_send: ioctl set slave addr fail:%x\n",
                     static_cast<unsigned>(kSlaveAddr));
        return -1;
    }
    i2c_smbus_data block{};
    if (const int ret = __fill_block(&block, data, data_len); ret != 0)
        return ret;
    if (__transfer(fd, I2C_SMBUS_WRITE, kWriteBlock, I2C_SMBUS_BLOCK_DATA, &block) != -1)
        return 0;
    __count_failure();
    return -1;
}

// What the transfers return is not looked at: a device that does not answer has nothing to say.
int32_t smbus_msg_recv(int32_t fd, uint8_t* data_recv, uint32_t* recv_len) {
    if (!DM_CHECK(data_recv != nullptr, "(data_recv != ((void *)0))") ||
        !DM_CHECK(recv_len != nullptr, "(recv_len != ((void *)0))"))
        return -EINVAL;
    i2c_smbus_data req_data;
    const int ret = dm::zero(&req_data);
    if (!DM_CHECK(ret == 0, "(ret == 0)"))
        return -EINVAL;
    __transfer(fd, I2C_SMBUS_READ, kReadLength, I2C_SMBUS_BYTE_DATA, &req_data);
    const uint8_t length = req_data.block[0];
    if (!DM_CHECK(length <= DM_SMBUS_BLOCK_MAX, "(req_data.block[0] <= 32)"))
        return -EINVAL;
    uint8_t bytes[DM_SMBUS_BLOCK_MAX + 1]{};
    __read_block(fd, bytes, length);
    *recv_len = length;
    if (length == 0)
        return 0;
    const int status = memcpy_s(data_recv, DM_SMBUS_BLOCK_MAX, bytes + 1, length);
    if (status != 0)
        DM_LOG_ERROR(smbus_log, "memcpy_s error\n");
    return status;
}
