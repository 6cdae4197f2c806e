/*
 * The library's whole-file writers (IniFile_outFile, IniUtil_setFile*,
 * IStrm_toFile): a regular file is replaced safely, and everything a
 * replacement would change (links, devices, FIFOs, owners, a folder that
 * takes no temporary file) is written in place as "wb" would write it.
 */
#include <filesystem>
#include <string>
#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>
#endif
#include "VekTest.h"

namespace {

namespace fs = std::filesystem;

const char kText[] = "[s]\r\nk=new\r\n";

vek_s32 write_doc(const std::string& path) {
    IniFile* doc = IniFile_newBuf(kText, 0, nullptr);
    vek_s32 r = IniFile_outFile(doc, path.c_str());
    IniFile_delete(doc);
    return r;
}

vek_s32 write_strm(const std::string& path) {
    IStrm* s = MemStrm_xcreatex__(nullptr, 0, __FILE__, __LINE__);
    IStrm_write(s, kText, (vek_s32)sizeof kText - 1);
    vek_s32 r = IStrm_toFile(s, path.c_str());
    IStrm_release(s);
    return r;
}

size_t entries(const std::string& dir) {
    size_t n = 0;
    for (auto& e : fs::directory_iterator(fs::u8path(dir))) {
        (void)e;
        n++;
    }
    return n;
}

} // namespace

using SafeWrite = VekTest;

TEST_F(SafeWrite, HardLinkedFilesStayOneFileAndDirectoriesAreRefused) {
    std::string dir = vektest::temp_dir("safelinks");
    std::string a = dir + "/a.ini", b = dir + "/b.ini";
    vektest::write_file(a, "[s]\r\nk=old\r\n");
    fs::create_hard_link(fs::u8path(a), fs::u8path(b));
    EXPECT_EQ(0, IniUtil_setFileStr(b.c_str(), "s", "k", "new"));
    EXPECT_EQ(kText, vektest::read_file(a));
    vektest::write_file(a, "");
    EXPECT_EQ(0, write_doc(a));
    EXPECT_EQ(kText, vektest::read_file(b));
    vektest::write_file(a, "");
    EXPECT_EQ(0, write_strm(b));
    EXPECT_EQ(kText, vektest::read_file(a));

    std::string sub = dir + "/sub";
    fs::create_directory(fs::u8path(sub));
    EXPECT_EQ(VEK_ERR_FILE_OPEN, write_doc(sub));
    EXPECT_EQ(VEK_ERR_FILE_OPEN, write_strm(sub));
    EXPECT_EQ(VEK_ERR_FILE_OPEN, IniUtil_setFileStr(sub.c_str(), "s", "k", "v"));
    EXPECT_TRUE(fs::is_directory(fs::u8path(sub)));
    EXPECT_EQ(3u, entries(dir));  // no temporary file left behind
    vektest::remove_tree(dir);
}

// A replacement reaches the disk in two syncs: the new content before the
// rename, then the folder's entry after it (which a power loss could
// otherwise undo). Either failing is reported; only the first keeps the
// original, since the rename has already happened when the second fails.
TEST_F(SafeWrite, ContentThenFolderAreSynced) {
    std::string dir = vektest::temp_dir("safesync");
    std::string a = dir + "/a.ini";
    const std::string old = "[s]\r\nk=old\r\n";
    for (int k = 0; k < 3; k++) {
        vektest::write_file(a, old);
        vek_file_fail_at__(2, k);
        vek_s32 r = k % 2 ? write_strm(a) : write_doc(a);
        bool fired = vek_file_fail_at__(2, -1) != 0;
        EXPECT_EQ(k < 2, fired) << k;
        EXPECT_EQ(k < 2 ? -5 : 0, r) << k;
        EXPECT_EQ(k == 0 ? old : kText, vektest::read_file(a)) << k;
        EXPECT_EQ(1u, entries(dir)) << k;  // no temporary file left behind
    }
    vektest::remove_tree(dir);
}

