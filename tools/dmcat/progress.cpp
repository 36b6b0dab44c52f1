#include "progress.h"

#include <cstdio>
#include <unistd.h>

namespace dmcat {

namespace {

// Back to the first column, and erases to the end of the line (console_codes(4)).
constexpr const char* kErase = "\r\033[K";

} // namespace

Progress::Progress() : terminal_(isatty(STDERR_FILENO) == 1) {}

void Progress::show(const std::string& text) {
    if (!terminal_)
        return;
    std::fprintf(stderr, "%s%s", kErase, text.c_str());
    shown_ = true;
}

void Progress::clear() {
    if (shown_)
        std::fputs(kErase, stderr);
    shown_ = false;
}

} // namespace dmcat
