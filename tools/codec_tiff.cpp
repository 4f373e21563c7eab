// codec_tiff.cpp - TIFF through libtiff: strips read and written a scanline
// at a time, several pages per file.
//
// libtiff needs to seek.  A regular file is read and written in place
// through its descriptor; standard input is first read into memory, and
// output to standard output is assembled in memory, since neither can seek.
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "codec_internal.h"

namespace vkimg::codec {
namespace {

// libtiff reports through process-wide handlers: the last error of this
// thread is kept for the message.
thread_local char t_error[512];
void on_error(const char*, const char* fmt, va_list ap) { std::vsnprintf(t_error, sizeof t_error, fmt, ap); }
void on_warning(const char*, const char*, va_list) {}
const char* last_error() { return t_error[0] ? t_error : "unknown error"; }

struct Closer {
  void operator()(TIFF* t) const { TIFFClose(t); }
};
using TiffPtr = std::unique_ptr<TIFF, Closer>;

// The file libtiff sees: a descriptor, or bytes in memory.
struct Handle {
  int fd = -1;
  std::vector<uint8_t> bytes;
  uint64_t pos = 0;
};

tmsize_t h_read(thandle_t t, void* buf, tmsize_t n) {
  auto* h = static_cast<Handle*>(t);
  if (h->fd >= 0) {
    const ssize_t r = pread(h->fd, buf, static_cast<size_t>(n), static_cast<off_t>(h->pos));
    if (r > 0) h->pos += static_cast<uint64_t>(r);
    return r;
  }
  const uint64_t left = h->pos < h->bytes.size() ? h->bytes.size() - h->pos : 0;
  const size_t k = static_cast<size_t>(std::min<uint64_t>(left, static_cast<uint64_t>(n)));
  std::memcpy(buf, h->bytes.data() + h->pos, k);
  h->pos += k;
  return static_cast<tmsize_t>(k);
}
tmsize_t h_write(thandle_t t, void* buf, tmsize_t n) {
  auto* h = static_cast<Handle*>(t);
  if (h->fd >= 0) {
    const ssize_t r = pwrite(h->fd, buf, static_cast<size_t>(n), static_cast<off_t>(h->pos));
    if (r > 0) h->pos += static_cast<uint64_t>(r);
    return r;
  }
  try {
    if (h->bytes.size() < h->pos + static_cast<uint64_t>(n)) h->bytes.resize(h->pos + static_cast<uint64_t>(n));
  } catch (...) {
    return -1;
  }
  std::memcpy(h->bytes.data() + h->pos, buf, static_cast<size_t>(n));
  h->pos += static_cast<uint64_t>(n);
  return n;
}
toff_t h_size(thandle_t t) {
  auto* h = static_cast<Handle*>(t);
  if (h->fd >= 0) {
    const off_t end = lseek(h->fd, 0, SEEK_END);
    return end < 0 ? 0 : static_cast<toff_t>(end);
  }
  return h->bytes.size();
}
toff_t h_seek(thandle_t t, toff_t off, int whence) {
  auto* h = static_cast<Handle*>(t);
  const uint64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? h->pos : h_size(t);
  h->pos = base + off;
  return h->pos;
}
int h_close(thandle_t) { return 0; }
int h_map(thandle_t, void**, toff_t*) { return 0; }
void h_unmap(thandle_t, void*, toff_t) {}

TiffPtr open_handle(Handle& h, const char* mode, const std::string& name) {
  TIFFSetErrorHandler(on_error);
  TIFFSetWarningHandler(on_warning);
  t_error[0] = 0;
  return TiffPtr(TIFFClientOpen(name.c_str(), mode, &h, h_read, h_write, h_seek, h_close, h_size, h_map, h_unmap));
}

class TiffDecoder final : public Decoder {
 public:
  explicit TiffDecoder(InStream& in) : name_(in.name()) {
    h_.fd = in.seekable_fd();
    if (h_.fd < 0) {  // a pipe or memory: all of it, then
      uint8_t chunk[65536];
      for (size_t n; (n = in.read(chunk, sizeof chunk)) > 0;) h_.bytes.insert(h_.bytes.end(), chunk, chunk + n);
      if (!in.error().empty()) fail(name_, "read error: " + in.error());
    }
    tif_ = open_handle(h_, "rm", name_);
    if (!tif_) fail(name_, std::string("corrupt TIFF: ") + last_error());
    read_page();
  }

  bool next_page() override {
    if (!TIFFReadDirectory(tif_.get())) return false;
    row_ = 0;
    read_page();
    return true;
  }

