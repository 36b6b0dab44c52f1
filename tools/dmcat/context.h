// A context of the message framework with one interface, which also watches for signals.
#ifndef DMCAT_CONTEXT_H
#define DMCAT_CONTEXT_H

#include "endpoint.h"

#include <cstdint>
#include <functional>
#include <semaphore>

namespace dmcat {

using example::Endpoint;

// Functions that can fail throw std::runtime_error.
class Context {
public:
    // Blocks SIGINT and SIGTERM in the calling thread; `on_signal` runs on the poll thread when one
    // arrives.
    explicit Context(std::function<void()> on_signal);
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    // Waits until no callback runs or will run. Waiting is a cancellation point: the destructor
    // lets a cancelled thread unwind.
    ~Context() noexcept(false);

    // Hands all requests to a handler, with `user_data` as its user data. Comes before open().
    void handle_requests(DM_MSG_HANDLER handler, void* user_data);

    // Gives the interface, which stays the context's, once the poll thread watches it. What arrived
    // before would lie unread until the thread's wait ends, and its round trip would be too long.
    // `timeout_hndl` is dm_udp_init()'s and the others'.
    DM_INTF_ST& open(const Endpoint& endpoint, Endpoint::Role role, DM_DATA_HANDLER timeout_hndl);

    // For timers.
    POLLER_ST* poller() const { return dm_->poller; }

private:
    // The public constructor delegates to it, so that the destructor follows when that one fails.
    Context() = default;

    void await_next_pass();
    static int pass_ended(std::uint32_t interval_ms, std::int32_t elapsed_ms, void* user_data,
                          std::uint32_t user_data_len);
    static int signal_arrived(int fd, int events, void* user_data, std::uint32_t user_data_len);

    std::function<void()> on_signal_;
    std::binary_semaphore pass_ended_{0};
    int signal_fd_ = -1;
    DM_CB_ST* dm_ = nullptr;
    DM_INTF_ST* intf_ = nullptr;
};

} // namespace dmcat

#endif
