// image_io.cpp - PNG, binary PNM and BMP for the command-line program.
//
// Every reader checks each length and offset it takes from the file against
// the bytes it actually has, so a corrupt or truncated file ends in an
// IoError that names the file, never in a read past the buffer.
#include "image_io.h"

#include <png.h>

#include <algorithm>
#include <cctype>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace vkimg {
namespace {

[[noreturn]] void fail(const std::string& name, const std::string& what) {
  throw IoError(name + ": " + what);
}

uint16_t rd16le(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t rd32le(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
void wr16le(std::vector<uint8_t>& out, uint32_t v) {
  out.push_back(static_cast<uint8_t>(v));
  out.push_back(static_cast<uint8_t>(v >> 8));
}
void wr32le(std::vector<uint8_t>& out, uint32_t v) {
  wr16le(out, v & 0xFFFF);
  wr16le(out, v >> 16);
}

// Gray level of a colour on 8-bit channels, the library's formula.
int gray_level(int r, int g, int b) { return (5 * g + 2 * r + b + 4) / 8; }

std::vector<Colour> gray_ramp(int bits) {
  const int n = 1 << bits;
  std::vector<Colour> pal(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    const auto v = static_cast<uint8_t>(i * 255 / (n - 1));
    pal[static_cast<size_t>(i)] = Colour{v, v, v, 0};
  }
  return pal;
}

// In 64 bits: resolutions from a file may be anything a 32-bit field holds.
int dpi_from_ppm(uint32_t ppm) { return static_cast<int>((static_cast<uint64_t>(ppm) * 254 + 5000) / 10000); }
uint32_t ppm_from_dpi(int dpi) {
  if (dpi <= 0) return 0;
  const uint64_t ppm = (static_cast<uint64_t>(dpi) * 10000 + 127) / 254;
  return ppm > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(ppm);
}

// ---- generic pixel access, used where a format needs another layout ----

struct Rgba16 {
  uint16_t r, g, b, a;
};

Rgba16 pixel_rgba16(const Image& img, int x, int y) {
  const uint8_t* row = img.row(y);
  if (img.bits <= 8) {
    const uint32_t i = img.index_at(x, y);
    const Colour c = i < img.palette.size() ? img.palette[i] : Colour{};
    return {static_cast<uint16_t>(c.r * 257), static_cast<uint16_t>(c.g * 257),
            static_cast<uint16_t>(c.b * 257), 65535};
  }
  const bool bgr = img.order == kOrderBgr;
  switch (img.bits) {
    case 16: {
      const uint16_t w = rd16le(row + 2 * static_cast<size_t>(x));
      if (img.order == kOrderGray) return {w, w, w, 65535};
      auto widen = [](unsigned f) { return static_cast<uint16_t>(((f << 3) | (f >> 2)) * 257); };
      const unsigned hi = (w >> 10) & 31, mid = (w >> 5) & 31, lo = w & 31;
      return bgr ? Rgba16{widen(hi), widen(mid), widen(lo), 65535}
                 : Rgba16{widen(lo), widen(mid), widen(hi), 65535};
    }
    case 24:
    case 32: {
      const size_t n = img.bits / 8;
      const uint8_t* p = row + n * static_cast<size_t>(x);
      const uint16_t a = n == 4 ? static_cast<uint16_t>(p[3] * 257) : 65535;
      const uint8_t r = bgr ? p[2] : p[0], b = bgr ? p[0] : p[2];
      return {static_cast<uint16_t>(r * 257), static_cast<uint16_t>(p[1] * 257),
              static_cast<uint16_t>(b * 257), a};
    }
    case 48:
    case 64: {
      const size_t n = img.bits / 16;
      const uint8_t* p = row + 2 * n * static_cast<size_t>(x);
      const uint16_t c0 = rd16le(p), c1 = rd16le(p + 2), c2 = rd16le(p + 4);
      const uint16_t a = n == 4 ? rd16le(p + 6) : 65535;
      return bgr ? Rgba16{c2, c1, c0, a} : Rgba16{c0, c1, c2, a};
    }
    default:
      return {0, 0, 0, 65535};
  }
}

bool has_alpha_bits(const Image& img) { return img.bits == 32 || img.bits == 64; }

// A 32- or 64-bit picture whose fourth channel is zero everywhere carries no
// alpha: row conversion writes that channel as 0.  Such pictures are saved
// without alpha rather than as fully transparent.
bool alpha_is_used(const Image& img) {
  if (!has_alpha_bits(img)) return false;
  const size_t n = img.bits / 8;
  for (int y = 0; y < img.height; ++y) {
    const uint8_t* row = img.row(y);
    for (int x = 0; x < img.width; ++x) {
      const uint8_t* p = row + n * static_cast<size_t>(x);
      if (n == 4 ? p[3] != 0 : (p[6] | p[7]) != 0) return true;
    }
  }
  return false;
}

// A new picture of another true-colour depth (24, 32, 48 or 64 bits, order 1).
Image to_truecolour(const Image& src, int bits) {
  Image out;
  out.allocate(src.width, src.height, bits, kOrderBgr);
  out.xdpi = src.xdpi;
  out.ydpi = src.ydpi;
  for (int y = 0; y < src.height; ++y) {
    uint8_t* d = out.row(y);
    for (int x = 0; x < src.width; ++x) {
      const Rgba16 c = pixel_rgba16(src, x, y);
      switch (bits) {
        case 24: *d++ = c.b >> 8; *d++ = c.g >> 8; *d++ = c.r >> 8; break;
        case 32: *d++ = c.b >> 8; *d++ = c.g >> 8; *d++ = c.r >> 8; *d++ = c.a >> 8; break;
        default: {
          const uint16_t ch[4] = {c.b, c.g, c.r, c.a};
          for (int i = 0; i < bits / 16; ++i) {
            *d++ = static_cast<uint8_t>(ch[i]);
            *d++ = static_cast<uint8_t>(ch[i] >> 8);
          }
          break;
        }
      }
    }
  }
  return out;
}

// Palette indices repacked to another depth (values must fit).
Image repack_indices(const Image& src, int bits) {
  Image out;
  out.allocate(src.width, src.height, bits, src.order);
  out.palette = src.palette;
  out.xdpi = src.xdpi;
  out.ydpi = src.ydpi;
  for (int y = 0; y < src.height; ++y)
    for (int x = 0; x < src.width; ++x) out.set_index(x, y, src.index_at(x, y));
  return out;
}

// 16-bit gray narrowed to an 8-bit gray-palette picture (high byte).
Image gray16_to_gray8(const Image& src) {
  Image out;
  out.allocate(src.width, src.height, 8, kOrderRgb);
  out.palette = gray_ramp(8);
  out.xdpi = src.xdpi;
  out.ydpi = src.ydpi;
  for (int y = 0; y < src.height; ++y) {
    const uint8_t* s = src.row(y);
    uint8_t* d = out.row(y);
    for (int x = 0; x < src.width; ++x) d[x] = s[2 * x + 1];
  }
  return out;
}

void check_order(const Image& img, const std::string& name) {
  if (img.bits <= 8) return;
  const bool ok = img.bits == 16 ? (img.order >= 0 && img.order <= 2) : (img.order == 0 || img.order == 1);
  if (!ok) fail(name, "cannot save colour order " + std::to_string(img.order) + " at " +
                          std::to_string(img.bits) + " bits per pixel");
}

void check_geometry(const Image& img, const std::string& name) {
  static constexpr int kBits[] = {1, 2, 3, 4, 5, 6, 7, 8, 16, 24, 32, 48, 64};
  if (std::find(std::begin(kBits), std::end(kBits), img.bits) == std::end(kBits))
    fail(name, "cannot save " + std::to_string(img.bits) + " bits per pixel");
  if (img.width < 1 || img.height < 1 || img.data.size() < img.stride() * static_cast<size_t>(img.height))
    fail(name, "picture has no pixels");
  check_order(img, name);
}

// ---- PNG -------------------------------------------------------------------

struct PngIo {
  const uint8_t* in = nullptr;
  size_t in_size = 0;
  size_t pos = 0;
  std::vector<uint8_t>* out = nullptr;
  char message[256] = {};
};

void png_error_cb(png_structp png, png_const_charp msg) {
  auto* io = static_cast<PngIo*>(png_get_error_ptr(png));
  std::snprintf(io->message, sizeof io->message, "%s", msg ? msg : "unknown error");
  png_longjmp(png, 1);
}
void png_warning_cb(png_structp, png_const_charp) {}

void png_read_cb(png_structp png, png_bytep data, png_size_t length) {
  auto* io = static_cast<PngIo*>(png_get_io_ptr(png));
  if (length > io->in_size - io->pos) png_error(png, "file is truncated");
  std::memcpy(data, io->in + io->pos, length);
  io->pos += length;
}

void png_write_cb(png_structp png, png_bytep data, png_size_t length) {
  auto* io = static_cast<PngIo*>(png_get_io_ptr(png));
  try {
    io->out->insert(io->out->end(), data, data + length);
  } catch (...) {
    png_error(png, "out of memory");
  }
}
void png_flush_cb(png_structp) {}

// Reads into `img`; returns false with io.message set on a libpng error.
// Only trivially destructible objects live in this frame, so the long jump
// back from libpng skips no destructor.
bool png_decode_into(PngIo& io, Image& img, std::vector<png_bytep>& rows) {
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &io, png_error_cb, png_warning_cb);
  if (!png) {
    std::snprintf(io.message, sizeof io.message, "out of memory");
    return false;
  }
  png_infop info = png_create_info_struct(png);
  if (!info) {
    png_destroy_read_struct(&png, nullptr, nullptr);
    std::snprintf(io.message, sizeof io.message, "out of memory");
    return false;
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    return false;
  }
  png_set_read_fn(png, &io, png_read_cb);
  png_set_user_limits(png, kMaxSide, kMaxSide);
  png_read_info(png, info);

  png_uint_32 w = 0, h = 0;
  int depth = 0, ctype = 0, interlace = 0;
  png_get_IHDR(png, info, &w, &h, &depth, &ctype, &interlace, nullptr, nullptr);
  const bool trns = png_get_valid(png, info, PNG_INFO_tRNS) != 0;
  int bits = 0, order = kOrderBgr;
  bool palette = false, gray = false;
  switch (ctype) {
    case PNG_COLOR_TYPE_PALETTE:
      if (trns) {  // transparency per entry: keep it as true alpha
        png_set_palette_to_rgb(png);
        png_set_tRNS_to_alpha(png);
        png_set_bgr(png);
        bits = 32;
      } else {
        bits = depth;
        palette = true;
      }
      break;
    case PNG_COLOR_TYPE_GRAY:
      if (depth == 16) {
        bits = 16;
        order = kOrderGray;
      } else {
        bits = depth;
        gray = true;
      }
      break;
    case PNG_COLOR_TYPE_GRAY_ALPHA:
      png_set_gray_to_rgb(png);
      png_set_bgr(png);
      bits = depth == 16 ? 64 : 32;
      break;
    case PNG_COLOR_TYPE_RGB:
      png_set_bgr(png);
      bits = depth == 16 ? 48 : 24;
      break;
    case PNG_COLOR_TYPE_RGB_ALPHA:
      png_set_bgr(png);
      bits = depth == 16 ? 64 : 32;
      break;
    default:
      png_error(png, "unknown colour type");
  }
  if (depth == 16) png_set_swap(png);  // the library's 16-bit samples are little-endian
  png_set_interlace_handling(png);
  png_read_update_info(png, info);

  if (static_cast<uint64_t>(Image::stride_for(static_cast<int>(w), bits)) * h > kMaxBytes)
    png_error(png, "image too large");
  // Deflate packs at most about 1032 bytes into one, so a file too short to
  // hold even the smallest rows its header claims is refused before the
  // picture is allocated (a few bytes must not make us zero gigabytes).
  const uint64_t least_raw = static_cast<uint64_t>(h) * (1 + (static_cast<uint64_t>(w) * depth + 7) / 8);
  if (static_cast<uint64_t>(io.in_size - io.pos) * 1032 < least_raw) png_error(png, "file is truncated");
  if (png_get_rowbytes(png, info) > Image::stride_for(static_cast<int>(w), bits))
    png_error(png, "unexpected row size");
  img.width = static_cast<int>(w);
  img.height = static_cast<int>(h);
  img.bits = bits;
  img.order = bits <= 8 ? kOrderRgb : order;
  bool out_of_memory = false;
  try {
    img.data.assign(img.stride() * h, 0);
    rows.resize(h);
  } catch (const std::bad_alloc&) {
    out_of_memory = true;
  }
  if (out_of_memory) png_error(png, "out of memory");
  if (palette) {
    png_colorp entries = nullptr;
    int count = 0;
    if (!png_get_PLTE(png, info, &entries, &count)) png_error(png, "palette missing");
    img.palette.resize(static_cast<size_t>(std::min(count, 1 << bits)));
    for (size_t i = 0; i < img.palette.size(); ++i)
      img.palette[i] = Colour{entries[i].blue, entries[i].green, entries[i].red, 0};
  } else if (gray) {
    img.palette = gray_ramp(bits);
  }
  png_uint_32 xppm = 0, yppm = 0;
  int unit = 0;
  if (png_get_pHYs(png, info, &xppm, &yppm, &unit) && unit == PNG_RESOLUTION_METER) {
    img.xdpi = dpi_from_ppm(xppm);
    img.ydpi = dpi_from_ppm(yppm);
  }
  for (png_uint_32 y = 0; y < h; ++y) rows[y] = img.row(static_cast<int>(y));
  png_read_image(png, rows.data());
  png_read_end(png, nullptr);
  png_destroy_read_struct(&png, &info, nullptr);
  return true;
}

Image decode_png(const std::vector<uint8_t>& bytes, const std::string& name) {
  if (bytes.size() < 8 || png_sig_cmp(bytes.data(), 0, 8) != 0) fail(name, "not a PNG file");
  PngIo io;
  io.in = bytes.data();
  io.in_size = bytes.size();
  Image img;
  std::vector<png_bytep> rows;
  const bool ok = png_decode_into(io, img, rows);
  if (!ok) fail(name, std::string("corrupt PNG: ") + io.message);
  return img;
}

bool png_encode_into(PngIo& io, const Image& img, const std::vector<png_bytep>& rows, int ctype,
                     int depth, bool bgr, bool strip_filler) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &io, png_error_cb, png_warning_cb);
  if (!png) return false;
  png_infop info = png_create_info_struct(png);
  if (!info) {
    png_destroy_write_struct(&png, nullptr);
    return false;
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  png_set_write_fn(png, &io, png_write_cb, png_flush_cb);
  png_set_IHDR(png, info, static_cast<png_uint_32>(img.width), static_cast<png_uint_32>(img.height), depth,
               ctype, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_color plte[256];
  if (ctype == PNG_COLOR_TYPE_PALETTE) {
    // Every index the pixels can hold needs an entry; missing ones are black.
    int count = static_cast<int>(std::min<size_t>(img.palette.size(), size_t(1) << depth));
    if (count < 1) count = 1;
    for (int y = 0; y < img.height; ++y)
      for (int x = 0; x < img.width; ++x) count = std::max(count, static_cast<int>(img.index_at(x, y)) + 1);
    for (int i = 0; i < count; ++i) {
      const Colour c = static_cast<size_t>(i) < img.palette.size() ? img.palette[static_cast<size_t>(i)] : Colour{};
      plte[i] = png_color{c.r, c.g, c.b};
    }
    png_set_PLTE(png, info, plte, count);
  }
  if (img.xdpi > 0 && img.ydpi > 0)
    png_set_pHYs(png, info, ppm_from_dpi(img.xdpi), ppm_from_dpi(img.ydpi), PNG_RESOLUTION_METER);
  png_write_info(png, info);
  if (bgr) png_set_bgr(png);
  if (depth == 16) png_set_swap(png);
  if (strip_filler) png_set_filler(png, 0, PNG_FILLER_AFTER);
  png_write_image(png, const_cast<png_bytepp>(rows.data()));
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

std::vector<uint8_t> encode_png(const Image& src, const std::string& name, std::vector<std::string>* notes) {
  const Image* img = &src;
  Image tmp;
  int ctype = 0, depth = 0;
  bool strip_filler = false;
  if (src.bits <= 8) {
    if (src.bits == 3 || src.bits > 4) {
      if (src.bits != 8) {
        tmp = repack_indices(src, src.bits == 3 ? 4 : 8);
        img = &tmp;
      }
    }
    depth = img->bits;
    ctype = img->is_gray_ramp() ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_PALETTE;
  } else if (src.bits == 16 && src.order == kOrderGray) {
    ctype = PNG_COLOR_TYPE_GRAY;
    depth = 16;
  } else if (src.bits == 16) {
    tmp = to_truecolour(src, 24);
    img = &tmp;
    ctype = PNG_COLOR_TYPE_RGB;
    depth = 8;
  } else {
    depth = src.bits >= 48 ? 16 : 8;
    const bool alpha = alpha_is_used(src);
    strip_filler = has_alpha_bits(src) && !alpha;
    ctype = alpha ? PNG_COLOR_TYPE_RGB_ALPHA : PNG_COLOR_TYPE_RGB;
    if (strip_filler && notes) notes->push_back(name + ": fourth channel is zero everywhere; saved without alpha");
  }
  std::vector<png_bytep> rows(static_cast<size_t>(img->height));
  for (int y = 0; y < img->height; ++y) rows[static_cast<size_t>(y)] = const_cast<uint8_t*>(img->row(y));
  std::vector<uint8_t> out;
  PngIo io;
  io.out = &out;
  const bool bgr = img->bits >= 24 && img->order == kOrderBgr;
  if (!png_encode_into(io, *img, rows, ctype, depth, bgr, strip_filler))
    fail(name, std::string("cannot encode PNG: ") + (io.message[0] ? io.message : "out of memory"));
  return out;
}

// ---- PNM -------------------------------------------------------------------

struct PnmHeader {
  char kind = 0;
  int width = 0, height = 0, maxval = 1;
  size_t data = 0;  // offset of the raster
};

PnmHeader parse_pnm_header(const std::vector<uint8_t>& b, const std::string& name) {
  if (b.size() < 2 || b[0] != 'P') fail(name, "not a PNM file");
  PnmHeader h;
  h.kind = static_cast<char>(b[1]);
  if (h.kind >= '1' && h.kind <= '3') fail(name, "ASCII PNM (P1-P3) is not supported; only binary P4, P5, P6");
  if (h.kind < '4' || h.kind > '6') fail(name, "not a binary PNM file (P4, P5 or P6)");
  size_t pos = 2;
  auto number = [&](const char* what) {
    for (;;) {
      if (pos >= b.size()) fail(name, std::string("truncated header: ") + what + " missing");
      if (b[pos] == '#') {
        while (pos < b.size() && b[pos] != '\n' && b[pos] != '\r') ++pos;
      } else if (std::isspace(b[pos])) {
        ++pos;
      } else {
        break;
      }
    }
    if (!std::isdigit(b[pos])) fail(name, std::string("corrupt header: bad ") + what);
    long v = 0;
    while (pos < b.size() && std::isdigit(b[pos])) {
      v = v * 10 + (b[pos++] - '0');
      if (v > 1000000000L) fail(name, std::string("corrupt header: ") + what + " too large");
    }
    return v;
  };
  const long w = number("width");
  const long hgt = number("height");
  const long maxval = h.kind == '4' ? 1 : number("maximum value");
  if (pos >= b.size() || !std::isspace(b[pos])) fail(name, "truncated header");
  ++pos;  // exactly one whitespace character before the raster
  if (w < 1 || hgt < 1 || w > kMaxSide || hgt > kMaxSide)
    fail(name, "unsupported size " + std::to_string(w) + "x" + std::to_string(hgt));
  if (maxval < 1 || maxval > 65535) fail(name, "maximum value " + std::to_string(maxval) + " out of range");
  h.width = static_cast<int>(w);
  h.height = static_cast<int>(hgt);
  h.maxval = static_cast<int>(maxval);
  h.data = pos;
  return h;
}

Image decode_pnm(const std::vector<uint8_t>& b, const std::string& name) {
  const PnmHeader h = parse_pnm_header(b, name);
  const bool wide = h.maxval > 255;
  const size_t channels = h.kind == '6' ? 3 : 1;
  const size_t row_bytes = h.kind == '4' ? (static_cast<size_t>(h.width) + 7) / 8
                                         : static_cast<size_t>(h.width) * channels * (wide ? 2 : 1);
  const uint64_t need = static_cast<uint64_t>(row_bytes) * static_cast<uint64_t>(h.height);
  if (need > kMaxBytes) fail(name, "image too large");
  if (b.size() - h.data < need)
    fail(name, "truncated: pixel data ends after " + std::to_string(b.size() - h.data) + " of " +
                   std::to_string(need) + " bytes");
  Image img;
  const uint8_t* src = b.data() + h.data;
  // Samples are scaled to the full 8- or 16-bit range (rounded); values above
  // maxval are clamped.
  auto scale8 = [&](unsigned v) { return static_cast<uint8_t>(std::min(255u, (v * 255 + h.maxval / 2) / h.maxval)); };
  auto scale16 = [&](unsigned v) {
    return static_cast<uint16_t>(std::min<uint64_t>(65535, (uint64_t(v) * 65535 + h.maxval / 2) / h.maxval));
  };
  if (h.kind == '4') {
    img.allocate(h.width, h.height, 1, kOrderRgb);
    img.palette = {Colour{255, 255, 255, 0}, Colour{0, 0, 0, 0}};  // PBM: 1 is black
    for (int y = 0; y < h.height; ++y) std::memcpy(img.row(y), src + row_bytes * y, row_bytes);
  } else if (h.kind == '5' && !wide) {
    img.allocate(h.width, h.height, 8, kOrderRgb);
    img.palette = gray_ramp(8);
    for (int y = 0; y < h.height; ++y)
      for (int x = 0; x < h.width; ++x) img.row(y)[x] = scale8(src[row_bytes * y + x]);
  } else {
    const int bits = h.kind == '5' ? 16 : (wide ? 48 : 24);
    img.allocate(h.width, h.height, bits, h.kind == '5' ? kOrderGray : kOrderBgr);
    for (int y = 0; y < h.height; ++y) {
      const uint8_t* s = src + row_bytes * y;
      uint8_t* d = img.row(y);
      for (int x = 0; x < h.width; ++x) {
        for (size_t c = 0; c < channels; ++c) {
          const size_t sc = channels == 3 ? 2 - c : c;  // PPM is RGB; stored BGR
          if (wide) {
            const uint16_t v = scale16(static_cast<unsigned>((s[2 * (x * channels + sc)] << 8) | s[2 * (x * channels + sc) + 1]));
            d[2 * (x * channels + c)] = static_cast<uint8_t>(v);
            d[2 * (x * channels + c) + 1] = static_cast<uint8_t>(v >> 8);
          } else {
            d[x * channels + c] = scale8(s[x * channels + sc]);
          }
        }
      }
    }
  }
  return img;
}

bool is_black_white(const Image& img) {
  if (img.bits != 1 || img.palette.size() < 2) return false;
  auto bw = [](const Colour& c) {
    return (c.r == 0 && c.g == 0 && c.b == 0) || (c.r == 255 && c.g == 255 && c.b == 255);
  };
  return bw(img.palette[0]) && bw(img.palette[1]) && !(img.palette[0] == img.palette[1]);
}

std::vector<uint8_t> pnm_header(char kind, const Image& img, int maxval) {
  std::string h = "P";
  h += kind;
  h += "\n" + std::to_string(img.width) + " " + std::to_string(img.height) + "\n";
  if (kind != '4') h += std::to_string(maxval) + "\n";
  return std::vector<uint8_t>(h.begin(), h.end());
}

std::vector<uint8_t> encode_pnm(const Image& img, Format format, const std::string& name,
                                std::vector<std::string>* notes) {
  if (format == Format::pnm) {
    if (is_black_white(img)) format = Format::pbm;
    else if ((img.bits <= 8 && img.palette_is_gray()) || (img.bits == 16 && img.order == kOrderGray)) format = Format::pgm;
    else format = Format::ppm;
  }
  std::vector<uint8_t> out;
  if (format == Format::pbm) {
    if (img.bits != 1) fail(name, "PBM holds 1-bit images only; reduce it first (--reduce 1)");
    out = pnm_header('4', img, 1);
    // Bit 1 is black: an index is black when its entry is darker than mid gray.
    uint8_t ink[2] = {1, 0};
    for (size_t i = 0; i < 2; ++i) {
      const Colour c = i < img.palette.size() ? img.palette[i] : Colour{};
      ink[i] = gray_level(c.r, c.g, c.b) < 128 ? 1 : 0;
    }
    const size_t row_bytes = (static_cast<size_t>(img.width) + 7) / 8;
    for (int y = 0; y < img.height; ++y) {
      std::vector<uint8_t> row(row_bytes, 0);
      for (int x = 0; x < img.width; ++x)
        if (ink[img.index_at(x, y)]) row[static_cast<size_t>(x) / 8] |= static_cast<uint8_t>(0x80 >> (x % 8));
      out.insert(out.end(), row.begin(), row.end());
    }
    return out;
  }
  if (format == Format::pgm) {
    if (img.bits == 16 && img.order == kOrderGray) {
      out = pnm_header('5', img, 65535);
      for (int y = 0; y < img.height; ++y) {
        const uint8_t* s = img.row(y);
        for (int x = 0; x < img.width; ++x) {
          out.push_back(s[2 * x + 1]);
          out.push_back(s[2 * x]);
        }
      }
      return out;
    }
    if (img.bits > 8 || !img.palette_is_gray())
      fail(name, "PGM holds gray images only; convert it first (--gray 8 or --gray 16)");
    out = pnm_header('5', img, 255);
    for (int y = 0; y < img.height; ++y)
      for (int x = 0; x < img.width; ++x) {
        const uint32_t i = img.index_at(x, y);
        out.push_back(i < img.palette.size() ? img.palette[i].r : 0);
      }
    return out;
  }
  // PPM: 16-bit samples when the picture has more than 8 bits per channel.
  const bool wide = img.bits == 48 || img.bits == 64 || (img.bits == 16 && img.order == kOrderGray);
  if (alpha_is_used(img) && notes) notes->push_back(name + ": PPM has no alpha channel; alpha dropped");
  out = pnm_header('6', img, wide ? 65535 : 255);
  out.reserve(out.size() + static_cast<size_t>(img.width) * img.height * (wide ? 6 : 3));
  for (int y = 0; y < img.height; ++y)
    for (int x = 0; x < img.width; ++x) {
      const Rgba16 c = pixel_rgba16(img, x, y);
      for (uint16_t v : {c.r, c.g, c.b}) {
        out.push_back(static_cast<uint8_t>(v >> 8));
        if (wide) out.push_back(static_cast<uint8_t>(v));
      }
    }
  return out;
}

// ---- BMP -------------------------------------------------------------------

constexpr uint32_t kBiRgb = 0, kBiBitfields = 3;

Image decode_bmp(const std::vector<uint8_t>& b, const std::string& name) {
  if (b.size() < 2 || b[0] != 'B' || b[1] != 'M') fail(name, "not a BMP file");
  if (b.size() < 18) fail(name, "truncated header");
  const uint32_t off_bits = rd32le(&b[10]);
  const uint32_t hsize = rd32le(&b[14]);
  if (hsize != 12 && (hsize < 40 || hsize > 124)) fail(name, "unsupported BMP header size " + std::to_string(hsize));
  if (b.size() < 14 + static_cast<size_t>(hsize)) fail(name, "truncated header");
  const uint8_t* h = &b[14];
  int64_t width = 0, height = 0;
  uint32_t bits = 0, compression = kBiRgb, used = 0, xppm = 0, yppm = 0;
  if (hsize == 12) {
    width = rd16le(h + 4);
    height = rd16le(h + 6);
    bits = rd16le(h + 10);
  } else {
    width = static_cast<int32_t>(rd32le(h + 4));
    height = static_cast<int32_t>(rd32le(h + 8));
    bits = rd16le(h + 14);
    compression = rd32le(h + 16);
    xppm = rd32le(h + 24);
    yppm = rd32le(h + 28);
    used = rd32le(h + 32);
  }
  const bool top_down = height < 0;
  if (top_down) height = -height;
  if (width < 1 || height < 1 || width > kMaxSide || height > kMaxSide)
    fail(name, "unsupported size " + std::to_string(width) + "x" + std::to_string(height));
  if (bits != 1 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32)
    fail(name, "unsupported bits per pixel " + std::to_string(bits));

  int order = kOrderBgr;
  if (compression == kBiBitfields && (bits == 16 || bits == 32)) {
    // Masks live in the header (52 bytes and more) or right after a 40-byte one.
    const size_t at = 14 + 40;
    if (b.size() < at + 12) fail(name, "truncated header: colour masks missing");
    const uint32_t r = rd32le(&b[at]), g = rd32le(&b[at + 4]), bl = rd32le(&b[at + 8]);
    const bool ok = bits == 16 ? (r == 0x7C00 && g == 0x3E0 && bl == 0x1F)
                               : (r == 0xFF0000 && g == 0xFF00 && bl == 0xFF);
    if (!ok) fail(name, "unsupported colour masks (only 5-5-5 and 8-8-8 layouts)");
  } else if (compression != kBiRgb) {
    static const char* const kNames[] = {"none", "RLE8", "RLE4", "bit fields", "JPEG", "PNG"};
    fail(name, std::string("unsupported compression ") +
                   (compression < 6 ? kNames[compression] : std::to_string(compression).c_str()));
  }

  Image img;
  std::vector<Colour> palette;
  if (bits <= 8) {
    const size_t entry = hsize == 12 ? 3 : 4;
    size_t count = used ? used : (size_t(1) << bits);
    count = std::min(count, size_t(1) << bits);
    const size_t at = 14 + static_cast<size_t>(hsize);
    // The palette ends where the pixels start: files with fewer entries than
    // their depth allows (and core headers, which carry no count) say so only there.
    if (off_bits > at) count = std::min(count, (off_bits - at) / entry);
    if (b.size() < at + count * entry) fail(name, "truncated palette");
    palette.resize(count);
    for (size_t i = 0; i < count; ++i)
      palette[i] = Colour{b[at + i * entry], b[at + i * entry + 1], b[at + i * entry + 2], 0};
    order = kOrderRgb;
  }
  const size_t stride = Image::stride_for(static_cast<int>(width), static_cast<int>(bits));
  const uint64_t need = static_cast<uint64_t>(stride) * static_cast<uint64_t>(height);
  if (need > kMaxBytes) fail(name, "image too large");
  if (off_bits > b.size() || b.size() - off_bits < need)
    fail(name, "truncated: pixel data ends after " +
                   std::to_string(off_bits > b.size() ? 0 : b.size() - off_bits) + " of " + std::to_string(need) +
                   " bytes");
  img.allocate(static_cast<int>(width), static_cast<int>(height), static_cast<int>(bits), order);
  img.palette = std::move(palette);
  img.xdpi = dpi_from_ppm(xppm);
  img.ydpi = dpi_from_ppm(yppm);
  for (int y = 0; y < img.height; ++y) {
    const size_t src_row = top_down ? static_cast<size_t>(y) : static_cast<size_t>(img.height - 1 - y);
    std::memcpy(img.row(y), &b[off_bits + src_row * stride], stride);
  }
  return img;
}

std::vector<uint8_t> encode_bmp(const Image& src, const std::string& name, std::vector<std::string>* notes) {
  Image tmp;
  const Image* img = &src;
  auto note = [&](const std::string& s) {
    if (notes) notes->push_back(name + ": " + s);
  };
  if (src.bits == 2 || src.bits == 3) {
    tmp = repack_indices(src, 4);
    img = &tmp;
  } else if (src.bits >= 5 && src.bits <= 7) {
    tmp = repack_indices(src, 8);
    img = &tmp;
  } else if (src.bits == 16 && src.order == kOrderGray) {
    note("BMP has no 16-bit gray; saved as 8-bit gray");
    tmp = gray16_to_gray8(src);
    img = &tmp;
  } else if (src.bits == 48 || src.bits == 64) {
    note("BMP has no 16-bit channels; saved with 8 bits per channel");
    tmp = to_truecolour(src, src.bits == 48 ? 24 : 32);
    img = &tmp;
  } else if ((src.bits == 24 || src.bits == 32) && src.order == kOrderRgb) {
    tmp = to_truecolour(src, src.bits);
    img = &tmp;
  }
  const size_t stride = img->stride();
  size_t colours = 0;
  if (img->bits <= 8) {
    colours = std::clamp<size_t>(img->palette.size(), 1, size_t(1) << img->bits);
    for (int y = 0; y < img->height; ++y)
      for (int x = 0; x < img->width; ++x) colours = std::max<size_t>(colours, img->index_at(x, y) + 1);
  }
  const uint64_t pixels = static_cast<uint64_t>(stride) * static_cast<uint64_t>(img->height);
  const uint32_t off_bits = static_cast<uint32_t>(14 + 40 + 4 * colours);
  if (pixels + off_bits > 0xFFFFFFFFu) fail(name, "image too large for BMP");
  std::vector<uint8_t> out;
  out.reserve(off_bits + pixels);
  out.push_back('B');
  out.push_back('M');
  wr32le(out, static_cast<uint32_t>(off_bits + pixels));
  wr32le(out, 0);
  wr32le(out, off_bits);
  wr32le(out, 40);
  wr32le(out, static_cast<uint32_t>(img->width));
  wr32le(out, static_cast<uint32_t>(img->height));  // bottom-up
  wr16le(out, 1);
  wr16le(out, static_cast<uint32_t>(img->bits));
  wr32le(out, kBiRgb);
  wr32le(out, static_cast<uint32_t>(pixels));
  wr32le(out, ppm_from_dpi(img->xdpi));
  wr32le(out, ppm_from_dpi(img->ydpi));
  wr32le(out, static_cast<uint32_t>(colours));
  wr32le(out, 0);
  for (size_t i = 0; i < colours; ++i) {
    const Colour c = i < img->palette.size() ? img->palette[i] : Colour{};
    out.insert(out.end(), {c.b, c.g, c.r, 0});
  }
  for (int y = img->height - 1; y >= 0; --y) {
    const uint8_t* row = img->row(y);
    if (img->bits == 16 && img->order == kOrderRgb) {
      // BMP 16-bit is 5-5-5 with red high: swap the outer fields.
      for (int x = 0; x < img->width; ++x) {
        const uint16_t w = rd16le(row + 2 * x);
        wr16le(out, ((w & 31) << 10) | (w & 0x3E0) | ((w >> 10) & 31));
      }
      out.resize(out.size() + stride - 2 * static_cast<size_t>(img->width), 0);
    } else {
      out.insert(out.end(), row, row + stride);
    }
  }
  return out;
}

std::string lower_extension(const std::string& path) {
  const size_t slash = path.find_last_of("/\\");
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string ext = path.substr(dot + 1);
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext;
}

}  // namespace

// ---- Image -------------------------------------------------------------------

void Image::allocate(int w, int h, int bpp, int colour_order) {
  if (w < 1 || h < 1 || w > kMaxSide || h > kMaxSide ||
      static_cast<uint64_t>(stride_for(w, bpp)) * static_cast<uint64_t>(h) > kMaxBytes)
    throw IoError("unsupported picture size " + std::to_string(w) + "x" + std::to_string(h));
  width = w;
  height = h;
  bits = bpp;
  order = colour_order;
  data.assign(stride() * static_cast<size_t>(h), 0);
}

bool Image::is_gray_ramp() const {
  if (bits > 8 || palette.size() != (size_t(1) << bits)) return false;
  const auto ramp = gray_ramp(bits);
  for (size_t i = 0; i < ramp.size(); ++i)
    if (palette[i].r != ramp[i].r || palette[i].g != ramp[i].g || palette[i].b != ramp[i].b) return false;
  return true;
}

bool Image::palette_is_gray() const {
  if (bits > 8 || palette.empty()) return false;
  return std::all_of(palette.begin(), palette.end(), [](const Colour& c) { return c.r == c.g && c.g == c.b; });
}

uint32_t Image::index_at(int x, int y) const {
  const uint8_t* p = row(y);
  if (bits == 8) return p[x];
  // Bit stream, most significant bit first; a pixel may straddle two bytes,
  // which are then read as one big-endian 16-bit value.
  const size_t bit = static_cast<size_t>(x) * static_cast<size_t>(bits);
  const size_t byte = bit / 8;
  const unsigned shift = static_cast<unsigned>(bit % 8);
  unsigned v = static_cast<unsigned>(p[byte]) << 8;
  if (shift + static_cast<unsigned>(bits) > 8) v |= p[byte + 1];
  return (v >> (16 - shift - static_cast<unsigned>(bits))) & ((1u << bits) - 1);
}

void Image::set_index(int x, int y, uint32_t index) {
  uint8_t* p = row(y);
  if (bits == 8) {
    p[x] = static_cast<uint8_t>(index);
    return;
  }
  const size_t bit = static_cast<size_t>(x) * static_cast<size_t>(bits);
  const size_t byte = bit / 8;
  const unsigned shift = static_cast<unsigned>(bit % 8);
  const unsigned span = 16 - shift - static_cast<unsigned>(bits);
  const unsigned mask = ((1u << bits) - 1) << span;
  const bool two = shift + static_cast<unsigned>(bits) > 8;
  unsigned v = (static_cast<unsigned>(p[byte]) << 8) | (two ? p[byte + 1] : 0u);
  v = (v & ~mask) | ((index << span) & mask);
  p[byte] = static_cast<uint8_t>(v >> 8);
  if (two) p[byte + 1] = static_cast<uint8_t>(v);
}

// ---- formats and files ------------------------------------------------------------

Format format_for_path(const std::string& path) {
  const std::string ext = lower_extension(path);
  if (ext == "png") return Format::png;
  if (ext == "pbm") return Format::pbm;
  if (ext == "pgm") return Format::pgm;
  if (ext == "ppm") return Format::ppm;
  if (ext == "pnm") return Format::pnm;
  if (ext == "bmp" || ext == "dib") return Format::bmp;
  throw IoError(path + ": unknown file type" + (ext.empty() ? "" : " '." + ext + "'") +
                " (use .png, .pbm, .pgm, .ppm, .pnm or .bmp)");
}

const char* format_name(Format f) {
  switch (f) {
    case Format::png: return "PNG";
    case Format::pbm: return "PBM";
    case Format::pgm: return "PGM";
    case Format::ppm: return "PPM";
    case Format::pnm: return "PNM";
    case Format::bmp: return "BMP";
  }
  return "?";
}

Image decode(const std::vector<uint8_t>& bytes, Format format, const std::string& name) {
  try {
    switch (format) {
      case Format::png: return decode_png(bytes, name);
      case Format::bmp: return decode_bmp(bytes, name);
      default: return decode_pnm(bytes, name);
    }
  } catch (const std::bad_alloc&) {
    fail(name, "out of memory");
  }
}

std::vector<uint8_t> encode(const Image& image, Format format, const std::string& name,
                            std::vector<std::string>* notes) {
  check_geometry(image, name);
  try {
    switch (format) {
      case Format::png: return encode_png(image, name, notes);
      case Format::bmp: return encode_bmp(image, name, notes);
      default: return encode_pnm(image, format, name, notes);
    }
  } catch (const std::bad_alloc&) {
    fail(name, "out of memory");
  }
}

std::vector<uint8_t> read_file(const std::string& path) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) fail(path, "is a directory, not an image file");
  std::ifstream in(path, std::ios::binary);
  if (!in) fail(path, std::string("cannot open: ") + std::strerror(errno));
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) fail(path, "read error");
  return bytes;
}

void write_file(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) fail(path, std::string("cannot create: ") + std::strerror(errno));
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) fail(path, "write error");
}

Image read_image(const std::string& path) {
  const Format f = format_for_path(path);
  return decode(read_file(path), f, path);
}

void write_image(const std::string& path, const Image& image, std::vector<std::string>* notes) {
  const Format f = format_for_path(path);
  write_file(path, encode(image, f, path, notes));
}

}  // namespace vkimg
