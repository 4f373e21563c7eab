// compressed_storage.cpp - storage of 1-bit bitmaps as compressed rows
// (memory type 768): the row table, the row heap, row access in expanded
// form, and the exported heap and compression-change calls.
//
// Row table (Data of the record), allocated zeroed:
//   TableHeader, four pointer-sized words (16 bytes in a 32-bit build,
//   32 bytes in a 64-bit one), then one RowEntry of two 32-bit words per
//   row (8 x Height bytes).
//
// Row heap: one V_Realloc'd block; all words are 32-bit byte offsets from
// the heap's start (0 = none), so the layout is the same in every build:
//   HeapHeader {size, last, free_head} (12 bytes), then blocks from
//   offset 12, each BlockHeader {prev, next, in_use, free_prev, free_next,
//   data_size} (24 bytes) followed by data_size bytes.  A row's runs lie
//   at heap + offset + 24.
// Invariants: blocks tile the heap exactly (size = last + 24 + its
// data_size); data sizes and offsets are multiples of 4; two free blocks
// are never neighbours (freeing joins them); every free block is on the
// doubly linked free list.  Placement is first fit over the free list,
// splitting a block when the rest can hold a header and 8 bytes.  Every
// stored row covers exactly Width pixels (writes pad or cut), so rows can
// be handed out as records and mirrored without knowing the width.

#include <cstring>

#include "compressed.h"
#include "core.h"
#include "runs.h"

