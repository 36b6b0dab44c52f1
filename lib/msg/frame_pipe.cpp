#include "msg/frame_pipe.h"

#include "platform_adapter.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <type_traits>

namespace dm {

static_assert(std::is_trivially_destructible_v<FramePipe>);

int64_t FramePipe::write(const void* frame, uint32_t size) {
    const std::lock_guard lock(lock_);
    __flush_locked();
    if (begin_ != end_)
        return -1;
    const int64_t written = mmWriteFile(wfd_, frame, size);
    if (written >= 0 && written < size)
        __keep(static_cast<const uint8_t*>(frame), static_cast<uint32_t>(written), size);
    return written;
}

int64_t FramePipe::read(int fd, void* buffer, uint32_t size) {
    auto* bytes = static_cast<uint8_t*>(buffer);
    int64_t got = mmReadFile(fd, bytes, size);
    while (got < size && __flush_waiting()) {
        got = std::max<int64_t>(got, 0);
        const int64_t more = mmReadFile(fd, bytes + got, size - static_cast<uint32_t>(got));
        if (more <= 0)
            break;
        got += more;
    }
    return got;
}

void FramePipe::flush() {
    if (has_rest_)
        __flush_waiting();
}

// True when some of the rest was written. Waits for a writer that is just about to keep one.
bool FramePipe::__flush_waiting() {
    const std::lock_guard lock(lock_);
    return __flush_locked();
}

bool FramePipe::__flush_locked() {
    if (begin_ == end_)
        return false;
    errno = EAGAIN; // stands when only a part is taken
    const int64_t written = mmWriteFile(wfd_, rest_ + begin_, end_ - begin_);
    if (written <= 0)
        return false;
    begin_ += static_cast<uint32_t>(written);
    has_rest_ = begin_ != end_;
    return true;
}

void FramePipe::__keep(const uint8_t* frame, uint32_t begin, uint32_t end) {
    std::memcpy(rest_ + begin, frame + begin, end - begin);
    begin_ = begin;
    end_ = end;
    has_rest_ = true;
}

void close_pipe(const LogSite& site, int read_end, int write_end) {
    for (const int fd : {read_end, write_end}) {
        if (mmCloseFile(fd) != 0)
            DM_LOG_ASSERT_AT(site, "ret == 0");
    }
}

} // namespace dm
