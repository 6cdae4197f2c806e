/*
 * RpcEvtDesc.h - the library's type description of the generic event for
 * the RPC runtime's NDR engine (internal; win/RpcEvt.cpp and the runtime
 * tests share it): a complex structure, 4-byte aligned, of four longs and
 * three embedded user-marshalled members (the two VekStr and the IStrm
 * pointer, each unique and 4-byte aligned) whose user forms come from
 * VekStr_User* and PIStrm_User*. Both ends of a packet must use this same
 * description. Include after the RPC headers.
 */
#ifndef VEK_RPCEVTDESC_H
#define VEK_RPCEVTDESC_H

#include <cstring>
#include "VekEvt.h"

namespace rpcevt {

constexpr unsigned char lo(size_t v) {
    return (unsigned char)(v & 0xFF);
}
constexpr unsigned char hi(size_t v) {
    return (unsigned char)((v >> 8) & 0xFF);
}

inline const unsigned char kFmt[] = {
    0, 0,
    /* 2 */ 0x1a, 0x03, lo(sizeof(GenEvt)), hi(sizeof(GenEvt)), 0, 0, 0, 0,   // FC_BOGUS_STRUCT
    /* 10 */ 0x08, 0x08, 0x08, 0x08,                                           // FC_LONG x4
    /* 14 */ 0x4c, 0x00, lo(32 - 16), hi(32 - 16),                             // FC_EMBEDDED_COMPLEX
    /* 18 */ 0x4c, 0x00, lo(32 - 20), hi(32 - 20),
    /* 22 */ 0x4c, 0x00, lo(42 - 24), hi(42 - 24),
    /* 26 */ 0x5c, 0x5b,                                                       // FC_PAD FC_END
    /* 28 */ 0x5c, 0x5c, 0x5c, 0x5c,
    /* 32 */ 0xb4, 0x83, 0, 0, lo(sizeof(VekStr)), hi(sizeof(VekStr)), 0, 0,   // FC_USER_MARSHAL VekStr
    /* 40 */ lo(52 - 40), hi(52 - 40),
    /* 42 */ 0xb4, 0x83, 1, 0, lo(sizeof(IStrm*)), hi(sizeof(IStrm*)), 0, 0,   // FC_USER_MARSHAL PIStrm
    /* 50 */ lo(52 - 50), hi(52 - 50),
    /* 52 */ 0x12, 0x08, 0x01, 0x5c,                                           // wire type: FC_UP FC_BYTE
    0, 0};

inline const USER_MARSHAL_ROUTINE_QUADRUPLE kQuadruples[] = {
    {(USER_MARSHAL_SIZING_ROUTINE)VekStr_UserSize, (USER_MARSHAL_MARSHALLING_ROUTINE)VekStr_UserMarshal,
     (USER_MARSHAL_UNMARSHALLING_ROUTINE)VekStr_UserUnmarshal, (USER_MARSHAL_FREEING_ROUTINE)VekStr_UserFree},
    {(USER_MARSHAL_SIZING_ROUTINE)PIStrm_UserSize, (USER_MARSHAL_MARSHALLING_ROUTINE)PIStrm_UserMarshal,
     (USER_MARSHAL_UNMARSHALLING_ROUTINE)PIStrm_UserUnmarshal, (USER_MARSHAL_FREEING_ROUTINE)PIStrm_UserFree},
};

inline const RPC_CLIENT_INTERFACE kItf = {
    sizeof(RPC_CLIENT_INTERFACE),
    {{0x5e1f6a34, 0x8c1d, 0x4b7e, {0x9a, 0x41, 0x2c, 0x77, 0x10, 0xe3, 0x5d, 0x08}}, {1, 0}},
    {{0x8a885d04, 0x1ceb, 0x11c9, {0x9f, 0xe8, 0x08, 0x00, 0x2b, 0x10, 0x48, 0x60}}, {2, 0}},
    nullptr, 0, nullptr, 0, nullptr, 0};

inline handle_t g_autoHandle;

inline MIDL_STUB_DESC stub_desc() {
    MIDL_STUB_DESC d;
    std::memset(&d, 0, sizeof d);
    d.RpcInterfaceInformation = (void*)&kItf;
    d.pfnAllocate = MIDL_user_allocate;
    d.pfnFree = MIDL_user_free;
    d.IMPLICIT_HANDLE_INFO.pAutoHandle = &g_autoHandle;
    d.pFormatTypes = kFmt;
    d.fCheckBounds = 1;
    d.Version = 0x60000;
    d.MIDLVersion = 0x8000253;
    d.aUserMarshalQuadruple = kQuadruples;
    d.mFlags = 1;
    return d;
}

} // namespace rpcevt

#endif /* VEK_RPCEVTDESC_H */
