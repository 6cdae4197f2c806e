/*
 * SmsPdu.h - short messages in PDU mode (3GPP TS 23.040): SMS-SUBMIT
 * encoded, SMS-DELIVER, SMS-SUBMIT and SMS-STATUS-REPORT decoded, long
 * texts split into concatenated parts. Built on the SMS fields of
 * GsmUtil.h.
 *
 * Text is UTF-8 on both sides (a U+0000 a sender used as padding is
 * left out of a decoded text, which stays one C string). A text goes out in the GSM 7-bit alphabet
 * (with its extension table: "{}[]~|\^€" take two septets) when every
 * character has a place there, else in UCS-2 (UTF-16: characters beyond
 * U+FFFF as surrogate pairs). Two characters the library's alphabet table
 * places differently from the handsets (U+00B9 on the escape code, form
 * feed) are sent in UCS-2, so no handset misreads them.
 *
 * Splitting: a text that does not fit one message (160 septets or 70
 * UCS-2 units) is cut into parts with a concatenation header (8-bit
 * reference: 153 septets or 67 units a part; 16-bit reference: 152 or
 * 66), never between the two septets of an extension character nor
 * between the two units of a surrogate pair. At most 255 parts.
 *
 * PDUs are hex text as AT+CMGS takes them and +CMGL/+CMGR/+CMT give
 * them, starting with the service-centre field.
 *
 * Results: 0 or a count; VEK_ERR_MALFORMED (-820) for a PDU that is cut
 * short or breaks its own lengths; -81 for a bad argument (a number that
 * is not digits with an optional "+", no room); -201 for a text that
 * needs more than 255 parts or the room given.
 */
#ifndef VEK_SMSPDU_H
#define VEK_SMSPDU_H

#include "VekType.h"
#include "VekTime.h"

VEK_BEGIN_DECLS

/* Message types (TP-MTI). */
#define SMS_DELIVER       0
#define SMS_SUBMIT        1
#define SMS_STATUS_REPORT 2

/* Codings (from TP-DCS). */
#define SMS_CODING_7BIT 0
#define SMS_CODING_8BIT 1
#define SMS_CODING_UCS2 2

typedef struct SmsMsg {
    vek_s32 type;          /* SMS_DELIVER, SMS_SUBMIT, SMS_STATUS_REPORT */
    char smsc[24];         /* service centre, "" when the PDU names none */
    char addr[48];         /* originator (DELIVER), destination (SUBMIT),
                              recipient (STATUS-REPORT); "+" when international;
                              an alphanumeric sender as UTF-8 text */
    vek_s32 mr;            /* message reference (SUBMIT, STATUS-REPORT), else -1 */
    vek_s32 pid;           /* TP-PID, -1 when absent */
    vek_s32 dcs;           /* TP-DCS, -1 when absent */
    vek_s32 coding;        /* SMS_CODING_* */
    vek_s32 srr;           /* status report requested (SUBMIT) or indicated (DELIVER) */
    vek_s32 status;        /* TP-ST (STATUS-REPORT), else -1 */
    VekDt scts;            /* service-centre time stamp (DELIVER, STATUS-REPORT) */
    VekDt discharge;       /* discharge time (STATUS-REPORT) */
    /* concatenation: ref -1 when the message is whole */
    vek_s32 ref;           /* the reference of the parts */
    vek_s32 ref16;         /* 1 for a 16-bit reference */
    vek_s32 total;         /* the parts in all, 1..255 */
    vek_s32 seq;           /* this part, 1..total */
    /* the user data after the header: UTF-8 text (7-bit, UCS-2), and the
     * bytes (8-bit data; the septets of 7-bit; the UCS-2 bytes) */
    char text[704];        /* NUL-terminated */
    vek_s32 textLen;
    vek_u8 data[160];
    vek_s32 dataLen;
} SmsMsg;

/* Decodes a PDU (hex; len bytes, negative: NUL-terminated). withSmsc 0:
 * the PDU starts with the first octet (no service-centre field). 0 and
 * *msg filled, or -820 (*msg then holds what was read before the fault). */
VEK_API vek_s32 SmsPdu_dec(SmsMsg* msg, const char* hex, vek_s32 len, vek_s32 withSmsc);

/* SMS-SUBMIT options. */
#define SMS_SUBMIT_UCS2   0x01 /* UCS-2 even when 7-bit would do */
#define SMS_SUBMIT_REPORT 0x02 /* ask for a status report */
#define SMS_SUBMIT_REF16  0x04 /* a 16-bit concatenation reference */
typedef struct SmsSubmit {
    vek_s32 flags;        /* SMS_SUBMIT_* */
    vek_s32 ref;          /* concatenation reference (8 or 16 bits) */
    vek_s32 validity;     /* relative validity as TP-VP (0..255), -1 for none */
} SmsSubmit;

/* One encoded part: the PDU in hex (service-centre field "00": the modem's
 * own) and the length AT+CMGS wants (octets after the service-centre field). */
