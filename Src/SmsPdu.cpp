/*
 * SmsPdu.cpp - SMS PDUs on top of the GSM fields of GsmUtil.
 *
 * The decoder reads the PDU's octets through a cursor that refuses to go
 * past the end, so a length field that lies ends in VEK_ERR_MALFORMED, never
 * in a read outside the buffer. The encoder first turns the text into
 * units (one character each: its septets, or its UTF-16 units) and then
 * cuts parts on unit boundaries, which is what keeps escape pairs and
 * surrogate pairs whole. Neither side allocates: every field has a bound
 * (a PDU is at most 176 octets, a text at most 160 characters), so the
 * work is done in fixed buffers and the caller's structures.
 */
#include <cstring>
#include "GsmUtil.h"
#include "SmsPdu.h"
#include "VekCore.h"
#include "VekEnc.h"

namespace {

struct Cursor {
    const vek_u8* p;
    vek_s32 n;
    vek_s32 at = 0;
    bool ok = true;
    bool need(vek_s32 k) {
        if (!ok || k < 0 || n - at < k) {
            ok = false;
        }
        return ok;
    }
    vek_s32 byte() { return need(1) ? p[at++] : 0; }
    const vek_u8* take(vek_s32 k) {
        if (!need(k)) {
            return nullptr;
        }
        const vek_u8* r = p + at;
        at += k;
        return r;
    }
};

// The character of a 16-bit unit in the big-endian memory form the
// alphabet functions take, on a little-endian host.
vek_u16 be_unit(vek_u32 ch) {
    return (vek_u16)(((ch >> 8) & 0xff) | ((ch & 0xff) << 8));
}

// Text written into a caller's field; `over` once it did not fit (the
// field then holds what did, NUL-terminated).
struct Out {
    char* p;
    size_t cap;  // including the NUL
    size_t n = 0;
    bool over = false;
    void put(char c) {
        if (n + 1 < cap) {
            p[n++] = c;
            p[n] = 0;
        } else {
            over = true;
        }
    }
};

void put_utf8(Out& out, vek_u32 c) {
    if (c < 0x80) {
        out.put((char)c);
    } else if (c < 0x800) {
        out.put((char)(0xc0 | (c >> 6)));
        out.put((char)(0x80 | (c & 0x3f)));
    } else if (c < 0x10000) {
        out.put((char)(0xe0 | (c >> 12)));
        out.put((char)(0x80 | ((c >> 6) & 0x3f)));
        out.put((char)(0x80 | (c & 0x3f)));
    } else {
        out.put((char)(0xf0 | (c >> 18)));
        out.put((char)(0x80 | ((c >> 12) & 0x3f)));
        out.put((char)(0x80 | ((c >> 6) & 0x3f)));
        out.put((char)(0x80 | (c & 0x3f)));
    }
}

// Next code point of UTF-8 text, or -1 for a malformed sequence.
vek_s32 next_utf8(const char* s, vek_s32 n, vek_s32* i) {
    vek_u8 b = (vek_u8)s[*i];
    vek_s32 k = b < 0x80 ? 0 : b >= 0xf0 && b < 0xf5 ? 3 : b >= 0xe0 ? 2 : b >= 0xc2 && b < 0xe0 ? 1 : -1;
    if (k < 0 || *i + k >= n) {
        return -1;
    }
    vek_u32 c = k == 0 ? b : b & (0x3f >> k);
    for (vek_s32 j = 1; j <= k; j++) {
        vek_u8 t = (vek_u8)s[*i + j];
        if ((t & 0xc0) != 0x80) {
            return -1;
        }
        c = (c << 6) | (t & 0x3f);
    }
    static const vek_u32 kMin[] = {0, 0x80, 0x800, 0x10000};
    if (c < kMin[k] || c > 0x10ffff || (c >= 0xd800 && c < 0xe000)) {
        return -1;
    }
    *i += k + 1;
    return (vek_s32)c;
}

// Septets to UTF-8: extension pairs through the library's table, the
// standard form-feed pair as form feed, an unknown pair as its second
// septet's character (as handsets show it).
void septets_to_utf8(Out& out, const vek_u8* s, vek_s32 n) {
    for (vek_s32 i = 0; i < n; i++) {
        if (s[i] == 0x1b && i + 1 < n) {
            vek_u16 u[3];
            if (s[i + 1] == 0x0a) {
                put_utf8(out, 0x0c);
            } else if (SmsAlph_from7BitStr(s + i, 2, u, 3) == 1) {
                put_utf8(out, be_unit(u[0]));
            } else {
                put_utf8(out, SmsAlph_toUcs2(s[i + 1] & 0x7f));
            }
            i++;
        } else {
            put_utf8(out, SmsAlph_toUcs2(s[i] & 0x7f));
        }
    }
}

void utf16be_to_utf8(Out& out, const vek_u8* b, vek_s32 n) {
    for (vek_s32 i = 0; i + 1 < n; i += 2) {
        vek_u32 c = (vek_u32)(b[i] << 8 | b[i + 1]);
        if (c >= 0xd800 && c < 0xdc00 && i + 3 < n) {
            vek_u32 d = (vek_u32)(b[i + 2] << 8 | b[i + 3]);
            if (d >= 0xdc00 && d < 0xe000) {
                put_utf8(out, 0x10000 + ((c - 0xd800) << 10) + (d - 0xdc00));
                i += 2;
                continue;
            }
        }
        if (c != 0) {  // padding some senders use; it would end the C text early
            put_utf8(out, c >= 0xd800 && c < 0xe000 ? 0xfffd : c);
        }
    }
}

// An address field: digits (with "+" when international) or, for an
// alphanumeric one, its packed septets as text.
bool read_addr(Cursor& c, char* out, size_t size) {
    vek_s32 digits = c.byte();
    vek_s32 toa = c.byte();
    const vek_u8* d = c.take((digits + 1) / 2);
    if (!d || digits > 40) {
        return false;
    }
    if (size == 0) {
        return false;
    }
    out[0] = 0;
    Out s{out, size};
    if ((toa & 0x70) == 0x50) {
        vek_u8 sept[48];
        vek_s32 n = GsmUtil_dec7BitStr(sept, sizeof sept, d, (digits + 1) / 2, 0);
        n = n < digits * 4 / 7 ? n : digits * 4 / 7;
        septets_to_utf8(s, sept, n);
    } else {
        if ((toa & 0x70) == 0x10) {
            s.put('+');
        }
        for (vek_s32 i = 0; i < digits; i++) {
            vek_s32 nib = (i & 1) ? d[i / 2] >> 4 : d[i / 2] & 15;
            s.put("0123456789*#abc"[nib < 15 ? nib : 0]);
        }
    }
    return !s.over;
}

bool read_time(Cursor& c, VekDt* dt) {
    const vek_u8* t = c.take(7);
    if (t) {
        GsmUtil_decObsTime(dt, t);
    }
    return t != nullptr;
}

void coding_of(SmsMsg* m) {
    vek_s32 d = m->dcs;
    vek_s32 g = d >> 4;
    if (g <= 7) {  // general data coding, with or without auto-deletion
        vek_s32 a = (d >> 2) & 3;
        m->coding = (d & 0x20) ? SMS_CODING_8BIT  // compressed: handed on as bytes
                    : a == 1   ? SMS_CODING_8BIT
                    : a == 2   ? SMS_CODING_UCS2
                               : SMS_CODING_7BIT;
    } else if (g == 0xe) {
        m->coding = SMS_CODING_UCS2;
    } else if (g == 0xf) {
        m->coding = (d & 4) ? SMS_CODING_8BIT : SMS_CODING_7BIT;
    } else {
        m->coding = SMS_CODING_7BIT;
    }
}

// The concatenation elements of a user-data header.
void read_udh(SmsMsg* m, const vek_u8* h, vek_s32 n) {
    for (vek_s32 i = 0; i + 1 < n;) {
        vek_s32 id = h[i], len = h[i + 1];
        const vek_u8* v = h + i + 2;
        if (i + 2 + len > n) {
            return;
        }
        if (id == 0x00 && len == 3 && v[1] > 0 && v[2] > 0 && v[2] <= v[1]) {
            m->ref = v[0], m->ref16 = 0, m->total = v[1], m->seq = v[2];
        } else if (id == 0x08 && len == 4 && v[2] > 0 && v[3] > 0 && v[3] <= v[2]) {
            m->ref = v[0] << 8 | v[1], m->ref16 = 1, m->total = v[2], m->seq = v[3];
        }
        i += 2 + len;
    }
}

bool read_ud(Cursor& c, SmsMsg* m, bool udhi) {
    vek_s32 udl = c.byte();
    vek_s32 octets = m->coding == SMS_CODING_7BIT ? (udl * 7 + 7) / 8 : udl;
    const vek_u8* ud = c.take(octets);
    if (!ud || octets > 140) {
        return false;
    }
    vek_s32 hdr = 0;
    if (udhi && octets > 0) {
        hdr = ud[0] + 1;
        if (hdr > octets) {
            return false;
        }
        read_udh(m, ud + 1, hdr - 1);
    }
    // 160 septets of at most 3 UTF-8 bytes each, or 70 UTF-16 units: the
    // field always has room.
    m->text[0] = 0;
    Out text{m->text, sizeof m->text};
    if (m->coding == SMS_CODING_7BIT) {
        vek_s32 skip = (hdr * 8 + 6) / 7;  // septets the header and its fill take
        vek_u8 sept[168];
        vek_s32 n = GsmUtil_dec7BitStr(sept, sizeof sept, ud, octets, 0);
        n = n < udl ? n : udl;
        if (skip > n) {
            return false;
        }
        m->dataLen = n - skip;
        std::memcpy(m->data, sept + skip, (size_t)m->dataLen);
        septets_to_utf8(text, m->data, m->dataLen);
    } else {
        m->dataLen = octets - hdr;
        std::memcpy(m->data, ud + hdr, (size_t)m->dataLen);
        if (m->coding == SMS_CODING_UCS2) {
            utf16be_to_utf8(text, m->data, m->dataLen);
        }
    }
    m->textLen = (vek_s32)text.n;
    return !text.over;
}

// ---- encoding ----

struct Unit {
    vek_u8 sept[2];  // 7-bit: the septets (1 or 2), none when it has no place there
    vek_u16 u16[2];  // UCS-2: the units (1 or 2)
    vek_s32 n7, n16;
};

// The character at *i as a unit (its septets only when want7: the
// alphabet lookup is the costly part); false for malformed UTF-8.
bool unit_at(const char* s, vek_s32 n, vek_s32* i, Unit* u, bool want7) {
    vek_s32 c = next_utf8(s, n, i);
    if (c < 0) {
        return false;
    }
    *u = Unit{};
    if (c >= 0x10000) {
        u->u16[0] = (vek_u16)(0xd800 + ((c - 0x10000) >> 10));
        u->u16[1] = (vek_u16)(0xdc00 + ((c - 0x10000) & 0x3ff));
        u->n16 = 2;
    } else {
        u->u16[0] = (vek_u16)c;
        u->n16 = 1;
    }
    vek_s32 kind = 0;
    if (want7 && c < 0x10000 && c != 0xb9 && c != 0x0c && SmsAlph_is7BitChar(be_unit((vek_u32)c), &kind)) {
        vek_u16 one = be_unit((vek_u32)c);
        vek_u8 sept[4];
        u->n7 = SmsAlph_to7BitStr(&one, 1, sept, sizeof sept);
        u->sept[0] = sept[0];
        u->sept[1] = sept[1];
    }
    return true;
}

// What every part shares.
struct Plan {
    SmsSubmit o;
    vek_u8 da[16];
    vek_s32 daLen;
    bool seven;
    vek_s32 count;
};

// One part's TPDU, from its body (septets, or UTF-16BE octets), as hex.
void put_part(SmsPart* part, const Plan& pl, vek_s32 p, const vek_u8* body, vek_s32 bodyLen) {
    static const char* kHex = "0123456789ABCDEF";
    const SmsSubmit& o = pl.o;
    bool concat = pl.count > 1;
    vek_u8 t[176];
    vek_s32 n = 0;
    t[n++] = (vek_u8)(0x01 | (o.validity >= 0 ? 0x10 : 0) | ((o.flags & SMS_SUBMIT_REPORT) ? 0x20 : 0) |
                      (concat ? 0x40 : 0));
    t[n++] = 0;  // message reference: the modem sets it
    std::memcpy(t + n, pl.da, (size_t)pl.daLen);
    n += pl.daLen;
    t[n++] = 0;  // TP-PID
    t[n++] = pl.seven ? 0x00 : 0x08;
    if (o.validity >= 0) {
        t[n++] = (vek_u8)o.validity;
    }
    vek_u8 udh[7];
    vek_s32 hn = 0;
    if (concat && (o.flags & SMS_SUBMIT_REF16)) {
        const vek_u8 h[] = {6, 0x08, 4, (vek_u8)(o.ref >> 8), (vek_u8)o.ref, (vek_u8)pl.count, (vek_u8)(p + 1)};
        std::memcpy(udh, h, hn = sizeof h);
    } else if (concat) {
        const vek_u8 h[] = {5, 0x00, 3, (vek_u8)o.ref, (vek_u8)pl.count, (vek_u8)(p + 1)};
        std::memcpy(udh, h, hn = sizeof h);
    }
    vek_s32 udlAt = n++;
    std::memcpy(t + n, udh, (size_t)hn);
    n += hn;
    if (pl.seven) {
        // The header is padded to a septet boundary; the text's septets
        // are packed after it with that fill.
        vek_s32 hdrSept = (hn * 8 + 6) / 7;
        vek_s32 fill = hdrSept * 7 - hn * 8;
        n += GsmUtil_enc7BitStr(t + n, (vek_s32)sizeof t - n, body, bodyLen, fill);
        t[udlAt] = (vek_u8)(hdrSept + bodyLen);
    } else {
        std::memcpy(t + n, body, (size_t)bodyLen);
        n += bodyLen;
        t[udlAt] = (vek_u8)(hn + bodyLen);
    }
    char* h = part->hex;
    *h++ = '0';
    *h++ = '0';
    for (vek_s32 i = 0; i < n; i++) {
        *h++ = kHex[t[i] >> 4];
        *h++ = kHex[t[i] & 15];
    }
    *h = 0;
    part->tpduLen = n;
}

// Cuts the text into parts on character boundaries; puts them when parts
// is given. Returns the number of parts.
vek_s32 cut_parts(const char* text, vek_s32 n, const Plan& pl, bool split, vek_s32 each, SmsPart* parts) {
    vek_u8 body[160];
    vek_s32 bodyLen = 0, used = 0, count = 0;
    for (vek_s32 i = 0; i < n;) {
        Unit u;
        unit_at(text, n, &i, &u, pl.seven);
        vek_s32 w = pl.seven ? u.n7 : u.n16;
        if (split && used + w > each) {
            if (parts) {
                put_part(parts + count, pl, count, body, bodyLen);
            }
            count++;
            bodyLen = used = 0;
        }
        used += w;
        if (pl.seven) {
            for (vek_s32 k = 0; k < u.n7; k++) {
                body[bodyLen++] = u.sept[k];
            }
        } else {
            for (vek_s32 k = 0; k < u.n16; k++) {
                body[bodyLen++] = (vek_u8)(u.u16[k] >> 8);
                body[bodyLen++] = (vek_u8)u.u16[k];
            }
        }
    }
    if (parts) {
        put_part(parts + count, pl, count, body, bodyLen);
    }
    return count + 1;
}

} // namespace

