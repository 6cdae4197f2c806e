// The benchmark programs' main: the library's application level around the run.
#include <benchmark/benchmark.h>
#include "BaseLib.h"

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    BaseLib_init();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    BaseLib_exit();
    return 0;
}
