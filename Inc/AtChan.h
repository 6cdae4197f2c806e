/*
 * AtChan.h - an AT command channel over any socket (a serial port, TCP, a
 * pseudo-terminal): commands and their replies never mixed up, unsolicited
 * result codes delivered apart, every wait cancellable.
 *
 * Threads. The channel reads the socket on a thread of its own and cuts
 * the bytes into lines (VekLex.h). A command is sent by the calling
 * thread, which then waits for the command's final result; one command
 * runs at a time (a second caller waits its turn, cancellably). URC
 * callbacks and the event callback run on the thread that made the
 * channel (its owner), through its event-receive processor (VekErp.h):
 * they run when the owner dispatches (vek_erp_run, vek_erp_disp, a
 * message-pumping wait). A command's wait does not dispatch, so a
 * callback never runs inside a command of the same thread.
 *
 * Replies. Between a command and its final result the channel keeps the
 * command's lines; a line of the URC table is a URC even in the middle of
 * a reply, unless it starts with the command's own name (the "+CREG: 0,1"
 * of "AT+CREG?"). The echo of the command is recognised and dropped.
 *
 * Time-outs and resynchronisation. A command that times out or is
 * cancelled leaves the modem's reply unaccounted for. Before the next
 * command (and in AtChan_open) the channel resynchronises: it sends
 * "ATE1V1" ("ATE1V0" with AT_CHAN_NUMERIC), then "ATE0" and takes the
 * first final result after the echo of "ATE0" as the probe's own (a late
 * reply cannot hold that echo), discarding everything before. So a late
 * reply never answers a later command; the channel works with echo off
 * afterwards, and with the result form it was made for, whatever form a
 * reset or another program left the modem in. deadAfter consecutive time-outs raise
 * AT_CHAN_EVT_NOT_ANSWERING (once per run of time-outs).
 *
 * Default time-outs come from a table of command names (the text after
 * "AT" up to "=", "?" or the end: "+COPS", "+CMGS", "D"), which the
 * caller can change: 180 s for +COPS, 60 s for +CMGS and dialling, 10 s
 * for +CPIN, 5 s otherwise.
 *
 * Results of the command calls:
 *    0 OK; 1 CONNECT (data mode follows: the socket is the caller's now);
 *   -730 ERROR; -731 NO CARRIER; -732 BUSY; -733 NO ANSWER;
 *   -734 NO DIALTONE; -735 a vendor's final error (COMMAND NOT SUPPORT ...);
 *   -736 a +CME ERROR given as a text the channel does not know;
 *   -737 a +CMS ERROR given as a text the channel does not know;
 *   VEK_AT_CME_BASE - n (-10000 - n) for "+CME ERROR: n" (also for the
 *   3GPP TS 27.007 texts the channel knows, "SIM busy" is -10014);
 *   VEK_AT_CMS_BASE - n (-20000 - n) for "+CMS ERROR: n";
 *   -5 cancelled (vek_thrd_cancel, vek_call_cancel), -12 timed out (also
 *   when resynchronisation failed), -700 / -851 / -850 the device was
 *   removed, the connection closed or the system failed (final for the
 *   channel: every later command gives it at once, and AT_CHAN_EVT_GONE
 *   is raised once), -706 a reply line longer than maxLine, -81 a bad
 *   argument, -201 out of memory.
 */
#ifndef VEK_ATCHAN_H
#define VEK_ATCHAN_H

#include "VekStr.h"
#include "VekSock.h"

VEK_BEGIN_DECLS

#define VEK_AT_CME_BASE (-10000) /* -10000 - n: "+CME ERROR: n" (n 0..9999) */
#define VEK_AT_CMS_BASE (-20000) /* -20000 - n: "+CMS ERROR: n" (n 0..9999) */
#define VEK_AT_CONNECT  1        /* a command ended in CONNECT */

/* Channel events (AtChanEvtFn). */
#define AT_CHAN_EVT_GONE          1 /* the device is gone; code: -700, -851 or -850 */
#define AT_CHAN_EVT_NOT_ANSWERING 2 /* code: the consecutive time-outs so far */

