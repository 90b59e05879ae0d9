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

// fn over `count` pixel words of `in` into `out`, which is `in` itself or does not overlap it.
// Each case has its own loop whose store pointer is declared the only way to what it writes, so
// the compiler knows that the stores change no table fn reads, and vectorises. The loops are
// kept out of line: inlined, the compiler loses that promise.
template <class Fn>
[[gnu::noinline]] void MapWordsInPlace(uint32_t* __restrict row, int count, Fn fn) {
  for (int x = 0; x < count; ++x) row[x] = fn(row[x]);
}
template <class Fn>
[[gnu::noinline]] void MapWordsInto(const uint32_t* in, uint32_t* __restrict out, int count, Fn fn) {
  for (int x = 0; x < count; ++x) out[x] = fn(in[x]);
}
template <class Fn>
void MapWords(const uint32_t* in, uint32_t* out, int count, Fn fn) {
  if (in == out)
    MapWordsInPlace(out, count, fn);
  else
    MapWordsInto(in, out, count, fn);
}

// Runs row_fn(row, width) over every row of a 32-bit image; masks have no colour and are
// skipped.
template <class RowFn>
void ForColourRows(Image& img, RowFn row_fn) {
  if (img.Depth() != 32) return;
  for (int y = 0; y < img.Height(); ++y) row_fn(img.Row(y), img.Width());
}

// Replaces every pixel word of a 32-bit image by fn(word); masks are skipped.
template <class Fn>
void MapColourPixels(Image& img, Fn fn) {
  ForColourRows(img, [&fn](uint32_t* row, int width) { MapWordsInPlace(row, width, fn); });
}

}  // namespace kestrion::image_internal
