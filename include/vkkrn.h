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
 * Sections:
 *   1. Basic types, result codes, constants
 *   2. Records: BitmapHandle, ThreadSettings, VersionInfo, BufferRedirect
 *   3. Runtime: threads, slots, callbacks, allocators, utilities
 *   4. Bitmap record and defaults
 *   5. Storage and memory types
 *   6. Row access and compressed rows
 *   7. File layer and I/O redirection
 *   8. Palettes and palette lookup
 *   9. Row conversion, grayscale, pixel access
 *  10. Dithering, colour count, optimised palette, colour resolution
 *  11. Duplication, copies, bitmap lists
 *  12. Dispatch tables
 */
#ifndef VKKRN_H
#define VKKRN_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#  define VK_CALL __stdcall
#  if defined(VKKRN_BUILD)
#    define VK_API __declspec(dllexport)
#  else
#    define VK_API
#  endif
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
/* 1. Basic types, result codes, constants                               */
/* ===================================================================== */

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

/* Colour value forms (V_GetPixelColor and friends). */
#define COLOR_PALETTE_INDEX 0x01000000u
#define COLOR_GRAY16        0x04000000u
#define COLOR_INVALID       0x80000000u

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

/* Row-conversion flags (V_ConvertBufferExt). */
#define CONVERT_SRC_GRAY      1u
#define CONVERT_DST_GRAY      2u
#define CONVERT_SRC_BITRANGE  4u
#define CONVERT_DST_BITRANGE  8u

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

/* Duplication flags. */
#define DUP_ALLOCATE     1u
#define DUP_OWN_PALETTE  2u
#define DUP_OWN_REGION   4u

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

#define VK_MAX_PATH 260

/* ===================================================================== */
/* 2. Records                                                            */
/* ===================================================================== */

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

/* I/O callbacks of the redirection table. */
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

/* Row callbacks of colour resolution. */
typedef int32_t (VK_CALL* ColorResRowCallback)(BitmapHandle* destination, uint8_t* row, int32_t lines, intptr_t userData);
typedef int32_t (VK_CALL* ColorResListRowCallback)(BitmapHandle* destination, uint8_t* row, uint32_t itemIndex, int32_t rowNumber, int32_t lines, intptr_t userData);

/* Display dispatch table: 20 optional hooks. */
typedef int32_t (VK_CALL* VK_DISPATCHPROC)();
#define VK_DISPATCH_ENTRIES 20
typedef int32_t (VK_CALL* VK_REGIONHOOK)(BitmapHandle* destination, BitmapHandle* source, int32_t dx, int32_t dy);   /* entry 2  */
typedef int32_t (VK_CALL* VK_SCALEREGIONHOOK)(BitmapHandle* bitmap, int32_t width, int32_t height);                 /* entry 6  */
typedef int32_t (VK_CALL* VK_ROTATEREGIONHOOK)(BitmapHandle* bitmap, int32_t oldWidth, int32_t oldHeight, int32_t angle); /* entry 13 */
typedef int32_t (VK_CALL* VK_PIXELPOSHOOK)(BitmapHandle* bitmap, int32_t row, int32_t column);                    /* entry 17 */

/* ===================================================================== */
/* 3. Runtime                                                            */
/* ===================================================================== */

VK_API uint32_t  VK_CALL V_TlsAlloc(void);
VK_API int32_t   VK_CALL V_TlsFree(uint32_t index);
VK_API int32_t   VK_CALL V_TlsSetValue(uint32_t index, uintptr_t value);
VK_API uintptr_t VK_CALL V_TlsGetValue(uint32_t index);

VK_API StatusCallback VK_CALL V_SetStatusCallBack(StatusCallback callback, intptr_t userData);
VK_API StatusCallback VK_CALL V_GetStatusCallBack(intptr_t* userData);
VK_API StatusCallback VK_CALL V_SetCopyStatusCallBack(StatusCallback callback, intptr_t userData);
VK_API StatusCallback VK_CALL V_GetCopyStatusCallBack(intptr_t* userData);

VK_API void* VK_CALL V_Malloc(size_t size);
VK_API void* VK_CALL V_Calloc(size_t count, size_t size);
VK_API void* VK_CALL V_Realloc(void* pointer, size_t size);
VK_API void  VK_CALL V_Free(void* pointer);
VK_API void* VK_CALL V_OsAlloc(size_t size);
VK_API void* VK_CALL V_OsAllocInit(size_t size, int32_t zeroFill);
VK_API void* VK_CALL V_OsReAlloc(void* pointer, size_t size);
VK_API void* VK_CALL V_OsReAllocInit(void* pointer, size_t size);
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
VK_API void  VK_CALL V_DumpMemoryReport(uint32_t flags);

