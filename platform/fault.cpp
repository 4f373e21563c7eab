// fault.cpp - allocation accounting and fault injection (see fault.h).
#include "fault.h"

#include <atomic>

namespace vk::fault {
namespace {
std::atomic<long> g_target{0};      // 0 = disarmed
std::atomic<long> g_passed{0};
std::atomic<bool> g_persistent{false};
std::atomic<bool> g_fired{false};
constexpr int kKinds = 8;
std::atomic<long> g_live[kKinds];
}  // namespace

void arm(long n, bool persistent) {
  g_passed = 0;
  g_fired = false;
  g_persistent = persistent;
  g_target = n;
}

void disarm() { g_target = 0; }

bool hit(Kind) {
  const long target = g_target.load(std::memory_order_relaxed);
  if (target <= 0) return false;
  const long n = ++g_passed;
  const bool fail = n == target || (g_persistent && n > target);
  if (fail) g_fired = true;
  return fail;
}

long passed() { return g_passed; }
bool fired() { return g_fired; }

void count_live(Kind kind, int delta) { g_live[static_cast<int>(kind)] += delta; }
long live(Kind kind) { return g_live[static_cast<int>(kind)]; }
long live_total() {
  long t = 0;
  for (auto& v : g_live) t += v;
  return t;
}

}  // namespace vk::fault
