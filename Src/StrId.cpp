/*
 * StrId.cpp - string-identifier tables, one implementation for StrId
 * (bytes) and WcsId (16-bit units).
 *
 * Two arrays serve the two directions:
 *
 *   slots   open addressing with linear probing: {hash, id}, a power of
 *           two of them, at most three quarters in use. A deletion shifts
 *           the following entries of its run back, so there are no
 *           tombstones and a probe stops at the first free slot. Eight
 *           bytes a slot keep the array small enough to stay in the cache
 *           (a node pointer would double it), which matters more than the
 *           extra step through byId.
 *   byId    byId[id] is the node of identifier id. A freed identifier's
 *           entry holds the link to the next freed one, (next << 1) | 1:
 *           nodes are aligned, so the low bit tells the two apart.
 *
 * Hashing and comparison read the text eight bytes at a time; in a table
 * without case, ASCII letters are folded to lower case in the same words
 * (a few bit operations per word, for 8-bit and 16-bit lanes alike), so
 * the case-blind lookup costs little more than the exact one.
 */
#include <cstddef>
#include <cstdint>
#include <cstring>
#include "StrId.h"
#include "TagRec.h"

namespace {

const char kSrc[] = __FILE__;

constexpr vek_u32 kMinSlots = 16;
constexpr vek_s32 kMaxLen = 0x3FFFFFFF;

/* ASCII upper-case letters to lower case in every 8-bit lane of w. */
inline vek_u64 fold_lanes8(vek_u64 w) {
    const vek_u64 ones = 0x0101010101010101ull;
    vek_u64 low = w & (0x7F * ones);
    vek_u64 geA = low + (0x80 - 'A') * ones;      // lane bit 7: >= 'A'
    vek_u64 gtZ = low + (0x80 - 'Z' - 1) * ones;  // lane bit 7: > 'Z'
    vek_u64 upper = geA & ~gtZ & ~w & (0x80 * ones);
    return w | (upper >> 2);
}

/* The same for 16-bit lanes (UTF-16 units). */
inline vek_u64 fold_lanes16(vek_u64 w) {
    const vek_u64 ones = 0x0001000100010001ull;
    vek_u64 low = w & (0x7FFF * ones);
    vek_u64 geA = low + (0x8000 - 'A') * ones;
    vek_u64 gtZ = low + (0x8000 - 'Z' - 1) * ones;
    vek_u64 upper = geA & ~gtZ & ~w & (0x8000 * ones);
    return w | (upper >> 10);
}

inline vek_u64 load_word(const vek_u8* p) {
    vek_u64 w;
    std::memcpy(&w, p, 8);
    return w;
}

// The last n (1 to 7) bytes of a text in the low lanes of a word, as a
// copy of them would put them, but with fixed-size loads that need no call:
// two overlapping 4-byte loads, or the first, middle and last byte.
inline vek_u64 load_tail(const vek_u8* p, size_t n) {
    if (n >= 4) {
        vek_u32 a, b;
        std::memcpy(&a, p, 4);
        std::memcpy(&b, p + n - 4, 4);
        return a | (vek_u64)b << (8 * (n - 4));
    }
    return p[0] | (vek_u64)p[n / 2] << (8 * (n / 2)) | (vek_u64)p[n - 1] << (8 * (n - 1));
}

template <class Ch>
struct Text {
    static vek_u64 fold(vek_u64 w) { return sizeof(Ch) == 1 ? fold_lanes8(w) : fold_lanes16(w); }

