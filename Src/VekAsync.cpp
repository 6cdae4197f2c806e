/*
 * VekAsync.cpp - an asynchronous operation: an operation interface run on
 * a worker thread of its own, an end event to wait for, and cancellation
 * through the worker's abort event (so the operation's own abortable waits
 * end with -5, as they would for any cancelled thread).
 *
 * The record's state (running, worker, result, cancel) is guarded by its
 * lock. A cancel reaches the worker only while the operation runs, so it
 * never leaves a stray entry in the thread table for a finished worker.
 */
#include "AlSync.h"
#include "VekCall.h"
#include "VekCore.h"

struct VekAsync {
    vek_u32 hdr;         // kAsyncMark
    AlMutex lock;
    vek_handle endEvt;   // manual reset: signalled while no operation runs
    IVekFunc* func;      // the running operation (one reference)
    vek_s32 arg;
    vek_u32 worker;      // the worker thread of the last start, 0 before
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

vek_u32 worker_main(void* p) {
    VekAsync* a = (VekAsync*)p;
    AlMutex_lock(&a->lock);
    IVekFunc* func = a->func;
    vek_s32 arg = a->arg;
    AlMutex_unlock(&a->lock);
    vek_s32 res = func->vtbl->call(func, arg);
    func->vtbl->release(func);
    AlMutex_lock(&a->lock);
    a->func = nullptr;
    a->result = a->cancelled && a->cancelArg ? a->cancelArg : res;
    a->running = 0;
    vek_evt_set(a->endEvt);  // the last touch: the owner may delete a after it
    AlMutex_unlock(&a->lock);
    return (vek_u32)res;
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
    a->hdr = kAsyncMark;
    AlMutex_new(&a->lock);
    a->endEvt = vek_evt_create__(1, 1);
    a->func = nullptr;
    a->arg = 0;
    a->worker = 0;
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
    AlMutex_lock(&a->lock);
    vek_u32 worker = a->worker;
    AlMutex_unlock(&a->lock);
    if (worker) {
        vek_thrd_join(worker);  // its thread entry is gone once it has ended
    }
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
    vek_u32 prev = a->worker;
    func->vtbl->addRef(func);
    a->func = func;
    a->arg = arg;
    a->running = 1;
    a->cancelled = 0;
    a->cancelArg = 0;
    a->worker = 0;
    vek_evt_reset(a->endEvt);
    AlMutex_unlock(&a->lock);
    if (prev) {
        vek_thrd_join(prev);
    }
    vek_u32 tid = vek_thrd_create__(worker_main, a, 0);
    AlMutex_lock(&a->lock);
    if (!tid) {
        a->func = nullptr;
        a->running = 0;
        a->result = VEK_ERR_WAIT_FAILED;
        vek_evt_set(a->endEvt);
    } else {
        a->worker = tid;
        if (a->cancelled && a->running) {  // cancelled before we knew the worker
            vek_thrd_cancel(tid);
        }
    }
    AlMutex_unlock(&a->lock);
    if (!tid) {
        func->vtbl->release(func);
        return VEK_ERR_WAIT_FAILED;
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
    if (running) {
        a->cancelled = 1;
        a->cancelArg = arg;
        if (a->worker) {
            vek_thrd_cancel(a->worker);
        }
    }
    AlMutex_unlock(&a->lock);
    return running;
}

} // extern "C"
