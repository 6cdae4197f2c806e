/*
 * A program the configuration tests copy, with the library and its
 * configuration files, into a folder of their own and run there:
 *   leak_child leak   leaks two blocks across BaseLib_init/exit
 *   leak_child info   writes what the library read from its configuration
 *                     to info.txt beside it, and whether a library it
 *                     unloads through the debug unloader stays mapped
 *   leak_child flush  writes records of levels 1 and 3 and notes in
 *                     info.txt when each reached the trace file
 *   leak_child fault  writes three records, then fails an assertion
 *                     (VEK_FAULT_ACTION decides what follows)
 *   leak_child crash  writes three records, then crashes (vek_exit)
 *   leak_child ring N writes N records while nobody reads the trace file,
 *                     a FIFO (POSIX), then reads it and writes to info.txt
 *                     what arrived and what the trace says was dropped
 */
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif
#include "BaseLib.h"
#ifndef _WIN32
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace {

// Loads a system library, unloads it through the debug unloader and tells
// whether it can still be used (1), then lets it go for real.
int dll_kept() {
#ifdef _WIN32
    HMODULE mod = LoadLibraryW(L"version.dll");
    if (!mod || win_free_dll_dbg__(mod, __FILE__, __LINE__) != 1) {
        return -1;
    }
    int kept = GetProcAddress(mod, "GetFileVersionInfoSizeW") != nullptr;
    FreeLibrary(mod);
#else
    void* mod = dlopen("libm.so.6", RTLD_NOW);
    if (!mod || win_free_dll_dbg__(mod, __FILE__, __LINE__) != 1) {
        return -1;
    }
    int kept = dlsym(mod, "cos") != nullptr;
    dlclose(mod);
#endif
    return kept;
}

} // namespace

// Leaking is this program's job: a leak checker built in must not fail it.
extern "C" const char* __asan_default_options() {
    return "detect_leaks=0";
}

namespace {

std::string beside(const char* name) {
    return std::string(vek_base_fld()) + "/" + name;
}

std::string slurp(const std::string& path) {
    std::string s;
    if (FILE* f = std::fopen(path.c_str(), "rb")) {
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
            s.append(buf, n);
        }
        std::fclose(f);
    }
    return s;
}

void write_info(const std::string& text) {
    if (FILE* f = std::fopen(beside("info.txt").c_str(), "wb")) {
        std::fputs(text.c_str(), f);
        std::fclose(f);
    }
}

