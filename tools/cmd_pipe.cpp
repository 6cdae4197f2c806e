/*
 * vektool pipe, vektool evt, vektool trace: the messages between
 * processes, for debugging a program that talks to others: serve an
 * endpoint and print what arrives, send a text or a generic event to one,
 * or print the trace that programs relay to an endpoint.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>
#include "VekTool.h"

namespace {

/* A result code as the command's message: nothing listening is "not
 * found" (exit 1), anything else an error (exit 2). */
int conn_fail(const char* what, const char* name, vek_s32 err) {
    vektool::fail(what, name, vek_err_text(err));
    return err == VEK_ERR_REFUSED ? vektool::kNotFound : vektool::kFailed;
}

std::string quoted(const VekStr* s) {
    std::string out = "\"";
    for (vek_s32 i = 0; i < VekStr_len(s); i++) {
        unsigned char c = (unsigned char)VekStr_buf(s)[i];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += (char)c;
        } else if (c < 0x20) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        } else {
            out += (char)c;
        }
    }
    return out + "\"";
}

/* One line per message: its text as it came, or an event's fields. */
void print_msg(const PmMsg& m) {
    std::string line;
    if (m.evt) {
        const GenEvt* e = m.evt;
        char nums[96];
        std::snprintf(nums, sizeof nums, "evt %u %u %d %d ", (unsigned)e->eid, (unsigned)e->rid, (int)e->num1,
                      (int)e->num2);
        line = nums + quoted(&e->str1) + " " + quoted(&e->str2);
        if (e->strm) {
            line += " +" + std::to_string((long long)IStrm_size(e->strm)) + " bytes";
        }
    } else if (m.len > 0) {
        line.assign((const char*)m.data, (size_t)m.len);
    }
    line += "\n";
    vektool::write_out(line.data(), line.size());
    std::fflush(stdout);
}

int pipe_listen(const vektool::Args& a) {
    long long count = 0;
    if (!a.number("--count", 1, 0x7FFFFFFF, 0, count)) {
        return vektool::kFailed;
    }
    vek_s32 err = 0;
    VekPipe* srv = VekPipe_xlisten__(a[0], 0, &err, __FILE__, __LINE__);
    if (!srv) {
        return conn_fail("pipe listen", a[0], err);
    }
    vektool::binary_stdout();
    long long seen = 0;
    // One client at a time, each until it closes: a debugging tool sees
    // every message in the order it was sent.
    while (count == 0 || seen < count) {
        ISock* s = nullptr;
        err = VekPipe_accept(srv, &s, nullptr, -1);
        if (err == VEK_ERR_ABORTED) {
            break;
        }
        PmConn* c = err < 0 ? nullptr : pm_open(s, 0, &err);
        PmMsg m;
        while (c && (count == 0 || seen < count) && pm_recv(c, &m, -1) == 0) {
            print_msg(m);
            seen++;
            if (m.kind == PM_KIND_REQ) {
                // A ping: the request comes back as its own answer.
                pm_reply(c, &m, m.type, m.data, m.len, m.evt, 1000);
            }
            pm_msg_clean(&m);
        }
        pm_close(c);
        if (s) {
            ISock_release(s);
        }
    }
    VekPipe_delete(srv);
    return vektool::kDone;
}

/* vektool trace listen: every traced program keeps its connection open,
 * so each is read by a thread of its own and their records interleave,
 * one whole record per line. */
struct TraceListen {
    std::mutex mu;
    long long count = 0;  // records to print, 0: no end
    long long seen = 0;
    bool done = false;
};

struct TraceClient {
    TraceListen* tl;
    PmConn* conn;
};

vek_u32 trace_client(void* arg) {
    TraceClient* tc = (TraceClient*)arg;
    TraceListen* tl = tc->tl;
    PmMsg m;
    while (pm_recv(tc->conn, &m, -1) == 0) {
        std::string line;
        for (vek_s32 i = 0; i < m.len; i++) {
            char c = (char)m.data[i];
            if (c == '\n') {
                line += "\\n";  // a record of several lines stays one line
            } else if (c != '\r') {
                line += c;
            }
        }
        line += '\n';
        pm_msg_clean(&m);
        std::lock_guard<std::mutex> lk(tl->mu);
        if (tl->done) {
            break;
        }
        vektool::write_out(line.data(), line.size());
        std::fflush(stdout);
        tl->done = tl->count > 0 && ++tl->seen >= tl->count;
    }
    return 0;
}

int trace_listen(const vektool::Args& a) {
    TraceListen tl;
    if (!a.number("--count", 1, 0x7FFFFFFF, 0, tl.count)) {
        return vektool::kFailed;
    }
    vek_s32 err = 0;
    VekPipe* srv = VekPipe_xlisten__(a[0], 0, &err, __FILE__, __LINE__);
    if (!srv) {
        return conn_fail("trace listen", a[0], err);
    }
    vektool::binary_stdout();
    std::vector<TraceClient*> clients;
    std::vector<vek_u32> tids;
    for (;;) {
        {
            std::lock_guard<std::mutex> lk(tl.mu);
            if (tl.done) {
                break;
            }
        }
        ISock* s = nullptr;
        err = VekPipe_accept(srv, &s, nullptr, 200);
        if (err == VEK_ERR_ABORTED) {
            break;
        }
        if (err < 0) {
            continue;
        }
        PmConn* c = pm_open(s, 0, &err);
        ISock_release(s);
        TraceClient* tc = c ? new TraceClient{&tl, c} : nullptr;
        vek_u32 tid = tc ? vek_thrd_create__(trace_client, tc, 0) : 0;
        if (tid == 0) {
            pm_close(c);
            delete tc;
            continue;
        }
        clients.push_back(tc);
        tids.push_back(tid);
    }
    for (vek_u32 tid : tids) {
        vek_thrd_cancel(tid);
        vek_thrd_join(tid);
    }
    for (TraceClient* tc : clients) {
        pm_close(tc->conn);
        delete tc;
    }
    VekPipe_delete(srv);
    return vektool::kDone;
}

