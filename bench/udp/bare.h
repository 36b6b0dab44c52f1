// The floor: bare sockets, a thread with poll(2) at each end, frames of the library's size.
#pragma once

#include "support/window.h"
#include "udp/datagram.h"
#include "udp/works.h"

#include <poll.h>

#include <thread>

namespace udp {

// When an end asks poll(2): before each datagram, or when there is none left.
enum class Polls { each_time, when_empty };

template<Polls kPolls>
class Bare : public bench::System {
public:
    explicit Bare(int depth) : window_(depth) {}
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;
    ~Bare() override {
        frame_.marker = kLast;
        client_.send(frame_, kFull, address_);
        service_.join();
    }

    void run(int operations) override {
        window_.begin(operations);
        sockaddr_in from{};
        do {
            while (window_.opens()) {
                make_request(frame_, ++sent_);
                client_.send(frame_, kFull, address_);
            }
            await(client_, frame_, from);
            require(is_answer(frame_, ++answered_), "an answer out of its order");
        } while (!window_.answered());
    }

private:
    static constexpr uint16_t kLast = 2; // the marker of the datagram that ends the service

    static void await(const Socket& socket, Frame& frame, sockaddr_in& from) {
        if (kPolls == Polls::when_empty && socket.receive(frame, kFull, from))
            return;
        pollfd ready{socket.fd(), POLLIN, 0};
        require(poll(&ready, 1, 30000) == 1, "poll");
        require(socket.receive(frame, kFull, from), "recvfrom");
    }

    void serve() const {
        Frame frame{};
        sockaddr_in from{};
        for (await(server_, frame, from); frame.marker != kLast; await(server_, frame, from)) {
            frame.type = DM_MSG_RSP;
            server_.send(frame, kFull, from);
        }
    }

    bench::Window window_;
    Socket server_;
    Socket client_;
    const sockaddr_in address_ = address_of(server_.fd());
    Frame frame_{};
    uint64_t sent_ = 0;
    uint64_t answered_ = 0;
    std::thread service_{[this] { serve(); }};
};

} // namespace udp
