#include "opening.h"

#include <exception>
#include <system_error>
#include <thread>
#include <utility>

namespace dmond {

Opening::Opening(std::function<void()> open, std::function<void()> on_end) {
    try {
        std::thread(run, state_, std::move(open), std::move(on_end)).detach();
    } catch (const std::system_error& error) {
        state_->failure = std::string("cannot start a thread: ") + error.what();
        state_->ended = true;
    }
}

Opening::~Opening() {
    state_->ended.wait(false);
}

void Opening::run(const std::shared_ptr<State>& state, const std::function<void()>& open,
                  const std::function<void()>& on_end) {
    try {
        open();
    } catch (const std::exception& error) {
        state->failure = error.what();
    }
    state->ended = true;
    state->ended.notify_all();
    on_end();
}

} // namespace dmond
