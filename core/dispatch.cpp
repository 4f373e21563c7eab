// dispatch.cpp - the display dispatch table and the file dispatch word.  Both
// are process-wide and unlocked: modules install them once at their
// start-up, before image operations run.
#include "dispatch.h"

#include <atomic>

namespace vk::dispatch {
namespace {

std::atomic<VK_DISPATCHPROC> g_table[VK_DISPATCH_ENTRIES];
std::atomic<bool> g_initialised{false};
std::atomic<uintptr_t> g_file_word{0};

}  // namespace

VK_DISPATCHPROC entry(int n) {
  if (n < 1 || n > VK_DISPATCH_ENTRIES) return nullptr;
  return g_table[n - 1].load(std::memory_order_acquire);
}

void install(VK_DISPATCHPROC const* table) {
  for (int i = 0; i < VK_DISPATCH_ENTRIES; ++i) g_table[i].store(table[i]);
  g_initialised.store(true);
}

bool read(VK_DISPATCHPROC* out) {
  if (!g_table[0].load()) return false;
  for (int i = 0; i < VK_DISPATCH_ENTRIES; ++i) out[i] = g_table[i].load();
  return true;
}

void reset_on_attach() {
  // Once a table has been installed (or the first reset has run) nothing is
  // cleared: a display module's table survives later resets.
  if (!g_initialised.load()) {
    for (auto& e : g_table) e.store(nullptr);
  }
  g_initialised.store(true);
}

void set_file_word(uintptr_t value) { g_file_word.store(value); }
uintptr_t file_word() { return g_file_word.load(); }

}  // namespace vk::dispatch
