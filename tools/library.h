// library.h - the library interface as the command-line program uses it.
//
// The program is built while the library's operations are still landing, so
// every V_ function it calls is declared weak: an operation whose functions
// are missing from the linked library resolves to null, is left out of
// --help and the demo, and reports itself as unavailable instead of breaking
// the link.  (tools/CMakeLists.txt makes the linker take in every function
// listed here whose archive member links completely.)
#pragma once

#include "vkkrn.h"

#define VKIMG_LIBRARY_FUNCTIONS(X) \
  X(V_AllocateBitmap)              \
  X(V_ChangeBitmapCompression)     \
  X(V_ChangeBitmapHeight)          \
  X(V_ColorResBitmap)              \
  X(V_ColorResBitmapList)          \
  X(V_ConvertBuffer)               \
  X(V_CreateBitmap)                \
  X(V_CreateBitmapList)            \
  X(V_CreateOptimizedPalette)      \
  X(V_DestroyBitmapList)           \
  X(V_FreeBitmap)                  \
  X(V_GetBitmapColorCountExt)      \
  X(V_GetBitmapListCount)          \
  X(V_GetBitmapListItem)           \
  X(V_GetBitmapMemoryInfo)         \
  X(V_GetBitmapPaletteEntries)     \
  X(V_GetBitmapRow)                \
  X(V_GetMemoryThresholds)         \
  X(V_GetPixelColor)               \
  X(V_GetStatusCallBack)           \
  X(V_GrayScaleBitmap)             \
  X(V_InitBitmap)                  \
  X(V_InsertBitmapListItem)        \
  X(V_IsGrayScaleBitmap)           \
  X(V_PutBitmapRow)                \
  X(V_PutPixelColor)               \
  X(V_SetBitmapMemoryInfo)         \
  X(V_SetMemoryThresholds)         \
  X(V_SetStatusCallBack)           \
  X(V_SetTempDirectory)            \
  X(V_VersionInfo)

#define VKIMG_WEAK(fn) _Pragma(VKIMG_STR(weak fn))
#define VKIMG_STR(x) #x
VKIMG_LIBRARY_FUNCTIONS(VKIMG_WEAK)

namespace vkimg {

// True when the linked library provides the function.
template <class F>
inline bool have(F* fn) {
  return fn != nullptr;
}

}  // namespace vkimg
