#include "client.h"

#include "dm_loop.h"
#include "udp_endpoint.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace dmcat {

namespace {

// What goes with a request to its callback. The framework copies it byte by byte.
struct Sent {
    Mailbox<Reply>* mailbox;
    std::uint32_t sequence;
    Clock::time_point time;
};

// A peer on this machine is sent to from this machine's own address, which others cannot reach.
sockaddr_in local_endpoint(const sockaddr_in& peer) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(udp::is_loopback(peer) ? INADDR_LOOPBACK : INADDR_ANY);
    return local;
}

// The response that a time-out makes. on_response() tells it by the interface that brings it, so
// the byte says nothing; but an empty response would not arrive.
int answer_timeout(DM_DATA_ST* /*req_data*/, DM_DATA_ST* rsp_data) {
    static char byte = 0;
    *rsp_data = {sizeof byte, &byte};
    return 0;
}

Reply make_reply(const DM_INTF_ST& intf, const DM_MSG_ST& msg) {
    Reply reply;
    if (std::string_view(intf.name) == "selfloop") {
        reply.kind = Reply::Kind::timed_out;
        return reply;
    }
    reply.from = udp::to_endpoint(*msg.addr);
    if (msg.data.data_len > DM_MAX_DATA_LEN)
        reply.kind = Reply::Kind::oversized;
    else
        reply.data.assign(static_cast<const char*>(msg.data.data), msg.data.data_len);
    return reply;
}

} // namespace

Client::Client(const sockaddr_in& peer, std::uint32_t timeout_ms, std::int32_t retry)
    : peer_(udp::to_address(peer)), context_([this] { mailbox_.stop(); }),
      udp_(context_.open_udp(local_endpoint(peer), answer_timeout)) {
    if (udp_.set_retry(&udp_, retry, timeout_ms) != 0)
        throw std::runtime_error("cannot set the time-out");
}

bool Client::send(std::uint32_t sequence, std::string message) {
    DM_DATA_ST data{static_cast<std::uint16_t>(message.size()), message.data()};
    Sent sent{&mailbox_, sequence, Clock::now()};
    return dm_send_req(&udp_, &peer_, DM_UDP_ADDR_LEN, &data, on_response, &sent, sizeof sent) == 0;
}

std::optional<Reply> Client::take_reply(std::optional<Clock::time_point> deadline) {
    return mailbox_.take(deadline);
}

int Client::on_response(DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data,
                        int32_t /*user_data_len*/) {
    const Clock::time_point now = Clock::now();
    Sent sent{};
    std::memcpy(&sent, user_data, sizeof sent);
    // The caller is C: no exception may pass through it.
    try {
        Reply reply = make_reply(*intf, *msg);
        reply.sequence = sent.sequence;
        reply.round_trip = std::chrono::duration_cast<std::chrono::microseconds>(now - sent.time);
        sent.mailbox->put(std::move(reply));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "dmcat: a reply is lost: %s\n", error.what());
        sent.mailbox->stop();
    }
    return 0;
}

} // namespace dmcat
