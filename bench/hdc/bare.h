// The floor: the exchange that the library makes, between the same threads, over the same kind of
// socket and the same pipes, with blocking calls and nothing else.
//
// The caller connects, sends, receives and hands the answer over through the client's pipe. A
// thread of the server accepts; one for each session receives and hands over through the server's
// pipe; the server's poll thread answers on the session and closes it. The client's poll thread
// calls back.
#pragma once

#include "dm_hdc.h"

#include "hdc/works.h"
#include "support/payload.h"
#include "support/signal.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <thread>

namespace hdc {

using Frame = HDC_MSG_ST;

inline constexpr ssize_t kFrame = DM_HDC_HEADER_LEN + sizeof(bench::Payload);

// A pipe, and a thread that reads frames out of it.
class HandOver {
public:
    using Handler = std::function<void(const Frame&)>;

    explicit HandOver(Handler handler) : handler_(std::move(handler)) {
        require(pipe(fds_) == 0, "pipe");
        thread_ = std::thread([this] { read_all(); });
    }
    HandOver(const HandOver&) = delete;
    HandOver& operator=(const HandOver&) = delete;
    ~HandOver() {
        Frame last{};
        last.type = kLast;
        write(fds_[1], last);
        thread_.join();
        close(fds_[0]);
        close(fds_[1]);
    }

    int write_end() const { return fds_[1]; }

    static void write(int fd, const Frame& frame) {
        require(::write(fd, &frame, kFrame) == kFrame, "write");
    }

private:
    static constexpr uint32_t kLast = 2; // the type of the frame that ends the thread

    void read_all() const {
        for (Frame frame{};;) {
            pollfd ready{fds_[0], POLLIN, 0};
            require(poll(&ready, 1, 30000) == 1, "poll");
            require(read(fds_[0], &frame, kFrame) == kFrame, "read");
            if (frame.type == kLast)
                return;
            handler_(frame);
        }
    }

    const Handler handler_;
    int fds_[2] = {};
    std::thread thread_;
};

class Bare : public bench::System {
public:
    Bare() {
        address_.sun_family = AF_UNIX;
        new_path().copy(address_.sun_path, sizeof(address_.sun_path) - 1);
        require(bind(listener_, generic(), sizeof(address_)) == 0, "bind");
        require(listen(listener_, 64) == 0, "listen");
        pthread_attr_init(&session_thread_);
        pthread_attr_setdetachstate(&session_thread_, PTHREAD_CREATE_DETACHED);
        pthread_attr_setstacksize(&session_thread_, 131072); // as the library's
        accepting_ = std::thread([this] { accept_all(); });
    }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;
    ~Bare() override {
        shutdown(listener_, SHUT_RDWR); // ends the accepting
        accepting_.join();
        close(listener_);
        pthread_attr_destroy(&session_thread_);
    }

    void run(int operations) override {
        for (int i = 0; i < operations; ++i)
            exchange();
    }

private:
    // What a session's thread is given.
    struct Accepted {
        int session;
        int write_end;
    };

    void exchange() {
        Frame frame{};
        const bench::Payload payload = bench::payload_of(++sent_);
        frame.req_id = sent_;
        frame.data_len = sizeof(payload);
        std::memcpy(frame.data, payload.data(), sizeof(payload));
        const int session = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        require(connect(session, generic(), sizeof(address_)) == 0, "connect");
        require(send(session, &frame, kFrame, 0) == kFrame, "send");
        receive(session, frame);
        HandOver::write(client_.write_end(), frame);
        close(session);
        answer_.await();
    }
    static void receive(int session, Frame& frame) {
        require(recv(session, &frame, sizeof(frame), 0) == kFrame, "recv");
    }

    void accept_all() const {
        for (;;) {
            const int session = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (session < 0)
                return;
            pthread_t thread = 0;
            auto accepted = std::make_unique<Accepted>(Accepted{session, server_.write_end()});
            require(pthread_create(&thread, &session_thread_, receive_request, accepted.get()) == 0,
                    "pthread_create");
            static_cast<void>(accepted.release()); // the thread's
        }
    }
    static void* receive_request(void* arg) {
        const std::unique_ptr<Accepted> accepted(static_cast<Accepted*>(arg));
        Frame frame;
        receive(accepted->session, frame);
        frame.session = static_cast<uint64_t>(accepted->session);
        HandOver::write(accepted->write_end, frame);
        return nullptr;
    }
    static void answer(const Frame& request) {
        Frame frame = request;
        frame.type = DM_MSG_RSP;
        const int session = static_cast<int>(request.session);
        require(send(session, &frame, kFrame, 0) == kFrame, "send");
        close(session);
    }
    void take_answer(const Frame& frame) {
        require(frame.type == DM_MSG_RSP && frame.req_id == sent_ &&
                    bench::is_payload_of(sent_, frame.data, frame.data_len),
                "a wrong answer");
        answer_.give();
    }

    const sockaddr* generic() const { return reinterpret_cast<const sockaddr*>(&address_); }

    uint64_t sent_ = 0;
    bench::Signal answer_;
    HandOver server_{[](const Frame& frame) { answer(frame); }};
    HandOver client_{[this](const Frame& frame) { take_answer(frame); }};
    sockaddr_un address_{};
    const int listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    pthread_attr_t session_thread_{};
    std::thread accepting_;
};

} // namespace hdc
