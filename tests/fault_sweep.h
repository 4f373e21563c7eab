// fault_sweep.h - the one fault sweep every allocation test uses, and the
// snapshot that proves a caller's bitmap came through a failure unchanged.
//
// fault_sweep(prepare, op, check): for n = 1, 2, ... `prepare` runs disarmed
// and makes what the operation works on; `op` runs with the n-th allocation
// point failing (with Arm::from_then_on, every point from the n-th on) and
// returns the operation's result; `check` runs disarmed with that result and
// whether a point failed, and releases whatever prepare or op made.  After
// every run the live count (heap, blocks, sections, files) must be back at
// its value before the first prepare.  The sweep ends with the first run in
// which no point failed, so every allocation of the operation has failed
// once.
//
// Most checks are expect_kept(run, snapshot): a run that failed returned
// the failure code and left the caller's bitmap as the snapshot holds it.
//
// Each sweep names the exports it covers with VKT_SWEEPS(...) at namespace
// scope; tests/sweep_coverage.py holds those marks against the exports that
// reach an allocation point.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "core.h"

namespace vkt {

struct SweepRun {
  long n;          // the allocation point that was armed
  int32_t result;  // what the operation returned
  bool fired;      // whether that point was reached (and so failed)
};

// once: only the n-th point fails; from_then_on: it and every later one
// (for callers that fall back on a failure and would otherwise recover).
enum class Arm { once, from_then_on };

inline void fault_sweep(const std::function<void()>& prepare, const std::function<int32_t()>& op,
                        const std::function<void(const SweepRun&)>& check, Arm mode = Arm::once) {
  const long base = vk::fault::live_total();
  const long limit = 100000;
  for (long n = 1; n < limit; ++n) {
    SCOPED_TRACE("allocation point " + std::to_string(n));
    prepare();
    vk::fault::arm(n, mode == Arm::from_then_on);
    const int32_t r = op();
    const bool fired = vk::fault::fired();
    vk::fault::disarm();
    check(SweepRun{n, r, fired});
    EXPECT_EQ(vk::fault::live_total(), base) << "left behind after point " << n;
    if (!fired || ::testing::Test::HasFailure()) return;
  }
  ADD_FAILURE() << "the sweep did not end within " << limit << " points";
}

// A bitmap record, its palette's entries and its pixels (read through row
// access), compared byte for byte later.
class Snapshot {
 public:
  Snapshot() = default;
  // The record is taken after the reads, which move its row cache.
  explicit Snapshot(BitmapHandle* b) : b_(b), palette_(palette(b)), pixels_(pixels(b)) {
    std::memcpy(&record_, b, sizeof record_);
  }
  ::testing::AssertionResult unchanged() const {
    if (std::memcmp(&record_, b_, sizeof record_) != 0) return ::testing::AssertionFailure() << "record changed";
    if (palette(b_) != palette_) return ::testing::AssertionFailure() << "palette changed";
    if (pixels(b_) != pixels_) return ::testing::AssertionFailure() << "pixels changed";
    return ::testing::AssertionSuccess();
  }
  // The palette's entries as bytes (none without a palette).
  static std::vector<uint8_t> palette(BitmapHandle* b) {
    std::vector<uint8_t> out;
    if (!b || !b->Palette || b->ColorCount == 0 || b->ColorCount > 65536) return out;
    out.resize(size_t{b->ColorCount} * sizeof(RGBQUAD));
    const int32_t got = V_GetBitmapPaletteEntries(b, 0, static_cast<int32_t>(b->ColorCount),
                                                  reinterpret_cast<RGBQUAD*>(out.data()));
    out.resize(static_cast<size_t>(got > 0 ? got : 0) * sizeof(RGBQUAD));
    return out;
  }
  // The pixels row by row, without the padding after the last pixel (storage
  // kinds need not keep those bits).
  static std::vector<uint8_t> pixels(BitmapHandle* b) {
    std::vector<uint8_t> out;
    if (!b || !(b->Flags & BITMAP_ALLOCATED) || b->Height < 1) return out;
    const uint64_t bits = static_cast<uint64_t>(b->Width) * static_cast<uint32_t>(b->BitsPerPixel);
    std::vector<uint8_t> row(static_cast<size_t>((bits + 7) / 8));
    const uint8_t last_mask = static_cast<uint8_t>(bits % 8 ? 0xFFu << (8 - bits % 8) : 0xFFu);
    for (int32_t y = 0; y < b->Height; ++y) {
      V_GetBitmapRow(b, row.data(), static_cast<uint32_t>(y), static_cast<int32_t>(row.size()));
      if (!row.empty()) row.back() &= last_mask;
      out.insert(out.end(), row.begin(), row.end());
    }
    return out;
  }

 private:
  BitmapHandle* b_ = nullptr;
  std::vector<uint8_t> palette_, pixels_;
  BitmapHandle record_{};
};

// The usual check: a run that failed returned `code` and left the bitmap as
// the snapshot holds it.
inline void expect_kept(const SweepRun& run, const Snapshot& before, int32_t code = RESULT_FAIL) {
  if (run.result == RESULT_OK) return;
  EXPECT_EQ(run.result, code);
  EXPECT_TRUE(before.unchanged());
}

// The sweep of an operation on one bitmap: `make` builds it afresh for every
// run; a run that failed had a point fail, returned `code` and left the
// bitmap as it was; the bitmap is freed after every run.
inline void sweep_kept(const std::function<BitmapHandle()>& make, const std::function<int32_t(BitmapHandle*)>& op,
                       int32_t code = RESULT_FAIL) {
  BitmapHandle b{};
  Snapshot before;
  fault_sweep([&] { b = make(), before = Snapshot(&b); }, [&] { return op(&b); },
              [&](const SweepRun& run) {
                if (run.result != RESULT_OK) EXPECT_TRUE(run.fired);
                expect_kept(run, before, code);
                V_FreeBitmap(&b);
              });
}

// A status callback that stops the operation (returns 0) at its `at`-th
// call, installed for its lifetime.
class CancelAt {
 public:
  explicit CancelAt(int at) : at_(at) { V_SetStatusCallBack(&stop, reinterpret_cast<intptr_t>(this)); }
  ~CancelAt() { V_SetStatusCallBack(nullptr, 0); }
  CancelAt(const CancelAt&) = delete;
  CancelAt& operator=(const CancelAt&) = delete;
  int calls = 0;

 private:
  static int32_t VK_CALL stop(int32_t, intptr_t data) {
    auto* c = reinterpret_cast<CancelAt*>(data);
    return ++c->calls == c->at_ ? 0 : RESULT_OK;
  }
  int at_;
};

// Records the percentages a status callback receives; refuses at one of them.
// Installed for its lifetime.
struct StatusRecorder {
  std::vector<int32_t> seen;
  int32_t refuse_at = -1;
  StatusRecorder() { V_SetStatusCallBack(&hook, reinterpret_cast<intptr_t>(this)); }
  ~StatusRecorder() { V_SetStatusCallBack(nullptr, 0); }
  static int32_t VK_CALL hook(int32_t percent, intptr_t data) {
    auto* s = reinterpret_cast<StatusRecorder*>(data);
    s->seen.push_back(percent);
    return percent == s->refuse_at ? 77 : RESULT_OK;
  }
};

// Names the exports a sweep covers; the coverage check reads these marks
// from the test sources.
#define VKT_SWEEPS(...) static_assert(true, "")

}  // namespace vkt
