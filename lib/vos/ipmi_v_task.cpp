#include "ipmi_v_task.h"

#include "base/atomic_field.h"
#include "base/log.h"
#include "base/memory.h"
#include "ipmi_osal_task.h"
#include "ipmi_v_sm.h"
#include "vos/ipmi_osal_private.h"

#include <array>
#include <cstring>
#include <mutex>
#include <utility>

VOS_TASK_CB_ST* g_p_task_cb = nullptr;
uint64_t g_basic_task_info[3] = {};
uint64_t m_task_dyn_info[2] = {};
int32_t g_n_local_process_id = 0;
uint8_t dispatching = 0;
uint64_t* m_pul_task_prio_que = nullptr;
uint64_t m_ul_task_prio_que_len = 0;
uint64_t (*m_p_tid2vid)[2] = nullptr;
uint64_t m_ul_tid2vid_num = 0;

uint64_t g_ul_watch_dog_time = 0;
uint64_t g_basic_monitor_info[19] = {};
uint64_t g_ul_is_monitor_dead_cycle = 0;
uint32_t g_aui_fid_msg_to_task_no[256] = {};
uint64_t g_ul_switch_flag = 0;
char m_ach_task_name[VOS_TASK_NAME_SIZE] = {};

namespace {

constinit dm::SubjectLog task_log;

constexpr std::size_t kBlocks = VOS_TASK_MAX + 1;
constexpr uint64_t kMaxPriority = 255;
constexpr uint64_t kDefaultStackSize = 32768;
constexpr uint64_t kPreemptive = 1;
constexpr uint64_t kTaskNoMask = 0xFFFF;
constexpr uint64_t kEntryArgMark = 0x10000;
constexpr uint64_t kDispatchPollMs = 10;
constexpr uint32_t kDescNotCopied = 1;
constexpr uint64_t kOnes = 0xFFFFFFFF;

// A task, told apart from the earlier and later ones of its number.
struct Task {
    uint32_t number;
    uint64_t incarnation;
};

// What belongs to a task number and has no place in its block.
struct Life {
    uint64_t incarnation;           // how often the block was released
    bool is_starting;               // the thread was or is being created, and has not begun yet
    std::atomic<bool> thread_ended; // the thread has ended, and left the block in use
};

// What a creator leaves for the new thread, which knows no more than its task number, and that may
// be another task's by the time that the thread begins. The thread finds it by the name that it was
// created with, and frees it.
struct StartNote {
    char name[VOS_TASK_NAME_SIZE];
    Task task;
    StartNote* next;
};

// Guards `lives`, `start_notes` and who is first to end a task, where the SPL lock is not held:
// while a task begins, while it ends, and while a deletion frees a block and cancels the thread. It
// is never held for longer than that, and is taken after the SPL lock when both are.
constinit std::mutex life_mutex;
constinit std::array<Life, kBlocks> lives{};
constinit StartNote* start_notes = nullptr;

// Holds the SPL lock for a scope, also when the thread is cancelled in it. Unlocking may log, and
// so let a cancelled thread unwind.
class SplLock {
public:
    SplLock() : level_(vos_spl_imp(&g_task_splmutex)) {}
    explicit SplLock(uint64_t level) : level_(level) {}
    SplLock(const SplLock&) = delete;
    SplLock& operator=(const SplLock&) = delete;
    ~SplLock() noexcept(false) { unlock(); }

