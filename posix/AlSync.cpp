/*
 * AlSync.cpp (POSIX) - waitable objects, the wait for any of them,
 * thread-local slots and threads on Linux.
 *
 * Windows waits on kernel objects; here the library owns its objects, and a
 * vek_handle points at one (an Obj, from the tracked heap, so a handle that
 * is never closed shows in the leak report). One process-wide lock (g_lk)
 * guards the state of every in-process object and the queues of threads
 * waiting on them:
 *
 *   Obj (event / mutex)  head -> WaitBlock -> WaitBlock -> ...  (oldest first)
 *                                   |            |
 *                                 Waiter       Waiter    (on the waiting thread's stack)
 *
 * A waiting thread hangs one WaitBlock on each object it waits for and
 * sleeps on a futex word of its own (Waiter::state). Whoever signals an
 * event or releases a mutex hands the object to the first waiter that can
 * take it (consuming an auto-reset signal, making the waiter the mutex's
 * owner), records which of the waiter's objects fired, takes all of the
 * waiter's blocks off their queues, and only then marks it fired and wakes
 * it. A wait for any therefore never polls and cannot miss a signal given
 * between its check and its sleep, "the first handle wins" holds at the
 * moment of the check, and a woken waiter returns without taking g_lk
 * again (a condition variable would send it straight into the lock its
 * waker still holds: two context switches instead of one). The in-process
 * mutexes a thread owns are listed per thread; when the thread ends, a
 * thread-specific-data destructor abandons them.
 *
 * A wait that includes the system's descriptors (wait_fds) sleeps in
 * poll() instead: its waiter carries the thread's wake descriptor (an
 * eventfd made on the thread's first such wait and closed when the thread
 * ends), which the waker writes to, and poll() watches it beside the
 * descriptors.
 *
 * Named mutexes are system-wide: a process-shared, robust, recursive
 * pthread mutex in a shared-memory object named from the normalised name.
 * The kernel marks a robust mutex whose owner died, so the next locker sees
 * EOWNERDEAD: the abandoned result. Every process that holds a handle keeps
 * an open-file-description read lock on byte 0 of the object; the kernel
 * drops it when the process dies, so "nobody holds a lock on byte 0" means
 * "no handle is open" (the mutex no longer exists, as on Windows, where it
 * dies with its last handle). Byte 1 serialises opening, closing and the
 * existence test. A release in another process cannot wake our waiters, so
 * a wait that includes a named mutex retries it in slices of up to 16 ms;
 * a release in this process wakes them at once.
 *
 * Threads are created detached (Windows closes the handle at once, too).
 * Each one created here has a record that tells when it has finished, so
 * join and the exit test need no polling; any other thread of the process
 * is tested with tgkill(pid, tid, 0) and joined by polling that every ms.
 */
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include "AlOs.h"
#include "AlPlat.h"
#include "AlSync.h"
#include "MemUtil.h"
#include "VekUni.h"
#include "VekVosx.h"

namespace {

constexpr vek_u32 kTagEvent = 0x56457674;  // "VEvt"
constexpr vek_u32 kTagMutex = 0x564D7478;  // "VMtx"
constexpr vek_u32 kTagNamed = 0x564E6D78;  // "VNmx"

struct Obj;
struct Waiter;

/* One per (waiting thread, object): a place in the object's queue. */
struct WaitBlock {
    WaitBlock* prev;
    WaitBlock* next;
    Waiter* waiter;
    vek_s32 index;
};

/* The in-process mutexes one thread owns. */
struct OwnerRec {
    Obj* head;
};

/* Waiter::state. Fired: an object was handed over and the waiter's blocks
 * are off every queue; it is stored last, after everything the waiter
 * reads on its way out. Poked: a named mutex was released in this process,
 * try again. */
constexpr vek_u32 kAsleep = 0;
constexpr vek_u32 kFired = 1;
constexpr vek_u32 kPoked = 2;

struct Waiter {
    std::atomic<vek_u32> state;  // the futex word
    int wakeFd;                  // the thread's eventfd while in wait_fds, else -1
    vek_u32 tid;
    OwnerRec* owner;
    vek_s32 fired;               // index of the object handed over, -1 while none
    bool abandoned;              // that object was an abandoned mutex
    vek_s32 n;                   // its objects and its blocks on their queues
    Obj** objs;
    WaitBlock* blocks;

