// alloc.cpp - the library's allocators.
//
// V_Malloc family: the ordinary process heap.  V_Os family: movable global
// memory kept locked for its whole life, so the pointer stays valid and the
// block's handle can be found from it (the bitmap-list and palette code rely
// on that).  Both are fault-injection points and keep a live count.
#include <cstdlib>
#include <cstring>

#include "core.h"
#include "platform.h"

using vk::fault::Kind;

extern "C" {

VK_API void* VK_CALL V_Malloc(size_t size) {
  if (vk::fault::hit(Kind::heap)) return nullptr;
  void* p = std::malloc(size ? size : 1);
  if (p) vk::fault::count_live(Kind::heap, +1);
  return p;
}

VK_API void* VK_CALL V_Calloc(size_t count, size_t size) {
  if (vk::fault::hit(Kind::heap)) return nullptr;
  if (count == 0 || size == 0) count = size = 1;
  void* p = std::calloc(count, size);
  if (p) vk::fault::count_live(Kind::heap, +1);
  return p;
}

VK_API void* VK_CALL V_Realloc(void* pointer, size_t size) {
  if (!pointer) return V_Malloc(size);
  if (vk::fault::hit(Kind::heap)) return nullptr;
  return std::realloc(pointer, size ? size : 1);
}

VK_API void VK_CALL V_Free(void* pointer) {
  if (!pointer) return;
  vk::fault::count_live(Kind::heap, -1);
  std::free(pointer);
}

VK_API void* VK_CALL V_OsAllocInit(size_t size, int32_t zeroFill) {
  unsigned flags = vk::plat::GMEM_MOVEABLE | vk::plat::GMEM_SHARE;
  if (zeroFill) flags |= vk::plat::GMEM_ZEROINIT;
  VK_HGLOBAL h = vk::plat::global_alloc(flags, size);
  if (!h) return nullptr;
  void* p = vk::plat::global_lock(h);
  if (!p) vk::plat::global_free(h);
  return p;
}

VK_API void* VK_CALL V_OsAlloc(size_t size) { return V_OsAllocInit(size, 0); }

static void* os_realloc(void* pointer, size_t size, unsigned flags) {
  if (!pointer) return V_OsAllocInit(size, (flags & vk::plat::GMEM_ZEROINIT) != 0);
  VK_HGLOBAL h = vk::plat::global_handle(pointer);
  if (!h) return nullptr;
  vk::plat::global_unlock(h);
  VK_HGLOBAL n = vk::plat::global_realloc(h, size, flags);
  if (!n) {
    // The old block is still there and did not move: lock it again so the
    // caller's pointer stays valid.
    vk::plat::global_lock(h);
    return nullptr;
  }
  return vk::plat::global_lock(n);
}

VK_API void* VK_CALL V_OsReAlloc(void* pointer, size_t size) {
  return os_realloc(pointer, size, vk::plat::GMEM_MOVEABLE);
}

VK_API void* VK_CALL V_OsReAllocInit(void* pointer, size_t size) {
  return os_realloc(pointer, size, vk::plat::GMEM_MOVEABLE | vk::plat::GMEM_ZEROINIT);
}

VK_API int32_t VK_CALL V_OsFree(void* pointer) {
  if (!pointer) return 0;
  VK_HGLOBAL h = vk::plat::global_handle(pointer);
  if (!h) return 0;
  vk::plat::global_unlock(h);
  vk::plat::global_free(h);
  return 0;
}

VK_API void* VK_CALL V_MallocDump(size_t size, const char*, int32_t) { return V_Malloc(size); }
VK_API void* VK_CALL V_CallocDump(size_t count, size_t size, const char*, int32_t) { return V_Calloc(count, size); }
VK_API void* VK_CALL V_ReallocDump(void* pointer, size_t size, const char*, int32_t) { return V_Realloc(pointer, size); }
VK_API void VK_CALL V_FreeDump(void* pointer, const char*, int32_t) { V_Free(pointer); }
VK_API void* VK_CALL V_OsAllocDump(size_t size, const char*, int32_t) { return V_OsAlloc(size); }
VK_API void* VK_CALL V_OsAllocInitDump(size_t size, int32_t zeroFill, const char*, int32_t) {
  return V_OsAllocInit(size, zeroFill);
}
VK_API void* VK_CALL V_OsReAllocDump(void* pointer, size_t size, const char*, int32_t) {
  return V_OsReAlloc(pointer, size);
}
VK_API void* VK_CALL V_OsReAllocInitDump(void* pointer, size_t size, const char*, int32_t) {
  return V_OsReAllocInit(pointer, size);
}
VK_API int32_t VK_CALL V_OsFreeDump(void* pointer, const char*, int32_t) { return V_OsFree(pointer); }
VK_API void VK_CALL V_DumpMemoryReport(uint32_t) {}

}  // extern "C"
