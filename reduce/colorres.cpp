// colorres.cpp - colour resolution: a whole bitmap (or every bitmap of a
// list) to another depth, with a fixed, caller's, optimised or colour-cube
// palette, dithered or converted row by row.
//
// All or nothing: the work is done on a copy of the source record into a
// temporary destination record; the caller's records change only once every
// row is written.  A cancelled or failed run frees everything it made and
// puts back the contents of any user match table the dithering engine wrote.
#include <cstring>

#include "best_palette.h"
#include "core.h"
#include "lookup.h"
#include "op.h"
#include "optimize.h"
#include "palette_tables.h"
#include "platform.h"

namespace vk::cres {
namespace {

constexpr uint8_t kFreeMark = 2;  // reserved byte of an entry the optimiser may fill

inline bool is_free(const RGBQUAD& q) { return (q.rgbReserved & 3) == kFreeMark; }

// ---- the flags ---------------------------------------------------------------------

// The low ten bits choose the palette of a destination of up to 8 bits; the
// order bits of deeper destinations (BGR, gray) take no part in the choice.
constexpr uint32_t kPaletteBits = 1023u;
constexpr uint32_t kSelectionBits = kPaletteBits & ~(RESOLVE_BGR | RESOLVE_GRAY);
// The value 2 means nothing of its own; the optimised palette accepts it.
constexpr uint32_t kInertBit = 2u;
constexpr uint32_t kOptimisedModifiers = kInertBit | RESOLVE_KEEP_SYSTEM_COLOURS | RESOLVE_NO_OPTIMISER_TABLE;
// Selection 256 is taken as the caller's palette too.
constexpr uint32_t kUserPaletteAlt = 256u;
constexpr uint32_t kUserPaletteAndTable = RESOLVE_USER_PALETTE | RESOLVE_USER_TABLE;

inline uint32_t selection(uint32_t flags) { return flags & kSelectionBits; }

enum class Selection { optimised, fixed, cube, user, user_table, bad };

// The palette selection for destinations of up to 8 bits.
Selection classify(uint32_t flags, int32_t bits) {
  const uint32_t sel = selection(flags);
  if ((sel & ~kOptimisedModifiers) == RESOLVE_OPTIMISED) return Selection::optimised;
  switch (sel) {
    case RESOLVE_FIXED:
      return Selection::fixed;
    case RESOLVE_FIXED | RESOLVE_CUBE:
      return bits == 8 ? Selection::cube : Selection::fixed;
    case RESOLVE_USER_PALETTE:
    case kUserPaletteAlt:
      return Selection::user;
    case kUserPaletteAndTable:
      return Selection::user_table;
    case RESOLVE_CUBE:
      return bits == 8 ? Selection::cube : Selection::bad;
    default:
      return Selection::bad;
  }
}

// Colour order of a destination above 8 bits; -1 for a bad combination.
int32_t deep_order(uint32_t flags) {
  switch (flags & (RESOLVE_BGR | RESOLVE_GRAY | RESOLVE_ORDER5)) {
    case 0: return ORDER_RGB;
    case RESOLVE_BGR: return ORDER_BGR;
    case RESOLVE_GRAY: case RESOLVE_GRAY | RESOLVE_BGR: return ORDER_GRAY;
    case RESOLVE_ORDER5: return ORDER_BGR_ALT;
    default: return -1;
  }
}

// Up to n entries of the caller's palette (array or platform handle); the
// number actually had.
uint32_t caller_entries(const RGBQUAD* palette, VK_HPALETTE handle, uint32_t n, RGBQUAD* out) {
  if (n > 256) n = 256;
  if (palette) {
    std::memcpy(out, palette, n * sizeof(RGBQUAD));
    return n;
  }
  if (handle) {
    const int32_t got = V_GetPaletteEntries(handle, 0, static_cast<int32_t>(n), out);
    return got > 0 ? static_cast<uint32_t>(got) : 0;
  }
  return 0;
}

// The layout of an optimised palette before the optimiser runs: entries the
// optimiser fills are marked free, the others (system colours, the caller's
// fixed entries) stay as given.
struct Layout {
  RGBQUAD pal[256];
  uint32_t count = 0;  // entries of the palette
  uint32_t free_count = 0, first_free = 0, last_free = 0;
  bool contiguous = true;
};

void lay_out(Layout& l, uint32_t n, uint32_t flags, const RGBQUAD* palette, VK_HPALETTE handle) {
  l.count = n;
  for (uint32_t i = 0; i < 256; ++i) l.pal[i] = RGBQUAD{0, 0, 0, kFreeMark};
  if (flags & RESOLVE_KEEP_SYSTEM_COLOURS) {
    const plat::ScreenInfo screen = plat::screen_info();
    if (screen.palette_device) {
      uint32_t size = screen.palette_size < 256 ? screen.palette_size : 256;
      uint32_t reserved = screen.reserved_colours < size ? screen.reserved_colours : size;
      if (reserved > n) reserved = n;
      // The first half of the reserved colours at the start, the rest at the end.
      const uint32_t head = reserved / 2, tail = reserved - head;
      for (uint32_t i = 0; i < head; ++i) l.pal[i] = screen.system_palette[i];
      for (uint32_t i = 0; i < tail; ++i) l.pal[n - tail + i] = screen.system_palette[size - tail + i];
    }
  }
  if (palette || handle) {
    RGBQUAD given[256];
    const uint32_t had = caller_entries(palette, handle, n, given);
    for (uint32_t i = 0; i < had; ++i)
      if (!is_free(given[i])) l.pal[i] = given[i];
  }
  l.free_count = 0;
  bool run_ended = false;
  l.contiguous = true;
  for (uint32_t i = 0; i < n; ++i) {
    if (is_free(l.pal[i])) {
      if (l.free_count == 0) l.first_free = i;
      if (run_ended) l.contiguous = false;
      l.last_free = i;
      ++l.free_count;
    } else if (l.free_count != 0) {
      run_ended = true;
    }
  }
}

// The free entries take the optimiser's colours in order; free entries left
// over stay marked, so matching never chooses them.
void fill_free(Layout& l, const RGBQUAD* colours, uint32_t produced) {
  uint32_t k = 0;
  for (uint32_t i = 0; i < l.count && k < produced; ++i)
    if (is_free(l.pal[i])) l.pal[i] = colours[k++];
}

// Rewrites the optimiser's table (cell -> optimiser position + 1) into cell ->
// position among the matchable entries + 1, the form the dithering engine
// reads.  The optimiser's colours sit at first_free.. in the palette; every
// entry before them must be matchable (reserved bits clear), otherwise the
// table cannot be used and false is returned.
bool adopt_table(const Layout& l, uint32_t* table) {
  for (uint32_t i = 0; i < l.first_free; ++i)
    if (l.pal[i].rgbReserved & 3) return false;
  if (l.first_free != 0)
    for (uint32_t c = 0; c < kColorCells; ++c)
      if (table[c]) table[c] += l.first_free;
  return true;
}

// The colours for the free entries of a layout, from the optimiser (with its
// cell table when asked for) or, with RESOLVE_BEST_PALETTE, from the best
// palette method, which takes the matchable fixed entries into account and
// gives no table.  Exactly one of bitmap and list is given.
int32_t choose_colours(const Layout& l, uint32_t flags, BitmapHandle* bitmap, BitmapList list, RGBQUAD* colours,
                       uint32_t* produced, int32_t* needs, uint32_t** table) {
  SuspendStatus quiet;
  *produced = l.free_count;
  if (flags & RESOLVE_BEST_PALETTE) {
    if (table) *table = nullptr;
    RGBQUAD fixed[256];
    uint32_t kept = 0;
    for (uint32_t i = 0; i < l.count; ++i)
      if (!is_free(l.pal[i])) fixed[kept++] = l.pal[i];
    return bitmap ? V_CreateBestPalette(bitmap, fixed, kept, colours, produced, needs)
                  : V_CreateBitmapListBestPal(list, fixed, kept, colours, produced, needs);
  }
  const int32_t few = (flags & RESOLVE_FEW_POPULAR) ? 1 : 0;
  return bitmap ? V_CreateOptimizedPalette(bitmap, colours, produced, table, needs, few)
                : V_CreateBitmapListOptPal(list, colours, produced, table, needs, few);
}

// Decisions for a destination of up to 8 bits.
struct Plan {
  RGBQUAD pal[256];
  uint32_t count = 0;
  bool dither = true;
  uint32_t* table = nullptr;  // match table handed to the dithering engine
  uint32_t* own = nullptr;    // the optimiser's table, when it is that one
  Plan() = default;
  Plan(const Plan&) = delete;
  Plan& operator=(const Plan&) = delete;
  ~Plan() { V_Free(own); }
};

// A snapshot of a user match table; restores the cells on failure.
class TableGuard {
 public:
  int32_t take(uint32_t* table) {
    if (!table) return RESULT_OK;
    if (!copy_.allocate(kColorCells)) return RESULT_FAIL;
    std::memcpy(copy_.get(), table, kColorCells * sizeof(uint32_t));
    table_ = table;
    return RESULT_OK;
  }
  void commit() { table_ = nullptr; }
  ~TableGuard() {
    if (table_) std::memcpy(table_, copy_.get(), kColorCells * sizeof(uint32_t));
  }

