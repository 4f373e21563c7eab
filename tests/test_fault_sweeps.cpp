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

VKT_SWEEPS(V_DupBitmapPalette, V_CopyBitmapPalette, V_SetBitmapPalette, V_CreateBitmapFixedPalette);
TEST(FaultSweep, BitmapPalettesKeepTheOldPaletteOnFailure) {
  for (const bool table : {false, true}) {
    SCOPED_TRACE(table ? "table" : "handle");
    BitmapHandle b = make(8), other = make(4);
    if (table) ASSERT_EQ(V_SetPaletteType(&b, 1), RESULT_OK);
    const std::vector<RGBQUAD> pal = {{9, 9, 9, 0}, {200, 100, 50, 0}};
    const struct {
      const char* name;
      int32_t (*run)(BitmapHandle* b, BitmapHandle* other, const std::vector<RGBQUAD>& pal);
    } ops[] = {
        {"dup", [](BitmapHandle* x, BitmapHandle*, const std::vector<RGBQUAD>&) {
           const VK_HPALETTE p = V_DupBitmapPalette(x);
           if (!p) return int32_t{RESULT_FAIL};
           VKP_DeletePalette(p);
           return int32_t{RESULT_OK};
         }},
        {"copy", [](BitmapHandle* x, BitmapHandle*, const std::vector<RGBQUAD>&) {
           BitmapHandle blank{};  // a record of its own, so a success can be released
           const int32_t r = V_CopyBitmapPalette(&blank, x);
           V_FreeBitmap(&blank);
           return r;
         }},
        {"set", [](BitmapHandle* x, BitmapHandle*, const std::vector<RGBQUAD>& p) {
           const VK_HPALETTE h = V_CreatePalette(p.data(), 2);
           if (!h) return int32_t{RESULT_FAIL};
           const int32_t r = V_SetBitmapPalette(x, h);  // takes a copy: h stays the caller's
           VKP_DeletePalette(h);
           return r;
         }},
        {"fixed", [](BitmapHandle* x, BitmapHandle*, const std::vector<RGBQUAD>&) {
           // It does not release a palette held before: work on a copy of the
           // record that holds none and no storage, then release what it got.
           BitmapHandle r = *x;
           r.Palette = nullptr;
           r.Flags &= ~uint32_t{BITMAP_ALLOCATED};
           const int32_t res = V_CreateBitmapFixedPalette(&r);
           V_FreeBitmap(&r);
           return res;
         }},
    };
    for (const auto& op : ops) {
      SCOPED_TRACE(op.name);
      std::vector<uint8_t> record(sizeof b);
      fault_sweep([&] { std::memcpy(record.data(), &b, sizeof b); },
                  [&] { return op.run(&b, &other, pal); },
                  [&](const SweepRun& run) {
                    if (run.result != RESULT_OK) {
                      EXPECT_LE(run.result, 0);  // the palette copy reports failure as 0
                      EXPECT_EQ(std::memcmp(record.data(), &b, sizeof b), 0);
                    }
                    // Setting a palette whose copy cannot be made still counts
                    // as done and leaves the bitmap without one: give it back.
                    if (!b.Palette) EXPECT_EQ(V_CreateBitmapFixedPalette(&b), RESULT_OK);
                  });
    }
    V_FreeBitmap(&b);
    V_FreeBitmap(&other);
  }
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

VKT_SWEEPS(V_ToggleBitmapCompression, V_GrowBitmapHeap, V_TrimBitmapHeap);
TEST(FaultSweep, CompressedStorageChangesKeepThePixels) {
  const struct {
    const char* name;
    int32_t type;
    int32_t (*run)(BitmapHandle*);
  } ops[] = {
      {"toggle to compressed", TYPE_CONVENTIONAL, [](BitmapHandle* b) { return V_ToggleBitmapCompression(b); }},
      {"toggle to packed", TYPE_COMPRESSED, [](BitmapHandle* b) { return V_ToggleBitmapCompression(b); }},
      {"grow", TYPE_COMPRESSED, [](BitmapHandle* b) { return V_GrowBitmapHeap(b, 1 << 20); }},
      {"trim", TYPE_COMPRESSED, [](BitmapHandle* b) { return V_TrimBitmapHeap(b); }},
  };
  for (const auto& op : ops) {
    SCOPED_TRACE(op.name);
    BitmapHandle b;
    std::vector<uint8_t> pixels;
    fault_sweep([&] {
                  b = make(1, 100, 20, op.type);
                  pixels = Snapshot::pixels(&b);
                },
                [&] { return op.run(&b); },
                [&](const SweepRun& run) {
                  if (run.result != RESULT_OK) EXPECT_LE(run.result, 0);  // the heap calls report 0
                  EXPECT_EQ(Snapshot::pixels(&b), pixels);
                  V_FreeBitmap(&b);
                });
  }
}

VKT_SWEEPS(V_StartDithering);
TEST(FaultSweep, DitheringStartLeavesTheRecordAlone) {
  BitmapHandle b = make(24);
  const std::vector<RGBQUAD> pal = {{0, 0, 0, 0}, {255, 255, 255, 0}, {0, 0, 255, 0}};
  fault_sweep([] {}, [&] { return V_StartDithering(&b, pal.data(), 3); },
              [&](const SweepRun& run) {
                if (run.result == RESULT_OK) {
                  EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
                } else {
                  EXPECT_EQ(run.result, RESULT_FAIL);
                  EXPECT_EQ(b.DitherState, nullptr);
                }
              });
  V_FreeBitmap(&b);
}

VKT_SWEEPS(V_OsOpen);
TEST(FaultSweep, OpeningAFileFailsCleanly) {
  char name[VK_MAX_PATH];
  ASSERT_EQ(V_OsGetTempName(name), 0);
  fault_sweep([] {}, [&] { return int32_t(V_OsOpen(name, VK_O_RDWR, 0, 0)); },
              [&](const SweepRun& run) {
                if (run.result != -1) V_OsClose(run.result, 0);
                else EXPECT_TRUE(run.fired);
              });
  EXPECT_EQ(V_OsDelete(name), 0);
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
