// Converting whole 1-bit bitmaps between packed and compressed storage.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <random>
#include <vector>

#include "compressed.h"
#include "core.h"
#include "fault_sweep.h"

// Fault sweeps in this file.
VKT_SWEEPS(V_ChangeBitmapCompression, V_ToggleBitmapCompression, V_GrowBitmapHeap, V_TrimBitmapHeap);

namespace {

using Bytes = std::vector<uint8_t>;

struct Image {
  BitmapHandle b{};
  std::vector<Bytes> rows;
  Image(int32_t width, int32_t height, int32_t type, uint32_t seed) {
    EXPECT_EQ(V_InitBitmap(&b, width, height, 1), RESULT_OK);
    EXPECT_EQ(V_AllocateBitmap(&b, type), RESULT_OK);
    std::mt19937 g(seed);
    for (int32_t r = 0; r < height; ++r) {
      Bytes row(b.BytesPerLine, 0);
      if (r % 2) {
        for (auto& v : row) v = static_cast<uint8_t>(g());
      } else {
        int c = 0;
        for (int32_t x = 0; x < width;) {
          const int32_t len = 1 + static_cast<int32_t>(g() % (g() % 3 ? 50 : 80000));
          for (int32_t i = 0; i < len && x < width; ++i, ++x)
            if (c) row[x / 8] |= static_cast<uint8_t>(0x80 >> (x % 8));
          c ^= 1;
        }
      }
      for (uint32_t x = static_cast<uint32_t>(width); x < 8 * b.BytesPerLine; ++x)
        row[x / 8] &= static_cast<uint8_t>(~(0x80 >> (x % 8)));
      EXPECT_EQ(V_PutBitmapRow(&b, row.data(), r, static_cast<int32_t>(row.size())), static_cast<int32_t>(row.size()));
      rows.push_back(row);
    }
  }
  ~Image() { V_FreeBitmap(&b); }
  void expect_rows() {
    for (size_t r = 0; r < rows.size(); ++r) {
      Bytes back(b.BytesPerLine, 0xEE);
      ASSERT_EQ(V_GetBitmapRow(&b, back.data(), static_cast<uint32_t>(r), static_cast<int32_t>(back.size())),
                static_cast<int32_t>(back.size()));
      ASSERT_EQ(back, rows[r]) << "row " << r;
    }
  }
};

TEST(ChangeCompression, ArgumentsAndNothingToDo) {
  EXPECT_EQ(V_ChangeBitmapCompression(nullptr, 1), RESULT_NO_BITMAP);
  BitmapHandle none{};
  ASSERT_EQ(V_InitBitmap(&none, 10, 10, 1), RESULT_OK);
  EXPECT_EQ(V_ChangeBitmapCompression(&none, 1), RESULT_NO_BITMAP);
  EXPECT_EQ(V_ToggleBitmapCompression(&none), RESULT_NO_BITMAP);
  EXPECT_EQ(V_ToggleBitmapCompression(nullptr), RESULT_NO_BITMAP);

  Image img(40, 3, TYPE_CONVENTIONAL, 1);
  const BitmapHandle before = img.b;
  EXPECT_EQ(V_ChangeBitmapCompression(&img.b, 3), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_ChangeBitmapCompression(&img.b, -1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_ChangeBitmapCompression(&img.b, 0), RESULT_OK);     // already packed
  EXPECT_EQ(V_ChangeBitmapCompression(&img.b, 2), RESULT_FAIL);   // no super-compressed storage
  EXPECT_EQ(std::memcmp(&img.b, &before, sizeof before), 0);

  BitmapHandle gray{};
  ASSERT_EQ(V_InitBitmap(&gray, 4, 4, 8), RESULT_OK);
  ASSERT_EQ(V_AllocateBitmap(&gray, TYPE_CONVENTIONAL), RESULT_OK);
  EXPECT_EQ(V_ToggleBitmapCompression(&gray), RESULT_NO_BITMAP);
  V_FreeBitmap(&gray);
}

TEST(ChangeCompression, RoundTripKeepsEveryRowAtManyWidths) {
  const long base = vk::fault::live_total();
  for (int32_t width : {1, 13, 100, 65536, 70001}) {
    Image img(width, 7, TYPE_CONVENTIONAL, static_cast<uint32_t>(width));
    void* palette = img.b.Palette;
    ASSERT_EQ(V_ToggleBitmapCompression(&img.b), RESULT_OK);
    ASSERT_TRUE(img.b.Flags & BITMAP_COMPRESSED);
    EXPECT_EQ(img.b.Palette, palette);  // the palette passes to the new storage
    EXPECT_EQ(img.b.Size, vk::cmp::heap_size(&img.b));
    EXPECT_EQ(V_TrimBitmapHeap(&img.b), 0);  // already trimmed
    ASSERT_NO_FATAL_FAILURE(img.expect_rows());
    EXPECT_EQ(V_ChangeBitmapCompression(&img.b, 1), RESULT_OK);  // nothing to do
    ASSERT_EQ(V_ToggleBitmapCompression(&img.b), RESULT_OK);
    ASSERT_FALSE(img.b.Flags & BITMAP_COMPRESSED);
    EXPECT_EQ(img.b.Size, img.b.BytesPerLine * 7u);
    ASSERT_NO_FATAL_FAILURE(img.expect_rows());
  }
  EXPECT_EQ(vk::fault::live_total(), base);
}

// Every allocation failing in turn: a storage change is either done with
// every row kept, or fails and leaves the record and the rows as they were
// (the heap calls report a failure as 0).
TEST(ChangeCompression, FailuresLeaveTheBitmapAsItWas) {
  const struct {
    const char* name;
    int32_t type;
    int32_t (*run)(BitmapHandle*);
  } ops[] = {
      {"compress", TYPE_CONVENTIONAL, [](BitmapHandle* b) { return V_ChangeBitmapCompression(b, 1); }},
      {"expand", TYPE_COMPRESSED, [](BitmapHandle* b) { return V_ChangeBitmapCompression(b, 0); }},
      {"toggle to compressed", TYPE_CONVENTIONAL, [](BitmapHandle* b) { return V_ToggleBitmapCompression(b); }},
      {"toggle to packed", TYPE_COMPRESSED, [](BitmapHandle* b) { return V_ToggleBitmapCompression(b); }},
      {"grow", TYPE_COMPRESSED, [](BitmapHandle* b) { return V_GrowBitmapHeap(b, 1 << 20); }},
      {"trim", TYPE_COMPRESSED, [](BitmapHandle* b) { return V_TrimBitmapHeap(b); }},
  };
  for (const auto& op : ops) {
    SCOPED_TRACE(op.name);
    std::optional<Image> img;
    vkt::Snapshot before;
    long points = 0;
    vkt::fault_sweep([&] { img.emplace(300, 20, op.type, 5), before = vkt::Snapshot(&img->b); },
                     [&] { return op.run(&img->b); },
                     [&](const vkt::SweepRun& run) {
                       points = run.n;
                       if (run.result == RESULT_OK) {
                         EXPECT_NO_FATAL_FAILURE(img->expect_rows());
                       } else {
                         EXPECT_LE(run.result, 0);
                         EXPECT_TRUE(before.unchanged());
                       }
                       img.reset();
                     });
    EXPECT_GT(points, 1);  // it allocates, so the sweep failed something
  }
}

}  // namespace

namespace {

TEST(ChangeCompression, RowCallsOnCompressedStorageWorkFromTheByteOfTheColumn) {
  BitmapHandle b{};
  ASSERT_EQ(V_InitBitmap(&b, 30, 2, 1), RESULT_OK);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_COMPRESSED), RESULT_OK);
  ASSERT_TRUE(b.Flags & BITMAP_COMPRESSED);
  const uint8_t one = 0xA5;
  EXPECT_EQ(V_PutBitmapRowCol(&b, &one, 1, 13, 1), 1);  // stored from column 8
  uint8_t back[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  EXPECT_EQ(V_GetBitmapRowCol(&b, back, 1, 0, 4), 4);
  EXPECT_EQ(back[0], 0x00);
  EXPECT_EQ(back[1], 0xA5);
  EXPECT_EQ(back[2], 0x00);
  EXPECT_EQ(back[3], 0x00);  // the row ends at 30: bits past it read 0
  EXPECT_EQ(V_PutBitmapRowCol(&b, &one, 1, 32, 1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(b.Size, vk::cmp::heap_size(&b));
  V_FreeBitmap(&b);
}

}  // namespace
