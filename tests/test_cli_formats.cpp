// The command-line program's JPEG, TIFF and BMP codecs, alpha, standard
// input and output, and multi-page files.  JPEG is checked against libjpeg-turbo's own
// command-line tools (cjpeg, djpeg).  Built only with the tools.
#ifdef VKIMG_HAVE_TOOL

#include <gtest/gtest.h>
#include <jpeglib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "cli_helpers.h"
#include "streams.h"
#include "vkkrn_platform.h"

namespace fs = std::filesystem;
using vkimg::Colour;
using vkimg::EncodeOptions;
using vkimg::Format;
using vkimg::Image;
using vkimg::IoError;
using vkimg::TiffCompression;

namespace {

using vkt::program;
using vkt::slurp;

// Smooth colours with a little noise: what JPEG is for, and what makes its
// coder do real work.
Image photo(int w, int h, int bits, int order, uint32_t seed) {
  Image img;
  img.allocate(w, h, bits, order);
  std::mt19937 rng(seed);
  const int bytes = bits / 8;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < bytes; ++c) img.row(y)[bytes * x + c] = uint8_t((x * (c + 1) * 3 + y * 2 + rng() % 9) & 0xFF);
  return img;
}

Image palette_image(int bits, std::vector<Colour> pal, int w, int h, uint32_t seed) {
  Image img;
  img.allocate(w, h, bits, vkimg::kOrderRgb);
  img.palette = std::move(pal);
  std::mt19937 rng(seed);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) img.set_index(x, y, rng() % img.palette.size());
  return img;
}

// The colour of every pixel, whatever the layout (red, green, blue, alpha; 16 bits each).
std::vector<uint16_t> colours_of(const Image& img) {
  std::vector<uint16_t> out;
  for (int y = 0; y < img.height; ++y)
    for (int x = 0; x < img.width; ++x) {
      const uint8_t* p = img.row(y);
      if (img.bits <= 8) {
        const Colour c = img.palette.at(img.index_at(x, y));
        out.insert(out.end(), {uint16_t(c.r * 257), uint16_t(c.g * 257), uint16_t(c.b * 257), 65535});
      } else if (img.bits == 16) {
        const uint16_t v = uint16_t(p[2 * x] | p[2 * x + 1] << 8);
        out.insert(out.end(), {v, v, v, 65535});
      } else {
        const int n = img.bits <= 32 ? img.bits / 8 : img.bits / 16;
        auto ch = [&](int c) {
          return img.bits <= 32 ? uint16_t(p[n * x + c] * 257) : uint16_t(p[2 * (n * x + c)] | p[2 * (n * x + c) + 1] << 8);
        };
        const bool bgr = img.order == vkimg::kOrderBgr;
        out.insert(out.end(), {ch(bgr ? 2 : 0), ch(1), ch(bgr ? 0 : 2), n == 4 ? ch(3) : uint16_t(65535)});
      }
    }
  return out;
}

class CliFormats : public vkt::CliDir {
 protected:
  // Runs a shell command line; returns its exit status.
  static int sh(const std::string& cmd) {
    const int s = std::system(cmd.c_str());
    return WIFEXITED(s) ? WEXITSTATUS(s) : -1;
  }
  std::string vk() const { return "'" + program() + "'"; }
  static bool have(const char* tool) { return sh(std::string("command -v ") + tool + " >/dev/null 2>&1") == 0; }
};

