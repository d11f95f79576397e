// crc32_calc against zlib's crc32() over the same 64 MiB buffer in the same
// run. The counter "calc_vs_zlib" is crc32_calc's speed as a share of zlib's.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <chrono>
#include <vector>

#include "base/fileutil.h"

namespace {

constexpr uint32_t kSize = 64u << 20;

void BM_CrcCalcVsZlib(benchmark::State& state)
{
    std::vector<uint8_t> buf(kSize);
    for (size_t k = 0; k < buf.size(); k++) buf[k] = uint8_t(k * 2654435761u >> 24);
    double calc = 0, zlib = 0;
    uint32_t a = 0, b = 0;
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        a = crc32_calc(0, buf.data(), kSize);
        auto t1 = std::chrono::steady_clock::now();
        b = uint32_t(crc32(0, buf.data(), kSize));
        auto t2 = std::chrono::steady_clock::now();
        calc += std::chrono::duration<double>(t1 - t0).count();
        zlib += std::chrono::duration<double>(t2 - t1).count();
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
    }
    if (a != b) state.SkipWithError("crc32_calc and zlib disagree");
    state.SetBytesProcessed(int64_t(state.iterations()) * kSize);
    state.counters["calc_vs_zlib"] = zlib / calc;
}

}  // namespace

BENCHMARK(BM_CrcCalcVsZlib)->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
