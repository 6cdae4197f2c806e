/*
 * Out of memory everywhere: one representative operation of every family
 * runs with its 1st, 2nd, 3rd, ... tracked allocation failing, until it runs
 * through without meeting the failure. For every failure point: no crash,
 * no leak, and the result is either the right one or a reported failure
 * (a negative code or a null) - never a half-built success.
 */
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>
#include "HttpServer.h"
#include "VekTest.h"

namespace {

vek_s64 live_blocks() {
    VekHeapStat st;
    return vek_heap_stat(&st) == 0 ? st.liveBlocks : -1;
}

class Faults : public VekTest {
  protected:
    // Runs op with the k-th allocation failing for k = 1, 2, ...; op gets
    // told nothing and must judge its own results. The heap's "blk" and the
    // assertions a family names for a failed allocation (allowed) are
    // expected; any other is a fault. Returns the failure points exercised.
    int sweep(const char* family, const std::function<void()>& op,
              std::initializer_list<const char*> allowed = {}) {
        bool failedBefore = HasFailure();
        for (int k = 1; k < 5000; ++k) {
            vek_s64 live = live_blocks();
            vek_heap_fail_at__(k);
            op();
            bool fired = vek_heap_fail_at__(0) != 0;
            // The heap's own report, and a memory stream's room check, which
            // is how a stream learns that its next block was not given.
            for (const char* a : {"blk", "_this->cur && _this->curOff < (int)_this->cur->size"}) {
                while (vektest::take_assert(a)) {
                }
            }
            for (const char* a : allowed) {
                while (vektest::take_assert(a)) {
                }
            }
            EXPECT_EQ(live, live_blocks()) << family << ": leak with allocation " << k << " failing";
            if (!fired) {
                std::printf("[ faults   ] %-28s %d failure points\n", family, k - 1);
                EXPECT_GT(k, 1) << family << " allocated nothing";
                return k - 1;
            }
            if (HasFailure() && !failedBefore) {
                ADD_FAILURE() << family << ": first fault with allocation " << k << " failing";
                return k;
            }
        }
        ADD_FAILURE() << family << " never ran through";
        return 0;
    }
};

// A result is right or it is an honest failure.
void expect_text(const char* got, const char* want, bool failed) {
    if (!failed) {
        EXPECT_STREQ(want, got);
    }
}

IStrm* mem_strm() {
    return MemStrm_xcreatex__(nullptr, 16, __FILE__, __LINE__);
}

void release(IStrm* s) {
    if (s) {
        IStrm_release(s);
    }
}

std::string strm_text(IStrm* s) {
    std::string out;
    IStrm_seek(s, 0, 0);
    for (vek_s32 c; (c = IStrm_getc(s)) >= 0;) {
        out += (char)c;
    }
    return out;
}

const char kIni[] = "; head\n[Net]\nhost = a.example\nport=8080\n\n[User]\nname=Ann\n";

} // namespace

// A string step either happens whole or leaves the text as it was: string
// calls report nothing, so the text itself is the evidence.
struct TextModel {
    std::string text;
    void step(const std::string& now, const std::string& piece) {
        if (now != text + piece) {
            EXPECT_EQ(text, now) << "half-applied: " << piece;
        }
        text = now;
    }
};

TEST_F(Faults, StringsAndConversions) {
    sweep("VekStr", [] {
        VekStr s, cp;
        VekStr_new(&s);
        VekStr_new(&cp);
        TextModel m;
        VekStr_setStr(&s, "id=");
        m.step(VekStr_buf(&s), "id=");
        VekStr_appdf(&s, "%d/%s/%08x", 42, "abcdefghijklmnopqrstuvwxyz0123456789", 0xBEEFu);
        m.step(VekStr_buf(&s), "42/abcdefghijklmnopqrstuvwxyz0123456789/0000beef");
        VekStr_appdWchar(&s, 0x20AC);
        m.step(VekStr_buf(&s), "\xE2\x82\xAC");
        VekStr_setCstr(&cp, &s);
        VekStr_appdChar(&cp, '!');  // unshares the copy
        TextModel c{m.text};
        c.step(VekStr_buf(&cp), "!");
        EXPECT_EQ(m.text, VekStr_buf(&s));
        str_btrim_space("  a padded text that needs a block of its own  ", -1, &cp, nullptr);
        EXPECT_TRUE(c.text == VekStr_buf(&cp) || std::strcmp(VekStr_buf(&cp), "a padded text that needs a block of its own") == 0);
        VekStr_delete(&cp);
        VekStr_delete(&s);
    });
    sweep("VekWcs and conversions", [] {
        VekWcs w;
        VekWcs_new(&w);
        VekStr s;
        VekStr_new(&s);
        TextModel m;
        vek_s32 r = utf8_str_to_wcs_cwcs("gr\xC3\xBC\xC3\x9F dich, a text that outgrows a block", &w);
        EXPECT_EQ(r, VekWcs_len(&w));
        VekWcs_appdLong(&w, -17);
        r = wcs_buf_to_utf8_cstr(VekWcs_buf(&w), VekWcs_len(&w), &s);
        EXPECT_EQ(r, VekStr_len(&s));
        m.step(VekStr_buf(&s), r ? std::string(VekStr_buf(&s)) : std::string());
        EXPECT_TRUE(r == 0 || m.text.find("-17") == m.text.size() - 3) << m.text;
        VekStr_delete(&s);
        VekWcs_delete(&w);
    });
}

