// Color Gain: gain, then gamma, then saturation on one pixel, each applied whenever one of its
// values is away from 1; values typed past the slider's end pass on, below 0 they are held.
#include <gtest/gtest.h>

#include <utility>

#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {
namespace {

using ColorGainTest = ColorToolTest;

// The pixel (blue 20, green 100, red 200, alpha 128); its luminance
// (19595*200 + 38470*100 + 7471*20) >> 16 is 120.
TEST_F(ColorGainTest, GainGammaSaturation) {
  const Pixel px{20, 100, 200, 128};
  const struct {
    std::vector<std::pair<const char*, double>> values;
    Pixel expected;
  } cases[] = {
      {{}, px},
      {{{"Gain Alpha", .5}}, {20, 100, 200, 64}},
      {{{"Gain Red", 2}}, {20, 100, 255, 128}},
      {{{"Gain Blue", 7}}, {140, 100, 200, 128}},  // typed above 5
      {{{"Gain Blue", -1}}, {0, 100, 200, 128}},   // held to 0
      {{{"Gamma Red", 2}}, {20, 100, 226, 128}},   // 255 * sqrt(200 / 255) = 225.8
      {{{"Gamma Green", .5}}, {20, 39, 200, 128}}, // 100^2 / 255 = 39.2
      {{{"Gamma Alpha", 0}}, {20, 100, 200, 0}},
      {{{"Saturation Red", 0}}, {20, 100, 120, 128}},
      {{{"Saturation Blue", .5}}, {70, 100, 200, 128}},
      {{{"Saturation Red", 2}, {"Saturation Green", 2}, {"Saturation Blue", 2}}, {0, 80, 255, 128}},
      // Red 200 * 0.5 = 100, then 255 * sqrt(100 / 255) = 159.7; green takes the luminance of
      // (160, 100, 20), 108.
      {{{"Saturation Green", 0}, {"Gamma Red", 2}, {"Gain Red", .5}}, {20, 108, 160, 128}},
  };
  for (const auto& c : cases) {
    Picture* src = Flat(1, 1, px);
    Operator* gain = Tool("ColorGain");
    Link(src, gain, "Image");
    SCOPED_TRACE(testing::PrintToString(c.values));
    for (const auto& [label, v] : c.values) Set(gain, label, v);
    Ref<Image> out = Render(gain);
    ASSERT_TRUE(out);
    EXPECT_NE(out.get(), src->image.get());
    EXPECT_EQ(Pixels(*out), std::vector{c.expected});
  }
}

}  // namespace
}  // namespace kestrion::test
