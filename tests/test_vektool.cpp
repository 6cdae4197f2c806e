/*
 * vektool ini, through the real program: results, exit codes and messages,
 * and that no file is ever lost or corrupted by it.
 */
#include <filesystem>
#include <string>
#include <thread>
#include <vector>
#ifndef _WIN32
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#endif
#include "ToolRun.h"

using Tool = ToolRun;

using Vektool = VekTest;

namespace {

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Console output with its line ends as LF (Windows writes CR LF).
std::string lines(std::string text) {
    std::erase(text, '\r');
    return text;
}

} // namespace

TEST_F(Vektool, IniCommands) {
    Tool t;
    vektest::write_file(t.path("a.ini"), "; top\r\nname=x\r\n[Net]\r\nHost=a\r\n; end\r\n");
    EXPECT_EQ(0, t.run("ini get " + t.q("a.ini") + " net HOST"));
    EXPECT_TRUE(t.out() == "a\n" || t.out() == "a\r\n") << t.out();  // a console line
    EXPECT_EQ(1, t.run("ini get " + t.q("a.ini") + " Net Port"));
    EXPECT_EQ("", t.out());
    EXPECT_EQ(0, t.run("ini get --default 8080 " + t.q("a.ini") + " Net Port"));
    EXPECT_TRUE(has(t.out(), "8080"));
    EXPECT_EQ(0, t.run("ini get " + t.q("a.ini") + " - name"));
    EXPECT_EQ(0, t.run("ini set " + t.q("a.ini") + " Net Port 80"));
    EXPECT_EQ("; top\r\nname=x\r\n[Net]\r\nHost=a\r\nPort=80\r\n; end\r\n", vektest::read_file(t.path("a.ini")));
    EXPECT_EQ(0, t.run("ini fmt " + t.q("a.ini")));
    EXPECT_EQ(vektest::read_file(t.path("a.ini")), t.out());
    EXPECT_EQ(0, t.run("ini sections " + t.q("a.ini")));
    EXPECT_TRUE(has(t.out(), "-") && has(t.out(), "Net"));
    EXPECT_EQ(0, t.run("ini keys " + t.q("a.ini") + " Net"));
    EXPECT_TRUE(has(t.out(), "Host") && has(t.out(), "Port") && t.out().find("Host") < t.out().find("Port"));
    EXPECT_EQ(1, t.run("ini keys " + t.q("a.ini") + " None"));
    EXPECT_EQ(0, t.run("ini dump " + t.q("a.ini")));
    EXPECT_TRUE(has(t.out(), "-.name=x") && has(t.out(), "Net.Host=a") && has(t.out(), "Net.Port=80"));

    vektest::write_file(t.path("b.ini"), "name=y\r\n[Net]\r\nHost=a\r\n[New]\r\nk=v\r\n");
    EXPECT_EQ(1, t.run("ini diff " + t.q("a.ini") + " " + t.q("b.ini")));
    EXPECT_EQ("; added\r\n[New]\r\nk=v\r\n; changed\r\nname=y\r\n; removed\r\n[Net]\r\nPort=80\r\n", t.out());
    EXPECT_EQ(0, t.run("ini diff " + t.q("a.ini") + " " + t.q("a.ini")));

    // Renaming keeps the value in the file and refuses to shadow a name.
    EXPECT_EQ(0, t.run("ini rename " + t.q("a.ini") + " Net Port ListenPort"));
    EXPECT_EQ(0, t.run("ini rename " + t.q("a.ini") + " Net Server"));
    EXPECT_EQ("; top\r\nname=x\r\n[Server]\r\nHost=a\r\nListenPort=80\r\n; end\r\n",
              vektest::read_file(t.path("a.ini")));
    EXPECT_EQ(2, t.run("ini rename " + t.q("a.ini") + " Server Host ListenPort"));
    EXPECT_EQ(2, t.run("ini rename " + t.q("a.ini") + " Server -"));
    EXPECT_EQ(1, t.run("ini rename " + t.q("a.ini") + " Net Server2"));

    EXPECT_EQ(1, t.run("ini del " + t.q("a.ini") + " Server None"));
    EXPECT_EQ(0, t.run("ini del " + t.q("a.ini") + " Server"));
    EXPECT_EQ("; top\r\nname=x\r\n", vektest::read_file(t.path("a.ini")));
}

