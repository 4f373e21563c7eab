/// @file vkkrn.hpp
/// @brief Header-only C++17 interface over the C calls of vkkrn.h.
///
/// A vk::Bitmap owns one BitmapHandle record and frees it in its destructor;
/// it moves but does not copy (copy() makes a real copy of the pixels).
/// Operations are members and change the bitmap in place, all or nothing:
/// when one fails the bitmap is as it was.  Each throws vk::Error on failure;
/// the overload that takes a std::error_code& reports there instead and never
/// throws.  The C interface is unchanged underneath: get() hands the record
/// to any V_ call.
///
/// Link with VKKRN13N::VKKRN13N (CMake) or `pkg-config --libs vkkrn13n`.
#ifndef VKKRN_HPP
#define VKKRN_HPP

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "vkkrn.h"

namespace vk {

/// The value an operation returns when a vk::ProgressScope callback said stop.
inline constexpr int32_t kCancelled = 0;

namespace detail {
struct ResultText {
  int32_t code;
  const char* name;
  const char* meaning;
};
inline const ResultText* find_result(int32_t code) noexcept {
  static constexpr ResultText kResults[] = {
      {RESULT_OK, "RESULT_OK", "success"},
      {kCancelled, "cancelled", "stopped by the status callback"},
      {RESULT_FAIL, "RESULT_FAIL", "memory or storage could not be obtained"},
      {RESULT_NO_BITMAP, "RESULT_NO_BITMAP", "the bitmap has no storage"},
      {RESULT_SEEK_FAILED, "RESULT_SEEK_FAILED", "a seek in disk storage failed"},
      {RESULT_WRITE_FAILED, "RESULT_WRITE_FAILED", "a write to disk storage failed"},
      {RESULT_READ_FAILED, "RESULT_READ_FAILED", "a read from disk storage failed"},
      {RESULT_BAD_AREA, "RESULT_BAD_AREA", "the requested area holds no pixels"},
      {RESULT_BAD_PARAMETER, "RESULT_BAD_PARAMETER", "a null or out-of-range argument"},
      {RESULT_BAD_FORMAT, "RESULT_BAD_FORMAT", "unsupported layout"},
      {RESULT_BAD_BITS_PER_PIXEL, "RESULT_BAD_BITS_PER_PIXEL", "unsupported bits per pixel"},
      {RESULT_NOT_SET, "RESULT_NOT_SET", "no dispatch table was set"},
      {RESULT_TEMP_FILE_FAILED, "RESULT_TEMP_FILE_FAILED", "a temp file for storage could not be created"},
      {RESULT_HOTKEY_FAILED, "RESULT_HOTKEY_FAILED", "hot-key failure"},
      {RESULT_HOTKEY_WINDOW_FAILED, "RESULT_HOTKEY_WINDOW_FAILED", "the hot-key window could not be created"},
  };
  for (const ResultText& r : kResults)
    if (r.code == code) return &r;
  return nullptr;
}
}  // namespace detail

/// The name of a result code ("RESULT_BAD_PARAMETER" for -13); "cancelled"
/// for kCancelled; null for a code the library does not define.
inline const char* result_name(int32_t code) noexcept {
  const detail::ResultText* r = detail::find_result(code);
  return r ? r->name : nullptr;
}

/// The error category of the library's result codes: value() is the code,
/// message() its name, number and meaning ("RESULT_BAD_PARAMETER (-13): a
/// null or out-of-range argument"; "result -99" for an unknown code).
inline const std::error_category& result_category() noexcept {
  struct Category final : std::error_category {
    const char* name() const noexcept override { return "vkkrn"; }
    std::string message(int code) const override {
      const detail::ResultText* r = detail::find_result(code);
      if (!r) return "result " + std::to_string(code);
      return std::string(r->name) + " (" + std::to_string(code) + "): " + r->meaning;
    }
  };
  static const Category category;
  return category;
}

/// A result code as a std::error_code; RESULT_OK gives the empty (false) code.
inline std::error_code make_error_code(int32_t result) noexcept {
  if (result == RESULT_OK) return {};
  return {result, result_category()};
}

/// What the throwing calls throw: the failing call's name and its result code.
class Error : public std::system_error {
 public:
  Error(int32_t result, const char* call) : std::system_error(result, result_category(), call) {}
  /// The library's result code (negative, or what a status callback returned).
  int32_t result() const noexcept { return code().value(); }
  /// Its name, e.g. "RESULT_BAD_BITS_PER_PIXEL"; null for an unknown code.
  const char* name() const noexcept { return result_name(result()); }
};

namespace detail {
inline void check(int32_t result, const char* call) {
  if (result != RESULT_OK) throw Error(result, call);
}
inline void report(int32_t result, std::error_code& ec) noexcept { ec = make_error_code(result); }
}  // namespace detail

/// The V_ColorResBitmap flag that gives pixels deeper than 8 bits the colour
/// order `order` (ORDER_RGB, ORDER_BGR, ORDER_GRAY, ORDER_BGR_ALT).
inline uint32_t order_flags(int32_t order) noexcept {
  switch (order) {
    case ORDER_BGR: return RESOLVE_BGR;
    case ORDER_GRAY: return RESOLVE_GRAY;
    case ORDER_BGR_ALT: return RESOLVE_ORDER5;
    default: return 0;
  }
}

/// One stored row as read by Bitmap::rows(): its number and its packed bytes
/// (valid until the iterator moves on).
struct Row {
  uint32_t index;
  const uint8_t* data;
  std::size_t size;
  const uint8_t* begin() const noexcept { return data; }
  const uint8_t* end() const noexcept { return data + size; }
};

/// Reads every stored row in turn through V_GetBitmapRow into one buffer:
/// `for (vk::Row row : bitmap.rows())`.  A failed read throws vk::Error.
class RowRange {
 public:
  class iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Row;
    using difference_type = std::ptrdiff_t;
    using pointer = const Row*;
    using reference = const Row&;

