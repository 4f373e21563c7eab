// codec_pnm.cpp - binary PBM, PGM and PPM (P4, P5, P6), a block of rows at a time.
//
// 8-bit gray, 8-bit colour and bilevel rows have the library's layout in the
// file already (colour as order 0, red first): they are read and written
// with no conversion, straight between the file and the caller's rows.
#include <algorithm>
#include <cctype>

#include "codec_internal.h"

namespace vkimg::codec {
namespace {

class PnmDecoder final : public Decoder {
 public:
  explicit PnmDecoder(InStream& in) : in_(in) {
    const std::string& name = in.name();
    if (in.get() != 'P') fail(name, "not a PNM file");
    kind_ = in.get();
    if (kind_ >= '1' && kind_ <= '3') fail(name, "ASCII PNM (P1-P3) is not supported; only binary P4, P5, P6");
    if (kind_ < '4' || kind_ > '6') fail(name, "not a binary PNM file (P4, P5 or P6)");
    const long w = number("width"), h = number("height");
    maxval_ = kind_ == '4' ? 1 : static_cast<int>(number("maximum value"));
    if (!std::isspace(next_)) fail(name, next_ < 0 ? "truncated header" : "corrupt header");
    // Exactly one whitespace character before the raster (already taken).
    if (w < 1 || h < 1 || w > kMaxSide || h > kMaxSide)
      fail(name, "unsupported size " + std::to_string(w) + "x" + std::to_string(h));
    if (maxval_ < 1 || maxval_ > 65535) fail(name, "maximum value " + std::to_string(maxval_) + " out of range");
    const bool wide = maxval_ > 255;
    const size_t channels = kind_ == '6' ? 3 : 1;
    info_.width = static_cast<int>(w);
    info_.height = static_cast<int>(h);
    if (kind_ == '4') {
      info_.bits = 1;
      info_.order = kOrderRgb;
      info_.palette = {Colour{255, 255, 255, 0}, Colour{0, 0, 0, 0}};  // PBM: 1 is black
    } else if (kind_ == '5' && !wide) {
      info_.bits = 8;
      info_.order = kOrderRgb;
      info_.palette = gray_ramp(8);
    } else {
      info_.bits = kind_ == '5' ? 16 : (wide ? 48 : 24);
      info_.order = kind_ == '5' ? kOrderGray : kOrderRgb;
    }
    check_size(name, w, h, info_.bits);
    file_row_ = kind_ == '4' ? (info_.width + size_t(7)) / 8 : size_t(info_.width) * channels * (wide ? 2 : 1);
    const uint64_t need = static_cast<uint64_t>(file_row_) * static_cast<uint64_t>(h);
    const int64_t have = in.remaining();
    if (have >= 0 && static_cast<uint64_t>(have) < need)
      fail(name, "truncated: pixel data ends after " + std::to_string(have) + " of " + std::to_string(need) + " bytes");
    // Samples are scaled to the full 8- or 16-bit range (rounded); values
    // above maxval are clamped.
    direct_ = maxval_ == 255 || kind_ == '4';
    if (!direct_ && !wide) {
      lut_.resize(256);
      for (unsigned v = 0; v < 256; ++v) lut_[v] = static_cast<uint8_t>(std::min(255u, (v * 255 + maxval_ / 2) / maxval_));
    }
    if (!direct_) row_.resize(file_row_);
  }

  void read_rows(uint8_t* dst, ptrdiff_t stride, int count) override {
    const size_t used = info_.stride();
    if (direct_ && used == file_row_ && stride == static_cast<ptrdiff_t>(used)) {
      take(dst, file_row_ * static_cast<size_t>(count), count);
      return;
    }
    for (int k = 0; k < count; ++k) {
      uint8_t* d = dst + k * stride;
      if (direct_) {
        take(d, file_row_, 1);
        std::memset(d + file_row_, 0, used - file_row_);
        continue;
      }
      take(row_.data(), file_row_, 1);
      std::memset(d, 0, used);
      const uint8_t* s = row_.data();
      if (maxval_ <= 255) {
        for (size_t i = 0; i < file_row_; ++i) d[i] = lut_[s[i]];
      } else {
        for (size_t i = 0; i < file_row_ / 2; ++i) {
          const unsigned v = static_cast<unsigned>((s[2 * i] << 8) | s[2 * i + 1]);
          const auto x = static_cast<uint16_t>(std::min<uint64_t>(65535, (uint64_t(v) * 65535 + maxval_ / 2) / maxval_));
          d[2 * i] = static_cast<uint8_t>(x);
          d[2 * i + 1] = static_cast<uint8_t>(x >> 8);
        }
      }
    }
  }

 private:
  // The header's next decimal number; comments run to the end of their line.
  long number(const char* what) {
    int c = in_.get();
    for (;;) {
      if (c < 0) fail(in_.name(), std::string("truncated header: ") + what + " missing");
      if (c == '#') {
        while (c >= 0 && c != '\n' && c != '\r') c = in_.get();
      } else if (std::isspace(c)) {
        c = in_.get();
      } else {
        break;
      }
    }
    if (!std::isdigit(c)) fail(in_.name(), std::string("corrupt header: bad ") + what);
    long v = 0;
    while (c >= 0 && std::isdigit(c)) {
      v = v * 10 + (c - '0');
      if (v > 1000000000L) fail(in_.name(), std::string("corrupt header: ") + what + " too large");
      c = in_.get();
    }
    next_ = c;
    return v;
  }

  void take(uint8_t* dst, size_t n, int rows) {
    read_raster(in_, dst, n, done_, info_.height);
    done_ += rows;
  }

