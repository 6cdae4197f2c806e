/*
 * SMS PDUs. The decoder is checked against PDUs published with their
 * decoding (the "hellohello" SMS-DELIVER and SMS-SUBMIT that circulate
 * with the GSM 03.40 / 3GPP TS 23.040 tutorials) and against PDUs
 * assembled here field by field from TS 23.040, never against our own
 * encoder; the encoder then must reproduce the published SMS-SUBMIT
 * octet for octet, and its long texts must decode back whole.
 */
#include <cstring>
#include <string>
#include <vector>
#include "VekTest.h"

class SmsPduTest : public VekTest {};

TEST_F(SmsPduTest, PublishedDeliverAndSubmit) {
    SmsMsg m;
    ASSERT_EQ(SmsPdu_dec(&m, "07917283010010F5040BC87238880900F10000993092516195800AE8329BFD4697D9EC37", -1, 1), 0);
    EXPECT_EQ(m.type, SMS_DELIVER);
    EXPECT_STREQ(m.smsc, "+27381000015");
    EXPECT_STREQ(m.addr, "27838890001");
    EXPECT_STREQ(m.text, "hellohello");
    EXPECT_EQ(m.coding, SMS_CODING_7BIT);
    EXPECT_EQ(m.ref, -1);
    EXPECT_EQ(m.scts.year, 1999);  // the time stamp's own fields are GsmUtil's
    EXPECT_EQ(m.scts.second, 59);

    const char* submit = "0011000B916407281553F80000AA0AE8329BFD4697D9EC37";
    ASSERT_EQ(SmsPdu_dec(&m, submit, -1, 1), 0);
    EXPECT_EQ(m.type, SMS_SUBMIT);
    EXPECT_STREQ(m.smsc, "");
    EXPECT_STREQ(m.addr, "+46708251358");
    EXPECT_STREQ(m.text, "hellohello");
    EXPECT_EQ(m.mr, 0);
    // The encoder gives the same octets.
    SmsPart p[1];
    SmsSubmit o{0, 0, 0xAA};
    ASSERT_EQ(SmsPdu_encSubmit(p, 1, "+46708251358", "hellohello", -1, &o), 1);
    EXPECT_STREQ(p[0].hex, submit);
    EXPECT_EQ(p[0].tpduLen, 23);
}

// Assembled from TS 23.040 9.2.2.3 and 9.2.3.24.1: a status report, and a
// UCS-2 part 1 of 2 (8-bit reference 42) with Cyrillic and a character
// beyond U+FFFF.
TEST_F(SmsPduTest, StatusReportAndConcatenatedUcs2) {
    SmsMsg m;
    ASSERT_EQ(SmsPdu_dec(&m, "00062A0B916407281553F8993092516195809930925161958000", -1, 1), 0);
    EXPECT_EQ(m.type, SMS_STATUS_REPORT);
    EXPECT_EQ(m.mr, 42);
    EXPECT_STREQ(m.addr, "+46708251358");
    EXPECT_EQ(m.status, 0);
    EXPECT_EQ(m.discharge.year, 1999);

    ASSERT_EQ(SmsPdu_dec(&m,
                         "00440B916407281553F8000899309251619580160500032A0201041F04400438043204350442D83DDE00",
                         -1, 1),
              0);
    EXPECT_EQ(m.coding, SMS_CODING_UCS2);
    EXPECT_STREQ(m.text, "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82\xF0\x9F\x98\x80");
    EXPECT_EQ(m.ref, 42);
    EXPECT_EQ(m.total, 2);
    EXPECT_EQ(m.seq, 1);
    EXPECT_EQ(m.ref16, 0);
}

// Every prefix of a good PDU, and a user-data length that claims more than
// is there, are refused.
TEST_F(SmsPduTest, CutAndLyingPdusAreMalformed) {
    std::string good = "07917283010010F5040BC87238880900F10000993092516195800AE8329BFD4697D9EC37";
    SmsMsg m;
    for (size_t n = 0; n < good.size(); n += 2) {
        EXPECT_EQ(SmsPdu_dec(&m, good.c_str(), (vek_s32)n, 1), VEK_ERR_MALFORMED) << n;
    }
    std::string lying = good;
    lying.replace(good.size() - 20, 2, "A0");
    EXPECT_EQ(SmsPdu_dec(&m, lying.c_str(), -1, 1), VEK_ERR_MALFORMED);
    EXPECT_EQ(SmsPdu_dec(&m, "0G", -1, 1), VEK_ERR_MALFORMED);
}

