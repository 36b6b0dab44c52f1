// How the task layer has its threads created.
#ifndef DM_VOS_OSAL_START_H
#define DM_VOS_OSAL_START_H

#include "vos/live_threads.h"

namespace dm {

// What osal_create_task() is asked for.
struct ThreadRequest {
    const char* name;
    OSAL_TASK_ENTRY entry;
    uint64_t priority;
    uint32_t flags;
    uint64_t stack_size;
    uint64_t arg;
    TaskIdentity task; // for which the thread is to be, or none
};

// osal_create_task(), and nothing less in the log. For a task the name is copied.
int64_t create_thread(const ThreadRequest& request, uint64_t* out_tid_a, uint64_t* out_tid_b);

// The calling thread's task as its creator knew it: once, and none on a thread that was not made
// for a task.
TaskIdentity take_started_task();

} // namespace dm

#endif
