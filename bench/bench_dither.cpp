// Dithering throughput: a 24-bit photo-like image (gradients plus noise,
// 4096 x 3072 = 12.6 megapixels) to 8-bit indices, per method, into the
// fixed 256-entry palette (closed formula) and into an arbitrary 256-entry
// palette (engine-owned match table, filled lazily during the run), and to
// black and white, also from the picture's gray levels.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "vkkrn.h"

namespace {

constexpr int kWidth = 4096, kHeight = 3072;

const std::vector<uint8_t>& photo() {
  static const std::vector<uint8_t> img = [] {
    std::vector<uint8_t> v(size_t(kWidth) * kHeight * 3);
    std::mt19937 rng(42);
    std::normal_distribution<float> noise(0.0f, 6.0f);
    for (int y = 0; y < kHeight; ++y)
      for (int x = 0; x < kWidth; ++x) {
        uint8_t* p = &v[(size_t(y) * kWidth + x) * 3];
        const float fx = float(x) / kWidth, fy = float(y) / kHeight;
        const float base[3] = {255.0f * fx, 255.0f * (0.5f * fy + 0.5f * fx * fy), 255.0f * (1.0f - fy)};
        for (int c = 0; c < 3; ++c) {
          const float s = base[c] + noise(rng);
          p[c] = uint8_t(s < 0 ? 0 : (s > 255 ? 255 : s));
        }
      }
    return v;
  }();
  return img;
}

const RGBQUAD* arbitrary_palette() {
  static RGBQUAD pal[256];
  static bool made = false;
  if (!made) {
    std::mt19937 rng(7);
    for (auto& e : pal) e = RGBQUAD{uint8_t(rng()), uint8_t(rng()), uint8_t(rng()), 0};
    made = true;
  }
  return pal;
}

// The same picture as 8-bit gray levels (its green channel).
const std::vector<uint8_t>& gray_photo() {
  static const std::vector<uint8_t> img = [] {
    const std::vector<uint8_t>& rgb = photo();
    std::vector<uint8_t> v(size_t(kWidth) * kHeight);
    for (size_t i = 0; i < v.size(); ++i) v[i] = rgb[3 * i + 1];
    return v;
  }();
  return img;
}

void run(benchmark::State& state, const RGBQUAD* palette, int32_t colors = 256, bool gray = false) {
  const std::vector<uint8_t>& img = gray ? gray_photo() : photo();
  const size_t line = gray ? size_t(kWidth) : size_t(kWidth) * 3;
  std::vector<uint8_t> out(kWidth);
  RGBQUAD levels[256];
  for (int i = 0; i < 256; ++i) levels[i] = RGBQUAD{uint8_t(i), uint8_t(i), uint8_t(i), 0};
  BitmapHandle b;
  std::memset(&b, 0, sizeof b);
  b.Width = kWidth;
  b.Height = kHeight;
  b.BitsPerPixel = gray ? 8 : 24;
  b.Order = ORDER_RGB;
  if (gray) {
    b.Flags = PALETTE_IS_TABLE;
    b.Palette = levels;
    b.ColorCount = 256;
  }
  b.DitheringMethod = int32_t(state.range(0));
  for (auto _ : state) {
    if (V_StartDithering(&b, palette, colors) != RESULT_OK) {
      state.SkipWithError("start failed");
      break;
    }
    for (int y = 0; y < kHeight; ++y) V_DitherLine(&b, const_cast<uint8_t*>(&img[size_t(y) * line]), out.data());
    V_StopDithering(&b);
    benchmark::DoNotOptimize(out.data());
  }
  const double pixels = double(state.iterations()) * kWidth * kHeight;
  state.counters["MP/s"] = benchmark::Counter(pixels / 1e6, benchmark::Counter::kIsRate);
}

void BM_DitherFixed256(benchmark::State& state) { run(state, nullptr); }
void BM_DitherOwnTable(benchmark::State& state) { run(state, arbitrary_palette()); }
// Black and white (fixed 2-entry palette, 1-bit rows), the commonest reduction.
void BM_DitherBlackWhite(benchmark::State& state) { run(state, nullptr, 2); }
// Black and white from 8-bit gray levels.
void BM_DitherGrayBlackWhite(benchmark::State& state) { run(state, nullptr, 2, true); }

// Argument: the dithering method 0 (none) .. 8 (clustered).
BENCHMARK(BM_DitherFixed256)->DenseRange(0, 8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DitherOwnTable)->DenseRange(0, 8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DitherBlackWhite)->Arg(DITHER_FLOYD_STEINBERG)->Arg(DITHER_ORDERED)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DitherGrayBlackWhite)->Arg(DITHER_FLOYD_STEINBERG)->Arg(DITHER_ORDERED)->Unit(benchmark::kMillisecond);

}  // namespace
