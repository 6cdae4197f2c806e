/*
 * PmFrame.cpp - the frame decoder of PmFrame.h: a head is gathered and
 * checked first, then exactly its payload; nothing beyond the frame is
 * taken, so the caller's buffer keeps the next frame's bytes.
 */
#include <cstring>
#include "PmFrame.h"
#include "VekCore.h"

namespace {

constexpr vek_u8 kKindMsg = 1;
constexpr vek_u8 kKindRsp = 3;
constexpr vek_u8 kKindCancel = 4;

vek_u32 get32(const vek_u8* p) {
    return (vek_u32)p[0] | (vek_u32)p[1] << 8 | (vek_u32)p[2] << 16 | (vek_u32)p[3] << 24;
}

void put32(vek_u8* p, vek_u32 v) {
    p[0] = (vek_u8)v;
    p[1] = (vek_u8)(v >> 8);
    p[2] = (vek_u8)(v >> 16);
    p[3] = (vek_u8)(v >> 24);
}

/* 0, or why the head cannot start a frame. */
vek_s32 check_head(const vek::PmHead& h, vek_u32 max) {
    if (h.kind < kKindMsg || h.kind > kKindCancel || (h.flags & ~(vek::kPmFlagEvt | vek::kPmFlagErr)) != 0 ||
        (h.kind == kKindMsg) != (h.id == 0)) {
        return VEK_ERR_BAD_FRAME;
    }
    // A cancel names its request and carries nothing; an error answer is
    // exactly its code.
    if ((h.kind == kKindCancel && (h.len != 0 || h.flags != 0)) ||
        ((h.flags & vek::kPmFlagErr) && (h.kind != kKindRsp || h.len != 4 || h.flags != vek::kPmFlagErr))) {
        return VEK_ERR_BAD_FRAME;
    }
    if (h.len > max) {
        return VEK_ERR_FRAME_TOO_BIG;
    }
    // An event is at least a packet's headers, in 8-byte steps.
    if ((h.flags & vek::kPmFlagEvt) && (h.len == 0 || h.len % 8 != 0)) {
        return VEK_ERR_BAD_FRAME;
    }
    return 0;
}

} // namespace

namespace vek {

void pm_head_put(vek_u8* out, const PmHead& h) {
    put32(out, h.len);
    out[4] = h.kind;
    out[5] = h.flags;
    out[6] = (vek_u8)h.type;
    out[7] = (vek_u8)(h.type >> 8);
    put32(out + 8, h.id);
}

PmDec::~PmDec() {
    vek_free__(body_);
}

vek_s32 PmDec::feed(const vek_u8* in, size_t n, size_t* used, PmFrame* out) {
    *used = 0;
    if (err_ < 0) {
        return err_;
    }
    if (got_ < kPmHead) {
        size_t take = kPmHead - got_ < n ? kPmHead - got_ : n;
        std::memcpy(head_ + got_, in, take);
        got_ += take;
        *used = take;
        if (got_ < kPmHead) {
            return 0;
        }
        h_.len = get32(head_);
        h_.kind = head_[4];
        h_.flags = head_[5];
        h_.type = (vek_u16)(head_[6] | head_[7] << 8);
        h_.id = get32(head_ + 8);
        if ((err_ = check_head(h_, max_)) < 0) {
            return err_;
        }
        if (h_.len > 0 && !(body_ = (vek_u8*)vek_malloc__(h_.len))) {
            return err_ = VEK_ERR_FULL;
        }
    }
    size_t have = got_ - kPmHead;
    size_t take = h_.len - have < n - *used ? h_.len - have : n - *used;
    if (take > 0) {
        std::memcpy(body_ + have, in + *used, take);
        got_ += take;
        *used += take;
    }
    if (got_ - kPmHead < h_.len) {
        return 0;
    }
    if ((h_.flags & kPmFlagEvt) && !gen_evt_ok(body_, h_.len)) {
        return err_ = VEK_ERR_BAD_FRAME;
    }
    out->head = h_;
    out->body = body_;
    body_ = nullptr;
    got_ = 0;
    return 1;
}

} // namespace vek
