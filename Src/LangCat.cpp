/*
 * LangCat.cpp - message catalogues.
 *
 * A catalogue is one hash table of every message it was given, the first
 * text of a name winning: the files are added from the most wanted
 * language to the least, so a lookup is one probe however many languages
 * stand behind it. Names and texts live in one growing block and the
 * table holds offsets into it:
 *
 *     pool: "section\1key\0text\0section\1key\0text\0..."
 *     slots: (hash, offset of the name) per slot, 0 offset = free
 */
#include <cstring>
#include "AlPlat.h"
#include "IniRead.h"
#include "LangCat.h"
#include "OsUtf8.h"
#include "VekCore.h"
#include "VekStr.h"

namespace {

struct Slot {
    vek_u32 hash;
    vek_u32 at;  // offset of the name in the pool + 1; 0: free
};

vek_u32 fold(vek_u32 c) {
    return c >= 'A' && c <= 'Z' ? c + 32 : c;
}

// "section\1key" as the table keys it: trimmed, small letters.
void lookup_name(const char* sect, vek_s32 sn, const char* key, vek_s32 kn, VekStr* out) {
    VekStr_clear(out);
    for (vek_s32 i = 0; i < sn; i++) {
        VekStr_appdChar(out, (char)fold((vek_u8)sect[i]));
    }
    VekStr_appdChar(out, '\1');
    for (vek_s32 i = 0; i < kn; i++) {
        VekStr_appdChar(out, (char)fold((vek_u8)key[i]));
    }
}

vek_u32 hash_of(const char* p, vek_s32 n) {
    vek_u32 h = 2166136261u;
    for (vek_s32 i = 0; i < n; i++) {
        h = (h ^ (vek_u8)p[i]) * 16777619u;
    }
    return h ? h : 1;
}

} // namespace

struct LangCat {
    char* pool;
    vek_u32 used;
    vek_u32 cap;
    Slot* slots;
    vek_u32 mask;  // slots - 1
    vek_u32 count;
    char tag[32];
};

