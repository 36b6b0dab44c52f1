// What dmcat writes for its user.
#ifndef DMCAT_OUTPUT_H
#define DMCAT_OUTPUT_H

#include <string>
#include <string_view>

namespace dmcat {

// Writes to standard output, without delay. Throws std::system_error when it cannot.
void print(std::string_view text);

// Writes a line to standard error.
void print_error(const std::string& text);

// True when standard output is a terminal.
bool prints_to_terminal();

} // namespace dmcat

#endif
