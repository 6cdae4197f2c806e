/*
 * The modem channel side by side with the least a program could do:
 * the lexer over a modem transcript against memchr finding its line ends,
 * an AtChan command/OK round trip over a pseudo-terminal against the same
 * bytes written and read raw, and a 3-part UCS-2 message encoded and its
 * parts decoded (a figure of its own).
 */
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>
#include <cstring>
#include <string>
#include <thread>
#include "BaseLib.h"

namespace {

/* What a modem session looks like on the wire: echoes, short replies,
 * URCs, and a storage listing of PDUs, repeated to 8 MiB. */
const std::string& transcript() {
    static std::string t;
    if (t.empty()) {
        std::string one =
            "AT+CSQ\r\r\n+CSQ: 20,99\r\n\r\nOK\r\n"
            "AT+CREG?\r\r\n+CREG: 0,1\r\n\r\nOK\r\n"
            "\r\n^RSSI: 17\r\n"
            "\r\n+CMTI: \"SM\",3\r\n"
            "AT+CMGL=4\r\r\n"
            "+CMGL: 1,1,,36\r\n07917283010010F5040BC87238880900F10000993092516195800AE8329BFD4697D9EC37\r\n"
            "+CMGL: 2,1,,41\r\n00440B916407281553F8000899309251619580160500032A0201041F04400438043204350442D83DDE00\r\n"
            "\r\nOK\r\n"
            "AT+COPS?\r\r\n+COPS: 0,0,\"Operator\",7\r\n\r\nOK\r\n"
            "AT+CPIN?\r\r\n+CME ERROR: 14\r\n";
        while (t.size() < (8u << 20)) {
            t += one;
        }
    }
    return t;
}

void BM_lex_vek(benchmark::State& state) {
    const std::string& t = transcript();
    VekLex* lex = VekLex_new(0, 0);
    long tokens = 0;
    for (auto _ : state) {
        for (size_t at = 0; at < t.size();) {
            VekLexTok tok;
            at += (size_t)VekLex_feed(lex, t.data() + at, (vek_s32)std::min<size_t>(4096, t.size() - at), &tok);
            tokens += tok.kind != VEK_LEX_NONE;
        }
    }
    benchmark::DoNotOptimize(tokens);
    VekLex_delete(lex);
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)t.size());
    state.counters["ns_per_byte"] = benchmark::Counter((double)t.size() * 1e-9,
                                                       benchmark::Counter::kIsIterationInvariantRate |
                                                           benchmark::Counter::kInvert);
}

void BM_lex_memchr(benchmark::State& state) {
    const std::string& t = transcript();
    long lines = 0;
    for (auto _ : state) {
        const char* p = t.data();
        const char* end = p + t.size();
        while ((p = (const char*)std::memchr(p, '\n', (size_t)(end - p))) != nullptr) {
            lines++;
            p++;
        }
    }
    benchmark::DoNotOptimize(lines);
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)t.size());
}

/* A pseudo-terminal whose master answers every command line with OK. */
struct OkModem {
    int m;
    std::string path;
    std::thread t;
    OkModem() {
        m = posix_openpt(O_RDWR | O_NOCTTY);
        grantpt(m);
        unlockpt(m);
        path = ptsname(m);
        t = std::thread([this] {
            char b[64];
            for (;;) {
                ssize_t r = read(m, b, sizeof b);
                if (r <= 0) {
                    return;
                }
                if (std::memchr(b, '\r', (size_t)r) && write(m, "\r\nOK\r\n", 6) != 6) {
                    return;
                }
            }
        });
    }
    ~OkModem() {
        close(m);
        t.join();
    }
};

void BM_atchan_rtt_raw(benchmark::State& state) {
    OkModem mdm;
    int s = open(mdm.path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    struct termios tio;
    tcgetattr(s, &tio);
    cfmakeraw(&tio);
    tcsetattr(s, TCSANOW, &tio);
    for (auto _ : state) {
        if (write(s, "AT\r", 3) != 3) {
            state.SkipWithError("write");
            break;
        }
        std::string got;
        while (got.find("OK\r\n") == std::string::npos) {
            struct pollfd p = {s, POLLIN, 0};
            poll(&p, 1, 5000);
            char b[64];
            ssize_t r = read(s, b, sizeof b);
            if (r > 0) {
                got.append(b, (size_t)r);
            }
        }
    }
    close(s);
}

void BM_atchan_rtt_vek(benchmark::State& state) {
    OkModem mdm;
    vek_s32 err;
    ISock* s = SerSock_xopen__(mdm.path.c_str(), nullptr, &err, __FILE__, __LINE__);
    AtChan* ch = AtChan_new(s, nullptr, &err);
    for (auto _ : state) {
        if (AtChan_cmd(ch, "AT", nullptr, 5000) != 0) {
            state.SkipWithError("AtChan_cmd");
            break;
        }
    }
    AtChan_delete(ch);
    ISock_release(s);
}

void BM_sms_ucs2_3part(benchmark::State& state) {
    std::string text;
    for (int i = 0; i < 180; i++) {
        text += "\xD0\x96";  // 180 x U+0416: three UCS-2 parts
    }
    SmsPart parts[4];
    SmsMsg m;
    for (auto _ : state) {
        vek_s32 n = SmsPdu_encSubmit(parts, 4, "+46708251358", text.c_str(), -1, nullptr);
        for (vek_s32 i = 0; i < n; i++) {
            SmsPdu_dec(&m, parts[i].hex, -1, 1);
        }
        benchmark::DoNotOptimize(m.textLen);
    }
    state.counters["us"] = benchmark::Counter(1e-6, benchmark::Counter::kIsIterationInvariantRate |
                                                        benchmark::Counter::kInvert);
}

} // namespace

BENCHMARK(BM_lex_vek);
BENCHMARK(BM_lex_memchr);
BENCHMARK(BM_atchan_rtt_raw)->UseRealTime();
BENCHMARK(BM_atchan_rtt_vek)->UseRealTime();
BENCHMARK(BM_sms_ucs2_3part);
