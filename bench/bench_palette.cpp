// Palette speed on a 24-megapixel (6000 x 4000) photo-like image, one core:
// the palette alone (best and optimised, 256 and 16 colours) and the whole
// reduction to 8 bits (palette + Floyd-Steinberg remap).  Target for the
// best palette: palette + remap under 0.5 s.  Quality on real photographs
// is measured by bench/quality.py.
#include <benchmark/benchmark.h>

#include <cstring>

#include "photo_like.h"
#include "vkkrn.h"

namespace {

constexpr int32_t kWidth = 6000;
constexpr int32_t kHeight = 4000;

BitmapHandle* photo() {
  BitmapHandle* b = vkb::photo_like<kWidth, kHeight>();
  b->DitheringMethod = DITHER_FLOYD_STEINBERG;
  return b;
}

void count_pixels(benchmark::State& state) {
  state.counters["Mpixel/s"] =
      benchmark::Counter(double(kWidth) * kHeight * state.iterations() / 1e6, benchmark::Counter::kIsRate);
}

// The palette alone: range(0) colours, best (range(1) = 1) or optimised.
void BM_Palette(benchmark::State& state) {
  BitmapHandle* src = photo();
  for (auto _ : state) {
    RGBQUAD pal[256];
    uint32_t colors = static_cast<uint32_t>(state.range(0));
    int32_t needs = 0;
    const int32_t r = state.range(1) ? V_CreateBestPalette(src, nullptr, 0, pal, &colors, &needs)
                                     : V_CreateOptimizedPalette(src, pal, &colors, nullptr, &needs, 0);
    if (r != RESULT_OK) state.SkipWithError("failed");
    benchmark::DoNotOptimize(pal);
  }
  count_pixels(state);
}

// Palette and Floyd-Steinberg remap into a new 8-bit bitmap.
void BM_ReduceFloydSteinberg(benchmark::State& state) {
  BitmapHandle* src = photo();
  const uint32_t flags = state.range(0) ? RESOLVE_BEST_PALETTE : RESOLVE_OPTIMISED;
  for (auto _ : state) {
    BitmapHandle out;
    std::memset(&out, 0, sizeof out);
    if (V_ColorResBitmap(src, &out, 8, flags, nullptr, nullptr, static_cast<int32_t>(state.range(1)), nullptr, 0) !=
        RESULT_OK)
      state.SkipWithError("colour resolution failed");
    benchmark::DoNotOptimize(out.Data);
    V_FreeBitmap(&out);
  }
  count_pixels(state);
}

BENCHMARK(BM_Palette)
    ->ArgNames({"colors", "best"})
    ->Args({256, 1})
    ->Args({16, 1})
    ->Args({256, 0})
    ->Args({16, 0})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReduceFloydSteinberg)
    ->ArgNames({"best", "colors"})
    ->Args({1, 256})
    ->Args({1, 16})
    ->Args({0, 256})
    ->Unit(benchmark::kMillisecond);

}  // namespace
