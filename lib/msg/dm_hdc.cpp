#include "dm_hdc.h"

#include "base/atomic_field.h"
#include "base/memory.h"
#include "msg/dm_intf_init.h"
#include "msg/dm_msg_private.h"
#include "msg/hdc_channel.h"
#include "msg/hdc_session.h"
#include "platform_hal.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

constexpr uint32_t kTimeoutMs = 20000;
constexpr int kOptMaxLen = 32;
constexpr int kNameFailed = 5;

constexpr int kConnectRetries = 40;
constexpr unsigned kConnectPauseS = 1;
constexpr uint32_t kSendTimeoutMs = 3000;
constexpr uint32_t kSessionOpen = 1;
constexpr uint32_t kSessionClosed = 0;

// Where the service's own header at the head of the payload has its body's length.
constexpr uint32_t kBodyLenOffset = 8;
constexpr uint32_t kBodyOffset = 12;

void __set_addr(DM_ADDR_ST* addr, const DM_HDC_ADDR_ST& hdc) {
    std::memcpy(addr, &hdc, sizeof(hdc));
}

bool __is_hdc_addr(const DM_ADDR_ST* addr) {
    return addr->kind == DM_KIND_HDC && addr->family == DM_FAMILY_HDC;
}

// ---- send ----

// What cannot be copied goes out as a bare header.
void __format_hdc_msg(HDC_MSG_ST* frame, uint32_t type, const DM_HDC_ADDR_ST& dest,
                      const DM_HDC_ADDR_ST& own, HDC_SESSION session, const DM_DATA_ST* data,
                      uint64_t req_id) {
    if (dm::zero(frame) != 0) {
        DM_LOG_ERROR(hdc_log, "memset_s error\n");
        return;
    }
    frame->session = session;
    frame->dst_dev = dest.dev_id;
    frame->src_dev = own.dev_id;
    frame->req_id = req_id;
    frame->type = type;
    if (__dm_copy_payload(memcpy_s, frame->data, data) != 0) {
        DM_LOG_ERROR(hdc_log, "memcpy_s error\n");
        return;
    }
    frame->data_len = data->data_len;
}

// Makes a HAL message of the frame, which must outlive it. A failure is logged as the caller's.
int __make_hal_msg(HalMsg& msg, HDC_SESSION session, HDC_MSG_ST* frame, const dm::LogSite& site) {
    if (const int ret = __hal_msg_make(msg, session); ret != 0) {
        DM_LOG_ERROR_AT(site, "%s %d alloc msg err, ret %d\n", site.operation, site.line, ret);
        return ret;
    }
    const int ret = drvHdcAddMsgBuffer(msg.get(), reinterpret_cast<char*>(frame),
                                       DM_HDC_HEADER_LEN + frame->data_len);
    if (ret != 0)
        DM_LOG_ERROR_AT(site, "%s %d add msg err, ret %d\n", site.operation, site.line, ret);
    return ret;
}

// Gives the last code of the HAL.
int __connect(uint32_t device_id, HDC_CLIENT client, HDC_SESSION* session, int* retry) {
    for (*retry = 0;; ++*retry) {
        const int ret = drvHdcSessionConnect(0, static_cast<int32_t>(device_id), client, session);
        if (ret != HAL_HDC_NOT_READY || *retry == kConnectRetries)
            return ret;
        sleep(kConnectPauseS);
    }
}

constexpr const char* kClientSend = "__dm_hdc_client_send"; // what the lines of its parts name

