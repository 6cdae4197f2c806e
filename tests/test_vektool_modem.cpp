/*
 * vektool modem at and sms send/list/decode, run as a program against the
 * simulated modem (a pseudo-terminal's device; loopback TCP on Windows).
 */
#include <algorithm>
#include <string>
#include "ModemSim.h"
#include "ToolRun.h"

namespace {

// Part 1 and 2 of "Привет😀!" (UCS-2, 8-bit reference 42), and part 1 of 3
// of a message whose other parts never came; assembled from TS 23.040.
const char* kPart1 = "00440B916407281553F8000899309251619580160500032A0201041F04400438043204350442D83DDE00";
const char* kPart2 = "00440B916407281553F8000899309251619580080500032A02020021";
const char* kLonely = "00440B916407281553F800089930925161958008050003070301" "0058";
const char* kWhole = "07917283010010F5040BC87238880900F10000993092516195800AE8329BFD4697D9EC37";

} // namespace

class VektoolModem : public VekTest {
  protected:
    // Standard output and error as text: Windows writes its line ends as CR LF.
    std::string out() const { return plain(t.out()); }
    std::string err() const { return plain(t.err()); }
    static std::string plain(std::string s) {
        s.erase(std::remove(s.begin(), s.end(), '\r'), s.end());
        return s;
    }
    ToolRun t;
};

TEST_F(VektoolModem, AtPrintsRepliesAndExitsByTheFinal) {
    SimProfile p;
    p.external = true;
    p.echo = true;
    ModemSim sim(p);
    EXPECT_EQ(t.run("modem at " + sim.port() + " AT+CSQ AT+CREG?"), 0) << err();
    EXPECT_EQ(out(), "+CSQ: 20,99\n+CREG: 0,1\n");
    EXPECT_EQ(t.run("modem at " + sim.port() + " AT+NOSUCH AT+CSQ"), 1);
    EXPECT_EQ(err(), "ERROR\n");
    EXPECT_EQ(out(), "+CSQ: 20,99\n");
    EXPECT_EQ(t.run("modem at " + sim.port()), 2);                             // no command
    EXPECT_EQ(t.run("modem at /no/such/port AT"), 2);
    EXPECT_NE(err().find("/no/such/port"), std::string::npos);

    SimProfile mute;
    mute.external = true;
    mute.mute = true;
    ModemSim dead(mute);
    EXPECT_EQ(t.run("modem at --timeout 300 " + dead.port() + " AT"), 2);
    EXPECT_NE(err().find("timed out"), std::string::npos) << err();
}

TEST_F(VektoolModem, SmsSendSplitsAndPrintsReferences) {
    SimProfile p;
    p.external = true;
    ModemSim sim(p);
    EXPECT_EQ(t.run("sms send " + sim.port() + " +46708251358 hellohello"), 0) << err();
    EXPECT_EQ(out(), "7\n");
    EXPECT_EQ(t.run("sms send " + sim.port() + " 0123 " + std::string(200, 'x')), 0) << err();
    EXPECT_EQ(out(), "7\n7\n");
    std::vector<std::string> got = sim.received();
    int pdus = 0;
    for (const std::string& c : got) {
        pdus += c.find("<SUB>") != std::string::npos;
    }
    EXPECT_EQ(pdus, 3);
    EXPECT_EQ(sim.count("AT+CMGS=23"), 0);  // no validity period: 22 octets
    EXPECT_EQ(sim.count("AT+CMGS=22"), 1);
    EXPECT_EQ(t.run("sms send " + sim.port() + " 12ab text"), 2);
}

// Parts out of order and twice, one message missing parts, one whole;
// the same listing from a modem left in numeric form, with every line
// fault and a SIM that is still busy for the first two questions.
TEST_F(VektoolModem, SmsListJoinsAndDeletes) {
    SimProfile p;
    p.external = true;
    p.store = {{1, kWhole}, {3, kPart2}, {4, kPart1}, {5, kPart2}, {7, kLonely}};
    SimProfile bad = p;
    bad.echo = bad.noise = bad.urcBetween = bad.urcInside = bad.numeric = true;
    bad.chunking = 2;
    bad.simBusy = 2;
    ModemSim faulty(bad);
    ModemSim sim(p);
    for (ModemSim* m : {&faulty, &sim}) {
        ASSERT_EQ(t.run("sms list " + m->port()), 0) << err();
        EXPECT_EQ(out(), "27838890001\t1999-03-29T15:16:59+02:00\thellohello\n"
                         "+46708251358\t1999-03-29T15:16:59+02:00\t\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82"
                         "\xF0\x9F\x98\x80!\n"
                         "+46708251358\t1999-03-29T15:16:59+02:00\tX\xE2\x80\xA6\xE2\x80\xA6\n");
    }
    EXPECT_EQ(faulty.count("AT+CPIN?"), 3);
    ASSERT_EQ(t.run("sms list --json --delete " + sim.port()), 0) << err();
    std::string j = out();
    EXPECT_NE(j.find("\"complete\":true,\"index\":[4,3]"), std::string::npos) << j;
    EXPECT_NE(j.find("\"complete\":false,\"index\":[7]"), std::string::npos) << j;
    EXPECT_TRUE(sim.store().empty());
    ASSERT_EQ(t.run("sms list --json " + sim.port()), 0);
    EXPECT_EQ(out(), "[]\n");
}

TEST_F(VektoolModem, SmsDecodeOffline) {
    EXPECT_EQ(t.run(std::string("sms decode --json ") + kPart2), 0);
    EXPECT_EQ(out(), "{\"type\":\"deliver\",\"smsc\":\"\",\"from\":\"+46708251358\",\"time\":"
                       "\"1999-03-29T15:16:59+02:00\",\"coding\":\"ucs2\",\"text\":\"!\",\"ref\":42,\"part\":2,"
                       "\"parts\":2}\n");
    EXPECT_EQ(t.run("sms decode 00112233"), 2);
}
