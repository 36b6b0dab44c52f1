/* What happens when a thread takes a semaphore that it holds already. */
#include "ipmi_v_sm.h"

#include <inttypes.h>
#include <stdio.h>

static void show(const char* call, uint32_t code) {
    printf("%-24s 0x%08" PRIx32 "  %s\n", call, code,
           code == 0                      ? "taken"
           : code == THREAD_TIMED_FAILED  ? "refused: it would wait for itself"
           : code == THREAD_TIMED_TIMEOUT ? "not given in time"
                                          : "failed");
    fflush(stdout);
}

int main(void) {
    THREAD_TIMED_MUTEX_ST* config = NULL;
    if (vos_sm_bcreate("conf", 1, 0, &config) != 0) {
        vos_sm_delete(config);
        return 1;
    }
    show("vos_sm_p(config, 0)", vos_sm_p(config, 0));
    /* A wait without end is refused at once, and the log names the thread and the lock. */
    show("vos_sm_p(config, 0)", vos_sm_p(config, 0));
    /* With a time-out the thread does wait: somebody else may give the semaphore meanwhile. */
    show("vos_sm_p(config, 300)", vos_sm_p(config, 300));
    vos_sm_v(config);
    show("vos_sm_p(config, 300)", vos_sm_p(config, 300));
    vos_sm_v(config);
    vos_sm_delete(config);
    return 0;
}
