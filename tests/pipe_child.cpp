/*
 * The other process of the endpoint and message tests:
 *   pipe_child hold NAME        serves NAME until killed: answers each
 *                               client's text with "got:" and the text
 *   pipe_child send NAME TEXT   connects, sends TEXT, prints the answer
 *   pipe_child send-any ...     the same, talking to a server of any user
 *   pipe_child pm-echo NAME     serves one message connection at NAME:
 *                               answers each request with its own payload
 *                               (an event decoded and encoded again), ends
 *                               at a one-way message of type 0xFFFF
 *   pipe_child pm-half NAME     connects and sends 10 bytes of a frame of
 *                               100, then waits to be killed
 * Prints "ready" once it listens, and "err N" with the library's code when
 * a call fails (exit code 1).
 */
#include <cstdio>
#include <cstring>
#include <string>
#include "BaseLib.h"

namespace {

int fail(vek_s32 err) {
    std::printf("err %d\n", (int)err);
    std::fflush(stdout);
    return 1;
}

int hold(const char* name) {
    vek_s32 err = 0;
    VekPipe* srv = VekPipe_xlisten__(name, VEK_PIPE_ANY_USER, &err, __FILE__, __LINE__);
    if (!srv) {
        return fail(err);
    }
    std::printf("ready\n");
    std::fflush(stdout);
    for (;;) {
        ISock* c = nullptr;
        if (VekPipe_accept(srv, &c, nullptr, -1) < 0) {
            continue;
        }
        char b[256];
        vek_s32 n = ISock_read(c, b, sizeof b, 5000);
        if (n > 0) {
            std::string reply = "got:" + std::string(b, (size_t)n);
            ISock_write(c, reply.data(), (vek_s32)reply.size(), 5000);
        }
        ISock_release(c);
    }
}

int send(const char* name, const char* text, vek_s32 flags) {
    vek_s32 err = 0;
    ISock* s = VekPipe_xconnect__(name, flags, 5000, &err, __FILE__, __LINE__);
    if (!s) {
        return fail(err);
    }
    vek_s32 r = ISock_write(s, text, (vek_s32)std::strlen(text), 5000);
    char b[256];
    vek_s32 n = r < 0 ? r : ISock_read(s, b, sizeof b - 1, 5000);
    ISock_release(s);
    if (n < 0) {
        return fail(n);
    }
    std::printf("%.*s\n", (int)n, b);
    return 0;
}

int pm_echo(const char* name) {
    vek_s32 err = 0;
    VekPipe* srv = VekPipe_xlisten__(name, 0, &err, __FILE__, __LINE__);
    if (!srv) {
        return fail(err);
    }
    std::printf("ready\n");
    std::fflush(stdout);
    ISock* s = nullptr;
    vek_s32 r = VekPipe_accept(srv, &s, nullptr, 20000);
    PmConn* c = r < 0 ? nullptr : pm_open(s, 0, &r);
    for (PmMsg m; c && (r = pm_recv(c, &m, 20000)) == 0; pm_msg_clean(&m)) {
        if (m.kind == PM_KIND_MSG && m.type == 0xFFFF) {
            pm_msg_clean(&m);
            break;
        }
        if (m.kind == PM_KIND_REQ) {
            pm_reply(c, &m, m.type, m.data, m.len, m.evt, 5000);
        }
    }
    pm_close(c);
    if (s) {
        ISock_release(s);
    }
    VekPipe_delete(srv);
    return r < 0 ? fail(r) : 0;
}

int pm_half(const char* name) {
    vek_s32 err = 0;
    ISock* s = VekPipe_xconnect__(name, 0, 5000, &err, __FILE__, __LINE__);
    if (!s) {
        return fail(err);
    }
    const unsigned char part[10] = {100, 0, 0, 0, PM_KIND_MSG, 0, 1, 0, 0, 0};
    ISock_write(s, part, sizeof part, 5000);
    std::printf("sent\n");
    std::fflush(stdout);
    vek_sleep(60000);
    ISock_release(s);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    BaseLib_init();
    int rc = 2;
    if (argc == 3 && std::strcmp(argv[1], "hold") == 0) {
        rc = hold(argv[2]);
    } else if (argc == 4 && std::strcmp(argv[1], "send") == 0) {
        rc = send(argv[2], argv[3], 0);
    } else if (argc == 4 && std::strcmp(argv[1], "send-any") == 0) {
        rc = send(argv[2], argv[3], VEK_PIPE_ANY_USER);
    } else if (argc == 3 && std::strcmp(argv[1], "pm-echo") == 0) {
        rc = pm_echo(argv[2]);
    } else if (argc == 3 && std::strcmp(argv[1], "pm-half") == 0) {
        rc = pm_half(argv[2]);
    }
    BaseLib_exit();
    return rc;
}
