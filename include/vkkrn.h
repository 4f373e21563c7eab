/*
 * vkkrn.h - public interface of the VKKRN13N raster-imaging kernel.
 *
 * A flat C interface: every function takes a caller-owned BitmapHandle (or
 * plain buffers) and reports failure through a returned result code.  Nothing
 * throws.  The header is C99-compatible.
 *
 * Width rule: fields and arguments that are 32-bit on the original platform
 * stay 32-bit here (int32_t / uint32_t); pointers, handles, callbacks and
 * user-data words are pointer-sized.  A 32-bit build therefore has the exact
 * 39-word BitmapHandle (156 bytes) and the 104-byte VersionInfo.
 *
 * Sections follow the library's folders, lowest layer first:
 *   1. platform/  operating-system objects passed through the interface
 *   2. core/      result codes, the bitmap record, runtime, storage, rows,
 *                 compressed rows, files and redirection, bitmap lists
 *   3. host/      dispatch tables of the display and file modules
 *   4. color/     palettes, bitmap creation, gray parameters, row conversion,
 *                 grayscale, pixel access, DIBs in, alpha channel out
 *   5. reduce/    palette lookup, dithering, colour count, optimised
 *                 palettes, colour resolution
 *   6. geometry/  duplication, copies, orientation, turns, shear, trim, DIBs out,
 *                 alpha channel in
 *
 * How to read the comments:
 *   Returns   every value the call can give; RESULT_OK is 1 and every
 *             failure code is negative.
 *   Borrowed  the library uses the pointer during the call only (or, where
 *             stated, while something is installed) and never frees it.
 *   Row loop  a call that walks every row reports progress through the
 *             thread's status callback (copies: the copy status callback);
 *             a callback result other than RESULT_OK stops it, and that
 *             value is returned unchanged.
 *   Row I/O   RESULT_SEEK_FAILED, RESULT_READ_FAILED, RESULT_WRITE_FAILED:
 *             failures of disk-backed storage (temp files, disk tiles).
 *   Failure   an operation on a whole bitmap changes the caller's record
 *             only when it succeeds, unless its comment says otherwise.
 */
#ifndef VKKRN_H
#define VKKRN_H

#include <stddef.h>
#include <stdint.h>

/* 32-bit Windows: the system's standard calling convention (callee pops the
 * arguments; VKKRN13N.dll exports the undecorated names).  64-bit Windows has
 * one calling convention.  On Windows the module definition generated from
 * this header at build time lists the exports, so VK_API marks nothing. */
#if defined(_WIN32)
#  if defined(_WIN64)
#    define VK_CALL
#  else
#    define VK_CALL __stdcall
#  endif
#  define VK_API
#else
#  define VK_CALL
#  if defined(VKKRN_BUILD)
#    define VK_API __attribute__((visibility("default")))
#  else
#    define VK_API
#  endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ===================================================================== */
/* 1. platform/ - operating-system objects passed through the interface  */
/* ===================================================================== */
/* No V_ function lives in platform/: the objects it makes are exported
 * through vkkrn_platform.h (VKP_ calls). */

/* Opaque platform objects.  All are pointer-sized. */
typedef void* VK_HANDLE;   /* generic handle: sections, storage owners     */
typedef void* VK_HGLOBAL;  /* movable global-memory block                  */
typedef void* VK_HPALETTE; /* platform logical palette                     */
typedef void* VK_HRGN;     /* clip region (owned by the host glue)         */
typedef intptr_t VK_FILE;  /* file handle; -1 (all ones) is failure        */

/* Palette entry: blue, green, red, reserved. */
#if !defined(_WIN32)
typedef struct tagRGBQUAD {
  uint8_t rgbBlue;
  uint8_t rgbGreen;
  uint8_t rgbRed;
  uint8_t rgbReserved;
} RGBQUAD;
#else
#  include <windows.h>
#endif

/* Colour value 0x00BBGGRR. */
typedef uint32_t VK_COLORREF;
#define VK_RGB(r, g, b) ((VK_COLORREF)(((uint32_t)(uint8_t)(r)) | ((uint32_t)(uint8_t)(g) << 8) | ((uint32_t)(uint8_t)(b) << 16)))

#define VK_MAX_PATH 260

/* ===================================================================== */
/* 2. core/ - the bitmap record, runtime, storage, rows, files, lists    */
/* ===================================================================== */

/* Result codes. */
#define RESULT_OK                     1
#define RESULT_FAIL                 (-1)
#define RESULT_NO_BITMAP            (-2)
#define RESULT_SEEK_FAILED          (-4)
#define RESULT_WRITE_FAILED         (-5)
#define RESULT_READ_FAILED          (-7)
#define RESULT_BAD_AREA            (-11)
#define RESULT_BAD_PARAMETER       (-13)
#define RESULT_BAD_FORMAT          (-16)
#define RESULT_BAD_BITS_PER_PIXEL  (-27)
#define RESULT_NOT_SET             (-30)
#define RESULT_TEMP_FILE_FAILED   (-295)
#define RESULT_HOTKEY_FAILED      (-312)
#define RESULT_HOTKEY_WINDOW_FAILED (-313)

/* Memory types. */
#define TYPE_CONVENTIONAL        1
#define TYPE_USER                2
#define TYPE_TILED               4
#define TYPE_NO_TILED            8
#define TYPE_DISK              128
#define TYPE_NO_DISK           256
#define TYPE_COMPRESSED        512
#define TYPE_SUPER_COMPRESSED 1024

/* BitmapHandle.Flags */
#define BITMAP_ALLOCATED         0x1u
#define BITMAP_IN_MEMORY         0x2u
#define BITMAP_ON_DISK           0x4u
#define BITMAP_LOCKED            0x10u
#define BITMAP_PLAYBACK_FLAG1    0x40u
#define BITMAP_PLAYBACK_FLAG2    0x80u
#define BITMAP_COMPRESSED        0x100u
#define BITMAP_USER_DATA         0x400u
#define BITMAP_GRAY_FLAG         0x800u
#define BITMAP_GLOBAL_MEMORY     0x1000u
#define BITMAP_TILED             0x4000u
#define BITMAP_SUPER_COMPRESSED  0x8000u
#define PALETTE_IS_TABLE         0x20000u

/* Colour orders. */
#define ORDER_RGB      0
#define ORDER_BGR      1
#define ORDER_GRAY     2
#define ORDER_BGR_ALT  5

/* V_SetMemoryThresholds whichValues bits. */
#define THRESHOLD_MEMORY_RESERVE   1u
#define THRESHOLD_TILED            2u
#define THRESHOLD_TILE_SIZE        4u
#define THRESHOLD_MEMORY_TILES     8u
#define THRESHOLD_MAPPED_TILES    16u

/* V_SetBitmapMemoryInfo whichValues bits. */
#define MEMINFO_TYPE           1u
#define MEMINFO_TILE_SIZE      2u
#define MEMINFO_TOTAL_TILES    4u
#define MEMINFO_MEMORY_TILES   8u
#define MEMINFO_MAX_MAPPED    16u
#define MEMINFO_MAPPED        32u

/* V_OsOpen flags and permissions; seek origins. */
#define VK_O_RDONLY   0x0
#define VK_O_WRONLY   0x1
#define VK_O_RDWR     0x2
#define VK_O_CREAT    0x100
#define VK_O_TRUNC    0x200
#define VK_S_IREAD    0x100
#define VK_S_IWRITE   0x80
#define VK_SEEK_SET   0
#define VK_SEEK_CUR   1
#define VK_SEEK_END   2

/* V_OsCreat mode bits. */
#define VK_CREAT_READONLY        1
#define VK_CREAT_HIDDEN          2
#define VK_CREAT_SYSTEM          4
#define VK_CREAT_DELETE_ON_CLOSE 8

/* Buffer redirection flags. */
#define REDIRECT_GROW       1u
#define REDIRECT_SHRINK     2u
#define REDIRECT_READ_ONLY  4u
#define REDIRECT_HAS_DATA   8u
#define REDIRECT_HANDLE     5   /* pseudo file handle of a redirected buffer */

/* ---- records ---------------------------------------------------------- */

/* The caller-owned bitmap record: 39 words in this order. */
typedef struct BitmapHandle {
  VK_HANDLE StorageHandle;   /*  1 owner of the pixel storage              */
  void*     Data;            /*  2 pixels / tile table / row table         */
  int32_t   Width;           /*  3 */
  int32_t   Height;          /*  4 */
  int32_t   BitsPerPixel;    /*  5 */
  uint32_t  BytesPerLine;    /*  6 ((Width*Bpp+31)/32)*4                   */
  uint32_t  CachedRowOffset; /*  7 */
  int32_t   CachedRow;       /*  8 */
  uint32_t  Flags;           /*  9 */
  uint32_t  ColorCount;      /* 10 */
  void*     Palette;         /* 11 VK_HPALETTE or RGBQUAD* (PALETTE_IS_TABLE) */
  int32_t   ViewPerspective; /* 12 */
  int32_t   Order;           /* 13 */
  uint32_t  Size;            /* 14 */
  void*     DitherState;     /* 15 */
  int32_t   DitheringMethod; /* 16 */
  VK_HRGN   Region;          /* 17 */
  int32_t   XResolution;     /* 18 */
  int32_t   YResolution;     /* 19 */
  uint32_t  PlaybackValue1;  /* 20 */
  uint32_t  PlaybackValue2;  /* 21 */
  uint32_t  PlaybackValue3;  /* 22 */
  uint32_t  PlaybackColor1;  /* 23 */
  uint32_t  PlaybackColor2;  /* 24 */
  uint32_t  PlaybackValue6;  /* 25 */
  int32_t   LowBit;          /* 26 */
  int32_t   HighBit;         /* 27 */
  uint32_t* GrayLut;         /* 28 */
  uint32_t  GrayLutLength;   /* 29 */
  uint32_t  AlignOffset;     /* 30 */
  int32_t   MinValue;        /* 31 */
  int32_t   MaxValue;        /* 32 */
  int32_t   PaintLowBit;     /* 33 */
  int32_t   PaintHighBit;    /* 34 */
  int32_t   PaintPercent;    /* 35 */
  uint32_t  Reserved2;       /* 36 */
  uint32_t  Reserved3;       /* 37 */
  uint8_t*  PaintLut;        /* 38 */
  uint32_t  Reserved4;       /* 39 */
} BitmapHandle;

/* Progress callback: percent 0..100; any result other than RESULT_OK stops
 * the running operation, which returns that value unchanged. */
typedef int32_t (VK_CALL* StatusCallback)(int32_t percent, intptr_t userData);

/* I/O callbacks of the redirection table.  They answer as the V_Os file
 * calls do (a count or position, -1 on failure); userData is the word
 * installed with them. */
typedef VK_FILE (VK_CALL* VK_OPENPROC)(const char* name, int32_t openFlags, int32_t permission, intptr_t userData);
typedef int32_t (VK_CALL* VK_READPROC)(VK_FILE file, void* buffer, int32_t count, intptr_t userData);
typedef int32_t (VK_CALL* VK_WRITEPROC)(VK_FILE file, const void* buffer, int32_t count, intptr_t userData);
typedef int32_t (VK_CALL* VK_SEEKPROC)(VK_FILE file, int32_t offset, int32_t origin, intptr_t userData);
typedef int32_t (VK_CALL* VK_CLOSEPROC)(VK_FILE file, intptr_t userData);

/* Per-thread settings record (97 words in a 32-bit build). */
typedef struct ThreadSettings {
  uint32_t*    UserMatchTable;      /*  1 */
  VK_OPENPROC  OpenProc;            /*  2 */
  VK_READPROC  ReadProc;            /*  3 */
  VK_WRITEPROC WriteProc;           /*  4 */
  VK_SEEKPROC  SeekProc;            /*  5 */
  VK_CLOSEPROC CloseProc;           /*  6 */
  intptr_t     OpenData;            /*  7 */
  intptr_t     ReadData;            /*  8 */
  intptr_t     WriteData;           /*  9 */
  intptr_t     SeekData;            /* 10 */
  intptr_t     CloseData;           /* 11 */
  int32_t      DefaultDithering;    /* 12 */
  int32_t      DefaultXResolution;  /* 13 */
  int32_t      DefaultYResolution;  /* 14 */
  int32_t      DefaultMemoryType;   /* 15 */
  int32_t      TiledThreshold;      /* 16 */
  int32_t      MemoryReserve;       /* 17 */
  int32_t      TileSize;            /* 18 */
  int32_t      MemoryTileLimit;     /* 19 */
  int32_t      MappedTileLimit;     /* 20 */
  char         TempDirectory[VK_MAX_PATH]; /* 21-85 */
  StatusCallback StatusProc;        /* 86 */
  intptr_t     StatusData;          /* 87 */
  StatusCallback CopyStatusProc;    /* 88 */
  intptr_t     CopyStatusData;      /* 89 */
  void*        HotKeyWindow;        /* 90 */
  intptr_t     HotKeyParams[4];     /* 91-94 */
  uintptr_t*   Slots;               /* 95: 1024 values of V_TlsSetValue */
  uint32_t     Reserved[2];         /* 96-97 */
} ThreadSettings;

