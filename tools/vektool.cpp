/*
 * vektool - the library's command-line program.
 *
 *   vektool info     version, folders, configuration files, environment,
 *                    heap statistics, and the trace of its own run
 *   vektool ini ...  read, change, compare and reformat INI files
 *   vektool --help   the subcommands
 *
 * Exit codes: 0 found / done, 1 not found, 2 usage or file error (with a
 * message on stderr).
 */
#include <cstdio>
#include <cstring>
#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif
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

// ---- ini ----

const char* ini_error(vek_s32 code) {
    switch (code) {
    case VEK_ERR_FILE_OPEN: return "the file cannot be opened";
    case VEK_ERR_INI_LINE_LONG: return "a line is longer than 1024 bytes";
    case VEK_ERR_NOT_FOUND: return "not found";
    default: return "write error";
    }
}

int fail(const char* what, const char* path, vek_s32 code) {
    std::fprintf(stderr, "vektool ini %s: %s: %s (%d)\n", what, path, ini_error(code), (int)code);
    return 2;
}

// A command-line section name: "" (or "-") is the nameless section.
const char* sect_arg(const char* s) {
    return std::strcmp(s, "-") == 0 ? "" : s;
}

/* Loads a document; a missing file gives an empty one when allowMissing. */
IniFile* load_doc(const char* what, const char* path, bool allowMissing, int* rc) {
    vek_s32 err = 0;
    IniFile* doc = IniFile_newFile(path, &err);
    if (!doc && allowMissing && err == VEK_ERR_FILE_OPEN) {
        doc = IniFile_new(nullptr);
    }
    if (!doc) {
        *rc = fail(what, path, err);
    }
    return doc;
}

int save_doc(IniFile* doc, const char* path) {
    vek_s32 r = IniFile_outFile(doc, path);
    IniFile_delete(doc);
    return r < 0 ? fail("write", path, r) : 0;
}

// INI text goes out with its CR LF line ends as they stand.
void binary_stdout() {
    std::fflush(stdout);
#ifdef _WIN32
    _setmode(_fileno(stdout), _O_BINARY);
#endif
}

void write_stdout(IniFile* doc) {
    char* text = nullptr;
    vek_s32 len = IniFile_outBuf(doc, &text);
    if (len > 0) {
        std::fwrite(text, 1, (size_t)len, stdout);
    }
    vek_free__(text);
}

int ini_get(int argc, char** argv) {
    if (argc != 3) {
        return -1;
    }
    int rc = 0;
    IniFile* doc = load_doc("get", argv[0], false, &rc);
    if (!doc) {
        return rc;
    }
    IniField* f = IniFile_findField(doc, sect_arg(argv[1]), argv[2]);
    if (f) {
        std::printf("%s\n", VekStr_buf(&f->value));
    }
    IniFile_delete(doc);
    return f ? 0 : 1;
}

int ini_set(int argc, char** argv) {
    if (argc != 4) {
        return -1;
    }
    int rc = 0;
    IniFile* doc = load_doc("set", argv[0], true, &rc);
    if (!doc) {
        return rc;  // an unreadable file is never overwritten
    }
    IniFile_setStr(doc, sect_arg(argv[1]), argv[2], argv[3]);
    return save_doc(doc, argv[0]);
}

int ini_del(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        return -1;
    }
    int rc = 0;
    IniFile* doc = load_doc("del", argv[0], false, &rc);
    if (!doc) {
        return rc;
    }
    vek_s32 r = argc == 3 ? IniFile_delField(doc, sect_arg(argv[1]), argv[2])
                          : IniFile_delSect(doc, sect_arg(argv[1]));
    if (r == VEK_ERR_NOT_FOUND) {
        IniFile_delete(doc);
        return 1;
    }
    return save_doc(doc, argv[0]);
}

int ini_sections(int argc, char** argv) {
    if (argc != 1) {
        return -1;
    }
    int rc = 0;
    IniFile* doc = load_doc("sections", argv[0], false, &rc);
    if (!doc) {
        return rc;
    }
    for (vek_s32 i = 0; i < IniFile_sectCount(doc); i++) {
        IniSect* s = IniFile_sectById(doc, i);
        std::printf("%s\n", VekStr_len(&s->name) ? VekStr_buf(&s->name) : "-");
    }
    IniFile_delete(doc);
    return 0;
}

