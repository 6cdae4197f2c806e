/*
 * RpcEvt.cpp - type pickling of generic events through a system RPC
 * runtime: POSIX has none, so only the library's own handles (VekMes)
 * exist here.
 */
#include "AlPlat.h"

namespace plat {

bool evt_pickle(vek_s32 op, void* handle, void* evt, vek_u32* size) {
    (void)op;
    (void)handle;
    (void)evt;
    (void)size;
    return false;
}

} // namespace plat
