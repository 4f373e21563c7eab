// posix_files.cpp - the file calls of the platform layer over POSIX file
// descriptors.
//
// Handles are (fd + 1) * 4: multiples of 4, so never 0, never -1 and never the
// buffer-redirection pseudo handle 5.
//
// Sharing flags cannot be enforced on POSIX (there are no mandatory share
// modes); they are accepted and ignored.  Hidden and system attributes have no
// POSIX counterpart either and are accepted; read-only is the file's write
// permission.  Delete-on-close is remembered per handle and carried out when
// the handle is closed.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "fault.h"
#include "platform.h"
#include "posix_internal.h"

namespace vk::plat {
namespace {

using fault::Kind;

int fd_of(VK_FILE f) { return posix::fd_from_file(f); }
VK_FILE handle_of(int fd) { return posix::file_from_fd(fd); }

// Names of the open delete-on-close files, by descriptor.  A short singly
// linked list: only temp files of disk storage are on it.
struct DeleteOnClose {
  int fd;
  DeleteOnClose* next;
  char name[1];
};
std::mutex g_doc_mutex;
DeleteOnClose* g_doc = nullptr;

bool remember_delete(int fd, const char* name) {
  const size_t n = strlen(name);
  auto* d = static_cast<DeleteOnClose*>(malloc(sizeof(DeleteOnClose) + n));
  if (!d) return false;
  d->fd = fd;
  memcpy(d->name, name, n + 1);
  std::lock_guard<std::mutex> lock(g_doc_mutex);
  d->next = g_doc;
  g_doc = d;
  return true;
}

// Unlinks the list entry of fd (if any) and returns it; the caller frees it.
DeleteOnClose* take_delete(int fd) {
  std::lock_guard<std::mutex> lock(g_doc_mutex);
  for (DeleteOnClose** p = &g_doc; *p; p = &(*p)->next) {
    if ((*p)->fd == fd) {
      DeleteOnClose* d = *p;
      *p = d->next;
      return d;
    }
  }
  return nullptr;
}

}  // namespace

VK_FILE file_open(const char* name, unsigned access, unsigned /*share*/, unsigned disposition, unsigned attributes) {
  if (!name || !*name) return -1;
  if (fault::hit(Kind::file)) return -1;
  int flags = O_CLOEXEC;
  if ((access & (ACCESS_READ | ACCESS_WRITE)) == (ACCESS_READ | ACCESS_WRITE))
    flags |= O_RDWR;
  else if (access & ACCESS_WRITE)
    flags |= O_WRONLY;
  else
    flags |= O_RDONLY;
  switch (disposition) {
    case CREATE_ALWAYS: flags |= O_CREAT | O_TRUNC; break;
    case TRUNCATE_EXISTING: flags |= O_TRUNC; break;
    case OPEN_EXISTING: break;
    default: return -1;
  }
  const bool creating = disposition == CREATE_ALWAYS;
  const mode_t mode = (attributes & ATTR_READONLY) ? 0444 : 0666;
  // A read-only file cannot be written, replaced or truncated, even by a
  // privileged process (which POSIX would let through).  Directories are not files here.
  struct stat st;
  if (stat(name, &st) == 0) {
    if (S_ISDIR(st.st_mode)) return -1;
    if ((access & ACCESS_WRITE || disposition != OPEN_EXISTING) && !(st.st_mode & S_IWUSR)) return -1;
  }
  int fd;
  do {
    fd = open(name, flags, mode);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return -1;
  // A replaced file keeps its old permissions under open(); give it the
  // requested read-only state as a new file would have.
  if (creating && (attributes & ATTR_READONLY)) fchmod(fd, mode);
  if ((attributes & ATTR_DELETE_ON_CLOSE) && !remember_delete(fd, name)) {
    close(fd);
    if (creating) unlink(name);
    return -1;
  }
  fault::count_live(Kind::file, +1);
  return handle_of(fd);
}

int32_t file_read(VK_FILE f, void* buffer, uint32_t count) {
  const int fd = fd_of(f);
  if (fd < 0 || (!buffer && count)) return -1;
  uint32_t done = 0;
  while (done < count) {
    const size_t want = count - done > 0x40000000u ? 0x40000000u : count - done;
    const ssize_t n = read(fd, static_cast<uint8_t*>(buffer) + done, want);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    done += static_cast<uint32_t>(n);
  }
  return done > static_cast<uint32_t>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(done);
}

int32_t file_write(VK_FILE f, const void* buffer, uint32_t count) {
  const int fd = fd_of(f);
  if (fd < 0 || (!buffer && count)) return -1;
  uint32_t done = 0;
  while (done < count) {
    const size_t want = count - done > 0x40000000u ? 0x40000000u : count - done;
    const ssize_t n = write(fd, static_cast<const uint8_t*>(buffer) + done, want);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) return -1;
    done += static_cast<uint32_t>(n);
  }
  return done > static_cast<uint32_t>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(done);
}

int64_t file_seek(VK_FILE f, int64_t offset, int origin) {
  const int fd = fd_of(f);
  if (fd < 0) return -1;
  const int whence = origin == 0 ? SEEK_SET : origin == 1 ? SEEK_CUR : SEEK_END;
  const off_t r = lseek(fd, static_cast<off_t>(offset), whence);
  return r < 0 ? -1 : static_cast<int64_t>(r);
}

bool file_set_end(VK_FILE f) {
  const int fd = fd_of(f);
  if (fd < 0) return false;
  const off_t pos = lseek(fd, 0, SEEK_CUR);
  return pos >= 0 && ftruncate(fd, pos) == 0;
}

bool file_close(VK_FILE f) {
  const int fd = fd_of(f);
  if (fd < 0) return false;
  DeleteOnClose* d = take_delete(fd);
  const bool ok = close(fd) == 0 || errno == EINTR;
  if (d) {
    unlink(d->name);
    free(d);
  }
  if (ok) fault::count_live(Kind::file, -1);
  return ok;
}

bool file_delete(const char* name) {
  if (!name || !*name) return false;
  struct stat st;
  if (stat(name, &st) != 0 || S_ISDIR(st.st_mode)) return false;
  // A read-only file cannot be deleted, as on the platform this layer mirrors.
  if (!(st.st_mode & S_IWUSR)) return false;
  return unlink(name) == 0;
}

int64_t file_attributes(const char* name) {
  if (!name || !*name) return -1;
  struct stat st;
  if (stat(name, &st) != 0) return -1;
  unsigned a = 0;
  if (S_ISDIR(st.st_mode)) a |= ATTR_DIRECTORY;
  if (!(st.st_mode & S_IWUSR)) a |= ATTR_READONLY;
  const char* base = strrchr(name, '/');
  base = base ? base + 1 : name;
  if (base[0] == '.' && base[1] != '\0' && strcmp(base, "..") != 0) a |= ATTR_HIDDEN;
  return a ? a : ATTR_NORMAL;
}

bool temp_name(const char* dir, const char* prefix, char* out) {
  if (!out) return false;
  if (fault::hit(Kind::temp_name)) return false;
  if (!dir || !*dir) dir = ".";
  if (!prefix) prefix = "";
  // At most three prefix characters, then four hex digits and ".TMP".
  char pre[4] = {0, 0, 0, 0};
  for (int i = 0; i < 3 && prefix[i]; ++i) pre[i] = prefix[i];
  const size_t dlen = strlen(dir);
  const bool slash = dir[dlen - 1] == '/';
  static std::atomic<uint32_t> counter{0};
  uint32_t seed = counter.fetch_add(1) + static_cast<uint32_t>(getpid()) * 2654435761u +
                  static_cast<uint32_t>(time(nullptr));
  for (uint32_t attempt = 0; attempt < 0x10000u; ++attempt) {
    const uint32_t unique = ((seed + attempt) & 0xFFFFu) ? ((seed + attempt) & 0xFFFFu) : 1u;
    char name[VK_MAX_PATH];
    const int n = snprintf(name, sizeof name, "%s%s%s%04X.TMP", dir, slash ? "" : "/", pre, unique);
    if (n < 0 || n >= VK_MAX_PATH) return false;
    const int fd = open(name, O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
    if (fd >= 0) {
      close(fd);
      memcpy(out, name, static_cast<size_t>(n) + 1);
      counter.fetch_add(attempt);
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

void temp_path(char* out) {
  if (!out) return;
  // The system temp directory with its trailing separator.  Nothing from the
  // environment is read: configuration is by setter calls only.
  snprintf(out, VK_MAX_PATH, "%s/", P_tmpdir);
}

}  // namespace vk::plat
