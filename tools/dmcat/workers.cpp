#include "workers.h"

#include <atomic>
#include <chrono>
#include <system_error>
#include <utility>

namespace dmcat {

namespace {

// What a call takes that nobody holds up: its last steps may follow the reply.
constexpr std::chrono::milliseconds kGrace{100};

std::atomic<bool> g_left_behind{false};

} // namespace

bool Workers::left_behind() {
    return g_left_behind;
}

Workers::~Workers() noexcept(false) {
    std::unique_lock lock(shared_->mutex);
    shared_->ended = true;
    shared_->jobs.clear();
    shared_->changed.notify_all();
    const bool ended =
        shared_->changed.wait_for(lock, kGrace, [this] { return shared_->running == 0; });
    lock.unlock();
    if (!ended)
        g_left_behind = true;
    for (std::thread& thread : threads_)
        ended ? thread.join() : thread.detach();
}

void Workers::post(Job job) {
    const std::lock_guard lock(shared_->mutex);
    shared_->jobs.push_back(std::move(job));
    if (shared_->idle < shared_->jobs.size() && threads_.size() < max_threads_)
        start_thread();
    shared_->changed.notify_all();
}

bool Workers::busy() {
    const std::lock_guard lock(shared_->mutex);
    return shared_->idle <= shared_->jobs.size() && threads_.size() == max_threads_;
}

// The lock is held.
void Workers::start_thread() {
    try {
        threads_.emplace_back([shared = shared_] { work(*shared); });
        ++shared_->running;
    } catch (const std::system_error& error) {
        max_threads_ = threads_.size();
        if (max_threads_ != 0)
            return;
        shared_->jobs.pop_back();
        throw std::system_error(error.code(), "cannot start a thread");
    }
}

void Workers::work(Shared& shared) {
    std::unique_lock lock(shared.mutex);
    for (;;) {
        ++shared.idle;
        shared.changed.wait(lock, [&] { return shared.ended || !shared.jobs.empty(); });
        --shared.idle;
        if (shared.ended)
            break;
        Job job = std::move(shared.jobs.front());
        shared.jobs.pop_front();
        lock.unlock();
        job();
        job = nullptr; // with what it holds
        lock.lock();
    }
    --shared.running;
    shared.changed.notify_all();
}

} // namespace dmcat
