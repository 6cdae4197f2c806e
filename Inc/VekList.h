/*
 * VekList.h - intrusive lists. Nothing here allocates a node: the caller's
 * records carry the links, and removed nodes are handed back (or to the
 * caller's delete function). Lists are not locked; the owner serialises
 * access.
 *
 * VekList: a record kept in a VekList starts with a VekListNode. The list is
 * one-way (LIST_ONE_WAY: prev is not kept) or two-way (LIST_TWO_WAY); the
 * same functions serve both. A node knows its list while it is in one, so
 * insertion next to a reference node refuses a node of another list; a
 * removed node has next, prev and list reset to null. Node arguments and
 * results are void* so that records pass without casts.
 *
 * Invariant checks (assertions, then the function carries on as well as it
 * can): an empty end needs the other end empty and len 0
 * ("!_this->hdr && _this->len == 0", "!_this->tail && _this->len == 0");
 * a set head needs a set tail and len above 0 ("_this->tail && _this->len > 0").
 *
 * SmpList: a lighter singly linked chain; most of its functions work on the
 * chain's first node alone.
 */
#ifndef VEK_LIST_H
#define VEK_LIST_H

#include "VekType.h"
#include "BaseItf.h"

VEK_BEGIN_DECLS

#define LIST_ONE_WAY 0
#define LIST_TWO_WAY 1
/* Bit of a list's type word set while an INI document's section index was
 * built from the list (IniFile.h): the list's link changes are reported to
 * that index alone, so lists without it pay nothing. The kind is type & 1. */
#define VEKLIST_WATCHED 0x80000000u

typedef struct VekList VekList;
typedef struct VekListNode {
    struct VekListNode* next;  /* following node or null */
    struct VekListNode* prev;  /* preceding node; kept only in a two-way list */
    VekList* list;             /* the list that holds the node, or null */
} VekListNode;

struct VekList {
    vek_u32 type;        /* LIST_ONE_WAY or LIST_TWO_WAY, | VEKLIST_WATCHED */
    VekListNode* hdr;    /* first node or null */
    VekListNode* tail;   /* last node or null */
    vek_s32 len;         /* number of nodes */
};

/* Callbacks: a match returns non-zero for a hit; a processing function
 * returns a signed result; a delete function disposes of a removed node
 * (frees it, typically) and returns a result passed on to the caller. */
typedef vek_s32 (*VekListMatchFunc)(void* node, const void* key);
typedef vek_s32 (*VekListProcFunc)(void* node);
typedef ptrdiff_t (*VekListDelFunc)(void* node);

/* Empties the head and sets its kind (assertion
 * "type == LIST_ONE_WAY || type == LIST_TWO_WAY"). Returns list. */
VEK_API VekList* VekList_init(VekList* list, vek_u32 type);
/* Insert at the front / the end (assertion "_this && node"). Return list. */
VEK_API VekList* VekList_addHdr__(VekList* list, void* node);
VEK_API VekList* VekList_addTail__(VekList* list, void* node);
/* Insert node behind / in front of refNode (assertion
 * "_this && node && ref_node"). 1, or 0 and nothing changed when refNode
 * is not in this list. In a one-way list addAnyLast__ walks from the front
 * to find refNode's predecessor. */
VEK_API vek_s32 VekList_addAnyNext__(VekList* list, void* node, void* refNode);
VEK_API vek_s32 VekList_addAnyLast__(VekList* list, void* node, void* refNode);
/* Unlink and return the first / the last node, null when empty. getTail on
 * a one-way list walks from the front (assertion "node" when the
 * predecessor of the tail is missing). */
VEK_API void* VekList_getHdr(VekList* list);
VEK_API void* VekList_getTail(VekList* list);
/* Unlinks node when this list holds it (found by identity); node or null. */
VEK_API void* VekList_getAny__(VekList* list, void* node);
/* get*, then delFunc(node) when both exist. delFunc's result, or without
 * delFunc the node (null when nothing was removed). */
