// The sessions of an HDC channel: accepting them, and receiving one message on each.
#ifndef DM_HDC_SESSION_H
#define DM_HDC_SESSION_H

#include "msg/hdc_channel.h"
#include "platform_hal.h"

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

// Receives one message on a session and hands it over to the channel's pipe. Gives 0, the HAL's
// code, the errno of the pipe, or -1.
int __dm_session_recv_proc(HdcChannel* channel, HDC_SESSION session);

// Accepts sessions. Runs on a thread of its own; the argument is a share of the channel.
void* __dm_server_accept_proc(void* arg);

#endif
