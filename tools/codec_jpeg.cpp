// codec_jpeg.cpp - JPEG through libjpeg-turbo, one scanline at a time.
//
// libjpeg reports errors by calling error_exit, which here long-jumps back
// to the function that set the jump point; as in the PNG codec, those
// functions keep only trivially destructible objects alive across the
// library calls.  Warnings (corrupt data, a premature end) are errors too:
// a damaged file is reported, not shown with gray blocks.
#include <cstdio>
// jpeglib.h needs size_t and FILE declared first.
#include <jerror.h>
#include <jpeglib.h>

#include <algorithm>
#include <csetjmp>

#include "codec_internal.h"

namespace vkimg::codec {
namespace {

struct JpegErr {
  jpeg_error_mgr mgr;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

void on_error(j_common_ptr cinfo) {
  auto* err = reinterpret_cast<JpegErr*>(cinfo->err);
  (*cinfo->err->format_message)(cinfo, err->message);
  std::longjmp(err->jump, 1);
}
void on_message(j_common_ptr cinfo, int level) {
  if (level < 0) on_error(cinfo);  // a warning: the data are damaged
}

// ---- source: the stream through a 64 KiB buffer ----

struct Source {
  jpeg_source_mgr mgr;
  InStream* in;
  JOCTET buffer[65536];
};

void src_init(j_decompress_ptr) {}
boolean src_fill(j_decompress_ptr cinfo) {
  auto* s = reinterpret_cast<Source*>(cinfo->src);
  const size_t n = s->in->read(s->buffer, sizeof s->buffer);
  if (n == 0) ERREXIT(cinfo, JERR_INPUT_EOF);  // truncated: an error, not a fake end marker
  s->mgr.next_input_byte = s->buffer;
  s->mgr.bytes_in_buffer = n;
  return TRUE;
}
void src_skip(j_decompress_ptr cinfo, long count) {
  auto* s = reinterpret_cast<Source*>(cinfo->src);
  while (count > static_cast<long>(s->mgr.bytes_in_buffer)) {
    count -= static_cast<long>(s->mgr.bytes_in_buffer);
    src_fill(cinfo);
  }
  s->mgr.next_input_byte += count;
  s->mgr.bytes_in_buffer -= static_cast<size_t>(count);
}
void src_term(j_decompress_ptr) {}

class JpegDecoder final : public Decoder {
 public:
  explicit JpegDecoder(InStream& in) : in_(in) {
    cinfo_.err = jpeg_std_error(&err_.mgr);
    err_.mgr.error_exit = on_error;
    err_.mgr.emit_message = on_message;
    src_.in = &in;
    src_.mgr.init_source = src_init;
    src_.mgr.fill_input_buffer = src_fill;
    src_.mgr.skip_input_data = src_skip;
    src_.mgr.resync_to_restart = jpeg_resync_to_restart;
    src_.mgr.term_source = src_term;
    src_.mgr.bytes_in_buffer = 0;
    src_.mgr.next_input_byte = nullptr;
    if (!start()) {
      jpeg_destroy_decompress(&cinfo_);
      fail(in.name(), std::string("corrupt JPEG: ") + err_.message);
    }
    if (info_.bits == 8) info_.palette = gray_ramp(8);
    if (cmyk_) row_.resize(static_cast<size_t>(info_.width) * 4);
  }
  ~JpegDecoder() override { jpeg_destroy_decompress(&cinfo_); }

  void read_rows(uint8_t* dst, ptrdiff_t stride, int count) override {
    if (!rows(dst, stride, count)) fail(in_.name(), std::string("corrupt JPEG: ") + err_.message);
  }
  void finish() override {
    if (!end()) fail(in_.name(), std::string("corrupt JPEG: ") + err_.message);
  }

