/*
 * AlWake.h - how the owner of an event-receive queue is woken (internal).
 *
 * win/ and posix/ implement it file for file (AlWake.cpp). Nothing here is
 * exported.
 */
#ifndef VEK_ALWAKE_H
#define VEK_ALWAKE_H

#include "VekType.h"

namespace plat {

/* ---- the wake-up of an event-receive queue ----
 * Made and destroyed by the queue's owner thread; signalled from any
 * thread. On POSIX it is an auto-reset event (evt) that the owner's
 * message-pumping waits add to the handles they wait for. On Windows it
 * is a message-only window (wnd): a signal posts it a message, so every
 * message wait and message loop of the thread sees it, and dispatching
 * the message runs vek::erp_wnd_disp(). */
struct ErpWake {
    vek_handle evt;
    void* wnd;
};
/* Once per start of the manager, and at its stop. */
void erp_wake_init(void);
void erp_wake_exit(void);
bool erp_wake_create(ErpWake* w);
/* Any thread, until erp_wake_destroy; after erp_wake_retire it may do
 * nothing. */
void erp_wake_signal(const ErpWake* w);
/* The owner ends its queue (on the owner thread: a window can only be
 * destroyed there; a queue that the manager ends for a thread that is
 * gone is never retired, its window goes with its thread). */
void erp_wake_retire(ErpWake* w);
/* Whoever lets go of the queue last, on any thread. */
void erp_wake_destroy(ErpWake* w);

} // namespace plat

namespace vek {
/* Runs the calling thread's queue (ErpMng.cpp); the window procedure's
 * part on Windows. */
void erp_wnd_disp(void);
} // namespace vek

#endif /* VEK_ALWAKE_H */
