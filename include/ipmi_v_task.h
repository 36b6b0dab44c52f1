/**
 * @file ipmi_v_task.h
 * Tasks: threads that are known by a small number and described by a control block.
 *
 * task_task_info_init() makes the table of blocks. Before it, and after one that failed, there is
 * no task: creation gives VOS_TASK_NO_BLOCK, deletion VOS_TASK_BAD_NUMBER, a look-up VOS_TASK_NONE
 * and a check 0.
 *
 * A task ends when its entry routine returns, or by vos_delete_task(). Its number is then free. A
 * thread that ends otherwise (pthread_exit(3), osal_delete_task()) leaves its number in use until
 * it is deleted.
 *
 * Threads: everything may be called from any thread, but not with g_task_splmutex held, except for
 * vos_init_task_info() and search_free_tcb(), which need it, and for free_task_cb(), init_task_cb()
 * and vos_task_clean_up_handler(). vos_task_delay() is a cancellation point (pthreads(7)), and so
 * is every call that writes a log line. A thread that is cancelled in one of these calls holds no
 * lock afterwards and has left no half-made task.
 *
 * Signals: a handler may call vos_get_current_task_id(), vos_get_current_pid(),
 * vos_get_sys_task_id(), vos_check_task_idvalid(), vos_task_is_dispatching() and get_stackframe(),
 * whatever of this layer it has interrupted; not while its thread holds g_task_splmutex itself.
 *
 * fork(2): the child has the task that forked, if it was one, under its number; all others' numbers
 * are free, and the count of live tasks is 1 or 0. It may create tasks of its own. Their process
 * numbers go on from the parent's. A handler of pthread_atfork(3) that was registered before the
 * library was loaded runs while the layer is held for the child: it may call
 * vos_get_current_task_id(), but must not create, delete or check a task.
 *
 * The fields of a block are written atomically, a text byte by byte, and may be read so at any
 * time, by which a look at the table needs no lock; only `reserved_tail` is not. A block that is
 * looked at so may be released meanwhile, and a text be half of one and half of another.
 */
#ifndef IPMI_V_TASK_H
#define IPMI_V_TASK_H

#include "dm_export.h"

#include <stddef.h>
#include <stdint.h>

DM_BEGIN_DECLS

#define VOS_TASK_MAX 1010U        /**< task numbers are 1 to this */
#define VOS_TASK_NONE 0xFFFFFFFFU /**< no task, no thread, no process number */
#define VOS_TASK_NAME_SIZE 30     /**< room for a task's name, in bytes, with its zero */
#define VOS_TASK_DESC_SIZE 51     /**< room for a task's description, in bytes, with its zero */

#define VOS_TASK_BAD_NUMBER 0x20000000U    /**< no task has that number */
#define VOS_TASK_NO_BLOCK 0x20000001U      /**< no number is free, or the priority above 255 */
#define VOS_TASK_NO_MEMORY 0x20000002U     /**< no memory for the tables */
#define VOS_TASK_NO_THREAD 0x20000003U     /**< the thread could not be created */
#define VOS_TASK_NOT_CANCELLED 0x20000005U /**< the thread could not be cancelled */
#define VOS_TASK_NONE_LIVE 0x20000006U     /**< no live task is counted */
#define VOS_TASK_NULL 0x20000011U          /**< an argument is null */

/**
 * What a task runs.
 * @param arg0 the first of the four values given with the task.
 * @param arg1 the second.
 * @param arg2 the third.
 * @param arg3 the fourth.
 */
typedef void (*VOS_TASK_ENTRY)(uint64_t arg0, uint64_t arg1, uint64_t arg2, uint64_t arg3);

/** A task's control block. The reserved words carry no meaning. */
typedef struct VOS_TASK_CB_ST {
    uint64_t reserved_head[2];     /**< reserved */
    uint32_t used;                 /**< 1 while the block holds a task, else 0 */
    uint64_t reserved_used;        /**< reserved */
    char name[VOS_TASK_NAME_SIZE]; /**< the kernel knows the thread by its first 15 characters */
    char desc[VOS_TASK_DESC_SIZE]; /**< a second string of the creator's, or empty */
    uint64_t tid;                  /**< the thread, VOS_TASK_NONE while there is none */
    uint64_t tid_copy;             /**< the same */
    uint64_t pid;                  /**< from vos_gen_pid_for_task(), sign-extended */
    uint64_t reserved_pid;         /**< reserved */
    VOS_TASK_ENTRY pfn_local_task_entry; /**< what the task runs */
    uint64_t args[4];                    /**< its four arguments */
    uint64_t reserved_args;              /**< reserved */
    uint64_t prio;                       /**< 0 to 255, as given */
    uint64_t prio_cur;                   /**< the same */
    uint64_t flags;                      /**< as given; bit 0: pre-emptive */
    uint64_t stack_size;                 /**< in bytes, as given, or 32768 for 0 */
    uint64_t stack_size_cur;             /**< the same */
    uint64_t stack_frame;                /**< always 0 */
    uint64_t reserved_zero[8];           /**< reserved */
    uint64_t reserved_ones;              /**< reserved */
    uint64_t reserved_word;              /**< reserved */
    uint64_t reserved_more[3];           /**< reserved */
    uint32_t reserved_pair[2];           /**< reserved */
    uint64_t reserved_created[2];        /**< reserved */
    uint64_t reserved_last[4];           /**< reserved */
    uint8_t reserved_tail[32];           /**< reserved */
} VOS_TASK_CB_ST;