int __send_on_session(HDC_SESSION session, uint32_t type, const DM_HDC_ADDR_ST& dest,
                      const DM_HDC_ADDR_ST& own, const DM_DATA_ST* data, uint64_t req_id) {
    const auto frame = dm::allocate<HDC_MSG_ST>();
    if (!DM_CHECK_IN(kClientSend, frame != nullptr, "(hdc_msg != ((void *)0))"))
        return -ENOMEM;
    if (dm::zero(frame.get()) != 0) {
        DM_LOG_ERROR_IN(hdc_log, kClientSend, "__dm_hdc_client_send: memset_s fail.errno=%d\n",
                        errno);
        return -EINVAL;
    }
    __format_hdc_msg(frame.get(), type, dest, own, session, data, req_id);
    HalMsg msg;
    if (const int ret =
            __make_hal_msg(msg, session, frame.get(), DM_LOG_SITE_IN(hdc_log, kClientSend));
        ret != 0)
        return ret;
    const int ret = halHdcSend(session, msg.get(), HAL_HDC_WAIT_TIMEOUT, kSendTimeoutMs);
    if (ret != 0)
        DM_LOG_INFO_IN(kClientSend, "%s %d send err, ret %d\n", kClientSend, __LINE__, ret);
    return ret;
}

// One exchange on a session of its own: what comes back goes through the interface's pipe.
int __dm_hdc_client_send(DM_INTF_ST* intf, uint32_t type, const DM_ADDR_ST* addr,
                         const DM_DATA_ST* data, uint64_t req_id) {
    const DM_HDC_ADDR_ST dest = __hdc_addr_of(addr);
    HdcChannel* channel = __hdc_channel_of(intf);
    HDC_SESSION connected = 0;
    int retry = 0;
    if (const int ret =
            __connect(dest.dev_id, channel != nullptr ? channel->handle : 0, &connected, &retry);
        ret != 0) {
        DM_LOG_ERROR(hdc_log, "%s %d err, ret %d, retry %d\n", __func__, __LINE__, ret, retry);
        return ret;
    }
    const HalSession session(connected);
    drvHdcSetSessionReference(connected);
    const DM_HDC_ADDR_ST own = __hdc_addr_of(&intf->addr);
    if (const int ret = __send_on_session(connected, type, dest, own, data, req_id); ret != 0)
        return ret;
    const int ret = __dm_session_recv_proc(channel, connected);
    if (ret != 0)
        DM_LOG_ERROR(hdc_log, "%s%d\n", "__dm_session_recv_proc error=", ret);
    return ret;
}

// Answers on the session that the address names, and closes it.
int __dm_hdc_server_send(DM_INTF_ST* intf, uint32_t type, DM_ADDR_ST* addr, const DM_DATA_ST* data,
                         uint64_t req_id) {
    DM_HDC_ADDR_ST dest = __hdc_addr_of(addr);
    if (dest.session_state == kSessionClosed) {
        DM_LOG_WARNING("__dm_hdc_server_send: session already close. hdc_status_status = %d\n",
                       dest.session_state);
        return DM_HDC_ERR_CLOSED;
    }
    const HalSession session(dest.session);
    dest.session_state = kSessionClosed;
    __set_addr(addr, dest);
    const auto frame = dm::allocate<HDC_MSG_ST>();
    if (!frame) {
        DM_LOG_ERROR(hdc_log, "__dm_hdc_server_send: malloc fail.errno=%d\n", errno);
        return DM_HDC_ERR_CLOSED;
    }
    if (const int ret = dm::zero(frame.get()); ret != 0) {
        DM_LOG_ERROR(hdc_log, "__dm_hdc_server_send: memset_s fail.errno=%d\n", errno);
        return ret;
    }
    __format_hdc_msg(frame.get(), type, dest, __hdc_addr_of(&intf->addr), dest.session, data,
                     req_id);
    HalMsg msg;
    if (const int ret = __make_hal_msg(msg, dest.session, frame.get(), DM_LOG_SITE(hdc_log));
        ret != 0)
        return ret;
    const int ret = halHdcSend(dest.session, msg.get(), HAL_HDC_WAIT_TIMEOUT, kSendTimeoutMs);
    if (ret != 0)
        DM_LOG_ERROR(hdc_log, "%s %d send err, ret %d\n", __func__, __LINE__, ret);
    return ret;
}

