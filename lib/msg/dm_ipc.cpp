#include "dm_ipc.h"

#include "base/descriptor.h"
#include "base/log.h"
#include "base/memory.h"
#include "msg/dm_intf_init.h"
#include "msg/dm_msg_private.h"
#include "platform_hal.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <utility>

uint8_t dm_ipc_recv_msg[DM_IPC_MAX_LEN];

namespace {

constinit dm::SubjectLog ipc_log;

constexpr uint32_t kTimeoutMs = 10000;
constexpr uint8_t kSrcType = 0;
constexpr uint32_t kSrcIndex = 255;
constexpr int kOptMaxLen = 32;
constexpr int kNameFailed = 5;

static_assert(DM_IPC_MAX_LEN == HAL_DMP_MAX_LEN);

std::atomic<uint64_t> g_recv_count{0}; // numbers the messages of all interfaces

void __close_device(int fd) {
    close(fd);
}

using Device = dm::Descriptor<__close_device>;

bool __is_ipc_addr(const DM_ADDR_ST* addr) {
    return addr->kind == DM_KIND_IPC && addr->family == DM_FAMILY_IPC;
}

int __name_of(const DM_ADDR_ST* addr, char (&name)[DM_INTF_NAME_LEN]) {
    return dm_ipc_get_intf_name(static_cast<int32_t>(addr->peer_id), name, sizeof(name));
}

int __dm_ipc_open(Device& device) {
    device.reset(devdrv_open_device_manager());
    const int fd = device.get();
    if (fd < 0)
        return -1;
    if (fcntl(fd, F_SETFL, O_NONBLOCK) == -1 || fcntl(fd, F_SETFD, FD_CLOEXEC) == -1)
        return -1;
    return 0;
}

int __dm_ipc_recv(DM_INTF_ST* intf, int32_t fd, int16_t events, DM_MSG_ST* msg) {
    if ((events & POLLIN) == 0)
        return 0;
    const uint32_t device_id = intf->addr.peer_id;
    uint8_t length = 0;
    const int ret = devdrv_imu_dmp_msg_recv(fd, device_id, msg->data.data, DM_IPC_MAX_LEN, &length);
    if (ret != 0)
        return ret;
    msg->type = DM_MSG_REQ;
    msg->src_id = device_id;
    msg->src_type = kSrcType;
    msg->src_index = kSrcIndex;
    msg->addr->kind = DM_KIND_IPC;
    msg->addr->family = DM_FAMILY_IPC;
    msg->addr->peer_id = device_id;
    msg->addr_len = DM_IPC_ADDR_LEN;
    msg->req_id = g_recv_count++;
    msg->data.data_len = length;
    return 0;
}

// An interface that no longer has its name keeps its descriptor open.
int __dm_ipc_close(DM_INTF_ST* intf) {
    char name[DM_INTF_NAME_LEN];
    if (__name_of(&intf->addr, name) == 0 && __dm_has_name(intf, name))
        __close_device(intf->fd);
    return 0;
}

} // namespace

int32_t dm_ipc_get_intf_name(int32_t num, char* buf, uint32_t size) {
    const int ret = sprintf_s(buf, size, "dm_ipc%d", num);
    if (ret >= 0)
        return 0;
    DM_LOG_ERROR(ipc_log, "sprintf_s return error: %d.\n", ret);
    return kNameFailed;
}

int32_t __dm_ipc_send(DM_INTF_ST* intf, uint32_t /*type*/, DM_ADDR_ST* addr, uint32_t /*addr_len*/,
                      DM_DATA_ST* data, uint64_t /*req_id*/) {
    return devdrv_imu_dmp_msg_send(intf->wfd, addr->peer_id, data->data,
                                   static_cast<uint8_t>(data->data_len));
}

int32_t __dm_ipc_settime_send(DM_INTF_ST* intf, uint32_t type, DM_ADDR_ST* addr, uint32_t addr_len,
                              DM_DATA_ST* data, uint32_t /*extra1*/, uint32_t /*extra2*/,
                              uint64_t req_id) {
    return __dm_ipc_send(intf, type, addr, addr_len, data, req_id);
}

int32_t dm_ipc_init(DM_INTF_ST** intf, DM_CB_ST* dm_cb, DM_DATA_HANDLER timeout_hndl,
                    DM_ADDR_ST* addr, const void* opt, int32_t opt_len) {
    if (dm_cb == nullptr || addr == nullptr || !__is_ipc_addr(addr) ||
        (opt != nullptr && opt_len >= kOptMaxLen))
        return EINVAL;
    char name[DM_INTF_NAME_LEN];
    if (const int status = __name_of(addr, name); status != 0)
        return status;
    if (__dm_is_duplicate(DM_LOG_SITE(ipc_log), dm_cb, name))
        return EBUSY;
    auto made = dm::allocate<DM_INTF_ST>();
    if (!made)
        return ENOMEM;
    if (const int status = __dm_begin_record(DM_LOG_SITE(ipc_log), made.get(), name, addr);
        status != 0)
        return status;
    Device device;
    if (const int status = __dm_ipc_open(device); status != 0)
        return status;
    made->fd = device.get();
    made->wfd = device.get();
    __dm_fill_slots(made.get(), __dm_ipc_recv, __dm_ipc_send, __dm_ipc_settime_send,
                    __dm_ipc_close);
    made->timeout_ms = kTimeoutMs;
    made->max_data_len = DM_IPC_MAX_LEN;
    made->timeout_hndl = timeout_hndl;
    made->dm_cb = dm_cb;
    const int status = __dm_intf_register(dm_cb, std::move(made), intf);
    if (status == 0)
        device.release(); // the record's
    return status;
}
