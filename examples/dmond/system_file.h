// Files of /proc and /sys.
#ifndef DMOND_SYSTEM_FILE_H
#define DMOND_SYSTEM_FILE_H

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace dmond {

// Empty when the file cannot be read.
std::string read_file(const std::filesystem::path& path);
std::vector<std::string> read_lines(const std::filesystem::path& path);

// The number that a file of one number holds; none when there is no such file or number.
std::optional<long long> read_number(const std::filesystem::path& path);

// The entries of a directory in the order of their names; none when it cannot be read.
std::vector<std::filesystem::path> list_directory(const std::filesystem::path& path);

} // namespace dmond

#endif
