/*
 * The generic event's packets against the system RPC runtime (rpcrt4): the
 * runtime's NDR engine, given the library's type description of the event
 * (win/RpcEvtDesc.h), and the portable encoder make the same bytes, and each
 * side decodes the other's. The engine puts each user form behind the
 * structure at an alignment of its own choice (4 as described; wine's
 * engine takes 8): the library's body is laid out at the engine's
 * alignment, found from its output and reported, before the comparison.
 * Wine's rpcrt4 has no type pickling, so whole packets are compared only
 * where the runtime has it.
 */
#include "EvtTest.h"

#ifndef _WIN32

TEST(RpcRuntime, OnlyOnWindows) {
    GTEST_SKIP() << "the RPC runtime exists on Windows only";
}

#else

// MIDL_user_allocate and MIDL_user_free are the library's (VekEvt.h).
#define __MIDL_user_allocate_free_DEFINED__
#include <windows.h>
#include <midles.h>
#include <rpc.h>
#include <rpcndr.h>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>
#include "../win/RpcEvtDesc.h"

using namespace vektest;

namespace {

using rpcevt::kFmt;
using rpcevt::stub_desc;

// An NDR body with its three user forms moved from one alignment to
// another (a copy when the two are the same).
std::string relayout(const std::string& body, size_t from, size_t to) {
    std::string out = body.substr(0, 28);
    size_t off = 28;
    for (int i = 0; i < 3; i++) {
        off = (off + from - 1) & ~(from - 1);
        size_t n = i < 2 ? 12 + word_at(body, off + 8) : 8 + word_at(body, off + 4);
        out.resize((out.size() + to - 1) & ~(to - 1), '\0');
        out += body.substr(off, n);
        off += n;
    }
    return out;
}

// The used bytes of the library's packet body.
std::string body_of(const std::string& pkt) {
    return relayout(pkt.substr(16), 4, 4);
}

// A packet of the library's form around a body laid out at 4.
std::string packet_around(const std::string& body) {
    std::string b = body;
    b.resize((b.size() + 7) & ~(size_t)7, '\0');
    std::string p("\x01\x10\x08\x00\xCC\xCC\xCC\xCC\0\0\0\0\0\0\0\0", 16);
    set_word(p, 8, (vek_u32)b.size());
    return p + b;
}

// The runtime's engine over a buffer of its own.
struct Engine {
    MIDL_STUB_DESC desc = stub_desc();
    RPC_MESSAGE msg{};
    MIDL_STUB_MESSAGE sm{};
    std::vector<unsigned char> buf;
    Engine() { NdrClientInitializeNew(&msg, &sm, &desc, 0); }
    unsigned char* over(size_t len) {
        buf.assign(len + 16, 0);
        unsigned char* start = (unsigned char*)(((uintptr_t)buf.data() + 7) & ~(uintptr_t)7);
        msg.Buffer = sm.Buffer = sm.BufferStart = start;
        msg.BufferLength = sm.BufferLength = (unsigned int)len;
        sm.BufferEnd = start + len;
        return start;
    }
};

// The NDR body of an event made by the engine.
std::string engine_body(const GenEvt* e) {
    Engine en;
    en.sm.BufferLength = 0;
    NdrComplexStructBufferSize(&en.sm, (unsigned char*)e, (PFORMAT_STRING)kFmt + 2);
    unsigned char* start = en.over(en.sm.BufferLength);
    NdrComplexStructMarshall(&en.sm, (unsigned char*)e, (PFORMAT_STRING)kFmt + 2);
    return std::string((const char*)start, (size_t)(en.sm.Buffer - start));
}

// The fields of the event the engine decodes from an NDR body.
std::string engine_decode(const std::string& body) {
    Engine en;
    std::memcpy(en.over(body.size()), body.data(), body.size());
    GenEvt out;
    GenEvt_init(&out);
    unsigned char* mem = (unsigned char*)&out;
    NdrComplexStructUnmarshall(&en.sm, &mem, (PFORMAT_STRING)kFmt + 2, 0);
    std::string f = fields(&out);
    GenEvt_clean(&out);
    return f;
}

// The engine's alignment of user forms: the first one (an empty str1 of
// 12 bytes) starts at 28 when aligned to 4 and at 32 when aligned to 8.
size_t engine_align(const std::string& body) {
    return body.size() >= 32 && word_at(body, 28) == 0 ? 8 : 4;
}

std::vector<EvtPtr> sample_events() {
    std::vector<EvtPtr> v;
    v.emplace_back(GenEvt_new(7));
    v.emplace_back(GenEvt_newns(1, 2, -3, 4, "abc", "second text"));
    for (size_t n : {0, 1, 7, 8, 300}) {
        StrmPtr s = mem_strm_with(std::string(n, 'q'));
        v.emplace_back(GenEvt_newnsd(0x10000 + (vek_u32)n, 5, 6, 7, "x", "", s.get(), 1));
    }
    return v;
}

std::string hex(const std::string& b) {
    static const char d[] = "0123456789abcdef";
    std::string s;
    for (unsigned char c : b) {
        s += d[c >> 4];
        s += d[c & 15];
        s += ' ';
    }
    return s;
}

} // namespace

