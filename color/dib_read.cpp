// dib_read.cpp - reading a device-independent bitmap: the header in its
// three forms, the palette or colour masks, the sizes checked against the
// bytes the caller hands in, the rewriting of bit-field pixels, and the
// conversion of YUV video frames to colour.
#include <climits>
#include <cstring>

#include "core.h"
#include "dib.h"
#include "palette.h"
#include "pixel_format.h"
#include "platform.h"

namespace vk::dib {
namespace {

inline uint32_t le32(const uint8_t* p) { return le16(p) | le16(p + 2) << 16; }

Video video_of(uint32_t compression) {
  switch (compression) {
    case fourcc('Y', 'V', 'U', '9'): return Video::yvu9;
    case fourcc('I', '4', '2', '0'):
    case fourcc('I', 'Y', 'U', 'V'): return Video::i420;
    case fourcc('Y', 'V', '1', '2'): return Video::yv12;
    case fourcc('N', 'V', '1', '2'): return Video::nv12;
    case fourcc('Y', 'U', 'Y', '2'):
    case fourcc('Y', 'U', 'Y', 'V'): return Video::yuy2;
    case fourcc('U', 'Y', 'V', 'Y'): return Video::uyvy;
    case fourcc('Y', 'V', 'Y', 'U'): return Video::yvyu;
    default: return Video::none;
  }
}

// The field of a mask: its highest and lowest set bit, cut to the top
// `max_bits` bits.
Field field_of(uint32_t mask, int32_t max_bits) {
  const uint32_t full = low_bits(max_bits);
  if (mask == 0) return Field{0, 0, full};
  const int32_t low = __builtin_ctz(mask), high = 31 - __builtin_clz(mask);
  const BitRange r = bit_range(32, max_bits, low, high);
  return Field{clamp_shift(r.shift_for(r.count)), low_bits(r.count), full};
}

Masks classify(uint32_t bits, const uint32_t m[3]) {
  if (bits == 16) {
    if (m[0] == 0x7C00 && m[1] == 0x3E0 && m[2] == 0x1F) return Masks::plain;
    // Deliberately 0x8E00, not 0xF800: the customary 5-6-5 masks take the
    // general path, which ends in the same pixels.
    if (m[0] == 0x8E00 && m[1] == 0x7E0 && m[2] == 0x1F) return Masks::fast565;
    return Masks::general;
  }
  if (m[0] == 0xFF0000 && m[1] == 0xFF00 && m[2] == 0xFF) return Masks::plain;
  if (m[0] == 0xFF && m[1] == 0xFF00 && m[2] == 0xFF0000) return Masks::swapped;
  return Masks::general;
}

}  // namespace

Planes planes_of(const Info& d, const uint8_t* bits) {
  const uint64_t w = uint32_t(d.width), h = uint32_t(d.height < 0 ? -int64_t(d.height) : d.height);
  const uint64_t cw = (w + 1) / 2, ch = (h + 1) / 2;
  Planes p{bits, nullptr, nullptr, w, cw, 1, 1, 1, 1};
  const uint8_t* chroma = bits + w * h;
  switch (d.video) {
    case Video::i420: p.u = chroma; p.v = chroma + cw * ch; break;
    case Video::yv12: p.v = chroma; p.u = chroma + cw * ch; break;
    case Video::yvu9: {
      const uint64_t qw = (w + 3) / 4, qh = (h + 3) / 4;
      p.v = chroma;
      p.u = chroma + qw * qh;
      p.c_stride = qw;
      p.sx = p.sy = 2;
      break;
    }
    case Video::nv12: p.u = chroma; p.v = chroma + 1; p.c_stride = 2 * cw; p.c_step = 2; break;
    default: {  // packed 4:2:2, two pixels in four bytes
      const bool uyvy = d.video == Video::uyvy, yvyu = d.video == Video::yvyu;
      p.y = bits + (uyvy ? 1 : 0);
      p.u = bits + (uyvy ? 0 : yvyu ? 3 : 1);
      p.v = bits + (uyvy ? 2 : yvyu ? 1 : 3);
      p.y_stride = p.c_stride = 4 * cw;
      p.y_step = 2;
      p.c_step = 4;
      p.sy = 0;
      break;
    }
  }
  return p;
}

namespace {

uint64_t video_bytes(const Info& d) {
  const uint64_t w = uint32_t(d.width), h = uint32_t(d.height < 0 ? -int64_t(d.height) : d.height);
  const uint64_t cw = (w + 1) / 2, ch = (h + 1) / 2;
  switch (d.video) {
    case Video::yvu9: return w * h + 2 * ((w + 3) / 4) * ((h + 3) / 4);
    case Video::i420: case Video::yv12: case Video::nv12: return w * h + 2 * cw * ch;
    default: return 4 * cw * h;
  }
}

inline uint8_t clip(int32_t v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); }

// ---- bit-field rows: one kernel per depth and rule -----------------------------------

inline uint32_t field_value(uint32_t px, const Field& f) {
  const uint32_t v = (px >> f.shift) & f.mask;
  return f.mask == f.full || f.mask == 0 ? v : v * f.full / f.mask;
}

void rewrite_fast565(const Field*, uint8_t* row, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) {
    const uint32_t v = le16(row + 2 * i);
    put_le16(row + 2 * i, ((v >> 1) & ~0x1Fu) | (v & 0x1Fu));
  }
}
void rewrite_general16(const Field* f, uint8_t* row, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) {
    const uint32_t v = le16(row + 2 * i);
    put_le16(row + 2 * i, field_value(v, f[0]) << 10 | field_value(v, f[1]) << 5 | field_value(v, f[2]));
  }
}
void rewrite_general32(const Field* f, uint8_t* row, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) {
    const uint32_t v = le32(row + 4 * i);
    Rgb8Bytes<true, 4>::put(row, i, Rgb8{uint8_t(field_value(v, f[0])), uint8_t(field_value(v, f[1])), uint8_t(field_value(v, f[2]))});
  }
}

}  // namespace

