#include "dm_udp.h"

#include "base/descriptor.h"
#include "base/log.h"
#include "base/memory.h"
#include "msg/dm_intf_init.h"
#include "msg/dm_msg_private.h"
#include "platform_adapter.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

namespace {

constinit dm::SubjectLog udp_log;

constexpr const char* kDefaultName = "dm_udp";
constexpr int32_t kRetryCount = 2;
constexpr uint32_t kTimeoutMs = 30000;
constexpr uint32_t kAdvertisedDataLen = 512;
constexpr uint16_t kMarker = 1;
constexpr uint8_t kSrcType = 1;
constexpr uint32_t kSrcIndex = 1;

// Whether another datagram waits behind one, only reading tells. So that is tried, and after each
// time in vain half as often. The poll thread's own.
class ReadOn {
public:
    bool is_due() {
        const bool is_trial = left_out_ >= gap_;
        left_out_ = is_trial ? 0 : left_out_ + 1;
        return is_trial;
    }
    void succeeded() { gap_ = 0; }
    void failed() { gap_ = std::min(gap_ * 2 + 1, kWidestGap); }

private:
    static constexpr uint32_t kWidestGap = 63;

    uint32_t gap_ = 0; // receives without a trial between two with one
    uint32_t left_out_ = 0;
};

// An interface with what it needs for reading. The framework releases it with free(3).
struct UdpIntf : DM_INTF_ST {
    ReadOn read_on;
};

ReadOn& __read_on_of(DM_INTF_ST* intf) {
    return static_cast<UdpIntf*>(intf)->read_on;
}

// Set while the next receive of this thread is such a trial. The slot does not look into its record
// for it: others may have put it into records of theirs.
thread_local ReadOn* trial = nullptr;

void __close_socket(int fd) {
    close(fd);
}

using Socket = dm::Descriptor<__close_socket>;

bool __is_udp_addr(const DM_ADDR_ST* addr) {
    return addr->kind == DM_KIND_UDP && addr->family == DM_FAMILY_UDP;
}

sockaddr_in __sockaddr_of(const DM_ADDR_ST* addr) {
    sockaddr_in sa;
    std::memcpy(&sa, addr->sa, sizeof(sa));
    return sa;
}

uint16_t __port_of(const DM_ADDR_ST* addr) {
    return ntohs(__sockaddr_of(addr).sin_port);
}

// Non-blocking and closed in child processes. Status flags are added to, descriptor flags are set
// from scratch.
bool __set_socket_flags(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags != -1 && fcntl(fd, F_SETFD, 0) != -1 &&
           fcntl(fd, F_SETFL, flags | O_NONBLOCK) != -1 && fcntl(fd, F_SETFD, FD_CLOEXEC) != -1;
}

// Opens a socket and binds it to an address, which the host may not have yet.
int __dm_udp_open(Socket& opened, const DM_ADDR_ST* addr) {
    opened.reset(mmSocket(AF_INET, SOCK_DGRAM, 0));
    if (opened.get() < 0 || !__set_socket_flags(opened.get()))
        return errno;
    sockaddr_in own;
    if (const int ret = dm::zero(&own); ret != 0) {
        const int code = dm::errno_or(ret);
        DM_LOG_ERROR(udp_log, "memset err,ret=%d\n", ret);
        return code;
    }
    own = __sockaddr_of(addr);
    const int on = 1;
    if (setsockopt(opened.get(), IPPROTO_IP, IP_FREEBIND, &on, sizeof(on)) != 0)
        return errno;
    if (bind(opened.get(), reinterpret_cast<const sockaddr*>(&own), sizeof(own)) != 0)
        return errno;
    return 0;
}

void __format_udp_msg(DM_UDP_MSG_ST* frame, uint32_t type, const DM_ADDR_ST* dest,
                      const DM_ADDR_ST* own, const DM_DATA_ST* data, uint64_t req_id) {
    if (dm::zero(frame) != 0)
        DM_LOG_ERROR(udp_log, "memset_s error\n");
    frame->src_port = __port_of(own);
    frame->dst_port = __port_of(dest);
    frame->reserved1 = 0;
    frame->marker = kMarker;
    frame->type = type;
    frame->peer_id = dest->peer_id;
    frame->req_id = req_id;
    if (__dm_copy_payload(memmove_s, frame->data, data) != 0) {
        DM_LOG_ERROR(udp_log, "memmove_s error\n");
        return;
    }
    frame->data_len = data->data_len;
}

int __send_datagram(int fd, const DM_UDP_MSG_ST* frame, const DM_ADDR_ST* dest) {
    const sockaddr_in sa = __sockaddr_of(dest);
    ssize_t sent;
    do {
        sent = sendto(fd, frame, sizeof(*frame), 0, reinterpret_cast<const sockaddr*>(&sa),
                      sizeof(sa));
    } while (sent < 0 && errno == EINTR);
    if (sent >= 0)
        return 0;
    const int code = errno;
    DM_LOG_ERROR_IN(udp_log, "__dm_udp_send", "__dm_udp_send: sendto fail.errno=%d\r\n", code);
    return code;
}

int __dm_udp_send(DM_INTF_ST* intf, uint32_t type, DM_ADDR_ST* addr, uint32_t /*addr_len*/,
                  DM_DATA_ST* data, uint64_t req_id) {
    if (data->data_len > DM_MAX_DATA_LEN) {
        DM_LOG_ERROR(udp_log, "__dm_udp_send: msg->data_len(%d) exceed allow size(%d)\n",
                     data->data_len, DM_MAX_DATA_LEN);
        return -EINVAL;
    }
    const auto frame = dm::allocate<DM_UDP_MSG_ST>();
    if (!DM_CHECK(frame != nullptr, "(req != ((void *)0))"))
        return -ENOMEM;
    if (dm::zero(frame.get()) != 0) {
        DM_LOG_ERROR(udp_log, "__dm_udp_send: memset_s fail.errno=%d\n", errno);
        return -EINVAL;
    }
    __format_udp_msg(frame.get(), type, addr, &intf->addr, data, req_id);
    return __send_datagram(intf->wfd, frame.get(), addr);
}

int __dm_udp_recv_set_irecv(const DM_UDP_MSG_ST* frame, DM_MSG_ST* msg, const sockaddr_in* sender) {
    msg->type = frame->type;
    msg->addr->kind = DM_KIND_UDP;
    msg->addr->family = DM_FAMILY_UDP;
    std::memcpy(msg->addr->sa, sender, sizeof(*sender));
    msg->addr_len = DM_UDP_ADDR_LEN;
    msg->src_id = frame->peer_id;
    msg->src_type = kSrcType;
    msg->src_index = kSrcIndex;
    msg->req_id = frame->req_id;
    msg->data.data_len = frame->data_len;
    if (frame->data_len > DM_MAX_DATA_LEN)
        return 0;
    const int status = memcpy_s(msg->data.data, DM_MAX_DATA_LEN, frame->data, frame->data_len);
    if (status == 0)
        return 0;
    const int code = dm::errno_or(status);
    DM_LOG_ERROR(udp_log, "memcpy_s error\n");
    return code;
}

// Gives the datagram's length, or -1 with errno set.
ssize_t __recv_datagram(int fd, DM_UDP_MSG_ST* frame, sockaddr_in* sender) {
    ssize_t received;
    do {
        socklen_t sender_len = sizeof(*sender);
        received = recvfrom(fd, frame, sizeof(*frame), 0, reinterpret_cast<sockaddr*>(sender),
                            &sender_len);
    } while (received < 0 && errno == EINTR);
    return received;
}

int __dm_udp_recv(DM_INTF_ST* /*intf*/, int32_t fd, int16_t events, DM_MSG_ST* msg) {
    ReadOn* const tried = std::exchange(trial, nullptr);
    const auto frame = dm::allocate<DM_UDP_MSG_ST>();
    if (!DM_CHECK(frame != nullptr, "(msg != ((void *)0))"))
        return -ENOMEM;
    if (dm::zero(frame.get()) != 0) {
        DM_LOG_ERROR(udp_log, "__dm_udp_recv: memset_s fail.errno=%d\n", errno);
        return -EINVAL;
    }
    if ((events & POLLIN) == 0)
        return 0;
    sockaddr_in sender{};
    const ssize_t received = __recv_datagram(fd, frame.get(), &sender);
    if (received < 0) {
        const int code = errno;
        if (tried != nullptr && code == EAGAIN) {
            tried->failed();
            return code;
        }
        DM_LOG_ERROR(udp_log, "__dm_udp_recv: recvfrom fail.errno=%d\r\n", code);
        return code;
    }
    if (tried != nullptr)
        tried->succeeded();
    if (received == 0 || frame->marker != kMarker || frame->reserved1 != 0)
        return -1;
    const int ret = __dm_udp_recv_set_irecv(frame.get(), msg, &sender);
    if (ret != 0)
        DM_LOG_ERROR(udp_log, "init irecv fail ret = %d\n", ret);
    return ret;
}

// Who has put a slot of his own in place is called only when there is something to read.
bool __reads_on(DM_INTF_ST* intf) {
    if (intf->recv_msg != __dm_udp_recv || !__read_on_of(intf).is_due())
        return false;
    trial = &__read_on_of(intf);
    return true;
}

int __on_input(int fd, int events, void* user_data, uint32_t /*user_data_len*/) {
    return __dm_recv_all(fd, events, user_data, __reads_on);
}

// An interface under another name keeps its socket open.
int __dm_udp_close(DM_INTF_ST* intf) {
    if (__dm_has_name(intf, kDefaultName))
        __close_socket(intf->fd);
    return 0;
}

// Builds a record, with a socket that stays `opened`'s until the record is registered.
int dm_udp_init_intf(dm::Owned<DM_INTF_ST>& intf, Socket& opened, DM_DATA_HANDLER timeout_hndl,
                     DM_CB_ST* dm_cb, const DM_ADDR_ST* addr, const char* name, uint32_t name_len) {
    if (name_len > DM_INTF_NAME_LEN) {
        DM_LOG_ERROR(udp_log, "name len %d is too large than %d\n", static_cast<int>(name_len),
                     DM_INTF_NAME_LEN);
        return EINVAL;
    }
    auto made = dm::allocate<DM_INTF_ST>(sizeof(UdpIntf));
    if (!made)
        return ENOMEM;
    if (const int status = __dm_begin_record(DM_LOG_SITE(udp_log), made.get(), name, addr);
        status != 0)
        return status;
    if (const int status = __dm_udp_open(opened, addr); status != 0)
        return status;
    new (&__read_on_of(made.get())) ReadOn();
    made->fd = opened.get();
    made->wfd = opened.get();
    __dm_fill_slots(made.get(), __dm_udp_recv, __dm_udp_send, __dm_send_msg_ex<__dm_udp_send>,
                    __dm_udp_close);
    made->retry_cnt = kRetryCount;
    made->timeout_ms = kTimeoutMs;
    made->max_data_len = kAdvertisedDataLen;
    made->timeout_hndl = timeout_hndl;
    made->dm_cb = dm_cb;
    intf = std::move(made);
    return 0;
}

} // namespace

