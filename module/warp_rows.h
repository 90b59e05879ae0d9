// The row loop of the warps that map every output pixel to a source point of its own (Ripple,
// Vortex, Dent): the tool's map fills the points of a run of pixels, the host's sampler reads
// them, and the run lands in the output row. Pixels that a warp leaves where they are, outside
// its circle, are copied as they are.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "host/image/image.h"
#include "module/image_model.h"

namespace kestrion::module {

// What a warp's sampler reads outside the source: transparent black or the nearest edge pixel.
enum class Edge { Black, Clamp };

// Pixels per run that a map fills at a time.
constexpr int kWarpRun = 256;

// The source points of a run of output pixels, in 1/256 pixel.
struct SourcePoints {
  int32_t x[kWarpRun];
  int32_t y[kWarpRun];
};

// Pixels begin .. end - 1 of output row y, pixel x0 + k sampled from `src` at the point
// (points.x[k], points.y[k]) that map(x0, count, points) fills, count being at most kWarpRun.
// A 32-bit output takes the samples in place; a mask keeps each sample's value byte.
template <Edge kEdge, class Map>
void SampleMappedRun(const Image& src, const Image& out, int y, int begin, int end, long quality, Map&& map) {
  SourcePoints points;
  uint32_t words[kWarpRun];
  for (int x = begin; x < end; x += kWarpRun) {
    const int count = std::min(kWarpRun, end - x);
    map(x, count, points);
    uint32_t* to = out.Depth() == 32 ? out.Row(y) + x : words;
    if constexpr (kEdge == Edge::Black) {
      src.SamplePoints_Black(to, points.x, points.y, count, quality);
    } else {
      src.SamplePoints_Clamp(to, points.x, points.y, count, quality);
    }
    if (to == words)
      for (int k = 0; k < count; ++k) out.MaskRow(y)[x + k] = uint8_t(words[k]);
  }
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
