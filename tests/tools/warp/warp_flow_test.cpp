// The geometry tools from a text flow, each rendering one 8 x 8 coordinate source, quick, as its
// inputs there say: the moving tools' outputs show it by their size and pixel (1, 1), the radial
// warps' by their references.
#include <gtest/gtest.h>

#include <utility>

#include "tests/tools/warp/radial_warp_references.h"
#include "tests/tools/warp/warp_fixture.h"

namespace kestrion::test {
namespace {

TEST(WarpToolFlow, EachToolRendersFromATextFlow) {
  PictureClass pictures;
  std::unique_ptr<CPipelineDoc> doc = LoadFlow(R"({"kestrion": 1, "tools": {
      "Source": {"class": "TestPicture"},
      "Transform1": {"class": "Transform", "inputs": {"Flip Horiz": 1, "Centre": [0.5, 0.5], "Image": "Source"}},
      "Resize1": {"class": "Resize", "inputs": {"Width": 2, "Height": 2, "Image": "Source"}},
      "Crop1": {"class": "Crop", "inputs": {"X Offset": 1, "Y Offset": 2, "X Size": 5, "Y Size": 4, "Image": "Source"}},
      "CornerPin1": {"class": "CornerPin", "inputs": {"Top Left": [0, 0], "Top Right": [1, 0],
                     "Bottom Left": [0, 1], "Bottom Right": [1, 1], "Image": "Source"}},
      "PerspectivePin1": {"class": "PerspectivePin", "inputs": {"Top Left": [0, 0], "Top Right": [1, 0],
                          "Bottom Left": [0, 1], "Bottom Right": [1, 1], "Image": "Source"}},
      "Ripple1": {"class": "Drip", "inputs": {"Shape": "Radial", "Amplitude": 0.4, "Frequency": 30, "Image": "Source"}},
      "Vortex1": {"class": "Vortex", "inputs": {"Center": [0.4, 0.6], "Angle": 270, "Image": "Source"}},
      "Polar1": {"class": "CoordSpace", "inputs": {"Shape": "Polar to Rectangular", "Image": "Source"}},
      "Dent1": {"class": "Dent", "inputs": {"Type": "Kaleidascope", "Size": 0.8, "Image": "Source"}}}})");
  ASSERT_TRUE(doc);
  SetPicture(*doc, "Source", 8, 8, Coordinates(8, 8));
  const struct {
    const char* tool;
    int w, h;
    Pixel at_1_1;
  } moved[] = {
      {"Transform1", 8, 8, At(6, 1)}, {"Resize1", 2, 2, At(4, 4)}, {"Crop1", 5, 4, At(2, 3)},
      {"CornerPin1", 8, 8, At(1, 1)}, {"PerspectivePin1", 8, 8, At(1, 1)},
  };
  for (const auto& c : moved) {
    SCOPED_TRACE(c.tool);
    const Ref<Image> img = RenderFlowTool(*doc, c.tool, rflag::Quick);
    ASSERT_TRUE(img);
    EXPECT_EQ(std::pair(img->Width(), img->Height()), std::pair(c.w, c.h));
    EXPECT_EQ(Pixel::FromWord(img->Row(1)[1]), c.at_1_1);
  }
  const Image& source = *dynamic_cast<Picture*>(doc->FindTool("Source"))->image;
  const struct {
    const char* tool;
    std::vector<uint32_t> expected;
  } radial[] = {
      {"Ripple1", RippleReference(source, {.shape = 7, .amplitude = 0.4, .frequency = 30}, true)},
      {"Vortex1", VortexReference(source, {.cx = 0.4f, .cy = 0.6f, .angle = 270}, true)},
      {"Polar1", CoordinateSpaceReference(source, 1)},
      {"Dent1", DentReference(source, {.type = 1, .size = 0.8}, true)},
  };
  for (const auto& c : radial) {
    SCOPED_TRACE(c.tool);
    const Ref<Image> img = RenderFlowTool(*doc, c.tool, rflag::Quick);
    ASSERT_TRUE(img);
    EXPECT_EQ(Unchanged(*img), c.expected);
  }
}

}  // namespace
}  // namespace kestrion::test
