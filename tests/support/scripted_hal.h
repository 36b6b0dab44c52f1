// The device HAL as a script, for the tests that link it: what its calls give, and which were made.
#pragma once

#include "platform_hal.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace support {

// Calls are known by short names. Accept threads end with their test, by the next server's number.
struct Hal {
    std::mutex lock;
    std::condition_variable changed;
    HDC_SERVER server = 1;
    std::vector<HDC_SESSION> peers;           // to be accepted
    std::map<HDC_SESSION, std::string> inbox; // to be received
    std::string sent;
    std::map<std::string, int> code; // of a failing call
    int32_t run_env = 1;
    uint32_t device_id = 0; // of the last connection or message of the device manager
    int length = -1;        // of that message, or the room for one that is received
    std::string calls;      // each with a blank behind it

    Hal() { calls.reserve(10000); } // a call allocates nothing: the test may let that fail
    int call(const char* name) {
        const std::lock_guard guard(lock);
        calls.append(name).append(" ");
        changed.notify_all();
        return code.contains(name) ? code[name] : 0;
    }
    size_t count(const std::string& name) {
        const std::lock_guard guard(lock);
        return occurrences(name + " ");
    }
    // Waits until it was called so often. Ends after 30 s, with false.
    bool called(const std::string& name, size_t times = 1) {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(30),
                                [&] { return occurrences(name + " ") >= times; });
    }
    // The calls since the last time.
    std::string trace() {
        const std::lock_guard guard(lock);
        const std::string text = calls;
        calls.clear();
        return text;
    }
    void change(const std::function<void()>& what) {
        const std::lock_guard guard(lock);
        what();
        changed.notify_all();
    }
    // Ends the accept threads and forgets the calls and the failures.
    void reset() {
        change([this] { ++server, calls.clear(), code.clear(); });
    }

private:
    size_t occurrences(const std::string& word) const {
        size_t times = 0;
        for (size_t at = 0; (at = calls.find(word, at)) != std::string::npos; ++at)
            ++times;
        return times;
    }
};
inline Hal hal;

} // namespace support
