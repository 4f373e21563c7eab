// ops.cpp - the operations of a pipeline, each a thin driver of one library call.
#include "ops.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <ostream>
#include <sstream>

#include "result_names.h"
#include "streams.h"

namespace vkimg {

// ---- progress and Ctrl-C ----------------------------------------------------------

namespace {

volatile std::sig_atomic_t g_interrupted = 0;

struct ProgressState {
  bool enabled = false;
  std::string label;
  int shown = -1;        // percent last drawn, -1: nothing on the line
  int interrupt_at = -1;  // test hook: raise SIGINT once at this percent
  std::string interrupt_in;  // ... of the step whose label starts so ("" = any)
  bool raised = false;
};
ProgressState g_progress;

// The first Ctrl-C asks the running loop to stop at its next block, which
// then unwinds and removes its temporary output.  A second one ends the
// program at once, removing that file itself.
extern "C" void on_sigint(int) {
  if (g_interrupted) {
    remove_pending_output();
    _exit(kExitCancelled);
  }
  g_interrupted = 1;
}

void draw(int percent) {
  if (!g_progress.enabled || percent == g_progress.shown) return;
  g_progress.shown = percent;
  constexpr int kBar = 32;
  char bar[kBar + 1];
  const int full = percent * kBar / 100;
  for (int i = 0; i < kBar; ++i) bar[i] = i < full ? '#' : '.';
  bar[kBar] = 0;
  std::fprintf(stderr, "\r%-28.28s [%s] %3d%%", g_progress.label.c_str(), bar, percent);
  std::fflush(stderr);
}

void maybe_test_interrupt(int percent) {
  if (g_progress.interrupt_at >= 0 && !g_progress.raised && percent >= g_progress.interrupt_at &&
      g_progress.label.rfind(g_progress.interrupt_in, 0) == 0) {
    g_progress.raised = true;
    std::raise(SIGINT);
  }
}

int32_t VK_CALL status_callback(int32_t percent, intptr_t) {
  maybe_test_interrupt(percent);
  if (g_interrupted) return 0;  // anything but RESULT_OK stops the operation
  draw(std::clamp(percent, 0, 100));
  return RESULT_OK;
}

}  // namespace

void install_interrupt_handling(bool show_progress) {
  struct sigaction sa {};
  sa.sa_handler = on_sigint;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  g_progress.enabled = show_progress;
  // VKIMG_TEST_INTERRUPT_AT=[LABEL:]PERCENT, e.g. "saving:50".
  if (const char* at = std::getenv("VKIMG_TEST_INTERRUPT_AT")) {
    const std::string hook = at;
    const size_t colon = hook.rfind(':');
    if (colon != std::string::npos) g_progress.interrupt_in = hook.substr(0, colon);
    g_progress.interrupt_at = std::atoi(hook.c_str() + (colon == std::string::npos ? 0 : colon + 1));
  }
  V_SetStatusCallBack(status_callback, 0);
}

bool interrupted() { return g_interrupted != 0; }

void progress_begin(const std::string& label) {
  progress_end();
  g_progress.label = label;
}

void progress_end() {
  if (g_progress.enabled && g_progress.shown >= 0) {
    std::fprintf(stderr, "\r%*s\r", 28 + 2 + 32 + 6, "");
    std::fflush(stderr);
  }
  g_progress.shown = -1;
}

void progress_step(int64_t done, int64_t total) {
  const int percent = total > 0 ? static_cast<int>(done * 100 / total) : 100;
  maybe_test_interrupt(percent);
  if (g_interrupted) throw Cancelled(g_progress.label + " cancelled");
  draw(percent);
}

// ---- helpers ---------------------------------------------------------------------

void check_result(int32_t r, const std::string& what) {
  if (r == RESULT_OK) return;
  if (g_interrupted) throw Cancelled(what + " cancelled");
  throw LibraryError(what + " failed: " + describe_result(r), r);
}

long parse_long(const std::string& text, const std::string& what, long lo, long hi) {
  errno = 0;
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 0);
  if (text.empty() || *end != 0 || errno != 0 || v < lo || v > hi)
    throw UsageError("bad value for " + what + ": '" + text + "' (expected " + std::to_string(lo) + ".." +
                     std::to_string(hi) + ")");
  return v;
}

