/*
 * Events: the marked prefix, the generic event's constructors and stream
 * ownership, the stream user form, packets (fixed bytes, round trips,
 * damaged input) and the event manager.
 */
#include <cstddef>
#include <cstring>
#include <string>
#include "StrmTest.h"

using namespace vektest;

static_assert(offsetof(EvtHdr, rid) == 4 && offsetof(EvtHdr, num1) == 8 && offsetof(EvtHdr, num2) == 12 &&
                  offsetof(EvtHdr, str1) == 16 && offsetof(EvtHdr, str2) > offsetof(EvtHdr, str1) &&
                  offsetof(EvtHdr, strm) > offsetof(EvtHdr, str2),
              "header field order");
#if defined(__i386__)
static_assert(offsetof(EvtHdr, str2) == 24 && offsetof(EvtHdr, strm) == 32 && sizeof(EvtHdr) == 36, "32-bit layout");
#endif

namespace {

struct EvtDel {
    void operator()(GenEvt* e) const { Evt_delete(e); }
};
using EvtPtr = std::unique_ptr<GenEvt, EvtDel>;

struct Packet {
    std::string bytes;
    vek_u32 word(size_t off) const {
        vek_u32 v = 0;
        std::memcpy(&v, bytes.data() + off, 4);
        return v;
    }
    void set_word(size_t off, vek_u32 v) { std::memcpy(&bytes[off], &v, 4); }
};

Packet encode(const GenEvt* e) {
    vek_u32 len = 1;
    void* p = GenEvt_enc(e, &len);
    Packet out{std::string((const char*)p, len)};
    MIDL_user_free(p);
    return out;
}

EvtPtr decode(const std::string& pkt) {
    return EvtPtr(GenEvt_dec(pkt.data(), (vek_u32)pkt.size()));
}

std::string str_of(const VekStr* s) {
    return std::string(VekStr_buf(s), (size_t)VekStr_len(s));
}

bool empty_event(const GenEvt* e) {
    return e->eid == 0 && e->rid == 0 && e->num1 == 0 && e->num2 == 0 && VekStr_len(&e->str1) == 0 &&
           VekStr_len(&e->str2) == 0 && !e->strm;
}

} // namespace

using Events = VekTest;

TEST_F(Events, ConstructorsFillTheirFields) {
    EvtPtr e(GenEvt_new(7));
    EXPECT_EQ(7u, Evt_eid(e.get()));
    EXPECT_TRUE(e->rid == 0 && e->num1 == 0 && e->num2 == 0 && VekStr_len(&e->str1) == 0 && VekStr_len(&e->str2) == 0 &&
                !e->strm);
    e.reset(GenEvt_newn(1, 2, -3, 4));
    EXPECT_EQ(2u, Evt_rid(e.get()));
    EXPECT_EQ(-3, e->num1);
    EXPECT_EQ(4, e->num2);
    e.reset(GenEvt_newns(1, 2, 3, 4, "one", nullptr));
    EXPECT_EQ("one", str_of(&e->str1));
    EXPECT_EQ("", str_of(&e->str2));
    e.reset(GenEvt_newsd(9, nullptr, "two", nullptr, 1));
    EXPECT_EQ(9u, e->eid);
    EXPECT_EQ(0u, e->rid);
    EXPECT_EQ("two", str_of(&e->str2));
    EXPECT_EQ(nullptr, e->strm);
}

// A handed-over stream goes with the event; a cloned one stays the caller's.
TEST_F(Events, StreamOwnership) {
    StrmPtr mine = mem_strm_with("data");
    IStrm_addRef(mine.get());
    EvtPtr e(GenEvt_newnd(1, 0, 0, 0, mine.get(), 0));
    EXPECT_EQ(mine.get(), e->strm);
    e.reset();
    EXPECT_EQ(1, IStrm_addRef(mine.get()) - 1) << "the event released its reference";
    IStrm_release(mine.get());

    e.reset(GenEvt_newsd(1, "a", "b", mine.get(), 1));
    ASSERT_NE(nullptr, e->strm);
    EXPECT_NE(mine.get(), e->strm);
    EXPECT_EQ("data", bytes_of(e->strm));
    e.reset();
    EXPECT_EQ("data", bytes_of(mine.get()));
}

