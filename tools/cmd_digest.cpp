/*
 * vektool md5, crc8, crc16, crc32: digests and frame check sequences of a
 * file or of standard input.
 *
 * md5 prints like md5sum ("<lower-case hex>  <name>"), so the two can be
 * compared directly. The CRC commands print the library's raw register and
 * then the check value other tools print (the complemented register for
 * CRC-16 and CRC-32, the register itself for CRC-8, which is not inverted):
 *     vektool crc32 f   ->   340bc6d9 cbf43926  f
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>
#include "VekTool.h"

namespace {

/* Feeds the bytes of a file, or of standard input for "-", to eat in
 * pieces. False (after the message) when the input cannot be read. */
template <class Eat>
bool read_chunks(const char* what, const char* path, Eat eat) {
    bool isStdin = !std::strcmp(path, "-");
    std::FILE* f = stdin;
    if (isStdin) {
        vektool::binary_stdin();
    } else {
        errno = 0;
        f = std::fopen(path, "rb");
        if (!f) {
            vektool::fail(what, path, vektool::os_reason());
            return false;
        }
    }
    std::vector<char> buf(1 << 16);
    size_t n;
    errno = 0;
    while ((n = std::fread(buf.data(), 1, buf.size(), f)) > 0) {
        eat(buf.data(), (vek_s32)n);
    }
    bool ok = !std::ferror(f);
    std::string reason = ok ? std::string() : vektool::os_reason();
    if (!isStdin) {
        std::fclose(f);
    }
    if (!ok) {
        vektool::fail(what, isStdin ? "standard input" : path, reason);
    }
    return ok;
}

// The single optional argument; null when there are too many.
const char* input_arg(int argc, char** argv) {
    return argc == 0 ? "-" : argc == 1 ? argv[0] : nullptr;
}

int cmd_md5(int argc, char** argv) {
    const char* path = input_arg(argc, argv);
    if (!path) {
        return vektool::kUsage;
    }
    VekMd5 ctx;
    VekMd5_init(&ctx);
    if (!read_chunks("md5", path, [&](const char* p, vek_s32 n) { VekMd5_update(&ctx, p, n); })) {
        return vektool::kFailed;
    }
    const vek_u8* dig = VekMd5_finalx(&ctx, nullptr);
    for (int i = 0; i < 16; i++) {
        std::printf("%02x", dig[i]);
    }
    std::printf("  %s\n", path);
    return vektool::kDone;
}

// Prints "<register> <check>  <name>" with width/4 hex digits each.
int print_crc(const char* path, vek_u32 reg, vek_u32 check, int width) {
    std::printf("%0*lx %0*lx  %s\n", width / 4, (unsigned long)reg, width / 4, (unsigned long)check,
                path);
    return vektool::kDone;
}

int cmd_crc8(int argc, char** argv) {
    const char* path = input_arg(argc, argv);
    if (!path) {
        return vektool::kUsage;
    }
    // CRC-8 has no running form: gather the input in a memory stream and
    // take the stream's CRC.
    IStrm* mem = MemStrm_xcreatex__(nullptr, 0, __FILE__, __LINE__);
    bool ok = mem && read_chunks("crc8", path, [&](const char* p, vek_s32 n) { IStrm_write(mem, p, n); });
    vek_u8 reg = ok ? Crc8_fcsStrm(mem) : 0;
    if (mem) {
        IStrm_release(mem);
    }
    return ok ? print_crc(path, reg, reg, 8) : vektool::kFailed;
}

int cmd_crc16(int argc, char** argv) {
    const char* path = input_arg(argc, argv);
    if (!path) {
        return vektool::kUsage;
    }
    vek_u16 reg = 0xFFFF;
    if (!read_chunks("crc16", path, [&](const char* p, vek_s32 n) { reg = Crc16_fcsBuf(reg, p, n); })) {
        return vektool::kFailed;
    }
    return print_crc(path, reg, (vek_u16)~reg, 16);
}

int cmd_crc32(int argc, char** argv) {
    const char* path = input_arg(argc, argv);
    if (!path) {
        return vektool::kUsage;
    }
    vek_u32 reg = 0xFFFFFFFFu;
    if (!read_chunks("crc32", path, [&](const char* p, vek_s32 n) { reg = Crc32_fcsBuf(reg, p, n); })) {
        return vektool::kFailed;
    }
    return print_crc(path, reg, ~reg, 32);
}

} // namespace

static const vektool::Command kMd5 = {
    "md5", "md5 [FILE|-]", "MD5 digest, printed like md5sum", cmd_md5, nullptr, 0};
static const vektool::Command kCrc8 = {
    "crc8", "crc8 [FILE|-]", "CRC-8 (Dallas/Maxim): register and check value", cmd_crc8, nullptr, 0};
static const vektool::Command kCrc16 = {
    "crc16", "crc16 [FILE|-]", "CRC-16 (PPP FCS-16, X.25): register and check value", cmd_crc16,
    nullptr, 0};
static const vektool::Command kCrc32 = {
    "crc32", "crc32 [FILE|-]", "CRC-32 (PPP FCS-32, zip): register and check value", cmd_crc32,
    nullptr, 0};
VEKTOOL_COMMAND(kMd5);
VEKTOOL_COMMAND(kCrc8);
VEKTOOL_COMMAND(kCrc16);
VEKTOOL_COMMAND(kCrc32);