int __dm_hdc_send(DM_INTF_ST* intf, uint32_t type, DM_ADDR_ST* addr, uint32_t /*addr_len*/,
                  DM_DATA_ST* data, uint64_t req_id) {
    if (intf == nullptr) {
        DM_LOG_ASSERT(hdc_log, "intf");
        return -1;
    }
    return __hdc_addr_of(&intf->addr).role == DM_HDC_SERVER
               ? __dm_hdc_server_send(intf, type, addr, data, req_id)
               : __dm_hdc_client_send(intf, type, addr, data, req_id);
}

// ---- receive ----

constexpr const char* kRecv = "__dm_hdc_recv"; // what the lines of its parts name

// Reads one frame. One that announces too much was written as a bare header.
int __read_frame(int fd, HDC_MSG_ST* frame, dm::FramePipe& pipe) {
    if (pipe.read(fd, frame, DM_HDC_HEADER_LEN) != DM_HDC_HEADER_LEN) {
        DM_LOG_ERROR_IN(hdc_log, kRecv, "%s%d\n", "__dm_hdc_recv: read fail.errno=", errno);
        return -1;
    }
    if (frame->data_len > DM_MAX_DATA_LEN) {
        DM_LOG_ERROR_IN(hdc_log, kRecv, "%s%d\n",
                        "__dm_hdc_recv: msg->data_len too long=", frame->data_len);
        return -1;
    }
    if (pipe.read(fd, frame->data, frame->data_len) != frame->data_len) {
        DM_LOG_ERROR_IN(hdc_log, kRecv, "%s%d\n", "__dm_hdc_recv: read fail.errno=", errno);
        return -1;
    }
    return 0;
}

// Tells what kind of place the session's peer runs in.
int __get_src_type(HDC_SESSION session, uint8_t* src_type) {
    int32_t run_env = 0;
    if (const int ret = halHdcGetSessionAttr(session, HAL_HDC_ATTR_RUN_ENV, &run_env); ret != 0) {
        DM_LOG_ERROR_IN(hdc_log, kRecv, "get session run env failed and ret=%d\n", ret);
        return -1;
    }
    switch (run_env) {
    case 1:
        *src_type = 1;
        return 0;
    case 2:
    case 4:
        *src_type = 2;
        return 0;
    case 3:
        *src_type = 0;
        return 0;
    default:
        DM_LOG_ERROR_IN(hdc_log, kRecv, "don't know session property(%d)\n", run_env);
        return -1;
    }
}

int __get_uid(HDC_SESSION session, uint32_t* uid) {
    int32_t value = 0;
    if (const int ret = halHdcGetSessionAttr(session, HAL_HDC_ATTR_UID, &value); ret != 0) {
        DM_LOG_ERROR_IN(hdc_log, kRecv, "get session uid failed and ret=%d\n", ret);
        return -1;
    }
    *uid = static_cast<uint32_t>(value);
    return 0;
}

int __copy_data(DM_DATA_ST* data, const HDC_MSG_ST* frame) {
    const uint16_t capacity = data->data_len;
    data->data_len = std::min(capacity, frame->data_len);
    if (data->data_len > 0) {
        const int status = memcpy_s(data->data, capacity, frame->data, data->data_len);
        if (status != 0) {
            DM_LOG_ERROR_IN(hdc_log, kRecv, "memcpy_s error\n");
            return status;
        }
    }
    // The peer's word on the length of the body does not count, what arrived does.
    const uint32_t body_len = data->data_len > kBodyOffset ? data->data_len - kBodyOffset : 0;
    if (capacity >= kBodyOffset)
        std::memcpy(static_cast<uint8_t*>(data->data) + kBodyLenOffset, &body_len,
                    sizeof(body_len));
    return 0;
}

