// tiles.cpp - tiled storage: building and freeing the tile table, demand
// mapping of temp-file tiles, byte transfers across tiles, conversion of
// single tiles between paging-file and temp-file backing, height changes.
#include "tiles.h"

#include <climits>
#include <cstring>

#include "core.h"

namespace vk::tiles {
namespace {

constexpr VK_FILE kNoFile = -1;

bool file_ok(VK_FILE f) { return f != kNoFile && f != 0; }

// Reads or writes `count` bytes at `offset` of a file; the count on success,
// else the disk result code of the failing step.  Counts stay below 2 GiB
// (a tile never exceeds the int32 tile-size setting or one row).
int32_t file_io(VK_FILE f, uint64_t offset, void* buffer, uint64_t count, bool writing) {
  if (offset > INT32_MAX) return RESULT_SEEK_FAILED;
  if (V_OsSeek(f, static_cast<int32_t>(offset), VK_SEEK_SET, 0) != static_cast<int32_t>(offset)) return RESULT_SEEK_FAILED;
  auto* p = static_cast<uint8_t*>(buffer);
  while (count > 0) {
    const int32_t chunk = count > 0x40000000u ? 0x40000000 : static_cast<int32_t>(count);
    const int32_t n = writing ? V_OsWrite(f, p, chunk, 0) : V_OsRead(f, p, chunk, 0);
    // A tile file always holds the whole tile, so a short transfer is a failure.
    if (n != chunk) return writing ? RESULT_WRITE_FAILED : RESULT_READ_FAILED;
    p += chunk;
    count -= static_cast<uint64_t>(chunk);
  }
  return RESULT_OK;
}

void unmap_entry(Entry& e) {
  if (e.view) plat::section_unmap(e.section, e.view);
  if (e.section) plat::section_close(e.section);
  e.view = nullptr;
  e.section = nullptr;
}

// Removes the oldest mapped disk tile from the mapping order and unmaps it.
void unmap_oldest(Table* t) {
  Entry* e = entries(t);
  if (t->mapped_tile_count == 0) return;
  const auto k = static_cast<uint32_t>(e[0].order);
  for (uint32_t i = 1; i < t->mapped_tile_count; ++i) e[i - 1].order = e[i].order;
  --t->mapped_tile_count;
  e[t->mapped_tile_count].order = 0;
  if (k < t->tile_count) unmap_entry(e[k]);
}

// Maps disk tile k without regard to the limit; true on success.
bool map_now(Table* t, uint32_t k, uint64_t bytes) {
  Entry* e = entries(t);
  plat::Section s = plat::section_create_for_file(e[k].file, bytes);
  if (!s) return false;
  void* v = plat::section_map(s);
  if (!v) {
    plat::section_close(s);
    return false;
  }
  e[k].section = s;
  e[k].view = v;
  e[t->mapped_tile_count].order = k;
  ++t->mapped_tile_count;
  return true;
}

// Gives memory tile e a section of new_bytes holding the first
// min(old, new) bytes of the old one.
bool resize_memory_tile(Entry& e, uint64_t old_bytes, uint64_t new_bytes) {
  Entry n{};
  if (!make_memory_tile(n, new_bytes)) return false;
  std::memcpy(n.view, e.view, static_cast<size_t>(old_bytes < new_bytes ? old_bytes : new_bytes));
  unmap_entry(e);
  e.section = n.section;
  e.view = n.view;
  return true;
}

// Cuts or extends a disk tile's file to new_bytes (it is unmapped first).
bool resize_disk_tile(Table* t, uint32_t k, uint64_t new_bytes, bool growing) {
  unmap_tile(t, k);
  const VK_FILE f = entries(t)[k].file;
  static const uint8_t zero = 0;
  if (growing) {
    if (new_bytes == 0 || new_bytes - 1 > INT32_MAX) return false;
    const auto at = static_cast<int32_t>(new_bytes - 1);
    return V_OsSeek(f, at, VK_SEEK_SET, 0) == at && V_OsWrite(f, &zero, 1, 0) == 1;
  }
  if (new_bytes > INT32_MAX) return false;
  const auto at = static_cast<int32_t>(new_bytes);
  // Writing nothing at a position cuts the file there.
  return V_OsSeek(f, at, VK_SEEK_SET, 0) == at && V_OsWrite(f, &zero, 0, 0) == 0;
}

}  // namespace

VK_FILE make_temp_file(uint64_t bytes) {
  if (bytes == 0 || bytes - 1 > INT32_MAX) return kNoFile;
  // Made and opened in one step, so no other process can slip a file or a
  // link in under the name between the two.
  char name[VK_MAX_PATH];
  const VK_FILE f = plat::temp_file(settings().TempDirectory, "VQ", name);
  if (f == kNoFile) return kNoFile;
  static const uint8_t zero = 0;
  const auto last = static_cast<int32_t>(bytes - 1);
  if (V_OsSeek(f, last, VK_SEEK_SET, 0) != last || V_OsWrite(f, &zero, 1, 0) != 1) {
    V_OsClose(f, 0);
    return kNoFile;
  }
  return f;
}

bool make_memory_tile(Entry& e, uint64_t bytes) {
  plat::Section s = plat::section_create(bytes);
  if (!s) return false;
  void* v = plat::section_map(s);
  if (!v) {
    plat::section_close(s);
    return false;
  }
  e.section = s;
  e.view = v;
  e.file = kNoFile;
  return true;
}

bool map_tile(Table* t, uint32_t k, uint64_t bytes) {
  Entry* e = entries(t);
  if (e[k].view) return true;
  if (!file_ok(e[k].file)) return false;
  for (;;) {
    if (t->mapped_tile_count < t->max_mapped_tiles && map_now(t, k, bytes)) return true;
    if (t->mapped_tile_count == 0) return false;
    unmap_oldest(t);
  }
}

void unmap_tile(Table* t, uint32_t k) {
  Entry* e = entries(t);
  if (k < t->memory_tile_count || !e[k].view) return;
  for (uint32_t i = 0; i < t->mapped_tile_count; ++i) {
    if (e[i].order != k) continue;
    for (uint32_t j = i + 1; j < t->mapped_tile_count; ++j) e[j - 1].order = e[j].order;
    --t->mapped_tile_count;
    e[t->mapped_tile_count].order = 0;
    break;
  }
  unmap_entry(e[k]);
}

void set_mapped_count(Table* t, const BitmapHandle* b, uint32_t n) {
  while (t->mapped_tile_count > n) unmap_oldest(t);
  Entry* e = entries(t);
  for (uint32_t k = t->memory_tile_count; k < t->tile_count && t->mapped_tile_count < n; ++k) {
    if (e[k].view || !file_ok(e[k].file)) continue;
    map_now(t, k, tile_bytes(t, k, b));  // a tile that cannot be mapped is skipped
  }
}

void release_tile(Table* t, uint32_t k) {
  Entry* e = entries(t);
  if (k >= t->memory_tile_count) unmap_tile(t, k);
  unmap_entry(e[k]);
  if (file_ok(e[k].file)) V_OsClose(e[k].file, 0);
  e[k].file = kNoFile;
}

void free_table(Table* t) {
  if (!t) return;
  for (uint32_t k = t->tile_count; k-- > 0;) release_tile(t, k);
  V_OsFree(t);
}

namespace {

int32_t transfer(BitmapHandle* b, uint64_t offset, void* buffer, uint32_t count, bool writing) {
  Table* t = table_of(b);
  if (!t || t->rows_per_tile == 0 || b->BytesPerLine == 0) return RESULT_NO_BITMAP;
  const uint64_t total = static_cast<uint64_t>(b->Height > 0 ? b->Height : 0) * b->BytesPerLine;
  if (offset > total || count > total - offset) return RESULT_BAD_PARAMETER;
  const uint64_t full = static_cast<uint64_t>(t->rows_per_tile) * b->BytesPerLine;
  uint64_t k64 = offset / full;
  uint64_t at = offset % full;
  auto* p = static_cast<uint8_t*>(buffer);
  uint64_t left = count;
  Entry* e = entries(t);
  while (left > 0) {
    if (k64 >= t->tile_count) return RESULT_BAD_PARAMETER;
    const auto k = static_cast<uint32_t>(k64);
    const uint64_t size = tile_bytes(t, k, b);
    if (at >= size) return RESULT_BAD_PARAMETER;
    const uint64_t n = left < size - at ? left : size - at;
    if (map_tile(t, k, size)) {
      auto* view = static_cast<uint8_t*>(e[k].view) + at;
      if (writing)
        std::memcpy(view, p, static_cast<size_t>(n));
      else
        std::memcpy(p, view, static_cast<size_t>(n));
    } else {
      if (!file_ok(e[k].file)) return RESULT_NO_BITMAP;
      VK_TRY(file_io(e[k].file, at, p, n, writing));
    }
    p += n;
    left -= n;
    ++k64;
    at = 0;
  }
  return static_cast<int32_t>(count);
}

}  // namespace

int32_t read(BitmapHandle* b, uint64_t offset, void* out, uint32_t count) {
  return transfer(b, offset, out, count, false);
}
int32_t write(BitmapHandle* b, uint64_t offset, const void* in, uint32_t count) {
  return transfer(b, offset, const_cast<void*>(in), count, true);
}

int32_t memory_to_disk(Table* t, const BitmapHandle* b) {
  if (t->memory_tile_count == 0) return RESULT_OK;
  const uint32_t k = t->memory_tile_count - 1;
  Entry* e = entries(t);
  const uint64_t size = tile_bytes(t, k, b);
  const VK_FILE f = make_temp_file(size);
  if (f == kNoFile) return RESULT_TEMP_FILE_FAILED;
  const int32_t r = file_io(f, 0, e[k].view, size, true);
  if (r != RESULT_OK) {
    V_OsClose(f, 0);
    return r;
  }
  unmap_entry(e[k]);
  e[k].file = f;
  --t->memory_tile_count;
  return RESULT_OK;
}

int32_t disk_to_memory(Table* t, const BitmapHandle* b) {
  if (t->memory_tile_count >= t->tile_count) return RESULT_OK;
  const uint32_t k = t->memory_tile_count;
  Entry* e = entries(t);
  const uint64_t size = tile_bytes(t, k, b);
  Entry n{};
  if (!make_memory_tile(n, size)) return RESULT_FAIL;
  if (e[k].view) {
    std::memcpy(n.view, e[k].view, static_cast<size_t>(size));
  } else {
    const int32_t r = file_io(e[k].file, 0, n.view, size, false);
    if (r != RESULT_OK) {
      unmap_entry(n);
      return r;
    }
  }
  unmap_tile(t, k);
  if (file_ok(e[k].file)) V_OsClose(e[k].file, 0);
  e[k].section = n.section;
  e[k].view = n.view;
  e[k].file = kNoFile;
  ++t->memory_tile_count;
  return RESULT_OK;
}

int32_t build(const BitmapHandle* b, uint32_t rows_per_tile, uint64_t memory, uint64_t max_mapped, Table** out) {
  *out = nullptr;
  if (b->Height < 1 || rows_per_tile == 0) return RESULT_NO_BITMAP;
  const uint64_t count = (static_cast<uint64_t>(b->Height) + rows_per_tile - 1) / rows_per_tile;
  if (count == 0) return RESULT_NO_BITMAP;
  if (count > UINT32_MAX || count > (SIZE_MAX - kHeaderBytes) / sizeof(Entry)) return RESULT_FAIL;
  auto* t = static_cast<Table*>(V_OsAllocInit(table_bytes(count), 1));
  if (!t) return RESULT_FAIL;
  t->rows_per_tile = rows_per_tile;
  t->memory_tile_count = static_cast<uint32_t>(memory < count ? memory : count);
  t->max_mapped_tiles = static_cast<uint32_t>(max_mapped < count ? max_mapped : count);
  t->mapped_tile_count = 0;
  Entry* e = entries(t);
  for (uint32_t k = 0; k < count; ++k) {
    t->tile_count = k + 1;  // the tile being made is covered by the cleanup below
    e[k].file = kNoFile;
    const uint64_t rows = k + 1 < count ? rows_per_tile : static_cast<uint64_t>(b->Height) - uint64_t{k} * rows_per_tile;
    const uint64_t size = rows * b->BytesPerLine;
    if (k < t->memory_tile_count) {
      if (make_memory_tile(e[k], size)) continue;
      // Paging-file memory ran out: the rest go to temp files, and the
      // mapped limit takes over what the memory tiles would have held.
      t->max_mapped_tiles += t->memory_tile_count - k;
      t->memory_tile_count = k;
    }
    e[k].file = make_temp_file(size);
    if (e[k].file == kNoFile) {
      free_table(t);
      return RESULT_TEMP_FILE_FAILED;
    }
  }
  *out = t;
  return RESULT_OK;
}

int32_t change_height(BitmapHandle* b, int32_t new_height) {
  Table* t = table_of(b);
  if (!t || t->rows_per_tile == 0) return RESULT_NO_BITMAP;
  const uint64_t rpt = t->rows_per_tile;
  const uint64_t bpl = b->BytesPerLine;
  const uint32_t old_count = t->tile_count;
  const uint64_t n64 = (static_cast<uint64_t>(new_height) + rpt - 1) / rpt;
  if (n64 > UINT32_MAX) return RESULT_FAIL;
  const auto n = static_cast<uint32_t>(n64);
  const uint64_t new_last_bytes = (static_cast<uint64_t>(new_height) - (n64 - 1) * rpt) * bpl;

  if (new_height < b->Height) {
    for (uint32_t k = old_count; k-- > n;) release_tile(t, k);
    t->tile_count = n;
    if (t->memory_tile_count > n) t->memory_tile_count = n;
    const uint32_t last = n - 1;
    Entry& e = entries(t)[last];
    const uint64_t old_bytes = (last + 1 < old_count ? rpt : static_cast<uint64_t>(b->Height) - last * rpt) * bpl;
    if (old_bytes != new_last_bytes) {
      // A shrink that cannot get a smaller section or cut the file keeps the
      // larger backing: the tile still holds all its rows.
      if (last < t->memory_tile_count)
        resize_memory_tile(e, old_bytes, new_last_bytes);
      else
        resize_disk_tile(t, last, new_last_bytes, false);
    }
  } else {
    if (n > old_count) {
      auto* grown = static_cast<Table*>(V_OsReAlloc(t, table_bytes(n)));
      if (!grown) return RESULT_FAIL;
      t = grown;
      b->Data = t;
      Entry* e = entries(t);
      for (uint32_t k = old_count; k < n; ++k) e[k] = Entry{nullptr, nullptr, kNoFile, 0};
    }
    const uint32_t last = old_count - 1;
    const uint64_t old_bytes = (static_cast<uint64_t>(b->Height) - last * rpt) * bpl;
    const uint64_t want = n > old_count ? rpt * bpl : new_last_bytes;
    if (want != old_bytes) {
      Entry& e = entries(t)[last];
      const bool ok = last < t->memory_tile_count ? resize_memory_tile(e, old_bytes, want)
                                                  : resize_disk_tile(t, last, want, true);
      if (!ok) return RESULT_FAIL;
    }
    for (uint32_t k = old_count; k < n; ++k) {
      const uint64_t size = k + 1 < n ? rpt * bpl : new_last_bytes;
      const VK_FILE f = make_temp_file(size);
      if (f == kNoFile) {
        // Keep what was made: the bitmap now ends with the last whole tile.
        b->Height = static_cast<int32_t>(rpt * k);
        b->Size = static_cast<uint32_t>(static_cast<uint64_t>(b->Height) * bpl);
        return RESULT_TEMP_FILE_FAILED;
      }
      entries(t)[k].file = f;
      t->tile_count = k + 1;
    }
  }
  b->Height = new_height;
  b->Size = static_cast<uint32_t>(static_cast<uint64_t>(new_height) * bpl);
  return RESULT_OK;
}

}  // namespace vk::tiles
