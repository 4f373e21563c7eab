// Duplication and whole-bitmap copies: what a duplicate takes from its
// source, region hooks, row copies between any two storage kinds, copy
// progress, failures that leave the destination untouched.
#include "fault_sweep.h"
#include "storage_helpers.h"

// Fault sweeps in this file.
VKT_SWEEPS(V_CopyBitmap, V_CopyBitmap2);

namespace {

using namespace vkt;

// ---- region hook of the display dispatch table ------------------------------------------

int g_hook_calls = 0;
int32_t g_hook_result = RESULT_OK;
int32_t VK_CALL region_hook(BitmapHandle* destination, BitmapHandle* source, int32_t dx, int32_t dy) {
  ++g_hook_calls;
  EXPECT_EQ(destination, source);
  EXPECT_EQ(dx, 0);
  EXPECT_EQ(dy, 0);
  if (g_hook_result == RESULT_OK) destination->Region = reinterpret_cast<VK_HRGN>(uintptr_t{0xC0DE});
  return g_hook_result;
}

class StorageCopy : public StorageTest {
 protected:
  void TearDown() override {
    V_SetCopyStatusCallBack(nullptr, 0);
    V_SetStatusCallBack(nullptr, 0);
    StorageTest::TearDown();
  }
  BitmapHandle make(int32_t type, int32_t width = 13, int32_t height = 10, int32_t bits = 24) {
    BitmapHandle b = init(width, height, bits);
    EXPECT_EQ(V_AllocateBitmap(&b, type), RESULT_OK);
    return b;
  }
};

TEST_F(StorageCopy, DuplicateTakesAttributesAndChoosesStorageFromTheSource) {
  BitmapHandle src = make(TYPE_DISK, 8, 6, 8);
  src.Flags |= 0x200u | 0x10000u | BITMAP_PLAYBACK_FLAG1;
  src.ViewPerspective = 4;
  src.XResolution = 96;
  src.YResolution = 72;
  src.Order = ORDER_RGB;
  src.PlaybackValue3 = 17;
  src.PaintLut[1] = 200;
  src.Palette = V_OsAllocInit(256 * sizeof(RGBQUAD), 1);  // shared by the duplicates
  src.Flags |= PALETTE_IS_TABLE;
  src.Region = reinterpret_cast<VK_HRGN>(uintptr_t{0x5678});

  BitmapHandle d;
  std::memset(&d, 0xAB, sizeof d);
  ASSERT_EQ(V_DupBitmapNewDim(&d, &src, 20, 3, 8, DUP_ALLOCATE), RESULT_OK);
  EXPECT_EQ(d.Width, 20);
  EXPECT_EQ(d.Height, 3);
  EXPECT_EQ(d.Flags & (0x200u | 0x10000u | BITMAP_PLAYBACK_FLAG1), 0x200u | 0x10000u | BITMAP_PLAYBACK_FLAG1);
  EXPECT_EQ(memory_type(&d), TYPE_DISK);
  EXPECT_EQ(d.ViewPerspective, 4);
  EXPECT_EQ(d.XResolution, 96);
  EXPECT_EQ(d.YResolution, 72);
  EXPECT_EQ(d.PlaybackValue3, 17u);
  EXPECT_EQ(d.PaintLut[1], 200);
  EXPECT_EQ(d.Palette, src.Palette);
  EXPECT_EQ(d.Region, src.Region);
  EXPECT_EQ(V_FreeDuplicateBitmap(&d, DUP_ALLOCATE), RESULT_OK);
  EXPECT_EQ(d.Palette, nullptr);  // forgotten, not freed

  // Without DUP_ALLOCATE the duplicate has no storage; a memory source gives memory.
  ASSERT_EQ(V_DupBitmapNewDim(&d, &src, 5, 5, 24, 0), RESULT_OK);
  EXPECT_FALSE(d.Flags & BITMAP_ALLOCATED);
  EXPECT_EQ(V_FreeDuplicateBitmap(&d, 0), RESULT_OK);
  V_FreeBitmap(&src);  // the palette is still the source's to free

  BitmapHandle mem = make(TYPE_CONVENTIONAL);
  ASSERT_EQ(V_DupBitmapNewDim(&d, &mem, 5, 5, 24, DUP_ALLOCATE), RESULT_OK);
  EXPECT_EQ(memory_type(&d), TYPE_CONVENTIONAL);
  V_FreeDuplicateBitmap(&d, DUP_ALLOCATE);
  V_FreeBitmap(&mem);
}

TEST_F(StorageCopy, DuplicateRefusesMissingRecords) {
  BitmapHandle none = init(4, 4, 8);
  BitmapHandle d{};
  EXPECT_EQ(V_DupBitmapNewDim(&d, &none, 4, 4, 8, 0), RESULT_NO_BITMAP);
  EXPECT_EQ(V_DupBitmapNewDim(&d, nullptr, 4, 4, 8, 0), RESULT_NO_BITMAP);
  BitmapHandle src = make(TYPE_CONVENTIONAL);
  EXPECT_EQ(V_DupBitmapNewDim(nullptr, &src, 4, 4, 8, 0), RESULT_NO_BITMAP);
  const BitmapHandle before = d;
  EXPECT_EQ(V_DupBitmapNewDim(&d, &src, 4, 4, 9, DUP_ALLOCATE), RESULT_BAD_BITS_PER_PIXEL);
  EXPECT_EQ(std::memcmp(&d, &before, sizeof d), 0);
  EXPECT_EQ(V_FreeDuplicateBitmap(nullptr, 0), RESULT_BAD_PARAMETER);
  V_FreeBitmap(&src);
}

TEST_F(StorageCopy, OwnRegionComesFromTheHookOrIsNone) {
  BitmapHandle src = make(TYPE_CONVENTIONAL);
  src.Region = reinterpret_cast<VK_HRGN>(uintptr_t{0x5678});
  BitmapHandle d{};
  ASSERT_EQ(V_DupBitmapNewDim(&d, &src, 4, 4, 8, DUP_OWN_REGION), RESULT_OK);
  EXPECT_EQ(d.Region, nullptr);  // no hook: no region
  V_FreeDuplicateBitmap(&d, DUP_OWN_REGION);

  g_hook_calls = 0, g_hook_result = RESULT_OK;
  const Hooks hooks{{1, hook(region_hook)}};
  ASSERT_EQ(V_DupBitmapNewDim(&d, &src, 4, 4, 8, DUP_OWN_REGION), RESULT_OK);
  EXPECT_EQ(g_hook_calls, 1);
  EXPECT_EQ(d.Region, reinterpret_cast<VK_HRGN>(uintptr_t{0xC0DE}));
  EXPECT_EQ(src.Region, reinterpret_cast<VK_HRGN>(uintptr_t{0x5678}));
  V_FreeDuplicateBitmap(&d, DUP_OWN_REGION);

  g_hook_result = RESULT_FAIL;
  std::memset(&d, 0, sizeof d);
  EXPECT_EQ(V_DupBitmapNewDim(&d, &src, 4, 4, 8, DUP_ALLOCATE | DUP_OWN_REGION), RESULT_FAIL);
  EXPECT_EQ(src.Region, reinterpret_cast<VK_HRGN>(uintptr_t{0x5678}));
  EXPECT_FALSE(d.Flags & BITMAP_ALLOCATED);  // released; live count checked at the end
  src.Region = nullptr;
  V_FreeBitmap(&src);
}

TEST_F(StorageCopy, CopyDataNeedsTwoAllocatedRecordsOfOneGeometry) {
  BitmapHandle a = make(TYPE_CONVENTIONAL);
  BitmapHandle none = init(13, 10, 24);
  EXPECT_EQ(V_CopyBitmapData(&none, &a), RESULT_NO_BITMAP);
  EXPECT_EQ(V_CopyBitmapData(&a, &none), RESULT_NO_BITMAP);
  EXPECT_EQ(V_CopyBitmapData(nullptr, &a), RESULT_NO_BITMAP);
  EXPECT_EQ(V_CopyBitmapData(&a, &a), RESULT_OK);
  BitmapHandle other = make(TYPE_CONVENTIONAL, 13, 11, 24);
  EXPECT_EQ(V_CopyBitmapData(&other, &a), RESULT_BAD_PARAMETER);
  V_FreeBitmap(&other);
  V_FreeBitmap(&a);
}

TEST_F(StorageCopy, RowsCopyBetweenEveryPairOfKinds) {
  struct Kind {
    const char* name;
    int32_t type;
    bool tiny;
  };
  const Kind kinds[] = {{"memory", TYPE_CONVENTIONAL, false}, {"disk", TYPE_DISK, false}, {"tiles", TYPE_TILED, true}};
  for (const Kind& from : kinds) {
    for (const Kind& to : kinds) {
      SCOPED_TRACE(std::string(from.name) + " to " + to.name);
      V_SetMemoryThresholds(0, 0x7FFFFFFF, 0, -100, 1, 31);
      if (from.tiny) tiny_tiles(40, 3);
      BitmapHandle s = make(from.type);
      fill(&s, 11);
      V_SetMemoryThresholds(0, 0x7FFFFFFF, 0, -100, 1, 31);
      if (to.tiny) tiny_tiles(40, 4);
      BitmapHandle d = make(to.type);
      ASSERT_EQ(V_CopyBitmapData(&d, &s), RESULT_OK);
      EXPECT_TRUE(holds_pattern(&d, 11));
      V_FreeBitmap(&d);
      V_FreeBitmap(&s);
    }
  }
}

TEST_F(StorageCopy, WholeCopiesGetTheirOwnStorage) {
  tiny_tiles(40, 3);
  BitmapHandle src = make(TYPE_TILED);
  V_SetMemoryThresholds(0, 0x7FFFFFFF, 0, -100, 1, 31);
  fill(&src, 12);
  src.XResolution = 123;
  BitmapHandle d{};
  EXPECT_EQ(V_CopyBitmap(nullptr, &src), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_CopyBitmap(&d, nullptr), RESULT_BAD_PARAMETER);
  const BitmapHandle same = src;
  EXPECT_EQ(V_CopyBitmap(&src, &src), RESULT_OK);
  EXPECT_EQ(std::memcmp(&src, &same, sizeof src), 0);

  ASSERT_EQ(V_CopyBitmap(&d, &src), RESULT_OK);
  EXPECT_EQ(memory_type(&d), TYPE_CONVENTIONAL);
  EXPECT_EQ(d.XResolution, 123);
  EXPECT_TRUE(holds_pattern(&d, 12));
  V_FreeBitmap(&d);

  for (int32_t type : {TYPE_CONVENTIONAL, TYPE_DISK, TYPE_NO_DISK}) {
    SCOPED_TRACE(type);
    ASSERT_EQ(V_CopyBitmap2(&d, &src, type), RESULT_OK);
    EXPECT_EQ(memory_type(&d), type == TYPE_DISK ? TYPE_DISK : TYPE_CONVENTIONAL);
    EXPECT_TRUE(holds_pattern(&d, 12));
    V_FreeBitmap(&d);
  }
  std::memset(&d, 0, sizeof d);
  const BitmapHandle blank = d;
  EXPECT_EQ(V_CopyBitmap2(&d, &src, 3), RESULT_BAD_PARAMETER);
  EXPECT_EQ(std::memcmp(&d, &blank, sizeof d), 0);
  V_FreeBitmap(&src);
}

std::vector<int32_t> g_percents;
int32_t g_stop_at = -1;
int32_t VK_CALL record_percent(int32_t percent, intptr_t data) {
  EXPECT_EQ(data, 77);
  g_percents.push_back(percent);
  return percent == g_stop_at ? 0 : RESULT_OK;
}
int32_t VK_CALL never_called(int32_t, intptr_t) {
  ADD_FAILURE() << "the ordinary status callback is not used by copies";
  return RESULT_OK;
}

TEST_F(StorageCopy, ProgressGoesToTheCopyCallbackAndCanStopTheCopy) {
  BitmapHandle src = make(TYPE_CONVENTIONAL, 13, 3, 24);
  fill(&src);
  V_SetStatusCallBack(never_called, 0);
  V_SetCopyStatusCallBack(record_percent, 77);
  g_percents.clear();
  g_stop_at = -1;
  BitmapHandle d{};
  ASSERT_EQ(V_CopyBitmap(&d, &src), RESULT_OK);
  EXPECT_EQ(g_percents, (std::vector<int32_t>{0, 33, 66, 100}));  // 100/3 a row, remainder carried
  EXPECT_TRUE(holds_pattern(&d, 0));
  V_FreeBitmap(&d);

  g_percents.clear();
  g_stop_at = 66;
  std::memset(&d, 0, sizeof d);
  EXPECT_EQ(V_CopyBitmap(&d, &src), 0);
  EXPECT_EQ(g_percents, (std::vector<int32_t>{0, 33, 66}));
  EXPECT_FALSE(d.Flags & BITMAP_ALLOCATED);
  V_SetCopyStatusCallBack(nullptr, 0);
  V_SetStatusCallBack(nullptr, 0);
  V_FreeBitmap(&src);
}

TEST_F(StorageCopy, FailedCopiesLeaveTheDestinationUntouched) {
  tiny_tiles(40, 3, -100, 1);  // every tile in memory: no temp file outlives a round
  BitmapHandle src = make(TYPE_TILED);
  ASSERT_EQ(tile_info(&src).memory, 4u);
  fill(&src, 13);
  for (int32_t type : {0, TYPE_CONVENTIONAL, TYPE_DISK, TYPE_TILED}) {
    SCOPED_TRACE(type);
    BitmapHandle d{}, before{};
    sweep([&] { std::memset(&d, 0x5C, sizeof d), before = d; },
          [&] { return type == 0 ? V_CopyBitmap(&d, &src) : V_CopyBitmap2(&d, &src, type); },
          [&](const SweepRun& run) {
            if (run.result == RESULT_OK) {
              EXPECT_TRUE(holds_pattern(&d, 13));
              V_FreeBitmap(&d);
            } else {
              EXPECT_EQ(std::memcmp(&d, &before, sizeof d), 0);
            }
          });
    EXPECT_TRUE(holds_pattern(&src, 13));
  }
  V_FreeBitmap(&src);
}

}  // namespace