TEST_F(Faults, Streams) {
    sweep("MemStrm", [] {
        IStrm* m = mem_strm();
        if (!m) {
            return;
        }
        std::string want;
        vek_s32 r = 0;
        for (int i = 0; i < 40 && r >= 0; ++i) {
            r = IStrm_printf(m, "line %d;", i);
            want += "line " + std::to_string(i) + ";";
        }
        IStrm* c = r >= 0 ? IStrm_clone(m) : nullptr;
        if (c) {
            EXPECT_EQ(want, strm_text(m));
            EXPECT_EQ(want, strm_text(c));
            IStrm_release(c);
        }
        IStrm_release(m);
    });
    sweep("StrStrm and CstrStrm", [] {
        IStrm* s = StrStrm_xcreate__(nullptr, kIni, (vek_s32)std::strlen(kIni), __FILE__, __LINE__);
        VekStr text;
        VekStr_new(&text);
        IStrm* cs = CstrStrm_xcreate__(nullptr, &text, __FILE__, __LINE__);
        if (s && cs) {
            vek_s32 r = IStrm_copy(cs, s);
            expect_text(VekStr_buf(&text), kIni, r < 0);
        }
        release(s);
        release(cs);
        VekStr_delete(&text);
    });
    std::string dir = vektest::temp_dir("faults_strm");
    std::string path = dir + "/out.bin";
    sweep("FileStrm", [&] {
        vek_s32 err = 0;
        IStrm* f = FileStrm_xcreatex__(nullptr, path.c_str(), "w+b", &err, __FILE__, __LINE__);
        if (!f) {
            return;
        }
        vek_s32 r = IStrm_write(f, kIni, (vek_s32)std::strlen(kIni));
        IStrm* c = r >= 0 ? IStrm_clone(f) : nullptr;
        if (c) {
            EXPECT_EQ(kIni, strm_text(c));
            IStrm_release(c);
        }
        IStrm_release(f);
    });
    vektest::remove_tree(dir);
}

TEST_F(Faults, ListsAndContainers) {
    sweep("list enumerators", [] {
        VekList l;
        VekList_init(&l, LIST_TWO_WAY);
        VekListNode nodes[3] = {};
        for (VekListNode& n : nodes) {
            VekList_addTail__(&l, &n);
        }
        IVekEnum* e = VekList_enums(&l);
        if (!e) {
            return;
        }
        IVekEnum* c = nullptr;
        void* item = nullptr;
        e->vtbl->next(e, &item);
        if (e->vtbl->clone(e, &c) == 0) {
            int n = 0;
            while (c->vtbl->next(c, &item) == 1) {
                n++;
            }
            EXPECT_EQ(2, n);  // from where the original stood
            c->vtbl->release(c);
        } else {
            EXPECT_EQ(nullptr, c);
        }
        e->vtbl->release(e);
    });
    sweep("CSV record", [] {
        CsvField* fields = nullptr;
        vek_s32 r = CsvUtil_read("alpha,\"be,ta\",gamma,,delta\n", nullptr, nullptr, &fields, ',');
        if (r >= 0) {
            EXPECT_EQ(5, SmpList_size(fields));
            SmpList_delete(fields, vek_free__);
        } else {
            EXPECT_EQ(nullptr, fields);
        }
    });
    sweep("PtrQue/ByteQue", [] {
        PtrQue q;
        ByteQue b;
        bool pq = PtrQue_new(&q, 2) != nullptr, bq = ByteQue_new(&b, 4) != nullptr;
        for (int i = 1; pq && i <= 20; ++i) {
            if (PtrQue_put(&q, (void*)(size_t)i) < 0) {
                break;
            }
        }
        if (bq) {
            vek_s32 r = ByteQue_puts(&b, kIni, 4);
            EXPECT_EQ(r, ByteQue_size(&b));
            ByteQue_delete(&b);
        }
        if (pq) {
            for (size_t want = 1; PtrQue_size(&q) > 0; ++want) {
                EXPECT_EQ((void*)want, PtrQue_get(&q));
            }
            PtrQue_delete(&q);
        }
    });
    sweep("vectors and stacks", [] {
        PtrVect v;
        BlkVect bv;
        PtrStack st;
        if (PtrVect_new(&v, 1)) {
            for (int i = 1; i <= 9 && PtrVect_add(&v, (void*)(size_t)i) >= 0; ++i) {
            }
            PtrVect_delete(&v);
        }
        if (BlkVect_new(&bv, 1, 12)) {
            char rec[12] = "record";
            for (int i = 0; i < 9 && BlkVect_add(&bv, rec) >= 0; ++i) {
            }
            BlkVect_delete(&bv);
        }
        if (PtrStack_new(&st, 1)) {
            for (int i = 1; i <= 9 && PtrStack_push(&st, (void*)(size_t)i) >= 0; ++i) {
            }
            PtrStack_delete(&st);
        }
    });
    sweep("IntMap/StrMap/ProtBuf", [] {
        if (IntMap* m = IntMap_new(4)) {
            IntMap_delete(m);
        }
        if (ProtBuf* pb = ProtBuf_new(64)) {
            std::memcpy(ProtBuf_put(pb, 5), "hello", 5);
            if (ProtBuf* c = ProtBuf_clone(pb)) {
                ProtBuf_delete(c);
            }
            ProtBuf_delete(pb);
        }
    }, {"pb"});
}

TEST_F(Faults, IniAndConfiguration) {
    sweep("IniFile", [] {
        vek_s32 err = 0;
        IniFile* f = IniFile_newBuf(kIni, (vek_s32)std::strlen(kIni), &err);
        if (!f) {
            EXPECT_LT(err, 0);
            return;
        }
        char* out = nullptr;
        vek_s32 r = IniFile_setStr(f, "User", "mail", "ann@example.org");
        if (r >= 0 && IniFile_outBuf(f, &out) >= 0) {
            EXPECT_NE(nullptr, std::strstr(out, "mail=ann@example.org"));
            EXPECT_NE(nullptr, std::strstr(out, "host = a.example"));
        }
        vek_free__(out);
        IniFile_delete(f);
    });
    sweep("IniUtil one-shot", [] {
        char buf[32] = "untouched";
        vek_s32 r = IniUtil_getStrStr(kIni, "net", "PORT", "none", buf, sizeof buf);
        if (r >= 0) {
            EXPECT_STREQ("8080", buf);
        }
        VekStr text;
        VekStr_new(&text);
        VekStr_setStr(&text, kIni);
        vek_s32 port = IniUtil_getCstrInt(&text, "Net", "port", -1);
        EXPECT_TRUE(port == 8080 || port == -1) << port;  // no error channel: the default
        VekStr_delete(&text);
    });
    std::string sysPath = vek_sys_rtc_file() ? vek_sys_rtc_file() : "";
    sweep("runtime configuration", [] {
        // A source is replaced whole or not at all.
        vek_rtc_set_src(VEK_RTC_SYS, nullptr, "[Old]\nk=1\n", -1);
        vek_s32 r = vek_rtc_set_src(VEK_RTC_SYS, nullptr, "[New]\nk=2\n", -1);
        EXPECT_EQ(r == 0 ? 2 : 1, vek_sys_rtc_nval(r == 0 ? "New" : "Old", "k", -1)) << r;
        vek_rtc_set_src(VEK_RTC_SYS, nullptr, nullptr, 0);
    });
    vek_rtc_set_src(VEK_RTC_SYS, sysPath.c_str(), nullptr, 0);
}

