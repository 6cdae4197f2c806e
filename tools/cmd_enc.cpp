/*
 * vektool b64, qp, hex and bcd: the byte codecs between standard input (or
 * a file) and standard output. Decoded output is written byte for byte.
 */
#include "CodecTool.h"

using namespace codectool;

namespace {

constexpr vek_s32 kB64Line = 76;
constexpr vek_s32 kQpLine = 76;

// Runs a codec on its input: the one optional argument FILE or "-".
int with_input(const char* what, int argc, char** argv, int (*body)(const std::string&, const char*)) {
    std::string in;
    if (argc > 1) {
        return vektool::kUsage;
    }
    if (!input(what, argc, argv, in)) {
        return vektool::kFailed;
    }
    return body(in, argc > 0 ? argv[0] : "-");
}

int b64_enc_body(const std::string& in, const char*) {
    VekStr s;
    VekStr_new(&s);
    b64_enc_cstr_from_buf(&s, (const vek_u8*)in.data(), (vek_s32)in.size());
    const char* p = VekStr_buf(&s);
    for (vek_s32 left = VekStr_len(&s); left > 0; left -= kB64Line, p += kB64Line) {
        vektool::write_out(p, (size_t)(left < kB64Line ? left : kB64Line));
        vektool::write_out("\n", 1);
    }
    VekStr_delete(&s);
    return vektool::kDone;
}

int b64_dec_body(const std::string& in, const char* path) {
    // Line ends are skipped by the decoder itself; other blanks are not
    // Base64 and would spoil their quartets.
    std::string text = no_space(in);
    std::vector<vek_u8> out(text.size() / 4 * 3 + 3);
    vek_s32 len = (vek_s32)text.size();
    vek_s32 n = b64_dec_str_to_bufx(text.data(), &len, out.data());
    vektool::binary_stdout();
    vektool::write_out(out.data(), (size_t)n);
    // Every quartet whole and valid: 3 bytes each, less the final pads.
    size_t pads = 0;
    while (pads < 2 && pads < text.size() && text[text.size() - 1 - pads] == '=') {
        pads++;
    }
    if (len != (vek_s32)text.size() || (size_t)n != text.size() / 4 * 3 - pads) {
        return vektool::fail("b64 dec", path, "not valid Base64 (bad or incomplete quartets skipped)");
    }
    return vektool::kDone;
}

// Writes a stream's bytes to standard output.
void put_strm(IStrm* s) {
    IStrm_seek(s, 0, 0);
    char buf[4096];
    for (vek_s32 n; (n = IStrm_read(s, buf, sizeof buf)) > 0;) {
        vektool::write_out(buf, (size_t)n);
    }
}

int qp_enc_body(const std::string& in, const char*) {
    IStrm* s = MemStrm_xcreatex__(nullptr, 0, __FILE__, __LINE__);
    qp_enc_strm_from_buf(s, (const vek_u8*)in.data(), (vek_s32)in.size(), kQpLine, 0);
    IStrm_write(s, "=\r\n", 3);  // a last soft break: a line end that decodes to nothing
    vektool::binary_stdout();
    put_strm(s);
    IStrm_release(s);
    return vektool::kDone;
}

int qp_dec_body(const std::string& in, const char*) {
    StrStrm src;
    IStrm* s = StrStrm_xcreate__(&src, in.data(), (vek_s32)in.size(), __FILE__, __LINE__);
    IStrm* d = MemStrm_xcreatex__(nullptr, 0, __FILE__, __LINE__);
    qp_dec_strm_to_strm(s, d);
    vektool::binary_stdout();
    put_strm(d);
    IStrm_release(d);
    IStrm_release(s);
    return vektool::kDone;
}

int hex_enc_body(const std::string& in, const char*) {
    put_hex_line((const vek_u8*)in.data(), in.size());
    return vektool::kDone;
}

int hex_dec_body(const std::string& in, const char* path) {
    std::vector<vek_u8> out;
    if (!from_hex(in, out)) {
        return vektool::fail("hex dec", path, "not an even number of hexadecimal digits");
    }
    vektool::binary_stdout();
    vektool::write_out(out.data(), out.size());
    return vektool::kDone;
}

int bcd_enc_body(const std::string& in, const char* path) {
    std::string digits = no_space(in);
    if (digits.find_first_not_of("0123456789") != std::string::npos) {
        return vektool::fail("bcd enc", path, "not a decimal digit");
    }
    std::vector<vek_u8> out(digits.size() / 2 + 1);
    vek_s32 n = bcd_enc_buf_from_str(out.data(), (vek_s32)out.size(), digits.c_str(), 1);
    vektool::binary_stdout();
    vektool::write_out(out.data(), (size_t)n);
    return vektool::kDone;
}

int bcd_dec_body(const std::string& in, const char*) {
    std::vector<char> out(2 * in.size() + 2);
    vek_s32 n = bcd_dec_buf_to_str((const vek_u8*)in.data(), (vek_s32)in.size(), out.data(), (vek_s32)out.size());
    out[(size_t)n] = '\n';
    vektool::write_out(out.data(), (size_t)n + 1);
    return vektool::kDone;
}

const vektool::SubCommand kB64[] = {
    {"enc", "b64 enc [FILE|-]", "Base64 of the bytes, in lines of 76",
     [](int argc, char** argv) { return with_input("b64 enc", argc, argv, b64_enc_body); }},
    {"dec", "b64 dec [FILE|-]", "the bytes of Base64 text (blanks and line ends skipped)",
     [](int argc, char** argv) { return with_input("b64 dec", argc, argv, b64_dec_body); }},
};
const vektool::SubCommand kQp[] = {
    {"enc", "qp enc [FILE|-]", "quoted-printable (every blank and line end encoded), lines of 76",
     [](int argc, char** argv) { return with_input("qp enc", argc, argv, qp_enc_body); }},
    {"dec", "qp dec [FILE|-]", "the bytes of quoted-printable text",
     [](int argc, char** argv) { return with_input("qp dec", argc, argv, qp_dec_body); }},
};
const vektool::SubCommand kHex[] = {
    {"enc", "hex enc [FILE|-]", "IRA hexadecimal (lower case) of the bytes",
     [](int argc, char** argv) { return with_input("hex enc", argc, argv, hex_enc_body); }},
    {"dec", "hex dec [FILE|-]", "the bytes of hexadecimal text (blanks and line ends skipped)",
     [](int argc, char** argv) { return with_input("hex dec", argc, argv, hex_dec_body); }},
};
const vektool::SubCommand kBcd[] = {
    {"enc", "bcd enc [FILE|-]", "pack decimal digits, first digit in the low nibble, F filler",
     [](int argc, char** argv) { return with_input("bcd enc", argc, argv, bcd_enc_body); }},
    {"dec", "bcd dec [FILE|-]", "the digits of packed BCD bytes (nibbles A-F skipped)",
     [](int argc, char** argv) { return with_input("bcd dec", argc, argv, bcd_dec_body); }},
};

} // namespace

#define CODEC_COMMAND(var, name, usage, summary, subs)                                              \
    static const vektool::Command var = {name, usage, summary, nullptr, subs, sizeof subs / sizeof subs[0]}; \
    VEKTOOL_COMMAND(var)

CODEC_COMMAND(kB64Cmd, "b64", "b64 enc|dec [FILE|-]", "Base64 (RFC 4648 alphabet)", kB64);
CODEC_COMMAND(kQpCmd, "qp", "qp enc|dec [FILE|-]", "quoted-printable", kQp);
CODEC_COMMAND(kHexCmd, "hex", "hex enc|dec [FILE|-]", "IRA hexadecimal, as modems exchange PDUs", kHex);
CODEC_COMMAND(kBcdCmd, "bcd", "bcd enc|dec [FILE|-]", "packed BCD semi-octets, as in GSM numbers", kBcd);
