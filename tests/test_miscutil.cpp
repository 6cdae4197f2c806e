/*
 * Binary and network helpers: byte order at odd addresses, multi-byte
 * integers at their limits, IP texts against the C library's own readers
 * and writers (on POSIX) and against fixed tables (everywhere), networks,
 * MAC addresses and URL splitting.
 */
#include <cstring>
#include <string>
#include <utility>
#include "VekTest.h"
#ifndef _WIN32
#include <arpa/inet.h>
#endif

namespace {

std::string hex(const void* p, size_t n) {
    std::string s;
    char b[3];
    for (size_t i = 0; i < n; i++) {
        std::snprintf(b, sizeof b, "%02x", ((const vek_u8*)p)[i]);
        s += b;
    }
    return s;
}

std::string ntop(int ver, const void* a) {
    char buf[VEK_INET6_ADDRSTRLEN];
    EXPECT_GT(vek_inet_ntop(ver, a, buf, sizeof buf), 0);
    return buf;
}

// Address-like texts with the pieces readers stumble over: numbers at and
// past their limits, leading zeros, prefixes, one "::" or two, a dotted
// tail, now and then a stray character.
struct TextGen {
    vek_u32 s;
    vek_u32 next(vek_u32 n) {
        s = s * 1103515245u + 12345u;
        return (s >> 16) % n;
    }
    template <size_t N>
    const char* pick(const char* const (&a)[N]) {
        return a[next(N)];
    }
    std::string text(bool v6) {
        static const char* const kNum[] = {"0", "1", "9", "25", "255", "0", "7", "10", "199", "256", "00", "07",
                                           "08", "0x1f", "0X", "0xffffffff", "4294967296", "017777777777", ""};
        static const char* const kGroup[] = {"0", "1", "ffff", "FFFF", "abcd", "0db8", "2001", "fe80", "a",
                                             "12345", "00000", "g1", ""};
        static const char* const kJunk[] = {" ", "x", "\t", "+", "-", "%", ".", ":", "::"};
        std::string t;
        int parts = next(2) ? (v6 ? 8 - (int)next(3) : 4) : 1 + (int)next(v6 ? 9 : 5);
        for (int i = 0; i < parts; i++) {
            if (i) {
                t += v6 ? (next(8) ? ":" : "::") : ".";
            }
            t += v6 && i == parts - 1 && !next(5) ? "1.2.3.4" : v6 ? pick(kGroup) : pick(kNum);
        }
        if (!next(8)) {
            t.insert(next((vek_u32)t.size() + 1), pick(kJunk));
        }
        return t;
    }
};
} // namespace

using BinUtil = VekTest;

TEST_F(BinUtil, ByteOrderAtAnyAddress) {
    vek_u8 buf[20] = {};
    vek_u8* p = buf + 1;  // never aligned
    p = (vek_u8*)vek_u16_set(p, 0x0102);
    p = (vek_u8*)vek_u32_setl(p, 0x03040506u);
    p = (vek_u8*)vek_u64_set(p, 0x1122334455667788ull);
    EXPECT_EQ(buf + 15, p);
    EXPECT_EQ("000102060504031122334455667788", hex(buf, 15));
    EXPECT_EQ(0x0102, vek_u16_get(buf + 1));
    EXPECT_EQ(0x0201, vek_u16_getl(buf + 1));
    EXPECT_EQ(0x03040506u, vek_u32_getl(buf + 3));
    EXPECT_EQ(0x06050403u, vek_u32_get(buf + 3));
    EXPECT_EQ(0x1122334455667788ull, vek_u64_get(buf + 7));
    EXPECT_EQ(0x8877665544332211ull, vek_u64_getl(buf + 7));
    vek_u16_setl(buf, 0xA1B2);
    vek_u32_set(buf + 2, 0xC1C2C3C4u);
    vek_u64_setl(buf + 6, 1);
    EXPECT_EQ("b2a1c1c2c3c40100000000000000", hex(buf, 14));
}