/* Version record, 104 bytes. */
typedef struct VersionInfo {
  char    Banner[60];
  int32_t Level;
  int32_t MajorVersion;
  int32_t MinorVersion;
  char    BuildDate[16];
  char    BuildTime[16];
} VersionInfo;

/* Buffer-redirection context (V_StartRedirectToBuffer). */
typedef struct BufferRedirect {
  uint8_t*     Buffer;        /* block from the V_Os family, or null */
  uint32_t     Capacity;
  uint32_t     Length;
  uint32_t     Position;
  uint32_t     RedirectFlags;
  VK_OPENPROC  SavedOpen;
  VK_READPROC  SavedRead;
  VK_WRITEPROC SavedWrite;
  VK_SEEKPROC  SavedSeek;
  VK_CLOSEPROC SavedClose;
  intptr_t     SavedOpenData;
  intptr_t     SavedReadData;
  intptr_t     SavedWriteData;
  intptr_t     SavedSeekData;
  intptr_t     SavedCloseData;
} BufferRedirect;

/* A list of bitmaps: movable global-memory handle (see V_CreateBitmapList). */
typedef VK_HGLOBAL BitmapList;

/* ---- core/: caller slots (per-thread values) -------------------------- */

/* Reserves a slot number (0..1023) shared by every thread; each thread
 * keeps its own value in it.  Freed slots below the highest one handed out
 * are reused only once all 1024 numbers have been given.
 * Returns: the slot, or 0xFFFFFFFF when none is left.
 * See also: V_TlsFree, V_TlsSetValue, V_TlsGetValue. */
VK_API uint32_t  VK_CALL V_TlsAlloc(void);
/* Gives a slot back.  index: a number from V_TlsAlloc.
 * Returns: 1 when freed, 0 when index is not a reserved slot. */
VK_API int32_t   VK_CALL V_TlsFree(uint32_t index);
/* Sets the calling thread's value of a slot.
 * Returns: 1, or 0 when index was never handed out. */
VK_API int32_t   VK_CALL V_TlsSetValue(uint32_t index, uintptr_t value);
/* The calling thread's value of a slot; 0 when unset or index was never
 * handed out. */
VK_API uintptr_t VK_CALL V_TlsGetValue(uint32_t index);

/* ---- core/: status callbacks (per thread) ----------------------------- */

/* Installs the calling thread's progress callback (null: none); userData is
 * passed to every call.  The callback is borrowed while installed.
 * Returns: the callback installed before.
 * See also: StatusCallback, V_SetCopyStatusCallBack. */
VK_API StatusCallback VK_CALL V_SetStatusCallBack(StatusCallback callback, intptr_t userData);
/* The calling thread's progress callback; *userData (optional) receives
 * its user data. */
VK_API StatusCallback VK_CALL V_GetStatusCallBack(intptr_t* userData);
/* As V_SetStatusCallBack, for the callback that row copies between bitmaps
 * report to (V_CopyBitmapData, copies, storage rebuilds).
 * Returns: the callback installed before. */
VK_API StatusCallback VK_CALL V_SetCopyStatusCallBack(StatusCallback callback, intptr_t userData);
/* The calling thread's copy progress callback; *userData as above. */
VK_API StatusCallback VK_CALL V_GetCopyStatusCallBack(intptr_t* userData);

/* ---- core/: allocators ------------------------------------------------- */
/* Blocks the library hands to the caller (tables, buffers) come from one
 * of these two families; free each with its own family.  Both can fail
 * (null result). */

/* A heap block of size bytes (0 gives a 1-byte block); free with V_Free.
 * Returns: the block, or null. */
VK_API void* VK_CALL V_Malloc(size_t size);
/* As V_Malloc, count * size bytes set to zero. */
VK_API void* VK_CALL V_Calloc(size_t count, size_t size);
/* Resizes a V_Malloc block (null pointer: a new block).
 * Returns: the block, possibly moved, or null (the old block then stays). */
VK_API void* VK_CALL V_Realloc(void* pointer, size_t size);
/* Frees a block of the V_Malloc family; null is ignored. */
VK_API void  VK_CALL V_Free(void* pointer);
/* A movable global-memory block kept locked for its whole life, so the
 * pointer stays valid; free with V_OsFree.
 * Returns: the block, or null. */
VK_API void* VK_CALL V_OsAlloc(size_t size);
/* As V_OsAlloc; zeroFill non-zero clears the block. */
VK_API void* VK_CALL V_OsAllocInit(size_t size, int32_t zeroFill);
/* Resizes a V_Os block (null pointer: a new block).
 * Returns: the block, possibly moved, or null (the old block then stays). */
VK_API void* VK_CALL V_OsReAlloc(void* pointer, size_t size);
/* As V_OsReAlloc; bytes added at the end are zero. */
VK_API void* VK_CALL V_OsReAllocInit(void* pointer, size_t size);
/* Frees a block of the V_Os family; null is ignored.  Returns: 0. */
VK_API int32_t VK_CALL V_OsFree(void* pointer);

/* Debug forms: the trailing file and line are ignored. */
VK_API void* VK_CALL V_MallocDump(size_t size, const char* file, int32_t line);
VK_API void* VK_CALL V_CallocDump(size_t count, size_t size, const char* file, int32_t line);
VK_API void* VK_CALL V_ReallocDump(void* pointer, size_t size, const char* file, int32_t line);
VK_API void  VK_CALL V_FreeDump(void* pointer, const char* file, int32_t line);
VK_API void* VK_CALL V_OsAllocDump(size_t size, const char* file, int32_t line);
VK_API void* VK_CALL V_OsAllocInitDump(size_t size, int32_t zeroFill, const char* file, int32_t line);
VK_API void* VK_CALL V_OsReAllocDump(void* pointer, size_t size, const char* file, int32_t line);
VK_API void* VK_CALL V_OsReAllocInitDump(void* pointer, size_t size, const char* file, int32_t line);
VK_API int32_t VK_CALL V_OsFreeDump(void* pointer, const char* file, int32_t line);
/* Kept for callers of the debug forms: reports nothing. */
VK_API void  VK_CALL V_DumpMemoryReport(uint32_t flags);

/* ---- core/: utilities --------------------------------------------------- */

/* The first token of text: text is changed in place (a terminator after
 * the token).  A null text does not continue an earlier split.
 * Returns: the token inside text, or null (none, or a null argument). */
VK_API char*    VK_CALL V_Strtok(char* text, const char* delimiters);
/* Integer square root by Newton's iteration in integers (0 for 0, 1 for
 * 1..3). */
VK_API uint32_t VK_CALL V_SQRT(uint32_t value);
/* The library's 256-byte table: entry b is the number of 1 bits in b.
 * Owned by the library (constant; never freed). */
VK_API const uint8_t* VK_CALL V_Get1BitOnTable(void);
/* Fills *record with the banner, level, version and build date and time.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null record). */
VK_API int32_t  VK_CALL V_VersionInfo(VersionInfo* record);

/* Argument block of the 16-bit-host dispatcher: bitmap, buffer, row,
 * column, byte count.  Requests: 0 access, 1 release, 2 get row/col,
 * 3 put row/col; other numbers answer 50. */
typedef struct ThunkArgs {
  BitmapHandle* Bitmap;
  void*         Buffer;
  uint32_t      Row;
  int32_t       Column;
  int32_t       ByteCount;
} ThunkArgs;
/* Runs one request on args (borrowed).
 * Returns: 0 for requests 0 and 1; for 2 and 3 what V_GetBitmapRowCol or
 * V_PutBitmapRowCol returns; 50 for an unknown request;
 * RESULT_BAD_PARAMETER (null args).
 * See also: V_AccessBitmap, V_ReleaseBitmap. */
VK_API int32_t VK_CALL V_ThunkDispatch(ThunkArgs* args, int32_t request);

/* ---- core/: the bitmap record and the thread's defaults ---------------- */

/* Clears *bitmap and sets it up for width x height pixels of bitsPerPixel
 * (1-8, 12, 16, 24, 32, 48, 64): row size, Size, order, colour count,
 * bit ranges and the thread's default resolution and dithering.  No
 * storage is made; width and height are checked when storage is asked
 * for.  All three zero only clears the record.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null bitmap),
 * RESULT_BAD_BITS_PER_PIXEL.
 * See also: V_AllocateBitmap, V_CreateBitmap. */
VK_API int32_t VK_CALL V_InitBitmap(BitmapHandle* bitmap, int32_t width, int32_t height, int32_t bitsPerPixel);
/* Shallow copy of *source into *destination: both then name the same
 * storage, palette and tables, and only one of them may be freed.  Null
 * arguments or one record twice: nothing happens.
 * See also: V_CopyBitmap (a copy with its own storage). */
VK_API void    VK_CALL V_CopyBitmapHandle(BitmapHandle* destination, const BitmapHandle* source);
/* Frees the storage and tables of a bitmap that has storage.
 * freeAttachments: non-zero frees the palette too; 0 leaves palette and
 * region to whoever else holds them (the record forgets both).  The region
 * is never destroyed (it belongs to the host glue).
 * Returns: RESULT_OK (also when there is no storage: then nothing changes).
 * See also: V_FreeBitmap. */
VK_API int32_t VK_CALL V_FreeImage(BitmapHandle* bitmap, int32_t freeAttachments);
/* Recomputes Size: the bytes held by compressed rows, or BytesPerLine *
 * Height for other storage.
 * Returns: RESULT_OK, RESULT_NO_BITMAP (no storage). */
VK_API int32_t VK_CALL V_UpdateBitmapSize(BitmapHandle* bitmap);

/* Resolution (dpi) new records get on this thread; 0 or below means
 * 150 dpi.  Returns: the value set before (not a result code). */
VK_API int32_t VK_CALL V_SetDefaultXResolution(int32_t dpi);
VK_API int32_t VK_CALL V_SetDefaultYResolution(int32_t dpi);
/* The thread's default resolutions as set (150 at start). */
VK_API int32_t VK_CALL V_GetDefaultXResolution(void);
VK_API int32_t VK_CALL V_GetDefaultYResolution(void);
/* The dithering method new records get on this thread (DITHER_NONE ..
 * DITHER_CLUSTERED; DITHER_ORDERED at start).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER. */
VK_API int32_t VK_CALL V_DefaultDithering(int32_t method);
/* The thread's default dithering method. */
VK_API int32_t VK_CALL V_GetDefaultDithering(void);
/* The memory type of bitmaps that operations make on this thread
 * (grayscale, colour resolution): TYPE_CONVENTIONAL or TYPE_DISK.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER. */
VK_API int32_t VK_CALL V_SetDefaultMemoryType(int32_t memoryType);
/* *memoryType receives the thread's default memory type.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null pointer). */
VK_API int32_t VK_CALL V_GetDefaultMemoryType(int32_t* memoryType);

/* ---- core/: storage and memory types ------------------------------------ */

/* Gives a record set up by V_InitBitmap its pixel storage.  memoryType:
 * TYPE_CONVENTIONAL (memory; tiles when large), TYPE_TILED, TYPE_DISK (one
 * temp file), TYPE_USER (the caller's pixels, see V_SetBitmapDataPointer),
 * TYPE_COMPRESSED (1-bit only; other depths ignore it), with TYPE_NO_TILED
 * / TYPE_NO_DISK to forbid a fallback.  The record owns the storage: free
 * it with V_FreeBitmap.  The storage flags are cleared even on failure.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null, inconsistent record or
 * bad type), RESULT_BAD_AREA (Size 0), RESULT_WRITE_FAILED (temp file),
 * RESULT_FAIL (no memory or file; super-compressed storage).
 * See also: V_SetMemoryThresholds, V_GetBitmapMemoryInfo. */
VK_API int32_t VK_CALL V_AllocateBitmap(BitmapHandle* bitmap, int32_t memoryType);
/* Frees everything the record owns: storage, palette, gray and paint
 * tables; lets go of the region (the host glue owns it) and never frees
 * the caller's pixels of TYPE_USER.  Null is ignored.
 * See also: V_FreeImage. */
VK_API void    VK_CALL V_FreeBitmap(BitmapHandle* bitmap);
/* Locks global-memory storage so that Data is valid (other storage needs
 * no lock).  See also: V_ReleaseBitmap, V_LockBitmap. */
VK_API void    VK_CALL V_AccessBitmap(BitmapHandle* bitmap);
/* Unlocks what V_AccessBitmap locked (Data is then null). */
VK_API void    VK_CALL V_ReleaseBitmap(BitmapHandle* bitmap);
/* Locks as V_AccessBitmap does.
 * Returns: 1 when it was locked already, else 0; hand it to V_UnlockBitmap. */
