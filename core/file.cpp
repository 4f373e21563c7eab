// file.cpp - the V_Os file calls over the platform file layer, the
// per-thread I/O redirection table (words 2-11 of the thread's settings) and
// redirection into a memory buffer.
#include "core.h"
#include "platform.h"

namespace vk {
namespace {

using namespace vk::plat;

constexpr VK_FILE kBufferHandle = REDIRECT_HANDLE;
// Growth step of a redirected buffer, in bytes.
constexpr uint64_t kGrowStep = 32768;

// ---- buffer callbacks ----------------------------------------------------------------
// The user data of every buffer callback is the BufferRedirect context.

BufferRedirect* context_of(intptr_t data) { return reinterpret_cast<BufferRedirect*>(data); }

VK_FILE VK_CALL buffer_open(const char*, int32_t openFlags, int32_t, intptr_t data) {
  BufferRedirect* c = context_of(data);
  if (!c) return -1;
  c->Position = 0;
  if (openFlags & VK_O_TRUNC) c->Length = 0;
  return kBufferHandle;
}

int32_t VK_CALL buffer_read(VK_FILE file, void* buffer, int32_t count, intptr_t data) {
  BufferRedirect* c = context_of(data);
  if (!c || !buffer || file != kBufferHandle || count < 0) return -1;
  if (c->Length < c->Position || !c->Buffer) return -1;
  uint32_t n = c->Length - c->Position;
  // Never past the allocated bytes, whatever Length says (a truncating write
  // after a seek beyond the end can set Length past Capacity).
  const uint32_t room = c->Capacity > c->Position ? c->Capacity - c->Position : 0;
  if (n > room) n = room;
  if (n > static_cast<uint32_t>(count)) n = static_cast<uint32_t>(count);
  std::memcpy(buffer, c->Buffer + c->Position, n);
  c->Position += n;
  return static_cast<int32_t>(n);
}

int32_t VK_CALL buffer_write(VK_FILE file, const void* buffer, int32_t count, intptr_t data) {
  BufferRedirect* c = context_of(data);
  if (!c || !buffer || file != kBufferHandle || count < 0) return -1;
  if (c->RedirectFlags & REDIRECT_READ_ONLY) return -1;
  if (count == 0) {
    // A zero-byte write ends the data here, but the data never reaches past
    // the bytes the block holds: a caller copies Length bytes out of it.
    c->Length = c->Position < c->Capacity ? c->Position : c->Capacity;
    return 0;
  }
  const uint64_t end = static_cast<uint64_t>(c->Position) + static_cast<uint32_t>(count);
  if (end > c->Capacity && (c->RedirectFlags & REDIRECT_GROW)) {
    // Grow (or first allocate) to the end of this write rounded up to whole
    // steps; when that fails the old buffer stays as it is.
    const uint64_t want = (end + kGrowStep - 1) / kGrowStep * kGrowStep;
    if (want <= UINT32_MAX) {
      void* p = c->Buffer ? V_OsReAlloc(c->Buffer, static_cast<size_t>(want)) : V_OsAlloc(static_cast<size_t>(want));
      if (p) {
        c->Buffer = static_cast<uint8_t*>(p);
        c->Capacity = static_cast<uint32_t>(want);
      }
    }
  }
  if (c->Capacity < c->Position || !c->Buffer) return -1;
  uint32_t n = c->Capacity - c->Position;
  if (n > static_cast<uint32_t>(count)) n = static_cast<uint32_t>(count);
  std::memcpy(c->Buffer + c->Position, buffer, n);
  c->Position += n;
  if (c->Length < c->Position) c->Length = c->Position;
  return static_cast<int32_t>(n);
}

// No bounds check: a position past the end makes the next read fail and the
// next write grow the buffer (or fail).
int32_t VK_CALL buffer_seek(VK_FILE, int32_t offset, int32_t origin, intptr_t data) {
  BufferRedirect* c = context_of(data);
  if (!c) return -1;
  switch (origin) {
    case VK_SEEK_SET: c->Position = static_cast<uint32_t>(offset); break;
    case VK_SEEK_CUR: c->Position += static_cast<uint32_t>(offset); break;
    case VK_SEEK_END: c->Position = c->Length + static_cast<uint32_t>(offset); break;
    default: return -1;
  }
  return static_cast<int32_t>(c->Position);
}

int32_t VK_CALL buffer_close(VK_FILE file, intptr_t data) {
  BufferRedirect* c = context_of(data);
  if (!c || file != kBufferHandle) return -1;
  const uint32_t f = c->RedirectFlags;
  // Shrink to the data when asked to (grow and shrink both set, not
  // read-only).  An empty result keeps its block: a zero-byte block is not
  // worth a reallocation.
  if (c->Capacity > c->Length && !(f & REDIRECT_READ_ONLY) && (f & REDIRECT_GROW) && (f & REDIRECT_SHRINK) &&
      c->Buffer && c->Length > 0) {
    if (void* p = V_OsReAlloc(c->Buffer, c->Length)) {
      c->Buffer = static_cast<uint8_t*>(p);
      c->Capacity = c->Length;
    }
  }
  return 0;
}

}  // namespace
}  // namespace vk

