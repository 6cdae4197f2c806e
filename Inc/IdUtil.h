/*
 * IdUtil.h - small linear tables for a few dozen entries: IntDict (integer
 * key to integer value, enumerated by IntDictEnum), IntMap (identifiers from
 * 1 for stored 32-bit values) and StrMap (identifiers from 0 for fixed-width
 * strings).
 *
 * Nothing hashes: every lookup scans the slots from the lowest index and the
 * first hit wins, so with duplicate keys the lowest slot answers and
 * deletion by key removes only that entry; insertion takes the first free
 * slot. Only StrMap grows (doubling, when an add or a set needs room).
 * Absent entries read as 0 or null. No locking: the owner serialises access.
 *
 * Result codes: VEK_ERR_FULL (-201) table full, identifier beyond a table
 * that cannot hold it, or growth failed; VEK_ERR_NO_FREE_SLOT (-51) no free
 * slot found; VEK_ERR_NOT_FOUND (-25) not found, or nothing stored at an
 * identifier; VEK_ERR_NO_EMPTY_SLOT (-36) no empty slot.
 *
 * IntDict and IntDictEnum carry a tag word checked by every operation (low
 * 31 bits); a foreign record ends the process through ObjUtil_crashExit.
 */
#ifndef VEK_IDUTIL_H
#define VEK_IDUTIL_H

#include "VekType.h"

VEK_BEGIN_DECLS

#define INTDICT_TAG     0x1D2E0B7Cu  /* | 0x80000000 when IntDict_new allocated it */
#define INTDICTENUM_TAG 0x591CB70Eu  /* | 0x80000000 when IntDictEnum_new allocated it */
#define INTDICT_USED    0x1u         /* entry flags: in use */

typedef struct IntDictEntry {
    vek_u32 flags;  /* INTDICT_USED when in use */
    vek_u32 key;
    vek_u32 value;
} IntDictEntry;

typedef struct IntDict {
    vek_u32 tag;
    IntDictEntry* slots;
    vek_s32 slotNum;  /* entries, fixed at creation */
    vek_s32 count;    /* entries in use */
} IntDict;

typedef struct IntDictEnum {
    vek_u32 tag;
    IntDict* dict;
    vek_s32 cursor;   /* next entry to look at */
} IntDictEnum;

/* Slot 0 is never used: identifiers run from 1 to slotNum - 1. An empty
 * slot holds 0, and count is one more than the number of stored values. */
typedef struct IntMap {
    vek_u32* slots;
    vek_s32 slotNum;
    vek_s32 count;
} IntMap;

/* slotNum slots of width bytes each (terminator included); a slot whose
 * first byte is 0 is free; identifiers are slot indices from 0; count is
 * the number of slots in use. */
typedef struct StrMap {
    char* buf;
    vek_s32 width;
    vek_s32 slotNum;
    vek_s32 count;
} StrMap;

/* ---- IntDict ---- */

/* A dictionary of slotNum entries (assertion "slotNum >= 1"; 1 is used
 * then) in dict, or in a new record when dict is null. Returns the
 * dictionary; null when dict is null and memory runs out (a dictionary
 * whose entries could not be allocated has none). */
VEK_API IntDict* IntDict_new(IntDict* dict, vek_s32 slotNum);
/* Frees the entries and, when IntDict_new allocated it, the record. */
VEK_API void IntDict_delete(IntDict* dict);
/* Empties every entry. */
VEK_API void IntDict_clear(IntDict* dict);
/* Stores in the first entry not in use (duplicate keys are not looked
 * for): 0, or VEK_ERR_FULL when every entry is in use. */
VEK_API vek_s32 IntDict_add(IntDict* dict, vek_u32 key, vek_u32 value);
/* Clears the first in-use entry with key: its value, or 0 when none. */
VEK_API vek_u32 IntDict_del(IntDict* dict, vek_u32 key);
/* The value of the first in-use entry with key, or 0 (a stored 0 cannot be
 * told from absence). */
VEK_API vek_u32 IntDict_find(IntDict* dict, vek_u32 key);

/* An enumerator over dict's in-use entries in slot order, in en or in a new
 * record when en is null. The dictionary must outlive it. */
VEK_API IntDictEnum* IntDictEnum_new(IntDictEnum* en, IntDict* dict);
VEK_API void IntDictEnum_delete(IntDictEnum* en);
/* Back to the first entry. */
VEK_API void IntDictEnum_reset(IntDictEnum* en);
/* The next in-use entry: its key and value where the pointers are
 * non-null, and 1; 0 at the end (or for an empty dictionary). */
