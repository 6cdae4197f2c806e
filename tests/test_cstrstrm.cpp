/*
 * The stream over a VekStr: overwrite in the middle versus extend at the
 * end, copy on write, the operations without a string, a string changed
 * behind the stream's back.
 */
#include "StrmTest.h"

namespace {

struct OnStr {
    VekStr str;
    CstrStrm mem;
    IStrm* s;
    explicit OnStr(const char* text = nullptr) {
        VekStr_new(&str);
        VekStr_setStr(&str, text);
        s = CstrStrm_xcreate__(&mem, &str, __FILE__, __LINE__);
    }
    ~OnStr() {
        IStrm_release(s);
        VekStr_delete(&str);
    }
    std::string text() const { return std::string(VekStr_buf(&str), (size_t)VekStr_len(&str)); }
};

} // namespace

using CstrStream = VekTest;

TEST_F(CstrStream, WritesExtendOrOverwrite) {
    OnStr o;
    EXPECT_EQ(3, IStrm_write(o.s, "abc", 3));
    EXPECT_EQ("abc", o.text());
    EXPECT_EQ(3, IStrm_tell(o.s));
    EXPECT_EQ(0, VekStr_buf(&o.str)[3]);  // still terminated
    OnStr m("abcdef");
    EXPECT_EQ(0, IStrm_seek(m.s, 1, 0));
    EXPECT_EQ(2, IStrm_write(m.s, "XY", 2));
    EXPECT_EQ("aXYdef", m.text());  // overwritten in place, length kept
    EXPECT_EQ(0, IStrm_seek(m.s, -1, 2));
    EXPECT_EQ(0, IStrm_putc(m.s, '1'));
    EXPECT_EQ(0, IStrm_putc(m.s, '2'));
    EXPECT_EQ("aXYde12", m.text());  // across the end: extended
    EXPECT_EQ(0, IStrm_write(m.s, "x", 0));
}

TEST_F(CstrStream, ReadsSeeksAndTruncation) {
    OnStr o("abcdef");
    EXPECT_EQ('a', IStrm_getc(o.s));
    char buf[8];
    EXPECT_EQ(5, IStrm_read(o.s, buf, sizeof buf));
    EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(o.s));
    EXPECT_EQ(0, IStrm_ungetc(o.s));
    EXPECT_EQ('f', IStrm_getc(o.s));
    EXPECT_EQ(0, IStrm_seek(o.s, 6, 0));  // the length itself is a position
    EXPECT_EQ(VEK_ERR_RANGE, IStrm_seek(o.s, 7, 0));
    EXPECT_EQ(VEK_ERR_RANGE, IStrm_seek(o.s, -7, 1));
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_seek(o.s, 0, 3));
    EXPECT_EQ(0, IStrm_setSize(o.s, 2));
    EXPECT_EQ("ab", o.text());
    EXPECT_EQ(0, IStrm_tell(o.s));
    EXPECT_EQ(0, IStrm_clear(o.s));
    EXPECT_EQ("", o.text());
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_ungetc(o.s));
    EXPECT_STREQ("CstrStrm", IStrm_className(o.s));
}

TEST_F(CstrStream, WritesNeverShowThroughASharer) {
    OnStr o("shared text");
    VekStr other;
    VekStr_new(&other);
    VekStr_setCstr(&other, &o.str);  // both point at one block now
    IStrm_write(o.s, "SHARED", 6);
    EXPECT_EQ("SHARED text", o.text());
    EXPECT_STREQ("shared text", VekStr_buf(&other));
    VekStr_delete(&other);
}

TEST_F(CstrStream, WithoutAString) {
    IStrm* s = CstrStrm_xcreate__(nullptr, nullptr, __FILE__, __LINE__);
    char buf[4];
    EXPECT_EQ(VEK_ERR_NO_STRING, IStrm_putc(s, 'x'));
    EXPECT_EQ(VEK_ERR_NO_STRING, IStrm_write(s, "x", 1));
    EXPECT_EQ(VEK_ERR_NO_STRING, IStrm_ungetc(s));
    EXPECT_EQ(VEK_ERR_NO_STRING, IStrm_setSize(s, 0));
    EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(s));
    EXPECT_EQ(0, IStrm_read(s, buf, sizeof buf));
    EXPECT_EQ(0, IStrm_size(s));
    EXPECT_EQ(0, IStrm_seek(s, 0, 0));
    VekStr str;
    VekStr_new(&str);
    CstrStrm_attach(s, &str);
    IStrm_write(s, "hi", 2);
    EXPECT_EQ(&str, CstrStrm_detach(s));
    EXPECT_STREQ("hi", VekStr_buf(&str));
    EXPECT_EQ(0, IStrm_release(s));
    VekStr bogus = {nullptr, 0x12345};
    CstrStrm mem;
    CstrStrm_new(&mem, &bogus);
    expect_assert("!str || (str->magic & 0xFFFFFF) == VEKSTR_MARK");
    EXPECT_EQ(nullptr, mem.str);
    CstrStrm_delete(&mem);
    VekStr_delete(&str);
}

TEST_F(CstrStream, StringChangedBehindTheStreamsBack) {
    OnStr o("abcdef");
    IStrm_seek(o.s, 5, 0);
    VekStr_trunc(&o.str, 2);
    EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(o.s));
    expect_assert("_this->pos <= VekStr_len(_this->str)");
    EXPECT_EQ(2, IStrm_tell(o.s));  // went on from the end
    IStrm_seek(o.s, 2, 0);
    VekStr_trunc(&o.str, 1);
    EXPECT_EQ(1, IStrm_write(o.s, "Z", 1));
    expect_assert("_this->pos <= VekStr_len(_this->str)");
    EXPECT_EQ("aZ", o.text());
}
