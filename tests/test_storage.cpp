// Storage: the choice of memory type, every storage kind holding the same
// pixels, locking, height changes, storage-parameter changes, thresholds,
// temp directory, and the fault sweeps that check nothing leaks.
#if !defined(_WIN32)
#include <signal.h>
#include <sys/wait.h>
#endif

#include "storage_helpers.h"
#include "storage.h"
#include "tiles.h"
#include "fault_sweep.h"

// Fault sweeps in this file.
VKT_SWEEPS(V_AllocateBitmap, V_ChangeBitmapHeight, V_SetBitmapMemoryInfo);

namespace {

using namespace vkt;

// ---- kinds of storage, as the tests make them ---------------------------------------

enum class Kind { memory, disk, tiles_disk, tiles_mixed, tiles_unmapped, user, global };

const char* name(Kind k) {
  static const char* const names[] = {"memory", "disk", "tiles on disk, one mapped", "tiles, two in memory",
                                      "tiles never mapped", "user", "global"};
  return names[static_cast<int>(k)];
}
constexpr Kind kAllKinds[] = {Kind::memory, Kind::disk,  Kind::tiles_disk, Kind::tiles_mixed,
                              Kind::tiles_unmapped, Kind::user, Kind::global};

class Storage : public StorageTest {
 protected:
  // 13 x 10 at 24 bits: 40 bytes per row (one pad byte), tiles of 3 rows.
  BitmapHandle make(Kind k, int32_t width = 13, int32_t height = 10, int32_t bits = 24) {
    EXPECT_EQ(V_SetMemoryThresholds(0, 0x7FFFFFFF, 0, -100, 1, 31), RESULT_OK);
    BitmapHandle b = init(width, height, bits);
    switch (k) {
      case Kind::memory:
      case Kind::disk:
        EXPECT_EQ(V_AllocateBitmap(&b, k == Kind::memory ? TYPE_CONVENTIONAL : TYPE_DISK), RESULT_OK);
        break;
      case Kind::tiles_disk:
      case Kind::tiles_mixed:
      case Kind::tiles_unmapped:
        // Memory limit M and mapped limit V leave M - V memory tiles.
        tiny_tiles(b.BytesPerLine, 3, k == Kind::tiles_mixed ? 3 : 0, k == Kind::tiles_unmapped ? 0 : 1);
        EXPECT_EQ(V_AllocateBitmap(&b, TYPE_TILED), RESULT_OK);
        break;
      case Kind::user:
        EXPECT_EQ(V_AllocateBitmap(&b, TYPE_USER), RESULT_OK);
        user_.assign(b.Size, 0);
        EXPECT_EQ(V_SetBitmapDataPointer(&b, user_.data(), b.Size), RESULT_OK);
        break;
      case Kind::global:
        b = global_bitmap(width, height, bits, 12);
        EXPECT_EQ(V_LockBitmap(&b), 0);
        break;
    }
    return b;
  }
  void release(BitmapHandle* b) {
    if (b->Flags & BITMAP_GLOBAL_MEMORY) V_UnlockBitmap(b, 0);
    V_FreeBitmap(b);
  }
  std::vector<uint8_t> user_;
};

// ---- the choice of memory type ---------------------------------------------------------

TEST_F(Storage, MemoryTypesAreNormalisedAndChecked) {
  struct Case {
    int32_t bits, type, result;
    uint32_t kind_flag;  // storage flag expected on success
  };
  const Case cases[] = {
      {8, 0, RESULT_BAD_PARAMETER, 0},
      {8, 3, RESULT_BAD_PARAMETER, 0},
      {8, 512, RESULT_BAD_PARAMETER, 0},       // the 512 bit drops: type 0
      {8, 513, RESULT_OK, BITMAP_IN_MEMORY},   // ... leaving plain memory
      {8, 1024, RESULT_BAD_PARAMETER, 0},      // the 1024 bit drops: type 0
      {24, 1024, RESULT_FAIL, 0},              // super-compressed is not available
      {24, 1025, RESULT_FAIL, 0},
      {8, 1, RESULT_OK, BITMAP_IN_MEMORY},
      {8, 2, RESULT_OK, BITMAP_USER_DATA},
      {8, 4, RESULT_OK, BITMAP_IN_MEMORY},     // small: flat whatever was asked
      {8, 8, RESULT_OK, BITMAP_IN_MEMORY},
      {8, 128, RESULT_OK, BITMAP_ON_DISK},
      {8, 256, RESULT_OK, BITMAP_IN_MEMORY},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("bits " + std::to_string(c.bits) + " type " + std::to_string(c.type));
    BitmapHandle b = init(40, 5, c.bits);
    const BitmapHandle before = b;
    EXPECT_EQ(V_AllocateBitmap(&b, c.type), c.result);
    if (c.result == RESULT_OK) {
      EXPECT_TRUE(b.Flags & BITMAP_ALLOCATED);
      EXPECT_TRUE(b.Flags & c.kind_flag);
      EXPECT_FALSE(b.Flags & BITMAP_TILED);
      V_FreeBitmap(&b);
    } else {
      EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
    }
  }
  EXPECT_EQ(V_AllocateBitmap(nullptr, 1), RESULT_BAD_PARAMETER);
  BitmapHandle empty = init(0, 5, 8);
  EXPECT_EQ(V_AllocateBitmap(&empty, 1), RESULT_BAD_AREA);
}

// V_InitBitmap keeps its 32-bit arithmetic, so a huge width wraps
// BytesPerLine to a few bytes; storage is refused to any record whose
// numbers disagree, and so are the operations on a caller's record.
TEST_F(Storage, RecordsWhoseNumbersDisagreeGetNoStorage) {
  struct Case {
    const char* what;
    int32_t width, height, bits;
  } const cases[] = {
      {"width 2^27+1 at 64 bits", (1 << 27) + 1, 1, 64},
      {"width 2^30+1 at 32 bits", (1 << 30) + 1, 1, 32},
      {"negative width", -8, 4, 8},
      {"negative height", 8, -4, 8},
      {"Size wraps", 0x10000, 0x10001, 8},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    BitmapHandle b;
    EXPECT_EQ(V_CreateBitmap(&b, TYPE_CONVENTIONAL, c.width, c.height, c.bits, ORDER_RGB, nullptr, 2, nullptr, 0),
              RESULT_BAD_PARAMETER);
    EXPECT_FALSE(b.Flags & BITMAP_ALLOCATED);
    BitmapHandle r = init(c.width, c.height, c.bits);
    EXPECT_EQ(V_AllocateBitmap(&r, TYPE_DISK), RESULT_BAD_PARAMETER);
  }

  // A sound bitmap whose record a caller altered afterwards.
  BitmapHandle b = init(16, 4, 64);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
  const BitmapHandle sound = b;
  b.Width = (1 << 27) + 1;
  uint32_t count = 0;
  EXPECT_EQ(V_GrayScaleBitmap(&b, 8), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetBitmapColorCountExt(&b, &count, nullptr), RESULT_BAD_PARAMETER);
  RGBQUAD pal[256];
  uint32_t colors = 256;
  EXPECT_EQ(V_CreateOptimizedPalette(&b, pal, &colors, nullptr, nullptr, 0), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_ColorResBitmap(&b, &b, 8, RESOLVE_OPTIMISED, nullptr, nullptr, 256, nullptr, 0), RESULT_BAD_PARAMETER);
  b.Width = 16;
  EXPECT_EQ(std::memcmp(&b, &sound, sizeof b), 0);
  V_FreeBitmap(&b);
}

#if !defined(_WIN32)
// Temp files have no name while they are open, so a process killed while
// it holds disk and tile storage leaves nothing in the temp directory.
// (Windows deletes them when the killed process's handles close.)
TEST_F(Storage, AKilledProcessLeavesNoTempFiles) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    BitmapHandle disk = init(100, 100, 24), tiled = init(100, 100, 24);
    tiny_tiles(300, 10, 0, 1);
    const char ok = V_AllocateBitmap(&disk, TYPE_DISK) == RESULT_OK && V_AllocateBitmap(&tiled, TYPE_TILED) == RESULT_OK
                        ? 'y' : 'n';
    if (write(ready[1], &ok, 1) != 1) _exit(1);
    for (;;) pause();
  }
  close(ready[1]);
  char ok = 0;
  ASSERT_EQ(read(ready[0], &ok, 1), 1);
  close(ready[0]);
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(ok, 'y');
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(files_in(dir_), 0u);
}
#endif

