/*
 * A program the configuration tests copy, with the library and its
 * configuration files, into a folder of their own and run there:
 *   leak_child leak   leaks two blocks across BaseLib_init/exit
 *   leak_child info   writes what the library read from its configuration
 *                     to info.txt beside it
 */
#include <cstdio>
#include <cstring>
#include <string>
#include "BaseLib.h"

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
            std::fprintf(f, "type=%s queue=%d hold=%d leakchk=%d holddll=%d\n", trc.type,
                         (int)trc.bufQueSize, (int)trc.holdConn, (int)vek_leak_chking(),
                         (int)vek_dbg_rtc_nval("VekHeap", "HoldDynDll", -1));
            std::fclose(f);
        }
    }
    BaseLib_exit();
    return 0;
}
