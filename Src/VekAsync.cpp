/*
 * VekAsync.cpp - an asynchronous operation: an operation interface run as
 * a task of the default task server, an end event to wait for, and
 * cancellation through the task server (a queued operation is removed; a
 * running one has its worker cancelled, so its own abortable waits end
 * with -5, as they would for any cancelled thread).
 *
 * The record's state (running, task, result, cancel) is guarded by its
 * lock. The task's clean-up ends the operation, whether it ran or was
 * removed before it started: it sets the result and then the end event,
 * its last touch of the record but for the unlock, which VekAsync_delete
 * waits for by taking the lock once more.
 */
#include "AlSync.h"
#include "TaskSvr.h"
#include "VekCall.h"
#include "VekCore.h"

struct VekAsync {
    vek_u32 hdr;         // kAsyncMark
    AlMutex lock;
    vek_handle endEvt;   // manual reset: signalled while no operation runs
    IVekFunc* func;      // the running operation (one reference)
    vek_s32 arg;
    VekTask task;        // its task, 0 until the post has returned
    vek_s32 running;
    vek_s32 result;
    vek_s32 cancelled;
    vek_s32 cancelArg;
};

namespace {

constexpr vek_u32 kAsyncMark = 0x5A7C31;

VekAsync* self(VekAsync* async, vek_s32 line) {
    if (!async || async->hdr != kAsyncMark) {
        ObjUtil_crashExit(__FILE__, line);
    }
    return async;
}

vek_s32 op_run(void* p) {
    VekAsync* a = (VekAsync*)p;
    AlMutex_lock(&a->lock);
    IVekFunc* func = a->func;
    vek_s32 arg = a->arg;
    AlMutex_unlock(&a->lock);
    return func->vtbl->call(func, arg);
}

/* The task's clean-up: after the call, or instead of it when the operation
 * was cancelled before it started (res -5). */
void op_end(void* p, vek_s32 res) {
    VekAsync* a = (VekAsync*)p;
    AlMutex_lock(&a->lock);
    IVekFunc* func = a->func;  // stays while running is set
    AlMutex_unlock(&a->lock);
    func->vtbl->release(func);
    AlMutex_lock(&a->lock);
    a->func = nullptr;
    a->task = 0;
    a->result = a->cancelled && a->cancelArg ? a->cancelArg : res;
    a->running = 0;
    vek_evt_set(a->endEvt);  // the owner may delete a once it has the lock
    AlMutex_unlock(&a->lock);
}

/* The default wait procedure: the end, or the waiting thread's cancel (the
 * thread's own abort event: inside the asynchronous block there is no call
 * abort event). */
vek_s32 wait_def(VekAsync*, vek_handle endEvt) {
    vek_handle hnds[2] = {endEvt, vek_thrd_abort_evt()};
    vek_u32 r = plat::wait_any(hnds, hnds[1] ? 2 : 1, VEK_WAIT_INFINITE, 0);
    return r == plat::kWaitObject0 ? 0 : r == plat::kWaitObject0 + 1 ? VEK_ERR_ABORTED : VEK_ERR_WAIT_FAILED;
}

} // namespace

extern "C" {

VEK_API VekAsync* VekAsync_new(void) {
    VekAsync* a = (VekAsync*)vek_malloc__(sizeof(VekAsync));
    if (!a) {
        return nullptr;
    }
    a->endEvt = vek_evt_create__(1, 1);
    if (!a->endEvt) {
        vek_free__(a);
        return nullptr;
    }
    a->hdr = kAsyncMark;
    AlMutex_new(&a->lock);
    a->func = nullptr;
    a->arg = 0;
    a->task = 0;
    a->running = 0;
    a->result = 0;
    a->cancelled = 0;
    a->cancelArg = 0;
    return a;
}

VEK_API void VekAsync_delete(VekAsync* async) {
    VekAsync* a = self(async, __LINE__);
    VekAsync_cancel(a, 0);
    win_hnd_wait__(a->endEvt, VEK_WAIT_INFINITE, 0);
    AlMutex_lock(&a->lock);  // the clean-up has let go of the record
    AlMutex_unlock(&a->lock);
    vek_evt_close(a->endEvt);
    AlMutex_delete(&a->lock);
    a->hdr = 0;
    vek_free__(a);
}

VEK_API vek_s32 VekAsync_start(VekAsync* async, IVekFunc* func, vek_s32 arg) {
    VekAsync* a = self(async, __LINE__);
    if (!func) {
        VEK_ASSERT(func);
        return VEK_ERR_WAIT_FAILED;
    }
    AlMutex_lock(&a->lock);
    if (a->running) {
        AlMutex_unlock(&a->lock);
        vek_assert__("!async->running", __FILE__, __LINE__);
        return VEK_ERR_WAIT_FAILED;
    }
    func->vtbl->addRef(func);
    a->func = func;
    a->arg = arg;
    a->running = 1;
    a->cancelled = 0;
    a->cancelArg = 0;
    a->task = 0;
    vek_evt_reset(a->endEvt);
    AlMutex_unlock(&a->lock);
    TaskSvr* svr = TaskSvr_def();
    VekTask task = svr ? TaskSvr_post(svr, op_run, op_end, a) : 0;
    if (!task) {
        AlMutex_lock(&a->lock);
        a->func = nullptr;
        a->running = 0;
        a->result = VEK_ERR_WAIT_FAILED;
        vek_evt_set(a->endEvt);
        AlMutex_unlock(&a->lock);
        func->vtbl->release(func);
        return VEK_ERR_WAIT_FAILED;
    }
    AlMutex_lock(&a->lock);
    bool cancel = false;
    if (a->running) {  // not ended already
        a->task = task;
        cancel = a->cancelled != 0;  // cancelled before we knew the task
    }
    AlMutex_unlock(&a->lock);
    if (cancel) {
        TaskSvr_cancel(task, 1);
    }
    return 0;
}

VEK_API vek_s32 VekAsync_waitEndx(VekAsync* async, VekAsyncWait wproc) {
    VekAsync* a = self(async, __LINE__);
    vek_s32 r = (wproc ? wproc : wait_def)(a, a->endEvt);
    if (r != 0) {
        VekAsync_cancel(a, r);
        win_hnd_wait__(a->endEvt, VEK_WAIT_INFINITE, 0);
    }
    AlMutex_lock(&a->lock);
    vek_s32 res = a->result;
    AlMutex_unlock(&a->lock);
    return res;
}

VEK_API vek_s32 VekAsync_cancel(VekAsync* async, vek_s32 arg) {
    VekAsync* a = self(async, __LINE__);
    AlMutex_lock(&a->lock);
    vek_s32 running = a->running;
    VekTask task = 0;
    if (running) {
        a->cancelled = 1;
        a->cancelArg = arg;
        task = a->task;
    }
    AlMutex_unlock(&a->lock);
    if (task) {
        TaskSvr_cancel(task, 1);  // a stale id (it ended meanwhile) is harmless
    }
    return running;
}

} // extern "C"
