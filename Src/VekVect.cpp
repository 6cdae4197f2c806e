/*
 * VekVect.cpp - pointer and record vectors.
 *
 * Growth is one element at a time: these vectors hold a handful of entries
 * and are sized at creation, so a tight array beats spare capacity. The
 * vector is called _this so that the range checks read the same in the
 * code and in their assertion texts.
 */
#include <cstring>
#include "TagRec.h"
#include "VekVect.h"

namespace {

const char kSrc[] = __FILE__;

PtrVect* ptr_vect(PtrVect* v, vek_s32 line) {
    return vek::tag_check(v, PTRVECT_TAG, kSrc, line);
}

BlkVect* blk_vect(BlkVect* v, vek_s32 line) {
    return vek::tag_check(v, BLKVECT_TAG, kSrc, line);
}

// Grows a full table by exactly one element of ele bytes, copying the
// count used ones; false (table unchanged) when memory runs out.
template <class T>
bool grow_by_one(T*& tab, vek_s32& size, vek_s32 count, size_t ele) {
    T* p = (T*)vek_malloc__(ele * ((size_t)size + 1));
    if (!p) {
        return false;
    }
    if (count) {
        std::memcpy(p, tab, ele * (size_t)count);
    }
    vek_free__(tab);
    tab = p;
    size++;
    return true;
}

template <class V>
bool in_range(V* _this, vek_s32 index) {
    if (index >= 0 && index < _this->count) {
        return true;
    }
    VEK_ASSERT(index >= 0 && index < _this->count);
    return false;
}

} // namespace

extern "C" {

/* ---- PtrVect ---- */

VEK_API PtrVect* PtrVect_new(PtrVect* vec, vek_s32 size) {
    if (size < 1) {
        VEK_ASSERT(size >= 1);
        size = 1;
    }
    PtrVect* _this = vek::tag_storage(vec, PTRVECT_TAG);
    if (!_this) {
        return nullptr;
    }
    _this->tab = (void**)vek_malloc__(sizeof(void*) * (size_t)size);
    _this->size = _this->tab ? size : 0;
    return _this;
}

VEK_API void PtrVect_delete(PtrVect* vec) {
    PtrVect* _this = ptr_vect(vec, __LINE__);
    vek_free__(_this->tab);
    _this->tab = nullptr;
    vek::obj_dispose(_this);
}

VEK_API void PtrVect_clear(PtrVect* vec, PtrVectDelFunc delFunc) {
    PtrVect* _this = ptr_vect(vec, __LINE__);
    if (delFunc) {
        for (vek_s32 i = 0; i < _this->count; i++) {
            delFunc(_this->tab[i]);
        }
    }
    _this->count = 0;
}

VEK_API vek_s32 PtrVect_add(PtrVect* vec, void* ptr) {
    PtrVect* _this = ptr_vect(vec, __LINE__);
    if (!ptr) {
        VEK_ASSERT(ptr);
        return VEK_ERR_BAD_ARG;
    }
    if (_this->count >= _this->size && !grow_by_one(_this->tab, _this->size, _this->count, sizeof(void*))) {
        return VEK_ERR_FULL;
    }
    _this->tab[_this->count++] = ptr;
    return 0;
}

VEK_API vek_s32 PtrVect_dele(PtrVect* vec, void* ptr) {
    PtrVect* _this = ptr_vect(vec, __LINE__);
    if (!ptr) {
        VEK_ASSERT(ptr);
        return VEK_ERR_NOT_FOUND;
    }
    for (vek_s32 i = 0; i < _this->count; i++) {
        if (_this->tab[i] == ptr) {
            _this->tab[i] = _this->tab[--_this->count];
            return 0;
        }
    }
    return VEK_ERR_NOT_FOUND;
}

VEK_API vek_s32 PtrVect_del(PtrVect* vec, vek_s32 index, PtrVectDelFunc delFunc) {
    PtrVect* _this = ptr_vect(vec, __LINE__);
    if (!in_range(_this, index)) {
        return VEK_ERR_BAD_ARG;
    }
    VEK_ASSERT(_this->tab[index]);
    if (delFunc && _this->tab[index]) {
        delFunc(_this->tab[index]);
    }
    _this->tab[index] = _this->tab[--_this->count];
    return 0;
}

VEK_API void* PtrVect_ele(PtrVect* vec, vek_s32 index) {
    PtrVect* _this = ptr_vect(vec, __LINE__);
    return in_range(_this, index) ? _this->tab[index] : nullptr;
}

/* ---- BlkVect ---- */

VEK_API BlkVect* BlkVect_new(BlkVect* vec, vek_s32 size, vek_s32 eleSize) {
    if (!(size > 0 && eleSize > 0)) {
        VEK_ASSERT(size > 0 && eleSize > 0);
        size = size > 0 ? size : 1;
        eleSize = eleSize > 0 ? eleSize : 1;
    }
    BlkVect* _this = vek::tag_storage(vec, BLKVECT_TAG);
    if (!_this) {
        return nullptr;
    }
    _this->tab = (vek_u8*)vek_malloc__((size_t)size * (size_t)eleSize);
    _this->eleSize = eleSize;
    _this->size = _this->tab ? size : 0;
    return _this;
}

VEK_API void BlkVect_delete(BlkVect* vec) {
    BlkVect* _this = blk_vect(vec, __LINE__);
    vek_free__(_this->tab);
    _this->tab = nullptr;
    vek::obj_dispose(_this);
}

VEK_API void BlkVect_clear(BlkVect* vec) {
    blk_vect(vec, __LINE__)->count = 0;
}

VEK_API vek_s32 BlkVect_add(BlkVect* vec, const void* rec) {
    BlkVect* _this = blk_vect(vec, __LINE__);
    if (!rec) {
        VEK_ASSERT(rec);
        return VEK_ERR_BAD_ARG;
    }
    size_t ele = (size_t)_this->eleSize;
    if (_this->count >= _this->size && !grow_by_one(_this->tab, _this->size, _this->count, ele)) {
        return VEK_ERR_FULL;
    }
    std::memcpy(_this->tab + ele * (size_t)_this->count, rec, ele);
    return _this->count++;
}

VEK_API vek_s32 BlkVect_del(BlkVect* vec, vek_s32 index) {
    BlkVect* _this = blk_vect(vec, __LINE__);
    if (index < 0 || index >= _this->count) {
        return 0;
    }
    size_t ele = (size_t)_this->eleSize;
    if (--_this->count != index) {
        std::memcpy(_this->tab + ele * (size_t)index, _this->tab + ele * (size_t)_this->count, ele);
    }
    return 1;
}

VEK_API void* BlkVect_ele(BlkVect* vec, vek_s32 index) {
    BlkVect* _this = blk_vect(vec, __LINE__);
    return in_range(_this, index) ? _this->tab + (size_t)_this->eleSize * (size_t)index : nullptr;
}

} // extern "C"
