/*
 * CfgIni.cpp - settings over an INI document.
 *
 * The object holds the document as the program sees it (doc) and, while
 * the program has unsaved changes, the document as the file held it at the
 * last load or save (base): a reload compares the file with base to learn
 * what changed on disc, and applies only that over doc. Without unsaved
 * changes base is doc itself and a reload simply takes the file.
 *
 * Watchers are called outside the object's lock; a second, recursive lock
 * is held around the calls, which is what lets CfgIni_delWatch wait for a
 * running call of the watcher it removes.
 */
#include <cstring>
#include "CfgIni.h"
#include "IniRead.h"
#include "OsUtf8.h"
#include "VekCore.h"
#include "VekStr.h"

namespace {

struct Watch {
    CfgIni_changeFn fn;
    void* ctx;
};

bool blank(char c) {
    return c == ' ' || c == '\t';
}

// A string whose first 120 bytes need no allocation: a value read for a
// number or a flag is always there, even when memory is short.
struct LocalStr {
    VekStr s;
    vek_u32 buf[(STRDATA_HDR + 120) / 4];
    LocalStr() { StrExt_new__(&s, buf, 120); }
    ~LocalStr() { VekStr_delete(&s); }
    LocalStr(const LocalStr&) = delete;
    LocalStr& operator=(const LocalStr&) = delete;
};

} // namespace

struct CfgIni {
    AlMutex lock;
    AlMutex dispatch;
    char* path;
    const CfgIniDef* defs;
    vek_s32 count;
    IniFile* doc;
    IniFile* base;  // null while doc has no unsaved change
    vek_s32 dirty;
    Watch* watches;
    vek_s32 watchCount;
    vek_s32 watchCap;
    vek_s32 dispatching;  // depth of watcher calls in progress on some thread
};

