// bitmap.cpp - codec pictures in and out of library bitmaps.
#include "bitmap.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include "ops.h"
#include "result_names.h"
#include "streams.h"

namespace vkimg {

Bitmap& Bitmap::operator=(Bitmap&& o) noexcept {
  if (this != &o) {
    reset();
    h_ = o.h_;
    owned_ = o.owned_;
    o.owned_ = false;
  }
  return *this;
}

BitmapHandle Bitmap::release() {
  owned_ = false;
  return h_;
}

void Bitmap::reset() {
  if (owned_) V_FreeBitmap(&h_);
  owned_ = false;
  h_ = BitmapHandle{};
}

int32_t storage_row(const BitmapHandle& bm, int32_t y) {
  return bm.ViewPerspective == 2 ? bm.Height - 1 - y : y;
}

// What the file gets: the record's layout, or the nearest one the codecs
// have (the record need not have storage).
ImageInfo rows_info(BitmapHandle& bm) {
  const int bits = bm.BitsPerPixel;
  ImageInfo img;
  img.width = bm.Width;
  img.height = bm.Height;
  img.bits = bits == 12 ? 16 : bits;
  img.order = bm.Order;
  if (bits == 12) img.order = ORDER_GRAY;
  if (bm.Order == ORDER_BGR_ALT && (bits == 24 || bits == 48)) img.order = ORDER_BGR;
  if (bits == 16 && bm.Order != ORDER_GRAY && bm.Order != ORDER_RGB) img.order = ORDER_BGR;
  if (bits <= 8) img.order = ORDER_RGB;
  img.xdpi = bm.XResolution;
  img.ydpi = bm.YResolution;
  if (bits <= 8) {
    std::vector<RGBQUAD> pal(size_t(1) << bits);
    const int32_t n = bm.Palette ? V_GetBitmapPaletteEntries(&bm, 0, static_cast<int32_t>(pal.size()), pal.data()) : 0;
    const size_t count = bm.ColorCount && bm.ColorCount < pal.size() ? bm.ColorCount : pal.size();
    img.palette.resize(n > 0 ? std::min<size_t>(count, static_cast<size_t>(n)) : 0);
    for (size_t i = 0; i < img.palette.size(); ++i)
      img.palette[i] = Colour{pal[i].rgbBlue, pal[i].rgbGreen, pal[i].rgbRed, 0};
    if (img.palette.empty()) throw LibraryError("the bitmap's palette cannot be read", RESULT_FAIL);
  }
  return img;
}

namespace {

// Rows moved per block: big enough that the per-call costs vanish, small
// enough to stay in cache and keep Ctrl-C prompt.
constexpr size_t kBlockBytes = size_t(2) << 20;

// TYPE_USER makes a record with no pixels, as the rows' description.
Bitmap create_bitmap(const ImageInfo& img, int memory_type) {
  if (img.bits == 3 || img.bits == 5 || img.bits == 6 || img.bits == 7 || img.bits == 12)
    throw LibraryError("unexpected picture depth", RESULT_BAD_BITS_PER_PIXEL);
  if (static_cast<uint64_t>(img.stride()) * static_cast<uint64_t>(img.height) > 0xFFFFFFFFull)
    throw LibraryError("picture too large for one bitmap (4 GiB)", RESULT_BAD_PARAMETER);
  std::vector<RGBQUAD> pal;
  if (img.bits <= 8) {
    pal.resize(size_t(1) << img.bits);
    for (size_t i = 0; i < pal.size() && i < img.palette.size(); ++i)
      pal[i] = RGBQUAD{img.palette[i].b, img.palette[i].g, img.palette[i].r, 0};
  }
  Bitmap bm;
  const int32_t r = V_CreateBitmap(bm.get(), memory_type, img.width, img.height, img.bits,
                                   img.bits <= 8 ? 0 : img.order, pal.empty() ? nullptr : pal.data(),
                                   /*viewPerspective=*/0, nullptr, 0);
  if (bm.allocated()) bm.adopt();
  if (r != RESULT_OK)
    throw LibraryError("cannot create a " + std::to_string(img.width) + "x" + std::to_string(img.height) + "x" +
                           std::to_string(img.bits) + " bitmap: " + describe_result(r),
                       r);
  if (img.xdpi > 0) bm->XResolution = img.xdpi;
  if (img.ydpi > 0) bm->YResolution = img.ydpi;
  return bm;
}

// The storage of a bitmap when it is one block of memory (plain memory
// storage, locked while the view lives); else direct() is false and rows
// go through V_GetBitmapRow / V_PutBitmapRow.
class StorageView {
 public:
  explicit StorageView(BitmapHandle& bm) : bm_(bm) {
    const uint32_t f = bm.Flags;
    if (!(f & BITMAP_IN_MEMORY) ||
        (f & (BITMAP_TILED | BITMAP_COMPRESSED | BITMAP_SUPER_COMPRESSED | BITMAP_ON_DISK)))
      return;
    keep_ = V_LockBitmap(&bm);
    locked_ = true;
    if (bm.Data && static_cast<uint64_t>(bm.BytesPerLine) * static_cast<uint64_t>(bm.Height) <= bm.Size)
      base_ = static_cast<uint8_t*>(bm.Data);
  }
  ~StorageView() {
    if (locked_) V_UnlockBitmap(&bm_, keep_);
  }
  bool direct() const { return base_ != nullptr; }
  uint8_t* row(int32_t storage_row) const { return base_ + static_cast<size_t>(storage_row) * bm_.BytesPerLine; }

