/** Mutexes. */
#include "platform_adapter.h"

int mmMutexLock(pthread_mutex_t* mutex) {
    return pthread_mutex_lock(mutex);
}

int mmMutexUnLock(pthread_mutex_t* mutex) {
    return pthread_mutex_unlock(mutex);
}

int mmMutexDestroy(pthread_mutex_t* mutex) {
    return pthread_mutex_destroy(mutex);
}
