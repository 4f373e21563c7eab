// vkimg's image readers on fuzzed files.  The readers recognise the format
// from the bytes; when the first byte is a multiple of 3, PNG chunk CRCs are
// recomputed so that mutations reach the decoder instead of stopping at the
// checksum.  A reader may throw its error; it must never
// read or write outside its buffers, nor allocate more than its limits.
#include <zlib.h>

#include <cstdint>
#include <vector>

#include "image_io.h"

namespace {

void fix_png_crcs(std::vector<uint8_t>& f) {
  size_t at = 8;  // after the signature
  while (at + 12 <= f.size()) {
    const uint32_t len = uint32_t(f[at]) << 24 | uint32_t(f[at + 1]) << 16 | uint32_t(f[at + 2]) << 8 | f[at + 3];
    if (len > f.size() - at - 12) break;
    const uint32_t crc = uint32_t(crc32(0, f.data() + at + 4, len + 4));
    uint8_t* c = f.data() + at + 8 + len;
    c[0] = uint8_t(crc >> 24), c[1] = uint8_t(crc >> 16), c[2] = uint8_t(crc >> 8), c[3] = uint8_t(crc);
    at += 12 + len;
  }
}

}  // namespace

// A few bytes of a compressed format can claim a picture of the program's
// full limit; filling that much memory finds nothing, so the harness keeps
// pictures small.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vkimg::max_image_bytes = uint64_t(64) << 20;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  static const vkimg::Format formats[] = {vkimg::Format::png, vkimg::Format::pnm, vkimg::Format::bmp};
  const vkimg::Format format = formats[data[0] % 3];
  std::vector<uint8_t> file(data + 1, data + size);
  if (format == vkimg::Format::png) fix_png_crcs(file);
  try {
    const vkimg::Image image = vkimg::decode(file, format, "fuzz");
    volatile size_t touched = image.data.empty() ? 0 : image.data.back();
    (void)touched;
  } catch (const vkimg::IoError&) {
  }
  return 0;
}
