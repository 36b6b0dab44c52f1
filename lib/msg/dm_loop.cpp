#include "dm_loop.h"

#include "base/descriptor.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/pipe.h"
#include "msg/dm_msg_private.h"
#include "platform_adapter.h"

#include <poll.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <utility>

namespace {

constexpr const char* kDefaultName = "selfloop";
constexpr uint32_t kTimeoutMs = 100;
constexpr uint32_t kHeaderLen = sizeof(SELF_MSG_ST) - DM_MAX_DATA_LEN;
constexpr uint32_t kRecvAddrLen = 6;
constexpr uint8_t kSrcType = 1;
constexpr uint32_t kSrcIndex = 1;

// The writing side of an interface's pipe. A frame above the pipe's atomic size may be taken in
// part: the rest is kept here and goes out ahead of everything else. The lock keeps senders from
// interleaving.
class LoopPipe {
public:
    LoopPipe(const DM_INTF_ST* intf, LoopPipe* next) : intf_(intf), next_(next) {}

    const DM_INTF_ST* intf() const { return intf_; }
    LoopPipe*& next() { return next_; }

    // Writes a frame as mmWriteFile() does, but never a part of it alone.
    int64_t write(const SELF_MSG_ST* frame, uint32_t size) {
        const std::lock_guard lock(lock_);
        __flush_locked();
        if (begin_ != end_)
            return -1;
        const int64_t written = mmWriteFile(intf_->wfd, frame, size);
        if (written >= 0 && written < size)
            __keep(reinterpret_cast<const uint8_t*>(frame), static_cast<uint32_t>(written), size);
        return written;
    }

    // Writes what the pipe takes of the kept rest. True when that was something. Waits for a sender
    // that is just about to keep a rest.
    bool flush() {
        const std::lock_guard lock(lock_);
        return __flush_locked();
    }

private:
    bool __flush_locked() {
        if (begin_ == end_)
            return false;
        errno = EAGAIN; // stands when only a part is taken
        const int64_t written = mmWriteFile(intf_->wfd, rest_ + begin_, end_ - begin_);
        if (written <= 0)
            return false;
        begin_ += static_cast<uint32_t>(written);
        return true;
    }

    void __keep(const uint8_t* frame, uint32_t begin, uint32_t end) {
        std::memcpy(rest_ + begin, frame + begin, end - begin);
        begin_ = begin;
        end_ = end;
    }

