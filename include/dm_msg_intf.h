/**
 * @file dm_msg_intf.h
 * The message framework: a context, its interfaces, the command handler, requests and responses.
 *
 * A service creates one context with dm_init(), registers its transports (dm_udp.h and so on; the
 * self-loop interface is always there) and its command handler, and then sends requests and answers
 * those that arrive. All receiving, handlers, response callbacks and time-outs run on the
 * context's one poll thread, one at a time: a slow handler holds up all interfaces.
 *
 * Codes differ by function and are told apart by their sign: the context and registration
 * functions return negative errno numbers (errno(3)) of their own and pass positive ones of the
 * list and the poller through; dm_send_req() returns the DM_ERR_ codes; the init functions of the
 * transports return what their headers say.
 *
 * A forked child (fork(2)) has no poll thread. It may call dm_destroy() on its parent's context,
 * which does nothing, and make a context of its own. Other calls for the parent's context must not
 * be made there: what they send goes out of the parent's descriptors, which the child shares until
 * it calls execve(2) or ends.
 */
#ifndef DM_MSG_INTF_H
#define DM_MSG_INTF_H

#include "dm_export.h"
#include "dm_list.h"
#include "dm_poller.h"

#include <stddef.h>
#include <stdint.h>

DM_BEGIN_DECLS

/** Most payload bytes in one message, and the capacity of every receive buffer. */
#define DM_MAX_DATA_LEN 4096
/** Size of an interface's name, with its terminating zero. */
#define DM_INTF_NAME_LEN 32
/** Room for a socket address in a DM_ADDR_ST, in bytes. */
#define DM_ADDR_SA_LEN 28

/* Message types. */
#define DM_MSG_REQ 0U /**< a request */
#define DM_MSG_RSP 1U /**< a response */

/* Interface kinds (DM_ADDR_ST::kind) and the address family that goes with each. */
#define DM_KIND_SELFLOOP 97U  /**< kind of the self-loop, see dm_loop.h */
#define DM_KIND_UDP 98U       /**< kind of UDP, see dm_udp.h */
#define DM_KIND_HDC 99U       /**< kind of HDC, see dm_hdc.h */
#define DM_KIND_IPC 102U      /**< kind of IPC, see dm_ipc.h */
#define DM_FAMILY_SELFLOOP 1U /**< family that goes with DM_KIND_SELFLOOP */
#define DM_FAMILY_UDP 2U      /**< family that goes with DM_KIND_UDP */
#define DM_FAMILY_HDC 3U      /**< family that goes with DM_KIND_HDC */
#define DM_FAMILY_IPC 6U      /**< family that goes with DM_KIND_IPC */

/* Codes of dm_send_req(). */
#define DM_ERR_INVALID_ARG 3  /**< interface, address, address length or data is missing */
#define DM_ERR_SEND 27        /**< the interface could not send the request */
#define DM_ERR_PENDING_ADD 48 /**< the request could not be recorded */

/**
 * Address of an interface or a peer. An address that is passed to the library always spans these
 * 40 bytes, whatever length goes with it: transports copy the whole record.
 */
typedef struct DM_ADDR_ST {
    uint32_t kind;              /**< DM_KIND_ number of the interface */
    uint16_t family;            /**< DM_FAMILY_ number that goes with the kind */
    uint8_t padding[2];         /**< zero */
    uint32_t peer_id;           /**< a number that UDP frames carry to the peer */
    uint8_t sa[DM_ADDR_SA_LEN]; /**< socket address in its system layout (ip(7) for UDP) */
} DM_ADDR_ST;

/** Payload: a length in bytes and the bytes, which the record does not own. */
typedef struct DM_DATA_ST {
    uint16_t data_len; /**< length in bytes */
    void* data;        /**< the bytes; may be null when there are none */
} DM_DATA_ST;

/**
 * A received message. It belongs to the framework and is gone when the handler returns.
 *
 * The peer decides data.data_len: a frame may announce more than DM_MAX_DATA_LEN bytes and is then
 * delivered with that length and no payload, so a handler must compare data.data_len with
 * DM_MAX_DATA_LEN before it reads.
 */
