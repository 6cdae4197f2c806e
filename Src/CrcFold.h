/*
 * CrcFold.h - the carry-less-multiplication CRC-32 (internal).
 *
 * On x86 processors with PCLMULQDQ the reflected CRC-32 folds 64 bytes per
 * step instead of walking tables. The code lives in CrcFold.cpp, compiled
 * with the instructions enabled per function, so the rest of the library
 * keeps the baseline instruction set; VekMd5.cpp asks crc32_fold_ok() once
 * and falls back to tables on other processors and compilers.
 */
#ifndef VEK_CRCFOLD_H
#define VEK_CRCFOLD_H

#include <cstddef>
#include "VekType.h"

namespace vek {

/* Runs shorter than this go through the tables: the fold's set-up and its
 * final reduction cost about as much as that many table steps. */
constexpr size_t kCrc32FoldMin = 64;

/* True when this processor can run crc32_fold. */
bool crc32_fold_ok();

/* Feeds len bytes into the raw CRC-32 register fcs; len is at least
 * kCrc32FoldMin and a multiple of 16. */
vek_u32 crc32_fold(vek_u32 fcs, const vek_u8* p, size_t len);

} // namespace vek

#endif /* VEK_CRCFOLD_H */
