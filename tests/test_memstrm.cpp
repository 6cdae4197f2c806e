/*
 * The object model as streams use it, MemStrm with its block chain, VekData
 * and the IStrm free functions.
 */
#include <climits>
#include <cstddef>
#include <cstring>
#include "StrmTest.h"

using vektest::bytes_of;
using vektest::mem_strm;
using vektest::mem_strm_with;
using vektest::pattern;
using vektest::StrmPtr;

// The record's words in their order and widths; on 32-bit x86 the exact
// offsets that code built against the original layout expects.
static_assert(offsetof(MemStrm, ref) == 4 && offsetof(MemStrm, vtbl) == 8, "object header");
static_assert(offsetof(MemStrm, hdr) < offsetof(MemStrm, tail) &&
                  offsetof(MemStrm, tail) < offsetof(MemStrm, cur) &&
                  offsetof(MemStrm, cur) < offsetof(MemStrm, len) &&
                  offsetof(MemStrm, len) < offsetof(MemStrm, off) &&
                  offsetof(MemStrm, off) < offsetof(MemStrm, curOff) &&
                  offsetof(MemStrm, curOff) < offsetof(MemStrm, blk) &&
                  offsetof(MemStrm, blk) < offsetof(MemStrm, rsv),
              "field order");
static_assert(sizeof(MemStrm::len) == 8 && sizeof(MemStrm::off) == 8 && sizeof(MemStrm::curOff) == 4 &&
                  sizeof(MemStrm::blk) == 4 && sizeof(MemStrm::rsv) == 8,
              "field widths");
#if defined(__i386__)
static_assert(offsetof(MemStrm, hdr) == 12 && offsetof(MemStrm, tail) == 16 && offsetof(MemStrm, cur) == 20 &&
                  offsetof(MemStrm, len) == 24 && offsetof(MemStrm, off) == 32 &&
                  offsetof(MemStrm, curOff) == 40 && offsetof(MemStrm, blk) == 44 &&
                  offsetof(MemStrm, rsv) == 48 && sizeof(MemStrm) == 56,
              "32-bit layout");
#endif

namespace {

const VekGuid kIidIStrm = VEK_IID_ISTRM_INIT;
const VekGuid kIidUnknown = VEK_IID_IUNKNOWN_INIT;

MemStrm* obj_of(IStrm* s) {
    return (MemStrm*)((char*)s - offsetof(MemStrm, vtbl));
}

vek_s32 blocks(IStrm* s) {
    vek_s32 n = 0;
    for (VekData* b = obj_of(s)->hdr; b; b = b->next) {
        n++;
    }
    return n;
}

} // namespace

using ObjectModel = VekTest;

// Each operation called by its slot number does what that slot stands for.
TEST_F(ObjectModel, SlotOrderThroughTheRawTable) {
    StrmPtr p = mem_strm();
    IStrm* s = p.get();
    using Fn = void (*)();
    const Fn* t = (const Fn*)(const void*)s->vtbl;
    auto call = [&](int slot, auto sig, auto... args) { return ((decltype(sig))t[slot])(s, args...); };
    using S32 = vek_s32 (*)(IStrm*);
    char buf[8] = {};
    EXPECT_EQ(5, call(7, (vek_s32(*)(IStrm*, const void*, vek_s32))nullptr, "hello", 5));
    EXPECT_EQ(5, call(11, (vek_s64(*)(IStrm*))nullptr));
    EXPECT_EQ(0, call(5, (S32)nullptr));
    EXPECT_EQ(4, call(9, (vek_s64(*)(IStrm*))nullptr));
    EXPECT_EQ('o', call(4, (S32)nullptr));
    EXPECT_EQ(0, call(8, (vek_s32(*)(IStrm*, vek_s64, vek_s32))nullptr, (vek_s64)0, 0));
    EXPECT_EQ(5, call(6, (vek_s32(*)(IStrm*, void*, vek_s32))nullptr, buf, 8));
    EXPECT_STREQ("hello", buf);
    EXPECT_EQ(0, call(3, (vek_s32(*)(IStrm*, vek_s32))nullptr, '!'));
    EXPECT_EQ(0, call(10, (S32)nullptr));
    EXPECT_EQ(0, call(13, (vek_s32(*)(IStrm*, vek_s64))nullptr, (vek_s64)2));
    EXPECT_EQ("he", bytes_of(s));
    EXPECT_EQ(0, call(12, (S32)nullptr));
    EXPECT_EQ(0, IStrm_size(s));
    EXPECT_STREQ("MemStrm", call(14, (const char* (*)(IStrm*))nullptr));
    void* out = nullptr;
    EXPECT_EQ(0, call(0, (vek_s32(*)(IStrm*, const VekGuid*, void**))nullptr, &kIidIStrm, &out));
    EXPECT_EQ((void*)s, out);
    EXPECT_EQ(3, call(1, (S32)nullptr));
    EXPECT_EQ(2, call(2, (S32)nullptr));
    EXPECT_EQ(1, call(2, (S32)nullptr));
}

