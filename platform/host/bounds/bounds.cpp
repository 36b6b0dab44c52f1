/**
 * The bounds-checked memory and string functions.
 *
 * They stand on hot paths: each is a handful of comparisons around the C library's own fast call.
 */
#include "platform_bounds.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

/** RSIZE_MAX: a size above it is a negative number in disguise, and is refused. */
constexpr size_t __max_size = SIZE_MAX >> 1;

int __refuse_memory(void* dest, size_t dest_size, int code) {
    std::memset(dest, 0, dest_size);
    return code;
}

int __refuse_string(char* dest, int code) {
    *dest = '\0';
    return code;
}

/** Says whether the regions share a byte; an empty source shares none. */
bool __overlap(const void* dest, size_t dest_size, const void* src, size_t src_size) {
    const auto to = reinterpret_cast<uintptr_t>(dest);
    const auto from = reinterpret_cast<uintptr_t>(src);
    // The difference towards the lower address wraps to a value above any accepted size.
    return src_size != 0 && (from - to < dest_size || to - from < src_size);
}

int __check_memory(void* dest, size_t dest_size, const void* src, size_t count) {
    if (dest == nullptr)
        return EINVAL;
    if (dest_size > __max_size)
        return ERANGE;
    if (src == nullptr)
        return __refuse_memory(dest, dest_size, EINVAL);
    if (count > dest_size)
        return __refuse_memory(dest, dest_size, ERANGE);
    return 0;
}

int __copy_string(char* dest, size_t dest_size, const char* src, size_t count) {
    if (dest == nullptr)
        return EINVAL;
    if (dest_size == 0 || dest_size > __max_size)
        return ERANGE;
    if (src == nullptr)
        return __refuse_string(dest, EINVAL);
    if (count > __max_size)
        return __refuse_string(dest, ERANGE);

    const size_t length = strnlen(src, count < dest_size ? count : dest_size);
    if (length == dest_size)
        return __refuse_string(dest, ERANGE);
    // The source's terminating zero is read only when count reaches it.
    const size_t read_size = length < count ? length + 1 : length;
    if (__overlap(dest, length + 1, src, read_size))
        return __refuse_string(dest, EINVAL);
    std::memcpy(dest, src, length);
    dest[length] = '\0';
    return 0;
}

} // namespace

int memset_s(void* dest, size_t dest_size, int value, size_t count) {
    if (dest == nullptr)
        return EINVAL;
    if (dest_size > __max_size)
        return ERANGE;
    const bool fits = count <= dest_size;
    std::memset(dest, value, fits ? count : dest_size);
    // To the optimiser, this reads what was filled, so that the fill stays although the memory may
    // never be looked at again.
    __asm__ volatile("" : : "r"(dest) : "memory");
    return fits ? 0 : ERANGE;
}

int memcpy_s(void* dest, size_t dest_size, const void* src, size_t count) {
    const int code = __check_memory(dest, dest_size, src, count);
    if (code != 0)
        return code;
    if (__overlap(dest, count, src, count))
        return __refuse_memory(dest, dest_size, EINVAL);
    std::memcpy(dest, src, count);
    return 0;
}

int memmove_s(void* dest, size_t dest_size, const void* src, size_t count) {
    const int code = __check_memory(dest, dest_size, src, count);
    if (code != 0)
        return code;
    std::memmove(dest, src, count);
    return 0;
}

int strncpy_s(char* dest, size_t dest_size, const char* src, size_t count) {
    return __copy_string(dest, dest_size, src, count);
}

int strcpy_s(char* dest, size_t dest_size, const char* src) {
    return __copy_string(dest, dest_size, src, __max_size);
}

int sprintf_s(char* dest, size_t dest_size, const char* format, ...) {
    if (dest == nullptr || dest_size == 0 || dest_size > __max_size)
        return -1;
    if (format == nullptr)
        return __refuse_string(dest, -1);

    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(dest, dest_size, format, args);
    va_end(args);
    if (length < 0 || static_cast<size_t>(length) >= dest_size)
        return __refuse_string(dest, -1);
    return length;
}
