/*
 * VekLex.cpp - the modem-response lexer.
 *
 * One pass over the bytes. For the line being read the lexer keeps:
 *   line[0..kept)   the bytes kept (at most maxLine), NUL-terminated on output
 *   len             the line's real length (kept < len once it overflowed)
 *   [lo, hi)        the prefix entries whose first len bytes equal the line's
 *   best            the longest prefix entry (not whole-line) already matched
 *   echoOk          the line so far equals the expected echo's start
 * so that when the line ends, its kind is known without looking at it again.
 * The table is sorted bytewise; the entries sharing a line's first k bytes
 * are one contiguous range, and an entry of exactly k bytes sorts first in
 * it, which is what the narrowing below relies on.
 */
#include <algorithm>
#include <cstring>
#include "VekCore.h"
#include "VekLex.h"

namespace {

constexpr int kMaxPrefix = 63;
constexpr int kMaxEntries = 128;

struct Entry {
    char text[kMaxPrefix + 1];
    vek_u8 len;
    vek_u8 kind;
    vek_u8 lines;
    vek_u8 whole;
};

struct Builtin {
    const char* text;
    vek_u8 kind;
    vek_u8 lines;
    vek_u8 whole;
};

const Builtin kBuiltins[] = {
    {"OK", VEK_LEX_OK, 0, 1},
    {"ERROR", VEK_LEX_ERROR, 0, 1},
    {"+CME ERROR:", VEK_LEX_CME, 0, 0},
    {"+CMS ERROR:", VEK_LEX_CMS, 0, 0},
    {"CONNECT", VEK_LEX_CONNECT, 0, 1},
    {"CONNECT ", VEK_LEX_CONNECT, 0, 0},
    {"NO CARRIER", VEK_LEX_NO_CARRIER, 0, 1},
    {"BUSY", VEK_LEX_BUSY, 0, 1},
    {"NO ANSWER", VEK_LEX_NO_ANSWER, 0, 1},
    {"NO DIALTONE", VEK_LEX_NO_DIALTONE, 0, 1},
    {"NO DIAL TONE", VEK_LEX_NO_DIALTONE, 0, 1},
    {"COMMAND NOT SUPPORT", VEK_LEX_VENDOR_ERR, 0, 1},
    {"TOO MANY PARAMETERS", VEK_LEX_VENDOR_ERR, 0, 1},
    {"MODEM ERROR", VEK_LEX_VENDOR_ERR, 0, 0},
    {"+EXT ERROR:", VEK_LEX_VENDOR_ERR, 0, 0},
    {"RING", VEK_LEX_URC, 0, 1},
    {"+CRING:", VEK_LEX_URC, 0, 0},
    {"+CLIP:", VEK_LEX_URC, 0, 0},
    {"+CMTI:", VEK_LEX_URC, 0, 0},
    {"+CMT:", VEK_LEX_URC, 1, 0},
    {"+CDS:", VEK_LEX_URC, 1, 0},
    {"+CDSI:", VEK_LEX_URC, 0, 0},
    {"+CBM:", VEK_LEX_URC, 1, 0},
    {"+CBMI:", VEK_LEX_URC, 0, 0},
    {"+CREG:", VEK_LEX_URC, 0, 0},
    {"+CGREG:", VEK_LEX_URC, 0, 0},
    {"+CEREG:", VEK_LEX_URC, 0, 0},
    {"+C5GREG:", VEK_LEX_URC, 0, 0},
    {"+CUSD:", VEK_LEX_URC, 0, 0},
    {"+CIEV:", VEK_LEX_URC, 0, 0},
    {"+CGEV:", VEK_LEX_URC, 0, 0},
    {"+CUSATP:", VEK_LEX_URC, 0, 0},
    {"+PBREADY", VEK_LEX_URC, 0, 1},
    {"^RSSI:", VEK_LEX_URC, 0, 0},
    {"^HCSQ:", VEK_LEX_URC, 0, 0},
    {"^BOOT:", VEK_LEX_URC, 0, 0},
    {"^MODE:", VEK_LEX_URC, 0, 0},
    {"^SRVST:", VEK_LEX_URC, 0, 0},
    {"^SIMST:", VEK_LEX_URC, 0, 0},
    {"^SYSSTART", VEK_LEX_URC, 0, 1},
    {"^DSFLOWRPT:", VEK_LEX_URC, 0, 0},
    {"+QIND:", VEK_LEX_URC, 0, 0},
    {"+STIN:", VEK_LEX_URC, 0, 0},
};

bool entry_less(const Entry& a, const Entry& b) {
    return std::memcmp(a.text, b.text, (size_t)std::min(a.len, b.len) + 1) < 0;
}

} // namespace

