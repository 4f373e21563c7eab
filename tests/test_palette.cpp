// Palettes in both forms, gray and fixed palettes, bitmap palette operations
// and the palette rules of V_CreateBitmap.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "color_helpers.h"
#include "fault_sweep.h"
#include "platform.h"
#include "vkkrn.h"
#include "vkkrn_platform.h"

// Fault sweeps in this file.
VKT_SWEEPS(V_CreateBitmap, V_CreateBitmapGrayPalette, V_PutBitmapColors, V_SetPaletteType, V_DupBitmapPalette,
           V_CopyBitmapPalette, V_SetBitmapPalette, V_CreateBitmapFixedPalette);

using vkt::quad;

namespace {

class Palette : public vkt::LeakCheck {};

// The entries a palette (or a bitmap's palette) reports, as many as it has.
template <class P, class Get>
std::vector<RGBQUAD> read_entries(P p, Get get) {
  std::vector<RGBQUAD> v(256);
  v.resize(size_t(std::max(get(p, 0, 256, v.data()), 0)));
  return v;
}
std::vector<RGBQUAD> entries_of(VK_HPALETTE p) { return read_entries(p, V_GetPaletteEntries); }
std::vector<RGBQUAD> bitmap_entries(BitmapHandle* b) { return read_entries(b, V_GetBitmapPaletteEntries); }

void expect_entries(const std::vector<RGBQUAD>& got, const std::vector<RGBQUAD>& want, bool reserved = true) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    EXPECT_TRUE(vkt::same_rgb(got[i], want[i])) << "entry " << i;
    if (reserved) EXPECT_EQ(got[i].rgbReserved, want[i].rgbReserved) << "entry " << i;
  }
}

// An allocated 8x4 bitmap of `bits` with the given palette in the asked form.
void make_bitmap(BitmapHandle* b, int32_t bits, const std::vector<RGBQUAD>& pal, bool table) {
  ASSERT_EQ(V_CreateBitmap(b, TYPE_CONVENTIONAL, 8, 4, bits, 0, pal.empty() ? nullptr : pal.data(), 2, nullptr, 0),
            RESULT_OK);
  ASSERT_EQ(V_SetPaletteType(b, table ? 1 : 0), RESULT_OK);
  ASSERT_EQ((b->Flags & PALETTE_IS_TABLE) != 0, table);
}

TEST_F(Palette, CreateValidatesAndKeepsReservedAsFlags) {
  std::vector<RGBQUAD> pal = vkt::random_palette(256, 7);
  pal[3].rgbReserved = 2;
  EXPECT_EQ(V_CreatePalette(nullptr, 4), nullptr);
  EXPECT_EQ(V_CreatePalette(pal.data(), 257), nullptr);
  EXPECT_EQ(V_CreatePalette(pal.data(), -1), nullptr);

  VK_HPALETTE p = V_CreatePalette(pal.data(), 256);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(V_GetPaletteSize(p), 256);
  expect_entries(entries_of(p), pal);

  const RGBQUAD two[2] = {quad(1, 2, 3, 1), quad(4, 5, 6, 0)};
  EXPECT_EQ(V_SetPaletteEntries(p, 10, 2, two), 2);
  RGBQUAD back[2];
  EXPECT_EQ(V_GetPaletteEntries(p, 10, 2, back), 2);
  EXPECT_TRUE(vkt::same_rgb(back[0], two[0]) && back[0].rgbReserved == 1);
  EXPECT_TRUE(vkt::same_rgb(back[1], two[1]));

  VK_HPALETTE d = V_DupPalette(p);
  ASSERT_NE(d, nullptr);
  EXPECT_NE(d, p);
  expect_entries(entries_of(d), entries_of(p));
  vk::plat::palette_delete(d);
  vk::plat::palette_delete(p);
}

