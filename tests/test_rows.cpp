// Row access: the row cache, column offsets, the bytes of one pixel,
// requests across rows and tiles, disk error codes, refusals.
#include <fcntl.h>

#include "storage.h"
#include "storage_helpers.h"

namespace {

using namespace vkt;

class StorageRows : public StorageTest {};

TEST_F(StorageRows, CacheStepsToNeighbouringRows) {
  BitmapHandle b = init(10, 20, 8);  // 12 bytes a row
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
  uint8_t row[12];
  const std::pair<uint32_t, uint32_t> visits[] = {{5, 60}, {6, 72}, {4, 48}, {4, 48}, {3, 36}, {19, 228}, {0, 0}};
  for (const auto& [r, offset] : visits) {
    ASSERT_EQ(V_GetBitmapRow(&b, row, r, 12), 12);
    EXPECT_EQ(b.CachedRow, static_cast<int32_t>(r));
    EXPECT_EQ(b.CachedRowOffset, offset);
  }
  V_FreeBitmap(&b);
}

TEST_F(StorageRows, ColumnsMapToTheBytesThatHoldThem) {
  struct Case {
    int32_t bits;
    uint32_t column, offset, pixel_bytes;
  };
  const Case cases[] = {
      {1, 3, 0, 1},  {1, 8, 1, 1},   {2, 5, 1, 1},   {3, 2, 0, 2},   {3, 3, 1, 1},  // 3 bits: bits 6-8, 9-11
      {4, 3, 1, 1},  {5, 0, 0, 1},   {5, 1, 0, 2},   {6, 1, 0, 2},   {6, 3, 2, 1},  // 6 bits: 6-11, 18-23
      {7, 8, 7, 1},  {7, 2, 1, 2},   {8, 9, 9, 1},   {12, 3, 4, 2},  {12, 4, 6, 2},
      {16, 5, 10, 2}, {24, 5, 15, 3}, {32, 5, 20, 4}, {48, 5, 30, 6}, {64, 5, 40, 8},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("bits " + std::to_string(c.bits) + " column " + std::to_string(c.column));
    EXPECT_EQ(vk::storage::column_offset(c.bits, c.column), c.offset);
    BitmapHandle b = init(64, 3, c.bits);
    ASSERT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
    fill(&b);
    uint8_t got[10];
    std::memset(got, 0xEE, sizeof got);
    ASSERT_EQ(V_GetBitmapRowCol(&b, got, 1, static_cast<int32_t>(c.column), 2), 2);
    EXPECT_EQ(got[0], pattern(1, c.offset));
    std::memset(got, 0xEE, sizeof got);
    ASSERT_EQ(vk::storage::get_pixel_bytes(&b, got, 2, static_cast<int32_t>(c.column)), RESULT_OK);
    for (uint32_t i = 0; i < 10; ++i)
      EXPECT_EQ(got[i], i < c.pixel_bytes ? pattern(2, c.offset + i) : 0xEE) << "byte " << i;
    V_FreeBitmap(&b);
  }
}

TEST_F(StorageRows, WritesAtAColumnTouchOnlyTheirBytes) {
  BitmapHandle b = init(16, 4, 24);  // 48 bytes a row
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_DISK), RESULT_OK);
  fill(&b);
  const uint8_t ink[6] = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(V_PutBitmapRowCol(&b, ink, 1, 15, 6), 6);  // last pixel of row 1, first of row 2
  uint8_t got[48];
  ASSERT_EQ(V_GetBitmapRow(&b, got, 1, 48), 48);
  EXPECT_EQ(got[44], pattern(1, 44));
  EXPECT_EQ(got[45], 1);
  EXPECT_EQ(got[47], 3);
  ASSERT_EQ(V_GetBitmapRow(&b, got, 2, 48), 48);
  EXPECT_EQ(got[0], 4);
  EXPECT_EQ(got[2], 6);
  EXPECT_EQ(got[3], pattern(2, 3));
  V_FreeBitmap(&b);
}

TEST_F(StorageRows, TiledReadFromTheLastRowOfATileContinuesInTheNext) {
  BitmapHandle b = init(10, 9, 32);  // 40 bytes a row, tiles of 4 rows
  tiny_tiles(40, 4, 0, 1);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_TILED), RESULT_OK);
  fill(&b);
  std::vector<uint8_t> got(80);
  ASSERT_EQ(V_GetBitmapRow(&b, got.data(), 3, 80), 80);
  for (uint32_t i = 0; i < 80; ++i) EXPECT_EQ(got[i], pattern(3 + i / 40, i % 40)) << i;
  // A write across two borders (bytes 160 and 320).
  std::vector<uint8_t> ink(250, 0x77);
  ASSERT_EQ(V_PutBitmapRowCol(&b, ink.data(), 2, 5, 250), 250);  // bytes 100..349
  std::vector<uint8_t> all(360);
  for (uint32_t r = 0; r < 9; ++r) ASSERT_EQ(V_GetBitmapRow(&b, all.data() + r * 40, r, 40), 40);
  for (uint32_t i = 0; i < 360; ++i)
    EXPECT_EQ(all[i], i >= 100 && i < 350 ? 0x77 : pattern(i / 40, i % 40)) << i;
  V_FreeBitmap(&b);
}