extern "C" {

// ---- V_Os file calls -----------------------------------------------------------------

VK_API VK_FILE VK_CALL V_OsCreat(const char* name, int32_t mode) {
  return vk::api_call(
      [&]() -> VK_FILE {
        using namespace vk::plat;
        if (!name) return -1;
        const unsigned access = (mode & VK_CREAT_READONLY) ? ACCESS_READ : ACCESS_READ | ACCESS_WRITE;
        unsigned attributes = 0;
        if (mode & VK_CREAT_READONLY) attributes |= ATTR_READONLY;
        if (mode & VK_CREAT_HIDDEN) attributes |= ATTR_HIDDEN;
        if (mode & VK_CREAT_SYSTEM) attributes |= ATTR_SYSTEM;
        if (!(attributes & (ATTR_READONLY | ATTR_HIDDEN | ATTR_SYSTEM))) attributes |= ATTR_NORMAL;
        if (mode & VK_CREAT_DELETE_ON_CLOSE) attributes |= ATTR_DELETE_ON_CLOSE;
        return file_open(name, access, SHARE_READ | SHARE_WRITE, CREATE_ALWAYS, attributes);
      },
      VK_FILE{-1});
}

VK_API VK_FILE VK_CALL V_OsOpen(const char* name, int32_t openFlags, int32_t permission, intptr_t) {
  return vk::api_call(
      [&]() -> VK_FILE {
        using namespace vk::plat;
        if (!name) return -1;
        const bool pr = (permission & VK_S_IREAD) != 0, pw = (permission & VK_S_IWRITE) != 0;
        // Neither permission bit: shared for reading and writing, the least
        // surprising choice for a caller that asked for nothing.
        const unsigned share = pr && pw ? SHARE_READ | SHARE_WRITE : pw ? 0u : pr ? SHARE_READ : SHARE_READ | SHARE_WRITE;
        const unsigned disposition =
            (openFlags & VK_O_CREAT) ? CREATE_ALWAYS : (openFlags & VK_O_TRUNC) ? TRUNCATE_EXISTING : OPEN_EXISTING;
        const int acc = openFlags & 3;
        const unsigned access = acc == 0 ? ACCESS_READ : acc == 1 ? ACCESS_WRITE : ACCESS_READ | ACCESS_WRITE;
        const unsigned attributes = acc == 0 ? ATTR_READONLY : ATTR_NORMAL;
        return file_open(name, access, share, disposition, attributes);
      },
      VK_FILE{-1});
}

VK_API int32_t VK_CALL V_OsRead(VK_FILE file, void* buffer, int32_t count, intptr_t) {
  return vk::api_call([&]() -> int32_t {
    if (!buffer || count < 0) return -1;
    return vk::plat::file_read(file, buffer, static_cast<uint32_t>(count));
  });
}

// A count of 0 cuts the file at its current position: storage code truncates
// a file by seeking and writing nothing.
VK_API int32_t VK_CALL V_OsWrite(VK_FILE file, const void* buffer, int32_t count, intptr_t) {
  return vk::api_call([&]() -> int32_t {
    if (count == 0) return vk::plat::file_set_end(file) ? 0 : -1;
    if (!buffer || count < 0) return -1;
    return vk::plat::file_write(file, buffer, static_cast<uint32_t>(count));
  });
}

VK_API int32_t VK_CALL V_OsSeek(VK_FILE file, int32_t offset, int32_t origin, intptr_t) {
  return vk::api_call([&]() -> int32_t {
    const int o = origin == VK_SEEK_SET ? 0 : origin == VK_SEEK_CUR ? 1 : 2;
    const int64_t r = vk::plat::file_seek(file, offset, o);
    // The position as a 32-bit value; all ones on failure.
    return r < 0 ? -1 : static_cast<int32_t>(static_cast<uint32_t>(r));
  });
}

VK_API int32_t VK_CALL V_OsClose(VK_FILE file, intptr_t) {
  return vk::api_call([&]() -> int32_t { return vk::plat::file_close(file) ? 0 : -1; });
}

VK_API int32_t VK_CALL V_OsDelete(const char* name) {
  return vk::api_call([&]() -> int32_t { return name && vk::plat::file_delete(name) ? 0 : -1; });
}

// A unique "VQxxxx.TMP" in the thread's temp directory, created empty.  The
// platform's own failure is not reported (the name is then empty, so that an
// open of it fails rather than touching a stale name).
VK_API int32_t VK_CALL V_OsGetTempName(char* buffer) {
  return vk::api_call([&]() -> int32_t {
    if (!buffer) return RESULT_BAD_PARAMETER;
    char name[VK_MAX_PATH];
    if (vk::plat::temp_name(vk::settings().TempDirectory, "VQ", name))
      std::memcpy(buffer, name, std::strlen(name) + 1);
    else
      buffer[0] = '\0';
    return 0;
  });
}

// ---- redirection table ----------------------------------------------------------------

VK_API void VK_CALL V_RedirectIO(VK_OPENPROC openProc, VK_READPROC readProc, VK_WRITEPROC writeProc,
                                 VK_SEEKPROC seekProc, VK_CLOSEPROC closeProc, intptr_t userData) {
  vk::api_call_void([&] {
    ThreadSettings& s = vk::settings();
    s.OpenProc = openProc ? openProc : V_OsOpen;
    s.ReadProc = readProc ? readProc : V_OsRead;
    s.WriteProc = writeProc ? writeProc : V_OsWrite;
    s.SeekProc = seekProc ? seekProc : V_OsSeek;
    s.CloseProc = closeProc ? closeProc : V_OsClose;
    s.OpenData = s.ReadData = s.WriteData = s.SeekData = s.CloseData = userData;
  });
}

VK_API VK_FILE VK_CALL V_RedirectedOpen(const char* name, int32_t openFlags, int32_t permission) {
  return vk::api_call(
      [&]() -> VK_FILE {
        const ThreadSettings& s = vk::settings();
        return (s.OpenProc ? s.OpenProc : V_OsOpen)(name, openFlags, permission, s.OpenData);
      },
      VK_FILE{-1});
}

VK_API int32_t VK_CALL V_RedirectedRead(VK_FILE file, void* buffer, int32_t count) {
  return vk::api_call([&]() -> int32_t {
    const ThreadSettings& s = vk::settings();
    return (s.ReadProc ? s.ReadProc : V_OsRead)(file, buffer, count, s.ReadData);
  });
}

VK_API int32_t VK_CALL V_RedirectedWrite(VK_FILE file, const void* buffer, int32_t count) {
  return vk::api_call([&]() -> int32_t {
    const ThreadSettings& s = vk::settings();
    return (s.WriteProc ? s.WriteProc : V_OsWrite)(file, buffer, count, s.WriteData);
  });
}

VK_API int32_t VK_CALL V_RedirectedSeek(VK_FILE file, int32_t offset, int32_t origin) {
  return vk::api_call([&]() -> int32_t {
    const ThreadSettings& s = vk::settings();
    return (s.SeekProc ? s.SeekProc : V_OsSeek)(file, offset, origin, s.SeekData);
  });
}

VK_API int32_t VK_CALL V_RedirectedClose(VK_FILE file) {
  return vk::api_call([&]() -> int32_t {
    const ThreadSettings& s = vk::settings();
    return (s.CloseProc ? s.CloseProc : V_OsClose)(file, s.CloseData);
  });
}

}  // extern "C"