    Waiter(Obj** o, WaitBlock* b, int fd)
        : state(kAsleep), wakeFd(fd), tid(al_thrd_id()), owner(nullptr), fired(-1), abandoned(false), n(0),
          objs(o), blocks(b) {}
};

/* One mapping of a named mutex per process, shared by its handles. The
 * thread of this process that owns the mutex, and how often it entered,
 * are the library's own record (the C library's mutex is opaque): written
 * only by the owner while it holds the mutex, read atomically by whoever
 * closes the last handle. */
struct Mapping {
    Mapping* next;
    pthread_mutex_t* mtx;  // in the shared memory
    int fd;
    vek_s32 refs;
    vek_u32 owner;         // owning thread of this process, 0 when none
    vek_s32 depth;         // its recursion count
    char name[NAME_MAX];
};

/* The calling thread tid has just locked m's mutex; recovered: from an
 * owner that died, whose entries do not count. */
void named_taken(Mapping* m, vek_u32 tid, bool recovered) {
    vek_u32 was = __atomic_load_n(&m->owner, __ATOMIC_RELAXED);
    m->depth = !recovered && was == tid ? m->depth + 1 : 1;
    __atomic_store_n(&m->owner, tid, __ATOMIC_RELEASE);
}

/* Unlocks m's mutex for the calling thread tid, the record first, while
 * the mutex still keeps other threads out. */
int named_unlock(Mapping* m, vek_u32 tid) {
    if (__atomic_load_n(&m->owner, __ATOMIC_RELAXED) != tid) {
        return EPERM;  // not held by this thread
    }
    vek_s32 depth = m->depth;
    m->depth = depth - 1;
    if (depth == 1) {
        __atomic_store_n(&m->owner, 0u, __ATOMIC_RELEASE);
    }
    int e = pthread_mutex_unlock(m->mtx);
    if (e != 0) {
        m->depth = depth;
        __atomic_store_n(&m->owner, tid, __ATOMIC_RELEASE);
    }
    return e;
}

struct Obj {
    vek_u32 tag;
    std::atomic<vek_s32> refs;  // the handle plus every wait in progress
    WaitBlock* head;     // waiters, oldest first
    WaitBlock* tail;
    bool manual;         // event
    bool signalled;      // event
    bool abandoned;      // mutex: the last owner ended without releasing
    vek_u32 owner;       // mutex: owning thread, 0 when free
    vek_s32 count;       // mutex: recursion count
    OwnerRec* ownerRec;  // mutex: the list it is on while owned
    Obj* ownPrev;
    Obj* ownNext;
    Mapping* map;        // named mutex
};

pthread_mutex_t g_lk = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_mapLk = PTHREAD_MUTEX_INITIALIZER;  // the mapping list; may block on other processes
Mapping* g_maps;
pthread_once_t g_once = PTHREAD_ONCE_INIT;
pthread_condattr_t g_cvAttr;  // monotonic clock for every timed wait
pthread_key_t g_ownKey;
pthread_key_t g_wakeKey;      // the thread's wake eventfd + 1 (0: none yet)

void abandon_owned(void* p);

void close_wake_fd(void* p) {
    close((int)(intptr_t)p - 1);
}

void init_once() {
    pthread_condattr_init(&g_cvAttr);
    pthread_condattr_setclock(&g_cvAttr, CLOCK_MONOTONIC);
    pthread_key_create(&g_ownKey, abandon_owned);
    pthread_key_create(&g_wakeKey, close_wake_fd);
}

/* The calling thread's wake descriptor, made on first need; -1 (errno)
 * when none can be made. */
int wake_fd() {
    if (void* p = pthread_getspecific(g_wakeKey)) {
        return (int)(intptr_t)p - 1;
    }
    int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd >= 0 && pthread_setspecific(g_wakeKey, (void*)(intptr_t)(fd + 1)) != 0) {
        close(fd);
        errno = ENOMEM;
        fd = -1;
    }
    return fd;
}