    // A word-at-a-time multiply-xor hash, finished with an avalanche so
    // that the low bits (the slot index) depend on every byte.
    static vek_u32 hash(const Ch* s, vek_s32 len, bool noCase) {
        const vek_u8* p = (const vek_u8*)s;
        size_t n = (size_t)len * sizeof(Ch);
        const vek_u64 k = 0x9E3779B97F4A7C15ull;
        vek_u64 h = (vek_u64)n * k;
        for (; n >= 8; p += 8, n -= 8) {
            vek_u64 w = load_word(p);
            h = (h ^ (noCase ? fold(w) : w)) * k;
            h ^= h >> 29;
        }
        if (n) {
            vek_u64 w = load_tail(p, n);
            h = (h ^ (noCase ? fold(w) : w)) * k;
        }
        h ^= h >> 33;
        h *= 0xFF51AFD7ED558CCDull;
        h ^= h >> 33;
        return (vek_u32)h;
    }

    static bool same(const Ch* a, const Ch* b, vek_s32 len, bool noCase) {
        size_t n = (size_t)len * sizeof(Ch);
        if (!noCase) {
            return std::memcmp(a, b, n) == 0;
        }
        const vek_u8* x = (const vek_u8*)a;
        const vek_u8* y = (const vek_u8*)b;
        for (; n >= 8; x += 8, y += 8, n -= 8) {
            if (fold(load_word(x)) != fold(load_word(y))) {
                return false;
            }
        }
        return !n || fold(load_tail(x, n)) == fold(load_tail(y, n));
    }

    static vek_s32 length(const Ch* s) {
        vek_s32 n = 0;
        while (s[n]) {
            n++;
        }
        return n;
    }
};

inline bool is_link(const void* e) {
    return ((uintptr_t)e & 1) != 0;
}
inline vek_s32 link_next(const void* e) {
    return (vek_s32)((uintptr_t)e >> 1);
}
inline void* make_link(vek_s32 next) {
    return (void*)(((uintptr_t)next << 1) | 1);
}

template <class Tab, class Node, class Ch, vek_u32 Tag>
struct IdTable {
    using T = Text<Ch>;
    static constexpr Ch kEmpty[1] = {0};

    static Tab* check(Tab* t, vek_s32 line) { return vek::tag_check(t, Tag, kSrc, line); }
    static const Tab* check(const Tab* t, vek_s32 line) { return vek::tag_check(t, Tag, kSrc, line); }

    static bool no_case(const Tab* t) { return (t->flags & STRID_NO_CASE) != 0; }

    // A text argument: its length (measured when negative), or -81 for a
    // null text with a length or a text too long to hold.
    static vek_s32 text_len(const Ch* s, vek_s32 len) {
        if (!s) {
            if (len != 0) {
                vek_assert__("str || len == 0", kSrc, __LINE__);
                return VEK_ERR_BAD_ARG;
            }
            return 0;
        }
        if (len < 0) {
            len = T::length(s);
        }
        return len > kMaxLen ? VEK_ERR_BAD_ARG : len;
    }

    // The slot holding the text, or -1 and the free slot it would take.
    static vek_s64 probe(const Tab* t, const Ch* s, vek_s32 len, vek_u32 h, vek_u32* freeAt) {
        if (!t->slots) {
            return -1;
        }
        bool fold = no_case(t);
        for (vek_u32 i = h & t->mask;; i = (i + 1) & t->mask) {
            const StrIdSlot& sl = t->slots[i];
            if (!sl.id) {
                if (freeAt) {
                    *freeAt = i;
                }
                return -1;
            }
            const Node* n = (const Node*)t->byId[sl.id];
            if (sl.hash == h && n->len == len && T::same(n->str, s, len, fold)) {
                return i;
            }
        }
    }

    static const Node* find_node(const Tab* t, const Ch* s, vek_s32 len) {
        len = text_len(s, len);
        if (len < 0 || !t->count) {
            return nullptr;
        }
        s = s ? s : kEmpty;
        vek_u32 h = T::hash(s, len, no_case(t));
        vek_s64 i = probe(t, s, len, h, nullptr);
        return i < 0 ? nullptr : (const Node*)t->byId[t->slots[i].id];
    }

    static const Node* node_of(const Tab* t, vek_s32 id) {
        if (id < 1 || id > t->idTop) {
            return nullptr;
        }
        void* e = t->byId[id];
        return e && !is_link(e) ? (const Node*)e : nullptr;
    }

