// cpu.cpp - which vector kernels may run on this processor.
#include <cstdlib>
#include <cstring>

#include "platform.h"

namespace vk::plat {

Simd simd_level() {
  static const Simd level = [] {
    const char* force = std::getenv("VK_FORCE_GENERIC");
    if (force && std::strcmp(force, "0") != 0 && *force) return Simd::generic;
#if defined(__GNUC__) && defined(__x86_64__)
    if (__builtin_cpu_supports("avx2")) return Simd::avx2;
#endif
#if defined(__SSE2__)
    return Simd::sse2;
#else
    return Simd::generic;
#endif
  }();
  return level;
}

}  // namespace vk::plat
