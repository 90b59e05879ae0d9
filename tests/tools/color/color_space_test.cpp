// Color Space: each conversion on a pixel worked out by hand (the space's first letter in the
// red byte, the second in green, the third in blue; alpha kept), RGB to HLS and back among them.
// (Round trips over the whole RGB cube: tests/host/image/image_colour_test.cpp.)
#include <gtest/gtest.h>

#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {
namespace {

using ColorSpaceTest = ColorToolTest;

// Pixels are (blue, green, red, alpha).
TEST_F(ColorSpaceTest, Conversions) {
  const struct {
    double conversion;
    Pixel in, expected;
  } cases[] = {
      {0, {77, 100, 200, 9}, {77, 100, 200, 9}},
      // RGB (200, 100, 50): L = 250 / 510 -> 125, S = 150 / 250 -> 153, H = (1 - 2/3) / 6 -> 14.
      {1, {50, 100, 200, 9}, {153, 125, 14, 9}},
      {1, {100, 100, 100, 9}, {0, 100, 0, 9}},
      // m2 = 200/255, m1 = 50/255; green 50 + 150 * 6 * 14 / 255 = 99.4.
      {2, {153, 125, 14, 9}, {50, 99, 200, 9}},
      // RGB (200, 100, 77): Y = 127.28, U = 99.63, V = 179.87.
      {3, {77, 100, 200, 9}, {180, 100, 127, 9}},
      // RGB (255, 0, 0): Y = 76.25, U = 84.97, V = 255.5 held to 255.
      {3, {0, 0, 255, 9}, {255, 85, 76, 9}},
      // YUV (100, 150, 90): R = 100 - 1.402*38 = 46.7, G = 100 - 0.344136*22 + 0.714136*38 = 119.6,
      // B = 100 + 1.772*22 = 139.0.
      {4, {90, 150, 100, 9}, {139, 120, 47, 9}},
      {7, {77, 100, 200, 9}, {77, 100, 200, 9}},
  };
  for (const auto& c : cases) {
    Picture* src = Flat(1, 1, c.in);
    Operator* space = Tool("ColorSpace");
    Link(src, space, "Image");
    Set(space, "Color Space Conversion", c.conversion);
    Ref<Image> out = Render(space);
    ASSERT_TRUE(out);
    EXPECT_NE(out.get(), src->image.get());
    EXPECT_EQ(Pixels(*out), std::vector{c.expected}) << "conversion " << c.conversion;
  }
}

}  // namespace
}  // namespace kestrion::test
