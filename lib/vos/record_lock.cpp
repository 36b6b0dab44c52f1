#include "vos/record_lock.h"

namespace dm {

constinit RecordLock record_lock;
[[gnu::tls_model("initial-exec")]] constinit thread_local SignalsHeld signals_held{};
[[gnu::tls_model("initial-exec")]] constinit thread_local bool is_forking = false;

namespace {

const sigset_t all_signals = [] {
    sigset_t all;
    sigfillset(&all);
    return all;
}();

} // namespace

// A handler that runs in here before signals are off leaves what it finds.
void SignalsOff::hold() {
    pthread_sigmask(SIG_BLOCK, &all_signals,
                    signals_held.times == 0 ? &signals_held.before : nullptr);
    ++signals_held.times;
}

void SignalsOff::let() {
    if (--signals_held.times == 0)
        pthread_sigmask(SIG_SETMASK, &signals_held.before, nullptr);
}

} // namespace dm
