/*
 * FileStrm over the OS layer's files, the file round trips of the stream
 * functions and the path check.
 */
#include <cstddef>
#include "StrmTest.h"

using vektest::bytes_of;
using vektest::mem_strm_with;
using vektest::read_file;
using vektest::StrmPtr;
using vektest::write_file;

static_assert(offsetof(FileStrm, vtbl) == 8, "object header");
#if defined(__i386__)
static_assert(offsetof(FileStrm, file) == 12 && sizeof(FileStrm) == 16, "32-bit layout");
#endif

namespace {

class FileStream : public VekTest {
  protected:
    void SetUp() override {
        VekTest::SetUp();
        dir_ = vektest::temp_dir("filestrm");
    }
    void TearDown() override {
        vektest::remove_tree(dir_);
        VekTest::TearDown();
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    StrmPtr open(const std::string& p, const char* mode, vek_s32* err = nullptr) {
        return StrmPtr(FileStrm_xcreatex__(nullptr, p.c_str(), mode, err, __FILE__, __LINE__));
    }
    std::string dir_;
};

} // namespace

TEST_F(FileStream, MissingFilesAndStreamsWithoutAFile) {
    vek_s32 err = 1;
    EXPECT_EQ(nullptr, open(path("missing.txt"), "r", &err));
    EXPECT_EQ(VEK_ERR_FILE_OPEN, err);
    StrmPtr dst = mem_strm_with("kept");
    EXPECT_EQ(VEK_ERR_FILE_OPEN, IStrm_fromFile(dst.get(), path("missing.txt").c_str()));
    EXPECT_EQ(VEK_ERR_FILE_OPEN, IStrm_fromFile(dst.get(), ""));
    EXPECT_EQ("kept", bytes_of(dst.get()));
    EXPECT_ASSERT("!str_noo(mode)", EXPECT_EQ(nullptr, open(path("x"), "", &err)));
    EXPECT_EQ(VEK_ERR_FILE_OPEN, err);

    StrmPtr none = open("", nullptr, &err);
    ASSERT_NE(nullptr, none);
    EXPECT_EQ(0, err);
    IStrm* s = none.get();
    char buf[4];
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_read(s, buf, 4));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_write(s, "x", 1));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_putc(s, 'x'));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_getc(s));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_ungetc(s));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_seek(s, 0, 0));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_tell(s));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_size(s));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_flush(s));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_clear(s));
    EXPECT_EQ(0, FileStrm_close(s));
    EXPECT_STREQ("FileStrm", IStrm_className(s));
    // A copy from it carries the read error.
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_copy(dst.get(), s));

    EXPECT_EQ(VEK_ERR_FILE_OPEN, FileStrm_open(s, path("missing.txt").c_str(), "rb"));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_getc(s));
    EXPECT_ASSERT("!str_noo(fileName) && !str_noo(mode)",
                  EXPECT_EQ(VEK_ERR_BAD_ARG, FileStrm_open(s, "", "rb")));
}

TEST_F(FileStream, OperationsForwardToTheFile) {
    FileStrm rec;
    vek_s32 err = 1;
    IStrm* s = FileStrm_xcreatex__(&rec, path("ops.bin").c_str(), "w+b", &err, __FILE__, __LINE__);
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(0, err);
    EXPECT_EQ(VEK_CLS_FILESTRM, rec.cls);
    EXPECT_EQ(5, IStrm_write(s, "hello", 5));
    EXPECT_EQ(0, IStrm_putc(s, '!'));
    EXPECT_EQ(0, IStrm_flush(s));
    EXPECT_EQ(6, IStrm_size(s));
    EXPECT_EQ(6, IStrm_tell(s));
    EXPECT_EQ(VEK_ERR_EOF, IStrm_getc(s));
    EXPECT_EQ(0, IStrm_ungetc(s));
    EXPECT_EQ('!', IStrm_getc(s));
    EXPECT_EQ(0, IStrm_seek(s, 1, 0));
    char buf[8] = {};
    EXPECT_EQ(4, IStrm_read(s, buf, 4));
    EXPECT_STREQ("ello", buf);
    EXPECT_EQ(VEK_ERR_BAD_ARG, IStrm_seek(s, 0, 7));
    EXPECT_EQ(VEK_ERR_NOT_SUPPORTED, IStrm_setSize(s, 2));
    EXPECT_EQ(VEK_ERR_NOT_SUPPORTED, IStrm_clear(s));
    EXPECT_EQ(6, IStrm_size(s));
    EXPECT_EQ(0, IStrm_release(s));
    EXPECT_EQ(0u, rec.cls);
    EXPECT_EQ("hello!", read_file(path("ops.bin")));  // closed and flushed by the release
}

