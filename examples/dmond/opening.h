// Opens a transport on a thread of its own: it may take minutes, as while another daemon has the
// HDC device id, and the other transports serve meanwhile.
#ifndef DMOND_OPENING_H
#define DMOND_OPENING_H

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace dmond {

class Opening {
public:
    // Calls `open` and then `on_end`, both on the new thread. `open` throws a std::exception that
    // tells why the transport cannot be opened. An opening without a thread has ended, and failed.
    Opening(std::function<void()> open, std::function<void()> on_end);
    Opening(const Opening&) = delete;
    Opening& operator=(const Opening&) = delete;
    // Waits for the end.
    ~Opening();

    bool has_ended() const { return ended_; }

    // Why there is no transport, once the opening has ended; empty when there is one.
    const std::string& failure() const { return failure_; }

private:
    void run(const std::function<void()>& open, const std::function<void()>& on_end);

    std::string failure_;
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

} // namespace dmond

#endif
