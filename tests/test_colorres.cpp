// Colour resolution of bitmaps and lists: palette selections, colour counts,
// destinations (in place, another record, callback only), progress, system
// colours, and the all-or-nothing rule under cancellation and failures.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <tuple>
#include <vector>

#include "core.h"
#include "platform.h"
#include "reduce_fixtures.h"
#include "fault_sweep.h"

// Fault sweeps in this file.
VKT_SWEEPS(V_ColorResBitmap);

namespace {

vkt::Rgb photo(int x, int y) {
  return vkt::Rgb{uint8_t(x * 7 + y), uint8_t(y * 5 + (x >> 2)), uint8_t((x * y) & 255)};
}

// Row callbacks (single and list forms) that record what they receive.
struct Rows {
  size_t count = 0;
  size_t bytes = 0;
  std::vector<uint32_t> items;
  std::vector<int32_t> numbers;
  int32_t stop_at = -1;
  static int32_t VK_CALL single(BitmapHandle* d, uint8_t*, int32_t lines, intptr_t data) {
    auto* r = reinterpret_cast<Rows*>(data);
    EXPECT_EQ(lines, 1);
    r->bytes = d->BytesPerLine;
    return int32_t(r->count++) == r->stop_at ? 5 : RESULT_OK;
  }
  static int32_t VK_CALL list(BitmapHandle*, uint8_t*, uint32_t item, int32_t number, int32_t, intptr_t data) {
    auto* r = reinterpret_cast<Rows*>(data);
    r->items.push_back(item);
    r->numbers.push_back(number);
    return RESULT_OK;
  }
};

TEST(ColorRes, ArgumentChecks) {
  vkt::Bitmap b(4, 4, 24);
  RGBQUAD pal[2] = {};
  VK_HPALETTE h = V_CreatePalette(pal, 2);
  // bits, flags, both palette forms: unknown depth, unknown selection, cube
  // below 8 bits, a bad order combination, caller's palette without one.
  const std::tuple<int32_t, uint32_t, bool> cases[] = {
      {9, 0, false}, {0, 0, false}, {8, 3, false},  {8, 32, false}, {4, 64, false},
      {24, 4 | 2048, false}, {24, 64, false}, {8, 0, true}, {8, 16, false}};
  for (auto [bits, flags, both] : cases)
    EXPECT_EQ(V_ColorResBitmap(b.get(), nullptr, bits, flags, both ? pal : nullptr, both ? h : nullptr, 0, nullptr, 0),
              RESULT_BAD_PARAMETER)
        << bits << " " << flags;
  EXPECT_EQ(V_ColorResBitmap(nullptr, nullptr, 8, 0, nullptr, nullptr, 0, nullptr, 0), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_ColorResBitmapList(nullptr, 8, 0, nullptr, nullptr, 0), RESULT_BAD_PARAMETER);
  vk::plat::palette_delete(h);
}

TEST(ColorRes, InPlaceColourCountIsDefaultedAndCut) {
  const long base = vk::fault::live_total();
  for (auto [bits, colors, expect] : {std::tuple{4, 0, 16u}, {8, 300, 256u}, {8, 40, 40u}, {1, 0, 2u}}) {
    vkt::Bitmap b(64, 48, 24);
    b.fill(photo);
    ASSERT_EQ(V_ColorResBitmap(b.get(), b.get(), bits, RESOLVE_OPTIMISED, nullptr, nullptr, colors, nullptr, 0),
              RESULT_OK);
    EXPECT_EQ(b->BitsPerPixel, bits);
    EXPECT_EQ(b->ColorCount, expect) << bits << "/" << colors;
    EXPECT_EQ(b->BytesPerLine, (64u * bits + 31) / 32 * 4);
    for (int y = 0; y < 48; y += 11)
      for (int x = 0; x < 64; x += 13) EXPECT_LT(b.index(x, y), expect);
  }
  EXPECT_EQ(vk::fault::live_total(), base);  // the old storage was released
}

TEST(ColorRes, ExactColoursConvertWithoutDithering) {
  vkt::Bitmap b(30, 9, 24);
  const vkt::Rgb colours[10] = {{0, 0, 0},     {255, 0, 0}, {0, 255, 0},  {0, 0, 255},  {9, 9, 9},
                                {200, 100, 0}, {1, 2, 3},   {90, 90, 91}, {17, 34, 51}, {250, 250, 250}};
  b.fill([&](int x, int y) { return colours[(x + y) % 10]; });
  ASSERT_EQ(V_ColorResBitmap(b.get(), b.get(), 8, RESOLVE_OPTIMISED, nullptr, nullptr, 0, nullptr, 0), RESULT_OK);
  EXPECT_EQ(b->ColorCount, 10u);
  const std::vector<RGBQUAD> pal = b.palette();
  for (int y = 0; y < 9; ++y)
    for (int x = 0; x < 30; ++x) {
      const RGBQUAD e = pal.at(b.index(x, y));
      const vkt::Rgb c = colours[(x + y) % 10];
      ASSERT_TRUE(e.rgbRed == c.r && e.rgbGreen == c.g && e.rgbBlue == c.b) << x << "," << y;
    }
}

TEST(ColorRes, DeepDestinationTakesItsOrderFromTheFlags) {
  vkt::Bitmap b(3, 1, 8);
  std::vector<RGBQUAD> pal(256, RGBQUAD{0, 0, 0, 0});
  pal[1] = RGBQUAD{30, 20, 10, 0};  // red 10, green 20, blue 30
  b.set_palette(pal);
  b.fill_index([](int, int) { return 1u; });
  for (auto [flags, order, first] : {std::tuple{0u, ORDER_RGB, 10}, {RESOLVE_BGR, ORDER_BGR, 30}}) {
    BitmapHandle out{};
    ASSERT_EQ(V_ColorResBitmap(b.get(), &out, 24, flags, nullptr, nullptr, 0, nullptr, 0), RESULT_OK);
    EXPECT_EQ(out.Order, order);
    uint8_t row[16] = {};
    V_GetBitmapRow(&out, row, 0, int32_t(out.BytesPerLine));
    EXPECT_EQ(row[0], first);
    V_FreeBitmap(&out);
  }
  EXPECT_EQ(b->BitsPerPixel, 8);  // another destination leaves the source alone
}

TEST(ColorRes, CallbackOnlyDestinationDeliversEveryRow) {
  vkt::Bitmap b(20, 13, 24);
  b.fill(photo);
  BitmapHandle before;
  std::memcpy(&before, b.get(), sizeof before);
  const std::vector<uint8_t> pixels = b.pixels();
  const long base = vk::fault::live_total();
  Rows rows;
  vkt::StatusRecorder rec;
  ASSERT_EQ(V_ColorResBitmap(b.get(), nullptr, 4, RESOLVE_FIXED, nullptr, nullptr, 0, &Rows::single,
                             reinterpret_cast<intptr_t>(&rows)),
            RESULT_OK);
  EXPECT_EQ(rows.count, 13u);
  EXPECT_EQ(rows.bytes, 12u);  // 4-bit rows of 20 pixels
  // 100 / 13 = 7 per row with 9 carried against 13.
  EXPECT_EQ(rec.seen, (std::vector<int32_t>{0, 7, 15, 23, 30, 38, 46, 53, 61, 69, 76, 84, 92, 100}));
  EXPECT_EQ(vk::fault::live_total(), base);
  EXPECT_EQ(std::memcmp(&before, b.get(), sizeof before), 0);
  EXPECT_EQ(b.pixels(), pixels);
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
  for (int i : {0, 9, 246, 255}) EXPECT_EQ(pal[i].rgbBlue, i);
  EXPECT_NE(pal[10].rgbGreen, 1);  // optimised colours in between
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
    SCOPED_TRACE(testing::Message() << "flags " << m.flags);
    // A fresh source every run (a run that recovers from a failure and
    // succeeds converts it).
    std::optional<vkt::Bitmap> b;
    vkt::Snapshot before;
    BitmapHandle other, untouched;
    std::memset(&untouched, 0xCD, sizeof untouched);
    Rows rows;
    auto prepare = [&] {
      b.emplace(33, 17, m.bits == 24 ? 8 : 24);
      if (m.bits == 24) {
        std::vector<RGBQUAD> pal(256);
        for (int i = 0; i < 256; ++i) pal[i] = RGBQUAD{uint8_t(i), uint8_t(i / 2), uint8_t(255 - i), 0};
        b->set_palette(pal);
        b->fill_index([](int x, int y) { return uint32_t(x * 7 + y); });
      } else {
        b->fill(photo);
      }
      before = vkt::Snapshot(b->get());
      other = untouched;
      rows = Rows{};
    };
    auto op = [&] {
      return V_ColorResBitmap(b->get(), m.in_place ? b->get() : &other, m.bits, m.flags,
                              (m.flags & RESOLVE_USER_PALETTE) ? user.data() : nullptr, nullptr, 0, &Rows::single,
                              reinterpret_cast<intptr_t>(&rows));
    };
    auto check = [&](const vkt::SweepRun& run, int32_t code) {
      if (!run.n) EXPECT_EQ(run.result, code);  // a cancelled run
      if (run.result == RESULT_OK && !m.in_place) V_FreeBitmap(&other);
      if (run.result != RESULT_OK) {
        vkt::expect_kept(run, before, code);
        EXPECT_EQ(std::memcmp(&other, &untouched, sizeof other), 0);
        EXPECT_EQ(std::memcmp(table, table_before.data(), 32768 * 4), 0);
        EXPECT_EQ(V_SetUserMatchTable(table), table);
      }
      b.reset();
    };
    prepare();
    rows.stop_at = 9;  // the row callback stops at row 9
    check({0, op(), false}, 5);
    {
      vkt::StatusRecorder rec;
      rec.refuse_at = 52;  // the status callback refuses at 52%
      prepare();
      check({0, op(), false}, 77);
    }
    long points = 0;
    vkt::fault_sweep(prepare, op, [&](const vkt::SweepRun& run) { check(run, RESULT_FAIL), points = run.n; });
    EXPECT_GT(points, 4);
  }
  V_SetUserMatchTable(previous);
  V_FreeUserMatchTable(table);
}

