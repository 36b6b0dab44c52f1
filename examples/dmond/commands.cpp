#include "commands.h"

#include "dm_ipc.h"
#include "readings.h"

#include <cstring>
#include <exception>
#include <utility>

namespace dmond {

namespace {

struct Request {
    Status status = Status::ok; // what is wrong with the message, if anything
    Header header{};
    std::string_view body;
};

Request parse(const DM_DATA_ST& data) {
    Request request;
    // The length is the peer's word: above the limit there are no bytes behind it.
    if (data.data_len > DM_MAX_DATA_LEN) {
        request.status = Status::too_large;
        return request;
    }
    if (data.data_len < sizeof(Header)) {
        request.status = Status::short_message;
        return request;
    }
    std::memcpy(&request.header, data.data, sizeof(Header));
    request.body =
        std::string_view(static_cast<const char*>(data.data), data.data_len).substr(sizeof(Header));
    if (request.header.body_len != request.body.size())
        request.status = Status::length_mismatch;
    return request;
}

bool is_ipc(const DM_INTF_ST& intf) {
    return intf.addr.kind == DM_KIND_IPC;
}

std::size_t max_body_len(const DM_INTF_ST& intf) {
    return is_ipc(intf) ? DM_IPC_MAX_LEN - sizeof(Header) : kMaxBodyLen;
}

std::string_view error_text(Status status) {
    switch (status) {
    case Status::unknown_command:
        return R"({"error":"unknown command"})";
    case Status::short_message:
        return R"({"error":"the message is shorter than its header"})";
    case Status::length_mismatch:
        return R"({"error":"the body is not as long as the header says"})";
    case Status::too_large:
        return R"({"error":"the message is too large"})";
    default:
        return R"({"error":"the reading failed"})";
    }
}

} // namespace

int CommandHandler::on_message(DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data,
                               int32_t /*user_data_len*/) {
    (*static_cast<CommandHandler**>(user_data))->answer(*intf, *msg);
    return 0;
}

void CommandHandler::answer(DM_INTF_ST& intf, DM_MSG_ST& msg) {
    const Request request = parse(msg.data);
    // An answer, of another daemon on the channel, is nothing to answer.
    if (is_ipc(intf) && (request.header.code & kAnswerMark) != 0)
        return;
    const std::size_t max_len = max_body_len(intf);
    Reply reply{request.status, {}};
    // The caller is C: no exception may pass through it.
    try {
        ++counters_[intf.name].received;
        if (request.status == Status::ok)
            reply = reply_to(request.header.code, request.body, max_len);
    } catch (const std::exception&) {
        reply.status = Status::internal_error;
    }
    if (reply.status != Status::ok)
        reply.body = error_text(reply.status);
    if (reply.body.size() > max_len)
        reply.body = {};

    const bool sent = send(intf, msg, reply, request.header.sequence);
    if (const auto counters = counters_.find(intf.name); sent && counters != counters_.end())
        ++counters->second.answered;
}

CommandHandler::Reply CommandHandler::reply_to(std::uint32_t command, std::string_view body,
                                               std::size_t max_len) {
    switch (static_cast<Command>(command)) {
    case Command::ping:
        return {Status::ok, body};
    case Command::info:
        return reply_with(json_text(read_info()), max_len);
    case Command::health:
        return reply_with(sampler_.newest(max_len), max_len);
    case Command::stats:
        return reply_with(stats_text(), max_len);
    case Command::tasks:
        return reply_with(json_text(read_tasks()), max_len);
    }
    return {Status::unknown_command, {}};
}

CommandHandler::Reply CommandHandler::reply_with(std::string text, std::size_t max_len) {
    text_ = std::move(text);
    if (text_.size() > max_len)
        return {Status::too_large, {}};
    return {Status::ok, text_};
}

// The request for the statistics counts as received, and not yet as answered.
std::string CommandHandler::stats_text() const {
    Json interfaces = Json::object();
    for (const auto& [name, counters] : counters_)
        interfaces[name] = {{"received", counters.received}, {"answered", counters.answered}};
    return json_text({{"interfaces", std::move(interfaces)}});
}

bool CommandHandler::send(DM_INTF_ST& intf, DM_MSG_ST& msg, const Reply& reply,
                          std::uint32_t sequence) {
    const std::uint32_t mark = is_ipc(intf) ? kAnswerMark : 0;
    const Header header{static_cast<std::uint32_t>(reply.status) | mark, sequence,
                        static_cast<std::uint32_t>(reply.body.size())};
    std::memcpy(message_.data(), &header, sizeof header);
    reply.body.copy(message_.data() + sizeof header, kMaxBodyLen);
    DM_DATA_ST data{static_cast<std::uint16_t>(sizeof header + reply.body.size()), message_.data()};
    return dm_send_rsp(&intf, msg.addr, msg.addr_len, &data, msg.req_id) == 0;
}

} // namespace dmond
