/*
 * The UTF-8 forms of the system calls on names beyond ASCII and beyond the
 * Basic Multilingual Plane: files, folders and their listing, renames that
 * replace, the environment, and loading a system library.
 */
#include <algorithm>
#include <string>
#include <vector>
#include "VekTest.h"

namespace {

// "é", a CJK character and an emoji (a surrogate pair in UTF-16).
const std::string kName = "caf\xC3\xA9-\xE4\xB8\xAD-\xF0\x9F\x98\x80";

std::vector<std::string> listing(const std::string& dir) {
    std::vector<std::string> out;
    vek_s32 err = 1;
    VekDir* d = vek_dir_open(dir.c_str(), &err);
    EXPECT_EQ(0, err);
    VekDirEnt e;
    while (d && vek_dir_next(d, &e) == 1) {
        out.push_back(std::string(e.name) + (e.kind == VEK_FS_DIR ? "/" : ""));
    }
    vek_dir_close(d);
    std::sort(out.begin(), out.end());
    return out;
}

} // namespace

class OsUtf8 : public VekTest {};

TEST_F(OsUtf8, FilesAndFoldersWithAnyName) {
    std::string dir = vektest::temp_dir("osutf8");
    std::string sub = dir + "/" + kName;
    std::string file = sub + "/" + kName + ".txt";
    EXPECT_EQ(0, vek_mkdir_utf8(sub.c_str()));
    EXPECT_EQ(VEK_ERR_NAME_EXISTS, vek_mkdir_utf8(sub.c_str()));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_mkdir_utf8((dir + "/no/such").c_str()));
    FILE* f = vek_fopen_utf8(file.c_str(), "wb");
    ASSERT_NE(nullptr, f);
    std::fputs("12345", f);
    EXPECT_EQ(0, vek_fclose(f));
    VekStat st;
    ASSERT_EQ(0, vek_stat_utf8(file.c_str(), &st));
    EXPECT_EQ(VEK_FS_FILE, st.kind);
    EXPECT_EQ(5, st.size);
    EXPECT_EQ(0, st.readOnly);
    // The write time is now (100 ns since 1601, today's well past 2020).
    EXPECT_GT(st.mtime, 132223104000000000LL);
    ASSERT_EQ(0, vek_stat_utf8(sub.c_str(), &st));
    EXPECT_EQ(VEK_FS_DIR, st.kind);
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_stat_utf8((dir + "/none").c_str(), &st));
    // The listing gives the names back byte for byte.
    vektest::write_file(sub + "/b.txt", "b");
    EXPECT_EQ(0, vek_mkdir_utf8((sub + "/d").c_str()));
    EXPECT_EQ((std::vector<std::string>{"b.txt", kName + ".txt", "d/"}), listing(sub));
    // A rename replaces the file at its target in one step.
    EXPECT_EQ(0, vek_rename_utf8((sub + "/b.txt").c_str(), file.c_str()));
    EXPECT_EQ("b", vektest::read_file(file));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_rename_utf8((sub + "/b.txt").c_str(), file.c_str()));
    EXPECT_LT(vek_remove_utf8(sub.c_str()), 0);  // not empty
    EXPECT_NE(VEK_ERR_NOT_FOUND, vek_remove_utf8(sub.c_str()));
    EXPECT_EQ(0, vek_remove_utf8(file.c_str()));
    EXPECT_EQ(0, vek_remove_utf8((sub + "/d").c_str()));
    EXPECT_EQ(std::vector<std::string>{}, listing(sub));
    EXPECT_EQ(0, vek_remove_utf8(sub.c_str()));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_remove_utf8(sub.c_str()));
    vek_s32 err = 0;
    EXPECT_EQ(nullptr, vek_dir_open(sub.c_str(), &err));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, err);
    EXPECT_EQ(nullptr, vek_fopen_utf8(sub.c_str(), "rb"));
    vektest::remove_tree(dir);
}

TEST_F(OsUtf8, Environment) {
    const char* name = "VEK_TEST_\xC3\x89T\xC3\x89";
    std::string value = "v=" + kName;
    EXPECT_EQ(0, vek_setenv_utf8(name, value.c_str()));
    char buf[64];
    EXPECT_EQ((vek_s32)value.size(), vek_getenv_utf8(name, buf, sizeof buf));
    EXPECT_EQ(value, buf);
    char small[4];
    EXPECT_EQ((vek_s32)value.size(), vek_getenv_utf8(name, small, sizeof small));  // cut, whole length told
    EXPECT_STREQ("v=c", small);
    std::string big(3000, 'x');
    EXPECT_EQ(0, vek_setenv_utf8(name, big.c_str()));
    VekStr v;
    VekStr_new(&v);
    EXPECT_EQ(3000, vek_getenvx(name, &v));
    EXPECT_EQ(big, VekStr_buf(&v));
    EXPECT_EQ(0, vek_setenv_utf8(name, ""));
    EXPECT_EQ(0, vek_getenvx(name, &v));
    EXPECT_EQ(0, vek_setenv_utf8(name, nullptr));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_getenvx(name, &v));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, vek_getenv_utf8(name, buf, sizeof buf));
    EXPECT_ASSERT("!std::strchr(name ? name : \"\", '=')", EXPECT_EQ(VEK_ERR_BAD_ARG, vek_setenv_utf8("A=B", "x")));
    VekStr_delete(&v);
}

TEST_F(OsUtf8, LoadsALibrary) {
#ifdef _WIN32
    const char* lib = "kernel32.dll";
    const char* sym = "GetTickCount";
#else
    const char* lib = "libm.so.6";
    const char* sym = "cos";
#endif
    char why[256];
    void* h = vek_lib_load(lib, why, sizeof why);
    ASSERT_NE(nullptr, h) << why;
    EXPECT_NE(nullptr, vek_lib_sym(h, sym));
    EXPECT_EQ(nullptr, vek_lib_sym(h, "no_such_symbol_here"));
    EXPECT_EQ(0, vek_lib_unload(h));
    EXPECT_EQ(nullptr, vek_lib_load(("no-such-" + kName + ".so").c_str(), why, sizeof why));
    EXPECT_STRNE("", why);  // the system's reason
}
