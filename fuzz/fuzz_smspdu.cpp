/*
 * The SMS PDU decoder on any hex text: it never reads outside the PDU, and
 * what it accepts is consistent (the text is terminated at its length, a
 * part lies within its total). A text it decodes from a 7-bit or UCS-2
 * message encodes again without an error.
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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    // Hex from the bytes, so most inputs get past the first checks.
    std::string hex;
    static const char* kHex = "0123456789ABCDEF";
    for (size_t i = 1; i < size; i++) {
        hex += kHex[data[i] >> 4];
        hex += kHex[data[i] & 15];
    }
    SmsMsg m;
    if (SmsPdu_dec(&m, hex.c_str(), (vek_s32)hex.size(), data[0] & 1) != 0) {
        return 0;
    }
    check(m.type >= SMS_DELIVER && m.type <= SMS_STATUS_REPORT);
    check(m.textLen >= 0 && (size_t)m.textLen < sizeof m.text && m.text[m.textLen] == 0);
    check(std::strlen(m.text) == (size_t)m.textLen);
    check(m.dataLen >= 0 && m.dataLen <= 160);
    check(m.ref == -1 || (m.seq >= 1 && m.seq <= m.total && m.total <= 255));
    check(std::strlen(m.addr) < sizeof m.addr && std::strlen(m.smsc) < sizeof m.smsc);
    if (m.type != SMS_STATUS_REPORT && m.coding != SMS_CODING_8BIT) {
        static SmsPart parts[8];
        vek_s32 n = SmsPdu_encSubmit(parts, 8, "+123", m.text, m.textLen, nullptr);
        check(n >= 1 || n == VEK_ERR_FULL);
    }
    return 0;
}