DM_ASSERT_SIZE(VOS_TASK_CB_ST, 440);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, reserved_head, 0);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, used, 16);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, reserved_used, 24);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, name, 32);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, desc, 62);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, tid, 120);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, tid_copy, 128);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, pid, 136);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, reserved_pid, 144);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, pfn_local_task_entry, 152);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, args, 160);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, reserved_args, 192);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, prio, 200);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, prio_cur, 208);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, flags, 216);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, stack_size, 224);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, stack_size_cur, 232);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, stack_frame, 240);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, reserved_zero, 248);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, reserved_ones, 312);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, reserved_word, 320);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, reserved_more, 328);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, reserved_pair, 352);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, reserved_created, 360);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, reserved_last, 376);
DM_ASSERT_OFFSET(VOS_TASK_CB_ST, reserved_tail, 408);

/** The table: VOS_TASK_MAX + 1 blocks, by task number; block 0 is never used. Null until made. */
extern DM_API VOS_TASK_CB_ST* g_p_task_cb;

/** The largest task number, and two words that are not used. */
extern DM_API uint64_t g_basic_task_info[3];

/** Live tasks, and all tasks that were created. */
extern DM_API uint64_t m_task_dyn_info[2];

/** The process's identifier, from which the tasks' process numbers are made. */
extern DM_API int32_t g_n_local_process_id;

/** 0 until task_task_info_init(); new tasks wait for it before they run. */
extern DM_API uint8_t dispatching;

/* Tables of VOS_TASK_MAX entries, made with the table of blocks: all ones, and not used. */
extern DM_API uint64_t* m_pul_task_prio_que;   /**< a table that is not used; null until made */
extern DM_API uint64_t m_ul_task_prio_que_len; /**< a count that goes with it */
extern DM_API uint64_t (*m_p_tid2vid)[2];      /**< a table that is not used; null until made */
extern DM_API uint64_t m_ul_tid2vid_num;       /**< a count that goes with it */

/* A monitor's storage, which the library neither reads nor writes. */
extern DM_API uint64_t g_ul_watch_dog_time;             /**< a monitor's; not used here */
extern DM_API uint64_t g_basic_monitor_info[19];        /**< a monitor's; not used here */
extern DM_API uint64_t g_ul_is_monitor_dead_cycle;      /**< a monitor's; not used here */
extern DM_API uint32_t g_aui_fid_msg_to_task_no[256];   /**< a monitor's; not used here */
extern DM_API uint64_t g_ul_switch_flag;                /**< a monitor's; not used here */
extern DM_API char m_ach_task_name[VOS_TASK_NAME_SIZE]; /**< a monitor's; not used here */

/**
 * Makes the tables and lets tasks run. A further call after one that succeeded leaves tables,
 * counters and live tasks as they are, and only sets `dispatching` again.
 * @return 0, or VOS_TASK_NO_MEMORY; the call may then be repeated.
 */
DM_API uint32_t task_task_info_init(void);

/**
 * Creates a task of normal scheduling: vos_create_task_ex() without a description, flags 0.
 * @param name        at most 29 bytes are read, up to its end, and kept.
 * @param out_task_no receives the lowest free task number; VOS_TASK_NONE on every failure.
 * @param entry       what it runs.
 * @param priority    0 to 255.
 * @param stack_size  in bytes, see osal_create_task().
 * @param args        four values for @p entry; copied.
 * @return as vos_create_task_ex().
 */
DM_API uint32_t vos_create_task(const char* name, uint32_t* out_task_no, VOS_TASK_ENTRY entry,
                                uint64_t priority, uint64_t stack_size, const uint64_t* args);

/**
 * The same for a pre-emptive task: flags 1.
 * @param name        at most 29 bytes are read, up to its end, and kept.
 * @param out_task_no receives the lowest free task number; VOS_TASK_NONE on every failure.
 * @param entry       what it runs.
 * @param priority    0 to 255.
 * @param stack_size  in bytes, see osal_create_task().
 * @param args        four values for @p entry; copied.
 * @return as vos_create_task_ex().
 */
DM_API uint32_t vos_create_task_preempt(const char* name, uint32_t* out_task_no,
                                        VOS_TASK_ENTRY entry, uint64_t priority,
                                        uint64_t stack_size, const uint64_t* args);

/**
 * Creates a task. It may run, and end, before the call returns.
 * @param name        at most 29 bytes are read, up to its end, and kept.
 * @param desc        at most 50 characters are kept; may be null.
 * @param out_task_no receives the lowest free task number; VOS_TASK_NONE on every failure.
 * @param entry       what it runs.
 * @param priority    0 to 255.
 * @param stack_size  in bytes, see osal_create_task().
 * @param args        four values for @p entry; copied.
 * @param flags       bit 0: pre-emptive, see osal_create_task().
 * @return 0; VOS_TASK_NULL for a null argument other than @p desc; VOS_TASK_NO_BLOCK; 1 when
 *         @p desc could not be copied; VOS_TASK_NO_THREAD.
 */