namespace {

constexpr const char* kDitherNames[] = {"none",   "floyd-steinberg", "stucki",  "burkes",   "sierra",
                                        "stevenson-arce", "jarvis", "ordered", "clustered"};

std::pair<long, long> parse_xy(const std::string& text, const std::string& what) {
  const size_t comma = text.find(',');
  if (comma == std::string::npos) throw UsageError("bad position for " + what + ": '" + text + "' (expected X,Y)");
  return {parse_long(text.substr(0, comma), what, 0, INT32_MAX), parse_long(text.substr(comma + 1), what, 0, INT32_MAX)};
}

BitmapHandle& need_bitmap(Context& ctx, const char* option) {
  if (!ctx.bitmap.allocated()) throw UsageError(std::string(option) + " needs an image");
  return *ctx.bitmap.get();
}

const char* order_name(int order) {
  switch (order) {
    case ORDER_RGB: return "RGB";
    case ORDER_BGR: return "BGR";
    case ORDER_GRAY: return "gray";
    case ORDER_BGR_ALT: return "BGR alt";
    default: return "?";
  }
}

std::string flag_names(uint32_t flags) {
  static constexpr struct {
    uint32_t bit;
    const char* name;
  } kFlags[] = {{BITMAP_ALLOCATED, "allocated"},     {BITMAP_IN_MEMORY, "in-memory"},
                {BITMAP_ON_DISK, "on-disk"},         {BITMAP_LOCKED, "locked"},
                {BITMAP_COMPRESSED, "compressed"},   {BITMAP_USER_DATA, "user-data"},
                {BITMAP_GRAY_FLAG, "gray"},          {BITMAP_GLOBAL_MEMORY, "global"},
                {BITMAP_TILED, "tiled"},             {BITMAP_SUPER_COMPRESSED, "super-compressed"},
                {PALETTE_IS_TABLE, "palette-table"}};
  std::string s;
  for (const auto& f : kFlags)
    if (flags & f.bit) s += (s.empty() ? "" : " ") + std::string(f.name);
  return s;
}

const char* storage_kind(uint32_t flags) {
  if (!(flags & BITMAP_ALLOCATED)) return "none";
  if (flags & BITMAP_COMPRESSED) return "compressed 1-bit rows";
  if (flags & BITMAP_SUPER_COMPRESSED) return "super-compressed";
  if (flags & BITMAP_TILED) return "tiles";
  if (flags & BITMAP_ON_DISK) return "temp file on disk";
  if (flags & BITMAP_GLOBAL_MEMORY) return "global memory";
  if (flags & BITMAP_USER_DATA) return "caller memory";
  return "memory";
}

std::vector<RGBQUAD> palette_of(BitmapHandle& bm) {
  std::vector<RGBQUAD> pal;
  if (bm.BitsPerPixel > 8) return pal;
  pal.resize(size_t(1) << bm.BitsPerPixel);
  const int32_t n = bm.Palette ? V_GetBitmapPaletteEntries(&bm, 0, static_cast<int32_t>(pal.size()), pal.data()) : 0;
  if (n <= 0) throw LibraryError("the bitmap's palette cannot be read", RESULT_FAIL);
  return pal;  // entries past n stay black
}

std::vector<RGBQUAD> gray_palette(int bits) {
  const int n = 1 << bits;
  std::vector<RGBQUAD> pal(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    const auto v = static_cast<uint8_t>(i * 255 / (n - 1));
    pal[static_cast<size_t>(i)] = RGBQUAD{v, v, v, 0};
  }
  return pal;
}

bool valid_bits(long b) { return (b >= 1 && b <= 8) || b == 12 || b == 16 || b == 24 || b == 32 || b == 48 || b == 64; }

// ---- the operations ----

void op_info(Context& ctx, const std::string&) {
  BitmapHandle& bm = need_bitmap(ctx, "--info");
  *ctx.out << describe_bitmap(bm, ctx.name, true);
}

// BITS[:ORDER], ORDER = rgb, bgr, gray, alt (or 0, 1, 2, 5).
void op_convert(Context& ctx, const std::string& arg) {
  BitmapHandle& src = need_bitmap(ctx, "--convert");
  const size_t colon = arg.find(':');
  const long bits = parse_long(arg.substr(0, colon), "--convert", 0, 64);
  if (bits != 0 && !valid_bits(bits)) throw UsageError("--convert: unsupported bits per pixel " + std::to_string(bits));
  int order = bits == 0 || bits == 12 ? ORDER_GRAY : (bits > 8 ? ORDER_BGR : ORDER_RGB);
  if (colon != std::string::npos) {
    const std::string o = canonical_spelling(arg.substr(colon + 1));
    if (o == "rgb" || o == "0") order = ORDER_RGB;
    else if (o == "bgr" || o == "1") order = ORDER_BGR;
    else if (o == "gray" || o == "2") order = ORDER_GRAY;
    else if (o == "alt" || o == "5") order = ORDER_BGR_ALT;
    else throw UsageError("--convert: unknown colour order '" + o + "' (rgb, bgr, gray, alt)");
  }
  if (order == ORDER_BGR_ALT && bits != 24 && bits != 48) throw UsageError("--convert: order alt needs 24 or 48 bits");
  if (order == ORDER_GRAY && bits != 0 && bits > 8 && bits != 12 && bits != 16)
    throw UsageError("--convert: gray order needs 0-8, 12 or 16 bits");
  if (bits == 12 && order != ORDER_GRAY) throw UsageError("--convert: 12 bits are gray only");
  const bool gray_index = order == ORDER_GRAY && bits <= 8;  // gray palette destination
  const int dst_bits = gray_index ? (bits == 0 ? 8 : static_cast<int>(bits)) : static_cast<int>(bits);

  std::vector<RGBQUAD> src_pal = palette_of(src);
  std::vector<RGBQUAD> dst_pal;
  if (gray_index) dst_pal = gray_palette(dst_bits);
  const int src_order = src.BitsPerPixel <= 8 ? ORDER_RGB : src.Order;

  Bitmap dst;
  const int32_t r = V_CreateBitmap(dst.get(), ctx.settings.memory_type, src.Width, src.Height, dst_bits,
                                   dst_bits <= 8 ? ORDER_RGB : order, dst_pal.empty() ? nullptr : dst_pal.data(),
                                   src.ViewPerspective, nullptr, 0);
  if (dst.allocated()) dst.adopt();
  check_result(r, "--convert: creating the " + std::to_string(dst_bits) + "-bit bitmap");
  dst->XResolution = src.XResolution;
  dst->YResolution = src.YResolution;

  // The row buffer holds the wider of the two rows, and an 8-bit gray-level
  // row for the two-step gray path.
  const size_t need = std::max({static_cast<size_t>(src.BytesPerLine), static_cast<size_t>(dst->BytesPerLine),
                                Image::stride_for(src.Width, 8)});
  std::vector<uint8_t> buf(need + 16);
  const RGBQUAD* sp = src_pal.empty() ? nullptr : src_pal.data();
  for (int32_t y = 0; y < src.Height; ++y) {
    int32_t c = V_GetBitmapRow(&src, buf.data(), static_cast<uint32_t>(y), static_cast<int32_t>(src.BytesPerLine));
    if (c < 0) check_result(c, "--convert: reading row " + std::to_string(y));
    if (gray_index) {
      // Colour to gray levels by the gray formula, then levels to indices of
      // the gray palette (one 256-entry map, no per-pixel search).
      c = V_ConvertBuffer(buf.data(), src.Width, src.BitsPerPixel, 0, src_order, ORDER_GRAY, sp, nullptr);
      if (c == RESULT_OK && dst_bits != 8)
        c = V_ConvertBuffer(buf.data(), src.Width, 0, dst_bits, ORDER_GRAY, ORDER_RGB, nullptr, dst_pal.data());
    } else {
      c = V_ConvertBuffer(buf.data(), src.Width, src.BitsPerPixel, dst_bits, src_order, order, sp, nullptr);
    }
    check_result(c, "--convert " + arg);
    c = V_PutBitmapRow(dst.get(), buf.data(), static_cast<uint32_t>(y), static_cast<int32_t>(dst->BytesPerLine));
    if (c < 0) check_result(c, "--convert: writing row " + std::to_string(y));
    progress_step(y + 1, src.Height);
  }
  ctx.bitmap = std::move(dst);
}

void op_gray(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--gray");
  const long bits = parse_long(arg, "--gray", 8, 16);
  if (bits != 8 && bits != 12 && bits != 16) throw UsageError("--gray takes 8, 12 or 16");
  check_result(V_GrayScaleBitmap(&bm, static_cast<int32_t>(bits)), "--gray " + arg);
}

void op_get_pixel(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--get-pixel");
  const auto [x, y] = parse_xy(arg, "--get-pixel");
  if (x >= bm.Width || y >= bm.Height)
    throw UsageError("--get-pixel: " + arg + " is outside the " + std::to_string(bm.Width) + "x" +
                     std::to_string(bm.Height) + " image");
  const uint32_t c = V_GetPixelColor(&bm, storage_row(bm, static_cast<int32_t>(y)), static_cast<int32_t>(x));
  if (c == COLOR_INVALID) throw LibraryError("--get-pixel " + arg + " failed: the library reports an invalid colour", RESULT_FAIL);
  *ctx.out << "pixel " << x << "," << y << ": " << format_colour(c) << "\n";
}

uint32_t parse_colour(const std::string& text) {
  auto number = [&](const std::string& s, long hi) { return static_cast<uint32_t>(parse_long(s, "colour", 0, hi)); };
  if (text.size() == 7 && text[0] == '#') {
    const uint32_t rgb = number("0x" + text.substr(1), 0xFFFFFF);
    return VK_RGB(rgb >> 16, rgb >> 8, rgb);
  }
  if (text.rfind("index:", 0) == 0) return COLOR_PALETTE_INDEX | number(text.substr(6), 255);
  if (text.rfind("gray16:", 0) == 0 || text.rfind("grey16:", 0) == 0)
    return COLOR_GRAY16 | number(text.substr(7), 65535);
  const size_t c1 = text.find(','), c2 = text.rfind(',');
  if (c1 != std::string::npos && c2 != c1)
    return VK_RGB(number(text.substr(0, c1), 255), number(text.substr(c1 + 1, c2 - c1 - 1), 255),
                  number(text.substr(c2 + 1), 255));
  if (text.rfind("0x", 0) == 0) return number(text, 0x7FFFFFFF);
  throw UsageError("bad colour '" + text + "' (use #RRGGBB, R,G,B, index:N, gray16:N or 0xVALUE)");
}

void op_put_pixel(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--put-pixel");
  const size_t eq = arg.find('=');
  if (eq == std::string::npos) throw UsageError("--put-pixel takes X,Y=COLOUR");
  const auto [x, y] = parse_xy(arg.substr(0, eq), "--put-pixel");
  const uint32_t colour = parse_colour(arg.substr(eq + 1));
  if (x >= bm.Width || y >= bm.Height)
    throw UsageError("--put-pixel: " + arg.substr(0, eq) + " is outside the " + std::to_string(bm.Width) + "x" +
                     std::to_string(bm.Height) + " image");
  check_result(V_PutPixelColor(&bm, storage_row(bm, static_cast<int32_t>(y)), static_cast<int32_t>(x), colour),
               "--put-pixel " + arg);
}

// An 8-bit picture whose palette holds only grays.
bool gray_levels(BitmapHandle& bm) { return bm.BitsPerPixel == 8 && rows_info(bm).palette_is_gray(); }

// A row of 24-bit colour made gray levels in place (the first width bytes).
void row_to_gray_levels(uint8_t* row, int32_t width, int32_t order, const std::string& what) {
  const int32_t r = V_ConvertBufferExt(row, width, 24, 0, order, ORDER_GRAY, nullptr, nullptr, 0, 0, 0);
  if (r != RESULT_OK) check_result(r, what);
}

// Black and white starts from the gray levels.
void gray_for(const ReduceRequest& req, BitmapHandle& bm, const std::string& arg) {
  if (req.black_and_white && bm.BitsPerPixel != 1 && !gray_levels(bm))
    check_result(V_GrayScaleBitmap(&bm, 8), "--reduce " + arg);
}

void op_reduce(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--reduce");
  ReduceRequest req = parse_reduce(arg, ctx.settings);
  gray_for(req, bm, arg);
  if (ctx.settings.dither >= 0) bm.DitheringMethod = ctx.settings.dither;
  check_result(V_ColorResBitmap(&bm, &bm, req.bits, req.flags, req.palette.empty() ? nullptr : req.palette.data(),
                                nullptr, req.colors, nullptr, 0),
               "--reduce " + arg);
}

void op_count_colors(Context& ctx, const std::string&) {
  BitmapHandle& bm = need_bitmap(ctx, "--count-colors");
  uint32_t count = 0;
  check_result(V_GetBitmapColorCountExt(&bm, &count, nullptr), "--count-colors");
  *ctx.out << ctx.name << ": " << count << " colours\n";
}

void op_compress(Context& ctx, const std::string&) {
  BitmapHandle& bm = need_bitmap(ctx, "--compress");
  if (bm.BitsPerPixel != 1) throw UsageError("--compress needs a 1-bit image (use --reduce 1 first)");
  check_result(V_ChangeBitmapCompression(&bm, 1), "--compress");
}

void op_decompress(Context& ctx, const std::string&) {
  check_result(V_ChangeBitmapCompression(&need_bitmap(ctx, "--decompress"), 0), "--decompress");
}

// Prints the palette of up to N colours the optimiser picks for the image.
void op_optimised_palette(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--optimised-palette");
  const long n = parse_long(arg, "--optimised-palette", 1, 256);
  std::vector<RGBQUAD> pal(256);
  uint32_t colors = static_cast<uint32_t>(n);
  int32_t needs_dither = 1;
  check_result(V_CreateOptimizedPalette(&bm, pal.data(), &colors, nullptr, &needs_dither, 0),
               "--optimised-palette " + arg);
  *ctx.out << ctx.name << ": " << colors << " colours, "
           << (needs_dither ? "approximating the image" : "exactly the image's colours") << "\n";
  for (uint32_t i = 0; i < colors && i < pal.size(); ++i)
    *ctx.out << "  " << i << ": " << format_colour(VK_RGB(pal[i].rgbRed, pal[i].rgbGreen, pal[i].rgbBlue)) << "\n";
}

// Moves the pixels into storage of another memory type (tiles, disk, ...).
void op_storage(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--storage");
  const long type = parse_long(arg, "--storage", 1, 2048);
  check_memory_type(type, "--storage " + arg);
  check_result(V_SetBitmapMemoryInfo(&bm, static_cast<int32_t>(type), 0, 0, 0, 0, 0, MEMINFO_TYPE),
               "--storage " + arg);
}

// Keeps the top N rows (or adds rows at the bottom).
void op_height(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--height");
  if (bm.ViewPerspective != 0) throw UsageError("--height works on images stored top row first");
  const long h = parse_long(arg, "--height", 1, INT32_MAX);
  if (static_cast<uint64_t>(bm.BytesPerLine) * static_cast<uint64_t>(h) > 0xFFFFFFFFull)
    throw UsageError("--height " + arg + " makes the bitmap larger than 4 GiB");
  check_result(V_ChangeBitmapHeight(&bm, static_cast<int32_t>(h)), "--height " + arg);
}

void op_flip(Context& ctx, const std::string&) {
  check_result(V_FlipBitmap(&need_bitmap(ctx, "--flip")), "--flip");
}

void op_mirror(Context& ctx, const std::string&) {
  check_result(V_ReverseBitmap(&need_bitmap(ctx, "--mirror")), "--mirror");
}

// Clockwise as seen: +9000 takes the top-left pixel to the top-right corner.
// Degrees with up to two decimals, as hundredths of a degree.
int32_t parse_angle(const std::string& text, const std::string& what) {
  const size_t dot = text.find('.');
  const std::string whole = text.substr(0, dot);
  const bool negative = !whole.empty() && whole[0] == '-';
  long v = parse_long(negative ? whole.substr(1) : whole, what, 0, 36000) * 100;
  if (dot != std::string::npos) {
    const std::string frac = text.substr(dot + 1);
    if (frac.empty() || frac.size() > 2) throw UsageError(what + " takes degrees with up to two decimals");
    v += parse_long(frac, what, 0, 99) * (frac.size() == 1 ? 10 : 1);
  }
  return static_cast<int32_t>(negative ? -v : v);
}

// ANGLE[:resize][:linear|:spline][:COLOUR]; whole quarter turns always keep
// the whole image (as they always did here).
void op_rotate(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--rotate");
  size_t colon = arg.find(':');
  const int32_t angle = parse_angle(arg.substr(0, colon), "--rotate");
  uint32_t flags = angle % 9000 == 0 ? ROTATE_RESIZE : 0, fill = 0;
  while (colon != std::string::npos) {
    const size_t next = arg.find(':', colon + 1);
    const std::string part = arg.substr(colon + 1, next == std::string::npos ? std::string::npos : next - colon - 1);
    if (part == "resize") flags |= ROTATE_RESIZE;
    else if (part == "linear") flags |= ROTATE_LINEAR;
    else if (part == "spline") flags |= ROTATE_SPLINE;
    else fill = parse_colour(part);
    colon = next;
  }
  check_result(V_RotateBitmap(&bm, angle, flags, fill), "--rotate " + arg);
}

// ANGLE[:vertical][:COLOUR]: the rows slide (the columns with vertical) by
// tan(ANGLE) pixels more per row; the uncovered triangles take COLOUR.
void op_shear(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--shear");
  size_t colon = arg.find(':');
  const int32_t angle = parse_angle(arg.substr(0, colon), "--shear");
  if (angle <= -9000 || angle >= 9000) throw UsageError("--shear takes an angle between -89.99 and 89.99 degrees");
  int32_t horizontal = 1;
  uint32_t fill = 0;
  while (colon != std::string::npos) {
    const size_t next = arg.find(':', colon + 1);
    const std::string part = arg.substr(colon + 1, next == std::string::npos ? std::string::npos : next - colon - 1);
    if (part == "vertical") horizontal = 0;
    else fill = parse_colour(part);
    colon = next;
  }
  // The library leaves a bitmap whose sheared rows would pass 32768 bytes as
  // it is and succeeds; say so instead of writing the image unchanged.
  const int32_t a = angle < 0 ? -angle : angle;
  const int64_t along = horizontal ? bm.Width : bm.Height, across = horizontal ? bm.Height : bm.Width;
  const int64_t width = along + int64_t{V_SinValue(a)} * across / V_CosValue(a);
  if (width * bm.BitsPerPixel / 8 > 32768)
    throw UsageError("--shear " + arg + ": the sheared rows would take more than 32768 bytes");
  check_result(V_ShearBitmap(&bm, angle, horizontal, fill), "--shear " + arg);
}

void op_fill(Context& ctx, const std::string& arg) {
  check_result(V_FillBitmap(&need_bitmap(ctx, "--fill"), parse_colour(arg)), "--fill " + arg);
}

// X,Y,W,H: the rectangle's corner may lie outside the image.
std::array<int32_t, 4> parse_rect(const std::string& arg, const std::string& option) {
  std::array<int32_t, 4> v{};
  size_t at = 0;
  for (int i = 0; i < 4; ++i) {
    const size_t comma = i < 3 ? arg.find(',', at) : arg.size();
    if (comma == std::string::npos) throw UsageError(option + " takes X,Y,W,H");
    const long lo = i < 2 ? -1000000 : 1;
    v[size_t(i)] = static_cast<int32_t>(parse_long(arg.substr(at, comma - at), option, lo, 1000000));
    at = comma + 1;
  }
  return v;
}

// The rectangle as given, the part outside the image black.
void op_crop(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--crop");
  const auto r = parse_rect(arg, "--crop");
  check_result(V_CopyBitmapRect(nullptr, &bm, r[0], r[1], r[2], r[3]), "--crop " + arg);
}

// The part of the rectangle inside the image.
void op_trim(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--trim");
  const auto r = parse_rect(arg, "--trim");
  check_result(V_TrimBitmap(&bm, r[0], r[1], r[2], r[3]), "--trim " + arg);
}

// WxH[:method]: either side 0 follows the other with the aspect ratio kept;
// a side may be a percentage of the image's own ("50%x0", "200%x200%").
void op_resize(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--resize");
  const size_t colon = arg.find(':');
  std::string dims = arg.substr(0, colon);
  // One share alone scales both sides ("50%" is "50%x50%").
  if (dims.find('x') == std::string::npos && !dims.empty() && dims.back() == '%') dims += "x" + dims;
  const size_t x = dims.find('x');
  if (x == std::string::npos) throw UsageError("--resize takes WxH or N%[:nearest|average|smooth|density]");
  // Sides as seen: a transposed view stores the seen width as its height.
  const bool transposed = bm.ViewPerspective == 4 || bm.ViewPerspective == 5 || bm.ViewPerspective >= 7;
  const int32_t seen_w = transposed ? bm.Height : bm.Width, seen_h = transposed ? bm.Width : bm.Height;
  auto side = [&](const std::string& text, int32_t current) -> int32_t {
    if (!text.empty() && text.back() == '%') {
      const long pct = parse_long(text.substr(0, text.size() - 1), "--resize", 0, 100000);
      const int64_t v = (int64_t{current} * pct + 50) / 100;
      if (pct != 0 && v < 1) throw UsageError("--resize " + arg + " leaves no pixel");
      if (v > 1000000) throw UsageError("--resize " + arg + " is larger than 1000000 pixels a side");
      return static_cast<int32_t>(v);
    }
    return static_cast<int32_t>(parse_long(text, "--resize", 0, 1000000));
  };
  const int32_t w = side(dims.substr(0, x), seen_w), h = side(dims.substr(x + 1), seen_h);
  if (w == 0 && h == 0) throw UsageError("--resize " + arg + ": at most one side may be 0");
  uint32_t flags = SIZE_NEAREST;
  if (colon != std::string::npos) {
    const std::string m = arg.substr(colon + 1);
    if (m == "nearest") flags = SIZE_NEAREST;
    else if (m == "average") flags = SIZE_RESAMPLE;
    else if (m == "smooth") flags = SIZE_SMOOTH;
    else if (m == "density") flags = SIZE_ONE_BIT_DENSITY;
    else throw UsageError("--resize methods are nearest, average, smooth and density");
  }
  // The new size must fit the library's 32-bit row arithmetic.
  const int64_t ew = w ? w : int64_t(h) * seen_w / seen_h + 1, eh = h ? h : int64_t(w) * seen_h / seen_w + 1;
  if ((ew * bm.BitsPerPixel + 31) / 32 * 4 * eh > 0xFFFFFFFFll)
    throw UsageError("--resize " + arg + " makes the bitmap larger than 4 GiB");
  check_result(transposed ? V_SizeBitmap(&bm, h, w, flags) : V_SizeBitmap(&bm, w, h, flags), "--resize " + arg);
}

void op_view_perspective(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--view-perspective");
  const long v = parse_long(arg, "--view-perspective", 0, 8);
  check_result(V_ChangeBitmapViewPerspective(nullptr, &bm, static_cast<int32_t>(v)), "--view-perspective " + arg);
}


// The alpha channel as a gray image file: 8 bits, 16 for 64-bit pixels, all
// zero for depths without one.
void op_alpha_out(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--alpha-out");
  Bitmap alpha;
  check_result(V_GetBitmapAlpha(&bm, alpha.get()), "--alpha-out " + arg);
  alpha.adopt();
  std::vector<std::string> notes;
  save_bitmap(*alpha.get(), arg, format_for_path(arg), EncodeOptions{}, &notes);
  for (const std::string& n : notes) *ctx.out << n << "\n";
}

// The alpha channel from a gray (or any) image file; an image without one
// becomes 32 bits (64 from 48) first.  A smaller file sets the top-left part.
void op_alpha_in(Context& ctx, const std::string& arg) {
  BitmapHandle& bm = need_bitmap(ctx, "--alpha-in");
  Bitmap alpha = load_bitmap(arg, ctx.settings.memory_type);
  check_result(V_SetBitmapAlpha(&bm, alpha.get()), "--alpha-in " + arg);
}

bool diffuses(int method) { return method >= DITHER_FLOYD_STEINBERG && method <= DITHER_JARVIS; }

}  // namespace

