/*
 * Settings: how a hand-edited file reads as typed values and defaults; the
 * setters rewrite only the value and keep the rest of the line; saving;
 * reloading with and without unsaved changes, the watchers it calls, and
 * a watcher removed while another thread runs it.
 */
#include <atomic>
#include <string>
#include <thread>
#include <vector>
#include "VekTest.h"

namespace {

const CfgIniDef kDefs[] = {
    {"Net", "Port", CFGINI_INT, "8080", 1, 65535},
    {"Net", "Host", CFGINI_STR, "localhost", 0, 0},
    {"Net", "Retry", CFGINI_INT, "3", 0, 0},
    {"Log", "Debug", CFGINI_BOOL, "off", 0, 0},
    {"Log", "Trace", CFGINI_BOOL, "No", 0, 0},
    {"Log", "Sinks", CFGINI_LIST, "file, \"sys,log\"", 0, 0},
    {nullptr, "Mode", CFGINI_STR, "auto", 0, 0},
};

const char kFile[] =
    "; settings\r\n"
    "Mode = manual\r\n"
    "[ net ]\r\n"
    "port = 9090 ; the web port\r\n"
    "Host=\"  spaced  \"\r\n"
    "Retry = 0x10\r\n"
    "\r\n"
    "[Log]\r\n"
    "Debug = YES\r\n"
    "Trace = maybe\r\n"
    "Sinks = a , \"b,\"\"c\" ,, d\r\n";

struct Settings {
    std::string dir;
    std::string path;
    CfgIni* cfg = nullptr;
    explicit Settings(const char* text = kFile, const char* name = "cfgini")
        : dir(vektest::temp_dir(name)), path(dir + "/app.ini") {
        if (text) {
            vektest::write_file(path, text);
        }
        vek_s32 err = 1;
        cfg = CfgIni_new(path.c_str(), kDefs, 7, &err);
        EXPECT_EQ(text ? 0 : VEK_ERR_FILE_OPEN, err);
    }
    ~Settings() {
        CfgIni_delete(cfg);
        vektest::remove_tree(dir);
    }
    std::string str(const char* sect, const char* key) {
        char buf[64];
        CfgIni_getStr(cfg, sect, key, buf, sizeof buf);
        return buf;
    }
    std::vector<std::string> list(const char* sect, const char* key) {
        VekStr store;
        VekStr_new(&store);
        const char* items[8];
        vek_s32 n = CfgIni_getList(cfg, sect, key, &store, items, 8);
        std::vector<std::string> v(items, items + (n < 8 ? n : 8));
        VekStr_delete(&store);
        return v;
    }
};

} // namespace

class Cfg : public VekTest {};

TEST_F(Cfg, ReadsTypedValuesAndDefaults) {
    Settings s;
    EXPECT_EQ(9090, CfgIni_getInt(s.cfg, "NET", "Port"));  // blanks, case and comment do not matter
    EXPECT_EQ(16, CfgIni_getInt(s.cfg, "Net", "Retry"));
    EXPECT_EQ("  spaced  ", s.str("Net", "Host"));
    EXPECT_EQ("manual", s.str(nullptr, "mode"));
    EXPECT_TRUE(CfgIni_getBool(s.cfg, "Log", "Debug"));
    EXPECT_FALSE(CfgIni_getBool(s.cfg, "Log", "Trace"));  // "maybe": the default
    EXPECT_EQ((std::vector<std::string>{"a", "b,\"c", "", "d"}), s.list("Log", "Sinks"));
    VekStr store;
    VekStr_new(&store);
    const char* one[1];
    EXPECT_EQ(4, CfgIni_getList(s.cfg, "Log", "Sinks", &store, one, 1));  // the count, not the room
    EXPECT_STREQ("a", one[0]);
    VekStr_delete(&store);
    EXPECT_EQ(CFGINI_FROM_FILE, CfgIni_source(s.cfg, "Net", "Port"));
    EXPECT_EQ(CFGINI_INVALID, CfgIni_source(s.cfg, "Log", "Trace"));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, CfgIni_source(s.cfg, "Net", "Nothing"));
    EXPECT_EQ(0, CfgIni_getInt(s.cfg, "Net", "Nothing"));

    Settings d(nullptr, "cfgini-none");  // no file yet: every default
    EXPECT_EQ(8080, CfgIni_getInt(d.cfg, "Net", "Port"));
    EXPECT_EQ(CFGINI_FROM_DEFAULT, CfgIni_source(d.cfg, "Net", "Port"));
    EXPECT_EQ((std::vector<std::string>{"file", "sys,log"}), d.list("Log", "Sinks"));
    // Out of range, overflow, trailing junk: the default, reported invalid.
    for (const char* v : {"70000", "0", "99999999999", "80x", ""}) {
        CfgIni_setStr(d.cfg, "Net", "Port", v);
        EXPECT_EQ(8080, CfgIni_getInt(d.cfg, "Net", "Port")) << v;
        EXPECT_EQ(CFGINI_INVALID, CfgIni_source(d.cfg, "Net", "Port")) << v;
    }
    EXPECT_ASSERT("the setting is read as the type it was declared with", CfgIni_getInt(d.cfg, "Log", "Debug"));
}

