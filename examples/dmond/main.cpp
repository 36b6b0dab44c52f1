// dmond, a device-monitor daemon: answers requests for the state of the machine.
//
// This file is the whole life of a service on the message framework, in the order of its steps:
// create a context, register a command handler, open the transports, wait, take everything down.

#include "commands.h"
#include "dead_queues.h"
#include "dm_msg_intf.h"
#include "endpoint.h"
#include "opening.h"
#include "sampler.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <list>
#include <mutex>
#include <optional>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>
#include <vector>

namespace {

using example::Endpoint;

constexpr int kWrongUsage = 2;
constexpr int kCannotOpen = 3;

// A transport that is not open after this is said to be waited for.
constexpr std::chrono::seconds kMoment{1};

// The main thread waits for the signals: it says only what whoever reads the standard error has
// room for.
void say_if_there_is_room(const std::string& text) {
    pollfd out{STDERR_FILENO, POLLOUT, 0};
    if (poll(&out, 1, 0) > 0 && (out.revents & POLLOUT) != 0)
        dprintf(STDERR_FILENO, "dmond: %s\n", text.c_str());
}

// An opening tells the main thread with it that it has ended.
constexpr int kOpeningEnded = SIGUSR1;

// Threads inherit the mask of the thread that creates them. With the signals blocked before there
// is another thread, they stay pending until main asks for them.
sigset_t block_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, kOpeningEnded})
        sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

// Where nobody waits for the signals they end the process at once, also while the reader of what
// it writes does not read.
void let_signals_end() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void say(const std::string& text) {
    std::fprintf(stderr, "dmond: %s\n", text.c_str());
}

int fail(int exit_status, const std::string& reason) {
    let_signals_end();
    say(reason);
    return exit_status;
}

// Whoever reads what the daemon writes may go, or not have been there at all: no descriptor of the
// library's is to be taken for the standard streams.
void survive_readers() {
    std::signal(SIGPIPE, SIG_IGN);
    int fd = 0;
    do
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
}

// An orderly end takes a moment. What hangs, as a transport that is being opened or a reading, is
// not waited for any longer than this: the process ends without it.
void end_in_time(int exit_status) {
    static volatile std::sig_atomic_t status;
    status = exit_status;
    std::signal(SIGALRM, [](int) { _exit(status); });
    alarm(1);
}

// What the main thread does all the time, so that signals work at any moment: it waits for them,
// and has a sample taken every now and then. SIGHUP begins the sampling anew.
class MainLoop {
public:
    using Clock = std::chrono::steady_clock;

    MainLoop(const sigset_t& signals, dmond::Sampler& sampler, Clock::duration interval)
        : signals_(signals), sampler_(sampler), interval_(interval) {}

    // Goes on while `condition` holds, and no longer than `until`. It looks again with each signal.
    // True when one came that ends the service.
    template<class Condition>
    bool run_while(Condition condition, Clock::time_point until = Clock::time_point::max()) {
        while (condition() && Clock::now() < until) {
            const int signal = wait(std::min(until, next_sample_));
            if (signal == SIGINT || signal == SIGTERM)
                return true;
            if (signal == SIGHUP && !sampler_.restart())
                say_if_there_is_room("cannot create a task for each reading");
            if (Clock::now() >= next_sample_) {
                sampler_.order();
                next_sample_ = Clock::now() + interval_;
            }
        }
        return false;
    }

private:
    // Gives the signal, or -1 when it is time.
    int wait(Clock::time_point until) const {
        using namespace std::chrono;
        const auto left = std::max(until - Clock::now(), Clock::duration::zero());
        const auto whole = duration_cast<seconds>(left);
        const timespec limit{whole.count(), duration_cast<nanoseconds>(left - whole).count()};
        return sigtimedwait(&signals_, nullptr, &limit);
    }

    const sigset_t& signals_;
    dmond::Sampler& sampler_;
    const Clock::duration interval_;
    Clock::time_point next_sample_ = Clock::now() + interval_;
};

void announce(const std::string& url) {
    std::printf("dmond: listening on %s\n", url.c_str());
    std::fflush(stdout);
}

// The transports: at the end the open ones are removed, which waits for a handler that runs.
class Interfaces {
public:
    explicit Interfaces(DM_CB_ST* context) : context_(context) {}
    Interfaces(const Interfaces&) = delete;
    Interfaces& operator=(const Interfaces&) = delete;
    ~Interfaces() noexcept(false) {
        openings_.clear();
        for (DM_INTF_ST* intf : opened_)
            dm_intf_deregister(intf);
    }

    // Opens one after the other. One that takes long goes on beside the next ones, and beside the
    // service. True when a signal ended the service meanwhile.
    bool open(const std::vector<Endpoint>& endpoints, MainLoop& loop) {
        return std::any_of(endpoints.begin(), endpoints.end(), [&](const Endpoint& endpoint) {
            return !has_failed() && open(endpoint, loop);
        });
    }

    bool has_failed() const { return std::any_of(openings_.begin(), openings_.end(), is_failed); }

    // Tells which one could not be opened, and why. None when there is no such one.
    std::optional<std::string> failure() const {
        const auto failed = std::find_if(openings_.begin(), openings_.end(), is_failed);
        return failed == openings_.end() ? std::nullopt : std::optional(failed->failure());
    }

private:
    static bool is_failed(const dmond::Opening& opening) {
        return opening.has_ended() && !opening.failure().empty();
    }

