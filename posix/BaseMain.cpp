/*
 * BaseMain.cpp (POSIX) - load and unload of the library: the shared
 * object's constructor and destructor stand for process attach and detach.
 */
#include "VekCore.h"

namespace vek {
const int load_hooks_linked = 1;
}

namespace {

// Priority 101 runs before the library's own C++ initialisers (none of the
// core's state needs one) and before those of the program.
__attribute__((constructor(101))) void baselib_attach() {
    vek::load_attach((void*)&baselib_attach);
}

__attribute__((destructor(101))) void baselib_detach() {
    vek::load_detach();
}

} // namespace
