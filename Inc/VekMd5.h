/*
 * VekMd5.h - the MD5 message digest (RFC 1321) and the frame-check CRCs.
 *
 * MD5: the caller owns the context; VekMd5_init, any number of
 * VekMd5_update calls, then VekMd5_finalx, which leaves the 16-byte digest
 * in the context (and optionally its hexadecimal text in a string).
 *
 * CRCs: all three are reflected (least-significant bit first), table-driven
 * and work on a raw register: nothing is inverted on the way in or out.
 *   Crc8   polynomial 0x31 (reflected 0x8C), the Dallas/Maxim CRC-8
 *   Crc16  polynomial 0x1021 (reflected 0x8408), the PPP/HDLC FCS-16
 *   Crc32  polynomial 0x04C11DB7 (reflected 0xEDB88320), the IEEE CRC-32
 *          of PPP FCS-32, zip and Ethernet
 * The usual check values are the complement of the register: start the
 * 16- and 32-bit runs with all ones (0xFFFF, 0xFFFFFFFF) and transmit ~fcs.
 */
#ifndef VEK_MD5_H
#define VEK_MD5_H

#include "VekType.h"

VEK_BEGIN_DECLS

/* MD5 context, 104 bytes. */
typedef struct VekMd5 {
    vek_u32 count[2];  /* bits fed so far: low word, high word */
    vek_u32 state[4];  /* chaining words A, B, C, D */
    vek_u8 buf[64];    /* the block being filled */
    vek_u8 digest[16]; /* the result, filled by VekMd5_finalx */
} VekMd5;

/* Starts a digest: count 0 and the standard chaining words. Returns ctx. */
VEK_API VekMd5* VekMd5_init(VekMd5* ctx);
/* Feeds len bytes (null ctx, null data with len > 0 or a negative len are
 * assertion failures and feed nothing). */
VEK_API void VekMd5_update(VekMd5* ctx, const void* data, vek_s32 len);
/* Pads, finishes and stores the digest in ctx->digest; when hex is not
 * null, appends the digest to it as 32 upper-case hexadecimal digits.
 * Returns ctx->digest (null for a null ctx). Start again with
 * VekMd5_init before feeding the context more bytes. */
VEK_API vek_u8* VekMd5_finalx(VekMd5* ctx, VekStr* hex);
/* Writes the upper-case hexadecimal form of a 16-byte digest as one trace
 * record (the library's module 10, level 1). Returns the record's length,
 * 0 when tracing filtered it out. */
VEK_API vek_s32 VekMd5_trcDig(const void* digest);
/* Compares two 16-byte digests with the lower-case ASCII letters
 * (0x61-0x7A) of both folded to upper case, so a digest compares equal to
 * its own text in either case as well: 1 equal, 0 different. */
VEK_API vek_s32 VekMd5_cmpDig(const void* a, const void* b);

/* CRC-8 of len bytes, register starting at 0. */
VEK_API vek_u8 Crc8_fcsBuf(const void* buf, vek_s32 len);
/* One byte, or a run of bytes, into a running CRC-16 / CRC-32 register. */
VEK_API vek_u16 Crc16_fcsU8(vek_u16 fcs, vek_u8 byte);
VEK_API vek_u16 Crc16_fcsBuf(vek_u16 fcs, const void* buf, vek_s32 len);
VEK_API vek_u32 Crc32_fcsU8(vek_u32 fcs, vek_u8 byte);
VEK_API vek_u32 Crc32_fcsBuf(vek_u32 fcs, const void* buf, vek_s32 len);
/* The CRC of a whole stream, from its start to its end, whatever its
 * position; the position is restored afterwards. The registers start at
 * 0 (CRC-8), 0xFFFF (CRC-16) and 0xFFFFFFFF (CRC-32) and are returned raw.
 * A null stream is an assertion failure and returns the starting value. */
VEK_API vek_u8 Crc8_fcsStrm(IStrm* strm);
VEK_API vek_u16 Crc16_fcsStrm(IStrm* strm);
VEK_API vek_u32 Crc32_fcsStrm(IStrm* strm);

VEK_END_DECLS

#endif /* VEK_MD5_H */