    void unlock() { vos_splx(release(), &g_task_splmutex); }
    uint64_t release() { return std::exchange(level_, 0); }
    void adopt(uint64_t level) { level_ = level; }

private:
    uint64_t level_;
};

// ---- blocks ----

VOS_TASK_CB_ST* __find_block(uint32_t task_no) {
    VOS_TASK_CB_ST* table = dm::load(g_p_task_cb);
    return table != nullptr && task_no <= VOS_TASK_MAX ? &table[task_no] : nullptr;
}

VOS_TASK_CB_ST* __find_used_block(uint32_t task_no) {
    VOS_TASK_CB_ST* block = __find_block(task_no);
    return block != nullptr && dm::load(block->used) != 0 ? block : nullptr;
}

template<class T, std::size_t Count>
void __store_all(T (&fields)[Count], T value) {
    for (T& field : fields)
        dm::store(field, value);
}

// Copies as much of a name as fits, and reads no more of it than that.
void __copy_name(char (&to)[VOS_TASK_NAME_SIZE], const char* name) {
    const std::size_t length = strnlen(name, sizeof(to) - 1);
    for (std::size_t i = 0; i < sizeof(to); ++i)
        dm::store(to[i], i < length ? name[i] : '\0');
}

// Takes one off a counter, unless it is 0.
void __decrement(uint64_t& counter) {
    const std::atomic_ref shared(counter);
    uint64_t value = shared.load();
    while (value != 0 && !shared.compare_exchange_weak(value, value - 1)) {
    }
}

// ---- with life_mutex held ----

VOS_TASK_CB_ST* __find_block_of(const Task& task) {
    VOS_TASK_CB_ST* block = __find_used_block(task.number);
    return block != nullptr && lives[task.number].incarnation == task.incarnation ? block : nullptr;
}

void __release_block(uint32_t task_no) {
    VOS_TASK_CB_ST* block = __find_block(task_no);
    if (block == nullptr)
        return;
    Life& life = lives[task_no];
    ++life.incarnation;
    life.is_starting = false;
    life.thread_ended = false;

    dm::store<uint64_t>(block->reserved_used, 0);
    __store_all(block->name, '\0');
    dm::store(block->desc[0], '\0');
    dm::store(block->tid, kOnes);
    dm::store(block->tid_copy, kOnes);
    dm::store(block->pid, kOnes);
    dm::store<uint64_t>(block->reserved_pid, 0);
    dm::store<VOS_TASK_ENTRY>(block->pfn_local_task_entry, nullptr);
    __store_all<uint64_t>(block->args, 0);
    dm::store<uint64_t>(block->reserved_args, 0);
    dm::store<uint64_t>(block->prio, 0);
    dm::store<uint64_t>(block->prio_cur, 0);
    dm::store<uint64_t>(block->flags, 1);
    dm::store<uint64_t>(block->stack_size, 0);
    dm::store<uint64_t>(block->stack_size_cur, 0);
    dm::store<uint64_t>(block->stack_frame, 0);
    __store_all<uint64_t>(block->reserved_zero, 0);
    dm::store(block->reserved_ones, kOnes);
    dm::store<uint64_t>(block->reserved_word, 0);
    __store_all<uint64_t>(block->reserved_more, 0);
    dm::store<uint32_t>(block->reserved_pair[0], 0);
    dm::store<uint32_t>(block->reserved_pair[1], 1);
    __store_all(block->reserved_last, kOnes);
    constexpr std::size_t tail_size = sizeof(block->reserved_tail);
    if (memset_s(block->reserved_tail, tail_size, 0, tail_size) != 0) {
        DM_LOG_ERROR(task_log, "memset_s error\n");
        return; // the block is not used again
    }
    dm::store<uint32_t>(block->used, 0);
}

dm::Owned<StartNote> __take_start_note(const char* name) {
    for (StartNote** link = &start_notes; *link != nullptr; link = &(*link)->next)
        if ((*link)->name == name)
            return dm::Owned<StartNote>(std::exchange(*link, (*link)->next));
    return nullptr;
}

// ---- creation ----

// A task that has its block and no thread yet. It is counted as live at once, so that the counters
// are right whenever the task ends; without a thread it is taken back.
class NewTask {
public:
    // The SPL lock is held and the block filled.
    explicit NewTask(uint32_t task_no) {
        const std::lock_guard life(life_mutex);
        task_ = {task_no, lives[task_no].incarnation};
        lives[task_no].is_starting = true;
        for (uint64_t& counter : m_task_dyn_info)
            std::atomic_ref(counter).fetch_add(1);
    }
    NewTask(const NewTask&) = delete;
    NewTask& operator=(const NewTask&) = delete;
    ~NewTask() noexcept(false) {
        if (!has_thread_)
            take_back();
    }

