/*
 * IniScan.h - the INI reader shared by the document loader and the one-shot
 * readers (internal). One line splitter and one set of line rules, so a
 * value read in one pass is the value the loaded document would give.
 */
#ifndef VEK_INISCAN_H
#define VEK_INISCAN_H

#include "IniFile.h"
#include "VekStrm.h"

namespace vek {

/* Opens the INI source and hands its stream to fn; the source's error
 * (-64 for a file that cannot be opened) when it cannot. */
using IniStrmFn = vek_s32 (*)(IStrm* strm, void* ctx);
vek_s32 ini_with_file(const char* path, IniStrmFn fn, void* ctx);
vek_s32 ini_with_data(VekData* data, IniStrmFn fn, void* ctx);
vek_s32 ini_with_buf(const char* buf, vek_s32 len, IniStrmFn fn, void* ctx);

/* The first value of field in the first section named sect (null or empty:
 * the nameless section of the lines before any header), found the way a
 * document loaded from the whole stream would find it. */
struct IniHit {
    bool found;
    vek_s32 len;
    char value[INI_LINE_MAX + 1];  // terminated behind len
};
/* One pass over the stream from its start: 0 (hit filled) or -251 when a
 * line is too long anywhere in it (as the load would fail). */
vek_s32 ini_find(IStrm* strm, const char* sect, const char* field, IniHit* hit);

/* The answers of IniFile_getStr / getStrx / getInt for a value (null: not
 * found). */
vek_s32 ini_answer_str(const char* value, const char* def, char* buf, vek_s32 size);
vek_s32 ini_answer_strx(const char* value, vek_s32 len, const char* def, VekStr* str);
vek_s32 ini_answer_int(const char* value, vek_s32 def);

} // namespace vek

#endif /* VEK_INISCAN_H */