TEST_F(Cfg, SettersKeepTheLineAndSaveSafely) {
    Settings s;
    EXPECT_EQ(0, CfgIni_setInt(s.cfg, "Net", "Port", 7070));
    EXPECT_EQ(VEK_ERR_BAD_ARG, CfgIni_setInt(s.cfg, "Net", "Port", 0));
    EXPECT_EQ(0, CfgIni_setBool(s.cfg, "Log", "Debug", 0));   // "YES" -> "NO"
    EXPECT_EQ(0, CfgIni_setBool(s.cfg, "Log", "Trace", 1));   // invalid there: the default's "No" -> "Yes"
    EXPECT_EQ(0, CfgIni_setStr(s.cfg, "Net", "Host", " a ;b"));
    const char* items[] = {"x", "y z", "q\"t", ""};
    EXPECT_EQ(0, CfgIni_setList(s.cfg, "Log", "Sinks", items, 4));
    EXPECT_EQ(0, CfgIni_setStr(s.cfg, "New", "Key", "v"));
    EXPECT_EQ(0, CfgIni_unset(s.cfg, nullptr, "Mode"));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, CfgIni_unset(s.cfg, nullptr, "Mode"));
    EXPECT_EQ(VEK_ERR_BAD_ARG, CfgIni_setStr(s.cfg, "Net", "Host", "two\nlines"));
    EXPECT_EQ(1, CfgIni_moded(s.cfg));
    EXPECT_EQ(" a ;b", s.str("Net", "Host"));
    EXPECT_EQ((std::vector<std::string>{"x", "y z", "q\"t", ""}), s.list("Log", "Sinks"));
    EXPECT_EQ("auto", s.str(nullptr, "Mode"));
    EXPECT_EQ(0, CfgIni_save(s.cfg));
    EXPECT_EQ(0, CfgIni_moded(s.cfg));
    EXPECT_EQ("; settings\r\n"
              "[ net ]\r\n"
              "port = 7070 ; the web port\r\n"
              "Host=\" a ;b\"\r\n"
              "Retry = 0x10\r\n"
              "\r\n"
              "[Log]\r\n"
              "Debug = NO\r\n"
              "Trace = Yes\r\n"
              "Sinks = x, y z, \"q\"\"t\", \"\"\r\n"
              "[New]\r\n"
              "Key=v\r\n",
              vektest::read_file(s.path));
    // Settings without a file neither save nor reload.
    CfgIni* mem = CfgIni_new(nullptr, kDefs, 7, nullptr);
    CfgIni_setInt(mem, "Net", "Port", 1);
    EXPECT_EQ(1, CfgIni_getInt(mem, "Net", "Port"));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, CfgIni_save(mem));
    EXPECT_EQ(VEK_ERR_NOT_OPEN, CfgIni_reload(mem));
    CfgIni_delete(mem);
    // A path that is there but no file is no settings file.
    vek_s32 err = 0;
    EXPECT_EQ(nullptr, CfgIni_new(s.dir.c_str(), kDefs, 7, &err));
    EXPECT_EQ(VEK_ERR_FILE_OPEN, err);
}