TEST_F(BinUtil, MultiByteIntegersAtTheirLimits) {
    struct Case {
        vek_u64 v;
        const char* bytes;
    } cases[] = {{0, "00"}, {0x7F, "7f"}, {0x80, "8100"}, {0x3FFF, "ff7f"}, {0x4000, "818000"},
                 {0xFFFFFFFFu, "8fffffff7f"}};
    for (const Case& c : cases) {
        vek_u8 b[10];
        vek_s32 n = vek_mb32_set(b, sizeof b, (vek_u32)c.v);
        EXPECT_EQ(c.bytes, hex(b, (size_t)n));
        EXPECT_EQ(n, vek_mb32_len((vek_u32)c.v));
        vek_u32 got = 1;
        EXPECT_EQ(n, vek_mb32_get(b, n, &got));
        EXPECT_EQ(c.v, got);
        EXPECT_EQ(VEK_ERR_EOF, vek_mb32_get(b, n - 1, &got)) << c.bytes;
        EXPECT_EQ(VEK_ERR_FULL, vek_mb32_set(b, n - 1, (vek_u32)c.v));
    }
    // Every 64-bit length from 1 to 10 bytes comes back.
    for (int bits = 0; bits <= 64; bits++) {
        vek_u64 v = bits == 64 ? ~0ull : (1ull << bits) - 1;
        vek_u8 b[10];
        vek_s32 n = vek_mb64_set(b, sizeof b, v);
        EXPECT_EQ(bits == 0 ? 1 : (bits + 6) / 7, n);
        vek_u64 got = 0;
        EXPECT_EQ(n, vek_mb64_get(b, n, &got));
        EXPECT_EQ(v, got);
    }
    const vek_u8 padded[] = {0x80, 0x80, 0x81, 0x00};   // leading zero groups
    const vek_u8 tooLong[] = {0x80, 0x80, 0x80, 0x80, 0x80, 0x01};
    const vek_u8 tooBig[] = {0x90, 0x80, 0x80, 0x80, 0x00};  // 2^32
    vek_u32 v = 7;
    EXPECT_EQ(4, vek_mb32_get(padded, 4, &v));
    EXPECT_EQ(0x80u, v);
    EXPECT_EQ(VEK_ERR_MALFORMED, vek_mb32_get(tooLong, 6, &v));
    EXPECT_EQ(VEK_ERR_MALFORMED, vek_mb32_get(tooBig, 5, &v));
    EXPECT_EQ(0x80u, v);
    vek_u64 w;
    EXPECT_EQ(5, vek_mb64_get(tooBig, 5, &w));
    EXPECT_EQ(1ull << 32, w);
}

using IpText = VekTest;

TEST_F(IpText, ClassicIpv4Forms) {
    struct Case {
        const char* in;
        vek_s32 ret;
        vek_u32 addr;
    } cases[] = {
        {"127.0.0.1", 0, 0x7F000001u}, {"0x7f.1", 0, 0x7F000001u}, {"10.8", 0, 0x0A000008u},
        {"0300.0250.1.1", 0, 0xC0A80101u}, {"1.2.0xFFFF", 0, 0x0102FFFFu}, {"4294967295", 0, 0xFFFFFFFFu},
        {"1.2.3.4 trailing", 0, 0x01020304u},
        {"4294967296", -820, 0}, {"1.2.3.256", -820, 0}, {"1.2.65536", -820, 0}, {"256.1", -820, 0},
        {"08", -820, 0}, {"0x", -820, 0}, {"1.2.3.4.5", -820, 0}, {"1..2", -820, 0}, {"1.", -820, 0},
        {"", -820, 0}, {" 1.2.3.4", -820, 0}, {"+1", -820, 0}, {"1.2.3.4x", -820, 0},
    };
    for (const Case& c : cases) {
        vek_u32 a = 0;
        EXPECT_EQ(c.ret, vek_inet_aton(c.in, &a)) << c.in;
        EXPECT_EQ(c.addr, a) << c.in;
    }
    char buf[VEK_INET_ADDRSTRLEN];
    EXPECT_EQ(15, vek_inet_ntoa(0xFFFFFFFEu, buf, sizeof buf));
    EXPECT_STREQ("255.255.255.254", buf);
    EXPECT_EQ(VEK_ERR_FULL, vek_inet_ntoa(0x7F000001u, buf, 9));
    EXPECT_STREQ("", buf);
}

