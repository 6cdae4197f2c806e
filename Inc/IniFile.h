/*
 * IniFile.h - INI text: the document that keeps every line (IniFile), the
 * one-shot accessors (IniUtil, Txt*), and the allocation-free one-value
 * scanner (TinyIni).
 *
 * The document keeps every line of the text it was loaded from (comments,
 * blank lines, letter case, order), so a document can be read, changed and
 * written back with only the changed lines regenerated. Everything is 8-bit
 * text; no character set is assumed and no byte-order mark is recognised.
 *
 * Reading rules:
 *  - a line ends at LF, CR LF or a lone CR; a line longer than 1024 bytes
 *    fails the load with -251 and leaves the document empty;
 *  - a header is optional blanks, "[", a name up to the next "]" (blanks
 *    inside kept; an empty name or one starting with a double quote is no
 *    header), "]", then anything (kept in the header line);
 *  - a field is optional blanks, a word up to ";", "=", CR or a double
 *    quote (inner and trailing blanks belong to the name), "=", and the
 *    rest of the line as its value (leading blanks kept); ";" is the only
 *    comment start; every other line is kept verbatim and ignored;
 *  - lines before the first header belong to a nameless first section;
 *  - names compare without ASCII case; the first section (and the first
 *    field in it) of a name wins; a null or empty section name means the
 *    nameless section.
 * Writing puts CR LF after every line: an unchanged document comes back
 * byte for byte but for its line ends.
 *
 * Lookups in a document of 16 sections or more are answered from a section
 * index kept beside it. Callers may still relink the lists and rename the
 * records through the list and string calls: the lists and names the index
 * was built from carry a watch mark (VEKLIST_WATCHED in the list's type,
 * VEKSTR_WATCHED in the name's magic), and a call on one of them makes that
 * document's index stale, and no other's, until it is rebuilt.
 *
 * Errors: -25 not found, -64 the file cannot be opened, -251 a line is too
 * long. A wrong object tag ends the process (object check); null or empty
 * names where a name is required are assertions.
 */
#ifndef VEK_INIFILE_H
#define VEK_INIFILE_H

#include "VekType.h"
#include "BaseItf.h"
#include "TinyStr.h"
#include "VekData.h"
#include "VekList.h"
#include "VekStr.h"

VEK_BEGIN_DECLS

#define INIFILE_TAG    0x3C3B7377u  /* | 0x80000000 when IniFile_new allocated it */
#define INISECT_TAG    0x5B73E5E8u
#define INIFIELD_TAG   0x32EB75D0u
#define INIFIELD_VALID 0x1u         /* flags: the line is a name/value field */
#define INI_LINE_MAX   1024

/* One line below a header (a list node of its section). */
typedef struct IniField {
    VekListNode link;
    vek_u32 tag;
    vek_u32 flags;   /* INIFIELD_VALID for a name/value field */
    VekStr name;
    vek_u32 nameBuf[(STRDATA_HDR + 64) / 4];
    VekStr value;
    vek_u32 valueBuf[(STRDATA_HDR + 64) / 4];
    VekStr line;     /* the line as read, or as regenerated after a change */
    vek_u32 lineBuf[(STRDATA_HDR + 128) / 4];
} IniField;

/* A section: its name, the line that opened it and all its lines. */
typedef struct IniSect {
    VekListNode link;
    vek_u32 tag;
    VekStr name;
    vek_u32 nameBuf[(STRDATA_HDR + 64) / 4];
    VekStr header;   /* the header line's exact text, empty when nameless */
    vek_u32 headerBuf[(STRDATA_HDR + 128) / 4];
    VekList fields;  /* every line of the section, fields and others */
} IniSect;

/* The document: its sections in order and the modified flag. */
typedef struct IniFile {
    vek_u32 tag;
    VekList sects;
    vek_s32 moded;
} IniFile;

/* ---- creation and loading ---- */
/* An empty document in mem, or allocated when mem is null. */
VEK_API IniFile* IniFile_new(IniFile* mem);
/* Removes all sections and frees the document when IniFile_new allocated it. */
VEK_API void IniFile_delete(IniFile* file);
/* Create and load in one step; on failure null, *err (may be null) gets the
 * code; on success *err is 0. */
VEK_API IniFile* IniFile_newFile(const char* path, vek_s32* err);
VEK_API IniFile* IniFile_newStrm(IStrm* strm, vek_s32* err);
VEK_API IniFile* IniFile_newData(VekData* data, vek_s32* err);
VEK_API IniFile* IniFile_newBuf(const char* buf, vek_s32 len, vek_s32* err);
/* Load: appended to what the document holds (lines before any header go
 * to its last section). 0, -64 (loadFile: cannot open), -251. */
