/*
 * vektool md5, crc8, crc16, crc32: digests and frame check sequences of
 * files or of standard input, read in pieces, one line per input.
 *
 * md5 prints like md5sum ("<lower-case hex>  <name>"), so the two can be
 * compared directly. The CRC commands print the library's raw register and
 * then the check value other tools print (the complemented register for
 * CRC-16 and CRC-32, the register itself for CRC-8, which is not inverted):
 *     vektool crc32 f   ->   340bc6d9 cbf43926  f
 * An input that cannot be read is reported and skipped; the others are
 * still done, and the exit code is then 2.
 */
#include <cstdio>
#include <string>
#include "CodecTool.h"

using vektool::Args;

namespace {

// The name as md5sum prints it: a backslash, newline or carriage return
// in it is escaped, and the line then starts with a backslash (true). On
// Windows a backslash separates folders and stays as it is.
bool escape_name(const char* path, std::string& name) {
#ifdef _WIN32
    const bool slash = false;
#else
    const bool slash = true;
#endif
    bool escaped = false;
    for (const char* p = path; *p; p++) {
        const char* esc = *p == '\\' && slash ? "\\\\" : *p == '\n' ? "\\n" : *p == '\r' ? "\\r" : nullptr;
        escaped = escaped || esc;
        name += esc ? std::string(esc) : std::string(1, *p);
    }
    return escaped;
}

/* Runs one digest over every operand (standard input without one). */
template <class Digest>
int each_input(const Args& a, Digest digest) {
    int rc = vektool::kDone;
    for (std::size_t i = 0; i < (a.count() ? a.count() : 1); i++) {
        const char* path = a.operand(i, "-");
        vektool::Reader in;
        std::string hex;
        if (!in.open(a.cmd, path) || !digest(in, hex)) {
            rc = vektool::kFailed;
            continue;
        }
        std::string name;
        bool escaped = escape_name(path, name);
        std::string line = (escaped ? "\\" : "") + hex + "  " + name + "\n";
        vektool::write_out(line.data(), line.size());
    }
    return rc;
}

std::string hex_of(unsigned long v, int digits) {
    char buf[20];
    std::snprintf(buf, sizeof buf, "%0*lx", digits, v);
    return buf;
}

int cmd_md5(const Args& a) {
    return each_input(a, [](vektool::Reader& in, std::string& hex) {
        VekMd5 ctx;
        VekMd5_init(&ctx);
        if (!vektool::each_chunk(in, [&](const char* p, std::size_t n) {
                VekMd5_update(&ctx, p, (vek_s32)n);
                return true;
            })) {
            return false;
        }
        const vek_u8* dig = VekMd5_finalx(&ctx, nullptr);
        for (int i = 0; i < 16; i++) {
            hex += hex_of(dig[i], 2);
        }
        return true;
    });
}

/*
 * CRC-8 has no running form: Crc8_fcsBuf starts from 0. Its register is a
 * whole byte, so one step is reg = T[reg ^ byte]: a run that goes on from
 * reg is a run from 0 over the same bytes with reg folded into the first.
 */
int cmd_crc8(const Args& a) {
    return each_input(a, [](vektool::Reader& in, std::string& hex) {
        vek_u8 reg = 0;
        std::vector<char> buf(vektool::kChunk);
        long n;
        while ((n = in.read(buf.data(), buf.size())) > 0) {
            buf[0] = (char)(buf[0] ^ reg);
            reg = Crc8_fcsBuf(buf.data(), (vek_s32)n);
        }
        hex = hex_of(reg, 2) + " " + hex_of(reg, 2);
        return n == 0;
    });
}

int cmd_crc16(const Args& a) {
    return each_input(a, [](vektool::Reader& in, std::string& hex) {
        vek_u16 reg = 0xFFFF;
        if (!vektool::each_chunk(in, [&](const char* p, std::size_t n) {
                reg = Crc16_fcsBuf(reg, p, (vek_s32)n);
                return true;
            })) {
            return false;
        }
        hex = hex_of(reg, 4) + " " + hex_of((vek_u16)~reg, 4);
        return true;
    });
}

int cmd_crc32(const Args& a) {
    return each_input(a, [](vektool::Reader& in, std::string& hex) {
        vek_u32 reg = 0xFFFFFFFFu;
        if (!vektool::each_chunk(in, [&](const char* p, std::size_t n) {
                reg = Crc32_fcsBuf(reg, p, (vek_s32)n);
                return true;
            })) {
            return false;
        }
        hex = hex_of(reg, 8) + " " + hex_of(~reg & 0xFFFFFFFFu, 8);
        return true;
    });
}

const vektool::SubCommand kMd5[] = {{nullptr, "md5 [FILE|-]...", "MD5 digest, one line per file, like md5sum", cmd_md5, 0, -1}};
const vektool::SubCommand kCrc8[] = {{nullptr, "crc8 [FILE|-]...", "CRC-8 (Dallas/Maxim): register and check value",
                                      cmd_crc8, 0, -1, nullptr,
                                      "read in pieces, the register folded into each (Crc8_fcsBuf starts at 0)\n"
                                      "Crc8_fcsBuf has no running form; a piece whose first byte has the register\n"
                                      "so far folded in continues that register exactly."}};
const vektool::SubCommand kCrc16[] = {
    {nullptr, "crc16 [FILE|-]...", "CRC-16 (PPP FCS-16, X.25): register and check value", cmd_crc16, 0, -1}};
const vektool::SubCommand kCrc32[] = {
    {nullptr, "crc32 [FILE|-]...", "CRC-32 (PPP FCS-32, zip): register and check value", cmd_crc32, 0, -1}};

} // namespace

static const vektool::Command kMd5Cmd = {"md5", "md5 [FILE|-]...", "MD5 digest, printed like md5sum", kMd5, 1};
static const vektool::Command kCrc8Cmd = {"crc8", "crc8 [FILE|-]...", "CRC-8 (Dallas/Maxim)", kCrc8, 1};
static const vektool::Command kCrc16Cmd = {"crc16", "crc16 [FILE|-]...", "CRC-16 (PPP FCS-16, X.25)", kCrc16, 1};
static const vektool::Command kCrc32Cmd = {"crc32", "crc32 [FILE|-]...", "CRC-32 (PPP FCS-32, zip)", kCrc32, 1};
VEKTOOL_COMMAND(kMd5Cmd);
VEKTOOL_COMMAND(kCrc8Cmd);
VEKTOOL_COMMAND(kCrc16Cmd);
VEKTOOL_COMMAND(kCrc32Cmd);
