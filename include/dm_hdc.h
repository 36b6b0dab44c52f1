/**
 * @file dm_hdc.h
 * The HDC interface: messages between processes over the sessions of the device HAL's HDC channel
 * (platform_hal.h). An endpoint is a server or a client.
 *
 * A client opens a session for every message, whatever its type, sends it and waits for the one
 * message that comes back: its send blocks for up to 40 s while the peer is not ready and for up to
 * 15 s while the answer does not come. It returns 0; the HAL's code of the step that failed (35:
 * not ready, 16: no answer); -12 or -22 when there was no memory for the frame; -1 for an answer
 * that is malformed; or EAGAIN when there was no room for it in the interface's pipe.
 *
 * A server accepts sessions on a thread of its own and receives one message from each, on a thread
 * a session, within 15 s. Its send answers on the session that the request came on, once: it
 * returns 0, the HAL's code, 48 when the session is closed already or there is no memory, or the
 * code of a failed bounds-checked function. In each case the session is closed, and the address is
 * changed to say so. A request that is never answered leaves its session open.
 *
 * A payload above DM_MAX_DATA_LEN goes out as an empty one. A message that is shorter than its
 * header or than that announces is dropped, what exceeds the announced length is cut off. The
 * 32-bit word at bytes 8 to 11 of a received payload is overwritten with the payload's length less
 * 12, or with 0 below 12: there the service's header has its body's length.
 *
 * Any thread may send. A thread that is cancelled while it sends (pthread_cancel(3)) leaves nothing
 * open, and of the answer all or nothing in the interface's pipe.
 */
#ifndef DM_HDC_H
#define DM_HDC_H

#include "dm_export.h"
#include "dm_msg_intf.h"

#include <stddef.h>
#include <stdint.h>

DM_BEGIN_DECLS

/** Role of an endpoint that accepts sessions (DM_HDC_ADDR_ST::role). */
#define DM_HDC_SERVER 1U
/** Role of one that connects; every other number than DM_HDC_SERVER is a client, too. */
#define DM_HDC_CLIENT 0U

/** Significant length of a peer's address, as messages carry it. */
#define DM_HDC_ADDR_LEN 40
/** Length of a frame without its payload, in bytes. */
#define DM_HDC_HEADER_LEN 30

/** Code of a server's send when the session is closed already. */
#define DM_HDC_ERR_CLOSED 48

/**
 * An HDC address: what a DM_ADDR_ST holds whose kind is 99. Copy it with memcpy(3), for a
 * DM_ADDR_ST may be less aligned.
 */
typedef struct DM_HDC_ADDR_ST {
    uint32_t kind;    /**< DM_KIND_HDC */
    uint16_t family;  /**< DM_FAMILY_HDC */
    uint16_t padding; /**< zero */
    uint32_t role; /**< own address: DM_HDC_SERVER or _CLIENT; of a received message: 1 at a client
                      with the role 0, else 0 */
    uint32_t src_dev;       /**< of a received message: the frame's src_dev */
    uint32_t dev_id;        /**< of a destination: the device id to connect to; of the own address:
                               what frames carry as src_dev; of a received message: dst_dev */
    uint32_t session_state; /**< of a received message: 1, and 0 once it was answered */
    uint64_t session;       /**< of a received message: the session's handle */
    uint32_t intf_num; /**< own address: the number in the interface's name, and a server's device
                          id */
    uint32_t padding2; /**< zero */
} DM_HDC_ADDR_ST;

DM_STATIC_ASSERT(sizeof(DM_HDC_ADDR_ST) == sizeof(DM_ADDR_ST), "an address has 40 bytes");
DM_ASSERT_OFFSET(DM_HDC_ADDR_ST, kind, 0);
DM_ASSERT_OFFSET(DM_HDC_ADDR_ST, family, 4);
DM_ASSERT_OFFSET(DM_HDC_ADDR_ST, role, 8);
DM_ASSERT_OFFSET(DM_HDC_ADDR_ST, src_dev, 12);
DM_ASSERT_OFFSET(DM_HDC_ADDR_ST, dev_id, 16);
DM_ASSERT_OFFSET(DM_HDC_ADDR_ST, session_state, 20);
DM_ASSERT_OFFSET(DM_HDC_ADDR_ST, session, 24);
DM_ASSERT_OFFSET(DM_HDC_ADDR_ST, intf_num, 32);

