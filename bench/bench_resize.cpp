// Resizing a 24-megapixel photograph-like bitmap (6000 x 4000, 24 bits)
// into a destination allocated once: area averaging to a quarter each way,
// the smooth method to twice each way, nearest neighbour up and down by 3,
// and an 8-bit palette copy averaged down and dithered back.  Items are
// output pixels; "in_MP/s" counts the source's pixels per second (rates
// by the process's CPU time: one core, whatever else the machine runs).
//   build/rel/vk_bench --benchmark_filter=Resize
#include <benchmark/benchmark.h>

#include <cstring>

#include "photo_like.h"
#include "vkkrn.h"

namespace {

constexpr int32_t kWidth = 6000, kHeight = 4000;

// The photograph colour-resolved to 8 bits once (fixed palette, ordered).
BitmapHandle* palette_photo() {
  static BitmapHandle b;
  static bool made = false;
  if (!made) {
    std::memset(&b, 0, sizeof b);
    V_CopyBitmap(&b, vkb::photo_like<kWidth, kHeight>());
    V_ColorResBitmap(&b, nullptr, 8, RESOLVE_FIXED, nullptr, nullptr, 256, nullptr, 0);
    made = true;
  }
  return &b;
}

void run(benchmark::State& state, BitmapHandle* src, int32_t num, int32_t den, uint32_t flags) {
  const int32_t w = int32_t(int64_t{src->Width} * num / den), h = int32_t(int64_t{src->Height} * num / den);
  BitmapHandle dst;
  if (V_DupBitmapNewDim(&dst, src, w, h, src->BitsPerPixel, DUP_ALLOCATE | DUP_OWN_PALETTE) != RESULT_OK)
    return state.SkipWithError("allocation failed");
  dst.DitheringMethod = DITHER_FLOYD_STEINBERG;
  if (dst.Data) std::memset(dst.Data, 0, dst.Size);  // pages touched before timing
  for (auto _ : state) {
    if (V_ResizeBitmapExt(src, &dst, flags) != RESULT_OK) {
      state.SkipWithError("resize failed");
      break;
    }
    benchmark::ClobberMemory();
  }
  V_FreeBitmap(&dst);
  state.SetItemsProcessed(state.iterations() * int64_t{w} * h);
  state.counters["in_MP/s"] =
      benchmark::Counter(double(state.iterations()) * src->Width * src->Height / 1e6, benchmark::Counter::kIsRate);
  state.counters["out_MP/s"] = benchmark::Counter(double(state.iterations()) * w * h / 1e6, benchmark::Counter::kIsRate);
}

void BM_ResizeAverageQuarter(benchmark::State& s) { run(s, vkb::photo_like<kWidth, kHeight>(), 1, 4, SIZE_RESAMPLE); }
void BM_ResizeSmoothDouble(benchmark::State& s) { run(s, vkb::photo_like<kWidth, kHeight>(), 2, 1, SIZE_SMOOTH); }
void BM_ResizeNearestUp3(benchmark::State& s) { run(s, vkb::photo_like<kWidth, kHeight>(), 3, 1, SIZE_NEAREST); }
void BM_ResizeNearestDown3(benchmark::State& s) { run(s, vkb::photo_like<kWidth, kHeight>(), 1, 3, SIZE_NEAREST); }
void BM_ResizePaletteAverageQuarter(benchmark::State& s) { run(s, palette_photo(), 1, 4, SIZE_RESAMPLE); }

BENCHMARK(BM_ResizeAverageQuarter)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ResizeSmoothDouble)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ResizeNearestUp3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ResizeNearestDown3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ResizePaletteAverageQuarter)->Unit(benchmark::kMillisecond);

}  // namespace
