// What the transports' init functions share: making a record.
#ifndef DM_INTF_INIT_H
#define DM_INTF_INIT_H

#include "base/log.h"
#include "dm_msg_intf.h"

// Copies an interface's name, cut to 31 characters. Gives a status; a failure is logged as the
// caller's.
int __dm_copy_intf_name(const dm::LogSite& site, char (&copy)[DM_INTF_NAME_LEN], const char* name);

// True, with an error line of the caller's, when an interface of that name is registered.
bool __dm_is_duplicate(const dm::LogSite& site, DM_CB_ST* dm_cb, const char* name);

// Zeroes a new record and gives it its name and address. Gives a status; a failure is logged as the
// caller's.
int __dm_begin_record(const dm::LogSite& site, DM_INTF_ST* intf, const char* name,
                      const DM_ADDR_ST* addr);

void __dm_fill_slots(DM_INTF_ST* intf, DM_RECV_MSG recv_msg, DM_SEND_MSG send_msg,
                     DM_SEND_MSG_EX send_msg_ex, DM_CLOSE close);

#endif
