#include "system_file.h"

#include <algorithm>
#include <charconv>
#include <fcntl.h>
#include <sstream>
#include <system_error>
#include <unistd.h>

namespace dmond {

namespace {

// Closing is a cancellation point: the destructor lets a cancelled thread unwind.
class File {
public:
    explicit File(const std::filesystem::path& path)
        : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() noexcept(false) {
        if (fd_ >= 0)
            close(fd_);
    }

    int fd() const { return fd_; }

private:
    int fd_;
};

} // namespace

std::string read_file(const std::filesystem::path& path) {
    const File file(path);
    std::string text;
    char chunk[4096];
    // Without a descriptor the first read fails.
    for (ssize_t len = 0; (len = read(file.fd(), chunk, sizeof chunk)) > 0;)
        text.append(chunk, static_cast<std::size_t>(len));
    return text;
}

std::vector<std::string> read_lines(const std::filesystem::path& path) {
    std::istringstream text(read_file(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

std::optional<long long> read_number(const std::filesystem::path& path) {
    const std::string text = read_file(path);
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
    std::sort(entries.begin(), entries.end());
    return entries;
}

} // namespace dmond
