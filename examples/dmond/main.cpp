// dmond, a device-monitor daemon: answers requests for the state of the machine.
//
// This file is the whole life of a service on the message framework, in the order of its steps:
// create a context, register a command handler, open the transports, wait, take everything down.

#include "commands.h"
#include "dm_msg_intf.h"
#include "endpoint.h"
#include "sampler.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using example::Endpoint;

constexpr int kWrongUsage = 2;
constexpr int kCannotOpen = 3;

int fail(int exit_status, const std::string& reason) {
    std::fprintf(stderr, "dmond: %s\n", reason.c_str());
    return exit_status;
}

// Threads inherit the mask of the thread that creates them. With the signals blocked before the
// context starts its poll thread, they stay pending until main asks for them.
sigset_t block_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

// Waits for a signal that ends the service, and has a sample taken every now and then. SIGHUP
// begins the sampling anew.
void wait_for_end(const sigset_t& signals, dmond::Sampler& sampler, const timespec& interval) {
    for (;;) {
        const int signal = sigtimedwait(&signals, nullptr, &interval);
        if (signal == SIGINT || signal == SIGTERM)
            return;
        if (signal != SIGHUP)
            sampler.order();
        else if (!sampler.restart())
            std::fprintf(stderr, "dmond: cannot create a task for the readings\n");
    }
}

// Where to listen.
struct Transports {
    std::string udp;
    std::optional<Endpoint> udp_endpoint;
    std::optional<std::uint16_t> hdc;
    std::optional<std::uint16_t> ipc;
};

void announce(const std::string& url) {
    std::printf("dmond: listening on %s\n", url.c_str());
    std::fflush(stdout);
}

// The transports that are open: at the end they are removed, which waits for a handler that runs.
class Interfaces {
public:
    explicit Interfaces(DM_CB_ST* context) : context_(context) {}
    Interfaces(const Interfaces&) = delete;
    Interfaces& operator=(const Interfaces&) = delete;
    ~Interfaces() noexcept(false) {
        for (DM_INTF_ST* intf : opened_)
            dm_intf_deregister(intf);
    }

    // Gives 0, or says which one could not be opened and gives the exit status.
    int open(const Transports& transports) {
        try {
            if (transports.udp_endpoint)
                open(*transports.udp_endpoint);
            if (transports.hdc)
                open(Endpoint::hdc(*transports.hdc));
            if (transports.ipc)
                open(Endpoint::ipc(*transports.ipc));
            return 0;
        } catch (const std::runtime_error& error) {
            return fail(kCannotOpen, error.what());
        }
    }

private:
    void open(const Endpoint& endpoint) {
        opened_.push_back(&endpoint.open(*context_, Endpoint::Role::server, nullptr));
        announce(Endpoint::bound(*opened_.back()).url());
    }

    DM_CB_ST* context_;
    std::vector<DM_INTF_ST*> opened_;
};

// Opens the transports, and answers requests until a signal ends the service.
int serve(DM_CB_ST* context, const Transports& transports, const sigset_t& signals,
          dmond::Sampler& sampler, const timespec& interval) {
    // The user data is copied, so what is registered is the handler's address. The handler comes
    // before the transports: no request finds the context without one.
    dmond::CommandHandler handler(sampler);
    dmond::CommandHandler* const user_data = &handler;
    if (dm_cmd_register(context, dmond::CommandHandler::on_message, nullptr, &user_data,
                        sizeof(void*)) != 0)
        return fail(kCannotOpen, "cannot register the command handler");

    Interfaces interfaces(context);
    const int exit_status = interfaces.open(transports);
    if (exit_status == 0) {
        // Requests are answered on the context's poll thread.
        wait_for_end(signals, sampler, interval);
    }
    return exit_status;
}

int run(const Transports& transports, const timespec& interval) {
    const sigset_t signals = block_signals();
    dmond::Sampler sampler;
    DM_CB_ST* context = nullptr;
    if (dm_init(&context) != 0)
        return fail(kCannotOpen, "cannot start the message framework");
    const int exit_status = serve(context, transports, signals, sampler, interval);
    dm_destroy(context);
    return exit_status;
}

int run_command_line(int argc, char** argv) {
    CLI::App app("Answers requests for the state of this machine, until SIGINT or SIGTERM. "
                 "SIGHUP begins its sampling anew.");
    Transports transports;
    app.add_option("--udp", transports.udp, "Listen here; port 0 lets the system choose one")
        ->type_name("ADDR:PORT");
    app.add_option("--hdc", transports.hdc, "Be the HDC server of this device id")->type_name("N");
    app.add_option("--ipc", transports.ipc, "Answer on the device manager's channel for this id")
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
        return app.exit(help_or_version);
    } catch (const CLI::ParseError& error) {
        return fail(kWrongUsage, error.what());
    }

    if (transports.udp.empty() && !transports.hdc && !transports.ipc)
        return fail(kWrongUsage, "nowhere to listen: give --udp, --hdc or --ipc");
    transports.udp_endpoint = Endpoint::parse_udp(transports.udp);
    if (!transports.udp.empty() && !transports.udp_endpoint)
        return fail(kWrongUsage, "--udp takes an IPv4 address and a port, such as 127.0.0.1:7400");
    return run(transports, {interval_ms / 1000, interval_ms % 1000 * 1000000L});
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run_command_line(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "dmond: %s\n", error.what());
        return kCannotOpen;
    }
}