VK_API int32_t VK_CALL V_LockBitmap(BitmapHandle* bitmap);
/* Unlocks unless keepLocked (V_LockBitmap's result) is non-zero. */
VK_API void    VK_CALL V_UnlockBitmap(BitmapHandle* bitmap, int32_t keepLocked);
/* Points a TYPE_USER bitmap at the caller's pixels.  data: dataSize bytes,
 * equal to Size (or null to detach); borrowed for as long as the record
 * uses it, never freed by the library.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (not a user bitmap, size). */
VK_API int32_t VK_CALL V_SetBitmapDataPointer(BitmapHandle* bitmap, void* data, uint32_t dataSize);
/* Storage facts: *memoryType (required: TYPE_CONVENTIONAL, TYPE_TILED,
 * TYPE_DISK, TYPE_COMPRESSED or TYPE_SUPER_COMPRESSED) and, for tiled
 * storage, tile bytes, tile count, tiles in memory, mapped-tile limit and
 * mapped tiles (each pointer optional).
 * Returns: RESULT_OK, RESULT_NO_BITMAP, RESULT_BAD_PARAMETER (null type). */
VK_API int32_t VK_CALL V_GetBitmapMemoryInfo(BitmapHandle* bitmap, int32_t* memoryType, uint32_t* tileSize,
                                             uint32_t* totalTiles, uint32_t* memoryTiles,
                                             uint32_t* maxMappedTiles, uint32_t* mappedTiles);
/* Changes the values whichValues (MEMINFO_ bits) selects.  A new type or
 * tile size rebuilds the storage and copies every row (copy status
 * callback; a failed rebuild leaves the bitmap as it was); otherwise tiles
 * move between memory and disk in place.
 * Returns: RESULT_OK, RESULT_NO_BITMAP, RESULT_BAD_PARAMETER (TYPE_USER,
 * bad type or tile size), RESULT_FAIL, RESULT_TEMP_FILE_FAILED, row I/O
 * errors, the copy status callback's value.
 * See also: V_GetBitmapMemoryInfo. */
VK_API int32_t VK_CALL V_SetBitmapMemoryInfo(BitmapHandle* bitmap, int32_t memoryType, uint32_t tileSize,
                                             uint32_t totalTiles, uint32_t memoryTiles, uint32_t maxMappedTiles,
                                             uint32_t mappedTiles, uint32_t whichValues);
/* Grows or shrinks the storage to newHeight rows (>= 1); the rows that
 * remain keep their pixels.
 * Returns: RESULT_OK, RESULT_NO_BITMAP, RESULT_BAD_PARAMETER (user or
 * locked storage, newHeight < 1), RESULT_FAIL, RESULT_TEMP_FILE_FAILED. */
VK_API int32_t VK_CALL V_ChangeBitmapHeight(BitmapHandle* bitmap, int32_t newHeight);
/* The calling thread's storage thresholds, those whichValues (THRESHOLD_
 * bits) selects: memory reserve and tiled threshold (bytes, or -1..-100
 * for a percentage), tile size (bytes >= 0, 0 = 16 MiB), memory-tile and
 * mapped-tile limits (counts, or negative percentages).  Values are taken
 * in bit order; a refused one stops the call, earlier ones stay set.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (a value below its minimum). */
VK_API int32_t VK_CALL V_SetMemoryThresholds(int32_t memoryReserve, int32_t tiledThreshold, int32_t tileSize,
                                             int32_t memoryTileLimit, int32_t mappedTileLimit, uint32_t whichValues);
/* The calling thread's thresholds; each pointer optional. */
VK_API void    VK_CALL V_GetMemoryThresholds(int32_t* memoryReserve, int32_t* tiledThreshold, int32_t* tileSize,
                                             int32_t* memoryTileLimit, int32_t* mappedTileLimit);
/* The directory of the calling thread's temp files: an existing directory,
 * shorter than VK_MAX_PATH (copied).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER. */
VK_API int32_t VK_CALL V_SetTempDirectory(const char* path);
/* Copies the temp directory into buffer, at most bufferSize characters
 * (not terminated when cut short).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null buffer). */
VK_API int32_t VK_CALL V_GetTempDirectory(char* buffer, int32_t bufferSize);

/* ---- core/: row access --------------------------------------------------- */

/* Copies byteCount bytes of packed pixels from the start of row (0 = first
 * stored row) into buffer; a count may run on into the following rows, not
 * past the end of the storage.  Compressed 1-bit rows read as packed rows.
 * Returns: the number of bytes moved (>= 0), RESULT_NO_BITMAP,
 * RESULT_BAD_PARAMETER (null argument, negative count, past the end),
 * RESULT_FAIL (super-compressed storage), row I/O errors.
 * See also: V_GetBitmapRowCol, V_PutBitmapRow. */
VK_API int32_t VK_CALL V_GetBitmapRow(BitmapHandle* bitmap, void* buffer, uint32_t row, int32_t byteCount);
/* Stores byteCount bytes from buffer at the start of row; as
 * V_GetBitmapRow, and RESULT_FAIL also when compressed rows find no room. */
VK_API int32_t VK_CALL V_PutBitmapRow(BitmapHandle* bitmap, const void* buffer, uint32_t row, int32_t byteCount);
/* As V_GetBitmapRow from pixel column (>= 0) of row; compressed rows start
 * at column rounded down to a multiple of 8. */
VK_API int32_t VK_CALL V_GetBitmapRowCol(BitmapHandle* bitmap, void* buffer, uint32_t row, int32_t column, int32_t byteCount);
/* As V_PutBitmapRow from pixel column (>= 0) of row. */
VK_API int32_t VK_CALL V_PutBitmapRowCol(BitmapHandle* bitmap, const void* buffer, uint32_t row, int32_t column, int32_t byteCount);

/* ---- core/: compressed 1-bit rows --------------------------------------- */
/* Record: uint32 run count N, then N uint16 runs (little endian) that
 * alternate 0-bits and 1-bits, starting with 0-bits.  A block is records
 * back to back.  These calls get no lengths: the caller sizes every area
 * as stated and passes records that hold the counts they claim. */

/* Encodes pixelCount pixels of packedRow from startColumn into outRecord
 * (room: 4 + 2 * (pixelCount + (startColumn & 7) + 2) bytes).
 * Returns: pixelCount, RESULT_BAD_PARAMETER (null, negative).
 * See also: V_ExpandRow. */
VK_API int32_t VK_CALL V_CompressRow(void* outRecord, uint8_t* packedRow, int32_t startColumn, int32_t pixelCount);
/* Encodes rowCount packed rows of width pixels (4-byte row stride) into
 * outBlock (room: rowCount * (4 + 2 * (width + 2)) bytes).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER. */
VK_API int32_t VK_CALL V_CompressRows(void* outBlock, const uint8_t* packedRows, int32_t width, int32_t rowCount);
/* Decodes pixelCount pixels of record from startColumn into packedOut
 * ((pixelCount + 7) / 8 bytes).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER. */
VK_API int32_t VK_CALL V_ExpandRow(const void* record, uint8_t* packedOut, int32_t startColumn, int32_t pixelCount);
/* Decodes rowCount records of block into packed rows of width pixels
 * (4-byte row stride).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER. */
VK_API int32_t VK_CALL V_ExpandRows(const void* block, uint8_t* packedOut, int32_t width, int32_t rowCount);
/* Mirrors every row of srcBlock left to right into dstBlock (room: the
 * source's length + 2 bytes per row; the blocks must not overlap).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER.
 * See also: V_FlipCompressedBuffer. */
VK_API int32_t VK_CALL V_MirrorCompressedBuffer(const void* srcBlock, void* dstBlock, int32_t rowCount);
/* Copies the rowCount records of srcBlock into dstBlock in reverse row
 * order (same length; no overlap).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER. */
VK_API int32_t VK_CALL V_FlipCompressedBuffer(const void* srcBlock, void* dstBlock, int32_t rowCount);
/* Rebuilds a bitmap's storage as packed rows (mode 0) or compressed rows
 * (mode 1; 1-bit bitmaps only); mode 2 (super-compressed) is not
 * available.  Rows are copied with the copy status callback.
 * Returns: RESULT_OK (also when already in that form), RESULT_NO_BITMAP,
 * RESULT_BAD_PARAMETER (mode), RESULT_FAIL, RESULT_WRITE_FAILED, row I/O
 * errors, the copy status callback's value.
 * See also: V_ToggleBitmapCompression. */
VK_API int32_t VK_CALL V_ChangeBitmapCompression(BitmapHandle* bitmap, int32_t mode);
/* Switches a 1-bit bitmap between packed and compressed rows.
 * Returns: as V_ChangeBitmapCompression; RESULT_NO_BITMAP also for other
 * depths. */
VK_API int32_t VK_CALL V_ToggleBitmapCompression(BitmapHandle* bitmap);
/* Makes room for bytes more in a compressed bitmap's row heap (Size
 * follows).
 * Returns: 1 when the heap grew, 0 when it had room or could not grow,
 * RESULT_BAD_PARAMETER (not compressed storage).
 * See also: V_TrimBitmapHeap. */
VK_API int32_t VK_CALL V_GrowBitmapHeap(BitmapHandle* bitmap, uint32_t bytes);
/* Gives back the free space at the end of the row heap but 128 bytes.
 * Returns: 1 when the heap shrank, else 0; RESULT_BAD_PARAMETER (not
 * compressed storage). */
VK_API int32_t VK_CALL V_TrimBitmapHeap(BitmapHandle* bitmap);

/* ---- core/: file layer --------------------------------------------------- */

/* Creates (or empties) the file name.  mode: VK_CREAT_ bits (read-only,
 * hidden, system, deleted on close).
 * Returns: the file, or -1.  See also: V_OsClose. */
VK_API VK_FILE VK_CALL V_OsCreat(const char* name, int32_t mode);
/* Opens name.  openFlags: VK_O_RDONLY / WRONLY / RDWR, with VK_O_CREAT
 * (create or empty) or VK_O_TRUNC (empty an existing file); permission:
 * VK_S_IREAD / VK_S_IWRITE, how others may share it.  The last word is
 * unused (it carries the redirection table's user data).
 * Returns: the file, or -1. */
VK_API VK_FILE VK_CALL V_OsOpen(const char* name, int32_t openFlags, int32_t permission, intptr_t unused);
/* Reads up to count bytes.  Returns: the bytes read, or -1. */
VK_API int32_t VK_CALL V_OsRead(VK_FILE file, void* buffer, int32_t count, intptr_t unused);
/* Writes count bytes; a count of 0 cuts the file at the current position.
 * Returns: the bytes written, or -1. */
VK_API int32_t VK_CALL V_OsWrite(VK_FILE file, const void* buffer, int32_t count, intptr_t unused);
/* Moves to offset from origin (VK_SEEK_SET / CUR / END).
 * Returns: the new position, or -1. */
VK_API int32_t VK_CALL V_OsSeek(VK_FILE file, int32_t offset, int32_t origin, intptr_t unused);
/* Closes file.  Returns: 0, or -1. */
VK_API int32_t VK_CALL V_OsClose(VK_FILE file, intptr_t unused);
/* Deletes the file name.  Returns: 0, or -1. */
VK_API int32_t VK_CALL V_OsDelete(const char* name);
/* Creates an empty file with a new name ("VQxxxx.TMP") in the thread's
 * temp directory and writes its path into buffer (VK_MAX_PATH bytes); an
 * empty name when that fails.  The caller deletes the file (V_OsDelete).
 * Returns: 0, RESULT_BAD_PARAMETER (null buffer).
 * See also: V_SetTempDirectory. */
VK_API int32_t VK_CALL V_OsGetTempName(char* buffer);

/* ---- core/: I/O redirection (per thread) -------------------------------- */

/* Installs the calling thread's five file callbacks, all with the same
 * userData; a null callback restores its V_Os call.  Callbacks are
 * borrowed while installed.
 * See also: V_FilterIO, V_Redirected*. */
VK_API void    VK_CALL V_RedirectIO(VK_OPENPROC openProc, VK_READPROC readProc, VK_WRITEPROC writeProc,
                                    VK_SEEKPROC seekProc, VK_CLOSEPROC closeProc, intptr_t userData);
/* The calling thread's file callbacks, called with their user data.
 * Returns: what the callback returns (the V_Os calls: -1 on failure). */
VK_API VK_FILE VK_CALL V_RedirectedOpen(const char* name, int32_t openFlags, int32_t permission);
VK_API int32_t VK_CALL V_RedirectedRead(VK_FILE file, void* buffer, int32_t count);
VK_API int32_t VK_CALL V_RedirectedWrite(VK_FILE file, const void* buffer, int32_t count);
VK_API int32_t VK_CALL V_RedirectedSeek(VK_FILE file, int32_t offset, int32_t origin);
VK_API int32_t VK_CALL V_RedirectedClose(VK_FILE file);
/* Exchanges entries of the thread's redirection table, for a filter that
 * wraps the callbacks in place: through every non-null pointer the current
 * entry comes back and the value passed in replaces it (a null callback
 * passed in leaves the entry as it is; data words are always exchanged). */
