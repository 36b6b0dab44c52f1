// What the transports' init functions share: making a record and registering it.
#ifndef DM_INTF_INIT_H
#define DM_INTF_INIT_H

#include "base/memory.h"
#include "dm_msg_intf.h"
#include "msg/dm_msg_private.h"

// Copies an interface's name, cut to 31 characters. Gives a status.
inline int __dm_copy_intf_name(char (&copy)[DM_INTF_NAME_LEN], const char* name) {
    const int status = strncpy_s(copy, sizeof(copy), name, DM_INTF_NAME_LEN - 1);
    copy[DM_INTF_NAME_LEN - 1] = '\0';
    return status;
}

// True, with an error line, when an interface of that name is registered.
bool __dm_is_duplicate(DM_CB_ST* dm_cb, const char* name);

// Zeroes a new record and gives it its name and address. Gives a status; a failure is logged.
int __dm_begin_record(DM_INTF_ST* intf, const char* name, const DM_ADDR_ST* addr);

void __dm_fill_slots(DM_INTF_ST* intf, DM_RECV_MSG recv_msg, DM_SEND_MSG send_msg,
                     DM_SEND_MSG_EX send_msg_ex, DM_CLOSE close);

// Registers a record; `out` gets it when that succeeds, and may be null. It stays in `intf` when
// the list refused it, not yet closed. `holder` tells who has it.
int __dm_register_record(DM_CB_ST* dm_cb, dm::Owned<DM_INTF_ST>& intf, DM_INTF_ST** out,
                         IntfHolder* holder);

// The same for a record that releases all it has with its close slot: when it is not listed, that
// has run and the record is released, once in all.
int __dm_register_or_close(DM_CB_ST* dm_cb, dm::Owned<DM_INTF_ST> intf, DM_INTF_ST** out);

#endif
