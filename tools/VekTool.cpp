/*
 * vektool - the library's command-line program: finds the command module,
 * parses its arguments by the shared rules (VekTool.h), answers --help and
 * --version, and runs the command between BaseLib_init() and
 * BaseLib_exit().
 */
#include "VekTool.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>
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

void print_options(std::FILE* out, const Option* opts) {
    std::fprintf(out, "\noptions:\n");
    for (const Option* o = opts; o && o->name; o++) {
        std::string form = o->alias ? std::string(o->alias) + ", " + o->name : std::string("    ") + o->name;
        if (o->value) {
            form += std::string(" ") + o->value;
        }
        std::fprintf(out, "  %-22s %s\n", form.c_str(), o->help);
    }
    std::fprintf(out, "  %-22s %s\n", "-h, --help", "this help");
}

// The first line of a text.
std::string first_line(const char* text) {
    const char* nl = std::strchr(text, '\n');
    return nl ? std::string(text, (size_t)(nl - text)) : std::string(text);
}

// A command's notes: the first line says in short where it departs from
// the library call it builds on, the rest says more.
void print_notes(const char* notes) {
    if (notes) {
        const char* nl = std::strchr(notes, '\n');
        std::printf("\nwhere it departs from the library: %s\n%s%s", first_line(notes).c_str(), nl ? nl + 1 : "",
                    nl ? "\n" : "");
    }
}

void print_sub_help(const SubCommand& s) {
    std::printf("usage: vektool %s\n\n%s\n", s.usage, s.summary);
    print_options(stdout, s.options);
    print_notes(s.notes);
}

void print_help(std::FILE* out) {
    std::fprintf(out, "usage: vektool COMMAND [SUBCOMMAND] [OPTIONS] [--] [OPERANDS]\n"
                      "       vektool COMMAND --help | --help | --version\n\ncommands:\n");
    for (std::size_t i = 0; const Command* c = command_at(i); i++) {
        for (std::size_t k = 0; k < c->subCount; k++) {
            std::fprintf(out, "  %-40s %s\n", c->subs[k].usage, c->subs[k].summary);
        }
    }
    std::fprintf(out,
                 "\nOptions come before the operands: the first operand ends them, and \"--\" does\n"
                 "too (then an operand may start with \"-\"). An unknown option is an error.\n"
                 "\"-\" as a file reads standard input.\n"
                 "exit codes: 0 done/found/equal, 1 not found/different, 2 usage, file or data error\n"
                 "\nwhere a command departs from the library call it builds on (its --help says more):\n");
    for (std::size_t i = 0; const Command* c = command_at(i); i++) {
        for (std::size_t k = 0; k < c->subCount; k++) {
            if (c->subs[k].notes) {
                std::string name = c->subs[k].name ? std::string(c->name) + " " + c->subs[k].name : c->name;
                std::fprintf(out, "  %-12s %s\n", name.c_str(), first_line(c->subs[k].notes).c_str());
            }
        }
    }
}

void print_family_help(std::FILE* out, const Command& c) {
    std::fprintf(out, "usage: vektool %s\n\n%s\n\n", c.usage, c.summary);
    bool departs = false;
    for (std::size_t k = 0; k < c.subCount; k++) {
        std::fprintf(out, "  %-40s %s\n", c.subs[k].usage, c.subs[k].summary);
        departs = departs || c.subs[k].notes;
    }
    if (departs) {
        std::fprintf(out, "\nwhere they depart from the library (each --help says more):\n");
        for (std::size_t k = 0; k < c.subCount; k++) {
            if (c.subs[k].notes) {
                std::fprintf(out, "  %-8s %s\n", c.subs[k].name, first_line(c.subs[k].notes).c_str());
            }
        }
    }
}

int usage_error(const char* usage) {
    std::fprintf(stderr, "usage: vektool %s (see vektool --help)\n", usage);
    return kFailed;
}

