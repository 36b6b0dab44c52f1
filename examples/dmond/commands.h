// dmond's commands: takes a request apart and answers it.
#ifndef DMOND_COMMANDS_H
#define DMOND_COMMANDS_H

#include "dm_msg_intf.h"
#include "dmond_protocol.h"
#include "sampler.h"

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace dmond {

// Serves all interfaces of a context. The framework calls it on the context's poll thread only, so
// it needs no lock.
class CommandHandler {
public:
    // Answers for health out of the sampler, which must outlive the handler.
    explicit CommandHandler(Sampler& sampler) : sampler_(sampler) {}

    // The handler for dm_cmd_register(), with the address of a CommandHandler for its user data.
    static int on_message(DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data, int32_t user_data_len);

private:
    struct Counters {
        std::uint64_t received = 0;
        std::uint64_t answered = 0;
    };

    // The body stays valid until the next request: it lies in the request, in text_, or is fixed.
    struct Reply {
        Status status;
        std::string_view body;
    };

    void answer(DM_INTF_ST& intf, DM_MSG_ST& msg);
    Reply reply_to(std::uint32_t command, std::string_view body, std::size_t max_len);
    Reply reply_with(std::string text, std::size_t max_len);
    std::string stats_text() const;
    bool send(DM_INTF_ST& intf, DM_MSG_ST& msg, const Reply& reply, std::uint32_t sequence);

    Sampler& sampler_;
    std::map<std::string, Counters, std::less<>> counters_; // by the interface's name
    std::string text_;
    // The poll thread has a small stack, so the message is made here.
    std::array<char, DM_MAX_DATA_LEN> message_;
};

} // namespace dmond

#endif
