/**
 * @file platform_hal.h
 * The platform's device HAL, as the library imports it: HDC channels, which carry one message at a
 * time over sessions between a server and its clients, and the device manager's message channel.
 *
 * All functions may be called from any thread and return 0 on success, else a code of the HAL's own
 * unless something else is said. A handle that was closed or never existed gives such a code.
 */
#ifndef PLATFORM_HAL_H
#define PLATFORM_HAL_H

#include "dm_export.h"

#include <stddef.h>
#include <stdint.h>

DM_BEGIN_DECLS

/** Code of halHdcRecv() when nothing came in time. */
#define HAL_HDC_TIMEOUT 16
/** Code of drvHdcSessionConnect() while the peer is not ready; the library then tries again. */
#define HAL_HDC_NOT_READY 35

/** Wait flag of halHdcSend() and halHdcRecv(): wait for the given time at most. */
#define HAL_HDC_WAIT_TIMEOUT 2

/* Attributes of a session. */
#define HAL_HDC_ATTR_UID 1     /**< user id of the peer's process */
#define HAL_HDC_ATTR_RUN_ENV 2 /**< where the peer runs, 1 to 4 */

/** Most payload bytes of a device manager's message. */
#define HAL_DMP_MAX_LEN 32

/* Handles; 0 is none. */
typedef uint64_t HDC_SERVER;  /**< a server */
typedef uint64_t HDC_CLIENT;  /**< a client */
typedef uint64_t HDC_SESSION; /**< a session */

/** A message: buffers to send, or what was received. Made by drvHdcAllocMsg(). */
typedef struct HAL_HDC_MSG HAL_HDC_MSG;

/** What the channel can carry. */
typedef struct {
    uint32_t channel_type; /**< the HAL's; the library does not read it */
    uint32_t max_len;      /**< most bytes in one message */
} HDC_CAPACITY_ST;

DM_ASSERT_SIZE(HDC_CAPACITY_ST, 8);
DM_ASSERT_OFFSET(HDC_CAPACITY_ST, channel_type, 0);
DM_ASSERT_OFFSET(HDC_CAPACITY_ST, max_len, 4);

/**
 * Tells the channel's capacity.
 * @param capacity receives it.
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t drvHdcGetCapacity(HDC_CAPACITY_ST* capacity);

/**
 * Makes this process the server of a device id.
 * @param device_id the id, which one live server at a time has.
 * @param service_type 0; there is one service.
 * @param server receives the handle, to be given to drvHdcServerDestroy().
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t drvHdcServerCreate(int32_t device_id, int32_t service_type, HDC_SERVER* server);

/**
 * Ends a server. A drvHdcSessionAccept() that waits on it returns; its sessions stay open.
 * @param server the handle, dead afterwards.
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t drvHdcServerDestroy(HDC_SERVER server);

/**
 * Makes a client, from which sessions are connected.
 * @param client receives the handle, to be given to drvHdcClientDestroy().
 * @param max_sessions most sessions that are open at once.
 * @param service_type 0; there is one service.
 * @param flags 0.
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t drvHdcClientCreate(HDC_CLIENT* client, int32_t max_sessions, int32_t service_type,
                                  int32_t flags);

/**
 * Ends a client; its sessions stay open.
 * @param client the handle, dead afterwards.
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t drvHdcClientDestroy(HDC_CLIENT client);

/**
 * Waits for a client. May be a cancellation point.
 * @param server the server.
 * @param session receives the open session, to be given to drvHdcSessionClose().
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t drvHdcSessionAccept(HDC_SERVER server, HDC_SESSION* session);

/**
 * Opens a session with the server of a device id.
 * @param peer_node 0; there is one node.
 * @param peer_device_id the server's device id.
 * @param client the client.
 * @param session receives the open session, to be given to drvHdcSessionClose().
 * @return 0; HAL_HDC_NOT_READY while no server can take it; or another code of the HAL's.
 */
DM_API int32_t drvHdcSessionConnect(int32_t peer_node, int32_t peer_device_id, HDC_CLIENT client,
                                    HDC_SESSION* session);

