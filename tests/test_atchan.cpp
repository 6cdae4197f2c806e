/*
 * The AT channel against the simulated modem, one fault profile after
 * another: each must leave every reply with its own command.
 */
#include <atomic>
#include <string>
#include <thread>
#include <vector>
#include "ModemSim.h"

namespace {

struct Urcs {
    std::vector<std::string> lines;
    std::thread::id thread;
    static void take(void* ctx, const char* line, const char* data) {
        Urcs* u = (Urcs*)ctx;
        u->lines.push_back(std::string(line) + (data ? std::string("|") + data : ""));
        u->thread = std::this_thread::get_id();
    }
};

struct Events {
    std::vector<std::pair<vek_s32, vek_s32>> got;
    static void take(void* ctx, vek_s32 event, vek_s32 code) { ((Events*)ctx)->got.push_back({event, code}); }
};

// Runs the owner thread's queue for a while (URCs and events arrive there).
void dispatch(int ms = 100) {
    vek_u32 end = vek_msec() + (vek_u32)ms;
    while ((vek_s32)(end - vek_msec()) > 0) {
        vek_erp_run((vek_s32)(end - vek_msec()), 0);
    }
}

struct Reply {
    vek_s32 r;
    std::string lines;
};

Reply cmd(AtChan* ch, const char* c, vek_s32 tmo = 3000) {
    VekStr s;
    VekStr_new(&s);
    vek_s32 r = AtChan_cmd(ch, c, &s, tmo);
    Reply out{r, VekStr_buf(&s)};
    VekStr_delete(&s);
    return out;
}

} // namespace

class AtChanTest : public VekTest {
  protected:
    // The thread's own queue lives as long as the thread: made before the
    // fixture counts the live blocks.
    void SetUp() override {
        vek_erp_self();
        VekTest::SetUp();
    }
    AtChan* open(ModemSim& sim, vek_s32 flags = 0) {
        AtChanOpts o{};
        o.flags = flags;
        o.probeTmo = 300;
        o.deadAfter = 2;
        vek_s32 err = 0;
        AtChan* ch = AtChan_new(sim.client(), &o, &err);
        EXPECT_NE(ch, nullptr) << err;
        AtChan_onUrc(ch, nullptr, 0, Urcs::take, &urcs);
        AtChan_onEvent(ch, Events::take, &events);
        return ch;
    }
    Urcs urcs;
    Events events;
};

// The profiles in which nothing is lost: the same conversation must give
// the same replies whatever the modem's echo, form, chunking and noise.
TEST_F(AtChanTest, EveryCleanProfileGivesTheSameReplies) {
    struct Case {
        const char* name;
        SimProfile p;
        vek_s32 flags;
    };
    std::vector<Case> cases(7);
    cases[0].name = "plain";
    cases[1] = {"echo", {}, 0};
    cases[1].p.echo = true;
    cases[2] = {"numeric", {}, AT_CHAN_NUMERIC};
    cases[2].p.numeric = true;
    cases[3] = {"byte by byte", {}, 0};
    cases[3].p.chunking = 1;
    cases[4] = {"random chunks, echo", {}, 0};
    cases[4].p.chunking = 2;
    cases[4].p.echo = true;
    cases[5] = {"URCs between and inside", {}, 0};
    cases[5].p.urcBetween = cases[5].p.urcInside = true;
    cases[6] = {"noise", {}, 0};
    cases[6].p.noise = true;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ModemSim sim(c.p);
        AtChan* ch = open(sim, c.flags);
        // Before open the channel takes the modem as it is (echo on or off).
        Reply r = cmd(ch, "AT+CGMI");
        EXPECT_EQ(r.r, 0);
        EXPECT_EQ(r.lines, "Simulated\nModem Inc.\n");
        EXPECT_EQ(AtChan_open(ch, -1), 0);
        r = cmd(ch, "AT+CREG?");  // a URC prefix, but the command's own line
        EXPECT_EQ(r.r, 0);
        EXPECT_EQ(r.lines, "+CREG: 0,1\n");
        r = cmd(ch, "AT+NOSUCH");
        EXPECT_EQ(r.r, VEK_ERR_AT_ERROR);
        EXPECT_STREQ(AtChan_lastFinal(ch), c.p.numeric ? "4" : "ERROR");
        r = cmd(ch, "AT+CGMI");
        EXPECT_EQ(r.lines, "Simulated\nModem Inc.\n");
        AtChan_delete(ch);
        dispatch(50);
        if (c.p.urcBetween) {
            EXPECT_GE(urcs.lines.size(), 2u);
            EXPECT_EQ(urcs.thread, std::this_thread::get_id());  // on the owner thread
        }
        urcs.lines.clear();
    }
}

