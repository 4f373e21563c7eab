// platform.h - the operating-system layer.
//
// Everything the kernel needs from the system goes through these calls, so
// that a Windows backend can implement them with the real API (sections,
// GlobalAlloc, TlsAlloc, CreateFile, GDI palettes, the screen) and the POSIX
// backend gives the same observable behaviour.  Only this folder talks to the
// system; it is the one place that may use mmap, open, malloc and friends.
//
// Every call that creates something (section, view, global block, file, temp
// name, palette) is a fault-injection point (fault.h): a test can make
// the n-th one fail and check that the caller cleans up.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vkkrn.h"

#if defined(_WIN32)
// windows.h (through vkkrn.h) defines these as macros; the layer's own
// constants below have the same values and take their place.
#  undef GMEM_ZEROINIT
#  undef GMEM_MOVEABLE
#  undef GMEM_SHARE
#  undef CREATE_ALWAYS
#  undef OPEN_EXISTING
#  undef TRUNCATE_EXISTING
#endif

namespace vk::plat {

// ---- paging-file and file-backed sections ---------------------------------
// A section is a mappable object of a fixed byte size.  Paging-file sections
// are committed and zero-filled.  A section has at most one view at a time.
using Section = void*;
Section section_create(uint64_t size);                       // null on failure
Section section_create_for_file(VK_FILE file, uint64_t size); // null on failure
void* section_map(Section s);                                 // whole section, read-write; null on failure
void section_unmap(Section s, void* view);
void section_close(Section s);
uint64_t section_size(Section s);

// ---- movable global memory -------------------------------------------------
// Blocks are movable while unlocked; a lock count is kept.  The handle of a
// locked block can be found again from its address (global_handle).
enum : unsigned { GMEM_ZEROINIT = 0x40, GMEM_MOVEABLE = 0x2, GMEM_SHARE = 0x2000 };
VK_HGLOBAL global_alloc(unsigned flags, size_t size);         // null on failure
void* global_lock(VK_HGLOBAL h);                               // null on failure
bool global_unlock(VK_HGLOBAL h);                              // true while still locked
VK_HGLOBAL global_realloc(VK_HGLOBAL h, size_t size, unsigned flags); // null on failure, h stays valid
VK_HGLOBAL global_free(VK_HGLOBAL h);                         // null on success
size_t global_size(VK_HGLOBAL h);
unsigned global_lock_count(VK_HGLOBAL h);
VK_HGLOBAL global_handle(const void* locked);                  // null if not a block address

// ---- process life cycle ------------------------------------------------------
// Defined by the runtime above this layer and called by the system's entry
// point for the library (DllMain on Windows, a constructor and destructor
// elsewhere), so the layer needs nothing from above but these two names.
void on_process_attach();
void on_process_detach();

// ---- thread-local slot and critical section --------------------------------
// The slot's destructor runs when a thread that stored a non-null value exits
// (plays the part of thread detach; on Windows the entry point brings it).
constexpr uint32_t kNoSlot = 0xFFFFFFFFu;
uint32_t tls_alloc(void (*on_thread_exit)(void*));
void* tls_get(uint32_t slot);
bool tls_set(uint32_t slot, void* value);
void tls_free(uint32_t slot);

// Fully initialised by its constant initialiser, so a global one is set up
// before any constructor function runs and never reset after cs_init.
struct CriticalSection {
  alignas(16) unsigned char storage[64] = {};
  bool initialised = false;
};
void cs_init(CriticalSection& cs);
void cs_enter(CriticalSection& cs);
void cs_leave(CriticalSection& cs);
void cs_delete(CriticalSection& cs);

// ---- files -------------------------------------------------------------------
// Handles are never 5 (the buffer-redirection pseudo handle), never 0 and never
// -1: they are multiples of 4, as on the original platform.
enum : unsigned { ACCESS_READ = 1, ACCESS_WRITE = 2 };
enum : unsigned { SHARE_READ = 1, SHARE_WRITE = 2 };
enum : unsigned { CREATE_ALWAYS = 2, OPEN_EXISTING = 3, TRUNCATE_EXISTING = 5 };
enum : unsigned {
  ATTR_READONLY = 0x1, ATTR_HIDDEN = 0x2, ATTR_SYSTEM = 0x4, ATTR_DIRECTORY = 0x10,
  ATTR_NORMAL = 0x80, ATTR_DELETE_ON_CLOSE = 0x04000000
};
VK_FILE file_open(const char* name, unsigned access, unsigned share, unsigned disposition, unsigned attributes);
int32_t file_read(VK_FILE f, void* buffer, uint32_t count);        // bytes or -1
int32_t file_write(VK_FILE f, const void* buffer, uint32_t count); // bytes or -1
int64_t file_seek(VK_FILE f, int64_t offset, int origin);          // new position or -1
bool file_set_end(VK_FILE f);                                      // cut at the current position
bool file_close(VK_FILE f);
bool file_delete(const char* name);
int64_t file_attributes(const char* name);                         // -1 when it cannot be read
// Unique name "<dir>/<prefix>XXXXXXXX.TMP" (random hex digits); the empty file
// is created, owner-only.  out holds VK_MAX_PATH.
bool temp_name(const char* dir, const char* prefix, char* out);
// A new unique temp file opened for reading and writing that is deleted when
// closed (on POSIX its name is gone at once).  Its name goes to out.
VK_FILE temp_file(const char* dir, const char* prefix, char* out);
void temp_path(char* out);                                         // system temp directory, VK_MAX_PATH

// ---- logical palettes ---------------------------------------------------------
struct PaletteEntry { uint8_t red, green, blue, flags; };
VK_HPALETTE palette_create(const PaletteEntry* entries, uint32_t count); // count 1..256; null on failure
uint32_t palette_count(VK_HPALETTE p);
uint32_t palette_get(VK_HPALETTE p, uint32_t start, uint32_t count, PaletteEntry* out);
uint32_t palette_set(VK_HPALETTE p, uint32_t start, uint32_t count, const PaletteEntry* in);
uint32_t palette_nearest(VK_HPALETTE p, VK_COLORREF color);       // GetNearestPaletteIndex
bool palette_delete(VK_HPALETTE p);

// ---- system description ----------------------------------------------------------
struct MemoryStatus {
  uint64_t total_phys, avail_phys, total_page_file, avail_page_file;
};
MemoryStatus memory_status();

struct ScreenInfo {
  bool palette_device;          // raster caps include RC_PALETTE
  uint32_t palette_size;        // SIZEPALETTE
  uint32_t reserved_colours;    // NUMRESERVED
  int32_t horz_res, vert_res;   // pixels
  int32_t horz_size, vert_size; // millimetres
  RGBQUAD system_palette[256];
};
ScreenInfo screen_info();

// The widest vector kernels this processor runs, read once.  VK_FORCE_GENERIC=1
// in the environment answers `generic`, so every kernel takes its plain path
// (the tests run the palette matching both ways).
enum class Simd { generic, sse2, avx2 };
Simd simd_level();

// Tests replace what the system reports (null restores the real answer).
void override_memory_status(const MemoryStatus* status);
void override_screen_info(const ScreenInfo* info);

// MulDiv: a * b / c rounded to nearest (halves away from zero); -1 when c is 0
// or the result does not fit in 32 bits.
int32_t muldiv(int32_t a, int32_t b, int32_t c);

}  // namespace vk::plat
