// op.h - the shape every whole-bitmap operation shares:
//
//   checks (no side effects)  ->  guards  ->  kernel chosen once from a table
//   ->  row loop with progress and cancellation  ->  one commit
//
// A Scratch record holds the result until the commit; a CacheGuard puts a
// source's row cache back on every way out but the commit; for_each_row runs
// the rows with the status callback; commit() moves the finished record over
// the caller's and releases the old storage, hand_over() gives it to a record
// that holds nothing yet.  Nothing of the caller's record changes before the
// commit, so every failure leaves it byte for byte as it was.
#pragma once

#include <cstring>

#include "core.h"

namespace vk::op {

// A result record owned by the operation until it is committed.  A record
// made by duplication may share the caller's palette or region: those are
// handed back (not freed) when the operation fails.
class Scratch {
 public:
  Scratch() { std::memset(&b_, 0, sizeof b_); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch() {
    if (!owned_) return;
    if (shared_palette_) b_.Palette = nullptr;
    if (shared_region_) b_.Region = nullptr;
    V_FreeBitmap(&b_);
    // Gray parameters may be copied before the storage is made; releasing
    // the storage frees the gray table of an allocated record only.
    if (b_.GrayLut) V_OsFree(b_.GrayLut);
  }
  BitmapHandle* get() { return &b_; }
  BitmapHandle* operator->() { return &b_; }
  BitmapHandle& operator*() { return b_; }
  // The record's palette and/or region are the caller's own.
  void shares(bool palette, bool region) {
    shared_palette_ = palette;
    shared_region_ = region;
  }
  bool shares_palette() const { return shared_palette_; }
  bool shares_region() const { return shared_region_; }
  // Hands the record over (nothing is freed).
  BitmapHandle release() {
    owned_ = false;
    return b_;
  }

 private:
  BitmapHandle b_;
  bool owned_ = true, shared_palette_ = false, shared_region_ = false;
};

// Reading rows moves a bitmap's row cache (CachedRow, CachedRowOffset); an
// operation that does not complete puts it back.
class CacheGuard {
 public:
  explicit CacheGuard(BitmapHandle* b) : b_(b), row_(b->CachedRow), offset_(b->CachedRowOffset) {}
  CacheGuard(const CacheGuard&) = delete;
  CacheGuard& operator=(const CacheGuard&) = delete;
  ~CacheGuard() {
    if (!b_) return;
    b_->CachedRow = row_;
    b_->CachedRowOffset = offset_;
  }
  void dismiss() { b_ = nullptr; }

 private:
  BitmapHandle* b_;
  int32_t row_;
  uint32_t offset_;
};

// How a row loop reports: through the status callback or the copy status
// callback, and whether the last percentage is reported once more at the end
// (for loops whose steps may not reach it, e.g. no rows).
struct Rows {
  int32_t count;
  bool copy_status = false;
  bool report_end = true;
};

// The row loop: body(y) for y = 0 .. count - 1, one progress step after each
// row.  Stops at the first result other than RESULT_OK, from the body or
// from the callback (cancellation), and returns it.  For operations that
// start and finish the progress themselves (work between start and the
// first row, e.g. buffers or locks).
template <class Body>
int32_t each_row(Progress& progress, int32_t count, Body&& body) {
  for (int32_t y = 0; y < count; ++y) {
    VK_TRY(body(y));
    VK_TRY(progress.step());
  }
  return RESULT_OK;
}

// The whole loop: start, each_row, end.
template <class Body>
int32_t for_each_row(const Rows& rows, Body&& body) {
  Progress progress(rows.count, rows.copy_status);
  VK_TRY(progress.start());
  VK_TRY(each_row(progress, rows.count, body));
  return rows.report_end ? progress.finish() : RESULT_OK;
}

// Moves the finished record over the caller's.  The caller's region goes to
// the new record (the clip follows the pixels); so does its palette when the
// scratch record shares it.  Everything else of the old record (storage,
// own palette, tables) is released.  Guards on the caller's record must be
// dismissed first.
inline void commit(Scratch& scratch, BitmapHandle* caller) {
  scratch->Region = caller->Region;
  caller->Region = nullptr;
  if (scratch.shares_palette()) caller->Palette = nullptr;
  BitmapHandle done = scratch.release();
  V_FreeBitmap(caller);
  *caller = done;
}

// Gives the finished record to `out`, a record that holds nothing yet (it is
// overwritten, not released).  `old`, when given, is released first: an
// operation that replaces its source through a working copy of its record.
inline void hand_over(Scratch& scratch, BitmapHandle* out, BitmapHandle* old = nullptr) {
  const BitmapHandle done = scratch.release();
  if (old) V_FreeBitmap(old);
  *out = done;
}

}  // namespace vk::op
