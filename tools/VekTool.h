/*
 * vektool's command modules and the rules every command shares.
 *
 * Each family of commands lives in its own file (cmd_ini.cpp, ...) and
 * registers its top-level command with VEKTOOL_COMMAND. main() finds it,
 * parses the arguments by the rules below, starts the library, runs the
 * command and stops the library; a command only declares its options and
 * operand counts and gets these rules for free:
 *
 *   vektool COMMAND [SUBCOMMAND] [OPTIONS] [--] [OPERANDS]
 *
 * - Options come first. The first operand ends them: whatever follows is an
 *   operand as it stands, so "ini set f.ini S k -h" sets k to "-h".
 * - "--" ends the options explicitly (for an operand that starts with "-",
 *   such as a negative year); "-" alone is an operand: standard input.
 * - A command declares its options (Option): "--name VALUE", "--name=VALUE",
 *   a one-letter alias "-w VALUE" or "-wVALUE", and flags without a value.
 *   Anything else that starts with "-" before the first operand is an
 *   unknown option and an error, never a file name.
 * - "--help" or "-h" among the options prints the command's help on
 *   standard output (exit 0); "vektool --help" and "vektool --version" the
 *   program's. Each help says where the command departs from the library
 *   call it wraps (SubCommand::notes).
 * - A usage error (unknown option, missing or bad option value, wrong
 *   number of operands, "vektool" or "vektool CMD" alone) prints the usage
 *   on standard error and exits 2.
 *
 * Exit codes, the same for every command: 0 done / found / equal,
 * 1 not found / different, 2 usage, file or data error (with a message on
 * standard error that names the file and the reason: fail()). Output that
 * cannot be written (a full disk, a closed pipe) exits 2 whatever the
 * command found, --help and --version included.
 *
 * Input: a FILE operand or "-" for standard input. Commands read it in
 * pieces (Reader, each_chunk) and run in constant memory; only a command
 * whose data model is the whole document (INI) reads it whole
 * (read_input), up to kWholeMax bytes. Running out of memory ends a
 * command with a message and exit 2.
 */
#ifndef VEKTOOL_H
#define VEKTOOL_H

#include <cstddef>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>
#include "BaseLib.h"

namespace vektool {

enum : int { kDone = 0, kNotFound = 1, kFailed = 2, kUsage = -1 };

/* One option of a command. */
struct Option {
    const char* name;   // "--wrap"
    const char* alias;  // "-w", or null
    const char* value;  // the value's name in the help ("COLS"); null for a flag
    const char* help;   // one line
};

class Args;

/*
 * A subcommand ("vektool ini get ...") or, with a null name, a command that
 * takes its arguments itself ("vektool md5 ..."). run gets the parsed
 * arguments and returns an exit code, or kUsage when they do not fit (main
 * then prints the usage line and exits 2).
 */
struct SubCommand {
    const char* name;
    const char* usage;     // "b64 enc [-w COLS] [FILE|-]"
    const char* summary;   // one line for the lists
    int (*run)(const Args& args);
    int minArgs = 0;       // operands
    int maxArgs = 0;       // -1: no limit
    const Option* options = nullptr;  // ended by an entry with a null name
    const char* notes = nullptr;      // more help: where it departs from the library, ...
};

/* A top-level command and its subcommands (one nameless one when it takes
 * its arguments itself). */
struct Command {
    const char* name;
    const char* usage;
    const char* summary;
    const SubCommand* subs;
    std::size_t subCount;
};

struct Registrar {
    explicit Registrar(const Command& cmd);
};

#define VEKTOOL_COMMAND(var) static const ::vektool::Registrar var##_registrar(var)

/* The registered commands, sorted by name; null past the last. */
const Command* command_at(std::size_t i);

/* The parsed command line of one run. */
class Args {
  public:
    const char* cmd = "";  // "b64 enc": the command's name in messages

    /* Whether a flag was given; the last value given for an option (null
     * when absent). Names are the long ones ("--wrap"). */
    bool flag(const char* name) const;
    const char* value(const char* name) const;
    /* The option's value as a whole number in lo..hi, or def when it is
     * absent; false after a message when it is not such a number. */
    bool number(const char* name, long long lo, long long hi, long long def, long long& out) const;

    std::size_t count() const { return operands_.size(); }
    const char* operator[](std::size_t i) const { return operands_[i]; }
    /* The i-th operand, or def when there are fewer. */
    const char* operand(std::size_t i, const char* def) const { return i < count() ? operands_[i] : def; }

  private:
    friend int parse_args(const SubCommand&, int, char**, Args&);
    std::vector<std::pair<const Option*, const char*>> options_;
    std::vector<const char*> operands_;
};

/* "vektool WHAT: PATH: REASON" on stderr; returns kFailed. */
int fail(const char* what, const char* path, const std::string& reason);

/* "vektool WHAT: PATH: note: TEXT" on stderr: the answer stands, but the
 * user probably meant something else. */
void note(const char* what, const char* path, const std::string& text);

/* The operating system's text for the last C runtime error (errno). */
std::string os_reason();

/* The most read_input reads; a larger input is refused. */
constexpr std::size_t kWholeMax = (std::size_t)1 << 28;
/* The size of the pieces commands read and write. */
constexpr std::size_t kChunk = (std::size_t)1 << 18;

/*
 * A command's input read in pieces: a file by its UTF-8 name, or standard
 * input (binary) for "-". Directories are refused at open.
 */
class Reader {
  public:
    Reader() = default;
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    /* False after the message ("vektool WHAT: PATH: reason"). */
    bool open(const char* what, const char* path);
    /* Up to n bytes: the count, 0 at the end, -1 after the message. */
    long read(void* buf, std::size_t n);
    /* A data error at this input: the message, kFailed. */
    int fail(const std::string& reason) const;
    void note(const std::string& text) const;
    const char* path() const { return path_; }

  private:
    std::FILE* f_ = nullptr;
    bool stdin_ = false;
    const char* what_ = "";
    const char* path_ = "";
};

/*
 * Opens the input and hands it to eat(const char* data, std::size_t n) in
 * pieces of at most kChunk bytes (never empty). eat returns false to stop
 * (after its own message). False when the input could not be read or eat
 * stopped.
 */
template <class Eat>
bool each_chunk(Reader& in, Eat eat) {
    std::vector<char> buf(kChunk);
    for (;;) {
        long n = in.read(buf.data(), buf.size());
        if (n <= 0) {
            return n == 0;
        }
        if (!eat((const char*)buf.data(), (std::size_t)n)) {
            return false;
        }
    }
}

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
 * Reads a whole file, or standard input for "-", as bytes, up to kWholeMax
 * of them. On failure prints the error (naming the file and the reason)
 * and returns false; a directory and a larger input are such failures.
 * With info, a file that does not exist is no failure: info->missing is
 * set and out is empty.
 */
bool read_input(const char* what, const char* path, std::string& out, InputInfo* info = nullptr);

/* The first line of a file or of standard input, without its line end;
 * false after the message (a line longer than max bytes is refused). */
bool read_line(const char* what, const char* path, std::string& out, std::size_t max);

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

/* An IStrm whose writes go to standard output (write_out), for the
 * library's stream encoders and decoders; column() is the number of bytes
 * written since the last LF. Lives for the whole run; never released. */
IStrm* stdout_strm();
long stdout_column();

} // namespace vektool

#endif
