// The geometry tools from a text flow: each renders one 8 x 8 source, quick, as its inputs
// there say; its output's size and pixel (1, 1) show it.
#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "host/document/flow_file.h"
#include "tests/tools/warp/warp_fixture.h"

namespace kestrion::test {
namespace {

TEST(WarpToolFlow, EachToolRendersFromATextFlow) {
  PictureClass pictures;
  HostError err;
  std::unique_ptr<CPipelineDoc> doc = LoadTextFlow(R"({"kestrion": 1, "tools": {
      "Source": {"class": "TestPicture"},
      "Transform1": {"class": "Transform", "inputs": {"Flip Horiz": 1, "Centre": [0.5, 0.5], "Image": "Source"}},
      "Resize1": {"class": "Resize", "inputs": {"Width": 2, "Height": 2, "Image": "Source"}},
      "Crop1": {"class": "Crop", "inputs": {"X Offset": 1, "Y Offset": 2, "X Size": 5, "Y Size": 4, "Image": "Source"}},
      "CornerPin1": {"class": "CornerPin", "inputs": {"Top Left": [0, 0], "Top Right": [1, 0],
                     "Bottom Left": [0, 1], "Bottom Right": [1, 1], "Image": "Source"}},
      "PerspectivePin1": {"class": "PerspectivePin", "inputs": {"Top Left": [0, 0], "Top Right": [1, 0],
                          "Bottom Left": [0, 1], "Bottom Right": [1, 1], "Image": "Source"}}}})",
                                                   ".", &err);
  ASSERT_TRUE(doc) << err.message;
  dynamic_cast<Picture*>(doc->FindTool("Source"))->image = MakeFrame(8, 8, Rows::Owned, [] {
    std::vector<uint32_t> words;
    for (const Pixel& p : Coordinates(8, 8)) words.push_back(p.Word());
    return words;
  }()).image;
  const struct {
    const char* tool;
    int w, h;
    Pixel at_1_1;
  } cases[] = {
      {"Transform1", 8, 8, At(6, 1)}, {"Resize1", 2, 2, At(4, 4)}, {"Crop1", 5, 4, At(2, 3)},
      {"CornerPin1", 8, 8, At(1, 1)}, {"PerspectivePin1", 8, 8, At(1, 1)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tool);
    Ref<Parameter> v = doc->Render(doc->FindTool(c.tool)->Outputs()[0].get(), 1.0, rflag::Quick, &err);
    auto* img = dynamic_cast<Image*>(v.get());
    ASSERT_NE(img, nullptr) << err.message;
    EXPECT_EQ(std::pair(img->Width(), img->Height()), std::pair(c.w, c.h));
    EXPECT_EQ(Pixel::FromWord(img->Row(1)[1]), c.at_1_1);
  }
}

}  // namespace
}  // namespace kestrion::test
