// Refuses the poll thread its real-time priority, so that the library's threads are scheduled like
// the threads that it is compared with.
#include "platform_adapter.h"

#include <dlfcn.h>

#include <cerrno>

int mmCreateTaskWithThreadAttr(MM_THREAD* thread, const MM_USER_BLOCK_ST* block,
                               const MM_THREAD_ATTR_ST* attr) {
    static auto* const real = reinterpret_cast<decltype(&mmCreateTaskWithThreadAttr)>(
        dlsym(RTLD_NEXT, "mmCreateTaskWithThreadAttr"));
    return attr->policy_flag != 0 ? EPERM : real(thread, block, attr);
}