TEST_F(Storage, FlatMemoryIsAlignedWithIdentityPaintTable) {
  for (int32_t width : {1, 7, 33, 100}) {
    BitmapHandle b = init(width, 3, 8);
    ASSERT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
    EXPECT_EQ(b.Flags, BITMAP_ALLOCATED | BITMAP_IN_MEMORY);
    EXPECT_NE(b.StorageHandle, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b.Data) % 32, 0u);
    EXPECT_LT(b.AlignOffset, 32u);
    ASSERT_NE(b.PaintLut, nullptr);
    for (int i = 0; i < 256; ++i) EXPECT_EQ(b.PaintLut[i], i);
    // Paging-file sections start zeroed.
    std::vector<uint8_t> row(b.BytesPerLine, 0xEE);
    EXPECT_EQ(V_GetBitmapRow(&b, row.data(), 2, static_cast<int32_t>(b.BytesPerLine)),
              static_cast<int32_t>(b.BytesPerLine));
    EXPECT_EQ(row, std::vector<uint8_t>(b.BytesPerLine, 0));
    V_FreeBitmap(&b);
    EXPECT_EQ(b.Flags & BITMAP_ALLOCATED, 0u);
    EXPECT_EQ(b.PaintLut, nullptr);
    EXPECT_EQ(b.Width, width);  // geometry stays
  }
}

TEST_F(Storage, SixteenMebibytesWithDefaultTileSizeIsFlatEvenWhenTilesAreAsked) {
  ASSERT_EQ(V_SetMemoryThresholds(0, 0, 0, 0, 0, THRESHOLD_TILED | THRESHOLD_TILE_SIZE), RESULT_OK);
  BitmapHandle b = init(4096, 4096, 8);
  ASSERT_EQ(b.Size, 16777216u);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_TILED), RESULT_OK);
  EXPECT_EQ(memory_type(&b), TYPE_CONVENTIONAL);
  V_FreeBitmap(&b);
}

TEST_F(Storage, DiskStorageIsOneTempFileOfSizePlusOne) {
  BitmapHandle b = init(13, 10, 24);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_DISK), RESULT_OK);
  EXPECT_EQ(b.Flags, BITMAP_ALLOCATED | BITMAP_ON_DISK);
  EXPECT_EQ(memory_type(&b), TYPE_DISK);
  EXPECT_EQ(disk_file_size(b), b.Size + 1u);
  EXPECT_EQ(temp_files(), 1u);
  EXPECT_EQ(files_in(dir_), kNamedTempFiles);  // POSIX: nameless from the start, nothing survives a crash
  V_FreeBitmap(&b);
  EXPECT_EQ(files_in(dir_), 0u);
}