namespace vk::cmp {
namespace {

struct TableHeader {
  uint8_t* work;        // scratch for the runs of the row being written
  uint8_t* blank;       // runs of an all-0 row when Width > 65535, else null
  uintptr_t work_size;  // bytes of work: 2 * Width + 8 (Width + 4 runs)
  uint8_t* heap;        // the row heap; null while it is empty
};
static_assert(sizeof(TableHeader) == 4 * sizeof(void*));

struct RowEntry {
  uint32_t offset;  // block of the row's runs in the heap; 0 = no data (all 0-bits)
  uint32_t runs;    // run count
};
static_assert(sizeof(RowEntry) == 8);

struct HeapHeader {
  uint32_t size;       // total bytes of the heap
  uint32_t last;       // offset of the last block
  uint32_t free_head;  // first block on the free list
};
struct BlockHeader {
  uint32_t prev, next;            // neighbours in address order
  uint32_t in_use;                // 0 = free
  uint32_t free_prev, free_next;  // free-list links (free blocks only)
  uint32_t data_size;             // bytes after the header
};
static_assert(sizeof(HeapHeader) == 12 && sizeof(BlockHeader) == 24);

constexpr uint32_t kFirstBlock = 12;
constexpr uint32_t kHeader = 24;
constexpr uint64_t kGrowStep = 262144;           // heap sizes are rounded up to 256 KiB
constexpr uint64_t kMaxHeap = 0xFFFC0000u;       // largest multiple of 256 KiB in 32 bits
constexpr uint32_t kTrimKeep = 128;              // trimming leaves this much free at the end
constexpr uint32_t kMinSplit = kHeader + 8;      // a split must leave a header and 8 bytes

TableHeader& table(const BitmapHandle* b) { return *static_cast<TableHeader*>(b->Data); }
RowEntry* rows(const BitmapHandle* b) {
  return reinterpret_cast<RowEntry*>(static_cast<uint8_t*>(b->Data) + sizeof(TableHeader));
}
HeapHeader* head(uint8_t* h) { return reinterpret_cast<HeapHeader*>(h); }
BlockHeader* blk(uint8_t* h, uint32_t off) { return reinterpret_cast<BlockHeader*>(h + off); }
uint8_t* data_of(uint8_t* h, uint32_t off) { return h + off + kHeader; }

uint64_t blank_count(uint32_t width) {
  const uint64_t full = width / kMaxRun, rest = width % kMaxRun;
  return 2 * full - 1 + (rest ? 2 : 0);
}

bool is_compressed(const BitmapHandle* b) {
  return b && (b->Flags & BITMAP_ALLOCATED) && (b->Flags & BITMAP_COMPRESSED) && b->Data;
}

// ---- free list and blocks ------------------------------------------------

void list_remove(uint8_t* h, uint32_t off) {
  BlockHeader* k = blk(h, off);
  if (k->free_prev)
    blk(h, k->free_prev)->free_next = k->free_next;
  else
    head(h)->free_head = k->free_next;
  if (k->free_next) blk(h, k->free_next)->free_prev = k->free_prev;
  k->free_prev = k->free_next = 0;
}

void list_push(uint8_t* h, uint32_t off) {
  BlockHeader* k = blk(h, off);
  HeapHeader* hh = head(h);
  k->free_prev = 0;
  k->free_next = hh->free_head;
  if (hh->free_head) blk(h, hh->free_head)->free_prev = off;
  hh->free_head = off;
}

// Joins the free block after `off` into it.
void absorb_next(uint8_t* h, uint32_t off) {
  BlockHeader* k = blk(h, off);
  const uint32_t noff = k->next;
  BlockHeader* n = blk(h, noff);
  list_remove(h, noff);
  k->data_size += kHeader + n->data_size;
  k->next = n->next;
  if (k->next)
    blk(h, k->next)->prev = off;
  else
    head(h)->last = off;
}

// Cuts block `off` down to `keep` data bytes; the rest becomes a free block
// (joined with a free neighbour after it).
void split(uint8_t* h, uint32_t off, uint32_t keep) {
  BlockHeader* k = blk(h, off);
  const uint32_t noff = off + kHeader + keep;
  BlockHeader* n = blk(h, noff);
  *n = BlockHeader{off, k->next, 0, 0, 0, k->data_size - keep - kHeader};
  if (k->next)
    blk(h, k->next)->prev = noff;
  else
    head(h)->last = noff;
  k->next = noff;
  k->data_size = keep;
  if (n->next && !blk(h, n->next)->in_use) absorb_next(h, noff);
  list_push(h, noff);
}

void release_block(uint8_t* h, uint32_t off) {
  BlockHeader* k = blk(h, off);
  k->in_use = 0;
  if (k->next && !blk(h, k->next)->in_use) absorb_next(h, off);
  if (k->prev && !blk(h, k->prev)->in_use) {
    // The free block before takes this one over; it is already listed.
    const uint32_t poff = k->prev;
    BlockHeader* p = blk(h, poff);
    p->data_size += kHeader + k->data_size;
    p->next = k->next;
    if (p->next)
      blk(h, p->next)->prev = poff;
    else
      head(h)->last = poff;
  } else {
    list_push(h, off);
  }
}

enum class Grow { grew, unchanged, failed };

// Heap growth: the wanted size is the current size plus `bytes` and a block
// header, or, when the last block is free, the current size less that
// block's data plus `bytes`; it is rounded up to 256 KiB.  The last free
// block then reaches the new end, or a new free block is made after an
// in-use last block.  A failed reallocation changes nothing.  An empty heap
// counts its 12-byte header, so it always gets room for `bytes`.  A heap
// that is already at least the rounded size is left as it is.
Grow grow_heap(TableHeader& t, uint64_t bytes) {
  uint8_t* h = t.heap;
  uint64_t wanted;
  if (!h) {
    wanted = uint64_t{kFirstBlock} + kHeader + bytes;
  } else {
    const HeapHeader* hh = head(h);
    const BlockHeader* last = blk(h, hh->last);
    wanted = last->in_use ? uint64_t{hh->size} + bytes + kHeader : uint64_t{hh->size} - last->data_size + bytes;
  }
  const uint64_t size = (wanted + kGrowStep - 1) / kGrowStep * kGrowStep;
  if (size > kMaxHeap || size > SIZE_MAX) return Grow::failed;
  // A heap that already reaches the wanted size has the room: it is never
  // made smaller here (that is trimming's job).
  if (h && size <= head(h)->size) return Grow::unchanged;
  auto* p = static_cast<uint8_t*>(V_Realloc(h, static_cast<size_t>(size)));
  if (!p) return Grow::failed;
  t.heap = p;
  const uint32_t new_size = static_cast<uint32_t>(size);
  HeapHeader* hh = head(p);
  if (!h) {
    *hh = HeapHeader{new_size, kFirstBlock, kFirstBlock};
    *blk(p, kFirstBlock) = BlockHeader{0, 0, 0, 0, 0, new_size - kFirstBlock - kHeader};
  } else {
    BlockHeader* last = blk(p, hh->last);
    if (!last->in_use) {
      last->data_size = new_size - hh->last - kHeader;
    } else {
      const uint32_t off = hh->last + kHeader + last->data_size;
      *blk(p, off) = BlockHeader{hh->last, 0, 0, 0, 0, new_size - off - kHeader};
      last->next = off;
      list_push(p, off);
      hh->last = off;
    }
    hh->size = new_size;
  }
  return Grow::grew;
}

// Trimming: a free last block larger than 128 bytes is cut to 128 and the
// heap shrinks by the difference.  Returns true when the heap shrank.
bool trim_heap(TableHeader& t) {
  uint8_t* h = t.heap;
  if (!h) return false;
  const HeapHeader* hh = head(h);
  const BlockHeader* last = blk(h, hh->last);
  if (last->in_use || last->data_size <= kTrimKeep) return false;
  const uint32_t new_size = hh->size - last->data_size + kTrimKeep;
  auto* p = static_cast<uint8_t*>(V_Realloc(h, new_size));
  if (!p) return false;
  t.heap = p;
  blk(p, head(p)->last)->data_size = kTrimKeep;
  head(p)->size = new_size;
  return true;
}

uint32_t round4(uint64_t n) { return static_cast<uint32_t>((n + 3) & ~uint64_t{3}); }

// A block with at least `need` data bytes, taken from the free list (first
// fit), growing the heap once when nothing fits.  0 when the heap cannot
// grow.  May move the heap.
uint32_t take_block(TableHeader& t, uint32_t need) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    uint8_t* h = t.heap;
    if (h) {
      for (uint32_t off = head(h)->free_head; off; off = blk(h, off)->free_next) {
        BlockHeader* k = blk(h, off);
        if (k->data_size < need) continue;
        list_remove(h, off);
        k->in_use = 1;
        if (k->data_size >= need + kMinSplit) split(h, off, need);
        return off;
      }
    }
    if (attempt == 0 && grow_heap(t, need) != Grow::grew) return 0;
  }
  return 0;
}

