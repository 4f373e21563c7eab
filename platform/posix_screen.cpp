// posix_screen.cpp - what the library asks about the screen.  A headless
// POSIX system has no display device to ask, so it describes a common one:
// a true-colour (not palette-based) 1920 x 1080 screen of 508 x 286 mm,
// which is 96 dots per inch.  Tests install their own description.
#include "backend.h"

namespace vk::plat {

ScreenInfo backend::screen_info() {
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

}  // namespace vk::plat
