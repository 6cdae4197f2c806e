/*
 * IniRead.h - the forgiving reading of an INI document that settings and
 * message catalogues share (internal): names compared without ASCII case
 * and without the blanks around them, values trimmed and unquoted.
 *
 * The document itself (IniFile.h) keeps names and values exactly as the
 * lines hold them, blanks included, because it must write them back; a
 * person editing a settings file writes "Port = 80" and means the key
 * "Port" with the value "80".
 */
#ifndef VEK_INIREAD_H
#define VEK_INIREAD_H

#include "IniFile.h"

namespace vek {

/* The first section whose trimmed name is name (null or "": the nameless
 * first section), or null. */
IniSect* ini_sect(IniFile* doc, const char* name);
/* The first name/value line of s whose trimmed name is key, or null. */
IniField* ini_key(IniSect* s, const char* key);
/* A name without the blanks around it (null: ""): its start, *len its length. */
const char* ini_trim(const char* name, vek_s32* len);
/* The trimmed name of a section or field: its start, *len its length. */
const char* ini_trimmed(const VekStr* name, vek_s32* len);
/* A raw value as the reader means it, appended to out: blanks around it
 * dropped; with comments, ";" after a blank ends a value that is not
 * quoted; a value in double quotes is what stands inside them, "" being
 * one quote (text after the closing quote is dropped). Returns 0, or -201
 * when out could not grow. */
vek_s32 ini_value(const char* raw, vek_s32 len, bool comments, VekStr* out);
/* The same rules the other way: appends value to out quoted when reading
 * it back would change it (blanks around it, a leading quote, a " ;").
 * 0, or -201 when out could not grow. */
vek_s32 ini_quote(const char* value, VekStr* out);

} // namespace vek

#endif /* VEK_INIREAD_H */