VK_API char*    VK_CALL V_Strtok(char* text, const char* delimiters);
VK_API uint32_t VK_CALL V_SQRT(uint32_t value);
VK_API const uint8_t* VK_CALL V_Get1BitOnTable(void);
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
VK_API int32_t VK_CALL V_ThunkDispatch(ThunkArgs* args, int32_t request);

/* ===================================================================== */
/* 4. Bitmap record and defaults                                         */
/* ===================================================================== */

VK_API int32_t VK_CALL V_InitBitmap(BitmapHandle* bitmap, int32_t width, int32_t height, int32_t bitsPerPixel);
VK_API int32_t VK_CALL V_CreateBitmap(BitmapHandle* bitmap, int32_t memoryType, int32_t width, int32_t height,
                                      int32_t bitsPerPixel, int32_t order, const RGBQUAD* palette,
                                      int32_t viewPerspective, void* data, uint32_t dataSize);
VK_API void    VK_CALL V_CopyBitmapHandle(BitmapHandle* destination, const BitmapHandle* source);
VK_API int32_t VK_CALL V_FreeImage(BitmapHandle* bitmap, int32_t freeAttachments);
VK_API int32_t VK_CALL V_UpdateBitmapSize(BitmapHandle* bitmap);
VK_API int32_t VK_CALL V_CopyPlaybackParms(BitmapHandle* destination, BitmapHandle* source);

VK_API int32_t VK_CALL V_SetDefaultXResolution(int32_t dpi);
VK_API int32_t VK_CALL V_SetDefaultYResolution(int32_t dpi);
VK_API int32_t VK_CALL V_GetDefaultXResolution(void);
VK_API int32_t VK_CALL V_GetDefaultYResolution(void);
VK_API int32_t VK_CALL V_DefaultDithering(int32_t method);
VK_API int32_t VK_CALL V_GetDefaultDithering(void);
VK_API int32_t VK_CALL V_SetDefaultMemoryType(int32_t memoryType);
VK_API int32_t VK_CALL V_GetDefaultMemoryType(int32_t* memoryType);

/* Gray parameters: bit range rule (count, mask, shift) and record helpers. */
VK_API int32_t VK_CALL V_GetGrayParams(int32_t bits, int32_t maxBits, int32_t lowBit, int32_t highBit,
                                       int32_t* count, uint32_t* mask, int32_t* shift);
VK_API int32_t VK_CALL V_InitGrayParams(BitmapHandle* bitmap);
VK_API int32_t VK_CALL V_CopyGrayParams(BitmapHandle* destination, const BitmapHandle* source);

/* ===================================================================== */
/* 5. Storage and memory types                                           */
/* ===================================================================== */

VK_API int32_t VK_CALL V_AllocateBitmap(BitmapHandle* bitmap, int32_t memoryType);
VK_API void    VK_CALL V_FreeBitmap(BitmapHandle* bitmap);
VK_API void    VK_CALL V_AccessBitmap(BitmapHandle* bitmap);
VK_API void    VK_CALL V_ReleaseBitmap(BitmapHandle* bitmap);
VK_API int32_t VK_CALL V_LockBitmap(BitmapHandle* bitmap);
VK_API void    VK_CALL V_UnlockBitmap(BitmapHandle* bitmap, int32_t keepLocked);
VK_API int32_t VK_CALL V_SetBitmapDataPointer(BitmapHandle* bitmap, void* data, uint32_t dataSize);
VK_API int32_t VK_CALL V_GetBitmapMemoryInfo(BitmapHandle* bitmap, int32_t* memoryType, uint32_t* tileSize,
                                             uint32_t* totalTiles, uint32_t* memoryTiles,
                                             uint32_t* maxMappedTiles, uint32_t* mappedTiles);
VK_API int32_t VK_CALL V_SetBitmapMemoryInfo(BitmapHandle* bitmap, int32_t memoryType, uint32_t tileSize,
                                             uint32_t totalTiles, uint32_t memoryTiles, uint32_t maxMappedTiles,
                                             uint32_t mappedTiles, uint32_t whichValues);
