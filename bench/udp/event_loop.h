// What a user of an event loop writes around it to do what the library does: requests by their
// number in a hash map, a timer for each, a callback for the answer.
//
// A loop has run(), which returns after stop(); wake(), for any thread, which has it call what the
// constructor was given; a Port, which sends datagrams and calls a function with each that comes;
// and a Timer.
#pragma once

#include "support/signal.h"
#include "support/window.h"
#include "udp/datagram.h"
#include "udp/works.h"

#include <sys/eventfd.h>

#include <atomic>
#include <deque>
#include <functional>
#include <thread>
#include <unordered_map>
#include <vector>

namespace udp {

inline constexpr uint64_t kTimeoutMs = 30000;

// A port for loops that watch descriptors: it reads one datagram each time that there is one.
template<class Loop>
class WatchedPort {
public:
    using Receiver = std::function<void(Frame&, const sockaddr_in&)>;

    WatchedPort(Loop& loop, size_t size, Receiver receiver)
        : size_(size), receiver_(std::move(receiver)) {
        loop.watch(socket_.fd(), [this] { receive(); });
    }
    sockaddr_in address() const { return address_of(socket_.fd()); }
    void send(const Frame& frame, const sockaddr_in& to) const { socket_.send(frame, size_, to); }

private:
    void receive() {
        sockaddr_in from{};
        if (socket_.receive(frame_, size_, from))
            receiver_(frame_, from);
    }

    const size_t size_;
    const Receiver receiver_;
    Socket socket_;
    Frame frame_{};
};

// What wakes such a loop.
class WakeFd {
public:
    WakeFd() = default;
    WakeFd(const WakeFd&) = delete;
    WakeFd& operator=(const WakeFd&) = delete;
    ~WakeFd() { close(fd_); }

    int fd() const { return fd_; }
    void wake() const { require(eventfd_write(fd_, 1) == 0, "eventfd_write"); }
    void drain() const {
        eventfd_t count = 0;
        eventfd_read(fd_, &count);
    }

private:
    const int fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
};

// What all such loops have in common, around one that can watch descriptors, run and stop.
template<class Watcher>
class WatchingLoop : private WakeFd, public Watcher {
public:
    using Port = WatchedPort<WatchingLoop>;
    using WakeFd::wake;

    explicit WatchingLoop(const std::function<void()>& on_wake) {
        this->watch(fd(), [this, on_wake] {
            drain();
            on_wake();
        });
    }
};

template<class Loop>
class EventLoop : public bench::System {
public:
    EventLoop(int depth, size_t frame_size)
        : window_(depth), server_port_(server_, frame_size,
                                       [this](Frame& frame, const sockaddr_in& from) {
                                           frame.type = DM_MSG_RSP;
                                           server_port_.send(frame, from);
                                       }),
          client_port_(client_, frame_size,
                       [this](const Frame& frame, const sockaddr_in&) { take_answer(frame); }),
          address_(server_port_.address()) {}
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;
    ~EventLoop() override {
        stops_ = true;
        server_.wake();
        client_.wake();
        server_thread_.join();
        client_thread_.join();
    }

    void run(int operations) override {
        window_.begin(operations);
        client_.wake();
        done_.await();
    }

private:
    using Callback = void (EventLoop::*)(uint64_t number, const Frame& answer);

    struct Request {
        explicit Request(Loop& loop) : timer(loop) {}
        typename Loop::Timer timer;
        Callback callback = nullptr;
    };

    void on_server_wake() {
        if (stops_)
            server_.stop();
    }
    void on_client_wake() {
        if (stops_)
            client_.stop();
        else
            fill_window();
    }

    void fill_window() {
        while (window_.opens())
            send(&EventLoop::on_answer);
    }
    void send(Callback callback) {
        const uint64_t number = ++sent_;
        Request* request = take_request();
        request->callback = callback;
        request->timer.arm(kTimeoutMs);
        pending_.emplace(number, request);
        make_request(frame_, number);
        client_port_.send(frame_, address_);
    }
    void take_answer(const Frame& frame) {
        const auto found = pending_.find(frame.req_id);
        require(found != pending_.end(), "an answer that nobody waits for");
        Request* request = found->second;
        request->timer.cancel();
        (this->*request->callback)(found->first, frame);
        pending_.erase(found);
        spare_.push_back(request);
        fill_window_or_end();
    }
    void on_answer(uint64_t number, const Frame& answer) {
        require(is_answer(answer, number), "a wrong answer");
        is_over_ = window_.answered();
    }
    void fill_window_or_end() {
        if (is_over_)
            done_.give();
        else
            fill_window();
    }

    Request* take_request() {
        if (spare_.empty())
            return &requests_.emplace_back(client_);
        Request* request = spare_.back();
        spare_.pop_back();
        return request;
    }

    bench::Window window_;
    std::atomic<bool> stops_ = false;
    bool is_over_ = false;
    Loop server_{[this] { on_server_wake(); }};
    Loop client_{[this] { on_client_wake(); }};
    typename Loop::Port server_port_;
    typename Loop::Port client_port_;
    const sockaddr_in address_;
    Frame frame_{};
    uint64_t sent_ = 0;
    std::unordered_map<uint64_t, Request*> pending_;
    std::deque<Request> requests_; // which keep their places
    std::vector<Request*> spare_;
    bench::Signal done_;
    std::thread server_thread_{[this] { server_.run(); }};
    std::thread client_thread_{[this] { client_.run(); }};
};

// Registers a loop with frames that are no longer than they must be, and with the library's.
template<class Loop>
void add_event_loop(const std::string& name) {
    add<EventLoop<Loop>>(name + ", map and timer, frames of 106 bytes", kSmall);
    add<EventLoop<Loop>>(name + ", map and timer, frames of 4138 bytes", kFull);
}

} // namespace udp
