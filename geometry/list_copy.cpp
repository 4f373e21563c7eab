// list_copy.cpp - the copy of a run of list items: each record is copied
// whole (new storage, own palette and region) into a new list.
#include "core.h"
#include "list.h"
#include "op.h"

using vk::ListHeader;

extern "C" {

VK_API int32_t VK_CALL V_CopyBitmapListItems(BitmapList* newList, BitmapList list, uint32_t index, uint32_t count) {
  return vk::api_call([&]() -> int32_t {
    ListHeader* hdr = nullptr;
    uint32_t n = 0;
    VK_TRY(vk::open_run(list, newList, index, count, &hdr, &n));
    vk::NewList dst;
    if (dst.create() != RESULT_OK) return RESULT_FAIL;
    for (uint32_t i = 0; i < n; ++i) {
      vk::op::Scratch copy;
      // The source record is passed in place: reading it may refresh its row
      // cache, which is part of the list's own record.
      VK_TRY(V_CopyBitmap(copy.get(), hdr->items + index + i));
      VK_TRY(vk::insert_item(dst.get(), UINT32_MAX, copy.get()));
      copy.release();  // the new list holds the record now
    }
    *newList = dst.release();
    return RESULT_OK;
  });
}

}  // extern "C"
