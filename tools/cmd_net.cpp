/*
 * vektool watch and get: the events of a folder as lines, and a download
 * to a file.
 */
#include <cstdio>
#include <cstring>
#include <string>
#ifdef _WIN32
#include <io.h>
#define VEKTOOL_ISATTY(f) _isatty(_fileno(f))
#define VEKTOOL_SEP "\\"
#else
#include <unistd.h>
#define VEKTOOL_ISATTY(f) isatty(fileno(f))
#define VEKTOOL_SEP "/"
#endif
#include "VekTool.h"

namespace {

// One line per event, fields separated by tabs: the type, the path, and
// for a rename the old path; a folder's path ends with the separator.
int watch_run(int argc, char** argv) {
    vek_s32 flags = 0;
    if (argc == 2 && !std::strcmp(argv[0], "--recursive")) {
        flags = VEK_FILEMON_RECURSIVE;
        argv++;
        argc--;
    }
    if (argc != 1 || !*argv[0]) {
        return vektool::kUsage;
    }
    FileMon* mon = nullptr;
    vek_s32 r = FileMon_new(argv[0], flags, nullptr, nullptr, &mon);
    if (r != 0) {
        return vektool::fail("watch", argv[0], vek_err_text(r));
    }
    vektool::binary_stdout();
    VekMonEvt e;
    while ((r = FileMon_read(mon, &e, -1, 0)) == 0) {
        std::string line = vek_mon_type_name(e.type);
        const char* dirMark = (e.flags & VEK_MON_DIR) && *e.path ? VEKTOOL_SEP : "";
        if (e.type == VEK_MON_RENAMED) {
            line = line + "\t" + e.oldPath + dirMark;
        }
        line = line + "\t" + e.path + dirMark + "\n";
        vektool::write_out(line.data(), line.size());
        std::fflush(stdout);  // a reader of the pipe sees each event as it comes
    }
    FileMon_delete(mon);
    // The folder itself was removed: nothing more can come.
    return r == VEK_ERR_EOF ? vektool::kDone : vektool::fail("watch", argv[0], vek_err_text(r));
}

// A bar on stderr, redrawn in place when a terminal shows it.
vek_s32 show_progress(void*, vek_s64 now, vek_s64 total, vek_s64, vek_s64) {
    if (total > 0) {
        int done = (int)(now * 40 / total);
        std::fprintf(stderr, "\r[%-40.*s] %3d%%", done, "########################################",
                     (int)(now * 100 / total));
    } else {
        std::fprintf(stderr, "\r%lld bytes", (long long)now);
    }
    return 0;
}

int get_run(int argc, char** argv) {
    if (argc != 2 || !*argv[0] || !*argv[1]) {
        return vektool::kUsage;
    }
    NetReqOpt opt = {};
    opt.connectTimeoutMs = 30000;
    opt.stallMs = 60000;
    bool bar = VEKTOOL_ISATTY(stderr) != 0;
    if (bar) {
        opt.progress = show_progress;
    }
    vek_s32 status = 0;
    vek_s32 r = net_http_get_file(argv[0], argv[1], &opt, &status);
    if (bar) {
        std::fputc('\n', stderr);
    }
    if (r == VEK_ERR_HTTP_STATUS) {
        return vektool::fail("get", argv[0], "the server answered " + std::to_string(status));
    }
    if (r != 0) {
        return vektool::fail("get", r == VEK_ERR_WRITE ? argv[1] : argv[0], vek_err_text(r));
    }
    return vektool::kDone;
}

} // namespace

static const vektool::Command kWatchCmd = {
    "watch", "watch [--recursive] DIR",
    "print the changes in a folder as lines: TYPE, tab, PATH (renamed: OLD, tab, NEW)", watch_run, nullptr, 0};
VEKTOOL_COMMAND(kWatchCmd);
static const vektool::Command kGetCmd = {
    "get", "get URL FILE",
    "download URL to FILE (replaced only by a complete download; a progress bar when stderr is a terminal)",
    get_run, nullptr, 0};
VEKTOOL_COMMAND(kGetCmd);
