// What a user of libuv writes to have a loop answer a thread's requests: a queue with a lock, an
// uv_async_t that wakes the loop, a hash map of the requests under way and a timer for each.
#include "self_loop/works.h"
#include "support/payload.h"
#include "support/signal.h"

#include <uv.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

using bench::require;

struct Message {
    bool is_answer;
    uint64_t request;
    bench::Payload payload;
};

// Any thread puts messages in; the loop takes out what is there, so that what is put meanwhile
// waits for its next turn.
class Queue {
public:
    void put(const Message& message) {
        const std::scoped_lock lock(mutex_);
        messages_.push_back(message);
    }
    const std::vector<Message>& take_all() {
        taken_.clear();
        const std::scoped_lock lock(mutex_);
        taken_.swap(messages_);
        return taken_;
    }

private:
    std::mutex mutex_;
    std::vector<Message> messages_;
    std::vector<Message> taken_;
};

class AsyncAndQueue : public bench::System {
public:
    AsyncAndQueue() {
        require(uv_loop_init(&loop_) == 0, "uv_loop_init");
        const auto call = [](uv_async_t* wake) {
            static_cast<AsyncAndQueue*>(wake->data)->on_wake();
        };
        require(uv_async_init(&loop_, &wake_, call) == 0, "uv_async_init");
        wake_.data = this;
        thread_ = std::thread([this] { uv_run(&loop_, UV_RUN_DEFAULT); });
    }
    AsyncAndQueue(const AsyncAndQueue&) = delete;
    AsyncAndQueue& operator=(const AsyncAndQueue&) = delete;
    ~AsyncAndQueue() override {
        stops_ = true;
        uv_async_send(&wake_);
        thread_.join();
        uv_loop_close(&loop_);
    }

    void run(int operations) override {
        left_ = operations;
        send();
        done_.await();
    }

private:
    using Callback = void (AsyncAndQueue::*)(const Message& answer);

    struct Pending {
        Callback callback;
        uv_timer_t* timer;
    };

    void send() {
        const uint64_t request = ++sent_;
        queue_.put({false, request, bench::payload_of(request)});
        uv_async_send(&wake_);
    }
    void on_wake() {
        if (stops_)
            return close_all();
        for (const Message& message : queue_.take_all()) {
            if (message.is_answer)
                take_answer(message);
            else
                take_request(message);
        }
    }
    // A timer is the loop's own affair, so that it is armed here and not where the request is sent.
    void take_request(const Message& request) {
        pending_.emplace(request.request, Pending{&AsyncAndQueue::on_answer, arm_timer()});
        queue_.put({true, request.request, request.payload});
        uv_async_send(&wake_);
    }
    void take_answer(const Message& answer) {
        const auto found = pending_.find(answer.request);
        require(found != pending_.end(), "an answer that nobody waits for");
        uv_timer_stop(found->second.timer);
        spare_.push_back(found->second.timer);
        (this->*found->second.callback)(answer);
        pending_.erase(found);
        if (--left_ > 0)
            send();
        else
            done_.give();
    }
    void on_answer(const Message& answer) {
        require(bench::is_payload_of(answer.request, answer.payload.data(), answer.payload.size()),
                "a wrong answer");
    }

    uv_timer_t* arm_timer() {
        if (spare_.empty()) {
            spare_.push_back(&timers_.emplace_back());
            uv_timer_init(&loop_, spare_.back());
        }
        uv_timer_t* timer = spare_.back();
        spare_.pop_back();
        const auto ring = [](uv_timer_t*) { require(false, "a time-out"); };
        uv_timer_start(timer, ring, 30000, 0);
        return timer;
    }
    void close_all() {
        uv_close(reinterpret_cast<uv_handle_t*>(&wake_), nullptr);
        for (uv_timer_t& timer : timers_)
            uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
    }

    uv_loop_t loop_{};
    uv_async_t wake_{};
    Queue queue_;
    std::unordered_map<uint64_t, Pending> pending_;
    std::deque<uv_timer_t> timers_; // which keep their places
    std::vector<uv_timer_t*> spare_;
    uint64_t sent_ = 0;
    int left_ = 0;
    std::atomic<bool> stops_ = false;
    bench::Signal done_;
    std::thread thread_;
};

const bench::Peer peer("libuv", [] {
    constexpr const char* name = "libuv, async, queue, map and timer";
    self_loop::add<bench::OneByOne<AsyncAndQueue>>(self_loop::kWaiting, name);
    self_loop::add<AsyncAndQueue>(self_loop::kChained, name);
});

} // namespace
