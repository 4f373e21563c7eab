// list_copy.cpp - the copy of a run of list items: each record is copied
// whole (new storage, own palette and region) into a new list.
#include <cstring>

#include "core.h"
#include "list.h"

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
      BitmapHandle copy;
      std::memset(&copy, 0, sizeof copy);
      // The source record is passed in place: reading it may refresh its row
      // cache, which is part of the list's own record.
      VK_TRY(V_CopyBitmap(&copy, hdr->items + index + i));
      const int32_t r = vk::insert_item(dst.get(), UINT32_MAX, &copy);
      if (r != RESULT_OK) {
        V_FreeBitmap(&copy);
        return r;
      }
    }
    *newList = dst.release();
    return RESULT_OK;
  });
}

}  // extern "C"