// Milliseconds until the trace file holds text (-1: not within 5 s).
long wait_for(const std::string& text) {
    auto t0 = std::chrono::steady_clock::now();
    for (;;) {
        long ms = (long)std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - t0)
                      .count();
        if (slurp(beside("VekTrc.dlog")).find(text) != std::string::npos) {
            return ms;
        }
        if (ms > 5000) {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void flush_mode() {
    VEK_TRACE(500, 1, 1, "urgent");
    bool urgent = wait_for("urgent") == 0;
    VEK_TRACE(500, 1, 3, "later");
    long later = wait_for("later");
    VEK_TRACE(500, 1, 3, "asked");
    tout_flush();
    bool asked = wait_for("asked") == 0;
    write_info("urgent=" + std::to_string(urgent) + " later=" + std::to_string(later >= 0) +
               " asked=" + std::to_string(asked) + "\n");
}

#ifndef _WIN32
// The trace file is a FIFO that nobody reads while the records are
// written, so the writer thread stalls and the ring fills.
int ring_mode(int n) {
    std::string fifo = beside("trace.fifo");
    unlink(fifo.c_str());  // the load level's records made a plain file
    if (mkfifo(fifo.c_str(), 0600) != 0) {
        return 4;
    }
    int rfd = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    if (rfd < 0) {
        return 4;
    }
    fcntl(rfd, F_SETPIPE_SZ, 4096);
    BaseLib_init();
    tout_flush();  // the start's own records are out before the burst
    VekTrcWriteInfo info;
    info.size = sizeof info;
    tout_write_info(&info);
    const bool block = info.asyncFull == VEK_TRC_BLOCK;
    std::string got;
    bool done = false;
    auto reader = [&] {
        char buf[4096];
        for (;;) {
            bool last = __atomic_load_n(&done, __ATOMIC_ACQUIRE);
            struct pollfd p = {rfd, POLLIN, 0};
            if (poll(&p, 1, 100) > 0) {
                ssize_t k = read(rfd, buf, sizeof buf);
                if (k > 0) {
                    got.append(buf, (size_t)k);
                    continue;
                }
                // No writer has the FIFO open (between two records written
                // with an open of their own, or at the end).
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            if (last) {
                return;  // the pipe was empty after the writing ended
            }
        }
    };
    std::thread rd;
    if (block) {
        rd = std::thread([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            reader();
        });
    }
    for (int i = 0; i < n; i++) {
        VEK_TRACE(500, 1, 3, "rec %d", i);
    }
    if (!rd.joinable()) {
        rd = std::thread(reader);
    }
    tout_flush();
    tout_write_info(&info);
    BaseLib_exit();
    __atomic_store_n(&done, true, __ATOMIC_RELEASE);
    rd.join();
    unlink(fifo.c_str());  // the unload's record goes to a plain file
    close(rfd);
    if (FILE* g = std::fopen(beside("got.txt").c_str(), "wb")) {
        std::fwrite(got.data(), 1, got.size(), g);
        std::fclose(g);
    }
    long received = 0, dropped = 0, first = -1, last = -1;
    bool ordered = true;
    for (size_t pos = 0; (pos = got.find("] ", pos)) != std::string::npos; pos += 2) {
        long v;
        if (std::sscanf(got.c_str() + pos + 2, "rec %ld", &v) == 1) {
            ordered = ordered && v > last;
            first = first < 0 ? v : first;
            last = v;
            received++;
        } else if (std::sscanf(got.c_str() + pos + 2, "VekTrc: %ld records dropped", &v) == 1) {
            dropped += v;
        }
    }
    char text[160];
    std::snprintf(text, sizeof text, "received=%ld dropped=%ld first=%ld last=%ld ordered=%d info=%lld\n",
                  received, dropped, first, last, (int)ordered, (long long)info.dropped);
    write_info(text);
    return 0;
}
#endif

} // namespace

int main(int argc, char** argv) {
    std::string mode = argc > 1 ? argv[1] : "leak";
#ifndef _WIN32
    if (mode == "ring") {
        return ring_mode(argc > 2 ? std::atoi(argv[2]) : 1000);
    }
#endif
    BaseLib_init();
    if (mode == "leak") {
        char* a = (char*)vek_malloc__(24);
        std::memcpy(a, "first leaked block", 19);
        char* b = (char*)vek_malloc__(40);
        std::memcpy(b, "second leaked block", 20);
    } else if (mode == "flush") {
        flush_mode();
    } else if (mode == "fault" || mode == "crash") {
        for (int i = 0; i < 3; i++) {
            VEK_TRACE(500, 1, 3, "rec %d", i);
        }
        if (mode == "crash") {
            vek_exit();
        }
        vek_assert__("boom", __FILE__, __LINE__);
    } else {
        VekTrcInfo trc;
        tout_info(&trc);
        std::string path = beside("info.txt");
        if (FILE* f = std::fopen(path.c_str(), "wb")) {
            std::fprintf(f, "type=%s queue=%d hold=%d leakchk=%d holddll=%d dllkept=%d\n", trc.type,
                         (int)trc.bufQueSize, (int)trc.holdConn, (int)vek_leak_chking(),
                         (int)vek_dbg_rtc_nval("VekHeap", "HoldDynDll", -1), dll_kept());
            std::fclose(f);
        }
    }
    BaseLib_exit();
    return 0;
}
