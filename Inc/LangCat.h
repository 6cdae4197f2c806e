/*
 * LangCat.h - language resources: message catalogues per language, the
 * user's languages, and messages formatted with numbered arguments.
 *
 * A catalogue file is UTF-8 text in the INI form (IniFile.h): sections
 * group the messages, each key names one, its value is the text. Names
 * compare without ASCII case and without the blanks around them; a value
 * loses the blanks around it unless it is in double quotes ("" is one
 * quote inside them); in the text, \n is a line end, \t a tab and \\ a
 * backslash. A program's catalogues live in one folder as
 * "<domain>.<tag>.ini" per language ("vektool.pt_BR.ini") beside
 * "<domain>.ini", the program's own language, which answers last.
 *
 * Languages are tags such as "pt_BR" (language, then optionally a script
 * and a region), compared as written after normalising: "-" becomes "_",
 * a codeset (".UTF-8") and a modifier ("@euro") go, the language is made
 * small, the region capital ("pt-br" is "pt_BR"). Each tag falls back to
 * its shorter forms: "pt_BR" is looked for as "pt_BR", then "pt".
 *
 * The user's languages: on POSIX, as gettext takes them, the list in
 * LANGUAGE ("pt_BR:fr") when the locale of messages is not C, then that
 * locale (the first of LC_ALL, LC_MESSAGES, LANG that is set); on Windows
 * the user's preferred UI languages (GetUserPreferredUILanguages, else
 * GetUserDefaultUILanguage).
 *
 * Formatting: "{1}" .. "{99}" stand for the arguments, given as UTF-8
 * texts, in any order and as often as wanted, so a translation can put
 * them in its own order: "{2} files in {1}" and "{1}: {2} Dateien" take
 * the same arguments. "{{" is a "{". A placeholder without an argument
 * stays as it is written, so a missing argument shows instead of reading
 * memory it should not. Numbers are formatted by the caller (vek_snprintf).
 *
 * Ownership and threads: a catalogue belongs to the caller. Fill it (the
 * add calls) before sharing it; lookups and formatting may then run on
 * any number of threads at once. Returned texts live in the catalogue.
 * Results: VEK_ERR_FILE_OPEN (-64), VEK_ERR_INI_LINE_LONG (-251),
 * VEK_ERR_FULL (-201), VEK_ERR_NOT_FOUND (-25).
 */
#ifndef VEK_LANGCAT_H
#define VEK_LANGCAT_H

#include "VekType.h"

VEK_BEGIN_DECLS

typedef struct LangCat LangCat;

/* The user's languages, most wanted first, normalised and separated by
 * ":" ("pt_BR:fr"), into buf (cut to size - 1 bytes, terminated); returns
 * the length, 0 when none is known (the C locale). */
VEK_API vek_s32 lang_user(char* buf, vek_s32 size);
/* The tags a list of languages is looked for as, in order: each tag
 * normalised, followed by its shorter forms, none twice ("pt-BR:fr_FR"
 * gives "pt_BR:pt:fr_FR:fr"). Returns the length written to buf. */
VEK_API vek_s32 lang_fallbacks(const char* langs, char* buf, vek_s32 size);

/* An empty catalogue; null without memory. */
VEK_API LangCat* lang_new(void);
VEK_API void lang_close(LangCat* cat);  /* null is ignored */
/* Adds the messages of a file (UTF-8 path) or of a text (len < 0:
 * terminated); a message the catalogue already holds keeps its text, so
 * add the most wanted language first. 0, -64, -251 or -201. */
VEK_API vek_s32 lang_add_file(LangCat* cat, const char* path);
VEK_API vek_s32 lang_add_buf(LangCat* cat, const char* text, vek_s32 len);
/* A catalogue of "<folder>/<domain>.<tag>.ini" for every tag of
 * lang_fallbacks(langs) that exists, then "<folder>/<domain>.ini". langs
 * null: the user's languages. Null with *err -64 when none of the files
 * exists (err may be null). */
VEK_API LangCat* lang_open(const char* folder, const char* domain, const char* langs, vek_s32* err);
/* The tag of the first language file lang_open found ("" when only the
 * default answered, or for a catalogue filled by the add calls). */
VEK_API const char* lang_tag(const LangCat* cat);

/* The text of a message, or def when the catalogue has none. */
VEK_API const char* lang_get(const LangCat* cat, const char* sect, const char* key, const char* def);
/* Formats fmt with argv[0 .. argc) as {1} .. into out (replaced); returns
 * its length. */
VEK_API vek_s32 lang_fmt_str(VekStr* out, const char* fmt, vek_s32 argc, const char* const* argv);
/* lang_get then lang_fmt_str. */
VEK_API vek_s32 lang_fmt(const LangCat* cat, VekStr* out, const char* sect, const char* key, const char* def,
                         vek_s32 argc, const char* const* argv);
/* The same with the arguments listed, ended by a null. */
VEK_API vek_s32 lang_fmts(const LangCat* cat, VekStr* out, const char* sect, const char* key, const char* def,
                          ...);

VEK_END_DECLS

#endif /* VEK_LANGCAT_H */
