/*
 * ModemSim.h - a modem for the tests: a thread that answers AT commands
 * at the far end of a pseudo-terminal (POSIX; the channel opens the slave
 * as a serial port) or of a loopback TCP connection (Windows), with the
 * faults real modems show.
 */
#ifndef VEK_MODEM_SIM_H
#define VEK_MODEM_SIM_H

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>
#include "VekTest.h"
#ifndef _WIN32
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>
#endif

struct SimProfile {
    bool echo = false;
    bool numeric = false;      // ATV0 answers
    int chunking = 0;          // 0 whole answers, 1 byte by byte, 2 random pieces
    bool urcBetween = false;   // "+CMTI" after every answer
    bool urcInside = false;    // "^RSSI" inside every answer of two lines or more
    bool noise = false;        // junk and NULs before every answer
    bool mute = false;         // answers nothing at all
    std::string lateCmd;       // this command is answered lateMs late (once)
    int lateMs = 0;
    std::string dropCmd;       // this command is not answered (once)
    std::string hangupCmd;     // the line goes dead inside this command's answer
    int simBusy = 0;           // the first AT+CPIN? answer SIM busy
    bool storageFull = false;  // +CMGW answers +CMS ERROR: 322
    bool external = false;     // a program of its own opens port() (the sim holds no client end)
    std::vector<std::pair<int, std::string>> store;  // index, PDU: what AT+CMGL=4 lists
};

class ModemSim {
  public:
    explicit ModemSim(const SimProfile& p) : p_(p) {
        vek_s32 err = 0;
#ifdef _WIN32
        lis_ = TcpSock_xlisten__("127.0.0.1", 0, VEK_TCP_NUMERIC, &err, __FILE__, __LINE__);
        port_ = "tcp:127.0.0.1:" + std::to_string(TcpSock_port(lis_));
        if (!p.external) {
            client_ = TcpSock_xconnect__("127.0.0.1", TcpSock_port(lis_), VEK_TCP_NUMERIC | VEK_TCP_NODELAY, 5000,
                                         &err, __FILE__, __LINE__);
            ISock_accept(lis_, &dev_, 5000);
        }
#else
        int m = posix_openpt(O_RDWR | O_NOCTTY);
        grantpt(m);
        unlockpt(m);
        port_ = ptsname(m);
        dev_ = HndSock_xcreate__(m, 1, __FILE__, __LINE__);
        if (!p.external) {
            client_ = SerSock_xopen__(port_.c_str(), nullptr, &err, __FILE__, __LINE__);
        } else {
            // Held open so that a program closing the device does not hang
            // the line up for the next one.
            hold_ = open(port_.c_str(), O_RDWR | O_NOCTTY);
        }
#endif
        EXPECT_TRUE(p.external || (dev_ && client_)) << err;
        tid_ = vektest::spawn([this] { return serve(); });
    }
    // What a program opens: the pseudo-terminal's device, or tcp:HOST:PORT.
    const std::string& port() const { return port_; }
    ~ModemSim() {
        vek_thrd_wait(tid_);
        if (client_) {
            ISock_release(client_);
        }
        if (dev_) {
            ISock_release(dev_);
        }
        if (lis_) {
            ISock_release(lis_);
        }
#ifndef _WIN32
        if (hold_ >= 0) {
            close(hold_);
        }
#endif
    }
    // The channel's end (the sim keeps its own reference).
    ISock* client() { return client_; }
    std::vector<std::pair<int, std::string>> store() {
        std::lock_guard<std::mutex> g(lk_);
        return p_.store;
    }
    std::vector<std::string> received() {
        std::lock_guard<std::mutex> g(lk_);
        return got_;
    }
    int count(const std::string& cmd) {
        int n = 0;
        for (const std::string& c : received()) {
            n += c == cmd;
        }
        return n;
    }