ReduceRequest parse_reduce(const std::string& arg, const Settings& s) {
  const size_t colon = arg.find(':');
  ReduceRequest req;
  const long bits = parse_long(arg.substr(0, colon), "--reduce", 1, 64);
  if (!valid_bits(bits)) throw UsageError("--reduce: unsupported bits per pixel " + std::to_string(bits));
  req.bits = static_cast<int>(bits);
  const bool gray = colon != std::string::npos && canonical_spelling(arg.substr(colon + 1)) == "gray";
  if (colon != std::string::npos && !gray) throw UsageError("--reduce takes BITS or BITS:gray");
  req.colors = s.colors;
  if (bits > 8) {
    req.flags = gray || bits == 12 ? RESOLVE_GRAY : RESOLVE_BGR;
    return req;
  }
  if (gray) {
    // Gray levels evenly spaced from black to white, dithered like any palette.
    if (s.palette_given) throw UsageError("--reduce " + arg + " makes its own gray palette; drop --palette");
    req.flags = RESOLVE_USER_PALETTE;
    req.palette = gray_palette(req.bits);
    req.colors = static_cast<int32_t>(req.palette.size());
    req.black_and_white = bits == 1 && diffuses(s.dither);
    return req;
  }
  // Two arbitrary colours are rarely what one bit is wanted for: black and
  // white unless a palette was asked for.
  const PaletteMode mode = bits == 1 && !s.palette_given ? PaletteMode::fixed : s.palette;
  switch (mode) {
    case PaletteMode::fixed:
      req.flags = RESOLVE_FIXED;
      req.black_and_white = bits == 1 && diffuses(s.dither);
      break;
    case PaletteMode::cube:
      if (bits != 8) throw UsageError("--palette cube needs --reduce 8");
      req.flags = RESOLVE_CUBE;
      break;
    case PaletteMode::user:
      if (s.palette_entries.size() > (size_t(1) << bits))
        throw UsageError("--palette " + s.palette_file + " has " + std::to_string(s.palette_entries.size()) +
                         " colours, more than " + std::to_string(1 << bits) + " bits hold");
      req.flags = RESOLVE_USER_PALETTE;
      req.palette = s.palette_entries;
      req.colors = static_cast<int32_t>(req.palette.size());
      break;
    case PaletteMode::best: req.flags = RESOLVE_OPTIMISED | RESOLVE_BEST_PALETTE; break;
    case PaletteMode::optimised: req.flags = RESOLVE_OPTIMISED; break;
  }
  return req;
}

