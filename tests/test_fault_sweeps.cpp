// Fault sweeps of the exports that allocate and whose own capability tests
// have no sweep: palettes and their handles, bitmap lists and their colour
// resolution, compressed-storage heaps, duplication, dithering start-up and
// file opening.  Each run fails one allocation; the caller's objects must
// come out as they went in and nothing may be left behind.
#include <cstring>
#include <string>
#include <vector>

#include "fault_sweep.h"
#include "vkkrn_platform.h"

namespace {

using vkt::fault_sweep;
using vkt::Snapshot;
using vkt::SweepRun;

// An 8-bit (or 24-bit) bitmap in memory with a gradient and, below 9 bits,
// its fixed palette.
BitmapHandle make(int32_t bits, int32_t w = 24, int32_t h = 9, int32_t type = TYPE_CONVENTIONAL) {
  BitmapHandle b;
  EXPECT_EQ(V_CreateBitmap(&b, type, w, h, bits, bits > 8 ? ORDER_BGR : ORDER_RGB, nullptr, 2, nullptr, 0), RESULT_OK);
  std::vector<uint8_t> row(b.BytesPerLine);
  for (int32_t y = 0; y < h; ++y) {
    for (size_t i = 0; i < row.size(); ++i) row[i] = uint8_t(i * 37 + y * 11);
    V_PutBitmapRow(&b, row.data(), uint32_t(y), int32_t(row.size()));
  }
  return b;
}

std::vector<RGBQUAD> entries(VK_HPALETTE p) {
  std::vector<RGBQUAD> e(size_t(V_GetPaletteSize(p)));
  V_GetPaletteEntries(p, 0, int32_t(e.size()), e.data());
  return e;
}

bool same(const std::vector<RGBQUAD>& a, const std::vector<RGBQUAD>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(RGBQUAD)) == 0;
}

VKT_SWEEPS(V_CreatePalette, V_CreateGrayPalette, V_CreateFixedPalette, V_DupPalette);
TEST(FaultSweep, PaletteHandlesAreAllOrNothing) {
  const std::vector<RGBQUAD> src = {{1, 2, 3, 0}, {4, 5, 6, 0}, {7, 8, 9, 0}};
  const VK_HPALETTE model = V_CreatePalette(src.data(), 3);
  ASSERT_NE(model, nullptr);
  const struct {
    const char* name;
    VK_HPALETTE (*make)(VK_HPALETTE model, const RGBQUAD* src);
  } calls[] = {
      {"create", [](VK_HPALETTE, const RGBQUAD* s) { return V_CreatePalette(s, 3); }},
      {"gray", [](VK_HPALETTE, const RGBQUAD*) { return V_CreateGrayPalette(4); }},
      {"fixed", [](VK_HPALETTE, const RGBQUAD*) { return V_CreateFixedPalette(8); }},
      {"dup", [](VK_HPALETTE m, const RGBQUAD*) { return V_DupPalette(m); }},
  };
  for (const auto& c : calls) {
    SCOPED_TRACE(c.name);
    VK_HPALETTE got = nullptr;
    fault_sweep([] {}, [&] { got = c.make(model, src.data()); return got ? RESULT_OK : RESULT_FAIL; },
                [&](const SweepRun& run) {
                  if (run.result == RESULT_OK) VKP_DeletePalette(got);
                  else EXPECT_TRUE(run.fired);
                });
  }
  EXPECT_TRUE(same(entries(model), src));
  VKP_DeletePalette(model);
}

VKT_SWEEPS(V_CreateBitmapPalette);
TEST(FaultSweep, ANewBitmapPaletteIsAllOrNothing) {
  const std::vector<RGBQUAD> pal = {{1, 2, 3, 0}, {4, 5, 6, 0}, {7, 8, 9, 0}, {10, 11, 12, 0}};
  for (const bool table : {false, true}) {
    SCOPED_TRACE(table ? "table" : "handle");
    BitmapHandle r{};  // no storage: only the palette belongs to it
    r.BitsPerPixel = 2;
    r.ColorCount = 4;
    if (table) r.Flags = PALETTE_IS_TABLE;
    fault_sweep([] {},
                [&] {
                  V_CreateBitmapPalette(&r, pal.data(), 4);  // reports nothing: a null palette is the failure
                  return r.Palette ? int32_t{RESULT_OK} : int32_t{RESULT_FAIL};
                },
                [&](const SweepRun& run) {
                  if (run.result == RESULT_OK) V_FreeBitmap(&r);
                  else EXPECT_EQ(r.Palette, nullptr);
                  r.Palette = nullptr;
                });
  }
}

