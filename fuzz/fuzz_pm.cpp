/*
 * The message frame decoder fed frame streams: the input's first byte
 * picks the receiver's size limit and how many bytes each socket read
 * returns, the rest is what the peer sent. Whatever arrives, the receiver
 * must hand out only whole, well-formed messages within its limit, end
 * with a code (never a hang: the stream ends), and hold no memory after.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include "BaseLib.h"

namespace {

// A socket that plays back the input, step bytes per read, then reports
// the peer closed. What is written to it goes nowhere.
struct Replay {
    ISock itf;
    const uint8_t* data;
    size_t size, pos, step;
};

Replay* self(ISock* s) {
    return (Replay*)s;
}
vek_s32 r_query(ISock*, const VekGuid*, void**) {
    return VEK_ERR_UNSUPPORTED;
}
vek_s32 r_ref(ISock*) {
    return 1;
}
vek_s32 r_read(ISock* s, void* buf, vek_s32 len, vek_s32) {
    Replay* r = self(s);
    if (r->pos >= r->size) {
        return VEK_ERR_PEER_CLOSED;
    }
    size_t n = r->size - r->pos;
    n = n < r->step ? n : r->step;
    n = n < (size_t)len ? n : (size_t)len;
    std::memcpy(buf, r->data + r->pos, n);
    r->pos += n;
    return (vek_s32)n;
}
vek_s32 r_write(ISock*, const void*, vek_s32 len, vek_s32) {
    return len;
}
vek_s32 r_accept(ISock*, ISock**, vek_s32) {
    return VEK_ERR_UNSUPPORTED;
}
vek_s32 r_tmo(ISock*, vek_s32) {
    return 0;
}
vek_s32 r_cfg(ISock*, const VekSerCfg*) {
    return VEK_ERR_UNSUPPORTED;
}
vek_s32 r_gcfg(ISock*, VekSerCfg*) {
    return VEK_ERR_UNSUPPORTED;
}
vek_s32 r_lines(ISock*, vek_s32, vek_s32) {
    return VEK_ERR_UNSUPPORTED;
}
vek_s32 r_glines(ISock*) {
    return VEK_ERR_UNSUPPORTED;
}
vek_s32 r_close(ISock*) {
    return 0;
}
vek_s64 r_native(ISock*) {
    return -1;
}
const char* r_name(ISock*) {
    return "Replay";
}
const ISockVtbl kReplayVtbl = {r_query, r_ref,  r_ref,    r_read,   r_write, r_accept, r_tmo,    r_tmo,
                               r_cfg,   r_gcfg, r_lines,  r_glines, r_tmo,   r_close,  r_native, r_name};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    Replay r = {{&kReplayVtbl}, data + 1, size - 1, 0, (size_t)(data[0] & 0x0F) * 7 + 1};
    vek_s32 maxLen = 16 << ((data[0] >> 4) & 7);
    PmConn* c = pm_open(&r.itf, maxLen, nullptr);
    if (!c) {
        return 0;
    }
    PmMsg m;
    vek_s32 res;
    // A request first when the top bit says so: what arrives while it
    // waits is kept and must come out of pm_recv afterwards.
    if (data[0] & 0x80) {
        res = pm_request(c, 1, "q", 1, nullptr, &m, 1000);
        if (res == 0 && (m.kind != PM_KIND_RSP || m.len > maxLen)) {
            std::abort();
        }
        pm_msg_clean(&m);
    }
    // -201 is final here: more than 64 messages arrived while the request
    // waited (no allocation fails in this run, so no event is lost).
    while ((res = pm_recv(c, &m, 1000)) == 0) {
        bool ok = (m.kind == PM_KIND_MSG) == (m.id == 0) && m.kind != PM_KIND_RSP && m.len >= 0 &&
                  m.len <= maxLen && m.type <= 0xFFFF && !(m.evt && m.data) &&
                  (m.kind != PM_KIND_CANCEL || (m.len == 0 && !m.evt));
        if (!ok) {
            std::abort();
        }
        pm_msg_clean(&m);
    }
    if (res != VEK_ERR_PEER_CLOSED && res != VEK_ERR_BAD_FRAME && res != VEK_ERR_FRAME_TOO_BIG && res != VEK_ERR_FULL) {
        std::abort();
    }
    pm_close(c);
    return 0;
}
