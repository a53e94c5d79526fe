// Cost of a log call whose level is below the threshold: it must be one comparison.
#include <benchmark/benchmark.h>

#include "core/controller/corvanesystemlog.h"

static void BM_FilteredLogCall(benchmark::State& state) {
    for (auto _ : state) {
        CORVANE_LOGD("filtered %d", 42);
    }
}
BENCHMARK(BM_FilteredLogCall);
