// The health of the machine, as dmond answers it: all its readings in one JSON text.
#ifndef DMOND_HEALTH_H
#define DMOND_HEALTH_H

#include "readings.h"

#include <cstddef>
#include <string>
#include <vector>

namespace dmond {

struct Reading {
    std::string name;
    Json value;             // null when it is missing
    std::string missing;    // why; empty when it is there
    bool truncated = false; // it had surplus entries
};

// Drops entries from the end of a list that alone has more than `max_len` bytes of text.
void shorten(Reading& reading, std::size_t max_len);

// An object with the readings by their names and, when some are missing, "missing": their names
// with the reasons. Drops surplus entries of the lists when the text would have more than `max_len`
// bytes, and says so with "truncated": true.
std::string health_text(const std::vector<Reading>& readings, std::size_t max_len);

// The load of the last minute alone, null when it is missing, as text of at most 20 bytes.
std::string short_health_text(const std::vector<Reading>& readings);

} // namespace dmond

#endif
