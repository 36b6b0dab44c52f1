#include "ipmi_v_task.h"

#include "base/atomic_field.h"
#include "base/log.h"
#include "base/memory.h"
#include "ipmi_osal_task.h"
#include "ipmi_v_sm.h"
#include "vos/task_table.h"
#include "vos/task_thread.h"

#include <algorithm>
#include <array>
#include <optional>

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

constexpr uint64_t kMaxPriority = 255;
constexpr uint64_t kTaskNoMask = 0xFFFF;
constexpr uint64_t kDispatchPollMs = 10;
constexpr uint32_t kDescNotCopied = 1;

using dm::find_block;
using dm::find_used_block;
using dm::kOnes;
using dm::SplLock;

template<class T>
dm::Owned<T> __allocate_table(std::size_t count) {
    return dm::Owned<T>(static_cast<T*>(std::calloc(count, sizeof(T))));
}

} // namespace

uint32_t task_task_info_init(void) {
    using Pair = uint64_t[2];
    const std::lock_guard one_at_a_time(dm::table_making);
    dm::store<uint8_t>(dispatching, 1);
    if (dm::load(g_p_task_cb) != nullptr)
        return 0;
    dm::store<uint64_t>(g_basic_task_info[0], VOS_TASK_MAX);
    for (uint64_t& counter : m_task_dyn_info)
        dm::store<uint64_t>(counter, 0);
    dm::store(g_n_local_process_id, osal_get_process_id());

    vos_spl_init(&g_task_splmutex);
    const SplLock spl;
    auto blocks = __allocate_table<VOS_TASK_CB_ST>(VOS_TASK_MAX + 1);
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
    bool is_released = true;
    {
        const std::lock_guard lock(dm::record_lock);
        is_released = dm::release_block(task_no);
    }
    if (!is_released)
        dm::report_kept_block();
}

uint32_t search_free_tcb(void) {
    for (uint32_t task_no = 1; task_no <= VOS_TASK_MAX; ++task_no) {
        const VOS_TASK_CB_ST* block = find_block(task_no);
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
    VOS_TASK_CB_ST* block = find_block(task_no);
    if (block == nullptr) {
        *out_task_no = VOS_TASK_NONE;
        return VOS_TASK_BAD_NUMBER;
    }
    *out_block = block;
    // Into the block it goes byte by byte, for whoever looks at it meanwhile.
    char kept_desc[VOS_TASK_DESC_SIZE] = {};
    if (desc != nullptr &&
        strncpy_s(kept_desc, sizeof(kept_desc), desc, sizeof(kept_desc) - 1) != 0) {
        *out_task_no = VOS_TASK_NONE;
        free_task_cb(task_no);
        vos_splx(spl.release(), &g_task_splmutex);
        DM_LOG_ERROR(dm::task_log, "strncpy_s error\n");
        return kDescNotCopied;
    }
    *out_task_no = task_no;
    {
        const std::lock_guard lock(dm::record_lock);
        dm::fill_block(*block, {name, kept_desc, entry, priority, args, stack_size, flags});
    }
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
                              dm::kPreemptive);
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

    std::optional<dm::NewTask> task;
    uint32_t ret = 0;
    {
        SplLock spl;
        const uint32_t task_no = search_free_tcb();
        if (task_no == VOS_TASK_NONE || priority > kMaxPriority)
            return VOS_TASK_NO_BLOCK;
        VOS_TASK_CB_ST* block = nullptr;
        const uint64_t level = spl.release();
        ret = vos_init_task_info(name, &block, desc, task_no, out_task_no, entry, priority, args,
                                 level, stack_size, flags);
        if (ret == 0) {
            spl.adopt(level);
            task.emplace(task_no);
        }
    }
    if (ret != 0) {
        DM_LOG_ERROR(dm::task_log, "init task struct fail ret = %d\n", static_cast<int>(ret));
        return ret;
    }
    if (!task->start({name, desc, entry, priority, args, stack_size, flags})) {
        *out_task_no = VOS_TASK_NONE;
        return VOS_TASK_NO_THREAD;
    }
    return 0;
}

uint64_t vos_task_entry(uint64_t arg) {
    dm::TaskThread self(static_cast<uint32_t>(arg & kTaskNoMask));
    while (self.has_task() && vos_task_is_dispatching() == 0)
        osal_task_delay(kDispatchPollMs);
    const dm::TaskThread::Work work = self.work();
    if (work.entry == nullptr) {
        DM_LOG_ERROR(dm::task_log, "%s,%d:pfn_local_task_entry is null ptr funtion!\r\n", __FILE__,
                     __LINE__);
        return 0;
    }
    if ((work.flags & dm::kPreemptive) == 0)
        osal_task_lock();
    work.entry(work.args[0], work.args[1], work.args[2], work.args[3]);
    self.end();
    return 0;
}

// Who frees the block has pinned the thread by then. So it cannot end before it is cancelled, nor
// can its identifier be another thread's.
uint32_t vos_delete_task(uint32_t task_no) {
    if (find_used_block(task_no) == nullptr)
        return VOS_TASK_BAD_NUMBER;
    dm::PinnedThread thread;
    bool is_nobodys = false;
    bool is_pinned = false;
    bool is_released = true;
    {
        const SplLock spl;
        const std::lock_guard lock(dm::record_lock);
        const VOS_TASK_CB_ST* block = find_used_block(task_no);
        if (block == nullptr)
            return VOS_TASK_BAD_NUMBER; // another deletion, or the task's end, came first
        if (dm::load(m_task_dyn_info[0]) == 0)
            return VOS_TASK_NONE_LIVE;
        dm::decrement(m_task_dyn_info[0]);
        const dm::Life& life = dm::lives[task_no];
        const uint64_t tid = dm::load(block->tid);
        is_nobodys = life.is_starting && tid == kOnes;
        is_pinned = !life.thread_ended && thread.pin(tid);
        is_released = dm::release_block(task_no);
    }
    // A thread that nobody knows yet will find its task gone, and end.
    const bool will_end = is_nobodys || (is_pinned && thread.cancel() == 0);
    if (!is_released)
        dm::report_kept_block();
    return will_end ? 0 : VOS_TASK_NOT_CANCELLED;
}

void vos_task_clean_up_handler(void* task_no) {
    dm::decrement(m_task_dyn_info[0]);
    if (task_no != nullptr)
        free_task_cb(*static_cast<const uint32_t*>(task_no));
}

uint32_t vos_get_current_task_id(void) {
    return dm::find_task_of_thread(osal_get_self_id());
}

uint64_t vos_get_current_pid(void) {
    const VOS_TASK_CB_ST* block = find_block(vos_get_current_task_id());
    return block != nullptr ? dm::load(block->pid) : VOS_TASK_NONE;
}

uint64_t vos_get_sys_task_id(uint32_t task_no) {
    const uint32_t wanted = task_no != 0 ? task_no : vos_get_current_task_id();
    if (find_block(wanted) == nullptr)
        return VOS_TASK_NONE;
    const SplLock spl;
    const VOS_TASK_CB_ST* block = find_used_block(wanted);
    return block != nullptr ? dm::load(block->tid) : VOS_TASK_NONE;
}

uint32_t vos_check_task_idvalid(uint32_t task_no) {
    if (find_block(task_no) == nullptr)
        return 0;
    const SplLock spl;
    return find_used_block(task_no) != nullptr ? 1 : 0;
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