 private:
  bool start() {
    if (setjmp(err_.jump)) return false;
    jpeg_create_decompress(&cinfo_);
    cinfo_.src = &src_.mgr;
    jpeg_read_header(&cinfo_, TRUE);
    if (cinfo_.image_width > static_cast<unsigned>(kMaxSide) || cinfo_.image_height > static_cast<unsigned>(kMaxSide) ||
        uint64_t(cinfo_.image_width) * cinfo_.image_height * 3 > max_image_bytes) {
      std::snprintf(err_.message, sizeof err_.message, "unsupported size %ux%u", cinfo_.image_width, cinfo_.image_height);
      return false;
    }
    switch (cinfo_.jpeg_color_space) {
      case JCS_GRAYSCALE:
        cinfo_.out_color_space = JCS_GRAYSCALE;
        info_.bits = 8;
        info_.order = kOrderRgb;
        break;
      case JCS_CMYK:
      case JCS_YCCK:
        cinfo_.out_color_space = JCS_CMYK;  // turned into colour below, row by row
        cmyk_ = true;
        info_.bits = 24;
        break;
      default:
        cinfo_.out_color_space = JCS_EXT_BGR;
        info_.bits = 24;
        break;
    }
    if (info_.bits == 24) info_.order = kOrderBgr;
    info_.width = static_cast<int>(cinfo_.image_width);
    info_.height = static_cast<int>(cinfo_.image_height);
    if (cinfo_.density_unit == 1 || cinfo_.density_unit == 2) {
      // Dots per centimetre are 2.54 times fewer than per inch.
      auto dpi = [&](unsigned d) { return cinfo_.density_unit == 1 ? int(d) : int((d * 254u + 50) / 100); };
      info_.xdpi = dpi(cinfo_.X_density);
      info_.ydpi = dpi(cinfo_.Y_density);
    }
    adobe_ = cinfo_.saw_Adobe_marker;
    jpeg_start_decompress(&cinfo_);
    return true;
  }

  bool rows(uint8_t* dst, ptrdiff_t stride, int count) {
    if (setjmp(err_.jump)) return false;
    for (int k = 0; k < count; ++k) {
      uint8_t* d = dst + k * stride;
      JSAMPROW row = cmyk_ ? row_.data() : d;
      if (jpeg_read_scanlines(&cinfo_, &row, 1) != 1) ERREXIT(&cinfo_, JERR_INPUT_EOF);
      if (cmyk_) cmyk_to_bgr(row_.data(), d);
    }
    return true;
  }

  // Adobe's files store CMYK inverted (255 = no ink); others plainly.
  void cmyk_to_bgr(const uint8_t* s, uint8_t* d) const {
    for (int x = 0; x < info_.width; ++x, s += 4, d += 3) {
      unsigned c = s[0], m = s[1], y = s[2], k = s[3];
      if (!adobe_) c = 255 - c, m = 255 - m, y = 255 - y, k = 255 - k;
      d[0] = static_cast<uint8_t>((y * k + 127) / 255);
      d[1] = static_cast<uint8_t>((m * k + 127) / 255);
      d[2] = static_cast<uint8_t>((c * k + 127) / 255);
    }
  }

  bool end() {
    if (setjmp(err_.jump)) return false;
    jpeg_finish_decompress(&cinfo_);
    return true;
  }

  InStream& in_;
  jpeg_decompress_struct cinfo_{};
  JpegErr err_{};
  Source src_{};
  bool cmyk_ = false, adobe_ = false;
  std::vector<uint8_t> row_;
};

// ---- destination: the stream through a 64 KiB buffer ----

struct Dest {
  jpeg_destination_mgr mgr;
  OutStream* out;
  char message[256];
  JOCTET buffer[65536];
};

void dst_init(j_compress_ptr cinfo) {
  auto* d = reinterpret_cast<Dest*>(cinfo->dest);
  d->mgr.next_output_byte = d->buffer;
  d->mgr.free_in_buffer = sizeof d->buffer;
}
bool dst_put(j_compress_ptr cinfo, size_t n) {
  auto* d = reinterpret_cast<Dest*>(cinfo->dest);
  try {
    d->out->write(d->buffer, n);
    return true;
  } catch (const std::exception& e) {
    std::snprintf(d->message, sizeof d->message, "%s", e.what());
    return false;
  }
}
boolean dst_empty(j_compress_ptr cinfo) {
  auto* d = reinterpret_cast<Dest*>(cinfo->dest);
  if (!dst_put(cinfo, sizeof d->buffer)) ERREXIT(cinfo, JERR_FILE_WRITE);
  dst_init(cinfo);
  return TRUE;
}
void dst_term(j_compress_ptr cinfo) {
  auto* d = reinterpret_cast<Dest*>(cinfo->dest);
  if (!dst_put(cinfo, sizeof d->buffer - d->mgr.free_in_buffer)) ERREXIT(cinfo, JERR_FILE_WRITE);
}

class JpegEncoder final : public Encoder {
 public:
  JpegEncoder(OutStream& out, const ImageInfo& src, const EncodeOptions& opt, std::vector<std::string>* notes)
      : out_(out), src_(src) {
    const std::string& name = out.name();
    gray_ = (src.bits <= 8 && src.palette_is_gray()) || (src.bits == 16 && src.order == kOrderGray);
    J_COLOR_SPACE space = JCS_RGB;
    if (gray_) {
      space = JCS_GRAYSCALE;
      convert_ = !(src.bits == 8 && src.is_gray_ramp());
    } else if (src.bits == 24 || src.bits == 32) {
      const bool bgr = src.order == kOrderBgr;
      space = src.bits == 24 ? (bgr ? JCS_EXT_BGR : JCS_RGB) : (bgr ? JCS_EXT_BGRX : JCS_EXT_RGBX);
    } else {
      convert_ = true;
    }
    if (notes) {
      if (src.bits == 48 || src.bits == 64 || src.bits == 16) notes->push_back(name + ": JPEG holds 8 bits per channel");
      if (src.alpha) notes->push_back(name + ": JPEG has no alpha channel; alpha dropped");
    }
    if (convert_) {
      row_.resize(static_cast<size_t>(src.width) * 6 + 8);
      if (gray_ && src.bits <= 8)
        for (size_t i = 0; i < 256; ++i) lut_[i] = i < src.palette.size() ? src.palette[i].r : 0;
    }
    cinfo_.err = jpeg_std_error(&err_.mgr);
    err_.mgr.error_exit = on_error;
    dest_.out = &out;
    dest_.mgr.init_destination = dst_init;
    dest_.mgr.empty_output_buffer = dst_empty;
    dest_.mgr.term_destination = dst_term;
    if (!start(space, std::clamp(opt.quality, 1, 100))) {
      jpeg_destroy_compress(&cinfo_);
      fail(name, std::string("cannot encode JPEG: ") + message());
    }
  }
  ~JpegEncoder() override { jpeg_destroy_compress(&cinfo_); }

