/*
 * SmsPdu.h - short messages in PDU mode (3GPP TS 23.040): SMS-SUBMIT
 * encoded, SMS-DELIVER, SMS-SUBMIT and SMS-STATUS-REPORT decoded, long
 * texts split into concatenated parts. Built on the SMS fields of
 * GsmUtil.h.
 *
 * Text is UTF-8 on both sides. A text goes out in the GSM 7-bit alphabet
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

VEK_END_DECLS

#endif /* VEK_SMSPDU_H */