namespace {

struct Seen {
    std::vector<std::string> keys;
    CfgIni* cfg = nullptr;
    static void note(void* ctx, CfgIni* cfg, const char* sect, const char* key) {
        Seen* s = (Seen*)ctx;
        // The value is readable from inside the callback.
        char v[32];
        CfgIni_getStr(cfg, sect, key, v, sizeof v);
        s->keys.push_back(std::string(sect) + "/" + key + "=" + v);
    }
    static void quit(void* ctx, CfgIni* cfg, const char*, const char*) {
        CfgIni_delWatch(cfg, quit, ctx);  // from inside its own call
        ((Seen*)ctx)->keys.push_back("quit");
    }
};

} // namespace

TEST_F(Cfg, ReloadReportsWhatChangedOnDisc) {
    Settings s("[Net]\r\nPort=1000\r\nHost=a\r\n[Log]\r\nDebug=on\r\n");
    Seen seen;
    Seen once;
    EXPECT_EQ(0, CfgIni_addWatch(s.cfg, Seen::note, &seen));
    EXPECT_EQ(VEK_ERR_NAME_EXISTS, CfgIni_addWatch(s.cfg, Seen::note, &seen));
    EXPECT_EQ(0, CfgIni_addWatch(s.cfg, Seen::quit, &once));
    vektest::write_file(s.path, "; edited\r\n[Net]\r\nPort = 1000\r\nHost=b\r\n[Log]\r\nTrace=yes\r\n");
    EXPECT_EQ(3, CfgIni_reload(s.cfg));
    EXPECT_EQ((std::vector<std::string>{"Net/Host=b", "Log/Trace=yes", "Log/Debug=off"}), seen.keys);
    EXPECT_EQ((std::vector<std::string>{"quit"}), once.keys);

    // Unsaved changes survive a reload; the disc wins where both changed.
    CfgIni_setInt(s.cfg, "Net", "Port", 2000);
    CfgIni_setStr(s.cfg, "Net", "Host", "mine");
    seen.keys.clear();
    vektest::write_file(s.path, "[Net]\r\nPort = 1000\r\nHost=theirs\r\nRetry=5\r\n");
    EXPECT_EQ(3, CfgIni_reload(s.cfg));
    EXPECT_EQ((std::vector<std::string>{"Net/Host=theirs", "Net/Retry=5", "Log/Trace=No"}), seen.keys);
    EXPECT_EQ(2000, CfgIni_getInt(s.cfg, "Net", "Port"));
    EXPECT_EQ(1, CfgIni_moded(s.cfg));
    // Our own save read back changes nothing; a file gone keeps the values.
    EXPECT_EQ(0, CfgIni_save(s.cfg));
    EXPECT_EQ(0, CfgIni_reload(s.cfg));
    vek_remove_utf8(s.path.c_str());
    EXPECT_EQ(VEK_ERR_FILE_OPEN, CfgIni_reload(s.cfg));
    EXPECT_EQ(2000, CfgIni_getInt(s.cfg, "Net", "Port"));
    EXPECT_EQ(0, CfgIni_delWatch(s.cfg, Seen::note, &seen));
    EXPECT_EQ(VEK_ERR_NOT_FOUND, CfgIni_delWatch(s.cfg, Seen::quit, &once));
}

namespace {

struct Slow {
    std::atomic<int> state{0};  // 1 inside the callback, 2 let it return, 3 returned
    static void run(void* ctx, CfgIni*, const char*, const char*) {
        Slow* s = (Slow*)ctx;
        s->state = 1;
        while (s->state != 2) {
            vek_sleep(1);
        }
        s->state = 3;
    }
};

} // namespace

// The monitor's thread runs a watcher while the program removes it: the
// removal returns only once the call is over, so the watcher's context
// may be freed right after.
TEST_F(Cfg, DelWatchWaitsForARunningCall) {
    Settings s("[A]\r\nk=1\r\n");
    Slow slow;
    CfgIni_addWatch(s.cfg, Slow::run, &slow);
    vektest::write_file(s.path, "[A]\r\nk=2\r\n");
    std::thread monitor([&] { CfgIni_reload(s.cfg); });
    while (slow.state != 1) {
        vek_sleep(1);
    }
    std::atomic<bool> removed{false};
    std::thread program([&] {
        CfgIni_delWatch(s.cfg, Slow::run, &slow);
        removed = true;
    });
    vek_sleep(50);
    EXPECT_FALSE(removed);
    EXPECT_EQ(2, CfgIni_getInt(s.cfg, "A", "k"));  // readers are not held up meanwhile
    slow.state = 2;
    program.join();
    monitor.join();
    EXPECT_EQ(3, slow.state);
}
