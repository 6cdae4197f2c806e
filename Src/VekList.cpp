/*
 * VekList.cpp - the intrusive lists and the list enumerator.
 *
 * One set of functions serves both kinds of VekList: the back links are
 * written only in a two-way list, and where a one-way list needs a
 * predecessor it walks from the front. The list is called _this so that its
 * invariant checks read the same in the code and in their assertion texts.
 */
#include <cstring>
#include "ObjModel.h"
#include "ShapeWatch.h"
#include "VekList.h"
#include "VekTrc.h"

namespace {

const char kSrc[] = __FILE__;

bool two_way(const VekList* _this) {
    return vek::list_kind(_this) == LIST_TWO_WAY;
}

// A link change of a list some view was built from is reported to it.
inline void shape_changed(const VekList* _this) {
    if (_this->type & vek::kListWatched) {
        vek::watch_touched(_this);
    }
}

// Checks the ends against each other and the count; true when empty.
bool list_empty(VekList* _this) {
    if (!_this->hdr) {
        VEK_ASSERT(!_this->tail && _this->len == 0);
        return true;
    }
    VEK_ASSERT(_this->tail && _this->len > 0);
    return false;
}

// The node in front of node, walking from the front in a one-way list;
// null for the first node (and when node is not in the list).
VekListNode* list_prev(VekList* _this, VekListNode* node) {
    if (two_way(_this)) {
        return node->prev;
    }
    VekListNode* p = _this->hdr;
    while (p && p->next != node) {
        p = p->next;
    }
    return p;
}

void list_link_after(VekList* _this, VekListNode* node, VekListNode* prev) {
    shape_changed(_this);
    node->next = prev->next;
    node->prev = two_way(_this) ? prev : nullptr;
    if (two_way(_this)) {
        node->next->prev = node;
    }
    prev->next = node;
    node->list = _this;
    _this->len++;
}

// The checks of an insertion next to ref_node: all given, and ref_node a
// node of this list (one of another list is refused without complaint).
bool ref_in_list(VekList* _this, VekListNode* node, VekListNode* ref_node) {
    if (!(_this && node && ref_node)) {
        VEK_ASSERT(_this && node && ref_node);
        return false;
    }
    return ref_node->list == _this;
}

// Takes node (whose predecessor is prev, null at the front) out of the list
// and resets its links.
void list_unlink(VekList* _this, VekListNode* node, VekListNode* prev) {
    shape_changed(_this);
    if (prev) {
        prev->next = node->next;
    } else {
        _this->hdr = node->next;
    }
    if (node->next) {
        if (two_way(_this)) {
            node->next->prev = prev;
        }
    } else {
        _this->tail = prev;
    }
    _this->len--;
    node->next = node->prev = nullptr;
    node->list = nullptr;
}

// The first node from the front that matches, and its predecessor.
VekListNode* list_find(VekList* _this, const void* key, VekListMatchFunc matchFunc,
                       VekListNode** prevOut) {
    VekListNode* prev = nullptr;
    for (VekListNode* node = _this->hdr; node; prev = node, node = node->next) {
        if (matchFunc(node, key)) {
            *prevOut = prev;
            return node;
        }
    }
    return nullptr;
}

ptrdiff_t dispose(void* node, VekListDelFunc delFunc) {
    return node && delFunc ? delFunc(node) : (ptrdiff_t)node;
}

// Shared by loopProc and rloopProc: the neighbour is read before the call,
// so the callback may unlink or free the node it is given.
vek_s32 list_loop(VekListNode* node, bool backwards, VekListProcFunc procFunc, vek_s32 stopOnNeg) {
    vek_s32 ret = 0;
    while (node) {
        VekListNode* next = backwards ? node->prev : node->next;
        ret = procFunc(node);
        if (stopOnNeg && ret < 0) {
            break;
        }
        node = next;
    }
    return stopOnNeg ? ret : 0;
}

/* ---- the list enumerator ---- */

constexpr vek_u32 kListEnumMark = 0x15ED92B3u;
const VekGuid kIidEnum = VEK_IID_IVEKENUM_INIT;

struct ListEnum {
    vek_u32 cls;
    AlAtom ref;
    const IVekEnumVtbl* vtbl;
    VekList* list;
    VekListNode* cursor;
};

void list_enum_delete(ListEnum* e) {
    vek_printf("ListEnum_delete() called\n");
    vek::obj_dispose(e);
}

using EnumCls = vek::ObjClass<ListEnum, IVekEnum, kListEnumMark, list_enum_delete, &kIidEnum, kSrc>;

ListEnum* list_enum_new(VekList* list, VekListNode* cursor);

vek_s32 le_release(IVekEnum* itf) {
    ListEnum* e = EnumCls::self(itf, __LINE__);
    vek_s32 ret = AlAtom_dec(&e->ref);
    if (ret == 0) {
        list_enum_delete(e);
    } else if (ret < 0) {
        VEK_ASSERT(ret == 0);
    }
    return ret;
}

vek_s32 le_next(IVekEnum* itf, void** out) {
    ListEnum* e = EnumCls::self(itf, __LINE__);
    if (!out) {
        VEK_ASSERT(out);
        return 0;
    }
    *out = e->cursor;
    if (!e->cursor) {
        return 0;
    }
    e->cursor = e->cursor->next;
    return 1;
}

vek_s32 le_reset(IVekEnum* itf) {
    ListEnum* e = EnumCls::self(itf, __LINE__);
    e->cursor = e->list->hdr;
    return 0;
}

vek_s32 le_clone(IVekEnum* itf, IVekEnum** out) {
    ListEnum* e = EnumCls::self(itf, __LINE__);
    if (!out) {
        VEK_ASSERT(out);
        return VEK_ERR_BAD_ARG;
    }
    ListEnum* c = list_enum_new(e->list, e->cursor);
    *out = c ? EnumCls::itf(c) : nullptr;
    if (!c) {
        return VEK_ERR_FULL;
    }
    vek::obj_add_ref(*out);
    return 0;
}

const IVekEnumVtbl kListEnumVtbl = {
    EnumCls::queryItf, EnumCls::addRef, le_release, le_next, le_reset, le_clone,
};

// A new enumerator with count 0.
ListEnum* list_enum_new(VekList* list, VekListNode* cursor) {
    ListEnum* e = (ListEnum*)vek::obj_storage(nullptr, sizeof(ListEnum), kListEnumMark);
    if (e) {
        e->vtbl = &kListEnumVtbl;
        e->list = list;
        e->cursor = cursor;
    }
    return e;
}

} // namespace

