/*
 * The generic event's packet decoder fed damaged packets: the raw input as
 * a packet, and a well-formed packet built from the input's first bytes
 * with the rest of the input written over it. Either way the decoder must
 * return an event without reading past the packet, and an event it
 * returns must encode again to a packet that decodes to the same fields.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include "BaseLib.h"

namespace {

std::string text_of(const VekStr* s) {
    return std::string(VekStr_buf(s), (size_t)VekStr_len(s));
}

std::string strm_of(IStrm* s) {
    std::string out;
    if (!s) {
        return out;
    }
    IStrm_seek(s, 0, 0);
    char buf[256];
    for (vek_s32 n; (n = IStrm_read(s, buf, sizeof buf)) > 0;) {
        out.append(buf, (size_t)n);
    }
    return out;
}

// The packet is copied to a block of exactly its length, so that a read
// past it is seen by the sanitizers.
GenEvt* decode(const uint8_t* data, size_t len) {
    void* copy = std::calloc(len ? len : 1, 1);
    if (len) {
        std::memcpy(copy, data, len);
    }
    GenEvt* e = GenEvt_dec(copy, (vek_u32)len);
    std::free(copy);
    return e;
}

// Decoded events survive their own round trip unchanged.
void check_round_trip(const GenEvt* e) {
    vek_u32 len = 0;
    void* pkt = GenEvt_enc(e, &len);
    if (!pkt || len % 8 != 0) {
        std::abort();
    }
    GenEvt* back = GenEvt_dec(pkt, len);
    MIDL_user_free(pkt);
    if (back->eid != e->eid || back->rid != e->rid || back->num1 != e->num1 || back->num2 != e->num2 ||
        text_of(&back->str1) != text_of(&e->str1) || text_of(&back->str2) != text_of(&e->str2) ||
        (back->strm == nullptr) != (e->strm == nullptr) || strm_of(back->strm) != strm_of(e->strm)) {
        std::abort();
    }
    Evt_delete(back);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    GenEvt* e = decode(data, size & ~(size_t)7);
    check_round_trip(e);
    Evt_delete(e);

    if (size < 4) {
        return 0;
    }
    // A valid event shaped by the first four bytes, its packet damaged by
    // the rest: pairs of (offset, byte).
    std::string s1((size_t)(data[0] % 40), 'a');
    std::string body((size_t)data[1] * 3, 'z');
    IStrm* strm = nullptr;
    if (data[2] & 1) {
        strm = MemStrm_xcreatex__(nullptr, 16, __FILE__, __LINE__);
        if (!body.empty()) {
            IStrm_write(strm, body.data(), (vek_s32)body.size());
        }
    }
    GenEvt* src = GenEvt_newnsd(data[3], 1, -1, 2, s1.c_str(), (data[2] & 2) ? "second" : nullptr, strm, 0);
    vek_u32 len = 0;
    uint8_t* pkt = (uint8_t*)GenEvt_enc(src, &len);
    Evt_delete(src);
    for (size_t i = 4; i + 1 < size; i += 2) {
        pkt[data[i] % len] = data[i + 1];
    }
    e = decode(pkt, len);
    MIDL_user_free(pkt);
    check_round_trip(e);
    Evt_delete(e);
    return 0;
}