VK_API void    VK_CALL V_FilterIO(VK_OPENPROC* openProc, VK_READPROC* readProc, VK_WRITEPROC* writeProc,
                                  VK_SEEKPROC* seekProc, VK_CLOSEPROC* closeProc,
                                  intptr_t* openData, intptr_t* readData, intptr_t* writeData,
                                  intptr_t* seekData, intptr_t* closeData);
/* The five user-data words of the thread's table; each pointer optional. */
VK_API void    VK_CALL V_GetFilterIOData(intptr_t* openData, intptr_t* readData, intptr_t* writeData,
                                         intptr_t* seekData, intptr_t* closeData);
/* Redirects the thread's file calls into a memory buffer until
 * V_StopRedirectToBuffer.  buffer: bufferSize bytes, or null; with
 * REDIRECT_GROW or REDIRECT_SHRINK it must be a V_Os block (it is
 * reallocated).  redirectFlags: REDIRECT_ bits; READ_ONLY or HAS_DATA
 * means buffer already holds bufferSize bytes of data.  *context receives
 * the library-owned context; *file (optional) the pseudo handle
 * REDIRECT_HANDLE.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null context), RESULT_FAIL. */
VK_API int32_t VK_CALL V_StartRedirectToBuffer(BufferRedirect** context, VK_FILE* file, uint32_t redirectFlags,
                                               void* buffer, uint32_t bufferSize);
/* Puts back the table V_StartRedirectToBuffer replaced (stops come in the
 * reverse order of starts) and frees context.  *buffer receives the block,
 * which the caller owns from here on (V_OsFree if the library made it);
 * *length the bytes of data.  Both pointers optional.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null context). */
VK_API int32_t VK_CALL V_StopRedirectToBuffer(BufferRedirect* context, void** buffer, uint32_t* length);

/* ---- core/: bitmap lists -------------------------------------------------- */
/* A list holds records by value and owns the storage they describe. */

/* Makes an empty list in *list; destroy it with V_DestroyBitmapList.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null), RESULT_FAIL. */
VK_API int32_t VK_CALL V_CreateBitmapList(BitmapList* list);
/* Frees every item's bitmap (V_FreeBitmap) and the list.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (not a list). */
VK_API int32_t VK_CALL V_DestroyBitmapList(BitmapList list);
/* *count receives the number of items.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER. */
VK_API int32_t VK_CALL V_GetBitmapListCount(BitmapList list, uint32_t* count);
/* Copies item index into *bitmap; the list still owns its storage.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (index, null). */
VK_API int32_t VK_CALL V_GetBitmapListItem(BitmapList list, uint32_t index, BitmapHandle* bitmap);
/* Overwrites item index with *bitmap (null: a blank record); the old
 * item's storage is not freed, the list owns the new one's.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (index). */
VK_API int32_t VK_CALL V_SetBitmapListItem(BitmapList list, uint32_t index, const BitmapHandle* bitmap);
/* Inserts *bitmap (null: a blank record) before item index (past the end:
 * appended); the list takes over its storage.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER, RESULT_FAIL. */
VK_API int32_t VK_CALL V_InsertBitmapListItem(BitmapList list, uint32_t index, const BitmapHandle* bitmap);
/* Removes item index; *bitmap (optional) receives it and the caller then
 * owns its storage.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (index). */
VK_API int32_t VK_CALL V_RemoveBitmapListItem(BitmapList list, uint32_t index, BitmapHandle* bitmap);
/* Removes and frees count items from index (fewer at the end).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (index, count 0). */
VK_API int32_t VK_CALL V_DeleteBitmapListItems(BitmapList list, uint32_t index, uint32_t count);
/* Moves count items from index (fewer at the end) into a new list in
 * *newList, which owns them from then on.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER, RESULT_FAIL.
 * See also: V_CopyBitmapListItems. */
VK_API int32_t VK_CALL V_MoveBitmapListItems(BitmapList* newList, BitmapList list, uint32_t index, uint32_t count);

/* ---- core/: gray parameters of a record ---------------------------------- */

/* Resets LowBit, HighBit, MinValue and MaxValue to the whole sample; the
 * gray lookup table and BITMAP_GRAY_FLAG stay.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null).
 * See also: V_GetGrayParams. */
VK_API int32_t VK_CALL V_InitGrayParams(BitmapHandle* bitmap);
/* Copies the bit range, value range, BITMAP_GRAY_FLAG and the lookup table
 * (a new V_Os block that destination owns); destination's table before is
 * not freed.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null), RESULT_FAIL (no memory;
 * destination unchanged). */
VK_API int32_t VK_CALL V_CopyGrayParams(BitmapHandle* destination, const BitmapHandle* source);

/* ===================================================================== */
/* 3. host/ - dispatch tables of the display and file modules            */
/* ===================================================================== */
/* Both are process-wide: a module installs them once at its start-up,
 * before image operations run. */

/* Display dispatch table: 20 optional hooks. */
typedef int32_t (VK_CALL* VK_DISPATCHPROC)();
#define VK_DISPATCH_ENTRIES 20
typedef int32_t (VK_CALL* VK_REGIONHOOK)(BitmapHandle* destination, BitmapHandle* source, int32_t dx, int32_t dy);   /* entry 2  */
typedef int32_t (VK_CALL* VK_SCALEREGIONHOOK)(BitmapHandle* bitmap, int32_t width, int32_t height);                 /* entry 6  */
typedef int32_t (VK_CALL* VK_SHEARREGIONHOOK)(BitmapHandle* bitmap, int32_t regionCopied);                        /* entry 12 */
typedef int32_t (VK_CALL* VK_ROTATEREGIONHOOK)(BitmapHandle* bitmap, int32_t oldWidth, int32_t oldHeight, int32_t angle); /* entry 13 */
typedef int32_t (VK_CALL* VK_PIXELPOSHOOK)(BitmapHandle* bitmap, int32_t row, int32_t column);                    /* entry 17 */

/* Installs all 20 entries of table (copied; the hooks stay borrowed).
 * Entry 1 set marks the table as present.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null table).
 * See also: V_GetDisDispatch, VK_REGIONHOOK, VK_PIXELPOSHOOK. */
VK_API int32_t VK_CALL V_SetDisDispatch(VK_DISPATCHPROC const* table);
/* Copies the 20 entries into tableOut.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null), RESULT_NOT_SET (no
 * table: entry 1 unset; nothing written). */
VK_API int32_t VK_CALL V_GetDisDispatch(VK_DISPATCHPROC* tableOut);
/* Runs the reset the library does when it is loaded: entries are cleared
 * only by the first reset, before any table is installed, so a display
 * module's table survives later calls.  Returns: RESULT_OK. */
VK_API int32_t VK_CALL V_ResetDisDispatch(void);
/* Stores the file module's word *value (0 means unset).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null). */
VK_API int32_t VK_CALL V_SetFilDispatch(const uintptr_t* value);
/* *valueOut receives the file module's word.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null), RESULT_NOT_SET. */
VK_API int32_t VK_CALL V_GetFilDispatch(uintptr_t* valueOut);

/* ===================================================================== */
/* 4. color/ - palettes, pixel formats, conversion, pixel access         */
/* ===================================================================== */

/* Colour value forms (V_GetPixelColor and friends). */
#define COLOR_PALETTE_INDEX 0x01000000u
#define COLOR_GRAY16        0x04000000u
#define COLOR_INVALID       0x80000000u

/* Row-conversion flags (V_ConvertBufferExt). */
#define CONVERT_SRC_GRAY      1u
#define CONVERT_DST_GRAY      2u
#define CONVERT_SRC_BITRANGE  4u
#define CONVERT_DST_BITRANGE  8u

/* ---- color/: platform palettes -------------------------------------------- */
/* A VK_HPALETTE made by these calls belongs to the caller: delete it with
 * VKP_DeletePalette (vkkrn_platform.h), or attach it to a bitmap, whose
 * V_FreeBitmap frees it. */

/* A platform palette of count (1..256) entries copied from entries.
 * Returns: the palette, or null (bad arguments, no memory). */
VK_API VK_HPALETTE VK_CALL V_CreatePalette(const RGBQUAD* entries, int32_t count);
/* Returns: the number of entries of palette; 0 for null. */
VK_API int32_t     VK_CALL V_GetPaletteSize(VK_HPALETTE palette);
/* Copies up to count entries (at most 256) from start into out.
 * Returns: the entries copied; 0 for bad arguments. */
VK_API int32_t     VK_CALL V_GetPaletteEntries(VK_HPALETTE palette, int32_t start, int32_t count, RGBQUAD* out);
/* Sets up to count entries (at most 256) from start.
 * Returns: the entries set; 0 for bad arguments. */
VK_API int32_t     VK_CALL V_SetPaletteEntries(VK_HPALETTE palette, int32_t start, int32_t count, const RGBQUAD* entries);
/* A palette of the screen's system colours.
 * Returns: the palette, or null when the screen has none. */
VK_API VK_HPALETTE VK_CALL V_CreateSystemPalette(void);
/* A new palette with the entries of palette.  Returns: it, or null. */
VK_API VK_HPALETTE VK_CALL V_DupPalette(VK_HPALETTE palette);
/* The gray ramp of 2^bits entries (entry i = i * 255 / (2^bits - 1)); bits
 * 0 means 8.  Returns: the palette, or null (bits outside 0..8). */
VK_API VK_HPALETTE VK_CALL V_CreateGrayPalette(int32_t bits);
/* The fixed palette of bits (1..8; 0 means 1).  Returns: it, or null. */
VK_API VK_HPALETTE VK_CALL V_CreateFixedPalette(int32_t bits);
/* The library's constant fixed palette of 2^bits entries (bits 1..8), or
 * null.  Owned by the library: never freed.
 * See also: V_GetFixedPalette. */
VK_API const RGBQUAD* VK_CALL V_IntGetFixedPalette(int32_t bits);
/* Copies the fixed palette of bits (1..8) into out (2^bits entries); bits
 * 0 gives the 256-entry gray ramp.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER. */
VK_API int32_t     VK_CALL V_GetFixedPalette(RGBQUAD* out, int32_t bits);

/* ---- color/: bitmap palettes ----------------------------------------------- */
/* A bitmap's palette is a platform palette or, with PALETTE_IS_TABLE, an
 * owned V_Os table; the record owns it (freed by V_FreeBitmap). */

/* Gives bitmap a new palette of count entries (in its current form) and
 * sets ColorCount.  The palette held before is not freed (its owner may be
 * elsewhere); Palette is null when the new one cannot be made.
 * See also: V_PutBitmapColors, V_SetBitmapPalette. */
VK_API void        VK_CALL V_CreateBitmapPalette(BitmapHandle* bitmap, const RGBQUAD* entries, int32_t count);
/* Copies up to count palette entries from start into out.
 * Returns: the entries copied; 0 when there is nothing to read. */
VK_API int32_t     VK_CALL V_GetBitmapPaletteEntries(BitmapHandle* bitmap, int32_t start, int32_t count, RGBQUAD* out);
/* As V_GetBitmapPaletteEntries for bitmaps of up to 8 bits, all count
 * entries or a failure.
 * Returns: RESULT_OK, RESULT_NO_BITMAP (null), RESULT_BAD_PARAMETER
 * (count < 1, deeper bitmap, fewer entries). */
VK_API int32_t     VK_CALL V_GetBitmapColors(BitmapHandle* bitmap, int32_t start, int32_t count, RGBQUAD* out);
/* Replaces count entries from start (within ColorCount) of a bitmap of up
 * to 8 bits; the new palette is made first, then the old one is freed.
 * Returns: RESULT_OK, RESULT_NO_BITMAP, RESULT_BAD_PARAMETER, RESULT_FAIL. */
VK_API int32_t     VK_CALL V_PutBitmapColors(BitmapHandle* bitmap, int32_t start, int32_t count, const RGBQUAD* entries);
/* Replaces (and frees) the palette with the gray ramp of the bitmap's
 * depth (1..8 bits).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null),
 * RESULT_BAD_BITS_PER_PIXEL, RESULT_FAIL. */
VK_API int32_t     VK_CALL V_CreateBitmapGrayPalette(BitmapHandle* bitmap);
/* Gives bitmap the fixed palette of ColorCount (2..256, a power of two)
 * entries; the palette held before is not freed.
 * Returns: RESULT_OK, 0 (ColorCount not such a count),
 * RESULT_BAD_PARAMETER (null), RESULT_FAIL. */
VK_API int32_t     VK_CALL V_CreateBitmapFixedPalette(BitmapHandle* bitmap);
/* A platform palette with the bitmap's entries (either form); the caller
 * owns it.  Returns: it, or null (no palette, no memory). */
VK_API VK_HPALETTE VK_CALL V_DupBitmapPalette(BitmapHandle* bitmap);
/* Gives destination its own copy of source's palette (same form) and
 * ColorCount; destination's palette before is not freed.  A source
 * without a palette leaves destination with none.
 * Returns: RESULT_OK, 0 (no memory; destination unchanged),
 * RESULT_BAD_PARAMETER (null). */
