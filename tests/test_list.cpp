// Bitmap lists: ordering, index clamping, ownership of item storage, and
// all-or-nothing behaviour of copy and move under allocation failures.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "core.h"
#include "platform.h"

namespace {

// An allocated 8-bit bitmap whose first pixel is `tag`, so items can be told
// apart after they moved.
BitmapHandle make_item(uint8_t tag, int32_t width = 7, int32_t height = 3) {
  BitmapHandle b;
  std::memset(&b, 0, sizeof b);
  EXPECT_EQ(V_InitBitmap(&b, width, height, 8), RESULT_OK);
  EXPECT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
  std::vector<uint8_t> row(b.BytesPerLine, tag);
  for (int32_t y = 0; y < height; ++y) V_PutBitmapRow(&b, row.data(), static_cast<uint32_t>(y), static_cast<int32_t>(row.size()));
  return b;
}

uint8_t tag_of(BitmapHandle* b) {
  uint8_t px[64] = {};
  V_GetBitmapRow(b, px, 0, static_cast<int32_t>(b->BytesPerLine));
  return px[0];
}

uint32_t count_of(BitmapList l) {
  uint32_t n = 0xDEAD;
  EXPECT_EQ(V_GetBitmapListCount(l, &n), RESULT_OK);
  return n;
}

// Tags of every item, in list order.
std::vector<int> tags(BitmapList l) {
  std::vector<int> out;
  for (uint32_t i = 0; i < count_of(l); ++i) {
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
    BitmapHandle b = make_item(static_cast<uint8_t>(i));
    EXPECT_EQ(V_InsertBitmapListItem(l, 0xFFFFFFFFu, &b), RESULT_OK);
  }
  return l;
}

TEST(BitmapList, BadArgumentsAreRejected) {
  EXPECT_EQ(V_CreateBitmapList(nullptr), RESULT_BAD_PARAMETER);
  BitmapHandle b;
  std::memset(&b, 0, sizeof b);
  uint32_t n = 0;
  BitmapList out = nullptr;
  // A null handle, and a handle that names no block, give no address.
  int bogus_block = 0;
  for (BitmapList bad : {BitmapList{nullptr}, BitmapList{&bogus_block}}) {
    EXPECT_EQ(V_DestroyBitmapList(bad), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_GetBitmapListCount(bad, &n), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_GetBitmapListItem(bad, 0, &b), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_SetBitmapListItem(bad, 0, &b), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_InsertBitmapListItem(bad, 0, &b), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_RemoveBitmapListItem(bad, 0, &b), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_DeleteBitmapListItems(bad, 0, 1), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_CopyBitmapListItems(&out, bad, 0, 1), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_MoveBitmapListItems(&out, bad, 0, 1), RESULT_BAD_PARAMETER);
  }

  BitmapList l = make_list(2);
  EXPECT_EQ(V_GetBitmapListCount(l, nullptr), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetBitmapListItem(l, 0, nullptr), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetBitmapListItem(l, 2, &b), RESULT_BAD_PARAMETER);  // index == count
  EXPECT_EQ(V_SetBitmapListItem(l, 2, &b), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_RemoveBitmapListItem(l, 2, &b), RESULT_BAD_PARAMETER);
  for (auto [index, cnt] : {std::pair<uint32_t, uint32_t>{2, 1}, {0, 0}}) {
    EXPECT_EQ(V_DeleteBitmapListItems(l, index, cnt), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_CopyBitmapListItems(&out, l, index, cnt), RESULT_BAD_PARAMETER);
    EXPECT_EQ(V_MoveBitmapListItems(&out, l, index, cnt), RESULT_BAD_PARAMETER);
  }
  EXPECT_EQ(V_CopyBitmapListItems(nullptr, l, 0, 1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_MoveBitmapListItems(nullptr, l, 0, 1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(tags(l), (std::vector<int>{1, 2}));
  EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
}

TEST(BitmapList, InsertClampsTheIndex) {
  const long base = vk::fault::live_total();
  BitmapList l = make_list(3);
  struct Case { uint32_t index; uint8_t tag; std::vector<int> after; };
  const Case cases[] = {
      {1000, 4, {1, 2, 3, 4}},           // past the end appends
      {0, 5, {5, 1, 2, 3, 4}},           // front
      {2, 6, {5, 1, 6, 2, 3, 4}},        // middle
      {0xFFFFFFFFu, 7, {5, 1, 6, 2, 3, 4, 7}},
      {7, 8, {5, 1, 6, 2, 3, 4, 7, 8}},  // index == count appends
  };
  for (const Case& c : cases) {
    BitmapHandle b = make_item(c.tag);
    ASSERT_EQ(V_InsertBitmapListItem(l, c.index, &b), RESULT_OK);
    EXPECT_EQ(tags(l), c.after) << "index " << c.index;
  }
  // The item array holds exactly count records.
  BitmapHandle first;
  ASSERT_EQ(V_GetBitmapListItem(l, 0, &first), RESULT_OK);
  void* header = vk::plat::global_lock(l);
  vk::plat::global_unlock(l);
  void* items = *reinterpret_cast<void**>(static_cast<uint8_t*>(header) + sizeof(void*));
  EXPECT_EQ(vk::plat::global_size(vk::plat::global_handle(items)), 8 * sizeof(BitmapHandle));

  // A null record inserts zeros.
  ASSERT_EQ(V_InsertBitmapListItem(l, 0, nullptr), RESULT_OK);
  BitmapHandle z;
  ASSERT_EQ(V_GetBitmapListItem(l, 0, &z), RESULT_OK);
  BitmapHandle zero;
  std::memset(&zero, 0, sizeof zero);
  EXPECT_EQ(std::memcmp(&z, &zero, sizeof z), 0);

  EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
  EXPECT_EQ(vk::fault::live_total(), base);
}

TEST(BitmapList, RemoveHandsOwnershipOutAndFreesTheLastArray) {
  const long empty_base = vk::fault::live_total();
  BitmapList l = nullptr;
  ASSERT_EQ(V_CreateBitmapList(&l), RESULT_OK);
  const long header_only = vk::fault::live_total();
  BitmapHandle b = make_item(9);
  ASSERT_EQ(V_InsertBitmapListItem(l, 0, &b), RESULT_OK);

  BitmapHandle out;
  ASSERT_EQ(V_RemoveBitmapListItem(l, 0, &out), RESULT_OK);
  EXPECT_EQ(count_of(l), 0u);
  EXPECT_EQ(tag_of(&out), 9);  // the caller now owns it
  V_FreeBitmap(&out);
  EXPECT_EQ(vk::fault::live_total(), header_only);  // item array gone too

  // The list stays usable.
  b = make_item(3);
  ASSERT_EQ(V_InsertBitmapListItem(l, 5, &b), RESULT_OK);
  EXPECT_EQ(tags(l), (std::vector<int>{3}));
  EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
  EXPECT_EQ(vk::fault::live_total(), empty_base);
}

TEST(BitmapList, RemoveSucceedsWhenShrinkingFails) {
  BitmapList l = make_list(3);
  BitmapHandle out;
  vk::fault::arm(1, true);
  const int32_t r = V_RemoveBitmapListItem(l, 1, &out);
  vk::fault::disarm();
  EXPECT_EQ(r, RESULT_OK);
  EXPECT_EQ(tags(l), (std::vector<int>{1, 3}));
  V_FreeBitmap(&out);
  EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
}

TEST(BitmapList, SetOverwritesWithoutFreeing) {
  BitmapList l = make_list(2);
  BitmapHandle old;
  ASSERT_EQ(V_GetBitmapListItem(l, 0, &old), RESULT_OK);
  const long before = vk::fault::live_total();
  BitmapHandle b = make_item(7);
  ASSERT_EQ(V_SetBitmapListItem(l, 0, &b), RESULT_OK);
  EXPECT_EQ(tags(l), (std::vector<int>{7, 2}));
  EXPECT_GT(vk::fault::live_total(), before);  // the old storage is still there
  EXPECT_EQ(tag_of(&old), 1);
  V_FreeBitmap(&old);
  BitmapHandle second;
  ASSERT_EQ(V_GetBitmapListItem(l, 1, &second), RESULT_OK);
  ASSERT_EQ(V_SetBitmapListItem(l, 1, nullptr), RESULT_OK);
  BitmapHandle z;
  ASSERT_EQ(V_GetBitmapListItem(l, 1, &z), RESULT_OK);
  EXPECT_EQ(z.Data, nullptr);
  EXPECT_EQ(z.Flags, 0u);
  V_FreeBitmap(&second);  // the list no longer refers to it
  EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
}

TEST(BitmapList, DeleteClipsTheRun) {
  const long base = vk::fault::live_total();
  struct Case { uint32_t index, count; std::vector<int> after; };
  const Case cases[] = {
      {3, 10, {1, 2, 3}},
      {0, 1, {2, 3, 4, 5}},
      {1, 3, {1, 5}},
      {0, 0xFFFFFFFFu, {}},
  };
  for (const Case& c : cases) {
    BitmapList l = make_list(5);
    ASSERT_EQ(V_DeleteBitmapListItems(l, c.index, c.count), RESULT_OK);
    EXPECT_EQ(tags(l), c.after);
    EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
  }
  EXPECT_EQ(vk::fault::live_total(), base);
}

TEST(BitmapList, MoveTransfersOwnershipAndClosesTheGap) {
  const long base = vk::fault::live_total();
  struct Case { uint32_t index, count; std::vector<int> left, moved; };
  const Case cases[] = {
      {1, 2, {1, 4, 5}, {2, 3}},
      {3, 100, {1, 2, 3}, {4, 5}},
      {0, 5, {}, {1, 2, 3, 4, 5}},
  };
  for (const Case& c : cases) {
    BitmapList l = make_list(5);
    BitmapList m = nullptr;
    ASSERT_EQ(V_MoveBitmapListItems(&m, l, c.index, c.count), RESULT_OK);
    EXPECT_EQ(tags(l), c.left);
    EXPECT_EQ(tags(m), c.moved);
    // Both lists stay usable.
    BitmapHandle b = make_item(42);
    ASSERT_EQ(V_InsertBitmapListItem(l, 0, &b), RESULT_OK);
    EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
    EXPECT_EQ(V_DestroyBitmapList(m), RESULT_OK);
  }
  EXPECT_EQ(vk::fault::live_total(), base);
}

TEST(BitmapList, CopyIsDeep) {
  BitmapList l = make_list(4);
  BitmapList c = nullptr;
  ASSERT_EQ(V_CopyBitmapListItems(&c, l, 1, 2), RESULT_OK);
  EXPECT_EQ(tags(c), (std::vector<int>{2, 3}));
  BitmapHandle a, b;
  ASSERT_EQ(V_GetBitmapListItem(l, 1, &a), RESULT_OK);
  ASSERT_EQ(V_GetBitmapListItem(c, 0, &b), RESULT_OK);
  EXPECT_NE(a.Data, b.Data);
  EXPECT_EQ(V_DestroyBitmapList(c), RESULT_OK);  // the originals survive
  EXPECT_EQ(tags(l), (std::vector<int>{1, 2, 3, 4}));
  EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
}

// Every allocation of copy, move and insert failing in turn: the source list
// is unchanged, no new list appears, nothing leaks.
TEST(BitmapList, FaultSweepLeavesTheSourceUnchanged) {
  enum Op { copy, move, insert };
  for (Op op : {copy, move, insert}) {
    BitmapList l = make_list(3);
    const long base = vk::fault::live_total();
    for (long n = 1;; ++n) {
      BitmapList out = reinterpret_cast<BitmapList>(uintptr_t{0x1234});
      BitmapHandle b;
      std::memset(&b, 0, sizeof b);
      vk::fault::arm(n);
      int32_t r = RESULT_FAIL;
      if (op == copy) r = V_CopyBitmapListItems(&out, l, 0, 3);
      if (op == move) r = V_MoveBitmapListItems(&out, l, 1, 1);
      if (op == insert) r = V_InsertBitmapListItem(l, 1, &b);
      const bool fired = vk::fault::fired();
      vk::fault::disarm();
      if (!fired) {
        ASSERT_EQ(r, RESULT_OK);
        if (op != insert) EXPECT_EQ(V_DestroyBitmapList(out), RESULT_OK);
        break;
      }
      if (r == RESULT_OK) {
        // A failure the operation recovers from (a shrink of the source, a
        // storage fallback inside the copy): the call succeeds as a whole.
        if (op == insert) {
          BitmapHandle dropped;
          ASSERT_EQ(V_RemoveBitmapListItem(l, 1, &dropped), RESULT_OK);
        } else {
          EXPECT_EQ(V_DestroyBitmapList(out), RESULT_OK);
        }
        if (op == move) {
          V_DestroyBitmapList(l);
          l = make_list(3);
        }
        EXPECT_EQ(tags(l), (std::vector<int>{1, 2, 3}));
        continue;
      }
      EXPECT_EQ(r, RESULT_FAIL) << "op " << op << " n " << n;
      EXPECT_EQ(out, reinterpret_cast<BitmapList>(uintptr_t{0x1234}));
      EXPECT_EQ(tags(l), (std::vector<int>{1, 2, 3}));
      EXPECT_EQ(vk::fault::live_total(), base);
    }
    EXPECT_EQ(V_DestroyBitmapList(l), RESULT_OK);
  }
}

}  // namespace