void futex_wake(std::atomic<vek_u32>* word) {
    syscall(SYS_futex, (vek_u32*)word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

/* Sleeps while *word is still value, until woken or the absolute monotonic
 * time at (null: no limit); returns early on any signal, so callers look
 * again. */
void futex_wait(std::atomic<vek_u32>* word, vek_u32 value, const struct timespec* at) {
    syscall(SYS_futex, (vek_u32*)word, FUTEX_WAIT_BITSET_PRIVATE, value, at, nullptr, FUTEX_BITSET_MATCH_ANY);
}

/* Futex wake-ups gathered under g_lk and given once it is released: a
 * woken thread that gets the processor at once then does not run into the
 * lock its waker still holds. */
struct Wakes {
    std::atomic<vek_u32>* words[8];
    int n = 0;
};

/* Under g_lk: sets a waiter's state and wakes it wherever it sleeps. A
 * waiter in poll() is written to first: it cannot leave before g_lk is
 * free, so its descriptor is still open. A waiter on its futex may leave
 * as soon as it sees the state, so nothing of it is read afterwards; the
 * wake-up of a word that has gone is harmless (every futex user looks
 * again after waking). */
void wake(Waiter* w, vek_u32 state, Wakes* wk) {
    std::atomic<vek_u32>* word = &w->state;
    if (w->wakeFd >= 0) {
        uint64_t one = 1;
        ssize_t r = write(w->wakeFd, &one, sizeof one);
        (void)r;  // only an overflow of the count can fail: the fd is readable then
        word->store(state, std::memory_order_release);
    } else {
        word->store(state, std::memory_order_release);
        if (wk->n < (int)(sizeof wk->words / sizeof wk->words[0])) {
            wk->words[wk->n++] = word;
        } else {
            futex_wake(word);
        }
    }
}

/* Releases g_lk, then wakes what was gathered under it. */
void unlock_wake(Wakes& wk) {
    pthread_mutex_unlock(&g_lk);
    for (int i = 0; i < wk.n; i++) {
        futex_wake(wk.words[i]);
    }
}

void ensure_init() {
    pthread_once(&g_once, init_once);
}

vek_u32 fail(int err) {
    errno = err;
    return plat::kWaitFailed;
}

struct timespec mono_now() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts;
}

struct timespec add_ms(struct timespec t, vek_s64 ms) {
    t.tv_sec += (time_t)(ms / 1000);
    t.tv_nsec += (long)(ms % 1000) * 1000000L;
    if (t.tv_nsec >= 1000000000L) {
        t.tv_sec++;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

bool before(const struct timespec& a, const struct timespec& b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

bool thread_alive(vek_u32 tid) {
    return syscall(SYS_tgkill, (long)getpid(), (long)tid, 0L) == 0 || errno == EPERM;
}

// ---- ownership of in-process mutexes ----

OwnerRec* own_rec() {
    OwnerRec* r = (OwnerRec*)pthread_getspecific(g_ownKey);
    if (!r && (r = (OwnerRec*)al_malloc(sizeof *r)) != nullptr) {
        r->head = nullptr;
        pthread_setspecific(g_ownKey, r);
    }
    return r;
}

void take_mutex(Obj* o, vek_u32 tid, OwnerRec* rec) {
    o->owner = tid;
    o->count = 1;
    o->ownerRec = rec;
    o->ownPrev = nullptr;
    o->ownNext = rec ? rec->head : nullptr;
    if (rec) {
        if (rec->head) {
            rec->head->ownPrev = o;
        }
        rec->head = o;
    }
}

void drop_mutex(Obj* o) {
    if (OwnerRec* rec = o->ownerRec) {
        (o->ownPrev ? o->ownPrev->ownNext : rec->head) = o->ownNext;
        if (o->ownNext) {
            o->ownNext->ownPrev = o->ownPrev;
        }
    }
    o->owner = 0;
    o->count = 0;
    o->ownerRec = nullptr;
    o->ownPrev = o->ownNext = nullptr;
}

void unlink_block(Obj* o, WaitBlock* b);

/* Under g_lk: takes all of a waiter's blocks off their queues. */
void unlink_all(Waiter* w) {
    for (vek_s32 i = 0; i < w->n; i++) {
        unlink_block(w->objs[i], &w->blocks[i]);
    }
}

/* Under g_lk: hands o to the waiters that can take it now. */
void hand_over(Obj* o, Wakes* wk) {
    WaitBlock* next;
    for (WaitBlock* b = o->head; b; b = next) {
        next = b->next;  // a fired waiter's blocks leave every queue, this one too
        Waiter* w = b->waiter;
        if (o->tag == kTagNamed) {  // released here: let them try again
            wake(w, kPoked, wk);
            continue;
        }
        if (o->tag == kTagEvent) {
            if (!o->signalled) {
                return;
            }
            if (!o->manual) {
                o->signalled = false;
            }
        } else {
            if (o->count != 0) {
                return;
            }
            take_mutex(o, w->tid, w->owner);
            w->abandoned = o->abandoned;
            o->abandoned = false;
        }
        w->fired = b->index;
        unlink_all(w);
        wake(w, kFired, wk);
    }
}

/* A thread ends: the mutexes it still owns are abandoned. */
void abandon_owned(void* p) {
    OwnerRec* r = (OwnerRec*)p;
    Wakes wk;
    pthread_mutex_lock(&g_lk);
    while (Obj* o = r->head) {
        drop_mutex(o);
        o->abandoned = true;
        hand_over(o, &wk);
    }
    unlock_wake(wk);
    al_free(r);
}

/* Under g_lk: takes o for the waiter when it can be taken now. Returns 0
 * (not now), 1 (taken) or 2 (taken, abandoned). */
int acquire_now(Obj* o, Waiter* w) {
    switch (o->tag) {
    case kTagEvent:
        if (!o->signalled) {
            return 0;
        }
        if (!o->manual) {
            o->signalled = false;
        }
        return 1;
    case kTagMutex:
        if (o->count == 0) {
            take_mutex(o, w->tid, w->owner);
            bool ab = o->abandoned;
            o->abandoned = false;
            return ab ? 2 : 1;
        }
        if (o->owner == w->tid && o->count < INT_MAX) {
            o->count++;
            return 1;
        }
        return 0;
    case kTagNamed: {
        int e = pthread_mutex_trylock(o->map->mtx);
        if (e == EOWNERDEAD) {
            pthread_mutex_consistent(o->map->mtx);
        }
        if (e == 0 || e == EOWNERDEAD) {
            named_taken(o->map, w->tid, e == EOWNERDEAD);
        }
        return e == EOWNERDEAD ? 2 : e == 0 ? 1 : 0;
    }
    default:
        return 0;
    }
}

bool valid(const Obj* o) {
    return o && (o->tag == kTagEvent || o->tag == kTagMutex || o->tag == kTagNamed);
}

void link_block(Obj* o, WaitBlock* b) {
    b->next = nullptr;
    b->prev = o->tail;
    (o->tail ? o->tail->next : o->head) = b;
    o->tail = b;
}

void unlink_block(Obj* o, WaitBlock* b) {
    (b->prev ? b->prev->next : o->head) = b->next;
    (b->next ? b->next->prev : o->tail) = b->prev;
}

void unmap_named(Mapping* m);

/* Drops one reference; the last frees the object (outside g_lk). */
void release_obj(Obj* o) {
    if (o->map) {
        unmap_named(o->map);
    }
    vek_free__(o);
}

Obj* new_obj(vek_u32 tag) {
    void* mem = vek_malloc__(sizeof(Obj));
    Obj* o = mem ? new (mem) Obj() : nullptr;
    if (o) {
        o->tag = tag;
        o->refs = 1;
    }
    return o;
}

// ---- named mutexes ----

constexpr off_t kRefByte = 0;   // read-locked by every process with a handle
constexpr off_t kInitByte = 1;  // write-locked while opening, closing or testing

bool ofd_lock(int fd, short type, off_t byte, bool block) {
    struct flock fl;
    std::memset(&fl, 0, sizeof fl);
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = byte;
    fl.l_len = 1;
    int r;
    while ((r = fcntl(fd, block ? F_OFD_SETLKW : F_OFD_SETLK, &fl)) != 0 && errno == EINTR) {
    }
    return r == 0;
}

/* "/vek." followed by the normalised name in UTF-8; a name too long for
 * the file system keeps its head and gets a hash of the whole. */
void shm_name(const vek_wchar* name, char* out, size_t cap) {
    vek_s32 len = 0;
    while (name[len]) {
        len++;
    }
    vek_wchar* w = (vek_wchar*)al_malloc(sizeof(vek_wchar) * ((size_t)len + 1));
    char utf8[1024];
    utf8[0] = 0;
    if (w) {
        std::memcpy(w, name, sizeof(vek_wchar) * ((size_t)len + 1));
        win_kobj_fmtw(w);
        wcs_buf_to_utf8_str(w, len, utf8, sizeof utf8);
        al_free(w);
    }
    size_t n = std::strlen(utf8);
    if (n + 6 < cap) {
        std::snprintf(out, cap, "/vek.%s", utf8);
        return;
    }
    vek_u32 h = 2166136261u;  // FNV-1a of the whole name
    for (vek_s32 i = 0; i < len; i++) {
        h = (h ^ name[i]) * 16777619u;
    }
    std::snprintf(out, cap, "/vek.%.*s.%08x", (int)(cap - 32), utf8, (unsigned)h);
}

bool init_shared_mutex(pthread_mutex_t* m) {
    pthread_mutexattr_t a;
    pthread_mutexattr_init(&a);
    pthread_mutexattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&a, PTHREAD_MUTEX_ROBUST);
    pthread_mutexattr_settype(&a, PTHREAD_MUTEX_RECURSIVE);
    int e = pthread_mutex_init(m, &a);
    pthread_mutexattr_destroy(&a);
    return e == 0;
}

/* Opens or creates the shared object of a name; *fresh tells that no
 * process held it before. Under g_mapLk. */
Mapping* map_named(const char* shmName, bool* fresh) {
    for (;;) {
        int fd = plat::os_fails(VEK_OS_SHM) ? (errno = EMFILE, -1)
                                            : shm_open(shmName, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd < 0) {
            return nullptr;
        }
        fchmod(fd, 0666);  // other users' processes may open it too
        struct stat st;
        if (plat::os_fails(VEK_OS_SHM) ? (errno = ENOLCK, true)
                                       : !ofd_lock(fd, F_WRLCK, kInitByte, true) || fstat(fd, &st) != 0) {
            int e = errno;
            close(fd);
            errno = e;
            return nullptr;
        }
        if (st.st_nlink == 0) {  // the last holder removed it meanwhile
            close(fd);
            continue;
        }
        *fresh = ofd_lock(fd, F_WRLCK, kRefByte, false);
        void* mem = MAP_FAILED;
        if (plat::os_fails(VEK_OS_SHM)) {
            errno = ENOSPC;
        } else if (*fresh ? ftruncate(fd, sizeof(pthread_mutex_t)) == 0
                          : st.st_size >= (off_t)sizeof(pthread_mutex_t)) {
            mem = mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        }
        Mapping* m = mem != MAP_FAILED ? (Mapping*)al_malloc(sizeof(Mapping)) : nullptr;
        if (!m || (*fresh && !init_shared_mutex((pthread_mutex_t*)mem))) {
            if (mem != MAP_FAILED) {
                munmap(mem, sizeof(pthread_mutex_t));
            }
            al_free(m);
            close(fd);
            errno = EINVAL;
            return nullptr;
        }
        ofd_lock(fd, F_RDLCK, kRefByte, false);  // our reference (an atomic downgrade when fresh)
        ofd_lock(fd, F_UNLCK, kInitByte, false);
        m->mtx = (pthread_mutex_t*)mem;
        m->fd = fd;
        m->refs = 1;
        m->owner = 0;
        m->depth = 0;
        std::snprintf(m->name, sizeof m->name, "%s", shmName);
        return m;
    }
}

Mapping* open_named(const vek_wchar* name, bool* fresh) {
    char shmName[NAME_MAX];
    shm_name(name, shmName, sizeof shmName);
    pthread_mutex_lock(&g_mapLk);
    Mapping* m = g_maps;
    while (m && std::strcmp(m->name, shmName) != 0) {
        m = m->next;
    }
    *fresh = false;
    if (m) {
        m->refs++;
    } else if ((m = map_named(shmName, fresh)) != nullptr) {
        m->next = g_maps;
        g_maps = m;
    }
    pthread_mutex_unlock(&g_mapLk);
    return m;
}

/* Drops a handle's reference; the process's last handle gives up the
 * object, and the system's last holder removes it. A mapping whose mutex a
 * live thread of this process still owns stays mapped, since that thread's
 * robust-mutex list points into it. */
void unmap_named(Mapping* m) {
    pthread_mutex_lock(&g_mapLk);
    if (--m->refs > 0) {
        pthread_mutex_unlock(&g_mapLk);
        return;
    }
    Mapping** pp = &g_maps;
    while (*pp != m) {
        pp = &(*pp)->next;
    }
    *pp = m->next;
    if (ofd_lock(m->fd, F_WRLCK, kInitByte, true) && ofd_lock(m->fd, F_WRLCK, kRefByte, false)) {
        struct stat st;
        if (fstat(m->fd, &st) == 0 && st.st_nlink > 0) {
            shm_unlink(m->name);
        }
    }
    close(m->fd);
    vek_u32 owner = __atomic_load_n(&m->owner, __ATOMIC_ACQUIRE);
    if (owner == 0 || !thread_alive(owner)) {
        munmap(m->mtx, sizeof(pthread_mutex_t));
    }
    pthread_mutex_unlock(&g_mapLk);
    al_free(m);
}

// ---- threads created by the library ----

struct ThrdRec {
    ThrdRec* next;
    void* startRec;
    pthread_cond_t cv;  // started / done
    vek_u32 tid;
    vek_s32 pins;       // open handles
    bool started;
    bool done;
};

pthread_mutex_t g_thrdLk = PTHREAD_MUTEX_INITIALIZER;
ThrdRec* g_thrds;

void* posix_start(void* p) {
    ThrdRec* r = (ThrdRec*)p;
    vek_u32 tid = al_thrd_id();
    pthread_mutex_lock(&g_thrdLk);
    r->tid = tid;
    r->started = true;
    pthread_cond_broadcast(&r->cv);
    pthread_mutex_unlock(&g_thrdLk);
    vek_u32 code = vek::thrd_start(r->startRec);
    pthread_mutex_lock(&g_thrdLk);
    r->done = true;
    pthread_cond_broadcast(&r->cv);
    pthread_mutex_unlock(&g_thrdLk);
    return (void*)(uintptr_t)code;
}

/* Under g_thrdLk: forgets records whose thread is gone from the system
 * and that no handle pins. Until then a finished thread still counts as
 * ended even though the kernel has not yet let it go. */
void prune_thrds() {
    for (ThrdRec** pp = &g_thrds; *pp;) {
        ThrdRec* r = *pp;
        if (r->done && r->pins == 0 && !thread_alive(r->tid)) {
            *pp = r->next;
            pthread_cond_destroy(&r->cv);
            al_free(r);
        } else {
            pp = &r->next;
        }
    }
}

ThrdRec* find_thrd(vek_u32 tid) {
    prune_thrds();
    for (ThrdRec* r = g_thrds; r; r = r->next) {
        if (r->started && r->tid == tid) {
            return r;
        }
    }
    return nullptr;
}

// A thread that the library did not create is a handle with the low bit set.
bool foreign(void* h) {
    return ((uintptr_t)h & 1) != 0;
}

} // namespace

namespace plat {

vek_handle event_create(vek_s32 manualReset, vek_s32 initialState) {
    ensure_init();
    Obj* o = new_obj(kTagEvent);
    if (o) {
        o->manual = manualReset != 0;
        o->signalled = initialState != 0;
    }
    return o;
}

static vek_s32 event_change(vek_handle evt, bool signal) {
    Obj* o = (Obj*)evt;
    pthread_mutex_lock(&g_lk);
    if (!o || o->tag != kTagEvent) {
        pthread_mutex_unlock(&g_lk);
        errno = EINVAL;
        return 0;
    }
    o->signalled = signal;
    Wakes wk;
    if (signal) {
        hand_over(o, &wk);
    }
    unlock_wake(wk);
    return 1;
}

vek_s32 event_set(vek_handle evt) {
    return event_change(evt, true);
}

vek_s32 event_reset(vek_handle evt) {
    return event_change(evt, false);
}

vek_handle mutex_create(const vek_wchar* name, vek_s32 initialOwner) {
    ensure_init();
    Obj* o = new_obj(name && name[0] ? kTagNamed : kTagMutex);
    if (!o) {
        return nullptr;
    }
    if (o->tag == kTagMutex) {
        if (initialOwner) {
            pthread_mutex_lock(&g_lk);
            take_mutex(o, al_thrd_id(), own_rec());
            pthread_mutex_unlock(&g_lk);
        }
        return o;
    }
    bool fresh = false;
    o->map = open_named(name, &fresh);
    if (!o->map) {
        int e = errno;
        vek_free__(o);
        errno = e;
        return nullptr;
    }
    if (fresh && initialOwner && pthread_mutex_lock(o->map->mtx) == 0) {
        named_taken(o->map, al_thrd_id(), false);
    }
    return o;
}

vek_s32 mutex_release(vek_handle mutex) {
    Obj* o = (Obj*)mutex;
    Wakes wk;
    pthread_mutex_lock(&g_lk);
    int err = 0;
    if (!o || (o->tag != kTagMutex && o->tag != kTagNamed)) {
        err = EINVAL;
    } else if (o->tag == kTagNamed) {
        err = named_unlock(o->map, al_thrd_id());
        if (!err) {
            hand_over(o, &wk);
        }
    } else if (o->owner != al_thrd_id() || o->count == 0) {
        err = EPERM;
    } else if (--o->count == 0) {
        drop_mutex(o);
        hand_over(o, &wk);
    }
    unlock_wake(wk);
    errno = err;
    return err == 0;
}

vek_s32 mutex_exists(const vek_wchar* name) {
    char shmName[NAME_MAX];
    shm_name(name, shmName, sizeof shmName);
    int fd = shm_open(shmName, O_RDWR | O_CLOEXEC, 0);
    if (fd < 0) {
        return errno == EACCES ? 1 : 0;
    }
    vek_s32 exists = 1;
    if (ofd_lock(fd, F_WRLCK, kInitByte, true) && ofd_lock(fd, F_WRLCK, kRefByte, false)) {
        // Nobody holds a handle: left behind by a process that died.
        struct stat st;
        if (fstat(fd, &st) == 0 && st.st_nlink > 0) {
            shm_unlink(shmName);
        }
        exists = 0;
    }
    close(fd);
    return exists;
}

vek_s32 handle_close(vek_handle hnd) {
    Obj* o = (Obj*)hnd;
    pthread_mutex_lock(&g_lk);
    if (!valid(o)) {
        pthread_mutex_unlock(&g_lk);
        errno = EINVAL;
        return 0;
    }
    if (o->tag == kTagMutex && o->count > 0) {
        drop_mutex(o);
    }
    o->tag = 0;
    bool last = --o->refs == 0;
    pthread_mutex_unlock(&g_lk);
    if (last) {
        release_obj(o);
    }
    return 1;
}

vek_u32 wait_any(const vek_handle* hnds, vek_s32 n, vek_s32 tmo, vek_s32) {
    ensure_init();
    if (!hnds || n < 1 || n > kMaxWait) {
        return fail(EINVAL);
    }
    Obj* objs[kMaxWait];
    WaitBlock blocks[kMaxWait];
    Waiter w(objs, blocks, -1);
    bool named = false;
    pthread_mutex_lock(&g_lk);
    for (vek_s32 i = 0; i < n; i++) {
        objs[i] = (Obj*)hnds[i];
        bool dup = false;
        for (vek_s32 k = 0; k < i; k++) {
            dup = dup || objs[k] == objs[i];
        }
        if (!valid(objs[i]) || dup) {  // Windows refuses duplicates, too
            pthread_mutex_unlock(&g_lk);
            return fail(EINVAL);
        }
        if (objs[i]->tag == kTagMutex && !w.owner) {
            w.owner = own_rec();
        }
        named = named || objs[i]->tag == kTagNamed;
    }
    for (vek_s32 i = 0; i < n; i++) {
        if (int r = acquire_now(objs[i], &w)) {
            pthread_mutex_unlock(&g_lk);
            return (r == 2 ? kWaitAbandoned0 : kWaitObject0) + (vek_u32)i;
        }
    }
    if (tmo == 0) {
        pthread_mutex_unlock(&g_lk);
        return kWaitTimeout;
    }

    w.n = n;
    for (vek_s32 i = 0; i < n; i++) {
        blocks[i].waiter = &w;
        blocks[i].index = i;
        objs[i]->refs++;
        link_block(objs[i], &blocks[i]);
    }
    struct timespec deadline = add_ms(mono_now(), tmo > 0 ? tmo : 0);
    vek_s64 slice = 1;
    vek_u32 res = kWaitTimeout;
    bool locked = true;
    for (;;) {
        if (w.state.load(std::memory_order_relaxed) == kFired) {  // under g_lk: ordered by it
            break;
        }
        int r = 0;
        vek_s32 i = 0;
        for (; named && i < n && !r; i++) {
            r = objs[i]->tag == kTagNamed ? acquire_now(objs[i], &w) : 0;
        }
        if (r) {
            res = (r == 2 ? kWaitAbandoned0 : kWaitObject0) + (vek_u32)(i - 1);
            unlink_all(&w);
            break;
        }
        struct timespec now = mono_now();
        if (tmo > 0 && !before(now, deadline)) {
            unlink_all(&w);
            break;
        }
        struct timespec wake = deadline;
        if (named) {  // a release in another process wakes nobody here: look again
            wake = add_ms(now, slice);
            slice = slice < 16 ? slice * 2 : 16;
            if (tmo > 0 && before(deadline, wake)) {
                wake = deadline;
            }
        }
        w.state.store(kAsleep, std::memory_order_relaxed);  // a poke is taken
        pthread_mutex_unlock(&g_lk);
        futex_wait(&w.state, kAsleep, named || tmo > 0 ? &wake : nullptr);
        if (w.state.load(std::memory_order_acquire) == kFired) {
            locked = false;  // its waker did the rest under g_lk
            break;
        }
        pthread_mutex_lock(&g_lk);
    }
    if (locked) {
        pthread_mutex_unlock(&g_lk);
    }
    if (w.fired >= 0) {
        res = (w.abandoned ? kWaitAbandoned0 : kWaitObject0) + (vek_u32)w.fired;
    }
    for (vek_s32 i = 0; i < n; i++) {
        if (--objs[i]->refs == 0) {  // closed while we waited
            release_obj(objs[i]);
        }
    }
    return res;
}

vek_u32 msg_wait_any(const vek_handle* hnds, vek_s32 n, vek_s32 tmo, vek_s32 alertable) {
    return wait_any(hnds, n, tmo, alertable);
}

static_assert(sizeof(PollFd) == sizeof(struct pollfd) && offsetof(PollFd, events) == offsetof(struct pollfd, events) &&
                  offsetof(PollFd, revents) == offsetof(struct pollfd, revents),
              "PollFd is struct pollfd");

} // namespace plat

namespace {

/* Under g_lk: an auto-reset signal taken by a wait that then reported its
 * descriptors goes back to the event (and to whoever waits for it). */
void give_back(Obj* o, Wakes* wk) {
    if (o->tag == kTagEvent && !o->manual) {
        o->signalled = true;
        hand_over(o, wk);
    }
}

/* The descriptors that poll() found ready among the first n. */
vek_s32 count_ready(const struct pollfd* pfd, vek_s32 n) {
    vek_s32 k = 0;
    for (vek_s32 i = 0; i < n; i++) {
        k += pfd[i].revents != 0;
    }
    return k;
}

/* Milliseconds from now to the deadline, rounded up so that poll() never
 * wakes before it; 0 once it has passed. */
int ms_until(const struct timespec& deadline) {
    struct timespec now = mono_now();
    if (!before(now, deadline)) {
        return 0;
    }
    vek_s64 ns = (vek_s64)(deadline.tv_sec - now.tv_sec) * 1000000000LL + (deadline.tv_nsec - now.tv_nsec);
    vek_s64 ms = (ns + 999999) / 1000000;
    return ms > INT_MAX ? INT_MAX : (int)ms;
}

void drain(int fd) {
    uint64_t n;
    ssize_t r = read(fd, &n, sizeof n);
    (void)r;  // EAGAIN: nothing to drain
}

} // namespace

namespace plat {

vek_u32 wait_fds(PollFd* fds, vek_s32 nfd, const vek_handle* hnds, vek_s32 nh, vek_s32 tmo, vek_s32* nReady) {
    ensure_init();
    *nReady = 0;
    if (!fds || nfd < 1 || nfd > kMaxFds || nh < 0 || nh > 2 || (nh > 0 && !hnds)) {
        return fail(EINVAL);
    }
    struct pollfd pfd[kMaxFds + 1];
    std::memcpy(pfd, fds, sizeof(PollFd) * (size_t)nfd);
    for (vek_s32 i = 0; i < nfd; i++) {
        pfd[i].revents = 0;
    }
    Obj* objs[2];
    WaitBlock blocks[2];
    Waiter w(objs, blocks, -1);
    Wakes wk;
    pthread_mutex_lock(&g_lk);
    for (vek_s32 i = 0; i < nh; i++) {
        objs[i] = (Obj*)hnds[i];
        if (!valid(objs[i]) || objs[i]->tag != kTagEvent || (i == 1 && objs[0] == objs[1])) {
            for (vek_s32 k = 0; k < i; k++) {
                objs[k]->refs--;  // the handle itself still holds one
            }
            pthread_mutex_unlock(&g_lk);
            return fail(EINVAL);
        }
        objs[i]->refs++;
    }
    // An event signalled already: the descriptors may still come first.
    vek_s32 pre = -1;
    for (vek_s32 i = 0; i < nh && pre < 0; i++) {
        pre = acquire_now(objs[i], &w) ? i : -1;
    }
    vek_u32 res = kWaitTimeout;
    int err = 0;
    bool locked = true;
    if (pre >= 0 || tmo == 0) {
        pthread_mutex_unlock(&g_lk);
        int r = poll(pfd, (nfds_t)nfd, 0);
        err = r < 0 ? errno : 0;
        res = r > 0 ? kWaitObject0 + (vek_u32)nh : r < 0 ? kWaitFailed : pre >= 0 ? kWaitObject0 + (vek_u32)pre : kWaitTimeout;
        pthread_mutex_lock(&g_lk);
        if (r != 0 && pre >= 0) {
            give_back(objs[pre], &wk);
        }
    } else if ((w.wakeFd = wake_fd()) < 0) {
        err = errno;
        res = kWaitFailed;
    } else {
        w.n = nh;
        for (vek_s32 i = 0; i < nh; i++) {
            blocks[i].waiter = &w;
            blocks[i].index = i;
            link_block(objs[i], &blocks[i]);
        }
        pthread_mutex_unlock(&g_lk);
        locked = false;
        pfd[nfd].fd = w.wakeFd;
        pfd[nfd].events = POLLIN;
        struct timespec deadline = add_ms(mono_now(), tmo > 0 ? tmo : 0);
        for (;;) {
            pfd[nfd].revents = 0;
            int r = poll(pfd, (nfds_t)nfd + 1, tmo < 0 ? -1 : ms_until(deadline));
            if (r < 0 && errno != EINTR) {
                err = errno;
                res = kWaitFailed;
                break;
            }
            if (r > 0 && count_ready(pfd, nfd) > 0) {
                res = kWaitObject0 + (vek_u32)nh;
                break;
            }
            if (r > 0) {  // woken: a handle fired, or a count left from an earlier wait
                drain(w.wakeFd);
                // The waker writes first and marks the waiter fired after it,
                // both under g_lk: under g_lk the mark is there if the write
                // was this wait's.
                pthread_mutex_lock(&g_lk);
                bool fired = w.state.load(std::memory_order_relaxed) == kFired;
                pthread_mutex_unlock(&g_lk);
                if (fired) {
                    break;
                }
            }
            if (r == 0 && tmo > 0 && ms_until(deadline) == 0) {
                break;
            }
        }
        pthread_mutex_lock(&g_lk);
        locked = true;
        if (w.state.load(std::memory_order_relaxed) != kFired) {
            unlink_all(&w);
        } else if (res == kWaitTimeout) {
            res = kWaitObject0 + (vek_u32)w.fired;
        } else {
            give_back(objs[w.fired], &wk);  // handed over too late: the descriptors won (or poll failed)
        }
        if (w.fired >= 0) {
            drain(w.wakeFd);  // written before it fired: the next wait starts clean
        }
    }
    if (locked) {
        unlock_wake(wk);
    }
    for (vek_s32 i = 0; i < nh; i++) {
        if (--objs[i]->refs == 0) {  // closed while we waited
            release_obj(objs[i]);
        }
    }
    if (res == kWaitObject0 + (vek_u32)nh) {
        for (vek_s32 i = 0; i < nfd; i++) {
            fds[i].revents = pfd[i].revents;
        }
        *nReady = count_ready(pfd, nfd);
    }
    if (res == kWaitFailed) {
        errno = err;
    }
    return res;
}

void disp_msg(void) {
}

vek_u32 last_error(void) {
    return (vek_u32)errno;
}

vek_u32 tls_alloc(void) {
    pthread_key_t k;
    return pthread_key_create(&k, nullptr) == 0 ? (vek_u32)k : kTlsNone;
}

vek_s32 tls_free(vek_u32 slot) {
    return pthread_key_delete((pthread_key_t)slot) == 0;
}

void* tls_get(vek_u32 slot) {
    return pthread_getspecific((pthread_key_t)slot);
}

vek_s32 tls_set(vek_u32 slot, void* value) {
    return pthread_setspecific((pthread_key_t)slot, value) == 0;
}

namespace {
pthread_key_t g_endKey;
bool g_endKeyOk;
} // namespace

vek_s32 thread_end_hook(void (*fn)(void* value)) {
    if (g_endKeyOk) {
        pthread_key_delete(g_endKey);
        g_endKeyOk = false;
    }
    g_endKeyOk = fn && pthread_key_create(&g_endKey, fn) == 0;
    return g_endKeyOk || !fn;
}

vek_s32 thread_end_set(void* value) {
    return g_endKeyOk && pthread_setspecific(g_endKey, value) == 0;
}

void* thread_end_get(void) {
    return g_endKeyOk ? pthread_getspecific(g_endKey) : nullptr;
}

void* thrd_create(void* startRec, vek_u32 stackSize, vek_u32* tid) {
    ensure_init();
    *tid = 0;
    ThrdRec* r = (ThrdRec*)al_malloc(sizeof(ThrdRec));
    if (!r) {
        errno = ENOMEM;
        return nullptr;
    }
    std::memset((void*)r, 0, sizeof *r);
    r->startRec = startRec;
    r->pins = 1;
    pthread_cond_init(&r->cv, &g_cvAttr);
    pthread_attr_t a;
    pthread_attr_init(&a);
    pthread_attr_setdetachstate(&a, PTHREAD_CREATE_DETACHED);
    if (stackSize > 0) {
        size_t page = (size_t)sysconf(_SC_PAGESIZE);
        size_t size = ((size_t)stackSize + page - 1) / page * page;
        size_t least = (size_t)PTHREAD_STACK_MIN;
        pthread_attr_setstacksize(&a, size < least ? least : size);
    }
    pthread_mutex_lock(&g_thrdLk);
    prune_thrds();
    r->next = g_thrds;
    g_thrds = r;
    pthread_t t;
    int e = plat::os_fails(VEK_OS_THREAD) ? EAGAIN : pthread_create(&t, &a, posix_start, r);
    pthread_attr_destroy(&a);
    if (e != 0) {
        g_thrds = r->next;
        pthread_mutex_unlock(&g_thrdLk);
        pthread_cond_destroy(&r->cv);
        al_free(r);
        errno = e;
        return nullptr;
    }
    while (!r->started) {
        pthread_cond_wait(&r->cv, &g_thrdLk);
    }
    *tid = r->tid;
    pthread_mutex_unlock(&g_thrdLk);
    return r;
}

void* thrd_open(vek_u32 tid, vek_s32) {
    pthread_mutex_lock(&g_thrdLk);
    ThrdRec* r = find_thrd(tid);
    bool known = r != nullptr;
    if (r && r->done) {
        r = nullptr;  // finished: ended, even while the kernel still lets it go
    } else if (r) {
        r->pins++;
    }
    pthread_mutex_unlock(&g_thrdLk);
    if (known) {
        errno = ESRCH;
        return r;
    }
    if (tid == 0 || !thread_alive(tid)) {
        errno = ESRCH;
        return nullptr;
    }
    return (void*)(((uintptr_t)tid << 1) | 1);
}

vek_u32 thrd_wait(void* thrd, vek_s32 tmo) {
    if (!thrd) {
        return fail(EINVAL);
    }
    struct timespec deadline = add_ms(mono_now(), tmo > 0 ? tmo : 0);
    if (foreign(thrd)) {
        vek_u32 tid = (vek_u32)((uintptr_t)thrd >> 1);
        for (;;) {
            if (!thread_alive(tid)) {
                return kWaitObject0;
            }
            if (tmo >= 0 && !before(mono_now(), deadline)) {
                return kWaitTimeout;
            }
            al_sleep(1);
        }
    }
    ThrdRec* r = (ThrdRec*)thrd;
    pthread_mutex_lock(&g_thrdLk);
    while (!r->done && tmo != 0) {
        if (tmo < 0) {
            pthread_cond_wait(&r->cv, &g_thrdLk);
        } else if (pthread_cond_timedwait(&r->cv, &g_thrdLk, &deadline) == ETIMEDOUT) {
            break;
        }
    }
    bool done = r->done;
    pthread_mutex_unlock(&g_thrdLk);
    return done ? kWaitObject0 : kWaitTimeout;
}

vek_s32 thrd_close(void* thrd) {
    if (!thrd) {
        errno = EINVAL;
        return 0;
    }
    if (!foreign(thrd)) {
        pthread_mutex_lock(&g_thrdLk);
        ((ThrdRec*)thrd)->pins--;
        pthread_mutex_unlock(&g_thrdLk);
    }
    return 1;
}

} // namespace plat
