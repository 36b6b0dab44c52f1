// Owners of records that are allocated with malloc() and handed over to C callers.
#ifndef DM_BASE_MEMORY_H
#define DM_BASE_MEMORY_H

#include "platform_bounds.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <utility>

namespace dm {

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};

template<class T>
using Owned = std::unique_ptr<T, FreeDeleter>;

// A block of `size` bytes, not yet zeroed; empty when there is no memory.
template<class T>
Owned<T> allocate(std::size_t size = sizeof(T)) {
    return Owned<T>(static_cast<T*>(std::malloc(size)));
}

// Zeroes a record. Gives the status of memset_s().
template<class T>
int zero(T* record, std::size_t size = sizeof(T)) {
    return memset_s(record, size, 0, size);
}

// A bounds-checked function that copies bytes: memcpy_s() or memmove_s().
using CopyFunction = int (*)(void* dest, size_t dest_size, const void* src, size_t count);

// A copy of a caller's bytes, or the step that failed and its status.
struct Duplicate {
    enum class Step { none, allocate, zero, copy };

    Owned<void> bytes;
    Step failed = Step::none;
    int status = 0;
};

// Allocates, zeroes and fills a copy of `size` bytes.
inline Duplicate duplicate(const void* src, std::size_t size, CopyFunction copy) {
    auto bytes = allocate<void>(size);
    if (!bytes)
        return {nullptr, Duplicate::Step::allocate, ENOMEM};
    if (const int status = memset_s(bytes.get(), size, 0, size); status != 0)
        return {nullptr, Duplicate::Step::zero, status};
    if (const int status = copy(bytes.get(), size, src, size); status != 0)
        return {nullptr, Duplicate::Step::copy, status};
    return {std::move(bytes), Duplicate::Step::none, 0};
}

// The code for a failed bounds-checked function where callers expect errno: errno itself, or the
// function's own status when it left none, so that a failure is never answered with 0.
inline int errno_or(int status) {
    return errno != 0 ? errno : status;
}

} // namespace dm

#endif
