// Allocators and fault injection.
#include <gtest/gtest.h>

#include "core.h"
#include "fault_sweep.h"
#include "platform.h"

namespace {

TEST(Alloc, OsBlocksKeepTheirHandleAndGrowZeroed) {
  const long base = vk::fault::live_total();
  auto* p = static_cast<uint8_t*>(V_OsAllocInit(100, 1));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(p[i], 0);
  VK_HGLOBAL h = vk::plat::global_handle(p);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(vk::plat::global_size(h), 100u);
  EXPECT_EQ(vk::plat::global_lock_count(h), 1u);  // kept locked for life
  std::memset(p, 0xAB, 100);
  p = static_cast<uint8_t*>(V_OsReAllocInit(p, 5000));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p[99], 0xAB);
  EXPECT_EQ(p[100], 0);
  EXPECT_EQ(p[4999], 0);
  EXPECT_EQ(V_OsFree(p), 0);
  EXPECT_EQ(V_OsFree(nullptr), 0);
  EXPECT_EQ(vk::fault::live_total(), base);
}

TEST(Alloc, FailedOsReallocKeepsTheOldBlock) {
  uint8_t* p = nullptr;
  void* grown = nullptr;
  vkt::fault_sweep([&] { p = static_cast<uint8_t*>(V_OsAlloc(16)), p[0] = 7; },
                   [&] { return (grown = V_OsReAlloc(p, 1 << 20)) ? RESULT_OK : RESULT_FAIL; },
                   [&](const vkt::SweepRun& run) {
                     if (run.result != RESULT_OK) {
                       EXPECT_EQ(p[0], 7);
                       EXPECT_EQ(vk::plat::global_lock_count(vk::plat::global_handle(p)), 1u);
                     }
                     V_OsFree(run.result == RESULT_OK ? grown : p);
                   });
}

// The switch the sweeps are built on: only the n-th point fails, or with
// persistence every point from it on.
TEST(Alloc, FaultSwitchFailsExactlyTheNthPoint) {
  vk::fault::arm(2);
  void* a = V_Malloc(8);
  void* b = V_Malloc(8);
  void* c = V_Malloc(8);
  vk::fault::disarm();
  EXPECT_NE(a, nullptr);
  EXPECT_EQ(b, nullptr);
  EXPECT_NE(c, nullptr);
  EXPECT_TRUE(vk::fault::fired());
  V_Free(a);
  V_Free(c);

  vk::fault::arm(1, /*persistent=*/true);
  EXPECT_EQ(V_Calloc(1, 8), nullptr);
  EXPECT_EQ(V_OsAlloc(8), nullptr);
  vk::fault::disarm();
}

TEST(Alloc, ReallocNullAllocatesAndFreeNullIsHarmless) {
  void* p = V_Realloc(nullptr, 10);
  ASSERT_NE(p, nullptr);
  V_Free(p);
  V_Free(nullptr);
}

}  // namespace
