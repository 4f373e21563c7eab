// test_dib.cpp - device-independent bitmaps: the header forms, colour
// masks, video frames, refused blocks, resolutions, round trips for every
// depth and view perspective, and the fault sweeps of the six calls.
#include <climits>

#include "color_helpers.h"
#include "orient_helpers.h"
#include "vkkrn_platform.h"

namespace {

using vkt::OrientTest;
using vkt::Store;

constexpr uint32_t kFourcc(const char (&s)[5]) {
  return uint32_t(uint8_t(s[0])) | uint32_t(uint8_t(s[1])) << 8 | uint32_t(uint8_t(s[2])) << 16 |
         uint32_t(uint8_t(s[3])) << 24;
}

void put16(std::vector<uint8_t>& v, size_t at, uint32_t x) {
  v[at] = uint8_t(x);
  v[at + 1] = uint8_t(x >> 8);
}
void put32(std::vector<uint8_t>& v, size_t at, uint32_t x) {
  put16(v, at, x & 0xFFFF);
  put16(v, at + 2, x >> 16);
}
uint32_t get32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }

// A DIB as bytes: header (12 bytes with 16-bit fields, else `header` bytes
// of the 40-byte form), what follows it (palette or masks), the rows.
struct DibShape {
  uint32_t header = 40;
  int32_t width = 0, height = 0;
  uint32_t planes = 1, bits = 8, compression = 0;
  int32_t ppm = 2835;
  uint32_t used = 0;
};
std::vector<uint8_t> dib_bytes(const DibShape& s, const std::vector<uint8_t>& table, const std::vector<uint8_t>& rows) {
  std::vector<uint8_t> v(s.header == 12 ? 12 : std::max<uint32_t>(s.header, 40), 0);
  put32(v, 0, s.header);
  if (s.header == 12) {
    put16(v, 4, uint32_t(s.width));
    put16(v, 6, uint32_t(s.height));
    put16(v, 8, s.planes);
    put16(v, 10, s.bits);
  } else {
    put32(v, 4, uint32_t(s.width));
    put32(v, 8, uint32_t(s.height));
    put16(v, 12, s.planes);
    put16(v, 14, s.bits);
    put32(v, 16, s.compression);
    put32(v, 24, uint32_t(s.ppm));
    put32(v, 28, uint32_t(s.ppm));
    put32(v, 32, s.used);
  }
  v.insert(v.end(), table.begin(), table.end());
  v.insert(v.end(), rows.begin(), rows.end());
  return v;
}
std::vector<uint8_t> masks(uint32_t r, uint32_t g, uint32_t b) {
  std::vector<uint8_t> v(12);
  put32(v, 0, r);
  put32(v, 4, g);
  put32(v, 8, b);
  return v;
}

VK_HGLOBAL block_of(const std::vector<uint8_t>& bytes) {
  VK_HGLOBAL h = VKP_GlobalAlloc(VKP_GMEM_MOVEABLE, bytes.size());
  std::memcpy(VKP_GlobalLock(h), bytes.data(), bytes.size());
  VKP_GlobalUnlock(h);
  return h;
}
std::vector<uint8_t> bytes_of(VK_HGLOBAL h) {
  const auto* p = static_cast<const uint8_t*>(VKP_GlobalLock(h));
  std::vector<uint8_t> v(p, p + VKP_GlobalSize(h));
  VKP_GlobalUnlock(h);
  return v;
}

// Every stored row of a bitmap, or its pixels without row padding (storage
// need not keep it); global-memory storage is locked to read.
std::vector<uint8_t> locked_read(BitmapHandle* b, std::vector<uint8_t> (*read)(BitmapHandle*)) {
  const int32_t was = V_LockBitmap(b);
  std::vector<uint8_t> v = read(b);
  V_UnlockBitmap(b, was);
  return v;
}
std::vector<uint8_t> rows_of(BitmapHandle* b) { return locked_read(b, vkt::read_pixels); }
std::vector<uint8_t> pixels_of(BitmapHandle* b) { return locked_read(b, vkt::Snapshot::pixels); }

