// Refuses the poll thread its real-time priority, so that the library's threads are scheduled like
// the threads that it is compared with.
#include "platform_adapter.h"

#include <cerrno>

int mmCreateTaskWithThreadAttr(MM_THREAD*, const MM_USER_BLOCK_ST*, const MM_THREAD_ATTR_ST*) {
    return EPERM;
}
