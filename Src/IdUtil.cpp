/*
 * IdUtil.cpp - IntDict, IntMap and StrMap: linear tables that hand out
 * small identifiers. Tables this small are scanned faster than they could
 * be hashed, and slot order makes "first hit wins" easy to reason about.
 */
#include <cstring>
#include "IdUtil.h"
#include "StrUtil.h"
#include "TagRec.h"

namespace {

const char kSrc[] = __FILE__;

IntDict* dict_of(IntDict* d, vek_s32 line) {
    return vek::tag_check(d, INTDICT_TAG, kSrc, line);
}

IntDictEnum* enum_of(IntDictEnum* e, vek_s32 line) {
    return vek::tag_check(e, INTDICTENUM_TAG, kSrc, line);
}

// The first in-use entry with key, or -1.
vek_s32 dict_index(const IntDict* d, vek_u32 key) {
    for (vek_s32 i = 0; i < d->slotNum; i++) {
        if ((d->slots[i].flags & INTDICT_USED) && d->slots[i].key == key) {
            return i;
        }
    }
    return -1;
}

vek_s32 at_least_one(vek_s32 n, const char* expr, vek_s32 line) {
    if (n < 1) {
        vek_assert__(expr, kSrc, line);
        return 1;
    }
    return n;
}

// A map record and its table of bytes bytes: both, or neither (null).
template <class M, class T>
M* map_alloc(size_t bytes, T** table) {
    M* m = (M*)vek_malloc__(sizeof(M));
    T* t = (T*)vek_malloc__(bytes);
    if (!m || !t) {
        vek_free__(m);
        vek_free__(t);
        return nullptr;
    }
    *table = t;
    return m;
}

char* slot_of(const StrMap* m, vek_s32 id) {
    return m->buf + (size_t)id * (size_t)m->width;
}

// Doubles the storage until it holds slot id: false when memory runs out
// (the map is then unchanged).
bool strmap_grow(StrMap* m, vek_s32 id) {
    vek_s32 num = m->slotNum;
    while (num <= id) {
        if (num > 0x3FFFFFFF / m->width) {
            return false;
        }
        num *= 2;
    }
    if (num == m->slotNum) {
        return true;
    }
    size_t bytes = (size_t)num * (size_t)m->width;
    char* buf = (char*)vek_malloc__(bytes);
    if (!buf) {
        return false;
    }
    size_t old = (size_t)m->slotNum * (size_t)m->width;
    std::memcpy(buf, m->buf, old);
    std::memset(buf + old, 0, bytes - old);
    vek_free__(m->buf);
    m->buf = buf;
    m->slotNum = num;
    return true;
}

// Writes str (cut to fit) into slot id and keeps count in step with the
// slot changing between free and used.
void strmap_store(StrMap* m, vek_s32 id, const char* str) {
    char* slot = slot_of(m, id);
    bool was = slot[0] != 0;
    vek_strxfrm(slot, str ? str : "", m->width);
    m->count += (slot[0] != 0) - was;
}

} // namespace

