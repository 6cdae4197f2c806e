/*
 * VekTimer.h - timers: one-shot and periodic, started, restarted and
 * stopped from any thread, a million pending at a time.
 *
 * A timer is named by a VekTimer id (never 0). Ids go stale: once a timer
 * is deleted its id names nothing (-25, never a newer timer), so a late
 * stop of a timer that is gone is harmless.
 *
 * Where a callback runs, chosen when the timer is made:
 *  - by default on the thread that made it (VekTimer_new, vek_timer_start),
 *    through that thread's own event-receive processor (vek_erp_self,
 *    VekErp.h, made on first need): the callback runs when the thread
 *    dispatches its queue, in vek_erp_disp, vek_erp_run and its
 *    message-pumping waits (the "m" waits of VekVosx.h). An owner slow to
 *    dispatch gets one call for the expiries that came meanwhile, not a
 *    backlog. When the thread has ended its timers stop (with a trace):
 *    nobody would run them.
 *  - with VEK_TIMER_SVC_THRD on the timer service thread. Such a callback
 *    must be short and must not block: it delays every other timer of
 *    that kind.
 * Either way the callbacks of one timer run one at a time, never two at
 * once, and any timer call may be made from a callback, its own timer's
 * included: restarting (also with 0) or stopping or deleting the timer
 * whose callback is running is safe and takes effect for the next expiry.
 *
 * Timing: 1 ms ticks of the monotonic clock. A timer never fires before
 * its time; it fires late by the service's wake-up (well under a ms on an
 * idle Linux machine; on Windows the system timer's granularity, 15.6 ms
 * unless a program raises it). A periodic timer keeps its phase: expiry n
 * is due at start + due + n * period; expiries missed while a callback ran
 * long are not made up, the next one is the first still ahead.
 *
 * Stopping: after VekTimer_stop or VekTimer_delete returns, the timer does
 * not fire again until it is started again (an expiry already on its way
 * to the owner thread's queue counts as pending and is discarded there).
 * A callback that is running on another thread at that moment is not
 * interrupted: the call waits up to tmo ms for it to return (0: not at
 * all, negative: without limit, abortable), and says -860 when it did not
 * wait, -12 or -5 when the wait ended first. A stop made on the thread
 * that runs the callback (from the callback itself, or from code it
 * calls) never waits.
 *
 * Timers still made at BaseLib_exit are reported as leaks and freed.
 */
#ifndef VEK_TIMER_H
#define VEK_TIMER_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* A timer's id; 0 is no timer. */
typedef vek_u64 VekTimer;

/* A timer's callback: its timer's id and the context given when it was
 * made. */
typedef void (*VekTimerFn)(VekTimer timer, void* ctx);

/* Run the callbacks on the timer service thread, not on the making
 * thread's event-receive processor. */
#define VEK_TIMER_SVC_THRD 0x1

/* Makes an idle timer that calls fn(timer, ctx) (flags: 0 or
 * VEK_TIMER_SVC_THRD). Returns its id, or 0: out of memory, the library
 * not initialised (assertion "timerSvc"), fn null (assertion "fn"). */
VEK_API VekTimer VekTimer_new(VekTimerFn fn, void* ctx, vek_s32 flags);
/* Starts the timer to fire dueMs ms from now (0: at the next tick) and then
 * every periodMs ms (0: once). A pending timer is restarted: its old
 * expiry is dropped. 0, -25 no such timer, -81 dueMs or periodMs negative. */
VEK_API vek_s32 VekTimer_start(VekTimer timer, vek_s32 dueMs, vek_s32 periodMs);
/* Stops the timer (see "Stopping" above). 1 when an expiry was pending (it
 * had not yet run), 0 when not; -860 its callback runs on another thread
 * and tmo was 0; -12 / -5 the wait for that callback timed out / was
 * aborted; -25 no such timer. The timer is stopped in every case but -25. */
VEK_API vek_s32 VekTimer_stop(VekTimer timer, vek_s32 tmo);
/* Stops the timer as VekTimer_stop does and deletes it: its id goes stale
 * at once. A callback still running (its own caller, or one not waited
 * for) finishes first; the record is freed when it returns. Results as
 * VekTimer_stop; ctx is no longer used once the result is 0 or 1. */
VEK_API vek_s32 VekTimer_delete(VekTimer timer, vek_s32 tmo);
/* Milliseconds until the timer fires (0 when due), -23 when it is not
 * started, -25 no such timer. */
VEK_API vek_s32 VekTimer_due(VekTimer timer);

/* VekTimer_new and VekTimer_start in one call: the timer fires dueMs ms
 * from now and then every periodMs ms. A one-shot timer made here deletes
 * itself after its callback has returned (its id then goes stale); a
 * periodic one lives until vek_timer_stop. 0 on failure, as
 * VekTimer_new, and for a negative dueMs or periodMs. */
VEK_API VekTimer vek_timer_start(vek_s32 dueMs, vek_s32 periodMs, VekTimerFn fn, void* ctx,
                                 vek_s32 flags);
/* Stops and deletes a timer: VekTimer_delete. */
VEK_API vek_s32 vek_timer_stop(VekTimer timer, vek_s32 tmo);

VEK_END_DECLS

#endif /* VEK_TIMER_H */