extern "C" {

VEK_API vek_s32 SmsPdu_dec(SmsMsg* m, const char* hex, vek_s32 len, vek_s32 withSmsc) {
    if (!m || !hex) {
        return VEK_ERR_BAD_ARG;
    }
    std::memset(m, 0, sizeof *m);
    m->mr = m->pid = m->dcs = m->status = m->ref = -1;
    vek_u8 buf[200];
    size_t hn = len < 0 ? std::strlen(hex) : (size_t)len;
    if (hn % 2 || hn / 2 > sizeof buf) {
        return VEK_ERR_MALFORMED;
    }
    for (size_t i = 0; i < hn; i++) {
        char ch = hex[i];
        bool ok = (ch >= '0' && ch <= '9') || (ch >= 'A' && ch <= 'F') || (ch >= 'a' && ch <= 'f');
        if (!ok) {
            return VEK_ERR_MALFORMED;
        }
    }
    char z[2 * sizeof buf + 1];
    std::memcpy(z, hex, hn);
    z[hn] = 0;
    vek_s32 n = ira_dec_str_to_buf(z, buf, (vek_s32)sizeof buf);
    if (n != (vek_s32)(hn / 2)) {
        return VEK_ERR_MALFORMED;
    }
    Cursor c{buf, n};
    if (withSmsc) {
        vek_s32 sl = c.byte();
        if (sl > 0) {
            const vek_u8* f = c.take(sl);
            if (!f || sl > 11) {
                return VEK_ERR_MALFORMED;
            }
            // Its length counts octets; restated in digits (an F filler
            // makes the count odd), one reader serves both kinds of field.
            vek_u8 field[12];
            field[0] = (vek_u8)((sl - 1) * 2 - (sl > 1 && (f[sl - 1] >> 4) == 0xf ? 1 : 0));
            std::memcpy(field + 1, f, (size_t)sl);
            Cursor sc{field, sl + 1};
            if (!read_addr(sc, m->smsc, sizeof m->smsc)) {
                return VEK_ERR_MALFORMED;
            }
        }
    }
    vek_s32 fo = c.byte();
    m->type = fo & 3;
    bool udhi = (fo & 0x40) != 0;
    bool ok = c.ok;
    switch (m->type) {
    case SMS_DELIVER:
        m->srr = (fo >> 5) & 1;
        ok = ok && read_addr(c, m->addr, sizeof m->addr);
        m->pid = c.byte();
        m->dcs = c.byte();
        coding_of(m);
        ok = ok && read_time(c, &m->scts) && read_ud(c, m, udhi);
        break;
    case SMS_SUBMIT: {
        m->srr = (fo >> 5) & 1;
        m->mr = c.byte();
        ok = ok && read_addr(c, m->addr, sizeof m->addr);
        m->pid = c.byte();
        m->dcs = c.byte();
        coding_of(m);
        vek_s32 vpf = (fo >> 3) & 3;
        c.take(vpf == 0 ? 0 : vpf == 2 ? 1 : 7);
        ok = ok && c.ok && read_ud(c, m, udhi);
        break;
    }
    case SMS_STATUS_REPORT:
        m->mr = c.byte();
        ok = ok && read_addr(c, m->addr, sizeof m->addr) && read_time(c, &m->scts) && read_time(c, &m->discharge);
        m->status = c.byte();
        break;
    default:
        return VEK_ERR_MALFORMED;
    }
    return ok && c.ok ? 0 : VEK_ERR_MALFORMED;
}

VEK_API vek_s32 SmsPdu_encSubmit(SmsPart* parts, vek_s32 maxParts, const char* number, const char* text,
                                 vek_s32 len, const SmsSubmit* opts) {
    if (!parts || maxParts < 1 || !number || !text) {
        return VEK_ERR_BAD_ARG;
    }
    Plan pl{};
    pl.o = opts ? *opts : SmsSubmit{0, 0, -1};
    // The destination: digits, "+" first when international.
    const char* digits = number[0] == '+' ? number + 1 : number;
    size_t nd = std::strlen(digits);
    if (nd == 0 || nd > 20 || std::strspn(digits, "0123456789") != nd) {
        return VEK_ERR_BAD_ARG;
    }
    pl.daLen = GsmUtil_encNo(pl.da, sizeof pl.da, number, 1);
    // One pass for the alphabet and the length, the cutting after it.
    vek_s32 n = len < 0 ? (vek_s32)std::strlen(text) : len;
    bool seven = true;
    vek_s32 n7 = 0, n16 = 0;
    for (vek_s32 i = 0; i < n;) {
        Unit u;
        if (!unit_at(text, n, &i, &u, seven)) {
            return VEK_ERR_BAD_ARG;
        }
        seven = seven && u.n7 > 0;
        n7 += u.n7;
        n16 += u.n16;
    }
    pl.seven = seven && !(pl.o.flags & SMS_SUBMIT_UCS2);
    bool ref16 = (pl.o.flags & SMS_SUBMIT_REF16) != 0;
    vek_s32 each = pl.seven ? (ref16 ? 152 : 153) : (ref16 ? 66 : 67);
    bool split = pl.seven ? n7 > 160 : n16 > 70;
    pl.count = cut_parts(text, n, pl, split, each, nullptr);
    if (pl.count > 255 || pl.count > maxParts) {
        return VEK_ERR_FULL;
    }
    cut_parts(text, n, pl, split, each, parts);
    return pl.count;
}

} // extern "C"