// Puts `count` runs from `runs` (outside the heap) into the row's block:
// in place when the block or the block and its free neighbour are large
// enough (a surplus is split off), else in a new block, the old one being
// freed afterwards.  On failure the row keeps its old data.
int32_t place_row(TableHeader& t, RowEntry& e, const uint8_t* runs, size_t count) {
  const uint64_t bytes = 2 * uint64_t{count};
  if (bytes > kMaxHeap) return RESULT_FAIL;
  const uint32_t need = round4(bytes ? bytes : 4);
  if (e.offset) {
    uint8_t* h = t.heap;
    BlockHeader* k = blk(h, e.offset);
    if (k->data_size < need && k->next) {
      const BlockHeader* n = blk(h, k->next);
      if (!n->in_use && uint64_t{k->data_size} + kHeader + n->data_size >= need) absorb_next(h, e.offset);
    }
    if (k->data_size >= need) {
      std::memcpy(data_of(h, e.offset), runs, bytes);
      if (k->data_size >= need + kMinSplit) split(h, e.offset, need);
      e.runs = static_cast<uint32_t>(count);
      return RESULT_OK;
    }
  }
  const uint32_t off = take_block(t, need);
  if (!off) return RESULT_FAIL;
  std::memcpy(data_of(t.heap, off), runs, bytes);
  if (e.offset) release_block(t.heap, e.offset);
  e.offset = off;
  e.runs = static_cast<uint32_t>(count);
  return RESULT_OK;
}

// Stores `pixels` packed pixels from src into row e from column `col` (a
// multiple of 8): the row's runs before col are kept (the run that
// straddles col is cut), the new pixels are coded on from there, and the
// old pixels after col + pixels are appended; a row shorter than Width is
// padded with 0-bits.
int32_t store_row(const BitmapHandle* b, TableHeader& t, RowEntry& e, const uint8_t* src, uint32_t col,
                  uint32_t pixels) {
  const uint64_t width = static_cast<uint32_t>(b->Width);
  const size_t cap = t.work_size / 2;
  uint8_t* work = t.work;
  const uint8_t* old = e.offset ? data_of(t.heap, e.offset) : nullptr;
  const size_t old_count = e.offset ? e.runs : 0;
  RunWriter w(work, cap);

  uint64_t pos = 0;
  if (col == 0) {
    w.start(0);
  } else {
    size_t j = 0;
    while (j < old_count && j < cap && pos + load16(old + 2 * j) <= col) pos += load16(old + 2 * j++);
    if (j) {
      std::memcpy(work, old, 2 * j);
      w.resume(j);
    } else {
      w.start(0);
    }
    if (pos < col) w.append(j < old_count ? static_cast<unsigned>(j & 1u) : 0u, col - pos);
  }

  w.encode(src, pixels);

  const uint64_t tail = uint64_t{col} + pixels;
  pos = 0;
  for (size_t i = 0; i < old_count && pos < width && tail < width; ++i) {
    uint64_t end = pos + load16(old + 2 * i);
    if (end > width) end = width;
    if (end > tail) w.append(static_cast<unsigned>(i & 1u), end - (pos > tail ? pos : tail));
    pos = end;
  }
  const uint64_t covered = pos > tail ? pos : tail;
  if (covered < width) w.append(0, width - covered);

  if (w.overflow()) return RESULT_FAIL;  // cannot happen for rows of Width pixels
  return place_row(t, e, work, w.count());
}

