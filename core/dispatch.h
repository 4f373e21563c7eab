// dispatch.h - the display dispatch table (20 optional hooks installed by the
// display module) and the file dispatch word.  The table lives here because
// every layer may call a hook; the host glue (host/) exports the calls that
// install and read it.
#pragma once

#include <cstdint>

#include "vkkrn.h"

namespace vk::dispatch {

// Entry n (1 to 20) of the display dispatch table, or null when the entry is
// not set or n is out of range.  Callers cast it to the entry's hook type
// (VK_REGIONHOOK for 2, VK_SCALEREGIONHOOK for 6, VK_ROTATEREGIONHOOK for 13,
// VK_PIXELPOSHOOK for 17) and skip the call when it is null.
VK_DISPATCHPROC entry(int n);

// Installs all 20 entries and marks the table initialised.
void install(VK_DISPATCHPROC const* table);
// Copies all 20 entries out; false (nothing written) when entry 1 is unset.
bool read(VK_DISPATCHPROC* out);

// The reset done on the first process attach: clears the table unless a
// table was already installed, and marks it initialised either way.
void reset_on_attach();

// The file module's own pointer; 0 when unset.
void set_file_word(uintptr_t value);
uintptr_t file_word();

}  // namespace vk::dispatch