VK_API int32_t     VK_CALL V_CopyBitmapPalette(BitmapHandle* destination, BitmapHandle* source);
/* Compares the first count (at most 256) entries' colours with entries
 * (reserved bytes ignored).
 * Returns: 1 when equal (also for count <= 0 or no readable palette),
 * else 0 (also for a null bitmap). */
VK_API int32_t     VK_CALL V_CompareBitmapToPalette(BitmapHandle* bitmap, const RGBQUAD* entries, int32_t count);
/* Replaces (and frees) the bitmap's palette with a copy of palette (2..256
 * entries; borrowed) in platform form.  A copy that cannot be made leaves
 * Palette null.
 * Returns: RESULT_OK, RESULT_NO_BITMAP (null), RESULT_BAD_PARAMETER. */
VK_API int32_t     VK_CALL V_SetBitmapPalette(BitmapHandle* bitmap, VK_HPALETTE palette);
/* Converts the bitmap's palette in place: type 0 a platform palette,
 * non-zero an owned table (PALETTE_IS_TABLE).
 * Returns: RESULT_OK, RESULT_NO_BITMAP, RESULT_FAIL. */
VK_API int32_t     VK_CALL V_SetPaletteType(BitmapHandle* bitmap, int32_t type);
/* Returns: the palette index nearest to color (the platform's rule); 0
 * when the bitmap has no palette.  See also: V_FindPaletteIndex. */
VK_API uint32_t    VK_CALL V_GetNearestPaletteIndex(BitmapHandle* bitmap, VK_COLORREF color);

/* ---- color/: bitmap creation -------------------------------------------------- */

/* V_InitBitmap, V_AllocateBitmap and a palette in one call.  bitsPerPixel
 * 0 makes 8-bit pixels with a gray palette; other depths of up to 8 bits
 * get a copy of palette (2^bits entries; borrowed) or, when it is null,
 * the fixed palette.  order: kept for deeper pixels (ORDER_BGR_ALT only
 * for 24 and 48 bits).  TYPE_USER with data: V_SetBitmapDataPointer(data,
 * dataSize).  Free the bitmap with V_FreeBitmap (also after a refused
 * data pointer: the storage stays).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER, RESULT_BAD_BITS_PER_PIXEL,
 * RESULT_BAD_AREA, RESULT_WRITE_FAILED, RESULT_FAIL. */
VK_API int32_t VK_CALL V_CreateBitmap(BitmapHandle* bitmap, int32_t memoryType, int32_t width, int32_t height,
                                      int32_t bitsPerPixel, int32_t order, const RGBQUAD* palette,
                                      int32_t viewPerspective, void* data, uint32_t dataSize);

/* ---- color/: gray bit range ---------------------------------------------------- */

/* The significant bits of a gray sample of bits bits: lowBit .. highBit
 * (lowBit below 0 means 0, highBit below 0 means bits - 1), keeping at
 * most maxBits of the top ones.  *count, *mask, *shift (each optional)
 * receive how many bits, their mask and the right shift that brings them
 * down.  Returns: RESULT_OK, RESULT_BAD_PARAMETER (no bits). */
VK_API int32_t VK_CALL V_GetGrayParams(int32_t bits, int32_t maxBits, int32_t lowBit, int32_t highBit,
                                       int32_t* count, uint32_t* mask, int32_t* shift);

/* ---- color/: row conversion ------------------------------------------------------- */

/* Converts width pixels of buffer in place from srcBits to dstBits.
 * Depths: 0 (8-bit gray level), 1-8 (palette index), 12 and 16 (gray
 * samples with ORDER_GRAY; 16 is also 5-5-5 colour), 24, 32, 48, 64.
 * Orders: ORDER_RGB, ORDER_BGR, ORDER_GRAY, ORDER_BGR_ALT (24 and 48
 * bits).  buffer: room for the larger row (V_CalcConvertSize).
 * srcPalette / dstPalette: palettes of index pixels (null: the fixed
 * palette), a 12-bit source's gray lookup table; borrowed.  flags:
 * CONVERT_ bits; one side's BITRANGE takes lowBit .. highBit as the
 * significant bits of its gray samples.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (nothing changed; width 0).
 * See also: V_ConvertBuffer, V_GetGrayParams. */
VK_API int32_t  VK_CALL V_ConvertBufferExt(uint8_t* buffer, int32_t width, int32_t srcBits, int32_t dstBits,
                                           int32_t srcOrder, int32_t dstOrder, const RGBQUAD* srcPalette,
                                           const RGBQUAD* dstPalette, uint32_t flags, int32_t lowBit, int32_t highBit);
/* V_ConvertBufferExt with the gray flags taken from the orders and no bit
 * range.  Returns: RESULT_OK, RESULT_BAD_PARAMETER. */
VK_API int32_t  VK_CALL V_ConvertBuffer(uint8_t* buffer, int32_t width, int32_t srcBits, int32_t dstBits,
                                        int32_t srcOrder, int32_t dstOrder, const RGBQUAD* srcPalette,
                                        const RGBQUAD* dstPalette);
/* Returns: the bytes a buffer needs to convert width1 pixels of bits1 to
 * width2 pixels of bits2 in place (depth 0 counts as 8 bits). */
VK_API uint32_t VK_CALL V_CalcConvertSize(int32_t width1, int32_t bits1, int32_t width2, int32_t bits2);

/* ---- color/: grayscale -------------------------------------------------------------- */

/* Classifies count palette entries.
 * Returns: 0 not all gray; 1 an even ramp rising from black; 2 one falling
 * from white; 3 gray but no such ramp (one entry: 1 black, 2 white, 3
 * other); RESULT_BAD_PARAMETER (null). */
VK_API int32_t VK_CALL V_IsGrayScalePalette(const RGBQUAD* entries, int32_t count);
/* Returns: for ORDER_GRAY bitmaps 1, or 0 when their gray lookup table in
 * force holds a colour; for palette bitmaps what V_IsGrayScalePalette says
 * of the palette; 0 for other bitmaps; RESULT_BAD_PARAMETER (null). */
VK_API int32_t VK_CALL V_IsGrayScaleBitmap(BitmapHandle* bitmap);
/* Converts the bitmap in place to bits (8 with a gray palette, 12 or 16
 * with ORDER_GRAY) gray pixels in new storage of the default memory type;
 * the old storage is freed on success.  Row loop.
 * Returns: RESULT_OK, RESULT_NO_BITMAP, RESULT_BAD_PARAMETER,
 * RESULT_BAD_BITS_PER_PIXEL, RESULT_BAD_AREA, RESULT_FAIL, row I/O errors,
 * the status callback's value.
 * See also: V_SetDefaultMemoryType. */
VK_API int32_t VK_CALL V_GrayScaleBitmap(BitmapHandle* bitmap, int32_t bits);

/* ---- color/: pixel access --------------------------------------------------------------- */
/* row 0 is the first stored row.  Colour values: 0x00BBGGRR,
 * COLOR_PALETTE_INDEX | index, COLOR_GRAY16 | 16-bit level. */

/* Returns: the colour of the pixel: RGB for palette and colour pixels;
 * COLOR_GRAY16 | level for gray samples (RGB from the lookup table when
 * one is in force); COLOR_INVALID outside the bitmap, without storage or
 * when the read fails. */
VK_API uint32_t VK_CALL V_GetPixelColor(BitmapHandle* bitmap, int32_t row, int32_t column);
/* Stores color at the pixel: palette pixels take the nearest entry (or
 * the index form's index), gray samples the level (or the index form as a
 * raw sample).  A display hook (dispatch entry 17) may refuse the
 * position.
 * Returns: RESULT_OK, RESULT_NO_BITMAP, RESULT_BAD_AREA (outside),
 * RESULT_BAD_BITS_PER_PIXEL, RESULT_BAD_PARAMETER (index form for colour
 * pixels), RESULT_FAIL, row I/O errors. */
VK_API int32_t  VK_CALL V_PutPixelColor(BitmapHandle* bitmap, int32_t row, int32_t column, uint32_t color);
/* Copies the bytes that hold the pixel (with its neighbours below 8 bits;
 * the whole byte at 1 bit) into buffer of bufferSize bytes.
 * Returns: RESULT_OK, RESULT_NO_BITMAP (also null buffer), RESULT_BAD_AREA,
 * RESULT_BAD_PARAMETER (buffer too small), RESULT_FAIL (read failed). */
VK_API int32_t  VK_CALL V_GetPixelData(BitmapHandle* bitmap, void* buffer, int32_t row, int32_t column, int32_t bufferSize);
/* Writes those bytes back from buffer; as V_GetPixelData. */
VK_API int32_t  VK_CALL V_PutPixelData(BitmapHandle* bitmap, const void* buffer, int32_t row, int32_t column, int32_t bufferSize);
/* Returns: the value that names source's colour value color in
 * destination's terms: the nearest palette index form for palette
 * destinations, RGB for colour ones; a COLOR_GRAY16 value stays one for
 * gray destinations (an index form when their lookup table is in force);
 * color itself when destination is null. */
VK_API uint32_t VK_CALL V_TranslateBitmapColor(BitmapHandle* destination, BitmapHandle* source, uint32_t color);
/* Copies the playback values and flags; the playback colours are
 * translated into destination's terms (V_TranslateBitmapColor).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null). */
VK_API int32_t VK_CALL V_CopyPlaybackParms(BitmapHandle* destination, BitmapHandle* source);

/* ---- color/: device-independent bitmaps (in) -------------------------------------------- */
/* A packed device-independent bitmap (DIB) is one movable global-memory
 * block (vkkrn_platform.h): a header of 12 bytes (16-bit fields, 3-byte
 * palette entries) or of 40 or more bytes (read as the 40-byte form; 4-byte
 * entries), then the palette (colours used, 0 meaning 2^bits for 1-8 bits)
 * or, for compression 3 (bit fields, 16 and 32 bits), three 32-bit masks
 * red, green, blue, then rows of 1, 4, 8, 16, 24 or 32 bits, 4-byte
 * aligned, bottom-up for a positive height (ViewPerspective 2), top-down
 * for a negative one (0).  Pixels per metre become dots per inch as
 * (ppm * 254 + 5000) / 10000; 0 takes the screen's.  16-bit masks become
 * 5-5-5 pixels, 32-bit masks blue-green-red bytes and a zero fourth byte;
 * fields narrower than 5 (8) bits are widened as value * 31 (255) / mask.
 * Video compressions (planar "I420", "IYUV", "YV12", "YVU9", "NV12";
 * packed "YUY2", "YUYV", "UYVY", "YVYU") become 24-bit colour, rows
 * top-down (ViewPerspective 0), by BT.601 limited range:
 *   R = (298 (Y-16) + 409 (V-128) + 128) >> 8,
 *   G = (298 (Y-16) - 100 (U-128) - 208 (V-128) + 128) >> 8,
 *   B = (298 (Y-16) + 516 (U-128) + 128) >> 8, clipped to 0..255.
 * Nothing is read outside the block (the header, palette, masks and rows
 * must fit in it), and nothing is allocated for a block that is refused.
 * bitmap receives a new record (what it held is not freed).
 *
 * V_ChangeFromDIB: the bitmap takes the block over (it frees it with
 * V_FreeBitmap); bit-field pixels are rewritten in place.  Video frames are
 * copied and the block freed.  V_MirrorFromDIB: the bitmap uses the block,
 * which the caller keeps and frees after the bitmap; bit-field DIBs and
 * video frames are copied (the block is never written).
 * Returns: RESULT_OK; RESULT_BAD_PARAMETER (null, a block that cannot be
 * locked, a width or height of 0, a negative width); RESULT_BAD_FORMAT (a
 * header, palette, masks or rows the block does not hold, more than 256
 * palette entries, rows larger than 4 GB, planes other than 1, an
 * unsupported compression or bit count); RESULT_FAIL (memory); for copies
 * also what V_ConvertFromDIB returns.
 * See also: V_ConvertFromDIB, V_ConvertToDIB2. */
VK_API int32_t VK_CALL V_ChangeFromDIB(BitmapHandle* bitmap, VK_HGLOBAL dib);
VK_API int32_t VK_CALL V_MirrorFromDIB(BitmapHandle* bitmap, VK_HGLOBAL dib);
/* A bitmap with its own storage (the thread's default memory type) from a
 * DIB given as its header and its pixel data (borrowed; read as the header
 * describes them, so the caller vouches for that many bytes).  Row loop.
 * Returns: as V_ChangeFromDIB, and the status callback's value. */
VK_API int32_t VK_CALL V_ConvertFromDIB(BitmapHandle* bitmap, const void* header, const void* bits);

/* ---- color/: alpha channel ------------------------------------------------------------------ */
/* The alpha channel is bit 15 of a 16-bit pixel, the fourth byte of a
 * 32-bit pixel, the fourth 16-bit sample of a 64-bit pixel. */

