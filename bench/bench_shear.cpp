// The shear by 30 degrees of a 6000 x 4000 bitmap in memory (24 and 8 bits
// per pixel), horizontal and vertical, in source megapixels per second
// (items processed).  The shear replaces its bitmap by a wider one, so each
// iteration works on a fresh copy made outside the timing.
#include <benchmark/benchmark.h>

#include <cstring>

#include "vkkrn.h"

namespace {

constexpr int32_t kWidth = 6000, kHeight = 4000;

void BM_Shear30(benchmark::State& state) {
  const int32_t bits = static_cast<int32_t>(state.range(0));
  const int32_t horizontal = static_cast<int32_t>(state.range(1));
  BitmapHandle src{};
  V_InitBitmap(&src, kWidth, kHeight, bits);
  if (V_AllocateBitmap(&src, TYPE_CONVENTIONAL) != RESULT_OK) return state.SkipWithError("allocation failed");
  auto* data = static_cast<uint8_t*>(src.Data);
  for (size_t i = 0; i < src.Size; ++i) data[i] = static_cast<uint8_t>(i * 7 + (i >> 11));
  for (auto _ : state) {
    state.PauseTiming();
    BitmapHandle b{};
    const int32_t copied = V_CopyBitmap(&b, &src);
    state.ResumeTiming();
    if (copied != RESULT_OK || V_ShearBitmap(&b, 3000, horizontal, 0xFFFFFF) != RESULT_OK) {
      V_FreeBitmap(&b);
      V_FreeBitmap(&src);
      return state.SkipWithError("shear failed");
    }
    benchmark::ClobberMemory();
    state.PauseTiming();
    V_FreeBitmap(&b);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * int64_t{kWidth} * kHeight);
  V_FreeBitmap(&src);
}
BENCHMARK(BM_Shear30)
    ->ArgNames({"bits", "horizontal"})
    ->Args({24, 1})
    ->Args({8, 1})
    ->Args({24, 0})
    ->Args({8, 0})
    ->Unit(benchmark::kMillisecond);

}  // namespace
