// Sends requests to one peer and hands out what becomes of them.
#ifndef DMCAT_CLIENT_H
#define DMCAT_CLIENT_H

#include "mailbox.h"
#include "options.h"

#include <chrono>
#include <cstdint>
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
    std::uint32_t sequence = 0;
    std::chrono::microseconds round_trip{}; // from the first sending of the request
    std::string from;                       // a URL
    std::string data;
};

class Client {
public:
    // Opens an interface of its own; throws std::runtime_error when it cannot.
    static std::unique_ptr<Client> open(const Options& options);

    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    virtual ~Client() noexcept(false) = default;

    // Sends a request, which has one reply later.
    virtual void send(std::uint32_t sequence, std::string message) = 0;

    // Waits for a reply, until the deadline if there is one. Gives none when it has passed, or when
    // a signal came.
    std::optional<Reply> take_reply(std::optional<Clock::time_point> deadline) {
        return mailbox_.take(deadline);
    }

    // True once SIGINT or SIGTERM came.
    bool interrupted() { return mailbox_.stopped(); }

protected:
    Mailbox<Reply> mailbox_;
};

} // namespace dmcat

#endif
