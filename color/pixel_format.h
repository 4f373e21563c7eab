// pixel_format.h - the one pixel-format layer: every stored pixel layout
// (palette indices of 1-8 bits, 8-bit gray levels, 12- and 16-bit gray
// samples, 5-5-5 colour, 8- and 16-bit channels in either order) as a type
// that reads and writes single pixels and runs of pixels in the working
// forms the operations use, plus the rules every reader shares: the 16-bit
// little-endian sample, the widening of a 5-bit field, the gray level of a
// colour, the gray bit-range rule and the size of the 5-5-5 colour cube.
// Conversion, pixel access, grayscale, dithering, colour count and the
// optimiser all read pixels through it, so a layout or a rule changes in one
// place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

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
// Decoders turn stored pixels into one of these; encoders take them back.
// Indices and 8-bit gray levels travel as plain integers, gray samples as
// the raw stored value (the caller applies its bit range).
struct Rgb8 {
  uint8_t r, g, b;
};
struct Rgb16 {
  uint16_t r, g, b;
};

inline void put_le16(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
}
// An 8-bit channel as a 16-bit one (the byte in both halves).
inline constexpr uint16_t widen8(uint32_t v) { return uint16_t(v * 257u); }

// The significant bits of a gray sample: (raw >> shift) & mask.
struct SampleRange {
  uint32_t shift, mask;
  constexpr uint32_t operator()(uint32_t raw) const { return (raw >> shift) & mask; }
};

// ---- pixel formats ----------------------------------------------------------------
// One type per stored layout.  Each gives the pixel at column x of a row,
// `pixel(row, x)` (inline, for kernels that read as they go), a run of n
// pixels from column x0 into working values, `run(row, x0, n, out)`, and the
// matching writers `put` and `put_run`.  A writer touches only its own
// pixel's bits, so rows may be converted in place.  Kernels are templates
// over these types, chosen once per call (see with_indexed / with_colour /
// with_gray below): the pixel loop holds no switch and no indirect call.

// 8-bit gray levels, one byte each (depth 0).
struct Level {
  static uint32_t pixel(const uint8_t* row, size_t x) { return row[x]; }
  static void run(const uint8_t* row, size_t x0, uint32_t n, uint8_t* out) { std::memcpy(out, row + x0, n); }
  static void put_run(uint8_t* row, size_t x0, uint32_t n, const uint8_t* in) { std::memcpy(row + x0, in, n); }
};

// Palette indices of B bits (1 to 8).  Rows of 1-7 bits are one continuous
// bit stream, most significant bit first; a field of 3, 5, 6 or 7 bits that
// straddles two bytes is read from them as one big-endian word.  Only the
// bytes that hold the field are touched.
template <int B>
struct Indexed {
  static_assert(B >= 1 && B <= 8, "packed depths are 1 to 8 bits");
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
    const uint64_t bit = uint64_t(x) * B;
    put_at_bit(row + (bit >> 3), uint32_t(bit & 7), v);
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
  static const uint8_t* word(const uint8_t* row, size_t x) { return row + (x >> 1) * 3 + (x & 1); }
  static uint32_t pixel(const uint8_t* row, size_t x) { return at(word(row, x), x & 1); }
  static void put(uint8_t* row, size_t x, uint32_t v) { put_at(row + (x >> 1) * 3 + (x & 1), x & 1, v); }
  static void run(const uint8_t* row, size_t x0, uint32_t n, uint16_t* out, SampleRange r) {
    for (uint32_t i = 0; i < n; ++i) out[i] = uint16_t(r(pixel(row, x0 + i)));
  }
  static void put_run(uint8_t* row, size_t x0, uint32_t n, const uint16_t* in) {
    for (uint32_t i = 0; i < n; ++i) put(row, x0 + i, in[i]);
  }
};

