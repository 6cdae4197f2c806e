/*
 * VekStrm.cpp - the stream classes: MemStrm (a chain of fixed-size blocks),
 * FileStrm (one OS-layer file), StrStrm (read-only over caller bytes) and
 * CstrStrm (read-write over a caller's VekStr).
 *
 * Each class is a record of the object model (ObjModel.h) whose first three
 * words are the class word, the count and the IStrm table; the common slots
 * come from ObjClass. In the memory stream the object is called _this so
 * that its invariant checks read the same in the code and in the assertion
 * texts they raise.
 */
#include <cstring>
#include "ObjModel.h"
#include "Utf8Seq.h"
#include "VekStrm.h"
#include "VekTrc.h"

namespace {

const char kSrc[] = __FILE__;
const VekGuid kIidIStrm = VEK_IID_ISTRM_INIT;

bool str_noo(const char* s) {
    return !s || !*s;
}

/* ---------------------------------------------------------------- MemStrm */

using MemCls = vek::ObjClass<MemStrm, IStrm, VEK_CLS_MEMSTRM, MemStrm_delete, &kIidIStrm, kSrc>;

constexpr vek_s32 kDefBlk = 1024;

void mem_forget_chain(MemStrm* _this) {
    _this->hdr = _this->tail = _this->cur = nullptr;
    _this->len = _this->off = 0;
    _this->curOff = 0;
}

void mem_free_chain(VekData* blk) {
    while (blk) {
        blk = VekData_delete(blk);
    }
}

// Moves the position from the end of cur's bytes onto the start of the
// following block. Only a full block may have a successor, and a missing
// successor while the length says more data follows ends the step.
bool mem_step(MemStrm* _this) {
    VEK_ASSERT(_this->cur->len == _this->cur->size);
    if (!_this->cur->next) {
        VEK_ASSERT(_this->cur->next);
        return false;
    }
    _this->cur = _this->cur->next;
    _this->curOff = 0;
    return true;
}

// Makes room for at least one byte at the position: the first block, the
// next block of the chain, or a new block behind the last one.
bool mem_room(MemStrm* _this) {
    if (!_this->cur) {
        VekData* blk = VekData_newSize(_this->blk);
        if (blk) {
            _this->hdr = _this->tail = _this->cur = blk;
            _this->curOff = 0;
        }
    } else if (_this->curOff >= (int)_this->cur->size) {
        if (_this->cur->next) {
            mem_step(_this);
        } else {
            VEK_ASSERT(_this->tail == _this->cur);
            VekData* blk = VekData_newSize(_this->blk);
            if (blk) {
                // Linking behind cur keeps the chain whole even when tail
                // was wrong.
                _this->cur->next = blk;
                _this->tail = _this->cur = blk;
                _this->curOff = 0;
            }
        }
    }
    if (!(_this->cur && _this->curOff < (int)_this->cur->size)) {
        VEK_ASSERT(_this->cur && _this->curOff < (int)_this->cur->size);
        return false;
    }
    return true;
}

// Sets the position to target, which must lie in 0..len: the two ends
// directly, anything else by walking forward (from the first block when the
// target lies behind the position).
vek_s32 mem_goto(MemStrm* _this, vek_s64 target) {
    if (target < 0 || target > _this->len) {
        return VEK_ERR_BAD_ARG;
    }
    if (target == _this->off) {
        return 0;
    }
    if (target == 0 || target < _this->off) {
        _this->cur = _this->hdr;
        _this->curOff = 0;
        _this->off = 0;
        if (target == 0) {
            return 0;
        }
    }
    if (target == _this->len) {
        _this->cur = _this->tail;
        _this->curOff = (vek_s32)_this->tail->len;
        _this->off = _this->len;
        return 0;
    }
    vek_s64 left = target - _this->off;
    while (left > 0) {
        if (_this->curOff >= (vek_s32)_this->cur->len) {
            if (!mem_step(_this)) {
                return VEK_ERR_BAD_ARG;
            }
            continue;
        }
        vek_s64 n = (vek_s64)_this->cur->len - _this->curOff;
        if (n > left) {
            n = left;
        }
        _this->curOff += (vek_s32)n;
        _this->off += n;
        left -= n;
    }
    return 0;
}

vek_s32 mem_putc(IStrm* s, vek_s32 byte) {
    MemStrm* _this = MemCls::self(s, __LINE__);
    if (!mem_room(_this)) {
        return VEK_ERR_FULL;
    }
    _this->cur->buf[_this->curOff++] = (vek_u8)byte;
    _this->off++;
    if (_this->curOff > (vek_s32)_this->cur->len) {
        _this->cur->len = (vek_u32)_this->curOff;
    }
    if (_this->off > _this->len) {
        VEK_ASSERT(_this->off == _this->len + 1);
        _this->len = _this->off;
    }
    return 0;
}

vek_s32 mem_getc(IStrm* s) {
    MemStrm* _this = MemCls::self(s, __LINE__);
    if (_this->off >= _this->len) {
        return VEK_ERR_EOF;
    }
    while (_this->curOff >= (vek_s32)_this->cur->len) {
        if (!mem_step(_this)) {
            return VEK_ERR_EOF;
        }
    }
    _this->off++;
    return _this->cur->buf[_this->curOff++];
}

vek_s32 mem_ungetc(IStrm* s) {
    MemStrm* _this = MemCls::self(s, __LINE__);
    if (_this->off <= 0) {
        return VEK_ERR_NOT_OPEN;
    }
    _this->off--;
    _this->curOff--;
    if (_this->curOff > 0) {
        return 0;
    }
    if (_this->off == 0) {
        VEK_ASSERT(_this->cur == _this->hdr);
        _this->cur = _this->hdr;
        _this->curOff = 0;
        return 0;
    }
    // At the start of a block: the same place is the end of the block
    // before it, which only a walk from the first block finds.
    VekData* prev = _this->hdr;
    while (prev && prev->next != _this->cur) {
        prev = prev->next;
    }
    if (!prev) {
        VEK_ASSERT(prev);
        vek_s64 target = _this->off;
        _this->off = target + 1;  // anything but target: mem_goto must walk
        return mem_goto(_this, target);
    }
    _this->cur = prev;
    _this->curOff += (vek_s32)prev->len;
    return 0;
}

vek_s32 mem_read(IStrm* s, void* buf, vek_s32 bufLen) {
    MemStrm* _this = MemCls::self(s, __LINE__);
    if (!buf || bufLen <= 0) {
        VEK_ASSERT(buf && bufLen > 0);
        return 0;
    }
    vek_u8* out = (vek_u8*)buf;
    vek_s32 got = 0;
    while (got < bufLen && _this->off < _this->len) {
        if (_this->curOff >= (vek_s32)_this->cur->len) {
            if (!mem_step(_this)) {
                break;
            }
            continue;
        }
        vek_s32 n = (vek_s32)_this->cur->len - _this->curOff;
        if (n > bufLen - got) {
            n = bufLen - got;
        }
        std::memcpy(out + got, _this->cur->buf + _this->curOff, (size_t)n);
        got += n;
        _this->curOff += n;
        _this->off += n;
    }
    return got;
}

vek_s32 mem_write(IStrm* s, const void* data, vek_s32 dataLen) {
    MemStrm* _this = MemCls::self(s, __LINE__);
    if (!data || dataLen <= 0) {
        VEK_ASSERT(data && dataLen > 0);
        return 0;
    }
    const vek_u8* in = (const vek_u8*)data;
    vek_s32 left = dataLen;
    while (left > 0) {
        if (!mem_room(_this)) {
            return VEK_ERR_FULL;
        }
        vek_s32 n = (vek_s32)_this->cur->size - _this->curOff;
        if (n > left) {
            n = left;
        }
        std::memcpy(_this->cur->buf + _this->curOff, in, (size_t)n);
        in += n;
        left -= n;
        _this->curOff += n;
        _this->off += n;
        if ((vek_s32)_this->cur->len < _this->curOff) {
            _this->cur->len = (vek_u32)_this->curOff;
        }
        if (_this->len < _this->off) {
            _this->len = _this->off;
        }
    }
    return dataLen;
}

vek_s32 mem_seek(IStrm* s, vek_s64 offset, vek_s32 origin) {
    MemStrm* _this = MemCls::self(s, __LINE__);
    vek_s64 base;
    switch (origin) {
    case 0: base = 0; break;
    case 1: base = _this->off; break;
    case 2: base = _this->len; break;
    default: return VEK_ERR_BAD_ARG;
    }
    vek_s64 target;
    if (__builtin_add_overflow(base, offset, &target)) {
        return VEK_ERR_BAD_ARG;
    }
    return mem_goto(_this, target);
}

vek_s64 mem_tell(IStrm* s) {
    return MemCls::self(s, __LINE__)->off;
}

vek_s32 mem_flush(IStrm* s) {
    MemCls::self(s, __LINE__);
    return 0;
}

vek_s64 mem_size(IStrm* s) {
    return MemCls::self(s, __LINE__)->len;
}

vek_s32 mem_clear(IStrm* s) {
    MemStrm* _this = MemCls::self(s, __LINE__);
    mem_free_chain(_this->hdr);
    mem_forget_chain(_this);
    return 0;
}

// Truncation cuts the block that holds the new end and frees the rest; the
// position then goes back to the start, wherever it was.
vek_s32 mem_set_size(IStrm* s, vek_s64 newLen) {
    MemStrm* _this = MemCls::self(s, __LINE__);
    if (newLen < 0) {
        return VEK_ERR_BAD_ARG;
    }
    if (newLen >= _this->len) {
        return 0;
    }
    if (newLen == 0) {
        return mem_clear(s);
    }
    vek_s32 ret = mem_goto(_this, newLen);
    if (ret < 0) {
        return ret;
    }
    _this->cur->len = (vek_u32)_this->curOff;
    mem_free_chain(_this->cur->next);
    _this->cur->next = nullptr;
    _this->tail = _this->cur;
    _this->len = newLen;
    return mem_goto(_this, 0);
}

const char* mem_class_name(IStrm* s) {
    MemCls::self(s, __LINE__);
    return "MemStrm";
}

const IStrmVtbl kMemStrmVtbl = {
    MemCls::queryItf, MemCls::addRef, MemCls::release, mem_putc,  mem_getc,
    mem_ungetc,       mem_read,       mem_write,       mem_seek,  mem_tell,
    mem_flush,        mem_size,       mem_clear,       mem_set_size, mem_class_name,
};

/* --------------------------------------------------------------- FileStrm */

using FileCls = vek::ObjClass<FileStrm, IStrm, VEK_CLS_FILESTRM, FileStrm_delete, &kIidIStrm, kSrc>;

// The open file of a live FileStrm, or null (every data operation then
// answers -23).
AlFile* file_of(IStrm* s, vek_s32 line) {
    return FileCls::self(s, line)->file;
}

vek_s32 fs_putc(IStrm* s, vek_s32 byte) {
    AlFile* f = file_of(s, __LINE__);
    if (!f) {
        return VEK_ERR_NOT_OPEN;
    }
    vek_u8 b = (vek_u8)byte;
    vek_s32 r = AlFile_write(f, &b, 1);
    return r == 1 ? 0 : r == 0 ? VEK_ERR_WRITE_NOTHING : r;
}

vek_s32 fs_getc(IStrm* s) {
    AlFile* f = file_of(s, __LINE__);
    if (!f) {
        return VEK_ERR_NOT_OPEN;
    }
    vek_u8 b;
    vek_s32 r = AlFile_read(f, &b, 1);
    return r == 1 ? (vek_s32)b : r == 0 ? VEK_ERR_EOF : r;
}

vek_s32 fs_ungetc(IStrm* s) {
    AlFile* f = file_of(s, __LINE__);
    return f ? AlFile_seek(f, -1, 1) : VEK_ERR_NOT_OPEN;
}

vek_s32 fs_read(IStrm* s, void* buf, vek_s32 bufLen) {
    AlFile* f = file_of(s, __LINE__);
    if (!f) {
        return VEK_ERR_NOT_OPEN;
    }
    if (!buf || bufLen <= 0) {
        VEK_ASSERT(buf && bufLen > 0);
        return 0;
    }
    return AlFile_read(f, buf, bufLen);
}

vek_s32 fs_write(IStrm* s, const void* data, vek_s32 dataLen) {
    AlFile* f = file_of(s, __LINE__);
    if (!f) {
        return VEK_ERR_NOT_OPEN;
    }
    if (!data || dataLen <= 0) {
        VEK_ASSERT(data && dataLen > 0);
        return 0;
    }
    return AlFile_write(f, data, dataLen);
}

vek_s32 fs_seek(IStrm* s, vek_s64 offset, vek_s32 origin) {
    AlFile* f = file_of(s, __LINE__);
    return f ? AlFile_seek(f, offset, origin) : VEK_ERR_NOT_OPEN;
}

vek_s64 fs_tell(IStrm* s) {
    AlFile* f = file_of(s, __LINE__);
    return f ? AlFile_tell(f) : VEK_ERR_NOT_OPEN;
}

vek_s32 fs_flush(IStrm* s) {
    AlFile* f = file_of(s, __LINE__);
    return f ? AlFile_flush(f) : VEK_ERR_NOT_OPEN;
}

vek_s64 fs_size(IStrm* s) {
    AlFile* f = file_of(s, __LINE__);
    return f ? AlFile_size(f) : VEK_ERR_NOT_OPEN;
}

vek_s32 fs_set_size(IStrm* s, vek_s64) {
    AlFile* f = file_of(s, __LINE__);
    return f ? VEK_ERR_NOT_SUPPORTED : VEK_ERR_NOT_OPEN;
}

vek_s32 fs_clear(IStrm* s) {
    return fs_set_size(s, 0);
}

const char* fs_class_name(IStrm* s) {
    FileCls::self(s, __LINE__);
    return "FileStrm";
}

const IStrmVtbl kFileStrmVtbl = {
    FileCls::queryItf, FileCls::addRef, FileCls::release, fs_putc,  fs_getc,
    fs_ungetc,         fs_read,         fs_write,         fs_seek,  fs_tell,
    fs_flush,          fs_size,         fs_clear,         fs_set_size, fs_class_name,
};

constexpr size_t kMaxPath = 4095;

bool path_form_ok(const char* path) {
    const vek_u8* s = (const vek_u8*)path;
    size_t i = 0;
    if (std::strncmp(path, "\\\\?\\", 4) == 0) {
        i = 4;  // the long-path prefix of Windows
    }
    while (s[i]) {
        if (i >= kMaxPath) {
            return false;
        }
        vek_u8 c = s[i];
        if (c < 0x20 || std::strchr("<>\"|*?", c)) {
            return false;
        }
        if (c < 0x80) {
            i++;
            continue;
        }
        int n = vek::utf8_seq_len(s + i, (size_t)-1);
        if (n == 0) {
            return false;
        }
        i += (size_t)n;
    }
    return true;
}

/* ---------------------------------------------------------------- StrStrm */

using StrCls = vek::ObjClass<StrStrm, IStrm, VEK_CLS_STRSTRM, StrStrm_delete, &kIidIStrm, kSrc>;

const char kEmptyText[] = "";

// A live StrStrm for an operation that needs its bytes. Detached, it has
// none: the assertion, then the operation sees an empty text (length and
// position are 0 then).
StrStrm* str_self(IStrm* s, vek_s32 line) {
    StrStrm* _this = StrCls::self(s, line);
    VEK_ASSERT(_this->data);
    return _this;
}

vek_s32 ss_read_only(IStrm* s) {
    str_self(s, __LINE__);
    vek_assert__("StrStrm is read-only", kSrc, __LINE__);
    return VEK_ERR_READ_ONLY;
}

vek_s32 ss_putc(IStrm* s, vek_s32) {
    return ss_read_only(s);
}

vek_s32 ss_write(IStrm* s, const void*, vek_s32) {
    return ss_read_only(s);
}

vek_s32 ss_set_size(IStrm* s, vek_s64) {
    return ss_read_only(s);
}

vek_s32 ss_getc(IStrm* s) {
    StrStrm* _this = str_self(s, __LINE__);
    if (_this->pos >= _this->len) {
        return VEK_ERR_EOF;
    }
    return (vek_u8)_this->data[_this->pos++];
}

vek_s32 ss_ungetc(IStrm* s) {
    StrStrm* _this = str_self(s, __LINE__);
    if (_this->pos <= 0) {
        return VEK_ERR_NOT_OPEN;
    }
    _this->pos--;
    return 0;
}

vek_s32 ss_read(IStrm* s, void* buf, vek_s32 bufLen) {
    StrStrm* _this = str_self(s, __LINE__);
    if (!buf || bufLen <= 0) {
        VEK_ASSERT(buf && bufLen > 0);
        return 0;
    }
    vek_s32 n = _this->len - _this->pos;
    if (n > bufLen) {
        n = bufLen;
    }
    if (n <= 0) {
        return 0;
    }
    std::memcpy(buf, _this->data + _this->pos, (size_t)n);
    _this->pos += n;
    return n;
}

vek_s32 ss_seek(IStrm* s, vek_s64 offset, vek_s32 origin) {
    StrStrm* _this = str_self(s, __LINE__);
    // Positions are 32-bit here: only the offset's low word counts.
    vek_s64 target = (vek_s32)(vek_u32)(vek_u64)offset;
    switch (origin) {
    case 0: break;
    case 1: target += _this->pos; break;
    case 2: target += _this->len; break;
    default: return VEK_ERR_BAD_ARG;
    }
    if (target < 0 || target > _this->len) {
        return VEK_ERR_RANGE;
    }
    _this->pos = (vek_s32)target;
    return 0;
}

vek_s64 ss_tell(IStrm* s) {
    return str_self(s, __LINE__)->pos;
}

vek_s32 ss_flush(IStrm* s) {
    return ss_read_only(s);
}

vek_s64 ss_size(IStrm* s) {
    return str_self(s, __LINE__)->len;
}

vek_s32 ss_clear(IStrm* s) {
    return ss_read_only(s);
}

const char* ss_class_name(IStrm* s) {
    str_self(s, __LINE__);
    return "StrStrm";
}

const IStrmVtbl kStrStrmVtbl = {
    StrCls::queryItf, StrCls::addRef, StrCls::release, ss_putc,  ss_getc,
    ss_ungetc,        ss_read,        ss_write,        ss_seek,  ss_tell,
    ss_flush,         ss_size,        ss_clear,        ss_set_size, ss_class_name,
};

/* --------------------------------------------------------------- CstrStrm */

// Writes go through the string's own direct-buffer use (useBufBeg /
// useBufEnd), so a shared block is unshared and growth follows the
// string's allocation rule.
using CstrCls = vek::ObjClass<CstrStrm, IStrm, VEK_CLS_CSTRSTRM, CstrStrm_delete, &kIidIStrm, kSrc>;

bool live_str(const VekStr* str) {
    return (str->magic & 0xFFFFFFu) == VEKSTR_MARK;
}

// The position of an operation that reads or writes at it. A string that
// shrank behind the stream's back leaves the position beyond its end: that
// is reported, and the operation goes on from the end.
vek_s32 checked_pos(CstrStrm* _this) {
    vek_s32 len = VekStr_len(_this->str);
    if (_this->pos > len) {
        vek_assert__("_this->pos <= VekStr_len(_this->str)", kSrc, __LINE__);
        _this->pos = len;
    }
    return _this->pos;
}

// Writes n bytes at the position: grows when position + n reaches the
// block, extends the length past the old end, keeps the terminator. When
// the string cannot grow it is left as it was and -201 is the answer.
vek_s32 put_bytes(CstrStrm* _this, const void* data, vek_s32 n) {
    vek_s32 pos = checked_pos(_this);
    vek_s32 len = VekStr_len(_this->str);
    vek_s32 end = pos + n;
    char* buf = VekStr_useBufBeg(_this->str, end > len ? end : len);
    if (!buf) {
        return VEK_ERR_FULL;
    }
    std::memcpy(buf + pos, data, (size_t)n);
    VekStr_useBufEnd(_this->str, end > len ? end : len);
    _this->pos = end;
    return n;
}

vek_s32 cs_putc(IStrm* s, vek_s32 byte) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return VEK_ERR_NO_STRING;
    }
    char c = (char)byte;
    vek_s32 r = put_bytes(_this, &c, 1);
    return r < 0 ? r : 0;
}