typedef struct DM_MSG_ST {
    uint32_t type;      /**< DM_MSG_REQ or DM_MSG_RSP */
    uint32_t src_id;    /**< set by the receiving interface */
    uint8_t src_type;   /**< set by the receiving interface */
    uint32_t src_index; /**< set by the receiving interface */
    DM_ADDR_ST* addr;   /**< where the message came from */
    uint32_t addr_len;  /**< significant bytes of the address */
    uint64_t req_id;    /**< identity of the request that the message makes or answers */
    DM_DATA_ST data;    /**< the payload, in a buffer of DM_MAX_DATA_LEN bytes */
} DM_MSG_ST;

struct DM_INTF_ST;

/**
 * Command handler, and response callback of a request. Runs on the poll thread.
 * @param intf the interface on which the message arrived; the self-loop for a time-out.
 * @param msg valid during the call.
 * @param user_data the framework's copy of the data given at registration or with the request;
 *                  null when there is none.
 * @param user_data_len its length in bytes, 0 when there is none.
 * @return ignored.
 */
typedef int (*DM_MSG_HANDLER)(struct DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data,
                              int32_t user_data_len);

/**
 * Default handler and time-out handler: makes a response out of a request. Runs on the poll thread.
 * @param req_data the request's data.
 * @param rsp_data on entry a copy of @p req_data; the handler may point it at other bytes, which
 *                 must stay valid until it is called again. A time-out handler must give at least
 *                 one byte: an empty response is refused by the self-loop that carries it, and the
 *                 request then stays pending.
 * @return ignored.
 */
typedef int (*DM_DATA_HANDLER)(DM_DATA_ST* req_data, DM_DATA_ST* rsp_data);

/**
 * Reads one message: called on the poll thread when the interface's fd has events. When nothing is
 * read the descriptor stays ready and the slot is called again at once.
 * @param intf the interface.
 * @param fd its descriptor.
 * @param events as poll(2) returned them: POLLIN, and POLLERR, POLLHUP or POLLNVAL.
 * @param msg to be filled, all zero at first but for what follows. addr points to room for one
 *            DM_ADDR_ST, data.data to DM_MAX_DATA_LEN zeroed bytes, and data.data_len has that
 *            capacity. No more may be written.
 * @return 0 when there is a message, which is then dispatched by its type.
 */
typedef int (*DM_RECV_MSG)(struct DM_INTF_ST* intf, int32_t fd, int16_t events, DM_MSG_ST* msg);

/**
 * Sends a request or a response. Called on any thread, on several at once. It must not keep what
 * its arguments point to.
 * @param intf the interface.
 * @param type DM_MSG_REQ or DM_MSG_RSP.
 * @param addr the destination.
 * @param addr_len its significant length in bytes.
 * @param data the payload.
 * @param req_id identity of the request; the answer to it must bring the same number back.
 * @return 0 when it was sent; else a code of the transport's.
 */
typedef int (*DM_SEND_MSG)(struct DM_INTF_ST* intf, uint32_t type, DM_ADDR_ST* addr,
                           uint32_t addr_len, DM_DATA_ST* data, uint64_t req_id);

/**
 * The same with two more arguments, which the transports here ignore. The framework does not call
 * this slot; services may.
 * @param intf the interface.
 * @param type DM_MSG_REQ or DM_MSG_RSP.
 * @param addr the destination.
 * @param addr_len its significant length in bytes.
 * @param data the payload.
 * @param extra1 the transport's.
 * @param extra2 the transport's.
 * @param req_id identity of the request.
 * @return 0 when it was sent; else a code of the transport's.
 */
typedef int (*DM_SEND_MSG_EX)(struct DM_INTF_ST* intf, uint32_t type, DM_ADDR_ST* addr,
                              uint32_t addr_len, DM_DATA_ST* data, uint32_t extra1, uint32_t extra2,
                              uint64_t req_id);

/**
 * Stores how often a request is sent again, and when. Requests that are pending keep what they
 * began with. Any thread.
 * @param intf the interface.
 * @param retry_cnt as DM_INTF_ST::retry_cnt.
 * @param timeout_ms in milliseconds.
 * @return 0.
 */
typedef int (*DM_SET_RETRY)(struct DM_INTF_ST* intf, int32_t retry_cnt, uint32_t timeout_ms);

/**
 * Reads both back. Any thread.
 * @param intf the interface.
 * @param retry_cnt receives the count.
 * @param timeout_ms receives the time in milliseconds.
 * @return 0.
 */
