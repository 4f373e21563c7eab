// utility.cpp - small runtime services: token splitting, integer square
// root, the bit-count table and the version record.
#include <stdio.h>
#include <string.h>

#include "core.h"
#include "version.h"

namespace vk {
namespace {

// Entry b is the number of 1 bits in b.
constexpr auto make_bit_count_table() {
  struct Table {
    uint8_t v[256];
  } t{};
  for (int b = 0; b < 256; ++b) {
    int n = 0;
    for (int x = b; x; x >>= 1) n += x & 1;
    t.v[b] = static_cast<uint8_t>(n);
  }
  return t;
}
constexpr auto kBitCount = make_bit_count_table();

// The splitter's position is kept per thread between calls (a null text is
// refused before it is consulted, so it only matters within one call).
thread_local char* t_strtok_next = nullptr;

void copy_text(char* dst, size_t capacity, const char* src) {
  memset(dst, 0, capacity);
  const size_t n = strlen(src);
  memcpy(dst, src, n < capacity - 1 ? n : capacity - 1);
}

}  // namespace
}  // namespace vk

extern "C" {

VK_API char* VK_CALL V_Strtok(char* text, const char* delimiters) {
  return vk::api_call(
      [&]() -> char* {
        if (!text || !delimiters) return nullptr;
        return strtok_r(text, delimiters, &vk::t_strtok_next);
      },
      static_cast<char*>(nullptr));
}

// Newton's iteration in integers, in exactly this form: x starts at n / 2;
// each step takes q = n / x and d = |x - q| / 2 and moves x to min(x, q) + d,
// until d is 0.
VK_API uint32_t VK_CALL V_SQRT(uint32_t value) {
  if (value == 0) return 0;
  if (value < 4) return 1;
  uint32_t x = value / 2;
  for (;;) {
    const uint32_t q = value / x;
    const uint32_t d = (x > q ? x - q : q - x) / 2;
    x = (x < q ? x : q) + d;
    if (d == 0) return x;
  }
}

VK_API const uint8_t* VK_CALL V_Get1BitOnTable(void) { return vk::kBitCount.v; }

VK_API int32_t VK_CALL V_VersionInfo(VersionInfo* record) {
  return vk::api_call([&]() -> int32_t {
    if (!record) return RESULT_BAD_PARAMETER;
    memset(record, 0, sizeof *record);
    vk::copy_text(record->Banner, sizeof record->Banner, "VKKRN13N raster imaging kernel, POSIX");
    record->Level = VK_VERSION_LEVEL;
    record->MajorVersion = VK_VERSION_MAJOR;
    record->MinorVersion = VK_VERSION_MINOR;
    vk::copy_text(record->BuildDate, sizeof record->BuildDate, __DATE__);
    vk::copy_text(record->BuildTime, sizeof record->BuildTime, __TIME__);
    return RESULT_OK;
  });
}

}  // extern "C"
