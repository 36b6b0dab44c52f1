// The device HAL as a script, for the tests that link it: what its calls give, and which were made.
#pragma once

#include "platform_hal.h"

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

    Hal();
    int call(const char* name);
    size_t count(const std::string& name);
    // Waits until it was called so often. Ends after 30 s, with false.
    bool called(const std::string& name, size_t times = 1);
    // The calls since the last time.
    std::string trace();
    void change(const std::function<void()>& what);
    // Ends the accept threads and forgets the calls and the failures.
    void reset();
};
extern Hal hal;

} // namespace support