VK_API int32_t VK_CALL V_ChangeBitmapHeight(BitmapHandle* bitmap, int32_t newHeight);
VK_API int32_t VK_CALL V_SetMemoryThresholds(int32_t memoryReserve, int32_t tiledThreshold, int32_t tileSize,
                                             int32_t memoryTileLimit, int32_t mappedTileLimit, uint32_t whichValues);
VK_API void    VK_CALL V_GetMemoryThresholds(int32_t* memoryReserve, int32_t* tiledThreshold, int32_t* tileSize,
                                             int32_t* memoryTileLimit, int32_t* mappedTileLimit);
VK_API int32_t VK_CALL V_SetTempDirectory(const char* path);
VK_API int32_t VK_CALL V_GetTempDirectory(char* buffer, int32_t bufferSize);

/* ===================================================================== */
/* 6. Row access and compressed rows                                     */
/* ===================================================================== */

VK_API int32_t VK_CALL V_GetBitmapRow(BitmapHandle* bitmap, void* buffer, uint32_t row, int32_t byteCount);
VK_API int32_t VK_CALL V_PutBitmapRow(BitmapHandle* bitmap, const void* buffer, uint32_t row, int32_t byteCount);
VK_API int32_t VK_CALL V_GetBitmapRowCol(BitmapHandle* bitmap, void* buffer, uint32_t row, int32_t column, int32_t byteCount);
VK_API int32_t VK_CALL V_PutBitmapRowCol(BitmapHandle* bitmap, const void* buffer, uint32_t row, int32_t column, int32_t byteCount);

VK_API int32_t VK_CALL V_CompressRow(void* outRecord, uint8_t* packedRow, int32_t startColumn, int32_t pixelCount);
VK_API int32_t VK_CALL V_CompressRows(void* outBlock, const uint8_t* packedRows, int32_t width, int32_t rowCount);
VK_API int32_t VK_CALL V_ExpandRow(const void* record, uint8_t* packedOut, int32_t startColumn, int32_t pixelCount);
VK_API int32_t VK_CALL V_ExpandRows(const void* block, uint8_t* packedOut, int32_t width, int32_t rowCount);
VK_API int32_t VK_CALL V_MirrorCompressedBuffer(const void* srcBlock, void* dstBlock, int32_t rowCount);
VK_API int32_t VK_CALL V_FlipCompressedBuffer(const void* srcBlock, void* dstBlock, int32_t rowCount);
VK_API int32_t VK_CALL V_ChangeBitmapCompression(BitmapHandle* bitmap, int32_t mode);
VK_API int32_t VK_CALL V_ToggleBitmapCompression(BitmapHandle* bitmap);
VK_API int32_t VK_CALL V_GrowBitmapHeap(BitmapHandle* bitmap, uint32_t bytes);
VK_API int32_t VK_CALL V_TrimBitmapHeap(BitmapHandle* bitmap);

/* ===================================================================== */
/* 7. File layer and I/O redirection                                     */
/* ===================================================================== */

VK_API VK_FILE VK_CALL V_OsCreat(const char* name, int32_t mode);
VK_API VK_FILE VK_CALL V_OsOpen(const char* name, int32_t openFlags, int32_t permission, intptr_t unused);
VK_API int32_t VK_CALL V_OsRead(VK_FILE file, void* buffer, int32_t count, intptr_t unused);
VK_API int32_t VK_CALL V_OsWrite(VK_FILE file, const void* buffer, int32_t count, intptr_t unused);
VK_API int32_t VK_CALL V_OsSeek(VK_FILE file, int32_t offset, int32_t origin, intptr_t unused);
VK_API int32_t VK_CALL V_OsClose(VK_FILE file, intptr_t unused);
VK_API int32_t VK_CALL V_OsDelete(const char* name);
VK_API int32_t VK_CALL V_OsGetTempName(char* buffer);

VK_API void    VK_CALL V_RedirectIO(VK_OPENPROC openProc, VK_READPROC readProc, VK_WRITEPROC writeProc,
                                    VK_SEEKPROC seekProc, VK_CLOSEPROC closeProc, intptr_t userData);
VK_API VK_FILE VK_CALL V_RedirectedOpen(const char* name, int32_t openFlags, int32_t permission);
VK_API int32_t VK_CALL V_RedirectedRead(VK_FILE file, void* buffer, int32_t count);
VK_API int32_t VK_CALL V_RedirectedWrite(VK_FILE file, const void* buffer, int32_t count);
VK_API int32_t VK_CALL V_RedirectedSeek(VK_FILE file, int32_t offset, int32_t origin);
VK_API int32_t VK_CALL V_RedirectedClose(VK_FILE file);
VK_API void    VK_CALL V_FilterIO(VK_OPENPROC* openProc, VK_READPROC* readProc, VK_WRITEPROC* writeProc,
                                  VK_SEEKPROC* seekProc, VK_CLOSEPROC* closeProc,
                                  intptr_t* openData, intptr_t* readData, intptr_t* writeData,
                                  intptr_t* seekData, intptr_t* closeData);