int ini_diff(int argc, char** argv) {
    if (argc != 2) {
        return -1;
    }
    int rc = 0;
    IniFile* oldDoc = load_doc("diff", argv[0], false, &rc);
    IniFile* newDoc = oldDoc ? load_doc("diff", argv[1], false, &rc) : nullptr;
    if (!newDoc) {
        if (oldDoc) {
            IniFile_delete(oldDoc);
        }
        return rc;
    }
    IniFile* parts[3] = {IniFile_new(nullptr), IniFile_new(nullptr), IniFile_new(nullptr)};
    IniFile_diff(oldDoc, newDoc, parts[0], parts[1], parts[2]);
    const char* names[3] = {"added", "changed", "removed"};
    binary_stdout();
    for (int i = 0; i < 3; i++) {
        std::printf("; %s\r\n", names[i]);
        write_stdout(parts[i]);
        IniFile_delete(parts[i]);
    }
    IniFile_delete(oldDoc);
    IniFile_delete(newDoc);
    return 0;
}

int ini_fmt(int argc, char** argv) {
    if (argc != 1) {
        return -1;
    }
    int rc = 0;
    IniFile* doc = load_doc("fmt", argv[0], false, &rc);
    if (!doc) {
        return rc;
    }
    binary_stdout();
    write_stdout(doc);
    IniFile_delete(doc);
    return 0;
}

const Command kIniCommands[] = {
    {"get", "ini get FILE SECT KEY", "print a value (exit 1 when absent)", ini_get},
    {"set", "ini set FILE SECT KEY VALUE", "set a value; the file is replaced safely", ini_set},
    {"del", "ini del FILE SECT [KEY]", "delete a field or a whole section", ini_del},
    {"sections", "ini sections FILE", "list the sections (\"-\" is the nameless one)", ini_sections},
    {"diff", "ini diff OLD NEW", "print what was added, changed and removed, as INI text", ini_diff},
    {"fmt", "ini fmt FILE", "write the file back to stdout (CR LF line ends)", ini_fmt},
};

int cmd_ini(int argc, char** argv) {
    if (argc >= 1) {
        for (const Command& c : kIniCommands) {
            if (!std::strcmp(argv[0], c.name)) {
                int rc = c.run(argc - 1, argv + 1);
                if (rc >= 0) {
                    return rc;
                }
                std::fprintf(stderr, "usage: vektool %s\n", c.usage);
                return 2;
            }
        }
    }
    std::fprintf(stderr, "usage: vektool ini get|set|del|sections|diff|fmt ... (see vektool --help)\n");
    return 2;
}

int cmd_help(int, char**);

const Command kCommands[] = {
    {"info", "info", "version, folders, configuration, environment and heap statistics", cmd_info},
    {"ini", "ini get|set|del|sections|diff|fmt ...", "INI files (section \"-\" or \"\" is the nameless one)", cmd_ini},
    {"--help", "--help", "this list", cmd_help},
};

int cmd_help(int, char**) {
    std::printf("usage: vektool <command> [arguments]\n\ncommands:\n");
    for (const Command& c : kCommands) {
        std::printf("  %-34s %s\n", c.usage, c.help);
    }
    for (const Command& c : kIniCommands) {
        std::printf("  %-34s %s\n", c.usage, c.help);
    }
    std::printf("\nexit codes: 0 found/done, 1 not found, 2 usage or file error\n");
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
    // and the leak report of BaseLib_exit show (for info; the ini commands
    // keep stderr for their messages).
    if (cmd->run == cmd_info) {
        tout_set_sink(print_record, stderr);
    }
    BaseLib_init();
    int rc = cmd->run(argc - 2, argv + 2);
    std::fflush(stdout);
    BaseLib_exit();
    tout_set_sink(nullptr, nullptr);
    return rc;
}