typedef int (*DM_GET_RETRY)(struct DM_INTF_ST* intf, int32_t* retry_cnt, uint32_t* timeout_ms);

/**
 * Closes the interface's descriptors and releases what else it has, but not the record, which the
 * framework gives to free(3) afterwards. Called once, with no lock held: by dm_intf_deregister(),
 * on its thread and before it returns, or by the thread that releases the context. It may look
 * names up, remove other interfaces and call the context's poller; when the context goes, that does
 * nothing or refuses with EINVAL.
 * @param intf the interface: no longer found by its name when it is removed, and still found when
 *             the context goes.
 * @return ignored.
 */
typedef int (*DM_CLOSE)(struct DM_INTF_ST* intf);

/**
 * The framework context. Callers hold it by pointer and do not change its fields.
 */
typedef struct DM_CB_ST {
    DM_DATA_HANDLER default_hndl; /**< answers while no command handler is registered; or null */
    POLLER_ST* poller;            /**< the context's poller */
    LIST_ST* intf_list;           /**< of DM_INTF_ST */
    LIST_ST* pending_list;        /**< of requests that wait for their response */
    LIST_ST* cmd_reg_list;        /**< of registered command handlers */
    /* private fields of the library follow */
} DM_CB_ST;

/**
 * One interface. A transport's init function allocates it with malloc(3), fills it and registers
 * it; from then on it belongs to the context.
 */
typedef struct DM_INTF_ST {
    char name[DM_INTF_NAME_LEN]; /**< at most 31 characters and a zero */
    DM_ADDR_ST addr;             /**< the interface's own address */
    uint64_t reserved;           /**< zero, for transports */
    int32_t fd;                  /**< the descriptor that is watched for input */
    int32_t wfd;                 /**< the descriptor that sends write to */
    int32_t retry_cnt;           /**< re-sends of a request that times out; negative: no time-out */
    uint32_t timeout_ms;         /**< a request's time-out in milliseconds */
    uint32_t max_data_len;       /**< advertised payload size, enforced by nobody */
    DM_RECV_MSG recv_msg;        /**< reads a message; null: nothing is received */
    DM_SEND_MSG send_msg;        /**< sends a message; must not be null */
    DM_SEND_MSG_EX send_msg_ex;  /**< not called by the framework */
    DM_SET_RETRY set_retry;      /**< not called by the framework */
    DM_GET_RETRY get_retry;      /**< not called by the framework */
    DM_DATA_HANDLER timeout_hndl; /**< null: a time-out is answered with the request's data */
    DM_CLOSE close;               /**< closes the interface; may be null */
    struct DM_CB_ST* dm_cb;       /**< the context that the interface belongs to */
} DM_INTF_ST;

DM_ASSERT_SIZE(DM_ADDR_ST, 40);
DM_ASSERT_OFFSET(DM_ADDR_ST, kind, 0);
DM_ASSERT_OFFSET(DM_ADDR_ST, family, 4);
DM_ASSERT_OFFSET(DM_ADDR_ST, padding, 6);
DM_ASSERT_OFFSET(DM_ADDR_ST, peer_id, 8);
DM_ASSERT_OFFSET(DM_ADDR_ST, sa, 12);
DM_ASSERT_SIZE(DM_DATA_ST, 16);
DM_ASSERT_OFFSET(DM_DATA_ST, data_len, 0);
DM_ASSERT_OFFSET(DM_DATA_ST, data, 8);
DM_ASSERT_SIZE(DM_MSG_ST, 56);
DM_ASSERT_OFFSET(DM_MSG_ST, type, 0);
DM_ASSERT_OFFSET(DM_MSG_ST, src_id, 4);
DM_ASSERT_OFFSET(DM_MSG_ST, src_type, 8);
DM_ASSERT_OFFSET(DM_MSG_ST, src_index, 12);
DM_ASSERT_OFFSET(DM_MSG_ST, addr, 16);
DM_ASSERT_OFFSET(DM_MSG_ST, addr_len, 24);
DM_ASSERT_OFFSET(DM_MSG_ST, req_id, 32);
DM_ASSERT_OFFSET(DM_MSG_ST, data, 40);
DM_ASSERT_OFFSET(DM_CB_ST, default_hndl, 0);
DM_ASSERT_OFFSET(DM_CB_ST, poller, 8);
DM_ASSERT_OFFSET(DM_CB_ST, intf_list, 16);
DM_ASSERT_OFFSET(DM_CB_ST, pending_list, 24);
DM_ASSERT_OFFSET(DM_CB_ST, cmd_reg_list, 32);
DM_ASSERT_SIZE(DM_INTF_ST, 168);
DM_ASSERT_OFFSET(DM_INTF_ST, name, 0);
DM_ASSERT_OFFSET(DM_INTF_ST, addr, 32);
DM_ASSERT_OFFSET(DM_INTF_ST, reserved, 72);
DM_ASSERT_OFFSET(DM_INTF_ST, fd, 80);
DM_ASSERT_OFFSET(DM_INTF_ST, wfd, 84);
DM_ASSERT_OFFSET(DM_INTF_ST, retry_cnt, 88);
DM_ASSERT_OFFSET(DM_INTF_ST, timeout_ms, 92);
DM_ASSERT_OFFSET(DM_INTF_ST, max_data_len, 96);
DM_ASSERT_OFFSET(DM_INTF_ST, recv_msg, 104);
DM_ASSERT_OFFSET(DM_INTF_ST, send_msg, 112);
DM_ASSERT_OFFSET(DM_INTF_ST, send_msg_ex, 120);
DM_ASSERT_OFFSET(DM_INTF_ST, set_retry, 128);
DM_ASSERT_OFFSET(DM_INTF_ST, get_retry, 136);
DM_ASSERT_OFFSET(DM_INTF_ST, timeout_hndl, 144);
DM_ASSERT_OFFSET(DM_INTF_ST, close, 152);
DM_ASSERT_OFFSET(DM_INTF_ST, dm_cb, 160);