TEST_F(Faults, ThreadsAndWaits) {
    sweep("threads, events, locks", [] {
        vek_handle e = vek_evt_create__(1, 0);
        vek_handle l = vek_lock_create__(nullptr, 0);
        vek_handle n = vek_lock_create__("Global\\vektest-faults-named", 1);
        if (n) {
            vek_lock_unlock(n);
            vek_lock_close(n);
        }
        VekSem sem;
        bool semOk = VekSem_new(&sem, 4, 0) != nullptr;
        vek_u32 tid = e ? vek_thrd_create__([](void* arg) -> vek_u32 {
            vek_evt_set((vek_handle)arg);
            return 0;
        }, e, 0) : 0;
        if (tid) {
            EXPECT_EQ(0, vek_evt_wait__(e, 5000, 0));
            vek_thrd_join(tid);
        }
        if (semOk) {
            VekSem_delete(&sem);
        }
        if (l) {
            vek_lock_close(l);
        }
        if (e) {
            vek_evt_close(e);
        }
    }, {"evt", "mutex", "ret", "thrdHnd", "wname"});
}

// Timers, tasks and VekAsync: the tables grow past their first chunk and
// give it back, pools start their workers, waits make their events.
TEST_F(Faults, TimersTasksAndAsyncOperations) {
    sweep("VekTimer", [] {
        std::vector<VekTimer> ids;
        for (int i = 0; i < 1100; i++) {
            VekTimer t = VekTimer_new([](VekTimer, void*) {}, nullptr, VEK_TIMER_SVC_THRD);
            if (!t) {
                break;
            }
            ids.push_back(t);
            EXPECT_EQ(0, VekTimer_start(t, 60000, 0));
        }
        for (VekTimer t : ids) {
            EXPECT_EQ(1, VekTimer_delete(t, 0));
        }
    });
    sweep("TaskSvr", [] {
        // Every task posted has its clean-up run once, whatever failed.
        static std::atomic<int> cleaned;
        cleaned = 0;
        TaskSvr* svr = TaskSvr_new("faults", 1, 2);
        if (!svr) {
            return;
        }
        auto fn = [](void*) -> vek_s32 { return 0; };
        auto clean = [](void*, vek_s32) { cleaned++; };
        int posted = 0;
        for (int i = 0; i < 3; i++) {
            posted += TaskSvr_post(svr, fn, clean, nullptr) != 0;
        }
        VekTask later = TaskSvr_postAt(svr, 1, fn, clean, nullptr);
        posted += later != 0;
        vek_s32 r = TaskSvr_wait(later, -1);
        EXPECT_TRUE(r == 0 || r == VEK_ERR_FULL) << r;
        TaskSvr_delete(svr);
        EXPECT_EQ(posted, cleaned.load());
    }, {"ret", "evt", "thrdHnd"});
    sweep("VekAsync", [] {
        struct Op {
            IVekFunc itf;
            static vek_s32 none(IVekFunc*, const VekGuid*, void** out) {
                *out = nullptr;
                return VEK_ERR_NOT_SUPPORTED;
            }
            static vek_s32 ref(IVekFunc*) { return 1; }
            static vek_s32 call(IVekFunc*, vek_s32 arg) { return 40 + arg; }
        } op;
        static const IVekFuncVtbl vtbl = {Op::none, Op::ref, Op::ref, Op::call};
        op.itf.vtbl = &vtbl;
        vek_s32 r = vek_blk_call__(&op.itf, nullptr);
        EXPECT_TRUE(r == 40 || r == VEK_ERR_WAIT_FAILED) << r;
        TaskSvr_trim(TaskSvr_def());  // its worker is no leak
    }, {"ret", "evt", "thrdHnd"});
}

TEST_F(Faults, TimeCodecsAndEvents) {
    sweep("ISO 8601 and SMS time", [] {
        VekDt dt;
        iso_dt_dec("2026-11-23T16:05:09+01:00", &dt);
        VekStr s;
        VekStr_new(&s);
        vek_s32 r = iso_dt_enc(&s, &dt);
        EXPECT_EQ(r, VekStr_len(&s));
        expect_text(VekStr_buf(&s), "20261123T160509.0+0100", r == 0);
        VekStr_delete(&s);
    });
    sweep("codecs", [] {
        const vek_u8 data[] = "any carnal pleasure, base64 and hex";
        VekStr b64, hex, num;
        VekStr_new(&b64);
        VekStr_new(&hex);
        VekStr_new(&num);
        vek_s32 r1 = b64_enc_cstr_from_buf(&b64, data, (vek_s32)sizeof data - 1);
        vek_s32 r2 = ira_enc_cstr_from_buf(&hex, data, 4);
        const vek_u8 addr[] = {0x0B, 0x91, 0x94, 0x71, 0x12, 0x32, 0x54, 0xF6};  // 11 digits
        vek_s32 r3 = GsmUtil_getNo(&num, addr, 0);
        // The appending encoders count what they appended; the number is
        // set whole or not at all.
        EXPECT_EQ(r1, VekStr_len(&b64));
        EXPECT_EQ(r2, VekStr_len(&hex));
        expect_text(VekStr_buf(&b64), "YW55IGNhcm5hbCBwbGVhc3VyZSwgYmFzZTY0IGFuZCBoZXg=", r1 == 0);
        expect_text(VekStr_buf(&hex), "616e7920", r2 == 0);
        EXPECT_EQ(8, r3);
        expect_text(VekStr_buf(&num), "+49172123456", VekStr_len(&num) == 0);
        if (IStrm* qp = mem_strm()) {
            qp_enc_strm_from_str(qp, "caf\xC3\xA9 = cost", 76, 0);
            IStrm_release(qp);
        }
        VekStr_delete(&num);
        VekStr_delete(&hex);
        VekStr_delete(&b64);
    });
    sweep("events and packets", [] {
        IStrm* body = mem_strm();
        if (!body || IStrm_printf(body, "%s", kIni) < 0) {
            release(body);
            return;
        }
        GenEvt* e = GenEvt_newnsd(7, 3, 10, 20, "first", "second", body, 1);
        IStrm_release(body);
        if (!e) {
            return;
        }
        EXPECT_NE(nullptr, e->strm) << "an event without the stream it was given";
        vek_u32 len = 0;
        void* pkt = GenEvt_enc(e, &len);
        vektest::take_assert("0");  // the encoder's "cannot be made"
        if (pkt) {
            GenEvt* d = GenEvt_dec(pkt, len);
            if (d) {
                EXPECT_TRUE(d->num2 == 20 || d->num2 == 0);
                Evt_delete(d);
            }
            MIDL_user_free(pkt);
        }
        Evt_delete(e);
    });
}

