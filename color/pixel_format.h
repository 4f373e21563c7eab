// pixel_format.h - the one pixel-format layer.  Every stored pixel layout
// (palette indices of 1-8 bits, 8-bit gray levels, 12- and 16-bit gray
// samples, 5-5-5 colour, 8- and 16-bit channels in either order) is a type
// that reads and writes single pixels and runs of pixels in the working forms
// the operations use; one table maps a depth and channel order to its layout.
// With them live the rules every reader shares: the 16-bit little-endian
// sample, the widening of a 5-bit field, the gray level of a colour, the gray
// bit-range rule and the size of the 5-5-5 colour cube.  Conversion, pixel
// access, grayscale, dithering, colour count and the optimiser all read
// pixels through it, so a layout or a rule changes in one place.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

namespace vk {

// Cells of the 5-5-5 colour cube: histograms, user match tables and the
// optimiser's tables all have one entry per cell.
inline constexpr uint32_t kColorCells = 32768;

// A 16-bit sample as stored in rows: low byte first.
inline constexpr uint32_t le16(const uint8_t* p) { return uint32_t(p[0]) | (uint32_t(p[1]) << 8); }

// A 5-bit field as an 8-bit channel (the top bits repeat in the low ones).
inline constexpr uint8_t widen5(uint32_t field) { return uint8_t((field << 3) | (field >> 2)); }

// Gray level of an 8-bit-per-channel colour: (5 g + 2 r + b + 4) / 8.
inline constexpr uint32_t gray_level(uint32_t red, uint32_t green, uint32_t blue) {
  return (5u * green + 2u * red + blue + 4u) >> 3;
}

// The gray bit-range rule: a sample's significant bits are the top `count`
// of low .. high, where low = max(lowBit, 0), high = highBit, or bits - 1
// when highBit is negative, and count = min(high - low + 1, maxBits).  A
// value is read as (raw >> shift) & mask with shift = high - count + 1.
// Each reader then applies its own limits to count (see shift_for).
struct BitRange {
  int64_t high;
  int64_t count;  // may be 0 or negative: the range names no bit
  // The shift for a count the caller settled on.
  constexpr int64_t shift_for(int64_t n) const { return high - n + 1; }
};
inline constexpr BitRange bit_range(int32_t bits, int32_t max_bits, int32_t low_bit, int32_t high_bit) {
  const int64_t low = low_bit > 0 ? low_bit : 0;
  const int64_t high = high_bit >= 0 ? high_bit : int64_t(bits) - 1;
  const int64_t count = high - low + 1;
  return BitRange{high, count > max_bits ? max_bits : count};
}
// The mask of `count` low bits (0 for none, all for 32 or more).
inline constexpr uint32_t low_bits(int64_t count) {
  return count <= 0 ? 0u : count >= 32 ? 0xFFFFFFFFu : (1u << count) - 1u;
}
// A shift that fits a 32-bit word.
inline constexpr uint32_t clamp_shift(int64_t shift) { return uint32_t(shift < 0 ? 0 : shift > 31 ? 31 : shift); }

// ---- working forms ------------------------------------------------------------
// What a layout reads into and writes from.  Indices and 8-bit gray levels
// travel as uint8_t, gray samples as uint16_t (read through the caller's bit
// range; written as the finished word), colours as 8- or 16-bit channels.
enum class Form : uint8_t { index, sample, rgb8, rgb16 };
struct Rgb8 {
  uint8_t r, g, b;
};
struct Rgb16 {
  uint16_t r, g, b;
};

// On little-endian hosts it is one 16-bit store: written as two bytes, the
// compiler merges neighbouring channels' bytes into wider words with shifts
// and ors, which cost 48-bit runs a fifth of their speed.
inline void put_le16(uint8_t* p, uint32_t v) {
  if constexpr (std::endian::native == std::endian::little) {
    const uint16_t w = uint16_t(v);
    std::memcpy(p, &w, 2);
  } else {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
  }
}

// A whole pixel of up to eight bytes as one value, low byte first: one load
// or store where the host is little-endian.
inline uint64_t le64(const uint8_t* p) {
  if constexpr (std::endian::native == std::endian::little) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
  } else {
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
    return v;
  }
}
inline void put_le64(uint8_t* p, uint64_t v) {
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(p, &v, 8);
  } else {
    for (int i = 0; i < 8; ++i) p[i] = uint8_t(v >> (8 * i));
  }
}
// An 8-bit channel as a 16-bit one (the byte in both halves).
inline constexpr uint16_t widen8(uint32_t v) { return uint16_t(v * 257u); }

