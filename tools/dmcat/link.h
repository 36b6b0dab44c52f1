// The way to one peer, over one of the transports.
#ifndef DMCAT_LINK_H
#define DMCAT_LINK_H

#include "mailbox.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace dmcat {

struct Reply {
    enum class Kind {
        response,
        oversized, // a response that announces more than a message can hold, and has no data
        timed_out,
        not_sent,
    };

    Kind kind = Kind::response;
    std::uint32_t sequence = 0; // of the request
    Clock::time_point arrived = Clock::now();
    std::chrono::microseconds round_trip{}; // from the first sending of the request
    std::string from;                       // a URL
    std::string data;
    int status = 0; // of a request that was not sent: the interface's
};

Reply not_sent(std::uint32_t sequence, int status);

// Where links put what arrives, from their own threads.
using Inbox = Mailbox<Reply>;

// Puts what a step makes. No exception passes: the callers are C, or threads. Without memory for a
// reply the inbox is stopped.
void put_guarded(Inbox& inbox, const std::function<std::optional<Reply>()>& step);

class Link {
public:
    Link() = default;
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    virtual ~Link() noexcept(false) = default;

    // True when the link sends again and times out by itself.
    virtual bool keeps_time() const { return false; }

    // Sends a message, maybe after the return, but not for the first time once nobody else holds
    // it. Gives the status of the interface's send_msg; a first sending that fails after the return
    // tells it in the inbox.
    enum class Sending { first, again };
    virtual int send(std::uint32_t sequence, const std::shared_ptr<std::string>& message,
                     Sending sending) = 0;
};

} // namespace dmcat

#endif
