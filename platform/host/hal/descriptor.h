// Owner of a descriptor, and of the time in which a thread must not be cancelled.
#ifndef HAL_DESCRIPTOR_H
#define HAL_DESCRIPTOR_H

#include <pthread.h>
#include <unistd.h>

#include <utility>

namespace hal {

// Holds off the calling thread's cancellation, which would lose a descriptor that a call of the
// system has just made. In the HAL, threads are cancelled only where they wait.
class CancelGuard {
public:
    CancelGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    CancelGuard(const CancelGuard&) = delete;
    CancelGuard& operator=(const CancelGuard&) = delete;
    ~CancelGuard() { pthread_setcancelstate(before_, nullptr); }

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor() {
        if (fd_ < 0)
            return;
        const CancelGuard guard; // the owner may be released where nothing may be thrown
        close(fd_);
    }

    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
};

} // namespace hal

#endif
