#include "ipc_client.h"

#include "dm_ipc.h"
#include "dmond_protocol.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <random>
#include <utility>

namespace dmcat {

namespace {

// What a timer carries. The poller copies it byte by byte.
struct Timed {
    IpcClient* client;
    std::uint32_t wire_sequence;
};

// The callers of callbacks are C: no exception may pass through them.
template<class Step>
int guarded(Mailbox<Reply>& mailbox, Step step) {
    try {
        step();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "dmcat: a reply is lost: %s\n", error.what());
        mailbox.stop();
    }
    return 0;
}

} // namespace

IpcClient::IpcClient(const Options& options)
    : url_(options.url), peer_(options.endpoint.address()), retry_(options.retry),
      timeout_ms_(options.timeout_ms), first_sequence_(std::random_device()()),
      context_([this] { mailbox_.stop(); }),
      intf_((context_.handle_requests(on_message, this),
             context_.open(options.endpoint, Endpoint::Role::client, nullptr))) {}

void IpcClient::send(std::uint32_t sequence, std::string message) {
    const std::uint32_t wire_sequence = first_sequence_ + sequence;
    dmond::Header header{};
    std::memcpy(&header, message.data(), sizeof header);
    header.sequence = wire_sequence;
    std::memcpy(message.data(), &header, sizeof header);

    const std::lock_guard lock(mutex_);
    const auto [pending, added] = pending_.try_emplace(
        wire_sequence, Pending{sequence, std::move(message), Clock::now(), retry_});
    if (send_message(pending->second.message) && arm_timer(wire_sequence))
        return;
    put(Reply::Kind::not_sent, pending->second);
    pending_.erase(pending);
}

bool IpcClient::send_message(std::string& message) {
    DM_DATA_ST data{static_cast<std::uint16_t>(message.size()), message.data()};
    return intf_.send_msg(&intf_, DM_MSG_REQ, &peer_, DM_IPC_ADDR_LEN, &data, 0) == 0;
}

bool IpcClient::arm_timer(std::uint32_t wire_sequence) {
    Timed timed{this, wire_sequence};
    return poller_timer_add(context_.poller(), timeout_ms_, on_timer, &timed, sizeof timed,
                            nullptr) == 0;
}

void IpcClient::put(Reply::Kind kind, const Pending& pending, std::string data) {
    Reply reply;
    reply.kind = kind;
    reply.sequence = pending.sequence;
    reply.round_trip =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - pending.time);
    reply.from = url_;
    reply.data = std::move(data);
    mailbox_.put(std::move(reply));
}

// Other messages on the channel are requests, and answers for others.
void IpcClient::receive(const DM_MSG_ST& msg) {
    dmond::Header header{};
    if (msg.data.data_len < sizeof header)
        return;
    std::memcpy(&header, msg.data.data, sizeof header);
    if ((header.code & dmond::kAnswerMark) == 0)
        return;
    const std::lock_guard lock(mutex_);
    const auto pending = pending_.find(header.sequence);
    if (pending == pending_.end())
        return;
    header.code &= ~dmond::kAnswerMark;
    header.sequence = pending->second.sequence;
    std::string data(static_cast<const char*>(msg.data.data), msg.data.data_len);
    std::memcpy(data.data(), &header, sizeof header);
    put(Reply::Kind::response, pending->second, std::move(data));
    pending_.erase(pending);
}

// As the framework does it: a request times out with its last sending.
void IpcClient::time_out(std::uint32_t wire_sequence) {
    const std::lock_guard lock(mutex_);
    const auto found = pending_.find(wire_sequence);
    if (found == pending_.end())
        return;
    Pending& pending = found->second;
    if (pending.retry_left > 0) {
        --pending.retry_left;
        if (!send_message(pending.message))
            pending.retry_left = 0;
    }
    if (pending.retry_left > 0 && arm_timer(wire_sequence))
        return;
    put(Reply::Kind::timed_out, pending);
    pending_.erase(found);
}

int IpcClient::on_message(DM_INTF_ST* /*intf*/, DM_MSG_ST* msg, void* user_data,
                          int32_t /*user_data_len*/) {
    IpcClient* const client = *static_cast<IpcClient**>(user_data);
    return guarded(client->mailbox_, [=] { client->receive(*msg); });
}

int IpcClient::on_timer(std::uint32_t /*interval_ms*/, std::int32_t /*elapsed_ms*/, void* user_data,
                        std::uint32_t /*user_data_len*/) {
    Timed timed{};
    std::memcpy(&timed, user_data, sizeof timed);
    return guarded(timed.client->mailbox_, [=] { timed.client->time_out(timed.wire_sequence); });
}

} // namespace dmcat
