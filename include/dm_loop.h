/**
 * @file dm_loop.h
 * The self-loop interface: messages that a process sends to itself, through a pipe(7).
 *
 * dm_init() registers one under the name "selfloop" in every context; time-outs travel through it.
 *
 * A send returns EAGAIN when the pipe is full, and 22 for more than DM_MAX_DATA_LEN bytes. When the
 * pipe takes only a part of a frame, the send succeeds and the rest goes out ahead of everything
 * else, with the next send or receive. A message without payload is sent but refused on receive.
 * Any thread may send; one that is cancelled in it (pthread_cancel(3)) has sent the message or not.
 */
#ifndef DM_LOOP_H
#define DM_LOOP_H

#include "dm_export.h"
#include "dm_msg_intf.h"

#include <stddef.h>
#include <stdint.h>

DM_BEGIN_DECLS

/** A frame in the pipe, in host byte order: the header and data_len bytes of the payload. */
typedef struct __attribute__((packed)) SELF_MSG_ST {
    DM_ADDR_ST addr;               /**< the destination as given to the send, all 40 bytes */
    uint32_t addr_len;             /**< its significant length as given to the send */
    uint64_t req_id;               /**< identity of the request */
    uint32_t type;                 /**< DM_MSG_REQ or DM_MSG_RSP */
    uint16_t reserved;             /**< zero */
    uint16_t data_len;             /**< payload bytes that follow, 1 to DM_MAX_DATA_LEN */
    uint8_t data[DM_MAX_DATA_LEN]; /**< payload; only data_len bytes of it are sent */
} SELF_MSG_ST;

DM_STATIC_ASSERT(sizeof(SELF_MSG_ST) == 4156, "a self-loop frame has 4156 bytes");
DM_ASSERT_OFFSET(SELF_MSG_ST, addr, 0);
DM_ASSERT_OFFSET(SELF_MSG_ST, addr_len, 40);
DM_ASSERT_OFFSET(SELF_MSG_ST, req_id, 44);
DM_ASSERT_OFFSET(SELF_MSG_ST, type, 52);
DM_ASSERT_OFFSET(SELF_MSG_ST, reserved, 56);
DM_ASSERT_OFFSET(SELF_MSG_ST, data_len, 58);
DM_ASSERT_OFFSET(SELF_MSG_ST, data, 60);

/**
 * Creates a self-loop interface and registers it. Any thread.
 *
 * A time-out is 100 ms without re-sends, and there is no time-out handler: it is answered with the
 * request's own data. An interface under another name than "selfloop" keeps its pipe open when it
 * is closed.
 * @param intf receives the record, which is the context's; may be null.
 * @param dm_cb the context that gets the interface; must not be null.
 * @param addr the interface's address (kind 97, family 1), copied; null for the default.
 * @param name null for "selfloop"; cut to 31 characters.
 * @param name_len not used.
 * @return 0; EINVAL (22) for a null context or a wrong address; EBUSY (16) when the name is taken;
 *         ENOMEM (12); the errno of pipe(2) or fcntl(2); or the code of the failed call.
 */
DM_API int selfloop_init(DM_INTF_ST** intf, DM_CB_ST* dm_cb, DM_ADDR_ST* addr, const char* name,
                         uint32_t name_len);

DM_END_DECLS

#endif
