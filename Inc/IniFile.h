/*
 * IniFile.h - INI text: the allocation-free one-value scanner (TinyIni) and
 * the section-less name=value texts (Txt*).
 */
#ifndef VEK_INIFILE_H
#define VEK_INIFILE_H

#include "VekType.h"
#include "BaseItf.h"
#include "TinyStr.h"

VEK_BEGIN_DECLS

/* ---- TinyIni: one value straight from a stream, no heap use ----
 * The stream is read from its start. A null or empty section means the
 * lines before the first header. Section and field names compare without
 * ASCII case and are trimmed of spaces and tabs; ";" starts a comment, also
 * after a value; a value ends at CR, LF or ";", loses NUL bytes and its
 * trailing blanks. Names longer than 126 characters are an assertion.
 * Not found: the default (null: empty). Wrong arguments are low-level
 * assertions ("strm && fieldName", "val || valBuf && valSize > 0"). */
/* Copies the value into buf (at most size - 1 bytes, terminated); returns buf. */
VEK_API char* TinyIni_getStr(IStrm* strm, const char* sect, const char* field, const char* def,
                             char* buf, vek_s32 size);
/* Appends the value to val; returns its buffer. */
VEK_API const char* TinyIni_getStrx(IStrm* strm, const char* sect, const char* field,
                                    const char* def, TinyStr* val);
/* atoi of the value when found, else def. */
VEK_API vek_s32 TinyIni_getInt(IStrm* strm, const char* sect, const char* field, vek_s32 def);

/* ---- name=value texts ----
 * TxtStrm_new(strm, name1, value1, ..., NULL) empties the stream and writes
 * "name=value" CR LF for each pair (a null or empty value writes nothing
 * after "="; an empty name is the assertion "*name" and is skipped).
 * Returns the stream. TxtStrm_newv takes the pairs as a va_list. */
VEK_API IStrm* TxtStrm_new(IStrm* strm, ...);
VEK_API IStrm* TxtStrm_newv(IStrm* strm, va_list pairs);

VEK_END_DECLS

#endif /* VEK_INIFILE_H */
