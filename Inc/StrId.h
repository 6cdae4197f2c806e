/*
 * StrId.h - string-identifier tables: StrId for UTF-8 texts and WcsId for
 * UTF-16 texts. A table gives each distinct text a small positive
 * identifier and answers both ways - text to identifier and identifier to
 * text - in constant time on average, so callers keep and compare integers
 * where they would keep and compare names (command names, field names,
 * interned keys).
 *
 * Identifiers start at 1 (0 is never one, so a caller's record can use it
 * for "none"). An identifier stays bound to its text until that text is
 * deleted or the table cleared; the table growing never changes it. An
 * identifier freed by a delete is handed out again by a later add (the most
 * recently freed first), so identifiers stay dense. Texts are compared as
 * bytes (StrId) or 16-bit units (WcsId); a table made with
 * STRID_NO_CASE compares and hashes ASCII letters without regard to case
 * ("Host" finds "HOST") and keeps the spelling of the first add. A text may
 * hold any bytes or units, a zero among them, when its length is given.
 *
 * Each text lives in one node (PstrNode / PwcsNode) from the tracked heap
 * with its identifier, length and hash; the text is kept terminated. Node
 * pointers stay valid until their text is deleted.
 *
 * Results: an identifier (>= 1), 0 or a count on success; VEK_ERR_NOT_FOUND
 * (-25) for an unknown text or identifier; VEK_ERR_NAME_EXISTS (-111) when
 * StrId_addx finds the text or the identifier bound otherwise;
 * VEK_ERR_FULL (-201) when memory runs out (the table is then unchanged);
 * VEK_ERR_BAD_ARG (-81) for an identifier below 1 in StrId_addx or a text
 * longer than 0x3FFFFFFF. A null text with a length other than 0 is the
 * assertion "str || len == 0", then VEK_ERR_BAD_ARG. Tables are not
 * synchronised: the owner serialises access.
 *
 * The records carry a tag word checked by every call (low 31 bits); a
 * foreign record ends the process through ObjUtil_crashExit.
 */
#ifndef VEK_STRID_H
#define VEK_STRID_H

#include "VekType.h"

VEK_BEGIN_DECLS

#define STRID_TAG   0x5A17D3E1u  /* | 0x80000000 when StrId_new allocated it */
#define WCSID_TAG   0x3C8E41B5u  /* | 0x80000000 when WcsId_new allocated it */
#define STRID_NO_CASE 0x1        /* flags: ASCII letters compare without case */

typedef struct PstrNode {
    vek_u32 hash;      /* of the text (case-folded in a STRID_NO_CASE table) */
    vek_s32 id;
    vek_s32 len;       /* bytes, terminator not counted */
    char str[1];       /* the text and a terminator (the node is as long as it needs) */
} PstrNode;

typedef struct PwcsNode {
    vek_u32 hash;
    vek_s32 id;
    vek_s32 len;       /* units, terminator not counted */
    vek_wchar str[1];
} PwcsNode;

/* The lookup slots hash to identifiers; byId maps identifiers to nodes,
 * its free entries chained through the identifiers they hold. */
typedef struct StrIdSlot {
    vek_u32 hash;
    vek_s32 id;        /* 0 when free */
} StrIdSlot;

typedef struct StrId {
    vek_u32 tag;
    vek_s32 flags;     /* STRID_NO_CASE */
    StrIdSlot* slots;  /* a power of two of them, at most 3/4 in use */
    vek_u32 mask;      /* slots - 1, 0 while there are none */
    vek_s32 count;     /* texts held */
    void** byId;       /* byId[id]: the node, or a free-list link */
    vek_s32 idCap;     /* entries of byId (entry 0 is unused) */
    vek_s32 idTop;     /* highest identifier handed out so far */
    vek_s32 freeId;    /* first freed identifier to hand out again, 0 none */
} StrId;

/* The same record for UTF-16 texts (its own type, so the two are not mixed
 * up; nodes are PwcsNode). */
