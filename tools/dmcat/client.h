// Sends requests to one peer and hands out what becomes of them.
#ifndef DMCAT_CLIENT_H
#define DMCAT_CLIENT_H

#include "link.h"
#include "options.h"
#include "outstanding.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace dmcat {

class Client {
public:
    // Opens an interface of its own; throws std::runtime_error when it cannot, Interrupted when a
    // signal came first.
    explicit Client(const Options& options);

    // Sends a request, which has one reply later.
    void send(std::uint32_t sequence, std::string message);

    // Waits for a reply, until the deadline if there is one. Gives none when it has passed, or when
    // a signal came.
    std::optional<Reply> take_reply(std::optional<Clock::time_point> deadline);

    // True once SIGINT or SIGTERM came.
    bool interrupted() { return inbox_->stopped(); }

private:
    std::optional<Clock::time_point> next_due();
    std::optional<Reply> work_off(Clock::time_point now);

    const std::int32_t retry_;
    const std::shared_ptr<Inbox> inbox_ = std::make_shared<Inbox>();
    const std::unique_ptr<Link> link_;
    Outstanding outstanding_;
};

} // namespace dmcat

#endif