VK_API void    VK_CALL V_GetFilterIOData(intptr_t* openData, intptr_t* readData, intptr_t* writeData,
                                         intptr_t* seekData, intptr_t* closeData);
VK_API int32_t VK_CALL V_StartRedirectToBuffer(BufferRedirect** context, VK_FILE* file, uint32_t redirectFlags,
                                               void* buffer, uint32_t bufferSize);
VK_API int32_t VK_CALL V_StopRedirectToBuffer(BufferRedirect* context, void** buffer, uint32_t* length);

/* ===================================================================== */
/* 8. Palettes and palette lookup                                        */
/* ===================================================================== */

VK_API VK_HPALETTE VK_CALL V_CreatePalette(const RGBQUAD* entries, int32_t count);
VK_API int32_t     VK_CALL V_GetPaletteSize(VK_HPALETTE palette);
VK_API int32_t     VK_CALL V_GetPaletteEntries(VK_HPALETTE palette, int32_t start, int32_t count, RGBQUAD* out);
VK_API int32_t     VK_CALL V_SetPaletteEntries(VK_HPALETTE palette, int32_t start, int32_t count, const RGBQUAD* entries);
VK_API VK_HPALETTE VK_CALL V_CreateSystemPalette(void);
VK_API VK_HPALETTE VK_CALL V_DupPalette(VK_HPALETTE palette);
VK_API VK_HPALETTE VK_CALL V_CreateGrayPalette(int32_t bits);
VK_API VK_HPALETTE VK_CALL V_CreateFixedPalette(int32_t bits);
VK_API const RGBQUAD* VK_CALL V_IntGetFixedPalette(int32_t bits);
VK_API int32_t     VK_CALL V_GetFixedPalette(RGBQUAD* out, int32_t bits);
VK_API void        VK_CALL V_CreateBitmapPalette(BitmapHandle* bitmap, const RGBQUAD* entries, int32_t count);
VK_API int32_t     VK_CALL V_GetBitmapPaletteEntries(BitmapHandle* bitmap, int32_t start, int32_t count, RGBQUAD* out);
VK_API int32_t     VK_CALL V_GetBitmapColors(BitmapHandle* bitmap, int32_t start, int32_t count, RGBQUAD* out);
VK_API int32_t     VK_CALL V_PutBitmapColors(BitmapHandle* bitmap, int32_t start, int32_t count, const RGBQUAD* entries);
VK_API int32_t     VK_CALL V_CreateBitmapGrayPalette(BitmapHandle* bitmap);
VK_API int32_t     VK_CALL V_CreateBitmapFixedPalette(BitmapHandle* bitmap);
VK_API VK_HPALETTE VK_CALL V_DupBitmapPalette(BitmapHandle* bitmap);
VK_API int32_t     VK_CALL V_CopyBitmapPalette(BitmapHandle* destination, BitmapHandle* source);
VK_API int32_t     VK_CALL V_CompareBitmapToPalette(BitmapHandle* bitmap, const RGBQUAD* entries, int32_t count);
VK_API int32_t     VK_CALL V_SetBitmapPalette(BitmapHandle* bitmap, VK_HPALETTE palette);
VK_API int32_t     VK_CALL V_SetPaletteType(BitmapHandle* bitmap, int32_t type);
VK_API uint32_t    VK_CALL V_GetNearestPaletteIndex(BitmapHandle* bitmap, VK_COLORREF color);

VK_API uint32_t  VK_CALL V_FindPaletteIndex(const RGBQUAD* palette, uint32_t colors, int32_t red, int32_t green, int32_t blue);
VK_API uint32_t* VK_CALL V_CreateUserMatchTable(const RGBQUAD* palette, uint32_t colors);
VK_API int32_t   VK_CALL V_FreeUserMatchTable(uint32_t* table);
VK_API uint32_t* VK_CALL V_SetUserMatchTable(uint32_t* table);

/* ===================================================================== */
/* 9. Row conversion, grayscale, pixel access                            */
/* ===================================================================== */

