// A non-blocking pipe that a child process does not inherit.
#ifndef DM_BASE_PIPE_H
#define DM_BASE_PIPE_H

#include "base/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace dm {

// Gives 0, or the errno of the first call that failed; the ends are then closed by `Close`.
template<auto Close>
int open_pipe(Descriptor<Close>& read_end, Descriptor<Close>& write_end) {
    int fds[2];
    if (pipe(fds) != 0)
        return errno;
    Descriptor<Close> opened_read(fds[0]);
    Descriptor<Close> opened_write(fds[1]);
    const bool set =
        fcntl(fds[0], F_SETFL, O_NONBLOCK) != -1 && fcntl(fds[1], F_SETFL, O_NONBLOCK) != -1 &&
        fcntl(fds[0], F_SETFD, FD_CLOEXEC) != -1 && fcntl(fds[1], F_SETFD, FD_CLOEXEC) != -1;
    if (!set)
        return errno;
    read_end.reset(opened_read.release());
    write_end.reset(opened_write.release());
    return 0;
}

} // namespace dm

#endif