/** A frame, on a session and in an interface's pipe: the header and data_len bytes of the payload.
 *  Numbers are in host byte order. */
typedef struct __attribute__((packed)) HDC_MSG_ST {
    uint64_t session;              /**< the sender's handle; in the pipe the receiver's */
    uint32_t dst_dev;              /**< dev_id of the destination address */
    uint32_t src_dev;              /**< dev_id of the sender's own address */
    uint64_t req_id;               /**< identity of the request */
    uint32_t type;                 /**< DM_MSG_REQ or DM_MSG_RSP */
    uint16_t data_len;             /**< payload bytes that follow */
    uint8_t data[DM_MAX_DATA_LEN]; /**< payload; only data_len bytes of it are sent */
} HDC_MSG_ST;

DM_STATIC_ASSERT(sizeof(HDC_MSG_ST) == 4126, "an HDC frame has 4126 bytes");
DM_ASSERT_OFFSET(HDC_MSG_ST, session, 0);
DM_ASSERT_OFFSET(HDC_MSG_ST, dst_dev, 8);
DM_ASSERT_OFFSET(HDC_MSG_ST, src_dev, 12);
DM_ASSERT_OFFSET(HDC_MSG_ST, req_id, 16);
DM_ASSERT_OFFSET(HDC_MSG_ST, type, 24);
DM_ASSERT_OFFSET(HDC_MSG_ST, data_len, 28);
DM_ASSERT_OFFSET(HDC_MSG_ST, data, DM_HDC_HEADER_LEN);

/**
 * 1 at first: the servers of the process accept sessions. Closing any HDC interface sets it to 0,
 * as does dm_hdc_init() when the registration fails, and nothing in the library sets it back. A
 * thread that waits for a session sees it when that comes.
 */
extern DM_API int32_t g_dm_hdc_run;

/**
 * Formats an interface's name, "dm_hdc" and the number. Any thread.
 * @param num the interface number.
 * @param buf receives the name.
 * @param size of @p buf in bytes; DM_INTF_NAME_LEN is always enough.
 * @return 0; 5 when @p buf is null or too small.
 */
DM_API int32_t dm_hdc_get_intf_name(int32_t num, char* buf, uint32_t size);

/**
 * Creates an HDC interface, under the name that dm_hdc_get_intf_name() gives, and registers it. Any
 * thread.
 *
 * Its requests are not sent again and time out after 20 seconds, until set_retry says otherwise. A
 * server tries for two minutes to become the server of its device id. Closing the interface stops
 * accepting (g_dm_hdc_run); the channel and the pipe stay open for good. A call that fails closes
 * the pipe that it made, but for one whose flags it could not set. When it is the registration that
 * fails, the HAL's server or client stays.
 * @param intf receives the record, which is the context's; may be null.
 * @param dm_cb the context that gets the interface; must not be null.
 * @param timeout_hndl makes the response of a request that timed out, at least one byte; with null
 *                     it is the request's own data.
 * @param addr the own address, a DM_HDC_ADDR_ST, copied: kind 99, family 3, role, dev_id and
 *             intf_num.
 * @param opt not used; may be null.
 * @param opt_len below 32; ignored without @p opt.
 * @return 0; -22 for a bad argument; 5 when the name could not be formatted; -16 when the name is
 *         taken; -12 without memory; -1 when the accepting thread could not be started; the errno
 *         of pipe(2) or fcntl(2); the HAL's code of drvHdcGetCapacity(), drvHdcServerCreate() or
 *         drvHdcClientCreate(); or the code of dm_intf_register() or of a failed bounds-checked
 *         function.
 */
DM_API int32_t dm_hdc_init(DM_INTF_ST** intf, DM_CB_ST* dm_cb, DM_DATA_HANDLER timeout_hndl,
                           DM_ADDR_ST* addr, const void* opt, int32_t opt_len);

DM_END_DECLS

#endif