/** A switch for the services that link the library, 5 at first; the library does not read it. */
extern DM_API uint32_t g_dev_mon_debug;

/**
 * Reads the switch. Any thread.
 * @return the value of g_dev_mon_debug.
 */
DM_API uint32_t dev_mon_get_log_flag(void);

/**
 * Sets the switch g_dev_mon_debug. Any thread.
 * @param value any value.
 */
DM_API void dev_mon_set_log_flag(uint32_t value);

/**
 * Creates a context: starts its poll thread and registers the interface "selfloop". Any thread.
 * @param dm_cb receives the context, to be released with dm_destroy(); null on failure.
 * @return 0; -EINVAL for a null @p dm_cb; -ENOMEM; or the code of the failed poller, list,
 *         self-loop or bounds-checked call.
 */
DM_API int dm_init(DM_CB_ST** dm_cb);

/**
 * Releases a context with its interfaces (their close slots run), pending requests (no callback is
 * called) and handlers. Sleeps 100 ms so that a callback that runs meanwhile can finish; one that
 * takes longer keeps the records alive, and its thread releases them as it leaves. May be called
 * from a handler: it returns, and no further callback of the context runs.
 *
 * Any thread. No other thread may be inside a call for this context, and the handle must not be
 * used afterwards. A thread that is cancelled in it ends behind it. In a forked child it does
 * nothing.
 * @param dm_cb null is ignored.
 */
DM_API void dm_destroy(DM_CB_ST* dm_cb);

/**
 * Registers an interface and watches its fd for input. There is no check for a name that is taken.
 * Any thread.
 * @param dm_cb the context.
 * @param intf filled by the transport and allocated with malloc(3). The context owns it after
 *             success. When the list refuses it, it stays the caller's; when the poller refuses
 *             it, it has been closed and released.
 * @return 0, -EINVAL for a null argument, or the code of list_append() or poller_fd_add().
 */
DM_API int dm_intf_register(DM_CB_ST* dm_cb, DM_INTF_ST* intf);

/**
 * Removes the first interface of the record's name, closes and releases it. Its pending requests
 * end without a callback. When the call has returned, no receive, handler or time-out of that
 * interface runs or will run, so it waits for one that is running - except on the poll thread,
 * where it never waits. Its close slot has run by then, and no file is kept open for the sake of
 * its being watched. No thread may be sending on the interface meanwhile. Any thread, but of two
 * records of one name only one at a time; a thread that is cancelled in it ends behind it.
 * @param intf a registered interface; the record is dead afterwards. In a callback that the
 *             framework makes on the poll thread, its memory stays until that returns: a slot may
 *             remove its own interface, and a message that recv_msg gives all the same is handled.
 * @return 0, also for a name that is not registered; -EINVAL for a null record or one without a
 *         context; or the code of poller_fd_remove() or list_remove_by_tag().
 */
