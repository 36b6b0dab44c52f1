/* A pool of workers: tasks that take jobs from one queue and put results into another.
 *
 * A queue carries copies, so what a job needs is in its record; both ends agree on its size. */
#include "ipmi_v_queue.h"
#include "ipmi_v_task.h"

#include <inttypes.h>
#include <stdio.h>

enum { WORKERS = 4, JOBS = 12, STACK_SIZE = 65536, PRIORITY = 100, QUEUE_MODE = 9 };

typedef struct {
    uint32_t number;
    uint32_t worker; /* who did it */
    uint64_t result;
} JOB;

/* Runs until the task is deleted, which ends it where it waits for the next job. */
static void work(uint64_t jobs, uint64_t results, uint64_t unused1, uint64_t unused2) {
    (void)unused1, (void)unused2;
    for (;;) {
        JOB job;
        if (vos_queue_read(jobs, 0, &job, sizeof(job)) != sizeof(job))
            return; /* the queue is gone */
        job.worker = vos_get_current_task_id();
        job.result = 1;
        for (uint32_t i = 2; i <= job.number; ++i)
            job.result *= i;
        vos_queue_asy_write(results, &job, sizeof(job));
    }
}

static int run(uint64_t jobs, uint64_t results) {
    const uint64_t args[4] = {jobs, results, 0, 0};
    uint32_t workers[WORKERS];
    int started = 0;
    while (started < WORKERS &&
           vos_create_task("worker", &workers[started], work, PRIORITY, STACK_SIZE, args) == 0)
        ++started;

    for (uint32_t number = 1; number <= JOBS; ++number) {
        const JOB job = {number, 0, 0};
        if (vos_queue_asy_write(jobs, &job, sizeof(job)) != 0)
            printf("job %" PRIu32 " does not fit into the queue\n", number);
    }
    int done = 0;
    JOB job;
    while (started > 0 && done < JOBS &&
           vos_queue_read(results, 5000, &job, sizeof(job)) == sizeof(job)) {
        printf("%" PRIu32 "! = %" PRIu64 " (task %" PRIu32 ")\n", job.number, job.result,
               job.worker);
        ++done;
    }
    while (started > 0)
        vos_delete_task(workers[--started]);
    return done == JOBS ? 0 : 1;
}

int main(void) {
    int32_t jobs = -1;
    int32_t results = -1;
    int status = 1;
    if (task_task_info_init() == 0 &&
        vos_private_queue_create("jobs", JOBS, &jobs, QUEUE_MODE, 1) == 0 &&
        vos_private_queue_create("results", JOBS, &results, QUEUE_MODE, 1) == 0)
        status = run((uint64_t)jobs, (uint64_t)results);
    /* The kernel keeps queues until somebody removes them. */
    if (jobs != -1)
        vos_queue_delete((uint64_t)jobs);
    if (results != -1)
        vos_queue_delete((uint64_t)results);
    return status;
}