// Event-receive processors: whichever allocation fails, every event and
// callback accepted is run or dropped exactly once (held by a pause and
// then deleted, or left queued when the thread ends), and the thread's
// queue goes with the thread.
TEST_F(Faults, EventReceiveProcessors) {
    sweep("event-receive processors", [] {
        struct Tally {
            int accepted = 0, ran = 0, dropped = 0;
        } t;
        vek_u32 tid = vek_thrd_create__([](void* p) -> vek_u32 {
            Tally* t = (Tally*)p;
            vek_erp_fn run = [](void* q) { ((Tally*)q)->ran++; };
            vek_erp_fn drop = [](void* q) { ((Tally*)q)->dropped++; };
            vek_s32 id = vek_erp_create([](void* q, void*) -> vek_s32 {
                ((Tally*)q)->ran++;
                return 0;
            }, t);
            vek_s32 self = vek_erp_self();
            if (id > 0) {
                GenEvt* e = GenEvt_new(1);
                if (e && vek_erp_post(id, e) == 0) {
                    t->accepted++;
                } else if (e) {
                    Evt_delete(e);
                }
                vek_erp_disp();
                vek_erp_pause(id);
                t->accepted += vek_erp_postf(id, run, t, drop) == 0;
                vek_erp_disp();  // held
                EXPECT_EQ(0, vek_erp_delete(id));
            }
            t->accepted += vek_thrd_acall__(al_thrd_id(), [](void* q) -> vek_s32 {
                ((Tally*)q)->ran++;
                return 0;
            }, t, drop) > 0;
            vek_erp_disp();
            if (self > 0) {
                t->accepted += vek_erp_postf(self, run, t, drop) == 0;  // left for the thread's end
            }
            return 0;
        }, &t, 0);
        if (tid) {
            vek_thrd_join(tid);
            EXPECT_EQ(t.accepted, t.ran + t.dropped);
        }
    }, {"ret", "evt", "thrdHnd"});
}

// Sockets and the streams over them: a failed allocation of a record
// leaves no descriptor or listener file behind, and a stream built is
// whole (what went in comes out through the buffer).
TEST_F(Faults, SocketsAndBufferedStreams) {
    sweep("TcpSock, SockStrm, BufStrm", [] {
        vek_s32 err;
        ISock* lis = TcpSock_xlisten__("127.0.0.1", 0, VEK_TCP_NUMERIC, &err, __FILE__, __LINE__);
        if (!lis) {
            EXPECT_EQ(VEK_ERR_FULL, err);
            return;
        }
        ISock* cli = TcpSock_xconnect__("127.0.0.1", TcpSock_port(lis), VEK_TCP_NUMERIC, 5000, &err, __FILE__,
                                        __LINE__);
        ISock* srv = nullptr;
        if (cli && ISock_accept(lis, &srv, 5000) == 0) {
            IStrm* ks = SockStrm_xcreate__(nullptr, cli, 5000, 5000, __FILE__, __LINE__);
            IStrm* b = ks ? BufStrm_xcreate__(nullptr, ks, 16, __FILE__, __LINE__) : nullptr;
            if (b) {
                EXPECT_GT(IStrm_printf(b, "line one\nline two\n"), 0);
                EXPECT_EQ(0, IStrm_flush(b));
                char got[18];
                vek_s32 n = 0;
                while (n < 18) {
                    vek_s32 r = ISock_read(srv, got + n, 18 - n, 5000);
                    ASSERT_GT(r, 0);
                    n += r;
                }
                EXPECT_EQ(0, std::memcmp(got, "line one\nline two\n", 18));
            }
            release(b);
            release(ks);
        }
        for (ISock* s : {srv, cli, lis}) {
            if (s) {
                ISock_release(s);
            }
        }
    });
}

// Endpoints and messages between processes: a failed allocation leaves no
// listener, socket file or connection behind, and a message that went
// through arrives whole or is reported lost.
TEST_F(Faults, EndpointsAndMessages) {
#ifdef _WIN32
    std::string name = "vekfault-" + std::to_string(vek_main_tid()) + "-" + std::to_string(vek_msec());
#else
    std::string dir = vektest::temp_dir("pipe_faults");
    std::string name = dir + "/f.sock";
#endif
    sweep("VekPipe, pm_*", [&] {
        vek_s32 err;
        VekPipe* srv = VekPipe_xlisten__(name.c_str(), 0, &err, __FILE__, __LINE__);
        if (!srv) {
            EXPECT_EQ(VEK_ERR_FULL, err);
            return;
        }
        PmConn* a = pm_connect(name.c_str(), 0, 5000, &err);
        ISock* s = nullptr;
        PmConn* b = nullptr;
        if (VekPipe_accept(srv, &s, nullptr, 5000) == 0) {
            b = pm_open(s, 0, &err);
            ISock_release(s);
        }
        GenEvt* e = a && b ? GenEvt_newns(3, 0, 1, 2, "x", "y") : nullptr;
        if (e && pm_send_evt(a, 1, e, 5000) == 0) {
            PmMsg m;
            vek_s32 r = pm_recv(b, &m, 5000);
            EXPECT_TRUE(r == VEK_ERR_FULL || (r == 0 && Evt_eid(m.evt) == 3)) << r;
            pm_msg_clean(&m);
        }
        if (e) {
            Evt_delete(e);
        }
        pm_close(a);
        pm_close(b);
        VekPipe_delete(srv);
    }, {"mutex", "0"});
    sweep("rpc_*", [&] {
        vek_s32 err;
        // A pool of its own, whose deletion waits for its workers to end.
        TaskSvr* pool = TaskSvr_new("rpc", 0, 2);
        if (!pool) {
            return;
        }
        RpcSvr* srv = rpc_svr_new(name.c_str(), 0, pool, [](void*, const PmMsg* req, PmMsg* rsp) -> vek_s32 {
            rsp->data = (vek_u8*)vek_malloc__(1);
            rsp->len = rsp->data ? 1 : 0;
            return req->len == 1 ? 0 : VEK_ERR_BAD_ARG;
        }, nullptr, &err);
        if (!srv) {
            EXPECT_EQ(VEK_ERR_FULL, err);
            TaskSvr_delete(pool);
            return;
        }
        PmConn* c = pm_connect(name.c_str(), 0, 5000, &err);
        PmMsg m = {};
        vek_s32 r = c ? rpc_call(c, 1, "x", 1, nullptr, &m, 5000) : 0;
        EXPECT_TRUE(r == 0 || r == VEK_ERR_FULL || r == VEK_ERR_PEER_CLOSED || r == VEK_ERR_NOT_OPEN) << r;
        pm_msg_clean(&m);
        pm_close(c);
        rpc_svr_delete(srv);
        TaskSvr_delete(pool);
    }, {"mutex", "0", "ret", "evt", "thrdHnd"});
#ifndef _WIN32
    vektest::remove_tree(dir);
#endif
}