    // Room for one more text: the slots doubled when they would pass three
    // quarters. False when memory runs out (the table is as it was).
    static bool slot_room(Tab* t) {
        vek_u32 cap = t->slots ? t->mask + 1 : 0;
        if ((vek_u64)(t->count + 1) * 4 <= (vek_u64)cap * 3) {
            return true;
        }
        vek_u32 ncap = cap ? cap * 2 : kMinSlots;
        if (ncap < cap) {
            return false;
        }
        StrIdSlot* ns = (StrIdSlot*)vek_malloc__(sizeof(StrIdSlot) * ncap);
        if (!ns) {
            return false;
        }
        std::memset(ns, 0, sizeof(StrIdSlot) * ncap);
        for (vek_u32 i = 0; i < cap; i++) {
            if (t->slots[i].id) {
                vek_u32 j = t->slots[i].hash & (ncap - 1);
                while (ns[j].id) {
                    j = (j + 1) & (ncap - 1);
                }
                ns[j] = t->slots[i];
            }
        }
        vek_free__(t->slots);
        t->slots = ns;
        t->mask = ncap - 1;
        return true;
    }

    // byId long enough to hold identifier id.
    static bool id_room(Tab* t, vek_s32 id) {
        if (id < t->idCap) {
            return true;
        }
        vek_s64 ncap = t->idCap ? t->idCap : 16;
        while (ncap <= id) {
            ncap *= 2;
        }
        if (ncap > kMaxLen) {
            ncap = (vek_s64)id + 1;
        }
        void** nb = (void**)vek_malloc__(sizeof(void*) * (size_t)ncap);
        if (!nb) {
            return false;
        }
        if (t->idCap) {
            std::memcpy(nb, t->byId, sizeof(void*) * (size_t)t->idCap);
        }
        std::memset(nb + t->idCap, 0, sizeof(void*) * (size_t)(ncap - t->idCap));
        vek_free__(t->byId);
        t->byId = nb;
        t->idCap = (vek_s32)ncap;
        return true;
    }

    static Node* node_new(const Ch* s, vek_s32 len, vek_u32 h) {
        Node* n = (Node*)vek_malloc__(offsetof(Node, str) + sizeof(Ch) * ((size_t)len + 1));
        if (n) {
            n->hash = h;
            n->len = len;
            Ch* d = n->str;
            if (len) {
                std::memcpy(d, s, sizeof(Ch) * (size_t)len);
            }
            d[len] = 0;
        }
        return n;
    }

    // Enters a new node under identifier id (byId has room) at free slot i.
    static void link_in(Tab* t, Node* n, vek_s32 id, vek_u32 i) {
        n->id = id;
        t->slots[i].hash = n->hash;
        t->slots[i].id = id;
        t->byId[id] = n;
        if (id > t->idTop) {
            t->idTop = id;
        }
        t->count++;
    }

    // Takes identifier id out of the free list (it is on it).
    static void unfree(Tab* t, vek_s32 id) {
        if (t->freeId == id) {
            t->freeId = link_next(t->byId[id]);
            return;
        }
        for (vek_s32 prev = t->freeId;;) {
            vek_s32 next = link_next(t->byId[prev]);
            if (next == id) {
                t->byId[prev] = make_link(link_next(t->byId[id]));
                return;
            }
            prev = next;
        }
    }

