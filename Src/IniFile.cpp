/*
 * IniFile.cpp - the INI document that keeps every line.
 *
 * A document is a list of sections; a section is a list of every line
 * below its header (fields, comments, blank and unparsable lines alike), so
 * writing an unchanged document reproduces it. Only the lines the caller
 * changes are regenerated. Names and values live in strings with inline
 * buffers, so a typical line costs one allocation.
 */
#include <cstdlib>
#include <cstring>
#include "IniFile.h"
#include "IniScan.h"
#include "SafeFile.h"
#include "ShapeWatch.h"
#include "StrCore.h"
#include "StrUtil.h"
#include "VekCore.h"
#include "VekStrm.h"

namespace {

using StrC = vek::StrCore<vek::StrSide>;

constexpr vek_u32 kOwned = 0x80000000u;
constexpr vek_s32 kNameCells = 64;
constexpr vek_s32 kLineCells = 128;
constexpr vek_s32 kReadChunk = 16384;

IniFile* doc_check(const IniFile* f, vek_s32 line) {
    if (!f || (f->tag & ~kOwned) != INIFILE_TAG) {
        ObjUtil_crashExit(__FILE__, line);
    }
    return const_cast<IniFile*>(f);
}

IniSect* sect_check(const IniSect* s, vek_s32 line) {
    if (!s || s->tag != INISECT_TAG) {
        ObjUtil_crashExit(__FILE__, line);
    }
    return const_cast<IniSect*>(s);
}

const IniField* field_check(const IniField* f, vek_s32 line) {
    if (!f || f->tag != INIFIELD_TAG) {
        ObjUtil_crashExit(__FILE__, line);
    }
    return f;
}

bool field_name_ok(const char* name, const char* expr, vek_s32 line) {
    if (!name || !*name) {
        vek_assert__(expr, __FILE__, line);
        return false;
    }
    return true;
}

// Sets a string to exactly these bytes (a NUL among them included).
void set_bytes(VekStr* s, const char* p, vek_s32 n) {
    VekStr_clear(s);
    if (n > 0) {
        VekStr_appdStrx(s, p, n);
    }
}

const char* cs(const VekStr* s) {
    return VekStr_buf(s);
}

// The length and text straight from the string's block: lookups compare
// them for every section and line they pass. The text is reached by its
// byte offset from the block's start: the block holds size cells behind
// its header, more than the array the header declares.
vek_s32 slen(const VekStr* s) {
    return s->data->len;
}
char* text_of(StrData* d) {
    return StrC::chars(d);
}
const char* text_of(const StrData* d) {
    return StrC::chars(d);
}

bool is_valid(const IniField* f) {
    return (f->flags & INIFIELD_VALID) != 0;
}

// ---- records ----

// Builds a string on the inline buffer behind it holding n bytes of p.
// A loaded line usually fits, so filling the buffer in place spares the
// clear-and-append round of calls a later change goes through; a longer
// text takes a heap block as any append would.
void str_init(VekStr* s, void* buf, vek_s32 cells, const char* p, vek_s32 n) {
    StrC::init_ext(s, buf, cells, __LINE__);
    StrData* d = s->data;
    if (n < d->size) {
        std::memcpy(text_of(d), p, (size_t)n);
        d->len = n;
        text_of(d)[n] = 0;
    } else {
        VekStr_appdStrx(s, p, n);
    }
}

// A field holding a line as read: a name/value field when nameEnd > 0
// (the name is line[nameBeg, nameEnd), the value what follows the "="),
// else a line kept verbatim. The bare field_new() is an empty one.
IniField* field_new(const char* line = "", vek_s32 len = 0, vek_s32 nameBeg = 0, vek_s32 nameEnd = 0) {
    IniField* f = (IniField*)vek_malloc__(sizeof(IniField));
    if (!f) {
        return nullptr;
    }
    std::memset(&f->link, 0, sizeof f->link);
    f->tag = INIFIELD_TAG;
    if (nameEnd > 0) {
        f->flags = INIFIELD_VALID;
        str_init(&f->name, f->nameBuf, kNameCells, line + nameBeg, nameEnd - nameBeg);
        str_init(&f->value, f->valueBuf, kNameCells, line + nameEnd + 1, len - nameEnd - 1);
    } else {
        f->flags = 0;
        str_init(&f->name, f->nameBuf, kNameCells, "", 0);
        str_init(&f->value, f->valueBuf, kNameCells, "", 0);
    }
    str_init(&f->line, f->lineBuf, kLineCells, line, len);
    return f;
}

void field_delete(IniField* f) {
    StrC::destroy(StrC::check(&f->name, __LINE__));
    StrC::destroy(StrC::check(&f->value, __LINE__));
    StrC::destroy(StrC::check(&f->line, __LINE__));
    f->tag = 0;
    vek_free__(f);
}

IniSect* sect_new(const char* name, vek_s32 nameLen, const char* header, vek_s32 headerLen) {
    IniSect* s = (IniSect*)vek_malloc__(sizeof(IniSect));
    if (!s) {
        return nullptr;
    }
    std::memset(&s->link, 0, sizeof s->link);
    s->tag = INISECT_TAG;
    str_init(&s->name, s->nameBuf, kNameCells, name, nameLen);
    str_init(&s->header, s->headerBuf, kLineCells, header, headerLen);
    VekList_init(&s->fields, LIST_TWO_WAY);
    return s;
}

// The lines go with the section, so they are freed along the chain rather
// than unlinked one by one; the emptied list is then made valid again.
void sect_delete(IniSect* s) {
    for (VekListNode* n = s->fields.hdr; n;) {
        VekListNode* next = n->next;
        field_delete((IniField*)n);
        n = next;
    }
    VekList_init(&s->fields, vek::list_kind(&s->fields));
    StrC::destroy(StrC::check(&s->name, __LINE__));
    StrC::destroy(StrC::check(&s->header, __LINE__));
    s->tag = 0;
    vek_free__(s);
}

ptrdiff_t sect_del_cb(void* node) {
    sect_delete((IniSect*)node);
    return 0;
}

// Sets a field's name and value and regenerates its line as "name=value".
void field_assign(IniField* f, const char* name, vek_s32 nameLen, const char* value, vek_s32 valueLen) {
    set_bytes(&f->name, name, nameLen);
    set_bytes(&f->value, value, valueLen);
    VekStr_clear(&f->line);
    VekStr_appdCstr(&f->line, &f->name);
    VekStr_appdChar(&f->line, '=');
    VekStr_appdCstr(&f->line, &f->value);
    f->flags |= INIFIELD_VALID;
}

void field_take(IniField* dst, const IniField* src) {
    field_assign(dst, cs(&src->name), VekStr_len(&src->name), cs(&src->value), VekStr_len(&src->value));
}

// ---- lookup ----

IniSect* first_sect(IniFile* file) {
    return (IniSect*)file->sects.hdr;
}

unsigned fold_upper(unsigned c) {
    return c >= 'a' && c <= 'z' ? c - 32 : c;
}

// Names compare without ASCII case over their whole length: a stored name
// may hold a NUL byte (loaded from any text), so lengths are explicit.
bool same_bytes(const char* a, vek_s32 aLen, const char* b, vek_s32 bLen);
bool same_name(const VekStr* stored, const char* name, vek_s32 len) {
    return same_bytes(text_of(stored->data), slen(stored), name, len);
}

// ---- the section index ----
//
// A long document answers lookups from hash tables: one of its section
// names, one of the fields of the sections asked for. The record has no
// room for them, so they live in a chain beside the documents, found by the
// document's address and freed with the document. Callers may relink the
// sections and lines and rename them, so the tables are trusted only while
// the index's own change count reads what it read when they were built.
// The lists and names the tables were built from carry the watch mark and
// are registered with the index (ShapeWatch.h): a link change of such a
// list and any string call on such a name move this index's count and no
// other's. A stale index answers nothing; the scan does, and the index is
// rebuilt once two lookups in a row find the count unchanged, so a document
// being changed between lookups never pays for a rebuild per lookup. The
// field flags are not watched: the document sets the bit only on lines it
// has just inserted or found as fields already.

constexpr vek_s32 kIndexMin = 16;  // below this many sections the scan is as quick

struct SectSlot {
    vek_u32 hash;
    vek_u32 linesIn;  // the generation whose field slots hold this section's fields
    IniSect* sect;    // null: a free slot
};

// The fields of the sections asked for, each section's entered at its first
// lookup in a generation (a whole document's lines would cost a walk of
// every record per rebuild). A slot of an older generation is free, so a
// rebuild starts a generation instead of clearing the slots.
struct FieldSlot {
    vek_u32 hash;
    vek_u32 gen;
    const IniSect* sect;
    IniField* field;
};

// The addresses of the marked objects an index was built from: open
// addressing, null a free slot; cleared at every rebuild, never shrunk.
struct WatchSet {
    const void** slots;
    vek_u32 mask;  // slots - 1 (0 with no table)
    vek_u32 used;
};

struct SectIndex {
    SectIndex* next;  // the chain
    const IniFile* doc;
    vek_u32 changes;  // moved by every report on a registered object (atomic)
    WatchSet watched;
    vek_u32 builtAt;  // the change count the slots reflect
    vek_u32 staleAt;  // the count at the last lookup that found them stale
    bool built;
    bool seen;        // staleAt is set
    vek_u32 mask;     // slots - 1
    SectSlot* slots;
    vek_u32 gen;      // the field slots' current generation (from 1)
    vek_u32 fmask;    // field slots - 1
    vek_u32 fused;    // field slots taken in this generation
    FieldSlot* fslots;
};

// Only the document's own calls reach its index, and a document is used by
// one thread at a time, so the lock guards the chain and the watch sets
// alone, briefly: a report on a marked object may come from any thread.
// Nothing done under the lock calls a string or list function, whose watch
// report would take the lock again.
SectIndex* g_indexes = nullptr;
bool g_indexLock = false;

struct ChainLock {
    ChainLock() {
        while (__atomic_test_and_set(&g_indexLock, __ATOMIC_ACQUIRE)) {
        }
    }
    ~ChainLock() { __atomic_clear(&g_indexLock, __ATOMIC_RELEASE); }
    ChainLock(const ChainLock&) = delete;
    ChainLock& operator=(const ChainLock&) = delete;
};

vek_u32 name_hash(const char* p, vek_s32 n) {
    vek_u32 h = 2166136261u;
    for (vek_s32 i = 0; i < n; i++) {
        h = (h ^ fold_upper((vek_u8)p[i])) * 16777619u;
    }
    return h;
}

// The document's index, made (empty) on first use; null without memory.
SectIndex* index_of(const IniFile* file) {
    ChainLock lock;
    for (SectIndex** pp = &g_indexes; *pp; pp = &(*pp)->next) {
        SectIndex* ix = *pp;
        if (ix->doc == file) {
            *pp = ix->next;  // to the front: the document in use is asked again
            ix->next = g_indexes;
            g_indexes = ix;
            return ix;
        }
    }
    SectIndex* ix = (SectIndex*)vek_malloc__(sizeof(SectIndex));
    if (ix) {
        *ix = SectIndex{g_indexes, file, 0, WatchSet{nullptr, 0, 0}, 0, 0, false, false, 0, nullptr, 0, 0, 0,
                        nullptr};
        g_indexes = ix;
    }
    return ix;
}

void index_drop(const IniFile* file) {
    SectIndex* gone = nullptr;
    {
        ChainLock lock;
        for (SectIndex** pp = &g_indexes; *pp; pp = &(*pp)->next) {
            if ((*pp)->doc == file) {
                gone = *pp;
                *pp = gone->next;
                break;
            }
        }
    }
    if (gone) {
        if (gone->slots) {
            vek_free__(gone->slots);
        }
        if (gone->fslots) {
            vek_free__(gone->fslots);
        }
        if (gone->watched.slots) {
            vek_free__(gone->watched.slots);
        }
        vek_free__(gone);
    }
}

inline vek_u32 ptr_hash(const void* p) {
    uintptr_t v = (uintptr_t)p;
    return (vek_u32)((v >> 3) ^ (v >> 17)) * 0x9E3779B1u;
}

bool watch_has(const WatchSet& w, const void* obj) {
    if (!w.slots) {
        return false;
    }
    for (vek_u32 i = ptr_hash(obj) & w.mask;; i = (i + 1) & w.mask) {
        if (w.slots[i] == obj) {
            return true;
        }
        if (!w.slots[i]) {
            return false;
        }
    }
}

void watch_put(WatchSet& w, const void* obj) {
    for (vek_u32 i = ptr_hash(obj) & w.mask;; i = (i + 1) & w.mask) {
        if (!w.slots[i]) {
            w.slots[i] = obj;
            w.used++;
            return;
        }
        if (w.slots[i] == obj) {
            return;
        }
    }
}

// Registers obj, the table kept at most half full (the caller holds the
// lock); false without memory.
bool watch_add(WatchSet& w, const void* obj) {
    vek_u32 want = w.mask + 1 >= 64 ? w.mask + 1 : 64;
    while (2 * (w.used + 1) > want) {
        want <<= 1;
    }
    if (w.slots && want == w.mask + 1) {
        watch_put(w, obj);
        return true;
    }
    const void** fresh = (const void**)vek_malloc__(want * sizeof(void*));
    if (!fresh) {
        return false;
    }
    std::memset(fresh, 0, want * sizeof(void*));
    WatchSet old = w;
    w = WatchSet{fresh, want - 1, 0};
    for (vek_u32 i = 0; old.slots && i <= old.mask; i++) {
        if (old.slots[i]) {
            watch_put(w, old.slots[i]);
        }
    }
    if (old.slots) {
        vek_free__(old.slots);
    }
    watch_put(w, obj);
    return true;
}

void watch_clear(WatchSet& w) {
    if (w.slots) {
        std::memset(w.slots, 0, (w.mask + 1) * sizeof(void*));
    }
    w.used = 0;
}

vek_u32 changes_of(const SectIndex* ix) {
    return __atomic_load_n(&ix->changes, __ATOMIC_ACQUIRE);
}

// Makes room for twice count entries (at least least slots, a power of
// two): a table within a factor of four of that is kept (1), else a zeroed
// one replaces it (2); 0 without memory.
template <class Slot>
int size_slots(Slot*& slots, vek_u32& mask, vek_u32 least, vek_u32 count) {
    vek_u32 want = least;
    while (want < 2u * count) {
        want <<= 1;
    }
    if (slots && mask + 1 >= want && mask + 1 <= 4 * want) {
        return 1;
    }
    Slot* fresh = (Slot*)vek_malloc__(want * sizeof(Slot));
    if (!fresh) {
        return 0;
    }
    if (slots) {
        vek_free__(slots);
    }
    std::memset(fresh, 0, want * sizeof(Slot));
    slots = fresh;
    mask = want - 1;
    return 2;
}

// Fills the table from the sections as they stand, each name for the first
// section that bears it, and marks the names watched; starts a generation
// of field slots. False (the index then unusable) without memory.
bool index_build(SectIndex* ix, IniFile* file, vek_u32 now) {
    if (!size_slots(ix->slots, ix->mask, 32, (vek_u32)file->sects.len)) {
        return ix->built = false;
    }
    ChainLock lock;
    watch_clear(ix->watched);
    if (!watch_add(ix->watched, &file->sects)) {
        return ix->built = false;
    }
    file->sects.type |= vek::kListWatched;
    std::memset(ix->slots, 0, (ix->mask + 1) * sizeof(SectSlot));
    vek_u32 used = 0;
    vek_u32 lines = 0;
    for (VekListNode* n = file->sects.hdr; n; n = n->next) {
        IniSect* s = (IniSect*)n;
        const StrData* d = s->name.data;
        if (++used > (ix->mask + 1) / 2) {
            return ix->built = false;  // more nodes than the count says: leave it to the scan
        }
        lines += s->fields.len > 0 ? (vek_u32)s->fields.len : 0u;
        vek_u32 h = name_hash(text_of(d), d->len);
        for (vek_u32 i = h & ix->mask;; i = (i + 1) & ix->mask) {
            SectSlot& slot = ix->slots[i];
            if (!slot.sect) {
                slot = SectSlot{h, 0, s};
                break;
            }
            if (slot.hash == h && same_name(&slot.sect->name, text_of(d), d->len)) {
                break;  // a later duplicate: the first one answers
            }
        }
        if (!watch_add(ix->watched, &s->name)) {
            return ix->built = false;
        }
        s->name.magic |= vek::kStrWatched;
    }
    int sized = size_slots(ix->fslots, ix->fmask, 64, lines);
    if (!sized) {
        return ix->built = false;
    }
    if (sized == 2) {
        ix->gen = 0;  // fresh slots are all of generation 0
    }
    if (++ix->gen == 0) {  // wrapped: generation 0 marks free slots
        std::memset(ix->fslots, 0, (ix->fmask + 1) * sizeof(FieldSlot));
        ix->gen = 1;
    }
    ix->fused = 0;
    ix->builtAt = now;
    return ix->built = true;
}

vek_u32 field_hash(const IniSect* s, const char* name, vek_s32 len) {
    return name_hash(name, len) ^ ((vek_u32)((uintptr_t)s >> 4) * 0x9E3779B1u);
}

// Enters a section's name/value fields, each name for its first field;
// false (the scan must answer) when the slots would pass half full, which
// only a list longer than its count can make happen.
bool index_load_fields(SectIndex* ix, SectSlot* ss) {
    IniSect* s = ss->sect;
    ChainLock lock;
    if (!watch_add(ix->watched, &s->fields)) {
        ix->built = false;
        return false;
    }
    s->fields.type |= vek::kListWatched;
    for (VekListNode* n = s->fields.hdr; n; n = n->next) {
        IniField* f = (IniField*)n;
        if (!is_valid(f)) {
            continue;
        }
        const StrData* d = f->name.data;
        vek_u32 h = field_hash(s, text_of(d), d->len);
        for (vek_u32 i = h & ix->fmask;; i = (i + 1) & ix->fmask) {
            FieldSlot& slot = ix->fslots[i];
            if (slot.gen != ix->gen) {
                if (++ix->fused > (ix->fmask + 1) / 2) {
                    ix->built = false;
                    return false;
                }
                slot = FieldSlot{h, ix->gen, s, f};
                break;
            }
            if (slot.sect == s && slot.hash == h && same_name(&slot.field->name, text_of(d), d->len)) {
                break;  // a later duplicate
            }
        }
        if (!watch_add(ix->watched, &f->name)) {
            ix->built = false;
            return false;
        }
        f->name.magic |= vek::kStrWatched;
    }
    ss->linesIn = ix->gen;
    return true;
}

// The section's slot (null: no such section) from a table that is current,
// made current when the count has held still since the last lookup; false
// when the scan must answer.
bool index_find(IniFile* file, const char* name, vek_s32 len, SectIndex** ixOut, SectSlot** out) {
    SectIndex* ix = index_of(file);
    if (!ix) {
        return false;
    }
    *ixOut = ix;
    vek_u32 now = changes_of(ix);
    if (!ix->built || ix->builtAt != now) {
        if (!ix->seen || ix->staleAt != now) {
            ix->seen = true;
            ix->staleAt = now;
            return false;
        }
        if (!index_build(ix, file, now)) {
            return false;
        }
    }
    vek_u32 h = name_hash(name, len);
    for (vek_u32 i = h & ix->mask;; i = (i + 1) & ix->mask) {
        SectSlot& slot = ix->slots[i];
        if (!slot.sect || (slot.hash == h && same_name(&slot.sect->name, name, len))) {
            *out = slot.sect ? &slot : nullptr;
            return true;
        }
    }
}

bool indexed(IniFile* file, vek_s32 len) {
    return len > 0 && file->sects.len >= kIndexMin;
}

// The first section of the name, by walking the list.
IniSect* scan_sect(IniFile* file, const char* name, vek_s32 len) {
    if (len == 0) {
        // The nameless section, when there is one, is always the first.
        IniSect* first = first_sect(file);
        return first && slen(&first->name) == 0 ? first : nullptr;
    }
    for (VekListNode* n = file->sects.hdr; n; n = n->next) {
        IniSect* s = (IniSect*)n;
        if (same_name(&s->name, name, len)) {
            return s;
        }
    }
    return nullptr;
}

IniSect* find_sect_n(IniFile* file, const char* name, vek_s32 len) {
    SectIndex* ix;
    SectSlot* slot;
    if (indexed(file, len) && index_find(file, name, len, &ix, &slot)) {
        return slot ? slot->sect : nullptr;
    }
    return scan_sect(file, name, len);
}

IniSect* find_sect(IniFile* file, const char* name) {
    return find_sect_n(file, name, name ? (vek_s32)std::strlen(name) : 0);
}

IniSect* find_sect_as(IniFile* file, const VekStr* name) {
    return find_sect_n(file, text_of(name->data), slen(name));
}

IniField* find_field_n(IniSect* s, const char* name, vek_s32 len) {
    for (VekListNode* n = s->fields.hdr; n; n = n->next) {
        IniField* f = (IniField*)n;
        if (is_valid(f) && same_name(&f->name, name, len)) {
            return f;
        }
    }
    return nullptr;
}

IniField* find_field(IniSect* s, const char* name) {
    return find_field_n(s, name, (vek_s32)std::strlen(name));
}

IniField* find_field_as(IniSect* s, const VekStr* name) {
    return find_field_n(s, text_of(name->data), slen(name));
}

IniField* lookup(IniFile* file, const char* sect, const char* field) {
    vek_s32 sectLen = sect ? (vek_s32)std::strlen(sect) : 0;
    vek_s32 len = (vek_s32)std::strlen(field);
    SectIndex* ix;
    SectSlot* slot;
    if (indexed(file, sectLen) && index_find(file, sect, sectLen, &ix, &slot)) {
        if (!slot) {
            return nullptr;
        }
        if (slot->linesIn == ix->gen || index_load_fields(ix, slot)) {
            vek_u32 h = field_hash(slot->sect, field, len);
            for (vek_u32 i = h & ix->fmask;; i = (i + 1) & ix->fmask) {
                const FieldSlot& fs = ix->fslots[i];
                if (fs.gen != ix->gen) {
                    return nullptr;
                }
                if (fs.sect == slot->sect && fs.hash == h && same_name(&fs.field->name, field, len)) {
                    return fs.field;
                }
            }
        }
        return find_field_n(slot->sect, field, len);
    }
    IniSect* s = scan_sect(file, sect, sectLen);  // asked the index once only: a second ask would rebuild it
    return s ? find_field_n(s, field, len) : nullptr;
}

IniSect* find_or_create_sect(IniFile* file, const char* name) {
    IniSect* s = find_sect(file, name);
    if (s) {
        return s;
    }
    if (!name || !*name) {
        s = sect_new("", 0, "", 0);
        if (s) {
            VekList_addHdr__(&file->sects, s);
        }
    } else {
        VekStr header;
        VekStr_new(&header);
        VekStr_setf(&header, "[%s]", name);
        s = sect_new(name, (vek_s32)std::strlen(name), cs(&header), VekStr_len(&header));
        VekStr_delete(&header);
        if (s) {
            VekList_addTail__(&file->sects, s);
        }
    }
    if (s) {
        file->moded = 1;
    }
    return s;
}

// A new field goes right after the section's last name/value field, so it
// lands above the comments that close the section.
void insert_field(IniSect* s, IniField* f) {
    IniField* lastValid = nullptr;
    for (VekListNode* n = s->fields.hdr; n; n = n->next) {
        if (is_valid((IniField*)n)) {
            lastValid = (IniField*)n;
        }
    }
    if (lastValid) {
        VekList_addAnyNext__(&s->fields, f, lastValid);
    } else {
        VekList_addHdr__(&s->fields, f);
    }
}

// ---- loading ----

/* A header: optional blanks, "[", a name up to the next "]" that is not
 * empty and does not start with a double quote, then "]". */
bool parse_header(const char* line, vek_s32 len, const char** name, vek_s32* nameLen) {
    if (len < 3) {
        return false;
    }
    vek_s32 i = 0;
    while (i < len && (line[i] == ' ' || line[i] == '\t')) {
        i++;
    }
    if (i >= len || line[i] != '[') {
        return false;
    }
    vek_s32 start = ++i;
    while (i < len && line[i] != ']') {
        i++;
    }
    if (i >= len || i == start || line[start] == '"') {
        return false;
    }
    *name = line + start;
    *nameLen = i - start;
    return true;
}

/* A field: optional blanks, a word up to ";", "=", CR or a double quote
 * (blanks inside and behind it belong to the name), then "=" and the rest
 * of the line as it stands. False for a comment, a blank or an unparsable
 * line. */
bool field_span(const char* line, vek_s32 len, vek_s32* nameBeg, vek_s32* nameEnd) {
    vek_s32 i = 0;
    while (i < len && (line[i] == ' ' || line[i] == '\t')) {
        i++;
    }
    vek_s32 start = i;
    while (i < len && line[i] != ';' && line[i] != '=' && line[i] != '\r' && line[i] != '"') {
        i++;
    }
    if (i == start || i >= len || line[i] != '=') {
        return false;
    }
    *nameBeg = start;
    *nameEnd = i;
    return true;
}

// Names compare without ASCII case over explicit lengths.
bool same_bytes(const char* a, vek_s32 aLen, const char* b, vek_s32 bLen) {
    if (aLen != bLen) {
        return false;
    }
    for (vek_s32 i = 0; i < aLen; i++) {
        if (fold_upper((vek_u8)a[i]) != fold_upper((vek_u8)b[i])) {
            return false;
        }
    }
    return true;
}

bool add_line(IniFile* file, IniSect*& cur, const char* line, vek_s32 len) {
    const char* name;
    vek_s32 nameLen;
    if (parse_header(line, len, &name, &nameLen)) {
        IniSect* s = sect_new(name, nameLen, line, len);
        if (!s) {
            return false;
        }
        VekList_addTail__(&file->sects, s);
        cur = s;
        return true;
    }
    if (!cur) {
        cur = sect_new("", 0, "", 0);
        if (!cur) {
            return false;
        }
        VekList_addHdr__(&file->sects, cur);
    }
    vek_s32 b = 0, e = 0;
    if (!field_span(line, len, &b, &e)) {
        e = 0;  // kept verbatim
    }
    IniField* f = field_new(line, len, b, e);
    if (!f) {
        return false;
    }
    VekList_addTail__(&cur->fields, f);
    return true;
}

void drop_all(IniFile* file) {
    VekList_delAll(&file->sects, sect_del_cb);
}

// The first LF or CR in [p, end), or end. Eight bytes at a time: a byte
// equal to LF or CR is a zero byte of v ^ LF or v ^ CR, and the exact
// zero-byte mask (no borrow between bytes) marks it with its high bit.
const char* find_eol(const char* p, const char* end) {
    constexpr vek_u64 kLow7 = 0x7F7F7F7F7F7F7F7FULL;
    constexpr vek_u64 kLf = 0x0A0A0A0A0A0A0A0AULL;
    constexpr vek_u64 kCr = 0x0D0D0D0D0D0D0D0DULL;
    while (end - p >= 8) {
        vek_u64 v;
        std::memcpy(&v, p, 8);
        vek_u64 a = v ^ kLf;
        vek_u64 b = v ^ kCr;
        vek_u64 za = ~(((a & kLow7) + kLow7) | a | kLow7);
        vek_u64 zb = ~(((b & kLow7) + kLow7) | b | kLow7);
        if (vek_u64 z = za | zb) {
            return p + (__builtin_ctzll(z) >> 3);  // little-endian: the lowest marked byte comes first
        }
        p += 8;
    }
    while (p < end && *p != '\n' && *p != '\r') {
        p++;
    }
    return p;
}

/* Splits the stream (from its start) into lines: LF, CR and CR LF end a
 * line, a last line without an end counts. Each goes to sink.line(p, n)
 * until that returns false (the sink then ends with sink.stop's result);
 * a line longer than INI_LINE_MAX ends the pass with -251. A line that lies
 * whole in the chunk read is handed over where it stands; only one that
 * straddles two reads is gathered in the line buffer. */
template <class Sink>
vek_s32 scan_lines(IStrm* strm, Sink& sink) {
    IStrm_seek(strm, 0, 0);
    char line[INI_LINE_MAX];
    char chunk[kReadChunk];
    vek_s32 n = 0;  // bytes of a straddling line gathered so far
    bool inLine = false;
    bool afterCr = false;
    for (;;) {
        vek_s32 got = IStrm_read(strm, chunk, kReadChunk);
        if (got <= 0) {
            break;  // the end, or a read failure: what was collected counts
        }
        const char* p = chunk;
        const char* end = chunk + got;
        if (afterCr && *p == '\n') {
            p++;  // CR LF across two reads
        }
        afterCr = false;
        while (p < end) {
            const char* e = find_eol(p, end);
            vek_s32 len = (vek_s32)(e - p);
            if (len > INI_LINE_MAX - n) {
                return VEK_ERR_INI_LINE_LONG;
            }
            if (e == end) {
                std::memcpy(line + n, p, (size_t)len);  // continued by the next read
                n += len;
                inLine = true;
                break;
            }
            const char* text = p;
            if (n > 0) {
                std::memcpy(line + n, p, (size_t)len);
                text = line;
                len += n;
            }
            if (!sink.line(text, len)) {
                return sink.stop();
            }
            n = 0;
            inLine = false;
            p = e + 1;
            if (*e == '\r') {
                if (p == end) {
                    afterCr = true;
                } else if (*p == '\n') {
                    p++;
                }
            }
        }
    }
    if (inLine && !sink.line(line, n)) {
        return sink.stop();
    }
    return 0;
}

// Builds the document's sections and lines; lines before any header go
// to the document's last section.
struct DocSink {
    IniFile* file;
    IniSect* cur;
    bool line(const char* p, vek_s32 n) { return add_line(file, cur, p, n); }
    vek_s32 stop() { return VEK_ERR_FULL; }
};

vek_s32 load_strm(IniFile* file, IStrm* strm) {
    DocSink sink{file, (IniSect*)file->sects.tail};
    vek_s32 r = scan_lines(strm, sink);
    if (r == VEK_ERR_INI_LINE_LONG) {
        drop_all(file);
    }
    return r;
}

// Looks for one value as a fresh document would hold it: the first header
// of the name opens the section searched (the nameless one is the lines
// before any header), its first field of the name is the answer. Once that
// section is over nothing later can change the answer, and the rest of the
// stream is only checked for a line that is too long.
struct FindSink {
    const char* sect;
    vek_s32 sectLen;
    const char* field;
    vek_s32 fieldLen;
    vek::IniHit* hit;
    bool inSect;
    bool done;
    bool line(const char* p, vek_s32 n) {
        if (done) {
            return true;
        }
        const char* name;
        vek_s32 nameLen;
        if (parse_header(p, n, &name, &nameLen)) {
            if (inSect) {
                done = true;  // the section searched is over
            } else if (sectLen > 0 && same_bytes(name, nameLen, sect, sectLen)) {
                inSect = true;
            } else if (sectLen == 0) {
                done = true;  // the nameless section exists only before the first header
            }
            return true;
        }
        vek_s32 b, e;
        if (inSect && field_span(p, n, &b, &e) && same_bytes(p + b, e - b, field, fieldLen)) {
            hit->found = true;
            hit->len = n - e - 1;
            std::memcpy(hit->value, p + e + 1, (size_t)hit->len);
            hit->value[hit->len] = 0;
            done = true;
        }
        return true;
    }
    vek_s32 stop() { return 0; }
};

// ---- writing ----

struct Out {
    IStrm* strm;
    vek_s32 err = 0;
    vek_s32 total = 0;
    void put(const char* p, vek_s32 n) {
        if (n <= 0 || err < 0) {
            return;
        }
        vek_s32 r = IStrm_write(strm, p, n);
        if (r < 0) {
            err = r;
        } else {
            total += n;
        }
    }
    void put(const VekStr* s) { put(VekStr_buf(s), VekStr_len(s)); }
    void eol() { put("\r\n", 2); }
};

vek_s32 sect_out(IniSect* s, IStrm* strm, bool withHeader, bool fieldsOnly) {
    Out o{strm};
    if (withHeader) {
        if (VekStr_len(&s->header) > 0) {
            o.put(&s->header);
            o.eol();
        } else if (VekStr_len(&s->name) > 0) {
            o.put("[", 1);
            o.put(&s->name);
            o.put("]", 1);
            o.eol();
        }
    }
    for (VekListNode* n = s->fields.hdr; n; n = n->next) {
        IniField* f = (IniField*)n;
        if (fieldsOnly && !is_valid(f)) {
            continue;
        }
        if (VekStr_len(&f->line) > 0) {
            o.put(&f->line);
        } else if (is_valid(f)) {
            o.put(&f->name);
            o.put("=", 1);
            o.put(&f->value);
        }
        o.eol();
    }
    return o.err < 0 ? o.err : o.total;
}

vek_s32 doc_out(IniFile* file, IStrm* strm) {
    for (VekListNode* n = file->sects.hdr; n; n = n->next) {
        vek_s32 r = sect_out((IniSect*)n, strm, true, false);
        if (r < 0) {
            return r;
        }
    }
    return 0;
}

// A copy of a section's name and name/value fields only.
IniSect* sect_copy(const IniSect* src) {
    IniSect* s = sect_new(cs(&src->name), VekStr_len(&src->name), "", 0);
    if (!s) {
        return nullptr;
    }
    for (VekListNode* n = src->fields.hdr; n; n = n->next) {
        IniField* f = (IniField*)n;
        if (!is_valid(f)) {
            continue;
        }
        IniField* c = field_new();
        if (!c) {
            break;
        }
        set_bytes(&c->name, cs(&f->name), VekStr_len(&f->name));
        set_bytes(&c->value, cs(&f->value), VekStr_len(&f->value));
        c->flags = f->flags;
        VekList_addTail__(&s->fields, c);
    }
    return s;
}

void append_copy(IniFile* doc, const IniSect* src) {
    IniSect* s = sect_copy(src);
    if (!s) {
        return;
    }
    if (VekStr_len(&s->name) == 0) {
        VekList_addHdr__(&doc->sects, s);  // the nameless section stays first
    } else {
        VekList_addTail__(&doc->sects, s);
    }
    doc->moded = 1;
}

void set_field(IniFile* doc, const char* sect, const IniField* f) {
    if (doc) {
        IniFile_setStr(doc, sect, cs(&f->name), cs(&f->value));
    }
}

} // namespace