    iterator(RowRange* range, uint32_t y) : range_(range), y_(y) { load(); }
    reference operator*() const noexcept { return row_; }
    pointer operator->() const noexcept { return &row_; }
    iterator& operator++() {
      ++y_;
      load();
      return *this;
    }
    bool operator==(const iterator& other) const noexcept { return y_ == other.y_; }
    bool operator!=(const iterator& other) const noexcept { return y_ != other.y_; }

   private:
    void load() {
      if (y_ >= range_->height_) return;
      std::vector<uint8_t>& buffer = range_->buffer_;
      const int32_t got = V_GetBitmapRow(range_->bitmap_, buffer.data(), y_, static_cast<int32_t>(buffer.size()));
      if (got < 0) throw Error(got, "V_GetBitmapRow");
      row_ = Row{y_, buffer.data(), buffer.size()};
    }
    RowRange* range_;
    uint32_t y_;
    Row row_{};
  };

  explicit RowRange(BitmapHandle* bitmap)
      : bitmap_(bitmap), height_(static_cast<uint32_t>(bitmap->Height)), buffer_(bitmap->BytesPerLine) {}
  iterator begin() { return iterator(this, 0); }
  iterator end() { return iterator(this, height_); }

 private:
  BitmapHandle* bitmap_;
  uint32_t height_;
  std::vector<uint8_t> buffer_;
};

/// A bitmap that owns its record: storage, palette and tables are freed by
/// the destructor (V_FreeBitmap).  Move-only.
class Bitmap {
 public:
  /// An empty bitmap: no storage; operations on it fail with RESULT_NO_BITMAP
  /// or RESULT_BAD_PARAMETER.
  Bitmap() noexcept : record_{} {}

  /// A width x height bitmap of bits per pixel (1-8, 12, 16, 24, 32, 48,
  /// 64; 0 is 8-bit gray) in the given colour order and memory type
  /// (V_CreateBitmap).  Palette bitmaps get `palette` (2^bits entries,
  /// copied) or the fixed palette.  Throws vk::Error.
  Bitmap(int32_t width, int32_t height, int32_t bits, int32_t order = ORDER_BGR,
         int32_t memory_type = TYPE_CONVENTIONAL, const RGBQUAD* palette = nullptr)
      : record_{} {
    detail::check(create(width, height, bits, order, memory_type, palette), "V_CreateBitmap");
  }
  /// As above; failure goes to `ec` and leaves the bitmap empty.
  Bitmap(int32_t width, int32_t height, int32_t bits, int32_t order, int32_t memory_type, const RGBQUAD* palette,
         std::error_code& ec) noexcept
      : record_{} {
    detail::report(create(width, height, bits, order, memory_type, palette), ec);
  }

