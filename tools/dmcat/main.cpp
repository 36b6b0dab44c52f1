// dmcat, the command-line peer of services on the message framework: sends requests and prints
// their responses, or answers requests with their own data.

#include "context.h"
#include "exit_status.h"
#include "listener.h"
#include "options.h"
#include "output.h"
#include "series.h"
#include "smbus.h"
#include "workers.h"

#include <csignal>
#include <cstdlib>
#include <exception>
#include <poll.h>
#include <unistd.h>

namespace {

int run(int argc, char** argv) {
    const auto options = dmcat::parse_options(argc, argv);
    if (!options)
        return dmcat::kAnswered;
    if (options->smbus != dmcat::Options::Smbus::no)
        return dmcat::run_smbus(*options);
    return options->listen ? dmcat::run_listener(*options) : dmcat::run_series(*options);
}

// The context blocks the signals, and nobody waits for them once it is gone. Whoever does not read
// the error is not to hold up the end: where it has no room, a signal ends the process at once.
// Elsewhere one that comes twice, as timeout(1) sends it, does not change the exit status.
void let_signals_end_a_blocked_write() {
    pollfd out{STDERR_FILENO, POLLOUT, 0};
    if (poll(&out, 1, 0) != 0)
        return;
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

int fail(int exit_status, const std::exception& error) {
    let_signals_end_a_blocked_write();
    dmcat::print_error(error.what());
    return exit_status;
}

int run_or_fail(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const dmcat::UsageError& error) {
        return fail(dmcat::kWrongUsage, error);
    } catch (const dmcat::Interrupted& error) {
        return fail(dmcat::kTimedOut, error);
    } catch (const std::exception& error) {
        return fail(dmcat::kCannotWork, error);
    }
}

} // namespace

int main(int argc, char** argv) {
    // dmcat itself says what fails. Whoever wants the library's log lines as well sets the level.
    setenv("DM_LOG_LEVEL", "none", 0);
    // A reader that goes is a failed write like any other.
    std::signal(SIGPIPE, SIG_IGN);
    const int exit_status = run_or_fail(argc, argv);
    // All output is out. Threads that go on use what exit(3) would take down.
    if (dmcat::Workers::left_behind())
        _exit(exit_status);
    return exit_status;
}