namespace {

struct Guard {
    explicit Guard(AlMutex* m) : m_(m) { AlMutex_lock(m_); }
    ~Guard() { AlMutex_unlock(m_); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    AlMutex* m_;
};

bool same_name(const char* a, const char* b) {
    vek_s32 an;
    vek_s32 bn;
    a = vek::ini_trim(a, &an);
    b = vek::ini_trim(b, &bn);
    return an == bn && (an == 0 || vek_strincmp(a, b, an) == 0);
}

const CfgIniDef* find_def(const CfgIni* c, const char* sect, const char* key) {
    for (vek_s32 i = 0; i < c->count; i++) {
        if (same_name(c->defs[i].key, key) && same_name(c->defs[i].sect, sect)) {
            return &c->defs[i];
        }
    }
    return nullptr;
}

// ---- parsing the typed forms ----

bool parse_int(const char* s, vek_s32* out) {
    while (blank(*s)) {
        s++;
    }
    bool neg = *s == '-';
    if (*s == '-' || *s == '+') {
        s++;
    }
    bool hex = s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    s += hex ? 2 : 0;
    vek_s64 v = 0;
    const char* d = s;
    for (; *s; s++) {
        unsigned c = (unsigned char)*s;
        unsigned x = c - '0' < 10 ? c - '0' : hex && (c | 0x20) - 'a' < 6 ? (c | 0x20) - 'a' + 10 : 99;
        if (x == 99) {
            break;
        }
        v = v * (hex ? 16 : 10) + x;
        if (v > 0x80000000LL) {
            return false;
        }
    }
    while (blank(*s)) {
        s++;
    }
    if (s == d || *s || (!neg && v > 0x7FFFFFFF)) {
        return false;
    }
    *out = (vek_s32)(neg ? -v : v);
    return true;
}

// The spellings, each pair true/false; the index also picks the family
// a setter writes in.
const char* const kBools[][2] = {{"1", "0"}, {"true", "false"}, {"yes", "no"}, {"on", "off"}};

// The family (0..3) and the value of a boolean text; -1 when it is none.
vek_s32 parse_bool(const char* s, bool* out) {
    for (vek_s32 f = 0; f < 4; f++) {
        for (vek_s32 v = 0; v < 2; v++) {
            if (vek_stricmp(s, kBools[f][v]) == 0) {
                *out = v == 0;
                return f;
            }
        }
    }
    return -1;
}

bool in_range(const CfgIniDef* d, vek_s32 v) {
    return !d || d->type != CFGINI_INT || (d->min == 0 && d->max == 0) || (v >= d->min && v <= d->max);
}

// The items of a list value, each appended to store with its terminator;
// returns the count.
vek_s32 split_list(const char* v, VekStr* store) {
    vek_s32 n = 0;
    if (!*v) {
        return 0;
    }
    const char* p = v;
    for (;;) {
        while (blank(*p)) {
            p++;
        }
        const char* e = p;
        bool quoted = *p == '"';
        while (*e && (quoted ? true : *e != ',')) {
            if (quoted && e > p && *e == '"') {
                if (e[1] == '"') {
                    e++;
                } else {
                    e++;
                    break;
                }
            }
            e++;
        }
        vek_s32 before = VekStr_len(store);
        if (vek::ini_value(p, (vek_s32)(e - p), false, store) != 0) {
            return VEK_ERR_FULL;
        }
        while (quoted && *e && *e != ',') {
            e++;  // text after the closing quote is dropped
        }
        VekStr_appdStrx(store, "", 1);
        if (VekStr_len(store) <= before || VekStr_buf(store)[VekStr_len(store) - 1] != 0) {
            return VEK_ERR_FULL;
        }
        n++;
        if (*e != ',') {
            return n;
        }
        p = e + 1;
    }
}

// ---- the document ----

// A list's value: trimmed and without its comment, but with the quotes of
// its items, which split_list reads (";" inside them is no comment).
bool list_value(const char* v, vek_s32 n, VekStr* out) {
    vek_s32 b = 0;
    while (b < n && blank(v[b])) {
        b++;
    }
    vek_s32 e = n;
    bool in = false;
    for (vek_s32 i = b; i < n; i++) {
        if (v[i] == '"') {
            in = !in;
        } else if (!in && v[i] == ';' && i > b && blank(v[i - 1])) {
            e = i;
            break;
        }
    }
    while (e > b && blank(v[e - 1])) {
        e--;
    }
    vek_s32 before = VekStr_len(out);
    VekStr_appdStrx(out, v + b, e - b);
    return VekStr_len(out) == before + (e - b);
}

// The setting's raw value in doc, decoded into out (a list's only
// trimmed): 1, 0 when absent, -201 when out could not hold it.
vek_s32 file_value(IniFile* doc, const char* sect, const char* key, VekStr* out, bool list = false) {
    IniField* f = vek::ini_key(vek::ini_sect(doc, sect), key);
    if (!f) {
        return 0;
    }
    if (list) {
        return list_value(VekStr_buf(&f->value), VekStr_len(&f->value), out) ? 1 : VEK_ERR_FULL;
    }
    return vek::ini_value(VekStr_buf(&f->value), VekStr_len(&f->value), true, out) == 0 ? 1 : VEK_ERR_FULL;
}

// The value a reader gets, into out, and where it came from.
vek_s32 effective(CfgIni* c, const char* sect, const char* key, vek_s32 type, VekStr* out) {
    const CfgIniDef* d = find_def(c, sect, key);
    if (d && type != CFGINI_STR && d->type != type) {
        vek_assert__("the setting is read as the type it was declared with", __FILE__, __LINE__);
    }
    VekStr_clear(out);
    vek_s32 got = file_value(c->doc, sect, key, out, type == CFGINI_LIST);
    if (got < 0) {
        return got;
    }
    if (got) {
        const char* v = VekStr_buf(out);
        vek_s32 t = d ? d->type : type;
        vek_s32 iv;
        bool bv;
        bool ok = t == CFGINI_INT ? parse_int(v, &iv) && in_range(d, iv) : t == CFGINI_BOOL ? parse_bool(v, &bv) >= 0 : true;
        if (ok || !d) {
            return ok ? CFGINI_FROM_FILE : CFGINI_INVALID;
        }
        VekStr_setStr(out, d->def ? d->def : "");
        return VekStr_len(out) == (vek_s32)std::strlen(d->def ? d->def : "") ? CFGINI_INVALID : VEK_ERR_FULL;
    }
    if (d) {
        VekStr_setStr(out, d->def ? d->def : "");
        return VekStr_len(out) == (vek_s32)std::strlen(d->def ? d->def : "") ? CFGINI_FROM_DEFAULT : VEK_ERR_FULL;
    }
    return VEK_ERR_NOT_FOUND;
}

// Before the first unsaved change, base keeps the document as loaded.
vek_s32 keep_base(CfgIni* c) {
    if (c->base || !c->path) {
        return 0;
    }
    char* text = nullptr;
    vek_s32 n = IniFile_outBuf(c->doc, &text);
    vek_s32 err = n < 0 ? n : 0;
    IniFile* b = n >= 0 ? IniFile_newBuf(text ? text : "", n, &err) : nullptr;
    vek_free__(text);
    if (!b) {
        return err < 0 ? err : VEK_ERR_FULL;
    }
    c->base = b;
    return 0;
}

// Sets the encoded text of a setting in doc: an existing line keeps what
// stands before its value (its blanks after "=" too); a new one goes in
// through the document.
vek_s32 put_value(IniFile* doc, const char* sect, const char* key, const char* text) {
    IniSect* s = vek::ini_sect(doc, sect);
    IniField* f = vek::ini_key(s, key);
    if (!f) {
        vek_s32 kn;
        const char* k = key;
        while (blank(*k)) {
            k++;
        }
        kn = (vek_s32)std::strlen(k);
        while (kn > 0 && blank(k[kn - 1])) {
            kn--;
        }
        VekStr name;
        VekStr_new(&name);
        VekStr_setStrx(&name, k, kn);
        vek_s32 r = VekStr_len(&name) == kn ? IniFile_setStr(doc, s ? VekStr_buf(&s->name) : sect, VekStr_buf(&name), text)
                                            : VEK_ERR_FULL;
        VekStr_delete(&name);
        return r == 0 && vek::ini_key(vek::ini_sect(doc, sect), key) ? 0 : VEK_ERR_FULL;
    }
    const char* val = VekStr_buf(&f->value);
    vek_s32 vlen = VekStr_len(&f->value);
    vek_s32 lead = 0;
    while (lead < vlen && blank(val[lead])) {
        lead++;
    }
    // A comment behind an unquoted value stays behind the new one.
    vek_s32 tail = vlen;
    if (lead < vlen && val[lead] != '"') {
        for (vek_s32 i = lead + 1; i < vlen; i++) {
            if (val[i] == ';' && blank(val[i - 1])) {
                tail = i - 1;
                while (tail > lead && blank(val[tail - 1])) {
                    tail--;
                }
                break;
            }
        }
    }
    vek_s32 prefix = VekStr_len(&f->line) - vlen;
    VekStr line;
    VekStr value;
    VekStr_new(&line);
    VekStr_new(&value);
    VekStr_setStrx(&value, val, lead);
    VekStr_appdStr(&value, text);
    VekStr_appdStrx(&value, val + tail, vlen - tail);
    VekStr_setStrx(&line, VekStr_buf(&f->line), prefix > 0 ? prefix : 0);
    VekStr_appdStrx(&line, VekStr_buf(&value), VekStr_len(&value));
    vek_s32 vwant = lead + (vek_s32)std::strlen(text) + (vlen - tail);
    vek_s32 r = VEK_ERR_FULL;
    if (VekStr_len(&line) == (prefix > 0 ? prefix : 0) + vwant && VekStr_len(&value) == vwant) {
        VekStr_setCstr(&f->value, &value);
        VekStr_setCstr(&f->line, &line);
        doc->moded = 1;
        r = 0;
    }
    VekStr_delete(&line);
    VekStr_delete(&value);
    return r;
}

vek_s32 set_text(CfgIni* c, const char* sect, const char* key, const char* text) {
    Guard g(&c->lock);
    vek_s32 r = keep_base(c);
    if (r == 0) {
        r = put_value(c->doc, sect, key, text);
    }
    if (r == 0) {
        c->dirty = 1;
    }
    return r;
}

bool args_ok(const CfgIni* c, const char* key) {
    if (!c || !key || !*key) {
        VEK_ASSERT(c && key && *key);
        return false;
    }
    return true;
}

// ---- reload ----

// The changed settings of one reload, as "sect\0key\0" pairs.
struct Changes {
    VekStr list;
    vek_s32 count = 0;
    Changes() { VekStr_new(&list); }
    ~Changes() { VekStr_delete(&list); }
    Changes(const Changes&) = delete;
    Changes& operator=(const Changes&) = delete;
    void add(const char* sect, const char* key) {
        VekStr_appdStrx(&list, sect, (vek_s32)std::strlen(sect) + 1);
        VekStr_appdStrx(&list, key, (vek_s32)std::strlen(key) + 1);
        count++;
    }
    bool has(const char* sect, const char* key) const {
        const char* p = VekStr_buf(&list);
        const char* end = p + VekStr_len(&list);
        while (p < end) {
            const char* k = p + std::strlen(p) + 1;
            if (same_name(p, sect) && same_name(k, key)) {
                return true;
            }
            p = k + std::strlen(k) + 1;
        }
        return false;
    }
};

// The settings whose decoded values differ between a and b (present in
// one only, or different), with b's spelling first, then a's.
void differ(IniFile* a, IniFile* b, Changes* out) {
    VekStr va;
    VekStr vb;
    VekStr_new(&va);
    VekStr_new(&vb);
    IniFile* docs[2] = {b, a};
    for (IniFile* d : docs) {
        IniFile* other = d == a ? b : a;
        for (VekListNode* n = IniFile_sectList(d)->hdr; n; n = n->next) {
            IniSect* s = (IniSect*)n;
            const char* sn = VekStr_buf(&s->name);
            if (vek::ini_sect(d, sn) != s) {
                continue;  // a later duplicate: readers never see it
            }
            for (VekListNode* m = s->fields.hdr; m; m = m->next) {
                IniField* f = (IniField*)m;
                const char* kn = VekStr_buf(&f->name);
                if (!IniField_valid(f) || vek::ini_key(s, kn) != f || out->has(sn, kn)) {
                    continue;
                }
                VekStr_clear(&va);
                VekStr_clear(&vb);
                file_value(d, sn, kn, &va);
                bool there = file_value(other, sn, kn, &vb) > 0;
                if (!there || VekStr_len(&va) != VekStr_len(&vb) ||
                    std::memcmp(VekStr_buf(&va), VekStr_buf(&vb), (size_t)VekStr_len(&va)) != 0) {
                    vek_s32 sl;
                    vek_s32 kl;
                    const char* st = vek::ini_trimmed(&s->name, &sl);
                    const char* kt = vek::ini_trimmed(&f->name, &kl);
                    VekStr sect;
                    VekStr key;
                    VekStr_new(&sect);
                    VekStr_new(&key);
                    VekStr_setStrx(&sect, st, sl);
                    VekStr_setStrx(&key, kt, kl);
                    out->add(VekStr_buf(&sect), VekStr_buf(&key));
                    VekStr_delete(&sect);
                    VekStr_delete(&key);
                }
            }
        }
    }
    VekStr_delete(&va);
    VekStr_delete(&vb);
}

void call_watchers(CfgIni* c, const Changes& ch) {
    Guard d(&c->dispatch);
    const char* p = VekStr_buf(&ch.list);
    const char* end = p + VekStr_len(&ch.list);
    while (p < end) {
        const char* key = p + std::strlen(p) + 1;
        for (vek_s32 i = 0;; i++) {
            Watch w{nullptr, nullptr};
            {
                Guard g(&c->lock);
                if (i >= c->watchCount) {
                    break;
                }
                w = c->watches[i];
                c->dispatching++;
            }
            if (w.fn) {
                w.fn(w.ctx, c, p, key);
            }
            Guard g(&c->lock);
            c->dispatching--;
        }
        p = key + std::strlen(key) + 1;
    }
    Guard g(&c->lock);
    if (c->dispatching == 0) {
        vek_s32 k = 0;
        for (vek_s32 i = 0; i < c->watchCount; i++) {
            if (c->watches[i].fn) {
                c->watches[k++] = c->watches[i];
            }
        }
        c->watchCount = k;
    }
}

} // namespace

extern "C" {

VEK_API CfgIni* CfgIni_new(const char* path, const CfgIniDef* defs, vek_s32 count, vek_s32* err) {
    vek_s32 e = 0;
    CfgIni* c = (CfgIni*)vek_malloc__(sizeof(CfgIni));
    if (!c) {
        if (err) {
            *err = VEK_ERR_FULL;
        }
        return nullptr;
    }
    std::memset(c, 0, sizeof *c);
    c->defs = defs;
    c->count = defs && count > 0 ? count : 0;
    if (path && *path) {
        size_t n = std::strlen(path);
        c->path = (char*)vek_malloc__(n + 1);
        if (c->path) {
            std::memcpy(c->path, path, n + 1);
            // Only a missing file starts empty; one that is there but
            // cannot be read (or is no file) must not be replaced by
            // defaults on save.
            VekStat st;
            vek_s32 found = vek_stat_utf8(path, &st);
            if (found == VEK_ERR_NOT_FOUND) {
                e = VEK_ERR_FILE_OPEN;
                c->doc = IniFile_new(nullptr);
            } else if (found == 0 && st.kind == VEK_FS_DIR) {
                e = VEK_ERR_FILE_OPEN;
            } else {
                c->doc = IniFile_newFile(path, &e);
            }
        } else {
            e = VEK_ERR_FULL;
        }
    } else {
        c->doc = IniFile_new(nullptr);
    }
    if (!c->doc) {
        vek_free__(c->path);
        vek_free__(c);
        if (err) {
            *err = e ? e : VEK_ERR_FULL;
        }
        return nullptr;
    }
    AlMutex_new(&c->lock);
    AlMutex_new(&c->dispatch);
    // A default that does not parse as its type is the table's mistake.
    for (vek_s32 i = 0; i < c->count; i++) {
        const CfgIniDef& d = c->defs[i];
        vek_s32 iv = 0;
        bool bv;
        const char* v = d.def ? d.def : "";
        if ((d.type == CFGINI_INT && !(parse_int(v, &iv) && in_range(&d, iv))) ||
            (d.type == CFGINI_BOOL && parse_bool(v, &bv) < 0) || !d.key || !*d.key) {
            vek_assert__("the default of a declared setting is valid for its type", __FILE__, __LINE__);
        }
    }
    if (err) {
        *err = e;
    }
    return c;
}

VEK_API void CfgIni_delete(CfgIni* c) {
    if (!c) {
        return;
    }
    IniFile_delete(c->doc);
    if (c->base) {
        IniFile_delete(c->base);
    }
    AlMutex_delete(&c->lock);
    AlMutex_delete(&c->dispatch);
    vek_free__(c->watches);
    vek_free__(c->path);
    vek_free__(c);
}

VEK_API const char* CfgIni_path(const CfgIni* c) {
    return c ? c->path : nullptr;
}

VEK_API vek_s32 CfgIni_getStr(CfgIni* c, const char* sect, const char* key, char* buf, vek_s32 size) {
    LocalStr local;
    VekStr& v = local.s;
    vek_s32 n = CfgIni_getStrx(c, sect, key, &v);
    if (buf && size > 0) {
        vek_s32 k = n < size - 1 ? n : size - 1;
        std::memcpy(buf, VekStr_buf(&v), (size_t)(k > 0 ? k : 0));
        buf[k > 0 ? k : 0] = 0;
    }
    return n;
}

VEK_API vek_s32 CfgIni_getStrx(CfgIni* c, const char* sect, const char* key, VekStr* out) {
    if (!args_ok(c, key) || !out) {
        VEK_ASSERT(out);
        return VEK_ERR_BAD_ARG;
    }
    Guard g(&c->lock);
    vek_s32 r = effective(c, sect, key, CFGINI_STR, out);
    if (r == VEK_ERR_FULL) {
        VekStr_clear(out);
        return r;
    }
    return VekStr_len(out);
}

VEK_API vek_s32 CfgIni_getInt(CfgIni* c, const char* sect, const char* key) {
    if (!args_ok(c, key)) {
        return 0;
    }
    LocalStr v;
    vek_s32 n = 0;
    {
        Guard g(&c->lock);
        effective(c, sect, key, CFGINI_INT, &v.s);
    }
    if (!parse_int(VekStr_buf(&v.s), &n)) {
        n = 0;
    }
    return n;
}

VEK_API vek_bool CfgIni_getBool(CfgIni* c, const char* sect, const char* key) {
    if (!args_ok(c, key)) {
        return 0;
    }
    LocalStr v;
    bool b = false;
    {
        Guard g(&c->lock);
        effective(c, sect, key, CFGINI_BOOL, &v.s);
    }
    if (parse_bool(VekStr_buf(&v.s), &b) < 0) {
        b = false;
    }
    return b ? 1 : 0;
}

VEK_API vek_s32 CfgIni_getList(CfgIni* c, const char* sect, const char* key, VekStr* store, const char** items,
                               vek_s32 cap) {
    if (!args_ok(c, key) || !store || (cap > 0 && !items)) {
        VEK_ASSERT(store && (items || cap <= 0));
        return VEK_ERR_BAD_ARG;
    }
    VekStr v;
    VekStr_new(&v);
    vek_s32 r;
    {
        Guard g(&c->lock);
        r = effective(c, sect, key, CFGINI_LIST, &v);
    }
    VekStr_clear(store);
    vek_s32 n = r == VEK_ERR_FULL ? 0 : split_list(VekStr_buf(&v), store);
    VekStr_delete(&v);
    if (r == VEK_ERR_FULL || n < 0) {
        VekStr_clear(store);
        return VEK_ERR_FULL;
    }
    const char* p = VekStr_buf(store);
    const char* end = p + VekStr_len(store);
    vek_s32 i = 0;
    for (; p < end && i < n; i++) {
        if (i < cap) {
            items[i] = p;
        }
        p += std::strlen(p) + 1;
    }
    return i;
}

VEK_API vek_s32 CfgIni_source(CfgIni* c, const char* sect, const char* key) {
    if (!args_ok(c, key)) {
        return VEK_ERR_BAD_ARG;
    }
    LocalStr v;
    Guard g(&c->lock);
    return effective(c, sect, key, CFGINI_STR, &v.s);
}

VEK_API vek_s32 CfgIni_setStr(CfgIni* c, const char* sect, const char* key, const char* value) {
    if (!args_ok(c, key)) {
        return VEK_ERR_BAD_ARG;
    }
    value = value ? value : "";
    if (std::strpbrk(value, "\r\n")) {
        return VEK_ERR_BAD_ARG;
    }
    VekStr text;
    VekStr_new(&text);
    vek_s32 r = vek::ini_quote(value, &text);
    if (r == 0) {
        r = set_text(c, sect, key, VekStr_buf(&text));
    }
    VekStr_delete(&text);
    return r;
}

VEK_API vek_s32 CfgIni_setInt(CfgIni* c, const char* sect, const char* key, vek_s32 value) {
    if (!args_ok(c, key)) {
        return VEK_ERR_BAD_ARG;
    }
    if (!in_range(find_def(c, sect, key), value)) {
        return VEK_ERR_BAD_ARG;
    }
    char text[16];
    vek_snprintf(text, sizeof text, "%d", value);
    return set_text(c, sect, key, text);
}

VEK_API vek_s32 CfgIni_setBool(CfgIni* c, const char* sect, const char* key, vek_bool value) {
    if (!args_ok(c, key)) {
        return VEK_ERR_BAD_ARG;
    }
    // The spelling of the value there, else of the default.
    vek_s32 family = -1;
    char sample[8] = "";
    {
        Guard g(&c->lock);
        VekStr v;
        VekStr_new(&v);
        bool b;
        const CfgIniDef* d = find_def(c, sect, key);
        if (file_value(c->doc, sect, key, &v) > 0) {
            family = parse_bool(VekStr_buf(&v), &b);
        }
        if (family < 0 && d && d->def) {
            VekStr_setStr(&v, d->def);
            family = parse_bool(VekStr_buf(&v), &b);
        }
        if (family >= 0) {
            vek_snprintf(sample, sizeof sample, "%s", VekStr_buf(&v));
        }
        VekStr_delete(&v);
    }
    char text[8];
    vek_snprintf(text, sizeof text, "%s", kBools[family < 0 ? 1 : family][value ? 0 : 1]);
    // Its letter case: all capitals, a capital first, or small.
    bool upper = sample[0] >= 'A' && sample[0] <= 'Z';
    bool allUpper = upper && sample[1] >= 'A' && sample[1] <= 'Z';
    for (char* t = text; *t; t++) {
        if (allUpper || (upper && t == text)) {
            *t = (char)(*t >= 'a' && *t <= 'z' ? *t - 32 : *t);
        }
    }
    return set_text(c, sect, key, text);
}

VEK_API vek_s32 CfgIni_setList(CfgIni* c, const char* sect, const char* key, const char* const* items,
                               vek_s32 count) {
    if (!args_ok(c, key) || (count > 0 && !items)) {
        VEK_ASSERT(items || count <= 0);
        return VEK_ERR_BAD_ARG;
    }
    VekStr text;
    VekStr_new(&text);
    vek_s32 r = 0;
    vek_s32 want = 0;  // the length the text must reach
    for (vek_s32 i = 0; i < count && r == 0; i++) {
        const char* it = items[i] ? items[i] : "";
        if (std::strpbrk(it, "\r\n")) {
            r = VEK_ERR_BAD_ARG;
            break;
        }
        size_t n = std::strlen(it);
        bool quote = n == 0 || std::strpbrk(it, ",\";") || blank(it[0]) || blank(it[n - 1]);
        if (i > 0) {
            VekStr_appdStr(&text, ", ");
            want += 2;
        }
        want += (vek_s32)n;
        if (!quote) {
            VekStr_appdStr(&text, it);
            continue;
        }
        VekStr_appdChar(&text, '"');
        for (const char* p = it; *p; p++) {
            if (*p == '"') {
                VekStr_appdChar(&text, '"');
                want++;
            }
            VekStr_appdChar(&text, *p);
        }
        VekStr_appdChar(&text, '"');
        want += 2;
    }
    if (r == 0 && VekStr_len(&text) != want) {
        r = VEK_ERR_FULL;
    }
    // One empty item needs its quotes to stay an item; none is "".
    if (r == 0) {
        r = set_text(c, sect, key, VekStr_buf(&text));
    }
    VekStr_delete(&text);
    return r;
}

VEK_API vek_s32 CfgIni_unset(CfgIni* c, const char* sect, const char* key) {
    if (!args_ok(c, key)) {
        return VEK_ERR_BAD_ARG;
    }
    Guard g(&c->lock);
    IniSect* s = vek::ini_sect(c->doc, sect);
    IniField* f = vek::ini_key(s, key);
    if (!f) {
        return VEK_ERR_NOT_FOUND;
    }
    vek_s32 r = keep_base(c);
    if (r != 0) {
        return r;
    }
    // The document removes its first line of that exact name, which is f.
    VekStr name;
    VekStr_new(&name);
    VekStr_setCstr(&name, &f->name);
    r = IniFile_delField(c->doc, VekStr_buf(&s->name), VekStr_buf(&name));
    VekStr_delete(&name);
    if (r == 0) {
        c->dirty = 1;
    }
    return r;
}

VEK_API vek_s32 CfgIni_moded(CfgIni* c) {
    if (!c) {
        return 0;
    }
    Guard g(&c->lock);
    return c->dirty;
}

VEK_API vek_s32 CfgIni_save(CfgIni* c) {
    if (!c) {
        VEK_ASSERT(c);
        return VEK_ERR_BAD_ARG;
    }
    Guard g(&c->lock);
    if (!c->path) {
        return VEK_ERR_NOT_OPEN;
    }
    if (!c->dirty) {
        return 0;
    }
    vek_s32 r = IniFile_outFile(c->doc, c->path);
    if (r == 0) {
        c->dirty = 0;
        if (c->base) {
            IniFile_delete(c->base);
            c->base = nullptr;
        }
    }
    return r;
}

VEK_API vek_s32 CfgIni_reload(CfgIni* c) {
    if (!c) {
        VEK_ASSERT(c);
        return VEK_ERR_BAD_ARG;
    }
    if (!c->path) {
        return VEK_ERR_NOT_OPEN;
    }
    vek_s32 err = 0;
    IniFile* disk = IniFile_newFile(c->path, &err);
    if (!disk) {
        return err ? err : VEK_ERR_FULL;
    }
    Changes ch;
    {
        Guard g(&c->lock);
        if (!c->base) {
            differ(c->doc, disk, &ch);
            IniFile_delete(c->doc);
            c->doc = disk;
        } else {
            // What changed on disc since base, applied over the program's
            // document; reported where that changed what readers get.
            Changes ext;
            differ(c->base, disk, &ext);
            VekStr v;
            VekStr text;
            VekStr before;
            VekStr_new(&v);
            VekStr_new(&text);
            VekStr_new(&before);
            const char* p = VekStr_buf(&ext.list);
            const char* end = p + VekStr_len(&ext.list);
            while (p < end && err == 0) {
                const char* key = p + std::strlen(p) + 1;
                VekStr_clear(&before);
                bool had = file_value(c->doc, p, key, &before) > 0;
                VekStr_clear(&v);
                if (file_value(disk, p, key, &v) > 0) {
                    VekStr_clear(&text);
                    err = vek::ini_quote(VekStr_buf(&v), &text);
                    err = err ? err : put_value(c->doc, p, key, VekStr_buf(&text));
                } else if (had) {
                    IniSect* s = vek::ini_sect(c->doc, p);
                    IniField* f = vek::ini_key(s, key);
                    VekStr_setCstr(&text, &f->name);
                    err = IniFile_delField(c->doc, VekStr_buf(&s->name), VekStr_buf(&text));
                }
                VekStr_clear(&v);
                bool has = file_value(c->doc, p, key, &v) > 0;
                if (had != has || VekStr_len(&v) != VekStr_len(&before) ||
                    std::memcmp(VekStr_buf(&v), VekStr_buf(&before), (size_t)VekStr_len(&v)) != 0) {
                    ch.add(p, key);
                }
                p = key + std::strlen(key) + 1;
            }
            VekStr_delete(&v);
            VekStr_delete(&text);
            VekStr_delete(&before);
            IniFile_delete(c->base);
            c->base = disk;
        }
    }
    if (err != 0) {
        return err;
    }
    call_watchers(c, ch);
    return ch.count;
}

VEK_API vek_s32 CfgIni_addWatch(CfgIni* c, CfgIni_changeFn fn, void* ctx) {
    if (!c || !fn) {
        VEK_ASSERT(c && fn);
        return VEK_ERR_BAD_ARG;
    }
    Guard g(&c->lock);
    for (vek_s32 i = 0; i < c->watchCount; i++) {
        if (c->watches[i].fn == fn && c->watches[i].ctx == ctx) {
            return VEK_ERR_NAME_EXISTS;
        }
    }
    if (c->watchCount == c->watchCap) {
        vek_s32 cap = c->watchCap ? c->watchCap * 2 : 4;
        Watch* w = (Watch*)vek::heap_realloc(c->watches, sizeof(Watch) * (size_t)cap);
        if (!w) {
            return VEK_ERR_FULL;
        }
        c->watches = w;
        c->watchCap = cap;
    }
    c->watches[c->watchCount++] = Watch{fn, ctx};
    return 0;
}

VEK_API vek_s32 CfgIni_delWatch(CfgIni* c, CfgIni_changeFn fn, void* ctx) {
    if (!c || !fn) {
        VEK_ASSERT(c && fn);
        return VEK_ERR_BAD_ARG;
    }
    // Taking the dispatch lock waits for the calls running on other
    // threads; on the calling thread (inside a callback) it is taken again.
    Guard d(&c->dispatch);
    Guard g(&c->lock);
    for (vek_s32 i = 0; i < c->watchCount; i++) {
        if (c->watches[i].fn == fn && c->watches[i].ctx == ctx) {
            if (c->dispatching > 0) {
                c->watches[i].fn = nullptr;  // the running dispatch compacts
            } else {
                std::memmove(c->watches + i, c->watches + i + 1, sizeof(Watch) * (size_t)(c->watchCount - i - 1));
                c->watchCount--;
            }
            return 0;
        }
    }
    return VEK_ERR_NOT_FOUND;
}

} // extern "C"