  void read_rows(uint8_t* dst, ptrdiff_t stride, int count) override {
    const size_t used = info_.stride();
    for (int k = 0; k < count; ++k, ++row_) {
      uint8_t* d = dst + k * stride;
      std::memset(d + scanline_, 0, used - scanline_);
      if (TIFFReadScanline(tif_.get(), d, static_cast<uint32_t>(row_), 0) < 0)
        fail(name_, "corrupt TIFF in row " + std::to_string(row_ + 1) + ": " + last_error());
      if (invert16_)
        for (size_t i = 0; i < scanline_; i += 2) {
          const uint16_t v = static_cast<uint16_t>(65535 - rd16le(d + i));
          d[i] = static_cast<uint8_t>(v), d[i + 1] = static_cast<uint8_t>(v >> 8);
        }
    }
  }

 private:
  void read_page() {
    uint32_t w = 0, h = 0;
    uint16_t bps = 1, spp = 1, photo = 0, planar = PLANARCONFIG_CONTIG;
    if (!TIFFGetField(tif_.get(), TIFFTAG_IMAGEWIDTH, &w) || !TIFFGetField(tif_.get(), TIFFTAG_IMAGELENGTH, &h))
      fail(name_, "corrupt TIFF: no image size");
    TIFFGetFieldDefaulted(tif_.get(), TIFFTAG_BITSPERSAMPLE, &bps);
    TIFFGetFieldDefaulted(tif_.get(), TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(tif_.get(), TIFFTAG_PLANARCONFIG, &planar);
    if (!TIFFGetField(tif_.get(), TIFFTAG_PHOTOMETRIC, &photo)) photo = PHOTOMETRIC_MINISWHITE;
    if (TIFFIsTiled(tif_.get())) fail(name_, "tiled TIFF is not supported (only strips)");
    if (planar != PLANARCONFIG_CONTIG && spp > 1) fail(name_, "TIFF with separate colour planes is not supported");
    ImageInfo info;
    info.width = static_cast<int>(w);
    info.height = static_cast<int>(h);
    invert16_ = false;
    const bool gray = photo == PHOTOMETRIC_MINISBLACK || photo == PHOTOMETRIC_MINISWHITE;
    if (gray && spp == 1 && (bps == 1 || bps == 2 || bps == 4 || bps == 8)) {
      info.bits = bps;
      info.order = kOrderRgb;
      info.palette = gray_ramp(bps);
      if (photo == PHOTOMETRIC_MINISWHITE) std::reverse(info.palette.begin(), info.palette.end());
    } else if (gray && spp == 1 && bps == 16) {
      info.bits = 16;
      info.order = kOrderGray;
      invert16_ = photo == PHOTOMETRIC_MINISWHITE;
    } else if (photo == PHOTOMETRIC_PALETTE && spp == 1 && (bps == 1 || bps == 2 || bps == 4 || bps == 8)) {
      uint16_t *r = nullptr, *g = nullptr, *b = nullptr;
      if (!TIFFGetField(tif_.get(), TIFFTAG_COLORMAP, &r, &g, &b)) fail(name_, "corrupt TIFF: palette missing");
      info.bits = bps;
      info.order = kOrderRgb;
      info.palette.resize(size_t(1) << bps);
      for (size_t i = 0; i < info.palette.size(); ++i)
        info.palette[i] = Colour{static_cast<uint8_t>(b[i] >> 8), static_cast<uint8_t>(g[i] >> 8),
                                 static_cast<uint8_t>(r[i] >> 8), 0};
    } else if (photo == PHOTOMETRIC_RGB && (spp == 3 || spp == 4) && (bps == 8 || bps == 16)) {
      info.bits = bps * spp;
      info.order = kOrderRgb;
      info.alpha = spp == 4;
    } else {
      fail(name_, "unsupported TIFF layout: photometric " + std::to_string(photo) + ", " + std::to_string(spp) +
                      " samples of " + std::to_string(bps) + " bits");
    }
    // Only after the layout is known: the bits per pixel of an unsupported layout can be anything.
    check_size(name_, w, h, info.bits);
    float xres = 0, yres = 0;
    uint16_t unit = RESUNIT_INCH;
    TIFFGetFieldDefaulted(tif_.get(), TIFFTAG_RESOLUTIONUNIT, &unit);
    if (TIFFGetField(tif_.get(), TIFFTAG_XRESOLUTION, &xres) && TIFFGetField(tif_.get(), TIFFTAG_YRESOLUTION, &yres) &&
        (unit == RESUNIT_INCH || unit == RESUNIT_CENTIMETER) && xres > 0 && yres > 0 && xres < 1e6f && yres < 1e6f) {
      const float f = unit == RESUNIT_CENTIMETER ? 2.54f : 1.0f;
      info.xdpi = static_cast<int>(xres * f + 0.5f);
      info.ydpi = static_cast<int>(yres * f + 0.5f);
    }
    const tmsize_t line = TIFFScanlineSize(tif_.get());
    if (line <= 0 || static_cast<size_t>(line) > info.stride()) fail(name_, "corrupt TIFF: unexpected row size");
    scanline_ = static_cast<size_t>(line);
    info_ = std::move(info);
  }

  std::string name_;
  Handle h_;
  TiffPtr tif_;
  int row_ = 0;
  size_t scanline_ = 0;
  bool invert16_ = false;
};

class TiffEncoder final : public Encoder {
 public:
  TiffEncoder(OutStream& out, const ImageInfo& info, const EncodeOptions& options, std::vector<std::string>* notes)
      : out_(out), options_(options), notes_(notes) {
    h_.fd = out.seekable_fd();
    tif_ = open_handle(h_, "w", out.name());
    if (!tif_) fail(out.name(), std::string("cannot create TIFF: ") + last_error());
    start_page(info);
  }