// 16-bit gray samples, little-endian.
struct Gray16 {
  static uint32_t pixel(const uint8_t* row, size_t x) { return le16(row + 2 * x); }
  static void put(uint8_t* row, size_t x, uint32_t v) { put_le16(row + 2 * x, v); }
  static void run(const uint8_t* row, size_t x0, uint32_t n, uint16_t* out, SampleRange r) {
    const uint8_t* p = row + 2 * x0;
    for (uint32_t i = 0; i < n; ++i) out[i] = uint16_t(r(le16(p + 2 * i)));
  }
  static void put_run(uint8_t* row, size_t x0, uint32_t n, const uint16_t* in) {
    uint8_t* p = row + 2 * x0;
    for (uint32_t i = 0; i < n; ++i) put_le16(p + 2 * i, in[i]);
  }
};

// Colour formats: pixel / run / put / put_run in 8-bit channels; kWide marks
// the formats that also have 16-bit channel forms.

// 5-5-5 colour in a little-endian word: BGR has red in bits 10-14, RGB has
// blue there.  Fields widen to 8 bits; writing keeps the top 5 bits.
template <bool Bgr>
struct Rgb555 {
  static constexpr bool kWide = false;
  static uint32_t word(const uint8_t* row, size_t x) { return le16(row + 2 * x); }
  static Rgb8 of_word(uint32_t w) {
    const uint8_t hi = widen5((w >> 10) & 31), mid = widen5((w >> 5) & 31), lo = widen5(w & 31);
    return Bgr ? Rgb8{hi, mid, lo} : Rgb8{lo, mid, hi};
  }
  static uint32_t word_of(Rgb8 c) {
    const uint32_t hi = (Bgr ? c.r : c.b) >> 3, lo = (Bgr ? c.b : c.r) >> 3;
    return (hi << 10) | (uint32_t(c.g >> 3) << 5) | lo;
  }
  static Rgb8 pixel(const uint8_t* row, size_t x) { return of_word(word(row, x)); }
  static void put(uint8_t* row, size_t x, Rgb8 c) { put_le16(row + 2 * x, word_of(c)); }
  static void run(const uint8_t* row, size_t x0, uint32_t n, Rgb8* out) {
    for (uint32_t i = 0; i < n; ++i) out[i] = pixel(row, x0 + i);
  }
  static void put_run(uint8_t* row, size_t x0, uint32_t n, const Rgb8* in) {
    for (uint32_t i = 0; i < n; ++i) put(row, x0 + i, in[i]);
  }
};

// 24 (Step 3) and 32 (Step 4) bits: one byte per channel, blue first for BGR;
// the fourth byte is written as 0.
template <bool Bgr, int Step>
struct Rgb8Bytes {
  static constexpr bool kWide = false;
  static Rgb8 pixel(const uint8_t* row, size_t x) {
    const uint8_t* p = row + x * Step;
    return Bgr ? Rgb8{p[2], p[1], p[0]} : Rgb8{p[0], p[1], p[2]};
  }
  static void put(uint8_t* row, size_t x, Rgb8 c) {
    uint8_t* p = row + x * Step;
    p[0] = Bgr ? c.b : c.r;
    p[1] = c.g;
    p[2] = Bgr ? c.r : c.b;
    if constexpr (Step == 4) p[3] = 0;
  }
  static void run(const uint8_t* row, size_t x0, uint32_t n, Rgb8* out) {
    for (uint32_t i = 0; i < n; ++i) out[i] = pixel(row, x0 + i);
  }
  static void put_run(uint8_t* row, size_t x0, uint32_t n, const Rgb8* in) {
    for (uint32_t i = 0; i < n; ++i) put(row, x0 + i, in[i]);
  }
};

