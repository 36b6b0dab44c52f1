// Text of a peer's, made harmless for a terminal.
#ifndef DMCAT_PRINTABLE_H
#define DMCAT_PRINTABLE_H

#include <string>
#include <string_view>

namespace dmcat {

// Gives UTF-8 text in which nothing controls a terminal or changes the order of what it shows:
// control and format characters are written as JSON does (\u009b), as are line feeds and tabs
// unless they are kept, and bytes that are no UTF-8 as \xff. JSON stays the same JSON.
enum class Lines { kept, escaped };
std::string printable(std::string_view bytes, Lines lines);

} // namespace dmcat

#endif