TEST_F(Vektool, LineEndsAndStandardInput) {
    Tool t;
    vektest::write_file(t.path("lf.ini"), "[a]\nx=1\n");
    EXPECT_EQ(0, t.run("ini set " + t.q("lf.ini") + " a y 2"));
    EXPECT_EQ("[a]\nx=1\ny=2\n", vektest::read_file(t.path("lf.ini")));
    EXPECT_EQ(0, t.run("ini set " + t.q("new.ini") + " a y 2"));
    EXPECT_EQ("[a]\r\ny=2\r\n", vektest::read_file(t.path("new.ini")));

    EXPECT_EQ(0, t.run_in("ini get - a x", "[a]\r\nx=7\r\n"));
    EXPECT_TRUE(has(t.out(), "7"));
    EXPECT_EQ(0, t.run_in("ini set - a x 8", "[a]\nx=7\n"));  // a filter: the result on stdout
    EXPECT_EQ("[a]\nx=8\n", t.out());
    EXPECT_EQ(1, t.run_in("ini diff - " + t.q("lf.ini"), "[a]\r\nx=1\r\n"));

}

// A byte-order mark that hides the first line's section or key is refused
// by every subcommand alike, and the file is left as it was; one before a
// comment hides nothing.
TEST_F(Vektool, AByteOrderMarkIsHandledAlikeByEveryCommand) {
    Tool t;
    const std::string bom = "\xEF\xBB\xBF[a]\r\nx=1\r\n";
    vektest::write_file(t.path("bom.ini"), bom);
    vektest::write_file(t.path("ok.ini"), "[a]\r\nx=1\r\n");
    for (const char* cmd : {"get %s a x", "get --default 0 %s a x", "set %s a x 2", "del %s a x", "rename %s a y",
                            "keys %s a", "sections %s", "dump %s", "fmt %s", "diff %s ok.ini", "diff ok.ini %s"}) {
        std::string args = cmd;
        args.replace(args.find("%s"), 2, t.q("bom.ini"));
        if (args.find("ok.ini") != std::string::npos) {
            args.replace(args.find("ok.ini"), 6, t.q("ok.ini"));
        }
        EXPECT_EQ(2, t.run("ini " + args)) << cmd;
        EXPECT_TRUE(has(t.err(), "byte-order mark") && has(t.err(), "bom.ini")) << cmd << ": " << t.err();
        EXPECT_EQ("", t.out()) << cmd;
    }
    EXPECT_EQ(bom, vektest::read_file(t.path("bom.ini")));
    vektest::write_file(t.path("c.ini"), "\xEF\xBB\xBF; note\r\n[a]\r\nx=1\r\n");
    EXPECT_EQ(0, t.run("ini set " + t.q("c.ini") + " a x 2"));
    EXPECT_EQ("\xEF\xBB\xBF; note\r\n[a]\r\nx=2\r\n", vektest::read_file(t.path("c.ini")));
}

// The tool reads files as the library does and says what the user probably
// meant: a name keeps the blanks before "=" and inside "[ ]", a value keeps
// its "; comment", values that differ only in case compare equal.
TEST_F(Vektool, NearMissesAreNoted) {
    Tool t;
    vektest::write_file(t.path("a.ini"), "[Net]\r\nBaud = 9600 ; rate\r\n[ Modem ]\r\nx=On\r\n");
    EXPECT_EQ(1, t.run("ini get " + t.q("a.ini") + " Net Baud"));
    EXPECT_TRUE(has(t.err(), "no key 'Baud'; the section has 'Baud ' (the name keeps the space before '=')"))
        << t.err();
    EXPECT_EQ(0, t.run("ini get " + t.q("a.ini") + " Net \"Baud \""));
    EXPECT_EQ(" 9600 ; rate", lines(t.out()).substr(0, 12));
    EXPECT_TRUE(has(t.err(), "; rate")) << t.err();
    EXPECT_EQ(1, t.run("ini keys " + t.q("a.ini") + " Modem"));
    EXPECT_TRUE(has(t.err(), "no section 'Modem'; the file has ' Modem '")) << t.err();
    EXPECT_EQ(1, t.run("ini del " + t.q("a.ini") + " Net Baud"));
    EXPECT_TRUE(has(t.err(), "'Baud '")) << t.err();
    EXPECT_EQ(0, t.run("ini set " + t.q("a.ini") + " Net Baud 1200"));  // a new key, as a program would
    EXPECT_TRUE(has(t.err(), "added key 'Baud'")) << t.err();
    EXPECT_EQ(0, t.run("ini get " + t.q("a.ini") + " Net Baud"));
    EXPECT_EQ("1200\n", lines(t.out()));
    vektest::write_file(t.path("b.ini"), "[ Modem ]\r\nx=on\r\n");
    EXPECT_EQ(1, t.run("ini diff " + t.q("a.ini") + " " + t.q("b.ini")));  // [Net] went
    EXPECT_TRUE(has(t.err(), "\"On\" and \"on\" count as equal")) << t.err();
}

