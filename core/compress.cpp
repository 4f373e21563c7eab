// compress.cpp - the run-length coder of 1-bit rows and the exported record
// calls (V_CompressRow(s), V_ExpandRow(s), mirror and flip of row blocks).
//
// Record (exchange form): uint32 run count N, then N uint16 runs, little
// endian, no padding; 4 + 2N bytes.  A row block is records back to back.
//
// What the exported block calls can and cannot check: they receive bare
// pointers without lengths, so the caller guarantees that a record or block
// really holds the counts it claims (N runs after each count, rowCount
// records in a block) and that output areas are large enough:
//   * V_CompressRow: 4 + 2 * (pixelCount + (startColumn & 7) + 2) bytes at
//     most (a row never has more runs than pixels + 1, splits included);
//   * V_CompressRows: rowCount times 4 + 2 * (width + 2);
//   * V_ExpandRow: (pixelCount + 7) / 8 bytes, V_ExpandRows: rowCount rows
//     of the packed stride;
//   * V_MirrorCompressedBuffer: the source block's length + 2 per row;
//   * V_FlipCompressedBuffer: the source block's length.
// Within that contract the expander never writes more than the asked
// pixels ((pixelCount + 7) / 8 bytes per row, whatever the runs claim) and
// reads no run past the record's count; the block walkers read exactly the
// records' counted runs.  Source and destination blocks must not overlap.

#include <array>
#include <cstring>

#include "compressed.h"
#include "core.h"
#include "runs.h"

