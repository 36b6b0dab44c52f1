// The readings that dmond gives, as JSON. Each call takes one.
//
// Readings that the machine does not have are left out or are empty. Sizes are in bytes, times in
// seconds. Strings are the system's and need not be UTF-8 until json_text() has written them.
#ifndef DMOND_READINGS_H
#define DMOND_READINGS_H

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>

namespace dmond {

using Json = nlohmann::ordered_json; // keys in the order in which they are given

Json read_info();

// Drops surplus filesystems, interfaces and sensors when the text would have more than `max_len`
// bytes, and says so with "truncated": true.
Json read_health(std::size_t max_len);

// The load of the last minute alone, as text of at most 20 bytes.
std::string short_health(const Json& health);

Json read_filesystems();
Json read_temperatures();
Json read_fans();

// The daemon's own tasks, out of the library's table.
Json read_tasks();

// Compact text. What is not UTF-8 is replaced by U+FFFD.
std::string json_text(const Json& value);

} // namespace dmond

#endif
