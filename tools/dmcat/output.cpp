#include "output.h"

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <unistd.h>

namespace dmcat {

void print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot write");
}

void print_error(const std::string& text) {
    std::fprintf(stderr, "dmcat: %s\n", text.c_str());
}

bool prints_to_terminal() {
    return isatty(STDOUT_FILENO) == 1;
}

} // namespace dmcat
