// resize_scanline.cpp - the scan-line layer of the resize engine: one row
// stretched or shrunk by nearest-neighbour selection (forward, and from the
// end so that a row can grow in place), and the row-streaming object that
// tells a caller feeding rows how often to repeat each one.
//
// Positions: destination pixel i takes the source pixel
//   start + floor((acc + i * (step * den + rem)) / den),
// walked as a whole step plus a remainder carried against den.  Below 8 bits
// and at 12 bits an expanding walk takes the whole step as 0 (the source
// moves only on a carry).  Rows of 1-7 bits are a bit stream, most
// significant bit first; 12-bit pixels are two in three bytes.  The source
// pointer of those depths holds the start pixel; deeper callers offset it.
#include <cstring>

#include "pixel_format.h"
#include "platform.h"
#include "resize.h"

namespace vk::resize {
namespace {

// The pixel at bit offset `bit` of p (a depth below 8 or 12).
template <int B>
inline uint32_t get_at(const uint8_t* p, uint64_t bit) {
  if constexpr (B == 12) {
    const uint8_t* q = p + (bit >> 3);
    return (bit & 7) ? le16(q) >> 4 : le16(q) & 0xFFFu;
  } else {
    return Indexed<B>::at_bit(p + (bit >> 3), uint32_t(bit & 7));
  }
}
template <int B>
inline void put_at(uint8_t* p, uint64_t bit, uint32_t v) {
  if constexpr (B == 12)
    Gray12::put_at(p + (bit >> 3), (bit & 7) != 0, v);
  else
    Indexed<B>::put_at_bit(p + (bit >> 3), uint32_t(bit & 7), v);
}

struct Walk {
  uint32_t start, step, acc, rem, count, den;
};

// Depths below 8 and 12: every destination pixel is assigned; `clear` then
// zeroes the rest of the dst_bytes row (the result of clearing the row
// first, but safe when source and destination are one buffer and the row
// shrinks).  4 bits assign whole bytes from the high nibble and leave the
// bytes after the last pixel alone.
template <int B>
void forward_packed(const uint8_t* src, uint8_t* dst, uint32_t dst_bytes, Walk w, bool expand, bool clear) {
  const uint64_t first = (uint64_t(w.start) * B) & 7;
  const uint32_t step = expand ? 0 : w.step;
  uint64_t pos = 0;
  uint32_t acc = w.acc;
  for (uint32_t i = 0; i < w.count; ++i) {
    put_at<B>(dst, uint64_t(i) * B, get_at<B>(src, first + pos * B));
    acc += w.rem;
    if (acc >= w.den) {
      acc -= w.den;
      ++pos;
    }
    pos += step;
  }
  if (!clear) return;
  const uint64_t end_bit = uint64_t(w.count) * B;
  if constexpr (B == 4) {
    if (w.count & 1) dst[w.count / 2] &= 0xF0;
  } else if constexpr (B == 12) {
    // An odd last pixel leaves the high nibble of its second byte.
    uint64_t byte = (end_bit + 7) >> 3;
    if ((w.count & 1) && byte - 1 < dst_bytes) dst[byte - 1] &= 0x0F;
    if (byte < dst_bytes) std::memset(dst + byte, 0, size_t(dst_bytes - byte));
  } else {
    uint64_t byte = end_bit >> 3;
    if ((end_bit & 7) && byte < dst_bytes) dst[byte++] &= uint8_t(0xFF00u >> (end_bit & 7));
    if (byte < dst_bytes) std::memset(dst + byte, 0, size_t(dst_bytes - byte));
  }
}

// Whole-byte pixels of N bytes.
template <int N>
void forward_bytes(const uint8_t* src, uint8_t* dst, Walk w) {
  const uint8_t* s = src;
  uint32_t acc = w.acc;
  for (uint32_t i = 0; i < w.count; ++i, dst += N) {
    std::memcpy(dst, s, N);
    acc += w.rem;
    if (acc >= w.den) {
      acc -= w.den;
      s += N;
    }
    s += size_t(w.step) * N;
  }
}

// From the last destination pixel back to the first: the end position is
// found first, then every step is undone (a borrow moves back one pixel).
class BackWalk {
 public:
  BackWalk(const Walk& w, uint64_t step)
      : total_(uint64_t(w.count) * w.rem + w.acc),
        pos_(uint64_t(w.count) * step + total_ / w.den),
        acc_(int64_t(total_ % w.den)),
        rem_(w.rem),
        den_(w.den),
        step_(step) {}
  // The source position of the previous destination pixel.
  uint64_t prev() {
    acc_ -= rem_;
    if (acc_ < 0) {
      acc_ += den_;
      --pos_;
    }
    return pos_ -= step_;
  }

