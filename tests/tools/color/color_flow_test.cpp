// The colour and compositing tools from a text flow: labels with their blanks and entry texts
// as flow files write them, and one pixel per tool, every tool fed the same background and
// foreground pixels (the pair the Channel Booleans tests use).
#include <gtest/gtest.h>

#include <memory>

#include "host/document/flow_file.h"
#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {
namespace {

TEST(ColorToolFlow, EachToolRendersFromATextFlow) {
  PictureClass pictures;
  HostError err;
  std::unique_ptr<CPipelineDoc> doc = LoadTextFlow(R"({"kestrion": 1, "tools": {
      "Back": {"class": "TestPicture"}, "Front": {"class": "TestPicture"},
      "Gain1": {"class": "ColorGain", "inputs": {"Gain Red": 0.5, "Image": "Back"}},
      "Space1": {"class": "ColorSpace", "inputs": {"Color Space Conversion": "RGB to YUV", "Image": "Back"}},
      "Merge1": {"class": "Merge", "inputs": {"Subtractive                                    Additive": 1,
                                               "Image": "Back", "Foreground": "Front.Image"}},
      "Dissolve1": {"class": "Dissolve", "inputs": {"Background                               Foreground": 0.5,
                                                     "Operation": "Dissolve", "Image": "Back", "Foreground": "Front"}},
      "Bool1": {"class": "BoolImg", "inputs": {"Operation": "Divide", "Image": "Back", "Foreground": "Front"}}}})",
                                                   ".", &err);
  ASSERT_TRUE(doc) << err.message;
  const Pixel back{77, 100, 200, 200}, front{0, 200, 100, 128};
  dynamic_cast<Picture*>(doc->FindTool("Back"))->image = MakeFrame(1, 1, Rows::Owned, {back.Word()}).image;
  dynamic_cast<Picture*>(doc->FindTool("Front"))->image = MakeFrame(1, 1, Rows::Owned, {front.Word()}).image;
  const std::pair<const char*, Pixel> cases[] = {
      {"Gain1", {77, 100, 100, 200}},    {"Space1", {180, 100, 127, 200}},  // Y 127, U 100, V 180
      {"Merge1", {37, 248, 198, 227}},   // alpha' 128, all "add": (c + (p*127 >> 8)) * 255 >> 8
      {"Dissolve1", {38, 150, 150, 164}}, {"Bool1", {0, 128, 255, 255}}};
  for (const auto& [tool, expected] : cases) {
    Ref<Parameter> v = doc->Render(doc->FindTool(tool)->Outputs()[0].get(), 1.0, 0, &err);
    auto* img = dynamic_cast<Image*>(v.get());
    ASSERT_NE(img, nullptr) << tool << ": " << err.message;
    EXPECT_EQ(Pixels(*img), std::vector{expected}) << tool;
  }
}

}  // namespace
}  // namespace kestrion::test
