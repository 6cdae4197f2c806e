/*
 * AlPlat.cpp (POSIX) - the platform services on Linux: module and process
 * paths, debug output, call stacks through backtrace and dladdr, the
 * environment record, local time and dynamic libraries.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <execinfo.h>
#include <link.h>
#include <linux/membarrier.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>
#include "AlPlat.h"

namespace {

bool env_on(const char* name) {
    const char* v = std::getenv(name);
    return v && *v && std::strcmp(v, "0") != 0;
}

// Reads "Key:\t<value>" from /proc/self/status.
long proc_status_value(const char* key) {
    std::FILE* f = std::fopen("/proc/self/status", "r");
    if (!f) {
        return 0;
    }
    char line[256];
    long v = 0;
    size_t kl = std::strlen(key);
    while (std::fgets(line, sizeof line, f)) {
        if (!std::strncmp(line, key, kl) && line[kl] == ':') {
            v = std::strtol(line + kl + 1, nullptr, 10);
            break;
        }
    }
    std::fclose(f);
    return v;
}

vek_s32 g_symCnt;

} // namespace

namespace plat {

vek_s32 module_path(char* buf, vek_s32 cap) {
#ifdef VEK_STATIC
    // Linked into the program: the executable is the library's module, and
    // its folder holds the configuration files.
    return exe_path(buf, cap);
#endif
    Dl_info info;
    if (dladdr((void*)&module_path, &info) && info.dli_fname && info.dli_fname[0]) {
        char* real = realpath(info.dli_fname, nullptr);
        if (real) {
            vek_s32 n = copy_out(buf, cap, real);
            std::free(real);
            return n;
        }
    }
    return exe_path(buf, cap);  // a static build: the executable is the module
}

vek_s32 exe_path(char* buf, vek_s32 cap) {
    if (!buf || cap < 1) {
        return 0;
    }
    ssize_t n = readlink("/proc/self/exe", buf, (size_t)cap - 1);
    if (n <= 0) {
        buf[0] = 0;
        return 0;
    }
    buf[n] = 0;
    return (vek_s32)n;
}

// The debugger channel it stands for is invisible without a debugger, so
// nothing shows unless the user asks for it.
void debug_output(const char* text) {
    if (env_on("VEK_DEBUG_OUTPUT")) {
        stderr_write(text);
    }
}

void stderr_write(const char* text) {
    size_t n = std::strlen(text);
    while (n > 0) {
        ssize_t w = write(STDERR_FILENO, text, n);
        if (w <= 0) {
            break;
        }
        text += w;
        n -= (size_t)w;
    }
}

vek_s32 message_box(const char*, const char*, vek_u32) {
    return 0;  // no boxes on POSIX: the fault hook or VEK_FAULT_ACTION decides
}

vek_s32 debugger_present(void) {
    return proc_status_value("TracerPid") != 0 ? 1 : 0;
}

void debug_break(void) {
    raise(SIGTRAP);
}

__attribute__((noinline)) vek_s32 call_stack(void** addrs, vek_s32 cap, vek_s32 skip) {
    if (!addrs || cap < 1) {
        return 0;
    }
    void* tmp[512];
    vek_s32 want = cap + skip + 1;
    if (want > 512) {
        want = 512;
    }
    // +1: this function's own frame.
    vek_s32 n = backtrace(tmp, want);
    vek_s32 first = skip + 1;
    vek_s32 k = 0;
    for (vek_s32 i = first; i < n && k < cap; i++) {
        addrs[k++] = tmp[i];
    }
    return k;
}

vek_s32 sym_init(const char*, SymNote) {
    __atomic_add_fetch(&g_symCnt, 1, __ATOMIC_SEQ_CST);
    return 1;  // dladdr needs no preparation
}

void sym_exit(void) {
    __atomic_sub_fetch(&g_symCnt, 1, __ATOMIC_SEQ_CST);
}

vek_s32 sym_resolve(void* addr, char* func, vek_s32 funcCap, char* file, vek_s32 fileCap,
                    vek_s32* line) {
    copy_out(func, funcCap, "");
    copy_out(file, fileCap, "");
    if (line) {
        *line = 0;
    }
    Dl_info info;
    const ElfW(Sym)* sym = nullptr;
    // A return address points behind the call; look up the call itself.
    void* lookup = (char*)addr - 1;
    if (!dladdr1(lookup, &info, (void**)&sym, RTLD_DL_SYMENT) || !info.dli_sname || !sym) {
        return 0;
    }
    // dladdr names the nearest exported symbol below the address; a hidden
    // function in between would get a wrong name, so the address must lie
    // inside the symbol.
    char* start = (char*)info.dli_saddr;
    if (sym->st_size == 0 || (char*)lookup < start || (char*)lookup >= start + sym->st_size) {
        return 0;
    }
    int status = 0;
    char* demangled = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
    copy_out(func, funcCap, status == 0 && demangled ? demangled : info.dli_sname);
    std::free(demangled);
    return 1;
}

void env_info(VekEnvInfo* info) {
    struct utsname u;
    if (uname(&u) == 0) {
        char pretty[96] = "";
        if (std::FILE* f = std::fopen("/etc/os-release", "r")) {
            char line[256];
            while (std::fgets(line, sizeof line, f)) {
                if (!std::strncmp(line, "PRETTY_NAME=", 12)) {
                    char* v = line + 12;
                    if (*v == '"') {
                        v++;
                    }
                    v[std::strcspn(v, "\"\n")] = 0;
                    copy_out(pretty, sizeof pretty, v);
                }
            }
            std::fclose(f);
        }
        std::string name = std::string(u.sysname) + " " + u.release;
        if (pretty[0]) {
            name = name + " (" + pretty + ")";
        }
        copy_out(info->osName, sizeof info->osName, name.c_str());
        // Like IsWow64Process: a 32-bit process on a 64-bit kernel reports 64.
        info->wordBits = std::strstr(u.machine, "64") ? 64 : 32;
        unsigned maj = 0, min = 0, patch = 0;
        std::sscanf(u.release, "%u.%u.%u", &maj, &min, &patch);
        info->build = patch;
        copy_out(info->osExtra, sizeof info->osExtra, u.version);
    }
    const char* tag = std::getenv("LC_ALL");
    if (!tag || !*tag) {
        tag = std::getenv("LC_MESSAGES");
    }
    if (!tag || !*tag) {
        tag = std::getenv("LANG");
    }
    const char* name = lang_name_by_tag(tag);
    copy_out(info->language, sizeof info->language, name ? name : tag);
    struct sysinfo si;
    if (sysinfo(&si) == 0) {
        double unit = si.mem_unit ? (double)si.mem_unit : 1.0;
        info->memTotalMB = (double)si.totalram * unit / (1024.0 * 1024.0);
        info->memFreeMB = (double)(si.freeram + si.bufferram) * unit / (1024.0 * 1024.0);
    }
}

void local_time(LocalTime* out) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    if (!local_tm(ts.tv_sec, &tm)) {
        gmtime_r(&ts.tv_sec, &tm);  // a time stamp in UTC beats none
    }
    out->year = tm.tm_year + 1900;
    out->month = tm.tm_mon + 1;
    out->day = tm.tm_mday;
    out->hour = tm.tm_hour;
    out->minute = tm.tm_min;
    out->second = tm.tm_sec;
    out->msec = (vek_s32)(ts.tv_nsec / 1000000);
}

vek_s64 wall_msec(void) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return (vek_s64)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

vek_s32 is_ui_thread(void) {
    return 0;  // no window messages on POSIX
}

vek_s32 dll_path(void* module, char* buf, vek_s32 cap) {
    struct link_map* lm = nullptr;
    if (!module || dlinfo(module, RTLD_DI_LINKMAP, &lm) != 0 || !lm || !lm->l_name) {
        return copy_out(buf, cap, "");
    }
    return copy_out(buf, cap, lm->l_name);
}

void* dll_load(const char* path) {
    return path && *path ? dlopen(path, RTLD_NOW) : nullptr;
}

vek_s32 dll_unload(void* module) {
    return module && dlclose(module) == 0 ? 1 : 0;
}

// ---- process-wide barrier ----

namespace {
long membarrier_call(int cmd) {
    return syscall(__NR_membarrier, cmd, 0, 0);
}
} // namespace

vek_s32 process_barrier_init(void) {
    long cmds = membarrier_call(MEMBARRIER_CMD_QUERY);
    if (cmds < 0 || !(cmds & MEMBARRIER_CMD_PRIVATE_EXPEDITED)) {
        return 0;
    }
    return membarrier_call(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0 ? 1 : 0;
}

void process_barrier(void) {
    // The registration survives fork; should the expedited form still be
    // refused, the global one gives the same guarantee, only slower.
    if (membarrier_call(MEMBARRIER_CMD_PRIVATE_EXPEDITED) != 0) {
        membarrier_call(MEMBARRIER_CMD_GLOBAL);
    }
}

} // namespace plat