TEST_F(ObjectModel, QueryAnswersTwoIdentifiersOnly) {
    StrmPtr p = mem_strm();
    IStrm* s = p.get();
    void* out = nullptr;
    EXPECT_EQ(0, s->vtbl->queryItf(s, &kIidUnknown, &out));
    EXPECT_EQ((void*)s, out);
    EXPECT_EQ(1, IStrm_release(s));
    VekGuid other = kIidIStrm;
    other.data4[7] ^= 1;
    out = s;
    EXPECT_EQ(VEK_ERR_NOT_SUPPORTED, s->vtbl->queryItf(s, &other, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_ASSERT("out", EXPECT_EQ(VEK_ERR_BAD_ARG, s->vtbl->queryItf(s, &kIidIStrm, nullptr)));
    EXPECT_EQ(1, obj_of(s)->ref);
}

TEST_F(ObjectModel, CountingAllocatedAndCallerStorage) {
    MemStrm* owned = MemStrm_new(nullptr, 0);
    EXPECT_EQ(VEK_CLS_MEMSTRM | VEK_CLS_OWNED, owned->cls);
    EXPECT_EQ(0, owned->ref);
    EXPECT_EQ(1024, owned->blk);
    EXPECT_TRUE(!owned->hdr && !owned->tail && !owned->cur && !owned->len && !owned->off && !owned->curOff &&
                !owned->rsv[0] && !owned->rsv[1]);
    IStrm* s = VEK_OBJ_ITF(IStrm, owned);
    EXPECT_EQ(1, IStrm_addRef(s));
    IStrm_write(s, "data", 4);
    EXPECT_EQ(0, IStrm_release(s));  // freed with its blocks: the leak check sees it

    MemStrm local;
    s = MemStrm_xcreatex__(&local, 16, __FILE__, __LINE__);
    EXPECT_EQ(VEK_OBJ_ITF(IStrm, &local), s);
    EXPECT_EQ(VEK_CLS_MEMSTRM, local.cls);
    EXPECT_EQ(1, local.ref);
    EXPECT_EQ(16, local.blk);
    IStrm_write(s, pattern(40).data(), 40);
    EXPECT_EQ(3, blocks(s));
    EXPECT_EQ(2, IStrm_addRef(s));
    EXPECT_EQ(1, IStrm_release(s));
    EXPECT_EQ(0, IStrm_release(s));
    EXPECT_EQ(0u, local.cls);  // cleaned, the storage stays the caller's

    MemStrm_delete(MemStrm_new(nullptr, -5));
}

TEST_F(ObjectModel, ForeignObjectsEndTheProcess) {
    EXPECT_DEATH(
        {
            al_set_fault_hook(nullptr);
            MemStrm m;
            MemStrm_new(&m, 0);
            m.cls = VEK_CLS_STRSTRM;
            IStrm_getc(VEK_OBJ_ITF(IStrm, &m));
        },
        "obj crash");
    EXPECT_DEATH(
        {
            al_set_fault_hook(nullptr);
            StrmPtr s = mem_strm();
            FileStrm_close(s.get());
        },
        "obj crash");
}

using MemStream = VekTest;

TEST_F(MemStream, BlocksFillOneAfterAnother) {
    StrmPtr p = mem_strm_with(pattern(1024));
    IStrm* s = p.get();
    MemStrm* m = obj_of(s);
    EXPECT_EQ(1, blocks(s));
    EXPECT_EQ(0, IStrm_putc(s, 'z'));
    ASSERT_EQ(2, blocks(s));
    EXPECT_EQ(1024, VekData_len(m->hdr));
    EXPECT_EQ(1024, VekData_size(m->hdr));
    EXPECT_EQ(1, VekData_len(m->tail));
    EXPECT_EQ(m->tail, m->cur);
    EXPECT_EQ(1025, IStrm_size(s));
    EXPECT_EQ(1025, IStrm_tell(s));
    EXPECT_EQ(pattern(1024) + "z", bytes_of(s));
    EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(s));
    EXPECT_EQ(1025, IStrm_tell(s));
}

TEST_F(MemStream, StepsAcrossABlockStartBothWays) {
    const std::string data = pattern(1025);
    StrmPtr p = mem_strm_with(data);
    IStrm* s = p.get();
    MemStrm* m = obj_of(s);
    ASSERT_EQ(0, IStrm_seek(s, 1024, 0));
    EXPECT_EQ(m->hdr, m->cur);
    EXPECT_EQ((vek_u8)data[1024], IStrm_getc(s));
    EXPECT_EQ(m->tail, m->cur);
    EXPECT_EQ(0, IStrm_ungetc(s));  // back over the start of the second block
    EXPECT_EQ(m->hdr, m->cur);
    EXPECT_EQ(1024, m->curOff);
    EXPECT_EQ(0, IStrm_ungetc(s));
    EXPECT_EQ((vek_u8)data[1023], IStrm_getc(s));
    EXPECT_EQ((vek_u8)data[1024], IStrm_getc(s));

    char buf[1100];
    IStrm_seek(s, 1000, 0);
    EXPECT_EQ(25, IStrm_read(s, buf, sizeof buf));
    EXPECT_EQ(0, std::memcmp(buf, data.data() + 1000, 25));
    EXPECT_EQ(0, IStrm_read(s, buf, sizeof buf));

    StrmPtr fresh = mem_strm();
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_ungetc(fresh.get()));
    EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(fresh.get()));
    EXPECT_ASSERT("buf && bufLen > 0", EXPECT_EQ(0, IStrm_read(s, buf, 0)));
    EXPECT_ASSERT("data && dataLen > 0", EXPECT_EQ(0, IStrm_write(s, nullptr, 3)));
}

