/*
 * The loadable-library manager with a real library (tests/plugin): the
 * first loadable candidate wins, every name of one library shares one
 * record, the last unload really unloads, and what is missing is named.
 */
#include <string>
#include "VekTest.h"

namespace {

using NextFn = int (*)(void);

std::string plugin_path() {
    return std::string(vek_base_fld()) + "/" + CM_PLUGIN_NAME;
}

} // namespace

using Cm = VekTest;

TEST_F(Cm, CandidatesSharingAndUnload) {
    vek_s32 before = cm_count();
    CmLib* a = nullptr;
    // A bare name is found in the library's own folder.
    ASSERT_EQ(0, cm_load("no-such-library-1|" CM_PLUGIN_NAME "|no-such-library-2", &a));
    EXPECT_STREQ(CM_PLUGIN_NAME, cm_name(a));
    auto next = (NextFn)cm_sym(a, "cm_plugin_next");
    ASSERT_TRUE(next);
    EXPECT_EQ(1, next());
    char path[1024];
    EXPECT_GT(cm_path(a, path, sizeof path), 0);
    EXPECT_NE(std::string::npos, std::string(path).find(CM_PLUGIN_NAME));

    CmLib* b = nullptr;
    std::string keep = plugin_path();
    const char* byPath[] = {nullptr, keep.c_str()};
    ASSERT_EQ(0, cm_loadv(byPath, 2, &b));
    EXPECT_EQ(a, b) << "another name of the same file shares the record";
    EXPECT_EQ(before + 1, cm_count());
    EXPECT_EQ(2, next()) << "still the same copy in memory";

    const char* names[] = {"cm_plugin_next", "cm_plugin_missing"};
    void* syms[2] = {(void*)1, (void*)1};
    EXPECT_EQ(VEK_ERR_LIB_SYMBOL, cm_syms(a, names, syms, 2));
    EXPECT_EQ(nullptr, syms[0]);
    char err[256];
    cm_error(err, sizeof err);
    EXPECT_NE(std::string::npos, std::string(err).find("cm_plugin_missing"));
    EXPECT_EQ(0, cm_syms(a, names, syms, 1));

    EXPECT_EQ(3, cm_addref(a));
    EXPECT_EQ(2, cm_unload(a));
    EXPECT_EQ(1, cm_unload(b));
    EXPECT_EQ(0, cm_unload(a));
    EXPECT_EQ(before, cm_count());
    ASSERT_EQ(0, cm_load(keep.c_str(), &a));
    next = (NextFn)cm_sym(a, "cm_plugin_next");
    EXPECT_EQ(1, next()) << "the last unload unloaded it";
    EXPECT_EQ(0, cm_unload(a));
}

TEST_F(Cm, MissingLibrariesAreNamedAndTheRestWorks) {
    CmLib* lib = (CmLib*)1;
    EXPECT_EQ(VEK_ERR_NO_LIBRARY, cm_load("no-such-library-a|no-such-library-b", &lib));
    EXPECT_EQ(nullptr, lib);
    char err[256];
    EXPECT_GT(cm_error(err, sizeof err), 0);
    EXPECT_EQ(0u, std::string(err).find("no-such-library-b")) << err;
    EXPECT_EQ(VEK_ERR_NO_LIBRARY, cm_load("||", &lib));
    EXPECT_ASSERT("names && lib", EXPECT_EQ(VEK_ERR_BAD_ARG, cm_load(nullptr, &lib)));
}
