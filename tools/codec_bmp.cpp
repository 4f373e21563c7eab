// codec_bmp.cpp - uncompressed BMP, a block of rows at a time.
//
// BMP rows are padded to 4 bytes like the library's, so most depths go
// straight between the file and the caller's rows.  Files store the bottom
// row first (unless the height is negative); both sides say so through
// bottom_up() and the caller walks its rows that way.
#include <algorithm>

#include "codec_internal.h"

namespace vkimg::codec {
namespace {

constexpr uint32_t kBiRgb = 0, kBiBitfields = 3;

class BmpDecoder final : public Decoder {
 public:
  explicit BmpDecoder(InStream& in) : in_(in) {
    const std::string& name = in.name();
    uint8_t head[14 + 124 + 12] = {};
    if (!in.read_exact(head, 18)) fail(name, head[0] == 'B' ? "truncated header" : "not a BMP file");
    if (head[0] != 'B' || head[1] != 'M') fail(name, "not a BMP file");
    const uint32_t off_bits = rd32le(head + 10);
    const uint32_t hsize = rd32le(head + 14);
    if (hsize != 12 && (hsize < 40 || hsize > 124)) fail(name, "unsupported BMP header size " + std::to_string(hsize));
    if (!in.read_exact(head + 18, hsize - 4)) fail(name, "truncated header");
    size_t pos = 14 + hsize;
    const uint8_t* h = head + 14;
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
    bottom_up_ = height > 0;
    if (height < 0) height = -height;
    if (width < 1 || height < 1 || width > kMaxSide || height > kMaxSide)
      fail(name, "unsupported size " + std::to_string(width) + "x" + std::to_string(height));
    if (bits != 1 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32)
      fail(name, "unsupported bits per pixel " + std::to_string(bits));
    info_.order = kOrderBgr;
    if (compression == kBiBitfields && (bits == 16 || bits == 32)) {
      // Masks live in the header (52 bytes and more) or right after a 40-byte one.
      if (pos < 14 + 40 + 12) {
        if (!in.read_exact(head + pos, 14 + 40 + 12 - pos)) fail(name, "truncated header: colour masks missing");
        pos = 14 + 40 + 12;
      }
      const uint8_t* m = head + 14 + 40;
      const uint32_t r = rd32le(m), g = rd32le(m + 4), bl = rd32le(m + 8);
      const bool ok = bits == 16 ? (r == 0x7C00 && g == 0x3E0 && bl == 0x1F) : (r == 0xFF0000 && g == 0xFF00 && bl == 0xFF);
      if (!ok) fail(name, "unsupported colour masks (only 5-5-5 and 8-8-8 layouts)");
    } else if (compression != kBiRgb) {
      static const char* const kNames[] = {"none", "RLE8", "RLE4", "bit fields", "JPEG", "PNG"};
      fail(name, std::string("unsupported compression ") +
                     (compression < 6 ? kNames[compression] : std::to_string(compression).c_str()));
    }
    info_.width = static_cast<int>(width);
    info_.height = static_cast<int>(height);
    info_.bits = static_cast<int>(bits);
    check_size(name, width, height, info_.bits);
    if (bits <= 8) {
      const size_t entry = hsize == 12 ? 3 : 4;
      size_t count = used ? used : (size_t(1) << bits);
      count = std::min(count, size_t(1) << bits);
      // The palette ends where the pixels start: files with fewer entries than
      // their depth allows (and core headers, which carry no count) say so only there.
      if (off_bits > pos) count = std::min(count, (off_bits - pos) / entry);
      uint8_t pal[256 * 4];
      if (!in.read_exact(pal, count * entry)) fail(name, "truncated palette");
      pos += count * entry;
      info_.palette.resize(count);
      for (size_t i = 0; i < count; ++i)
        info_.palette[i] = Colour{pal[i * entry], pal[i * entry + 1], pal[i * entry + 2], 0};
      info_.order = kOrderRgb;
    }
    info_.xdpi = dpi_from_ppm(xppm);
    info_.ydpi = dpi_from_ppm(yppm);
    // Whatever lies between the headers and the pixels is skipped.
    if (off_bits < pos) fail(name, "corrupt header: pixel data overlaps the header");
    for (size_t skip = off_bits - pos; skip > 0;) {
      uint8_t junk[4096];
      const size_t n = std::min(skip, sizeof junk);
      if (!in.read_exact(junk, n)) fail(name, "truncated: no pixel data");
      skip -= n;
    }
    const uint64_t need = static_cast<uint64_t>(info_.stride()) * static_cast<uint64_t>(height);
    const int64_t have = in.remaining();
    if (have >= 0 && static_cast<uint64_t>(have) < need)
      fail(name, "truncated: pixel data ends after " + std::to_string(have) + " of " + std::to_string(need) + " bytes");
  }

  bool bottom_up() const override { return bottom_up_; }

  void read_rows(uint8_t* dst, ptrdiff_t stride, int count) override {
    const size_t row = info_.stride();
    if (stride == static_cast<ptrdiff_t>(row)) {
      take(dst, row * static_cast<size_t>(count), count);
      return;
    }
    for (int k = 0; k < count; ++k) take(dst + k * stride, row, 1);
  }

