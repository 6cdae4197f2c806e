/*
 * Every decoder of the byte codecs, the SMS fields, mail header lines and
 * CSV records on any bytes: bounds are kept (the sanitizer legs watch the
 * buffers, sized exactly), and the codecs that have an encoder give back
 * what they were given.
 */
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include "BaseLib.h"

namespace {

// Names the failing line before the driver saves the input.
#define check(x) check_at((x), __LINE__)
void check_at(bool ok, int line) {
    if (!ok) {
        std::fprintf(stderr, "check failed at line %d\n", line);
        std::abort();
    }
}

std::string strm_bytes(IStrm* s) {
    std::string out;
    IStrm_seek(s, 0, 0);
    char buf[256];
    for (vek_s32 n; (n = IStrm_read(s, buf, sizeof buf)) > 0;) {
        out.append(buf, (size_t)n);
    }
    return out;
}

IStrm* mem_with(const std::string& bytes) {
    IStrm* s = MemStrm_xcreatex__(nullptr, 0, __FILE__, __LINE__);
    if (!bytes.empty()) {
        IStrm_write(s, bytes.data(), (vek_s32)bytes.size());
    }
    IStrm_seek(s, 0, 0);
    return s;
}

void base64(const std::string& in, const char* s, vek_s32 len) {
    std::vector<vek_u8> out((size_t)len + 3);
    vek_s32 size = (vek_s32)(in.size() % 17);
    vek_s32 n = b64_dec_str_to_buf(s, out.data(), size);
    check(n >= 0 && (n == 0 || n + 0 < size + 3));
    vek_s32 left = len;
    b64_dec_str_to_bufx(in.data(), &left, out.data());
    check(left >= len - 3 && left <= len);
    // Any bytes encode and decode back, through both decoders.
    VekStr enc;
    VekStr_new(&enc);
    b64_enc_cstr_from_buf(&enc, (const vek_u8*)in.data(), len);
    std::vector<vek_u8> back((size_t)len + 4);
    check(b64_dec_str_to_buf(VekStr_buf(&enc), back.data(), len + 4) == len);
    check(std::memcmp(back.data(), in.data(), in.size()) == 0);
    std::vector<char> buf((size_t)VekStr_len(&enc) + 1);
    check(b64_enc_buf_from_buf(buf.data(), (vek_s32)buf.size(), (const vek_u8*)in.data(), len) == VekStr_len(&enc));
    VekStr_delete(&enc);
}

void quoted_printable(const std::string& in, vek_s32 len) {
    // The buffer decoder runs on past a terminator, as callers allow for:
    // give it the padding its output limit can reach.
    vek_s32 size = len + 1 < 64 ? len + 1 : 64;
    std::string padded = in + std::string((size_t)size + 3, '\0');
    std::vector<char> out((size_t)size);
    vek_s32 n = qp_dec_str_to_buf(padded.c_str(), out.data(), size);
    check(n >= 0 && n < size && out[(size_t)n] == 0);
    IStrm* src = mem_with(in);
    IStrm* dst = mem_with("");
    qp_dec_strm_to_strm(src, dst);
    // Encoded with and without soft breaks, any bytes come back.
    IStrm_clear(dst);
    qp_enc_strm_from_buf(dst, (const vek_u8*)in.data(), len, (vek_s32)(in.size() % 80), -1);
    std::string enc = strm_bytes(dst);
    IStrm* dec = mem_with("");
    IStrm_seek(dst, 0, 0);
    check(qp_dec_strm_to_strm(dst, dec) == len && strm_bytes(dec) == in);
    std::vector<char> exact((size_t)len + 1);
    check(qp_dec_str_to_buf(enc.c_str(), exact.data(), len + 1) == len);
    check(std::memcmp(exact.data(), in.data(), in.size()) == 0);
    IStrm_release(dec);
    IStrm_release(src);
    IStrm_release(dst);
}

void ira_hex(const std::string& in, const char* s, vek_s32 len) {
    std::vector<vek_u8> out((size_t)len / 2 + 1);
    check(ira_dec_str_to_buf(s, out.data(), (vek_s32)out.size()) <= (vek_s32)out.size() - 1);
    std::vector<char> str((size_t)len / 2 + 1);
    ira_dec_str_to_str(s, str.data(), (vek_s32)str.size());
    IStrm* src = mem_with(in);
    IStrm* dst = mem_with("");
    ira_dec_str_to_strm(s, dst);
    ira_dec_strm_to_strm(src, dst);
    check(IStrm_tell(src) == 0);
    std::vector<char> enc(2 * (size_t)len + 1);
    check(ira_enc_buf_from_buf(enc.data(), (vek_s32)enc.size(), (const vek_u8*)in.data(), len) == 2 * len);
    std::vector<vek_u8> back((size_t)len + 1);
    check(ira_dec_str_to_buf(enc.data(), back.data(), len + 1) == len);
    check(std::memcmp(back.data(), s, (size_t)len) == 0);
    IStrm_release(src);
    IStrm_release(dst);
}

void bcd(const std::string& in, vek_s32 len) {
    std::vector<char> out(2 * (size_t)len + 1);
    vek_s32 n = bcd_dec_buf_to_str((const vek_u8*)in.data(), len, out.data(), (vek_s32)out.size());
    check(n >= 0 && n <= 2 * len && out[(size_t)n] == 0);
    VekStr s;
    VekStr_new(&s);
    bcd_dec_buf_to_cstr(&s, (const vek_u8*)in.data(), len);
    check(VekStr_len(&s) == n);
    // Digit texts pack and unpack back.
    std::vector<vek_u8> packed((size_t)n / 2 + 1);
    vek_s32 b = bcd_enc_buf_from_str(packed.data(), (vek_s32)packed.size(), VekStr_buf(&s), 1);
    check(bcd_dec_buf_to_str(packed.data(), b, out.data(), (vek_s32)out.size()) == n);
    check(std::strcmp(out.data(), VekStr_buf(&s)) == 0);
    VekStr_delete(&s);
}

void septets(const std::string& in, vek_s32 len) {
    vek_s32 fill = len > 0 ? (vek_u8)in[0] % 7 : 0;
    std::vector<vek_u8> out(((size_t)len * 8) / 7 + 2);
    vek_s32 n = GsmUtil_dec7BitStr(out.data(), (vek_s32)out.size(), (const vek_u8*)in.data(), len, fill);
    check(n == (8 * len - fill) / 7 || len == 0);
    VekStr s;
    VekStr_new(&s);
    check(GsmUtil_dec7BitCstr(&s, (const vek_u8*)in.data(), len, fill) == n);
    check(std::memcmp(VekStr_buf(&s), out.data(), (size_t)n) == 0);
    VekStr_delete(&s);
    // Septets pack and unpack back.
    std::vector<vek_u8> packed((size_t)len + 2);
    vek_s32 p = GsmUtil_enc7BitStr(packed.data(), (vek_s32)packed.size(), out.data(), n, fill);
    std::vector<vek_u8> again((size_t)n + 2);
    check(GsmUtil_dec7BitStr(again.data(), n + 1, packed.data(), p, fill) >= (n > 0 ? n : 0) - 0);
    check(std::memcmp(again.data(), out.data(), (size_t)n) == 0);
    // The alphabet: septets to UCS-2 and back are the same septets.
    std::vector<vek_u16> ucs((size_t)n + 1);
    vek_s32 u = SmsAlph_from7BitStr(out.data(), n, ucs.data(), n + 1);
    std::vector<vek_u8> sep((size_t)n + 1);
    check(SmsAlph_to7BitStr(ucs.data(), u, sep.data(), n + 1) == n);
    check(std::memcmp(sep.data(), out.data(), (size_t)n) == 0);
    vek_s32 count = 0;
    SmsAlph_is7BitStr(ucs.data(), u, &count);
    vek_s32 raw = len / 2;
    std::vector<vek_u16> units((size_t)raw + 1);
    std::memcpy(units.data(), in.data(), 2 * (size_t)raw);
    std::vector<vek_u8> seps(2 * (size_t)raw + 1);
    SmsAlph_to7BitStr(units.data(), raw, seps.data(), (vek_s32)seps.size());
    SmsAlph_is7BitStr(units.data(), raw, &count);
}

void sms_fields(const std::string& in, const char* s) {
    // An address field reaches at most 2 + 128 bytes.
    std::string field = in + std::string(260, '\0');
    const vek_u8* addr = (const vek_u8*)field.data();
    char num[300];
    for (vek_s32 digitLen = 0; digitLen < 2; digitLen++) {
        GsmUtil_decNo(num, sizeof num, addr, digitLen);
        check(std::strlen(num) < sizeof num);
        GsmUtil_decNo(num, 7, addr, digitLen);
        check(std::strlen(num) < 7);
    }
    VekStr str;
    VekStr_new(&str);
    check(GsmUtil_getNo(&str, addr, 1) >= 2 || addr[0] == 0);
    GsmUtil_getNo(&str, addr, 0);
    VekStr_delete(&str);
    VekDt dt;
    GsmUtil_decObsTime(&dt, addr);
    check(dt.zone == VEK_ZONE_UNKNOWN || (dt.zone % 60 == 0 && dt.zone >= -1260 && dt.zone <= 1260));
    GsmUtil_decTxtTime(&dt, s);
    // A number's text encodes within its bound.
    vek_u8 enc[140];
    std::string number = std::string(s).substr(0, 40);
    vek_s32 n = GsmUtil_encNo(enc, sizeof enc, number.c_str(), 1);
    check(n >= 2 && n <= (vek_s32)sizeof enc);
}

void mime(const char* s, vek_s32 len) {
    VekStr name, value;
    VekStr_new(&name);
    VekStr_new(&value);
    mhdr_str_dec(s, &name, &value);
    mhdr_strx_dec(s, len, &name, &value);
    mhdr_str_chk(s, "Content-Type", &value);
    mhdr_strx_chk(s, len, "X", &value);
    StrStrm mem;
    IStrm* strm = StrStrm_xcreate__(&mem, s, len, __FILE__, __LINE__);
    char buf[16];
    if (mhdr_get_to_buf(strm, "Subject:", buf, sizeof buf)) {
        check(std::strlen(buf) < sizeof buf);
    }
    mhdr_find_only(strm, "a");
    IStrm_release(strm);
    VekStr_delete(&name);
    VekStr_delete(&value);
}

void csv(const char* s) {
    const char* pos = nullptr;
    CsvField* fields = nullptr;
    const char* next = nullptr;
    while (CsvUtil_read(s, pos, &next, &fields, ',')) {
        check(fields && next > (pos ? pos : s) && next <= s + std::strlen(s));
        VekStr enc;
        VekStr_new(&enc);
        for (CsvField* f = fields; f; f = f->next) {
            CsvUtil_encode(f->text, &enc);
        }
        VekStr_delete(&enc);
        SmpList_delete(fields, vek_free__);
        pos = next;
    }
    check(!fields);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string in((const char*)data, size);
    const char* s = in.c_str();  // terminated at the first NUL or the end
    vek_s32 len = (vek_s32)size;
    vek_s32 slen = (vek_s32)std::strlen(s);
    base64(in, s, len);
    quoted_printable(in, len);
    ira_hex(in, s, slen);
    bcd(in, len);
    septets(in, len);
    sms_fields(in, s);
    mime(s, len);
    csv(s);
    return 0;
}