  private:
    void out(const std::string& s) {
        if (p_.chunking == 0) {
            ISock_write(dev_, s.data(), (vek_s32)s.size(), 5000);
            return;
        }
        for (size_t at = 0; at < s.size();) {
            size_t n = p_.chunking == 1 ? 1 : 1 + (rng_ = rng_ * 1103515245u + 12345u) % 7;
            n = std::min(n, s.size() - at);
            ISock_write(dev_, s.data() + at, (vek_s32)n, 5000);
            at += n;
        }
    }
    std::string line(const std::string& l) { return p_.numeric ? l + "\r\n" : "\r\n" + l + "\r\n"; }
    std::string final(const std::string& f) {
        if (p_.numeric && (f == "OK" || f == "ERROR")) {
            return f == "OK" ? "0\r" : "4\r";
        }
        return line(f);
    }
    void answer(std::vector<std::string> info, const std::string& fin, bool hangup) {
        std::string s = p_.noise ? std::string("\x07#~\0\0junk\r", 10) : "";
        if (p_.urcInside && info.size() >= 2) {
            info.insert(info.begin() + 1, "^RSSI: 17");
        }
        for (const std::string& l : info) {
            s += line(l);
        }
        if (hangup) {
            out(s.substr(0, s.size() / 2));
            ISock_close(dev_);
            return;
        }
        s += final(fin);
        if (p_.urcBetween) {
            s += line("+CMTI: \"SM\",1");
        }
        out(s);
    }
    bool once(std::string& which, const std::string& cmd) {
        if (!which.empty() && which == cmd) {
            which.clear();
            return true;
        }
        return false;
    }
    void command(const std::string& cmd) {
        {
            std::lock_guard<std::mutex> g(lk_);
            got_.push_back(cmd);
        }
        if (p_.mute || once(p_.dropCmd, cmd)) {
            return;
        }
        if (once(p_.lateCmd, cmd)) {
            vek_sleep((vek_u32)p_.lateMs);
        }
        bool hang = once(p_.hangupCmd, cmd);
        if (cmd == "ATE0" || cmd == "ATE1" || cmd == "ATE1V0" || cmd == "ATE1V1") {
            p_.echo = cmd[3] == '1';
            p_.numeric = cmd.size() == 6 ? cmd[5] == '0' : p_.numeric;
            answer({}, "OK", hang);
        } else if (cmd == "AT" || cmd == "AT+CMEE=1" || cmd == "AT+CMGF=0") {
            answer({}, "OK", hang);
        } else if (cmd == "AT+CPIN?") {
            if (p_.simBusy > 0) {
                p_.simBusy--;
                answer({}, "+CME ERROR: 14", hang);
            } else {
                answer({"+CPIN: READY"}, "OK", hang);
            }
        } else if (cmd == "AT+CSQ") {
            answer({"+CSQ: 20,99"}, "OK", hang);
        } else if (cmd == "AT+CREG?") {
            answer({"+CREG: 0,1"}, "OK", hang);
        } else if (cmd == "AT+SLOW") {
            answer({"+SLOW: late"}, "OK", hang);
        } else if (cmd.rfind("AT+FINAL=", 0) == 0) {
            answer({}, cmd.substr(9), hang);
        } else if (cmd == "AT+EMIT") {
            // A two-line URC inside the reply, and a line no table knows
            // right behind the final.
            answer({"Emitted", "+CMT: ,24",
                    "07911326040000F0040B911346610089F60000208062917314080CC8F71D14969741F977FD07"},
                   "OK", hang);
            out(line("^NEWURC: 5"));
        } else if (cmd == "AT+CGMI") {
            answer({"Simulated", "Modem Inc."}, "OK", hang);
        } else if (cmd == "AT+CMGL=4") {
            std::vector<std::string> l;
            for (const auto& e : p_.store) {
                l.push_back("+CMGL: " + std::to_string(e.first) + ",1,," + std::to_string(e.second.size() / 2 - 8));
                l.push_back(e.second);
            }
            answer(l, "OK", hang);
        } else if (cmd.rfind("AT+CMGD=", 0) == 0) {
            int k = std::atoi(cmd.c_str() + 8);
            bool found = false;
            std::lock_guard<std::mutex> g(lk_);
            for (size_t i = 0; i < p_.store.size(); i++) {
                if (p_.store[i].first == k) {
                    p_.store.erase(p_.store.begin() + (long)i);
                    found = true;
                    break;
                }
            }
            answer({}, found ? "OK" : "+CMS ERROR: 321", hang);
        } else if (cmd.rfind("AT+CMGS=", 0) == 0 || cmd.rfind("AT+CMGW=", 0) == 0) {
            if (cmd[6] == 'W' && p_.storageFull) {
                answer({}, "+CMS ERROR: 322", hang);
                return;
            }
            out("\r\n> ");
            pdu_ = true;
            prompted_ = cmd;
        } else {
            answer({}, "ERROR", hang);
        }
    }
    // With a listener (external, Windows) every program run is a new
    // connection: serve one after another until cancelled.
    vek_u32 serve() {
        for (;;) {
            if (p_.external && lis_) {
                if (dev_) {
                    ISock_release(dev_);
                    dev_ = nullptr;
                }
                if (ISock_accept(lis_, &dev_, -1) != 0) {
                    return 0;
                }
            }
            if (session() == VEK_ERR_ABORTED || !(p_.external && lis_)) {
                return 0;
            }
        }
    }
    vek_s32 session() {
        std::string cur;
        char buf[256];
        for (;;) {
            vek_s32 n = ISock_read(dev_, buf, sizeof buf, -1);
            if (n <= 0) {
                return n;
            }
            for (vek_s32 i = 0; i < n; i++) {
                char c = buf[i];
                if (p_.echo) {
                    ISock_write(dev_, &c, 1, 5000);
                }
                if (pdu_ && (c == 0x1a || c == 0x1b)) {
                    pdu_ = false;
                    {
                        std::lock_guard<std::mutex> g(lk_);
                        got_.push_back(cur + (c == 0x1a ? "<SUB>" : "<ESC>"));
                    }
                    cur.clear();
                    answer(c == 0x1a ? std::vector<std::string>{prompted_[6] == 'S' ? "+CMGS: 7" : "+CMGW: 3"}
                                     : std::vector<std::string>{},
                           "OK", false);
                } else if (!pdu_ && c == '\r') {
                    command(cur);
                    cur.clear();
                } else if (c != '\n') {
                    cur += c;
                }
            }
        }
    }

    SimProfile p_;
    ISock* dev_ = nullptr;
    ISock* client_ = nullptr;
    ISock* lis_ = nullptr;
    int hold_ = -1;
    std::string port_;
    vek_u32 tid_ = 0;
    std::mutex lk_;
    std::vector<std::string> got_;
    bool pdu_ = false;
    std::string prompted_;
    vek_u32 rng_ = 7;
};

#endif /* VEK_MODEM_SIM_H */