  /// Takes ownership of a record made by the C calls; the caller must not
  /// free it any more.
  static Bitmap adopt(const BitmapHandle& record) noexcept {
    Bitmap bitmap;
    bitmap.record_ = record;
    return bitmap;
  }
  /// Gives up ownership: the caller frees the returned record (V_FreeBitmap).
  /// The bitmap is empty afterwards.
  BitmapHandle release() noexcept { return std::exchange(record_, BitmapHandle{}); }

  Bitmap(Bitmap&& other) noexcept : record_(other.release()) {}
  Bitmap& operator=(Bitmap&& other) noexcept {
    if (this != &other) {
      reset();
      record_ = other.release();
    }
    return *this;
  }
  Bitmap(const Bitmap&) = delete;
  Bitmap& operator=(const Bitmap&) = delete;
  ~Bitmap() { reset(); }

  /// Frees what the bitmap holds; it is empty afterwards.
  void reset() noexcept {
    if (record_.Flags & BITMAP_ALLOCATED) V_FreeBitmap(&record_);
    record_ = BitmapHandle{};
  }

  /// The record, for any V_ call.  Do not free it.
  BitmapHandle* get() noexcept { return &record_; }
  const BitmapHandle* get() const noexcept { return &record_; }
  /// True when the bitmap has storage.
  explicit operator bool() const noexcept { return (record_.Flags & BITMAP_ALLOCATED) != 0; }

  int32_t width() const noexcept { return record_.Width; }
  int32_t height() const noexcept { return record_.Height; }
  int32_t bits_per_pixel() const noexcept { return record_.BitsPerPixel; }
  int32_t order() const noexcept { return record_.Order; }
  uint32_t bytes_per_line() const noexcept { return record_.BytesPerLine; }

  /// The dithering method reduce() uses (DITHER_NONE .. DITHER_CLUSTERED).
  void set_dithering(int32_t method) noexcept { record_.DitheringMethod = method; }

  /// Stored row y into `out` (bytes_per_line() bytes).  Throws vk::Error.
  void get_row(uint32_t y, void* out, std::size_t size) {
    const int32_t got = V_GetBitmapRow(&record_, out, y, static_cast<int32_t>(size));
    if (got < 0) throw Error(got, "V_GetBitmapRow");
  }
  /// Writes stored row y from `row` (bytes_per_line() bytes).  Throws vk::Error.
  void put_row(uint32_t y, const void* row, std::size_t size) {
    const int32_t put = V_PutBitmapRow(&record_, row, y, static_cast<int32_t>(size));
    if (put < 0) throw Error(put, "V_PutBitmapRow");
  }
  /// Every stored row, first to last, read into a buffer of the range.
  RowRange rows() { return RowRange(&record_); }

  /// The colour of a pixel (0x00BBGGRR, or COLOR_GRAY16 | level);
  /// COLOR_INVALID outside the bitmap.
  uint32_t pixel(int32_t row, int32_t column) noexcept { return V_GetPixelColor(&record_, row, column); }

  /// Colour reduction to 1-8 bits (V_ColorResBitmap in place): an optimised
  /// palette unless flags say otherwise (RESOLVE_FIXED, RESOLVE_CUBE,
  /// RESOLVE_BEST_PALETTE ...), `colors` entries (0: 2^bits), dithered by
  /// the bitmap's dithering method.
  void reduce(int32_t bits, uint32_t flags = RESOLVE_OPTIMISED, int32_t colors = 0) {
    detail::check(color_res(bits, flags, colors), "V_ColorResBitmap");
  }
  void reduce(int32_t bits, uint32_t flags, int32_t colors, std::error_code& ec) noexcept {
    detail::report(color_res(bits, flags, colors), ec);
  }
  /// Gray pixels of 8 (with a gray palette), 12 or 16 bits (V_GrayScaleBitmap).
  void to_gray(int32_t bits = 8) { detail::check(V_GrayScaleBitmap(&record_, bits), "V_GrayScaleBitmap"); }
  void to_gray(int32_t bits, std::error_code& ec) noexcept { detail::report(V_GrayScaleBitmap(&record_, bits), ec); }
  /// Conversion to 12-64 bits in a colour order (ORDER_RGB, ORDER_BGR,
  /// ORDER_GRAY, ORDER_BGR_ALT): V_ColorResBitmap with the order's flag.
  void convert(int32_t bits, int32_t order = ORDER_BGR) {
    detail::check(color_res(bits, order_flags(order), 0), "V_ColorResBitmap");
  }
  void convert(int32_t bits, int32_t order, std::error_code& ec) noexcept {
    detail::report(color_res(bits, order_flags(order), 0), ec);
  }
  /// A copy with its own storage (of this bitmap's kind, or memory_type).
  Bitmap copy(int32_t memory_type = 0) const {
    Bitmap out;
    detail::check(copy_into(out, memory_type), "V_CopyBitmap");
    return out;
  }
  Bitmap copy(int32_t memory_type, std::error_code& ec) const noexcept {
    Bitmap out;
    detail::report(copy_into(out, memory_type), ec);
    return out;
  }

