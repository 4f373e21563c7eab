// resample.cpp - the row producer of the resize engine: destination rows of
// a resized bitmap, one at a time and in any order, by nearest neighbour,
// the 1-bit density count, area averaging or the smooth (spline) method.
// The whole-bitmap calls write its rows; the row-segment reader hands out
// pieces of them, so both give the same pixels.
//
// Averaging and the spline work on samples of a working format: 16-bit
// gray for gray samples, 8-bit values for an 8-bit gray palette, 24-bit
// colour for other palette images (dithered back to a palette row by row),
// 32 bits for 16- and 32-bit colour, and 48 and 64 bits as they are.  Each
// axis is its own pass: a source row is resized along x once and kept in a
// ring of four (the rows a box or the spline's window needs), then the
// destination row is made down the columns.
//
// Averaging: along an axis of source length L and destination length l the
// box of destination k runs from k x R to (k + 1) x R hundredths of a pixel,
// R = floor(100 L / l); each source pixel weighs its overlap with the box in
// hundredths, and the sum is divided (truncating) by the box's weight.
//
// The spline: each row's natural cubic spline (second derivatives by the
// tridiagonal sweep, a zero second difference cutting the chain) is sampled
// at positions stepped by the single-precision ratio L / l; the first sample
// is repeated floor(0.5 / ratio) times first.  Down the columns the spline
// is that of the rows i - 1 .. i + 2 around the interval (i, i + 1), cut at
// the first and last rows (the window shrinks there, the spline's end is
// natural), so only four rows are held; past the last row the last row
// stands for both neighbours.
#include <algorithm>
#include <cstring>

#include "pixel_format.h"
#include "resize.h"