// One rule for every command's arguments: options first, the first operand
// ends them, unknown options are errors; usage errors on stderr, exit 2.
TEST_F(Vektool, ArgumentsAndConventions) {
    Tool t;
    EXPECT_EQ(0, t.run("ini set " + t.q("a.ini") + " S k -h"));  // a value, not a request for help
    EXPECT_EQ("[S]\r\nk=-h\r\n", vektest::read_file(t.path("a.ini")));
    EXPECT_EQ(0, t.run("ini set " + t.q("a.ini") + " S --help --version"));
    EXPECT_EQ(0, t.run("ini get " + t.q("a.ini") + " S --help"));
    EXPECT_EQ("--version\n", lines(t.out()));
    for (const char* bad : {"ini get --bogus f s k", "b64 enc --bogus", "md5 -x", "csv --sep", "time parse -1",
                            "sms unpack --count x", "b64 enc -w -1", "ini get f s k --default v", "b64", "ini",
                            "time", "b64 frob", "nosuchcommand"}) {
        EXPECT_EQ(2, t.run(bad)) << bad;
        EXPECT_EQ("", t.out()) << bad;
        EXPECT_TRUE(has(t.err(), "vektool") || has(t.err(), "usage")) << bad;
    }
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::u8path(t.path("--bogus"))));
    EXPECT_EQ(0, t.run("ini get --default=8080 " + t.q("missing.ini") + " s k"));  // a missing file too
    EXPECT_EQ("8080\n", lines(t.out()));
    EXPECT_EQ(2, t.run("ini get " + t.q("missing.ini") + " s k"));
    EXPECT_EQ(0, t.run("ini --help"));
    EXPECT_TRUE(has(t.out(), "where they depart from the library"));
#ifndef _WIN32
    for (const char* quiet : {"--help", "--version", "b64 enc --help", "ini --help"}) {
        EXPECT_EQ(2, vektest::run_command(Tool::exe() + " " + quiet + " > /dev/full 2> /dev/null")) << quiet;
    }
#endif
}

TEST_F(Vektool, ErrorsExitWithTwoAndNameTheFileAndTheReason) {
    Tool t;
    EXPECT_EQ(2, t.run("ini get " + t.q("missing.ini") + " s k"));
    EXPECT_TRUE(has(t.err(), "missing.ini") && has(t.err(), "No such file")) << t.err();
    EXPECT_EQ(2, t.run("ini del " + t.q("missing.ini") + " s"));
    EXPECT_EQ(2, t.run("ini get onlyone"));
    EXPECT_TRUE(has(t.err(), "usage: vektool ini get"));
    EXPECT_EQ(2, t.run("ini frob"));
    EXPECT_EQ(2, t.run("nosuchcommand"));
    vektest::write_file(t.path("long.ini"), "k=" + std::string(2000, 'v') + "\r\n");
    EXPECT_EQ(2, t.run("ini set " + t.q("long.ini") + " s k v"));
    EXPECT_TRUE(has(t.err(), "an INI line is longer than 1024 bytes (-251)"));
    EXPECT_EQ(2004u, vektest::read_file(t.path("long.ini")).size());  // never overwritten

    EXPECT_EQ(0, t.run("--help"));
    EXPECT_TRUE(has(t.out(), "ini diff OLD NEW") && has(t.out(), "time diff    no zone: local time")) << t.out();
    EXPECT_EQ(0, t.run("--version"));
    EXPECT_TRUE(has(t.out(), "vektool"));
    for (const char* sub : {"get", "set", "del", "rename", "keys", "sections", "dump", "diff", "fmt"}) {
        EXPECT_EQ(0, t.run(std::string("ini ") + sub + " --help")) << sub;
        EXPECT_TRUE(has(t.out(), std::string("usage: vektool ini ") + sub)) << t.out();
    }
    EXPECT_EQ(0, t.run("ini set -- " + t.q("opt.ini") + " s k --help"));  // "--" ends the options
    EXPECT_EQ("[s]\r\nk=--help\r\n", vektest::read_file(t.path("opt.ini")));
#ifndef _WIN32
    vektest::write_file(t.path("a.ini"), "[s]\r\nk=v\r\n");
    EXPECT_EQ(2, vektest::run_command(Tool::exe() + " ini get " + t.q("a.ini") + " s k > /dev/full 2>/dev/null"));
    EXPECT_EQ(2, vektest::run_command(Tool::exe() + " ini dump " + t.q("a.ini") + " > /dev/full 2>/dev/null"));
#endif
}

