// convert.cpp - in-place conversion of one pixel row between formats.
//
// Every conversion is a three-stage pipeline run over chunks of the row:
//
//   decode (source layout -> a plain value per pixel)
//   transform (value -> destination value: tables, gray formula, matching)
//   encode (destination value -> destination layout)
//
// Stage values are one of: uint8_t (palette index or 8-bit gray level),
// uint16_t (a gray sample of `count` bits, or a finished destination gray
// word), Rgb8 (8-bit channels) and Rgb16 (16-bit channels).  Decoders and
// encoders are the pixel-format layer's runs for the source and destination
// layouts (pixel_format.h); transforms are templates here.  The plan picks
// one of each per call, so the only indirect calls are a few per chunk,
// never per pixel.
//
// In place: when the destination pixel is wider than the source pixel the
// chunks are taken from the end of the row to its start, otherwise from the
// start.  Within a chunk all source pixels are read before any destination
// pixel is written, and every encoder touches only its own pixel's bits
// (sub-byte and 12-bit writes keep the neighbouring bits), so no source pixel
// is overwritten before it is read.
#include "convert.h"

#include <cstring>

#include "core.h"
#include "match.h"
#include "pixel_format.h"
#include "palette_tables.h"

namespace vk {
namespace {

constexpr uint32_t kChunk = 256;

// Direct-mapped memo of colour -> palette index for the matching transform;
// matching a colour costs a search over the palette, and rows repeat colours.
struct MatchCache {
  uint32_t key[1024];
  uint8_t value[1024];
};

struct Ctx {
  // Source gray sample: (raw >> src_shift) & src_mask, src_count bits.
  uint32_t src_shift = 0, src_mask = 0;
  int32_t src_count = 0;
  // Destination gray: n = dst_count bits, placed at dst_shift.
  uint32_t dst_shift = 0;
  int32_t dst_count = 0;
  // Tables indexed by an 8-bit key (palette index, gray level or sample).
  uint8_t t8[256];
  uint16_t t16[256];
  Rgb8 tc8[256];
  Rgb16 tc16[256];
  // Palette of a 12-bit gray source (2^src_count entries).
  const RGBQUAD* src_palette = nullptr;
  // Matching against a destination palette.
  const PaletteMatcher* matcher = nullptr;
  MatchCache* cache = nullptr;
};

using XformFn = void (*)(const void* in, void* out, uint32_t n, const Ctx& c);

// ---- transforms ------------------------------------------------------------------

// Table lookups keyed by an 8-bit value (In is uint8_t, or uint16_t holding a
// sample of at most 8 bits).
template <class In>
void xf_t8(const void* in, void* out, uint32_t n, const Ctx& c) {
  const In* a = static_cast<const In*>(in);
  uint8_t* o = static_cast<uint8_t*>(out);
  for (uint32_t i = 0; i < n; ++i) o[i] = c.t8[a[i] & 255];
}
template <class In>
void xf_t16(const void* in, void* out, uint32_t n, const Ctx& c) {
  const In* a = static_cast<const In*>(in);
  uint16_t* o = static_cast<uint16_t*>(out);
  for (uint32_t i = 0; i < n; ++i) o[i] = c.t16[a[i] & 255];
}
template <class In>
void xf_tc8(const void* in, void* out, uint32_t n, const Ctx& c) {
  const In* a = static_cast<const In*>(in);
  Rgb8* o = static_cast<Rgb8*>(out);
  for (uint32_t i = 0; i < n; ++i) o[i] = c.tc8[a[i] & 255];
}
template <class In>
void xf_tc16(const void* in, void* out, uint32_t n, const Ctx& c) {
  const In* a = static_cast<const In*>(in);
  Rgb16* o = static_cast<Rgb16*>(out);
  for (uint32_t i = 0; i < n; ++i) o[i] = c.tc16[a[i] & 255];
}

// 12-bit gray through a source palette: the masked sample indexes it and the
// entry's colour is used.
void xf_sample_palette(const void* in, void* out, uint32_t n, const Ctx& c) {
  const uint16_t* a = static_cast<const uint16_t*>(in);
  Rgb8* o = static_cast<Rgb8*>(out);
  for (uint32_t i = 0; i < n; ++i) {
    const RGBQUAD& e = c.src_palette[a[i]];
    o[i] = Rgb8{e.rgbRed, e.rgbGreen, e.rgbBlue};
  }
}

// Gray sample of src_count bits to a destination gray of dst_count bits:
// narrowing keeps the top bits, widening scales by (2^n - 1) / mask.
void xf_gray_to_gray(const void* in, void* out, uint32_t n, const Ctx& c) {
  const uint16_t* a = static_cast<const uint16_t*>(in);
  uint16_t* o = static_cast<uint16_t*>(out);
  if (c.src_count >= c.dst_count) {
    const uint32_t down = uint32_t(c.src_count - c.dst_count);
    for (uint32_t i = 0; i < n; ++i) o[i] = uint16_t((uint32_t(a[i]) >> down) << c.dst_shift);
  } else {
    const uint32_t top = (1u << c.dst_count) - 1;
    const uint32_t mask = c.src_mask ? c.src_mask : 1;
    for (uint32_t i = 0; i < n; ++i) o[i] = uint16_t((uint32_t(a[i]) * top / mask) << c.dst_shift);
  }
}

// Gray sample to 16-bit channels: value * 65535 / mask in all three.
void xf_gray_to_rgb16(const void* in, void* out, uint32_t n, const Ctx& c) {
  const uint16_t* a = static_cast<const uint16_t*>(in);
  Rgb16* o = static_cast<Rgb16*>(out);
  const uint32_t mask = c.src_mask ? c.src_mask : 1;
  for (uint32_t i = 0; i < n; ++i) {
    const uint16_t v = uint16_t(uint32_t(a[i]) * 65535u / mask);
    o[i] = Rgb16{v, v, v};
  }
}

void xf_rgb8_level(const void* in, void* out, uint32_t n, const Ctx&) {
  const Rgb8* a = static_cast<const Rgb8*>(in);
  uint8_t* o = static_cast<uint8_t*>(out);
  for (uint32_t i = 0; i < n; ++i) o[i] = uint8_t(gray_level(a[i].r, a[i].g, a[i].b));
}

// 24-bit colour straight to gray levels, in place over the whole row: the
// commonest gray conversion in one pass, with no staging.  Writing level i
// at byte i never overtakes the pixels still to be read (from byte 3i on).
template <bool Bgr>
void rgb24_levels_in_place(uint8_t* buf, size_t w) {
  for (size_t i = 0; i < w; ++i) {
    const Rgb8 c = Rgb8Bytes<Bgr, 3>::pixel(buf, i);
    buf[i] = uint8_t(gray_level(c.r, c.g, c.b));
  }
}

// Colour -> gray level -> destination gray word (t16 holds level -> word).
void xf_rgb8_gray(const void* in, void* out, uint32_t n, const Ctx& c) {
  const Rgb8* a = static_cast<const Rgb8*>(in);
  uint16_t* o = static_cast<uint16_t*>(out);
  for (uint32_t i = 0; i < n; ++i) o[i] = c.t16[gray_level(a[i].r, a[i].g, a[i].b)];
}

void xf_rgb8_rgb16(const void* in, void* out, uint32_t n, const Ctx&) {
  const Rgb8* a = static_cast<const Rgb8*>(in);
  Rgb16* o = static_cast<Rgb16*>(out);
  for (uint32_t i = 0; i < n; ++i) o[i] = Rgb16{widen8(a[i].r), widen8(a[i].g), widen8(a[i].b)};
}

// Colour -> nearest destination palette index (the exported search, memoised).
void xf_rgb8_match(const void* in, void* out, uint32_t n, const Ctx& c) {
  const Rgb8* a = static_cast<const Rgb8*>(in);
  uint8_t* o = static_cast<uint8_t*>(out);
  MatchCache& m = *c.cache;
  for (uint32_t i = 0; i < n; ++i) {
    const uint32_t key = uint32_t(a[i].r) | (uint32_t(a[i].g) << 8) | (uint32_t(a[i].b) << 16);
    const uint32_t h = (key * 2654435761u) >> 22;
    if (m.key[h] != key) {
      m.key[h] = key;
      m.value[h] = uint8_t(c.matcher->find(a[i].r, a[i].g, a[i].b));
    }
    o[i] = m.value[h];
  }
}

// ---- plan ----------------------------------------------------------------------

struct Plan {
  RunDecode decode = nullptr;
  XformFn pre = nullptr;    // a source palette applied to the decoded values
  XformFn xform = nullptr;  // null: the encoder takes the decoder's values as they are
  RunEncode encode = nullptr;
  bool backwards = false;
  bool nothing = false;     // the row is already in the destination format
  bool alt_in = false;      // 24-bit second colour space -> BGR before converting
  bool alt_out = false;     // BGR -> second colour space after converting
  void (*whole_row)(uint8_t* buf, size_t w) = nullptr;  // one pass instead of decode, transform, encode
};

// What a source yields.
enum class SrcKind {
  index,   // uint8_t palette index; `pal` / `pal_colors` describe it
  level,   // uint8_t gray level (0 bits)
  sample,  // uint16_t gray sample of src_count bits (12 bits, 16-bit gray)
  rgb8,    // Rgb8
  rgb16,   // Rgb16 (48/64 bits to 16-bit channels)
};

// Destination classes.
enum class DstKind { level, index, gray, rgb8, rgb16 };

// Storage width of a pixel in bits, for the walk direction (0 = gray byte).
int32_t pixel_bits(int32_t bits) { return bits == 0 ? 8 : bits; }

// Gray level (0..255) to the destination gray word.
uint32_t level_to_gray(uint32_t level, const Ctx& c) {
  const int32_t n = c.dst_count;
  const uint32_t v = n > 8 ? level * ((1u << n) - 1) / 255u : level >> (8 - n);
  return v << c.dst_shift;
}

bool rgb_order(int32_t order) { return order == ORDER_RGB || order == ORDER_BGR; }

}  // namespace

bool gray_range(int32_t bits, int32_t maxBits, int32_t lowBit, int32_t highBit, GrayRange& out) {
  const BitRange r = bit_range(bits, maxBits, lowBit, highBit);
  if (r.count < 1) return false;
  out.count = int32_t(r.count);
  out.shift = int32_t(r.shift_for(r.count));
  out.mask = low_bits(r.count);
  return true;
}

uint32_t convert_size(int32_t width1, int32_t bits1, int32_t width2, int32_t bits2) {
  if (bits1 == 0) bits1 = 8;
  if (bits2 == 0) bits2 = 8;
  const uint32_t a = bytes_per_line(width1, bits1);
  const uint32_t b = bytes_per_line(width2, bits1);
  const uint32_t c = bytes_per_line(width2, bits2);
  uint32_t m = a > b ? a : b;
  return m > c ? m : c;
}

int32_t convert_buffer(uint8_t* buf, int32_t width, int32_t sb, int32_t db, int32_t so, int32_t dor,
                       const RGBQUAD* sp, const RGBQUAD* dp, uint32_t flags, int32_t lowBit, int32_t highBit) {
  // ---- argument checks, in order -------------------------------------------------
  if (!buf || width == 0) return RESULT_BAD_PARAMETER;
  flags = (so == ORDER_GRAY) ? (flags | CONVERT_SRC_GRAY) : (flags & ~CONVERT_SRC_GRAY);
  flags = (dor == ORDER_GRAY) ? (flags | CONVERT_DST_GRAY) : (flags & ~CONVERT_DST_GRAY);
  if ((flags & CONVERT_SRC_BITRANGE) && (flags & CONVERT_DST_BITRANGE)) return RESULT_BAD_PARAMETER;
  if ((flags & CONVERT_SRC_BITRANGE) && !(flags & CONVERT_SRC_GRAY)) return RESULT_BAD_PARAMETER;
  if ((flags & CONVERT_DST_BITRANGE) && !(flags & CONVERT_DST_GRAY)) return RESULT_BAD_PARAMETER;
  if (sb == 12 && !(flags & CONVERT_SRC_GRAY)) return RESULT_BAD_PARAMETER;
  if (db == 12 && !(flags & CONVERT_DST_GRAY)) return RESULT_BAD_PARAMETER;
  // A range that is the whole value is no range.
  if ((flags & CONVERT_SRC_BITRANGE) && lowBit <= 0 && (highBit < 0 || highBit == sb - 1))
    flags &= ~CONVERT_SRC_BITRANGE;
  if ((flags & CONVERT_DST_BITRANGE) && lowBit <= 0 && (highBit < 0 || highBit == db - 1))
    flags &= ~CONVERT_DST_BITRANGE;
  if (!convertible_depth(sb)) return RESULT_BAD_PARAMETER;

  // ---- the converter of the source depth --------------------------------------------
  if (!convertible_depth(db)) return RESULT_BAD_PARAMETER;
  const bool src_wide = sb == 48 || sb == 64;
  const bool dst_gray_word = db == 12 || (db == 16 && dor == ORDER_GRAY);

  Ctx ctx;
  if (dst_gray_word) {
    GrayRange r{db, db >= 32 ? 0xFFFFFFFFu : (1u << db) - 1, 0};
    if ((flags & CONVERT_DST_BITRANGE) && !gray_range(src_wide ? 16 : db, db, lowBit, highBit, r))
      return RESULT_BAD_PARAMETER;
    ctx.dst_count = r.count;
    ctx.dst_shift = uint32_t(r.shift > 31 ? 31 : r.shift);
  }

  // Source orders.
  switch (sb) {
    case 16:
      if (!(so == ORDER_RGB || so == ORDER_BGR || so == ORDER_GRAY)) return RESULT_BAD_PARAMETER;
      break;
    case 24:
      if (!(so == ORDER_RGB || so == ORDER_BGR || so == ORDER_BGR_ALT)) return RESULT_BAD_PARAMETER;
      break;
    case 48:
      if (so == ORDER_BGR_ALT) break;  // handled below through the 24-bit path
      [[fallthrough]];
    case 32:
    case 64:
      if (!rgb_order(so)) return RESULT_BAD_PARAMETER;
      break;
    default:
      break;
  }
  if (sb == 48 && so == ORDER_BGR_ALT) {
    // 48-bit pixels in the second colour space: that space is defined on
    // 8-bit channels, so the high bytes are taken (narrowing in place, front
    // to back, never overtakes its source) and converted as 24-bit pixels of
    // the same space.  The 24-bit call is validated first (a negative width
    // runs every check and touches nothing), so a refused call leaves the
    // buffer as it was.
    if (db == 48 && dor == ORDER_BGR_ALT) return RESULT_OK;
    const int32_t valid = convert_buffer(buf, -1, 24, db, ORDER_BGR_ALT, dor, sp, dp, flags, lowBit, highBit);
    if (valid != RESULT_OK || width < 1) return valid;
    for (size_t i = 0; i < size_t(width); ++i)
      for (size_t k = 0; k < 3; ++k) buf[3 * i + k] = buf[6 * i + 2 * k + 1];
    return convert_buffer(buf, width, 24, db, ORDER_BGR_ALT, dor, sp, dp, flags, lowBit, highBit);
  }
  // Destination orders: colour words accept RGB or BGR, 16 bits also gray;
  // the second colour space only from a 24-bit source into 24 or 48 bits.
  const bool alt_ok = sb == 24 && (db == 24 || db == 48);
  switch (db) {
    case 16:
      if (!(rgb_order(dor) || dor == ORDER_GRAY)) return RESULT_BAD_PARAMETER;
      break;
    case 24:
    case 32:
    case 48:
    case 64:
      if (!(rgb_order(dor) || (alt_ok && dor == ORDER_BGR_ALT))) return RESULT_BAD_PARAMETER;
      break;
    default:
      break;
  }

  // ---- the source ---------------------------------------------------------------
  DstKind dk;
  if (db == 0)
    dk = DstKind::level;
  else if (db <= 8)
    dk = DstKind::index;
  else if (dst_gray_word)
    dk = DstKind::gray;
  else if (db == 48 || db == 64)
    dk = DstKind::rgb16;
  else
    dk = DstKind::rgb8;

  Plan plan;
  plan.backwards = pixel_bits(db) > pixel_bits(sb);
  SrcKind sk;
  const RGBQUAD* pal = nullptr;  // palette of an index source
  uint32_t pal_colors = 0;
  const bool sgray16 = sb == 16 && so == ORDER_GRAY;
  // Colour order of colour sources and destinations: the second colour space
  // keeps its channels in the blue, green, red positions.
  const bool sbgr = so != ORDER_RGB;
  const bool dbgr = dor != ORDER_RGB;

  if (sb >= 1 && sb <= 8) {
    sk = SrcKind::index;
    pal = sp ? sp : fixed_palette(sb);
    pal_colors = 1u << sb;
    if (sb == 8 && db == 8) {
      const RGBQUAD* d = dp ? dp : fixed_palette(8);
      if (std::memcmp(pal, d, 256 * sizeof(RGBQUAD)) == 0) plan.nothing = true;
    }
  } else if (sb == 0) {
    sk = SrcKind::level;
    if (db == 0) plan.nothing = true;
  } else if (sb == 12 || sgray16) {
    // Gray samples.  The sample keeps at most the bits the destination holds:
    // 8 for indices, gray levels and 8-bit channels, 16 for 16-bit channels
    // and gray words.
    // With a 12-bit source palette (a gray lookup table of 2^count entries)
    // the sample keeps up to its 12 bits and indexes the table.
    const bool lut = sb == 12 && sp;
    const int32_t limit = lut ? 12 : (dk == DstKind::gray || dk == DstKind::rgb16) ? 16 : 8;
    GrayRange r;
    const bool ranged = (flags & CONVERT_SRC_BITRANGE) != 0;
    if (!gray_range(sb, limit, ranged ? lowBit : 0, ranged ? highBit : sb - 1, r)) return RESULT_BAD_PARAMETER;
    ctx.src_count = r.count;
    ctx.src_mask = r.mask;
    ctx.src_shift = uint32_t(r.shift > 31 ? 31 : r.shift);
    if (lut) {
      sk = SrcKind::rgb8;
      ctx.src_palette = sp;
      plan.pre = xf_sample_palette;
    } else {
      sk = SrcKind::sample;
    }
    if (sb == 12 && db == 12 && !(flags & (CONVERT_SRC_BITRANGE | CONVERT_DST_BITRANGE))) plan.nothing = true;
    if (sgray16 && db == 16 && dst_gray_word && !(flags & (CONVERT_SRC_BITRANGE | CONVERT_DST_BITRANGE)))
      plan.nothing = true;
  } else if (sb == 16) {
    sk = SrcKind::rgb8;
    if (db == 16 && !dst_gray_word && so == dor) plan.nothing = true;
  } else if (sb == 24 || sb == 32) {
    sk = SrcKind::rgb8;
    if (sb == 24) {
      plan.alt_in = so == ORDER_BGR_ALT && dor != ORDER_BGR_ALT;
      plan.alt_out = so != ORDER_BGR_ALT && dor == ORDER_BGR_ALT && alt_ok;
    }
    // Same depth: the order decides (the second colour space counts as BGR
    // for the channel positions, and is left alone when both sides use it).
    if (db == sb && sbgr == dbgr && !plan.alt_in && !plan.alt_out) plan.nothing = true;
  } else {  // 48, 64
    sk = dk == DstKind::rgb16 ? SrcKind::rgb16 : SrcKind::rgb8;
    if (db == sb && sbgr == dbgr) plan.nothing = true;
  }

  // ---- decoder and encoder: the layouts' runs --------------------------------------
  // 16-bit channels are read as 8-bit ones (their high bytes) unless the
  // destination keeps 16-bit channels.
  const RunCodec& src_codec = run_codec(sb, (sb == 12 || sgray16) ? kGray : sbgr ? kBgr : kRgb);
  plan.decode = sk == SrcKind::rgb8 && src_codec.decode8 ? src_codec.decode8 : src_codec.decode;
  plan.encode = run_codec(db, dst_gray_word ? kGray : dbgr ? kBgr : kRgb).encode;

  if (width < 1) return RESULT_OK;
  if (plan.nothing) return RESULT_OK;

  // ---- the transform (tables are filled only now, once the call is valid) -------------
  MatchCache cache;
  PaletteMatcher matcher;
  const RGBQUAD* dpal = dp ? dp : fixed_palette(db);  // for index destinations
  const uint32_t dcolors = fixed_palette_size(db);
  const bool in16 = sb == 12 || sgray16;  // the decoder's values are uint16_t
  // Key -> 8-bit gray level for gray sources (identity for gray levels).
  auto key_level = [&](uint32_t k) -> uint32_t {
    if (sk != SrcKind::sample) return k;
    // The tables are filled for every 8-bit key, but a decoded sample never
    // exceeds the mask: clamp so keys above it stay inside the 256 levels.
    return ctx.src_mask ? (k < ctx.src_mask ? k : ctx.src_mask) * 255u / ctx.src_mask : 0;
  };

  if (sk == SrcKind::index || sk == SrcKind::level || (sk == SrcKind::sample && ctx.src_count <= 8 &&
                                                      dk != DstKind::gray && dk != DstKind::rgb16)) {
    // An 8-bit key: every destination value comes from a 256-entry table.
    const uint32_t keys = sk == SrcKind::index ? (pal_colors > 256 ? 256 : pal_colors) : 256;
    switch (dk) {
      case DstKind::level:
        if (sk == SrcKind::index) {
          build_palette_map(pal, keys, nullptr, 0, ctx.t8);
        } else {
          for (uint32_t k = 0; k < 256; ++k) ctx.t8[k] = uint8_t(key_level(k));
        }
        plan.xform = in16 ? xf_t8<uint16_t> : xf_t8<uint8_t>;
        break;
      case DstKind::index:
        if (sk == SrcKind::index) {
          build_palette_map(pal, keys, dpal, dcolors, ctx.t8);
        } else {
          uint8_t lmap[256];
          build_palette_map(nullptr, 0, dpal, dcolors, lmap);
          for (uint32_t k = 0; k < 256; ++k) ctx.t8[k] = lmap[key_level(k)];
        }
        plan.xform = in16 ? xf_t8<uint16_t> : xf_t8<uint8_t>;
        break;
      case DstKind::gray:
        for (uint32_t k = 0; k < keys; ++k) {
          const uint32_t level =
              sk == SrcKind::index ? gray_level(pal[k].rgbRed, pal[k].rgbGreen, pal[k].rgbBlue) : key_level(k);
          ctx.t16[k] = uint16_t(level_to_gray(level, ctx));
        }
        plan.xform = in16 ? xf_t16<uint16_t> : xf_t16<uint8_t>;
        break;
      case DstKind::rgb8:
        for (uint32_t k = 0; k < keys; ++k) {
          if (sk == SrcKind::index) {
            ctx.tc8[k] = Rgb8{pal[k].rgbRed, pal[k].rgbGreen, pal[k].rgbBlue};
          } else {
            const uint8_t l = uint8_t(key_level(k));
            ctx.tc8[k] = Rgb8{l, l, l};
          }
        }
        plan.xform = in16 ? xf_tc8<uint16_t> : xf_tc8<uint8_t>;
        break;
      case DstKind::rgb16:
        for (uint32_t k = 0; k < keys; ++k) {
          if (sk == SrcKind::index) {
            ctx.tc16[k] = Rgb16{widen8(pal[k].rgbRed), widen8(pal[k].rgbGreen), widen8(pal[k].rgbBlue)};
          } else {
            const uint16_t l = widen8(key_level(k));
            ctx.tc16[k] = Rgb16{l, l, l};
          }
        }
        plan.xform = in16 ? xf_tc16<uint16_t> : xf_tc16<uint8_t>;
        break;
    }
    // A gray-level row staying gray levels needs no table.
    if (sk == SrcKind::level && dk == DstKind::level) plan.xform = nullptr;
  } else if (sk == SrcKind::sample) {
    plan.xform = dk == DstKind::gray ? xf_gray_to_gray : xf_gray_to_rgb16;
  } else if (sk == SrcKind::rgb16) {
    plan.xform = nullptr;  // 16-bit channels to 16-bit channels
  } else {  // rgb8
    switch (dk) {
      case DstKind::level:
        plan.xform = xf_rgb8_level;
        if (sb == 24 && !plan.alt_in) plan.whole_row = sbgr ? rgb24_levels_in_place<true> : rgb24_levels_in_place<false>;
        break;
      case DstKind::index:
        std::memset(cache.key, 0xFF, sizeof cache.key);  // no 24-bit key has the top byte set
        ctx.cache = &cache;
        matcher.prepare(dpal, dcolors);
        ctx.matcher = &matcher;
        plan.xform = xf_rgb8_match;
        break;
      case DstKind::gray:
        for (uint32_t l = 0; l < 256; ++l) ctx.t16[l] = uint16_t(level_to_gray(l, ctx));
        plan.xform = xf_rgb8_gray;
        break;
      case DstKind::rgb8: plan.xform = nullptr; break;
      case DstKind::rgb16: plan.xform = xf_rgb8_rgb16; break;
    }
  }

  // ---- run ------------------------------------------------------------------------
  const size_t w = size_t(width);
  if (plan.alt_in) {
    // Second colour space -> BGR, signed truncating division, clamped.
    for (size_t i = 0; i < w; ++i) {
      uint8_t* p = buf + 3 * i;
      const int32_t p0 = p[0], p1 = p[1], p2 = p[2];
      int32_t o[3] = {(9467 * p0 - 1151 * p1 - 125 * p2 + 4095) / 8192,
                      (-305 * p0 + 10232 * p1 - 1735 * p2 + 4095) / 8192,
                      (-2156 * p0 - 6498 * p1 + 16846 * p2 + 4095) / 8192};
      for (int k = 0; k < 3; ++k) p[k] = uint8_t(o[k] < 0 ? 0 : (o[k] > 255 ? 255 : o[k]));
    }
  }

  alignas(16) unsigned char stage_a[kChunk * sizeof(Rgb16)];
  alignas(16) unsigned char stage_b[kChunk * sizeof(Rgb16)];
  const SampleRange range{ctx.src_shift, ctx.src_mask};
  auto step = [&](size_t start, uint32_t n) {
    if (plan.pre) {
      plan.decode(buf, start, n, stage_b, range);
      plan.pre(stage_b, stage_a, n, ctx);
    } else {
      plan.decode(buf, start, n, stage_a, range);
    }
    if (plan.xform) {
      plan.xform(stage_a, stage_b, n, ctx);
      plan.encode(buf, start, n, stage_b);
    } else {
      plan.encode(buf, start, n, stage_a);
    }
  };
  if (plan.whole_row) {
    plan.whole_row(buf, w);
  } else if (plan.backwards) {
    for (size_t end = w; end > 0;) {
      const uint32_t n = uint32_t(end < kChunk ? end : kChunk);
      end -= n;
      step(end, n);
    }
  } else {
    for (size_t start = 0; start < w; start += kChunk) step(start, uint32_t(w - start < kChunk ? w - start : kChunk));
  }

  if (plan.alt_out) {
    // BGR -> second colour space over the first width * 3 bytes; the rows of
    // the matrix sum to at most 8193, so no clamp is needed.
    for (size_t i = 0; i < w; ++i) {
      uint8_t* p = buf + 3 * i;
      const uint32_t p0 = p[0], p1 = p[1], p2 = p[2];
      p[0] = uint8_t((7151 * p0 + 897 * p1 + 145 * p2 + 4095) >> 13);
      p[1] = uint8_t((394 * p0 + 7067 * p1 + 731 * p2 + 4095) >> 13);
      p[2] = uint8_t((1067 * p0 + 2841 * p1 + 4284 * p2 + 4095) >> 13);
    }
  }
  return RESULT_OK;
}

}  // namespace vk