vek_s32 cs_getc(IStrm* s) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return VEK_ERR_EOF;
    }
    vek_s32 pos = checked_pos(_this);
    if (pos >= VekStr_len(_this->str)) {
        return VEK_ERR_EOF;
    }
    _this->pos++;
    return (vek_u8)VekStr_buf(_this->str)[pos];
}

vek_s32 cs_ungetc(IStrm* s) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return VEK_ERR_NO_STRING;
    }
    if (_this->pos <= 0) {
        return VEK_ERR_NOT_OPEN;
    }
    _this->pos--;
    return 0;
}

vek_s32 cs_read(IStrm* s, void* buf, vek_s32 bufLen) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return 0;
    }
    if (!buf || bufLen <= 0) {
        VEK_ASSERT(buf && bufLen > 0);
        return 0;
    }
    vek_s32 pos = checked_pos(_this);
    vek_s32 n = VekStr_len(_this->str) - pos;
    if (n > bufLen) {
        n = bufLen;
    }
    if (n > 0) {
        std::memcpy(buf, VekStr_buf(_this->str) + pos, (size_t)n);
        _this->pos += n;
    }
    return n > 0 ? n : 0;
}

vek_s32 cs_write(IStrm* s, const void* data, vek_s32 dataLen) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return VEK_ERR_NO_STRING;
    }
    if (dataLen < 1) {
        return 0;
    }
    if (!data) {
        VEK_ASSERT(data && dataLen > 0);
        return 0;
    }
    return put_bytes(_this, data, dataLen);
}

