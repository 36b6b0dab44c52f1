// What the tests of the framework share: events, contexts, handlers and an interface of their own.
#pragma once

#include "dm_msg_intf.h"

#include <poll.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace support {

constexpr std::chrono::seconds kLimit(30); // of every wait

// Counts what happened; waits until it happened often enough. Ends after kLimit, with false.
class Event {
public:
    void set() {
        const std::lock_guard lock(lock_);
        ++count_;
        changed_.notify_all();
    }
    void reset() {
        const std::lock_guard lock(lock_);
        count_ = 0;
    }
    bool wait(int times = 1) {
        std::unique_lock lock(lock_);
        return changed_.wait_for(lock, kLimit, [&] { return count_ >= times; });
    }
    int count() {
        const std::lock_guard lock(lock_);
        return count_;
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    int count_ = 0;
};

// Waits, by looking again, for something that nobody announces. Ends after kLimit, with false.
bool eventually(const std::function<bool()>& condition);

using MsgFunction = std::function<void(DM_INTF_ST*, DM_MSG_ST*)>;

// A framework context, destroyed at the end of the scope.
class Context {
public:
    Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    ~Context() { dm_destroy(dm_cb_); }

    DM_CB_ST* get() const { return dm_cb_; }
    DM_CB_ST* release() { return std::exchange(dm_cb_, nullptr); }
    DM_INTF_ST* selfloop() const { return dm_get_intf(dm_cb_, "selfloop", 9); }

    // Waits until the poll thread has served all that is ready now. Ends as Event::wait() does.
    bool pass() const;

    // Registers a command handler, which must outlive the context.
    void on_request(MsgFunction& handler);

private:
    DM_CB_ST* dm_cb_ = nullptr;
};

// dm_send_req() with a callback, which must outlive the request, and text as its data.
int send(DM_INTF_ST* intf, std::string_view text, MsgFunction* on_response = nullptr,
         DM_ADDR_ST addr = {});
std::string text_of(const DM_MSG_ST* msg);
// Lets an interface read a message from a pipe that holds the given bytes.
int receive(DM_INTF_ST* intf, std::string_view bytes, DM_MSG_ST* msg, int16_t events = POLLIN);
// Answers a request with text.
int answer(DM_INTF_ST* intf, DM_MSG_ST* msg, std::string_view text);

// What an interface of the tests' own does; it outlives the interface. Its descriptor is readable
// from the first wake() on, and stays so.
struct Transport {
    Transport();
    ~Transport();
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;
    void wake() const;

    // Makes an interface record for this transport, and registers it.
    DM_INTF_ST* make(DM_CB_ST* dm_cb, const char* name);
    DM_INTF_ST* add(const Context& context, const char* name);

    std::function<int(DM_INTF_ST*, DM_MSG_ST*)> recv = [](auto*, auto*) { return -1; };
    std::function<int(DM_INTF_ST*, uint32_t type, uint64_t req_id)> send = [](auto*, auto, auto) {
        return 0;
    };
    std::function<void()> timeout; // set: the interface gets a time-out handler
    std::atomic<int> closed{0};
    int fds[2];
    int32_t retry_cnt = -1;
    uint32_t timeout_ms = 10;
};

} // namespace support
