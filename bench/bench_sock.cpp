/*
 * The socket classes against the system calls they wrap, side by side:
 * TCP loopback throughput in 64 KiB writes and a 64-byte request/response
 * round trip (against blocking send/recv), a 32-byte command/reply over a
 * pseudo-terminal (against write/poll/read), and 100 MB of text read by
 * lines through BufStrm over a FileStrm (against fgets).
 */
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>
#include "BaseLib.h"

namespace {

constexpr int kStreamBytes = 32 << 20;
constexpr int kChunk = 64 << 10;

/* A connected loopback pair, both ends raw descriptors. */
void raw_pair(int* a, int* b) {
    int l = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof sa;
    bind(l, (sockaddr*)&sa, sizeof sa);
    listen(l, 1);
    getsockname(l, (sockaddr*)&sa, &n);
    *a = socket(AF_INET, SOCK_STREAM, 0);
    connect(*a, (sockaddr*)&sa, sizeof sa);
    *b = accept(l, nullptr, nullptr);
    close(l);
    int one = 1;
    setsockopt(*a, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(*b, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

/* Reads n bytes from a blocking descriptor and writes them back, until
 * the other end closes. */
void echo(int fd, size_t n) {
    std::vector<char> b(n);
    for (;;) {
        size_t got = 0;
        while (got < n) {
            ssize_t r = read(fd, b.data() + got, n - got);
            if (r <= 0) {
                return;
            }
            got += (size_t)r;
        }
        if (write(fd, b.data(), n) != (ssize_t)n) {
            return;
        }
    }
}

void sink(int fd) {
    std::vector<char> b(kChunk);
    while (read(fd, b.data(), b.size()) > 0) {
    }
}

void BM_tcp_stream_raw(benchmark::State& state) {
    int a, b;
    raw_pair(&a, &b);
    std::thread t(sink, b);
    std::vector<char> buf(kChunk, 'x');
    for (auto _ : state) {
        for (int done = 0; done < kStreamBytes; done += kChunk) {
            for (int off = 0; off < kChunk;) {
                ssize_t r = send(a, buf.data() + off, (size_t)(kChunk - off), 0);
                off += r > 0 ? (int)r : 0;
            }
        }
    }
    shutdown(a, SHUT_WR);
    t.join();
    close(a);
    close(b);
    state.SetBytesProcessed((int64_t)state.iterations() * kStreamBytes);
}

/* A connected TcpSock and the other end as a blocking descriptor. */
struct VekPair {
    ISock* lis = nullptr;
    ISock* cli = nullptr;
    ISock* srv = nullptr;
    int peer = -1;
    VekPair() {
        vek_s32 err;
        lis = TcpSock_xlisten__("127.0.0.1", 0, VEK_TCP_NUMERIC | VEK_TCP_NODELAY, &err, __FILE__, __LINE__);
        cli = TcpSock_xconnect__("127.0.0.1", TcpSock_port(lis), VEK_TCP_NUMERIC | VEK_TCP_NODELAY, 5000, &err,
                                 __FILE__, __LINE__);
        ISock_accept(lis, &srv, 5000);
        peer = dup((int)ISock_native(srv));
        fcntl(peer, F_SETFL, fcntl(peer, F_GETFL) & ~O_NONBLOCK);
    }
    ~VekPair() {
        close(peer);
        ISock_release(srv);
        ISock_release(lis);
    }
};

void BM_tcp_stream_vek(benchmark::State& state) {
    VekPair p;
    std::thread t(sink, p.peer);
    std::vector<char> buf(kChunk, 'x');
    for (auto _ : state) {
        for (int done = 0; done < kStreamBytes; done += kChunk) {
            ISock_write(p.cli, buf.data(), kChunk, -1);
        }
    }
    ISock_release(p.cli);
    shutdown((int)ISock_native(p.srv), SHUT_RDWR);
    t.join();
    state.SetBytesProcessed((int64_t)state.iterations() * kStreamBytes);
}

void BM_tcp_rtt_raw(benchmark::State& state) {
    int a, b;
    raw_pair(&a, &b);
    std::thread t(echo, b, 64);
    char req[64] = {1}, rsp[64];
    for (auto _ : state) {
        send(a, req, sizeof req, 0);
        for (size_t got = 0; got < sizeof rsp;) {
            ssize_t r = recv(a, rsp + got, sizeof rsp - got, 0);
            got += r > 0 ? (size_t)r : 0;
        }
    }
    shutdown(a, SHUT_WR);
    t.join();
    close(a);
    close(b);
}

void BM_tcp_rtt_vek(benchmark::State& state) {
    VekPair p;
    std::thread t(echo, p.peer, 64);
    char req[64] = {1}, rsp[64];
    for (auto _ : state) {
        ISock_write(p.cli, req, sizeof req, 5000);
        for (vek_s32 got = 0; got < (vek_s32)sizeof rsp;) {
            vek_s32 r = ISock_read(p.cli, rsp + got, (vek_s32)sizeof rsp - got, 5000);
            got += r > 0 ? r : 0;
        }
    }
    ISock_release(p.cli);
    shutdown((int)ISock_native(p.srv), SHUT_RDWR);
    t.join();
}

/* A pseudo-terminal whose master echoes 32-byte commands; the slave's
 * path for the client. */
int pty_echo(std::string* slave, std::thread* t) {
    int m = posix_openpt(O_RDWR | O_NOCTTY);
    grantpt(m);
    unlockpt(m);
    *slave = ptsname(m);
    *t = std::thread(echo, m, 32);
    return m;
}

void BM_pty_rtt_raw(benchmark::State& state) {
    std::string path;
    std::thread t;
    int m = pty_echo(&path, &t);
    int s = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    struct termios tio;
    tcgetattr(s, &tio);
    cfmakeraw(&tio);
    tcsetattr(s, TCSANOW, &tio);
    char cmd[32] = {'A'}, rsp[32];
    for (auto _ : state) {
        if (write(s, cmd, sizeof cmd) != (ssize_t)sizeof cmd) {
            state.SkipWithError("write");
            break;
        }
        for (size_t got = 0; got < sizeof rsp;) {
            struct pollfd p = {s, POLLIN, 0};
            poll(&p, 1, 5000);
            ssize_t r = read(s, rsp + got, sizeof rsp - got);
            got += r > 0 ? (size_t)r : 0;
        }
    }
    close(s);
    close(m);
    t.join();
}

void BM_pty_rtt_vek(benchmark::State& state) {
    std::string path;
    std::thread t;
    int m = pty_echo(&path, &t);
    vek_s32 err;
    ISock* s = SerSock_xopen__(path.c_str(), nullptr, &err, __FILE__, __LINE__);
    char cmd[32] = {'A'}, rsp[32];
    for (auto _ : state) {
        ISock_write(s, cmd, sizeof cmd, 5000);
        for (vek_s32 got = 0; got < (vek_s32)sizeof rsp;) {
            vek_s32 r = ISock_read(s, rsp + got, (vek_s32)sizeof rsp - got, 5000);
            got += r > 0 ? r : 0;
        }
    }
    ISock_release(s);
    close(m);
    t.join();
}

/* 100 MB of lines 20 to 100 bytes long, written once. */
const std::string& text_file() {
    static std::string path;
    if (path.empty()) {
        path = "/tmp/vekbench-lines-" + std::to_string(getpid()) + ".txt";
        std::FILE* f = std::fopen(path.c_str(), "wb");
        std::string line;
        unsigned x = 1;
        for (long total = 0; total < 100000000L;) {
            x = x * 1103515245u + 12345u;
            line.assign(20 + (x >> 16) % 81, (char)('a' + (x >> 8) % 26));
            line += '\n';
            std::fwrite(line.data(), 1, line.size(), f);
            total += (long)line.size();
        }
        std::fclose(f);
        std::atexit([] { std::remove(path.c_str()); });
    }
    return path;
}

void BM_lines_fgets(benchmark::State& state) {
    const std::string& path = text_file();
    char line[4096];
    for (auto _ : state) {
        std::FILE* f = std::fopen(path.c_str(), "rb");
        long n = 0;
        while (std::fgets(line, sizeof line, f)) {
            n++;
        }
        std::fclose(f);
        benchmark::DoNotOptimize(n);
    }
}

void BM_lines_bufstrm(benchmark::State& state) {
    const std::string& path = text_file();
    char line[4096];
    for (auto _ : state) {
        vek_s32 err;
        IStrm* f = FileStrm_xcreatex__(nullptr, path.c_str(), "rb", &err, __FILE__, __LINE__);
        IStrm* b = BufStrm_xcreate__(nullptr, f, 0, __FILE__, __LINE__);
        IStrm_release(f);
        long n = 0;
        while (BufStrm_readLine(b, line, sizeof line) >= 0) {
            n++;
        }
        IStrm_release(b);
        benchmark::DoNotOptimize(n);
    }
}

} // namespace

BENCHMARK(BM_tcp_stream_raw)->UseRealTime();
BENCHMARK(BM_tcp_stream_vek)->UseRealTime();
BENCHMARK(BM_tcp_rtt_raw)->UseRealTime();
BENCHMARK(BM_tcp_rtt_vek)->UseRealTime();
BENCHMARK(BM_pty_rtt_raw)->UseRealTime();
BENCHMARK(BM_pty_rtt_vek)->UseRealTime();
BENCHMARK(BM_lines_fgets)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_lines_bufstrm)->Unit(benchmark::kMillisecond);