/* alphaOut receives a new bitmap of the same size, view perspective and
 * resolution holding bitmap's alpha channel: 16-bit gray (ORDER_GRAY) for
 * a 64-bit bitmap, else 8-bit with a gray palette (255 where bit 15 of a
 * 16-bit pixel is set, 0 where clear; all 0 for depths without alpha).
 * Storage on disk when bitmap's is, else in memory.  The region hook
 * (display dispatch entry 2) is told of the new bitmap.  Row loop.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null, unallocated), RESULT_FAIL
 * (memory), the region hook's or status callback's value, row I/O errors.
 * See also: V_SetBitmapAlpha. */
VK_API int32_t VK_CALL V_GetBitmapAlpha(BitmapHandle* bitmap, BitmapHandle* alphaOut);

/* ===================================================================== */
/* 5. reduce/ - palette lookup, dithering, colour count, optimiser,      */
/*    colour resolution                                                  */
/* ===================================================================== */

/* Dithering methods. */
#define DITHER_NONE            0
#define DITHER_FLOYD_STEINBERG 1
#define DITHER_STUCKI          2
#define DITHER_BURKES          3
#define DITHER_SIERRA          4
#define DITHER_STEVENSON_ARCE  5
#define DITHER_JARVIS          6
#define DITHER_ORDERED         7
#define DITHER_CLUSTERED       8

/* Colour-resolution flags (V_ColorResBitmap). */
#define RESOLVE_OPTIMISED              0u
#define RESOLVE_FIXED                  1u
#define RESOLVE_BGR                    4u
#define RESOLVE_KEEP_SYSTEM_COLOURS    8u
#define RESOLVE_USER_PALETTE          16u
#define RESOLVE_USER_TABLE            32u
#define RESOLVE_CUBE                  64u
#define RESOLVE_GRAY                 128u
#define RESOLVE_NO_OPTIMISER_TABLE   512u
#define RESOLVE_FEW_POPULAR         1024u
#define RESOLVE_ORDER5              2048u
/* With an optimised selection: choose the palette with V_CreateBestPalette
 * (lowest colour error) instead of the optimiser; no match table is taken. */
#define RESOLVE_BEST_PALETTE        4096u

/* Row callbacks of colour resolution. */
typedef int32_t (VK_CALL* ColorResRowCallback)(BitmapHandle* destination, uint8_t* row, int32_t lines, intptr_t userData);
typedef int32_t (VK_CALL* ColorResListRowCallback)(BitmapHandle* destination, uint8_t* row, uint32_t itemIndex, int32_t rowNumber, int32_t lines, intptr_t userData);

/* ---- reduce/: palette lookup and user match tables ----------------------- */
/* A match table has 32768 cells, one per 5-5-5 colour (red * 1024 +
 * green * 32 + blue), each palette index + 1 (0: not resolved yet). */

/* Returns: the index of the entry of palette (colors entries) nearest to
 * red, green, blue (exact black and white are found first); 0 for a null
 * palette, 0xFFFFFFFF for no entries. */
VK_API uint32_t  VK_CALL V_FindPaletteIndex(const RGBQUAD* palette, uint32_t colors, int32_t red, int32_t green, int32_t blue);
/* A match table for palette (colors entries), every cell resolved; the
 * caller owns it (V_FreeUserMatchTable).  Returns: it, or null. */
VK_API uint32_t* VK_CALL V_CreateUserMatchTable(const RGBQUAD* palette, uint32_t colors);
/* Frees a table of V_CreateUserMatchTable; null is ignored.
 * Returns: RESULT_OK. */
VK_API int32_t   VK_CALL V_FreeUserMatchTable(uint32_t* table);
/* Installs table (null: none) as the calling thread's user match table
 * (RESOLVE_USER_TABLE); borrowed while installed, and dithering fills its
 * unresolved cells.  Returns: the table installed before, which the
 * library never frees. */
VK_API uint32_t* VK_CALL V_SetUserMatchTable(uint32_t* table);

/* ---- reduce/: dithering ------------------------------------------------------ */

/* Prepares dithering of the bitmap's rows (any depth) into outputBits-bit
 * palette indices with the bitmap's DitheringMethod.  palette: colors
 * (1..256) entries, copied (null: the fixed palette); entries whose
 * reserved byte has bit 0 or 1 set are not chosen through a match table.
 * userMatchTable (optional): a caller's table, borrowed until
 * V_StopDithering and filled as colours resolve.  The state hangs off
 * DitherState (a state already there is not freed).
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER, RESULT_FAIL. */
VK_API int32_t VK_CALL V_StartDitheringExt(BitmapHandle* bitmap, const RGBQUAD* palette, int32_t colors,
                                           int32_t outputBits, uint32_t* userMatchTable);
/* V_StartDitheringExt with the smallest depth that holds colors entries
 * and no user table.  Returns: as V_StartDitheringExt. */
VK_API int32_t VK_CALL V_StartDithering(BitmapHandle* bitmap, const RGBQUAD* palette, int32_t colors);
/* Dithers the next row: inputRow in the bitmap's format, outputRow
 * receives the packed indices.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null, not started). */
VK_API int32_t VK_CALL V_DitherLine(BitmapHandle* bitmap, uint8_t* inputRow, uint8_t* outputRow);
/* Frees the dithering state (a caller's match table stays the caller's).
 * Returns: RESULT_OK (also when none), RESULT_BAD_PARAMETER (null). */
VK_API int32_t VK_CALL V_StopDithering(BitmapHandle* bitmap);

/* ---- reduce/: colour count ------------------------------------------------------ */

/* Counts the distinct colours of a bitmap.  colours (optional): in *count
 * its capacity; it receives the colours found, and the scan stops once
 * one more than that is found.  *count receives the number found.  Row
 * loop.
 * Returns: RESULT_OK, RESULT_NO_BITMAP, RESULT_BAD_PARAMETER,
 * RESULT_BAD_BITS_PER_PIXEL, RESULT_FAIL, row I/O errors, the status
 * callback's value. */
VK_API int32_t VK_CALL V_GetBitmapColorCountExt(BitmapHandle* bitmap, uint32_t* count, RGBQUAD* colours);

/* ---- reduce/: optimised palettes ------------------------------------------------ */

/* Optimised palette for one bitmap (the optimiser the colour resolution
 * uses) and for every bitmap of a list.  *colors: in entries wanted, out
 * entries produced.  *table (optional) receives a 32768-cell match table
 * (palette position + 1 per cell) that the caller frees with V_Free.
 * *needsDither is 0 when the palette holds the source's colours exactly.
 * palette: room for *colors entries.  fewPopular non-zero lets dominant
 * colours take entries of their own in small palettes too.
 * Returns: RESULT_OK, RESULT_NO_BITMAP, RESULT_BAD_PARAMETER,
 * RESULT_BAD_BITS_PER_PIXEL, RESULT_FAIL, RESULT_SEEK_FAILED,
 * RESULT_READ_FAILED.
 * See also: V_ColorResBitmap. */
VK_API int32_t VK_CALL V_CreateOptimizedPalette(BitmapHandle* bitmap, RGBQUAD* palette, uint32_t* colors,
                                                uint32_t** table, int32_t* needsDither, int32_t fewPopular);
/* As above over every item of list; RESULT_NO_BITMAP also for an empty
 * list, RESULT_BAD_PARAMETER for a bad list or item. */
VK_API int32_t VK_CALL V_CreateBitmapListOptPal(BitmapList list, RGBQUAD* palette, uint32_t* colors,
                                                uint32_t** table, int32_t* needsDither, int32_t fewPopular);

/* ---- reduce/: best palettes ------------------------------------------------------ */

/* The palette of up to *colors entries that keeps the squared colour error
 * over all pixels low, for one bitmap or for every item of a list (one
 * histogram for all items, so the items share the palette).  Where the
 * exact optimiser above gives each colour region entries by its spread per
 * pixel, this gives them by the error they add up to, so a large smooth
 * area gets more entries than a small saturated spot.  When the source has
 * at most *colors distinct colours, those are the palette and *needsDither
 * is 0; otherwise *needsDither is 1 and the colours come from variance-
 * minimising cuts of a 6-6-6 histogram refined by k-means.  Integer
 * arithmetic only: the same palette in every build.
 * fixed (optional, fixedCount entries, at most 256): entries the final
 * palette holds as well; the chosen colours complement them (those whose
 * reserved byte has bit 0 or 1 set are not matched and so ignored).
 * palette: room for *colors entries, which receive the chosen colours
 * sorted by red, green, blue (reserved byte 0), distinct and none equal to
 * a fixed entry; entries past them are zeroed.  *colors: in 1-256 entries
 * wanted, out entries produced.  The rows are read through row conversion,
 * so every depth and order works.  Row loop with progress (the exact-colour
 * scan before it reports nothing); the record is left as it was.
 * Returns: RESULT_OK, RESULT_NO_BITMAP (no storage; an empty list),
 * RESULT_BAD_PARAMETER (null pointers, *colors 0 or above 256, fixedCount
 * above 256 or fixed null with a count, a bad list or item),
 * RESULT_BAD_BITS_PER_PIXEL, RESULT_FAIL, row I/O errors, the status
 * callback's value.
 * See also: V_CreateOptimizedPalette, V_ColorResBitmap (RESOLVE_BEST_PALETTE). */
VK_API int32_t VK_CALL V_CreateBestPalette(BitmapHandle* bitmap, const RGBQUAD* fixed, uint32_t fixedCount,
                                           RGBQUAD* palette, uint32_t* colors, int32_t* needsDither);
/* As V_CreateBestPalette over every item of list. */
VK_API int32_t VK_CALL V_CreateBitmapListBestPal(BitmapList list, const RGBQUAD* fixed, uint32_t fixedCount,
                                                 RGBQUAD* palette, uint32_t* colors, int32_t* needsDither);

/* ---- reduce/: colour resolution ---------------------------------------------------- */

/* Makes a bitsPerPixel (1-8, 12, 16, 24, 32, 48, 64) copy of source.
 * destination: receives the new bitmap (what it held is not freed unless
 * it is source, whose old storage then goes); null: rows only reach
 * rowCallback.  flags, up to 8 bits: RESOLVE_OPTIMISED (with
 * KEEP_SYSTEM_COLOURS, NO_OPTIMISER_TABLE, FEW_POPULAR, BEST_PALETTE), RESOLVE_FIXED,
 * RESOLVE_CUBE (8 bits), RESOLVE_USER_PALETTE (+ RESOLVE_USER_TABLE: the
 * thread's match table); deeper: RESOLVE_BGR, RESOLVE_GRAY or
 * RESOLVE_ORDER5 pick the order.  palette or paletteHandle (not both;
 * borrowed): the caller's entries; reserved byte 2 marks an entry the
 * optimiser fills.  colors: entries wanted (0: 2^bits).  rowCallback: each
 * finished row; a result other than RESULT_OK stops and is returned.
 * Dithering follows source's DitheringMethod.  Row loop.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (also a source without
 * storage), RESULT_BAD_BITS_PER_PIXEL, RESULT_BAD_AREA, RESULT_FAIL, row
 * I/O errors, a callback's value. */
VK_API int32_t VK_CALL V_ColorResBitmap(BitmapHandle* source, BitmapHandle* destination, int32_t bitsPerPixel,
                                        uint32_t flags, const RGBQUAD* palette, VK_HPALETTE paletteHandle,
                                        int32_t colors, ColorResRowCallback rowCallback, intptr_t userData);
/* V_ColorResBitmap on every item of list in place; an optimised palette
 * is made once for the whole list, and its chosen colours are written into
 * palette's free entries.  rowCallback gets the item and row numbers.
 * Items before a failing one stay converted.
 * Returns: as V_ColorResBitmap; RESULT_NO_BITMAP for an empty list with an
 * optimised palette. */
VK_API int32_t VK_CALL V_ColorResBitmapListExt(BitmapList list, int32_t bitsPerPixel, uint32_t flags,
                                               RGBQUAD* palette, VK_HPALETTE paletteHandle, int32_t colors,
                                               ColorResListRowCallback rowCallback, intptr_t userData);
/* V_ColorResBitmapListExt without a row callback. */
VK_API int32_t VK_CALL V_ColorResBitmapList(BitmapList list, int32_t bitsPerPixel, uint32_t flags,
                                            RGBQUAD* palette, VK_HPALETTE paletteHandle, int32_t colors);

/* ===================================================================== */
/* 6. geometry/ - duplication, copies, orientation, turns, trim        */
/* ===================================================================== */

/* Duplication flags. */
#define DUP_ALLOCATE     1u
#define DUP_OWN_PALETTE  2u
#define DUP_OWN_REGION   4u

/* Makes in *destination a record like source (order, resolutions, view,
 * playback values, palette, region) with new dimensions; no pixels are
 * copied.  dupFlags: DUP_ALLOCATE gives it storage of source's kind;
 * DUP_OWN_PALETTE its own palette copy, else source's is shared;
 * DUP_OWN_REGION its own region (dispatch entry 2), else shared.  Release
 * it with V_FreeDuplicateBitmap and the same flags.
 * Returns: RESULT_OK, RESULT_NO_BITMAP, RESULT_BAD_PARAMETER (destination
 * is source), RESULT_BAD_BITS_PER_PIXEL, RESULT_BAD_AREA,
 * RESULT_WRITE_FAILED, RESULT_FAIL, the region hook's result. */
