// Ripple on an 8 x 8 coordinate source about its middle (cx = cy = 4, so fx = (x - 4) / 8 and
// fy = (y - 4) / 8 exactly): every shape's distance, the wave that scales the offset, dampening,
// phase and quick renders, worked out by hand; and Random's draws.
#include <gtest/gtest.h>

#include "host/base/random.h"
#include "tests/tools/warp/radial_warp_fixture.h"

namespace kestrion::test {
namespace {

using RippleTest = RadialWarpTest;

// The frequencies are chosen so that F' d = pi/2 (F' = frequency pi / 1000) at the pixel's
// distance d: s = 1 + A sin(F' d) = 2, and the pixel reads the point twice as far from the
// centre. The whole-pixel points read their pixel exactly whatever bits sin leaves below them.
TEST_F(RippleTest, ShapesScaleTheOffsetByTheWaveAtTheirDistance) {
  const struct {
    const char* what;
    double shape, frequency, amplitude, dampening, phase;
    uint32_t flags;
    int x, y;
    Pixel expected;
  } cases[] = {
      // r2 = 1/64 picks root table entry 156: int(sqrt(156 * 0.0001f) * 1414.21...) = 176.
      {"circular", 0, 500.0 / 176, 1, 0, 0, 0, 3, 4, At(2, 4)},
      {"square: max(1/8, 2/8) = 1/4, d = 500", 1, 1, 1, 0, 0, 0, 3, 2, At(2, 0)},
      {"horizontal: |fy| = 1/8, d = 250", 3, 2, 1, 0, 0, 0, 5, 3, At(6, 2)},
      {"vertical: |fx| = 1/4, d = 500", 4, 1, 1, 0, 0, 0, 2, 5, At(0, 6)},
      {"exponential: 1/4 * 1/4 * 2000 = 125", 5, 4, 1, 0, 0, 0, 2, 2, At(0, 0)},
      {"star: (1/8) / (1/4) * 2000 * 0.125 = 125", 6, 4, 1, 0, 0, 0, 2, 3, At(0, 2)},
      // atan2(fx, fy) = atan2(1/8, 0) = pi/2, and (pi/2 + pi) * 318.15... = 1499.99..., so d = 1499.
      {"radial", 7, 500.0 / 1499, 1, 0, 0, 0, 5, 4, At(6, 4)},
      {"the centre never moves", 7, 3, 1, 0, 0, 0, 4, 4, At(4, 4)},
      {"sin pi leaves the pixel", 3, 2, 1, 0, 0, 0, 5, 6, At(5, 6)},
      {"sin 3 pi / 2 = -1 draws the centre in", 3, 6, 1, 0, 0, 0, 5, 5, At(4, 4)},
      // a = 0.25 - 1/8 * 1 = 0.125: s = 1.125 reads x = 5.125, 7/8 of 50 and 1/8 of 60.
      {"dampened inside", 4, 2, 0.25, 1, 0, 0, 5, 4, {51, 40, 100, 255}},
      {"dampened to nothing beyond A / D", 4, 2, 0.25, 1, 0, 0, 7, 4, At(7, 4)},
      // Phase 0.75 turns to p = -0.75 + 1: P' = pi/2, and d = 0 on the centre row.
      {"phase", 3, 2, 1, 0, 0.75, 0, 5, 4, At(6, 4)},
      {"phase 1 is phase 0", 3, 2, 1, 0, 1, 0, 5, 4, At(5, 4)},
      // s = 1.5: half way between columns 5 and 6.
      {"full quality", 4, 2, 0.5, 0, 0, 0, 5, 4, {55, 40, 100, 255}},
      // The wave table holds sin(1.570) = 0.99999968 for d = 250: s = 1.49999984 reads x =
      // 1407/256, whose nearest pixel is column 5.
      {"quick", 4, 2, 0.5, 0, 0, rflag::Quick, 5, 4, At(5, 4)},
  };
  Picture* src = CoordinateSource(8, 8);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Operator* ripple = Warp("Drip", src,
                            {{"Shape", c.shape}, {"Frequency", c.frequency}, {"Amplitude", c.amplitude},
                             {"Dampening", c.dampening}, {"Phase", c.phase}});
    EXPECT_EQ(RenderedAt(ripple, c.x, c.y, c.flags), c.expected);
  }
}

// Random draws one number from the C runtime's generator for every pixel but the centre, in
// row order: 5 for a 3 x 2 frame, after which seed 1 goes on with its sixth number, 15724. A
// second render draws on and the pattern changes.
TEST_F(RippleTest, RandomDrawsOncePerPixelButTheCentre) {
  Operator* ripple = Warp("Drip", CoordinateSource(3, 2), {{"Shape", 2}, {"Frequency", 10}, {"Amplitude", 0.5}});
  crt_srand(1);
  Render(ripple);
  EXPECT_EQ(crt_rand(), 15724);

  Operator* large = Warp("Drip", CoordinateSource(16, 16), {{"Shape", 2}, {"Frequency", 10}, {"Amplitude", 0.5}});
  const std::vector<Pixel> first = RenderPixels(large);
  doc_.InvalidateFrom(large);
  EXPECT_NE(RenderPixels(large), first);
}

}  // namespace
}  // namespace kestrion::test
