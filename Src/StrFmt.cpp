/*
 * StrFmt.cpp - the one printf engine of the library (8-bit and 16-bit
 * output) and the bounded formatters built on it.
 *
 * Literal text and expanded directives go through a 256-unit staging buffer
 * that is handed to the caller's sink whenever more than 254 units are
 * pending, so a sink sees few, large pieces. Numbers are rendered item by
 * item by the C runtime's snprintf; strings and characters are padded here,
 * because the 8-bit engine must convert UTF-16 arguments and the 16-bit
 * engine must convert UTF-8 ones.
 */
#include <cstdio>
#include <cstring>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include "StrUtil.h"
#include "VekUni.h"
#include "VekVos.h"

namespace {

constexpr vek_s32 kStage = 256;
constexpr vek_s32 kStageFlushAt = 254;  // hand on once more than this is pending
constexpr vek_s32 kByteBuf = 512;       // room for one rendered number

template <class Ch>
struct Out {
    using Sink = vek_s32 (*)(void*, const Ch*, vek_s32);
    void* obj;
    Sink sink;
    Ch stage[kStage];
    vek_s32 pending = 0;
    vek_s32 total = 0;
    vek_s32 err = 0;

    void flush() {
        if (pending > 0 && err == 0) {
            vek_s32 r = sink(obj, stage, pending);
            if (r < 0) {
                err = r;
            }
        }
        pending = 0;
    }
    void put(const Ch* p, vek_s32 n) {
        total += n;
        while (n > 0) {
            vek_s32 k = kStage - 1 - pending;
            if (k > n) {
                k = n;
            }
            std::memcpy(stage + pending, p, sizeof(Ch) * (size_t)k);
            pending += k;
            p += k;
            n -= k;
            if (pending > kStageFlushAt) {
                flush();
            }
        }
    }
    void put1(Ch c) {
        total++;
        stage[pending++] = c;
        if (pending > kStageFlushAt) {
            flush();
        }
    }
    void fill(Ch c, vek_s32 n) {
        while (n-- > 0) {
            put1(c);
        }
    }
    // Puts ASCII bytes, widened for the 16-bit engine.
    void put_ascii(const char* p, vek_s32 n) {
        if constexpr (sizeof(Ch) == 1) {
            put((const Ch*)p, n);
        } else {
            for (vek_s32 i = 0; i < n; i++) {
                put1((Ch)(vek_u8)p[i]);
            }
        }
    }
};

struct Spec {
    bool left = false;
    bool zero = false;  // the "0" flag is among the flags
    vek_s32 width = 0;
    vek_s32 prec = -1;
    char flags[8] = {0};
    char len[4] = {0};  // "", "hh", "h", "l", "ll", "L", "z", "j", "t"
};

// True when flags (terminated) holds c; there are at most five.
bool has_flag(const char* flags, char c) {
    for (; *flags; flags++) {
        if (*flags == c) {
            return true;
        }
    }
    return false;
}

template <class Ch>
bool is_digit(Ch c) {
    return c >= '0' && c <= '9';
}

// Widths and precisions beyond this are taken as this (no overflow).
constexpr vek_s32 kMaxField = 0x3FFFFFFF;

template <class Ch>
const Ch* read_count(const Ch* p, vek_s32* out) {
    vek_s32 v = 0;
    for (; is_digit(*p); p++) {
        v = v > (kMaxField - 9) / 10 ? kMaxField : v * 10 + (vek_s32)(*p - '0');
    }
    *out = v;
    return p;
}

/* Reads the flags, width, precision and length of a directive; p points
 * behind the "%" and is left on the conversion character. */
template <class Ch>
const Ch* parse_spec(const Ch* p, Spec& sp, va_list* ap) {
    vek_s32 nf = 0;
    for (;; p++) {
        Ch c = *p;
        if (c == '-' || c == '+' || c == ' ' || c == '#' || c == '0') {
            if (c == '-') {
                sp.left = true;
            } else if (c == '0') {
                sp.zero = true;
            }
            if (nf < 6 && !has_flag(sp.flags, (char)c)) {
                sp.flags[nf++] = (char)c;
            }
        } else {
            break;
        }
    }
    if (*p == '*') {
        int w = va_arg(*ap, int);
        if (w < 0) {
            // A negative width is the "-" flag with the positive width; the
            // flag goes into the directive too, as numbers are rendered by
            // the C runtime from it.
            sp.left = true;
            w = w < -kMaxField ? kMaxField : -w;
            if (nf < 6 && !has_flag(sp.flags, '-')) {
                sp.flags[nf++] = '-';
            }
        }
        sp.width = w;
        p++;
    } else {
        p = read_count(p, &sp.width);
    }
    if (*p == '.') {
        p++;
        if (*p == '*') {
            int pr = va_arg(*ap, int);
            sp.prec = pr < 0 ? -1 : pr;  // a negative precision counts as none
            p++;
        } else {
            p = read_count(p, &sp.prec);
        }
    }
    if (*p == 'h') {
        p++;
        std::strcpy(sp.len, *p == 'h' ? (p++, "hh") : "h");
    } else if (*p == 'l') {
        p++;
        std::strcpy(sp.len, *p == 'l' ? (p++, "ll") : "l");
    } else if (*p == 'q') {
        p++;
        std::strcpy(sp.len, "ll");
    } else if (*p == 'L' || *p == 'z' || *p == 'j' || *p == 't') {
        sp.len[0] = (char)*p++;
    } else if (*p == 'I') {
        // The Windows runtime's sizes: I64, I32 and I (pointer-sized).
        if (p[1] == '6' && p[2] == '4') {
            p += 3;
            std::strcpy(sp.len, "ll");
        } else if (p[1] == '3' && p[2] == '2') {
            p += 3;
        } else {
            p++;
            std::strcpy(sp.len, sizeof(void*) == 8 ? "ll" : "");
        }
    }
    return p;
}

// Writes v (>= 0) in decimal; returns the end.
char* put_decimal(char* d, vek_s32 v) {
    char tmp[12];
    vek_s32 k = 0;
    do {
        tmp[k++] = (char)('0' + v % 10);
        v /= 10;
    } while (v > 0);
    while (k > 0) {
        *d++ = tmp[--k];
    }
    return d;
}

bool is_int_conv(char c) {
    switch (c) {
    case 'd': case 'i': case 'o': case 'u': case 'x': case 'X':
        return true;
    default:
        return false;
    }
}

bool is_float_conv(char c) {
    switch (c) {
    case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
        return true;
    default:
        return false;
    }
}

/* The integer directives whose text every C runtime writes alike: d, i, u,
 * x and X at their natural or a long size, with at most the "-" and "0"
 * flags and a width, and no precision. They are rendered here, since a
 * runtime call per directive would cost more than the whole rest of the
 * formatting; anything else goes to snprintf. Returns the length, or -1
 * (nothing taken from ap) when the directive is not one of them. */
vek_s32 render_plain_int(char* buf, const Spec& sp, vek_s32 width, char conv, va_list* ap) {
    bool sgn = conv == 'd' || conv == 'i';
    if (!(sgn || conv == 'u' || conv == 'x' || conv == 'X') || sp.prec >= 0) {
        return -1;
    }
    for (const char* f = sp.flags; *f; f++) {
        if (*f != '-' && *f != '0') {
            return -1;
        }
    }
    const char* L = sp.len;
    unsigned long long mag;
    bool neg = false;
    if (L[0] == 0) {
        if (sgn) {
            long long v = va_arg(*ap, int);
            neg = v < 0;
            mag = neg ? 0ull - (unsigned long long)v : (unsigned long long)v;
        } else {
            mag = va_arg(*ap, unsigned int);
        }
    } else if (L[0] == 'l' && (L[1] == 0 || L[1] == 'l')) {
        if (sgn) {
            long long v = L[1] ? va_arg(*ap, long long) : va_arg(*ap, long);
            neg = v < 0;
            mag = neg ? 0ull - (unsigned long long)v : (unsigned long long)v;
        } else {
            mag = L[1] ? va_arg(*ap, unsigned long long) : va_arg(*ap, unsigned long);
        }
    } else {
        return -1;
    }
    char digits[24];
    char* e = digits + sizeof digits;
    char* d = e;
    if (conv == 'x' || conv == 'X') {
        const char* set = conv == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
        do {
            *--d = set[mag & 15];
            mag >>= 4;
        } while (mag);
    } else if (mag <= 0xFFFFFFFFull) {
        // Constant divisors become multiplications; 32-bit ones are cheaper.
        for (vek_u32 m = (vek_u32)mag; d == e || m; m /= 10) {
            *--d = (char)('0' + m % 10);
        }
    } else {
        do {
            *--d = (char)('0' + mag % 10);
            mag /= 10;
        } while (mag);
    }
    vek_s32 nd = (vek_s32)(e - d) + (neg ? 1 : 0);
    vek_s32 pad = width > nd ? width - nd : 0;
    char* o = buf;
    if (!sp.left && !sp.zero) {
        std::memset(o, ' ', (size_t)pad);
        o += pad;
    }
    if (neg) {
        *o++ = '-';
    }
    if (!sp.left && sp.zero) {
        std::memset(o, '0', (size_t)pad);
        o += pad;
    }
    std::memcpy(o, d, (size_t)(e - d));
    o += e - d;
    if (sp.left) {
        std::memset(o, ' ', (size_t)pad);
        o += pad;
    }
    *o = 0;
    return (vek_s32)(o - buf);
}

/* Renders one numeric or pointer item with snprintf into buf. */
vek_s32 render_number(char* buf, const Spec& sp, vek_s32 width, char conv, va_list* ap) {
    if (vek_s32 plain = render_plain_int(buf, sp, width, conv, ap); plain >= 0) {
        return plain;
    }
    char dir[40];
    char* d = dir;
    *d++ = '%';
    for (const char* f = sp.flags; *f; f++) {
        *d++ = *f;
    }
    if (sp.prec >= kByteBuf - 32) {
        vek_assert__("precision < (int)sizeof(byteBuf) - 32", __FILE__, __LINE__);
    }
    vek_s32 prec = sp.prec < kByteBuf - 32 ? sp.prec : kByteBuf - 33;
    // Width and precision are written here: a call into the runtime for
    // each would cost as much as rendering the number itself.
    if (width > 0) {
        d = put_decimal(d, width);
    }
    if (prec >= 0) {
        *d++ = '.';
        d = put_decimal(d, prec);
    }
    bool isFloat = is_float_conv(conv);
    if (conv != 'p' && (!isFloat || sp.len[0] == 'L')) {
        for (const char* l = sp.len; *l; l++) {
            *d++ = *l;
        }
    }
    *d++ = conv;
    *d = 0;

    int n;
    const char* L = sp.len;
    bool sgn = conv == 'd' || conv == 'i';
    if (conv == 'p') {
        n = std::snprintf(buf, kByteBuf, dir, va_arg(*ap, void*));
    } else if (isFloat) {
        if (L[0] == 'L') {
            n = std::snprintf(buf, kByteBuf, dir, va_arg(*ap, long double));
        } else {
            n = std::snprintf(buf, kByteBuf, dir, va_arg(*ap, double));
        }
    } else if (L[0] == 'l' && L[1] == 'l') {
        n = sgn ? std::snprintf(buf, kByteBuf, dir, va_arg(*ap, long long))
                : std::snprintf(buf, kByteBuf, dir, va_arg(*ap, unsigned long long));
    } else if (L[0] == 'l') {
        n = sgn ? std::snprintf(buf, kByteBuf, dir, va_arg(*ap, long))
                : std::snprintf(buf, kByteBuf, dir, va_arg(*ap, unsigned long));
    } else if (L[0] == 'z') {
        n = sgn ? std::snprintf(buf, kByteBuf, dir, va_arg(*ap, std::make_signed_t<size_t>))
                : std::snprintf(buf, kByteBuf, dir, va_arg(*ap, size_t));
    } else if (L[0] == 'j') {
        n = sgn ? std::snprintf(buf, kByteBuf, dir, va_arg(*ap, intmax_t))
                : std::snprintf(buf, kByteBuf, dir, va_arg(*ap, uintmax_t));
    } else if (L[0] == 't') {
        n = std::snprintf(buf, kByteBuf, dir, va_arg(*ap, ptrdiff_t));
    } else {
        // hh, h and no length all arrive promoted to int.
        n = sgn ? std::snprintf(buf, kByteBuf, dir, va_arg(*ap, int))
                : std::snprintf(buf, kByteBuf, dir, va_arg(*ap, unsigned int));
    }
    if (n < 0) {
        n = 0;
    }
    if (n >= kByteBuf) {
        vek_assert__("byteLen < sizeof(byteBuf)", __FILE__, __LINE__);
        n = kByteBuf - 1;
    }
    return n;
}

/* Renders one number and puts it. A width the byte buffer cannot hold is
 * applied here, as the C runtime would: spaces on the left or right, or
 * zeros behind the sign and the "0x" prefix. */
template <class Ch>
void put_number(Out<Ch>& o, const Spec& sp, char conv, va_list* ap) {
    char buf[kByteBuf];
    bool padHere = sp.width > kByteBuf - 33;
    vek_s32 n = render_number(buf, sp, padHere ? 0 : sp.width, conv, ap);
    vek_s32 pad = padHere && sp.width > n ? sp.width - n : 0;
    vek_s32 prefix = 0;
    // "0" pads with zeros unless a precision is given to an integer or the
    // text holds no digit at all (inf, nan, a null pointer).
    bool zeros = padHere && !sp.left && sp.zero && !(sp.prec >= 0 && is_int_conv(conv)) &&
                 std::strpbrk(buf, "0123456789");
    if (zeros) {
        prefix = buf[0] == '-' || buf[0] == '+' || buf[0] == ' ' ? 1 : 0;
        if (buf[prefix] == '0' && (buf[prefix + 1] == 'x' || buf[prefix + 1] == 'X')) {
            prefix += 2;
        }
    }
    if (sp.left) {
        o.put_ascii(buf, n);
        o.fill((Ch)' ', pad);
        return;
    }
    o.put_ascii(buf, prefix);
    o.fill((Ch)(zeros ? '0' : ' '), pad);
    o.put_ascii(buf + prefix, n - prefix);
}

/* Pads and puts an already converted text of n units. */
template <class Ch>
void put_padded(Out<Ch>& o, const Spec& sp, const Ch* s, vek_s32 n) {
    vek_s32 pad = sp.width > n ? sp.width - n : 0;
    if (!sp.left) {
        o.fill((Ch)' ', pad);
    }
    o.put(s, n);
    if (sp.left) {
        o.fill((Ch)' ', pad);
    }
}

/* Converts s to the engine's width and puts it to o (when given), taking
 * whole characters only while the count stays within limit (negative: no
 * limit). Returns the units produced. Measuring first and writing second
 * lets long texts pass without a scratch buffer. */
template <class Ch, class Arg>
vek_s32 emit_string(Out<Ch>* o, vek_s32 limit, const Arg* s) {
    vek_s32 n = 0;
    if constexpr (sizeof(Ch) == sizeof(Arg)) {
        // The limit first: "%.*s" may be given bytes without a terminator.
        while ((limit < 0 || n < limit) && s[n]) {
            n++;
        }
        if (o) {
            o->put((const Ch*)s, n);
        }
    } else if constexpr (sizeof(Ch) == 1) {
        // UTF-16 argument into 8-bit output.
        char tmp[4];
        for (; (limit < 0 || n < limit) && *s; s++) {
            vek_s32 k = wcs_char_to_utf8_char((vek_wchar)*s, tmp);
            if (limit >= 0 && n + k > limit) {
                break;
            }
            if (o) {
                o->put(tmp, k);
            }
            n += k;
        }
    } else {
        // UTF-8 argument into 16-bit output, decoded unit by unit.
        const char* p = (const char*)s;
        for (; limit < 0 || n < limit; n++) {
            vek_s32 used;
            vek_wchar c = utf8_str_to_wcs_char(p, &used);
            if (!c) {
                break;
            }
            if (o) {
                o->put1(c);
            }
            p += used;
        }
    }
    return n;
}

template <class Ch, class Arg>
void put_string(Out<Ch>& o, const Spec& sp, const Arg* s) {
    static const Arg kNull[] = {'(', 'n', 'u', 'l', 'l', ')', 0};
    if (!s) {
        s = kNull;
    }
    vek_s32 n = emit_string<Ch, Arg>(nullptr, sp.prec, s);
    vek_s32 pad = sp.width > n ? sp.width - n : 0;
    if (!sp.left) {
        o.fill((Ch)' ', pad);
    }
    emit_string(&o, n, s);
    if (sp.left) {
        o.fill((Ch)' ', pad);
    }
}

template <class Ch>
vek_s32 format(void* obj, typename Out<Ch>::Sink sink, const Ch* fmt, va_list args) {
    if (!fmt || !sink) {
        VEK_ASSERT(fmt && sink);
        return VEK_ERR_BAD_ARG;
    }
    Out<Ch> o;
    o.obj = obj;
    o.sink = sink;
    va_list ap;
    va_copy(ap, args);
    const Ch* p = fmt;
    while (*p) {
        const Ch* lit = p;
        while (*p && *p != '%') {
            p++;
        }
        if (p > lit) {
            o.put(lit, (vek_s32)(p - lit));
        }
        if (!*p) {
            break;
        }
        const Ch* dirStart = p++;
        if (*p == '%') {
            o.put1((Ch)'%');
            p++;
            continue;
        }
        Spec sp;
        p = parse_spec(p, sp, &ap);
        Ch conv = *p;
        if (!conv) {
            o.put(dirStart, (vek_s32)(p - dirStart));
            break;
        }
        p++;
        // In the 16-bit engine plain %s / %c are UTF-16 and h selects UTF-8;
        // in the 8-bit engine l (or the capital form) selects UTF-16.
        bool wideArg;
        if constexpr (sizeof(Ch) == 1) {
            wideArg = sp.len[0] == 'l' || conv == 'S' || conv == 'C';
        } else {
            wideArg = sp.len[0] != 'h';
        }
        switch (conv) {
        case 'd': case 'i': case 'o': case 'u': case 'x': case 'X':
        case 'e': case 'E': case 'f': case 'F': case 'g': case 'G':
        case 'a': case 'A': case 'p':
            put_number(o, sp, (char)conv, &ap);
            break;
        case 's': case 'S':
            if (wideArg) {
                put_string(o, sp, va_arg(ap, const vek_wchar*));
            } else {
                put_string(o, sp, va_arg(ap, const char*));
            }
            break;
        case 'c': case 'C': {
            int c = va_arg(ap, int);
            Ch tmp[4];
            vek_s32 n = 1;
            if constexpr (sizeof(Ch) == 1) {
                if (wideArg) {
                    n = wcs_char_to_utf8_char((vek_wchar)c, (char*)tmp);
                } else {
                    tmp[0] = (Ch)c;
                }
            } else {
                tmp[0] = wideArg ? (Ch)(vek_wchar)c : (Ch)(vek_u8)c;
            }
            Spec noPrec = sp;
            noPrec.prec = -1;
            put_padded(o, noPrec, tmp, n);
            break;
        }
        case 'n':
            (void)va_arg(ap, void*);  // counts are never written back
            break;
        default:
            o.put(dirStart, (vek_s32)(p - dirStart));
            break;
        }
    }
    va_end(ap);
    o.flush();
    return o.err < 0 ? o.err : o.total;
}

/* A sink over a caller buffer that keeps what fits and counts the rest. */
struct BufSink {
    char* buf;
    vek_s32 cap;
    vek_s32 len;
    vek_s32 cut;
};

vek_s32 buf_sink(void* obj, const char* bytes, vek_s32 n) {
    BufSink* b = (BufSink*)obj;
    vek_s32 room = b->cap - b->len;
    vek_s32 k = n < room ? n : room;
    if (k > 0) {
        std::memcpy(b->buf + b->len, bytes, (size_t)k);
        b->len += k;
    }
    if (k < n) {
        b->cut = 1;
    }
    return n;
}

} // namespace