namespace {

vek_s32 load_cb(IStrm* strm, void* ctx) {
    return load_strm((IniFile*)ctx, strm);
}

struct FindCtx {
    const char* sect;
    const char* field;
    vek::IniHit* hit;
};

vek_s32 find_cb(IStrm* strm, void* ctx) {
    FindCtx* c = (FindCtx*)ctx;
    vek_s32 sectLen = c->sect ? (vek_s32)std::strlen(c->sect) : 0;
    FindSink sink{c->sect, sectLen, c->field, (vek_s32)std::strlen(c->field), c->hit, sectLen == 0, false};
    c->hit->found = false;
    return scan_lines(strm, sink);
}

} // namespace

namespace vek {

vek_s32 ini_with_file(const char* path, IniStrmFn fn, void* ctx) {
    FileStrm mem;
    vek_s32 err = 0;
    IStrm* s = FileStrm_xcreatex__(&mem, path, "rb", &err, __FILE__, __LINE__);
    if (!s) {
        return VEK_ERR_FILE_OPEN;
    }
    vek_s32 r = fn(s, ctx);
    IStrm_release(s);
    return r;
}

vek_s32 ini_with_data(VekData* data, IniStrmFn fn, void* ctx) {
    MemStrm mem;
    IStrm* s = MemStrm_xcreatex__(&mem, 0, __FILE__, __LINE__);
    MemStrm_attach(s, data);
    vek_s32 r = fn(s, ctx);
    MemStrm_detach(s);  // the chain stays the caller's
    IStrm_release(s);
    return r;
}

vek_s32 ini_with_buf(const char* buf, vek_s32 len, IniStrmFn fn, void* ctx) {
    StrStrm mem;
    IStrm* s = StrStrm_xcreate__(&mem, buf, len < 1 ? -1 : len, __FILE__, __LINE__);
    vek_s32 r = fn(s, ctx);
    IStrm_release(s);
    return r;
}

vek_s32 ini_find(IStrm* strm, const char* sect, const char* field, IniHit* hit) {
    FindCtx c{sect, field, hit};
    return find_cb(strm, &c);
}

vek_s32 ini_answer_str(const char* value, const char* def, char* buf, vek_s32 size) {
    if (value) {
        return vek_strxfrm(buf, value, size);
    }
    if (!def) {
        buf[0] = 0;
        return 0;
    }
    return vek_strxfrm(buf, def, size);
}

vek_s32 ini_answer_strx(const char* value, vek_s32 len, const char* def, VekStr* str) {
    if (value) {
        // Every byte of the value, a NUL among them too, as VekStr_setCstr
        // would copy it from a loaded field.
        VekStr_clear(str);
        VekStr_appdStrx(str, value, len);
    } else {
        VekStr_setStr(str, def);
    }
    return VekStr_len(str);
}

vek_s32 ini_answer_int(const char* value, vek_s32 def) {
    return value ? (vek_s32)std::atoi(value) : def;
}

// A call on a marked list or name: every index that registered the object
// (one, unless a section moved between indexed documents) is stale now.
void watch_touched(const void* obj) {
    ChainLock lock;
    for (SectIndex* ix = g_indexes; ix; ix = ix->next) {
        if (watch_has(ix->watched, obj)) {
            __atomic_fetch_add(&ix->changes, 1u, __ATOMIC_ACQ_REL);
        }
    }
}

} // namespace vek

