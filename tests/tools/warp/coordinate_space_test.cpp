// Coordinate Space on coordinate sources, every pixel worked out by hand: which source pixel
// each output pixel copies, both ways, where rectangular to polar runs off the frame, and what
// a shape past the list leaves.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "tests/tools/warp/radial_warp_fixture.h"

namespace kestrion::test {
namespace {

using CoordinateSpaceTest = RadialWarpTest;

std::vector<Pixel> Sources(const std::vector<std::pair<int, int>>& points) {
  std::vector<Pixel> out;
  for (const auto& [x, y] : points) out.push_back(At(x, y));
  return out;
}

TEST_F(CoordinateSpaceTest, ConvertsBothWaysOnAFourByFour) {
  // Rectangular to polar: column x is the angle (x/4 - 1/2) 2 pi (-pi, -pi/2, 0, pi/2), row y
  // the distance y/4 / sqrt 2; the source is (3 (cos a rho + 1/2), 3 (sin a rho + 1/2)),
  // truncated toward zero (so -0.09 on row 3 still reads column 0). Row 0 repeats (1, 1).
  const std::vector<Pixel> to_polar = Sources({{1, 1}, {1, 1}, {1, 1}, {1, 1},  //
                                               {0, 1}, {1, 0}, {2, 1}, {1, 2},  //
                                               {0, 1}, {1, 0}, {2, 1}, {1, 2},  //
                                               {0, 1}, {1, 0}, {3, 1}, {1, 3}});
  // Polar to rectangular: the source row is 3 rho, rho the distance from (2, 2) over the
  // farthest corner's, and the column 3 (atan2(dy, dx) + pi) / 2 pi; the middle takes (0, 0).
  const std::vector<Pixel> to_rectangular = Sources({{0, 3}, {0, 2}, {0, 2}, {0, 2},  //
                                                     {0, 2}, {0, 1}, {0, 1}, {1, 1},  //
                                                     {3, 2}, {3, 1}, {0, 0}, {1, 1},  //
                                                     {2, 2}, {2, 1}, {2, 1}, {1, 1}});
  Picture* src = CoordinateSource(4, 4);
  EXPECT_EQ(RenderPixels(Warp("CoordSpace", src, {{"Shape", 0}})), to_polar);
  EXPECT_EQ(RenderPixels(Warp("CoordSpace", src, {{"Shape", 1}})), to_rectangular);
}

// On an 8 x 16 frame the last row reaches 15/16 / sqrt 2 of the way out, past the frame at the
// four axis angles: columns 0, 2, 4 and 6 of row 15 read column -1 or 8, or row -2 or 17, and
// are black.
TEST_F(CoordinateSpaceTest, PolarRowsPastTheFrameAreBlack) {
  Operator* tool = Warp("CoordSpace", CoordinateSource(8, 16), {{"Shape", 0}});
  Ref<Image> out = Render(tool);
  ASSERT_TRUE(out);
  for (int x = 0; x < 8; ++x) {
    SCOPED_TRACE(x);
    EXPECT_EQ(Pixel::FromWord(out->Row(15)[x]) == Pixel{}, x % 2 == 0);
  }
}

TEST_F(CoordinateSpaceTest, AShapePastTheListLeavesTheFrameAsMade) {
  EXPECT_EQ(RenderPixels(Warp("CoordSpace", CoordinateSource(3, 2), {{"Shape", 2}})), std::vector<Pixel>(6));
}

}  // namespace
}  // namespace kestrion::test
