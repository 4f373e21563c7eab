// demo_image.h - the built-in picture the program works on when no input is named.
#pragma once

#include "image_io.h"

namespace vkimg {

inline constexpr int kDemoWidth = 2048;
inline constexpr int kDemoHeight = 1536;

// A deterministic photo-like 24-bit picture (order 1): a sky gradient with a
// soft sun, two mountain ridges, a textured meadow, hard-edged buildings, a
// zone plate of fine rings, and hue and gray test strips along the bottom.
// The same size always gives the same pixels.
Image make_demo_image(int width = kDemoWidth, int height = kDemoHeight);

// A deterministic 1-bit document-like page of the same kind: a title bar,
// two columns of text lines and a ruled table on white, what run-length
// storage is made for.
Image make_demo_page(int width = kDemoWidth, int height = kDemoHeight);

}  // namespace vkimg
