// A task's thread: its creation, its work, its end.
#ifndef DM_VOS_TASK_THREAD_H
#define DM_VOS_TASK_THREAD_H

#include "vos/task_table.h"

#include <array>

namespace dm {

// A task that has its block and no thread yet. It is counted as live at once, so that the counters
// are right whenever the task ends; without a thread it is taken back.
class NewTask {
public:
    // The SPL lock is held and the block filled.
    explicit NewTask(uint32_t task_no);
    NewTask(const NewTask&) = delete;
    NewTask& operator=(const NewTask&) = delete;
    ~NewTask() noexcept(false);

    // Creates the thread, with vos_task_entry(). False when there is none.
    bool start(const TaskDescription& task);

private:
    void set_thread(uint64_t tid, uint64_t tid_copy);
    void take_back();

    TaskIdentity task_{};
    bool has_thread_ = false;
};

// The calling thread as a task, from its beginning to its end, whatever ends it.
class TaskThread {
public:
    struct Work {
        VOS_TASK_ENTRY entry = nullptr;
        std::array<uint64_t, 4> args{};
        uint64_t flags = 0;
    };

    explicit TaskThread(uint32_t task_no);
    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;
    ~TaskThread();

    bool has_task() const;

    // Nothing, when the task was deleted meanwhile.
    Work work() const;

    // The entry routine has returned. A task that was deleted meanwhile has ended already.
    void end();

private:
    TaskIdentity task_{};
};

} // namespace dm

#endif
