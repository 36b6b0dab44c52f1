#include "request_client.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <pthread.h>
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
    reply.from = Endpoint::source(*msg.addr).url();
    if (msg.data.data_len > DM_MAX_DATA_LEN)
        reply.kind = Reply::Kind::oversized;
    else
        reply.data.assign(static_cast<const char*>(msg.data.data), msg.data.data_len);
    return reply;
}

} // namespace

RequestClient::RequestClient(const Options& options)
    : peer_(options.endpoint.address()),
      send_blocks_(options.endpoint.transport() == Endpoint::Transport::hdc),
      context_([this] { mailbox_.stop(); }),
      intf_(context_.open(options.endpoint, Endpoint::Role::client, answer_timeout)) {
    if (intf_.set_retry(&intf_, options.retry, options.timeout_ms) != 0)
        throw std::runtime_error("cannot set the time-out");
}

// Nobody waits any more for what is still being sent.
RequestClient::~RequestClient() noexcept(false) {
    for (Sending& sending : sendings_) {
        pthread_cancel(sending.thread.native_handle());
        sending.thread.join();
    }
}

void RequestClient::send(std::uint32_t sequence, std::string message) {
    if (!send_blocks_)
        return send_now(sequence, message);
    std::erase_if(sendings_, [](Sending& sending) {
        if (!sending.done)
            return false;
        sending.thread.join();
        return true;
    });
    Sending& sending = sendings_.emplace_back();
    sending.thread = std::thread([this, &sending, sequence, text = std::move(message)]() mutable {
        send_now(sequence, text);
        sending.done = true;
    });
}

void RequestClient::send_now(std::uint32_t sequence, std::string& message) {
    DM_DATA_ST data{static_cast<std::uint16_t>(message.size()), message.data()};
    Sent sent{&mailbox_, sequence, Clock::now()};
    if (dm_send_req(&intf_, &peer_, sizeof peer_, &data, on_response, &sent, sizeof sent) == 0)
        return;
    Reply reply;
    reply.kind = Reply::Kind::not_sent;
    reply.sequence = sequence;
    mailbox_.put(std::move(reply));
}

int RequestClient::on_response(DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data,
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
