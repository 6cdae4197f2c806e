/*
 * VekErr.cpp - the short English text of every result code.
 *
 * One line per code, in the order of the codes (0 downwards), so that a
 * family adding its codes adds its lines in one place and the lookup can
 * halve the table. The order is checked when the library is compiled.
 */
#include "VekType.h"

namespace {

struct ErrText {
    vek_s32 code;
    const char* text;
};

constexpr ErrText kTexts[] = {
    {VEK_ERR_NO_STRING, "no string behind the stream"},
    {VEK_ERR_ABORTED, "aborted"},
    {VEK_ERR_RANGE, "out of range"},
    {VEK_ERR_TIMEOUT, "timed out"},
    {VEK_ERR_NOT_OPEN, "nothing open"},
    {VEK_ERR_NOT_FOUND, "not found"},
    {VEK_ERR_NO_EMPTY_SLOT, "no empty slot"},
    {VEK_ERR_NO_FREE_SLOT, "no free slot (containers), or the system wait failed (waits)"},
    {VEK_ERR_FILE_OPEN, "the file cannot be opened"},
    {VEK_ERR_BAD_ARG, "bad argument"},
    {VEK_ERR_READ_ONLY, "not supported: read-only, or not on this system"},
    {VEK_ERR_NOT_SUPPORTED, "not supported"},
    {VEK_ERR_WRITE_NOTHING, "the write wrote nothing"},
    {VEK_ERR_NAME_EXISTS, "the name is already present"},
    {VEK_ERR_NAME_MISSING, "the name is not present"},
    {VEK_ERR_QUEUE_EMPTY, "queue empty"},
    {VEK_ERR_FULL, "full, or growth failed"},
    {VEK_ERR_EOF, "end of stream"},
    {VEK_ERR_INI_LINE_LONG, "an INI line is longer than 1024 bytes"},
    {VEK_ERR_NEG_TIME_DIFF, "negative time difference"},
    {VEK_ERR_DEV_GONE, "the device was removed or hung up"},
    {VEK_ERR_BUSY, "the port is held by another program"},
    {VEK_ERR_BAD_SETTING, "the device refused a setting"},
    {VEK_ERR_REFUSED, "connection refused"},
    {VEK_ERR_NO_HOST, "the host name does not resolve"},
    {VEK_ERR_ADDR_IN_USE, "the address or name is in use"},
    {VEK_ERR_LINE_LONG, "a line is longer than the room given for it"},
    {VEK_ERR_NO_WATCH, "the system gives no device notifications here"},
    /* The modem channel */
    {VEK_ERR_AT_ERROR, "the modem answered ERROR"},
    {VEK_ERR_AT_NO_CARRIER, "the modem answered NO CARRIER"},
    {VEK_ERR_AT_BUSY, "the modem answered BUSY"},
    {VEK_ERR_AT_NO_ANSWER, "the modem answered NO ANSWER"},
    {VEK_ERR_AT_NO_DIALTONE, "the modem answered NO DIALTONE"},
    {VEK_ERR_AT_VENDOR, "the modem answered a vendor's error"},
    {VEK_ERR_AT_CME_TEXT, "the modem answered +CME ERROR"},
    {VEK_ERR_AT_CMS_TEXT, "the modem answered +CMS ERROR"},
    /* Local endpoints and messages between processes */
    {VEK_ERR_PEER_REFUSED, "the other end runs as another user"},
    {VEK_ERR_UNSAFE_DIR, "the runtime folder is not private to the user"},
    {VEK_ERR_FRAME_TOO_BIG, "a message frame is longer than the limit"},
    {VEK_ERR_BAD_FRAME, "a malformed message frame"},
    /* trace, monitors, loadable libraries, downloads */
    {VEK_ERR_LIB_SYMBOL, "the library lacks an entry point it needs"},
    {VEK_ERR_HTTP_STATUS, "the server answered with an error status"},
    {VEK_ERR_HOST_UNKNOWN, "the host name could not be resolved"},
    {VEK_ERR_CONNECT, "no connection could be made to the server"},
    {VEK_ERR_TRANSFER, "the transfer broke off"},
    {VEK_ERR_WRITE, "received data could not be stored"},
    {VEK_ERR_TLS, "the secure connection failed"},
    {VEK_ERR_WATCH_LIMIT, "the system's limit of file watches is reached"},
    {VEK_ERR_MALFORMED, "input not in the expected form"},
    {VEK_ERR_XML_SYNTAX, "XML not well-formed"},
    {VEK_ERR_XML_CHAR, "a character XML does not allow"},
    {VEK_ERR_XML_TAG, "an XML end tag that does not match"},
    {VEK_ERR_XML_DUP_ATTR, "an XML attribute given twice"},
    {VEK_ERR_XML_ENTITY, "an XML entity other than the predefined ones"},
    {VEK_ERR_XML_CHAR_REF, "an XML character reference to a character XML does not allow"},
    {VEK_ERR_XML_ENCODING, "an XML encoding not supported or contradicted"},
    {VEK_ERR_XML_DEPTH, "XML elements nested too deep"},
    {VEK_ERR_XML_SIZE, "an XML document or token beyond the limit"},
    {VEK_ERR_XML_UNCLOSED, "the XML input ended inside a token or element"},
    {VEK_ERR_XML_NO_ROOT, "the XML input has no root element"},
    {VEK_ERR_XML_JUNK, "text or markup after the XML root element"},
    {VEK_ERR_XML_DECL, "a malformed or misplaced XML declaration"},
    {VEK_ERR_XML_DOCTYPE, "an XML DOCTYPE refused"},

    /* Waits on descriptors and handles */
    {VEK_ERR_IO, "a system read, write or wait failed"},
    {VEK_ERR_PEER_CLOSED, "the other end is closed"},

    /* Timers and the task server */
    {VEK_ERR_TIMER_RUNNING, "the timer's callback is running on another thread"},
};

constexpr bool in_order() {
    for (size_t i = 1; i < sizeof kTexts / sizeof kTexts[0]; i++) {
        if (kTexts[i].code >= kTexts[i - 1].code) {
            return false;
        }
    }
    return kTexts[0].code < 0;
}
static_assert(in_order(), "one line per code, from 0 downwards");

} // namespace

extern "C" {

VEK_API const char* vek_err_text(vek_s32 code) {
    if (code >= 0) {
        return "success";
    }
    // The modem's own numbered errors (AtChan.h).
    if (code <= -10000 && code > -20000) {
        return "the modem answered +CME ERROR (code -10000 - n)";
    }
    if (code <= -20000 && code > -30000) {
        return "the modem answered +CMS ERROR (code -20000 - n)";
    }
    size_t lo = 0, hi = sizeof kTexts / sizeof kTexts[0];
    while (lo < hi) {
        size_t mid = lo + (hi - lo) / 2;
        if (kTexts[mid].code == code) {
            return kTexts[mid].text;
        }
        if (kTexts[mid].code > code) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    return "unknown error";
}

} // extern "C"
