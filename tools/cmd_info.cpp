/*
 * vektool info: version, folders, configuration files, environment and heap
 * statistics of this installation.
 */
#include <cstdio>
#include "VekTool.h"

namespace {

bool file_exists(const char* path) {
    AlFile* f = path ? AlFile_open(path, "rb") : nullptr;
    if (f) {
        AlFile_close(f);
    }
    return f != nullptr;
}

void print_config(const char* label, const char* path) {
    std::printf("%-14s %s (%s)\n", label, path ? path : "(none)",
                file_exists(path) ? "present" : "missing");
}

int cmd_info(const vektool::Args&) {
    std::printf("BaseLib %s\n", vek_version());
    std::printf("%-14s %s\n", "base folder:", vek_base_fld());
    print_config("system config:", vek_sys_rtc_file());
    print_config("debug config:", vek_dbg_rtc_file());
    print_config("trace config:", vek_trc_rtc_file());

    VekTrcInfo trc;
    tout_info(&trc);
    std::printf("%-14s %s%s%s\n", "trace:", trc.type[0] ? trc.type : "off",
                trc.fileName[0] ? " -> " : "", trc.fileName);
    std::printf("%-14s %d\n", "leak checking:", (int)vek_leak_chking());

    TinyStr env;
    TinyStr_new(&env);
    vek_env_text(&env);
    std::printf("%s", TinyStr_buf(&env));
    TinyStr_delete(&env);

    VekHeapStat st;
    if (vek_heap_stat(&st) == 0) {
        std::printf("heap: %lld live blocks; allocations %llu, live bytes %lld, peak bytes %lld%s\n",
                    (long long)st.liveBlocks, (unsigned long long)st.allocCount,
                    (long long)st.liveBytes, (long long)st.peakBytes,
                    st.allocCount ? "" : " (set RecStatInfo=1 in section VekHeap of VekDbg.ini for statistics)");
    }
    return 0;
}

const vektool::SubCommand kInfoRun[] = {
    {nullptr, "info", "version, folders, configuration, environment and heap statistics", cmd_info}};

} // namespace

static const vektool::Command kInfo = {"info", "info", "version, folders, configuration, environment and heap statistics",
                                       kInfoRun, 1};
VEKTOOL_COMMAND(kInfo);
