#include "support/poll_thread.h"

#include "platform_adapter.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<int> scopes;

} // namespace

bench::RealTimeScope::RealTimeScope() {
    ++scopes;
}

bench::RealTimeScope::~RealTimeScope() {
    --scopes;
}

int mmCreateTaskWithThreadAttr(MM_THREAD* thread, const MM_USER_BLOCK_ST* block,
                               const MM_THREAD_ATTR_ST* attr) {
    static auto* const real = reinterpret_cast<decltype(&mmCreateTaskWithThreadAttr)>(
        dlsym(RTLD_NEXT, "mmCreateTaskWithThreadAttr"));
    return attr->policy_flag != 0 && scopes == 0 ? EPERM : real(thread, block, attr);
}