VEK_API vek_s32 IniFile_loadFile(IniFile* file, const char* path);
VEK_API vek_s32 IniFile_loadStrm(IniFile* file, IStrm* strm);
VEK_API vek_s32 IniFile_loadData(IniFile* file, VekData* data);  /* the chain stays the caller's */
VEK_API vek_s32 IniFile_loadBuf(IniFile* file, const char* buf, vek_s32 len); /* len < 1: terminated */

/* ---- writing ---- */
/* Writes every section with its header. append 0 empties the stream first,
 * else writes at its end. Returns the stream's length, or a negative write
 * error. */
VEK_API vek_s32 IniFile_outStrmx(IniFile* file, IStrm* strm, vek_s32 append);
VEK_API vek_s32 IniFile_outStrm(IniFile* file, IStrm* strm);
/* Writes the document to a file: append 0 replaces the file safely (a
 * temporary file beside it, flushed to disk, then swapped in; a failure
 * leaves the old file as it was); append non-zero appends ("ab"). 0, -64,
 * or a negative write error. */
VEK_API vek_s32 IniFile_outFilex(IniFile* file, const char* path, vek_s32 append);
VEK_API vek_s32 IniFile_outFile(IniFile* file, const char* path);
/* Into a new chain of data blocks (*data, freed by the caller with
 * VekData_delete); returns the length. */
VEK_API vek_s32 IniFile_outData(IniFile* file, VekData** data);
/* Into a new terminated buffer (*buf, freed by the caller with
 * vek_free__); returns the length. */
VEK_API vek_s32 IniFile_outBuf(IniFile* file, char** buf);
/* One section: its header line when withHeader, then its lines (only the
 * name/value fields when fieldsOnly). Returns the bytes written or a
 * negative write error. */
VEK_API vek_s32 IniSect_outStrmx(IniSect* sect, IStrm* strm, vek_s32 withHeader, vek_s32 fieldsOnly);
VEK_API vek_s32 IniSect_outStrm(IniSect* sect, IStrm* strm);

/* ---- state and lookup ---- */
VEK_API vek_s32 IniFile_moded(const IniFile* file);  /* 1 after any change */
/* Deletes all sections; sets the modified flag when there was one. */
VEK_API void IniFile_clear(IniFile* file);
VEK_API VekList* IniFile_sectList(IniFile* file);   /* of IniSect */
/* The number of sections, the nameless first one included when there is one. */
VEK_API vek_s32 IniFile_sectCount(const IniFile* file);
/* Lookup by name: the section (a null or empty sectName: the nameless one),
 * or the name/value field fieldName of a section (an empty fieldName is the
 * assertion "fieldName && *fieldName"). Null when missing. The records
 * belong to the document: do not keep them across changes to it. */
VEK_API IniSect* IniFile_findSect(IniFile* file, const char* sectName);
VEK_API IniField* IniFile_findField(IniFile* file, const char* sectName, const char* fieldName);
/* 1 when the line is a name/value field, 0 for a comment, a blank line or
 * any other line kept only to be written back. */
VEK_API vek_s32 IniField_valid(const IniField* field);
/* The number of LINES of a section (fields, comments and blank lines), or -25. */
VEK_API vek_s32 IniFile_fieldCount(IniFile* file, const char* sectName);
/* The id-th section from 0 (the nameless one included), or null. */
VEK_API IniSect* IniFile_sectById(IniFile* file, vek_s32 id);
/* The id-th name/value FIELD of a section, or null. */
VEK_API IniField* IniFile_fieldById(IniFile* file, const char* sectName, vek_s32 id);

/* ---- reading values ---- */
/* Copies the value (or def when the field is missing) into buf, bounded and
 * terminated; returns the bytes copied (0 without copying for a null buf or
 * size < 1; a missing field with a null def gives "" and 0). */
VEK_API vek_s32 IniFile_getStr(IniFile* file, const char* sectName, const char* fieldName,
                               const char* def, char* buf, vek_s32 size);
/* The same into a VekStr; returns its length (0 for a null str). */
VEK_API vek_s32 IniFile_getStrx(IniFile* file, const char* sectName, const char* fieldName,
                                const char* def, VekStr* str);
/* atoi of the value (decimal, no error detection), or def when missing. */
VEK_API vek_s32 IniFile_getInt(IniFile* file, const char* sectName, const char* fieldName, vek_s32 def);

