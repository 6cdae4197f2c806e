/*
 * EvtTest.h - what the event suites share: an owning event pointer,
 * packets as byte strings and a one-line picture of an event's fields.
 */
#ifndef VEK_EVT_TEST_H
#define VEK_EVT_TEST_H

#include <cstring>
#include <memory>
#include <string>
#include "StrmTest.h"

namespace vektest {

struct EvtDel {
    void operator()(GenEvt* e) const { Evt_delete(e); }
};
using EvtPtr = std::unique_ptr<GenEvt, EvtDel>;

inline std::string packet_of(const GenEvt* e) {
    vek_u32 len = 1;
    void* p = GenEvt_enc(e, &len);
    std::string s((const char*)p, len);
    MIDL_user_free(p);
    return s;
}

inline EvtPtr decode(const std::string& pkt) {
    return EvtPtr(GenEvt_dec(pkt.data(), (vek_u32)pkt.size()));
}

inline vek_u32 word_at(const std::string& b, size_t off) {
    vek_u32 v = 0;
    std::memcpy(&v, b.data() + off, 4);
    return v;
}

inline void set_word(std::string& b, size_t off, vek_u32 v) {
    std::memcpy(&b[off], &v, 4);
}

/* "eid rid num1 num2 |str1|str2| stream bytes", "-" for no stream. */
inline std::string fields(const GenEvt* e) {
    auto text = [](const VekStr* s) { return std::string(VekStr_buf(s), (size_t)VekStr_len(s)); };
    return std::to_string(e->eid) + " " + std::to_string(e->rid) + " " + std::to_string(e->num1) + " " +
           std::to_string(e->num2) + " |" + text(&e->str1) + "|" + text(&e->str2) + "| " +
           (e->strm ? bytes_of(e->strm) : std::string("-"));
}

} // namespace vektest

#endif /* VEK_EVT_TEST_H */