TEST_F(Palette, GrayAndFixedPalettes) {
  for (int bits : {0, 1, 2, 4, 8}) {  // 0: the 256-entry ramp
    VK_HPALETTE p = V_CreateGrayPalette(bits);
    ASSERT_NE(p, nullptr) << bits;
    expect_entries(entries_of(p), vkt::gray_ramp(bits ? 1 << bits : 256));
    vk::plat::palette_delete(p);
  }
  EXPECT_EQ(V_CreateGrayPalette(9), nullptr);

  // Fixed: 0 is black and white (the 1-bit table) here, unlike V_GetFixedPalette.
  for (int bits = 0; bits <= 8; ++bits) {
    VK_HPALETTE p = V_CreateFixedPalette(bits);
    ASSERT_NE(p, nullptr);
    const int table = bits ? bits : 1;
    const RGBQUAD* t = V_IntGetFixedPalette(table);
    expect_entries(entries_of(p), std::vector<RGBQUAD>(t, t + (1 << table)));
    vk::plat::palette_delete(p);
  }
  EXPECT_EQ(V_CreateFixedPalette(9), nullptr);
}

TEST_F(Palette, SystemPaletteOnlyOnPaletteDevices) {
  vk::plat::ScreenInfo screen{};
  screen.palette_device = false;
  screen.palette_size = 256;
  vk::plat::override_screen_info(&screen);
  EXPECT_EQ(V_CreateSystemPalette(), nullptr);

  screen.palette_device = true;
  screen.palette_size = 20;
  for (int i = 0; i < 20; ++i) screen.system_palette[i] = quad(i, 2 * i, 3 * i);
  vk::plat::override_screen_info(&screen);
  VK_HPALETTE p = V_CreateSystemPalette();
  vk::plat::override_screen_info(nullptr);
  ASSERT_NE(p, nullptr);
  expect_entries(entries_of(p), std::vector<RGBQUAD>(screen.system_palette, screen.system_palette + 20), false);
  vk::plat::palette_delete(p);
}

// The bitmap operations behave alike in both forms.
class BitmapPalette : public vkt::LeakCheck, public ::testing::WithParamInterface<bool> {};

TEST_P(BitmapPalette, ReadWriteAndErrors) {
  const bool table = GetParam();
  const std::vector<RGBQUAD> pal = vkt::random_palette(256, 11);
  BitmapHandle b;
  make_bitmap(&b, 8, pal, table);
  expect_entries(bitmap_entries(&b), pal);

  RGBQUAD out[16];
  EXPECT_EQ(V_GetBitmapPaletteEntries(&b, 250, 10, out), 6);
  EXPECT_EQ(V_GetBitmapColors(&b, 250, 10, out), RESULT_BAD_PARAMETER);  // only 6 there
  EXPECT_EQ(V_GetBitmapColors(&b, 5, 2, out), RESULT_OK);
  EXPECT_TRUE(vkt::same_rgb(out[0], pal[5]) && vkt::same_rgb(out[1], pal[6]));

  const RGBQUAD put[3] = {quad(1, 1, 1, 3), quad(2, 2, 2), quad(3, 3, 3)};
  EXPECT_EQ(V_PutBitmapColors(&b, 254, 3, put), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_PutBitmapColors(&b, 10, 3, put), RESULT_OK);
  EXPECT_EQ((b.Flags & PALETTE_IS_TABLE) != 0, table);
  std::vector<RGBQUAD> want = pal;
  std::copy(put, put + 3, want.begin() + 10);
  expect_entries(bitmap_entries(&b), want);

  EXPECT_EQ(V_CompareBitmapToPalette(&b, want.data(), 256), 1);
  want[200].rgbReserved ^= 0xFF;  // reserved bytes are not compared
  EXPECT_EQ(V_CompareBitmapToPalette(&b, want.data(), 256), 1);
  want[200].rgbGreen ^= 1;
  EXPECT_EQ(V_CompareBitmapToPalette(&b, want.data(), 256), 0);
  EXPECT_EQ(V_CompareBitmapToPalette(&b, want.data(), 200), 1);  // only the first 200 compared

  // The nearest index does not depend on the form.
  const std::vector<RGBQUAD> now = bitmap_entries(&b);
  VK_HPALETTE ref = V_CreatePalette(now.data(), 256);
  for (uint32_t c : {0x000000u, 0xFFFFFFu, 0x123456u, 0x80FF20u})
    EXPECT_EQ(V_GetNearestPaletteIndex(&b, c), vk::plat::palette_nearest(ref, c)) << c;
  vk::plat::palette_delete(ref);
  V_FreeBitmap(&b);
}