namespace {

// Colour resolution dithers each row with the dithering engine, its state
// carried from row to row; with a palette fixed in advance that is all it
// does, so the same engine calls give the same rows with no bitmap.
class ReduceStage final : public RowStage {
 public:
  ReduceStage(ReduceRequest req, std::string arg, int dither)
      : req_(std::move(req)), what_("--reduce " + arg), dither_(dither) {}

  // Black and white takes gray levels, or 24-bit colour made gray row by row.
  bool accepts(const BitmapHandle& source) const override {
    return !req_.black_and_white || colour24(source) || gray_levels(const_cast<BitmapHandle&>(source));
  }

  ImageInfo begin(BitmapHandle& source) override {
    // The palette is whatever colour resolution gives a one-pixel picture
    // with the same request: it does not depend on the pixels.
    Bitmap probe;
    int32_t r = V_CreateBitmap(probe.get(), TYPE_CONVENTIONAL, 1, 1, 24, ORDER_BGR, nullptr, 0, nullptr, 0);
    if (probe.allocated()) probe.adopt();
    check_result(r, what_);
    check_result(V_ColorResBitmap(probe.get(), probe.get(), req_.bits, req_.flags,
                                  req_.palette.empty() ? nullptr : req_.palette.data(), nullptr, req_.colors, nullptr, 0),
                 what_);
    // The result is laid out as the probe is, at the source's size.
    ImageInfo out = rows_info(*probe.get());
    out.width = source.Width;
    out.height = source.Height;
    out.xdpi = source.XResolution;
    out.ydpi = source.YResolution;
    std::vector<RGBQUAD> pal;
    for (const Colour& c : out.palette) pal.push_back(RGBQUAD{c.b, c.g, c.r, 0});

    BitmapHandle* dithered = &source;
    if (req_.black_and_white && colour24(source)) {
      // The rows become gray levels in place, dithered as an 8-bit gray
      // picture's (a one-row one: dithering reads no storage).
      const int32_t g = V_CreateBitmap(gray_.get(), TYPE_CONVENTIONAL, source.Width, 1, 8, ORDER_RGB,
                                       gray_palette(8).data(), 0, nullptr, 0);
      if (gray_.allocated()) gray_.adopt();
      check_result(g, what_);
      gray_order_ = source.Order;
      dithered = gray_.get();
    }
    if (dither_ >= 0) dithered->DitheringMethod = dither_;
    check_result(V_StartDitheringExt(dithered, pal.data(), static_cast<int32_t>(pal.size()), req_.bits, nullptr),
                 what_);
    source_ = dithered;
    return out;
  }

