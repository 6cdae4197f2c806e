/*
 * vektool - the library's command-line program.
 *
 *   vektool info     version, folders, configuration files, environment,
 *                    heap statistics, and the trace of its own run
 *   vektool --help   the subcommands
 */
#include <cstdio>
#include <cstring>
#include "BaseLib.h"

namespace {

struct Command {
    const char* name;
    const char* usage;
    const char* help;
    int (*run)(int argc, char** argv);
};

void print_record(void* ctx, const char* text, vek_s32 len) {
    std::FILE* out = (std::FILE*)ctx;
    std::fprintf(out, "  | ");
    for (vek_s32 i = 0; i < len; i++) {
        std::fputc(text[i], out);
        if (text[i] == '\n' && i + 1 < len) {
            std::fprintf(out, "  | ");
        }
    }
    std::fputc('\n', out);
}

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

int cmd_info(int, char**) {
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

int cmd_help(int, char**);

const Command kCommands[] = {
    {"info", "info", "version, folders, configuration, environment and heap statistics", cmd_info},
    {"--help", "--help", "this list", cmd_help},
};

int cmd_help(int, char**) {
    std::printf("usage: vektool <command> [arguments]\n\ncommands:\n");
    for (const Command& c : kCommands) {
        std::printf("  %-34s %s\n", c.usage, c.help);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        cmd_help(argc, argv);
        return 2;
    }
    const Command* cmd = nullptr;
    for (const Command& c : kCommands) {
        if (!std::strcmp(argv[1], c.name) || (!std::strcmp(argv[1], "-h") && c.run == cmd_help)) {
            cmd = &c;
        }
    }
    if (!cmd) {
        std::fprintf(stderr, "vektool: unknown command \"%s\" (see vektool --help)\n", argv[1]);
        return 2;
    }
    if (cmd->run == cmd_help) {
        return cmd_help(argc, argv);
    }
    // The program's own run is traced to stderr, so the environment record
    // and the leak report of BaseLib_exit show.
    tout_set_sink(print_record, stderr);
    BaseLib_init();
    int rc = cmd->run(argc - 2, argv + 2);
    std::fflush(stdout);
    BaseLib_exit();
    tout_set_sink(nullptr, nullptr);
    return rc;
}
