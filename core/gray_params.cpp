// gray_params.cpp - the gray parameters of a bitmap record: significant bit
// range, value range, and the optional gray lookup table.
#include <cstring>

#include "core.h"

extern "C" {

// Resets the numeric gray parameters to the whole sample: bits 0..bpp-1,
// values 0..2^bpp - 1.  The lookup table and BITMAP_GRAY_FLAG (which says
// that the table covers the whole sample) belong together and are left as
// they are: only V_CopyGrayParams or the record's owner changes them.
VK_API int32_t VK_CALL V_InitGrayParams(BitmapHandle* bitmap) {
  return vk::api_call([&]() -> int32_t {
    if (!bitmap) return RESULT_BAD_PARAMETER;
    const int32_t bits = bitmap->BitsPerPixel;
    bitmap->LowBit = 0;
    bitmap->HighBit = bits - 1;
    bitmap->MinValue = 0;
    // Computed wide so that a 32-bit depth or a garbage depth does not overflow.
    const uint64_t top = (bits >= 0 && bits < 64) ? (uint64_t{1} << bits) - 1 : ~uint64_t{0};
    bitmap->MaxValue = static_cast<int32_t>(static_cast<uint32_t>(top));
    return RESULT_OK;
  });
}

// Copies the lookup table (a new V_OsAlloc block the destination owns), its
// length, the bit range, Min/MaxValue and BITMAP_GRAY_FLAG.  The
// destination's previous table is not released: callers pass a fresh record
// that may still share the source's pointer.  RESULT_FAIL (destination
// untouched) when the copy cannot be allocated.
VK_API int32_t VK_CALL V_CopyGrayParams(BitmapHandle* destination, const BitmapHandle* source) {
  return vk::api_call([&]() -> int32_t {
    if (!destination || !source) return RESULT_BAD_PARAMETER;
    uint32_t* lut = nullptr;
    uint32_t length = 0;
    if (source->GrayLut && source->GrayLutLength != 0) {
      length = source->GrayLutLength;
      if (length > SIZE_MAX / sizeof(uint32_t)) return RESULT_FAIL;
      lut = static_cast<uint32_t*>(V_OsAlloc(size_t{length} * sizeof(uint32_t)));
      if (!lut) return RESULT_FAIL;
      std::memcpy(lut, source->GrayLut, size_t{length} * sizeof(uint32_t));
    }
    destination->GrayLut = lut;
    destination->GrayLutLength = length;
    destination->LowBit = source->LowBit;
    destination->HighBit = source->HighBit;
    destination->MinValue = source->MinValue;
    destination->MaxValue = source->MaxValue;
    destination->Flags = (destination->Flags & ~BITMAP_GRAY_FLAG) | (source->Flags & BITMAP_GRAY_FLAG);
    return RESULT_OK;
  });
}

}  // extern "C"
