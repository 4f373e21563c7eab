// demo_image.cpp - the built-in picture.
#include "demo_image.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace vkimg {
namespace {

struct Rgb {
  double r, g, b;
};

Rgb mix(Rgb a, Rgb b, double t) {
  t = std::clamp(t, 0.0, 1.0);
  return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

double smoothstep(double e0, double e1, double x) {
  const double t = std::clamp((x - e0) / (e1 - e0), 0.0, 1.0);
  return t * t * (3 - 2 * t);
}

// Integer hash -> [0, 1): the texture never depends on anything but position.
double hash01(int x, int y, uint32_t seed) {
  uint32_t h = static_cast<uint32_t>(x) * 0x8da6b343u ^ static_cast<uint32_t>(y) * 0xd8163841u ^ seed * 0xcb1ab31fu;
  h ^= h >> 13;
  h *= 0x5bd1e995u;
  h ^= h >> 15;
  return (h & 0xFFFFFF) / 16777216.0;
}

// Smooth value noise with a cell of `scale` pixels.
double value_noise(double x, double y, double scale, uint32_t seed) {
  const double fx = x / scale, fy = y / scale;
  const int ix = static_cast<int>(std::floor(fx)), iy = static_cast<int>(std::floor(fy));
  const double tx = smoothstep(0, 1, fx - ix), ty = smoothstep(0, 1, fy - iy);
  const double a = hash01(ix, iy, seed), b = hash01(ix + 1, iy, seed);
  const double c = hash01(ix, iy + 1, seed), d = hash01(ix + 1, iy + 1, seed);
  return (a + (b - a) * tx) * (1 - ty) + (c + (d - c) * tx) * ty;
}

Rgb hue(double h) {
  h = (h - std::floor(h)) * 6;
  const double f = h - std::floor(h);
  switch (static_cast<int>(h)) {
    case 0: return {1, f, 0};
    case 1: return {1 - f, 1, 0};
    case 2: return {0, 1, f};
    case 3: return {0, 1 - f, 1};
    case 4: return {f, 0, 1};
    default: return {1, 0, 1 - f};
  }
}

Rgb shade(int px, int py, int w, int h) {
  const double u = (px + 0.5) / w, v = (py + 0.5) / h;
  const double aspect = static_cast<double>(w) / h;

  // Test strips: hue sweep, then a gray ramp, along the bottom.
  if (v > 0.94) {
    const double g = std::floor(u * 64) / 63;  // 64 hard-edged gray steps
    return {g, g, g};
  }
  if (v > 0.88) {
    const Rgb c = hue(u);
    const double shade_t = (v - 0.88) / 0.06;  // full colour to darker
    return mix(c, Rgb{c.r * 0.25, c.g * 0.25, c.b * 0.25}, shade_t);
  }

  // Sky with a sun glow.
  Rgb c = mix(Rgb{0.08, 0.18, 0.45}, Rgb{0.98, 0.72, 0.45}, smoothstep(0.0, 0.55, v));
  const double sx = (u - 0.72) * aspect, sy = v - 0.28;
  const double sd = std::sqrt(sx * sx + sy * sy);
  c = mix(c, Rgb{1.0, 0.85, 0.55}, 0.6 * std::exp(-sd * 9));
  c = mix(c, Rgb{1.0, 0.97, 0.85}, smoothstep(0.075, 0.07, sd));
  const double cloud = value_noise(px, py * 3.0, w / 14.0, 7) * value_noise(px, py, w / 40.0, 9);
  c = mix(c, Rgb{1, 1, 1}, smoothstep(0.35, 0.6, cloud) * 0.5 * (1 - smoothstep(0.3, 0.5, v)));

  // Far ridge, then near ridge.
  const double far = 0.52 - 0.06 * std::sin(u * 7.1 + 0.4) - 0.03 * std::sin(u * 17.3) -
                     0.02 * (value_noise(px, 0, w / 50.0, 3) - 0.5);
  if (v > far) c = mix(Rgb{0.32, 0.30, 0.48}, Rgb{0.20, 0.22, 0.35}, (v - far) * 6);
  const double near = 0.66 - 0.05 * std::sin(u * 4.3 + 2.0) - 0.015 * std::sin(u * 31.0);
  if (v > near) {
    const double t = value_noise(px, py, w / 120.0, 5);
    c = mix(Rgb{0.16, 0.36, 0.14}, Rgb{0.42, 0.55, 0.20}, t * 0.8 + (v - near) * 2);
    // Meadow grain.
    const double grain = hash01(px, py, 11) - 0.5;
    c = {c.r + grain * 0.08, c.g + grain * 0.1, c.b + grain * 0.05};
  }

  // Buildings: hard edges and lit windows.
  struct Block {
    double x0, x1, top;
    Rgb colour;
  };
  static constexpr Block kBlocks[] = {{0.05, 0.13, 0.48, {0.55, 0.52, 0.50}},
                                      {0.12, 0.19, 0.40, {0.70, 0.45, 0.35}},
                                      {0.20, 0.25, 0.56, {0.35, 0.40, 0.55}},
                                      {0.26, 0.33, 0.45, {0.80, 0.78, 0.70}}};
  for (const Block& b : kBlocks) {
    if (u >= b.x0 && u < b.x1 && v >= b.top && v < 0.80) {
      c = mix(b.colour, Rgb{b.colour.r * 0.6, b.colour.g * 0.6, b.colour.b * 0.6}, (u - b.x0) / (b.x1 - b.x0));
      const int wx = static_cast<int>((u - b.x0) * w) % 14, wy = static_cast<int>((v - b.top) * h) % 18;
      if (wx >= 4 && wx < 10 && wy >= 5 && wy < 13) {
        const bool lit = hash01(static_cast<int>((u - b.x0) * w) / 14, static_cast<int>((v - b.top) * h) / 18, 21) > 0.55;
        c = lit ? Rgb{1.0, 0.86, 0.45} : Rgb{0.12, 0.14, 0.20};
      }
    }
  }

  // Zone plate: rings that get finer towards the edge of the disc.
  const double zx = (u - 0.88) * aspect, zy = v - 0.70;
  const double zr2 = zx * zx + zy * zy;
  if (zr2 < 0.12 * 0.12) {
    const double ring = 0.5 + 0.5 * std::cos(zr2 * 9000.0);
    c = {ring, ring, ring};
  }
  return c;
}

}  // namespace

Image make_demo_image(int width, int height) {
  Image img;
  img.allocate(width, height, 24, kOrderBgr);
  img.xdpi = img.ydpi = 150;
  for (int y = 0; y < height; ++y) {
    uint8_t* row = img.row(y);
    for (int x = 0; x < width; ++x) {
      const Rgb c = shade(x, y, width, height);
      auto byte = [](double v) { return static_cast<uint8_t>(std::lround(std::clamp(v, 0.0, 1.0) * 255)); };
      row[3 * x] = byte(c.b);
      row[3 * x + 1] = byte(c.g);
      row[3 * x + 2] = byte(c.r);
    }
  }
  return img;
}

Image make_demo_page(int width, int height) {
  Image page;
  page.allocate(width, height, 1, kOrderRgb);
  page.palette = {Colour{255, 255, 255, 0}, Colour{0, 0, 0, 0}};  // index 1 is ink
  auto fill = [&](int x0, int y0, int x1, int y1) {
    for (int y = std::max(0, y0); y < std::min(height, y1); ++y)
      for (int x = std::max(0, x0); x < std::min(width, x1); ++x) page.set_index(x, y, 1);
  };
  const int margin = std::max(2, width / 16);
  const int glyph = std::max(2, height / 90), pitch = glyph * 2;  // text height, line pitch
  fill(margin, margin, width - margin, margin + 2 * glyph);       // title bar
  // Two columns of words: runs of ink of hashed lengths, a blank after each.
  const int gutter = margin / 2, column = (width - 2 * margin - gutter) / 2;
  for (int c = 0; c < 2; ++c) {
    const int x0 = margin + c * (column + gutter);
    for (int y = margin + 4 * glyph, line = 0; y + glyph < height * 2 / 3; y += pitch, ++line) {
      if (hash01(c, line, 7) < 0.1) continue;  // paragraph break
      for (int x = x0, word = 0; x < x0 + column;) {
        const int len = glyph * (1 + static_cast<int>(hash01(word++, line * 2 + c, 11) * 6));
        fill(x, y, std::min(x + len, x0 + column), y + glyph);
        x += len + glyph;
      }
    }
  }
  // A ruled table below the text.
  const int top = height * 2 / 3 + pitch, bottom = height - margin, rule = std::max(1, glyph / 4);
  for (int r = 0; r <= 6 && top < bottom; ++r) fill(margin, top + r * (bottom - top) / 6, width - margin, top + r * (bottom - top) / 6 + rule);
  for (int c = 0; c <= 5 && top < bottom; ++c) fill(margin + c * (width - 2 * margin) / 5, top, margin + c * (width - 2 * margin) / 5 + rule, bottom + rule);
  return page;
}

}  // namespace vkimg
