// What the thread layer offers to the rest of the library beyond its exported interface.
#ifndef IPMI_OSAL_PRIVATE_H
#define IPMI_OSAL_PRIVATE_H

// The name that the calling thread was created with: the creator's pointer, by which the thread can
// find what the creator has left for it. Given once; null then, and on a thread that
// osal_create_task() did not create.
const char* __osal_take_start_name();

#endif
