#include "msg/frame_pipe.h"

#include "base/cancellation.h"
#include "platform_adapter.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <type_traits>
#include <utility>

namespace dm {

static_assert(std::is_trivially_destructible_v<FramePipe>);

std::optional<int64_t> FramePipe::write(const void* frame, uint32_t size) {
    pthread_testcancel();
    if (size <= PIPE_BUF) {
        const std::shared_lock lock(lock_);
        if (shut_)
            return std::nullopt;
        if (!has_rest_)
            return __write_frame(frame, size);
    }
    return __write_alone(frame, size);
}

std::optional<int64_t> FramePipe::__write_alone(const void* frame, uint32_t size) {
    const std::lock_guard lock(lock_);
    if (shut_)
        return std::nullopt;
    __flush_locked();
    if (begin_ != end_)
        return -1;
    return __write_frame(frame, size);
}

int64_t FramePipe::__write_frame(const void* frame, uint32_t size) {
    const int64_t written = __write(frame, size);
    if (written >= 0 && written < size)
        __keep(frame, static_cast<uint32_t>(written), size);
    return written;
}

int64_t FramePipe::read(int fd, void* buffer, uint32_t size) {
    auto* bytes = static_cast<uint8_t*>(buffer);
    int64_t got = __read(fd, bytes, size);
    while (got < size && __flush_waiting()) {
        got = std::max<int64_t>(got, 0);
        const int64_t more = __read(fd, bytes + got, size - static_cast<uint32_t>(got));
        if (more <= 0)
            break;
        got += more;
    }
    return got;
}

// An empty pipe sets the count right, should a write have told of more than it did.
int64_t FramePipe::__read(int fd, uint8_t* buffer, uint32_t size) {
    const int64_t got = mmReadFile(fd, buffer, size);
    if (got > 0)
        read_ += static_cast<uint32_t>(got);
    else
        read_ = written_;
    return got;
}

void FramePipe::flush() {
    if (has_rest_)
        __flush_waiting();
}

bool FramePipe::shut() {
    const std::lock_guard lock(lock_);
    return !std::exchange(shut_, true);
}

bool FramePipe::is_shut() {
    const std::shared_lock lock(lock_);
    return shut_;
}

// True when some of the rest was written. Waits for a writer that is just about to keep one.
bool FramePipe::__flush_waiting() {
    const std::lock_guard lock(lock_);
    return __flush_locked();
}

bool FramePipe::__flush_locked() {
    if (shut_ || begin_ == end_)
        return false;
    errno = EAGAIN; // stands when only a part is taken
    const int64_t written = __write(rest_ + begin_, end_ - begin_);
    if (written <= 0)
        return false;
    begin_ += static_cast<uint32_t>(written);
    has_rest_ = begin_ != end_;
    return true;
}

// A thread that is cancelled in write(2) does not learn how much of a frame the pipe took, and the
// next frame would land in the middle of it. The pipe does not block, so this holds nobody up.
int64_t FramePipe::__write(const void* bytes, uint32_t size) {
    const CancellationOff whole;
    const int64_t written = mmWriteFile(wfd_, bytes, size);
    if (written > 0)
        written_ += static_cast<uint32_t>(written);
    return written;
}

// Of writers that share the lock none comes here, unless the platform's call breaks its word. Then
// the first one has its rest kept.
void FramePipe::__keep(const void* frame, uint32_t begin, uint32_t end) {
    if (has_rest_.exchange(true))
        return;
    std::memcpy(rest_ + begin, static_cast<const uint8_t*>(frame) + begin, end - begin);
    begin_ = begin;
    end_ = end;
}

void close_pipe(const LogSite& site, int read_end, int write_end) {
    for (const int fd : {read_end, write_end}) {
        if (mmCloseFile(fd) != 0)
            DM_LOG_ASSERT_AT(site, "ret == 0");
    }
}

} // namespace dm
