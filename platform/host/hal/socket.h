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

// Opens a socket that does not block and that a started program does not inherit.
Descriptor open_socket(int type);

// Opens a socket under a name of its own, in a directory of the caller's own. Its file gets the
// sticky bit, too, which tells systemd-tmpfiles(8) that it is not to be cleaned away.
// @param mode of its file; who may write may send.
Descriptor bind_socket(int type, const Directory& directory, const char* name, mode_t mode);

// @return 0 or -1 with errno set, like connect(2).
int connect_socket(const Descriptor& socket, const Directory& directory, const char* name);

// Connects a socket of open_socket(), and waits a short while for a place among those who wait to
// be accepted. @return 0 or -1 with errno set: EAGAIN when none became free.
int connect_in_time(const Descriptor& socket, const Directory& directory, const char* name);

// @return the user of a connected peer.
std::optional<uid_t> peer_of(const Descriptor& socket);

// Waits for events of poll(2), up to a point in time if there is one. A cancellation point.
// @return the events; 0 when the time is over.
short wait_ready(const Descriptor& socket, short events, std::optional<Clock::time_point> deadline);

} // namespace hal

#endif