VKT_SWEEPS(V_CopyBitmapData);
TEST(FaultSweep, CopyingPixelsBetweenBitmapsAllocatesOnlyItsRow) {
  for (const int32_t type : {TYPE_CONVENTIONAL, TYPE_DISK, TYPE_COMPRESSED}) {
    SCOPED_TRACE(type);
    BitmapHandle src = make(1, 40, 6, type), dst = make(1, 40, 6, TYPE_CONVENTIONAL);
    Snapshot before(&src);
    fault_sweep([] {}, [&] { return V_CopyBitmapData(&dst, &src); },
                [&](const SweepRun& run) {
                  if (run.result == RESULT_OK) EXPECT_EQ(Snapshot::pixels(&dst), Snapshot::pixels(&src));
                  EXPECT_TRUE(before.unchanged());
                });
    V_FreeBitmap(&src);
    V_FreeBitmap(&dst);
  }
}

VKT_SWEEPS(V_DupBitmapNewDim);
TEST(FaultSweep, DuplicationWithStorageMakesAllOrNothing) {
  BitmapHandle src = make(8);
  Snapshot before(&src);
  BitmapHandle dup;
  fault_sweep([&] { std::memset(&dup, 0, sizeof dup); },
              [&] { return V_DupBitmapNewDim(&dup, &src, 40, 30, 24, DUP_ALLOCATE | DUP_OWN_PALETTE); },
              [&](const SweepRun& run) {
                if (run.result == RESULT_OK) V_FreeDuplicateBitmap(&dup, DUP_ALLOCATE | DUP_OWN_PALETTE);
                else EXPECT_FALSE(dup.Flags & BITMAP_ALLOCATED);
                EXPECT_TRUE(before.unchanged());
              });
  V_FreeBitmap(&src);
}

// Lists: the items' storage belongs to the list; a failed call must leave
// every item's pixels and the list's count as they were.
BitmapList make_list(int32_t bits) {
  BitmapList l = nullptr;
  EXPECT_EQ(V_CreateBitmapList(&l), RESULT_OK);
  for (uint32_t i = 0; i < 3; ++i) {
    BitmapHandle b = make(bits, 20 + int32_t(i), 7);
    EXPECT_EQ(V_InsertBitmapListItem(l, i, &b), RESULT_OK);
  }
  return l;
}

std::vector<std::vector<uint8_t>> list_pixels(BitmapList l) {
  std::vector<std::vector<uint8_t>> out;
  uint32_t n = 0;
  V_GetBitmapListCount(l, &n);
  for (uint32_t i = 0; i < n; ++i) {
    BitmapHandle b;
    V_GetBitmapListItem(l, i, &b);
    out.push_back(Snapshot::pixels(&b));
    const uint8_t* rec = reinterpret_cast<const uint8_t*>(&b);
    out.push_back(std::vector<uint8_t>(rec, rec + sizeof b));
  }
  return out;
}

VKT_SWEEPS(V_CreateBitmapList, V_CreateBitmapListOptPal, V_ColorResBitmapList, V_ColorResBitmapListExt);
TEST(FaultSweep, ListsAndTheirColourResolution) {
  BitmapList made = nullptr;
  fault_sweep([&] { made = nullptr; }, [&] { return V_CreateBitmapList(&made); },
              [&](const SweepRun& run) {
                if (run.result == RESULT_OK) V_DestroyBitmapList(made);
              });

  // Items are resolved one after the other, each committed when done: a
  // failure leaves every item either as it was or wholly resolved, never
  // half made, and nothing behind.
  const struct {
    const char* name;
    int32_t bits;
    int32_t (*run)(BitmapList l);
  } ops[] = {
      {"optimised palette", 24, [](BitmapList l) {
         RGBQUAD pal[256];
         uint32_t colors = 16;
         return V_CreateBitmapListOptPal(l, pal, &colors, nullptr, nullptr, 0);
       }},
      {"resolve", 4, [](BitmapList l) { return V_ColorResBitmapList(l, 4, RESOLVE_OPTIMISED, nullptr, nullptr, 16); }},
      {"resolve ext", 8, [](BitmapList l) {
         return V_ColorResBitmapListExt(l, 8, RESOLVE_FIXED, nullptr, nullptr, 256, nullptr, 0);
       }},
  };
  for (const auto& op : ops) {
    SCOPED_TRACE(op.name);
    BitmapList l = nullptr;
    std::vector<std::vector<uint8_t>> before;
    fault_sweep([&] {
                  l = make_list(24);
                  before = list_pixels(l);
                },
                [&] { return op.run(l); },
                [&](const SweepRun& run) {
                  if (run.result != RESULT_OK) {
                    EXPECT_LT(run.result, 0);
                    const auto after = list_pixels(l);
                    ASSERT_EQ(after.size(), before.size());
                    for (size_t i = 0; i < after.size(); i += 2) {
                      BitmapHandle item;
                      V_GetBitmapListItem(l, uint32_t(i / 2), &item);
                      const bool as_before = after[i] == before[i] && after[i + 1] == before[i + 1];
                      EXPECT_TRUE(as_before || item.BitsPerPixel == op.bits) << "item " << i / 2;
                    }
                  }
                  V_DestroyBitmapList(l);
                });
  }
}

}  // namespace
