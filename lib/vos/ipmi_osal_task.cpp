#include "ipmi_osal_task.h"

#include "base/log.h"
#include "base/memory.h"
#include "vos/osal_start.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <bit>
#include <cerrno>
#include <cstring>
#include <utility>

uint64_t g_creatthreadoknum = 0;
uint64_t g_creatthreadfailnum = 0;
uint32_t g_n_thread_count = 1;

namespace {

constinit dm::SubjectLog osal_log;

constexpr uint64_t kMaxPriority = 255;
constexpr uint32_t kPreemptive = 1;
constexpr int32_t kPrioritySpan =
    2550; // ten times the span of priorities, to divide with less loss
constexpr const char* kCreate = "osal_create_task";

class AttrOwner {
public:
    explicit AttrOwner(pthread_attr_t* attr) : attr_(attr) {}
    AttrOwner(const AttrOwner&) = delete;
    AttrOwner& operator=(const AttrOwner&) = delete;
    ~AttrOwner() { pthread_attr_destroy(attr_); }

private:
    pthread_attr_t* attr_;
};

void __set_attr(pthread_attr_t* attr, int policy, int priority) {
    pthread_attr_init(attr);
    pthread_attr_setscope(attr, PTHREAD_SCOPE_SYSTEM);
    pthread_attr_setinheritsched(attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(attr, policy);
    sched_param param{};
    param.sched_priority = priority;
    pthread_attr_setschedparam(attr, &param);
    pthread_attr_setdetachstate(attr, PTHREAD_CREATE_DETACHED);
}

int32_t __preemptive_priority(uint64_t priority) {
    const int32_t min = sched_get_priority_min(SCHED_RR);
    const int32_t max = sched_get_priority_max(SCHED_RR);
    if (max == min)
        return max;
    const int32_t step = kPrioritySpan / (max - min);
    const int32_t value = static_cast<int32_t>(static_cast<uint32_t>(priority) * 10) / step + 1;
    return value > max ? max : value;
}

// Gives 0 with initialised attributes, or OSAL_TASK_BAD_PARAMETER without; `code` is the result of
// the attribute function.
int __make_attr(uint64_t priority, uint32_t flags, pthread_attr_t* attr, uint64_t& code) {
    if (priority > kMaxPriority)
        return OSAL_TASK_BAD_PARAMETER;
    code = (flags & kPreemptive) != 0 ? set_thread_attr_by_prio_preempt(priority, attr)
                                      : set_thread_attr_by_prio(priority, attr);
    return code != 0 ? OSAL_TASK_BAD_PARAMETER : 0;
}

void __fill(dm::StartRecord& record, const dm::ThreadRequest& request) {
    record.para = {request.entry, request.arg, request.name};
    record.task = request.task;
    if (request.task.number == 0)
        return;
    std::memcpy(record.name, request.name, strnlen(request.name, sizeof(record.name) - 1));
    record.para.name = record.name;
}

} // namespace

namespace dm {

int64_t create_thread(const ThreadRequest& request, uint64_t* out_tid_a, uint64_t* out_tid_b) {
    pthread_attr_t attr{};
    uint64_t ul_return_code = 0;
    if (const int ret = __make_attr(request.priority, request.flags, &attr, ul_return_code);
        ret != 0) {
        DM_LOG_ERROR_IN(osal_log, kCreate,
                        "para fail,ret = %d,ul_return_code = %d,ul_priority = %ld\n", ret,
                        static_cast<int>(ul_return_code), static_cast<long>(request.priority));
        return ret;
    }
    const AttrOwner attr_owner(&attr);
    pthread_attr_setstacksize(&attr, request.stack_size);
    auto record = allocate<StartRecord>();
    if (!record) {
        DM_LOG_ERROR_IN(osal_log, kCreate, "malloc fail\n");
        return OSAL_TASK_NO_MEMORY;
    }
    if (zero(record.get()) != 0) {
        DM_LOG_ERROR_IN(osal_log, kCreate, "memset_s fail\n");
        return OSAL_TASK_NO_MEMORY;
    }
    __fill(*record, request);
    Birth birth(*record);
    pthread_t tid{};
    if (pthread_create(&tid, &attr, test_task, record.get()) != 0) {
        *out_tid_a = OSAL_NO_THREAD;
        *out_tid_b = OSAL_NO_THREAD;
        std::atomic_ref(g_creatthreadfailnum).fetch_add(1);
        DM_LOG_ERROR_IN(osal_log, kCreate, "pthread_create fail, errno=%d:%s\n", errno,
                        std::strerror(errno));
        return OSAL_TASK_REFUSED;
    }
    static_cast<void>(record.release()); // the thread frees it
    birth.created(tid);
    std::atomic_ref(g_creatthreadoknum).fetch_add(1);
    *out_tid_a = tid;
    *out_tid_b = tid;
    return 0;
}

TaskIdentity take_started_task() {
    const StartRecord* const record = std::exchange(this_thread.start, nullptr);
    return record != nullptr ? record->task : TaskIdentity{};
}

} // namespace dm

uint64_t set_thread_attr_by_prio(uint64_t /*priority*/, pthread_attr_t* attr) {
    if (attr == nullptr) {
        DM_LOG_ERROR(osal_log, "%s::%d\n", __FILE__, __LINE__);
        return 1;
    }
    __set_attr(attr, SCHED_OTHER, 0);
    return 0;
}

uint64_t set_thread_attr_by_prio_preempt(uint64_t priority, pthread_attr_t* attr) {
    if (attr == nullptr) {
        DM_LOG_ERROR(osal_log, "%s::%d\n", __FILE__, __LINE__);
        return 1;
    }
    __set_attr(attr, SCHED_RR, __preemptive_priority(priority));
    return 0;
}

void* test_task(void* record) {
    const dm::Owned<OSAL_TASK_PARA_ST> para(static_cast<OSAL_TASK_PARA_ST*>(record));
    const dm::BegunThread begun(record);
    prctl(PR_SET_NAME, para->name);
    return std::bit_cast<void*>(para->entry(para->arg));
}

int64_t osal_create_task(const char* name, OSAL_TASK_ENTRY entry, uint64_t priority, uint32_t flags,
                         uint64_t stack_size, uint64_t arg, uint64_t* out_tid_a,
                         uint64_t* out_tid_b) {
    return dm::create_thread({name, entry, priority, flags, stack_size, arg, {}}, out_tid_a,
                             out_tid_b);
}

// The error number of pthread_cancel() is not looked at: callers go by errno.
uint64_t osal_delete_task(uint64_t thread) {
    if (dm::cancel_thread(thread) == 0)
        return 0;
    return errno == ESRCH ? OSAL_TASK_GONE : OSAL_TASK_NOT_DELETED;
}

uint64_t osal_get_self_id(void) {
    if (!dm::this_thread.is_told_apart) [[unlikely]]
        dm::tell_this_thread_apart();
    return pthread_self();
}

int32_t osal_get_process_id(void) {
    return getpid();
}

uint64_t osal_task_lock(void) {
    return 0;
}

uint64_t osal_task_unlock(void) {
    return 0;
}

uint64_t osal_task_delay(uint64_t ms) {
    timeval span{};
    span.tv_sec = static_cast<int64_t>(ms) / 1000;
    span.tv_usec = static_cast<suseconds_t>(ms % 1000 * 1000);
    select(1, nullptr, nullptr, nullptr, &span);
    return 0;
}
