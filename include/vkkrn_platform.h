/*
 * vkkrn_platform.h - the few platform objects a caller on a system without
 * the original platform needs in order to hand the kernel what its interface
 * takes: movable global-memory blocks (device-independent bitmaps, bitmap
 * lists, buffers given to I/O redirection that the library may grow) and
 * logical palette handles (the non-table form of a bitmap's palette).
 *
 * They are the same objects the kernel makes itself, so a block or palette
 * made here can be given to the V_ calls and one returned by them can be
 * read and released here.  C99.
 */
#ifndef VKKRN_PLATFORM_H
#define VKKRN_PLATFORM_H

#include "vkkrn.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Global-memory allocation flags (combine with |). */
#define VKP_GMEM_MOVEABLE  0x0002u
#define VKP_GMEM_ZEROINIT  0x0040u
#define VKP_GMEM_SHARE     0x2000u

/* A block of size bytes; null on failure. */
VK_API VK_HGLOBAL VK_CALL VKP_GlobalAlloc(uint32_t flags, size_t size);
/* Locks the block (the lock count grows) and returns its address; null on failure. */
VK_API void*      VK_CALL VKP_GlobalLock(VK_HGLOBAL block);
/* Drops one lock; non-zero while the block is still locked. */
VK_API int32_t    VK_CALL VKP_GlobalUnlock(VK_HGLOBAL block);
/* Frees the block; null on success, the block itself on failure. */
VK_API VK_HGLOBAL VK_CALL VKP_GlobalFree(VK_HGLOBAL block);
/* Bytes in the block; 0 for an invalid block. */
VK_API size_t     VK_CALL VKP_GlobalSize(VK_HGLOBAL block);
/* Resizes an unlocked block; the new handle, or null (the old block stays valid). */
VK_API VK_HGLOBAL VK_CALL VKP_GlobalReAlloc(VK_HGLOBAL block, size_t size, uint32_t flags);

/* A logical palette of count (1-256) entries; the reserved bytes are ignored.
 * Null on failure. */
VK_API VK_HPALETTE VK_CALL VKP_CreatePalette(const RGBQUAD* entries, uint32_t count);
/* Non-zero when the palette was deleted. */
VK_API int32_t     VK_CALL VKP_DeletePalette(VK_HPALETTE palette);
/* Copies up to count entries from start into out and returns how many were
 * copied; with a null out, returns the palette's number of entries. */
VK_API uint32_t    VK_CALL VKP_GetPaletteEntries(VK_HPALETTE palette, uint32_t start, uint32_t count, RGBQUAD* out);

#ifdef __cplusplus
}
#endif

#endif /* VKKRN_PLATFORM_H */