namespace vk::cmp {
namespace {

// Runs of one byte read most significant bit first: 0x0F -> {4, 4},
// 0xF0 -> {4, 4} (first run of 1-bits), 0x00 -> {8}.
struct ByteRuns {
  uint8_t count;
  uint8_t len[8];
};

constexpr std::array<ByteRuns, 256> make_byte_runs() {
  std::array<ByteRuns, 256> t{};
  for (unsigned v = 0; v < 256; ++v) {
    ByteRuns r{};
    unsigned prev = (v >> 7) & 1u;
    uint8_t len = 0;
    for (int bit = 7; bit >= 0; --bit) {
      const unsigned b = (v >> bit) & 1u;
      if (b != prev) {
        r.len[r.count++] = len;
        len = 0;
        prev = b;
      }
      ++len;
    }
    r.len[r.count++] = len;
    t[v] = r;
  }
  return t;
}

constexpr std::array<ByteRuns, 256> kByteRuns = make_byte_runs();
static_assert(kByteRuns[0x0F].count == 2 && kByteRuns[0x0F].len[0] == 4 && kByteRuns[0x0F].len[1] == 4);
static_assert(kByteRuns[0x00].count == 1 && kByteRuns[0x00].len[0] == 8);
static_assert(kByteRuns[0x55].count == 8);

// End of a stretch of bytes equal to v (v is 0x00 or 0xFF) starting at i.
size_t same_run_end(const uint8_t* src, size_t i, size_t end, uint8_t v) {
  const uint64_t pattern = v ? ~uint64_t{0} : 0;
  size_t j = i + 1;
  while (j + 8 <= end) {
    uint64_t w;
    std::memcpy(&w, src + j, 8);
    if (w != pattern) break;
    j += 8;
  }
  while (j < end && src[j] == v) ++j;
  return j;
}

}  // namespace

void RunWriter::start(uint16_t value) {
  n_ = 0;
  colour_ = 1;  // push() flips to 0
  overflow_ = false;
  push(value);
  first_ = true;
}

void RunWriter::resume(size_t n) {
  n_ = n;
  colour_ = static_cast<unsigned>((n - 1) & 1u);
  first_ = false;
}

void RunWriter::whole_byte(uint8_t v) {
  const ByteRuns& r = kByteRuns[v];
  unsigned i = 0;
  if ((v >> 7) == colour_) {
    add(r.len[0]);
    i = 1;
  }
  for (; i < r.count; ++i) push(r.len[i]);  // each push flips the colour
  first_ = false;
}

void RunWriter::partial_byte(uint8_t v, unsigned bits) {
  const ByteRuns& r = kByteRuns[v];
  unsigned c = v >> 7;
  for (unsigned i = 0; i < r.count && bits; ++i, c ^= 1u) {
    const unsigned len = r.len[i] < bits ? r.len[i] : bits;
    bits -= len;
    if (c == colour_)
      add(len);  // only the byte's first run can continue the current run
    else
      push(len);
  }
  first_ = false;
}

// `count` whole bytes of 8 pixels of one colour, with exactly the splits
// the byte-by-byte rule gives: a byte is merged while current + 8 <= 65535.
void RunWriter::same_bytes(unsigned colour, uint64_t count) {
  if (colour != colour_) {
    push(8);
    --count;
  }
  while (count && !overflow_) {
    const uint32_t cur = current();
    const uint64_t room = (kMaxRun - cur) / 8;
    const uint64_t t = count < room ? count : room;
    set_current(cur + static_cast<uint32_t>(8 * t));
    count -= t;
    if (count) {
      push(0);
      push(8);
      --count;
    }
  }
}

void RunWriter::encode(const uint8_t* src, uint64_t bits, unsigned skip) {
  if (bits == 0 || n_ == 0) return;
  const uint64_t whole = bits / 8;
  const unsigned tail = static_cast<unsigned>(bits % 8);
  const uint8_t first_mask = static_cast<uint8_t>(0xFFu >> skip);
  uint64_t i = 0;
  if (whole) {
    whole_byte(static_cast<uint8_t>(src[0] & first_mask));
    i = 1;
  }
  while (i < whole && !overflow_) {
    const uint8_t v = src[i];
    if (v == 0x00 || v == 0xFF) {
      const size_t j = same_run_end(src, i, whole, v);
      same_bytes(v & 1u, j - i);
      i = j;
    } else {
      whole_byte(v);
      ++i;
    }
  }
  if (tail && !overflow_) {
    uint8_t v = src[whole];
    if (whole == 0) v &= first_mask;
    partial_byte(v, tail);
  }
}

void RunWriter::append(unsigned colour, uint64_t len) {
  first_ = false;
  while (len && !overflow_) {
    if (colour == colour_) {
      const uint32_t cur = current();
      const uint32_t room = kMaxRun - cur;
      if (len <= room) {
        set_current(cur + static_cast<uint32_t>(len));
        return;
      }
      set_current(kMaxRun);
      len -= room;
      push(0);
    } else {
      const uint64_t t = len < kMaxRun ? len : kMaxRun;
      push(static_cast<uint32_t>(t));
      len -= t;
    }
  }
}

void set_bits(uint8_t* out, uint64_t from, uint64_t len) {
  if (!len) return;
  const uint64_t last = from + len - 1;
  const size_t b0 = static_cast<size_t>(from >> 3), b1 = static_cast<size_t>(last >> 3);
  const uint8_t m0 = static_cast<uint8_t>(0xFFu >> (from & 7));
  const uint8_t m1 = static_cast<uint8_t>(0xFFu << (7 - (last & 7)));
  if (b0 == b1) {
    out[b0] |= static_cast<uint8_t>(m0 & m1);
    return;
  }
  out[b0] |= m0;
  if (b1 > b0 + 1) std::memset(out + b0 + 1, 0xFF, b1 - b0 - 1);
  out[b1] |= m1;
}

void expand(const void* runs, size_t count, uint64_t start, uint32_t pixels, uint8_t* out) {
  std::memset(out, 0, (static_cast<size_t>(pixels) + 7) / 8);
  if (!runs || pixels == 0) return;
  const uint8_t* p = static_cast<const uint8_t*>(runs);
  const uint64_t end = start + pixels;
  uint64_t pos = 0;  // row column where run i begins
  for (size_t i = 0; i < count && pos < end; ++i) {
    const uint64_t run_end = pos + load16(p + 2 * i);
    if ((i & 1u) && run_end > start) {
      const uint64_t from = pos > start ? pos : start;
      const uint64_t to = run_end < end ? run_end : end;
      if (to > from) set_bits(out, from - start, to - from);
    }
    pos = run_end;
  }
}

}  // namespace vk::cmp

using namespace vk::cmp;