// Our encoder at quality Q writes what cjpeg -quality Q writes (after the
// JFIF header, which carries our resolution); our decoder gives exactly
// djpeg's pixels, colour and gray.
TEST_F(CliFormats, JpegMatchesLibjpegTurboTools) {
  if (!have("cjpeg") || !have("djpeg")) GTEST_SKIP() << "libjpeg-turbo-progs not installed";
  vkimg::write_image(path("a.ppm"), photo(77, 45, 24, vkimg::kOrderRgb, 1));
  vkimg::write_image(path("g.pgm"), palette_image(8, vkt::gray_colours(8), 50, 31, 2));
  for (const char* q : {"30", "75", "95"}) {
    for (const char* in : {"a.ppm", "g.pgm"}) {
      const std::string what = std::string(in) + " at quality " + q;
      ASSERT_EQ(0, sh(vk() + " " + path(in) + " --quality " + q + " " + path("ours.jpg"))) << what;
      ASSERT_EQ(0, sh(std::string("cjpeg -quality ") + q + " " + path(in) + " > " + path("ref.jpg"))) << what;
      const auto ours = vkimg::read_file(path("ours.jpg")), ref = vkimg::read_file(path("ref.jpg"));
      ASSERT_GT(ref.size(), 20u);
      EXPECT_TRUE(ours.size() == ref.size() && std::equal(ref.begin() + 20, ref.end(), ours.begin() + 20)) << what;
      ASSERT_EQ(0, sh("djpeg -pnm " + path("ref.jpg") + " > " + path("ref.pnm"))) << what;
      const Image theirs = vkimg::read_image(path("ref.pnm")), mine = vkimg::read_image(path("ref.jpg"));
      EXPECT_EQ(colours_of(theirs), colours_of(mine)) << what;
      EXPECT_EQ(std::string(in) == "g.pgm" ? 8 : 24, mine.bits) << what;
    }
  }
}

// A CMYK JPEG as Adobe's programs write it (inverted, with their marker) reads as colour.
TEST_F(CliFormats, JpegCmykReadsAsColour) {
  const int w = 16, h = 8;
  jpeg_compress_struct c{};
  jpeg_error_mgr err{};
  c.err = jpeg_std_error(&err);
  jpeg_create_compress(&c);
  unsigned char* mem = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&c, &mem, &size);
  c.image_width = w;
  c.image_height = h;
  c.input_components = 4;
  c.in_color_space = JCS_CMYK;
  jpeg_set_defaults(&c);
  jpeg_set_quality(&c, 100, TRUE);
  jpeg_start_compress(&c, TRUE);
  std::vector<uint8_t> row(4 * w);
  for (int x = 0; x < w; ++x) {  // stored inverted: cyan none, magenta full, yellow half, black none
    row[4 * x] = 255, row[4 * x + 1] = 0, row[4 * x + 2] = 128, row[4 * x + 3] = 255;
  }
  for (int y = 0; y < h; ++y) {
    JSAMPROW r = row.data();
    jpeg_write_scanlines(&c, &r, 1);
  }
  jpeg_finish_compress(&c);
  const std::vector<uint8_t> bytes(mem, mem + size);
  jpeg_destroy_compress(&c);
  std::free(mem);
  const Image img = vkimg::decode(bytes, Format::jpeg, "cmyk.jpg");
  ASSERT_EQ(24, img.bits);
  const auto px = colours_of(img);
  EXPECT_NEAR(255, px[0] >> 8, 3);  // red
  EXPECT_NEAR(0, px[1] >> 8, 3);    // green
  EXPECT_NEAR(128, px[2] >> 8, 3);  // blue
}

struct TiffCase {
  Image img;
  const char* what;
};

