// What the tests that make many threads share.
#pragma once

#include "support/framework.h"

#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <thread>

namespace support {

// How often such a test repeats something: each time, or every tenth where a sanitizer slows it.
constexpr int rounds(int count) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return count / 10;
#elif defined(__has_feature)
    return __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) ? count / 10 : count;
#else
    return count;
#endif
}

inline std::ptrdiff_t entries_of(const char* directory) {
    const std::filesystem::directory_iterator entries(directory);
    return std::distance(begin(entries), end(entries));
}

inline std::ptrdiff_t count_own_threads() {
    std::string made;
    std::thread([&] { made = "/proc/self/task/" + std::to_string(gettid()); }).join();
    eventually([&] { return !std::filesystem::exists(made); });
    return entries_of("/proc/self/task");
}

// The threads that are there without a test: the main one, and a sanitizer's, which comes with the
// first thread that is made.
inline const std::ptrdiff_t own_threads = count_own_threads();

// Waits until there are no other threads than these, and `more`.
inline bool only_these_threads(std::ptrdiff_t more) {
    return eventually([&] { return entries_of("/proc/self/task") == own_threads + more; });
}

} // namespace support
