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

}  // namespace
}  // namespace kestrion::test
