/*
 * VekErp.h - event-receive processors: per-thread queues of events and
 * callbacks, dispatched by the thread that owns them; calls run on another
 * thread.
 *
 * A processor belongs to the thread that created it (its owner). Any
 * thread posts to it by its id: a generic event (VekEvt.h, made by
 * Evt_alloc or GenEvt_new*), handed to the processor's handler, or a plain
 * callback. The owner runs them, one at a time and in the order they were
 * posted (across all its processors), whenever it
 *   - waits in a message-pumping wait (win_hnd_mwait__, vek_evt_mwait__,
 *     vek_lock_mlock__, VekSem_mwait, and vek_erp_run below): these wake
 *     for posted work as they wake for window messages on Windows, call
 *     their dispProc (null: vek_disp_msg), and then run whatever the
 *     dispProc left queued;
 *   - calls vek_erp_disp or vek_erp_run;
 *   - on Windows, dispatches its window messages in any message loop
 *     (GetMessage / DispatchMessage): the wake is a message to a hidden
 *     message-only window of the thread.
 * A paused processor keeps what is posted to it until it is resumed; the
 * thread's other processors go on. Handlers and callbacks may post, wait
 * (nested dispatch continues the same order), pause, resume and delete
 * processors, their own included.
 *
 * Ids are positive and never reused while the library runs, so a stale id
 * gives -25, never another processor. Posting is O(1) from any thread; a
 * post wakes the owner only when no wake is already on its way.
 *
 * Every accepted event is either handed to the handler or deleted
 * (Evt_delete) when it can no longer be (its processor was deleted or its
 * thread ended); every accepted callback either runs or has its drop
 * function called (same cases). A call that fails leaves the event and the
 * argument with the caller.
 *
 * Results: negative codes are -23 (the library is not started: assertion
 * "erpMng"), -25 (no such processor, or the thread has no queue), -81 (a
 * null argument, with an assertion), -95 (the processor takes no events),
 * -201 (out of memory), and those of the waits: -5 aborted, -12 timed out,
 * -51 the system wait failed.
 *
 * A thread gets its queue with its first processor (vek_erp_create,
 * vek_erp_self, vek_erp_run); vek_thrd_end reports the processors it
 * still holds (vek_erp_leak) and then ends them all, as above.
 */
#ifndef VEK_ERP_H
#define VEK_ERP_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* Receives one event posted to a processor, on the owner thread. Return
 * 0 and the library deletes evt (Evt_delete) after the handler; return
 * VEK_ERP_KEEP and the handler keeps it (and deletes it later itself). */
typedef vek_s32 (*vek_erp_handler)(void* ctx, void* evt);
#define VEK_ERP_KEEP 1

/* A callback and its drop function: exactly one of fn(arg) or drop(arg)
 * runs for every callback accepted. drop may be null. */
typedef void (*vek_erp_fn)(void* arg);

/* ---- processors ---- */

/* A new processor owned by the calling thread; every event posted to it
 * goes to handler(ctx, evt) (handler not null). Returns its id (> 0). */
VEK_API vek_s32 vek_erp_create(vek_erp_handler handler, void* ctx);
/* Ends a processor, from any thread: what is still queued for it is
 * dropped (on the calling thread) and later posts give -25. A handler of
 * it that runs on the owner thread right now still finishes; delete from
 * the owner (or from the handler itself) to be sure none runs after the
 * call. 0, or -25. */
VEK_API vek_s32 vek_erp_delete(vek_s32 id);
/* The calling thread's own processor (made on the first call, ended by
 * vek_thrd_end, never reported as a leak). It takes callbacks only
 * (vek_erp_post gives -95): this is where a service delivers callbacks
 * that must run on the thread that asked for them. Its id, > 0. */
VEK_API vek_s32 vek_erp_self(void);

/* Posts evt (from Evt_alloc; the processor owns it once accepted). 0, or
 * -25, -95, -201, -81 (null evt). */