TEST_F(Storage, TilesFollowTheThresholdsAndTheMemoryStatus) {
  // 100 rows of 40 bytes, tiles of 400 bytes: 10 tiles of 10 rows.
  struct Case {
    const char* what;
    int32_t reserve, tiled, memory_limit, mapped_limit;
    uint64_t avail_each;
    int32_t type;
    int32_t want_type;
    uint32_t memory_tiles, max_mapped;
  };
  const Case cases[] = {
      {"threshold below size", 0, 3999, -100, 1, 1u << 30, 1, TYPE_TILED, 10, 0},
      {"threshold at size", 0, 4000, -100, 1, 1u << 30, 1, TYPE_CONVENTIONAL, 0, 0},
      {"memory short", 0, 0x7FFFFFFF, -100, 1, 1000, 1, TYPE_TILED, 4, 1},  // 2000 / 400: five tiles fit
      {"reserve eats memory", 1 << 20, 0x7FFFFFFF, -100, 1, 500000, 1, TYPE_TILED, 0, 1},
      {"percent threshold", 0, -1, -100, 1, 100000, 1, TYPE_TILED, 10, 0},  // 1% of 200000 < 4000
      {"asked for tiles", 0, 0x7FFFFFFF, -100, 1, 1u << 30, 4, TYPE_TILED, 10, 0},
      {"half in memory", 0, 0, -50, 1, 1u << 30, 4, TYPE_TILED, 4, 1},
      {"no memory tiles", 0, 0, 0, 3, 1u << 30, 4, TYPE_TILED, 0, 1},  // V > M: V = 1, none in memory
      {"mapped as memory", 0, 0, 5, -100, 1u << 30, 4, TYPE_TILED, 0, 5},
      {"mapped none with no memory", 0, 0, 0, -100, 1u << 30, 4, TYPE_TILED, 0, 1},
      {"mapped by percent", 0, 0, -50, -50, 1u << 30, 4, TYPE_TILED, 0, 5},   // (10-5)*50/50 = 5
      {"mapped capped by memory", 0, 0, -50, -75, 1u << 30, 4, TYPE_TILED, 0, 5},  // 5*75/25 = 15 > 5
      {"no tiles: disk", 0, 0, -100, 1, 1u << 30, 8, TYPE_DISK, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(V_SetMemoryThresholds(c.reserve, c.tiled, 400, c.memory_limit, c.mapped_limit, 31), RESULT_OK);
    set_memory(uint64_t{1} << 32, c.avail_each);
    BitmapHandle b = init(10, 100, 32);
    ASSERT_EQ(V_AllocateBitmap(&b, c.type), RESULT_OK);
    const TileInfo i = tile_info(&b);
    EXPECT_EQ(i.type, c.want_type);
    if (c.want_type == TYPE_TILED) {
      EXPECT_EQ(i.tile_size, 400u);
      EXPECT_EQ(i.total, 10u);
      EXPECT_EQ(i.memory, c.memory_tiles);
      EXPECT_EQ(i.max_mapped, c.max_mapped);
      EXPECT_EQ(i.mapped, 0u);
      EXPECT_EQ(temp_files(), 10u - c.memory_tiles);
    }
    V_FreeBitmap(&b);
  }
}

TEST_F(Storage, NoDiskNeverFallsBackToDisk) {
  // Memory reported short and no temp directory: flat memory is skipped,
  // tiles need temp files, and no-disk stops there.
  set_memory(uint64_t{1} << 32, 100);
  ASSERT_EQ(V_SetMemoryThresholds(0, 0, 400, 0, 1, THRESHOLD_TILE_SIZE | THRESHOLD_MEMORY_TILES), RESULT_OK);
  const std::string gone = dir_ + "/gone";
  fs::create_directory(gone);
  ASSERT_EQ(V_SetTempDirectory(gone.c_str()), RESULT_OK);
  fs::remove(gone);
  BitmapHandle b = init(10, 100, 32);
  const BitmapHandle before = b;
  EXPECT_EQ(V_AllocateBitmap(&b, TYPE_NO_DISK), RESULT_FAIL);
  EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
  EXPECT_EQ(V_AllocateBitmap(&b, TYPE_DISK), RESULT_FAIL);
  ASSERT_EQ(V_SetTempDirectory(dir_.c_str()), RESULT_OK);
  // With temp files available the same request gets tiles, never one file.
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_NO_DISK), RESULT_OK);
  EXPECT_EQ(memory_type(&b), TYPE_TILED);
  EXPECT_EQ(temp_files(), 10u);
  V_FreeBitmap(&b);
}

// ---- the same pixels through every kind ------------------------------------------------------

TEST_F(Storage, EveryKindKeepsThePixels) {
  for (Kind k : kAllKinds) {
    SCOPED_TRACE(name(k));
    BitmapHandle b = make(k);
    fill(&b, 3);
    EXPECT_TRUE(holds_pattern(&b, 3));
    // Column reads that cross rows and, for tiles, tile borders (rows 2|3, 5|6).
    for (uint32_t row : {0u, 2u, 5u, 7u}) {
      std::vector<uint8_t> got(50, 0);
      ASSERT_EQ(V_GetBitmapRowCol(&b, got.data(), row, 11, 50), 50);  // column 11 = byte 33
      for (uint32_t i = 0; i < 50; ++i) {
        const uint32_t at = 33 + i;
        EXPECT_EQ(got[i], pattern(row + at / 40, at % 40, 3)) << "row " << row << " i " << i;
      }
    }
    if (k == Kind::tiles_disk || k == Kind::tiles_mixed) { EXPECT_LE(tile_info(&b).mapped, 1u); }
    if (k == Kind::tiles_unmapped) { EXPECT_EQ(tile_info(&b).mapped, 0u); }
    release(&b);
  }
}

