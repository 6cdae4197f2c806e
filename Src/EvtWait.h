/*
 * EvtWait.h - waiting, abortably, for something that a record guarded by
 * the caller's lock will report (internal): a timer's running callback, a
 * task's end, a pool running dry.
 *
 * The waiter lives on the waiting thread's stack and hangs on the
 * record's list while the lock is released; whoever makes the change wakes
 * the whole list under the lock. A waiter that gives up (-5, -12) takes
 * itself off the list again; one that was woken never touches the list
 * afterwards, since the record may be gone by then.
 */
#ifndef VEK_EVTWAIT_H
#define VEK_EVTWAIT_H

#include "VekCore.h"

namespace vek {

struct EvtWaiter {
    EvtWaiter* next;
    vek_handle evt;
    bool done;
};

/* Under the lock: wakes every waiter of list and empties it. */
inline void wake_all(EvtWaiter** list) {
    for (EvtWaiter* w = *list; w; w = w->next) {
        w->done = true;
        vek_evt_set(w->evt);
    }
    *list = nullptr;
}

/* Called with g locked; returns with it locked. Waits up to tmo ms
 * (negative: without limit) through the caller's call abort event. 0 when
 * woken (also when woken and aborted at once), -5, -12, -51, or -201 when no
 * event could be made (nothing was waited for). */
template <class Lock>
vek_s32 wait_on(EvtWaiter** list, Lock& g, vek_s32 tmo) {
    EvtWaiter w = {*list, vek_evt_create__(1, 0), false};
    if (!w.evt) {
        return VEK_ERR_FULL;
    }
    *list = &w;
    g.unlock();
    vek_s32 r = win_hnd_swait__(w.evt, tmo, 0);
    g.lock();
    if (!w.done) {
        EvtWaiter** pp = list;
        while (*pp != &w) {
            pp = &(*pp)->next;
        }
        *pp = w.next;
    }
    vek_evt_close(w.evt);
    return w.done ? 0 : r;
}

} // namespace vek

#endif /* VEK_EVTWAIT_H */
