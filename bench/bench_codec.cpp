/*
 * Base64 against OpenSSL's EVP_EncodeBlock / EVP_DecodeBlock (48 KiB of
 * bytes encoded, the 64 KiB of text decoded), and septet packing and IRA
 * hexadecimal against the straightforward byte loops such code is usually
 * written as. Both sides write into buffers allocated once.
 */
#include <benchmark/benchmark.h>
#include <cstring>
#include <string>
#include <vector>
#include "BaseLib.h"
#ifdef HAVE_OPENSSL
#include <openssl/evp.h>
#endif

namespace {

constexpr size_t kBytes = 48 * 1024;  // 64 KiB of Base64 text

std::vector<vek_u8> data_of(size_t n) {
    std::vector<vek_u8> d(n);
    vek_u32 x = 12345;
    for (auto& b : d) {
        x = x * 1103515245u + 12345u;
        b = (vek_u8)(x >> 16);
    }
    return d;
}

std::string b64_text() {
    std::vector<vek_u8> d = data_of(kBytes);
    std::string s(kBytes / 3 * 4 + 1, '\0');
    s.resize((size_t)b64_enc_buf_from_buf(&s[0], (vek_s32)s.size(), d.data(), (vek_s32)d.size()));
    return s;
}

void per_byte(benchmark::State& state, size_t n) {
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)n);
}