VEK_API ptrdiff_t VekList_delHdr(VekList* list, VekListDelFunc delFunc);
VEK_API ptrdiff_t VekList_delTail(VekList* list, VekListDelFunc delFunc);
VEK_API ptrdiff_t VekList_delAny__(VekList* list, void* node, VekListDelFunc delFunc);
/* Removes every node from the front, each to delFunc when given. 0. */
VEK_API vek_s32 VekList_delAll(VekList* list, VekListDelFunc delFunc);
/* The first node from the front for which matchFunc(node, key) is
 * non-zero (assertion "matchFunc"); null when none. findOnly leaves it in
 * the list, findOut unlinks it. */
VEK_API void* VekList_findOnly(VekList* list, const void* key, VekListMatchFunc matchFunc);
VEK_API void* VekList_findOut(VekList* list, const void* key, VekListMatchFunc matchFunc);
/* findOut, then delFunc(node) when given. 1 when a node was found, else 0. */
VEK_API vek_s32 VekList_findDel(VekList* list, const void* key, VekListMatchFunc matchFunc,
                                VekListDelFunc delFunc);
/* Calls procFunc on every node from the front (rloopProc: from the end
 * through prev, which only a two-way list keeps); assertion "procFunc".
 * The node may be unlinked or freed by procFunc. With stopOnNeg non-zero the
 * walk stops at the first negative result and the result is the last
 * procFunc result; with stopOnNeg 0 (or an empty list) the result is 0. */
VEK_API vek_s32 VekList_loopProc(VekList* list, VekListProcFunc procFunc, vek_s32 stopOnNeg);
VEK_API vek_s32 VekList_rloopProc(VekList* list, VekListProcFunc procFunc, vek_s32 stopOnNeg);
/* An enumerator over the list's nodes (IVekEnum, BaseItf.h) with one
 * reference; null for a null list (assertion "__list"). The list must not
 * change while it is enumerated. Its release writes the trace line
 * "ListEnum_delete() called" when it frees the enumerator. */
VEK_API IVekEnum* VekList_enums(VekList* list);

/* ---- SmpList ----
 * A node's second word is its next pointer (the first belongs to the
 * record). The head is four words: the second is hdr, the third tail, the
 * fourth len. */
typedef struct SmpListNode {
    void* own;                 /* the record's own first word */
    struct SmpListNode* next;
} SmpListNode;

typedef struct SmpList {
    void* rsv;                 /* reserved, zero */
    SmpListNode* hdr;
    SmpListNode* tail;
    vek_s32 len;
} SmpList;

typedef vek_s32 (*SmpListExecFunc)(void* node);
typedef void* (*SmpListCloneFunc)(void* node);
typedef void (*SmpListDelFunc)(void* node);

/* Zeroes the head. Returns list. */
VEK_API SmpList* SmpList_init(SmpList* list);
/* Insert at the front / the end (assertion "list && node"; addTail also
 * asserts "!list->hdr && list->len == 0" when it finds no tail). */
VEK_API void SmpList_addHdr(SmpList* list, void* node);
VEK_API void SmpList_addTail(SmpList* list, void* node);
/* Walks the chain from first, resetting each node's next and passing the
 * node to delFunc when given. */
VEK_API void SmpList_delete(void* first, SmpListDelFunc delFunc);
/* A new chain of cloneFunc(node) results in the same order (assertion
 * "__clone"; null results are left out); its first node. */
VEK_API void* SmpList_clone(void* first, SmpListCloneFunc cloneFunc);
/* Calls func on every node (assertion "__exec"); the last result, 0 for an
 * empty chain. func may free the node it is given. */
VEK_API vek_s32 SmpList_exec(void* first, SmpListExecFunc func);
/* Links chain other behind the last node of chain first (assertion
 * "__hdr && __list"); returns that last node. */
VEK_API void* SmpList_merge(void* first, void* other);
/* Number of nodes in the chain. */
VEK_API vek_s32 SmpList_size(void* first);

VEK_END_DECLS

#endif /* VEK_LIST_H */
