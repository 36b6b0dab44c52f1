#include "dm_loop.h"

#include "base/descriptor.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/pipe.h"
#include "msg/dm_intf_init.h"
#include "msg/dm_msg_private.h"
#include "msg/frame_pipe.h"
#include "platform_adapter.h"

#include <poll.h>

#include <cerrno>
#include <new>
#include <utility>

namespace {

constinit dm::SubjectLog loop_log;

constexpr const char* kDefaultName = "selfloop";
constexpr uint32_t kTimeoutMs = 100;
constexpr uint32_t kHeaderLen = sizeof(SELF_MSG_ST) - DM_MAX_DATA_LEN;
constexpr uint32_t kRecvAddrLen = 6;
constexpr uint8_t kSrcType = 1;
constexpr uint32_t kSrcIndex = 1;

static_assert(kHeaderLen <= dm::FramePipe::kMaxHeaderLen);

// An interface with its pipe. The framework releases it with free(3).
struct LoopIntf : DM_INTF_ST {
    dm::FramePipe pipe;
};

dm::FramePipe& __pipe_of(DM_INTF_ST* intf) {
    return static_cast<LoopIntf*>(intf)->pipe;
}

// ---- send ----

int __selfloop_send(DM_INTF_ST* intf, uint32_t type, DM_ADDR_ST* addr, uint32_t addr_len,
                    DM_DATA_ST* data, uint64_t req_id) {
    const auto frame = dm::allocate<SELF_MSG_ST>();
    if (!DM_CHECK(frame != nullptr, "(req != ((void *)0))"))
        return -ENOMEM;
    if (dm::zero(frame.get()) != 0) {
        DM_LOG_ERROR(loop_log, "__selfloop_send: memset_s fail.errno=%d\n", errno);
        return -EINVAL;
    }
    frame->addr = *addr;
    frame->addr_len = addr_len;
    frame->req_id = req_id;
    frame->type = type;
    if (data->data_len > DM_MAX_DATA_LEN) {
        DM_LOG_ERROR(loop_log, "__selfloop_send: msg->data_len too long.msg->data_len=%d\n",
                     data->data_len);
        return EINVAL;
    }
    frame->data_len = data->data_len;
    const int status = __dm_copy_payload(memcpy_s, frame->data, data);
    if (status != 0) {
        DM_LOG_ERROR(loop_log, "memcpy_s error\n");
        return status;
    }
    if (__pipe_of(intf).write(frame.get(), kHeaderLen + frame->data_len) != -1)
        return 0;
    const int code = errno;
    DM_LOG_ERROR(loop_log, "__selfloop_send: write fail.errno=%d\n", code);
    return code;
}

// ---- receive ----

// Reads one frame. Nothing resynchronises the pipe after a malformed one.
int __read_frame(int fd, SELF_MSG_ST* tmp, dm::FramePipe& pipe) {
    const int64_t ret = pipe.read(fd, tmp, kHeaderLen);
    if (!DM_CHECK_IN("__selfloop_recv", ret == kHeaderLen, "ret == (sizeof(SELF_MSG_ST) - 4096)")) {
        DM_LOG_ERROR_IN(loop_log, "__selfloop_recv", "errno=%d\n", errno);
        return -1;
    }
    if (tmp->data_len == 0 || tmp->data_len > DM_MAX_DATA_LEN) {
        DM_LOG_ERROR_IN(loop_log, "__selfloop_recv", "%s%d\r\n",
                        "__selfloop_recv: msg->data_len too long=", tmp->data_len);
        return -1;
    }
    const int64_t data_ret = pipe.read(fd, tmp->data, tmp->data_len);
    if (!DM_CHECK_IN("__selfloop_recv", tmp->data_len == data_ret, "tmp->data_len == ret")) {
        DM_LOG_ERROR_IN(loop_log, "__selfloop_recv", "__selfloop_recv: read fail.errno= %d\n",
                        errno);
        return -1;
    }
    return 0;
}

int __fill_msg(DM_MSG_ST* msg, const SELF_MSG_ST* frame) {
    msg->type = frame->type;
    *msg->addr = frame->addr;
    msg->addr_len = kRecvAddrLen;
    msg->req_id = frame->req_id;
    msg->src_id = 0;
    msg->src_type = kSrcType;
    msg->src_index = kSrcIndex;
    DM_LOG_INFO_IN("__selfloop_recv", "selfloop data_len %d, 0x%x\n", frame->data_len,
                   frame->data[0]);
    // A payload that does not fit is dropped, the length then says the capacity.
    if (msg->data.data_len < frame->data_len)
        return 0;
    msg->data.data_len = frame->data_len;
    const int status = memcpy_s(msg->data.data, msg->data.data_len, frame->data, frame->data_len);
    if (status != 0)
        DM_LOG_ERROR_IN(loop_log, "__selfloop_recv", "memcpy_s error\n");
    return status;
}

int __selfloop_recv(DM_INTF_ST* intf, int32_t fd, int16_t events, DM_MSG_ST* msg) {
    if ((events & POLLIN) == 0)
        return 0;
    const auto tmp = dm::allocate<SELF_MSG_ST>();
    if (!DM_CHECK(tmp != nullptr, "(tmp != ((void *)0))"))
        return -ENOMEM;
    if (dm::zero(tmp.get()) != 0) {
        DM_LOG_ERROR(loop_log, "__selfloop_recv: memset_s fail.errno=%d\n", errno);
        return -EINVAL;
    }
    dm::FramePipe& pipe = __pipe_of(intf);
    const int ret = __read_frame(fd, tmp.get(), pipe);
    pipe.flush();
    return ret == 0 ? __fill_msg(msg, tmp.get()) : ret;
}

// Who has put a slot of his own in place is called only when there is something to read.
int __on_input(int fd, int events, void* user_data, uint32_t /*user_data_len*/) {
    return __dm_recv_all(fd, events, user_data, [](DM_INTF_ST* intf) {
        return intf->recv_msg == __selfloop_recv && __pipe_of(intf).has_next();
    });
}

// ---- open and close ----

// An interface under another name keeps its pipe open.
int __selfloop_close(DM_INTF_ST* intf) {
    if (__dm_has_name(intf, kDefaultName))
        dm::close_pipe(DM_LOG_SITE(loop_log), intf->fd, intf->wfd);
    return 0;
}

void __close_unused(int fd) {
    const int ret_t = mmCloseFile(fd);
    DM_ASSERT_CLOSED_IN(loop_log, "selfloop_init", ret_t, "ret_t == 0");
}

using PipeEnd = dm::Descriptor<__close_unused>;

bool __is_selfloop_addr(const DM_ADDR_ST* addr) {
    return addr->kind == DM_KIND_SELFLOOP && addr->family == DM_FAMILY_SELFLOOP;
}

// Makes the record, without its pipe.
int __make_record(dm::Owned<DM_INTF_ST>& intf, DM_CB_ST* dm_cb, const DM_ADDR_ST* addr,
                  const char* name) {
    auto made = dm::allocate<DM_INTF_ST>(sizeof(LoopIntf));
    if (!DM_CHECK_IN("selfloop_init", made != nullptr, "intf != ((void *)0)"))
        return ENOMEM;
    const int ret = dm::zero(made.get(), sizeof(LoopIntf));
    if (!DM_CHECK_IN("selfloop_init", ret == 0, "ret == 0")) {
        DM_LOG_ERROR_IN(loop_log, "selfloop_init", "memset_s fail:%d\n", ret);
        return ret;
    }
    if (const int status =
            __dm_copy_intf_name(DM_LOG_SITE_IN(loop_log, "selfloop_init"), made->name, name);
        status != 0)
        return status;
    made->addr.kind = DM_KIND_SELFLOOP;
    made->addr.family = DM_FAMILY_SELFLOOP;
    if (addr != nullptr)
        made->addr = *addr;
    __dm_fill_slots(made.get(), __selfloop_recv, __selfloop_send, __dm_send_msg_ex<__selfloop_send>,
                    __selfloop_close);
    made->timeout_ms = kTimeoutMs;
    made->dm_cb = dm_cb;
    intf = std::move(made);
    return 0;
}

} // namespace

