/*
 * UniSimd.h - vector runs of ASCII for the UTF-8 / UTF-16 converters
 * (internal). Each converts the longest run of whole blocks (16 or 32
 * characters) that are ASCII and not 0, within max characters, and returns
 * how many it converted; the caller's scalar code carries on from there, so
 * every other byte or unit keeps its exact scalar treatment. SSE2 on every
 * x86 build (checked at run time on 32-bit), AVX2 where the processor has
 * it; elsewhere they convert nothing.
 */
#ifndef VEK_UNISIMD_H
#define VEK_UNISIMD_H

#include "VekType.h"

namespace vek {

/* Bytes to units (swap: byte-swapped units). */
vek_s32 ascii_to_units(const vek_u8* s, vek_s32 max, vek_wchar* d, bool swap);
/* Units (swap: byte-swapped units) to bytes. */
vek_s32 units_to_ascii(const vek_wchar* s, vek_s32 max, char* d, bool swap);

} // namespace vek

#endif /* VEK_UNISIMD_H */
