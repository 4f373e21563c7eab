// list.cpp - lists of whole bitmaps (the copy of items, which copies whole
// bitmaps, is geometry/list_copy.cpp).
//
// A BitmapList is the movable global-memory handle of a small header
// {count, items}.  The header comes from V_OsAllocInit (zero-filled), so it
// stays locked for its whole life and its handle can be recovered from its
// address.  `items` is a V_Os block of exactly `count` BitmapHandle records
// (no spare capacity), or null when the list is empty.  Records are stored
// by value: the list owns the pixel storage they describe.
#include <cstring>

#include "list.h"

#include "core.h"
#include "platform.h"

namespace vk {

// Turns a list handle into the header's address.  The block is locked and at
// once unlocked again: the V_Os block keeps its own lock, so the address stays
// valid afterwards.  Null when the handle is null or names no block.
ListHeader* header_of(BitmapList list) {
  if (!list) return nullptr;
  void* p = plat::global_lock(list);
  if (!p) return nullptr;
  plat::global_unlock(list);
  return static_cast<ListHeader*>(p);
}

int32_t create_list(BitmapList* out, ListHeader** header) {
  *out = nullptr;
  void* p = V_OsAllocInit(sizeof(ListHeader), 1);
  if (!p) return RESULT_FAIL;
  VK_HGLOBAL h = plat::global_handle(p);
  if (!h) {
    V_OsFree(p);
    return RESULT_FAIL;
  }
  *out = h;
  if (header) *header = static_cast<ListHeader*>(p);
  return RESULT_OK;
}

// Shrinks the item array to the current count; frees it at count 0.  When the
// smaller block cannot be had, the larger one is kept (it still holds every
// record, the tail is merely unused).
void shrink_items(ListHeader* hdr) {
  if (hdr->count == 0) {
    V_OsFree(hdr->items);
    hdr->items = nullptr;
    return;
  }
  void* p = V_OsReAlloc(hdr->items, static_cast<size_t>(hdr->count) * sizeof(BitmapHandle));
  if (p) hdr->items = static_cast<BitmapHandle*>(p);
}

int32_t insert_item(ListHeader* hdr, uint32_t index, const BitmapHandle* bitmap) {
  if (hdr->count == UINT32_MAX) return RESULT_FAIL;
  const size_t bytes = (static_cast<size_t>(hdr->count) + 1) * sizeof(BitmapHandle);
  void* p = hdr->count == 0 ? V_OsAlloc(bytes) : V_OsReAlloc(hdr->items, bytes);
  if (!p) return RESULT_FAIL;
  // At count 0 the array is always null (removing the last item frees it),
  // so a fresh block is the right thing there.
  hdr->items = static_cast<BitmapHandle*>(p);
  const uint32_t pos = index < hdr->count ? index : hdr->count;
  std::memmove(hdr->items + pos + 1, hdr->items + pos,
               static_cast<size_t>(hdr->count - pos) * sizeof(BitmapHandle));
  if (bitmap)
    std::memcpy(hdr->items + pos, bitmap, sizeof(BitmapHandle));
  else
    std::memset(hdr->items + pos, 0, sizeof(BitmapHandle));
  ++hdr->count;
  return RESULT_OK;
}

int32_t remove_item(ListHeader* hdr, uint32_t index, BitmapHandle* out) {
  if (hdr->count == 0 || index >= hdr->count) return RESULT_BAD_PARAMETER;
  if (out) std::memcpy(out, hdr->items + index, sizeof(BitmapHandle));
  --hdr->count;
  std::memmove(hdr->items + index, hdr->items + index + 1,
               static_cast<size_t>(hdr->count - index) * sizeof(BitmapHandle));
  shrink_items(hdr);
  return RESULT_OK;
}

// Removes every item (freeing its bitmap) and then the header.
int32_t destroy_list(ListHeader* hdr) {
  while (hdr->count != 0) {
    BitmapHandle b;
    const int32_t r = remove_item(hdr, 0, &b);
    if (r != RESULT_OK) return r;
    V_FreeBitmap(&b);
  }
  V_OsFree(hdr);
  return RESULT_OK;
}

// Shared argument checks of delete, copy and move.  On success *n is the
// number of items the run really covers: min(count, items left from index).
int32_t check_run(ListHeader* hdr, uint32_t index, uint32_t count, uint32_t* n) {
  if (index >= hdr->count || count == 0) return RESULT_BAD_PARAMETER;
  const uint32_t left = hdr->count - index;
  *n = count < left ? count : left;
  return RESULT_OK;
}

// Shared start of copy and move: the source header, the output pointer and
// the run of items (n = how many the run really covers).
int32_t open_run(BitmapList list, const BitmapList* new_list, uint32_t index, uint32_t count, ListHeader** hdr,
                 uint32_t* n) {
  *hdr = header_of(list);
  if (!*hdr || !new_list) return RESULT_BAD_PARAMETER;
  return check_run(*hdr, index, count, n);
}

}  // namespace vk

