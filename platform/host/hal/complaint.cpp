#include "hal/complaint.h"

#include "platform_hal_codes.h"
#include "platform_log.h"

#include <chrono>
#include <map>
#include <mutex>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kModule = 11; // the library is 10

// Longer than the library tries to open a server.
constexpr auto kPause = std::chrono::minutes(3);

struct Complaint {
    std::string line;
    Clock::time_point written;
};

// Users who are refused are subjects, too: their number is not this process's to choose.
constexpr size_t kMostSubjects = 256;

// The last line about each subject.
struct Complaints {
    std::mutex mutex;
    std::map<std::string, Complaint> last;
};

bool __is_due(const std::string& subject, const std::string& line) {
    // Never destroyed, for threads go on while a process exits.
    static auto& complaints = *new Complaints;
    const std::scoped_lock lock(complaints.mutex);
    if (complaints.last.size() >= kMostSubjects)
        complaints.last.clear();
    Complaint& last = complaints.last[subject];
    const auto now = Clock::now();
    if (last.line == line && now - last.written < kPause)
        return false;
    last = {line, now};
    return true;
}

} // namespace

namespace hal {

int32_t complain(const std::string& subject, int32_t code, const std::string& reason) {
    const std::string line =
        subject + ": " + hal_strerror(code) + (reason.empty() ? "" : ": " + reason);
    if (__is_due(subject, line))
        DlogErrorInner(kModule, "%s\n", line.c_str());
    return code;
}

} // namespace hal
