/*
 * The window stream over other streams (memory, and a test stream that
 * reads short and fails), and the test stream's own faults.
 */
#include <string>
#include "StrmTest.h"

using namespace vektest;

namespace {

StrmPtr window(IStrm* inner, vek_s64 off, vek_s64 len) {
    return StrmPtr(EncpStrm_xcreatex__(nullptr, inner, off, len, __FILE__, __LINE__));
}

std::string read_all(IStrm* s, vek_s32 chunk = 100) {
    std::string out(chunk, 0);
    std::string all;
    for (vek_s32 n; (n = IStrm_read(s, &out[0], chunk)) > 0;) {
        all.append(out, 0, (size_t)n);
    }
    return all;
}

} // namespace

using WindowStrm = VekTest;

TEST_F(WindowStrm, ReadsAndWritesStayInside) {
    StrmPtr inner = mem_strm_with("0123456789ABCDEF", 5);
    StrmPtr w = window(inner.get(), 4, 6);
    EXPECT_STREQ("EncpStrm", IStrm_className(w.get()));
    EXPECT_EQ(6, IStrm_size(w.get()));
    EXPECT_EQ("456789", read_all(w.get()));
    EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(w.get()));
    EXPECT_EQ(0, IStrm_ungetc(w.get()));
    EXPECT_EQ('9', IStrm_getc(w.get()));
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_seek(w.get(), 7, 0));
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_seek(w.get(), -1, 0));
    ASSERT_EQ(0, IStrm_seek(w.get(), -2, 2));
    // Someone else moves the inner stream between calls.
    IStrm_seek(inner.get(), 0, 0);
    EXPECT_EQ('8', IStrm_getc(w.get()));
    EXPECT_EQ(VEK_ERR_FULL, IStrm_write(w.get(), "xy", 2));  // would pass the end
    EXPECT_EQ(1, IStrm_write(w.get(), "x", 1));
    EXPECT_EQ(VEK_ERR_FULL, IStrm_putc(w.get(), 'z'));
    EXPECT_EQ("012345678xABCDEF", bytes_of(inner.get()));
    EXPECT_EQ(VEK_ERR_NOT_SUPPORTED, IStrm_setSize(w.get(), 3));
    EXPECT_EQ(0, IStrm_setSize(w.get(), 6));
    EXPECT_EQ(0, IStrm_flush(w.get()));

    // An open window reaches to the inner end and moves it.
    StrmPtr tail = window(inner.get(), 12, -1);
    EXPECT_EQ("CDEF", read_all(tail.get(), 3));
    EXPECT_EQ(3, IStrm_write(tail.get(), "GHI", 3));
    EXPECT_EQ(19, IStrm_size(inner.get()));
    EXPECT_EQ(0, IStrm_setSize(tail.get(), 2));
    EXPECT_EQ("012345678xABCD", bytes_of(inner.get()));
    EXPECT_EQ(0, IStrm_tell(tail.get()));
    EXPECT_EQ(0, IStrm_clear(tail.get()));
    EXPECT_EQ(12, IStrm_size(inner.get()));

    // A fixed window longer than what the inner stream holds.
    StrmPtr past = window(inner.get(), 10, 100);
    EXPECT_EQ(2, IStrm_size(past.get()));
    ASSERT_EQ(0, IStrm_seek(past.get(), 0, 2));
    EXPECT_EQ(0, IStrm_putc(past.get(), '!'));
    EXPECT_EQ("012345678xAB!", bytes_of(inner.get()));
    StrmPtr beyond = window(inner.get(), 20, 5);
    EXPECT_EQ(0, IStrm_size(beyond.get()));
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_putc(beyond.get(), 'x'));  // inner cannot seek there
}

TEST_F(WindowStrm, OverAStreamThatMisbehaves) {
    StrmPtr inner(TestStrm_xcreatex__(nullptr, "header:payload-bytes:trailer", -1, __FILE__, __LINE__));
    TestStrmCfg cfg{3, 0, 18, -1, -1, VEK_ERR_FILE_OPEN};
    TestStrm_setCfg(inner.get(), &cfg);
    StrmPtr w = window(inner.get(), 7, 13);
    char buf[20];
    EXPECT_EQ(3, IStrm_read(w.get(), buf, 20));  // short reads pass through
    EXPECT_EQ("payload-bytes", std::string(buf, 3) + read_all(w.get()));
    IStrm_seek(w.get(), 0, 0);
    EXPECT_EQ(3, IStrm_read(w.get(), buf, 5));
    EXPECT_EQ(2, IStrm_read(w.get(), buf, 5));  // up to the inner stream's limit
    EXPECT_EQ(VEK_ERR_FILE_OPEN, IStrm_read(w.get(), buf, 5));  // failures pass through
    EXPECT_EQ(5, IStrm_tell(w.get()));

    EncpStrm none;
    EXPECT_ASSERT("inner", EncpStrm_new(&none, nullptr, 0, 5));
    IStrm* n = VEK_OBJ_ITF(IStrm, &none);
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_getc(n));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_write(n, "a", 1));
    EXPECT_EQ(0, IStrm_size(n));
    EncpStrm_delete(&none);
}

using FaultStrm = VekTest;

// Short reads and writes, counts and peeks are what every other suite leans
// on; here the limits: the early end, getc at a failure, and a write that
// crosses its limit keeping the bytes before it.
TEST_F(FaultStrm, EarlyEndsAndFailuresAtTheirLimits) {
    StrmPtr s(TestStrm_xcreatex__(nullptr, "abcdefghij", -1, __FILE__, __LINE__));
    TestStrmCfg cfg{4, 0, -1, -1, 6, 0};
    TestStrm_setCfg(s.get(), &cfg);
    char buf[16];
    EXPECT_EQ(4, IStrm_read(s.get(), buf, 16));
    EXPECT_EQ(2, IStrm_read(s.get(), buf, 16));  // the early end
    EXPECT_EQ(0, IStrm_read(s.get(), buf, 16));
    EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(s.get()));
    EXPECT_EQ(10, IStrm_size(s.get()));
    cfg = TestStrmCfg{0, 0, 1, -1, -1, 0};  // reads fail after one byte
    TestStrm_setCfg(s.get(), &cfg);
    EXPECT_EQ('g', IStrm_getc(s.get()));
    EXPECT_EQ(VEK_ERR_ABORTED, IStrm_getc(s.get()));

    cfg = TestStrmCfg{0, 3, -1, 5, -1, -94};
    TestStrm_setCfg(s.get(), &cfg);
    IStrm_seek(s.get(), 0, 0);
    EXPECT_EQ(3, IStrm_write(s.get(), "ABCDEFG", 7));
    EXPECT_EQ(0, IStrm_putc(s.get(), 'D'));
    EXPECT_EQ(-94, IStrm_write(s.get(), "EF", 2));  // E lands, then the failure
    EXPECT_EQ(-94, IStrm_putc(s.get(), 'x'));
    char all[10];
    EXPECT_EQ(10, TestStrm_peek(s.get(), 0, all, 10));
    EXPECT_EQ("ABCDEfghij", std::string(all, 10));
    EXPECT_EQ(5, IStrm_tell(s.get()));  // peeking does not move
}