TEST_F(Storage, UserMemoryBelongsToTheCaller) {
  BitmapHandle b = init(8, 4, 8);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_USER), RESULT_OK);
  EXPECT_EQ(b.Data, nullptr);
  uint8_t row[8];
  EXPECT_EQ(V_GetBitmapRow(&b, row, 0, 8), RESULT_NO_BITMAP);
  std::vector<uint8_t> pixels(b.Size, 0x5A);
  EXPECT_EQ(V_SetBitmapDataPointer(&b, pixels.data(), b.Size - 1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_SetBitmapDataPointer(&b, pixels.data(), b.Size), RESULT_OK);
  EXPECT_EQ(memory_type(&b), TYPE_CONVENTIONAL);
  EXPECT_EQ(V_GetBitmapRow(&b, row, 3, 8), 8);
  EXPECT_EQ(row[7], 0x5A);
  EXPECT_EQ(V_ChangeBitmapHeight(&b, 2), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_SetBitmapDataPointer(&b, nullptr, 0), RESULT_OK);  // detaches
  EXPECT_EQ(b.Data, nullptr);
  V_FreeBitmap(&b);
  EXPECT_EQ(pixels[0], 0x5A);
}

TEST_F(Storage, GlobalMemoryIsReachableOnlyWhileLocked) {
  BitmapHandle b = global_bitmap(10, 4, 8, 20);
  uint8_t row[12] = {};
  EXPECT_EQ(V_GetBitmapRow(&b, row, 0, 12), RESULT_NO_BITMAP);
  EXPECT_EQ(V_LockBitmap(&b), 0);
  ASSERT_TRUE(b.Flags & BITMAP_LOCKED);
  EXPECT_EQ(b.Data, static_cast<uint8_t*>(vk::plat::global_lock(b.StorageHandle)) + 20);
  vk::plat::global_unlock(b.StorageHandle);
  EXPECT_EQ(V_LockBitmap(&b), 1);   // already locked
  V_UnlockBitmap(&b, 1);            // kept locked
  EXPECT_TRUE(b.Flags & BITMAP_LOCKED);
  fill(&b);
  EXPECT_EQ(V_ChangeBitmapHeight(&b, 6), RESULT_BAD_PARAMETER);  // locked
  V_ReleaseBitmap(&b);
  EXPECT_FALSE(b.Flags & BITMAP_LOCKED);
  EXPECT_EQ(b.Data, nullptr);
  EXPECT_EQ(vk::plat::global_lock_count(b.StorageHandle), 0u);
  V_AccessBitmap(&b);
  EXPECT_TRUE(holds_pattern(&b));
  // Reported as plain memory, with no tile size written.
  int32_t type = 0;
  uint32_t untouched = 77;
  EXPECT_EQ(V_GetBitmapMemoryInfo(&b, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetBitmapMemoryInfo(&b, &type, &untouched, nullptr, nullptr, nullptr, nullptr), RESULT_OK);
  EXPECT_EQ(type, TYPE_CONVENTIONAL);
  EXPECT_EQ(untouched, 77u);
  V_ReleaseBitmap(&b);
  V_FreeBitmap(&b);  // frees the block
}

TEST_F(Storage, FreeingARecordWithoutStorageStillFreesItsPalette) {
  BitmapHandle b = init(4, 4, 8);
  b.Palette = V_OsAlloc(256 * sizeof(RGBQUAD));
  b.Flags |= PALETTE_IS_TABLE;
  V_FreeBitmap(&b);
  EXPECT_EQ(b.Palette, nullptr);
  V_FreeBitmap(nullptr);
}

// ---- demand mapping ----------------------------------------------------------------------------

TEST_F(Storage, DiskTilesAreMappedOnDemandOldestFirst) {
  BitmapHandle b = init(10, 40, 32);  // 40 bytes a row; tiles of 4 rows: 10 tiles
  tiny_tiles(40, 4, 3, 3);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_TILED), RESULT_OK);
  fill(&b);
  auto* t = vk::tiles::table_of(&b);
  auto order = [&] {
    std::vector<uint32_t> o;
    for (uint32_t i = 0; i < t->mapped_tile_count; ++i) o.push_back(static_cast<uint32_t>(vk::tiles::entries(t)[i].order));
    return o;
  };
  uint8_t row[40];
  for (uint32_t r : {0u, 4u, 8u}) ASSERT_EQ(V_GetBitmapRow(&b, row, r, 40), 40);
  // fill mapped every tile in turn; the last three stay, oldest first.
  ASSERT_EQ(V_GetBitmapRow(&b, row, 12, 40), 40);
  EXPECT_EQ(order(), (std::vector<uint32_t>{1, 2, 3}));
  ASSERT_EQ(V_GetBitmapRow(&b, row, 39, 40), 40);
  EXPECT_EQ(order(), (std::vector<uint32_t>{2, 3, 9}));
  EXPECT_EQ(vk::tiles::entries(t)[1].view, nullptr);
  EXPECT_TRUE(holds_pattern(&b));
  V_FreeBitmap(&b);
}

