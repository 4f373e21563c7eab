// storage.cpp - pixel storage of a bitmap record: the choice of memory type,
// flat paging-file memory, tiles, one temp file, user and global memory,
// compressed rows; locking, freeing, height changes, storage parameters,
// memory thresholds and the temp directory.
#include <climits>
#include <cstring>

#include "compressed.h"
#include "core.h"
#include "op.h"
#include "record_copy.h"
#include "platform.h"
#include "storage.h"
#include "tiles.h"

namespace vk::storage {
namespace {

constexpr uint32_t kStorageBits = BITMAP_ALLOCATED | BITMAP_IN_MEMORY | BITMAP_ON_DISK | BITMAP_LOCKED |
                                  BITMAP_COMPRESSED | BITMAP_USER_DATA | BITMAP_GLOBAL_MEMORY | BITMAP_TILED |
                                  BITMAP_SUPER_COMPRESSED;
constexpr uint64_t kDefaultTileBytes = 16777216;  // 16 MiB, the tile size when the setting is 0

constexpr int32_t kFlat = TYPE_CONVENTIONAL, kUser = TYPE_USER, kTiled = TYPE_TILED, kNoTiled = TYPE_NO_TILED,
                  kDisk = TYPE_DISK, kNoDisk = TYPE_NO_DISK;

bool valid_type(int32_t t) {
  switch (t) {
    case 1: case 2: case 4: case 8: case 9: case 128: case 256: case 768: case 1024: case 1025:
      return true;
    default:
      return false;
  }
}

int32_t normalise_type(int32_t type, int32_t bits) {
  if (type & TYPE_COMPRESSED) type = bits == 1 ? (TYPE_COMPRESSED | TYPE_NO_DISK) : (type & ~TYPE_COMPRESSED);
  if ((type & TYPE_SUPER_COMPRESSED) && bits != 1 && bits != 24) type &= ~TYPE_SUPER_COMPRESSED;
  return type;
}

// Section of Size + 31 bytes, Data rounded up to 32.
bool make_flat(BitmapHandle& n, uint64_t bytes) {
  plat::Section s = plat::section_create(bytes + 31);
  if (!s) return false;
  void* view = plat::section_map(s);
  if (!view) {
    plat::section_close(s);
    return false;
  }
  const auto at = reinterpret_cast<uintptr_t>(view);
  const uintptr_t aligned = (at + 31) & ~uintptr_t{31};
  n.StorageHandle = s;
  n.Data = reinterpret_cast<void*>(aligned);
  n.AlignOffset = static_cast<uint32_t>(aligned - at);
  return true;
}

void* view_of(const BitmapHandle& b) { return static_cast<uint8_t*>(b.Data) - b.AlignOffset; }

// Reserve and usable memory from the system status and the settings.
struct Budget {
  uint64_t available = 0, usable = 0;
};
Budget read_budget(const ThreadSettings& s) {
  const plat::MemoryStatus m = plat::memory_status();
  uint64_t reserve = 0;
  if (s.MemoryReserve < 0)
    reserve = (m.total_phys + m.total_page_file) / 100 * static_cast<uint64_t>(-static_cast<int64_t>(s.MemoryReserve));
  else
    reserve = static_cast<uint64_t>(s.MemoryReserve);
  Budget b;
  b.available = m.avail_phys + m.avail_page_file;
  b.usable = reserve > b.available ? 0 : b.available - reserve;
  return b;
}

// Memory-tile count and mapped limit for `count` tiles of `tile_bytes`.
void split_tiles(const ThreadSettings& s, uint64_t count, uint64_t tile_bytes, uint64_t usable, uint64_t* memory,
                 uint64_t* max_mapped) {
  int64_t m = s.MemoryTileLimit;
  if (m < 0) {
    const int32_t r = plat::muldiv(static_cast<int32_t>(count > INT32_MAX ? INT32_MAX : count),
                                   static_cast<int32_t>(-m), 100);
    m = r < 0 ? 0 : r;
  }
  const uint64_t fit = usable / (tile_bytes ? tile_bytes : 1);
  if (fit < static_cast<uint64_t>(m)) m = static_cast<int64_t>(fit);
  int64_t v = 0;
  uint64_t mem = 0;
  if (count > static_cast<uint64_t>(m)) {
    v = s.MappedTileLimit;
    if (v < 0) {
      v = v == -100 ? m : (static_cast<int64_t>(count) - m) * (-v) / (v + 100);
      if (v == 0) v = 1;
    }
    if (v > m) {
      v = m ? m : 1;
      mem = 0;
    } else {
      mem = static_cast<uint64_t>(m - v);
    }
  } else {
    mem = count;
    v = 0;
  }
  *memory = mem;
  *max_mapped = static_cast<uint64_t>(v) < count ? static_cast<uint64_t>(v) : count;
}

// One tiled attempt with tile bytes B.
int32_t try_tiles(BitmapHandle& n, uint64_t tile_bytes, uint64_t usable) {
  if (n.Height < 1 || n.BytesPerLine == 0) return RESULT_NO_BITMAP;
  const uint64_t bpl = n.BytesPerLine;
  const uint64_t rows = (tile_bytes > bpl ? tile_bytes : bpl) / bpl;
  if (rows > UINT32_MAX) return RESULT_FAIL;
  const uint64_t count = (static_cast<uint64_t>(n.Height) + rows - 1) / rows;
  if (count == 0) return RESULT_NO_BITMAP;
  uint64_t memory = 0, mapped = 0;
  split_tiles(settings(), count, tile_bytes, usable, &memory, &mapped);
  tiles::Table* t = nullptr;
  VK_TRY(tiles::build(&n, static_cast<uint32_t>(rows), memory, mapped, &t));
  n.StorageHandle = nullptr;
  n.Data = t;
  return RESULT_OK;
}

// One temp file of Size + 1 bytes (the extra byte is deliberate).
int32_t try_disk(BitmapHandle& n) {
  const uint64_t size = n.Size;
  if (size > INT32_MAX) return RESULT_FAIL;  // file offsets are 32-bit signed
  // The same temp file a disk tile gets (named, created delete-on-close,
  // extended by one byte at size - 1)...
  const VK_FILE f = tiles::make_temp_file(size);
  if (f == -1) return RESULT_FAIL;
  // ...then one zero byte more at Size.
  static const uint8_t zero = 0;
  if (V_OsSeek(f, static_cast<int32_t>(size), VK_SEEK_SET, 0) != static_cast<int32_t>(size)) {
    V_OsClose(f, 0);
    return RESULT_FAIL;
  }
  if (V_OsWrite(f, &zero, 1, 0) != 1) {
    V_OsClose(f, 0);
    return RESULT_WRITE_FAILED;
  }
  V_OsSeek(f, 0, VK_SEEK_SET, 0);
  n.StorageHandle = reinterpret_cast<VK_HANDLE>(f);
  n.Data = nullptr;
  n.Flags |= BITMAP_ON_DISK | BITMAP_ALLOCATED;
  return RESULT_OK;
}

int32_t allocate(BitmapHandle* b, int32_t memory_type) {
  if (!b) return RESULT_BAD_PARAMETER;
  if (b->Size == 0) return RESULT_BAD_AREA;
  if (!sound_geometry(*b)) return RESULT_BAD_PARAMETER;
  // Storage bits are cleared whatever happens; everything else of the
  // record changes only on success.
  b->Flags &= ~kStorageBits;
  int32_t type = normalise_type(memory_type, b->BitsPerPixel);
  if (!valid_type(type)) return RESULT_BAD_PARAMETER;
  // Super-compressed storage has no implementation in this library.
  if (type == TYPE_SUPER_COMPRESSED || type == (TYPE_SUPER_COMPRESSED | TYPE_CONVENTIONAL)) return RESULT_FAIL;

  OsBlock lut(V_OsAlloc(256));
  if (!lut) return RESULT_FAIL;
  auto* table = static_cast<uint8_t*>(lut.get());
  for (int i = 0; i < 256; ++i) table[i] = static_cast<uint8_t>(i);

  BitmapHandle n = *b;
  n.StorageHandle = nullptr;
  n.Data = nullptr;
  n.AlignOffset = 0;
  n.CachedRow = 0;
  n.CachedRowOffset = 0;
  n.PaintLut = table;

  auto commit = [&](uint32_t flags) {
    n.Flags |= flags;
    lut.release();
    *b = n;
    return RESULT_OK;
  };

  if (type == kUser) return commit(BITMAP_IN_MEMORY | BITMAP_ALLOCATED | BITMAP_USER_DATA);

  if (type == (TYPE_COMPRESSED | TYPE_NO_DISK)) {
    VK_TRY(cmp::allocate(&n));
    return commit(BITMAP_IN_MEMORY | BITMAP_ALLOCATED | BITMAP_COMPRESSED);
  }

  const ThreadSettings& s = settings();
  const uint64_t size = n.Size;
  const int64_t tile_setting = s.TileSize;
  Budget budget;
  bool have_budget = false;
  if ((tile_setting >= 1 && size <= static_cast<uint64_t>(tile_setting)) ||
      (tile_setting < 1 && size <= kDefaultTileBytes)) {
    type = (type & ~kTiled) | kFlat;
  } else {
    budget = read_budget(s);
    have_budget = true;
    if (budget.usable < size) {
      type |= kTiled;
    } else if (s.TiledThreshold < 0) {
      const plat::MemoryStatus m = plat::memory_status();
      const uint64_t avail = m.avail_phys + m.avail_page_file;
      if (avail / 100 * static_cast<uint64_t>(-static_cast<int64_t>(s.TiledThreshold)) < size) type |= kTiled;
    } else if (size > static_cast<uint64_t>(s.TiledThreshold)) {
      type |= kTiled;
    }
  }

  if (!(type & (kTiled | kDisk)) && make_flat(n, size)) return commit(BITMAP_IN_MEMORY | BITMAP_ALLOCATED);

  if (!(type & (kNoTiled | kDisk))) {
    if (!have_budget) budget = read_budget(s);
    uint64_t bytes = tile_setting > 0 ? static_cast<uint64_t>(tile_setting) : kDefaultTileBytes;
    for (;;) {
      if (try_tiles(n, bytes, budget.usable) == RESULT_OK)
        return commit(BITMAP_IN_MEMORY | BITMAP_ALLOCATED | BITMAP_TILED);
      if (budget.available < size || !(8 * static_cast<uint64_t>(n.BytesPerLine) < bytes)) break;
      bytes /= 2;
    }
  }

  // A no-disk request stays off disk even when the small-size rule above
  // turned it into a flat-memory request.
  if (!(type & kNoDisk)) {
    const int32_t r = try_disk(n);
    if (r == RESULT_OK) {
      lut.release();
      *b = n;
      return RESULT_OK;
    }
    if (r == RESULT_WRITE_FAILED) return r;
  }
  return RESULT_FAIL;
}

}  // namespace

void release_storage(BitmapHandle* b) {
  const uint32_t f = b->Flags;
  if (!(f & BITMAP_ALLOCATED)) return;
  if (f & BITMAP_USER_DATA) {
    // The caller's pixels stay the caller's; a global block the caller keeps
    // only loses the lock this record held on it.
    if ((f & BITMAP_GLOBAL_MEMORY) && (f & BITMAP_LOCKED) && b->StorageHandle) plat::global_unlock(b->StorageHandle);
    b->Flags &= ~(BITMAP_COMPRESSED | BITMAP_IN_MEMORY | BITMAP_ON_DISK | BITMAP_USER_DATA | BITMAP_GLOBAL_MEMORY |
                  BITMAP_LOCKED);
  } else if (f & BITMAP_COMPRESSED) {
    cmp::free_storage(b);
    b->Flags &= ~(BITMAP_COMPRESSED | BITMAP_IN_MEMORY);
  } else if (f & BITMAP_TILED) {
    tiles::free_table(tiles::table_of(b));
    b->Flags &= ~(BITMAP_TILED | BITMAP_IN_MEMORY);
  } else if (f & BITMAP_SUPER_COMPRESSED) {
    b->Flags &= ~(BITMAP_SUPER_COMPRESSED | BITMAP_IN_MEMORY);
  } else if (f & BITMAP_IN_MEMORY) {
    if (f & BITMAP_GLOBAL_MEMORY) {
      if (b->StorageHandle) {
        if (f & BITMAP_LOCKED) plat::global_unlock(b->StorageHandle);
        plat::global_free(b->StorageHandle);
      }
    } else if (b->StorageHandle) {
      if (b->Data) plat::section_unmap(b->StorageHandle, view_of(*b));
      plat::section_close(b->StorageHandle);
    }
    b->Flags &= ~(BITMAP_IN_MEMORY | BITMAP_GLOBAL_MEMORY | BITMAP_LOCKED);
  } else if (f & BITMAP_ON_DISK) {
    V_OsClose(reinterpret_cast<VK_FILE>(b->StorageHandle), 0);
    b->Flags &= ~BITMAP_ON_DISK;
  }
  b->Flags &= ~BITMAP_ALLOCATED;
  b->StorageHandle = nullptr;
  b->Data = nullptr;
}

int32_t memory_type_of(const BitmapHandle* b) {
  if (b->Flags & BITMAP_COMPRESSED) return TYPE_COMPRESSED;
  if (b->Flags & BITMAP_SUPER_COMPRESSED) return TYPE_SUPER_COMPRESSED;
  if (b->Flags & BITMAP_TILED) return TYPE_TILED;
  if (b->Flags & BITMAP_ON_DISK) return TYPE_DISK;
  return TYPE_CONVENTIONAL;
}

}  // namespace vk::storage