 private:
  uint32_t* table_ = nullptr;
  Buffer<uint32_t> copy_;
};

int32_t plan_optimised(Plan& p, BitmapHandle* src, int32_t bits, uint32_t flags, const RGBQUAD* palette,
                       VK_HPALETTE handle, uint32_t n) {
  Layout l;
  lay_out(l, n, flags, palette, handle);
  p.dither = bits < src->BitsPerPixel || src->ColorCount >= l.free_count || !l.contiguous;
  if (l.free_count != 0) {
    RGBQUAD colours[256];
    uint32_t produced = 0;
    int32_t needs = 1;
    uint32_t* table = nullptr;
    const bool want_table = l.contiguous && !(flags & RESOLVE_NO_OPTIMISER_TABLE);
    VK_TRY(choose_colours(l, flags, src, nullptr, colours, &produced, &needs, want_table ? &table : nullptr));
    if (table && !adopt_table(l, table)) {
      V_Free(table);
      table = nullptr;
    }
    p.table = p.own = table;
    fill_free(l, colours, produced);
    if (needs == 0 && produced < l.free_count) {
      // The colours are exact and some free entries are unused: drop them
      // when they are the tail of the palette; with one free run the rows
      // only need converting.
      if (l.contiguous && l.last_free == n - 1) l.count = n - (l.free_count - produced);
      if (l.contiguous) p.dither = false;
    }
  }
  std::memcpy(p.pal, l.pal, sizeof p.pal);
  p.count = l.count;
  return RESULT_OK;
}

struct RowJob {
  BitmapHandle* src;  // working copy of the source record
  BitmapHandle* dst;  // the destination being built
  bool store;         // write rows into dst (it has storage)
  int32_t bits;
  uint32_t flags;
  Plan* plan;
  ColorResRowCallback callback;
  intptr_t user_data;
};

// Streams every row: read, dither or convert, hand to the callback, store.
// Everything it starts (dithering, locks, buffers, table snapshot) is undone
// on every way out.
int32_t run_rows(RowJob& j) {
  BitmapHandle& src = *j.src;
  BitmapHandle& dst = *j.dst;
  Plan& plan = *j.plan;
  const int32_t bits = j.bits;

  // Row buffers: the conversion works in place, so its buffer holds the larger row.
  size_t bytes = V_CalcConvertSize(src.Width, src.BitsPerPixel, src.Width, bits);
  if (bytes < src.BytesPerLine) bytes = src.BytesPerLine;
  if (bytes < dst.BytesPerLine) bytes = dst.BytesPerLine;
  Buffer<uint8_t> input(static_cast<size_t>(src.BytesPerLine) + 16, true);
  Buffer<uint8_t> output(bytes + 16, true);
  if (!input || !output) return RESULT_FAIL;

  // The dithering engine writes resolved cells into a user match table; keep
  // a copy so a failed run leaves the caller's table as it was.
  TableGuard table_guard;
  if (plan.dither && plan.table && plan.table != plan.own) VK_TRY(table_guard.take(plan.table));

  bool dithering = false;
  ScopeExit stop([&] {
    if (dithering) V_StopDithering(&src);
  });
  if (plan.dither) {
    VK_TRY(V_StartDitheringExt(&src, plan.pal, static_cast<int32_t>(plan.count), bits, plan.table));
    dithering = true;
  }

  BitmapLock src_lock(&src);
  BitmapLock dst_lock(j.store ? &dst : nullptr);

  best::RowColours convert_from;
  uint32_t convert_flags = 0;
  if (!plan.dither) {
    best::row_colours(src, convert_from);
    convert_flags = convert_from.flags;
    if (j.flags & RESOLVE_GRAY) convert_flags |= CONVERT_DST_GRAY;
  }
  V_CopyPlaybackParms(&dst, &src);

  // The last percentage is not reported again after the rows.
  VK_TRY(op::for_each_row(op::Rows{src.Height, false, false}, [&](int32_t y) {
    const uint32_t row = static_cast<uint32_t>(y);
    if (plan.dither) {
      const int32_t got = V_GetBitmapRow(&src, input.get(), row, static_cast<int32_t>(src.BytesPerLine));
      if (got < 0) return got;
      VK_TRY(V_DitherLine(&src, input.get(), output.get()));
    } else {
      const int32_t got = V_GetBitmapRow(&src, output.get(), row, static_cast<int32_t>(src.BytesPerLine));
      if (got < 0) return got;
      if (src.Width > 0)
        VK_TRY(V_ConvertBufferExt(output.get(), src.Width, src.BitsPerPixel, bits, src.Order, dst.Order,
                                  convert_from.palette, bits <= 8 ? plan.pal : nullptr, convert_flags, src.LowBit,
                                  src.HighBit));
    }
    if (j.callback) VK_TRY(j.callback(&dst, output.get(), 1, j.user_data));
    if (!j.store) return int32_t{RESULT_OK};
    const int32_t put = V_PutBitmapRow(&dst, output.get(), row, static_cast<int32_t>(dst.BytesPerLine));
    return put < 0 ? put : int32_t{RESULT_OK};
  }));
  table_guard.commit();
  return RESULT_OK;
}

int32_t resolve(BitmapHandle* source, BitmapHandle* destination, int32_t bits, uint32_t flags,
                const RGBQUAD* palette, VK_HPALETTE handle, int32_t colors, ColorResRowCallback callback,
                intptr_t user_data) {
  if (!allocated(source) || !sound_geometry(*source)) return RESULT_BAD_PARAMETER;
  if (palette && handle) return RESULT_BAD_PARAMETER;
  if (!valid_bitmap_depth(bits)) return RESULT_BAD_PARAMETER;
  if (colors < 0) return RESULT_BAD_PARAMETER;
  uint32_t n = static_cast<uint32_t>(colors);
  Selection sel = Selection::bad;
  int32_t order = ORDER_RGB;
  if (bits <= 8) {
    const uint32_t most = 1u << bits;
    if (n == 0 || n > most) n = most;
    sel = classify(flags, bits);
    if (sel == Selection::bad) return RESULT_BAD_PARAMETER;
    if ((sel == Selection::user || sel == Selection::user_table) && !palette && !handle) return RESULT_BAD_PARAMETER;
  } else {
    order = deep_order(flags);
    if (order < 0) return RESULT_BAD_PARAMETER;
    if (selection(flags) == RESOLVE_CUBE) return RESULT_BAD_PARAMETER;
  }

  // Work on a copy of the caller's record; it is written back only on success.
  BitmapHandle src;
  std::memcpy(&src, source, sizeof src);

  op::Scratch dst;
  VK_TRY(V_InitBitmap(dst.get(), src.Width, src.Height, bits));
  dst->ViewPerspective = src.ViewPerspective;
  dst->XResolution = src.XResolution;
  dst->YResolution = src.YResolution;

  Plan plan;
  if (bits > 8) {
    plan.dither = false;
    dst->Order = order;
    if (order == ORDER_GRAY) VK_TRY(V_InitGrayParams(dst.get()));
  } else {
    switch (sel) {
      case Selection::fixed:
        plan.count = 1u << bits;
        VK_TRY(V_GetFixedPalette(plan.pal, bits));
        break;
      case Selection::cube:
        plan.count = 256;
        std::memcpy(plan.pal, color_cube(), 256 * sizeof(RGBQUAD));
        break;
      case Selection::user:
      case Selection::user_table:
        plan.count = caller_entries(palette, handle, n, plan.pal);
        if (plan.count == 0) return RESULT_BAD_PARAMETER;
        if (sel == Selection::user_table) plan.table = current_user_match_table();
        break;
      default:
        VK_TRY(plan_optimised(plan, &src, bits, flags, palette, handle, n));
        break;
    }
    if (sel != Selection::optimised) plan.dither = true;
    dst->Palette = V_CreatePalette(plan.pal, static_cast<int32_t>(plan.count));
    if (!dst->Palette) return RESULT_FAIL;
    dst->Flags &= ~PALETTE_IS_TABLE;
    dst->ColorCount = plan.count;
  }

  if (destination) {
    int32_t type = TYPE_CONVENTIONAL;
    if (V_GetDefaultMemoryType(&type) != RESULT_OK) type = TYPE_CONVENTIONAL;
    VK_TRY(V_AllocateBitmap(dst.get(), type));
  }

  RowJob job{&src, dst.get(), destination != nullptr, bits, flags, &plan, callback, user_data};
  VK_TRY(run_rows(job));

  // Commit; without a destination the temporary bitmap goes with `dst`.  In
  // place, the old storage is released through the working copy.
  if (destination) op::hand_over(dst, destination, destination == source ? &src : nullptr);
  return RESULT_OK;
}

// ---- lists -------------------------------------------------------------------------

struct ListAdapter {
  ColorResListRowCallback callback;
  intptr_t user_data;
  uint32_t item;
  int32_t row;
};

int32_t VK_CALL list_row(BitmapHandle* destination, uint8_t* row, int32_t lines, intptr_t user_data) {
  auto* a = reinterpret_cast<ListAdapter*>(user_data);
  const int32_t r = a->callback(destination, row, a->item, a->row, lines, a->user_data);
  a->row += lines;
  return r;
}

// Installs a table as the thread's user match table for the guard's life,
// then reinstates the previous one and frees the installed table.
class InstalledTable {
 public:
  explicit InstalledTable(uint32_t* table) : table_(table) {
    if (table_) saved_ = V_SetUserMatchTable(table_);
  }
  ~InstalledTable() {
    if (!table_) return;
    V_SetUserMatchTable(saved_);
    V_Free(table_);
  }
  InstalledTable(const InstalledTable&) = delete;
  InstalledTable& operator=(const InstalledTable&) = delete;

