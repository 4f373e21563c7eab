// Compressed 1-bit rows: the run-length coder, the record and block calls,
// and compressed storage (row table, row heap, row access).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "compressed.h"
#include "core.h"
#include "fault_sweep.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Runs = std::vector<uint16_t>;

// ---- helpers --------------------------------------------------------------------

uint32_t stride_of(int32_t width) { return ((static_cast<uint32_t>(width) + 31) / 32) * 4; }

int bit(const Bytes& b, uint64_t i) { return (b[i / 8] >> (7 - i % 8)) & 1; }
void put_bit(Bytes& b, uint64_t i, int v) {
  if (v)
    b[i / 8] |= static_cast<uint8_t>(0x80u >> (i % 8));
  else
    b[i / 8] &= static_cast<uint8_t>(~(0x80u >> (i % 8)));
}

Runs record_runs(const uint8_t* rec) {
  uint32_t n;
  std::memcpy(&n, rec, 4);
  Runs r(n);
  if (n) std::memcpy(r.data(), rec + 4, 2 * size_t{n});
  return r;
}
Bytes make_record(const Runs& runs) {
  Bytes rec(4 + 2 * runs.size());
  const uint32_t n = static_cast<uint32_t>(runs.size());
  std::memcpy(rec.data(), &n, 4);
  if (n) std::memcpy(rec.data() + 4, runs.data(), 2 * runs.size());
  return rec;
}

Runs compress(Bytes row, int32_t start, int32_t pixels) {
  Bytes rec(4 + 2 * (static_cast<size_t>(pixels) + 10));
  EXPECT_EQ(V_CompressRow(rec.data(), row.data() + start / 8, start, pixels), pixels);
  return record_runs(rec.data());
}

// The coding rule written out bit by bit: per byte, its runs (most
// significant bit first) continue the current run when the colours match,
// with the split when the sum would pass 65535 (not on the very first byte).
Runs reference_compress(const Bytes& row, uint64_t pixels) {
  Runs out{0};
  int colour = 0;
  bool first = true;
  for (uint64_t at = 0; at < pixels; at += 8) {
    const uint64_t n = std::min<uint64_t>(8, pixels - at);
    std::vector<std::pair<int, int>> runs;  // colour, length
    for (uint64_t i = 0; i < n; ++i) {
      const int c = bit(row, at + i);
      if (runs.empty() || runs.back().first != c)
        runs.push_back({c, 1});
      else
        ++runs.back().second;
    }
    for (size_t i = 0; i < runs.size(); ++i) {
      if (i == 0 && runs[0].first == colour) {
        if (!first && out.back() + runs[0].second > 65535) {
          out.push_back(0);
          out.push_back(static_cast<uint16_t>(runs[0].second));
        } else {
          out.back() = static_cast<uint16_t>(out.back() + runs[0].second);
        }
      } else {
        out.push_back(static_cast<uint16_t>(runs[i].second));
        colour = runs[i].first;
      }
    }
    first = false;
  }
  return out;
}

Bytes expand(const Runs& runs, int32_t start, int32_t pixels) {
  const Bytes rec = make_record(runs);
  Bytes out((static_cast<size_t>(pixels) + 7) / 8 + (pixels == 0));
  EXPECT_EQ(V_ExpandRow(rec.data(), out.data(), start, pixels), RESULT_OK);
  return out;
}

// Clears the padding bits after `width` so rows compare with expanded ones.
void clear_tail(Bytes& row, uint32_t width) {
  for (uint64_t i = width; i < row.size() * 8ull; ++i) put_bit(row, i, 0);
}

// A row image: random bits, or long runs of random length; padding bits clear.
Bytes random_row(std::mt19937& g, uint32_t width, bool long_runs) {
  Bytes row(stride_of(static_cast<int32_t>(width)));
  if (!long_runs) {
    for (auto& v : row) v = static_cast<uint8_t>(g());
    clear_tail(row, width);
  } else {
    int c = g() & 1;
    for (uint32_t i = 0; i < width;) {
      const uint32_t len = 1 + g() % (g() % 4 == 0 ? 90000 : 40);
      for (uint32_t k = 0; k < len && i < width; ++k, ++i) put_bit(row, i, c);
      c ^= 1;
    }
  }
  return row;
}

