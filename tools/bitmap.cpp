// bitmap.cpp - codec pictures in and out of library bitmaps.
#include "bitmap.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "result_names.h"

namespace vkimg {

Bitmap& Bitmap::operator=(Bitmap&& o) noexcept {
  if (this != &o) {
    reset();
    h_ = o.h_;
    owned_ = o.owned_;
    o.owned_ = false;
  }
  return *this;
}

BitmapHandle Bitmap::release() {
  owned_ = false;
  return h_;
}

void Bitmap::reset() {
  if (owned_) V_FreeBitmap(&h_);
  owned_ = false;
  h_ = BitmapHandle{};
}

int32_t storage_row(const BitmapHandle& bm, int32_t y) {
  return bm.ViewPerspective == 2 ? bm.Height - 1 - y : y;
}

Bitmap to_bitmap(const Image& img, int memory_type) {
  if (img.bits == 3 || img.bits == 5 || img.bits == 6 || img.bits == 7 || img.bits == 12)
    throw LibraryError("unexpected picture depth", RESULT_BAD_BITS_PER_PIXEL);
  if (static_cast<uint64_t>(img.stride()) * static_cast<uint64_t>(img.height) > 0xFFFFFFFFull)
    throw LibraryError("picture too large for one bitmap (4 GiB)", RESULT_BAD_PARAMETER);
  std::vector<RGBQUAD> pal;
  if (img.bits <= 8) {
    pal.resize(size_t(1) << img.bits);
    for (size_t i = 0; i < pal.size() && i < img.palette.size(); ++i)
      pal[i] = RGBQUAD{img.palette[i].b, img.palette[i].g, img.palette[i].r, 0};
  }
  Bitmap bm;
  const int32_t r = V_CreateBitmap(bm.get(), memory_type, img.width, img.height, img.bits,
                                   img.bits <= 8 ? 0 : img.order, pal.empty() ? nullptr : pal.data(),
                                   /*viewPerspective=*/0, nullptr, 0);
  if (r != RESULT_OK) {
    if (bm.allocated()) bm.adopt();
    throw LibraryError("cannot create a " + std::to_string(img.width) + "x" + std::to_string(img.height) + "x" +
                           std::to_string(img.bits) + " bitmap: " + describe_result(r),
                       r);
  }
  bm.adopt();
  if (img.xdpi > 0) bm->XResolution = img.xdpi;
  if (img.ydpi > 0) bm->YResolution = img.ydpi;
  const auto line = static_cast<int32_t>(bm->BytesPerLine);
  for (int y = 0; y < img.height; ++y) {
    const int32_t w = V_PutBitmapRow(bm.get(), img.row(y), static_cast<uint32_t>(y), line);
    if (w < 0) throw LibraryError("cannot write row " + std::to_string(y) + ": " + describe_result(w), w);
  }
  return bm;
}

namespace {

// 12-bit gray (two pixels in three bytes) to 16-bit gray, bit-replicated so
// that 4095 becomes 65535.
void widen12(const uint8_t* src, uint8_t* dst, int width) {
  for (int x = 0; x < width; ++x) {
    const uint8_t* p = src + (x / 2) * 3;
    const unsigned v = (x & 1) ? ((p[1] >> 4) | (p[2] << 4)) : (p[0] | ((p[1] & 0x0F) << 8));
    const unsigned w = (v << 4) | (v >> 8);
    dst[2 * x] = static_cast<uint8_t>(w);
    dst[2 * x + 1] = static_cast<uint8_t>(w >> 8);
  }
}

}  // namespace

Image to_image(BitmapHandle& bm) {
  if (!(bm.Flags & BITMAP_ALLOCATED)) throw LibraryError("the bitmap has no storage", RESULT_NO_BITMAP);
  if (bm.ViewPerspective != 0 && bm.ViewPerspective != 2) {
    // Other orientations are saved as seen: a copy stored top row first.
    BitmapHandle seen;
    const int32_t r = V_ChangeBitmapViewPerspective(&seen, &bm, 0);
    if (r != RESULT_OK) throw LibraryError("cannot turn view perspective " + std::to_string(bm.ViewPerspective) +
                                               " upright: " + describe_result(r), r);
    struct Release {
      BitmapHandle* b;
      ~Release() { V_FreeBitmap(b); }
    } release{&seen};
    return to_image(seen);
  }
  const int bits = bm.BitsPerPixel;
  const bool order5 = bm.Order == ORDER_BGR_ALT && (bits == 24 || bits == 48);

  Image img;
  int out_bits = bits, out_order = bm.Order;
  if (bits == 12) out_bits = 16, out_order = ORDER_GRAY;
  if (order5) out_order = ORDER_BGR;
  if (bits == 16 && bm.Order != ORDER_GRAY && bm.Order != ORDER_RGB) out_order = ORDER_BGR;
  if (bits <= 8) out_order = ORDER_RGB;
  img.allocate(bm.Width, bm.Height, out_bits, out_order);
  img.xdpi = bm.XResolution;
  img.ydpi = bm.YResolution;
  if (bits <= 8) {
    std::vector<RGBQUAD> pal(size_t(1) << bits);
    const int32_t n = bm.Palette ? V_GetBitmapPaletteEntries(&bm, 0, static_cast<int32_t>(pal.size()), pal.data()) : 0;
    const size_t count = bm.ColorCount && bm.ColorCount < pal.size() ? bm.ColorCount : pal.size();
    img.palette.resize(n > 0 ? std::min<size_t>(count, static_cast<size_t>(n)) : 0);
    for (size_t i = 0; i < img.palette.size(); ++i)
      img.palette[i] = Colour{pal[i].rgbBlue, pal[i].rgbGreen, pal[i].rgbRed, 0};
    if (img.palette.empty()) throw LibraryError("the bitmap's palette cannot be read", RESULT_FAIL);
  }
  const size_t line = bm.BytesPerLine;
  std::vector<uint8_t> buf(std::max(line, img.stride()) + 8);
  for (int y = 0; y < bm.Height; ++y) {
    const int32_t r = V_GetBitmapRow(&bm, buf.data(), static_cast<uint32_t>(storage_row(bm, y)),
                                     static_cast<int32_t>(line));
    if (r < 0) throw LibraryError("cannot read row " + std::to_string(y) + ": " + describe_result(r), r);
    if (bits == 12) {
      widen12(buf.data(), img.row(y), bm.Width);
      continue;
    }
    if (order5) {
      const int32_t c = V_ConvertBuffer(buf.data(), bm.Width, bits, bits, ORDER_BGR_ALT, ORDER_BGR, nullptr, nullptr);
      if (c != RESULT_OK) throw LibraryError("cannot convert colour order 5: " + describe_result(c), c);
    }
    std::memcpy(img.row(y), buf.data(), img.stride());
  }
  return img;
}

}  // namespace vkimg
