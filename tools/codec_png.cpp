// codec_png.cpp - PNG through libpng, one row at a time.
//
// libpng reports errors by a long jump back to the function that set it up.
// Every function here that calls into libpng sets its own jump point and
// keeps only trivially destructible objects alive across the calls, so the
// jump skips no destructor; the error becomes an IoError once back in
// ordinary C++.
#include <png.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>

#include "codec_internal.h"

namespace vkimg::codec {
namespace {

struct PngIo {
  InStream* in = nullptr;
  OutStream* out = nullptr;
  char message[256] = {};
};

void on_error(png_structp png, png_const_charp msg) {
  auto* io = static_cast<PngIo*>(png_get_error_ptr(png));
  if (!io->message[0]) std::snprintf(io->message, sizeof io->message, "%s", msg ? msg : "unknown error");
  png_longjmp(png, 1);
}
void on_warning(png_structp, png_const_charp) {}

void on_read(png_structp png, png_bytep data, png_size_t length) {
  auto* io = static_cast<PngIo*>(png_get_io_ptr(png));
  if (io->in->read(data, length) == length) return;
  std::snprintf(io->message, sizeof io->message, "%s%s", io->in->error().empty() ? "file is truncated" : "read error: ",
                io->in->error().c_str());
  png_error(png, io->message);
}

void on_write(png_structp png, png_bytep data, png_size_t length) {
  auto* io = static_cast<PngIo*>(png_get_io_ptr(png));
  try {
    io->out->write(data, length);
  } catch (const std::exception& e) {
    std::snprintf(io->message, sizeof io->message, "%s", e.what());
    png_error(png, io->message);
  }
}
void on_flush(png_structp) {}

// Runs one libpng step; an error inside it comes back as false (on_error has
// kept the message).  The steps hold no objects with destructors, so the jump
// out of them skips nothing.
template <class Step>
bool guarded(png_structp png, Step step) {
  if (setjmp(png_jmpbuf(png))) return false;
  step();
  return true;
}

class PngDecoder final : public Decoder {
 public:
  explicit PngDecoder(InStream& in) {
    io_.in = &in;
    png_ = png_create_read_struct(PNG_LIBPNG_VER_STRING, &io_, on_error, on_warning);
    if (png_) info_png_ = png_create_info_struct(png_);
    const bool ok = png_ && info_png_ && start();
    if (!ok) {
      png_destroy_read_struct(&png_, &info_png_, nullptr);
      fail(in.name(), std::string("corrupt PNG: ") + (io_.message[0] ? io_.message : "out of memory"));
    }
    if (palette_count_ > 0) info_.palette.assign(palette_, palette_ + palette_count_);
    else if (gray_) info_.palette = gray_ramp(info_.bits);
  }
  ~PngDecoder() override { png_destroy_read_struct(&png_, &info_png_, nullptr); }

  bool whole_image() const override { return passes_ > 1; }

  void read_rows(uint8_t* dst, ptrdiff_t stride, int count) override {
    if (!rows(dst, stride, count)) fail(io_.in->name(), std::string("corrupt PNG: ") + io_.message);
  }
  void finish() override {
    if (!end()) fail(io_.in->name(), std::string("corrupt PNG: ") + io_.message);
  }

