/*
 * VekQue.cpp - the pointer and byte rings.
 *
 * Both rings keep one slot free so that the two indices alone tell empty
 * from full. Block operations move at most two pieces: up to the end of the
 * storage, then the rest from its start. The queue is called _this so that
 * the index check reads the same in the code and in its assertion text.
 */
#include <cstring>
#include "TagRec.h"
#include "VekQue.h"
#include "VekTrc.h"

namespace {

const char kSrc[] = __FILE__;

PtrQue* ptr_que(PtrQue* q, vek_s32 line) {
    return vek::tag_check(q, PTRQUE_TAG, kSrc, line);
}

ByteQue* byte_que(ByteQue* q, vek_s32 line) {
    return vek::tag_check(q, BYTEQUE_TAG, kSrc, line);
}

// Entries between head and tail, without any check.
template <class Q>
vek_s32 used(const Q* _this) {
    vek_s32 d = _this->tail - _this->head;
    return d < 0 ? d + _this->bufSize : d;
}

// The index check: tail - head must lie strictly between -bufSize and
// bufSize (one unsigned comparison).
template <class Q>
inline bool indices_broken(const Q* _this) {
    vek_u32 err = (vek_u32)(_this->tail - _this->head);
    vek_u32 bs = (vek_u32)_this->bufSize;
    return __builtin_expect(err + bs - 1u > bs * 2u - 2u, 0);
}

// A broken index pair: traced and asserted (out of line, off the fast path).
template <class Q>
[[gnu::cold, gnu::noinline]] void report_broken(Q* _this) {
    vek_s32 err = _this->tail - _this->head;
    vek_printf("fault err(%d,t=%d,h=%d,bs=%d,p=%p)", (int)err, (int)_this->tail, (int)_this->head,
               (int)_this->bufSize, (void*)_this);
    VEK_ASSERT(err > -_this->bufSize && err < _this->bufSize);
}

// The entries after the index check; a broken pair is reported, and the
// count is then computed all the same.
template <class Q>
vek_s32 checked_used(Q* _this) {
    if (indices_broken(_this)) {
        report_broken(_this);
    }
    return used(_this);
}

// One entry at tail when there is room and tail lies inside the storage (a
// broken tail must not send the write outside it): 1, else 0.
template <class Q, class V>
inline vek_s32 put_one(Q* _this, V* slots, V v, vek_s32 capa) {
    vek_s32 t = _this->tail, bs = _this->bufSize;
    if (used(_this) >= capa || (vek_u32)t >= (vek_u32)bs) {
        return 0;
    }
    slots[t] = v;
    _this->tail = t + 1 == bs ? 0 : t + 1;
    return 1;
}

template <class Q, class V>
[[gnu::cold, gnu::noinline]] vek_s32 put_reported(Q* _this, V* slots, V v, vek_s32 capa) {
    report_broken(_this);
    return put_one(_this, slots, v, capa);
}

// put checks the indices as size does; the check's slow path is a tail call
// so that the common case runs without a stack frame.
template <class Q, class V>
inline vek_s32 ring_put(Q* _this, V* slots, V v, vek_s32 capa) {
    if (indices_broken(_this)) {
        return put_reported(_this, slots, v, capa);
    }
    return put_one(_this, slots, v, capa);
}

inline vek_s32 advance(vek_s32 idx, vek_s32 n, vek_s32 bufSize) {
    idx += n;
    return idx >= bufSize ? idx - bufSize : idx;
}

// n bytes out of the ring from index at, in at most two pieces.
void ring_read(const ByteQue* q, vek_s32 at, vek_u8* dst, vek_s32 n) {
    vek_s32 first = q->bufSize - at < n ? q->bufSize - at : n;
    std::memcpy(dst, q->buf + at, (size_t)first);
    if (n > first) {
        std::memcpy(dst + first, q->buf, (size_t)(n - first));
    }
}

void ring_write(ByteQue* q, const vek_u8* src, vek_s32 n) {
    vek_s32 first = q->bufSize - q->tail < n ? q->bufSize - q->tail : n;
    std::memcpy(q->buf + q->tail, src, (size_t)first);
    if (n > first) {
        std::memcpy(q->buf, src + first, (size_t)(n - first));
    }
    q->tail = advance(q->tail, n, q->bufSize);
}

// Copies up to n queued bytes to dst and, when remove is set, takes them out.
// Short runs go byte by byte: below 16 bytes the two memcpy calls cost more
// than the loop.
vek_s32 take(ByteQue* q, void* dst, vek_s32 n, bool remove) {
    vek_s32 avail = used(q);
    n = n < avail ? n : avail;
    if (n <= 0) {
        return 0;
    }
    if (!dst) {
        VEK_ASSERT(dst);
        return 0;
    }
    vek_s32 at = q->head;
    vek_u8* out = (vek_u8*)dst;
    if (n >= 16) {
        ring_read(q, at, out, n);
        at = advance(at, n, q->bufSize);
    } else {
        for (vek_s32 i = 0; i < n; i++) {
            out[i] = q->buf[at];
            at = advance(at, 1, q->bufSize);
        }
    }
    if (remove) {
        q->head = at;
    }
    return n;
}

vek_s32 store(ByteQue* q, const void* src, vek_s32 n, bool whole) {
    vek_s32 room = q->capa - used(q);
    if (n <= 0 || room <= 0 || (whole && room < n)) {
        return 0;
    }
    if (!src) {
        VEK_ASSERT(src);
        return 0;
    }
    n = n < room ? n : room;
    ring_write(q, (const vek_u8*)src, n);
    return n;
}

} // namespace