// 48 (Step 6) and 64 (Step 8) bits: little-endian 16-bit channels, the fourth
// written as 0.  In 8-bit channels a pixel reads as the high bytes; the
// 16-bit forms are pixel16 / run16 / put16 / put_run16.
template <bool Bgr, int Step>
struct Rgb16Words {
  static constexpr bool kWide = true;  // has the 16-bit forms
  static Rgb8 pixel(const uint8_t* row, size_t x) {
    const uint8_t* p = row + x * Step;
    return Bgr ? Rgb8{p[5], p[3], p[1]} : Rgb8{p[1], p[3], p[5]};
  }
  static Rgb16 pixel16(const uint8_t* row, size_t x) {
    const uint8_t* p = row + x * Step;
    const uint16_t a = uint16_t(le16(p)), b = uint16_t(le16(p + 2)), c = uint16_t(le16(p + 4));
    return Bgr ? Rgb16{c, b, a} : Rgb16{a, b, c};
  }
  static void put16(uint8_t* row, size_t x, Rgb16 c) {
    uint8_t* p = row + x * Step;
    put_le16(p, Bgr ? c.b : c.r);
    put_le16(p + 2, c.g);
    put_le16(p + 4, Bgr ? c.r : c.b);
    if constexpr (Step == 8) put_le16(p + 6, 0);
  }
  static void put(uint8_t* row, size_t x, Rgb8 c) { put16(row, x, Rgb16{widen8(c.r), widen8(c.g), widen8(c.b)}); }
  static void run(const uint8_t* row, size_t x0, uint32_t n, Rgb8* out) {
    for (uint32_t i = 0; i < n; ++i) out[i] = pixel(row, x0 + i);
  }
  static void run16(const uint8_t* row, size_t x0, uint32_t n, Rgb16* out) {
    for (uint32_t i = 0; i < n; ++i) out[i] = pixel16(row, x0 + i);
  }
  static void put_run16(uint8_t* row, size_t x0, uint32_t n, const Rgb16* in) {
    for (uint32_t i = 0; i < n; ++i) put16(row, x0 + i, in[i]);
  }
};

// ---- choosing a format (once per call) ------------------------------------------------
// The format type of a depth and colour order, at compile time ...
template <int Depth, bool Bgr = false>
struct FormatOf {
  static_assert(Depth >= 1 && Depth <= 8, "no format of this depth");
  using type = Indexed<Depth>;
};
template <bool Bgr> struct FormatOf<0, Bgr> { using type = Level; };
template <bool Bgr> struct FormatOf<12, Bgr> { using type = Gray12; };
template <bool Bgr> struct FormatOf<16, Bgr> { using type = Rgb555<Bgr>; };
template <bool Bgr> struct FormatOf<24, Bgr> { using type = Rgb8Bytes<Bgr, 3>; };
template <bool Bgr> struct FormatOf<32, Bgr> { using type = Rgb8Bytes<Bgr, 4>; };
template <bool Bgr> struct FormatOf<48, Bgr> { using type = Rgb16Words<Bgr, 6>; };
template <bool Bgr> struct FormatOf<64, Bgr> { using type = Rgb16Words<Bgr, 8>; };
template <int Depth, bool Bgr = false>
using Format = typename FormatOf<Depth, Bgr>::type;

// ... and at run time: `f` is called with a value of the format type, so the
// kernel it instantiates is fixed before the first pixel.
// Palette indices of 1 to 8 bits (anything else reads as 8).
template <class Fn>
decltype(auto) with_indexed(int32_t bits, Fn&& f) {
  switch (bits) {
    case 1: return f(Indexed<1>{});
    case 2: return f(Indexed<2>{});
    case 3: return f(Indexed<3>{});
    case 4: return f(Indexed<4>{});
    case 5: return f(Indexed<5>{});
    case 6: return f(Indexed<6>{});
    case 7: return f(Indexed<7>{});
    default: return f(Indexed<8>{});
  }
}
// Colour words of 16, 24, 32, 48 or 64 bits (anything else reads as 64).
template <class Fn>
decltype(auto) with_colour(int32_t bits, bool bgr, Fn&& f) {
  switch (bits) {
    case 16: return bgr ? f(Rgb555<true>{}) : f(Rgb555<false>{});
    case 24: return bgr ? f(Rgb8Bytes<true, 3>{}) : f(Rgb8Bytes<false, 3>{});
    case 32: return bgr ? f(Rgb8Bytes<true, 4>{}) : f(Rgb8Bytes<false, 4>{});
    case 48: return bgr ? f(Rgb16Words<true, 6>{}) : f(Rgb16Words<false, 6>{});
    default: return bgr ? f(Rgb16Words<true, 8>{}) : f(Rgb16Words<false, 8>{});
  }
}
// Gray samples of 12 or 16 bits (anything but 12 reads as 16).
template <class Fn>
decltype(auto) with_gray(int32_t bits, Fn&& f) {
  return bits == 12 ? f(Gray12{}) : f(Gray16{});
}

}  // namespace vk