// The significant bits of a gray sample: (raw >> shift) & mask.
struct SampleRange {
  uint32_t shift, mask;
  constexpr uint32_t operator()(uint32_t raw) const { return (raw >> shift) & mask; }
};

// ---- layouts ------------------------------------------------------------------------
// Each gives the pixel at column x of a row, `pixel(row, x)` (inline, for
// kernels that read as they go), and its writer `put(row, x, v)`.  A writer
// touches only its own pixel's bits, so rows may be converted in place.  The
// runs over many pixels are built from these below.

// Palette indices of B bits (1 to 8; depth 0, the 8-bit gray level, is stored
// as B = 8).  Rows of 1-7 bits are one continuous bit stream, most
// significant bit first; a field of 3, 5, 6 or 7 bits that straddles two
// bytes is read from them as one big-endian word.  Only the bytes that hold
// the field are touched.
template <int B>
struct Indexed {
  static_assert(B >= 1 && B <= 8, "packed depths are 1 to 8 bits");
  static constexpr Form kForm = Form::index;
  static constexpr uint32_t kMask = (1u << B) - 1u;
  static constexpr bool kStraddles = 8 % B != 0;

  // The field starting `bit` bits (0-7, from the top) into p[0].
  static uint32_t at_bit(const uint8_t* p, uint32_t bit) {
    if (!kStraddles || bit + B <= 8) return (p[0] >> (8 - B - bit)) & kMask;
    return (((uint32_t(p[0]) << 8) | p[1]) >> (16 - B - bit)) & kMask;
  }
  static void put_at_bit(uint8_t* p, uint32_t bit, uint32_t v) {
    v &= kMask;
    if (!kStraddles || bit + B <= 8) {
      const uint32_t s = 8 - B - bit;
      p[0] = uint8_t((p[0] & ~(kMask << s)) | (v << s));
    } else {
      const uint32_t s = 16 - B - bit;
      const uint32_t w = (((uint32_t(p[0]) << 8) | p[1]) & ~(kMask << s)) | (v << s);
      p[0] = uint8_t(w >> 8);
      p[1] = uint8_t(w);
    }
  }
  static uint32_t pixel(const uint8_t* row, size_t x) {
    if constexpr (B == 8) {
      return row[x];
    } else {
      const uint64_t bit = uint64_t(x) * B;
      return at_bit(row + (bit >> 3), uint32_t(bit & 7));
    }
  }
  static void put(uint8_t* row, size_t x, uint32_t v) {
    if constexpr (B == 8) {
      row[x] = uint8_t(v);
    } else {
      const uint64_t bit = uint64_t(x) * B;
      put_at_bit(row + (bit >> 3), uint32_t(bit & 7), v);
    }
  }
  static void run(const uint8_t* row, size_t x0, uint32_t n, uint8_t* out) {
    if constexpr (B == 8) {
      std::memcpy(out, row + x0, n);
    } else {
      uint64_t bit = uint64_t(x0) * B;
      for (uint32_t i = 0; i < n; ++i, bit += B) out[i] = uint8_t(at_bit(row + (bit >> 3), uint32_t(bit & 7)));
    }
  }
  static void put_run(uint8_t* row, size_t x0, uint32_t n, const uint8_t* in) {
    if constexpr (B == 8) {
      std::memcpy(row + x0, in, n);
    } else {
      uint64_t bit = uint64_t(x0) * B;
      for (uint32_t i = 0; i < n; ++i, bit += B) put_at_bit(row + (bit >> 3), uint32_t(bit & 7), in[i]);
    }
  }
};

