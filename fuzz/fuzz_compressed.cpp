// Compressed 1-bit rows: a fuzzed record expands exactly as a plain
// reference expander says (runs alternate from 0-bits, pixels past the runs
// are 0), and any packed row survives compression and expansion unchanged.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "vkkrn.h"

namespace {

std::vector<uint8_t> reference_expand(const uint8_t* runs, uint32_t count, uint32_t start, uint32_t pixels) {
  std::vector<uint8_t> out((pixels + 7) / 8, 0);
  uint64_t pos = 0;
  for (uint32_t i = 0; i < count; ++i) {
    const uint64_t len = runs[2 * i] | (runs[2 * i + 1] << 8);
    for (uint64_t x = pos; x < pos + len; ++x)
      if ((i & 1) && x >= start && x < uint64_t(start) + pixels) out[(x - start) / 8] |= uint8_t(0x80u >> ((x - start) % 8));
    pos += len;
    if (pos >= uint64_t(start) + pixels) break;
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  const uint32_t start = data[0] % 64;
  const uint32_t pixels = 1 + (data[1] | (data[2] & 7) << 8);  // 1..2048
  const bool round_trip = data[3] & 1;
  data += 4;
  size -= 4;

  if (round_trip) {
    // Packed row from the data; compress from `start`, expand back.
    const uint32_t bytes = (start + pixels + 7) / 8;
    std::vector<uint8_t> row(bytes);
    for (uint32_t i = 0; i < bytes && size; ++i) row[i] = data[i % size];
    std::vector<uint8_t> rec(4 + 2 * (pixels + (start & 7) + 2));
    if (V_CompressRow(rec.data(), row.data() + start / 8, int32_t(start), int32_t(pixels)) != int32_t(pixels)) abort();
    std::vector<uint8_t> back((pixels + 7) / 8);
    // The record's runs begin at the start column.
    if (V_ExpandRow(rec.data(), back.data(), 0, int32_t(pixels)) != RESULT_OK) abort();
    for (uint32_t x = 0; x < pixels; ++x) {
      const uint32_t sx = (start & 7) + x;
      const int a = (row[start / 8 + sx / 8] >> (7 - sx % 8)) & 1;
      const int b = (back[x / 8] >> (7 - x % 8)) & 1;
      if (a != b) abort();
    }
    return 0;
  }

  // A record made of the data: its count is what the data really holds.
  const uint32_t count = uint32_t(size / 2);
  std::vector<uint8_t> rec(4 + 2 * size_t(count) + 1);
  std::memcpy(rec.data(), &count, 4);
  if (count) std::memcpy(rec.data() + 4, data, 2 * size_t(count));
  std::vector<uint8_t> got((pixels + 7) / 8);
  if (V_ExpandRow(rec.data(), got.data(), int32_t(start), int32_t(pixels)) != RESULT_OK) abort();
  if (got != reference_expand(rec.data() + 4, count, start, pixels)) abort();
  return 0;
}