VK_API int32_t VK_CALL V_DupBitmapNewDim(BitmapHandle* destination, BitmapHandle* source, int32_t width,
                                         int32_t height, int32_t bitsPerPixel, uint32_t dupFlags);
/* Frees what a duplicate made with dupFlags owns; shared palette and
 * region are only let go.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null). */
VK_API int32_t VK_CALL V_FreeDuplicateBitmap(BitmapHandle* bitmap, uint32_t dupFlags);
/* Copies every row of source into destination; both have storage and the
 * same width, height, depth and row size.  Reports to the copy status
 * callback.
 * Returns: RESULT_OK, RESULT_NO_BITMAP, RESULT_BAD_PARAMETER, RESULT_FAIL,
 * row I/O errors, the copy status callback's value. */
VK_API int32_t VK_CALL V_CopyBitmapData(BitmapHandle* destination, BitmapHandle* source);
/* A whole copy of source in *destination: storage of the same kind, its
 * own palette and region, every row.  What destination held is not freed;
 * free the copy with V_FreeBitmap.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (source without storage), and
 * what V_DupBitmapNewDim and V_CopyBitmapData return. */
VK_API int32_t VK_CALL V_CopyBitmap(BitmapHandle* destination, BitmapHandle* source);
/* As V_CopyBitmap with storage of memoryType (see V_AllocateBitmap). */
VK_API int32_t VK_CALL V_CopyBitmap2(BitmapHandle* destination, BitmapHandle* source, int32_t memoryType);

/* Copies count items from index (fewer at the end) with V_CopyBitmap into
 * a new list in *newList; the source list is unchanged.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER, RESULT_FAIL, and what
 * V_CopyBitmap returns.
 * See also: V_MoveBitmapListItems. */
VK_API int32_t VK_CALL V_CopyBitmapListItems(BitmapList* newList, BitmapList list, uint32_t index, uint32_t count);

/* Orientation: view perspective, flips, quarter and half turns,
 * rectangle copies and trim. */

/* A rectangle: right and bottom exclusive. */
typedef struct VK_RECT {
  int32_t left;
  int32_t top;
  int32_t right;
  int32_t bottom;
} VK_RECT;

/* Flags of V_RotateBitmap / V_IntRotateBitmap. */
#define ROTATE_RESIZE  1u   /* the result holds the whole turned image */
#define ROTATE_LINEAR  2u
#define ROTATE_SPLINE  4u

/* Sine and cosine x 16384 of an angle in hundredths of a degree, 0..36000
 * (the caller normalises; other values give 0).  Exact integers from one
 * quarter-wave table: V_SinValue(3000) = 8192, V_CosValue(18000) = -16384. */
VK_API int32_t VK_CALL V_SinValue(int32_t angle);
VK_API int32_t VK_CALL V_CosValue(int32_t angle);

/* Mirrors one packed row of `width` pixels in place, left to right, for
 * every bitmap depth (1-8, 12, 16, 24, 32, 48, 64).  Touches only the
 * (width x bits + 7) / 8 bytes that hold pixels; padding bits are kept.
 * RESULT_BAD_PARAMETER for a null row or negative width,
 * RESULT_BAD_BITS_PER_PIXEL for another depth. */
VK_API int32_t VK_CALL V_MirrorLine(void* row, int32_t width, int32_t bitsPerPixel);

/* The flip (0 or 1) and turn (0, 90, 180, 270 degrees) that take a bitmap
 * stored in view perspective `from` to `to`.  RESULT_BAD_PARAMETER for null
 * outputs or an invalid value (6, negative, above 8). */
VK_API int32_t VK_CALL V_GetChangeViewPerspectiveParams(int32_t from, int32_t to, int32_t* flip, int32_t* angle);

/* Moves the pixels so that the bitmap is stored in `viewPerspective`.
 * destination null or equal to source: in place (the record is replaced
 * only when the change is complete).  Otherwise destination receives a new
 * bitmap duplicated with dupFlags (V_ChangeBitmapViewPerspective: all of
 * DUP_ALLOCATE | DUP_OWN_PALETTE | DUP_OWN_REGION) and source is unchanged;
 * the caller frees it with V_FreeBitmap.  The status callback is off during
 * the change and restored on every way out.  RESULT_BAD_PARAMETER for a null
 * or unallocated source or an invalid value; RESULT_FAIL when memory runs
 * out, nothing changed. */
VK_API int32_t VK_CALL V_ChangeBitmapViewPerspective(BitmapHandle* destination, BitmapHandle* source,
                                                     int32_t viewPerspective);
VK_API int32_t VK_CALL V_IntChangeBitmapViewPerspective(BitmapHandle* destination, BitmapHandle* source,
                                                        int32_t viewPerspective, uint32_t dupFlags);

/* Relabel only (the pixels are not touched): the view perspective of the
 * image flipped upside down / mirrored.  Values that are no orientation are
 * kept.  Null: RESULT_BAD_PARAMETER (Int variants: RESULT_NO_BITMAP). */
VK_API int32_t VK_CALL V_FlipBitmapViewPerspective(BitmapHandle* bitmap);
VK_API int32_t VK_CALL V_ReverseBitmapViewPerspective(BitmapHandle* bitmap);
VK_API int32_t VK_CALL V_IntFlipBitmapViewPerspective(BitmapHandle* bitmap);
VK_API int32_t VK_CALL V_IntReverseBitmapViewPerspective(BitmapHandle* bitmap);

/* The image as seen turned upside down (V_FlipBitmap) or mirrored left to
 * right (V_ReverseBitmap), for every depth and storage; compressed rows stay
 * compressed.  Progress through the status callback; a callback result
 * other than RESULT_OK stops and is returned with the pixels unchanged.
 * V_FlipBitmap: RESULT_BAD_PARAMETER for null, unallocated or view
 * perspective 6.  V_ReverseBitmap: RESULT_BAD_PARAMETER for null,
 * RESULT_NO_BITMAP for unallocated.  RESULT_FAIL when memory runs out. */
VK_API int32_t VK_CALL V_FlipBitmap(BitmapHandle* bitmap);
VK_API int32_t VK_CALL V_ReverseBitmap(BitmapHandle* bitmap);

/* A point converted in place from the bitmap's view perspective to
 * `viewPerspective` (From) or back (To); rectangles likewise, and between
 * any two orientations of a width x height image (ChangeRect).  The To
 * forms use the dimensions as seen, exchanged once more for target 4 or 8
 * only.  RESULT_BAD_PARAMETER for null pointers or invalid values. */
VK_API int32_t VK_CALL V_PointFromBitmap(BitmapHandle* bitmap, int32_t viewPerspective, int32_t* x, int32_t* y);
VK_API int32_t VK_CALL V_PointToBitmap(BitmapHandle* bitmap, int32_t viewPerspective, int32_t* x, int32_t* y);
VK_API int32_t VK_CALL V_RectFromBitmap(BitmapHandle* bitmap, int32_t viewPerspective, VK_RECT* rect);
VK_API int32_t VK_CALL V_RectToBitmap(BitmapHandle* bitmap, int32_t viewPerspective, VK_RECT* rect);
VK_API int32_t VK_CALL V_ChangeRectViewPerspective(int32_t from, int32_t width, int32_t height, int32_t to,
                                                   VK_RECT* rect);

/* A quarter turn in place: direction 1 is the turn V_RotateBitmap does for
 * +9000, 0 the turn for -9000.  Width/height and X/Y resolution exchange.
 * Progress runs from progressStart to progressEnd.  The display dispatch
 * entry 13, when set, is told of the turn (+9000 or -9000).
 * RESULT_NO_BITMAP for an unallocated bitmap, RESULT_FAIL when memory runs
 * out, a callback's refusal as given; the record is unchanged on failure. */
VK_API int32_t VK_CALL V_RotateBitmap90(BitmapHandle* bitmap, int32_t direction, int32_t progressStart,
                                        int32_t progressEnd);

/* Turns the bitmap in place by an angle in hundredths of a degree
 * (positive: the turn V_RotateBitmap90 direction 1 makes for 9000).
 * 0 and whole turns only report progress; 18000 is the exact half turn;
 * 9000 and 27000 with ROTATE_RESIZE or on a square bitmap the exact
 * quarter turns.  Any other turn samples the source on an integer walk:
 * nearest, or with ROTATE_LINEAR a blend toward the horizontal and then
 * the vertical neighbour, or with ROTATE_SPLINE (before ROTATE_LINEAR) a
 * 4 x 4 cubic spline.  Depths below 8 bits, 8-bit colour palettes and gray
 * samples with a lookup table are always sampled nearest.  Without
 * ROTATE_RESIZE the result keeps the size and is clipped; with it, it
 * holds the turned corners.  Uncovered pixels take `fill` (a colour value
 * converted as V_PutPixelColor converts it).  Views 1, 2, 5 and 7 turn the
 * other way round so the image as seen turns as asked.  Compressed rows
 * are read expanded and the result is compressed again.  Different X and Y
 * resolutions are turned with the image.  V_IntRotateBitmap reports
 * progress from progressStart to progressEnd (V_RotateBitmap: 0 to 100).
 * Display dispatch entry 13, when set, is told of the turn (the angle as
 * given, modulo 36000).
 * Returns: RESULT_OK, RESULT_NO_BITMAP (null or unallocated),
 * RESULT_BAD_PARAMETER (record with inconsistent numbers, or the index form
 * of a colour for a depth without palette), RESULT_BAD_BITS_PER_PIXEL,
 * RESULT_FAIL (memory), row I/O errors, the callback's refusal; the record
 * is unchanged on failure. */
VK_API int32_t VK_CALL V_RotateBitmap(BitmapHandle* bitmap, int32_t angle, uint32_t flags, uint32_t fill);
VK_API int32_t VK_CALL V_IntRotateBitmap(BitmapHandle* bitmap, int32_t angle, uint32_t flags, uint32_t fill,
                                         int32_t progressStart, int32_t progressEnd);

/* Sets every pixel to `color`, converted as V_PutPixelColor converts it
 * (nearest palette entry for 1-8 bits, the gray range for 12 and 16-bit
 * gray, 16-bit channels as value x 257), for every storage kind
 * (compressed 1-bit rows become all-white or all-black).  Row loop with
 * progress; the pixels change only when every row is done.
 * Returns: RESULT_OK, RESULT_NO_BITMAP (null or unallocated),
 * RESULT_BAD_PARAMETER, RESULT_BAD_BITS_PER_PIXEL, RESULT_FAIL (memory),
 * row I/O errors, the callback's refusal. */
VK_API int32_t VK_CALL V_FillBitmap(BitmapHandle* bitmap, uint32_t color);

/* Slants the bitmap in place by angle hundredths of a degree (-8999..8999):
 * with horizontal non-zero each stored row slides along itself by a whole
 * number of pixels, tan(angle) more per row: the first row processed (view
 * perspectives 2, 3, 5, 7: stored row 0; the others: the last stored row)
 * stays put.  With 0 the columns slide, through a quarter turn and back.  A
 * negative angle slants the other way (mirror, shear, mirror back).  The
 * width grows by (sine x height) / cosine from the integer sine table; the
 * uncovered triangles take `fill` (a colour value converted as
 * V_PutPixelColor converts it; compressed 1-bit rows stay compressed, the
 * fill all 1-bits when the converted value is non-zero).  Nothing is
 * blended.  A result row that would take more than 32768 bytes is not made:
 * RESULT_OK with the bitmap unchanged.  Progress 0 to 100 (the quarter turn
 * of a vertical shear reports 0 to 20).  On success display dispatch entry
 * 2, when set, copies the old region onto the result (result, old bitmap,
 * 0, 0), then entry 12, when set, is given the result and whether it has a
 * region (VK_SHEARREGIONHOOK).
 * Returns: RESULT_OK, RESULT_NO_BITMAP (null or unallocated),
 * RESULT_BAD_PARAMETER (angle out of range, record with inconsistent
 * numbers, the index form of a colour for a depth without palette),
 * RESULT_BAD_BITS_PER_PIXEL, RESULT_FAIL (memory), row I/O errors, a hook's
 * or the callback's refusal; the record is unchanged on failure.
 * See also: V_RotateBitmap, V_ReverseBitmap. */
VK_API int32_t VK_CALL V_ShearBitmap(BitmapHandle* bitmap, int32_t angle, int32_t horizontal, uint32_t fill);

/* Packed buffers, rows padded to 4 bytes.  RotateBuffer90: height rows of
 * width pixels into width rows of height pixels, destination row r = source
 * column r (source rows last to first with fromBottom).  RotateBuffer180:
 * destination row height - 1 - i = source row i mirrored; source and
 * destination may be the same buffer.  RESULT_BAD_PARAMETER for null
 * buffers or sizes below 1, RESULT_BAD_BITS_PER_PIXEL for other depths. */
