// posix_screen.cpp - what the library asks about the screen.  A headless
// POSIX system has no display device to ask, so it describes a common one:
// a true-colour (not palette-based) 1920 x 1080 screen of 508 x 286 mm,
// which is 96 dots per inch.  Tests install their own description.
#include <atomic>
#include <mutex>

#include "platform.h"

namespace vk::plat {
namespace {
std::mutex g_screen_mutex;
bool g_overridden = false;
ScreenInfo g_override{};
}  // namespace

ScreenInfo screen_info() {
  {
    std::lock_guard<std::mutex> lock(g_screen_mutex);
    if (g_overridden) return g_override;
  }
  ScreenInfo s{};
  s.palette_device = false;
  s.palette_size = 0;
  s.reserved_colours = 0;
  s.horz_res = 1920;
  s.vert_res = 1080;
  s.horz_size = 508;
  s.vert_size = 286;
  return s;
}

void override_screen_info(const ScreenInfo* info) {
  std::lock_guard<std::mutex> lock(g_screen_mutex);
  g_overridden = info != nullptr;
  if (info) g_override = *info;
}

}  // namespace vk::plat
