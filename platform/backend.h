// backend.h - what each operating-system backend answers itself; the shared
// part of the layer (overrides.cpp) puts the tests' replacements in front.
#pragma once

#include "platform.h"

namespace vk::plat::backend {

MemoryStatus memory_status();
ScreenInfo screen_info();

}  // namespace vk::plat::backend