extern "C" {

VK_API int32_t VK_CALL V_CompressRow(void* outRecord, uint8_t* packedRow, int32_t startColumn, int32_t pixelCount) {
  return vk::api_call([&]() -> int32_t {
    if (!outRecord || !packedRow || startColumn < 0 || pixelCount < 0) return RESULT_BAD_PARAMETER;
    // The first (startColumn & 7) bits of the first byte are counted as
    // 0-bits against a start value of minus that many: the 16-bit sum
    // cancels exactly, so the runs cover pixelCount pixels from startColumn.
    const unsigned skip = static_cast<unsigned>(startColumn) & 7u;
    uint8_t* rec = static_cast<uint8_t*>(outRecord);
    RunWriter w(rec + 4, SIZE_MAX / 4);
    w.start(static_cast<uint16_t>(0u - skip));
    w.encode(packedRow, uint64_t{skip} + static_cast<uint64_t>(pixelCount), skip);
    store32(rec, static_cast<uint32_t>(w.count()));
    return pixelCount;
  });
}

VK_API int32_t VK_CALL V_CompressRows(void* outBlock, const uint8_t* packedRows, int32_t width, int32_t rowCount) {
  return vk::api_call([&]() -> int32_t {
    if (!outBlock || !packedRows || rowCount < 0) return RESULT_BAD_PARAMETER;
    if (rowCount == 0) return RESULT_OK;
    if (width < 1) return RESULT_BAD_PARAMETER;
    const size_t stride = vk::bytes_per_line(width, 1);
    uint8_t* out = static_cast<uint8_t*>(outBlock);
    for (int32_t r = 0; r < rowCount; ++r) {
      RunWriter w(out + 4, SIZE_MAX / 4);
      w.start(0);
      w.encode(packedRows + static_cast<size_t>(r) * stride, static_cast<uint64_t>(width));
      store32(out, static_cast<uint32_t>(w.count()));
      out += 4 + 2 * w.count();
    }
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_ExpandRow(const void* record, uint8_t* packedOut, int32_t startColumn, int32_t pixelCount) {
  return vk::api_call([&]() -> int32_t {
    if (!record || !packedOut || startColumn < 0 || pixelCount < 0) return RESULT_BAD_PARAMETER;
    const uint8_t* rec = static_cast<const uint8_t*>(record);
    expand(rec + 4, load32(rec), static_cast<uint64_t>(startColumn), static_cast<uint32_t>(pixelCount), packedOut);
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_ExpandRows(const void* block, uint8_t* packedOut, int32_t width, int32_t rowCount) {
  return vk::api_call([&]() -> int32_t {
    if (!block || !packedOut || rowCount < 0) return RESULT_BAD_PARAMETER;
    if (rowCount == 0) return RESULT_OK;
    if (width < 1) return RESULT_BAD_PARAMETER;
    const size_t stride = vk::bytes_per_line(width, 1);
    const uint8_t* rec = static_cast<const uint8_t*>(block);
    for (int32_t r = 0; r < rowCount; ++r) {
      const uint32_t n = load32(rec);
      expand(rec + 4, n, 0, static_cast<uint32_t>(width), packedOut + static_cast<size_t>(r) * stride);
      rec += 4 + 2 * static_cast<size_t>(n);
    }
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_MirrorCompressedBuffer(const void* srcBlock, void* dstBlock, int32_t rowCount) {
  return vk::api_call([&]() -> int32_t {
    if (!srcBlock || !dstBlock || rowCount < 0) return RESULT_BAD_PARAMETER;
    const uint8_t* src = static_cast<const uint8_t*>(srcBlock);
    uint8_t* dst = static_cast<uint8_t*>(dstBlock);
    for (int32_t r = 0; r < rowCount; ++r) {
      const uint32_t n = load32(src);
      const uint8_t* runs = src + 4;
      // A leading zero-length 0-run is dropped; with an even count the last
      // run is a 1-run, which becomes the first, so a zero-length 0-run
      // goes in front.
      const uint32_t first = (n > 0 && load16(runs) == 0) ? 1u : 0u;
      const uint32_t reversed = n - first;
      const bool lead = (n & 1u) == 0 && n > 0;
      uint8_t* out = dst + 4;
      if (lead) {
        store16(out, 0);
        out += 2;
      }
      for (uint32_t i = n; i > first; --i) {
        store16(out, load16(runs + 2 * (static_cast<size_t>(i) - 1)));
        out += 2;
      }
      store32(dst, reversed + (lead ? 1u : 0u));
      dst = out;
      src = runs + 2 * static_cast<size_t>(n);
    }
    return RESULT_OK;
  });
}

VK_API int32_t VK_CALL V_FlipCompressedBuffer(const void* srcBlock, void* dstBlock, int32_t rowCount) {
  return vk::api_call([&]() -> int32_t {
    if (!srcBlock || !dstBlock || rowCount < 0) return RESULT_BAD_PARAMETER;
    const uint8_t* src = static_cast<const uint8_t*>(srcBlock);
    uint8_t* dst = static_cast<uint8_t*>(dstBlock);
    size_t total = 0;
    for (int32_t r = 0; r < rowCount; ++r) total += 4 + 2 * static_cast<size_t>(load32(src + total));
    size_t at = 0;
    for (int32_t r = 0; r < rowCount; ++r) {
      const size_t len = 4 + 2 * static_cast<size_t>(load32(src + at));
      std::memcpy(dst + (total - at - len), src + at, len);
      at += len;
    }
    return RESULT_OK;
  });
}

}  // extern "C"