TEST_F(FileStream, RoundTripsAndCopyOntoAFile) {
    const std::string data = vektest::pattern(3000);
    StrmPtr src = mem_strm_with(data);
    IStrm_seek(src.get(), 10, 0);
    EXPECT_EQ(0, IStrm_toFile(src.get(), path("out.bin").c_str()));
    EXPECT_EQ(data, read_file(path("out.bin")));
    EXPECT_EQ(10, IStrm_tell(src.get()));
    EXPECT_EQ(0, IStrm_toFilex(src.get(), path("out.bin").c_str(), 0));  // "wb" starts it empty
    EXPECT_EQ(data.substr(10), read_file(path("out.bin")));
    StrmPtr back = mem_strm_with("old");
    EXPECT_EQ(0, IStrm_fromFile(back.get(), path("out.bin").c_str()));
    EXPECT_EQ(data.substr(10), bytes_of(back.get()));
    EXPECT_EQ(0, IStrm_tell(back.get()));

    // A file cannot be emptied: the copy lands at the file's position.
    write_file(path("mid.txt"), "0123456789");
    StrmPtr file = open(path("mid.txt"), "r+b");
    IStrm_seek(file.get(), 4, 0);
    StrmPtr ab = mem_strm_with("ab");
    EXPECT_EQ(0, IStrm_copyx(file.get(), ab.get(), 1));
    EXPECT_EQ(0, IStrm_tell(file.get()));
    file.reset();
    EXPECT_EQ("0123ab6789", read_file(path("mid.txt")));
}

TEST_F(FileStream, Utf8NamesReachTheFileSystem) {
    // Latin, Cyrillic, CJK and a character beyond the 16-bit range.
    const std::string name = "Gr\xC3\xBC\xC3\x9F" "e-\xD1\x84\xD0\xB0\xD0\xB9\xD0\xBB-\xE6\x97\xA5\xE6\x9C\xAC-\xF0\x9F\x98\x80.txt";
    const std::string p = path(name);
    StrmPtr src = mem_strm_with("unicode name");
    EXPECT_EQ(1, vek_path_verify__(p.c_str(), __FILE__, __LINE__));
    EXPECT_EQ(0, IStrm_toFile(src.get(), p.c_str()));
    EXPECT_EQ("unicode name", read_file(p));  // found again through the system's own wide name
    StrmPtr back = mem_strm_with("");
    EXPECT_EQ(0, IStrm_fromFile(back.get(), p.c_str()));
    EXPECT_EQ("unicode name", bytes_of(back.get()));
}

TEST_F(FileStream, AttachAndDetachHandOverTheFile) {
    write_file(path("a.txt"), "AAA");
    write_file(path("b.txt"), "BBB");
    StrmPtr s = open(path("a.txt"), "rb");
    AlFile* b = AlFile_open(path("b.txt").c_str(), "rb");
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(0, FileStrm_attach(s.get(), b));  // a.txt is closed
    EXPECT_EQ('B', IStrm_getc(s.get()));
    EXPECT_EQ(b, FileStrm_detach(s.get()));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_getc(s.get()));
    char c = 0;
    EXPECT_EQ(1, AlFile_read(b, &c, 1));  // the caller's file, where the stream left it
    EXPECT_EQ('B', c);
    EXPECT_EQ(0, AlFile_close(b));
    EXPECT_ASSERT("file", EXPECT_EQ(VEK_ERR_BAD_ARG, FileStrm_attach(s.get(), nullptr)));
    EXPECT_EQ(0, FileStrm_open(s.get(), path("a.txt").c_str(), "rb"));
    EXPECT_EQ('A', IStrm_getc(s.get()));
    EXPECT_EQ(0, FileStrm_close(s.get()));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, IStrm_getc(s.get()));
}

TEST_F(FileStream, PathFormCheck) {
    EXPECT_EQ(1, vek_path_verify__(nullptr, __FILE__, __LINE__));
    EXPECT_EQ(1, vek_path_verify__("", __FILE__, __LINE__));
    EXPECT_EQ(1, vek_path_verify__("C:\\data\\x.ini", __FILE__, __LINE__));
    EXPECT_EQ(1, vek_path_verify__("\\\\?\\C:\\long\\x.ini", __FILE__, __LINE__));
    const char* bad[] = {"a\tb", "a*b", "what?", "x<y", "bad\xFF", "\xC0\xAF", "\xED\xA0\x80", "cut\xE6\x97"};
    for (const char* p : bad) {
        EXPECT_ASSERT("path form", EXPECT_EQ(0, vek_path_verify__(p, __FILE__, __LINE__)) << p);
    }
    std::string longPath(4096, 'a');
    EXPECT_ASSERT("path form", EXPECT_EQ(0, vek_path_verify__(longPath.c_str(), __FILE__, __LINE__)));
    vek_s32 err = 0;
    EXPECT_ASSERT("path form", EXPECT_EQ(nullptr, open(path("a|b"), "wb", &err)));
    EXPECT_EQ(VEK_ERR_FILE_OPEN, err);
    StrmPtr s = open("", nullptr);
    EXPECT_ASSERT("path form", EXPECT_EQ(VEK_ERR_FILE_OPEN, FileStrm_open(s.get(), "x\x01", "rb")));
}
