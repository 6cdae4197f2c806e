/*
 * VekSem.cpp - counting semaphores: a count under a lock and a manual-reset
 * event that is signalled while a take may succeed. Waiting takes wait on
 * the event and then race for a unit; the loser waits again with the time
 * it has left. The lock is never held during a wait.
 */
#include "VekCall.h"
#include "VekCore.h"

namespace {

/* The record, or the object-check crash exit for a foreign one. */
VekSem* self(VekSem* sem, vek_s32 line) {
    if (!sem || (sem->hdr & VEK_CLS_MASK) != VEK_SEM_MARK) {
        ObjUtil_crashExit(__FILE__, line);
    }
    return sem;
}

using EvtWait = vek_s32 (*)(vek_handle evt, vek_disp_proc dispProc, vek_s32 tmo, vek_s32 flags);

vek_s32 plain_wait(vek_handle evt, vek_disp_proc, vek_s32 tmo, vek_s32 flags) {
    return vek_evt_wait__(evt, tmo, flags);
}

vek_s32 abort_wait(vek_handle evt, vek_disp_proc, vek_s32 tmo, vek_s32 flags) {
    return vek_evt_swait__(evt, tmo, flags);
}

vek_s32 sem_wait(VekSem* _this, EvtWait wait, vek_disp_proc dispProc, vek_s32 tmo, vek_s32 flags) {
    vek_u32 start = tmo >= 0 ? vek_msec() : 0;
    for (;;) {
        vek_s32 left = tmo;
        if (tmo > 0) {
            vek_u32 spent = vek_msec() - start;
            left = spent >= (vek_u32)tmo ? 0 : tmo - (vek_s32)spent;
        }
        vek_s32 r = wait(_this->evt, dispProc, left, flags);
        if (r == VEK_ERR_TIMEOUT || r == VEK_ERR_ABORTED) {
            return r;
        }
        if (r != 0) {
            return r;  // the wait failed (asserted): waiting again would spin
        }
        // A pending abort wins over an available unit.
        if (!(flags & VEK_WAIT_FORBID_ABORT) && vek_call_aborted()) {
            return VEK_ERR_ABORTED;
        }
        if (VekSem_test(_this)) {
            return 0;
        }
        // Another waiter was faster.
        if (tmo >= 0 && vek_msec() - start >= (vek_u32)tmo) {
            return VEK_ERR_TIMEOUT;
        }
    }
}

} // namespace

extern "C" {

VEK_API VekSem* VekSem_init(VekSem* sem, vek_s32 maxVal, vek_s32 initVal) {
    if (!sem) {
        ObjUtil_crashExit(__FILE__, __LINE__);
        return nullptr;
    }
    if (!(initVal >= 0 && maxVal != 0)) {
        vek_assert__("initVal >= 0 && maxVal != 0", __FILE__, __LINE__);
    }
    sem->hdr = VEK_SEM_MARK;
    AlMutex_new(&sem->lock);
    // Not signalled even with units: a waiting take sees them only after
    // the first VekSem_add.
    sem->evt = vek_evt_create__(1, 0);
    sem->val = initVal;
    sem->maxVal = maxVal < 0 ? 0x7FFFFFFF : maxVal;
    return sem;
}

VEK_API VekSem* VekSem_new(VekSem* mem, vek_s32 maxVal, vek_s32 initVal) {
    VekSem* sem = mem ? mem : (VekSem*)vek_malloc__(sizeof(VekSem));
    if (!sem) {
        return nullptr;
    }
    VekSem_init(sem, maxVal, initVal);
    if (!mem) {
        sem->hdr |= VEK_CLS_OWNED;
    }
    return sem;
}

VEK_API void VekSem_delete(VekSem* sem) {
    VekSem* _this = self(sem, __LINE__);
    vek_evt_close(_this->evt);
    AlMutex_delete(&_this->lock);
    bool owned = (_this->hdr & VEK_CLS_OWNED) != 0;
    _this->hdr = 0;
    if (owned) {
        vek_free__(_this);
    }
}

VEK_API vek_s32 VekSem_add(VekSem* sem, vek_s32 count) {
    VekSem* _this = self(sem, __LINE__);
    if (!(count > 0)) {
        VEK_ASSERT(count > 0);
        return VEK_ERR_FULL;
    }
    vek_s32 ret = VEK_ERR_FULL;
    AlMutex_lock(&_this->lock);
    vek_s64 now = (vek_s64)_this->val + count;
    if (now >= 1 && now <= _this->maxVal) {
        ret = _this->val;
        _this->val = (vek_s32)now;
        vek_evt_set(_this->evt);
    }
    AlMutex_unlock(&_this->lock);
    return ret;
}

VEK_API vek_bool VekSem_test(VekSem* sem) {
    VekSem* _this = self(sem, __LINE__);
    vek_bool taken = 0;
    AlMutex_lock(&_this->lock);
    if (_this->val >= 1) {
        if (--_this->val == 0) {
            vek_evt_reset(_this->evt);
        }
        taken = 1;
    }
    bool negative = _this->val < 0;
    AlMutex_unlock(&_this->lock);
    if (negative) {
        vek_assert__("_this->val == 0", __FILE__, __LINE__);
    }
    return taken;
}

VEK_API vek_s32 VekSem_reset(VekSem* sem) {
    VekSem* _this = self(sem, __LINE__);
    AlMutex_lock(&_this->lock);
    vek_s32 old = _this->val;
    _this->val = 0;
    vek_evt_reset(_this->evt);
    AlMutex_unlock(&_this->lock);
    return old;
}

VEK_API vek_s32 VekSem_wait(VekSem* sem, vek_s32 tmo, vek_s32 flags) {
    return sem_wait(self(sem, __LINE__), plain_wait, nullptr, tmo, flags);
}

VEK_API vek_s32 VekSem_swait(VekSem* sem, vek_s32 tmo, vek_s32 flags) {
    return sem_wait(self(sem, __LINE__), abort_wait, nullptr, tmo, flags);
}

VEK_API vek_s32 VekSem_mwait(VekSem* sem, vek_disp_proc dispProc, vek_s32 tmo, vek_s32 flags) {
    return sem_wait(self(sem, __LINE__), vek_evt_mwait__, dispProc, tmo, flags);
}

} // extern "C"