int32_t read_info(const uint8_t* p, size_t available, Info* out) {
  Info& d = *out;
  std::memset(&d, 0, sizeof d);
  if (!p || available < 4) return RESULT_BAD_FORMAT;
  d.header_size = le32(p);
  if (d.header_size == kCoreHeader) {
    if (available < kCoreHeader) return RESULT_BAD_FORMAT;
    d.core = true;
    d.width = int32_t(le16(p + 4));
    d.height = int32_t(le16(p + 6));
    d.planes = le16(p + 8);
    d.bits = le16(p + 10);
  } else {
    // Any other size is read as the information form, which it must hold.
    if (d.header_size < kInfoHeader || d.header_size > available) return RESULT_BAD_FORMAT;
    d.width = int32_t(le32(p + 4));
    d.height = int32_t(le32(p + 8));
    d.planes = le16(p + 12);
    d.bits = le16(p + 14);
    d.compression = le32(p + 16);
    d.x_ppm = int32_t(le32(p + 24));
    d.y_ppm = int32_t(le32(p + 28));
    d.colors_used = le32(p + 32);
  }
  if (d.width <= 0 || d.height == 0 || d.height == INT32_MIN) return RESULT_BAD_PARAMETER;
  const uint64_t height = uint32_t(d.height < 0 ? -d.height : d.height);

  d.video = video_of(d.compression);
  if (d.video != Video::none) {
    // Video frames carry no palette; their samples follow the header.
    d.pixel_offset = d.header_size;
    d.stride = uint32_t(d.width);
    d.pixel_bytes = video_bytes(d);
    // The 24-bit bitmap they become must have a 32-bit size as well.
    if (uint64_t{bytes_per_line(d.width, 24)} * height > UINT32_MAX) return RESULT_BAD_FORMAT;
  } else {
    const bool fields = d.compression == kBitFields;
    const uint64_t palette_bits = d.bits >= 1 && d.bits <= 8 ? uint64_t{1} << d.bits : 0;
    const uint64_t entries = palette_bits && d.colors_used == 0 ? palette_bits : d.colors_used;
    if (entries > kMaxPaletteEntries) return RESULT_BAD_FORMAT;
    const uint64_t masks_at = d.header_size, palette_at = masks_at + (fields ? 12 : 0);
    d.pixel_offset = palette_at + entries * (d.core ? 3 : 4);
    if (available != SIZE_MAX && d.pixel_offset > available) return RESULT_BAD_FORMAT;
    if (fields) {
      const uint32_t m[3] = {le32(p + masks_at), le32(p + masks_at + 4), le32(p + masks_at + 8)};
      const int32_t max_bits = d.bits == 16 ? 5 : 8;
      d.masks = classify(d.bits, m);
      for (int i = 0; i < 3; ++i) d.fields[i] = field_of(m[i], max_bits);
    }
    d.palette_count = uint32_t(entries < palette_bits ? entries : palette_bits);
    for (uint32_t i = 0; i < d.palette_count; ++i) {
      const uint8_t* e = p + palette_at + uint64_t{i} * (d.core ? 3 : 4);
      d.palette[i] = RGBQUAD{e[0], e[1], e[2], 0};
    }
    d.stride = (uint64_t(uint32_t(d.width)) * d.bits + 31) / 32 * 4;
    d.pixel_bytes = d.stride * height;
  }
  // An absurd width or height: rows the 32-bit bitmap size cannot hold.
  if (d.pixel_bytes > UINT32_MAX) return RESULT_BAD_FORMAT;
  // The offset lies inside the bytes by now; the pixels must follow it there.
  if (available != SIZE_MAX && d.pixel_bytes > available - d.pixel_offset) return RESULT_BAD_FORMAT;
  return RESULT_OK;
}