namespace vk::resize {
namespace {

// ---- plans along one axis -----------------------------------------------------------------

// The source pixels of one averaging box: n pixels from p0; the first weighs
// w_first, the last w_last (when n > 1), those between 100; total is the sum.
struct Box {
  int32_t p0, n, w_first, w_last;
  uint32_t total;
};
void plan_boxes(Box* out, int32_t L, int32_t l) {
  const int64_t R = int64_t(L) * 100 / l, end = int64_t(L) * 100;
  for (int32_t k = 0; k < l; ++k) {
    const int64_t a = k * R, b = std::min<int64_t>((k + 1) * R, end);
    Box& x = out[k];
    if (b <= a) {  // a box narrower than a hundredth: its pixel alone
      x = Box{int32_t(std::min<int64_t>(a / 100, L - 1)), 1, 1, 0, 1};
      continue;
    }
    const int64_t p0 = a / 100, p1 = (b - 1) / 100;  // first and last pixel touched
    x.p0 = int32_t(p0);
    x.n = int32_t(p1 - p0 + 1);
    if (x.n == 1) {
      x.w_first = int32_t(b - a);
      x.w_last = 0;
      x.total = uint32_t(b - a);
    } else {
      x.w_first = int32_t((p0 + 1) * 100 - a);
      x.w_last = int32_t(b - p1 * 100);
      x.total = uint32_t(b - a);
    }
  }
}

// Spline positions: left sample i and fraction t of each destination
// sample, with the weights that depend on t alone: s = 1 - t,
// a = (t^2 - 1) t / 6 and b = (s^2 - 1) s / 6.
constexpr float kSixth = 0.16666667f;
struct Knot {
  int32_t i;
  float t, s, a, b;
};
Knot knot(int32_t i, float t) {
  const float s = 1.0f - t;
  return Knot{i, t, s, (t * t - 1.0f) * t * kSixth, (s * s - 1.0f) * s * kSixth};
}
void plan_knots(Knot* out, int32_t L, int32_t l) {
  const float ratio = float(L) / float(l);
  int32_t i = 0, k = 0;
  float t = 0.0f;
  out[k++] = knot(0, 0.0f);
  for (int32_t rep = int32_t(0.5f / ratio); rep > 0 && k < l; --rep) out[k++] = knot(0, 0.0f);
  while (k < l) {
    t += ratio;
    if (t >= 1.0f) {
      t -= 1.0f;
      if (i < L - 1) ++i;
    }
    out[k++] = knot(i, t);
  }
}

// The value between y0 and y1, exactly in this order, clamped (a value
// clamped to 0 .. max and then truncated is the truncated value clamped).
inline float spline_at(float y0, float y1, float m0, float m1, const Knot& k, float max) {
  float v = y1 * k.t;
  v = v + y0 * k.s;
  v = v + k.a * m1;
  v = v + k.b * m0;
  v = v + 0.5f;
  return std::min(std::max(v, 0.0f), max);
}

// The sweep coefficients of an unbroken chain: c[0] = 0, c[k] =
// -1 / (c[k - 1] + 4); they settle on one float within a few steps, so a
// chain longer than the table uses its last entry.
constexpr int kChain = 48;
struct Chain {
  float c[kChain];
  Chain() {
    c[0] = 0.0f;
    for (int k = 1; k < kChain; ++k) c[k] = -1.0f / (c[k - 1] + 4.0f);
  }
};

// Second derivatives of n samples y[0], y[stride], ... into m (same
// stride).  Natural ends (0), unit spacing; a zero second difference sets
// the coefficient and right side to 0, cutting the chain there.
template <class S>
void second_derivatives(const S* y, size_t stride, int32_t n, float* m, float* c, const Chain& chain) {
  m[0] = 0.0f;
  if (n < 3) {
    for (int32_t i = 1; i < n; ++i) m[size_t(i) * stride] = 0.0f;
    return;
  }
  c[0] = 0.0f;
  float r_prev = 0.0f;
  int len = 0;
  for (int32_t i = 1; i < n - 1; ++i) {
    const int32_t d = 6 * (int32_t(y[size_t(i + 1) * stride]) - 2 * int32_t(y[size_t(i) * stride]) +
                           int32_t(y[size_t(i - 1) * stride]));
    if (d == 0) {
      c[i] = 0.0f;
      r_prev = 0.0f;
      len = 0;
    } else {
      len += len < kChain - 1;
      c[i] = chain.c[len];
      r_prev = (r_prev - float(d)) * c[i];
    }
    m[size_t(i) * stride] = r_prev;  // the right side until the back substitution
  }
  m[size_t(n - 1) * stride] = 0.0f;
  for (int32_t i = n - 2; i >= 1; --i) m[size_t(i) * stride] = c[i] * m[size_t(i + 1) * stride] + m[size_t(i) * stride];
}

// The same for the four rows i - 1 .. i + 2 of a window, every column at
// once: the second derivatives at rows i and i + 1.
template <class S>
void window_derivatives(const S* r0, const S* r1, const S* r2, const S* r3, size_t n, float* m1, float* m2,
                        const Chain& chain) {
  const float c1 = chain.c[1], c2_after = chain.c[2];
  for (size_t x = 0; x < n; ++x) {
    const int32_t d1 = 6 * (int32_t(r2[x]) - 2 * int32_t(r1[x]) + int32_t(r0[x]));
    const int32_t d2 = 6 * (int32_t(r3[x]) - 2 * int32_t(r2[x]) + int32_t(r1[x]));
    const float cc1 = d1 ? c1 : 0.0f;
    const float rr1 = d1 ? (0.0f - float(d1)) * c1 : 0.0f;
    const float cc2 = d2 ? (d1 ? c2_after : c1) : 0.0f;
    const float rr2 = d2 ? (rr1 - float(d2)) * cc2 : 0.0f;
    const float mm2 = cc2 * 0.0f + rr2;
    m2[x] = mm2;
    m1[x] = cc1 * mm2 + rr1;
  }
}

// ---- kernels --------------------------------------------------------------------------------

template <class S>
constexpr int32_t kMax = sizeof(S) == 1 ? 255 : 65535;

// Along a row: C channels of S, n source pixels into l destination pixels.
template <class S, int C, class Acc>
void h_average(const S* src, S* dst, const Box* boxes, int32_t l) {
  for (int32_t k = 0; k < l; ++k, dst += C) {
    const Box& b = boxes[k];
    const S* p = src + size_t(b.p0) * C;
    for (int c = 0; c < C; ++c) {
      Acc sum = Acc(b.w_first) * p[c];
      if (b.n > 1) {
        Acc mid = 0;
        for (int32_t j = 1; j < b.n - 1; ++j) mid += p[size_t(j) * C + c];
        sum += mid * 100 + Acc(b.w_last) * p[size_t(b.n - 1) * C + c];
      }
      const Acc v = sum / b.total;
      dst[c] = S(v > Acc(kMax<S>) ? Acc(kMax<S>) : v);
    }
  }
}
// Whole boxes of q pixels (an exact integer ratio): the mean of each box.
template <class S, int C>
void h_average_whole(const S* src, S* dst, int32_t q, int32_t l) {
  for (int32_t k = 0; k < l; ++k, dst += C, src += size_t(q) * C) {
    for (int c = 0; c < C; ++c) {
      uint32_t sum = 0;
      for (int32_t j = 0; j < q; ++j) sum += src[size_t(j) * C + c];
      dst[c] = S(sum / uint32_t(q));
    }
  }
}

template <class S, int C>
void h_spline(const S* src, S* dst, const Knot* knots, int32_t n, int32_t l, float* m, float* c, const Chain& chain) {
  for (int ch = 0; ch < C; ++ch) second_derivatives(src + ch, C, n, m + ch, c, chain);
  for (int32_t k = 0; k < l; ++k, dst += C) {
    const Knot& kn = knots[k];
    const int32_t i = kn.i;
    const bool last = i + 1 >= n;
    const S* p0 = src + size_t(i) * C;
    const S* p1 = last ? p0 : p0 + C;
    const float* mi = m + size_t(i) * C;
    for (int ch = 0; ch < C; ++ch) {
      const float m0 = last ? 0.0f : mi[ch], m1 = last ? 0.0f : mi[C + ch];
      dst[ch] = S(spline_at(float(p0[ch]), float(p1[ch]), m0, m1, kn, float(kMax<S>)));
    }
  }
}

// Down the columns between rows y0 and y1 (second derivatives m0, m1).
template <class S>
void v_spline(const S* y0, const S* y1, const float* m0, const float* m1, S* out, size_t n, const Knot& kn) {
  for (size_t x = 0; x < n; ++x) out[x] = S(spline_at(float(y0[x]), float(y1[x]), m0[x], m1[x], kn, float(kMax<S>)));
}

template <class S, class Acc>
void v_accumulate(Acc* acc, const S* row, uint32_t w, size_t n, bool first) {
  if (first)
    for (size_t j = 0; j < n; ++j) acc[j] = Acc(w) * row[j];
  else
    for (size_t j = 0; j < n; ++j) acc[j] += Acc(w) * row[j];
}
template <class S, class Acc>
void v_finish(const Acc* acc, S* out, uint32_t total, size_t n) {
  for (size_t j = 0; j < n; ++j) {
    const Acc v = acc[j] / total;
    out[j] = S(v > Acc(kMax<S>) ? Acc(kMax<S>) : v);
  }
}

// ---- the working format -----------------------------------------------------------------------

struct WorkFormat {
  int32_t bits, order, channels;
  bool wide;     // 16-bit samples
  bool dither;   // palette source: 24-bit work dithered back
  bool raw8;     // 8-bit gray palette: the indices are the values
};
WorkFormat work_format(BitmapHandle* src, const RGBQUAD* pal, int32_t colors) {
  const int32_t bits = src->BitsPerPixel, order = src->Order;
  if (bits == 12 || (bits == 16 && order == ORDER_GRAY)) return {16, ORDER_GRAY, 1, true, false, false};
  if (bits <= 8) {
    const int32_t g = pal ? V_IsGrayScalePalette(pal, colors) : 0;
    if (bits == 8 && (g == 1 || g == 2)) return {8, order, 1, false, false, true};
    return {24, ORDER_BGR, 3, false, true, false};
  }
  if (bits == 16 || bits == 32) return {32, order, 4, false, false, false};
  if (bits == 48) return {48, order, 3, true, false, false};
  if (bits == 64) return {64, order, 4, true, false, false};
  return {24, order, 3, false, false, false};
}

uint32_t slack_size(const Output& o, int32_t a) {
  return std::max({V_CalcConvertSize(o.width, a, o.width, o.bits), bytes_per_line(o.width, std::max(a, o.bits)),
                   o.bytes_per_line}) + 16;
}

}  // namespace

class Producer {
 public:
  Producer(BitmapHandle* src, RowReader reader, intptr_t user, const Output& o, Method m)
      : src_(src), reader_(reader), user_(user), o_(o), m_(m) {}
  ~Producer() {
    if (dithering_) V_StopDithering(&dither_);
  }
  int32_t init();
  int32_t row(int32_t y, const uint8_t** out);

