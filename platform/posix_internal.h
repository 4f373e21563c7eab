// posix_internal.h - helpers shared by the POSIX backend files.
#pragma once

#include "vkkrn.h"

namespace vk::plat::posix {

// File handles are (fd + 1) * 4: multiples of 4 like the original platform's
// handles, so they never collide with 0, -1 or the redirection pseudo handle 5.
inline VK_FILE file_from_fd(int fd) { return static_cast<VK_FILE>((static_cast<intptr_t>(fd) + 1) * 4); }
inline int fd_from_file(VK_FILE f) {
  if (f <= 0 || (f & 3) != 0) return -1;
  return static_cast<int>(f / 4 - 1);
}

}  // namespace vk::plat::posix
