#include "client.h"

#include "ipc_link.h"
#include "request_link.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace dmcat {

namespace {

std::unique_ptr<Link> open_link(const Options& options, const std::shared_ptr<Inbox>& inbox) {
    switch (options.endpoint.transport()) {
    case Endpoint::Transport::ipc:
        return std::make_unique<IpcLink>(options, inbox);
    case Endpoint::Transport::hdc:
        return std::make_unique<HdcLink>(options, inbox);
    default:
        return std::make_unique<UdpLink>(options, inbox);
    }
}

using Deadline = std::optional<Clock::time_point>;

Deadline earlier(const Deadline& a, const Deadline& b) {
    return a && b ? std::min(a, b) : a ? a : b;
}

} // namespace

Client::Client(const Options& options)
    : retry_(options.retry), link_(open_link(options, inbox_)),
      outstanding_(std::chrono::milliseconds(options.timeout_ms)) {}

void Client::send(std::uint32_t sequence, std::string message) {
    const auto shared = std::make_shared<std::string>(std::move(message));
    outstanding_.add(sequence, shared, retry_);
    if (const int status = link_->send(sequence, shared, Link::Sending::first); status != 0)
        inbox_->put(not_sent(sequence, status));
}

std::optional<Reply> Client::take_reply(Deadline deadline) {
    for (;;) {
        if (auto reply = inbox_->take(earlier(deadline, next_due()))) {
            const auto request = outstanding_.take(reply->sequence);
            if (!request)
                continue; // late, or another's
            reply->round_trip = std::chrono::duration_cast<std::chrono::microseconds>(
                reply->arrived - request->sent);
            return reply;
        }
        if (interrupted())
            return std::nullopt;
        const Clock::time_point now = Clock::now();
        if (auto timed_out = work_off(now))
            return timed_out;
        if (deadline && now >= *deadline)
            return std::nullopt;
    }
}

Deadline Client::next_due() {
    if (link_->keeps_time() || outstanding_.empty())
        return std::nullopt;
    return outstanding_.first().due;
}

// Sends again what is due, until a request has timed out. As the framework does it, a request times
// out with its last sending.
std::optional<Reply> Client::work_off(Clock::time_point now) {
    for (Deadline due = next_due(); due && *due <= now; due = next_due()) {
        Outstanding::Request& request = outstanding_.first();
        if (request.retry_left > 0 &&
            link_->send(request.sequence, request.message, Link::Sending::again) != 0)
            request.retry_left = 0;
        if (--request.retry_left <= 0) {
            Reply timed_out;
            timed_out.kind = Reply::Kind::timed_out;
            timed_out.sequence = request.sequence;
            outstanding_.take(timed_out.sequence);
            return timed_out;
        }
        outstanding_.postpone_first();
    }
    return std::nullopt;
}

} // namespace dmcat
