// dmcat, the command-line peer of services on the message framework: sends requests and prints
// their responses, or answers requests with their own data.

#include "exit_status.h"
#include "listener.h"
#include "options.h"
#include "series.h"
#include "smbus.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

namespace {

int fail(int exit_status, const std::exception& error) {
    std::fprintf(stderr, "dmcat: %s\n", error.what());
    return exit_status;
}

} // namespace

int main(int argc, char** argv) {
    // dmcat itself says what fails. Whoever wants the library's log lines as well sets the level.
    setenv("DM_LOG_LEVEL", "none", 0);
    // A reader that goes is a failed write like any other.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const auto options = dmcat::parse_options(argc, argv);
        if (!options)
            return 0;
        if (options->smbus != dmcat::Options::Smbus::no)
            return dmcat::run_smbus(*options);
        return options->listen ? dmcat::run_listener(*options) : dmcat::run_series(*options);
    } catch (const dmcat::UsageError& error) {
        return fail(dmcat::kWrongUsage, error);
    } catch (const std::exception& error) {
        return fail(dmcat::kCannotWork, error);
    }
}