  /// Upside down (V_FlipBitmap).
  void flip() { detail::check(V_FlipBitmap(&record_), "V_FlipBitmap"); }
  void flip(std::error_code& ec) noexcept { detail::report(V_FlipBitmap(&record_), ec); }
  /// Mirrored left to right (V_ReverseBitmap).
  void mirror() { detail::check(V_ReverseBitmap(&record_), "V_ReverseBitmap"); }
  void mirror(std::error_code& ec) noexcept { detail::report(V_ReverseBitmap(&record_), ec); }
  /// A turn by `angle` hundredths of a degree (V_RotateBitmap with
  /// ROTATE_RESIZE: the result holds the whole turned picture, corners
  /// filled with the colour `fill`).  Angles the library does not turn by
  /// fail with RESULT_FAIL.
  void rotate(int32_t angle, uint32_t fill = 0) { turn(angle, ROTATE_RESIZE, fill); }
  void rotate(int32_t angle, uint32_t fill, std::error_code& ec) noexcept { turn(angle, ROTATE_RESIZE, fill, ec); }
  /// A turn by `angle` hundredths of a degree with ROTATE_RESIZE, ROTATE_LINEAR, ROTATE_SPLINE `flags` (V_RotateBitmap).
  void turn(int32_t angle, uint32_t flags, uint32_t fill = 0) {
    detail::check(V_RotateBitmap(&record_, angle, flags, fill), "V_RotateBitmap");
  }
  void turn(int32_t angle, uint32_t flags, uint32_t fill, std::error_code& ec) noexcept {
    detail::report(V_RotateBitmap(&record_, angle, flags, fill), ec);
  }
  /// Slanted by `angle` hundredths of a degree: rows slide, or columns when not `horizontal` (V_ShearBitmap).
  void shear(int32_t angle, bool horizontal = true, uint32_t fill = 0) {
    detail::check(V_ShearBitmap(&record_, angle, horizontal ? 1 : 0, fill), "V_ShearBitmap");
  }
  void shear(int32_t angle, bool horizontal, uint32_t fill, std::error_code& ec) noexcept {
    detail::report(V_ShearBitmap(&record_, angle, horizontal ? 1 : 0, fill), ec);
  }
  /// Resized in place to width x height (0: keep the aspect) by SIZE_* `flags` (V_SizeBitmap).
  void resize(int32_t width, int32_t height, uint32_t flags = SIZE_NEAREST) {
    detail::check(V_SizeBitmap(&record_, width, height, flags), "V_SizeBitmap");
  }
  void resize(int32_t width, int32_t height, uint32_t flags, std::error_code& ec) noexcept {
    detail::report(V_SizeBitmap(&record_, width, height, flags), ec);
  }
  /// Resized into `destination`, made beforehand at the wanted size and depth, by SIZE_* `flags` (V_ResizeBitmapExt).
  void resize_into(Bitmap& destination, uint32_t flags = SIZE_NEAREST) const {
    detail::check(V_ResizeBitmapExt(source(), destination.get(), flags), "V_ResizeBitmapExt");
  }
  void resize_into(Bitmap& destination, uint32_t flags, std::error_code& ec) const noexcept {
    detail::report(V_ResizeBitmapExt(source(), destination.get(), flags), ec);
  }
  /// The pixels moved so that the bitmap is stored in view perspective
  /// `view` (V_ChangeBitmapViewPerspective in place).
  void set_view_perspective(int32_t view) {
    detail::check(V_ChangeBitmapViewPerspective(nullptr, &record_, view), "V_ChangeBitmapViewPerspective");
  }
  void set_view_perspective(int32_t view, std::error_code& ec) noexcept {
    detail::report(V_ChangeBitmapViewPerspective(nullptr, &record_, view), ec);
  }
  /// A new width x height bitmap holding the rectangle at (left, top),
  /// clipped; what lies outside this bitmap is 0 (V_CopyBitmapRect).
  Bitmap copy_rect(int32_t left, int32_t top, int32_t width, int32_t height) const {
    Bitmap out;
    detail::check(rect_into(out, left, top, width, height), "V_CopyBitmapRect");
    return out;
  }
  Bitmap copy_rect(int32_t left, int32_t top, int32_t width, int32_t height, std::error_code& ec) const noexcept {
    Bitmap out;
    detail::report(rect_into(out, left, top, width, height), ec);
    return out;
  }
  /// Cut down in place to the part of the rectangle inside the bitmap.
  void trim(int32_t left, int32_t top, int32_t width, int32_t height) {
    detail::check(V_TrimBitmap(&record_, left, top, width, height), "V_TrimBitmap");
  }
  void trim(int32_t left, int32_t top, int32_t width, int32_t height, std::error_code& ec) noexcept {
    detail::report(V_TrimBitmap(&record_, left, top, width, height), ec);
  }

