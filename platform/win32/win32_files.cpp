// win32_files.cpp - the file calls of the platform layer over the system's
// file handles.  Handles are the system's own (multiples of 4, so never 0,
// never -1 and never the buffer-redirection pseudo handle 5); share modes,
// read-only files and delete-on-close are enforced by the system itself.
#include <windows.h>

#include <cstring>

#include "fault.h"
#include "platform.h"
#include "win32_internal.h"

namespace vk::plat {
namespace {

using fault::Kind;
using win32::file_of;
using win32::handle_of;

bool valid(VK_FILE f) { return f != 0 && f != -1 && (f & 3) == 0; }

// The system's counts are 32-bit; a transfer runs in pieces of at most 1 GiB,
// as on POSIX.
template <typename Step>
int32_t transfer(uint32_t count, Step step) {
  uint32_t done = 0;
  while (done < count) {
    const DWORD want = count - done > 0x40000000u ? 0x40000000u : count - done;
    DWORD n = 0;
    if (!step(done, want, &n)) return -1;
    if (n == 0) break;
    done += n;
  }
  return done > static_cast<uint32_t>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(done);
}

}  // namespace

VK_FILE file_open(const char* name, unsigned access, unsigned share, unsigned disposition, unsigned attributes) {
  if (!name || !*name) return -1;
  if (disposition != CREATE_ALWAYS && disposition != OPEN_EXISTING && disposition != TRUNCATE_EXISTING) return -1;
  if (fault::hit(Kind::file)) return -1;
  DWORD desired = 0;
  if (access & ACCESS_READ) desired |= GENERIC_READ;
  if (access & ACCESS_WRITE) desired |= GENERIC_WRITE;
  if (!desired) desired = GENERIC_READ;
  DWORD shared = 0;
  if (share & SHARE_READ) shared |= FILE_SHARE_READ;
  if (share & SHARE_WRITE) shared |= FILE_SHARE_WRITE;
  // A file that is deleted on close may be deleted by another opener too.
  if (attributes & ATTR_DELETE_ON_CLOSE) shared |= FILE_SHARE_DELETE;
  // A read-only file is never written, replaced or truncated, even by a
  // process the file system would let through (wine run by root).
  const DWORD existing = GetFileAttributesA(name);
  if (existing != INVALID_FILE_ATTRIBUTES && (existing & FILE_ATTRIBUTE_READONLY) &&
      (desired & GENERIC_WRITE || disposition != OPEN_EXISTING))
    return -1;
  const DWORD flags = attributes & (ATTR_READONLY | ATTR_HIDDEN | ATTR_SYSTEM | ATTR_NORMAL | ATTR_DELETE_ON_CLOSE);
  HANDLE h = CreateFileA(name, desired, shared, nullptr, disposition, flags ? flags : FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return -1;
  // A replaced file takes the attributes asked for, as a new one does.
  if (disposition == CREATE_ALWAYS && existing != INVALID_FILE_ATTRIBUTES &&
      (attributes & (ATTR_READONLY | ATTR_HIDDEN | ATTR_SYSTEM)))
    SetFileAttributesA(name, attributes & (ATTR_READONLY | ATTR_HIDDEN | ATTR_SYSTEM));
  fault::count_live(Kind::file, +1);
  return file_of(h);
}

int32_t file_read(VK_FILE f, void* buffer, uint32_t count) {
  if (!valid(f) || (!buffer && count)) return -1;
  return transfer(count, [&](uint32_t done, DWORD want, DWORD* n) {
    return ReadFile(handle_of(f), static_cast<uint8_t*>(buffer) + done, want, n, nullptr) != 0;
  });
}

int32_t file_write(VK_FILE f, const void* buffer, uint32_t count) {
  if (!valid(f) || (!buffer && count)) return -1;
  return transfer(count, [&](uint32_t done, DWORD want, DWORD* n) {
    return WriteFile(handle_of(f), static_cast<const uint8_t*>(buffer) + done, want, n, nullptr) != 0 && *n != 0;
  });
}

int64_t file_seek(VK_FILE f, int64_t offset, int origin) {
  if (!valid(f)) return -1;
  const DWORD method = origin == 0 ? FILE_BEGIN : origin == 1 ? FILE_CURRENT : FILE_END;
  LONG high = static_cast<LONG>(offset >> 32);
  const DWORD low = SetFilePointer(handle_of(f), static_cast<LONG>(offset & 0xFFFFFFFF), &high, method);
  if (low == INVALID_SET_FILE_POINTER && GetLastError() != NO_ERROR) return -1;
  return (static_cast<int64_t>(high) << 32) | low;
}

bool file_set_end(VK_FILE f) { return valid(f) && SetEndOfFile(handle_of(f)); }

bool file_close(VK_FILE f) {
  if (!valid(f) || !CloseHandle(handle_of(f))) return false;
  fault::count_live(Kind::file, -1);
  return true;
}

bool file_delete(const char* name) { return name && *name && DeleteFileA(name); }

int64_t file_attributes(const char* name) {
  if (!name || !*name) return -1;
  const DWORD a = GetFileAttributesA(name);
  return a == INVALID_FILE_ATTRIBUTES ? -1 : static_cast<int64_t>(a);
}

// "<dir>\<prefix>XXXX.TMP", made empty by the system so that the name is taken.
bool temp_name(const char* dir, const char* prefix, char* out) {
  if (!out) return false;
  if (fault::hit(Kind::temp_name)) return false;
  return GetTempFileNameA(dir && *dir ? dir : ".", prefix ? prefix : "", 0, out) != 0;
}

VK_FILE temp_file(const char* dir, const char* prefix, char* out) {
  if (!out) return -1;
  if (fault::hit(Kind::temp_name) || fault::hit(Kind::file)) return -1;
  if (!GetTempFileNameA(dir && *dir ? dir : ".", prefix ? prefix : "", 0, out)) return -1;
  // The empty file the name call made is opened again, now to be deleted
  // when the last handle to it closes.
  HANDLE h = CreateFileA(out, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                         FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    DeleteFileA(out);
    return -1;
  }
  fault::count_live(Kind::file, +1);
  return file_of(h);
}

void temp_path(char* out) {
  if (!out) return;
  const DWORD n = GetTempPathA(VK_MAX_PATH, out);
  if (n == 0 || n >= VK_MAX_PATH) std::strcpy(out, ".\\");
}

}  // namespace vk::plat
