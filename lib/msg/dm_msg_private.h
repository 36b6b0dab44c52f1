// What the transports share with the framework and with each other.
#ifndef DM_MSG_PRIVATE_H
#define DM_MSG_PRIVATE_H

#include "base/atomic_field.h"
#include "base/log.h"
#include "base/memory.h"
#include "dm_msg_intf.h"
#include "dm_poller.h"
#include "platform_bounds.h"

#include <cstring>

// The poller's callback for an interface's descriptor: takes one message.
int __dm_recv(int fd, int events, void* user_data, uint32_t user_data_len);

// The same for a transport that knows whether another message waits, or that it is worth a try: its
// messages are taken one after another without another look at all descriptors, up to a bound that
// keeps the other interfaces and the timers fair.
using DM_HAS_NEXT = bool (*)(DM_INTF_ST* intf);
int __dm_recv_all(int fd, int events, void* user_data, DM_HAS_NEXT has_next);

// Registers a record for a transport's init function and gives its address in `out`, which may be
// null. The record is the context's afterwards, whatever this returns: one that is refused has been
// released without a call of its close slot, and what it refers to is still the caller's to close.
int __dm_intf_register(DM_CB_ST* dm_cb, dm::Owned<DM_INTF_ST> intf, DM_INTF_ST** out,
                       POLLER_FD_CALLBACK on_input = __dm_recv);

// Makes the framework's copy of a caller's user data. The lines of a failure are the site's:
// `copy_failed` is the one for a failed copy.
int __dm_copy_user_data(void** copy, const void* user_data, size_t len, dm::CopyFunction copy_s,
                        const char* copy_failed, const dm::LogSite& site);

// Copies a payload with the given bounds-checked function; an empty one needs no bytes to point at.
// Gives a status.
inline int __dm_copy_payload(dm::CopyFunction copy, uint8_t (&dest)[DM_MAX_DATA_LEN],
                             const DM_DATA_ST* data) {
    return data->data_len != 0 ? copy(dest, sizeof(dest), data->data, data->data_len) : 0;
}

inline bool __dm_has_name(const DM_INTF_ST* intf, const char* name) {
    return std::strncmp(intf->name, name, DM_INTF_NAME_LEN) == 0;
}

// The slots that all transports fill alike. A request may be sent while another thread sets them.
inline int __dm_set_retry(DM_INTF_ST* intf, int32_t retry_cnt, uint32_t timeout_ms) {
    dm::store(intf->retry_cnt, retry_cnt);
    dm::store(intf->timeout_ms, timeout_ms);
    return 0;
}

inline int __dm_get_retry(DM_INTF_ST* intf, int32_t* retry_cnt, uint32_t* timeout_ms) {
    *retry_cnt = dm::load(intf->retry_cnt);
    *timeout_ms = dm::load(intf->timeout_ms);
    return 0;
}

// send_msg_ex of the transports that have no use for the two further arguments.
template<DM_SEND_MSG Send>
int __dm_send_msg_ex(DM_INTF_ST* intf, uint32_t type, DM_ADDR_ST* addr, uint32_t addr_len,
                     DM_DATA_ST* data, uint32_t /*extra1*/, uint32_t /*extra2*/, uint64_t req_id) {
    return Send(intf, type, addr, addr_len, data, req_id);
}

#endif