TEST_F(Events, CleanAndFree) {
    GenEvt local;
    GenEvt_init(&local);
    EXPECT_TRUE(empty_event(&local));
    VekStr_appdStr(&local.str1, "text");
    local.strm = mem_strm_with("x").release();
    GenEvt_clean(&local);
    EXPECT_EQ(nullptr, local.strm);

    static int cleaned;
    cleaned = 0;
    void* raw = Evt_alloc(16, [](void*) { cleaned++; });
    Evt_delete(raw);
    EXPECT_EQ(1, cleaned);
    GenEvt* e = GenEvt_newns(1, 0, 0, 0, "kept", nullptr);
    VekStr moved = e->str1;   // Evt_free leaves the contents to the caller
    VekStr_delete(&e->str2);
    Evt_free(e);
    EXPECT_EQ("kept", str_of(&moved));
    VekStr_delete(&moved);
}

TEST_F(Events, MarkCheckEndsTheProcess) {
    alignas(16) unsigned char fake[64] = {};
    EXPECT_DEATH((al_set_fault_hook(nullptr), Evt_delete(fake + 32)), "obj crash");
    EXPECT_DEATH((al_set_fault_hook(nullptr), Evt_free(fake + 32)), "obj crash");
#ifndef _WIN32   // Windows hands foreign handles to the RPC runtime
    EXPECT_DEATH((al_set_fault_hook(nullptr), GenEvt_AlignSize(fake, nullptr)), "obj crash");
#endif
}

using StrmForm = VekTest;

TEST_F(StrmForm, NullAgainstEmptyAndContent) {
    vek_u32 flags = 0;
    unsigned char buf[32];
    IStrm* none = nullptr;
    EXPECT_EQ(8u + 3, PIStrm_UserSize(&flags, 3, &none));
    EXPECT_EQ(buf + 8, PIStrm_UserMarshal(&flags, buf, &none));
    EXPECT_EQ(0, std::memcmp(buf, "\1\0\0\0\0\0\0\0", 8));

    StrmPtr empty = mem_strm_with();
    IStrm* e = empty.get();
    EXPECT_EQ(buf + 8, PIStrm_UserMarshal(&flags, buf, &e));
    EXPECT_EQ(0, std::memcmp(buf, "\0\0\0\0\0\0\0\0", 8));

    StrmPtr full = mem_strm_with("hello", 2);   // several blocks
    IStrm_seek(full.get(), 3, 0);
    IStrm* f = full.get();
    EXPECT_EQ(13u, PIStrm_UserSize(&flags, 0, &f));
    EXPECT_EQ(buf + 13, PIStrm_UserMarshal(&flags, buf, &f));
    EXPECT_EQ(0, std::memcmp(buf, "\0\0\0\0\5\0\0\0hello", 13));
    EXPECT_EQ(3, IStrm_tell(full.get())) << "the position is kept";

    IStrm* back = nullptr;
    EXPECT_EQ(buf + 13, PIStrm_UserUnmarshal(&flags, buf, &back));
    ASSERT_NE(nullptr, back);
    EXPECT_EQ("hello", bytes_of(back));
    EXPECT_EQ(0, IStrm_tell(back));
    PIStrm_UserMarshal(&flags, buf, &none);
    PIStrm_UserUnmarshal(&flags, buf, &back);   // the null form releases the stream
    EXPECT_EQ(nullptr, back);
    PIStrm_UserUnmarshal(&flags, (vek_u8*)"\0\0\0\0\0\0\0\0", &back);
    ASSERT_NE(nullptr, back);
    EXPECT_EQ(0, IStrm_size(back));
    PIStrm_UserFree(&flags, &back);
    EXPECT_EQ(nullptr, back);
}

using Packets = VekTest;