using RpcRuntime = VekTest;

TEST_F(RpcRuntime, EngineBodyMatchesThePortableEncoder) {
    EvtPtr first(GenEvt_new(7));
    std::string theirs = engine_body(first.get());
    size_t align = engine_align(theirs);
    std::printf("engine's user-form alignment: %u%s\nGenEvt_new(7): library %s\n               engine  %s\n",
                (unsigned)align, under_wine() ? " (wine)" : "", hex(body_of(packet_of(first.get()))).c_str(),
                hex(theirs).c_str());
    for (const auto& e : sample_events()) {
        EXPECT_EQ(hex(relayout(body_of(packet_of(e.get())), 4, align)), hex(engine_body(e.get())));
    }
}

TEST_F(RpcRuntime, EachSideDecodesTheOther) {
    for (const auto& e : sample_events()) {
        std::string theirs = engine_body(e.get());
        size_t align = engine_align(theirs);
        EXPECT_EQ(fields(e.get()), engine_decode(relayout(body_of(packet_of(e.get())), 4, align)));
        EXPECT_EQ(fields(e.get()), fields(decode(packet_around(relayout(theirs, align, 4))).get()));
    }
}

// Whole packets through the runtime's own handles, which GenEvt_Encode and
// GenEvt_Decode hand to the runtime's type pickling, where it exists.
TEST_F(RpcRuntime, TypePickling) {
    if (under_wine()) {
        GTEST_SKIP() << "wine's rpcrt4 has no type pickling: NdrMesTypeAlignSize2 is an unimplemented "
                        "stub (calling it raises an exception) and NdrMesTypeEncode2/NdrMesTypeDecode2 "
                        "only print a FIXME and leave the buffer empty";
    }
    for (const auto& e : sample_events()) {
        char* buf = nullptr;
        unsigned long len = 0;
        handle_t h = nullptr;
        ASSERT_EQ(RPC_S_OK, MesEncodeDynBufferHandleCreate(&buf, &len, &h));
        vek_u32 size = GenEvt_AlignSize(h, e.get());
        GenEvt_Encode(h, e.get());
        MesHandleFree(h);
        std::string theirs(buf, len), mine = packet_of(e.get());
        MIDL_user_free(buf);
        EXPECT_EQ(size, theirs.size());
        EXPECT_EQ(hex(mine), hex(theirs));

        GenEvt byRuntime;
        GenEvt_init(&byRuntime);
        ASSERT_EQ(RPC_S_OK, MesDecodeBufferHandleCreate((char*)mine.data(), (unsigned long)mine.size(), &h));
        GenEvt_Decode(h, &byRuntime);
        MesHandleFree(h);
        EXPECT_EQ(fields(e.get()), fields(&byRuntime));
        GenEvt_clean(&byRuntime);
        EXPECT_EQ(fields(e.get()), fields(decode(theirs).get()));
    }
}

#endif
