/*
 * Runs the real vektool program in a temporary folder of its own: the exit
 * code, and standard output and error read back as files.
 */
#ifndef TOOLRUN_H
#define TOOLRUN_H

#include <string>
#include "VekTest.h"

// Sanitized builds need far more address space than the memory limits of
// the streaming runs allow, and run gigabytes too slowly.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TOOLRUN_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TOOLRUN_SANITIZED 1
#endif
#endif

class ToolRun {
  public:
    ToolRun() : dir_(vektest::temp_dir("vektool")) {}
    ~ToolRun() { vektest::remove_tree(dir_); }
    ToolRun(const ToolRun&) = delete;
    ToolRun& operator=(const ToolRun&) = delete;

    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    /* A file of the folder, quoted for the command line. */
    std::string q(const std::string& name) const { return "\"" + path(name) + "\""; }
    /* Runs "vektool <args>", stdout and stderr to files; the exit code. */
    int run(const std::string& args) {
        return vektest::run_command(exe() + " " + args + " > " + q("out") + " 2> " + q("err"));
    }
    /* The same with standard input read from the file `in`. */
    int run_in(const std::string& args, const std::string& in) {
        vektest::write_file(path("in"), in);
        return vektest::run_command(exe() + " " + args + " < " + q("in") + " > " + q("out") + " 2> " +
                                    q("err"));
    }
    /* Runs a shell line in the folder, "$T" standing for the program;
     * stdout and stderr to the files. POSIX shell only. */
    int sh(std::string line) {
        for (size_t at; (at = line.find("$T")) != std::string::npos;) {
            line.replace(at, 2, exe());
        }
        return vektest::run_command("cd \"" + dir_ + "\" && (" + line + ") > out 2> err");
    }
    /* Whether runs of hundreds of megabytes under a memory limit are
     * possible here: a POSIX shell, no sanitizer. */
    static bool big_runs() {
#if defined(_WIN32) || defined(TOOLRUN_SANITIZED)
        return false;
#else
        return true;
#endif
    }
    /* Whether a peer program is installed (never on Windows). */
    static bool has(const std::string& program) {
#ifdef _WIN32
        (void)program;
        return false;
#else
        return vektest::run_command("command -v " + program + " > /dev/null 2>&1") == 0;
#endif
    }
    std::string out() const { return vektest::read_file(path("out")); }
    std::string err() const { return vektest::read_file(path("err")); }

    static std::string exe() {
#ifdef _WIN32
        return "\"" + vektest::self_dir() + "\\vektool.exe\"";
#else
        return "'" + vektest::self_dir() + "/vektool'";
#endif
    }

  private:
    std::string dir_;
};

#endif
