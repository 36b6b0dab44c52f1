// Takes the machine's readings on a task of its own, so that a slow one (a file system that hangs)
// holds up no request.
#ifndef DMOND_SAMPLER_H
#define DMOND_SAMPLER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace dmond {

class Sampler {
public:
    // Begins with a first sample. Throws std::runtime_error when there is no task or queue for it.
    Sampler();
    Sampler(const Sampler&) = delete;
    Sampler& operator=(const Sampler&) = delete;
    ~Sampler();

    // Has a sample taken soon.
    void order();

    // The newest sample as JSON text of at most `max_len` bytes: all of it, or the load alone. One
    // that is not fresh any more is given all the same, and the next one ordered.
    std::string newest(std::size_t max_len);

    // Kills the task, wherever it waits, and creates it again. Requests go on being answered out of
    // the newest sample. False when there is no new task.
    bool restart();

private:
    struct State;

    bool start();
    void stop();

    std::shared_ptr<State> state_;
    std::uint32_t task_no_ = 0;
};

} // namespace dmond

#endif