    const Task& task() const { return task_; }

    // The thread was created. It may have ended by now, and the block be another task's.
    void set_thread(uint64_t tid, uint64_t tid_copy) {
        has_thread_ = true;
        const int64_t pid = vos_gen_pid_for_task();
        const SplLock spl;
        const std::lock_guard life(life_mutex);
        VOS_TASK_CB_ST* block = __find_block_of(task_);
        if (block == nullptr)
            return;
        dm::store(block->tid, tid);
        dm::store(block->tid_copy, tid_copy);
        __store_all<uint64_t>(block->reserved_created, 0);
        dm::store(block->pid, static_cast<uint64_t>(pid));
    }

private:
    // A deletion that was faster has taken its share back already.
    void take_back() {
        const SplLock spl;
        const std::lock_guard life(life_mutex);
        __decrement(m_task_dyn_info[1]);
        if (__find_block_of(task_) == nullptr)
            return;
        __decrement(m_task_dyn_info[0]);
        __release_block(task_.number);
    }

    Task task_{};
    bool has_thread_ = false;
};

// A note that waits for its thread; taken back when no thread will come.
class PostedNote {
public:
    PostedNote(dm::Owned<StartNote> note, const char* name, const Task& task) {
        __copy_name(note->name, name);
        note->task = task;
        name_ = note->name;
        const std::lock_guard life(life_mutex);
        note->next = start_notes;
        start_notes = note.release();
    }
    PostedNote(const PostedNote&) = delete;
    PostedNote& operator=(const PostedNote&) = delete;
    ~PostedNote() {
        if (name_ == nullptr)
            return;
        const std::lock_guard life(life_mutex);
        __take_start_note(name_);
    }

    const char* name() const { return name_; }
    void leave_to_thread() { name_ = nullptr; }

private:
    const char* name_;
};

bool __start(NewTask& task, const char* name, uint64_t priority, uint64_t stack_size,
             uint64_t flags) {
    auto note = dm::allocate<StartNote>();
    if (!note)
        return false;
    PostedNote posted(std::move(note), name, task.task());
    uint64_t tid = 0;
    uint64_t tid_copy = 0;
    const int64_t status =
        osal_create_task(posted.name(), vos_task_entry, priority, static_cast<uint32_t>(flags),
                         stack_size, kEntryArgMark | task.task().number, &tid, &tid_copy);
    if (status != 0)
        return false;
    posted.leave_to_thread();
    task.set_thread(tid, tid_copy);
    return true;
}

// ---- the task's thread ----

struct Work {
    VOS_TASK_ENTRY entry = nullptr;
    std::array<uint64_t, 4> args{};
    uint64_t flags = 0;
};

// The calling thread as a task, from its beginning to its end, whatever ends it.
class TaskThread {
public:
    explicit TaskThread(uint32_t task_no) {
        const char* name = __osal_take_start_name();
        const uint64_t self = osal_get_self_id();
        const std::lock_guard life(life_mutex);
        const auto note = __take_start_note(name);
        if (__find_used_block(task_no) == nullptr)
            return;
        task_ = note ? note->task : Task{task_no, lives[task_no].incarnation};
        VOS_TASK_CB_ST* block = __find_block_of(task_);
        if (block == nullptr)
            return;
        dm::store(block->stack_frame, get_stackframe());
        if (!std::exchange(lives[task_no].is_starting, false))
            return;
        // The creator does the same when it gets there; the task need not wait to be found.
        dm::store(block->tid, self);
        dm::store(block->tid_copy, self);
    }
    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;
    ~TaskThread() {
        const std::lock_guard life(life_mutex);
        if (__find_block_of(task_) != nullptr)
            lives[task_.number].thread_ended = true;
    }

