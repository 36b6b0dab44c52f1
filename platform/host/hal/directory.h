// The place of the sockets, and who may take part there.
#ifndef HAL_DIRECTORY_H
#define HAL_DIRECTORY_H

#include "hal/descriptor.h"

#include <sys/types.h>

namespace hal {

// @return the value of an environment variable; null when it is not set, or empty.
const char* setting(const char* name);

// Opens the directory of the sockets, and makes it when it is missing. It must be a directory, not
// a link to one, belong to an allowed user and be closed to others; when DM_HAL_ALLOW_UIDS is set,
// others may search it, but neither list nor change it.
// @return a descriptor to name files by (O_PATH); empty when there is no such directory.
Descriptor open_directory();

// Says whether a user is the caller's own, or is listed in DM_HAL_ALLOW_UIDS.
bool is_allowed(uid_t uid);

} // namespace hal

#endif