VK_API int32_t  VK_CALL V_ConvertBufferExt(uint8_t* buffer, int32_t width, int32_t srcBits, int32_t dstBits,
                                           int32_t srcOrder, int32_t dstOrder, const RGBQUAD* srcPalette,
                                           const RGBQUAD* dstPalette, uint32_t flags, int32_t lowBit, int32_t highBit);
VK_API int32_t  VK_CALL V_ConvertBuffer(uint8_t* buffer, int32_t width, int32_t srcBits, int32_t dstBits,
                                        int32_t srcOrder, int32_t dstOrder, const RGBQUAD* srcPalette,
                                        const RGBQUAD* dstPalette);
VK_API uint32_t VK_CALL V_CalcConvertSize(int32_t width1, int32_t bits1, int32_t width2, int32_t bits2);

VK_API int32_t VK_CALL V_IsGrayScalePalette(const RGBQUAD* entries, int32_t count);
VK_API int32_t VK_CALL V_IsGrayScaleBitmap(BitmapHandle* bitmap);
VK_API int32_t VK_CALL V_GrayScaleBitmap(BitmapHandle* bitmap, int32_t bits);

VK_API uint32_t VK_CALL V_GetPixelColor(BitmapHandle* bitmap, int32_t row, int32_t column);
VK_API int32_t  VK_CALL V_PutPixelColor(BitmapHandle* bitmap, int32_t row, int32_t column, uint32_t color);
VK_API int32_t  VK_CALL V_GetPixelData(BitmapHandle* bitmap, void* buffer, int32_t row, int32_t column, int32_t bufferSize);
VK_API int32_t  VK_CALL V_PutPixelData(BitmapHandle* bitmap, const void* buffer, int32_t row, int32_t column, int32_t bufferSize);
VK_API uint32_t VK_CALL V_TranslateBitmapColor(BitmapHandle* destination, BitmapHandle* source, uint32_t color);

/* ===================================================================== */
/* 10. Dithering, colour count, optimised palette, colour resolution     */
/* ===================================================================== */

VK_API int32_t VK_CALL V_StartDitheringExt(BitmapHandle* bitmap, const RGBQUAD* palette, int32_t colors,
                                           int32_t outputBits, uint32_t* userMatchTable);
VK_API int32_t VK_CALL V_StartDithering(BitmapHandle* bitmap, const RGBQUAD* palette, int32_t colors);
VK_API int32_t VK_CALL V_DitherLine(BitmapHandle* bitmap, uint8_t* inputRow, uint8_t* outputRow);
VK_API int32_t VK_CALL V_StopDithering(BitmapHandle* bitmap);

VK_API int32_t VK_CALL V_GetBitmapColorCountExt(BitmapHandle* bitmap, uint32_t* count, RGBQUAD* colours);

/* Optimised palette for one bitmap (the optimiser the colour resolution
 * uses) and for every bitmap of a list.  *colors: in entries wanted, out
 * entries produced.  *table (optional) receives a 32768-cell match table
 * (palette position + 1 per cell) that the caller frees with V_Free.
 * *needsDither is 0 when the palette holds the source's colours exactly. */
VK_API int32_t VK_CALL V_CreateOptimizedPalette(BitmapHandle* bitmap, RGBQUAD* palette, uint32_t* colors,
                                                uint32_t** table, int32_t* needsDither, int32_t fewPopular);
VK_API int32_t VK_CALL V_CreateBitmapListOptPal(BitmapList list, RGBQUAD* palette, uint32_t* colors,
                                                uint32_t** table, int32_t* needsDither, int32_t fewPopular);

VK_API int32_t VK_CALL V_ColorResBitmap(BitmapHandle* source, BitmapHandle* destination, int32_t bitsPerPixel,
                                        uint32_t flags, const RGBQUAD* palette, VK_HPALETTE paletteHandle,
                                        int32_t colors, ColorResRowCallback rowCallback, intptr_t userData);
VK_API int32_t VK_CALL V_ColorResBitmapListExt(BitmapList list, int32_t bitsPerPixel, uint32_t flags,
                                               RGBQUAD* palette, VK_HPALETTE paletteHandle, int32_t colors,
                                               ColorResListRowCallback rowCallback, intptr_t userData);
VK_API int32_t VK_CALL V_ColorResBitmapList(BitmapList list, int32_t bitsPerPixel, uint32_t flags,
                                            RGBQUAD* palette, VK_HPALETTE paletteHandle, int32_t colors);