#ifdef _WIN32
TEST_F(SafeWrite, TheNullDeviceIsWrittenNotReplaced) {
    std::string dir = vektest::temp_dir("safenul");
    fs::current_path(fs::u8path(dir));
    EXPECT_EQ(0, write_doc("NUL"));
    EXPECT_EQ(0, write_strm("NUL"));
    EXPECT_EQ(0u, entries(dir));
    fs::current_path(fs::temp_directory_path());
    vektest::remove_tree(dir);
}
#else
TEST_F(SafeWrite, DevicesAndFifosAreWrittenNotReplaced) {
    std::string dir = vektest::temp_dir("safedev");
    std::string fifo = dir + "/fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    // A reader that does not wait for the writer: the text fits the pipe.
    int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_EQ(0, write_doc(fifo));
    char got[64] = {0};
    EXPECT_EQ((ssize_t)sizeof kText - 1, read(reader, got, sizeof got - 1));
    close(reader);
    EXPECT_STREQ(kText, got);
    struct stat st;
    ASSERT_EQ(0, stat(fifo.c_str(), &st));
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    std::string null = dir + "/null";
    if (mknod(null.c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0) {  // root only
        EXPECT_EQ(0, write_doc(null));
        EXPECT_EQ(0, write_strm(null));
        EXPECT_EQ(0, IniUtil_setFileStr(null.c_str(), "s", "k", "v"));
        ASSERT_EQ(0, stat(null.c_str(), &st));
        EXPECT_TRUE(S_ISCHR(st.st_mode));
    }
    std::string dangling = dir + "/dangling";  // "wb" creates the link's target
    ASSERT_EQ(0, symlink("target.ini", dangling.c_str()));
    EXPECT_EQ(0, write_doc(dangling));
    EXPECT_EQ(kText, vektest::read_file(dir + "/target.ini"));
    ASSERT_EQ(0, lstat(dangling.c_str(), &st));
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    vektest::remove_tree(dir);
}

// Runs body in a forked child as the unprivileged user "nobody" (or as this
// user when it is not root), on the files the test prepared; the child's
// exit code 0 is success.
#define AS_NOBODY(body)                                                                            \
    GTEST_FLAG_SET(death_test_style, "fast");                                                      \
    EXPECT_EXIT(                                                                                   \
        {                                                                                          \
            if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) {                    \
                std::_Exit(9);                                                                     \
            }                                                                                      \
            body;                                                                                  \
        },                                                                                         \
        ::testing::ExitedWithCode(0), "")

// True when the unprivileged user can reach dir: a temporary folder below a
// private one (a chroot made in a mode-700 folder, say) is out of its reach.
bool nobody_reaches(const std::string& dir) {
    pid_t pid = fork();
    if (pid == 0) {
        bool ok = setgid(65534) == 0 && setuid(65534) == 0 && access(dir.c_str(), X_OK) == 0;
        std::_Exit(ok ? 0 : 1);
    }
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(SafeWrite, WithoutATemporaryFileOrTheOwnerTheFileIsWrittenInPlace) {
    std::string dir = vektest::temp_dir("safeowner");
    bool root = geteuid() == 0;
    if (root && !nobody_reaches(dir)) {
        vektest::remove_tree(dir);
        GTEST_SKIP() << "user 65534 cannot reach " << dir;
    }
    // A writable file in a folder that refuses new files.
    std::string locked = dir + "/locked";
    fs::create_directory(locked);
    std::string path = locked + "/cfg.ini";
    vektest::write_file(path, "[s]\r\nk=old\r\n");
    if (root) {
        ASSERT_EQ(0, chown(path.c_str(), 65534, 65534));
    }
    chmod(locked.c_str(), 0555);
    AS_NOBODY(std::_Exit(IniUtil_setFileStr(path.c_str(), "s", "k", "new") == 0 &&
                                 write_strm(path) == 0 && write_doc(path) == 0
                             ? 0
                             : 1));
    EXPECT_EQ(kText, vektest::read_file(path));
    EXPECT_EQ(1u, entries(locked));
    chmod(locked.c_str(), 0755);

    if (root) {
        // Root gives the replacement the original's owner and mode...
        std::string theirs = dir + "/theirs.ini";
        vektest::write_file(theirs, "[s]\r\nk=old\r\n");
        ASSERT_EQ(0, chown(theirs.c_str(), 65534, 65534));
        chmod(theirs.c_str(), 0600);
        EXPECT_EQ(0, write_doc(theirs));
        struct stat st;
        ASSERT_EQ(0, stat(theirs.c_str(), &st));
        EXPECT_EQ(65534u, st.st_uid);
        EXPECT_EQ(0600u, st.st_mode & 0777u);
        // ...while a user who may write a file it cannot give away writes in
        // place, so the file keeps its owner.
        std::string shared = dir + "/shared.ini";
        vektest::write_file(shared, "[s]\r\nk=old\r\n");
        chmod(shared.c_str(), 0666);
        chmod(dir.c_str(), 0777);
        ino_t before = (stat(shared.c_str(), &st), st.st_ino);
        AS_NOBODY(std::_Exit(write_doc(shared)));
        ASSERT_EQ(0, stat(shared.c_str(), &st));
        EXPECT_EQ(0u, st.st_uid);
        EXPECT_EQ(before, st.st_ino);
        EXPECT_EQ(kText, vektest::read_file(shared));
    }
    vektest::remove_tree(dir);
}
#endif
