/*
 * MiscUtil.h - binary and network helpers: byte-order reads and writes,
 * multi-byte integers, IPv4 and IPv6 addresses as text, MAC addresses,
 * network membership and URL splitting.
 *
 * All functions are stateless and thread-safe and never allocate. Text
 * arguments come with a length where it says so (negative: up to the
 * terminator); output texts are always terminated when the buffer has room
 * for at least the terminator. Results: a length or 0 on success;
 * VEK_ERR_MALFORMED (-820) for input not in the expected form,
 * VEK_ERR_FULL (-201) when an output buffer is too small (nothing useful
 * written), VEK_ERR_EOF (-202) when input ends inside a value,
 * VEK_ERR_NOT_FOUND (-25) when an asked-for part is absent, VEK_ERR_BAD_ARG
 * (-81) for arguments out of range. Null pointers are the assertion of the
 * function's argument names and then VEK_ERR_BAD_ARG, except in the
 * byte-order calls, which check nothing so that they cost what a load does.
 */
#ifndef VEK_MISCUTIL_H
#define VEK_MISCUTIL_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* ---- byte order ----
 * Reads and writes of 16-, 32- and 64-bit values at any address (no
 * alignment needed). The plain forms are big-endian (network order), the
 * forms ending in "l" little-endian. A set returns the address just behind
 * the bytes it wrote, so that records are written field after field. */
VEK_API vek_u16 vek_u16_get(const void* p);
VEK_API vek_u32 vek_u32_get(const void* p);
VEK_API vek_u64 vek_u64_get(const void* p);
VEK_API vek_u16 vek_u16_getl(const void* p);
VEK_API vek_u32 vek_u32_getl(const void* p);
VEK_API vek_u64 vek_u64_getl(const void* p);
VEK_API void* vek_u16_set(void* p, vek_u16 v);
VEK_API void* vek_u32_set(void* p, vek_u32 v);
VEK_API void* vek_u64_set(void* p, vek_u64 v);
VEK_API void* vek_u16_setl(void* p, vek_u16 v);
VEK_API void* vek_u32_setl(void* p, vek_u32 v);
VEK_API void* vek_u64_setl(void* p, vek_u64 v);

/* ---- multi-byte integers ----
 * The variable-length unsigned integers of WAP, WBXML and MMS ("uintvar",
 * mb_u_int32): 7 bits a byte, the most significant group first, bit 7 set
 * on every byte but the last. 0 is the one byte 00, 127 is 7F, 128 is
 * 81 00, 0x3FFF is FF 7F; a 32-bit value takes at most 5 bytes, a 64-bit
 * one at most 10. Writers use the fewest bytes; readers also take leading
 * zero groups (80 ...) within those limits.
 *
 * _get reads one integer from len bytes at buf into *val: the bytes it
 * used (1 to 5, or 1 to 10); VEK_ERR_EOF when the bytes end before the
 * last group; VEK_ERR_MALFORMED when the integer is longer than the limit
 * or its value does not fit (*val is then untouched).
 * _set writes v into buf of size bytes: the bytes written, or VEK_ERR_FULL
 * (nothing written) when they do not fit. _len is the bytes v takes. */
VEK_API vek_s32 vek_mb32_get(const void* buf, vek_s32 len, vek_u32* val);
VEK_API vek_s32 vek_mb32_set(void* buf, vek_s32 size, vek_u32 v);
VEK_API vek_s32 vek_mb32_len(vek_u32 v);
VEK_API vek_s32 vek_mb64_get(const void* buf, vek_s32 len, vek_u64* val);
VEK_API vek_s32 vek_mb64_set(void* buf, vek_s32 size, vek_u64 v);
VEK_API vek_s32 vek_mb64_len(vek_u64 v);

/* ---- IP addresses ----
 * Bytes of an address are in network order. A 32-bit IPv4 value (as
 * vek_inet_aton gives it) is in host order: 127.0.0.1 is 0x7F000001. */
#define VEK_INET_ADDRSTRLEN  16  /* "255.255.255.255" and the terminator */
#define VEK_INET6_ADDRSTRLEN 46  /* the longest IPv6 text and the terminator */

/* An address of either version: ver 4 (the first 4 bytes of addr) or 6. */
typedef struct VekIpAddr {
    vek_s32 ver;
    vek_u8 addr[16];
} VekIpAddr;

/* The classic IPv4 forms of inet_aton: one to four parts "a", "a.b",
 * "a.b.c", "a.b.c.d", each decimal, octal (leading 0) or hexadecimal
 * (leading 0x or 0X); the last part fills the bytes left (24, 16 or 8
 * bits), each earlier part one byte. "0x7f.1" is 127.0.0.1, "10.8" is
 * 10.0.0.8, "0300.0250.1.1" is 192.168.1.1. The address ends at the
 * terminator or at an ASCII white-space character (what follows that is
 * not looked at). 0 and the address in *addr (host order; addr may be
 * null), or VEK_ERR_MALFORMED. */
