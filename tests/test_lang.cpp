/*
 * Language resources: tags and their fallbacks, the user's languages from
 * the environment, the chain of catalogue files, and formatting whose
 * arguments a translation may reorder.
 */
#include <string>
#include "VekTest.h"

namespace {

std::string fallbacks(const char* langs) {
    char buf[256];
    lang_fallbacks(langs, buf, sizeof buf);
    return buf;
}

std::string fmt(const char* f, std::initializer_list<const char*> args) {
    std::vector<const char*> a(args);
    VekStr out;
    VekStr_new(&out);
    lang_fmt_str(&out, f, (vek_s32)a.size(), a.data());
    std::string s = VekStr_buf(&out);
    VekStr_delete(&out);
    return s;
}

} // namespace

class Lang : public VekTest {};

TEST_F(Lang, TagsAndFallbacks) {
    EXPECT_EQ("pt_BR:pt", fallbacks("pt-br.UTF-8@euro"));
    EXPECT_EQ("pt_BR:pt:fr_FR:fr:en", fallbacks("pt_BR:fr_FR:pt:en"));
    EXPECT_EQ("zh_Hant_TW:zh_Hant:zh", fallbacks("ZH-hant-tw"));
    EXPECT_EQ("de", fallbacks("C:POSIX:de::x y:-a"));
    EXPECT_EQ("", fallbacks(nullptr));
}

#ifndef _WIN32
// As gettext reads the environment: LANGUAGE leads unless the locale is C.
TEST_F(Lang, UserLanguagesFromTheEnvironment) {
    const char* vars[] = {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"};
    std::string saved[4];
    bool had[4];
    for (int i = 0; i < 4; i++) {
        VekStr v;
        VekStr_new(&v);
        had[i] = vek_getenvx(vars[i], &v) >= 0;
        saved[i] = VekStr_buf(&v);
        VekStr_delete(&v);
    }
    struct Case {
        const char* language;
        const char* lcAll;
        const char* lcMessages;
        const char* lang;
        const char* want;
    } cases[] = {
        {nullptr, nullptr, nullptr, "pt_BR.UTF-8", "pt_BR"},
        {nullptr, nullptr, "de_AT", "fr_FR", "de_AT"},
        {"sv:nb", "en_GB.UTF-8", "de_AT", "fr_FR", "sv:nb:en_GB"},
        {"sv", "C", nullptr, "fr_FR", ""},
        {nullptr, nullptr, nullptr, nullptr, ""},
    };
    for (const Case& c : cases) {
        const char* vals[] = {c.language, c.lcAll, c.lcMessages, c.lang};
        for (int i = 0; i < 4; i++) {
            vek_setenv_utf8(vars[i], vals[i]);
        }
        char buf[128];
        lang_user(buf, sizeof buf);
        EXPECT_EQ(c.want, std::string(buf));
    }
    for (int i = 0; i < 4; i++) {
        vek_setenv_utf8(vars[i], had[i] ? saved[i].c_str() : nullptr);
    }
}
#else
TEST_F(Lang, UserLanguagesFromTheSystem) {
    char buf[256];
    vek_s32 n = lang_user(buf, sizeof buf);
    // Whatever the system says comes normalised: language small, region capital.
    ASSERT_GE(n, 0);
    std::string all = buf;
    std::string first = all.substr(0, all.find(':'));
    if (n > 0) {
        EXPECT_EQ(0u, fallbacks(buf).find(first)) << buf;
        EXPECT_TRUE(buf[0] >= 'a' && buf[0] <= 'z') << buf;
    }
}
#endif

TEST_F(Lang, CataloguesFallBackToTheBaseLanguage) {
    std::string dir = vektest::temp_dir("lang");
    vektest::write_file(dir + "/app.pt_BR.ini", "[Main]\r\nhello = Oi, {1}!\r\n");
    vektest::write_file(dir + "/app.pt.ini", "[main]\r\nHello=Olá\r\nbye = \"  Tchau \"\"{1}\"\" \"\r\n");
    vektest::write_file(dir + "/app.ini",
                        "[Main]\r\nhello=Hello, {1}!\r\nbye=Bye\r\nfiles={2} files in {1}\r\nlines=one\\ntwo\\\\\r\n");
    vek_s32 err = 1;
    LangCat* cat = lang_open(dir.c_str(), "app", "pt-BR", &err);
    ASSERT_NE(nullptr, cat);
    EXPECT_EQ(0, err);
    EXPECT_STREQ("pt_BR", lang_tag(cat));
    EXPECT_STREQ("Oi, {1}!", lang_get(cat, " MAIN ", "hello", nullptr));  // pt_BR wins over pt
    EXPECT_STREQ("  Tchau \"{1}\" ", lang_get(cat, "Main", "bye", nullptr));
    EXPECT_STREQ("one\ntwo\\", lang_get(cat, "Main", "lines", nullptr));
    EXPECT_STREQ("dflt", lang_get(cat, "Main", "none", "dflt"));
    VekStr out;
    VekStr_new(&out);
    EXPECT_EQ(8, lang_fmts(cat, &out, "Main", "hello", nullptr, "Ana", nullptr));
    EXPECT_STREQ("Oi, Ana!", VekStr_buf(&out));
    lang_fmts(cat, &out, "Main", "files", nullptr, "/tmp", "3", nullptr);
    EXPECT_STREQ("3 files in /tmp", VekStr_buf(&out));
    lang_close(cat);
    // A language with no file at all: the program's own.
    cat = lang_open(dir.c_str(), "app", "ja_JP", &err);
    EXPECT_STREQ("", lang_tag(cat));
    EXPECT_STREQ("Bye", lang_get(cat, "Main", "bye", nullptr));
    lang_close(cat);
    EXPECT_EQ(nullptr, lang_open(dir.c_str(), "other", "pt", &err));
    EXPECT_EQ(VEK_ERR_FILE_OPEN, err);
    VekStr_delete(&out);
    vektest::remove_tree(dir);
}

TEST_F(Lang, NumberedArguments) {
    EXPECT_EQ("b a b", fmt("{2} {1} {2}", {"a", "b"}));
    EXPECT_EQ("{x} {3} {0} { {1 {} x", fmt("{{x} {3} {0} {{ {1 {} {1}", {"x"}));
    EXPECT_EQ("k=v", fmt("{1}={2}", {"k", "v"}));
    EXPECT_EQ("j", fmt("{10}", {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"}));
    // Messages added later do not replace those already there.
    LangCat* cat = lang_new();
    EXPECT_EQ(0, lang_add_buf(cat, "greet=hi\r\n[S]\r\nk=1\r\n", -1));
    EXPECT_EQ(0, lang_add_buf(cat, "greet=ho\r\nmore=2\r\n", -1));
    EXPECT_STREQ("hi", lang_get(cat, nullptr, "greet", nullptr));
    EXPECT_STREQ("2", lang_get(cat, "", "more", nullptr));
    EXPECT_STREQ("1", lang_get(cat, "s", "K", nullptr));
    EXPECT_EQ(VEK_ERR_INI_LINE_LONG, lang_add_buf(cat, std::string(1100, 'x').c_str(), -1));
    lang_close(cat);
}
