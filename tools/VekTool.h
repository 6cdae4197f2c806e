/*
 * vektool's command modules.
 *
 * Each family of commands lives in its own file (cmd_ini.cpp, ...) and
 * registers its top-level command with VEKTOOL_COMMAND; main() finds it by
 * name, answers --help and --version, starts and stops the library around
 * the run, and turns a failed write on standard output into exit code 2.
 *
 * Exit codes, the same for every command: 0 done / found / equal,
 * 1 not found / different, 2 usage or file error (with a message on stderr
 * that names the file and the reason).
 */
#ifndef VEKTOOL_H
#define VEKTOOL_H

#include <cstddef>
#include <cstdio>
#include <string>
#include "BaseLib.h"

namespace vektool {

enum : int { kDone = 0, kNotFound = 1, kFailed = 2, kUsage = -1 };

/*
 * A subcommand ("vektool ini get ..."): run gets the arguments after its
 * name and returns an exit code, or kUsage when the arguments do not fit
 * (main then prints the usage line and exits 2).
 */
struct SubCommand {
    const char* name;
    const char* usage;    // "ini get FILE SECT KEY"
    const char* summary;  // one line for the help lists
    int (*run)(int argc, char** argv);
};

/*
 * A top-level command: either run (its own arguments follow the name) or a
 * table of subcommands chosen by the next argument.
 */
struct Command {
    const char* name;
    const char* usage;
    const char* summary;
    int (*run)(int argc, char** argv);
    const SubCommand* subs;
    std::size_t subCount;
};

struct Registrar {
    explicit Registrar(const Command& cmd);
};

#define VEKTOOL_COMMAND(var) static const ::vektool::Registrar var##_registrar(var)

/* The registered commands, sorted by name; null-terminated walk by index. */
const Command* command_at(std::size_t i);

/* "vektool WHAT: PATH: REASON" on stderr; returns kFailed. */
int fail(const char* what, const char* path, const std::string& reason);

/* The operating system's text for the last C runtime error (errno). */
std::string os_reason();

/* What read_input found: a missing file (only reported when asked for),
 * a regular file, or anything else that can be read (a device, a FIFO,
 * standard input). With regularOnly set, a file that exists and is not a
 * regular one is refused before it is opened (standard input is not). */
struct InputInfo {
    bool regularOnly = false;
    bool missing = false;
    bool regular = false;
};

/*
 * Reads a whole file, or standard input for "-", as bytes. On failure
 * prints the error (naming the file and the reason) and returns false; a
 * directory is such a failure. With info, a file that does not exist is no
 * failure: info->missing is set and out is empty.
 */
bool read_input(const char* what, const char* path, std::string& out, InputInfo* info = nullptr);

/* Opens a file by its UTF-8 name, as std::fopen does (errno on failure). */
std::FILE* open_file(const char* path, const char* mode);

/*
 * Serialises the processes that change one file: holds the library's
 * system-wide file mutex for the file (by its full path, links resolved)
 * for the object's lifetime. ok() is false when it could not be taken.
 */
class FileLock {
  public:
    explicit FileLock(const char* path);  // null: no lock, and ok()
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    bool ok() const { return held_; }

  private:
    vek_handle mutex_ = nullptr;
    bool held_ = false;
};

/* Standard output and input in binary mode (no LF to CR LF on Windows). */
void binary_stdout();
void binary_stdin();

/* Writes bytes to standard output; errors surface when main flushes it. */
void write_out(const void* data, std::size_t len);

} // namespace vektool

#endif