TEST_F(Vektool, NamesAndValuesThatWouldNotReadBackAreRefused) {
    Tool t;
    const std::string text = "[s]\r\nk=v\r\n";
    vektest::write_file(t.path("a.ini"), text);
    const std::string set = "ini set " + t.q("a.ini") + " ";
    const std::string cases[] = {
        "s \"a=b\" v", "s \";k\" v", "s \"[k\" v", "\"x]y\" k v", "s \"\" v", "s \"a;b\" v",
        "s k " + std::string(1100, 'v'),
#ifndef _WIN32
        "s k \"$(printf 'x\\n[Evil]\\nadmin=1')\"", "s k \"$(printf 'x\\ry')\"", "\"$(printf 'a\\nb')\" k v",
#endif
    };
    for (const auto& c : cases) {
        EXPECT_EQ(2, t.run(set + c)) << c;
        EXPECT_TRUE(has(t.err(), "a.ini") && has(t.err(), "nothing written")) << c << ": " << t.err();
        EXPECT_EQ(text, vektest::read_file(t.path("a.ini"))) << c;
    }
    EXPECT_EQ(2, t.run("ini get " + t.q("a.ini") + " s \"\""));
    EXPECT_FALSE(has(t.err(), "assert")) << t.err();
    EXPECT_EQ(2, t.run("ini rename " + t.q("a.ini") + " s k \"a=b\""));
    EXPECT_EQ(2, t.run("ini rename " + t.q("a.ini") + " s \"x]\""));
    EXPECT_EQ(text, vektest::read_file(t.path("a.ini")));
    EXPECT_EQ(0, t.run("ini get " + t.q("a.ini") + " s k"));  // still readable
}

TEST_F(Vektool, DirectoriesAndSpecialFilesAreNeverTakenForInIFiles) {
    Tool t;
    std::filesystem::create_directory(std::filesystem::u8path(t.path("dir")));
    for (const char* cmd : {"get %s s k", "set %s s k v", "sections %s", "fmt %s", "dump %s", "diff %s %s"}) {
        std::string args = cmd;
        for (size_t at; (at = args.find("%s")) != std::string::npos;) {
            args.replace(at, 2, t.q("dir"));
        }
        EXPECT_EQ(2, t.run("ini " + args)) << cmd;
        EXPECT_TRUE(has(t.err(), "dir")) << t.err();
    }
    EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::u8path(t.path("dir"))));

    // A second hard link keeps sharing the new content.
    vektest::write_file(t.path("a.ini"), "[s]\r\nk=1\r\n");
    std::filesystem::create_hard_link(std::filesystem::u8path(t.path("a.ini")),
                                      std::filesystem::u8path(t.path("b.ini")));
    EXPECT_EQ(0, t.run("ini set " + t.q("b.ini") + " s k 2"));
    EXPECT_EQ("[s]\r\nk=2\r\n", vektest::read_file(t.path("a.ini")));
#ifdef _WIN32
    EXPECT_EQ(2, t.run("ini set NUL s k v"));
