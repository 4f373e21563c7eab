// Row conversion: known values, layouts, round trips at every width and bit
// offset (in place, with a guard after the buffer), and the acceptance table
// of depths and colour orders.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "color_helpers.h"
#include "fault.h"
#include "orient_helpers.h"
#include "vkkrn.h"
#include "fault_sweep.h"

// Fault sweeps in this file.
VKT_SWEEPS(V_CopyGrayParams);

namespace {

using vkt::quad;
#if defined(__SANITIZE_ADDRESS__)
constexpr size_t kGuard = 0;  // exact allocation: the sanitizer checks the end
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr size_t kGuard = 0;
#else
constexpr size_t kGuard = 32;
#endif
#else
constexpr size_t kGuard = 32;
#endif

// A row buffer of exactly `size` bytes in its own allocation, followed (when
// not under the address sanitizer) by a guard pattern that must survive.
class Row {
 public:
  explicit Row(size_t size) : size_(size), p_(new uint8_t[size + kGuard]) {
    std::memset(p_.get(), 0, size);
    std::memset(p_.get() + size, 0xA5, kGuard);
  }
  uint8_t* data() { return p_.get(); }
  uint8_t& operator[](size_t i) { return p_[i]; }
  size_t size() const { return size_; }
  bool guard_intact() const {
    for (size_t i = 0; i < kGuard; ++i)
      if (p_[size_ + i] != 0xA5) return false;
    return true;
  }
  std::vector<uint8_t> bytes() const { return std::vector<uint8_t>(p_.get(), p_.get() + size_); }

