/*
 * StrStrm: the read-only stream over caller bytes, its own error values and
 * its attach / detach cycle.
 */
#include <cstddef>
#include "StrmTest.h"

using vektest::bytes_of;
using vektest::StrmPtr;

static_assert(offsetof(StrStrm, vtbl) == 8, "object header");
static_assert(offsetof(StrStrm, data) < offsetof(StrStrm, len) && offsetof(StrStrm, len) < offsetof(StrStrm, pos) &&
                  offsetof(StrStrm, pos) < offsetof(StrStrm, rsv) && sizeof(StrStrm::rsv) == 8,
              "field order");
#if defined(__i386__)
static_assert(offsetof(StrStrm, data) == 12 && offsetof(StrStrm, len) == 16 && offsetof(StrStrm, pos) == 20 &&
                  sizeof(StrStrm) == 32,
              "32-bit layout");
#endif

namespace {

StrmPtr str_strm(const char* buf, vek_s32 len) {
    return StrmPtr(StrStrm_xcreate__(nullptr, buf, len, __FILE__, __LINE__));
}

} // namespace

using StrStream = VekTest;

TEST_F(StrStream, ReadsTheCallersBytes) {
    const char text[] = "line one\0hidden";
    StrmPtr p = str_strm(text, -1);  // up to the terminating zero
    IStrm* s = p.get();
    EXPECT_EQ(8, IStrm_size(s));
    char buf[16] = {};
    EXPECT_EQ(5, IStrm_read(s, buf, 5));
    EXPECT_STREQ("line ", buf);
    EXPECT_EQ(0, IStrm_ungetc(s));
    EXPECT_EQ(' ', IStrm_getc(s));
    EXPECT_EQ(3, IStrm_read(s, buf, sizeof buf));
    EXPECT_EQ(0, IStrm_read(s, buf, sizeof buf));
    EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(s));
    EXPECT_EQ(8, IStrm_tell(s));
    EXPECT_STREQ("StrStrm", IStrm_className(s));

    StrmPtr whole = str_strm(text, (vek_s32)sizeof text - 1);  // a given length includes the zero
    EXPECT_EQ(std::string(text, sizeof text - 1), bytes_of(whole.get()));

    StrmPtr empty = str_strm(nullptr, 5);
    EXPECT_EQ(0, IStrm_size(empty.get()));
    EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(empty.get()));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_ungetc(empty.get()));
}

TEST_F(StrStream, WritingIsRefusedAndTheBufferStays) {
    char text[] = "fixed";
    StrmPtr p = str_strm(text, -1);
    IStrm* s = p.get();
    IStrm_seek(s, 2, 0);
    EXPECT_ASSERT("StrStrm is read-only", EXPECT_EQ(VEK_ERR_READ_ONLY, IStrm_putc(s, 'X')));
    EXPECT_ASSERT("StrStrm is read-only", EXPECT_EQ(VEK_ERR_READ_ONLY, IStrm_write(s, "XY", 2)));
    EXPECT_ASSERT("StrStrm is read-only", EXPECT_EQ(VEK_ERR_READ_ONLY, IStrm_flush(s)));
    EXPECT_ASSERT("StrStrm is read-only", EXPECT_EQ(VEK_ERR_READ_ONLY, IStrm_clear(s)));
    EXPECT_ASSERT("StrStrm is read-only", EXPECT_EQ(VEK_ERR_READ_ONLY, IStrm_setSize(s, 1)));
    EXPECT_STREQ("fixed", text);
    EXPECT_EQ(5, IStrm_size(s));
    EXPECT_EQ(2, IStrm_tell(s));
    // Copying into it fails the same way, the source stays readable.
    StrmPtr src = vektest::mem_strm_with("new");
    EXPECT_EQ(VEK_ERR_READ_ONLY, IStrm_copy(s, src.get()));
    expect_assert("StrStrm is read-only");  // the clear
    expect_assert("StrStrm is read-only");  // the write
    EXPECT_EQ(3, IStrm_tell(src.get()));
    EXPECT_STREQ("fixed", text);
}

TEST_F(StrStream, SeekAnswersNineWhereMemoryAnswers81) {
    StrmPtr p = str_strm("0123456789", -1);
    IStrm* s = p.get();
    StrmPtr m = vektest::mem_strm_with("0123456789");
    EXPECT_EQ(0, IStrm_seek(s, 10, 0));
    EXPECT_EQ(VEK_ERR_RANGE, IStrm_seek(s, 11, 0));
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_seek(m.get(), 11, 0));
    EXPECT_EQ(VEK_ERR_RANGE, IStrm_seek(s, 1, 2));
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_seek(m.get(), 1, 2));
    EXPECT_EQ(VEK_ERR_RANGE, IStrm_seek(s, -11, 1));
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_seek(s, 0, 3));
    EXPECT_EQ(10, IStrm_tell(s));
    EXPECT_EQ(0, IStrm_seek(s, -4, 2));
    EXPECT_EQ('6', IStrm_getc(s));
    EXPECT_EQ(0, IStrm_seek(s, -3, 1));
    EXPECT_EQ('4', IStrm_getc(s));
    EXPECT_EQ(0, IStrm_seek(s, 0x100000002LL, 0));  // only the low 32 bits count
    EXPECT_EQ(2, IStrm_tell(s));
}

TEST_F(StrStream, AttachDetachAndReset) {
    StrStrm rec;
    IStrm* s = StrStrm_xcreate__(&rec, nullptr, 0, __FILE__, __LINE__);
    EXPECT_EQ(VEK_CLS_STRSTRM, rec.cls);
    EXPECT_EQ(1, rec.ref);
    EXPECT_TRUE(rec.data && !rec.len && !rec.pos && !rec.rsv[0] && !rec.rsv[1]);
    const char* text = "abcdef";
    EXPECT_EQ(0, StrStrm_attach(s, text, 3));
    EXPECT_EQ("abc", vektest::rest_of(s));
    EXPECT_EQ(0, StrStrm_reset(s, nullptr, 0));  // back to the start of the same bytes
    EXPECT_EQ('a', IStrm_getc(s));
    EXPECT_EQ(0, StrStrm_reset(s, text + 3, -1));
    EXPECT_EQ("def", vektest::rest_of(s));
    EXPECT_EQ(text + 3, StrStrm_detach(s));
    EXPECT_EQ(nullptr, rec.data);
    EXPECT_EQ(0, rec.len);
    EXPECT_ASSERT("_this->data", EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(s)));
    char buf[4];
    EXPECT_ASSERT("_this->data", EXPECT_EQ(0, IStrm_read(s, buf, 4)));
    EXPECT_ASSERT("_this->data", EXPECT_EQ(0, IStrm_size(s)));
    EXPECT_EQ(0, StrStrm_attach(s, nullptr, 9));  // the shared empty text
    EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(s));
    EXPECT_EQ(0, IStrm_release(s));
    EXPECT_EQ(0u, rec.cls);

    StrStrm* owned = StrStrm_new(nullptr);
    EXPECT_EQ(VEK_CLS_STRSTRM | VEK_CLS_OWNED, owned->cls);
    EXPECT_EQ(0, owned->ref);
    StrStrm_delete(owned);
}
