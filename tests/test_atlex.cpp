/*
 * The modem-response lexer. Every transcript is fed whole, byte by byte
 * and in odd chunks, and must give the same tokens each way: a lexer that
 * keeps state wrongly across a chunk boundary shows up as a difference.
 */
#include <string>
#include <vector>
#include "VekTest.h"

namespace {

struct Tok {
    vek_s32 kind;
    vek_s32 code;
    std::string text;
    std::string arg;
    bool operator==(const Tok& o) const {
        return kind == o.kind && code == o.code && text == o.text && arg == o.arg;
    }
};

std::vector<Tok> lex_chunked(VekLex* lex, const std::string& in, size_t chunk) {
    std::vector<Tok> out;
    for (size_t at = 0; at < in.size();) {
        size_t n = std::min(chunk, in.size() - at);
        VekLexTok t;
        vek_s32 used = VekLex_feed(lex, in.data() + at, (vek_s32)n, &t);
        EXPECT_GT(used, 0);
        at += (size_t)used;
        if (t.kind != VEK_LEX_NONE) {
            EXPECT_EQ(t.text[t.len], 0);
            out.push_back({t.kind, t.code, std::string(t.text, (size_t)t.len), std::string(t.arg, (size_t)t.argLen)});
        }
    }
    return out;
}

// The tokens of in; each chunking must agree. setup runs on each fresh lexer.
std::vector<Tok> lex(const std::string& in, vek_s32 flags = 0, const char* echo = nullptr, vek_s32 maxLine = 0) {
    std::vector<Tok> first;
    for (size_t chunk : {in.size() + 1, (size_t)1, (size_t)2, (size_t)7}) {
        VekLex* l = VekLex_new(maxLine, flags);
        VekLex_setEcho(l, echo);
        std::vector<Tok> got = lex_chunked(l, in, chunk);
        VekLex_delete(l);
        if (chunk == in.size() + 1) {
            first = got;
        } else {
            EXPECT_EQ(got.size(), first.size()) << "chunk " << chunk;
            for (size_t i = 0; i < got.size() && i < first.size(); i++) {
                EXPECT_TRUE(got[i] == first[i]) << "chunk " << chunk << " token " << i << ": " << got[i].text;
            }
        }
    }
    return first;
}

std::string kinds(const std::vector<Tok>& t) {
    std::string s;
    for (const Tok& x : t) {
        s += (s.empty() ? "" : "|") + std::string(VekLex_kindName(x.kind));
    }
    return s;
}

} // namespace

class AtLex : public VekTest {};

// A reply with echo, a URC in its middle, every line-end style and NULs.
TEST_F(AtLex, EchoUrcAndLineEnds) {
    std::string in = std::string("AT+CPMS?\r\r\n+CPMS: \"SM\",3,20\r\r\n^RSSI: 17\n\r\n+CMTI: \"SM\",4\r") +
                     std::string("\0\0more\r\n\r\nOK\r\n", 14);
    std::vector<Tok> t = lex(in, 0, "AT+CPMS?");
    ASSERT_EQ(kinds(t), "ECHO|INFO|URC|URC|INFO|OK");
    EXPECT_EQ(t[1].text, "+CPMS: \"SM\",3,20");
    EXPECT_EQ(t[2].arg, "17");
    EXPECT_EQ(t[3].arg, "\"SM\",4");
    EXPECT_EQ(t[4].text, "more");
    // Other control bytes are text: the line goes on past them.
    t = lex(std::string("+CUSD: 0,\"12345\t\x0b\x1b\x01 balance\",15\r\nOK\r\n"));
    ASSERT_EQ(kinds(t), "URC|OK");
    EXPECT_EQ(t[0].arg, "0,\"12345\t\x0b\x1b\x01 balance\",15");
    // Without the expectation the same line is an ordinary one; the
    // expectation is spent once seen.
    EXPECT_EQ(kinds(lex("AT+CPMS?\r\nAT+CPMS?\r\n")), "INFO|INFO");
    EXPECT_EQ(kinds(lex("AT+CPMS?\r\nAT+CPMS?\r\n", 0, "AT+CPMS?")), "ECHO|INFO");
    EXPECT_EQ(kinds(lex("AT+CPMS\r\n", 0, "AT+CPMS?")), "INFO");
}

