/*
 * Trace calls against spdlog: a call whose level is filtered out (VEK_TRACE
 * with the record's level above its limit, a listener installed so that
 * tracing is on) against SPDLOG_DEBUG with the logger's level at info; and
 * an enabled record written to a file on the calling thread (the trace
 * file set with tout_set_file) against spdlog's basic file sink.
 */
#include <benchmark/benchmark.h>
#include <cstdio>
#include <string>
#include "BaseLib.h"
#ifdef HAVE_SPDLOG
#define SPDLOG_ACTIVE_LEVEL SPDLOG_LEVEL_TRACE
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

void quiet(void*, const char*, vek_s32) {}

std::string temp_file(const char* name) {
    return std::string("/tmp/vekbench-") + name;
}

void BM_vek_trace_off(benchmark::State& state) {
    vek_trc_sink old = tout_set_sink(quiet, nullptr);
    DbgMng_setLevel(800, 1, 2);
    int i = 0;
    for (auto _ : state) {
        VEK_TRACE(800, 1, 3, "value %d %s", i, "text");
        benchmark::DoNotOptimize(++i);
    }
    tout_set_sink(old, nullptr);
}
BENCHMARK(BM_vek_trace_off);

void BM_vek_trace_file(benchmark::State& state) {
    std::string path = temp_file("vektrc.log");
    std::remove(path.c_str());
    if (tout_set_file(path.c_str()) != 0) {
        state.SkipWithError("trace file");
        return;
    }
    DbgMng_setLevel(800, 1, 3);
    int i = 0;
    for (auto _ : state) {
        VEK_TRACE(800, 1, 3, "value %d %s", i++, "text");
    }
    tout_flush();
    tout_set_file(nullptr);
    std::remove(path.c_str());
}
BENCHMARK(BM_vek_trace_file);

#ifdef HAVE_SPDLOG
void BM_spdlog_debug_off(benchmark::State& state) {
    spdlog::set_level(spdlog::level::info);
    int i = 0;
    for (auto _ : state) {
        SPDLOG_DEBUG("value {} {}", i, "text");
        benchmark::DoNotOptimize(++i);
    }
}
BENCHMARK(BM_spdlog_debug_off);

void BM_spdlog_file(benchmark::State& state) {
    std::string path = temp_file("spdlog.log");
    std::remove(path.c_str());
    auto logger = spdlog::basic_logger_mt("bench_file", path);
    logger->set_level(spdlog::level::info);
    int i = 0;
    for (auto _ : state) {
        logger->info("value {} {}", i++, "text");
    }
    logger->flush();
    spdlog::drop("bench_file");
    std::remove(path.c_str());
}
BENCHMARK(BM_spdlog_file);
#endif

} // namespace
