// The message queues that killed daemons have left in the kernel.
#ifndef DMOND_DEAD_QUEUES_H
#define DMOND_DEAD_QUEUES_H

namespace dmond {

// The name that the kernel has to know a daemon by, whatever its file is called (prctl(2)): the
// queues of a process of another name are removed.
inline constexpr char kProcessName[8] = "dmond";

// Removes those of this user. To be called before this process makes its own.
void remove_dead_queues();

} // namespace dmond

#endif
