/*
 * ItfUtil.h - interface collections: ItfVol, an ordered collection of
 * interface objects (any object of the object model, BaseItf.h) that holds
 * one reference on each, and ItfEnum, an enumerator over it (IVekEnum)
 * that stays valid whatever happens to the collection afterwards.
 *
 * What an enumerator sees: the elements the collection held when the
 * enumerator was made, in their order then. Later adds and deletes do not
 * show in it, and the elements it will still hand out stay alive (it
 * shares their references) even when the collection lets them go or is
 * deleted. reset starts again over the same elements; clone continues from
 * the same place; a new enumerator sees the collection as it is now. This
 * costs nothing while the collection is not changed: the elements live in
 * one array that the enumerators share, and a change made while an
 * enumerator holds the array is made on a copy.
 *
 * Threads: every ItfVol call may come from any thread and is atomic with
 * respect to the others (one lock per collection); ItfVol_delete must not
 * race with other calls on the same collection. An enumerator is used by
 * one thread at a time. Elements are added a reference under the lock and
 * released only after it is left, so an element's release may call back
 * into the collection.
 *
 * Results: an index or 0 on success; VEK_ERR_NOT_FOUND (-25) for an
 * element or index not present; VEK_ERR_FULL (-201) when memory runs out
 * (the collection is then unchanged); a null element is the assertion
 * "itf" and VEK_ERR_BAD_ARG (-81). The ItfVol record carries a tag word
 * checked by every call; a foreign record, or an IVekEnum that is not a
 * live ItfEnum, ends the process through ObjUtil_crashExit.
 */
#ifndef VEK_ITFUTIL_H
#define VEK_ITFUTIL_H

#include "VekType.h"
#include "AlOs.h"
#include "BaseItf.h"

VEK_BEGIN_DECLS

#define ITFVOL_TAG      0x2F6B91C4u  /* | 0x80000000 when ItfVol_new allocated it */
#define VEK_CLS_ITFENUM 0x47D20A3Bu  /* class number of ItfEnum */

/* The shared array of elements: a reference count (the collection and its
 * enumerators), the element count and the elements. */
typedef struct ItfVolArr ItfVolArr;

typedef struct ItfVol {
    vek_u32 tag;
    AlMutex lock;
    ItfVolArr* arr;  /* the current elements, or null when there are none */
} ItfVol;

/* An empty collection in mem, or in a new record when mem is null (null
 * when that allocation fails). */
VEK_API ItfVol* ItfVol_new(ItfVol* mem);
/* Releases the collection's reference on every element and frees the
 * record when ItfVol_new allocated it. Enumerators keep working. */
VEK_API void ItfVol_delete(ItfVol* vol);
/* Releases every element: the collection is empty. */
VEK_API void ItfVol_clear(ItfVol* vol);
/* Adds itf at the end with one more reference: its index. */
VEK_API vek_s32 ItfVol_add(ItfVol* vol, void* itf);
/* The index of itf when it is held already (no reference added), else
 * ItfVol_add. */
VEK_API vek_s32 ItfVol_uadd(ItfVol* vol, void* itf);
/* Removes the first occurrence of itf (the elements behind it move up one
 * place) and releases it: 0, or VEK_ERR_NOT_FOUND. */
VEK_API vek_s32 ItfVol_del(ItfVol* vol, void* itf);
/* Removes and releases the element at index: 0, or VEK_ERR_NOT_FOUND. */
VEK_API vek_s32 ItfVol_delAt(ItfVol* vol, vek_s32 index);
/* The index of the first occurrence of itf, or VEK_ERR_NOT_FOUND. */
VEK_API vek_s32 ItfVol_find(ItfVol* vol, const void* itf);
/* The element at index with one more reference, which the caller releases
 * (another thread may delete it from the collection meanwhile); null when
 * index is out of range. */
VEK_API void* ItfVol_get(ItfVol* vol, vek_s32 index);
/* The number of elements. */
VEK_API vek_s32 ItfVol_count(ItfVol* vol);

/* ---- ItfEnum: IVekEnum over an ItfVol ----
 * next stores the next element of the enumerator's view in *out (no
 * reference added: it stays valid while the enumerator lives; add one to
 * keep it longer) and returns 1, or 0 and null at the end. reset returns
 * 0; clone returns 0 and a new enumerator (one reference) at the same
 * place, or VEK_ERR_FULL and null when memory runs out. queryItf answers
 * IVekEnum and the base interface. */
typedef struct ItfEnum {
    vek_u32 cls;              /* VEK_CLS_ITFENUM, | VEK_CLS_OWNED when allocated */
    AlAtom ref;
    const IVekEnumVtbl* vtbl;
    ItfVolArr* arr;           /* the elements it sees (shared), or null */
    vek_s32 pos;              /* index of the next element */
} ItfEnum;

/* An enumerator over vol's elements as they are now, built in mem or
 * allocated when mem is null (null when that allocation fails); count 0.
 * The _xcreate__ form adds the first reference and returns the IVekEnum
 * interface, which the caller releases; path and line name the caller. */
VEK_API ItfEnum* ItfEnum_new(ItfEnum* mem, ItfVol* vol);
VEK_API IVekEnum* ItfEnum_xcreate__(ItfEnum* mem, ItfVol* vol, const char* path, vek_s32 line);
/* Lets go of the enumerator's view and frees the record when _new
 * allocated it. */
VEK_API void ItfEnum_delete(ItfEnum* obj);

VEK_END_DECLS

#endif /* VEK_ITFUTIL_H */
