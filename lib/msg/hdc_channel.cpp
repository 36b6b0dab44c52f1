#include "msg/hdc_channel.h"

#include "base/atomic_field.h"
#include "base/memory.h"
#include "base/pipe.h"
#include "ipmi_v_task.h"
#include "msg/dm_msg_private.h"
#include "msg/hdc_session.h"
#include "platform_adapter.h"
#include "platform_hal.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

constinit dm::SubjectLog hdc_log;

namespace {

constexpr const char* kReleasedName = "dm_hdc";

constexpr int kCreateRetries = 41;
constexpr uint64_t kCreatePauseMs = 3000;
constexpr uint32_t kStackSize = 131072;
constexpr int kMaxSessions = 64;

static_assert(DM_HDC_HEADER_LEN <= dm::FramePipe::kMaxHeaderLen);

// ---- life ----

// Channels that stay open although their interface is gone: the HAL may still refer to them.
std::mutex g_kept_lock;
HdcChannel* g_kept = nullptr;

// Takes over the share of an interface that is gone.
void __keep(HdcChannelRef channel) {
    const std::lock_guard lock(g_kept_lock);
    channel->next = g_kept;
    g_kept = channel.release();
}

int __make(HdcChannelRef& channel, int32_t wfd) {
    auto block = dm::allocate<void>(sizeof(HdcChannel));
    if (!DM_CHECK_IN("__dm_hdc_open", block != nullptr, "(intf->channel_cb != ((void *)0))"))
        return -ENOMEM;
    if (const int status = memset_s(block.get(), sizeof(HdcChannel), 0, sizeof(HdcChannel));
        status != 0) {
        DM_LOG_ERROR_IN(hdc_log, "__dm_hdc_open", "memset_s fail: %d\n", status);
        return status;
    }
    channel.reset(new (block.release()) HdcChannel(wfd));
    return 0;
}

// ---- the HAL's handle ----

int __create_server(uint32_t device_id, HDC_SERVER* server) {
    for (int failures = 0;; ++failures) {
        const int ret = drvHdcServerCreate(static_cast<int32_t>(device_id), 0, server);
        if (ret == 0 || failures == kCreateRetries)
            return ret;
        vos_task_delay(kCreatePauseMs);
    }
}

int __start_accepting(HdcChannel* channel) {
    HdcChannelRef share = __hdc_channel_share(channel);
    const MM_USER_BLOCK_ST block{__dm_server_accept_proc, share.get()};
    MM_THREAD_ATTR_ST attr{};
    attr.detach_flag = 1;
    attr.stack_flag = 1;
    attr.stack_size = kStackSize;
    MM_THREAD thread;
    const int ret = mmCreateTaskWithThreadAttr(&thread, &block, &attr);
    if (ret == 0) {
        static_cast<void>(share.release()); // the thread's
        return 0;
    }
    const int code = errno;
    DM_LOG_ERROR_IN(hdc_log, "__dm_hdc_open", "pthread_create error,ret = %d,errno=%d:%s\n", ret,
                    code, strerror(code));
    drvHdcServerDestroy(channel->handle);
    mmSleep(1);
    DM_CHECK_IN("__dm_hdc_open", ret == 0, "ret == 0");
    return -1;
}

int __open_server(HdcChannel* channel, uint32_t device_id) {
    HDC_SERVER server = 0;
    if (const int ret = __create_server(device_id, &server); ret != 0) {
        DM_LOG_ERROR_IN(hdc_log, "__dm_hdc_open", "drvHdcServerCreate failed,%s%d%s%d\n",
                        "__dm_hdc_open", __LINE__, "error=", ret);
        return ret;
    }
    channel->handle = server;
    return __start_accepting(channel);
}

int __open_client(HdcChannel* channel) {
    HDC_CLIENT client = 0;
    if (const int ret = drvHdcClientCreate(&client, kMaxSessions, 0, 0); ret != 0) {
        DM_LOG_ERROR_IN(hdc_log, "__dm_hdc_open", "%s%d%s%d\n", "__dm_hdc_open", __LINE__,
                        "error=", ret);
        return ret;
    }
    channel->handle = client;
    return 0;
}

} // namespace

void __hdc_channel_unref(HdcChannel* channel) {
    if (channel->holders.fetch_sub(1) != 1)
        return;
    channel->~HdcChannel();
    std::free(channel);
}

HdcChannelRef __hdc_channel_share(HdcChannel* channel) {
    channel->holders.fetch_add(1);
    return HdcChannelRef(channel);
}

void __hdc_close_unused(int fd) {
    const int ret = mmCloseFile(fd);
    DM_ASSERT_CLOSED_IN(hdc_log, "dm_hdc_init", ret, "ret == 0");
}

HdcOpened::~HdcOpened() noexcept(false) {
    if (channel == nullptr)
        return;
    channel->pipe.shut();
    __keep(std::move(channel));
}

void HdcOpened::enter(DM_INTF_ST* intf) const {
    intf->fd = read_end.get();
    intf->wfd = write_end.get();
    intf->reserved = reinterpret_cast<uintptr_t>(channel.get());
}

void HdcOpened::release() {
    read_end.release();
    write_end.release();
    static_cast<void>(channel.release());
}

int __dm_hdc_open(HdcOpened& opened, const DM_HDC_ADDR_ST& own) {
    int fds[2];
    if (const int ret = dm::make_pipe(fds[0], fds[1]); ret != 0)
        return ret; // a pipe whose flags cannot be set stays open
    opened.read_end.reset(fds[0]);
    opened.write_end.reset(fds[1]);
    HdcChannelRef channel;
    if (const int ret = __make(channel, fds[1]); ret != 0)
        return ret;
    const int ret = own.role == DM_HDC_SERVER ? __open_server(channel.get(), own.intf_num)
                                              : __open_client(channel.get());
    if (ret == 0)
        opened.channel = std::move(channel);
    return ret;
}

int __dm_hdc_close(DM_INTF_ST* intf) {
    dm::store(g_dm_hdc_run, 0);
    HdcChannel* channel = __hdc_channel_of(intf);
    if (channel == nullptr || !channel->pipe.shut())
        return 0;
    HdcChannelRef share(channel);
    if (!__dm_has_name(intf, kReleasedName)) {
        __keep(std::move(share));
        return 0;
    }
    if (__hdc_addr_of(&intf->addr).role != DM_HDC_CLIENT)
        drvHdcServerDestroy(channel->handle);
    else
        drvHdcClientDestroy(channel->handle);
    intf->reserved = 0;
    dm::close_pipe(DM_LOG_SITE(hdc_log), intf->fd, intf->wfd);
    return 0;
}
