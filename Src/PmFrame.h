/*
 * PmFrame.h - the frames of the messages between processes (internal).
 *
 * Every frame is a 12-byte head and a payload, little-endian:
 *
 *   0  u32  payload length (at most the receiver's limit)
 *   4  u8   kind: 1 one-way message, 2 request, 3 response, 4 cancel
 *           (the sender gave up waiting for its request id; no payload)
 *   5  u8   flags: bit 0 the payload is a generic event's packet; bit 1
 *           (a response alone) the request failed and the payload is its
 *           4-byte negative code; the other bits are 0
 *   6  u16  the sender's message type
 *   8  u32  id: 0 for a one-way message, a request's id (never 0) in the
 *           request and its response
 *
 * The decoder takes the byte stream in pieces of any size and hands out
 * whole frames. It checks each head before it allocates anything, so a
 * peer can make it hold at most one frame of the limit's size; the first
 * bad head or event packet ends the connection's stream for good.
 */
#ifndef VEK_PMFRAME_H
#define VEK_PMFRAME_H

#include <cstddef>
#include "VekType.h"

namespace vek {

constexpr size_t kPmHead = 12;
constexpr vek_u8 kPmFlagEvt = 0x01;
constexpr vek_u8 kPmFlagErr = 0x02;

struct PmHead {
    vek_u32 len;
    vek_u8 kind;
    vek_u8 flags;
    vek_u16 type;
    vek_u32 id;
};

void pm_head_put(vek_u8* out, const PmHead& h);

/* Whether pkt is a whole generic event's packet that GenEvt_dec decodes
 * without an assertion (VekEvt.cpp): what arrives from another process is
 * checked quietly, since a peer's damage is no programming error here. */
bool gen_evt_ok(const void* pkt, vek_u32 len);

/* A frame taken from the decoder: its head and its payload (tracked heap,
 * the taker's; null when the length is 0). */
struct PmFrame {
    PmHead head;
    vek_u8* body;
};

class PmDec {
  public:
    explicit PmDec(vek_u32 maxLen) : max_(maxLen) {}
    ~PmDec();
    PmDec(const PmDec&) = delete;
    PmDec& operator=(const PmDec&) = delete;

    /* Takes bytes from in (n of them) up to the end of the next frame:
     * 1 with *out filled when a frame is whole, 0 when all n bytes were
     * taken and the frame is not, -762 (a length beyond the limit), -763
     * (a bad head or event packet), -201 (no memory for the payload).
     * *used tells how many bytes were taken. After an error every call
     * returns it again. */
    vek_s32 feed(const vek_u8* in, size_t n, size_t* used, PmFrame* out);
    /* Whether part of a frame has been taken. */
    bool midFrame() const { return got_ > 0; }

  private:
    vek_u32 max_;
    vek_s32 err_ = 0;
    vek_u8 head_[kPmHead] = {};
    PmHead h_ = {};
    vek_u8* body_ = nullptr;
    size_t got_ = 0;  // bytes of the frame so far, the head's included
};

} // namespace vek

#endif /* VEK_PMFRAME_H */