uint64_t sum(const Runs& r) {
  uint64_t s = 0;
  for (auto v : r) s += v;
  return s;
}

// ---- the coder -----------------------------------------------------------------

TEST(CompressRow, ByteEdgeCases) {
  struct Case {
    Bytes row;
    int32_t start, pixels;
    Runs runs;
  };
  const Case cases[] = {
      {{0x0F}, 0, 8, {4, 4}},
      {{0xF0}, 0, 8, {0, 4, 4}},
      {{0xAA}, 0, 8, {0, 1, 1, 1, 1, 1, 1, 1, 1}},
      {{0xFF}, 0, 3, {0, 3}},               // bits past the count are ignored
      {{0x0F, 0xF0}, 0, 16, {4, 8, 4}},     // runs continue across bytes
      {{0x00}, 0, 0, {0}},
      {{0x04}, 5, 3, {0, 1, 2}},            // pixels 5..7 of the byte: 1 0 0
      {{0xFF, 0x80}, 5, 4, {0, 4}},         // the cleared lead-in bits never show
  };
  for (const auto& c : cases) {
    Bytes row = c.row;
    EXPECT_EQ(compress(row, c.start, c.pixels), c.runs) << "start " << c.start << " pixels " << c.pixels;
    EXPECT_EQ(row, c.row);  // the caller's first byte is left as it was
  }
}

TEST(CompressRow, LongRunsSplitAtTheByteThatWouldPass65535) {
  Bytes zeros(70000 / 8, 0x00), ones(70000 / 8, 0xFF);
  EXPECT_EQ(compress(zeros, 0, 70000), (Runs{65528, 0, 4472}));
  EXPECT_EQ(compress(ones, 0, 70000), (Runs{0, 65528, 0, 4472}));
  // A run that starts 3 bits into a byte reaches 65533 before it splits.
  Bytes shifted(70000 / 8, 0xFF);
  shifted[0] = 0x1F;
  EXPECT_EQ(compress(shifted, 0, 70000), (Runs{3, 65533, 0, 4464}));
  // Exactly 65528 + 8 = 65536 pixels: the last byte goes to a new run.
  Bytes exact(65536 / 8, 0x00);
  EXPECT_EQ(compress(exact, 0, 65536), (Runs{65528, 0, 8}));
  Bytes fits(65528 / 8, 0x00);
  EXPECT_EQ(compress(fits, 0, 65528 + 7 - 7), (Runs{65528}));
}

TEST(CompressRow, MatchesTheByteRuleOnRandomAndLongRunRows) {
  std::mt19937 g(7);
  for (int iter = 0; iter < 60; ++iter) {
    const uint32_t width = 1 + g() % (iter < 30 ? 300 : 300000);
    const Bytes row = random_row(g, width, iter % 2 == 1);
    EXPECT_EQ(compress(row, 0, static_cast<int32_t>(width)), reference_compress(row, width)) << width;
  }
}

// Compressing from a start column and expanding the whole row's runs from
// that column give the same pixels; expansion stops at the pixel count.
TEST(CompressRow, RoundTripsAtEveryStartColumnAndOddWidth) {
  std::mt19937 g(3);
  for (bool long_runs : {false, true}) {
    const Bytes row = random_row(g, 140000, long_runs);
    const Runs whole = compress(row, 0, 140000);
    for (int32_t start = 0; start < 16; ++start) {
      for (int32_t pixels : {0, 1, 7, 9, 63, 131, 1001, 139983}) {
        const Runs runs = compress(row, start, pixels);
        ASSERT_EQ(sum(runs), static_cast<uint64_t>(pixels));
        ASSERT_LE(runs.size(), static_cast<size_t>(pixels) + 1);
        const Bytes out = expand(runs, 0, pixels), from = expand(whole, start * 37, pixels);
        for (int32_t i = 0; i < pixels; ++i) {
          ASSERT_EQ(bit(out, i), bit(row, start + i)) << start << " " << i;
          if (start * 37 + pixels <= 140000) ASSERT_EQ(bit(from, i), bit(row, start * 37 + i)) << start << " " << i;
        }
        if (pixels % 8) EXPECT_EQ(from.back() & (0xFF >> (pixels % 8)), 0);  // tail bits clear
      }
    }
  }
}

