/*
 * vektool modem at, sms send, sms list, sms decode: a modem's AT
 * conversation and its short messages, through AtChan and SmsPdu. The
 * subcommand tables of cmd_modem.cpp and cmd_sms.cpp list them.
 *
 * PORT is a device path (/dev/ttyUSB0, COM3) or tcp:HOST:PORT. Exit codes:
 * 0 done, 1 the modem refused (ERROR, +CME ERROR, +CMS ERROR: that line
 * on stderr), 2 time-out, port or usage error.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include "AtSmsTool.h"

namespace {

struct Modem {
    ISock* sock = nullptr;
    AtChan* ch = nullptr;
    const char* what;
    std::string port;
    vek_s32 tmo = -1;
    ~Modem() {
        AtChan_delete(ch);
        if (sock) {
            ISock_release(sock);
        }
    }
    // Opens the port and the channel: false after the message.
    bool open(const vektool::Args& a, const char* cmd) {
        what = cmd;
        long long baud = 0, t = 0;
        if (!a.number("--baud", 50, 4000000, 115200, baud) || !a.number("--timeout", 1, 86400000, -1, t)) {
            return false;
        }
        tmo = (vek_s32)t;
        port = a[0];
        vek_s32 err = 0;
        if (port.rfind("tcp:", 0) == 0) {
            size_t colon = port.rfind(':');
            std::string host = port.substr(4, colon > 4 ? colon - 4 : 0);
            int p = std::atoi(port.c_str() + colon + 1);
            if (colon <= 4 || host.empty() || p <= 0 || p > 65535) {
                vektool::fail(what, port.c_str(), "not tcp:HOST:PORT");
                return false;
            }
            sock = TcpSock_xconnect__(host.c_str(), p, VEK_TCP_NODELAY, 10000, &err, __FILE__, __LINE__);
        } else {
            VekSerCfg cfg = VEK_SER_CFG_INIT;
            cfg.baud = (vek_s32)baud;
            sock = SerSock_xopen__(port.c_str(), &cfg, &err, __FILE__, __LINE__);
        }
        if (sock) {
            ch = AtChan_new(sock, nullptr, &err);
        }
        if (!ch) {
            vektool::fail(what, port.c_str(), vek_err_text(err));
            return false;
        }
        return true;
    }
    // One command: 0, or the exit code after the message.
    int run(const char* cmd, VekStr* lines, const char* payload = nullptr) {
        vek_s32 r = payload ? AtChan_cmdPrompt(ch, cmd, payload, lines, tmo) : AtChan_cmd(ch, cmd, lines, tmo);
        return verdict(cmd, r);
    }
    // The modem as the SMS commands need it, whatever an earlier program
    // left: the channel's probe drains stale output, a SIM still starting
    // up is waited for, and PDU mode is set.
    int ready() {
        int r = verdict("AT+CPIN?", AtChan_open(ch, tmo));
        return r == vektool::kDone ? run("AT+CMGF=0", nullptr) : r;
    }
    int verdict(const char* cmd, vek_s32 r) {
        if (r == 0) {
            return vektool::kDone;
        }
        bool refused = r == VEK_ERR_AT_ERROR || r == VEK_ERR_AT_CME_TEXT || r == VEK_ERR_AT_CMS_TEXT ||
                       r <= VEK_AT_CME_BASE || r == VEK_ERR_AT_VENDOR;
        if (refused) {
            std::fprintf(stderr, "%s\n", AtChan_lastFinal(ch));
            return vektool::kNotFound;
        }
        vektool::fail(what, port.c_str(), std::string(cmd) + ": " + vek_err_text(r));
        return vektool::kFailed;
    }
};

// ISO 8601 with the zone when the time stamp has one (VekDt keeps it in
// minutes with the opposite sign).
std::string iso_of(const VekDt& d) {
    char b[40];
    std::snprintf(b, sizeof b, "%04d-%02d-%02dT%02d:%02d:%02d", (int)d.year, (int)d.month, (int)d.day, (int)d.hour,
                  (int)d.minute, (int)d.second);
    std::string s = b;
    if (d.zone != 0x7FFFFFFF) {
        int off = -(int)d.zone;
        std::snprintf(b, sizeof b, "%c%02d:%02d", off < 0 ? '-' : '+', std::abs(off) / 60, std::abs(off) % 60);
        s += b;
    }
    return s;
}

void out(const std::string& s) {
    vektool::write_out(s.data(), s.size());
}

} // namespace

namespace atsms {

std::string json_text(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += (char)c;
        } else if (c < 0x20) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out += (char)c;
        }
    }
    return out + "\"";
}


int modem_at(const vektool::Args& a) {
    Modem m;
    if (!m.open(a, "modem at")) {
        return vektool::kFailed;
    }
    int worst = vektool::kDone;
    VekStr lines;
    VekStr_new(&lines);
    for (std::size_t i = 1; i < a.count() && worst != vektool::kFailed; i++) {
        VekStr_clear(&lines);
        int r = m.run(a[i], &lines);
        out(VekStr_buf(&lines));
        worst = r > worst ? r : worst;
    }
    VekStr_delete(&lines);
    return worst;
}

int sms_send(const vektool::Args& a) {
    SmsSubmit o{(a.flag("--ucs2") ? SMS_SUBMIT_UCS2 : 0) | (a.flag("--report") ? SMS_SUBMIT_REPORT : 0),
                (vek_s32)(vek_msec() & 0xff), -1};
    std::vector<SmsPart> parts(255);
    vek_s32 n = SmsPdu_encSubmit(parts.data(), 255, a[1], a[2], -1, &o);
    if (n < 0) {
        return vektool::fail("sms send", a[1], n == VEK_ERR_FULL ? "the text needs more than 255 parts"
                                                                 : "not a phone number, or the text is not UTF-8");
    }
    Modem m;
    if (!m.open(a, "sms send")) {
        return vektool::kFailed;
    }
    int r = m.ready();
    VekStr lines;
    VekStr_new(&lines);
    for (vek_s32 i = 0; i < n && r == vektool::kDone; i++) {
        std::string cmd = "AT+CMGS=" + std::to_string(parts[(size_t)i].tpduLen);
        r = m.run(cmd.c_str(), &lines, parts[(size_t)i].hex);
        const char* l = std::strstr(VekStr_buf(&lines), "+CMGS:");
        if (r == vektool::kDone) {
            out((l ? std::to_string(std::atoi(l + 6)) : std::string("?")) + "\n");
        }
    }
    VekStr_delete(&lines);
    return r;
}

namespace {

struct Listed {
    std::string from, time, text;
    bool complete;
    std::vector<vek_s64> index;
};

void collect(void* ctx, const SmsJoined* j) {
    ((std::vector<Listed>*)ctx)
        ->push_back({j->from, iso_of(*j->scts), std::string(j->text, (size_t)j->textLen), j->complete != 0,
                     std::vector<vek_s64>(j->tags, j->tags + j->have)});
}

} // namespace

int sms_list(const vektool::Args& a) {
    Modem m;
    if (!m.open(a, "sms list")) {
        return vektool::kFailed;
    }
    VekStr lines;
    VekStr_new(&lines);
    int r = m.ready();
    if (r == vektool::kDone) {
        r = m.run("AT+CMGL=4", &lines);
    }
    std::vector<Listed> got;
    SmsConcat* cc = SmsConcat_new(4096, 600000, collect, &got);
    // "+CMGL: index,stat,[alpha],length" and the PDU on the next line.
    std::string all = VekStr_buf(&lines);
    VekStr_delete(&lines);
    long long index = -1;
    std::vector<long long> dupes;  // copies of parts already held: deleted with them
    for (size_t at = 0; r == vektool::kDone && cc && at < all.size();) {
        size_t end = all.find('\n', at);
        std::string l = all.substr(at, end - at);
        at = end + 1;
        if (l.rfind("+CMGL:", 0) == 0) {
            index = std::atoll(l.c_str() + 6);
        } else if (index >= 0) {
            SmsMsg sms;
            if (SmsPdu_dec(&sms, l.c_str(), (vek_s32)l.size(), 1) == 0 && sms.type == SMS_DELIVER) {
                if (SmsConcat_add(cc, &sms, index, 0) == 2) {
                    dupes.push_back(index);
                }
            } else {
                vektool::note("sms list", m.port.c_str(), "message " + std::to_string(index) + " is not one to show");
            }
            index = -1;
        }
    }
    SmsConcat_flush(cc);
    SmsConcat_delete(cc);
    if (r != vektool::kDone) {
        return r;
    }
    bool json = a.flag("--json");
    std::string s = json ? "[" : "";
    for (size_t i = 0; i < got.size(); i++) {
        const Listed& g = got[i];
        if (json) {
            std::string idx;
            for (vek_s64 k : g.index) {
                idx += (idx.empty() ? "" : ",") + std::to_string(k);
            }
            s += std::string(i ? "," : "") + "\n  {\"from\":" + json_text(g.from) + ",\"time\":" + json_text(g.time) +
                 ",\"text\":" + json_text(g.text) + ",\"complete\":" + (g.complete ? "true" : "false") +
                 ",\"index\":[" + idx + "]}";
        } else {
            s += g.from + "\t" + g.time + "\t" + g.text + "\n";
        }
    }
    if (json) {
        s += got.empty() ? "]\n" : "\n]\n";
    }
    out(s);
    if (a.flag("--delete")) {
        for (const Listed& g : got) {
            dupes.insert(dupes.end(), g.index.begin(), g.index.end());
        }
        for (long long k : dupes) {
            std::string cmd = "AT+CMGD=" + std::to_string(k);
            int d = m.run(cmd.c_str(), nullptr);
            if (d != vektool::kDone) {
                return d;
            }
        }
    }
    return vektool::kDone;
}

int sms_decode(const vektool::Args& a) {
    std::string pdu = a[0];
    if (pdu == "-") {  // the PDU on standard input, white space around it ignored
        if (!vektool::read_input("sms decode", "-", pdu)) {
            return vektool::kFailed;
        }
        size_t b = pdu.find_first_not_of(" \t\r\n"), e = pdu.find_last_not_of(" \t\r\n");
        pdu = b == std::string::npos ? "" : pdu.substr(b, e - b + 1);
    }
    SmsMsg m;
    if (SmsPdu_dec(&m, pdu.c_str(), -1, 1) != 0) {
        return vektool::fail("sms decode", a[0], "not an SMS PDU (cut short, or its lengths do not fit)");
    }
    static const char* kTypes[] = {"deliver", "submit", "status-report"};
    bool json = a.flag("--json");
    std::string s;
    if (json) {
        s = std::string("{\"type\":\"") + kTypes[m.type] + "\",\"smsc\":" + json_text(m.smsc) + ",\"" +
            (m.type == SMS_DELIVER ? "from" : "to") + "\":" + json_text(m.addr);
        if (m.type != SMS_SUBMIT) {
            s += ",\"time\":" + json_text(iso_of(m.scts));
        }
        if (m.type == SMS_STATUS_REPORT) {
            s += ",\"reference\":" + std::to_string(m.mr) + ",\"status\":" + std::to_string(m.status) +
                 ",\"discharge\":" + json_text(iso_of(m.discharge));
        } else {
            s += ",\"coding\":\"" + std::string(m.coding == SMS_CODING_UCS2 ? "ucs2" : m.coding ? "8bit" : "7bit") +
                 "\",\"text\":" + json_text(m.text);
            if (m.ref >= 0) {
                s += ",\"ref\":" + std::to_string(m.ref) + ",\"part\":" + std::to_string(m.seq) +
                     ",\"parts\":" + std::to_string(m.total);
            }
        }
        s += "}\n";
    } else {
        s = std::string("type\t") + kTypes[m.type] + "\nsmsc\t" + m.smsc + "\n" +
            (m.type == SMS_DELIVER ? "from\t" : "to\t") + m.addr + "\n";
        if (m.type != SMS_SUBMIT) {
            s += "time\t" + iso_of(m.scts) + "\n";
        }
        if (m.type == SMS_STATUS_REPORT) {
            s += "reference\t" + std::to_string(m.mr) + "\nstatus\t" + std::to_string(m.status) + "\n";
        } else {
            if (m.ref >= 0) {
                s += "part\t" + std::to_string(m.seq) + "/" + std::to_string(m.total) + " ref " + std::to_string(m.ref) +
                     "\n";
            }
            s += std::string("text\t") + m.text + "\n";
        }
    }
    out(s);
    return vektool::kDone;
}

} // namespace atsms
