#include "hal/complaint.h"

#include "hal/immortal.h"
#include "platform_hal_codes.h"
#include "platform_log.h"

#include <chrono>
#include <map>
#include <mutex>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kModule = 11; // the library is 10

// Longer than the library tries to open a server.
constexpr auto kPause = std::chrono::minutes(3);

// Of one code in that time. What refused users do must neither fill the log nor keep out what other
// codes have to say.
constexpr size_t kMostLines = 64;

// The lines that were written last, and when, for each code.
struct Complaints {
    std::mutex mutex;
    std::map<int32_t, std::map<std::string, Clock::time_point>> lines;
};

bool __is_due(int32_t code, const std::string& line) {
    auto& complaints = hal::immortal<Complaints>();
    const std::scoped_lock lock(complaints.mutex);
    auto& lines = complaints.lines[code];
    const auto now = Clock::now();
    std::erase_if(lines, [now](const auto& entry) { return now - entry.second >= kPause; });
    return lines.size() < kMostLines && lines.emplace(line, now).second;
}

} // namespace

namespace hal {

int32_t complain(const std::string& subject, int32_t code, const std::string& reason) {
    const std::string line =
        subject + ": " + hal_strerror(code) + (reason.empty() ? "" : ": " + reason);
    if (__is_due(code, line))
        DlogErrorInner(kModule, "%s\n", line.c_str());
    return code;
}

} // namespace hal
