/**
 * @file dm_ipc.h
 * The IPC interface: short messages through the device manager's channel of the device HAL
 * (platform_hal.h).
 *
 * The channel carries bytes only: neither a type nor a req_id nor a sender. So every message that
 * arrives is a request, numbered across the process, and its source is the interface's own device
 * id. An answer arrives as a request, too, and ends no pending one: requests time out, after 10
 * seconds and without being sent again, until set_retry says otherwise.
 */
#ifndef DM_IPC_H
#define DM_IPC_H

#include "dm_export.h"
#include "dm_msg_intf.h"

#include <stdint.h>

DM_BEGIN_DECLS

/** Most bytes in one message, advertised as max_data_len. */
#define DM_IPC_MAX_LEN 32
/** Significant length of a peer's address, as messages carry it. */
#define DM_IPC_ADDR_LEN 12

/** Room for one message, zero at first, for the services that link the library, which neither reads
 *  nor writes it. */
extern DM_API uint8_t dm_ipc_recv_msg[DM_IPC_MAX_LEN];

/**
 * Formats an interface's name, "dm_ipc" and the number. Any thread.
 * @param num the interface's device id.
 * @param buf receives the name.
 * @param size of @p buf in bytes; DM_INTF_NAME_LEN is always enough.
 * @return 0; 5 when @p buf is null or too small.
 */
DM_API int32_t dm_ipc_get_intf_name(int32_t num, char* buf, uint32_t size);

/**
 * Opens the device manager's channel, and creates and registers an interface for it under the name
 * that dm_ipc_get_intf_name() gives. Any thread.
 * @param intf receives the record, which is the context's; may be null.
 * @param dm_cb the context that gets the interface; must not be null.
 * @param timeout_hndl makes the response of a request that timed out, at least one byte; with null
 *                     it is the request's own data.
 * @param addr the own address, copied: kind 102, family 6, and in peer_id the device id whose
 *             messages are received.
 * @param opt not used; may be null.
 * @param opt_len below 32; ignored without @p opt.
 * @return 0; EINVAL (22) for a bad argument; 5 when the name could not be formatted; EBUSY (16)
 *         when the name is taken; ENOMEM (12); -1 when the channel could not be opened; or the code
 * of dm_intf_register() or of a failed bounds-checked function.
 */
DM_API int32_t dm_ipc_init(DM_INTF_ST** intf, DM_CB_ST* dm_cb, DM_DATA_HANDLER timeout_hndl,
                           DM_ADDR_ST* addr, const void* opt, int32_t opt_len);

/**
 * Sends one message: the send_msg slot. Arguments are not checked. Any thread.
 * @param intf an interface from dm_ipc_init().
 * @param type not sent.
 * @param addr the destination's device id in peer_id.
 * @param addr_len not used.
 * @param data of its data_len only the low 8 bits count: 300 bytes go out as 44, and 256 as none.
 * @param req_id not sent.
 * @return the result of devdrv_imu_dmp_msg_send(), 0 when it was sent.
 */
DM_API int32_t __dm_ipc_send(DM_INTF_ST* intf, uint32_t type, DM_ADDR_ST* addr, uint32_t addr_len,
                             DM_DATA_ST* data, uint64_t req_id);

/**
 * The same with two more arguments: the send_msg_ex slot. Any thread.
 * @param intf an interface from dm_ipc_init().
 * @param type not sent.
 * @param addr the destination's device id in peer_id.
 * @param addr_len not used.
 * @param data of its data_len only the low 8 bits count.
 * @param extra1 ignored.
 * @param extra2 ignored.
 * @param req_id not sent.
 * @return the result of devdrv_imu_dmp_msg_send(), 0 when it was sent.
 */
DM_API int32_t __dm_ipc_settime_send(DM_INTF_ST* intf, uint32_t type, DM_ADDR_ST* addr,
                                     uint32_t addr_len, DM_DATA_ST* data, uint32_t extra1,
                                     uint32_t extra2, uint64_t req_id);

DM_END_DECLS

#endif
