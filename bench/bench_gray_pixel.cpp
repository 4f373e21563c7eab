// Throughput of the gray conversion per source depth and of single-pixel
// reads and writes.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "vkkrn.h"

namespace {

void make(BitmapHandle* b, int32_t bits, int32_t order, int32_t width, int32_t height) {
  V_CreateBitmap(b, TYPE_CONVENTIONAL, width, height, bits, order, nullptr, 2, nullptr, 0);
  std::mt19937 rng(1);
  std::vector<uint8_t> row(b->BytesPerLine);
  for (int32_t y = 0; y < height; ++y) {
    for (auto& x : row) x = static_cast<uint8_t>(rng());
    V_PutBitmapRow(b, row.data(), static_cast<uint32_t>(y), static_cast<int32_t>(row.size()));
  }
}

// Args: source depth, source order, gray depth.
void BM_GrayScaleBitmap(benchmark::State& state) {
  const int32_t bits = static_cast<int32_t>(state.range(0)), order = static_cast<int32_t>(state.range(1));
  const int32_t to = static_cast<int32_t>(state.range(2));
  const int32_t width = 1024, height = 256;
  for (auto _ : state) {
    state.PauseTiming();
    BitmapHandle b;
    make(&b, bits, order, width, height);
    state.ResumeTiming();
    benchmark::DoNotOptimize(V_GrayScaleBitmap(&b, to));
    state.PauseTiming();
    V_FreeBitmap(&b);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * width * height);
}
BENCHMARK(BM_GrayScaleBitmap)
    ->Args({4, 0, 8})
    ->Args({8, 0, 8})
    ->Args({16, 1, 8})
    ->Args({24, 1, 8})
    ->Args({24, 1, 16})
    ->Args({48, 1, 12})
    ->Args({12, 2, 16})
    ->Unit(benchmark::kMillisecond);

void BM_PixelColor(benchmark::State& state) {
  const int32_t bits = static_cast<int32_t>(state.range(0));
  BitmapHandle b;
  make(&b, bits, bits == 12 ? 2 : 1, 256, 256);
  uint32_t i = 0;
  for (auto _ : state) {
    const int32_t row = static_cast<int32_t>(i & 255), col = static_cast<int32_t>((i * 7) & 255);
    const uint32_t c = V_GetPixelColor(&b, row, col);
    benchmark::DoNotOptimize(V_PutPixelColor(&b, row, 255 - col, c & 0x00FFFFFFu));
    ++i;
  }
  state.SetItemsProcessed(state.iterations());
  V_FreeBitmap(&b);
}
BENCHMARK(BM_PixelColor)->Arg(1)->Arg(8)->Arg(12)->Arg(24)->Arg(64);

}  // namespace