  void run(uint8_t* source_row, uint8_t* result_row) override {
    if (source_ == gray_.get()) row_to_gray_levels(source_row, source_->Width, gray_order_, what_);
    const int32_t r = V_DitherLine(source_, source_row, result_row);
    if (r != RESULT_OK) check_result(r, what_);
  }

  void end() noexcept override {
    if (source_) V_StopDithering(source_);
    source_ = nullptr;
  }

 private:
  ReduceRequest req_;
  std::string what_;  // for messages
  int dither_;
  BitmapHandle* source_ = nullptr;
  Bitmap gray_;
  int32_t gray_order_ = ORDER_RGB;

  static bool colour24(const BitmapHandle& b) {
    return b.BitsPerPixel == 24 && (b.Order == ORDER_RGB || b.Order == ORDER_BGR);
  }
};

// Gray of 8 bits from 24-bit colour is the library's gray level of each
// pixel, which row conversion to depth 0 gives.
class GrayStage final : public RowStage {
 public:
  bool accepts(const BitmapHandle& source) const override {
    return source.BitsPerPixel == 24 && (source.Order == ORDER_RGB || source.Order == ORDER_BGR);
  }

  ImageInfo begin(BitmapHandle& source) override {
    width_ = source.Width;
    order_ = source.Order;
    ImageInfo out;
    out.width = source.Width;
    out.height = source.Height;
    out.bits = 8;
    out.order = kOrderRgb;
    out.xdpi = source.XResolution;
    out.ydpi = source.YResolution;
    for (int i = 0; i < 256; ++i) out.palette.push_back(Colour{uint8_t(i), uint8_t(i), uint8_t(i), 0});
    return out;
  }

