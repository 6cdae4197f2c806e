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
int watch_run(const vektool::Args& args) {
    vek_s32 flags = args.flag("--recursive") ? VEK_FILEMON_RECURSIVE : 0;
    const char* dir = args[0];
    if (!*dir) {
        return vektool::kUsage;
    }
    FileMon* mon = nullptr;
    vek_s32 r = FileMon_new(dir, flags, nullptr, nullptr, &mon);
    if (r != 0) {
        return vektool::fail("watch", dir, vek_err_text(r));
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
        if (std::fflush(stdout) != 0) {
            break;  // the reader went away: nobody is left to tell
        }
    }
    FileMon_delete(mon);
    if (std::ferror(stdout)) {
        return vektool::kFailed;
    }
    // The folder itself was removed: nothing more can come.
    return r == VEK_ERR_EOF ? vektool::kDone : vektool::fail("watch", dir, vek_err_text(r));
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

int get_run(const vektool::Args& args) {
    const char* url = args[0];
    const char* path = args[1];
    if (!*url || !*path) {
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
    vek_s32 r;
    if (!std::strcmp(path, "-")) {
        // Standard output gets the body only once it is whole, as a file would.
        opt.maxBytes = (vek_s64)vektool::kWholeMax;
        VekStr body;
        VekStr_new(&body);
        r = net_http_get(url, &body, &opt, &status);
        if (r == 0) {
            vektool::binary_stdout();
            vektool::write_out(VekStr_buf(&body), (std::size_t)VekStr_len(&body));
        }
        VekStr_delete(&body);
    } else {
        r = net_http_get_file(url, path, &opt, &status);
    }
    if (bar) {
        std::fputc('\n', stderr);
    }
    if (r == VEK_ERR_HTTP_STATUS) {
        return vektool::fail("get", url, "the server answered " + std::to_string(status));
    }
    if (r != 0) {
        return vektool::fail("get", r == VEK_ERR_WRITE ? path : url, vek_err_text(r));
    }
    return vektool::kDone;
}

const vektool::Option kWatchOptions[] = {
    {"--recursive", "-r", nullptr, "also the folders below DIR, those created later included"},
    {nullptr, nullptr, nullptr, nullptr},
};

const vektool::SubCommand kWatch[] = {
    {nullptr, "watch [--recursive] DIR",
     "print the changes in a folder as lines: TYPE, tab, PATH (renamed: TYPE, tab, OLD, tab, NEW)", watch_run, 1,
     1, kWatchOptions,
     "runs until DIR itself is removed (exit 0) or the program is ended\n"
     "TYPE is created, deleted, changed, renamed or rescan (events may have been lost: read the\n"
     "folder again); a folder's path ends with the separator."},
};
const vektool::SubCommand kGet[] = {
    {nullptr, "get URL FILE|-", "download URL to FILE, or to standard output for \"-\"", get_run, 2, 2, nullptr,
     "FILE is replaced only by a complete download with a status below 400\n"
     "a failed download leaves FILE as it was; a progress bar is drawn when stderr is a terminal;\n"
     "\"-\" writes the body to standard output once it has arrived whole (up to 256 MiB)."},
};

} // namespace

static const vektool::Command kWatchCmd = {"watch", "watch [--recursive] DIR", "print a folder's changes as lines",
                                           kWatch, 1};
VEKTOOL_COMMAND(kWatchCmd);
static const vektool::Command kGetCmd = {"get", "get URL FILE|-", "download a URL to a file, replaced safely", kGet,
                                         1};
VEKTOOL_COMMAND(kGetCmd);