extern "C" {

VEK_API VekList* VekList_init(VekList* _this, vek_u32 type) {
    if (!_this) {
        VEK_ASSERT(_this);
        return nullptr;
    }
    shape_changed(_this);
    _this->hdr = _this->tail = nullptr;
    _this->len = 0;
    VEK_ASSERT(type == LIST_ONE_WAY || type == LIST_TWO_WAY);
    _this->type = type;
    return _this;
}

VEK_API VekList* VekList_addHdr__(VekList* _this, void* node_) {
    VekListNode* node = (VekListNode*)node_;
    if (!(_this && node)) {
        VEK_ASSERT(_this && node);
        return _this;
    }
    shape_changed(_this);
    if (list_empty(_this)) {
        _this->tail = node;
    } else if (two_way(_this)) {
        _this->hdr->prev = node;
    }
    node->next = _this->hdr;
    node->prev = nullptr;
    node->list = _this;
    _this->hdr = node;
    _this->len++;
    return _this;
}

VEK_API VekList* VekList_addTail__(VekList* _this, void* node_) {
    VekListNode* node = (VekListNode*)node_;
    if (!(_this && node)) {
        VEK_ASSERT(_this && node);
        return _this;
    }
    shape_changed(_this);
    node->next = nullptr;
    node->prev = two_way(_this) ? _this->tail : nullptr;
    node->list = _this;
    if (_this->tail) {
        _this->tail->next = node;
    } else {
        VEK_ASSERT(!_this->hdr && _this->len == 0);
        _this->hdr = node;
    }
    _this->tail = node;
    _this->len++;
    return _this;
}

VEK_API vek_s32 VekList_addAnyNext__(VekList* _this, void* node_, void* ref_) {
    VekListNode* node = (VekListNode*)node_;
    VekListNode* ref_node = (VekListNode*)ref_;
    if (!ref_in_list(_this, node, ref_node)) {
        return 0;
    }
    if (ref_node == _this->tail) {
        VekList_addTail__(_this, node);
    } else {
        list_link_after(_this, node, ref_node);
    }
    return 1;
}

VEK_API vek_s32 VekList_addAnyLast__(VekList* _this, void* node_, void* ref_) {
    VekListNode* node = (VekListNode*)node_;
    VekListNode* ref_node = (VekListNode*)ref_;
    if (!ref_in_list(_this, node, ref_node)) {
        return 0;
    }
    if (ref_node == _this->hdr) {
        VekList_addHdr__(_this, node);
        return 1;
    }
    VekListNode* prev = list_prev(_this, ref_node);
    if (!prev) {
        VEK_ASSERT(prev);  // a node of this list that the chain does not reach
        return 0;
    }
    list_link_after(_this, node, prev);
    return 1;
}

VEK_API void* VekList_getHdr(VekList* _this) {
    if (!_this) {
        VEK_ASSERT(_this);
        return nullptr;
    }
    if (list_empty(_this)) {
        return nullptr;
    }
    VekListNode* first = _this->hdr;
    list_unlink(_this, first, nullptr);
    return first;
}

VEK_API void* VekList_getTail(VekList* _this) {
    if (!_this) {
        VEK_ASSERT(_this);
        return nullptr;
    }
    if (list_empty(_this)) {
        return nullptr;
    }
    VekListNode* last = _this->tail;
    VekListNode* node = nullptr;  // the new tail
    if (last != _this->hdr) {
        node = list_prev(_this, last);
        if (!node) {
            VEK_ASSERT(node);
            return nullptr;
        }
    }
    list_unlink(_this, last, node);
    return last;
}

VEK_API void* VekList_getAny__(VekList* _this, void* node_) {
    VekListNode* node = (VekListNode*)node_;
    if (!(_this && node)) {
        VEK_ASSERT(_this && node);
        return nullptr;
    }
    VekListNode* prev = nullptr;
    for (VekListNode* p = _this->hdr; p; prev = p, p = p->next) {
        if (p == node) {
            list_unlink(_this, node, prev);
            return node;
        }
    }
    return nullptr;
}

VEK_API ptrdiff_t VekList_delHdr(VekList* _this, VekListDelFunc delFunc) {
    return dispose(VekList_getHdr(_this), delFunc);
}

VEK_API ptrdiff_t VekList_delTail(VekList* _this, VekListDelFunc delFunc) {
    return dispose(VekList_getTail(_this), delFunc);
}

VEK_API ptrdiff_t VekList_delAny__(VekList* _this, void* node, VekListDelFunc delFunc) {
    return dispose(VekList_getAny__(_this, node), delFunc);
}

VEK_API vek_s32 VekList_delAll(VekList* _this, VekListDelFunc delFunc) {
    while (void* node = VekList_getHdr(_this)) {
        dispose(node, delFunc);
    }
    return 0;
}

VEK_API void* VekList_findOnly(VekList* _this, const void* key, VekListMatchFunc matchFunc) {
    if (!matchFunc || !_this) {
        VEK_ASSERT(matchFunc);
        VEK_ASSERT(_this);
        return nullptr;
    }
    VekListNode* prev;
    return list_find(_this, key, matchFunc, &prev);
}

VEK_API void* VekList_findOut(VekList* _this, const void* key, VekListMatchFunc matchFunc) {
    if (!matchFunc || !_this) {
        VEK_ASSERT(matchFunc);
        VEK_ASSERT(_this);
        return nullptr;
    }
    if (list_empty(_this)) {
        return nullptr;
    }
    VekListNode* prev = nullptr;
    VekListNode* node = list_find(_this, key, matchFunc, &prev);
    if (node) {
        list_unlink(_this, node, prev);
    }
    return node;
}

VEK_API vek_s32 VekList_findDel(VekList* _this, const void* key, VekListMatchFunc matchFunc,
                                VekListDelFunc delFunc) {
    void* node = VekList_findOut(_this, key, matchFunc);
    dispose(node, delFunc);
    return node ? 1 : 0;
}

VEK_API vek_s32 VekList_loopProc(VekList* _this, VekListProcFunc procFunc, vek_s32 stopOnNeg) {
    if (!procFunc || !_this) {
        VEK_ASSERT(procFunc);
        VEK_ASSERT(_this);
        return 0;
    }
    return list_loop(_this->hdr, false, procFunc, stopOnNeg);
}

VEK_API vek_s32 VekList_rloopProc(VekList* _this, VekListProcFunc procFunc, vek_s32 stopOnNeg) {
    if (!procFunc || !_this) {
        VEK_ASSERT(procFunc);
        VEK_ASSERT(_this);
        return 0;
    }
    return list_loop(_this->tail, true, procFunc, stopOnNeg);
}

// The enumerator starts with count 0 and gets its one reference from the
// interface query, as every caller of an interface would.
VEK_API IVekEnum* VekList_enums(VekList* _this) {
    if (!_this) {
        vek_assert__("__list", kSrc, __LINE__);
        return nullptr;
    }
    ListEnum* e = list_enum_new(_this, _this->hdr);
    if (!e) {
        return nullptr;
    }
    void* out = nullptr;
    vek_s32 ret = EnumCls::queryItf(EnumCls::itf(e), &kIidEnum, &out);
    VEK_ASSERT(ret == 0);
    return (IVekEnum*)out;
}

/* ---- SmpList ---- */

VEK_API SmpList* SmpList_init(SmpList* list) {
    if (list) {
        std::memset(list, 0, sizeof *list);
    }
    return list;
}

VEK_API void SmpList_addHdr(SmpList* list, void* node_) {
    SmpListNode* node = (SmpListNode*)node_;
    if (!(list && node)) {
        VEK_ASSERT(list && node);
        return;
    }
    node->next = list->hdr;
    list->hdr = node;
    if (!list->tail) {
        list->tail = node;
    }
    list->len++;
}

VEK_API void SmpList_addTail(SmpList* list, void* node_) {
    SmpListNode* node = (SmpListNode*)node_;
    if (!(list && node)) {
        VEK_ASSERT(list && node);
        return;
    }
    node->next = nullptr;
    if (list->tail) {
        list->tail->next = node;
    } else {
        VEK_ASSERT(!list->hdr && list->len == 0);
        list->hdr = node;
    }
    list->tail = node;
    list->len++;
}

VEK_API void SmpList_delete(void* first, SmpListDelFunc delFunc) {
    SmpListNode* node = (SmpListNode*)first;
    while (node) {
        SmpListNode* next = node->next;
        node->next = nullptr;
        if (delFunc) {
            delFunc(node);
        }
        node = next;
    }
}

VEK_API void* SmpList_clone(void* first, SmpListCloneFunc cloneFunc) {
    if (!cloneFunc) {
        vek_assert__("__clone", kSrc, __LINE__);
        return nullptr;
    }
    SmpListNode* head = nullptr;
    SmpListNode* last = nullptr;
    for (SmpListNode* node = (SmpListNode*)first; node; node = node->next) {
        SmpListNode* copy = (SmpListNode*)cloneFunc(node);
        if (!copy) {
            continue;
        }
        copy->next = nullptr;
        (last ? last->next : head) = copy;
        last = copy;
    }
    return head;
}

VEK_API vek_s32 SmpList_exec(void* first, SmpListExecFunc func) {
    if (!func) {
        vek_assert__("__exec", kSrc, __LINE__);
        return 0;
    }
    vek_s32 ret = 0;
    SmpListNode* node = (SmpListNode*)first;
    while (node) {
        SmpListNode* next = node->next;
        ret = func(node);
        node = next;
    }
    return ret;
}

VEK_API void* SmpList_merge(void* first, void* other) {
    if (!(first && other)) {
        vek_assert__("__hdr && __list", kSrc, __LINE__);
    }
    SmpListNode* last = (SmpListNode*)first;
    if (!last) {
        return nullptr;
    }
    while (last->next) {
        last = last->next;
    }
    last->next = (SmpListNode*)other;
    return last;
}

VEK_API vek_s32 SmpList_size(void* first) {
    vek_s32 n = 0;
    for (SmpListNode* node = (SmpListNode*)first; node; node = node->next) {
        n++;
    }
    return n;
}

} // extern "C"
