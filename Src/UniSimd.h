/*
 * UniSimd.h - vector runs for the UTF-8 / UTF-16 converters (internal).
 * Each converts a run of whole characters it can treat in blocks and
 * returns how much it converted; the caller's scalar code carries on from
 * there, so every other byte or unit keeps its exact scalar treatment.
 * SSE2 on every x86 build (checked at run time on 32-bit), SSSE3 and AVX2
 * where the processor has them; elsewhere they convert nothing.
 */
#ifndef VEK_UNISIMD_H
#define VEK_UNISIMD_H

#include "VekType.h"

namespace vek {

/* ASCII: the longest run of whole blocks (16 or 32 characters) that are
 * ASCII and not 0, within max characters. */

/* Bytes to units (swap: byte-swapped units). */
vek_s32 ascii_to_units(const vek_u8* s, vek_s32 max, vek_wchar* d, bool swap);
/* Units (swap: byte-swapped units) to bytes. */
vek_s32 units_to_ascii(const vek_wchar* s, vek_s32 max, char* d, bool swap);

/* UTF-8 to host-order units: whole characters of one to three bytes, in
 * blocks of 16 bytes read within the len bytes at s, while room units are
 * left in d. Stops before the first character that is cut, malformed,
 * longer than three bytes or decodes to 0. Returns the units written, sets
 * *used to the bytes taken; d past the units written is not touched. */
vek_s32 utf8_to_units_run(const vek_u8* s, vek_s32 len, vek_wchar* d, vek_s32 room, vek_s32* used);

/* Units (swap: byte-swapped units) to UTF-8: blocks of 8 of the n units at
 * s while every unit would still find 4 bytes of room among the room bytes
 * at d; stops before a block holding a 0 unit. Returns the bytes written,
 * sets *used to the units taken; d past the bytes written is not touched. */
vek_s32 units_to_utf8_run(const vek_wchar* s, vek_s32 n, char* d, vek_s32 room, bool swap, vek_s32* used);

} // namespace vek

#endif /* VEK_UNISIMD_H */
