/*
 * UrlSplit.cpp - URLs split by the generic syntax of RFC 3986.
 *
 * The text is walked once, part by part, and every part is checked against
 * the characters its grammar allows (plus well-formed UTF-8, so that
 * international names and paths pass as they are). Nothing is decoded or
 * copied: the parts point into the caller's text. A text that does not fit
 * the grammar is refused whole rather than split by a guess, because a
 * guessed host is how a URL check gets fooled.
 */
#include <cstring>
#include <initializer_list>
#include "MiscUtil.h"
#include "StrUtil.h"
#include "NetAddr.h"
#include "Utf8Seq.h"
#include "VekVos.h"

namespace {

// Character classes of RFC 3986, one bit each.
enum : vek_u8 {
    kUnres = 1,    // ALPHA DIGIT - . _ ~
    kSub = 2,      // ! $ & ' ( ) * + , ; =
    kColon = 4,    // :
    kAt = 8,       // @
    kSlash = 16,   // /
    kQmark = 32,   // ?
    kUtf8 = 64,    // well-formed UTF-8 sequences (not a class of a byte)
};

struct CharTable {
    vek_u8 c[128];
    constexpr CharTable() : c() {
        for (int i = 'a'; i <= 'z'; i++) {
            c[i] = c[i - 32] = kUnres;
        }
        for (int i = '0'; i <= '9'; i++) {
            c[i] = kUnres;
        }
        for (char ch : {'-', '.', '_', '~'}) {
            c[(int)ch] = kUnres;
        }
        for (char ch : {'!', '$', '&', '\'', '(', ')', '*', '+', ',', ';', '='}) {
            c[(int)ch] = kSub;
        }
        c[(int)':'] = kColon;
        c[(int)'@'] = kAt;
        c[(int)'/'] = kSlash;
        c[(int)'?'] = kQmark;
    }
};
constexpr CharTable kChars;

constexpr vek_u8 kUserChars = kUnres | kSub | kColon | kUtf8;
constexpr vek_u8 kNameChars = kUnres | kSub | kUtf8;
constexpr vek_u8 kPathChars = kUnres | kSub | kColon | kAt | kSlash | kUtf8;
constexpr vek_u8 kQueryChars = kPathChars | kQmark;

// Every byte of [p, end) belongs to the allowed classes; '%' needs two
// hexadecimal digits behind it.
bool chars_ok(const char* p, const char* end, vek_u8 allowed) {
    while (p < end) {
        vek_u8 c = (vek_u8)*p;
        if (c < 0x80) {
            if (c == '%') {
                if (end - p < 3 || vek::hex_val((vek_u8)p[1]) < 0 || vek::hex_val((vek_u8)p[2]) < 0) {
                    return false;
                }
                p += 3;
                continue;
            }
            if (!(kChars.c[c] & allowed)) {
                return false;
            }
            p++;
            continue;
        }
        int n = (allowed & kUtf8) ? vek::utf8_seq_len((const vek_u8*)p, (size_t)(end - p)) : 0;
        if (!n) {
            return false;
        }
        p += n;
    }
    return true;
}

const char* find_any(const char* p, const char* end, const char* set) {
    for (; p < end; p++) {
        if (std::strchr(set, *p) && *p) {
            return p;
        }
    }
    return end;
}

// The first c in [p, end), or null.
const char* find_byte(const char* p, const char* end, char c) {
    for (; p < end; p++) {
        if (*p == c) {
            return p;
        }
    }
    return nullptr;
}

bool is_alpha(char c) {
    return (unsigned)((c | 0x20) - 'a') < 26u;
}

void set_part(VekUrl* u, int which, const char* p, const char* end) {
    u->part[which].p = p;
    u->part[which].len = (vek_s32)(end - p);
}

// "v" 1*HEXDIG "." 1*( unreserved / sub-delims / ":" )
bool future_ok(const char* p, const char* end) {
    if (p == end || (*p | 0x20) != 'v') {
        return false;
    }
    const char* q = ++p;
    while (q < end && vek::hex_val((vek_u8)*q) >= 0) {
        q++;
    }
    if (q == p || q == end || *q != '.' || q + 1 == end) {
        return false;
    }
    for (q++; q < end; q++) {
        if ((vek_u8)*q >= 0x80 || !(kChars.c[(vek_u8)*q] & (kUnres | kSub | kColon))) {
            return false;
        }
    }
    return true;
}

// [user [":" pass] "@"] host [":" port]
bool split_authority(const char* a, const char* end, VekUrl* u) {
    const char* at = find_byte(a, end, '@');
    const char* h = a;
    if (at) {
        if (!chars_ok(a, at, kUserChars)) {
            return false;
        }
        const char* colon = find_byte(a, at, ':');
        set_part(u, VEK_URL_USER, a, colon ? colon : at);
        if (colon) {
            set_part(u, VEK_URL_PASS, colon + 1, at);
        }
        h = at + 1;
    }
    const char* p;
    if (h < end && *h == '[') {
        const char* rb = find_byte(h, end, ']');
        if (!rb) {
            return false;
        }
        vek_u8 bytes[16];
        if (vek::ip6_parse(h + 1, rb, bytes)) {
            u->hostType = VEK_URL_HOST_IPV6;
        } else if (future_ok(h + 1, rb)) {
            u->hostType = VEK_URL_HOST_FUTURE;
        } else {
            return false;
        }
        set_part(u, VEK_URL_HOST, h + 1, rb);
        p = rb + 1;
    } else {
        p = find_byte(h, end, ':');
        p = p ? p : end;
        if (!chars_ok(h, p, kNameChars)) {
            return false;
        }
        vek_u8 bytes[4];
        u->hostType = vek::ip4_parse(h, p, bytes) ? VEK_URL_HOST_IPV4 : VEK_URL_HOST_NAME;
        set_part(u, VEK_URL_HOST, h, p);
    }
    if (p == end) {
        return true;
    }
    if (*p != ':') {
        return false;  // something behind "]" other than a port
    }
    vek_s32 port = 0;
    for (const char* q = p + 1; q < end; q++) {
        if ((unsigned)(*q - '0') > 9u) {
            return false;
        }
        port = port * 10 + (*q - '0');
        if (port > 65535) {
            return false;
        }
    }
    set_part(u, VEK_URL_PORT, p + 1, end);
    u->port = end > p + 1 ? port : -1;
    return true;
}

bool split(const char* s, const char* end, VekUrl* u) {
    const char* p = s;
    const char* stop = find_any(s, end, ":/?#");
    if (stop < end && *stop == ':') {
        // A scheme, or a relative path whose first segment has a ':',
        // which RFC 3986 does not allow.
        if (stop == s || !is_alpha(*s)) {
            return false;
        }
        for (const char* q = s + 1; q < stop; q++) {
            if (!is_alpha(*q) && (unsigned)(*q - '0') > 9u && *q != '+' && *q != '-' && *q != '.') {
                return false;
            }
        }
        set_part(u, VEK_URL_SCHEME, s, stop);
        p = stop + 1;
    }
    if (end - p >= 2 && p[0] == '/' && p[1] == '/') {
        const char* a = p + 2;
        p = find_any(a, end, "/?#");
        if (!split_authority(a, p, u)) {
            return false;
        }
    }
    const char* q = find_any(p, end, "?#");
    if (!chars_ok(p, q, kPathChars)) {
        return false;
    }
    set_part(u, VEK_URL_PATH, p, q);
    if (q < end && *q == '?') {
        p = q + 1;
        q = find_any(p, end, "#");
        if (!chars_ok(p, q, kQueryChars)) {
            return false;
        }
        set_part(u, VEK_URL_QUERY, p, q);
    }
    if (q < end) {
        if (!chars_ok(q + 1, end, kQueryChars)) {
            return false;
        }
        set_part(u, VEK_URL_FRAG, q + 1, end);
    }
    return true;
}

void clear_url(VekUrl* u) {
    std::memset(u, 0, sizeof *u);
    u->port = -1;
}

struct Scheme {
    const char* name;
    vek_s32 port;
};
const Scheme kSchemes[] = {
    {"ftp", 21},    {"ssh", 22},    {"sftp", 22},   {"telnet", 23}, {"smtp", 25},  {"http", 80},
    {"ws", 80},     {"pop3", 110},  {"imap", 143},  {"ldap", 389},  {"https", 443}, {"wss", 443},
    {"rtsp", 554},
};

} // namespace

