// The floor: a pipe, frames as the library's, each written at once and read at once, poll(2) before
// each read.
#pragma once

#include "dm_loop.h"

#include "self_loop/works.h"
#include "support/payload.h"
#include "support/signal.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <thread>

namespace self_loop {

class Pipe {
public:
    Pipe() { require(pipe(fds_) == 0, "pipe"); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        close(fds_[0]);
        close(fds_[1]);
    }

    void write(uint32_t type, uint64_t request) {
        const bench::Payload payload = bench::payload_of(request);
        out_.type = type;
        out_.req_id = request;
        out_.data_len = sizeof(payload);
        std::memcpy(out_.data, payload.data(), sizeof(payload));
        require(::write(fds_[1], &out_, kFrame) == kFrame, "write");
    }
    const SELF_MSG_ST& read() {
        pollfd ready{fds_[0], POLLIN, 0};
        require(poll(&ready, 1, 30000) == 1, "poll");
        require(::read(fds_[0], &in_, sizeof(in_)) == kFrame, "read");
        return in_;
    }

private:
    static constexpr ssize_t kFrame =
        sizeof(SELF_MSG_ST) - DM_MAX_DATA_LEN + sizeof(bench::Payload);

    int fds_[2] = {};
    SELF_MSG_ST in_{};
    SELF_MSG_ST out_{};
};

inline bool is_answer(const SELF_MSG_ST& frame, uint64_t request) {
    return frame.type == DM_MSG_RSP && frame.req_id == request &&
           bench::is_payload_of(request, frame.data, frame.data_len);
}

enum class Scheduling { normal, real_time };

// A thread reads what a caller writes, writes it once more as the answer, reads that, and tells the
// caller.
class BareWithThread : public bench::System {
public:
    explicit BareWithThread(Scheduling scheduling) {
        if (scheduling == Scheduling::normal)
            return;
        const sched_param priority{60}; // as the library's
        require(pthread_setschedparam(service_.native_handle(), SCHED_RR, &priority) == 0,
                "pthread_setschedparam");
    }
    BareWithThread(const BareWithThread&) = delete;
    BareWithThread& operator=(const BareWithThread&) = delete;
    ~BareWithThread() override {
        pipe_.write(kLast, 0);
        service_.join();
    }

    void run(int operations) override {
        for (int i = 0; i < operations; ++i) {
            pipe_.write(DM_MSG_REQ, ++sent_);
            answer_.await();
        }
    }

private:
    static constexpr uint32_t kLast = 2; // the type of the frame that ends the thread

    void serve() {
        for (;;) {
            const SELF_MSG_ST& frame = pipe_.read();
            if (frame.type == DM_MSG_REQ) {
                pipe_.write(DM_MSG_RSP, frame.req_id);
                continue;
            }
            if (frame.type == kLast)
                return;
            require(is_answer(frame, sent_), "a wrong answer");
            answer_.give();
        }
    }

    Pipe pipe_;
    uint64_t sent_ = 0;
    bench::Signal answer_;
    std::thread service_{[this] { serve(); }};
};

// All in one thread.
class BareAlone : public bench::System {
public:
    void run(int operations) override {
        for (int i = 0; i < operations; ++i) {
            pipe_.write(DM_MSG_REQ, ++sent_);
            pipe_.write(DM_MSG_RSP, pipe_.read().req_id);
            require(is_answer(pipe_.read(), sent_), "a wrong answer");
        }
    }

private:
    Pipe pipe_;
    uint64_t sent_ = 0;
};

} // namespace self_loop