// Every compression keeps every pixel of each layout TIFF holds; 1-bit
// black and white also through CCITT G3 and G4.
TEST_F(CliFormats, TiffRoundTripsEachCompressionAndDepth) {
  std::vector<TiffCase> cases;
  cases.push_back({palette_image(1, {{255, 255, 255, 0}, {0, 0, 0, 0}}, 45, 13, 1), "1-bit white-is-zero"});
  cases.push_back({palette_image(1, {{0, 0, 0, 0}, {255, 255, 255, 0}}, 45, 13, 2), "1-bit black-is-zero"});
  cases.push_back({palette_image(2, vkt::random_colours(4, 3), 23, 9, 3), "2-bit palette"});
  cases.push_back({palette_image(4, vkt::random_colours(16, 4), 23, 9, 4), "4-bit palette"});
  cases.push_back({palette_image(8, vkt::gray_colours(8), 23, 9, 5), "8-bit gray"});
  cases.push_back({palette_image(8, vkt::random_colours(256, 6), 23, 9, 6), "8-bit palette"});
  Image g16 = photo(23, 9, 16, vkimg::kOrderGray, 7);
  cases.push_back({g16, "16-bit gray"});
  cases.push_back({photo(23, 9, 24, vkimg::kOrderBgr, 8), "24-bit"});
  cases.push_back({photo(23, 9, 32, vkimg::kOrderRgb, 9), "32-bit with alpha"});
  cases.push_back({photo(23, 9, 48, vkimg::kOrderBgr, 10), "48-bit"});
  cases.push_back({photo(23, 9, 64, vkimg::kOrderRgb, 11), "64-bit with alpha"});
  for (TiffCase& c : cases) {
    c.img.xdpi = c.img.ydpi = 200;
    std::vector<TiffCompression> kinds = {TiffCompression::none, TiffCompression::packbits, TiffCompression::lzw,
                                          TiffCompression::deflate};
    if (c.img.bits == 1) kinds.insert(kinds.end(), {TiffCompression::g3, TiffCompression::g4});
    for (TiffCompression k : kinds) {
      EncodeOptions opt;
      opt.tiff = k;
      const std::string what = std::string(c.what) + ", compression " + std::to_string(int(k));
      const Image back = vkimg::decode(vkimg::encode(c.img, Format::tiff, "x.tif", nullptr, opt), Format::tiff, "x.tif");
      ASSERT_EQ(c.img.width, back.width) << what;
      EXPECT_EQ(c.img.bits, back.bits) << what;
      EXPECT_EQ(colours_of(c.img), colours_of(back)) << what;
      EXPECT_EQ(200, back.xdpi) << what;
    }
  }
  EncodeOptions g4;
  g4.tiff = TiffCompression::g4;
  EXPECT_THROW(vkimg::encode(cases[3].img, Format::tiff, "x.tif", nullptr, g4), IoError) << "G4 is black and white only";
}

// Several images into one TIFF and back out as a list, through the program.
TEST_F(CliFormats, MultiPageTiffIsAList) {
  vkimg::write_image(path("a.png"), photo(30, 20, 24, vkimg::kOrderBgr, 1));
  vkimg::write_image(path("b.png"), photo(12, 14, 24, vkimg::kOrderBgr, 2));
  vkimg::write_image(path("c.pbm"), palette_image(1, {{255, 255, 255, 0}, {0, 0, 0, 0}}, 40, 8, 3));
  ASSERT_EQ(0, sh(vk() + " --list " + path("a.png") + " " + path("b.png") + " " + path("c.pbm") +
                  " --reduce 8 -o " + path("all.tif") + " >/dev/null"));
  ASSERT_EQ(0, sh(vk() + " --list " + path("all.tif") + " --reduce 8 -o " + path("out") + " >/dev/null"));
  const int widths[] = {30, 12, 40};
  const char* names[] = {"all.tif", "all-page2.tif", "all-page3.tif"};
  for (int k = 0; k < 3; ++k) {
    const Image page = vkimg::read_image(path(std::string("out/") + names[k]));
    EXPECT_EQ(widths[k], page.width) << names[k];
    EXPECT_EQ(8, page.bits) << names[k];
  }
  // One palette for all: the pages of the first file share it.
  EXPECT_EQ(vkimg::read_image(path("out/all.tif")).palette, vkimg::read_image(path("out/all-page3.tif")).palette);
}

