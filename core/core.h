// core.h - shared internals of the kernel: result plumbing, allocation guards,
// per-thread settings, progress reporting.  Every folder includes this.
//
// Conventions inside the library:
//  * Internal functions return int32_t result codes (RESULT_OK on success),
//    exactly the values the exported functions hand out.
//  * Every allocation goes through V_Malloc/V_Calloc/V_Realloc/V_Free, the
//    V_Os family, or the platform layer; each of those is a fault-injection
//    point (fault.h).  No new/malloc/std::vector/std::string in library code.
//  * Resources are owned by the RAII guards below, so every way out releases
//    what the operation made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

#include "vkkrn.h"
#include "fault.h"

#define VK_TRY(expr)                          \
  do {                                        \
    const int32_t vk_try_r_ = (expr);         \
    if (vk_try_r_ != RESULT_OK) return vk_try_r_; \
  } while (0)

namespace vk {

// Runs the body of an exported function; nothing may escape across the C
// boundary, so any exception becomes `fail`.
template <class F, class R = std::invoke_result_t<F>>
inline R api_call(F&& body, R fail) noexcept {
  try {
    return body();
  } catch (...) {
    return fail;
  }
}
template <class F>
inline int32_t api_call(F&& body) noexcept {
  return api_call(std::forward<F>(body), int32_t{RESULT_FAIL});
}
template <class F>
inline void api_call_void(F&& body) noexcept {
  try {
    body();
  } catch (...) {
  }
}

// ---- allocation guards -------------------------------------------------------

// A V_Malloc'd buffer of T, freed with V_Free.
template <class T = uint8_t>
class Buffer {
 public:
  Buffer() = default;
  explicit Buffer(size_t count, bool zero = false) { allocate(count, zero); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  Buffer(Buffer&& o) noexcept : p_(std::exchange(o.p_, nullptr)), n_(std::exchange(o.n_, 0)) {}
  Buffer& operator=(Buffer&& o) noexcept {
    if (this != &o) {
      reset();
      p_ = std::exchange(o.p_, nullptr);
      n_ = std::exchange(o.n_, 0);
    }
    return *this;
  }
  ~Buffer() { reset(); }

  // Returns false (and holds nothing) when the allocation fails or the size overflows.
  bool allocate(size_t count, bool zero = false) {
    reset();
    if (count != 0 && count > SIZE_MAX / sizeof(T)) return false;
    const size_t bytes = count * sizeof(T);
    p_ = static_cast<T*>(zero ? V_Calloc(bytes ? bytes : 1, 1) : V_Malloc(bytes ? bytes : 1));
    n_ = p_ ? count : 0;
    return p_ != nullptr;
  }
  void reset() {
    if (p_) V_Free(p_);
    p_ = nullptr;
    n_ = 0;
  }
  T* release() {
    n_ = 0;
    return std::exchange(p_, nullptr);
  }
  T* get() const { return p_; }
  T* data() const { return p_; }
  size_t size() const { return n_; }
  explicit operator bool() const { return p_ != nullptr; }
  T& operator[](size_t i) const { return p_[i]; }

 private:
  T* p_ = nullptr;
  size_t n_ = 0;
};

// A V_OsAlloc'd block, freed with V_OsFree unless released.
class OsBlock {
 public:
  OsBlock() = default;
  explicit OsBlock(void* p) : p_(p) {}
  OsBlock(const OsBlock&) = delete;
  OsBlock& operator=(const OsBlock&) = delete;
  ~OsBlock() { reset(); }
  void reset(void* p = nullptr) {
    if (p_) V_OsFree(p_);
    p_ = p;
  }
  void* release() { return std::exchange(p_, nullptr); }
  void* get() const { return p_; }
  explicit operator bool() const { return p_ != nullptr; }

 private:
  void* p_ = nullptr;
};

// Placement-constructs a T in V_Calloc'd memory; destroyed with destroy_object.
template <class T, class... A>
T* make_object(A&&... a) {
  void* p = V_Calloc(1, sizeof(T));
  if (!p) return nullptr;
  return new (p) T(std::forward<A>(a)...);
}
template <class T>
void destroy_object(T* p) {
  if (!p) return;
  p->~T();
  V_Free(p);
}

// Runs a callable on scope exit unless dismissed.
template <class F>
class ScopeExit {
 public:
  explicit ScopeExit(F f) : f_(std::move(f)) {}
  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;
  ~ScopeExit() {
    if (armed_) f_();
  }
  void dismiss() { armed_ = false; }

