// Holds off the cancellation of the calling thread for a scope.
//
// For what must not be left half done: a request for cancellation that comes meanwhile takes effect
// at the first cancellation point behind the scope.
#ifndef DM_BASE_CANCELLATION_H
#define DM_BASE_CANCELLATION_H

#include <pthread.h>

namespace dm {

class CancellationOff {
public:
    CancellationOff() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    CancellationOff(const CancellationOff&) = delete;
    CancellationOff& operator=(const CancellationOff&) = delete;
    ~CancellationOff() { pthread_setcancelstate(before_, nullptr); }

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace dm

#endif
