// posix_files.cpp - the file calls of the platform layer over POSIX file
// descriptors.
//
// Handles are (fd + 1) * 4: multiples of 4, so never 0, never -1 and never the
// buffer-redirection pseudo handle 5.
//
// Sharing flags cannot be enforced on POSIX (there are no mandatory share
// modes); they are accepted and ignored.  Hidden and system attributes have no
// POSIX counterpart either and are accepted; read-only is the file's write
// permission.  A delete-on-close file loses its name as soon as it is open
// (the descriptor keeps the data), so a killed process leaves nothing behind.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "fault.h"
#include "platform.h"
#include "posix_internal.h"

namespace vk::plat {
namespace {

using fault::Kind;

int fd_of(VK_FILE f) { return posix::fd_from_file(f); }
VK_FILE handle_of(int fd) { return posix::file_from_fd(fd); }

// Temp names carry eight hex digits from the system's random source: a name
// cannot be guessed ahead, and the name space is too large to be used up by
// files planted in the temp directory.
uint32_t random_word() {
  uint32_t w = 0;
  for (;;) {
    const ssize_t n = getrandom(&w, sizeof w, 0);
    if (n == static_cast<ssize_t>(sizeof w)) return w;
    if (n < 0 && errno != EINTR) break;
  }
  // No random source (a very old kernel): fall back to time and address bits.
  static std::atomic<uint32_t> counter{0};
  return static_cast<uint32_t>(time(nullptr)) * 2654435761u ^ static_cast<uint32_t>(getpid()) ^
         (counter.fetch_add(0x9E3779B9u) + static_cast<uint32_t>(reinterpret_cast<uintptr_t>(&w)));
}

// Creates a new file "<dir>/<prefix>XXXXXXXX.TMP" that did not exist (O_EXCL,
// no link followed) with owner-only access; the name goes to out.  Returns
// the descriptor or -1.
int create_unique(const char* dir, const char* prefix, int access_flags, char* out) {
  if (!dir || !*dir) dir = ".";
  if (!prefix) prefix = "";
  // At most three prefix characters, then the hex digits and ".TMP".
  char pre[4] = {0, 0, 0, 0};
  for (int i = 0; i < 3 && prefix[i]; ++i) pre[i] = prefix[i];
  const size_t dlen = strlen(dir);
  const bool slash = dir[dlen - 1] == '/';
  for (int attempt = 0; attempt < 100; ++attempt) {
    char name[VK_MAX_PATH];
    const int n = snprintf(name, sizeof name, "%s%s%s%08X.TMP", dir, slash ? "" : "/", pre, random_word());
    if (n < 0 || n >= VK_MAX_PATH) return -1;
    const int fd = open(name, O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | access_flags, 0600);
    if (fd >= 0) {
      memcpy(out, name, static_cast<size_t>(n) + 1);
      return fd;
    }
    if (errno != EEXIST && errno != EINTR) return -1;
  }
  return -1;
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
  const bool scratch = (attributes & ATTR_DELETE_ON_CLOSE) != 0;
  // A delete-on-close file holds a bitmap's pixels: owner-only, and never
  // opened through a planted link.
  if (scratch) flags |= O_NOFOLLOW;
  const mode_t mode = (attributes & ATTR_READONLY) ? 0444 : scratch ? 0600 : 0666;
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
  // The name goes at once: the descriptor keeps the data for as long as it
  // is open, and no file outlives the process, however it ends.
  if (scratch) unlink(name);
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
  const bool ok = close(fd) == 0 || errno == EINTR;
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
  const int fd = create_unique(dir, prefix, O_WRONLY, out);
  if (fd < 0) return false;
  close(fd);
  return true;
}

VK_FILE temp_file(const char* dir, const char* prefix, char* out) {
  if (!out) return -1;
  if (fault::hit(Kind::temp_name) || fault::hit(Kind::file)) return -1;
  const int fd = create_unique(dir, prefix, O_RDWR, out);
  if (fd < 0) return -1;
  unlink(out);
  fault::count_live(Kind::file, +1);
  return handle_of(fd);
}

void temp_path(char* out) {
  if (!out) return;
  // The system temp directory with its trailing separator.  Nothing from the
  // environment is read: configuration is by setter calls only.
  snprintf(out, VK_MAX_PATH, "%s/", P_tmpdir);
}

}  // namespace vk::plat
