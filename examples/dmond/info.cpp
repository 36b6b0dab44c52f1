#include "readings.h"
#include "system_file.h"

#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <system_error>

namespace dmond {

namespace {

// proc(5); not every architecture names its processor in /proc/cpuinfo.
Json processor_model(const std::string& fallback) try {
    for (const std::string& line : read_lines("/proc/cpuinfo")) {
        const std::size_t colon = line.find(": ");
        if (colon != std::string::npos && line.starts_with("model name"))
            return line.substr(colon + 2);
    }
    return fallback;
} catch (const std::system_error&) {
    return nullptr;
}

} // namespace

Json read_info() {
    utsname system{};
    uname(&system);
    struct sysinfo state {};
    sysinfo(&state);
    return {
        {"host", system.nodename},
        {"kernel", std::string(system.sysname) + " " + system.release},
        {"machine", system.machine},
        {"processor", processor_model(system.machine)},
        {"processors", get_nprocs()},
        {"uptime_s", state.uptime},
        {"version", DMOND_VERSION},
    };
}

} // namespace dmond