namespace {

bool pool_add(LangCat* c, const char* p, vek_s32 n, vek_u32* at) {
    if (c->used + (vek_u32)n + 1 > c->cap) {
        vek_u32 cap = c->cap ? c->cap : 4096;
        while (cap < c->used + (vek_u32)n + 1) {
            if (cap > 0x3FFFFFFF) {
                return false;
            }
            cap *= 2;
        }
        char* q = (char*)vek::heap_realloc(c->pool, cap);
        if (!q) {
            return false;
        }
        c->pool = q;
        c->cap = cap;
    }
    *at = c->used;
    std::memcpy(c->pool + c->used, p, (size_t)n);
    c->pool[c->used + (vek_u32)n] = 0;
    c->used += (vek_u32)n + 1;
    return true;
}

// The slot of a name: its own when present, else the free one it goes to.
Slot* probe(const LangCat* c, const char* name, vek_s32 n, vek_u32 h) {
    for (vek_u32 i = h & c->mask;; i = (i + 1) & c->mask) {
        Slot* s = &c->slots[i];
        if (!s->at || (s->hash == h && !std::memcmp(c->pool + s->at - 1, name, (size_t)n) &&
                       c->pool[s->at - 1 + (vek_u32)n] == 0)) {
            return s;
        }
    }
}

bool grow_slots(LangCat* c) {
    vek_u32 n = c->slots ? (c->mask + 1) * 2 : 64;
    Slot* s = (Slot*)vek_malloc__(sizeof(Slot) * n);
    if (!s) {
        return false;
    }
    std::memset(s, 0, sizeof(Slot) * n);
    Slot* old = c->slots;
    vek_u32 oldN = old ? c->mask + 1 : 0;
    c->slots = s;
    c->mask = n - 1;
    for (vek_u32 i = 0; i < oldN; i++) {
        if (old[i].at) {
            const char* name = c->pool + old[i].at - 1;
            *probe(c, name, (vek_s32)std::strlen(name), old[i].hash) = old[i];
        }
    }
    vek_free__(old);
    return true;
}

// The text of a catalogue value: trimmed, unquoted, \n \t \\ decoded.
vek_s32 message_text(const VekStr* raw, VekStr* out) {
    VekStr v;
    VekStr_new(&v);
    VekStr_clear(out);
    vek_s32 r = vek::ini_value(VekStr_buf(raw), VekStr_len(raw), false, &v);
    const char* p = VekStr_buf(&v);
    vek_s32 n = VekStr_len(&v);
    vek_s32 want = 0;
    for (vek_s32 i = 0; i < n && r == 0; i++) {
        char ch = p[i];
        if (ch == '\\' && i + 1 < n && (p[i + 1] == 'n' || p[i + 1] == 't' || p[i + 1] == '\\')) {
            i++;
            ch = p[i] == 'n' ? '\n' : p[i] == 't' ? '\t' : '\\';
        }
        VekStr_appdStrx(out, &ch, 1);
        want++;
    }
    if (r == 0 && VekStr_len(out) != want) {
        r = VEK_ERR_FULL;
    }
    VekStr_delete(&v);
    return r;
}

vek_s32 add_doc(LangCat* c, IniFile* doc) {
    VekStr name;
    VekStr text;
    VekStr_new(&name);
    VekStr_new(&text);
    vek_s32 r = 0;
    for (VekListNode* sn = IniFile_sectList(doc)->hdr; sn && r == 0; sn = sn->next) {
        IniSect* s = (IniSect*)sn;
        vek_s32 sl;
        const char* st = vek::ini_trimmed(&s->name, &sl);
        for (VekListNode* fn = s->fields.hdr; fn && r == 0; fn = fn->next) {
            IniField* f = (IniField*)fn;
            if (!IniField_valid(f)) {
                continue;
            }
            vek_s32 kl;
            const char* kt = vek::ini_trimmed(&f->name, &kl);
            lookup_name(st, sl, kt, kl, &name);
            if (VekStr_len(&name) != sl + kl + 1) {
                r = VEK_ERR_FULL;
                break;
            }
            if ((c->count + 1) * 2 > (c->slots ? c->mask + 1 : 0) && !grow_slots(c)) {
                r = VEK_ERR_FULL;
                break;
            }
            vek_u32 h = hash_of(VekStr_buf(&name), VekStr_len(&name));
            Slot* slot = probe(c, VekStr_buf(&name), VekStr_len(&name), h);
            if (slot->at) {
                continue;  // a more wanted language has it
            }
            vek_u32 at;
            vek_u32 textAt;
            r = message_text(&f->value, &text);
            if (r == 0 && !(pool_add(c, VekStr_buf(&name), VekStr_len(&name), &at) &&
                            pool_add(c, VekStr_buf(&text), VekStr_len(&text), &textAt))) {
                r = VEK_ERR_FULL;
            }
            if (r == 0) {
                slot->hash = h;
                slot->at = at + 1;
                c->count++;
            }
        }
    }
    VekStr_delete(&name);
    VekStr_delete(&text);
    return r;
}

bool cat_ok(const LangCat* c) {
    VEK_ASSERT(c);
    return c != nullptr;
}

// One tag normalised: "pt-br.UTF-8@euro" is "pt_BR". Returns its length
// (0 for C, POSIX or nothing usable).
vek_s32 normalise(const char* p, vek_s32 n, char* out, vek_s32 cap) {
    vek_s32 k = 0;
    vek_s32 part = 0;
    vek_s32 partLen = 0;
    for (vek_s32 i = 0; i < n && k < cap - 1; i++) {
        char ch = p[i];
        if (ch == '.' || ch == '@') {
            break;
        }
        if (ch == '-' || ch == '_') {
            if (partLen == 0) {
                return 0;
            }
            out[k++] = '_';
            part++;
            partLen = 0;
            continue;
        }
        bool alnum = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9');
        if (!alnum) {
            return 0;
        }
        out[k++] = ch;
        partLen++;
    }
    if (k == 0 || out[k - 1] == '_') {
        return 0;
    }
    out[k] = 0;
    // Letter case by the part: language small, script capitalised (four
    // letters), region capital.
    vek_s32 start = 0;
    part = 0;
    for (vek_s32 i = 0; i <= k; i++) {
        if (i == k || out[i] == '_') {
            vek_s32 len = i - start;
            for (vek_s32 j = start; j < i; j++) {
                char ch = out[j];
                bool up = part > 0 && (len != 4 || j == start);
                out[j] = up ? (char)(ch >= 'a' && ch <= 'z' ? ch - 32 : ch)
                            : (char)(ch >= 'A' && ch <= 'Z' ? ch + 32 : ch);
            }
            start = i + 1;
            part++;
        }
    }
    if (!std::strcmp(out, "c") || !std::strcmp(out, "posix")) {
        return 0;
    }
    return k;
}

} // namespace