vek_s32 cs_seek(IStrm* s, vek_s64 offset, vek_s32 origin) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return 0;  // the position stays 0
    }
    vek_s64 len = VekStr_len(_this->str);
    vek_s64 target = offset;
    switch (origin) {
    case 0: break;
    case 1: target += _this->pos; break;
    case 2: target += len; break;
    default: return VEK_ERR_BAD_ARG;
    }
    if (target < 0 || target > len) {
        return VEK_ERR_RANGE;
    }
    _this->pos = (vek_s32)target;
    return 0;
}

vek_s64 cs_tell(IStrm* s) {
    return CstrCls::self(s, __LINE__)->pos;
}

vek_s32 cs_flush(IStrm* s) {
    CstrCls::self(s, __LINE__);
    return 0;
}

vek_s64 cs_size(IStrm* s) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    return _this->str ? VekStr_len(_this->str) : 0;
}

vek_s32 cs_clear(IStrm* s) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return VEK_ERR_NO_STRING;
    }
    VekStr_clear(_this->str);
    _this->pos = 0;
    return 0;
}

vek_s32 cs_set_size(IStrm* s, vek_s64 newLen) {
    CstrStrm* _this = CstrCls::self(s, __LINE__);
    if (!_this->str) {
        return VEK_ERR_NO_STRING;
    }
    if (newLen < 0) {
        return VEK_ERR_BAD_ARG;
    }
    if (newLen < VekStr_len(_this->str)) {
        VekStr_trunc(_this->str, (vek_s32)newLen);
    }
    _this->pos = 0;
    return 0;
}