// ---- memory-info changes -------------------------------------------------------------------------

TEST_F(Storage, TilesMoveBetweenMemoryAndDiskInPlace) {
  BitmapHandle b = init(10, 40, 32);
  tiny_tiles(40, 4, 2, 2);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_TILED), RESULT_OK);
  fill(&b, 5);
  void* table = b.Data;
  struct Step {
    uint32_t memory, max_mapped, mapped, which;
    uint32_t want_memory, want_max, want_mapped;
  };
  const Step steps[] = {
      {6, 0, 0, MEMINFO_MEMORY_TILES, 6, 2, 2},                       // mapped count kept at most max
      {10, 0, 0, MEMINFO_MEMORY_TILES, 10, 2, 0},                     // all in memory
      {99, 0, 0, MEMINFO_MEMORY_TILES, 10, 2, 0},                     // capped at the tile count
      {3, 4, 4, MEMINFO_MEMORY_TILES | MEMINFO_MAX_MAPPED | MEMINFO_MAPPED, 3, 4, 4},
      {0, 20, 1, MEMINFO_MEMORY_TILES | MEMINFO_MAX_MAPPED | MEMINFO_MAPPED, 0, 10, 1},
      {0, 0, 9, MEMINFO_MAPPED, 0, 10, 9},
      {0, 0, 0, MEMINFO_TYPE | MEMINFO_MAPPED, 0, 10, 0},             // same type: in place
  };
  for (const Step& s : steps) {
    SCOPED_TRACE("memory tiles " + std::to_string(s.memory));
    ASSERT_EQ(V_SetBitmapMemoryInfo(&b, TYPE_TILED, 160, 0, s.memory, s.max_mapped, s.mapped, s.which), RESULT_OK);
    const TileInfo i = tile_info(&b);
    EXPECT_EQ(b.Data, table);
    EXPECT_EQ(i.memory, s.want_memory);
    EXPECT_EQ(i.max_mapped, s.want_max);
    EXPECT_EQ(i.mapped, s.want_mapped);
    EXPECT_EQ(temp_files(), 10u - s.want_memory);
    EXPECT_TRUE(holds_pattern(&b, 5));
  }
  V_FreeBitmap(&b);
}

TEST_F(Storage, RebuildingIntoAnotherTypeKeepsPixelsAndAttributes) {
  struct Case {
    Kind from;
    int32_t type;
    uint32_t tile_size, which;
    int32_t want;
    bool small_tiles;  // tile-size setting below the bitmap's size
  };
  const Case cases[] = {
      {Kind::memory, TYPE_DISK, 0, MEMINFO_TYPE, TYPE_DISK, false},
      {Kind::disk, TYPE_CONVENTIONAL, 0, MEMINFO_TYPE, TYPE_CONVENTIONAL, false},
      {Kind::tiles_disk, TYPE_CONVENTIONAL, 0, MEMINFO_TYPE, TYPE_CONVENTIONAL, false},
      {Kind::tiles_disk, TYPE_DISK, 0, MEMINFO_TYPE, TYPE_DISK, false},
      {Kind::memory, TYPE_TILED, 200, MEMINFO_TYPE | MEMINFO_TILE_SIZE, TYPE_TILED, true},
      {Kind::memory, TYPE_TILED, 200, MEMINFO_TYPE | MEMINFO_TILE_SIZE, TYPE_CONVENTIONAL, false},  // too small for tiles
      {Kind::tiles_mixed, TYPE_TILED, 200, MEMINFO_TILE_SIZE, TYPE_TILED, true},  // new rows per tile
      {Kind::global, TYPE_DISK, 0, MEMINFO_TYPE, TYPE_DISK, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(name(c.from)) + " to " + std::to_string(c.type));
    BitmapHandle b = make(c.from);
    fill(&b, 9);
    if (c.from == Kind::global) V_UnlockBitmap(&b, 0);
    ASSERT_EQ(V_SetMemoryThresholds(0, 0x7FFFFFFF, c.small_tiles ? 120 : 0, -100, 1, 31), RESULT_OK);
    b.XResolution = 300;
    b.PlaybackValue2 = 42;
    if (b.PaintLut) b.PaintLut[7] = 99;
    ASSERT_EQ(V_SetBitmapMemoryInfo(&b, c.type, c.tile_size, 0, 0, 0, 0, c.which), RESULT_OK);
    EXPECT_EQ(memory_type(&b), c.want);
    EXPECT_TRUE(holds_pattern(&b, 9));
    EXPECT_EQ(b.XResolution, 300);
    EXPECT_EQ(b.PlaybackValue2, 42u);
    if (b.PaintLut) { EXPECT_EQ(b.PaintLut[7], 99); }
    if (c.want == TYPE_TILED) { EXPECT_EQ(tile_info(&b).tile_size, 200u); }
    V_FreeBitmap(&b);
    EXPECT_EQ(files_in(dir_), 0u);
  }
}

TEST_F(Storage, MemoryInfoChangeOnNonTiledSameTypeDoesNothing) {
  BitmapHandle b = make(Kind::memory);
  const BitmapHandle before = b;
  EXPECT_EQ(V_SetBitmapMemoryInfo(&b, TYPE_CONVENTIONAL, 5, 5, 5, 5, 5, 63), RESULT_OK);
  EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
  EXPECT_EQ(V_SetBitmapMemoryInfo(&b, TYPE_USER, 0, 0, 0, 0, 0, MEMINFO_TYPE), RESULT_BAD_PARAMETER);
  V_FreeBitmap(&b);
  EXPECT_EQ(V_SetBitmapMemoryInfo(&b, TYPE_DISK, 0, 0, 0, 0, 0, MEMINFO_TYPE), RESULT_NO_BITMAP);
}

