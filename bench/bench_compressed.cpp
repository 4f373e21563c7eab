// Throughput of the 1-bit run-length coder and of compressed row access.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "compressed.h"
#include "core.h"

namespace {

constexpr int32_t kWidth = 4960;  // an A4 page at 600 dpi

// Document-like rows: long white stretches with short black strokes, or noise.
std::vector<uint8_t> make_row(bool noise) {
  std::mt19937 g(17);
  std::vector<uint8_t> row((kWidth + 31) / 32 * 4, 0);
  if (noise) {
    for (auto& v : row) v = static_cast<uint8_t>(g());
    return row;
  }
  for (int32_t x = 0; x < kWidth;) {
    x += 20 + static_cast<int32_t>(g() % 200);
    const int32_t stroke = 1 + static_cast<int32_t>(g() % 12);
    for (int32_t i = 0; i < stroke && x < kWidth; ++i, ++x) row[x / 8] |= static_cast<uint8_t>(0x80 >> (x % 8));
  }
  return row;
}

void BM_CompressRow(benchmark::State& state) {
  std::vector<uint8_t> row = make_row(state.range(0) != 0);
  std::vector<uint8_t> rec(4 + 2 * (kWidth + 2));
  for (auto _ : state) benchmark::DoNotOptimize(V_CompressRow(rec.data(), row.data(), 0, kWidth));
  state.SetBytesProcessed(state.iterations() * (kWidth / 8));
}
BENCHMARK(BM_CompressRow)->Arg(0)->Arg(1);

void BM_ExpandRow(benchmark::State& state) {
  std::vector<uint8_t> row = make_row(state.range(0) != 0);
  std::vector<uint8_t> rec(4 + 2 * (kWidth + 2)), out(row.size());
  V_CompressRow(rec.data(), row.data(), 0, kWidth);
  for (auto _ : state) benchmark::DoNotOptimize(V_ExpandRow(rec.data(), out.data(), 0, kWidth));
  state.SetBytesProcessed(state.iterations() * (kWidth / 8));
}
BENCHMARK(BM_ExpandRow)->Arg(0)->Arg(1);

// Rewriting every row of a compressed page in place and reading it back.
void BM_CompressedRowAccess(benchmark::State& state) {
  BitmapHandle b{};
  b.Width = kWidth;
  b.Height = 64;
  b.BitsPerPixel = 1;
  b.BytesPerLine = (kWidth + 31) / 32 * 4;
  vk::cmp::allocate(&b);
  b.Flags = BITMAP_ALLOCATED | BITMAP_IN_MEMORY | BITMAP_COMPRESSED;
  std::vector<uint8_t> row = make_row(state.range(0) != 0), back(row.size());
  for (auto _ : state) {
    for (uint32_t r = 0; r < 64; ++r) {
      vk::cmp::write(&b, row.data(), r, 0, static_cast<int32_t>(row.size()));
      vk::cmp::read(&b, back.data(), r, 0, static_cast<int32_t>(back.size()));
    }
  }
  state.SetBytesProcessed(state.iterations() * 64 * static_cast<int64_t>(row.size()));
  vk::cmp::free_storage(&b);
}
BENCHMARK(BM_CompressedRowAccess)->Arg(0)->Arg(1);

}  // namespace