    static vek_s32 add(Tab* t, const Ch* s, vek_s32 len, vek_s32 want) {
        len = text_len(s, len);
        if (len < 0) {
            return len;
        }
        s = s ? s : kEmpty;
        vek_u32 h = T::hash(s, len, no_case(t));
        vek_s64 at = probe(t, s, len, h, nullptr);
        if (at >= 0) {
            vek_s32 id = t->slots[at].id;
            return want && want != id ? VEK_ERR_NAME_EXISTS : id;
        }
        vek_s32 id = want;
        if (want && node_of(t, want)) {
            return VEK_ERR_NAME_EXISTS;
        }
        if (!id) {
            id = t->freeId ? t->freeId : t->idTop + 1;
        }
        if (id > kMaxLen || !slot_room(t) || !id_room(t, id)) {
            return VEK_ERR_FULL;
        }
        Node* n = node_new(s, len, h);
        if (!n) {
            return VEK_ERR_FULL;
        }
        if (id <= t->idTop) {
            unfree(t, id);
        } else {
            // Identifiers skipped by an explicit one become free.
            for (vek_s32 k = t->idTop + 1; k < id; k++) {
                t->byId[k] = make_link(t->freeId);
                t->freeId = k;
            }
        }
        vek_u32 freeAt = 0;
        probe(t, s, len, h, &freeAt);
        link_in(t, n, id, freeAt);
        return id;
    }

    // Removes slot i and shifts the rest of its run back into the gap.
    static void slot_remove(Tab* t, vek_u32 i) {
        t->slots[i].id = 0;
        for (vek_u32 j = (i + 1) & t->mask; t->slots[j].id; j = (j + 1) & t->mask) {
            vek_u32 home = t->slots[j].hash & t->mask;
            // The entry at j may move to i unless its home lies cyclically
            // in (i, j].
            bool stays = i <= j ? (home > i && home <= j) : (home > i || home <= j);
            if (!stays) {
                t->slots[i] = t->slots[j];
                t->slots[j].id = 0;
                i = j;
            }
        }
    }

    static vek_s32 del(Tab* t, vek_s32 id) {
        const Node* n = node_of(t, id);
        if (!n) {
            return VEK_ERR_NOT_FOUND;
        }
        vek_u32 i = n->hash & t->mask;
        while (t->slots[i].id != id) {
            i = (i + 1) & t->mask;
        }
        slot_remove(t, i);
        t->byId[id] = make_link(t->freeId);
        t->freeId = id;
        t->count--;
        vek_free__((void*)n);
        return 0;
    }

    static void free_all(Tab* t) {
        for (vek_s32 id = 1; id <= t->idTop; id++) {
            void* e = t->byId[id];
            if (e && !is_link(e)) {
                vek_free__(e);
            }
        }
        vek_free__(t->slots);
        vek_free__(t->byId);
        t->slots = nullptr;
        t->byId = nullptr;
        t->mask = 0;
        t->count = t->idCap = t->idTop = t->freeId = 0;
    }

    static vek_s32 next(const Tab* t, vek_s32 id) {
        for (vek_s32 k = id < 0 ? 1 : id + 1; k <= t->idTop; k++) {
            void* e = t->byId[k];
            if (e && !is_link(e)) {
                return k;
            }
        }
        return 0;
    }

    static Tab* create(Tab* mem, vek_s32 flags) {
        Tab* t = vek::tag_storage(mem, Tag);
        if (t) {
            t->flags = flags & STRID_NO_CASE;
        }
        return t;
    }
};

using StrTab = IdTable<StrId, PstrNode, char, STRID_TAG>;
using WcsTab = IdTable<WcsId, PwcsNode, vek_wchar, WCSID_TAG>;

} // namespace