  void write_rows(const uint8_t* src, ptrdiff_t stride, int count) override {
    for (int k = 0; k < count; ++k) {
      const uint8_t* s = src + k * stride;
      if (convert_) {
        uint8_t* d = row_.data();
        if (gray_ && src_.bits == 16) {
          for (int x = 0; x < src_.width; ++x) d[x] = s[2 * x + 1];
        } else if (gray_) {
          for (int x = 0; x < src_.width; ++x) d[x] = lut_[index_in_row(s, src_.bits, x)];
        } else {
          row_to_rgb(src_, s, d, false);
        }
        s = d;
      }
      if (!row(s)) fail(out_.name(), std::string("cannot encode JPEG: ") + message());
    }
  }
  void finish() override {
    if (!end()) fail(out_.name(), std::string("cannot encode JPEG: ") + message());
  }

 private:
  const char* message() const { return dest_.message[0] ? dest_.message : err_.message; }

  bool start(J_COLOR_SPACE space, int quality) {
    if (setjmp(err_.jump)) return false;
    jpeg_create_compress(&cinfo_);
    cinfo_.dest = &dest_.mgr;
    cinfo_.image_width = static_cast<JDIMENSION>(src_.width);
    cinfo_.image_height = static_cast<JDIMENSION>(src_.height);
    cinfo_.in_color_space = space;
    cinfo_.input_components = space == JCS_GRAYSCALE ? 1 : space == JCS_EXT_BGRX || space == JCS_EXT_RGBX ? 4 : 3;
    jpeg_set_defaults(&cinfo_);
    jpeg_set_quality(&cinfo_, quality, TRUE);
    if (src_.xdpi > 0 && src_.ydpi > 0 && src_.xdpi <= 65535 && src_.ydpi <= 65535) {
      cinfo_.density_unit = 1;
      cinfo_.X_density = static_cast<UINT16>(src_.xdpi);
      cinfo_.Y_density = static_cast<UINT16>(src_.ydpi);
    }
    jpeg_start_compress(&cinfo_, TRUE);
    return true;
  }
  bool row(const uint8_t* s) {
    if (setjmp(err_.jump)) return false;
    JSAMPROW r = const_cast<JSAMPROW>(s);
    jpeg_write_scanlines(&cinfo_, &r, 1);
    return true;
  }
  bool end() {
    if (setjmp(err_.jump)) return false;
    jpeg_finish_compress(&cinfo_);
    return true;
  }

  OutStream& out_;
  const ImageInfo src_;
  jpeg_compress_struct cinfo_{};
  JpegErr err_{};
  Dest dest_{};
  bool gray_ = false, convert_ = false;
  uint8_t lut_[256] = {};
  std::vector<uint8_t> row_;
};

}  // namespace

std::unique_ptr<Decoder> open_jpeg(InStream& in) { return std::make_unique<JpegDecoder>(in); }

std::unique_ptr<Encoder> jpeg_encoder(OutStream& out, const ImageInfo& info, const EncodeOptions& options,
                                      std::vector<std::string>* notes) {
  return std::make_unique<JpegEncoder>(out, info, options, notes);
}

}  // namespace vkimg::codec
