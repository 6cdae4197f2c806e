/*
 * TestStrm.cpp - a memory stream that misbehaves on purpose.
 *
 * The bytes and the position live in a MemStrm inside the record; every
 * operation narrows or refuses what is asked according to the
 * configuration and then lets the memory stream do the work, so apart
 * from the faults the test stream is exactly a memory stream.
 */
#include <cstdint>
#include <cstring>
#include "ObjModel.h"
#include "VekStrm.h"

namespace {

const char kSrc[] = __FILE__;
const VekGuid kIidIStrm = VEK_IID_ISTRM_INIT;

using TestCls = vek::ObjClass<TestStrm, IStrm, VEK_CLS_TESTSTRM, TestStrm_delete, &kIidIStrm, kSrc>;

IStrm* mem_of(TestStrm* t) {
    return VEK_OBJ_ITF(IStrm, &t->mem);
}

vek_s32 fail_code(const TestStrm* t) {
    return t->cfg.err ? t->cfg.err : VEK_ERR_ABORTED;
}

// Bytes left before a limit: the limit minus what was counted, or
// "no limit" for a negative limit.
vek_s64 left_of(vek_s64 limit, vek_s64 done) {
    return limit < 0 ? INT64_MAX : limit - done;
}

// How many of want bytes a read may hand out now: 0 at the early end or
// the read limit, which the caller tells apart.
vek_s64 read_room(TestStrm* t, vek_s64 want) {
    vek_s64 n = want;
    if (t->cfg.readChunk > 0 && n > t->cfg.readChunk) {
        n = t->cfg.readChunk;
    }
    if (t->cfg.eofAt >= 0) {
        vek_s64 toEnd = t->cfg.eofAt - IStrm_tell(mem_of(t));
        n = toEnd < n ? toEnd : n;
    }
    vek_s64 toFail = left_of(t->cfg.readFailAt, t->stat.bytesRead);
    n = toFail < n ? toFail : n;
    return n < 0 ? 0 : n;
}

bool read_failed(const TestStrm* t) {
    return left_of(t->cfg.readFailAt, t->stat.bytesRead) <= 0;
}

vek_s32 ts_putc(IStrm* s, vek_s32 byte) {
    TestStrm* t = TestCls::self(s, __LINE__);
    if (left_of(t->cfg.writeFailAt, t->stat.bytesWritten) <= 0) {
        return fail_code(t);
    }
    vek_s32 r = IStrm_putc(mem_of(t), byte);
    if (r == 0) {
        t->stat.bytesWritten++;
    }
    return r;
}

vek_s32 ts_getc(IStrm* s) {
    TestStrm* t = TestCls::self(s, __LINE__);
    if (read_failed(t)) {
        return fail_code(t);
    }
    if (read_room(t, 1) < 1) {
        return VEK_ERR_EOF;
    }
    vek_s32 c = IStrm_getc(mem_of(t));
    if (c >= 0) {
        t->stat.bytesRead++;
    }
    return c;
}

vek_s32 ts_ungetc(IStrm* s) {
    return IStrm_ungetc(mem_of(TestCls::self(s, __LINE__)));
}

vek_s32 ts_read(IStrm* s, void* buf, vek_s32 bufLen) {
    TestStrm* t = TestCls::self(s, __LINE__);
    if (!buf || bufLen <= 0) {
        VEK_ASSERT(buf && bufLen > 0);
        return 0;
    }
    t->stat.reads++;
    if (read_failed(t)) {
        return fail_code(t);
    }
    vek_s64 n = read_room(t, bufLen);
    if (n <= 0) {
        return 0;
    }
    vek_s32 r = IStrm_read(mem_of(t), buf, (vek_s32)n);
    if (r > 0) {
        t->stat.bytesRead += r;
    }
    return r;
}

vek_s32 ts_write(IStrm* s, const void* data, vek_s32 dataLen) {
    TestStrm* t = TestCls::self(s, __LINE__);
    if (!data || dataLen <= 0) {
        VEK_ASSERT(data && dataLen > 0);
        return 0;
    }
    t->stat.writes++;
    vek_s64 toFail = left_of(t->cfg.writeFailAt, t->stat.bytesWritten);
    if (toFail <= 0) {
        return fail_code(t);
    }
    vek_s32 n = dataLen;
    if (t->cfg.writeChunk > 0 && n > t->cfg.writeChunk) {
        n = t->cfg.writeChunk;
    }
    bool failing = toFail < n;
    if (failing) {
        n = (vek_s32)toFail;  // the bytes up to the limit land, then the failure
    }
    vek_s32 r = IStrm_write(mem_of(t), data, n);
    if (r > 0) {
        t->stat.bytesWritten += r;
    }
    return r >= 0 && failing ? fail_code(t) : r;
}

vek_s32 ts_seek(IStrm* s, vek_s64 offset, vek_s32 origin) {
    return IStrm_seek(mem_of(TestCls::self(s, __LINE__)), offset, origin);
}

vek_s64 ts_tell(IStrm* s) {
    return IStrm_tell(mem_of(TestCls::self(s, __LINE__)));
}

vek_s32 ts_flush(IStrm* s) {
    return IStrm_flush(mem_of(TestCls::self(s, __LINE__)));
}

vek_s64 ts_size(IStrm* s) {
    return IStrm_size(mem_of(TestCls::self(s, __LINE__)));
}

vek_s32 ts_clear(IStrm* s) {
    return IStrm_clear(mem_of(TestCls::self(s, __LINE__)));
}

vek_s32 ts_set_size(IStrm* s, vek_s64 newLen) {
    return IStrm_setSize(mem_of(TestCls::self(s, __LINE__)), newLen);
}

const char* ts_class_name(IStrm* s) {
    TestCls::self(s, __LINE__);
    return "TestStrm";
}

const IStrmVtbl kTestStrmVtbl = {
    TestCls::queryItf, TestCls::addRef, TestCls::release, ts_putc,  ts_getc,
    ts_ungetc,         ts_read,         ts_write,         ts_seek,  ts_tell,
    ts_flush,          ts_size,         ts_clear,         ts_set_size, ts_class_name,
};

void no_faults(TestStrmCfg* c) {
    std::memset(c, 0, sizeof *c);
    c->readFailAt = c->writeFailAt = c->eofAt = -1;
}

} // namespace