  /// A new DIB of header type 0-2 (V_ConvertToDIB2); the caller frees it with VKP_GlobalFree (vkkrn_platform.h).
  VK_HGLOBAL to_dib(int32_t type = 0) const {
    VK_HGLOBAL dib = V_ConvertToDIB2(source(), type);
    if (!dib) throw Error(dib_failure(), "V_ConvertToDIB2");
    return dib;
  }
  /// As above; null on failure, with RESULT_NO_BITMAP (empty) or RESULT_FAIL in `ec` (the call gives no code).
  VK_HGLOBAL to_dib(int32_t type, std::error_code& ec) const noexcept {
    VK_HGLOBAL dib = V_ConvertToDIB2(source(), type);
    detail::report(dib ? int32_t{RESULT_OK} : dib_failure(), ec);
    return dib;
  }
  /// A bitmap that takes the DIB block over (V_ChangeFromDIB); a refused block stays the caller's.
  static Bitmap from_dib(VK_HGLOBAL dib) {
    Bitmap out;
    detail::check(V_ChangeFromDIB(&out.record_, dib), "V_ChangeFromDIB");
    return out;
  }
  static Bitmap from_dib(VK_HGLOBAL dib, std::error_code& ec) noexcept {
    Bitmap out;
    detail::report(V_ChangeFromDIB(&out.record_, dib), ec);
    return out;
  }
  /// The alpha channel as a new gray bitmap: 16 bits for 64-bit pixels, else 8 (V_GetBitmapAlpha).
  Bitmap alpha() const {
    Bitmap out;
    detail::check(V_GetBitmapAlpha(source(), &out.record_), "V_GetBitmapAlpha");
    return out;
  }
  Bitmap alpha(std::error_code& ec) const noexcept {
    Bitmap out;
    detail::report(V_GetBitmapAlpha(source(), &out.record_), ec);
    return out;
  }
  /// The alpha channel set from a gray (or any) bitmap; a depth made 32 or 64 bits first stays so on failure (V_SetBitmapAlpha).
  void set_alpha(const Bitmap& alpha) {
    detail::check(V_SetBitmapAlpha(&record_, alpha.source()), "V_SetBitmapAlpha");
  }
  void set_alpha(const Bitmap& alpha, std::error_code& ec) noexcept {
    detail::report(V_SetBitmapAlpha(&record_, alpha.source()), ec);
  }

 private:
  int32_t create(int32_t width, int32_t height, int32_t bits, int32_t order, int32_t memory_type,
                 const RGBQUAD* palette) noexcept {
    const int32_t result =
        V_CreateBitmap(&record_, memory_type, width, height, bits, order, palette, 0, nullptr, 0);
    // A refused creation may still have made storage: free it, stay empty.
    if (result != RESULT_OK) reset();
    return result;
  }
  int32_t color_res(int32_t bits, uint32_t flags, int32_t colors) noexcept {
    return V_ColorResBitmap(&record_, &record_, bits, flags, nullptr, nullptr, colors, nullptr, 0);
  }
  int32_t dib_failure() const noexcept { return *this ? int32_t{RESULT_FAIL} : int32_t{RESULT_NO_BITMAP}; }
  // The C calls take the source by non-const pointer (row reads move its
  // row cache) but leave what it describes unchanged.
  BitmapHandle* source() const noexcept { return const_cast<BitmapHandle*>(&record_); }
  int32_t copy_into(Bitmap& out, int32_t memory_type) const noexcept {
    return memory_type ? V_CopyBitmap2(&out.record_, source(), memory_type) : V_CopyBitmap(&out.record_, source());
  }
  int32_t rect_into(Bitmap& out, int32_t left, int32_t top, int32_t width, int32_t height) const noexcept {
    return V_CopyBitmapRect(&out.record_, source(), left, top, width, height);
  }