TEST_F(IpText, StrictFormsAndCanonicalOutput) {
    struct Case {
        int ver;
        const char* in;
        const char* canon;  // null: refused
    } cases[] = {
        {4, "1.2.3.4", "1.2.3.4"}, {4, "0.0.0.0", "0.0.0.0"}, {4, "01.2.3.4", nullptr}, {4, "1.2.3", nullptr},
        {4, "1.2.3.4.", nullptr}, {4, "256.0.0.0", nullptr}, {4, "0x1.2.3.4", nullptr},
        {6, "::", "::"}, {6, "::1", "::1"}, {6, "1::", "1::"}, {6, "2001:DB8:0:0:0:0:2:1", "2001:db8::2:1"},
        {6, "2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},       // one zero group stays
        {6, "2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},                // the longer run
        {6, "2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},          // the first of equal runs
        {6, "::ffff:192.0.2.1", "::ffff:192.0.2.1"}, {6, "::FFFF:c000:0201", "::ffff:192.0.2.1"},
        {6, "1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"}, {6, "::2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8"},
        {6, "1:2:3:4:5:6:1.2.3.4", "1:2:3:4:5:6:102:304"}, {6, "0000:0:0:0:0:0:0:0001", "::1"},
        {6, "1:2:3:4:5:6:7:8:9", nullptr}, {6, "1:2:3:4:5:6:7:8::", nullptr}, {6, ":1::", nullptr},
        {6, "1::2:", nullptr}, {6, ":::", nullptr}, {6, "1::2::3", nullptr}, {6, "12345::", nullptr},
        {6, "::1.2.3", nullptr}, {6, "::1.2.3.4:5", nullptr}, {6, "1.2.3.4", nullptr}, {6, "", nullptr},
        {6, "fe80::1%eth0", nullptr}, {6, "[::1]", nullptr}, {6, "1:2:3:4:5:6:7:1.2.3.4", nullptr},
    };
    for (const Case& c : cases) {
        vek_u8 a[16] = {};
        vek_s32 r = vek_inet_pton(c.ver, c.in, -1, a);
        EXPECT_EQ(c.canon ? 0 : VEK_ERR_MALFORMED, r) << c.in;
        if (c.canon && r == 0) {
            EXPECT_EQ(c.canon, ntop(c.ver, a)) << c.in;
        }
    }
    vek_u8 a[16];
    EXPECT_EQ(0, vek_inet_pton(4, "1.2.3.45", 7, a));  // only len bytes count
    EXPECT_EQ(VEK_ERR_BAD_ARG, vek_inet_pton(5, "1.2.3.4", -1, a));
    char small[8];
    EXPECT_EQ(VEK_ERR_FULL, vek_inet_ntop(6, a, small, sizeof small));
}

#ifndef _WIN32
// The C library's readers and writers decide what the right answer is.
TEST_F(IpText, AgreesWithTheCLibrary) {
    TextGen gen{12345};
    int accepted = 0;
    for (int i = 0; i < 30000; i++) {
        bool v6 = i & 1;
        std::string t = gen.text(v6);
        vek_u8 ours[16] = {}, theirs[16] = {};
        int want = inet_pton(v6 ? AF_INET6 : AF_INET, t.c_str(), theirs);
        ASSERT_EQ(want == 1 ? 0 : VEK_ERR_MALFORMED, vek_inet_pton(v6 ? 6 : 4, t.c_str(), -1, ours)) << t;
        ASSERT_EQ(0, std::memcmp(ours, theirs, 16)) << t;
        accepted += want == 1;
        if (!v6) {
            in_addr ia{};
            vek_u32 a = 0;
            int ok = inet_aton(t.c_str(), &ia);
            ASSERT_EQ(ok ? 0 : VEK_ERR_MALFORMED, vek_inet_aton(t.c_str(), &a)) << t;
            ASSERT_EQ(ok ? ntohl(ia.s_addr) : 0u, a) << t;
        }
    }
    EXPECT_GT(accepted, 1000);  // the texts reach past the first refusal
    // Output: equal to inet_ntop except where glibc writes the deprecated
    // IPv4-compatible form (::a.b.c.d) that RFC 5952 leaves out.
    for (int i = 0; i < 30000; i++) {
        vek_u8 a[16] = {};
        for (int k = 0; k < 16; k += 2) {
            if (gen.next(3)) {  // plenty of zero groups
                a[k] = (vek_u8)gen.next(256);
                a[k + 1] = (vek_u8)gen.next(256);
            }
        }
        if (i % 7 == 0) {
            std::memset(a, 0, 10);
            a[10] = a[11] = 0xFF;
        }
        char theirs[INET6_ADDRSTRLEN];
        ASSERT_TRUE(inet_ntop(AF_INET6, a, theirs, sizeof theirs));
        std::string ours = ntop(6, a);
        static const vek_u8 zero12[12] = {};
        bool compat = std::memcmp(a, zero12, 12) == 0 && (a[12] | a[13]);
        if (!compat) {
            ASSERT_EQ(theirs, ours);
        }
        vek_u8 back[16];
        ASSERT_EQ(1, inet_pton(AF_INET6, ours.c_str(), back));
        ASSERT_EQ(0, std::memcmp(a, back, 16)) << ours;
    }
}
#endif

TEST_F(IpText, NetworksByPrefixAndMask) {
    VekIpAddr a, b, m;
    vek_s32 prefix = -1;
    ASSERT_EQ(0, ip_str_to_net("192.168.10.0/23", -1, &a, &prefix));
    EXPECT_EQ(23, prefix);
    ASSERT_EQ(0, ip_str_to_addr("192.168.11.200", -1, &b));
    EXPECT_EQ(1, ip_in_same_net(&a, &b, prefix));
    EXPECT_EQ(0, ip_in_same_net(&a, &b, 24));
    EXPECT_EQ(1, ip_in_same_net(&a, &b, 0));
    EXPECT_EQ(VEK_ERR_BAD_ARG, ip_in_same_net(&a, &b, 33));
    ASSERT_EQ(0, ip_prefix_to_mask(4, 23, &m));
    EXPECT_EQ("255.255.254.0", ntop(4, m.addr));
    EXPECT_EQ(23, ip_mask_to_prefix(&m));
    EXPECT_EQ(1, ip_in_same_netm(&a, &b, &m));
    // An IPv4 peer seen through a dual-stack socket is the same host.
    VekIpAddr mapped, v6;
    ASSERT_EQ(0, ip_str_to_addr("[::ffff:192.168.11.7]", -1, &mapped));
    ASSERT_EQ(0, ip_str_to_addr("2001:db8:abcd:12::1", -1, &v6));
    EXPECT_EQ(1, ip_in_same_net(&a, &mapped, 23));
    EXPECT_EQ(1, ip_in_same_netm(&mapped, &b, &m));
    m.addr[3] = 1;  // not contiguous: still a mask to compare with (7 and 200 differ in bit 0)
    EXPECT_EQ(VEK_ERR_BAD_ARG, ip_mask_to_prefix(&m));
    EXPECT_EQ(0, ip_in_same_netm(&mapped, &b, &m));
    EXPECT_EQ(0, ip_in_same_net(&a, &v6, 0));
    ASSERT_EQ(0, ip_str_to_net("2001:db8:abcd::/48", -1, &a, &prefix));
    EXPECT_EQ(1, ip_in_same_net(&a, &v6, prefix));
    EXPECT_EQ(0, ip_in_same_net(&a, &v6, 61));  // bit 60 differs
    ASSERT_EQ(0, ip_prefix_to_mask(6, 61, &m));
    EXPECT_EQ("ffff:ffff:ffff:fff8::", ntop(6, m.addr));
    EXPECT_EQ(61, ip_mask_to_prefix(&m));
    EXPECT_EQ(0, ip_in_same_netm(&a, &v6, &m));

    for (const char* bad : {"10.0.0.0/33", "10.0.0.0/08", "10.0.0.0/", "::/129", "10.0.0/8", "[::1]/x"}) {
        EXPECT_EQ(VEK_ERR_MALFORMED, ip_str_to_net(bad, -1, &a, &prefix)) << bad;
    }
    ASSERT_EQ(0, ip_str_to_net("::1", -1, &a, &prefix));
    EXPECT_EQ(128, prefix);
    EXPECT_EQ(VEK_ERR_BAD_ARG, ip_prefix_to_mask(4, -1, &m));
}

TEST_F(IpText, MacAddressForms) {
    const vek_u8 want[6] = {0x00, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F};
    for (const char* in : {"00:1b:2c:3d:4e:5f", "00-1B-2C-3D-4E-5F", "001b.2c3d.4e5f", "001B2C3D4E5F",
                           "0:1b:2c:3d:4e:5f"}) {
        vek_u8 mac[6] = {};
        EXPECT_EQ(0, mac_str_to_addr(in, -1, mac)) << in;
        EXPECT_EQ(0, std::memcmp(mac, want, 6)) << in;
    }
    for (const char* in : {"00:1b:2c:3d:4e", "00:1b-2c:3d:4e:5f", "001:b2:c3:d4:e5:f", "00:1b:2c:3d:4e:5f:",
                           " 00:1b:2c:3d:4e:5f", "001b.2c3d:4e5f", "001b2c3d4e5g", "00.1b.2c.3d.4e.5f", ""}) {
        vek_u8 mac[6] = {9};
        EXPECT_EQ(VEK_ERR_MALFORMED, mac_str_to_addr(in, -1, mac)) << in;
        EXPECT_EQ(9, mac[0]);
    }
    char buf[18];
    for (auto [fmt, text] : {std::pair<int, const char*>{':', "00:1b:2c:3d:4e:5f"}, {'-' | VEK_MAC_UPPER, "00-1B-2C-3D-4E-5F"},
                             {'.', "001b.2c3d.4e5f"}, {0, "001b2c3d4e5f"}}) {
        EXPECT_EQ((vek_s32)std::strlen(text), mac_addr_to_str(want, buf, sizeof buf, fmt));
        EXPECT_STREQ(text, buf);
    }
    EXPECT_EQ(VEK_ERR_FULL, mac_addr_to_str(want, buf, 12, 0));
    EXPECT_EQ(VEK_ERR_BAD_ARG, mac_addr_to_str(want, buf, sizeof buf, '/'));
}

using Url = VekTest;

namespace {

// The parts of a split as "scheme|user|pass|host|port|path|query|frag",
// "~" for an absent part.
std::string parts_of(const char* url) {
    VekUrl u;
    if (vek_url_split(url, -1, &u) != 0) {
        return "refused";
    }
    std::string s;
    for (int i = 0; i < 8; i++) {
        s += i ? "|" : "";
        s += u.part[i].p ? std::string(u.part[i].p, (size_t)u.part[i].len) : "~";
    }
    return s;
}

} // namespace

TEST_F(Url, SplitsByTheGenericSyntax) {
    struct Case {
        const char* url;
        const char* parts;
    } cases[] = {
        {"http://user:pw@example.com:8080/a/b?x=1&y=2#top", "http|user|pw|example.com|8080|/a/b|x=1&y=2|top"},
        {"https://[2001:db8::1]:443/", "https|~|~|2001:db8::1|443|/|~|~"},
        {"http://h?", "http|~|~|h|~|||~"},
        {"http://h:/p#", "http|~|~|h||/p|~|"},
        {"file:///etc/hosts", "file|~|~||~|/etc/hosts|~|~"},
        {"mailto:ann@example.com", "mailto|~|~|~|~|ann@example.com|~|~"},
        {"urn:isbn:0451450523", "urn|~|~|~|~|isbn:0451450523|~|~"},
        {"//cdn.example/x.js", "~|~|~|cdn.example|~|/x.js|~|~"},
        {"../up?q=a/b?c", "~|~|~|~|~|../up|q=a/b?c|~"},
        {"http://user@:80", "http|user|~||80||~|~"},
        {"http://[v7.fe:80]/", "http|~|~|v7.fe:80|~|/|~|~"},
        {"http://m\xC3\xBCnchen.example/stra\xC3\x9F" "e", "http|~|~|m\xC3\xBCnchen.example|~|/stra\xC3\x9F" "e|~|~"},
        {"http://a%20b/%7e", "http|~|~|a%20b|~|/%7e|~|~"},
        {"", "~|~|~|~|~||~|~"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.parts, parts_of(c.url)) << c.url;
    }
    VekUrl u;
    ASSERT_EQ(0, vek_url_split("http://10.0.0.1:65535", -1, &u));
    EXPECT_EQ(VEK_URL_HOST_IPV4, u.hostType);
    EXPECT_EQ(65535, u.port);
    ASSERT_EQ(0, vek_url_split("http://10.0.0.256", -1, &u));
    EXPECT_EQ(VEK_URL_HOST_NAME, u.hostType);  // a name that looks like an address
    ASSERT_EQ(0, vek_url_split("x:/p", -1, &u));
    EXPECT_EQ(0, u.hostType);
    EXPECT_EQ(-1, u.port);
}

TEST_F(Url, RefusesWhatItCannotSplitCleanly) {
    for (const char* url : {"http://exa mple.com/", "http://[::1/", "http://[::1]x/", "http://[fe80::1%25en0]/",
                            "http://[1.2.3.4]/", "http://h:65536/", "http://h:8o/", "http://a@b@c/",
                            "http://h/a#b#c", "http://h/p%2", "http://h/p%zz", "http://h/<x>", "1http://h/",
                            "a b:c", ":foo", "seg:ment/x\x01", "http://h/\xC3", "http://h/\xC0\xAF",
                            "http://h/\xED\xA0\x80", "http://h/a\\b", "http://h/[x]", "http://[v.x]/"}) {
        VekUrl u;
        u.port = 5;
        EXPECT_EQ(VEK_ERR_MALFORMED, vek_url_split(url, -1, &u)) << url;
        EXPECT_EQ(nullptr, u.part[VEK_URL_PATH].p);
        EXPECT_EQ(-1, u.port);
    }
    VekUrl u;
    EXPECT_EQ(VEK_ERR_MALFORMED, vek_url_split("http://h/\0x", 11, &u));  // a NUL inside
}

TEST_F(Url, PartsPortsAndDecoding) {
    char buf[64];
    EXPECT_EQ(11, vek_url_get_host("http://u@example.com:81/", buf, sizeof buf));
    EXPECT_STREQ("example.com", buf);
    EXPECT_EQ(3, vek_url_get_host("ws://[::1]", buf, sizeof buf));
    EXPECT_STREQ("::1", buf);
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_url_get_host("mailto:x@y", buf, sizeof buf));
    EXPECT_EQ(VEK_ERR_FULL, vek_url_get_host("http://example.com", buf, 11));
    EXPECT_STREQ("", buf);
    EXPECT_EQ(3, vek_url_get_part("http://h/p?a=b", VEK_URL_QUERY, buf, sizeof buf));
    EXPECT_EQ(VEK_ERR_BAD_ARG, vek_url_get_part("http://h/", 8, buf, sizeof buf));

    EXPECT_EQ(81, vek_url_get_port("http://h:81/"));
    EXPECT_EQ(443, vek_url_get_port("HTTPS://h/"));
    EXPECT_EQ(80, vek_url_get_port("http://h:/"));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_url_get_port("xmpp://h"));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_url_get_port("httpx://h"));

    EXPECT_EQ(7, vek_url_dec("a%20b%2F%e2%82%acXYZ", 17, buf, sizeof buf));
    EXPECT_STREQ("a b/\xE2\x82\xAC", buf);
    char in[] = "x%41%42y";
    EXPECT_EQ(4, vek_url_dec(in, -1, in, sizeof in));  // in place
    EXPECT_STREQ("xABy", in);
    EXPECT_EQ(VEK_ERR_MALFORMED, vek_url_dec("%4", -1, buf, sizeof buf));
    EXPECT_EQ(VEK_ERR_MALFORMED, vek_url_dec("%g0", -1, buf, sizeof buf));
    EXPECT_EQ(VEK_ERR_FULL, vek_url_dec("abcd", -1, buf, 4));
    EXPECT_EQ(3, vek_url_dec("abc", -1, buf, 4));
}