  void run(uint8_t* source_row, uint8_t* result_row) override {
    row_to_gray_levels(source_row, width_, order_, "--gray 8");
    std::memcpy(result_row, source_row, static_cast<size_t>(width_));
  }

 private:
  int32_t width_ = 0, order_ = ORDER_RGB;
};

}  // namespace

namespace {

struct SinkCall {
  FileSink* sink;
  std::exception_ptr error;
};

// Nothing may be thrown through the library: a failure is kept for later
// and stops the operation.
int32_t VK_CALL to_sink(BitmapHandle* destination, uint8_t* row, int32_t lines, intptr_t user) {
  auto* call = reinterpret_cast<SinkCall*>(user);
  try {
    call->sink->rows(*destination, row, lines);
    return RESULT_OK;
  } catch (...) {
    call->error = std::current_exception();
    return RESULT_FAIL;
  }
}

}  // namespace

bool reduce_to_file(Context& ctx, const std::string& arg, FileSink& sink) {
  BitmapHandle& bm = need_bitmap(ctx, "--reduce");
  ReduceRequest req = parse_reduce(arg, ctx.settings);
  if (req.bits > 8 || bm.ViewPerspective != 0) return false;
  gray_for(req, bm, arg);
  if (ctx.settings.dither >= 0) bm.DitheringMethod = ctx.settings.dither;
  SinkCall call{&sink, nullptr};
  const int32_t r = V_ColorResBitmap(&bm, nullptr, req.bits, req.flags, req.palette.empty() ? nullptr : req.palette.data(),
                                     nullptr, req.colors, to_sink, reinterpret_cast<intptr_t>(&call));
  if (call.error) std::rethrow_exception(call.error);
  check_result(r, "--reduce " + arg);
  return true;
}