  InStream& in_;
  int kind_ = 0, next_ = -1, maxval_ = 1, done_ = 0;
  size_t file_row_ = 0;
  bool direct_ = false;
  std::vector<uint8_t> lut_, row_;
};

bool is_black_white(const ImageInfo& img) {
  if (img.bits != 1 || img.palette.size() < 2) return false;
  auto bw = [](const Colour& c) { return (c.r == 0 && c.g == 0 && c.b == 0) || (c.r == 255 && c.g == 255 && c.b == 255); };
  return bw(img.palette[0]) && bw(img.palette[1]) && !(img.palette[0] == img.palette[1]);
}

class PnmEncoder final : public Encoder {
 public:
  PnmEncoder(OutStream& out, Format format, const ImageInfo& info, std::vector<std::string>* notes)
      : out_(out), info_(info) {
    const std::string& name = out.name();
    if (format == Format::pnm) {
      if (is_black_white(info)) format = Format::pbm;
      else if ((info.bits <= 8 && info.palette_is_gray()) || (info.bits == 16 && info.order == kOrderGray))
        format = Format::pgm;
      else format = Format::ppm;
    }
    const size_t w = static_cast<size_t>(info.width);
    int maxval = 255;
    char kind = '6';
    if (format == Format::pbm) {
      if (info.bits != 1) fail(name, "PBM holds 1-bit images only; reduce it first (--reduce 1)");
      kind = '4';
      // Bit 1 is black: an index is black when its entry is darker than mid gray.
      for (size_t i = 0; i < 2; ++i) {
        const Colour c = i < info.palette.size() ? info.palette[i] : Colour{};
        ink_[i] = gray_level(c.r, c.g, c.b) < 128 ? 1 : 0;
      }
      mode_ = ink_[0] == 0 && ink_[1] == 1 ? Mode::copy : Mode::bilevel;
      file_row_ = (w + 7) / 8;
    } else if (format == Format::pgm) {
      kind = '5';
      if (info.bits == 16 && info.order == kOrderGray) {
        maxval = 65535;
        mode_ = Mode::gray16;
        file_row_ = 2 * w;
      } else {
        if (info.bits > 8 || !info.palette_is_gray())
          fail(name, "PGM holds gray images only; convert it first (--gray 8 or --gray 16)");
        mode_ = info.bits == 8 && info.is_gray_ramp() ? Mode::copy : Mode::gray_lut;
        for (size_t i = 0; i < 256; ++i) lut_[i] = i < info.palette.size() ? info.palette[i].r : 0;
        file_row_ = w;
      }
    } else {
      // 16-bit samples when the picture has more than 8 bits per channel.
      wide_ = info.bits == 48 || info.bits == 64 || (info.bits == 16 && info.order == kOrderGray);
      if (wide_) maxval = 65535;
      if (info.alpha && notes) notes->push_back(name + ": PPM has no alpha channel; alpha dropped");
      mode_ = info.bits == 24 && info.order == kOrderRgb ? Mode::copy : Mode::rgb;
      file_row_ = w * 3 * (wide_ ? 2 : 1);
    }
    std::string h = std::string("P") + kind + "\n" + std::to_string(info.width) + " " + std::to_string(info.height) + "\n";
    if (kind != '4') h += std::to_string(maxval) + "\n";
    out.write(h.data(), h.size());
    if (mode_ != Mode::copy) row_.resize(file_row_ + 8);
  }

  void write_rows(const uint8_t* src, ptrdiff_t stride, int count) override {
    if (mode_ == Mode::copy && stride == static_cast<ptrdiff_t>(file_row_)) {
      out_.write(src, file_row_ * static_cast<size_t>(count));
      return;
    }
    for (int k = 0; k < count; ++k) {
      const uint8_t* s = src + k * stride;
      if (mode_ == Mode::copy) {
        out_.write(s, file_row_);
        continue;
      }
      uint8_t* d = row_.data();
      switch (mode_) {
        case Mode::bilevel: {
          // ink {1, 0}: inverted; {0, 0} or {1, 1}: one colour.
          const uint8_t flip = ink_[0] ? 0xFF : 0x00, keep = ink_[0] == ink_[1] ? 0x00 : 0xFF;
          for (size_t i = 0; i < file_row_; ++i) d[i] = static_cast<uint8_t>((s[i] & keep) ^ flip);
          break;
        }
        case Mode::gray16:
          for (size_t i = 0; i < file_row_; i += 2) d[i] = s[i + 1], d[i + 1] = s[i];
          break;
        case Mode::gray_lut:
          for (int x = 0; x < info_.width; ++x) d[x] = lut_[index_in_row(s, info_.bits, x)];
          break;
        default:
          row_to_rgb(info_, s, d, wide_);
          break;
      }
      out_.write(d, file_row_);
    }
  }

 private:
  enum class Mode { copy, bilevel, gray16, gray_lut, rgb };
  OutStream& out_;
  const ImageInfo info_;
  Mode mode_ = Mode::copy;
  bool wide_ = false;
  uint8_t ink_[2] = {0, 1};
  uint8_t lut_[256] = {};
  size_t file_row_ = 0;
  std::vector<uint8_t> row_;
};

}  // namespace

std::unique_ptr<Decoder> open_pnm(InStream& in) { return std::make_unique<PnmDecoder>(in); }

std::unique_ptr<Encoder> pnm_encoder(OutStream& out, Format format, const ImageInfo& info,
                                     std::vector<std::string>* notes) {
  return std::make_unique<PnmEncoder>(out, format, info, notes);
}

}  // namespace vkimg::codec
