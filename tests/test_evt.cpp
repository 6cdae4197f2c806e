/*
 * Events: the marked prefix, the generic event's constructors and stream
 * ownership, the stream user form, packets (fixed bytes, round trips,
 * damaged input) and the event manager.
 */
#include <cstddef>
#include <cstring>
#include "EvtTest.h"

using namespace vektest;

static_assert(offsetof(EvtHdr, rid) == 4 && offsetof(EvtHdr, num1) == 8 && offsetof(EvtHdr, num2) == 12 &&
                  offsetof(EvtHdr, str1) == 16 && offsetof(EvtHdr, str2) > offsetof(EvtHdr, str1) &&
                  offsetof(EvtHdr, strm) > offsetof(EvtHdr, str2),
              "header field order");
#if defined(__i386__)
static_assert(offsetof(EvtHdr, str2) == 24 && offsetof(EvtHdr, strm) == 32 && sizeof(EvtHdr) == 36, "32-bit layout");
#endif

using Events = VekTest;

TEST_F(Events, ConstructorsFillTheirFields) {
    EXPECT_EQ("7 0 0 0 ||| -", fields(EvtPtr(GenEvt_new(7)).get()));
    EXPECT_EQ("1 2 -3 4 ||| -", fields(EvtPtr(GenEvt_newn(1, 2, -3, 4)).get()));
    EXPECT_EQ("1 2 3 4 |one|| -", fields(EvtPtr(GenEvt_newns(1, 2, 3, 4, "one", nullptr)).get()));
    EXPECT_EQ("9 0 0 0 ||two| -", fields(EvtPtr(GenEvt_newsd(9, nullptr, "two", nullptr, 1)).get()));
    StrmPtr s = mem_strm_with("data");
    EXPECT_EQ("1 2 3 4 ||| data", fields(EvtPtr(GenEvt_newnd(1, 2, 3, 4, s.get(), 1)).get()));
    EXPECT_EQ("5 6 7 8 |a|b| data", fields(EvtPtr(GenEvt_newnsd(5, 6, 7, 8, "a", "b", s.get(), 1)).get()));
    EXPECT_EQ(5u, Evt_eid(EvtPtr(GenEvt_newn(5, 6, 0, 0)).get()));
    EXPECT_EQ(6u, Evt_rid(EvtPtr(GenEvt_newn(5, 6, 0, 0)).get()));
}

// A handed-over stream goes with the event; a cloned one stays the caller's.
TEST_F(Events, StreamOwnership) {
    StrmPtr mine = mem_strm_with("data");
    IStrm_addRef(mine.get());
    EvtPtr e(GenEvt_newnd(1, 0, 0, 0, mine.get(), 0));
    EXPECT_EQ(mine.get(), e->strm);
    e.reset();
    EXPECT_EQ(2, IStrm_addRef(mine.get())) << "the event released its reference";
    IStrm_release(mine.get());

    e.reset(GenEvt_newsd(1, "a", "b", mine.get(), 1));
    EXPECT_NE(mine.get(), e->strm);
    e.reset();
    EXPECT_EQ(2, IStrm_addRef(mine.get())) << "a clone leaves the caller's count alone";
    IStrm_release(mine.get());
}

TEST_F(Events, CleanAndFree) {
    GenEvt local;
    GenEvt_init(&local);
    EXPECT_EQ("0 0 0 0 ||| -", fields(&local));
    VekStr_appdStr(&local.str1, "text");
    local.strm = mem_strm_with("x").release();
    GenEvt_clean(&local);
    EXPECT_EQ(nullptr, local.strm);

    static int cleaned;
    void* raw = Evt_alloc(16, [](void*) { cleaned++; });
    Evt_delete(raw);
    EXPECT_EQ(1, cleaned);
    GenEvt* e = GenEvt_newns(1, 0, 0, 0, "kept", nullptr);
    VekStr moved = e->str1;   // Evt_free leaves the contents to the caller
    VekStr_delete(&e->str2);
    Evt_free(e);
    EXPECT_STREQ("kept", VekStr_buf(&moved));
    VekStr_delete(&moved);
}

