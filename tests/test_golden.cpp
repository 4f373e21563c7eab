// Golden checksums: pixel results of the row conversion (every source depth
// and order into every destination depth and order, palettes and gray bit
// ranges included, at widths 1, 7, 31 and 33 to reach every partial byte and
// word), of colour resolution with each dithering method, and of the
// optimiser, and of the general turn in each sampling.  The tables were
// produced by this code before the pixel readers were shared (the turn's
// before its row kernels were specialised for speed); any change of a single
// output bit changes a checksum.  Run with
// VK_GOLDEN_PRINT=1 to print the tables the current code produces.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "reduce_fixtures.h"

namespace {

uint32_t crc_table(uint32_t i) {
  for (int k = 0; k < 8; ++k) i = (i >> 1) ^ (0xEDB88320u & (0u - (i & 1u)));
  return i;
}
uint32_t crc32(uint32_t crc, const void* data, size_t n) {
  static uint32_t table[256];
  static const bool ready = [] {
    for (uint32_t i = 0; i < 256; ++i) table[i] = crc_table(i);
    return true;
  }();
  (void)ready;
  const auto* p = static_cast<const uint8_t*>(data);
  crc = ~crc;
  for (size_t i = 0; i < n; ++i) crc = table[(crc ^ p[i]) & 255] ^ (crc >> 8);
  return ~crc;
}
uint32_t crc_word(uint32_t crc, int32_t v) { return crc32(crc, &v, sizeof v); }

// Palettes with distinct, scattered entries (the two sides differ).
std::vector<RGBQUAD> palette(int n, uint32_t seed) {
  std::vector<RGBQUAD> p(static_cast<size_t>(n));
  uint32_t x = seed * 2654435761u;
  for (auto& q : p) {
    x = x * 1103515245u + 12345u;
    q.rgbRed = uint8_t(x >> 16), q.rgbGreen = uint8_t(x >> 8), q.rgbBlue = uint8_t(x >> 24), q.rgbReserved = 0;
  }
  return p;
}

bool printing() { return std::getenv("VK_GOLDEN_PRINT") != nullptr; }

struct Format {
  int32_t bits, order;
};

// Every depth the conversion knows, in every order the tables below try
// (refused pairs count too: their result code is part of the checksum).
std::vector<Format> formats(bool destination) {
  std::vector<Format> f;
  if (destination) f.push_back({0, ORDER_RGB});  // gray levels
  for (int32_t bits : {1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64})
    for (int32_t order : {ORDER_RGB, ORDER_BGR, ORDER_GRAY, ORDER_BGR_ALT}) f.push_back({bits, order});
  return f;
}

// Gray bit ranges (low, high): whole value, inner ranges, single bits, past the top, unset.
constexpr int32_t kRanges[][2] = {{-1, -1}, {0, 7}, {2, 9}, {4, 11}, {8, 15}, {3, 3}, {0, 15}, {12, 20}, {5, -1}};

constexpr int32_t kWidths[] = {1, 7, 31, 33};

uint32_t convert_checksum(const Format& s, const std::vector<Format>& dsts) {
  // 12- and 16-bit gray sources take a table of one entry per sample value.
  const std::vector<RGBQUAD> src_pal = palette(65536, 7), dst_pal = palette(256, 11);
  uint32_t crc = 0;
  std::vector<uint8_t> buf(33 * 8 + 64);
  for (const Format& d : dsts) {
    for (uint32_t mode = 0; mode < 3; ++mode) {
      const uint32_t flag = mode == 0 ? 0u : mode == 1 ? CONVERT_SRC_BITRANGE : CONVERT_DST_BITRANGE;
      if ((mode == 1 && s.order != ORDER_GRAY) || (mode == 2 && d.order != ORDER_GRAY)) continue;
      // A bit range on the source into palette indexes reads past its level
      // table for narrow ranges; that case is pinned once it is mended.
      if (mode == 1 && d.bits >= 1 && d.bits <= 8) continue;
      for (const auto& range : kRanges) {
        if (mode == 0 && &range != &kRanges[0]) break;
        for (int32_t width : kWidths) {
          for (size_t i = 0; i < buf.size(); ++i) buf[i] = uint8_t(i * 97 + width * 13 + (i >> 3) * 5);
          const int32_t r = V_ConvertBufferExt(buf.data(), width, s.bits, d.bits, s.order, d.order, src_pal.data(),
                                               dst_pal.data(), flag, range[0], range[1]);
          crc = crc_word(crc, r);
          crc = crc32(crc, buf.data(), buf.size());
        }
      }
    }
  }
  return crc;
}

// One checksum per source format, over every destination, bit range and width.
const uint32_t kConvertGolden[] = {
    0x93447CC2u, 0x93447CC2u, 0x68D9DD76u, 0x93447CC2u,  // 1 bits, orders 0, 1, 2, 5
    0x2EB9D79Au, 0x2EB9D79Au, 0x0B65E1C3u, 0x2EB9D79Au,  // 2 bits, orders 0, 1, 2, 5
    0xBA331B5Bu, 0xBA331B5Bu, 0x030700ADu, 0xBA331B5Bu,  // 3 bits, orders 0, 1, 2, 5
    0x870CAC16u, 0x870CAC16u, 0xF15D7FF1u, 0x870CAC16u,  // 4 bits, orders 0, 1, 2, 5
    0xEF8D9DA0u, 0xEF8D9DA0u, 0x5A87C97Bu, 0xEF8D9DA0u,  // 5 bits, orders 0, 1, 2, 5
    0x16F56507u, 0x16F56507u, 0xE6D56849u, 0x16F56507u,  // 6 bits, orders 0, 1, 2, 5
    0xAD48E05Bu, 0xAD48E05Bu, 0x5290EA2Eu, 0xAD48E05Bu,  // 7 bits, orders 0, 1, 2, 5
    0xD0EC0D84u, 0xD0EC0D84u, 0x89C9B4E1u, 0xD0EC0D84u,  // 8 bits, orders 0, 1, 2, 5
    0x9AE22BF0u, 0x9AE22BF0u, 0xC7A52D43u, 0x9AE22BF0u,  // 12 bits, orders 0, 1, 2, 5
    0x3A27C72Cu, 0x76CDB0CDu, 0xF857226Fu, 0x9AE22BF0u,  // 16 bits, orders 0, 1, 2, 5
    0xBDA86DCCu, 0x659397B1u, 0x20C540AFu, 0x83D186ACu,  // 24 bits, orders 0, 1, 2, 5
    0x6A971813u, 0x2AED3DB9u, 0x20C540AFu, 0x9AE22BF0u,  // 32 bits, orders 0, 1, 2, 5
    0xBF4D56C3u, 0xB75D3CB0u, 0x20C540AFu, 0x0A1BF0ECu,  // 48 bits, orders 0, 1, 2, 5
    0xD47ECB83u, 0x4A068B63u, 0x20C540AFu, 0x9AE22BF0u,  // 64 bits, orders 0, 1, 2, 5
};

TEST(Golden, ConversionOfEveryPair) {
  const std::vector<Format> srcs = formats(false), dsts = formats(true);
  ASSERT_TRUE(printing() || sizeof kConvertGolden / sizeof kConvertGolden[0] == srcs.size());
  for (size_t i = 0; i < srcs.size(); ++i) {
    const uint32_t crc = convert_checksum(srcs[i], dsts);
    if (printing()) {
      std::printf(srcs[i].order == ORDER_BGR_ALT ? "0x%08Xu,  // %d bits\n" : "0x%08Xu, ", crc, srcs[i].bits);
      continue;
    }
    EXPECT_EQ(crc, kConvertGolden[i]) << srcs[i].bits << " bits, order " << srcs[i].order;
  }
}

vkt::Rgb scene(int x, int y) {
  return vkt::Rgb{uint8_t(x * 9 + y * 3), uint8_t(y * 7 + (x >> 1)), uint8_t((x * y + x) & 255)};
}

// Colour resolution of one generated picture into 8, 4 and 1 bits: with the
// optimiser (each dithering method) and with the fixed palette.
uint32_t reduce_checksum(uint32_t flags, int32_t method, int32_t bits) {
  vkt::Bitmap src(37, 23, 24);
  src.fill(scene);
  src->DitheringMethod = method;
  const int32_t r = V_ColorResBitmap(src.get(), src.get(), bits, flags, nullptr, nullptr, 0, nullptr, 0);
  uint32_t crc = crc_word(0, r);
  if (r != RESULT_OK) return crc;
  const std::vector<uint8_t> px = src.pixels();
  const std::vector<RGBQUAD> pal = src.palette();
  crc = crc32(crc, px.data(), px.size());
  return crc32(crc, pal.data(), pal.size() * sizeof(RGBQUAD));
}

const uint32_t kReduceGolden[] = {
    0x0578BA05u, 0xF5FD115Bu, 0x9E51E888u,  // flags 0, method 0: 8, 4, 1 bits
    0xC096F682u, 0x91F946EDu, 0xB31780B8u,  // flags 0, method 1: 8, 4, 1 bits
    0xBBDD4102u, 0x6E2A25ECu, 0x1C0BE918u,  // flags 0, method 2: 8, 4, 1 bits
    0x9E2500CEu, 0x2F9C23B7u, 0xCE4BCB0Au,  // flags 0, method 3: 8, 4, 1 bits
    0xB28492EDu, 0x95867CB6u, 0xAE74128Au,  // flags 0, method 4: 8, 4, 1 bits
    0x7AA30590u, 0x77952353u, 0xCC659E4Au,  // flags 0, method 5: 8, 4, 1 bits
    0xB44E15AFu, 0x1EFF405Cu, 0x444064CFu,  // flags 0, method 6: 8, 4, 1 bits
    0xE5E09DD6u, 0x3EB3D313u, 0x1F340655u,  // flags 0, method 7: 8, 4, 1 bits
    0x1C5A23DDu, 0xD6861CDDu, 0xA26E39A6u,  // flags 0, method 8: 8, 4, 1 bits
    0x6FB08129u, 0x1B65C725u, 0xDF801D8Eu,  // flags 1, method 0: 8, 4, 1 bits
    0x0BE6714Du, 0x207E6A22u, 0xDEC7640Eu,  // flags 1, method 1: 8, 4, 1 bits
    0xE6D21147u, 0x416A6262u, 0x0FE35320u,  // flags 1, method 2: 8, 4, 1 bits
    0x50C8E1D8u, 0x4E9EDCEAu, 0x874E9351u,  // flags 1, method 3: 8, 4, 1 bits
    0x0EA8AA2Cu, 0x4C1B7012u, 0x95ABAF17u,  // flags 1, method 4: 8, 4, 1 bits
    0xE8B1A647u, 0x737A1AD8u, 0xBE6F2241u,  // flags 1, method 5: 8, 4, 1 bits
    0x0ED08E3Bu, 0xCD2E522Au, 0x97D90482u,  // flags 1, method 6: 8, 4, 1 bits
    0xA61CB3FDu, 0x28A2F198u, 0x54EA23DCu,  // flags 1, method 7: 8, 4, 1 bits
    0xDC60A2F6u, 0x79CC9DE9u, 0xCF5D102Bu,  // flags 1, method 8: 8, 4, 1 bits
};

TEST(Golden, DitheringAndOptimiser) {
  size_t i = 0;
  for (uint32_t flags : {RESOLVE_OPTIMISED, RESOLVE_FIXED})
    for (int32_t method = DITHER_NONE; method <= DITHER_CLUSTERED; ++method)
      for (int32_t bits : {8, 4, 1}) {
        const uint32_t crc = reduce_checksum(flags, method, bits);
        if (printing()) {
          std::printf(bits == 1 ? "0x%08Xu,  // flags %u, method %d\n" : "0x%08Xu, ", crc, flags, method);
        } else {
          ASSERT_LT(i, sizeof kReduceGolden / sizeof kReduceGolden[0]);
          EXPECT_EQ(crc, kReduceGolden[i]) << "flags " << flags << ", method " << method << ", " << bits << " bits";
        }
        ++i;
      }
}

// The general turn of one picture (gradients, hard edges and noise, so the
// spline clamps and the linear blend meets the fill at the edges) by several
// angles, with and without ROTATE_RESIZE, into one checksum per depth and
// sampling.  8 and 16 bits are gray samples, "16c" the 5-5-5 colour.
struct TurnCase {
  int32_t bits;
  bool gray;
  const char* name;
};
constexpr TurnCase kTurnCases[] = {{1, false, "1"},    {4, false, "4"},   {8, true, "8"},   {12, true, "12"},
                                   {16, true, "16"},   {16, false, "16c"}, {24, false, "24"}, {32, false, "32"},
                                   {48, false, "48"},  {64, false, "64"}};

uint32_t turn_checksum(const TurnCase& c, uint32_t quality) {
  uint32_t crc = 0;
  // 30, 60, 150 and 330 degrees have a sine or cosine of exactly half,
  // so positions fall on half pixels; within half a degree of a quarter turn
  // one of them is a whole pixel.
  constexpr std::pair<int32_t, uint32_t> kTurns[] = {
      {3000, ROTATE_RESIZE},  {150, ROTATE_RESIZE},   {-4321, 0},           {20017, ROTATE_RESIZE},
      {9000, 0},              {27350, ROTATE_RESIZE}, {35990, 0},           {15000, ROTATE_RESIZE},
      {33000, 0},             {6000, ROTATE_RESIZE},  {4500, 0},            {8995, ROTATE_RESIZE},
      {9005, 0},              {5, ROTATE_RESIZE},     {17995, 0},           {27005, ROTATE_RESIZE}};
  for (auto [w, h] : {std::pair{53, 41}, {4, 3}, {1, 6}}) {
    for (auto [angle, flags] : kTurns) {
      vkt::Bitmap b(w, h, c.bits);
      if (c.gray) b->Order = ORDER_GRAY;
      uint32_t seed = 12345;
      for (int32_t y = 0; y < b->Height; ++y) {
        std::vector<uint8_t> row(b->BytesPerLine);
        for (size_t i = 0; i < row.size(); ++i) {
          seed = seed * 1103515245u + 12345u;
          const int x = int(i) * 8 / (c.bits < 8 ? 1 : c.bits);
          const bool edge = (x / 9 + y / 7) % 3 == 0;
          row[i] = uint8_t(edge ? 250 - (seed >> 28) : x * 4 + y * 3 + ((seed >> 24) & 7));
        }
        if (c.bits == 16 && !c.gray)
          for (size_t i = 1; i < row.size(); i += 2) row[i] &= 0x7F;
        b.put_row(y, row);
      }
      const int32_t r = V_RotateBitmap(b.get(), angle, flags | quality, 0x3C7FB2);
      crc = crc_word(crc, r);
      crc = crc_word(crc, b->Width);
      crc = crc_word(crc, b->Height);
      const std::vector<uint8_t> px = b.pixels();
      crc = crc32(crc, px.data(), px.size());
    }
  }
  return crc;
}

const uint32_t kTurnGolden[] = {
    0x433D5C87u, 0x433D5C87u, 0x433D5C87u,  // 1 bits: qualities 0, 2, 4
    0x50589B29u, 0x50589B29u, 0x50589B29u,  // 4 bits: qualities 0, 2, 4
    0x5B34873Du, 0x2E3E3FE5u, 0xD21F6F9Fu,  // 8 bits: qualities 0, 2, 4
    0x7225212Eu, 0x63253B2Du, 0x1760B459u,  // 12 bits: qualities 0, 2, 4
    0x8C07E452u, 0x3410E30Du, 0xB475A0B7u,  // 16 bits: qualities 0, 2, 4
    0x8B26C304u, 0x9AEE29B0u, 0x322BA60Bu,  // 16c bits: qualities 0, 2, 4
    0x98015A48u, 0x777BBC90u, 0x80B616ABu,  // 24 bits: qualities 0, 2, 4
    0x745AD3CBu, 0x05A4C663u, 0x53B9FED8u,  // 32 bits: qualities 0, 2, 4
    0x2FF7AA03u, 0x21F37326u, 0x58293B7Bu,  // 48 bits: qualities 0, 2, 4
    0x3815AF01u, 0x2153574Eu, 0x529C2654u,  // 64 bits: qualities 0, 2, 4
};

TEST(Golden, GeneralTurnInEachSampling) {
  size_t i = 0;
  for (const TurnCase& c : kTurnCases)
    for (uint32_t quality : {0u, ROTATE_LINEAR, ROTATE_SPLINE}) {
      const uint32_t crc = turn_checksum(c, quality);
      if (printing()) {
        std::printf(quality == ROTATE_SPLINE ? "0x%08Xu,  // %s bits\n" : "0x%08Xu, ", crc, c.name);
      } else {
        ASSERT_LT(i, sizeof kTurnGolden / sizeof kTurnGolden[0]);
        EXPECT_EQ(crc, kTurnGolden[i]) << c.name << " bits, quality " << quality;
      }
      ++i;
    }
}

}  // namespace