const Option* find_option(const SubCommand& s, const char* arg, size_t len) {
    for (const Option* o = s.options; o && o->name; o++) {
        if ((std::strlen(o->name) == len && !std::strncmp(o->name, arg, len)) ||
            (o->alias && std::strlen(o->alias) == len && !std::strncmp(o->alias, arg, len))) {
            return o;
        }
    }
    return nullptr;
}

/* The stream behind stdout_strm(): one static record of the object model's
 * shape whose writes go to standard output. Reading, seeking and sizing are
 * not supported; references are not counted, it lives as long as the run. */
struct StdoutStrm {
    vek_u32 cls;
    AlAtom ref;
    const IStrmVtbl* vtbl;
    vek_s64 written;
    long column;  // bytes since the last LF
};

StdoutStrm& out_strm();

vek_s32 os_write(IStrm*, const void* data, vek_s32 len) {
    if (!data || len <= 0) {
        return VEK_ERR_BAD_ARG;
    }
    write_out(data, (size_t)len);
    StdoutStrm& s = out_strm();
    s.written += len;
    const char* p = (const char*)data;
    const char* q = p + len;
    while (q > p && q[-1] != '\n') {
        q--;
    }
    s.column = q > p ? (long)(p + len - q) : s.column + len;
    return len;
}

const IStrmVtbl kStdoutVtbl = {
    [](IStrm*, const VekGuid*, void** out) -> vek_s32 {
        if (out) {
            *out = nullptr;
        }
        return VEK_ERR_NOT_SUPPORTED;
    },
    [](IStrm*) -> vek_s32 { return 1; },
    [](IStrm*) -> vek_s32 { return 1; },
    [](IStrm* self, vek_s32 byte) -> vek_s32 {
        char c = (char)byte;
        return os_write(self, &c, 1) == 1 ? 0 : VEK_ERR_BAD_ARG;
    },
    [](IStrm*) -> vek_s32 { return VEK_ERR_EOF; },
    [](IStrm*) -> vek_s32 { return VEK_ERR_NOT_OPEN; },
    [](IStrm*, void*, vek_s32) -> vek_s32 { return 0; },
    os_write,
    [](IStrm*, vek_s64, vek_s32) -> vek_s32 { return VEK_ERR_NOT_SUPPORTED; },
    [](IStrm*) -> vek_s64 { return out_strm().written; },
    [](IStrm*) -> vek_s32 { return 0; },
    [](IStrm*) -> vek_s64 { return out_strm().written; },
    [](IStrm*) -> vek_s32 { return VEK_ERR_NOT_SUPPORTED; },
    [](IStrm*, vek_s64) -> vek_s32 { return VEK_ERR_NOT_SUPPORTED; },
    [](IStrm*) -> const char* { return "StdoutStrm"; },
};

