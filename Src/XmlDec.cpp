/*
 * XmlDec.cpp - the pulled XML decoder.
 *
 * Input goes through one stage that turns it into UTF-8 (UTF-8 passes as it
 * is, UTF-16 and ISO-8859-1 are converted, bytes that cannot be converted
 * become 0xFF, which no UTF-8 text holds, so the parser reports them where
 * they stand) into the decoder's own buffer:
 *
 *     buf: [ consumed | beg: the next token ... | end: free ]
 *
 * A token is decoded only once the whole of it is in the buffer. Whether
 * it is there is found by a cheap scan for its end (the "<" after a text,
 * the ">" after a tag outside quotes, "-->", "?>", "]]>"), and that scan
 * resumes where it stopped when more input comes, so a token fed a byte at
 * a time still costs linear time. The parser then runs over the complete
 * token once and decodes it in place: every decoded form is no longer than
 * its source (a reference is longer than its character, CR LF is longer
 * than LF), so texts and values are written over their own bytes and
 * terminated there. A text ends where the next "<" stands; its terminator
 * borrows that byte, which the next call gives back.
 *
 * Columns count characters: the parser counts the UTF-8 continuation bytes
 * it passes on the current line.
 */
#include <cstring>
#include "VekCore.h"
#include "UtfFull.h"
#include "XmlDec.h"

namespace {

constexpr vek_s32 kDefDepth = 256;
constexpr vek_s32 kDefToken = 16 * 1024 * 1024;
constexpr vek_s32 kDefAttrs = 1024;
constexpr vek_s64 kDefSize = 256LL * 1024 * 1024;
constexpr vek_s32 kStrmBlock = 64 * 1024;
constexpr vek_s32 kAgain = 1000;  // a step that consumed markup without an event

enum Enc { ENC_UNKNOWN, ENC_UTF8, ENC_U16LE, ENC_U16BE, ENC_LATIN1, ENC_ASCII };
enum Phase { PH_START, PH_PROLOG, PH_CONTENT, PH_EPILOG, PH_DONE };

// Byte classes. Text: 0 passes, anything else needs a look. Names: bit 1 a
// name start, bit 2 a name character (ASCII; other bytes go to the tables
// of code points).
vek_u8 g_text[256];
vek_u8 g_name[256];
bool g_tables = [] {
    for (int c = 0; c < 256; c++) {
        g_text[c] = (c < 0x20 && c != '\t') || c >= 0x80 || c == '&' || c == '<' || c == ']' || c == '\r';
        bool start = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
        bool more = start || (c >= '0' && c <= '9') || c == '-' || c == '.';
        g_name[c] = (vek_u8)((start ? 1 : 0) | (more ? 2 : 0));
    }
    return true;
}();

bool is_char(vek_u32 c) {
    return c >= 0x20 ? (c <= 0xD7FF || (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF))
                     : (c == 0x9 || c == 0xA || c == 0xD);
}

bool is_name_start(vek_u32 c) {
    if (c < 0x80) {
        return (g_name[c] & 1) != 0;
    }
    return (c >= 0xC0 && c <= 0xD6) || (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) ||
           (c >= 0x370 && c <= 0x37D) || (c >= 0x37F && c <= 0x1FFF) || (c >= 0x200C && c <= 0x200D) ||
           (c >= 0x2070 && c <= 0x218F) || (c >= 0x2C00 && c <= 0x2FEF) || (c >= 0x3001 && c <= 0xD7FF) ||
           (c >= 0xF900 && c <= 0xFDCF) || (c >= 0xFDF0 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0xEFFFF);
}

bool is_name_char(vek_u32 c) {
    if (c < 0x80) {
        return (g_name[c] & 2) != 0;
    }
    return is_name_start(c) || c == 0xB7 || (c >= 0x300 && c <= 0x36F) || (c >= 0x203F && c <= 0x2040);
}

bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool same_ci(const char* p, vek_s32 n, const char* lit) {
    return (vek_s32)std::strlen(lit) == n && vek_strincmp(p, lit, n) == 0;
}

} // namespace

struct XmlDec {
    XmlDecOpts opt;
    char* buf;
    vek_s64 cap;
    vek_s64 beg;   // the next byte to parse
    vek_s64 end;   // bytes in buf
    vek_s64 base;  // the decoded stream's offset of buf[0]
    vek_s64 fed;
    bool final;
    IStrm* strm;
    char* block;  // read buffer of a stream

    vek_s32 enc;
    vek_u8 head[4];  // the first bytes, until the encoding is known
    vek_s32 headLen;
    vek_s32 odd;     // a UTF-16 byte waiting for its pair, or -1
    vek_u32 hiSurr;  // a UTF-16 high surrogate waiting for its low one, or 0
    bool bom;
    vek_s64 switchAt;  // bytes from here on are ISO-8859-1 / ASCII still raw, or -1
    vek_s32 switchTo;

    vek_s32 phase;
    bool doctype;
    bool pendingEnd;
    vek_s64 restoreAt;  // the byte a terminator borrowed, or -1
    char restoreByte;

    vek_s64 scanAt;  // where the search for the current token's end goes on
    vek_s32 scanSt;  // and the state it was in

    vek_s32 line;
    vek_s64 lineBeg;  // stream offset of the current line's start
    vek_s64 cont;     // continuation bytes passed since then
    vek_s32 evLine;
    vek_s32 evCol;
    vek_s32 err;

    char* names;  // the open elements' names, each terminated
    vek_s32 namesLen;
    vek_s32 namesCap;
    vek_s32* nameAt;
    vek_s32 depth;
    vek_s32 depthCap;
    XmlAttr* attrs;
    vek_s32 attrCap;
    vek_s32* slots;  // duplicate check of many attributes
    vek_s32 slotCap;
};

