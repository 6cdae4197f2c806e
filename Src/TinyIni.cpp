/*
 * TinyIni.cpp - reads one INI value straight from a stream without using
 * the heap, so the runtime configuration can be read before (and while)
 * the rest of the runtime comes up. Its rules are its own and differ from
 * the INI document's on purpose: names are trimmed, and a ";" comment after
 * a value is stripped.
 */
#include <cstdlib>
#include <cstring>
#include "IniFile.h"
#include "StrUtil.h"
#include "TinyStr.h"
#include "VekVos.h"

namespace {

constexpr vek_s32 TINI_NAME_MAX = 128;
constexpr vek_s32 kEof = -1;

/* Where the value goes: a bounded buffer or a TinyStr. */
struct ValueSink {
    char* buf;
    vek_s32 size;
    vek_s32 len;
    TinyStr* ts;

    void put(char c) {
        if (ts) {
            TinyStr_appdChar(ts, c);
        } else if (len < size - 1) {
            buf[len++] = c;  // the rest is dropped silently
        }
    }
    void trim_tail(vek_s32 startLen) {
        if (ts) {
            vek_s32 n = TinyStr_len(ts);
            const char* b = TinyStr_buf(ts);
            while (n > startLen && (b[n - 1] == ' ' || b[n - 1] == '\t')) {
                n--;
            }
            TinyStr_trunc(ts, n);
        } else {
            while (len > 0 && (buf[len - 1] == ' ' || buf[len - 1] == '\t')) {
                len--;
            }
        }
    }
    vek_s32 mark() const { return ts ? TinyStr_len(ts) : 0; }
    void finish() {
        if (!ts && buf && size > 0) {
            buf[len] = 0;
        }
    }
};

class Scanner {
  public:
    explicit Scanner(IStrm* s) : s_(s) {}

    vek_s32 get() {
        vek_s32 c = IStrm_getc(s_);
        return c < 0 ? kEof : c;
    }
    void skip_line() {
        vek_s32 c;
        do {
            c = get();
        } while (c != kEof && c != '\n');
    }

    enum NameEnd { kNamed, kDiscard, kNoName, kEnd };

    /* Reads a name up to term, starting with first (or with the next byte
     * when first is kEof): blanks trimmed at both ends; CR or ";" before
     * term discards the line, LF before term gives no name. */
    NameEnd read_name(vek_s32 first, char term, char* name) {
        vek_s32 offset = 0;
        bool tooLong = false;
        vek_s32 c = first != kEof ? first : get();
        while (c == ' ' || c == '\t') {
            c = get();
        }
        for (;; c = get()) {
            if (c == kEof) {
                return kEnd;
            }
            if (c == term) {
                break;
            }
            if (c == '\r' || c == ';') {
                return kDiscard;
            }
            if (c == '\n') {
                return kNoName;
            }
            // The 127th character is one too many: a name keeps at most 126,
            // so the buffer always has room for the terminator and a spare.
            if (offset >= TINI_NAME_MAX - 2) {
                if (!tooLong) {
                    low_assert__("offset < TINI_NAME_MAX - 1", __FILE__, __LINE__);
                    tooLong = true;  // keep the first 126 characters and go on
                }
                continue;
            }
            name[offset++] = (char)c;
        }
        while (offset > 0 && (name[offset - 1] == ' ' || name[offset - 1] == '\t')) {
            offset--;
        }
        name[offset] = 0;
        return kNamed;
    }

    /* The value behind "=": leading blanks skipped, ends at CR, LF or ";",
     * NUL bytes dropped, trailing blanks removed. */
    void read_value(ValueSink& out) {
        vek_s32 c = get();
        while (c == ' ' || c == '\t') {
            c = get();
        }
        vek_s32 start = out.mark();
        for (; c != kEof && c != '\r' && c != '\n' && c != ';'; c = get()) {
            if (c != 0) {
                out.put((char)c);
            }
        }
        out.trim_tail(start);
    }

  private:
    IStrm* s_;
};

bool tini_find(IStrm* strm, const char* sect, const char* field, ValueSink& out) {
    IStrm_seek(strm, 0, 0);
    Scanner sc(strm);
    bool inSect = !sect || !*sect;
    char name[TINI_NAME_MAX];
    for (;;) {
        vek_s32 c = sc.get();
        while (c == ' ' || c == '\t') {
            c = sc.get();
        }
        if (c == kEof) {
            return false;
        }
        if (c == '\n') {
            continue;
        }
        if (c == '\r' || c == ';') {
            sc.skip_line();
            continue;
        }
        if (c == '[') {
            if (inSect) {
                return false;  // the wanted section ended without the field
            }
            Scanner::NameEnd e = sc.read_name(kEof, ']', name);
            if (e == Scanner::kEnd) {
                return false;
            }
            if (e == Scanner::kNamed) {
                inSect = vek_stricmp(name, sect) == 0;
                sc.skip_line();
            } else if (e == Scanner::kDiscard) {
                sc.skip_line();
            }
            continue;
        }
        if (!inSect) {
            sc.skip_line();
            continue;
        }
        Scanner::NameEnd e = sc.read_name(c, '=', name);
        if (e == Scanner::kEnd) {
            return false;
        }
        if (e == Scanner::kNamed && vek_stricmp(name, field) == 0) {
            sc.read_value(out);
            return true;
        }
        if (e != Scanner::kNoName) {
            sc.skip_line();
        }
    }
}

void put_default(ValueSink& out, const char* def) {
    for (const char* p = def ? def : ""; *p; p++) {
        out.put(*p);
    }
}

} // namespace

extern "C" {

VEK_API char* TinyIni_getStr(IStrm* strm, const char* sect, const char* field, const char* def,
                             char* buf, vek_s32 size) {
    if (!strm || !field) {
        low_assert__("strm && fieldName", __FILE__, __LINE__);
        return buf;
    }
    if (!buf || size <= 0) {
        low_assert__("val || valBuf && valSize > 0", __FILE__, __LINE__);
        return buf;
    }
    ValueSink out = {buf, size, 0, nullptr};
    if (!tini_find(strm, sect, field, out)) {
        out.len = 0;
        put_default(out, def);
    }
    out.finish();
    return buf;
}

VEK_API const char* TinyIni_getStrx(IStrm* strm, const char* sect, const char* field,
                                    const char* def, TinyStr* val) {
    if (!strm || !field) {
        low_assert__("strm && fieldName", __FILE__, __LINE__);
        return val ? TinyStr_buf(val) : "";
    }
    if (!val) {
        low_assert__("val || valBuf && valSize > 0", __FILE__, __LINE__);
        return "";
    }
    ValueSink out = {nullptr, 0, 0, val};
    vek_s32 before = TinyStr_len(val);
    if (!tini_find(strm, sect, field, out)) {
        TinyStr_trunc(val, before);
        put_default(out, def);
    }
    return TinyStr_buf(val);
}

VEK_API vek_s32 TinyIni_getInt(IStrm* strm, const char* sect, const char* field, vek_s32 def) {
    if (!strm || !field) {
        low_assert__("strm && fieldName", __FILE__, __LINE__);
        return def;
    }
    char buf[32];
    ValueSink out = {buf, sizeof buf, 0, nullptr};
    bool found = tini_find(strm, sect, field, out);
    out.finish();
    return found ? (vek_s32)std::atoi(buf) : def;
}

} // extern "C"