typedef struct SmsPart {
    char hex[2 * 176 + 1];
    vek_s32 tpduLen;
} SmsPart;

/* Encodes text (UTF-8, len bytes, negative: NUL-terminated) to number as
 * SMS-SUBMIT parts (opts null: 7-bit when possible, no report, reference
 * 0, no validity), at most maxParts into parts. The number of parts, or
 * -81 (bad number, text not UTF-8), -201 (more parts than maxParts or
 * 255). An empty text is one empty message. */
VEK_API vek_s32 SmsPdu_encSubmit(SmsPart* parts, vek_s32 maxParts, const char* number, const char* text,
                                 vek_s32 len, const SmsSubmit* opts);

/* ---- joining concatenated parts ----
 * Parts are grouped by sender, reference (8- or 16-bit) and part count;
 * they may come in any order, a part seen twice is dropped, a message
 * whose parts all arrived is handed to the callback at once (a message
 * without a concatenation header right away). A group still missing
 * parts ttlMs after its first part (SmsConcat_expire), or pushed out
 * because maxGroups are held (the oldest goes), or left at
 * SmsConcat_flush, is handed over incomplete: each missing part shows as
 * "\xE2\x80\xA6" (U+2026) in its text and complete is 0. Memory is
 * bounded by maxGroups groups of at most 255 parts. The callback runs on
 * the calling thread, inside the call that completed the group. */
typedef struct SmsJoined {
    const char* from;      /* the sender */
    const VekDt* scts;     /* the time stamp of part 1, else of the part that came first */
    const char* text;      /* the parts' texts in order, UTF-8, terminated */
    vek_s32 textLen;
    vek_s32 complete;      /* 1 when every part arrived */
    vek_s32 total;         /* parts in all (1 for a whole message) */
    vek_s32 have;          /* parts that arrived */
    const vek_s64* tags;   /* the tags given with the parts that arrived, in part order */
} SmsJoined;
typedef void (*SmsConcatFn)(void* ctx, const SmsJoined* msg);
typedef struct SmsConcat SmsConcat;

/* maxGroups 1..4096 (0: 64), ttlMs > 0 (0: 10 minutes); fn not null.
 * null without memory or for a bad argument. */
VEK_API SmsConcat* SmsConcat_new(vek_s32 maxGroups, vek_s32 ttlMs, SmsConcatFn fn, void* ctx);
/* Frees the groups still held without handing them over (null ignored). */
VEK_API void SmsConcat_delete(SmsConcat* cc);
/* Adds a decoded SMS-DELIVER (tag: the caller's, such as the storage
 * index); nowMs is the caller's clock (vek_msec). 1 when a message was
 * handed over, 0 when the part is held, 2 when it was a duplicate, -81
 * for a part that is not a DELIVER, -201 out of memory. */
VEK_API vek_s32 SmsConcat_add(SmsConcat* cc, const SmsMsg* part, vek_s64 tag, vek_u32 nowMs);
/* Hands over the groups older than ttlMs: their count. */
VEK_API vek_s32 SmsConcat_expire(SmsConcat* cc, vek_u32 nowMs);
/* Hands over every group held: their count. */
VEK_API vek_s32 SmsConcat_flush(SmsConcat* cc);

/* ---- status reports matched to what was sent ----
 * The modem gives each part it sends a message reference (TP-MR, 0..255,
 * printed by +CMGS); a status report carries that reference and the
 * recipient. SmsTrack remembers the parts sent (at most maxEntries, the
 * oldest forgotten first) and matches each report to its message and
 * part: a reference is reused after 256 messages, so the latest part sent
 * to the same recipient with that reference is the one meant. */
typedef struct SmsTrack SmsTrack;
typedef struct SmsTrackHit {
    vek_s64 msgId;      /* the caller's id of the message */
    vek_s32 part;       /* 1..parts */
    vek_s32 parts;
    vek_s32 status;     /* TP-ST of this report: 0..31 delivered, 32..63 still trying, 64.. failed */
    vek_s32 done;       /* 1 when every part of the message has a final status */
    vek_s32 failed;     /* parts that failed for good */
} SmsTrackHit;
/* maxEntries 1..65536 (0: 1024); null without memory. */
VEK_API SmsTrack* SmsTrack_new(vek_s32 maxEntries);
VEK_API void SmsTrack_delete(SmsTrack* tr);  /* null is ignored */
/* Records part (1..parts) of message msgId, sent to `to` with reference
 * mr (0..255): 0, or -81. */
VEK_API vek_s32 SmsTrack_sent(SmsTrack* tr, vek_s64 msgId, vek_s32 part, vek_s32 parts, vek_s32 mr, const char* to);
/* Matches a decoded SMS-STATUS-REPORT: 1 with *hit filled, 0 when no part
 * sent matches (forgotten, or not ours), -81 when report is not one. */
VEK_API vek_s32 SmsTrack_report(SmsTrack* tr, const SmsMsg* report, SmsTrackHit* hit);

VEK_END_DECLS

#endif /* VEK_SMSPDU_H */
