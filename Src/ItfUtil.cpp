/*
 * ItfUtil.cpp - ItfVol and its enumerator ItfEnum.
 *
 * The elements live in an ItfVolArr whose count says who holds it: the
 * collection and every enumerator made since it was published. The rule
 * that keeps enumerators valid: an array held by anyone besides the
 * collection is never written; the collection then changes a copy and
 * publishes that. Each array holds one reference on each of its elements
 * and releases them all when its own count reaches zero, so an element
 * lives as long as some array that an enumerator or the collection holds.
 *
 * The lock guards the collection's arr pointer and the writing of an array
 * only the collection holds. References are added under it, but released
 * after it is left: a release may run an object's destructor, and that may
 * call back into the collection.
 */
#include <cstring>
#include "ItfUtil.h"
#include "ObjModel.h"
#include "TagRec.h"

struct ItfVolArr {
    AlAtom ref;
    vek_s32 count;
    vek_s32 capa;
    IVekItf* items[1];  // capa of them
};

namespace {

const char kSrc[] = __FILE__;
const VekGuid kIidEnum = VEK_IID_IVEKENUM_INIT;

ItfVol* vol_of(ItfVol* v, vek_s32 line) {
    return vek::tag_check(v, ITFVOL_TAG, kSrc, line);
}

void itf_add_ref(IVekItf* itf) {
    (itf->vtbl->addRef)(itf);
}

void itf_release(IVekItf* itf) {
    (itf->vtbl->release)(itf);
}

ItfVolArr* arr_alloc(vek_s32 capa) {
    ItfVolArr* a = (ItfVolArr*)vek_malloc__(offsetof(ItfVolArr, items) + sizeof(IVekItf*) * (size_t)capa);
    if (a) {
        AlAtom_set(&a->ref, 1);
        a->count = 0;
        a->capa = capa;
    }
    return a;
}

// Lets go of one hold on an array; the last releases its elements.
void arr_drop(ItfVolArr* a) {
    if (a && AlAtom_dec(&a->ref) == 0) {
        for (vek_s32 i = 0; i < a->count; i++) {
            itf_release(a->items[i]);
        }
        vek_free__(a);
    }
}

// Under the lock: an array the collection may write, with room for need
// elements, holding the current ones. The current array when only the
// collection holds it and it is large enough; otherwise a copy, which
// replaces it. A copy of a shared array adds its own references, and the
// old one is handed back in *old for the caller to drop after the lock.
// Null when memory runs out (nothing changed).
ItfVolArr* writable(ItfVol* vol, vek_s32 need, ItfVolArr** old) {
    ItfVolArr* cur = vol->arr;
    *old = nullptr;
    bool alone = cur && AlAtom_get(&cur->ref) == 1;
    if (alone && cur->capa >= need) {
        return cur;
    }
    vek_s32 capa = cur ? cur->capa : 4;
    while (capa < need) {
        if (capa > 0x3FFFFFF) {
            return nullptr;
        }
        capa *= 2;
    }
    ItfVolArr* a = arr_alloc(capa);
    if (!a) {
        return nullptr;
    }
    if (cur) {
        std::memcpy(a->items, cur->items, sizeof(IVekItf*) * (size_t)cur->count);
        a->count = cur->count;
    }
    vol->arr = a;
    if (alone) {
        // Nobody else can reach the old array: its references move over.
        vek_free__(cur);
        return a;
    }
    for (vek_s32 i = 0; i < a->count; i++) {
        itf_add_ref(a->items[i]);
    }
    *old = cur;
    return a;
}

vek_s32 index_of(const ItfVolArr* a, const void* itf) {
    for (vek_s32 i = 0; a && i < a->count; i++) {
        if (a->items[i] == itf) {
            return i;
        }
    }
    return VEK_ERR_NOT_FOUND;
}

struct Locked {
    explicit Locked(ItfVol* v) : vol(v) { AlMutex_lock(&vol->lock); }
    ~Locked() { AlMutex_unlock(&vol->lock); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
    ItfVol* vol;
};

vek_s32 add(ItfVol* vol, void* itf, bool unique) {
    if (!itf) {
        vek_assert__("itf", kSrc, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    ItfVolArr* old = nullptr;
    vek_s32 ret;
    {
        Locked lk(vol);
        ret = unique ? index_of(vol->arr, itf) : VEK_ERR_NOT_FOUND;
        if (ret < 0) {
            ItfVolArr* a = writable(vol, (vol->arr ? vol->arr->count : 0) + 1, &old);
            if (!a) {
                return VEK_ERR_FULL;
            }
            itf_add_ref((IVekItf*)itf);
            a->items[a->count] = (IVekItf*)itf;
            ret = a->count++;
        }
    }
    arr_drop(old);
    return ret;
}

// Removes the element at index (or, with index negative, the first
// occurrence of itf): 0, -25 or -201.
vek_s32 remove(ItfVol* vol, vek_s32 index, const void* itf) {
    ItfVolArr* old = nullptr;
    IVekItf* gone;
    {
        Locked lk(vol);
        ItfVolArr* cur = vol->arr;
        if (index < 0) {
            index = index_of(cur, itf);
        }
        if (!cur || index < 0 || index >= cur->count) {
            return VEK_ERR_NOT_FOUND;
        }
        ItfVolArr* a = writable(vol, cur->count, &old);
        if (!a) {
            return VEK_ERR_FULL;
        }
        // The array's reference on the element goes with it.
        gone = a->items[index];
        std::memmove(a->items + index, a->items + index + 1,
                     sizeof(IVekItf*) * (size_t)(a->count - index - 1));
        a->count--;
    }
    arr_drop(old);
    itf_release(gone);
    return 0;
}

ItfVolArr* take_all(ItfVol* vol) {
    Locked lk(vol);
    ItfVolArr* a = vol->arr;
    vol->arr = nullptr;
    return a;
}

/* ---- ItfEnum ---- */

using EnumCls = vek::ObjClass<ItfEnum, IVekEnum, VEK_CLS_ITFENUM, ItfEnum_delete, &kIidEnum, kSrc>;

vek_s32 en_next(IVekEnum* itf, void** out) {
    ItfEnum* e = EnumCls::self(itf, __LINE__);
    if (!out) {
        VEK_ASSERT(out);
        return 0;
    }
    if (!e->arr || e->pos >= e->arr->count) {
        *out = nullptr;
        return 0;
    }
    *out = e->arr->items[e->pos++];
    return 1;
}

vek_s32 en_reset(IVekEnum* itf) {
    EnumCls::self(itf, __LINE__)->pos = 0;
    return 0;
}

ItfEnum* enum_new(ItfEnum* mem, ItfVolArr* arr, vek_s32 pos);

vek_s32 en_clone(IVekEnum* itf, IVekEnum** out) {
    ItfEnum* e = EnumCls::self(itf, __LINE__);
    if (!out) {
        VEK_ASSERT(out);
        return VEK_ERR_BAD_ARG;
    }
    ItfEnum* c = enum_new(nullptr, e->arr, e->pos);
    if (!c) {
        *out = nullptr;
        return VEK_ERR_FULL;
    }
    *out = EnumCls::itf(c);
    vek::obj_add_ref(*out);
    return 0;
}

const IVekEnumVtbl kEnumVtbl = {
    EnumCls::queryItf, EnumCls::addRef, EnumCls::release, en_next, en_reset, en_clone,
};

// An enumerator over arr (a hold is added) from pos; count 0.
ItfEnum* enum_new(ItfEnum* mem, ItfVolArr* arr, vek_s32 pos) {
    ItfEnum* e = (ItfEnum*)vek::obj_storage(mem, sizeof(ItfEnum), VEK_CLS_ITFENUM);
    if (e) {
        e->vtbl = &kEnumVtbl;
        e->arr = arr;
        e->pos = pos;
        if (arr) {
            AlAtom_inc(&arr->ref);
        }
    }
    return e;
}

} // namespace

extern "C" {

VEK_API ItfVol* ItfVol_new(ItfVol* mem) {
    ItfVol* vol = vek::tag_storage(mem, ITFVOL_TAG);
    if (vol) {
        AlMutex_new(&vol->lock);
    }
    return vol;
}

VEK_API void ItfVol_delete(ItfVol* vol) {
    arr_drop(take_all(vol_of(vol, __LINE__)));
    AlMutex_delete(&vol->lock);
    vek::obj_dispose(vol);
}

VEK_API void ItfVol_clear(ItfVol* vol) {
    arr_drop(take_all(vol_of(vol, __LINE__)));
}

VEK_API vek_s32 ItfVol_add(ItfVol* vol, void* itf) {
    return add(vol_of(vol, __LINE__), itf, false);
}

VEK_API vek_s32 ItfVol_uadd(ItfVol* vol, void* itf) {
    return add(vol_of(vol, __LINE__), itf, true);
}

VEK_API vek_s32 ItfVol_del(ItfVol* vol, void* itf) {
    vol_of(vol, __LINE__);
    if (!itf) {
        vek_assert__("itf", kSrc, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    return remove(vol, -1, itf);
}

VEK_API vek_s32 ItfVol_delAt(ItfVol* vol, vek_s32 index) {
    vol_of(vol, __LINE__);
    return index < 0 ? VEK_ERR_NOT_FOUND : remove(vol, index, nullptr);
}

VEK_API vek_s32 ItfVol_find(ItfVol* vol, const void* itf) {
    Locked lk(vol_of(vol, __LINE__));
    return index_of(vol->arr, itf);
}

VEK_API void* ItfVol_get(ItfVol* vol, vek_s32 index) {
    Locked lk(vol_of(vol, __LINE__));
    ItfVolArr* a = vol->arr;
    if (!a || index < 0 || index >= a->count) {
        return nullptr;
    }
    itf_add_ref(a->items[index]);
    return a->items[index];
}

VEK_API vek_s32 ItfVol_count(ItfVol* vol) {
    Locked lk(vol_of(vol, __LINE__));
    return vol->arr ? vol->arr->count : 0;
}

VEK_API ItfEnum* ItfEnum_new(ItfEnum* mem, ItfVol* vol) {
    Locked lk(vol_of(vol, __LINE__));
    return enum_new(mem, vol->arr, 0);
}

VEK_API IVekEnum* ItfEnum_xcreate__(ItfEnum* mem, ItfVol* vol, const char*, vek_s32) {
    ItfEnum* e = ItfEnum_new(mem, vol);
    if (!e) {
        return nullptr;
    }
    IVekEnum* itf = EnumCls::itf(e);
    vek::obj_add_ref(itf);
    return itf;
}

VEK_API void ItfEnum_delete(ItfEnum* obj) {
    ItfEnum* e = EnumCls::from_obj(obj, __LINE__);
    ItfVolArr* a = e->arr;
    e->arr = nullptr;
    arr_drop(a);
    vek::obj_dispose(e);
}

} // extern "C"
