/** Threads. */
#include "platform_adapter.h"

#include <cerrno>
#include <sys/prctl.h>

namespace {

struct __AttrOwner {
    pthread_attr_t* attr;
    ~__AttrOwner() { pthread_attr_destroy(attr); }
};

int __set_attr(pthread_attr_t* attr, const MM_THREAD_ATTR_ST& wanted) {
    int code = pthread_attr_setinheritsched(attr, PTHREAD_EXPLICIT_SCHED);
    if (code == 0 && wanted.detach_flag != 0)
        code = pthread_attr_setdetachstate(attr, PTHREAD_CREATE_DETACHED);
    // The policy comes first: it decides which priorities there are.
    if (code == 0 && wanted.policy_flag != 0)
        code = pthread_attr_setschedpolicy(attr, wanted.policy);
    if (code == 0 && wanted.priority_flag != 0) {
        sched_param param = {};
        param.sched_priority = wanted.priority;
        code = pthread_attr_setschedparam(attr, &param);
    }
    if (code == 0 && wanted.stack_flag != 0)
        code = pthread_attr_setstacksize(attr, wanted.stack_size);
    return code;
}

bool __can_run(const MM_THREAD* thread, const MM_USER_BLOCK_ST* block) {
    return thread != nullptr && block != nullptr && block->proc != nullptr;
}

} // namespace

int mmCreateTask(MM_THREAD* thread, const MM_USER_BLOCK_ST* block) {
    if (!__can_run(thread, block))
        return EINVAL;
    return pthread_create(thread, nullptr, block->proc, block->arg);
}

int mmCreateTaskWithThreadAttr(MM_THREAD* thread, const MM_USER_BLOCK_ST* block,
                               const MM_THREAD_ATTR_ST* attr) {
    if (!__can_run(thread, block) || attr == nullptr)
        return EINVAL;
    pthread_attr_t thread_attr;
    int code = pthread_attr_init(&thread_attr);
    if (code != 0)
        return code;
    const __AttrOwner owner = {&thread_attr};
    code = __set_attr(&thread_attr, *attr);
    if (code != 0)
        return code;
    return pthread_create(thread, &thread_attr, block->proc, block->arg);
}

int mmSetCurrentThreadName(const char* name) {
    return prctl(PR_SET_NAME, name);
}
