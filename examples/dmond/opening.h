// Opens a transport on a thread of its own: it may take minutes, as while another daemon has the
// HDC device id, and the other transports serve meanwhile.
#ifndef DMOND_OPENING_H
#define DMOND_OPENING_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>

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

    bool has_ended() const { return state_->ended; }

    // Why there is no transport, once the opening has ended; empty when there is one.
    const std::string& failure() const { return state_->failure; }

private:
    struct State {
        std::string failure;
        std::atomic<bool> ended{false};
    };

    static void run(const std::shared_ptr<State>& state, const std::function<void()>& open,
                    const std::function<void()>& on_end);

    // The thread has a share: it may be left behind as the process ends.
    const std::shared_ptr<State> state_ = std::make_shared<State>();
};

} // namespace dmond

#endif
