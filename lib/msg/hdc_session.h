// An HDC interface's channel and the sessions on it: all that outlives the interface.
#ifndef DM_HDC_SESSION_H
#define DM_HDC_SESSION_H

#include "dm_hdc.h"
#include "msg/frame_pipe.h"
#include "platform_hal.h"

#include <atomic>
#include <memory>
#include <mutex>

// Owner of a handle of the HAL's.
//
// The HAL's calls may be cancellation points: the destructor lets a cancelled thread unwind.
template<class Handle, auto Release>
class HalOwner {
public:
    HalOwner() = default;
    explicit HalOwner(Handle handle) : handle_(handle), owned_(true) {}
    HalOwner(const HalOwner&) = delete;
    HalOwner& operator=(const HalOwner&) = delete;
    ~HalOwner() noexcept(false) {
        if (owned_)
            Release(handle_);
    }

    Handle get() const { return handle_; }
    void own(Handle handle) {
        handle_ = handle;
        owned_ = true;
    }
    Handle release() {
        owned_ = false;
        return handle_;
    }

private:
    Handle handle_{};
    bool owned_ = false;
};

using HalMsg = HalOwner<HAL_HDC_MSG*, drvHdcFreeMsg>;
using HalSession = HalOwner<HDC_SESSION, drvHdcSessionClose>;

// Makes a message with one buffer. Gives the HAL's code.
inline int __hal_msg_make(HalMsg& msg, HDC_SESSION session) {
    HAL_HDC_MSG* made = nullptr;
    const int ret = drvHdcAllocMsg(session, &made, 1);
    if (ret == 0)
        msg.own(made);
    return ret;
}

// What an interface shares with its threads: the accept thread, and one for each session until that
// has its message. They go on when the interface is gone, and the last holder releases the record.
struct HdcChannel {
    explicit HdcChannel(int wfd) : pipe(wfd) {}

    uint64_t handle = 0; // the server or the client
    std::atomic<uint32_t> holders{1};
    dm::FramePipe pipe;

    std::mutex lock;
    bool has_intf = true; // guarded by the lock; the pipe is written only while it holds

    HdcChannel* next = nullptr; // of the channels that stay open for good
};

void __hdc_channel_unref(HdcChannel* channel);

struct HdcChannelUnref {
    void operator()(HdcChannel* channel) const {
        __hdc_channel_unref(channel); // NOLINT(clang-analyzer-unix.Malloc): it does not follow it
    }
};

using HdcChannelRef = std::unique_ptr<HdcChannel, HdcChannelUnref>;

// Makes a channel that writes to the given end of a pipe. Gives a status; a failure is logged.
int __hdc_channel_make(HdcChannelRef& channel, int wfd);

// Another share of the channel.
HdcChannelRef __hdc_channel_share(HdcChannel* channel);

// The interface goes: no message is handed over any more. False when it has gone before.
bool __hdc_channel_detach(HdcChannel* channel);

// Takes over the share of an interface that is gone and whose channel stays open.
void __hdc_channel_keep(HdcChannelRef channel);

// Receives one message on a session and hands it over to the channel's pipe. Gives 0, the HAL's
// code, the errno of the pipe, or -1.
int __dm_session_recv_proc(HdcChannel* channel, HDC_SESSION session);

// Accepts sessions. Runs on a thread of its own; the argument is a share of the channel.
void* __dm_server_accept_proc(void* arg);

#endif
