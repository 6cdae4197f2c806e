/*
 * MD5 and the CRCs on any bytes: a run cut anywhere chains to the same
 * result as the whole run, and the CRCs agree with the bit-at-a-time
 * definition, also over inputs repeated past the lengths where the CRC-32
 * changes method.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include "BaseLib.h"

namespace {

vek_u32 crc_bitwise(vek_u32 poly, vek_u32 fcs, const std::string& s) {
    for (unsigned char c : s) {
        fcs ^= c;
        for (int k = 0; k < 8; k++) {
            fcs = (fcs & 1) ? (fcs >> 1) ^ poly : fcs >> 1;
        }
    }
    return fcs;
}

void check(const std::string& s, size_t cut) {
    const char* p = s.data();
    vek_s32 n = (vek_s32)s.size(), c = (vek_s32)cut;
    vek_u32 c32 = Crc32_fcsBuf(0xFFFFFFFFu, p, n);
    vek_u16 c16 = Crc16_fcsBuf(0xFFFF, p, n);
    if (c32 != crc_bitwise(0xEDB88320u, 0xFFFFFFFFu, s) || c16 != crc_bitwise(0x8408, 0xFFFF, s) ||
        Crc8_fcsBuf(p, n) != crc_bitwise(0x8C, 0, s) ||
        Crc32_fcsBuf(Crc32_fcsBuf(0xFFFFFFFFu, p, c), p + c, n - c) != c32 ||
        Crc16_fcsBuf(Crc16_fcsBuf(0xFFFF, p, c), p + c, n - c) != c16) {
        std::abort();
    }
    VekMd5 whole, parts;
    VekMd5_update(VekMd5_init(&whole), p, n);
    VekMd5_update(VekMd5_init(&parts), p, c);
    VekMd5_update(&parts, p + c, n - c);
    if (std::memcmp(VekMd5_finalx(&whole, nullptr), VekMd5_finalx(&parts, nullptr), 16) != 0) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string in((const char*)data, size);
    size_t cut = size ? data[0] % (size + 1) : 0;
    check(in, cut);
    std::string big;
    while (size && big.size() < 700) {
        big += in;
    }
    check(big, big.size() ? (cut * 7 + 61) % (big.size() + 1) : 0);
    return 0;
}
