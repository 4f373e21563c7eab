// streams.cpp - buffered file, pipe and memory streams.
#include "streams.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "image_io.h"

namespace vkimg {
namespace {

[[noreturn]] void fail(const std::string& name, const std::string& what) { throw IoError(name + ": " + what); }

// The temporary output in progress, for the signal handler: a fixed buffer,
// since the handler may neither allocate nor take locks.
char g_pending[PATH_MAX + 1];

}  // namespace

// Reads and writes are not retried after EINTR: the only signal the
// program handles is Ctrl-C, and a read from a pipe that never comes must
// still stop then.

// ---- input ----

InStream::InStream(const std::string& path) : name_(path) {
  if (path == "-") {
    fd_ = STDIN_FILENO;
  } else {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) fail(path, std::string("cannot open: ") + std::strerror(errno));
    own_fd_ = true;
  }
  struct stat st {};
  if (fstat(fd_, &st) == 0) {
    if (S_ISDIR(st.st_mode)) {
      if (own_fd_) ::close(fd_);
      fail(path, "is a directory, not an image file");
    }
    if (S_ISREG(st.st_mode)) {
      const off_t at = lseek(fd_, 0, SEEK_CUR);
      file_left_ = st.st_size - (at > 0 ? at : 0);
    }
  }
  buffer_.resize(kStreamBuffer);
  data_ = buffer_.data();
}

InStream::InStream(const std::vector<uint8_t>& bytes, const std::string& name)
    : name_(name), data_(bytes.data()), end_(bytes.size()), file_left_(0) {}

InStream::~InStream() {
  if (own_fd_) ::close(fd_);
}

int64_t InStream::remaining() const { return file_left_ < 0 ? -1 : file_left_ + static_cast<int64_t>(end_ - pos_); }

// Tops the buffer up to `want` bytes ahead (fewer at the end of the data).
bool InStream::fill(size_t want) {
  if (fd_ < 0 || !error_.empty()) return end_ - pos_ >= want;
  if (pos_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + pos_, end_ - pos_);
    end_ -= pos_;
    pos_ = 0;
  }
  while (end_ < want) {
    const ssize_t n = ::read(fd_, buffer_.data() + end_, buffer_.size() - end_);
    if (n < 0) error_ = std::strerror(errno);
    if (n <= 0) break;
    end_ += static_cast<size_t>(n);
    if (file_left_ >= 0) file_left_ = std::max<int64_t>(0, file_left_ - n);
  }
  return end_ - pos_ >= want;
}

size_t InStream::read(void* dst, size_t n) {
  auto* out = static_cast<uint8_t*>(dst);
  size_t done = std::min(n, end_ - pos_);
  std::memcpy(out, data_ + pos_, done);
  pos_ += done;
  if (done == n || fd_ < 0) return done;
  if (n - done < kStreamBuffer / 2) {
    fill(n - done);
    const size_t more = std::min(n - done, end_ - pos_);
    std::memcpy(out + done, data_ + pos_, more);
    pos_ += more;
    return done + more;
  }
  // Large reads go straight into the caller's memory.
  while (done < n && error_.empty()) {
    const ssize_t r = ::read(fd_, out + done, std::min<size_t>(n - done, size_t(1) << 30));
    if (r < 0) error_ = std::strerror(errno);
    if (r <= 0) break;
    done += static_cast<size_t>(r);
    if (file_left_ >= 0) file_left_ = std::max<int64_t>(0, file_left_ - r);
  }
  return done;
}

int InStream::get() {
  if (pos_ == end_ && !fill(1)) return -1;
  return data_[pos_++];
}

size_t InStream::peek(const uint8_t** p, size_t n) {
  if (end_ - pos_ < n) fill(std::min(n, kStreamBuffer));
  *p = data_ + pos_;
  return std::min(n, end_ - pos_);
}

// ---- output ----

OutStream::OutStream(const std::string& path) : name_(path) {
  if (path == "-") {
    fd_ = STDOUT_FILENO;
  } else {
    // The temporary sits beside the target so that the rename stays within
    // one file system and replaces the target in one step.
    const size_t slash = path.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string templ = dir + "." + base + ".vkimg-XXXXXX";
    fd_ = mkostemp(templ.data(), O_CLOEXEC);
    if (fd_ < 0) fail(path, std::string("cannot create: ") + std::strerror(errno));
    own_fd_ = true;
    temp_ = templ;
    if (temp_.size() < sizeof g_pending) std::memcpy(g_pending, temp_.c_str(), temp_.size() + 1);
  }
  buffer_.resize(kStreamBuffer);
}

OutStream::OutStream(std::vector<uint8_t>* memory) : name_("memory"), memory_(memory) {}

OutStream::~OutStream() {
  if (own_fd_) ::close(fd_);
  if (!temp_.empty() && !committed_) {
    ::unlink(temp_.c_str());
    g_pending[0] = 0;
  }
}

void OutStream::flush() {
  size_t done = 0;
  while (done < used_) {
    const ssize_t n = ::write(fd_, buffer_.data() + done, used_ - done);
    if (n <= 0) fail(name_, std::string("write error: ") + std::strerror(n < 0 ? errno : EIO));
    done += static_cast<size_t>(n);
  }
  used_ = 0;
}

void OutStream::write(const void* src, size_t n) {
  const auto* in = static_cast<const uint8_t*>(src);
  if (memory_) {
    memory_->insert(memory_->end(), in, in + n);
    return;
  }
  if (used_ + n <= buffer_.size()) {
    std::memcpy(buffer_.data() + used_, in, n);
    used_ += n;
    return;
  }
  flush();
  if (n < buffer_.size() / 2) {
    std::memcpy(buffer_.data(), in, n);
    used_ = n;
    return;
  }
  // Large writes go straight from the caller's memory.
  size_t done = 0;
  while (done < n) {
    const ssize_t w = ::write(fd_, in + done, std::min<size_t>(n - done, size_t(1) << 30));
    if (w <= 0) fail(name_, std::string("write error: ") + std::strerror(w < 0 ? errno : EIO));
    done += static_cast<size_t>(w);
  }
}

void OutStream::commit() {
  if (memory_) return;
  flush();
  if (temp_.empty()) return;
  // mkstemp made the file private; give it the mode a new file would get.
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd_, 0666 & ~mask);
  const int c = ::close(fd_);
  own_fd_ = false;
  if (c != 0) fail(name_, std::string("write error: ") + std::strerror(errno));
  if (::rename(temp_.c_str(), name_.c_str()) != 0) fail(name_, std::string("cannot create: ") + std::strerror(errno));
  committed_ = true;
  g_pending[0] = 0;
}

int OutStream::seekable_fd() {
  if (temp_.empty() || !own_fd_) return -1;
  flush();
  return fd_;
}

void remove_pending_output() noexcept {
  if (g_pending[0]) ::unlink(g_pending);
}

}  // namespace vkimg
