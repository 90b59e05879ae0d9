// What the tests of Ripple, Vortex, Dent and Coordinate Space share beyond the warp fixture: a
// coordinate source as a picture tool, and a tool rendered over a picture with its inputs set.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tests/tools/warp/warp_fixture.h"

namespace kestrion::test {

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
