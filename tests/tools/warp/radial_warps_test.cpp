// What Ripple, Vortex, Dent and Coordinate Space share as tools: their inputs as the panel and
// saved flows see them, their records, the settings that hand the input on untouched, and a
// text flow. (Their bytes at 1, 2, 3 and 7 threads: tests/tools/color/thread_count_test.cpp.)
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "host/document/flow_file.h"
#include "tests/tools/warp/radial_warp_fixture.h"
#include "tests/tools/warp/radial_warp_references.h"

namespace kestrion::test {
namespace {

// Settings at which a tool hands its input on as the very same image, and one at which Dent
// still renders (size 0 with a strength copies every pixel into a new frame).
TEST_F(RadialWarpTest, NeutralSettingsHandTheInputOn) {
  const struct {
    const char* tool;
    Numbers numbers;
    bool same;
  } cases[] = {
      {"Drip", {{"Amplitude", 0}}, true},
      {"Drip", {{"Frequency", 0}}, true},
      {"Drip", {{"Shape", 8}}, true},
      {"Vortex", {{"Angle", 0}}, true},
      {"Vortex", {{"Angle", -0.0}}, true},
      {"Vortex", {{"Size", 0}}, true},
      {"Dent", {{"Size", 0}, {"Strength", 0}}, true},
      {"Dent", {{"Size", 0}, {"Strength", 1}}, false},
  };
  Picture* src = CoordinateSource(5, 4);
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.tool << " " << c.numbers[0].first << " " << c.numbers[0].second);
    Ref<Image> out = Render(Warp(c.tool, src, c.numbers));
    ASSERT_TRUE(out);
    EXPECT_EQ(out.get() == src->image.get(), c.same);
    EXPECT_EQ(Pixels(*out), Pixels(*src->image));
  }
}

// A record is the class id, the base record, 0 and "EndC"; a saved flow loads back with every
// input's value.
TEST_F(RadialWarpTest, RecordsSaveAndLoad) {
  const struct {
    const char* tool;
    uint32_t class_id;
    Numbers numbers;
  } cases[] = {{"Drip", FourCC("Drip"), {{"Shape", 7}, {"Amplitude", 0.3}, {"Phase", 0.25}}},
               {"Vortex", FourCC("Vort"), {{"Angle", 45}, {"Power", -0.5}}},
               {"CoordSpace", FourCC("CrdS"), {{"Shape", 1}}},
               {"Dent", FourCC("Dent"), {{"Type", 4}, {"Strength", -2}}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tool);
    Operator* op = Warp(c.tool, CoordinateSource(2, 2), c.numbers);
    CArchive whole, base;
    EXPECT_EQ(op->Save(&whole, nullptr), 1u);
    op->Operator::Save(&base, nullptr);
    CArchive expected;
    expected.WriteWord(c.class_id);
    expected.WriteBytes(base.Bytes().data(), base.Bytes().size());
    expected.WriteWord(0);
    expected.WriteWord(FourCC("EndC"));
    EXPECT_EQ(whole.Bytes(), expected.Bytes());
  }
  CArchive saved;
  doc_.Save(saved);
  HostError err;
  CArchive reading(saved.Bytes());
  std::unique_ptr<CPipelineDoc> loaded = CPipelineDoc::Load(reading, &err);
  ASSERT_TRUE(loaded) << err.message;
  CArchive again;
  loaded->Save(again);
  EXPECT_EQ(again.Bytes(), saved.Bytes());
}

TEST(RadialWarpFlow, EachToolRendersFromATextFlow) {
  PictureClass pictures;
  HostError err;
  std::unique_ptr<CPipelineDoc> doc = LoadTextFlow(R"({"kestrion": 1, "tools": {
      "Plate": {"class": "TestPicture"},
      "Ripple1": {"class": "Drip", "inputs": {"Shape": "Radial", "Amplitude": 0.4, "Frequency": 30, "Image": "Plate"}},
      "Vortex1": {"class": "Vortex", "inputs": {"Center": [0.4, 0.6], "Angle": 270, "Image": "Plate"}},
      "Polar1": {"class": "CoordSpace", "inputs": {"Shape": "Polar to Rectangular", "Image": "Plate"}},
      "Dent1": {"class": "Dent", "inputs": {"Type": "Kaleidascope", "Size": 0.8, "Image": "Plate"}}}})",
                                                   ".", &err);
  ASSERT_TRUE(doc) << err.message;
  std::mt19937 random(3);
  std::vector<uint32_t> words;
  for (const Pixel& p : Noise(random, 9 * 7)) words.push_back(p.Word());
  const Ref<Image> plate = MakeFrame(9, 7, Rows::Owned, words).image;
  dynamic_cast<Picture*>(doc->FindTool("Plate"))->image = plate;
  const struct {
    const char* tool;
    std::vector<uint32_t> expected;
  } cases[] = {
      {"Ripple1", RippleReference(*plate, {.shape = 7, .amplitude = 0.4, .frequency = 30}, false)},
      {"Vortex1", VortexReference(*plate, {.cx = 0.4f, .cy = 0.6f, .angle = 270}, false)},
      {"Polar1", CoordinateSpaceReference(*plate, 1)},
      {"Dent1", DentReference(*plate, {.type = 1, .size = 0.8}, false)},
  };
  for (const auto& c : cases) {
    Ref<Parameter> v = doc->Render(doc->FindTool(c.tool)->Outputs()[0].get(), 1.0, 0, &err);
    auto* img = dynamic_cast<Image*>(v.get());
    ASSERT_NE(img, nullptr) << c.tool << ": " << err.message;
    EXPECT_EQ(Unchanged(*img), c.expected) << c.tool;
  }
}

}  // namespace
}  // namespace kestrion::test
