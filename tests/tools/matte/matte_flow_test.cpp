// The matte tools from a text flow, each fed the pixel (B 100, G 150, R 200, A 80): labels, list
// entries given by their text, and the two inputs named "Garbage Matte" keyed by their ids.
#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "host/document/flow_file.h"
#include "tests/tools/matte/matte_fixture.h"

namespace kestrion::test {
namespace {

TEST(MatteToolFlow, EachToolRendersFromATextFlow) {
  PictureClass pictures;
  HostError err;
  std::unique_ptr<CPipelineDoc> doc = LoadTextFlow(R"({"kestrion": 1, "tools": {
      "Plate": {"class": "TestPicture"}, "Garbage": {"class": "TestPicture"},
      "Keyer1": {"class": "Keyer", "inputs": {"Luminance Low": 0.7, "Pre Matte Blur": 0,
                                              "Color Background": "Green", "Image": "Plate"}},
      "Chroma1": {"class": "ChromaKey", "inputs": {"Luminance High": 0.5, "Soft Range": 1, "Image": "Plate"}},
      "Luma1": {"class": "Threshold", "inputs": {"Channel": "Red", "Low": 0.2, "High": 0.9, "Invert": 1,
                                                 "Image": "Plate"}},
      "Control1": {"class": "MatteControl", "inputs": {"Invert Matte": 1, "GMMd": "Make Transparent",
                                                       "GMat": "Garbage", "Image": "Plate"}}}})",
                                                   ".", &err);
  ASSERT_TRUE(doc) << err.message;
  dynamic_cast<Picture*>(doc->FindTool("Plate"))->image = MakeFrame(1, 1, Rows::Owned, {Bgra(100, 150, 200, 80)}).image;
  dynamic_cast<Picture*>(doc->FindTool("Garbage"))->image = MakeMask(1, 1, Rows::Owned, {100}).image;
  const std::pair<const char*, int> cases[] = {
      {"Keyer1", 254},    // luminance 159 below 178: foreground; green backing: (255 * 255) >> 8
      {"Chroma1", 199},   // luminance 96 above the centre 63 at 65500 / 123 = 532: closeness 56
      {"Luma1", 42},      // red 200: (149 * (65280 / 178)) >> 8 = 213, inverted
      {"Control1", 155},  // 80 inverted to 175, then at most 255 - 100
  };
  for (const auto& [tool, alpha] : cases) {
    Ref<Parameter> v = doc->Render(doc->FindTool(tool)->Outputs()[0].get(), 1.0, 0, &err);
    auto* img = dynamic_cast<Image*>(v.get());
    ASSERT_NE(img, nullptr) << tool << ": " << err.message;
    EXPECT_EQ(Pixels(*img), (std::vector<Pixel>{{100, 150, 200, uint8_t(alpha)}})) << tool;
  }
}

// Matte Control's garbage matte drawn by a Rectangle at the flow's 8 x 4 frame: the default
// rectangle, half the frame wide and high about its centre, covers columns 2 to 5 of rows 1 and 2.
TEST(MatteToolFlow, ARectangleIsMatteControlsGarbageMatte) {
  test_tools::SavedPrefs prefs;
  PictureClass pictures;
  for (const auto& [mode, inside] : {std::pair{"Make Transparent", 0}, std::pair{"Make Solid", 255}}) {
    HostError err;
    std::unique_ptr<CPipelineDoc> doc = LoadTextFlow(
        std::string(R"({"kestrion": 1, "preferences": {"video": {"width": 8, "height": 4, "aspect": [1.0, 1.0]}},
            "tools": {"Plate": {"class": "TestPicture"}, "Box": {"class": "RectangleMask"},
                      "Control1": {"class": "MatteControl", "inputs": {"GMMd": ")") +
            mode + R"(", "GMat": "Box", "Image": "Plate"}}}})",
        ".", &err);
    ASSERT_TRUE(doc) << err.message;
    dynamic_cast<Picture*>(doc->FindTool("Plate"))->image =
        MakeFrame(8, 4, Rows::Owned, std::vector<uint32_t>(32, Bgra(10, 20, 30, 200))).image;
    Ref<Parameter> v = doc->Render(doc->FindTool("Control1")->Outputs()[0].get(), 0.0, 0, &err);
    auto* img = dynamic_cast<Image*>(v.get());
    ASSERT_NE(img, nullptr) << mode << ": " << err.message;
    std::vector<int> alphas, expected;
    for (const Pixel& p : Pixels(*img)) alphas.push_back(p.a);
    for (int y = 0; y < 4; ++y)
      for (int x = 0; x < 8; ++x) expected.push_back(x >= 2 && x < 6 && y >= 1 && y < 3 ? inside : 200);
    EXPECT_EQ(alphas, expected) << mode;
  }
}

}  // namespace
}  // namespace kestrion::test