int pipe_send(const vektool::Args& a) {
    // "-" sends standard input, whole, as the one message.
    std::string text = a[1];
    if (text == "-" && !vektool::read_input("pipe send", "-", text)) {
        return vektool::kFailed;
    }
    if (text.size() > (size_t)PM_MAX_LEN_DEF) {
        return vektool::fail("pipe send", a[1], "longer than a message may be (1 MiB)");
    }
    vek_s32 err = 0;
    PmConn* c = pm_connect(a[0], 0, 5000, &err);
    if (!c) {
        return conn_fail("pipe send", a[0], err);
    }
    err = pm_send(c, 0, text.data(), (vek_s32)text.size(), 5000);
    pm_close(c);
    return err < 0 ? conn_fail("pipe send", a[0], err) : vektool::kDone;
}

/* A whole number in decimal or with 0x in hex, within lo..hi. */
bool parse_num(const char* s, long long lo, long long hi, long long* out) {
    char* end = nullptr;
    errno = 0;
    long long v = std::strtoll(s, &end, 0);
    if (!*s || *end || errno != 0 || v < lo || v > hi) {
        return false;
    }
    *out = v;
    return true;
}

int evt_send(const vektool::Args& a) {
    long long eid = 0, nums[2] = {0, 0};
    if (!parse_num(a[1], 0, 0xFFFFFFFFll, &eid)) {
        return vektool::fail("evt send", a[1], "not an event id (0 to 4294967295)");
    }
    for (size_t i = 2; i < a.count(); i++) {
        if (!parse_num(a[i], -0x80000000ll, 0x7FFFFFFFll, &nums[i - 2])) {
            return vektool::fail("evt send", a[i], "not a 32-bit number");
        }
    }
    vek_s32 err = 0;
    PmConn* c = pm_connect(a[0], 0, 5000, &err);
    if (!c) {
        return conn_fail("evt send", a[0], err);
    }
    GenEvt* e = GenEvt_newn((vek_u32)eid, 0, (vek_s32)nums[0], (vek_s32)nums[1]);
    err = e ? pm_send_evt(c, 0, e, 5000) : VEK_ERR_FULL;
    if (e) {
        Evt_delete(e);
    }
    pm_close(c);
    return err < 0 ? conn_fail("evt send", a[0], err) : vektool::kDone;
}

const vektool::Option kListenOptions[] = {
    {"--count", "-n", "N", "end after N messages (default: run until stopped)"},
    {nullptr, nullptr, nullptr, nullptr},
};

const char kNameNote[] =
    "NAME is an endpoint's logical name (a socket in the user's runtime folder, or the pipe vek-NAME on "
    "Windows) or, with a slash, a socket path. Nothing listening at NAME exits 1.";

const vektool::SubCommand kPipeSubs[] = {
    {"listen", "pipe listen [-n N] NAME",
     "serves NAME and prints each message: its text, or an event as: evt EID RID NUM1 NUM2 \"STR1\" \"STR2\"; "
     "a request is answered with itself",
     pipe_listen, 1, 1, kListenOptions, kNameNote},
    {"send", "pipe send NAME TEXT|-", "sends TEXT (or standard input) as one message to the server at NAME",
     pipe_send, 2, 2, nullptr, kNameNote},
};

const vektool::Option kTraceOptions[] = {
    {"--count", "-n", "N", "end after N records (default: run until stopped)"},
    {nullptr, nullptr, nullptr, nullptr},
};

const vektool::SubCommand kTraceSubs[] = {
    {"listen", "trace listen [-n N] NAME",
     "serves NAME as a trace relay and prints each record that traced programs send there (\"RelayPipe\" in "
     "section \"VekTrc\" of VekTrc.ini), one per line, a line break inside a record as \\n",
     trace_listen, 1, 1, kTraceOptions, kNameNote},
};

const vektool::SubCommand kEvtSubs[] = {
    {"send", "evt send NAME EID [NUM1 [NUM2]]",
     "sends a generic event (identifier EID, numbers NUM1 and NUM2, decimal or 0x hex) to the server at NAME",
     evt_send, 2, 4, nullptr, kNameNote},
};

} // namespace

static const vektool::Command kPipe = {"pipe", "pipe listen|send ...", "messages between processes: serve, send",
                                       kPipeSubs, sizeof kPipeSubs / sizeof *kPipeSubs};
VEKTOOL_COMMAND(kPipe);
static const vektool::Command kEvt = {"evt", "evt send ...", "generic events to another process", kEvtSubs,
                                      sizeof kEvtSubs / sizeof *kEvtSubs};
VEKTOOL_COMMAND(kEvt);
static const vektool::Command kTrace = {"trace", "trace listen ...", "the trace that programs relay to an endpoint",
                                        kTraceSubs, sizeof kTraceSubs / sizeof *kTraceSubs};
VEKTOOL_COMMAND(kTrace);
