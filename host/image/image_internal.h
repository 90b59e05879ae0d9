// Helpers shared by the files that implement the host image operations; not for tools.
#pragma once

#include <cmath>
#include <cstdint>
#include <stdexcept>

#include "host/image/image.h"

namespace kestrion::image_internal {

// floor(v + 0.5) held to 0..255; NaN gives 0. For v >= -0.5 this is rounding half away from
// zero, and below that both give 0 after holding.
inline uint8_t RoundToByte(double v) {
  if (!(v > 0.0)) return 0;
  if (v >= 255.0) return 255;
  return uint8_t(std::floor(v + 0.5));
}

// Two images combined pixel by pixel must have the same depth.
inline void RequireSameDepth(const Image& a, const Image& b) {
  if (a.Depth() != b.Depth()) throw std::invalid_argument("images of depth 8 and 32 cannot be combined");
}

// Replaces every pixel word of a 32-bit image by fn(word); masks have no colour and are
// skipped. Whole words in and out, so the compiler can vectorise the loop.
template <class Fn>
void MapColourPixels(Image& img, Fn fn) {
  if (img.Depth() != 32) return;
  const int w = img.Width();
  for (int y = 0; y < img.Height(); ++y) {
    uint32_t* row = img.Row(y);
    for (int x = 0; x < w; ++x) row[x] = fn(row[x]);
  }
}

}  // namespace kestrion::image_internal
