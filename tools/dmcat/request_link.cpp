#include "request_link.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace dmcat {

namespace {

// Exchanges at a time. A client of the library's has 64 sessions.
constexpr std::size_t kSenders = 32;

// What goes with a request to its callback. The framework copies it byte by byte.
struct Sent {
    Inbox* inbox;
    std::uint32_t sequence;
};

// The response that a time-out makes. on_response() tells it by the interface that brings it, so
// the byte says nothing; but an empty response would not arrive.
int answer_timeout(DM_DATA_ST* /*req_data*/, DM_DATA_ST* rsp_data) {
    static char byte = 0;
    *rsp_data = {sizeof byte, &byte};
    return 0;
}

Reply make_reply(const DM_INTF_ST& intf, const DM_MSG_ST& msg, std::uint32_t sequence) {
    Reply reply;
    reply.sequence = sequence;
    if (std::string_view(intf.name) == "selfloop") {
        reply.kind = Reply::Kind::timed_out;
        return reply;
    }
    reply.from = Endpoint::source(*msg.addr).url();
    if (msg.data.data_len > DM_MAX_DATA_LEN)
        reply.kind = Reply::Kind::oversized;
    else
        reply.data.assign(static_cast<const char*>(msg.data.data), msg.data.data_len);
    return reply;
}

// On the poll thread.
int on_response(DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data, int32_t /*user_data_len*/) {
    Sent sent{};
    std::memcpy(&sent, user_data, sizeof sent);
    put_guarded(*sent.inbox, [&] { return make_reply(*intf, *msg, sent.sequence); });
    return 0;
}

// dm_send_req() says that a sending failed, but not why. So the interface's own send leaves its
// status here.
DM_SEND_MSG g_send_msg = nullptr; // set before there is anything to send
thread_local int t_status = 0;

int send_and_note(DM_INTF_ST* intf, std::uint32_t type, DM_ADDR_ST* addr, std::uint32_t addr_len,
                  DM_DATA_ST* data, std::uint64_t req_id) {
    t_status = g_send_msg(intf, type, addr, addr_len, data, req_id);
    return t_status;
}

int send_request(DM_INTF_ST& intf, DM_ADDR_ST peer, Inbox& inbox, std::uint32_t sequence,
                 std::string& message) {
    DM_DATA_ST data{static_cast<std::uint16_t>(message.size()), message.data()};
    Sent sent{&inbox, sequence};
    t_status = 0;
    const int status =
        dm_send_req(&intf, &peer, sizeof peer, &data, on_response, &sent, sizeof sent);
    return status == 0 ? 0 : t_status != 0 ? t_status : ENOMEM;
}

// The context keeps the inbox for the callbacks.
std::shared_ptr<Context> open_context(const Options& options, const std::shared_ptr<Inbox>& inbox,
                                      std::int32_t retry, std::uint32_t timeout_ms) {
    auto context = std::make_shared<Context>([inbox] { inbox->stop(); });
    context->open(options.endpoint, Endpoint::Role::client, answer_timeout);
    DM_INTF_ST& intf = context->interface();
    g_send_msg = std::exchange(intf.send_msg, send_and_note);
    if (intf.set_retry(&intf, retry, timeout_ms) != 0)
        throw std::runtime_error("cannot set the time-out");
    return context;
}

// When the framework may forget a request: dmcat has, by then.
std::uint32_t forget_after(const Options& options) {
    const std::uint64_t end_ms =
        std::uint64_t{options.timeout_ms} * (static_cast<std::uint64_t>(options.retry) + 1);
    return static_cast<std::uint32_t>(
        std::min<std::uint64_t>(end_ms, std::numeric_limits<std::int32_t>::max()));
}

} // namespace

UdpLink::UdpLink(const Options& options, const std::shared_ptr<Inbox>& inbox)
    : peer_(options.endpoint.address()), inbox_(*inbox),
      context_(open_context(options, inbox, options.retry, options.timeout_ms)) {}

int UdpLink::send(std::uint32_t sequence, const std::shared_ptr<std::string>& message,
                  Sending /*sending*/) {
    return send_request(context_->interface(), peer_, inbox_, sequence, *message);
}

HdcLink::HdcLink(const Options& options, const std::shared_ptr<Inbox>& inbox)
    : peer_(options.endpoint.address()), inbox_(inbox),
      context_(open_context(options, inbox, 0, forget_after(options))), senders_(kSenders) {}

int HdcLink::send(std::uint32_t sequence, const std::shared_ptr<std::string>& message,
                  Sending sending) {
    // What was sent before still waits for the same server.
    if (sending == Sending::again && senders_.busy())
        return 0;
    // With its last sending a request is over, and that one shall go out all the same.
    senders_.post([context = context_, inbox = inbox_, peer = peer_, sequence, sending,
                   kept = sending == Sending::again ? message : nullptr,
                   wanted = std::weak_ptr(message)] {
        put_guarded(*inbox, [&]() -> std::optional<Reply> {
            const auto text = wanted.lock();
            if (!text)
                return std::nullopt;
            const int status = send_request(context->interface(), peer, *inbox, sequence, *text);
            if (status == 0 || sending == Sending::again)
                return std::nullopt;
            return not_sent(sequence, status);
        });
    });
    return 0;
}

} // namespace dmcat
