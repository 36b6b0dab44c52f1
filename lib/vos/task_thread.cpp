#include "vos/task_thread.h"

#include "base/atomic_field.h"
#include "vos/osal_start.h"

namespace dm {

namespace {

constexpr uint64_t kEntryArgMark = 0x10000;

} // namespace

// ---- the creator's side ----

NewTask::NewTask(uint32_t task_no) {
    const std::lock_guard lock(record_lock);
    task_ = {task_no, lives[task_no].incarnation};
    lives[task_no].is_starting = true;
    for (uint64_t& counter : m_task_dyn_info)
        std::atomic_ref(counter).fetch_add(1);
}

NewTask::~NewTask() noexcept(false) {
    if (!has_thread_)
        take_back();
}

bool NewTask::start(const TaskDescription& task) {
    uint64_t tid = 0;
    uint64_t tid_copy = 0;
    const int64_t status =
        create_thread({task.name, vos_task_entry, task.priority, static_cast<uint32_t>(task.flags),
                       task.stack_size, kEntryArgMark | task_.number, task_},
                      &tid, &tid_copy);
    if (status != 0)
        return false;
    set_thread(tid, tid_copy);
    return true;
}

// The thread may have ended by now, and the block be another task's.
void NewTask::set_thread(uint64_t tid, uint64_t tid_copy) {
    has_thread_ = true;
    const int64_t pid = vos_gen_pid_for_task();
    const SplLock spl;
    const std::lock_guard lock(record_lock);
    VOS_TASK_CB_ST* block = find_block_of(task_);
    if (block == nullptr)
        return;
    store(block->tid, tid);
    store(block->tid_copy, tid_copy);
    for (uint64_t& word : block->reserved_created)
        store<uint64_t>(word, 0);
    store(block->pid, static_cast<uint64_t>(pid));
}

// A deletion that was faster has taken its share back already.
void NewTask::take_back() {
    bool is_released = true;
    {
        const SplLock spl;
        const std::lock_guard lock(record_lock);
        decrement(m_task_dyn_info[1]);
        if (find_block_of(task_) == nullptr)
            return;
        decrement(m_task_dyn_info[0]);
        is_released = release_block(task_.number);
    }
    if (!is_released)
        report_kept_block();
}

// ---- the thread's side ----

TaskThread::TaskThread(uint32_t task_no) {
    const TaskIdentity started = take_started_task();
    const uint64_t self = osal_get_self_id();
    const std::lock_guard lock(record_lock);
    if (find_used_block(task_no) == nullptr)
        return;
    task_ = started.number != 0 ? started : TaskIdentity{task_no, lives[task_no].incarnation};
    VOS_TASK_CB_ST* block = find_block_of(task_);
    if (block == nullptr)
        return;
    store(block->stack_frame, get_stackframe());
    if (!std::exchange(lives[task_no].is_starting, false))
        return;
    // The creator does the same when it gets there; the task need not wait to be found.
    store(block->tid, self);
    store(block->tid_copy, self);
}

TaskThread::~TaskThread() {
    const std::lock_guard lock(record_lock);
    if (find_block_of(task_) != nullptr)
        lives[task_.number].thread_ended = true;
}

bool TaskThread::has_task() const {
    const std::lock_guard lock(record_lock);
    return find_block_of(task_) != nullptr;
}

TaskThread::Work TaskThread::work() const {
    const std::lock_guard lock(record_lock);
    const VOS_TASK_CB_ST* block = find_block_of(task_);
    if (block == nullptr)
        return {};
    Work work{load(block->pfn_local_task_entry), {}, load(block->flags)};
    for (std::size_t i = 0; i < work.args.size(); ++i)
        work.args[i] = load(block->args[i]);
    return work;
}

void TaskThread::end() {
    bool is_released = true;
    {
        const std::lock_guard lock(record_lock);
        if (find_block_of(task_) == nullptr)
            return;
        decrement(m_task_dyn_info[0]);
        is_released = release_block(task_.number);
    }
    if (!is_released)
        report_kept_block();
}

} // namespace dm
