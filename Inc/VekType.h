/*
 * VekType.h - base types, result codes and the export macro of BaseLib.
 *
 * Every public header includes this one. It is plain C99 and also valid C++.
 *
 * Conventions of the whole library:
 *  - negative 32-bit results are errors; 0 or a non-negative count is success;
 *  - 8-bit text is UTF-8, 16-bit text is UTF-16 in host byte order (vek_wchar);
 *  - objects made by a _new(NULL, ...) call are freed by _delete; objects built
 *    in caller storage are only cleaned;
 *  - programming errors (null arguments, broken invariants) go to the assertion
 *    facility (VekVos.h) and the function then carries on safely.
 */
#ifndef VEK_TYPE_H
#define VEK_TYPE_H

#include <stddef.h>
#include <stdarg.h>

/* ---- fixed-width types ---- */
typedef unsigned char vek_u8;
typedef signed char vek_s8;
typedef unsigned short vek_u16;
typedef signed short vek_s16;
typedef unsigned int vek_u32;
typedef signed int vek_s32;
typedef unsigned long long vek_u64;
typedef signed long long vek_s64;

/* One UTF-16 code unit (host byte order). */
typedef vek_u16 vek_wchar;

/* 32-bit boolean: 0 false, anything else true. */
typedef vek_s32 vek_bool;

/* Object types that several headers name; each is defined by its family's header. */
typedef struct IStrm IStrm;      /* byte stream interface (BaseItf.h) */
typedef struct TinyStr TinyStr;  /* tiny string builder (TinyStr.h) */
typedef struct VekStr VekStr;    /* growable UTF-8 string (VekStr.h) */
typedef struct VekWcs VekWcs;    /* growable UTF-16 string (VekWcs.h) */

/* Opaque handle of a waitable object (event, mutex): a HANDLE on Windows,
 * a library-owned object on POSIX. Null means none. */
typedef void* vek_handle;

/* ---- export macro ---- */
#if defined(VEK_STATIC)
#  define VEK_API
#elif defined(_WIN32)
#  if defined(VEK_BUILDING_BASELIB)
#    define VEK_API __declspec(dllexport)
#  else
#    define VEK_API __declspec(dllimport)
#  endif
#elif defined(__GNUC__)
#  define VEK_API __attribute__((visibility("default")))
#else
#  define VEK_API
#endif

#ifdef __cplusplus
#  define VEK_BEGIN_DECLS extern "C" {
#  define VEK_END_DECLS }
#else
#  define VEK_BEGIN_DECLS
#  define VEK_END_DECLS
#endif

#if defined(__GNUC__)
#  define VEK_PRINTF(fmtIdx, argIdx) __attribute__((format(printf, fmtIdx, argIdx)))
#  define VEK_NORETURN __attribute__((noreturn))
#else
#  define VEK_PRINTF(fmtIdx, argIdx)
#  define VEK_NORETURN
#endif

/* ---- result codes (the values are the contract) ---- */
#define VEK_OK                   0
#define VEK_ERR_NO_STRING       (-1)   /* string-object stream without a string */
#define VEK_ERR_ABORTED         (-5)   /* the wait was ended by an abort event */
#define VEK_ERR_RANGE           (-9)   /* seek target out of range (string streams) */
#define VEK_ERR_TIMEOUT         (-12)  /* timed out */
#define VEK_ERR_NOT_OPEN        (-23)  /* nothing open, or nothing to step back over */
#define VEK_ERR_NOT_FOUND       (-25)  /* not found */
#define VEK_ERR_NO_EMPTY_SLOT   (-36)  /* no empty slot */
#define VEK_ERR_NO_FREE_SLOT    (-51)  /* no free slot */
#define VEK_ERR_WAIT_FAILED     (-51)  /* the system wait failed */
#define VEK_ERR_FILE_OPEN       (-64)  /* a file could not be opened */
#define VEK_ERR_BAD_ARG         (-81)  /* bad argument (origin, offset, length, range) */
#define VEK_ERR_READ_ONLY       (-94)  /* writing to a read-only object */
#define VEK_ERR_NOT_SUPPORTED   (-95)  /* operation or interface not supported */
#define VEK_ERR_WRITE_NOTHING   (-103) /* a one-byte file write wrote nothing */
#define VEK_ERR_NAME_EXISTS     (-111) /* a name is already present */
#define VEK_ERR_NAME_MISSING    (-112) /* a name is not present */
#define VEK_ERR_QUEUE_EMPTY     (-125) /* queue empty */
#define VEK_ERR_FULL            (-201) /* full, or growth failed / count out of range */
#define VEK_ERR_EOF             (-202) /* end of the stream */
#define VEK_ERR_INI_LINE_LONG   (-251) /* an INI line is longer than 1024 bytes */
#define VEK_ERR_NEG_TIME_DIFF   (-602) /* negative time difference */
/* Data families: addresses, URLs, encoded numbers. */
#define VEK_ERR_MALFORMED       (-820) /* input not in the expected form (an address, a URL, a number) */

/* Waits on descriptors and handles, event-receive processors. */
#define VEK_ERR_UNSUPPORTED     (-94)  /* not supported by this system or device */
#define VEK_ERR_IO              (-850) /* a system read, write or wait failed (errno / GetLastError) */
#define VEK_ERR_PEER_CLOSED     (-851) /* a write found the other end closed */