struct VekLex {
    char* line;        // maxLine + 1 bytes
    char* echo;        // maxLine + 1 bytes
    vek_s32 maxLine;
    vek_s32 flags;
    vek_s32 len;       // the line's length so far (saturates at INT32_MAX)
    vek_s32 echoLen;   // -1: no echo expected
    bool echoOk;
    bool promptPending;  // the line so far is ">" at a line start, prompt expected
    vek_s32 dataLines; // data lines still owed to a two-line URC
    vek_s32 lo, hi, best;
    vek_s32 count;
    Entry table[kMaxEntries];
};

namespace {

void start_line(VekLex* x) {
    x->len = 0;
    x->lo = 0;
    x->hi = x->count;
    x->best = -1;
    x->echoOk = x->echoLen >= 0;
    x->promptPending = false;
}

// The entries of [lo, hi) that go on with byte c at position k.
void narrow(VekLex* x, vek_s32 k, unsigned char c) {
    vek_s32 lo = x->lo, hi = x->hi;
    if (lo < hi && x->table[lo].len == k) {
        if (!x->table[lo].whole) {
            x->best = lo;
        }
        lo++;
    }
    const Entry* t = x->table;
    auto byte_at = [&](vek_s32 i) { return (unsigned char)t[i].text[k]; };
    vek_s32 a = lo, b = hi;
    while (a < b) {  // first entry with text[k] >= c
        vek_s32 m = a + (b - a) / 2;
        if (byte_at(m) < c) {
            a = m + 1;
        } else {
            b = m;
        }
    }
    vek_s32 first = a;
    b = hi;
    while (a < b) {  // first entry with text[k] > c
        vek_s32 m = a + (b - a) / 2;
        if (byte_at(m) <= c) {
            a = m + 1;
        } else {
            b = m;
        }
    }
    x->lo = first;
    x->hi = a;
}

// The number after a prefix (": 14", " 9600"), or -1 when none leads the text.
vek_s32 number_of(const char* s, vek_s32 n) {
    vek_s32 i = 0;
    while (i < n && (s[i] == ' ' || s[i] == ':')) {
        i++;
    }
    if (i == n || s[i] < '0' || s[i] > '9') {
        return -1;
    }
    vek_s64 v = 0;
    for (; i < n && s[i] >= '0' && s[i] <= '9'; i++) {
        v = v * 10 + (s[i] - '0');
        if (v > 0x7fffffff) {
            return -1;
        }
    }
    return (vek_s32)v;
}

void set_arg(VekLexTok* tok, vek_s32 from) {
    const char* s = tok->text;
    while (from < tok->len && (s[from] == ' ' || s[from] == ':')) {
        from++;
    }
    tok->arg = s + from;
    tok->argLen = tok->len - from;
}

// The ATV0 forms of the finals and of RING.
bool numeric(VekLexTok* tok) {
    if (tok->len != 1 || tok->text[0] < '0' || tok->text[0] > '8' || tok->text[0] == '5') {
        return false;
    }
    static const vek_s32 kinds[] = {VEK_LEX_OK,     VEK_LEX_CONNECT,     VEK_LEX_URC,
                                    VEK_LEX_NO_CARRIER, VEK_LEX_ERROR,  0,
                                    VEK_LEX_NO_DIALTONE, VEK_LEX_BUSY, VEK_LEX_NO_ANSWER};
    tok->kind = kinds[tok->text[0] - '0'];
    tok->flags = VEK_LEX_TOK_NUMERIC;
    return true;
}

// Names the finished line. The line is in x->line[0..kept), NUL-terminated.
void classify(VekLex* x, VekLexTok* tok) {
    vek_s32 kept = std::min(x->len, x->maxLine);
    tok->text = x->line;
    tok->len = kept;
    tok->arg = x->line + kept;
    tok->argLen = 0;
    tok->code = 0;
    tok->flags = 0;
    tok->lines = 0;
    if (x->len > x->maxLine) {
        tok->kind = VEK_LEX_LONG;
        tok->code = x->len;
        return;
    }
    if (x->echoOk && x->len == x->echoLen) {
        tok->kind = VEK_LEX_ECHO;
        x->echoLen = -1;
        return;
    }
    vek_s32 hit = -1;
    if (x->lo < x->hi && x->table[x->lo].len == x->len) {
        hit = x->lo;
    } else {
        hit = x->best;
    }
    if (hit < 0) {
        if (!((x->flags & VEK_LEX_NUMERIC) && numeric(tok))) {
            tok->kind = x->dataLines > 0 ? VEK_LEX_URC_DATA : VEK_LEX_INFO;
        }
    } else {
        const Entry& e = x->table[hit];
        tok->kind = e.kind;
        tok->lines = e.lines;
        set_arg(tok, e.len);
        switch (e.kind) {
        case VEK_LEX_CME:
        case VEK_LEX_CMS:
        case VEK_LEX_VENDOR_ERR:
            tok->code = number_of(tok->arg, tok->argLen);
            break;
        case VEK_LEX_CONNECT:
            tok->code = std::max(0, number_of(tok->arg, tok->argLen));
            break;
        default:
            break;
        }
    }
    if (tok->kind == VEK_LEX_URC_DATA) {
        x->dataLines--;
    } else if (tok->kind == VEK_LEX_URC) {
        x->dataLines = tok->lines;
    } else {
        // A data line that never came: a final or another line ends the wait.
        x->dataLines = 0;
    }
    if (VEK_LEX_IS_FINAL(tok->kind)) {
        x->echoLen = -1;
    }
}

void clear_tok(VekLexTok* tok) {
    std::memset(tok, 0, sizeof *tok);
    tok->text = "";
    tok->arg = "";
}

vek_s32 add_entry(VekLex* x, const char* prefix, vek_s32 kind, vek_s32 lines, vek_s32 whole) {
    size_t n = std::strlen(prefix);
    if (n == 0 || n > (size_t)kMaxPrefix || lines < 0 || lines > 4) {
        return VEK_ERR_BAD_ARG;
    }
    Entry e{};
    std::memcpy(e.text, prefix, n);
    e.len = (vek_u8)n;
    e.kind = (vek_u8)kind;
    e.lines = (vek_u8)lines;
    e.whole = whole ? 1 : 0;
    Entry* end = x->table + x->count;
    Entry* at = std::lower_bound(x->table, end, e, entry_less);
    if (at != end && at->len == e.len && std::memcmp(at->text, e.text, n) == 0) {
        *at = e;
        return 0;
    }
    if (x->count == kMaxEntries) {
        return VEK_ERR_FULL;
    }
    std::memmove(at + 1, at, (size_t)(end - at) * sizeof(Entry));
    *at = e;
    x->count++;
    return 0;
}

} // namespace

