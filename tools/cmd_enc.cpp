/*
 * vektool b64, qp, hex and bcd: the byte codecs between standard input (or
 * a file) and standard output, in pieces, so that any size runs in the
 * same small memory. Decoded output is written byte for byte.
 */
#include <climits>
#include "CodecTool.h"

using namespace codectool;
using vektool::Args;
using vektool::kDone;
using vektool::kFailed;
using vektool::Reader;

namespace {

/* ---- Base64 ---- */

// Text in lines of cols characters (0: one line without an end), as
// base64 writes them.
class Lines {
  public:
    explicit Lines(long long cols) : cols_(cols) {}
    void put(const char* p, std::size_t n) {
        if (!cols_) {
            out_.put(p, n);
            return;
        }
        while (n) {
            std::size_t take = (std::size_t)(cols_ - col_) < n ? (std::size_t)(cols_ - col_) : n;
            out_.put(p, take);
            p += take;
            n -= take;
            col_ += (long long)take;
            if (col_ == cols_) {
                out_.put('\n');
                col_ = 0;
            }
        }
    }
    void end() {
        if (cols_ && col_) {
            out_.put('\n');
        }
        out_.flush();
    }

  private:
    Staged out_;
    long long cols_;
    long long col_ = 0;
};

int b64_enc(const Args& a) {
    long long cols = 76;
    Reader in;
    if (!a.number("--wrap", 0, INT_MAX, 76, cols) || !in.open(a.cmd, a.operand(0, "-"))) {
        return kFailed;
    }
    Lines out(cols);
    std::vector<char> text(vektool::kChunk / 3 * 4 + 8);
    bool ok = each_block(in, 3, [&](const char* p, std::size_t n, bool) {
        vek_s32 len = n ? b64_enc_buf_from_buf(text.data(), (vek_s32)text.size(), (const vek_u8*)p, (vek_s32)n) : 0;
        out.put(text.data(), (std::size_t)len);
        return true;
    });
    out.end();
    return ok ? kDone : kFailed;
}

// What a byte is in Base64 text.
enum : vek_u8 { kAlpha, kBlank, kPad, kBad };

struct B64Kinds {
    vek_u8 k[256];
    B64Kinds() {
        std::memset(k, kBad, sizeof k);
        for (const char* p = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"; *p; p++) {
            k[(vek_u8)*p] = kAlpha;
        }
        for (const char* p = " \t\r\n"; *p; p++) {
            k[(vek_u8)*p] = kBlank;
        }
        k[(vek_u8)'='] = kPad;
    }
};

/*
 * The library decodes any quartet it can and skips the rest without a
 * word; here every quartet is checked first (alphabet, "=" only as the
 * last one or two characters of a quartet), so that bad input stops with
 * exit 2 after the bytes before it, as base64 -d does.
 */
int b64_dec(const Args& a) {
    static const B64Kinds kinds;
    Reader in;
    if (!in.open(a.cmd, a.operand(0, "-"))) {
        return kFailed;
    }
    vektool::binary_stdout();
    std::vector<char> text(vektool::kChunk + 4);
    std::vector<vek_u8> bytes(vektool::kChunk / 4 * 3 + 4);
    std::size_t have = 0;  // checked characters; fewer than 4 between pieces
    bool padded = false;   // the quartet's previous character was "="
    long long offset = 0;
    std::string bad;
    auto decode = [&]() {
        vek_s32 whole = (vek_s32)(have / 4 * 4);
        vek_s32 n = b64_dec_str_to_bufx(text.data(), &whole, bytes.data());
        vektool::write_out(bytes.data(), (std::size_t)n);
        std::memmove(text.data(), text.data() + have / 4 * 4, have % 4);
        have %= 4;
    };
    bool ok = vektool::each_chunk(in, [&](const char* p, std::size_t n) {
        for (std::size_t i = 0; i < n; i++) {
            char c = p[i];
            vek_u8 k = kinds.k[(vek_u8)c];
            if (k == kAlpha && !padded) {
                text[have++] = c;
                continue;
            }
            if (k == kBlank) {
                continue;
            }
            std::size_t q = have % 4;
            if (k == kPad && (q == 3 || (q == 2 && !padded))) {
                text[have++] = c;
                padded = q == 2;
                continue;
            }
            bad = "byte " + std::to_string(offset + (long long)i) +
                  (k == kBad ? " is not a Base64 character" : " breaks its quartet (\"=\" pads only the end of one)");
            decode();
            return false;
        }
        offset += (long long)n;
        decode();
        return true;
    });
    if (!bad.empty()) {
        return in.fail("not valid Base64: " + bad);
    }
    if (ok && have) {
        return in.fail("not valid Base64: the text ends inside a quartet (" + std::to_string(4 - have) +
                       " characters missing)");
    }
    return ok ? kDone : kFailed;
}

/* ---- quoted-printable ---- */

// Lines of the encoder's output end in "=" within this many characters.
constexpr vek_s32 kQpLine = 76;

int qp_enc(const Args& a) {
    Reader in;
    if (!in.open(a.cmd, a.operand(0, "-"))) {
        return kFailed;
    }
    vektool::binary_stdout();
    // The library breaks a line when the next unit would pass lineLen and
    // then adds the "=": one less keeps every line within 76 in all.
    bool ok = vektool::each_chunk(in, [&](const char* p, std::size_t n) {
        qp_enc_strm_from_buf(vektool::stdout_strm(), (const vek_u8*)p, (vek_s32)n, kQpLine - 1,
                             (vek_s32)vektool::stdout_column());
        return true;
    });
    vektool::write_out("=\r\n", 3);  // a last soft break: a line end that decodes to nothing
    return ok ? kDone : kFailed;
}

/*
 * The library takes only "=" CR LF for a soft line break; "=" LF, the
 * break of a text with LF line ends, is taken out here, and so is an "="
 * (or "=" CR) that ends the text. Escapes are never split between the
 * pieces handed to the library.
 */
int qp_dec(const Args& a) {
    Reader in;
    if (!in.open(a.cmd, a.operand(0, "-"))) {
        return kFailed;
    }
    vektool::binary_stdout();
    std::vector<char> text(vektool::kChunk + 4);
    std::size_t keep = 0;  // an escape cut by the end of the last piece
    auto pass = [&](std::size_t n) {
        if (n) {
            StrStrm src;
            IStrm* s = StrStrm_xcreate__(&src, text.data(), (vek_s32)n, __FILE__, __LINE__);
            qp_dec_strm_to_strm(s, vektool::stdout_strm());
            IStrm_release(s);
        }
    };
    bool ok = vektool::each_chunk(in, [&](const char* p, std::size_t n) {
        std::memcpy(text.data() + keep, p, n);
        std::size_t len = keep + n, out = 0, i = 0;
        keep = 0;
        while (i < len) {  // out < i once a soft break was taken out
            std::size_t at = i;  // escapes are dense: a plain loop, not memchr
            while (at < len && text[at] != '=') {
                at++;
            }
            bool eq = at < len;
            if (out < i) {
                std::memmove(text.data() + out, text.data() + i, at - i);
            }
            out += at - i;
            i = at;
            if (!eq) {
                break;
            }
            if (at + 1 < len && text[at + 1] == '\n') {
                i += 2;  // "=" LF: a soft break
                continue;
            }
            if (at + 2 >= len) {
                keep = len - at;  // "=", "=X": the rest comes with the next piece
                break;
            }
            if (out < i) {
                std::memmove(text.data() + out, text.data() + at, 3);
            }
            out += 3;
            i += 3;
        }
        pass(out);
        std::memmove(text.data(), text.data() + len - keep, keep);
        return true;
    });
    if (ok && keep > 1 && text[1] != '\r') {
        pass(keep);  // "=X" at the very end: the library writes it as it stands
    }
    return ok ? kDone : kFailed;
}

/* ---- IRA hexadecimal ---- */

int hex_enc(const Args& a) {
    Reader in;
    if (!in.open(a.cmd, a.operand(0, "-"))) {
        return kFailed;
    }
    std::vector<char> text(2 * vektool::kChunk + 2);
    bool ok = vektool::each_chunk(in, [&](const char* p, std::size_t n) {
        vek_s32 len = ira_enc_buf_from_buf(text.data(), (vek_s32)text.size(), (const vek_u8*)p, (vek_s32)n);
        vektool::write_out(text.data(), (std::size_t)len);
        return true;
    });
    vektool::write_out("\n", 1);
    return ok ? kDone : kFailed;
}

int hex_dec(const Args& a) {
    Reader in;
    if (!in.open(a.cmd, a.operand(0, "-"))) {
        return kFailed;
    }
    vektool::binary_stdout();
    std::vector<vek_u8> bytes(vektool::kChunk / 2 + 2);
    bool ok = each_hex(in, [&](const char* digits, std::size_t n) {
        vek_s32 got = ira_dec_str_to_buf(digits, bytes.data(), (vek_s32)(n / 2 + 1));
        vektool::write_out(bytes.data(), (std::size_t)got);
        return true;
    });
    return ok ? kDone : kFailed;
}

/* ---- BCD ---- */

int bcd_enc(const Args& a) {
    Reader in;
    if (!in.open(a.cmd, a.operand(0, "-"))) {
        return kFailed;
    }
    vektool::binary_stdout();
    std::vector<char> digits(vektool::kChunk + 2);
    std::vector<vek_u8> bytes(vektool::kChunk / 2 + 2);
    std::size_t have = 0;
    long long offset = 0;
    auto pack = [&](std::size_t n) {
        char keep = digits[n];
        digits[n] = 0;
        vek_s32 len = bcd_enc_buf_from_str(bytes.data(), (vek_s32)bytes.size(), digits.data(), 1);
        vektool::write_out(bytes.data(), (std::size_t)len);
        digits[0] = keep;
        have -= n;
    };
    bool ok = vektool::each_chunk(in, [&](const char* p, std::size_t n) {
        for (std::size_t i = 0; i < n; i++) {
            if (p[i] >= '0' && p[i] <= '9') {
                digits[have++] = p[i];
            } else if (!is_blank(p[i])) {
                in.fail("byte " + std::to_string(offset + (long long)i) + " is not a decimal digit");
                return false;
            }
        }
        offset += (long long)n;
        pack(have & ~(std::size_t)1);
        return true;
    });
    if (ok && have) {
        pack(have);  // the odd last digit, with the F filler
    }
    return ok ? kDone : kFailed;
}

/*
 * The library skips nibbles above 9 wherever they stand; only the F that
 * fills the last byte of an odd count is a filler, so any other is bad
 * input here.
 */
int bcd_dec(const Args& a) {
    Reader in;
    if (!in.open(a.cmd, a.operand(0, "-"))) {
        return kFailed;
    }
    std::vector<char> digits(2 * vektool::kChunk + 2);
    long long offset = 0;
    bool filled = false;  // the last byte read ended in the F filler
    bool ok = vektool::each_chunk(in, [&](const char* p, std::size_t n) {
        for (std::size_t i = 0; i < n; i++) {
            vek_u8 b = (vek_u8)p[i];
            if (filled || (b & 15) > 9 || ((b >> 4) > 9 && (b >> 4) != 15)) {
                in.fail("byte " + std::to_string(offset + (long long)i - (filled ? 1 : 0)) +
                        " is not two BCD digits (F fills only the last byte)");
                return false;
            }
            filled = (b >> 4) == 15;
        }
        offset += (long long)n;
        vek_s32 len = bcd_dec_buf_to_str((const vek_u8*)p, (vek_s32)n, digits.data(), (vek_s32)digits.size());
        vektool::write_out(digits.data(), (std::size_t)len);
        return true;
    });
    vektool::write_out("\n", 1);
    return ok ? kDone : kFailed;
}

const vektool::Option kWrapOption[] = {
    {"--wrap", "-w", "COLS", "lines of COLS characters (default 76); 0: one line, no line end"},
    {nullptr, nullptr, nullptr, nullptr},
};

const vektool::SubCommand kB64[] = {
    {"enc", "b64 enc [-w COLS] [FILE|-]", "Base64 of the bytes, in lines of 76", b64_enc, 0, 1, kWrapOption,
     "lines of -w COLS as base64 writes them (b64_enc_buf_from_buf writes none)\n"
     "b64_enc_buf_from_buf encodes; b64_enc_strm_from_strm would fold the lines with CR LF TAB."},
    {"dec", "b64 dec [FILE|-]", "the bytes of Base64 text (blanks and line ends skipped)", b64_dec, 0, 1, nullptr,
     "bad Base64 is refused (b64_dec_str_to_bufx skips bad quartets unsaid)\n"
     "A character outside the alphabet, an \"=\" other than at the end of a quartet and a last quartet\n"
     "left incomplete stop the command with exit 2 after the bytes before them, as base64 -d does."},
};
const vektool::SubCommand kQp[] = {
    {"enc", "qp enc [FILE|-]", "quoted-printable (every blank and line end encoded), lines within 76", qp_enc, 0, 1,
     nullptr,
     "lines within 76 with their \"=\" (qp_enc_strm_from_buf is given 75)\n"
     "Its own limit leaves the \"=\" of a soft break out. The text ends in a soft break \"=\" CR LF."},
    {"dec", "qp dec [FILE|-]", "the bytes of quoted-printable text", qp_dec, 0, 1, nullptr,
     "\"=\" LF is a soft break too (qp_dec_strm_to_strm knows \"=\" CR LF only)\n"
     "as RFC 2045 decoders read text with LF line ends; an \"=\" that ends the text is dropped too."},
};
const vektool::SubCommand kHex[] = {
    {"enc", "hex enc [FILE|-]", "IRA hexadecimal (lower case) of the bytes, one line", hex_enc, 0, 1},
    {"dec", "hex dec [FILE|-]", "the bytes of hexadecimal text (blanks and line ends skipped)", hex_dec, 0, 1,
     nullptr,
     "non-hexadecimal characters and odd counts are refused (ira_dec_str_to_buf)\n"
     "ira_dec_str_to_buf, which decodes, turns a bad pair into the value of its leading digits."},
};
const vektool::SubCommand kBcd[] = {
    {"enc", "bcd enc [FILE|-]", "pack decimal digits, first digit in the low nibble, F filler", bcd_enc, 0, 1},
    {"dec", "bcd dec [FILE|-]", "the digits of packed BCD bytes", bcd_dec, 0, 1, nullptr,
     "nibbles A-E and early F fillers are refused (bcd_dec_buf_to_str skips them)\n"
     "F fills only the high nibble of the last byte."},
};

} // namespace

#define CODEC_COMMAND(var, name, usage, summary, subs)                                              \
    static const vektool::Command var = {name, usage, summary, subs, sizeof subs / sizeof subs[0]}; \
    VEKTOOL_COMMAND(var)

CODEC_COMMAND(kB64Cmd, "b64", "b64 enc|dec [FILE|-]", "Base64 (RFC 4648 alphabet)", kB64);
CODEC_COMMAND(kQpCmd, "qp", "qp enc|dec [FILE|-]", "quoted-printable", kQp);
CODEC_COMMAND(kHexCmd, "hex", "hex enc|dec [FILE|-]", "IRA hexadecimal, as modems exchange PDUs", kHex);
CODEC_COMMAND(kBcdCmd, "bcd", "bcd enc|dec [FILE|-]", "packed BCD semi-octets, as in GSM numbers", kBcd);
