// best_palette.cpp - palettes that minimise the squared colour error over
// all pixels, for one bitmap or for every bitmap of a list.
//
// Every pixel, read as 24-bit colour through row conversion, is counted in
// a 6-6-6 histogram whose cells also sum the two low bits of each channel,
// so a cell knows the mean of its own pixels; the distinct colours are
// collected too while they fit, and when they all fit they are the palette.
// Otherwise variance-minimising cuts (Wu) split the cell cube into boxes:
// the box whose best cut lowers the pixel-weighted squared error the most
// is cut next, so a large smooth area gets as many entries as its share of
// the error, not as its spread per pixel.  A few rounds of
// k-means over the histogram cells (pixel-weighted) then move each chosen
// colour to the mean of the cells nearest to it; fixed entries the caller
// keeps take part in the matching but never move.
//
// DETERMINISM: integer arithmetic only, fixed iteration orders and ties
// broken by position, so a palette is the same bit for bit in every build.
// Channel means carry 4 fractional bits (value x 16) and are rounded half
// up; squared-error scores are in 1/256 units (see score()).
#include "best_palette.h"

#include <cstring>

#include "core.h"
#include "op.h"
#include "optimize.h"

namespace vk::best {

void row_colours(BitmapHandle& b, RowColours& out) {
  out.palette = nullptr;
  out.flags = 0;
  if (b.Order == ORDER_GRAY) {
    if (b.GrayLut && (b.Flags & BITMAP_GRAY_FLAG)) out.palette = reinterpret_cast<const RGBQUAD*>(b.GrayLut);
    out.flags = CONVERT_SRC_GRAY | CONVERT_SRC_BITRANGE;
  } else if (b.BitsPerPixel <= 8) {
    std::memset(out.entries, 0, sizeof out.entries);
    if (b.ColorCount != 0)
      V_GetBitmapPaletteEntries(&b, 0, static_cast<int32_t>(b.ColorCount < 256 ? b.ColorCount : 256), out.entries);
    out.palette = out.entries;
  }
}

namespace {

// ---- histogram ------------------------------------------------------------------

constexpr uint32_t kSide = 64;  // cells per channel: the top 6 bits
// Counts are halved (rounding up) before the total would pass this, so
// per-cell sums of low bits (<= 3 per pixel) fit 32 bits and the moments
// below fit 64.
constexpr uint64_t kTotalLimit = uint64_t{1} << 30;
constexpr uint32_t kChunk = 1u << 16;  // pixels added between limit checks

// Pixel count and channel sums (8-bit values) of a set of cells.  Totals stay
// below 2^31 pixels, so sums stay below 2^39.
struct Moment {
  uint64_t w, r, g, b;
};
inline Moment operator+(const Moment& x, const Moment& y) { return {x.w + y.w, x.r + y.r, x.g + y.g, x.b + y.b}; }
inline Moment operator-(const Moment& x, const Moment& y) { return {x.w - y.w, x.r - y.r, x.g - y.g, x.b - y.b}; }

// The histogram is counted straight into the cube of cumulative moments
// the cuts need (index 0 along each axis stays empty), so the two never
// take memory at the same time.
constexpr uint32_t kEdge = kSide + 1;
constexpr uint32_t kCubeCells = kEdge * kEdge * kEdge;

// Cube position of a channel value, per axis: red, green, blue.
struct CubeSteps {
  uint32_t step[3][256];
  constexpr CubeSteps() : step{} {
    for (uint32_t v = 0; v < 256; ++v) {
      step[0][v] = ((v >> 2) + 1) * kEdge * kEdge;
      step[1][v] = ((v >> 2) + 1) * kEdge;
      step[2][v] = (v >> 2) + 1;
    }
  }
};
constexpr CubeSteps kCubeSteps;

// The distinct colours seen, while there are at most `limit` of them: the
// exact-colours shortcut, read from the same converted rows as the
// histogram.  Open addressing over 1024 slots (at most 257 used).
struct ColourSet {
  static constexpr uint32_t kSlots = 1024;
  static constexpr uint32_t kEmpty = 0xFFFFFFFFu;  // no 24-bit colour has the top byte set
  uint32_t slot[kSlots];
  uint32_t used = 0, limit = 0;
  uint32_t last = kEmpty;
  bool open = true;  // false once more than `limit` colours were seen

