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
using StrmPtr = std::unique_ptr<IStrm, StrmRelease>;  // owns one reference

inline StrmPtr mem_strm_with(const std::string& bytes = "", vek_s32 blk = 0) {
    StrmPtr s(MemStrm_xcreatex__(nullptr, blk, __FILE__, __LINE__));
    if (!bytes.empty()) {
        IStrm_write(s.get(), bytes.data(), (vek_s32)bytes.size());
    }
    return s;
}

/* A test stream over bytes that returns at most chunk bytes a read, so
 * readers must loop; cfg sets other faults as well. */
inline StrmPtr test_strm(const std::string& bytes, const TestStrmCfg& cfg) {
    StrmPtr s(TestStrm_xcreatex__(nullptr, bytes.data(), (vek_s32)bytes.size(), __FILE__, __LINE__));
    TestStrm_setCfg(s.get(), &cfg);
    return s;
}
inline StrmPtr chunk_strm(const std::string& bytes, vek_s32 chunk) {
    return test_strm(bytes, TestStrmCfg{chunk, 0, -1, -1, -1, 0});
}
/* The read calls a test stream has seen, and every byte it holds. */
inline vek_s32 reads_of(IStrm* s) {
    TestStrmStat st;
    TestStrm_getStat(s, &st);
    return st.reads;
}
inline std::string test_bytes(IStrm* s) {
    std::string out((size_t)IStrm_size(s), 0);
    TestStrm_peek(s, 0, &out[0], (vek_s32)out.size());
    return out;
}

/* All bytes (the position is kept), or from the position on (it moves to the end). */
inline std::string bytes_of(IStrm* s, bool fromPos = false) {
    vek_s64 pos = IStrm_tell(s);
    if (!fromPos) {
        IStrm_seek(s, 0, 0);
    }
    std::string out;
    char buf[700];
    for (vek_s32 n; (n = IStrm_read(s, buf, sizeof buf)) > 0;) {
        out.append(buf, (size_t)n);
    }
    if (!fromPos) {
        IStrm_seek(s, pos, 0);
    }
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
