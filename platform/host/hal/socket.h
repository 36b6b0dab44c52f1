// Unix sockets that lie in the directory, and waiting for them.
#ifndef HAL_SOCKET_H
#define HAL_SOCKET_H

#include "hal/directory.h"
#include "hal/sessions.h"

#include <sys/types.h>
#include <sys/un.h>

#include <chrono>
#include <optional>

namespace hal {

// @return the address of a socket, by its file's name in the directory.
sockaddr_un address_in(const Directory& directory, const char* name);

// How long recv(2) on a session's socket waits by itself. Less than the library's 3 s: that
// time-out of the kernel's may come a tenth later, and what is left of the 3 s is waited for
// precisely.
constexpr std::chrono::milliseconds kReceiveWait(2500);

// Opens a socket that a started program does not inherit.
Descriptor open_socket(int type);

// Opens a socket that does not block under a name of its own, in a directory of the caller's own.
// Its file gets the sticky bit, too, which tells systemd-tmpfiles(8) that it is not to be cleaned
// away.
// @param mode of its file; who may write may send.
Descriptor bind_socket(int type, const Directory& directory, const char* name, mode_t mode);

// @return 0 or -1 with errno set, like connect(2).
int connect_socket(const Descriptor& socket, const Directory& directory, const char* name);

// Connects a socket that blocks, and waits a short while for a place among those who wait to be
// accepted. @return 0 or -1 with errno set: EAGAIN when none became free.
int connect_in_time(const Descriptor& socket, const Directory& directory, const char* name);

// Limits the wait of recv(2) to kReceiveWait. @return whether that was possible; if not, errno is
// set.
bool limit_receive(const Descriptor& socket);

// @return the user of a connected peer.
std::optional<uid_t> peer_of(const Descriptor& socket);

// Waits for events of poll(2), up to a point in time if there is one. A cancellation point.
// @return the events; 0 when the time is over.
short wait_ready(const Descriptor& socket, short events, std::optional<Clock::time_point> deadline);

} // namespace hal

#endif