class DibTest : public OrientTest {};

// ---- reading -------------------------------------------------------------------------

TEST_F(DibTest, HeaderFormsPaletteAndOrientation) {
  // 4 bits, colours used 0: 16 entries of 3 (core) or 4 bytes.
  struct Case { uint32_t header; int32_t height; } cases[] = {{12, 3}, {40, 3}, {40, -3}, {64, 3}, {108, -3}, {124, 3}};
  const std::vector<uint8_t> rows = {0x12, 0x30, 0, 0, 0x45, 0x60, 0, 0, 0x78, 0x90, 0, 0};
  for (const Case& c : cases) {
    for (bool mirror : {false, true}) {
      SCOPED_TRACE("header " + std::to_string(c.header) + " height " + std::to_string(c.height) +
                   (mirror ? " mirror" : " change"));
      const size_t entry = c.header == 12 ? 3 : 4;
      std::vector<uint8_t> table(16 * entry);
      for (size_t i = 0; i < table.size(); ++i) table[i] = uint8_t(i * 5 + 1);
      DibShape s{c.header, 3, c.height, 1, 4};
      VK_HGLOBAL block = block_of(dib_bytes(s, table, rows));
      BitmapHandle b;
      ASSERT_EQ((mirror ? V_MirrorFromDIB : V_ChangeFromDIB)(&b, block), RESULT_OK);
      EXPECT_EQ(b.Width, 3);
      EXPECT_EQ(b.Height, 3);
      EXPECT_EQ(b.BitsPerPixel, 4);
      EXPECT_EQ(b.Order, ORDER_RGB);
      EXPECT_EQ(b.ViewPerspective, c.height > 0 ? 2 : 0);
      EXPECT_EQ(b.ColorCount, 16u);
      EXPECT_EQ(b.StorageHandle, block);
      EXPECT_EQ(b.AlignOffset, std::max<uint32_t>(c.header, c.header == 12 ? 12 : 40) + table.size());
      EXPECT_EQ(b.Flags & (BITMAP_GLOBAL_MEMORY | BITMAP_IN_MEMORY | BITMAP_ALLOCATED | BITMAP_USER_DATA),
                BITMAP_GLOBAL_MEMORY | BITMAP_IN_MEMORY | BITMAP_ALLOCATED | (mirror ? BITMAP_USER_DATA : 0u));
      if (c.header != 12) EXPECT_EQ(b.XResolution, 72);
      RGBQUAD pal[16];
      ASSERT_EQ(V_GetBitmapPaletteEntries(&b, 0, 16, pal), 16);
      for (size_t i = 0; i < 16; ++i) {
        EXPECT_EQ(pal[i].rgbBlue, table[i * entry]);
        EXPECT_EQ(pal[i].rgbRed, table[i * entry + 2]);
      }
      EXPECT_EQ(rows_of(&b), rows);
      EXPECT_EQ(b.PaintLut[200], 200);
      V_FreeBitmap(&b);
      if (mirror) EXPECT_EQ(VKP_GlobalFree(block), nullptr);  // still the caller's
    }
  }
}