    bool open(const Endpoint& endpoint, MainLoop& loop) {
        const dmond::Opening& opening = openings_.emplace_back(
            [this, endpoint] { add(endpoint.open(*context_, Endpoint::Role::server, nullptr)); },
            [] { kill(getpid(), kOpeningEnded); });
        if (loop.run_while([&opening] { return !opening.has_ended(); },
                           MainLoop::Clock::now() + kMoment))
            return true;
        if (!opening.has_ended())
            say_if_there_is_room("waiting for " + endpoint.url());
        return false;
    }

    void add(DM_INTF_ST& intf) {
        const std::lock_guard lock(mutex_);
        opened_.push_back(&intf);
        announce(Endpoint::bound(intf).url());
    }

    DM_CB_ST* context_;
    std::list<dmond::Opening> openings_;
    std::mutex mutex_; // of what follows
    std::vector<DM_INTF_ST*> opened_;
};

// Opens the transports, and answers requests until a signal ends the service.
int serve(DM_CB_ST* context, const std::vector<Endpoint>& endpoints, const sigset_t& signals,
          dmond::Sampler& sampler, MainLoop::Clock::duration interval) {
    // The user data is copied, so what is registered is the handler's address. The handler comes
    // before the transports: no request finds the context without one.
    dmond::CommandHandler handler(sampler);
    dmond::CommandHandler* const user_data = &handler;
    if (dm_cmd_register(context, dmond::CommandHandler::on_message, nullptr, &user_data,
                        sizeof(void*)) != 0)
        return fail(kCannotOpen, "cannot register the command handler");

    // Requests are answered on the context's poll thread.
    Interfaces interfaces(context);
    MainLoop loop(signals, sampler, interval);
    if (!interfaces.open(endpoints, loop))
        loop.run_while([&interfaces] { return !interfaces.has_failed(); });
    const auto failure = interfaces.failure();
    const int exit_status = failure ? kCannotOpen : 0;
    end_in_time(exit_status);
    sampler.stop();
    if (failure)
        say(*failure);
    return exit_status;
}

int run(const std::vector<Endpoint>& endpoints, MainLoop::Clock::duration interval,
        const sigset_t& signals) {
    prctl(PR_SET_NAME, dmond::kProcessName);
    dmond::remove_dead_queues();
    dmond::Sampler sampler;
    DM_CB_ST* context = nullptr;
    if (dm_init(&context) != 0)
        return fail(kCannotOpen, "cannot start the message framework");
    const int exit_status = serve(context, endpoints, signals, sampler, interval);
    dm_destroy(context);
    return exit_status;
}

// The help or the version.
int print(const std::string& text) {
    let_signals_end();
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0)
        return fail(kCannotOpen, std::string("cannot write: ") + std::strerror(errno));
    return 0;
}

int run_command_line(int argc, char** argv, const sigset_t& signals) {
    CLI::App app("Answers requests for the state of this machine, until SIGINT or SIGTERM. "
                 "SIGHUP begins its sampling anew.");
    std::optional<std::string> udp;
    std::optional<std::uint16_t> hdc;
    std::optional<std::uint16_t> ipc;
    app.add_option("--udp", udp, "Listen here; port 0 lets the system choose one")
        ->type_name("ADDR:PORT");
    app.add_option("--hdc", hdc, "Be the HDC server of this device id")->type_name("N");
    app.add_option("--ipc", ipc, "Answer on the device manager's channel for this id")
        ->type_name("N");
    std::uint32_t interval_ms = 10000;
    app.add_option("--interval", interval_ms, "Take the readings this often, when nobody asks")
        ->type_name("MS")
        ->check(CLI::Range(100, 3600000))
        ->capture_default_str();
    app.set_version_flag("--version", "dmond " DMOND_VERSION, "Print the version and exit");
    app.footer("Exit status: 0 ended by a signal, 2 wrong usage, 3 cannot open.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help_or_version) {
        std::ostringstream text;
        app.exit(help_or_version, text, text);
        return print(text.str());
    } catch (const CLI::ParseError& error) {
        return fail(kWrongUsage, error.what());
    }

    std::vector<Endpoint> endpoints;
    if (udp) {
        const auto endpoint = Endpoint::parse_udp(*udp);
        if (!endpoint)
            return fail(kWrongUsage,
                        "--udp takes an IPv4 address and a port, such as 127.0.0.1:7400");
        endpoints.push_back(*endpoint);
    }
    if (hdc)
        endpoints.push_back(Endpoint::hdc(*hdc));
    if (ipc)
        endpoints.push_back(Endpoint::ipc(*ipc));
    if (endpoints.empty())
        return fail(kWrongUsage, "nowhere to listen: give --udp, --hdc or --ipc");
    return run(endpoints, std::chrono::milliseconds(interval_ms), signals);
}

} // namespace

int main(int argc, char** argv) {
    const sigset_t signals = block_signals();
    survive_readers();
    try {
        const int exit_status = run_command_line(argc, argv, signals);
        alarm(0);
        return exit_status;
    } catch (const std::exception& error) {
        return fail(kCannotOpen, error.what());
    }
}
