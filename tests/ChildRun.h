/*
 * ChildRun.h - a folder with copies of the library and the child program
 * (leak_child.cpp), for tests of what a whole process reads from its
 * configuration files and writes to its trace.
 */
#ifndef VEK_CHILD_RUN_H
#define VEK_CHILD_RUN_H

#include <filesystem>
#include <string>
#include "VekTest.h"

namespace vektest {

/* A folder with copies of the library and the child program, and the
 * configuration files given. */
class ChildFolder {
  public:
    explicit ChildFolder(const std::string& name) : dir_(vektest::temp_dir(name)) {
        namespace fs = std::filesystem;
        fs::path self = fs::u8path(vektest::self_dir());
        // With the static library the program is the library's module, and
        // its folder is the one the configuration is read from.
#if !defined(VEK_STATIC)
        fs::path lib = fs::u8path(vek_base_fld());
#if defined(_WIN32)
        fs::copy_file(lib / "BaseLib.dll", fs::u8path(dir_) / "BaseLib.dll");
#else
        fs::copy_file(fs::canonical(lib / "libBaseLib.so.1"), fs::path(dir_) / "libBaseLib.so.1");
#endif
#endif
#ifdef _WIN32
        fs::copy_file(self / "leak_child.exe", fs::u8path(dir_) / "leak_child.exe");
#else
        fs::copy_file(self / "leak_child", fs::path(dir_) / "leak_child");
#endif
    }
    ~ChildFolder() { vektest::remove_tree(dir_); }
    void config(const std::string& file, const std::string& text) {
        vektest::write_file(dir_ + "/" + file, text);
    }
    /* Runs the child with its arguments; its exit status. */
    int run(const std::string& mode) {
        namespace fs = std::filesystem;
#ifdef _WIN32
        std::string cmd = "\"" + (fs::u8path(dir_) / "leak_child.exe").string() + "\" " + mode + " > \"" +
                          (fs::u8path(dir_) / "out.txt").string() + "\" 2>&1";
#else
        std::string cmd = "LD_LIBRARY_PATH='" + dir_ + "' '" + dir_ + "/leak_child' " + mode + " > '" + dir_ +
                          "/out.txt' 2>&1";
#endif
        return vektest::run_command(cmd);
    }
    std::string file(const std::string& name) const { return vektest::read_file(dir_ + "/" + name); }

  private:
    std::string dir_;
};

} // namespace vektest

#endif
