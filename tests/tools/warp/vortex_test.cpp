// Vortex on an 8 x 8 coordinate source about its middle (4, 4), worked out by hand: size 0.5
// gives a circle of radius 2 pixels, and a pixel at distance r turns by (1 - r / 2)^power times
// the angle.
#include <gtest/gtest.h>

#include "tests/tools/warp/radial_warp_fixture.h"

namespace kestrion::test {
namespace {

using VortexTest = RadialWarpTest;

TEST_F(VortexTest, TurnsThePixelsInsideTheCircle) {
  const struct {
    const char* what;
    double angle, size, power;
    uint32_t flags;
    int x, y;
    Pixel expected;
  } cases[] = {
      // r = 1, f = 1/2: the turn is 1/4 of 360 degrees, from column 5 down to row 5.
      {"power 2", 360, 0.5, 2, 0, 5, 4, At(4, 5)},
      {"power 1: half of 360", 360, 0.5, 1, 0, 5, 4, At(3, 4)},
      {"power -1: twice 90, growing towards the edge", 90, 0.5, -1, 0, 5, 4, At(3, 4)},
      {"the centre samples itself", 123, 0.5, 2, 0, 4, 4, At(4, 4)},
      {"on the circle: copied", 360, 0.5, 2, 0, 6, 4, At(6, 4)},
      {"outside: copied", 360, 0.5, 2, 0, 7, 7, At(7, 7)},
      // Power 0 turns every pixel inside by the whole angle: column 0 reads column 8, held to 7.
      {"past the frame: its edge", 180, 2, 0, 0, 0, 4, At(7, 4)},
      // A quarter of 180 degrees: the point (4.707, 4.707) mixes four pixels, 47 of 40 and 50...
      {"full quality", 180, 0.5, 2, 0, 5, 4, {47, 47, 100, 255}},
      // ... and its nearest pixel is (5, 5).
      {"quick", 180, 0.5, 2, rflag::Quick, 5, 4, At(5, 5)},
  };
  Picture* src = CoordinateSource(8, 8);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Operator* vortex = Warp("Vortex", src, {{"Angle", c.angle}, {"Size", c.size}, {"Power", c.power}});
    EXPECT_EQ(RenderedAt(vortex, c.x, c.y, c.flags), c.expected);
  }
}

}  // namespace
}  // namespace kestrion::test
