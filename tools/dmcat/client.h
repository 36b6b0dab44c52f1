// Sends requests to one peer and hands out what becomes of them.
#ifndef DMCAT_CLIENT_H
#define DMCAT_CLIENT_H

#include "context.h"
#include "mailbox.h"

#include <chrono>
#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <string>

namespace dmcat {

struct Reply {
    enum class Kind {
        response,
        oversized, // a response that announces more than a message can hold, and has no data
        timed_out
    };

    Kind kind = Kind::response;
    std::uint32_t sequence = 0;
    std::chrono::microseconds round_trip{}; // from the first sending of the request
    sockaddr_in from{};
    std::string data;
};

class Client {
public:
    // Opens an interface of its own; throws std::runtime_error when it cannot.
    Client(const sockaddr_in& peer, std::uint32_t timeout_ms, std::int32_t retry);

    // Sends a request, which has one reply later. Gives false when it cannot.
    bool send(std::uint32_t sequence, std::string message);

    // Waits for a reply, until the deadline if there is one. Gives none when it has passed, or when
    // a signal came.
    std::optional<Reply> take_reply(std::optional<Clock::time_point> deadline);

    // True once SIGINT or SIGTERM came.
    bool interrupted() { return mailbox_.stopped(); }

private:
    static int on_response(DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data,
                           int32_t user_data_len);

    DM_ADDR_ST peer_;
    Mailbox<Reply> mailbox_;
    Context context_; // goes first: its callbacks use the mailbox
    DM_INTF_ST& udp_;
};

} // namespace dmcat

#endif
