// Is compiled into each program, with the names of those systems that it would compare with, had
// they been installed when it was configured.
#include "support/runner.h"

#include <sstream>
#include <string>

namespace {

[[maybe_unused]] const bool noted = [] {
    std::istringstream names(BENCH_ABSENT);
    for (std::string name; std::getline(names, name, ',');)
        bench::leave_out("every work", name, "it was not there when this was configured");
    return true;
}();

} // namespace