// The device watch: a failed allocation leaves no socket or registration
// behind and says so, and a watch that opened waits like any other.
TEST_F(Faults, DeviceWatch) {
    VekDevWatch* probe = nullptr;
    if (vek_dev_watch_open(nullptr, &probe) != 0) {
        GTEST_SKIP() << "no device notifications on this system";
    }
    vek_dev_watch_close(probe);
    sweep("VekDevWatch", [] {
        VekDevWatch* w = nullptr;
        vek_s32 rc = vek_dev_watch_open(nullptr, &w);
        if (rc != 0) {
            EXPECT_EQ(VEK_ERR_FULL, rc);
            EXPECT_EQ(nullptr, w);
            return;
        }
        VekDevEvent ev;
        rc = vek_dev_watch_next(w, &ev, 0, 0);
        EXPECT_TRUE(rc == VEK_ERR_TIMEOUT || rc == 0) << rc;
        vek_dev_watch_close(w);
    });
}

// The modem channel (its lexer is made with it) over TCP: a URC, a reply,
// and a command that waits in vain. A URC lost to memory is acceptable; a
// reply is whole or its command ends with VEK_ERR_FULL.
// The owner thread's own queue lives as long as the thread: it is made
// before the fixture counts the live blocks.
class ModemFaults : public Faults {
  protected:
    void SetUp() override {
        vek_erp_self();
        Faults::SetUp();
    }
};

TEST_F(ModemFaults, ModemChannel) {
    sweep("AtChan and its VekLex", [] {
        vek_s32 err;
        ISock* lis = TcpSock_xlisten__("127.0.0.1", 0, VEK_TCP_NUMERIC, &err, __FILE__, __LINE__);
        if (!lis) {
            return;
        }
        ISock* cli = TcpSock_xconnect__("127.0.0.1", TcpSock_port(lis), VEK_TCP_NUMERIC, 5000, &err, __FILE__,
                                        __LINE__);
        ISock* srv = nullptr;
        if (cli && ISock_accept(lis, &srv, 5000) == 0) {
            AtChan* ch = AtChan_new(cli, nullptr, &err);
            if (!ch) {
                EXPECT_TRUE(err == VEK_ERR_FULL || err == VEK_ERR_NO_FREE_SLOT) << err;
            } else {
                EXPECT_EQ(ISock_write(srv, "\r\nRING\r\n", 8, 1000), 8);
                VekStr s;
                VekStr_new(&s);
                // A reply is whole or the command says memory ran out. The
                // modem's thread is a library thread: its reads wait as the
                // library's waits do (and the sweep may refuse to make it).
                vek_u32 modem = vek_thrd_create__(
                    [](void* p) -> vek_u32 {
                        char b[64];
                        vek_s32 n = ISock_read((ISock*)p, b, sizeof b, 5000);
                        if (n > 0 && std::memchr(b, 'A', (size_t)n)) {
                            ISock_write((ISock*)p, "\r\n+CSQ: 20,99\r\n\r\nOK\r\n", 21, 1000);
                        }
                        return 0;
                    },
                    srv, 0);
                vek_s32 r = modem ? AtChan_cmd(ch, "AT+CSQ", &s, 5000) : VEK_ERR_FULL;
                if (modem && r == VEK_ERR_FULL) {
                    ISock_write(cli, "\r", 1, 1000);  // the command may never have gone out
                }
                if (modem) {
                    vek_thrd_join(modem);
                }
                if (r == 0) {
                    EXPECT_STREQ(VekStr_buf(&s), "+CSQ: 20,99\n");
                } else {
                    EXPECT_EQ(r, VEK_ERR_FULL);
                }
                r = AtChan_cmd(ch, "AT+CSQ", &s, 30);
                EXPECT_TRUE(r == VEK_ERR_TIMEOUT || r == VEK_ERR_FULL) << r;
                VekStr_delete(&s);
                AtChan_delete(ch);
                vek_erp_disp();
            }
        }
        for (ISock* s : {srv, cli, lis}) {
            if (s) {
                ISock_release(s);
            }
        }
    }, {"ret", "evt", "thrdHnd"});
}

// Joining SMS parts: a part that cannot be kept is reported, and what is
// handed over is never a mix of two messages.
TEST_F(Faults, SmsParts) {
    sweep("SmsConcat", [] {
        std::string got;
        SmsConcat* cc = SmsConcat_new(1, 1000, [](void* ctx, const SmsJoined* j) { *(std::string*)ctx += j->text; }, &got);
        if (!cc) {
            return;
        }
        SmsMsg m{};
        m.type = SMS_DELIVER;
        m.ref = 9;
        m.total = 2;
        for (vek_s32 seq : {2, 1}) {
            m.seq = seq;
            m.textLen = 1;
            m.text[0] = (char)('a' + seq - 1);
            vek_s32 r = SmsConcat_add(cc, &m, seq, 0);
            EXPECT_TRUE(r >= 0 || r == VEK_ERR_FULL) << r;
        }
        SmsConcat_flush(cc);
        EXPECT_TRUE(got == "ab" || got == "a\xE2\x80\xA6" || got == "\xE2\x80\xA6" "b" || got.empty()) << got;
        SmsConcat_delete(cc);
    });
}

