// sine.cpp - the integer sine and cosine every turn and shear uses: one
// quarter-wave table of 9001 entries, entry a = round(sin(a / 100 degrees)
// x 16384), built by the compiler from that rule.  The other three quarters
// come from symmetry, so the table is the only source of trigonometry and
// every build gives the same values.
#include <array>

#include "core.h"

namespace vk {
namespace {

constexpr int kQuarter = 9000;

// sin(x) for 0 <= x <= pi/2 by its Taylor series, summed until the terms no
// longer change a double; far more exact than the half-unit the rounding
// below needs (the test compares every entry with the C library's sine).
constexpr double taylor_sin(double x) {
  double term = x, sum = x;
  for (int k = 1; k < 40; ++k) {
    term *= -x * x / ((2.0 * k) * (2.0 * k + 1.0));
    const double next = sum + term;
    if (next == sum) break;
    sum = next;
  }
  return sum;
}

constexpr std::array<int32_t, kQuarter + 1> make_sine_table() {
  constexpr double kPi = 3.14159265358979323846;
  std::array<int32_t, kQuarter + 1> t{};
  for (int a = 0; a <= kQuarter; ++a) {
    const double v = taylor_sin(a * kPi / (180.0 * 100.0)) * 16384.0;
    t[a] = static_cast<int32_t>(v + 0.5);  // v >= 0: adding a half and truncating rounds
  }
  return t;
}

// Key: angle in hundredths of a degree, 0..9000.
constexpr std::array<int32_t, kQuarter + 1> kSine = make_sine_table();
static_assert(kSine[0] == 0 && kSine[3000] == 8192 && kSine[4500] == 11585 && kSine[9000] == 16384);

}  // namespace

int32_t sine(int32_t a) {
  if (a <= 9000) return kSine[a];
  if (a <= 18000) return kSine[18000 - a];
  if (a <= 27000) return -kSine[a - 18000];
  return -kSine[36000 - a];
}

int32_t cosine(int32_t a) {
  if (a <= 9000) return kSine[9000 - a];
  if (a <= 18000) return -kSine[a - 9000];
  if (a <= 27000) return -kSine[27000 - a];
  return kSine[a - 27000];
}

}  // namespace vk

extern "C" {

// Outside 0..36000 there is no table entry; the caller normalises, and a
// value out of range answers 0 rather than reading outside the table.
VK_API int32_t VK_CALL V_SinValue(int32_t angle) {
  return vk::api_call([&] { return angle < 0 || angle > 36000 ? 0 : vk::sine(angle); });
}

VK_API int32_t VK_CALL V_CosValue(int32_t angle) {
  return vk::api_call([&] { return angle < 0 || angle > 36000 ? 0 : vk::cosine(angle); });
}

}  // extern "C"
