/*
 * ChildProc.h - a program beside the test run as a child process (POSIX:
 * fork and exec, optionally as another user; Windows: CreateProcess), its
 * output to a file; killed like a crash at the end unless waited for.
 */
#ifndef CHILDPROC_H
#define CHILDPROC_H

#include <string>
#include <vector>
#include "VekTest.h"
#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

class ChildProc {
  public:
    ChildProc(const std::string& prog, const std::vector<std::string>& args, const std::string& outFile,
              long uid = -1)
        : out_(outFile) {
#ifdef _WIN32
        (void)uid;
        std::string cmd = "\"" + vektest::self_dir() + "\\" + prog + ".exe\"";
        for (const std::string& a : args) {
            cmd += " \"" + a + "\"";
        }
        SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};
        HANDLE f = CreateFileA(outFile.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa, CREATE_ALWAYS,
                               0, nullptr);
        STARTUPINFOA si = {};
        si.cb = sizeof si;
        si.dwFlags = STARTF_USESTDHANDLES;
        si.hStdOutput = si.hStdError = f;
        PROCESS_INFORMATION pi = {};
        std::vector<char> line(cmd.begin(), cmd.end());
        line.push_back(0);
        if (CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)) {
            proc_ = pi.hProcess;
            CloseHandle(pi.hThread);
            pid_ = (long)pi.dwProcessId;
        }
        CloseHandle(f);
#else
        std::string exe = vektest::self_dir() + "/" + prog;
        std::vector<char*> argv{const_cast<char*>(exe.c_str())};
        for (const std::string& a : args) {
            argv.push_back(const_cast<char*>(a.c_str()));
        }
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            int fd = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
            dup2(fd, 1);
            dup2(fd, 2);
            if (uid >= 0 && (setgid((gid_t)uid) != 0 || setuid((uid_t)uid) != 0)) {
                _exit(126);
            }
            execv(exe.c_str(), argv.data());
            _exit(127);
        }
#endif
    }
    ~ChildProc() { kill(); }
    ChildProc(const ChildProc&) = delete;
    ChildProc& operator=(const ChildProc&) = delete;

    long pid() const { return pid_; }
    std::string out() const { return vektest::read_file(out_); }
    /* Its exit code (waiting 10 s at most), -1 when it did not end. */
    int wait() {
#ifdef _WIN32
        DWORD code = 0;
        bool ended = proc_ && WaitForSingleObject(proc_, 10000) == WAIT_OBJECT_0 && GetExitCodeProcess(proc_, &code);
        return ended ? (int)code : -1;
#else
        int st = 0;
        if (pid_ <= 0 || !vektest::until([&] { return waitpid((pid_t)pid_, &st, WNOHANG) == pid_; })) {
            return -1;
        }
        pid_ = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
#endif
    }
    void kill() {
#ifdef _WIN32
        if (proc_) {
            TerminateProcess(proc_, 9);
            WaitForSingleObject(proc_, 10000);
            CloseHandle(proc_);
            proc_ = nullptr;
        }
#else
        if (pid_ > 0) {
            ::kill((pid_t)pid_, SIGKILL);
            waitpid((pid_t)pid_, nullptr, 0);
            pid_ = -1;
        }
#endif
    }

  private:
    std::string out_;
    long pid_ = -1;
#ifdef _WIN32
    HANDLE proc_ = nullptr;
#endif
};

#endif /* CHILDPROC_H */
