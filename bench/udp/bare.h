// The floor: bare sockets, a thread with poll(2) at each end, frames of the library's size.
#pragma once

#include "support/window.h"
#include "udp/datagram.h"
#include "udp/works.h"

#include "platform_bounds.h"

#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

namespace udp {

// When an end asks poll(2): before each datagram, or when there is none left.
enum class Polls { each_time, when_empty };

// What each message is given: nothing but its system calls, or also what the library's contract
// asks for: buffers that are allocated and filled, and the poll thread's two pipes among the
// descriptors.
enum class Duties { none, stated };

// A buffer of a message, filled as often as it is on the library's way.
class Filled {
public:
    Filled(std::size_t size, int times) : bytes_(std::malloc(size)) {
        while (times-- > 0)
            require(memset_s(bytes_, size, 0, size) == 0, "memset_s");
    }
    Filled(const Filled&) = delete;
    Filled& operator=(const Filled&) = delete;
    ~Filled() { std::free(bytes_); }

private:
    void* bytes_;
};

template<Polls kPolls, Duties kDuties = Duties::none>
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
                if (kDuties == Duties::stated)
                    require(memset_s(record_, sizeof(record_), 0, sizeof(record_)) == 0,
                            "memset_s");
                send(client_, frame_, address_);
            }
            await(client_, frame_, from);
            require(is_answer(frame_, ++answered_), "an answer out of its order");
        } while (!window_.answered());
    }

private:
    static constexpr uint16_t kLast = 2; // the marker of the datagram that ends the service

    void await(const Socket& socket, Frame& frame, sockaddr_in& from) const {
        if (kPolls == Polls::when_empty && receive(socket, frame, from))
            return;
        pollfd ready[]{{socket.fd(), POLLIN, 0}, {idle_.fds[0], POLLIN, 0}, {idle_.fds[1], 0, 0}};
        require(poll(ready, kDuties == Duties::stated ? 3 : 1, 30000) == 1, "poll");
        require(receive(socket, frame, from), "recvfrom");
    }
    static bool receive(const Socket& socket, Frame& frame, sockaddr_in& from) {
        if (kDuties == Duties::none)
            return socket.receive(frame, kFull, from);
        const Filled data(DM_MAX_DATA_LEN, 1);
        const Filled received(kFull, 1);
        return socket.receive(frame, kFull, from);
    }
    static void send(const Socket& socket, const Frame& frame, const sockaddr_in& to) {
        if (kDuties == Duties::none)
            return socket.send(frame, kFull, to);
        const Filled sent(kFull, 2);
        socket.send(frame, kFull, to);
    }

    void serve() const {
        Frame frame{};
        sockaddr_in from{};
        for (await(server_, frame, from); frame.marker != kLast; await(server_, frame, from)) {
            frame.type = DM_MSG_RSP;
            send(server_, frame, from);
        }
    }

    // One that nobody writes into.
    struct Idle {
        Idle() { require(pipe(fds) == 0, "pipe"); }
        Idle(const Idle&) = delete;
        Idle& operator=(const Idle&) = delete;
        ~Idle() {
            close(fds[0]);
            close(fds[1]);
        }
        int fds[2] = {};
    };

    bench::Window window_;
    Idle idle_;
    uint8_t record_[DM_MAX_DATA_LEN + 256] = {}; // about what a pending request is
    Socket server_;
    Socket client_;
    const sockaddr_in address_ = address_of(server_.fd());
    Frame frame_{};
    uint64_t sent_ = 0;
    uint64_t answered_ = 0;
    std::thread service_{[this] { serve(); }};
};

} // namespace udp
