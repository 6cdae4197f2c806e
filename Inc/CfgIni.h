/*
 * CfgIni.h - a program's settings over an INI file: typed getters and
 * setters, defaults declared once in a table, safe saving, and a reload
 * that tells who listens which settings changed on disc.
 *
 * The file keeps its comments, order and layout (IniFile.h); a changed
 * setting rewrites only its own line, keeping what stands before its value.
 * Reading a setting:
 *  - section and key names compare without ASCII case and without the
 *    blanks around them ("Port = 80" is the key "Port"); a null or empty
 *    section means the lines before the first header;
 *  - the value loses the blanks around it; in a value that is not quoted,
 *    ";" after a blank starts a comment ("80 ; the web port" is "80"); a
 *    value in double quotes is taken as it stands inside them, "" standing
 *    for one quote (the setters quote a value that needs it);
 *  - integers: decimal with an optional sign, or hexadecimal after "0x";
 *    booleans: 1/0, true/false, yes/no, on/off, in any case; lists: items
 *    separated by ",", each trimmed, an item in double quotes may hold ","
 *    (an empty value is an empty list);
 *  - a value that is missing, does not parse as its type, or lies outside
 *    its declared range gives the declared default (CfgIni_source tells
 *    which case it was); a setting with no declaration and no value gives
 *    "", 0, false or no items.
 *
 * Defaults: a table of CfgIniDef, declared once (typically static); the
 * object keeps a pointer to it, so it must outlive the object. A default
 * that does not parse as its type, or a getter of another type than the
 * declared one (the string getter reads any), is an assertion.
 *
 * Saving writes the whole document through the library's safe path (a
 * temporary file beside the original, flushed, then swapped in), only when
 * something changed.
 *
 * Reload and change callbacks: CfgIni_reload reads the file again. When
 * the program has no unsaved changes the file's content is taken as it
 * is; otherwise the changes made on disc since the last load or save are
 * applied over the program's own (the disc wins where both changed one
 * setting) and the program's other changes stay unsaved. Every setting
 * whose value changed by the reload (added, changed or removed) is then
 * reported to each watcher: fn(ctx, cfg, sect, key), with the names as the
 * file spells them. The callbacks run on the thread that called
 * CfgIni_reload (for a file monitor, the monitor's thread), one setting at
 * a time, after the object's lock is released, so they may read and set
 * settings. CfgIni_delWatch waits until a running call of that watcher has
 * returned (unless it is called from inside a callback), so after it
 * returns the watcher is not called again. The program's own setters do
 * not call watchers.
 *
 * Threads: every call may be made from any thread (one lock per object).
 * Results: 0 or a count; VEK_ERR_NOT_FOUND (-25); VEK_ERR_BAD_ARG (-81) for
 * a value outside the declared range or one holding a line end;
 * VEK_ERR_NOT_OPEN (-23) to save or reload settings without a file;
 * VEK_ERR_FILE_OPEN (-64) and VEK_ERR_INI_LINE_LONG (-251) from reading
 * the file; VEK_ERR_FULL (-201) when memory ran out; a negative write error.
 */
#ifndef VEK_CFGINI_H
#define VEK_CFGINI_H

#include "VekType.h"

VEK_BEGIN_DECLS

#define CFGINI_STR  1
#define CFGINI_INT  2
#define CFGINI_BOOL 3
#define CFGINI_LIST 4

/* One declared setting. */
typedef struct CfgIniDef {
    const char* sect;  /* null or "": the lines before the first header */
    const char* key;
    vek_s32 type;      /* CFGINI_STR, CFGINI_INT, CFGINI_BOOL or CFGINI_LIST */
    const char* def;   /* the default in the file's own form: "8080", "yes", "a, b" */
    vek_s32 min;       /* CFGINI_INT: the allowed range; 0 and 0: any value */
    vek_s32 max;
} CfgIniDef;

typedef struct CfgIni CfgIni;

/* The settings of the file at path (UTF-8) with the declarations defs[0 ..
 * count). A missing file gives the defaults, *err -64 and an object that
 * saves to that path; a file that cannot be loaded otherwise gives null and
 * *err. A null path gives settings in memory only. err may be null. */