void BM_b64_enc_vek(benchmark::State& state) {
    std::vector<vek_u8> d = data_of(kBytes);
    std::vector<char> out(kBytes / 3 * 4 + 1);
    for (auto _ : state) {
        vek_s32 n = b64_enc_buf_from_buf(out.data(), (vek_s32)out.size(), d.data(), (vek_s32)d.size());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    per_byte(state, kBytes);
}
BENCHMARK(BM_b64_enc_vek);

void BM_b64_dec_vek(benchmark::State& state) {
    std::string s = b64_text();
    std::vector<vek_u8> out(kBytes + 4);
    for (auto _ : state) {
        vek_s32 n = b64_dec_str_to_buf(s.c_str(), out.data(), (vek_s32)out.size());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    per_byte(state, s.size());
}
BENCHMARK(BM_b64_dec_vek);

void BM_b64_decx_vek(benchmark::State& state) {
    std::string s = b64_text();
    std::vector<vek_u8> out(kBytes + 4);
    for (auto _ : state) {
        vek_s32 len = (vek_s32)s.size();
        vek_s32 n = b64_dec_str_to_bufx(s.data(), &len, out.data());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    per_byte(state, s.size());
}
BENCHMARK(BM_b64_decx_vek);

#ifdef HAVE_OPENSSL
void BM_b64_enc_openssl(benchmark::State& state) {
    std::vector<vek_u8> d = data_of(kBytes);
    std::vector<unsigned char> out(kBytes / 3 * 4 + 1);
    for (auto _ : state) {
        int n = EVP_EncodeBlock(out.data(), d.data(), (int)d.size());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    per_byte(state, kBytes);
}
BENCHMARK(BM_b64_enc_openssl);

void BM_b64_dec_openssl(benchmark::State& state) {
    std::string s = b64_text();
    std::vector<unsigned char> out(kBytes + 4);
    for (auto _ : state) {
        int n = EVP_DecodeBlock(out.data(), (const unsigned char*)s.data(), (int)s.size());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    per_byte(state, s.size());
}
BENCHMARK(BM_b64_dec_openssl);
#endif

/* ---- septets ---- */

std::vector<vek_u8> septets_of(size_t n) {
    std::vector<vek_u8> s = data_of(n);
    for (auto& c : s) {
        c &= 0x7F;
    }
    return s;
}

// The textbook packer: each octet from two neighbouring septets.
vek_s32 pack_loop(vek_u8* out, const vek_u8* sep, vek_s32 count) {
    vek_s32 j = 0;
    for (vek_s32 i = 0; i < count; i++) {
        vek_s32 s = i & 7;
        if (s == 7) {
            continue;
        }
        vek_u8 next = i + 1 < count ? sep[i + 1] : 0;
        out[j++] = (vek_u8)((sep[i] >> s) | (next << (7 - s)));
    }
    return j;
}

// The textbook unpacker: septet i from the octet (and the next) that hold
// bit 7 * i.
vek_s32 unpack_loop(vek_u8* out, const vek_u8* packed, vek_s32 len) {
    vek_s32 count = len * 8 / 7;
    for (vek_s32 i = 0; i < count; i++) {
        vek_s32 bit = i * 7;
        vek_u32 v = packed[bit >> 3] >> (bit & 7);
        if ((bit & 7) > 1) {
            v |= (vek_u32)packed[(bit >> 3) + 1] << (8 - (bit & 7));
        }
        out[i] = (vek_u8)(v & 0x7F);
    }
    return count;
}

constexpr size_t kSeptets = 64 * 1024;

void BM_septet_pack_vek(benchmark::State& state) {
    std::vector<vek_u8> s = septets_of(kSeptets);
    std::vector<vek_u8> out(kSeptets);
    for (auto _ : state) {
        vek_s32 n = GsmUtil_enc7BitStr(out.data(), (vek_s32)out.size(), s.data(), (vek_s32)s.size(), 0);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    per_byte(state, kSeptets);
}
BENCHMARK(BM_septet_pack_vek);

void BM_septet_pack_loop(benchmark::State& state) {
    std::vector<vek_u8> s = septets_of(kSeptets);
    std::vector<vek_u8> out(kSeptets);
    for (auto _ : state) {
        vek_s32 n = pack_loop(out.data(), s.data(), (vek_s32)s.size());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    per_byte(state, kSeptets);
}
BENCHMARK(BM_septet_pack_loop);

void BM_septet_unpack_vek(benchmark::State& state) {
    std::vector<vek_u8> p = data_of(kSeptets / 8 * 7);
    std::vector<vek_u8> out(kSeptets + 2);
    for (auto _ : state) {
        vek_s32 n = GsmUtil_dec7BitStr(out.data(), (vek_s32)out.size(), p.data(), (vek_s32)p.size(), 0);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    per_byte(state, kSeptets);
}
BENCHMARK(BM_septet_unpack_vek);

void BM_septet_unpack_loop(benchmark::State& state) {
    std::vector<vek_u8> p = data_of(kSeptets / 8 * 7);
    std::vector<vek_u8> out(kSeptets + 2);
    for (auto _ : state) {
        vek_s32 n = unpack_loop(out.data(), p.data(), (vek_s32)p.size());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    per_byte(state, kSeptets);
}
BENCHMARK(BM_septet_unpack_loop);

/* ---- IRA hex ---- */

constexpr size_t kIra = 32 * 1024;

void ira_enc_loop(char* out, const vek_u8* d, size_t n) {
    static const char digits[] = "0123456789abcdef";
    for (size_t i = 0; i < n; i++) {
        out[2 * i] = digits[d[i] >> 4];
        out[2 * i + 1] = digits[d[i] & 15];
    }
    out[2 * n] = 0;
}

int nibble(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return 0;
}

size_t ira_dec_loop(vek_u8* out, const char* s) {
    size_t n = 0;
    for (; s[0] && s[1]; s += 2) {
        out[n++] = (vek_u8)(nibble(s[0]) << 4 | nibble(s[1]));
    }
    return n;
}

void BM_ira_enc_vek(benchmark::State& state) {
    std::vector<vek_u8> d = data_of(kIra);
    std::vector<char> out(2 * kIra + 1);
    for (auto _ : state) {
        vek_s32 n = ira_enc_buf_from_buf(out.data(), (vek_s32)out.size(), d.data(), (vek_s32)d.size());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    per_byte(state, kIra);
}
BENCHMARK(BM_ira_enc_vek);

void BM_ira_enc_loop(benchmark::State& state) {
    std::vector<vek_u8> d = data_of(kIra);
    std::vector<char> out(2 * kIra + 1);
    for (auto _ : state) {
        ira_enc_loop(out.data(), d.data(), d.size());
        benchmark::ClobberMemory();
    }
    per_byte(state, kIra);
}
BENCHMARK(BM_ira_enc_loop);

std::string ira_text() {
    std::vector<vek_u8> d = data_of(kIra);
    std::string s(2 * kIra + 1, '\0');
    s.resize((size_t)ira_enc_buf_from_buf(&s[0], (vek_s32)s.size(), d.data(), (vek_s32)d.size()));
    return s;
}

void BM_ira_dec_vek(benchmark::State& state) {
    std::string s = ira_text();
    std::vector<vek_u8> out(kIra + 1);
    for (auto _ : state) {
        vek_s32 n = ira_dec_str_to_buf(s.c_str(), out.data(), (vek_s32)out.size());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    per_byte(state, kIra);
}
BENCHMARK(BM_ira_dec_vek);

void BM_ira_dec_loop(benchmark::State& state) {
    std::string s = ira_text();
    std::vector<vek_u8> out(kIra + 1);
    for (auto _ : state) {
        size_t n = ira_dec_loop(out.data(), s.c_str());
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    per_byte(state, kIra);
}
BENCHMARK(BM_ira_dec_loop);

} // namespace