 private:
  bool start() {
    png_structp png = png_;
    png_infop info = info_png_;
    if (setjmp(png_jmpbuf(png))) return false;
    png_set_read_fn(png, &io_, on_read);
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
          info_.alpha = true;
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
        info_.alpha = true;
        break;
      case PNG_COLOR_TYPE_RGB:
        png_set_bgr(png);
        bits = depth == 16 ? 48 : 24;
        break;
      case PNG_COLOR_TYPE_RGB_ALPHA:
        png_set_bgr(png);
        bits = depth == 16 ? 64 : 32;
        info_.alpha = true;
        break;
      default:
        png_error(png, "unknown colour type");
    }
    if (depth == 16) png_set_swap(png);  // the library's 16-bit samples are little-endian
    passes_ = png_set_interlace_handling(png);
    png_read_update_info(png, info);
    if (static_cast<uint64_t>(ImageInfo::stride_for(static_cast<int>(w), bits)) * h > max_image_bytes)
      png_error(png, "image too large");
    // Deflate packs at most about 1032 bytes into one, so a file too short to
    // hold even the smallest rows its header claims is refused before the
    // picture is allocated (a few bytes must not make us zero gigabytes).
    const uint64_t least_raw = static_cast<uint64_t>(h) * (1 + (static_cast<uint64_t>(w) * depth + 7) / 8);
    const int64_t left = io_.in->remaining();
    if (left >= 0 && static_cast<uint64_t>(left) * 1032 < least_raw) png_error(png, "file is truncated");
    if (png_get_rowbytes(png, info) > ImageInfo::stride_for(static_cast<int>(w), bits))
      png_error(png, "unexpected row size");
    info_.width = static_cast<int>(w);
    info_.height = static_cast<int>(h);
    info_.bits = bits;
    info_.order = bits <= 8 ? kOrderRgb : order;
    if (palette) {
      png_colorp entries = nullptr;
      int count = 0;
      if (!png_get_PLTE(png, info, &entries, &count)) png_error(png, "palette missing");
      palette_count_ = std::min(count, 1 << bits);
      for (int i = 0; i < palette_count_; ++i) palette_[i] = Colour{entries[i].blue, entries[i].green, entries[i].red, 0};
    }
    gray_ = gray;
    png_uint_32 xppm = 0, yppm = 0;
    int unit = 0;
    if (png_get_pHYs(png, info, &xppm, &yppm, &unit) && unit == PNG_RESOLUTION_METER) {
      info_.xdpi = dpi_from_ppm(xppm);
      info_.ydpi = dpi_from_ppm(yppm);
    }
    return true;
  }

  bool rows(uint8_t* dst, ptrdiff_t stride, int count) {
    // Interlaced files: every pass over all rows, each row refined in place.
    return guarded(png_, [&] {
      for (int pass = 0; pass < passes_; ++pass)
        for (int k = 0; k < count; ++k) png_read_row(png_, dst + k * stride, nullptr);
    });
  }

  bool end() {
    return guarded(png_, [&] { png_read_end(png_, nullptr); });
  }

  PngIo io_;
  png_structp png_ = nullptr;
  png_infop info_png_ = nullptr;
  int passes_ = 1;
  Colour palette_[256];
  int palette_count_ = 0;
  bool gray_ = false;
};

class PngEncoder final : public Encoder {
 public:
  PngEncoder(OutStream& out, const ImageInfo& src, std::vector<std::string>* notes) : src_(src) {
    io_.out = &out;
    const std::string& name = out.name();
    if (src.bits <= 8) {
      depth_ = src.bits == 3 ? 4 : src.bits > 4 ? 8 : src.bits;
      ctype_ = src.is_gray_ramp() && depth_ == src.bits ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_PALETTE;
      if (ctype_ == PNG_COLOR_TYPE_PALETTE) {
        // Indices beyond the palette are written as they are; readers show black.
        count_ = static_cast<int>(std::clamp<size_t>(src.palette.size(), 1, size_t(1) << depth_));
        for (int i = 0; i < count_; ++i) {
          const Colour c = static_cast<size_t>(i) < src.palette.size() ? src.palette[size_t(i)] : Colour{};
          plte_[i] = png_color{c.r, c.g, c.b};
        }
      }
    } else if (src.bits == 16 && src.order == kOrderGray) {
      ctype_ = PNG_COLOR_TYPE_GRAY;
      depth_ = 16;
    } else if (src.bits == 16) {
      ctype_ = PNG_COLOR_TYPE_RGB;
      depth_ = 8;
    } else {
      depth_ = src.bits >= 48 ? 16 : 8;
      strip_filler_ = (src.bits == 32 || src.bits == 64) && !src.alpha;
      ctype_ = src.alpha && !strip_filler_ ? PNG_COLOR_TYPE_RGB_ALPHA : PNG_COLOR_TYPE_RGB;
      if (strip_filler_ && notes) notes->push_back(name + ": fourth channel is zero everywhere; saved without alpha");
    }
    convert_ = (src.bits <= 8 && depth_ != src.bits) || (src.bits == 16 && src.order != kOrderGray);
    if (convert_) row_.assign(ImageInfo::stride_for(src.width, src.bits == 16 ? 24 : depth_) + 8, 0);
    png_ = png_create_write_struct(PNG_LIBPNG_VER_STRING, &io_, on_error, on_warning);
    if (png_) info_png_ = png_create_info_struct(png_);
    const bool ok = png_ && info_png_ && start();
    if (!ok) {
      png_destroy_write_struct(&png_, &info_png_);
      fail(name, std::string("cannot encode PNG: ") + (io_.message[0] ? io_.message : "out of memory"));
    }
  }
  ~PngEncoder() override { png_destroy_write_struct(&png_, &info_png_); }

