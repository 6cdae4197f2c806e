/*
 * BaseMain.cpp (Windows) - load and unload of the library: DllMain's
 * process attach and detach. A static build has no DllMain; there the
 * image's constructor and destructor stand in, as on POSIX.
 */
#include <windows.h>
#include "VekCore.h"

namespace vek {
const int load_hooks_linked = 1;
}

#if defined(VEK_STATIC)

namespace {
__attribute__((constructor(101))) void baselib_attach() {
    vek::load_attach(GetModuleHandleW(nullptr));
}
__attribute__((destructor(101))) void baselib_detach() {
    vek::load_detach();
}
} // namespace

#else

extern "C" BOOL WINAPI DllMain(HINSTANCE inst, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        vek::load_attach(inst);
    } else if (reason == DLL_PROCESS_DETACH) {
        vek::load_detach();
    }
    return TRUE;
}

#endif