TEST_F(MemStream, SeekTargetsAndOrigins) {
    const std::string data = pattern(50);
    StrmPtr p = mem_strm_with(data, 8);
    IStrm* s = p.get();
    EXPECT_EQ(0, IStrm_seek(s, 50, 0));  // the length itself
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_seek(s, 51, 0));
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_seek(s, 1, 2));
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_seek(s, -1, 0));
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_seek(s, 0, 3));
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_seek(s, LLONG_MAX, 1));
    EXPECT_EQ(50, IStrm_tell(s));
    EXPECT_EQ(0, IStrm_seek(s, -40, 1));  // backwards: walks from the start
    EXPECT_EQ((vek_u8)data[10], IStrm_getc(s));
    EXPECT_EQ(0, IStrm_seek(s, 13, 1));
    EXPECT_EQ((vek_u8)data[24], IStrm_getc(s));
    EXPECT_EQ(0, IStrm_seek(s, -2, 2));
    EXPECT_EQ((vek_u8)data[48], IStrm_getc(s));
    EXPECT_EQ(0, IStrm_seek(s, 0, 2));
    EXPECT_EQ(obj_of(s)->tail, obj_of(s)->cur);
    EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(s));
}

TEST_F(MemStream, WritesOverwriteInsideAndExtendAtTheEnd) {
    StrmPtr p = mem_strm_with("0123456789", 4);
    IStrm* s = p.get();
    IStrm_seek(s, 2, 0);
    EXPECT_EQ(3, IStrm_write(s, "abc", 3));
    EXPECT_EQ(10, IStrm_size(s));
    IStrm_seek(s, 8, 0);
    EXPECT_EQ(4, IStrm_write(s, "WXYZ", 4));
    EXPECT_EQ(0, IStrm_putc(s, '!'));
    EXPECT_EQ(13, IStrm_size(s));
    EXPECT_EQ("01abc567WXYZ!", bytes_of(s));
    EXPECT_EQ(4, blocks(s));
}

