/*
 * AtChan.cpp - the AT command channel.
 *
 * Two threads meet in the state under `lk`: the reading thread feeds the
 * lexer and sorts every token, the commanding thread sets up what it
 * waits for (`mode`) and sleeps on `done`. The invariant: while `mode` is
 * IDLE no line can reach a reply; a line counts for a command only after
 * the command was set up and (in PROBE) only after the probe's own echo.
 * Whatever a timed-out command leaves behind therefore lands while the
 * channel is IDLE or in the probe's discarding phase, never in the next
 * command's reply.
 *
 * Memory: the texts are VStrings on the tracked heap. Running out while
 * sorting a line loses a URC (as a notification may be lost) but never
 * shortens a reply silently: the command then ends with VEK_ERR_FULL.
 */
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <string_view>
#include "AtChan.h"
#include "VekCore.h"
#include "VekCall.h"
#include "VekErp.h"
#include "VekLex.h"
#include "VekVosx.h"
#include "VekAlloc.h"

namespace {

using vek::VString;
using Text = std::string_view;

enum Mode { IDLE, CMD, PROMPT_WAIT, PROBE_ANY, PROBE_ECHO, PROBE_FINAL };

constexpr int kMaxHandlers = 32;
constexpr int kMaxTimeouts = 64;

struct Handler {
    char prefix[64];  // "" for the catch-all
    vek_s32 len;
    AtChanUrcFn fn;
    void* ctx;
};

struct NameTmo {
    char name[32];
    vek_s32 ms;
};

const NameTmo kDefaultTimeouts[] = {
    {"+COPS", 180000}, {"+CMGS", 60000}, {"+CMSS", 60000}, {"D", 60000},      {"A", 60000},
    {"+CPIN", 10000},  {"+CLCK", 30000}, {"+CUSD", 30000}, {"+CMGL", 30000}, {"+CGATT", 60000},
    {"+CFUN", 30000},  {"+CGACT", 60000}, {"+CPWD", 30000}, {"+CMGW", 10000},
};

constexpr int kMaxName = 32;

// The command's name: after "AT" up to "=", "?" or the end ("+COPS", "D", "I").
void name_of(const char* cmd, char (&n)[kMaxName]) {
    const char* p = cmd;
    if ((p[0] == 'A' || p[0] == 'a') && (p[1] == 'T' || p[1] == 't')) {
        p += 2;
    }
    auto upper = [](char c) { return (char)((c >= 'a' && c <= 'z') ? c - 32 : c); };
    int k = 0;
    if (*p == '+' || *p == '^' || *p == '#' || *p == '$' || *p == '%' || *p == '*') {
        n[k++] = *p++;
        while (*p && *p != '=' && *p != '?' && *p != ';' && k < kMaxName - 1) {
            n[k++] = upper(*p++);
        }
    } else if (*p) {
        n[k++] = upper(*p);
    }
    n[k] = 0;
}

// Appends a text and a line end; false when memory ran out.
bool append(VString& s, Text a, bool nl) {
    try {
        s.append(a.data(), a.size());
        if (nl) {
            s += '\n';
        }
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

struct CmeText {
    const char* text;
    vek_s32 code;
};
// 3GPP TS 27.007 9.2: the texts modems give with AT+CMEE=2 (or on their own).
const CmeText kCmeTexts[] = {
    {"phone failure", 0},          {"no connection to phone", 1}, {"operation not allowed", 3},
    {"operation not supported", 4}, {"PH-SIM PIN required", 5},  {"SIM not inserted", 10},
    {"SIM PIN required", 11},      {"SIM PUK required", 12},     {"SIM failure", 13},
    {"SIM busy", 14},              {"SIM wrong", 15},            {"incorrect password", 16},
    {"SIM PIN2 required", 17},     {"SIM PUK2 required", 18},    {"memory full", 20},
    {"invalid index", 21},         {"not found", 22},            {"memory failure", 23},
    {"text string too long", 24},  {"invalid characters in text string", 25},
    {"dial string too long", 26},  {"invalid characters in dial string", 27},
    {"no network service", 30},    {"network timeout", 31},      {"network not allowed - emergency calls only", 32},
    {"unknown", 100},
};

bool same_text(const char* a, vek_s32 n, const char* b) {
    size_t m = std::strlen(b);
    if ((size_t)n != m) {
        return false;
    }
    for (size_t i = 0; i < m; i++) {
        char x = a[i], y = b[i];
        x = (x >= 'A' && x <= 'Z') ? (char)(x + 32) : x;
        y = (y >= 'A' && y <= 'Z') ? (char)(y + 32) : y;
        if (x != y) {
            return false;
        }
    }
    return true;
}

vek_s32 result_of(const VekLexTok& t) {
    switch (t.kind) {
    case VEK_LEX_OK: return 0;
    case VEK_LEX_CONNECT: return VEK_AT_CONNECT;
    case VEK_LEX_ERROR: return VEK_ERR_AT_ERROR;
    case VEK_LEX_NO_CARRIER: return VEK_ERR_AT_NO_CARRIER;
    case VEK_LEX_BUSY: return VEK_ERR_AT_BUSY;
    case VEK_LEX_NO_ANSWER: return VEK_ERR_AT_NO_ANSWER;
    case VEK_LEX_NO_DIALTONE: return VEK_ERR_AT_NO_DIALTONE;
    case VEK_LEX_CMS:
        return t.code >= 0 && t.code < 10000 ? VEK_AT_CMS_BASE - t.code : VEK_ERR_AT_CMS_TEXT;
    case VEK_LEX_CME:
        if (t.code >= 0 && t.code < 10000) {
            return VEK_AT_CME_BASE - t.code;
        }
        for (const CmeText& c : kCmeTexts) {
            if (same_text(t.arg, t.argLen, c.text)) {
                return VEK_AT_CME_BASE - c.code;
            }
        }
        return VEK_ERR_AT_CME_TEXT;
    default: return VEK_ERR_AT_VENDOR;
    }
}

// What the reading thread hands to the owner thread.
struct Post {
    AtChanUrcFn urc;
    AtChanEvtFn evt;
    void* ctx;
    vek_s32 event, code;
    VString line, data;
    bool hasData;
};

void run_post(void* arg) {
    Post* p = (Post*)arg;
    if (p->urc) {
        p->urc(p->ctx, p->line.c_str(), p->hasData ? p->data.c_str() : nullptr);
    } else if (p->evt) {
        p->evt(p->ctx, p->event, p->code);
    }
    p->~Post();
    vek_free__(p);
}

void drop_post(void* arg) {
    Post* p = (Post*)arg;
    p->~Post();
    vek_free__(p);
}

} // namespace

struct AtChan {
    ISock* sock;
    VekLex* lex;
    vek_s32 owner;         // the owner thread's own processor
    vek_u32 reader;        // the reading thread
    vek_handle done;       // auto reset: the command's wait is over (a final, a prompt, gone)
    vek_handle turn;       // auto reset, starts set: the right to run a command
    AtChanOpts opts;
    std::mutex lk;
    // under lk
    Mode mode;
    char cmdName[kMaxName];  // "+CREG": its own lines are not URCs
    VString reply;
    VString final;
    vek_s32 result;
    bool finished;         // the final (or prompt) the command waits for arrived
    bool promptSeen;
    bool sawLong;          // a reply line was cut at maxLine
    bool lost;             // a reply line was lost to memory
    bool desynced;
    vek_s32 gone;          // 0, or the socket's final code
    vek_s32 timeouts;      // consecutive
    Handler handlers[kMaxHandlers];
    vek_s32 nHandlers;
    AtChanEvtFn evtFn;
    void* evtCtx;
    NameTmo tmos[kMaxTimeouts];
    vek_s32 nTmos;
    vek_s32 defTmo;
    // a two-line URC waiting for its data
    bool urcPending;
    bool urcDrop;          // lost to memory: its data lines are only swallowed
    VString urcLine;
    VString urcData;
    vek_s32 urcOwed;
};

namespace {

void post(AtChan* ch, Post&& p) {
    void* mem = vek_malloc__(sizeof(Post));
    if (!mem) {
        return;  // out of memory: the notification is lost, the channel goes on
    }
    Post* q = new (mem) Post(std::move(p));  // moves: nothing to allocate
    if (vek_erp_postf(ch->owner, run_post, q, drop_post) != 0) {
        drop_post(q);
    }
}

void post_event(AtChan* ch, vek_s32 event, vek_s32 code) {
    if (ch->evtFn) {
        Post p{};
        p.evt = ch->evtFn;
        p.ctx = ch->evtCtx;
        p.event = event;
        p.code = code;
        post(ch, std::move(p));
    }
}

const Handler* handler_for(AtChan* ch, Text line) {
    const Handler* best = nullptr;
    for (vek_s32 i = 0; i < ch->nHandlers; i++) {
        const Handler& h = ch->handlers[i];
        if (h.len == 0) {
            if (!best) {
                best = &h;
            }
        } else if (line.substr(0, (size_t)h.len) == h.prefix && (!best || best->len < h.len)) {
            best = &h;
        }
    }
    return best;
}

void deliver_urc(AtChan* ch, Text line, const VString* data) {
    const Handler* h = handler_for(ch, line);
    if (h && h->fn) {
        Post p{};
        p.urc = h->fn;
        p.ctx = h->ctx;
        p.hasData = data != nullptr;
        if (!append(p.line, line, false) || (data && !append(p.data, *data, false))) {
            return;  // out of memory: the notification is lost, the channel goes on
        }
        post(ch, std::move(p));
    }
}

// Hands on the two-line URC being collected: with its data when all of
// it came, alone when another line cut it short.
void flush_urc(AtChan* ch) {
    if (ch->urcPending) {
        if (!ch->urcDrop) {
            deliver_urc(ch, ch->urcLine, ch->urcOwed == 0 ? &ch->urcData : nullptr);
        }
        ch->urcLine.clear();
        ch->urcData.clear();
        ch->urcOwed = 0;
        ch->urcPending = false;
        ch->urcDrop = false;
    }
}

void finish(AtChan* ch, vek_s32 result) {
    // Lines after the final belong to no reply, though the commanding
    // thread takes the reply only when it wakes: they are sorted as idle.
    ch->mode = IDLE;
    ch->result = result;
    ch->finished = true;
    vek_evt_set(ch->done);
}

// A modem's text lines are printable: a line with other control bytes is
// line noise (a glitch, a baud-rate mismatch) and belongs to no reply.
bool noise(Text line) {
    for (char c : line) {
        if ((unsigned char)c < 0x20 && c != '\t') {
            return true;
        }
    }
    return false;
}

// Sorts one token (under lk).
void take(AtChan* ch, const VekLexTok& t) {
    Text text(t.text, (size_t)t.len);
    if (t.kind == VEK_LEX_URC_DATA && ch->urcPending) {
        if (!ch->urcDrop && !append(ch->urcData, text, false)) {
            ch->urcDrop = true;
        }
        if (--ch->urcOwed == 0) {
            flush_urc(ch);
        }
        return;
    }
    flush_urc(ch);
    bool own = ch->mode == CMD || ch->mode == PROMPT_WAIT;
    if (t.kind == VEK_LEX_URC || (t.kind == VEK_LEX_URC_DATA)) {
        // The command's own name makes the line part of its reply.
        if (own && ch->cmdName[0] && text.substr(0, std::strlen(ch->cmdName)) == ch->cmdName) {
            ch->lost |= !append(ch->reply, text, true);
        } else if (t.lines > 0) {
            ch->urcPending = true;
            ch->urcDrop = !append(ch->urcLine, text, false);
            ch->urcOwed = t.lines;
        } else {
            deliver_urc(ch, text, nullptr);
        }
        return;
    }
    switch (ch->mode) {
    case IDLE:
        // Unknown lines and stray finals (a late reply, RING's NO CARRIER)
        // go to the catch-all, unless they are the leftovers of a command
        // that was given up.
        if (!ch->desynced && t.kind != VEK_LEX_ECHO && !noise(text)) {
            deliver_urc(ch, text, nullptr);
        }
        return;
    case PROBE_ANY:
        if (VEK_LEX_IS_FINAL(t.kind)) {
            finish(ch, result_of(t));
        }
        return;
    case PROBE_ECHO:
        if (t.kind == VEK_LEX_ECHO) {
            ch->mode = PROBE_FINAL;
        }
        return;
    case PROBE_FINAL:
        if (VEK_LEX_IS_FINAL(t.kind)) {
            ch->final.clear();
            finish(ch, append(ch->final, text, false) ? result_of(t) : VEK_ERR_FULL);
        }
        return;
    case CMD:
    case PROMPT_WAIT:
        break;
    }
    if (t.kind == VEK_LEX_ECHO || noise(text)) {
        return;
    }
    if (t.kind == VEK_LEX_PROMPT) {
        if (ch->mode == PROMPT_WAIT) {
            ch->promptSeen = true;
            finish(ch, 0);
        }
        return;
    }
    if (VEK_LEX_IS_FINAL(t.kind)) {
        ch->final.clear();
        ch->lost |= !append(ch->final, text, false);
        vek_s32 r = result_of(t);
        finish(ch, ch->lost ? VEK_ERR_FULL : r == 0 && ch->sawLong ? VEK_ERR_LINE_LONG : r);
        return;
    }
    if (t.kind == VEK_LEX_LONG) {
        ch->sawLong = true;  // reported with the final: the reply goes on to its end
    }
    ch->lost |= !append(ch->reply, text, true);
}

vek_u32 reader_main(void* arg) {
    AtChan* ch = (AtChan*)arg;
    char buf[512];
    for (;;) {
        vek_s32 n = ISock_read(ch->sock, buf, sizeof buf, -1);
        if (n == VEK_ERR_ABORTED) {
            return 0;  // AtChan_delete
        }
        std::lock_guard<std::mutex> g(ch->lk);
        if (n <= 0) {
            ch->gone = n < 0 ? n : VEK_ERR_DEV_GONE;
            if (ch->mode != IDLE) {
                finish(ch, ch->gone);
            }
            post_event(ch, AT_CHAN_EVT_GONE, ch->gone);
            return 0;
        }
        for (vek_s32 at = 0; at < n;) {
            VekLexTok t;
            at += VekLex_feed(ch->lex, buf + at, n - at, &t);
            if (t.kind != VEK_LEX_NONE) {
                take(ch, t);
            }
        }
    }
}

// Writes the whole text; the socket's code when it failed.
vek_s32 send_all(AtChan* ch, Text s, vek_s32 tmo) {
    vek_s32 r = ISock_write(ch->sock, s.data(), (vek_s32)s.size(), tmo < 0 ? 5000 : tmo);
    if (r == (vek_s32)s.size()) {
        return 0;
    }
    return r < 0 ? r : VEK_ERR_TIMEOUT;
}

// Sets up a wait (under lk): what counts, the echo expected, the prompt.
void arm(AtChan* ch, Mode mode, const char* echo, const char* cmd) {
    ch->mode = mode;
    name_of(cmd, ch->cmdName);
    ch->reply.clear();
    ch->final.clear();
    ch->result = 0;
    ch->finished = false;
    ch->promptSeen = false;
    ch->sawLong = false;
    ch->lost = false;
    vek_evt_reset(ch->done);
    VekLex_setEcho(ch->lex, echo);
    vek_s32 f = VekLex_getFlags(ch->lex) & ~VEK_LEX_EXPECT_PROMPT;
    VekLex_setFlags(ch->lex, f | (mode == PROMPT_WAIT ? VEK_LEX_EXPECT_PROMPT : 0));
}

// Waits for the armed wait: 0 with ch->result, -5, -12, or the gone code.
vek_s32 wait_done(AtChan* ch, vek_u32 start, vek_s32 tmo) {
    vek_s32 left = -1;
    if (tmo >= 0) {
        vek_u32 used = vek_msec() - start;
        left = used >= (vek_u32)tmo ? 0 : tmo - (vek_s32)used;
    }
    vek_s32 r = vek_evt_swait__(ch->done, left, 0);
    std::lock_guard<std::mutex> g(ch->lk);
    if (ch->finished) {
        return 0;  // the answer won over a time-out or cancel that came with it
    }
    return r == 0 ? VEK_ERR_TIMEOUT : r;
}

void disarm(AtChan* ch) {
    std::lock_guard<std::mutex> g(ch->lk);
    ch->mode = IDLE;
    ch->cmdName[0] = 0;
    VekLex_setEcho(ch->lex, nullptr);
    VekLex_setFlags(ch->lex, VekLex_getFlags(ch->lex) & ~VEK_LEX_EXPECT_PROMPT);
}

// A command given up (time-out, cancel): the modem's answer is still owed.
void given_up(AtChan* ch, vek_s32 r) {
    std::lock_guard<std::mutex> g(ch->lk);
    ch->desynced = true;
    if (r == VEK_ERR_TIMEOUT && ++ch->timeouts == (ch->opts.deadAfter ? ch->opts.deadAfter : 3)) {
        post_event(ch, AT_CHAN_EVT_NOT_ANSWERING, ch->timeouts);
    }
}

// "ATE1" (its answer does not matter), then "ATE0": with echo now on, the
// echo of "ATE0" marks where the modem is, and the final after it is the
// probe's own. The first command also sets the result form the lexer
// reads (V1 words, V0 digits): a modem left in the other form would
// answer every probe in finals the channel cannot see.
vek_s32 resync(AtChan* ch, vek_u32 start, vek_s32 tmo) {
    vek_s32 probe = ch->opts.probeTmo > 0 ? ch->opts.probeTmo : 1000;
    for (int attempt = 0; attempt < 3; attempt++) {
        {
            std::lock_guard<std::mutex> g(ch->lk);
            arm(ch, PROBE_ANY, "", "");
        }
        vek_s32 r = send_all(ch, (ch->opts.flags & AT_CHAN_NUMERIC) ? "ATE1V0\r" : "ATE1V1\r", probe);
        if (r == 0) {
            r = wait_done(ch, vek_msec(), probe);
        }
        if (r == VEK_ERR_ABORTED || (r != 0 && r != VEK_ERR_TIMEOUT)) {
            disarm(ch);
            return r;
        }
        {
            std::lock_guard<std::mutex> g(ch->lk);
            arm(ch, PROBE_ECHO, "ATE0", "");
        }
        r = send_all(ch, "ATE0\r", probe);
        if (r == 0) {
            r = wait_done(ch, vek_msec(), probe);
        }
        disarm(ch);
        if (r == 0) {
            std::lock_guard<std::mutex> g(ch->lk);
            if (ch->result == 0) {
                ch->desynced = false;
                return 0;
            }
        }
        if (r != VEK_ERR_TIMEOUT && r != 0) {
            return r;
        }
        if (tmo >= 0 && vek_msec() - start >= (vek_u32)tmo) {
            break;
        }
    }
    return VEK_ERR_TIMEOUT;
}

// ESC makes the modem drop the message it is taking (or the prompt it is
// about to give). A cancel leaves the caller's abort event set, which
// would stop the write; it is cleared for this one byte and set again.
void send_escape(AtChan* ch) {
    vek_handle abort = vek_call_abort_evt();
    vek_bool was = vek_call_abortedx(1);
    ISock_write(ch->sock, "\x1b", 1, 1000);
    if (was && abort) {
        vek_evt_set(abort);
    }
}

vek_s32 run(AtChan* ch, const char* cmd, const char* payload, VekStr* lines, vek_s32 tmo) {
    if (!ch || !cmd || !*cmd || std::strlen(cmd) > (size_t)ch->opts.maxLine || std::strchr(cmd, '\r')) {
        return VEK_ERR_BAD_ARG;
    }
    if (tmo < 0) {
        tmo = AtChan_timeout(ch, cmd);
    }
    // What goes on the wire, made before the turn is taken: a command that
    // cannot be built leaves the channel as it was.
    VString wire, body;
    try {
        wire.assign(cmd).push_back('\r');
        if (payload) {
            body.assign(payload).push_back('\x1a');
        }
    } catch (const std::bad_alloc&) {
        return VEK_ERR_FULL;
    }
    vek_u32 start = vek_msec();
    vek_s32 r = vek_evt_swait__(ch->turn, tmo, 0);
    if (r != 0) {
        return r;
    }
    bool desynced;
    {
        std::lock_guard<std::mutex> g(ch->lk);
        r = ch->gone;
        desynced = ch->desynced;
        ch->final.clear();
    }
    if (r == 0 && desynced) {
        r = resync(ch, start, tmo);
        if (r == VEK_ERR_TIMEOUT) {
            given_up(ch, r);
        }
    }
    if (r == 0) {
        {
            std::lock_guard<std::mutex> g(ch->lk);
            arm(ch, payload ? PROMPT_WAIT : CMD, cmd, cmd);
        }
        r = send_all(ch, wire, tmo);
        if (r == 0) {
            r = wait_done(ch, start, tmo);
        }
        bool prompted = false;
        if (r == 0 && payload) {
            std::lock_guard<std::mutex> g(ch->lk);
            prompted = ch->promptSeen;
        }
        if (prompted) {
            {
                std::lock_guard<std::mutex> g(ch->lk);
                arm(ch, CMD, body.c_str(), cmd);
            }
            r = send_all(ch, body, tmo);
            if (r == 0) {
                r = wait_done(ch, start, tmo);
            }
        }
        if (payload && (r == VEK_ERR_ABORTED || r == VEK_ERR_TIMEOUT)) {
            send_escape(ch);
        }
        disarm(ch);
        if (r == 0) {
            std::lock_guard<std::mutex> g(ch->lk);
            r = ch->result;
            ch->timeouts = 0;
            if (lines && VekStr_len(VekStr_setStrx(lines, ch->reply.data(), (vek_s32)ch->reply.size())) !=
                             (vek_s32)ch->reply.size()) {
                r = VEK_ERR_FULL;
            }
        } else if (r == VEK_ERR_ABORTED || r == VEK_ERR_TIMEOUT) {
            given_up(ch, r);
        }
    }
    vek_evt_set(ch->turn);
    return r;
}

} // namespace

extern "C" {

VEK_API AtChan* AtChan_new(ISock* sock, const AtChanOpts* opts, vek_s32* err) {
    vek_s32 dummy;
    err = err ? err : &dummy;
    *err = 0;
    if (!sock) {
        *err = VEK_ERR_BAD_ARG;
        return nullptr;
    }
    void* mem = vek_malloc__(sizeof(AtChan));
    if (!mem) {
        *err = VEK_ERR_FULL;
        return nullptr;
    }
    AtChan* ch = new (mem) AtChan();
    ch->opts = opts ? *opts : AtChanOpts{};
    ch->opts.maxLine = ch->opts.maxLine > 0 ? ch->opts.maxLine : 2048;
    ch->lex = VekLex_new(ch->opts.maxLine, (ch->opts.flags & AT_CHAN_NUMERIC) ? VEK_LEX_NUMERIC : 0);
    ch->done = vek_evt_create__(0, 0);
    ch->turn = vek_evt_create__(0, 1);
    ch->owner = vek_erp_self();
    ch->defTmo = 5000;
    for (const NameTmo& t : kDefaultTimeouts) {
        ch->tmos[ch->nTmos++] = t;
    }
    if (!ch->lex || !ch->done || !ch->turn || ch->owner <= 0) {
        *err = VEK_ERR_FULL;
        AtChan_delete(ch);
        return nullptr;
    }
    ISock_addRef(sock);
    ch->sock = sock;
    ch->reader = vek_thrd_create__(reader_main, ch, 0);
    if (!ch->reader) {
        *err = VEK_ERR_NO_FREE_SLOT;
        AtChan_delete(ch);
        return nullptr;
    }
    return ch;
}

VEK_API void AtChan_delete(AtChan* ch) {
    if (!ch) {
        return;
    }
    if (ch->reader) {
        vek_thrd_wait(ch->reader);
    }
    if (ch->sock) {
        ISock_release(ch->sock);
    }
    VekLex_delete(ch->lex);
    if (ch->done) {
        vek_evt_close(ch->done);
    }
    if (ch->turn) {
        vek_evt_close(ch->turn);
    }
    ch->~AtChan();
    vek_free__(ch);
}

VEK_API vek_s32 AtChan_onUrc(AtChan* ch, const char* prefix, vek_s32 dataLines, AtChanUrcFn fn, void* ctx) {
    if (!ch || (prefix && (!*prefix || std::strlen(prefix) > 63)) || dataLines < 0 || dataLines > 4) {
        return VEK_ERR_BAD_ARG;
    }
    std::lock_guard<std::mutex> g(ch->lk);
    const char* key = prefix ? prefix : "";
    vek_s32 i = 0;
    while (i < ch->nHandlers && std::strcmp(ch->handlers[i].prefix, key) != 0) {
        i++;
    }
    if (!fn) {
        if (i < ch->nHandlers) {
            ch->handlers[i] = ch->handlers[--ch->nHandlers];
        }
        return 0;
    }
    if (i == ch->nHandlers) {
        if (i == kMaxHandlers) {
            return VEK_ERR_FULL;
        }
        if (prefix) {
            vek_s32 r = VekLex_addPrefix(ch->lex, prefix, VEK_LEX_URC, dataLines, 0);
            if (r != 0) {
                return r;
            }
        }
        std::strcpy(ch->handlers[i].prefix, key);
        ch->handlers[i].len = (vek_s32)std::strlen(key);
        ch->nHandlers++;
    }
    ch->handlers[i].fn = fn;
    ch->handlers[i].ctx = ctx;
    return 0;
}

VEK_API void AtChan_onEvent(AtChan* ch, AtChanEvtFn fn, void* ctx) {
    std::lock_guard<std::mutex> g(ch->lk);
    ch->evtFn = fn;
    ch->evtCtx = ctx;
}

VEK_API vek_s32 AtChan_setTimeout(AtChan* ch, const char* name, vek_s32 ms) {
    if (!ch || ms <= 0 || (name && (!*name || std::strlen(name) > 31))) {
        return VEK_ERR_BAD_ARG;
    }
    std::lock_guard<std::mutex> g(ch->lk);
    if (!name) {
        ch->defTmo = ms;
        return 0;
    }
    for (vek_s32 i = 0; i < ch->nTmos; i++) {
        if (std::strcmp(ch->tmos[i].name, name) == 0) {
            ch->tmos[i].ms = ms;
            return 0;
        }
    }
    if (ch->nTmos == kMaxTimeouts) {
        return VEK_ERR_FULL;
    }
    std::strcpy(ch->tmos[ch->nTmos].name, name);
    ch->tmos[ch->nTmos++].ms = ms;
    return 0;
}

VEK_API vek_s32 AtChan_timeout(AtChan* ch, const char* cmd) {
    char n[kMaxName];
    name_of(cmd ? cmd : "", n);
    std::lock_guard<std::mutex> g(ch->lk);
    for (vek_s32 i = 0; i < ch->nTmos; i++) {
        if (std::strcmp(n, ch->tmos[i].name) == 0) {
            return ch->tmos[i].ms;
        }
    }
    return ch->defTmo;
}

VEK_API vek_s32 AtChan_open(AtChan* ch, vek_s32 tmo) {
    if (!ch) {
        return VEK_ERR_BAD_ARG;
    }
    {
        std::lock_guard<std::mutex> g(ch->lk);
        ch->desynced = true;  // nothing is known of the modem's state yet
    }
    vek_s32 r = AtChan_cmd(ch, "AT+CMEE=1", nullptr, tmo);
    if (r != 0) {
        return r;
    }
    vek_s32 budget = ch->opts.simBusyMs > 0 ? ch->opts.simBusyMs : 30000;
    vek_u32 start = vek_msec();
    for (;;) {
        r = AtChan_cmd(ch, "AT+CPIN?", nullptr, tmo);
        if (r != VEK_AT_CME_BASE - 14 || vek_msec() - start >= (vek_u32)budget) {
            return r;
        }
        // The SIM answers busy for some seconds after power-up; waiting
        // on the done event (never set while idle) is a cancellable sleep.
        vek_s32 w = vek_evt_swait__(ch->done, 500, 0);
        if (w == VEK_ERR_ABORTED) {
            return w;
        }
    }
}

VEK_API vek_s32 AtChan_cmd(AtChan* ch, const char* cmd, VekStr* lines, vek_s32 tmo) {
    return run(ch, cmd, nullptr, lines, tmo);
}

VEK_API vek_s32 AtChan_cmdPrompt(AtChan* ch, const char* cmd, const char* payload, VekStr* lines, vek_s32 tmo) {
    if (!payload) {
        return VEK_ERR_BAD_ARG;
    }
    return run(ch, cmd, payload, lines, tmo);
}

VEK_API const char* AtChan_lastFinal(AtChan* ch) {
    return ch->final.c_str();
}

VEK_API vek_s32 AtChan_desynced(AtChan* ch) {
    std::lock_guard<std::mutex> g(ch->lk);
    return ch->desynced ? 1 : 0;
}

} // extern "C"