// The prefix holds the mark, then GenEvt_clean itself as clean function;
// the event's delete still releases the contents (the fixture's leak check).
TEST_F(Events, PrefixNamesGenEvtClean) {
    GenEvt* e = GenEvt_newns(1, 0, 0, 0, "text", "more");
    const char* evt = reinterpret_cast<const char*>(e);
    EvtCleanFn clean;
    std::memcpy(&clean, evt - sizeof clean, sizeof clean);
    EXPECT_EQ(reinterpret_cast<EvtCleanFn>(&GenEvt_clean), clean);
#if defined(__i386__)
    vek_u32 mark;
    std::memcpy(&mark, evt - 8, 4);
    EXPECT_EQ(0x3D10EA42u, mark);
#endif
    Evt_delete(e);
}

TEST_F(Events, MarkCheckEndsTheProcess) {
    alignas(16) unsigned char fake[64] = {};
    EXPECT_DEATH((al_set_fault_hook(nullptr), Evt_delete(fake + 32)), "obj crash");
    EXPECT_DEATH((al_set_fault_hook(nullptr), Evt_free(fake + 32)), "obj crash");
#ifndef _WIN32   // Windows hands foreign handles to the RPC runtime
    EXPECT_DEATH((al_set_fault_hook(nullptr), GenEvt_AlignSize(fake, nullptr)), "obj crash");
#endif
}

// Content read from the start whatever the position, and back; the null
// and empty forms are in the packet tests.
TEST_F(Events, StreamUserForm) {
    vek_u32 flags = 0;
    vek_u8 buf[32];
    IStrm* none = nullptr;
    EXPECT_EQ(8u + 3, PIStrm_UserSize(&flags, 3, &none));
    StrmPtr full = mem_strm_with("hello", 2);   // several blocks
    IStrm_seek(full.get(), 3, 0);
    IStrm* f = full.get();
    EXPECT_EQ(13u, PIStrm_UserSize(&flags, 0, &f));
    EXPECT_EQ(buf + 13, PIStrm_UserMarshal(&flags, buf, &f));
    EXPECT_EQ(std::string("\0\0\0\0\5\0\0\0hello", 13), std::string((char*)buf, 13));
    EXPECT_EQ(3, IStrm_tell(full.get())) << "the position is kept";

    IStrm* back = nullptr;
    EXPECT_EQ(buf + 13, PIStrm_UserUnmarshal(&flags, buf, &back));
    EXPECT_EQ("hello", bytes_of(back));
    PIStrm_UserUnmarshal(&flags, (vek_u8*)"\1\0\0\0\0\0\0\0", &back);   // releases it
    EXPECT_EQ(nullptr, back);
    PIStrm_UserUnmarshal(&flags, (vek_u8*)"\0\0\0\0\0\0\0\0", &back);
    ASSERT_NE(nullptr, back);
    EXPECT_EQ(0, IStrm_size(back));
    PIStrm_UserFree(&flags, &back);
    EXPECT_EQ(nullptr, back);
}

using Packets = VekTest;

