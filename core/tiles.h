// tiles.h - the tile table of tiled bitmaps and the operations on single
// tiles, shared by storage (allocation, freeing, height change, memory-info
// changes) and row access (demand mapping, reads and writes).
//
// Layout of the table (one V_OsAlloc block, owned by the bitmap, Data points
// at it):
//
//   header, five 32-bit words
//     tile_count         number of tiles
//     memory_tile_count  how many of the first tiles live in paging-file
//                        sections; they are mapped for their whole life
//     rows_per_tile      rows in every tile but the last
//     mapped_tile_count  temp-file tiles mapped right now
//     max_mapped_tiles   most temp-file tiles mapped at once
//   (padding up to pointer alignment: none in a 32-bit build)
//   one Entry of four pointer-sized words per tile, in tile order
//     section            section handle while the tile is mapped, else null
//     view               address of the mapped view, else null
//     file               temp-file handle of a disk tile; -1 for a memory tile
//     order              the order word of entry k holds the index of the k-th
//                        mapped temp-file tile, oldest first; only the first
//                        mapped_tile_count words mean anything
//
// In a 32-bit build that is exactly 20 + 16 x tile_count bytes.  Memory tiles
// always form a prefix of the tiles (conversions add and remove them at the
// boundary), so tile k is a memory tile exactly when k < memory_tile_count.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform.h"
#include "vkkrn.h"

namespace vk::tiles {

struct Entry {
  plat::Section section;
  void* view;
  VK_FILE file;
  uintptr_t order;
};

struct Table {
  uint32_t tile_count;
  uint32_t memory_tile_count;
  uint32_t rows_per_tile;
  uint32_t mapped_tile_count;
  uint32_t max_mapped_tiles;
};

constexpr size_t kHeaderBytes = (sizeof(Table) + alignof(Entry) - 1) & ~(alignof(Entry) - 1);
static_assert(sizeof(Table) == 20, "five header words");
static_assert(sizeof(Entry) == 4 * sizeof(void*), "four words per tile");

inline size_t table_bytes(uint64_t tiles) { return kHeaderBytes + sizeof(Entry) * static_cast<size_t>(tiles); }
inline Entry* entries(Table* t) { return reinterpret_cast<Entry*>(reinterpret_cast<unsigned char*>(t) + kHeaderBytes); }
inline Table* table_of(const BitmapHandle* b) { return static_cast<Table*>(b->Data); }

// Rows held by tile k of a table describing `height` rows.
inline uint32_t tile_rows(const Table* t, uint32_t k, int32_t height) {
  if (k + 1 < t->tile_count) return t->rows_per_tile;
  const int64_t rest = static_cast<int64_t>(height) - static_cast<int64_t>(k) * t->rows_per_tile;
  return rest > 0 ? static_cast<uint32_t>(rest) : 0;
}
inline uint64_t tile_bytes(const Table* t, uint32_t k, const BitmapHandle* b) {
  return static_cast<uint64_t>(tile_rows(t, k, b->Height)) * b->BytesPerLine;
}

// A new temp file of `bytes` bytes (deleted when closed); -1 on failure, and
// then no file is left behind.
VK_FILE make_temp_file(uint64_t bytes);

// Memory tile k: a paging-file section of `bytes`, mapped.  False on failure
// (nothing left behind).
bool make_memory_tile(Entry& e, uint64_t bytes);

// Maps disk tile k on demand (oldest mapped tiles make room).  True when the
// tile has a view afterwards.
bool map_tile(Table* t, uint32_t k, uint64_t bytes);
// Unmaps disk tile k if it is mapped and drops it from the mapping order.
void unmap_tile(Table* t, uint32_t k);
// Unmaps the oldest until at most n remain, then maps unmapped disk tiles in
// tile order until n are mapped (or no more can be).
void set_mapped_count(Table* t, const BitmapHandle* b, uint32_t n);

// Releases everything of tile k (view, section, file).
void release_tile(Table* t, uint32_t k);
// Releases every tile (last first) and the table.
void free_table(Table* t);

// Byte transfers at `offset` of the tiled storage (offset counted from the
// first byte of tile 0); return count or a negative result.
int32_t read(BitmapHandle* b, uint64_t offset, void* out, uint32_t count);
int32_t write(BitmapHandle* b, uint64_t offset, const void* in, uint32_t count);

// Converts the highest memory tile into a disk tile, or the first disk tile
// into a memory tile.  RESULT_OK or a failure with the tile unchanged.
int32_t memory_to_disk(Table* t, const BitmapHandle* b);
int32_t disk_to_memory(Table* t, const BitmapHandle* b);

// Builds a table for b with rows_per_tile rows per tile, `memory` memory
// tiles wanted and `max_mapped` mapped limit; memory tiles that cannot be made
// become disk tiles and raise the mapped limit.  Nothing is mapped.  On
// success *out owns the table; on failure nothing is left behind.
int32_t build(const BitmapHandle* b, uint32_t rows_per_tile, uint64_t memory, uint64_t max_mapped, Table** out);

// Height change of a tiled bitmap (the record's Height and Size are updated).
int32_t change_height(BitmapHandle* b, int32_t new_height);

}  // namespace vk::tiles