TEST_F(AtLex, FinalsAndTheirCodes) {
    std::vector<Tok> t = lex("+CME ERROR: 14\r\n+CME ERROR:SIM busy\r\n+CMS ERROR: 500\r\nCONNECT\r\n"
                             "CONNECT 115200\r\nNO CARRIER\r\nBUSY\r\nNO ANSWER\r\nNO DIALTONE\r\n"
                             "COMMAND NOT SUPPORT\r\nMODEM ERROR: 3\r\n+EXT ERROR: 7\r\nERROR\r\nOKAY\r\nRINGING\r\n");
    ASSERT_EQ(kinds(t), "+CME ERROR|+CME ERROR|+CMS ERROR|CONNECT|CONNECT|NO CARRIER|BUSY|NO ANSWER|"
                        "NO DIALTONE|VENDOR ERROR|VENDOR ERROR|VENDOR ERROR|ERROR|INFO|INFO");
    EXPECT_EQ(t[0].code, 14);
    EXPECT_EQ(t[1].code, -1);
    EXPECT_EQ(t[1].arg, "SIM busy");
    EXPECT_EQ(t[2].code, 500);
    EXPECT_EQ(t[3].code, 0);
    EXPECT_EQ(t[4].code, 115200);
    EXPECT_EQ(t[9].code, -1);
    EXPECT_EQ(t[10].code, 3);
    EXPECT_EQ(t[11].code, 7);
}

// ATV0: finals are digits ended by CR alone; without the flag a digit is data.
TEST_F(AtLex, NumericForms) {
    std::vector<Tok> t = lex("+CSQ: 20,99\r\n0\r4\r2\r7\r5\r+CME ERROR: 10\r\n", VEK_LEX_NUMERIC);
    EXPECT_EQ(kinds(t), "INFO|OK|ERROR|URC|BUSY|INFO|+CME ERROR");
    EXPECT_EQ(kinds(lex("0\r4\r")), "INFO|INFO");
}

TEST_F(AtLex, PromptOnlyWhenExpected) {
    std::vector<Tok> t = lex("AT+CMGS=23\r\r\n> ", VEK_LEX_EXPECT_PROMPT, "AT+CMGS=23");
    EXPECT_EQ(kinds(t), "ECHO|PROMPT");
    EXPECT_EQ(kinds(lex("> quoted\r\n>x\r\n", VEK_LEX_EXPECT_PROMPT)), "PROMPT|INFO|INFO");
    EXPECT_EQ(kinds(lex("> quoted\r\n")), "INFO");
}

// A two-line URC takes its data line even when it looks like a final; a
// final where the data line should be ends the wait.
TEST_F(AtLex, TwoLineUrcs) {
    std::vector<Tok> t = lex("+CMT: ,24\r\n07911326040000F0040B911346610089F60000208062917314080CC8F71D14969741F977FD07\r\n"
                             "+CDS: 25\r\nOK\r\nplain\r\n");
    EXPECT_EQ(kinds(t), "URC|URC DATA|URC|OK|INFO");
}

TEST_F(AtLex, OverLongLineIsReportedAndBounded) {
    std::string big(100, 'A');
    std::vector<Tok> t = lex("+CMTI: " + big + "\r\nOK\r\n", 0, nullptr, 16);
    ASSERT_EQ(kinds(t), "LONG|OK");
    EXPECT_EQ(t[0].code, 107);
    EXPECT_EQ(t[0].text, "+CMTI: AAAAAAAAA");
}

TEST_F(AtLex, CallerPrefixes) {
    VekLex* l = VekLex_new(0, 0);
    EXPECT_EQ(VekLex_addPrefix(l, "NA", VEK_LEX_VENDOR_ERR, 0, 1), 0);
    EXPECT_EQ(VekLex_addPrefix(l, "*", VEK_LEX_URC, 0, 0), 0);
    EXPECT_EQ(VekLex_addPrefix(l, "+CMTI:", VEK_LEX_URC, 1, 0), 0);  // replaces the built-in
    EXPECT_EQ(VekLex_addPrefix(l, "", VEK_LEX_URC, 0, 0), VEK_ERR_BAD_ARG);
    EXPECT_EQ(VekLex_addPrefix(l, "X", VEK_LEX_OK, 0, 0), VEK_ERR_BAD_ARG);
    EXPECT_EQ(VekLex_addPrefix(l, std::string(64, 'x').c_str(), VEK_LEX_URC, 0, 0), VEK_ERR_BAD_ARG);
    // A prefix added while a line is arriving names that line too.
    VekLexTok tok;
    EXPECT_EQ(VekLex_feed(l, "#ST", 3, &tok), 3);
    EXPECT_EQ(VekLex_addPrefix(l, "#STN:", VEK_LEX_URC, 0, 0), 0);
    std::vector<Tok> t = lex_chunked(l, "N: 37\r\nNA\r\nNAME\r\n*EVT\r\n+CMTI: \"SM\",1\r\ndata\r\n", 3);
    EXPECT_EQ(kinds(t), "URC|VENDOR ERROR|INFO|URC|URC|URC DATA");
    EXPECT_EQ(t[0].text, "#STN: 37");
    vek_s32 r = 0;
    for (int i = 0; i < 200 && r == 0; i++) {
        r = VekLex_addPrefix(l, ("+X" + std::to_string(i)).c_str(), VEK_LEX_URC, 0, 0);
    }
    EXPECT_EQ(r, VEK_ERR_FULL);
    // The full table still lexes the built-ins.
    EXPECT_EQ(kinds(lex_chunked(l, "+X7: 1\r\nOK\r\n", 1)), "URC|OK");
    VekLex_delete(l);
}
