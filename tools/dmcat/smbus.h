// One block to or from the device on the SMBus.
#ifndef DMCAT_SMBUS_H
#define DMCAT_SMBUS_H

#include "options.h"

namespace dmcat {

// Writes the payload as one block, or prints a block that was read. Gives the exit status; throws
// std::runtime_error when the bus cannot be opened or does not work.
int run_smbus(const Options& options);

} // namespace dmcat

#endif
