/**
 * @file ipmi_v_queue.h
 * Message queues between the threads of one process.
 *
 * A queue is a System V message queue (sysvipc(7)) whose messages are pointers to heap copies of
 * what was written. So only the process that made a queue can use it, a child of fork(2) must not,
 * and the length of a message is not sent along: it is a convention between writer and reader. A
 * reader's length must not exceed the writer's, or bytes behind the copy are read.
 *
 * The kernel keeps a queue until it is deleted, also when the process ends. ipcs(1) shows the
 * queues, each with the name's bytes as its owner.
 *
 * Results are unsigned: VOS_QUEUE_ codes, 0, or a number of bytes.
 *
 * Threads: everything may be called from any thread, and any number of threads may read and write
 * one queue at a time; each message goes to one reader. vos_queue_read() is a cancellation point
 * (pthreads(7)), and vos_queue_asy_read() may be one. A thread that is cancelled in them leaks
 * nothing, but the message that it was about to get may be lost. vos_queue_asy_write() is none
 * unless it logs.
 */
#ifndef IPMI_V_QUEUE_H
#define IPMI_V_QUEUE_H

#include "dm_export.h"

#include <stddef.h>
#include <stdint.h>

DM_BEGIN_DECLS

#define VOS_QUEUE_FAILED 1U           /**< a queue could not be made, a message not copied */
#define VOS_QUEUE_INVALID 0x20000500U /**< an argument is missing or out of range */
#define VOS_QUEUE_TIMEOUT 0x20000519U /**< no message arrived in time */
#define VOS_QUEUE_REFUSED 0xFFFFFFFFU /**< the kernel refused (errno), or a bad read argument */

/**
 * Makes a queue, which the caller removes with vos_queue_delete().
 *
 * @param name    its first 7 bytes become the queue's owner: the first 4 its user id, the next 4
 *                its group id, in the machine's byte order, filled up with zeros. In a user
 *                namespace (user_namespaces(7)) that does not map these ids, the kernel refuses.
 * @param depth   most messages that the queue holds, not 0. The kernel keeps 8 * depth as the
 *                queue's limit in bytes, modulo 2^32, and refuses more than
 *                /proc/sys/kernel/msgmnb to a process without CAP_SYS_RESOURCE: 2048 messages,
 *                where that is 16384.
 * @param out_qid receives the queue's identifier; left alone on failure.
 * @param mode    9 or 10; both are the same.
 * @param extra   anything but 0; not used.
 * @return 0; VOS_QUEUE_INVALID; VOS_QUEUE_FAILED when the kernel refused (it is logged with the
 *         errno of msgget(2) or msgctl(2)) or a bounds-checked function failed. When the kernel
 *         refuses owner and limit, the queue that was made stays behind, with no way to name it.
 */
DM_API uint32_t vos_private_queue_create(const char* name, uint64_t depth, int32_t* out_qid,
                                         uint32_t mode, uint64_t extra);

/**
 * Writes a message, without waiting.
 * @param qid  identifier from vos_private_queue_create(), in the low 32 bits.
 * @param data copied.
 * @param len  bytes of @p data, not 0.
 * @return 0; VOS_QUEUE_INVALID for an identifier of -1, null data or no length; VOS_QUEUE_FAILED
 *         when the copy could not be made; VOS_QUEUE_REFUSED with the errno of msgsnd(2), EAGAIN
 *         (11) when the queue is full.
 */
DM_API uint32_t vos_queue_asy_write(uint64_t qid, const void* data, uint32_t len);

/**
 * Waits for a message and reads it.
 * @param qid        as for vos_queue_asy_write().
 * @param timeout_ms 0 waits for ever. Otherwise the queue is looked at every 100 ms, timeout_ms /
 *                   100 times; below 100 and for a negative time not once, even when a message is
 *                   there. A queue that is not there counts as an empty one.
 * @param buf        receives the message.
 * @param len        bytes to copy, not 0 and not more than were written.
 * @return @p len; VOS_QUEUE_TIMEOUT; VOS_QUEUE_REFUSED for a null buffer or no length, when the
 *         copy failed, or, waiting for ever, when the kernel refused: EIDRM (43) when the queue was
 *         deleted meanwhile, EINVAL (22) when it is not there.
 */
DM_API uint32_t vos_queue_read(uint64_t qid, int32_t timeout_ms, void* buf, uint32_t len);

/**
 * Reads a message if one is there.
 * @param qid as for vos_queue_asy_write().
 * @param buf receives the message.
 * @param len bytes to copy, not 0 and not more than were written.
 * @return @p len; VOS_QUEUE_REFUSED for a null buffer or no length, when the copy failed, or with
 *         the errno of msgrcv(2), ENOMSG (42) when no message was there.
 */
DM_API uint32_t vos_queue_asy_read(uint64_t qid, void* buf, uint32_t len);

/**
 * Removes a queue and wakes its readers. Messages that were not read are lost with their memory:
 * read them before.
 * @param qid as for vos_queue_asy_write().
 * @return 0, or -1 with the errno of msgctl(2).
 */
DM_API int vos_queue_delete(uint64_t qid);

DM_END_DECLS

#endif