// ---- height changes ---------------------------------------------------------------------------------

TEST_F(Storage, HeightChangesKeepTheRowsOfEveryKind) {
  for (Kind k : {Kind::memory, Kind::disk, Kind::tiles_disk, Kind::tiles_mixed, Kind::tiles_unmapped, Kind::global}) {
    SCOPED_TRACE(name(k));
    BitmapHandle b = make(k);
    fill(&b, 1);
    if (k == Kind::global) V_UnlockBitmap(&b, 0);
    auto lock = [&] { if (k == Kind::global) V_LockBitmap(&b); };
    auto unlock = [&] { if (k == Kind::global) V_UnlockBitmap(&b, 0); };
    for (int32_t h : {17, 4, 1, 12, 9, 3, 7}) {
      SCOPED_TRACE("height " + std::to_string(h));
      const int32_t old = b.Height;
      ASSERT_EQ(V_ChangeBitmapHeight(&b, h), RESULT_OK);
      EXPECT_EQ(b.Height, h);
      EXPECT_EQ(b.CachedRow, 0);
      EXPECT_EQ(b.CachedRowOffset, 0u);
      lock();
      EXPECT_TRUE(holds_pattern(&b, 1, 0, std::min(old, h)));
      // Rows beyond the kept ones are written afresh so the next round can check them.
      fill(&b, 1);
      unlock();
      switch (k) {
        case Kind::memory:
          EXPECT_EQ(b.Size, b.BytesPerLine * static_cast<uint32_t>(h) + b.AlignOffset);
          EXPECT_EQ(reinterpret_cast<uintptr_t>(b.Data) % 32, 0u);
          break;
        case Kind::disk:
          EXPECT_EQ(disk_file_size(b), b.BytesPerLine * static_cast<uint32_t>(h));
          break;
        case Kind::global:
          EXPECT_EQ(vk::plat::global_size(b.StorageHandle), b.BytesPerLine * static_cast<uint32_t>(h) + 12u);
          break;
        default: {
          const TileInfo i = tile_info(&b);
          EXPECT_EQ(i.total, static_cast<uint32_t>((h + 2) / 3));
          EXPECT_LE(i.memory, i.total);
          EXPECT_EQ(temp_files(), i.total - i.memory);
        }
      }
    }
    EXPECT_EQ(V_ChangeBitmapHeight(&b, 0), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_ChangeBitmapHeight(&b, b.Height), RESULT_OK);
    release(&b);
  }
  BitmapHandle none = init(4, 4, 8);
  EXPECT_EQ(V_ChangeBitmapHeight(&none, 8), RESULT_NO_BITMAP);
  EXPECT_EQ(V_ChangeBitmapHeight(nullptr, 8), RESULT_NO_BITMAP);
  int32_t type = 0;
  EXPECT_EQ(V_GetBitmapMemoryInfo(&none, &type, nullptr, nullptr, nullptr, nullptr, nullptr), RESULT_NO_BITMAP);
}

// ---- settings ------------------------------------------------------------------------------------------

TEST_F(Storage, ThresholdsAreCheckedInOrderAndKeepEarlierValues) {
  EXPECT_EQ(V_SetMemoryThresholds(5000, -101, 0, 0, 0, THRESHOLD_MEMORY_RESERVE | THRESHOLD_TILED),
            RESULT_BAD_PARAMETER);
  int32_t v[5] = {};
  V_GetMemoryThresholds(&v[0], &v[1], &v[2], &v[3], &v[4]);
  EXPECT_EQ(v[0], 5000);
  EXPECT_EQ(v[1], 0x7FFFFFFF);
  EXPECT_EQ(V_SetMemoryThresholds(0, 0, -1, 0, 0, THRESHOLD_TILE_SIZE), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_SetMemoryThresholds(0, 0, 0, -101, 0, THRESHOLD_MEMORY_TILES), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_SetMemoryThresholds(0, 0, 0, 0, -101, THRESHOLD_MAPPED_TILES), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_SetMemoryThresholds(-100, -100, 0, -100, -100, 31), RESULT_OK);
  V_GetMemoryThresholds(&v[0], &v[1], &v[2], &v[3], &v[4]);
  EXPECT_EQ(v[0], -100);
  EXPECT_EQ(v[4], -100);
}

