/*
 * HttpServer.h - a loopback HTTP/1.0 server for the download tests, one
 * thread per connection. Paths:
 *   GET  /bytes/N      N bytes of byte_at(i), with their length
 *   GET  /slow/N       the same, 1 KiB every 20 ms (peak() counts them)
 *   GET  /stall        headers and 10 of 1000 bytes, then nothing
 *   GET  /status/N     status N with the body "status N"
 *   GET  /redirect     302 to /bytes/10
 *   POST /echo         the request's content type, a LF and its body
 */
#ifndef VEK_HTTP_SERVER_H
#define VEK_HTTP_SERVER_H

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>
#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
using sock_t = SOCKET;
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
using sock_t = int;
#define INVALID_SOCKET (-1)
#define closesocket close
#endif
#ifndef MSG_NOSIGNAL
#define MSG_NOSIGNAL 0  // Windows raises no signal for a closed peer
#endif

namespace vektest {

inline char byte_at(size_t i) {
    return (char)((i * 31 + 7) & 0xFF);
}

class HttpServer {
  public:
    HttpServer() {
#ifdef _WIN32
        WSADATA wsa;
        WSAStartup(MAKEWORD(2, 2), &wsa);
#endif
        lsn_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (bind(lsn_, (sockaddr*)&a, sizeof a) != 0 || listen(lsn_, 16) != 0 ||
            getsockname(lsn_, (sockaddr*)&a, &len) != 0) {
            return;
        }
        port_ = ntohs(a.sin_port);
        acceptor_ = std::thread([this] { accept_loop(); });
    }
    ~HttpServer() {
        stop_ = true;
#ifndef _WIN32
        shutdown(lsn_, SHUT_RDWR);  // wakes the accept, which close alone does not
#endif
        closesocket(lsn_);
        if (acceptor_.joinable()) {
            acceptor_.join();
        }
        for (auto& t : conns_) {
            t.join();
        }
    }
    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }
    /* Connections that ended (the client closed or was served). */
    int finished() const { return finished_.load(); }
    /* The most /slow bodies being sent at once (each counts until its
     * last piece goes out, so a client that starts the next transfer
     * once it has the whole body never overlaps it). */
    int peak() const { return peak_.load(); }

  private:
    void accept_loop() {
        for (;;) {
            sock_t c = accept(lsn_, nullptr, nullptr);
            if (c == INVALID_SOCKET) {
                return;
            }
            std::lock_guard<std::mutex> lk(mu_);
            conns_.emplace_back([this, c] {
                serve(c);
                closesocket(c);
                finished_++;
            });
        }
    }
    static bool send_all(sock_t c, const char* p, size_t n) {
        while (n > 0) {
            int k = (int)send(c, p, (int)n, MSG_NOSIGNAL);
            if (k <= 0) {
                return false;
            }
            p += k;
            n -= (size_t)k;
        }
        return true;
    }
    static bool reply(sock_t c, int status, const std::string& head, const std::string& body,
                      size_t length) {
        std::string h = "HTTP/1.0 " + std::to_string(status) + " X\r\nContent-Length: " + std::to_string(length) +
                        "\r\n" + head + "\r\n";
        return send_all(c, h.data(), h.size()) && send_all(c, body.data(), body.size());
    }
    static std::string pattern(size_t from, size_t n) {
        std::string s(n, '\0');
        for (size_t i = 0; i < n; i++) {
            s[i] = byte_at(from + i);
        }
        return s;
    }
    void nap(int ms) {
        for (int i = 0; i < ms && !stop_; i += 5) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    void serve(sock_t c) {
        std::string req;
        char buf[4096];
        size_t end;
        while ((end = req.find("\r\n\r\n")) == std::string::npos) {
            int k = (int)recv(c, buf, sizeof buf, 0);
            if (k <= 0) {
                return;
            }
            req.append(buf, (size_t)k);
        }
        std::string head = req.substr(0, end + 4), body = req.substr(end + 4);
        char method[8] = "", path[256] = "";
        std::sscanf(head.c_str(), "%7s %255s", method, path);
        size_t want = 0;
        std::string type;
        for (size_t p = 0; (p = head.find("\r\n", p)) != std::string::npos && p + 2 < head.size();) {
            p += 2;
            std::string line = head.substr(p, head.find("\r\n", p) - p);
            if (line.rfind("Content-Length: ", 0) == 0) {
                want = std::stoul(line.substr(16));
            } else if (line.rfind("Content-Type: ", 0) == 0) {
                type = line.substr(14);
            }
        }
        while (body.size() < want) {
            int k = (int)recv(c, buf, sizeof buf, 0);
            if (k <= 0) {
                return;
            }
            body.append(buf, (size_t)k);
        }
        std::string p = path;
        if (p.rfind("/bytes/", 0) == 0) {
            size_t n = std::stoul(p.substr(7));
            reply(c, 200, "", pattern(0, n), n);
        } else if (p.rfind("/slow/", 0) == 0) {
            size_t n = std::stoul(p.substr(6));
            reply(c, 200, "", "", n);
            int now = ++active_;
            for (int p = peak_.load(); now > p && !peak_.compare_exchange_weak(p, now);) {
            }
            for (size_t off = 0; off < n && !stop_; off += 1024) {
                std::string part = pattern(off, std::min<size_t>(1024, n - off));
                if (off + 1024 >= n) {
                    active_--;
                }
                if (!send_all(c, part.data(), part.size())) {
                    if (off + 1024 < n) {
                        active_--;
                    }
                    return;
                }
                nap(20);
            }
        } else if (p == "/stall") {
            reply(c, 200, "", pattern(0, 10), 1000);
            // Until the client gives up (its close ends the wait) or the
            // server stops.
            while (!stop_) {
                fd_set rd;
                FD_ZERO(&rd);
                FD_SET(c, &rd);
                timeval tv{0, 20000};
                if (select((int)c + 1, &rd, nullptr, nullptr, &tv) > 0 && recv(c, buf, sizeof buf, 0) <= 0) {
                    return;
                }
            }
        } else if (p.rfind("/status/", 0) == 0) {
            int st = std::stoi(p.substr(8));
            std::string b = "status " + std::to_string(st);
            reply(c, st, "", b, b.size());
        } else if (p == "/redirect") {
            reply(c, 302, "Location: /bytes/10\r\n", "", 0);
        } else if (p == "/echo" && std::string(method) == "POST") {
            std::string b = type + "\n" + body;
            reply(c, 200, "", b, b.size());
        } else {
            reply(c, 404, "", "", 0);
        }
    }

    sock_t lsn_ = INVALID_SOCKET;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> finished_{0};
    std::atomic<int> active_{0};
    std::atomic<int> peak_{0};
    std::thread acceptor_;
    std::mutex mu_;
    std::vector<std::thread> conns_;
};

} // namespace vektest

#endif
