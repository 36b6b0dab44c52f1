// A non-blocking pipe that a child process does not inherit.
#ifndef DM_BASE_PIPE_H
#define DM_BASE_PIPE_H

#include "base/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace dm {

// Gives 0, or the errno of the first call that failed. What is open by then is the caller's: the
// ends are -1 when there is no pipe.
inline int make_pipe(int& read_end, int& write_end) {
    int fds[2] = {-1, -1};
    const bool made = pipe(fds) == 0 && fcntl(fds[0], F_SETFL, O_NONBLOCK) != -1 &&
                      fcntl(fds[1], F_SETFL, O_NONBLOCK) != -1 &&
                      fcntl(fds[0], F_SETFD, FD_CLOEXEC) != -1 &&
                      fcntl(fds[1], F_SETFD, FD_CLOEXEC) != -1;
    const int status = made ? 0 : errno;
    read_end = fds[0];
    write_end = fds[1];
    return status;
}

// The same for ends that `Close` closes, also when this fails.
template<auto Close>
int open_pipe(Descriptor<Close>& read_end, Descriptor<Close>& write_end) {
    int fds[2];
    const int status = make_pipe(fds[0], fds[1]);
    Descriptor<Close> opened_read(fds[0]);
    Descriptor<Close> opened_write(fds[1]);
    if (status != 0)
        return status;
    read_end.reset(opened_read.release());
    write_end.reset(opened_write.release());
    return 0;
}

} // namespace dm

#endif
