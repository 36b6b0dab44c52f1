// A pipe that carries whole frames: what the self-loop and HDC share.
#ifndef DM_FRAME_PIPE_H
#define DM_FRAME_PIPE_H

#include "base/log.h"
#include "dm_msg_intf.h"

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <optional>

namespace dm {

// A std::shared_mutex that lets who wants it alone have his turn: those that share it come after
// him.
class FairSharedMutex {
public:
    void lock() { pthread_rwlock_wrlock(&lock_); }
    void unlock() { pthread_rwlock_unlock(&lock_); }
    void lock_shared() { pthread_rwlock_rdlock(&lock_); }
    void unlock_shared() { pthread_rwlock_unlock(&lock_); }

private:
    pthread_rwlock_t lock_ = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
};

// The writing side. A frame above the pipe's atomic size may be taken in part: the rest is kept
// here and goes out ahead of everything else. The lock keeps writers from interleaving; those of
// frames that the pipe takes whole (pipe(7): up to PIPE_BUF bytes) share it. For the thread that
// reads has the priority of a real-time thread: the write wakes it, and it would wait for the
// writer that it has just preempted as soon as it answers.
//
// Lives in records that are released with free(3): there is nothing to destroy.
class FramePipe {
public:
    static constexpr uint32_t kMaxHeaderLen = 64;

    // The writing end is read from its owner's field with every call.
    explicit FramePipe(const int32_t& wfd) : wfd_(wfd) {}

    // Writes a frame as mmWriteFile() does, but never a part of it alone. Gives nothing, and writes
    // nothing, once the pipe is shut.
    //
    // A cancellation point before the frame, not within: it goes out whole or not at all.
    std::optional<int64_t> write(const void* frame, uint32_t size);

    // Reads `size` bytes from the other end as mmReadFile() does, all of them: what was kept of a
    // frame follows as the reading makes room.
    int64_t read(int fd, void* buffer, uint32_t size);

    // On the reading thread: true when a frame is in the pipe, or on its way.
    bool has_next() const { return static_cast<int32_t>(written_ - read_) > 0; }

    // Writes what the pipe takes of the kept rest. Due after every read: the room is for the rest
    // first, and the poller then has something to wake for.
    //
    // Does not wait for a writer that is about to keep a rest: the part that it wrote is still to
    // be read then. So a reader that a write has woken seldom has to wait for the writer.
    void flush();

    // From here on nothing is written, and nobody is about to: the descriptor may be closed. False
    // when it was so before.
    bool shut();
    bool is_shut();

private:
    std::optional<int64_t> __write_alone(const void* frame, uint32_t size);
    int64_t __write_frame(const void* frame, uint32_t size);
    bool __flush_waiting();
    bool __flush_locked();
    int64_t __write(const void* bytes, uint32_t size);
    int64_t __read(int fd, uint8_t* buffer, uint32_t size);
    void __keep(const void* frame, uint32_t begin, uint32_t end);

    const int32_t& wfd_;
    FairSharedMutex lock_; // guards what follows
    bool shut_ = false;
    uint32_t begin_ = 0; // the rest is rest_[begin_, end_)
    uint32_t end_ = 0;
    uint8_t rest_[kMaxHeaderLen + DM_MAX_DATA_LEN];
    std::atomic<bool> has_rest_{false}; // read without the lock

    // Bytes that went in and that came out. They wrap around.
    std::atomic<uint32_t> written_{0};
    uint32_t read_ = 0;
};

// Closes both ends, the reading one first. A close that fails is logged as the caller's.
void close_pipe(const LogSite& site, int read_end, int write_end);

} // namespace dm

#endif