  void reset(uint32_t n) {
    for (uint32_t& s : slot) s = kEmpty;
    used = 0;
    limit = n;
    last = kEmpty;
    open = true;
  }
  void add(const uint8_t* p, uint32_t width) {
    for (uint32_t x = 0; x < width && open; ++x, p += 3) {
      const uint32_t c = uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0];
      if (c == last) continue;
      last = c;
      uint32_t i = (c * 2654435761u) >> 22;
      while (slot[i] != kEmpty && slot[i] != c) i = (i + 1) & (kSlots - 1);
      if (slot[i] == c) continue;
      slot[i] = c;
      open = ++used <= limit;
    }
  }
};

struct Histogram {
  // While pixels are counted, cell (r + 1, g + 1, b + 1) holds in w the
  // pixel count and in r, g, b the sums of the channels' low two bits;
  // to_moments() then makes the cumulative moments in place.
  Buffer<Moment> cube;
  uint64_t total = 0;
  ColourSet exact;

  bool allocate(uint32_t n) {
    exact.reset(n);
    return cube.allocate(kCubeCells, true);
  }

  void halve() {
    total = 0;
    for (uint32_t i = 0; i < kCubeCells; ++i) {
      Moment& c = cube[i];
      c.w = (c.w + 1) >> 1;
      c.r = (c.r + 1) >> 1;
      c.g = (c.g + 1) >> 1;
      c.b = (c.b + 1) >> 1;
      total += c.w;
    }
  }