DM_API uint32_t vos_create_task_ex(const char* name, const char* desc, uint32_t* out_task_no,
                                   VOS_TASK_ENTRY entry, uint64_t priority, uint64_t stack_size,
                                   const uint64_t* args, uint64_t flags);

/**
 * Fills a block, without a thread. Called with g_task_splmutex held, which stays so on success. No
 * pointer but @p desc may be null.
 * @param name        the task's name, as for vos_create_task_ex().
 * @param out_block   receives the block.
 * @param desc        a description, as for vos_create_task_ex().
 * @param task_no     a free number.
 * @param out_task_no receives @p task_no, or VOS_TASK_NONE on failure.
 * @param entry       what the task is to run.
 * @param priority    0 to 255, as given.
 * @param args        four values for @p entry; copied.
 * @param spl_level   the level that vos_spl_imp() gave: on failure, and when the thread is
 *                    cancelled in here, the lock is released with it.
 * @param stack_size  in bytes, as given.
 * @param flags       bit 0: pre-emptive.
 * @return 0; 1 when @p desc could not be copied, the block is then free again; VOS_TASK_BAD_NUMBER
 *         without such a block.
 */
DM_API uint32_t vos_init_task_info(const char* name, VOS_TASK_CB_ST** out_block, const char* desc,
                                   uint32_t task_no, uint32_t* out_task_no, VOS_TASK_ENTRY entry,
                                   uint64_t priority, const uint64_t* args, uint64_t spl_level,
                                   uint64_t stack_size, uint64_t flags);

/**
 * What a task's thread runs.
 * @param arg 0x10000 or-ed with the task number. Without such a task there is nothing to run.
 * @return 0.
 */
DM_API uint64_t vos_task_entry(uint64_t arg);

/**
 * Deletes a task: frees its number and cancels its thread, which ends at its next cancellation
 * point. One that has not begun yet ends without running the task. A task may delete itself.
 *
 * Of several deletions, and the task's own end, one comes first; for the others there is no such
 * task. A thread that is not the task's is never cancelled.
 * @param task_no the task's number.
 * @return 0; VOS_TASK_BAD_NUMBER; VOS_TASK_NONE_LIVE, with the task left alone;
 *         VOS_TASK_NOT_CANCELLED, with the number free, among others when the thread had ended by
 *         other means.
 */
DM_API uint32_t vos_delete_task(uint32_t task_no);

/**
 * Ends a task from the block's side: takes one off the live tasks, if any, and frees the block.
 * Takes no SPL lock.
 * @param task_no points to the uint32_t task number, or is null: no block is freed then. The type
 *                is that of a pthread_cleanup_push(3) routine.
 */
DM_API void vos_task_clean_up_handler(void* task_no);

/**
 * Frees a block; takes no SPL lock. A block whose tail could not be cleared (memset_s()) stays in
 * use for good.
 * @param task_no the task's number; one above the largest is ignored.
 */
DM_API void free_task_cb(uint32_t task_no);

/** Frees all blocks; takes no SPL lock. */
DM_API void init_task_cb(void);

/**
 * Finds a free block. Called with g_task_splmutex held.
 * @return the lowest free task number, or VOS_TASK_NONE.
 */
DM_API uint32_t search_free_tcb(void);

/**
 * Tells which task calls.
 * @return the calling task's number, or VOS_TASK_NONE for a thread that is no task.
 */
DM_API uint32_t vos_get_current_task_id(void);

/**
 * Tells the calling task's process number, which its creator sets last.
 * @return the number, or VOS_TASK_NONE.
 */
DM_API uint64_t vos_get_current_pid(void);

/**
 * Tells a task's thread.
 * @param task_no the task's number; 0 means the calling task.
 * @return the thread's identifier, or VOS_TASK_NONE.
 */
DM_API uint64_t vos_get_sys_task_id(uint32_t task_no);

/**
 * Checks a number.
 * @param task_no any number.
 * @return 1 when a task has that number, else 0.
 */
DM_API uint32_t vos_check_task_idvalid(uint32_t task_no);

/**
 * Sleeps, see osal_task_delay().
 * @param ms in milliseconds.
 * @return 0.
 */
DM_API uint32_t vos_task_delay(uint64_t ms);

/**
 * Tells whether task_task_info_init() has let tasks run.
 * @return 1 once tasks may run, else 0.
 */
DM_API uint32_t vos_task_is_dispatching(void);

/**
 * Stack frames are not known on this platform.
 * @return 0.
 */
DM_API uint64_t get_stackframe(void);

/**
 * Makes a process number for a task.
 * @return the next one: the process's identifier plus 1, plus 2, and so on.
 */
DM_API int32_t vos_gen_pid_for_task(void);

DM_END_DECLS

#endif
