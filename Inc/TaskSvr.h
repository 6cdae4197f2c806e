/*
 * TaskSvr.h - the task server: named pools of worker threads that run
 * tasks, which can be cancelled before and while they run.
 *
 * A pool keeps between minThrds and maxThrds workers. Workers beyond the
 * minimum start when a task finds none idle and leave after 30 s without
 * work (or at TaskSvr_trim). Every worker is a library thread, registered
 * with the thread manager, so each abortable wait a task makes returns -5
 * when the task is cancelled. Give slow or blocking work a pool of its
 * own: the tasks of one pool never wait for the workers of another. The
 * default pool (TaskSvr_def, 0 to 128 workers) is the library's own:
 * VekAsync runs its operations there.
 *
 * A task is fn(ctx), named by a VekTask id (never 0). Its life:
 *
 *   scheduled (TaskSvr_postAt) -> queued -> running -> ended
 *
 * Tasks of one pool start in the order they were queued. Tasks that take
 * about a microsecond or less run on one worker at a time: two workers
 * sharing them would pass the queue's cache lines back and forth on every
 * one and run them several times slower than one. While the pool's tasks
 * are that short and a worker runs, a task that waits is left to that
 * worker, and one idle worker watches the queue: it joins in when no task
 * has started for 50 us (one of them blocks). Longer tasks are given an
 * idle worker at once.
 *
 * The clean-up
 * callback clean(ctx, res), when given, runs exactly once for every task
 * that was posted, and the task has ended when it has returned:
 *  - after fn, on the worker, with fn's result;
 *  - for a task cancelled before it started, on the cancelling thread,
 *    with -5, before TaskSvr_cancel returns;
 *  - for a task its pool's deletion found not started, on the deleting
 *    thread, with -5.
 * Once a task has ended its id names nothing: a cancel or a wait given it
 * later returns at once, as for a task that has ended.
 *
 * Cancelling a running task cancels its worker thread (vek_thrd_cancel):
 * the task's abortable waits return -5 and it should return. Once fn has
 * returned the worker clears its abort state, then runs the clean-up and
 * the next task. A task that ignores the cancel runs to its end.
 *
 * All calls may be made from any thread, tasks and clean-ups included.
 * The pools still there at BaseLib_exit (but the default one) and the
 * tasks not ended are reported as leaks; their tasks are cancelled.
 */
#ifndef VEK_TASKSVR_H
#define VEK_TASKSVR_H

#include "VekType.h"

VEK_BEGIN_DECLS

typedef struct TaskSvr TaskSvr;
/* A task's id; 0 is no task. */
typedef vek_u64 VekTask;
/* A task; its result goes to the clean-up callback. */
typedef vek_s32 (*TaskFn)(void* ctx);
/* A task's clean-up: its context and fn's result (-5 when it never ran). */
typedef void (*TaskCleanFn)(void* ctx, vek_s32 res);

/* A pool's counters (TaskSvr_stat). */
typedef struct TaskSvrStat {
    vek_s32 thrds;      /* workers */
    vek_s32 idle;       /* workers waiting for a task */
    vek_s32 scheduled;  /* tasks posted for later, not yet queued */
    vek_s32 queued;     /* tasks waiting for a worker */
    vek_s32 running;    /* tasks running or in their clean-up */
    vek_s32 maxQueued;  /* the deepest the queue has been */
    vek_u64 done;       /* tasks that ran */
    vek_u64 cancelled;  /* tasks removed before they started */
    vek_u64 waitUs;     /* time the started tasks spent queued, in total (us) */
    vek_u32 maxWaitUs;  /* the longest of those waits (us) */
} TaskSvrStat;

/* A new pool of minThrds to maxThrds workers (0 <= minThrds <= maxThrds,
 * 1 <= maxThrds); the minimum start now. name (copied, may be null) names
 * it in reports. Null on failure (out of memory, no thread could be
 * started; the assertion "minThrds >= 0 && minThrds <= maxThrds &&
 * maxThrds > 0" for bad sizes). */
VEK_API TaskSvr* TaskSvr_new(const char* name, vek_s32 minThrds, vek_s32 maxThrds);
/* Stops and frees a pool: later posts fail, the tasks not started are
 * removed (their clean-ups run here with -5), the running ones are
 * cancelled, and the call returns once every worker has ended (a task
 * that ignores the cancel holds it up). For a pool's orderly end call
 * TaskSvr_drain first. Not from a task or clean-up of the same pool (the
 * assertion "!own worker", nothing done), nor on the default pool
 * (assertion "svr != TaskSvr_def()"). */
VEK_API void TaskSvr_delete(TaskSvr* svr);
/* The default pool. */
VEK_API TaskSvr* TaskSvr_def(void);
/* The name given to TaskSvr_new ("" for none). */
VEK_API const char* TaskSvr_name(TaskSvr* svr);

/* Queues fn(ctx) with its clean-up (may be null). Returns the task's id;
 * 0 when the pool is being deleted, without memory, when fn is null
 * (assertion "fn"), or when the pool has no worker and none can be
 * started; clean is not called then. In that last case the tasks that
 * other threads posted to the pool at the same moment are removed as well
 * (their clean-ups run with -5 and a trace says so). The call takes no
 * lock of the pool while all its workers are busy. */
VEK_API VekTask TaskSvr_post(TaskSvr* svr, TaskFn fn, TaskCleanFn clean, void* ctx);
/* As TaskSvr_post, but the task is queued dueMs ms from now (through the
 * timer service; a negative dueMs counts as 0). Should the pool then have
 * no worker and none can be started, the task is removed (its clean-up
 * runs on the timer service thread with -5, and a trace says so). */
VEK_API VekTask TaskSvr_postAt(TaskSvr* svr, vek_s32 dueMs, TaskFn fn, TaskCleanFn clean,
                               void* ctx);
/* Cancels a task. 1: it had not started and is removed (its clean-up ran
 * with -5); 2: it runs and running is non-zero: its worker is cancelled
 * (TaskSvr_wait tells when it has ended); 3: it runs and running is 0:
 * left alone; 0: the id names no task that can be cancelled (ended, or in
 * its clean-up). */
VEK_API vek_s32 TaskSvr_cancel(VekTask task, vek_bool running);
/* Waits up to tmo ms (negative: without limit) for the task to end, its
 * clean-up included. 0 ended (also when it had ended before), -5 the
 * caller was cancelled, -12 timed out, -201 no memory for the wait, -81 a
 * task waiting for itself (assertion "task waits for itself"). */
VEK_API vek_s32 TaskSvr_wait(VekTask task, vek_s32 tmo);
/* Waits up to tmo ms until the pool has no task at all (scheduled,
 * queued or running). Results as TaskSvr_wait; -81 from a worker of the
 * pool (assertion "!own worker"). */
VEK_API vek_s32 TaskSvr_drain(TaskSvr* svr, vek_s32 tmo);
/* Lets the idle workers beyond the pool's minimum leave now and waits for
 * them to end; returns how many left. Workers still in a task's clean-up
 * count as idle: the call waits for those clean-ups to return; so does a
 * worker that watches for more work (for some 20 us after a burst, or the
 * queue's watcher) before it sleeps. When no task is left in any pool, the
 * memory of past bursts goes back too (as it does when a worker leaves for
 * lack of work). */
VEK_API vek_s32 TaskSvr_trim(TaskSvr* svr);
/* Fills st with the pool's counters; 0. */
VEK_API vek_s32 TaskSvr_stat(TaskSvr* svr, TaskSvrStat* st);

VEK_END_DECLS

#endif /* VEK_TASKSVR_H */