std::unique_ptr<RowStage> streaming_stage(const Step& step, const Settings& s) {
  if (step.option == "--gray") return step.arg == "8" ? std::make_unique<GrayStage>() : nullptr;
  if (step.option != "--reduce") return nullptr;
  ReduceRequest req = parse_reduce(step.arg, s);
  if (req.bits > 8 || (req.flags != RESOLVE_FIXED && req.flags != RESOLVE_CUBE && req.flags != RESOLVE_USER_PALETTE))
    return nullptr;
  return std::make_unique<ReduceStage>(std::move(req), step.arg, s.dither);
}

void check_memory_type(long type, const std::string& what) {
  // The library knows the super-compressed type but keeps no such storage:
  // say so rather than pass on its "could not be obtained".
  if (type & TYPE_SUPER_COMPRESSED)
    throw UsageError(what + ": super-compressed storage (" + std::to_string(TYPE_SUPER_COMPRESSED) +
                     ") is not supported; for 1-bit images use --compress");
}

const std::vector<OpInfo>& operations() {
  static const std::vector<OpInfo> kOps = {
      {"--info", nullptr, "print size, depth, order, palette, storage, memory info and colour count", op_info},
      {"--convert", "BITS[:ORDER]", "convert rows to BITS (0-8,12,16,24,32,48,64); ORDER rgb|bgr|gray|alt",
       op_convert},
      {"--gray", "8|12|16", "turn the image into gray of 8, 12 or 16 bits", op_gray},
      {"--get-pixel", "X,Y", "print the colour of the pixel at X,Y (0,0 = top left)", op_get_pixel},
      {"--put-pixel", "X,Y=COLOUR", "set a pixel: #RRGGBB, R,G,B, index:N, gray16:N or 0xVALUE", op_put_pixel},
      {"--reduce", "BITS[:gray]", "colour-resolve to BITS per pixel, Floyd-Steinberg dithered (see --dither, --palette)", op_reduce},
      {"--count-colors", nullptr, "print the number of distinct colours", op_count_colors},
      {"--optimised-palette", "N", "print the palette of up to N colours the optimiser picks", op_optimised_palette},
      {"--compress", nullptr, "keep a 1-bit image in compressed (run-length) storage", op_compress},
      {"--decompress", nullptr, "back from compressed to plain storage", op_decompress},
      {"--storage", "TYPE", "move the pixels to storage of memory type TYPE (1, 4 tiles, 128 disk, ...)", op_storage},
      {"--height", "N", "keep the top N rows, or add blank rows at the bottom", op_height},
      {"--flip", nullptr, "turn the image upside down", op_flip},
      {"--mirror", nullptr, "mirror the image left to right", op_mirror},
      {"--rotate", "ANGLE[:resize][:linear|:spline][:COLOUR]",
       "turn by degrees (two decimals); keep the size or resize; nearest, linear or spline; corners in COLOUR",
       op_rotate},
      {"--shear", "ANGLE[:vertical][:COLOUR]",
       "slant by degrees (two decimals, below 90): rows slide, or columns with vertical; triangles in COLOUR",
       op_shear},
      {"--fill", "COLOUR", "set every pixel to COLOUR", op_fill},
      {"--crop", "X,Y,W,H", "keep the W x H rectangle at X,Y (black where it leaves the image)", op_crop},
      {"--trim", "X,Y,W,H", "keep the part of the rectangle at X,Y that lies inside the image", op_trim},
      {"--resize", "WxH[:METHOD]",
       "resize to W x H (0 keeps the aspect ratio, N% of the side; N% alone: both); METHOD nearest (default), average, smooth "
       "or density (1-bit)",
       op_resize},
      {"--view-perspective", "N", "store the rows in orientation N (0-5, 7, 8); the picture stays the same",
       op_view_perspective},
      {"--alpha-out", "FILE", "write the alpha channel as a gray image (zeros when the image has none)",
       op_alpha_out},
      {"--alpha-in", "FILE", "set the alpha channel from an image (made gray); the image gets 32 or 64 bits",
       op_alpha_in},
  };
  return kOps;
}

