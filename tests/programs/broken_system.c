/* To be preloaded: a disk that does not answer, and a load average that cannot be had. */
#include <errno.h>
#include <sys/statvfs.h>
#include <unistd.h>

int statvfs(const char* path, struct statvfs* space) {
    for (;;)
        pause();
}

int getloadavg(double* load, int count) {
    errno = EMFILE;
    return -1;
}