namespace {

// ---- memory ----

template <class T>
bool grow(T*& p, vek_s32& cap, vek_s64 need) {
    if (need <= cap) {
        return true;
    }
    vek_s64 n = cap ? cap : 16;
    while (n < need) {
        n *= 2;
    }
    if (n > 0x7FFFFFFF / (vek_s64)sizeof(T)) {
        return false;
    }
    T* q = (T*)vek::heap_realloc(p, (size_t)n * sizeof(T));
    if (!q) {
        return false;
    }
    p = q;
    cap = (vek_s32)n;
    return true;
}

// Room for n more bytes behind end (and one spare for a terminator),
// moving the unparsed bytes to the front first.
bool reserve(XmlDec* d, vek_s64 n) {
    if (d->restoreAt >= 0) {
        d->buf[d->restoreAt] = d->restoreByte;
        d->restoreAt = -1;
    }
    if (d->beg > 0) {
        vek_s64 keep = d->end - d->beg;
        std::memmove(d->buf, d->buf + d->beg, (size_t)keep);
        d->base += d->beg;
        d->scanAt -= d->beg;
        if (d->switchAt >= 0) {
            d->switchAt -= d->beg;
        }
        d->end = keep;
        d->beg = 0;
    }
    if (d->end + n + 1 <= d->cap) {
        return true;
    }
    vek_s64 want = d->cap ? d->cap : 4096;
    while (want < d->end + n + 1) {
        want *= 2;
    }
    char* q = (char*)vek::heap_realloc(d->buf, (size_t)want);
    if (!q) {
        return false;
    }
    d->buf = q;
    d->cap = want;
    return true;
}

// ---- the input stage ----

void put_cp(XmlDec* d, vek_u32 cp) {
    if (cp == 0xFFFFFFFFu) {
        d->buf[d->end++] = (char)0xFF;
    } else {
        d->end += vek::utf8_encode(cp, d->buf + d->end);
    }
}

// Converts n raw bytes into the buffer (room reserved by the caller).
void convert(XmlDec* d, const vek_u8* p, vek_s64 n) {
    switch (d->enc) {
    case ENC_UTF8:
        std::memcpy(d->buf + d->end, p, (size_t)n);
        d->end += n;
        break;
    case ENC_LATIN1:
        for (vek_s64 i = 0; i < n; i++) {
            put_cp(d, p[i]);
        }
        break;
    case ENC_ASCII:
        for (vek_s64 i = 0; i < n; i++) {
            put_cp(d, p[i] < 0x80 ? p[i] : 0xFFFFFFFFu);
        }
        break;
    default:  // UTF-16: units, pairs, and the halves that wait across chunks
        for (vek_s64 i = 0; i < n; i++) {
            if (d->odd < 0) {
                d->odd = p[i];
                continue;
            }
            vek_u32 u = d->enc == ENC_U16LE ? (vek_u32)d->odd | ((vek_u32)p[i] << 8)
                                            : ((vek_u32)d->odd << 8) | p[i];
            d->odd = -1;
            if (d->hiSurr) {
                if (u >= 0xDC00 && u <= 0xDFFF) {
                    put_cp(d, 0x10000 + ((d->hiSurr - 0xD800) << 10) + (u - 0xDC00));
                    d->hiSurr = 0;
                    continue;
                }
                put_cp(d, 0xFFFFFFFFu);
                d->hiSurr = 0;
            }
            if (u >= 0xD800 && u <= 0xDBFF) {
                d->hiSurr = u;
            } else {
                put_cp(d, u >= 0xDC00 && u <= 0xDFFF ? 0xFFFFFFFFu : u);
            }
        }
        break;
    }
}

// The encoding from the first bytes: a byte-order mark, or "<?" in
// UTF-16; anything else is UTF-8 until a declaration says otherwise.
vek_s32 detect(XmlDec* d, vek_s32* skip) {
    const vek_u8* h = d->head;
    vek_s32 n = d->headLen;
    *skip = 0;
    if (n >= 3 && h[0] == 0xEF && h[1] == 0xBB && h[2] == 0xBF) {
        *skip = 3;
        d->bom = true;
        return ENC_UTF8;
    }
    if (n >= 2 && h[0] == 0xFE && h[1] == 0xFF) {
        *skip = 2;
        d->bom = true;
        return ENC_U16BE;
    }
    if (n >= 2 && h[0] == 0xFF && h[1] == 0xFE) {
        *skip = 2;
        d->bom = true;
        return ENC_U16LE;
    }
    if (n >= 4 && h[0] == 0 && h[1] == '<' && h[2] == 0 && h[3] == '?') {
        return ENC_U16BE;
    }
    if (n >= 4 && h[0] == '<' && h[1] == 0 && h[2] == '?' && h[3] == 0) {
        return ENC_U16LE;
    }
    return ENC_UTF8;
}

vek_s32 append(XmlDec* d, const vek_u8* p, vek_s64 n) {
    if (d->enc == ENC_UNKNOWN) {
        while (n > 0 && d->headLen < 4) {
            d->head[d->headLen++] = *p++;
            n--;
        }
        if (d->headLen < 4 && !d->final) {
            return 0;
        }
        vek_s32 skip = 0;
        d->enc = detect(d, &skip);
        if (!reserve(d, (d->headLen - skip) * 2 + 8)) {
            return VEK_ERR_FULL;
        }
        convert(d, d->head + skip, d->headLen - skip);
    }
    if (n > 0) {
        if (!reserve(d, n * 2 + 8)) {
            return VEK_ERR_FULL;
        }
        convert(d, p, n);
    }
    return 0;
}

// The declaration named a single-byte encoding: what follows it is still
// raw; convert it in place (from the back, it only grows).
bool apply_switch(XmlDec* d) {
    vek_s64 from = d->switchAt;
    d->switchAt = -1;
    d->enc = d->switchTo;
    vek_s64 extra = 0;
    for (vek_s64 i = from; i < d->end; i++) {
        extra += (vek_u8)d->buf[i] >= 0x80 && d->enc == ENC_LATIN1;
    }
    vek_s64 shift = d->beg;
    if (!reserve(d, extra)) {
        return false;
    }
    from -= shift;
    vek_s64 w = d->end + extra;
    for (vek_s64 r = d->end - 1; r >= from; r--) {
        vek_u8 c = (vek_u8)d->buf[r];
        if (c < 0x80) {
            d->buf[--w] = (char)c;
        } else if (d->enc == ENC_LATIN1) {
            d->buf[--w] = (char)(0x80 | (c & 0x3F));
            d->buf[--w] = (char)(0xC0 | (c >> 6));
        } else {
            d->buf[--w] = (char)0xFF;
        }
    }
    d->end += extra;
    return true;
}

vek_s32 finish_input(XmlDec* d) {
    d->final = true;
    vek_s32 r = append(d, nullptr, 0);
    if (r == 0 && (d->odd >= 0 || d->hiSurr)) {
        if (!reserve(d, 8)) {
            return VEK_ERR_FULL;
        }
        put_cp(d, 0xFFFFFFFFu);  // a cut unit or a pair without its second half
        d->odd = -1;
        d->hiSurr = 0;
    }
    return r;
}

// ---- the parser ----

class Parser {
  public:
    explicit Parser(XmlDec* d) : d_(d) {}
    vek_s32 step(XmlEvt* ev);

  private:
    vek_s64 abs_of(const char* p) const { return d_->base + (p - d_->buf); }
    vek_s32 col_at(const char* p) const { return (vek_s32)(abs_of(p) - d_->lineBeg - d_->cont) + 1; }
    void newline(const char* after) {
        d_->line++;
        d_->lineBeg = abs_of(after);
        d_->cont = 0;
    }
    vek_s32 fail(vek_s32 code, const char* at) {
        d_->err = code;
        d_->evLine = d_->line;
        d_->evCol = col_at(at);
        return code;
    }
    // A token ran into its limit at p: a token the input cut short is
    // unclosed; a complete one (up to the "<" after a text, the ">" of a
    // tag) is malformed, however much input stands behind it.
    vek_s32 short_of(const char* p) {
        return fail(cut_ ? VEK_ERR_XML_UNCLOSED : VEK_ERR_XML_SYNTAX, p);
    }
    // A line end at p, c being its first byte (read before the decoded
    // text may have been written over it): LF, CR LF or a lone CR. The
    // position after it, the line counted.
    char* line_end(char* p, const char* lim, char c) {
        if (c == '\r' && p + 1 < lim && p[1] == '\n') {
            p++;
        }
        newline(++p);
        return p;
    }
    void mark_event(const char* p) {
        d_->evLine = d_->line;
        d_->evCol = col_at(p);
    }
    void consume(const char* to) {
        d_->beg = to - d_->buf;
        d_->scanAt = d_->beg;
        d_->scanSt = 0;
    }

    char* skip_space(char* p, const char* lim);
    char* name(char* p, const char* lim, vek_s32* code);
    char* reference(char* p, const char* lim, vek_u32* cp, vek_s32* code);
    char* char_at(char* p, const char* lim, vek_u32* cp, vek_s32* code);
    char* plain_run(char* p, const char* lim, char** w, const char* stop, vek_s32 stopLen, vek_s32* code);
    vek_s64 find_end(char* p, const char* e, vek_s32 kind);