// Handlers by prefix; a two-line URC arrives with its data line.
TEST_F(AtChanTest, UrcsGoToTheirHandlers) {
    SimProfile p;
    p.urcBetween = true;
    p.urcInside = true;
    ModemSim sim(p);
    AtChan* ch = open(sim);
    Urcs cmti, cmt;
    ASSERT_EQ(AtChan_onUrc(ch, "+CMTI:", 0, Urcs::take, &cmti), 0);
    ASSERT_EQ(AtChan_onUrc(ch, "+CMT:", 1, Urcs::take, &cmt), 0);
    EXPECT_EQ(cmd(ch, "AT+CGMI").lines, "Simulated\nModem Inc.\n");
    EXPECT_EQ(cmd(ch, "AT+CSQ").lines, "+CSQ: 20,99\n");
    EXPECT_EQ(cmd(ch, "AT+EMIT").lines, "Emitted\n");
    dispatch(100);
    EXPECT_EQ(cmti.lines, std::vector<std::string>(3, "+CMTI: \"SM\",1"));
    EXPECT_EQ(cmt.lines, std::vector<std::string>({"+CMT: ,24|07911326040000F0040B911346610089F60000208062917314080CC8F71D"
                                                   "14969741F977FD07"}));
    EXPECT_EQ(urcs.lines, std::vector<std::string>({"^RSSI: 17", "^RSSI: 17", "^NEWURC: 5"}));
    AtChan_delete(ch);
}

// Every final gives its result, the +CME text form the numbered code.
TEST_F(AtChanTest, FinalsGiveTheirResults) {
    ModemSim sim(SimProfile{});
    AtChan* ch = open(sim);
    const std::pair<const char*, vek_s32> cases[] = {
        {"+CME ERROR: SIM busy", VEK_AT_CME_BASE - 14},     {"+CME ERROR: 10", VEK_AT_CME_BASE - 10},
        {"+CME ERROR: no such thing", VEK_ERR_AT_CME_TEXT}, {"+CMS ERROR: 500", VEK_AT_CMS_BASE - 500},
        {"+CMS ERROR: unknown error", VEK_ERR_AT_CMS_TEXT}, {"NO CARRIER", VEK_ERR_AT_NO_CARRIER},
        {"CONNECT 9600", VEK_AT_CONNECT},                   {"COMMAND NOT SUPPORT", VEK_ERR_AT_VENDOR},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(cmd(ch, ("AT+FINAL=" + std::string(c.first)).c_str()).r, c.second) << c.first;
        EXPECT_STREQ(AtChan_lastFinal(ch), c.first);
    }
    AtChan_delete(ch);
}

// A reply after the time-out, and a reply never given: the next command
// gets its own answer, and two time-outs in a row raise the event.
TEST_F(AtChanTest, LateAndDroppedRepliesNeverAnswerTheNextCommand) {
    SimProfile p;
    p.lateCmd = "AT+SLOW";
    p.lateMs = 700;
    p.dropCmd = "AT+CGMI";
    p.echo = true;
    ModemSim sim(p);
    AtChan* ch = open(sim);
    EXPECT_EQ(cmd(ch, "AT+SLOW", 200).r, VEK_ERR_TIMEOUT);
    EXPECT_EQ(AtChan_desynced(ch), 1);
    Reply r = cmd(ch, "AT+CSQ");
    EXPECT_EQ(r.r, 0);
    EXPECT_EQ(r.lines, "+CSQ: 20,99\n");
    EXPECT_EQ(cmd(ch, "AT+CGMI", 200).r, VEK_ERR_TIMEOUT);
    EXPECT_EQ(cmd(ch, "AT+CREG?").lines, "+CREG: 0,1\n");
    dispatch(50);
    EXPECT_TRUE(urcs.lines.empty()) << urcs.lines[0];  // the late lines were dropped, not passed on
    EXPECT_TRUE(events.got.empty());
    AtChan_delete(ch);

    SimProfile mute;
    mute.mute = true;
    ModemSim dead(mute);
    ch = open(dead);
    EXPECT_EQ(cmd(ch, "AT", 100).r, VEK_ERR_TIMEOUT);
    EXPECT_EQ(cmd(ch, "AT", 100).r, VEK_ERR_TIMEOUT);
    EXPECT_EQ(cmd(ch, "AT", 100).r, VEK_ERR_TIMEOUT);
    dispatch(50);
    ASSERT_EQ(events.got.size(), 1u);
    EXPECT_EQ(events.got[0], std::make_pair((vek_s32)AT_CHAN_EVT_NOT_ANSWERING, (vek_s32)2));
    AtChan_delete(ch);
}