// Long texts: no part ends inside an escape pair or a surrogate pair, and
// the parts decode back to the text.
TEST_F(SmsPduTest, SplittingKeepsPairsWhole) {
    struct Case {
        std::string text;
        vek_s32 flags, parts, coding;
    };
    std::string euro = "\xE2\x82\xAC", grin = "\xF0\x9F\x98\x80", zhe = "\xD0\x96";
    std::vector<Case> cases = {
        {std::string(152, 'a') + euro + std::string(10, 'b'), 0, 2, SMS_CODING_7BIT},
        {std::string(160, 'x'), 0, 1, SMS_CODING_7BIT},
        {std::string(161, 'x'), SMS_SUBMIT_REF16, 2, SMS_CODING_7BIT},
        {[&] { std::string s; for (int i = 0; i < 66; i++) s += zhe; return s + grin + zhe + zhe + zhe; }(), 0, 2, SMS_CODING_UCS2},
        {"plain but forced", SMS_SUBMIT_UCS2 | SMS_SUBMIT_REPORT, 1, SMS_CODING_UCS2},
    };
    for (const Case& c : cases) {
        SmsPart parts[4];
        SmsSubmit o{c.flags, 0x1234, -1};
        vek_s32 n = SmsPdu_encSubmit(parts, 4, "0123", c.text.c_str(), -1, &o);
        ASSERT_EQ(n, c.parts) << c.text;
        std::string back;
        for (vek_s32 i = 0; i < n; i++) {
            SmsMsg m;
            ASSERT_EQ(SmsPdu_dec(&m, parts[i].hex, -1, 1), 0);
            EXPECT_EQ((vek_s32)std::string(parts[i].hex).size(), 2 + 2 * parts[i].tpduLen);
            EXPECT_EQ(m.coding, c.coding);
            EXPECT_EQ(m.srr, (c.flags & SMS_SUBMIT_REPORT) ? 1 : 0);
            if (n > 1) {
                EXPECT_EQ(m.seq, i + 1);
                EXPECT_EQ(m.total, n);
                EXPECT_EQ(m.ref, (c.flags & SMS_SUBMIT_REF16) ? 0x1234 : 0x34);
            }
            if (c.coding == SMS_CODING_7BIT) {
                EXPECT_NE(m.data[m.dataLen - 1], 0x1b);
            }
            back += m.text;
        }
        EXPECT_EQ(back, c.text);
    }
    SmsPart one[1];
    EXPECT_EQ(SmsPdu_encSubmit(one, 1, "12a", "x", -1, nullptr), VEK_ERR_BAD_ARG);
    EXPECT_EQ(SmsPdu_encSubmit(one, 1, "12", "\xC3", -1, nullptr), VEK_ERR_BAD_ARG);
    EXPECT_EQ(SmsPdu_encSubmit(one, 1, "12", std::string(161, 'x').c_str(), -1, nullptr), VEK_ERR_FULL);
}

namespace {

struct Joined {
    std::string from, text;
    bool complete;
    std::vector<vek_s64> tags;
};

void take(void* ctx, const SmsJoined* j) {
    ((std::vector<Joined>*)ctx)
        ->push_back({j->from, std::string(j->text, (size_t)j->textLen), j->complete != 0,
                     std::vector<vek_s64>(j->tags, j->tags + j->have)});
}

SmsMsg part(const char* from, vek_s32 ref, vek_s32 total, vek_s32 seq, const char* text) {
    SmsMsg m{};
    m.type = SMS_DELIVER;
    std::strcpy(m.addr, from);
    m.ref = ref;
    m.total = total;
    m.seq = seq;
    std::strcpy(m.text, text);
    m.textLen = (vek_s32)std::strlen(text);
    return m;
}

} // namespace

