// optimize.cpp - optimised palettes of up to n colours for one bitmap or for
// every bitmap of a list.
//
// Exact colours are kept when they fit.  Otherwise pixels are counted in a
// 5-5-5 histogram; a popularity pass gives dominant cells entries of their
// own, then the box with the largest variance is split at its mean until
// there are n boxes.  All work after the histogram pass is on distinct cells
// (at most 32768), never on pixels.
#include "optimize.h"

#include <cstring>

#include "core.h"
#include "pixel_format.h"

namespace vk::opt {

// ---- histogram ------------------------------------------------------------------

Histogram::~Histogram() {
  V_Free(counts);
  V_Free(cells);
}

bool Histogram::allocate() {
  counts = static_cast<uint32_t*>(V_Calloc(kColorCells, sizeof(uint32_t)));
  cells = static_cast<uint16_t*>(V_Malloc(kColorCells * sizeof(uint16_t)));
  used = 0;
  if (counts && cells) return true;
  V_Free(counts);
  V_Free(cells);
  counts = nullptr;
  cells = nullptr;
  return false;
}

uint32_t* Histogram::release_counts() {
  uint32_t* p = counts;
  counts = nullptr;
  return p;
}

void Histogram::halve() {
  for (uint32_t i = 0; i < kColorCells; ++i) counts[i] = (counts[i] + 1) >> 1;
}

namespace {


// Pixel readers: each turns pixel x of a row into its histogram cell through
// the bitmap's pixel layout F, reading colour exactly as the dithering
// engine does for the same source.
template <class F>
struct PaletteCells {
  const uint16_t* cell_of_index;  // 256 entries
  uint32_t operator()(const uint8_t* row, uint32_t x) const { return cell_of_index[F::pixel(row, x)]; }
};

// Colour layouts as 8-bit channels (5-bit fields widened as (f << 3) | (f >> 2)
// fall back into cell f).
template <class F>
struct ColourCells {
  uint32_t operator()(const uint8_t* row, uint32_t x) const {
    const Rgb8 c = F::pixel(row, x);
    return cell_of(c.r, c.g, c.b);
  }
};

// 12- and 16-bit gray: v = (sample >> shift) & mask; through the GrayLut
// (blue, green, red bytes) when it is in force, else widened to 0-255.
template <class F, bool Lut>
struct GrayCells {
  SampleRange range;
  const uint32_t* lut;
  uint32_t lut_length;
  uint32_t operator()(const uint8_t* row, uint32_t x) const {
    uint32_t v = range(F::pixel(row, x));
    if constexpr (Lut) {
      const uint32_t q = v < lut_length ? lut[v] : 0;
      return cell_of((q >> 16) & 255, (q >> 8) & 255, q & 255);
    } else {
      const uint32_t mask = range.mask;
      if (mask < 255) v = v * 255 / mask;
      if (v > 255) v = 255;
      return cell_of(v, v, v);
    }
  }
};

struct RowSource {
  BitmapHandle* bitmap;
  uint8_t* row;
  bool convert_bgr_alt;  // rows of another order are first converted to 24-bit BGR
};

template <class Reader>
int32_t fill(Histogram& h, const RowSource& src, const Reader& reader) {
  BitmapHandle* b = src.bitmap;
  const uint32_t width = b->Width > 0 ? static_cast<uint32_t>(b->Width) : 0;
  BitmapLock lock(b);
  for (int32_t y = 0; y < b->Height; ++y) {
    const int32_t got = V_GetBitmapRow(b, src.row, static_cast<uint32_t>(y), static_cast<int32_t>(b->BytesPerLine));
    if (got < 0) return got;
    if (src.convert_bgr_alt && width != 0) {
      const int32_t r = V_ConvertBuffer(src.row, static_cast<int32_t>(width), b->BitsPerPixel, 24, ORDER_BGR_ALT,
                                        ORDER_BGR, nullptr, nullptr);
      if (r != RESULT_OK) return r;
    }
    for (uint32_t x = 0; x < width; ++x) h.add(reader(src.row, x));
  }
  return RESULT_OK;
}

// ---- boxes -----------------------------------------------------------------------------

struct Box {
  uint32_t Start, Count;
  uint32_t MeanRed, MeanGreen, MeanBlue;
  uint32_t VarRed, VarGreen, VarBlue, VarTotal;
  // Sums are kept in 64 bits: counts reach 32768 per cell over up to 32768
  // cells, so 32-bit sums of 5-bit channels (and of squared deviations) would
  // wrap on large images.
  uint64_t Pixels, SumRed, SumGreen, SumBlue;
};

inline uint32_t red5(uint32_t cell) { return (cell >> 10) & 31; }
inline uint32_t green5(uint32_t cell) { return (cell >> 5) & 31; }
inline uint32_t blue5(uint32_t cell) { return cell & 31; }

struct Quantiser {
  const uint32_t* counts;
  uint16_t* cells;