// 12-bit gray samples, two pixels in three bytes: pixel 2m is the low 12 bits
// of the little-endian word at byte 3m, pixel 2m+1 the high 12 bits of the
// word at byte 3m+1.
struct Gray12 {
  static constexpr Form kForm = Form::sample;
  // The sample whose word starts at p (byte 3m for even, 3m+1 for odd pixels).
  static uint32_t at(const uint8_t* p, bool odd) { return odd ? le16(p) >> 4 : le16(p) & 0xFFFu; }
  static void put_at(uint8_t* p, bool odd, uint32_t v) {
    v &= 0xFFFu;
    if (odd) {
      p[0] = uint8_t((p[0] & 0x0Fu) | ((v & 15u) << 4));
      p[1] = uint8_t(v >> 4);
    } else {
      p[0] = uint8_t(v);
      p[1] = uint8_t((p[1] & 0xF0u) | (v >> 8));
    }
  }
  static uint32_t pixel(const uint8_t* row, size_t x) { return at(row + (x >> 1) * 3 + (x & 1), x & 1); }
  static void put(uint8_t* row, size_t x, uint32_t v) { put_at(row + (x >> 1) * 3 + (x & 1), x & 1, v); }
  // Whole pairs are written three bytes at a time.
  static void put_run(uint8_t* row, size_t x0, uint32_t n, const uint16_t* in) {
    uint32_t i = 0;
    if ((x0 & 1) && n) put(row, x0, in[i++]);
    uint8_t* p = row + ((x0 + i) >> 1) * 3;
    for (; i + 1 < n; i += 2, p += 3) {
      const uint32_t a = in[i] & 0xFFFu, b = in[i + 1] & 0xFFFu;
      p[0] = uint8_t(a);
      p[1] = uint8_t((a >> 8) | (b << 4));
      p[2] = uint8_t(b >> 4);
    }
    if (i < n) put(row, x0 + i, in[i]);
  }
};

// 16-bit gray samples, little-endian.
struct Gray16 {
  static constexpr Form kForm = Form::sample;
  static uint32_t pixel(const uint8_t* row, size_t x) { return le16(row + 2 * x); }
  static void put(uint8_t* row, size_t x, uint32_t v) { put_le16(row + 2 * x, v); }
};

// 5-5-5 colour in a little-endian word: BGR has red in bits 10-14, RGB has
// blue there.  Fields widen to 8 bits; writing keeps the top 5 bits.
template <bool Bgr>
struct Rgb555 {
  static constexpr Form kForm = Form::rgb8;
  static uint32_t word(const uint8_t* row, size_t x) { return le16(row + 2 * x); }
  static Rgb8 of_word(uint32_t w) {
    const uint8_t hi = widen5((w >> 10) & 31), mid = widen5((w >> 5) & 31), lo = widen5(w & 31);
    return Bgr ? Rgb8{hi, mid, lo} : Rgb8{lo, mid, hi};
  }
  static Rgb8 pixel(const uint8_t* row, size_t x) { return of_word(word(row, x)); }
  static void put(uint8_t* row, size_t x, Rgb8 c) {
    const uint32_t hi = (Bgr ? c.r : c.b) >> 3, lo = (Bgr ? c.b : c.r) >> 3;
    put_le16(row + 2 * x, (hi << 10) | (uint32_t(c.g >> 3) << 5) | lo);
  }
};

