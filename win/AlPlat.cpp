/*
 * AlPlat.cpp (Windows) - the platform services on Win32: module and
 * process paths, OutputDebugString, the fault message box, call stacks
 * through the debug-help library (loaded at run time), the environment
 * record, local time and dynamic libraries.
 */
#include <cstdio>
#include <cstring>
#include <string>
#include "WinHelp.h"
#include "AlPlat.h"

namespace {

// The debug-help library's entry points, loaded at run time.
struct SymbolInfoW8 {
    ULONG SizeOfStruct;
    ULONG TypeIndex;
    ULONG64 Reserved[2];
    ULONG Index;
    ULONG Size;
    ULONG64 ModBase;
    ULONG Flags;
    ULONG64 Value;
    ULONG64 Address;
    ULONG Register;
    ULONG Scope;
    ULONG Tag;
    ULONG NameLen;
    ULONG MaxNameLen;
    CHAR Name[1];
};
struct LineInfo64 {
    DWORD SizeOfStruct;
    PVOID Key;
    DWORD LineNumber;
    PCHAR FileName;
    DWORD64 Address;
};
using SymInitializeWFn = BOOL(WINAPI*)(HANDLE, PCWSTR, BOOL);
using SymInitializeFn = BOOL(WINAPI*)(HANDLE, PCSTR, BOOL);
using SymCleanupFn = BOOL(WINAPI*)(HANDLE);
using SymSetOptionsFn = DWORD(WINAPI*)(DWORD);
using SymFromAddrFn = BOOL(WINAPI*)(HANDLE, DWORD64, PDWORD64, SymbolInfoW8*);
using SymGetLineFromAddr64Fn = BOOL(WINAPI*)(HANDLE, DWORD64, PDWORD, LineInfo64*);

struct DbgHelp {
    HMODULE mod;
    SymCleanupFn cleanup;
    SymFromAddrFn fromAddr;
    SymGetLineFromAddr64Fn lineFromAddr;
    LONG refs;
    bool ready;
};
DbgHelp g_dbg;
CRITICAL_SECTION g_dbgLock;
INIT_ONCE g_dbgOnce = INIT_ONCE_STATIC_INIT;

BOOL CALLBACK init_dbg_lock(PINIT_ONCE, PVOID, PVOID*) {
    InitializeCriticalSection(&g_dbgLock);
    return TRUE;
}

void dbg_lock() {
    InitOnceExecuteOnce(&g_dbgOnce, init_dbg_lock, nullptr, nullptr);
    EnterCriticalSection(&g_dbgLock);
}

template <class Fn>
bool get_proc(HMODULE mod, const char* name, Fn& fn, plat::SymNote note) {
    fn = (Fn)(void*)GetProcAddress(mod, name);
    if (!fn) {
        note(("GetProc(" + std::string(name) + ") of \"dbghelp.dll\" FAIL, expect ver is 6.3.17.0").c_str());
        return false;
    }
    return true;
}

// Loads the debug-help library (the copy in the software's folder first)
// and initialises symbols for the process; false when that is impossible.
// What happens on the way goes to note.
bool dbg_load(const char* base, plat::SymNote note) {
    std::string path = std::string(base) + "\\DbgHelp.dll";
    wchar_t wpath[MAX_PATH * 2];
    win::to_wide(path.c_str(), wpath, MAX_PATH * 2);
    note(("load \"" + path + "\" ...").c_str());
    g_dbg.mod = LoadLibraryW(wpath);
    if (!g_dbg.mod) {
        g_dbg.mod = LoadLibraryW(L"DbgHelp.dll");
        if (!g_dbg.mod) {
            note("You should copy DbgHelp.dll (ver>=6.3) to software root folder\n");
            return false;
        }
        note("load \"DbgHelp.dll\" OK");
    }
    SymSetOptionsFn setOptions = nullptr;
    if (!get_proc(g_dbg.mod, "SymSetOptions", setOptions, note) ||
        !get_proc(g_dbg.mod, "SymCleanup", g_dbg.cleanup, note) ||
        !get_proc(g_dbg.mod, "SymFromAddr", g_dbg.fromAddr, note) ||
        !get_proc(g_dbg.mod, "SymGetLineFromAddr64", g_dbg.lineFromAddr, note)) {
        FreeLibrary(g_dbg.mod);
        g_dbg.mod = nullptr;
        return false;
    }
    setOptions(0x00000002 /* UNDNAME */ | 0x00000010 /* LOAD_LINES */ | 0x00000004 /* DEFERRED_LOADS */);
    BOOL ok;
    SymInitializeWFn initW = (SymInitializeWFn)(void*)GetProcAddress(g_dbg.mod, "SymInitializeW");
    if (initW) {
        wchar_t wbase[MAX_PATH * 2];
        win::to_wide(base, wbase, MAX_PATH * 2);
        ok = initW(GetCurrentProcess(), wbase, TRUE);
    } else {
        note("DbgHelp.dll not supp unicode, use relative path, symbol may missed\n");
        SymInitializeFn init = nullptr;
        ok = get_proc(g_dbg.mod, "SymInitialize", init, note) && init(GetCurrentProcess(), nullptr, TRUE);
    }
    if (!ok) {
        note("vek_symb_init() FAIL\n");
        FreeLibrary(g_dbg.mod);
        g_dbg.mod = nullptr;
        return false;
    }
    return true;
}

} // namespace

