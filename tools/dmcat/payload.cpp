#include "payload.h"

#include "exit_status.h"

#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace dmcat {

namespace {

// A descriptor that is read from. Closing is a cancellation point: the destructor lets a cancelled
// thread unwind.
class Input {
public:
    explicit Input(const std::string& path)
        : fd_(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (fd_ < 0)
            throw std::system_error(errno, std::generic_category(), "cannot open " + path);
    }
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    ~Input() noexcept(false) {
        if (fd_ > STDIN_FILENO)
            close(fd_);
    }

    int fd() const { return fd_; }

private:
    int fd_;
};

} // namespace

std::string parse_hex(std::string_view digits, const std::string& what) {
    const UsageError wrong(what + " takes an even number of hexadecimal digits");
    if (digits.size() % 2 != 0)
        throw wrong;
    std::string bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        const char* pair = digits.data() + i;
        unsigned byte = 0;
        if (std::from_chars(pair, pair + 2, byte, 16).ptr != pair + 2)
            throw wrong;
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

std::string to_hex(std::string_view bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string digits;
    for (const char byte : bytes) {
        digits += kDigits[static_cast<unsigned char>(byte) >> 4];
        digits += kDigits[static_cast<unsigned char>(byte) & 15];
    }
    return digits;
}

std::string read_payload(const std::string& path, std::size_t max_len) {
    const Input input(path);
    std::string payload(max_len + 1, '\0');
    std::size_t len = 0;
    while (len < payload.size()) {
        const ssize_t got = read(input.fd(), payload.data() + len, payload.size() - len);
        if (got < 0)
            throw std::system_error(errno, std::generic_category(), "cannot read " + path);
        if (got == 0)
            break;
        len += static_cast<std::size_t>(got);
    }
    payload.resize(len);
    return payload;
}

} // namespace dmcat