extern "C" {

VEK_API TestStrm* TestStrm_new(TestStrm* mem, const void* data, vek_s32 len) {
    TestStrm* t = (TestStrm*)vek::obj_storage(mem, sizeof(TestStrm), VEK_CLS_TESTSTRM);
    if (!t) {
        return nullptr;
    }
    t->vtbl = &kTestStrmVtbl;
    MemStrm_new(&t->mem, 0);
    no_faults(&t->cfg);
    if (data && len < 0) {
        len = (vek_s32)std::strlen((const char*)data);
    }
    if (data && len > 0) {
        IStrm* m = mem_of(t);
        if (IStrm_write(m, data, len) != len) {
            TestStrm_delete(t);
            return nullptr;
        }
        IStrm_seek(m, 0, 0);
    }
    return t;
}

VEK_API IStrm* TestStrm_xcreatex__(TestStrm* mem, const void* data, vek_s32 len, const char*,
                                   vek_s32) {
    TestStrm* t = TestStrm_new(mem, data, len);
    if (!t) {
        return nullptr;
    }
    IStrm* s = TestCls::itf(t);
    vek::obj_add_ref(s);
    return s;
}

VEK_API void TestStrm_delete(TestStrm* obj) {
    TestStrm* t = TestCls::from_obj(obj, __LINE__);
    MemStrm_delete(&t->mem);
    vek::obj_dispose(t);
}

VEK_API vek_s32 TestStrm_setCfg(IStrm* strm, const TestStrmCfg* cfg) {
    TestStrm* t = TestCls::self(strm, __LINE__);
    if (cfg) {
        t->cfg = *cfg;
    } else {
        no_faults(&t->cfg);
    }
    std::memset(&t->stat, 0, sizeof t->stat);
    return 0;
}

VEK_API vek_s32 TestStrm_getStat(IStrm* strm, TestStrmStat* out) {
    TestStrm* t = TestCls::self(strm, __LINE__);
    if (!out) {
        VEK_ASSERT(out);
        return VEK_ERR_BAD_ARG;
    }
    *out = t->stat;
    return 0;
}

VEK_API vek_s32 TestStrm_peek(IStrm* strm, vek_s64 off, void* buf, vek_s32 len) {
    TestStrm* t = TestCls::self(strm, __LINE__);
    if (off < 0 || len < 0 || (!buf && len > 0)) {
        VEK_ASSERT(off >= 0 && (buf || len == 0));
        return VEK_ERR_BAD_ARG;
    }
    IStrm* m = mem_of(t);
    vek_s64 pos = IStrm_tell(m);
    if (len == 0 || IStrm_seek(m, off, 0) != 0) {
        return 0;
    }
    vek_s32 r = IStrm_read(m, buf, len);
    IStrm_seek(m, pos, 0);
    return r;
}

} // extern "C"
