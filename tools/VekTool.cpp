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
#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
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

bool read_input(const char* what, const char* path, std::string& out) {
    bool isStdin = !std::strcmp(path, "-");
    std::FILE* f = stdin;
    if (isStdin) {
        binary_stdin();
    } else {
        errno = 0;
        f = std::fopen(path, "rb");
        if (!f) {
            fail(what, path, os_reason());
            return false;
        }
    }
    out.clear();
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
    return ok;
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
