// codec_bmp.cpp - BMP: a 14-byte file header in front of a packed
// device-independent bitmap (DIB), which the library reads and writes.
//
// Reading puts the rest of the file into one movable block, checked against
// the file header, and V_ChangeFromDIB makes that block the bitmap's own
// storage: loading costs the file's size and nothing more, and the library
// checks every size the DIB claims against the block.  Writing is
// V_ConvertToDIB (which narrows what a DIB cannot hold) with the file header
// put in front, a band of rows at a time.
#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "codec_internal.h"
#include "result_names.h"
#include "vkkrn_platform.h"

namespace vkimg::codec {
namespace {

constexpr uint32_t kFileHeader = 14;
constexpr uint32_t kCoreHeader = 12, kInfoHeader = 40, kBitFields = 3;
// Files move in steps of this size, so that progress shows and Ctrl-C is prompt.
constexpr size_t kStep = size_t(4) << 20;

void put16(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
void put32(uint8_t* p, uint32_t v) {
  put16(p, v & 0xFFFF);
  put16(p + 2, v >> 16);
}

// A movable block, freed unless handed on.
class Block {
 public:
  explicit Block(VK_HGLOBAL h = nullptr) : h_(h) {}
  Block(Block&& o) noexcept : h_(o.release()) {}
  Block& operator=(const Block&) = delete;
  ~Block() {
    if (h_) VKP_GlobalFree(h_);
  }
  VK_HGLOBAL get() const { return h_; }
  VK_HGLOBAL release() { return std::exchange(h_, nullptr); }
  // Resizes the (unlocked) block; false when there is no memory for it.
  bool resize(size_t size) {
    VK_HGLOBAL n = VKP_GlobalReAlloc(h_, std::max<size_t>(size, 1), VKP_GMEM_MOVEABLE);
    if (n) h_ = n;
    return n != nullptr;
  }

 private:
  VK_HGLOBAL h_;
};

// A library bitmap record that frees its storage unless handed on.
struct OwnedBitmap {
  BitmapHandle h{};
  bool owned = false;
  OwnedBitmap() = default;
  OwnedBitmap(const OwnedBitmap&) = delete;
  OwnedBitmap& operator=(const OwnedBitmap&) = delete;
  ~OwnedBitmap() {
    if (owned) V_FreeBitmap(&h);
  }
};

// A block's memory while the lock lives.
class Locked {
 public:
  explicit Locked(VK_HGLOBAL h) : h_(h), p_(static_cast<uint8_t*>(VKP_GlobalLock(h))) {}
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;
  ~Locked() {
    if (p_) VKP_GlobalUnlock(h_);
  }
  uint8_t* get() const { return p_; }

 private:
  VK_HGLOBAL h_;
  uint8_t* p_;
};

// The rest of the input in one block: a regular file's known size at once,
// a pipe in growing steps.  *size gets the bytes read.
Block read_rest(InStream& in, const Progress& progress, size_t* size) {
  const std::string& name = in.name();
  const int64_t known = in.remaining();
  // Header and palette come on top of the largest raster accepted.
  const uint64_t limit = max_image_bytes + (uint64_t(1) << 16);
  if (known > 0 && static_cast<uint64_t>(known) > limit) fail(name, "image too large");
  size_t capacity = known >= 0 ? static_cast<size_t>(known) : kStep;
  Block block(VKP_GlobalAlloc(VKP_GMEM_MOVEABLE, std::max<size_t>(capacity, 1)));
  if (!block.get()) fail(name, "out of memory");
  size_t got = 0;
  for (;;) {
    if (got == capacity) {
      if (known >= 0) break;
      if (capacity >= limit) fail(name, "image too large");
      capacity *= 2;
      if (!block.resize(capacity)) fail(name, "out of memory");
    }
    const size_t want = std::min(capacity - got, kStep);
    size_t n = 0;
    {
      Locked p(block.get());
      if (!p.get()) fail(name, "out of memory");
      n = in.read(p.get() + got, want);
    }
    got += n;
    if (!in.error().empty()) fail(name, "read error: " + in.error());
    if (progress && known > 0) progress(static_cast<int64_t>(got), known);
    if (n < want) break;
  }
  *size = got;
  return block;
}

// Where the library looks for the pixels of a packed DIB: after the header,
// the three masks of a bit-field DIB and the palette (colours used, 0
// meaning 2^bits up to 8 bits; 3-byte entries after a core header).  0 when
// the header is one the library refuses anyway.
uint64_t packed_pixel_offset(const uint8_t* h, size_t size) {
  const uint32_t header = rd32le(h);
  const bool core = header == kCoreHeader;
  if (!core && (header < kInfoHeader || header > size)) return 0;
  const uint32_t bits = rd16le(h + (core ? 10 : 14));
  const uint32_t compression = core ? 0 : rd32le(h + 16);
  const uint32_t used = core ? 0 : rd32le(h + 32);
  const uint64_t entries = bits >= 1 && bits <= 8 && used == 0 ? uint64_t(1) << bits : used;
  if (entries > 256) return 0;
  return header + (compression == kBitFields ? 12 : 0) + entries * (core ? 3 : 4);
}

std::string compression_name(uint32_t c) {
  static const char* const kNames[] = {"none", "RLE8", "RLE4", "bit fields", "JPEG", "PNG", "alpha bit fields"};
  return c < 7 ? kNames[c] : std::to_string(c);
}

class BmpDecoder final : public Decoder {
 public:
  BmpDecoder(InStream& in, const Progress& progress) : name_(in.name()) {
    const std::string& name = name_;
    uint8_t file[kFileHeader];
    if (!in.read_exact(file, kFileHeader)) fail(name, "truncated file header");
    if (file[0] != 'B' || file[1] != 'M') fail(name, "not a BMP file");
    const uint32_t declared = rd32le(file + 2), offset = rd32le(file + 10);
    size_t size = 0;
    Block block = read_rest(in, progress, &size);
    const uint64_t total = kFileHeader + uint64_t{size};
    if (declared > total)
      fail(name, "truncated: the file header gives " + std::to_string(declared) + " bytes, the file has " +
                     std::to_string(total));
    if (offset < kFileHeader + kCoreHeader || offset > total)
      fail(name, "corrupt file header: pixel data offset " + std::to_string(offset) + " outside the file (" +
                     std::to_string(total) + " bytes)");
    const uint64_t at = offset - kFileHeader;  // the pixels in the block
    uint32_t header = 0, bits = 0, compression = 0;
    {
      Locked p(block.get());
      if (!p.get()) fail(name, "out of memory");
      header = rd32le(p.get());
      if (header > at)
        fail(name, "corrupt header: " + std::to_string(header) + " bytes long, but the pixel data starts " +
                       std::to_string(at) + " bytes after it begins");
      if (header >= kInfoHeader) {
        bits = rd16le(p.get() + 14);
        compression = rd32le(p.get() + 16);
        // A longer header carries the bit-field masks at byte 40 of itself:
        // read as the 40-byte form (as the library reads it anyway), the
        // masks follow the header where a packed DIB has them.
        if (header > kInfoHeader && compression == kBitFields) put32(p.get(), kInfoHeader);
      }
    }
    fit_pixels(block, size, at, name);
    int32_t r = V_ChangeFromDIB(&bm_.h, block.get());
    if (r != RESULT_OK) fail(name, refusal(r, header, bits, compression));
    block.release();  // the bitmap's storage now
    bm_.owned = true;
    // Global-memory storage has its rows in reach only while locked; it
    // stays locked for the bitmap's life, as plain memory is (freeing unlocks).
    V_LockBitmap(&bm_.h);
    // Every reader gives the top row first.
    r = V_ChangeBitmapViewPerspective(nullptr, &bm_.h, 0);
    if (r != RESULT_OK) fail(name, "cannot turn the rows top first: " + describe_result(r));
    describe();
    check_size(name, info_.width, info_.height, info_.bits);
  }

  void read_rows(uint8_t* dst, ptrdiff_t stride, int count) override {
    const auto line = static_cast<int32_t>(bm_.h.BytesPerLine);
    for (int k = 0; k < count; ++k, ++done_) {
      const int32_t r = V_GetBitmapRow(&bm_.h, dst + k * stride, static_cast<uint32_t>(done_), line);
      if (r != line) fail(name_, "cannot read row " + std::to_string(done_) + ": " + describe_result(r));
    }
  }

  bool take_bitmap(BitmapHandle* out) override {
    if (!bm_.owned) return false;
    *out = bm_.h;
    bm_.owned = false;
    return true;
  }

 private:
  // Moves the pixels to where the library looks for them, when the file
  // leaves a gap before them or holds fewer palette entries than the
  // header implies (the missing ones become black).
  static void fit_pixels(Block& block, size_t& size, uint64_t at, const std::string& name) {
    uint64_t want = 0;
    {
      Locked p(block.get());
      want = packed_pixel_offset(p.get(), size);
      if (want == 0 || want == at) return;
      if (want < at) {
        std::memmove(p.get() + want, p.get() + at, size - at);
        size -= static_cast<size_t>(at - want);
      }
    }
    if (want < at) {
      // Shrunk, so that the bytes left behind cannot pass for pixels.
      if (!block.resize(size)) fail(name, "out of memory");
      return;
    }
    const size_t grown = size + static_cast<size_t>(want - at);
    if (!block.resize(grown)) fail(name, "out of memory");
    Locked p(block.get());
    if (!p.get()) fail(name, "out of memory");
    std::memmove(p.get() + want, p.get() + at, size - at);
    std::memset(p.get() + at, 0, static_cast<size_t>(want - at));
    size = grown;
  }

  static std::string refusal(int32_t r, uint32_t header, uint32_t bits, uint32_t compression) {
    if (r == RESULT_FAIL) return "out of memory";
    if (r == RESULT_BAD_PARAMETER) return "corrupt header: no pixels (width or height 0, or a negative width)";
    if (compression != 0 && compression != kBitFields && header >= kInfoHeader && bits <= 32)
      return "unsupported compression " + compression_name(compression);
    return "unsupported or damaged BMP (header of " + std::to_string(header) +
           " bytes): a layout the library does not read, or pixel data cut short";
  }

  void describe() {
    BitmapHandle& b = bm_.h;
    info_.width = b.Width;
    info_.height = b.Height;
    info_.bits = b.BitsPerPixel;
    info_.order = b.Order;
    info_.xdpi = std::max(0, b.XResolution);  // the file's field is signed
    info_.ydpi = std::max(0, b.YResolution);
    if (b.BitsPerPixel <= 8) {
      RGBQUAD pal[256] = {};
      const int32_t n = V_GetBitmapPaletteEntries(&b, 0, 1 << b.BitsPerPixel, pal);
      const size_t count = std::min<size_t>(b.ColorCount ? b.ColorCount : 256, n > 0 ? size_t(n) : 0);
      for (size_t i = 0; i < count; ++i) info_.palette.push_back(Colour{pal[i].rgbBlue, pal[i].rgbGreen, pal[i].rgbRed, 0});
    }
  }

  std::string name_;
  OwnedBitmap bm_;
  int32_t done_ = 0;
};

// A band of a bitmap: a small bitmap like it (depth, order, palette,
// resolutions, view perspective) holding a run of its storage rows, made
// again only when the band's height changes.
class Band {
 public:
  explicit Band(BitmapHandle& bm) : bm_(bm), row_(bm.BytesPerLine) {}
  Band(const Band&) = delete;
  Band& operator=(const Band&) = delete;
  ~Band() { drop(); }

  // Storage rows [first, first + count) of the bitmap, as a band.
  BitmapHandle& take(int32_t first, int32_t count, const std::string& name) {
    if (count != h_.Height || !made_) {
      drop();
      const int32_t r = V_DupBitmapNewDim(&h_, &bm_, bm_.Width, count, bm_.BitsPerPixel, kDup);
      if (r != RESULT_OK) fail(name, "cannot make a band of " + std::to_string(count) + " rows: " + describe_result(r));
      made_ = true;
    }
    const auto line = static_cast<int32_t>(row_.size());
    for (int32_t j = 0; j < count; ++j) {
      if (V_GetBitmapRow(&bm_, row_.data(), static_cast<uint32_t>(first + j), line) != line ||
          V_PutBitmapRow(&h_, row_.data(), static_cast<uint32_t>(j), line) != line)
        fail(name, "cannot copy row " + std::to_string(first + j) + " into a band");
    }
    return h_;
  }

 private:
  static constexpr uint32_t kDup = DUP_ALLOCATE | DUP_OWN_PALETTE;
  void drop() {
    if (made_) V_FreeDuplicateBitmap(&h_, kDup);
    made_ = false;
  }

  BitmapHandle& bm_;
  std::vector<uint8_t> row_;
  BitmapHandle h_{};
  bool made_ = false;
};

// A bitmap as a BMP file: the file header, then the library's DIB of it,
// made a band of rows at a time so that memory stays at a band's size
// whatever the image's.  A DIB runs bottom-up, so the bands are taken from
// the bottom of the picture upwards and each band's rows continue the
// file; the first band's header serves for all, with the full height and
// image size put in.  Rows stored top first (view perspective 0) hold seen
// rows [y, y + n) at storage rows [y, y + n); rows stored bottom first (2)
// at [height - y - n, height - y).  Other view perspectives go whole: the
// library turns them in a copy, which banding cannot reproduce byte for
// byte (the row padding it leaves differs), and the program turns its pages
// upright before saving, so only other callers of the codec get there.
void write_dib(OutStream& out, BitmapHandle& bm, const Progress& progress) {
  const std::string& name = out.name();
  const int32_t height = bm.Height, vp = bm.ViewPerspective;
  const bool bottom_first = vp == 2;
  const int32_t rows_per_band =
      vp != 0 && vp != 2
          ? height
          : static_cast<int32_t>(std::clamp<size_t>(bmp_band_bytes / std::max<uint32_t>(bm.BytesPerLine, 1), 1,
                                                    static_cast<size_t>(height)));
  Band band(bm);
  for (int32_t done = 0; done < height;) {
    const int32_t n = std::min(rows_per_band, height - done);
    const int32_t seen_first = height - done - n;
    BitmapHandle& src = n == height ? bm : band.take(bottom_first ? done : seen_first, n, name);
    Block dib(V_ConvertToDIB(&src));
    if (!dib.get()) fail(name, "the library could not make a DIB of the bitmap (out of memory?)");
    Locked p(dib.get());
    if (!p.get()) fail(name, "out of memory");
    uint8_t* d = p.get();
    // What the block holds: header, palette of 4-byte entries, rows.
    const uint64_t at = rd32le(d) + uint64_t{rd32le(d + 32)} * 4;
    const uint32_t rows_bytes = rd32le(d + 20);
    if (done == 0) {
      // A band's header speaks for the whole picture.
      const uint64_t image = n == height ? rows_bytes : uint64_t{rows_bytes / static_cast<uint32_t>(n)} * height;
      if (kFileHeader + at + image > 0xFFFFFFFFu) fail(name, "image too large for BMP");
      if (n < height) {
        put32(d + 8, static_cast<uint32_t>(height));
        put32(d + 20, static_cast<uint32_t>(image));
      }
      uint8_t file[kFileHeader] = {'B', 'M'};
      put32(file + 2, static_cast<uint32_t>(kFileHeader + at + image));
      put32(file + 10, static_cast<uint32_t>(kFileHeader + at));
      out.write(file, kFileHeader);
      out.write(d, static_cast<size_t>(at));
    }
    for (uint32_t k = 0; k < rows_bytes;) {
      const size_t m = std::min<size_t>(rows_bytes - k, kStep);
      out.write(d + at + k, m);
      k += static_cast<uint32_t>(m);
    }
    done += n;
    if (progress) progress(done, height);
  }
}

// Pictures given as rows go into a bitmap first, from which the library makes
// the DIB; a bitmap given whole goes straight.
class BmpEncoder final : public Encoder {
 public:
  BmpEncoder(OutStream& out, const ImageInfo& info, std::vector<std::string>* notes) : out_(out), info_(info) {
    auto note = [&](const std::string& s) {
      if (notes) notes->push_back(out.name() + ": " + s);
    };
    if (info.bits == 48 || info.bits == 64) note("BMP has no 16-bit channels; saved with 8 bits per channel");
    if (info.bits == 16 && info.order == kOrderGray) note("BMP has no 16-bit gray; saved as 24-bit colour");
  }
  void write_rows(const uint8_t* src, ptrdiff_t stride, int count) override {
    if (!bm_.owned) stage();
    const auto line = static_cast<int32_t>(bm_.h.BytesPerLine);
    for (int k = 0; k < count; ++k, ++done_)
      if (V_PutBitmapRow(&bm_.h, src + k * stride, static_cast<uint32_t>(done_), line) != line)
        fail(out_.name(), "cannot store row " + std::to_string(done_));
  }
  void finish() override {
    if (bm_.owned) write_dib(out_, bm_.h, {});
  }
  bool write_bitmap(BitmapHandle& bm, const Progress& progress) override {
    write_dib(out_, bm, progress);
    return true;
  }

 private:
  void stage() {
    RGBQUAD pal[256] = {};
    for (size_t i = 0; i < info_.palette.size() && i < 256; ++i) {
      const Colour& c = info_.palette[i];
      pal[i] = RGBQUAD{c.b, c.g, c.r, 0};
    }
    BitmapHandle& b = bm_.h;
    const int32_t r = V_CreateBitmap(&b, TYPE_CONVENTIONAL, info_.width, info_.height, info_.bits,
                                     info_.bits <= 8 ? ORDER_RGB : info_.order, info_.bits <= 8 ? pal : nullptr,
                                     /*viewPerspective=*/0, nullptr, 0);
    bm_.owned = (b.Flags & BITMAP_ALLOCATED) != 0;
    if (r != RESULT_OK) fail(out_.name(), "cannot make a bitmap of the picture: " + describe_result(r));
    if (info_.xdpi > 0) b.XResolution = info_.xdpi;
    if (info_.ydpi > 0) b.YResolution = info_.ydpi;
  }

  OutStream& out_;
  const ImageInfo info_;
  OwnedBitmap bm_;
  int32_t done_ = 0;
};

}  // namespace

std::unique_ptr<Decoder> open_bmp(InStream& in, const Progress& progress) {
  return std::make_unique<BmpDecoder>(in, progress);
}

std::unique_ptr<Encoder> bmp_encoder(OutStream& out, const ImageInfo& info, std::vector<std::string>* notes) {
  return std::make_unique<BmpEncoder>(out, info, notes);
}

}  // namespace vkimg::codec
