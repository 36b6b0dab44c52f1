// Answers requests instead of sending any.
#ifndef DMCAT_LISTENER_H
#define DMCAT_LISTENER_H

#include "options.h"

namespace dmcat {

// Echoes requests until SIGINT, SIGTERM or the end of the count. Gives the exit status.
int run_listener(const Options& options);

} // namespace dmcat

#endif