extern "C" {

// ---- creation and loading ----

VEK_API IniFile* IniFile_new(IniFile* mem) {
    vek_u32 tag = INIFILE_TAG;
    if (!mem) {
        mem = (IniFile*)vek_malloc__(sizeof(IniFile));
        if (!mem) {
            return nullptr;
        }
        tag |= kOwned;
    }
    index_drop(mem);  // one left by a document abandoned at this address
    mem->tag = tag;
    VekList_init(&mem->sects, LIST_TWO_WAY);
    mem->moded = 0;
    return mem;
}

VEK_API void IniFile_delete(IniFile* file) {
    doc_check(file, __LINE__);
    index_drop(file);
    drop_all(file);
    bool owned = (file->tag & kOwned) != 0;
    file->tag = 0;
    if (owned) {
        vek_free__(file);
    }
}

VEK_API vek_s32 IniFile_loadStrm(IniFile* file, IStrm* strm) {
    doc_check(file, __LINE__);
    if (!strm) {
        VEK_ASSERT(strm);
        return VEK_ERR_BAD_ARG;
    }
    return load_strm(file, strm);
}

VEK_API vek_s32 IniFile_loadFile(IniFile* file, const char* path) {
    doc_check(file, __LINE__);
    if (!path) {
        VEK_ASSERT(path);
        return VEK_ERR_BAD_ARG;
    }
    return vek::ini_with_file(path, load_cb, file);
}

VEK_API vek_s32 IniFile_loadData(IniFile* file, VekData* data) {
    doc_check(file, __LINE__);
    return vek::ini_with_data(data, load_cb, file);
}

VEK_API vek_s32 IniFile_loadBuf(IniFile* file, const char* buf, vek_s32 len) {
    doc_check(file, __LINE__);
    return vek::ini_with_buf(buf, len, load_cb, file);
}

} // extern "C"

