// The health of the machine: all its readings, each of them on a task of its own.
#ifndef DMOND_SAMPLER_H
#define DMOND_SAMPLER_H

#include "reading_task.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace dmond {

class Sampler {
public:
    // Begins with a first sample. Throws std::runtime_error when there is no task or queue for it.
    Sampler();
    Sampler(const Sampler&) = delete;
    Sampler& operator=(const Sampler&) = delete;
    // Waits for the end of readings that are being taken.
    ~Sampler();

    // Has a sample taken soon. Any thread.
    void order() const;

    // The newest sample as JSON text of at most `max_len` bytes: all of it, or the load alone. What
    // is not fresh any more is given all the same, and ordered anew. In the second after the
    // construction it waits for the first sample. Any thread.
    std::string newest(std::size_t max_len) const;

    // Kills the tasks and creates them again. Requests go on being answered out of the newest
    // sample. False when there is not a new task for each.
    bool restart();

    // Kills the tasks and removes their queues. No sample is taken any more. Does not wait.
    void stop();

private:
    using Clock = std::chrono::steady_clock;

    void await_first() const;

    const Clock::time_point begun_ = Clock::now();
    std::vector<std::unique_ptr<ReadingTask>> tasks_;
};

} // namespace dmond

#endif
