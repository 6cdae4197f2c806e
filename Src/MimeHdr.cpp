/*
 * MimeHdr.cpp - header lines of mail messages: "name: value", folded
 * continuation lines, and the empty line that ends the header block.
 */
#include <cstring>
#include "BaseItf.h"
#include "MimeHdr.h"
#include "StrUtil.h"
#include "VekStr.h"
#include "VekVos.h"

namespace {

inline bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// The trimmed range [b, e) of [b, e).
void trim(const char*& b, const char*& e) {
    while (b < e && is_space(*b)) {
        b++;
    }
    while (e > b && is_space(e[-1])) {
        e--;
    }
}

inline char upper(char c) {
    return c >= 'a' && c <= 'z' ? (char)(c - 32) : c;
}

// Splits len bytes at the first ":" into a trimmed, non-empty name range
// and the trimmed value range; false when the line has no such name (a
// null line is the assertion "line").
bool split(const char* text, vek_s32 len, const char** nb, const char** ne, const char** vb,
           const char** ve) {
    if (!text) {
        vek_assert__("line", __FILE__, __LINE__);
        return false;
    }
    const char* end = text + (len < 0 ? (vek_s32)std::strlen(text) : len);
    const char* colon = (const char*)std::memchr(text, ':', (size_t)(end - text));
    if (!colon || colon == text) {
        return false;
    }
    *nb = text;
    *ne = colon;
    trim(*nb, *ne);
    *vb = colon + 1;
    *ve = end;
    trim(*vb, *ve);
    return *ne > *nb;
}

void clear(VekStr* s) {
    if (s) {
        VekStr_clear(s);
    }
}

void set(VekStr* s, const char* b, const char* e) {
    if (s) {
        VekStr_setStrx(s, b, (vek_s32)(e - b));
    }
}

// Reads one logical header line into line; false at the end of the stream
// with nothing read. A line end is LF with an optional CR before it.
class LineReader {
  public:
    explicit LineReader(IStrm* s) : s_(s) {}
    bool next(VekStr* line) {
        VekStr_clear(line);
        vek_s32 c = get();
        if (c < 0) {
            return false;
        }
        for (; c >= 0; c = get()) {
            if (c != '\n') {
                VekStr_appdChar(line, (char)c);  // a 0 byte is kept too
                continue;
            }
            vek_s32 len = VekStr_len(line);
            if (len > 0 && VekStr_buf(line)[len - 1] == '\r') {
                VekStr_trunc(line, len - 1);
            }
            vek_s32 n = get();
            if (n == ' ' || n == '\t') {
                if (VekStr_len(line) == 0) {
                    ahead_ = n;  // an empty line ends the block, blank or not
                    return true;
                }
                continue;  // folded: the line end and this one blank go
            }
            ahead_ = n;
            return true;
        }
        return true;
    }

  private:
    vek_s32 get() {
        if (ahead_ != kNone) {
            vek_s32 c = ahead_;
            ahead_ = kNone;
            return c;
        }
        vek_s32 c = IStrm_getc(s_);
        return c < 0 ? -1 : c;
    }
    static constexpr vek_s32 kNone = -2;
    IStrm* s_;
    vek_s32 ahead_ = kNone;
};

} // namespace

extern "C" {

VEK_API vek_s32 mhdr_strx_dec(const char* text, vek_s32 len, VekStr* name, VekStr* value) {
    clear(name);
    clear(value);
    const char *nb, *ne, *vb, *ve;
    if (!split(text, len, &nb, &ne, &vb, &ve)) {
        return 0;
    }
    set(name, nb, ne);
    set(value, vb, ve);
    return 1;
}

VEK_API vek_s32 mhdr_str_dec(const char* line, VekStr* name, VekStr* value) {
    return mhdr_strx_dec(line, -1, name, value);
}

VEK_API vek_s32 mhdr_strx_chk(const char* text, vek_s32 len, const char* hdrName, VekStr* value) {
    if (!hdrName || !*hdrName) {
        vek_assert__("!str_noo(name)", __FILE__, __LINE__);
        return 0;
    }
    clear(value);
    const char *nb, *ne, *vb, *ve;
    if (!split(text, len, &nb, &ne, &vb, &ve)) {
        return 0;
    }
    // The name may be a prefix of hdrName; the terminator of a shorter
    // hdrName is a mismatch like any other character.
    for (const char* p = nb; p < ne; p++, hdrName++) {
        if (!*hdrName || upper(*p) != upper(*hdrName)) {
            return 0;
        }
    }
    set(value, vb, ve);
    return 1;
}

VEK_API vek_s32 mhdr_str_chk(const char* line, const char* hdrName, VekStr* value) {
    return mhdr_strx_chk(line, -1, hdrName, value);
}

VEK_API vek_s32 mhdr_get_to_buf(IStrm* strm, const char* hdrName, char* buf, vek_s32 size) {
    if (!strm || !hdrName || !*hdrName) {
        vek_assert__("strm && !str_noo(hdrName)", __FILE__, __LINE__);
        return 0;
    }
    vek_s32 nameLen = (vek_s32)std::strlen(hdrName);
    IStrm_seek(strm, 0, 0);
    LineReader reader(strm);
    VekStr line;
    VekStr_new(&line);
    vek_s32 found = 0;
    while (reader.next(&line) && VekStr_len(&line) > 0) {
        vek_s32 len = VekStr_len(&line);
        const char* s = VekStr_buf(&line);
        if (len < nameLen || vek_strincmp(s, hdrName, nameLen) != 0) {
            continue;
        }
        found = 1;
        if (buf && size > 0) {
            vek_s32 from = nameLen + 1 < len ? nameLen + 1 : len;
            vek_s32 n = len - from < size - 1 ? len - from : size - 1;
            const char* b = s + from;
            const char* e = b + n;
            trim(b, e);
            std::memmove(buf, b, (size_t)(e - b));
            buf[e - b] = 0;
        }
        break;
    }
    VekStr_delete(&line);
    return found;
}

VEK_API vek_s32 mhdr_find_only(IStrm* strm, const char* hdrName) {
    return mhdr_get_to_buf(strm, hdrName, nullptr, 0);
}

} // extern "C"