// Colours of three channels `Width` bytes apart in pixels of Step bytes:
// `pixel` reads the 8-bit channels (the last byte of each, the high byte of
// a little-endian word), `put_run` writes a run with a stepping pointer
// through the layout's own `put`.
template <class Self, bool Bgr, int Step, int Width>
struct ChannelPixels {
  static Rgb8 pixel(const uint8_t* row, size_t x) {
    const uint8_t* p = row + x * Step + (Width - 1);
    const uint8_t first = p[0], mid = p[Width], last = p[2 * Width];
    return Bgr ? Rgb8{last, mid, first} : Rgb8{first, mid, last};
  }
  // The pointer steps in address-wide arithmetic: a 32-bit `i * Step` may
  // wrap, which keeps the compiler from vectorising the loop (RGB-ordered
  // 24-bit runs ran at half speed that way).
  template <class V>
  static void put_run(uint8_t* row, size_t x0, uint32_t n, const V* in) {
    uint8_t* p = row + x0 * Step;
    for (uint32_t i = 0; i < n; ++i, p += Step) Self::put(p, 0, in[i]);
  }
};

// 24 (Step 3) and 32 (Step 4) bits: one byte per channel, blue first for BGR;
// the fourth byte is written as 0.
template <bool Bgr, int Step>
struct Rgb8Bytes : ChannelPixels<Rgb8Bytes<Bgr, Step>, Bgr, Step, 1> {
  static constexpr Form kForm = Form::rgb8;
  static void put(uint8_t* row, size_t x, Rgb8 c) {
    uint8_t* p = row + x * Step;
    p[0] = Bgr ? c.b : c.r;
    p[1] = c.g;
    p[2] = Bgr ? c.r : c.b;
    if constexpr (Step == 4) p[3] = 0;
  }
};

// 48 (Step 6) and 64 (Step 8) bits: little-endian 16-bit channels, the fourth
// written as 0.  `pixel` gives the 8-bit channels (the high bytes),
// `pixel16` / `put` the 16-bit ones.
template <bool Bgr, int Step>
struct Rgb16Words : ChannelPixels<Rgb16Words<Bgr, Step>, Bgr, Step, 2> {
  static constexpr Form kForm = Form::rgb16;
  static Rgb16 pixel16(const uint8_t* row, size_t x) {
    const uint8_t* p = row + x * Step;
    const uint16_t a = uint16_t(le16(p)), b = uint16_t(le16(p + 2)), c = uint16_t(le16(p + 4));
    return Bgr ? Rgb16{c, b, a} : Rgb16{a, b, c};
  }
  static void put(uint8_t* row, size_t x, Rgb16 c) {
    uint8_t* p = row + x * Step;
    put_le16(p, Bgr ? c.b : c.r);
    put_le16(p + 2, c.g);
    put_le16(p + 4, Bgr ? c.r : c.b);
    if constexpr (Step == 8) put_le16(p + 6, 0);
  }
};

// ---- runs -----------------------------------------------------------------------------
// n pixels from column x0 into working values (`out` holds n of the layout's
// form; a gray sample goes through `range`), and back.  `decode8` reads
// colour layouts as 8-bit channels (the high bytes of 16-bit ones).
template <class F>
void decode_run(const uint8_t* row, size_t x0, uint32_t n, void* out, SampleRange range) {
  if constexpr (F::kForm == Form::index) {
    F::run(row, x0, n, static_cast<uint8_t*>(out));
  } else if constexpr (F::kForm == Form::sample) {
    uint16_t* o = static_cast<uint16_t*>(out);
    for (uint32_t i = 0; i < n; ++i) o[i] = uint16_t(range(F::pixel(row, x0 + i)));
  } else if constexpr (F::kForm == Form::rgb16) {
    Rgb16* o = static_cast<Rgb16*>(out);
    for (uint32_t i = 0; i < n; ++i) o[i] = F::pixel16(row, x0 + i);
  } else {
    Rgb8* o = static_cast<Rgb8*>(out);
    for (uint32_t i = 0; i < n; ++i) o[i] = F::pixel(row, x0 + i);
  }
}
template <class F>
void decode8_run(const uint8_t* row, size_t x0, uint32_t n, void* out, SampleRange) {
  Rgb8* o = static_cast<Rgb8*>(out);
  for (uint32_t i = 0; i < n; ++i) o[i] = F::pixel(row, x0 + i);
}
template <class F, class V>
void put_values(uint8_t* row, size_t x0, uint32_t n, const V* v) {
  if constexpr (requires { F::put_run(row, x0, n, v); })
    F::put_run(row, x0, n, v);
  else
    for (uint32_t i = 0; i < n; ++i) F::put(row, x0 + i, v[i]);
}
template <class F>
void encode_run(uint8_t* row, size_t x0, uint32_t n, const void* in) {
  using V = std::conditional_t<F::kForm == Form::index, uint8_t,
                               std::conditional_t<F::kForm == Form::sample, uint16_t,
                                                  std::conditional_t<F::kForm == Form::rgb8, Rgb8, Rgb16>>>;
  put_values<F>(row, x0, n, static_cast<const V*>(in));
}

