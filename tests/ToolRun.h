/*
 * Runs the real vektool program in a temporary folder of its own: the exit
 * code, and standard output and error read back as files.
 */
#ifndef TOOLRUN_H
#define TOOLRUN_H

#include <string>
#include "VekTest.h"

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