int32_t check_storable(const Info& d) {
  if (d.video != Video::none || d.planes != 1) return RESULT_BAD_FORMAT;
  if (d.compression != kNone && d.compression != kBitFields) return RESULT_BAD_FORMAT;
  if (d.compression == kBitFields && d.bits != 16 && d.bits != 32) return RESULT_BAD_FORMAT;
  switch (d.bits) {
    case 1: case 4: case 8: case 16: case 24: case 32: return RESULT_OK;
    default: return RESULT_BAD_FORMAT;
  }
}

int32_t dpi_of(int32_t ppm, bool horizontal) {
  int64_t m = ppm;
  if (m == 0) {
    const plat::ScreenInfo s = plat::screen_info();
    m = horizontal ? plat::muldiv(s.horz_res, 1000, s.horz_size) : plat::muldiv(s.vert_res, 1000, s.vert_size);
  }
  return int32_t((m * 254 + 5000) / 10000);
}

// A resolution too fine for the 32-bit field is held at its largest value
// rather than wrapped.
int32_t ppm_of(int32_t dpi) {
  const int64_t ppm = (int64_t{dpi} * 10000 + 127) / 254;
  return int32_t(ppm > INT32_MAX ? INT32_MAX : ppm < INT32_MIN ? INT32_MIN : ppm);
}

void rewrite_row(const Info& d, uint8_t* row, uint32_t pixels) {
  using Fn = void (*)(const Field*, uint8_t*, uint32_t);
  // By rule (fast565, general) and depth (16, 32); the plain rules need nothing.
  Fn fn = nullptr;
  if (d.masks == Masks::fast565) fn = rewrite_fast565;
  if (d.masks == Masks::general) fn = d.bits == 16 ? rewrite_general16 : rewrite_general32;
  if (fn) fn(d.fields, row, pixels);
}

// BT.601, limited range, 8-bit integer form:
//   C = Y - 16, D = U - 128, E = V - 128
//   R = (298 C + 409 E + 128) >> 8
//   G = (298 C - 100 D - 208 E + 128) >> 8
//   B = (298 C + 516 D + 128) >> 8, each clipped to 0..255.
void video_row(const Planes& p, uint32_t width, uint32_t y, uint8_t* bgr) {
  const uint8_t* ly = p.y + uint64_t{y} * p.y_stride;
  const uint64_t crow = uint64_t{y >> p.sy} * p.c_stride;
  const uint8_t *lu = p.u + crow, *lv = p.v + crow;
  for (uint32_t x = 0; x < width; ++x) {
    const int32_t c = int32_t(ly[uint64_t{x} * p.y_step]) - 16;
    const uint64_t ci = uint64_t{x >> p.sx} * p.c_step;
    const int32_t du = int32_t(lu[ci]) - 128, ev = int32_t(lv[ci]) - 128;
    Rgb8Bytes<true, 3>::put(bgr, x,
                            Rgb8{clip((298 * c + 409 * ev + 128) >> 8), clip((298 * c - 100 * du - 208 * ev + 128) >> 8),
                                 clip((298 * c + 516 * du + 128) >> 8)});
  }
}

}  // namespace vk::dib