using RunDecode = void (*)(const uint8_t* row, size_t x0, uint32_t n, void* out, SampleRange range);
using RunEncode = void (*)(uint8_t* row, size_t x0, uint32_t n, const void* in);
struct RunCodec {
  Form form;          // what decode yields and encode takes
  RunDecode decode;
  RunDecode decode8;  // colour layouts only
  RunEncode encode;
};
template <class F>
constexpr RunCodec codec_of() {
  if constexpr (F::kForm == Form::rgb8 || F::kForm == Form::rgb16)
    return RunCodec{F::kForm, decode_run<F>, decode8_run<F>, encode_run<F>};
  else
    return RunCodec{F::kForm, decode_run<F>, nullptr, encode_run<F>};
}

// ---- the format table -------------------------------------------------------------------
// Every layout, numbered by its place in this list.
template <class... F>
struct LayoutList {
  static constexpr size_t size = sizeof...(F);
  static constexpr RunCodec codecs[sizeof...(F)] = {codec_of<F>()...};
};
using Layouts = LayoutList<Indexed<1>, Indexed<2>, Indexed<3>, Indexed<4>, Indexed<5>, Indexed<6>, Indexed<7>,
                           Indexed<8>, Gray12, Gray16, Rgb555<false>, Rgb555<true>, Rgb8Bytes<false, 3>,
                           Rgb8Bytes<true, 3>, Rgb8Bytes<false, 4>, Rgb8Bytes<true, 4>, Rgb16Words<false, 6>,
                           Rgb16Words<true, 6>, Rgb16Words<false, 8>, Rgb16Words<true, 8>>;

// The channel-order column of the table.  Callers fold the orders of their
// own calls into these (the second colour space keeps BGR positions).
enum Channels : uint8_t { kRgb = 0, kBgr = 1, kGray = 2 };

// Layout number by depth row (0-8, 12, 16, 24, 32, 48, 64) and channels.
// Depths that have one layout repeat it in every column; 16 bits is 5-5-5
// colour or a gray sample.
inline constexpr uint8_t kLayoutOf[15][3] = {
    {7, 7, 7},    {0, 0, 0},    {1, 1, 1},    {2, 2, 2},    {3, 3, 3},   {4, 4, 4},   {5, 5, 5},    {6, 6, 6},
    {7, 7, 7},    {8, 8, 8},    {10, 11, 9},  {12, 13, 12}, {14, 15, 14}, {16, 17, 16}, {18, 19, 18},
};
// The table row of a depth; depths outside the table read as 8 bits (callers
// check depths first).  Looked up, not switched on: single-pixel calls pay
// for every branch they take on the way to a layout.
inline constexpr std::array<uint8_t, 65> kDepthRow = [] {
  std::array<uint8_t, 65> t{};
  for (int bits = 0; bits <= 64; ++bits) t[size_t(bits)] = uint8_t(bits <= 8 ? bits : 8);
  t[12] = 9;
  t[16] = 10;
  t[24] = 11;
  t[32] = 12;
  t[48] = 13;
  t[64] = 14;
  return t;
}();
inline constexpr int depth_row(int32_t bits) { return uint32_t(bits) <= 64u ? kDepthRow[size_t(bits)] : 8; }
inline constexpr int layout_of(int32_t bits, Channels c) { return kLayoutOf[depth_row(bits)][c]; }

