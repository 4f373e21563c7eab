// shear.cpp - V_ShearBitmap: each stored row slides sideways by a whole
// number of pixels that grows steadily from the first row processed to the
// last, so a rectangle becomes a parallelogram; the uncovered triangles take
// the fill.  Nothing is blended: every row is copied bit for bit.
//
// The slant per row is tan(a) = q + r / c with s = sine(a), c = cosine(a),
// q = s / c, r = s % c, all from the integer sine table, so every build
// places every row at the same offset.  The offset steps by q per row, and
// by one more whenever the remainder accumulated passes c strictly (equal
// is not enough: that is how these offsets have always fallen).
//
// A vertical shear is the horizontal one between a quarter turn and the turn
// back.  A negative angle is the positive one between two mirrors; the mirror
// is folded into the placement instead of run over the pixels twice: a row of
// a mirrored image placed at offset o and mirrored back is the row itself at
// offset extra - o, and a bitmap stored transposed (whose mirror exchanges
// rows) is sheared with its row order reversed.  The turns work on copies,
// and the caller's record changes only in the final commit, so a failure or
// a cancellation at any point leaves it exactly as it was.
#include <algorithm>
#include <cstring>

#include "compressed.h"
#include "dispatch.h"
#include "geometry.h"
#include "op.h"
#include "pixel.h"
#include "pixel_format.h"
#include "runs.h"

