// Holds a thread's cancellation off for a scope.
#ifndef DM_BASE_CANCELLATION_H
#define DM_BASE_CANCELLATION_H

#include <pthread.h>

namespace dm {

// For what must not be left half done: a request for cancellation that comes meanwhile takes effect
// at the first cancellation point after the scope.
class CancellationHeldOff {
public:
    CancellationHeldOff() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    CancellationHeldOff(const CancellationHeldOff&) = delete;
    CancellationHeldOff& operator=(const CancellationHeldOff&) = delete;
    ~CancellationHeldOff() { pthread_setcancelstate(before_, nullptr); }

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace dm

#endif