TEST_F(Packets, FixedBytesOfHeadersNumbersAndForms) {
    std::string p = packet_of(EvtPtr(GenEvt_newn(0x01020304u, 0xA0B0C0D0u, -2, 0x7FFFFFFF)).get());
    ASSERT_EQ(80u, p.size());
    EXPECT_EQ(std::string("\x01\x10\x08\x00\xCC\xCC\xCC\xCC\x40\0\0\0\0\0\0\0", 16), p.substr(0, 16));
    EXPECT_EQ(std::string("\x04\x03\x02\x01\xD0\xC0\xB0\xA0\xFE\xFF\xFF\xFF\xFF\xFF\xFF\x7F", 16), p.substr(16, 16));
    EXPECT_EQ("UserUserUser", p.substr(32, 12));
    EXPECT_EQ(std::string("\xA9\xE4\xF6\0\0\0\0\0\0\0\0\0\xA9\xE4\xF6\0\0\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\0\0\0\0", 36),
              p.substr(44));   // two empty strings (magic, size, len), the null stream, filler

    // A 3-byte text: the next form starts 4-byte aligned; a 0-byte stream
    // sends a count of 0 and no data.
    StrmPtr none = mem_strm_with();
    p = packet_of(EvtPtr(GenEvt_newnsd(1, 0, 0, 0, "abc", "", none.get(), 1)).get());
    ASSERT_EQ(80u, p.size());
    EXPECT_EQ(std::string("\x40\0\0\0\3\0\0\0abc\0", 12), p.substr(48, 12));   // size 64, len 3, text, pad
    EXPECT_EQ(std::string("\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16), p.substr(64, 16));   // str2 size, len; stream 0, 0
}

TEST_F(Packets, RoundTrips) {
    const std::string texts[] = {"", "x", "short text", "L" + pattern(4999), std::string("a\0b\xFF\x80z", 6)};
    for (const auto& t : texts) {
        for (int n : {-1, 0, 1, 7, 8, 4096}) {   // -1: no stream
            StrmPtr s = mem_strm_with(pattern(n < 0 ? 0 : (size_t)n));
            EvtPtr e(GenEvt_newnd(42, 9, -1, 1 << 30, n < 0 ? nullptr : s.get(), 1));
            VekStr_setStrx(&e->str1, t.data(), (vek_s32)t.size());
            VekStr_appdStr(&e->str2, "second");
            std::string p = packet_of(e.get());
            ASSERT_EQ(0u, p.size() % 8);
            EvtPtr d = decode(p);
            EXPECT_TRUE(fields(e.get()) == fields(d.get())) << t.size() << " " << n;
            EXPECT_GE(VekStr_size(&d->str1), VekStr_size(&e->str1)) << "the capacity travels";

            char* buf = nullptr;
            vek_u32 size = 0;
            VekMes* h = nullptr;
            ASSERT_EQ(0, VekMes_encDynCreate(&buf, &size, &h));
            EXPECT_EQ(p.size(), GenEvt_AlignSize(h, e.get()));
            VekMes_free(h);
        }
    }
}

// One decoding handle reads packets one after the other; directions are
// not mixed.
TEST_F(Packets, HandlesInSequence) {
    std::string both = packet_of(EvtPtr(GenEvt_newns(1, 0, 0, 0, "first", nullptr)).get()) +
                       packet_of(EvtPtr(GenEvt_new(2)).get());
    VekMes* h = nullptr;
    ASSERT_EQ(0, VekMes_decBufCreate(both.data(), (vek_u32)both.size(), &h));
    GenEvt x;
    GenEvt_init(&x);
    GenEvt_Decode(h, &x);
    EXPECT_EQ("1 0 0 0 |first|| -", fields(&x));
    GenEvt_Decode(h, &x);
    EXPECT_EQ("2 0 0 0 ||| -", fields(&x));
    EXPECT_ASSERT("0", GenEvt_Decode(h, &x));   // nothing left
    EXPECT_ASSERT("0", GenEvt_Encode(h, &x));
    GenEvt_clean(&x);
    VekMes_free(h);
    EXPECT_EQ(-9, VekMes_decBufCreate(nullptr, 0, &h));
    EXPECT_EQ(nullptr, h);
}

TEST_F(Packets, BadLengthsAndDamage) {
    const std::string empty = "0 0 0 0 ||| -";
    EvtPtr e;
    EXPECT_ASSERT("pkt", e.reset(GenEvt_dec(nullptr, 8)));
    EXPECT_EQ(empty, fields(e.get()));
    EXPECT_ASSERT("len > 0 && (len % 8) == 0", e.reset(GenEvt_dec("0123456789ab", 12)));
    EXPECT_EQ(empty, fields(e.get()));
    EXPECT_ASSERT("len > 0 && (len % 8) == 0", e.reset(GenEvt_dec("", 0)));

    StrmPtr s = mem_strm_with("stream bytes");
    // body: str1 form at 28, str2 at 44, the stream's at 64, 88 bytes long
    const std::string good = packet_of(EvtPtr(GenEvt_newnsd(5, 6, 7, 8, "abc", "defgh", s.get(), 1)).get());
    const struct {
        size_t off;
        vek_u32 word;
    } damages[] = {
        {0, 0x00081002},             // version 2
        {0, 0x00080010},             // big-endian data
        {8, 0x1000},                 // body longer than the packet
        {8, 60},                     // body length not a multiple of 8
        {36, 0},                     // a member marker
        {16 + 28 + 8, 0x40000000},   // string length beyond the packet
        {16 + 28 + 8, 0xFFFFFFFF},   // negative length
        {16 + 28 + 4, 0x7FFFFFF0},   // capacity far beyond the packet
        {16 + 64, 2},                // neither null nor present
        {16 + 64 + 4, 17},           // stream count one past the body
        {16 + 64 + 4, 0xFFFFFFF0},   // stream count larger than the packet
    };
    for (const auto& d : damages) {
        std::string p = good;
        set_word(p, d.off, d.word);
        EXPECT_ASSERT("0", e = decode(p));
        EXPECT_EQ(empty, fields(e.get())) << "damage at " << d.off;
    }
    EXPECT_ASSERT("0", e = decode(good.substr(0, good.size() - 8)));
    EXPECT_EQ(empty, fields(e.get()));

    // A size not above a non-zero length is the string form's assertion;
    // the event still decodes.
    std::string p = good;
    set_word(p, 16 + 28 + 4, 3);
    EXPECT_ASSERT("size == 0 || size > len", e = decode(p));
    EXPECT_EQ("5 6 7 8 |abc|defgh| stream bytes", fields(e.get()));
    set_word(p, 16 + 28 + 4, 60000);   // a large capacity is cut to 32 KiB of spare room
    e = decode(p);
    EXPECT_LE(VekStr_capa(&e->str1), 32768 + 1040);
    EXPECT_EQ(packet_of(e.get()).size(), good.size());
}

namespace {

int g_customEnc;

void* custom_enc(const void* evt, vek_u32* len) {
    g_customEnc++;
    return GenEvt_enc((const GenEvt*)evt, len);
}

void* custom_dec(const void* pkt, vek_u32 len) {
    GenEvt* e = GenEvt_dec(pkt, len);
    e->num2 = 99;
    return e;
}

} // namespace

TEST_F(Events, ManagerTableAndDispatch) {
    EXPECT_STREQ("EID_UNKN", EvtMng_name(500));
    EXPECT_EQ(0, EvtMng_add(500, "EID_TEST", custom_enc, custom_dec));
    EXPECT_EQ(0, EvtMng_add(501, "EID_PLAIN", nullptr, nullptr));
    EXPECT_EQ(-111, EvtMng_add(502, "EID_TEST", nullptr, nullptr));
    EXPECT_EQ(-111, EvtMng_add(500, "EID_OTHER", nullptr, nullptr));
    EXPECT_ASSERT("name", EXPECT_EQ(-9, EvtMng_add(503, "", nullptr, nullptr)));
    EXPECT_STREQ("EID_TEST", EvtMng_name(500));
    EXPECT_STREQ("EID_PLAIN", EvtMng_name(501));

    g_customEnc = 0;
    EvtPtr e(GenEvt_newns(500, 1, 2, 3, "s", nullptr));
    vek_u32 len = 0;
    void* pkt = EvtMng_enc(e.get(), &len);
    EXPECT_EQ(1, g_customEnc);
    EXPECT_EQ(99, EvtPtr((GenEvt*)EvtMng_dec(500, pkt, len))->num2);
    EXPECT_EQ(3, EvtPtr((GenEvt*)EvtMng_dec(501, pkt, len))->num2);   // the generic decoder
    EXPECT_EQ(3, EvtPtr((GenEvt*)EvtMng_dec(777, pkt, len))->num2);   // no entry: the same
    MIDL_user_free(pkt);
    MIDL_user_free(EvtMng_encx(501, e.get(), &len));
    EXPECT_EQ(1, g_customEnc);

    EXPECT_EQ(0, EvtMng_del("EID_TEST"));
    EXPECT_EQ(-112, EvtMng_del("EID_TEST"));
    EXPECT_STREQ("EID_UNKN", EvtMng_name(500));
    EXPECT_EQ(0, EvtMng_del("EID_PLAIN"));
}