std::string canonical_spelling(const std::string& word) {
  // British and American spellings are both taken; the tables hold one.
  static constexpr struct {
    const char* other;
    const char* canonical;
  } kSpellings[] = {{"--grey", "--gray"},
                    {"grey", "gray"},
                    {"--colours", "--colors"},
                    {"--count-colours", "--count-colors"},
                    {"--optimized-palette", "--optimised-palette"},
                    {"optimized", "optimised"}};
  for (const auto& s : kSpellings)
    if (word == s.other) return s.canonical;
  return word;
}

const OpInfo* find_operation(const std::string& option) {
  const std::string name = canonical_spelling(option);
  for (const OpInfo& op : operations())
    if (name == op.option) return &op;
  return nullptr;
}

void run_step(Context& ctx, const Step& step) {
  const OpInfo* op = find_operation(step.option);
  if (!op) throw UsageError("unknown operation " + step.option);
  progress_begin(step.text());
  op->run(ctx, step.arg);
  progress_end();
  if (interrupted()) throw Cancelled(step.text() + " cancelled");
}

// ---- text --------------------------------------------------------------------------

std::string format_colour(uint32_t c) {
  char buf[64];
  if (c == COLOR_INVALID) return "invalid";
  if ((c >> 24) == 1) {
    std::snprintf(buf, sizeof buf, "index:%u", c & 0xFFFF);
  } else if (c & COLOR_GRAY16) {
    std::snprintf(buf, sizeof buf, "gray16:%u", c & 0xFFFF);
  } else {
    const unsigned r = c & 0xFF, g = (c >> 8) & 0xFF, b = (c >> 16) & 0xFF;
    std::snprintf(buf, sizeof buf, "#%02x%02x%02x (%u,%u,%u)", r, g, b, r, g, b);
  }
  return buf;
}

std::string storage_report(BitmapHandle& bm) {
  std::ostringstream s;
  s << "  storage: " << storage_kind(bm.Flags) << ", " << bm.Size << " bytes, " << bm.BytesPerLine
    << " bytes per line, flags 0x" << std::hex << bm.Flags << std::dec << " (" << flag_names(bm.Flags) << ")\n";
  int32_t type = 0;
  uint32_t tile = 0, total = 0, memory = 0, most = 0, mapped = 0;
  const int32_t r = V_GetBitmapMemoryInfo(&bm, &type, &tile, &total, &memory, &most, &mapped);
  if (r == RESULT_OK) {
    s << "  memory info: type " << type;
    if (type == TYPE_TILED)
      s << ", tile size " << tile << " bytes, " << total << " tiles (" << memory << " in memory, " << mapped
        << " of at most " << most << " disk tiles mapped)";
    s << "\n";
  } else {
    s << "  memory info: " << describe_result(r) << "\n";
  }
  return s.str();
}

std::string describe_bitmap(const BitmapHandle& cbm, const std::string& name, bool count_colours) {
  BitmapHandle& bm = const_cast<BitmapHandle&>(cbm);  // the library's readers take non-const records
  std::ostringstream s;
  s << name << ": " << bm.Width << "x" << bm.Height << ", " << bm.BitsPerPixel << " bits per pixel";
  if (bm.BitsPerPixel > 8) s << ", order " << bm.Order << " (" << order_name(bm.Order) << ")";
  s << ", view perspective " << bm.ViewPerspective << ", " << bm.XResolution << "x" << bm.YResolution << " dpi\n";
  if (bm.BitsPerPixel <= 8) {
    s << "  palette: " << bm.ColorCount << " entries" << ((bm.Flags & PALETTE_IS_TABLE) ? " (table)" : "");
    static constexpr const char* kGray[] = {"colour", "gray ramp", "inverted gray ramp", "gray"};
    const int32_t g = V_IsGrayScaleBitmap(&bm);
    if (g >= 0 && g <= 3) s << ", " << kGray[g];
    s << "\n";
  } else if (bm.Order == ORDER_GRAY) {
    s << "  gray bits: " << bm.LowBit << ".." << bm.HighBit << "\n";
  }
  s << storage_report(bm);
  if (count_colours) {
    uint32_t count = 0;
    progress_begin("counting colours");
    const int32_t r = V_GetBitmapColorCountExt(&bm, &count, nullptr);
    progress_end();
    check_result(r, "counting colours");
    s << "  colours: " << count << "\n";
  }
  return s.str();
}

int parse_dither(const std::string& text) {
  static constexpr struct {
    const char* alias;
    int method;
  } kAliases[] = {{"fs", DITHER_FLOYD_STEINBERG}, {"floyd", DITHER_FLOYD_STEINBERG}, {"sa", DITHER_STEVENSON_ARCE},
                  {"jjn", DITHER_JARVIS}};
  for (int i = 0; i < 9; ++i)
    if (text == kDitherNames[i]) return i;
  for (const auto& a : kAliases)
    if (text == a.alias) return a.method;
  if (!text.empty() && std::isdigit(static_cast<unsigned char>(text[0])))
    return static_cast<int>(parse_long(text, "--dither", 0, 8));
  throw UsageError("unknown dithering method '" + text +
                   "' (none, fs, stucki, burkes, sierra, stevenson-arce, jarvis, ordered, clustered, or 0-8)");
}

const char* dither_name(int method) { return method >= 0 && method <= 8 ? kDitherNames[method] : "?"; }

void load_palette_file(Settings& s) {
  const Image img = read_image(s.palette_file);
  if (img.bits > 8 || img.palette.empty())
    throw UsageError("--palette " + s.palette_file + ": not a palette image (1-8 bits per pixel)");
  s.palette_entries.clear();
  for (const Colour& c : img.palette) s.palette_entries.push_back(RGBQUAD{c.b, c.g, c.r, 0});
}

}  // namespace vkimg
