// Row conversion throughput on 4096-pixel rows, in pixels per second.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "vkkrn.h"

namespace {

constexpr int kWidth = 4096;

// A smooth gradient with noise, so rows repeat colours the way photographs do.
void fill_colour(uint8_t* p, int width, int step) {
  std::mt19937 rng(17);
  for (int x = 0; x < width; ++x) {
    uint8_t* px = p + size_t(x) * step;
    px[0] = uint8_t(x * 255 / width + (rng() & 7));
    px[1] = uint8_t((x * 3) & 255);
    px[2] = uint8_t(255 - x * 255 / width);
    for (int k = 3; k < step; ++k) px[k] = uint8_t(rng());
  }
}

struct Setup {
  int srcBits, dstBits, srcOrder, dstOrder;
};

// Each iteration restores the source row and converts it in place.
void run(benchmark::State& state, Setup s) {
  const uint32_t size = V_CalcConvertSize(kWidth, s.srcBits, kWidth, s.dstBits);
  std::vector<uint8_t> source(size), row(size);
  const int bits = s.srcBits == 0 ? 8 : s.srcBits;
  if (bits >= 16 && s.srcOrder != ORDER_GRAY) {
    fill_colour(source.data(), kWidth, bits / 8);
  } else {
    std::mt19937 rng(3);
    for (auto& b : source) b = uint8_t(rng());
  }
  for (auto _ : state) {
    std::copy(source.begin(), source.begin() + (size_t(kWidth) * bits + 7) / 8, row.begin());
    benchmark::DoNotOptimize(
        V_ConvertBuffer(row.data(), kWidth, s.srcBits, s.dstBits, s.srcOrder, s.dstOrder, nullptr, nullptr));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kWidth);
}

void BM_24_to_8_fixed(benchmark::State& st) { run(st, {24, 8, ORDER_BGR, ORDER_RGB}); }
void BM_24_to_0_gray(benchmark::State& st) { run(st, {24, 0, ORDER_BGR, ORDER_RGB}); }
void BM_8_to_24(benchmark::State& st) { run(st, {8, 24, ORDER_RGB, ORDER_BGR}); }
void BM_1_to_24(benchmark::State& st) { run(st, {1, 24, ORDER_RGB, ORDER_BGR}); }
void BM_16_to_24(benchmark::State& st) { run(st, {16, 24, ORDER_BGR, ORDER_BGR}); }
void BM_24_to_48(benchmark::State& st) { run(st, {24, 48, ORDER_BGR, ORDER_BGR}); }
void BM_48_to_24(benchmark::State& st) { run(st, {48, 24, ORDER_BGR, ORDER_BGR}); }
void BM_12_to_16_gray(benchmark::State& st) { run(st, {12, 16, ORDER_GRAY, ORDER_GRAY}); }

BENCHMARK(BM_24_to_8_fixed);
BENCHMARK(BM_24_to_0_gray);
BENCHMARK(BM_8_to_24);
BENCHMARK(BM_1_to_24);
BENCHMARK(BM_16_to_24);
BENCHMARK(BM_24_to_48);
BENCHMARK(BM_48_to_24);
BENCHMARK(BM_12_to_16_gray);

}  // namespace