namespace vk::storage {
namespace {

void free_palette(BitmapHandle* b) {
  if (!b->Palette) return;
  if (b->Flags & PALETTE_IS_TABLE)
    V_OsFree(b->Palette);
  else
    plat::palette_delete(b->Palette);
  b->Palette = nullptr;
}

bool lockable_global(const BitmapHandle* b) {
  const uint32_t f = b->Flags;
  return (f & BITMAP_IN_MEMORY) && (f & BITMAP_GLOBAL_MEMORY) && !(f & BITMAP_LOCKED) &&
         !(f & (BITMAP_COMPRESSED | BITMAP_TILED | BITMAP_SUPER_COMPRESSED));
}

void lock_global(BitmapHandle* b) {
  if (!lockable_global(b) || !b->StorageHandle) return;
  void* p = plat::global_lock(b->StorageHandle);
  if (!p) return;
  b->Data = static_cast<uint8_t*>(p) + b->AlignOffset;
  b->Flags |= BITMAP_LOCKED;
}

void unlock_global(BitmapHandle* b) {
  if (!(b->Flags & BITMAP_LOCKED) || !(b->Flags & BITMAP_GLOBAL_MEMORY)) return;
  if (b->StorageHandle) plat::global_unlock(b->StorageHandle);
  b->Data = nullptr;
  b->Flags &= ~BITMAP_LOCKED;
}

// Height change of flat storage: memory, global or disk.
int32_t change_flat_height(BitmapHandle* b, int32_t new_height) {
  const uint64_t size64 = static_cast<uint64_t>(b->BytesPerLine) * static_cast<uint64_t>(new_height) + b->AlignOffset;
  if (size64 > UINT32_MAX) return RESULT_FAIL;
  const auto size = static_cast<uint32_t>(size64);
  if ((b->Flags & BITMAP_IN_MEMORY) && !(b->Flags & BITMAP_GLOBAL_MEMORY)) {
    if (!b->StorageHandle || !b->Data) return RESULT_NO_BITMAP;
    BitmapHandle n = *b;
    if (!make_flat(n, size)) return RESULT_FAIL;
    std::memcpy(n.Data, b->Data, b->Size < size ? b->Size : size);
    plat::section_unmap(b->StorageHandle, view_of(*b));
    plat::section_close(b->StorageHandle);
    b->StorageHandle = n.StorageHandle;
    b->Data = n.Data;
    b->AlignOffset = n.AlignOffset;
  } else if (b->Flags & BITMAP_GLOBAL_MEMORY) {
    if (!b->StorageHandle) return RESULT_NO_BITMAP;
    VK_HGLOBAL h = plat::global_realloc(b->StorageHandle, size, plat::GMEM_MOVEABLE);
    if (!h) return RESULT_FAIL;
    b->StorageHandle = h;
  } else if (b->Flags & BITMAP_ON_DISK) {
    const auto f = reinterpret_cast<VK_FILE>(b->StorageHandle);
    static const uint8_t zero = 0;
    if (size > INT32_MAX) return RESULT_FAIL;
    if (size > b->Size) {
      const auto at = static_cast<int32_t>(size - 1);
      if (V_OsSeek(f, at, VK_SEEK_SET, 0) != at || V_OsWrite(f, &zero, 1, 0) != 1) return RESULT_FAIL;
    } else {
      const auto at = static_cast<int32_t>(size);
      if (V_OsSeek(f, at, VK_SEEK_SET, 0) != at || V_OsWrite(f, &zero, 0, 0) != 0) return RESULT_FAIL;
    }
  } else {
    return RESULT_FAIL;
  }
  b->Size = size;
  b->CachedRow = 0;
  b->CachedRowOffset = 0;
  b->Height = new_height;
  return RESULT_OK;
}

}  // namespace

namespace {

// Adjusts a tiled bitmap in place: memory/disk split, mapped limit, mapped count.
int32_t adjust_tiles(BitmapHandle* b, uint32_t memory_tiles, uint32_t max_mapped, uint32_t mapped, uint32_t which) {
  tiles::Table* t = tiles::table_of(b);
  const uint32_t count = t->tile_count;
  const uint32_t want_memory = (which & MEMINFO_MEMORY_TILES) ? (memory_tiles < count ? memory_tiles : count)
                                                              : t->memory_tile_count;
  const uint32_t saved_max = t->max_mapped_tiles;
  if (which & MEMINFO_MAX_MAPPED) {
    const uint32_t room = count - want_memory;
    t->max_mapped_tiles = max_mapped < room ? max_mapped : room;
  }
  const uint32_t cap = t->max_mapped_tiles;
  const uint32_t want_mapped = (which & MEMINFO_MAPPED) ? (mapped < cap ? mapped : cap)
                                                        : (t->mapped_tile_count < cap ? t->mapped_tile_count : cap);
  // Each conversion is complete or not done at all, so a failure part-way
  // leaves every tile readable with its pixels.
  while (t->memory_tile_count < want_memory) {
    const int32_t r = tiles::disk_to_memory(t, b);
    if (r != RESULT_OK) {
      t->max_mapped_tiles = saved_max;
      return r;
    }
  }
  while (t->memory_tile_count > want_memory) {
    const int32_t r = tiles::memory_to_disk(t, b);
    if (r != RESULT_OK) {
      t->max_mapped_tiles = saved_max;
      return r;
    }
  }
  tiles::set_mapped_count(t, b, want_mapped);
  return RESULT_OK;
}

// Storage of memory type 4 for a rebuild, with explicit tile parameters.
int32_t allocate_tiles_for(BitmapHandle& n, const BitmapHandle* old, uint32_t tile_size, uint32_t total_tiles,
                           uint32_t memory_tiles, uint32_t max_mapped, uint32_t which) {
  const ThreadSettings& s = settings();
  const uint64_t size = n.Size;
  if ((s.TileSize >= 1 && size < static_cast<uint64_t>(s.TileSize)) || (s.TileSize < 1 && size < kDefaultTileBytes))
    return V_AllocateBitmap(&n, TYPE_CONVENTIONAL);
  if (n.Height < 1 || n.BytesPerLine == 0) return RESULT_NO_BITMAP;
  const uint64_t bpl = n.BytesPerLine;
  const tiles::Table* cur = (old->Flags & BITMAP_TILED) ? tiles::table_of(old) : nullptr;
  const uint64_t default_bytes = s.TileSize > 0 ? static_cast<uint64_t>(s.TileSize) : kDefaultTileBytes;
  uint64_t rows;
  if (which & MEMINFO_TILE_SIZE)
    rows = (tile_size > bpl ? tile_size : bpl) / bpl;
  else if ((which & MEMINFO_TOTAL_TILES) && total_tiles > 0)
    rows = (static_cast<uint64_t>(n.Height) + total_tiles - 1) / total_tiles;
  else if (cur)
    rows = cur->rows_per_tile;
  else
    rows = (default_bytes > bpl ? default_bytes : bpl) / bpl;
  if (rows == 0 || rows > UINT32_MAX) return RESULT_BAD_PARAMETER;
  const uint64_t count = (static_cast<uint64_t>(n.Height) + rows - 1) / rows;
  uint64_t memory = 0, limit = 0;
  if (cur) {
    memory = cur->memory_tile_count;
    limit = cur->max_mapped_tiles;
  } else {
    split_tiles(s, count, rows * bpl, read_budget(s).usable, &memory, &limit);
  }
  if (which & MEMINFO_MEMORY_TILES) memory = memory_tiles;
  if (which & MEMINFO_MAX_MAPPED) limit = max_mapped;
  tiles::Table* t = nullptr;
  VK_TRY(tiles::build(&n, static_cast<uint32_t>(rows), memory, limit, &t));
  OsBlock lut(V_OsAlloc(256));
  if (!lut) {
    tiles::free_table(t);
    return RESULT_FAIL;
  }
  n.PaintLut = static_cast<uint8_t*>(lut.release());
  n.StorageHandle = nullptr;
  n.Data = t;
  n.Flags = (n.Flags & ~kStorageBits) | BITMAP_IN_MEMORY | BITMAP_ALLOCATED | BITMAP_TILED;
  return RESULT_OK;
}

// Rebuilds the bitmap's storage in another type, pixels copied row by row.
int32_t rebuild(BitmapHandle* b, int32_t type, uint32_t tile_size, uint32_t total_tiles, uint32_t memory_tiles,
                uint32_t max_mapped, uint32_t mapped, uint32_t which) {
  if (type == TYPE_USER) return RESULT_BAD_PARAMETER;  // no pixels to copy into
  // The new storage is built in a duplicate that shares palette and region
  // with b: only its storage and its own tables are released on the way out.
  op::Scratch scratch;
  scratch.shares(true, true);
  VK_TRY(duplicate_record(scratch.get(), b, b->Width, b->Height, b->BitsPerPixel, false));
  if (type == TYPE_TILED)
    VK_TRY(allocate_tiles_for(*scratch, b, tile_size, total_tiles, memory_tiles, max_mapped, which));
  else
    VK_TRY(V_AllocateBitmap(scratch.get(), type));
  // Reading the rows moves b's row cache; a failed copy puts it back.
  op::CacheGuard cache(b);
  VK_TRY(copy_bitmap_data(scratch.get(), b));
  cache.dismiss();
  // The copy mapped tiles on demand; the mapped count asked for is set last.
  if ((scratch->Flags & BITMAP_TILED) && (which & MEMINFO_MAPPED)) {
    tiles::Table* t = tiles::table_of(scratch.get());
    tiles::set_mapped_count(t, scratch.get(), mapped < t->max_mapped_tiles ? mapped : t->max_mapped_tiles);
  }

  // Commit: only the storage moves into b, which keeps its palette, region
  // and tables; the duplicate's own tables go.
  const BitmapHandle n = scratch.release();
  release_storage(b);
  b->StorageHandle = n.StorageHandle;
  b->Data = n.Data;
  b->Size = n.Size;
  b->AlignOffset = n.AlignOffset;
  b->CachedRow = 0;
  b->CachedRowOffset = 0;
  b->Flags = (b->Flags & ~kStorageBits) | (n.Flags & kStorageBits);
  if (n.PaintLut) V_OsFree(n.PaintLut);
  if (n.GrayLut && n.GrayLut != b->GrayLut) V_OsFree(n.GrayLut);
  return RESULT_OK;
}

}  // namespace
}  // namespace vk::storage