    bool has_task() const {
        const std::lock_guard life(life_mutex);
        return __find_block_of(task_) != nullptr;
    }

    // Nothing, when the task was deleted meanwhile.
    Work work() const {
        const std::lock_guard life(life_mutex);
        const VOS_TASK_CB_ST* block = __find_block_of(task_);
        if (block == nullptr)
            return {};
        Work work{dm::load(block->pfn_local_task_entry), {}, dm::load(block->flags)};
        for (std::size_t i = 0; i < work.args.size(); ++i)
            work.args[i] = dm::load(block->args[i]);
        return work;
    }

    // The entry routine has returned. A task that was deleted meanwhile has ended already.
    void end() {
        const std::lock_guard life(life_mutex);
        if (__find_block_of(task_) == nullptr)
            return;
        __decrement(m_task_dyn_info[0]);
        __release_block(task_.number);
    }

private:
    Task task_{};
};

// ---- initialisation ----

template<class T>
dm::Owned<T> __allocate_table(std::size_t count) {
    return dm::Owned<T>(static_cast<T*>(std::calloc(count, sizeof(T))));
}

} // namespace

uint32_t task_task_info_init(void) {
    using Pair = uint64_t[2];
    static constinit std::mutex init_mutex;
    const std::lock_guard one_at_a_time(init_mutex);
    dm::store<uint8_t>(dispatching, 1);
    if (dm::load(g_p_task_cb) != nullptr)
        return 0;
    dm::store<uint64_t>(g_basic_task_info[0], VOS_TASK_MAX);
    __store_all<uint64_t>(m_task_dyn_info, 0);
    dm::store(g_n_local_process_id, osal_get_process_id());

    vos_spl_init(&g_task_splmutex);
    const SplLock spl;
    auto blocks = __allocate_table<VOS_TASK_CB_ST>(kBlocks);
    if (!blocks)
        return VOS_TASK_NO_MEMORY;
    auto prio_que = __allocate_table<uint64_t>(VOS_TASK_MAX);
    if (!prio_que)
        return VOS_TASK_NO_MEMORY;
    auto tid2vid = __allocate_table<Pair>(VOS_TASK_MAX);
    if (!tid2vid)
        return VOS_TASK_NO_MEMORY;

    dm::store(g_p_task_cb, blocks.release());
    init_task_cb();
    m_pul_task_prio_que = prio_que.release();
    m_ul_task_prio_que_len = 0;
    m_p_tid2vid = tid2vid.release();
    m_ul_tid2vid_num = 0;
    for (uint32_t i = 0; i < VOS_TASK_MAX; ++i) {
        m_pul_task_prio_que[i] = kOnes;
        m_p_tid2vid[i][0] = kOnes;
        m_p_tid2vid[i][1] = kOnes;
    }
    return 0;
}

void init_task_cb(void) {
    for (uint32_t task_no = 0; task_no <= VOS_TASK_MAX; ++task_no)
        free_task_cb(task_no);
}

void free_task_cb(uint32_t task_no) {
    const std::lock_guard life(life_mutex);
    __release_block(task_no);
}

uint32_t search_free_tcb(void) {
    for (uint32_t task_no = 1; task_no <= VOS_TASK_MAX; ++task_no) {
        const VOS_TASK_CB_ST* block = __find_block(task_no);
        if (block != nullptr && dm::load(block->used) == 0)
            return task_no;
    }
    return VOS_TASK_NONE;
}

