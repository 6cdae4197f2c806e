/* Every public header compiles as C99 and links against the library. */
#include "BaseLib.h"
#include <stdio.h>
#include <string.h>

/* Timers and tasks: a task posted for later starts a timer from its worker.
   The timer's thread reports through an event, the one hand-over that both
   threads synchronise on. */
static void on_timer(VekTimer timer, void* ctx) {
    (void)timer;
    vek_evt_set(*(vek_handle*)ctx);
}

static vek_s32 start_timer(void* ctx) {
    return vek_timer_start(1, 0, on_timer, ctx, VEK_TIMER_SVC_THRD) ? 0 : -1;
}

static int timers_and_tasks(void) {
    vek_handle fired;
    VekTask task;
    int rc;
    BaseLib_init();
    fired = vek_evt_create__(1, 0);
    task = TaskSvr_postAt(TaskSvr_def(), 1, start_timer, NULL, &fired);
    rc = !task || TaskSvr_wait(task, -1) != 0 ||
         vek_evt_swait__(fired, 10000, VEK_WAIT_FORBID_ABORT) != 0;
    vek_evt_close(fired);
    BaseLib_exit();
    return rc;
}

int main(void) {
    TinyStr ts;
    char buf[32];
    VekHeapStat st;
    VekStr vs;
    void* p;
    vek_handle evt;
    VekDt dt;
    PtrQue que;
    ProtBuf* pb;
    CsvField* fields = NULL;
    char b64[8];
    TinyStr_new(&ts);
    TinyStr_appdf(&ts, "%d+%d", 1, 2);
    vek_snprintf(buf, sizeof buf, "%s", TinyStr_buf(&ts));
    TinyStr_delete(&ts);
    evt = vek_evt_create__(1, 0);
    vek_evt_set(evt);
    if (vek_evt_swait__(evt, 0, VEK_WAIT_FORBID_ABORT) != 0) {
        return 1;
    }
    vek_evt_close(evt);
    VekStr_new(&vs);
    VekStr_appdf(&vs, "%s", buf);
    if (VekStr_len(&vs) != 3) {
        return 1;
    }
    /* "20120822T101530.0Z": the fraction bit comes with the seconds */
    if (!iso_dt_dec("2012-08-22T10:15:30Z", &dt) || iso_dt_enc(&vs, &dt) != 18) {
        return 1;
    }
    VekStr_delete(&vs);
    PtrQue_new(&que, 2);
    pb = ProtBuf_new(8);
    if (PtrQue_put(&que, pb) != 1 || PtrQue_get(&que) != pb || ProtBuf_put(pb, 8) == NULL) {
        return 1;
    }
    ProtBuf_delete(pb);
    PtrQue_delete(&que);
    {
        GenEvt* ge = GenEvt_newns(7, 1, 2, 3, "a", "b");
        vek_u32 n = 0;
        void* pkt = GenEvt_enc(ge, &n);
        Evt_delete(ge);
        ge = GenEvt_dec(pkt, n);
        MIDL_user_free(pkt);
        if (Evt_eid(ge) != 7 || strcmp(VekStr_buf(&ge->str2), "b") != 0) {
            return 1;
        }
        Evt_delete(ge);
    }
    p = vek_malloc__(16);
    vek_free__(p);
    if (vek_heap_stat(&st) != 0 || strcmp(buf, "1+2") != 0 || vek_glb_hnd() == 0) {
        return 1;
    }
    /* A CSV record is freed with the simple list's own call. */
    if (CsvUtil_read("a,b\r\n", NULL, NULL, &fields, ',') != 1 || SmpList_size(fields) != 2) {
        return 1;
    }
    SmpList_delete(fields, vek_free__);
    if (b64_enc_buf_from_buf(b64, sizeof b64, (const vek_u8*)"foo", 3) != 4 || strcmp(b64, "Zm9v") != 0) {
        return 1;
    }
    /* Endpoints by logical name: a name with a space is refused. */
    {
        char addr[64];
        if (VekPipe_addr("no such", addr, (vek_s32)sizeof addr) != VEK_ERR_BAD_ARG) {
            return 1;
        }
    }
    /* Addresses, URLs, identifier tables, collections, chains, windows. */
    {
        VekIpAddr ip;
        VekUrl url;
        StrId ids;
        ItfVol vol;
        VekData* chain = NULL;
        IStrm* mem = TestStrm_xcreatex__(NULL, "0123", -1, __FILE__, __LINE__);
        IStrm* win = EncpStrm_xcreatex__(NULL, mem, 2, 1, __FILE__, __LINE__);
        StrId_new(&ids, STRID_NO_CASE);
        ItfVol_new(&vol);
        if (ip_str_to_addr("::1", -1, &ip) != 0 || vek_url_split("http://[::1]:80/", -1, &url) != 0 ||
            StrId_add(&ids, "Host", -1) != StrId_find(&ids, "HOST", 4) || ItfVol_add(&vol, win) != 0 ||
            VekDatas_fromStrm(&chain, win, -1, 0) != 0 || VekDatas_len(chain) != 1) {
            return 1;
        }
        VekDatas_delete(chain);
        StrId_delete(&ids);
        ItfVol_delete(&vol);
        IStrm_release(win);
        IStrm_release(mem);
    }
    /* Before BaseLib_init no thread has an event-receive queue. */
    if (vek_erp_disp() != 0) {
        return 1;
    }
    /* trace call sites and the library manager from C */
    {
        CmLib* lib = NULL;
        int i = 0;
        VEK_TRACE(10, 9, 9, "never %d", ++i);
        if (i != 0 || cm_load("no-such-library-at-all", &lib) != VEK_ERR_NO_LIBRARY || lib != NULL) {
            return 1;
        }
    }
    if (timers_and_tasks() != 0) {
        return 1;
    }
    /* a tree from the XML decoder, a setting, a message */
    {
        XmlErr xe;
        XmlDoc* xd = XmlDoc_parse("<a k='v'><b>t</b></a>", -1, NULL, &xe);
        CfgIniDef def = {"S", "n", CFGINI_INT, "5", 0, 9};
        CfgIni* cfg = CfgIni_new(NULL, &def, 1, NULL);
        VekStr msg;
        const char* args[1] = {"x"};
        if (!xd || strcmp(XmlNode_find(XmlDoc_root(xd), "b")->text, "t") != 0 || CfgIni_getInt(cfg, "S", "n") != 5) {
            return 1;
        }
        XmlDoc_delete(xd);
        CfgIni_delete(cfg);
        VekStr_new(&msg);
        if (lang_fmt_str(&msg, "<{1}>", 1, args) != 3) {
            return 1;
        }
        VekStr_delete(&msg);
    }
    /* a modem reply cut into tokens */
    {
        VekLex* lex = VekLex_new(0, 0);
        VekLexTok tok;
        if (!lex || VekLex_feed(lex, "+CME ERROR: 14\r\n", 16, &tok) != 15 || tok.kind != VEK_LEX_CME || tok.code != 14) {
            return 1;
        }
        VekLex_delete(lex);
    }
    /* a published SMS-SUBMIT */
    {
        SmsMsg sms;
        if (SmsPdu_dec(&sms, "0011000B916407281553F80000AA0AE8329BFD4697D9EC37", -1, 1) != 0 ||
            strcmp(sms.text, "hellohello") != 0) {
            return 1;
        }
    }
    printf("c99 ok %s\n", vek_version());
    return 0;
}