int __fill_msg(DM_MSG_ST* msg, const HDC_MSG_ST* frame, const DM_HDC_ADDR_ST& own) {
    DM_HDC_ADDR_ST src{};
    src.kind = DM_KIND_HDC;
    src.family = DM_FAMILY_HDC;
    src.role = own.role == DM_HDC_CLIENT ? DM_HDC_SERVER : DM_HDC_CLIENT;
    src.src_dev = frame->src_dev;
    src.dev_id = frame->dst_dev;
    src.session_state = kSessionOpen;
    src.session = frame->session;
    __set_addr(msg->addr, src);
    msg->addr_len = DM_HDC_ADDR_LEN;
    msg->type = frame->type;
    msg->req_id = frame->req_id;
    msg->src_id = own.intf_num;
    if (own.role == DM_HDC_SERVER) {
        if (const int ret = __get_src_type(frame->session, &msg->src_type); ret != 0)
            return ret;
        if (const int ret = __get_uid(frame->session, &msg->src_index); ret != 0)
            return ret;
    }
    return __copy_data(&msg->data, frame);
}

int __dm_hdc_recv(DM_INTF_ST* intf, int32_t fd, int16_t events, DM_MSG_ST* msg) {
    if ((events & POLLIN) == 0)
        return 0;
    const auto frame = dm::allocate<HDC_MSG_ST>();
    if (!DM_CHECK(frame != nullptr, "(msg != ((void *)0))"))
        return -ENOMEM;
    if (dm::zero(frame.get()) != 0) {
        DM_LOG_ERROR(hdc_log, "__dm_hdc_recv: memset_s fail.errno=%d\n", errno);
        return -EINVAL;
    }
    dm::FramePipe& pipe = __hdc_channel_of(intf)->pipe;
    const int ret = __read_frame(fd, frame.get(), pipe);
    pipe.flush();
    return ret == 0 ? __fill_msg(msg, frame.get(), __hdc_addr_of(&intf->addr)) : ret;
}

} // namespace

int32_t dm_hdc_get_intf_name(int32_t num, char* buf, uint32_t size) {
    const int ret = sprintf_s(buf, size, "dm_hdc%d", num);
    if (ret >= 0)
        return 0;
    DM_LOG_ERROR(hdc_log, "sprintf_s return error: %d.\n", ret);
    return kNameFailed;
}

int32_t dm_hdc_init(DM_INTF_ST** intf, DM_CB_ST* dm_cb, DM_DATA_HANDLER timeout_hndl,
                    DM_ADDR_ST* addr, const void* opt, int32_t opt_len) {
    if (dm_cb == nullptr || addr == nullptr || !__is_hdc_addr(addr) ||
        (opt != nullptr && opt_len >= kOptMaxLen))
        return -EINVAL;
    char name[DM_INTF_NAME_LEN];
    const auto number = static_cast<int32_t>(__hdc_addr_of(addr).intf_num);
    if (const int ret = dm_hdc_get_intf_name(number, name, sizeof(name)); ret != 0)
        return ret;
    HDC_CAPACITY_ST capacity{};
    if (const int ret = drvHdcGetCapacity(&capacity); ret != 0) {
        DM_LOG_ERROR(hdc_log, "drvHdcGetCapacity fail: %d\n", ret);
        return ret;
    }
    if (__dm_is_duplicate(DM_LOG_SITE(hdc_log), dm_cb, name))
        return -EBUSY;
    auto made = dm::allocate<DM_INTF_ST>();
    if (!made)
        return -ENOMEM;
    if (const int status = __dm_begin_record(DM_LOG_SITE(hdc_log), made.get(), name, addr);
        status != 0)
        return status;
    HdcOpened opened;
    if (const int ret = __dm_hdc_open(opened, __hdc_addr_of(addr)); ret != 0)
        return ret;
    opened.enter(made.get());
    __dm_fill_slots(made.get(), __dm_hdc_recv, __dm_hdc_send, __dm_send_msg_ex<__dm_hdc_send>,
                    __dm_hdc_close);
    made->timeout_ms = kTimeoutMs;
    made->max_data_len = capacity.max_len;
    made->timeout_hndl = timeout_hndl;
    made->dm_cb = dm_cb;
    const int ret = __dm_intf_register(dm_cb, std::move(made), intf);
    if (ret != 0) {
        DM_LOG_ERROR(hdc_log, "dm_hdc_init->dm_intf_register fail.\n");
        dm::store(g_dm_hdc_run, 0);
        return ret;
    }
    opened.release();
    return 0;
}
