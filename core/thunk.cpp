// thunk.cpp - the dispatcher that a 16-bit host reaches through the
// universal thunk: bitmap access and column-range row transfers.
#include "core.h"

extern "C" {

VK_API int32_t VK_CALL V_ThunkDispatch(ThunkArgs* args, int32_t request) {
  return vk::api_call([&]() -> int32_t {
    if (!args) return RESULT_BAD_PARAMETER;
    switch (request) {
      case 0: V_AccessBitmap(args->Bitmap); return 0;
      case 1: V_ReleaseBitmap(args->Bitmap); return 0;
      case 2: return V_GetBitmapRowCol(args->Bitmap, args->Buffer, args->Row, args->Column, args->ByteCount);
      case 3: return V_PutBitmapRowCol(args->Bitmap, args->Buffer, args->Row, args->Column, args->ByteCount);
      default: return 50;
    }
  });
}

}  // extern "C"