  void add_page(const ImageInfo& info) override {
    if (!TIFFWriteDirectory(tif_.get())) fail(out_.name(), std::string("cannot write TIFF: ") + last_error());
    start_page(info);
  }

  void write_rows(const uint8_t* src, ptrdiff_t stride, int count) override {
    for (int k = 0; k < count; ++k, ++row_) {
      const uint8_t* s = src + k * stride;
      if (mode_ != Mode::copy) s = convert(s);
      if (TIFFWriteScanline(tif_.get(), const_cast<uint8_t*>(s), static_cast<uint32_t>(row_), 0) < 0)
        fail(out_.name(), std::string("cannot write TIFF: ") + last_error());
    }
  }

  void finish() override {
    const bool ok = TIFFFlush(tif_.get()) != 0;
    tif_.reset();
    if (!ok) fail(out_.name(), std::string("cannot write TIFF: ") + last_error());
    if (h_.fd < 0) out_.write(h_.bytes.data(), h_.bytes.size());
  }

 private:
  enum class Mode { copy, repack, rgb8, swap16, drop_alpha16 };

  void start_page(const ImageInfo& info) {
    src_ = info;
    row_ = 0;
    const std::string& name = out_.name();
    uint16_t photo = PHOTOMETRIC_RGB, bps = 8, spp = 3;
    int bits = info.bits;
    mode_ = Mode::copy;
    std::vector<Colour> palette = info.palette;
    bool bilevel = false;
    if (info.bits <= 8) {
      bits = info.bits == 3 ? 4 : info.bits > 4 && info.bits < 8 ? 8 : info.bits;
      if (bits != info.bits) mode_ = Mode::repack;
      bps = static_cast<uint16_t>(bits);
      spp = 1;
      const auto ramp = gray_ramp(bits);
      std::vector<Colour> reversed(ramp.rbegin(), ramp.rend());
      auto same = [&](const std::vector<Colour>& a) {
        if (palette.size() != a.size()) return false;
        for (size_t i = 0; i < a.size(); ++i)
          if (palette[i].r != a[i].r || palette[i].g != a[i].g || palette[i].b != a[i].b) return false;
        return true;
      };
      if (same(ramp)) photo = PHOTOMETRIC_MINISBLACK;
      else if (same(reversed)) photo = PHOTOMETRIC_MINISWHITE;
      else photo = PHOTOMETRIC_PALETTE;
      bilevel = bits == 1 && photo != PHOTOMETRIC_PALETTE;
    } else if (info.bits == 16 && info.order == kOrderGray) {
      photo = PHOTOMETRIC_MINISBLACK;
      bps = 16;
      spp = 1;
    } else if (info.bits == 16) {
      mode_ = Mode::rgb8;
    } else if (info.bits == 24 || info.bits == 32) {
      spp = info.alpha ? 4 : 3;
      if (info.order != kOrderRgb || (info.bits == 32 && !info.alpha)) mode_ = Mode::rgb8;
    } else {  // 48, 64
      bps = 16;
      spp = info.bits == 64 && info.alpha ? 4 : 3;
      if (info.order != kOrderRgb) mode_ = Mode::swap16;
      else if (info.bits == 64 && !info.alpha) mode_ = Mode::drop_alpha16;
    }
    TiffCompression c = options_.tiff;
    if (c == TiffCompression::automatic) c = bilevel ? TiffCompression::g4 : TiffCompression::lzw;
    if ((c == TiffCompression::g3 || c == TiffCompression::g4) && !bilevel)
      fail(name, "CCITT G3/G4 compression holds black-and-white images only; reduce it first (--reduce 1)");
    static constexpr uint16_t kScheme[] = {COMPRESSION_NONE, COMPRESSION_NONE,     COMPRESSION_PACKBITS, COMPRESSION_LZW,
                                           COMPRESSION_ADOBE_DEFLATE, COMPRESSION_CCITTFAX3, COMPRESSION_CCITTFAX4};
    TIFFSetField(tif_.get(), TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(info.width));
    TIFFSetField(tif_.get(), TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(info.height));
    TIFFSetField(tif_.get(), TIFFTAG_BITSPERSAMPLE, bps);
    TIFFSetField(tif_.get(), TIFFTAG_SAMPLESPERPIXEL, spp);
    TIFFSetField(tif_.get(), TIFFTAG_PHOTOMETRIC, photo);
    TIFFSetField(tif_.get(), TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif_.get(), TIFFTAG_COMPRESSION, kScheme[static_cast<int>(c)]);
    if (spp == 4) {
      const uint16_t extra = EXTRASAMPLE_UNASSALPHA;
      TIFFSetField(tif_.get(), TIFFTAG_EXTRASAMPLES, 1, &extra);
    }
    if (photo == PHOTOMETRIC_PALETTE) {
      std::vector<uint16_t> r(size_t(1) << bits), g(r.size()), b(r.size());
      for (size_t i = 0; i < r.size() && i < palette.size(); ++i)
        r[i] = palette[i].r * 257, g[i] = palette[i].g * 257, b[i] = palette[i].b * 257;
      TIFFSetField(tif_.get(), TIFFTAG_COLORMAP, r.data(), g.data(), b.data());
    }
    if (info.xdpi > 0 && info.ydpi > 0) {
      TIFFSetField(tif_.get(), TIFFTAG_XRESOLUTION, static_cast<float>(info.xdpi));
      TIFFSetField(tif_.get(), TIFFTAG_YRESOLUTION, static_cast<float>(info.ydpi));
      TIFFSetField(tif_.get(), TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    }
    TIFFSetField(tif_.get(), TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif_.get(), 0));
    if (info.bits > 8 && (info.bits != 16 || info.order != kOrderGray) && bps == 8 && notes_ && info.bits != 24 &&
        info.bits != 32)
      notes_->push_back(name + ": 16-bit colour saved with 8 bits per channel");
    buffer_.assign(static_cast<size_t>(info.width) * 8 + 16, 0);
    bits_ = bits;
    spp_ = spp;
  }

