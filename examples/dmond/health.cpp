#include "readings.h"
#include "system_file.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>

namespace dmond {

namespace {

Json read_load() {
    std::array<double, 3> load{};
    if (getloadavg(load.data(), load.size()) != static_cast<int>(load.size()))
        return Json::array();
    return load;
}

// /proc/meminfo has a line "Name:  value kB" for each kind (proc(5)).
Json read_memory() {
    std::map<std::string, std::uint64_t> bytes;
    for (const std::string& line : read_lines("/proc/meminfo")) {
        std::istringstream fields(line);
        std::string name;
        std::uint64_t kilobytes = 0;
        if (fields >> name >> kilobytes)
            bytes[name] = kilobytes * 1024;
    }
    return {
        {"total", bytes["MemTotal:"]},         {"free", bytes["MemFree:"]},
        {"available", bytes["MemAvailable:"]}, {"swap_total", bytes["SwapTotal:"]},
        {"swap_free", bytes["SwapFree:"]},
    };
}

// /proc/net/dev has a line "name: 16 counters" for each interface, behind two lines of headings.
// The first eight are of receiving, beginning with bytes, packets, errors and drops, the others
// of sending (proc(5)).
Json read_network() {
    Json interfaces = Json::array();
    for (const std::string& line : read_lines("/proc/net/dev")) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos)
            continue;
        const std::size_t name = line.find_first_not_of(' ');
        std::istringstream fields(line.substr(colon + 1));
        std::array<std::uint64_t, 16> counters{};
        for (std::uint64_t& counter : counters)
            fields >> counter;
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

Json& longest_list(Json& health) {
    Json* longest = &health["filesystems"];
    for (const char* name : {"network", "temperatures", "fans"})
        if (health[name].size() > longest->size())
            longest = &health[name];
    return *longest;
}

// Takes entries from the end of the longest list until the text fits. What the system lists first
// is what was there first: the root filesystem, the fixed interfaces.
void drop_surplus(Json& health, std::size_t max_len) {
    if (json_text(health).size() <= max_len)
        return;
    health["truncated"] = true;
    for (std::size_t len = json_text(health).size(); len > max_len;) {
        Json& list = longest_list(health);
        if (list.empty())
            return;
        // The entry and its comma; the last one of a list has none.
        len -= json_text(list.back()).size() + (list.size() > 1 ? 1 : 0);
        list.erase(list.size() - 1);
    }
}

} // namespace

Json read_health(std::size_t max_len) {
    Json health{
        {"load", read_load()},
        {"memory", read_memory()},
        {"filesystems", read_filesystems()},
        {"temperatures", read_temperatures()},
        {"fans", read_fans()},
        {"network", read_network()},
    };
    drop_surplus(health, max_len);
    return health;
}

std::string short_health(const Json& health) {
    const Json& load = health.at("load");
    std::array<char, 21> text{};
    std::snprintf(text.data(), text.size(), R"({"load":%.2f})",
                  load.empty() ? 0.0 : load.at(0).get<double>());
    return text.data();
}

std::string json_text(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace dmond