  void sum(Box& b) const {
    b.Pixels = b.SumRed = b.SumGreen = b.SumBlue = 0;
    for (uint32_t i = b.Start; i < b.Start + b.Count; ++i) {
      const uint32_t c = cells[i];
      const uint64_t n = counts[c];
      b.Pixels += n;
      b.SumRed += n * red5(c);
      b.SumGreen += n * green5(c);
      b.SumBlue += n * blue5(c);
    }
  }

  // Means from the sums, then variances: sum of count x (channel - mean)^2
  // over the cells, divided by Pixels; all truncating.
  void settle(Box& b) const {
    if (b.Pixels == 0) {
      b.MeanRed = b.MeanGreen = b.MeanBlue = 0;
      b.VarRed = b.VarGreen = b.VarBlue = b.VarTotal = 0;
      return;
    }
    b.MeanRed = static_cast<uint32_t>(b.SumRed / b.Pixels);
    b.MeanGreen = static_cast<uint32_t>(b.SumGreen / b.Pixels);
    b.MeanBlue = static_cast<uint32_t>(b.SumBlue / b.Pixels);
    uint64_t vr = 0, vg = 0, vb = 0;
    for (uint32_t i = b.Start; i < b.Start + b.Count; ++i) {
      const uint32_t c = cells[i];
      const uint64_t n = counts[c];
      const int64_t dr = static_cast<int64_t>(red5(c)) - b.MeanRed;
      const int64_t dg = static_cast<int64_t>(green5(c)) - b.MeanGreen;
      const int64_t db = static_cast<int64_t>(blue5(c)) - b.MeanBlue;
      vr += n * static_cast<uint64_t>(dr * dr);
      vg += n * static_cast<uint64_t>(dg * dg);
      vb += n * static_cast<uint64_t>(db * db);
    }
    b.VarRed = static_cast<uint32_t>(vr / b.Pixels);
    b.VarGreen = static_cast<uint32_t>(vg / b.Pixels);
    b.VarBlue = static_cast<uint32_t>(vb / b.Pixels);
    b.VarTotal = b.VarRed + b.VarGreen + b.VarBlue;
  }

  void single(Box& b) const {
    const uint32_t c = cells[b.Start];
    b.Count = 1;
    b.Pixels = counts[c];
    b.SumRed = b.Pixels * red5(c);
    b.SumGreen = b.Pixels * green5(c);
    b.SumBlue = b.Pixels * blue5(c);
    b.MeanRed = red5(c);
    b.MeanGreen = green5(c);
    b.MeanBlue = blue5(c);
    b.VarRed = b.VarGreen = b.VarBlue = b.VarTotal = 0;
  }