 private:
  uint64_t total_, pos_;
  int64_t acc_, rem_, den_;
  uint64_t step_;
};

template <int B>
void reverse_packed(const uint8_t* src, uint8_t* dst, Walk w, bool expand) {
  const uint64_t first = (uint64_t(w.start) * B) & 7;
  BackWalk back(w, expand ? 0 : w.step);
  for (uint32_t i = w.count; i-- > 0;) put_at<B>(dst, uint64_t(i) * B, get_at<B>(src, first + back.prev() * B));
}
template <int N>
void reverse_bytes(const uint8_t* src, uint8_t* dst, Walk w) {
  BackWalk back(w, w.step);
  for (uint32_t i = w.count; i-- > 0;) std::memmove(dst + size_t(i) * N, src + back.prev() * N, N);
}

struct ScanKernels {
  void (*forward)(const uint8_t*, uint8_t*, uint32_t, Walk, bool, bool);
  void (*reverse)(const uint8_t*, uint8_t*, Walk, bool);
};
template <int B>
constexpr ScanKernels packed_kernels() {
  return {forward_packed<B>, reverse_packed<B>};
}
template <int N>
constexpr ScanKernels byte_kernels() {
  return {[](const uint8_t* s, uint8_t* d, uint32_t, Walk w, bool, bool) { forward_bytes<N>(s, d, w); },
          [](const uint8_t* s, uint8_t* d, Walk w, bool) { reverse_bytes<N>(s, d, w); }};
}
// Keyed by depth_row: 0 (none), 1-8, 12, 16, 24, 32, 48, 64.
constexpr ScanKernels kScan[15] = {
    {nullptr, nullptr}, packed_kernels<1>(), packed_kernels<2>(), packed_kernels<3>(), packed_kernels<4>(),
    packed_kernels<5>(), packed_kernels<6>(), packed_kernels<7>(), byte_kernels<1>(), packed_kernels<12>(),
    byte_kernels<2>(),  byte_kernels<3>(),  byte_kernels<4>(),  byte_kernels<6>(),  byte_kernels<8>()};

const ScanKernels* kernels_for(int32_t bits) {
  if (!valid_bitmap_depth(bits)) return nullptr;
  return &kScan[depth_row(bits)];
}

bool walk_of(int32_t start, int32_t step, int32_t acc, int32_t rem, int32_t count, int32_t den, Walk& w) {
  if (start < 0 || step < 0 || acc < 0 || rem < 0 || count < 1 || den < 1) return false;
  w = Walk{uint32_t(start), uint32_t(step), uint32_t(acc), uint32_t(rem), uint32_t(count), uint32_t(den)};
  return true;
}

}  // namespace

bool dimension_rule(int32_t* width, int32_t* height, int32_t old_width, int32_t old_height) {
  if (!width || !height || *width < 0 || *height < 0) return false;
  if (*width == 0 && *height == 0) return false;
  if (*width == 0) {
    if (old_height < 1) return false;
    *width = plat::muldiv(*height, old_width, old_height);
    return *width > 0;
  }
  if (*height == 0) {
    if (old_width < 1) return false;
    *height = plat::muldiv(*width, old_height, old_width);
    return *height > 0;
  }
  return true;
}

void scan_line(int32_t bits, int32_t dst_bytes, int32_t start_x, int32_t step, int32_t acc, int32_t rem,
               const uint8_t* src, uint8_t* dst, int32_t count, int32_t den, bool expand) {
  const ScanKernels* k = kernels_for(bits);
  Walk w;
  if (!k || !src || !dst || !walk_of(start_x, step, acc, rem, count, den, w)) return;
  k->forward(src, dst, dst_bytes > 0 ? uint32_t(dst_bytes) : 0u, w, expand, true);
}

void reverse_scan_line(int32_t bits, int32_t start_x, int32_t step, int32_t acc, int32_t rem, const uint8_t* src,
                       uint8_t* dst, int32_t count, int32_t den, bool expand) {
  const ScanKernels* k = kernels_for(bits);
  Walk w;
  if (!k || !src || !dst || !walk_of(start_x, step, acc, rem, count, den, w)) return;
  // A shrinking packed row goes front to back (each destination pixel lies
  // at or before its source), assigning every pixel and clearing nothing.
  if (bits < 8 && !expand)
    k->forward(src, dst, 0, w, false, false);
  else
    k->reverse(src, dst, w, expand);
}

Step step_for(int32_t src_len, int32_t dst_len) {
  Step s{src_len / dst_len, src_len % dst_len, dst_len};
  if (src_len <= dst_len && s.r == 0) s = Step{0, dst_len, dst_len};
  return s;
}

namespace {

// The row-streaming object; the fields in this order are its published
// layout.
struct ResizeState {
  int32_t last_row, backward, old_width, old_height, new_width, new_height;
  int32_t x_quotient, x_remainder, unused1, unused2;
  int32_t y_quotient, y_remainder, unused3;
  int32_t y_acc;
};

int32_t start_resize(int32_t old_w, int32_t old_h, int32_t new_w, int32_t new_h, void** out) {
  if (!out) return RESULT_BAD_PARAMETER;
  if (old_w < 1 || old_h < 1 || !dimension_rule(&new_w, &new_h, old_w, old_h)) return RESULT_BAD_PARAMETER;
  auto* s = static_cast<ResizeState*>(V_Malloc(sizeof(ResizeState)));
  if (!s) return RESULT_FAIL;
  *s = ResizeState{-1, 0, old_w, old_h, new_w, new_h, old_w / new_w, old_w % new_w, 0, 0,
                   new_h / old_h, new_h % old_h, 0, 0};
  *out = s;
  return RESULT_OK;
}

int32_t resize_row(uint8_t* row, int32_t n, int32_t bits, int32_t* new_width, int32_t* count, ResizeState* s) {
  if (!row || !new_width || !count || !s) return RESULT_BAD_PARAMETER;
  if (s->old_width == s->new_width && s->old_height == s->new_height) {
    *count = 1;
    *new_width = s->new_width;
    return 1;
  }
  int32_t c = s->y_quotient;
  const int64_t d = int64_t{s->last_row} - n;
  // The accumulator after a change of direction or a jump depends only on
  // the row number: before row n it is rem x n mod old height going
  // forwards, and going backwards (undoing row n) rem x (n + 1), so that
  // both walks give each row the same count.
  const int32_t derived = int32_t((int64_t{s->y_remainder} * n) % s->old_height);
  if (d == 1) {
    if (!s->backward) s->y_acc = int32_t((int64_t{s->y_remainder} * (int64_t{n} + 1)) % s->old_height), s->backward = 1;
    s->y_acc -= s->y_remainder;
    if (s->y_acc < 0) ++c, s->y_acc += s->old_height;
  } else {
    if (d != -1 || s->backward) s->y_acc = derived, s->backward = 0;
    s->y_acc += s->y_remainder;
    if (s->y_acc >= s->old_height) ++c, s->y_acc -= s->old_height;
  }
  s->last_row = n;
  *new_width = s->new_width;
  *count = c;
  if (c == 0) return 0;
  const int32_t len = int32_t(((int64_t{s->old_width} * bits + 7) / 8) & 0x1FFFFFFF);
  if (s->new_width <= s->old_width && (bits >= 8 || s->new_width == s->old_width)) {
    if (s->new_width != s->old_width)
      scan_line(bits, len, 0, s->x_quotient, 0, s->x_remainder, row, row, s->new_width, s->new_width, false);
  } else {
    reverse_scan_line(bits, 0, s->x_quotient, 0, s->x_remainder, row, row, s->new_width, s->new_width,
                      s->new_width > s->old_width);
  }
  return c;
}

}  // namespace
}  // namespace vk::resize