/* Options (AtChanOpts.flags). */
#define AT_CHAN_NUMERIC 0x01 /* the modem answers in the ATV0 form */

typedef struct AtChanOpts {
    vek_s32 flags;     /* AT_CHAN_* */
    vek_s32 maxLine;   /* the longest line kept; 0: 2048 */
    vek_s32 deadAfter; /* consecutive time-outs that raise NOT_ANSWERING; 0: 3 */
    vek_s32 probeTmo;  /* ms each resynchronising probe waits; 0: 1000 */
    vek_s32 simBusyMs; /* how long AtChan_open retries "SIM busy"; 0: 30000 */
} AtChanOpts;

/* line: the URC line; data: the data line of a two-line URC (+CMT,
 * +CDS), else null. Both live only during the call. */
typedef void (*AtChanUrcFn)(void* ctx, const char* line, const char* data);
typedef void (*AtChanEvtFn)(void* ctx, vek_s32 event, vek_s32 code);

typedef struct AtChan AtChan;

/* A channel over sock (it takes a reference; sock is read only by the
 * channel from now on) owned by the calling thread; null with *err (may
 * be null): -81, -201, or -51 when the reading thread did not start. */
VEK_API AtChan* AtChan_new(ISock* sock, const AtChanOpts* opts, vek_s32* err);
/* Stops the reading thread and releases the socket (null is ignored).
 * Callbacks already posted to the owner still run. No command may run. */
VEK_API void AtChan_delete(AtChan* ch);
/* URC handler for lines starting with prefix (added to the lexer's table,
 * with dataLines 0..4 data lines that follow it); prefix null: the
 * catch-all, which takes the URCs no handler takes and the unknown lines
 * that arrive while no command runs. fn null removes the handler. 0, -81,
 * -201 (the table of 32 handlers or the lexer's table is full). */
VEK_API vek_s32 AtChan_onUrc(AtChan* ch, const char* prefix, vek_s32 dataLines, AtChanUrcFn fn, void* ctx);
/* The event callback (null: none). */
VEK_API void AtChan_onEvent(AtChan* ch, AtChanEvtFn fn, void* ctx);
/* Sets the default time-out of a command name ("+COPS"; null: the default
 * of every other name) to ms (> 0). 0, -81, -201 (64 names). */
VEK_API vek_s32 AtChan_setTimeout(AtChan* ch, const char* name, vek_s32 ms);
/* The default time-out of the command line cmd ("AT+COPS=?"), in ms. */
VEK_API vek_s32 AtChan_timeout(AtChan* ch, const char* cmd);
/* Makes the channel ready: resynchronises (echo off), asks for numeric
 * +CME errors (AT+CMEE=1) and asks for the SIM (AT+CPIN?), retrying
 * "SIM busy" every 500 ms for up to simBusyMs. tmo bounds each step
 * (negative: the table's). 0, or the code of the step that failed. */
VEK_API vek_s32 AtChan_open(AtChan* ch, vek_s32 tmo);
/* Sends cmd (without the CR; at most maxLine bytes) and waits at most tmo
 * ms (negative: the table's default for the command) for its final
 * result; lines (may be null) is set to the reply's lines, each ended by
 * LF, without echo, URCs and the final. The result codes above. */
VEK_API vek_s32 AtChan_cmd(AtChan* ch, const char* cmd, VekStr* lines, vek_s32 tmo);
/* A command with a prompt (+CMGS, +CMGW): sends cmd, waits for "> ",
 * sends payload and Ctrl-Z, waits for the final result. A cancel or a
 * time-out after the prompt sends ESC, so the modem drops the message. */
VEK_API vek_s32 AtChan_cmdPrompt(AtChan* ch, const char* cmd, const char* payload, VekStr* lines, vek_s32 tmo);
/* The last command's final line ("+CME ERROR: 10"), "" when it had none;
 * valid until the next command. */
VEK_API const char* AtChan_lastFinal(AtChan* ch);
/* 1 when the channel will resynchronise before its next command. */
VEK_API vek_s32 AtChan_desynced(AtChan* ch);

VEK_END_DECLS

#endif /* VEK_ATCHAN_H */