VEK_API CfgIni* CfgIni_new(const char* path, const CfgIniDef* defs, vek_s32 count, vek_s32* err);
VEK_API void CfgIni_delete(CfgIni* cfg);  /* null is ignored; unsaved changes are dropped */
/* The path given to CfgIni_new (null: none): what a file monitor watches. */
VEK_API const char* CfgIni_path(const CfgIni* cfg);

/* ---- getters ---- */
/* The value as text into buf (at most size - 1 bytes, terminated when
 * size > 0); returns its whole length. */
VEK_API vek_s32 CfgIni_getStr(CfgIni* cfg, const char* sect, const char* key, char* buf, vek_s32 size);
/* The same into a VekStr (replaced); its length. */
VEK_API vek_s32 CfgIni_getStrx(CfgIni* cfg, const char* sect, const char* key, VekStr* out);
VEK_API vek_s32 CfgIni_getInt(CfgIni* cfg, const char* sect, const char* key);
VEK_API vek_bool CfgIni_getBool(CfgIni* cfg, const char* sect, const char* key);
/* The items of a list: their texts go into store (replaced), up to cap
 * pointers to them into items (may be null with cap 0); returns the number
 * of items, which may exceed cap. The pointers stay valid while store is
 * not changed. */
VEK_API vek_s32 CfgIni_getList(CfgIni* cfg, const char* sect, const char* key, VekStr* store,
                               const char** items, vek_s32 cap);
/* Where a value comes from: */
#define CFGINI_FROM_FILE    0  /* the file, valid */
#define CFGINI_FROM_DEFAULT 1  /* not in the file: the default */
#define CFGINI_INVALID      2  /* in the file but not valid for its type or range: the default */
/* One of those, or -25 when the setting is neither in the file nor declared. */
VEK_API vek_s32 CfgIni_source(CfgIni* cfg, const char* sect, const char* key);

/* ---- setters (the line is written on save) ---- */
/* Sets the value (quoted in the file when it needs it); -81 for a value
 * holding CR or LF. */
VEK_API vek_s32 CfgIni_setStr(CfgIni* cfg, const char* sect, const char* key, const char* value);
/* -81 outside the declared range (nothing changes). */
VEK_API vek_s32 CfgIni_setInt(CfgIni* cfg, const char* sect, const char* key, vek_s32 value);
/* Written in the spelling the file (or else the default) uses: yes/no,
 * on/off, 1/0 or true/false, keeping its letter case. */
VEK_API vek_s32 CfgIni_setBool(CfgIni* cfg, const char* sect, const char* key, vek_bool value);
/* Items joined with ", ", each quoted when it needs it. */
VEK_API vek_s32 CfgIni_setList(CfgIni* cfg, const char* sect, const char* key, const char* const* items,
                               vek_s32 count);
/* Removes the setting's line, so the default applies again; -25 when the
 * file has no such setting. */
VEK_API vek_s32 CfgIni_unset(CfgIni* cfg, const char* sect, const char* key);
/* 1 when there are unsaved changes. */
VEK_API vek_s32 CfgIni_moded(CfgIni* cfg);

/* ---- saving and reloading ---- */
/* Writes the file safely when something changed; 0, -23 without a path,
 * or the write error (the changes then stay unsaved). */
VEK_API vek_s32 CfgIni_save(CfgIni* cfg);
/* Reads the file again (see above); returns the number of settings that
 * changed, or -23, -64 (the file is missing or unreadable: the settings
 * stay as they were), -251, -201. */
VEK_API vek_s32 CfgIni_reload(CfgIni* cfg);

typedef void (*CfgIni_changeFn)(void* ctx, CfgIni* cfg, const char* sect, const char* key);
/* Adds a watcher; 0, -111 when (fn, ctx) is already one, -201. */
VEK_API vek_s32 CfgIni_addWatch(CfgIni* cfg, CfgIni_changeFn fn, void* ctx);
/* Removes a watcher, waiting for a running call of it; 0 or -25. */
VEK_API vek_s32 CfgIni_delWatch(CfgIni* cfg, CfgIni_changeFn fn, void* ctx);

VEK_END_DECLS

#endif /* VEK_CFGINI_H */
