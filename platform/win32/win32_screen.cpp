// win32_screen.cpp - what the library asks about the screen, from the
// screen's device context.
#include <windows.h>

#include "backend.h"

namespace vk::plat {

ScreenInfo backend::screen_info() {
  ScreenInfo s{};
  HDC dc = GetDC(nullptr);
  if (!dc) return s;
  s.palette_device = (GetDeviceCaps(dc, RASTERCAPS) & RC_PALETTE) != 0;
  s.horz_res = GetDeviceCaps(dc, HORZRES);
  s.vert_res = GetDeviceCaps(dc, VERTRES);
  s.horz_size = GetDeviceCaps(dc, HORZSIZE);
  s.vert_size = GetDeviceCaps(dc, VERTSIZE);
  if (s.palette_device) {
    const int size = GetDeviceCaps(dc, SIZEPALETTE);
    s.palette_size = size > 0 ? (size > 256 ? 256u : static_cast<uint32_t>(size)) : 0u;
    s.reserved_colours = static_cast<uint32_t>(GetDeviceCaps(dc, NUMRESERVED));
    PALETTEENTRY system[256];
    const UINT n = GetSystemPaletteEntries(dc, 0, s.palette_size, system);
    for (UINT i = 0; i < n; ++i)
      s.system_palette[i] = RGBQUAD{system[i].peBlue, system[i].peGreen, system[i].peRed, 0};
  }
  ReleaseDC(nullptr, dc);
  return s;
}

}  // namespace vk::plat