 private:
  int32_t read(int32_t sy, uint8_t* buf) {
    const int32_t got = reader_ ? reader_(user_, sy, buf, int32_t(src_->BytesPerLine))
                                : V_GetBitmapRow(src_, buf, uint32_t(sy), int32_t(src_->BytesPerLine));
    return got < 0 ? got : int32_t{RESULT_OK};
  }
  int32_t convert_out(uint8_t* row, int32_t from_bits, int32_t from_order, const RGBQUAD* from_pal) {
    if (from_bits == o_.bits && (from_bits <= 8 ? same_palette_ : from_order == o_.order)) return RESULT_OK;
    return V_ConvertBuffer(row, o_.width, from_bits, o_.bits, from_order, o_.order, from_pal, o_.palette);
  }
  int32_t nearest(int32_t y);
  int32_t density(int32_t y);
  int32_t resample(int32_t y);
  int32_t hrow(int32_t sy, const uint8_t** out);
  int32_t start_dither() {
    if (dithering_) V_StopDithering(&dither_);
    dithering_ = false;
    next_dither_ = INT32_MAX;  // a failed start is tried again by the next row asked for
    VK_TRY(V_StartDitheringExt(&dither_, o_.palette, o_.colors, o_.bits, nullptr));
    dithering_ = true;
    next_dither_ = 0;
    return RESULT_OK;
  }

