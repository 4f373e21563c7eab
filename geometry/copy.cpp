// copy.cpp - copies of whole bitmaps: the row copy between two records that
// already have storage, and complete copies into new storage.
#include "core.h"
#include "geometry.h"
#include "op.h"
#include "record_copy.h"

namespace vk {

int32_t new_copy_record(op::Scratch& n, BitmapHandle* src, int32_t width, int32_t height, bool typed,
                        int32_t memory_type) {
  if (!typed)
    return V_DupBitmapNewDim(n.get(), src, width, height, src->BitsPerPixel,
                             DUP_ALLOCATE | DUP_OWN_PALETTE | DUP_OWN_REGION);
  VK_TRY(V_DupBitmapNewDim(n.get(), src, width, height, src->BitsPerPixel, DUP_OWN_PALETTE | DUP_OWN_REGION));
  if (src->Order == ORDER_GRAY) {
    n->Order = ORDER_GRAY;
    VK_TRY(V_CopyGrayParams(n.get(), src));
  }
  return V_AllocateBitmap(n.get(), memory_type);
}

int32_t dup_shared(op::Scratch& out, BitmapHandle* b, int32_t width, int32_t height) {
  VK_TRY(V_DupBitmapNewDim(out.get(), b, width, height, b->BitsPerPixel, DUP_ALLOCATE));
  out.shares(true, true);
  out->DitheringMethod = b->DitheringMethod;
  out->LowBit = b->LowBit;
  out->HighBit = b->HighBit;
  return RESULT_OK;
}

namespace {

int32_t copy_bitmap(BitmapHandle* dst, BitmapHandle* src, bool typed, int32_t memory_type) {
  if (!dst || !src || !(src->Flags & BITMAP_ALLOCATED)) return RESULT_BAD_PARAMETER;
  if (dst == src) return RESULT_OK;
  // Built in a scratch record so that a failure leaves the caller's record as it was.
  op::Scratch n;
  VK_TRY(new_copy_record(n, src, src->Width, src->Height, typed, memory_type));
  VK_TRY(copy_bitmap_data(n.get(), src));
  op::hand_over(n, dst);
  return RESULT_OK;
}

}  // namespace
}  // namespace vk

extern "C" {

VK_API int32_t VK_CALL V_CopyBitmapData(BitmapHandle* destination, BitmapHandle* source) {
  return vk::api_call([&] { return vk::copy_bitmap_data(destination, source); });
}

VK_API int32_t VK_CALL V_CopyBitmap(BitmapHandle* destination, BitmapHandle* source) {
  return vk::api_call([&] { return vk::copy_bitmap(destination, source, false, 0); });
}

VK_API int32_t VK_CALL V_CopyBitmap2(BitmapHandle* destination, BitmapHandle* source, int32_t memoryType) {
  return vk::api_call([&] { return vk::copy_bitmap(destination, source, true, memoryType); });
}

}  // extern "C"