extern "C" {

VEK_API vek_s32 lang_fallbacks(const char* langs, char* buf, vek_s32 size) {
    if (!buf || size < 1) {
        VEK_ASSERT(buf && size > 0);
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 len = 0;
    buf[0] = 0;
    const char* p = langs ? langs : "";
    while (*p) {
        const char* e = std::strchr(p, ':');
        vek_s32 n = e ? (vek_s32)(e - p) : (vek_s32)std::strlen(p);
        char tag[64];
        vek_s32 k = normalise(p, n, tag, sizeof tag);
        // The tag, then each shorter form.
        while (k > 0) {
            tag[k] = 0;
            bool seen = false;
            for (const char* q = buf; *q && !seen;) {
                const char* qe = std::strchr(q, ':');
                vek_s32 qn = qe ? (vek_s32)(qe - q) : (vek_s32)std::strlen(q);
                seen = qn == k && !std::memcmp(q, tag, (size_t)k);
                q += qn + (qe ? 1 : 0);
            }
            if (!seen && len + k + 1 < size) {
                len += vek_snprintf(buf + len, size - len, "%s%s", len ? ":" : "", tag);
            }
            while (k > 0 && tag[k - 1] != '_') {
                k--;
            }
            k = k > 0 ? k - 1 : 0;
        }
        p += n + (e ? 1 : 0);
    }
    return len;
}

VEK_API vek_s32 lang_user(char* buf, vek_s32 size) {
    if (!buf || size < 1) {
        VEK_ASSERT(buf && size > 0);
        return VEK_ERR_BAD_ARG;
    }
    char raw[512];
    plat::user_langs(raw, sizeof raw);
    // Each tag normalised, none twice, without its fallbacks.
    vek_s32 len = 0;
    buf[0] = 0;
    for (const char* p = raw; *p;) {
        const char* e = std::strchr(p, ':');
        vek_s32 n = e ? (vek_s32)(e - p) : (vek_s32)std::strlen(p);
        char tag[64];
        vek_s32 k = normalise(p, n, tag, sizeof tag);
        bool seen = false;
        for (const char* q = buf; *q && !seen && k;) {
            const char* qe = std::strchr(q, ':');
            vek_s32 qn = qe ? (vek_s32)(qe - q) : (vek_s32)std::strlen(q);
            seen = qn == k && !std::memcmp(q, tag, (size_t)k);
            q += qn + (qe ? 1 : 0);
        }
        if (k && !seen && len + k + 1 < size) {
            len += vek_snprintf(buf + len, size - len, "%s%s", len ? ":" : "", tag);
        }
        p += n + (e ? 1 : 0);
    }
    return len;
}

VEK_API LangCat* lang_new(void) {
    LangCat* c = (LangCat*)vek_malloc__(sizeof(LangCat));
    if (c) {
        std::memset(c, 0, sizeof *c);
    }
    return c;
}

VEK_API void lang_close(LangCat* c) {
    if (c) {
        vek_free__(c->pool);
        vek_free__(c->slots);
        vek_free__(c);
    }
}

VEK_API vek_s32 lang_add_file(LangCat* c, const char* path) {
    if (!cat_ok(c) || !path || !*path) {
        VEK_ASSERT(path && *path);
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 err = 0;
    IniFile* doc = IniFile_newFile(path, &err);
    if (!doc) {
        return err ? err : VEK_ERR_FULL;
    }
    vek_s32 r = add_doc(c, doc);
    IniFile_delete(doc);
    return r;
}

VEK_API vek_s32 lang_add_buf(LangCat* c, const char* text, vek_s32 len) {
    if (!cat_ok(c) || !text) {
        VEK_ASSERT(text);
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 err = 0;
    IniFile* doc = IniFile_newBuf(text, len < 0 ? 0 : len, &err);
    if (!doc) {
        return err ? err : VEK_ERR_FULL;
    }
    if (len == 0) {
        IniFile_clear(doc);  // an empty text is no text, not a terminated one
    }
    vek_s32 r = add_doc(c, doc);
    IniFile_delete(doc);
    return r;
}

VEK_API LangCat* lang_open(const char* folder, const char* domain, const char* langs, vek_s32* err) {
    vek_s32 e = VEK_ERR_FILE_OPEN;
    LangCat* c = nullptr;
    if (!folder || !domain || !*domain) {
        VEK_ASSERT(folder && domain && *domain);
        e = VEK_ERR_BAD_ARG;
    } else if (!(c = lang_new())) {
        e = VEK_ERR_FULL;
    } else {
        char user[512];
        if (!langs) {
            lang_user(user, sizeof user);
            langs = user;
        }
        char chain[1024];
        lang_fallbacks(langs, chain, sizeof chain);
        bool any = false;
        VekStr path;
        VekStr_new(&path);
        // Every tag of the chain, then the default file (the empty tag).
        for (const char* p = chain;;) {
            const char* q = std::strchr(p, ':');
            vek_s32 n = q ? (vek_s32)(q - p) : (vek_s32)std::strlen(p);
            VekStr_setStr(&path, folder);
            VekStr_appdStr(&path, *folder ? "/" : "");
            VekStr_appdStr(&path, domain);
            VekStr_appdStr(&path, n ? "." : "");
            VekStr_appdStrx(&path, p, n);
            VekStr_appdStr(&path, ".ini");
            VekStat st;
            if (vek_stat_utf8(VekStr_buf(&path), &st) == 0 && st.kind == VEK_FS_FILE) {
                vek_s32 r = lang_add_file(c, VekStr_buf(&path));
                if (r < 0) {
                    e = r;
                    any = false;
                    break;
                }
                if (!any && n < (vek_s32)sizeof c->tag) {
                    std::memcpy(c->tag, p, (size_t)n);
                    c->tag[n] = 0;
                }
                any = true;
            }
            if (n == 0) {
                break;
            }
            p = q ? q + 1 : p + n;
        }
        VekStr_delete(&path);
        if (any) {
            e = 0;
        } else {
            lang_close(c);
            c = nullptr;
        }
    }
    if (err) {
        *err = e;
    }
    return c;
}

VEK_API const char* lang_tag(const LangCat* c) {
    return c ? c->tag : "";
}

VEK_API const char* lang_get(const LangCat* c, const char* sect, const char* key, const char* def) {
    if (!cat_ok(c) || !key) {
        VEK_ASSERT(key);
        return def;
    }
    if (!c->count) {
        return def;
    }
    vek_s32 sn;
    vek_s32 kn;
    const char* s = vek::ini_trim(sect, &sn);
    const char* k = vek::ini_trim(key, &kn);
    char small[256];
    char* name = sn + kn + 2 <= (vek_s32)sizeof small ? small : (char*)vek_malloc__((size_t)(sn + kn + 2));
    if (!name) {
        return def;
    }
    for (vek_s32 i = 0; i < sn; i++) {
        name[i] = (char)fold((vek_u8)s[i]);
    }
    name[sn] = '\1';
    for (vek_s32 i = 0; i < kn; i++) {
        name[sn + 1 + i] = (char)fold((vek_u8)k[i]);
    }
    name[sn + kn + 1] = 0;
    vek_s32 n = sn + kn + 1;
    const Slot* slot = probe(c, name, n, hash_of(name, n));
    if (name != small) {
        vek_free__(name);
    }
    if (!slot->at) {
        return def;
    }
    return c->pool + slot->at + (vek_u32)n;  // the text follows its name
}

VEK_API vek_s32 lang_fmt_str(VekStr* out, const char* fmt, vek_s32 argc, const char* const* argv) {
    if (!out) {
        VEK_ASSERT(out);
        return VEK_ERR_BAD_ARG;
    }
    VekStr_clear(out);
    const char* p = fmt ? fmt : "";
    while (*p) {
        const char* b = std::strchr(p, '{');
        if (!b) {
            VekStr_appdStr(out, p);
            break;
        }
        VekStr_appdStrx(out, p, (vek_s32)(b - p));
        if (b[1] == '{') {
            VekStr_appdChar(out, '{');
            p = b + 2;
            continue;
        }
        vek_s32 n = 0;
        const char* q = b + 1;
        while (*q >= '0' && *q <= '9' && q - b <= 2) {
            n = n * 10 + (*q++ - '0');
        }
        if (*q == '}' && q > b + 1 && n >= 1 && n <= argc && argv && argv[n - 1]) {
            VekStr_appdStr(out, argv[n - 1]);
            p = q + 1;
        } else {
            VekStr_appdChar(out, '{');  // no placeholder, or no argument for it
            p = b + 1;
        }
    }
    return VekStr_len(out);
}

VEK_API vek_s32 lang_fmt(const LangCat* c, VekStr* out, const char* sect, const char* key, const char* def,
                         vek_s32 argc, const char* const* argv) {
    return lang_fmt_str(out, lang_get(c, sect, key, def), argc, argv);
}

VEK_API vek_s32 lang_fmts(const LangCat* c, VekStr* out, const char* sect, const char* key, const char* def, ...) {
    const char* args[99];
    vek_s32 n = 0;
    va_list ap;
    va_start(ap, def);
    for (const char* a; n < 99 && (a = va_arg(ap, const char*)) != nullptr;) {
        args[n++] = a;
    }
    va_end(ap);
    return lang_fmt(c, out, sect, key, def, n, args);
}

} // extern "C"