extern "C" {

/* ---- StrId ---- */

VEK_API StrId* StrId_new(StrId* mem, vek_s32 flags) {
    return StrTab::create(mem, flags);
}
VEK_API void StrId_delete(StrId* tab) {
    StrTab::free_all(StrTab::check(tab, __LINE__));
    vek::obj_dispose(tab);
}
VEK_API void StrId_clear(StrId* tab) {
    StrTab::free_all(StrTab::check(tab, __LINE__));
}
VEK_API vek_s32 StrId_add(StrId* tab, const char* str, vek_s32 len) {
    return StrTab::add(StrTab::check(tab, __LINE__), str, len, 0);
}
VEK_API vek_s32 StrId_addx(StrId* tab, const char* str, vek_s32 len, vek_s32 id) {
    StrTab::check(tab, __LINE__);
    return id < 1 ? VEK_ERR_BAD_ARG : StrTab::add(tab, str, len, id);
}
VEK_API vek_s32 StrId_find(const StrId* tab, const char* str, vek_s32 len) {
    const PstrNode* n = StrTab::find_node(StrTab::check(tab, __LINE__), str, len);
    return n ? n->id : VEK_ERR_NOT_FOUND;
}
VEK_API const PstrNode* StrId_findNode(const StrId* tab, const char* str, vek_s32 len) {
    return StrTab::find_node(StrTab::check(tab, __LINE__), str, len);
}
VEK_API const char* StrId_str(const StrId* tab, vek_s32 id) {
    const PstrNode* n = StrTab::node_of(StrTab::check(tab, __LINE__), id);
    return n ? n->str : nullptr;
}
VEK_API const PstrNode* StrId_node(const StrId* tab, vek_s32 id) {
    return StrTab::node_of(StrTab::check(tab, __LINE__), id);
}
VEK_API vek_s32 StrId_del(StrId* tab, vek_s32 id) {
    return StrTab::del(StrTab::check(tab, __LINE__), id);
}
VEK_API vek_s32 StrId_count(const StrId* tab) {
    return StrTab::check(tab, __LINE__)->count;
}
VEK_API vek_s32 StrId_next(const StrId* tab, vek_s32 id) {
    return StrTab::next(StrTab::check(tab, __LINE__), id);
}

/* ---- WcsId ---- */

VEK_API WcsId* WcsId_new(WcsId* mem, vek_s32 flags) {
    return WcsTab::create(mem, flags);
}
VEK_API void WcsId_delete(WcsId* tab) {
    WcsTab::free_all(WcsTab::check(tab, __LINE__));
    vek::obj_dispose(tab);
}
VEK_API void WcsId_clear(WcsId* tab) {
    WcsTab::free_all(WcsTab::check(tab, __LINE__));
}
VEK_API vek_s32 WcsId_add(WcsId* tab, const vek_wchar* str, vek_s32 len) {
    return WcsTab::add(WcsTab::check(tab, __LINE__), str, len, 0);
}
VEK_API vek_s32 WcsId_addx(WcsId* tab, const vek_wchar* str, vek_s32 len, vek_s32 id) {
    WcsTab::check(tab, __LINE__);
    return id < 1 ? VEK_ERR_BAD_ARG : WcsTab::add(tab, str, len, id);
}
VEK_API vek_s32 WcsId_find(const WcsId* tab, const vek_wchar* str, vek_s32 len) {
    const PwcsNode* n = WcsTab::find_node(WcsTab::check(tab, __LINE__), str, len);
    return n ? n->id : VEK_ERR_NOT_FOUND;
}
VEK_API const PwcsNode* WcsId_findNode(const WcsId* tab, const vek_wchar* str, vek_s32 len) {
    return WcsTab::find_node(WcsTab::check(tab, __LINE__), str, len);
}
VEK_API const vek_wchar* WcsId_str(const WcsId* tab, vek_s32 id) {
    const PwcsNode* n = WcsTab::node_of(WcsTab::check(tab, __LINE__), id);
    return n ? n->str : nullptr;
}
VEK_API const PwcsNode* WcsId_node(const WcsId* tab, vek_s32 id) {
    return WcsTab::node_of(WcsTab::check(tab, __LINE__), id);
}
VEK_API vek_s32 WcsId_del(WcsId* tab, vek_s32 id) {
    return WcsTab::del(WcsTab::check(tab, __LINE__), id);
}
VEK_API vek_s32 WcsId_count(const WcsId* tab) {
    return WcsTab::check(tab, __LINE__)->count;
}
VEK_API vek_s32 WcsId_next(const WcsId* tab, vek_s32 id) {
    return WcsTab::next(WcsTab::check(tab, __LINE__), id);
}

} // extern "C"