extern "C" {

/* ---- PtrQue ---- */

VEK_API PtrQue* PtrQue_new(PtrQue* que, vek_s32 capa) {
    PtrQue* _this = vek::tag_storage(que, PTRQUE_TAG);
    if (!_this) {
        return nullptr;
    }
    if (capa < 0) {
        VEK_ASSERT(capa >= 0);
        capa = 0;
    }
    _this->buf = (void**)vek_malloc__(sizeof(void*) * ((size_t)capa + 1));
    // Without slots the queue stays usable with capacity 0: it is always
    // full and always empty, and never touches buf.
    _this->bufSize = _this->buf ? capa + 1 : 1;
    return _this;
}

VEK_API void PtrQue_delete(PtrQue* que) {
    PtrQue* _this = ptr_que(que, __LINE__);
    vek_free__(_this->buf);
    _this->buf = nullptr;
    vek::obj_dispose(_this);
}

VEK_API vek_s32 PtrQue_size(PtrQue* que) {
    return checked_used(ptr_que(que, __LINE__));
}

VEK_API vek_s32 PtrQue_capa(PtrQue* que) {
    return ptr_que(que, __LINE__)->bufSize - 1;
}

VEK_API void PtrQue_clear(PtrQue* que, PtrQueDelFunc delFunc) {
    PtrQue* _this = ptr_que(que, __LINE__);
    if (delFunc) {
        for (vek_s32 n = used(_this); n > 0; n--) {
            void* p = _this->buf[_this->head];
            _this->head = advance(_this->head, 1, _this->bufSize);
            delFunc(p);
        }
    }
    _this->head = _this->tail = 0;
}

VEK_API void* PtrQue_get(PtrQue* que) {
    PtrQue* _this = ptr_que(que, __LINE__);
    if (_this->head == _this->tail) {
        return nullptr;
    }
    void* p = _this->buf[_this->head];
    _this->head = advance(_this->head, 1, _this->bufSize);
    return p;
}

VEK_API void* PtrQue_peek(PtrQue* que) {
    PtrQue* _this = ptr_que(que, __LINE__);
    return _this->head == _this->tail ? nullptr : _this->buf[_this->head];
}

VEK_API vek_s32 PtrQue_put(PtrQue* que, void* ptr) {
    PtrQue* _this = ptr_que(que, __LINE__);
    return ring_put(_this, _this->buf, ptr, _this->bufSize - 1);
}

/* ---- ByteQue ---- */

VEK_API ByteQue* ByteQue_new(ByteQue* que, vek_s32 capa) {
    ByteQue* _this = vek::tag_storage(que, BYTEQUE_TAG);
    if (!_this) {
        return nullptr;
    }
    if (capa < 0) {
        VEK_ASSERT(capa >= 0);
        capa = 0;
    }
    _this->buf = (vek_u8*)vek_malloc__((size_t)capa + 4);
    _this->own = 1;
    // Without storage the ring has capacity 0 and never touches buf.
    _this->capa = _this->buf ? capa : 0;
    _this->bufSize = _this->capa + 1;
    return _this;
}

VEK_API ByteQue* ByteQue_newx(ByteQue* que, void* buf, vek_s32 size) {
    ByteQue* _this = vek::tag_storage(que, BYTEQUE_TAG);
    if (!_this) {
        return nullptr;
    }
    if (!(buf && size >= 1)) {
        VEK_ASSERT(buf && size >= 1);
        buf = nullptr;
        size = 1;
    }
    _this->buf = (vek_u8*)buf;
    _this->own = 0;
    _this->bufSize = size;
    _this->capa = size - 1;
    return _this;
}

VEK_API void ByteQue_delete(ByteQue* que) {
    ByteQue* _this = byte_que(que, __LINE__);
    if (_this->own) {
        vek_free__(_this->buf);
    }
    _this->buf = nullptr;
    vek::obj_dispose(_this);
}

VEK_API vek_s32 ByteQue_size(ByteQue* que) {
    return checked_used(byte_que(que, __LINE__));
}

VEK_API vek_s32 ByteQue_capa(ByteQue* que) {
    return byte_que(que, __LINE__)->capa;
}

VEK_API void ByteQue_clear(ByteQue* que) {
    ByteQue* _this = byte_que(que, __LINE__);
    _this->head = _this->tail = 0;
}

VEK_API vek_s32 ByteQue_get(ByteQue* que) {
    ByteQue* _this = byte_que(que, __LINE__);
    if (_this->head == _this->tail) {
        return VEK_ERR_QUEUE_EMPTY;
    }
    vek_s32 b = _this->buf[_this->head];
    _this->head = advance(_this->head, 1, _this->bufSize);
    return b;
}

VEK_API vek_s32 ByteQue_peek(ByteQue* que) {
    ByteQue* _this = byte_que(que, __LINE__);
    return _this->head == _this->tail ? VEK_ERR_QUEUE_EMPTY : (vek_s32)_this->buf[_this->head];
}

VEK_API vek_s32 ByteQue_gets(ByteQue* que, void* dst, vek_s32 n) {
    return take(byte_que(que, __LINE__), dst, n, true);
}

VEK_API vek_s32 ByteQue_peeks(ByteQue* que, void* dst, vek_s32 n) {
    return take(byte_que(que, __LINE__), dst, n, false);
}

VEK_API vek_s32 ByteQue_skip(ByteQue* que, vek_s32 n) {
    ByteQue* _this = byte_que(que, __LINE__);
    vek_s32 avail = used(_this);
    n = n < avail ? n : avail;
    if (n <= 0) {
        return 0;
    }
    _this->head = advance(_this->head, n, _this->bufSize);
    return n;
}

VEK_API vek_s32 ByteQue_put(ByteQue* que, vek_u8 byte) {
    ByteQue* _this = byte_que(que, __LINE__);
    return ring_put(_this, _this->buf, byte, _this->capa);
}

VEK_API vek_s32 ByteQue_puts(ByteQue* que, const void* src, vek_s32 n) {
    return store(byte_que(que, __LINE__), src, n, false);
}

VEK_API vek_s32 ByteQue_putf(ByteQue* que, const void* src, vek_s32 n) {
    return store(byte_que(que, __LINE__), src, n, true);
}

} // extern "C"