    const DM_INTF_ST* intf_;
    LoopPipe* next_;
    std::mutex lock_;
    uint32_t begin_ = 0; // the rest is rest_[begin_, end_)
    uint32_t end_ = 0;
    uint8_t rest_[sizeof(SELF_MSG_ST)];
};

// The pipes of all self-loop interfaces. They are found by their interface's record, which has the
// public fields only.
std::mutex g_loop_pipes_lock;
LoopPipe* g_loop_pipes = nullptr;

LoopPipe* __find_pipe(const DM_INTF_ST* intf) {
    const std::lock_guard lock(g_loop_pipes_lock);
    LoopPipe* pipe = g_loop_pipes;
    while (pipe != nullptr && pipe->intf() != intf)
        pipe = pipe->next();
    return pipe;
}

int __add_pipe(const DM_INTF_ST* intf) {
    auto block = dm::allocate<void>(sizeof(LoopPipe));
    if (!block)
        return ENOMEM;
    if (const int status = memset_s(block.get(), sizeof(LoopPipe), 0, sizeof(LoopPipe));
        status != 0)
        return status;
    const std::lock_guard lock(g_loop_pipes_lock);
    g_loop_pipes = new (block.release()) LoopPipe(intf, g_loop_pipes);
    return 0;
}

void __drop_pipe(const DM_INTF_ST* intf) {
    const std::lock_guard lock(g_loop_pipes_lock);
    LoopPipe** link = &g_loop_pipes;
    while (*link != nullptr && (*link)->intf() != intf)
        link = &(*link)->next();
    if (*link == nullptr)
        return;
    LoopPipe* dropped = std::exchange(*link, (*link)->next());
    dropped->~LoopPipe();
    std::free(dropped);
}

// ---- send ----

int64_t __write_frame(DM_INTF_ST* intf, const SELF_MSG_ST* frame) {
    const uint32_t size = kHeaderLen + frame->data_len;
    // A record that selfloop_init() did not make has a pipe of its own, with nothing kept.
    LoopPipe* pipe = __find_pipe(intf);
    return pipe != nullptr ? pipe->write(frame, size) : mmWriteFile(intf->wfd, frame, size);
}

int __selfloop_send(DM_INTF_ST* intf, uint32_t type, DM_ADDR_ST* addr, uint32_t addr_len,
                    DM_DATA_ST* data, uint64_t req_id) {
    const auto frame = dm::allocate<SELF_MSG_ST>();
    if (!DM_CHECK(frame != nullptr, "(req != ((void *)0))"))
        return -ENOMEM;
    if (dm::zero(frame.get()) != 0) {
        DM_LOG_ERROR("__selfloop_send: memset_s fail.errno=%d\n", errno);
        return -EINVAL;
    }
    frame->addr = *addr;
    frame->addr_len = addr_len;
    frame->req_id = req_id;
    frame->type = type;
    if (data->data_len > DM_MAX_DATA_LEN) {
        DM_LOG_ERROR("__selfloop_send: msg->data_len too long.msg->data_len=%d\n", data->data_len);
        return EINVAL;
    }
    frame->data_len = data->data_len;
    const int status = __dm_copy_payload(memcpy_s, frame->data, data);
    if (status != 0) {
        DM_LOG_ERROR("memcpy_s error\n");
        return status;
    }
    if (__write_frame(intf, frame.get()) != -1)
        return 0;
    const int code = errno;
    DM_LOG_ERROR("__selfloop_send: write fail.errno=%d\n", code);
    return code;
}

// ---- receive ----

// Reads `size` bytes as mmReadFile() does. A frame that lies in the pipe in part comes whole: what
// was kept of it follows as the reading makes room.
int64_t __read_whole(int fd, void* buffer, uint32_t size, LoopPipe* pipe) {
    auto* bytes = static_cast<uint8_t*>(buffer);
    int64_t got = mmReadFile(fd, bytes, size);
    while (got > 0 && got < size && pipe != nullptr && pipe->flush()) {
        const int64_t more = mmReadFile(fd, bytes + got, size - static_cast<uint32_t>(got));
        if (more <= 0)
            break;
        got += more;
    }
    return got;
}

// Reads one frame. Nothing resynchronises the pipe after a malformed one.
int __read_frame(int fd, SELF_MSG_ST* tmp, LoopPipe* pipe) {
    const int64_t ret = __read_whole(fd, tmp, kHeaderLen, pipe);
    if (!DM_CHECK(ret == kHeaderLen, "ret == (sizeof(SELF_MSG_ST) - 4096)")) {
        DM_LOG_ERROR("errno=%d\n", errno);
        return -1;
    }
    if (tmp->data_len == 0 || tmp->data_len > DM_MAX_DATA_LEN) {
        DM_LOG_ERROR("%s%d\r\n", "__selfloop_recv: msg->data_len too long=", tmp->data_len);
        return -1;
    }
    const int64_t data_ret = __read_whole(fd, tmp->data, tmp->data_len, pipe);
    if (!DM_CHECK(tmp->data_len == data_ret, "tmp->data_len == ret")) {
        DM_LOG_ERROR("__selfloop_recv: read fail.errno= %d\n", errno);
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
    DM_LOG_INFO("selfloop data_len %d, 0x%x\n", frame->data_len, frame->data[0]);
    // A payload that does not fit is dropped, the length then says the capacity.
    if (msg->data.data_len < frame->data_len)
        return 0;
    msg->data.data_len = frame->data_len;
    const int status = memcpy_s(msg->data.data, msg->data.data_len, frame->data, frame->data_len);
    if (status != 0)
        DM_LOG_ERROR("memcpy_s error\n");
    return status;
}

int __selfloop_recv(DM_INTF_ST* intf, int32_t fd, int16_t events, DM_MSG_ST* msg) {
    if ((events & POLLIN) == 0)
        return 0;
    const auto tmp = dm::allocate<SELF_MSG_ST>();
    if (!DM_CHECK(tmp != nullptr, "(tmp != ((void *)0))"))
        return -ENOMEM;
    if (dm::zero(tmp.get()) != 0) {
        DM_LOG_ERROR("__selfloop_recv: memset_s fail.errno=%d\n", errno);
        return -EINVAL;
    }
    LoopPipe* pipe = __find_pipe(intf);
    const int ret = __read_frame(fd, tmp.get(), pipe);
    // The room that was made is for the kept rest first; the poller then has something to wake for.
    if (pipe != nullptr)
        pipe->flush();
    return ret == 0 ? __fill_msg(msg, tmp.get()) : ret;
}

// ---- open and close ----

void __close_logged(int fd) {
    const int ret = mmCloseFile(fd);
    DM_ASSERT_CLOSED(ret, "ret == 0");
}

// An interface under another name keeps its pipe open.
int __selfloop_close(DM_INTF_ST* intf) {
    __drop_pipe(intf);
    if (!__dm_has_name(intf, kDefaultName))
        return 0;
    __close_logged(intf->fd);
    __close_logged(intf->wfd);
    return 0;
}

void __close_unused(int fd) {
    const int ret_t = mmCloseFile(fd);
    DM_ASSERT_CLOSED(ret_t, "ret_t == 0");
}

using PipeEnd = dm::Descriptor<__close_unused>;

bool __is_selfloop_addr(const DM_ADDR_ST* addr) {
    return addr->kind == DM_KIND_SELFLOOP && addr->family == DM_FAMILY_SELFLOOP;
}

void __fill_slots(DM_INTF_ST* intf, DM_CB_ST* dm_cb) {
    intf->retry_cnt = 0;
    intf->timeout_ms = kTimeoutMs;
    intf->recv_msg = __selfloop_recv;
    intf->send_msg = __selfloop_send;
    intf->send_msg_ex = __dm_send_msg_ex<__selfloop_send>;
    intf->set_retry = __dm_set_retry;
    intf->get_retry = __dm_get_retry;
    intf->close = __selfloop_close;
    intf->dm_cb = dm_cb;
}

// Makes the record, without its pipe.
int __make_record(dm::Owned<DM_INTF_ST>& intf, DM_CB_ST* dm_cb, const DM_ADDR_ST* addr,
                  const char* name) {
    auto made = dm::allocate<DM_INTF_ST>();
    if (!DM_CHECK(made != nullptr, "intf != ((void *)0)"))
        return ENOMEM;
    const int ret = dm::zero(made.get());
    if (!DM_CHECK(ret == 0, "ret == 0")) {
        DM_LOG_ERROR("memset_s fail:%d\n", ret);
        return ret;
    }
    if (const int status = __dm_copy_intf_name(made->name, name, kDefaultName); status != 0) {
        DM_LOG_ERROR("strncpy_s error\n");
        return status;
    }
    made->addr.kind = DM_KIND_SELFLOOP;
    made->addr.family = DM_FAMILY_SELFLOOP;
    if (addr != nullptr)
        made->addr = *addr;
    __fill_slots(made.get(), dm_cb);
    intf = std::move(made);
    return 0;
}

// Registers the record. When that fails, the record is released and its pipe closed, once.
int __register_selfloop(DM_CB_ST* dm_cb, dm::Owned<DM_INTF_ST> intf, PipeEnd& read_end,
                        PipeEnd& write_end) {
    const bool closes_itself = __dm_has_name(intf.get(), kDefaultName);
    DM_INTF_ST* record = intf.release();
    IntfHolder holder{};
    const int status = __dm_intf_register(dm_cb, record, &holder);
    if (holder == IntfHolder::caller) {
        __drop_pipe(record);
        intf.reset(record);
    }
    // Listed, or closed by its close slot already.
    if (holder == IntfHolder::context || (holder == IntfHolder::nobody && closes_itself)) {
        read_end.release();
        write_end.release();
    }
    return status;
}

} // namespace

int selfloop_init(DM_INTF_ST** intf, DM_CB_ST* dm_cb, DM_ADDR_ST* addr, const char* name,
                  uint32_t /*name_len*/) {
    if (dm_cb == nullptr || (addr != nullptr && !__is_selfloop_addr(addr)))
        return EINVAL;
    char own_name[DM_INTF_NAME_LEN];
    if (const int status = __dm_copy_intf_name(own_name, name, kDefaultName); status != 0) {
        DM_LOG_ERROR("strncpy_s error\n");
        return status;
    }
    if (!DM_CHECK(dm_get_intf(dm_cb, own_name, DM_INTF_NAME_LEN) == nullptr,
                  "intf == ((void *)0)")) {
        DM_LOG_ERROR("duplicate interface [%s]\r\n", own_name);
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
    if (const int status = __add_pipe(made.get()); status != 0)
        return status;
    DM_INTF_ST* record = made.get();
    const int status = __register_selfloop(dm_cb, std::move(made), read_end, write_end);
    if (status == 0 && intf != nullptr)
        *intf = record;
    return status;
}