#else
    ASSERT_EQ(0, mkfifo(t.path("fifo").c_str(), 0600));
    EXPECT_EQ(2, t.run("ini set " + t.q("fifo") + " s k v"));  // refused before it blocks
    std::string dev = t.path("null");
    if (mknod(dev.c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0) {
        EXPECT_EQ(2, t.run("ini set " + t.q("null") + " s k v"));
        EXPECT_EQ(2, t.run("ini del " + t.q("null") + " s"));
    }
    struct stat st;
    EXPECT_TRUE(stat(t.path("fifo").c_str(), &st) == 0 && S_ISFIFO(st.st_mode));
#endif
}

#ifndef _WIN32
TEST_F(Vektool, AsAPlainUserAnUnreadableFileIsNeverOverwritten) {
    Tool t;
    // Root reads any file: the case needs an unprivileged user.
    std::string asUser;
    if (geteuid() == 0) {
        if (vektest::run_command("setpriv --version > /dev/null 2>&1") != 0) {
            GTEST_SKIP() << "setpriv is missing: cannot run vektool as an unprivileged user";
        }
        asUser = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
    }
    if (vektest::run_command(asUser + Tool::exe() + " --version > /dev/null 2>&1") != 0) {
        GTEST_SKIP() << "vektool cannot run as user 65534 from this folder";
    }
    const std::string text = "[s]\r\nk=1\r\n";
    std::string path = t.path("secret.ini");
    vektest::write_file(path, text);
    if (geteuid() == 0) {
        ASSERT_EQ(0, chown(path.c_str(), 65534, 65534));
    }
    chmod(path.c_str(), 0200);
    EXPECT_EQ(2, vektest::run_command(asUser + Tool::exe() + " ini set " + t.q("secret.ini") + " s j 2 2> " + t.q("err")));
    EXPECT_TRUE(has(t.err(), "Permission denied")) << t.err();
    EXPECT_EQ(2, vektest::run_command(asUser + Tool::exe() + " ini del " + t.q("secret.ini") + " s 2> /dev/null"));
    chmod(path.c_str(), 0444);  // readable, not writable: the reason of the write
    EXPECT_EQ(2, vektest::run_command(asUser + Tool::exe() + " ini set " + t.q("secret.ini") + " s j 2 2> " + t.q("err")));
    EXPECT_TRUE(has(t.err(), "cannot be written: Permission denied")) << t.err();
    chmod(path.c_str(), 0600);
    EXPECT_EQ(text, vektest::read_file(path));

    // A writable file in a folder that takes no new file is still set.
    std::filesystem::create_directory(t.path("locked"));
    std::string inLocked = t.path("locked/cfg.ini");
    vektest::write_file(inLocked, text);
    if (geteuid() == 0) {
        ASSERT_EQ(0, chown(inLocked.c_str(), 65534, 65534));
    }
    chmod(t.path("locked").c_str(), 0555);
    EXPECT_EQ(0, vektest::run_command(asUser + Tool::exe() + " ini set " + t.q("locked/cfg.ini") + " s k 2"));
    chmod(t.path("locked").c_str(), 0755);
    EXPECT_EQ("[s]\r\nk=2\r\n", vektest::read_file(inLocked));
}
#endif

TEST_F(Vektool, ConcurrentWritersLoseNoUpdate) {
    Tool t;
    const int kWriters = 40;
#ifdef _WIN32
    const std::string quiet = " > NUL 2>&1";
#else
    const std::string quiet = " > /dev/null 2>&1";
#endif
    std::vector<int> rc(kWriters, -1);
    std::vector<std::thread> writers;
    for (int i = 0; i < kWriters; i++) {
        writers.emplace_back([&, i] {
            rc[i] = vektest::run_command(Tool::exe() + " ini set " + t.q("shared.ini") + " s k" + std::to_string(i) +
                                         " " + std::to_string(i) + quiet);
        });
    }
    for (auto& w : writers) {
        w.join();
    }
    for (int i = 0; i < kWriters; i++) {
        EXPECT_EQ(0, rc[i]) << i;
    }
    ASSERT_EQ(0, t.run("ini keys " + t.q("shared.ini") + " s"));
    std::string keys = lines(t.out());
    for (int i = 0; i < kWriters; i++) {
        EXPECT_TRUE(has(keys, "k" + std::to_string(i) + "\n")) << "k" << i << " lost";
    }
}
