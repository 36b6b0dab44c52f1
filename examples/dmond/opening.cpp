#include "opening.h"

#include <exception>
#include <system_error>
#include <utility>

namespace dmond {

Opening::Opening(std::function<void()> open, std::function<void()> on_end) {
    try {
        thread_ = std::thread(&Opening::run, this, std::move(open), std::move(on_end));
    } catch (const std::system_error& error) {
        failure_ = std::string("cannot start a thread: ") + error.what();
        ended_ = true;
    }
}

Opening::~Opening() {
    if (thread_.joinable())
        thread_.join();
}

void Opening::run(const std::function<void()>& open, const std::function<void()>& on_end) {
    try {
        open();
    } catch (const std::exception& error) {
        failure_ = error.what();
    }
    ended_ = true;
    on_end();
}

} // namespace dmond
