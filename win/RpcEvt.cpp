/*
 * RpcEvt.cpp - type pickling of generic events through the RPC runtime's
 * own handles (MesEncodeDynBufferHandleCreate, MesDecodeBufferHandleCreate
 * and their kin), driven by the library's type description of the generic
 * event (RpcEvtDesc.h).
 */
// MIDL_user_allocate and MIDL_user_free are the library's own (VekEvt.h).
#define __MIDL_user_allocate_free_DEFINED__
#include <windows.h>
#include <midles.h>
#include <rpc.h>
#include <rpcndr.h>
#include "AlPlat.h"
#include "RpcEvtDesc.h"

namespace plat {

bool evt_pickle(vek_s32 op, void* handle, void* evt, vek_u32* size) {
    static const MIDL_STUB_DESC desc = rpcevt::stub_desc();
    MIDL_TYPE_PICKLING_INFO info = {0x33205054, 3, {0, 0, 0}};   // "TP", version 1: Oicf, new correlation
    PFORMAT_STRING type = (PFORMAT_STRING)rpcevt::kFmt + 2;
    switch (op) {
    case 0:
        *size = (vek_u32)NdrMesTypeAlignSize2((handle_t)handle, &info, &desc, type, evt);
        return true;
    case 1:
        NdrMesTypeEncode2((handle_t)handle, &info, &desc, type, evt);
        return true;
    case 2:
        NdrMesTypeDecode2((handle_t)handle, &info, &desc, type, evt);
        return true;
    default:
        return false;
    }
}

} // namespace plat