// Disc full and failing reads: every byte offset of a write or read fails
// once. A writer must keep the previous file and say so; a reader must
// report the failure rather than hand back part of the file as the whole.
class IoFaults : public VekTest {
  protected:
    void SetUp() override {
        VekTest::SetUp();
        dir_ = vektest::temp_dir("io_faults");
        path_ = dir_ + "/settings.ini";
    }
    void TearDown() override {
        vek_file_fail_at__(0, -1);
        vek_file_fail_at__(1, -1);
        vektest::remove_tree(dir_);
        VekTest::TearDown();
    }
    // Runs write for every failing offset until it runs through; returns
    // the offsets tried.
    int sweep_writes(const char* what, const std::function<vek_s32()>& write, const std::string& want) {
        const std::string old = "[Old]\nkeep=me\n";
        for (int k = 0;; ++k) {
            vektest::write_file(path_, old);
            vek_file_fail_at__(0, k);
            vek_s32 r = write();
            bool fired = vek_file_fail_at__(0, -1) != 0;
            std::string now = vektest::read_file(path_);
            if (!fired) {
                EXPECT_EQ(0, r) << what;
                EXPECT_EQ(want, now) << what;
                std::printf("[ faults   ] %-28s %d write offsets\n", what, k);
                return k;
            }
            EXPECT_LT(r, 0) << what << ": a failed write at byte " << k << " reported success";
            EXPECT_EQ(old, now) << what << ": the previous file was lost at byte " << k;
            if (HasFailure()) {
                return k;
            }
        }
    }
    std::string dir_, path_;
};

TEST_F(IoFaults, WritersKeepThePreviousFile) {
    vek_s32 err = 0;
    IniFile* doc = IniFile_newBuf(kIni, (vek_s32)std::strlen(kIni), &err);
    ASSERT_NE(nullptr, doc);
    // The document writes every line end as CR LF.
    std::string crlf;
    for (const char* p = kIni; *p; ++p) {
        crlf += *p == '\n' ? "\r\n" : std::string(1, *p);
    }
    sweep_writes("IniFile_outFile", [&] { return IniFile_outFile(doc, path_.c_str()); }, crlf);
    IniFile_delete(doc);
    sweep_writes("IniUtil_setFileStr", [&] { return IniUtil_setFileStr(path_.c_str(), "Old", "new", "value"); },
                 "[Old]\r\nkeep=me\r\nnew=value\r\n");
    IStrm* m = mem_strm();
    IStrm_printf(m, "%s", kIni);
    sweep_writes("IStrm_toFile", [&] { return IStrm_toFile(m, path_.c_str()); }, kIni);
    IStrm_release(m);
}

TEST_F(IoFaults, ReadsThatFailPartWayAreErrors) {
    std::string text;
    for (int i = 0; i < 300; ++i) {
        text += "key" + std::to_string(i) + "=value\n";
    }
    vektest::write_file(path_, text);
    int offsets = 0;
    for (vek_s64 k = 0;; k += 97, ++offsets) {
        vek_file_fail_at__(1, k);
        IStrm* m = mem_strm();
        vek_s32 copied = IStrm_fromFile(m, path_.c_str());
        vek_s32 err = 0;
        IStrm* f = FileStrm_xcreatex__(nullptr, path_.c_str(), "rb", &err, __FILE__, __LINE__);
        vek_s32 c = 0, got = 0;
        while ((c = IStrm_getc(f)) >= 0) {
            got++;
        }
        bool fired = vek_file_fail_at__(1, -1) != 0;
        if (!fired) {
            EXPECT_EQ(0, copied);
            EXPECT_EQ(VEK_ERR_EOF, c);
        } else {
            EXPECT_TRUE(copied < 0 || strm_text(m) == text) << k;  // not a shorter file
            EXPECT_TRUE(c == -5 || got == (vek_s32)text.size()) << k << ": " << c;
        }
        IStrm_release(f);
        IStrm_release(m);
        if (!fired || HasFailure()) {
            break;
        }
    }
    std::printf("[ faults   ] %-28s %d read offsets\n", "IStrm_fromFile, FileStrm", offsets);
}

// Identifier tables, interface collections, block chains, window and test
// streams: a failed step leaves what was there before.
TEST_F(Faults, TablesCollectionsChainsAndWindows) {
    sweep("StrId/WcsId", [] {
        StrId t;
        WcsId w;
        StrId_new(&t, STRID_NO_CASE);
        WcsId_new(&w, 0);
        for (int i = 0; i < 60; i++) {
            std::string name = "Name" + std::to_string(i);
            const vek_wchar wide[] = {(vek_wchar)('a' + i % 26), (vek_wchar)i, 0};
            if (StrId_add(&t, name.c_str(), -1) == VEK_ERR_FULL) {
                EXPECT_EQ(VEK_ERR_NOT_FOUND, StrId_find(&t, name.c_str(), -1));
            }
            WcsId_add(&w, wide, -1);
        }
        for (vek_s32 id = StrId_next(&t, 0); id; id = StrId_next(&t, id)) {
            EXPECT_EQ(id, StrId_find(&t, StrId_str(&t, id), -1));
        }
        StrId_delete(&t);
        WcsId_delete(&w);
    });
    sweep("ItfVol, EncpStrm, TestStrm", [] {
        ItfVol vol;
        ItfVol_new(&vol);
        IStrm* t = TestStrm_xcreatex__(nullptr, kIni, -1, __FILE__, __LINE__);
        IStrm* w = t ? EncpStrm_xcreatex__(nullptr, t, 7, 5, __FILE__, __LINE__) : nullptr;
        IVekEnum* e = nullptr;
        for (int i = 0; w && i < 12; i++) {
            vek_s32 before = ItfVol_count(&vol);
            if (i == 6) {
                e = ItfEnum_xcreate__(nullptr, &vol, __FILE__, __LINE__);  // later changes copy
            }
            if ((i % 4 == 3 ? ItfVol_delAt(&vol, 0) : ItfVol_add(&vol, w)) == VEK_ERR_FULL) {
                EXPECT_EQ(before, ItfVol_count(&vol));
            }
        }
        if (IStrm* c = w ? IStrm_clone(w) : nullptr) {
            EXPECT_EQ("[Net]", strm_text(c));
            IStrm_release(c);
        }
        if (e) {
            IVekEnum_release(e);
        }
        ItfVol_delete(&vol);
        release(w);
        release(t);
    });
    sweep("VekDatas", [] {
        std::string text(300, 'x');
        VekData *c = nullptr, *cp = nullptr, *back = nullptr;
        if (VekDatas_fromBuf(&c, text.data(), 300, 64) < 0) {
            EXPECT_EQ(nullptr, c);
            return;
        }
        if (VekDatas_appd(&c, text.data(), 100, 64) < 0) {
            EXPECT_EQ(300, VekDatas_len(c));  // as it was
        }
        IStrm* m = mem_strm();
        if (VekDatas_copy(&cp, c, 50) == 0 && m && VekDatas_toStrm(cp, m) == 0) {
            IStrm_seek(m, 0, 0);
            if (VekDatas_fromStrm(&back, m, -1, 32) == 0) {
                EXPECT_EQ(0, VekDatas_cmp(c, back));
            }
        }
        release(m);
        for (VekData* x : {c, cp, back}) {
            VekDatas_delete(x);
        }
    });
}

