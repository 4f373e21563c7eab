// posix_memory.cpp - sections, movable global memory and the memory status.
//
// A paging-file section is an anonymous mapping made when the section is
// created; mapping it hands out that address (so its contents survive an
// unmap/map pair, as a real section's do).  A file section maps the file
// shared, so writes reach the file.  Global blocks carry a small header in
// front of the data: the handle is the header, the locked address is the
// data, and the handle is found again from the address through the header.
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fault.h"
#include "backend.h"
#include "platform.h"
#include "posix_internal.h"

namespace vk::plat {
using vk::fault::Kind;

namespace {
struct SectionObj {
  uint64_t size;
  int fd;          // -1 for a paging-file section
  void* anon;      // the anonymous mapping of a paging-file section
  void* view;      // current view, or null
};

size_t map_length(uint64_t size) { return size ? static_cast<size_t>(size) : 1; }

// Flat bitmap storage is filled a page at a time as it is first written:
// with 4 KiB pages a 72 MB bitmap takes 18000 page faults, more time than
// reading its file.  Large pages make that a few dozen.  A hint only: the
// kernel may decline, and nothing else changes.
void prefer_large_pages(void* p, size_t size) {
  constexpr size_t kLarge = size_t(2) << 20;
  if (size < 2 * kLarge) return;
  const auto begin = (reinterpret_cast<uintptr_t>(p) + kLarge - 1) & ~uintptr_t(kLarge - 1);
  const auto end = (reinterpret_cast<uintptr_t>(p) + size) & ~uintptr_t(kLarge - 1);
  if (end > begin) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}
}  // namespace

Section section_create(uint64_t size) {
  if (size > SIZE_MAX - 4096 || fault::hit(Kind::section)) return nullptr;
  void* p = ::mmap(nullptr, map_length(size), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return nullptr;
  auto* s = static_cast<SectionObj*>(std::calloc(1, sizeof(SectionObj)));
  if (!s) {
    ::munmap(p, map_length(size));
    return nullptr;
  }
  prefer_large_pages(p, map_length(size));
  *s = SectionObj{size, -1, p, nullptr};
  fault::count_live(Kind::section, +1);
  return s;
}

Section section_create_for_file(VK_FILE file, uint64_t size) {
  const int fd = posix::fd_from_file(file);
  if (fd < 0 || size == 0 || fault::hit(Kind::section)) return nullptr;
  auto* s = static_cast<SectionObj*>(std::calloc(1, sizeof(SectionObj)));
  if (!s) return nullptr;
  *s = SectionObj{size, fd, nullptr, nullptr};
  fault::count_live(Kind::section, +1);
  return s;
}

void* section_map(Section h) {
  auto* s = static_cast<SectionObj*>(h);
  if (!s || s->view || fault::hit(Kind::view)) return nullptr;
  if (s->fd < 0) {
    s->view = s->anon;
  } else {
    void* p = ::mmap(nullptr, map_length(s->size), PROT_READ | PROT_WRITE, MAP_SHARED, s->fd, 0);
    if (p == MAP_FAILED) return nullptr;
    s->view = p;
  }
  fault::count_live(Kind::view, +1);
  return s->view;
}

void section_unmap(Section h, void* view) {
  auto* s = static_cast<SectionObj*>(h);
  if (!s || !s->view || view != s->view) return;
  if (s->fd >= 0) ::munmap(s->view, map_length(s->size));
  s->view = nullptr;
  fault::count_live(Kind::view, -1);
}

void section_close(Section h) {
  auto* s = static_cast<SectionObj*>(h);
  if (!s) return;
  if (s->view) section_unmap(s, s->view);
  if (s->anon) ::munmap(s->anon, map_length(s->size));
  std::free(s);
  fault::count_live(Kind::section, -1);
}

uint64_t section_size(Section h) { return h ? static_cast<SectionObj*>(h)->size : 0; }

// ---- global memory ---------------------------------------------------------------
namespace {
constexpr uint32_t kGlobalMagic = 0x474C4F42;  // "GLOB"
// 32 bytes, so the data keeps the heap's 16-byte alignment.
struct GlobalHeader {
  uint32_t magic;
  uint32_t locks;
  uint64_t size;
  uint64_t pad[2];
};
static_assert(sizeof(GlobalHeader) == 32, "header size");

GlobalHeader* header_of(VK_HGLOBAL h) {
  auto* g = static_cast<GlobalHeader*>(h);
  return g && g->magic == kGlobalMagic ? g : nullptr;
}
}  // namespace

VK_HGLOBAL global_alloc(unsigned flags, size_t size) {
  if (size > SIZE_MAX - sizeof(GlobalHeader) || fault::hit(Kind::global)) return nullptr;
  void* p = (flags & GMEM_ZEROINIT) ? std::calloc(1, sizeof(GlobalHeader) + size)
                                    : std::malloc(sizeof(GlobalHeader) + size);
  if (!p) return nullptr;
  auto* g = static_cast<GlobalHeader*>(p);
  g->magic = kGlobalMagic;
  g->locks = 0;
  g->size = size;
  fault::count_live(Kind::global, +1);
  return g;
}

void* global_lock(VK_HGLOBAL h) {
  GlobalHeader* g = header_of(h);
  if (!g) return nullptr;
  ++g->locks;
  return g + 1;
}

bool global_unlock(VK_HGLOBAL h) {
  GlobalHeader* g = header_of(h);
  if (!g) return false;
  if (g->locks) --g->locks;
  return g->locks != 0;
}

VK_HGLOBAL global_realloc(VK_HGLOBAL h, size_t size, unsigned flags) {
  GlobalHeader* g = header_of(h);
  if (!g || size > SIZE_MAX - sizeof(GlobalHeader) || fault::hit(Kind::global)) return nullptr;
  const size_t old = g->size;
  void* p = std::realloc(g, sizeof(GlobalHeader) + size);
  if (!p) return nullptr;
  g = static_cast<GlobalHeader*>(p);
  if ((flags & GMEM_ZEROINIT) && size > old) std::memset(reinterpret_cast<uint8_t*>(g + 1) + old, 0, size - old);
  g->size = size;
  return g;
}

VK_HGLOBAL global_free(VK_HGLOBAL h) {
  GlobalHeader* g = header_of(h);
  if (!g) return h;
  g->magic = 0;
  std::free(g);
  fault::count_live(Kind::global, -1);
  return nullptr;
}

size_t global_size(VK_HGLOBAL h) {
  GlobalHeader* g = header_of(h);
  return g ? g->size : 0;
}

unsigned global_lock_count(VK_HGLOBAL h) {
  GlobalHeader* g = header_of(h);
  return g ? g->locks : 0;
}

VK_HGLOBAL global_handle(const void* locked) {
  if (!locked) return nullptr;
  auto* g = reinterpret_cast<GlobalHeader*>(const_cast<uint8_t*>(static_cast<const uint8_t*>(locked))) - 1;
  return g->magic == kGlobalMagic ? g : nullptr;
}

// ---- memory status ---------------------------------------------------------------
namespace {
uint64_t meminfo_kib(const char* key) {
  FILE* f = std::fopen("/proc/meminfo", "r");
  if (!f) return 0;
  char line[256];
  uint64_t value = 0;
  const size_t n = std::strlen(key);
  while (std::fgets(line, sizeof line, f)) {
    if (std::strncmp(line, key, n) == 0 && line[n] == ':') {
      value = std::strtoull(line + n + 1, nullptr, 10);
      break;
    }
  }
  std::fclose(f);
  return value;
}
}  // namespace

MemoryStatus backend::memory_status() {
  MemoryStatus m{};
  struct sysinfo si {};
  if (::sysinfo(&si) == 0) {
    const uint64_t unit = si.mem_unit ? si.mem_unit : 1;
    m.total_phys = si.totalram * unit;
    m.avail_phys = (si.freeram + si.bufferram) * unit;
    m.total_page_file = si.totalswap * unit;
    m.avail_page_file = si.freeswap * unit;
  }
  if (const uint64_t avail = meminfo_kib("MemAvailable")) m.avail_phys = avail * 1024;
  return m;
}

}  // namespace vk::plat
