// fixed_palettes.cpp - the constant fixed palettes (1..8 bits), gray ramp and
// colour cube, built at compile time, and the exported accessors.
#include <array>
#include <cstring>

#include "core.h"
#include "palette_tables.h"

namespace vk {
namespace {

// Channel levels: 1 bit per channel, 2 bits (i * 85), 3 bits (i * 255 / 7
// rounded to nearest).
constexpr uint8_t kL2[2] = {0, 255};
constexpr uint8_t kL4[4] = {0, 85, 170, 255};
constexpr uint8_t kL8[8] = {0, 36, 73, 109, 146, 182, 219, 255};

constexpr RGBQUAD rgb(uint8_t r, uint8_t g, uint8_t b) { return RGBQUAD{b, g, r, 0}; }

template <size_t N>
using Table = std::array<RGBQUAD, N>;

constexpr Table<2> make1() { return {rgb(0, 0, 0), rgb(255, 255, 255)}; }

constexpr Table<4> make2() {
  Table<4> t{};
  for (int i = 0; i < 4; ++i) t[i] = rgb(kL4[i], kL4[i], kL4[i]);
  return t;
}

// index = 4r + 2g + b
constexpr Table<8> make3() {
  Table<8> t{};
  for (int i = 0; i < 8; ++i) t[i] = rgb(kL2[(i >> 2) & 1], kL2[(i >> 1) & 1], kL2[i & 1]);
  return t;
}

// The 16-colour table: dark primaries at 128, light gray 192, bright primaries at 255.
constexpr Table<16> make4() {
  return {rgb(0, 0, 0),     rgb(128, 0, 0),   rgb(0, 128, 0),   rgb(128, 128, 0),
          rgb(0, 0, 128),   rgb(128, 0, 128), rgb(0, 128, 128), rgb(128, 128, 128),
          rgb(192, 192, 192), rgb(255, 0, 0), rgb(0, 255, 0),   rgb(255, 255, 0),
          rgb(0, 0, 255),   rgb(255, 0, 255), rgb(0, 255, 255), rgb(255, 255, 255)};
}

// index = 8r + 2g + b; r, g in L4, b in L2
constexpr Table<32> make5() {
  Table<32> t{};
  for (int i = 0; i < 32; ++i) t[i] = rgb(kL4[(i >> 3) & 3], kL4[(i >> 1) & 3], kL2[i & 1]);
  return t;
}

// index = 16r + 4g + b; all in L4
constexpr Table<64> make6() {
  Table<64> t{};
  for (int i = 0; i < 64; ++i) t[i] = rgb(kL4[(i >> 4) & 3], kL4[(i >> 2) & 3], kL4[i & 3]);
  return t;
}

// index = 32r + 4g + b; r in L4, g in L8, b in L4
constexpr Table<128> make7() {
  Table<128> t{};
  for (int i = 0; i < 128; ++i) t[i] = rgb(kL4[(i >> 5) & 3], kL8[(i >> 2) & 7], kL4[i & 3]);
  return t;
}

// index = 32r + 4g + b; r, g in L8, b in L4
constexpr Table<256> make8() {
  Table<256> t{};
  for (int i = 0; i < 256; ++i) t[i] = rgb(kL8[(i >> 5) & 7], kL8[(i >> 2) & 7], kL4[i & 3]);
  return t;
}

constexpr Table<256> make_ramp() {
  Table<256> t{};
  for (int i = 0; i < 256; ++i) t[i] = rgb(uint8_t(i), uint8_t(i), uint8_t(i));
  return t;
}

constexpr Table<256> make_cube() {
  Table<256> t{};  // entries 216..255 stay black
  for (int r = 0; r < 6; ++r)
    for (int g = 0; g < 6; ++g)
      for (int b = 0; b < 6; ++b) t[cube_index(r, g, b)] = rgb(kCubeLevels[r], kCubeLevels[g], kCubeLevels[b]);
  return t;
}

constexpr Table<2> kFixed1 = make1();
constexpr Table<4> kFixed2 = make2();
constexpr Table<8> kFixed3 = make3();
constexpr Table<16> kFixed4 = make4();
constexpr Table<32> kFixed5 = make5();
constexpr Table<64> kFixed6 = make6();
constexpr Table<128> kFixed7 = make7();
constexpr Table<256> kFixed8 = make8();
constexpr Table<256> kRamp = make_ramp();
constexpr Table<256> kCube = make_cube();

constexpr const RGBQUAD* kFixed[9] = {nullptr,       kFixed1.data(), kFixed2.data(), kFixed3.data(), kFixed4.data(),
                                      kFixed5.data(), kFixed6.data(), kFixed7.data(), kFixed8.data()};

static_assert(kFixed8[255].rgbRed == 255 && kFixed8[255].rgbGreen == 255 && kFixed8[255].rgbBlue == 255);
static_assert(kFixed7[127].rgbGreen == 255 && kFixed5[31].rgbBlue == 255);
static_assert(kCube[215].rgbRed == 255 && kCube[216].rgbRed == 0);

}  // namespace

const RGBQUAD* fixed_palette(int32_t bits) { return (bits >= 1 && bits <= 8) ? kFixed[bits] : nullptr; }
const RGBQUAD* gray_ramp() { return kRamp.data(); }
const RGBQUAD* color_cube() { return kCube.data(); }

}  // namespace vk

extern "C" {

VK_API const RGBQUAD* VK_CALL V_IntGetFixedPalette(int32_t bits) {
  return vk::api_call([&]() -> const RGBQUAD* { return vk::fixed_palette(bits); },
                      static_cast<const RGBQUAD*>(nullptr));
}

// Bits 0 yields the 256-entry gray ramp (the palette of an 8-bit gray row),
// unlike the platform fixed palette where 0 means black and white.
VK_API int32_t VK_CALL V_GetFixedPalette(RGBQUAD* out, int32_t bits) {
  return vk::api_call([&]() -> int32_t {
    if (!out || static_cast<uint32_t>(bits) > 8u) return RESULT_BAD_PARAMETER;
    if (bits == 0) {
      std::memcpy(out, vk::gray_ramp(), 256 * sizeof(RGBQUAD));
    } else {
      std::memcpy(out, vk::fixed_palette(bits), vk::fixed_palette_size(bits) * sizeof(RGBQUAD));
    }
    return RESULT_OK;
  });
}

}  // extern "C"