/* ---- changing values (each sets the modified flag) ----
 * Missing sections are created (a nameless one at the head, others at the
 * end with the header "[name]"); a new field goes right after the
 * section's last name/value field. */
/* Sets name (its case replaces the stored one) and value; the line becomes
 * "name=value". Returns 0. */
VEK_API vek_s32 IniFile_setStr(IniFile* file, const char* sectName, const char* fieldName, const char* value);
VEK_API vek_s32 IniFile_setInt(IniFile* file, const char* sectName, const char* fieldName, vek_s32 n);
/* 0, or -25 when absent. */
VEK_API vek_s32 IniFile_delSect(IniFile* file, const char* sectName);
VEK_API vek_s32 IniFile_delField(IniFile* file, const char* sectName, const char* fieldName);
/* New name; the header line becomes "[newName]". */
VEK_API vek_s32 IniFile_renSect(IniFile* file, const char* sectName, const char* newName);
/* New name; the line becomes "newName=" ONLY: the value stays readable but
 * is not written any more. */
VEK_API vek_s32 IniFile_renField(IniFile* file, const char* sectName, const char* oldName,
                                 const char* newName);
/* Moves every line of src to the end of dst (created when missing); a field
 * dst already had takes the moved value instead; src is deleted. */
VEK_API vek_s32 IniFile_moveSect(IniFile* file, const char* srcName, const char* dstName);
/* Moves one field to the end of dst (or overwrites dst's field of that name). */
VEK_API vek_s32 IniFile_moveField(IniFile* file, const char* srcSect, const char* fieldName,
                                  const char* dstSect);

/* ---- exporting and comparing ---- */
/* Writes one section with its header to strm; the stream's length, or -25. */
VEK_API vek_s32 IniFile_getSect(IniFile* file, const char* sectName, IStrm* strm);
/* Writes the sections named "<cateName>.<rest>" (case-blind prefix) as
 * "[<rest>]" followed by their lines; returns the number of sections. */
VEK_API vek_s32 IniFile_getCate(IniFile* file, const char* cateName, IStrm* strm);
/* Compares two documents into added, changed and removed (each may be
 * null): sections and fields only in new are added, fields whose values
 * differ (compared WITHOUT case) are changed with the new value, sections
 * and fields only in old are removed with the old value. 1 when any
 * difference was found, else 0. */
VEK_API vek_s32 IniFile_diff(IniFile* oldFile, IniFile* newFile, IniFile* added, IniFile* changed,
                             IniFile* removed);

/* ---- one-shot access: IniUtil ----
 * Readers load a whole document from the source, answer like IniFile_getStr,
 * IniFile_getStrx and IniFile_getInt and discard it, with one difference:
 * when the source cannot be loaded (-64, -251) that error is returned and
 * def is NOT applied (the buffer stays untouched). Sources: File (a path),
 * Strm (a stream), Data (a chain of data blocks), Cstr (a VekStr), Str (a
 * terminated string), Buf (buffer and length). */
VEK_API vek_s32 IniUtil_getFileStr(const char* path, const char* sect, const char* field,
                                   const char* def, char* buf, vek_s32 size);
VEK_API vek_s32 IniUtil_getFileStrx(const char* path, const char* sect, const char* field,
                                    const char* def, VekStr* str);
VEK_API vek_s32 IniUtil_getFileInt(const char* path, const char* sect, const char* field, vek_s32 def);
VEK_API vek_s32 IniUtil_getStrmStr(IStrm* strm, const char* sect, const char* field,
                                   const char* def, char* buf, vek_s32 size);
VEK_API vek_s32 IniUtil_getStrmStrx(IStrm* strm, const char* sect, const char* field,
                                    const char* def, VekStr* str);
VEK_API vek_s32 IniUtil_getStrmInt(IStrm* strm, const char* sect, const char* field, vek_s32 def);
VEK_API vek_s32 IniUtil_getDataStr(VekData* data, const char* sect, const char* field,
                                   const char* def, char* buf, vek_s32 size);
VEK_API vek_s32 IniUtil_getDataStrx(VekData* data, const char* sect, const char* field,
                                    const char* def, VekStr* str);
VEK_API vek_s32 IniUtil_getDataInt(VekData* data, const char* sect, const char* field, vek_s32 def);
VEK_API vek_s32 IniUtil_getCstrStr(const VekStr* cstr, const char* sect, const char* field,
                                   const char* def, char* buf, vek_s32 size);
VEK_API vek_s32 IniUtil_getCstrStrx(const VekStr* cstr, const char* sect, const char* field,
                                    const char* def, VekStr* str);