// BMP goes through the library's device-independent bitmaps both ways:
// every depth a BMP holds comes back pixel for pixel through the program,
// the fourth byte of 32-bit pixels too, so PNG alpha survives BMP as it
// survives PNG (8 and 16 bits per channel), also from disk storage and
// rows stored bottom up (the alpha travels in a gray bitmap of its own).
TEST_F(CliFormats, BmpDepthsAndAlphaRoundTripThroughTheProgram) {
  const struct {
    const char* in;
    const char* out;
    Image img;
    const char* args = "";
  } kCases[] = {
      {"1.bmp", "1b.bmp", palette_image(1, vkt::random_colours(2, 1), 33, 7, 1)},
      {"4.bmp", "4b.bmp", palette_image(4, vkt::random_colours(16, 2), 31, 7, 2)},
      {"8.bmp", "8b.bmp", palette_image(8, vkt::random_colours(256, 3), 13, 7, 3)},
      {"16.bmp", "16b.bmp", photo(13, 7, 16, vkimg::kOrderBgr, 4)},
      {"24.bmp", "24b.bmp", photo(13, 7, 24, vkimg::kOrderBgr, 5)},
      {"32.bmp", "32b.bmp", photo(13, 7, 32, vkimg::kOrderBgr, 6)},
      {"rgba.png", "rgba.bmp", photo(13, 7, 32, vkimg::kOrderBgr, 7)},
      {"rgba.png", "rgba2.png", photo(13, 7, 32, vkimg::kOrderRgb, 8)},
      {"rgba64.png", "rgba64b.png", photo(13, 7, 64, vkimg::kOrderBgr, 9)},
      {"rgba.png", "disk-vp2.png", photo(13, 7, 32, vkimg::kOrderRgb, 10), "--memory-type 128 --view-perspective 2"},
      {"rgba64.png", "vp2.png", photo(13, 7, 64, vkimg::kOrderRgb, 11), "--view-perspective 2"},
  };
  for (auto c : kCases) {
    c.img.xdpi = c.img.ydpi = 300;
    vkimg::write_image(path(c.in), c.img);
    ASSERT_EQ(0, sh(vk() + " " + path(c.in) + " " + c.args + " " + path(c.out))) << c.in << " -> " << c.out;
    const Image back = vkimg::read_image(path(c.out));
    EXPECT_EQ(c.img.bits, back.bits) << c.out;
    EXPECT_EQ(colours_of(c.img), colours_of(back)) << c.out;
    EXPECT_EQ(300, back.xdpi) << c.out;
  }
}

// What other writers do: a 108-byte header with 5-6-5 masks inside it (read
// as 5-5-5 pixels), and a gap between the header and the pixels.
TEST(CliBmp, MasksInsideALongHeaderAndAGapBeforeThePixels) {
  auto file = [](uint32_t header, uint16_t bits, uint32_t compression, uint32_t gap, std::vector<uint8_t> pixels) {
    std::vector<uint8_t> f(14 + header + gap, 0);
    auto put = [&](size_t at, uint32_t v, int n) {
      for (int i = 0; i < n; ++i) f[at + size_t(i)] = uint8_t(v >> (8 * i));
    };
    f[0] = 'B', f[1] = 'M';
    put(2, uint32_t(f.size() + pixels.size()), 4);
    put(10, uint32_t(f.size()), 4);
    put(14, header, 4), put(18, 2, 4), put(22, 1, 4), put(26, 1, 2), put(28, bits, 2), put(30, compression, 4);
    if (compression == 3) put(54, 0xF800, 4), put(58, 0x7E0, 4), put(62, 0x1F, 4);  // masks at byte 40 of the header
    f.insert(f.end(), pixels.begin(), pixels.end());
    return f;
  };
  const Image v4 = vkimg::decode(file(108, 16, 3, 0, {0x00, 0xF8, 0x1F, 0x00}), Format::bmp, "v4.bmp");
  ASSERT_EQ(16, v4.bits);
  EXPECT_EQ((std::vector<uint8_t>{0x00, 0x7C, 0x1F, 0x00}), std::vector<uint8_t>(v4.row(0), v4.row(0) + 4));
  const Image gap = vkimg::decode(file(40, 24, 0, 6, {1, 2, 3, 4, 5, 6, 0, 0}), Format::bmp, "gap.bmp");
  ASSERT_EQ(24, gap.bits);
  EXPECT_EQ((std::vector<uint8_t>{1, 2, 3, 4, 5, 6}), std::vector<uint8_t>(gap.row(0), gap.row(0) + 6));
}