  BitmapHandle record_;
};

/// A list of bitmaps that owns them (V_CreateBitmapList ..
/// V_DestroyBitmapList).  Move-only.
class BitmapList {
 public:
  /// An empty list.  Throws vk::Error.
  BitmapList() { detail::check(V_CreateBitmapList(&list_), "V_CreateBitmapList"); }
  BitmapList(BitmapList&& other) noexcept : list_(std::exchange(other.list_, nullptr)) {}
  BitmapList& operator=(BitmapList&& other) noexcept {
    if (this != &other) {
      if (list_) V_DestroyBitmapList(list_);
      list_ = std::exchange(other.list_, nullptr);
    }
    return *this;
  }
  BitmapList(const BitmapList&) = delete;
  BitmapList& operator=(const BitmapList&) = delete;
  ~BitmapList() {
    if (list_) V_DestroyBitmapList(list_);
  }

  /// The list handle, for any V_ call.  Do not destroy it.
  ::BitmapList get() const noexcept { return list_; }

  std::size_t size() const {
    uint32_t count = 0;
    detail::check(V_GetBitmapListCount(list_, &count), "V_GetBitmapListCount");
    return count;
  }
  /// Appends the bitmap; the list owns it from then on and `bitmap` is
  /// empty.  On failure `bitmap` keeps it.  Throws vk::Error.
  void push_back(Bitmap&& bitmap) {
    detail::check(V_InsertBitmapListItem(list_, UINT32_MAX, bitmap.get()), "V_InsertBitmapListItem");
    bitmap.release();
  }
  /// Removes item `index` and hands it over.  Throws vk::Error.
  Bitmap take(std::size_t index) {
    BitmapHandle record{};
    detail::check(V_RemoveBitmapListItem(list_, static_cast<uint32_t>(index), &record), "V_RemoveBitmapListItem");
    return Bitmap::adopt(record);
  }
  /// A copy of item `index`'s record: the list still owns its storage.
  BitmapHandle item(std::size_t index) const {
    BitmapHandle record{};
    detail::check(V_GetBitmapListItem(list_, static_cast<uint32_t>(index), &record), "V_GetBitmapListItem");
    return record;
  }
  /// Reduces every item to `bits` with one shared palette
  /// (V_ColorResBitmapList); items before a failing one stay reduced.
  void reduce(int32_t bits, uint32_t flags = RESOLVE_OPTIMISED, int32_t colors = 0) {
    detail::check(V_ColorResBitmapList(list_, bits, flags, nullptr, nullptr, colors), "V_ColorResBitmapList");
  }

 private:
  ::BitmapList list_ = nullptr;
};

/// Installs a progress callback on the calling thread for as long as it
/// lives (V_SetStatusCallBack), then puts the previous one back.  The
/// callable gets the percent (0-100) and returns true to go on, false to
/// stop: the running operation then fails with kCancelled.  An exception
/// from the callable stops the operation with RESULT_FAIL; it never crosses
/// the library.  Not movable: the library holds its address.
template <class F>
class ProgressScope {
 public:
  explicit ProgressScope(F callable) : callable_(std::move(callable)) {
    previous_ = V_GetStatusCallBack(&previous_data_);
    V_SetStatusCallBack(&ProgressScope::call, reinterpret_cast<intptr_t>(this));
  }
  ~ProgressScope() { V_SetStatusCallBack(previous_, previous_data_); }
  ProgressScope(const ProgressScope&) = delete;
  ProgressScope& operator=(const ProgressScope&) = delete;

 private:
  static int32_t VK_CALL call(int32_t percent, intptr_t self) noexcept {
    try {
      return reinterpret_cast<ProgressScope*>(self)->callable_(percent) ? RESULT_OK : kCancelled;
    } catch (...) {
      return RESULT_FAIL;
    }
  }
  F callable_;
  StatusCallback previous_ = nullptr;
  intptr_t previous_data_ = 0;
};

}  // namespace vk

#endif  // VKKRN_HPP
