// image_io.cpp - formats, whole pictures, and the row helpers the codecs share.
//
// Every reader checks each length and offset it takes from the file against
// what it has read, so a corrupt or truncated file ends in an IoError that
// names the file, never in a read past a buffer.
#include "image_io.h"

#include <png.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <iterator>

#include "codec_internal.h"
#include "streams.h"

namespace vkimg {

namespace codec {

std::vector<Colour> gray_ramp(int bits) {
  const int n = 1 << bits;
  std::vector<Colour> pal(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    const auto v = static_cast<uint8_t>(i * 255 / (n - 1));
    pal[static_cast<size_t>(i)] = Colour{v, v, v, 0};
  }
  return pal;
}

void check_size(const std::string& name, int64_t width, int64_t height, int bits) {
  if (width < 1 || height < 1 || width > kMaxSide || height > kMaxSide)
    fail(name, "unsupported size " + std::to_string(width) + "x" + std::to_string(height));
  if (static_cast<uint64_t>(ImageInfo::stride_for(static_cast<int>(width), bits)) * static_cast<uint64_t>(height) >
      max_image_bytes)
    fail(name, "image too large");
}

void repack_row(const uint8_t* src, int src_bits, uint8_t* dst, int dst_bits, int width) {
  for (int x = 0; x < width; ++x) {
    const uint32_t v = index_in_row(src, src_bits, x);
    const size_t bit = static_cast<size_t>(x) * static_cast<size_t>(dst_bits);
    dst[bit / 8] |= static_cast<uint8_t>(v << (8 - dst_bits - bit % 8));  // dst_bits is 1, 2, 4 or 8
  }
}

namespace {

struct Rgba16 {
  uint16_t r, g, b, a;
};

// Any layout, one pixel: for the rare layouts that have no direct path.
Rgba16 pixel_rgba16(const ImageInfo& img, const uint8_t* row, int x) {
  if (img.bits <= 8) {
    const uint32_t i = index_in_row(row, img.bits, x);
    const Colour c = i < img.palette.size() ? img.palette[i] : Colour{};
    return {static_cast<uint16_t>(c.r * 257), static_cast<uint16_t>(c.g * 257), static_cast<uint16_t>(c.b * 257), 65535};
  }
  const bool bgr = img.order == kOrderBgr;
  switch (img.bits) {
    case 16: {
      const uint16_t w = rd16le(row + 2 * static_cast<size_t>(x));
      if (img.order == kOrderGray) return {w, w, w, 65535};
      auto widen = [](unsigned f) { return static_cast<uint16_t>(((f << 3) | (f >> 2)) * 257); };
      const unsigned hi = (w >> 10) & 31, mid = (w >> 5) & 31, lo = w & 31;
      return bgr ? Rgba16{widen(hi), widen(mid), widen(lo), 65535} : Rgba16{widen(lo), widen(mid), widen(hi), 65535};
    }
    case 24:
    case 32: {
      const size_t n = static_cast<size_t>(img.bits / 8);
      const uint8_t* p = row + n * static_cast<size_t>(x);
      const uint16_t a = n == 4 ? static_cast<uint16_t>(p[3] * 257) : 65535;
      const uint8_t r = bgr ? p[2] : p[0], b = bgr ? p[0] : p[2];
      return {static_cast<uint16_t>(r * 257), static_cast<uint16_t>(p[1] * 257), static_cast<uint16_t>(b * 257), a};
    }
    case 48:
    case 64: {
      const size_t n = static_cast<size_t>(img.bits / 16);
      const uint8_t* p = row + 2 * n * static_cast<size_t>(x);
      const uint16_t c0 = rd16le(p), c1 = rd16le(p + 2), c2 = rd16le(p + 4);
      const uint16_t a = n == 4 ? rd16le(p + 6) : 65535;
      return bgr ? Rgba16{c2, c1, c0, a} : Rgba16{c0, c1, c2, a};
    }
    default:
      return {0, 0, 0, 65535};
  }
}

}  // namespace

void row_to_rgb(const ImageInfo& info, const uint8_t* row, uint8_t* out, bool wide) {
  const int w = info.width;
  const bool bgr = info.order == kOrderBgr;
  if (!wide && (info.bits == 24 || info.bits == 32)) {
    const int n = info.bits / 8, r = bgr ? 2 : 0, b = bgr ? 0 : 2;
    for (int x = 0; x < w; ++x, row += n, out += 3) out[0] = row[r], out[1] = row[1], out[2] = row[b];
    return;
  }
  if (wide && (info.bits == 48 || info.bits == 64)) {  // little-endian samples to big-endian
    const int n = info.bits / 16, r = bgr ? 2 : 0, b = bgr ? 0 : 2;
    for (int x = 0; x < w; ++x, row += 2 * n, out += 6) {
      out[0] = row[2 * r + 1], out[1] = row[2 * r];
      out[2] = row[3], out[3] = row[2];
      out[4] = row[2 * b + 1], out[5] = row[2 * b];
    }
    return;
  }
  if (!wide && info.bits <= 8) {
    for (int x = 0; x < w; ++x, out += 3) {
      const uint32_t i = index_in_row(row, info.bits, x);
      const Colour c = i < info.palette.size() ? info.palette[i] : Colour{};
      out[0] = c.r, out[1] = c.g, out[2] = c.b;
    }
    return;
  }
  for (int x = 0; x < w; ++x) {
    const Rgba16 c = pixel_rgba16(info, row, x);
    for (uint16_t v : {c.r, c.g, c.b}) {
      *out++ = static_cast<uint8_t>(v >> 8);
      if (wide) *out++ = static_cast<uint8_t>(v);
    }
  }
}

void row_to_bgr8(const ImageInfo& info, const uint8_t* row, uint8_t* out, bool alpha) {
  const int w = info.width;
  if (info.bits == 24 || info.bits == 32) {
    const int n = info.bits / 8, r = info.order == kOrderBgr ? 2 : 0, b = 2 - r;
    for (int x = 0; x < w; ++x, row += n) {
      *out++ = row[b], *out++ = row[1], *out++ = row[r];
      if (alpha) *out++ = n == 4 ? row[3] : 255;
    }
    return;
  }
  for (int x = 0; x < w; ++x) {
    const Rgba16 c = pixel_rgba16(info, row, x);
    *out++ = static_cast<uint8_t>(c.b >> 8), *out++ = static_cast<uint8_t>(c.g >> 8), *out++ = static_cast<uint8_t>(c.r >> 8);
    if (alpha) *out++ = static_cast<uint8_t>(c.a >> 8);
  }
}

}  // namespace codec

using codec::fail;

// ---- pictures --------------------------------------------------------------------

bool ImageInfo::is_gray_ramp() const {
  if (bits > 8 || palette.size() != (size_t(1) << bits)) return false;
  const auto ramp = codec::gray_ramp(bits);
  for (size_t i = 0; i < ramp.size(); ++i)
    if (palette[i].r != ramp[i].r || palette[i].g != ramp[i].g || palette[i].b != ramp[i].b) return false;
  return true;
}

bool ImageInfo::palette_is_gray() const {
  if (bits > 8 || palette.empty()) return false;
  return std::all_of(palette.begin(), palette.end(), [](const Colour& c) { return c.r == c.g && c.g == c.b; });
}

void Image::allocate(int w, int h, int bpp, int colour_order) {
  if (w < 1 || h < 1 || w > kMaxSide || h > kMaxSide ||
      static_cast<uint64_t>(stride_for(w, bpp)) * static_cast<uint64_t>(h) > max_image_bytes)
    throw IoError("unsupported picture size " + std::to_string(w) + "x" + std::to_string(h));
  width = w;
  height = h;
  bits = bpp;
  order = colour_order;
  data.assign(stride() * static_cast<size_t>(h), 0);
}

uint32_t Image::index_at(int x, int y) const { return codec::index_in_row(row(y), bits, x); }

void Image::set_index(int x, int y, uint32_t index) {
  uint8_t* p = row(y);
  if (bits == 8) {
    p[x] = static_cast<uint8_t>(index);
    return;
  }
  // Bit stream, most significant bit first; a pixel may straddle two bytes,
  // which are then handled as one big-endian 16-bit value.
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

namespace {

// A 32- or 64-bit picture whose fourth channel is zero everywhere carries no
// alpha: row conversion writes that channel as 0.  Such pictures are saved
// without alpha rather than as fully transparent.
bool alpha_is_used(const Image& img) {
  if (img.bits != 32 && img.bits != 64) return false;
  const size_t n = static_cast<size_t>(img.bits / 8);
  for (int y = 0; y < img.height; ++y) {
    const uint8_t* row = img.row(y);
    for (int x = 0; x < img.width; ++x) {
      const uint8_t* p = row + n * static_cast<size_t>(x);
      if (n == 4 ? p[3] != 0 : (p[6] | p[7]) != 0) return true;
    }
  }
  return false;
}

void check_layout(const ImageInfo& img, const std::string& name) {
  static constexpr int kBits[] = {1, 2, 3, 4, 5, 6, 7, 8, 16, 24, 32, 48, 64};
  if (std::find(std::begin(kBits), std::end(kBits), img.bits) == std::end(kBits))
    fail(name, "cannot save " + std::to_string(img.bits) + " bits per pixel");
  if (img.width < 1 || img.height < 1) fail(name, "picture has no pixels");
  if (img.bits <= 8) return;
  const bool ok = img.bits == 16 ? (img.order >= 0 && img.order <= 2) : (img.order == 0 || img.order == 1);
  if (!ok)
    fail(name, "cannot save colour order " + std::to_string(img.order) + " at " + std::to_string(img.bits) +
                   " bits per pixel");
}

Image decode_all(InStream& in) {
  try {
    auto dec = open_decoder(in);
    Image img;
    static_cast<ImageInfo&>(img) = dec->info();
    img.data.assign(img.stride() * static_cast<size_t>(img.height), 0);
    const auto stride = static_cast<ptrdiff_t>(img.stride());
    dec->read_rows(img.data.data(), stride, img.height);
    dec->finish();
    return img;
  } catch (const std::bad_alloc&) {
    fail(in.name(), "out of memory");
  }
}

void encode_all(OutStream& out, const Image& image, Format format, std::vector<std::string>* notes,
                const EncodeOptions& options = {}) {
  check_layout(image, out.name());
  if (image.data.size() < image.stride() * static_cast<size_t>(image.height)) fail(out.name(), "picture has no pixels");
  ImageInfo info = image;
  info.alpha = alpha_is_used(image);
  auto enc = open_encoder(out, format, info, notes, options);
  const auto stride = static_cast<ptrdiff_t>(image.stride());
  enc->write_rows(image.data.data(), stride, image.height);
  enc->finish();
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

// ---- formats ------------------------------------------------------------------------

Format format_for_path(const std::string& path) {
  const std::string ext = lower_extension(path);
  if (ext == "png") return Format::png;
  if (ext == "pbm") return Format::pbm;
  if (ext == "pgm") return Format::pgm;
  if (ext == "ppm") return Format::ppm;
  if (ext == "pnm") return Format::pnm;
  if (ext == "bmp" || ext == "dib") return Format::bmp;
  if (ext == "jpg" || ext == "jpeg" || ext == "jpe") return Format::jpeg;
  if (ext == "tif" || ext == "tiff") return Format::tiff;
  throw IoError(path + ": unknown file type" + (ext.empty() ? "" : " '." + ext + "'") +
                " (use .png, .jpg, .tif, .pbm, .pgm, .ppm, .pnm or .bmp)");
}

const char* format_name(Format f) {
  switch (f) {
    case Format::png: return "PNG";
    case Format::pbm: return "PBM";
    case Format::pgm: return "PGM";
    case Format::ppm: return "PPM";
    case Format::pnm: return "PNM";
    case Format::bmp: return "BMP";
    case Format::jpeg: return "JPEG";
    case Format::tiff: return "TIFF";
  }
  return "?";
}

std::unique_ptr<Decoder> open_decoder(InStream& in, const Progress& progress) {
  const uint8_t* p = nullptr;
  const size_t n = in.peek(&p, 8);
  if (n >= 8 && png_sig_cmp(p, 0, 8) == 0) return codec::open_png(in);
  if (n >= 2 && p[0] == 'B' && p[1] == 'M') return codec::open_bmp(in, progress);
  if (n >= 2 && p[0] == 'P' && p[1] >= '1' && p[1] <= '6') return codec::open_pnm(in);
  if (n >= 3 && p[0] == 0xFF && p[1] == 0xD8 && p[2] == 0xFF) return codec::open_jpeg(in);
  if (n >= 4 && ((p[0] == 'I' && p[1] == 'I' && p[2] == 42 && p[3] == 0) || (p[0] == 'M' && p[1] == 'M' && p[2] == 0 && p[3] == 42)))
    return codec::open_tiff(in);
  if (!in.error().empty()) fail(in.name(), "read error: " + in.error());
  fail(in.name(), n == 0 ? "empty file" : "not an image file this program reads (PNG, JPEG, TIFF, BMP, PBM, PGM, PPM)");
}

void Encoder::add_page(const ImageInfo&) { throw IoError("this file format holds one image; use .tif for several"); }

std::unique_ptr<Encoder> open_encoder(OutStream& out, Format format, const ImageInfo& info,
                                      std::vector<std::string>* notes, const EncodeOptions& options) {
  check_layout(info, out.name());
  switch (format) {
    case Format::png: return codec::png_encoder(out, info, notes);
    case Format::bmp: return codec::bmp_encoder(out, info, notes);
    case Format::jpeg: return codec::jpeg_encoder(out, info, options, notes);
    case Format::tiff: return codec::tiff_encoder(out, info, options, notes);
    default: return codec::pnm_encoder(out, format, info, notes);
  }
}

Image decode(const std::vector<uint8_t>& bytes, Format, const std::string& name) {
  InStream in(bytes, name);
  return decode_all(in);
}

std::vector<uint8_t> encode(const Image& image, Format format, const std::string& name,
                            std::vector<std::string>* notes, const EncodeOptions& options) {
  std::vector<uint8_t> bytes;
  try {
    OutStream out(&bytes);
    out.set_name(name);
    encode_all(out, image, format, notes, options);
  } catch (const std::bad_alloc&) {
    fail(name, "out of memory");
  }
  return bytes;
}

Image read_image(const std::string& path) {
  InStream in(path);
  return decode_all(in);
}

void write_image(const std::string& path, const Image& image, std::vector<std::string>* notes) {
  const Format f = format_for_path(path);
  OutStream out(path);
  encode_all(out, image, f, notes);
  out.commit();
}

std::vector<uint8_t> read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) fail(path, std::string("cannot open: ") + std::strerror(errno));
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) fail(path, "read error");
  return bytes;
}

void write_file(const std::string& path, const std::vector<uint8_t>& bytes) {
  OutStream out(path);
  out.write(bytes.data(), bytes.size());
  out.commit();
}

}  // namespace vkimg