extern "C" {

/* ---- IntDict ---- */

VEK_API IntDict* IntDict_new(IntDict* dict, vek_s32 slotNum) {
    slotNum = at_least_one(slotNum, "slotNum >= 1", __LINE__);
    IntDict* d = vek::tag_storage(dict, INTDICT_TAG);
    if (!d) {
        return nullptr;
    }
    d->slots = (IntDictEntry*)vek_malloc__(sizeof(IntDictEntry) * (size_t)slotNum);
    if (d->slots) {
        std::memset(d->slots, 0, sizeof(IntDictEntry) * (size_t)slotNum);
        d->slotNum = slotNum;
    }
    return d;
}

VEK_API void IntDict_delete(IntDict* dict) {
    IntDict* d = dict_of(dict, __LINE__);
    vek_free__(d->slots);
    d->slots = nullptr;
    vek::obj_dispose(d);
}

VEK_API void IntDict_clear(IntDict* dict) {
    IntDict* d = dict_of(dict, __LINE__);
    if (d->slotNum > 0) {
        std::memset(d->slots, 0, sizeof(IntDictEntry) * (size_t)d->slotNum);
    }
    d->count = 0;
}

VEK_API vek_s32 IntDict_add(IntDict* dict, vek_u32 key, vek_u32 value) {
    IntDict* d = dict_of(dict, __LINE__);
    for (vek_s32 i = 0; i < d->slotNum; i++) {
        IntDictEntry* e = &d->slots[i];
        if (!(e->flags & INTDICT_USED)) {
            e->flags = INTDICT_USED;
            e->key = key;
            e->value = value;
            d->count++;
            return 0;
        }
    }
    return VEK_ERR_FULL;
}

VEK_API vek_u32 IntDict_del(IntDict* dict, vek_u32 key) {
    IntDict* d = dict_of(dict, __LINE__);
    vek_s32 i = dict_index(d, key);
    if (i < 0) {
        return 0;
    }
    vek_u32 v = d->slots[i].value;
    d->slots[i] = IntDictEntry{};
    d->count--;
    return v;
}

VEK_API vek_u32 IntDict_find(IntDict* dict, vek_u32 key) {
    IntDict* d = dict_of(dict, __LINE__);
    vek_s32 i = dict_index(d, key);
    return i < 0 ? 0 : d->slots[i].value;
}

VEK_API IntDictEnum* IntDictEnum_new(IntDictEnum* en, IntDict* dict) {
    IntDict* d = dict_of(dict, __LINE__);
    IntDictEnum* e = vek::tag_storage(en, INTDICTENUM_TAG);
    if (e) {
        e->dict = d;
    }
    return e;
}

VEK_API void IntDictEnum_delete(IntDictEnum* en) {
    vek::obj_dispose(enum_of(en, __LINE__));
}

VEK_API void IntDictEnum_reset(IntDictEnum* en) {
    enum_of(en, __LINE__)->cursor = 0;
}

VEK_API vek_s32 IntDictEnum_next(IntDictEnum* en, vek_u32* key, vek_u32* value) {
    IntDictEnum* e = enum_of(en, __LINE__);
    IntDict* d = dict_of(e->dict, __LINE__);
    for (vek_s32 i = e->cursor; i < d->slotNum; i++) {
        if (d->slots[i].flags & INTDICT_USED) {
            if (key) {
                *key = d->slots[i].key;
            }
            if (value) {
                *value = d->slots[i].value;
            }
            e->cursor = i + 1;
            return 1;
        }
    }
    e->cursor = d->slotNum;
    return 0;
}

/* ---- IntMap ---- */

VEK_API IntMap* IntMap_new(vek_s32 slotNum) {
    slotNum = at_least_one(slotNum, "slotNum >= 1", __LINE__);
    vek_u32* slots;
    IntMap* m = map_alloc<IntMap>(sizeof(vek_u32) * (size_t)slotNum, &slots);
    if (!m) {
        return nullptr;
    }
    m->slots = slots;
    m->slotNum = slotNum;
    IntMap_clear(m);
    return m;
}

VEK_API void IntMap_delete(IntMap* map) {
    vek_free__(map->slots);
    vek_free__(map);
}

VEK_API void IntMap_clear(IntMap* map) {
    std::memset(map->slots, 0, sizeof(vek_u32) * (size_t)map->slotNum);
    map->count = 1;
}

VEK_API void IntMap_reset(IntMap* map) {
    IntMap_clear(map);
}

VEK_API vek_s32 IntMap_add(IntMap* map, const vek_u32* value, vek_s32* id) {
    if (map->count >= map->slotNum) {
        return VEK_ERR_FULL;
    }
    for (vek_s32 i = 1; i < map->slotNum; i++) {
        if (map->slots[i] == 0) {
            map->slots[i] = *value;
            if (*value) {
                map->count++;
            }
            if (id) {
                *id = i;
            }
            return 0;
        }
    }
    return VEK_ERR_NO_FREE_SLOT;
}

VEK_API vek_s32 IntMap_uadd(IntMap* map, const vek_u32* value, vek_s32* id) {
    return IntMap_find(map, value, id) == 1 ? 0 : IntMap_add(map, value, id);
}

VEK_API vek_u32* IntMap_get(IntMap* map, vek_s32 id) {
    if (id < 1 || id >= map->slotNum || map->slots[id] == 0) {
        return nullptr;
    }
    return &map->slots[id];
}

VEK_API vek_s32 IntMap_set(IntMap* map, vek_s32 id, vek_u32 value) {
    if (id < 1 || id >= map->slotNum) {
        return VEK_ERR_FULL;
    }
    map->count += (value != 0) - (map->slots[id] != 0);
    map->slots[id] = value;
    return 0;
}

VEK_API vek_s32 IntMap_del(IntMap* map, vek_s32 id) {
    if (!IntMap_get(map, id)) {
        return VEK_ERR_NOT_FOUND;
    }
    map->slots[id] = 0;
    map->count--;
    return 0;
}

VEK_API vek_s32 IntMap_find(IntMap* map, const vek_u32* value, vek_s32* id) {
    vek_s32 seen = 0;
    for (vek_s32 i = 1; i < map->slotNum && seen < map->count - 1; i++) {
        if (map->slots[i] == 0) {
            continue;
        }
        if (map->slots[i] == *value) {
            if (id) {
                *id = i;
            }
            return 1;
        }
        seen++;
    }
    return VEK_ERR_NOT_FOUND;
}

/* ---- StrMap ---- */

VEK_API StrMap* StrMap_new(vek_s32 width, vek_s32 slotNum) {
    if (width < 1 || slotNum < 1) {
        VEK_ASSERT(width >= 1 && slotNum >= 1);
        width = width < 1 ? 1 : width;
        slotNum = slotNum < 1 ? 1 : slotNum;
    }
    char* buf;
    StrMap* m = map_alloc<StrMap>((size_t)width * (size_t)slotNum, &buf);
    if (!m) {
        return nullptr;
    }
    m->buf = buf;
    m->width = width;
    m->slotNum = slotNum;
    StrMap_clear(m);
    return m;
}

VEK_API void StrMap_delete(StrMap* map) {
    vek_free__(map->buf);
    vek_free__(map);
}

VEK_API void StrMap_clear(StrMap* map) {
    std::memset(map->buf, 0, (size_t)map->width * (size_t)map->slotNum);
    map->count = 0;
}

VEK_API vek_s32 StrMap_add(StrMap* map, const char* str, vek_s32* id) {
    if (map->count >= map->slotNum && !strmap_grow(map, map->slotNum)) {
        return VEK_ERR_FULL;
    }
    vek_s32 i = StrMap_findEmtpy(map);
    if (i < 0) {
        return VEK_ERR_NO_FREE_SLOT;
    }
    strmap_store(map, i, str);
    if (id) {
        *id = i;
    }
    return 0;
}

VEK_API vek_s32 StrMap_uadd(StrMap* map, const char* str, vek_s32* id) {
    return StrMap_find(map, str, id) == 1 ? 0 : StrMap_add(map, str, id);
}

VEK_API char* StrMap_get(StrMap* map, vek_s32 id) {
    if (id < 0 || id >= map->slotNum) {
        return nullptr;
    }
    char* slot = slot_of(map, id);
    return slot[0] ? slot : nullptr;
}

VEK_API vek_s32 StrMap_set(StrMap* map, vek_s32 id, const char* str) {
    if (id < 0 || !strmap_grow(map, id)) {
        return VEK_ERR_FULL;
    }
    strmap_store(map, id, str);
    return 0;
}

VEK_API vek_s32 StrMap_del(StrMap* map, vek_s32 id) {
    if (!StrMap_get(map, id)) {
        return VEK_ERR_NOT_FOUND;
    }
    slot_of(map, id)[0] = 0;
    map->count--;
    return 0;
}

VEK_API vek_s32 StrMap_find(StrMap* map, const char* str, vek_s32* id) {
    vek_s32 seen = 0;
    for (vek_s32 i = 0; i < map->slotNum && seen < map->count && str; i++) {
        const char* slot = slot_of(map, i);
        if (!slot[0]) {
            continue;
        }
        if (std::strcmp(slot, str) == 0) {
            if (id) {
                *id = i;
            }
            return 1;
        }
        seen++;
    }
    return VEK_ERR_NOT_FOUND;
}

VEK_API vek_s32 StrMap_findEmtpy(StrMap* map) {
    for (vek_s32 i = 0; i < map->slotNum; i++) {
        if (!slot_of(map, i)[0]) {
            return i;
        }
    }
    return VEK_ERR_NO_EMPTY_SLOT;
}

} // extern "C"