const char* cs_class_name(IStrm* s) {
    CstrCls::self(s, __LINE__);
    return "CstrStrm";
}

const IStrmVtbl kCstrStrmVtbl = {
    CstrCls::queryItf, CstrCls::addRef, CstrCls::release, cs_putc,    cs_getc,
    cs_ungetc,         cs_read,         cs_write,         cs_seek,    cs_tell,
    cs_flush,          cs_size,         cs_clear,         cs_set_size, cs_class_name,
};

VekStr* accept_str(VekStr* str) {
    if (str && !live_str(str)) {
        vek_assert__("!str || (str->magic & 0xFFFFFF) == VEKSTR_MARK", kSrc, __LINE__);
        return nullptr;
    }
    return str;
}

} // namespace

extern "C" {

/* ---- MemStrm ---- */

VEK_API MemStrm* MemStrm_new(MemStrm* mem, vek_s32 blkSize) {
    MemStrm* _this = (MemStrm*)vek::obj_storage(mem, sizeof(MemStrm), VEK_CLS_MEMSTRM);
    if (_this) {
        _this->vtbl = &kMemStrmVtbl;
        _this->blk = blkSize > 0 ? blkSize : kDefBlk;
    }
    return _this;
}

VEK_API IStrm* MemStrm_xcreatex__(MemStrm* mem, vek_s32 blkSize, const char*, vek_s32) {
    MemStrm* _this = MemStrm_new(mem, blkSize);
    if (!_this) {
        return nullptr;
    }
    IStrm* s = MemCls::itf(_this);
    vek::obj_add_ref(s);
    return s;
}

VEK_API void MemStrm_delete(MemStrm* obj) {
    MemStrm* _this = MemCls::from_obj(obj, __LINE__);
    mem_free_chain(_this->hdr);
    mem_forget_chain(_this);
    vek::obj_dispose(_this);
}

VEK_API vek_s32 MemStrm_attach(IStrm* strm, VekData* first) {
    MemStrm* _this = MemCls::self(strm, __LINE__);
    mem_free_chain(_this->hdr);
    mem_forget_chain(_this);
    _this->hdr = _this->cur = _this->tail = first;
    for (VekData* blk = first; blk; blk = blk->next) {
        _this->len += blk->len;
        _this->tail = blk;
    }
    return 0;
}

VEK_API VekData* MemStrm_detach(IStrm* strm) {
    MemStrm* _this = MemCls::self(strm, __LINE__);
    VekData* first = _this->hdr;
    mem_forget_chain(_this);
    return first;
}

/* ---- FileStrm ---- */

VEK_API FileStrm* FileStrm_new(FileStrm* mem) {
    FileStrm* obj = (FileStrm*)vek::obj_storage(mem, sizeof(FileStrm), VEK_CLS_FILESTRM);
    if (obj) {
        obj->vtbl = &kFileStrmVtbl;
    }
    return obj;
}

VEK_API IStrm* FileStrm_xcreatex__(FileStrm* mem, const char* path, const char* mode, vek_s32* err,
                                   const char* srcPath, vek_s32 line) {
    AlFile* f = nullptr;
    vek_s32 ret = 0;
    if (!vek_path_verify__(path, srcPath, line)) {
        ret = VEK_ERR_FILE_OPEN;
    } else if (!str_noo(path)) {
        if (str_noo(mode)) {
            vek_assert__("!str_noo(mode)", kSrc, __LINE__);
        }
        f = AlFile_open(path, mode);
        if (!f) {
            ret = VEK_ERR_FILE_OPEN;
        }
    }
    FileStrm* obj = ret < 0 ? nullptr : FileStrm_new(mem);
    if (!obj && ret == 0) {
        ret = VEK_ERR_FULL;  // out of memory
        if (f) {
            AlFile_close(f);
        }
    }
    if (err) {
        *err = ret;
    }
    if (!obj) {
        return nullptr;
    }
    obj->file = f;
    IStrm* s = FileCls::itf(obj);
    vek::obj_add_ref(s);
    return s;
}

VEK_API void FileStrm_delete(FileStrm* obj) {
    FileStrm* _this = FileCls::from_obj(obj, __LINE__);
    if (_this->file) {
        AlFile_close(_this->file);
        _this->file = nullptr;
    }
    vek::obj_dispose(_this);
}

VEK_API vek_s32 FileStrm_open(IStrm* strm, const char* fileName, const char* mode) {
    FileStrm* _this = FileCls::self(strm, __LINE__);
    if (str_noo(fileName) || str_noo(mode)) {
        vek_assert__("!str_noo(fileName) && !str_noo(mode)", kSrc, __LINE__);
        return VEK_ERR_BAD_ARG;
    }
    bool formOk = vek_path_verify__(fileName, kSrc, __LINE__) != 0;
    FileStrm_close(strm);
    if (formOk) {
        _this->file = AlFile_open(fileName, mode);
    }
    return _this->file ? 0 : VEK_ERR_FILE_OPEN;
}

VEK_API vek_s32 FileStrm_close(IStrm* strm) {
    FileStrm* _this = FileCls::self(strm, __LINE__);
    AlFile* f = _this->file;
    _this->file = nullptr;
    return f ? AlFile_close(f) : 0;
}

VEK_API vek_s32 FileStrm_attach(IStrm* strm, AlFile* file) {
    FileStrm* _this = FileCls::self(strm, __LINE__);
    if (!file) {
        VEK_ASSERT(file);
        return VEK_ERR_BAD_ARG;
    }
    if (_this->file && _this->file != file) {
        vek_s32 ret = AlFile_close(_this->file);
        VEK_ASSERT(ret == 0);
    }
    _this->file = file;
    return 0;
}

VEK_API AlFile* FileStrm_detach(IStrm* strm) {
    FileStrm* _this = FileCls::self(strm, __LINE__);
    AlFile* f = _this->file;
    _this->file = nullptr;
    return f;
}

VEK_API vek_s32 vek_path_verify__(const char* path, const char* srcPath, vek_s32 line) {
    if (str_noo(path) || path_form_ok(path)) {
        return 1;
    }
    vek_printf("vek_path_verify: bad path \"%s\"\n", path);
    vek_assert__("path form", srcPath ? srcPath : kSrc, line);
    return 0;
}

/* ---- StrStrm ---- */

VEK_API StrStrm* StrStrm_new(StrStrm* mem) {
    StrStrm* obj = (StrStrm*)vek::obj_storage(mem, sizeof(StrStrm), VEK_CLS_STRSTRM);
    if (obj) {
        obj->vtbl = &kStrStrmVtbl;
        obj->data = kEmptyText;
    }
    return obj;
}

VEK_API IStrm* StrStrm_xcreate__(StrStrm* mem, const char* buf, vek_s32 len, const char*, vek_s32) {
    StrStrm* obj = StrStrm_new(mem);
    if (!obj) {
        return nullptr;
    }
    IStrm* s = StrCls::itf(obj);
    if (buf) {
        StrStrm_attach(s, buf, len);
    }
    vek::obj_add_ref(s);
    return s;
}

VEK_API vek_s32 StrStrm_attach(IStrm* strm, const char* buf, vek_s32 len) {
    StrStrm* _this = StrCls::self(strm, __LINE__);
    if (!buf) {
        _this->data = kEmptyText;
        _this->len = 0;
    } else {
        _this->data = buf;
        _this->len = len >= 0 ? len : (vek_s32)std::strlen(buf);
    }
    _this->pos = 0;
    return 0;
}

VEK_API const char* StrStrm_detach(IStrm* strm) {
    StrStrm* _this = StrCls::self(strm, __LINE__);
    const char* data = _this->data;
    _this->data = nullptr;
    _this->len = _this->pos = 0;
    return data;
}

VEK_API vek_s32 StrStrm_reset(IStrm* strm, const char* buf, vek_s32 len) {
    if (buf) {
        return StrStrm_attach(strm, buf, len);
    }
    StrCls::self(strm, __LINE__)->pos = 0;
    return 0;
}

VEK_API void StrStrm_delete(StrStrm* obj) {
    vek::obj_dispose(StrCls::from_obj(obj, __LINE__));
}

/* ---- CstrStrm ---- */

VEK_API CstrStrm* CstrStrm_new(CstrStrm* mem, VekStr* str) {
    CstrStrm* obj = (CstrStrm*)vek::obj_storage(mem, sizeof(CstrStrm), VEK_CLS_CSTRSTRM);
    if (obj) {
        obj->vtbl = &kCstrStrmVtbl;
        obj->str = accept_str(str);
        obj->pos = 0;
    }
    return obj;
}

VEK_API IStrm* CstrStrm_xcreate__(CstrStrm* mem, VekStr* str, const char*, vek_s32) {
    CstrStrm* obj = CstrStrm_new(mem, str);
    if (!obj) {
        return nullptr;
    }
    IStrm* s = CstrCls::itf(obj);
    vek::obj_add_ref(s);
    return s;
}

VEK_API vek_s32 CstrStrm_attach(IStrm* strm, VekStr* str) {
    CstrStrm* _this = CstrCls::self(strm, __LINE__);
    _this->str = accept_str(str);
    _this->pos = 0;
    return 0;
}

VEK_API VekStr* CstrStrm_detach(IStrm* strm) {
    CstrStrm* _this = CstrCls::self(strm, __LINE__);
    VekStr* str = _this->str;
    _this->str = nullptr;
    _this->pos = 0;
    return str;
}

VEK_API void CstrStrm_delete(CstrStrm* obj) {
    CstrCls::from_obj(obj, __LINE__);
    obj->str = nullptr;
    vek::obj_dispose(obj);
}

} // extern "C"
