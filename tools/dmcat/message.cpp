#include "message.h"

#include "printable.h"

#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>

namespace dmcat {

namespace {

std::string refusal(std::uint32_t status, std::string_view body) {
    std::string text = "status " + std::to_string(status);
    const auto json = nlohmann::json::parse(body, nullptr, false);
    if (!json.is_object() || !json.contains("error") || !json["error"].is_string())
        return text;
    return text + ": " + printable(json["error"].get<std::string>(), Lines::escaped);
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

bool is_json(std::optional<dmond::Command> command) {
    return command && *command != dmond::Command::ping;
}

Answer read_answer(const Reply& reply, std::optional<dmond::Command> command) {
    Answer answer;
    answer.body = reply.data;
    const auto refuse = [&answer](std::string error) {
        answer.error = std::move(error);
        answer.has_body = false;
        return answer;
    };
    if (reply.kind == Reply::Kind::oversized)
        return refuse("a message that announces too much data");
    if (!command)
        return answer;

    dmond::Header header{};
    if (reply.data.size() < sizeof header)
        return refuse("a message shorter than the header");
    std::memcpy(&header, reply.data.data(), sizeof header);
    answer.status = header.code;
    answer.body.remove_prefix(sizeof header);
    if (header.body_len != answer.body.size())
        return refuse("a body that is not as long as its header says");
    if (header.code != static_cast<std::uint32_t>(dmond::Status::ok))
        return refuse(refusal(header.code, answer.body));
    if (header.sequence != reply.sequence)
        return refuse("another request's sequence number");
    if (is_json(command) && !nlohmann::json::accept(answer.body))
        answer.error = "a body that is not JSON";
    return answer;
}

} // namespace dmcat
