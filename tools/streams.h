// streams.h - large buffered byte streams for the codecs: files, standard
// input and output ("-"), and memory.
//
// An output file is written under a temporary name in its own folder and
// renamed over the target only when complete, so a failure or Ctrl-C never
// leaves a partial file, nor disturbs one already there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vkimg {

// Reads and writes go through buffers of this size; larger requests go
// straight between the file and the caller's memory.
inline constexpr size_t kStreamBuffer = size_t(256) << 10;

// Bytes left uninitialised: a page of a fresh buffer is only faulted in
// when data first reaches it, and never cleared by the program first.
class RawBuffer {
 public:
  void resize(size_t n) {
    bytes_.reset(new uint8_t[n]);
    size_ = n;
  }
  uint8_t* data() { return bytes_.get(); }
  const uint8_t* data() const { return bytes_.get(); }
  size_t size() const { return size_; }

 private:
  std::unique_ptr<uint8_t[]> bytes_;
  size_t size_ = 0;
};

class InStream {
 public:
  explicit InStream(const std::string& path);  // "-": standard input; throws IoError
  InStream(const std::vector<uint8_t>& bytes, const std::string& name);
  InStream(const InStream&) = delete;
  InStream& operator=(const InStream&) = delete;
  ~InStream();

  const std::string& name() const { return name_; }
  // Bytes still to come when the input's size is known (a regular file or
  // memory), else -1.
  int64_t remaining() const;
  // Copies up to n bytes; fewer only at the end of the data or on a read
  // error (then error() says which).  Never throws.
  size_t read(void* dst, size_t n);
  bool read_exact(void* dst, size_t n) { return read(dst, n) == n; }
  int get();  // the next byte, or -1
  // Up to n (<= kStreamBuffer) bytes ahead without consuming them.
  size_t peek(const uint8_t** p, size_t n);
  const std::string& error() const { return error_; }
  // A regular file's descriptor, for codecs that must seek (TIFF), with the
  // stream's own reading left behind; -1 for pipes and memory.
  int seekable_fd() const { return own_fd_ && file_left_ >= 0 ? fd_ : -1; }

 private:
  bool fill(size_t want);

  std::string name_;
  int fd_ = -1;
  bool own_fd_ = false;
  RawBuffer buffer_;
  const uint8_t* data_ = nullptr;  // buffer_ or the caller's memory
  size_t pos_ = 0, end_ = 0;
  int64_t file_left_ = -1;  // bytes of a regular file not yet in the buffer
  std::string error_;
};

class OutStream {
 public:
  explicit OutStream(const std::string& path);  // "-": standard output; throws IoError
  explicit OutStream(std::vector<uint8_t>* memory);
  OutStream(const OutStream&) = delete;
  OutStream& operator=(const OutStream&) = delete;
  ~OutStream();  // not committed: the temporary file is removed

  const std::string& name() const { return name_; }
  void set_name(const std::string& name) { name_ = name; }  // for messages
  void write(const void* src, size_t n);  // throws IoError
  // Flushes, closes and renames the temporary file over the target.
  void commit();
  // For codecs that must seek (TIFF): the temporary file's descriptor, with
  // everything written so far flushed; -1 for standard output and memory.
  int seekable_fd();

 private:
  void flush();

  std::string name_, temp_;
  int fd_ = -1;
  bool own_fd_ = false, committed_ = false;
  std::vector<uint8_t>* memory_ = nullptr;
  RawBuffer buffer_;
  size_t used_ = 0;
};

// Removes the temporary file of the output being written, if any.  Safe in
// a signal handler (the second Ctrl-C ends the program at once).
void remove_pending_output() noexcept;

}  // namespace vkimg
