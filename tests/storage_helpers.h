// storage_helpers.h - shared pieces of the storage, row and copy tests: a
// fixture with a private temp directory, fixed memory status and saved
// thresholds; pattern fill and check through row access; hand-made
// global-memory bitmaps; the fault sweep loop.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "core.h"
#include "fault_sweep.h"
#include "platform.h"
#if !defined(_WIN32)
#include "posix_internal.h"
#endif

namespace vkt {

namespace fs = std::filesystem;

// Byte of the test pattern at (row, byte).
inline uint8_t pattern(uint32_t row, uint32_t i, uint32_t seed = 0) {
  return static_cast<uint8_t>(row * 31u + i * 7u + (i >> 8) + seed * 13u + 1u);
}

inline BitmapHandle init(int32_t width, int32_t height, int32_t bits) {
  BitmapHandle b;
  std::memset(&b, 0, sizeof b);
  EXPECT_EQ(V_InitBitmap(&b, width, height, bits), RESULT_OK);
  return b;
}

// Writes the pattern into every row through V_PutBitmapRow.
inline void fill(BitmapHandle* b, uint32_t seed = 0) {
  std::vector<uint8_t> row(b->BytesPerLine);
  for (int32_t r = 0; r < b->Height; ++r) {
    for (uint32_t i = 0; i < b->BytesPerLine; ++i) row[i] = pattern(static_cast<uint32_t>(r), i, seed);
    ASSERT_EQ(V_PutBitmapRow(b, row.data(), static_cast<uint32_t>(r), static_cast<int32_t>(b->BytesPerLine)),
              static_cast<int32_t>(b->BytesPerLine))
        << "row " << r;
  }
}

// Rows [from, to) hold the pattern.
inline ::testing::AssertionResult holds_pattern(BitmapHandle* b, uint32_t seed = 0, int32_t from = 0, int32_t to = -1) {
  if (to < 0) to = b->Height;
  std::vector<uint8_t> row(b->BytesPerLine);
  for (int32_t r = from; r < to; ++r) {
    const int32_t n = V_GetBitmapRow(b, row.data(), static_cast<uint32_t>(r), static_cast<int32_t>(b->BytesPerLine));
    if (n != static_cast<int32_t>(b->BytesPerLine)) return ::testing::AssertionFailure() << "row " << r << " read " << n;
    for (uint32_t i = 0; i < b->BytesPerLine; ++i)
      if (row[i] != pattern(static_cast<uint32_t>(r), i, seed))
        return ::testing::AssertionFailure() << "row " << r << " byte " << i;
  }
  return ::testing::AssertionSuccess();
}

inline size_t files_in(const std::string& dir) {
  size_t n = 0;
  for (auto it = fs::directory_iterator(dir); it != fs::directory_iterator(); ++it) ++n;
  return n;
}

// On POSIX temp files lose their names as soon as they are open; Windows
// deletes them when they are closed (or the process ends).
#if defined(_WIN32)
constexpr size_t kNamedTempFiles = 1;
#else
constexpr size_t kNamedTempFiles = 0;
#endif

// Temp files lose their names as soon as they are open, so what a bitmap
// holds is seen through its handles: the open-file count and the size of
// its disk file.
inline long open_files() { return vk::fault::live(vk::fault::Kind::file); }

inline uintmax_t disk_file_size(const BitmapHandle& b) {
#if defined(_WIN32)
  LARGE_INTEGER size;
  return GetFileSizeEx(b.StorageHandle, &size) ? static_cast<uintmax_t>(size.QuadPart) : 0;
#else
  struct stat st;
  const int fd = vk::plat::posix::fd_from_file(reinterpret_cast<VK_FILE>(b.StorageHandle));
  return fd >= 0 && fstat(fd, &st) == 0 ? static_cast<uintmax_t>(st.st_size) : 0;
#endif
}

// A new empty directory in the system's temp directory.
inline std::string make_temp_dir() {
  const fs::path base = fs::temp_directory_path();
  for (unsigned n = 0;; ++n) {
    const fs::path dir = base / ("vkstore" + std::to_string(rand()) + "_" + std::to_string(n));
    std::error_code ec;
    if (fs::create_directory(dir, ec)) return dir.string();
    if (ec || n > 1000) return {};
  }
}

inline int32_t memory_type(BitmapHandle* b) {
  int32_t t = 0;
  EXPECT_EQ(V_GetBitmapMemoryInfo(b, &t, nullptr, nullptr, nullptr, nullptr, nullptr), RESULT_OK);
  return t;
}

struct TileInfo {
  int32_t type = 0;
  uint32_t tile_size = 0, total = 0, memory = 0, max_mapped = 0, mapped = 0;
};
inline TileInfo tile_info(BitmapHandle* b) {
  TileInfo i;
  EXPECT_EQ(V_GetBitmapMemoryInfo(b, &i.type, &i.tile_size, &i.total, &i.memory, &i.max_mapped, &i.mapped), RESULT_OK);
  return i;
}

// A global-memory bitmap made by hand, as the conversion from a
// device-independent bitmap leaves it: pixels `offset` bytes into a movable
// block, unlocked.
inline BitmapHandle global_bitmap(int32_t width, int32_t height, int32_t bits, uint32_t offset) {
  BitmapHandle b = init(width, height, bits);
  VK_HGLOBAL h = vk::plat::global_alloc(vk::plat::GMEM_MOVEABLE | vk::plat::GMEM_ZEROINIT, b.Size + offset);
  EXPECT_NE(h, nullptr);
  b.StorageHandle = h;
  b.AlignOffset = offset;
  b.Flags = BITMAP_ALLOCATED | BITMAP_IN_MEMORY | BITMAP_GLOBAL_MEMORY;
  return b;
}

// Display-table hooks (entry, function) installed for the object's
// lifetime; entry 0 marks the table as present.
inline int32_t VK_CALL present_hook() { return RESULT_OK; }
template <class F>
VK_DISPATCHPROC hook(F* f) {
  return reinterpret_cast<VK_DISPATCHPROC>(reinterpret_cast<void (*)()>(f));
}
class Hooks {
 public:
  Hooks(std::initializer_list<std::pair<int, VK_DISPATCHPROC>> entries) {
    VK_DISPATCHPROC table[VK_DISPATCH_ENTRIES] = {present_hook};
    for (const auto& [i, f] : entries) table[i] = f;
    EXPECT_EQ(V_SetDisDispatch(table), RESULT_OK);
  }
  ~Hooks() {
    VK_DISPATCHPROC none[VK_DISPATCH_ENTRIES] = {};
    V_SetDisDispatch(none);
  }
  Hooks(const Hooks&) = delete;
  Hooks& operator=(const Hooks&) = delete;
};

// Every test runs with its own temp directory, a generous fixed memory
// status and the initial thresholds, and must give back every block,
// section and file it made.
class StorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = make_temp_dir();
    ASSERT_FALSE(dir_.empty());
    ASSERT_EQ(V_GetTempDirectory(saved_dir_, VK_MAX_PATH), RESULT_OK);
    ASSERT_EQ(V_SetTempDirectory(dir_.c_str()), RESULT_OK);
    V_GetMemoryThresholds(&saved_[0], &saved_[1], &saved_[2], &saved_[3], &saved_[4]);
    ASSERT_EQ(V_SetMemoryThresholds(0, 0x7FFFFFFF, 0, -100, 1, 31), RESULT_OK);
    set_memory(uint64_t{8} << 30, uint64_t{4} << 30);
    baseline_ = vk::fault::live_total();
    files_base_ = open_files();
  }
  // Temp files the bitmaps of the test hold open.
  size_t temp_files() const { return static_cast<size_t>(open_files() - files_base_); }
  void TearDown() override {
    vk::fault::disarm();
    EXPECT_EQ(vk::fault::live_total(), baseline_) << "blocks, sections or files left behind";
    EXPECT_EQ(files_in(dir_), 0u) << "temp files left behind";
    V_SetMemoryThresholds(saved_[0], saved_[1], saved_[2], saved_[3], saved_[4], 31);
    V_SetTempDirectory(saved_dir_);
    vk::plat::override_memory_status(nullptr);
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

  // Physical + paging file, each side reported as total and available.
  void set_memory(uint64_t total_each, uint64_t avail_each) {
    status_ = {total_each, avail_each, total_each, avail_each};
    vk::plat::override_memory_status(&status_);
  }

  // Tiny tiles: `rows` rows of `bpl` bytes per tile, no memory tiles, at
  // most `mapped` temp-file tiles mapped.
  void tiny_tiles(uint32_t bpl, uint32_t rows, int32_t memory_tiles = 0, int32_t mapped = 1) {
    ASSERT_EQ(V_SetMemoryThresholds(0, 0, static_cast<int32_t>(bpl * rows), memory_tiles, mapped,
                                    THRESHOLD_TILED | THRESHOLD_TILE_SIZE | THRESHOLD_MEMORY_TILES |
                                        THRESHOLD_MAPPED_TILES),
              RESULT_OK);
  }

  // The fault sweep, which also finds the temp directory empty after
  // every run.
  void sweep(const std::function<void()>& prepare, const std::function<int32_t()>& op,
             const std::function<void(const SweepRun&)>& check) {
    fault_sweep(prepare, op, [&](const SweepRun& run) {
      check(run);
      EXPECT_EQ(files_in(dir_), 0u);
    });
  }

  std::string dir_;
  long baseline_ = 0;
  long files_base_ = 0;

 private:
  char saved_dir_[VK_MAX_PATH] = {};
  int32_t saved_[5] = {};
  vk::plat::MemoryStatus status_{};
};

}  // namespace vkt
