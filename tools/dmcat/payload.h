// Payloads that are not given as text.
#ifndef DMCAT_PAYLOAD_H
#define DMCAT_PAYLOAD_H

#include <cstddef>
#include <string>
#include <string_view>

namespace dmcat {

// Throws UsageError for anything but pairs of hexadecimal digits; the error says that `what` takes
// them.
std::string parse_hex(std::string_view digits, const std::string& what);
std::string to_hex(std::string_view bytes);

// Reads a file, or standard input for "-", and stops at the first byte behind `max_len`. Throws
// std::system_error when it cannot be read.
std::string read_payload(const std::string& path, std::size_t max_len);

} // namespace dmcat

#endif