// Out of order, twice, from two senders with the same reference, missing
// a part past the time limit, and more groups than the limit allows.
TEST_F(SmsPduTest, JoiningParts) {
    std::vector<Joined> got;
    SmsConcat* cc = SmsConcat_new(2, 1000, take, &got);
    SmsMsg a3 = part("+1", 7, 3, 3, "C"), a1 = part("+1", 7, 3, 1, "A"), a2 = part("+1", 7, 3, 2, "B");
    SmsMsg b1 = part("+2", 7, 2, 1, "x");
    EXPECT_EQ(SmsConcat_add(cc, &a3, 30, 0), 0);
    EXPECT_EQ(SmsConcat_add(cc, &b1, 40, 0), 0);
    EXPECT_EQ(SmsConcat_add(cc, &a3, 31, 0), 2);
    EXPECT_EQ(SmsConcat_add(cc, &a1, 10, 0), 0);
    EXPECT_EQ(SmsConcat_add(cc, &a2, 20, 0), 1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].text, "ABC");
    EXPECT_EQ(got[0].tags, std::vector<vek_s64>({10, 20, 30}));
    EXPECT_EQ(SmsConcat_add(cc, &a2, 21, 0), 2);  // a copy after the message was complete
    SmsMsg whole = part("+3", -1, 0, 0, "single");
    EXPECT_EQ(SmsConcat_add(cc, &whole, 5, 500), 1);
    EXPECT_EQ(got.back().text, "single");
    EXPECT_EQ(SmsConcat_expire(cc, 999), 0);
    EXPECT_EQ(SmsConcat_expire(cc, 1000), 1);
    EXPECT_EQ(got.back().from, "+2");
    EXPECT_EQ(got.back().text, "x\xE2\x80\xA6");
    EXPECT_FALSE(got.back().complete);
    // Three groups into room for two: the oldest is pushed out incomplete.
    for (vek_s32 r = 1; r <= 3; r++) {
        SmsMsg p = part("+4", r, 2, 2, "z");
        EXPECT_EQ(SmsConcat_add(cc, &p, r, 2000), r == 3 ? 1 : 0);
    }
    EXPECT_EQ(got.back().text, "\xE2\x80\xA6z");
    EXPECT_EQ(SmsConcat_flush(cc), 2);
    EXPECT_EQ(got.size(), 6u);
    SmsMsg bad = part("+1", 1, 2, 3, "q");
    EXPECT_EQ(SmsConcat_add(cc, &bad, 0, 0), VEK_ERR_BAD_ARG);
    SmsConcat_delete(cc);
}

// A reference reused by a later message finds the later one; a message is
// done when each part has a final status; a report for nothing sent is 0.
TEST_F(SmsPduTest, StatusReportsFindTheirParts) {
    SmsTrack* tr = SmsTrack_new(4);
    ASSERT_EQ(SmsTrack_sent(tr, 100, 1, 1, 42, "+46708251358"), 0);
    ASSERT_EQ(SmsTrack_sent(tr, 200, 1, 2, 42, "+46708251358"), 0);  // the reference came round again
    ASSERT_EQ(SmsTrack_sent(tr, 200, 2, 2, 43, "+46708251358"), 0);
    EXPECT_EQ(SmsTrack_sent(tr, 1, 3, 2, 1, "1"), VEK_ERR_BAD_ARG);
    SmsMsg rep;
    ASSERT_EQ(SmsPdu_dec(&rep, "00062A0B916407281553F8993092516195809930925161958000", -1, 1), 0);  // MR 42, delivered
    SmsTrackHit h;
    ASSERT_EQ(SmsTrack_report(tr, &rep, &h), 1);
    EXPECT_EQ(h.msgId, 200);
    EXPECT_EQ(h.part, 1);
    EXPECT_EQ(h.done, 0);
    ASSERT_EQ(SmsPdu_dec(&rep, "00062B0B916407281553F8993092516195809930925161958041", -1, 1), 0);  // MR 43, failed
    ASSERT_EQ(SmsTrack_report(tr, &rep, &h), 1);
    EXPECT_EQ(h.msgId, 200);
    EXPECT_EQ(h.done, 1);
    EXPECT_EQ(h.failed, 1);
    ASSERT_EQ(SmsPdu_dec(&rep, "00062C0B916407281553F8993092516195809930925161958000", -1, 1), 0);  // MR 44
    EXPECT_EQ(SmsTrack_report(tr, &rep, &h), 0);
    // The network may name the recipient in its national form.
    ASSERT_EQ(SmsTrack_sent(tr, 300, 1, 1, 44, "+46708251358"), 0);
    ASSERT_EQ(SmsPdu_dec(&rep, "00062C0A817080523185993092516195809930925161958000", -1, 1), 0);
    EXPECT_STREQ(rep.addr, "0708251358");
    ASSERT_EQ(SmsTrack_report(tr, &rep, &h), 1);
    EXPECT_EQ(h.msgId, 300);
    SmsTrack_delete(tr);
}