StdoutStrm& out_strm() {
    static StdoutStrm s = {0x5D0F57u, 1, &kStdoutVtbl, 0, 0};
    return s;
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

/* ---- arguments ---- */

bool Args::flag(const char* name) const {
    for (const auto& o : options_) {
        if (!std::strcmp(o.first->name, name)) {
            return true;
        }
    }
    return false;
}

const char* Args::value(const char* name) const {
    const char* v = nullptr;
    for (const auto& o : options_) {
        if (!std::strcmp(o.first->name, name)) {
            v = o.second;
        }
    }
    return v;
}

bool Args::number(const char* name, long long lo, long long hi, long long def, long long& out) const {
    const char* v = value(name);
    if (!v) {
        out = def;
        return true;
    }
    errno = 0;
    char* end = nullptr;
    long long n = std::strtoll(v, &end, 10);
    if (!*v || *end || errno || n < lo || n > hi || *v == ' ') {
        std::fprintf(stderr, "vektool %s: %s: \"%s\" is not a whole number in %lld..%lld\n", cmd, name, v, lo, hi);
        return false;
    }
    out = n;
    return true;
}

/* Splits argv (the words after the command's name) into options and
 * operands by the rules at the top of VekTool.h: kDone when run may go on,
 * 0x100 when --help was asked for, kFailed after a usage message. */
int parse_args(const SubCommand& s, int argc, char** argv, Args& args) {
    constexpr int kHelp = 0x100;
    bool options = true;
    for (int i = 0; i < argc; i++) {
        const char* a = argv[i];
        if (!options || a[0] != '-' || !a[1]) {
            options = false;
            args.operands_.push_back(a);
            continue;
        }
        if (!std::strcmp(a, "--")) {
            options = false;
            continue;
        }
        if (is_help(a)) {
            return kHelp;
        }
        // "--name=VALUE", "--name", "-x", "-xVALUE"
        bool isLong = a[1] == '-';
        const char* eq = isLong ? std::strchr(a, '=') : nullptr;
        size_t len = eq ? (size_t)(eq - a) : isLong ? std::strlen(a) : 2;
        const Option* o = find_option(s, a, len);
        if (!o) {
            std::fprintf(stderr, "vektool %s: unknown option \"%.*s\"\n", args.cmd, (int)len, a);
            return usage_error(s.usage);
        }
        const char* value = nullptr;
        if (o->value) {
            value = eq ? eq + 1 : !isLong && a[2] ? a + 2 : i + 1 < argc ? argv[++i] : nullptr;
            if (!value) {
                std::fprintf(stderr, "vektool %s: option \"%s\" needs a value (%s)\n", args.cmd, o->name, o->value);
                return usage_error(s.usage);
            }
        } else if (eq || (!isLong && a[2])) {
            std::fprintf(stderr, "vektool %s: option \"%s\" takes no value\n", args.cmd, o->name);
            return usage_error(s.usage);
        }
        args.options_.emplace_back(o, value);
    }
    int n = (int)args.operands_.size();
    if (n < s.minArgs || (s.maxArgs >= 0 && n > s.maxArgs)) {
        std::fprintf(stderr, "vektool %s: %s operands\n", args.cmd, n < s.minArgs ? "missing" : "too many");
        return usage_error(s.usage);
    }
    return kDone;
}

/* ---- messages ---- */

int fail(const char* what, const char* path, const std::string& reason) {
    std::fprintf(stderr, "vektool %s: %s: %s\n", what, path, reason.c_str());
    return kFailed;
}

void note(const char* what, const char* path, const std::string& text) {
    std::fprintf(stderr, "vektool %s: %s: note: %s\n", what, path, text.c_str());
}

std::string os_reason() {
    return std::strerror(errno);
}

/* ---- input and output ---- */

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

Reader::~Reader() {
    if (f_ && !stdin_) {
        std::fclose(f_);
    }
}

bool Reader::open(const char* what, const char* path) {
    what_ = what;
    path_ = path;
    stdin_ = !std::strcmp(path, "-");
    if (stdin_) {
        binary_stdin();
        f_ = stdin;
        return true;
    }
    // A directory opens for reading on some systems and then reads as
    // nothing, which must not pass for an empty file.
    if (path_kind(path) == PathKind::directory) {
        vektool::fail(what, path, std::strerror(EISDIR));
        return false;
    }
    errno = 0;
    f_ = open_file(path, "rb");
    if (!f_) {
        vektool::fail(what, path, os_reason());
        return false;
    }
    return true;
}

long Reader::read(void* buf, std::size_t n) {
    if (!f_) {
        return -1;
    }
    errno = 0;
    size_t got = std::fread(buf, 1, n, f_);
    if (got == 0 && std::ferror(f_)) {
        vektool::fail(what_, stdin_ ? "standard input" : path_, os_reason());
        return -1;
    }
    return (long)got;
}

int Reader::fail(const std::string& reason) const {
    return vektool::fail(what_, path_, reason);
}

void Reader::note(const std::string& text) const {
    vektool::note(what_, path_, text);
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
        // A FIFO would block or lose its data before it could be refused.
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
    std::vector<char> buf(65536);
    size_t n;
    errno = 0;
    bool tooBig = false;
    while ((n = std::fread(buf.data(), 1, buf.size(), f)) > 0) {
        if (out.size() + n > kWholeMax) {
            tooBig = true;
            break;
        }
        out.append(buf.data(), n);
    }
    bool ok = !tooBig && !std::ferror(f);
    std::string reason = tooBig ? "larger than " + std::to_string(kWholeMax >> 20) + " MiB, which this command reads whole"
                                : ok ? std::string() : os_reason();
    if (!isStdin) {
        std::fclose(f);
    }
    if (!ok) {
        out.clear();
        fail(what, isStdin ? "standard input" : path, reason);
    }
    if (info) {
        info->missing = false;
        info->regular = regular;
    }
    return ok;
}

bool read_line(const char* what, const char* path, std::string& out, std::size_t max) {
    Reader in;
    if (!in.open(what, path)) {
        return false;
    }
    out.clear();
    char buf[4096];
    for (long n; (n = in.read(buf, sizeof buf)) != 0;) {
        if (n < 0) {
            return false;
        }
        const char* end = (const char*)std::memchr(buf, '\n', (size_t)n);
        out.append(buf, end ? (size_t)(end - buf) : (size_t)n);
        if (end) {
            break;
        }
        if (out.size() > max) {
            in.fail("the first line is longer than " + std::to_string(max) + " bytes");
            return false;
        }
    }
    if (!out.empty() && out.back() == '\r') {
        out.pop_back();
    }
    if (out.size() > max) {
        in.fail("the first line is longer than " + std::to_string(max) + " bytes");
        return false;
    }
    return true;
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

IStrm* stdout_strm() {
    return VEK_OBJ_ITF(IStrm, &out_strm());
}

long stdout_column() {
    return out_strm().column;
}

} // namespace vektool

namespace {

using namespace vektool;

// Finds what to run: kDone with *sub set, or the exit code of a help or
// usage answer (printed here).
int find_sub(const Command& c, int& argc, char**& argv, const SubCommand** sub, std::string& name) {
    name = c.name;
    if (c.subCount == 1 && !c.subs[0].name) {
        *sub = &c.subs[0];
        return kDone;
    }
    if (argc < 1) {
        print_family_help(stderr, c);
        return kFailed;
    }
    if (is_help(argv[0])) {
        print_family_help(stdout, c);
        return kDone + 0x100;
    }
    for (std::size_t k = 0; k < c.subCount; k++) {
        if (c.subs[k].name && !std::strcmp(argv[0], c.subs[k].name)) {
            *sub = &c.subs[k];
            name += std::string(" ") + c.subs[k].name;
            argc--;
            argv++;
            return kDone;
        }
    }
    std::fprintf(stderr, "vektool %s: unknown subcommand \"%s\"\n", c.name, argv[0]);
    return usage_error(c.usage);
}

int run_main(int argc, char** argv) {
    if (argc < 2) {
        print_help(stderr);
        return kFailed;
    }
    if (is_help(argv[1])) {
        print_help(stdout);
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
    int n = argc - 2;
    char** v = argv + 2;
    const SubCommand* sub = nullptr;
    std::string name;
    int rc = find_sub(*cmd, n, v, &sub, name);
    if (rc != kDone) {
        return rc & 0xFF;
    }
    Args args;
    args.cmd = name.c_str();
    rc = parse_args(*sub, n, v, args);
    if (rc == 0x100) {
        print_sub_help(*sub);
        return kDone;
    }
    if (rc != kDone) {
        return rc;
    }
    BaseLib_init();
    try {
        rc = sub->run(args);
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "vektool %s: out of memory\n", args.cmd);
        rc = kFailed;
    } catch (const std::length_error&) {
        std::fprintf(stderr, "vektool %s: out of memory\n", args.cmd);
        rc = kFailed;
    }
    BaseLib_exit();
    return rc == kUsage ? usage_error(sub->usage) : rc;
}

} // namespace

int main(int argc, char** argv) {
    int rc = run_main(argc, argv);
    // Output that could not be written is a failure, whatever the command
    // found: a full disk or a closed pipe must not look like success.
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "vektool: standard output: %s\n", os_reason().c_str());
        return kFailed;
    }
    return rc;
}
