// Owner of a descriptor.
#ifndef DM_BASE_DESCRIPTOR_H
#define DM_BASE_DESCRIPTOR_H

#include <utility>

namespace dm {

// `Close` is a function of the using file, so that a failed close is logged as that file's.
//
// Closing is a cancellation point: the destructor lets a cancelled thread unwind.
template<auto Close>
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() noexcept(false) { reset(); }

    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (const int old = std::exchange(fd_, fd); old >= 0)
            Close(old);
    }

private:
    int fd_ = -1;
};

} // namespace dm

#endif
