// overrides.cpp - the memory status and screen description, or what a test
// installed in their place.
#include <mutex>

#include "backend.h"

namespace vk::plat {
namespace {
std::mutex g_mutex;
bool g_status_overridden = false, g_screen_overridden = false;
MemoryStatus g_status{};
ScreenInfo g_screen{};
}  // namespace

MemoryStatus memory_status() {
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_status_overridden) return g_status;
  }
  return backend::memory_status();
}

ScreenInfo screen_info() {
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_screen_overridden) return g_screen;
  }
  return backend::screen_info();
}

void override_memory_status(const MemoryStatus* status) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_status_overridden = status != nullptr;
  if (status) g_status = *status;
}

void override_screen_info(const ScreenInfo* info) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_screen_overridden = info != nullptr;
  if (info) g_screen = *info;
}

}  // namespace vk::plat
