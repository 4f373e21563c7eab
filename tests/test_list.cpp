// Bitmap lists: ordering, index clamping, ownership of item storage, and
// all-or-nothing copy, move and insert under allocation failures.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core.h"
#include "fault_sweep.h"
#include "platform.h"

// Fault sweeps in this file.
VKT_SWEEPS(V_CopyBitmapListItems, V_MoveBitmapListItems, V_InsertBitmapListItem, V_RemoveBitmapListItem);

namespace {

// An allocated 8-bit bitmap whose pixels are all `tag`, so items can be told
// apart after they moved.
BitmapHandle make_item(uint8_t tag) {
  BitmapHandle b;
  EXPECT_EQ(V_InitBitmap(&b, 7, 3, 8), RESULT_OK);
  EXPECT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
  std::vector<uint8_t> row(b.BytesPerLine, tag);
  for (uint32_t y = 0; y < 3; ++y) V_PutBitmapRow(&b, row.data(), y, int32_t(row.size()));
  return b;
}

int tag_of(BitmapHandle* b) {
  uint8_t px[8] = {};
  V_GetBitmapRow(b, px, 0, int32_t(b->BytesPerLine));
  return px[0];
}

// Tags of every item, in list order.
std::vector<int> tags(BitmapList l) {
  uint32_t n = 0;
  EXPECT_EQ(V_GetBitmapListCount(l, &n), RESULT_OK);
  std::vector<int> out;
  for (uint32_t i = 0; i < n; ++i) {
    BitmapHandle b;
    EXPECT_EQ(V_GetBitmapListItem(l, i, &b), RESULT_OK);
    out.push_back(tag_of(&b));
  }
  return out;
}

// A list holding items tagged 1..n.
BitmapList make_list(int n) {
  BitmapList l = nullptr;
  EXPECT_EQ(V_CreateBitmapList(&l), RESULT_OK);
  for (int i = 1; i <= n; ++i) {
    BitmapHandle b = make_item(uint8_t(i));
    EXPECT_EQ(V_InsertBitmapListItem(l, 0xFFFFFFFFu, &b), RESULT_OK);
  }
  return l;
}

TEST(BitmapList, BadArgumentsAreRejected) {
  EXPECT_EQ(V_CreateBitmapList(nullptr), RESULT_BAD_PARAMETER);
  BitmapHandle b{};
  uint32_t n = 0;
  BitmapList out = nullptr;
  int not_a_block = 0;  // a handle that gives no address
  BitmapList l = make_list(2);
  for (BitmapList bad : {BitmapList{nullptr}, BitmapList{&not_a_block}}) {
    EXPECT_EQ(V_DestroyBitmapList(bad), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_GetBitmapListCount(bad, &n), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_InsertBitmapListItem(bad, 0, &b), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_CopyBitmapListItems(&out, bad, 0, 1), RESULT_BAD_PARAMETER);
  }
  EXPECT_EQ(V_GetBitmapListCount(l, nullptr), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetBitmapListItem(l, 0, nullptr), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetBitmapListItem(l, 2, &b), RESULT_BAD_PARAMETER);  // index == count
  EXPECT_EQ(V_SetBitmapListItem(l, 2, &b), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_RemoveBitmapListItem(l, 2, &b), RESULT_BAD_PARAMETER);
  for (auto [index, count] : {std::pair<uint32_t, uint32_t>{2, 1}, {0, 0}}) {
    EXPECT_EQ(V_DeleteBitmapListItems(l, index, count), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_CopyBitmapListItems(&out, l, index, count), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_MoveBitmapListItems(&out, l, index, count), RESULT_BAD_PARAMETER);
  }
  EXPECT_EQ(V_MoveBitmapListItems(nullptr, l, 0, 1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(tags(l), (std::vector<int>{1, 2}));
  EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
}

TEST(BitmapList, InsertClampsTheIndexAndKeepsAnExactArray) {
  const long base = vk::fault::live_total();
  BitmapList l = make_list(3);
  struct Case { uint32_t index; std::vector<int> after; };
  const Case cases[] = {
      {1000, {1, 2, 3, 4}}, {0, {5, 1, 2, 3, 4}}, {2, {5, 1, 6, 2, 3, 4}}, {6, {5, 1, 6, 2, 3, 4, 7}}};
  uint8_t tag = 4;
  for (const Case& c : cases) {
    BitmapHandle b = make_item(tag++);
    ASSERT_EQ(V_InsertBitmapListItem(l, c.index, &b), RESULT_OK);
    EXPECT_EQ(tags(l), c.after) << "index " << c.index;
  }
  // The header's item array holds exactly count records.
  auto* header = static_cast<uint8_t*>(vk::plat::global_lock(l));
  vk::plat::global_unlock(l);
  void* items = *reinterpret_cast<void**>(header + sizeof(void*));
  EXPECT_EQ(vk::plat::global_size(vk::plat::global_handle(items)), 7 * sizeof(BitmapHandle));
  // A null record inserts zeros.
  ASSERT_EQ(V_InsertBitmapListItem(l, 0, nullptr), RESULT_OK);
  BitmapHandle z, zero{};
  ASSERT_EQ(V_GetBitmapListItem(l, 0, &z), RESULT_OK);
  EXPECT_EQ(std::memcmp(&z, &zero, sizeof z), 0);
  EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
  EXPECT_EQ(vk::fault::live_total(), base);
}

TEST(BitmapList, RemoveHandsOwnershipOut) {
  BitmapList l = nullptr;
  ASSERT_EQ(V_CreateBitmapList(&l), RESULT_OK);
  const long header_only = vk::fault::live_total();
  BitmapHandle b = make_item(9), out;
  ASSERT_EQ(V_InsertBitmapListItem(l, 0, &b), RESULT_OK);
  ASSERT_EQ(V_RemoveBitmapListItem(l, 0, &out), RESULT_OK);
  EXPECT_EQ(tag_of(&out), 9);  // the caller owns it now
  V_FreeBitmap(&out);
  EXPECT_EQ(vk::fault::live_total(), header_only);  // the item array went too
  EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
}

TEST(BitmapList, SetOverwritesWithoutFreeing) {
  BitmapList l = make_list(2);
  BitmapHandle old;
  ASSERT_EQ(V_GetBitmapListItem(l, 0, &old), RESULT_OK);
  ASSERT_EQ(V_SetBitmapListItem(l, 0, nullptr), RESULT_OK);
  EXPECT_EQ(tag_of(&old), 1);  // its storage is still there, the caller frees it
  V_FreeBitmap(&old);
  BitmapHandle z;
  ASSERT_EQ(V_GetBitmapListItem(l, 0, &z), RESULT_OK);
  EXPECT_EQ(z.Flags, 0u);
  EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
}

TEST(BitmapList, DeleteAndMoveClipTheRun) {
  const long base = vk::fault::live_total();
  struct Case { uint32_t index, count; std::vector<int> left, moved; };
  const Case cases[] = {
      {3, 10, {1, 2, 3}, {4, 5}}, {1, 2, {1, 4, 5}, {2, 3}}, {0, 0xFFFFFFFFu, {}, {1, 2, 3, 4, 5}}};
  for (const Case& c : cases) {
    BitmapList l = make_list(5);
    ASSERT_EQ(V_DeleteBitmapListItems(l, c.index, c.count), RESULT_OK);
    EXPECT_EQ(tags(l), c.left);
    EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);

    l = make_list(5);
    BitmapList m = nullptr;
    ASSERT_EQ(V_MoveBitmapListItems(&m, l, c.index, c.count), RESULT_OK);
    EXPECT_EQ(tags(l), c.left);
    EXPECT_EQ(tags(m), c.moved);
    BitmapHandle b = make_item(42);  // the source stays usable, even when empty
    ASSERT_EQ(V_InsertBitmapListItem(l, 0, &b), RESULT_OK);
    EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
    EXPECT_EQ(V_DestroyBitmapList(m), RESULT_OK);
  }
  EXPECT_EQ(vk::fault::live_total(), base);
}

// Copies are deep.  With every allocation failing in turn (and every one
// after it, so nothing recovers), copy, move and insert either succeed or
// leave the source list as it was and make no new list; a removal always
// stands (a shrink that cannot be had keeps the larger array).
TEST(BitmapList, CopyMoveInsertRemoveUnderAllocationFailures) {
  const struct {
    const char* name;
    int32_t (*run)(BitmapList l, BitmapList* out, BitmapHandle* b);
    std::vector<int> left, made;  // the tags after a success (a zero record reads 0)
  } ops[] = {
      {"copy", [](BitmapList l, BitmapList* out, BitmapHandle*) { return V_CopyBitmapListItems(out, l, 1, 2); },
       {1, 2, 3}, {2, 3}},
      {"move", [](BitmapList l, BitmapList* out, BitmapHandle*) { return V_MoveBitmapListItems(out, l, 1, 1); },
       {1, 3}, {2}},
      {"insert", [](BitmapList l, BitmapList*, BitmapHandle* b) { return V_InsertBitmapListItem(l, 1, b); },
       {1, 0, 2, 3}, {}},
      {"remove", [](BitmapList l, BitmapList*, BitmapHandle* b) { return V_RemoveBitmapListItem(l, 1, b); },
       {1, 3}, {}},
  };
  const BitmapList sentinel = reinterpret_cast<BitmapList>(uintptr_t{0x1234});
  for (const auto& op : ops) {
    for (const vkt::Arm mode : {vkt::Arm::once, vkt::Arm::from_then_on}) {
      SCOPED_TRACE(std::string(op.name) + (mode == vkt::Arm::once ? "" : ", and every later point"));
      BitmapList l = nullptr, out = sentinel;
      BitmapHandle b{};
      vkt::fault_sweep([&] { l = make_list(3), out = sentinel, b = BitmapHandle{}; }, [&] { return op.run(l, &out, &b); },
                       [&](const vkt::SweepRun& run) {
                         if (run.result == RESULT_OK) {
                           EXPECT_EQ(tags(l), op.left);
                           if (out != sentinel) {
                             EXPECT_EQ(tags(out), op.made);
                             BitmapHandle a, c;
                             V_GetBitmapListItem(l, 1, &a);
                             V_GetBitmapListItem(out, 0, &c);
                             if (std::string(op.name) == "copy") EXPECT_NE(a.Data, c.Data);  // its own pixels
                             EXPECT_EQ(V_DestroyBitmapList(out), RESULT_OK);
                           }
                         } else {
                           EXPECT_EQ(run.result, RESULT_FAIL);
                           EXPECT_EQ(out, sentinel);
                           EXPECT_EQ(tags(l), (std::vector<int>{1, 2, 3}));
                         }
                         V_FreeBitmap(&b);  // what was removed
                         EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
                       },
                       mode);
    }
  }
}

}  // namespace
