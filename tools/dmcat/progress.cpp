#include "progress.h"

#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

namespace dmcat {

namespace {

// A line that is broken by the terminal cannot be erased as one (ioctl_tty(2)). The last column
// stays free: some terminals break the line when it is written to.
std::string cut_to_width(const std::string& text) {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return text;
    return text.substr(0, size.ws_col - 1U);
}

// Back to the first column, and erases to the end of the line (console_codes(4)).
constexpr const char* kErase = "\r\033[K";

} // namespace

Progress::Progress() : terminal_(isatty(STDERR_FILENO) == 1) {}

void Progress::show(const std::string& text) {
    if (!terminal_)
        return;
    std::fprintf(stderr, "%s%s", kErase, cut_to_width(text).c_str());
    shown_ = true;
}

void Progress::clear() {
    if (shown_)
        std::fputs(kErase, stderr);
    shown_ = false;
}

} // namespace dmcat
