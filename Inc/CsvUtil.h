/*
 * CsvUtil.h - comma-separated records: split the next record of a text
 * into field strings, and quote one field for output.
 *
 * Records end with CR LF. A record comes back as a simple list (SmpList,
 * VekList.h) of CsvField nodes, one per field in order. Each node is one
 * tracked block holding its own copy of the field; free the whole record
 * with SmpList_delete(fields, vek_free__).
 */
#ifndef VEK_CSVUTIL_H
#define VEK_CSVUTIL_H

#include "VekType.h"

VEK_BEGIN_DECLS

typedef struct CsvField {
    char* text;              /* the field, terminated (points into the node) */
    struct CsvField* next;   /* the simple list's link: the next field or null */
    vek_s32 len;             /* bytes in text */
} CsvField;

/* Reads the record that starts at start (null: the beginning of text).
 * Returns 0 and *fields null when start lies before text or at or beyond
 * its terminator; otherwise 1 with *fields the first field and *next (when
 * next is not null) the position behind the record. When memory runs out
 * part way it returns -201 with *fields null and nothing held.
 *
 * A field starting with '"' runs to a '"' not followed by another one ('""'
 * gives one '"'); that quote AND the one character after it are passed
 * over unexamined (normally the separator, or the CR of CR LF). Any other
 * field runs to the terminator, sep, CR or LF, and the character it stops
 * at is passed over. After a field, CR LF or LF at the position ends the
 * record (the position moves past it), as does the end of the text; a
 * separator just before either adds an empty last field. So with bare LF
 * line ends the LF after an unquoted field is taken as a field end and the
 * next line continues the record; only an empty line ends it. */
VEK_API vek_s32 CsvUtil_read(const char* text, const char* start, const char** next, CsvField** fields,
                             char sep);
/* Sets dst to src and returns 0 when src holds none of '"', ',', CR, LF;
 * otherwise to src in double quotes with every '"' doubled, and returns 1.
 * Only the comma is tested, whatever separator the reader uses. Assertion
 * "src && dst" (then -81). */
VEK_API vek_s32 CsvUtil_encode(const char* src, VekStr* dst);

VEK_END_DECLS

#endif /* VEK_CSVUTIL_H */