  const uint8_t* convert(const uint8_t* s) {
    uint8_t* d = buffer_.data();
    const int w = src_.width;
    switch (mode_) {
      case Mode::repack:
        std::fill(buffer_.begin(), buffer_.end(), 0);
        repack_row(s, src_.bits, d, bits_, w);
        break;
      case Mode::rgb8:
        if (spp_ == 4) {
          row_to_bgr8(src_, s, d, true);  // then swap blue and red
          for (int x = 0; x < w; ++x) std::swap(d[4 * x], d[4 * x + 2]);
        } else {
          row_to_rgb(src_, s, d, false);
        }
        break;
      case Mode::swap16: {
        const size_t n = static_cast<size_t>(src_.bits / 16), out_n = static_cast<size_t>(spp_);
        for (int x = 0; x < w; ++x) {
          const uint8_t* p = s + 2 * n * static_cast<size_t>(x);
          uint8_t* q = d + 2 * out_n * static_cast<size_t>(x);
          for (size_t c = 0; c < 3; ++c) std::memcpy(q + 2 * c, p + 2 * (2 - c), 2);
          if (out_n == 4) std::memcpy(q + 6, p + 6, 2);
        }
        break;
      }
      case Mode::drop_alpha16:
        for (int x = 0; x < w; ++x) std::memcpy(d + 6 * x, s + 8 * x, 6);
        break;
      case Mode::copy:
        return s;
    }
    return d;
  }

  OutStream& out_;
  EncodeOptions options_;
  std::vector<std::string>* notes_;
  Handle h_;
  TiffPtr tif_;
  ImageInfo src_;
  Mode mode_ = Mode::copy;
  int row_ = 0, bits_ = 8, spp_ = 3;
  std::vector<uint8_t> buffer_;
};

}  // namespace

std::unique_ptr<Decoder> open_tiff(InStream& in) { return std::make_unique<TiffDecoder>(in); }

std::unique_ptr<Encoder> tiff_encoder(OutStream& out, const ImageInfo& info, const EncodeOptions& options,
                                      std::vector<std::string>* notes) {
  return std::make_unique<TiffEncoder>(out, info, options, notes);
}

}  // namespace vkimg::codec
