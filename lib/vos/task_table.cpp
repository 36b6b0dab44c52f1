#include "vos/task_table.h"

#include "platform_bounds.h"

#include <cstring>

namespace dm {

constinit SubjectLog task_log;
constinit ForkMutex table_making;
constinit std::array<Life, VOS_TASK_MAX + 1> lives{};

namespace {

constexpr uint64_t kDefaultStackSize = 32768;

template<class T, std::size_t Count>
void store_all(T (&fields)[Count], T value) {
    for (T& field : fields)
        store(field, value);
}

// Copies what fits of a text, and reads no more of it than that.
template<std::size_t Size>
void store_text(char (&to)[Size], const char* text) {
    const std::size_t length = strnlen(text, Size - 1);
    for (std::size_t i = 0; i < Size; ++i)
        store(to[i], i < length ? text[i] : '\0');
}

} // namespace

void decrement(uint64_t& counter) {
    const std::atomic_ref shared(counter);
    uint64_t value = shared.load();
    while (value != 0 && !shared.compare_exchange_weak(value, value - 1)) {
    }
}

VOS_TASK_CB_ST* find_block_of(const TaskIdentity& task) {
    VOS_TASK_CB_ST* block = find_used_block(task.number);
    return block != nullptr && lives[task.number].incarnation == task.incarnation ? block : nullptr;
}

void fill_block(VOS_TASK_CB_ST& block, const TaskDescription& task) {
    store<uint32_t>(block.used, 1);
    store_text(block.name, task.name);
    store_text(block.desc, task.desc != nullptr ? task.desc : "");
    for (std::size_t i = 0; i < std::size(block.args); ++i)
        store(block.args[i], task.args[i]);
    store(block.prio, task.priority);
    store(block.prio_cur, task.priority);
    store(block.pfn_local_task_entry, task.entry);
    const uint64_t stack_size = task.stack_size != 0 ? task.stack_size : kDefaultStackSize;
    store(block.stack_size, stack_size);
    store(block.stack_size_cur, stack_size);
    store(block.flags, task.flags);
    store_all<uint64_t>(block.reserved_head, 0);
    store<uint64_t>(block.reserved_used, 0);
    store(block.reserved_pid, load(block.reserved_pid) & ~kOnes);
    store<uint64_t>(block.reserved_word, 0);
}

bool release_block(uint32_t task_no) {
    VOS_TASK_CB_ST* block = find_block(task_no);
    if (block == nullptr)
        return true;
    Life& life = lives[task_no];
    ++life.incarnation;
    life.is_starting = false;

    store<uint64_t>(block->reserved_used, 0);
    store_all(block->name, '\0');
    store(block->desc[0], '\0');
    store(block->tid, kOnes);
    store(block->tid_copy, kOnes);
    life.thread_ended = false; // after the identifier is gone, see find_task_of_thread()
    store(block->pid, kOnes);
    store<uint64_t>(block->reserved_pid, 0);
    store<VOS_TASK_ENTRY>(block->pfn_local_task_entry, nullptr);
    store_all<uint64_t>(block->args, 0);
    store<uint64_t>(block->reserved_args, 0);
    store<uint64_t>(block->prio, 0);
    store<uint64_t>(block->prio_cur, 0);
    store<uint64_t>(block->flags, 1);
    store<uint64_t>(block->stack_size, 0);
    store<uint64_t>(block->stack_size_cur, 0);
    store<uint64_t>(block->stack_frame, 0);
    store_all<uint64_t>(block->reserved_zero, 0);
    store(block->reserved_ones, kOnes);
    store<uint64_t>(block->reserved_word, 0);
    store_all<uint64_t>(block->reserved_more, 0);
    store<uint32_t>(block->reserved_pair[0], 0);
    store<uint32_t>(block->reserved_pair[1], 1);
    store_all(block->reserved_last, kOnes);
    constexpr std::size_t tail_size = sizeof(block->reserved_tail);
    if (memset_s(block->reserved_tail, tail_size, 0, tail_size) != 0)
        return false; // the block is not used again
    store<uint32_t>(block->used, 0);
    return true;
}

void keep_only_this_task() {
    const uint32_t own = find_task_of_thread(pthread_self());
    for (uint32_t task_no = 1; task_no <= VOS_TASK_MAX; ++task_no)
        if (task_no != own && find_used_block(task_no) != nullptr)
            static_cast<void>(release_block(task_no));
    store<uint64_t>(m_task_dyn_info[0], own != VOS_TASK_NONE ? 1 : 0);
}

void report_kept_block() {
    DM_LOG_ERROR_IN(task_log, "free_task_cb", "memset_s error\n");
}

uint32_t find_task_of_thread(uint64_t tid) {
    if (tid == kOnes)
        return VOS_TASK_NONE; // what a block without a thread has
    for (uint32_t task_no = 1; task_no <= VOS_TASK_MAX; ++task_no) {
        const VOS_TASK_CB_ST* block = find_block(task_no);
        if (block == nullptr)
            break;
        // An identifier that an ended thread has left behind may be another one's by now. It goes
        // before its mark does: who finds no mark any more does not find the identifier again.
        if (load(block->tid) == tid && !lives[task_no].thread_ended && load(block->tid) == tid)
            return task_no;
    }
    return VOS_TASK_NONE;
}

} // namespace dm
