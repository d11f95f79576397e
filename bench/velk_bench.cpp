// Parsing a 64 MiB VELK image delivered in 16 KiB pieces, against one
// crc32_calc pass over the same bytes measured in the same run. The counter
// "parse_vs_crc" is the parser's speed as a share of the plain CRC's (1.0:
// as fast; the parser should stay at 0.9 or above).
#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>

#include "base/fileutil.h"
#include "mkvelk.h"
#include "velk/velk_stream_parser.h"

namespace {

constexpr size_t kImageSize = 64u << 20;
constexpr uint32_t kPiece = 16u << 10;

// A release header, a descriptor and software parts of 8 MiB, 64 MiB in all.
const mkvelk::bytes& image()
{
    static const mkvelk::bytes img = [] {
        std::vector<mkvelk::part> parts = {
            mkvelk::release_header(1, 0, 1, 1700000000, "bench", "products=bench\n"),
            mkvelk::korm("rootfs:1:rootfs\n"),
        };
        for (int i = 0; i < 7; i++) {
            mkvelk::bytes body(8u << 20);
            for (size_t k = 0; k < body.size(); k++) body[k] = uint8_t(k * 131 + i);
            parts.push_back(mkvelk::software("part" + std::to_string(i), 1, 0, 1, "bench", std::move(body)));
        }
        mkvelk::bytes last(kImageSize - 8 - (7u << 23) - 2048, 0x5A);
        parts.push_back(mkvelk::data("rest", std::move(last)));
        return mkvelk::build_image(parts);
    }();
    return img;
}

int parse_in_pieces(uint8_t* buf, uint32_t size)
{
    velk_stream_parser p;
    velk_stream_parser_init(&p, buf);
    if (velk_stream_parser_hdr(&p, 24) != 1) return -1;
    int r = velk_stream_parser_next(&p, kPiece - 24);
    for (uint32_t at = kPiece; r == VELK_SP_MORE && at < size; at += kPiece)
        r = velk_stream_parser_next(&p, size - at < kPiece ? size - at : kPiece);
    return p.valid;
}

double seconds_of(const std::function<void()>& f)
{
    auto t0 = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

void BM_ParseVsCrc(benchmark::State& state)
{
    mkvelk::bytes img = image();
    auto size = static_cast<uint32_t>(img.size());
    double parse = 0, crc = 0;
    int valid = 0;
    for (auto _ : state) {
        uint32_t c = 0;
        crc += seconds_of([&] { c = crc32_calc(0, img.data(), size); });
        benchmark::DoNotOptimize(c);
        double t = seconds_of([&] { valid = parse_in_pieces(img.data(), size); });
        parse += t;
        state.SetIterationTime(t);
    }
    if (valid != 10) state.SkipWithError("image did not parse as 10 valid parts");
    state.SetBytesProcessed(int64_t(state.iterations()) * size);
    state.counters["parse_vs_crc"] = crc / parse;
    state.counters["image_MiB"] = double(size) / (1 << 20);
}

}  // namespace

BENCHMARK(BM_ParseVsCrc)->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