VK_API int32_t VK_CALL V_RotateBuffer90(const void* source, void* destination, int32_t fromBottom, int32_t width,
                                        int32_t height, int32_t bitsPerPixel);
VK_API int32_t VK_CALL V_RotateBuffer180(const void* source, void* destination, int32_t width, int32_t height,
                                         int32_t bitsPerPixel);

/* A rectangle of source copied into a new bitmap of width x height:
 * destination receives it (the caller frees it with V_FreeBitmap); with a
 * null destination, or destination equal to source, it replaces source (in
 * place).  The rectangle is clipped against source; the clipped area lands
 * at its place relative to the rectangle and the rest of the destination is
 * 0.  V_CopyBitmapRect gives storage of the source's kind, Rect2 of
 * memoryType.  Progress goes to the copy status callback.
 * On failure source and destination are as they were.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null or unallocated source,
 * empty clipped rectangle), RESULT_FAIL (memory), row I/O errors, the copy
 * status callback's value. */
VK_API int32_t VK_CALL V_CopyBitmapRect(BitmapHandle* destination, BitmapHandle* source, int32_t left, int32_t top,
                                        int32_t width, int32_t height);
VK_API int32_t VK_CALL V_CopyBitmapRect2(BitmapHandle* destination, BitmapHandle* source, int32_t left, int32_t top,
                                         int32_t width, int32_t height, int32_t memoryType);
/* Cuts the bitmap down to the part of the rectangle inside it (clipped
 * first), in place.
 * Returns: as V_CopyBitmapRect. */
VK_API int32_t VK_CALL V_TrimBitmap(BitmapHandle* bitmap, int32_t left, int32_t top, int32_t width, int32_t height);

/* Resize.  Nearest-neighbour positions are a whole step plus a remainder
 * carried against a denominator (no drift); area averaging weighs source
 * pixels in hundredths of a pixel; the smooth method enlarges with a natural
 * cubic spline in single precision. */

/* Size flags (V_SizeBitmap, V_ResizeBitmapExt), tested in the order 1, 2, 4;
 * none: nearest neighbour. */
#define SIZE_NEAREST          0u
#define SIZE_ONE_BIT_DENSITY  1u  /* 1-bit images: set from a count of the box's pixels */
#define SIZE_RESAMPLE         2u  /* area averaging */
#define SIZE_SMOOTH           4u  /* growing axes by cubic spline, the others averaged */

/* Writes count destination pixels of bitsPerPixel (1-8, 12, 16, 24, 32,
 * 48, 64; other depths write nothing) chosen from src: pixel i takes the
 * source pixel floor((accStart + i x (step x denominator + remainder)) /
 * denominator) after startX.  Below 8 bits and at 12 bits startX is the
 * pixel src's first byte holds (src points at that byte) and expand
 * (destination not narrower than the source) takes the whole step as 0;
 * the destination row of dstBytes bytes is cleared where no pixel lands
 * (4 bits: only the nibble after an odd last pixel).  For 8 bits and more
 * the caller offsets src and expand is ignored.
 * See also: V_ReverseGetResizedScanLine, V_StartResize. */
VK_API void VK_CALL V_GetResizedScanLine(int32_t bitsPerPixel, int32_t dstBytes, int32_t startX, int32_t step,
                                         int32_t accStart, int32_t remainder, const void* src, void* dst,
                                         int32_t count, int32_t denominator, int32_t expand);
/* The same pixels as V_GetResizedScanLine, written from the last to the
 * first so that src and dst may be one buffer when the row grows; a
 * shrinking row below 8 bits (expand 0) goes front to back assigning each
 * pixel, nothing else of the row is touched.  The result means nothing. */
VK_API int32_t VK_CALL V_ReverseGetResizedScanLine(int32_t bitsPerPixel, int32_t dstBytes, int32_t startX,
                                                   int32_t step, int32_t accStart, int32_t remainder,
                                                   const void* src, void* dst, int32_t count, int32_t denominator,
                                                   int32_t expand);

/* Row streaming.  V_StartResize makes in *state an object for a caller that
 * feeds oldWidth x oldHeight rows one by one; a 0 new side follows the other
 * with the aspect ratio (rounded to nearest).  Free it with V_StopResize.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null state, sizes), RESULT_FAIL. */
VK_API int32_t VK_CALL V_StartResize(int32_t oldWidth, int32_t oldHeight, int32_t newWidth, int32_t newHeight,
                                     void** state);
/* Resizes source row rowNumber in place (row must hold the new width) and
 * says how many destination rows it becomes: *count and the result (0: drop
 * it, the row is then not touched); *newWidth the new width.  Rows may come
 * forwards, backwards or by jumps: the count depends only on the row.
 * Returns: the count, RESULT_BAD_PARAMETER (null pointer). */
VK_API int32_t VK_CALL V_Resize(void* row, int32_t rowNumber, int32_t bitsPerPixel, int32_t* newWidth,
                                int32_t* count, void* state);
/* Returns: RESULT_OK, RESULT_BAD_PARAMETER (null). */
VK_API int32_t VK_CALL V_StopResize(void* state);

/* Resizes bitmap in place to width x height (a 0 side keeps the aspect
 * ratio) by flags.  SIZE_ONE_BIT_DENSITY counts only for 1-bit bitmaps
 * (for a gray one it wins over SIZE_RESAMPLE, else it is dropped).  Palette
 * images are averaged in 24-bit colour and dithered back to their palette
 * with their DitheringMethod.  The display dispatch entry 6, when set, is
 * told the new size and may refuse it.  Progress through the status
 * callback; on any failure the bitmap is as it was.
 * Returns: RESULT_OK (also at once for the same size), RESULT_BAD_PARAMETER
 * (null, no storage, sizes), RESULT_FAIL (memory), row I/O errors, the
 * hook's or the status callback's value. */
VK_API int32_t VK_CALL V_SizeBitmap(BitmapHandle* bitmap, int32_t width, int32_t height, uint32_t flags);
/* Resizes source into destination, which the caller has allocated at the
 * wanted width, height and depth (and palette, for 1-8 bits); source is not
 * changed.  Destination rows go bottom-up when the view perspectives are 0
 * and 2; other differing perspectives work through a turned copy of source.
 * A depth other than source's is converted to (dithered to a palette).
 * The display dispatch entry 6 is told when destination has its own region.
 * On a failure or a refusal by the status callback destination holds the
 * rows written so far.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null, one record for both),
 * RESULT_NO_BITMAP (either without storage), RESULT_FAIL, row I/O errors, the hook's or the status
 * callback's value. */
VK_API int32_t VK_CALL V_ResizeBitmapExt(BitmapHandle* source, BitmapHandle* destination, uint32_t flags);
/* V_ResizeBitmapExt with SIZE_NEAREST. */
VK_API int32_t VK_CALL V_ResizeBitmap(BitmapHandle* source, BitmapHandle* destination);

/* Row-segment reader: any (row, first column, count) of a virtual resized
 * copy, without making the copy. */
#define RESIZE_READ_DENSITY    1u    /* the 1-bit density method */
#define RESIZE_READ_IN_ORDER   4u    /* rows only ever increase: an earlier row is refused */
#define RESIZE_READ_AVERAGE   16u    /* area averaging (SIZE_RESAMPLE) */
#define RESIZE_READ_SPLINE    32u    /* the smooth method (SIZE_SMOOTH) */
#define RESIZE_READ_KEEP_ROWS 128u   /* keep every row made: re-reading costs nothing */
/* Supplies stored source row `row` into buffer (byteCount bytes, the
 * record's BytesPerLine).  Returns: byteCount or a negative result. */
typedef int32_t (VK_CALL* ResizeRowReader)(intptr_t userData, int32_t row, uint8_t* buffer, int32_t byteCount);
/* Starts a reader of source resized to width x height (a 0 side keeps the
 * aspect ratio) with rows of bitsPerPixel (below 1: source's) for a palette
 * of colors entries (null: source's palette, or the fixed one), by flags as
 * above.  source describes the rows; with a reader it needs no storage and
 * the rows come from reader.  Rows are in source's stored order and equal
 * what V_ResizeBitmapExt writes with the same method and depth.  Free the
 * state with V_StopResizeBitmap.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null state, sizes, depth),
 * RESULT_NO_BITMAP (neither storage nor reader), RESULT_FAIL. */
VK_API int32_t VK_CALL V_StartResizeBitmap(BitmapHandle* source, int32_t width, int32_t height,
                                           int32_t bitsPerPixel, const RGBQUAD* palette, int32_t colors,
                                           uint32_t flags, ResizeRowReader reader, intptr_t userData,
                                           void** state);
/* Copies count pixels of resized row `row` from column `column` into
 * buffer, packed from its first bit.
 * Returns: the bytes written, RESULT_BAD_PARAMETER (null, wrong mark,
 * outside the image, an earlier row with RESIZE_READ_IN_ORDER), row I/O
 * errors. */
VK_API int32_t VK_CALL V_GetResizedRowCol(void* state, uint8_t* buffer, int32_t row, int32_t column,
                                          int32_t count);
/* Unlocks the source, frees every buffer and the dithering, then the state.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null or not a reader). */
VK_API int32_t VK_CALL V_StopResizeBitmap(void* state);

/* ---- geometry/: device-independent bitmaps (out) ------------------------------------------ */
/* A new DIB (see V_ChangeFromDIB) from a copy of bitmap: header of 40 bytes
 * (type 0), 108 (type 1: masks, end points and gamma zero) or 124 (type 2:
 * colour space "sRGB", intent and profile zero); compression 0; positive
 * height, rows bottom-up; dots per inch as (dpi * 10000 + 127) / 254 pixels
 * per metre.  Depths: 1, 4 and 8 kept (2 and 3 widened to 4, 5-7 to 8,
 * index for index), with their palette; 16, 24, 32 of ORDER_BGR kept
 * (the fourth byte of 32-bit pixels too); other orders to the same depth
 * in ORDER_BGR; 12- and 16-bit gray and 48 bits to 24; 64 to 32.  A bitmap
 * in a view perspective other than 0 or 2 is turned in a temporary copy.
 * The caller frees the block (VKP_GlobalFree).  bitmap is never changed.
 * Returns: the block, or null (null, unallocated, type not 0-2, memory). */
VK_API VK_HGLOBAL VK_CALL V_ConvertToDIB2(BitmapHandle* bitmap, int32_t type);
/* V_ConvertToDIB2 (bitmap, 0). */
VK_API VK_HGLOBAL VK_CALL V_ConvertToDIB(BitmapHandle* bitmap);
/* V_ConvertToDIB2, then the bitmap is freed (V_FreeBitmap) when the block
 * was made; on failure it is as it was. */
VK_API VK_HGLOBAL VK_CALL V_ChangeToDIB2(BitmapHandle* bitmap, int32_t type);
VK_API VK_HGLOBAL VK_CALL V_ChangeToDIB(BitmapHandle* bitmap);

/* ---- geometry/: alpha channel ---------------------------------------------------------------- */
/* Writes alpha into bitmap's alpha channel (see V_GetBitmapAlpha), in
 * place, over the area both cover (rows and columns from 0 up to the
 * smaller height and width); the rest keeps its alpha.  A bitmap of another
 * depth is first converted to 32 bits (64 from 48) in ORDER_BGR (ORDER_RGB
 * kept for deeper RGB bitmaps); that conversion stays even when a later
 * step fails.  alpha is used as it is when it is gray of 8 bits (16 for a
 * 64-bit bitmap; 1 or 8 for a 16-bit one) in bitmap's view perspective,
 * else through a gray copy turned to it.  A 16-bit pixel's bit 15 is set
 * for alpha 128 and above (a set bit of 1-bit alpha).  alpha is not changed.
 * Returns: RESULT_OK, RESULT_BAD_PARAMETER (null or unallocated),
 * RESULT_FAIL (memory), row I/O errors, what the conversions return. */
VK_API int32_t VK_CALL V_SetBitmapAlpha(BitmapHandle* bitmap, BitmapHandle* alpha);

#ifdef __cplusplus
}
#endif

/* Layout checks: the exact record in a 32-bit build (C11 / C++ only; a C99
 * compiler simply skips them). */
#if defined(__cplusplus)
#  define VK_STATIC_ASSERT static_assert
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#  define VK_STATIC_ASSERT _Static_assert
#endif
#ifdef VK_STATIC_ASSERT
#  if UINTPTR_MAX == 0xFFFFFFFFu
VK_STATIC_ASSERT(sizeof(BitmapHandle) == 156, "BitmapHandle is 39 words");
VK_STATIC_ASSERT(sizeof(ThreadSettings) == 97 * 4, "ThreadSettings is 97 words");
#  endif
VK_STATIC_ASSERT(sizeof(VersionInfo) == 104, "VersionInfo is 104 bytes");
#endif

#endif /* VKKRN_H */
