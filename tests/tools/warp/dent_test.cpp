// Dent on an 8 x 8 coordinate source about its middle, worked out by hand: size 1 gives a circle
// of radius R = 1/2 frame width (4 pixels), strength 1 gives k = -1, and a pixel at distance r
// (in frame widths) reads the point on its radius at the profile's new distance.
#include <gtest/gtest.h>

#include "tests/tools/warp/radial_warp_fixture.h"

namespace kestrion::test {
namespace {

using DentTest = RadialWarpTest;

TEST_F(DentTest, ProfilesMoveThePixelsAlongTheirRadius) {
  const struct {
    const char* what;
    double type, size;
    uint32_t flags;
    int x, y;
    Pixel expected;
  } cases[] = {
      {"Dent 1: 2r - R = 1/4 from r = 3/8", 0, 1, 0, 7, 4, At(6, 4)},
      {"Dent 1: -1/4 from r = 1/8, across the centre", 0, 1, 0, 5, 4, At(2, 4)},
      {"Kaleidascope: 3r - 1 = 1/8", 1, 1, 0, 7, 4, At(5, 4)},
      {"Kaleidascope: -5/8 lands past the left edge, on black", 1, 1, 0, 5, 4, {0, 0, 0, 0}},
      // 2r^2 = 9/32: x = 6.25, a quarter of the way from 60 to 70 (62.5 rounds up).
      {"Dent 2", 2, 1, 0, 7, 4, {63, 40, 100, 255}},
      {"Dent 2, quick: the nearest pixel", 2, 1, rflag::Quick, 7, 4, At(6, 4)},
      {"Dent 3: r - 2 sqrt(r) (1/2 - r) = 0 at r = 1/4", 3, 1, 0, 6, 4, At(4, 4)},
      // 1 - cos(pi/2) is 1 less an ulp: r' = 0.15 and a hair, x = 5.2 mixes 51/256 of 60.
      {"Cosine Dent", 4, 1, 0, 6, 4, {52, 40, 100, 255}},
      // q = 2.5 - 5, sin q = -0.598: r' = 1/4 (1 - 0.598) = 0.1004, x = 4.803 (1229/256).
      {"Sine Dent", 5, 1, 0, 6, 4, {48, 40, 100, 255}},
      {"a type past the list: its own point", 6, 1, 0, 5, 4, At(5, 4)},
      {"a negative type: its own point", -1, 1, 0, 7, 4, At(7, 4)},
      {"the centre is copied", 1, 1, 0, 4, 4, At(4, 4)},
      {"on the circle: copied", 1, 1, 0, 4, 0, At(4, 0)},
      {"size 0: everything copied", 1, 0, 0, 5, 4, At(5, 4)},
  };
  Picture* src = CoordinateSource(8, 8);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Operator* dent = Warp("Dent", src, {{"Type", c.type}, {"Size", c.size}, {"Strength", 1}});
    EXPECT_EQ(RenderedAt(dent, c.x, c.y, c.flags), c.expected);
  }
}

}  // namespace
}  // namespace kestrion::test