 private:
  size_t size_;
  std::unique_ptr<uint8_t[]> p_;
};

uint32_t le16(const uint8_t* p) { return p[0] | (p[1] << 8); }
// Pixel k of a row of `bits` per pixel (0: gray levels), read by the reference reader.
uint64_t pixel(const uint8_t* p, size_t k, int bits) { return vkt::ref_pixel(p, bits == 0 ? 8 : bits, uint32_t(k)); }

// Palette of `count` distinct colours.
std::vector<RGBQUAD> distinct_palette(size_t count, uint32_t seed) {
  std::vector<RGBQUAD> p;
  for (size_t i = 0; i < count; ++i) {
    const uint32_t x = uint32_t(i) * 2654435761u + seed;
    p.push_back(quad(int(i), int((x >> 8) & 255), int((x >> 16) & 255)));
  }
  return p;
}

int32_t conv(uint8_t* buf, int32_t w, int32_t sb, int32_t db, int32_t so, int32_t dor,
             const RGBQUAD* sp = nullptr, const RGBQUAD* dp = nullptr) {
  return V_ConvertBuffer(buf, w, sb, db, so, dor, sp, dp);
}

// ---- known values -------------------------------------------------------------------

TEST(Convert, GrayFormulaKnownValues) {
  struct Case { uint8_t b, g, r, level; };
  Case cases[] = {{255, 0, 0, 32}, {0, 255, 0, 159}, {0, 0, 255, 64}, {255, 255, 255, 255}, {0, 0, 0, 0}};
  for (const auto& c : cases) {
    uint8_t px[4] = {c.b, c.g, c.r, 0};
    ASSERT_EQ(conv(px, 1, 24, 0, ORDER_BGR, ORDER_BGR), RESULT_OK);
    EXPECT_EQ(px[0], c.level);
    // Same colour from a 48-bit row: the high bytes count.
    uint8_t wide[8] = {0x7F, c.b, 0x80, c.g, 0xFF, c.r, 0, 0};
    ASSERT_EQ(conv(wide, 1, 48, 0, ORDER_BGR, ORDER_BGR), RESULT_OK);
    EXPECT_EQ(wide[0], c.level);
  }
}

TEST(Convert, ChannelWideningAndNarrowing) {
  uint8_t row[16] = {0x12, 0xAB, 0xFF};
  ASSERT_EQ(conv(row, 1, 24, 48, ORDER_BGR, ORDER_BGR), RESULT_OK);
  EXPECT_EQ(le16(row), 0x1212u);
  EXPECT_EQ(le16(row + 2), 0xABABu);
  EXPECT_EQ(le16(row + 4), 0xFFFFu);
  row[0] = 0x00;  // low byte of the first channel is dropped on the way back
  ASSERT_EQ(conv(row, 1, 48, 24, ORDER_BGR, ORDER_RGB), RESULT_OK);
  EXPECT_EQ(row[0], 0xFF);
  EXPECT_EQ(row[1], 0xAB);
  EXPECT_EQ(row[2], 0x12);

  // 5-5-5 fields widen as (f << 3) | (f >> 2).
  struct Case { uint16_t word; int order; uint8_t b, g, r; } cases[] = {
      {0x7FFF, ORDER_BGR, 255, 255, 255}, {0x001F, ORDER_BGR, 255, 0, 0}, {0x001F, ORDER_RGB, 0, 0, 255},
      {0x7C00, ORDER_BGR, 0, 0, 255},     {0x03E0, ORDER_BGR, 0, 255, 0}, {0x8010, ORDER_BGR, 132, 0, 0},
  };
  for (const auto& c : cases) {
    uint8_t px[4] = {uint8_t(c.word), uint8_t(c.word >> 8)};
    ASSERT_EQ(conv(px, 1, 16, 24, c.order, ORDER_BGR), RESULT_OK);
    EXPECT_EQ((std::vector<int>{px[0], px[1], px[2]}), (std::vector<int>{c.b, c.g, c.r})) << std::hex << c.word;
  }

  // Packing: top five bits, bit 15 written as 0.
  struct Pack { uint8_t b, g, r; int order; uint16_t word; };
  Pack packs[] = {{255, 255, 255, ORDER_BGR, 0x7FFF}, {255, 0, 0, ORDER_BGR, 0x001F}, {255, 0, 0, ORDER_RGB, 0x7C00},
               {7, 8, 0x80, ORDER_BGR, 0x4020}};
  for (const auto& c : packs) {
    uint8_t px[4] = {c.b, c.g, c.r};
    ASSERT_EQ(conv(px, 1, 24, 16, ORDER_BGR, c.order), RESULT_OK);
    EXPECT_EQ(le16(px), c.word);
  }
  uint8_t px[4] = {0xFF, 0xFF};  // 16-bit BGR -> RGB swaps fields and clears bit 15
  ASSERT_EQ(conv(px, 1, 16, 16, ORDER_BGR, ORDER_RGB), RESULT_OK);
  EXPECT_EQ(le16(px), 0x7FFFu);
}

TEST(Convert, FourthChannelIsWrittenZeroAndIgnored) {
  uint8_t row[16] = {1, 2, 3, 99, 4, 5, 6, 99};
  ASSERT_EQ(conv(row, 2, 32, 64, ORDER_BGR, ORDER_RGB), RESULT_OK);
  EXPECT_EQ(le16(row + 0), 0x0303u);
  EXPECT_EQ(le16(row + 4), 0x0101u);
  EXPECT_EQ(le16(row + 6), 0u);
  EXPECT_EQ(le16(row + 8), 0x0606u);
  EXPECT_EQ(le16(row + 14), 0u);
  row[6] = 0x55;
  ASSERT_EQ(conv(row, 2, 64, 32, ORDER_RGB, ORDER_RGB), RESULT_OK);
  EXPECT_EQ((std::vector<int>(row, row + 8)), (std::vector<int>{3, 2, 1, 0, 6, 5, 4, 0}));
}

TEST(Convert, OneBitToColourUsesMostSignificantBitFirst) {
  uint8_t row[12] = {0x40};
  ASSERT_EQ(conv(row, 3, 1, 24, ORDER_RGB, ORDER_BGR), RESULT_OK);
  EXPECT_EQ((std::vector<int>(row, row + 9)), (std::vector<int>{0, 0, 0, 255, 255, 255, 0, 0, 0}));
}

TEST(Convert, GrayLevelToGrayWords) {
  uint8_t row[8] = {200};
  ASSERT_EQ(conv(row, 1, 0, 16, ORDER_RGB, ORDER_GRAY), RESULT_OK);
  EXPECT_EQ(le16(row), 200u * 257u);

  uint8_t r12[8] = {200, 0xEE, 0xEE};
  ASSERT_EQ(conv(r12, 1, 0, 12, ORDER_RGB, ORDER_GRAY), RESULT_OK);
  EXPECT_EQ(pixel(r12, 0, 12), 3211u);
  EXPECT_EQ(r12[1] & 0xF0, 0xE0);  // the odd pixel's nibble is kept
  EXPECT_EQ(r12[2], 0xEE);

  // A 4-bit range: 200 >> 4 = 12, placed at the range's shift.
  struct Case { int low, high; uint32_t word; };
  const Case cases[] = {{0, 3, 12}, {4, 7, 12u << 4},
                        {8, -1, 200u << 8}, {12, 15, 12u << 12}, {2, 13, (200u * 4095u / 255u) << 2}};
  for (const auto& c : cases) {
    uint8_t px[4] = {200, 0x11};
    ASSERT_EQ(V_ConvertBufferExt(px, 1, 0, 16, ORDER_RGB, ORDER_GRAY, nullptr, nullptr, CONVERT_DST_BITRANGE,
                                 c.low, c.high),
              RESULT_OK);
    EXPECT_EQ(le16(px), c.word) << c.low << ".." << c.high;
  }
}

TEST(Convert, GraySourceRanges) {
  // 16-bit gray to levels: the high byte; with a source range: the top eight
  // bits of the range.
  uint8_t px[4] = {0x34, 0x12};
  ASSERT_EQ(conv(px, 1, 16, 0, ORDER_GRAY, ORDER_RGB), RESULT_OK);
  EXPECT_EQ(px[0], 0x12);
  uint8_t py[4] = {0x34, 0x12};
  ASSERT_EQ(V_ConvertBufferExt(py, 1, 16, 0, ORDER_GRAY, 0, nullptr, nullptr, CONVERT_SRC_BITRANGE, 0, 11), RESULT_OK);
  EXPECT_EQ(py[0], 0x23);
  // A range narrower than a level is scaled to the full level.
  uint8_t pz[4] = {0x0F, 0x00};
  ASSERT_EQ(V_ConvertBufferExt(pz, 1, 16, 24, ORDER_GRAY, 1, nullptr, nullptr, CONVERT_SRC_BITRANGE, 0, 3), RESULT_OK);
  EXPECT_EQ((std::vector<int>(pz, pz + 3)), (std::vector<int>{255, 255, 255}));

  // 12-bit through a source palette (a lookup table of 4096 entries): the
  // masked sample indexes it; with a range, the range's bits do.
  std::vector<RGBQUAD> lut(4096);
  for (int i = 0; i < 4096; ++i) lut[i] = quad(i >> 4, i & 255, (i * 7) & 255);
  uint8_t ix[8] = {0x50, 0x0A, 0};  // pixel 0 = 0xA50
  ASSERT_EQ(conv(ix, 1, 12, 24, ORDER_GRAY, ORDER_BGR, lut.data()), RESULT_OK);
  EXPECT_EQ((std::vector<int>(ix, ix + 3)), (std::vector<int>{(0xA50 * 7) & 255, 0x50, 0xA5}));
  uint8_t iy[8] = {0x50, 0x0A, 0};
  ASSERT_EQ(V_ConvertBufferExt(iy, 1, 12, 0, ORDER_GRAY, 0, lut.data(), nullptr, CONVERT_SRC_BITRANGE, 4, 11),
            RESULT_OK);
  const RGBQUAD e = lut[0xA5];
  EXPECT_EQ(iy[0], (5 * e.rgbGreen + 2 * e.rgbRed + e.rgbBlue + 4) / 8);
  uint8_t iz[8] = {0x50, 0x0A, 0};  // matched into the destination palette
  ASSERT_EQ(conv(iz, 1, 12, 8, ORDER_GRAY, 0, lut.data(), lut.data()), RESULT_OK);
  EXPECT_EQ(iz[0], V_FindPaletteIndex(lut.data(), 256, 0xA5, 0x50, (0xA50 * 7) & 255));
}

// A gray range narrower than a level used to index the level table past its
// 256 entries for keys the range never produces.
TEST(Convert, NarrowGrayRangesToPalettesStayInsideTheirTables) {
  for (const int32_t dst : {1, 4, 8, 0, 24}) {
    SCOPED_TRACE(dst);
    uint8_t px[16] = {0x00, 0x10, 0xFF, 0xFF};  // bit 12 set in pixel 0, all set in pixel 1
    ASSERT_EQ(V_ConvertBufferExt(px, 2, 16, dst, ORDER_GRAY, ORDER_RGB, nullptr, nullptr, CONVERT_SRC_BITRANGE, 12, 12),
              RESULT_OK);
  }
  uint8_t px[8] = {0x00, 0x10, 0x00, 0x00};  // one-bit range: on, off
  ASSERT_EQ(V_ConvertBufferExt(px, 2, 16, 24, ORDER_GRAY, ORDER_RGB, nullptr, nullptr, CONVERT_SRC_BITRANGE, 12, 12),
            RESULT_OK);
  EXPECT_EQ((std::vector<int>(px, px + 6)), (std::vector<int>{255, 255, 255, 0, 0, 0}));
}

TEST(Convert, TwelveBitLayout) {
  // 16-bit gray 0xABC0, 0x1230 -> 12-bit 0xABC, 0x123 -> bytes BC 3A 12.
  uint8_t words[8] = {0xC0, 0xAB, 0x30, 0x12};
  ASSERT_EQ(conv(words, 2, 16, 12, ORDER_GRAY, ORDER_GRAY), RESULT_OK);
  EXPECT_EQ((std::vector<int>(words, words + 3)), (std::vector<int>{0xBC, 0x3A, 0x12}));
  // Odd width: the third pixel fills byte 3 and the low nibble of byte 4; the
  // high nibble of byte 4 keeps what was there (here the source's low byte).
  uint8_t odd[8] = {0xC0, 0xAB, 0x30, 0x12, 0x50, 0xDE, 0x77, 0x77};
  ASSERT_EQ(conv(odd, 3, 16, 12, ORDER_GRAY, ORDER_GRAY), RESULT_OK);
  EXPECT_EQ(pixel(odd, 2, 12), 0xDE5u);
  EXPECT_EQ(odd[4] & 0xF0, 0x50);
}

TEST(Convert, SecondColourSpace) {
  // BGR -> second space after the conversion (no clamp needed).
  uint8_t a[4] = {100, 50, 200};
  ASSERT_EQ(conv(a, 1, 24, 24, ORDER_BGR, ORDER_BGR_ALT), RESULT_OK);
  EXPECT_EQ((std::vector<int>(a, a + 3)), (std::vector<int>{96, 66, 135}));

  // Second space -> BGR before the conversion: truncating division, clamped.
  struct Case { uint8_t in[3]; int out[3]; };
  Case cases[] = {{{100, 50, 200}, {105, 16, 255}}, {{0, 255, 0}, {0, 255, 0}}, {{10, 200, 30}, {0, 243, 0}}};
  for (const auto& c : cases) {
    uint8_t p[4] = {c.in[0], c.in[1], c.in[2]};
    ASSERT_EQ(conv(p, 1, 24, 24, ORDER_BGR_ALT, ORDER_BGR), RESULT_OK);
    EXPECT_EQ((std::vector<int>(p, p + 3)), (std::vector<int>(c.out, c.out + 3)));
    uint8_t g[4] = {c.in[0], c.in[1], c.in[2]};
    ASSERT_EQ(conv(g, 1, 24, 0, ORDER_BGR_ALT, ORDER_RGB), RESULT_OK);
    EXPECT_EQ(g[0], (5 * c.out[1] + 2 * c.out[2] + c.out[0] + 4) / 8);
  }

  // 48-bit pixels of the second space take their high bytes through the
  // 24-bit path (pixel access and dithering convert single pixels this way).
  uint8_t wide[12] = {0x11, 100, 0x22, 50, 0x33, 200, 0, 0, 0, 255, 0, 0};
  ASSERT_EQ(conv(wide, 2, 48, 24, ORDER_BGR_ALT, ORDER_BGR), RESULT_OK);
  EXPECT_EQ((std::vector<int>(wide, wide + 6)), (std::vector<int>{105, 16, 255, 0, 255, 0}));
}

TEST(Convert, PaletteMatchingAgreesWithTheNearestIndex) {
  // 24 -> 8 matching agrees with V_FindPaletteIndex for every pixel (the
  // memo must never return a stale answer on a collision).
  std::vector<RGBQUAD> pal = distinct_palette(256, 99);
  std::mt19937 rng(5);
  const int w = 3000;
  std::vector<uint8_t> buf(size_t(w) * 3);
  for (int i = 0; i < w; ++i) {
    const uint32_t c = (i % 7 == 0) ? rng() : rng() % 64;  // many repeats, some collisions
    buf[3 * i] = uint8_t(c), buf[3 * i + 1] = uint8_t(c >> 8), buf[3 * i + 2] = uint8_t(c >> 16);
  }
  std::vector<uint8_t> src = buf;
  ASSERT_EQ(conv(buf.data(), w, 24, 8, ORDER_BGR, 0, nullptr, pal.data()), RESULT_OK);
  for (int i = 0; i < w; ++i)
    ASSERT_EQ(buf[i], V_FindPaletteIndex(pal.data(), 256, src[3 * i + 2], src[3 * i + 1], src[3 * i])) << i;
}

// ---- round trips -------------------------------------------------------------------------

struct Format { int bits, order; };

// Converts a -> b -> a in one buffer of V_CalcConvertSize bytes and checks the
// pixels come back.  48 to 12 takes the gray level of the high bytes, so
// 12-bit samples going to 48 bits are ones that came from 8-bit levels.
void round_trip(Format a, Format b, const RGBQUAD* pa, const RGBQUAD* pb, int width, std::mt19937& rng,
                const char* what) {
  Row row(V_CalcConvertSize(width, a.bits, width, b.bits));
  const int abits = a.bits == 0 ? 8 : a.bits;
  const size_t used = (size_t(width) * abits + 7) / 8;
  for (size_t i = 0; i < used; ++i) row[i] = uint8_t(rng());
  if (a.bits == 16 && a.order != ORDER_GRAY)
    for (int k = 0; k < width; ++k) row[2 * k + 1] &= 0x7F;  // bit 15 is not part of 5-5-5
  if (a.bits == 32 || a.bits == 64)
    for (int k = 0; k < width; ++k) std::memset(row.data() + k * (a.bits / 8) + 3 * (a.bits / 32), 0, a.bits / 32);
  for (int k = 0; a.bits == 12 && b.bits == 48 && k < width; ++k) {
    const uint32_t v = (rng() & 0xFF) * 4095 / 255;
    uint8_t* c = row.data() + (k / 2) * 3;
    if (k & 1) c[1] = uint8_t((c[1] & 0x0F) | ((v & 15) << 4)), c[2] = uint8_t(v >> 4);
    else c[0] = uint8_t(v), c[1] = uint8_t((c[1] & 0xF0) | (v >> 8));
  }
  std::vector<uint64_t> before;
  for (int k = 0; k < width; ++k) before.push_back(pixel(row.data(), k, a.bits));
  ASSERT_EQ(conv(row.data(), width, a.bits, b.bits, a.order, b.order, pa, pb), RESULT_OK) << what << " w=" << width;
  ASSERT_TRUE(row.guard_intact()) << what << " w=" << width;
  ASSERT_EQ(conv(row.data(), width, b.bits, a.bits, b.order, a.order, pb, pa), RESULT_OK) << what << " w=" << width;
  ASSERT_TRUE(row.guard_intact()) << what << " w=" << width;
  for (int k = 0; k < width; ++k)
    ASSERT_EQ(pixel(row.data(), k, a.bits), before[k]) << what << " w=" << width << " pixel " << k;
}

TEST(ConvertRoundTrip, IndicesAtEveryBitOffset) {
  std::mt19937 rng(1);
  for (int n = 1; n <= 8; ++n) {
    std::vector<RGBQUAD> small = distinct_palette(size_t(1) << n, 3);
    for (int m = n; m <= 8; ++m) {
      // The wider palette starts with the narrower one: an identity map going up,
      // a search (first exact match) coming down.
      std::vector<RGBQUAD> big = distinct_palette(size_t(1) << m, 3);
      for (int width = 1; width <= 70; ++width)
        round_trip({n, 0}, {m, 0}, small.data(), big.data(), width, rng, "index");
    }
    for (int deep : {16, 24, 32, 48, 64}) {
      // Colours survive 5-5-5 only when they are widened 5-bit fields.
      auto w5 = [](int f) { return (f << 3) | (f >> 2); };
      std::vector<RGBQUAD> pal = small;
      if (deep == 16)
        for (size_t i = 0; i < pal.size(); ++i) pal[i] = quad(w5(int(i & 31)), w5(int((i >> 5) & 7)), w5(1));
      for (int width = 1; width <= 70; ++width)
        round_trip({n, 0}, {deep, ORDER_BGR}, pal.data(), nullptr, width, rng, "index-colour");
    }
  }
}

TEST(ConvertRoundTrip, ColourAndGrayFormats) {
  std::mt19937 rng(2);
  const std::vector<RGBQUAD> ramp = [] {
    std::vector<RGBQUAD> r(256);
    V_GetFixedPalette(r.data(), 0);
    return r;
  }();
  struct Pair { Format a, b; const RGBQUAD* pa; const char* what; } pairs[] = {
      {{24, ORDER_BGR}, {24, ORDER_RGB}, nullptr, "24 swap"},
      {{24, ORDER_BGR}, {32, ORDER_RGB}, nullptr, "24-32"},
      {{24, ORDER_RGB}, {48, ORDER_BGR}, nullptr, "24-48"},
      {{32, ORDER_BGR}, {64, ORDER_RGB}, nullptr, "32-64"},
      {{48, ORDER_BGR}, {64, ORDER_RGB}, nullptr, "48-64"},
      {{16, ORDER_BGR}, {24, ORDER_RGB}, nullptr, "555-24"},
      {{16, ORDER_RGB}, {48, ORDER_BGR}, nullptr, "555-48"},
      {{16, ORDER_RGB}, {16, ORDER_BGR}, nullptr, "555 swap"},
      {{0, 0}, {16, ORDER_GRAY}, nullptr, "level-16"},
      {{0, 0}, {12, ORDER_GRAY}, nullptr, "level-12"},
      {{0, 0}, {24, ORDER_BGR}, nullptr, "level-24"},
      {{12, ORDER_GRAY}, {16, ORDER_GRAY}, nullptr, "12-16"},
      {{12, ORDER_GRAY}, {48, ORDER_BGR}, nullptr, "12-48"},
      {{8, 0}, {0, 0}, ramp.data(), "gray palette-level"},
  };
  for (const auto& p : pairs)
    for (int width = 1; width <= 70; ++width) round_trip(p.a, p.b, p.pa, p.pa, width, rng, p.what);
}

TEST(ConvertRoundTrip, PackedWritesKeepNeighbouringBits) {
  // Narrowing 8-bit indices in place writes each n-bit field and leaves the
  // bits after the last pixel, and every later byte, as they were.
  std::mt19937 rng(9);
  for (int n : {1, 2, 3, 4, 5, 6, 7}) {
    const std::vector<RGBQUAD> small = distinct_palette(size_t(1) << n, 11);
    const std::vector<RGBQUAD> big = distinct_palette(256, 11);  // same first 2^n entries
    for (int width = 1; width <= 70; ++width) {
      Row row(V_CalcConvertSize(width, 8, width, n));
      for (size_t i = 0; i < row.size(); ++i) row[i] = uint8_t(rng());
      const uint32_t mask = (1u << n) - 1;
      for (int k = 0; k < width; ++k) row[k] &= uint8_t(mask);
      const std::vector<uint8_t> before = row.bytes();
      ASSERT_EQ(conv(row.data(), width, 8, n, 0, 0, big.data(), small.data()), RESULT_OK);
      ASSERT_TRUE(row.guard_intact());
      for (int k = 0; k < width; ++k) ASSERT_EQ(pixel(row.data(), k, n), before[k]) << "n=" << n << " k=" << k;
      const size_t end_bit = size_t(width) * n;
      for (size_t bit = end_bit; bit < row.size() * 8; ++bit)
        ASSERT_EQ((row[bit / 8] >> (7 - bit % 8)) & 1, (before[bit / 8] >> (7 - bit % 8)) & 1)
            << "n=" << n << " w=" << width << " bit " << bit;
    }
  }
}

// ---- acceptance table -------------------------------------------------------------------

bool supported(int b) { return (b >= 0 && b <= 8) || b == 12 || b == 16 || b == 24 || b == 32 || b == 48 || b == 64; }

// Which (source, destination, order) combinations convert, with the flags a
// plain V_ConvertBuffer call derives from the orders.
bool accepted(int sb, int db, int so, int dor) {
  if (!supported(sb) || !supported(db)) return false;
  if (sb == 12 && so != ORDER_GRAY) return false;
  if (db == 12 && dor != ORDER_GRAY) return false;
  auto rgb = [](int o) { return o == ORDER_RGB || o == ORDER_BGR; };
  switch (sb) {
    case 16: if (!(rgb(so) || so == ORDER_GRAY)) return false; break;
    case 24: if (!(rgb(so) || so == ORDER_BGR_ALT)) return false; break;
    case 48:
      // 48-bit second-colour-space pixels go through the 24-bit path.
      if (so == ORDER_BGR_ALT) return (db == 48 && dor == ORDER_BGR_ALT) || accepted(24, db, so, dor);
      if (!rgb(so)) return false;
      break;
    case 32: case 64: if (!rgb(so)) return false; break;
  }
  switch (db) {
    case 16: return rgb(dor) || dor == ORDER_GRAY;
    case 24: case 48: return rgb(dor) || (sb == 24 && dor == ORDER_BGR_ALT);
    case 32: case 64: return rgb(dor);
  }
  return true;
}

TEST(ConvertTable, EveryDepthAndOrder) {
  const int depths[] = {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 12, 13, 15, 16, 17, 24, 32, 48, 63, 64, 65, 100};
  const int orders[] = {-1, 0, 1, 2, 3, 4, 5, 6};
  std::mt19937 rng(4);
  const int width = 5;
  int converted = 0;
  for (int sb : depths)
    for (int db : depths)
      for (int so : orders)
        for (int dor : orders) {
          std::vector<uint8_t> buf(64 * width / 8 + 16);
          for (auto& b : buf) b = uint8_t(rng());
          const std::vector<uint8_t> before = buf;
          const int32_t r = conv(buf.data(), width, sb, db, so, dor);
          if (accepted(sb, db, so, dor)) {
            ASSERT_EQ(r, RESULT_OK) << sb << "->" << db << " orders " << so << "->" << dor;
            ++converted;
          } else {
            ASSERT_EQ(r, RESULT_BAD_PARAMETER) << sb << "->" << db << " orders " << so << "->" << dor;
            ASSERT_EQ(buf, before) << sb << "->" << db;
          }
          // A negative width passes the same checks and changes nothing.
          std::vector<uint8_t> neg = before;
          const int32_t rn = conv(neg.data(), -3, sb, db, so, dor);
          ASSERT_EQ(rn, accepted(sb, db, so, dor) ? RESULT_OK : RESULT_BAD_PARAMETER);
          ASSERT_EQ(neg, before);
        }
  EXPECT_GT(converted, 1000);
}

TEST(ConvertTable, ArgumentChecks) {
  uint8_t buf[64] = {1, 2, 3, 4};
  const std::vector<uint8_t> before(buf, buf + 64);
  auto unchanged = [&] { return std::vector<uint8_t>(buf, buf + 64) == before; };
  EXPECT_EQ(conv(nullptr, 4, 8, 24, 0, 1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(conv(buf, 0, 8, 24, 0, 1), RESULT_BAD_PARAMETER);
  struct Case { int sb, db, so, dor; uint32_t flags; int low, high; int32_t want; const char* why; } cases[] = {
      {16, 16, 2, 2, CONVERT_SRC_BITRANGE | CONVERT_DST_BITRANGE, 2, 9, RESULT_BAD_PARAMETER, "both ranges"},
      {24, 16, 1, 2, CONVERT_SRC_BITRANGE, 2, 9, RESULT_BAD_PARAMETER, "source range, colour source"},
      {16, 24, 2, 1, CONVERT_DST_BITRANGE, 2, 9, RESULT_BAD_PARAMETER, "destination range, colour destination"},
      {16, 24, 2, 1, CONVERT_SRC_BITRANGE, 2, 9, RESULT_OK, "source range, gray source"},
      {16, 16, 2, 2, CONVERT_DST_BITRANGE, 9, 2, RESULT_BAD_PARAMETER, "empty range"},
      {16, 16, 2, 2, CONVERT_DST_BITRANGE, 0, 15, RESULT_OK, "whole range dropped"},
      {16, 16, 2, 2, 0, 9, 2, RESULT_OK, "range ignored without the flag"},
      {8, 24, 0, 1, CONVERT_SRC_GRAY, 0, 0, RESULT_OK, "gray flag recomputed from the order"},
      {12, 16, 2, 2, CONVERT_SRC_BITRANGE, 4, -1, RESULT_OK, "12-bit source range"},
  };
  for (const auto& c : cases) {
    std::memcpy(buf, before.data(), 64);
    EXPECT_EQ(V_ConvertBufferExt(buf, 4, c.sb, c.db, c.so, c.dor, nullptr, nullptr, c.flags, c.low, c.high), c.want)
        << c.why;
    if (c.want != RESULT_OK) EXPECT_TRUE(unchanged()) << c.why;
  }
}

TEST(ConvertTable, GrayParamsAndConvertSize) {
  struct Case { int bits, max, low, high; int count; uint32_t mask; int shift; } cases[] = {
      {12, 8, 0, -1, 8, 0xFF, 4},  {16, 16, -5, -1, 16, 0xFFFF, 0}, {16, 8, 2, 9, 8, 0xFF, 2},
      {16, 16, 4, 7, 4, 0xF, 4},   {12, 12, 3, -1, 9, 0x1FF, 3},     {16, 12, 0, 20, 12, 0xFFF, 9},
  };
  for (const auto& c : cases) {
    int32_t count = -1, shift = -1;
    uint32_t mask = 0;
    ASSERT_EQ(V_GetGrayParams(c.bits, c.max, c.low, c.high, &count, &mask, &shift), RESULT_OK);
    EXPECT_EQ(count, c.count);
    EXPECT_EQ(mask, c.mask);
    EXPECT_EQ(shift, c.shift);
  }
  EXPECT_EQ(V_GetGrayParams(16, 16, 9, 2, nullptr, nullptr, nullptr), RESULT_BAD_PARAMETER);

  EXPECT_EQ(V_CalcConvertSize(10, 1, 10, 24), 32u);
  EXPECT_EQ(V_CalcConvertSize(10, 0, 3, 0), 12u);
  EXPECT_EQ(V_CalcConvertSize(100, 24, 10, 8), 300u);   // source width at source depth
  EXPECT_EQ(V_CalcConvertSize(10, 24, 100, 8), 300u);   // destination width at source depth
  EXPECT_EQ(V_CalcConvertSize(10, 8, 100, 24), 300u);
  EXPECT_EQ(V_CalcConvertSize(100, 8, 10, 24), 100u);   // source width at destination depth is not counted
}

TEST(GrayParams, InitAndCopy) {
  BitmapHandle a{}, b{};
  a.BitsPerPixel = 12;
  a.Flags = BITMAP_GRAY_FLAG;
  ASSERT_EQ(V_InitGrayParams(&a), RESULT_OK);
  EXPECT_EQ(a.HighBit, 11);
  EXPECT_EQ(a.MaxValue, 4095);

  uint32_t* lut = static_cast<uint32_t*>(V_OsAlloc(4 * sizeof(uint32_t)));
  ASSERT_NE(lut, nullptr);
  for (uint32_t i = 0; i < 4; ++i) lut[i] = i * 7;
  a.GrayLut = lut;
  a.GrayLutLength = 4;
  a.LowBit = 2;
  a.HighBit = 9;
  ASSERT_EQ(V_CopyGrayParams(&b, &a), RESULT_OK);
  ASSERT_NE(b.GrayLut, nullptr);
  EXPECT_NE(b.GrayLut, a.GrayLut);
  EXPECT_EQ(b.GrayLutLength, 4u);
  EXPECT_EQ(b.GrayLut[3], 21u);
  EXPECT_EQ(b.HighBit, 9);
  EXPECT_TRUE(b.Flags & BITMAP_GRAY_FLAG);
  V_OsFree(b.GrayLut);

  // The table copy is the one allocation: when it fails the destination is
  // untouched and nothing is left allocated.
  BitmapHandle c{}, before{};
  vkt::fault_sweep([&] { c = BitmapHandle{}, c.LowBit = 5, before = c; }, [&] { return V_CopyGrayParams(&c, &a); },
                   [&](const vkt::SweepRun& run) {
                     if (run.result == RESULT_OK) {
                       V_OsFree(c.GrayLut);
                     } else {
                       EXPECT_EQ(run.result, RESULT_FAIL);
                       EXPECT_EQ(std::memcmp(&c, &before, sizeof c), 0);
                     }
                   });
  V_OsFree(lut);
}

}  // namespace