 private:
  uint32_t* table_;
  uint32_t* saved_ = nullptr;
};

int32_t resolve_list(BitmapList list, int32_t bits, uint32_t flags, RGBQUAD* palette, VK_HPALETTE handle,
                     int32_t colors, ColorResListRowCallback callback, intptr_t user_data) {
  if (palette && handle) return RESULT_BAD_PARAMETER;
  uint32_t items = 0;
  VK_TRY(V_GetBitmapListCount(list, &items));
  if (!valid_bitmap_depth(bits) || colors < 0) return RESULT_BAD_PARAMETER;
  uint32_t n = static_cast<uint32_t>(colors);
  if (bits <= 8) {
    const uint32_t most = 1u << bits;
    if (n == 0 || n > most) n = most;
    flags &= ~RESOLVE_GRAY;
  }

  RGBQUAD common[256];
  const RGBQUAD* item_palette = palette;
  VK_HPALETTE item_handle = handle;
  uint32_t* shared = nullptr;
  int32_t item_colors = colors;
  const Selection sel = bits <= 8 ? classify(flags, bits) : Selection::bad;

  if (sel == Selection::optimised && !(flags & RESOLVE_NO_OPTIMISER_TABLE)) {
    // One palette for the whole list (with RESOLVE_NO_OPTIMISER_TABLE every
    // item gets its own optimised palette).
    Layout l;
    lay_out(l, n, flags, palette, handle);
    uint32_t* table = nullptr;
    if (l.free_count != 0) {
      RGBQUAD colours[256];
      uint32_t produced = 0;
      int32_t needs = 1;
      VK_TRY(choose_colours(l, flags, nullptr, list, colours, &produced, &needs, l.contiguous ? &table : nullptr));
      // Filling the free entries from the last one backwards with the
      // optimiser's colours taken from its last one backwards gives this same
      // layout whenever every free entry is filled.  When exact colours leave
      // some free entries over, filling from the front keeps the unused ones
      // at the tail, which is what the reduced colour count drops.
      fill_free(l, colours, produced);
      if (needs == 0 && produced < l.free_count && l.contiguous && l.last_free == n - 1)
        l.count = n - (l.free_count - produced);
      if (table && !adopt_table(l, table)) {
        V_Free(table);
        table = nullptr;
      }
    }
    if (!table) {
      table = static_cast<uint32_t*>(V_Calloc(kColorCells, sizeof(uint32_t)));
      if (!table) return RESULT_FAIL;
    }
    shared = table;
    if (palette) {
      // The caller's free entries receive the chosen colours as well.
      for (uint32_t i = 0; i < n && i < l.count; ++i)
        if (is_free(palette[i])) palette[i] = l.pal[i];
    }
    std::memcpy(common, l.pal, sizeof common);
    item_palette = common;
    item_handle = nullptr;
    item_colors = static_cast<int32_t>(l.count);
    flags = (flags & ~kPaletteBits) | kUserPaletteAndTable;
  } else if (sel == Selection::user) {
    shared = static_cast<uint32_t*>(V_Calloc(kColorCells, sizeof(uint32_t)));
    if (!shared) return RESULT_FAIL;
    flags = (flags & ~kUserPaletteAlt) | kUserPaletteAndTable;
  }

  // The shared table serves every item; the thread's own table comes back at the end.
  InstalledTable installed(shared);

  for (uint32_t i = 0; i < items; ++i) {
    BitmapHandle item;
    VK_TRY(V_GetBitmapListItem(list, i, &item));
    ListAdapter adapter{callback, user_data, i, 0};
    VK_TRY(resolve(&item, &item, bits, flags, item_palette, item_handle, item_colors, callback ? list_row : nullptr,
                   reinterpret_cast<intptr_t>(&adapter)));
    VK_TRY(V_SetBitmapListItem(list, i, &item));
  }
  return RESULT_OK;
}

}  // namespace
}  // namespace vk::cres

