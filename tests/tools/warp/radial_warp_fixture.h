// What the tests of Ripple, Vortex, Dent and Coordinate Space share: a source whose pixels name
// their own column and row, and a fixture that renders a tool over a picture with its inputs set.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {

// Pixel (x, y) of a coordinate source: blue 16x, green 16y, red 200, alpha 255, so that a sample
// names the point it was read at (between pixels, the mix of their coordinates).
constexpr Pixel At(int x, int y) { return {uint8_t(16 * x), uint8_t(16 * y), 200, 255}; }

using Numbers = std::vector<std::pair<std::string, double>>;

class RadialWarpTest : public ColorToolTest {
 protected:
  Picture* Coordinates(int w, int h) {
    std::vector<Pixel> pixels;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) pixels.push_back(At(x, y));
    return Source(w, h, pixels);
  }

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
