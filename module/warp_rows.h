// Row loops of the warps: an output row filled through the host's samplers, either along a
// straight line of source positions stepped in 16.16 fixed point (Transform), or at positions a
// tool works out pixel by pixel (the Corner Positioner, and the warps whose mappings bend).
// Outside the source a sample is transparent black or the nearest edge pixel, chosen once per
// render as the template argument. A mask (depth 8) is sampled like any image and keeps one
// byte per pixel. The warps that move only the inside of a circle (Vortex, Dent) sample the run
// of a row inside it and copy the rest.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "host/image/image.h"
#include "module/image_model.h"

namespace kestrion::module {

enum class Edge { Black, Clamp };

// How many pixels of a row are sampled at a time where they need room on the stack.
constexpr int kSamplePiece = 256;

// The low byte of each word: a mask's value, which the samplers repeat in all four bytes.
inline void NarrowToMask(const uint32_t* words, uint8_t* out, int count) {
  for (int k = 0; k < count; ++k) out[k] = uint8_t(words[k]);
}

// Row `y` of `out` sampled from `src` along a line: pixel k at (X >> 8, Y >> 8), X = x + k dx
// and Y = y + k dy in 1/65536 pixel, 32-bit sums that wrap, exactly as the single-point sampler
// gives each (Image::SampleRow_Black or SampleRow_Clamp). `out` has the depth of `src`.
template <Edge kEdge>
void SampleLine(const Image& src, Image& out, int y, int32_t x, int32_t y_pos, int32_t dx, int32_t dy, long quality) {
  const auto sample = [&](uint32_t* to, int count, int32_t from_x, int32_t from_y) {
    return kEdge == Edge::Black ? src.SampleRow_Black(to, count, from_x, from_y, dx, dy, quality)
                                : src.SampleRow_Clamp(to, count, from_x, from_y, dx, dy, quality);
  };
  if (out.Depth() == 32) {
    uint32_t* row = out.Row(y);
    const uint32_t* samples = sample(row, out.Width(), x, y_pos);
    // The sampler hands out the source's own row where the samples are a run of it.
    if (samples != row) std::memcpy(row, samples, size_t(out.Width()) * 4);
    return;
  }
  uint32_t words[kSamplePiece];
  for (int first = 0; first < out.Width(); first += kSamplePiece) {
    const int count = std::min(kSamplePiece, out.Width() - first);
    const int32_t at_x = int32_t(uint32_t(x) + uint32_t(first) * uint32_t(dx));
    const int32_t at_y = int32_t(uint32_t(y_pos) + uint32_t(first) * uint32_t(dy));
    NarrowToMask(sample(words, count, at_x, at_y), out.MaskRow(y) + first, count);
  }
}

// Pixels begin .. end - 1 of row `y` of `out` sampled from `src` at positions the tool works
// out: positions(first, count, sx, sy) writes the source positions of pixels first .. first +
// count - 1 into sx[0 ..] and sy[0 ..], in 1/256 pixel as DoSample_Black and DoSample_Clamp take
// them, count being at most kSamplePiece. A pixel that a tool copies rather than samples gets
// its own position (256 x, 256 y), which both samplers read exactly. `out` has the depth of
// `src`.
template <Edge kEdge, class Positions>
void SampleMappedRun(const Image& src, Image& out, int y, int begin, int end, long quality, Positions&& positions) {
  int32_t sx[kSamplePiece], sy[kSamplePiece];
  uint32_t words[kSamplePiece];
  for (int first = begin; first < end; first += kSamplePiece) {
    const int count = std::min(kSamplePiece, end - first);
    positions(first, count, sx, sy);
    uint32_t* to = out.Depth() == 32 ? out.Row(y) + first : words;
    if constexpr (kEdge == Edge::Black) {
      src.SamplePoints_Black(to, count, sx, sy, quality);
    } else {
      src.SamplePoints_Clamp(to, count, sx, sy, quality);
    }
    if (out.Depth() != 32) NarrowToMask(words, out.MaskRow(y) + first, count);
  }
}

// The whole of row `y` so.
template <Edge kEdge, class Positions>
void SampleMappedRow(const Image& src, Image& out, int y, long quality, Positions&& positions) {
  SampleMappedRun<kEdge>(src, out, y, 0, out.Width(), quality, positions);
}

// Pixels begin .. end - 1 of row y copied from `src` to `out`, two images of the same depth.
inline void CopyRun(const Image& src, const Image& out, int y, int begin, int end) {
  if (begin >= end) return;
  const size_t bytes = src.BytesPerPixel();
  std::memcpy(static_cast<uint8_t*>(out.RowTable()[y]) + size_t(begin) * bytes,
              static_cast<const uint8_t*>(src.RowTable()[y]) + size_t(begin) * bytes, size_t(end - begin) * bytes);
}

// The pixels of a row 0 .. width - 1 for which `inside(x)` holds, where it holds on one run
// around the pixel nearest to `centre` at most: true for "closer to the centre than a radius",
// since x - centre, rounded, only grows in size away from that pixel. Empty when it fails there.
template <class Inside>
RowSpan RunAround(int width, double centre, Inside&& inside) {
  if (width <= 0) return {};
  const int nearest = centre > 0 ? int(std::min(std::floor(centre + 0.5), double(width - 1))) : 0;
  if (!inside(nearest)) return {};
  int lo = 0, hi = nearest;  // the first inside pixel lies in lo .. hi
  while (lo < hi) {
    const int mid = lo + (hi - lo) / 2;
    if (inside(mid)) {
      hi = mid;
    } else {
      lo = mid + 1;
    }
  }
  RowSpan run{lo, width};
  lo = nearest + 1;
  hi = width;  // the first outside pixel after it lies in lo .. hi
  while (lo < hi) {
    const int mid = lo + (hi - lo) / 2;
    if (inside(mid)) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  run.end = lo;
  return run;
}

}  // namespace kestrion::module
