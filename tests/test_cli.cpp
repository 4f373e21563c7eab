// The command-line program: its image codec in memory, then the program end
// to end on small files.  Built only with the tools (VKIMG_HAVE_TOOL).
#ifdef VKIMG_HAVE_TOOL

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "cli_helpers.h"

namespace fs = std::filesystem;
using vkimg::Colour;
using vkimg::Format;
using vkimg::Image;
using vkimg::IoError;

namespace {

// ---- picture helpers ----

using vkt::gray_colours;
using vkt::random_colours;

// A picture with every pixel byte random (padding zero); palette pictures
// get indices below the palette size.  13 pixels wide: rows need padding
// at every depth.
Image random_image(int bits, int order, std::vector<Colour> palette, uint32_t seed, int w = 13, int h = 7) {
  Image img;
  img.allocate(w, h, bits, order);
  img.palette = std::move(palette);
  std::mt19937 rng(seed);
  for (int y = 0; y < h; ++y) {
    if (bits <= 8) {
      for (int x = 0; x < w; ++x) img.set_index(x, y, rng() % img.palette.size());
    } else {
      uint8_t* row = img.row(y);
      const size_t used = size_t(w) * size_t(bits) / 8;
      for (size_t i = 0; i < used; ++i) row[i] = uint8_t(rng());
      if (bits == 16 && order != vkimg::kOrderGray)
        for (int x = 0; x < w; ++x) row[2 * x + 1] &= 0x7F;  // 5-5-5: bit 15 clear
    }
  }
  return img;
}

// Same geometry, depth, palette and the colours of every row (the row
// padding is not compared).  Colour rows may come back in the other of the
// RGB and BGR orders (PPM reads as RGB, the file's own order).
void expect_same(const Image& a, const Image& b, const std::string& what) {
  ASSERT_EQ(a.width, b.width) << what;
  ASSERT_EQ(a.height, b.height) << what;
  ASSERT_EQ(a.bits, b.bits) << what;
  const bool swapped = a.bits > 16 && a.order != b.order;
  if (swapped) {
    ASSERT_TRUE(a.bits == 24 || a.bits == 48) << what << ": orders " << a.order << " and " << b.order;
    ASSERT_TRUE(a.order <= 1 && b.order <= 1) << what;
  } else if (a.bits > 8) {
    EXPECT_EQ(a.order, b.order) << what;
  } else {
    ASSERT_GE(b.palette.size(), a.palette.size()) << what;
    for (size_t i = 0; i < a.palette.size(); ++i)
      EXPECT_TRUE(a.palette[i].r == b.palette[i].r && a.palette[i].g == b.palette[i].g &&
                  a.palette[i].b == b.palette[i].b)
          << what << ": palette entry " << i;
  }
  for (int y = 0; y < a.height; ++y) {
    if (a.bits <= 8) {
      for (int x = 0; x < a.width; ++x)
        ASSERT_EQ(a.index_at(x, y), b.index_at(x, y)) << what << ": pixel " << x << "," << y;
    } else if (swapped) {
      const size_t sample = size_t(a.bits) / 24;  // bytes per channel
      for (int x = 0; x < a.width; ++x)
        for (size_t c = 0; c < 3; ++c)
          ASSERT_EQ(0, std::memcmp(a.row(y) + (3 * x + c) * sample, b.row(y) + (3 * x + 2 - c) * sample, sample))
              << what << ": pixel " << x << "," << y;
    } else {
      const size_t used = size_t(a.width) * size_t(a.bits) / 8;
      ASSERT_EQ(0, std::memcmp(a.row(y), b.row(y), used)) << what << ": row " << y;
    }
  }
}

// ---- codec round trips ----

struct RoundTrip {
  Format format;
  int bits;
  int order;
  enum { colours, gray, black_white } palette;
};

std::string label(const RoundTrip& t) {
  return std::string(vkimg::format_name(t.format)) + " " + std::to_string(t.bits) + " bits, order " +
         std::to_string(t.order);
}

TEST(CliCodec, RoundTripKeepsEveryPixelOfEachDepth) {
  using vkimg::kOrderBgr;
  using vkimg::kOrderGray;
  const RoundTrip kCases[] = {
      {Format::png, 1, 0, RoundTrip::colours},  {Format::png, 2, 0, RoundTrip::colours},
      {Format::png, 4, 0, RoundTrip::colours},  {Format::png, 8, 0, RoundTrip::colours},
      {Format::png, 1, 0, RoundTrip::gray},     {Format::png, 2, 0, RoundTrip::gray},
      {Format::png, 4, 0, RoundTrip::gray},     {Format::png, 8, 0, RoundTrip::gray},
      {Format::png, 16, kOrderGray, RoundTrip::gray}, {Format::png, 24, kOrderBgr, RoundTrip::colours},
      {Format::png, 32, kOrderBgr, RoundTrip::colours}, {Format::png, 48, kOrderBgr, RoundTrip::colours},
      {Format::png, 64, kOrderBgr, RoundTrip::colours},
      {Format::pbm, 1, 0, RoundTrip::black_white}, {Format::pgm, 8, 0, RoundTrip::gray},
      {Format::pgm, 16, kOrderGray, RoundTrip::gray}, {Format::ppm, 24, kOrderBgr, RoundTrip::colours},
      {Format::ppm, 48, kOrderBgr, RoundTrip::colours}, {Format::pnm, 1, 0, RoundTrip::black_white},
      {Format::pnm, 8, 0, RoundTrip::gray},     {Format::pnm, 24, kOrderBgr, RoundTrip::colours},
  };
  uint32_t seed = 1;
  for (const RoundTrip& t : kCases) {
    std::vector<Colour> pal;
    if (t.bits <= 8) {
      pal = t.palette == RoundTrip::gray         ? gray_colours(t.bits)
            : t.palette == RoundTrip::black_white ? std::vector<Colour>{{255, 255, 255, 0}, {0, 0, 0, 0}}
                                                  : random_colours(size_t(1) << t.bits, seed);
    }
    Image img = random_image(t.bits, t.order, pal, seed++);
    img.xdpi = img.ydpi = 300;
    std::vector<std::string> notes;
    const auto bytes = vkimg::encode(img, t.format, "x", &notes);
    const Image back = vkimg::decode(bytes, t.format, "x");
    expect_same(img, back, label(t));
    EXPECT_TRUE(notes.empty()) << label(t) << ": " << (notes.empty() ? "" : notes[0]);
    if (t.format == Format::png) EXPECT_EQ(300, back.xdpi) << label(t);
  }
}

// Pictures a format cannot hold as they are: what comes back, exactly.
TEST(CliCodec, NarrowingAndReorderingKeepTheColours) {
  // 24-bit RGB order comes back as BGR with the same colours (PPM: as it was).
  Image rgb = random_image(24, vkimg::kOrderRgb, {}, 5);
  for (Format f : {Format::ppm, Format::png, Format::bmp}) {
    const Image back = vkimg::decode(vkimg::encode(rgb, f, "x"), f, "x");
    expect_same(rgb, back, format_name(f));
    EXPECT_EQ(f == Format::ppm ? vkimg::kOrderRgb : vkimg::kOrderBgr, back.order) << format_name(f);
  }
  // A 32-bit picture whose fourth byte is zero everywhere is saved without alpha.
  Image x32 = random_image(32, vkimg::kOrderBgr, {}, 6);
  for (int y = 0; y < x32.height; ++y)
    for (int x = 0; x < x32.width; ++x) x32.row(y)[4 * x + 3] = 0;
  std::vector<std::string> notes;
  const Image back = vkimg::decode(vkimg::encode(x32, Format::png, "x", &notes), Format::png, "x");
  EXPECT_EQ(24, back.bits);
  EXPECT_EQ(1u, notes.size());
  EXPECT_EQ(0, std::memcmp(back.row(3), x32.row(3), 3)) << "blue, green, red of pixel 0";
  // 48 bits into BMP: the high bytes, with a note.
  Image deep = random_image(48, vkimg::kOrderBgr, {}, 7);
  notes.clear();
  const Image b24 = vkimg::decode(vkimg::encode(deep, Format::bmp, "deep.bmp", &notes), Format::bmp, "x");
  EXPECT_EQ(24, b24.bits);
  ASSERT_EQ(1u, notes.size());
  EXPECT_NE(std::string::npos, notes[0].find("deep.bmp"));
  EXPECT_EQ(deep.row(2)[5], b24.row(2)[2]) << "red high byte";
  // 3-, 5-, 6- and 7-bit palette pictures are repacked to a depth the format has.
  for (int bits : {3, 5, 6, 7}) {
    Image odd = random_image(bits, 0, random_colours(size_t(1) << bits, bits), bits);
    for (Format f : {Format::png, Format::bmp}) {
      const Image r = vkimg::decode(vkimg::encode(odd, f, "x"), f, "x");
      EXPECT_EQ(bits == 3 ? 4 : 8, r.bits);
      for (int y = 0; y < odd.height; ++y)
        for (int x = 0; x < odd.width; ++x) ASSERT_EQ(odd.index_at(x, y), r.index_at(x, y)) << bits << " bits";
    }
  }
}

TEST(CliCodec, PnmHeadersCommentsAndScaling) {
  // Comments anywhere in the header; maxval 15 scales to the full 8 bits.
  const std::string text = "P5 # gray\n3 # width\n1\n15\n";
  std::vector<uint8_t> bytes(text.begin(), text.end());
  bytes.insert(bytes.end(), {0, 15, 7});
  const Image img = vkimg::decode(bytes, Format::pgm, "a.pgm");
  ASSERT_EQ(8, img.bits);
  EXPECT_EQ(0u, img.index_at(0, 0));
  EXPECT_EQ(255u, img.index_at(1, 0));
  EXPECT_EQ(119u, img.index_at(2, 0));  // (7 * 255 + 7) / 15
  // PBM: 1 is black.
  const std::string pbm = "P4\n9 1\n";
  std::vector<uint8_t> b1(pbm.begin(), pbm.end());
  b1.insert(b1.end(), {0x80, 0x80});
  const Image bw = vkimg::decode(b1, Format::pbm, "b.pbm");
  EXPECT_EQ(1u, bw.index_at(0, 0));
  EXPECT_EQ(0u, bw.index_at(1, 0));
  EXPECT_EQ(1u, bw.index_at(8, 0));
  EXPECT_EQ(0, bw.palette[1].r);
  // PGM refuses colour; PBM refuses more than one bit.
  EXPECT_THROW(vkimg::encode(random_image(24, 1, {}, 1), Format::pgm, "c.pgm"), IoError);
  EXPECT_THROW(vkimg::encode(random_image(8, 0, gray_colours(8), 1), Format::pbm, "c.pbm"), IoError);
}

// Every truncation and many single-byte corruptions of valid files either
// decode or fail with an error naming the file; nothing reads outside the
// buffer (run under the sanitizer build to see that).
TEST(CliCodec, TruncatedAndCorruptFilesFailCleanly) {
  const struct {
    Format format;
    Image img;
  } kFiles[] = {
      {Format::png, random_image(8, 0, random_colours(256, 3), 3)},
      {Format::png, random_image(48, 1, {}, 4)},
      {Format::pgm, random_image(16, vkimg::kOrderGray, {}, 5)},
      {Format::ppm, random_image(24, 1, {}, 6)},
      {Format::pbm, random_image(1, 0, {{255, 255, 255, 0}, {0, 0, 0, 0}}, 7)},
      {Format::bmp, random_image(4, 0, random_colours(16, 8), 8)},
      {Format::bmp, random_image(32, 1, {}, 9)},
  };
  std::mt19937 rng(42);
  for (const auto& f : kFiles) {
    const auto bytes = vkimg::encode(f.img, f.format, "ok");
    vkt::expect_damage_fails_cleanly(bytes, f.format, {0, 1, 2, 9, bytes.size() / 2, bytes.size() - 1}, 300, 4, 80,
                                     rng);
  }
}

// A header may claim anything: a tiny PNG claiming 262144 x 8191 pixels must
// be refused before the picture is allocated, and resolutions beyond what a
// 32-bit int holds in dots per metre must neither overflow nor wrap.
TEST(CliCodec, HeadersCannotMakeTheReaderAllocateOrOverflow) {
  std::vector<Colour> ramp(256);
  for (int i = 0; i < 256; ++i) ramp[size_t(i)] = Colour{uint8_t(i), uint8_t(i), uint8_t(i), 0};
  Image small = random_image(8, 0, ramp, 11);  // written as 8-bit gray: 2 GiB as claimed below
  std::vector<uint8_t> png = vkimg::encode(small, Format::png, "x");
  // IHDR width and height (big-endian at 16 and 20), its CRC recomputed.
  const uint32_t w = 262144, h = 8191;
  for (int i = 0; i < 4; ++i) png[16 + i] = uint8_t(w >> (24 - 8 * i)), png[20 + i] = uint8_t(h >> (24 - 8 * i));
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 12; i < 29; ++i) {
    crc ^= png[i];
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  crc ^= 0xFFFFFFFFu;
  for (int i = 0; i < 4; ++i) png[29 + i] = uint8_t(crc >> (24 - 8 * i));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // In a child limited to 256 MiB of address space, so that an allocation of
  // the claimed size would fail differently from the refusal.
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    struct rlimit lim = {256u << 20, 256u << 20};
    setrlimit(RLIMIT_AS, &lim);
    try {
      vkimg::decode(png, Format::png, "bomb.png");
    } catch (const IoError& e) {
      _exit(std::string(e.what()).find("truncated") != std::string::npos ? 0 : 2);
    } catch (...) {
      _exit(3);
    }
    _exit(4);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
#endif
  EXPECT_THROW(vkimg::decode(png, Format::png, "bomb.png"), IoError);

  for (const Format f : {Format::bmp, Format::png}) {
    Image img = random_image(24, 1, {}, 12);
    img.xdpi = 300000;
    img.ydpi = 2000000000;
    const Image back = vkimg::decode(vkimg::encode(img, f, "x"), f, "x");
    EXPECT_EQ(back.xdpi, 300000) << format_name(f);
    EXPECT_GT(back.ydpi, 0) << format_name(f);  // clamped to the field, never wrapped
  }
  std::vector<uint8_t> bmp = vkimg::encode(random_image(24, 1, {}, 13), Format::bmp, "x");
  for (int i = 0; i < 4; ++i) bmp[38 + i] = 0xF0;  // the field is signed: -252645136 pixels per metre
  EXPECT_EQ(vkimg::decode(bmp, Format::bmp, "x").xdpi, 0) << "read as unknown";
}

TEST(CliCodec, FormatFollowsTheExtension) {
  EXPECT_EQ(Format::png, vkimg::format_for_path("a/b.PNG"));
  EXPECT_EQ(Format::bmp, vkimg::format_for_path("x.bmp"));
  EXPECT_EQ(Format::pnm, vkimg::format_for_path("x.pnm"));
  EXPECT_EQ(Format::jpeg, vkimg::format_for_path("x.JPeG"));
  EXPECT_EQ(Format::tiff, vkimg::format_for_path("x.tif"));
  EXPECT_THROW(vkimg::format_for_path("x.gif"), IoError);
  EXPECT_THROW(vkimg::format_for_path("dir.png/noext"), IoError);
}

// ---- the program end to end ----

using vkt::program;
using vkt::slurp;

struct Outcome {
  int status = -1;
  std::string out, err;
};

class CliProgram : public vkt::CliDir {
 protected:
  static std::string quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
  }