 private:
  void take(uint8_t* dst, size_t n, int rows) {
    read_raster(in_, dst, n, done_, info_.height);
    done_ += rows;
  }

  InStream& in_;
  bool bottom_up_ = true;
  int done_ = 0;
};

void put16(std::vector<uint8_t>& out, uint32_t v) {
  out.push_back(static_cast<uint8_t>(v));
  out.push_back(static_cast<uint8_t>(v >> 8));
}
void put32(std::vector<uint8_t>& out, uint32_t v) {
  put16(out, v & 0xFFFF);
  put16(out, v >> 16);
}

class BmpEncoder final : public Encoder {
 public:
  BmpEncoder(OutStream& out, const ImageInfo& src, std::vector<std::string>* notes) : out_(out), src_(src) {
    const std::string& name = out.name();
    auto note = [&](const std::string& s) {
      if (notes) notes->push_back(name + ": " + s);
    };
    bits_ = src.bits;
    if (src.bits == 2 || src.bits == 3) bits_ = 4;
    else if (src.bits >= 5 && src.bits <= 7) bits_ = 8;
    else if (src.bits == 16 && src.order == kOrderGray) {
      note("BMP has no 16-bit gray; saved as 8-bit gray");
      bits_ = 8;
    } else if (src.bits == 48 || src.bits == 64) {
      note("BMP has no 16-bit channels; saved with 8 bits per channel");
      bits_ = src.bits / 2;
    }
    std::vector<Colour> palette = src.palette;
    if (src.bits == 16 && src.order == kOrderGray) palette = gray_ramp(8);
    direct_ = bits_ == src.bits && (bits_ <= 8 || src.order == kOrderBgr);
    stride_ = ImageInfo::stride_for(src.width, bits_);
    size_t colours = 0;
    if (bits_ <= 8) colours = std::clamp<size_t>(palette.size(), 1, size_t(1) << bits_);
    const uint64_t pixels = static_cast<uint64_t>(stride_) * static_cast<uint64_t>(src.height);
    const uint32_t off_bits = static_cast<uint32_t>(14 + 40 + 4 * colours);
    if (pixels + off_bits > 0xFFFFFFFFu) fail(name, "image too large for BMP");
    std::vector<uint8_t> h = {'B', 'M'};
    put32(h, static_cast<uint32_t>(off_bits + pixels));
    put32(h, 0);
    put32(h, off_bits);
    put32(h, 40);
    put32(h, static_cast<uint32_t>(src.width));
    put32(h, static_cast<uint32_t>(src.height));  // bottom-up
    put16(h, 1);
    put16(h, static_cast<uint32_t>(bits_));
    put32(h, kBiRgb);
    put32(h, static_cast<uint32_t>(pixels));
    put32(h, ppm_from_dpi(src.xdpi));
    put32(h, ppm_from_dpi(src.ydpi));
    put32(h, static_cast<uint32_t>(colours));
    put32(h, 0);
    for (size_t i = 0; i < colours; ++i) {
      const Colour c = i < palette.size() ? palette[i] : Colour{};
      h.insert(h.end(), {c.b, c.g, c.r, 0});
    }
    out.write(h.data(), h.size());
    if (!direct_) row_.assign(stride_, 0);
  }

  bool bottom_up() const override { return true; }

  void write_rows(const uint8_t* src, ptrdiff_t stride, int count) override {
    if (direct_ && stride == static_cast<ptrdiff_t>(stride_)) {
      out_.write(src, stride_ * static_cast<size_t>(count));
      return;
    }
    for (int k = 0; k < count; ++k) {
      const uint8_t* s = src + k * stride;
      if (direct_) {
        out_.write(s, stride_);
        continue;
      }
      uint8_t* d = row_.data();
      const int w = src_.width;
      if (bits_ <= 8 && src_.bits <= 8) {
        std::fill(row_.begin(), row_.end(), 0);
        repack_row(s, src_.bits, d, bits_, w);
      } else if (src_.bits == 16 && src_.order == kOrderGray) {
        for (int x = 0; x < w; ++x) d[x] = s[2 * x + 1];  // the high byte
      } else if (src_.bits == 16) {
        // BMP 16-bit is 5-5-5 with red high: order 0 swaps the outer fields.
        for (int x = 0; x < w; ++x) {
          const uint16_t v = rd16le(s + 2 * x);
          const unsigned o = ((v & 31u) << 10) | (v & 0x3E0u) | ((v >> 10) & 31u);
          d[2 * x] = static_cast<uint8_t>(o);
          d[2 * x + 1] = static_cast<uint8_t>(o >> 8);
        }
      } else {
        row_to_bgr8(src_, s, d, bits_ == 32);
      }
      out_.write(d, stride_);
    }
  }

 private:
  OutStream& out_;
  const ImageInfo src_;
  int bits_ = 0;
  bool direct_ = false;
  size_t stride_ = 0;
  std::vector<uint8_t> row_;
};

}  // namespace

std::unique_ptr<Decoder> open_bmp(InStream& in) { return std::make_unique<BmpDecoder>(in); }

std::unique_ptr<Encoder> bmp_encoder(OutStream& out, const ImageInfo& info, std::vector<std::string>* notes) {
  return std::make_unique<BmpEncoder>(out, info, notes);
}

}  // namespace vkimg::codec
