/*
 * SmsTrack.cpp - status reports matched to the parts sent.
 *
 * The parts sent sit in a ring, newest last; a report is matched by
 * searching from the newest back, which is what makes a reused reference
 * find the part that used it last. A part's status is kept in its entry;
 * a message is done when every one of its parts still in the ring has a
 * final status (a part already pushed out of the ring counts as unknown,
 * so such a message is never reported done).
 */
#include <cstring>
#include "SmsPdu.h"
#include "VekCore.h"

namespace {

struct Sent {
    vek_s64 msgId;
    vek_s32 part, parts, mr, status;  // status -1: no report yet
    char to[48];
};

bool final_status(vek_s32 st) {
    return st >= 0 && (st < 0x20 || st >= 0x40);
}

// Numbers compared by their digits, so "+4670..." and "004670..." or a
// national form that differs only by its prefix ("0708...") still match:
// leading zeros (international and trunk prefixes) are dropped, and the
// shorter one must end the longer one, with at least 6 digits in common.
bool same_number(const char* a, const char* b) {
    char da[48], db[48];
    size_t na = 0, nb = 0;
    for (; *a && na < sizeof da; a++) {
        if (*a >= '0' && *a <= '9' && (na > 0 || *a != '0')) {
            da[na++] = *a;
        }
    }
    for (; *b && nb < sizeof db; b++) {
        if (*b >= '0' && *b <= '9' && (nb > 0 || *b != '0')) {
            db[nb++] = *b;
        }
    }
    size_t n = na < nb ? na : nb;
    if (n == 0) {
        return na == nb;
    }
    return (n >= 6 || na == nb) && std::memcmp(da + na - n, db + nb - n, n) == 0;
}

} // namespace

struct SmsTrack {
    vek_s32 max, count, next;
    Sent* ring;
};

extern "C" {

VEK_API SmsTrack* SmsTrack_new(vek_s32 maxEntries) {
    maxEntries = maxEntries ? maxEntries : 1024;
    if (maxEntries < 1 || maxEntries > 65536) {
        return nullptr;
    }
    SmsTrack* tr = (SmsTrack*)vek_malloc__(sizeof(SmsTrack));
    Sent* ring = (Sent*)vek_malloc__((size_t)maxEntries * sizeof(Sent));
    if (!tr || !ring) {
        vek_free__(tr);
        vek_free__(ring);
        return nullptr;
    }
    *tr = SmsTrack{maxEntries, 0, 0, ring};
    return tr;
}

VEK_API void SmsTrack_delete(SmsTrack* tr) {
    if (tr) {
        vek_free__(tr->ring);
        vek_free__(tr);
    }
}

VEK_API vek_s32 SmsTrack_sent(SmsTrack* tr, vek_s64 msgId, vek_s32 part, vek_s32 parts, vek_s32 mr, const char* to) {
    if (!tr || !to || parts < 1 || parts > 255 || part < 1 || part > parts || mr < 0 || mr > 255 ||
        std::strlen(to) >= sizeof(Sent::to)) {
        return VEK_ERR_BAD_ARG;
    }
    Sent& s = tr->ring[tr->next];
    s = Sent{msgId, part, parts, mr, -1, {}};
    std::strcpy(s.to, to);
    tr->next = (tr->next + 1) % tr->max;
    tr->count += tr->count < tr->max;
    return 0;
}

VEK_API vek_s32 SmsTrack_report(SmsTrack* tr, const SmsMsg* r, SmsTrackHit* hit) {
    if (!tr || !r || !hit || r->type != SMS_STATUS_REPORT) {
        return VEK_ERR_BAD_ARG;
    }
    for (vek_s32 k = 1; k <= tr->count; k++) {
        Sent& s = tr->ring[(tr->next - k + tr->max) % tr->max];
        if (s.mr != r->mr || !same_number(s.to, r->addr)) {
            continue;
        }
        s.status = r->status;
        *hit = SmsTrackHit{s.msgId, s.part, s.parts, r->status, 0, 0};
        vek_s32 finals = 0;
        for (vek_s32 j = 0; j < tr->count; j++) {
            const Sent& o = tr->ring[j];
            if (o.msgId == s.msgId && final_status(o.status)) {
                finals++;
                hit->failed += o.status >= 0x40;
            }
        }
        hit->done = finals == s.parts;
        return 1;
    }
    return 0;
}

} // extern "C"