VEK_API vek_s32 IntDictEnum_next(IntDictEnum* en, vek_u32* key, vek_u32* value);

/* ---- IntMap ---- */

/* A map of slotNum zeroed slots, count 1; null when memory runs out. */
VEK_API IntMap* IntMap_new(vek_s32 slotNum);
/* Frees the slots and the record. */
VEK_API void IntMap_delete(IntMap* map);
/* Empty every slot (count back to 1); the two are the same. */
VEK_API void IntMap_clear(IntMap* map);
VEK_API void IntMap_reset(IntMap* map);
/* Stores *value in the first zero slot from 1 and reports its index
 * through id (when non-null): 0; VEK_ERR_FULL when count has reached
 * slotNum; VEK_ERR_NO_FREE_SLOT when no zero slot is found. count grows
 * only for a non-zero value. */
VEK_API vek_s32 IntMap_add(IntMap* map, const vek_u32* value, vek_s32* id);
/* IntMap_find, then IntMap_add when the value is not stored yet: 0 with the
 * identifier (existing or new) in id, or IntMap_add's error. */
VEK_API vek_s32 IntMap_uadd(IntMap* map, const vek_u32* value, vek_s32* id);
/* The slot of a stored value (id from 1 to slotNum - 1, slot non-zero), or
 * null. */
VEK_API vek_u32* IntMap_get(IntMap* map, vek_s32 id);
/* Stores value at id (1 to slotNum - 1): 0; count follows the slot's
 * change between empty and non-empty (setting 0 empties it). An id out of
 * range is VEK_ERR_FULL: the map cannot hold it. */
VEK_API vek_s32 IntMap_set(IntMap* map, vek_s32 id, vek_u32 value);
/* Empties a non-empty slot: 0; VEK_ERR_NOT_FOUND for an empty slot or an
 * id out of range. */
VEK_API vek_s32 IntMap_del(IntMap* map, vek_s32 id);
/* The first slot from 1 holding *value (the scan stops after count - 1
 * non-zero slots): 1 with its index in id (when non-null), or
 * VEK_ERR_NOT_FOUND. */
VEK_API vek_s32 IntMap_find(IntMap* map, const vek_u32* value, vek_s32* id);

/* ---- StrMap ---- */

/* A map of slotNum slots of width bytes (assertion
 * "width >= 1 && slotNum >= 1"; 1 is used for a smaller value); null when
 * memory runs out. */
VEK_API StrMap* StrMap_new(vek_s32 width, vek_s32 slotNum);
VEK_API void StrMap_delete(StrMap* map);
/* Frees every slot (count 0), keeping the storage. */
VEK_API void StrMap_clear(StrMap* map);
/* Stores str, cut to width - 1 bytes, in the first free slot, doubling the
 * storage first when count has reached slotNum; reports the index through
 * id (when non-null); count grows when the stored text is non-empty.
 * 0; VEK_ERR_FULL when the storage could not grow; VEK_ERR_NO_FREE_SLOT
 * when no free slot exists. */
VEK_API vek_s32 StrMap_add(StrMap* map, const char* str, vek_s32* id);
/* StrMap_find, then StrMap_add when the text is not stored yet: 0 with the
 * index (existing or new) in id, or StrMap_add's error. */
VEK_API vek_s32 StrMap_uadd(StrMap* map, const char* str, vek_s32* id);
/* The text of a slot in use, or null (free slot, id out of range). */
VEK_API char* StrMap_get(StrMap* map, vek_s32 id);
/* Stores str (cut to width - 1) at id, doubling the storage until id lies
 * inside it; count follows the slot's change between free and used (an
 * empty str frees the slot). 0; VEK_ERR_FULL for a negative id or when the
 * storage could not grow. */
VEK_API vek_s32 StrMap_set(StrMap* map, vek_s32 id, const char* str);
/* Frees a slot in use: 0; VEK_ERR_NOT_FOUND for a free slot or an id out
 * of range. */
VEK_API vek_s32 StrMap_del(StrMap* map, vek_s32 id);
/* The first slot in use whose text equals str (strcmp, case-sensitive;
 * the scan stops after count used slots): 1 with its index in id (when
 * non-null), or VEK_ERR_NOT_FOUND. */
VEK_API vek_s32 StrMap_find(StrMap* map, const char* str, vek_s32* id);
/* The index of the first free slot, or VEK_ERR_NO_EMPTY_SLOT (-36). */
VEK_API vek_s32 StrMap_findEmtpy(StrMap* map);

VEK_END_DECLS

#endif /* VEK_IDUTIL_H */
