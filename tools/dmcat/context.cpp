#include "context.h"

#include "exit_status.h"
#include "output.h"
#include "workers.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace dmcat {

namespace {

// So long nobody wonders why nothing happens.
constexpr std::chrono::seconds kPatience{1};

// Who ends a program may signal it twice in one go, as timeout(1) does.
constexpr std::chrono::milliseconds kSameSignal{300};

// Blocks the signals for the calling thread and those that it creates.
int open_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

void require(int status, const std::string& failure) {
    if (status != 0)
        throw std::runtime_error(failure);
}

} // namespace

Context::Context(std::function<void()> on_signal) : Context() {
    on_signal_ = std::move(on_signal);
    signal_fd_ = open_signals();
    if (signal_fd_ < 0)
        throw std::system_error(errno, std::generic_category(), "cannot watch for signals");
    require(dm_init(&dm_), "cannot start the message framework");
    Context* const self = this;
    require(poller_fd_add(dm_->poller, signal_fd_, POLLIN, signal_arrived, &self, sizeof(void*)),
            "cannot watch for signals");
}

Context::~Context() noexcept(false) {
    if (intf_ != nullptr)
        dm_intf_deregister(intf_); // waits for its callbacks
    dm_destroy(dm_);               // gives the signal's more time than it takes
    close(signal_fd_);
}

void Context::handle_requests(DM_MSG_HANDLER handler, const void* user_data) {
    require(dm_cmd_register(dm_, handler, nullptr, &user_data, sizeof(void*)),
            "cannot register the command handler");
}

// An HDC server tries for two minutes to get its device id, so another thread opens it.
void Context::open(const Endpoint& endpoint, Endpoint::Role role, DM_DATA_HANDLER timeout_hndl) {
    Workers opener(1);
    opener.post([self = shared_from_this(), endpoint, role, timeout_hndl] {
        std::exception_ptr failure;
        try {
            self->intf_ = &endpoint.open(*self->dm_, role, timeout_hndl);
        } catch (const std::exception&) {
            failure = std::current_exception();
        }
        self->opened_.put(std::move(failure));
    });
    await_opened(endpoint);
    await_next_pass();
}

void Context::await_opened(const Endpoint& endpoint) {
    auto failure = opened_.take(Clock::now() + kPatience);
    if (!failure && !opened_.stopped()) {
        print_error(endpoint.url() + " is not open yet: its id is taken, or its directory of " +
                    "sockets cannot be used (DM_LOG_LEVEL=warning tells why)");
        failure = opened_.take();
    }
    if (!failure)
        throw Interrupted("interrupted before " + endpoint.url() + " was open");
    if (*failure)
        std::rethrow_exception(*failure);
}

// Waits until the poll thread has ended the wait under way, during which it sees no new descriptor.
void Context::await_next_pass() {
    Context* const self = this;
    require(poller_timer_add(dm_->poller, 0, pass_ended, &self, sizeof(void*), nullptr),
            "cannot add a timer");
    pass_ended_.acquire();
}

int Context::pass_ended(std::uint32_t /*interval_ms*/, std::int32_t /*elapsed_ms*/, void* user_data,
                        std::uint32_t /*user_data_len*/) {
    (*static_cast<Context**>(user_data))->pass_ended_.release();
    return 0;
}

int Context::signal_arrived(int fd, int /*events*/, void* user_data,
                            std::uint32_t /*user_data_len*/) {
    // Unread, it would be reported again at once.
    signalfd_siginfo signal{};
    if (read(fd, &signal, sizeof signal) != sizeof signal)
        return 0;
    Context& context = **static_cast<Context**>(user_data);
    if (!context.opened_.stopped()) {
        context.first_signal_ = Clock::now();
        context.opened_.stop();
        context.on_signal_();
    } else if (Clock::now() - context.first_signal_ > kSameSignal) {
        // The main thread is held up, by whoever should read its output.
        _exit(kTimedOut);
    }
    return 0;
}

} // namespace dmcat