// The line dies inside a reply: that command and every later one end
// with the device's code at once, and the event comes once.
TEST_F(AtChanTest, HangUpEndsEveryCommand) {
    SimProfile p;
    p.hangupCmd = "AT+CGMI";
    ModemSim sim(p);
    AtChan* ch = open(sim);
    vek_s32 r = cmd(ch, "AT+CGMI").r;
    EXPECT_TRUE(r == VEK_ERR_DEV_GONE || r == VEK_ERR_PEER_CLOSED) << r;
    vek_u32 t0 = vek_msec();
    EXPECT_EQ(cmd(ch, "AT").r, r);
    EXPECT_LT(vek_msec() - t0, 100u);
    dispatch(50);
    ASSERT_EQ(events.got.size(), 1u);
    EXPECT_EQ(events.got[0], std::make_pair((vek_s32)AT_CHAN_EVT_GONE, r));
    AtChan_delete(ch);
}

TEST_F(AtChanTest, SimBusyAtOpenAndPromptCommands) {
    SimProfile p;
    p.simBusy = 2;
    p.storageFull = true;
    ModemSim sim(p);
    AtChan* ch = open(sim);
    EXPECT_EQ(AtChan_open(ch, -1), 0);
    EXPECT_EQ(sim.count("AT+CPIN?"), 3);
    VekStr s;
    VekStr_new(&s);
    EXPECT_EQ(AtChan_cmdPrompt(ch, "AT+CMGS=23", "0011000B916407281553F80000AA0AE8329BFD4697D9EC37", &s, -1), 0);
    EXPECT_STREQ(VekStr_buf(&s), "+CMGS: 7\n");
    EXPECT_EQ(AtChan_cmdPrompt(ch, "AT+CMGW=23", "00", &s, -1), VEK_AT_CMS_BASE - 322);
    VekStr_delete(&s);
    EXPECT_EQ(AtChan_timeout(ch, "AT+COPS=?"), 180000);
    EXPECT_EQ(AtChan_setTimeout(ch, "+COPS", 1234), 0);
    EXPECT_EQ(AtChan_timeout(ch, "at+cops?"), 1234);
    EXPECT_EQ(AtChan_timeout(ch, "ATI"), 5000);
    AtChan_delete(ch);
}

// A cancel ends the wait at once, and the
// channel resynchronises before the next command.
TEST_F(AtChanTest, CancelEndsTheWaitQuickly) {
    SimProfile p;
    p.dropCmd = "AT+COPS=?";
    ModemSim sim(p);
    AtChan* ch = open(sim);
    std::atomic<vek_s32> res{1};
    std::atomic<vek_u32> ended{0};
    vek_u32 tid = vektest::spawn([&] {
        res = AtChan_cmd(ch, "AT+COPS=?", nullptr, -1);
        ended = vek_msec();
        return 0u;
    });
    vek_sleep(100);
    vek_u32 t0 = vek_msec();
    vek_thrd_cancel(tid);
    vek_thrd_join(tid);
    EXPECT_EQ(res.load(), VEK_ERR_ABORTED);
    EXPECT_LT(ended.load() - t0, 200u);  // generous for a loaded machine; the wait itself ends at once
    EXPECT_EQ(cmd(ch, "AT+CSQ").lines, "+CSQ: 20,99\n");
    AtChan_delete(ch);
}
