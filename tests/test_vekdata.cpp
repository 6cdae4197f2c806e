/*
 * Chains of data blocks: packed chains that a memory stream takes as they
 * are, reads, copies and slices across block edges, chains of any shape,
 * and the stream round trips through streams that read and write short or
 * fail.
 */
#include <cstring>
#include <string>
#include <vector>
#include "StrmTest.h"

using namespace vektest;

namespace {

std::vector<vek_u32> lens(const VekData* c) {
    std::vector<vek_u32> v;
    for (; c; c = c->next) {
        v.push_back(c->len);
    }
    return v;
}

std::string bytes(const VekData* c) {
    std::string s((size_t)VekDatas_len(c), 0);
    EXPECT_EQ((vek_s32)s.size(), VekDatas_read(c, 0, &s[0], (vek_s32)s.size()));
    return s;
}

TestStrmCfg no_faults() {
    return TestStrmCfg{0, 0, -1, -1, -1, 0};
}

} // namespace

using DataChain = VekTest;

TEST_F(DataChain, PackedChainsCopiesAndSlices) {
    const std::string p = pattern(2500);
    VekData* c = nullptr;
    ASSERT_EQ(0, VekDatas_fromBuf(&c, p.data(), 2500, 1000));
    EXPECT_EQ((std::vector<vek_u32>{1000, 1000, 500}), lens(c));
    EXPECT_EQ(3, VekDatas_count(c));
    EXPECT_EQ(c->next->next, VekDatas_tail(c));
    ASSERT_EQ(0, VekDatas_appd(&c, p.data(), 600, 1000));  // the last block's room first
    EXPECT_EQ((std::vector<vek_u32>{1000, 1000, 1000, 100}), lens(c));
    EXPECT_EQ(p + p.substr(0, 600), bytes(c));

    std::string got(40, 0);
    EXPECT_EQ(40, VekDatas_read(c, 980, &got[0], 40));
    EXPECT_EQ(p.substr(980, 40), got);
    EXPECT_EQ(10, VekDatas_read(c, 3090, &got[0], 40));
    EXPECT_EQ(0, VekDatas_read(c, 3100, &got[0], 40));

    VekData *cp = nullptr, *sl = nullptr;
    ASSERT_EQ(0, VekDatas_copy(&cp, c, 0));
    EXPECT_EQ((std::vector<vek_u32>{1024, 1024, 1024, 28}), lens(cp));
    EXPECT_EQ(0, VekDatas_cmp(c, cp));  // the same bytes, other blocks
    ASSERT_EQ(0, VekDatas_slice(&sl, c, 990, 2020, 64));
    EXPECT_EQ((p + p).substr(990, 2020), bytes(sl));
    EXPECT_EQ(990 % 251, VekDatas_cmp(sl, cp));  // the first bytes differ
    VekDatas_delete(sl);
    ASSERT_EQ(0, VekDatas_slice(&sl, c, 3050, -1, 0));
    EXPECT_EQ(p.substr(550, 50), bytes(sl));
    VekDatas_delete(sl);
    sl = c;
    EXPECT_EQ(0, VekDatas_slice(&sl, c, 3100, 5, 0));
    EXPECT_EQ(nullptr, sl);  // nothing there: the empty chain
    EXPECT_EQ(VEK_ERR_BAD_ARG, VekDatas_slice(&sl, c, -1, 5, 0));

    // A prefix orders first; a packed chain goes into a stream as it is.
    VekData* head = nullptr;
    VekDatas_fromBuf(&head, p.data(), 10, 3);
    EXPECT_EQ(-1, VekDatas_cmp(head, c));
    EXPECT_EQ(1, VekDatas_cmp(c, head));
    EXPECT_EQ(0, VekDatas_cmp(nullptr, nullptr));
    StrmPtr m = mem_strm_with();
    MemStrm_attach(m.get(), cp);
    EXPECT_EQ(p + p.substr(0, 600), bytes_of(m.get()));
    VekDatas_delete(head);
    VekDatas_delete(c);
    EXPECT_ASSERT("data || len == 0", EXPECT_EQ(VEK_ERR_BAD_ARG, VekDatas_fromBuf(&c, nullptr, 3, 0)));
}

TEST_F(DataChain, ChainsOfAnyShapeAreRead) {
    // Blocks with room left and an empty one in the middle, as a caller
    // may link them.
    VekData* a = VekData_newSize(8);
    a->len = 3;
    std::memcpy(a->buf, "abc", 3);
    a->next = VekData_newSize(4);
    a->next->next = VekData_new("defgh", 5);
    EXPECT_EQ(8, VekDatas_len(a));
    EXPECT_EQ("abcdefgh", bytes(a));
    VekData* cp = nullptr;
    ASSERT_EQ(0, VekDatas_copy(&cp, a, 4));
    EXPECT_EQ((std::vector<vek_u32>{4, 4}), lens(cp));
    VekData* sl = nullptr;
    ASSERT_EQ(0, VekDatas_slice(&sl, a, 2, 3, 0));
    EXPECT_EQ("cde", bytes(sl));
    ASSERT_EQ(0, VekDatas_appd(&a, "XY", 2, 0));
    EXPECT_EQ("abcdefghXY", bytes(a));
    EXPECT_EQ(4, VekDatas_count(a));  // the last block was full: one more
    for (VekData* x : {a, cp, sl}) {
        VekDatas_delete(x);
    }
}

TEST_F(DataChain, ThroughStreamsThatMisbehave) {
    const std::string p = pattern(5000);
    TestStrmCfg cfg = no_faults();
    cfg.readChunk = 7;  // every read short
    StrmPtr inPtr = test_strm(p, cfg);
    IStrm* in = inPtr.get();
    IStrm_seek(in, 100, 0);
    VekData* c = nullptr;
    ASSERT_EQ(0, VekDatas_fromStrm(&c, in, -1, 256));
    EXPECT_EQ(p.substr(100), bytes(c));
    EXPECT_EQ(20, VekDatas_count(c));  // packed: 4900 bytes in 256-byte blocks
    VekDatas_delete(c);
    IStrm_seek(in, 0, 0);
    ASSERT_EQ(0, VekDatas_fromStrm(&c, in, 1000, 0));
    EXPECT_EQ(p.substr(0, 1000), bytes(c));
    EXPECT_EQ(1000, IStrm_tell(in));
    VekDatas_delete(c);
    cfg.readFailAt = 3000;
    cfg.err = -64;
    TestStrm_setCfg(in, &cfg);
    VekData* before = VekData_newSize(1);
    c = before;
    EXPECT_EQ(-64, VekDatas_fromStrm(&c, in, -1, 0));
    EXPECT_EQ(nullptr, c);  // nothing is kept
    VekData_delete(before);

    VekDatas_fromBuf(&c, p.data(), 5000, 333);
    cfg = no_faults();
    cfg.writeChunk = 5;  // every write short
    StrmPtr outPtr = test_strm("", cfg);
    IStrm* out = outPtr.get();
    ASSERT_EQ(0, VekDatas_toStrm(c, out));
    EXPECT_EQ(p, test_bytes(out));
    cfg.writeFailAt = 10;
    cfg.err = -94;
    TestStrm_setCfg(out, &cfg);
    EXPECT_EQ(-94, VekDatas_toStrm(c, out));
    VekDatas_delete(c);
}