extern "C" {

VEK_API vek_s32 vek_url_split(const char* url, vek_s32 len, VekUrl* out) {
    if (!url || !out) {
        VEK_ASSERT(url && out);
        return VEK_ERR_BAD_ARG;
    }
    clear_url(out);
    const char* end = url + (len < 0 ? (vek_s32)std::strlen(url) : len);
    if (!split(url, end, out)) {
        clear_url(out);
        return VEK_ERR_MALFORMED;
    }
    return 0;
}

VEK_API vek_s32 vek_url_get_part(const char* url, vek_s32 part, char* buf, vek_s32 size) {
    if (!url || !buf) {
        VEK_ASSERT(url && buf);
        return VEK_ERR_BAD_ARG;
    }
    if (part < VEK_URL_SCHEME || part > VEK_URL_FRAG) {
        return VEK_ERR_BAD_ARG;
    }
    VekUrl u;
    vek_s32 r = vek_url_split(url, -1, &u);
    if (r < 0) {
        return r;
    }
    const VekUrlPart& pt = u.part[part];
    if (!pt.p) {
        return VEK_ERR_NOT_FOUND;
    }
    if (pt.len >= size) {
        if (size > 0) {
            buf[0] = 0;
        }
        return VEK_ERR_FULL;
    }
    std::memcpy(buf, pt.p, (size_t)pt.len);
    buf[pt.len] = 0;
    return pt.len;
}

VEK_API vek_s32 vek_url_get_host(const char* url, char* buf, vek_s32 size) {
    return vek_url_get_part(url, VEK_URL_HOST, buf, size);
}

VEK_API vek_s32 vek_url_get_port(const char* url) {
    if (!url) {
        VEK_ASSERT(url);
        return VEK_ERR_BAD_ARG;
    }
    VekUrl u;
    vek_s32 r = vek_url_split(url, -1, &u);
    if (r < 0) {
        return r;
    }
    if (u.port >= 0) {
        return u.port;
    }
    const VekUrlPart& sc = u.part[VEK_URL_SCHEME];
    for (const Scheme& k : kSchemes) {
        if (sc.p && (size_t)sc.len == std::strlen(k.name) && vek_strincmp(sc.p, k.name, sc.len) == 0) {
            return k.port;
        }
    }
    return VEK_ERR_NOT_FOUND;
}

VEK_API vek_s32 vek_url_dec(const char* s, vek_s32 len, char* buf, vek_s32 size) {
    if (!s || !buf) {
        VEK_ASSERT(s && buf);
        return VEK_ERR_BAD_ARG;
    }
    vek_s32 n = len < 0 ? (vek_s32)std::strlen(s) : len;
    vek_s32 o = 0;
    vek_s32 r = 0;
    for (vek_s32 i = 0; i < n; o++) {
        char c = s[i];
        if (c == '%') {
            int hi = i + 2 < n ? vek::hex_val((vek_u8)s[i + 1]) : -1;
            int lo = hi >= 0 ? vek::hex_val((vek_u8)s[i + 2]) : -1;
            if (lo < 0) {
                r = VEK_ERR_MALFORMED;
                break;
            }
            c = (char)(hi << 4 | lo);
            i += 3;
        } else {
            i++;
        }
        if (o + 1 >= size) {
            r = VEK_ERR_FULL;
            break;
        }
        buf[o] = c;
    }
    if (r < 0) {
        if (size > 0) {
            buf[0] = 0;
        }
        return r;
    }
    if (size > 0) {
        buf[o] = 0;
    }
    return size > 0 ? o : VEK_ERR_FULL;
}

} // extern "C"
