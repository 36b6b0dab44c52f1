// Sensors of the kernel's hardware monitoring and thermal classes, as the kernel's documents
// hwmon/sysfs-interface and driver-api/thermal/sysfs-api describe them.

#include "readings.h"
#include "system_file.h"

#include <string>
#include <string_view>

namespace dmond {

namespace {

constexpr const char* kHwmon = "/sys/class/hwmon";
constexpr const char* kThermal = "/sys/class/thermal";
constexpr std::string_view kInput = "_input";

std::string first_line(const std::filesystem::path& path) {
    const std::string text = read_file(path);
    return text.substr(0, text.find('\n'));
}

// "chip label", such as "coretemp Core 0", or "chip temp1" where the sensor has no label.
std::string sensor_name(const std::filesystem::path& chip, const std::string& sensor) {
    const std::string label = first_line(chip / (sensor + "_label"));
    return first_line(chip / "name") + " " + (label.empty() ? sensor : label);
}

// Calls visit(name, value) for each readable sensor of a kind: tempN_input, fanN_input.
template<class Visit>
void for_each_sensor(std::string_view kind, Visit visit) {
    for (const auto& chip : list_directory(kHwmon)) {
        for (const auto& file : list_directory(chip)) {
            std::string sensor = file.filename();
            if (!sensor.starts_with(kind) || !sensor.ends_with(kInput))
                continue;
            sensor.resize(sensor.size() - kInput.size());
            if (const auto value = read_number(file))
                visit(sensor_name(chip, sensor), *value);
        }
    }
}

double celsius(long long millidegrees) {
    return static_cast<double>(millidegrees) / 1000;
}

} // namespace

Json read_temperatures() {
    Json temperatures = Json::array();
    for_each_sensor("temp", [&](const std::string& name, long long value) {
        temperatures.push_back({{"sensor", name}, {"celsius", celsius(value)}});
    });
    for (const auto& zone : list_directory(kThermal))
        if (const auto value = read_number(zone / "temp"))
            temperatures.push_back(
                {{"sensor", first_line(zone / "type")}, {"celsius", celsius(*value)}});
    return temperatures;
}

Json read_fans() {
    Json fans = Json::array();
    for_each_sensor("fan", [&](const std::string& name, long long value) {
        fans.push_back({{"sensor", name}, {"rpm", value}});
    });
    return fans;
}

} // namespace dmond
