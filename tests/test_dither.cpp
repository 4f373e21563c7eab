// Dithering engine: hand-computed rows, an independent whole-image reference
// for every diffusion kernel, ordered matrices, match modes, every source
// layout, output packing, match tables and failure handling.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "color_helpers.h"
#include "dither.h"
#include "fault_sweep.h"
#include "palette_tables.h"
#include "vkkrn.h"

// Fault sweeps in this file.
VKT_SWEEPS(V_StartDithering, V_StartDitheringExt);

namespace {

using vkt::quad;
// A record describing source rows; no storage is needed by the engine.
BitmapHandle source(int width, int bits, int order = ORDER_RGB, int method = DITHER_NONE) {
  BitmapHandle b;
  std::memset(&b, 0, sizeof b);
  b.Width = width;
  b.Height = 1;
  b.BitsPerPixel = bits;
  b.Order = order;
  b.DitheringMethod = method;
  b.LowBit = -1;
  b.HighBit = -1;
  return b;
}

vk::DitherContext& ctx(BitmapHandle& b) { return *static_cast<vk::DitherContext*>(b.DitherState); }

struct Rgb {
  int r, g, b;
};
using Image = std::vector<std::vector<Rgb>>;

std::vector<uint8_t> rgb_row(const std::vector<Rgb>& px) {
  std::vector<uint8_t> row;
  for (const Rgb& p : px) row.insert(row.end(), {uint8_t(p.r), uint8_t(p.g), uint8_t(p.b)});
  return row;
}

// Unpacks `n` indices of `bits` bits, most significant first.
std::vector<int> unpack(const std::vector<uint8_t>& out, int bits, int n) {
  std::vector<int> v;
  for (int i = 0; i < n; ++i) {
    int x = 0;
    for (int k = 0; k < bits; ++k) {
      const int bit = i * bits + k;
      x = (x << 1) | ((out[bit / 8] >> (7 - bit % 8)) & 1);
    }
    v.push_back(x);
  }
  return v;
}

// Dithers a 24-bit RGB image; returns the indices row by row.
std::vector<std::vector<int>> run_rgb(const Image& img, int method, const RGBQUAD* pal, int colors, int outBits,
                                      uint32_t* user = nullptr, int* modeOut = nullptr) {
  const int w = int(img[0].size());
  BitmapHandle b = source(w, 24, ORDER_RGB, method);
  EXPECT_EQ(V_StartDitheringExt(&b, pal, colors, outBits, user), RESULT_OK);
  if (modeOut) *modeOut = ctx(b).MatchMode;
  std::vector<std::vector<int>> res;
  for (const auto& line : img) {
    std::vector<uint8_t> in = rgb_row(line), out(size_t(w) + 8, 0);
    EXPECT_EQ(V_DitherLine(&b, in.data(), out.data()), RESULT_OK);
    res.push_back(unpack(out, outBits, w));
  }
  EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
  return res;
}

Image random_image(int w, int h, unsigned seed) {
  std::mt19937 rng(seed);
  Image img(size_t(h), std::vector<Rgb>(static_cast<size_t>(w)));
  for (auto& line : img)
    for (Rgb& p : line) p = {int(rng() % 256), int(rng() % 256), int(rng() % 256)};
  return img;
}

// ---- hand-computed rows ---------------------------------------------------------------

TEST(Dither, NegativeNumeratorTruncatesTowardZero) {
  // Line 0: 252 -> white, e = -3; line 1 receives 5 * -3 = -15 at column 0,
  // -15 / 16 = 0, so 128 stays 128 and is white (1028 >> 10 = 1).  A floor
  // division would give 127 and black.
  const RGBQUAD bw[2] = {quad(0, 0, 0), quad(255, 255, 255)};
  auto res = run_rgb({{{252, 252, 252}}, {{128, 128, 128}}}, DITHER_FLOYD_STEINBERG, bw, 2, 1);
  EXPECT_EQ(res[0][0], 1);
  EXPECT_EQ(res[1][0], 1);
}

// ---- whole-image reference for the diffusion kernels -------------------------------------

struct Tap {
  int dy, dx, w;
};
struct RefKernel {
  int method, divisor;
  std::vector<Tap> taps;
};
const std::vector<RefKernel>& ref_kernels() {
  static const std::vector<RefKernel> k = {
      {DITHER_FLOYD_STEINBERG, 16, {{0, 1, 7}, {1, -1, 3}, {1, 0, 5}, {1, 1, 1}}},
      {DITHER_STUCKI, 42, {{0, 1, 8}, {0, 2, 4}, {1, -2, 2}, {1, -1, 4}, {1, 0, 8}, {1, 1, 4}, {1, 2, 2},
                           {2, -2, 1}, {2, -1, 2}, {2, 0, 4}, {2, 1, 2}, {2, 2, 1}}},
      {DITHER_BURKES, 32, {{0, 1, 8}, {0, 2, 4}, {1, -2, 2}, {1, -1, 4}, {1, 0, 8}, {1, 1, 4}, {1, 2, 2}}},
      {DITHER_SIERRA, 32, {{0, 1, 5}, {0, 2, 3}, {1, -2, 2}, {1, -1, 4}, {1, 0, 5}, {1, 1, 4}, {1, 2, 2},
                           {2, -1, 2}, {2, 0, 3}, {2, 1, 2}}},
      {DITHER_STEVENSON_ARCE, 200, {{0, 2, 32}, {1, -3, 12}, {1, -1, 26}, {1, 1, 30}, {1, 3, 16}, {2, -2, 12},
                                    {2, 0, 26}, {2, 2, 12}, {3, -3, 5}, {3, -1, 12}, {3, 1, 12}, {3, 3, 5}}},
      {DITHER_JARVIS, 48, {{0, 1, 7}, {0, 2, 5}, {1, -2, 3}, {1, -1, 5}, {1, 0, 7}, {1, 1, 5}, {1, 2, 3},
                           {2, -2, 1}, {2, -1, 3}, {2, 0, 5}, {2, 1, 3}, {2, 2, 1}}},
  };
  return k;
}

// Full-image numerator grid: no rows to rotate, nothing carried, so it is an
// independent account of what the kernels must produce.  Besides the
// indices it records, after each line y, the numerators already gathered for
// lines y+1 .. y+3: exactly what the engine's error rows 0..2 must hold.
struct RefResult {
  std::vector<std::vector<int>> index;
  std::vector<std::vector<int32_t>> pending;  // [y][(channel * 3 + row) * w + x]
};
template <class Match>
RefResult reference(const Image& img, const RefKernel& k, const RGBQUAD* pal, Match match) {
  const int h = int(img.size()), w = int(img[0].size());
  const int rows = h + 4;
  std::vector<int32_t> acc(static_cast<size_t>(rows * w * 3), 0);
  auto at = [&](int y, int x, int c) -> int32_t& { return acc[static_cast<size_t>((y * w + x) * 3 + c)]; };
  RefResult res;
  for (int y = 0; y < h; ++y) {
    res.index.emplace_back();
    for (int x = 0; x < w; ++x) {
      int v[3] = {img[y][x].r, img[y][x].g, img[y][x].b};
      for (int c = 0; c < 3; ++c) v[c] = std::clamp(v[c] + at(y, x, c) / k.divisor, 0, 255);
      const int idx = match(v[0], v[1], v[2]);
      res.index.back().push_back(idx);
      const int e[3] = {v[0] - pal[idx].rgbRed, v[1] - pal[idx].rgbGreen, v[2] - pal[idx].rgbBlue};
      for (const Tap& t : k.taps) {
        const int xx = x + t.dx;
        if (xx >= 0 && xx < w)
          for (int c = 0; c < 3; ++c) at(y + t.dy, xx, c) += t.w * e[c];
      }
    }
    std::vector<int32_t> snap(static_cast<size_t>(9 * w), 0);
    for (int c = 0; c < 3; ++c)
      for (int r = 0; r < 3; ++r)
        for (int x = 0; x < w; ++x) snap[static_cast<size_t>((c * 3 + r) * w + x)] = at(y + 1 + r, x, c);
    res.pending.push_back(snap);
  }
  return res;
}

// The engine's side of the same run: indices and the error rows after each line.
RefResult engine(const Image& img, int method, const RGBQUAD* pal, int colors, int outBits) {
  const int w = int(img[0].size());
  BitmapHandle b = source(w, 24, ORDER_RGB, method);
  EXPECT_EQ(V_StartDitheringExt(&b, pal, colors, outBits, nullptr), RESULT_OK);
  RefResult res;
  for (const auto& line : img) {
    std::vector<uint8_t> in = rgb_row(line), out(size_t(w) + 8, 0);
    EXPECT_EQ(V_DitherLine(&b, in.data(), out.data()), RESULT_OK);
    res.index.push_back(unpack(out, outBits, w));
    std::vector<int32_t> snap(static_cast<size_t>(9 * w), 0);
    const vk::DitherContext& c = ctx(b);
    for (int ch = 0; ch < 3; ++ch)
      for (int r = 0; r < c.ErrorRowCount; ++r)
        for (int x = 0; x < w; ++x) snap[static_cast<size_t>((ch * 3 + r) * w + x)] = c.ErrorRows[ch * 3 + r][c.Margin + x];
    res.pending.push_back(snap);
  }
  EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
  return res;
}

TEST(Dither, DiffusionKernelsMatchWholeImageReference) {
  const RGBQUAD* fixed8 = V_IntGetFixedPalette(3);
  const RGBQUAD* black_white = V_IntGetFixedPalette(1);
  auto bw_match = [](int r, int g, int b) { return (2 * r + 5 * g + b + 4) >> 10; };
  // Own palette on cell corners with distinct cells: the table answer is the
  // nearest entry of the pixel's cell corner.
  std::vector<RGBQUAD> own = {quad(0, 0, 0), quad(248, 248, 248), quad(200, 40, 16), quad(32, 160, 64), quad(64, 96, 224),
                              quad(128, 128, 128), quad(240, 200, 0)};
  auto fixed_match = [](int r, int g, int b) { return (r >> 7) << 2 | (g >> 7) << 1 | (b >> 7); };
  auto own_match = [&](int r, int g, int b) {
    return int(V_FindPaletteIndex(own.data(), uint32_t(own.size()), r & 248, g & 248, b & 248));
  };
  for (int width : {1, 2, 3, 5, 13, 40}) {
    const Image img = random_image(width, 9, 1234u + unsigned(width));
    for (const RefKernel& k : ref_kernels()) {
      SCOPED_TRACE(testing::Message() << "method " << k.method << " width " << width);
      const RefResult want8 = reference(img, k, fixed8, fixed_match), got8 = engine(img, k.method, fixed8, 8, 3);
      EXPECT_EQ(got8.index, want8.index);
      EXPECT_EQ(got8.pending, want8.pending);
      const RefResult wantOwn = reference(img, k, own.data(), own_match);
      const RefResult gotOwn = engine(img, k.method, own.data(), int(own.size()), 3);
      EXPECT_EQ(gotOwn.index, wantOwn.index);
      EXPECT_EQ(gotOwn.pending, wantOwn.pending);
      // Black and white, packed eight to a byte and one to a byte.
      const RefResult wantBw = reference(img, k, black_white, bw_match);
      for (int bits : {1, 8}) {
        const RefResult gotBw = engine(img, k.method, black_white, 2, bits);
        EXPECT_EQ(gotBw.index, wantBw.index) << bits << " bits";
        EXPECT_EQ(gotBw.pending, wantBw.pending) << bits << " bits";
      }
    }
  }
}

// ---- ordered methods ------------------------------------------------------------------------

TEST(Dither, OrderedMatricesHandComputed) {
  // Fixed 2-entry mode thresholds the gray level (100) against the matrix.
  struct Case {
    int method;
    uint8_t line0, line1;
  } cases[] = {
      // ordered row 0: 0,128,32,160,8,136,40,168 -> 1,0,1,0,1,0,1,0
      // ordered row 1: 192,64,224,96,200,72,232,104 -> 0,1,0,1,0,1,0,0
      {DITHER_ORDERED, 0xAA, 0x54},
      // clustered row 0: 112,40,72,104,144,176,208,136 -> 0,1,1,0,0,0,0,0
      // clustered row 1: 88,8,16,48,192,232,240,168 -> 1,1,1,1,0,0,0,0
      {DITHER_CLUSTERED, 0x60, 0xF0},
  };
  for (const Case& c : cases) {
    BitmapHandle b = source(8, 24, ORDER_RGB, c.method);
    ASSERT_EQ(V_StartDithering(&b, nullptr, 2), RESULT_OK);
    std::vector<uint8_t> in(24, 100);
    uint8_t out = 0;
    ASSERT_EQ(V_DitherLine(&b, in.data(), &out), RESULT_OK);
    EXPECT_EQ(out, c.line0) << c.method;
    ASSERT_EQ(V_DitherLine(&b, in.data(), &out), RESULT_OK);
    EXPECT_EQ(out, c.line1) << c.method;
    EXPECT_EQ(ctx(b).RowCounter, 2u);
    EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
  }

  // Table mode, 1 output bit: offset m - 128 on gray 100 gives
  // 0, 100, 4, 132, 0, 108, 12, 140; corners nearer white only for 132, 140.
  const RGBQUAD own[2] = {quad(0, 0, 0), quad(255, 255, 255, 4)};  // reserved bit 2: not fixed, not excluded
  BitmapHandle b = source(8, 24, ORDER_RGB, DITHER_ORDERED);
  ASSERT_EQ(V_StartDitheringExt(&b, own, 2, 1, nullptr), RESULT_OK);
  EXPECT_EQ(ctx(b).MatchMode, vk::MATCH_OWN_TABLE);
  std::vector<uint8_t> in(24, 100);
  uint8_t out = 0;
  ASSERT_EQ(V_DitherLine(&b, in.data(), &out), RESULT_OK);
  EXPECT_EQ(out, 0x11);
  EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
}

// Black and white by threshold goes 32, then 16, then 8 pixels at a time
// and packs the rest: every pixel of a long random row against the rule.
TEST(Dither, OrderedBlackAndWhiteLongRows) {
  for (int method : {DITHER_ORDERED, DITHER_CLUSTERED}) {
    const int w = 93;
    const Image img = random_image(w, 9, 4321u + unsigned(method));
    BitmapHandle b = source(w, 24, ORDER_RGB, method);
    ASSERT_EQ(V_StartDithering(&b, nullptr, 2), RESULT_OK);
    const uint8_t* matrix = ctx(b).Matrix;
    for (int y = 0; y < int(img.size()); ++y) {
      std::vector<uint8_t> in = rgb_row(img[size_t(y)]), out(size_t(w + 7) / 8, 0);
      ASSERT_EQ(V_DitherLine(&b, in.data(), out.data()), RESULT_OK);
      const std::vector<int> got = unpack(out, 1, w);
      for (int x = 0; x < w; ++x) {
        const Rgb& p = img[size_t(y)][size_t(x)];
        const int level = (2 * p.r + 5 * p.g + p.b + 4) >> 3;
        ASSERT_EQ(got[size_t(x)], matrix[(y & 7) * 8 + (x & 7)] < level ? 1 : 0) << method << " " << x << "," << y;
      }
    }
    EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
  }
}

TEST(Dither, OrderedOffsetsByModeAndOutputBits) {
  struct Case {
    int mode;
    uint32_t bits;
    int m, want;
  } cases[] = {
      {0, 1, 0, -128}, {0, 2, 255, 63},  {0, 3, 100, -9}, {1, 4, 13, -29}, {0, 5, 252, 25},
      {0, 6, 47, -14}, {0, 7, 200, 10},  {0, 8, 9, -15},  {0, 9, 200, 0},  {3, 0, 100, -14},
      {4, 0, 100, -9}, {6, 0, 100, -5},  {7, 0, 100, -5}, {8, 0, 100, -4}, {9, 0, 100, -4},
      {10, 0, 252, 21}, {2, 0, 100, 0},  {5, 0, 100, 0},
  };
  for (const Case& c : cases)
    EXPECT_EQ(vk::dither_ordered_offset(c.mode, c.bits, c.m), c.want) << c.mode << " " << c.bits << " " << c.m;
}

TEST(Dither, ConstantImageStaysConstantUnderOrderedDither) {
  // Holds where the offsets stay inside half a palette step.  It does not
  // hold, by design of the closed formulas, for the cube (offsets up to
  // +-21 around levels 51 apart, truncating division), the 4-gray, 32-, 128-
  // and 256-entry palettes and the 16-entry compare rule.
  std::vector<RGBQUAD> spaced = {quad(0, 0, 0), quad(96, 96, 96), quad(200, 16, 16), quad(16, 200, 16), quad(255, 255, 255)};
  struct Case {
    const RGBQUAD* pal;
    int colors, outBits, entry;
  } cases[] = {
      {V_IntGetFixedPalette(3), 8, 3, 5},
      {V_IntGetFixedPalette(6), 64, 6, 37},
      {V_IntGetFixedPalette(1), 2, 1, 1},
      {spaced.data(), 5, 8, 1},
      {spaced.data(), 5, 8, 2},
  };
  for (int method : {DITHER_ORDERED, DITHER_CLUSTERED})
    for (const Case& c : cases) {
      const RGBQUAD& e = c.pal[c.entry];
      Image img(8, std::vector<Rgb>(16, Rgb{e.rgbRed, e.rgbGreen, e.rgbBlue}));
      for (const auto& line : run_rgb(img, method, c.pal, c.colors, c.outBits))
        for (int v : line) ASSERT_EQ(v, c.entry) << method << " " << c.colors;
    }
}

// ---- match modes ------------------------------------------------------------------------------

int none_index(const RGBQUAD* pal, int colors, Rgb px, int* mode = nullptr) {
  return run_rgb({{px}}, DITHER_NONE, pal, colors, 8, nullptr, mode)[0][0];
}

TEST(Dither, FixedPaletteEdgeCases) {
  int mode = -1;
  EXPECT_EQ(none_index(V_IntGetFixedPalette(3), 8, {200, 100, 30}, &mode), 4);
  EXPECT_EQ(mode, vk::MATCH_FIXED_8);
  EXPECT_EQ(none_index(V_IntGetFixedPalette(4), 16, {200, 100, 30}, &mode), 9);
  EXPECT_EQ(mode, vk::MATCH_FIXED_16);
  EXPECT_EQ(none_index(V_IntGetFixedPalette(1), 2, {128, 128, 128}), 1);
  EXPECT_EQ(none_index(V_IntGetFixedPalette(1), 2, {127, 127, 127}), 0);
  // A 3-entry prefix of the 4 grays is the 4-gray palette: white is index 3.
  EXPECT_EQ(none_index(V_IntGetFixedPalette(2), 3, {255, 255, 255}, &mode), 3);
  EXPECT_EQ(mode, vk::MATCH_FIXED_4);
  // Null palette: the fixed palette of the size class.
  EXPECT_EQ(none_index(nullptr, 200, {255, 255, 255}, &mode), 255);
  EXPECT_EQ(mode, vk::MATCH_FIXED_256);
  EXPECT_EQ(none_index(vk::color_cube(), 256, {255, 0, 102}, &mode), 182);
  EXPECT_EQ(mode, vk::MATCH_FIXED_CUBE);
  EXPECT_EQ(none_index(vk::color_cube(), 216, {51, 51, 51}, &mode), 43);  // cube prefix in class 256
  EXPECT_EQ(mode, vk::MATCH_FIXED_CUBE);
  // A reserved byte differing makes it an ordinary palette.
  std::vector<RGBQUAD> marked(V_IntGetFixedPalette(3), V_IntGetFixedPalette(3) + 8);
  marked[7].rgbReserved = 4;
  none_index(marked.data(), 8, {1, 2, 3}, &mode);
  EXPECT_EQ(mode, vk::MATCH_OWN_TABLE);
}

TEST(Dither, FixedFormulasAgreeWithTableMatch) {
  // Every fixed palette's own entries map to themselves under the formula
  // and under a table match, except the 16-entry formula: it produces only
  // black and the full-intensity colours (a half-intensity channel reads as
  // set), so entries 1-7 go to i | 8 and light gray (8) to white, by design.
  struct Pal {
    const RGBQUAD* p;
    int n, bits;
  };
  std::vector<Pal> pals;
  for (int bits = 1; bits <= 8; ++bits) pals.push_back({V_IntGetFixedPalette(bits), 1 << bits, bits});
  pals.push_back({vk::color_cube(), 216, 8});
  for (const Pal& p : pals) {
    std::vector<Rgb> line;
    for (int i = 0; i < p.n; ++i) line.push_back({p.p[i].rgbRed, p.p[i].rgbGreen, p.p[i].rgbBlue});
    std::vector<RGBQUAD> marked(p.p, p.p + p.n);
    marked[size_t(p.n - 1)].rgbReserved = 4;
    const auto formula = run_rgb({line}, DITHER_NONE, p.p, p.n, p.bits)[0];
    const auto table = run_rgb({line}, DITHER_NONE, marked.data(), p.n, p.bits)[0];
    for (int i = 0; i < p.n; ++i) {
      EXPECT_EQ(table[i], i) << p.n;
      if (p.n == 16 && i >= 1 && i <= 8)
        EXPECT_EQ(formula[i], i == 8 ? 15 : (i | 8)) << "16 entry " << i;
      else
        EXPECT_EQ(formula[i], i) << p.n << " entry " << i;
    }
  }
  // The 8-entry formula's 128 threshold is the midpoint of 0 and 255, so it
  // agrees with the nearest entry everywhere.
  std::vector<Rgb> grid;
  for (int r = 0; r < 256; r += 8)
    for (int g = 0; g < 256; g += 24)
      for (int b = 0; b < 256; b += 40) grid.push_back({r, g, b});
  std::vector<RGBQUAD> marked(V_IntGetFixedPalette(3), V_IntGetFixedPalette(3) + 8);
  marked[0].rgbReserved = 4;
  EXPECT_EQ(run_rgb({grid}, DITHER_NONE, V_IntGetFixedPalette(3), 8, 3),
            run_rgb({grid}, DITHER_NONE, marked.data(), 8, 3));
}

TEST(Dither, ReservedEntriesAreNeverProduced) {
  std::vector<RGBQUAD> pal = {quad(0, 0, 0), quad(255, 255, 255, 1), quad(250, 250, 250), quad(255, 0, 0, 2),
                              quad(240, 10, 10),  quad(0, 0, 255, 3),       quad(10, 10, 240)};
  const Image img = random_image(40, 12, 77);
  for (int method = 0; method <= 8; ++method)
    for (const auto& line : run_rgb(img, method, pal.data(), int(pal.size()), 3))
      for (int v : line) ASSERT_TRUE(v == 0 || v == 2 || v == 4 || v == 6) << method << " " << v;
}

TEST(Dither, AllEntriesFlaggedFallsBackToWholePalette) {
  // With nothing left to match, every entry is matched, flags ignored.
  const RGBQUAD pal[3] = {quad(0, 0, 0, 2), quad(255, 255, 255, 1), quad(255, 0, 0, 3)};
  BitmapHandle b = source(3, 24);
  ASSERT_EQ(V_StartDitheringExt(&b, pal, 3, 2, nullptr), RESULT_OK);
  EXPECT_EQ(ctx(b).MatchListCount, 3u);
  std::vector<uint8_t> in = rgb_row({{250, 250, 250}, {10, 5, 0}, {230, 20, 20}}), out(1, 0);
  ASSERT_EQ(V_DitherLine(&b, in.data(), out.data()), RESULT_OK);
  EXPECT_EQ(unpack(out, 2, 3), (std::vector<int>{1, 0, 2}));
  EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
}

TEST(Dither, OwnTableIsPreSeededFirstEntryWinsAndSearchesCellCorner) {
  // Entries 0 and 1 share the cell of (100,100,100); entry 0 wins although 1
  // is the exact colour.
  const RGBQUAD pal[4] = {quad(96, 96, 96), quad(100, 100, 100), quad(40, 40, 40), quad(60, 60, 60)};
  BitmapHandle b = source(3, 24);
  ASSERT_EQ(V_StartDitheringExt(&b, pal, 4, 8, nullptr), RESULT_OK);
  const uint32_t cell100 = (12u << 10) | (12u << 5) | 12u;
  EXPECT_EQ(ctx(b).MatchTable[cell100], 1u);
  // (55,55,55): corner (48,48,48) is nearer 40 than 60.
  std::vector<uint8_t> in = rgb_row({{100, 100, 100}, {55, 55, 55}, {62, 62, 62}}), out(3, 0);
  ASSERT_EQ(V_DitherLine(&b, in.data(), out.data()), RESULT_OK);
  EXPECT_EQ(out, (std::vector<uint8_t>{0, 2, 3}));
  const uint32_t cell55 = (6u << 10) | (6u << 5) | 6u;
  EXPECT_EQ(ctx(b).MatchTable[cell55], 3u);  // lazily filled: index 2 + 1
  EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
}

TEST(Dither, UserTableIsSeededFilledInPlaceAndKept) {
  std::vector<RGBQUAD> pal = {quad(0, 0, 0), quad(248, 248, 248), quad(200, 40, 16), quad(32, 160, 64)};
  std::vector<uint32_t> table(32768, 0);
  const Image img = random_image(24, 6, 5);
  const auto own = run_rgb(img, DITHER_FLOYD_STEINBERG, pal.data(), 4, 2);
  int mode = -1;
  const auto user = run_rgb(img, DITHER_FLOYD_STEINBERG, pal.data(), 4, 2, table.data(), &mode);
  EXPECT_EQ(mode, vk::MATCH_USER_TABLE);
  EXPECT_EQ(own, user);
  EXPECT_EQ(table[(31u << 10) | (31u << 5) | 31u], 2u);  // seeded: white entry 1 + 1
  size_t filled = 0;
  for (uint32_t v : table) filled += v != 0;
  EXPECT_GT(filled, 4u);  // lazily resolved cells stay after stop

  // A prepared table is read as palette index + 1; its answers win over search.
  uint32_t* made = V_CreateUserMatchTable(pal.data(), 4);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(run_rgb(img, DITHER_STUCKI, pal.data(), 4, 2, made), run_rgb(img, DITHER_STUCKI, pal.data(), 4, 2));
  for (uint32_t i = 0; i < 32768; ++i) made[i] = 2;  // everything -> entry 1
  for (const auto& line : run_rgb(img, DITHER_NONE, pal.data(), 4, 2, made))
    for (int v : line) EXPECT_EQ(v, 1);
  V_FreeUserMatchTable(made);

  // A null palette with a user table means the fixed palette of the class.
  std::vector<uint32_t> t2(32768, 0);
  BitmapHandle b = source(1, 24);
  ASSERT_EQ(V_StartDitheringExt(&b, nullptr, 8, 3, t2.data()), RESULT_OK);
  EXPECT_EQ(ctx(b).MatchMode, vk::MATCH_USER_TABLE);
  EXPECT_EQ(std::memcmp(ctx(b).DestPalette, V_IntGetFixedPalette(3), 32), 0);
  EXPECT_EQ(t2[(31u << 10)], 5u);  // red (index 4) seeded
  EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
}

// ---- sources -----------------------------------------------------------------------------------

void put_bits(std::vector<uint8_t>& row, int x, int bits, uint32_t v) {
  for (int k = 0; k < bits; ++k) {
    const int bit = x * bits + k;
    if ((v >> (bits - 1 - k)) & 1) row[size_t(bit / 8)] |= uint8_t(0x80 >> (bit % 8));
  }
}

// Dithers one row of a source layout; compares with the same colours given
// as 24-bit RGB (Floyd-Steinberg over an own palette, so every channel matters).
void expect_same_as_rgb(BitmapHandle b, std::vector<uint8_t> row, const std::vector<Rgb>& colours,
                        const char* what) {
  SCOPED_TRACE(what);
  std::vector<RGBQUAD> pal = {quad(0, 0, 0), quad(248, 248, 248), quad(200, 40, 16), quad(32, 160, 64), quad(64, 96, 224),
                              quad(128, 128, 128)};
  const int w = int(colours.size());
  b.Width = w;
  b.DitheringMethod = DITHER_FLOYD_STEINBERG;
  ASSERT_EQ(V_StartDitheringExt(&b, pal.data(), 6, 8, nullptr), RESULT_OK);
  std::vector<uint8_t> out(size_t(w), 0);
  row.resize(row.size() + 8, 0xEE);  // bytes past the row must not matter
  ASSERT_EQ(V_DitherLine(&b, row.data(), out.data()), RESULT_OK);
  EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
  const auto want = run_rgb({colours}, DITHER_FLOYD_STEINBERG, pal.data(), 6, 8)[0];
  EXPECT_EQ(std::vector<int>(out.begin(), out.end()), want);
}

TEST(Dither, PaletteSourcesOfEveryDepth) {
  std::mt19937 rng(9);
  for (int bits = 1; bits <= 8; ++bits) {
    const int n = 1 << bits, w = 11;
    std::vector<RGBQUAD> spal;
    for (int i = 0; i < n; ++i) spal.push_back(quad(int(rng() % 256), int(rng() % 256), int(rng() % 256)));
    BitmapHandle b = source(w, bits);
    b.Flags = PALETTE_IS_TABLE;
    b.Palette = spal.data();
    b.ColorCount = uint32_t(n);
    std::vector<uint8_t> row(size_t((w * bits + 7) / 8), 0);
    std::vector<Rgb> colours;
    for (int x = 0; x < w; ++x) {
      const uint32_t i = rng() % uint32_t(n);
      put_bits(row, x, bits, i);
      colours.push_back({spal[i].rgbRed, spal[i].rgbGreen, spal[i].rgbBlue});
    }
    expect_same_as_rgb(b, row, colours, (std::string("bits ") + std::to_string(bits)).c_str());
  }
}

// Black and white from sources of grays runs on one error channel; it must
// give what the three channels give on the same pixels as 24-bit colour,
// line after line.  The last case has one colour among the grays (every
// fourth pixel), which must keep the three channels.
TEST(Dither, BlackAndWhiteFromGraysMatchesColour) {
  const RGBQUAD* bw = V_IntGetFixedPalette(1);
  std::vector<RGBQUAD> plain, reversed, steps16, one_colour;
  for (int i = 0; i < 256; ++i) {
    plain.push_back(quad(i, i, i));
    reversed.push_back(quad(255 - i, 255 - i, 255 - i));
  }
  for (int i = 0; i < 16; ++i) steps16.push_back(quad(i * 17, i * 17, i * 17));
  one_colour = plain;
  one_colour[100] = quad(200, 200, 30);
  struct Case {
    const char* what;
    int bits;
    const std::vector<RGBQUAD>* pal;
  };
  for (const Case& k : {Case{"plain", 8, &plain}, Case{"reversed", 8, &reversed}, Case{"16 steps", 4, &steps16},
                        Case{"one colour", 8, &one_colour}})
    for (int width : {1, 7, 8, 13, 40}) {
      SCOPED_TRACE(testing::Message() << k.what << ", width " << width);
      std::mt19937 rng(77u + unsigned(width));
      const int n = int(k.pal->size());
      std::vector<std::vector<uint8_t>> rows;
      Image img;
      for (int y = 0; y < 9; ++y) {
        std::vector<uint8_t> row(size_t((width * k.bits + 7) / 8), 0);
        std::vector<Rgb> line;
        for (int x = 0; x < width; ++x) {
          const uint32_t i = (x + y) % 4 == 0 ? 100u % uint32_t(n) : rng() % uint32_t(n);
          put_bits(row, x, k.bits, i);
          const RGBQUAD& q = (*k.pal)[i];
          line.push_back({q.rgbRed, q.rgbGreen, q.rgbBlue});
        }
        rows.push_back(row);
        img.push_back(line);
      }
      for (int outBits : {1, 8}) {
        BitmapHandle b = source(width, k.bits, ORDER_RGB, DITHER_FLOYD_STEINBERG);
        b.Flags = PALETTE_IS_TABLE;
        b.Palette = const_cast<RGBQUAD*>(k.pal->data());
        b.ColorCount = uint32_t(n);
        ASSERT_EQ(V_StartDitheringExt(&b, bw, 2, outBits, nullptr), RESULT_OK);
        std::vector<std::vector<int>> got;
        for (std::vector<uint8_t>& row : rows) {
          std::vector<uint8_t> out(size_t(width) + 8, 0);
          ASSERT_EQ(V_DitherLine(&b, row.data(), out.data()), RESULT_OK);
          got.push_back(unpack(out, outBits, width));
        }
        EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
        EXPECT_EQ(got, run_rgb(img, DITHER_FLOYD_STEINBERG, bw, 2, outBits)) << outBits << " bits out";
      }
    }
}

TEST(Dither, DirectColourSourcesOfEveryLayout) {
  const std::vector<Rgb> c = {{0, 0, 0}, {255, 255, 255}, {200, 40, 16}, {17, 180, 99}, {64, 96, 224}, {130, 7, 250}};
  auto bytes = [&](int stride, int ro, int go, int bo, bool wide) {
    std::vector<uint8_t> row(c.size() * size_t(stride), 0x5A);
    for (size_t x = 0; x < c.size(); ++x) {
      uint8_t* p = &row[x * size_t(stride)];
      const int v[3] = {c[x].r, c[x].g, c[x].b}, off[3] = {ro, go, bo};
      for (int k = 0; k < 3; ++k) {
        if (wide) p[off[k] - 1] = uint8_t(0x33 + k);  // low byte: ignored
        p[off[k]] = uint8_t(v[k]);
      }
    }
    return row;
  };
  expect_same_as_rgb(source(0, 24, ORDER_RGB), bytes(3, 0, 1, 2, false), c, "24 rgb");
  expect_same_as_rgb(source(0, 24, ORDER_BGR), bytes(3, 2, 1, 0, false), c, "24 bgr");
  expect_same_as_rgb(source(0, 32, ORDER_RGB), bytes(4, 0, 1, 2, false), c, "32 rgb");
  expect_same_as_rgb(source(0, 32, ORDER_GRAY), bytes(4, 0, 1, 2, false), c, "32 other order as rgb");
  expect_same_as_rgb(source(0, 32, ORDER_BGR), bytes(4, 2, 1, 0, false), c, "32 bgr");
  expect_same_as_rgb(source(0, 48, ORDER_RGB), bytes(6, 1, 3, 5, true), c, "48 rgb");
  expect_same_as_rgb(source(0, 48, ORDER_BGR), bytes(6, 5, 3, 1, true), c, "48 bgr");
  expect_same_as_rgb(source(0, 64, ORDER_RGB), bytes(8, 1, 3, 5, true), c, "64 rgb");
  expect_same_as_rgb(source(0, 64, ORDER_BGR), bytes(8, 5, 3, 1, true), c, "64 bgr");

  // 5-5-5: fields of 5 bits widen as (f << 3) | (f >> 2).
  const int f[3][3] = {{31, 0, 5}, {16, 17, 1}, {2, 30, 29}};
  std::vector<Rgb> wide;
  std::vector<uint8_t> bgr555, rgb555;
  for (const auto& p : f) {
    wide.push_back({(p[0] << 3) | (p[0] >> 2), (p[1] << 3) | (p[1] >> 2), (p[2] << 3) | (p[2] >> 2)});
    const uint16_t vb = uint16_t(p[0] << 10 | p[1] << 5 | p[2]), vr = uint16_t(p[2] << 10 | p[1] << 5 | p[0]);
    bgr555.insert(bgr555.end(), {uint8_t(vb), uint8_t(vb >> 8)});
    rgb555.insert(rgb555.end(), {uint8_t(vr), uint8_t(vr >> 8)});
  }
  expect_same_as_rgb(source(0, 16, ORDER_BGR), bgr555, wide, "555 bgr");
  expect_same_as_rgb(source(0, 16, ORDER_RGB), rgb555, wide, "555 rgb");
}

TEST(Dither, GraySourcesWithBitRangeAndLookupTable) {
  const std::vector<uint32_t> samples = {0, 4095, 0x800, 0x123, 0xABC, 0x7F0, 0x00F};
  auto pack12 = [](const std::vector<uint32_t>& s) {
    std::vector<uint8_t> row((s.size() * 3 + 1) / 2 + 1, 0);
    for (size_t x = 0; x < s.size(); ++x) {
      const size_t o = x / 2 * 3;
      if (x % 2 == 0) {
        row[o] = uint8_t(s[x]);
        row[o + 1] = uint8_t((row[o + 1] & 0xF0) | (s[x] >> 8));
      } else {
        row[o + 1] = uint8_t((row[o + 1] & 0x0F) | ((s[x] & 15) << 4));
        row[o + 2] = uint8_t(s[x] >> 4);
      }
    }
    return row;
  };
  auto grays = [&](auto level) {
    std::vector<Rgb> c;
    for (uint32_t s : samples) {
      const int v = level(s);
      c.push_back({v, v, v});
    }
    return c;
  };
  // Whole 12 bits, at most 8 kept: the top 8 (shift 4), mask 255, no scaling.
  expect_same_as_rgb(source(0, 12, ORDER_GRAY), pack12(samples), grays([](uint32_t s) { return int(s >> 4); }),
                     "12 full");
  // Bits 0..5: mask 63, scaled by 255 / 63.
  BitmapHandle low = source(0, 12, ORDER_GRAY);
  low.LowBit = 0;
  low.HighBit = 5;
  expect_same_as_rgb(low, pack12(samples), grays([](uint32_t s) { return int((s & 63) * 255 / 63); }),
                     "12 low range");
  // 16-bit gray, bits 4..11.
  std::vector<uint8_t> row16;
  for (uint32_t s : samples) {
    const uint32_t v = s * 13u;
    row16.insert(row16.end(), {uint8_t(v), uint8_t(v >> 8)});
  }
  BitmapHandle mid = source(0, 16, ORDER_GRAY);
  mid.LowBit = 4;
  mid.HighBit = 11;
  expect_same_as_rgb(mid, row16, grays([](uint32_t s) { return int(((s * 13u) >> 4) & 255); }), "16 range");

  // Lookup table in force: all 12 bits index it, entries read as B, G, R; an
  // index past the table's end reads its last entry.
  std::vector<uint32_t> lut(3000);
  for (uint32_t i = 0; i < lut.size(); ++i) lut[i] = (i & 255) | ((i * 7 & 255) << 8) | ((i * 3 & 255) << 16);
  BitmapHandle withLut = source(0, 12, ORDER_GRAY);
  withLut.GrayLut = lut.data();
  withLut.GrayLutLength = uint32_t(lut.size());
  withLut.Flags = BITMAP_GRAY_FLAG;
  std::vector<Rgb> viaLut;
  for (uint32_t s : samples) {
    const uint32_t e = lut[std::min<uint32_t>(s, 2999)];
    viaLut.push_back({int(e >> 16 & 255), int(e >> 8 & 255), int(e & 255)});
  }
  expect_same_as_rgb(withLut, pack12(samples), viaLut, "12 lut");
  withLut.Flags = 0;  // table present but not in force
  expect_same_as_rgb(withLut, pack12(samples), grays([](uint32_t s) { return int(s >> 4); }), "12 lut off");
}

TEST(Dither, Order5RowsAreRewrittenInPlace) {
  std::vector<uint8_t> row = {10, 200, 30, 250, 0, 128, 77, 77, 77};
  std::vector<uint8_t> expect = row;
  for (int x = 0; x < 3; ++x) ASSERT_EQ(V_ConvertBuffer(&expect[size_t(x) * 3], 1, 24, 24, 5, 1, nullptr, nullptr), 1);
  std::vector<Rgb> c;
  for (int x = 0; x < 3; ++x) c.push_back({expect[size_t(x) * 3 + 2], expect[size_t(x) * 3 + 1], expect[size_t(x) * 3]});
  BitmapHandle b = source(3, 24, ORDER_BGR_ALT);
  ASSERT_EQ(V_StartDithering(&b, nullptr, 256), RESULT_OK);
  std::vector<uint8_t> out(3), in = row;
  ASSERT_EQ(V_DitherLine(&b, in.data(), out.data()), RESULT_OK);
  EXPECT_EQ(in, expect);  // now B, G, R
  EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
  expect_same_as_rgb(source(0, 24, ORDER_BGR_ALT), row, c, "24 order 5");
}

// ---- output packing --------------------------------------------------------------------------

TEST(Dither, OutputPackingMergesIntoExistingBits) {
  // Five pixels of gray 255 against the 2-entry fixed palette (index 1) or,
  // for more bits, the 256-entry one (index 255 masked to the width).
  for (int bits = 1; bits <= 8; ++bits) {
    BitmapHandle b = source(5, 24);
    ASSERT_EQ(V_StartDitheringExt(&b, nullptr, 2, bits, nullptr), RESULT_OK);
    std::vector<uint8_t> in(15, 255), out(6, 0x00);
    ASSERT_EQ(V_DitherLine(&b, in.data(), out.data()), RESULT_OK);
    V_StopDithering(&b);
    // Expected: five copies of 1 in `bits` bits, then the untouched zeros.
    std::vector<uint8_t> want(6, 0);
    for (int x = 0; x < 5; ++x) put_bits(want, x, bits, 1);
    EXPECT_EQ(out, want) << bits;

    // Background of ones: bits past the last index are kept.
    ASSERT_EQ(V_StartDitheringExt(&b, nullptr, 2, bits, nullptr), RESULT_OK);
    std::vector<uint8_t> black(15, 0), ones(6, 0xFF);
    ASSERT_EQ(V_DitherLine(&b, black.data(), ones.data()), RESULT_OK);
    V_StopDithering(&b);
    const int used = 5 * bits;
    for (int bit = 0; bit < 48; ++bit)
      EXPECT_EQ((ones[size_t(bit / 8)] >> (7 - bit % 8)) & 1, bit < used ? 0 : 1) << bits << " bit " << bit;
  }
  // Output bits outside 1..8 write nothing.
  BitmapHandle b = source(4, 24);
  ASSERT_EQ(V_StartDitheringExt(&b, nullptr, 2, 0, nullptr), RESULT_OK);
  std::vector<uint8_t> in(12, 255), out(4, 0x3C);
  ASSERT_EQ(V_DitherLine(&b, in.data(), out.data()), RESULT_OK);
  EXPECT_EQ(out, std::vector<uint8_t>(4, 0x3C));
  V_StopDithering(&b);
}

// ---- interface, lifecycle, failure -----------------------------------------------------------

TEST(Dither, ArgumentChecksAndLifecycle) {
  BitmapHandle b = source(4, 24);
  EXPECT_EQ(V_StopDithering(&b), RESULT_OK);  // never started
  EXPECT_EQ(V_StopDithering(nullptr), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_StartDithering(nullptr, nullptr, 2), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_StartDithering(&b, nullptr, 0), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_StartDithering(&b, nullptr, 257), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_StartDitheringExt(&b, nullptr, 0, 8, nullptr), RESULT_BAD_PARAMETER);
  for (int bad : {0, 9, 10, 13, 20, 33, 65}) {
    BitmapHandle d = source(4, bad);
    EXPECT_EQ(V_StartDithering(&d, nullptr, 2), RESULT_BAD_PARAMETER) << bad;
    EXPECT_EQ(d.DitherState, nullptr);
  }
  for (int method : {9, -1}) {
    BitmapHandle d = source(4, 24, ORDER_RGB, method);
    EXPECT_EQ(V_StartDithering(&d, nullptr, 2), RESULT_BAD_PARAMETER) << method;
  }
  uint8_t row[16] = {};
  EXPECT_EQ(V_DitherLine(&b, row, row), RESULT_BAD_PARAMETER);  // no context
  ASSERT_EQ(V_StartDithering(&b, nullptr, 17), RESULT_OK);
  EXPECT_EQ(ctx(b).OutputBits, 5u);
  EXPECT_EQ(ctx(b).ColorCount, 17u);
  EXPECT_EQ(V_DitherLine(nullptr, row, row), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_DitherLine(&b, nullptr, row), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_DitherLine(&b, row, nullptr), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
  EXPECT_EQ(b.DitherState, nullptr);

  // Zero or negative width: lines succeed and write nothing.
  for (int w : {0, -3}) {
    BitmapHandle z = source(w, 24, ORDER_RGB, DITHER_STEVENSON_ARCE);
    ASSERT_EQ(V_StartDithering(&z, nullptr, 16), RESULT_OK);
    uint8_t out = 0x77;
    EXPECT_EQ(V_DitherLine(&z, row, &out), RESULT_OK);
    EXPECT_EQ(out, 0x77);
    EXPECT_EQ(V_StopDithering(&z), RESULT_OK);
  }
}

// Every allocation of a start failing in turn: the record is as it was
// (its old state pointer too) and nothing is left behind.
TEST(Dither, StartFailuresFreeEverythingAndLeaveStateUnchanged) {
  std::vector<RGBQUAD> spal(256);
  for (int i = 0; i < 256; ++i) spal[size_t(i)] = quad(i, 255 - i, i / 2);
  std::vector<RGBQUAD> dpal = {quad(0, 0, 0), quad(248, 248, 248), quad(200, 40, 16)};
  void* const marker = reinterpret_cast<void*>(uintptr_t(0x1234));
  for (int method : {DITHER_NONE, DITHER_STEVENSON_ARCE}) {
    for (const bool ext : {false, true}) {
      BitmapHandle b, before;
      vkt::fault_sweep(
          [&] {
            b = source(64, 8, ORDER_RGB, method);
            b.Flags = PALETTE_IS_TABLE;
            b.Palette = spal.data();
            b.ColorCount = 256;
            b.DitherState = marker;
            before = b;
          },
          [&] { return ext ? V_StartDitheringExt(&b, dpal.data(), 3, 2, nullptr) : V_StartDithering(&b, dpal.data(), 3); },
          [&](const vkt::SweepRun& run) {
            if (run.result == RESULT_OK) {
              EXPECT_NE(b.DitherState, marker);
              EXPECT_EQ(V_StopDithering(&b), RESULT_OK);
            } else {
              EXPECT_EQ(run.result, RESULT_FAIL);
              EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
            }
          });
    }
  }
}

}  // namespace