// BMP is written a band of rows at a time; the file must hold exactly the
// library's DIB of the whole bitmap behind its file header, for rows stored
// top first and bottom first (and, whole, transposed), and for depths
// copied straight, widened, narrowed and converted.  Bands of three rows
// over eleven end in a short one.
TEST(CliBmp, BandsWriteTheWholeBitmapsDib) {
  const struct {
    int bits, order;
  } kDepths[] = {{1, 0}, {2, 0}, {8, 0}, {16, 1}, {16, 2}, {24, 1}, {24, 0}, {32, 1}, {48, 1}};
  const size_t saved_band = vkimg::bmp_band_bytes;
  std::mt19937 rng(5);
  for (const auto& d : kDepths)
    for (int vp : {0, 2, 5}) {
      const std::string what = std::to_string(d.bits) + " bits, order " + std::to_string(d.order) + ", view " +
                               std::to_string(vp);
      std::vector<RGBQUAD> pal(256);
      for (RGBQUAD& c : pal) c = RGBQUAD{uint8_t(rng()), uint8_t(rng()), uint8_t(rng()), 0};
      BitmapHandle bm{};
      ASSERT_EQ(RESULT_OK, V_CreateBitmap(&bm, TYPE_CONVENTIONAL, 13, 11, d.bits, d.order,
                                          d.bits <= 8 ? pal.data() : nullptr, vp, nullptr, 0)) << what;
      bm.XResolution = 300;
      // Random pixels; the bits after the last pixel are zero, as in any bitmap.
      std::vector<uint8_t> row(bm.BytesPerLine);
      const size_t used_bits = size_t(bm.Width) * size_t(d.bits);
      for (uint32_t y = 0; y < uint32_t(bm.Height); ++y) {
        for (size_t b = 0; b < row.size(); ++b) {
          const size_t bit = 8 * b;
          row[b] = bit >= used_bits ? 0 : uint8_t(rng() & (0xFF00u >> std::min<size_t>(8, used_bits - bit)));
        }
        V_PutBitmapRow(&bm, row.data(), y, int32_t(row.size()));
      }
      VK_HGLOBAL dib = V_ConvertToDIB(&bm);
      ASSERT_NE(nullptr, dib) << what;
      const auto* p = static_cast<const uint8_t*>(VKP_GlobalLock(dib));
      auto le32 = [](const uint8_t* q) { return uint32_t(q[0] | q[1] << 8 | q[2] << 16 | uint32_t(q[3]) << 24); };
      const uint32_t pixels_at = le32(p) + 4 * le32(p + 32);  // header, palette, then the rows
      const std::vector<uint8_t> whole(p, p + pixels_at + le32(p + 20));
      VKP_GlobalUnlock(dib);
      VKP_GlobalFree(dib);

      vkimg::ImageInfo info;
      info.width = bm.Width, info.height = bm.Height, info.bits = d.bits, info.order = d.bits <= 8 ? 0 : d.order;
      vkimg::bmp_band_bytes = 3 * size_t(bm.BytesPerLine);
      std::vector<uint8_t> file;
      {
        vkimg::OutStream out(&file);
        auto enc = vkimg::open_encoder(out, Format::bmp, info, nullptr);
        ASSERT_TRUE(enc->write_bitmap(bm, {})) << what;
      }
      vkimg::bmp_band_bytes = saved_band;
      V_FreeBitmap(&bm);
      ASSERT_EQ(14 + whole.size(), file.size()) << what;
      EXPECT_TRUE(std::equal(whole.begin(), whole.end(), file.begin() + 14)) << what;
      EXPECT_EQ(file.size(), le32(&file[2])) << what;
      EXPECT_EQ(14 + pixels_at, le32(&file[10])) << what;
    }
}