/* ---- trace, monitors, loadable libraries, downloads (-790..-819) ---- */
#define VEK_ERR_NO_LIBRARY      (-94)  /* a library (or the service it brings) is not present */
#define VEK_ERR_LIB_SYMBOL      (-790) /* a loaded library lacks an entry point it needs */
#define VEK_ERR_HTTP_STATUS     (-791) /* the server answered with an error status (400 and above) */
#define VEK_ERR_HOST_UNKNOWN    (-792) /* the host name could not be resolved */
#define VEK_ERR_CONNECT         (-793) /* no connection could be made to the server */
#define VEK_ERR_TRANSFER        (-794) /* the transfer broke off (connection lost, bad response) */
#define VEK_ERR_WRITE           (-795) /* received data could not be stored (disc full, write error) */
#define VEK_ERR_TLS             (-796) /* the secure connection failed (certificate, handshake) */
#define VEK_ERR_WATCH_LIMIT     (-797) /* the system's limit of file watches is reached */

/* Timers and the task server */
#define VEK_ERR_TIMER_RUNNING   (-860) /* a timer's callback runs on another thread (not waited for) */

/* XML decoder (XmlDec.h): -830..-843 */
#define VEK_ERR_XML_SYNTAX      (-830) /* not well-formed: markup breaks the grammar */
#define VEK_ERR_XML_CHAR        (-831) /* a character XML does not allow, or bytes not valid in the encoding */
#define VEK_ERR_XML_TAG         (-832) /* an end tag that does not match the open element */
#define VEK_ERR_XML_DUP_ATTR    (-833) /* an attribute given twice in one tag */
#define VEK_ERR_XML_ENTITY      (-834) /* a reference to an entity other than the five predefined ones */
#define VEK_ERR_XML_CHAR_REF    (-835) /* a character reference to a character XML does not allow */
#define VEK_ERR_XML_ENCODING    (-836) /* an encoding not supported, or one the input contradicts */
#define VEK_ERR_XML_DEPTH       (-837) /* elements nested deeper than the limit */
#define VEK_ERR_XML_SIZE        (-838) /* the document, a token or the attributes beyond the limit */
#define VEK_ERR_XML_UNCLOSED    (-839) /* the input ended inside a token or an element */
#define VEK_ERR_XML_NO_ROOT     (-840) /* the input ended before the root element */
#define VEK_ERR_XML_JUNK        (-841) /* text or markup after the root element */
#define VEK_ERR_XML_DECL        (-842) /* a malformed or misplaced XML declaration */
#define VEK_ERR_XML_DOCTYPE     (-843) /* a DOCTYPE refused, malformed or misplaced */

/* Transports and devices (VekSock.h). */
#define VEK_ERR_DEV_GONE        (-700) /* the device was removed or hung up */
#define VEK_ERR_BUSY            (-701) /* the port is held by another program */
#define VEK_ERR_BAD_SETTING     (-702) /* the device refused a setting (read back differs) */
#define VEK_ERR_REFUSED         (-703) /* nothing listens at the address (connection refused) */
#define VEK_ERR_NO_HOST         (-704) /* the host name does not resolve */
#define VEK_ERR_ADDR_IN_USE     (-705) /* the address or name is in use */
#define VEK_ERR_LINE_LONG       (-706) /* a line is longer than the room given for it */
#define VEK_ERR_NO_WATCH        (-707) /* the system gives no device notifications here */

/* Local endpoints and messages between processes (VekPipe.h). */
#define VEK_ERR_PEER_REFUSED    (-760) /* the other end runs as another user */
#define VEK_ERR_UNSAFE_DIR      (-761) /* the runtime folder is not private to the user */
#define VEK_ERR_FRAME_TOO_BIG   (-762) /* a message frame is longer than the connection's limit */
#define VEK_ERR_BAD_FRAME       (-763) /* a malformed message frame */
/* The modem channel (AtChan.h); "+CME ERROR: n" and "+CMS ERROR: n" map
 * to -10000 - n and -20000 - n (VEK_AT_CME_BASE, VEK_AT_CMS_BASE). */
#define VEK_ERR_AT_ERROR        (-730) /* the modem answered ERROR */
#define VEK_ERR_AT_NO_CARRIER   (-731) /* the modem answered NO CARRIER */
#define VEK_ERR_AT_BUSY         (-732) /* the modem answered BUSY */
#define VEK_ERR_AT_NO_ANSWER    (-733) /* the modem answered NO ANSWER */
#define VEK_ERR_AT_NO_DIALTONE  (-734) /* the modem answered NO DIALTONE */
#define VEK_ERR_AT_VENDOR       (-735) /* the modem answered a vendor's final error */
#define VEK_ERR_AT_CME_TEXT     (-736) /* +CME ERROR with a text not known here */
#define VEK_ERR_AT_CMS_TEXT     (-737) /* +CMS ERROR with a text not known here */

VEK_BEGIN_DECLS

/* A short English text for a result code, for a program's messages (for
 * example "timed out" for -12): "success" for 0 and any positive count,
 * "unknown error" for a code the library does not define. -51 has two
 * meanings and its text names both by family (containers and waits). The
 * text is static: never freed, valid for the life of the process; any
 * thread may call this. */
VEK_API const char* vek_err_text(vek_s32 code);

VEK_END_DECLS

#endif /* VEK_TYPE_H */