// Runs and count of a row as a record would hold them: its block, or the
// blank row (one run of Width, or the template of 65535-pixel runs).
struct RowRuns {
  const uint8_t* runs;
  uint32_t count;
  uint16_t single;  // the run of a blank row of at most 65535 pixels
};
RowRuns row_runs(const BitmapHandle* b, const TableHeader& t, const RowEntry& e) {
  if (e.offset) return {data_of(t.heap, e.offset), e.runs, 0};
  const uint32_t width = static_cast<uint32_t>(b->Width);
  if (width <= kMaxRun) return {nullptr, 1, static_cast<uint16_t>(width)};
  return {t.blank, static_cast<uint32_t>(blank_count(width)), 0};
}

}  // namespace

// ---- internal interface ------------------------------------------------------

int32_t allocate(BitmapHandle* b) {
  if (!b) return RESULT_BAD_PARAMETER;
  if (b->BitsPerPixel != 1) return RESULT_BAD_BITS_PER_PIXEL;
  if (b->Width < 1 || b->Height < 1) return RESULT_BAD_AREA;
  const uint64_t width = static_cast<uint32_t>(b->Width);
  const uint64_t table_bytes = sizeof(TableHeader) + 8 * uint64_t{static_cast<uint32_t>(b->Height)};
  const uint64_t work_bytes = 2 * width + 8;
  if (table_bytes > SIZE_MAX || work_bytes > SIZE_MAX) return RESULT_FAIL;

  Buffer<uint8_t> tab, work, blank;
  if (!tab.allocate(static_cast<size_t>(table_bytes), true)) return RESULT_FAIL;
  if (!work.allocate(static_cast<size_t>(work_bytes))) return RESULT_FAIL;
  if (width > kMaxRun) {
    const uint64_t n = blank_count(static_cast<uint32_t>(width));
    if (!blank.allocate(static_cast<size_t>(2 * n))) return RESULT_FAIL;
    RunWriter w(blank.get(), static_cast<size_t>(n));
    w.start(0);
    w.append(0, width);
  }
  auto* t = reinterpret_cast<TableHeader*>(tab.get());
  *t = TableHeader{work.release(), blank.release(), static_cast<uintptr_t>(work_bytes), nullptr};
  b->Data = tab.release();
  b->StorageHandle = nullptr;
  return RESULT_OK;
}

void free_storage(BitmapHandle* b) {
  if (!b || !b->Data) return;
  TableHeader& t = table(b);
  V_Free(t.heap);
  V_Free(t.blank);
  V_Free(t.work);
  V_Free(b->Data);
  b->Data = nullptr;
}

int32_t change_height(BitmapHandle* b, int32_t new_height) {
  if (!b || !b->Data) return RESULT_NO_BITMAP;
  if (new_height < 1) return RESULT_BAD_PARAMETER;
  const int32_t old_height = b->Height;
  if (new_height == old_height) return RESULT_OK;
  if (new_height < old_height) {
    TableHeader& t = table(b);
    RowEntry* r = rows(b);
    for (int32_t i = new_height; i < old_height; ++i) {
      if (r[i].offset) release_block(t.heap, r[i].offset);
      r[i] = RowEntry{0, 0};
    }
  }
  const uint64_t bytes = sizeof(TableHeader) + 8 * uint64_t{static_cast<uint32_t>(new_height)};
  void* p = bytes <= SIZE_MAX ? V_Realloc(b->Data, static_cast<size_t>(bytes)) : nullptr;
  if (!p) {
    // The rows past a lower height are already gone; the larger table
    // still serves the smaller bitmap.
    if (new_height < old_height) b->Height = new_height;
    return RESULT_FAIL;
  }
  b->Data = p;
  if (new_height > old_height)
    std::memset(rows(b) + old_height, 0, 8 * static_cast<size_t>(new_height - old_height));
  b->Height = new_height;
  return RESULT_OK;
}

