// Colour resolution speed: a 24-bit photo-like image of 12 megapixels
// (4000 x 3000) to 8 bits, with an optimised palette and with the fixed
// palette.  Reported as megapixels per second.
#include <benchmark/benchmark.h>

#include <cstring>

#include "photo_like.h"
#include "vkkrn.h"

namespace {

constexpr int32_t kWidth = 4000;
constexpr int32_t kHeight = 3000;

void resolve(benchmark::State& state, uint32_t flags) {
  BitmapHandle* src = vkb::photo_like<kWidth, kHeight>();
  for (auto _ : state) {
    BitmapHandle out;
    std::memset(&out, 0, sizeof out);
    const int32_t r = V_ColorResBitmap(src, &out, 8, flags, nullptr, nullptr, 256, nullptr, 0);
    if (r != RESULT_OK) state.SkipWithError("colour resolution failed");
    benchmark::DoNotOptimize(out.Data);
    V_FreeBitmap(&out);
  }
  state.counters["Mpixel/s"] = benchmark::Counter(double(kWidth) * kHeight * state.iterations() / 1e6,
                                                  benchmark::Counter::kIsRate);
}

void BM_ColorResOptimised(benchmark::State& state) { resolve(state, RESOLVE_OPTIMISED); }
void BM_ColorResFixed(benchmark::State& state) { resolve(state, RESOLVE_FIXED); }

BENCHMARK(BM_ColorResOptimised)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_ColorResFixed)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace
