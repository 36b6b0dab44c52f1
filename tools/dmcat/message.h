// Requests and replies as bytes: with dmond's header for its commands, else as they are.
#ifndef DMCAT_MESSAGE_H
#define DMCAT_MESSAGE_H

#include "dmond_protocol.h"
#include "link.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace dmcat {

std::string make_request(std::optional<dmond::Command> command, std::uint32_t sequence,
                         const std::string& payload);

// A response taken apart.
struct Answer {
    std::optional<std::uint32_t> status; // when there is a header
    std::string_view body;               // lies in the reply
    std::string error;                   // what is wrong with it, printable; empty when it is fine
    bool has_body = true;                // false when the error stands for the body
};

// True when a command is answered with JSON.
bool is_json(std::optional<dmond::Command> command);

Answer read_answer(const Reply& reply, std::optional<dmond::Command> command);

} // namespace dmcat

#endif
