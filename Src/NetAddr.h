/*
 * NetAddr.h - the address readers that the URL splitter shares with the
 * address functions of MiscUtil (internal).
 */
#ifndef VEK_NETADDR_H
#define VEK_NETADDR_H

#include "VekType.h"

namespace vek {

/* Exactly [p, end) as a strict dotted quad (four decimal parts 0..255, no
 * leading zeros) into out[4]; false (out untouched) otherwise. */
bool ip4_parse(const char* p, const char* end, vek_u8* out);
/* Exactly [p, end) as an IPv6 text of RFC 4291 into out[16]; false (out
 * untouched) otherwise. */
bool ip6_parse(const char* p, const char* end, vek_u8* out);

/* The value of a hexadecimal digit, or -1. */
inline int hex_val(vek_u8 c) {
    if ((unsigned)(c - '0') <= 9u) {
        return c - '0';
    }
    c |= 0x20;
    return (unsigned)(c - 'a') < 6u ? c - 'a' + 10 : -1;
}

} // namespace vek

#endif /* VEK_NETADDR_H */