namespace vk {
namespace {

// A result row longer than this many bytes is not made: the call succeeds and
// leaves the bitmap as it is.
constexpr int64_t kMaxRowBytes = 32768;

// Copies a row of w pixels into a result row at pixel `at`; the other pixels
// of the result row are kept.  Below 8 bits the pixels are moved bit for
// bit, the partial bytes at both ends merged under masks.  12-bit pairs are
// no bit stream (the second sample's low nibble sits above the first's high
// one): whole pairs move as bytes when the offset is even, single samples
// otherwise.
using PlaceFn = void (*)(uint8_t* row, uint32_t at, const uint8_t* src, uint32_t w);
template <int B>
void place(uint8_t* row, uint32_t at, const uint8_t* src, uint32_t w) {
  if constexpr (B % 8 == 0) {
    std::memcpy(row + size_t(at) * (B / 8), src, size_t(w) * (B / 8));
  } else if constexpr (B == 12) {
    uint32_t x = 0;
    if (at % 2 == 0) {
      std::memcpy(row + size_t(at / 2) * 3, src, size_t(w / 2) * 3);
      x = w & ~1u;
    }
    for (; x < w; ++x) Gray12::put(row, size_t(at) + x, Gray12::pixel(src, x));
  } else {
    copy_bits(row, uint64_t(at) * B, src, 0, uint64_t(w) * B);
  }
}
// Key: bits per pixel.
constexpr auto kPlace = by_depth<PlaceFn>([]<int B>() -> PlaceFn { return &place<B>; });

// Where each row goes: the rows in processing order and the offset of each.
struct Walk {
  int32_t q, r, c;    // whole step, remainder, cosine
  uint32_t extra;     // result width - source width: the largest offset
  bool from_top;      // stored row 0 first
  bool mirrored;      // offsets counted from the right (a negative angle)
};

// Runs body(row, at) for each stored row in processing order, with progress
// and cancellation after each row.  The offset never passes extra: after k
// rows it is at most k x s / c, and k < Height.
template <class Body>
int32_t walk_rows(const Walk& w, int32_t h, Progress& progress, Body&& body) {
  uint32_t offset = 0, acc = 0;
  return op::each_row(progress, h, [&](int32_t i) -> int32_t {
    const int32_t y = w.from_top ? i : h - 1 - i;
    VK_TRY(body(uint32_t(y), w.mirrored ? w.extra - offset : offset));
    offset += uint32_t(w.q);
    acc += uint32_t(w.r);
    if (acc > uint32_t(w.c)) {
      acc -= uint32_t(w.c);
      ++offset;
    }
    return RESULT_OK;
  });
}

// Packed rows through row access.  The result row keeps the fill from the
// rows before it, so per row only the part the previous row covered and this
// one does not is filled again.
int32_t shear_packed(BitmapHandle* src, BitmapHandle* dst, const Walk& w, uint64_t fill, Progress& progress) {
  const int32_t bits = src->BitsPerPixel;
  const uint32_t sw = uint32_t(src->Width), dw = uint32_t(dst->Width);
  const uint32_t sbpl = src->BytesPerLine, dbpl = dst->BytesPerLine;
  Buffer<uint8_t> line(sbpl), row(dbpl, true), blank(dbpl, true);
  if (!line || !row || !blank) return RESULT_FAIL;
  fill_pixels(blank.get(), bits, 0, dw, fill);
  std::memcpy(row.get(), blank.get(), dbpl);
  const PlaceFn put_row = kPlace[bits];
  // Every pixel of the blank row is the fill, so any run of it will do.
  auto refill = [&](uint32_t from, uint32_t to) {
    if (from < to) put_row(row.get(), from, blank.get(), to - from);
  };
  uint32_t last = w.mirrored ? w.extra : 0;  // the fill is whole where the first row goes
  return walk_rows(w, src->Height, progress, [&](uint32_t y, uint32_t at) -> int32_t {
    const int32_t got = V_GetBitmapRow(src, line.get(), y, int32_t(sbpl));
    if (got < 0) return got;
    if (at > last) refill(last, std::min(at, last + sw));
    else refill(std::max(at + sw, last), last + sw);
    put_row(row.get(), at, line.get(), sw);
    last = at;
    const int32_t put = V_PutBitmapRow(dst, row.get(), y, int32_t(dbpl));
    return put < 0 ? put : int32_t{RESULT_OK};
  });
}

// Compressed 1-bit rows stay runs: a fill run, the source row's runs, a fill
// run, merged and split by the run writer's rules.
int32_t shear_runs(BitmapHandle* src, BitmapHandle* dst, const Walk& w, uint64_t fill, Progress& progress) {
  const uint32_t sw = uint32_t(src->Width), dw = uint32_t(dst->Width);
  const unsigned colour = fill != 0 ? 1u : 0u;
  const size_t in_cap = 2 * size_t{sw} + 8, out_runs = 2 * size_t{dw} + 16;
  Buffer<uint8_t> in(in_cap), out(4 + 2 * out_runs);
  if (!in || !out) return RESULT_FAIL;
  return walk_rows(w, src->Height, progress, [&](uint32_t y, uint32_t at) -> int32_t {
    const int32_t got = cmp::read_record(src, y, in.get(), in_cap);
    if (got < 0) return got;
    const uint8_t* runs = in.get() + 4;
    const uint32_t n = cmp::load32(in.get());
    cmp::RunWriter wr(out.get() + 4, out_runs);
    wr.start(0);
    wr.append(colour, at);
    uint64_t left = sw;
    for (uint32_t i = 0; i < n && left; ++i) {
      const uint64_t len = std::min<uint64_t>(cmp::load16(runs + 2 * size_t{i}), left);
      wr.append(i & 1u, len);
      left -= len;
    }
    wr.append(0, left);  // a record that ends early ends in 0-bits
    wr.append(colour, dw - at - sw);
    if (wr.overflow()) return RESULT_FAIL;
    cmp::store32(out.get(), uint32_t(wr.count()));
    const int32_t put = cmp::write_record(dst, y, out.get());
    dst->Size = cmp::heap_size(dst);
    return put < 1 ? put : int32_t{RESULT_OK};
  });
}

// The horizontal shear of src into `out` (a new record of src's kind that
// shares its palette), `width` pixels wide.
int32_t shear_into(BitmapHandle* src, op::Scratch& out, int32_t width, Walk w, uint32_t colour,
                   Progress& progress) {
  VK_TRY(dup_shared(out, src, width, src->Height));
  out->Region = nullptr;
  uint64_t fill = 0;
  VK_TRY(pixel_value(out.get(), colour, fill));
  const int32_t vp = src->ViewPerspective;
  w.extra = uint32_t(width - src->Width);
  w.from_top = vp == 2 || vp == 3 || vp == 5 || vp == 7;
  // Mirroring a transposed bitmap exchanges its rows instead.
  if (w.mirrored && (vp == 4 || vp == 5 || vp == 7 || vp == 8)) {
    w.mirrored = false;
    w.from_top = !w.from_top;
  }
  BitmapLock lock_src(src), lock_dst(out.get());
  const bool runs = (src->Flags & BITMAP_COMPRESSED) && (out->Flags & BITMAP_COMPRESSED);
  VK_TRY(runs ? shear_runs(src, out.get(), w, fill, progress) : shear_packed(src, out.get(), w, fill, progress));
  return progress.finish();
}

int32_t shear_bitmap(BitmapHandle* b, int32_t angle, bool horizontal, uint32_t colour) {
  if (!allocated(b)) return RESULT_NO_BITMAP;
  if (angle < -8999 || angle > 8999) return RESULT_BAD_PARAMETER;
  VK_TRY(check_bitmap(b));
  if (!valid_bitmap_depth(b->BitsPerPixel)) return RESULT_BAD_BITS_PER_PIXEL;
  const bool negative = angle < 0;
  const int32_t a = negative ? -angle : angle;
  const int32_t s = sine(a), c = cosine(a);
  // The rows that slide: those of the quarter-turned image for a vertical shear.
  const int32_t w = horizontal ? b->Width : b->Height, h = horizontal ? b->Height : b->Width;
  const int64_t width = w + int64_t{s} * h / c;
  if (width * b->BitsPerPixel / 8 > kMaxRowBytes) return RESULT_OK;

  // Reading rows moves the caller's row cache; it is put back unless the
  // result replaces the record.
  op::CacheGuard cache(b);
  op::Scratch sheared, back;
  {
    op::Scratch turned;  // let go before the turn back makes its copy
    BitmapHandle* src = b;
    if (!horizontal) {
      Progress progress(b->Width, false, 0, 20);
      VK_TRY(progress.start());
      VK_TRY(turn_quarter(b, 1, turned, progress));
      src = turned.get();
    }
    // The mirror of a negative angle counts as 5 percent; after a turn that
    // reported 20 only a mirror has anything new to report before the rows.
    Progress progress(h, false, (horizontal ? 0 : 20) + (negative ? 5 : 0), 100);
    if (horizontal || negative) VK_TRY(progress.start());
    VK_TRY(shear_into(src, sheared, int32_t(width), Walk{s / c, s % c, c, 0, false, negative}, colour, progress));
  }
  op::Scratch& done = horizontal ? sheared : back;
  if (!horizontal) {
    // The turn back is part of this call's work, not a second operation the
    // caller sees: no progress of its own.
    SuspendStatus quiet;
    Progress none(1);
    VK_TRY(turn_quarter(sheared.get(), 0, back, none));
  }

  int32_t copied = 0;
  if (auto hook = reinterpret_cast<VK_REGIONHOOK>(reinterpret_cast<void (*)()>(dispatch::entry(2)))) {
    const int32_t r = hook(done.get(), b, 0, 0);
    copied = done->Region != nullptr;
    if (r != RESULT_OK) return r;
  }
  if (auto hook = reinterpret_cast<VK_SHEARREGIONHOOK>(reinterpret_cast<void (*)()>(dispatch::entry(12))))
    VK_TRY(hook(done.get(), copied));
  const VK_HRGN region = done->Region;
  cache.dismiss();
  op::commit(done, b);
  b->Region = region;
  return RESULT_OK;
}

}  // namespace
}  // namespace vk

extern "C" VK_API int32_t VK_CALL V_ShearBitmap(BitmapHandle* bitmap, int32_t angle, int32_t horizontal,
                                                uint32_t fill) {
  return vk::api_call([&] { return vk::shear_bitmap(bitmap, angle, horizontal != 0, fill); });
}