VEK_API vek_s32 vek_inet_aton(const char* s, vek_u32* addr);
/* Writes addr (host order) as a dotted quad: the length, or VEK_ERR_FULL
 * when size is below VEK_INET_ADDRSTRLEN and the text does not fit. */
VEK_API vek_s32 vek_inet_ntoa(vek_u32 addr, char* buf, vek_s32 size);

/* The forms of inet_pton. ver 4: exactly four decimal parts of 0 to 255
 * without leading zeros ("1.2.3.4"). ver 6: the forms of RFC 4291 - eight
 * groups of one to four hexadecimal digits, one "::" for a run of zero
 * groups, the last 32 bits optionally as an IPv4 dotted quad
 * ("::ffff:1.2.3.4"); no zone ("%eth0") and no brackets. len bytes of s
 * are read (negative: up to the terminator) and nothing may follow.
 * 0 and the 4 or 16 bytes in out; VEK_ERR_MALFORMED (out untouched);
 * VEK_ERR_BAD_ARG for another ver. */
VEK_API vek_s32 vek_inet_pton(vek_s32 ver, const char* s, vek_s32 len, void* out);
/* Writes 4 or 16 bytes as text: IPv4 as a dotted quad, IPv6 in the
 * canonical form of RFC 5952 (lower case, no leading zeros, the longest run
 * of two or more zero groups - the first of equal runs - as "::", and the
 * IPv4-mapped addresses ::ffff:0:0/96 as "::ffff:1.2.3.4"). The length, or
 * VEK_ERR_FULL when the text does not fit (VEK_INET6_ADDRSTRLEN is always
 * enough); VEK_ERR_BAD_ARG for another ver. */
VEK_API vek_s32 vek_inet_ntop(vek_s32 ver, const void* addr, char* buf, vek_s32 size);

/* Either version: an IPv6 text (it has a ':'; also inside brackets, as in
 * URLs, "[::1]") or an IPv4 dotted quad, as vek_inet_pton reads them.
 * 0 and *ip, or VEK_ERR_MALFORMED. */
VEK_API vek_s32 ip_str_to_addr(const char* s, vek_s32 len, VekIpAddr* ip);
/* vek_inet_ntop of the address's version; VEK_ERR_BAD_ARG for a ver that
 * is neither 4 nor 6. */
VEK_API vek_s32 ip_addr_to_str(const VekIpAddr* ip, char* buf, vek_s32 size);
/* A network in prefix notation, "10.0.0.0/8" or "2001:db8::/32": the
 * address into *ip and the prefix length (0 to 32, or 0 to 128; written
 * without leading zeros) into *prefix. Without "/" the prefix is the whole
 * address (32 or 128). The address bits behind the prefix are kept as
 * written. 0, or VEK_ERR_MALFORMED. */
VEK_API vek_s32 ip_str_to_net(const char* s, vek_s32 len, VekIpAddr* ip, vek_s32* prefix);
/* The mask of a prefix length: 0, or VEK_ERR_BAD_ARG for a version other
 * than 4 or 6 or a length outside 0..32 / 0..128. */
VEK_API vek_s32 ip_prefix_to_mask(vek_s32 ver, vek_s32 prefix, VekIpAddr* mask);
/* The prefix length of a mask whose one bits are contiguous from the top,
 * or VEK_ERR_BAD_ARG for any other mask. */
VEK_API vek_s32 ip_mask_to_prefix(const VekIpAddr* mask);
/* 1 when a and b lie in the same network of the given prefix length (their
 * first prefix bits agree), 0 when not. An IPv4-mapped IPv6 address
 * (::ffff:a.b.c.d) stands for its IPv4 address when the other one is IPv4,
 * and prefix then counts IPv4 bits; other mixes of versions are never in
 * the same network (0). VEK_ERR_BAD_ARG for a prefix outside the version's
 * range or a ver that is neither 4 nor 6. */
VEK_API vek_s32 ip_in_same_net(const VekIpAddr* a, const VekIpAddr* b, vek_s32 prefix);
/* The same with a mask: (a AND mask) equals (b AND mask). The mask need
 * not be contiguous; its version decides as prefix does above (an IPv4
 * mask with an IPv4-mapped address compares the IPv4 address). */
VEK_API vek_s32 ip_in_same_netm(const VekIpAddr* a, const VekIpAddr* b, const VekIpAddr* mask);

/* ---- MAC addresses ---- */
#define VEK_MAC_UPPER 0x100  /* mac_addr_to_str: upper-case hexadecimal digits */

/* Six bytes from the usual texts: groups separated by ':' or '-' (one
 * separator throughout; one or two digits a group: "0:1b:2:3c:4d:5e"),
 * three groups of four digits separated by '.' (the form of Cisco,
 * "001b.2c3d.4e5f"), or twelve digits without separators. Digits of either
 * case; nothing may precede or follow. len bytes of s (negative: up to the
 * terminator). 0 and the bytes in mac, or VEK_ERR_MALFORMED (mac
 * untouched). */