TEST_P(BitmapPalette, GrayFixedDupAndCopy) {
  const bool table = GetParam();
  BitmapHandle b;
  make_bitmap(&b, 4, vkt::random_palette(16, 3), table);

  EXPECT_EQ(V_CreateBitmapGrayPalette(&b), RESULT_OK);
  EXPECT_EQ(b.ColorCount, 16u);
  expect_entries(bitmap_entries(&b), vkt::gray_ramp(16));

  // A count that names no fixed palette changes nothing.
  void* before = b.Palette;
  b.ColorCount = 3;
  EXPECT_EQ(V_CreateBitmapFixedPalette(&b), 0);
  EXPECT_EQ(b.Palette, before);
  b.ColorCount = 16;

  // Duplicates are platform palettes whatever the form.
  VK_HPALETTE dup = V_DupBitmapPalette(&b);
  ASSERT_NE(dup, nullptr);
  expect_entries(entries_of(dup), vkt::gray_ramp(16));
  vk::plat::palette_delete(dup);

  BitmapHandle c;
  ASSERT_EQ(V_CreateBitmap(&c, TYPE_CONVENTIONAL, 4, 4, 24, 1, nullptr, 2, nullptr, 0), RESULT_OK);
  EXPECT_EQ(V_CopyBitmapPalette(&c, &b), 1);
  EXPECT_EQ((c.Flags & PALETTE_IS_TABLE) != 0, table);
  EXPECT_EQ(c.ColorCount, 16u);
  EXPECT_NE(c.Palette, b.Palette);
  expect_entries(bitmap_entries(&c), vkt::gray_ramp(16));
  V_FreeBitmap(&c);

  // A source without palette empties the destination's palette fields.
  BitmapHandle none;
  ASSERT_EQ(V_InitBitmap(&none, 4, 4, 24), RESULT_OK);
  BitmapHandle d = b;
  EXPECT_EQ(V_CopyBitmapPalette(&d, &none), RESULT_OK);
  EXPECT_EQ(d.Palette, nullptr);
  EXPECT_EQ(d.ColorCount, 0u);
  V_FreeBitmap(&b);
}

TEST_P(BitmapPalette, SetBitmapPaletteTakesACopy) {
  const bool table = GetParam();
  BitmapHandle b;
  make_bitmap(&b, 8, {}, table);
  const RGBQUAD one = quad(9, 9, 9);
  VK_HPALETTE tiny = V_CreatePalette(&one, 1);
  void* before = b.Palette;
  EXPECT_EQ(V_SetBitmapPalette(&b, tiny), RESULT_BAD_PARAMETER);
  EXPECT_EQ(b.Palette, before);
  vk::plat::palette_delete(tiny);

  const std::vector<RGBQUAD> pal = vkt::random_palette(16, 5);
  VK_HPALETTE mine = V_CreatePalette(pal.data(), 16);
  EXPECT_EQ(V_SetBitmapPalette(&b, mine), RESULT_OK);
  EXPECT_EQ(b.Flags & PALETTE_IS_TABLE, 0u);
  EXPECT_EQ(b.ColorCount, 16u);
  EXPECT_NE(b.Palette, mine);
  expect_entries(bitmap_entries(&b), pal);
  expect_entries(entries_of(mine), pal);  // the caller's palette is still alive
  vk::plat::palette_delete(mine);
  V_FreeBitmap(&b);
}

