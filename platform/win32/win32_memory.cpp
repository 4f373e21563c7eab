// win32_memory.cpp - sections, movable global memory and the memory status
// over the system's own calls.
//
// A section is a file mapping: backed by the paging file, or by an open file
// so that writes through the view reach the file.  Global blocks are the
// system's: the handle a caller gets is an HGLOBAL it can lock, size and
// free with the system's calls.
#include <windows.h>

#include "backend.h"
#include "fault.h"
#include "platform.h"
#include "win32_internal.h"

namespace vk::plat {
using vk::fault::Kind;

namespace {
struct SectionObj {
  HANDLE mapping;
  uint64_t size;
  void* view;  // current view, or null
};

SectionObj* new_section(HANDLE file, uint64_t size) {
  // A paging-file section cannot be empty; one byte stands in for none.
  const uint64_t length = size ? size : 1;
  HANDLE m = CreateFileMappingA(file, nullptr, PAGE_READWRITE, static_cast<DWORD>(length >> 32),
                                static_cast<DWORD>(length), nullptr);
  if (!m) return nullptr;
  auto* s = static_cast<SectionObj*>(HeapAlloc(GetProcessHeap(), 0, sizeof(SectionObj)));
  if (!s) {
    CloseHandle(m);
    return nullptr;
  }
  *s = SectionObj{m, size, nullptr};
  fault::count_live(Kind::section, +1);
  return s;
}
}  // namespace

Section section_create(uint64_t size) {
  if (size > SIZE_MAX - 4096 || fault::hit(Kind::section)) return nullptr;
  return new_section(INVALID_HANDLE_VALUE, size);
}

Section section_create_for_file(VK_FILE file, uint64_t size) {
  if (file == 0 || file == -1 || size == 0 || fault::hit(Kind::section)) return nullptr;
  return new_section(win32::handle_of(file), size);
}

void* section_map(Section h) {
  auto* s = static_cast<SectionObj*>(h);
  if (!s || s->view || fault::hit(Kind::view)) return nullptr;
  void* p = MapViewOfFile(s->mapping, FILE_MAP_WRITE, 0, 0, 0);
  if (!p) return nullptr;
  s->view = p;
  fault::count_live(Kind::view, +1);
  return p;
}

void section_unmap(Section h, void* view) {
  auto* s = static_cast<SectionObj*>(h);
  if (!s || !s->view || view != s->view) return;
  UnmapViewOfFile(s->view);
  s->view = nullptr;
  fault::count_live(Kind::view, -1);
}

void section_close(Section h) {
  auto* s = static_cast<SectionObj*>(h);
  if (!s) return;
  if (s->view) section_unmap(s, s->view);
  CloseHandle(s->mapping);
  HeapFree(GetProcessHeap(), 0, s);
  fault::count_live(Kind::section, -1);
}

uint64_t section_size(Section h) { return h ? static_cast<SectionObj*>(h)->size : 0; }

// ---- global memory ---------------------------------------------------------------

VK_HGLOBAL global_alloc(unsigned flags, size_t size) {
  if (fault::hit(Kind::global)) return nullptr;
  HGLOBAL g = GlobalAlloc(flags, size);
  if (g) fault::count_live(Kind::global, +1);
  return g;
}

void* global_lock(VK_HGLOBAL h) { return h ? GlobalLock(h) : nullptr; }

bool global_unlock(VK_HGLOBAL h) { return h && GlobalUnlock(h); }

VK_HGLOBAL global_realloc(VK_HGLOBAL h, size_t size, unsigned flags) {
  if (!h || fault::hit(Kind::global)) return nullptr;
  return GlobalReAlloc(h, size, flags & (GMEM_MOVEABLE | GMEM_ZEROINIT));
}

VK_HGLOBAL global_free(VK_HGLOBAL h) {
  if (!h) return h;
  HGLOBAL r = GlobalFree(h);
  if (!r) fault::count_live(Kind::global, -1);
  return r;
}

size_t global_size(VK_HGLOBAL h) { return h ? GlobalSize(h) : 0; }

unsigned global_lock_count(VK_HGLOBAL h) {
  if (!h) return 0;
  const UINT flags = GlobalFlags(h);
  return flags == GMEM_INVALID_HANDLE ? 0 : (flags & GMEM_LOCKCOUNT);
}

VK_HGLOBAL global_handle(const void* locked) { return locked ? GlobalHandle(locked) : nullptr; }

// ---- memory status ---------------------------------------------------------------

MemoryStatus backend::memory_status() {
  MEMORYSTATUS ms{};
  ms.dwLength = sizeof ms;
  GlobalMemoryStatus(&ms);
  return MemoryStatus{ms.dwTotalPhys, ms.dwAvailPhys, ms.dwTotalPageFile, ms.dwAvailPageFile};
}

}  // namespace vk::plat