extern "C" {

VK_API int32_t VK_CALL V_ConvertBufferExt(uint8_t* buffer, int32_t width, int32_t srcBits, int32_t dstBits,
                                          int32_t srcOrder, int32_t dstOrder, const RGBQUAD* srcPalette,
                                          const RGBQUAD* dstPalette, uint32_t flags, int32_t lowBit,
                                          int32_t highBit) {
  return vk::api_call([&] {
    return vk::convert_buffer(buffer, width, srcBits, dstBits, srcOrder, dstOrder, srcPalette, dstPalette, flags,
                              lowBit, highBit);
  });
}

VK_API int32_t VK_CALL V_ConvertBuffer(uint8_t* buffer, int32_t width, int32_t srcBits, int32_t dstBits,
                                       int32_t srcOrder, int32_t dstOrder, const RGBQUAD* srcPalette,
                                       const RGBQUAD* dstPalette) {
  return vk::api_call([&] {
    uint32_t flags = 0;
    if (srcOrder == ORDER_GRAY) flags |= CONVERT_SRC_GRAY;
    if (dstOrder == ORDER_GRAY) flags |= CONVERT_DST_GRAY;
    return vk::convert_buffer(buffer, width, srcBits, dstBits, srcOrder, dstOrder, srcPalette, dstPalette, flags,
                              -1, -1);
  });
}

VK_API uint32_t VK_CALL V_CalcConvertSize(int32_t width1, int32_t bits1, int32_t width2, int32_t bits2) {
  return vk::api_call([&] { return vk::convert_size(width1, bits1, width2, bits2); }, 0u);
}

VK_API int32_t VK_CALL V_GetGrayParams(int32_t bits, int32_t maxBits, int32_t lowBit, int32_t highBit,
                                       int32_t* count, uint32_t* mask, int32_t* shift) {
  return vk::api_call([&]() -> int32_t {
    vk::GrayRange r;
    if (!vk::gray_range(bits, maxBits, lowBit, highBit, r)) return RESULT_BAD_PARAMETER;
    if (count) *count = r.count;
    if (mask) *mask = r.mask;
    if (shift) *shift = r.shift;
    return RESULT_OK;
  });
}

}  // extern "C"
