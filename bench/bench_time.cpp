/*
 * ISO 8601 date-times: iso_dt_dec and iso_dt_encx (extended notation)
 * against GLib's g_date_time_new_from_iso8601 and
 * g_date_time_format_iso8601 on the same texts, when GLib is installed.
 * GLib's side includes making and freeing its date-time object, which is
 * how it is used.
 */
#include <benchmark/benchmark.h>
#include <vector>
#include "BaseLib.h"
#ifdef HAVE_GLIB
#include <glib.h>
#endif

namespace {

const char* const kTexts[] = {
    "2012-08-22T10:15:30+08:00", "2026-11-23T13:38:42Z",        "1999-12-31T23:59:59.125-05:00",
    "2000-02-29T00:00:00+05:30", "2093-06-15T12:00:00.5+01:00", "1970-01-01T00:00:01Z",
    "2024-03-31T02:30:00+02:00", "2012-10-28T01:59:59.999-03:30",
};

void BM_vek_iso_dec(benchmark::State& state) {
    VekDt dt;
    for (auto _ : state) {
        for (const char* t : kTexts) {
            benchmark::DoNotOptimize(iso_dt_dec(t, &dt));
        }
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)(sizeof kTexts / sizeof *kTexts));
}
BENCHMARK(BM_vek_iso_dec);

void BM_vek_iso_enc(benchmark::State& state) {
    std::vector<VekDt> dts(sizeof kTexts / sizeof *kTexts);
    for (size_t i = 0; i < dts.size(); i++) {
        iso_dt_dec(kTexts[i], &dts[i]);
    }
    VekStr str;
    VekStr_new(&str);
    for (auto _ : state) {
        for (const VekDt& dt : dts) {
            benchmark::DoNotOptimize(iso_dt_encx(&str, &dt, 0, 1));
        }
    }
    VekStr_delete(&str);
    state.SetItemsProcessed(state.iterations() * (int64_t)dts.size());
}
BENCHMARK(BM_vek_iso_enc);

#ifdef HAVE_GLIB
void BM_glib_iso_dec(benchmark::State& state) {
    for (auto _ : state) {
        for (const char* t : kTexts) {
            GDateTime* dt = g_date_time_new_from_iso8601(t, nullptr);
            benchmark::DoNotOptimize(dt);
            g_date_time_unref(dt);
        }
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)(sizeof kTexts / sizeof *kTexts));
}
BENCHMARK(BM_glib_iso_dec);

void BM_glib_iso_enc(benchmark::State& state) {
    std::vector<GDateTime*> dts;
    for (const char* t : kTexts) {
        dts.push_back(g_date_time_new_from_iso8601(t, nullptr));
    }
    for (auto _ : state) {
        for (GDateTime* dt : dts) {
            gchar* s = g_date_time_format_iso8601(dt);
            benchmark::DoNotOptimize(s);
            g_free(s);
        }
    }
    for (GDateTime* dt : dts) {
        g_date_time_unref(dt);
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)dts.size());
}
BENCHMARK(BM_glib_iso_enc);
#endif

} // namespace
