// Runtime services: per-thread isolation of settings through the public
// calls, the caller-slot store, status callbacks, utilities, and the
// platform's palette, screen and MulDiv calls.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "core.h"
#include "fault_sweep.h"
#include "platform.h"
#include "vkkrn_platform.h"

namespace {

int32_t VK_CALL status_a(int32_t, intptr_t) { return RESULT_OK; }
int32_t VK_CALL status_b(int32_t, intptr_t) { return RESULT_OK; }
VK_FILE VK_CALL my_open(const char*, int32_t, int32_t, intptr_t) { return 100; }

TEST(Runtime, ThreadsKeepIndependentDefaultsTablesAndCallbacks) {
  const int32_t old_x = V_SetDefaultXResolution(300);
  ASSERT_EQ(V_DefaultDithering(DITHER_STUCKI), RESULT_OK);
  StatusCallback old_status = V_SetStatusCallBack(status_a, 11);
  StatusCallback old_copy = V_SetCopyStatusCallBack(status_b, 22);
  V_RedirectIO(my_open, nullptr, nullptr, nullptr, nullptr, 33);
  const long base = vk::fault::live_total();

  std::thread t([] {
    // A new thread starts from the initial values, whatever this one set.
    EXPECT_EQ(V_GetDefaultXResolution(), 150);
    EXPECT_EQ(V_GetDefaultDithering(), DITHER_ORDERED);
    intptr_t data = -1;
    EXPECT_EQ(V_GetStatusCallBack(&data), nullptr);
    EXPECT_EQ(data, 0);
    EXPECT_EQ(V_GetCopyStatusCallBack(nullptr), nullptr);  // the user-data output is optional
    int32_t tiled = 0, memory_tiles = 0, mapped = 0;
    V_GetMemoryThresholds(nullptr, &tiled, nullptr, &memory_tiles, &mapped);
    EXPECT_EQ(tiled, 0x7FFFFFFF);
    EXPECT_EQ(memory_tiles, -100);
    EXPECT_EQ(mapped, 1);
    intptr_t od = -1;
    V_GetFilterIOData(&od, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(od, 0);
    EXPECT_EQ(V_RedirectedOpen("/nonexistent/dir/x", 0, 0), -1);  // the V_Os default, not my_open
    // Its own changes stay with it.
    V_SetDefaultXResolution(72);
    V_DefaultDithering(DITHER_NONE);
    EXPECT_EQ(V_SetStatusCallBack(status_b, 5), nullptr);  // hands back what it replaced
    V_RedirectIO(nullptr, nullptr, nullptr, nullptr, nullptr, 44);
  });
  t.join();
  EXPECT_EQ(vk::fault::live_total(), base);  // the thread's record went with it

  EXPECT_EQ(V_GetDefaultXResolution(), 300);
  EXPECT_EQ(V_GetDefaultDithering(), DITHER_STUCKI);
  intptr_t data = 0;
  EXPECT_EQ(V_GetStatusCallBack(&data), status_a);
  EXPECT_EQ(data, 11);
  EXPECT_EQ(V_GetCopyStatusCallBack(&data), status_b);
  EXPECT_EQ(data, 22);
  EXPECT_EQ(V_RedirectedOpen("any", 0, 0), 100);
  V_GetFilterIOData(&data, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(data, 33);

  V_RedirectIO(nullptr, nullptr, nullptr, nullptr, nullptr, 0);
  EXPECT_EQ(V_SetStatusCallBack(old_status, 0), status_a);
  EXPECT_EQ(V_SetCopyStatusCallBack(old_copy, 0), status_b);
  V_DefaultDithering(DITHER_ORDERED);
  V_SetDefaultXResolution(old_x);
}

// A thread whose record cannot be made (each allocation of the record failed
// in turn, and every one after it) still gets working defaults from the
// process-wide record, and nothing is left behind when it exits.
TEST(Runtime, ThreadRecordFaultSweep) {
  vkt::fault_sweep([] {},
                   [] {
                     std::thread t([] {
                       const int32_t before = V_SetDefaultXResolution(500);
                       const int32_t now = V_GetDefaultXResolution();
                       const uint32_t slot = V_TlsAlloc();
                       const int32_t set = V_TlsSetValue(slot, 42);
                       const uintptr_t got = V_TlsGetValue(slot);
                       // Put back what was changed on the same record (the
                       // process-wide one when it served).
                       V_TlsSetValue(slot, 0);
                       V_SetDefaultXResolution(150);
                       V_TlsFree(slot);
                       EXPECT_EQ(before, 150);
                       EXPECT_EQ(now, 500);
                       EXPECT_EQ(set, 1);
                       EXPECT_EQ(got, 42u);
                     });
                     t.join();
                     return int32_t{RESULT_OK};
                   },
                   [](const vkt::SweepRun&) {}, vkt::Arm::from_then_on);
}

// ---- caller slots ------------------------------------------------------------------

TEST(TlsSlots, FreedSlotsBelowTheMarkAreNotReusedWhileTheMarkCanGrow) {
  const uint32_t a = V_TlsAlloc(), b = V_TlsAlloc(), c = V_TlsAlloc();
  ASSERT_NE(a, 0xFFFFFFFFu);
  EXPECT_EQ(b, a + 1);
  EXPECT_EQ(c, a + 2);
  EXPECT_EQ(V_TlsFree(a), 1);
  EXPECT_EQ(V_TlsFree(a), 0);  // already free
  const uint32_t d = V_TlsAlloc();
  EXPECT_EQ(d, c + 1);  // the mark grows; a waits
  // The mark is one past the top slot: values at or above it are refused.
  EXPECT_EQ(V_TlsSetValue(d + 1, 7), 0);
  EXPECT_EQ(V_TlsGetValue(d + 1), 0u);
  EXPECT_EQ(V_TlsFree(d + 1), 0);
  EXPECT_EQ(V_TlsFree(5000), 0);

  // Freeing the top slot lowers the mark by exactly one, even though slot
  // c - 1 below is free too.
  EXPECT_EQ(V_TlsFree(b), 1);
  EXPECT_EQ(V_TlsFree(d), 1);
  EXPECT_EQ(V_TlsSetValue(d, 1), 0);   // d is now at the mark
  EXPECT_EQ(V_TlsSetValue(c, 9), 1);   // c is still below it
  EXPECT_EQ(V_TlsSetValue(b, 9), 1);   // free but below the mark: not checked
  EXPECT_EQ(V_TlsGetValue(b), 9u);
  EXPECT_EQ(V_TlsAlloc(), d);          // the mark slot again
  EXPECT_EQ(V_TlsFree(d), 1);
  EXPECT_EQ(V_TlsFree(c), 1);
}

TEST(TlsSlots, ValuesArePerThread) {
  const uint32_t s = V_TlsAlloc();
  ASSERT_NE(s, 0xFFFFFFFFu);
  EXPECT_EQ(V_TlsSetValue(s, 1234), 1);
  std::thread t([s] {
    EXPECT_EQ(V_TlsGetValue(s), 0u);
    EXPECT_EQ(V_TlsSetValue(s, 99), 1);
    EXPECT_EQ(V_TlsGetValue(s), 99u);
  });
  t.join();
  EXPECT_EQ(V_TlsGetValue(s), 1234u);
  V_TlsSetValue(s, 0);
  V_TlsFree(s);
}

TEST(TlsSlots, AFullTableSearchesForFreedSlotsThenRefuses) {
  std::vector<uint32_t> mine;
  for (;;) {
    const uint32_t s = V_TlsAlloc();
    if (s == 0xFFFFFFFFu) break;
    mine.push_back(s);
    ASSERT_LT(mine.size(), 2000u);
  }
  ASSERT_FALSE(mine.empty());
  EXPECT_EQ(std::find(mine.begin(), mine.end(), 1023u) != mine.end(), true);
  // With the mark at 1024, a freed slot in the middle is found again.
  const uint32_t middle = mine[mine.size() / 2];
  if (middle != 1023u) {
    EXPECT_EQ(V_TlsFree(middle), 1);
    EXPECT_EQ(V_TlsAlloc(), middle);
    EXPECT_EQ(V_TlsAlloc(), 0xFFFFFFFFu);
  }
  std::sort(mine.rbegin(), mine.rend());
  for (uint32_t s : mine) EXPECT_EQ(V_TlsFree(s), 1);
}

// ---- utilities ---------------------------------------------------------------------

TEST(Utility, SqrtIsTheFlooredRoot) {
  for (const uint32_t n : {65535u * 65535u, 65536u * 65535u, 0x80000000u, 0xFFFFFFFFu})
    EXPECT_EQ(V_SQRT(n), static_cast<uint32_t>(std::sqrt(static_cast<double>(n)))) << n;
  for (uint32_t n = 0; n < 70000; ++n)
    ASSERT_EQ(V_SQRT(n), static_cast<uint32_t>(std::sqrt(static_cast<double>(n)))) << n;
}

TEST(Utility, BitCountTable) {
  const uint8_t* t = V_Get1BitOnTable();
  ASSERT_NE(t, nullptr);
  for (int b = 0; b < 256; ++b) EXPECT_EQ(t[b], __builtin_popcount(b)) << b;
}

TEST(Utility, StrtokSplitsButRefusesANullText) {
  char text[] = ",,a,b;;c";
  EXPECT_EQ(V_Strtok(text, nullptr), nullptr);
  char* tok = V_Strtok(text, ",;");
  ASSERT_NE(tok, nullptr);
  EXPECT_STREQ(tok, "a");
  // A null text is refused outright, even in the middle of a split: callers
  // go on from the text after the token.
  EXPECT_EQ(V_Strtok(nullptr, ",;"), nullptr);
  tok = V_Strtok(tok + 2, ",;");
  ASSERT_NE(tok, nullptr);
  EXPECT_STREQ(tok, "b");
  std::thread t([] {
    char other[] = "  x y";
    EXPECT_STREQ(V_Strtok(other, " "), "x");
  });
  t.join();
  EXPECT_STREQ(V_Strtok(tok + 2, ",;"), "c");
  char empty[] = ";;";
  EXPECT_EQ(V_Strtok(empty, ";"), nullptr);
}

TEST(Utility, VersionRecord) {
  EXPECT_EQ(V_VersionInfo(nullptr), RESULT_BAD_PARAMETER);
  VersionInfo v;
  std::memset(&v, 0xCC, sizeof v);
  ASSERT_EQ(V_VersionInfo(&v), RESULT_OK);
  EXPECT_EQ(v.Level, 2);
  EXPECT_EQ(v.MajorVersion, 13);
  EXPECT_EQ(v.MinorVersion, 0);
  const size_t n = strnlen(v.Banner, sizeof v.Banner);
  ASSERT_LT(n, sizeof v.Banner);
  EXPECT_GT(n, 0u);
  for (size_t i = n; i < sizeof v.Banner; ++i) EXPECT_EQ(v.Banner[i], 0);
  EXPECT_NE(std::string(v.Banner).find("VKKRN13N"), std::string::npos);
  EXPECT_EQ(strnlen(v.BuildDate, 16), 11u);  // "Mmm dd yyyy"
  EXPECT_EQ(strnlen(v.BuildTime, 16), 8u);   // "hh:mm:ss"
  EXPECT_EQ(v.BuildDate[15], 0);
  EXPECT_EQ(v.BuildTime[15], 0);
}

TEST(Utility, ThunkDispatcherReachesRowAccess) {
  EXPECT_EQ(V_ThunkDispatch(nullptr, 2), RESULT_BAD_PARAMETER);
  BitmapHandle b;
  ASSERT_EQ(V_InitBitmap(&b, 4, 2, 8), RESULT_OK);
  ASSERT_EQ(V_AllocateBitmap(&b, TYPE_CONVENTIONAL), RESULT_OK);
  uint8_t in[4] = {1, 2, 3, 4}, out[4] = {};
  ThunkArgs put = {&b, in, 1, 0, 4}, get = {&b, out, 1, 0, 4};
  EXPECT_EQ(V_ThunkDispatch(&put, 0), 0);
  EXPECT_EQ(V_ThunkDispatch(&put, 3), 4);
  EXPECT_EQ(V_ThunkDispatch(&get, 2), 4);
  EXPECT_EQ(V_ThunkDispatch(&get, 1), 0);
  EXPECT_EQ(std::memcmp(in, out, 4), 0);
  for (int32_t r : {4, -1, 50}) EXPECT_EQ(V_ThunkDispatch(&get, r), 50) << r;
  V_FreeBitmap(&b);
}

// ---- platform: MulDiv, palettes, screen -----------------------------------------------

TEST(Platform, MulDivRoundsHalvesAwayFromZero) {
  const struct { int32_t a, b, c, r; } cases[] = {
      {10, 10, 3, 33},  {5, 1, 2, 3},     {-5, 1, 2, -3},   {5, 1, -2, -3},   {-5, -1, 2, 3},
      {7, 1, 2, 4},     {-7, 1, 2, -4},   {1, 1, 3, 0},     {2, 1, 3, 1},     {7, 1, 0, -1},
      {1920, 1000, 508, 3780}, {0x7FFFFFFF, 2, 2, 0x7FFFFFFF}, {0x7FFFFFFF, 2, 1, -1},
      {INT32_MIN, 1, 1, INT32_MIN}, {INT32_MIN, -1, 1, -1}, {0, 5, 7, 0}};
  for (const auto& c : cases) EXPECT_EQ(vk::plat::muldiv(c.a, c.b, c.c), c.r) << c.a << "*" << c.b << "/" << c.c;
}

TEST(Platform, PaletteObjectsReadWriteAndMatch) {
  const long base = vk::fault::live_total();
  const vk::plat::PaletteEntry e[4] = {{0, 0, 0, 0}, {255, 0, 0, 0}, {0, 255, 0, 0}, {255, 0, 0, 0}};
  EXPECT_EQ(vk::plat::palette_create(e, 0), nullptr);
  EXPECT_EQ(vk::plat::palette_create(e, 257), nullptr);
  VK_HPALETTE p = vk::plat::palette_create(e, 4);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(vk::fault::live_total(), base + 1);
  EXPECT_EQ(vk::plat::palette_count(p), 4u);
  // Exact red appears at 1 and 3: the first wins.  Near-green goes to 2.
  EXPECT_EQ(vk::plat::palette_nearest(p, VK_RGB(255, 0, 0)), 1u);
  EXPECT_EQ(vk::plat::palette_nearest(p, VK_RGB(10, 200, 20)), 2u);
  EXPECT_EQ(vk::plat::palette_nearest(p, VK_RGB(100, 100, 100)), 0u);  // 30000 against 44025
  vk::plat::PaletteEntry out[4] = {};
  EXPECT_EQ(vk::plat::palette_get(p, 2, 10, out), 2u);  // clipped to what exists
  EXPECT_EQ(out[0].green, 255);
  EXPECT_EQ(vk::plat::palette_get(p, 4, 1, out), 0u);
  EXPECT_EQ(vk::plat::palette_get(p, 0, 0, nullptr), 4u);
  const vk::plat::PaletteEntry blue = {0, 0, 255, 0};
  EXPECT_EQ(vk::plat::palette_set(p, 3, 5, &blue), 1u);
  EXPECT_EQ(vk::plat::palette_nearest(p, VK_RGB(0, 0, 200)), 3u);
  EXPECT_TRUE(vk::plat::palette_delete(p));
  EXPECT_EQ(vk::fault::live_total(), base);
}

TEST(Platform, ExportedPaletteKeepsTheQuadOrder) {
  const long base = vk::fault::live_total();
  const RGBQUAD q[2] = {{1, 2, 3, 9}, {4, 5, 6, 9}};
  VK_HPALETTE p = VKP_CreatePalette(q, 2);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(VKP_GetPaletteEntries(p, 0, 0, nullptr), 2u);
  RGBQUAD out[2] = {};
  ASSERT_EQ(VKP_GetPaletteEntries(p, 0, 2, out), 2u);
  EXPECT_EQ(out[1].rgbBlue, 4);
  EXPECT_EQ(out[1].rgbRed, 6);
  EXPECT_EQ(out[1].rgbReserved, 0);
  EXPECT_EQ(VKP_DeletePalette(p), 1);
  EXPECT_EQ(VKP_CreatePalette(nullptr, 2), nullptr);
  EXPECT_EQ(vk::fault::live_total(), base);
}

// The backend's own screen (the system's on Windows, wine's there too): a
// size to derive default resolutions from, and no palette.
TEST(Platform, ScreenHasASizeAndNoPalette) {
  const vk::plat::ScreenInfo s = vk::plat::screen_info();
  EXPECT_FALSE(s.palette_device);
  EXPECT_GT(s.horz_res, 0);
  EXPECT_GT(s.vert_res, 0);
  EXPECT_GT(s.horz_size, 0);
  EXPECT_GT(s.vert_size, 0);
}

}  // namespace