INSTANTIATE_TEST_SUITE_P(Forms, BitmapPalette, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Table" : "Platform"; });

TEST_F(Palette, BitmapPaletteCreateAndTypeSwitch) {
  BitmapHandle b;
  ASSERT_EQ(V_InitBitmap(&b, 4, 4, 8), RESULT_OK);
  const std::vector<RGBQUAD> pal = vkt::random_palette(300, 1);
  b.Flags |= PALETTE_IS_TABLE;
  V_CreateBitmapPalette(&b, pal.data(), 300);  // too many: no palette, count kept
  EXPECT_EQ(b.Palette, nullptr);
  EXPECT_EQ(b.ColorCount, 300u);
  V_CreateBitmapPalette(&b, pal.data(), 16);
  ASSERT_NE(b.Palette, nullptr);
  EXPECT_EQ(b.ColorCount, 16u);
  expect_entries(bitmap_entries(&b), std::vector<RGBQUAD>(pal.begin(), pal.begin() + 16));

  // A table switched to the platform form and back keeps its entries.
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
  EXPECT_EQ(V_SetPaletteType(&b, 0), RESULT_OK);
  EXPECT_EQ(V_SetPaletteType(&b, 1), RESULT_OK);
  expect_entries(bitmap_entries(&b), std::vector<RGBQUAD>(pal.begin(), pal.begin() + 16));
  V_FreeBitmap(&b);
}

// Palette changes that allocate leave the bitmap as it was when they fail
// (the palette copy reports a failure as 0).
TEST_F(Palette, FaultSweepLeavesBitmapIntact) {
  const std::vector<RGBQUAD> pal = vkt::random_palette(256, 2);
  const RGBQUAD two[2] = {quad(1, 2, 3), quad(4, 5, 6)};
  const struct {
    const char* name;
    int32_t fails_as;
    int32_t (*run)(BitmapHandle*, const RGBQUAD* two);
  } ops[] = {
      {"put", RESULT_FAIL, [](BitmapHandle* x, const RGBQUAD* e) { return V_PutBitmapColors(x, 7, 2, e); }},
      {"type", RESULT_FAIL,
       [](BitmapHandle* x, const RGBQUAD*) { return V_SetPaletteType(x, (x->Flags & PALETTE_IS_TABLE) ? 0 : 1); }},
      {"gray", RESULT_FAIL, [](BitmapHandle* x, const RGBQUAD*) { return V_CreateBitmapGrayPalette(x); }},
      {"dup", RESULT_FAIL,
       [](BitmapHandle* x, const RGBQUAD*) {
         const VK_HPALETTE p = V_DupBitmapPalette(x);
         return p && VKP_DeletePalette(p) ? RESULT_OK : RESULT_FAIL;
       }},
      {"copy", 0,
       [](BitmapHandle* x, const RGBQUAD*) {
         BitmapHandle blank{};  // a record of its own, so a success can be released
         const int32_t r = V_CopyBitmapPalette(&blank, x);
         V_FreeBitmap(&blank);
         return r;
       }},
      {"set", RESULT_FAIL,
       [](BitmapHandle* x, const RGBQUAD* e) {
         const VK_HPALETTE h = V_CreatePalette(e, 2);
         if (!h) return int32_t{RESULT_FAIL};
         const int32_t r = V_SetBitmapPalette(x, h);  // takes a copy: h stays the caller's
         VKP_DeletePalette(h);
         return r;
       }},
      {"fixed", RESULT_FAIL,
       [](BitmapHandle* x, const RGBQUAD*) {
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
  for (bool table : {false, true}) {
    BitmapHandle b;
    make_bitmap(&b, 8, pal, table);
    for (const auto& op : ops) {
      SCOPED_TRACE(op.name);
      vkt::Snapshot before;
      vkt::fault_sweep([&] { before = vkt::Snapshot(&b); }, [&] { return op.run(&b, two); },
                       [&](const vkt::SweepRun& run) {
                         vkt::expect_kept(run, before, op.fails_as);
                         // Setting a palette whose copy cannot be made still
                         // counts as done and leaves the bitmap without one:
                         // give it back.
                         if (!b.Palette) EXPECT_EQ(V_CreateBitmapFixedPalette(&b), RESULT_OK);
                       });
    }
    V_FreeBitmap(&b);
  }
}

// ---- V_CreateBitmap palette rules -----------------------------------------------------

TEST_F(Palette, CreateBitmapPaletteRules) {
  BitmapHandle b;
  // Depth 0: 8-bit pixels with the 256-entry gray ramp.
  ASSERT_EQ(V_CreateBitmap(&b, TYPE_CONVENTIONAL, 5, 3, 0, 0, nullptr, 4, nullptr, 0), RESULT_OK);
  EXPECT_EQ(b.BitsPerPixel, 8);
  EXPECT_EQ(b.ColorCount, 256u);
  EXPECT_EQ(b.Flags & PALETTE_IS_TABLE, 0u);
  EXPECT_EQ(b.ViewPerspective, 4);
  expect_entries(bitmap_entries(&b), vkt::gray_ramp(256));
  V_FreeBitmap(&b);

  // No palette: the fixed palette of the depth.
  for (int bits = 1; bits <= 8; ++bits) {
    ASSERT_EQ(V_CreateBitmap(&b, TYPE_CONVENTIONAL, 5, 3, bits, 0, nullptr, 2, nullptr, 0), RESULT_OK);
    const RGBQUAD* fixed = V_IntGetFixedPalette(bits);
    expect_entries(bitmap_entries(&b), std::vector<RGBQUAD>(fixed, fixed + (1 << bits)));
    V_FreeBitmap(&b);
  }

  // A given palette: ColorCount entries of it.
  const std::vector<RGBQUAD> pal = vkt::random_palette(256, 9);
  ASSERT_EQ(V_CreateBitmap(&b, TYPE_CONVENTIONAL, 5, 3, 4, 0, pal.data(), 2, nullptr, 0), RESULT_OK);
  expect_entries(bitmap_entries(&b), std::vector<RGBQUAD>(pal.begin(), pal.begin() + 16));
  V_FreeBitmap(&b);

  // Deeper pixels take the order (5 allowed at 24 bits) and get no palette.
  ASSERT_EQ(V_CreateBitmap(&b, TYPE_CONVENTIONAL, 5, 3, 24, 5, pal.data(), 2, nullptr, 0), RESULT_OK);
  EXPECT_EQ(b.Order, 5);
  EXPECT_EQ(b.Palette, nullptr);
  V_FreeBitmap(&b);
}

TEST_F(Palette, CreateBitmapRefusals) {
  BitmapHandle b;
  EXPECT_EQ(V_CreateBitmap(&b, 1, 4, 4, 10, 0, nullptr, 2, nullptr, 0), RESULT_BAD_BITS_PER_PIXEL);
  // Order 5 only for 24 and 48 bits, refused before any storage.
  for (int bits : {0, 8, 16, 32, 64}) {
    const long live = vk::fault::live_total();
    EXPECT_EQ(V_CreateBitmap(&b, 1, 4, 4, bits, 5, nullptr, 2, nullptr, 0), RESULT_BAD_BITS_PER_PIXEL) << bits;
    EXPECT_EQ(b.Flags & BITMAP_ALLOCATED, 0u);
    EXPECT_EQ(vk::fault::live_total(), live);
  }
  EXPECT_EQ(V_CreateBitmap(&b, 3, 4, 4, 8, 0, nullptr, 2, nullptr, 0), RESULT_BAD_PARAMETER);
}

TEST_F(Palette, CreateBitmapUserData) {
  BitmapHandle b;
  std::vector<uint8_t> pixels(4 * 12, 0x5A);
  ASSERT_EQ(V_CreateBitmap(&b, TYPE_USER, 4, 4, 24, 1, nullptr, 2, pixels.data(), 48), RESULT_OK);
  EXPECT_EQ(b.Data, pixels.data());
  EXPECT_NE(b.Flags & BITMAP_USER_DATA, 0u);
  V_FreeBitmap(&b);

  // A wrong size is refused, but the storage stays, without data.
  EXPECT_EQ(V_CreateBitmap(&b, TYPE_USER, 4, 4, 24, 1, nullptr, 2, pixels.data(), 47), RESULT_BAD_PARAMETER);
  EXPECT_NE(b.Flags & BITMAP_ALLOCATED, 0u);
  EXPECT_EQ(b.Data, nullptr);
  V_FreeBitmap(&b);
}

TEST_F(Palette, CreateBitmapFaultSweep) {
  BitmapHandle b;
  vkt::fault_sweep([] {}, [&] { return V_CreateBitmap(&b, TYPE_CONVENTIONAL, 16, 16, 8, 0, nullptr, 2, nullptr, 0); },
                   [&](const vkt::SweepRun& run) {
                     if (run.result == RESULT_OK) {
                       EXPECT_NE(b.Palette, nullptr);
                       V_FreeBitmap(&b);
                     } else {
                       EXPECT_EQ(b.Flags & BITMAP_ALLOCATED, 0u);
                     }
                   });
}

}  // namespace