VEK_API vek_s32 vek_erp_post(vek_s32 id, void* evt);
/* Posts a callback: fn(arg) runs on the owner thread, in order with the
 * events. 0, or -25, -201, -81 (null fn). */
VEK_API vek_s32 vek_erp_postf(vek_s32 id, vek_erp_fn fn, void* arg, vek_erp_fn drop);

/* Pause and resume, from any thread, counted: while the count is above 0
 * the processor's events and callbacks wait; resuming to 0 lets them run,
 * in their order, at the owner's next dispatch. Both return the count
 * after the call, or -25. Resuming a processor that is not paused is the
 * assertion "erp->pauses > 0" and changes nothing. */
VEK_API vek_s32 vek_erp_pause(vek_s32 id);
VEK_API vek_s32 vek_erp_resume(vek_s32 id);
/* What waits for the processor (paused or not): a count, or -25. */
VEK_API vek_s32 vek_erp_pending(vek_s32 id);

/* ---- dispatch on the owner thread ---- */

/* Runs what is queued for the calling thread now (what is posted while it
 * runs waits for the next dispatch, so a handler that posts to itself
 * cannot starve the caller); the number run, 0 when none or the thread
 * has no queue. */
VEK_API vek_s32 vek_erp_disp(void);
/* Waits until something is queued for the calling thread and runs it (as
 * vek_erp_disp; Windows also dispatches window messages meanwhile): the
 * number run (> 0), -5 when the call abort event fires (unless flags has
 * VEK_WAIT_FORBID_ABORT), -12 after tmo ms (negative: no limit), -51, or
 * -201 when the queue cannot be made. A thread's loop:
 *     while (vek_erp_run(-1, 0) > 0) {}                                   */
VEK_API vek_s32 vek_erp_run(vek_s32 tmo, vek_s32 flags);
/* The default dispatcher of the message-pumping waits: the calling
 * thread's window messages (Windows), then its queue (vek_erp_disp). */
VEK_API void vek_disp_msg(void);
/* Traces the processors that thread tid (0: the caller) still holds,
 * "detect N erp leak, the bug MUST be fixed" and one line per processor
 * "    erp[i]: ErpId=<id>, evts=<pending>", and returns how many (0 traces
 * nothing). vek_thrd_end calls it for the ending thread. */
VEK_API vek_s32 vek_erp_leak(vek_u32 tid);

/* ---- calls on another thread ----
 * The target thread must have a queue (see above) and runs the call in
 * its dispatch, in order with its processors' work but never paused.
 * vek_thrd_scall__ on the calling thread itself runs the call at once;
 * vek_thrd_acall__ queues it as for any other thread. */
typedef vek_s32 (*vek_thrd_call_fn)(void* arg);

/* Runs fn(arg) on thread tid and returns its result. While waiting the
 * caller dispatches its own queue (so two threads may call each other).
 * -5 (cancel) or -12 (after tmo ms) only while the call has not begun: it
 * is then withdrawn and never runs. Once begun, the call is waited for to
 * its end and its result returned; a cancel that came meanwhile stays
 * pending for the caller's next wait. -25 when tid has no queue or ends
 * before running the call. */
VEK_API vek_s32 vek_thrd_scall__(vek_u32 tid, vek_thrd_call_fn fn, void* arg, vek_s32 tmo, vek_s32 flags);
/* Queues fn(arg) to run on thread tid and returns at once: the call's id
 * (> 0), or -25, -201, -81. drop(arg) runs instead of fn when the call is
 * withdrawn (vek_del_acall) or tid ends first. fn's result is ignored. */
VEK_API vek_s32 vek_thrd_acall__(vek_u32 tid, vek_thrd_call_fn fn, void* arg, vek_erp_fn drop);
/* Withdraws a queued call, from any thread: 1 when it was still waiting
 * (it never runs; its drop runs here), 0 when it has begun, has run or is
 * unknown. */
VEK_API vek_s32 vek_del_acall(vek_s32 id);

VEK_END_DECLS

#endif /* VEK_ERP_H */