// The run codecs of a depth and channel order.
inline const RunCodec& run_codec(int32_t bits, Channels c) { return Layouts::codecs[layout_of(bits, c)]; }

// The layout of a depth and channel order as a type: `f` is called once with
// a value of it, so the kernel it instantiates is fixed before the first
// pixel.  Every branch of `f` must return the same type.
template <class Fn, class... F, size_t... I>
decltype(auto) visit_layout(int id, Fn&& f, LayoutList<F...>, std::index_sequence<I...>) {
  using R = decltype(f(Indexed<8>{}));
  R result{};
  (void)((id == int(I) ? (result = f(F{}), true) : false) || ...);
  return result;
}
template <class Fn>
decltype(auto) with_layout(int32_t bits, Channels c, Fn&& f) {
  return visit_layout(layout_of(bits, c), f, Layouts{}, std::make_index_sequence<Layouts::size>{});
}

// The same pixel read touching only the bytes the pixel occupies (no slack
// after the row), for rows the caller hands in without room to spare.
template <int B>
inline uint32_t packed_pixel_tight(const uint8_t* row, uint32_t x) {
  static_assert(B >= 1 && B <= 8, "packed depths are 1 to 8 bits");
  const uint32_t bit = x * B, at = bit & 7;
  if (at + B <= 8) return (row[bit >> 3] >> (8 - B - at)) & ((1u << B) - 1);
  const uint32_t word = (static_cast<uint32_t>(row[bit >> 3]) << 8) | row[(bit >> 3) + 1];
  return (word >> (16 - B - at)) & ((1u << B) - 1);
}

// Writes one pixel of 1 to 8 bits into a packed row; the neighbouring bits
// are kept and no byte beyond the pixel's own is touched.
template <int B>
inline void put_packed_pixel(uint8_t* row, uint32_t x, uint32_t v) {
  static_assert(B >= 1 && B <= 8, "packed depths are 1 to 8 bits");
  const uint32_t bit = x * B, at = bit & 7, mask = (1u << B) - 1;
  v &= mask;
  uint8_t* p = row + (bit >> 3);
  if (at + B <= 8) {
    const uint32_t shift = 8 - B - at;
    *p = static_cast<uint8_t>((*p & ~(mask << shift)) | (v << shift));
    return;
  }
  const uint32_t shift = 16 - B - at;
  const uint32_t word = ((static_cast<uint32_t>(p[0]) << 8) | p[1]) & ~(mask << shift);
  const uint32_t out = word | (v << shift);
  p[0] = static_cast<uint8_t>(out >> 8);
  p[1] = static_cast<uint8_t>(out);
}

// 12-bit gray: pixel 2m is the low 12 bits of the little-endian word at byte
// 3m, pixel 2m+1 the high 12 bits of the word at byte 3m+1.
inline uint32_t gray12_pixel(const uint8_t* row, uint32_t x) {
  const uint8_t* p = row + (x >> 1) * 3;
  return (x & 1) ? (uint32_t(p[1]) >> 4) | (uint32_t(p[2]) << 4) : uint32_t(p[0]) | ((uint32_t(p[1]) & 0x0F) << 8);
}
// Writing one keeps the other pixel's nibble.
inline void put_gray12_pixel(uint8_t* row, uint32_t x, uint32_t v) {
  uint8_t* p = row + (x >> 1) * 3;
  if (x & 1) {
    p[1] = static_cast<uint8_t>((p[1] & 0x0F) | ((v & 0x0F) << 4));
    p[2] = static_cast<uint8_t>(v >> 4);
  } else {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>((p[1] & 0xF0) | ((v >> 8) & 0x0F));
  }
}

}  // namespace vk
