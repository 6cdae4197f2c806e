/*
 * StrmTest.h - what the stream suites share: an owning stream pointer and
 * readers of a stream's bytes.
 */
#ifndef VEK_STRM_TEST_H
#define VEK_STRM_TEST_H

#include <memory>
#include <string>
#include "VekTest.h"

namespace vektest {

struct StrmRelease {
    void operator()(IStrm* s) const { IStrm_release(s); }
};
/* Owns one reference. */
using StrmPtr = std::unique_ptr<IStrm, StrmRelease>;

inline StrmPtr mem_strm(vek_s32 blk = 0) {
    return StrmPtr(MemStrm_xcreatex__(nullptr, blk, __FILE__, __LINE__));
}

inline StrmPtr mem_strm_with(const std::string& bytes, vek_s32 blk = 0) {
    StrmPtr s = mem_strm(blk);
    if (!bytes.empty()) {
        IStrm_write(s.get(), bytes.data(), (vek_s32)bytes.size());
    }
    return s;
}

/* The bytes from the position to the end (the position moves there). */
inline std::string rest_of(IStrm* s) {
    std::string out;
    char buf[700];
    vek_s32 n;
    while ((n = IStrm_read(s, buf, sizeof buf)) > 0) {
        out.append(buf, (size_t)n);
    }
    return out;
}

/* All bytes; the position is kept. */
inline std::string bytes_of(IStrm* s) {
    vek_s64 pos = IStrm_tell(s);
    IStrm_seek(s, 0, 0);
    std::string out = rest_of(s);
    IStrm_seek(s, pos, 0);
    return out;
}

/* n bytes of a pattern that does not repeat at block sizes. */
inline std::string pattern(size_t n) {
    std::string s(n, 0);
    for (size_t i = 0; i < n; i++) {
        s[i] = (char)(i % 251);
    }
    return s;
}

} // namespace vektest

#endif /* VEK_STRM_TEST_H */
