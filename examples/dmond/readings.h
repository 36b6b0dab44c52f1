// The readings that dmond gives, as JSON. Each call takes one.
//
// What the machine does not have is left out or is empty, and a number that cannot be read is null.
// A reading that fails as a whole throws a std::exception that says why. Sizes are in bytes, times
// in seconds. Strings are the system's and need not be UTF-8 until json_text() has written them.
#ifndef DMOND_READINGS_H
#define DMOND_READINGS_H

#include <nlohmann/json.hpp>
#include <string>

namespace dmond {

using Json = nlohmann::ordered_json; // keys in the order in which they are given

Json read_info();

// The parts of the machine's health.
Json read_load(); // of the last minute, the last 5 and the last 15
Json read_memory();
Json read_filesystems();
Json read_temperatures();
Json read_fans();
Json read_network();

// The daemon's own tasks, out of the library's table.
Json read_tasks();

// Compact text. What is not UTF-8 is replaced by U+FFFD.
std::string json_text(const Json& value);

} // namespace dmond

#endif
