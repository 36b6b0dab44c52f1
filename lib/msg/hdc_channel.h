// An HDC interface's channel: its pipe, its handle of the HAL's, and how long they live.
#ifndef DM_HDC_CHANNEL_H
#define DM_HDC_CHANNEL_H

#include "base/descriptor.h"
#include "base/log.h"
#include "dm_hdc.h"
#include "msg/frame_pipe.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>

// HDC's limiter, which its files share.
extern constinit dm::SubjectLog hdc_log;

inline DM_HDC_ADDR_ST __hdc_addr_of(const DM_ADDR_ST* addr) {
    DM_HDC_ADDR_ST hdc;
    std::memcpy(&hdc, addr, sizeof(hdc));
    return hdc;
}

// What an interface shares with its threads: the accept thread, and one for each session until that
// has its message. They go on when the interface is gone, and the last holder releases the record.
struct HdcChannel {
    explicit HdcChannel(int32_t pipe_wfd) : wfd(pipe_wfd) {}

    uint64_t handle = 0; // the server or the client
    std::atomic<uint32_t> holders{1};
    const int32_t wfd;          // the interface's, whose record the threads outlive
    dm::FramePipe pipe{wfd};    // shut once the interface is gone
    HdcChannel* next = nullptr; // of the channels that stay open for good
};

void __hdc_channel_unref(HdcChannel* channel);

struct HdcChannelUnref {
    void operator()(HdcChannel* channel) const {
        __hdc_channel_unref(channel); // NOLINT(clang-analyzer-unix.Malloc): it does not follow it
    }
};

using HdcChannelRef = std::unique_ptr<HdcChannel, HdcChannelUnref>;

// Another share of the channel.
HdcChannelRef __hdc_channel_share(HdcChannel* channel);

inline HdcChannel* __hdc_channel_of(const DM_INTF_ST* intf) {
    return reinterpret_cast<HdcChannel*>(intf->reserved); // NOLINT(performance-no-int-to-ptr)
}

void __hdc_close_unused(int fd);

using HdcPipeEnd = dm::Descriptor<__hdc_close_unused>;

// What a new interface has open, until it is registered and its record has all this. Else the
// channel is left to the threads that have it by then, and the pipe is closed.
struct HdcOpened {
    HdcOpened() = default;
    HdcOpened(const HdcOpened&) = delete;
    HdcOpened& operator=(const HdcOpened&) = delete;
    ~HdcOpened() noexcept(false);

    // Enters it all into the record, which has it once it is registered.
    void enter(DM_INTF_ST* intf) const;
    void release();

    HdcPipeEnd write_end;
    HdcPipeEnd read_end;
    HdcChannelRef channel;
};

// Opens a pipe and a channel for an interface with that address. Gives a status; a failure of the
// channel is logged.
int __dm_hdc_open(HdcOpened& opened, const DM_HDC_ADDR_ST& own);

// The close slot. Under the name that an interface gets, its channel and its pipe stay open:
// sessions may still refer to them.
int __dm_hdc_close(DM_INTF_ST* intf);

#endif
