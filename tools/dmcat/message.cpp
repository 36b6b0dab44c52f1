#include "message.h"

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

namespace dmcat {

namespace {

// The peer chooses the text: it shall neither break the line nor control the terminal.
std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 127; }, '?');
    return text;
}

std::string refusal(std::uint32_t status, std::string_view body) {
    std::string text = "status " + std::to_string(status);
    const auto json = nlohmann::json::parse(body, nullptr, false);
    if (!json.is_object() || !json.contains("error") || !json["error"].is_string())
        return text;
    return text + ": " + printable(json["error"].get<std::string>());
}

} // namespace

std::string make_request(std::optional<dmond::Command> command, std::uint32_t sequence,
                         const std::string& payload) {
    if (!command)
        return payload;
    const dmond::Header header{static_cast<std::uint32_t>(*command), sequence,
                               static_cast<std::uint32_t>(payload.size())};
    std::string message(sizeof header, '\0');
    std::memcpy(message.data(), &header, sizeof header);
    return message + payload;
}

Answer read_answer(const Reply& reply, std::optional<dmond::Command> command) {
    Answer answer;
    answer.body = reply.data;
    if (reply.kind == Reply::Kind::oversized)
        answer.error = "a message that announces too much data";
    if (!command || !answer.error.empty())
        return answer;

    dmond::Header header{};
    if (reply.data.size() < sizeof header) {
        answer.error = "a message shorter than the header";
        return answer;
    }
    std::memcpy(&header, reply.data.data(), sizeof header);
    answer.status = header.code;
    answer.body.remove_prefix(sizeof header);
    if (header.body_len != answer.body.size())
        answer.error = "a body that is not as long as its header says";
    else if (header.code != static_cast<std::uint32_t>(dmond::Status::ok))
        answer.error = refusal(header.code, answer.body);
    else if (header.sequence != reply.sequence)
        answer.error = "another request's sequence number";
    return answer;
}

} // namespace dmcat
