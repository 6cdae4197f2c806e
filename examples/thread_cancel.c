/*
 * Start a thread, block it in a wait and cancel it.
 *
 * Every abortable wait of the library also watches the thread's abort
 * event: vek_thrd_cancel(tid) makes the wait return -5 (aborted), however
 * long its time-out, and the thread can clean up and end normally.
 */
#include <stdio.h>
#include <BaseLib.h>

static vek_s32 g_waitResult = 1;

static vek_u32 worker(void* arg) {
    vek_handle never = (vek_handle)arg; /* an event nobody sets */
    printf("worker: waiting\n");
    fflush(stdout);
    g_waitResult = vek_evt_swait__(never, -1, 0); /* no time limit */
    printf("worker: the wait returned %d (%s)\n", (int)g_waitResult,
           g_waitResult == -5 ? "aborted" : "?");
    return 0;
}

int main(void) {
    vek_handle evt;
    vek_u32 tid;

    BaseLib_init();
    evt = vek_evt_create__(1, 0); /* manual reset, not set */
    tid = vek_thrd_create__(worker, evt, 0);
    vek_sleep(100); /* let it block (cancelling earlier works just as well) */
    vek_thrd_cancel(tid);
    vek_thrd_join(tid); /* the thread has ended: its result is there to read */
    printf("main: the worker's wait ended with %d\n", (int)g_waitResult);
    vek_evt_close(evt);
    BaseLib_exit();
    return g_waitResult == -5 ? 0 : 1;
}