typedef struct WcsId {
    vek_u32 tag;
    vek_s32 flags;
    StrIdSlot* slots;
    vek_u32 mask;
    vek_s32 count;
    void** byId;
    vek_s32 idCap;
    vek_s32 idTop;
    vek_s32 freeId;
} WcsId;

/* ---- StrId: UTF-8 (any bytes) ---- */

/* An empty table in mem, or in a new record when mem is null (null when
 * that allocation fails). flags: 0 or STRID_NO_CASE. Nothing else is
 * allocated before the first add. */
VEK_API StrId* StrId_new(StrId* mem, vek_s32 flags);
/* Frees every node and the slots, then the record when StrId_new
 * allocated it. */
VEK_API void StrId_delete(StrId* tab);
/* Frees every node: the table is empty and identifiers start again at 1. */
VEK_API void StrId_clear(StrId* tab);
/* The identifier of len bytes of str (negative: up to the terminator),
 * adding the text with a new identifier when it is not held yet. */
VEK_API vek_s32 StrId_add(StrId* tab, const char* str, vek_s32 len);
/* Binds the text to the given identifier: id; the same when the text is
 * bound to it already; VEK_ERR_NAME_EXISTS when the text is bound to
 * another identifier or id to another text. An identifier above those
 * handed out so far makes the ones in between free for StrId_add. */
VEK_API vek_s32 StrId_addx(StrId* tab, const char* str, vek_s32 len, vek_s32 id);
/* The identifier of the text, or VEK_ERR_NOT_FOUND. */
VEK_API vek_s32 StrId_find(const StrId* tab, const char* str, vek_s32 len);
/* The node of the text, or null. */
VEK_API const PstrNode* StrId_findNode(const StrId* tab, const char* str, vek_s32 len);
/* The text of an identifier (terminated), or null. */
VEK_API const char* StrId_str(const StrId* tab, vek_s32 id);
/* The node of an identifier, or null. */
VEK_API const PstrNode* StrId_node(const StrId* tab, vek_s32 id);
/* Deletes the text of an identifier: 0, or VEK_ERR_NOT_FOUND. */
VEK_API vek_s32 StrId_del(StrId* tab, vek_s32 id);
/* The number of texts held. */
VEK_API vek_s32 StrId_count(const StrId* tab);
/* The lowest identifier in use above id (start with 0), or 0 after the
 * last: for (id = StrId_next(t, 0); id; id = StrId_next(t, id)) ... */
VEK_API vek_s32 StrId_next(const StrId* tab, vek_s32 id);

/* ---- WcsId: UTF-16 (any units) ---- */

/* The same calls for UTF-16 texts, with lengths in 16-bit units. */
VEK_API WcsId* WcsId_new(WcsId* mem, vek_s32 flags);
VEK_API void WcsId_delete(WcsId* tab);
VEK_API void WcsId_clear(WcsId* tab);
VEK_API vek_s32 WcsId_add(WcsId* tab, const vek_wchar* str, vek_s32 len);
VEK_API vek_s32 WcsId_addx(WcsId* tab, const vek_wchar* str, vek_s32 len, vek_s32 id);
VEK_API vek_s32 WcsId_find(const WcsId* tab, const vek_wchar* str, vek_s32 len);
VEK_API const PwcsNode* WcsId_findNode(const WcsId* tab, const vek_wchar* str, vek_s32 len);
VEK_API const vek_wchar* WcsId_str(const WcsId* tab, vek_s32 id);
VEK_API const PwcsNode* WcsId_node(const WcsId* tab, vek_s32 id);
VEK_API vek_s32 WcsId_del(WcsId* tab, vek_s32 id);
VEK_API vek_s32 WcsId_count(const WcsId* tab);
VEK_API vek_s32 WcsId_next(const WcsId* tab, vek_s32 id);

VEK_END_DECLS

#endif /* VEK_STRID_H */
