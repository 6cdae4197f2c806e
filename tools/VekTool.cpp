/*
 * vektool - the library's command-line program: finds the command module,
 * answers --help and --version, and runs the command between
 * BaseLib_init() and BaseLib_exit().
 */
#include "VekTool.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>
#include <cstdlib>
#include <string>
#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <cwchar>
#include <windows.h>
#else
#include <sys/stat.h>
#endif

namespace vektool {

namespace {

std::vector<const Command*>& registry() {
    static std::vector<const Command*> cmds;
    return cmds;
}

bool is_help(const char* arg) {
    return !std::strcmp(arg, "--help") || !std::strcmp(arg, "-h");
}

bool asks_help(int argc, char** argv) {
    for (int i = 0; i < argc; i++) {
        if (!std::strcmp(argv[i], "--")) {
            return false;
        }
        if (is_help(argv[i])) {
            return true;
        }
    }
    return false;
}

enum class PathKind { none, directory, regular, special };

const char kNotRegular[] = "not a regular file (devices, FIFOs and other special files are not changed)";

#ifdef _WIN32
std::wstring wide(const char* text) {
    int n = MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0);
    std::wstring w(n > 0 ? (size_t)n : 1, L'\0');
    if (n > 0) {
        MultiByteToWideChar(CP_UTF8, 0, text, -1, &w[0], n);
    }
    w.resize(std::wcslen(w.c_str()));
    return w;
}

std::string narrow(const wchar_t* text) {
    int n = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string s(n > 0 ? (size_t)n : 1, '\0');
    if (n > 0) {
        WideCharToMultiByte(CP_UTF8, 0, text, -1, &s[0], n, nullptr, nullptr);
    }
    s.resize(std::strlen(s.c_str()));
    return s;
}

// Devices have no attributes here; they show as special once open.
PathKind path_kind(const char* path) {
    DWORD attr = GetFileAttributesW(wide(path).c_str());
    return attr == INVALID_FILE_ATTRIBUTES             ? PathKind::none
           : (attr & FILE_ATTRIBUTE_DIRECTORY) != 0 ? PathKind::directory
                                                     : PathKind::regular;
}

bool is_regular(std::FILE* f) {
    return GetFileType((HANDLE)_get_osfhandle(_fileno(f))) == FILE_TYPE_DISK;
}

// The name every process uses for the file's lock, whatever way it was
// spelled (the lock's name is lower-cased, as Windows names are).
std::string full_path(const char* path) {
    wchar_t buf[32768];
    DWORD n = GetFullPathNameW(wide(path).c_str(), 32768, buf, nullptr);
    return n > 0 && n < 32768 ? narrow(buf) : std::string(path);
}
#else
PathKind path_kind(const char* path) {
    struct stat st;
    return stat(path, &st) != 0      ? PathKind::none
           : S_ISDIR(st.st_mode) ? PathKind::directory
           : S_ISREG(st.st_mode) ? PathKind::regular
                                 : PathKind::special;
}

bool is_regular(std::FILE* f) {
    struct stat st;
    return fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode);
}

// The name every process uses for the file's lock: absolute, links
// resolved (the file itself may not exist yet: then its folder's).
std::string full_path(const char* path) {
    std::string result = path;
    if (char* real = realpath(path, nullptr)) {
        result = real;
        std::free(real);
        return result;
    }
    std::string p = path;
    size_t slash = p.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : p.substr(0, slash);
    if (char* real = realpath(dir.c_str(), nullptr)) {
        result = std::string(real) + "/" + p.substr(slash == std::string::npos ? 0 : slash + 1);
        std::free(real);
    }
    return result;
}
#endif

void print_help() {
    std::printf("usage: vektool <command> [arguments]\n"
                "       vektool <command> --help | --help | --version\n\ncommands:\n");
    for (std::size_t i = 0; const Command* c = command_at(i); i++) {
        if (c->subCount == 0) {
            std::printf("  %-36s %s\n", c->usage, c->summary);
        }
        for (std::size_t k = 0; k < c->subCount; k++) {
            std::printf("  %-36s %s\n", c->subs[k].usage, c->subs[k].summary);
        }
    }
    std::printf("\n\"-\" as a file reads standard input.\n"
                "exit codes: 0 done/found/equal, 1 not found/different, 2 usage or file error\n");
}

void print_family_help(const Command& c) {
    std::printf("usage: vektool %s\n\n%s\n\n", c.usage, c.summary);
    for (std::size_t k = 0; k < c.subCount; k++) {
        std::printf("  %-36s %s\n", c.subs[k].usage, c.subs[k].summary);
    }
}

int usage_error(const char* usage) {
    std::fprintf(stderr, "usage: vektool %s (see vektool --help)\n", usage);
    return kFailed;
}

/* Chooses what to run; help and usage errors are answered here. */
int dispatch(const Command& c, int argc, char** argv, int (**run)(int, char**), int* skip,
             const char** usage) {
    if (c.subCount == 0) {
        if (asks_help(argc, argv)) {
            std::printf("usage: vektool %s\n\n%s\n", c.usage, c.summary);
            return kDone;
        }
        *run = c.run;
        *skip = 0;
        *usage = c.usage;
        return kUsage;
    }
    if (argc < 1 || is_help(argv[0])) {
        print_family_help(c);
        return argc < 1 ? kFailed : kDone;
    }
    for (std::size_t k = 0; k < c.subCount; k++) {
        if (!std::strcmp(argv[0], c.subs[k].name)) {
            if (asks_help(argc - 1, argv + 1)) {
                std::printf("usage: vektool %s\n\n%s\n", c.subs[k].usage, c.subs[k].summary);
                return kDone;
            }
            *run = c.subs[k].run;
            *skip = 1;
            *usage = c.subs[k].usage;
            return kUsage;
        }
    }
    std::fprintf(stderr, "vektool %s: unknown subcommand \"%s\"\n", c.name, argv[0]);
    return usage_error(c.usage);
}

} // namespace

