// flip.cpp - the two row workers behind flips, mirrors and half turns: the
// row-order flip (stored row i exchanged with row Height - 1 - i) and the
// row mirror (each stored row left to right), alone or together.
//
// Flat memory is changed in place, with no allocation at all: rows are
// exchanged through a small stack buffer.  Each step is its own inverse, so
// a run stopped by the status callback undoes the steps it did and leaves
// the pixels as they were.  Every other storage kind (tiles, disk, global
// memory, compressed rows) can fail half way (a tile that cannot be mapped,
// a heap that cannot grow), so there the result is built in a new record
// and replaces the caller's only when complete; compressed rows move and
// are mirrored as run lists, never expanded.
#include <algorithm>
#include <cstring>

#include "compressed.h"
#include "geometry.h"
#include "op.h"

namespace vk {
namespace {

// Two rows exchanged in one pass (the compiler turns it into vector loads
// and stores).
void swap_rows(uint8_t* a, uint8_t* b, size_t n) { std::swap_ranges(a, a + n, b); }

int32_t in_place(BitmapHandle* b, bool flip, MirrorFn mirror, Progress& progress) {
  uint8_t* base = static_cast<uint8_t*>(b->Data);
  const size_t bpl = b->BytesPerLine;
  const int32_t h = b->Height;
  const uint32_t w = static_cast<uint32_t>(b->Width);
  const int32_t steps = flip ? (h + 1) / 2 : h;
  const ExchangeFn exchange = mirror ? exchange_kernel(b->BitsPerPixel) : nullptr;
  auto apply = [&](int32_t p) {
    uint8_t* rp = base + size_t(p) * bpl;
    const int32_t q = h - 1 - p;
    if (!flip || q == p) {
      if (mirror) mirror(rp, w);
    } else if (exchange) {
      exchange(rp, base + size_t(q) * bpl, w);
    } else {
      swap_rows(rp, base + size_t(q) * bpl, bpl);
    }
  };
  int32_t r = RESULT_OK;
  int32_t done = 0;
  while (done < steps) {
    apply(done++);
    r = progress.step();
    if (r != RESULT_OK) break;
  }
  if (r == RESULT_OK) r = progress.finish();
  if (r != RESULT_OK)
    while (done > 0) apply(--done);
  return r;
}

int32_t into_new_record(BitmapHandle* b, bool flip, MirrorFn mirror, Progress& progress) {
  op::Scratch out;
  VK_TRY(dup_shared(out, b, b->Width, b->Height));
  op::CacheGuard cache(b);
  BitmapHandle* dst = out.get();
  const int32_t h = b->Height;
  const uint32_t w = static_cast<uint32_t>(b->Width);
  const bool runs = (b->Flags & BITMAP_COMPRESSED) && (dst->Flags & BITMAP_COMPRESSED);

  // One row: compressed rows as run records (mirrored as runs), the others
  // through row access.
  const size_t capacity = runs ? 2 * size_t{w} + 8 : b->BytesPerLine;
  Buffer<uint8_t> buf(capacity), mirrored(runs && mirror ? capacity : 0);
  if (!buf || (runs && mirror && !mirrored)) return RESULT_FAIL;
  auto move_row = [&](int32_t from, int32_t to) -> int32_t {
    if (runs) {
      const int32_t n = cmp::read_record(b, uint32_t(from), buf.get(), capacity);
      if (n < 0) return n;
      const uint8_t* rec = buf.get();
      if (mirror) {
        VK_TRY(V_MirrorCompressedBuffer(buf.get(), mirrored.get(), 1));
        rec = mirrored.get();
      }
      const int32_t put = cmp::write_record(dst, uint32_t(to), rec);
      dst->Size = cmp::heap_size(dst);
      return put < 1 ? put : int32_t{RESULT_OK};
    }
    const int32_t bpl = static_cast<int32_t>(b->BytesPerLine);
    const int32_t got = V_GetBitmapRow(b, buf.get(), uint32_t(from), bpl);
    if (got < 0) return got;
    if (mirror) mirror(buf.get(), w);
    const int32_t put = V_PutBitmapRow(dst, buf.get(), uint32_t(to), bpl);
    return put < 0 ? put : int32_t{RESULT_OK};
  };
  {
    BitmapLock lock_src(b), lock_dst(dst);
    const int32_t steps = flip ? (h + 1) / 2 : h;
    VK_TRY(op::each_row(progress, steps, [&](int32_t p) -> int32_t {
      if (!flip) return move_row(p, p);
      VK_TRY(move_row(h - 1 - p, p));
      return h - 1 - p == p ? RESULT_OK : move_row(p, h - 1 - p);
    }));
    VK_TRY(progress.finish());
  }
  cache.dismiss();
  op::commit(out, b);
  return RESULT_OK;
}

}  // namespace

int32_t transform_rows(BitmapHandle* b, bool flip, bool mirror, int32_t from, int32_t to) {
  VK_TRY(check_bitmap(b));
  const MirrorFn mirror_fn = mirror ? mirror_kernel(b->BitsPerPixel) : nullptr;
  if (mirror && !mirror_fn) return RESULT_BAD_BITS_PER_PIXEL;
  if (!flip && !mirror) return RESULT_OK;
  Progress progress(flip ? (b->Height + 1) / 2 : b->Height, false, from, to);
  VK_TRY(progress.start());
  {
    BitmapLock lock(b);
    if (flat_memory(b)) return in_place(b, flip, mirror_fn, progress);
  }
  // The lock is let go before the commit replaces the storage it holds.
  return into_new_record(b, flip, mirror_fn, progress);
}

}  // namespace vk