uint32_t vos_init_task_info(const char* name, VOS_TASK_CB_ST** out_block, const char* desc,
                            uint32_t task_no, uint32_t* out_task_no, VOS_TASK_ENTRY entry,
                            uint64_t priority, const uint64_t* args, uint64_t spl_level,
                            uint64_t stack_size, uint64_t flags) {
    SplLock spl(spl_level);
    VOS_TASK_CB_ST* block = __find_block(task_no);
    if (block == nullptr) {
        *out_task_no = VOS_TASK_NONE;
        return VOS_TASK_BAD_NUMBER;
    }
    std::unique_lock life(life_mutex);
    *out_block = block;
    dm::store<uint32_t>(block->used, 1);
    *out_task_no = task_no;
    __copy_name(block->name, name);
    dm::store(block->desc[0], '\0');
    if (desc != nullptr &&
        strncpy_s(block->desc, sizeof(block->desc), desc, sizeof(block->desc) - 1) != 0) {
        __release_block(task_no);
        *out_task_no = VOS_TASK_NONE;
        life.unlock();
        spl.unlock();
        DM_LOG_ERROR(task_log, "strncpy_s error\n");
        return kDescNotCopied;
    }
    for (std::size_t i = 0; i < std::size(block->args); ++i)
        dm::store(block->args[i], args[i]);
    dm::store(block->prio, priority);
    dm::store(block->prio_cur, priority);
    dm::store(block->pfn_local_task_entry, entry);
    const uint64_t recorded_stack_size = stack_size != 0 ? stack_size : kDefaultStackSize;
    dm::store(block->stack_size, recorded_stack_size);
    dm::store(block->stack_size_cur, recorded_stack_size);
    dm::store(block->flags, flags);
    __store_all<uint64_t>(block->reserved_head, 0);
    dm::store<uint64_t>(block->reserved_used, 0);
    dm::store(block->reserved_pid, dm::load(block->reserved_pid) & ~kOnes);
    dm::store<uint64_t>(block->reserved_word, 0);
    spl.release();
    return 0;
}

uint32_t vos_create_task(const char* name, uint32_t* out_task_no, VOS_TASK_ENTRY entry,
                         uint64_t priority, uint64_t stack_size, const uint64_t* args) {
    return vos_create_task_ex(name, nullptr, out_task_no, entry, priority, stack_size, args, 0);
}

uint32_t vos_create_task_preempt(const char* name, uint32_t* out_task_no, VOS_TASK_ENTRY entry,
                                 uint64_t priority, uint64_t stack_size, const uint64_t* args) {
    return vos_create_task_ex(name, nullptr, out_task_no, entry, priority, stack_size, args,
                              kPreemptive);
}

uint32_t vos_create_task_ex(const char* name, const char* desc, uint32_t* out_task_no,
                            VOS_TASK_ENTRY entry, uint64_t priority, uint64_t stack_size,
                            const uint64_t* args, uint64_t flags) {
    if (out_task_no != nullptr)
        *out_task_no = VOS_TASK_NONE;
    if (name == nullptr || out_task_no == nullptr || entry == nullptr || args == nullptr)
        return VOS_TASK_NULL;
    if (dm::load(g_p_task_cb) == nullptr)
        return VOS_TASK_NO_BLOCK;

    SplLock spl;
    const uint32_t task_no = search_free_tcb();
    if (task_no == VOS_TASK_NONE || priority > kMaxPriority)
        return VOS_TASK_NO_BLOCK;
    VOS_TASK_CB_ST* block = nullptr;
    const uint64_t level = spl.release();
    const uint32_t ret = vos_init_task_info(name, &block, desc, task_no, out_task_no, entry,
                                            priority, args, level, stack_size, flags);
    if (ret != 0) {
        DM_LOG_ERROR(task_log, "init task struct fail ret = %d\n", static_cast<int>(ret));
        return ret;
    }
    spl.adopt(level);
    NewTask task(task_no);
    spl.unlock();

    if (!__start(task, name, priority, stack_size, flags)) {
        *out_task_no = VOS_TASK_NONE;
        return VOS_TASK_NO_THREAD;
    }
    return 0;
}

