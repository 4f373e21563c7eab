// Several threads at once, each on its own bitmaps: per-thread settings and
// slots stay apart, redirection into a buffer stays on its thread, storage of
// every kind and colour resolution run side by side.  Run under the thread
// sanitizer it also proves the shared state (slot table, temp names, live
// counts, the palette matcher's one-time set-up) is properly guarded.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "core.h"

namespace {

// One thread's round: everything it sets or makes must read back as its own.
bool one_round(int id, int round) {
  bool ok = true;
  const int32_t dpi = 100 + id * 10 + round;
  V_SetDefaultXResolution(dpi);
  ok &= V_GetDefaultXResolution() == dpi;

  const uint32_t slot = V_TlsAlloc();
  if (slot != 0xFFFFFFFFu) {
    ok &= V_TlsSetValue(slot, uintptr_t(id * 1000 + round)) == RESULT_OK;
    std::this_thread::yield();
    ok &= V_TlsGetValue(slot) == uintptr_t(id * 1000 + round);
    V_TlsFree(slot);
  }

  BufferRedirect* ctx = nullptr;
  ok &= V_StartRedirectToBuffer(&ctx, nullptr, REDIRECT_GROW, nullptr, 0) == RESULT_OK;
  const std::string text = "thread " + std::to_string(id);
  ok &= V_RedirectedOpen("", VK_O_RDWR, 0) == REDIRECT_HANDLE;
  ok &= V_RedirectedWrite(REDIRECT_HANDLE, text.data(), int32_t(text.size())) == int32_t(text.size());
  void* out = nullptr;
  uint32_t length = 0;
  ok &= V_StopRedirectToBuffer(ctx, &out, &length) == RESULT_OK;
  ok &= length == text.size() && out && std::memcmp(out, text.data(), length) == 0;
  if (out) V_OsFree(out);

  static const int32_t types[] = {TYPE_CONVENTIONAL, TYPE_DISK, TYPE_TILED, TYPE_COMPRESSED};
  const int32_t type = types[(id + round) % 4];
  BitmapHandle b;
  const int32_t bits = type == TYPE_COMPRESSED ? 1 : 24;
  ok &= V_CreateBitmap(&b, type, 64, 48, bits, ORDER_BGR, nullptr, 2, nullptr, 0) == RESULT_OK;
  std::vector<uint8_t> row(b.BytesPerLine);
  for (int32_t y = 0; y < b.Height; ++y) {
    for (size_t i = 0; i < row.size(); ++i) row[i] = uint8_t(i * 7 + y * 13 + id);
    ok &= V_PutBitmapRow(&b, row.data(), uint32_t(y), int32_t(row.size())) == int32_t(row.size());
  }
  if (bits == 24) ok &= V_ColorResBitmap(&b, &b, 8, RESOLVE_OPTIMISED, nullptr, nullptr, 256, nullptr, 0) == RESULT_OK;
  V_FreeBitmap(&b);
  return ok;
}

TEST(Threads, SixThreadsWorkSideBySide) {
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int id = 0; id < 6; ++id)
    threads.emplace_back([id, &failures] {
      for (int round = 0; round < 8; ++round)
        if (!one_round(id, round)) ++failures;
    });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