namespace {

// Hands the current entry back through p; a callback is replaced only by a
// non-null value, a data word always.
template <class T>
void exchange_proc(T* p, T& current) {
  if (!p) return;
  T old = current;
  if (*p) current = *p;
  *p = old;
}
void exchange_data(intptr_t* p, intptr_t& current) {
  if (!p) return;
  std::swap(*p, current);
}

}  // namespace

extern "C" {

VK_API void VK_CALL V_FilterIO(VK_OPENPROC* openProc, VK_READPROC* readProc, VK_WRITEPROC* writeProc,
                               VK_SEEKPROC* seekProc, VK_CLOSEPROC* closeProc, intptr_t* openData,
                               intptr_t* readData, intptr_t* writeData, intptr_t* seekData, intptr_t* closeData) {
  vk::api_call_void([&] {
    ThreadSettings& s = vk::settings();
    exchange_proc(openProc, s.OpenProc);
    exchange_proc(readProc, s.ReadProc);
    exchange_proc(writeProc, s.WriteProc);
    exchange_proc(seekProc, s.SeekProc);
    exchange_proc(closeProc, s.CloseProc);
    exchange_data(openData, s.OpenData);
    exchange_data(readData, s.ReadData);
    exchange_data(writeData, s.WriteData);
    exchange_data(seekData, s.SeekData);
    exchange_data(closeData, s.CloseData);
  });
}

VK_API void VK_CALL V_GetFilterIOData(intptr_t* openData, intptr_t* readData, intptr_t* writeData,
                                      intptr_t* seekData, intptr_t* closeData) {
  vk::api_call_void([&] {
    const ThreadSettings& s = vk::settings();
    if (openData) *openData = s.OpenData;
    if (readData) *readData = s.ReadData;
    if (writeData) *writeData = s.WriteData;
    if (seekData) *seekData = s.SeekData;
    if (closeData) *closeData = s.CloseData;
  });
}

// ---- redirection into a memory buffer ---------------------------------------------------

VK_API int32_t VK_CALL V_StartRedirectToBuffer(BufferRedirect** context, VK_FILE* file, uint32_t redirectFlags,
                                               void* buffer, uint32_t bufferSize) {
  return vk::api_call([&]() -> int32_t {
    if (!context) return RESULT_BAD_PARAMETER;
    auto* c = static_cast<BufferRedirect*>(V_Calloc(1, sizeof(BufferRedirect)));
    if (!c) return RESULT_FAIL;
    c->Buffer = static_cast<uint8_t*>(buffer);
    c->Capacity = bufferSize;
    c->Position = 0;
    c->Length = (redirectFlags & (REDIRECT_READ_ONLY | REDIRECT_HAS_DATA)) ? bufferSize : 0;
    c->RedirectFlags = redirectFlags;
    // Install the buffer callbacks; the context receives the table they replace.
    c->SavedOpen = vk::buffer_open;
    c->SavedRead = vk::buffer_read;
    c->SavedWrite = vk::buffer_write;
    c->SavedSeek = vk::buffer_seek;
    c->SavedClose = vk::buffer_close;
    const auto self = reinterpret_cast<intptr_t>(c);
    c->SavedOpenData = c->SavedReadData = c->SavedWriteData = c->SavedSeekData = c->SavedCloseData = self;
    V_FilterIO(&c->SavedOpen, &c->SavedRead, &c->SavedWrite, &c->SavedSeek, &c->SavedClose, &c->SavedOpenData,
               &c->SavedReadData, &c->SavedWriteData, &c->SavedSeekData, &c->SavedCloseData);
    *context = c;
    if (file) *file = vk::kBufferHandle;
    return RESULT_OK;
  });
}

// Puts back the table the context replaced; the caller owns the buffer from
// here on (V_OsFree).  Stops must come in the reverse order of the starts.
VK_API int32_t VK_CALL V_StopRedirectToBuffer(BufferRedirect* context, void** buffer, uint32_t* length) {
  return vk::api_call([&]() -> int32_t {
    if (!context) return RESULT_BAD_PARAMETER;
    BufferRedirect* c = context;
    V_FilterIO(&c->SavedOpen, &c->SavedRead, &c->SavedWrite, &c->SavedSeek, &c->SavedClose, &c->SavedOpenData,
               &c->SavedReadData, &c->SavedWriteData, &c->SavedSeekData, &c->SavedCloseData);
    if (buffer) *buffer = c->Buffer;
    const uint32_t held = c->Buffer ? c->Capacity : 0;
    if (length) *length = c->Length < held ? c->Length : held;
    V_Free(c);
    return RESULT_OK;
  });
}

}  // extern "C"