TEST_F(MemStream, SetSizeCutsTheChainAndRewinds) {
    const std::string data = pattern(3000);
    StrmPtr p = mem_strm_with(data);
    IStrm* s = p.get();
    EXPECT_EQ(0, IStrm_setSize(s, 3000));
    EXPECT_EQ(0, IStrm_setSize(s, 5000));
    EXPECT_EQ(3000, IStrm_tell(s));  // untouched
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_setSize(s, -1));
    IStrm_seek(s, 2500, 0);
    EXPECT_EQ(0, IStrm_setSize(s, 1500));  // the middle of the second block
    EXPECT_EQ(0, IStrm_tell(s));
    EXPECT_EQ(2, blocks(s));
    EXPECT_EQ(476, VekData_len(obj_of(s)->tail));
    EXPECT_EQ(data.substr(0, 1500), bytes_of(s));
    EXPECT_EQ(0, IStrm_setSize(s, 100));
    EXPECT_EQ(1, blocks(s));
    EXPECT_EQ(100, IStrm_size(s));
    IStrm_seek(s, 0, 2);
    IStrm_write(s, "end", 3);  // the cut block grows again
    EXPECT_EQ(data.substr(0, 100) + "end", bytes_of(s));
    EXPECT_EQ(0, IStrm_setSize(s, 0));
    EXPECT_EQ(nullptr, obj_of(s)->hdr);
    EXPECT_EQ(0, IStrm_size(s));
}

TEST_F(MemStream, DetachAndAttachMoveWholeChains) {
    const std::string data = pattern(3000);
    StrmPtr p = mem_strm_with(data);
    IStrm* s = p.get();
    VekData* chain = MemStrm_detach(s);
    ASSERT_NE(nullptr, chain);
    EXPECT_EQ(0, IStrm_size(s));
    EXPECT_EQ(0, IStrm_tell(s));
    EXPECT_EQ(nullptr, obj_of(s)->hdr);
    EXPECT_EQ(0, MemStrm_attach(s, chain));
    EXPECT_EQ(0, IStrm_tell(s));
    EXPECT_EQ(3000, IStrm_size(s));
    EXPECT_EQ(data, bytes_of(s));

    // A chain built by hand; attaching replaces (and frees) the old one.
    VekData* first = VekData_new("abcd", 4);
    first->next = VekData_newSize(6);
    std::memcpy(VekData_buf(first->next), "ef", 2);
    first->next->len = 2;
    MemStrm_attach(s, first);
    EXPECT_EQ(obj_of(s)->tail, first->next);
    IStrm_seek(s, 0, 2);
    IStrm_write(s, "ghijklm", 7);  // fills the second block, then a new one of 1024
    EXPECT_EQ("abcdefghijklm", bytes_of(s));
    EXPECT_EQ(3, blocks(s));

    // A chain whose first block is not full breaks the invariant; reading
    // reports it and goes on.
    VekData* bad = VekData_newSize(4);
    bad->len = 1;
    bad->buf[0] = 'x';
    bad->next = VekData_new("yz", 2);
    MemStrm_attach(s, bad);
    EXPECT_EQ('x', IStrm_getc(s));
    EXPECT_ASSERT("_this->cur->len == _this->cur->size", EXPECT_EQ('y', IStrm_getc(s)));

    EXPECT_EQ(nullptr, VekData_delete(VekData_new(nullptr, 0)));
    EXPECT_ASSERT("size >= 0", EXPECT_EQ(nullptr, VekData_newSize(-1)));
    EXPECT_ASSERT("len >= 0", EXPECT_EQ(nullptr, VekData_new("x", -1)));
}

