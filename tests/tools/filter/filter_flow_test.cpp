// The filter tools from a text flow: one pixel through each tool, a Custom Filter matrix in
// both of its written forms (kept in the readable one where it can be when saved), and wrong
// matrices refused with a message that names the tool and the input.
#include <gtest/gtest.h>

#include "tests/tools/filter/filter_fixture.h"

namespace kestrion::test {
namespace {

// The 54 values: size code 0 (3 x 3), the four written ones, then a 7 x 7 grid whose centred
// 3 x 3 is 1 2 1 / 2 4 2 / 1 2 1 and whose outer weights (never read at this size) are -128;
// or `weights` of them only, another size code, another first outer weight.
std::string ArrayMatrix(int weights = 49, int size_code = 0, int first_outer = -128) {
  std::string text = "[";
  text += std::to_string(size_code);
  text += ", 0, 9, 0, 0";
  for (int k = 0; k < weights; ++k) {
    const int i = k / 7, j = k % 7;
    const bool inner = i >= 2 && i <= 4 && j >= 2 && j <= 4;
    text += ", ";
    text += std::to_string(inner ? (i == 3 ? 2 : 1) * (j == 3 ? 2 : 1) : k == 0 ? first_outer : -128);
  }
  return text + "]";
}

const std::string kFlow = R"({"kestrion": 1, "tools": {
    "Pic": {"class": "TestPicture"},
    "Blur1": {"class": "Blur", "inputs": {"Filter": "Sharpen", "Image": "Pic"}},
    "Glow1": {"class": "Glow", "inputs": {"Glow Size": 0.5, "Image": "Pic"}},
    "Readable": {"class": "UserFilter", "inputs": {"Floor level": 0.5, "Image": "Pic",
                 "Matrix": {"size": 3, "weights": [[0, 0, 0], [0, 2, 0], [0, 0, 0]]}}},
    "Array": {"class": "UserFilter", "inputs": {"Image": "Pic", "Matrix": )" + ArrayMatrix() + R"(}},
    "Filter1": {"class": "Filter", "inputs": {"FilterType": "Laplacian", "Image": "Pic"}},
    "Motion1": {"class": "MotionBlur", "inputs": {"Type": "Radial", "Image": "Pic"}}}})";

// A 1 x 1 picture of 100 in every byte. Sharpen and a still radial blur give it back; Glow as
// worked in the Glow tests; the single weight 2 gives v = s, plus the floor 128; the 1 2 1
// matrix meets the clear corners of the padding on the diagonals, 12 s x 256 / (16 x 256); the
// Laplacian of one pixel is 0.
TEST(FilterToolFlow, EachToolRendersFromATextFlow) {
  PictureClass pictures;
  std::unique_ptr<CPipelineDoc> doc = LoadFlow(kFlow);
  ASSERT_TRUE(doc);
  SetPicture(*doc, "Pic", 1, 1, {Grey(100)});
  const std::pair<const char*, int> cases[] = {{"Blur1", 100},    {"Glow1", 191},   {"Readable", 228},
                                               {"Array", 75},     {"Filter1", 0},   {"Motion1", 100}};
  for (const auto& [tool, expected] : cases) {
    const Ref<Image> img = RenderFlowTool(*doc, tool);
    ASSERT_TRUE(img) << tool;
    EXPECT_EQ(Pixels(*img), std::vector{Grey(expected)}) << tool;
  }
}

TEST(FilterToolFlow, MatricesAreSavedReadableWhereTheyCanBe) {
  PictureClass pictures;
  std::unique_ptr<CPipelineDoc> doc = LoadFlow(kFlow);
  ASSERT_TRUE(doc);
  const std::string text = SaveTextFlow(*doc);
  EXPECT_NE(text.find(R"("weights": [)"), std::string::npos) << text;
  EXPECT_NE(text.find("-128"), std::string::npos) << text;  // the array form, kept as written
  std::unique_ptr<CPipelineDoc> again = LoadFlow(text);
  ASSERT_TRUE(again);
  EXPECT_EQ(SaveTextFlow(*again), text);
}

TEST(FilterToolFlow, WrongMatricesAreRefused) {
  PictureClass pictures;
  const std::pair<std::string, std::string> cases[] = {
      {ArrayMatrix(48), "the 54 values of a filter matrix (size code, four values 0 to 255, 49 weights); this array has 53"},
      {ArrayMatrix(49, 0, 200), ": weight 1 (200) must be a whole number from -128 to 127"},
      {ArrayMatrix(49, 3), ": the size code (3) must be a whole number from 0 to 2"},
      {R"({"size": 4, "weights": []})", R"(: "size" must be 3, 5 or 7)"},
      {R"({"size": 3, "weights": [[1, 1, 1], [1, 1], [1, 1, 1]]})", R"(: row 2 of "weights" must hold 3 weights)"},
      {R"({"size": 3, "weights": [[1, 300, 1], [1, 1, 1], [1, 1, 1]]})", ": the weight at row 1, column 2 (300) must be"},
      {R"({"size": 3, "weights": [[1, 1, 1]], "scale": 2})", R"(: unknown key "scale" (valid: size, weights))"},
  };
  for (const auto& [matrix, message] : cases) {
    HostError err;
    const std::string flow = R"({"kestrion": 1, "tools": {"C": {"class": "UserFilter", "inputs": {"Matrix": )" + matrix + "}}}}";
    EXPECT_EQ(LoadTextFlow(flow, ".", &err), nullptr) << matrix;
    EXPECT_NE(err.message.find(R"(tool "C", input "Matrix")"), std::string::npos) << err.message;
    EXPECT_NE(err.message.find(message), std::string::npos) << err.message;
  }
}

}  // namespace
}  // namespace kestrion::test
