// Row conversion with fuzzed arguments: every depth and order pair, palettes,
// bit ranges and flags, on buffers sized by V_CalcConvertSize.  Whatever the
// arguments, the call returns a code and touches only the buffer it is given
// (the sanitizers watch the reads and writes).
#include <cstdint>
#include <cstring>
#include <vector>

#include "vkkrn.h"

namespace {
constexpr int32_t kDepths[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 24, 32, 48, 64, 9, -1};
constexpr int32_t kOrders[] = {ORDER_RGB, ORDER_BGR, ORDER_GRAY, ORDER_BGR_ALT, 3};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 12) return 0;
  const int32_t width = 1 + (data[0] | (data[1] & 3) << 8);  // 1..1024
  const int32_t b1 = kDepths[data[2] % std::size(kDepths)];
  const int32_t b2 = kDepths[data[3] % std::size(kDepths)];
  const int32_t o1 = kOrders[data[4] % std::size(kOrders)];
  const int32_t o2 = kOrders[data[5] % std::size(kOrders)];
  const uint32_t flags = data[6] | (uint32_t(data[7]) << 8);
  const int32_t low = int8_t(data[8]), high = int8_t(data[9]);
  const bool src_pal = data[10] & 1, dst_pal = data[10] & 2;
  data += 12;
  size -= 12;

  const uint32_t bytes = V_CalcConvertSize(width, b1 < 0 ? 8 : b1, width, b2 < 0 ? 8 : b2);
  std::vector<uint8_t> buf(bytes ? bytes : 1);
  for (size_t i = 0; i < buf.size() && size; ++i) buf[i] = data[i % size];
  // A source palette may be a 12-bit gray lookup table: 4096 entries.
  std::vector<RGBQUAD> spal(4096), dpal(256);
  auto byte = [&](size_t i) -> uint8_t { return size ? data[i % size] : uint8_t(i); };
  for (size_t i = 0; i < spal.size(); ++i) spal[i] = RGBQUAD{byte(4 * i), byte(4 * i + 1), byte(4 * i + 2), 0};
  for (size_t i = 0; i < dpal.size(); ++i) dpal[i] = RGBQUAD{byte(3 * i), byte(3 * i + 1), byte(3 * i + 2), 0};
  V_ConvertBufferExt(buf.data(), width, b1, b2, o1, o2, src_pal ? spal.data() : nullptr, dst_pal ? dpal.data() : nullptr,
                     flags, low, high);
  return 0;
}
