// Image and chunk helpers of the tools: which rows a chunk covers, the row loop that honours
// the abort flag, the 15-bit fixed-point blend, and sizes given against a 320-pixel-wide frame.
#pragma once

#include <atomic>
#include <cmath>
#include <climits>
#include <cstdint>

#include "host/image/image.h"
#include "host/graph/operator.h"
#include "host/graph/request.h"

namespace kestrion::module {

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

// How many bands a tool that runs its rows on the worker threads splits `height` rows into:
// bands of 8 to 15 rows, enough of them to keep every thread busy, at least one.
constexpr long RowBands(int height) { return height < 16 ? 1 : height / 8; }

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

// ForEachRow for a tool that writes every byte of each row of `out`, an image made by
// NewImageUnset: the rows that the abort flag stops are cleared instead, so that a render
// stopped part way hands on transparent black wherever it wrote nothing.
template <class RowFn>
bool WriteEachRow(const Operator& op, Image& out, RowSpan rows, RowFn&& row_fn) {
  for (int y = rows.begin; y < rows.end; ++y) {
    if (op.abort_flag.load(std::memory_order_relaxed) != 0) {
      out.ClearRows(y, rows.end);
      return false;
    }
    row_fn(y);
  }
  return true;
}

// The image a colour tool works on: the image itself, or a mask (linked to an image input) as
// a grey image, its value in all four bytes, made for the request.
inline const Image* ColourImage(Request* req, const Image* img) {
  return img->Depth() == 8 ? img->CopyOfImage2(req) : img;
}

// A double truncated toward zero to 32 bits as the x86 conversion does it: NaN and values
// outside the 32-bit range give INT32_MIN (the "integer indefinite" value) instead of
// undefined behaviour. Written as a select rather than a branch, so loops over it vectorise.
inline int32_t TruncToInt(double v) { return int32_t(v > -2147483649.0 && v < 2147483648.0 ? v : -2147483648.0); }

// 32-bit addition that wraps around, as fixed-point positions stepping far outside an image do.
constexpr int32_t WrapAdd(int32_t a, int32_t b) { return int32_t(uint32_t(a) + uint32_t(b)); }
// 32-bit multiplication that wraps around, as the 32-bit products of the blends do.
constexpr int32_t WrapMul(int32_t a, int32_t b) { return int32_t(uint32_t(a) * uint32_t(b)); }

// A blend fraction m (0 to 1) in 15-bit fixed point: weight = trunc(m * 32768) and its
// complement 32768 - weight (both wrap for fractions typed far outside 0 to 1).
struct BlendWeight {
  int32_t weight = 0;
  int32_t complement = 32768;
};
inline BlendWeight BlendWeightOf(double m) {
  const int32_t weight = TruncToInt(m * 32768.0);
  return {weight, int32_t(32768u - uint32_t(weight))};
}

// One channel blended: bits 15 to 22 of a * weight + b * complement, in 32-bit arithmetic
// that wraps, so fractions outside 0 to 1 wrap the way saved flows expect.
constexpr uint8_t Blend15(uint32_t a, uint32_t b, BlendWeight w) {
  return uint8_t((a * uint32_t(w.weight) + b * uint32_t(w.complement)) >> 15);
}

// A slider size given against a frame 320 pixels wide, in pixels of `img`:
// s * width / (x_aspect * 320), in double precision in that order.
inline double ReferenceSize(double s, const Image& img) {
  return s * double(img.Width()) / (double(img.x_aspect) * 320.0);
}

// The same size measured down the frame: s * width / (y_aspect * 320), the width here too.
inline double ReferenceSizeDown(double s, const Image& img) {
  return s * double(img.Width()) / (double(img.y_aspect) * 320.0);
}

}  // namespace kestrion::module