BitmapList make_list(int items, int width, int height, vkt::Rgb (*colour)(int, int, int)) {
  BitmapList list = nullptr;
  EXPECT_EQ(V_CreateBitmapList(&list), RESULT_OK);
  for (int k = 0; k < items; ++k) {
    vkt::Bitmap b(width + k, height, 24);
    b.fill([&](int x, int y) { return colour(k, x, y); });
    BitmapHandle h = b.release();
    EXPECT_EQ(V_InsertBitmapListItem(list, 99, &h), RESULT_OK);
  }
  return list;
}

std::vector<RGBQUAD> item_palette(BitmapList list, uint32_t i) {
  BitmapHandle item;
  EXPECT_EQ(V_GetBitmapListItem(list, i, &item), RESULT_OK);
  std::vector<RGBQUAD> pal(item.ColorCount);
  V_GetBitmapPaletteEntries(&item, 0, int32_t(pal.size()), pal.data());
  return pal;
}

TEST(ColorResList, OneSharedPaletteForEveryItem) {
  const long base = vk::fault::live_total();
  BitmapList list = make_list(3, 40, 20, [](int k, int x, int y) {
    return vkt::Rgb{uint8_t(x * 6 + k * 20), uint8_t(y * 12), uint8_t(k * 90 + x)};
  });
  uint32_t* mine = V_SetUserMatchTable(nullptr);
  V_SetUserMatchTable(mine);
  Rows rows;
  ASSERT_EQ(V_ColorResBitmapListExt(list, 8, RESOLVE_OPTIMISED, nullptr, nullptr, 0, &Rows::list,
                                    reinterpret_cast<intptr_t>(&rows)),
            RESULT_OK);
  EXPECT_EQ(V_SetUserMatchTable(mine), mine);  // the thread's table is back
  ASSERT_EQ(rows.items.size(), 60u);
  for (size_t i = 0; i < 60; ++i) {
    EXPECT_EQ(rows.items[i], i / 20);
    EXPECT_EQ(rows.numbers[i], int32_t(i % 20));
  }
  const std::vector<RGBQUAD> first = item_palette(list, 0);
  EXPECT_EQ(first.size(), 256u);
  for (uint32_t i = 1; i < 3; ++i) {
    const std::vector<RGBQUAD> pal = item_palette(list, i);
    ASSERT_EQ(pal.size(), first.size());
    EXPECT_EQ(std::memcmp(pal.data(), first.data(), pal.size() * sizeof(RGBQUAD)), 0) << "item " << i;
  }
  EXPECT_EQ(V_DestroyBitmapList(list), RESULT_OK);
  EXPECT_EQ(vk::fault::live_total(), base);  // the items' old storage went with the conversion
}

TEST(ColorResList, CallersFreeEntriesReceiveTheChosenColours) {
  BitmapList list = make_list(2, 4, 1, [](int k, int x, int) { return vkt::Rgb{uint8_t(10 * x + k), 50, 60}; });
  std::vector<RGBQUAD> pal(16, RGBQUAD{0, 0, 0, 2});  // free entries
  pal[0] = RGBQUAD{255, 255, 255, 0};                 // one fixed entry
  ASSERT_EQ(V_ColorResBitmapList(list, 4, RESOLVE_OPTIMISED, pal.data(), nullptr, 16), RESULT_OK);
  // Nine exact colours (4 + 5 pixels), sorted by red, in the free entries
  // after the fixed one; the unused free entries at the end are dropped.
  const uint8_t reds[10] = {255, 0, 1, 10, 11, 20, 21, 30, 31, 41};
  for (int i = 0; i < 10; ++i) EXPECT_EQ(pal[i].rgbRed, reds[i]) << i;
  EXPECT_EQ(pal[1].rgbGreen, 50);
  EXPECT_EQ(item_palette(list, 1).size(), 10u);
  EXPECT_EQ(V_DestroyBitmapList(list), RESULT_OK);
}

}  // namespace
