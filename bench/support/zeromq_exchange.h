// A dealer, whose thread is the caller's, and a router with a thread. A request's time-out would be
// that of the dealer's wait, so that there is no timer to arm.
#pragma once

#include "support/payload.h"
#include "support/system.h"
#include "support/window.h"
#include "support/zeromq.h"

#include <thread>
#include <unordered_map>

namespace bench {

class ZeroMqExchange : public System {
public:
    // @param endpoint where the router is bound; "inproc" is one context, all else are two.
    ZeroMqExchange(int depth, const std::string& endpoint) : window_(depth), router_(ZMQ_ROUTER) {
        const bool is_inside = endpoint.starts_with("inproc:");
        dealer_ = is_inside ? std::make_unique<ZeroMq>(router_, ZMQ_DEALER)
                            : std::make_unique<ZeroMq>(ZMQ_DEALER);
        dealer_->connect(router_.bind(endpoint));
        service_ = std::thread([this] { serve(); });
    }
    ZeroMqExchange(const ZeroMqExchange&) = delete;
    ZeroMqExchange& operator=(const ZeroMqExchange&) = delete;
    ~ZeroMqExchange() override {
        dealer_->send(nullptr, 0); // ends the service
        service_.join();
    }

    void run(int operations) override {
        window_.begin(operations);
        do {
            while (window_.opens())
                send(&ZeroMqExchange::on_answer);
            take_answer();
        } while (!is_over_);
    }

private:
    struct Message {
        uint64_t request;
        Payload payload;
    };
    using Callback = void (ZeroMqExchange::*)(const Message& answer);

    void send(Callback callback) {
        const uint64_t request = ++sent_;
        const Message message{request, payload_of(request)};
        pending_.emplace(request, callback);
        dealer_->send(&message, sizeof(message));
    }
    void take_answer() {
        Message answer{};
        require(dealer_->receive(&answer, sizeof(answer)) == sizeof(answer), "zmq_recv");
        const auto found = pending_.find(answer.request);
        require(found != pending_.end(), "an answer that nobody waits for");
        (this->*found->second)(answer);
        pending_.erase(found);
    }
    void on_answer(const Message& answer) {
        require(is_payload_of(answer.request, answer.payload.data(), sizeof(answer.payload)),
                "a wrong answer");
        is_over_ = window_.answered();
    }
    void serve() {
        std::array<char, 255> peer{};
        Message message{};
        for (;;) {
            const size_t peer_size = router_.receive(peer.data(), peer.size());
            const size_t size = router_.receive(&message, sizeof(message));
            if (size == 0)
                return;
            router_.send(peer.data(), peer_size, ZMQ_SNDMORE);
            router_.send(&message, size);
        }
    }

    Window window_;
    ZeroMq router_;
    std::unique_ptr<ZeroMq> dealer_;
    bool is_over_ = false;
    uint64_t sent_ = 0;
    std::unordered_map<uint64_t, Callback> pending_;
    std::thread service_;
};

} // namespace bench
