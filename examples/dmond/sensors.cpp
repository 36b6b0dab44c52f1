// Sensors of the kernel's hardware monitoring and thermal classes, as the kernel's documents
// hwmon/sysfs-interface and driver-api/thermal/sysfs-api describe them.

#include "readings.h"
#include "system_file.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace dmond {

namespace {

constexpr const char* kHwmon = "/sys/class/hwmon";
constexpr const char* kThermal = "/sys/class/thermal";
constexpr std::string_view kInput = "_input";

// "chip label", such as "coretemp Core 0", or "chip temp1" where the sensor has no label.
std::string sensor_name(const std::filesystem::path& chip, const std::string& sensor) {
    const std::string label = first_line(chip / (sensor + "_label"));
    return first_line(chip / "name") + " " + (label.empty() ? sensor : label);
}

// Calls visit(name, value) for each sensor of a kind: tempN_input, fanN_input. There is no value
// when the chip does not give it.
template<class Visit>
void for_each_sensor(std::string_view kind, Visit visit) {
    for (const auto& chip : list_directory(kHwmon)) {
        for (const auto& file : list_directory(chip)) {
            std::string sensor = file.filename();
            if (!sensor.starts_with(kind) || !sensor.ends_with(kInput))
                continue;
            sensor.resize(sensor.size() - kInput.size());
            visit(sensor_name(chip, sensor), read_number(file));
        }
    }
}

using Value = std::optional<long long>;

Json celsius(const Value& millidegrees) {
    return millidegrees ? Json(static_cast<double>(*millidegrees) / 1000) : Json();
}

} // namespace

Json read_temperatures() {
    Json temperatures = Json::array();
    for_each_sensor("temp", [&](const std::string& name, const Value& value) {
        temperatures.push_back({{"sensor", name}, {"celsius", celsius(value)}});
    });
    // Cooling devices lie there, too.
    for (const auto& zone : list_directory(kThermal))
        if (std::filesystem::exists(zone / "temp"))
            temperatures.push_back({{"sensor", first_line(zone / "type")},
                                    {"celsius", celsius(read_number(zone / "temp"))}});
    return temperatures;
}

Json read_fans() {
    Json fans = Json::array();
    for_each_sensor("fan", [&](const std::string& name, const Value& value) {
        fans.push_back({{"sensor", name}, {"rpm", value ? Json(*value) : Json()}});
    });
    return fans;
}

} // namespace dmond
