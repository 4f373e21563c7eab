// Device-independent bitmaps from random blocks, through all three ways in:
// the block taken over (V_ChangeFromDIB), used in place (V_MirrorFromDIB)
// and copied from a header and pixel pointer (V_ConvertFromDIB).  Whatever
// the block claims, each call returns a code and reads only the block (the
// sanitizers watch); a bitmap that was made goes out again as a DIB.
#include <cstdint>
#include <cstring>

#include "dib.h"
#include "vkkrn.h"
#include "vkkrn_platform.h"

namespace {

VK_HGLOBAL block_of(const uint8_t* data, size_t size) {
  VK_HGLOBAL h = VKP_GlobalAlloc(VKP_GMEM_MOVEABLE, size ? size : 1);
  if (h && size) {
    std::memcpy(VKP_GlobalLock(h), data, size);
    VKP_GlobalUnlock(h);
  }
  return h;
}

void use(BitmapHandle* b) {
  if (VK_HGLOBAL out = V_ConvertToDIB2(b, int32_t(b->Width % 3))) VKP_GlobalFree(out);
  V_FreeBitmap(b);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  BitmapHandle b;
  for (int way = 0; way < 2; ++way) {
    VK_HGLOBAL h = block_of(data, size);
    const int32_t r = way == 0 ? V_ChangeFromDIB(&b, h) : V_MirrorFromDIB(&b, h);
    const bool taken = r == RESULT_OK && way == 0;
    if (r == RESULT_OK) use(&b);
    if (!taken) VKP_GlobalFree(h);
  }
  // The copying way trusts the header's sizes, so it is handed only blocks
  // whose header the bounded reader accepted, with the bytes it asked for.
  vk::dib::Info info;
  if (vk::dib::read_info(data, size, &info) == RESULT_OK &&
      V_ConvertFromDIB(&b, data, data + info.pixel_offset) == RESULT_OK)
    use(&b);
  return 0;
}