int selfloop_init(DM_INTF_ST** intf, DM_CB_ST* dm_cb, DM_ADDR_ST* addr, const char* name,
                  uint32_t /*name_len*/) {
    if (dm_cb == nullptr || (addr != nullptr && !__is_selfloop_addr(addr)))
        return EINVAL;
    char own_name[DM_INTF_NAME_LEN];
    if (const int status = __dm_copy_intf_name(DM_LOG_SITE(loop_log), own_name,
                                               name != nullptr ? name : kDefaultName);
        status != 0)
        return status;
    if (!DM_CHECK(dm_get_intf(dm_cb, own_name, DM_INTF_NAME_LEN) == nullptr,
                  "intf == ((void *)0)")) {
        DM_LOG_ERROR(loop_log, "duplicate interface [%s]\r\n", own_name);
        return EBUSY;
    }
    dm::Owned<DM_INTF_ST> made;
    if (const int status = __make_record(made, dm_cb, addr, own_name); status != 0)
        return status;
    PipeEnd read_end;
    PipeEnd write_end;
    const int ret = dm::open_pipe(read_end, write_end);
    if (!DM_CHECK(ret == 0, "ret == 0"))
        return ret;
    made->fd = read_end.get();
    made->wfd = write_end.get();
    new (&__pipe_of(made.get())) dm::FramePipe(made->wfd);
    const int status = __dm_intf_register(dm_cb, std::move(made), intf, __on_input);
    if (status == 0) { // they are the record's
        read_end.release();
        write_end.release();
    }
    return status;
}