    vek_s32 text(char* p, char* e, XmlEvt* ev);
    vek_s32 outside_text(char* p, char* e);
    vek_s32 start_tag(char* p, char* lim, XmlEvt* ev);
    vek_s32 end_tag(char* p, char* lim, XmlEvt* ev);
    vek_s32 comment(char* p, char* lim, XmlEvt* ev);
    vek_s32 cdata(char* p, char* lim, XmlEvt* ev);
    vek_s32 pi(char* p, char* lim, XmlEvt* ev);
    vek_s32 decl(char* p, char* lim, XmlEvt* ev);
    vek_s32 doctype(char* p, char* lim, XmlEvt* ev);
    char* literal(char* p, const char* lim, XmlAttr* a, bool pubid, vek_s32* code);
    bool add_attr(const char* name, vek_s32 nameLen, const char* value, vek_s32 valueLen, vek_s32 n);
    vek_s32 dup_of(vek_s32 i);
    vek_s32 push(const char* name, vek_s32 len);

    XmlDec* d_;
    bool cut_ = false;  // the token being parsed ends where the input ended
};

void fill(XmlEvt* ev, vek_s32 type, vek_s32 depth, const char* name, vek_s32 nameLen, const char* text,
          vek_s32 textLen, const XmlAttr* attrs, vek_s32 attrCount, const XmlDec* d) {
    ev->type = type;
    ev->depth = depth;
    ev->name = name;
    ev->nameLen = nameLen;
    ev->text = text;
    ev->textLen = textLen;
    ev->attrs = attrs;
    ev->attrCount = attrCount;
    ev->line = d->evLine;
    ev->col = d->evCol;
}

char* Parser::skip_space(char* p, const char* lim) {
    while (p < lim) {
        char c = *p;
        if (c == ' ' || c == '\t') {
            p++;
        } else if (c == '\n' || c == '\r') {
            p = line_end(p, lim, (char)c);
        } else {
            break;
        }
    }
    return p;
}

// One character that is not markup: its code point, the position after it.
char* Parser::char_at(char* p, const char* lim, vek_u32* cp, vek_s32* code) {
    vek_s32 k = vek::utf8_decode((const vek_u8*)p, (const vek_u8*)lim, cp);
    if (k == 0 || !is_char(*cp)) {
        *code = fail(VEK_ERR_XML_CHAR, p);
        return nullptr;
    }
    d_->cont += k - 1;
    return p + k;
}

char* Parser::name(char* p, const char* lim, vek_s32* code) {
    bool first = true;
    while (p < lim) {
        vek_u8 c = (vek_u8)*p;
        if (c < 0x80) {
            if (!(g_name[c] & (first ? 1 : 2))) {
                break;
            }
            p++;
        } else {
            vek_u32 cp;
            vek_s32 k = vek::utf8_decode((const vek_u8*)p, (const vek_u8*)lim, &cp);
            if (k == 0) {
                *code = fail(VEK_ERR_XML_CHAR, p);
                return nullptr;
            }
            if (!(first ? is_name_start(cp) : is_name_char(cp))) {
                break;
            }
            d_->cont += k - 1;
            p += k;
        }
        first = false;
    }
    if (first) {
        *code = p == lim ? short_of(p) : fail(VEK_ERR_XML_SYNTAX, p);
        return nullptr;
    }
    return p;
}

// A reference at p ("&"): the character, the position after the ";".
char* Parser::reference(char* p, const char* lim, vek_u32* cp, vek_s32* code) {
    char* at = p++;
    if (p < lim && *p == '#') {
        p++;
        bool hex = p < lim && *p == 'x';
        p += hex;
        vek_u32 v = 0;
        char* digits = p;
        for (; p < lim; p++) {
            vek_u32 c = (vek_u8)*p;
            vek_u32 x = c - '0' < 10 ? c - '0' : hex && (c | 0x20) - 'a' < 6 ? (c | 0x20) - 'a' + 10 : 99;
            if (x == 99) {
                break;
            }
            v = v > 0x10FFFF ? v : v * (hex ? 16 : 10) + x;
        }
        if (p == lim) {
            *code = short_of(p);
            return nullptr;
        }
        if (p == digits || *p != ';') {
            *code = fail(VEK_ERR_XML_SYNTAX, p);
            return nullptr;
        }
        if (!is_char(v)) {
            *code = fail(VEK_ERR_XML_CHAR_REF, at);
            return nullptr;
        }
        *cp = v;
        return p + 1;
    }
    char* n = p;
    p = name(p, lim, code);
    if (!p) {
        return nullptr;
    }
    if (p == lim) {
        *code = short_of(p);
        return nullptr;
    }
    if (*p != ';') {
        *code = fail(VEK_ERR_XML_SYNTAX, p);
        return nullptr;
    }
    vek_s32 len = (vek_s32)(p - n);
    static const struct {
        const char* name;
        vek_u32 cp;
    } kPre[] = {{"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"apos", '\''}, {"quot", '"'}};
    for (const auto& e : kPre) {
        if ((vek_s32)std::strlen(e.name) == len && std::memcmp(n, e.name, (size_t)len) == 0) {
            *cp = e.cp;
            return p + 1;
        }
    }
    *code = fail(VEK_ERR_XML_ENTITY, at);
    return nullptr;
}

// The content of a comment, a processing instruction or a CDATA section:
// characters up to stop (which must be there: the token is complete),
// line ends made LF, written at *w.
char* Parser::plain_run(char* p, const char* lim, char** w, const char* stop, vek_s32 stopLen,
                        vek_s32* code) {
    char* o = *w;
    for (;;) {
        if (p >= lim) {
            *code = short_of(p);
            return nullptr;
        }
        vek_u8 c = (vek_u8)*p;
        if (c == (vek_u8)stop[0] && lim - p >= stopLen && std::memcmp(p, stop, (size_t)stopLen) == 0) {
            break;
        }
        if (c >= 0x20 && c < 0x80) {
            *o++ = (char)c;
            p++;
        } else if (c == '\t') {
            *o++ = '\t';
            p++;
        } else if (c == '\n' || c == '\r') {
            *o++ = '\n';
            p = line_end(p, lim, (char)c);
        } else {
            vek_u32 cp;
            char* q = char_at(p, lim, &cp, code);
            if (!q) {
                return nullptr;
            }
            std::memmove(o, p, (size_t)(q - p));
            o += q - p;
            p = q;
        }
    }
    *w = o;
    return p;
}

// Where the token at p ends (one past its last byte), or -1 when the
// buffer does not hold all of it yet. The search resumes at scanAt.
vek_s64 Parser::find_end(char* p, const char* e, vek_s32 kind) {
    char* from = d_->buf + d_->scanAt;
    switch (kind) {
    case 't': {  // a tag: ">" outside quotes
        char q = (char)d_->scanSt;
        if (from < p + 1) {
            from = p + 1;
        }
        for (char* s = from; s < e; s++) {
            char c = *s;
            if (q) {
                if (c == q) {
                    q = 0;
                }
            } else if (c == '>') {
                return s + 1 - d_->buf;
            } else if (c == '"' || c == '\'') {
                q = c;
            }
        }
        d_->scanSt = q;
        d_->scanAt = e - d_->buf;
        return -1;
    }
    case 'c':  // comment
    case 'p':  // processing instruction
    case 'd': {  // CDATA
        const char* stop = kind == 'c' ? "-->" : kind == 'p' ? "?>" : "]]>";
        vek_s32 n = (vek_s32)std::strlen(stop);
        vek_s32 skip = kind == 'c' ? 4 : kind == 'p' ? 2 : 9;
        if (from < p + skip) {
            from = p + skip;
        }
        for (char* s = from + (n - 1); s < e; s++) {
            s = (char*)std::memchr(s, stop[n - 1], (size_t)(e - s));
            if (!s) {
                break;
            }
            if (std::memcmp(s - (n - 1), stop, (size_t)n) == 0) {
                return s + 1 - d_->buf;
            }
        }
        d_->scanAt = (e - (n - 1) > p + skip ? e - (n - 1) : p + skip) - d_->buf;
        return -1;
    }
    default: {  // DOCTYPE: quotes, and in the internal subset comments and PIs
        // States: 0 outside, 1 in the subset, 2 in a subset comment, 3 in a
        // subset PI; bit 8 and up: the quote being inside.
        vek_s32 st = d_->scanSt & 0xFF;
        char q = (char)(d_->scanSt >> 8);
        if (from < p + 9) {
            from = p + 9;
        }
        char* s = from;
        for (; s < e; s++) {
            char c = *s;
            if (q) {
                if (c == q) {
                    q = 0;
                }
            } else if (st == 2 || st == 3) {
                const char* stop = st == 2 ? "-->" : "?>";
                vek_s32 n = st == 2 ? 3 : 2;
                if (e - s < n) {
                    break;
                }
                if (std::memcmp(s, stop, (size_t)n) == 0) {
                    s += n - 1;
                    st = 1;
                }
            } else if (c == '"' || c == '\'') {
                q = c;
            } else if (st == 0 && c == '[') {
                st = 1;
            } else if (st == 0 && c == '>') {
                return s + 1 - d_->buf;
            } else if (st == 1 && c == ']') {
                st = 0;
            } else if (st == 1 && c == '<') {
                if (e - s < 4) {
                    break;
                }
                if (s[1] == '?') {
                    st = 3;
                    s++;
                } else if (s[1] == '!' && s[2] == '-' && s[3] == '-') {
                    st = 2;
                    s += 3;
                }
            }
        }
        d_->scanSt = st | ((vek_s32)(vek_u8)q << 8);
        d_->scanAt = s - d_->buf;
        return -1;
    }
    }
}

vek_s32 Parser::push(const char* name, vek_s32 len) {
    if (d_->depth >= d_->opt.maxDepth) {
        return VEK_ERR_XML_DEPTH;
    }
    if (!grow(d_->nameAt, d_->depthCap, d_->depth + 1) || !grow(d_->names, d_->namesCap, (vek_s64)d_->namesLen + len + 1)) {
        return VEK_ERR_FULL;
    }
    d_->nameAt[d_->depth++] = d_->namesLen;
    std::memcpy(d_->names + d_->namesLen, name, (size_t)len);
    d_->namesLen += len;
    d_->names[d_->namesLen++] = 0;
    return 0;
}

bool Parser::add_attr(const char* name, vek_s32 nameLen, const char* value, vek_s32 valueLen, vek_s32 n) {
    if (!grow(d_->attrs, d_->attrCap, n + 1)) {
        return false;
    }
    d_->attrs[n] = XmlAttr{name, value, nameLen, valueLen};
    return true;
}

// Whether attrs[i], just added, repeats an earlier name (-1: no memory
// for the check): pairs compared for a few attributes, a hash of the
// names for many, made at the seventeenth and grown as they come.
vek_s32 Parser::dup_of(vek_s32 i) {
    XmlAttr* a = d_->attrs;
    auto same = [a](vek_s32 x, vek_s32 y) {
        return a[x].nameLen == a[y].nameLen && std::memcmp(a[x].name, a[y].name, (size_t)a[x].nameLen) == 0;
    };
    if (i < 16) {
        for (vek_s32 j = 0; j < i; j++) {
            if (same(i, j)) {
                return 1;
            }
        }
        return 0;
    }
    auto hash = [a](vek_s32 x) {
        vek_u32 h = 2166136261u;
        for (vek_s32 k = 0; k < a[x].nameLen; k++) {
            h = (h ^ (vek_u8)a[x].name[k]) * 16777619u;
        }
        return h;
    };
    bool rebuild = i == 16 || 2 * (i + 1) > d_->slotCap;
    if (rebuild) {
        if (!grow(d_->slots, d_->slotCap, 4 * (vek_s64)(i + 1))) {
            return -1;
        }
        std::memset(d_->slots, 0xFF, (size_t)d_->slotCap * sizeof(vek_s32));
    }
    vek_u32 mask = (vek_u32)d_->slotCap - 1;
    for (vek_s32 x = rebuild ? 0 : i; x <= i; x++) {
        for (vek_u32 s = hash(x) & mask;; s = (s + 1) & mask) {
            vek_s32 j = d_->slots[s];
            if (j < 0) {
                d_->slots[s] = x;
                break;
            }
            if (same(x, j)) {
                return 1;
            }
        }
    }
    return 0;
}

// Text inside the root element, p up to e (the next "<"), decoded in
// place. Most text needs no change: it is only checked until the first
// reference or CR; from there on the bytes are copied down behind w.
vek_s32 Parser::text(char* p, char* e, XmlEvt* ev) {
    char* t = p;
    char* w = nullptr;
    vek_s32 code = 0;
    mark_event(p);
    for (;;) {
        char* run = p;
        while (p < e && !g_text[(vek_u8)*p]) {
            p++;
        }
        if (w) {
            std::memmove(w, run, (size_t)(p - run));
            w += p - run;
        }
        if (p == e) {
            break;
        }
        vek_u8 c = (vek_u8)*p;
        if (c == '\n' || c == '\r') {
            if (!w && c == '\r') {
                w = p;  // CR LF and CR become LF: from here on the text moves
            }
            if (w) {
                *w++ = '\n';
            }
            p = line_end(p, e, (char)c);
        } else if (c == '&') {
            if (!w) {
                w = p;
            }
            vek_u32 cp;
            p = reference(p, e, &cp, &code);
            if (!p) {
                return code;
            }
            w += vek::utf8_encode(cp, w);
        } else if (c == ']') {
            if (e - p >= 3 && p[1] == ']' && p[2] == '>') {
                return fail(VEK_ERR_XML_SYNTAX, p);
            }
            if (w) {
                *w++ = ']';
            }
            p++;
        } else if (c >= 0x80) {
            vek_u32 cp;
            char* q = char_at(p, e, &cp, &code);
            if (!q) {
                return code;
            }
            if (w) {
                std::memmove(w, p, (size_t)(q - p));
                w += q - p;
            }
            p = q;
        } else {
            return fail(VEK_ERR_XML_CHAR, p);
        }
    }
    vek_s32 len = (vek_s32)((w ? w : e) - t);
    consume(e);
    if ((d_->opt.flags & XMLDEC_SKIP_BLANK)) {
        vek_s32 i = 0;
        while (i < len && is_space(t[i])) {
            i++;
        }
        if (i == len) {
            return kAgain;
        }
    }
    // The terminator borrows the "<" when the text kept its length.
    char* z = t + len;
    if (z == e) {
        d_->restoreAt = e - d_->buf;
        d_->restoreByte = *e;
    }
    *z = 0;
    fill(ev, XML_EVT_TEXT, d_->depth, "", 0, t, len, nullptr, 0, d_);
    return XML_EVT_TEXT;
}

// White space before or after the root element: only white space.
vek_s32 Parser::outside_text(char* p, char* e) {
    char* q = skip_space(p, e);
    if (q < e) {
        vek_u32 cp;
        vek_s32 code = 0;
        if (!char_at(q, e, &cp, &code)) {
            return code;  // a byte that is no character at all says so
        }
        return fail(d_->phase == PH_EPILOG ? VEK_ERR_XML_JUNK : VEK_ERR_XML_SYNTAX, q);
    }
    consume(e);
    return kAgain;
}

vek_s32 Parser::start_tag(char* p, char* lim, XmlEvt* ev) {
    vek_s32 code = 0;
    mark_event(p);
    if (d_->phase == PH_EPILOG) {
        return fail(VEK_ERR_XML_JUNK, p);
    }
    char* n = p + 1;
    char* q = name(n, lim, &code);
    if (!q) {
        return code;
    }
    vek_s32 nameLen = (vek_s32)(q - n);
    vek_s32 count = 0;
    bool empty = false;
    for (;;) {
        char* s = skip_space(q, lim);
        if (s == lim) {
            return short_of(s);
        }
        if (*s == '>') {
            q = s + 1;
            break;
        }
        if (*s == '/') {
            if (s + 1 == lim) {
                return short_of(s + 1);
            }
            if (s[1] != '>') {
                return fail(VEK_ERR_XML_SYNTAX, s + 1);
            }
            empty = true;
            q = s + 2;
            break;
        }
        if (s == q) {
            return fail(VEK_ERR_XML_SYNTAX, s);  // attributes stand apart
        }
        char* an = s;
        vek_s32 anLine = d_->line;
        vek_s32 anCol = col_at(s);
        s = name(s, lim, &code);
        if (!s) {
            return code;
        }
        vek_s32 anLen = (vek_s32)(s - an);
        s = skip_space(s, lim);
        if (s == lim) {
            return short_of(s);
        }
        if (*s != '=') {
            return fail(VEK_ERR_XML_SYNTAX, s);
        }
        s = skip_space(s + 1, lim);
        if (s == lim) {
            return short_of(s);
        }
        char quote = *s;
        if (quote != '"' && quote != '\'') {
            return fail(VEK_ERR_XML_SYNTAX, s);
        }
        char* v = ++s;
        char* w = v;
        for (;;) {
            if (s == lim) {
                return short_of(s);
            }
            vek_u8 c = (vek_u8)*s;
            if (c == (vek_u8)quote) {
                break;
            }
            if (c >= 0x20 && c < 0x80 && c != '&' && c != '<') {
                *w++ = (char)c;
                s++;
            } else if (c == '\t' || c == '\n' || c == '\r') {
                *w++ = ' ';  // white space in a value is a space, a line end one
                s = c == '\t' ? s + 1 : line_end(s, lim, (char)c);
            } else if (c == '&') {
                vek_u32 cp;
                s = reference(s, lim, &cp, &code);
                if (!s) {
                    return code;
                }
                w += vek::utf8_encode(cp, w);
            } else if (c == '<') {
                return fail(VEK_ERR_XML_SYNTAX, s);
            } else {
                vek_u32 cp;
                char* e = char_at(s, lim, &cp, &code);
                if (!e) {
                    return code;
                }
                std::memmove(w, s, (size_t)(e - s));
                w += e - s;
                s = e;
            }
        }
        *w = 0;  // over the closing quote at the latest
        if (count >= d_->opt.maxAttrs) {
            return fail(VEK_ERR_XML_SIZE, an);
        }
        vek_s32 dup = add_attr(an, anLen, v, (vek_s32)(w - v), count) ? dup_of(count) : -1;
        if (dup != 0) {
            d_->err = dup < 0 ? VEK_ERR_FULL : VEK_ERR_XML_DUP_ATTR;
            d_->evLine = anLine;
            d_->evCol = anCol;
            return d_->err;
        }
        count++;
        q = s + 1;
    }
    for (vek_s32 i = 0; i < count; i++) {
        ((char*)d_->attrs[i].name)[d_->attrs[i].nameLen] = 0;
    }
    vek_s32 r = push(n, nameLen);
    if (r != 0) {
        return fail(r, p);
    }
    d_->phase = PH_CONTENT;
    d_->pendingEnd = empty;
    consume(q);
    const char* nm = d_->names + d_->nameAt[d_->depth - 1];
    fill(ev, XML_EVT_START, d_->depth, nm, nameLen, "", 0, count ? d_->attrs : nullptr, count, d_);
    return XML_EVT_START;
}

vek_s32 Parser::end_tag(char* p, char* lim, XmlEvt* ev) {
    vek_s32 code = 0;
    mark_event(p);
    if (d_->phase != PH_CONTENT) {
        return fail(d_->phase == PH_EPILOG ? VEK_ERR_XML_JUNK : VEK_ERR_XML_SYNTAX, p);
    }
    char* n = p + 2;
    char* q = name(n, lim, &code);
    if (!q) {
        return code;
    }
    vek_s32 len = (vek_s32)(q - n);
    q = skip_space(q, lim);
    if (q == lim) {
        return short_of(q);
    }
    if (*q != '>') {
        return fail(VEK_ERR_XML_SYNTAX, q);
    }
    const char* open = d_->names + d_->nameAt[d_->depth - 1];
    if ((vek_s32)std::strlen(open) != len || std::memcmp(open, n, (size_t)len) != 0) {
        d_->err = VEK_ERR_XML_TAG;
        return VEK_ERR_XML_TAG;  // at the end tag, as marked
    }
    consume(q + 1);
    fill(ev, XML_EVT_END, d_->depth, open, len, "", 0, nullptr, 0, d_);
    d_->namesLen = d_->nameAt[--d_->depth];
    if (d_->depth == 0) {
        d_->phase = PH_EPILOG;
    }
    return XML_EVT_END;
}

vek_s32 Parser::comment(char* p, char* lim, XmlEvt* ev) {
    vek_s32 code = 0;
    mark_event(p);
    char* t = p + 4;
    char* w = t;
    char* s = t;
    // "--" may not stand inside a comment, so the run stops at the first.
    s = plain_run(s, lim, &w, "--", 2, &code);
    if (!s) {
        return code;
    }
    if (lim - s < 3) {
        return short_of(lim);
    }
    if (s[2] != '>') {
        return fail(VEK_ERR_XML_SYNTAX, s);
    }
    *w = 0;
    consume(s + 3);
    if (d_->phase == PH_START) {
        d_->phase = PH_PROLOG;
    }
    if (!(d_->opt.flags & XMLDEC_COMMENTS)) {
        return kAgain;
    }
    fill(ev, XML_EVT_COMMENT, d_->depth, "", 0, t, (vek_s32)(w - t), nullptr, 0, d_);
    return XML_EVT_COMMENT;
}

vek_s32 Parser::cdata(char* p, char* lim, XmlEvt* ev) {
    vek_s32 code = 0;
    mark_event(p);
    if (d_->phase != PH_CONTENT) {
        return fail(d_->phase == PH_EPILOG ? VEK_ERR_XML_JUNK : VEK_ERR_XML_SYNTAX, p);
    }
    char* t = p + 9;
    char* w = t;
    char* s = plain_run(t, lim, &w, "]]>", 3, &code);
    if (!s) {
        return code;
    }
    *w = 0;
    consume(s + 3);
    fill(ev, XML_EVT_CDATA, d_->depth, "", 0, t, (vek_s32)(w - t), nullptr, 0, d_);
    return XML_EVT_CDATA;
}

vek_s32 Parser::pi(char* p, char* lim, XmlEvt* ev) {
    vek_s32 code = 0;
    mark_event(p);
    bool atStart = d_->phase == PH_START && abs_of(p) == 0;
    char* n = p + 2;
    char* q = name(n, lim, &code);
    if (!q) {
        return code;
    }
    vek_s32 len = (vek_s32)(q - n);
    if (len == 3 && std::memcmp(n, "xml", 3) == 0 && atStart) {
        return decl(p, lim, ev);
    }
    if (same_ci(n, len, "xml")) {
        return fail(VEK_ERR_XML_DECL, p);
    }
    char* t = q;
    char* w = q;
    if (!(lim - q >= 2 && q[0] == '?' && q[1] == '>')) {
        char* s = skip_space(q, lim);
        if (s == q) {
            return s == lim ? short_of(s) : fail(VEK_ERR_XML_SYNTAX, s);
        }
        t = w = s;
        q = plain_run(s, lim, &w, "?>", 2, &code);
        if (!q) {
            return code;
        }
    }
    n[len] = 0;  // over the space or the "?"
    *w = 0;
    consume(q + 2);
    if (d_->phase == PH_START) {
        d_->phase = PH_PROLOG;
    }
    if (!(d_->opt.flags & XMLDEC_PIS)) {
        return kAgain;
    }
    fill(ev, XML_EVT_PI, d_->depth, n, len, t, (vek_s32)(w - t), nullptr, 0, d_);
    return XML_EVT_PI;
}

// A quoted literal of the prolog: its value (not decoded) as an attribute.
char* Parser::literal(char* p, const char* lim, XmlAttr* a, bool pubid, vek_s32* code) {
    if (p == lim) {
        *code = short_of(p);
        return nullptr;
    }
    char quote = *p;
    if (quote != '"' && quote != '\'') {
        *code = fail(VEK_ERR_XML_SYNTAX, p);
        return nullptr;
    }
    char* v = ++p;
    while (p < lim && *p != quote) {
        vek_u8 c = (vek_u8)*p;
        if (pubid && !(c == ' ' || c == '\r' || c == '\n' || (c < 0x80 && std::strchr("-'()+,./:=?;!*#@$_%", c) && c) ||
                       (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))) {
            *code = fail(VEK_ERR_XML_SYNTAX, p);
            return nullptr;
        }
        if (c == '\n') {
            newline(p + 1);
        } else if (c == '\r') {
            if (p + 1 < lim && p[1] == '\n') {
                p++;
            }
            newline(p + 1);
        } else if (c < 0x20 && c != '\t') {
            *code = fail(VEK_ERR_XML_CHAR, p);
            return nullptr;
        } else if (c >= 0x80) {
            vek_u32 cp;
            char* e = char_at(p, lim, &cp, code);
            if (!e) {
                return nullptr;
            }
            p = e;
            continue;
        }
        p++;
    }
    if (p == lim) {
        *code = short_of(p);
        return nullptr;
    }
    a->value = v;
    a->valueLen = (vek_s32)(p - v);
    *p = 0;
    return p + 1;
}

// <?xml version="1.x" (encoding="...")? (standalone="yes|no")? ?>
vek_s32 Parser::decl(char* p, char* lim, XmlEvt* ev) {
    static const char* const kNames[] = {"version", "encoding", "standalone"};
    vek_s32 code = 0;
    XmlAttr got[3];
    vek_s32 count = 0;
    vek_s32 next = 0;  // the first of the three still allowed
    char* q = p + 5;
    for (;;) {
        char* s = skip_space(q, lim);
        if (lim - s >= 2 && s[0] == '?' && s[1] == '>') {
            q = s + 2;
            break;
        }
        if (s == lim) {
            return short_of(s);
        }
        if (s == q) {
            return fail(VEK_ERR_XML_DECL, s);
        }
        char* n = s;
        s = name(s, lim, &code);
        if (!s) {
            return code == VEK_ERR_XML_SYNTAX ? fail(VEK_ERR_XML_DECL, n) : code;
        }
        vek_s32 k = next;
        while (k < 3 && !((vek_s32)std::strlen(kNames[k]) == s - n && std::memcmp(n, kNames[k], (size_t)(s - n)) == 0)) {
            k++;
        }
        if (k == 3 || (count == 0 && k != 0)) {
            return fail(VEK_ERR_XML_DECL, n);
        }
        s = skip_space(s, lim);
        if (s == lim || *s != '=') {
            return s == lim ? short_of(s) : fail(VEK_ERR_XML_DECL, s);
        }
        s = skip_space(s + 1, lim);
        XmlAttr& a = got[count];
        a.name = kNames[k];
        a.nameLen = (vek_s32)std::strlen(kNames[k]);
        char* v = s;
        s = literal(s, lim, &a, false, &code);
        if (!s) {
            return code;
        }
        const char* val = a.value;
        vek_s32 vl = a.valueLen;
        bool ok = true;
        if (k == 0) {
            ok = vl >= 3 && val[0] == '1' && val[1] == '.';
            for (vek_s32 i = 2; i < vl && ok; i++) {
                ok = val[i] >= '0' && val[i] <= '9';
            }
        } else if (k == 1) {
            ok = vl > 0 && ((val[0] | 0x20) >= 'a' && (val[0] | 0x20) <= 'z');
            for (vek_s32 i = 1; i < vl && ok; i++) {
                char c = val[i];
                ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                     c == '_' || c == '-';
            }
        } else {
            ok = (vl == 3 && std::memcmp(val, "yes", 3) == 0) || (vl == 2 && std::memcmp(val, "no", 2) == 0);
        }
        if (!ok) {
            return fail(VEK_ERR_XML_DECL, v);
        }
        count++;
        next = k + 1;
        q = s;
    }
    if (count == 0) {
        return fail(VEK_ERR_XML_DECL, p);
    }
    // The declared encoding against the one the bytes showed.
    for (vek_s32 i = 0; i < count; i++) {
        if (got[i].name != kNames[1]) {
            continue;
        }
        const char* v = got[i].value;
        vek_s32 vl = got[i].valueLen;
        bool u16 = d_->enc == ENC_U16LE || d_->enc == ENC_U16BE;
        if (same_ci(v, vl, "UTF-8")) {
            if (u16) {
                return fail(VEK_ERR_XML_ENCODING, v);
            }
        } else if (same_ci(v, vl, "UTF-16") || same_ci(v, vl, "UTF-16LE") || same_ci(v, vl, "UTF-16BE")) {
            if (!u16 || (same_ci(v, vl, "UTF-16LE") && d_->enc != ENC_U16LE) ||
                (same_ci(v, vl, "UTF-16BE") && d_->enc != ENC_U16BE)) {
                return fail(VEK_ERR_XML_ENCODING, v);
            }
        } else if (same_ci(v, vl, "ISO-8859-1") || same_ci(v, vl, "US-ASCII")) {
            if (u16 || d_->bom) {
                return fail(VEK_ERR_XML_ENCODING, v);
            }
            d_->switchAt = q - d_->buf;
            d_->switchTo = same_ci(v, vl, "US-ASCII") ? ENC_ASCII : ENC_LATIN1;
        } else {
            return fail(VEK_ERR_XML_ENCODING, v);
        }
    }
    consume(q);
    d_->phase = PH_PROLOG;
    if (!(d_->opt.flags & XMLDEC_PROLOG)) {
        return kAgain;
    }
    for (vek_s32 i = 0; i < count; i++) {
        add_attr(got[i].name, got[i].nameLen, got[i].value, got[i].valueLen, i);  // room for 16 is kept
    }
    fill(ev, XML_EVT_DECL, 0, "xml", 3, "", 0, d_->attrs, count, d_);
    return XML_EVT_DECL;
}

// <!DOCTYPE name (SYSTEM "x" | PUBLIC "p" "x")? ([ subset ])? >
vek_s32 Parser::doctype(char* p, char* lim, XmlEvt* ev) {
    vek_s32 code = 0;
    mark_event(p);
    if (d_->phase > PH_PROLOG || d_->doctype || (d_->opt.flags & XMLDEC_NO_DOCTYPE)) {
        return fail(d_->phase == PH_EPILOG ? VEK_ERR_XML_JUNK : VEK_ERR_XML_DOCTYPE, p);
    }
    char* q = skip_space(p + 9, lim);
    if (q == p + 9) {
        return q == lim ? short_of(q) : fail(VEK_ERR_XML_SYNTAX, q);
    }
    char* n = q;
    q = name(q, lim, &code);
    if (!q) {
        return code;
    }
    vek_s32 len = (vek_s32)(q - n);
    XmlAttr ids[2];
    vek_s32 count = 0;
    char* s = skip_space(q, lim);
    if (s != q && lim - s >= 6 && (std::memcmp(s, "SYSTEM", 6) == 0 || std::memcmp(s, "PUBLIC", 6) == 0)) {
        bool pub = s[0] == 'P';
        vek_s32 lits = pub ? 2 : 1;
        s += 6;
        for (vek_s32 i = 0; i < lits; i++) {
            char* t = skip_space(s, lim);
            if (t == s) {
                return t == lim ? short_of(t) : fail(VEK_ERR_XML_SYNTAX, t);
            }
            ids[count].name = i == 0 && pub ? "PUBLIC" : "SYSTEM";
            ids[count].nameLen = 6;
            s = literal(t, lim, &ids[count], pub && i == 0, &code);
            if (!s) {
                return code;
            }
            count++;
        }
        s = skip_space(s, lim);
    }
    if (s < lim && *s == '[') {
        // The internal subset, unread: its characters checked, its end found.
        char* t = s + 1;
        char quote = 0;
        vek_s32 st = 1;
        for (; t < lim; t++) {
            char c = *t;
            if ((vek_u8)c >= 0x80 || (c < 0x20 && c != '\t' && c != '\n' && c != '\r')) {
                vek_u32 cp;
                char* e = char_at(t, lim, &cp, &code);
                if (!e) {
                    return code;
                }
                t = e - 1;
                continue;
            }
            if (c == '\n') {
                newline(t + 1);
            } else if (c == '\r') {
                if (t + 1 < lim && t[1] == '\n') {
                    t++;
                }
                newline(t + 1);
            }
            if (quote) {
                quote = c == quote ? 0 : quote;
            } else if (st == 2 || st == 3) {
                if (st == 2 ? lim - t >= 3 && std::memcmp(t, "-->", 3) == 0 : lim - t >= 2 && std::memcmp(t, "?>", 2) == 0) {
                    t += st == 2 ? 2 : 1;
                    st = 1;
                }
            } else if (c == '"' || c == '\'') {
                quote = c;
            } else if (c == ']') {
                break;
            } else if (c == '<' && lim - t >= 4 && t[1] == '!' && t[2] == '-' && t[3] == '-') {
                st = 2;
                t += 3;
            } else if (c == '<' && lim - t >= 2 && t[1] == '?') {
                st = 3;
                t++;
            }
        }
        if (t >= lim) {
            return short_of(lim);
        }
        s = skip_space(t + 1, lim);
    }
    if (s == lim) {
        return short_of(s);
    }
    if (*s != '>') {
        return fail(VEK_ERR_XML_SYNTAX, s);
    }
    n[len] = 0;
    d_->doctype = true;
    d_->phase = PH_PROLOG;
    consume(s + 1);
    if (!(d_->opt.flags & XMLDEC_PROLOG)) {
        return kAgain;
    }
    for (vek_s32 i = 0; i < count; i++) {
        add_attr(ids[i].name, 6, ids[i].value, ids[i].valueLen, i);
    }
    fill(ev, XML_EVT_DOCTYPE, 0, n, len, "", 0, count ? d_->attrs : nullptr, count, d_);
    return XML_EVT_DOCTYPE;
}

vek_s32 Parser::step(XmlEvt* ev) {
    char* p = d_->buf + d_->beg;
    char* e = d_->buf + d_->end;
    if (p == e) {
        if (!d_->final) {
            return 0;
        }
        if (d_->phase == PH_CONTENT) {
            return fail(VEK_ERR_XML_UNCLOSED, p);
        }
        if (d_->phase != PH_EPILOG) {
            return fail(VEK_ERR_XML_NO_ROOT, p);
        }
        d_->phase = PH_DONE;
        mark_event(p);
        fill(ev, XML_EVT_EOF, 0, "", 0, "", 0, nullptr, 0, d_);
        return XML_EVT_EOF;
    }
    if (*p != '<') {
        char* from = d_->scanAt > d_->beg ? d_->buf + d_->scanAt : p;
        char* lt = (char*)std::memchr(from, '<', (size_t)(e - from));
        if (!lt) {
            if (!d_->final) {
                d_->scanAt = d_->end;
                return e - p > d_->opt.maxToken ? fail(VEK_ERR_XML_SIZE, p) : 0;
            }
            lt = e;
        }
        if (lt - p > d_->opt.maxToken) {
            return fail(VEK_ERR_XML_SIZE, p);
        }
        if (d_->phase != PH_CONTENT) {
            if (d_->phase == PH_START) {
                d_->phase = PH_PROLOG;
            }
            return outside_text(p, lt);
        }
        if (lt == e) {
            cut_ = true;
            vek_s32 code = text(p, e, ev);  // for the errors inside it
            return code < 0 ? code : fail(VEK_ERR_XML_UNCLOSED, e);
        }
        return text(p, lt, ev);
    }
    // Markup: which kind, from as many bytes as it takes to tell.
    vek_s32 kind = 't';
    vek_s32 avail = (vek_s32)(e - p < 9 ? e - p : 9);
    if (avail < 2) {
        kind = 0;
    } else if (p[1] == '/') {
        kind = 'e';
    } else if (p[1] == '?') {
        kind = 'p';
    } else if (p[1] == '!') {
        kind = 0;
        static const char* const kBang[] = {"<!--", "<![CDATA[", "<!DOCTYPE"};
        static const vek_s32 kKinds[] = {'c', 'd', 'D'};
        bool maybe = false;
        for (vek_s32 i = 0; i < 3; i++) {
            vek_s32 n = (vek_s32)std::strlen(kBang[i]);
            vek_s32 m = avail < n ? avail : n;
            if (std::memcmp(p, kBang[i], (size_t)m) == 0) {
                if (m == n) {
                    kind = kKinds[i];
                }
                maybe = true;
            }
        }
        if (!maybe) {
            mark_event(p);
            return fail(VEK_ERR_XML_SYNTAX, p + 1);
        }
    }
    if (kind == 0) {
        if (!d_->final) {
            return 0;
        }
        mark_event(p);
        return fail(VEK_ERR_XML_UNCLOSED, e);
    }
    vek_s64 tokEnd = find_end(p, e, kind == 'e' ? 't' : kind);
    char* lim = tokEnd >= 0 ? d_->buf + tokEnd : e;
    if (lim - p > d_->opt.maxToken) {
        mark_event(p);
        return fail(VEK_ERR_XML_SIZE, p);
    }
    if (tokEnd < 0 && !d_->final) {
        return 0;
    }
    cut_ = tokEnd < 0;
    switch (kind) {
    case 'e':
        return end_tag(p, lim, ev);
    case 'p':
        return pi(p, lim, ev);
    case 'c':
        return comment(p, lim, ev);
    case 'd':
        return cdata(p, lim, ev);
    case 'D':
        return doctype(p, lim, ev);
    default:
        return start_tag(p, lim, ev);
    }
}

void clear_state(XmlDec* d) {
    d->beg = d->end = d->base = d->fed = 0;
    d->final = false;
    d->strm = nullptr;
    d->enc = ENC_UNKNOWN;
    d->headLen = 0;
    d->odd = -1;
    d->hiSurr = 0;
    d->bom = false;
    d->switchAt = -1;
    d->switchTo = ENC_UTF8;
    d->phase = PH_START;
    d->doctype = false;
    d->pendingEnd = false;
    d->restoreAt = -1;
    d->scanAt = 0;
    d->scanSt = 0;
    d->line = 1;
    d->lineBeg = 0;
    d->cont = 0;
    d->evLine = 1;
    d->evCol = 1;
    d->err = 0;
    d->namesLen = 0;
    d->depth = 0;
}

bool dec_ok(const XmlDec* d) {
    VEK_ASSERT(d);
    return d != nullptr;
}

} // namespace

extern "C" {

VEK_API XmlDec* XmlDec_new(const XmlDecOpts* opts) {
    XmlDec* d = (XmlDec*)vek_malloc__(sizeof(XmlDec));
    if (!d) {
        return nullptr;
    }
    std::memset(d, 0, sizeof *d);
    if (opts) {
        d->opt = *opts;
    }
    d->opt.maxDepth = d->opt.maxDepth > 0 ? d->opt.maxDepth : kDefDepth;
    d->opt.maxToken = d->opt.maxToken > 0 ? d->opt.maxToken : kDefToken;
    d->opt.maxAttrs = d->opt.maxAttrs > 0 ? d->opt.maxAttrs : kDefAttrs;
    d->opt.maxSize = d->opt.maxSize > 0 ? d->opt.maxSize : kDefSize;
    clear_state(d);
    // The prolog's events use the attribute array without growing it.
    if (!grow(d->attrs, d->attrCap, 16)) {
        vek_free__(d);
        return nullptr;
    }
    return d;
}

VEK_API void XmlDec_delete(XmlDec* d) {
    if (!d) {
        return;
    }
    vek_free__(d->buf);
    vek_free__(d->block);
    vek_free__(d->names);
    vek_free__(d->nameAt);
    vek_free__(d->attrs);
    vek_free__(d->slots);
    vek_free__(d);
}

VEK_API void XmlDec_reset(XmlDec* d) {
    if (dec_ok(d)) {
        clear_state(d);
    }
}

VEK_API vek_s32 XmlDec_feed(XmlDec* d, const void* data, vek_s32 len) {
    if (!dec_ok(d) || (len > 0 && !data) || len < 0) {
        VEK_ASSERT(len >= 0 && (data || len == 0));
        return VEK_ERR_BAD_ARG;
    }
    if (d->err) {
        return d->err;
    }
    if (d->final) {
        return VEK_ERR_BAD_ARG;
    }
    d->fed += len;
    if (d->fed > d->opt.maxSize) {
        d->err = VEK_ERR_XML_SIZE;
        return d->err;
    }
    vek_s32 r = append(d, (const vek_u8*)data, len);
    if (r < 0) {
        d->err = r;
    }
    return r;
}

VEK_API vek_s32 XmlDec_end(XmlDec* d) {
    if (!dec_ok(d) || d->strm) {
        return VEK_ERR_BAD_ARG;
    }
    if (d->final || d->err) {
        return 0;
    }
    vek_s32 r = finish_input(d);
    if (r < 0) {
        d->err = r;
    }
    return 0;
}

VEK_API vek_s32 XmlDec_setStrm(XmlDec* d, IStrm* strm) {
    if (!dec_ok(d) || !strm || d->fed > 0 || d->final) {
        VEK_ASSERT(strm);
        return VEK_ERR_BAD_ARG;
    }
    d->strm = strm;
    return 0;
}

VEK_API vek_s32 XmlDec_next(XmlDec* d, XmlEvt* ev) {
    if (!dec_ok(d) || !ev) {
        VEK_ASSERT(ev);
        return VEK_ERR_BAD_ARG;
    }
    if (d->err) {
        return d->err;
    }
    if (d->restoreAt >= 0) {
        d->buf[d->restoreAt] = d->restoreByte;
        d->restoreAt = -1;
    }
    if (d->pendingEnd) {
        d->pendingEnd = false;
        const char* open = d->names + d->nameAt[d->depth - 1];
        fill(ev, XML_EVT_END, d->depth, open, (vek_s32)std::strlen(open), "", 0, nullptr, 0, d);
        d->namesLen = d->nameAt[--d->depth];
        if (d->depth == 0) {
            d->phase = PH_EPILOG;
        }
        return XML_EVT_END;
    }
    if (d->phase == PH_DONE) {
        fill(ev, XML_EVT_EOF, 0, "", 0, "", 0, nullptr, 0, d);
        return XML_EVT_EOF;
    }
    Parser parser(d);
    for (;;) {
        if (d->switchAt >= 0 && !apply_switch(d)) {
            d->err = VEK_ERR_FULL;
            return d->err;
        }
        vek_s32 r = parser.step(ev);
        if (r == kAgain) {
            continue;
        }
        if (r != 0 || !d->strm || d->final) {
            if (r < 0) {
                d->err = r;
            }
            return r;
        }
        if (!d->block && !(d->block = (char*)vek_malloc__(kStrmBlock))) {
            d->err = VEK_ERR_FULL;
            return d->err;
        }
        vek_s32 n = IStrm_read(d->strm, d->block, kStrmBlock);
        if (n == VEK_ERR_EOF || n == 0) {
            r = finish_input(d);
        } else if (n < 0) {
            r = n;
        } else {
            d->fed += n;
            r = d->fed > d->opt.maxSize ? VEK_ERR_XML_SIZE : append(d, (const vek_u8*)d->block, n);
        }
        if (r < 0) {
            d->err = r;
            return r;
        }
    }
}

VEK_API vek_s32 XmlDec_pos(const XmlDec* d, vek_s32* line, vek_s32* col) {
    if (!dec_ok(d)) {
        return VEK_ERR_BAD_ARG;
    }
    if (line) {
        *line = d->evLine;
    }
    if (col) {
        *col = d->evCol;
    }
    return d->err;
}

VEK_API const char* XmlDec_errText(vek_s32 code) {
    switch (code) {
    case VEK_ERR_XML_SYNTAX: return "not well-formed";
    case VEK_ERR_XML_CHAR: return "character not allowed";
    case VEK_ERR_XML_TAG: return "mismatched end tag";
    case VEK_ERR_XML_DUP_ATTR: return "duplicate attribute";
    case VEK_ERR_XML_ENTITY: return "undefined entity";
    case VEK_ERR_XML_CHAR_REF: return "reference to a character not allowed";
    case VEK_ERR_XML_ENCODING: return "encoding not supported or contradicted";
    case VEK_ERR_XML_DEPTH: return "elements nested too deep";
    case VEK_ERR_XML_SIZE: return "document or token too large";
    case VEK_ERR_XML_UNCLOSED: return "document ended inside a token or an element";
    case VEK_ERR_XML_NO_ROOT: return "no root element";
    case VEK_ERR_XML_JUNK: return "content after the root element";
    case VEK_ERR_XML_DECL: return "malformed or misplaced XML declaration";
    case VEK_ERR_XML_DOCTYPE: return "DOCTYPE refused or misplaced";
    case VEK_ERR_FULL: return "out of memory";
    default: return "unknown";
    }
}

} // extern "C"
