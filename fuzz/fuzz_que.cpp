/*
 * The rings and packet buffers driven by the input as a program of
 * operations, each checked against a plain model: a std::deque for ByteQue
 * (own or caller storage) and PtrQue; for ProtBuf, a byte model of each
 * shared storage with every record's window on it, clones and deletes in
 * any order, and a ProtBufList against a deque of the buffers it holds.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>
#include "BaseLib.h"
#include "FuzzReader.h"

namespace {

using vekfuzz::Reader;

void expect(bool ok) {
    if (!ok) {
        std::abort();
    }
}

std::string bytes_of(uint32_t n, uint32_t seed) {
    std::string s(n, '\0');
    for (uint32_t i = 0; i < n; i++) {
        s[i] = (char)(seed + i * 31);
    }
    return s;
}

void byte_que(Reader& r) {
    vek_s32 capa = (vek_s32)(r.byte() % 70);
    std::vector<char> own((size_t)capa + 1);
    ByteQue local;
    ByteQue* q = r.byte() & 1 ? ByteQue_newx(&local, own.data(), capa + 1) : ByteQue_new(nullptr, capa);
    std::deque<char> model;
    char buf[256];
    for (int step = 0; step < 200 && r.more(); step++) {
        uint32_t op = r.byte() % 10;
        vek_s32 n = (vek_s32)(r.byte() % 100);
        vek_s32 held = (vek_s32)model.size();
        vek_s32 room = capa - held;
        std::string in = bytes_of((uint32_t)n, (uint32_t)step);
        vek_s32 got = 0;
        switch (op) {
        case 0:
            expect(ByteQue_put(q, (vek_u8)n) == (room > 0));
            if (room > 0) {
                model.push_back((char)n);
            }
            break;
        case 1:
            got = ByteQue_puts(q, in.data(), n);
            expect(got == (n < room ? n : room));
            model.insert(model.end(), in.begin(), in.begin() + got);
            break;
        case 2:
            got = ByteQue_putf(q, in.data(), n);
            expect(got == (n <= room ? n : 0));
            model.insert(model.end(), in.begin(), in.begin() + got);
            break;
        case 3:
        case 4:
            got = op == 3 ? ByteQue_gets(q, buf, n) : ByteQue_peeks(q, buf, n);
            expect(got == (n < held ? n : held) && std::equal(buf, buf + got, model.begin()));
            if (op == 3) {
                model.erase(model.begin(), model.begin() + got);
            }
            break;
        case 5:
            got = ByteQue_skip(q, n);
            expect(got == (n < held ? n : held));
            model.erase(model.begin(), model.begin() + got);
            break;
        case 6:
        case 7: {
            vek_s32 want = held ? (vek_s32)(vek_u8)model.front() : VEK_ERR_QUEUE_EMPTY;
            expect((op == 6 ? ByteQue_peek(q) : ByteQue_get(q)) == want);
            if (op == 7 && held) {
                model.pop_front();
            }
            break;
        }
        case 8:
            ByteQue_clear(q);
            model.clear();
            break;
        default:
            expect(ByteQue_capa(q) == capa);
        }
        expect(ByteQue_size(q) == (vek_s32)model.size());
    }
    ByteQue_delete(q);
}

void ptr_que(Reader& r) {
    vek_s32 capa = (vek_s32)(r.byte() % 20);
    PtrQue* q = PtrQue_new(nullptr, capa);
    std::deque<void*> model;
    for (int step = 1; step < 200 && r.more(); step++) {
        void* p = (void*)(uintptr_t)(step * 16);
        switch (r.byte() % 4) {
        case 0:
        case 1:
            expect(PtrQue_put(q, p) == ((vek_s32)model.size() < capa));
            if ((vek_s32)model.size() < capa) {
                model.push_back(p);
            }
            break;
        case 2:
            expect(PtrQue_peek(q) == (model.empty() ? nullptr : model.front()));
            expect(PtrQue_get(q) == (model.empty() ? nullptr : model.front()));
            if (!model.empty()) {
                model.pop_front();
            }
            break;
        default:
            if (r.byte() % 8 == 0) {
                PtrQue_clear(q, nullptr);
                model.clear();
            }
        }
        expect(PtrQue_size(q) == (vek_s32)model.size() && PtrQue_capa(q) == capa);
    }
    PtrQue_delete(q);
}

// One record's view of a storage that several records may share.
struct PbModel {
    ProtBuf* pb;
    std::shared_ptr<std::string> store;  // bytes from head to end
    uint32_t off, len;                   // data - head, len
    bool listed;
};

void check(const PbModel& m) {
    expect(m.pb->len == m.len && m.pb->data == m.pb->head + m.off && m.pb->tail == m.pb->data + m.len &&
           std::memcmp(m.pb->data, m.store->data() + m.off, m.len) == 0);
}

void prot_bufs(Reader& r) {
    std::vector<PbModel> live;
    live.reserve(16);  // m stays valid across a push_back
    ProtBufList list;
    ProtBufList_init(&list);
    std::deque<ProtBuf*> queued;
    for (int step = 0; step < 200 && r.more(); step++) {
        uint32_t op = r.byte() % 9;
        uint32_t n = r.byte() % 80;
        PbModel* m = live.empty() ? nullptr : &live[r.byte() % live.size()];
        if (op == 0 || !m) {
            if (live.size() < 12) {
                ProtBuf* pb = ProtBuf_new(n);
                std::memset(pb->head, 0, n + 16);
                live.push_back({pb, std::make_shared<std::string>(n + 16, '\0'), 16, 0, false});
            }
            continue;
        }
        uint32_t cap = (uint32_t)m->store->size();
        switch (op) {
        case 1: {
            vek_u8* at = ProtBuf_put(m->pb, n);
            bool fits = cap - (m->off + m->len) >= n;
            expect((at != nullptr) == fits);
            if (fits) {
                std::string in = bytes_of(n, (uint32_t)step);
                std::memcpy(at, in.data(), n);
                m->store->replace(m->off + m->len, n, in);
                m->len += n;
            }
            break;
        }
        case 2:
            if (n <= m->off) {  // push stays within what is in front of data
                expect(ProtBuf_push(m->pb, n) == m->pb->head + m->off - n);
                m->off -= n;
                m->len += n;
            }
            break;
        case 3:
            expect((ProtBuf_pull(m->pb, n) != nullptr) == (n <= m->len));
            if (n <= m->len) {
                m->off += n;
                m->len -= n;
            }
            break;
        case 4:
            ProtBuf_trim(m->pb, n);
            m->len = m->len > n ? n : m->len;
            break;
        case 5:
            if (live.size() < 12) {
                PbModel c = *m;
                c.pb = ProtBuf_clone(m->pb);
                c.listed = false;
                live.push_back(c);
            }
            break;
        case 6:
            if (m->listed) {
                ProtBufList_unlink(m->pb);
                for (auto it = queued.begin(); it != queued.end(); ++it) {
                    if (*it == m->pb) {
                        queued.erase(it);
                        break;
                    }
                }
            }
            ProtBuf_delete(m->pb);
            *m = live.back();
            live.pop_back();
            continue;
        case 7:
            if (!m->listed) {
                if (n & 1) {
                    ProtBufList_queueTail(&list, m->pb);
                    queued.push_back(m->pb);
                } else {
                    ProtBufList_queueHead(&list, m->pb);
                    queued.push_front(m->pb);
                }
                m->listed = true;
            }
            break;
        default: {
            bool tail = n & 1;
            ProtBuf* want = queued.empty() ? nullptr : tail ? queued.back() : queued.front();
            expect((tail ? ProtBufList_peekTail(&list) : ProtBufList_peek(&list)) == want);
            if (n & 2) {
                expect((tail ? ProtBufList_dequeueTail(&list) : ProtBufList_dequeue(&list)) == want);
                if (want) {
                    tail ? queued.pop_back() : queued.pop_front();
                    for (auto& x : live) {
                        x.listed = x.listed && x.pb != want;
                    }
                }
            }
        }
        }
        if (!live.empty()) {
            check(*m);
        }
        expect(list.len == queued.size());
    }
    for (auto& m : live) {
        check(m);
        if (m.listed) {
            ProtBufList_unlink(m.pb);
        }
        ProtBuf_delete(m.pb);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader r{data, size};
    switch (r.byte() % 3) {
    case 0:
        byte_que(r);
        break;
    case 1:
        ptr_que(r);
        break;
    default:
        prot_bufs(r);
    }
    return 0;
}