namespace plat {

vek_s32 module_path(char* buf, vek_s32 cap) {
    HMODULE mod = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            (LPCWSTR)(void*)&module_path, &mod)) {
        return exe_path(buf, cap);
    }
    wchar_t w[1025];
    DWORD n = GetModuleFileNameW(mod, w, 1024);
    if (n == 0 || n >= 1024) {
        return 0;
    }
    w[n] = 0;
    return win::to_utf8(w, buf, cap);
}

vek_s32 exe_path(char* buf, vek_s32 cap) {
    wchar_t w[1025];
    DWORD n = GetModuleFileNameW(nullptr, w, 1024);
    if (n == 0 || n >= 1024) {
        if (buf && cap > 0) {
            buf[0] = 0;
        }
        return 0;
    }
    w[n] = 0;
    return win::to_utf8(w, buf, cap);
}

void debug_output(const char* text) {
    wchar_t w[2048];
    win::to_wide(text, w, 2048);
    OutputDebugStringW(w);
}

void stderr_write(const char* text) {
    HANDLE h = GetStdHandle(STD_ERROR_HANDLE);
    DWORD done = 0;
    if (h && h != INVALID_HANDLE_VALUE) {
        WriteFile(h, text, (DWORD)strlen(text), &done, nullptr);
    }
}

vek_s32 message_box(const char* caption, const char* text, vek_u32 style) {
    static wchar_t wtext[16384];
    wchar_t wcap[256];
    win::to_wide(text, wtext, 16384);
    win::to_wide(caption, wcap, 256);
    return MessageBoxW(style == 0x1010 ? nullptr : GetActiveWindow(), wtext, wcap, style);
}

vek_s32 debugger_present(void) {
    return IsDebuggerPresent() ? 1 : 0;
}

void debug_break(void) {
    DebugBreak();
}

__attribute__((noinline)) vek_s32 call_stack(void** addrs, vek_s32 cap, vek_s32 skip) {
    if (!addrs || cap < 1) {
        return 0;
    }
    // +1: this function's own frame. The walk can run past the thread's
    // start into a null frame: the stack ends there.
    vek_s32 n = RtlCaptureStackBackTrace((DWORD)(skip + 1), (DWORD)cap, addrs, nullptr);
    for (vek_s32 i = 0; i < n; i++) {
        if (!addrs[i]) {
            return i;
        }
    }
    return n;
}

vek_s32 sym_init(const char* baseFolder, SymNote note) {
    dbg_lock();
    if (g_dbg.refs++ == 0) {
        g_dbg.ready = dbg_load(baseFolder, note);
    }
    bool ready = g_dbg.ready;
    LeaveCriticalSection(&g_dbgLock);
    return ready ? 1 : 0;
}

void sym_exit(void) {
    dbg_lock();
    if (g_dbg.refs > 0 && --g_dbg.refs == 0 && g_dbg.ready) {
        g_dbg.cleanup(GetCurrentProcess());
        FreeLibrary(g_dbg.mod);
        g_dbg.mod = nullptr;
        g_dbg.ready = false;
    }
    LeaveCriticalSection(&g_dbgLock);
}

vek_s32 sym_resolve(void* addr, char* func, vek_s32 funcCap, char* file, vek_s32 fileCap,
                    vek_s32* line) {
    copy_out(func, funcCap, "");
    copy_out(file, fileCap, "");
    if (line) {
        *line = 0;
    }
    dbg_lock();
    vek_s32 found = 0;
    if (g_dbg.ready) {
        // A return address points behind the call; look up the call itself.
        DWORD64 a = (DWORD64)(ULONG_PTR)addr - 1;
        alignas(SymbolInfoW8) char symBuf[sizeof(SymbolInfoW8) + 256];
        SymbolInfoW8* sym = (SymbolInfoW8*)symBuf;
        std::memset(symBuf, 0, sizeof symBuf);
        sym->SizeOfStruct = sizeof(SymbolInfoW8);
        sym->MaxNameLen = 255;
        DWORD64 disp = 0;
        if (g_dbg.fromAddr(GetCurrentProcess(), a, &disp, sym)) {
            copy_out(func, funcCap, sym->Name);
            found = 1;
        }
        LineInfo64 li;
        std::memset(&li, 0, sizeof li);
        li.SizeOfStruct = sizeof li;
        DWORD ldisp = 0;
        if (g_dbg.lineFromAddr(GetCurrentProcess(), a, &ldisp, &li) && li.FileName) {
            copy_out(file, fileCap, li.FileName);
            if (line) {
                *line = (vek_s32)li.LineNumber;
            }
        }
    }
    LeaveCriticalSection(&g_dbgLock);
    return found;
}