/**
 * Closes a session; its peer then receives an error.
 * @param session the session, dead afterwards.
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t drvHdcSessionClose(HDC_SESSION session);

/**
 * Binds a session to the calling process, which is to use it from now on.
 * @param session the session.
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t drvHdcSetSessionReference(HDC_SESSION session);

/**
 * Makes an empty message for a session.
 * @param session the session that it is for.
 * @param msg receives the message, which the caller gives back with drvHdcFreeMsg().
 * @param count how many buffers it may have.
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t drvHdcAllocMsg(HDC_SESSION session, HAL_HDC_MSG** msg, int32_t count);

/**
 * Appends a buffer to be sent.
 * @param msg the message.
 * @param buffer the caller's bytes, which stay the caller's and must last as long as the message.
 * @param length in bytes.
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t drvHdcAddMsgBuffer(HAL_HDC_MSG* msg, char* buffer, int32_t length);

/**
 * Gives a buffer of a message.
 * @param msg the message.
 * @param index 0 for the first.
 * @param buffer receives its address; received bytes are the message's and may be changed.
 * @param length receives its length in bytes.
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t drvHdcGetMsgBuffer(HAL_HDC_MSG* msg, int32_t index, char** buffer, int32_t* length);

/**
 * Releases a message and what it received.
 * @param msg the message, dead afterwards.
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t drvHdcFreeMsg(HAL_HDC_MSG* msg);

/**
 * Sends a message's buffers as one message. May be a cancellation point.
 * @param session the session.
 * @param msg the message, which stays the caller's.
 * @param flag HAL_HDC_WAIT_TIMEOUT.
 * @param timeout_ms how long to wait for room, in milliseconds.
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t halHdcSend(HDC_SESSION session, HAL_HDC_MSG* msg, uint64_t flag,
                          uint32_t timeout_ms);

/**
 * Receives one message, whole. May be a cancellation point.
 * @param session the session.
 * @param msg an empty message, which receives it.
 * @param buffer_length a hint; a longer message up to the channel's capacity comes all the same.
 * @param flag HAL_HDC_WAIT_TIMEOUT.
 * @param count receives how many buffers were filled.
 * @param timeout_ms how long to wait, in milliseconds.
 * @return 0; HAL_HDC_TIMEOUT when nothing came; or another code of the HAL's.
 */
DM_API int32_t halHdcRecv(HDC_SESSION session, HAL_HDC_MSG* msg, int32_t buffer_length,
                          uint64_t flag, int32_t* count, uint32_t timeout_ms);

/**
 * Tells an attribute of a session.
 * @param session the session.
 * @param attribute a HAL_HDC_ATTR_ number.
 * @param value receives it.
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t halHdcGetSessionAttr(HDC_SESSION session, int32_t attribute, int32_t* value);

/**
 * Opens the device manager's message channel.
 * @return a descriptor, which is readable when a message waits and which the caller closes with
 *         close(2); negative on failure.
 */
DM_API int32_t devdrv_open_device_manager(void);

/**
 * Sends a message to a device id.
 * @param fd from devdrv_open_device_manager().
 * @param device_id the id that receivers ask for.
 * @param data the message; may be null when it is empty.
 * @param length in bytes, at most HAL_DMP_MAX_LEN.
 * @return 0, or a code of the HAL's.
 */
DM_API int32_t devdrv_imu_dmp_msg_send(int32_t fd, uint32_t device_id, const void* data,
                                       uint8_t length);

/**
 * Takes the next message. Does not wait.
 * @param fd from devdrv_open_device_manager().
 * @param device_id whose messages are wanted; one for another id is consumed and gives a code.
 * @param buffer receives the message.
 * @param capacity of @p buffer in bytes.
 * @param length receives the message's length in bytes.
 * @return 0, or a code of the HAL's, also when there is no message.
 */
DM_API int32_t devdrv_imu_dmp_msg_recv(int32_t fd, uint32_t device_id, void* buffer,
                                       uint32_t capacity, uint8_t* length);

DM_END_DECLS

#endif