using StreamFunctions = VekTest;

TEST_F(StreamFunctions, CopyReplacesAndKeepsTheSourcePosition) {
    StrmPtr src = mem_strm_with("hello world");
    StrmPtr dst = mem_strm_with("old content that is longer");
    IStrm_seek(src.get(), 6, 0);
    EXPECT_EQ(0, IStrm_copy(dst.get(), src.get()));
    EXPECT_EQ("hello world", bytes_of(dst.get()));
    EXPECT_EQ(0, IStrm_tell(dst.get()));
    EXPECT_EQ(6, IStrm_tell(src.get()));
    EXPECT_EQ(0, IStrm_copyx(dst.get(), src.get(), 0));  // from the source's position
    EXPECT_EQ("world", bytes_of(dst.get()));
    EXPECT_EQ(6, IStrm_tell(src.get()));

    StrmPtr empty = mem_strm();
    EXPECT_EQ(0, IStrm_copy(dst.get(), empty.get()));
    EXPECT_EQ(0, IStrm_size(dst.get()));
    EXPECT_EQ(0, IStrm_tell(dst.get()));

    const std::string big = pattern(5000);  // several copy rounds
    StrmPtr large = mem_strm_with(big, 100);
    EXPECT_EQ(0, IStrm_copy(dst.get(), large.get()));
    EXPECT_EQ(big, bytes_of(dst.get()));

    EXPECT_ASSERT("dst && src", EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_copy(nullptr, src.get())));
}

TEST_F(StreamFunctions, AppendWritesAtTheEndAndStaysThere) {
    StrmPtr src = mem_strm_with("hello world");
    StrmPtr dst = mem_strm_with("abc");
    IStrm_seek(src.get(), 6, 0);
    IStrm_seek(dst.get(), 1, 0);
    EXPECT_EQ(0, IStrm_appd(dst.get(), src.get()));
    EXPECT_EQ(14, IStrm_tell(dst.get()));
    EXPECT_EQ(0, IStrm_appdx(dst.get(), src.get(), 0));
    EXPECT_EQ("abchello worldworld", bytes_of(dst.get()));
    EXPECT_EQ(19, IStrm_tell(dst.get()));
    EXPECT_EQ(6, IStrm_tell(src.get()));
}

TEST_F(StreamFunctions, CloneAndPrintf) {
    StrmPtr src = mem_strm_with("payload");
    IStrm_seek(src.get(), 3, 0);
    StrmPtr copy(IStrm_clone(src.get()));
    EXPECT_STREQ("MemStrm", IStrm_className(copy.get()));
    EXPECT_EQ(1, obj_of(copy.get())->ref);
    EXPECT_EQ(0, IStrm_tell(copy.get()));
    EXPECT_EQ("payload", bytes_of(copy.get()));
    EXPECT_EQ(3, IStrm_tell(src.get()));

    StrmPtr out = mem_strm(16);
    EXPECT_EQ(7, IStrm_printf(out.get(), "%d-%s", 42, "abcd"));
    EXPECT_EQ(300, IStrm_printf(out.get(), "%300s", "x"));  // more than one piece of the engine
    std::string all = bytes_of(out.get());
    EXPECT_EQ(307u, all.size());
    EXPECT_EQ("42-abcd", all.substr(0, 7));
    EXPECT_EQ('x', all.back());
    EXPECT_ASSERT("strm && fmt", EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_printf(nullptr, "x")));
}
