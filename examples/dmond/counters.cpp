// What the kernel counts, and the text form of all readings.

#include "readings.h"
#include "system_file.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace dmond {

namespace {

constexpr const char* kMemory = "/proc/meminfo";
constexpr const char* kNetwork = "/proc/net/dev";

} // namespace

Json read_load() {
    std::array<double, 3> load{};
    if (getloadavg(load.data(), load.size()) != static_cast<int>(load.size()))
        throw std::system_error(errno, std::generic_category(), "the load average");
    return load;
}

// /proc/meminfo has a line "Name:  value kB" for each kind (proc(5)).
Json read_memory() {
    std::map<std::string, std::uint64_t> kinds;
    for (const std::string& line : read_lines(kMemory)) {
        std::istringstream fields(line);
        std::string name;
        std::uint64_t kilobytes = 0;
        if (fields >> name >> kilobytes)
            kinds[name] = kilobytes * 1024;
    }
    const auto bytes = [&kinds](const char* name) {
        const auto kind = kinds.find(name);
        return kind == kinds.end() ? Json() : Json(kind->second);
    };
    return {
        {"total", bytes("MemTotal:")},         {"free", bytes("MemFree:")},
        {"available", bytes("MemAvailable:")}, {"swap_total", bytes("SwapTotal:")},
        {"swap_free", bytes("SwapFree:")},
    };
}

// /proc/net/dev has a line "name: 16 counters" for each interface, behind two lines of headings.
// The first eight are of receiving, beginning with bytes, packets, errors and drops, the others
// of sending (proc(5)).
Json read_network() {
    Json interfaces = Json::array();
    for (const std::string& line : read_lines(kNetwork)) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos)
            continue;
        const std::size_t name = line.find_first_not_of(' ');
        std::istringstream fields(line.substr(colon + 1));
        std::array<std::uint64_t, 16> counters{};
        for (std::uint64_t& counter : counters)
            fields >> counter;
        if (!fields)
            throw std::runtime_error(std::string(kNetwork) + ": a line has no 16 counters");
        interfaces.push_back({{"interface", line.substr(name, colon - name)},
                              {"rx_bytes", counters[0]},
                              {"rx_packets", counters[1]},
                              {"rx_errors", counters[2]},
                              {"rx_dropped", counters[3]},
                              {"tx_bytes", counters[8]},
                              {"tx_packets", counters[9]},
                              {"tx_errors", counters[10]},
                              {"tx_dropped", counters[11]}});
    }
    return interfaces;
}

std::string json_text(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace dmond