int dm_udp_init(DM_INTF_ST** intf, DM_CB_ST* dm_cb, DM_DATA_HANDLER timeout_hndl, DM_ADDR_ST* addr,
                const char* name, uint32_t name_len) {
    if (dm_cb == nullptr || addr == nullptr || !__is_udp_addr(addr) ||
        (name != nullptr && name_len >= DM_INTF_NAME_LEN)) {
        DM_LOG_ERROR(udp_log, "udp init fail ret = %d\n", EINVAL);
        return EINVAL;
    }
    char own_name[DM_INTF_NAME_LEN];
    if (const int status = __dm_copy_intf_name(DM_LOG_SITE(udp_log), own_name,
                                               name != nullptr ? name : kDefaultName);
        status != 0)
        return status;
    if (__dm_is_duplicate(DM_LOG_SITE(udp_log), dm_cb, own_name))
        return EBUSY;
    dm::Owned<DM_INTF_ST> made;
    Socket opened;
    if (const int status =
            dm_udp_init_intf(made, opened, timeout_hndl, dm_cb, addr, own_name, DM_INTF_NAME_LEN);
        status != 0) {
        DM_LOG_ERROR(udp_log, "init intf fail ret = %d\n", status);
        return status;
    }
    const int status = __dm_intf_register(dm_cb, std::move(made), intf, __on_input);
    if (status == 0)
        opened.release(); // the record's
    return status;
}
