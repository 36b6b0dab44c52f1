// Files of /proc and /sys. What cannot be read is thrown as a std::system_error with the path, but
// where a call says otherwise.
#ifndef DMOND_SYSTEM_FILE_H
#define DMOND_SYSTEM_FILE_H

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace dmond {

std::string read_file(const std::filesystem::path& path);
std::vector<std::string> read_lines(const std::filesystem::path& path);

// The first line without its line feed; empty when the file cannot be read.
std::string first_line(const std::filesystem::path& path);

// The number that a file of one number holds; none when the file cannot be read, or holds another
// thing.
std::optional<long long> read_number(const std::filesystem::path& path);

// The entries of a directory in the order of their names; none when there is no such directory.
std::vector<std::filesystem::path> list_directory(const std::filesystem::path& path);

} // namespace dmond

#endif
