// Parsing a 64 MiB VELK image delivered in 16 KiB pieces, against one
// crc32_calc pass over the same bytes measured in the same run. The counter
// "parse_vs_crc" is the parser's speed as a share of the plain CRC's (1.0:
// as fast; the parser should stay at 0.9 or above); "pass_vs_crc" the same
// for the pass-through parser of -stream, which keeps none of the pieces.
//
// The signed image through the parser and the signature check, piece by
// piece as an install takes it, against the unsigned parse plus one
// libcrypto SHA-256 pass over the same bytes: "signed_vs_parse_plus_sha"
// (goal: 1.1 or below). "sha_vs_crc" is what one SHA-256 pass costs in CRC
// passes on this machine.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <functional>

#include "base/crypto.h"
#include "base/fileutil.h"
#include "mkvelk.h"
#include "velk/velk_pass_parser.h"
#include "velk/velk_sig.h"
#include "velk/velk_stream_parser.h"

namespace {

constexpr size_t kImageSize = 64u << 20;
constexpr uint32_t kPiece = 16u << 10;

// A release header, a descriptor and software parts of 8 MiB, 64 MiB in all.
std::vector<mkvelk::part> image_parts()
{
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
        return parts;
}

const mkvelk::bytes& image()
{
    static const mkvelk::bytes img = mkvelk::build_image(image_parts());
    return img;
}

const mkvelk::signing_key& bench_key()
{
    static const mkvelk::signing_key key = mkvelk::signing_key_from_seed(mkvelk::bytes(32, 7));
    return key;
}

// The same parts with a signature part, and the ring that trusts its key.
const mkvelk::bytes& signed_image()
{
    static const mkvelk::bytes img = mkvelk::build_image(mkvelk::sign_parts(image_parts(), {&bench_key()}));
    return img;
}

velk_keyring bench_ring()
{
    velk_keyring ring{};
    const mkvelk::bytes pub = mkvelk::public_key_of(bench_key()), id = mkvelk::key_id_of(pub);
    std::memcpy(ring.keys[0].key, pub.data(), pub.size());
    std::memcpy(ring.keys[0].id, id.data(), id.size());
    ring.count = 1;
    return ring;
}

// Valid parts, or -1; with `ring` each piece also goes through the
// signature check, and a refused image gives -1.
int parse_in_pieces(uint8_t* buf, uint32_t size, const velk_keyring* ring = nullptr)
{
    velk_stream_parser p;
    velk_stream_parser_init(&p, buf);
    velk_sig_check c;
    velk_sig_check_init(&c, ring);
    if (velk_stream_parser_hdr(&p, 24) != 1) return -1;
    int r = velk_stream_parser_next(&p, kPiece - 24);
    bool refused = velk_sig_check_step(&c, &p) < 0;
    for (uint32_t at = kPiece; r == VELK_SP_MORE && at < size && !refused; at += kPiece) {
        r = velk_stream_parser_next(&p, size - at < kPiece ? size - at : kPiece);
        refused = velk_sig_check_step(&c, &p) < 0;
    }
    refused = refused || velk_sig_check_end(&c, &p) != VELK_SIG_OK;
    velk_sig_check_release(&c);
    return refused ? -1 : p.valid;
}

// The pass-through parser sees each piece once and keeps none of it.
int pass_in_pieces(const uint8_t* buf, uint32_t size)
{
    static velk_pass_parser p;
    velk_pass_parser_init(&p);
    int valid = 0;
    for (uint32_t at = 0; at < size; at += kPiece) {
        const uint8_t* data = buf + at;
        size_t n = size - at < kPiece ? size - at : kPiece;
        velk_pass_event ev;
        for (int r; (r = velk_pass_parser_step(&p, &data, &n, &ev)) != VELK_PASS_MORE;) {
            if (r < 0 || r == VELK_PASS_COMPLETE) return valid;
            if (r == VELK_PASS_BODY_END && ev.valid > 0) valid++;
        }
    }
    return valid;
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
    double parse = 0, crc = 0, pass = 0;
    int valid = 0, passed = 0;
    for (auto _ : state) {
        uint32_t c = 0;
        crc += seconds_of([&] { c = crc32_calc(0, img.data(), size); });
        benchmark::DoNotOptimize(c);
        pass += seconds_of([&] { passed = pass_in_pieces(img.data(), size); });
        double t = seconds_of([&] { valid = parse_in_pieces(img.data(), size); });
        parse += t;
        state.SetIterationTime(t);
    }
    if (valid != 10 || passed != 10) state.SkipWithError("image did not parse as 10 valid parts");
    state.SetBytesProcessed(int64_t(state.iterations()) * size);
    state.counters["parse_vs_crc"] = crc / parse;
    state.counters["pass_vs_crc"] = crc / pass;
    state.counters["image_MiB"] = double(size) / (1 << 20);
}

void BM_SignedVsParsePlusSha(benchmark::State& state)
{
    char why[200];
    if (crypto_load(why, sizeof why) != 1) {
        state.SkipWithError(why);
        return;
    }
    const velk_keyring ring = bench_ring();
    mkvelk::bytes plain = image(), img = signed_image();
    double parse = 0, sha = 0, crc = 0, checked = 0;
    int valid = 0, signed_valid = 0;
    for (auto _ : state) {
        uint8_t d[KOR_SHA256_SIZE];
        uint32_t c = 0;
        crc += seconds_of([&] { c = crc32_calc(0, plain.data(), uint32_t(plain.size())); });
        sha += seconds_of([&] { benchmark::DoNotOptimize(sha256_of(plain.data(), plain.size(), d)); });
        parse += seconds_of([&] { valid = parse_in_pieces(plain.data(), uint32_t(plain.size())); });
        double t = seconds_of([&] { signed_valid = parse_in_pieces(img.data(), uint32_t(img.size()), &ring); });
        checked += t;
        benchmark::DoNotOptimize(c);
        state.SetIterationTime(t);
    }
    if (valid != 10 || signed_valid != 11) state.SkipWithError("images did not parse and verify");
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(img.size()));
    state.counters["signed_vs_parse_plus_sha"] = checked / (parse + sha);
    state.counters["sha_vs_crc"] = sha / crc;
    state.counters["signed_vs_parse"] = checked / parse;
}

}  // namespace

BENCHMARK(BM_SignedVsParsePlusSha)->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_ParseVsCrc)->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
