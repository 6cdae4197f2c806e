/*
 * TimerSvc.h - the timer service and the task server inside the library
 * (internal): their start and stop by BaseLib_init / BaseLib_exit, and the
 * timers the task server keeps for tasks posted for later.
 */
#ifndef VEK_TIMERSVC_H
#define VEK_TIMERSVC_H

#include "VekTimer.h"

namespace vek {

/* Starts the timer service (its thread sleeps until the first expiry).
 * BaseLib_init calls it after the thread manager. */
void timer_svc_start(void);
/* Stops the service thread, reports the timers still made as leaks and
 * frees them. BaseLib_exit calls it after the task server has stopped. */
void timer_svc_stop(void);

/* A one-shot timer of the service thread, started for dueMs from now, whose
 * callback receives a 64-bit cookie (a task id does not fit a pointer on
 * 32-bit builds). It deletes itself after its callback, as the timers of
 * vek_timer_start do; VekTimer_delete stops it before. 0 without memory. */
using TimerCookieFn = void (*)(vek_u64 cookie);
VekTimer timer_start_cookie(vek_s32 dueMs, TimerCookieFn fn, vek_u64 cookie);

/* The task server: its default pool and the registry of pools.
 * task_svr_stop cancels and reports the tasks and pools still there. */
void task_svr_start(void);
void task_svr_stop(void);

} // namespace vek

#endif /* VEK_TIMERSVC_H */