  void write_rows(const uint8_t* src, ptrdiff_t stride, int count) override {
    for (int k = 0; k < count; ++k) {
      const uint8_t* s = src + k * stride;
      if (convert_) {
        uint8_t* d = row_.data();
        if (src_.bits <= 8) {
          std::fill(row_.begin(), row_.end(), 0);
          repack_row(s, src_.bits, d, depth_, src_.width);
        } else {
          row_to_bgr8(src_, s, d, false);
        }
        s = d;
      }
      if (!row(s)) fail(io_.out->name(), std::string("cannot encode PNG: ") + io_.message);
    }
  }
  void finish() override {
    if (!end()) fail(io_.out->name(), std::string("cannot encode PNG: ") + io_.message);
  }

 private:
  bool start() {
    png_structp png = png_;
    png_infop info = info_png_;
    if (setjmp(png_jmpbuf(png))) return false;
    png_set_write_fn(png, &io_, on_write, on_flush);
    png_set_IHDR(png, info, static_cast<png_uint_32>(src_.width), static_cast<png_uint_32>(src_.height), depth_, ctype_,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (ctype_ == PNG_COLOR_TYPE_PALETTE) {
      png_set_PLTE(png, info, plte_, count_);
      png_set_check_for_invalid_index(png, 0);
    }
    if (src_.xdpi > 0 && src_.ydpi > 0)
      png_set_pHYs(png, info, ppm_from_dpi(src_.xdpi), ppm_from_dpi(src_.ydpi), PNG_RESOLUTION_METER);
    png_write_info(png, info);
    const bool bgr = (src_.bits >= 24 && src_.order == kOrderBgr) || (src_.bits == 16 && src_.order != kOrderGray);
    if (bgr) png_set_bgr(png);
    if (depth_ == 16) png_set_swap(png);
    if (strip_filler_) png_set_filler(png, 0, PNG_FILLER_AFTER);
    return true;
  }
  bool row(const uint8_t* s) {
    return guarded(png_, [&] { png_write_row(png_, s); });
  }
  bool end() {
    return guarded(png_, [&] { png_write_end(png_, nullptr); });
  }

  PngIo io_;
  const ImageInfo src_;
  png_structp png_ = nullptr;
  png_infop info_png_ = nullptr;
  int ctype_ = 0, depth_ = 8, count_ = 0;
  bool strip_filler_ = false, convert_ = false;
  png_color plte_[256] = {};
  std::vector<uint8_t> row_;
};

}  // namespace

std::unique_ptr<Decoder> open_png(InStream& in) { return std::make_unique<PngDecoder>(in); }

std::unique_ptr<Encoder> png_encoder(OutStream& out, const ImageInfo& info, std::vector<std::string>* notes) {
  return std::make_unique<PngEncoder>(out, info, notes);
}

}  // namespace vkimg::codec
