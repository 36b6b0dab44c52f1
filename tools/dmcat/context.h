// A context of the message framework with one interface, which also watches for signals.
#ifndef DMCAT_CONTEXT_H
#define DMCAT_CONTEXT_H

#include "endpoint.h"
#include "mailbox.h"

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <semaphore>
#include <stdexcept>

namespace dmcat {

using example::Endpoint;

// A signal came before there was anything to do.
struct Interrupted : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Functions that can fail throw std::runtime_error.
class Context : public std::enable_shared_from_this<Context> {
public:
    // Blocks SIGINT and SIGTERM in the calling thread; `on_signal` runs on the poll thread when one
    // arrives. A later one ends the process at once. What `on_signal` holds lives as long as the
    // context: it can be user data of callbacks.
    explicit Context(std::function<void()> on_signal);
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    // Waits until no callback runs or will run. Waiting is a cancellation point: the destructor
    // lets a cancelled thread unwind.
    ~Context() noexcept(false);

    // Hands all requests to a handler, with `user_data` as its user data. Comes before open().
    void handle_requests(DM_MSG_HANDLER handler, const void* user_data);

    // Returns once the poll thread watches the interface. What arrived before would lie unread
    // until the thread's wait ends, and its round trip would be too long. Says so when opening
    // takes long. Throws Interrupted when a signal comes first; then a thread holds the context for
    // as long as it may still be opening.
    void open(const Endpoint& endpoint, Endpoint::Role role, DM_DATA_HANDLER timeout_hndl);

    // The one that was opened, which stays the context's.
    DM_INTF_ST& interface() const { return *intf_; }

private:
    // The public constructor delegates to it, so that the destructor follows when that one fails.
    Context() = default;

    void await_opened(const Endpoint& endpoint);
    void await_next_pass();
    static int pass_ended(std::uint32_t interval_ms, std::int32_t elapsed_ms, void* user_data,
                          std::uint32_t user_data_len);
    static int signal_arrived(int fd, int events, void* user_data, std::uint32_t user_data_len);

    std::function<void()> on_signal_;
    Mailbox<std::exception_ptr> opened_; // none: it is open
    std::binary_semaphore pass_ended_{0};
    Clock::time_point first_signal_; // the poll thread's
    int signal_fd_ = -1;
    DM_CB_ST* dm_ = nullptr;
    DM_INTF_ST* intf_ = nullptr;
};

} // namespace dmcat

#endif
