// fault_sweep.h - the one fault sweep every allocation test uses, and the
// snapshot that proves a caller's bitmap came through a failure unchanged.
//
// fault_sweep(prepare, op, check): for n = 1, 2, ... `prepare` runs disarmed
// and makes what the operation works on; `op` runs with the n-th allocation
// point failing and returns the operation's result; `check` runs disarmed
// with that result and whether a point failed, and releases whatever
// prepare or op made.  After every run the live count (heap, blocks,
// sections, files) must be back at its value before the first prepare.  The
// sweep ends with the first run in which no point failed, so every
// allocation of the operation has failed once.
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

inline void fault_sweep(const std::function<void()>& prepare, const std::function<int32_t()>& op,
                        const std::function<void(const SweepRun&)>& check, long limit = 100000) {
  const long base = vk::fault::live_total();
  for (long n = 1; n < limit; ++n) {
    SCOPED_TRACE("allocation point " + std::to_string(n));
    prepare();
    vk::fault::arm(n);
    const int32_t r = op();
    const bool fired = vk::fault::fired();
    vk::fault::disarm();
    check(SweepRun{n, r, fired});
    EXPECT_EQ(vk::fault::live_total(), base) << "left behind after point " << n;
    if (!fired || ::testing::Test::HasFailure()) return;
  }
  ADD_FAILURE() << "the sweep did not end within " << limit << " points";
}

// A bitmap record and its pixels, read through row access, compared byte for
// byte later.
class Snapshot {
 public:
  explicit Snapshot(BitmapHandle* b) : b_(b) {
    std::memcpy(&record_, b, sizeof record_);
    pixels_ = pixels(b);
  }
  ::testing::AssertionResult unchanged() const {
    if (std::memcmp(&record_, b_, sizeof record_) != 0) return ::testing::AssertionFailure() << "record changed";
    if (pixels(b_) != pixels_) return ::testing::AssertionFailure() << "pixels changed";
    return ::testing::AssertionSuccess();
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
  BitmapHandle* b_;
  BitmapHandle record_;
  std::vector<uint8_t> pixels_;
};

// Names the exports a sweep covers; the coverage check reads these marks
// from the test sources.
#define VKT_SWEEPS(...) static_assert(true, "")

}  // namespace vkt
