// dmond, a device-monitor daemon: answers requests for the state of the machine.
//
// This file is the whole life of a service on the message framework, in the order of its steps:
// create a context, register a command handler, open a transport, wait, take everything down.

#include "commands.h"
#include "dm_msg_intf.h"
#include "dm_udp.h"
#include "sampler.h"
#include "udp_endpoint.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

namespace {

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

// Waits for a signal that ends the service. SIGHUP begins the sampling anew.
void wait_for_end(const sigset_t& signals, dmond::Sampler& sampler) {
    int signal = 0;
    while (sigwait(&signals, &signal) == 0 && signal == SIGHUP)
        if (!sampler.restart())
            std::fprintf(stderr, "dmond: cannot create a task for the readings\n");
}

// Opens the transport, and answers requests until a signal ends the service.
int serve(DM_CB_ST* context, const sockaddr_in& endpoint, const sigset_t& signals,
          dmond::Sampler& sampler) {
    // The user data is copied, so what is registered is the handler's address. The handler comes
    // before the transport: no request finds the context without one.
    dmond::CommandHandler handler(sampler);
    dmond::CommandHandler* const user_data = &handler;
    if (dm_cmd_register(context, dmond::CommandHandler::on_message, nullptr, &user_data,
                        sizeof(void*)) != 0)
        return fail(kCannotOpen, "cannot register the command handler");

    DM_INTF_ST* intf = nullptr;
    DM_ADDR_ST address = udp::to_address(endpoint);
    if (const int status = dm_udp_init(&intf, context, nullptr, &address, nullptr, 0); status != 0)
        return fail(kCannotOpen, "cannot open udp://" + udp::endpoint_text(endpoint) + ": " +
                                     std::strerror(std::abs(status)));

    // From here on requests are answered, on the context's poll thread.
    std::printf("dmond: listening on udp://%s\n",
                udp::endpoint_text(udp::bound_endpoint(*intf)).c_str());
    std::fflush(stdout);

    wait_for_end(signals, sampler);

    // Waits for a handler that is running, so that ours may go when this function returns.
    dm_intf_deregister(intf);
    return 0;
}

int run(const sockaddr_in& endpoint, std::chrono::milliseconds interval) {
    const sigset_t signals = block_signals();
    dmond::Sampler sampler(interval);
    DM_CB_ST* context = nullptr;
    if (dm_init(&context) != 0)
        return fail(kCannotOpen, "cannot start the message framework");
    const int exit_status = serve(context, endpoint, signals, sampler);
    dm_destroy(context);
    return exit_status;
}

int run_command_line(int argc, char** argv) {
    CLI::App app("Answers requests for the state of this machine, until SIGINT or SIGTERM. "
                 "SIGHUP begins its sampling anew.");
    std::string listen_at;
    app.add_option("--udp", listen_at, "Where to listen; port 0 lets the system choose one")
        ->type_name("ADDR:PORT")
        ->required();
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

    const std::optional<sockaddr_in> endpoint = udp::parse_endpoint(listen_at);
    if (!endpoint)
        return fail(kWrongUsage, "--udp takes an IPv4 address and a port, such as 127.0.0.1:7400");
    return run(*endpoint, std::chrono::milliseconds(interval_ms));
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