TEST_F(StorageRows, RequestsAreCheckedBeforeAByteMoves) {
  BitmapHandle b = init(10, 4, 8);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
  uint8_t buf[64] = {};
  EXPECT_EQ(V_GetBitmapRow(nullptr, buf, 0, 4), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetBitmapRow(&b, nullptr, 0, 4), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_PutBitmapRow(&b, nullptr, 0, 4), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetBitmapRowCol(&b, buf, 0, -1, 4), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetBitmapRow(&b, buf, 0, -4), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetBitmapRow(&b, buf, 0, 0), 0);
  // Past the end of memory storage: refused, not read.
  EXPECT_EQ(V_GetBitmapRow(&b, buf, 3, 13), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_PutBitmapRow(&b, buf, 4, 1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetBitmapRow(&b, buf, 3, 12), 12);
  BitmapHandle none = init(10, 4, 8);
  EXPECT_EQ(V_GetBitmapRow(&none, buf, 0, 4), RESULT_NO_BITMAP);
  EXPECT_EQ(vk::storage::get_pixel_bytes(&none, buf, 0, 0), RESULT_NO_BITMAP);
  V_FreeBitmap(&b);
}

// Column offsets are 64-bit: a deep pixel's column near 2^30 lies far past
// 4 GiB and must not wrap onto row 1, nor grow a disk file to 2 GiB.
TEST_F(StorageRows, FarColumnsAreRefusedOnEveryKind) {
  for (const int32_t type : {TYPE_CONVENTIONAL, TYPE_DISK, TYPE_TILED}) {
    SCOPED_TRACE(type);
    if (type == TYPE_TILED) tiny_tiles(64, 1, 0, 1);
    BitmapHandle b = init(16, 4, 32);
    ASSERT_EQ(V_AllocateBitmap(&b, type), RESULT_OK);
    fill(&b);
    const uint8_t px[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(V_PutBitmapRowCol(&b, px, 1, 0x40000000, 4), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_PutBitmapRowCol(&b, px, 0, 0x7FFFFFFF, 4), RESULT_BAD_PARAMETER);
    uint8_t out[4];
    EXPECT_EQ(V_GetBitmapRowCol(&b, out, 0, 0x7FFFFFFF, 4), RESULT_BAD_PARAMETER);
    EXPECT_TRUE(holds_pattern(&b));
    if (type == TYPE_DISK) EXPECT_EQ(disk_file_size(b), b.Size + 1u);
    V_FreeBitmap(&b);
  }
}

TEST_F(StorageRows, DiskFailuresHaveTheirOwnCodes) {
  BitmapHandle b = init(10, 4, 8);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_DISK), RESULT_OK);
  uint8_t buf[12] = {};

  // A handle that names no open file: positioning fails, the cache still moves.
  BitmapHandle bad = b;
  bad.StorageHandle = reinterpret_cast<VK_HANDLE>(intptr_t{4 * 4000});
  EXPECT_EQ(V_GetBitmapRow(&bad, buf, 2, 12), RESULT_SEEK_FAILED);
  EXPECT_EQ(bad.CachedRow, 2);
  EXPECT_EQ(bad.CachedRowOffset, 24u);
  EXPECT_EQ(V_PutBitmapRow(&bad, buf, 1, 12), RESULT_SEEK_FAILED);
  EXPECT_EQ(vk::storage::get_pixel_bytes(&bad, buf, 1, 0), RESULT_SEEK_FAILED);

  // A file opened for writing only cannot be read; one opened read-only cannot be written.
  const std::string path = dir_ + "/side";
  const VK_FILE w = V_OsOpen(path.c_str(), VK_O_WRONLY | VK_O_CREAT, VK_S_IREAD | VK_S_IWRITE, 0);
  ASSERT_NE(w, -1);
  bad.StorageHandle = reinterpret_cast<VK_HANDLE>(w);
  EXPECT_EQ(V_PutBitmapRow(&bad, buf, 0, 12), 12);
  EXPECT_EQ(V_GetBitmapRow(&bad, buf, 0, 12), RESULT_READ_FAILED);
  EXPECT_EQ(vk::storage::get_pixel_bytes(&bad, buf, 0, 0), RESULT_READ_FAILED);
  V_OsClose(w, 0);
  const VK_FILE r = V_OsOpen(path.c_str(), VK_O_RDONLY, VK_S_IREAD, 0);
  ASSERT_NE(r, -1);
  bad.StorageHandle = reinterpret_cast<VK_HANDLE>(r);
  EXPECT_EQ(V_GetBitmapRow(&bad, buf, 0, 12), 12);
  EXPECT_EQ(V_PutBitmapRow(&bad, buf, 0, 12), RESULT_WRITE_FAILED);
  // A short read is a count, not an error.
  EXPECT_EQ(V_GetBitmapRowCol(&bad, buf, 0, 4, 12), 8);
  V_OsClose(r, 0);
  V_OsDelete(path.c_str());

  // The file has one byte more than Size, but a request past the storage is
  // refused like in memory: a write there would grow the file.
  EXPECT_EQ(V_GetBitmapRow(&b, buf, 4, 12), RESULT_BAD_PARAMETER);
  V_FreeBitmap(&b);
}

TEST_F(StorageRows, TiledPixelsAndUnmappableTilesGoThroughTheFile) {
  BitmapHandle b = init(6, 12, 24);  // 20 bytes a row, tiles of 2 rows, none mapped
  tiny_tiles(20, 2, 0, 0);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_TILED), RESULT_OK);
  EXPECT_EQ(tile_info(&b).max_mapped, 0u);
  fill(&b, 8);
  for (uint32_t r = 0; r < 12; ++r) {
    uint8_t px[8] = {};
    ASSERT_EQ(vk::storage::get_pixel_bytes(&b, px, r, 5), RESULT_OK);
    EXPECT_EQ(px[0], pattern(r, 15, 8));
    EXPECT_EQ(px[2], pattern(r, 17, 8));
    EXPECT_EQ(px[3], 0);
  }
  EXPECT_EQ(tile_info(&b).mapped, 0u);
  V_FreeBitmap(&b);
}

}  // namespace
