/** Descriptors: the system's own calls, with their own errno. */
#include "platform_adapter.h"

#include <sys/socket.h>
#include <unistd.h>

int64_t mmReadFile(int fd, void* buffer, uint32_t size) {
    return read(fd, buffer, size);
}

int64_t mmWriteFile(int fd, const void* buffer, uint32_t size) {
    return write(fd, buffer, size);
}

int mmCloseFile(int fd) {
    return close(fd);
}

int mmSocket(int family, int type, int protocol) {
    return socket(family, type, protocol);
}
