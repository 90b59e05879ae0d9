// What the warp tests share: the flow fixture of the colour tools, sources whose pixels encode
// their own position, so that an output pixel names the source pixel it came from, and a tool
// rendered over a picture with its inputs set.
#pragma once

#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {

using WarpTest = ColorToolTest;

// Source pixel (x, y): blue 10 x, green 10 y, red 100, opaque.
inline Pixel At(int x, int y) { return Pixel{uint8_t(10 * x), uint8_t(10 * y), 100, 255}; }

inline std::vector<Pixel> Coordinates(int w, int h) {
  std::vector<Pixel> out;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) out.push_back(At(x, y));
  return out;
}

// A w x h output whose pixel (x, y) is the source pixel `from(x, y)` of a w x h coordinate
// source, or transparent black where that lies outside it.
inline std::vector<Pixel> Reads(int w, int h, const std::function<std::pair<int, int>(int, int)>& from) {
  std::vector<Pixel> out;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const auto [sx, sy] = from(x, y);
      out.push_back(sx >= 0 && sy >= 0 && sx < w && sy < h ? At(sx, sy) : Pixel{});
    }
  return out;
}

inline std::vector<Pixel> Noise(std::mt19937& random, int n) {
  std::vector<Pixel> out;
  for (int k = 0; k < n; ++k) out.push_back(Pixel::FromWord(uint32_t(random())));
  return out;
}

using Numbers = std::vector<std::pair<std::string, double>>;

class RadialWarpTest : public WarpTest {
 protected:
  Picture* CoordinateSource(int w, int h) { return Source(w, h, Coordinates(w, h)); }

  // A tool of the class over `src`, its numbers set by label and its centre at (cx, cy) where it
  // has one.
  Operator* Warp(const char* tool, Picture* src, const Numbers& numbers, float cx = 0.5f, float cy = 0.5f) {
    Operator* op = Tool(tool);
    Link(src, op, "Image");
    for (const auto& [label, value] : numbers) Set(op, label, value);
    if (Input* centre = In(op, "Center")) centre->SetValue(new Point(cx, cy));
    return op;
  }

  // Pixel (x, y) of the tool's output.
  Pixel RenderedAt(Operator* op, int x, int y, uint32_t flags = 0) {
    Ref<Image> out = Render(op, 0, flags);
    return out ? Pixel::FromWord(out->Row(y)[x]) : Pixel{};
  }
};

}  // namespace kestrion::test
