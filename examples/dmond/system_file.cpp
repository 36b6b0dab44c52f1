#include "system_file.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <sstream>
#include <system_error>
#include <unistd.h>

namespace dmond {

namespace {

[[noreturn]] void throw_error(const std::filesystem::path& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

// Closing is a cancellation point: the destructor lets a cancelled thread unwind.
class File {
public:
    explicit File(const std::filesystem::path& path)
        : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (fd_ < 0)
            throw_error(path);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() noexcept(false) { close(fd_); }

    int fd() const { return fd_; }

private:
    int fd_;
};

} // namespace

std::string read_file(const std::filesystem::path& path) {
    const File file(path);
    std::string text;
    char chunk[4096];
    ssize_t len = 0;
    while ((len = read(file.fd(), chunk, sizeof chunk)) > 0)
        text.append(chunk, static_cast<std::size_t>(len));
    if (len < 0)
        throw_error(path);
    return text;
}

std::vector<std::string> read_lines(const std::filesystem::path& path) {
    std::istringstream text(read_file(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

std::string first_line(const std::filesystem::path& path) {
    try {
        const std::string text = read_file(path);
        return text.substr(0, text.find('\n'));
    } catch (const std::system_error&) {
        return {};
    }
}

std::optional<long long> read_number(const std::filesystem::path& path) {
    const std::string text = first_line(path);
    long long number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc())
        return std::nullopt;
    return number;
}

std::vector<std::filesystem::path> list_directory(const std::filesystem::path& path) {
    std::error_code error;
    std::vector<std::filesystem::path> entries;
    for (std::filesystem::directory_iterator entry(path, error), end; !error && entry != end;
         entry.increment(error))
        entries.push_back(entry->path());
    if (error && error != std::errc::no_such_file_or_directory)
        throw std::system_error(error, path);
    std::sort(entries.begin(), entries.end());
    return entries;
}

} // namespace dmond
