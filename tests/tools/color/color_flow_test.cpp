// The colour and compositing tools from a text flow: labels with their blanks and entry texts
// as flow files write them, and one pixel per tool, every tool fed the same background and
// foreground pixels (the pair the Channel Booleans tests use).
#include <gtest/gtest.h>

#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {
namespace {

TEST(ColorToolFlow, EachToolRendersFromATextFlow) {
  PictureClass pictures;
  std::unique_ptr<CPipelineDoc> doc = LoadFlow(R"({"kestrion": 1, "tools": {
      "Back": {"class": "TestPicture"}, "Front": {"class": "TestPicture"},
      "Gain1": {"class": "ColorGain", "inputs": {"Gain Red": 0.5, "Image": "Back"}},
      "Space1": {"class": "ColorSpace", "inputs": {"Color Space Conversion": "RGB to YUV", "Image": "Back"}},
      "Merge1": {"class": "Merge", "inputs": {"Subtractive                                    Additive": 1,
                                               "Image": "Back", "Foreground": "Front.Image"}},
      "Dissolve1": {"class": "Dissolve", "inputs": {"Background                               Foreground": 0.5,
                                                     "Operation": "Dissolve", "Image": "Back", "Foreground": "Front"}},
      "Bool1": {"class": "BoolImg", "inputs": {"Operation": "Divide", "Image": "Back", "Foreground": "Front"}}}})");
  ASSERT_TRUE(doc);
  SetPicture(*doc, "Back", 1, 1, {{77, 100, 200, 200}});
  SetPicture(*doc, "Front", 1, 1, {{0, 200, 100, 128}});
  const std::pair<const char*, Pixel> cases[] = {
      {"Gain1", {77, 100, 100, 200}},    {"Space1", {180, 100, 127, 200}},  // Y 127, U 100, V 180
      {"Merge1", {37, 248, 198, 227}},   // alpha' 128, all "add": (c + (p*127 >> 8)) * 255 >> 8
      {"Dissolve1", {38, 150, 150, 164}}, {"Bool1", {0, 128, 255, 255}}};
  for (const auto& [tool, expected] : cases) {
    const Ref<Image> img = RenderFlowTool(*doc, tool);
    ASSERT_TRUE(img) << tool;
    EXPECT_EQ(Pixels(*img), std::vector{expected}) << tool;
  }
}

}  // namespace
}  // namespace kestrion::test
