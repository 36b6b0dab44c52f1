/**
 * @file dm_udp.h
 * The UDP interface: messages between processes, one IPv4 datagram each (udp(7)).
 *
 * Every datagram has the same 4138 bytes, whatever its payload. A send returns 0, the errno of
 * sendto(2), -EINVAL for more than DM_MAX_DATA_LEN bytes or -ENOMEM. Any thread may send.
 */
#ifndef DM_UDP_H
#define DM_UDP_H

#include "dm_export.h"
#include "dm_msg_intf.h"

#include <stddef.h>
#include <stdint.h>

DM_BEGIN_DECLS

/** Significant length of a UDP peer's address, as messages carry it. */
#define DM_UDP_ADDR_LEN 28

/** A datagram. Numbers are in the sender's byte order. */
typedef struct __attribute__((packed)) DM_UDP_MSG_ST {
    uint16_t src_port;     /**< port of the sending interface's own address */
    uint16_t dst_port;     /**< port of the destination address */
    uint16_t reserved1;    /**< 0; others are dropped */
    uint16_t marker;       /**< 1; others are dropped */
    uint16_t data_len;     /**< payload bytes in data; above DM_MAX_DATA_LEN there are none */
    uint32_t type;         /**< DM_MSG_REQ or DM_MSG_RSP */
    uint32_t peer_id;      /**< of the destination address */
    uint64_t req_id;       /**< identity of the request, which a response repeats */
    uint8_t reserved2[16]; /**< zero */
    uint8_t data[DM_MAX_DATA_LEN]; /**< payload, zero behind it */
} DM_UDP_MSG_ST;

DM_STATIC_ASSERT(sizeof(DM_UDP_MSG_ST) == 4138, "a datagram has 4138 bytes");
DM_ASSERT_OFFSET(DM_UDP_MSG_ST, src_port, 0);
DM_ASSERT_OFFSET(DM_UDP_MSG_ST, dst_port, 2);
DM_ASSERT_OFFSET(DM_UDP_MSG_ST, reserved1, 4);
DM_ASSERT_OFFSET(DM_UDP_MSG_ST, marker, 6);
DM_ASSERT_OFFSET(DM_UDP_MSG_ST, data_len, 8);
DM_ASSERT_OFFSET(DM_UDP_MSG_ST, type, 10);
DM_ASSERT_OFFSET(DM_UDP_MSG_ST, peer_id, 14);
DM_ASSERT_OFFSET(DM_UDP_MSG_ST, req_id, 18);
DM_ASSERT_OFFSET(DM_UDP_MSG_ST, reserved2, 26);
DM_ASSERT_OFFSET(DM_UDP_MSG_ST, data, 42);

/**
 * Creates a UDP interface, bound to an address, and registers it. Any thread.
 *
 * Its requests are sent again twice, 30 seconds apart, until set_retry says otherwise. The address
 * may be one that the host does not have yet (ip(7), IP_FREEBIND). With port 0 the system chooses
 * one; getsockname(2) on the record's fd tells it. An interface under another name than "dm_udp"
 * keeps its socket open when it is closed.
 * @param intf receives the record, which is the context's; may be null.
 * @param dm_cb the context that gets the interface; must not be null.
 * @param timeout_hndl makes the response of a request that timed out, at least one byte; with null
 *                     it is the request's own data.
 * @param addr the address to bind (kind 98, family 2, a sockaddr_in in sa), copied.
 * @param name null for "dm_udp".
 * @param name_len length of the name, below 32; ignored without a name.
 * @return 0; EINVAL (22) for a bad argument; EBUSY (16) when the name is taken; ENOMEM (12); the
 *         errno of socket(2), fcntl(2), setsockopt(2) or bind(2); or the code of the failed call.
 */
DM_API int dm_udp_init(DM_INTF_ST** intf, DM_CB_ST* dm_cb, DM_DATA_HANDLER timeout_hndl,
                       DM_ADDR_ST* addr, const char* name, uint32_t name_len);

DM_END_DECLS

#endif
