// host.h - internal access to the host glue's dispatch tables.
#pragma once

#include "vkkrn.h"

namespace vk::host {

// Entry n (1 to 20) of the display dispatch table, or null when the entry is
// not set or n is out of range.  Callers cast it to the entry's hook type
// (VK_REGIONHOOK for 2, VK_SCALEREGIONHOOK for 6, VK_ROTATEREGIONHOOK for 13,
// VK_PIXELPOSHOOK for 17) and skip the call when it is null.
VK_DISPATCHPROC dispatch_entry(int n);

// The reset done on the first process attach: clears the table unless a
// table was already installed, and marks it initialised either way.
void reset_on_attach();

}  // namespace vk::host
