/*
 * ObjModel.h - the object model shared by every interface class (internal).
 *
 * A class's record starts with the three words of ObjHdr (class word,
 * reference count, operation table); the interface pointer handed out is the
 * address of the table pointer. ObjClass<> supplies the three common slots
 * (queryItf, addRef, release) and the class-word check, so a class writes
 * only its own operations:
 *
 *     struct MemStrm { vek_u32 cls; AlAtom ref; const IStrmVtbl* vtbl; ... };
 *     static const char kSrc[] = __FILE__;
 *     using Cls = vek::ObjClass<MemStrm, IStrm, 0x3B72EA, MemStrm_delete, &kIidIStrm, kSrc>;
 *     MemStrm* self = Cls::self(itf, __LINE__);   // crash exit when foreign
 */
#ifndef VEK_OBJMODEL_H
#define VEK_OBJMODEL_H

#include <cstddef>
#include <cstring>
#include "BaseItf.h"
#include "VekVos.h"

namespace vek {

struct ObjHdr {
    vek_u32 cls;
    AlAtom ref;
    const void* vtbl;
};
static_assert(offsetof(ObjHdr, ref) == 4 && offsetof(ObjHdr, vtbl) == 8,
              "class word and count precede the table pointer");

inline ObjHdr* obj_hdr(const void* itf) {
    return (ObjHdr*)((char*)itf - offsetof(ObjHdr, vtbl));
}

inline bool guid_eq(const VekGuid* a, const VekGuid* b) {
    return std::memcmp(a, b, sizeof(VekGuid)) == 0;
}

extern const VekGuid kIidUnknown;

/* Returns the header of itf when it is a live object of class clsNo;
 * otherwise ends the process through ObjUtil_crashExit(file, line). */
ObjHdr* obj_check(const void* itf, vek_u32 clsNo, const char* file, vek_s32 line);

/* The common slots. query answers own and the generic base identifier; a
 * null out is an assertion failure (-81). release destroys at zero and
 * asserts a count below zero. */
vek_s32 obj_query(void* itf, const VekGuid* iid, void** out, const VekGuid* own);
vek_s32 obj_add_ref(void* itf);
vek_s32 obj_release(void* itf, void (*destroy)(void* itf));

/* Storage for a _new: mem when given (class word without the top bit),
 * else a zeroed block of the tracked heap (top bit set). Returns the
 * record, or null when the allocation failed. */
void* obj_storage(void* mem, size_t size, vek_u32 clsNo);
/* Clears the class word and frees the record when it owns its storage. */
void obj_dispose(void* obj);

template <class Obj, class Itf, vek_u32 ClsNo, void (*Delete)(Obj*), const VekGuid* OwnIid,
          const auto& SrcFile>
struct ObjClass {
    static constexpr vek_u32 kCls = ClsNo;

    // The check runs on every operation: the common case stays inline.
    static Obj* self(const void* itf, vek_s32 line) {
        if (itf && (obj_hdr(itf)->cls & VEK_CLS_MASK) == ClsNo) {
            return (Obj*)obj_hdr(itf);
        }
        return (Obj*)obj_check(itf, ClsNo, SrcFile, line);
    }
    static Obj* from_obj(void* obj, vek_s32 line) {
        return self(obj ? (char*)obj + offsetof(ObjHdr, vtbl) : nullptr, line);
    }
    static Itf* itf(Obj* obj) { return (Itf*)&((ObjHdr*)obj)->vtbl; }

    static vek_s32 queryItf(Itf* s, const VekGuid* iid, void** out) {
        self(s, __LINE__);
        return obj_query(s, iid, out, OwnIid);
    }
    static vek_s32 addRef(Itf* s) {
        self(s, __LINE__);
        return obj_add_ref(s);
    }
    static vek_s32 release(Itf* s) {
        self(s, __LINE__);
        return obj_release(s, &destroy);
    }

  private:
    static void destroy(void* s) { Delete((Obj*)obj_hdr(s)); }
};

} // namespace vek

#endif /* VEK_OBJMODEL_H */
