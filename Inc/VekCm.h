/*
 * VekCm.h - the loadable-library manager: libraries loaded at run time,
 * found from a list of candidate names, shared and reference-counted.
 *
 * A candidate is a UTF-8 file name or path. A bare name (no "/" or "\")
 * is tried in the library's own folder first (vek_base_fld), then the
 * system's way (the dynamic loader's search path on POSIX, the DLL search
 * order on Windows). The first candidate that loads wins. Every cm_load of
 * a library that is loaded already (whatever name led to it) returns the
 * same CmLib with one more reference; cm_unload gives one back and the
 * library is unloaded with the last one (through win_free_dll_dbg__ when
 * "HoldDynDll" is set, so leak reports can still name its code).
 *
 * Results: 0; -94 (VEK_ERR_NO_LIBRARY) when no candidate could be loaded,
 * the system's reason for the last one then available from cm_error;
 * -790 (VEK_ERR_LIB_SYMBOL) when an entry point is missing; -81 for bad
 * arguments (with an assertion for null pointers). Every function may be
 * called from any thread. BaseLib_exit traces the libraries still loaded.
 */
#ifndef VEK_CM_H
#define VEK_CM_H

#include "VekType.h"

VEK_BEGIN_DECLS

typedef struct CmLib CmLib;  /* opaque */

/* Loads the first loadable of the candidates in names, separated by "|"
 * ("libcurl.so.4|libcurl-gnutls.so.4"); *lib receives it, or null. */
VEK_API vek_s32 cm_load(const char* names, CmLib** lib);
/* The same with count candidates in an array. */
VEK_API vek_s32 cm_loadv(const char* const* names, vek_s32 count, CmLib** lib);
/* The address of the exported symbol name, or null when there is none. */
VEK_API void* cm_sym(CmLib* lib, const char* name);
/* Resolves count symbols into syms: 0 when every one is there; else -790,
 * every slot of syms null, and the first missing name in cm_error. */
VEK_API vek_s32 cm_syms(CmLib* lib, const char* const* names, void** syms, vek_s32 count);
/* One more reference; returns the new count. */
VEK_API vek_s32 cm_addref(CmLib* lib);
/* One reference less; the last unloads the library and frees lib. Returns
 * the references left. */
VEK_API vek_s32 cm_unload(CmLib* lib);
/* The candidate that loaded (as it was given). */
VEK_API const char* cm_name(const CmLib* lib);
/* The full path of the loaded file into buf; its length, 0 when unknown. */
VEK_API vek_s32 cm_path(const CmLib* lib, char* buf, vek_s32 cap);
/* The reason of the calling thread's last cm_load or cm_syms failure
 * ("" when none) into buf; its length. */
VEK_API vek_s32 cm_error(char* buf, vek_s32 cap);
/* How many libraries the manager holds now. */
VEK_API vek_s32 cm_count(void);

VEK_END_DECLS

#endif /* VEK_CM_H */
