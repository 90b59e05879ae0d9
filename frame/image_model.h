// Image and chunk helpers of the tools: which rows a chunk covers, the row loop that honours
// the abort flag, the 15-bit fixed-point blend, and sizes given against a 320-pixel-wide frame.
#pragma once

#include <atomic>
#include <cmath>
#include <cstdint>

#include "host/image.h"
#include "host/operator.h"

namespace kestrion::frame {

// Rows begin .. end - 1 of an image.
struct RowSpan {
  int begin = 0;
  int end = 0;
  bool operator==(const RowSpan&) const = default;
};

// Band `chunk` of `chunks` over `height` rows, counted from the top: the band height is
// trunc(height / chunks), band c covers c * band .. (c + 1) * band - 1, and the last band runs
// to the bottom row (so it takes the remainder).
constexpr RowSpan BandRows(int height, long chunks, long chunk) {
  const long band = height / chunks;
  return {int(chunk * band), chunk == chunks - 1 ? height : int((chunk + 1) * band)};
}

// The same bands counted from the bottom: band c covers (chunks - c - 1) * band ..
// (chunks - c) * band - 1, and band 0 runs to the bottom row (it takes the remainder).
constexpr RowSpan BandRowsFromBottom(int height, long chunks, long chunk) {
  const long band = height / chunks;
  return {int((chunks - chunk - 1) * band), chunk == 0 ? height : int((chunks - chunk) * band)};
}

// Calls row_fn(y) for y = rows.begin .. rows.end - 1, testing the operator's abort flag
// before each row; returns false when the flag stopped it (the rows already done stay).
template <class RowFn>
bool ForEachRow(const Operator& op, RowSpan rows, RowFn&& row_fn) {
  for (int y = rows.begin; y < rows.end; ++y) {
    if (op.abort_flag.load(std::memory_order_relaxed) != 0) return false;
    row_fn(y);
  }
  return true;
}

// A blend fraction m (0 to 1) in 15-bit fixed point: weight = floor(m * 32768) and its
// complement 32768 - weight.
struct BlendWeight {
  int weight = 0;
  int complement = 32768;
};
inline BlendWeight BlendWeightOf(double m) {
  const int weight = int(std::floor(m * 32768.0));
  return {weight, 32768 - weight};
}

// One channel blended: (a * weight + b * complement) >> 15, keeping the low 8 bits.
constexpr uint8_t Blend15(int a, int b, BlendWeight w) { return uint8_t((a * w.weight + b * w.complement) >> 15); }

// A whole pixel word blended channel by channel.
constexpr uint32_t BlendPixel15(uint32_t a, uint32_t b, BlendWeight w) {
  uint32_t out = 0;
  for (int shift = 0; shift < 32; shift += 8)
    out |= uint32_t(Blend15(int(a >> shift & 255), int(b >> shift & 255), w)) << shift;
  return out;
}

// A slider size given against a frame 320 pixels wide, in pixels of `img`:
// s * width / (x_aspect * 320), in double precision in that order.
inline double ReferenceSize(double s, const Image& img) {
  return s * double(img.Width()) / (double(img.x_aspect) * 320.0);
}

}  // namespace kestrion::frame