  // In-place partition of the box's cells into channel <= mean (front) and
  // channel > mean (back), scanning from both ends and swapping.  Returns the
  // size of the front part.
  uint32_t partition(const Box& b, int axis, uint32_t mean) const {
    auto ch = [axis](uint32_t c) { return axis == 0 ? red5(c) : axis == 1 ? green5(c) : blue5(c); };
    uint32_t i = b.Start, j = b.Start + b.Count;  // [i, j) unclassified
    while (i < j) {
      if (ch(cells[i]) <= mean) {
        ++i;
      } else if (ch(cells[j - 1]) > mean) {
        --j;
      } else {
        const uint16_t t = cells[i];
        cells[i] = cells[j - 1];
        cells[j - 1] = t;
        ++i;
        --j;
      }
    }
    return i - b.Start;
  }
};

}  // namespace

int32_t add_bitmap(Histogram& h, BitmapHandle* b) {
  const int32_t bits = b->BitsPerPixel;
  if (!valid_bitmap_depth(bits)) return RESULT_BAD_BITS_PER_PIXEL;
  const int32_t order = b->Order;
  // Room for the row and for its 24-bit form when another order is converted.
  const size_t width = b->Width > 0 ? static_cast<size_t>(b->Width) : 0;
  size_t bytes = b->BytesPerLine;
  if (bytes < width * 3) bytes = width * 3;
  Buffer<uint8_t> row(bytes + 8, true);
  if (!row) return RESULT_FAIL;
  RowSource src{b, row.get(), false};

  if (bits == 12 && order != ORDER_GRAY) return RESULT_BAD_PARAMETER;  // 12-bit rows are always gray
  // Indices go through the bitmap's palette; entries it lacks read as black.
  uint16_t cell_of_index[256];
  if (bits <= 8) {
    RGBQUAD pal[256];
    std::memset(pal, 0, sizeof pal);
    const uint32_t n = b->ColorCount < 256 ? b->ColorCount : 256;
    if (n != 0) V_GetBitmapPaletteEntries(b, 0, static_cast<int32_t>(n), pal);
    for (uint32_t i = 0; i < 256; ++i)
      cell_of_index[i] = static_cast<uint16_t>(cell_of(pal[i].rgbRed, pal[i].rgbGreen, pal[i].rgbBlue));
  }
  // Gray samples: their bit range, and the gray lookup table when in force.
  const bool gray = (bits == 12 || bits == 16) && order == ORDER_GRAY;
  const bool lut = gray && b->GrayLut && (b->Flags & BITMAP_GRAY_FLAG);
  SampleRange range{0, 0};
  if (gray) {
    const BitRange r = bit_range(bits, lut ? bits : 8, b->LowBit, b->HighBit);
    const int64_t count = r.count < 1 ? 1 : r.count;
    range = SampleRange{clamp_shift(r.shift_for(count)), low_bits(count)};
  }
  // Colour: BGR only in that order; 24 and 48 bits in another order are
  // converted to 24-bit BGR row by row first.
  int32_t layout_bits = bits;
  Channels channels = gray ? kGray : order == ORDER_BGR ? kBgr : kRgb;
  if ((bits == 24 || bits == 48) && order != ORDER_RGB && order != ORDER_BGR) {
    src.convert_bgr_alt = true;
    layout_bits = 24;
    channels = kBgr;
  }
  return with_layout(layout_bits, channels, [&](auto layout) -> int32_t {
    using F = decltype(layout);
    if constexpr (F::kForm == Form::index) {
      return fill(h, src, PaletteCells<F>{cell_of_index});
    } else if constexpr (F::kForm == Form::sample) {
      return lut ? fill(h, src, GrayCells<F, true>{range, b->GrayLut, b->GrayLutLength})
                 : fill(h, src, GrayCells<F, false>{range, nullptr, 0});
    } else {
      return fill(h, src, ColourCells<F>{});
    }
  });
}

void sort_palette(RGBQUAD* p, uint32_t n, uint32_t* perm) {
  auto greater = [](const RGBQUAD& a, const RGBQUAD& b) {
    if (a.rgbRed != b.rgbRed) return a.rgbRed > b.rgbRed;
    if (a.rgbGreen != b.rgbGreen) return a.rgbGreen > b.rgbGreen;
    return a.rgbBlue > b.rgbBlue;
  };
  for (uint32_t i = 0; i + 1 < n; ++i) {
    for (uint32_t j = i + 1; j < n; ++j) {
      if (greater(p[i], p[j])) {
        const RGBQUAD t = p[i];
        p[i] = p[j];
        p[j] = t;
        if (perm) {
          const uint32_t q = perm[i];
          perm[i] = perm[j];
          perm[j] = q;
        }
      }
    }
  }
}

int32_t quantise(Histogram& h, uint32_t n, bool few_popular, RGBQUAD* palette, uint32_t* produced, uint32_t** table) {
  *produced = 0;
  if (table) *table = nullptr;
  if (h.used == 0 || n == 0) return RESULT_OK;
  // A box never holds fewer than one cell, so there are at most `used` boxes.
  const uint32_t capacity = n < h.used ? n : h.used;
  Buffer<Box> boxes(capacity, true);
  Buffer<uint32_t> perm(capacity);
  if (!boxes || !perm) return RESULT_FAIL;
  const Quantiser q{h.counts, h.cells};

  uint32_t made = 1, current = 0;
  boxes[0].Start = 0;
  boxes[0].Count = h.used;

  // Popularity: while room is left for the splitting pass (63 entries, or 1
  // with few_popular), a cell holding more than twice the next best count of
  // the current box gets an entry of its own.
  if (n >= 64 || (few_popular && n >= 2)) {
    const uint32_t reserve = few_popular ? 1 : 63;
    while (made + reserve <= n) {
      Box& cur = boxes[current];
      if (cur.Count < 2) break;
      uint32_t best = cur.Start, highest = 0, second = 0;
      for (uint32_t i = cur.Start; i < cur.Start + cur.Count; ++i) {
        const uint32_t v = h.counts[h.cells[i]];
        if (v > highest) {
          second = highest;
          highest = v;
          best = i;
        } else if (v > second) {
          second = v;
        }
      }
      if (2ull * second >= highest) break;
      const uint16_t t = h.cells[cur.Start];
      h.cells[cur.Start] = h.cells[best];
      h.cells[best] = t;
      Box& rest = boxes[made];
      rest.Start = cur.Start + 1;
      rest.Count = cur.Count - 1;
      q.single(cur);
      current = made++;
    }
  }
  q.sum(boxes[current]);
  q.settle(boxes[current]);

  // Splitting at the mean of the box with the largest variance.
  while (made < n) {
    uint32_t pick = 0;
    for (uint32_t i = 1; i < made; ++i) {
      const Box& a = boxes[i];
      const Box& b = boxes[pick];
      if (a.VarTotal > b.VarTotal || (a.VarTotal == b.VarTotal && a.Count > b.Count)) pick = i;
    }
    Box& old = boxes[pick];
    if (old.Count < 2) break;
    int axis;
    if (old.VarRed >= old.VarGreen && old.VarRed >= old.VarBlue)
      axis = 0;
    else if (old.VarGreen >= old.VarBlue)
      axis = 1;
    else
      axis = 2;
    const uint32_t means[3] = {old.MeanRed, old.MeanGreen, old.MeanBlue};
    uint32_t low = q.partition(old, axis, means[axis]);
    if (low == 0 || low == old.Count) {
      // Variances truncated to 0 can pick an axis along which every cell of
      // the box agrees; split along the first axis where the cells differ.
      for (axis = 0; axis < 3 && (low == 0 || low == old.Count); ++axis) low = q.partition(old, axis, means[axis]);
      if (low == 0 || low == old.Count) break;
    }
    Box& upper = boxes[made];
    std::memset(&upper, 0, sizeof upper);
    upper.Start = old.Start + low;
    upper.Count = old.Count - low;
    const Box totals = old;
    old.Count = low;
    Box& fresh = upper.Count <= old.Count ? upper : old;
    Box& derived = upper.Count <= old.Count ? old : upper;
    q.sum(fresh);
    derived.Pixels = totals.Pixels - fresh.Pixels;
    derived.SumRed = totals.SumRed - fresh.SumRed;
    derived.SumGreen = totals.SumGreen - fresh.SumGreen;
    derived.SumBlue = totals.SumBlue - fresh.SumBlue;
    q.settle(fresh);
    q.settle(derived);
    ++made;
  }

  for (uint32_t k = 0; k < made; ++k) {
    const Box& b = boxes[k];
    palette[k].rgbRed = static_cast<uint8_t>((b.MeanRed << 3) | (b.MeanRed >> 2));
    palette[k].rgbGreen = static_cast<uint8_t>((b.MeanGreen << 3) | (b.MeanGreen >> 2));
    palette[k].rgbBlue = static_cast<uint8_t>((b.MeanBlue << 3) | (b.MeanBlue >> 2));
    palette[k].rgbReserved = 0;
    perm[k] = k;
  }
  sort_palette(palette, made, perm.get());
  *produced = made;

  if (table) {
    // The counts become the match table: unseen cells are 0 (unresolved),
    // every cell of the box now at position i holds i + 1.
    for (uint32_t i = 0; i < made; ++i) {
      const Box& b = boxes[perm[i]];
      for (uint32_t c = b.Start; c < b.Start + b.Count; ++c) h.counts[h.cells[c]] = i + 1;
    }
    *table = h.release_counts();
  }
  return RESULT_OK;
}

namespace {

struct Args {
  RGBQUAD* palette;
  uint32_t* colors;
  uint32_t** table;
  int32_t* needs_dither;
};

int32_t check_args(const Args& a) {
  if (!a.palette || !a.colors || *a.colors == 0 || !a.needs_dither) return RESULT_BAD_PARAMETER;
  if (a.table) *a.table = nullptr;
  *a.needs_dither = 1;
  return RESULT_OK;
}

// Counts a bitmap's distinct colours into out (capacity entries) with the
// status callback switched off and the clip region detached meanwhile.
int32_t exact_colours(BitmapHandle* b, RGBQUAD* out, uint32_t capacity, uint32_t* found) {
  SuspendStatus quiet;
  const VK_HRGN region = b->Region;
  b->Region = nullptr;
  ScopeExit restore([&] { b->Region = region; });
  *found = capacity;
  return V_GetBitmapColorCountExt(b, found, out);
}

int32_t finish_quantised(Histogram& h, uint32_t n, int32_t few, const Args& a) {
  uint32_t produced = 0;
  VK_TRY(quantise(h, n, few != 0, a.palette, &produced, a.table));
  *a.colors = produced;
  return RESULT_OK;
}

int32_t optimise_bitmap(BitmapHandle* b, int32_t few, const Args& a) {
  const uint32_t n = *a.colors;
  if (b->BitsPerPixel <= 8 && b->ColorCount <= n) {
    // The bitmap's own palette already fits: hand it over as it is.
    std::memset(a.palette, 0, static_cast<size_t>(n) * sizeof(RGBQUAD));
    if (b->ColorCount != 0) V_GetBitmapPaletteEntries(b, 0, static_cast<int32_t>(b->ColorCount), a.palette);
    *a.colors = b->ColorCount;
    *a.needs_dither = 0;
    return RESULT_OK;
  }
  uint32_t found = 0;
  VK_TRY(exact_colours(b, a.palette, n, &found));
  if (found <= n) {
    sort_palette(a.palette, found, nullptr);
    *a.colors = found;
    *a.needs_dither = 0;
    return RESULT_OK;
  }
  Histogram h;
  if (!h.allocate()) return RESULT_FAIL;
  VK_TRY(add_bitmap(h, b));
  return finish_quantised(h, n, few, a);
}

// Lists: the exact colours are the union of every item's colours; when the
// union does not fit, one histogram is filled from every item in list order.
int32_t optimise_list(BitmapList list, int32_t few, const Args& a) {
  uint32_t items = 0;
  VK_TRY(V_GetBitmapListCount(list, &items));
  if (items == 0) return RESULT_NO_BITMAP;
  const uint32_t n = *a.colors;
  for (uint32_t i = 0; i < items; ++i) {
    BitmapHandle b;
    VK_TRY(V_GetBitmapListItem(list, i, &b));
    VK_TRY(check_bitmap(&b));
  }

  Buffer<RGBQUAD> mine(n);
  if (!mine) return RESULT_FAIL;
  uint32_t total = 0;
  bool fits = true;
  for (uint32_t i = 0; i < items && fits; ++i) {
    BitmapHandle b;
    VK_TRY(V_GetBitmapListItem(list, i, &b));
    uint32_t found = 0;
    VK_TRY(exact_colours(&b, mine.get(), n, &found));
    if (found > n) {
      fits = false;
      break;
    }
    for (uint32_t k = 0; k < found && fits; ++k) {
      const RGBQUAD c = mine[k];
      bool seen = false;
      for (uint32_t j = 0; j < total && !seen; ++j)
        seen = a.palette[j].rgbRed == c.rgbRed && a.palette[j].rgbGreen == c.rgbGreen && a.palette[j].rgbBlue == c.rgbBlue;
      if (seen) continue;
      if (total == n)
        fits = false;
      else
        a.palette[total++] = c;
    }
  }
  if (fits) {
    sort_palette(a.palette, total, nullptr);
    *a.colors = total;
    *a.needs_dither = 0;
    return RESULT_OK;
  }

  Histogram h;
  if (!h.allocate()) return RESULT_FAIL;
  for (uint32_t i = 0; i < items; ++i) {
    BitmapHandle b;
    VK_TRY(V_GetBitmapListItem(list, i, &b));
    VK_TRY(add_bitmap(h, &b));
  }
  return finish_quantised(h, n, few, a);
}

}  // namespace
}  // namespace vk::opt

extern "C" {

VK_API int32_t VK_CALL V_CreateOptimizedPalette(BitmapHandle* bitmap, RGBQUAD* palette, uint32_t* colors,
                                                uint32_t** table, int32_t* needsDither, int32_t fewPopular) {
  return vk::api_call([&]() -> int32_t {
    VK_TRY(vk::check_bitmap(bitmap));
    const vk::opt::Args a{palette, colors, table, needsDither};
    VK_TRY(vk::opt::check_args(a));
    return vk::opt::optimise_bitmap(bitmap, fewPopular, a);
  });
}

VK_API int32_t VK_CALL V_CreateBitmapListOptPal(BitmapList list, RGBQUAD* palette, uint32_t* colors,
                                                uint32_t** table, int32_t* needsDither, int32_t fewPopular) {
  return vk::api_call([&]() -> int32_t {
    const vk::opt::Args a{palette, colors, table, needsDither};
    VK_TRY(vk::opt::check_args(a));
    return vk::opt::optimise_list(list, fewPopular, a);
  });
}

}  // extern "C"
