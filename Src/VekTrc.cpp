/*
 * VekTrc.cpp - the trace manager (where records go) and the debug manager
 * (which records pass).
 *
 * Records are built with TinyStr and the OS layer's allocator, never with
 * the tracked heap, because the heap monitor writes its own reports through
 * here.
 *
 * Locks, always taken in this order: the sink lock (g_trc.lock: the file,
 * its buffer, the time cache), then the ring's mutex. The listener has a
 * lock of its own so that a slow file never delays it. A thread that
 * writes to the ring never holds the sink lock, and the writer thread takes
 * the sink lock before it takes records out of the ring, so records reach
 * the file in the order they were queued whoever drains the ring.
 */
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include "AlPlat.h"
#include "IniFile.h"
#include "VekCore.h"
#include "VekStr.h"

extern "C" {
/* The configuration generation: even, never 0 (see VekTrcSite). */
VEK_API vek_u32 vek_trc_gen = 2;
}

namespace {

enum TrcType { kTrcNone = 0, kTrcSys = 1, kTrcFile = 2 };
constexpr vek_s32 kMaxBufQue = 10000;
constexpr vek_s32 kMaxAsyncQue = 65536;
constexpr vek_s32 kFileBufSize = 64 * 1024;
constexpr vek_s32 kDefFlushLev = 1;
constexpr vek_s32 kDefFlushMs = 100;
/* The level vek_printf's unfiltered records count as: they carry the
 * library's own reports, which must reach the file at once. */
constexpr vek_s32 kUnfilteredLevel = 1;

/* A lock made on first use: records may be written before the trace
 * manager starts (and after it stops). */
struct LazyLock {
    AlMutex mutex;
    AlAtom ready;
    void lock() {
        if (AlAtom_get(&ready) != 2) {
            if (AlAtom_sget(&ready, 1) == 0) {
                AlMutex_new(&mutex);
                AlAtom_set(&ready, 2);
            } else {
                while (AlAtom_get(&ready) != 2) {
                    al_sleep(0);
                }
            }
        }
        AlMutex_lock(&mutex);
    }
    // Gives up after about ms milliseconds: the fault path must not hang on
    // a lock that a crashed thread holds.
    bool lock_for(vek_s32 ms) {
        if (AlAtom_get(&ready) != 2) {
            lock();
            return true;
        }
        for (vek_s32 i = 0; i <= ms; i++) {
            if (AlMutex_trylock(&mutex)) {
                return true;
            }
            al_sleep(1);
        }
        return false;
    }
    void unlock() { AlMutex_unlock(&mutex); }
};

struct TrcState {
    vek_s32 type;  // read without the lock: atomic access
    char fileName[1024];
    vek_s32 holdConn;
    vek_s32 bufQueSize;
    vek_s32 holding;
    vek_s32 flushLev;
    vek_s32 flushMs;
    vek_s32 asyncQue;   // from the configuration, applied by trc_async_start
    vek_s32 asyncFull;
    AlFile* file;       // open while holding
    char* fbuf;         // the held file's buffer (al_malloc), kFileBufSize
    vek_s32 fbufLen;
    vek_s64 cachedSec;  // the time prefix below is for this second
    char timeHead[32];  // "YYYY-MM-DD HH:MM:SS."
    LazyLock lock;
    LazyLock sinkLock;
    vek_trc_sink sink;  // atomic access
    void* sinkCtx;
};
TrcState g_trc = [] {
    TrcState s{};
    s.flushLev = kDefFlushLev;
    s.flushMs = kDefFlushMs;
    s.asyncFull = VEK_TRC_DROP_NEW;
    s.cachedSec = -1;
    return s;
}();

/* Set while a thread writes trace output: the fault path must not touch
 * half-written buffers of its own thread. */
thread_local vek_s32 t_inTrace;

/* Milliseconds when the held file's buffer received its first unflushed
 * record; 0 when it is clean. */
std::atomic<vek_s64> g_dirtySince{0};

vek_s32 trc_type() {
    return __atomic_load_n(&g_trc.type, __ATOMIC_ACQUIRE);
}

vek_trc_sink trc_sink() {
    return __atomic_load_n(&g_trc.sink, __ATOMIC_ACQUIRE);
}

/* A new configuration generation: every call site decides again. */
void gen_bump() {
    vek_u32 g = __atomic_load_n(&vek_trc_gen, __ATOMIC_RELAXED);
    vek_u32 n;
    do {
        n = g + 2u;
        if (n == 0) {
            n = 2;
        }
    } while (!__atomic_compare_exchange_n(&vek_trc_gen, &g, n, true, __ATOMIC_RELEASE,
                                          __ATOMIC_RELAXED));
}

// ---- writing records (under the sink lock) ----

/* One record as it is written: its time, thread, level and text. */
struct RecView {
    vek_s64 ms;
    vek_u32 tid;
    vek_s32 level;
    const char* text;
    vek_s32 len;
};

char* put_num(char* p, vek_u32 v, vek_s32 digits) {
    for (vek_s32 i = digits - 1; i >= 0; i--) {
        p[i] = (char)('0' + v % 10);
        v /= 10;
    }
    return p + digits;
}

/* "<date> <time>.<ms> [<tid>] " into head (at least 64 bytes); the date
 * and time part is formatted once a second. Returns the length. */
vek_s32 format_head(char* head, vek_s64 ms, vek_u32 tid) {
    vek_s64 sec = ms / 1000;
    if (sec != g_trc.cachedSec) {
        std::tm tm{};
        plat::local_tm((time_t)sec, &tm);
        vek_snprintf(g_trc.timeHead, sizeof g_trc.timeHead, "%04d-%02d-%02d %02d:%02d:%02d.",
                     tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
        g_trc.cachedSec = sec;
    }
    vek_s32 n = (vek_s32)std::strlen(g_trc.timeHead);
    std::memcpy(head, g_trc.timeHead, (size_t)n);
    char* p = put_num(head + n, (vek_u32)(ms % 1000), 3);
    *p++ = ' ';
    *p++ = '[';
    char digits[12];
    vek_s32 k = 0;
    do {
        digits[k++] = (char)('0' + tid % 10);
        tid /= 10;
    } while (tid);
    while (k) {
        *p++ = digits[--k];
    }
    *p++ = ']';
    *p++ = ' ';
    return (vek_s32)(p - head);
}

void fbuf_flush() {
    if (g_trc.file && g_trc.fbufLen > 0) {
        AlFile_write(g_trc.file, g_trc.fbuf, g_trc.fbufLen);
        g_trc.fbufLen = 0;
    }
    if (g_trc.file) {
        AlFile_flush(g_trc.file);
    }
    g_dirtySince.store(0, std::memory_order_relaxed);
}

void fbuf_put(const char* data, vek_s32 len) {
    if (g_trc.fbufLen + len > kFileBufSize) {
        AlFile_write(g_trc.file, g_trc.fbuf, g_trc.fbufLen);
        g_trc.fbufLen = 0;
        if (len > kFileBufSize) {
            AlFile_write(g_trc.file, data, len);
            return;
        }
    }
    std::memcpy(g_trc.fbuf + g_trc.fbufLen, data, (size_t)len);
    g_trc.fbufLen += len;
}

/* Writes text with CR LF line ends through put. */
template <class Put>
void put_crlf(const char* text, vek_s32 len, Put put) {
    vek_s32 start = 0;
    for (vek_s32 i = 0; i < len; i++) {
        if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) {
            if (i > start) {
                put(text + start, i - start);
            }
            put("\r\n", 2);
            start = i + 1;
        }
    }
    if (len > start) {
        put(text + start, len - start);
    }
}

struct Writer;
Writer* g_writer;  // the writer thread, set and cleared under the sink lock
void notify_writer();

/* Writes records to the configured sink. An unheld trace file is opened
 * once for the batch. */
void write_records(const RecView* recs, vek_s32 n) {
    vek_s32 type = trc_type();
    if (type == kTrcNone || n <= 0) {
        return;
    }
    char head[64];
    if (type == kTrcSys) {
        for (vek_s32 i = 0; i < n; i++) {
            const RecView& r = recs[i];
            vek_s32 hl = format_head(head, r.ms, r.tid);
            TinyStr t;
            TinyStr_newx(&t, hl + r.len + 2);
            TinyStr_appdStrx(&t, head, hl);
            TinyStr_appdStrx(&t, r.text, r.len);
            TinyStr_appdChar(&t, '\n');
            plat::debug_output(TinyStr_buf(&t));
            TinyStr_delete(&t);
        }
        return;
    }
    if (g_trc.file && g_trc.fbuf) {
        bool flush = false;
        for (vek_s32 i = 0; i < n; i++) {
            const RecView& r = recs[i];
            fbuf_put(head, format_head(head, r.ms, r.tid));
            put_crlf(r.text, r.len, fbuf_put);
            fbuf_put("\r\n", 2);
            flush = flush || r.level <= g_trc.flushLev;
        }
        if (flush || g_trc.flushMs <= 0 || !g_writer) {
            fbuf_flush();
        } else if (g_dirtySince.load(std::memory_order_relaxed) == 0) {
            g_dirtySince.store(plat::wall_msec(), std::memory_order_relaxed);
            notify_writer();
        }
        return;
    }
    AlFile* f = AlFile_open(g_trc.fileName, "ab");
    if (!f) {
        return;
    }
    auto put = [f](const char* d, vek_s32 l) { AlFile_write(f, d, l); };
    for (vek_s32 i = 0; i < n; i++) {
        const RecView& r = recs[i];
        put(head, format_head(head, r.ms, r.tid));
        put_crlf(r.text, r.len, put);
        put("\r\n", 2);
    }
    AlFile_close(f);
}

// ---- the asynchronous ring ----

/* One queued record: short texts live in the slot, longer ones in a block
 * of their own (al_malloc). */
struct Slot {
    vek_s64 ms;
    vek_u32 tid;
    vek_s32 level;
    vek_s32 len;
    char* big;
    char inl[224];
    const char* text() const { return big ? big : inl; }
};

/* The ring and the writer thread. The writer also flushes the held file's
 * buffer flushMs after it became dirty, so it runs while the file is held
 * even without a ring. */
struct Writer {
    std::mutex mu;
    std::condition_variable wake;     // records queued, dirty buffer, stop
    std::condition_variable room;     // a slot became free (Block policy)
    Slot* slots = nullptr;            // capacity slots, null: no ring
    vek_s32 capacity = 0;
    vek_s32 policy = VEK_TRC_DROP_NEW;
    vek_s32 head = 0;                 // oldest queued slot
    vek_s32 count = 0;
    vek_s64 dropped = 0;              // in total
    vek_s64 unreported = 0;           // dropped since the last report
    bool stop = false;
    std::thread thread;
};
std::atomic<Writer*> g_ring{nullptr};  // g_writer while it has a ring
std::atomic<vek_s64> g_droppedTotal{0};

void notify_writer() {
    if (Writer* w = g_writer) {
        std::lock_guard<std::mutex> lk(w->mu);
        w->wake.notify_one();
    }
}

void slot_free(Slot& s) {
    al_free(s.big);
    s.big = nullptr;
}

/* Queues a record; false when it could not be queued (the ring is gone). */
bool ring_push(Writer* w, vek_s32 level, const char* text, vek_s32 len) {
    std::unique_lock<std::mutex> lk(w->mu);
    if (!w->slots) {
        return false;
    }
    if (w->count == w->capacity) {
        if (w->policy == VEK_TRC_BLOCK) {
            w->room.wait(lk, [w] { return !w->slots || w->count < w->capacity; });
            if (!w->slots) {
                return false;
            }
        } else if (w->policy == VEK_TRC_DROP_NEW) {
            w->dropped++;
            w->unreported++;
            g_droppedTotal.fetch_add(1, std::memory_order_relaxed);
            return true;
        } else {
            slot_free(w->slots[w->head]);
            w->head = (w->head + 1) % w->capacity;
            w->count--;
            w->dropped++;
            w->unreported++;
            g_droppedTotal.fetch_add(1, std::memory_order_relaxed);
        }
    }
    Slot& s = w->slots[(w->head + w->count) % w->capacity];
    s.ms = plat::wall_msec();
    s.tid = al_thrd_id();
    s.level = level;
    s.len = len;
    s.big = nullptr;
    if (len >= (vek_s32)sizeof s.inl) {
        s.big = (char*)al_malloc((size_t)len + 1);
        if (!s.big) {
            s.len = len = (vek_s32)sizeof s.inl - 1;  // keep what fits
        }
    }
    std::memcpy(s.big ? s.big : s.inl, text, (size_t)len);
    bool wasEmpty = w->count == 0;
    w->count++;
    if (wasEmpty) {
        w->wake.notify_one();
    }
    return true;
}

/* Writes every queued record (and a drop report) to the sink. The caller
 * holds the sink lock; ringLockMs bounds the wait for the ring's mutex
 * (negative: no bound). */
void ring_drain(Writer* w, vek_s32 ringLockMs) {
    constexpr vek_s32 kBatch = 32;
    Slot batch[kBatch];
    for (;;) {
        std::unique_lock<std::mutex> lk(w->mu, std::defer_lock);
        if (ringLockMs < 0) {
            lk.lock();
        } else {
            vek_s32 waited = 0;
            while (!lk.try_lock()) {
                if (waited++ >= ringLockMs) {
                    return;
                }
                al_sleep(1);
            }
        }
        vek_s32 n = 0;
        while (n < kBatch && w->count > 0) {
            batch[n++] = w->slots[w->head];
            w->slots[w->head].big = nullptr;
            w->head = (w->head + 1) % w->capacity;
            w->count--;
        }
        vek_s64 lost = w->unreported;
        w->unreported = 0;
        if (n > 0) {
            w->room.notify_all();
        }
        lk.unlock();
        if (lost > 0) {
            char text[96];
            vek_s32 len = vek_snprintf(text, sizeof text, "VekTrc: %lld records dropped, ring full",
                                       (long long)lost);
            RecView r{plat::wall_msec(), al_thrd_id(), kUnfilteredLevel, text, len};
            write_records(&r, 1);
        }
        RecView views[kBatch];
        for (vek_s32 i = 0; i < n; i++) {
            views[i] = RecView{batch[i].ms, batch[i].tid, batch[i].level, batch[i].text(), batch[i].len};
        }
        write_records(views, n);
        for (vek_s32 i = 0; i < n; i++) {
            slot_free(batch[i]);
        }
        if (n < kBatch && lost == 0) {
            return;
        }
    }
}

void writer_main(Writer* w) {
    std::unique_lock<std::mutex> lk(w->mu);
    for (;;) {
        if (w->count > 0 || w->unreported > 0) {
            lk.unlock();
            g_trc.lock.lock();
            t_inTrace++;
            ring_drain(w, -1);
            // Idle: what was written reaches the file now.
            if (g_dirtySince.load(std::memory_order_relaxed) != 0) {
                fbuf_flush();
            }
            t_inTrace--;
            g_trc.lock.unlock();
            lk.lock();
            continue;
        }
        if (w->stop) {
            return;
        }
        vek_s64 since = g_dirtySince.load(std::memory_order_relaxed);
        if (since == 0) {
            w->wake.wait(lk);
            continue;
        }
        vek_s64 due = since + g_trc.flushMs - plat::wall_msec();
        if (due > 0) {
            w->wake.wait_for(lk, std::chrono::milliseconds(due));
            continue;
        }
        lk.unlock();
        g_trc.lock.lock();
        fbuf_flush();
        g_trc.lock.unlock();
        lk.lock();
    }
}

/* Starts the writer thread (under the sink lock); false when it cannot. */
bool writer_start() {
    if (g_writer) {
        return true;
    }
    void* mem = al_malloc(sizeof(Writer));
    if (!mem) {
        return false;
    }
    Writer* w = new (mem) Writer();
    try {
        w->thread = std::thread(writer_main, w);
    } catch (...) {
        w->~Writer();
        al_free(mem);
        return false;
    }
    g_writer = w;
    return true;
}

/* Removes the ring; what it holds is written first. New records go to
 * the sink at once from the moment the ring is unpublished; a record that
 * was being queued then is still caught by the drain loop. Under the sink
 * lock. */
void ring_remove(Writer* w) {
    g_ring.store(nullptr, std::memory_order_release);
    for (;;) {
        ring_drain(w, -1);
        std::lock_guard<std::mutex> lk(w->mu);
        if (w->count == 0 && w->unreported == 0) {
            al_free(w->slots);
            w->slots = nullptr;
            w->capacity = w->head = 0;
            w->room.notify_all();
            return;
        }
    }
}

/* Stops the writer thread. The caller holds the sink lock once; it is let
 * go while the thread is waited for, since the thread may be waiting for
 * it. join false leaves the thread to end alone (the library is being
 * unloaded and the system may not let the thread run to its end). */
void writer_stop(bool join) {
    Writer* w = g_writer;
    if (!w) {
        return;
    }
    if (w->slots) {
        ring_remove(w);
    }
    g_writer = nullptr;
    {
        std::lock_guard<std::mutex> lk(w->mu);
        w->stop = true;
        w->wake.notify_one();
    }
    if (!join) {
        w->thread.detach();
        return;
    }
    g_trc.lock.unlock();
    w->thread.join();
    w->~Writer();
    al_free(w);
    g_trc.lock.lock();
}

// ---- emitting ----

void call_listener(const char* text, vek_s32 len) {
    if (!trc_sink()) {
        return;
    }
    g_trc.sinkLock.lock();
    if (vek_trc_sink s = trc_sink()) {
        s(g_trc.sinkCtx, text, len);
    }
    g_trc.sinkLock.unlock();
}

/* One record: to the listener, then to the ring or the sink. */
void emit(vek_s32 level, const char* text, vek_s32 len) {
    if (len < 0) {
        len = (vek_s32)std::strlen(text);
    }
    while (len > 0 && (text[len - 1] == '\n' || text[len - 1] == '\r')) {
        len--;
    }
    call_listener(text, len);
    if (trc_type() == kTrcNone) {
        return;
    }
    t_inTrace++;
    Writer* w = g_ring.load(std::memory_order_acquire);
    if (!w || !ring_push(w, level, text, len)) {
        g_trc.lock.lock();
        RecView r{plat::wall_msec(), al_thrd_id(), level, text, len};
        write_records(&r, 1);
        g_trc.lock.unlock();
    }
    t_inTrace--;
}

/* Formats the text and hands it to out; returns its length. A text that
 * fits 1 KB is formatted on the stack, a longer one in a TinyStr (never
 * the tracked heap, which reports through here). */
template <class Out>
vek_s32 with_text(const char* fmt, va_list va, Out out) {
    char buf[1024];
    vek_s32 cut = 0;
    va_list vc;
    va_copy(vc, va);
    vek_s32 n = vek_vsxprintf(buf, sizeof buf, &cut, fmt, vc);
    va_end(vc);
    if (!cut) {
        out(buf, n);
        return n;
    }
    TinyStr t;
    TinyStr_new(&t);
    TinyStr_appdvf(&t, fmt, va);
    n = TinyStr_len(&t);
    out(TinyStr_buf(&t), n);
    TinyStr_delete(&t);
    return n;
}

/* The record a thread is building between tout_beg and tout_endx. */
struct ThreadRecord {
    TinyStr text;
    vek_s32 level = 0;
    bool active = false;
    ThreadRecord() { TinyStr_new(&text); }
    ~ThreadRecord() { TinyStr_delete(&text); }
};
thread_local ThreadRecord t_rec;

// ---- dumps and escapes ----

const char kHex[] = "0123456789ABCDEF";

/* The escaped form of device traffic, written through put (or measured
 * when put is null); returns its length. */
vek_s32 esc_bytes(const vek_u8* p, vek_s32 n, char* out) {
    vek_s32 k = 0;
    auto put = [&](const char* s, vek_s32 l) {
        if (out) {
            std::memcpy(out + k, s, (size_t)l);
        }
        k += l;
    };
    for (vek_s32 i = 0; i < n; i++) {
        vek_u8 c = p[i];
        if (c == '\r') {
            put("<CR>", 4);
        } else if (c == '\n') {
            put("<LF>", 4);
        } else if (c < 0x20 || c == 0x7F) {
            char e[4] = {'<', kHex[c >> 4], kHex[c & 15], '>'};
            put(e, 4);
        } else {
            put((const char*)&c, 1);
        }
    }
    return k;
}

/* Dump lines: offset (4 hex digits, 8 beyond 64 KB), two spaces, 16 bytes
 * in hex with a wider gap after the eighth, two spaces, the bytes as
 * text. */
constexpr vek_s32 kDumpLine = 16;

vek_s32 dump_offset_width(vek_s32 n) {
    return n > 0x10000 ? 8 : 4;
}

vek_s32 dump_text_col(vek_s32 n) {
    return dump_offset_width(n) + 2 + kDumpLine * 3 + 2;
}

vek_s32 dump_len(vek_s32 n) {
    vek_s32 full = n / kDumpLine, rem = n % kDumpLine;
    vek_s32 col = dump_text_col(n);
    return full * (col + kDumpLine + 1) + (rem ? col + rem + 1 : 0);
}

/* The hex dump of n bytes into out (dump_len(n) bytes). */
void dump_bytes(const vek_u8* p, vek_s32 n, char* out) {
    vek_s32 ow = dump_offset_width(n);
    vek_s32 col = dump_text_col(n);
    char* o = out;
    for (vek_s32 off = 0; off < n; off += kDumpLine) {
        vek_s32 cnt = n - off < kDumpLine ? n - off : kDumpLine;
        std::memset(o, ' ', (size_t)col);
        for (vek_s32 d = 0; d < ow; d++) {
            o[d] = kHex[((vek_u32)off >> ((ow - 1 - d) * 4)) & 15];
        }
        for (vek_s32 i = 0; i < cnt; i++) {
            vek_u8 c = p[off + i];
            char* h = o + ow + 2 + i * 3 + (i >= 8 ? 1 : 0);
            h[0] = kHex[c >> 4];
            h[1] = kHex[c & 15];
            o[col + i] = c >= 0x20 && c < 0x7F ? (char)c : '.';
        }
        o[col + cnt] = '\n';
        o += col + cnt + 1;
    }
}

/* Appends n bytes made by make(out) to str; -201 and str unchanged when it
 * cannot grow. */
template <class Make>
vek_s32 str_append(VekStr* str, vek_s32 n, Make make) {
    vek_s32 old = VekStr_len(str);
    char* buf = VekStr_useBufBeg(str, old + n);
    if (!buf) {
        return VEK_ERR_FULL;
    }
    make(buf + old);
    VekStr_useBufEnd(str, old + n);
    return n;
}

/* A record made of a title line and a text built by make (al_malloc, so
 * the tracked heap stays out of the trace). */
template <class Make>
vek_s32 emit_built(vek_s32 level, const char* title, vek_s32 n, Make make) {
    vek_s32 tl = title ? (vek_s32)std::strlen(title) : 0;
    vek_s32 total = tl + (tl ? 1 : 0) + n;
    char* buf = (char*)al_malloc((size_t)total + 1);
    if (!buf) {
        return 0;
    }
    if (tl) {
        std::memcpy(buf, title, (size_t)tl);
        buf[tl] = '\n';
    }
    make(buf + total - n);
    emit(level, buf, total);
    al_free(buf);
    return total;
}

// ---- debug manager limits ----

/* The limits, read without a lock: a writer makes seq odd while it
 * changes the table and even again after, and a reader retries when seq
 * was odd or changed under it. The entries are stored with release and
 * loaded with acquire: a reader that sees one value of a change in
 * progress then sees seq odd or moved on, and retries (no fences, which
 * ThreadSanitizer cannot follow). */
constexpr vek_s32 kMaxLimits = 1024;
constexpr vek_s32 kDefaultLimit = 3;
struct LimitEntry {
    std::atomic<vek_s32> module;
    std::atomic<vek_s32> field;  // -1: the module's limit
    std::atomic<vek_s32> level;
};
struct LimitTable {
    std::atomic<vek_u32> seq{0};
    std::atomic<vek_s32> count{0};
    std::atomic<vek_s32> def{kDefaultLimit};
    LimitEntry e[kMaxLimits];
};
LimitTable g_limits;
std::mutex g_limitLock;
AlAtom g_dbgCnt;

struct LimitSet {
    vek_s32 module, field, level;
};

void table_begin() {
    g_limits.seq.store(g_limits.seq.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

void table_end() {
    g_limits.seq.store(g_limits.seq.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    gen_bump();
}

/* Sets one limit in the table (writer side, under g_limitLock, between
 * table_begin and table_end); false when the table is full. */
bool table_set(vek_s32 module, vek_s32 field, vek_s32 level) {
    vek_s32 n = g_limits.count.load(std::memory_order_relaxed);
    for (vek_s32 i = 0; i < n; i++) {
        LimitEntry& e = g_limits.e[i];
        if (e.module.load(std::memory_order_relaxed) == module &&
            e.field.load(std::memory_order_relaxed) == field) {
            e.level.store(level, std::memory_order_release);
            return true;
        }
    }
    if (n >= kMaxLimits) {
        return false;
    }
    g_limits.e[n].module.store(module, std::memory_order_release);
    g_limits.e[n].field.store(field, std::memory_order_release);
    g_limits.e[n].level.store(level, std::memory_order_release);
    g_limits.count.store(n + 1, std::memory_order_release);
    return true;
}

/* The limit for (module, field): the field's, else the module's, else the
 * default. */
vek_s32 table_limit(vek_s32 module, vek_s32 field) {
    for (;;) {
        vek_u32 s1 = g_limits.seq.load(std::memory_order_acquire);
        if (s1 & 1u) {
            std::this_thread::yield();
            continue;
        }
        vek_s32 n = g_limits.count.load(std::memory_order_acquire);
        vek_s32 fieldLim = -1, modLim = -1;
        for (vek_s32 i = 0; i < n && i < kMaxLimits; i++) {
            const LimitEntry& e = g_limits.e[i];
            if (e.module.load(std::memory_order_acquire) != module) {
                continue;
            }
            vek_s32 f = e.field.load(std::memory_order_acquire);
            if (f == field) {
                fieldLim = e.level.load(std::memory_order_acquire);
            } else if (f == -1) {
                modLim = e.level.load(std::memory_order_acquire);
            }
        }
        vek_s32 def = g_limits.def.load(std::memory_order_acquire);
        if (g_limits.seq.load(std::memory_order_relaxed) == s1) {
            return fieldLim >= 0 ? fieldLim : modLim >= 0 ? modLim : def;
        }
    }
}

/* The file the limits came from (al_malloc), watched while the library
 * runs. */
std::mutex g_cfgLock;
char* g_cfgPath;

} // namespace

namespace vek {

vek_s32 trc_active(void) {
    return trc_type() != kTrcNone || trc_sink() != nullptr;
}

vek_s32 trc_start(void) {
    char type[32];
    vek_dbg_rtc_sval("VekTrc", "TrcType", "", type, sizeof type);
    vek_s32 t = !std::strcmp(type, "SysTrc") ? kTrcSys : !std::strcmp(type, "FileTrc") ? kTrcFile : kTrcNone;
    if (t == kTrcNone) {
        sys_printf("trace disabled, for TrcType \"%s\" not supp\n", type);
        return -1;
    }
    g_trc.lock.lock();
    g_trc.fileName[0] = 0;
    g_trc.holdConn = 0;
    g_trc.bufQueSize = 0;
    if (t == kTrcFile) {
        char name[1024];
        vek_dbg_rtc_sval("FileTrc", "FileName", "VekTrc.dlog", name, sizeof name);
        if (!std::strchr(name, '\\') && !std::strchr(name, '/')) {
            vek_snprintf(g_trc.fileName, sizeof g_trc.fileName, "%s%c%s", vek_base_fld(),
                         VEK_PATH_SEP, name);
        } else {
            vek_snprintf(g_trc.fileName, sizeof g_trc.fileName, "%s", name);
        }
        g_trc.flushLev = vek_dbg_rtc_nval("FileTrc", "FlushLev", kDefFlushLev);
        g_trc.flushMs = vek_dbg_rtc_nval("FileTrc", "FlushMs", kDefFlushMs);
    } else {
        g_trc.holdConn = vek_dbg_rtc_bval("VekTrc", "HoldConn", 0);
        vek_s32 q = vek_dbg_rtc_nval("VekTrc", "BufQueSize", 0);
        g_trc.bufQueSize = q <= 0 ? 0 : (q > kMaxBufQue ? kMaxBufQue : q);
    }
    vek_s32 aq = vek_dbg_rtc_nval("VekTrc", "AsyncQue", 0);
    g_trc.asyncQue = aq <= 0 ? 0 : (aq > kMaxAsyncQue ? kMaxAsyncQue : aq);
    char full[16];
    vek_dbg_rtc_sval("VekTrc", "AsyncFull", "DropNew", full, sizeof full);
    g_trc.asyncFull = !vek_stricmp(full, "Block") ? VEK_TRC_BLOCK
                      : !vek_stricmp(full, "DropOld") ? VEK_TRC_DROP_OLD
                                                       : VEK_TRC_DROP_NEW;
    __atomic_store_n(&g_trc.type, t, __ATOMIC_RELEASE);
    g_trc.lock.unlock();
    gen_bump();
    return t;
}

void trc_stop(void) {
    g_trc.lock.lock();
    // The library is being unloaded: the writer thread may no longer be
    // waited for, so what it holds is written here.
    writer_stop(false);
    if (g_trc.file) {
        fbuf_flush();
        AlFile_close(g_trc.file);
        g_trc.file = nullptr;
    }
    al_free(g_trc.fbuf);
    g_trc.fbuf = nullptr;
    g_trc.holding = 0;
    __atomic_store_n(&g_trc.type, (vek_s32)kTrcNone, __ATOMIC_RELEASE);
    g_trc.lock.unlock();
    gen_bump();
    std::lock_guard<std::mutex> lk(g_cfgLock);
    al_free(g_cfgPath);
    g_cfgPath = nullptr;
}

// Holding keeps the trace connection (the file) open between records.
vek_s32 trc_hold_supported(void) {
    return trc_type() == kTrcFile;
}

void trc_hold_start(void) {
    g_trc.lock.lock();
    if (trc_type() == kTrcFile && !g_trc.file) {
        g_trc.file = AlFile_open(g_trc.fileName, "ab");
        if (g_trc.file && g_trc.flushMs > 0) {
            // Buffered only when the writer thread can flush it in time.
            g_trc.fbuf = (char*)al_malloc(kFileBufSize);
            if (g_trc.fbuf && !writer_start()) {
                al_free(g_trc.fbuf);
                g_trc.fbuf = nullptr;
            }
        }
    }
    g_trc.holding = g_trc.file != nullptr;
    g_trc.lock.unlock();
}

void trc_hold_stop(void) {
    g_trc.lock.lock();
    if (g_trc.file) {
        fbuf_flush();
        AlFile_close(g_trc.file);
        g_trc.file = nullptr;
    }
    al_free(g_trc.fbuf);
    g_trc.fbuf = nullptr;
    g_trc.holding = 0;
    g_trc.lock.unlock();
}

void trc_async_start(void) {
    if (g_trc.asyncQue > 0 && trc_type() != kTrcNone) {
        tout_set_async(g_trc.asyncQue, g_trc.asyncFull);
    }
}

void trc_async_stop(void) {
    g_trc.lock.lock();
    writer_stop(true);
    g_trc.lock.unlock();
}

void trc_fault_flush(void) {
    if (t_inTrace > 0 || !g_trc.lock.lock_for(500)) {
        return;
    }
    t_inTrace++;
    if (Writer* w = g_ring.load(std::memory_order_acquire)) {
        ring_drain(w, 500);
    }
    fbuf_flush();
    t_inTrace--;
    g_trc.lock.unlock();
}

void trc_record(const char*, vek_s32, vek_s32 module, vek_s32 field, vek_s32 level,
                const char* text, vek_s32 len) {
    if (trc_active() && DbgMng_enabled__(nullptr, module, field, level)) {
        emit(level, text, len);
    }
}

vek_s32 dbg_cfg_path(char* buf, vek_s32 cap) {
    std::lock_guard<std::mutex> lk(g_cfgLock);
    return g_cfgPath ? vek_snprintf(buf, cap, "%s", g_cfgPath) : 0;
}

vek_s32 dbg_cfg_load(const char* path, bool remember) {
    if (!path || !*path) {
        return VEK_ERR_FILE_OPEN;
    }
    IniFile doc;
    IniFile_new(&doc);
    vek_s32 r = IniFile_loadFile(&doc, path);
    if (r != 0) {
        IniFile_delete(&doc);
        return r;
    }
    // Read the whole file first, then replace the table in one step.
    LimitSet* sets = (LimitSet*)al_malloc(sizeof(LimitSet) * kMaxLimits);
    vek_s32 n = 0;
    vek_s32 def = kDefaultLimit;
    for (VekListNode* node = doc.sects.hdr; node && sets; node = node->next) {
        IniSect* s = (IniSect*)node;
        const char* name = VekStr_buf(&s->name);
        if (!vek_stricmp(name, "DbgMng")) {
            if (IniFile_findField(&doc, name, "Level")) {
                def = IniFile_getInt(&doc, name, "Level", 0);
            }
            continue;
        }
        if (vek_strincmp(name, "Mod", 3) != 0 || !name[3] || !vek_isdigits(name + 3)) {
            continue;
        }
        vek_s32 module = std::atoi(name + 3);
        for (VekListNode* m = s->fields.hdr; m; m = m->next) {
            IniField* f = (IniField*)m;
            if (!IniField_valid(f)) {
                continue;
            }
            const char* key = VekStr_buf(&f->name);
            vek_s32 level = std::atoi(VekStr_buf(&f->value));
            vek_s32 field = -2;
            if (!vek_stricmp(key, "Level")) {
                field = -1;
            } else if (!vek_strincmp(key, "Fld", 3) && key[3] && vek_isdigits(key + 3)) {
                field = std::atoi(key + 3);
            }
            if (field >= -1 && n < kMaxLimits) {
                sets[n++] = LimitSet{module, field, level};
            }
        }
    }
    IniFile_delete(&doc);
    if (!sets) {
        return VEK_ERR_FULL;
    }
    {
        std::lock_guard<std::mutex> lk(g_limitLock);
        table_begin();
        g_limits.count.store(0, std::memory_order_release);
        for (vek_s32 i = 0; i < n; i++) {
            table_set(sets[i].module, sets[i].field, sets[i].level);
        }
        g_limits.def.store(def, std::memory_order_release);
        table_end();
    }
    al_free(sets);
    if (remember) {
        bool changed = false;
        {
            std::lock_guard<std::mutex> lk(g_cfgLock);
            if (!g_cfgPath || std::strcmp(g_cfgPath, path) != 0) {
                size_t l = std::strlen(path);
                if (char* p = (char*)al_malloc(l + 1)) {
                    std::memcpy(p, path, l + 1);
                    al_free(g_cfgPath);
                    g_cfgPath = p;
                    changed = true;
                }
            }
        }
        if (changed) {
            dbg_watch_restart();
        }
    }
    return 0;
}


} // namespace vek

namespace {

bool passes(vek_s32 module, vek_s32 field, vek_s32 level) {
    return vek::trc_active() && DbgMng_enabled__(nullptr, module, field, level);
}

} // namespace

extern "C" {

VEK_API vek_s32 tout_site(VekTrcSite* site, vek_s32 module, vek_s32 field, vek_s32 level) {
    vek_u32 g = __atomic_load_n(&vek_trc_gen, __ATOMIC_ACQUIRE);
    vek_u32 s = __atomic_load_n(&site->state, __ATOMIC_RELAXED);
    if (s == (g | 1u)) {
        return 1;
    }
    if (s == g) {
        return 0;
    }
    bool on = passes(module, field, level);
    __atomic_store_n(&site->state, g | (on ? 1u : 0u), __ATOMIC_RELAXED);
    return on ? 1 : 0;
}

VEK_API vek_s32 tout_beg(const char*, vek_s32, vek_s32 module, vek_s32 field, vek_s32 level) {
    ThreadRecord& r = t_rec;
    TinyStr_clear(&r.text);
    r.level = level;
    r.active = passes(module, field, level);
    return r.active ? 1 : 0;
}

VEK_API vek_s32 tout_strx(const char* text, vek_s32 len) {
    ThreadRecord& r = t_rec;
    return r.active && text ? TinyStr_appdStrx(&r.text, text, len) : 0;
}

VEK_API vek_s32 tout_endx(void) {
    ThreadRecord& r = t_rec;
    if (!r.active) {
        return 0;
    }
    r.active = false;
    vek_s32 n = TinyStr_len(&r.text);
    emit(r.level, TinyStr_buf(&r.text), n);
    TinyStr_clearx(&r.text);
    return n;
}

VEK_API vek_s32 vek_printf(const char* fmt, ...) {
    if (!vek::trc_active() || !fmt) {
        return 0;
    }
    va_list va;
    va_start(va, fmt);
    vek_s32 n = with_text(fmt, va, [](const char* t, vek_s32 l) { emit(kUnfilteredLevel, t, l); });
    va_end(va);
    return n;
}

VEK_API vek_s32 tout_printf(const char* path, vek_s32 line, vek_s32 module, vek_s32 field,
                            vek_s32 level, const char* fmt, ...) {
    if (!fmt || !tout_beg(path, line, module, field, level)) {
        return 0;
    }
    va_list va;
    va_start(va, fmt);
    TinyStr_appdvf(&t_rec.text, fmt, va);
    va_end(va);
    return tout_endx();
}

VEK_API vek_s32 tout_printfx(const char*, vek_s32, vek_s32, vek_s32, vek_s32 level,
                             const char* fmt, ...) {
    if (!fmt || !vek::trc_active()) {
        return 0;
    }
    va_list va;
    va_start(va, fmt);
    vek_s32 n = with_text(fmt, va, [level](const char* t, vek_s32 l) { emit(level, t, l); });
    va_end(va);
    return n;
}

VEK_API vek_s32 base_log_data(const char*, vek_s32, vek_s32 field, vek_s32 level,
                              const char* text, vek_s32 len) {
    if (!passes(vek::kModBase, field, level)) {
        return 0;
    }
    if (!text) {
        len = 0;
    } else if (len < 0) {
        len = (vek_s32)std::strlen(text);
    }
    const vek_u8* p = (const vek_u8*)text;
    return emit_built(level, nullptr, esc_bytes(p, len, nullptr),
                      [p, len](char* out) { esc_bytes(p, len, out); });
}

VEK_API vek_s32 base_log_dump(const char*, vek_s32, vek_s32 field, vek_s32 level,
                              const char* title, const void* data, vek_s32 len) {
    if (!passes(vek::kModBase, field, level)) {
        return 0;
    }
    if (!data || len < 0) {
        len = 0;
    }
    const vek_u8* p = (const vek_u8*)data;
    return emit_built(level, title, dump_len(len), [p, len](char* out) { dump_bytes(p, len, out); });
}

VEK_API vek_s32 base_log_printf(const char*, vek_s32, vek_s32 field, vek_s32 level,
                                const char* fmt, ...) {
    if (!fmt || !passes(vek::kModBase, field, level)) {
        return 0;
    }
    va_list va;
    va_start(va, fmt);
    vek_s32 n = with_text(fmt, va, [level](const char* t, vek_s32 l) { emit(level, t, l); });
    va_end(va);
    return n;
}

VEK_API vek_s32 vek_dump_data(const char* title, const void* data, vek_s32 len) {
    if (!vek::trc_active()) {
        return 0;
    }
    if (!data || len < 0) {
        len = 0;
    }
    const vek_u8* p = (const vek_u8*)data;
    return emit_built(kUnfilteredLevel, title, dump_len(len),
                      [p, len](char* out) { dump_bytes(p, len, out); });
}

} // extern "C"

namespace {

/* The dump and escape forms appended to a string: one argument check. */
template <class Fill>
vek_s32 append_form(VekStr* out, const void* data, vek_s32 len, vek_s32 (*size)(const vek_u8*, vek_s32),
                    Fill fill) {
    if (!out || (!data && len > 0)) {
        VEK_ASSERT(out && (data || len <= 0));
        return VEK_ERR_BAD_ARG;
    }
    if (len <= 0) {
        return 0;
    }
    const vek_u8* p = (const vek_u8*)data;
    return str_append(out, size(p, len), [p, len, fill](char* o) { fill(p, len, o); });
}

} // namespace

extern "C" {

VEK_API vek_s32 vek_dump_str(VekStr* out, const void* data, vek_s32 len) {
    return append_form(out, data, len, [](const vek_u8*, vek_s32 n) { return dump_len(n); }, dump_bytes);
}

VEK_API vek_s32 vek_esc_str(VekStr* out, const void* data, vek_s32 len) {
    return append_form(out, data, len, [](const vek_u8* p, vek_s32 n) { return esc_bytes(p, n, nullptr); },
                       esc_bytes);
}

VEK_API vek_s32 sys_printf(const char* fmt, ...) {
    if (!fmt) {
        return 0;
    }
    va_list va;
    va_start(va, fmt);
    vek_s32 n = with_text(fmt, va, [](const char* text, vek_s32 len) {
        if (len > 0) {
            plat::debug_output(text);
        }
    });
    va_end(va);
    return n;
}

VEK_API vek_s32 tout_enabled(void) {
    return trc_type() != kTrcNone ? 1 : 0;
}

VEK_API vek_trc_sink tout_set_sink(vek_trc_sink sink, void* ctx) {
    g_trc.sinkLock.lock();
    vek_trc_sink old = trc_sink();
    g_trc.sinkCtx = ctx;
    __atomic_store_n(&g_trc.sink, sink, __ATOMIC_RELEASE);
    g_trc.sinkLock.unlock();
    gen_bump();
    return old;
}

VEK_API vek_s32 tout_set_file(const char* path) {
    AlFile* f = nullptr;
    if (path) {
        if (!*path || std::strlen(path) >= sizeof g_trc.fileName || !(f = AlFile_open(path, "ab"))) {
            return VEK_ERR_FILE_OPEN;
        }
    }
    g_trc.lock.lock();
    t_inTrace++;
    if (Writer* w = g_ring.load(std::memory_order_acquire)) {
        ring_drain(w, -1);  // queued records belong to the old sink
    }
    if (g_trc.file) {
        fbuf_flush();
        AlFile_close(g_trc.file);
        g_trc.file = nullptr;
    }
    if (f) {
        vek_snprintf(g_trc.fileName, sizeof g_trc.fileName, "%s", path);
        g_trc.file = f;
        if (!g_trc.fbuf && g_trc.flushMs > 0 && writer_start()) {
            g_trc.fbuf = (char*)al_malloc(kFileBufSize);
        }
    } else {
        g_trc.fileName[0] = 0;
    }
    g_trc.holding = f != nullptr;
    __atomic_store_n(&g_trc.type, (vek_s32)(f ? kTrcFile : kTrcNone), __ATOMIC_RELEASE);
    t_inTrace--;
    g_trc.lock.unlock();
    gen_bump();
    return 0;
}

VEK_API vek_s32 tout_set_async(vek_s32 capacity, vek_s32 policy) {
    if (capacity < 0 || capacity > kMaxAsyncQue || policy < VEK_TRC_BLOCK || policy > VEK_TRC_DROP_OLD) {
        return VEK_ERR_BAD_ARG;
    }
    g_trc.lock.lock();
    t_inTrace++;
    if (Writer* w = g_writer; w && w->slots) {
        ring_remove(w);
    }
    vek_s32 r = 0;
    if (capacity > 0) {
        Slot* slots = (Slot*)al_malloc(sizeof(Slot) * (size_t)capacity);
        if (!slots || !writer_start()) {
            al_free(slots);
            r = VEK_ERR_FULL;
        } else {
            Writer* w = g_writer;
            std::lock_guard<std::mutex> lk(w->mu);
            w->slots = slots;
            w->capacity = capacity;
            w->policy = policy;
            w->head = w->count = 0;
            g_ring.store(w, std::memory_order_release);
        }
    } else if (!g_trc.fbuf) {
        writer_stop(true);  // nothing left for the writer to do
    }
    g_trc.asyncQue = r == 0 ? capacity : 0;
    g_trc.asyncFull = policy;
    t_inTrace--;
    g_trc.lock.unlock();
    return r;
}

VEK_API vek_s32 tout_flush(void) {
    g_trc.lock.lock();
    t_inTrace++;
    if (Writer* w = g_ring.load(std::memory_order_acquire)) {
        ring_drain(w, -1);
    }
    fbuf_flush();
    t_inTrace--;
    g_trc.lock.unlock();
    return 0;
}

VEK_API vek_s32 tout_info(VekTrcInfo* info) {
    if (!info) {
        VEK_ASSERT(info);
        return VEK_ERR_BAD_ARG;
    }
    g_trc.lock.lock();
    std::memset(info, 0, sizeof *info);
    vek_s32 type = trc_type();
    vek_snprintf(info->type, sizeof info->type, "%s",
                 type == kTrcSys ? "SysTrc" : type == kTrcFile ? "FileTrc" : "");
    vek_snprintf(info->fileName, sizeof info->fileName, "%s", g_trc.fileName);
    info->holdConn = g_trc.holdConn;
    info->bufQueSize = g_trc.bufQueSize;
    info->holding = g_trc.holding;
    g_trc.lock.unlock();
    return 0;
}

VEK_API vek_s32 tout_write_info(VekTrcWriteInfo* info) {
    if (!info || info->size < sizeof info->size) {
        VEK_ASSERT(info && info->size >= sizeof info->size);
        return VEK_ERR_BAD_ARG;
    }
    VekTrcWriteInfo all;
    std::memset(&all, 0, sizeof all);
    g_trc.lock.lock();
    all.asyncQue = g_ring.load(std::memory_order_acquire) ? g_trc.asyncQue : 0;
    all.asyncFull = g_trc.asyncFull;
    all.flushLev = g_trc.flushLev;
    all.flushMs = g_trc.flushMs;
    all.dropped = g_droppedTotal.load(std::memory_order_relaxed);
    g_trc.lock.unlock();
    // An older caller's shorter record gets the fields it knows.
    size_t n = info->size < sizeof all ? info->size : sizeof all;
    all.size = info->size;
    std::memcpy(info, &all, n);
    return 0;
}

// ---- debug manager ----

VEK_API vek_s32 DbgMng_init(void) {
    return AlAtom_inc(&g_dbgCnt);
}

VEK_API vek_s32 DbgMng_exit(void) {
    return vek::count_down(&g_dbgCnt, false);
}

VEK_API vek_s32 DbgMng_cfgByFile(const char* path) {
    return vek::dbg_cfg_load(path, true);
}

VEK_API void DbgMng_setLevel(vek_s32 module, vek_s32 field, vek_s32 level) {
    bool full = false;
    {
        std::lock_guard<std::mutex> lk(g_limitLock);
        table_begin();
        if (module < 0) {
            g_limits.def.store(level, std::memory_order_release);
        } else {
            full = !table_set(module, field < 0 ? -1 : field, level);
        }
        table_end();
    }
    if (full) {
        vek_printf("DbgMng: too many limits, %d.%d ignored\n", (int)module, (int)field);
    }
}

VEK_API vek_s32 DbgMng_enabled__(const void*, vek_s32 module, vek_s32 field, vek_s32 level) {
    return level <= table_limit(module, field < 0 ? -1 : field) ? 1 : 0;
}

} // extern "C"
