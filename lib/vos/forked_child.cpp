// What a child of fork(2) finds of the OS layer: the thread that forked, its task if it was one,
// and no lock that a thread of the parent's held.
#include "vos/task_table.h"

#include <pthread.h>

namespace dm {

namespace {

// Handlers that were registered before these run between them, and may use the layer.
void before_fork() {
    table_making.lock();
    record_lock.lock();
    is_forking = true;
}

void in_parent() {
    is_forking = false;
    record_lock.unlock();
    table_making.unlock();
}

// The SPL lock may be the caller's own, so that it is not waited for before; nothing that it guards
// is changed without record_lock.
void in_child() {
    keep_only_this_thread();
    keep_only_this_task();
    pthread_mutex_init(&g_task_splmutex, nullptr);
    in_parent();
}

[[maybe_unused]] const int registered = pthread_atfork(before_fork, in_parent, in_child);

} // namespace

} // namespace dm