namespace {

template <class Load>
IniFile* new_loaded(vek_s32* err, Load load) {
    IniFile* doc = IniFile_new(nullptr);
    vek_s32 r = doc ? load(doc) : VEK_ERR_FULL;
    if (r < 0 && doc) {
        IniFile_delete(doc);
        doc = nullptr;
    }
    if (err) {
        *err = r < 0 ? r : 0;
    }
    return doc;
}

} // namespace

extern "C" {

VEK_API IniFile* IniFile_newFile(const char* path, vek_s32* err) {
    return new_loaded(err, [&](IniFile* d) { return IniFile_loadFile(d, path); });
}

VEK_API IniFile* IniFile_newStrm(IStrm* strm, vek_s32* err) {
    return new_loaded(err, [&](IniFile* d) { return IniFile_loadStrm(d, strm); });
}

VEK_API IniFile* IniFile_newData(VekData* data, vek_s32* err) {
    return new_loaded(err, [&](IniFile* d) { return IniFile_loadData(d, data); });
}

VEK_API IniFile* IniFile_newBuf(const char* buf, vek_s32 len, vek_s32* err) {
    return new_loaded(err, [&](IniFile* d) { return IniFile_loadBuf(d, buf, len); });
}

// ---- writing ----

VEK_API vek_s32 IniSect_outStrmx(IniSect* sect, IStrm* strm, vek_s32 withHeader, vek_s32 fieldsOnly) {
    sect_check(sect, __LINE__);
    if (!strm) {
        VEK_ASSERT(strm);
        return VEK_ERR_BAD_ARG;
    }
    return sect_out(sect, strm, withHeader != 0, fieldsOnly != 0);
}

VEK_API vek_s32 IniSect_outStrm(IniSect* sect, IStrm* strm) {
    return IniSect_outStrmx(sect, strm, 1, 0);
}

VEK_API vek_s32 IniFile_outStrmx(IniFile* file, IStrm* strm, vek_s32 append) {
    doc_check(file, __LINE__);
    if (!strm) {
        VEK_ASSERT(strm);
        return VEK_ERR_BAD_ARG;
    }
    if (append) {
        IStrm_seek(strm, 0, 2);
    } else {
        IStrm_clear(strm);  // a file stream refuses: it was opened empty
    }
    vek_s32 r = doc_out(file, strm);
    return r < 0 ? r : (vek_s32)IStrm_size(strm);
}

VEK_API vek_s32 IniFile_outStrm(IniFile* file, IStrm* strm) {
    return IniFile_outStrmx(file, strm, 0);
}

VEK_API vek_s32 IniFile_outFilex(IniFile* file, const char* path, vek_s32 append) {
    doc_check(file, __LINE__);
    if (!path) {
        VEK_ASSERT(path);
        return VEK_ERR_BAD_ARG;
    }
    FileStrm mem;
    vek_s32 err = 0;
    if (append) {
        IStrm* s = FileStrm_xcreatex__(&mem, path, "ab", &err, __FILE__, __LINE__);
        if (!s) {
            return VEK_ERR_FILE_OPEN;
        }
        vek_s32 r = IniFile_outStrmx(file, s, 1);
        vek_s32 c = FileStrm_close(s);
        IStrm_release(s);
        return r < 0 ? r : c;
    }
    // A configuration file is replaced only once the new text is complete
    // and on the disk, so a failed write never loses the old one.
    return vek::SafeFile::write(
        path, [](IStrm* s, void* doc) { return doc_out((IniFile*)doc, s); }, file);
}

VEK_API vek_s32 IniFile_outFile(IniFile* file, const char* path) {
    return IniFile_outFilex(file, path, 0);
}

VEK_API vek_s32 IniFile_outData(IniFile* file, VekData** data) {
    doc_check(file, __LINE__);
    if (!data) {
        VEK_ASSERT(data);
        return VEK_ERR_BAD_ARG;
    }
    MemStrm mem;
    IStrm* s = MemStrm_xcreatex__(&mem, 0, __FILE__, __LINE__);
    vek_s32 r = IniFile_outStrmx(file, s, 0);
    *data = MemStrm_detach(s);
    IStrm_release(s);
    return r;
}

VEK_API vek_s32 IniFile_outBuf(IniFile* file, char** buf) {
    doc_check(file, __LINE__);
    if (!buf) {
        VEK_ASSERT(buf);
        return VEK_ERR_BAD_ARG;
    }
    *buf = nullptr;
    MemStrm mem;
    IStrm* s = MemStrm_xcreatex__(&mem, 0, __FILE__, __LINE__);
    vek_s32 len = IniFile_outStrmx(file, s, 0);
    if (len >= 0) {
        *buf = (char*)vek_malloc__((size_t)len + 1);
        if (*buf) {
            IStrm_seek(s, 0, 0);
            if (len > 0) {
                IStrm_read(s, *buf, len);
            }
            (*buf)[len] = 0;
        } else {
            len = VEK_ERR_FULL;
        }
    }
    IStrm_release(s);
    return len;
}

// ---- state and lookup ----

VEK_API vek_s32 IniFile_moded(const IniFile* file) {
    return doc_check(file, __LINE__)->moded;
}

VEK_API void IniFile_clear(IniFile* file) {
    doc_check(file, __LINE__);
    if (file->sects.len > 0) {
        drop_all(file);
        file->moded = 1;
    }
}

VEK_API VekList* IniFile_sectList(IniFile* file) {
    return &doc_check(file, __LINE__)->sects;
}

VEK_API vek_s32 IniFile_sectCount(const IniFile* file) {
    return doc_check(file, __LINE__)->sects.len;
}

VEK_API IniSect* IniFile_findSect(IniFile* file, const char* sectName) {
    return find_sect(doc_check(file, __LINE__), sectName);
}

VEK_API IniField* IniFile_findField(IniFile* file, const char* sectName, const char* fieldName) {
    doc_check(file, __LINE__);
    if (!field_name_ok(fieldName, "fieldName && *fieldName", __LINE__)) {
        return nullptr;
    }
    return lookup(file, sectName, fieldName);
}

VEK_API vek_s32 IniField_valid(const IniField* field) {
    return is_valid(field_check(field, __LINE__)) ? 1 : 0;
}

VEK_API vek_s32 IniFile_fieldCount(IniFile* file, const char* sectName) {
    IniSect* s = find_sect(doc_check(file, __LINE__), sectName);
    return s ? s->fields.len : VEK_ERR_NOT_FOUND;
}

VEK_API IniSect* IniFile_sectById(IniFile* file, vek_s32 id) {
    doc_check(file, __LINE__);
    if (id < 0) {
        VEK_ASSERT(id >= 0);
        return nullptr;
    }
    VekListNode* n = file->sects.hdr;
    for (; n && id > 0; id--) {
        n = n->next;
    }
    return (IniSect*)n;
}

VEK_API IniField* IniFile_fieldById(IniFile* file, const char* sectName, vek_s32 id) {
    doc_check(file, __LINE__);
    if (id < 0) {
        VEK_ASSERT(id >= 0);
        return nullptr;
    }
    IniSect* s = find_sect(file, sectName);
    if (!s || id >= s->fields.len) {
        return nullptr;
    }
    for (VekListNode* n = s->fields.hdr; n; n = n->next) {
        if (is_valid((IniField*)n) && id-- == 0) {
            return (IniField*)n;
        }
    }
    return nullptr;
}

// ---- reading values ----

VEK_API vek_s32 IniFile_getStr(IniFile* file, const char* sectName, const char* fieldName,
                               const char* def, char* buf, vek_s32 size) {
    doc_check(file, __LINE__);
    if (!field_name_ok(fieldName, "fieldName && *fieldName", __LINE__) || !buf || size < 1) {
        return 0;
    }
    IniField* f = lookup(file, sectName, fieldName);
    return vek::ini_answer_str(f ? cs(&f->value) : nullptr, def, buf, size);
}

VEK_API vek_s32 IniFile_getStrx(IniFile* file, const char* sectName, const char* fieldName,
                                const char* def, VekStr* str) {
    doc_check(file, __LINE__);
    if (!field_name_ok(fieldName, "fieldName && *fieldName", __LINE__) || !str) {
        return 0;
    }
    IniField* f = lookup(file, sectName, fieldName);
    if (f) {
        VekStr_setCstr(str, &f->value);
        return VekStr_len(str);
    }
    return vek::ini_answer_strx(nullptr, 0, def, str);
}

VEK_API vek_s32 IniFile_getInt(IniFile* file, const char* sectName, const char* fieldName, vek_s32 def) {
    doc_check(file, __LINE__);
    if (!field_name_ok(fieldName, "fieldName && *fieldName", __LINE__)) {
        return def;
    }
    IniField* f = lookup(file, sectName, fieldName);
    return vek::ini_answer_int(f ? cs(&f->value) : nullptr, def);
}

// ---- changing values ----

VEK_API vek_s32 IniFile_setStr(IniFile* file, const char* sectName, const char* fieldName, const char* value) {
    doc_check(file, __LINE__);
    if (!field_name_ok(fieldName, "fieldName && *fieldName", __LINE__)) {
        return VEK_ERR_BAD_ARG;
    }
    IniSect* s = find_or_create_sect(file, sectName);
    if (!s) {
        return VEK_ERR_FULL;
    }
    IniField* f = find_field(s, fieldName);
    if (!f) {
        f = field_new();
        if (!f) {
            return VEK_ERR_FULL;
        }
        insert_field(s, f);
    }
    if (!value) {
        value = "";
    }
    field_assign(f, fieldName, (vek_s32)std::strlen(fieldName), value, (vek_s32)std::strlen(value));
    file->moded = 1;
    return 0;
}

VEK_API vek_s32 IniFile_setInt(IniFile* file, const char* sectName, const char* fieldName, vek_s32 n) {
    char buf[16];
    vek_snprintf(buf, sizeof buf, "%d", (int)n);
    return IniFile_setStr(file, sectName, fieldName, buf);
}

VEK_API vek_s32 IniFile_delSect(IniFile* file, const char* sectName) {
    IniSect* s = find_sect(doc_check(file, __LINE__), sectName);
    if (!s) {
        return VEK_ERR_NOT_FOUND;
    }
    VekList_getAny__(&file->sects, s);
    sect_delete(s);
    file->moded = 1;
    return 0;
}

VEK_API vek_s32 IniFile_delField(IniFile* file, const char* sectName, const char* fieldName) {
    doc_check(file, __LINE__);
    if (!field_name_ok(fieldName, "fieldName && *fieldName", __LINE__)) {
        return VEK_ERR_BAD_ARG;
    }
    IniSect* s = find_sect(file, sectName);
    IniField* f = s ? find_field(s, fieldName) : nullptr;
    if (!f) {
        return VEK_ERR_NOT_FOUND;
    }
    VekList_getAny__(&s->fields, f);
    field_delete(f);
    file->moded = 1;
    return 0;
}

VEK_API vek_s32 IniFile_renSect(IniFile* file, const char* sectName, const char* newName) {
    doc_check(file, __LINE__);
    if (!field_name_ok(newName, "newSectName && *newSectName", __LINE__)) {
        return VEK_ERR_BAD_ARG;
    }
    IniSect* s = find_sect(file, sectName);
    if (!s) {
        return VEK_ERR_NOT_FOUND;
    }
    VekStr_setStr(&s->name, newName);
    VekStr_setf(&s->header, "[%s]", newName);
    file->moded = 1;
    return 0;
}

VEK_API vek_s32 IniFile_renField(IniFile* file, const char* sectName, const char* oldName,
                                 const char* newName) {
    doc_check(file, __LINE__);
    if (!oldName || !*oldName || !newName || !*newName) {
        vek_assert__("oldFieldName && *oldFieldName && newFieldName && *newFieldName", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    IniField* f = lookup(file, sectName, oldName);
    if (!f) {
        return VEK_ERR_NOT_FOUND;
    }
    // Only "name=" is written from now on; the value stays readable.
    VekStr_setStr(&f->name, newName);
    VekStr_setStr(&f->line, newName);
    VekStr_appdChar(&f->line, '=');
    file->moded = 1;
    return 0;
}

VEK_API vek_s32 IniFile_moveSect(IniFile* file, const char* srcName, const char* dstName) {
    IniSect* src = find_sect(doc_check(file, __LINE__), srcName);
    if (!src) {
        return VEK_ERR_NOT_FOUND;
    }
    bool existed = find_sect(file, dstName) != nullptr;
    IniSect* dst = find_or_create_sect(file, dstName);
    if (!dst) {
        return VEK_ERR_FULL;
    }
    // Counted, so that a section moved onto itself cannot cycle for ever.
    for (vek_s32 left = src->fields.len; left > 0; left--) {
        IniField* f = (IniField*)VekList_getHdr(&src->fields);
        if (!f) {
            break;
        }
        IniField* same = existed && is_valid(f) ? find_field_as(dst, &f->name) : nullptr;
        if (same) {
            field_take(same, f);
            field_delete(f);
        } else {
            VekList_addTail__(&dst->fields, f);
        }
    }
    VekList_getAny__(&file->sects, src);
    sect_delete(src);
    file->moded = 1;
    return 0;
}

VEK_API vek_s32 IniFile_moveField(IniFile* file, const char* srcSect, const char* fieldName,
                                  const char* dstSect) {
    doc_check(file, __LINE__);
    if (!field_name_ok(fieldName, "srcFieldName && *srcFieldName", __LINE__)) {
        return VEK_ERR_BAD_ARG;
    }
    IniSect* src = find_sect(file, srcSect);
    IniField* f = src ? find_field(src, fieldName) : nullptr;
    if (!f) {
        return VEK_ERR_NOT_FOUND;
    }
    VekList_getAny__(&src->fields, f);
    bool existed = find_sect(file, dstSect) != nullptr;
    IniSect* dst = find_or_create_sect(file, dstSect);
    IniField* same = dst && existed ? find_field(dst, fieldName) : nullptr;
    if (same) {
        field_take(same, f);
        field_delete(f);
    } else if (dst) {
        VekList_addTail__(&dst->fields, f);
    } else {
        field_delete(f);
        return VEK_ERR_FULL;
    }
    file->moded = 1;
    return 0;
}

// ---- exporting and comparing ----

VEK_API vek_s32 IniFile_getSect(IniFile* file, const char* sectName, IStrm* strm) {
    doc_check(file, __LINE__);
    if (!strm) {
        VEK_ASSERT(strm);
        return VEK_ERR_BAD_ARG;
    }
    IniSect* s = find_sect(file, sectName);
    if (!s) {
        return VEK_ERR_NOT_FOUND;
    }
    vek_s32 r = sect_out(s, strm, true, false);
    return r < 0 ? r : (vek_s32)IStrm_size(strm);
}

VEK_API vek_s32 IniFile_getCate(IniFile* file, const char* cateName, IStrm* strm) {
    doc_check(file, __LINE__);
    if (!cateName || !strm) {
        vek_assert__("cateName && strm", __FILE__, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    VekStr prefix;
    VekStr_new(&prefix);
    VekStr_setf(&prefix, "%s.", cateName);
    vek_s32 plen = VekStr_len(&prefix);
    vek_s32 count = 0;
    for (VekListNode* n = file->sects.hdr; n; n = n->next) {
        IniSect* s = (IniSect*)n;
        if (VekStr_len(&s->name) < plen || vek_strincmp(cs(&s->name), cs(&prefix), plen) != 0) {
            continue;
        }
        char head[128 + 4];
        vek_snprintf(head, sizeof head, "[%.127s]\r\n", cs(&s->name) + plen);
        IStrm_write(strm, head, (vek_s32)std::strlen(head));
        sect_out(s, strm, false, false);
        count++;
    }
    VekStr_delete(&prefix);
    return count;
}

VEK_API vek_s32 IniFile_diff(IniFile* oldFile, IniFile* newFile, IniFile* added, IniFile* changed,
                             IniFile* removed) {
    doc_check(oldFile, __LINE__);
    doc_check(newFile, __LINE__);
    bool differs = false;
    for (VekListNode* n = newFile->sects.hdr; n; n = n->next) {
        IniSect* ns = (IniSect*)n;
        const char* name = cs(&ns->name);
        IniSect* os = find_sect_as(oldFile, &ns->name);
        if (!os) {
            differs = true;
            if (added) {
                append_copy(added, ns);
            }
            continue;
        }
        for (VekListNode* m = ns->fields.hdr; m; m = m->next) {
            IniField* nf = (IniField*)m;
            if (!is_valid(nf)) {
                continue;
            }
            IniField* of = find_field_as(os, &nf->name);
            if (!of) {
                differs = true;
                set_field(added, name, nf);
            } else if (vek_stricmp(cs(&of->value), cs(&nf->value)) != 0) {
                differs = true;  // values compare without case, deliberately
                set_field(changed, name, nf);
            }
        }
        for (VekListNode* m = os->fields.hdr; m; m = m->next) {
            IniField* of = (IniField*)m;
            if (is_valid(of) && !find_field_as(ns, &of->name)) {
                differs = true;
                set_field(removed, name, of);
            }
        }
    }
    for (VekListNode* n = oldFile->sects.hdr; n; n = n->next) {
        IniSect* os = (IniSect*)n;
        if (!find_sect_as(newFile, &os->name)) {
            differs = true;
            if (removed) {
                append_copy(removed, os);
            }
        }
    }
    return differs ? 1 : 0;
}

} // extern "C"
