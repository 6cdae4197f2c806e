/*
 * vektool sms: septet packing, address fields and service-centre time
 * stamps of short-message PDUs, in the hexadecimal form modems use.
 */
#include <cstdio>
#include "CodecTool.h"

using namespace codectool;

namespace {

// Septets (one per byte, each below 0x80) packed; the octets in hex.
int sms_pack(int argc, char** argv) {
    int fill = 0;
    if (!int_option(argc, argv, "--fill", 0, 6, fill) || argc > 1) {
        return vektool::kUsage;
    }
    std::string in;
    if (!input("sms pack", argc, argv, in)) {
        return vektool::kFailed;
    }
    for (char c : in) {
        if (c & 0x80) {
            return bad_input("sms pack", argc, argv, "a byte above 0x7F is not a septet");
        }
    }
    std::vector<vek_u8> out(in.size() + 2);
    vek_s32 n = GsmUtil_enc7BitStr(out.data(), (vek_s32)out.size(), (const vek_u8*)in.data(), (vek_s32)in.size(),
                                   fill);
    put_hex_line(out.data(), (size_t)n);
    return vektool::kDone;
}

// Packed octets in hex unpacked; the septets as bytes, cut to --count.
int sms_unpack(int argc, char** argv) {
    int fill = 0, count = -1;
    for (int before = -1; before != argc;) {
        before = argc;
        if (!int_option(argc, argv, "--fill", 0, 6, fill) || !int_option(argc, argv, "--count", 0, 1 << 30, count)) {
            return vektool::kUsage;
        }
    }
    if (argc > 1) {
        return vektool::kUsage;
    }
    std::string in;
    std::vector<vek_u8> packed;
    if (!input("sms unpack", argc, argv, in)) {
        return vektool::kFailed;
    }
    if (!from_hex(in, packed)) {
        return bad_input("sms unpack", argc, argv, "not an even number of hexadecimal digits");
    }
    std::vector<vek_u8> out(packed.size() * 8 / 7 + 2);
    vek_s32 n = GsmUtil_dec7BitStr(out.data(), (vek_s32)out.size(), packed.data(), (vek_s32)packed.size(), fill);
    if (count >= 0 && count < n) {
        n = count;
    }
    vektool::binary_stdout();
    vektool::write_out(out.data(), (size_t)n);
    return vektool::kDone;
}

// A field given in hex, padded so the decoder never reads past it; false
// when the hex is bad or shorter than the field says.
bool field_arg(const char* text, size_t minLen, std::vector<vek_u8>& out, size_t* given) {
    if (!from_hex(text, out) || out.size() < minLen) {
        return false;
    }
    *given = out.size();
    out.resize(out.size() + 300, 0);
    return true;
}

int sms_number(int argc, char** argv) {
    bool smsc = flag(argc, argv, "--smsc");
    bool enc = flag(argc, argv, "--enc");
    smsc = flag(argc, argv, "--smsc") || smsc;
    if (argc != 1) {
        return vektool::kUsage;
    }
    if (enc) {
        vek_u8 out[160];
        if (!*argv[0] || std::strlen(argv[0]) > 150) {
            return vektool::fail("sms number", argv[0], "a number of 1 to 150 characters is needed");
        }
        vek_s32 n = GsmUtil_encNo(out, sizeof out, argv[0], smsc ? 0 : 1);
        put_hex_line(out, (size_t)n);
        return vektool::kDone;
    }
    std::vector<vek_u8> addr;
    size_t given = 0;
    if (!field_arg(argv[0], 2, addr, &given)) {
        return vektool::fail("sms number", argv[0], "not an address field in hexadecimal");
    }
    VekStr num;
    VekStr_new(&num);
    vek_s32 used = GsmUtil_getNo(&num, addr.data(), smsc ? 1 : 0);
    if ((size_t)used > given) {
        VekStr_delete(&num);
        return vektool::fail("sms number", argv[0], "shorter than its length byte says");
    }
    if (smsc && addr[1] != GSM_TOA_ALPHA) {
        // Service-centre style: the length counts octets, the digits fill them.
        char digits[600];
        GsmUtil_decNo(digits, sizeof digits, addr.data(), 0);
        VekStr_setStr(&num, digits);
    }
    VekStr_appdChar(&num, '\n');
    vektool::write_out(VekStr_buf(&num), (size_t)VekStr_len(&num));
    VekStr_delete(&num);
    return vektool::kDone;
}

int sms_scts(int argc, char** argv) {
    bool enc = flag(argc, argv, "--enc");
    if (argc != 1) {
        return vektool::kUsage;
    }
    if (enc) {
        VekDt dt;
        VekDt_init(&dt);
        char tail = 0;
        if (std::sscanf(argv[0], "%d-%d-%d %d:%d:%d%c", &dt.year, &dt.month, &dt.day, &dt.hour, &dt.minute,
                        &dt.second, &tail) != 6 ||
            dt.year < 0 || dt.year > 2099) {
            return vektool::fail("sms scts", argv[0], "expected \"yyyy-MM-dd hh:mm:ss\"");
        }
        vek_u8 out[7];
        GsmUtil_encObsTime(out, &dt);
        put_hex_line(out, 7);
        return vektool::kDone;
    }
    std::vector<vek_u8> ts;
    size_t given = 0;
    if (!field_arg(argv[0], 7, ts, &given) || given != 7) {
        return vektool::fail("sms scts", argv[0], "not a 7-byte time stamp in hexadecimal");
    }
    VekDt dt;
    GsmUtil_decObsTime(&dt, ts.data());
    std::printf("%04d-%02d-%02d %02d:%02d:%02d", (int)dt.year, (int)dt.month, (int)dt.day, (int)dt.hour,
                (int)dt.minute, (int)dt.second);
    if (dt.zone != VEK_ZONE_UNKNOWN) {
        // The record holds the bias (UTC = local + zone); print the offset.
        int off = -(int)dt.zone;
        std::printf(" %c%02d:%02d", off < 0 ? '-' : '+', (off < 0 ? -off : off) / 60, (off < 0 ? -off : off) % 60);
    }
    std::printf("\n");
    return vektool::kDone;
}

const vektool::SubCommand kSms[] = {
    {"pack", "sms pack [--fill N] [FILE|-]", "pack septets (bytes below 0x80); the octets in hex", sms_pack},
    {"unpack", "sms unpack [--fill N] [--count N] [FILE|-]", "unpack octets given in hex; the septets as bytes",
     sms_unpack},
    {"number", "sms number [--smsc] HEX | --enc [--smsc] NUMBER",
     "decode an address field given in hex, or encode a number (--smsc: octet length)", sms_number},
    {"scts", "sms scts HEX | --enc \"yyyy-MM-dd hh:mm:ss\"", "decode a 7-byte time stamp given in hex, or encode one",
     sms_scts},
};

} // namespace

static const vektool::Command kSmsCmd = {"sms", "sms pack|unpack|number|scts ...",
                                         "short-message PDU fields: septets, addresses, time stamps", nullptr, kSms,
                                         sizeof kSms / sizeof kSms[0]};
VEKTOOL_COMMAND(kSmsCmd);