  Outcome run(const std::vector<std::string>& args, const std::string& env = "") const {
    std::string cmd = env.empty() ? "" : env + " ";
    cmd += quote(program());
    for (const auto& a : args) cmd += " " + quote(a);
    const std::string out = path("stdout.txt"), err = path("stderr.txt");
    cmd += " >" + quote(out) + " 2>" + quote(err) + " </dev/null";
    Outcome r;
    const int s = std::system(cmd.c_str());
    r.status = WIFEXITED(s) ? WEXITSTATUS(s) : -1;
    r.out = slurp(out);
    r.err = slurp(err);
    return r;
  }

  // Runs the program and expects it to succeed.
  Outcome ok(const std::vector<std::string>& args) const {
    Outcome r = run(args);
    EXPECT_EQ(0, r.status) << r.err;
    return r;
  }

  void save(const std::string& name, const Image& img) const { vkimg::write_image(path(name), img); }
  Image load(const std::string& name) const { return vkimg::read_image(path(name)); }
};

// Every operation is listed, and every option row's help text starts in one
// column, continuation lines too.
TEST_F(CliProgram, HelpListsEveryOperationInOneColumnAndVersionPrints) {
  const Outcome help = run({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_NE(std::string::npos, help.out.find("usage: vkimg"));
  for (const char* op : {"--info", "--convert", "--gray", "--get-pixel", "--put-pixel", "--reduce", "--count-colors",
                         "--optimised-palette", "--compress", "--decompress", "--storage", "--height"})
    EXPECT_NE(std::string::npos, help.out.find(std::string("  ") + op + " ")) << op;
  EXPECT_NE(std::string::npos, help.out.find("Floyd-Steinberg, the default"));
  // The column of the first row's text; every other row has a blank just
  // before it and text at it.
  const size_t info = help.out.find("\n  --info ");
  ASSERT_NE(std::string::npos, info);
  const size_t column = help.out.find("print size", info) - info - 1;
  std::istringstream lines(help.out.substr(info, help.out.find("\nExit status") - info));
  std::string line;
  size_t rows = 0;
  while (std::getline(lines, line)) {
    if (line.rfind("  -", 0) != 0 && line.rfind("    ", 0) != 0) continue;
    ASSERT_GT(line.size(), column) << line;
    EXPECT_TRUE(line[column - 1] == ' ' && line[column] != ' ') << line;
    if (line[2] == ' ') EXPECT_EQ(column, line.find_first_not_of(' ')) << line;
    ++rows;
  }
  EXPECT_GT(rows, 20u);
  const Outcome v = run({"--version"});
  EXPECT_EQ(0, v.status);
  EXPECT_NE(std::string::npos, v.out.find("13.0"));
}

// Settings that name something missing or unsupported say what, not what
// the library's result code would suggest.
TEST_F(CliProgram, RefusedSettingsSayWhy) {
  save("a.png", random_image(24, 1, {}, 2, 8, 8));
  const struct {
    std::vector<std::string> args;
    int status;
    const char* says;
  } kCases[] = {
      {{path("a.png"), "--storage", "1024", "--info"}, 2, "not supported"},
      {{"--memory-type", "1024", path("a.png"), "--info"}, 2, "not supported"},
      {{"--temp-dir", path("missing"), path("a.png"), "--info"}, 1, "no such directory"},
      {{"--temp-dir", path("a.png"), path("a.png"), "--info"}, 1, "not a directory"},
  };
  for (const auto& c : kCases) {
    const Outcome r = run(c.args);
    EXPECT_EQ(c.status, r.status) << c.args[1] << ": " << r.err;
    EXPECT_NE(std::string::npos, r.err.find(c.says)) << r.err;
    EXPECT_EQ(std::string::npos, r.err.find("could not be obtained")) << r.err;
    EXPECT_EQ(std::string::npos, r.err.find("RESULT_")) << r.err;
  }
  const Outcome tmp = run({"--temp-dir", path("missing"), path("a.png"), "--info"});
  EXPECT_NE(std::string::npos, tmp.err.find(path("missing"))) << tmp.err;
}

TEST_F(CliProgram, BothSpellingsAreTaken) {
  save("a.png", random_image(24, 1, {}, 3, 12, 6));
  const std::vector<std::vector<std::string>> kRuns = {
      {path("a.png"), "--grey", "8", path("b.png")},
      {path("a.png"), "--convert", "8:grey", path("b.png")},
      {path("a.png"), "--reduce", "4:grey", path("b.png")},
      {path("a.png"), "--colours", "5", "--reduce", "4", path("b.png")},
      {path("a.png"), "--palette", "optimized", "--reduce", "4", path("b.png")},
      {path("a.png"), "--count-colours"},
      {path("a.png"), "--optimized-palette", "4"},
      {path("a.png"), "--put-pixel", "0,0=grey16:5", path("b.png")},
  };
  for (const auto& args : kRuns) {
    const Outcome r = run(args);
    EXPECT_EQ(0, r.status) << args[1] << " " << args[2] << ": " << r.err;
  }
}

TEST_F(CliProgram, UsageErrorsExitWithTwo) {
  const std::vector<std::vector<std::string>> kBad = {
      {"--no-such-option"}, {"a.png", "b.png", "c.png"}, {"a.png", "--gray"}, {"--dither", "wobbly", "a.png"},
      {"a.png", "--colors", "0", "b.png"}};
  for (const auto& args : kBad) {
    const Outcome r = run(args);
    EXPECT_EQ(2, r.status) << args[0];
    EXPECT_NE(std::string::npos, r.err.find("vkimg: ")) << args[0];
  }
}

TEST_F(CliProgram, CorruptTruncatedOrMissingInputNamesTheFile) {
  const auto png = vkimg::encode(random_image(24, 1, {}, 1), Format::png, "x");
  vkimg::write_file(path("cut.png"), std::vector<uint8_t>(png.begin(), png.begin() + static_cast<ptrdiff_t>(png.size() / 2)));
  vkimg::write_file(path("garbage.bmp"), {'B', 'M', 1, 2, 3});
  vkimg::write_file(path("huge.ppm"), {'P', '6', ' ', '9', '9', '9', '9', '9', ' ', '9', '9', '9', '9', '9', ' ', '2', '5', '5', '\n'});
  vkimg::write_file(path("text.pgm"), {'P', '2', '\n', '1', ' ', '1', '\n', '2', '5', '5', '\n', '0', '\n'});
  for (const char* name : {"cut.png", "garbage.bmp", "huge.ppm", "text.pgm", "missing.png"}) {
    const Outcome r = run({path(name), path("out.png")});
    EXPECT_EQ(1, r.status) << name;
    EXPECT_NE(std::string::npos, r.err.find(path(name))) << name << ": " << r.err;
    EXPECT_FALSE(fs::exists(path("out.png"))) << name;
  }
  const Outcome ext = run({path("cut.png"), path("out.gif")});
  EXPECT_NE(0, ext.status);
  EXPECT_NE(std::string::npos, ext.err.find("out.gif"));
}

// Through the library and back: every depth each format holds keeps every pixel.
TEST_F(CliProgram, RoundTripsThroughTheLibraryKeepEveryPixel) {
  const struct {
    const char* in;
    const char* out;
    int bits;
    int order;
  } kCases[] = {
      {"a.png", "b.png", 1, 0},   {"a.png", "b.png", 2, 0},  {"a.png", "b.bmp", 4, 0},   {"a.bmp", "b.png", 8, 0},
      {"a.png", "b.pgm", 16, 2},  {"a.ppm", "b.png", 24, 1}, {"a.png", "b.bmp", 32, 1},  {"a.png", "b.ppm", 48, 1},
      {"a.png", "b.png", 64, 1},  {"a.bmp", "b.bmp", 16, 1}, {"a.pbm", "b.pbm", 1, 0},   {"a.pgm", "b.png", 8, 0},
  };
  uint32_t seed = 10;
  for (const auto& c : kCases) {
    std::vector<Colour> pal;
    if (c.bits <= 8) {
      pal = std::string(c.in).ends_with(".pbm") ? std::vector<Colour>{{255, 255, 255, 0}, {0, 0, 0, 0}}
            : std::string(c.in).ends_with(".pgm") ? gray_colours(8)
                                                  : random_colours(size_t(1) << c.bits, seed);
    }
    const Image img = random_image(c.bits, c.order, pal, seed++, 21, 9);
    save(c.in, img);
    const Outcome r = run({path(c.in), path(c.out)});
    ASSERT_EQ(0, r.status) << c.in << " -> " << c.out << ": " << r.err;
    expect_same(img, load(c.out), std::string(c.in) + " -> " + c.out + " at " + std::to_string(c.bits) + " bits");
  }
}

TEST_F(CliProgram, InfoAndStorageReport) {
  save("a.png", random_image(24, 1, {}, 3, 16, 8));
  const Outcome r = ok({"info", path("a.png")});
  EXPECT_NE(std::string::npos, r.out.find("16x8, 24 bits per pixel")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("storage: memory")) << r.out;
  const Outcome s = run({"storage", "300x200x8"});
  ASSERT_EQ(0, s.status) << s.err;
  EXPECT_NE(std::string::npos, s.out.find("60000 bytes")) << s.out;
  const Outcome big = run({"storage", "100000x100000x24"});
  EXPECT_EQ(2, big.status) << "more than 4 GiB is refused before the library is asked";
}

TEST_F(CliProgram, PixelsGrayAndColourCount) {
  Image img;
  img.allocate(4, 2, 24, vkimg::kOrderBgr);
  const uint8_t px[8][3] = {{0, 0, 255}, {0, 255, 0}, {255, 0, 0}, {255, 255, 255},
                            {0, 0, 0},   {10, 20, 30}, {0, 0, 255}, {0, 0, 255}};  // blue, green, red
  for (int i = 0; i < 8; ++i) std::memcpy(img.row(i / 4) + 3 * (i % 4), px[i], 3);
  save("a.png", img);
  Outcome r = ok({path("a.png"), "--get-pixel", "2,0", "--get-pixel", "1,1"});
  EXPECT_NE(std::string::npos, r.out.find("pixel 2,0: #0000ff")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("pixel 1,1: #1e140a")) << r.out;
  EXPECT_EQ(2, run({path("a.png"), "--get-pixel", "4,0"}).status);

  r = ok({path("a.png"), "--count-colors"});
  EXPECT_NE(std::string::npos, r.out.find(": 6 colours")) << r.out;

  r = ok({path("a.png"), "--optimised-palette", "16"});
  EXPECT_NE(std::string::npos, r.out.find("6 colours, exactly")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("#1e140a")) << r.out;
  r = ok({path("a.png"), "--optimised-palette", "2"});
  EXPECT_NE(std::string::npos, r.out.find("2 colours, approximating")) << r.out;

  r = ok({path("a.png"), "--gray", "8", path("g.png")});
  const Image g = load("g.png");
  ASSERT_EQ(8, g.bits);
  // (5 g + 2 r + b + 4) / 8 on the red pixel: (2 * 255 + 4) / 8 = 64.
  const Colour c = g.palette[g.index_at(0, 0)];
  EXPECT_EQ(64, c.r);
  EXPECT_EQ(c.r, c.g);
}

// --alpha-in makes a 24-bit picture 32-bit with the gray image as its alpha
// (a smaller one sets the top-left part); --alpha-out writes it back.
TEST_F(CliProgram, AlphaChannelInAndOut) {
  save("a.png", random_image(24, 1, {}, 7, 5, 3));
  Image gray;
  gray.allocate(3, 2, 8, vkimg::kOrderRgb);
  gray.palette = gray_colours(8);
  for (int i = 0; i < 6; ++i) gray.row(i / 3)[i % 3] = uint8_t(40 * i + 1);
  save("alpha.png", gray);
  Outcome r = ok({path("a.png"), "--alpha-in", path("alpha.png"), "--alpha-out", path("out.png"), path("b.png")});
  const Image b = load("b.png"), out = load("out.png");
  ASSERT_EQ(32, b.bits);
  ASSERT_EQ(8, out.bits);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 5; ++x) {
      const int want = x < 3 && y < 2 ? 40 * (y * 3 + x) + 1 : 0;
      EXPECT_EQ(want, b.row(y)[4 * x + 3]) << x << "," << y;
      EXPECT_EQ(want, out.palette[out.index_at(x, y)].r) << x << "," << y;
    }
  r = run({path("a.png"), "--alpha-in", path("missing.png"), path("c.png")});
  EXPECT_NE(0, r.status);
  EXPECT_NE(std::string::npos, r.err.find("missing.png")) << r.err;
}

TEST_F(CliProgram, PutPixelThenReadBack) {
  save("a.png", random_image(24, 1, {}, 4, 9, 5));
  const Outcome r = ok({path("a.png"), "--put-pixel", "3,4=#102030", "--put-pixel", "0,0=1,2,3", path("b.png")});
  const Image b = load("b.png");
  EXPECT_EQ(0x30, b.row(4)[9]);  // blue of pixel 3
  EXPECT_EQ(0x10, b.row(4)[11]);
  EXPECT_EQ(3, b.row(0)[0]);
  EXPECT_EQ(1, b.row(0)[2]);
}

TEST_F(CliProgram, ReduceWithEachPaletteChoice) {
  save("a.png", random_image(24, 1, {}, 5, 40, 30));
  Outcome r = ok({path("a.png"), "--reduce", "1", "--dither", "fs", "--palette", "fixed", path("b.pbm")});
  EXPECT_EQ(40, load("b.pbm").width);
  r = ok({path("a.png"), "--reduce", "4", path("c.bmp")});
  EXPECT_EQ(4, load("c.bmp").bits);
  // A palette taken from a file is used as given.
  save("pal.png", random_image(2, 0, random_colours(4, 77), 1));
  r = ok({path("a.png"), "--reduce", "2", "--palette", path("pal.png"), path("d.png")});
  const Image d = load("d.png");
  const auto want = random_colours(4, 77);
  for (size_t i = 0; i < 4 && i < d.palette.size(); ++i) EXPECT_EQ(want[i].r, d.palette[i].r);
  EXPECT_EQ(2, run({path("a.png"), "--reduce", "4", "--palette", "cube", path("e.png")}).status);
}

// Every gray reduction gives gray entries only; one bit gives black and
// white, from the gray levels, unless a palette is named; the default
// dithering is Floyd-Steinberg.
TEST_F(CliProgram, ReduceDefaultsGrayAndOneBit) {
  save("a.png", random_image(24, 1, {}, 21, 33, 17));
  for (const char* arg : {"8:gray", "4:gray", "2:grey", "1:gray"}) {
    ASSERT_EQ(0, run({path("a.png"), "--reduce", arg, path("g.png")}).status) << arg;
    const Image g = load("g.png");
    EXPECT_EQ(std::atoi(arg), g.bits) << arg;
    for (const Colour& c : g.palette) EXPECT_TRUE(c.r == c.g && c.g == c.b) << arg;
  }
  ASSERT_EQ(0, run({path("a.png"), "--reduce", "1", path("bw.png")}).status);
  const Image bw = load("bw.png");
  ASSERT_EQ(2u, bw.palette.size());
  EXPECT_EQ(255, bw.palette[0].r ^ bw.palette[1].r);
  EXPECT_EQ(255, bw.palette[0].b ^ bw.palette[1].b);
  // Error diffusion to black and white dithers the gray levels.
  ASSERT_EQ(0, run({path("a.png"), "--gray", "8", "--reduce", "1", path("gbw.png")}).status);
  EXPECT_EQ(vkimg::read_file(path("gbw.png")), vkimg::read_file(path("bw.png")));
  // An asked-for palette is kept at one bit.
  save("pal.png", random_image(1, 0, {{10, 200, 30, 0}, {90, 20, 250, 0}}, 1));
  ASSERT_EQ(0, run({path("a.png"), "--reduce", "1", "--palette", path("pal.png"), path("p.png")}).status);
  EXPECT_EQ(200, load("p.png").palette[0].g);
  EXPECT_EQ(2, run({path("a.png"), "--reduce", "4:gray", "--palette", "fixed", path("x.png")}).status);

  ASSERT_EQ(0, run({path("a.png"), "--reduce", "4", path("default.png")}).status);
  ASSERT_EQ(0, run({path("a.png"), "--reduce", "4", "--dither", "fs", path("fs.png")}).status);
  ASSERT_EQ(0, run({path("a.png"), "--reduce", "4", "--dither", "ordered", path("ordered.png")}).status);
  EXPECT_EQ(vkimg::read_file(path("fs.png")), vkimg::read_file(path("default.png")));
  EXPECT_NE(vkimg::read_file(path("ordered.png")), vkimg::read_file(path("default.png")));
}

TEST_F(CliProgram, DirectoryAsInputNamesIt) {
  fs::create_directories(path("folder.png"));
  const Outcome r = run({path("folder.png"), path("out.png")});
  EXPECT_EQ(1, r.status);
  EXPECT_NE(std::string::npos, r.err.find(path("folder.png") + ": is a directory")) << r.err;
  EXPECT_EQ(std::string::npos, r.err.find("basic_")) << r.err;
}

TEST_F(CliProgram, CompressedStorageKeepsThePixels) {
  const Image bw = random_image(1, 0, {{255, 255, 255, 0}, {0, 0, 0, 0}}, 12, 70, 9);
  save("a.pbm", bw);
  Outcome r = ok({path("a.pbm"), "--compress", "--info", path("b.pbm")});
  EXPECT_NE(std::string::npos, r.out.find("compressed")) << r.out;
  expect_same(bw, load("b.pbm"), "compressed storage");
  r = ok({path("a.pbm"), "--compress", "--decompress", "--info", path("c.pbm")});
  EXPECT_EQ(std::string::npos, r.out.find("compressed")) << r.out;
  expect_same(bw, load("c.pbm"), "compressed and back");
  save("c.png", random_image(24, 1, {}, 1));
  EXPECT_EQ(2, run({path("c.png"), "--compress", path("x.png")}).status) << "only 1-bit images compress";
}

TEST_F(CliProgram, ConvertThereAndBack) {
  const Image a = random_image(24, 1, {}, 13, 17, 6);
  save("a.png", a);
  Outcome r = ok({path("a.png"), "--convert", "48", "--convert", "24:rgb", path("b.png")});
  expect_same(a, load("b.png"), "24 -> 48 -> 24 keeps the pixels");
  r = ok({path("a.png"), "--convert", "8:gray", path("c.pgm")});
  const Image c = load("c.pgm");
  // Gray level (5 g + 2 r + b + 4) / 8 of pixel 0 (stored blue, green, red).
  const uint8_t* p = a.row(0);
  EXPECT_EQ((5 * p[1] + 2 * p[2] + p[0] + 4) / 8, int(c.index_at(0, 0)));
  r = ok({path("a.png"), "--convert", "4", path("d.bmp")});
  EXPECT_EQ(4, load("d.bmp").bits);
  EXPECT_EQ(2, run({path("a.png"), "--convert", "12:rgb", path("x.png")}).status);
}

TEST_F(CliProgram, StorageMovesThePixelsAndHeightKeepsTheTopRows) {
  const Image a = random_image(24, 1, {}, 9, 30, 20);
  save("a.png", a);
  Outcome r = ok({path("a.png"), "--storage", "128", "--info", "--storage", "1", path("b.png")});
  EXPECT_NE(std::string::npos, r.out.find("temp file on disk")) << r.out;
  expect_same(a, load("b.png"), "disk storage and back");
  r = ok({path("a.png"), "--height", "5", path("c.png")});
  const Image c = load("c.png");
  ASSERT_EQ(5, c.height);
  for (int y = 0; y < 5; ++y) EXPECT_EQ(0, std::memcmp(a.row(y), c.row(y), 90)) << "row " << y;
}

// Outputs of --list never replace an input; inputs of one name from two
// folders get numbered outputs.
TEST_F(CliProgram, ListKeepsInputsAndNumbersSameNames) {
  fs::create_directories(path("one"));
  fs::create_directories(path("two"));
  save("one/a.png", random_image(24, 1, {}, 6, 20, 10));
  save("two/a.png", random_image(24, 1, {}, 7, 12, 14));
  const auto before = vkimg::read_file(path("one/a.png"));
  Outcome r = run({"--list", path("one/a.png"), path("two/a.png"), "--reduce", "8", "-o", path("one")});
  EXPECT_EQ(2, r.status);
  EXPECT_NE(std::string::npos, r.err.find("would overwrite the input")) << r.err;
  EXPECT_EQ(before, vkimg::read_file(path("one/a.png")));
  r = ok({"--list", path("one/a.png"), path("two/a.png"), "--reduce", "8", "-o", path("out")});
  EXPECT_EQ(20, vkimg::read_image(path("out/a.png")).width);
  EXPECT_EQ(12, vkimg::read_image(path("out/a-2.png")).width);
}

// Ctrl-C stops the library's status callback (--reduce), the program's own
// row loop (--convert), loading and saving; the test raises SIGINT from
// inside the run at the step named.  The output is written under another
// name and renamed at the end: a cancelled run leaves no file, and an
// existing one untouched.
// A lone --reduce to a palette fixed in advance, or --gray 8, runs row by
// row as the file is read, and any other --reduce at the end hands its rows
// straight to the output; either way the file is byte for byte that of the
// whole-bitmap path (here forced by a pair of flips after it) for each kind
// of palette, dithering and source.  Ctrl-C while it runs leaves no output.
TEST_F(CliProgram, StreamedStepsMatchTheWholeBitmap) {
  save("rgb.ppm", random_image(24, vkimg::kOrderRgb, {}, 61, 203, 57));
  save("bgr.bmp", random_image(24, vkimg::kOrderBgr, {}, 64, 37, 19));
  save("deep.png", random_image(48, vkimg::kOrderRgb, {}, 65, 21, 9));
  save("gray.pgm", random_image(8, 0, gray_colours(8), 62, 190, 41));
  save("pal.png", random_image(8, 0, random_colours(256, 9), 63, 77, 31));
  save("four.png", random_image(2, 0, random_colours(4, 77), 1));
  struct Case {
    const char* input;
    std::vector<std::string> args;
    const char* output;
  };
  const Case cases[] = {
      {"rgb.ppm", {"--reduce", "1"}, "o.pbm"},
      {"rgb.ppm", {"--reduce", "1", "--dither", "ordered"}, "o.pbm"},
      {"bgr.bmp", {"--reduce", "1:gray", "--dither", "sierra"}, "o.pbm"},
      {"rgb.ppm", {"--reduce", "4", "--palette", "fixed", "--dither", "stucki"}, "o.png"},
      {"rgb.ppm", {"--reduce", "8", "--palette", "cube", "--dither", "ordered"}, "o.png"},
      {"rgb.ppm", {"--reduce", "2:gray"}, "o.tif"},
      {"rgb.ppm", {"--reduce", "2", "--palette", path("four.png"), "--dither", "burkes"}, "o.png"},
      {"gray.pgm", {"--reduce", "1", "--dither", "clustered"}, "o.pbm"},
      {"pal.png", {"--reduce", "1"}, "o.png"},
      {"rgb.ppm", {"--gray", "8"}, "o.pgm"},
      {"bgr.bmp", {"--gray", "8"}, "o.png"},
      {"deep.png", {"--gray", "8"}, "o.pgm"},
      {"rgb.ppm", {"--reduce", "8"}, "o.png"},
      {"rgb.ppm", {"--reduce", "4", "--palette", "optimised", "--dither", "none"}, "o.tif"},
      {"deep.png", {"--mirror", "--reduce", "3"}, "o.ppm"},
      {"rgb.ppm", {"--rotate", "90", "--reduce", "2"}, "o.png"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> streamed{path(c.input)}, whole{path(c.input)};
    streamed.insert(streamed.end(), c.args.begin(), c.args.end());
    whole.insert(whole.end(), c.args.begin(), c.args.end());
    streamed.push_back(path(std::string("s-") + c.output));
    whole.insert(whole.end(), {"--flip", "--flip", path(std::string("w-") + c.output)});
    const Outcome a = run(streamed), b = run(whole);
    ASSERT_EQ(0, a.status) << c.args[1] << ": " << a.err;
    ASSERT_EQ(0, b.status) << c.args[1] << ": " << b.err;
    EXPECT_EQ(vkimg::read_file(path(std::string("w-") + c.output)), vkimg::read_file(path(std::string("s-") + c.output)))
        << c.input << " " << c.args[0] << " " << c.args[1];
  }
  const Outcome r = run({path("rgb.ppm"), "--reduce", "1", path("c.pbm")}, "VKIMG_TEST_INTERRUPT_AT=converting:40");
  EXPECT_EQ(130, r.status) << r.err;
  EXPECT_FALSE(fs::exists(path("c.pbm")));
}

// --resize sizes: pixels, a share of a side, one share for both, 0 for the
// aspect ratio.
TEST_F(CliProgram, ResizeTakesSidesAndShares) {
  save("a.png", random_image(24, 1, {}, 71, 40, 20));
  const struct {
    const char* arg;
    int w, h;
  } cases[] = {{"50%", 20, 10}, {"0x10:average", 20, 10}, {"200%x50%:smooth", 80, 10}, {"7x3", 7, 3}};
  for (const auto& c : cases) {
    const Outcome r = run({path("a.png"), "--resize", c.arg, path("b.png")});
    ASSERT_EQ(0, r.status) << c.arg << ": " << r.err;
    const Image b = load("b.png");
    EXPECT_EQ(c.w, b.width) << c.arg;
    EXPECT_EQ(c.h, b.height) << c.arg;
  }
  EXPECT_EQ(2, run({path("a.png"), "--resize", "50", path("b.png")}).status);
}

TEST_F(CliProgram, CtrlCCancelsAndExitsWith130LeavingNoOutput) {
  // 3 MB: several blocks of rows for loading and saving.
  save("a.bmp", random_image(24, 1, {}, 8, 1000, 1000));
  for (const char* at : {"--reduce:50", "--convert:50", "loading:30", "saving:30"}) {
    // (--gray 16 keeps a whole bitmap to load and save; --gray 8 would stream.)
    const bool named = std::string(at).rfind("--", 0) == 0;
    const std::string op = named ? std::string(at, std::strchr(at, ':')) : "--gray";
    const Outcome r = run({path("a.bmp"), op, named ? "8" : "16", path("b.png")},
                          std::string("VKIMG_TEST_INTERRUPT_AT=") + at);
    EXPECT_EQ(130, r.status) << at << ": " << r.err;
    EXPECT_NE(std::string::npos, r.err.find("cancelled")) << r.err;
    EXPECT_FALSE(fs::exists(path("b.png"))) << at;
  }
  vkimg::write_file(path("keep.ppm"), {'o', 'l', 'd'});
  const Outcome r = run({path("a.bmp"), path("keep.ppm")}, "VKIMG_TEST_INTERRUPT_AT=saving:30");
  EXPECT_EQ(130, r.status) << r.err;
  EXPECT_EQ((std::vector<uint8_t>{'o', 'l', 'd'}), vkimg::read_file(path("keep.ppm")));
  for (const auto& entry : fs::directory_iterator(dir_))
    EXPECT_EQ(std::string::npos, entry.path().filename().string().find(".vkimg-")) << entry.path();
}

// A real Ctrl-C while the program waits for input that never comes (a pipe
// on standard input) ends it with 130 too, and nothing is written.
TEST_F(CliProgram, CtrlCWhileWaitingForInput) {
  const std::string fifo = path("in.fifo");
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const std::string cmd = "exec " + quote(program()) + " - " + quote(path("out.ppm")) + " <" + quote(fifo) +
                            " 2>" + quote(path("err.txt"));
    execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  const int fd = open(fifo.c_str(), O_WRONLY);  // waits for the program to open its end
  ASSERT_GE(fd, 0);
  const std::string header = "P6\n100 100\n255\n";
  ASSERT_EQ(ssize_t(header.size()), write(fd, header.data(), header.size()));
  // The shell opens the pipe before the program starts: wait until the
  // program has read the header (its handler is in place by then), so a
  // slow start (sanitizers) does not take the signal before the handler.
  for (int waited = 0, unread = 1; unread > 0 && waited < 2000; ++waited) {
    ASSERT_EQ(0, ioctl(fd, FIONREAD, &unread));
    if (unread > 0) usleep(10 * 1000);
  }
  usleep(100 * 1000);
  kill(child, SIGINT);
  int status = 0;
  waitpid(child, &status, 0);
  close(fd);
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(130, WEXITSTATUS(status)) << slurp(path("err.txt"));
  EXPECT_NE(std::string::npos, slurp(path("err.txt")).find("cancelled"));
  EXPECT_FALSE(fs::exists(path("out.ppm")));
}

TEST_F(CliProgram, DemoWritesTheDefaultPictureAndResults) {
  const Outcome r = ok({"--demo", path("demo"), "--demo-size", "48x32"});
  EXPECT_EQ("", r.err);
  const Image img = vkimg::read_image(path("demo/default.png"));
  EXPECT_EQ(48, img.width);
  EXPECT_EQ(24, img.bits);
  // Every operation runs: each writes its file.
  std::vector<std::string> outputs = {
      "gray-8.png",        "gray-16.png",        "convert-8-gray.png",     "convert-8-fixed.png",
      "convert-4-fixed.bmp", "convert-16-555.bmp", "convert-48.png",       "reduce-8-optimised.png",
      "reduce-8-fixed.png", "reduce-8-cube.png",  "reduce-4-optimised.png", "reduce-4-fixed.png",
      "compressed-1.pbm",  "storage-disk.png",   "height-half.png",        "put-pixel.png",
      "list-0.png",        "list-1.png",         "list-2.png",             "report.txt",
      "flip.png",          "mirror.png",         "rotate-90.png",          "rotate-180.png",
      "rotate-270.png",    "view-perspective-5.png", "crop.png",      "trim.png",         "shear-30.png",
      "resize-nearest.png", "resize-smooth.png", "resize-average.png",   "resize-density.pbm"};
  for (const char* m : {"none", "floyd-steinberg", "stucki", "burkes", "sierra", "stevenson-arce", "jarvis", "ordered",
                        "clustered"})
    outputs.push_back(std::string("reduce-1-") + m + ".png");
  for (const std::string& o : outputs) EXPECT_TRUE(fs::exists(path("demo/" + o))) << o;
  EXPECT_EQ(16, vkimg::read_image(path("demo/height-half.png")).height);
  EXPECT_EQ(48, vkimg::read_image(path("demo/rotate-90.png")).height);
  EXPECT_EQ(66, vkimg::read_image(path("demo/shear-30.png")).width);  // 48 + 8192 x 32 / 14189
  EXPECT_EQ(40, vkimg::read_image(path("demo/crop.png")).width);
  EXPECT_EQ(40, vkimg::read_image(path("demo/trim.png")).width);
  EXPECT_EQ(192, vkimg::read_image(path("demo/resize-smooth.png")).width);  // the 48-pixel trim, 400 %
  EXPECT_EQ(8, vkimg::read_image(path("demo/resize-average.png")).height);
  EXPECT_EQ(28, vkimg::read_image(path("demo/trim.png")).height);
  EXPECT_EQ(vkimg::read_image(path("demo/view-perspective-5.png")).data, img.data);
  // The default picture is the same every time.
  ASSERT_EQ(0, run({"--demo", path("again"), "--demo-size", "48x32"}).status);
  EXPECT_EQ(vkimg::read_file(path("demo/default.png")), vkimg::read_file(path("again/default.png")));
}

// The demo's run-length storage works on its document page, where it pays.
TEST_F(CliProgram, DemoCompressesADocumentPage) {
  ASSERT_EQ(0, run({"--demo", path("demo"), "--demo-size", "640x480"}).status);
  const std::string report = slurp(path("demo/report.txt"));
  const size_t at = report.find("== compressed-1.pbm");
  ASSERT_NE(std::string::npos, at);
  auto bytes_after = [&](const char* kind, size_t from) {
    const size_t k = report.find(kind, from);
    return k == std::string::npos ? 0 : std::stoul(report.substr(k + std::strlen(kind)));
  };
  const unsigned long plain = bytes_after("storage: memory, ", at);
  const unsigned long packed = bytes_after("storage: compressed 1-bit rows, ", at);
  ASSERT_GT(plain, 0u);
  ASSERT_GT(packed, 0u);
  EXPECT_LT(packed * 4, plain * 3) << report.substr(at, 600);
}

}  // namespace

#endif  // VKIMG_HAVE_TOOL