/* ===================================================================== */
/* 11. Duplication, copies, bitmap lists                                 */
/* ===================================================================== */

VK_API int32_t VK_CALL V_DupBitmapNewDim(BitmapHandle* destination, BitmapHandle* source, int32_t width,
                                         int32_t height, int32_t bitsPerPixel, uint32_t dupFlags);
VK_API int32_t VK_CALL V_FreeDuplicateBitmap(BitmapHandle* bitmap, uint32_t dupFlags);
VK_API int32_t VK_CALL V_CopyBitmapData(BitmapHandle* destination, BitmapHandle* source);
VK_API int32_t VK_CALL V_CopyBitmap(BitmapHandle* destination, BitmapHandle* source);
VK_API int32_t VK_CALL V_CopyBitmap2(BitmapHandle* destination, BitmapHandle* source, int32_t memoryType);

VK_API int32_t VK_CALL V_CreateBitmapList(BitmapList* list);
VK_API int32_t VK_CALL V_DestroyBitmapList(BitmapList list);
VK_API int32_t VK_CALL V_GetBitmapListCount(BitmapList list, uint32_t* count);
VK_API int32_t VK_CALL V_GetBitmapListItem(BitmapList list, uint32_t index, BitmapHandle* bitmap);
VK_API int32_t VK_CALL V_SetBitmapListItem(BitmapList list, uint32_t index, const BitmapHandle* bitmap);
VK_API int32_t VK_CALL V_InsertBitmapListItem(BitmapList list, uint32_t index, const BitmapHandle* bitmap);
VK_API int32_t VK_CALL V_RemoveBitmapListItem(BitmapList list, uint32_t index, BitmapHandle* bitmap);
VK_API int32_t VK_CALL V_DeleteBitmapListItems(BitmapList list, uint32_t index, uint32_t count);
VK_API int32_t VK_CALL V_CopyBitmapListItems(BitmapList* newList, BitmapList list, uint32_t index, uint32_t count);
VK_API int32_t VK_CALL V_MoveBitmapListItems(BitmapList* newList, BitmapList list, uint32_t index, uint32_t count);

/* ===================================================================== */
/* 12. Dispatch tables                                                   */
/* ===================================================================== */

VK_API int32_t VK_CALL V_SetDisDispatch(VK_DISPATCHPROC const* table);
VK_API int32_t VK_CALL V_GetDisDispatch(VK_DISPATCHPROC* tableOut);
VK_API int32_t VK_CALL V_ResetDisDispatch(void);
VK_API int32_t VK_CALL V_SetFilDispatch(const uintptr_t* value);
VK_API int32_t VK_CALL V_GetFilDispatch(uintptr_t* valueOut);

/* ===================================================================== */
/* 13. Orientation, turns, rectangle copies                              */
/* ===================================================================== */

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

/* Turns by an angle in hundredths of a degree.  Built: 0 (progress only),
 * 18000 (half turn in place), 9000 and 27000 with ROTATE_RESIZE or on a
 * square bitmap (quarter turns).  Any other turn returns RESULT_FAIL and
 * changes nothing.  RESULT_NO_BITMAP for a null or unallocated bitmap. */
VK_API int32_t VK_CALL V_RotateBitmap(BitmapHandle* bitmap, int32_t angle, uint32_t flags, uint32_t fill);
VK_API int32_t VK_CALL V_IntRotateBitmap(BitmapHandle* bitmap, int32_t angle, uint32_t flags, uint32_t fill,
                                         int32_t progressStart, int32_t progressEnd);

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
 * RESULT_BAD_PARAMETER for a null or unallocated source or an empty clipped
 * rectangle (nothing changed); RESULT_FAIL when memory runs out; a
 * callback's refusal as given.  On failure source and destination are as
 * they were. */
VK_API int32_t VK_CALL V_CopyBitmapRect(BitmapHandle* destination, BitmapHandle* source, int32_t left, int32_t top,
                                        int32_t width, int32_t height);
VK_API int32_t VK_CALL V_CopyBitmapRect2(BitmapHandle* destination, BitmapHandle* source, int32_t left, int32_t top,
                                         int32_t width, int32_t height, int32_t memoryType);
/* Cuts the bitmap down to the part of the rectangle inside it (clipped
 * first), in place.  Results as V_CopyBitmapRect. */
VK_API int32_t VK_CALL V_TrimBitmap(BitmapHandle* bitmap, int32_t left, int32_t top, int32_t width, int32_t height);

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