int32_t read(BitmapHandle* b, void* buffer, uint32_t row, int32_t column, int32_t byte_count) {
  if (!b || !buffer || column < 0 || byte_count < 0) return RESULT_BAD_PARAMETER;
  if (!b->Data) return RESULT_NO_BITMAP;
  const uint32_t width = static_cast<uint32_t>(b->Width);
  const uint32_t height = static_cast<uint32_t>(b->Height);
  uint32_t col = static_cast<uint32_t>(column) & ~7u;
  if (col >= width || row >= height) return RESULT_BAD_PARAMETER;
  const TableHeader& t = table(b);
  const RowEntry* r = rows(b);
  auto* out = static_cast<uint8_t*>(buffer);
  uint64_t remaining = static_cast<uint32_t>(byte_count);
  for (; remaining && row < height; ++row, col = 0) {
    const uint64_t row_bytes = b->BytesPerLine - col / 8;
    const uint64_t take = remaining < row_bytes ? remaining : row_bytes;
    const uint64_t avail = width - col;
    const uint32_t pixels = static_cast<uint32_t>(8 * take < avail ? 8 * take : avail);
    const RowRuns rr = row_runs(b, t, r[row]);
    if (rr.runs)
      expand(rr.runs, rr.count, col, pixels, out);
    else
      expand(nullptr, 0, col, pixels, out);  // a blank row: all 0-bits
    const size_t filled = (static_cast<size_t>(pixels) + 7) / 8;
    if (take > filled) std::memset(out + filled, 0, static_cast<size_t>(take) - filled);
    out += take;
    remaining -= take;
  }
  return static_cast<int32_t>(static_cast<uint32_t>(byte_count) - remaining);
}

int32_t write(BitmapHandle* b, const void* buffer, uint32_t row, int32_t column, int32_t byte_count) {
  if (!b || !buffer || column < 0 || byte_count < 0) return RESULT_BAD_PARAMETER;
  if (!b->Data) return RESULT_NO_BITMAP;
  const uint32_t width = static_cast<uint32_t>(b->Width);
  const uint32_t height = static_cast<uint32_t>(b->Height);
  uint32_t col = static_cast<uint32_t>(column) & ~7u;
  if (width <= col || row >= height) return RESULT_BAD_PARAMETER;
  TableHeader& t = table(b);
  const auto* src = static_cast<const uint8_t*>(buffer);
  uint64_t remaining = static_cast<uint32_t>(byte_count);
  int32_t result = RESULT_OK;
  bool stored = false;
  for (; remaining && row < height; ++row, col = 0) {
    const uint64_t avail = width - col;
    const uint32_t pixels = static_cast<uint32_t>(8 * remaining < avail ? 8 * remaining : avail);
    result = store_row(b, t, rows(b)[row], src, col, pixels);
    if (result < 1) break;
    stored = true;
    const uint64_t row_bytes = b->BytesPerLine - col / 8;
    const uint64_t used = remaining < row_bytes ? remaining : row_bytes;
    src += used;
    remaining -= used;
  }
  // A write that failed before storing anything leaves the record as it
  // was (the heap did not change either).
  if (stored || result >= 1) b->Size = heap_size(b);
  if (result < 1) return result;
  return static_cast<int32_t>(static_cast<uint32_t>(byte_count) - remaining);
}

int32_t pixel_byte(BitmapHandle* b, uint8_t* out, uint32_t row, int32_t column) {
  if (!b || !out || column < 0) return RESULT_BAD_PARAMETER;
  if (!b->Data) return RESULT_NO_BITMAP;
  const uint32_t width = static_cast<uint32_t>(b->Width);
  const uint32_t col = static_cast<uint32_t>(column) & ~7u;
  if (col >= width || row >= static_cast<uint32_t>(b->Height)) return RESULT_BAD_PARAMETER;
  const uint32_t pixels = width - col < 8 ? width - col : 8;
  const RowEntry& e = rows(b)[row];
  if (!e.offset) {
    *out = 0;
    return RESULT_OK;
  }
  expand(data_of(table(b).heap, e.offset), e.runs, col, pixels, out);
  return RESULT_OK;
}