 private:
  F f_;
  bool armed_ = true;
};
template <class F>
ScopeExit(F) -> ScopeExit<F>;

// ---- per-thread settings --------------------------------------------------------

// The calling thread's settings record, created on first use; the process-wide
// record when a thread record cannot be made.  Never null.
ThreadSettings& settings();

// The critical section that guards the caller-slot table of V_TlsAlloc and
// V_TlsFree (and nothing else).
void runtime_cs_enter();
void runtime_cs_leave();

// ---- bitmap guards ----------------------------------------------------------------

// Locks a bitmap's storage for the guard's lifetime (global-memory bitmaps
// need it; for the others it is free) and restores the previous lock state.
class BitmapLock {
 public:
  explicit BitmapLock(BitmapHandle* b) : b_(b), was_(b ? V_LockBitmap(b) : 0) {}
  BitmapLock(const BitmapLock&) = delete;
  BitmapLock& operator=(const BitmapLock&) = delete;
  ~BitmapLock() {
    if (b_) V_UnlockBitmap(b_, was_);
  }

 private:
  BitmapHandle* b_;
  int32_t was_;
};

// Switches the thread's status callback off while one public operation runs
// another, and puts it back on every way out.
class SuspendStatus {
 public:
  SuspendStatus() { cb_ = V_GetStatusCallBack(&data_); V_SetStatusCallBack(nullptr, 0); }
  SuspendStatus(const SuspendStatus&) = delete;
  SuspendStatus& operator=(const SuspendStatus&) = delete;
  ~SuspendStatus() { V_SetStatusCallBack(cb_, data_); }

 private:
  StatusCallback cb_ = nullptr;
  intptr_t data_ = 0;
};

// Progress reporting with the integer scheme every row loop uses: per step
// the percentage grows by 100 / total with the remainder 100 % total carried
// against total.  The callback is read once at construction.
class Progress {
 public:
  // copy: use the copy status callback instead of the status callback.
  explicit Progress(int32_t total, bool copy = false, int32_t from = 0, int32_t to = 100);
  int32_t start();          // reports `from`; RESULT_OK or the callback's value
  int32_t step();           // one step done; reports when the percentage changed
  int32_t finish();         // reports `to` if not already reported
  bool active() const { return cb_ != nullptr; }

 private:
  StatusCallback cb_ = nullptr;
  intptr_t data_ = 0;
  int32_t total_, q_, r_, acc_ = 0, percent_, last_ = -1, to_;
};

// ---- small arithmetic helpers -----------------------------------------------------

inline uint32_t bytes_per_line(int32_t width, int32_t bits) {
  return ((static_cast<uint32_t>(bits) * static_cast<uint32_t>(width) + 31u) / 32u) * 4u;
}
inline bool valid_bitmap_depth(int32_t bits) {
  return (bits >= 1 && bits <= 8) || bits == 12 || bits == 16 || bits == 24 || bits == 32 || bits == 48 ||
         bits == 64;
}
inline bool allocated(const BitmapHandle* b) { return b && (b->Flags & BITMAP_ALLOCATED); }

// Rows stored one after another at Data (locked or never movable), every row
// inside Size: operations may address them directly.
inline bool flat_memory(const BitmapHandle* b) {
  return (b->Flags & BITMAP_IN_MEMORY) && b->Data &&
         !(b->Flags & (BITMAP_COMPRESSED | BITMAP_TILED | BITMAP_SUPER_COMPRESSED)) &&
         uint64_t{b->BytesPerLine} * static_cast<uint32_t>(b->Height) <= b->Size;
}

// A record whose numbers agree: positive dimensions, rows long enough for
// Width pixels, and Height rows that fit the 32-bit Size.  V_InitBitmap keeps
// its literal 32-bit arithmetic, so a huge width can wrap BytesPerLine to a
// small value; storage is never given to such a record, and operations that
// take a caller's record refuse it before touching a row.
inline bool sound_geometry(const BitmapHandle& b) {
  if (b.Width < 1 || b.Height < 1 || b.BitsPerPixel < 1) return false;
  const uint64_t row_bits = static_cast<uint64_t>(b.Width) * static_cast<uint64_t>(b.BitsPerPixel);
  if (static_cast<uint64_t>(b.BytesPerLine) * 8u < row_bits) return false;
  return static_cast<uint64_t>(b.BytesPerLine) * static_cast<uint64_t>(b.Height) <= UINT32_MAX;
}

// The shared entry check of an operation on a caller's bitmap: storage first
// (RESULT_NO_BITMAP), then numbers that can be trusted (RESULT_BAD_PARAMETER).
inline int32_t check_bitmap(const BitmapHandle* b) {
  if (!allocated(b)) return RESULT_NO_BITMAP;
  return sound_geometry(*b) ? RESULT_OK : RESULT_BAD_PARAMETER;
}

}  // namespace vk