  BitmapHandle* src_;
  RowReader reader_;
  intptr_t user_;
  Output o_;
  Method m_;
  int32_t sw_ = 0, sh_ = 0, sbits_ = 0;
  RGBQUAD src_pal_[256] = {};
  const RGBQUAD* src_pal_ptr_ = nullptr;
  int32_t src_colors_ = 0;
  bool same_palette_ = false;
  Step xs_{}, ys_{};
  WorkFormat wf_{};
  size_t samples_ = 0;  // destination samples per row (width x channels)
  Buffer<uint8_t> in_, row_, out_;
  int64_t key_ = -1;  // what row_ holds: a source row (nearest, density) or a destination row
  // Resampling.
  bool x_spline_ = false, y_spline_ = false, wide_acc_ = false;
  Buffer<Box> xbox_, ybox_;
  Buffer<Knot> xknot_, yknot_;
  Buffer<float> xm_, xc_, ym0_, ym1_;
  int32_t ym_key_ = -1;
  Chain chain_;
  Buffer<uint8_t> ring_, acc_;
  int32_t ring_key_[4] = {-1, -1, -1, -1};
  size_t hrow_bytes_ = 0;
  BitmapHandle dither_{};
  bool dithering_ = false;
  int32_t next_dither_ = 0;
  int32_t count_value_ = 0;
};

int32_t Producer::init() {
  sw_ = src_->Width, sh_ = src_->Height, sbits_ = src_->BitsPerPixel;
  const int32_t ow = o_.width;
  if (sbits_ <= 8) {
    VK_TRY(read_palette(src_, src_pal_, &src_colors_));
    if (src_colors_ > 0) src_pal_ptr_ = src_pal_;
  }
  if (o_.bits <= 8 && sbits_ == o_.bits) {
    const int32_t n = 1 << o_.bits;
    same_palette_ = !o_.palette || !src_pal_ptr_ || std::memcmp(o_.palette, src_pal_, size_t(n) * sizeof(RGBQUAD)) == 0;
  }
  xs_ = step_for(sw_, ow);
  ys_ = step_for(sh_, o_.height);

  if (m_ == Method::nearest || m_ == Method::density) {
    if (!in_.allocate(size_t(src_->BytesPerLine) + 16, true)) return RESULT_FAIL;
    if (m_ == Method::density) {
      // The darker entry is the one counted (ink on paper either way round).
      const RGBQUAD* p = src_pal_ptr_;
      count_value_ = p && gray_level(p[1].rgbRed, p[1].rgbGreen, p[1].rgbBlue) <
                                  gray_level(p[0].rgbRed, p[0].rgbGreen, p[0].rgbBlue)
                         ? 1
                         : 0;
      if (!acc_.allocate(size_t(ow) * sizeof(uint32_t))) return RESULT_FAIL;
    }
    return row_.allocate(slack_size(o_, sbits_), true) ? RESULT_OK : RESULT_FAIL;
  }

  wf_ = work_format(src_, src_pal_ptr_, src_colors_);
  const size_t ss = wf_.wide ? 2 : 1;
  samples_ = size_t(ow) * size_t(wf_.channels);
  x_spline_ = m_ == Method::smooth && ow > sw_;
  y_spline_ = m_ == Method::smooth && o_.height > sh_;
  if (!in_.allocate(std::max<size_t>(src_->BytesPerLine, V_CalcConvertSize(sw_, sbits_, sw_, wf_.bits)) + 16, true))
    return RESULT_FAIL;
  hrow_bytes_ = (samples_ * ss + 15) & ~size_t(15);
  if (!ring_.allocate(hrow_bytes_ * 4, true)) return RESULT_FAIL;
  if (!row_.allocate(std::max<size_t>(samples_ * ss, slack_size(o_, wf_.bits)) + 16, true))
    return RESULT_FAIL;
  if (wf_.dither && o_.bits <= 8 && !out_.allocate(slack_size(o_, o_.bits), true))
    return RESULT_FAIL;
  if (x_spline_) {
    if (!xknot_.allocate(size_t(ow)) || !xm_.allocate(size_t(sw_) * wf_.channels) || !xc_.allocate(size_t(sw_)))
      return RESULT_FAIL;
    plan_knots(xknot_.get(), sw_, ow);
  } else {
    if (!xbox_.allocate(size_t(ow))) return RESULT_FAIL;
    plan_boxes(xbox_.get(), sw_, ow);
  }
  if (y_spline_) {
    if (!yknot_.allocate(size_t(o_.height)) || !ym0_.allocate(samples_) || !ym1_.allocate(samples_))
      return RESULT_FAIL;
    plan_knots(yknot_.get(), sh_, o_.height);
  } else {
    if (!ybox_.allocate(size_t(o_.height))) return RESULT_FAIL;
    plan_boxes(ybox_.get(), sh_, o_.height);
    // Sums of a box's weights times the largest sample must fit the accumulator.
    const uint64_t most = uint64_t(int64_t(sh_) * 100 / o_.height + 200) * (wf_.wide ? 65535u : 255u);
    wide_acc_ = most > UINT32_MAX;
    if (!acc_.allocate(samples_ * (wide_acc_ ? 8 : 4))) return RESULT_FAIL;
  }
  if (wf_.dither && o_.bits <= 8) {
    dither_.Width = ow;
    dither_.Height = o_.height;
    dither_.BitsPerPixel = 24;
    dither_.Order = ORDER_BGR;
    dither_.DitheringMethod = o_.dither_method;
    VK_TRY(start_dither());
  }
  return RESULT_OK;
}

int32_t Producer::nearest(int32_t y) {
  const int64_t sy = ys_.at(y);
  if (sy == key_) return RESULT_OK;
  key_ = -1;
  VK_TRY(read(int32_t(sy), in_.get()));
  scan_line(sbits_, int32_t(bytes_per_line(o_.width, sbits_)), 0, xs_.q, 0, xs_.r, in_.get(), row_.get(), o_.width,
            o_.width, o_.width >= sw_);
  VK_TRY(convert_out(row_.get(), sbits_, src_->Order, src_pal_ptr_));
  key_ = sy;
  return RESULT_OK;
}

// Each destination pixel counts the pixels of the counted value in its box
// of qx x qy source pixels (quotients at least 1) that starts where nearest
// neighbour would pick, clipped at the right and bottom edges.
int32_t Producer::density(int32_t y) {
  const int64_t sy = ys_.at(y);
  if (sy == key_) return RESULT_OK;
  key_ = -1;
  const int32_t bw = std::max(xs_.q, 1), bh = std::max(ys_.q, 1), ow = o_.width;
  const int32_t root = int32_t(V_SQRT(uint32_t(std::min<int64_t>(int64_t(bw) * bh, UINT32_MAX))));
  const uint32_t threshold = uint32_t(std::max(root < 5 ? root - 1 : root, 1));
  uint32_t* counts = reinterpret_cast<uint32_t*>(acc_.get());
  std::memset(counts, 0, size_t(ow) * sizeof(uint32_t));
  const int32_t rows_end = int32_t(std::min<int64_t>(sy + bh, sh_));
  for (int32_t r = int32_t(sy); r < rows_end; ++r) {
    VK_TRY(read(r, in_.get()));
    const uint8_t* p = in_.get();
    for (int32_t x = 0; x < ow; ++x) {
      const int64_t sx = xs_.at(x), ex = std::min<int64_t>(sx + bw, sw_);
      uint32_t n = 0;
      for (int64_t c = sx; c < ex; ++c) n += uint32_t((p[c >> 3] >> (7 - (c & 7))) & 1) == uint32_t(count_value_);
      counts[x] += n;
    }
  }
  uint8_t* out = row_.get();
  std::memset(out, 0, bytes_per_line(ow, 1));
  for (int32_t x = 0; x < ow; ++x) {
    const uint32_t v = counts[x] >= threshold ? uint32_t(count_value_) : uint32_t(1 - count_value_);
    if (v) out[x >> 3] |= uint8_t(0x80u >> (x & 7));
  }
  key_ = sy;
  return RESULT_OK;
}

// Source row sy resized along x in the working format (kept in the ring).
int32_t Producer::hrow(int32_t sy, const uint8_t** out) {
  const int slot = sy & 3;
  uint8_t* dst = ring_.get() + size_t(slot) * hrow_bytes_;
  *out = dst;
  if (ring_key_[slot] == sy) return RESULT_OK;
  ring_key_[slot] = -1;
  uint8_t* buf = in_.get();
  VK_TRY(read(sy, buf));
  if (wf_.bits != sbits_ || (sbits_ <= 8 && !wf_.raw8))
    VK_TRY(V_ConvertBuffer(buf, sw_, sbits_, wf_.bits, src_->Order, wf_.order, src_pal_ptr_, nullptr));
  const int32_t ow = o_.width, C = wf_.channels;
  auto run = [&](auto sample) {
    using S = decltype(sample);
    const S* s = reinterpret_cast<const S*>(buf);
    S* d = reinterpret_cast<S*>(dst);
    if (x_spline_) {
      switch (C) {
        case 1: h_spline<S, 1>(s, d, xknot_.get(), sw_, ow, xm_.get(), xc_.get(), chain_); break;
        case 3: h_spline<S, 3>(s, d, xknot_.get(), sw_, ow, xm_.get(), xc_.get(), chain_); break;
        default: h_spline<S, 4>(s, d, xknot_.get(), sw_, ow, xm_.get(), xc_.get(), chain_); break;
      }
    } else if (sw_ == ow) {
      std::memcpy(d, s, samples_ * sizeof(S));
    } else if (sw_ % ow == 0 && sizeof(S) == 1 && sw_ / ow < 1 << 16) {
      const int32_t q = sw_ / ow;
      switch (C) {
        case 1: h_average_whole<S, 1>(s, d, q, ow); break;
        case 3: h_average_whole<S, 3>(s, d, q, ow); break;
        default: h_average_whole<S, 4>(s, d, q, ow); break;
      }
    } else {
      switch (C) {
        case 1: h_average<S, 1, uint64_t>(s, d, xbox_.get(), ow); break;
        case 3: h_average<S, 3, uint64_t>(s, d, xbox_.get(), ow); break;
        default: h_average<S, 4, uint64_t>(s, d, xbox_.get(), ow); break;
      }
    }
  };
  if (wf_.wide) run(uint16_t{});
  else run(uint8_t{});
  ring_key_[slot] = sy;
  return RESULT_OK;
}

int32_t Producer::resample(int32_t y) {
  uint8_t* vrow = row_.get();
  auto run = [&](auto sample) -> int32_t {
    using S = decltype(sample);
    S* out = reinterpret_cast<S*>(vrow);
    if (y_spline_) {
      const Knot& kn = yknot_[size_t(y)];
      const int32_t i = kn.i, lo = std::max(i - 1, 0), hi = std::min(i + 2, sh_ - 1);
      const S* rows[4];
      for (int32_t r = lo; r <= hi; ++r) {
        const uint8_t* p;
        VK_TRY(hrow(r, &p));
        rows[r - lo] = reinterpret_cast<const S*>(p);
      }
      const int32_t n = hi - lo + 1, j = i - lo;
      if (i + 1 >= sh_) {
        // Past the last row it stands for both neighbours.
        std::fill(ym0_.get(), ym0_.get() + samples_, 0.0f);
        std::fill(ym1_.get(), ym1_.get() + samples_, 0.0f);
        v_spline(rows[j], rows[j], ym0_.get(), ym1_.get(), out, samples_, kn);
        ym_key_ = -1;
        return RESULT_OK;
      }
      if (ym_key_ != i) {
        // Second derivatives of the window at rows i and i + 1, per column.
        if (n == 4) {
          window_derivatives(rows[0], rows[1], rows[2], rows[3], samples_, ym0_.get(), ym1_.get(), chain_);
        } else {
          float m[4], c[4];
          for (size_t x = 0; x < samples_; ++x) {
            S yv[4];
            for (int32_t r = 0; r < n; ++r) yv[r] = rows[r][x];
            second_derivatives(yv, 1, n, m, c, chain_);
            ym0_[x] = m[j];
            ym1_[x] = m[j + 1];
          }
        }
        ym_key_ = i;
      }
      v_spline(rows[j], rows[j + 1], ym0_.get(), ym1_.get(), out, samples_, kn);
      return RESULT_OK;
    }
    const Box b = ybox_[size_t(y)];
    if (b.n == 1) {
      const uint8_t* p;
      VK_TRY(hrow(b.p0, &p));
      std::memcpy(out, p, samples_ * sizeof(S));
      return RESULT_OK;
    }
    auto sum = [&](auto acc_type) -> int32_t {
      using Acc = decltype(acc_type);
      Acc* acc = reinterpret_cast<Acc*>(acc_.get());
      for (int32_t k = 0; k < b.n; ++k) {
        const uint8_t* p;
        VK_TRY(hrow(b.p0 + k, &p));
        const uint32_t w = k == 0 ? uint32_t(b.w_first) : k == b.n - 1 ? uint32_t(b.w_last) : 100u;
        v_accumulate<S, Acc>(acc, reinterpret_cast<const S*>(p), w, samples_, k == 0);
      }
      v_finish<S, Acc>(acc, out, b.total, samples_);
      return RESULT_OK;
    };
    return wide_acc_ ? sum(uint64_t{}) : sum(uint32_t{});
  };
  return wf_.wide ? run(uint16_t{}) : run(uint8_t{});
}

int32_t Producer::row(int32_t y, const uint8_t** out) {
  if (m_ == Method::nearest || m_ == Method::density) {
    VK_TRY(m_ == Method::nearest ? nearest(y) : density(y));
    *out = row_.get();
    return RESULT_OK;
  }
  if (key_ == y) {
    *out = out_ ? out_.get() : row_.get();
    return RESULT_OK;
  }
  key_ = -1;
  if (out_) {
    // Dithering carries its error from row to row: rows are made in order,
    // from the first again when an earlier one is asked for.
    if (y < next_dither_) VK_TRY(start_dither());
    while (next_dither_ <= y) {
      VK_TRY(resample(next_dither_));
      VK_TRY(V_DitherLine(&dither_, row_.get(), out_.get()));
      ++next_dither_;
    }
    *out = out_.get();
  } else {
    VK_TRY(resample(y));
    VK_TRY(convert_out(row_.get(), wf_.bits, wf_.order, wf_.raw8 ? src_pal_ptr_ : nullptr));
    *out = row_.get();
  }
  key_ = y;
  return RESULT_OK;
}

int32_t read_palette(BitmapHandle* b, RGBQUAD* out, int32_t* count) {
  *count = 0;
  if (!b->Palette || b->BitsPerPixel > 8 || b->ColorCount == 0) return RESULT_OK;
  const int32_t n = int32_t(std::min<uint32_t>(b->ColorCount, 256u));
  if (V_GetBitmapPaletteEntries(b, 0, n, out) != n) return RESULT_FAIL;
  *count = n;
  return RESULT_OK;
}

int32_t make_producer(Producer** out, BitmapHandle* src, RowReader reader, intptr_t user, const Output& o,
                      Method m) {
  Producer* p = make_object<Producer>(src, reader, user, o, m);
  if (!p) return RESULT_FAIL;
  const int32_t r = p->init();
  if (r != RESULT_OK) {
    destroy_object(p);
    return r;
  }
  *out = p;
  return RESULT_OK;
}
void free_producer(Producer* p) { destroy_object(p); }
int32_t produce_row(Producer* p, int32_t y, const uint8_t** row) { return p->row(y, row); }

Method method_for(uint32_t flags, const BitmapHandle* src, int32_t out_bits, int32_t dst_w, int32_t dst_h) {
  if ((flags & SIZE_ONE_BIT_DENSITY) && src->BitsPerPixel == 1 && out_bits == 1) return Method::density;
  const bool grows = dst_w > src->Width || dst_h > src->Height;
  if ((flags & SIZE_RESAMPLE) || ((flags & SIZE_SMOOTH) && !grows)) return Method::average;
  if (flags & SIZE_SMOOTH) return Method::smooth;
  return Method::nearest;
}

}  // namespace vk::resize
