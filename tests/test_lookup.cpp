// Nearest-colour search, user match tables, palette maps and the fixed palettes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "color_helpers.h"
#include "fault.h"
#include "lookup.h"
#include "palette_tables.h"
#include "platform.h"
#include "vkkrn.h"
#include "fault_sweep.h"

// Fault sweeps in this file.
VKT_SWEEPS(V_CreateUserMatchTable);

namespace {

using vkt::quad;
// Straightforward restatement of the search for cross-checking table cells.
uint32_t brute_nearest(const std::vector<RGBQUAD>& pal, int r, int g, int b) {
  return V_FindPaletteIndex(pal.data(), uint32_t(pal.size()), r, g, b);
}

TEST(Lookup, EdgeCases) {
  struct Case {
    std::vector<RGBQUAD> pal;
    int r, g, b;
    uint32_t want;
    const char* why;
  } cases[] = {
      {{quad(0, 0, 0), quad(255, 255, 255), quad(0, 0, 0)}, 0, 0, 0, 0, "black prefers entry 0"},
      {{quad(0, 0, 0), quad(255, 255, 255), quad(0, 0, 0)}, 255, 255, 255, 1, "white found by the search"},
      {{quad(255, 255, 255), quad(128, 128, 128), quad(255, 255, 255)}, 255, 255, 255, 2, "white prefers the last entry"},
      {{quad(9, 9, 9), quad(5, 5, 5), quad(0, 0, 0)}, 0, 0, 0, 2, "black in the last entry"},
      {{quad(255, 255, 255), quad(5, 5, 5), quad(9, 9, 9)}, 255, 255, 255, 0, "white in entry 0 only"},
      {{quad(10, 0, 0), quad(0, 10, 0)}, 5, 5, 0, 0, "tie, later entry has another order code"},
      {{quad(0, 10, 0), quad(10, 0, 0)}, 5, 5, 0, 1, "tie, later entry has the target's order code"},
      {{quad(1, 2, 3), quad(50, 50, 50), quad(50, 50, 50)}, 50, 50, 50, 1, "first exact match stops"},
      {{quad(0, 0, 0, 3), quad(200, 0, 0)}, 0, 0, 0, 0, "reserved bytes do not hide black"},
      {{quad(100, 100, 100), quad(0, 0, 200)}, 0, 0, 255, 1, "plain nearest"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(V_FindPaletteIndex(c.pal.data(), uint32_t(c.pal.size()), c.r, c.g, c.b), c.want) << c.why;

  const RGBQUAD one = quad(1, 1, 1);
  EXPECT_EQ(V_FindPaletteIndex(&one, 0, 1, 1, 1), 0xFFFFFFFFu);
  EXPECT_EQ(V_FindPaletteIndex(&one, 0, 0, 0, 0), 0xFFFFFFFFu);
  EXPECT_EQ(V_FindPaletteIndex(nullptr, 16, 7, 7, 7), 0u);
}

TEST(Lookup, UserMatchTableAgreesOnCellCorners) {
  std::vector<RGBQUAD> pal;
  for (int i = 0; i < 37; ++i) pal.push_back(quad((i * 97) & 255, (i * 53 + 11) & 255, (i * 31 + 7) & 255));
  pal.push_back(quad(0, 0, 0));
  uint32_t* t = V_CreateUserMatchTable(pal.data(), uint32_t(pal.size()));
  ASSERT_NE(t, nullptr);
  for (uint32_t i = 0; i < vk::kColorCells; ++i) {
    const int r = int((i >> 10) & 31) * 8, g = int((i >> 5) & 31) * 8, b = int(i & 31) * 8;
    ASSERT_EQ(t[i], brute_nearest(pal, r, g, b) + 1) << i;
  }
  EXPECT_EQ(V_FreeUserMatchTable(t), RESULT_OK);
  EXPECT_EQ(V_FreeUserMatchTable(nullptr), RESULT_OK);
  EXPECT_EQ(V_CreateUserMatchTable(nullptr, 4), nullptr);
}

TEST(Lookup, UserMatchTableIsPerThread) {
  uint32_t dummy[4] = {};
  uint32_t* before = V_SetUserMatchTable(dummy);
  EXPECT_EQ(vk::current_user_match_table(), dummy);
  uint32_t* seen_elsewhere = dummy;
  uint32_t* old_elsewhere = dummy;
  std::thread([&] {
    seen_elsewhere = vk::current_user_match_table();
    old_elsewhere = V_SetUserMatchTable(nullptr);
  }).join();
  EXPECT_EQ(seen_elsewhere, nullptr);
  EXPECT_EQ(old_elsewhere, nullptr);  // a thread that never installed one
  EXPECT_EQ(V_SetUserMatchTable(before), dummy);
}

TEST(Lookup, PaletteMapRules) {
  uint8_t map[256];
  EXPECT_EQ(vk::build_palette_map(nullptr, 0, nullptr, 0, map), 1);

  // Equal prefixes (reserved bytes included) give the identity.
  const RGBQUAD* p8 = V_IntGetFixedPalette(8);
  std::memset(map, 0xAA, sizeof map);
  EXPECT_EQ(vk::build_palette_map(p8, 16, p8, 256, map), 1);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(map[i], i);
  EXPECT_EQ(map[16], 0xAA);  // entries beyond the source count are untouched

  // A reserved-byte difference defeats the shortcut but the search still maps
  // every entry to itself.
  std::vector<RGBQUAD> marked(p8, p8 + 256);
  marked[3].rgbReserved = 1;
  EXPECT_EQ(vk::build_palette_map(marked.data(), 256, p8, 256, map), 1);

  // Gray destination: the gray formula.
  const RGBQUAD src[3] = {quad(0, 0, 255), quad(0, 255, 0), quad(255, 0, 0)};
  EXPECT_EQ(vk::build_palette_map(src, 3, nullptr, 0, map), 0);
  EXPECT_EQ(map[0], 32);
  EXPECT_EQ(map[1], 159);
  EXPECT_EQ(map[2], 64);

  // Gray source: nearest entry of each level.
  const RGBQUAD* p1 = V_IntGetFixedPalette(1);
  EXPECT_EQ(vk::build_palette_map(nullptr, 0, p1, 2, map), 0);
  EXPECT_EQ(map[0], 0);
  EXPECT_EQ(map[127], 0);
  EXPECT_EQ(map[128], 1);
  EXPECT_EQ(map[255], 1);
  EXPECT_EQ(vk::build_palette_map(nullptr, 0, vk::gray_ramp(), 256, map), 1);

  // A larger source than destination is searched.
  EXPECT_EQ(vk::build_palette_map(p8, 256, V_IntGetFixedPalette(3), 8, map), 0);
  EXPECT_EQ(map[255], 7);
  EXPECT_EQ(map[0], 0);
}

TEST(FixedPalettes, Tables) {
  EXPECT_EQ(V_IntGetFixedPalette(0), nullptr);
  EXPECT_EQ(V_IntGetFixedPalette(9), nullptr);
  EXPECT_EQ(V_IntGetFixedPalette(-1), nullptr);

  auto rgb = [](const RGBQUAD& e) { return std::vector<int>{e.rgbRed, e.rgbGreen, e.rgbBlue, e.rgbReserved}; };
  struct Case {
    int bits, index, r, g, b;
  } cases[] = {
      {1, 1, 255, 255, 255}, {2, 1, 85, 85, 85},    {3, 4, 255, 0, 0},     {4, 1, 128, 0, 0},
      {4, 8, 192, 192, 192}, {4, 9, 255, 0, 0},     {5, 8, 85, 0, 0},      {6, 16 + 8 + 3, 85, 170, 255},
      {7, 32 + 4 * 3 + 2, 85, 109, 170}, {8, 32 * 5 + 4 * 6 + 1, 182, 219, 85}, {8, 255, 255, 255, 255},
  };
  for (const auto& c : cases)
    EXPECT_EQ(rgb(V_IntGetFixedPalette(c.bits)[c.index]), (std::vector<int>{c.r, c.g, c.b, 0}))
        << c.bits << ":" << c.index;

  std::vector<RGBQUAD> out(256, quad(1, 2, 3, 4));
  EXPECT_EQ(V_GetFixedPalette(out.data(), 0), RESULT_OK);
  for (int i = 0; i < 256; ++i) EXPECT_EQ(rgb(out[i]), (std::vector<int>{i, i, i, 0}));
  std::fill(out.begin(), out.end(), quad(1, 2, 3, 4));
  EXPECT_EQ(V_GetFixedPalette(out.data(), 4), RESULT_OK);
  EXPECT_EQ(std::memcmp(out.data(), V_IntGetFixedPalette(4), 16 * 4), 0);
  EXPECT_EQ(rgb(out[16]), (std::vector<int>{1, 2, 3, 4}));  // nothing past 2^bits written
  EXPECT_EQ(V_GetFixedPalette(out.data(), 9), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetFixedPalette(out.data(), -1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GetFixedPalette(nullptr, 1), RESULT_BAD_PARAMETER);

  const RGBQUAD* cube = vk::color_cube();
  EXPECT_EQ(rgb(cube[vk::cube_index(5, 2, 1)]), (std::vector<int>{255, 102, 51, 0}));
  EXPECT_EQ(rgb(cube[215]), (std::vector<int>{255, 255, 255, 0}));
  for (int i = 216; i < 256; ++i) EXPECT_EQ(rgb(cube[i]), (std::vector<int>{0, 0, 0, 0}));
}

TEST(Lookup, PreparedMatcherAgreesWithSearch) {
  std::mt19937 rng(21);
  std::vector<std::vector<RGBQUAD>> palettes;
  for (int bits = 1; bits <= 8; ++bits) palettes.emplace_back(V_IntGetFixedPalette(bits), V_IntGetFixedPalette(bits) + (1 << bits));
  palettes.emplace_back(vk::gray_ramp(), vk::gray_ramp() + 256);
  palettes.emplace_back(vk::color_cube(), vk::color_cube() + 256);
  for (int n : {1, 3, 5, 17, 100, 255, 256}) {
    std::vector<RGBQUAD> p;
    for (int i = 0; i < n; ++i) p.push_back(quad(rng() & 255, rng() & 255, rng() & 255));
    palettes.push_back(p);
    // Coarse levels and duplicates make many equal distances.
    std::vector<RGBQUAD> coarse;
    for (int i = 0; i < n; ++i) coarse.push_back(quad((rng() % 3) * 20, (rng() % 3) * 20, (rng() % 3) * 20));
    palettes.push_back(coarse);
  }
  for (const auto& p : palettes) {
    vk::PaletteMatcher m;
    m.prepare(p.data(), uint32_t(p.size()));
    for (int t = 0; t < 4000; ++t) {
      const uint32_t r = (t < 2000) ? (rng() % 5) * 10 : rng() & 255;
      const uint32_t g = (t < 2000) ? (rng() % 5) * 10 : rng() & 255;
      const uint32_t b = (t < 2000) ? (rng() % 5) * 10 : rng() & 255;
      const uint32_t want = brute_nearest(p, int(r), int(g), int(b));
      ASSERT_EQ(m.find(r, g, b), want) << p.size() << " " << r << "," << g << "," << b;
      ASSERT_EQ(m.find_baseline(r, g, b), want) << p.size() << " " << r << "," << g << "," << b;
    }
    for (const RGBQUAD& e : p) ASSERT_EQ(m.find(e.rgbRed, e.rgbGreen, e.rgbBlue), brute_nearest(p, e.rgbRed, e.rgbGreen, e.rgbBlue));
    ASSERT_EQ(m.find(0, 0, 0), brute_nearest(p, 0, 0, 0));
    ASSERT_EQ(m.find(255, 255, 255), brute_nearest(p, 255, 255, 255));
  }
}

// The test command runs the matching a second time with the switch set; this
// proves that second run really took the plain path.
TEST(Lookup, ForcedGenericSwitchIsHonoured) {
  const char* force = std::getenv("VK_FORCE_GENERIC");
  if (!force || std::strcmp(force, "1") != 0) GTEST_SKIP() << "VK_FORCE_GENERIC not set";
  EXPECT_EQ(vk::plat::simd_level(), vk::plat::Simd::generic);
}

TEST(Lookup, UserMatchTableAllocationFailure) {
  uint32_t* t = nullptr;
  vkt::fault_sweep([] {},
                   [&] { return (t = V_CreateUserMatchTable(V_IntGetFixedPalette(4), 16)) ? RESULT_OK : RESULT_FAIL; },
                   [&](const vkt::SweepRun& run) {
                     if (run.result == RESULT_OK) V_FreeUserMatchTable(t);
                     else EXPECT_TRUE(run.fired);
                   });
}

}  // namespace
