/*
 * MiscUtil.cpp - byte-order reads and writes, multi-byte integers, IP and
 * MAC addresses as text, network membership. URL splitting lives in
 * UrlSplit.cpp and shares the address readers through NetAddr.h.
 *
 * The address readers follow the grammars exactly (RFC 4291 for IPv6, the
 * inet_pton and inet_aton forms for IPv4) and refuse everything else: a
 * reader that guesses lets a typo pass as some other address.
 */
#include <cstring>
#include "MiscUtil.h"
#include "NetAddr.h"
#include "VekVos.h"

namespace {

/* ---------------------------------------------------------- byte order */

constexpr bool kLittle = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

template <class T>
T load(const void* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <class T>
void* store(void* p, T v) {
    std::memcpy(p, &v, sizeof v);
    return (vek_u8*)p + sizeof v;
}

inline vek_u16 swap_if(bool swap, vek_u16 v) {
    return swap ? __builtin_bswap16(v) : v;
}
inline vek_u32 swap_if(bool swap, vek_u32 v) {
    return swap ? __builtin_bswap32(v) : v;
}
inline vek_u64 swap_if(bool swap, vek_u64 v) {
    return swap ? __builtin_bswap64(v) : v;
}

/* --------------------------------------------------- multi-byte integers */

// Reads a uintvar of at most maxBytes bytes whose value fits in T.
template <class T>
vek_s32 mb_get(const void* buf, vek_s32 len, T* val, int maxBytes) {
    if (!buf || !val) {
        VEK_ASSERT(buf && val);
        return VEK_ERR_BAD_ARG;
    }
    const vek_u8* p = (const vek_u8*)buf;
    constexpr T kTop = (T)((T)0x7F << (sizeof(T) * 8 - 7));  // bits a shift by 7 would lose
    T v = 0;
    for (vek_s32 i = 0;; i++) {
        if (i >= len) {
            return VEK_ERR_EOF;
        }
        if (v & kTop) {
            return VEK_ERR_MALFORMED;
        }
        v = (T)(v << 7) | (p[i] & 0x7Fu);
        if (!(p[i] & 0x80)) {
            *val = v;
            return i + 1;
        }
        if (i + 1 == maxBytes) {
            return VEK_ERR_MALFORMED;
        }
    }
}

template <class T>
vek_s32 mb_len(T v) {
    vek_s32 n = 1;
    while (v >>= 7) {
        n++;
    }
    return n;
}

template <class T>
vek_s32 mb_set(void* buf, vek_s32 size, T v) {
    if (!buf) {
        VEK_ASSERT(buf);
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 n = mb_len(v);
    if (n > size) {
        return VEK_ERR_FULL;
    }
    vek_u8* p = (vek_u8*)buf;
    for (vek_s32 i = n - 1; i >= 0; i--) {
        p[i] = (vek_u8)((v & 0x7F) | (i == n - 1 ? 0 : 0x80));
        v >>= 7;
    }
    return n;
}

/* ------------------------------------------------------------ addresses */

vek_s32 text_len(const char* s, vek_s32 len) {
    return len < 0 ? (vek_s32)std::strlen(s) : len;
}

// Copies a formatted text of n bytes to the caller's buffer: n, or -201
// and "" when it does not fit with its terminator.
vek_s32 give_text(const char* text, vek_s32 n, char* buf, vek_s32 size) {
    if (!buf) {
        VEK_ASSERT(buf);
        return VEK_ERR_BAD_ARG;
    }
    if (n >= size) {
        if (size > 0) {
            buf[0] = 0;
        }
        return VEK_ERR_FULL;
    }
    std::memcpy(buf, text, (size_t)n);
    buf[n] = 0;
    return n;
}

char* put_dec(char* o, unsigned v) {
    if (v >= 100) {
        *o++ = (char)('0' + v / 100);
    }
    if (v >= 10) {
        *o++ = (char)('0' + v / 10 % 10);
    }
    *o++ = (char)('0' + v % 10);
    return o;
}

char* put_quad(char* o, const vek_u8* a) {
    for (int i = 0; i < 4; i++) {
        if (i) {
            *o++ = '.';
        }
        o = put_dec(o, a[i]);
    }
    return o;
}

const char kLowerHex[] = "0123456789abcdef";
const char kUpperHex[] = "0123456789ABCDEF";

// RFC 5952: the longest run of two or more zero groups (the first of equal
// runs) becomes "::"; the IPv4-mapped block keeps its dotted quad.
vek_s32 ip6_format(const vek_u8* a, char* out) {
    unsigned w[8];
    for (int i = 0; i < 8; i++) {
        w[i] = (unsigned)a[2 * i] << 8 | a[2 * i + 1];
    }
    int best = -1, bestLen = 1;
    for (int i = 0; i < 8;) {
        if (w[i]) {
            i++;
            continue;
        }
        int j = i;
        while (j < 8 && !w[j]) {
            j++;
        }
        if (j - i > bestLen) {
            best = i;
            bestLen = j - i;
        }
        i = j;
    }
    char* o = out;
    bool mapped = best == 0 && bestLen == 5 && w[5] == 0xFFFF;
    for (int i = 0; i < (mapped ? 6 : 8); i++) {
        if (i == best) {
            *o++ = ':';
            *o++ = ':';
            i += bestLen - 1;
            continue;
        }
        if (i && i != best + bestLen) {
            *o++ = ':';
        }
        bool lead = true;
        for (int sh = 12; sh >= 0; sh -= 4) {
            unsigned d = (w[i] >> sh) & 0xF;
            if (d || !lead || sh == 0) {
                *o++ = kLowerHex[d];
                lead = false;
            }
        }
    }
    if (mapped) {
        *o++ = ':';
        o = put_quad(o, a + 12);
    }
    return (vek_s32)(o - out);
}

vek_s32 ip_bits(vek_s32 ver) {
    return ver == 4 ? 32 : ver == 6 ? 128 : -1;
}

bool is_mapped(const VekIpAddr* ip) {
    static const vek_u8 kPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    return ip->ver == 6 && std::memcmp(ip->addr, kPrefix, 12) == 0;
}

// The bytes of one address as the given version: an IPv4 address itself,
// or the IPv4 part of a mapped IPv6 one; null when it has no such form.
const vek_u8* bytes_as(const VekIpAddr* ip, vek_s32 ver) {
    if (ip->ver == ver) {
        return ip->addr;
    }
    return ver == 4 && is_mapped(ip) ? ip->addr + 12 : nullptr;
}

bool ip_args_ok(const VekIpAddr* a, const VekIpAddr* b) {
    if (!a || !b) {
        VEK_ASSERT(a && b);
        return false;
    }
    return ip_bits(a->ver) > 0 && ip_bits(b->ver) > 0;
}

// The first bits bits of x and y agree.
bool prefix_equal(const vek_u8* x, const vek_u8* y, vek_s32 bits) {
    vek_s32 whole = bits / 8;
    if (std::memcmp(x, y, (size_t)whole) != 0) {
        return false;
    }
    vek_s32 rest = bits % 8;
    return !rest || ((x[whole] ^ y[whole]) & (0xFF00 >> rest) & 0xFF) == 0;
}

bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// One part of the classic IPv4 forms at *pp: decimal, octal after a 0,
// hexadecimal after 0x (when a hexadecimal digit follows; "0x" alone is
// the number 0 followed by an 'x'). False past 32 bits.
bool aton_part(const char** pp, vek_u32* out) {
    const char* p = *pp;
    unsigned base = 10;
    if (p[0] == '0') {
        if ((p[1] == 'x' || p[1] == 'X') && vek::hex_val((vek_u8)p[2]) >= 0) {
            base = 16;
            p += 2;
        } else {
            base = 8;
        }
    }
    vek_u64 v = 0;
    for (;; p++) {
        int d = vek::hex_val((vek_u8)*p);
        if (d < 0 || (unsigned)d >= base) {
            break;
        }
        v = v * base + (unsigned)d;
        if (v > 0xFFFFFFFFu) {
            return false;
        }
    }
    *pp = p;
    *out = (vek_u32)v;
    return true;
}

/* ---------------------------------------------------------------- MAC */

// Exactly digits hexadecimal digits at p into *v (12 at most).
bool hex_run(const char* p, int digits, vek_u64* v) {
    vek_u64 r = 0;
    for (int i = 0; i < digits; i++) {
        int d = vek::hex_val((vek_u8)p[i]);
        if (d < 0) {
            return false;
        }
        r = r << 4 | (unsigned)d;
    }
    *v = r;
    return true;
}

bool mac_parse(const char* s, vek_s32 n, vek_u8* mac) {
    vek_u8 out[6];
    vek_u64 v = 0;
    if (n == 12) {
        if (!hex_run(s, 12, &v)) {
            return false;
        }
        for (int i = 0; i < 6; i++) {
            out[i] = (vek_u8)(v >> (40 - 8 * i));
        }
    } else if (n == 14) {  // Cisco: xxxx.xxxx.xxxx
        for (int g = 0; g < 3; g++) {
            const char* p = s + 5 * g;
            if (!hex_run(p, 4, &v) || (g < 2 && p[4] != '.')) {
                return false;
            }
            out[2 * g] = (vek_u8)(v >> 8);
            out[2 * g + 1] = (vek_u8)v;
        }
    } else {
        // Six groups of one or two digits, one separator throughout.
        const char* p = s;
        const char* end = s + n;
        char sep = 0;
        for (int g = 0; g < 6; g++) {
            int k = 0;
            while (k < 2 && p + k < end && vek::hex_val((vek_u8)p[k]) >= 0) {
                k++;
            }
            if (!k) {
                return false;
            }
            hex_run(p, k, &v);
            out[g] = (vek_u8)v;
            p += k;
            if (g == 5) {
                break;
            }
            if (p == end || (*p != ':' && *p != '-') || (sep && *p != sep)) {
                return false;
            }
            sep = *p++;
        }
        if (p != end) {
            return false;
        }
    }
    std::memcpy(mac, out, 6);
    return true;
}

} // namespace

namespace vek {

bool ip4_parse(const char* p, const char* end, vek_u8* out) {
    vek_u8 tmp[4];
    for (int i = 0; i < 4; i++) {
        if (p == end) {
            return false;
        }
        unsigned v = (unsigned)(vek_u8)*p - '0';
        if (v > 9) {
            return false;
        }
        p++;
        // A leading 0 stands alone; the part then has to end here.
        for (int k = 0; v && k < 2 && p < end; k++) {
            unsigned d = (unsigned)(vek_u8)*p - '0';
            if (d > 9) {
                break;
            }
            v = v * 10 + d;
            p++;
        }
        if (v > 255) {
            return false;
        }
        tmp[i] = (vek_u8)v;
        if (i < 3) {
            if (p == end || *p != '.') {
                return false;
            }
            p++;
        }
    }
    if (p != end) {
        return false;
    }
    std::memcpy(out, tmp, 4);
    return true;
}

bool ip6_parse(const char* p, const char* end, vek_u8* out) {
    vek_u8 tmp[16];
    int n = 0;     // bytes filled
    int gap = -1;  // where "::" stands, in bytes
    if (p == end) {
        return false;
    }
    if (*p == ':') {
        if (end - p < 2 || p[1] != ':') {
            return false;
        }
        gap = 0;
        p += 2;
    }
    while (p != end) {
        const char* grp = p;
        unsigned v = 0;
        int digits = 0;
        for (int d; p < end && (d = hex_val((vek_u8)*p)) >= 0; p++) {
            if (++digits > 4) {
                return false;
            }
            v = v << 4 | (unsigned)d;
        }
        if (p < end && *p == '.') {
            // The last 32 bits as a dotted quad, which ends the text.
            if (n > 12 || !ip4_parse(grp, end, tmp + n)) {
                return false;
            }
            n += 4;
            break;
        }
        if (!digits || n == 16) {
            return false;
        }
        tmp[n++] = (vek_u8)(v >> 8);
        tmp[n++] = (vek_u8)v;
        if (p == end) {
            break;
        }
        if (*p++ != ':') {
            return false;
        }
        if (p < end && *p == ':') {
            if (gap >= 0) {
                return false;
            }
            gap = n;
            p++;
        } else if (p == end) {
            return false;  // a single ':' at the end
        }
    }
    if (gap < 0) {
        if (n != 16) {
            return false;
        }
        std::memcpy(out, tmp, 16);
        return true;
    }
    if (n == 16) {
        return false;  // "::" must stand for at least one group
    }
    std::memset(out, 0, 16);
    std::memcpy(out, tmp, (size_t)gap);
    std::memcpy(out + 16 - (n - gap), tmp + gap, (size_t)(n - gap));
    return true;
}

} // namespace vek

extern "C" {

/* ---- byte order ---- */

VEK_API vek_u16 vek_u16_get(const void* p) {
    return swap_if(kLittle, load<vek_u16>(p));
}
VEK_API vek_u32 vek_u32_get(const void* p) {
    return swap_if(kLittle, load<vek_u32>(p));
}
VEK_API vek_u64 vek_u64_get(const void* p) {
    return swap_if(kLittle, load<vek_u64>(p));
}
VEK_API vek_u16 vek_u16_getl(const void* p) {
    return swap_if(!kLittle, load<vek_u16>(p));
}
VEK_API vek_u32 vek_u32_getl(const void* p) {
    return swap_if(!kLittle, load<vek_u32>(p));
}
VEK_API vek_u64 vek_u64_getl(const void* p) {
    return swap_if(!kLittle, load<vek_u64>(p));
}
VEK_API void* vek_u16_set(void* p, vek_u16 v) {
    return store(p, swap_if(kLittle, v));
}
VEK_API void* vek_u32_set(void* p, vek_u32 v) {
    return store(p, swap_if(kLittle, v));
}
VEK_API void* vek_u64_set(void* p, vek_u64 v) {
    return store(p, swap_if(kLittle, v));
}
VEK_API void* vek_u16_setl(void* p, vek_u16 v) {
    return store(p, swap_if(!kLittle, v));
}
VEK_API void* vek_u32_setl(void* p, vek_u32 v) {
    return store(p, swap_if(!kLittle, v));
}
VEK_API void* vek_u64_setl(void* p, vek_u64 v) {
    return store(p, swap_if(!kLittle, v));
}

/* ---- multi-byte integers ---- */

VEK_API vek_s32 vek_mb32_get(const void* buf, vek_s32 len, vek_u32* val) {
    return mb_get(buf, len, val, 5);
}
VEK_API vek_s32 vek_mb32_set(void* buf, vek_s32 size, vek_u32 v) {
    return mb_set(buf, size, v);
}
VEK_API vek_s32 vek_mb32_len(vek_u32 v) {
    return mb_len(v);
}
VEK_API vek_s32 vek_mb64_get(const void* buf, vek_s32 len, vek_u64* val) {
    return mb_get(buf, len, val, 10);
}
VEK_API vek_s32 vek_mb64_set(void* buf, vek_s32 size, vek_u64 v) {
    return mb_set(buf, size, v);
}
VEK_API vek_s32 vek_mb64_len(vek_u64 v) {
    return mb_len(v);
}

/* ---- IP addresses ---- */

VEK_API vek_s32 vek_inet_aton(const char* s, vek_u32* addr) {
    if (!s) {
        VEK_ASSERT(s);
        return VEK_ERR_BAD_ARG;
    }
    static const vek_u32 kLastMax[4] = {0xFFFFFFFFu, 0xFFFFFFu, 0xFFFFu, 0xFFu};
    vek_u32 high = 0;
    int parts = 0;
    vek_u32 v = 0;
    for (;;) {
        if ((unsigned)(*s - '0') > 9u || !aton_part(&s, &v)) {
            return VEK_ERR_MALFORMED;
        }
        if (*s != '.') {
            break;
        }
        if (parts == 3 || v > 0xFF) {
            return VEK_ERR_MALFORMED;
        }
        high |= v << (24 - 8 * parts++);
        s++;
    }
    if ((*s && !is_space(*s)) || v > kLastMax[parts]) {
        return VEK_ERR_MALFORMED;
    }
    if (addr) {
        *addr = high | v;
    }
    return 0;
}

VEK_API vek_s32 vek_inet_ntoa(vek_u32 addr, char* buf, vek_s32 size) {
    vek_u8 a[4];
    vek_u32_set(a, addr);
    char text[VEK_INET_ADDRSTRLEN];
    return give_text(text, (vek_s32)(put_quad(text, a) - text), buf, size);
}

VEK_API vek_s32 vek_inet_pton(vek_s32 ver, const char* s, vek_s32 len, void* out) {
    if (!s || !out) {
        VEK_ASSERT(s && out);
        return VEK_ERR_BAD_ARG;
    }
    const char* end = s + text_len(s, len);
    if (ver == 4) {
        return vek::ip4_parse(s, end, (vek_u8*)out) ? 0 : VEK_ERR_MALFORMED;
    }
    if (ver == 6) {
        return vek::ip6_parse(s, end, (vek_u8*)out) ? 0 : VEK_ERR_MALFORMED;
    }
    return VEK_ERR_BAD_ARG;
}

VEK_API vek_s32 vek_inet_ntop(vek_s32 ver, const void* addr, char* buf, vek_s32 size) {
    if (!addr) {
        VEK_ASSERT(addr);
        return VEK_ERR_BAD_ARG;
    }
    char text[VEK_INET6_ADDRSTRLEN];
    vek_s32 n;
    if (ver == 4) {
        n = (vek_s32)(put_quad(text, (const vek_u8*)addr) - text);
    } else if (ver == 6) {
        n = ip6_format((const vek_u8*)addr, text);
    } else {
        return VEK_ERR_BAD_ARG;
    }
    return give_text(text, n, buf, size);
}

VEK_API vek_s32 ip_str_to_addr(const char* s, vek_s32 len, VekIpAddr* ip) {
    if (!s || !ip) {
        VEK_ASSERT(s && ip);
        return VEK_ERR_BAD_ARG;
    }
    const char* end = s + text_len(s, len);
    VekIpAddr r{};
    if (s < end && *s == '[') {
        if (end - s < 2 || end[-1] != ']') {
            return VEK_ERR_MALFORMED;
        }
        s++;
        end--;
        r.ver = 6;
    } else {
        r.ver = std::memchr(s, ':', (size_t)(end - s)) ? 6 : 4;
    }
    bool ok = r.ver == 6 ? vek::ip6_parse(s, end, r.addr) : vek::ip4_parse(s, end, r.addr);
    if (!ok) {
        return VEK_ERR_MALFORMED;
    }
    *ip = r;
    return 0;
}

VEK_API vek_s32 ip_addr_to_str(const VekIpAddr* ip, char* buf, vek_s32 size) {
    if (!ip) {
        VEK_ASSERT(ip);
        return VEK_ERR_BAD_ARG;
    }
    return vek_inet_ntop(ip->ver, ip->addr, buf, size);
}

VEK_API vek_s32 ip_str_to_net(const char* s, vek_s32 len, VekIpAddr* ip, vek_s32* prefix) {
    if (!s || !ip || !prefix) {
        VEK_ASSERT(s && ip && prefix);
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 n = text_len(s, len);
    const char* slash = (const char*)std::memchr(s, '/', (size_t)n);
    VekIpAddr r;
    if (ip_str_to_addr(s, slash ? (vek_s32)(slash - s) : n, &r) != 0) {
        return VEK_ERR_MALFORMED;
    }
    vek_s32 bits = ip_bits(r.ver);
    if (slash) {
        const char* p = slash + 1;
        const char* end = s + n;
        vek_s32 v = 0;
        if (p == end || end - p > 3 || (*p == '0' && end - p > 1)) {
            return VEK_ERR_MALFORMED;
        }
        for (; p < end; p++) {
            if ((unsigned)(*p - '0') > 9u) {
                return VEK_ERR_MALFORMED;
            }
            v = v * 10 + (*p - '0');
        }
        if (v > bits) {
            return VEK_ERR_MALFORMED;
        }
        bits = v;
    }
    *ip = r;
    *prefix = bits;
    return 0;
}

VEK_API vek_s32 ip_prefix_to_mask(vek_s32 ver, vek_s32 prefix, VekIpAddr* mask) {
    if (!mask) {
        VEK_ASSERT(mask);
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 bits = ip_bits(ver);
    if (bits < 0 || prefix < 0 || prefix > bits) {
        return VEK_ERR_BAD_ARG;
    }
    VekIpAddr m{};
    m.ver = ver;
    std::memset(m.addr, 0xFF, (size_t)(prefix / 8));
    if (prefix % 8) {
        m.addr[prefix / 8] = (vek_u8)(0xFF00 >> (prefix % 8));
    }
    *mask = m;
    return 0;
}

VEK_API vek_s32 ip_mask_to_prefix(const VekIpAddr* mask) {
    if (!mask) {
        VEK_ASSERT(mask);
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 bytes = ip_bits(mask->ver) / 8;
    if (bytes < 0) {
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 n = 0;
    for (vek_s32 i = 0; i < bytes; i++) {
        vek_u8 b = mask->addr[i];
        if (b == 0xFF && n == 8 * i) {
            n += 8;
            continue;
        }
        if (n != 8 * i && b) {
            return VEK_ERR_BAD_ARG;  // one bits after a gap
        }
        int lead = b ? __builtin_clz(~((unsigned)b << 24)) : 0;
        if ((vek_u8)(b << lead)) {
            return VEK_ERR_BAD_ARG;
        }
        n += lead;
    }
    return n;
}

VEK_API vek_s32 ip_in_same_net(const VekIpAddr* a, const VekIpAddr* b, vek_s32 prefix) {
    if (!ip_args_ok(a, b)) {
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 ver = a->ver == b->ver ? a->ver : 4;
    vek_s32 bits = ip_bits(ver);
    if (prefix < 0 || prefix > bits) {
        return VEK_ERR_BAD_ARG;
    }
    const vek_u8* x = bytes_as(a, ver);
    const vek_u8* y = bytes_as(b, ver);
    return x && y && prefix_equal(x, y, prefix) ? 1 : 0;
}

VEK_API vek_s32 ip_in_same_netm(const VekIpAddr* a, const VekIpAddr* b, const VekIpAddr* mask) {
    if (!ip_args_ok(a, b) || !mask) {
        VEK_ASSERT(mask);
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 bytes = ip_bits(mask->ver) / 8;
    if (bytes < 0) {
        return VEK_ERR_BAD_ARG;
    }
    const vek_u8* x = bytes_as(a, mask->ver);
    const vek_u8* y = bytes_as(b, mask->ver);
    if (!x || !y) {
        return 0;
    }
    for (vek_s32 i = 0; i < bytes; i++) {
        if ((x[i] ^ y[i]) & mask->addr[i]) {
            return 0;
        }
    }
    return 1;
}

/* ---- MAC addresses ---- */

VEK_API vek_s32 mac_str_to_addr(const char* s, vek_s32 len, vek_u8* mac) {
    if (!s || !mac) {
        VEK_ASSERT(s && mac);
        return VEK_ERR_BAD_ARG;
    }
    return mac_parse(s, text_len(s, len), mac) ? 0 : VEK_ERR_MALFORMED;
}

VEK_API vek_s32 mac_addr_to_str(const vek_u8* mac, char* buf, vek_s32 size, vek_s32 fmt) {
    if (!mac) {
        VEK_ASSERT(mac);
        return VEK_ERR_BAD_ARG;
    }
    const char* digits = (fmt & VEK_MAC_UPPER) ? kUpperHex : kLowerHex;
    char sep = (char)(fmt & 0xFF);
    if ((fmt & ~(VEK_MAC_UPPER | 0xFF)) || (sep && sep != ':' && sep != '-' && sep != '.')) {
        return VEK_ERR_BAD_ARG;
    }
    char text[18];
    char* o = text;
    for (int i = 0; i < 6; i++) {
        bool between = sep == '.' ? (i == 2 || i == 4) : (sep && i);
        if (between) {
            *o++ = sep;
        }
        *o++ = digits[mac[i] >> 4];
        *o++ = digits[mac[i] & 0xF];
    }
    return give_text(text, (vek_s32)(o - text), buf, size);
}

} // extern "C"