 private:
  BitmapHandle& bm_;
  uint8_t* base_ = nullptr;
  int32_t keep_ = 0;
  bool locked_ = false;
};

// Storage row of file row k (files run top row first) is first + step * k:
// the bitmap's view perspective may run bottom up.
struct RowMap {
  int32_t first, step;
  int32_t operator()(int32_t k) const { return first + step * k; }
};
RowMap row_map(const BitmapHandle& bm) {
  return bm.ViewPerspective == 2 ? RowMap{bm.Height - 1, -1} : RowMap{0, 1};
}

int32_t block_rows(size_t line) { return static_cast<int32_t>(std::max<size_t>(1, kBlockBytes / std::max<size_t>(line, 1))); }

// 12-bit gray (two pixels in three bytes) to 16-bit gray, bit-replicated so
// that 4095 becomes 65535.
void widen12(const uint8_t* src, uint8_t* dst, int width) {
  for (int x = width - 1; x >= 0; --x) {  // backwards: dst may be src
    const uint8_t* p = src + (x / 2) * 3;
    const unsigned v = (x & 1) ? ((p[1] >> 4) | (p[2] << 4)) : (p[0] | ((p[1] & 0x0F) << 8));
    const unsigned w = (v << 4) | (v >> 8);
    dst[2 * x] = static_cast<uint8_t>(w);
    dst[2 * x + 1] = static_cast<uint8_t>(w >> 8);
  }
}

// ---- alpha ---------------------------------------------------------------------------
// A picture with alpha reaches a bitmap through the library's alpha calls:
// the colour rows go into the 32- or 64-bit bitmap, the alpha samples into a
// gray bitmap (8 bits, or 16 for 16-bit channels) that V_SetBitmapAlpha
// writes into the bitmap once every row is in.  Saving takes the channel
// out with V_GetBitmapAlpha and puts it back into each row on its way to
// the file.  The one gray bitmap is the only whole-image extra: a quarter of
// the picture.

bool has_alpha(const ImageInfo& info) { return info.alpha && (info.bits == 32 || info.bits == 64); }

// Sample is the bytes per channel (1 or 2); the alpha channel is the fourth.
// Moves the alpha samples of a row out into `alpha`, leaving zeros behind.
template <size_t Sample>
void split_alpha(uint8_t* row, uint8_t* alpha, int width) {
  for (size_t x = 0; x < static_cast<size_t>(width); ++x) {
    uint8_t* p = row + 4 * Sample * x + 3 * Sample;
    std::memcpy(alpha + Sample * x, p, Sample);
    std::memset(p, 0, Sample);
  }
}
template <size_t Sample>
void merge_alpha(uint8_t* row, const uint8_t* alpha, int width) {
  for (size_t x = 0; x < static_cast<size_t>(width); ++x)
    std::memcpy(row + 4 * Sample * x + 3 * Sample, alpha + Sample * x, Sample);
}

// The gray bitmap that holds a picture's alpha while it is read: same
// geometry, view perspective 0 as every bitmap made for reading.
class AlphaIn {
 public:
  AlphaIn(const ImageInfo& info, int memory_type)
      : bm_(create_bitmap(gray_info(info), memory_type)), row_(bm_->BytesPerLine), wide_(info.bits == 64) {}