DM_API int dm_intf_deregister(DM_INTF_ST* intf);

/**
 * Finds an interface by name. Any thread.
 * @param dm_cb the context.
 * @param name a zero-terminated name; 32 characters at most are compared.
 * @param name_len checked only: 32 or less.
 * @return the record, which stays the context's; null when there is none.
 */
DM_API DM_INTF_ST* dm_get_intf(DM_CB_ST* dm_cb, const char* name, int name_len);

/**
 * Registers a command handler. All requests go to the handler registered first; with a null one
 * they are swallowed. Before the first registration requests go to the default handler, whose
 * response is sent at once. Any thread; meant for start-up.
 * @param dm_cb the context.
 * @param handler answers a request with dm_send_rsp(), giving the message's addr, addr_len and
 *                req_id; may be null.
 * @param default_hndl replaces the context's default handler, also with null (no answer).
 * @param user_data copied; may be null.
 * @param size length of the user data in bytes, above 0 even without user data.
 * @return 0, also when the registration could not be listed; -EINVAL for a null context or a size
 *         not above 0; -ENOMEM; or the code of a failed bounds-checked function.
 */
DM_API int dm_cmd_register(DM_CB_ST* dm_cb, DM_MSG_HANDLER handler, DM_DATA_HANDLER default_hndl,
                           const void* user_data, int size);

/**
 * Checks its argument and changes nothing: handlers stay as long as their context. Any thread.
 * @param dm_cb the context.
 * @return 0, -EINVAL for a null context.
 */
DM_API int dm_cmd_deregister(DM_CB_ST* dm_cb);

/**
 * Sends a request and returns. It has one outcome: 0, and the response callback is called once, on
 * the poll thread; or an error, and it is never called. The callback may be called before the call
 * has returned. It is not called when the interface is removed or the context destroyed before, nor
 * when the calling thread is cancelled in the call; one that runs already is awaited then, so it
 * must neither wait for the end of that thread nor for a lock that it holds in the call. An empty
 * response to a time-out is lost in the self-loop (see DM_DATA_HANDLER).
 *
 * Unless the interface's retry_cnt is negative, the request times out. With a retry_cnt of N above
 * 0 it is sent N + 1 times, timeout_ms apart, and the time-out is reported with the last re-send,
 * N periods after the first send; with 0 it is sent once and times out after one period. A time-out
 * reaches the callback as a response that the interface's timeout_hndl made. One that falls due
 * while the interface is still sending is reported when it has sent.
 *
 * The answer is recognised by the request's identity, which no other request of the context gets
 * before 256 more have ended. An answer that comes later than that, late or doubled on its way, may
 * be taken for another request's.
 *
 * Any thread. Nothing of the caller's is kept: address, data and user data are copied.
 * @param intf the interface to send on, registered.
 * @param addr the destination, all 40 bytes of it.
 * @param addr_len its significant length, above 0.
 * @param data the payload; what exceeds DM_MAX_DATA_LEN is not kept for re-sends.
 * @param rsp_cb may be null.
 * @param user_data copied; may be null.
 * @param user_data_len its length in bytes, above 0 even without user data.
 * @return 0 when the request was sent, or was answered before the send failed;
 *         DM_ERR_INVALID_ARG, DM_ERR_PENDING_ADD or DM_ERR_SEND.
 */
DM_API int dm_send_req(DM_INTF_ST* intf, DM_ADDR_ST* addr, uint32_t addr_len, DM_DATA_ST* data,
                       DM_MSG_HANDLER rsp_cb, void* user_data, uint32_t user_data_len);

/**
 * Sends a response. Checks nothing: all arguments must be valid. Any thread.
 * @param intf the interface that the request came on.
 * @param addr the request's addr, all 40 bytes of it.
 * @param addr_len the request's addr_len.
 * @param data the payload, which stays the caller's.
 * @param req_id the request's req_id.
 * @return the result of the interface's send_msg, 0 when it was sent.
 */
DM_API int dm_send_rsp(DM_INTF_ST* intf, DM_ADDR_ST* addr, uint32_t addr_len, DM_DATA_ST* data,
                       uint64_t req_id);

DM_END_DECLS

#endif