TEST_F(Storage, TempDirectoryMustBeADirectory) {
  EXPECT_EQ(V_SetTempDirectory(nullptr), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_SetTempDirectory((dir_ + "/missing").c_str()), RESULT_BAD_PARAMETER);
  const std::string file = dir_ + "/plain";
  FILE* f = fopen(file.c_str(), "w");
  ASSERT_NE(f, nullptr);
  fclose(f);
  EXPECT_EQ(V_SetTempDirectory(file.c_str()), RESULT_BAD_PARAMETER);
  fs::remove(file);
  char out[VK_MAX_PATH];
  EXPECT_EQ(V_GetTempDirectory(nullptr, 10), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetTempDirectory(out, VK_MAX_PATH), RESULT_OK);
  EXPECT_EQ(std::string(out), dir_);
  char small[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(V_GetTempDirectory(small, 3), RESULT_OK);
  EXPECT_EQ(std::string(small, 4), dir_.substr(0, 3) + "x");
}

// ---- fault sweeps -----------------------------------------------------------------------------------------

TEST_F(Storage, FailedAllocationsLeaveNothingBehind) {
  struct Case {
    const char* what;
    int32_t type, memory_limit, mapped_limit;
    bool tiles;
  };
  const Case cases[] = {
      {"memory", TYPE_CONVENTIONAL, 0, 1, false},
      {"disk", TYPE_DISK, 0, 1, false},
      {"user", TYPE_USER, 0, 1, false},
      {"tiles on disk", TYPE_TILED, 0, 1, true},
      {"tiles in memory", TYPE_TILED, -100, 1, true},
      {"tiles mixed", TYPE_TILED, 3, 1, true},
      {"no disk", TYPE_NO_DISK, 3, 1, true},
      {"no tiles", TYPE_NO_TILED, 3, 1, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    if (c.tiles) tiny_tiles(40, 3, c.memory_limit, c.mapped_limit);
    BitmapHandle b{}, before{};
    sweep([&] { b = before = init(10, 10, 32); }, [&] { return V_AllocateBitmap(&b, c.type); },
          [&](const SweepRun& run) {
            if (run.result == RESULT_OK) {
              if (c.type != TYPE_USER) {
                fill(&b, 2);
                EXPECT_TRUE(holds_pattern(&b, 2));
              }
              V_FreeBitmap(&b);
            } else {
              EXPECT_TRUE(run.result == RESULT_FAIL || run.result == RESULT_WRITE_FAILED) << run.result;
              EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
            }
          });
    ASSERT_EQ(V_SetMemoryThresholds(0, 0x7FFFFFFF, 0, -100, 1, 31), RESULT_OK);
  }
}

TEST_F(Storage, FailedHeightChangesLeaveUsableBitmaps) {
  for (Kind k : {Kind::memory, Kind::disk, Kind::tiles_disk, Kind::tiles_mixed, Kind::global}) {
    for (int32_t h : {4, 17}) {
      SCOPED_TRACE(std::string(name(k)) + " to " + std::to_string(h));
      BitmapHandle b{}, before{};
      sweep(
          [&] {
            b = make(k);
            fill(&b, 4);
            if (k == Kind::global) V_UnlockBitmap(&b, 0);
            before = b;
          },
          [&] { return V_ChangeBitmapHeight(&b, h); },
          [&](const SweepRun& run) {
            const int32_t r = run.result;
            if (k == Kind::global) V_LockBitmap(&b);
            if (r == RESULT_OK) {
              EXPECT_EQ(b.Height, h);
            } else if (r == RESULT_TEMP_FILE_FAILED) {
              // Tiles: the bitmap ends with the last tile that could be made.
              EXPECT_EQ(b.Height % 3, 0);
              EXPECT_GE(b.Height, before.Height);
            } else {
              EXPECT_EQ(r, RESULT_FAIL);
              if (!(b.Flags & BITMAP_TILED)) {
                if (k == Kind::global) V_UnlockBitmap(&b, 0);
                EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
                if (k == Kind::global) V_LockBitmap(&b);
              }
            }
            EXPECT_TRUE(holds_pattern(&b, 4, 0, std::min(b.Height, before.Height)));
            release(&b);
          });
    }
  }
}

TEST_F(Storage, FailedMemoryInfoChangesLeaveTheBitmapWhole) {
  struct Case {
    const char* what;
    Kind from;
    int32_t type;
    uint32_t tile_size, memory, which;
    bool small_tiles;
  };
  const Case cases[] = {
      {"tiles to memory tiles", Kind::tiles_disk, TYPE_TILED, 0, 4, MEMINFO_MEMORY_TILES, false},
      {"tiles to disk tiles", Kind::tiles_mixed, TYPE_TILED, 0, 0, MEMINFO_MEMORY_TILES, false},
      {"memory to disk", Kind::memory, TYPE_DISK, 0, 0, MEMINFO_TYPE, false},
      {"tiles to memory", Kind::tiles_mixed, TYPE_CONVENTIONAL, 0, 0, MEMINFO_TYPE, false},
      {"memory to tiles", Kind::memory, TYPE_TILED, 80, 1, MEMINFO_TYPE | MEMINFO_TILE_SIZE | MEMINFO_MEMORY_TILES,
       true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    BitmapHandle b{}, before{};
    sweep(
        [&] {
          b = make(c.from);
          fill(&b, 6);
          if (c.small_tiles) { ASSERT_EQ(V_SetMemoryThresholds(0, 0, 120, 0, 0, THRESHOLD_TILE_SIZE), RESULT_OK); }
          before = b;
        },
        [&] { return V_SetBitmapMemoryInfo(&b, c.type, c.tile_size, 0, c.memory, 0, 0, c.which); },
        [&](const SweepRun& run) {
          if (run.result != RESULT_OK) EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
          EXPECT_TRUE(holds_pattern(&b, 6));
          V_FreeBitmap(&b);
        });
  }
}

// A rebuild stopped part-way by the copy callback has read some rows of the
// bitmap: the row cache they moved comes back with the rest of the record.
int32_t VK_CALL stop_at_half(int32_t percent, intptr_t) { return percent >= 50 ? 7 : RESULT_OK; }

TEST_F(Storage, StoppedRebuildLeavesTheRecordWhole) {
  for (const Kind k : {Kind::memory, Kind::disk}) {
    SCOPED_TRACE(name(k));
    BitmapHandle b = make(k);
    fill(&b, 3);
    const BitmapHandle before = b;
    V_SetCopyStatusCallBack(stop_at_half, 0);
    EXPECT_EQ(V_SetBitmapMemoryInfo(&b, k == Kind::disk ? TYPE_CONVENTIONAL : TYPE_DISK, 0, 0, 0, 0, 0, MEMINFO_TYPE), 7);
    V_SetCopyStatusCallBack(nullptr, 0);
    EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
    EXPECT_TRUE(holds_pattern(&b, 3));
    release(&b);
    EXPECT_EQ(files_in(dir_), 0u);
  }
}

// Compressed 1-bit storage goes through the same calls (64 pixels a row:
// no padding bits, so every byte of the pattern survives).
TEST_F(Storage, CompressedStorageWorksThroughTheSameCalls) {
  BitmapHandle b = init(64, 12, 1);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_COMPRESSED), RESULT_OK);
  EXPECT_EQ(b.Flags, BITMAP_ALLOCATED | BITMAP_IN_MEMORY | BITMAP_COMPRESSED);
  EXPECT_EQ(memory_type(&b), TYPE_COMPRESSED);
  fill(&b, 7);
  EXPECT_TRUE(holds_pattern(&b, 7));
  uint8_t px = 0;
  ASSERT_EQ(vk::storage::get_pixel_bytes(&b, &px, 3, 21), RESULT_OK);  // the byte of pixels 16-23
  EXPECT_EQ(px, pattern(3, 2, 7));

  // Height changes keep the rows.
  ASSERT_EQ(V_ChangeBitmapHeight(&b, 20), RESULT_OK);
  EXPECT_EQ(b.Height, 20);
  EXPECT_TRUE(holds_pattern(&b, 7, 0, 12));
  ASSERT_EQ(V_ChangeBitmapHeight(&b, 5), RESULT_OK);
  EXPECT_TRUE(holds_pattern(&b, 7, 0, 5));
  fill(&b, 7);

  // A copy moves the run lists.
  BitmapHandle c{};
  ASSERT_EQ(V_CopyBitmap(&c, &b), RESULT_OK);
  EXPECT_EQ(memory_type(&c), TYPE_COMPRESSED);
  EXPECT_TRUE(holds_pattern(&c, 7));
  V_FreeBitmap(&c);

  // Rebuilt into plain memory and back into compressed rows.
  ASSERT_EQ(V_SetBitmapMemoryInfo(&b, TYPE_CONVENTIONAL, 0, 0, 0, 0, 0, MEMINFO_TYPE), RESULT_OK);
  EXPECT_EQ(memory_type(&b), TYPE_CONVENTIONAL);
  EXPECT_TRUE(holds_pattern(&b, 7));
  ASSERT_EQ(V_SetBitmapMemoryInfo(&b, TYPE_COMPRESSED, 0, 0, 0, 0, 0, MEMINFO_TYPE), RESULT_OK);
  EXPECT_EQ(memory_type(&b), TYPE_COMPRESSED);
  EXPECT_TRUE(holds_pattern(&b, 7));
  V_FreeBitmap(&b);
}

// A tile attempt that fails (here: one temp file) is retried with tiles of
// half the size while memory would hold the bitmap.
TEST_F(Storage, FailedTileAttemptIsRetriedWithHalvedTiles) {
  ASSERT_EQ(V_SetMemoryThresholds(0, 0, 4000, 0, 1, 31 & ~THRESHOLD_MEMORY_RESERVE), RESULT_OK);
  bool halved = false;
  BitmapHandle b{}, before{};
  sweep([&] { b = before = init(10, 1000, 32); },  // 40000 bytes, tiles of 100 rows
        [&] { return V_AllocateBitmap(&b, TYPE_NO_DISK); },
        [&](const SweepRun& run) {
          if (run.result != RESULT_OK) {
            EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
            return;
          }
          const TileInfo i = tile_info(&b);
          EXPECT_TRUE(i.tile_size == 4000 || i.tile_size == 2000) << i.tile_size;
          if (i.tile_size == 2000) {
            halved = true;
            EXPECT_EQ(i.total, 20u);
            fill(&b);
            EXPECT_TRUE(holds_pattern(&b));
          }
          V_FreeBitmap(&b);
        });
  EXPECT_TRUE(halved);
}

// A rebuild into tiles given only a tile count splits the rows evenly.
TEST_F(Storage, RebuildIntoTilesFromATileCount) {
  BitmapHandle b = init(10, 10, 32);  // 40 bytes a row
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
  fill(&b, 14);
  ASSERT_EQ(V_SetMemoryThresholds(0, 0, 40, 0, 0, THRESHOLD_TILE_SIZE), RESULT_OK);
  ASSERT_EQ(V_SetBitmapMemoryInfo(&b, TYPE_TILED, 0, 4, 1, 2, 1,
                                  MEMINFO_TYPE | MEMINFO_TOTAL_TILES | MEMINFO_MEMORY_TILES | MEMINFO_MAX_MAPPED |
                                      MEMINFO_MAPPED),
            RESULT_OK);
  const TileInfo i = tile_info(&b);
  EXPECT_EQ(i.type, TYPE_TILED);
  EXPECT_EQ(i.tile_size, 120u);  // 3 rows: 3 + 3 + 3 + 1
  EXPECT_EQ(i.total, 4u);
  EXPECT_EQ(i.memory, 1u);
  EXPECT_EQ(i.max_mapped, 2u);
  EXPECT_EQ(i.mapped, 1u);
  EXPECT_EQ(temp_files(), 3u);
  EXPECT_TRUE(holds_pattern(&b, 14));
  V_FreeBitmap(&b);
}

}  // namespace