  // Takes the alpha samples out of row `row` (storage row of both bitmaps).
  void split(uint8_t* pixels, int32_t row) {
    if (wide_) split_alpha<2>(pixels, row_.data(), bm_->Width);
    else split_alpha<1>(pixels, row_.data(), bm_->Width);
    const int32_t r = V_PutBitmapRow(bm_.get(), row_.data(), static_cast<uint32_t>(row), static_cast<int32_t>(row_.size()));
    if (r < 0) throw LibraryError("cannot write alpha row " + std::to_string(row) + ": " + describe_result(r), r);
  }
  void apply(BitmapHandle& bm) {
    const int32_t r = V_SetBitmapAlpha(&bm, bm_.get());
    if (r != RESULT_OK) throw LibraryError("cannot set the alpha channel: " + describe_result(r), r);
  }

 private:
  static ImageInfo gray_info(const ImageInfo& info) {
    ImageInfo g;
    g.width = info.width;
    g.height = info.height;
    g.bits = info.bits == 64 ? 16 : 8;
    g.order = info.bits == 64 ? kOrderGray : kOrderRgb;
    if (g.bits == 8)
      for (int i = 0; i < 256; ++i) g.palette.push_back(Colour{uint8_t(i), uint8_t(i), uint8_t(i), 0});
    return g;
  }

  Bitmap bm_;
  std::vector<uint8_t> row_;
  bool wide_;
};

// The alpha channel of a bitmap being saved, put back into its rows.
class AlphaOut {
 public:
  explicit AlphaOut(BitmapHandle& bm) : wide_(bm.BitsPerPixel == 64) {
    const int32_t r = V_GetBitmapAlpha(&bm, bm_.get());
    if (bm_.allocated()) bm_.adopt();
    if (r != RESULT_OK) throw LibraryError("cannot take the alpha channel out: " + describe_result(r), r);
    row_.resize(bm_->BytesPerLine);
  }
  // Storage row `row` of the alpha bitmap (it has the bitmap's view perspective).
  void merge(uint8_t* pixels, int32_t row) {
    const int32_t r = V_GetBitmapRow(bm_.get(), row_.data(), static_cast<uint32_t>(row), static_cast<int32_t>(row_.size()));
    if (r < 0) throw LibraryError("cannot read alpha row " + std::to_string(row) + ": " + describe_result(r), r);
    if (wide_) merge_alpha<2>(pixels, row_.data(), bm_->Width);
    else merge_alpha<1>(pixels, row_.data(), bm_->Width);
  }

 private:
  Bitmap bm_;
  std::vector<uint8_t> row_;
  bool wide_;
};


// Rows of a bitmap in blocks, as the file needs them: straight from the
// storage when nothing needs converting and no copy is asked for, else
// copied and converted.  Only copied rows may be changed by the caller.
class RowSource {
 public:
  RowSource(BitmapHandle& bm, const ImageInfo& out, bool copy = false)
      : bm_(bm), view_(bm), map_(row_map(bm)), out_stride_(out.stride()) {
    const int bits = bm.BitsPerPixel;
    widen12_ = bits == 12;
    order5_ = bm.Order == ORDER_BGR_ALT && (bits == 24 || bits == 48);
    rows_ = block_rows(std::max<size_t>(bm.BytesPerLine, out_stride_));
    if (copy || !view_.direct() || widen12_ || order5_ || out_stride_ != bm.BytesPerLine)
      buffer_.resize(static_cast<size_t>(rows_) * std::max<size_t>(bm.BytesPerLine, out_stride_) + 16);
  }
  int32_t block() const { return rows_; }
  int32_t storage_row(int32_t k) const { return map_(k); }

