// dup.cpp - duplication of a bitmap record with new dimensions, and the
// release of such a duplicate.  Every operation that makes a new bitmap from
// an old one starts here.
#include <cstring>

#include "core.h"
#include "dispatch.h"
#include "op.h"
#include "platform.h"
#include "record_copy.h"

namespace vk {
namespace {

int32_t free_duplicate(BitmapHandle* b, uint32_t flags) {
  if (!b) return RESULT_BAD_PARAMETER;
  if (!(flags & DUP_OWN_PALETTE)) b->Palette = nullptr;
  if (!(flags & DUP_OWN_REGION)) b->Region = nullptr;
  if (flags & DUP_ALLOCATE) {
    V_FreeBitmap(b);
    return RESULT_OK;
  }
  if (b->Palette) {
    if (b->Flags & PALETTE_IS_TABLE)
      V_OsFree(b->Palette);
    else
      plat::palette_delete(b->Palette);
  }
  // Regions are host objects; the record lets go of its own (see V_FreeBitmap).
  b->Palette = nullptr;
  b->Region = nullptr;
  return RESULT_OK;
}

int32_t duplicate(BitmapHandle* dst, BitmapHandle* src, int32_t width, int32_t height, int32_t bits, uint32_t flags) {
  if (!dst || !src || !(src->Flags & BITMAP_ALLOCATED)) return RESULT_NO_BITMAP;
  if (dst == src) return RESULT_BAD_PARAMETER;  // the record would be wiped before it is read
  // Built in a scratch record: the caller's record changes only on success.
  // Until then the source's palette and region are only borrowed, unless
  // the duplicate is to own copies of them.
  op::Scratch n;
  n.shares(!(flags & DUP_OWN_PALETTE), !(flags & DUP_OWN_REGION));
  VK_TRY(duplicate_record(n.get(), src, width, height, bits, flags & DUP_ALLOCATE));

  if (flags & DUP_OWN_PALETTE) {
    n->Palette = nullptr;
    if (src->Palette) {
      // The palette copy reports failure as 0; a duplicate reports it as a result code.
      const int32_t r = V_CopyBitmapPalette(n.get(), src);
      if (r != RESULT_OK) return r < 0 ? r : RESULT_FAIL;
    }
  }
  // With a new depth or palette the playback colours must name the same
  // colours in the duplicate's terms.
  VK_TRY(V_CopyPlaybackParms(n.get(), src));

  if (flags & DUP_OWN_REGION) {
    n->Region = nullptr;
    if (auto hook = reinterpret_cast<VK_REGIONHOOK>(reinterpret_cast<void (*)()>(dispatch::entry(2)))) {
      // The hook copies the source's region onto the record it is given as
      // destination; the copy is moved to the duplicate and the source gets
      // its own back.
      const VK_HRGN own = src->Region;
      const int32_t r = hook(src, src, 0, 0);
      n->Region = src->Region == own ? nullptr : src->Region;
      src->Region = own;
      if (r != RESULT_OK) {
        n->Region = nullptr;
        return r;
      }
    }
  }

  op::hand_over(n, dst);
  return RESULT_OK;
}

}  // namespace
}  // namespace vk

extern "C" {

VK_API int32_t VK_CALL V_DupBitmapNewDim(BitmapHandle* destination, BitmapHandle* source, int32_t width,
                                         int32_t height, int32_t bitsPerPixel, uint32_t dupFlags) {
  return vk::api_call([&] { return vk::duplicate(destination, source, width, height, bitsPerPixel, dupFlags); });
}

VK_API int32_t VK_CALL V_FreeDuplicateBitmap(BitmapHandle* bitmap, uint32_t dupFlags) {
  return vk::api_call([&] { return vk::free_duplicate(bitmap, dupFlags); });
}

}  // extern "C"
