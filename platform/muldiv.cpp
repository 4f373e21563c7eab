// muldiv.cpp - a * b / c with a 64-bit intermediate product, rounded to the
// nearest integer with halves away from zero.  -1 when c is 0 or the result
// does not fit in 32 bits (a true result of -1 is indistinguishable, as with
// the platform call this mirrors).
#include "platform.h"

namespace vk::plat {

int32_t muldiv(int32_t a, int32_t b, int32_t c) {
  if (c == 0) return -1;
  const int64_t num = static_cast<int64_t>(a) * b;
  const int64_t den = c;
  int64_t q = num / den;
  const int64_t r = num % den;
  // |r| * 2 >= |c|: round the magnitude up (away from zero).
  const int64_t ar = r < 0 ? -r : r, ad = den < 0 ? -den : den;
  if (ar * 2 >= ad) q += ((num < 0) != (den < 0)) ? -1 : 1;
  if (q > INT32_MAX || q < INT32_MIN) return -1;
  return static_cast<int32_t>(q);
}

}  // namespace vk::plat