VEK_API vek_s32 mac_str_to_addr(const char* s, vek_s32 len, vek_u8* mac);
/* Writes six bytes as text. fmt is the separator - ':' or '-' (six groups
 * of two digits), '.' (three groups of four) or 0 (none) - with
 * VEK_MAC_UPPER or-ed in for upper-case digits (lower case otherwise).
 * The length; VEK_ERR_FULL when the text does not fit (18 bytes are always
 * enough); VEK_ERR_BAD_ARG for another separator. */
VEK_API vek_s32 mac_addr_to_str(const vek_u8* mac, char* buf, vek_s32 size, vek_s32 fmt);

/* ---- URLs ----
 * Splitting by the generic syntax of RFC 3986:
 *     scheme ":" ["//" [user [":" pass] "@"] host [":" port]] path ["?" query] ["#" frag]
 * and its relative references (no scheme; "//host/p", "/p", "p?q").
 * Each part points into the caller's text and is not decoded; p is null
 * when the part is absent, which is not the same as empty ("http://h?"
 * has an empty query; "http://h" none). The host is given without the
 * brackets of an IPv6 literal. Besides the characters RFC 3986 allows,
 * well-formed UTF-8 sequences are taken in the user, host, path, query and
 * fragment, so international names stay as UTF-8 text (they are not
 * converted to punycode). Refused (VEK_ERR_MALFORMED): a space or control
 * character, any of < > " { } | \ ^ ` and bytes that are not well-formed
 * UTF-8; a '%' not followed by two hexadecimal digits; '[' or ']' outside
 * an IP literal; a bad IP literal (IPv6 as vek_inet_pton reads it, or
 * "v" hex "." ...; no zones); a port that is not decimal or above 65535;
 * a second '#'; a scheme that does not start with a letter; a relative
 * path whose first segment has a ':'. */
typedef struct VekUrlPart {
    const char* p;   /* the first byte of the part, or null when absent */
    vek_s32 len;     /* its length in bytes (0 when absent) */
} VekUrlPart;

#define VEK_URL_SCHEME 0
#define VEK_URL_USER   1
#define VEK_URL_PASS   2
#define VEK_URL_HOST   3
#define VEK_URL_PORT   4
#define VEK_URL_PATH   5
#define VEK_URL_QUERY  6
#define VEK_URL_FRAG   7

/* Host kinds. */
#define VEK_URL_HOST_NAME   1  /* a registered name (may be empty: "file:///p") */
#define VEK_URL_HOST_IPV4   4  /* a dotted quad as vek_inet_pton reads it */
#define VEK_URL_HOST_IPV6   6  /* an IPv6 literal ("[...]") */
#define VEK_URL_HOST_FUTURE 7  /* an IPvFuture literal ("[v1.x]") */

typedef struct VekUrl {
    VekUrlPart part[8];  /* indexed by VEK_URL_SCHEME ... VEK_URL_FRAG */
    vek_s32 hostType;    /* 0 without an authority, else VEK_URL_HOST_* */
    vek_s32 port;        /* the port's value, or -1 when absent or empty */
} VekUrl;

/* Splits len bytes of url (negative: up to the terminator) into *out:
 * 0, or VEK_ERR_MALFORMED (out is then cleared: every part absent). The
 * path is always present, possibly empty. */
VEK_API vek_s32 vek_url_split(const char* url, vek_s32 len, VekUrl* out);
/* Copies one part (VEK_URL_SCHEME ... VEK_URL_FRAG) of a terminated url
 * into buf: its length; VEK_ERR_NOT_FOUND when the part is absent,
 * VEK_ERR_MALFORMED when the url does not split, VEK_ERR_FULL when the part
 * and its terminator do not fit (buf then holds ""), VEK_ERR_BAD_ARG for
 * another part number. */
VEK_API vek_s32 vek_url_get_part(const char* url, vek_s32 part, char* buf, vek_s32 size);
/* vek_url_get_part of the host: "example.com" of
 * "http://user@example.com:8080/", "::1" of "http://[::1]/". */
VEK_API vek_s32 vek_url_get_host(const char* url, char* buf, vek_s32 size);
/* The port of a terminated url: the one written, else the usual port of
 * its scheme (any case: ftp 21, ssh and sftp 22, telnet 23, smtp 25, http
 * and ws 80, pop3 110, imap 143, ldap 389, https and wss 443, rtsp 554).
 * VEK_ERR_NOT_FOUND when neither; VEK_ERR_MALFORMED when the url does not
 * split. */
VEK_API vek_s32 vek_url_get_port(const char* url);
/* Percent-decoding: len bytes of s (negative: up to the terminator) with
 * every "%XX" replaced by its byte, into buf of size bytes, terminated.
 * The decoded length; VEK_ERR_MALFORMED for a '%' without two hexadecimal
 * digits; VEK_ERR_FULL when the result and the terminator do not fit.
 * buf may be s itself (decoding never lengthens). */
VEK_API vek_s32 vek_url_dec(const char* s, vek_s32 len, char* buf, vek_s32 size);

VEK_END_DECLS

#endif /* VEK_MISCUTIL_H */
