// runs.h - the run-length coder of compressed 1-bit rows (internal).
//
// A row is a list of unsigned 16-bit runs counted in pixels, alternating in
// colour and always starting with a run of 0-bits (zero-length when the row
// starts with a 1-bit).  A run that would pass 65535 is closed, a
// zero-length run of the other colour follows and counting goes on in a new
// run of the first colour.
//
// Runs are read and written through load16/store16 so that records placed at
// any address (row blocks handed in by callers) are accessed safely.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vk::cmp {

constexpr uint32_t kMaxRun = 65535;

inline uint16_t load16(const void* p) {
  uint16_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void store16(void* p, uint16_t v) { std::memcpy(p, &v, sizeof v); }
inline uint32_t load32(const void* p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void store32(void* p, uint32_t v) { std::memcpy(p, &v, sizeof v); }

// Appends runs to a caller-provided run array of `capacity` runs.  Every
// write is checked against the capacity; a write that does not fit sets
// overflow() and is dropped, so a too-small buffer is detected, never
// overrun.
class RunWriter {
 public:
  RunWriter(void* runs, size_t capacity) : runs_(static_cast<uint8_t*>(runs)), cap_(capacity) {}

  // Begins a row: the current run is a 0-run holding `value` (a start value
  // that may be the 16-bit negative of a bit offset, see encode()).  The
  // next byte is added without the 65535 check, so that wrap-around cancels
  // a negative start value exactly.
  void start(uint16_t value);
  // Continues after the first n (>= 1) runs already in the array: the
  // current run is run n-1, its colour (n-1) & 1.
  void resume(size_t n);

  // Encodes `bits` pixels from src, most significant bit first, a byte at a
  // time from the per-byte run tables.  The first `skip` (0..7) bits of
  // src[0] are read as 0-bits (the caller's byte is not modified).  Bits of
  // the last byte past `bits` are ignored.
  void encode(const uint8_t* src, uint64_t bits, unsigned skip = 0);

  // Adds `len` pixels of one colour (any length), merging with the current
  // run and splitting at 65535 (closing the run at the limit).
  void append(unsigned colour, uint64_t len);

  // Appends a new run of the other colour.
  void push(uint32_t len) {
    if (n_ < cap_) {
      store16(runs_ + 2 * n_, static_cast<uint16_t>(len));
      ++n_;
      colour_ ^= 1u;
    } else {
      overflow_ = true;
    }
  }

  size_t count() const { return n_; }
  bool overflow() const { return overflow_; }
  unsigned colour() const { return colour_; }

 private:
  uint16_t current() const { return load16(runs_ + 2 * (n_ - 1)); }
  void set_current(uint32_t v) { store16(runs_ + 2 * (n_ - 1), static_cast<uint16_t>(v)); }
  // Adds a run of the current colour to the current run (split rule).
  void add(uint32_t len) {
    const uint32_t cur = current();
    if (!first_ && cur + len > kMaxRun) {
      push(0);
      push(len);
    } else {
      set_current(cur + len);  // wraps in 16 bits on the first byte, by design
    }
  }
  void whole_byte(uint8_t v);
  void partial_byte(uint8_t v, unsigned bits);
  void same_bytes(unsigned colour, uint64_t count);

  uint8_t* runs_;
  size_t cap_;
  size_t n_ = 0;
  unsigned colour_ = 0;
  bool first_ = true;
  bool overflow_ = false;
};

// Expands runs[0..count) (raw 16-bit little-endian words) into packed bits:
// the output holds the row's pixels [start, start + pixels), most
// significant bit first.  Exactly (pixels + 7) / 8 bytes of out are written
// (zero-filled, then the 1-runs set); runs are read only up to count and
// only until the requested pixels are covered.  A null run list gives zero
// bytes.  Runs that end before `pixels` leave the rest 0.
void expand(const void* runs, size_t count, uint64_t start, uint32_t pixels, uint8_t* out);

// Sets `len` bits from bit `from` of out (most significant bit first).
void set_bits(uint8_t* out, uint64_t from, uint64_t len);

}  // namespace vk::cmp
