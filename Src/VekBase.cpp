/*
 * VekBase.cpp - object utilities: the object-model failures and the common
 * slots every interface class shares.
 */
#include "ObjModel.h"
#include "VekCore.h"

// The assertion positions of the two object-model failures are part of
// their texts, so they are fixed rather than taken from __LINE__.
static const char kVekBaseSrc[] = "VekBase.cpp";

extern "C" VEK_API void ObjUtil_crashExit(const char* path, vek_s32 line) {
    vek_printf("@@@ obj crash %s[%d]\n", str_path_name(path), (int)line);
    vek_assert__("obj crash", kVekBaseSrc, 56);
    // An object check that fails cannot continue safely: whatever the
    // dialog answered, the process ends here.
    vek_exit();
}

extern "C" VEK_API vek_s32 ObjUtil_vfuncNull(void) {
    vek_printf("exit program for NULL virtual func call\n");
    vek_assert__("NULL vfunc called", kVekBaseSrc, 49);
    return VEK_ERR_NOT_SUPPORTED;
}

namespace vek {

const VekGuid kIidUnknown = VEK_IID_IUNKNOWN_INIT;

ObjHdr* obj_check(const void* itf, vek_u32 clsNo, const char* file, vek_s32 line) {
    if (!itf) {
        ObjUtil_crashExit(file, line);
    }
    ObjHdr* h = obj_hdr(itf);
    if ((h->cls & VEK_CLS_MASK) != clsNo) {
        ObjUtil_crashExit(file, line);
    }
    return h;
}

vek_s32 obj_query(void* itf, const VekGuid* iid, void** out, const VekGuid* own) {
    if (!out) {
        VEK_ASSERT(out);
        return VEK_ERR_BAD_ARG;
    }
    if (iid && (guid_eq(iid, &kIidUnknown) || (own && guid_eq(iid, own)))) {
        obj_add_ref(itf);
        *out = itf;
        return 0;
    }
    *out = nullptr;
    return VEK_ERR_NOT_SUPPORTED;
}

vek_s32 obj_add_ref(void* itf) {
    return AlAtom_inc(&obj_hdr(itf)->ref);
}

vek_s32 obj_release(void* itf, void (*destroy)(void* itf)) {
    vek_s32 ret = AlAtom_dec(&obj_hdr(itf)->ref);
    if (ret == 0) {
        destroy(itf);
    } else if (ret < 0) {
        VEK_ASSERT(ret >= 0);
    }
    return ret;
}

void* obj_storage(void* mem, size_t size, vek_u32 clsNo) {
    vek_u32 cls = clsNo;
    if (!mem) {
        mem = vek_malloc__(size);
        if (!mem) {
            return nullptr;
        }
        cls |= VEK_CLS_OWNED;
    }
    std::memset(mem, 0, size);
    ((ObjHdr*)mem)->cls = cls;
    return mem;
}

void obj_dispose(void* obj) {
    ObjHdr* h = (ObjHdr*)obj;
    bool owned = (h->cls & VEK_CLS_OWNED) != 0;
    h->cls = 0;
    if (owned) {
        vek_free__(obj);
    }
}

} // namespace vek