TEST_F(Packets, FixedBytesOfHeadersNumbersAndForms) {
    EvtPtr e(GenEvt_newn(0x01020304u, 0xA0B0C0D0u, -2, 0x7FFFFFFF));
    Packet p = encode(e.get());
    ASSERT_EQ(80u, p.bytes.size());
    EXPECT_EQ(std::string("\x01\x10\x08\x00\xCC\xCC\xCC\xCC", 8), p.bytes.substr(0, 8));
    EXPECT_EQ(64u, p.word(8));
    EXPECT_EQ(0u, p.word(12));
    EXPECT_EQ(std::string("\x04\x03\x02\x01\xD0\xC0\xB0\xA0\xFE\xFF\xFF\xFF\xFF\xFF\xFF\x7F", 16), p.bytes.substr(16, 16));
    EXPECT_EQ("UserUserUser", p.bytes.substr(32, 12));
    EXPECT_EQ(0xF6E4A9u, p.word(44) & 0xFFFFFFu);   // str1: magic, size 0, len 0
    EXPECT_EQ(0u, p.word(48));
    EXPECT_EQ(0u, p.word(52));
    EXPECT_EQ(0xF6E4A9u, p.word(56) & 0xFFFFFFu);   // str2
    EXPECT_EQ(1u, p.word(68));                      // null stream
    EXPECT_EQ(0u, p.word(72));
    EXPECT_EQ(std::string(4, '\0'), p.bytes.substr(76));

    // A 3-byte text: the next form starts 4-byte aligned; a 0-byte stream
    // sends a count of 0 and no data.
    StrmPtr none = mem_strm_with();
    e.reset(GenEvt_newnsd(1, 0, 0, 0, "abc", "", none.get(), 1));
    p = encode(e.get());
    EXPECT_EQ(3u, p.word(16 + 28 + 8));
    EXPECT_EQ("abc", p.bytes.substr(16 + 40, 3));
    EXPECT_EQ(0u, p.word(16 + 44 + 8));             // str2 len
    EXPECT_EQ(0u, p.word(16 + 56));
    EXPECT_EQ(0u, p.word(16 + 60));
    EXPECT_EQ(80u, p.bytes.size());
}

TEST_F(Packets, RoundTrips) {
    const std::string texts[] = {"", "x", "short text", "L" + pattern(4999), std::string("a\0b\xFF\x80z", 6)};
    const size_t streams[] = {0, 1, 7, 8, 4096};
    for (const auto& t : texts) {
        for (size_t n : streams) {
            for (bool withStrm : {false, true}) {
                StrmPtr s = mem_strm_with(pattern(n));
                EvtPtr e(GenEvt_newnd(42, 9, -1, 1 << 30, withStrm ? s.get() : nullptr, 1));
                VekStr_setStrx(&e->str1, t.data(), (vek_s32)t.size());
                VekStr_appdStr(&e->str2, "second");
                Packet p = encode(e.get());
                ASSERT_EQ(0u, p.bytes.size() % 8);
                vek_u32 size = 0;
                char* buf = nullptr;
                VekMes* h = nullptr;
                ASSERT_EQ(0, VekMes_encDynCreate(&buf, &size, &h));
                EXPECT_EQ(p.bytes.size(), GenEvt_AlignSize(h, e.get()));
                VekMes_free(h);

                EvtPtr d = decode(p.bytes);
                EXPECT_EQ(42u, d->eid);
                EXPECT_EQ(9u, d->rid);
                EXPECT_EQ(-1, d->num1);
                EXPECT_EQ(1 << 30, d->num2);
                EXPECT_TRUE(t == str_of(&d->str1)) << t.size();
                EXPECT_GE(VekStr_size(&d->str1), VekStr_size(&e->str1)) << "the capacity travels";
                EXPECT_EQ("second", str_of(&d->str2));
                ASSERT_EQ(withStrm, d->strm != nullptr);
                if (withStrm) {
                    EXPECT_TRUE(pattern(n) == bytes_of(d->strm)) << n;
                }
            }
        }
    }
    EvtPtr seven(GenEvt_new(7));
    EvtPtr back = decode(encode(seven.get()).bytes);
    EXPECT_EQ(7u, back->eid);
    back->eid = 0;
    EXPECT_TRUE(empty_event(back.get()));
}