// 16-bit masks: the plain layout, the customary 5-6-5 masks (general path)
// and 0x8E00 (fast path) end in the same 5-5-5 pixels; narrow fields widen.
// Odd width: the padding pixel is rewritten too, never beyond the row.
TEST_F(DibTest, ColourMasks) {
  struct Case { uint32_t bits, r, g, b; std::vector<uint8_t> in, out; int32_t order; };
  const std::vector<uint8_t> in565 = {0xFF, 0xFF, 0x00, 0xF8, 0xE0, 0x07, 0x1F, 0x00, 0x10, 0x84, 0, 0};
  const std::vector<uint8_t> out555 = {0xFF, 0x7F, 0x00, 0x7C, 0xE0, 0x03, 0x1F, 0x00, 0x10, 0x42, 0, 0};
  const std::vector<uint8_t> plain16 = {0xFF, 0x7F, 0x34, 0x12, 0, 0, 1, 0, 2, 0, 0, 0};
  const std::vector<uint8_t> b32 = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
  const Case cases[] = {
      {16, 0x7C00, 0x3E0, 0x1F, plain16, plain16, ORDER_BGR},
      {16, 0xF800, 0x7E0, 0x1F, in565, out555, ORDER_BGR},
      {16, 0x8E00, 0x7E0, 0x1F, in565, out555, ORDER_BGR},
      // 4-4-4: 15 -> 31, 8 -> 16, 4 -> 8.
      {16, 0xF00, 0xF0, 0xF, {0x84, 0x0F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {0x08, 0x7E, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
       ORDER_BGR},
      {32, 0xFF0000, 0xFF00, 0xFF, b32, b32, ORDER_BGR},
      {32, 0xFF, 0xFF00, 0xFF0000, b32, b32, ORDER_RGB},
      // 10-10-10 takes the top 8 bits; 4-4-4 widens 15 -> 255, 8 -> 136, 4 -> 68.
      {32, 0x3FF00000, 0xFFC00, 0x3FF, {0x01, 0x00, 0xF8, 0x3F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
       {0x00, 0x80, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, ORDER_BGR},
      {32, 0xF00, 0xF0, 0xF, {0x84, 0x0F, 0, 0xEE, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
       {68, 136, 255, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, ORDER_BGR},
  };
  for (const Case& c : cases) {
    for (int way = 0; way < 3; ++way) {
      SCOPED_TRACE(std::to_string(c.bits) + " bits, red mask " + std::to_string(c.r) + ", way " +
                   std::to_string(way));
      // 16 bits: 5 pixels in 12-byte rows (one padding pixel); 32 bits: 5 pixels.
      DibShape s{40, 5, 1, 1, c.bits, 3};
      const std::vector<uint8_t> bytes = dib_bytes(s, masks(c.r, c.g, c.b), c.in);
      VK_HGLOBAL block = block_of(bytes);
      BitmapHandle b;
      const int32_t r = way == 0   ? V_ChangeFromDIB(&b, block)
                        : way == 1 ? V_MirrorFromDIB(&b, block)
                                   : V_ConvertFromDIB(&b, bytes.data(), bytes.data() + 52);
      ASSERT_EQ(r, RESULT_OK);
      EXPECT_EQ(b.Order, c.order);
      std::vector<uint8_t> got = rows_of(&b);
      if (way != 0 && c.bits == 16) std::fill(got.end() - 2, got.end(), 0);  // copies leave padding as read
      if (way == 0 || c.bits == 32) EXPECT_EQ(got, c.out);
      else EXPECT_TRUE(std::equal(c.out.begin(), c.out.end() - 2, got.begin()));
      if (way == 1) EXPECT_EQ(bytes_of(block), bytes) << "the caller's block was written";
      V_FreeBitmap(&b);
      if (way != 0) VKP_GlobalFree(block);
    }
  }
}

// Each video layout of the same 2 x 2 frame: luma 16, 235 / 126, 81 with
// chroma U 100, V 150, against the BT.601 values worked out by hand.
TEST_F(DibTest, VideoCodesAgainstHandComputedBlock) {
  const uint8_t Y[4] = {16, 235, 126, 81}, U = 100, V = 150;
  const std::vector<uint8_t> want = {0, 0, 35, 198, 248, 255, 0, 0, 72, 121, 163, 19, 69, 111, 0, 0};
  struct Case { const char* code; std::vector<uint8_t> frame; } cases[] = {
      {"I420", {Y[0], Y[1], Y[2], Y[3], U, V}},
      {"IYUV", {Y[0], Y[1], Y[2], Y[3], U, V}},
      {"YV12", {Y[0], Y[1], Y[2], Y[3], V, U}},
      {"YVU9", {Y[0], Y[1], Y[2], Y[3], V, U}},
      {"NV12", {Y[0], Y[1], Y[2], Y[3], U, V}},
      {"YUY2", {Y[0], U, Y[1], V, Y[2], U, Y[3], V}},
      {"UYVY", {U, Y[0], V, Y[1], U, Y[2], V, Y[3]}},
      {"YVYU", {Y[0], V, Y[1], U, Y[2], V, Y[3], U}},
  };
  for (const Case& c : cases) {
    for (int32_t height : {2, -2}) {
      SCOPED_TRACE(std::string(c.code) + " height " + std::to_string(height));
      DibShape s{40, 2, height, 1, 16, kFourcc(*reinterpret_cast<const char(*)[5]>(c.code))};
      const std::vector<uint8_t> bytes = dib_bytes(s, {}, c.frame);
      BitmapHandle b;
      ASSERT_EQ(V_ConvertFromDIB(&b, bytes.data(), bytes.data() + 40), RESULT_OK);
      EXPECT_EQ(b.BitsPerPixel, 24);
      EXPECT_EQ(b.Order, ORDER_BGR);
      EXPECT_EQ(b.ViewPerspective, 0);
      EXPECT_EQ(rows_of(&b), want);
      V_FreeBitmap(&b);
    }
  }
}

// Blocks that lie: each is refused with its code, the block is kept as it
// was, the record untouched, nothing allocated.
TEST_F(DibTest, MalformedBlocksAreRefused) {
  const std::vector<uint8_t> two_entries(8, 0x40), rows(8, 0x11);  // 4 x 2, 8 bits
  auto with = [](auto change) { DibShape s{40, 4, 2, 1, 8, 0, 2835, 2}; change(s); return s; };
  // cut: bytes removed from the end.
  struct Case { const char* name; DibShape shape; size_t cut; int32_t code; } cases[] = {
      {"width 0", with([](DibShape& s) { s.width = 0; }), 0, RESULT_BAD_PARAMETER},
      {"height 0", with([](DibShape& s) { s.height = 0; }), 0, RESULT_BAD_PARAMETER},
      {"negative width", with([](DibShape& s) { s.width = -4; }), 0, RESULT_BAD_PARAMETER},
      {"height INT_MIN", with([](DibShape& s) { s.height = INT_MIN; }), 0, RESULT_BAD_PARAMETER},
      {"header larger than block", with([](DibShape& s) { s.header = 4096; }), 4056, RESULT_BAD_FORMAT},
      {"header of 20 bytes", with([](DibShape& s) { s.header = 20; }), 0, RESULT_BAD_FORMAT},
      {"palette above 256", with([](DibShape& s) { s.used = 300; }), 0, RESULT_BAD_FORMAT},
      {"palette beyond block", with([](DibShape& s) { s.used = 200; }), 0, RESULT_BAD_FORMAT},
      {"rows beyond block", with([](DibShape&) {}), 1, RESULT_BAD_FORMAT},
      {"tall", with([](DibShape& s) { s.height = 1000000; }), 0, RESULT_BAD_FORMAT},
      {"absurd width", with([](DibShape& s) { s.width = INT_MAX, s.bits = 32, s.used = 0; }), 0, RESULT_BAD_FORMAT},
      {"planes 2", with([](DibShape& s) { s.planes = 2; }), 0, RESULT_BAD_FORMAT},
      {"run-length compression", with([](DibShape& s) { s.compression = 1; }), 0, RESULT_BAD_FORMAT},
      {"bit fields at 8 bits", with([](DibShape& s) { s.compression = 3, s.used = 0; }), 0, RESULT_BAD_FORMAT},
      {"2 bits", with([](DibShape& s) { s.bits = 2, s.used = 0; }), 0, RESULT_BAD_FORMAT},
      {"unknown four-character code", with([](DibShape& s) { s.compression = kFourcc("MJPG"); }), 0, RESULT_BAD_FORMAT},
      {"short video frame", with([](DibShape& s) { s.width = 64, s.compression = kFourcc("I420"); }), 0,
       RESULT_BAD_FORMAT},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<uint8_t> bytes = dib_bytes(c.shape, two_entries, rows);
    bytes.resize(bytes.size() - c.cut);
    VK_HGLOBAL block = block_of(bytes);
    const long live = vk::fault::live_total();
    for (auto call : {V_ChangeFromDIB, V_MirrorFromDIB}) {
      BitmapHandle b;
      std::memset(&b, 0xA5, sizeof b);
      const BitmapHandle before = b;
      EXPECT_EQ(call(&b, block), c.code);
      EXPECT_TRUE(vkt::same_record(b, before));
      EXPECT_EQ(vk::fault::live_total(), live);
      EXPECT_EQ(bytes_of(block), bytes);
    }
    VKP_GlobalFree(block);
  }
  BitmapHandle b;
  VK_HGLOBAL tiny = VKP_GlobalAlloc(VKP_GMEM_MOVEABLE | VKP_GMEM_ZEROINIT, 3);
  EXPECT_EQ(V_ChangeFromDIB(&b, tiny), RESULT_BAD_FORMAT);
  VKP_GlobalFree(tiny);
}

// ---- resolution -------------------------------------------------------------------------

TEST_F(DibTest, ResolutionBothWaysAndTheScreensForZero) {
  BitmapHandle b = make(Store::memory, 3, 2, 24);
  b.XResolution = 72;
  b.YResolution = 300;
  VK_HGLOBAL block = V_ConvertToDIB(&b);
  ASSERT_NE(block, nullptr);
  const std::vector<uint8_t> bytes = bytes_of(block);
  EXPECT_EQ(get32(&bytes[24]), 2835u);   // (72 * 10000 + 127) / 254
  EXPECT_EQ(get32(&bytes[28]), 11811u);  // 300 dpi
  BitmapHandle back;
  ASSERT_EQ(V_ChangeFromDIB(&back, block), RESULT_OK);
  EXPECT_EQ(back.XResolution, 72);
  EXPECT_EQ(back.YResolution, 300);
  V_FreeBitmap(&back);
  V_FreeBitmap(&b);

  // 0 pixels per metre: the screen's, 1000 px over 254 mm is 3937 per metre, 100 dpi.
  vk::plat::ScreenInfo screen = vk::plat::screen_info();
  screen.horz_res = 1000;
  screen.horz_size = 254;
  screen.vert_res = 500;
  screen.vert_size = 254;
  vk::plat::override_screen_info(&screen);
  DibShape s{40, 1, 1, 1, 24, 0, 0};
  const std::vector<uint8_t> zero = dib_bytes(s, {}, {1, 2, 3, 0});
  ASSERT_EQ(V_ConvertFromDIB(&back, zero.data(), zero.data() + 40), RESULT_OK);
  vk::plat::override_screen_info(nullptr);
  EXPECT_EQ(back.XResolution, 100);
  EXPECT_EQ(back.YResolution, 50);
  V_FreeBitmap(&back);
}

// ---- writing and round trips ------------------------------------------------------------

TEST_F(DibTest, HeaderTypes) {
  BitmapHandle b = make(Store::memory, 5, 3, 8);
  const std::vector<RGBQUAD> pal = vkt::random_palette(256, 3);
  V_CreateBitmapPalette(&b, pal.data(), 256);
  for (int32_t type : {0, 1, 2}) {
    VK_HGLOBAL block = V_ConvertToDIB2(&b, type);
    ASSERT_NE(block, nullptr);
    const std::vector<uint8_t> v = bytes_of(block);
    const uint32_t size = type == 0 ? 40 : type == 1 ? 108 : 124;
    EXPECT_EQ(get32(&v[0]), size);
    EXPECT_EQ(get32(&v[32]), 256u);  // colours used
    EXPECT_EQ(v.size(), size + 1024 + 8 * 3);
    for (size_t i = 40; i < size; i += 4) EXPECT_EQ(get32(&v[i]), i == 56 && type == 2 ? 0x73524742u : 0u) << i;
    VKP_GlobalFree(block);
  }
  EXPECT_EQ(V_ConvertToDIB2(&b, 3), nullptr);
  // Row padding comes out clean whatever the bitmap's rows hold there.
  BitmapHandle dirty = make(Store::memory, 5, 2, 24);
  std::vector<uint8_t> row(dirty.BytesPerLine, 0xA5);
  for (int32_t y = 0; y < 2; ++y) V_PutBitmapRow(&dirty, row.data(), y, int32_t(row.size()));
  VK_HGLOBAL padded = V_ConvertToDIB(&dirty);
  ASSERT_NE(padded, nullptr);
  const std::vector<uint8_t> pv = bytes_of(padded);
  for (size_t y = 0; y < 2; ++y) EXPECT_EQ(pv[40 + y * 16 + 15], 0) << y;
  VKP_GlobalFree(padded);
  V_FreeBitmap(&dirty);
  // Change frees the source once the block is made.
  VK_HGLOBAL block = V_ChangeToDIB(&b);
  ASSERT_NE(block, nullptr);
  EXPECT_FALSE(b.Flags & BITMAP_ALLOCATED);
  VKP_GlobalFree(block);
}

// Every depth (and order) in every view perspective goes out and comes back
// as the same picture seen in view perspective 2: pixel for pixel where the
// DIB holds the depth, else through the colour-resolution narrowing.
TEST_F(DibTest, RoundTripEveryDepthAndViewPerspective) {
  struct Depth { int32_t bits, order, back_bits; };
  Depth depths[] = {{1, 0, 1},  {2, 0, 4},  {3, 0, 4},  {4, 0, 4},  {5, 0, 8},  {6, 0, 8},  {7, 0, 8},
                {8, 0, 8},  {12, 2, 24}, {16, 1, 16}, {16, 0, 16}, {16, 2, 24}, {24, 1, 24}, {24, 0, 24},
                {32, 1, 32}, {32, 0, 32}, {48, 1, 24}, {64, 1, 32}};
  int n = 0;
  for (const Depth& d : depths) {
    for (int32_t vp : {0, 1, 2, 3, 4, 5, 7, 8}) {
      SCOPED_TRACE(std::to_string(d.bits) + " bits, order " + std::to_string(d.order) + ", view " +
                   std::to_string(vp));
      BitmapHandle src = make(Store::memory, 7, 5, d.bits, uint32_t(++n));
      src.Order = d.order;
      if (d.bits <= 8) {
        const std::vector<RGBQUAD> pal = vkt::random_palette(1 << d.bits, uint32_t(n));
        V_CreateBitmapPalette(&src, pal.data(), 1 << d.bits);
      }
      src.ViewPerspective = vp;
      const vkt::Snapshot before(&src);
      VK_HGLOBAL block = V_ConvertToDIB2(&src, n % 3);
      ASSERT_NE(block, nullptr);
      EXPECT_TRUE(before.unchanged());
      BitmapHandle back;
      ASSERT_EQ(V_ChangeFromDIB(&back, block), RESULT_OK);
      EXPECT_EQ(back.BitsPerPixel, d.back_bits);
      EXPECT_EQ(back.ViewPerspective, 2);

      // The expectation: the picture turned to 2, at the DIB's depth.
      BitmapHandle want;
      ASSERT_EQ(V_ChangeBitmapViewPerspective(&want, &src, 2), RESULT_OK);
      const bool resolved = d.back_bits > 8 && (d.back_bits != d.bits || d.order != ORDER_BGR);
      if (resolved)
        ASSERT_EQ(V_ColorResBitmap(&want, &want, d.back_bits, RESOLVE_BGR, nullptr, nullptr, 0, nullptr, 0),
                  RESULT_OK);
      ASSERT_EQ(back.Width, want.Width);
      ASSERT_EQ(back.Height, want.Height);
      if (d.back_bits == want.BitsPerPixel)
        EXPECT_EQ(pixels_of(&back), pixels_of(&want));
      for (int32_t y = 0; y < want.Height; ++y)
        for (int32_t x = 0; x < want.Width; ++x)
          ASSERT_EQ(V_GetPixelColor(&back, y, x), V_GetPixelColor(&want, y, x)) << x << "," << y;
      V_FreeBitmap(&want);
      V_FreeBitmap(&back);
      V_FreeBitmap(&src);
    }
  }
}

// ---- fault sweeps -------------------------------------------------------------------------

VKT_SWEEPS(V_ConvertToDIB2, V_ConvertToDIB, V_ChangeToDIB2, V_ChangeToDIB);
TEST_F(DibTest, FaultSweepToDib) {
  // RGB order and view 4: colour resolution, a turn, the block; 2 bits: widening.
  struct Case { int32_t bits, order, vp; } cases[] = {{24, ORDER_RGB, 4}, {2, ORDER_RGB, 2}, {32, ORDER_BGR, 0}};
  for (const Case& c : cases) {
    for (bool change : {false, true}) {
      SCOPED_TRACE(std::to_string(c.bits) + (change ? " change" : " convert"));
      vkt::sweep_kept(
          [&] {
            BitmapHandle b = make(Store::memory, 9, 4, c.bits);
            b.Order = c.order;
            b.ViewPerspective = c.vp;
            return b;
          },
          [&](BitmapHandle* b) {
            VK_HGLOBAL block = change ? V_ChangeToDIB2(b, 1) : V_ConvertToDIB2(b, 1);
            if (block) VKP_GlobalFree(block);
            return block ? int32_t{RESULT_OK} : int32_t{RESULT_FAIL};
          });
    }
  }
}

VKT_SWEEPS(V_ChangeFromDIB, V_MirrorFromDIB, V_ConvertFromDIB);
TEST_F(DibTest, FaultSweepFromDib) {
  // A palette and a paint table (8 bits), an in-place rewrite (5-6-5), a copy (video).
  std::vector<uint8_t> pal(16 * 4, 7);
  const struct {
    std::vector<uint8_t> bytes;
    size_t bits_at;
  } blocks[] = {
      {dib_bytes(DibShape{40, 3, 2, 1, 8, 0, 2835, 16}, pal, std::vector<uint8_t>(8, 3)), 104},
      {dib_bytes(DibShape{40, 3, 2, 1, 16, 3}, masks(0xF800, 0x7E0, 0x1F), std::vector<uint8_t>(16, 0xA7)), 52},
      {dib_bytes(DibShape{40, 2, 2, 1, 16, kFourcc("YUY2")}, {}, std::vector<uint8_t>(8, 0x80)), 40},
  };
  for (const auto& [bytes, bits_at] : blocks) {
    for (int way = 0; way < 3; ++way) {
      SCOPED_TRACE("way " + std::to_string(way));
      VK_HGLOBAL block = nullptr;
      BitmapHandle b, sentinel;
      std::memset(&sentinel, 0x5A, sizeof sentinel);
      vkt::fault_sweep(
          [&] {
            block = block_of(bytes);
            b = sentinel;
          },
          [&] {
            if (way == 2) {
              const auto* p = static_cast<const uint8_t*>(VKP_GlobalLock(block));
              const int32_t r = V_ConvertFromDIB(&b, p, p + bits_at);
              VKP_GlobalUnlock(block);
              return r;
            }
            return way == 0 ? V_ChangeFromDIB(&b, block) : V_MirrorFromDIB(&b, block);
          },
          [&](const vkt::SweepRun& run) {
            const bool taken = run.result == RESULT_OK && way == 0;
            if (run.result != RESULT_OK) {
              EXPECT_EQ(run.result, RESULT_FAIL);
              EXPECT_TRUE(vkt::same_record(b, sentinel));
              EXPECT_EQ(bytes_of(block), bytes);
            } else {
              V_FreeBitmap(&b);
            }
            if (!taken) VKP_GlobalFree(block);
          });
    }
  }
}

}  // namespace