void env_info(VekEnvInfo* info) {
    struct OsVersionW {
        ULONG size, major, minor, build, platform;
        WCHAR csd[128];
    } v;
    std::memset(&v, 0, sizeof v);
    v.size = sizeof v;
    using RtlGetVersionFn = LONG(WINAPI*)(OsVersionW*);
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    RtlGetVersionFn rtlGetVersion = ntdll ? (RtlGetVersionFn)(void*)GetProcAddress(ntdll, "RtlGetVersion") : nullptr;
    if (rtlGetVersion) {
        rtlGetVersion(&v);
    }
    const char* name = "Windows";
    if (v.major == 10) {
        name = v.build >= 22000 ? "Windows 11" : "Windows 10";
    } else if (v.major == 6) {
        name = v.minor == 3 ? "Windows 8.1" : v.minor == 2 ? "Windows 8" : v.minor == 1 ? "Windows 7" : "Windows Vista";
    } else if (v.major == 5) {
        name = "Windows XP";
    }
    copy_out(info->osName, sizeof info->osName, name);
    BOOL wow = FALSE;
    IsWow64Process(GetCurrentProcess(), &wow);
    info->wordBits = (sizeof(void*) == 8 || wow) ? 64 : 32;
    info->build = v.build;
    win::to_utf8(v.csd, info->osExtra, sizeof info->osExtra);
    LANGID lang = GetUserDefaultUILanguage();
    const char* lname = lang_name_by_id(lang);
    if (lname) {
        copy_out(info->language, sizeof info->language, lname);
    } else {
        char text[32];
        std::snprintf(text, sizeof text, "Unknown (0x%04X)", (unsigned)lang);
        copy_out(info->language, sizeof info->language, text);
    }
    MEMORYSTATUSEX ms;
    ms.dwLength = sizeof ms;
    if (GlobalMemoryStatusEx(&ms)) {
        info->memTotalMB = (double)ms.ullTotalPhys / (1024.0 * 1024.0);
        info->memFreeMB = (double)ms.ullAvailPhys / (1024.0 * 1024.0);
    }
}

void local_time(LocalTime* out) {
    SYSTEMTIME st;
    GetLocalTime(&st);
    out->year = st.wYear;
    out->month = st.wMonth;
    out->day = st.wDay;
    out->hour = st.wHour;
    out->minute = st.wMinute;
    out->second = st.wSecond;
    out->msec = st.wMilliseconds;
}

vek_s64 wall_msec(void) {
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    vek_u64 t = ((vek_u64)ft.dwHighDateTime << 32) | ft.dwLowDateTime;
    // 100 ns units since 1601 to milliseconds since 1970.
    return (vek_s64)(t / 10000) - 11644473600000LL;
}

BOOL CALLBACK any_window(HWND, LPARAM found) {
    *(bool*)found = true;
    return FALSE;
}

// A thread that owns a window runs a message loop: a UI thread. (Merely
// loading user32 makes a thread "GUI" in the system's sense, which says
// nothing about message pumping.)
vek_s32 is_ui_thread(void) {
    bool found = false;
    EnumThreadWindows(GetCurrentThreadId(), any_window, (LPARAM)&found);
    return found ? 1 : 0;
}

vek_s32 dll_path(void* module, char* buf, vek_s32 cap) {
    wchar_t w[1025];
    DWORD n = module ? GetModuleFileNameW((HMODULE)module, w, 1024) : 0;
    if (n == 0 || n >= 1024) {
        return copy_out(buf, cap, "");
    }
    w[n] = 0;
    return win::to_utf8(w, buf, cap);
}

void* dll_load(const char* path) {
    wchar_t w[MAX_PATH * 4];
    win::to_wide(path, w, MAX_PATH * 4);
    return path && *path ? (void*)LoadLibraryW(w) : nullptr;
}

vek_s32 dll_unload(void* module) {
    return module && FreeLibrary((HMODULE)module) ? 1 : 0;
}

// ---- process-wide barrier ----

vek_s32 process_barrier_init(void) {
    // Wine's FlushProcessWriteBuffers is an empty stub, so there the
    // threads must fence themselves.
    HMODULE nt = GetModuleHandleW(L"ntdll.dll");
    return nt && !GetProcAddress(nt, "wine_get_version") ? 1 : 0;
}

void process_barrier(void) {
    FlushProcessWriteBuffers();
}

} // namespace plat
