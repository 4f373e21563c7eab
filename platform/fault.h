// fault.h - allocation accounting and fault injection.
//
// Every allocation point of the library (V_Malloc family, V_Os family,
// platform sections, views, global blocks, files, temp names, palettes) calls
// fault::hit() first.  A test arms the switch to fail the n-th such point
// (transiently: only that one; persistently: that one and every later one)
// and then checks that the operation freed what it made and left the
// caller's record unchanged.  live() counts outstanding V_Malloc and V_Os
// blocks, sections and open files, so a test can compare it with a baseline.
#pragma once

#include <cstdint>

namespace vk::fault {

enum class Kind : int { heap, os_block, section, view, global, file, temp_name, palette };

// Arm: the n-th allocation point from now fails (n >= 1).  n = 0 disarms.
void arm(long n, bool persistent = false);
void disarm();
// True when the current point must fail.  Called by every allocation point.
bool hit(Kind kind);
// Points passed since the last arm() (whether they failed or not).
long passed();
// True if any point failed since the last arm().
bool fired();

// Outstanding resources, by kind, for leak checks.
void count_live(Kind kind, int delta);
long live(Kind kind);
long live_total();

}  // namespace vk::fault