TEST(ExpandRow, MalformedRecordsStayInsideTheOutput) {
  // Exact-size heap outputs, so a sanitizer build catches any overrun.
  struct Case {
    Runs runs;
    int32_t start, pixels;
    Bytes expect;
  };
  const Case cases[] = {
      {{0, 60000, 60000, 60000}, 0, 10, {0xFF, 0xC0}},  // claims far more than asked
      {{3, 2}, 0, 16, {0x18, 0x00}},                     // claims fewer: the rest is 0
      {{5, 5}, 40, 9, {0x00, 0x00}},                     // start past every run
      {{0, 65535, 65535}, 65530, 12, {0xF8, 0x00}},
      {{}, 0, 5, {0x00}},
  };
  for (const auto& c : cases) {
    const Bytes rec = make_record(c.runs);
    auto out = std::make_unique<uint8_t[]>(c.expect.size());
    std::memset(out.get(), 0xEE, c.expect.size());
    EXPECT_EQ(V_ExpandRow(rec.data(), out.get(), c.start, c.pixels), RESULT_OK);
    EXPECT_EQ(Bytes(out.get(), out.get() + c.expect.size()), c.expect);
  }
}

TEST(RecordCalls, RejectNullAndNegativeArguments) {
  uint8_t buf[64] = {};
  EXPECT_EQ(V_CompressRow(nullptr, buf, 0, 8), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_CompressRow(buf, buf, 0, -1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_CompressRows(nullptr, buf, 8, 1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_CompressRows(buf, buf, 8, 0), RESULT_OK);
  EXPECT_EQ(V_ExpandRow(buf, nullptr, 0, 8), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_ExpandRows(buf, nullptr, 8, 1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_ExpandRows(buf, buf, 8, 0), RESULT_OK);
  EXPECT_EQ(V_MirrorCompressedBuffer(nullptr, buf, 1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_FlipCompressedBuffer(buf, nullptr, 1), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_MirrorCompressedBuffer(buf, buf + 32, 0), RESULT_OK);
}

TEST(RowBlocks, CompressAndExpandRowsWithThePackedStride) {
  std::mt19937 g(9);
  for (int32_t width : {1, 13, 32, 33, 65535, 65536, 70001}) {
    const int32_t rows = 5;
    const uint32_t stride = stride_of(width);
    Bytes packed(stride * rows);
    for (int r = 0; r < rows; ++r) {
      const Bytes row = random_row(g, width, r % 2 == 0);
      std::copy(row.begin(), row.end(), packed.begin() + r * stride);
    }
    Bytes block(rows * (4 + 2 * (static_cast<size_t>(width) + 2)));
    ASSERT_EQ(V_CompressRows(block.data(), packed.data(), width, rows), RESULT_OK);
    // Records lie back to back and match the single-row coder.
    size_t at = 0;
    for (int r = 0; r < rows; ++r) {
      Bytes row(packed.begin() + r * stride, packed.begin() + (r + 1) * stride);
      const Runs runs = record_runs(block.data() + at);
      EXPECT_EQ(runs, compress(row, 0, width));
      at += 4 + 2 * runs.size();
    }
    Bytes out(stride * rows, 0x5A);
    ASSERT_EQ(V_ExpandRows(block.data(), out.data(), width, rows), RESULT_OK);
    const size_t used = (static_cast<size_t>(width) + 7) / 8;
    for (int r = 0; r < rows; ++r)
      ASSERT_TRUE(std::equal(out.begin() + r * stride, out.begin() + r * stride + used, packed.begin() + r * stride));
  }
}

TEST(RowBlocks, MirrorExamples) {
  struct Case {
    Runs in, out;
  };
  const Case cases[] = {
      {{0, 4, 4}, {4, 4}},
      {{4, 4}, {0, 4, 4}},
      {{8}, {8}},
      {{0, 3}, {0, 3}},
      {{2, 3, 3}, {3, 3, 2}},
      {{}, {}},
  };
  // All the examples as one block, so the walk from record to record is checked too.
  Bytes block;
  for (const auto& c : cases) {
    const Bytes rec = make_record(c.in);
    block.insert(block.end(), rec.begin(), rec.end());
  }
  Bytes dst(block.size() + 2 * std::size(cases), 0xEE);
  ASSERT_EQ(V_MirrorCompressedBuffer(block.data(), dst.data(), static_cast<int32_t>(std::size(cases))), RESULT_OK);
  size_t at = 0;
  for (const auto& c : cases) {
    EXPECT_EQ(record_runs(dst.data() + at), c.out);
    at += 4 + 2 * c.out.size();
  }
}

TEST(RowBlocks, FlipReversesTheRecordOrder) {
  const Bytes a = make_record({8}), b = make_record({0, 1, 2, 3, 2}), c = make_record({3, 5});
  Bytes block;
  for (const Bytes* r : {&a, &b, &c}) block.insert(block.end(), r->begin(), r->end());
  Bytes flipped(block.size());
  ASSERT_EQ(V_FlipCompressedBuffer(block.data(), flipped.data(), 3), RESULT_OK);
  Bytes expect;
  for (const Bytes* r : {&c, &b, &a}) expect.insert(expect.end(), r->begin(), r->end());
  EXPECT_EQ(flipped, expect);
}

// ---- compressed storage -----------------------------------------------------------

// Layout of the row table and heap as documented in compressed_storage.cpp,
// for the structural checks below.
struct TableHeader {
  uint8_t* work;
  uint8_t* blank;
  uintptr_t work_size;
  uint8_t* heap;
};
struct Block {
  uint32_t prev, next, in_use, free_prev, free_next, data_size;
};

// A compressed 1-bit record built directly on the storage functions.
struct Compressed {
  BitmapHandle b{};
  Compressed(int32_t width, int32_t height) {
    b.Width = width;
    b.Height = height;
    b.BitsPerPixel = 1;
    b.BytesPerLine = stride_of(width);
    b.Size = b.BytesPerLine * static_cast<uint32_t>(height);
    EXPECT_EQ(vk::cmp::allocate(&b), RESULT_OK);
    b.Flags = BITMAP_ALLOCATED | BITMAP_IN_MEMORY | BITMAP_COMPRESSED;
  }
  ~Compressed() { vk::cmp::free_storage(&b); }
  Bytes row(uint32_t r) {
    Bytes out(b.BytesPerLine, 0xEE);
    EXPECT_EQ(vk::cmp::read(&b, out.data(), r, 0, static_cast<int32_t>(out.size())), static_cast<int32_t>(out.size()));
    return out;
  }
  Runs runs(uint32_t r) {
    Bytes rec(2 * static_cast<size_t>(b.Width) + 6);  // the documented capacity
    const int32_t n = vk::cmp::read_record(&b, r, rec.data(), rec.size());
    EXPECT_GT(n, 0);
    return record_runs(rec.data());
  }
  int32_t put(uint32_t r, const Bytes& data, int32_t column = 0) {
    return vk::cmp::write(&b, data.data(), r, column, static_cast<int32_t>(data.size()));
  }
};

// Walks the heap: blocks tile it exactly, free blocks are never neighbours
// and are exactly those on the free list, every row points at its own
// in-use block that holds its runs, and every row covers Width pixels.
void check_heap(const BitmapHandle& b) {
  const auto* t = static_cast<const TableHeader*>(b.Data);
  const auto* rows = reinterpret_cast<const uint32_t*>(static_cast<const uint8_t*>(b.Data) + sizeof(TableHeader));
  const uint8_t* h = t->heap;
  if (!h) {
    for (int32_t r = 0; r < b.Height; ++r) ASSERT_EQ(rows[2 * r], 0u);
    return;
  }
  uint32_t size, last, free_head;
  std::memcpy(&size, h, 4);
  std::memcpy(&last, h + 4, 4);
  std::memcpy(&free_head, h + 8, 4);
  ASSERT_EQ(size % 4, 0u);
  std::vector<uint32_t> free_blocks, used;
  uint32_t off = 12, prev = 0;
  bool prev_free = false;
  for (;;) {
    Block k;
    std::memcpy(&k, h + off, sizeof k);
    ASSERT_EQ(k.prev, prev);
    ASSERT_EQ(off % 4, 0u);
    if (!k.in_use) {
      ASSERT_FALSE(prev_free) << "neighbouring free blocks at " << off;
      free_blocks.push_back(off);
    } else {
      used.push_back(off);
    }
    prev_free = !k.in_use;
    ASSERT_LE(uint64_t{off} + 24 + k.data_size, size);
    if (!k.next) {
      ASSERT_EQ(off, last);
      ASSERT_EQ(off + 24 + k.data_size, size);
      break;
    }
    ASSERT_EQ(k.next, off + 24 + k.data_size);
    prev = off;
    off = k.next;
  }
  std::vector<uint32_t> listed;
  uint32_t fprev = 0;
  for (uint32_t f = free_head; f; ) {
    Block k;
    std::memcpy(&k, h + f, sizeof k);
    ASSERT_EQ(k.free_prev, fprev);
    ASSERT_EQ(k.in_use, 0u);
    listed.push_back(f);
    ASSERT_LE(listed.size(), free_blocks.size());
    fprev = f;
    f = k.free_next;
  }
  std::sort(listed.begin(), listed.end());
  ASSERT_EQ(listed, free_blocks);
  std::vector<uint32_t> owners;
  for (int32_t r = 0; r < b.Height; ++r) {
    const uint32_t o = rows[2 * r], n = rows[2 * r + 1];
    if (!o) continue;
    Block k;
    std::memcpy(&k, h + o, sizeof k);
    ASSERT_EQ(k.in_use, 1u);
    ASSERT_GE(k.data_size, 2 * n);
    Runs runs(n);
    std::memcpy(runs.data(), h + o + 24, 2 * size_t{n});
    ASSERT_EQ(sum(runs), static_cast<uint64_t>(b.Width)) << "row " << r;
    owners.push_back(o);
  }
  std::sort(owners.begin(), owners.end());
  ASSERT_EQ(owners, used);  // one row per in-use block, none lost
}

TEST(CompressedStorage, RowsReadBackAsWrittenAtManyWidths) {
  std::mt19937 g(1);
  for (int32_t width : {1, 7, 13, 64, 100, 65535, 65536, 70001, 140000}) {
    const int32_t height = 6;
    Compressed c(width, height);
    std::vector<Bytes> image;
    for (int r = 0; r < height; ++r) {
      image.push_back(random_row(g, width, r % 2 == 1));
      ASSERT_EQ(c.put(r, image.back()), static_cast<int32_t>(image.back().size()));
    }
    ASSERT_NO_FATAL_FAILURE(check_heap(c.b));
    EXPECT_EQ(c.b.Size, vk::cmp::heap_size(&c.b));
    for (int r = 0; r < height; ++r) {
      EXPECT_EQ(c.row(r), image[r]) << "width " << width << " row " << r;
      // Stored runs are exactly the coder's runs of the row.
      EXPECT_EQ(c.runs(r), compress(image[r], 0, width));
      uint8_t px = 0xEE;
      const int32_t col = static_cast<int32_t>(g() % width);
      ASSERT_EQ(vk::cmp::pixel_byte(&c.b, &px, r, col), RESULT_OK);
      EXPECT_EQ(px, image[r][col / 8]);
    }
  }
}

TEST(CompressedStorage, PartialWritesReplaceOnlyTheirBytes) {
  std::mt19937 g(4);
  for (int32_t width : {50, 300, 70001}) {
    const int32_t height = 4;
    Compressed c(width, height);
    const uint32_t stride = c.b.BytesPerLine;
    Bytes model(stride * height, 0);
    for (int iter = 0; iter < 150; ++iter) {
      const uint32_t row = g() % height;
      const int32_t column = static_cast<int32_t>(g() % width);
      const uint32_t from = row * stride + column / 8;
      const uint32_t room = stride * height - from;
      const uint32_t count = 1 + g() % std::min<uint32_t>(room, iter % 3 ? 6 : 2 * stride);
      Bytes data = iter % 5 ? random_row(g, count * 8, iter % 2) : Bytes(count, iter % 2 ? 0xFF : 0);
      data.resize(count);
      ASSERT_EQ(c.put(row, data, column), static_cast<int32_t>(count));
      std::copy(data.begin(), data.end(), model.begin() + from);
      for (int r = 0; r < height; ++r) {
        Bytes m(model.begin() + r * stride, model.begin() + (r + 1) * stride);
        clear_tail(m, width);
        std::copy(m.begin(), m.end(), model.begin() + r * stride);
      }
      ASSERT_NO_FATAL_FAILURE(check_heap(c.b));
    }
    for (int r = 0; r < height; ++r)
      EXPECT_EQ(c.row(r), Bytes(model.begin() + r * stride, model.begin() + (r + 1) * stride)) << width << " " << r;
    // A read from a column starts at the byte holding it and runs on into the following rows.
    Bytes tail(2 * stride + 3, 0xEE);
    ASSERT_EQ(vk::cmp::read(&c.b, tail.data(), 1, 19, int32_t(tail.size())), int32_t(tail.size()));
    EXPECT_TRUE(std::equal(tail.begin(), tail.end(), model.begin() + stride + 2)) << width;
  }
}

TEST(CompressedStorage, EmptyRowsReadAsZeroAndBadArgumentsAreRefused) {
  for (int32_t width : {20, 65535, 131070, 200000}) {
    Compressed c(width, 3);
    EXPECT_EQ(c.row(1), Bytes(c.b.BytesPerLine, 0));
    uint8_t px = 0xEE;
    EXPECT_EQ(vk::cmp::pixel_byte(&c.b, &px, 0, width - 1), RESULT_OK);
    EXPECT_EQ(px, 0);
    const Runs runs = c.runs(0);
    EXPECT_EQ(sum(runs), static_cast<uint64_t>(width));
    for (size_t i = 1; i < runs.size(); i += 2) EXPECT_EQ(runs[i], 0);
    if (width <= 65535) EXPECT_EQ(runs, Runs{static_cast<uint16_t>(width)});
    EXPECT_EQ(vk::cmp::heap_size(&c.b), 0u);
    EXPECT_EQ(vk::cmp::stored_size(&c.b), 0u);
    // Refusals: a byte that starts past Width, no data, a row past the last, a record buffer too small.
    Bytes buf(8), small(5);
    EXPECT_EQ(c.put(0, buf, (width + 7) / 8 * 8), RESULT_BAD_PARAMETER);
    EXPECT_EQ(vk::cmp::write(&c.b, nullptr, 0, 0, 1), RESULT_BAD_PARAMETER);
    EXPECT_EQ(vk::cmp::read(&c.b, buf.data(), 3, 0, 1), RESULT_BAD_PARAMETER);
    EXPECT_EQ(vk::cmp::read_record(&c.b, 0, small.data(), small.size()), RESULT_BAD_PARAMETER);
  }
}

TEST(CompressedStorage, RecordsWithBadCountsAreFittedToTheRow) {
  Compressed c(40, 3);
  Runs many(200, 0);  // zero-length runs, then 8 of 0-bits and 8 of 1-bits
  many.push_back(8);
  many.push_back(8);
  struct Case {
    Runs in;
    Bytes pixels;  // the row as read back (5 bytes)
  };
  const Case cases[] = {
      {{8, 8, 60000, 60000}, {0x00, 0xFF, 0x00, 0x00, 0x00}},  // runs past Width are cut
      {{0, 4}, {0xF0, 0x00, 0x00, 0x00, 0x00}},                // short rows are padded with 0
      {many, {0x00, 0xFF, 0x00, 0x00, 0x00}},                  // more runs than the row can need
      {{}, {0x00, 0x00, 0x00, 0x00, 0x00}},
      {{4, 0, 4, 8}, {0x00, 0xFF, 0x00, 0x00, 0x00}},           // a zero-length run inside
      {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, {0x80, 0x00, 0x00, 0x00, 0x00}},
  };
  for (const auto& k : cases) {
    const Bytes rec = make_record(k.in);
    ASSERT_EQ(vk::cmp::write_record(&c.b, 1, rec.data()), RESULT_OK);
    Bytes row = c.row(1);
    row.resize(5);
    EXPECT_EQ(row, k.pixels);
    const Runs stored = c.runs(1);
    EXPECT_EQ(sum(stored), 40u);
    for (size_t i = 1; i < stored.size(); ++i) EXPECT_NE(stored[i], 0);  // no stray zero-length runs
    ASSERT_NO_FATAL_FAILURE(check_heap(c.b));
  }
  // A well-formed record is kept run for run.
  const Runs runs{0, 3, 37};
  const Bytes rec = make_record(runs);
  ASSERT_EQ(vk::cmp::write_record(&c.b, 2, rec.data()), RESULT_OK);
  EXPECT_EQ(c.runs(2), runs);
}

// ---- the row heap --------------------------------------------------------------

TEST(RowHeap, RewritingWithFewerRunsReusesTheHeapAndTrimGivesTheTailBack) {
  std::mt19937 g(8);
  const int32_t width = 4000, height = 200;
  Compressed c(width, height);
  for (int r = 0; r < height; ++r) ASSERT_GT(c.put(r, random_row(g, width, false)), 0);
  const uint32_t full = c.b.Size;
  EXPECT_EQ(full % 262144, 0u);
  // Rows with fewer runs, then the noisy rows again: never more heap.
  for (int pass = 0; pass < 3; ++pass)
    for (int r = 0; r < height; ++r) {
      ASSERT_GT(c.put(r, random_row(g, width, pass != 1)), 0);
      ASSERT_EQ(c.b.Size, full);
    }
  ASSERT_NO_FATAL_FAILURE(check_heap(c.b));
  // All rows short: the free tail can be given back.
  Bytes blank(c.b.BytesPerLine, 0);
  for (int r = 0; r < height; ++r) ASSERT_GT(c.put(r, blank), 0);
  ASSERT_EQ(V_TrimBitmapHeap(&c.b), 1);
  EXPECT_LT(c.b.Size, full);
  EXPECT_EQ(c.b.Size, vk::cmp::heap_size(&c.b));
  ASSERT_NO_FATAL_FAILURE(check_heap(c.b));
  EXPECT_EQ(V_TrimBitmapHeap(&c.b), 0);  // the free tail is now 128 bytes
  for (int r = 0; r < height; ++r) EXPECT_EQ(c.row(r), blank);
  // Writing more after a trim grows again by whole 256 KiB steps from there.
  const Bytes noisy = random_row(g, width, false);
  for (int r = 0; r < height; ++r) ASSERT_GT(c.put(r, noisy), 0);
  ASSERT_NO_FATAL_FAILURE(check_heap(c.b));
  EXPECT_EQ(c.row(height - 1), noisy);
}

TEST(RowHeap, GrowthRoundsTo256KiB) {
  Compressed c(100, 2);
  c.b.Size = 12345;
  EXPECT_EQ(V_GrowBitmapHeap(&c.b, 1), 1);
  EXPECT_EQ(c.b.Size, 262144u);
  ASSERT_NO_FATAL_FAILURE(check_heap(c.b));
  // The last block is free (262144 - 36 bytes): wanted 262144 - 262108 + 262144.
  EXPECT_EQ(V_GrowBitmapHeap(&c.b, 262144), 1);
  EXPECT_EQ(c.b.Size, 524288u);
  ASSERT_NO_FATAL_FAILURE(check_heap(c.b));
  EXPECT_EQ(V_TrimBitmapHeap(&c.b), 1);
  EXPECT_EQ(c.b.Size, 12u + 24 + 128);
  // A row of 63 runs fills the 128-byte tail block exactly, so the last
  // block is in use: wanted = size + bytes + 24.
  Bytes row(c.b.BytesPerLine, 0);
  for (int i = 0; i < 63; ++i) put_bit(row, i, i & 1);
  ASSERT_GT(c.put(0, row), 0);
  EXPECT_EQ(c.b.Size, 164u);
  ASSERT_NO_FATAL_FAILURE(check_heap(c.b));
  EXPECT_EQ(V_GrowBitmapHeap(&c.b, 10), 1);
  EXPECT_EQ(c.b.Size, 262144u);
  ASSERT_NO_FATAL_FAILURE(check_heap(c.b));
  EXPECT_EQ(c.row(0), row);
  EXPECT_EQ(V_GrowBitmapHeap(&c.b, 1000), 0);  // room already: the size stays
  EXPECT_EQ(V_GrowBitmapHeap(&c.b, 0xFFFFFFF0u), 0);  // beyond 32-bit offsets
  // Not a compressed bitmap.
  BitmapHandle plain{};
  plain.Flags = BITMAP_ALLOCATED | BITMAP_IN_MEMORY;
  EXPECT_EQ(V_GrowBitmapHeap(&plain, 10), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_TrimBitmapHeap(&plain), RESULT_BAD_PARAMETER);
  EXPECT_EQ(V_GrowBitmapHeap(nullptr, 10), RESULT_BAD_PARAMETER);
}

TEST(RowHeap, HeightChangesFreeAndAddRows) {
  std::mt19937 g(12);
  Compressed c(300, 10);
  std::vector<Bytes> image;
  for (int r = 0; r < 10; ++r) {
    image.push_back(random_row(g, 300, false));
    ASSERT_GT(c.put(r, image.back()), 0);
  }
  const uint32_t stored = vk::cmp::stored_size(&c.b);
  ASSERT_EQ(vk::cmp::change_height(&c.b, 4), RESULT_OK);
  EXPECT_EQ(c.b.Height, 4);
  EXPECT_LT(vk::cmp::stored_size(&c.b), stored);
  ASSERT_NO_FATAL_FAILURE(check_heap(c.b));
  ASSERT_EQ(vk::cmp::change_height(&c.b, 12), RESULT_OK);
  ASSERT_NO_FATAL_FAILURE(check_heap(c.b));
  for (int r = 0; r < 4; ++r) EXPECT_EQ(c.row(r), image[r]);
  for (int r = 4; r < 12; ++r) EXPECT_EQ(c.row(r), Bytes(c.b.BytesPerLine, 0));
}

// ---- failures ------------------------------------------------------------------------

TEST(CompressedFaults, AllocationFailuresLeaveNothingBehind) {
  for (int32_t width : {100, 70000}) {
    BitmapHandle b{}, before{};
    vkt::fault_sweep(
        [&] {
          b = BitmapHandle{};
          b.Width = width;
          b.Height = 3;
          b.BitsPerPixel = 1;
          b.BytesPerLine = stride_of(width);
          before = b;
        },
        [&] { return vk::cmp::allocate(&b); },
        [&](const vkt::SweepRun& run) {
          if (run.result == RESULT_OK) {
            vk::cmp::free_storage(&b);
          } else {
            EXPECT_EQ(run.result, RESULT_FAIL);
            EXPECT_EQ(std::memcmp(&b, &before, sizeof b), 0);
          }
        });
  }
}

// An image is written row by row, alternately as whole records and as
// pixels, and the n-th allocation (a heap growth) fails: that write leaves
// the record and its row as they were, the rows before it stand, and it
// works once memory is there.
TEST(CompressedFaults, FailedRowWritesKeepTheRowAndTheRecord) {
  std::mt19937 g(13);
  const int32_t width = 2000, height = 300;
  std::vector<Bytes> rows, records;
  for (int r = 0; r < height; ++r) {
    rows.push_back(random_row(g, width, false));
    records.push_back(make_record(compress(rows.back(), 0, width)));
  }
  std::optional<Compressed> c;
  BitmapHandle before{};
  int row = 0, failures[2] = {0, 0};
  auto write = [&] {
    return row % 2 ? vk::cmp::write_record(&c->b, row, records[row].data()) : c->put(row, rows[row]);
  };
  vkt::fault_sweep([&] { c.emplace(width, height); },
                   [&] {
                     for (row = 0; row < height; ++row) {
                       before = c->b;
                       const int32_t r = write();
                       if (r <= 0) return r;
                     }
                     return int32_t{RESULT_OK};
                   },
                   [&](const vkt::SweepRun& run) {
                     if (run.result != RESULT_OK) {
                       ++failures[row % 2];
                       EXPECT_EQ(run.result, RESULT_FAIL);
                       EXPECT_EQ(std::memcmp(&c->b, &before, sizeof before), 0);
                       EXPECT_EQ(c->row(row), Bytes(c->b.BytesPerLine, 0));
                       EXPECT_GT(write(), 0);
                       ++row;
                     }
                     EXPECT_NO_FATAL_FAILURE(check_heap(c->b));
                     for (int r = 0; r < row; ++r) ASSERT_EQ(c->row(r), rows[r]) << r;
                     c.reset();
                   });
  EXPECT_GT(failures[0], 0);
  EXPECT_GT(failures[1], 0);
}

}  // namespace