extern "C" {

VEK_API vek_s32 str_fmt_out(void* sinkObj, vek_str_sink sink, const char* fmt, va_list args) {
    return format<char>(sinkObj, sink, fmt, args);
}

VEK_API vek_s32 wcs_fmt_out(void* sinkObj, vek_wcs_sink sink, const vek_wchar* fmt, va_list args) {
    return format<vek_wchar>(sinkObj, sink, fmt, args);
}

VEK_API vek_s32 vek_vsxprintf(char* buf, vek_s32 size, vek_s32* cut, const char* fmt,
                              va_list args) {
    if (cut) {
        *cut = 0;
    }
    if (!buf || size < 1) {
        VEK_ASSERT(buf && size >= 1);
        return 0;
    }
    BufSink b = {buf, size - 1, 0, 0};
    str_fmt_out(&b, buf_sink, fmt, args);
    buf[b.len] = 0;
    if (cut) {
        *cut = b.cut;
    }
    return b.len;
}

VEK_API vek_s32 vek_sxprintf(char* buf, vek_s32 size, vek_s32* cut, const char* fmt, ...) {
    va_list va;
    va_start(va, fmt);
    vek_s32 n = vek_vsxprintf(buf, size, cut, fmt, va);
    va_end(va);
    return n;
}

VEK_API vek_s32 vek_vsnprintf(char* buf, vek_s32 size, const char* fmt, va_list args) {
    return vek_vsxprintf(buf, size, nullptr, fmt, args);
}

VEK_API vek_s32 vek_snprintf(char* buf, vek_s32 size, const char* fmt, ...) {
    va_list va;
    va_start(va, fmt);
    vek_s32 n = vek_vsxprintf(buf, size, nullptr, fmt, va);
    va_end(va);
    return n;
}

} // extern "C"