Registrar::Registrar(const Command& cmd) {
    auto& cmds = registry();
    cmds.insert(std::upper_bound(cmds.begin(), cmds.end(), &cmd,
                                 [](const Command* a, const Command* b) {
                                     return std::strcmp(a->name, b->name) < 0;
                                 }),
                &cmd);
}

const Command* command_at(std::size_t i) {
    return i < registry().size() ? registry()[i] : nullptr;
}

int fail(const char* what, const char* path, const std::string& reason) {
    std::fprintf(stderr, "vektool %s: %s: %s\n", what, path, reason.c_str());
    return kFailed;
}

std::string os_reason() {
    return std::strerror(errno);
}

void binary_stdout() {
    std::fflush(stdout);
#ifdef _WIN32
    _setmode(_fileno(stdout), _O_BINARY);
#endif
}

void binary_stdin() {
#ifdef _WIN32
    _setmode(_fileno(stdin), _O_BINARY);
#endif
}

std::FILE* open_file(const char* path, const char* mode) {
#ifdef _WIN32
    std::wstring wpath = wide(path);
    std::wstring wmode = wide(mode);
    return _wfopen(wpath.c_str(), wmode.c_str());
#else
    return std::fopen(path, mode);
#endif
}

bool read_input(const char* what, const char* path, std::string& out, InputInfo* info) {
    bool isStdin = !std::strcmp(path, "-");
    bool regularOnly = info && info->regularOnly;
    std::FILE* f = stdin;
    bool regular = false;
    out.clear();
    if (isStdin) {
        binary_stdin();
    } else {
        // A directory opens for reading on some systems and then reads as
        // nothing, which must not pass for an empty file; a FIFO would
        // block or lose its data before it could be refused.
        PathKind kind = path_kind(path);
        if (kind == PathKind::directory) {
            fail(what, path, std::strerror(EISDIR));
            return false;
        }
        if (regularOnly && kind == PathKind::special) {
            fail(what, path, kNotRegular);
            return false;
        }
        errno = 0;
        f = open_file(path, "rb");
        if (!f && info && errno == ENOENT) {
            info->missing = true;
            info->regular = false;
            return true;
        }
        if (!f) {
            fail(what, path, os_reason());
            return false;
        }
        regular = is_regular(f);
        if (regularOnly && !regular) {
            std::fclose(f);
            fail(what, path, kNotRegular);
            return false;
        }
    }
    char buf[65536];
    size_t n;
    errno = 0;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
        out.append(buf, n);
    }
    bool ok = !std::ferror(f);
    std::string reason = ok ? std::string() : os_reason();
    if (!isStdin) {
        std::fclose(f);
    }
    if (!ok) {
        fail(what, isStdin ? "standard input" : path, reason);
    }
    if (info) {
        info->missing = false;
        info->regular = regular;
    }
    return ok;
}

FileLock::FileLock(const char* path) {
    if (!path) {
        held_ = true;
        return;
    }
    VekStr name;
    VekStr_new(&name);
    vek_file_mutex__(&name, full_path(path).c_str());
    mutex_ = vek_lock_create__(VekStr_buf(&name), 0);
    VekStr_delete(&name);
    held_ = mutex_ && vek_lock_lock__(mutex_, -1, 1) == 0;
}

FileLock::~FileLock() {
    if (held_ && mutex_) {
        vek_lock_unlock(mutex_);
    }
    if (mutex_) {
        vek_lock_close(mutex_);
    }
}

void write_out(const void* data, std::size_t len) {
    if (len) {
        std::fwrite(data, 1, len, stdout);
    }
}

} // namespace vektool

int main(int argc, char** argv) {
    using namespace vektool;
    if (argc < 2) {
        print_help();
        return kFailed;
    }
    if (is_help(argv[1])) {
        print_help();
        return kDone;
    }
    if (!std::strcmp(argv[1], "--version")) {
        std::printf("vektool (BaseLib) %s\n", vek_version());
        return kDone;
    }
    const Command* cmd = nullptr;
    for (std::size_t i = 0; const Command* c = command_at(i); i++) {
        if (!std::strcmp(argv[1], c->name)) {
            cmd = c;
        }
    }
    if (!cmd) {
        std::fprintf(stderr, "vektool: unknown command \"%s\" (see vektool --help)\n", argv[1]);
        return kFailed;
    }
    int (*run)(int, char**) = nullptr;
    int skip = 0;
    const char* usage = nullptr;
    int rc = dispatch(*cmd, argc - 2, argv + 2, &run, &skip, &usage);
    if (rc == kUsage) {
        BaseLib_init();
        // "--" ends the options: what follows is taken as it stands, so a
        // value may be "--help".
        if (argc - 2 > skip && !std::strcmp(argv[2 + skip], "--")) {
            skip++;
        }
        rc = run(argc - 2 - skip, argv + 2 + skip);
        BaseLib_exit();
        if (rc == kUsage) {
            rc = usage_error(usage);
        }
    }
    // Output that could not be written is a failure, whatever the command
    // found: a full disk or a closed pipe must not look like success.
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "vektool: standard output: %s\n", os_reason().c_str());
        return kFailed;
    }
    return rc;
}