int32_t read_record(BitmapHandle* b, uint32_t row, void* record, size_t capacity) {
  if (!b || !record) return RESULT_BAD_PARAMETER;
  if (!b->Data) return RESULT_NO_BITMAP;
  if (row >= static_cast<uint32_t>(b->Height)) return RESULT_BAD_PARAMETER;
  const RowRuns rr = row_runs(b, table(b), rows(b)[row]);
  const uint64_t length = 4 + 2 * uint64_t{rr.count};
  if (capacity < length || length > INT32_MAX) return RESULT_BAD_PARAMETER;
  auto* rec = static_cast<uint8_t*>(record);
  store32(rec, rr.count);
  if (rr.runs)
    std::memcpy(rec + 4, rr.runs, 2 * static_cast<size_t>(rr.count));
  else
    store16(rec + 4, rr.single);
  return static_cast<int32_t>(length);
}

int32_t write_record(BitmapHandle* b, uint32_t row, const void* record) {
  if (!b || !record) return RESULT_BAD_PARAMETER;
  if (!b->Data) return RESULT_NO_BITMAP;
  if (row >= static_cast<uint32_t>(b->Height)) return RESULT_BAD_PARAMETER;
  TableHeader& t = table(b);
  const uint64_t width = static_cast<uint32_t>(b->Width);
  const auto* rec = static_cast<const uint8_t*>(record);
  const uint32_t n = load32(rec);
  const uint8_t* in = rec + 4;
  const size_t cap = t.work_size / 2;

  // A record is stored run for run when it is in the form the coder makes:
  // zero-length runs only first or right after a run of at least 65528
  // (a split), so a row never holds more than Width + 1 runs and every
  // stored row can be read back into 2 * Width + 6 bytes.  A run that
  // passes Width is cut, runs after it are ignored, and a record covering
  // fewer pixels is padded with 0-bits.  Any other record is coded anew
  // from the pixels it describes (same pixels, canonical runs).
  RunWriter w(t.work, cap);
  uint64_t total = 0;
  size_t k = 0;
  bool canonical = true;
  uint64_t prev = 0;
  for (; k < n && total < width && k < cap; ++k) {
    uint64_t len = load16(in + 2 * k);
    if (len == 0 && k > 0 && prev < kMaxRun - 7) {
      canonical = false;
      break;
    }
    if (total + len > width) len = width - total;
    store16(t.work + 2 * k, static_cast<uint16_t>(len));
    total += len;
    prev = len;
  }
  const bool verbatim = canonical && !(k < n && total < width);
  if (verbatim) {
    if (k)
      w.resume(k);
    else
      w.start(0);
    if (total < width) w.append(0, width - total);
  }
  if (!verbatim || w.overflow() || w.count() > width + 1) {
    w.start(0);
    total = 0;
    for (size_t i = 0; i < n && total < width && !w.overflow(); ++i) {
      uint64_t len = load16(in + 2 * i);
      if (total + len > width) len = width - total;
      w.append(static_cast<unsigned>(i & 1u), len);
      total += len;
    }
    if (total < width) w.append(0, width - total);
  }
  if (w.overflow()) return RESULT_FAIL;
  const int32_t r = place_row(t, rows(b)[row], t.work, w.count());
  if (r == RESULT_OK) b->Size = heap_size(b);
  return r;
}

uint32_t heap_size(const BitmapHandle* b) {
  if (!b || !b->Data) return 0;
  const uint8_t* h = table(b).heap;
  return h ? reinterpret_cast<const HeapHeader*>(h)->size : 0;
}

uint32_t stored_size(const BitmapHandle* b) {
  if (!b || !b->Data) return 0;
  const RowEntry* r = rows(b);
  uint64_t sum = 0;
  for (int32_t i = 0; i < b->Height; ++i)
    if (r[i].offset) sum += 2 * uint64_t{r[i].runs};
  return sum > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(sum);
}

}  // namespace vk::cmp

using namespace vk::cmp;

extern "C" {

VK_API int32_t VK_CALL V_GrowBitmapHeap(BitmapHandle* bitmap, uint32_t bytes) {
  return vk::api_call([&]() -> int32_t {
    if (!is_compressed(bitmap)) return RESULT_BAD_PARAMETER;
    if (grow_heap(table(bitmap), bytes) != Grow::grew) return 0;
    bitmap->Size = heap_size(bitmap);
    return 1;
  });
}

VK_API int32_t VK_CALL V_TrimBitmapHeap(BitmapHandle* bitmap) {
  return vk::api_call([&]() -> int32_t {
    if (!is_compressed(bitmap)) return RESULT_BAD_PARAMETER;
    if (!trim_heap(table(bitmap))) return 0;
    bitmap->Size = heap_size(bitmap);
    return 1;
  });
}

}  // extern "C"