using vk::ListHeader;

extern "C" {

VK_API int32_t VK_CALL V_CreateBitmapList(BitmapList* list) {
  return vk::api_call([&]() -> int32_t {
    if (!list) return RESULT_BAD_PARAMETER;
    return vk::create_list(list);
  });
}

VK_API int32_t VK_CALL V_DestroyBitmapList(BitmapList list) {
  return vk::api_call([&]() -> int32_t {
    ListHeader* hdr = vk::header_of(list);
    if (!hdr) return RESULT_BAD_PARAMETER;
    return vk::destroy_list(hdr);
  });
}

VK_API int32_t VK_CALL V_GetBitmapListCount(BitmapList list, uint32_t* count) {
  return vk::api_call([&]() -> int32_t {
    ListHeader* hdr = vk::header_of(list);
    if (!hdr || !count) return RESULT_BAD_PARAMETER;
    *count = hdr->count;
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_GetBitmapListItem(BitmapList list, uint32_t index, BitmapHandle* bitmap) {
  return vk::api_call([&]() -> int32_t {
    ListHeader* hdr = vk::header_of(list);
    if (!hdr || !bitmap || index >= hdr->count) return RESULT_BAD_PARAMETER;
    std::memcpy(bitmap, hdr->items + index, sizeof(BitmapHandle));
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_SetBitmapListItem(BitmapList list, uint32_t index, const BitmapHandle* bitmap) {
  return vk::api_call([&]() -> int32_t {
    ListHeader* hdr = vk::header_of(list);
    if (!hdr || index >= hdr->count) return RESULT_BAD_PARAMETER;
    // The old record is overwritten without freeing its storage: the caller
    // decides what happens to it (it may be the same bitmap, updated).
    if (bitmap)
      std::memmove(hdr->items + index, bitmap, sizeof(BitmapHandle));
    else
      std::memset(hdr->items + index, 0, sizeof(BitmapHandle));
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_InsertBitmapListItem(BitmapList list, uint32_t index, const BitmapHandle* bitmap) {
  return vk::api_call([&]() -> int32_t {
    ListHeader* hdr = vk::header_of(list);
    if (!hdr) return RESULT_BAD_PARAMETER;
    // The record may live inside this very list; copy it before the array moves.
    BitmapHandle copy;
    if (bitmap) std::memcpy(&copy, bitmap, sizeof copy);
    return vk::insert_item(hdr, index, bitmap ? &copy : nullptr);
  });
}

VK_API int32_t VK_CALL V_RemoveBitmapListItem(BitmapList list, uint32_t index, BitmapHandle* bitmap) {
  return vk::api_call([&]() -> int32_t {
    ListHeader* hdr = vk::header_of(list);
    if (!hdr) return RESULT_BAD_PARAMETER;
    return vk::remove_item(hdr, index, bitmap);
  });
}

VK_API int32_t VK_CALL V_DeleteBitmapListItems(BitmapList list, uint32_t index, uint32_t count) {
  return vk::api_call([&]() -> int32_t {
    ListHeader* hdr = vk::header_of(list);
    if (!hdr) return RESULT_BAD_PARAMETER;
    uint32_t n = 0;
    VK_TRY(vk::check_run(hdr, index, count, &n));
    for (uint32_t i = 0; i < n; ++i) {
      BitmapHandle b;
      VK_TRY(vk::remove_item(hdr, index, &b));
      V_FreeBitmap(&b);
    }
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_MoveBitmapListItems(BitmapList* newList, BitmapList list, uint32_t index, uint32_t count) {
  return vk::api_call([&]() -> int32_t {
    ListHeader* hdr = nullptr;
    uint32_t n = 0;
    VK_TRY(vk::open_run(list, newList, index, count, &hdr, &n));
    vk::NewList dst;
    if (dst.create() != RESULT_OK) return RESULT_FAIL;
    void* items = V_OsAlloc(static_cast<size_t>(n) * sizeof(BitmapHandle));
    if (!items) return RESULT_FAIL;
    // Records move byte for byte: ownership of their storage goes with them.
    std::memcpy(items, hdr->items + index, static_cast<size_t>(n) * sizeof(BitmapHandle));
    dst->items = static_cast<BitmapHandle*>(items);
    dst->count = n;
    std::memmove(hdr->items + index, hdr->items + index + n,
                 static_cast<size_t>(hdr->count - index - n) * sizeof(BitmapHandle));
    hdr->count -= n;
    vk::shrink_items(hdr);
    *newList = dst.release();
    return RESULT_OK;
  });
}

}  // extern "C"
