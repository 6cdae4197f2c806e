/*
 * vektool sms: septet packing, address fields and service-centre time
 * stamps of short-message PDUs, in the hexadecimal form modems use.
 *
 * pack and unpack stream (any length in the same small memory). The field
 * commands check their field against 3GPP TS 23.040 before the library
 * reads it, and refuse what it would read wrong.
 */
#include <cstdio>
#include "AtSmsTool.h"
#include "CodecTool.h"

using namespace codectool;
using vektool::Args;
using vektool::kDone;
using vektool::kFailed;
using vektool::Reader;

namespace {

/* Hexadecimal text on standard output in pieces, then a line end. */
class HexOut {
  public:
    void put(const vek_u8* p, std::size_t n) {
        while (n) {
            std::size_t take = n < vektool::kChunk ? n : vektool::kChunk;
            text_.resize(2 * take + 2);
            vek_s32 len = ira_enc_buf_from_buf(text_.data(), (vek_s32)text_.size(), p, (vek_s32)take);
            vektool::write_out(text_.data(), (std::size_t)len);
            p += take;
            n -= take;
        }
    }
    void end() { vektool::write_out("\n", 1); }

  private:
    std::vector<char> text_;
};

/*
 * Septets in blocks of 8 (7 whole bytes each). With fill bits the last
 * byte of a block is shared with the next one: it is held back and OR-ed
 * into the next block's first byte, which the packer leaves clear.
 */
int sms_pack(const Args& a) {
    long long fill = 0;
    Reader in;
    if (!a.number("--fill", 0, 6, 0, fill) || !in.open(a.cmd, a.operand(0, "-"))) {
        return kFailed;
    }
    HexOut out;
    std::vector<vek_u8> bytes(vektool::kChunk + 8);
    vek_u8 carry = 0;
    bool held = false;
    long long offset = 0;
    bool ok = each_block(in, 8, [&](const char* p, std::size_t n, bool last) {
        for (std::size_t i = 0; i < n; i++) {
            if (p[i] & 0x80) {
                in.fail("byte " + std::to_string(offset + (long long)i) + " is above 0x7F, not a septet");
                return false;
            }
        }
        offset += (long long)n;
        vek_s32 len = n ? GsmUtil_enc7BitStr(bytes.data(), (vek_s32)bytes.size(), (const vek_u8*)p, (vek_s32)n,
                                             (vek_s32)fill)
                        : 0;
        if (held) {
            if (len) {
                bytes[0] |= carry;
            } else {
                bytes[len++] = carry;
            }
        }
        held = fill && !last && len;
        if (held) {
            carry = bytes[(std::size_t)--len];
        }
        out.put(bytes.data(), (std::size_t)len);
        return true;
    });
    out.end();
    return ok ? kDone : kFailed;
}

/*
 * Octets given in hex. With fill bits the bit stream is first shifted by
 * them, so that blocks of 7 bytes unpack on their own into 8 septets; the
 * count is then cut to the septets the input holds, (8 x bytes - fill) / 7,
 * as the library counts them.
 */
int sms_unpack(const Args& a) {
    long long fill = 0, count = -1;
    Reader in;
    if (!a.number("--fill", 0, 6, 0, fill) || !a.number("--count", 0, 1LL << 62, -1, count) ||
        !in.open(a.cmd, a.operand(0, "-"))) {
        return kFailed;
    }
    vektool::binary_stdout();
    int f = (int)fill;
    std::vector<vek_u8> bytes(vektool::kChunk / 2 + 2);
    std::vector<vek_u8> packed;  // shifted bytes not yet unpacked
    std::vector<vek_u8> septets(vektool::kChunk + 16);
    vek_u8 prev = 0;
    bool havePrev = false;
    long long total = 0, written = 0;
    auto unpack = [&](std::size_t n, long long limit) {
        vek_s32 got = GsmUtil_dec7BitStr(septets.data(), (vek_s32)septets.size(), packed.data(), (vek_s32)n, 0);
        long long room = limit - written;
        std::size_t put = got < room ? (std::size_t)got : (std::size_t)(room > 0 ? room : 0);
        vektool::write_out(septets.data(), put);
        written += (long long)put;
        packed.erase(packed.begin(), packed.begin() + (std::ptrdiff_t)n);
    };
    long long unlimited = count < 0 ? 1LL << 62 : count;
    bool ok = each_hex(in, [&](const char* digits, std::size_t n) {
        vek_s32 got = ira_dec_str_to_buf(digits, bytes.data(), (vek_s32)(n / 2 + 1));
        for (vek_s32 i = 0; i < got; i++) {
            if (!f) {
                packed.push_back(bytes[(std::size_t)i]);
            } else if (havePrev) {
                packed.push_back((vek_u8)((prev >> f) | (bytes[(std::size_t)i] << (8 - f))));
            }
            prev = bytes[(std::size_t)i];
            havePrev = true;
        }
        total += got;
        if (packed.size() >= 7 * 4096) {
            unpack(packed.size() / 7 * 7, unlimited);
        }
        return written < unlimited;
    });
    if (!ok && written >= unlimited) {
        return kDone;  // --count septets are out; the rest is not needed
    }
    if (f && havePrev) {
        packed.push_back((vek_u8)(prev >> f));
    }
    long long held = total * 8 - f > 0 ? (total * 8 - f) / 7 : 0;
    if (ok) {
        unpack(packed.size(), held < unlimited ? held : unlimited);
    }
    return ok ? kDone : kFailed;
}

/* ---- address fields ---- */

// Bytes given in hex on the command line; false when not whole bytes.
bool hex_arg(const char* text, std::vector<vek_u8>& out) {
    return from_hex(text, out);
}

// A septet string as UTF-8, through the GSM alphabet and its extension table.
std::string gsm_to_utf8(const vek_u8* septets, std::size_t n) {
    std::vector<vek_u16> units(n + 1);
    vek_s32 got = SmsAlph_from7BitStr(septets, (vek_s32)n, units.data(), (vek_s32)units.size());
    std::string text;
    for (vek_s32 i = 0; i < got; i++) {
        const vek_u8* b = (const vek_u8*)&units[(std::size_t)i];  // big-endian in memory
        char utf8[4];
        text.append(utf8, (std::size_t)wcs_char_to_utf8_char((vek_wchar)(b[0] << 8 | b[1]), utf8));
    }
    return text;
}

int sms_number_enc(const Args& a) {
    const char* num = a[0];
    bool smsc = a.flag("--smsc");
    std::string s = num;
    std::size_t digits = s.find_first_not_of("0123456789", s[0] == '+' ? 1 : 0);
    bool numeric = digits == std::string::npos;
    std::size_t count = s.size() - (s[0] == '+');
    std::string why;
    if (s.empty() || (numeric && count == 0)) {
        why = "a number needs digits";
    } else if (numeric && count > 20) {
        why = "an address holds at most 20 digits";
    } else if (!numeric && s[0] == '+') {
        why = "an international number is \"+\" and digits only";
    } else if (!numeric && s.size() > 11) {
        why = "an alphanumeric address holds at most 11 characters";
    } else if (!numeric) {
        // GsmUtil_encNo packs the text's bytes as septets as they stand: right
        // only for the characters whose GSM code is their ASCII code.
        for (unsigned char c : s) {
            if (c >= 0x80 || SmsAlph_toUcs2(c) != c) {
                why = std::string("\"") + (char)c +
                      "\" is not sent as itself (an alphanumeric address here takes letters, digits, space and "
                      "!\"#%&'()*+,-./:;<=>?)";
                break;
            }
        }
    }
    if (!why.empty()) {
        return vektool::fail(a.cmd, num, why);
    }
    vek_u8 out[32];
    vek_s32 n = GsmUtil_encNo(out, sizeof out, num, smsc ? 0 : 1);
    if (!numeric && !smsc) {
        // The semi-octets the septets use; twice the octets would read back
        // with one more septet ("@") when 7 characters fill 7 octets.
        out[0] = (vek_u8)((7 * s.size() + 3) / 4);
    }
    put_hex_line(out, (size_t)n);
    return kDone;
}

/*
 * The type of address is taken by its type of number (bits 4-6): any
 * international one gets the "+", any alphanumeric one is unpacked (the
 * library knows the values 0x91 and 0xD0 only) and cut to the septets its
 * length holds. Digits A-E and fillers before the end are refused: the
 * library would drop them.
 */
int sms_number_dec(const Args& a) {
    const char* text = a[0];
    bool smsc = a.flag("--smsc");
    std::vector<vek_u8> addr;
    if (!hex_arg(text, addr) || addr.size() < 2) {
        return vektool::fail(a.cmd, text, "not an address field in hexadecimal (length, type, digits)");
    }
    std::size_t len = addr[0];
    int toa = addr[1];
    int ton = (toa >> 4) & 7;
    if (!(toa & 0x80)) {
        return vektool::fail(a.cmd, text, "byte 1 is no type of address (its bit 7 is clear)");
    }
    bool alpha = ton == 5;
    std::size_t body = smsc ? (len ? len - 1 : 0) : (len + 1) / 2;
    if (smsc && !len) {
        return vektool::fail(a.cmd, text, "the length byte counts the type too, so it is at least 1");
    }
    if (addr.size() != 2 + body) {
        return vektool::fail(a.cmd, text,
                             addr.size() < 2 + body ? "shorter than its length byte says"
                                                    : "longer than its length byte says");
    }
    std::string out;
    if (alpha) {
        // The septets the field's bits hold: its length counts semi-octets,
        // or (service-centre style) octets with the type.
        std::size_t real = smsc ? body * 8 / 7 : len * 4 / 7;
        std::vector<vek_u8> septets(body * 8 / 7 + 2);
        vek_s32 n = GsmUtil_dec7BitStr(septets.data(), (vek_s32)septets.size(), addr.data() + 2, (vek_s32)body, 0);
        out = gsm_to_utf8(septets.data(), (std::size_t)n < real ? (std::size_t)n : real);
    } else {
        std::size_t digits = smsc ? 2 * body : len;
        for (std::size_t i = 0; i < 2 * body; i++) {
            int nib = i % 2 ? addr[2 + i / 2] >> 4 : addr[2 + i / 2] & 15;
            bool last = i + 1 == 2 * body;
            if (smsc && last && nib == 15) {
                digits--;
            } else if (i < digits && nib > 9) {
                return vektool::fail(a.cmd, text,
                                     "digit " + std::to_string(i + 1) + " is 0x" + "0123456789ABCDEF"[nib] +
                                         " (GsmUtil_decNo would drop it)");
            } else if (i >= digits && nib != 15) {
                return vektool::fail(a.cmd, text, "the filler after the last digit is not F");
            }
        }
        std::vector<vek_u8> field(addr);
        field[1] = ton == 1 ? GSM_TOA_INTL : GSM_TOA_NATIONAL;
        std::vector<char> buf(2 * body + 4);
        GsmUtil_decNo(buf.data(), (vek_s32)buf.size(), field.data(), smsc ? 0 : 1);
        out = buf.data();
    }
    out += '\n';
    vektool::write_out(out.data(), out.size());
    return kDone;
}

int sms_number(const Args& a) {
    return a.flag("--enc") ? sms_number_enc(a) : sms_number_dec(a);
}

/* ---- time stamps ---- */

bool valid_date(int y, int m, int d) {
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    return m >= 1 && m <= 12 && d >= 1 && d <= (m == 2 && leap ? 29 : kDays[m - 1]);
}

// Quarter hours of an offset as the zone byte writes them.
vek_u8 zone_byte(int minutes) {
    int q = (minutes < 0 ? -minutes : minutes) / 15;
    return (vek_u8)(((q % 10) << 4) | (q / 10) | (minutes < 0 ? 0x08 : 0));
}

int scts_enc(const Args& a) {
    const char* text = a[0];
    int y, mo, d, h, mi, s, n = 0;
    char sign = 0;
    int zh = 0, zm = 0, zn = 0;
    bool shape = std::sscanf(text, "%4d-%2d-%2d %2d:%2d:%2d%n", &y, &mo, &d, &h, &mi, &s, &n) == 6 && n == 19 &&
                 text[4] == '-' && text[13] == ':' && std::strspn(text, "0123456789-: ") >= 19;
    if (shape && text[n] && (std::sscanf(text + n, " %c%2d:%2d%n", &sign, &zh, &zm, &zn) != 3 ||
                             (sign != '+' && sign != '-') || text[n + zn] || zh < 0 || zm < 0 || zm > 59)) {
        shape = false;
    }
    std::string why;
    if (!shape) {
        why = "expected \"yyyy-MM-dd hh:mm:ss\", and a zone \" +hh:mm\" if any";
    } else if (y < 1981 || y > 2080) {
        why = "the stamp's two-digit year reads back as 1981-2080 only";
    } else if (!valid_date(y, mo, d) || h > 23 || mi > 59 || s > 59) {
        why = "not a date and time of the calendar";
    } else if ((zh * 60 + zm) % 15 || zh * 60 + zm > 14 * 60) {
        why = "the zone is whole quarter hours within 14:00";
    }
    if (!why.empty()) {
        return vektool::fail(a.cmd, text, why);
    }
    VekDt dt;
    VekDt_init(&dt);
    VekDt_set(&dt, y, mo, d, h, mi, s, 0, 0);
    vek_u8 out[7];
    GsmUtil_encObsTime(out, &dt);
    out[6] = zone_byte(sign == '-' ? -(zh * 60 + zm) : zh * 60 + zm);
    put_hex_line(out, 7);
    return kDone;
}

/*
 * The fields are checked as BCD and as a calendar date; the zone is read
 * from its byte here, whole quarter hours and all (the library drops a
 * quarter-hour remainder and reads a zero zone as none).
 */
int scts_dec(const Args& a) {
    const char* text = a[0];
    std::vector<vek_u8> ts;
    if (!hex_arg(text, ts) || ts.size() != 7) {
        return vektool::fail(a.cmd, text, "not a 7-byte time stamp in hexadecimal");
    }
    static const char* const kField[] = {"year", "month", "day", "hour", "minute", "second"};
    for (int i = 0; i < 6; i++) {
        if ((ts[(size_t)i] & 15) > 9 || (ts[(size_t)i] >> 4) > 9) {
            return vektool::fail(a.cmd, text, std::string("the ") + kField[i] + " is not two BCD digits");
        }
    }
    if ((ts[6] >> 4) > 9) {
        return vektool::fail(a.cmd, text, "the zone is not BCD quarter hours");
    }
    VekDt dt;
    GsmUtil_decObsTime(&dt, ts.data());
    int quarters = (ts[6] & 7) * 10 + (ts[6] >> 4);
    if (!valid_date(dt.year, dt.month, dt.day) || dt.hour > 23 || dt.minute > 59 || dt.second > 59) {
        return vektool::fail(a.cmd, text, "not a date and time of the calendar");
    }
    if (quarters > 56) {
        return vektool::fail(a.cmd, text, "a zone beyond 14:00");
    }
    int off = (ts[6] & 8) ? -quarters * 15 : quarters * 15;
    std::printf("%04d-%02d-%02d %02d:%02d:%02d %c%02d:%02d\n", (int)dt.year, (int)dt.month, (int)dt.day,
                (int)dt.hour, (int)dt.minute, (int)dt.second, off < 0 ? '-' : '+', quarters * 15 / 60,
                quarters * 15 % 60);
    return kDone;
}

int sms_scts(const Args& a) {
    return a.flag("--enc") ? scts_enc(a) : scts_dec(a);
}

const vektool::Option kFill[] = {
    {"--fill", nullptr, "N", "N (0-6) fill bits before the first septet"},
    {nullptr, nullptr, nullptr, nullptr},
};
const vektool::Option kUnpack[] = {
    {"--fill", nullptr, "N", "N (0-6) fill bits before the first septet"},
    {"--count", nullptr, "N", "at most N septets (the message's length)"},
    {nullptr, nullptr, nullptr, nullptr},
};
const vektool::Option kNumber[] = {
    {"--enc", nullptr, nullptr, "encode NUMBER"},
    {"--smsc", nullptr, nullptr, "service-centre style: the length counts octets"},
    {nullptr, nullptr, nullptr, nullptr},
};
const vektool::Option kScts[] = {
    {"--enc", nullptr, nullptr, "encode the date and time"},
    {nullptr, nullptr, nullptr, nullptr},
};

const vektool::Option kSendOptions[] = {
    ATSMS_PORT_OPTIONS,
    {"--ucs2", nullptr, nullptr, "send in UCS-2 even when the GSM alphabet would do"},
    {"--report", nullptr, nullptr, "ask for a status report"},
    {nullptr, nullptr, nullptr, nullptr},
};
const vektool::Option kListOptions[] = {
    ATSMS_PORT_OPTIONS,
    {"--delete", nullptr, nullptr, "delete the messages printed"},
    {"--json", nullptr, nullptr, "an array of objects: from, time, text, complete, index"},
    {nullptr, nullptr, nullptr, nullptr},
};
const vektool::Option kDecodeOptions[] = {
    {"--json", nullptr, nullptr, "one object: type, smsc, from or to, time, coding, text, ref/part/parts"},
    {nullptr, nullptr, nullptr, nullptr},
};

const vektool::SubCommand kSms[] = {
    {"pack", "sms pack [--fill N] [FILE|-]", "pack septets (bytes below 0x80); the octets in hex", sms_pack, 0, 1,
     kFill},
    {"unpack", "sms unpack [--fill N] [--count N] [FILE|-]", "unpack octets given in hex; the septets as bytes",
     sms_unpack, 0, 1, kUnpack},
    {"number", "sms number [--smsc] HEX | --enc [--smsc] NUMBER",
     "decode an address field given in hex, or encode a number (--smsc: octet length)", sms_number, 1, 1, kNumber,
     "fields checked (TS 23.040); alphanumeric shown as UTF-8 (GsmUtil_decNo)\n"
     "Fields are checked first: length against the bytes, digits 0-9 with F only as the filler;\n"
     "alphanumeric text is cut to the septets its length holds and shown as UTF-8 through the GSM\n"
     "alphabet; any international or alphanumeric type of number counts (GsmUtil_decNo knows 0x91\n"
     "and 0xD0 only). --enc takes at most 20 digits, or 11 characters that GsmUtil_encNo sends as\n"
     "themselves (it packs the text's bytes unconverted); an alphanumeric length counts the semi-octets\n"
     "its septets use (GsmUtil_encNo counts its octets twice)."},
    {"scts", "sms scts HEX | --enc \"yyyy-MM-dd hh:mm:ss[ +hh:mm]\"",
     "decode a 7-byte time stamp given in hex, or encode one", sms_scts, 1, 1, kScts,
     "BCD and calendar checked; zone in quarter hours (GsmUtil_decObsTime)\n"
     "Non-BCD digits and dates off the calendar are refused; the zone is shown in whole quarter\n"
     "hours and \"+00:00\" for UTC (GsmUtil_decObsTime drops quarter hours and reads 00 as no zone).\n"
     "--enc takes the years 1981-2080, which the two-digit year reads back as, and writes the zone\n"
     "given (GsmUtil_encObsTime writes 00, UTC)."},
    {"send", "sms send [--baud N] [--timeout MS] [--ucs2] [--report] PORT NUMBER TEXT",
     "send TEXT (UTF-8) in PDU mode, split as needed; one message reference per line", atsms::sms_send, 3, 3,
     kSendOptions,
     "PORT is a device path (/dev/ttyUSB0, COM3) or tcp:HOST:PORT. GSM 7-bit when the text allows,\n"
     "else UCS-2; a long text goes as concatenated parts (at most 255). Exit 1 when the modem refused\n"
     "a part (+CMS ERROR on stderr), 2 on a time-out, a port or a usage error. Before sending, the\n"
     "modem is brought to a known state: ATE1V1/ATE0 drain stale output, AT+CMEE=1, AT+CPIN? asked\n"
     "again while the SIM answers busy (up to 30 s), AT+CMGF=0."},
    {"list", "sms list [--baud N] [--timeout MS] [--delete] [--json] PORT",
     "every stored message (AT+CMGL=4), parts joined: sender, time (ISO 8601), text", atsms::sms_list, 1, 1,
     kListOptions,
     "Parts of one message are joined whatever their order; a missing part shows as U+2026 and\n"
     "complete is false. index lists the storage indexes of the parts. --delete deletes (AT+CMGD)\n"
     "what was printed, after printing it. The modem is first brought to a known state as for send."},
    {"decode", "sms decode [--json] PDU", "decode one PDU (hex, with its service-centre field) offline",
     atsms::sms_decode, 1, 1, kDecodeOptions},
};

} // namespace

static const vektool::Command kSmsCmd = {"sms", "sms pack|unpack|number|scts|send|list|decode ...",
                                         "short messages: PDU fields, decoding, sending and listing through a modem", kSms,
                                         sizeof kSms / sizeof kSms[0]};
VEKTOOL_COMMAND(kSmsCmd);