VEK_API vek_s32 IniUtil_getCstrInt(const VekStr* cstr, const char* sect, const char* field, vek_s32 def);
VEK_API vek_s32 IniUtil_getStrStr(const char* text, const char* sect, const char* field,
                                  const char* def, char* buf, vek_s32 size);
VEK_API vek_s32 IniUtil_getStrStrx(const char* text, const char* sect, const char* field,
                                   const char* def, VekStr* str);
VEK_API vek_s32 IniUtil_getStrInt(const char* text, const char* sect, const char* field, vek_s32 def);
VEK_API vek_s32 IniUtil_getBufStr(const char* text, vek_s32 len, const char* sect, const char* field,
                                  const char* def, char* buf, vek_s32 size);
VEK_API vek_s32 IniUtil_getBufStrx(const char* text, vek_s32 len, const char* sect, const char* field,
                                   const char* def, VekStr* str);
VEK_API vek_s32 IniUtil_getBufInt(const char* text, vek_s32 len, const char* sect, const char* field,
                                  vek_s32 def);
/* Writers load the document (an unloadable source gives an empty one), set
 * the value and write the whole document back: a file is replaced safely
 * as by IniFile_outFile, a stream is emptied and rewritten. 0, or the
 * negative write error. */
VEK_API vek_s32 IniUtil_setFileStr(const char* path, const char* sect, const char* field, const char* value);
VEK_API vek_s32 IniUtil_setFileInt(const char* path, const char* sect, const char* field, vek_s32 n);
VEK_API vek_s32 IniUtil_setStrmStr(IStrm* strm, const char* sect, const char* field, const char* value);
VEK_API vek_s32 IniUtil_setStrmInt(IStrm* strm, const char* sect, const char* field, vek_s32 n);

/* ---- name=value texts (no sections) ----
 * TxtStrm_new(strm, name1, value1, ..., NULL) empties the stream and writes
 * "name=value" CR LF for each pair (a null or empty value writes nothing
 * after "="; an empty name is the assertion "*name" and is skipped).
 * Returns the stream. TxtStrm_newv takes the pairs as a va_list. */
VEK_API IStrm* TxtStrm_new(IStrm* strm, ...);
VEK_API IStrm* TxtStrm_newv(IStrm* strm, va_list pairs);
/* The same into a VekStr; returns its text. */
VEK_API const char* TxtCstr_new(VekStr* cstr, ...);
/* The same into a new chain of data blocks (*data); returns it. */
VEK_API VekData* TxtData_new(VekData** data, ...);
/* The IniUtil readers of such a text (the nameless section). */
VEK_API vek_s32 TxtCstr_getStr(const VekStr* cstr, const char* field, const char* def, char* buf, vek_s32 size);
VEK_API vek_s32 TxtCstr_getStrx(const VekStr* cstr, const char* field, const char* def, VekStr* str);
VEK_API vek_s32 TxtCstr_getInt(const VekStr* cstr, const char* field, vek_s32 def);
VEK_API vek_s32 TxtStr_getStr(const char* text, const char* field, const char* def, char* buf, vek_s32 size);
VEK_API vek_s32 TxtStr_getStrx(const char* text, const char* field, const char* def, VekStr* str);
VEK_API vek_s32 TxtStr_getInt(const char* text, const char* field, vek_s32 def);

/* ---- TinyIni: one value straight from a stream, no heap use ----
 * The stream is read from its start. A null or empty section means the
 * lines before the first header. Section and field names compare without
 * ASCII case and are trimmed of spaces and tabs; ";" starts a comment, also
 * after a value (unlike IniFile); a value ends at CR, LF or ";", loses NUL
 * bytes and its trailing blanks. Names longer than 126 characters are an
 * assertion. Not found: the default (null: empty). Wrong arguments are
 * low-level assertions ("strm && fieldName", "val || valBuf && valSize > 0"). */
/* Copies the value into buf (at most size - 1 bytes, terminated); returns buf. */
VEK_API char* TinyIni_getStr(IStrm* strm, const char* sect, const char* field, const char* def,
                             char* buf, vek_s32 size);
/* Appends the value to val; returns its buffer. */
VEK_API const char* TinyIni_getStrx(IStrm* strm, const char* sect, const char* field,
                                    const char* def, TinyStr* val);
/* atoi of the value when found, else def. */
VEK_API vek_s32 TinyIni_getInt(IStrm* strm, const char* sect, const char* field, vek_s32 def);

VEK_END_DECLS

#endif /* VEK_INIFILE_H */
