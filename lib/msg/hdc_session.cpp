#include "msg/hdc_session.h"

#include "base/atomic_field.h"
#include "base/log.h"
#include "base/memory.h"
#include "platform_adapter.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

int32_t g_dm_hdc_run = 1;

namespace {

constexpr size_t kStackSize = 131072;
constexpr useconds_t kPauseUs = 1000;
constexpr int kRecvAttempts = 5;
constexpr uint32_t kRecvTimeoutMs = 3000;

// ---- one message of a session ----

int __recv_in_time(HDC_SESSION session, HAL_HDC_MSG* msg) {
    for (int recv_cnt = 0; recv_cnt < kRecvAttempts; ++recv_cnt) {
        int32_t count = 0;
        const int ret =
            halHdcRecv(session, msg, DM_MAX_DATA_LEN, HAL_HDC_WAIT_TIMEOUT, &count, kRecvTimeoutMs);
        if (ret != HAL_HDC_TIMEOUT)
            return ret;
        DM_LOG_INFO_IN("__dm_session_hdc_recv_proc", "halHdcRecv timeout recv_cnt:%d\n", recv_cnt);
    }
    DM_LOG_ERROR_IN(hdc_log, "__dm_session_hdc_recv_proc", "halHdcRecv timeout.\n");
    return HAL_HDC_TIMEOUT;
}

// Receives a message, which then owns the bytes in `buf`.
int __dm_session_hdc_recv_proc(HDC_SESSION session, HalMsg& msg, char** buf, int32_t* len) {
    if (const int ret = __hal_msg_make(msg, session); ret != 0)
        return ret;
    if (const int ret = __recv_in_time(session, msg.get()); ret != 0)
        return ret;
    return drvHdcGetMsgBuffer(msg.get(), 0, buf, len);
}

// Gives 0, errno, or -1 when the interface is gone.
int __hdc_write_to_pipe(HdcChannel* channel, const HDC_MSG_ST* frame, uint32_t size) {
    const std::optional<int64_t> written = channel->pipe.write(frame, size);
    if (!written.has_value()) {
        DM_LOG_ASSERT_IN(hdc_log, "__dm_session_recv_proc", "intf");
        return -1;
    }
    if (*written >= 0)
        return 0;
    const int code = errno;
    DM_LOG_ERROR(hdc_log, "__hdc_write_to_pipe: write fail.errno=%d\r\n", code);
    return code;
}

// How many bytes of a peer's message go into the pipe, so that the reader finds there what the
// header announces and the next frame behind it; 0 when the message is too short for that.
uint32_t __frame_len(const HDC_MSG_ST* frame, uint32_t received) {
    if (received < DM_HDC_HEADER_LEN)
        return 0;
    if (frame->data_len > DM_MAX_DATA_LEN)
        return DM_HDC_HEADER_LEN; // the reader refuses it
    const uint32_t announced = DM_HDC_HEADER_LEN + frame->data_len;
    return received >= announced ? announced : 0;
}

// The session field becomes the local handle, which tells the reader where the message came from.
int __hand_over(HdcChannel* channel, HDC_SESSION session, char* buf, int32_t len) {
    auto* frame = reinterpret_cast<HDC_MSG_ST*>(buf);
    const uint32_t size = __frame_len(frame, len > 0 ? static_cast<uint32_t>(len) : 0);
    if (size == 0) {
        DM_LOG_ERROR_IN(hdc_log, "__dm_session_recv_proc", "hdc message of %d bytes is too short\n",
                        len);
        return -1;
    }
    frame->session = session;
    return __hdc_write_to_pipe(channel, frame, size);
}

// ---- the thread of a session ----

// What the accept thread hands over to it.
struct ACCEPTED_ST {
    HDC_SESSION session;
    HdcChannel* channel; // a share
};

void* __dm_server_recv_msg_proc(void* arg) {
    prctl(PR_SET_NAME, "server_recv_msg_proc");
    if (arg == nullptr) {
        DM_LOG_ERROR(hdc_log, "input arg is NULL\n");
        return nullptr;
    }
    const dm::Owned<ACCEPTED_ST> accepted(static_cast<ACCEPTED_ST*>(arg));
    const HdcChannelRef channel(accepted->channel);
    HalSession session(accepted->session);
    drvHdcSetSessionReference(session.get());
    const int ret = __dm_session_recv_proc(channel.get(), session.get());
    if (ret != 0)
        DM_LOG_ERROR(hdc_log, "__dm_session_recv_proc error: %d.\n", ret);
    else
        session.release(); // open until the answer is sent
    return nullptr;
}

bool __create_session_thread(ACCEPTED_ST* accepted) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, kStackSize);
    pthread_t thread;
    const bool created = pthread_create(&thread, &attr, __dm_server_recv_msg_proc, accepted) == 0;
    if (!created)
        DM_LOG_ERROR_IN(hdc_log, "__dm_server_accept_proc", "pthread_create fail errno=%d:%s\n",
                        errno, strerror(errno));
    pthread_attr_destroy(&attr);
    return created;
}

void __start_session(HdcChannel* channel, HDC_SESSION accepted_session) {
    HalSession session(accepted_session);
    auto accepted = dm::allocate<ACCEPTED_ST>();
    if (!accepted)
        return;
    HdcChannelRef share = __hdc_channel_share(channel);
    *accepted = {session.get(), share.get()};
    if (!__create_session_thread(accepted.get())) {
        drvHdcSessionClose(session.release());
        usleep(kPauseUs);
        return;
    }
    // All three are the thread's.
    session.release();
    static_cast<void>(share.release());
    static_cast<void>(accepted.release());
}

} // namespace

int __dm_session_recv_proc(HdcChannel* channel, HDC_SESSION session) {
    if (channel != nullptr && channel->pipe.is_shut()) {
        DM_LOG_ASSERT(hdc_log, "intf");
        return -1;
    }
    if (session == 0) {
        DM_LOG_ASSERT(hdc_log, "session");
        return -1;
    }
    if (channel == nullptr) {
        DM_LOG_ASSERT(hdc_log, "chan_cb");
        return -1;
    }
    HalMsg msg;
    char* buf = nullptr;
    int32_t len = 0;
    if (const int ret = __dm_session_hdc_recv_proc(session, msg, &buf, &len); ret != 0) {
        DM_LOG_ERROR(hdc_log, "hdc recv error %d \n", ret);
        return ret;
    }
    if (buf == nullptr) {
        DM_LOG_ASSERT(hdc_log, "(hdc_msg != ((void *)0))");
        msg.release(); // a message in this state is not given back to the HAL
        return -1;
    }
    return __hand_over(channel, session, buf, len);
}

void* __dm_server_accept_proc(void* arg) {
    mmSetCurrentThreadName("server_accept");
    const HdcChannelRef channel(static_cast<HdcChannel*>(arg));
    while (dm::load(g_dm_hdc_run) != 0) {
        HDC_SESSION session = 0;
        if (const int ret = drvHdcSessionAccept(channel->handle, &session); ret != 0) {
            DM_LOG_ERROR(hdc_log, "drvHdcSessionAccept error, hdc errno: %d.\n", ret);
            usleep(kPauseUs);
            continue;
        }
        __start_session(channel.get(), session);
    }
    return nullptr;
}
