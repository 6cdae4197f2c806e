/*
 * libFuzzer builds: the library runs initialised for the whole session and
 * assertions are answered Ignore, as under the deterministic driver (a
 * target may provoke them on purpose). A real fault still stops the run
 * through the sanitizers.
 */
#include "BaseLib.h"

namespace {

vek_s32 ignore_fault(const char*, const char*) {
    return VEK_FAULT_IGNORE;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    al_set_fault_hook(ignore_fault);
    BaseLib_init();
    return 0;
}
