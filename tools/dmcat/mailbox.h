// Hands what the poll thread receives over to the main thread.
#ifndef DMCAT_MAILBOX_H
#define DMCAT_MAILBOX_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace dmcat {

using Clock = std::chrono::steady_clock;

template<class Item>
class Mailbox {
public:
    void put(Item item) {
        const std::lock_guard lock(mutex_);
        items_.push_back(std::move(item));
        changed_.notify_one();
    }

    // Ends the waiting for good.
    void stop() {
        const std::lock_guard lock(mutex_);
        stopped_ = true;
        changed_.notify_one();
    }

    bool stopped() {
        const std::lock_guard lock(mutex_);
        return stopped_;
    }

    // Waits for an item, until the deadline if there is one. Gives none when it has passed, or when
    // the mailbox is stopped and empty.
    std::optional<Item> take(std::optional<Clock::time_point> deadline = std::nullopt) {
        std::unique_lock lock(mutex_);
        const auto ready = [this] { return stopped_ || !items_.empty(); };
        if (deadline)
            changed_.wait_until(lock, *deadline, ready);
        else
            changed_.wait(lock, ready);
        if (items_.empty())
            return std::nullopt;
        std::optional<Item> item(std::move(items_.front()));
        items_.pop_front();
        return item;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Item> items_;
    bool stopped_ = false;
};

} // namespace dmcat

#endif
