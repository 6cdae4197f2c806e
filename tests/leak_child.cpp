/*
 * A program the configuration tests copy, with the library and its
 * configuration files, into a folder of their own and run there:
 *   leak_child leak   leaks two blocks across BaseLib_init/exit
 *   leak_child info   writes what the library read from its configuration
 *                     to info.txt beside it, and whether a library it
 *                     unloads through the debug unloader stays mapped
 */
#include <cstdio>
#include <cstring>
#include <string>
#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif
#include "BaseLib.h"

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

int main(int argc, char** argv) {
    std::string mode = argc > 1 ? argv[1] : "leak";
    BaseLib_init();
    if (mode == "leak") {
        char* a = (char*)vek_malloc__(24);
        std::memcpy(a, "first leaked block", 19);
        char* b = (char*)vek_malloc__(40);
        std::memcpy(b, "second leaked block", 20);
    } else {
        VekTrcInfo trc;
        tout_info(&trc);
        std::string path = std::string(vek_base_fld()) + "/info.txt";
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