// ---- settings, XML, catalogues, UTF-8 system calls ----

TEST_F(Faults, SettingsXmlAndLanguages) {
    static const CfgIniDef defs[] = {{"Net", "Port", CFGINI_INT, "8080", 1, 65535},
                                     {"Log", "Sinks", CFGINI_LIST, "file, \"sys,log\"", 0, 0}};
    sweep("CfgIni", [] {
        vek_s32 err = 0;
        CfgIni* c = CfgIni_new(nullptr, defs, 2, &err);
        if (!c) {
            EXPECT_EQ(VEK_ERR_FULL, err);
            return;
        }
        EXPECT_EQ(8080, CfgIni_getInt(c, "Net", "Port"));  // no allocation on the way
        vek_s32 r = CfgIni_setStr(c, "Net", "Host", " a padded host name that takes a block ");
        if (r == 0) {
            char buf[64];
            vek_s32 n = CfgIni_getStr(c, "net", "host", buf, sizeof buf);
            EXPECT_TRUE(n == VEK_ERR_FULL || std::strcmp(buf, " a padded host name that takes a block ") == 0) << buf;
        } else {
            EXPECT_EQ(VEK_ERR_FULL, r);
            EXPECT_EQ(VEK_ERR_NOT_FOUND, CfgIni_source(c, "Net", "Host"));
        }
        VekStr store;
        VekStr_new(&store);
        const char* items[4];
        vek_s32 n = CfgIni_getList(c, "Log", "Sinks", &store, items, 4);
        EXPECT_TRUE(n == VEK_ERR_FULL || (n == 2 && std::strcmp(items[1], "sys,log") == 0)) << n;
        VekStr_delete(&store);
        CfgIni_delete(c);
    }, {"ret == VekStr_len(_this)"});  // the document formats a new section's header
    sweep("XmlDoc", [] {
        static const char doc[] = "<?xml version='1.0'?><dev id='7' kind='modem'><name>m &amp; n</name>"
                                  "<port>COM3</port><note>a<![CDATA[b]]>c</note></dev>";
        XmlErr err;
        XmlDoc* d = XmlDoc_parse(doc, -1, nullptr, &err);
        if (!d) {
            EXPECT_EQ(VEK_ERR_FULL, err.code);
            return;
        }
        XmlNode* root = XmlDoc_root(d);
        EXPECT_STREQ("modem", XmlNode_attr(root, "kind"));
        EXPECT_STREQ("m & n", XmlNode_find(root, "name")->text);
        EXPECT_STREQ("abc", XmlNode_find(root, "note")->text);
        XmlDoc_delete(d);
    });
    sweep("LangCat", [] {
        LangCat* cat = lang_new();
        if (!cat) {
            return;
        }
        vek_s32 r = lang_add_buf(cat, "[Main]\r\nfiles = {2} files in {1}\r\nbye=\"  Tchau \"\r\n", -1);
        VekStr out;
        VekStr_new(&out);
        if (r == 0) {
            EXPECT_STREQ("  Tchau ", lang_get(cat, "main", "BYE", "?"));
            const char* args[] = {"/tmp", "3"};
            vek_s32 n = lang_fmt(cat, &out, "Main", "files", "?", 2, args);
            EXPECT_TRUE(n != 15 || std::strcmp(VekStr_buf(&out), "3 files in /tmp") == 0);
        } else {
            EXPECT_EQ(VEK_ERR_FULL, r);
        }
        VekStr_delete(&out);
        lang_close(cat);
    });
    sweep("UTF-8 system calls", [] {
        VekStr v;
        VekStr_new(&v);
        vek_setenv_utf8("VEK_FAULT_ENV", std::string(400, 'e').c_str());
        vek_s32 n = vek_getenvx("VEK_FAULT_ENV", &v);
        EXPECT_TRUE(n == VEK_ERR_FULL || (n == 400 && VekStr_len(&v) == 400)) << n;
        vek_setenv_utf8("VEK_FAULT_ENV", nullptr);
        VekStr_delete(&v);
        vek_s32 err = 0;
        VekDir* d = vek_dir_open(".", &err);
        EXPECT_TRUE(d || err == VEK_ERR_FULL);
        vek_dir_close(d);
    });
}

TEST_F(IoFaults, SettingsSaveKeepsThePreviousFile) {
    sweep_writes("CfgIni_save", [&] {
        CfgIni* c = CfgIni_new(path_.c_str(), nullptr, 0, nullptr);
        CfgIni_setStr(c, "Old", "new", "value");
        vek_s32 r = CfgIni_save(c);
        CfgIni_delete(c);
        return r;
    }, "[Old]\r\nkeep=me\r\nnew=value\r\n");
}

// The operating system failing (vek_os_fail_at__): each service the
// platform layer uses fails once at each of its steps in turn. The caller
// gets an honest failure, nothing is left half-built or leaked, and the
// same call works again once the system does.
class OsFaults : public VekTest {
  protected:
    void TearDown() override {
        for (vek_s32 call = VEK_OS_THREAD; call <= VEK_OS_OWNER; call++) {
            vek_os_fail_at__(call, 0);
        }
        VekTest::TearDown();
    }
};