  // File rows [k, k + n): where they start and their stride.
  uint8_t* rows(int32_t k, int32_t n, ptrdiff_t* stride) {
    if (buffer_.empty()) {
      *stride = map_.step * static_cast<ptrdiff_t>(bm_.BytesPerLine);
      return view_.row(map_(k));
    }
    const size_t s = std::max<size_t>(bm_.BytesPerLine, out_stride_);
    for (int32_t i = 0; i < n; ++i) {
      uint8_t* p = buffer_.data() + static_cast<size_t>(i) * s;
      const int32_t r = V_GetBitmapRow(&bm_, p, static_cast<uint32_t>(map_(k + i)), static_cast<int32_t>(bm_.BytesPerLine));
      if (r < 0) throw LibraryError("cannot read row " + std::to_string(map_(k + i)) + ": " + describe_result(r), r);
      if (widen12_) widen12(p, p, bm_.Width);
      if (order5_) {
        const int32_t c = V_ConvertBuffer(p, bm_.Width, bm_.BitsPerPixel, bm_.BitsPerPixel, ORDER_BGR_ALT, ORDER_BGR,
                                          nullptr, nullptr);
        if (c != RESULT_OK) throw LibraryError("cannot convert colour order 5: " + describe_result(c), c);
      }
    }
    *stride = static_cast<ptrdiff_t>(s);
    return buffer_.data();
  }

