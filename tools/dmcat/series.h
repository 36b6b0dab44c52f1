// Sends the requests: one, or one after the other until the count or a signal ends the series.
#ifndef DMCAT_SERIES_H
#define DMCAT_SERIES_H

#include "options.h"

namespace dmcat {

// Gives the exit status.
int run_series(const Options& options);

} // namespace dmcat

#endif
