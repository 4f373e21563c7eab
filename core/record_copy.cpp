// record_copy.cpp - the row copy between two bitmaps that already have
// storage: every storage rebuild and every copy of a bitmap ends here.
#include "record_copy.h"

#include <cstring>

#include "compressed.h"
#include "core.h"
#include "op.h"

namespace vk {
namespace {

// Flags that describe the source's storage kind or are carried for the host.
constexpr uint32_t kCarriedFlags = BITMAP_COMPRESSED | BITMAP_SUPER_COMPRESSED | BITMAP_ON_DISK | 0x200u | 0x10000u;
constexpr uint32_t kPlaybackFlags = BITMAP_PLAYBACK_FLAG1 | BITMAP_PLAYBACK_FLAG2;

}  // namespace

int32_t duplicate_record(BitmapHandle* n, BitmapHandle* src, int32_t width, int32_t height, int32_t bits,
                         bool allocate) {
  if (!src || !(src->Flags & BITMAP_ALLOCATED)) return RESULT_NO_BITMAP;
  VK_TRY(V_InitBitmap(n, width, height, bits));
  n->Flags |= src->Flags & kCarriedFlags;
  n->ViewPerspective = src->ViewPerspective;
  n->XResolution = src->XResolution;
  n->YResolution = src->YResolution;
  n->Order = src->Order;
  if (allocate) {
    int32_t type = TYPE_CONVENTIONAL;
    if (src->Flags & BITMAP_COMPRESSED)
      type = TYPE_COMPRESSED | TYPE_CONVENTIONAL;
    else if (src->Flags & BITMAP_SUPER_COMPRESSED)
      type = TYPE_SUPER_COMPRESSED;
    else if (src->Flags & BITMAP_ON_DISK)
      type = TYPE_DISK;
    VK_TRY(V_AllocateBitmap(n, type));
  }
  n->Flags = (n->Flags & ~(PALETTE_IS_TABLE | kPlaybackFlags)) | (src->Flags & (PALETTE_IS_TABLE | kPlaybackFlags));
  n->Palette = src->Palette;
  n->Region = src->Region;
  n->ColorCount = src->ColorCount;
  n->PlaybackValue1 = src->PlaybackValue1;
  n->PlaybackValue2 = src->PlaybackValue2;
  n->PlaybackValue3 = src->PlaybackValue3;
  n->PlaybackValue6 = src->PlaybackValue6;
  n->PlaybackColor1 = src->PlaybackColor1;
  n->PlaybackColor2 = src->PlaybackColor2;
  if (allocate && src->Order == ORDER_GRAY && src->BitsPerPixel == bits) {
    n->Order = ORDER_GRAY;
    VK_TRY(V_CopyGrayParams(n, src));
  }
  if (n->PaintLut && src->PaintLut) std::memcpy(n->PaintLut, src->PaintLut, 256);
  return RESULT_OK;
}

int32_t copy_bitmap_data(BitmapHandle* dst, BitmapHandle* src) {
  if (!src || !dst || !(src->Flags & BITMAP_ALLOCATED) || !(dst->Flags & BITMAP_ALLOCATED)) return RESULT_NO_BITMAP;
  if (dst == src) return RESULT_OK;
  if (dst->Width != src->Width || dst->Height != src->Height || dst->BitsPerPixel != src->BitsPerPixel ||
      dst->BytesPerLine != src->BytesPerLine)
    return RESULT_BAD_PARAMETER;
  BitmapLock lock_src(src);
  BitmapLock lock_dst(dst);
  const int32_t height = src->Height;
  Progress progress(height, true);
  VK_TRY(progress.start());

  if ((src->Flags & BITMAP_COMPRESSED) && (dst->Flags & BITMAP_COMPRESSED)) {
    // Rows move as run lists: no row is ever expanded.
    const size_t capacity = 2 * static_cast<size_t>(src->Width > 0 ? src->Width : 0) + 6;
    Buffer<uint8_t> record(capacity);
    if (!record) return RESULT_FAIL;
    return op::each_row(progress, height, [&](int32_t r) {
      const int32_t n = cmp::read_record(src, static_cast<uint32_t>(r), record.get(), capacity);
      if (n < 0) return n;
      const int32_t w = cmp::write_record(dst, static_cast<uint32_t>(r), record.get());
      dst->Size = cmp::heap_size(dst);
      return w < 1 ? w : int32_t{RESULT_OK};
    });
  }

  const uint32_t bpl = src->BytesPerLine;
  if (flat_memory(src) && flat_memory(dst) && !progress.active()) {
    // Both flat in memory and nobody watching: one copy of every row.
    const uint64_t bytes = static_cast<uint64_t>(height > 0 ? height : 0) * bpl;
    if (bytes > src->Size || bytes > dst->Size) return RESULT_BAD_PARAMETER;
    std::memcpy(dst->Data, src->Data, static_cast<size_t>(bytes));
    return RESULT_OK;
  }
  Buffer<uint8_t> row(bpl ? bpl : 1);
  if (!row) return RESULT_FAIL;
  return op::each_row(progress, height, [&](int32_t r) {
    const int32_t got = V_GetBitmapRow(src, row.get(), static_cast<uint32_t>(r), static_cast<int32_t>(bpl));
    if (got < 0) return got;
    const int32_t put = V_PutBitmapRow(dst, row.get(), static_cast<uint32_t>(r), static_cast<int32_t>(bpl));
    return put < 0 ? put : int32_t{RESULT_OK};
  });
}

}  // namespace vk