extern "C" {

VEK_API VekLex* VekLex_new(vek_s32 maxLine, vek_s32 flags) {
    if (maxLine == 0) {
        maxLine = 2048;
    }
    VEK_ASSERT(maxLine >= 16 && maxLine <= 1048576);
    maxLine = std::clamp(maxLine, 16, 1048576);
    VekLex* x = (VekLex*)vek_malloc__(sizeof(VekLex));
    if (!x) {
        return nullptr;
    }
    std::memset(x, 0, sizeof *x);
    x->line = (char*)vek_malloc__(2 * ((size_t)maxLine + 1));
    if (!x->line) {
        vek_free__(x);
        return nullptr;
    }
    x->echo = x->line + maxLine + 1;
    x->maxLine = maxLine;
    x->flags = flags;
    for (const Builtin& b : kBuiltins) {
        add_entry(x, b.text, b.kind, b.lines, b.whole);
    }
    VekLex_reset(x);
    return x;
}

VEK_API void VekLex_delete(VekLex* x) {
    if (x) {
        vek_free__(x->line);
        vek_free__(x);
    }
}

VEK_API void VekLex_reset(VekLex* x) {
    x->echoLen = -1;
    x->dataLines = 0;
    start_line(x);
}

VEK_API void VekLex_setFlags(VekLex* x, vek_s32 flags) {
    x->flags = flags;
}

VEK_API vek_s32 VekLex_getFlags(const VekLex* x) {
    return x->flags;
}

VEK_API vek_s32 VekLex_addPrefix(VekLex* x, const char* prefix, vek_s32 kind, vek_s32 lines, vek_s32 whole) {
    if (!x || !prefix || (kind != VEK_LEX_URC && kind != VEK_LEX_VENDOR_ERR) ||
        (kind == VEK_LEX_VENDOR_ERR && lines != 0)) {
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 r = add_entry(x, prefix, kind, lines, whole);
    start_line(x);  // indexes into the table moved; the line in progress is rematched from its start
    return r;
}

VEK_API void VekLex_setEcho(VekLex* x, const char* cmd) {
    x->echoLen = -1;
    if (cmd) {
        size_t n = std::strlen(cmd);
        if (n > 0 && n <= (size_t)x->maxLine) {
            std::memcpy(x->echo, cmd, n);
            x->echoLen = (vek_s32)n;
        }
    }
    x->echoOk = x->echoLen >= 0 && x->len == 0;
}

VEK_API vek_s32 VekLex_feed(VekLex* x, const void* data, vek_s32 len, VekLexTok* tok) {
    if (!x || !tok || len < 0 || (!data && len > 0)) {
        return VEK_ERR_BAD_ARG;
    }
    clear_tok(tok);
    const unsigned char* p = (const unsigned char*)data;
    for (vek_s32 i = 0; i < len; i++) {
        // Inside a line that can no longer be a prefix, the echo or the
        // prompt, bytes are only kept: copy the run up to the next NUL or
        // line end in one go (most of a PDU listing is such runs).
        if (x->len > 0 && x->lo >= x->hi && !x->echoOk && !x->promptPending) {
            vek_s32 j = i;
            while (j < len && p[j] != '\r' && p[j] != '\n' && p[j] != 0) {
                j++;
            }
            vek_s32 n = j - i;
            if (x->len < x->maxLine) {
                vek_s32 keep = std::min(n, x->maxLine - x->len);
                std::memcpy(x->line + x->len, p + i, (size_t)keep);
            }
            x->len = (vek_s32)std::min<vek_s64>((vek_s64)x->len + n, 0x7fffffff);
            i = j;
            if (i == len) {
                break;
            }
        }
        unsigned char c = p[i];
        if (c == 0) {
            continue;
        }
        if (c == '\r' || c == '\n') {
            if (x->len == 0) {
                continue;
            }
            x->line[std::min(x->len, x->maxLine)] = 0;
            classify(x, tok);
            start_line(x);
            return i + 1;
        }
        vek_s32 k = x->len;
        if (x->promptPending) {
            x->promptPending = false;
            if (c == ' ') {
                x->line[0] = '>';
                x->line[1] = ' ';
                x->line[2] = 0;
                clear_tok(tok);
                tok->kind = VEK_LEX_PROMPT;
                tok->text = x->line;
                tok->len = 2;
                tok->arg = x->line + 2;
                start_line(x);
                return i + 1;
            }
        } else if (k == 0 && c == '>' && (x->flags & VEK_LEX_EXPECT_PROMPT)) {
            x->promptPending = true;
        }
        if (k < x->maxLine) {
            x->line[k] = (char)c;
        }
        if (x->echoOk && (k >= x->echoLen || x->echo[k] != (char)c)) {
            x->echoOk = false;
        }
        if (x->lo < x->hi) {
            if (k < kMaxPrefix) {
                narrow(x, k, c);
            } else {
                x->lo = x->hi;
            }
        }
        if (x->len < 0x7fffffff) {
            x->len++;
        }
    }
    return len;
}

VEK_API const char* VekLex_kindName(vek_s32 kind) {
    switch (kind) {
    case VEK_LEX_NONE: return "NONE";
    case VEK_LEX_OK: return "OK";
    case VEK_LEX_ERROR: return "ERROR";
    case VEK_LEX_CME: return "+CME ERROR";
    case VEK_LEX_CMS: return "+CMS ERROR";
    case VEK_LEX_CONNECT: return "CONNECT";
    case VEK_LEX_NO_CARRIER: return "NO CARRIER";
    case VEK_LEX_BUSY: return "BUSY";
    case VEK_LEX_NO_ANSWER: return "NO ANSWER";
    case VEK_LEX_NO_DIALTONE: return "NO DIALTONE";
    case VEK_LEX_VENDOR_ERR: return "VENDOR ERROR";
    case VEK_LEX_INFO: return "INFO";
    case VEK_LEX_URC: return "URC";
    case VEK_LEX_URC_DATA: return "URC DATA";
    case VEK_LEX_PROMPT: return "PROMPT";
    case VEK_LEX_ECHO: return "ECHO";
    case VEK_LEX_LONG: return "LONG";
    default: return "?";
    }
}

} // extern "C"
