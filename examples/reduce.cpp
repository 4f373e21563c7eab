// reduce.cpp - the library from C++ through vkkrn.hpp: make a 24-bit
// picture, walk its rows, reduce it to 16 colours with progress, turn and
// cut it, and see a refused call come back as an exception and as an
// error code.
//
//   ./reduce        prints what each step did
#include <cstdio>

#include "vkkrn.hpp"

int main() {
  try {
    // 256 x 128 pixels, 24 bits in blue, green, red order, in memory.
    vk::Bitmap picture(256, 128, 24);
    std::vector<uint8_t> row(picture.bytes_per_line());
    for (uint32_t y = 0; y < 128; ++y) {
      for (uint32_t x = 0; x < 256; ++x) {
        row[3 * x + 0] = static_cast<uint8_t>(255 - x);  // blue
        row[3 * x + 1] = static_cast<uint8_t>(2 * y);    // green
        row[3 * x + 2] = static_cast<uint8_t>(x);        // red
      }
      picture.put_row(y, row.data(), row.size());
    }

    unsigned long sum = 0;
    for (const vk::Row& r : picture.rows())
      for (uint8_t byte : r) sum += byte;
    std::printf("picture: %dx%d, %d bits, byte sum %lu\n", picture.width(), picture.height(),
                picture.bits_per_pixel(), sum);

    vk::Bitmap reduced = picture.copy();
    int last = -1;
    {
      vk::ProgressScope progress([&](int32_t percent) {
        last = percent;
        return true;  // false would stop the reduction with vk::kCancelled
      });
      reduced.set_dithering(DITHER_FLOYD_STEINBERG);
      reduced.reduce(4);
    }
    std::printf("reduced: %d bits, progress reached %d%%\n", reduced.bits_per_pixel(), last);

    reduced.rotate(9000);
    vk::Bitmap corner = reduced.copy_rect(0, 0, 32, 32);
    std::printf("turned: %dx%d; corner: %dx%d\n", reduced.width(), reduced.height(), corner.width(),
                corner.height());

    std::error_code ec;
    picture.to_gray(10, ec);  // 10-bit gray does not exist
    std::printf("to_gray(10): %s\n", ec.message().c_str());

    picture.reduce(9);  // nor does reducing to 9 bits: this one throws
  } catch (const vk::Error& e) {
    std::printf("caught: %s (result %d, %s)\n", e.what(), static_cast<int>(e.result()), e.name());
    return 0;
  }
  std::printf("expected an exception\n");
  return 1;
}
