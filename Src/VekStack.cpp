/*
 * VekStack.cpp - bounded pointer and record stacks. The stack is called
 * _this so that its checks read the same in the code and in their
 * assertion texts.
 */
#include <cstring>
#include "TagRec.h"
#include "VekStack.h"
#include "VekTrc.h"

namespace {

const char kSrc[] = __FILE__;

PtrStack* ptr_stack(PtrStack* s, vek_s32 line) {
    return vek::tag_check(s, PTRSTACK_TAG, kSrc, line);
}

BlkStack* blk_stack(BlkStack* s, vek_s32 line) {
    return vek::tag_check(s, BLKSTACK_TAG, kSrc, line);
}

vek_u8* record(BlkStack* s, vek_s32 i) {
    return s->buf + (size_t)s->eleSize * (size_t)i;
}

} // namespace

extern "C" {

/* ---- PtrStack ---- */

VEK_API PtrStack* PtrStack_new(PtrStack* stk, vek_s32 size) {
    if (size < 1) {
        VEK_ASSERT(size >= 1);
        size = 1;
    }
    PtrStack* _this = vek::tag_storage(stk, PTRSTACK_TAG);
    if (!_this) {
        return nullptr;
    }
    _this->tab = (void**)vek_malloc__(sizeof(void*) * (size_t)size);
    _this->size = _this->tab ? size : 0;
    return _this;
}

VEK_API void PtrStack_delete(PtrStack* stk) {
    PtrStack* _this = ptr_stack(stk, __LINE__);
    vek_free__(_this->tab);
    _this->tab = nullptr;
    vek::obj_dispose(_this);
}

VEK_API void PtrStack_clear(PtrStack* stk) {
    ptr_stack(stk, __LINE__)->top = 0;
}

VEK_API vek_s32 PtrStack_push(PtrStack* stk, void* ptr) {
    PtrStack* _this = ptr_stack(stk, __LINE__);
    if (_this->top >= _this->size) {
        return 0;
    }
    _this->tab[_this->top++] = ptr;
    return 1;
}

VEK_API void* PtrStack_pop(PtrStack* stk) {
    PtrStack* _this = ptr_stack(stk, __LINE__);
    return _this->top > 0 ? _this->tab[--_this->top] : nullptr;
}

VEK_API void* PtrStack_top(PtrStack* stk) {
    PtrStack* _this = ptr_stack(stk, __LINE__);
    return _this->top > 0 ? _this->tab[_this->top - 1] : nullptr;
}

/* ---- BlkStack ---- */

VEK_API BlkStack* BlkStack_new(BlkStack* stk, vek_s32 eleSize, void* buf, vek_s32 bufSize) {
    BlkStack* _this = vek::tag_storage(stk, BLKSTACK_TAG);
    if (!_this) {
        return nullptr;
    }
    VEK_ASSERT(eleSize >= 1);
    VEK_ASSERT(buf);
    VEK_ASSERT(bufSize >= eleSize);
    // A stack built from bad arguments holds nothing: every push is refused.
    bool ok = eleSize >= 1 && buf && bufSize >= eleSize;
    _this->buf = ok ? (vek_u8*)buf : nullptr;
    _this->eleSize = ok ? eleSize : 1;
    _this->size = ok ? bufSize / eleSize : 0;
    return _this;
}

VEK_API void BlkStack_delete(BlkStack* stk) {
    BlkStack* _this = blk_stack(stk, __LINE__);
    _this->buf = nullptr;
    vek::obj_dispose(_this);
}

VEK_API void BlkStack_clear(BlkStack* stk) {
    blk_stack(stk, __LINE__)->top = 0;
}

VEK_API vek_s32 BlkStack_push(BlkStack* stk, const void* rec) {
    BlkStack* _this = blk_stack(stk, __LINE__);
    if (_this->top >= _this->size) {
        vek_printf("no room for push, size=%d", (int)_this->top);
        return 0;
    }
    vek_u8* at = record(_this, _this->top++);
    if (rec) {
        std::memcpy(at, rec, (size_t)_this->eleSize);
    } else {
        std::memset(at, 0, (size_t)_this->eleSize);
    }
    return 1;
}

VEK_API void* BlkStack_pop(BlkStack* stk, void* out) {
    BlkStack* _this = blk_stack(stk, __LINE__);
    if (_this->top <= 0) {
        vek_printf("pop without item");
        VEK_ASSERT(_this->top > 0);
        return nullptr;
    }
    vek_u8* at = record(_this, --_this->top);
    if (out) {
        std::memcpy(out, at, (size_t)_this->eleSize);
    }
    return at;
}

VEK_API void* BlkStack_top(BlkStack* stk) {
    BlkStack* _this = blk_stack(stk, __LINE__);
    return _this->top > 0 ? record(_this, _this->top - 1) : nullptr;
}

} // extern "C"
