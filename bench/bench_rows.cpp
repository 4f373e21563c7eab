// Row reads and writes per storage kind, in bytes per second, next to a
// plain memcpy of the same rows.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "vkkrn.h"

namespace {

constexpr int32_t kWidth = 2048, kHeight = 512, kBits = 24;  // 6144-byte rows, 3 MiB

enum Kind : int { kMemory = 0, kTiles = 1, kDisk = 2 };

struct Fixture {
  BitmapHandle b{};
  bool ok = false;
  explicit Fixture(int kind) {
    V_InitBitmap(&b, kWidth, kHeight, kBits);
    if (kind == kTiles) {
      // 64 KiB tiles (10 rows), all in temp files, two mapped at a time.
      V_SetMemoryThresholds(0, 0, 65536, 2, 2,
                            THRESHOLD_TILED | THRESHOLD_TILE_SIZE | THRESHOLD_MEMORY_TILES | THRESHOLD_MAPPED_TILES);
    }
    ok = V_AllocateBitmap(&b, kind == kDisk ? TYPE_DISK : kind == kTiles ? TYPE_TILED : TYPE_CONVENTIONAL) == RESULT_OK;
    V_SetMemoryThresholds(0, 0x7FFFFFFF, 0, -100, 1, 31);
  }
  ~Fixture() { V_FreeBitmap(&b); }
};

void rows(benchmark::State& state, bool writing) {
  Fixture f(static_cast<int>(state.range(0)));
  if (!f.ok) {
    state.SkipWithError("allocation failed");
    return;
  }
  const auto bpl = static_cast<int32_t>(f.b.BytesPerLine);
  std::vector<uint8_t> row(f.b.BytesPerLine, 0x5A);
  for (auto _ : state) {
    for (int32_t r = 0; r < kHeight; ++r) {
      const int32_t n = writing ? V_PutBitmapRow(&f.b, row.data(), static_cast<uint32_t>(r), bpl)
                                : V_GetBitmapRow(&f.b, row.data(), static_cast<uint32_t>(r), bpl);
      if (n != bpl) {
        state.SkipWithError("row access failed");
        return;
      }
    }
    benchmark::DoNotOptimize(row.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kHeight * bpl);
}

void BM_GetRows(benchmark::State& state) { rows(state, false); }
void BM_PutRows(benchmark::State& state) { rows(state, true); }
BENCHMARK(BM_GetRows)->ArgName("kind(0=memory,1=tiles,2=disk)")->Arg(kMemory)->Arg(kTiles)->Arg(kDisk);
BENCHMARK(BM_PutRows)->ArgName("kind(0=memory,1=tiles,2=disk)")->Arg(kMemory)->Arg(kTiles)->Arg(kDisk);

// The same bytes moved by memcpy, one row at a time.
void BM_MemcpyRows(benchmark::State& state) {
  BitmapHandle b{};
  V_InitBitmap(&b, kWidth, kHeight, kBits);
  std::vector<uint8_t> pixels(b.Size, 1), row(b.BytesPerLine);
  for (auto _ : state) {
    for (int32_t r = 0; r < kHeight; ++r)
      std::memcpy(row.data(), pixels.data() + static_cast<size_t>(r) * b.BytesPerLine, b.BytesPerLine);
    benchmark::DoNotOptimize(row.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * b.Size);
}
BENCHMARK(BM_MemcpyRows);

}  // namespace