uint64_t vos_task_entry(uint64_t arg) {
    TaskThread self(static_cast<uint32_t>(arg & kTaskNoMask));
    while (self.has_task() && vos_task_is_dispatching() == 0)
        osal_task_delay(kDispatchPollMs);
    const Work work = self.work();
    if (work.entry == nullptr) {
        DM_LOG_ERROR(task_log, "%s,%d:pfn_local_task_entry is null ptr funtion!\r\n", __FILE__,
                     __LINE__);
        return 0;
    }
    if ((work.flags & kPreemptive) == 0)
        osal_task_lock();
    work.entry(work.args[0], work.args[1], work.args[2], work.args[3]);
    self.end();
    return 0;
}

uint32_t vos_delete_task(uint32_t task_no) {
    if (__find_used_block(task_no) == nullptr)
        return VOS_TASK_BAD_NUMBER;
    if (dm::load(m_task_dyn_info[0]) == 0)
        return VOS_TASK_NONE_LIVE;
    SplLock spl;
    // Held until the thread is cancelled: up to then it cannot end, nor its number be used again.
    const std::lock_guard life(life_mutex);
    const VOS_TASK_CB_ST* block = __find_used_block(task_no);
    if (block == nullptr)
        return VOS_TASK_BAD_NUMBER; // another deletion, or the task's end, came first
    __decrement(m_task_dyn_info[0]);
    spl.unlock();
    const uint64_t tid = dm::load(block->tid);
    const bool is_starting = lives[task_no].is_starting;
    const bool thread_ended = lives[task_no].thread_ended;
    __release_block(task_no);
    if (is_starting && tid == kOnes)
        return 0; // a thread that nobody knows yet will find its task gone, and end
    return !thread_ended && osal_delete_task(tid) == 0 ? 0 : VOS_TASK_NOT_CANCELLED;
}

void vos_task_clean_up_handler(void* task_no) {
    __decrement(m_task_dyn_info[0]);
    if (task_no != nullptr)
        free_task_cb(*static_cast<const uint32_t*>(task_no));
}

uint32_t vos_get_current_task_id(void) {
    const uint64_t self = osal_get_self_id();
    for (uint32_t task_no = 1; task_no <= VOS_TASK_MAX; ++task_no) {
        const VOS_TASK_CB_ST* block = __find_block(task_no);
        if (block == nullptr)
            break;
        // An identifier that an ended thread has left behind may be another one's by now.
        if (dm::load(block->tid) == self && !lives[task_no].thread_ended)
            return task_no;
    }
    return VOS_TASK_NONE;
}

uint64_t vos_get_current_pid(void) {
    const VOS_TASK_CB_ST* block = __find_block(vos_get_current_task_id());
    return block != nullptr ? dm::load(block->pid) : VOS_TASK_NONE;
}

uint64_t vos_get_sys_task_id(uint32_t task_no) {
    const uint32_t wanted = task_no != 0 ? task_no : vos_get_current_task_id();
    if (__find_block(wanted) == nullptr)
        return VOS_TASK_NONE;
    const SplLock spl;
    const VOS_TASK_CB_ST* block = __find_used_block(wanted);
    return block != nullptr ? dm::load(block->tid) : VOS_TASK_NONE;
}

uint32_t vos_check_task_idvalid(uint32_t task_no) {
    if (__find_block(task_no) == nullptr)
        return 0;
    const SplLock spl;
    return __find_used_block(task_no) != nullptr ? 1 : 0;
}

uint32_t vos_task_delay(uint64_t ms) {
    osal_task_delay(ms);
    return 0;
}

uint32_t vos_task_is_dispatching(void) {
    return dm::load(dispatching) != 0 ? 1 : 0;
}

uint64_t get_stackframe(void) {
    return 0;
}

int32_t vos_gen_pid_for_task(void) {
    const uint32_t offset = std::atomic_ref(g_n_thread_count).fetch_add(1);
    return static_cast<int32_t>(offset + static_cast<uint32_t>(dm::load(g_n_local_process_id)));
}
