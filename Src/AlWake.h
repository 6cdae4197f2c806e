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
void erp_wake_signal(const ErpWake* w);
/* onOwner: called on the owner thread (a window can only be destroyed
 * there; elsewhere it stays until its thread ends). */
void erp_wake_destroy(ErpWake* w, bool onOwner);

} // namespace plat

namespace vek {
/* Runs the calling thread's queue (ErpMng.cpp); the window procedure's
 * part on Windows. */
void erp_wnd_disp(void);
} // namespace vek

#endif /* VEK_ALWAKE_H */
