/*
 * VekLex.cpp - the modem-response lexer.
 *
 * The hot path does two things per byte: find the next NUL or line end
 * (eight bytes at a time) and copy the run before it into the line. A
 * line's kind is decided once, when it ends, from the kept bytes: a line
 * longer than maxLine is LONG whatever it starts with, and a shorter one
 * is kept whole, so nothing needs matching while bytes arrive. Only the
 * first byte of a line is looked at on its own (the "> " prompt).
 *
 * The prefix table is bounded (kMaxEntries of at most kMaxPrefix bytes)
 * and chained in buckets by its entries' first three bytes, so naming a
 * line costs a few comparisons, bounded by the table's size whatever the
 * line holds. Entries shorter than three bytes ("OK") sit on a list of
 * their own that every line checks.
 */
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include "VekCore.h"
#include "VekLex.h"

namespace {

constexpr int kMaxPrefix = 63;
constexpr int kMaxEntries = 128;
constexpr int kBuckets = 256;
constexpr int kKeyLen = 3;

struct Entry {
    char text[kMaxPrefix + 1];
    vek_u8 len;
    vek_u8 kind;
    vek_u8 lines;
    vek_u8 whole;
    vek_s16 next;  // the next entry of its bucket, -1 at the end
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

// The bucket of a text's first kKeyLen bytes.
int bucket_of(const char* t) {
    unsigned h = (unsigned char)t[0] * 961u + (unsigned char)t[1] * 31u + (unsigned char)t[2];
    return (int)((h ^ (h >> 8)) & (kBuckets - 1));
}

} // namespace

struct VekLex {
    char* line;        // maxLine + 1 bytes
    char* echo;        // maxLine + 1 bytes
    vek_s32 maxLine;
    vek_s32 flags;
    vek_s32 len;       // the line's length so far (saturates at INT32_MAX)
    vek_s32 echoLen;   // -1: no echo expected
    bool echoOk;       // the echo was expected when the line began
    bool promptPending;  // the line so far is ">" at a line start, prompt expected
    vek_s32 dataLines; // data lines still owed to a two-line URC
    vek_s32 count;
    vek_s16 shortHead;  // entries shorter than kKeyLen
    vek_s16 head[kBuckets];
    Entry table[kMaxEntries];
};

namespace {

void start_line(VekLex* x) {
    x->len = 0;
    x->echoOk = x->echoLen >= 0;
    x->promptPending = false;
}

// Appends n bytes of the line's body; past maxLine only the length grows.
void keep(VekLex* x, const unsigned char* p, vek_s32 n) {
    if (x->len < x->maxLine) {
        std::memcpy(x->line + x->len, p, (size_t)std::min(n, x->maxLine - x->len));
    }
    x->len = (vek_s32)std::min<vek_s64>((vek_s64)x->len + n, 0x7fffffff);
}

// Where the first NUL, CR or LF of p[0..n) is (n when none). Eight bytes
// at a time: a word with no byte below 0x0E holds none of them; the lowest
// flagged byte of a little-endian word is exact (a borrow only runs
// upwards), so it is checked and the scan goes on after it when it is
// another control byte.
vek_s32 stop_at(const unsigned char* p, vek_s32 n) {
    auto stop = [](unsigned char c) { return c == 0 || c == '\r' || c == '\n'; };
    vek_s32 i = 0;
    if constexpr (std::endian::native == std::endian::little) {
        constexpr std::uint64_t kOnes = 0x0101010101010101ull;
        constexpr std::uint64_t kHigh = 0x8080808080808080ull;
        while (i + 8 <= n) {
            std::uint64_t v;
            std::memcpy(&v, p + i, 8);
            std::uint64_t low = (v - kOnes * 0x0e) & ~v & kHigh;
            if (!low) {
                i += 8;
                continue;
            }
            i += std::countr_zero(low) >> 3;
            if (stop(p[i])) {
                return i;
            }
            i++;
        }
    }
    while (i < n && !stop(p[i])) {
        i++;
    }
    return i;
}

// The entry naming a line of n bytes: the one equal to it, else the
// longest that is not a whole-line entry and starts it; -1 for none.
vek_s32 match(const VekLex* x, const char* s, vek_s32 n) {
    vek_s32 best = -1, bestLen = 0;
    auto scan = [&](vek_s32 i) {
        for (; i >= 0; i = x->table[i].next) {
            const Entry& e = x->table[i];
            if (e.len > n || std::memcmp(e.text, s, e.len) != 0) {
                continue;
            }
            if (e.len == n) {
                return i;
            }
            if (!e.whole && e.len > bestLen) {
                best = i;
                bestLen = e.len;
            }
        }
        return (vek_s32)-1;
    };
    vek_s32 exact = scan(x->shortHead);
    if (exact < 0 && n >= kKeyLen) {
        exact = scan(x->head[bucket_of(s)]);
    }
    return exact >= 0 ? exact : best;
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
    if (x->echoOk && x->len == x->echoLen && std::memcmp(x->line, x->echo, (size_t)x->len) == 0) {
        tok->kind = VEK_LEX_ECHO;
        x->echoLen = -1;
        return;
    }
    vek_s32 hit = match(x, x->line, x->len);
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

// Rebuilds the buckets after the table changed (add_entry leaves that to
// its callers, so that the built-ins are chained once).
void chain(VekLex* x) {
    x->shortHead = -1;
    std::fill(x->head, x->head + kBuckets, (vek_s16)-1);
    for (vek_s32 i = x->count - 1; i >= 0; i--) {
        Entry& e = x->table[i];
        vek_s16& h = e.len < kKeyLen ? x->shortHead : x->head[bucket_of(e.text)];
        e.next = h;
        h = (vek_s16)i;
    }
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
    vek_s32 i = 0;
    while (i < x->count && !(x->table[i].len == e.len && std::memcmp(x->table[i].text, e.text, n) == 0)) {
        i++;
    }
    if (i == kMaxEntries) {
        return VEK_ERR_FULL;
    }
    x->table[i] = e;
    x->count = std::max(x->count, i + 1);
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
    chain(x);
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
    // Lines are named when they end, so a line in progress is named
    // with the new entry too.
    vek_s32 r = add_entry(x, prefix, kind, lines, whole);
    chain(x);
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
    vek_s32 i = 0;
    while (i < len) {
        if (x->len == 0 || x->promptPending) {
            // A line's first byte: empty lines and NULs between lines are
            // dropped, and ">" may be the start of a prompt, which has no
            // line end to wait for.
            unsigned char c = p[i];
            if (c == 0 || (x->len == 0 && (c == '\r' || c == '\n'))) {
                i++;
                continue;
            }
            if (x->promptPending) {
                x->promptPending = false;
                if (c == ' ') {
                    x->line[0] = '>';
                    x->line[1] = ' ';
                    x->line[2] = 0;
                    tok->kind = VEK_LEX_PROMPT;
                    tok->text = x->line;
                    tok->len = 2;
                    tok->arg = x->line + 2;
                    start_line(x);
                    return i + 1;
                }
            } else if (c == '>' && (x->flags & VEK_LEX_EXPECT_PROMPT)) {
                x->line[0] = '>';
                x->len = 1;
                x->promptPending = true;
                i++;
                continue;
            }
        }
        vek_s32 j = i + stop_at(p + i, len - i);
        keep(x, p + i, j - i);
        if (j == len) {
            break;
        }
        i = j + 1;
        if (p[j] == 0) {
            continue;
        }
        x->line[std::min(x->len, x->maxLine)] = 0;
        classify(x, tok);
        start_line(x);
        return i;
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
