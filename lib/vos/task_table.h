// The table of task control blocks, and what belongs to a task and has no place in its block.
#ifndef DM_VOS_TASK_TABLE_H
#define DM_VOS_TASK_TABLE_H

#include "base/atomic_field.h"
#include "base/log.h"
#include "ipmi_v_sm.h"
#include "ipmi_v_task.h"
#include "vos/live_threads.h"
#include "vos/record_lock.h"

#include <array>
#include <atomic>
#include <utility>

namespace dm {

// The subject of all that deals with tasks.
extern constinit SubjectLog task_log;

constexpr uint64_t kOnes = 0xFFFFFFFF;
constexpr uint64_t kPreemptive = 1;

// One thread at a time makes the table.
extern constinit ForkMutex table_making;

// Holds the SPL lock for a scope, with signals off: a handler may make the same look-up as the
// thread that it interrupts. The lock is released also when the thread is cancelled in the scope.
// Unlocking may log, and so let a cancelled thread unwind.
class SplLock {
public:
    SplLock() : level_(vos_spl_imp(&g_task_splmutex)) {}
    explicit SplLock(uint64_t level) : level_(level) {}
    SplLock(const SplLock&) = delete;
    SplLock& operator=(const SplLock&) = delete;
    ~SplLock() noexcept(false) { vos_splx(release(), &g_task_splmutex); }

    uint64_t release() { return std::exchange(level_, 0); }
    void adopt(uint64_t level) { level_ = level; }

private:
    const SignalsOff signals_;
    uint64_t level_;
};

// ---- blocks; null for a number that has none ----

inline VOS_TASK_CB_ST* find_block(uint32_t task_no) {
    VOS_TASK_CB_ST* table = load(g_p_task_cb);
    return table != nullptr && task_no <= VOS_TASK_MAX ? &table[task_no] : nullptr;
}

inline VOS_TASK_CB_ST* find_used_block(uint32_t task_no) {
    VOS_TASK_CB_ST* block = find_block(task_no);
    return block != nullptr && load(block->used) != 0 ? block : nullptr;
}

// What a task's creator gives to fill its block with.
struct TaskDescription {
    const char* name; // no more of it is read than is kept
    const char* desc; // what fits of it, or null
    VOS_TASK_ENTRY entry;
    uint64_t priority;
    const uint64_t* args;
    uint64_t stack_size;
    uint64_t flags;
};

// Takes one off a counter, unless it is 0.
void decrement(uint64_t& counter);

// ---- with record_lock held ----

// A task number's life.
struct Life {
    uint64_t incarnation;           // how often the block was released
    bool is_starting;               // the thread was or is being created, and has not begun yet
    std::atomic<bool> thread_ended; // the thread has ended, and left the block in use
};
extern constinit std::array<Life, VOS_TASK_MAX + 1> lives;

VOS_TASK_CB_ST* find_block_of(const TaskIdentity& task);
void fill_block(VOS_TASK_CB_ST& block, const TaskDescription& task);

// Frees a block. False when it could not be cleared: it stays in use then, which is to be logged
// with report_kept_block() once the lock is released.
[[nodiscard]] bool release_block(uint32_t task_no);

// In a child of fork(2), which has no task but the calling thread's.
void keep_only_this_task();

// ---- without ----

void report_kept_block();

// The number of the calling thread's task, or VOS_TASK_NONE. Takes no lock.
uint32_t find_task_of_thread(uint64_t tid);

} // namespace dm

#endif
