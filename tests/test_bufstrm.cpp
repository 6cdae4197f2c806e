/*
 * The buffered stream over a memory stream (one position for reading and
 * writing) and over a socket stream (two directions), and the socket
 * stream's ends. Small buffers make every boundary show: a line cut by a
 * refill, a CR and its LF in different fills, read-ahead that a write must
 * give back, a request left in the write buffer while its reply is
 * awaited.
 */
#include <string>
#include "VekTest.h"

namespace {

struct StrmPtr {
    IStrm* s;
    ~StrmPtr() { IStrm_release(s); }
    operator IStrm*() const { return s; }
};

IStrm* mem_with(const std::string& text) {
    IStrm* m = MemStrm_xcreatex__(nullptr, 0, __FILE__, __LINE__);
    IStrm_write(m, text.data(), (vek_s32)text.size());
    IStrm_seek(m, 0, 0);
    return m;
}

} // namespace

class BufStrmTest : public VekTest {};

TEST_F(BufStrmTest, LinesSurviveEveryRefillBoundary) {
    const std::string text = "one\r\ntwo\n\nthree-is-long\r\nlast";
    for (vek_s32 bufSize : {1, 2, 3, 5, 64}) {
        StrmPtr mem{mem_with(text)};
        StrmPtr b{BufStrm_xcreate__(nullptr, mem, bufSize, __FILE__, __LINE__)};
        char line[8];
        EXPECT_EQ(3, BufStrm_readLine(b, line, sizeof line));
        EXPECT_STREQ("one", line);
        EXPECT_EQ(3, BufStrm_readLine(b, line, sizeof line));
        EXPECT_EQ(0, BufStrm_readLine(b, line, sizeof line));
        // Too long: the first 7 bytes, then the rest is the next line.
        EXPECT_EQ(VEK_ERR_LINE_LONG, BufStrm_readLine(b, line, sizeof line)) << bufSize;
        EXPECT_STREQ("three-i", line);
        EXPECT_EQ(6, BufStrm_readLine(b, line, sizeof line));
        EXPECT_STREQ("s-long", line);
        EXPECT_EQ(4, BufStrm_readLine(b, line, sizeof line));
        EXPECT_STREQ("last", line);
        EXPECT_EQ(VEK_ERR_EOF, BufStrm_readLine(b, line, sizeof line));
    }
    // A line that fills the room exactly once its CR is dropped fits.
    StrmPtr mem{mem_with("1234567\r\nx")};
    StrmPtr b{BufStrm_xcreate__(nullptr, mem, 4, __FILE__, __LINE__)};
    char line[8];
    EXPECT_EQ(7, BufStrm_readLine(b, line, sizeof line));
    EXPECT_EQ(1, BufStrm_readLine(b, line, sizeof line));
}

TEST_F(BufStrmTest, WritesLandWhereTheReaderStandsAndFlushOnSeek) {
    StrmPtr mem{mem_with("abcdefghij")};
    StrmPtr b{BufStrm_xcreate__(nullptr, mem, 4, __FILE__, __LINE__)};
    char x[3];
    ASSERT_EQ(3, IStrm_read(b, x, 3));  // reads ahead past "c"
    EXPECT_EQ(3, IStrm_tell(b));
    EXPECT_EQ(0, IStrm_ungetc(b));
    EXPECT_EQ('c', IStrm_getc(b));
    EXPECT_EQ(2, IStrm_write(b, "XY", 2));
    EXPECT_EQ(5, IStrm_tell(b));
    EXPECT_EQ(0, IStrm_putc(b, 'Z'));
    EXPECT_EQ(0, IStrm_seek(b, 0, 0));  // pushes the buffered writes out
    char all[11] = {};
    EXPECT_EQ(10, IStrm_read(b, all, 10));
    EXPECT_STREQ("abcXYZghij", all);
    EXPECT_EQ(0, IStrm_read(b, all, 10));
    // A block larger than the buffer passes straight through.
    EXPECT_EQ(0, IStrm_seek(b, -2, 1));
    EXPECT_EQ(6, IStrm_write(b, "123456", 6));
    EXPECT_EQ(14, IStrm_size(b));
}

TEST_F(BufStrmTest, OverASocketARequestGoesOutBeforeItsReplyIsAwaited) {
    vek_s32 err;
    ISock* lis = TcpSock_xlisten__("127.0.0.1", 0, VEK_TCP_NUMERIC, &err, __FILE__, __LINE__);
    ASSERT_TRUE(lis);
    ISock* cli = TcpSock_xconnect__("127.0.0.1", TcpSock_port(lis), VEK_TCP_NUMERIC, 5000, &err, __FILE__, __LINE__);
    ASSERT_TRUE(cli);
    ISock* srv = nullptr;
    ASSERT_EQ(0, ISock_accept(lis, &srv, 5000));
    ISock_release(lis);
    StrmPtr ks{SockStrm_xcreate__(nullptr, cli, 3000, 3000, __FILE__, __LINE__)};
    ISock_release(cli);
    StrmPtr b{BufStrm_xcreate__(nullptr, ks, 0, __FILE__, __LINE__)};
    // The peer answers a request only once it has it whole.
    vek_u32 tid = vektest::spawn([srv] {
        char req[16] = {};
        vek_s32 n = 0;
        while (n < 5) {
            vek_s32 r = ISock_read(srv, req + n, (vek_s32)sizeof req - 1 - n, 3000);
            if (r <= 0) {
                return 1u;
            }
            n += r;
        }
        ISock_write(srv, "PONG\r\nrest", 10, 1000);
        return std::string(req) == "PING\n" ? 0u : 2u;
    });
    IStrm_printf(b, "PING\n");
    char line[32];
    vek_u32 t0 = vek_msec();
    EXPECT_EQ(4, BufStrm_readLine(b, line, sizeof line));
    EXPECT_STREQ("PONG", line);
    // What arrived is returned without waiting to fill the request.
    EXPECT_EQ(4, IStrm_read(b, line, sizeof line));
    EXPECT_LT(vek_msec() - t0, 2000u);
    EXPECT_EQ(0u, vek_thrd_join(tid));
    ISock_release(srv);
    EXPECT_EQ(0, IStrm_read(b, line, sizeof line));
    EXPECT_EQ(VEK_ERR_PEER_CLOSED, SockStrm_lastErr(ks));
    EXPECT_EQ(VEK_ERR_PEER_CLOSED, IStrm_getc(ks));
    EXPECT_EQ(VEK_ERR_NOT_SUPPORTED, IStrm_seek(ks, 1, 0));
}
