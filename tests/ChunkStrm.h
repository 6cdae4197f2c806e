/*
 * ChunkStrm.h - a read-only IStrm test double over a byte string that
 * delivers at most `chunk` bytes a read, so readers must loop.
 */
#ifndef VEK_TEST_CHUNKSTRM_H
#define VEK_TEST_CHUNKSTRM_H

#include <algorithm>
#include <cstring>
#include <string>
#include "BaseLib.h"

struct ChunkStrm {
    const IStrmVtbl* vtbl;  // the interface pointer is the object's address
    std::string data;
    size_t pos = 0;
    vek_s32 chunk;
    vek_s32 reads = 0;

    ChunkStrm(std::string d, vek_s32 c) : vtbl(&kVtbl), data(std::move(d)), chunk(c) {}
    IStrm* itf() { return reinterpret_cast<IStrm*>(this); }

  private:
    static ChunkStrm* self(IStrm* s) { return reinterpret_cast<ChunkStrm*>(s); }
    static vek_s32 read(IStrm* s, void* buf, vek_s32 n) {
        ChunkStrm* c = self(s);
        c->reads++;
        size_t k = std::min({(size_t)n, (size_t)c->chunk, c->data.size() - c->pos});
        std::memcpy(buf, c->data.data() + c->pos, k);
        c->pos += k;
        return (vek_s32)k;
    }
    static constexpr IStrmVtbl kVtbl = {
        [](IStrm*, const VekGuid*, void**) -> vek_s32 { return VEK_ERR_NOT_SUPPORTED; },
        [](IStrm*) -> vek_s32 { return 1; },
        [](IStrm*) -> vek_s32 { return 0; },
        [](IStrm*, vek_s32) -> vek_s32 { return VEK_ERR_NOT_SUPPORTED; },
        [](IStrm*) -> vek_s32 { return VEK_ERR_NOT_SUPPORTED; },
        [](IStrm*) -> vek_s32 { return VEK_ERR_NOT_SUPPORTED; },
        read,
        [](IStrm*, const void*, vek_s32) -> vek_s32 { return VEK_ERR_READ_ONLY; },
        [](IStrm*, vek_s64, vek_s32) -> vek_s32 { return VEK_ERR_NOT_SUPPORTED; },
        [](IStrm*) -> vek_s64 { return 0; },
        [](IStrm*) -> vek_s32 { return 0; },
        [](IStrm*) -> vek_s64 { return 0; },
        [](IStrm*) -> vek_s32 { return VEK_ERR_NOT_SUPPORTED; },
        [](IStrm*, vek_s64) -> vek_s32 { return VEK_ERR_NOT_SUPPORTED; },
        [](IStrm*) -> const char* { return "ChunkStrm"; },
    };
};

#endif /* VEK_TEST_CHUNKSTRM_H */