TEST_F(OsFaults, ThreadsAndNamedLocks) {
    auto entry = [](void* arg) -> vek_u32 {
        vek_evt_set((vek_handle)arg);
        return 0;
    };
    vek_handle e = vek_evt_create__(1, 0);
    vek_os_fail_at__(VEK_OS_THREAD, 1);
    EXPECT_ASSERT("thrdHnd", EXPECT_EQ(0u, vek_thrd_create__(entry, e, 0)));
    EXPECT_EQ(1, vek_os_fail_at__(VEK_OS_THREAD, 0));
    vek_u32 tid = vek_thrd_create__(entry, e, 0);
    ASSERT_NE(0u, tid);
    EXPECT_EQ(0, vek_evt_wait__(e, 5000, 0));
    vek_thrd_join(tid);
    vek_evt_close(e);

    std::string name = "Global\\vektest-osfaults-" + std::to_string(al_thrd_id());
    std::u16string wname(name.begin(), name.end());
    int steps = 0;
    for (int k = 1;; k++, steps++) {
        vek_os_fail_at__(VEK_OS_SHM, k);
        vek_handle l = vek_lock_create__(name.c_str(), 1);
        if (!vek_os_fail_at__(VEK_OS_SHM, 0)) {
            ASSERT_NE(nullptr, l);
            EXPECT_EQ(0, vek_lock_trylock__(l, 0));
            vek_lock_unlock(l);
            vek_lock_unlock(l);
            vek_lock_close(l);
            break;
        }
        vektest::take_assert("mutex");
        EXPECT_EQ(nullptr, l) << k;
        // Whatever the failed open made is gone with it.
        EXPECT_EQ(0, win_mutex_exist__((const vek_wchar*)wname.c_str())) << k;
    }
    EXPECT_GT(steps, 0);
}

TEST_F(OsFaults, CodePageTimeZoneAndFileOwner) {
    vek_wchar w[16] = {'x'};
    char a[16] = "x";
    vek_os_fail_at__(VEK_OS_CODESET, 1);
    EXPECT_EQ(0, ansi_str_to_wcs_str("abc", w, 16));
    EXPECT_EQ(0, w[0]);
    vek_os_fail_at__(VEK_OS_CODESET, 1);
    EXPECT_EQ(0, utf8_str_to_ansi_str("abc", a, 16));
    EXPECT_EQ(0, a[0]);
    EXPECT_EQ(1, vek_os_fail_at__(VEK_OS_CODESET, 0));
    EXPECT_EQ(3, ansi_str_to_wcs_str("abc", w, 16));

    // Without the local zone a time reads as unknown, a zone as UTC.
    VekDt dt;
    vek_os_fail_at__(VEK_OS_LOCALTIME, 1);
    EXPECT_EQ(0, VekDt_decTimet(&dt, 86400));
    EXPECT_EQ(VEK_DT_UNSET, dt.year);
    vek_s32 bias = -1, dbias = -1;
    vek_os_fail_at__(VEK_OS_LOCALTIME, 1);
    EXPECT_EQ(0, VekDt_isEst(&bias, &dbias));
    EXPECT_TRUE(bias == 0 && dbias == 0);
    for (int k = 1; k < 30; k++) {  // every step of the zone's search
        vek_os_fail_at__(VEK_OS_LOCALTIME, k);
        VekDt_isEst(&bias, &dbias);
        if (!vek_os_fail_at__(VEK_OS_LOCALTIME, 0)) {
            break;
        }
    }
    VekDt_getLocalTime(&dt);
    EXPECT_GE(dt.year, 2024);

    // A replacement that cannot take the original's owner is not made: the
    // file is written in place, and nothing is left beside it.
    std::string dir = vektest::temp_dir("osfaults");
    std::string path = dir + "/owned.ini";
    vektest::write_file(path, "[s]\r\nk=old\r\n");
    vek_os_fail_at__(VEK_OS_OWNER, 1);
    EXPECT_EQ(0, IniUtil_setFileStr(path.c_str(), "s", "k", "new"));
    EXPECT_EQ(1, vek_os_fail_at__(VEK_OS_OWNER, 0));
    EXPECT_EQ("[s]\r\nk=new\r\n", vektest::read_file(path));
    size_t files = 0;
    for (auto& entry : std::filesystem::directory_iterator(std::filesystem::u8path(dir))) {
        files += entry.is_regular_file();
    }
    EXPECT_EQ(1u, files);
    vektest::remove_tree(dir);
    EXPECT_EQ(VEK_ERR_BAD_ARG, vek_os_fail_at__(VEK_OS_IO + 1, 1));
}

// Trace, monitors, loadable libraries and downloads.
TEST_F(Faults, TraceMonitorsLibrariesDownloads) {
    sweep("TrcStrm", [] {
        IStrm* s = TrcStrm_xcreate__(nullptr, 10, 9, 9, __FILE__, __LINE__);
        if (s) {
            EXPECT_EQ(5, IStrm_write(s, "a\nb\nc", 5));
            IStrm_release(s);
        }
    });
    std::string dir = vektest::temp_dir("faultmon");
    sweep("FileMon", [&] {
        FileMon* mon = nullptr;
        if (FileMon_new(dir.c_str(), VEK_FILEMON_RECURSIVE, nullptr, nullptr, &mon) != 0) {
            return;
        }
        std::filesystem::create_directory(dir + "/d");
        vektest::write_file(dir + "/d/f", "x");
        VekMonEvt e;
        vek_s32 r = FileMon_read(mon, &e, 2000, 0);
        EXPECT_TRUE(r == 0 || r == VEK_ERR_FULL) << r;
        FileMon_delete(mon);
        std::filesystem::remove_all(dir + "/d");
    });
    vektest::remove_tree(dir);
    if (net_curl_load(nullptr) != 0) {
        std::printf("[ faults   ] downloads skipped: no libcurl\n");
        return;
    }
    vektest::HttpServer srv;
    std::string url = srv.url("/bytes/5000");
    sweep("net_multi_down", [&] {
        VekStr body;
        VekStr_new(&body);
        NetDown downs[2] = {};
        downs[0].url = url.c_str();
        downs[0].body = &body;
        downs[1].url = url.c_str();
        vek_s32 r = net_multi_down(downs, 2, 0, nullptr);
        EXPECT_TRUE(r == 0 || r == VEK_ERR_FULL) << r;
        if (downs[0].result == 0) {
            EXPECT_EQ(5000, VekStr_len(&body));
        }
        VekStr_delete(&body);
        TaskSvr_trim(TaskSvr_def());  // its workers are no leak
    }, {"ret", "evt", "thrdHnd"});
}