using namespace vk;
using namespace vk::storage;

extern "C" {

VK_API int32_t VK_CALL V_AllocateBitmap(BitmapHandle* bitmap, int32_t memoryType) {
  return api_call([&] { return allocate(bitmap, memoryType); });
}

VK_API void VK_CALL V_FreeBitmap(BitmapHandle* bitmap) {
  api_call_void([&] {
    if (!bitmap) return;
    // A region is an object of the host glue, which keeps its own
    // bookkeeping of regions; the library has no call that destroys one, so
    // the record only lets go of it.
    bitmap->Region = nullptr;
    free_palette(bitmap);
    if (!(bitmap->Flags & BITMAP_ALLOCATED)) return;
    release_storage(bitmap);
    bitmap->Flags &= ~kStorageBits;
    if (bitmap->GrayLut) V_OsFree(bitmap->GrayLut);
    if (bitmap->PaintLut) V_OsFree(bitmap->PaintLut);
    bitmap->GrayLut = nullptr;
    bitmap->PaintLut = nullptr;
  });
}

VK_API void VK_CALL V_AccessBitmap(BitmapHandle* bitmap) {
  if (bitmap) lock_global(bitmap);
}

VK_API void VK_CALL V_ReleaseBitmap(BitmapHandle* bitmap) {
  if (bitmap) unlock_global(bitmap);
}

VK_API int32_t VK_CALL V_LockBitmap(BitmapHandle* bitmap) {
  if (!bitmap) return 0;
  const int32_t was = (bitmap->Flags & BITMAP_LOCKED) ? 1 : 0;
  lock_global(bitmap);
  return was;
}

VK_API void VK_CALL V_UnlockBitmap(BitmapHandle* bitmap, int32_t keepLocked) {
  if (bitmap && keepLocked == 0) unlock_global(bitmap);
}

VK_API int32_t VK_CALL V_SetBitmapDataPointer(BitmapHandle* bitmap, void* data, uint32_t dataSize) {
  if (!bitmap || !(bitmap->Flags & BITMAP_ALLOCATED) || !(bitmap->Flags & BITMAP_USER_DATA) ||
      (bitmap->Flags & BITMAP_GLOBAL_MEMORY))
    return RESULT_BAD_PARAMETER;
  if (data && dataSize != bitmap->Size) return RESULT_BAD_PARAMETER;
  bitmap->Data = data;
  return RESULT_OK;
}

VK_API int32_t VK_CALL V_GetBitmapMemoryInfo(BitmapHandle* bitmap, int32_t* memoryType, uint32_t* tileSize,
                                             uint32_t* totalTiles, uint32_t* memoryTiles, uint32_t* maxMappedTiles,
                                             uint32_t* mappedTiles) {
  if (!bitmap || !(bitmap->Flags & BITMAP_ALLOCATED)) return RESULT_NO_BITMAP;
  if (!memoryType) return RESULT_BAD_PARAMETER;
  if ((bitmap->Flags & (BITMAP_TILED | BITMAP_COMPRESSED)) && !bitmap->Data) return RESULT_NO_BITMAP;
  *memoryType = memory_type_of(bitmap);
  if (*memoryType == TYPE_TILED) {
    const tiles::Table* t = tiles::table_of(bitmap);
    if (tileSize) *tileSize = t->rows_per_tile * bitmap->BytesPerLine;
    if (totalTiles) *totalTiles = t->tile_count;
    if (memoryTiles) *memoryTiles = t->memory_tile_count;
    if (maxMappedTiles) *maxMappedTiles = t->max_mapped_tiles;
    if (mappedTiles) *mappedTiles = t->mapped_tile_count;
  }
  return RESULT_OK;
}

VK_API int32_t VK_CALL V_SetBitmapMemoryInfo(BitmapHandle* bitmap, int32_t memoryType, uint32_t tileSize,
                                             uint32_t totalTiles, uint32_t memoryTiles, uint32_t maxMappedTiles,
                                             uint32_t mappedTiles, uint32_t whichValues) {
  return api_call([&]() -> int32_t {
    int32_t current = 0;
    VK_TRY(V_GetBitmapMemoryInfo(bitmap, &current, nullptr, nullptr, nullptr, nullptr, nullptr));
    const int32_t wanted = (whichValues & MEMINFO_TYPE) ? memoryType : current;
    if (wanted == current) {
      if (!(bitmap->Flags & BITMAP_TILED)) return RESULT_OK;
      const tiles::Table* t = tiles::table_of(bitmap);
      const uint64_t bpl = bitmap->BytesPerLine;
      const bool new_rows = (whichValues & MEMINFO_TILE_SIZE) && bpl != 0 &&
                            (static_cast<uint64_t>(tileSize) + bpl - 1) / bpl != t->rows_per_tile;
      if (!new_rows) return adjust_tiles(bitmap, memoryTiles, maxMappedTiles, mappedTiles, whichValues);
    }
    return rebuild(bitmap, wanted, tileSize, totalTiles, memoryTiles, maxMappedTiles, mappedTiles, whichValues);
  });
}

VK_API int32_t VK_CALL V_ChangeBitmapHeight(BitmapHandle* bitmap, int32_t newHeight) {
  return api_call([&]() -> int32_t {
    if (!bitmap || !(bitmap->Flags & BITMAP_ALLOCATED)) return RESULT_NO_BITMAP;
    if (bitmap->Flags & (BITMAP_USER_DATA | BITMAP_LOCKED)) return RESULT_BAD_PARAMETER;
    if (newHeight == bitmap->Height) return RESULT_OK;
    if (newHeight < 1) return RESULT_BAD_PARAMETER;
    if (bitmap->Flags & BITMAP_COMPRESSED) return cmp::change_height(bitmap, newHeight);
    if (bitmap->Flags & BITMAP_TILED) return tiles::change_height(bitmap, newHeight);
    if (bitmap->Flags & BITMAP_SUPER_COMPRESSED) return RESULT_FAIL;
    return change_flat_height(bitmap, newHeight);
  });
}

VK_API int32_t VK_CALL V_SetMemoryThresholds(int32_t memoryReserve, int32_t tiledThreshold, int32_t tileSize,
                                             int32_t memoryTileLimit, int32_t mappedTileLimit,
                                             uint32_t whichValues) {
  // Tested in bit order; a refused value stops the call, and the values
  // stored before it stay stored.
  const struct {
    uint32_t bit;
    int32_t value, minimum;
    int32_t ThreadSettings::*field;
  } items[] = {
      {THRESHOLD_MEMORY_RESERVE, memoryReserve, -100, &ThreadSettings::MemoryReserve},
      {THRESHOLD_TILED, tiledThreshold, -100, &ThreadSettings::TiledThreshold},
      {THRESHOLD_TILE_SIZE, tileSize, 0, &ThreadSettings::TileSize},
      {THRESHOLD_MEMORY_TILES, memoryTileLimit, -100, &ThreadSettings::MemoryTileLimit},
      {THRESHOLD_MAPPED_TILES, mappedTileLimit, -100, &ThreadSettings::MappedTileLimit},
  };
  ThreadSettings& s = settings();
  for (const auto& item : items) {
    if (!(whichValues & item.bit)) continue;
    if (item.value < item.minimum) return RESULT_BAD_PARAMETER;
    s.*item.field = item.value;
  }
  return RESULT_OK;
}

VK_API void VK_CALL V_GetMemoryThresholds(int32_t* memoryReserve, int32_t* tiledThreshold, int32_t* tileSize,
                                          int32_t* memoryTileLimit, int32_t* mappedTileLimit) {
  const ThreadSettings& s = settings();
  if (memoryReserve) *memoryReserve = s.MemoryReserve;
  if (tiledThreshold) *tiledThreshold = s.TiledThreshold;
  if (tileSize) *tileSize = s.TileSize;
  if (memoryTileLimit) *memoryTileLimit = s.MemoryTileLimit;
  if (mappedTileLimit) *mappedTileLimit = s.MappedTileLimit;
}

VK_API int32_t VK_CALL V_SetTempDirectory(const char* path) {
  if (!path) return RESULT_BAD_PARAMETER;
  const size_t len = std::strlen(path);
  if (len >= VK_MAX_PATH) return RESULT_BAD_PARAMETER;
  const int64_t attributes = plat::file_attributes(path);
  if (attributes == -1 || !(attributes & plat::ATTR_DIRECTORY)) return RESULT_BAD_PARAMETER;
  ThreadSettings& s = settings();
  std::memcpy(s.TempDirectory, path, len + 1);
  return RESULT_OK;
}

VK_API int32_t VK_CALL V_GetTempDirectory(char* buffer, int32_t bufferSize) {
  if (!buffer) return RESULT_BAD_PARAMETER;
  const ThreadSettings& s = settings();
  // At most bufferSize characters: the text is cut (without a terminator)
  // when the buffer is shorter than it.
  for (int32_t i = 0; i < bufferSize && i < VK_MAX_PATH; ++i) {
    buffer[i] = s.TempDirectory[i];
    if (s.TempDirectory[i] == '\0') break;
  }
  return RESULT_OK;
}

}  // extern "C"