 private:
  BitmapHandle& bm_;
  StorageView view_;
  RowMap map_;
  size_t out_stride_;
  int32_t rows_ = 1;
  bool widen12_ = false, order5_ = false;
  std::vector<uint8_t> buffer_;
};

// A 32- or 64-bit bitmap whose fourth channel is zero everywhere carries no
// alpha (conversions write that channel as 0): saved without it.
bool alpha_used(BitmapHandle& bm, const ImageInfo& info) {
  if (info.bits != 32 && info.bits != 64) return false;
  RowSource src(bm, info);
  const size_t n = static_cast<size_t>(info.bits / 8);
  for (int32_t k = 0; k < bm.Height; k += src.block()) {
    const int32_t count = std::min(src.block(), bm.Height - k);
    ptrdiff_t stride = 0;
    const uint8_t* rows = src.rows(k, count, &stride);
    for (int32_t i = 0; i < count; ++i) {
      const uint8_t* p = rows + i * stride;
      for (int x = 0; x < bm.Width; ++x, p += n)
        if (n == 4 ? p[3] != 0 : (p[6] | p[7]) != 0) return true;
    }
  }
  return false;
}

std::string file_label(const std::string& path) {
  return path == "-" ? std::string("standard input") : std::filesystem::path(path).filename().string();
}

}  // namespace

Bitmap to_bitmap(const Image& img, int memory_type) {
  Bitmap bm = create_bitmap(img, memory_type);
  const auto line = static_cast<int32_t>(bm->BytesPerLine);
  for (int y = 0; y < img.height; ++y) {
    const int32_t w = V_PutBitmapRow(bm.get(), img.row(y), static_cast<uint32_t>(y), line);
    if (w < 0) throw LibraryError("cannot write row " + std::to_string(y) + ": " + describe_result(w), w);
  }
  return bm;
}

namespace {

// The decoder's current page into a new bitmap.
Bitmap read_page(Decoder& dec, int memory_type) {
  // A decoder that holds a library bitmap already (BMP) hands it over when
  // plain memory is wanted; other storage gets a copy of its rows.
  if (memory_type == TYPE_CONVENTIONAL) {
    Bitmap taken;
    if (dec.take_bitmap(taken.get())) {
      taken.adopt();
      return taken;
    }
  }
  const ImageInfo& info = dec.info();
  Bitmap bm = create_bitmap(info, memory_type);
  BitmapHandle& h = *bm.get();
  const RowMap map = row_map(h);
  const size_t line = h.BytesPerLine;
  std::unique_ptr<AlphaIn> alpha;
  if (has_alpha(info)) alpha = std::make_unique<AlphaIn>(info, memory_type);
  StorageView view(h);
  if (view.direct() && line == info.stride()) {
    // Straight into the storage; an interlaced file takes it all at once.
    const int32_t block = dec.whole_image() ? h.Height : block_rows(line);
    for (int32_t k = 0; k < h.Height; k += block) {
      const int32_t n = std::min(block, h.Height - k);
      dec.read_rows(view.row(map(k)), map.step * static_cast<ptrdiff_t>(line), n);
      if (alpha)
        for (int32_t i = 0; i < n; ++i) alpha->split(view.row(map(k + i)), map(k + i));
      progress_step(k + n, h.Height);
    }
  } else {
    const size_t stride = info.stride();
    const int32_t block = dec.whole_image() ? h.Height : block_rows(stride);
    std::vector<uint8_t> buffer(static_cast<size_t>(block) * stride);
    for (int32_t k = 0; k < h.Height; k += block) {
      const int32_t n = std::min(block, h.Height - k);
      dec.read_rows(buffer.data(), static_cast<ptrdiff_t>(stride), n);
      for (int32_t i = 0; i < n; ++i) {
        uint8_t* row = buffer.data() + static_cast<size_t>(i) * stride;
        if (alpha) alpha->split(row, map(k + i));
        const int32_t r = V_PutBitmapRow(&h, row, static_cast<uint32_t>(map(k + i)), static_cast<int32_t>(line));
        if (r < 0) throw LibraryError("cannot write row " + std::to_string(map(k + i)) + ": " + describe_result(r), r);
      }
      progress_step(k + n, h.Height);
    }
  }
  if (alpha) alpha->apply(h);
  return bm;
}

void write_page(Encoder& enc, BitmapHandle& bm, const ImageInfo& info) {
  if (enc.write_bitmap(bm, progress_step)) return;
  std::unique_ptr<AlphaOut> alpha;
  if (has_alpha(info)) alpha = std::make_unique<AlphaOut>(bm);
  RowSource src(bm, info, /*copy=*/alpha != nullptr);
  for (int32_t k = 0; k < bm.Height; k += src.block()) {
    const int32_t n = std::min(src.block(), bm.Height - k);
    ptrdiff_t stride = 0;
    uint8_t* rows = src.rows(k, n, &stride);
    if (alpha)
      for (int32_t i = 0; i < n; ++i) alpha->merge(rows + i * stride, src.storage_row(k + i));
    enc.write_rows(rows, stride, n);
    progress_step(k + n, bm.Height);
  }
}

ImageInfo page_info(BitmapHandle& bm) {
  if (!(bm.Flags & BITMAP_ALLOCATED)) throw LibraryError("the bitmap has no storage", RESULT_NO_BITMAP);
  ImageInfo info = rows_info(bm);
  info.alpha = alpha_used(bm, info);
  return info;
}

}  // namespace

Bitmap load_bitmap(const std::string& path, int memory_type) {
  InStream in(path);
  progress_begin("loading " + file_label(path));
  auto dec = open_decoder(in, progress_step);
  Bitmap bm = read_page(*dec, memory_type);
  dec->finish();
  progress_end();
  return bm;
}

Bitmap load_streaming(const std::string& path, int memory_type, RowStage& stage, const std::string& out_path,
                      Format format, const EncodeOptions& options, std::vector<std::string>* notes) {
  InStream in(path);
  progress_begin("loading " + file_label(path));
  auto dec = open_decoder(in, progress_step);
  const ImageInfo& info = dec->info();
  Bitmap source = create_bitmap(info, TYPE_USER);
  if (dec->whole_image() || has_alpha(info) || !stage.accepts(*source)) {
    Bitmap bm = read_page(*dec, memory_type);
    dec->finish();
    progress_end();
    return bm;
  }
  const ImageInfo result = stage.begin(*source.get());
  struct Ending {
    RowStage& stage;
    ~Ending() { stage.end(); }
  } ending{stage};
  progress_begin("converting " + file_label(path) + " into " + file_label(out_path));
  OutStream out(out_path);
  auto enc = open_encoder(out, format, result, notes, options);
  // Blocks just large enough that the input reads straight into them
  // (see InStream::read) and small enough to stay in cache.
  const size_t in_line = info.stride(), out_line = result.stride();
  const int32_t block = static_cast<int32_t>(
      std::min<size_t>(static_cast<size_t>(info.height), (kStreamBuffer / 2 + in_line - 1) / in_line));
  // Result rows start zeroed: a stage writes the pixels, and the bits and
  // bytes after them stay zero as on a bitmap's rows.
  RawBuffer in_rows;
  in_rows.resize(static_cast<size_t>(block) * in_line);
  std::vector<uint8_t> out_rows(static_cast<size_t>(block) * out_line);
  for (int32_t k = 0; k < info.height; k += block) {
    const int32_t n = std::min(block, info.height - k);
    dec->read_rows(in_rows.data(), static_cast<ptrdiff_t>(in_line), n);
    for (int32_t i = 0; i < n; ++i) stage.run(in_rows.data() + i * in_line, out_rows.data() + i * out_line);
    enc->write_rows(out_rows.data(), static_cast<ptrdiff_t>(out_line), n);
    progress_step(k + n, info.height);
  }
  dec->finish();
  enc->finish();
  out.commit();
  progress_end();
  return {};
}

FileSink::FileSink(const std::string& path, Format format, const EncodeOptions& options,
                   std::vector<std::string>* notes)
    : out_(std::make_unique<OutStream>(path)), format_(format), options_(options), notes_(notes) {}

FileSink::~FileSink() = default;

void FileSink::rows(BitmapHandle& record, const uint8_t* rows, int32_t count) {
  if (!encoder_) {
    info_ = rows_info(record);
    encoder_ = open_encoder(*out_, format_, info_, notes_, options_);
  }
  encoder_->write_rows(rows, static_cast<ptrdiff_t>(info_.stride()), count);
  done_ += count;
  progress_step(done_, info_.height);
}

void FileSink::commit() {
  if (!encoder_ || done_ != info_.height) throw IoError(out_->name() + ": the operation gave no complete picture");
  encoder_->finish();
  out_->commit();
}

std::vector<Bitmap> load_pages(const std::string& path, int memory_type) {
  InStream in(path);
  progress_begin("loading " + file_label(path));
  auto dec = open_decoder(in, progress_step);
  std::vector<Bitmap> pages;
  do {
    progress_begin("loading " + file_label(path) + (pages.empty() ? "" : " page " + std::to_string(pages.size() + 1)));
    pages.push_back(read_page(*dec, memory_type));
    dec->finish();
  } while (dec->next_page());
  progress_end();
  return pages;
}

void save_bitmaps(const std::vector<BitmapHandle*>& given, const std::string& path, Format format,
                  const EncodeOptions& options, std::vector<std::string>* notes) {
  if (given.empty()) throw IoError(path + ": nothing to save");
  // Pages stored transposed or mirrored are saved as seen: through copies
  // stored top row first.
  struct Upright {
    std::vector<BitmapHandle> copies;
    ~Upright() {
      for (BitmapHandle& b : copies) V_FreeBitmap(&b);
    }
  } upright;
  upright.copies.reserve(given.size());
  std::vector<BitmapHandle*> pages = given;
  for (BitmapHandle*& page : pages) {
    if (!(page->Flags & BITMAP_ALLOCATED) || page->ViewPerspective == 0 || page->ViewPerspective == 2) continue;
    BitmapHandle seen;
    const int32_t r = V_ChangeBitmapViewPerspective(&seen, page, 0);
    if (r != RESULT_OK)
      throw LibraryError("cannot turn view perspective " + std::to_string(page->ViewPerspective) +
                             " upright: " + describe_result(r), r);
    upright.copies.push_back(seen);
    page = &upright.copies.back();
  }
  ImageInfo info = page_info(*pages[0]);
  progress_begin("saving " + file_label(path));
  OutStream out(path);
  auto enc = open_encoder(out, format, info, notes, options);
  for (size_t k = 0; k < pages.size(); ++k) {
    if (k > 0) {
      info = page_info(*pages[k]);
      enc->add_page(info);
    }
    write_page(*enc, *pages[k], info);
  }
  enc->finish();
  out.commit();
  progress_end();
}

void save_bitmap(BitmapHandle& bm, const std::string& path, Format format, const EncodeOptions& options,
                 std::vector<std::string>* notes) {
  save_bitmaps({&bm}, path, format, options, notes);
}

}  // namespace vkimg