extern "C" {

VK_API int32_t VK_CALL V_ColorResBitmap(BitmapHandle* source, BitmapHandle* destination, int32_t bitsPerPixel,
                                        uint32_t flags, const RGBQUAD* palette, VK_HPALETTE paletteHandle,
                                        int32_t colors, ColorResRowCallback rowCallback, intptr_t userData) {
  return vk::api_call([&]() -> int32_t {
    return vk::cres::resolve(source, destination, bitsPerPixel, flags, palette, paletteHandle, colors, rowCallback,
                             userData);
  });
}

VK_API int32_t VK_CALL V_ColorResBitmapListExt(BitmapList list, int32_t bitsPerPixel, uint32_t flags,
                                               RGBQUAD* palette, VK_HPALETTE paletteHandle, int32_t colors,
                                               ColorResListRowCallback rowCallback, intptr_t userData) {
  return vk::api_call([&]() -> int32_t {
    return vk::cres::resolve_list(list, bitsPerPixel, flags, palette, paletteHandle, colors, rowCallback, userData);
  });
}

VK_API int32_t VK_CALL V_ColorResBitmapList(BitmapList list, int32_t bitsPerPixel, uint32_t flags,
                                            RGBQUAD* palette, VK_HPALETTE paletteHandle, int32_t colors) {
  return vk::api_call([&]() -> int32_t {
    return vk::cres::resolve_list(list, bitsPerPixel, flags, palette, paletteHandle, colors, nullptr, 0);
  });
}

}  // extern "C"
