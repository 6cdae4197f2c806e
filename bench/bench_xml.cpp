/*
 * Decoding a 10 MB XML document to events only: XmlDec pulled to the end
 * against expat with empty start, end and character-data handlers. The
 * document is what device services send: nested records with attributes,
 * short texts, a few references, CDATA and comments, indented.
 */
#include <benchmark/benchmark.h>
#include <string>
#include "BaseLib.h"
#ifdef HAVE_EXPAT
#include <expat.h>
#endif

namespace {

const std::string& doc() {
    static std::string d = [] {
        std::string s = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<inventory site=\"north &amp; east\">\n";
        for (int i = 0; s.size() < 10u * 1000 * 1000; i++) {
            std::string n = std::to_string(i);
            s += "  <device id=\"" + n + "\" kind=\"modem\" state=\"online\">\n";
            s += "    <name>Modem " + n + " &lt;USB&gt;</name>\n";
            s += "    <imei>35" + n + "0123456789</imei>\n";
            s += "    <port speed=\"115200\" flow='rts/cts'>/dev/ttyUSB" + n + "</port>\n";
            s += "    <!-- last seen by the monitor -->\n";
            s += "    <note><![CDATA[signal -71 dBm <ok>]]></note>\n";
            s += "    <sms count=\"" + n + "\"/>\n  </device>\n";
        }
        return s + "</inventory>\n";
    }();
    return d;
}

void BM_XmlDec_events(benchmark::State& state) {
    const std::string& d = doc();
    XmlDecOpts o{};
    o.maxSize = 64 * 1024 * 1024;
    XmlDec* dec = XmlDec_new(&o);
    size_t events = 0;
    for (auto _ : state) {
        XmlDec_reset(dec);
        XmlDec_feed(dec, d.data(), (vek_s32)d.size());
        XmlDec_end(dec);
        XmlEvt e;
        vek_s32 r;
        while ((r = XmlDec_next(dec, &e)) > 0 && r != XML_EVT_EOF) {
            events++;
        }
        if (r != XML_EVT_EOF) {
            state.SkipWithError("decoding failed");
            break;
        }
    }
    XmlDec_delete(dec);
    benchmark::DoNotOptimize(events);
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)d.size());
}
BENCHMARK(BM_XmlDec_events)->Unit(benchmark::kMillisecond);

#ifdef HAVE_EXPAT
void XMLCALL on_start(void* u, const XML_Char*, const XML_Char**) {
    ++*(size_t*)u;
}
void XMLCALL on_end(void* u, const XML_Char*) {
    ++*(size_t*)u;
}
void XMLCALL on_text(void* u, const XML_Char*, int) {
    ++*(size_t*)u;
}

void BM_expat_events(benchmark::State& state) {
    const std::string& d = doc();
    size_t events = 0;
    XML_Parser p = XML_ParserCreate(nullptr);
    for (auto _ : state) {
        XML_ParserReset(p, nullptr);
        XML_SetUserData(p, &events);
        XML_SetElementHandler(p, on_start, on_end);
        XML_SetCharacterDataHandler(p, on_text);
        if (XML_Parse(p, d.data(), (int)d.size(), 1) != XML_STATUS_OK) {
            state.SkipWithError("expat failed");
            break;
        }
    }
    XML_ParserFree(p);
    benchmark::DoNotOptimize(events);
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)d.size());
}
BENCHMARK(BM_expat_events)->Unit(benchmark::kMillisecond);
#endif

} // namespace