  // A row of 24-bit BGR pixels.
  void add(const uint8_t* p, uint32_t width) {
    if (exact.open) exact.add(p, width);
    Moment* h = cube.get();
    const CubeSteps& s = kCubeSteps;
    while (width != 0) {
      const uint32_t n = width < kChunk ? width : kChunk;
      if (total + n > kTotalLimit) halve();
      for (uint32_t x = 0; x < n; ++x, p += 3) {
        const uint32_t b = p[0], g = p[1], r = p[2];
        Moment& c = h[s.step[0][r] + s.step[1][g] + s.step[2][b]];
        ++c.w;
        c.r += r & 3;
        c.g += g & 3;
        c.b += b & 3;
      }
      total += n;
      width -= n;
    }
  }
};

// Adds every pixel of a bitmap, rows converted to 24-bit BGR.  The bitmap's
// record (row cache included) is as it was afterwards.
int32_t add_bitmap(Histogram& h, BitmapHandle* b, Progress& progress) {
  const int32_t bits = b->BitsPerPixel;
  if (!valid_bitmap_depth(bits)) return RESULT_BAD_BITS_PER_PIXEL;
  const uint32_t width = static_cast<uint32_t>(b->Width);
  size_t bytes = V_CalcConvertSize(b->Width, bits, b->Width, 24);
  if (bytes < b->BytesPerLine) bytes = b->BytesPerLine;
  Buffer<uint8_t> row(bytes + 16, true);
  if (!row) return RESULT_FAIL;
  RowColours rc;
  row_colours(*b, rc);
  op::CacheGuard cache(b);
  BitmapLock lock(b);
  return op::each_row(progress, b->Height, [&](int32_t y) -> int32_t {
    const int32_t got = V_GetBitmapRow(b, row.get(), static_cast<uint32_t>(y), static_cast<int32_t>(b->BytesPerLine));
    if (got < 0) return got;
    VK_TRY(V_ConvertBufferExt(row.get(), b->Width, bits, 24, b->Order, ORDER_BGR, rc.palette, nullptr, rc.flags,
                              b->LowBit, b->HighBit));
    h.add(row.get(), width);
    return RESULT_OK;
  });
}

// ---- variance-minimising cuts ------------------------------------------------------

// 256 x sum^2 / w per channel, as sum x (256 sum / w): below 2^39 x 2^16 per
// channel.  Cutting a set raises the total score of its parts by exactly
// the squared error the cut removes.
inline uint64_t score(const Moment& m) {
  if (m.w == 0) return 0;
  return m.r * ((m.r << 8) / m.w) + m.g * ((m.g << 8) / m.w) + m.b * ((m.b << 8) / m.w);
}

// Cumulative moments: at(r, g, b) sums every cell with indices below r, g, b
// (exclusive), so any box is 8 look-ups.  Differences wrap in unsigned
// arithmetic and come out exact.
struct Cube {
  const Moment* m;
  const Moment& at(uint32_t r, uint32_t g, uint32_t b) const { return m[(r * kEdge + g) * kEdge + b]; }
};

// Cells r0 < r <= r1 (cumulative indices), likewise g and b.
struct Box {
  uint32_t lo[3], hi[3];
  int64_t gain;    // error removed by the best cut; -1: cannot be cut
  uint32_t axis, at;  // the best cut: the lower part keeps hi[axis] = at
};

Moment volume(const Cube& c, const uint32_t lo[3], const uint32_t hi[3]) {
  return c.at(hi[0], hi[1], hi[2]) - c.at(hi[0], hi[1], lo[2]) - c.at(hi[0], lo[1], hi[2]) +
         c.at(hi[0], lo[1], lo[2]) - c.at(lo[0], hi[1], hi[2]) + c.at(lo[0], hi[1], lo[2]) +
         c.at(lo[0], lo[1], hi[2]) - c.at(lo[0], lo[1], lo[2]);
}

// Finds the cut of a box (any axis, any position) that removes the most
// squared error; the first one on equal scores.
void find_cut(const Cube& c, Box& box) {
  const Moment whole = volume(c, box.lo, box.hi);
  uint64_t best = 0;
  box.gain = -1;
  for (uint32_t axis = 0; axis < 3; ++axis) {
    uint32_t hi[3] = {box.hi[0], box.hi[1], box.hi[2]};
    for (uint32_t at = box.lo[axis] + 1; at < box.hi[axis]; ++at) {
      hi[axis] = at;
      const Moment lower = volume(c, box.lo, hi);
      if (lower.w == 0) continue;
      const Moment upper = whole - lower;
      if (upper.w == 0) break;
      const uint64_t s = score(lower) + score(upper);
      if (box.gain < 0 || s > best) {
        best = s;
        box.gain = 0;
        box.axis = axis;
        box.at = at;
      }
    }
  }
  if (box.gain < 0) return;
  const uint64_t before = score(whole);
  // Truncated means can make a useless cut score a hair below the whole.
  box.gain = best > before ? static_cast<int64_t>(best - before) : 0;
}

// Turns the counted histogram into its cumulative moments, in place.
void to_moments(Moment* m) {
  for (uint32_t r = 0; r < kSide; ++r)
    for (uint32_t g = 0; g < kSide; ++g)
      for (uint32_t b = 0; b < kSide; ++b) {
        Moment& cell = m[((r + 1) * kEdge + g + 1) * kEdge + b + 1];
        if (cell.w == 0) continue;
        const uint64_t n = cell.w;
        cell = Moment{n, 4 * r * n + cell.r, 4 * g * n + cell.g, 4 * b * n + cell.b};
      }
  // Running sums along blue, then green, then red.
  for (uint32_t r = 1; r < kEdge; ++r)
    for (uint32_t g = 1; g < kEdge; ++g)
      for (uint32_t b = 1; b < kEdge; ++b) {
        const size_t i = (r * kEdge + g) * kEdge + b;
        m[i] = m[i] + m[i - 1];
      }
  for (uint32_t r = 1; r < kEdge; ++r)
    for (uint32_t g = 1; g < kEdge; ++g)
      for (uint32_t b = 1; b < kEdge; ++b) {
        const size_t i = (r * kEdge + g) * kEdge + b;
        m[i] = m[i] + m[i - kEdge];
      }
  for (uint32_t r = 1; r < kEdge; ++r)
    for (uint32_t g = 1; g < kEdge; ++g)
      for (uint32_t b = 1; b < kEdge; ++b) {
        const size_t i = (r * kEdge + g) * kEdge + b;
        m[i] = m[i] + m[i - kEdge * kEdge];
      }
}

// Colour x 16, rounded half up.
struct Colour16 {
  int32_t r, g, b;
};
inline int32_t mean16(uint64_t sum, uint64_t w) { return static_cast<int32_t>((sum * 16 + w / 2) / w); }

// Splits the histogram into at most n boxes; out receives their means.
// Returns the number of boxes, or 0 on allocation failure.
uint32_t cut_boxes(const Cube& c, uint32_t n, Colour16* out) {
  Buffer<Box> boxes(n);
  if (!boxes) return 0;
  boxes[0] = Box{{0, 0, 0}, {kSide, kSide, kSide}, -1, 0, 0};
  find_cut(c, boxes[0]);
  uint32_t made = 1;
  while (made < n) {
    uint32_t pick = 0;
    for (uint32_t i = 1; i < made; ++i)
      if (boxes[i].gain > boxes[pick].gain) pick = i;
    Box& old = boxes[pick];
    if (old.gain < 0) break;
    Box& upper = boxes[made++];
    upper = old;
    upper.lo[old.axis] = old.at;
    old.hi[old.axis] = old.at;
    find_cut(c, old);
    find_cut(c, upper);
  }
  for (uint32_t i = 0; i < made; ++i) {
    const Moment m = volume(c, boxes[i].lo, boxes[i].hi);
    out[i] = Colour16{mean16(m.r, m.w), mean16(m.g, m.w), mean16(m.b, m.w)};
  }
  return made;
}

// ---- k-means over the cells ---------------------------------------------------------

constexpr uint32_t kRounds = 8;

struct Point {  // one occupied histogram cell
  Colour16 c;   // the mean of its pixels
  uint32_t count;
  uint32_t entry;  // nearest entry (position in the unsorted entry list)
  uint64_t error;  // count x squared distance to it
};

struct Entry {
  Colour16 c;
  int32_t key;   // r + g + b: entries are searched in this order
  uint32_t id;   // position in the unsorted list: fixed entries first
};

inline int64_t distance2(const Colour16& a, const Colour16& b) {
  const int64_t dr = a.r - b.r, dg = a.g - b.g, db = a.b - b.b;
  return dr * dr + dg * dg + db * db;
}

// The nearest entry to c (the lower id on equal distances).  Entries are
// sorted by key; since (difference of keys)^2 <= 3 x squared distance, the
// search walks outwards from c's key and stops once the closer side's key
// alone rules out anything nearer.
uint32_t nearest(const Entry* e, uint32_t n, const Colour16& c, int64_t* dist) {
  const int32_t key = c.r + c.g + c.b;
  uint32_t lo = 0, hi = n;
  while (lo < hi) {
    const uint32_t mid = (lo + hi) / 2;
    if (e[mid].key < key) lo = mid + 1;
    else hi = mid;
  }
  int64_t best = INT64_MAX;
  uint32_t best_id = 0;
  int64_t down = int64_t(lo) - 1, up = lo;
  while (down >= 0 || up < int64_t(n)) {
    const bool take_up = up < int64_t(n) && (down < 0 || e[up].key - key <= key - e[down].key);
    const Entry& x = e[take_up ? up : down];
    const int64_t dk = x.key - key;
    if (best != INT64_MAX && dk * dk > 3 * best) break;
    const int64_t d = distance2(x.c, c);
    if (d < best || (d == best && x.id < best_id)) {
      best = d;
      best_id = x.id;
    }
    if (take_up) ++up;
    else --down;
  }
  *dist = best;
  return best_id;
}

struct Sums {
  uint64_t w, r, g, b;
};

// Moves the n free colours (after `fixed` fixed ones in `all`) to the means
// of their cells.  Returns false on allocation failure.
bool refine(const Cube& c, Colour16* all, uint32_t fixed, uint32_t n) {
  // Each cell's own moment, from the cumulative ones.
  auto cell = [&](uint32_t r, uint32_t g, uint32_t b) {
    const uint32_t lo[3] = {r, g, b}, hi[3] = {r + 1, g + 1, b + 1};
    return volume(c, lo, hi);
  };
  uint32_t occupied = 0;
  for (uint32_t r = 0; r < kSide; ++r)
    for (uint32_t g = 0; g < kSide; ++g)
      for (uint32_t b = 0; b < kSide; ++b) occupied += cell(r, g, b).w != 0;
  const uint32_t total = fixed + n;
  Buffer<Point> points(occupied);
  Buffer<Entry> sorted(total);
  Buffer<Sums> sums(total);
  if (!points || !sorted || !sums) return false;
  uint32_t k = 0;
  for (uint32_t r = 0; r < kSide; ++r)
    for (uint32_t g = 0; g < kSide; ++g)
      for (uint32_t b = 0; b < kSide; ++b) {
        const Moment m = cell(r, g, b);
        if (m.w == 0) continue;
        points[k++] = Point{{mean16(m.r, m.w), mean16(m.g, m.w), mean16(m.b, m.w)}, uint32_t(m.w), 0, 0};
      }
  for (uint32_t round = 0; round < kRounds; ++round) {
    // Entries by key, then id (insertion sort: a few hundred at most).
    for (uint32_t i = 0; i < total; ++i) {
      const Entry x{all[i], all[i].r + all[i].g + all[i].b, i};
      uint32_t j = i;
      for (; j > 0 && (sorted[j - 1].key > x.key || (sorted[j - 1].key == x.key && sorted[j - 1].id > x.id)); --j)
        sorted[j] = sorted[j - 1];
      sorted[j] = x;
    }
    std::memset(sums.get(), 0, total * sizeof(Sums));
    for (uint32_t k = 0; k < occupied; ++k) {
      Point& p = points[k];
      int64_t d = 0;
      p.entry = nearest(sorted.get(), total, p.c, &d);
      p.error = p.count * static_cast<uint64_t>(d);
      Sums& s = sums[p.entry];
      s.w += p.count;
      s.r += uint64_t(p.count) * uint32_t(p.c.r);
      s.g += uint64_t(p.count) * uint32_t(p.c.g);
      s.b += uint64_t(p.count) * uint32_t(p.c.b);
    }
    bool moved = false;
    for (uint32_t i = fixed; i < total; ++i) {
      Colour16 next;
      if (sums[i].w != 0) {
        const Sums& s = sums[i];
        next = Colour16{int32_t((s.r + s.w / 2) / s.w), int32_t((s.g + s.w / 2) / s.w), int32_t((s.b + s.w / 2) / s.w)};
      } else {
        // A colour nothing is nearest to moves to the cell that is served
        // worst (the first on equal errors), which then counts as served.
        uint32_t worst = 0;
        for (uint32_t k = 1; k < occupied; ++k)
          if (points[k].error > points[worst].error) worst = k;
        if (points[worst].error == 0) continue;
        points[worst].error = 0;
        next = points[worst].c;
      }
      if (next.r != all[i].r || next.g != all[i].g || next.b != all[i].b) moved = true;
      all[i] = next;
    }
    if (!moved) break;
  }
  return true;
}

// ---- the palette ----------------------------------------------------------------------

inline uint8_t to8(int32_t v16) {
  const int32_t v = (v16 + 8) >> 4;
  return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
}

inline bool same_colour(const RGBQUAD& a, const RGBQUAD& b) {
  return a.rgbRed == b.rgbRed && a.rgbGreen == b.rgbGreen && a.rgbBlue == b.rgbBlue;
}

struct Request {
  const RGBQUAD* fixed;
  uint32_t fixed_count;
  RGBQUAD* palette;
  uint32_t* colors;
  int32_t* needs_dither;
};

int32_t check_request(const Request& q) {
  if (!q.palette || !q.colors || !q.needs_dither || *q.colors == 0 || *q.colors > 256) return RESULT_BAD_PARAMETER;
  if (q.fixed_count > 256 || (q.fixed_count != 0 && !q.fixed)) return RESULT_BAD_PARAMETER;
  *q.needs_dither = 1;
  return RESULT_OK;
}

// The exact colours fit: they are the palette, sorted.
int32_t take_exact(const ColourSet& set, const Request& q) {
  uint32_t k = 0;
  for (uint32_t c : set.slot)
    if (c != ColourSet::kEmpty) q.palette[k++] = RGBQUAD{uint8_t(c), uint8_t(c >> 8), uint8_t(c >> 16), 0};
  opt::sort_palette(q.palette, k, nullptr);
  for (uint32_t i = k; i < *q.colors; ++i) q.palette[i] = RGBQUAD{0, 0, 0, 0};
  *q.colors = k;
  *q.needs_dither = 0;
  return RESULT_OK;
}

// Cuts, refines and writes the chosen colours: distinct, not equal to a
// matchable fixed entry, sorted by red, green, blue.
int32_t finish(Histogram& h, const Request& q) {
  if (h.exact.open) return take_exact(h.exact, q);
  const uint32_t n = *q.colors;
  Colour16 all[512];
  uint32_t fixed = 0;
  for (uint32_t i = 0; i < q.fixed_count; ++i)
    if ((q.fixed[i].rgbReserved & 3) == 0)
      all[fixed++] = Colour16{q.fixed[i].rgbRed * 16, q.fixed[i].rgbGreen * 16, q.fixed[i].rgbBlue * 16};
  to_moments(h.cube.get());
  const Cube c{h.cube.get()};
  const uint32_t boxes = cut_boxes(c, n, all + fixed);
  if (boxes == 0) return RESULT_FAIL;
  if (!refine(c, all, fixed, boxes)) return RESULT_FAIL;
  uint32_t produced = 0;
  for (uint32_t i = fixed; i < fixed + boxes; ++i) {
    const RGBQUAD e{to8(all[i].b), to8(all[i].g), to8(all[i].r), 0};
    bool taken = false;
    for (uint32_t j = 0; j < produced && !taken; ++j) taken = same_colour(q.palette[j], e);
    for (uint32_t j = 0; j < q.fixed_count && !taken; ++j)
      taken = (q.fixed[j].rgbReserved & 3) == 0 && same_colour(q.fixed[j], e);
    if (!taken) q.palette[produced++] = e;
  }
  opt::sort_palette(q.palette, produced, nullptr);
  for (uint32_t i = produced; i < n; ++i) q.palette[i] = RGBQUAD{0, 0, 0, 0};
  *q.colors = produced;
  return RESULT_OK;
}

int32_t best_for_bitmap(BitmapHandle* b, const Request& q) {
  Histogram h;
  if (!h.allocate(*q.colors)) return RESULT_FAIL;
  Progress progress(b->Height);
  VK_TRY(progress.start());
  VK_TRY(add_bitmap(h, b, progress));
  VK_TRY(progress.finish());
  return finish(h, q);
}

// One histogram over every item, in list order; item i reports progress
// from 100 i / items to 100 (i + 1) / items.
int32_t best_for_list(BitmapList list, const Request& q) {
  uint32_t items = 0;
  VK_TRY(V_GetBitmapListCount(list, &items));
  if (items == 0) return RESULT_NO_BITMAP;
  for (uint32_t i = 0; i < items; ++i) {
    BitmapHandle b;
    VK_TRY(V_GetBitmapListItem(list, i, &b));
    VK_TRY(check_bitmap(&b));
  }
  Histogram h;
  if (!h.allocate(*q.colors)) return RESULT_FAIL;
  for (uint32_t i = 0; i < items; ++i) {
    BitmapHandle b;
    VK_TRY(V_GetBitmapListItem(list, i, &b));
    Progress progress(b.Height, false, int32_t(100 * uint64_t(i) / items), int32_t(100 * uint64_t(i + 1) / items));
    VK_TRY(progress.start());
    VK_TRY(add_bitmap(h, &b, progress));
    VK_TRY(progress.finish());
  }
  return finish(h, q);
}

}  // namespace
}  // namespace vk::best

extern "C" {

VK_API int32_t VK_CALL V_CreateBestPalette(BitmapHandle* bitmap, const RGBQUAD* fixed, uint32_t fixedCount,
                                           RGBQUAD* palette, uint32_t* colors, int32_t* needsDither) {
  return vk::api_call([&]() -> int32_t {
    VK_TRY(vk::check_bitmap(bitmap));
    const vk::best::Request q{fixed, fixedCount, palette, colors, needsDither};
    VK_TRY(vk::best::check_request(q));
    return vk::best::best_for_bitmap(bitmap, q);
  });
}

VK_API int32_t VK_CALL V_CreateBitmapListBestPal(BitmapList list, const RGBQUAD* fixed, uint32_t fixedCount,
                                                 RGBQUAD* palette, uint32_t* colors, int32_t* needsDither) {
  return vk::api_call([&]() -> int32_t {
    const vk::best::Request q{fixed, fixedCount, palette, colors, needsDither};
    VK_TRY(vk::best::check_request(q));
    return vk::best::best_for_list(list, q);
  });
}

}  // extern "C"
