// Display and file dispatch tables.
#include <gtest/gtest.h>

#include "core.h"
#include "dispatch.h"

namespace {

int32_t VK_CALL hook_a() { return 1; }
int32_t VK_CALL hook_b() { return 2; }

// Leaves both tables empty again (entry 1 null reads as "not set").
struct EmptyTables {
  ~EmptyTables() {
    VK_DISPATCHPROC none[VK_DISPATCH_ENTRIES] = {};
    V_SetDisDispatch(none);
    const uintptr_t zero = 0;
    V_SetFilDispatch(&zero);
  }
};

TEST(Dispatch, DisplayTableSetGetAndReset) {
  EmptyTables restore;
  VK_DISPATCHPROC out[VK_DISPATCH_ENTRIES] = {};
  EXPECT_EQ(V_GetDisDispatch(nullptr), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetDisDispatch(out), RESULT_NOT_SET);  // nothing installed yet
  EXPECT_EQ(V_SetDisDispatch(nullptr), RESULT_BAD_PARAMETER);

  // Entry 1 null: the rest is stored and reachable, but the table reads as unset.
  VK_DISPATCHPROC table[VK_DISPATCH_ENTRIES] = {};
  table[1] = hook_a;   // entry 2
  table[16] = hook_b;  // entry 17
  ASSERT_EQ(V_SetDisDispatch(table), RESULT_OK);
  EXPECT_EQ(V_GetDisDispatch(out), RESULT_NOT_SET);
  EXPECT_EQ(out[1], nullptr);  // nothing copied out
  EXPECT_EQ(vk::dispatch::entry(2), hook_a);
  EXPECT_EQ(vk::dispatch::entry(17), hook_b);
  EXPECT_EQ(vk::dispatch::entry(1), nullptr);

  for (int i = 0; i < VK_DISPATCH_ENTRIES; ++i) table[i] = (i % 2) ? hook_b : hook_a;
  ASSERT_EQ(V_SetDisDispatch(table), RESULT_OK);
  // The table is initialised, so a reset keeps the installed table.
  EXPECT_EQ(V_ResetDisDispatch(), RESULT_OK);
  vk::dispatch::reset_on_attach();
  ASSERT_EQ(V_GetDisDispatch(out), RESULT_OK);
  for (int i = 0; i < VK_DISPATCH_ENTRIES; ++i) {
    EXPECT_EQ(out[i], table[i]) << i;
    EXPECT_EQ(vk::dispatch::entry(i + 1), table[i]) << i;
  }
  for (int n : {0, -1, 21, 1000}) EXPECT_EQ(vk::dispatch::entry(n), nullptr) << n;
}

TEST(Dispatch, FileWord) {
  EmptyTables restore;
  uintptr_t out = 77;
  EXPECT_EQ(V_GetFilDispatch(&out), RESULT_NOT_SET);
  EXPECT_EQ(out, 77u);
  EXPECT_EQ(V_SetFilDispatch(nullptr), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetFilDispatch(nullptr), RESULT_BAD_PARAMETER);
  const uintptr_t word = 0xC0FFEE;
  ASSERT_EQ(V_SetFilDispatch(&word), RESULT_OK);
  ASSERT_EQ(V_GetFilDispatch(&out), RESULT_OK);
  EXPECT_EQ(out, word);
  const uintptr_t zero = 0;
  ASSERT_EQ(V_SetFilDispatch(&zero), RESULT_OK);  // a pointer to 0 unsets it
  EXPECT_EQ(V_GetFilDispatch(&out), RESULT_NOT_SET);
}

}  // namespace
