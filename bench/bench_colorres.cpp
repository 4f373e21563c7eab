// Colour resolution speed: a 24-bit photo-like image of 12 megapixels
// (4000 x 3000) to 8 bits, with an optimised palette and with the fixed
// palette.  Reported as megapixels per second.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "vkkrn.h"

namespace {

constexpr int32_t kWidth = 4000;
constexpr int32_t kHeight = 3000;

// Smooth gradients, a few soft shapes and mild sensor-like noise: many
// distinct colours, concentrated the way photographs are.
BitmapHandle* photo() {
  static BitmapHandle b;
  static bool made = false;
  if (made) return &b;
  std::memset(&b, 0, sizeof b);
  V_InitBitmap(&b, kWidth, kHeight, 24);
  V_AllocateBitmap(&b, TYPE_CONVENTIONAL);
  std::vector<uint8_t> row(b.BytesPerLine);
  uint32_t seed = 12345;
  for (int32_t y = 0; y < kHeight; ++y) {
    for (int32_t x = 0; x < kWidth; ++x) {
      seed = seed * 1664525u + 1013904223u;
      const int noise = static_cast<int>((seed >> 24) & 15) - 8;
      const double fx = x / double(kWidth), fy = y / double(kHeight);
      const double sky = fy < 0.45 ? 1.0 : 0.0;
      const double blob = std::exp(-((fx - 0.6) * (fx - 0.6) + (fy - 0.6) * (fy - 0.6)) * 18.0);
      double r = sky * (90 + 80 * fy) + (1 - sky) * (70 + 60 * std::sin(fx * 9) + 40 * fy) + 120 * blob;
      double g = sky * (140 + 70 * fy) + (1 - sky) * (90 + 50 * std::cos(fx * 7 + fy * 3)) + 60 * blob;
      double bl = sky * (200 + 40 * fx) + (1 - sky) * (40 + 30 * std::sin(fy * 11)) + 20 * blob;
      auto clamp = [&](double v) { return static_cast<uint8_t>(std::fmin(255.0, std::fmax(0.0, v + noise))); };
      row[3 * x] = clamp(bl);
      row[3 * x + 1] = clamp(g);
      row[3 * x + 2] = clamp(r);
    }
    V_PutBitmapRow(&b, row.data(), static_cast<uint32_t>(y), static_cast<int32_t>(row.size()));
  }
  made = true;
  return &b;
}

void resolve(benchmark::State& state, uint32_t flags) {
  BitmapHandle* src = photo();
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
