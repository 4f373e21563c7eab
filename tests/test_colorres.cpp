// Colour resolution of bitmaps and lists: palette selections, colour counts,
// destinations (in place, another record, callback only), progress, and the
// all-or-nothing rule under cancellation and allocation failures.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "core.h"
#include "platform.h"
#include "reduce_fixtures.h"

namespace {

vkt::Rgb photo(int x, int y) {
  return vkt::Rgb{uint8_t(x * 7 + y), uint8_t(y * 5 + (x >> 2)), uint8_t((x * y) & 255)};
}

struct Rows {
  std::vector<std::vector<uint8_t>> rows;
  std::vector<int32_t> numbers;
  std::vector<uint32_t> items;
  int32_t stop_at = -1;
  static int32_t VK_CALL single(BitmapHandle* d, uint8_t* row, int32_t lines, intptr_t data) {
    auto* r = reinterpret_cast<Rows*>(data);
    EXPECT_EQ(lines, 1);
    r->rows.emplace_back(row, row + d->BytesPerLine);
    return int32_t(r->rows.size()) - 1 == r->stop_at ? 5 : RESULT_OK;
  }
  static int32_t VK_CALL list(BitmapHandle* d, uint8_t* row, uint32_t item, int32_t number, int32_t lines,
                              intptr_t data) {
    auto* r = reinterpret_cast<Rows*>(data);
    EXPECT_EQ(lines, 1);
    r->items.push_back(item);
    r->numbers.push_back(number);
    r->rows.emplace_back(row, row + d->BytesPerLine);
    return RESULT_OK;
  }
};

TEST(ColorRes, ArgumentChecks) {
  vkt::Bitmap b(4, 4, 24);
  RGBQUAD pal[2] = {};
  VK_HPALETTE h = V_CreatePalette(pal, 2);
  struct Case {
    int32_t bits;
    uint32_t flags;
    bool both, user;
  };
  const Case cases[] = {
      {9, 0, false, false},          {0, 0, false, false},         {8, 3, false, false},
      {8, 4 | 1 | 2, false, false},  {4, 64, false, false},        {24, 4 | 2048, false, false},
      {24, 64, false, false},        {8, 0, true, false},          {8, 16, false, true},
      {8, 32, false, false},
  };
  for (const Case& c : cases) {
    const int32_t r = V_ColorResBitmap(b.get(), nullptr, c.bits, c.flags, c.both ? pal : nullptr, c.both ? h : nullptr,
                                       0, nullptr, 0);
    EXPECT_EQ(r, RESULT_BAD_PARAMETER) << c.bits << " " << c.flags;
  }
  EXPECT_EQ(V_ColorResBitmap(nullptr, nullptr, 8, 0, nullptr, nullptr, 0, nullptr, 0), RESULT_BAD_PARAMETER);
  BitmapHandle blank;
  ASSERT_EQ(V_InitBitmap(&blank, 4, 4, 24), RESULT_OK);
  EXPECT_EQ(V_ColorResBitmap(&blank, nullptr, 8, 0, nullptr, nullptr, 0, nullptr, 0), RESULT_BAD_PARAMETER);
  BitmapList none = nullptr;
  EXPECT_EQ(V_ColorResBitmapList(none, 8, 0, nullptr, nullptr, 0), RESULT_BAD_PARAMETER);
  V_FreeBitmap(&blank);
  vk::plat::palette_delete(h);
}

TEST(ColorRes, InPlaceColourCountIsDefaultedAndCut) {
  struct Case {
    int32_t bits, colors;
    uint32_t expect;
  };
  const long base = vk::fault::live_total();
  for (const Case& c : {Case{4, 0, 16}, Case{8, 300, 256}, Case{8, 40, 40}, Case{1, 0, 2}}) {
    vkt::Bitmap b(64, 48, 24);
    b.fill(photo);
    ASSERT_EQ(V_ColorResBitmap(b.get(), b.get(), c.bits, RESOLVE_OPTIMISED, nullptr, nullptr, c.colors, nullptr, 0),
              RESULT_OK);
    EXPECT_EQ(b->BitsPerPixel, c.bits);
    EXPECT_EQ(b->ColorCount, c.expect) << c.bits << "/" << c.colors;
    EXPECT_EQ(b->BytesPerLine, (64u * c.bits + 31) / 32 * 4);
    for (int y = 0; y < 48; y += 11)
      for (int x = 0; x < 64; x += 13) EXPECT_LT(b.index(x, y), c.expect);
  }
  EXPECT_EQ(vk::fault::live_total(), base);  // in place: the old storage was released
}

TEST(ColorRes, ExactColoursConvertWithoutDithering) {
  vkt::Bitmap b(30, 9, 24);
  const vkt::Rgb colours[10] = {{0, 0, 0},     {255, 0, 0},   {0, 255, 0}, {0, 0, 255},  {9, 9, 9},
                                {200, 100, 0}, {1, 2, 3},     {90, 90, 91}, {17, 34, 51}, {250, 250, 250}};
  b.fill([&](int x, int y) { return colours[(x + y) % 10]; });
  ASSERT_EQ(V_ColorResBitmap(b.get(), b.get(), 8, RESOLVE_OPTIMISED, nullptr, nullptr, 0, nullptr, 0), RESULT_OK);
  EXPECT_EQ(b->ColorCount, 10u);
  const std::vector<RGBQUAD> pal = b.palette();
  for (int y = 0; y < 9; ++y)
    for (int x = 0; x < 30; ++x) {
      const RGBQUAD e = pal.at(b.index(x, y));
      const vkt::Rgb c = colours[(x + y) % 10];
      ASSERT_EQ(e.rgbRed, c.r);
      ASSERT_EQ(e.rgbGreen, c.g);
      ASSERT_EQ(e.rgbBlue, c.b);
    }
}

TEST(ColorRes, FixedAndCubePalettes) {
  vkt::Bitmap b(8, 2, 24);
  b.fill([](int, int) { return vkt::Rgb{255, 255, 255}; });
  vkt::Bitmap c(8, 2, 24);
  c.fill([](int, int) { return vkt::Rgb{255, 255, 255}; });
  b->DitheringMethod = DITHER_NONE;
  c->DitheringMethod = DITHER_NONE;
  ASSERT_EQ(V_ColorResBitmap(b.get(), b.get(), 4, RESOLVE_FIXED, nullptr, nullptr, 0, nullptr, 0), RESULT_OK);
  EXPECT_EQ(b->ColorCount, 16u);
  EXPECT_EQ(b.index(3, 1), 15u);  // white is the last fixed entry
  ASSERT_EQ(V_ColorResBitmap(c.get(), c.get(), 8, RESOLVE_CUBE, nullptr, nullptr, 0, nullptr, 0), RESULT_OK);
  EXPECT_EQ(c->ColorCount, 256u);
  EXPECT_EQ(c.index(0, 0), 215u);  // cube (5, 5, 5)
  EXPECT_EQ(c.palette()[216].rgbRed, 0);
}

TEST(ColorRes, DeepDestinationOrders) {
  vkt::Bitmap b(3, 1, 8);
  std::vector<RGBQUAD> pal(256, RGBQUAD{0, 0, 0, 0});
  pal[1] = RGBQUAD{30, 20, 10, 0};  // red 10, green 20, blue 30
  b.set_palette(pal);
  b.fill_index([](int, int) { return 1u; });
  struct Case {
    uint32_t flags;
    int32_t order;
    uint8_t first;
  };
  for (const Case& c : {Case{0, ORDER_RGB, 10}, Case{RESOLVE_BGR, ORDER_BGR, 30}}) {
    BitmapHandle out;
    std::memset(&out, 0, sizeof out);
    ASSERT_EQ(V_ColorResBitmap(b.get(), &out, 24, c.flags, nullptr, nullptr, 0, nullptr, 0), RESULT_OK);
    EXPECT_EQ(out.Order, c.order);
    uint8_t row[16] = {};
    V_GetBitmapRow(&out, row, 0, int32_t(out.BytesPerLine));
    EXPECT_EQ(row[0], c.first);
    EXPECT_EQ(row[1], 20);
    V_FreeBitmap(&out);
  }
  EXPECT_EQ(b->BitsPerPixel, 8);  // a separate destination leaves the source alone
}

TEST(ColorRes, CallbackOnlyDestinationDeliversEveryRow) {
  vkt::Bitmap b(20, 13, 24);
  b.fill(photo);
  BitmapHandle before;
  std::memcpy(&before, b.get(), sizeof before);
  const std::vector<uint8_t> pixels = b.pixels();
  const long base = vk::fault::live_total();
  Rows rows;
  ASSERT_EQ(V_ColorResBitmap(b.get(), nullptr, 4, RESOLVE_FIXED, nullptr, nullptr, 0, &Rows::single,
                             reinterpret_cast<intptr_t>(&rows)),
            RESULT_OK);
  EXPECT_EQ(rows.rows.size(), 13u);
  EXPECT_EQ(rows.rows[0].size(), 12u);  // 4-bit rows of 20 pixels
  EXPECT_EQ(vk::fault::live_total(), base);
  EXPECT_EQ(std::memcmp(&before, b.get(), sizeof before), 0);
  EXPECT_EQ(b.pixels(), pixels);
}

TEST(ColorRes, ProgressRunsFromZeroToHundred) {
  vkt::Bitmap b(10, 3, 24);
  b.fill(photo);
  vkt::StatusRecorder rec;
  vkt::StatusScope scope(rec);
  ASSERT_EQ(V_ColorResBitmap(b.get(), nullptr, 8, RESOLVE_OPTIMISED, nullptr, nullptr, 0, nullptr, 0), RESULT_OK);
  // The optimiser runs with the callback off; then 100 / 3 = 33 per row with
  // 1 carried: 33, 66, 100.
  EXPECT_EQ(rec.seen, (std::vector<int32_t>{0, 33, 66, 100}));
}

TEST(ColorRes, KeepsSystemColoursAtBothEnds) {
  vk::plat::ScreenInfo screen{};
  screen.palette_device = true;
  screen.palette_size = 256;
  screen.reserved_colours = 20;
  for (int i = 0; i < 256; ++i) screen.system_palette[i] = RGBQUAD{uint8_t(i), 1, 2, 0};
  vk::plat::override_screen_info(&screen);
  vkt::Bitmap b(64, 64, 24);
  b.fill(photo);
  const int32_t r = V_ColorResBitmap(b.get(), b.get(), 8, RESOLVE_KEEP_SYSTEM_COLOURS, nullptr, nullptr, 0, nullptr, 0);
  vk::plat::override_screen_info(nullptr);
  ASSERT_EQ(r, RESULT_OK);
  const std::vector<RGBQUAD> pal = b.palette();
  ASSERT_EQ(pal.size(), 256u);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(pal[i].rgbBlue, i);
  for (int i = 246; i < 256; ++i) EXPECT_EQ(pal[i].rgbBlue, i);
}

// Cancellation (row callback, status callback) and every allocation failing
// in turn: the result passes through, the source record and pixels and the
// thread's user match table are as they were, nothing leaks.
TEST(ColorRes, FailuresLeaveSourceAndUserTableUnchanged) {
  std::vector<RGBQUAD> user(16);
  for (int i = 0; i < 16; ++i) user[i] = RGBQUAD{uint8_t(i * 16), uint8_t(255 - i * 16), uint8_t(i * 8), 0};
  uint32_t* table = V_CreateUserMatchTable(user.data(), 16);
  ASSERT_NE(table, nullptr);
  std::vector<uint32_t> table_before(table, table + 32768);
  uint32_t* previous = V_SetUserMatchTable(table);

  struct Mode {
    uint32_t flags;
    int32_t bits;
    bool in_place;
  };
  const Mode modes[] = {{RESOLVE_OPTIMISED, 8, true},
                        {RESOLVE_USER_PALETTE | RESOLVE_USER_TABLE, 4, true},
                        {RESOLVE_FIXED, 8, false},
                        {RESOLVE_BGR, 24, true}};
  for (const Mode& m : modes) {
    // One run, on a fresh source each time (a run that recovers from a
    // failure and succeeds converts it).  Returns the result and whether a
    // fault fired; checks the all-or-nothing rule on failure.
    auto run = [&](const char* what, long n, int32_t expect, int32_t stop_row, vkt::StatusRecorder* rec) {
      vkt::Bitmap b(33, 17, m.bits == 24 ? 8 : 24);
      if (m.bits == 24) {
        std::vector<RGBQUAD> pal(256);
        for (int i = 0; i < 256; ++i) pal[i] = RGBQUAD{uint8_t(i), uint8_t(i / 2), uint8_t(255 - i), 0};
        b.set_palette(pal);
        b.fill_index([](int x, int y) { return uint32_t(x * 7 + y); });
      } else {
        b.fill(photo);
      }
      BitmapHandle before, other, untouched;
      std::memcpy(&before, b.get(), sizeof before);
      std::memset(&other, 0xCD, sizeof other);
      std::memset(&untouched, 0xCD, sizeof untouched);
      const std::vector<uint8_t> pixels = b.pixels();
      const long base = vk::fault::live_total();
      Rows rows;
      rows.stop_at = stop_row;
      if (rec) V_SetStatusCallBack(&vkt::StatusRecorder::hook, reinterpret_cast<intptr_t>(rec));
      if (n) vk::fault::arm(n);
      const int32_t r = V_ColorResBitmap(b.get(), m.in_place ? b.get() : &other, m.bits, m.flags,
                                         (m.flags & RESOLVE_USER_PALETTE) ? user.data() : nullptr, nullptr, 0,
                                         &Rows::single, reinterpret_cast<intptr_t>(&rows));
      const bool fired = vk::fault::fired();
      vk::fault::disarm();
      V_SetStatusCallBack(nullptr, 0);
      if (r == RESULT_OK) {
        if (!m.in_place) V_FreeBitmap(&other);
        return fired;
      }
      EXPECT_EQ(r, expect) << what << " flags " << m.flags << " n " << n;
      EXPECT_EQ(std::memcmp(&before, b.get(), sizeof before), 0) << what << " " << n;
      EXPECT_EQ(std::memcmp(&other, &untouched, sizeof other), 0) << what << " " << n;
      EXPECT_EQ(b.pixels(), pixels) << what << " " << n;
      EXPECT_EQ(vk::fault::live_total(), base) << what << " " << n;
      EXPECT_EQ(std::memcmp(table, table_before.data(), 32768 * 4), 0) << what << " " << n;
      EXPECT_EQ(V_SetUserMatchTable(table), table);
      return true;
    };
    run("row callback", 0, 5, 9, nullptr);  // the row callback stops at row 9
    vkt::StatusRecorder rec;
    rec.refuse_at = 52;
    run("status", 0, 77, -1, &rec);  // the status callback refuses at 52%
    long n = 1;
    while (run("fault", n, RESULT_FAIL, -1, nullptr)) ++n;
    EXPECT_GT(n, 4) << m.flags;
  }
  V_SetUserMatchTable(previous);
  V_FreeUserMatchTable(table);
}

TEST(ColorResList, OneSharedPaletteForEveryItem) {
  const long base = vk::fault::live_total();
  {
  vkt::List list;
  for (int k = 0; k < 3; ++k) {
    vkt::Bitmap b(40 + k, 20, 24);
    b.fill([k](int x, int y) { return vkt::Rgb{uint8_t(x * 6 + k * 20), uint8_t(y * 12), uint8_t(k * 90 + x)}; });
    list.add(b);
  }
  uint32_t* mine = V_SetUserMatchTable(nullptr);
  V_SetUserMatchTable(mine);
  Rows rows;
  ASSERT_EQ(V_ColorResBitmapListExt(list.get(), 8, RESOLVE_OPTIMISED, nullptr, nullptr, 0, &Rows::list,
                                    reinterpret_cast<intptr_t>(&rows)),
            RESULT_OK);
  EXPECT_EQ(V_SetUserMatchTable(mine), mine);  // the thread's table is back
  ASSERT_EQ(rows.items.size(), 60u);
  for (size_t i = 0; i < rows.items.size(); ++i) {
    EXPECT_EQ(rows.items[i], i / 20);
    EXPECT_EQ(rows.numbers[i], int32_t(i % 20));
  }
  std::vector<RGBQUAD> first;
  for (uint32_t i = 0; i < 3; ++i) {
    BitmapHandle item = list.item(i);
    EXPECT_EQ(item.BitsPerPixel, 8);
    std::vector<RGBQUAD> pal(item.ColorCount);
    ASSERT_GT(pal.size(), 0u);
    V_GetBitmapPaletteEntries(&item, 0, int32_t(pal.size()), pal.data());
    if (i == 0) first = pal;
    ASSERT_EQ(pal.size(), first.size());
    EXPECT_EQ(std::memcmp(pal.data(), first.data(), pal.size() * sizeof(RGBQUAD)), 0) << "item " << i;
  }
  }
  // The items' old storage went away with the conversion: nothing is left.
  EXPECT_EQ(vk::fault::live_total(), base);
}

TEST(ColorResList, CallersFreeEntriesReceiveTheChosenColours) {
  vkt::List list;
  for (int k = 0; k < 2; ++k) {
    vkt::Bitmap b(4, 1, 24);
    b.fill([k](int x, int) { return vkt::Rgb{uint8_t(10 * x + k), 50, 60}; });
    list.add(b);
  }
  std::vector<RGBQUAD> pal(16, RGBQUAD{0, 0, 0, 2});  // free entries
  pal[0] = RGBQUAD{255, 255, 255, 0};                 // one fixed entry
  ASSERT_EQ(V_ColorResBitmapList(list.get(), 4, RESOLVE_OPTIMISED, pal.data(), nullptr, 16), RESULT_OK);
  EXPECT_EQ(pal[0].rgbRed, 255);
  // Eight exact colours, sorted by red, in the first free entries.
  EXPECT_EQ(pal[1].rgbRed, 0);
  EXPECT_EQ(pal[2].rgbRed, 1);
  EXPECT_EQ(pal[8].rgbRed, 31);
  EXPECT_EQ(pal[1].rgbGreen, 50);
  BitmapHandle item = list.item(1);
  EXPECT_EQ(item.ColorCount, 9u);
}

}  // namespace
