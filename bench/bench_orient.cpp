// Flips, mirrors, quarter and half turns of a 24-megapixel bitmap in memory,
// in bytes of the bitmap per second, next to a memcpy of the same bytes.
//
// Two memcpy baselines: BM_Memcpy copies into memory written before (as the
// flips, mirrors and half turns work in place), BM_MemcpyFresh into a bitmap
// allocated in the timed loop (as the crop and the quarter turn make a new
// bitmap each time: the page faults of fresh memory are part of both).
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "vkkrn.h"

namespace {

constexpr int32_t kWidth = 6000, kHeight = 4000;  // 24 megapixels

struct Picture {
  BitmapHandle b{};
  bool ok = false;
  explicit Picture(int32_t bits) {
    V_InitBitmap(&b, kWidth, kHeight, bits);
    ok = V_AllocateBitmap(&b, TYPE_CONVENTIONAL) == RESULT_OK;
    if (ok) std::memset(b.Data, 0x5A, b.Size);
  }
  ~Picture() { V_FreeBitmap(&b); }
  int64_t bytes() const { return int64_t{b.BytesPerLine} * kHeight; }
};

void BM_Memcpy(benchmark::State& state) {
  Picture p(static_cast<int32_t>(state.range(0)));
  std::vector<uint8_t> copy(static_cast<size_t>(p.bytes()), 1);
  for (auto _ : state) {
    std::memcpy(copy.data(), p.b.Data, copy.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * p.bytes());
}
BENCHMARK(BM_Memcpy)->ArgName("bits")->Arg(1)->Arg(8)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

// Into a new bitmap of the same depth and height and width / range(1).
void BM_MemcpyFresh(benchmark::State& state) {
  Picture p(static_cast<int32_t>(state.range(0)));
  if (!p.ok) return state.SkipWithError("allocation failed");
  const int32_t width = kWidth / static_cast<int32_t>(state.range(1));
  for (auto _ : state) {
    BitmapHandle out;
    V_InitBitmap(&out, width, kHeight, p.b.BitsPerPixel);
    if (V_AllocateBitmap(&out, TYPE_CONVENTIONAL) != RESULT_OK) return state.SkipWithError("allocation failed");
    for (int32_t y = 0; y < kHeight; ++y)
      std::memcpy(static_cast<uint8_t*>(out.Data) + size_t(y) * out.BytesPerLine,
                  static_cast<uint8_t*>(p.b.Data) + size_t(y) * p.b.BytesPerLine, out.BytesPerLine);
    benchmark::ClobberMemory();
    V_FreeBitmap(&out);
  }
  state.SetBytesProcessed(state.iterations() * p.bytes() / state.range(1));
}
BENCHMARK(BM_MemcpyFresh)
    ->ArgNames({"bits", "part"})
    ->Args({1, 1})
    ->Args({8, 1})
    ->Args({24, 1})
    ->Args({24, 2})
    ->Args({32, 1})
    ->Unit(benchmark::kMillisecond);

template <int32_t (*Op)(BitmapHandle*)>
void run(benchmark::State& state) {
  Picture p(static_cast<int32_t>(state.range(0)));
  if (!p.ok) return state.SkipWithError("allocation failed");
  for (auto _ : state) {
    if (Op(&p.b) != RESULT_OK) return state.SkipWithError("operation failed");
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * p.bytes());
}

int32_t flip(BitmapHandle* b) { return V_FlipBitmap(b); }
int32_t mirror(BitmapHandle* b) { return V_ReverseBitmap(b); }
int32_t half_turn(BitmapHandle* b) { return V_RotateBitmap(b, 18000, 0, 0); }
int32_t quarter_turn(BitmapHandle* b) { return V_RotateBitmap90(b, 1, 0, 100); }

// The quarter turn's transposition alone (V_RotateBuffer90 into a buffer
// written before): against BM_Memcpy.
void BM_RotateBuffer90(benchmark::State& state) {
  Picture p(static_cast<int32_t>(state.range(0)));
  if (!p.ok) return state.SkipWithError("allocation failed");
  std::vector<uint8_t> out(static_cast<size_t>(p.bytes()) + 4 * kHeight, 1);
  for (auto _ : state) {
    if (V_RotateBuffer90(p.b.Data, out.data(), 0, kWidth, kHeight, p.b.BitsPerPixel) != RESULT_OK)
      return state.SkipWithError("operation failed");
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * p.bytes());
}
BENCHMARK(BM_RotateBuffer90)->ArgName("bits")->Arg(8)->Arg(24)->Arg(32)->Unit(benchmark::kMillisecond);

// Half the area (the middle half of every row) into a new bitmap; the
// bytes counted are those copied.
void BM_Crop(benchmark::State& state) {
  Picture p(static_cast<int32_t>(state.range(0)));
  if (!p.ok) return state.SkipWithError("allocation failed");
  for (auto _ : state) {
    BitmapHandle half;
    if (V_CopyBitmapRect(&half, &p.b, kWidth / 4, 0, kWidth / 2, kHeight) != RESULT_OK)
      return state.SkipWithError("operation failed");
    V_FreeBitmap(&half);
  }
  state.SetBytesProcessed(state.iterations() * p.bytes() / 2);
}
BENCHMARK(BM_Crop)->ArgName("bits")->Arg(24)->Unit(benchmark::kMillisecond);

BENCHMARK(run<flip>)->Name("BM_Flip")->ArgName("bits")->Arg(24)->Unit(benchmark::kMillisecond);
BENCHMARK(run<mirror>)->Name("BM_Mirror")->ArgName("bits")->Arg(24)->Unit(benchmark::kMillisecond);
BENCHMARK(run<half_turn>)->Name("BM_HalfTurn")->ArgName("bits")->Arg(24)->Unit(benchmark::kMillisecond);
BENCHMARK(run<quarter_turn>)
    ->Name("BM_QuarterTurn")
    ->ArgName("bits")
    ->Arg(1)
    ->Arg(8)
    ->Arg(24)
    ->Arg(32)
    ->Unit(benchmark::kMillisecond);

}  // namespace