// Damaged BMP files: exit 1 with the file named, whatever the header claims.
TEST_F(CliFormats, DamagedBmpFailsNamingTheFile) {
  const auto good = vkimg::encode(photo(40, 20, 24, vkimg::kOrderBgr, 1), Format::bmp, "x");
  // Kept bytes; a 32-bit value written at `at` (0: none).
  const struct {
    const char* name;
    size_t keep, at;
    uint32_t value;
    const char* says;
  } kCases[] = {
      {"cut.bmp", good.size() / 2, 0, 0, "truncated"},
      {"huge-header.bmp", good.size(), 14, 0x7FFFFFF0, "header"},  // the info header's size
      {"rle.bmp", good.size(), 30, 1, "RLE8"},                     // its compression
  };
  for (const auto& c : kCases) {
    std::vector<uint8_t> bad(good.begin(), good.begin() + ptrdiff_t(c.keep));
    for (size_t i = 0; c.at && i < 4; ++i) bad[c.at + i] = uint8_t(c.value >> (8 * i));
    vkimg::write_file(path(c.name), bad);
    const int r = sh(vk() + " " + path(c.name) + " " + path("o.png") + " 2>" + path("err.txt"));
    EXPECT_EQ(1, r) << c.name;
    const std::string err = slurp(path("err.txt"));
    EXPECT_NE(std::string::npos, err.find(path(c.name))) << err;
    EXPECT_NE(std::string::npos, err.find(c.says)) << err;
    EXPECT_FALSE(fs::exists(path("o.png")));
  }
}

// "-" reads standard input and writes standard output; the format of the
// input is found in its bytes, that of the output named by --format.
TEST_F(CliFormats, StandardInputAndOutput) {
  const Image a = photo(21, 11, 24, vkimg::kOrderRgb, 4);
  vkimg::write_image(path("a.ppm"), a);
  ASSERT_EQ(0, sh("cat " + path("a.ppm") + " | " + vk() + " - --format tif - | " + vk() + " - " + path("b.png")));
  EXPECT_EQ(colours_of(a), colours_of(vkimg::read_image(path("b.png"))));
  // A file named for one format holding another is read by its content.
  fs::copy_file(path("b.png"), path("really-png.bmp"));
  ASSERT_EQ(0, sh(vk() + " " + path("really-png.bmp") + " " + path("c.ppm")));
  EXPECT_EQ(colours_of(a), colours_of(vkimg::read_image(path("c.ppm"))));
  EXPECT_EQ(2, sh(vk() + " " + path("a.ppm") + " - >/dev/null 2>&1")) << "standard output needs --format";
}

// Truncated and damaged JPEG and TIFF files fail with the file's name and
// never read outside their buffers (the sanitizer build runs this too).
TEST_F(CliFormats, CorruptJpegAndTiffFailNamingTheFile) {
  const Image a = photo(40, 24, 24, vkimg::kOrderBgr, 5);
  EncodeOptions packbits;
  packbits.tiff = TiffCompression::packbits;
  const std::vector<uint8_t> files[] = {vkimg::encode(a, Format::jpeg, "x"), vkimg::encode(a, Format::tiff, "x"),
                                        vkimg::encode(a, Format::tiff, "x", nullptr, packbits)};
  std::mt19937 rng(7);
  for (const auto& bytes : files)
    vkt::expect_damage_fails_cleanly(bytes, Format::png, {3, 4, 10, bytes.size() / 3, bytes.size() / 2, bytes.size() - 2},
                                     200, 2, 200, rng);
}

}  // namespace

#endif  // VKIMG_HAVE_TOOL