using namespace vk;

extern "C" {

VK_API void VK_CALL V_GetResizedScanLine(int32_t bitsPerPixel, int32_t dstBytes, int32_t startX, int32_t step,
                                         int32_t accStart, int32_t remainder, const void* src, void* dst,
                                         int32_t count, int32_t denominator, int32_t expand) {
  api_call_void([&] {
    resize::scan_line(bitsPerPixel, dstBytes, startX, step, accStart, remainder, static_cast<const uint8_t*>(src),
                      static_cast<uint8_t*>(dst), count, denominator, expand != 0);
  });
}

VK_API int32_t VK_CALL V_ReverseGetResizedScanLine(int32_t bitsPerPixel, int32_t dstBytes, int32_t startX,
                                                   int32_t step, int32_t accStart, int32_t remainder,
                                                   const void* src, void* dst, int32_t count, int32_t denominator,
                                                   int32_t expand) {
  (void)dstBytes;
  api_call_void([&] {
    resize::reverse_scan_line(bitsPerPixel, startX, step, accStart, remainder, static_cast<const uint8_t*>(src),
                              static_cast<uint8_t*>(dst), count, denominator, expand != 0);
  });
  return 0;
}

VK_API int32_t VK_CALL V_StartResize(int32_t oldWidth, int32_t oldHeight, int32_t newWidth, int32_t newHeight,
                                     void** state) {
  return api_call([&] { return resize::start_resize(oldWidth, oldHeight, newWidth, newHeight, state); });
}

VK_API int32_t VK_CALL V_Resize(void* row, int32_t rowNumber, int32_t bitsPerPixel, int32_t* newWidth,
                                int32_t* count, void* state) {
  return api_call([&] {
    return resize::resize_row(static_cast<uint8_t*>(row), rowNumber, bitsPerPixel, newWidth, count,
                              static_cast<resize::ResizeState*>(state));
  });
}

VK_API int32_t VK_CALL V_StopResize(void* state) {
  return api_call([&]() -> int32_t {
    if (!state) return RESULT_BAD_PARAMETER;
    V_Free(state);
    return RESULT_OK;
  });
}

}  // extern "C"
