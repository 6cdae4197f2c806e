/*
 * The address and URL readers on any bytes. Whatever a reader accepts
 * survives a trip through its writer unchanged (IPv4 and IPv6 in their
 * inet_pton and classic forms, networks, MAC addresses), and an accepted
 * URL is put back together from its parts byte for byte, so no part can
 * lose or take a character. The multi-byte integers read back what their
 * writer wrote.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include "BaseLib.h"

namespace {

void check(bool ok) {
    if (!ok) {
        std::abort();
    }
}

std::string part(const VekUrl& u, int i) {
    return u.part[i].p ? std::string(u.part[i].p, (size_t)u.part[i].len) : std::string();
}

void fuzz_url(const char* s, vek_s32 n) {
    VekUrl u;
    if (vek_url_split(s, n, &u) != 0) {
        return;
    }
    std::string back;
    if (u.part[VEK_URL_SCHEME].p) {
        back += part(u, VEK_URL_SCHEME) + ":";
    }
    if (u.hostType) {
        back += "//";
        if (u.part[VEK_URL_USER].p) {
            back += part(u, VEK_URL_USER);
            if (u.part[VEK_URL_PASS].p) {
                back += ":" + part(u, VEK_URL_PASS);
            }
            back += "@";
        }
        bool literal = u.hostType == VEK_URL_HOST_IPV6 || u.hostType == VEK_URL_HOST_FUTURE;
        back += literal ? "[" + part(u, VEK_URL_HOST) + "]" : part(u, VEK_URL_HOST);
        if (u.part[VEK_URL_PORT].p) {
            back += ":" + part(u, VEK_URL_PORT);
        }
    }
    check(u.part[VEK_URL_PATH].p != nullptr);
    back += part(u, VEK_URL_PATH);
    if (u.part[VEK_URL_QUERY].p) {
        back += "?" + part(u, VEK_URL_QUERY);
    }
    if (u.part[VEK_URL_FRAG].p) {
        back += "#" + part(u, VEK_URL_FRAG);
    }
    check(back == std::string(s, (size_t)n));
    check(u.port >= -1 && u.port <= 65535);
    if (u.hostType == VEK_URL_HOST_IPV6) {
        vek_u8 a[16];
        check(vek_inet_pton(6, u.part[VEK_URL_HOST].p, u.part[VEK_URL_HOST].len, a) == 0);
    }
    // Every part decodes within its own length.
    for (const VekUrlPart& p : u.part) {
        if (p.p) {
            std::string d((size_t)p.len + 1, 0);
            vek_s32 r = vek_url_dec(p.p, p.len, &d[0], (vek_s32)d.size());
            check(r == VEK_ERR_MALFORMED || (r >= 0 && r <= p.len));
        }
    }
}

void fuzz_ip(const char* s, vek_s32 n) {
    vek_u8 a[16], b[16];
    char text[VEK_INET6_ADDRSTRLEN];
    for (int ver : {4, 6}) {
        if (vek_inet_pton(ver, s, n, a) == 0) {
            vek_s32 len = vek_inet_ntop(ver, a, text, sizeof text);
            check(len > 0 && vek_inet_pton(ver, text, len, b) == 0 && std::memcmp(a, b, ver == 4 ? 4 : 16) == 0);
        }
    }
    std::string z(s, (size_t)n);  // the classic reader takes terminated text
    vek_u32 v, w;
    if (vek_inet_aton(z.c_str(), &v) == 0) {
        check(vek_inet_ntoa(v, text, sizeof text) > 0 && vek_inet_aton(text, &w) == 0 && v == w);
    }
    VekIpAddr ip, ip2;
    vek_s32 prefix = -1, prefix2 = -1;
    if (ip_str_to_net(s, n, &ip, &prefix) == 0) {
        check(prefix >= 0 && prefix <= (ip.ver == 4 ? 32 : 128));
        std::string t(text, (size_t)ip_addr_to_str(&ip, text, sizeof text));
        t += "/" + std::to_string(prefix);
        check(ip_str_to_net(t.c_str(), -1, &ip2, &prefix2) == 0 && prefix2 == prefix &&
              std::memcmp(&ip, &ip2, sizeof ip) == 0);
        VekIpAddr mask;
        check(ip_prefix_to_mask(ip.ver, prefix, &mask) == 0 && ip_mask_to_prefix(&mask) == prefix);
        check(ip_in_same_net(&ip, &ip2, prefix) == 1 && ip_in_same_netm(&ip, &ip2, &mask) == 1);
    }
    vek_u8 mac[6], mac2[6];
    if (mac_str_to_addr(s, n, mac) == 0) {
        for (int fmt : {(int)':', (int)'-' | VEK_MAC_UPPER, (int)'.', 0}) {
            vek_s32 len = mac_addr_to_str(mac, text, sizeof text, fmt);
            check(len > 0 && mac_str_to_addr(text, len, mac2) == 0 && std::memcmp(mac, mac2, 6) == 0);
        }
    }
}

void fuzz_mb(const uint8_t* data, size_t size) {
    vek_u32 v32;
    vek_u64 v64;
    vek_u8 out[10];
    vek_s32 n = vek_mb32_get(data, (vek_s32)size, &v32);
    if (n > 0) {
        vek_s32 m = vek_mb32_set(out, sizeof out, v32);
        check(m > 0 && m <= n && vek_mb32_get(out, m, &v32) == m);
    }
    n = vek_mb64_get(data, (vek_s32)size, &v64);
    if (n > 0) {
        vek_u64 w = 0;
        vek_s32 m = vek_mb64_set(out, sizeof out, v64);
        check(m > 0 && m <= n && vek_mb64_get(out, m, &w) == m && w == v64);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 4096) {
        return 0;
    }
    const char* s = (const char*)data;
    fuzz_url(s, (vek_s32)size);
    fuzz_ip(s, (vek_s32)size);
    fuzz_mb(data, size);
    return 0;
}
