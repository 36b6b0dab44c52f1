// Takes one of the machine's readings on a task of its own, so that one that hangs (a file system
// whose disk is gone) holds up neither the other readings nor any request.
#ifndef DMOND_READING_TASK_H
#define DMOND_READING_TASK_H

#include "health.h"

#include <cstdint>
#include <memory>

namespace dmond {

class ReadingTask {
public:
    using Take = Json (*)();

    // Begins with a first reading. `name` must live as long as the program. Throws
    // std::runtime_error when there is no task, queue or semaphore for it.
    ReadingTask(const char* name, Take take);
    ReadingTask(const ReadingTask&) = delete;
    ReadingTask& operator=(const ReadingTask&) = delete;
    // Stops, and waits for the end of a reading that is being taken.
    ~ReadingTask();

    // Has the reading taken soon. Any thread.
    void order() const;

    // The newest reading, which is missing when it failed or hangs. One that is not fresh any more
    // is given all the same, and the next one ordered. Any thread.
    Reading newest() const;

    // True before the first reading. Any thread.
    bool is_awaited() const;

    // Kills the task, wherever it waits, and creates it again. One that hangs in its reading is
    // left to itself. False when there is no new task.
    bool restart();

    // Kills the task and removes its queue. Does not wait.
    void stop();

private:
    struct State;

    bool start();

    std::shared_ptr<State> state_;
    std::uint32_t task_no_ = 0;
};

} // namespace dmond

#endif
