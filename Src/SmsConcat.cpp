/*
 * SmsConcat.cpp - concatenated SMS parts joined into messages.
 *
 * Groups live in one array of at most maxGroups pointers; each group
 * keeps a copy of every part's text in its own tracked block. Every way
 * out of the array (complete, expired, pushed out, flushed) goes through
 * hand_over, which builds the joined text, calls back and frees the group,
 * so nothing is handed over twice and nothing is kept after.
 */
#include <cstring>
#include "SmsPdu.h"
#include "VekCore.h"

namespace {

struct Group {
    char from[48];
    vek_s32 ref, ref16, total, have;
    vek_u32 firstMs;
    VekDt scts;
    char* text[255];
    vek_s32 len[255];
    vek_s64 tag[255];
};

const char kGap[] = "\xE2\x80\xA6";

} // namespace

// A message handed over complete, remembered for a while so that a copy
// of one of its parts (a modem that stored it twice, a network that sent
// it again) is dropped instead of starting a new message.
struct Done {
    char from[48];
    vek_s32 ref, ref16, total;
    vek_u32 atMs;
    bool used;
};
constexpr int kDone = 64;

struct SmsConcat {
    vek_s32 maxGroups, ttlMs, count;
    SmsConcatFn fn;
    void* ctx;
    Group** groups;
    Done done[kDone];
    vek_s32 doneNext;
};

namespace {

void free_group(Group* g) {
    for (vek_s32 i = 0; i < g->total; i++) {
        vek_free__(g->text[i]);
    }
    vek_free__(g);
}

// Joins and hands over group i, then removes it (keeping the array's order:
// oldest first).
void hand_over(SmsConcat* cc, vek_s32 i) {
    Group* g = cc->groups[i];
    size_t n = 1;
    for (vek_s32 k = 0; k < g->total; k++) {
        n += g->text[k] ? (size_t)g->len[k] : sizeof kGap - 1;
    }
    char* text = (char*)vek_malloc__(n);
    vek_s64 tags[255];
    vek_s32 nt = 0;
    if (text) {
        size_t at = 0;
        for (vek_s32 k = 0; k < g->total; k++) {
            if (g->text[k]) {
                std::memcpy(text + at, g->text[k], (size_t)g->len[k]);
                at += (size_t)g->len[k];
                tags[nt++] = g->tag[k];
            } else {
                std::memcpy(text + at, kGap, sizeof kGap - 1);
                at += sizeof kGap - 1;
            }
        }
        text[at] = 0;
        SmsJoined j{g->from, &g->scts, text, (vek_s32)at, g->have == g->total, g->total, g->have, tags};
        cc->fn(cc->ctx, &j);
        vek_free__(text);
    }
    std::memmove(cc->groups + i, cc->groups + i + 1, (size_t)(cc->count - i - 1) * sizeof(Group*));
    cc->count--;
    free_group(g);
}

} // namespace

extern "C" {

VEK_API SmsConcat* SmsConcat_new(vek_s32 maxGroups, vek_s32 ttlMs, SmsConcatFn fn, void* ctx) {
    maxGroups = maxGroups ? maxGroups : 64;
    ttlMs = ttlMs ? ttlMs : 600000;
    if (!fn || maxGroups < 1 || maxGroups > 4096 || ttlMs < 0) {
        return nullptr;
    }
    SmsConcat* cc = (SmsConcat*)vek_malloc__(sizeof(SmsConcat));
    Group** groups = (Group**)vek_malloc__((size_t)maxGroups * sizeof(Group*));
    if (!cc || !groups) {
        vek_free__(cc);
        vek_free__(groups);
        return nullptr;
    }
    std::memset(cc, 0, sizeof *cc);
    cc->maxGroups = maxGroups;
    cc->ttlMs = ttlMs;
    cc->fn = fn;
    cc->ctx = ctx;
    cc->groups = groups;
    return cc;
}

VEK_API void SmsConcat_delete(SmsConcat* cc) {
    if (cc) {
        for (vek_s32 i = 0; i < cc->count; i++) {
            free_group(cc->groups[i]);
        }
        vek_free__(cc->groups);
        vek_free__(cc);
    }
}

VEK_API vek_s32 SmsConcat_add(SmsConcat* cc, const SmsMsg* m, vek_s64 tag, vek_u32 nowMs) {
    if (!cc || !m || m->type != SMS_DELIVER || (m->ref >= 0 && (m->seq < 1 || m->seq > m->total || m->total > 255))) {
        return VEK_ERR_BAD_ARG;
    }
    if (m->ref < 0 || m->total == 1) {
        SmsJoined j{m->addr, &m->scts, m->text, m->textLen, 1, 1, 1, &tag};
        cc->fn(cc->ctx, &j);
        return 1;
    }
    for (const Done& d : cc->done) {
        if (d.used && d.ref == m->ref && d.ref16 == m->ref16 && d.total == m->total &&
            nowMs - d.atMs < (vek_u32)cc->ttlMs && std::strcmp(d.from, m->addr) == 0) {
            return 2;
        }
    }
    bool pushed = false;
    vek_s32 i = 0;
    while (i < cc->count && !(cc->groups[i]->ref == m->ref && cc->groups[i]->ref16 == m->ref16 &&
                              cc->groups[i]->total == m->total && std::strcmp(cc->groups[i]->from, m->addr) == 0)) {
        i++;
    }
    if (i == cc->count) {
        Group* g = (Group*)vek_malloc__(sizeof(Group));
        if (!g) {
            return VEK_ERR_FULL;
        }
        std::memset(g, 0, sizeof *g);
        std::memcpy(g->from, m->addr, sizeof g->from);
        g->ref = m->ref;
        g->ref16 = m->ref16;
        g->total = m->total;
        g->firstMs = nowMs;
        g->scts = m->scts;
        if (cc->count == cc->maxGroups) {
            hand_over(cc, 0);  // the oldest makes room, incomplete
            i = cc->count;
            pushed = true;
        }
        cc->groups[cc->count++] = g;
    }
    Group* g = cc->groups[i];
    vek_s32 k = m->seq - 1;
    if (g->text[k]) {
        return 2;
    }
    g->text[k] = (char*)vek_malloc__((size_t)m->textLen + 1);
    if (!g->text[k]) {
        return VEK_ERR_FULL;
    }
    std::memcpy(g->text[k], m->text, (size_t)m->textLen + 1);
    g->len[k] = m->textLen;
    g->tag[k] = tag;
    g->have++;
    if (k == 0) {
        g->scts = m->scts;
    }
    if (g->have == g->total) {
        Done& d = cc->done[cc->doneNext];
        cc->doneNext = (cc->doneNext + 1) % kDone;
        std::memcpy(d.from, g->from, sizeof d.from);
        d.ref = g->ref;
        d.ref16 = g->ref16;
        d.total = g->total;
        d.atMs = nowMs;
        d.used = true;
        hand_over(cc, i);
        return 1;
    }
    return pushed ? 1 : 0;
}

VEK_API vek_s32 SmsConcat_expire(SmsConcat* cc, vek_u32 nowMs) {
    vek_s32 n = 0;
    for (vek_s32 i = 0; cc && i < cc->count;) {
        if (nowMs - cc->groups[i]->firstMs >= (vek_u32)cc->ttlMs) {
            hand_over(cc, i);
            n++;
        } else {
            i++;
        }
    }
    return n;
}

VEK_API vek_s32 SmsConcat_flush(SmsConcat* cc) {
    vek_s32 n = 0;
    while (cc && cc->count > 0) {
        hand_over(cc, 0);
        n++;
    }
    return n;
}

} // extern "C"