// One decoding handle reads packets one after the other; directions are
// not mixed.
TEST_F(Packets, HandlesInSequence) {
    EvtPtr a(GenEvt_newns(1, 0, 0, 0, "first", nullptr)), b(GenEvt_new(2));
    std::string both = encode(a.get()).bytes + encode(b.get()).bytes;
    VekMes* h = nullptr;
    ASSERT_EQ(0, VekMes_decBufCreate(both.data(), (vek_u32)both.size(), &h));
    GenEvt x;
    GenEvt_init(&x);
    GenEvt_Decode(h, &x);
    EXPECT_EQ("first", str_of(&x.str1));
    GenEvt_Decode(h, &x);
    EXPECT_EQ(2u, x.eid);
    EXPECT_EQ("", str_of(&x.str1));
    EXPECT_ASSERT("0", GenEvt_Decode(h, &x));   // nothing left
    EXPECT_ASSERT("0", GenEvt_Encode(h, &x));
    GenEvt_clean(&x);
    VekMes_free(h);
    EXPECT_EQ(-9, VekMes_decBufCreate(nullptr, 0, &h));
    EXPECT_EQ(nullptr, h);
}

TEST_F(Packets, BadLengthsAndDamage) {
    EvtPtr e;
    EXPECT_ASSERT("pkt", e.reset(GenEvt_dec(nullptr, 8)));
    EXPECT_TRUE(empty_event(e.get()));
    EXPECT_ASSERT("len > 0 && (len % 8) == 0", e.reset(GenEvt_dec("0123456789ab", 12)));
    EXPECT_TRUE(empty_event(e.get()));
    EXPECT_ASSERT("len > 0 && (len % 8) == 0", e.reset(GenEvt_dec("", 0)));

    StrmPtr s = mem_strm_with("stream bytes");
    EvtPtr src(GenEvt_newnsd(5, 6, 7, 8, "abc", "defgh", s.get(), 1));
    const Packet good = encode(src.get());   // body: str1 at 28, str2 at 44, strm at 64, 88 long
    struct Damage {
        size_t off;
        vek_u32 word;
    };
    const Damage damages[] = {
        {0, 0x00081002},             // version 2
        {0, 0x00080010},             // big-endian data
        {8, 0x1000},                 // body longer than the packet
        {8, 60},                     // body length not a multiple of 8
        {36, 0},                     // a member marker
        {16 + 28 + 8, 0x40000000},   // string length beyond the packet
        {16 + 28 + 4, 0x7FFFFFF0},   // capacity far beyond the packet
        {16 + 28 + 8, 0xFFFFFFFF},   // negative length
        {16 + 64, 2},                // neither null nor present
        {16 + 64 + 4, 17},           // stream count one past the body
        {16 + 64 + 4, 0xFFFFFFF0},   // stream count larger than the packet
    };
    for (const auto& d : damages) {
        Packet p = good;
        p.set_word(d.off, d.word);
        EXPECT_ASSERT("0", e = decode(p.bytes));
        EXPECT_TRUE(empty_event(e.get())) << "damage at " << d.off;
    }
    EXPECT_ASSERT("0", e = decode(good.bytes.substr(0, good.bytes.size() - 8)));
    EXPECT_TRUE(empty_event(e.get()));

    // A size not above a non-zero length is the string form's assertion;
    // the event still decodes.
    Packet p = good;
    p.set_word(16 + 28 + 4, 3);
    EXPECT_ASSERT("size == 0 || size > len", e = decode(p.bytes));
    EXPECT_EQ("abc", str_of(&e->str1));
    EXPECT_EQ("stream bytes", bytes_of(e->strm));
}

using EventManager = VekTest;

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

TEST_F(EventManager, TableAndDispatch) {
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
    EvtPtr d((GenEvt*)EvtMng_dec(500, pkt, len));
    EXPECT_EQ(99, d->num2);
    d.reset((GenEvt*)EvtMng_dec(501, pkt, len));   // the generic decoder
    EXPECT_EQ(3, d->num2);
    d.reset((GenEvt*)EvtMng_dec(777, pkt, len));   // no entry: the generic decoder
    EXPECT_EQ("s", str_of(&d->str1));
    MIDL_user_free(pkt);
    pkt = EvtMng_encx(501, e.get(), &len);
    EXPECT_EQ(1, g_customEnc);
    MIDL_user_free(pkt);

    EXPECT_EQ(0, EvtMng_del("EID_TEST"));
    EXPECT_EQ(-112, EvtMng_del("EID_TEST"));
    EXPECT_STREQ("EID_UNKN", EvtMng_name(500));
    EXPECT_EQ(0, EvtMng_del("EID_PLAIN"));
}
