/*
 * Generic event packets: a typical event (two 32-byte strings, a 256-byte
 * stream) encoded to a packet and decoded back to a new event, against a
 * plain copy of the same bytes (one heap block per direction, as the packet
 * and the event each take), the floor for moving them.
 */
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <string>
#include "BaseLib.h"

namespace {

const std::string kText(32, 's');
const std::string kData(256, 'd');

GenEvt* typical_event() {
    IStrm* s = MemStrm_xcreatex__(nullptr, 0, __FILE__, __LINE__);
    IStrm_write(s, kData.data(), (vek_s32)kData.size());
    return GenEvt_newnsd(100, 1, 2, 3, kText.c_str(), kText.c_str(), s, 0);
}

void BM_GenEvtRoundTrip(benchmark::State& state) {
    GenEvt* e = typical_event();
    for (auto _ : state) {
        vek_u32 len = 0;
        void* pkt = GenEvt_enc(e, &len);
        GenEvt* back = GenEvt_dec(pkt, len);
        benchmark::DoNotOptimize(back->num2);
        Evt_delete(back);
        MIDL_user_free(pkt);
    }
    Evt_delete(e);
    state.SetItemsProcessed((int64_t)state.iterations());
}

// The same bytes (packet length) copied into a fresh block and back into
// another.
void BM_PlainCopy(benchmark::State& state) {
    GenEvt* e = typical_event();
    vek_u32 len = 0;
    void* pkt = GenEvt_enc(e, &len);
    Evt_delete(e);
    for (auto _ : state) {
        void* out = std::malloc(len);
        std::memcpy(out, pkt, len);
        benchmark::ClobberMemory();
        void* back = std::malloc(len);
        std::memcpy(back, out, len);
        benchmark::DoNotOptimize(back);
        std::free(back);
        std::free(out);
    }
    MIDL_user_free(pkt);
    state.SetItemsProcessed((int64_t)state.iterations());
}

} // namespace

BENCHMARK(BM_GenEvtRoundTrip);
BENCHMARK(BM_PlainCopy);
