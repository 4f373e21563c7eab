// The general turn in each sampling: a 24-megapixel photograph (24-bit
// colour and 8-bit gray) turned by 30 degrees with ROTATE_RESIZE, and a
// 6000 x 4000 1-bit page straightened by 1.5 degrees, in destination pixels
// per second.  Every iteration turns a fresh copy (the copy is not timed);
// the turn's own new storage is.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "photo_like.h"
#include "vkkrn.h"

namespace {

constexpr int32_t kWidth = 6000, kHeight = 4000;  // 24 megapixels

BitmapHandle* gray_photo() {
  static BitmapHandle b;
  static bool made = false;
  if (!made && V_CopyBitmap(&b, vkb::photo_like<kWidth, kHeight>()) == RESULT_OK)
    made = V_GrayScaleBitmap(&b, 8) == RESULT_OK;
  return made ? &b : nullptr;
}

// A scanned page: white, with lines of word-like black blocks.
BitmapHandle* page() {
  static BitmapHandle b;
  static bool made = false;
  if (made) return &b;
  V_InitBitmap(&b, kWidth, kHeight, 1);
  if (V_AllocateBitmap(&b, TYPE_CONVENTIONAL) != RESULT_OK) return nullptr;
  std::vector<uint8_t> row(b.BytesPerLine);
  uint32_t seed = 7;
  for (int32_t y = 0; y < kHeight; ++y) {
    std::memset(row.data(), 0xFF, row.size());
    if (y % 60 < 36 && y > 300 && y < kHeight - 300)
      for (int32_t x = 400; x < kWidth - 400; x += 8) {
        seed = seed * 1103515245u + 12345u;
        if ((seed >> 16) % 5) row[x / 8] = uint8_t(seed >> 24);
      }
    V_PutBitmapRow(&b, row.data(), uint32_t(y), int32_t(row.size()));
  }
  made = true;
  return &b;
}

// Args: angle (hundredths of a degree), flags.
void turn(benchmark::State& state, BitmapHandle* src) {
  if (!src) return state.SkipWithError("allocation failed");
  const int32_t angle = static_cast<int32_t>(state.range(0));
  const uint32_t flags = static_cast<uint32_t>(state.range(1));
  int64_t pixels = 0;
  for (auto _ : state) {
    state.PauseTiming();
    BitmapHandle b;
    if (V_CopyBitmap(&b, src) != RESULT_OK) return state.SkipWithError("allocation failed");
    state.ResumeTiming();
    if (V_RotateBitmap(&b, angle, flags, 0xFFFFFF) != RESULT_OK) return state.SkipWithError("turn failed");
    state.PauseTiming();
    pixels += int64_t{b.Width} * b.Height;
    V_FreeBitmap(&b);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(pixels);
}

void BM_Rotate24(benchmark::State& state) { turn(state, vkb::photo_like<kWidth, kHeight>()); }
void BM_RotateGray8(benchmark::State& state) { turn(state, gray_photo()); }
void BM_RotatePage1(benchmark::State& state) { turn(state, page()); }

// Nearest, linear, spline.
void qualities(benchmark::internal::Benchmark* b) {
  b->ArgNames({"angle", "flags"});
  for (uint32_t q : {0u, ROTATE_LINEAR, ROTATE_SPLINE}) b->Args({3000, ROTATE_RESIZE | q});
  b->Unit(benchmark::kMillisecond);
}
BENCHMARK(BM_Rotate24)->Apply(qualities);
BENCHMARK(BM_RotateGray8)->Apply(qualities);
BENCHMARK(BM_RotatePage1)->ArgNames({"angle", "flags"})->Args({150, 0})->Unit(benchmark::kMillisecond);

}  // namespace
