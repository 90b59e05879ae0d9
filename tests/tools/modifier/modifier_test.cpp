// The Offset and Calculation modifiers: every operator and the division by zero, the sum, angle
// and distance in all four quadrants and with an aspect of 0, the image aspect's default from
// the video mode, and modifiers driving inputs (and each other) from a text flow.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "host/document/flow_file.h"
#include "host/base/prefs.h"
#include "tests/host/test_tools.h"

namespace kestrion {
namespace {

using test_tools::SavedPrefs;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// NaN equals NaN here: the cases say where a result is not a number.
void ExpectSame(double got, double want, const std::string& what) {
  if (std::isnan(want))
    EXPECT_TRUE(std::isnan(got)) << what << ": " << got;
  else
    EXPECT_DOUBLE_EQ(got, want) << what;
}

class ModifierTest : public ::testing::Test {
 protected:
  Operator* Tool(const char* class_name) {
    HostError err;
    Operator* op = doc_.CreateTool(class_name, {}, &err);
    EXPECT_NE(op, nullptr) << err.message;
    return op;
  }
  static void Set(Operator* op, const char* label, Parameter* value) { op->FindInput(0, label)->SetValue(value); }
  static Output* Out(Operator* op, const char* label) { return op->FindOutput(0, label); }

  Ref<Parameter> Render(CPipelineDoc& doc, Output* out, double time = 0.0) {
    HostError err;
    Ref<Parameter> v = doc.Render(out, time, 0, &err);
    EXPECT_EQ(err.message, "");
    return v;
  }
  double Number(CPipelineDoc& doc, Output* out, double time = 0.0) {
    auto* n = dynamic_cast<kestrion::Number*>(Render(doc, out, time).get());
    return n ? n->value : kNan;
  }
  std::vector<float> Point(CPipelineDoc& doc, Output* out, double time = 0.0) {
    auto* p = dynamic_cast<kestrion::Point*>(Render(doc, out, time).get());
    return p ? std::vector<float>{p->x, p->y} : std::vector<float>{};
  }

  SavedPrefs prefs_;
  CPipelineDoc doc_;
};

TEST_F(ModifierTest, CalculationAppliesItsOperator) {
  const struct {
    double a, op, b, result;
  } cases[] = {
      {6, 0, 2, 8},       {6, 1, 2, 4},  {6, 2, 2, 12}, {6, 3, 2, 3},
      {6, 3, 0, 0},       {6, 3, -0.0, 0},               // a division by zero gives 0
      {6, 3.9, 2, 3},                                    // the operator is truncated
      {6, -1, 2, 6},      {6, 4, 2, 6},                  // outside the list: the first operand
      {-6, 3, 4, -1.5},
  };
  Operator* calc = Tool("Calculation");
  for (const auto& c : cases) {
    Set(calc, "First Operand", new kestrion::Number(c.a));
    Set(calc, "Operator", new kestrion::Number(c.op));
    Set(calc, "Second Operand", new kestrion::Number(c.b));
    const double got = Number(doc_, Out(calc, "Result"));
    EXPECT_EQ(got, c.result) << c.a << " op " << c.op << " " << c.b;
    EXPECT_FALSE(std::signbit(got) && c.result == 0) << "a division by zero gives +0";
  }
}

// Angle and Distance describe the vector from Position to Offset, its y divided by the aspect;
// the output position is their sum.
TEST_F(ModifierTest, OffsetGivesTheSumAndTheAngleAndDistanceBetweenItsPoints) {
  const double diagonal = 0.25 * std::sqrt(2.0);
  const struct {
    const char* what;
    float px, py, ox, oy;
    double aspect;
    float sum_x, sum_y;
    double angle, distance;
  } cases[] = {
      {"equal points", 0.25f, 0.25f, 0.25f, 0.25f, 1, 0.5f, 0.5f, 0, 0},
      {"straight above", 0.5f, 0.5f, 0.5f, 0.25f, 1, 1.0f, 0.75f, 90, 0.25},
      {"up right", 0.5f, 0.5f, 0.75f, 0.25f, 1, 1.25f, 0.75f, 45, diagonal},
      {"up left", 0.5f, 0.5f, 0.25f, 0.25f, 1, 0.75f, 0.75f, 135, diagonal},
      {"down left", 0.5f, 0.5f, 0.25f, 0.75f, 1, 0.75f, 1.25f, -135, diagonal},
      {"down right, aspect 2", 0.5f, 0.5f, 0.75f, 1.0f, 2, 1.25f, 1.5f, -45, diagonal},
      {"aspect 0", 0.5f, 0.5f, 0.75f, 0.75f, 0, 1.25f, 1.25f, -90, kInf},
      {"aspect 0, equal y", 0.5f, 0.5f, 0.75f, 0.5f, 0, 1.25f, 1.0f, kNan, kNan},
  };
  Operator* offset = Tool("Offset");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Set(offset, "Position", new kestrion::Point(c.px, c.py));
    Set(offset, "Offset", new kestrion::Point(c.ox, c.oy));
    Set(offset, "Image Aspect", new kestrion::Number(c.aspect));
    EXPECT_EQ(Point(doc_, Out(offset, "Position")), (std::vector<float>{c.sum_x, c.sum_y}));
    ExpectSame(Number(doc_, Out(offset, "Angle")), c.angle, "angle");
    ExpectSame(Number(doc_, Out(offset, "Distance")), c.distance, "distance");
  }
}

TEST_F(ModifierTest, OffsetsImageAspectStartsAsTheVideoModesFrameAspect) {
  const struct {
    int width, height;
    double pixel_x, pixel_y, aspect;
  } cases[] = {{1920, 1080, 1, 1, 16.0 / 9.0}, {720, 486, 0.9, 1.0, 720 * 0.9 / 486}, {720, 576, 1, 2, 0.625}};
  for (const auto& c : cases) {
    PVidMode = {c.width, c.height, c.pixel_x, c.pixel_y};
    Operator* offset = Tool("Offset");
    EXPECT_EQ(test_tools::CurrentNumber(offset->FindInput(0, "Image Aspect")), c.aspect) << c.width << "x" << c.height;
    doc_.RemoveTool(offset);
  }
}

// A Calculation gives an Offset its aspect; the Offset's distance drives Merge's size and its
// position Merge's centre. The flow's video mode (1000 x 500) sets the second Offset's aspect.
TEST_F(ModifierTest, ModifiersDriveInputsAndEachOtherFromATextFlow) {
  const std::string flow = R"({"kestrion": 1, "range": [0, 4],
    "preferences": {"video": {"width": 1000, "height": 500}},
    "tools": {"Merge1": {"class": "Merge", "inputs": {
      "Center": {"modifier": {"class": "Offset", "name": "Off1", "inputs": {
         "Offset": [0.25, 0.0],
         "Image Aspect": {"modifier": {"class": "Calculation", "name": "Calc1",
            "inputs": {"First Operand": {"keys": [[0, 1], [4, 5]]}, "Operator": "Multiply", "Second Operand": 0.5}}}}}},
      "Size": {"modifier": {"class": "Offset", "name": "Off2", "output": "Distance",
         "inputs": {"Position": [0, 0], "Offset": [0.3, 0.4]}}}}}}})";
  HostError err;
  auto doc = LoadTextFlow(flow, ".", &err);
  ASSERT_NE(doc, nullptr) << err.message;
  Operator* merge = doc->FindTool("Merge1");
  Operator* off1 = doc->FindTool("Off1");
  Operator* off2 = doc->FindTool("Off2");
  ASSERT_TRUE(merge && off1 && off2 && doc->FindTool("Calc1"));

  // Off1 started from the centre it replaced, (0.5, 0.5); at frame 2 its aspect is 3 * 0.5.
  EXPECT_EQ(Number(*doc, Out(off1, "Angle"), 2), std::atan2(0.5 / 1.5, -0.25) * 57.29577951308232);
  EXPECT_EQ(Point(*doc, Out(off1, "Position"), 2), (std::vector<float>{0.75f, 0.5f}));
  // Off2: the frame is twice as wide as high, so 0.4 of its height is 0.2 of its width.
  EXPECT_DOUBLE_EQ(Number(*doc, Out(off2, "Distance")), std::hypot(double(0.3f), double(0.4f) / 2));
  EXPECT_EQ(merge->FindInput(0, "Size")->ModifierOutput(), Out(off2, "Distance"));
  char title[kTitleSize];
  off2->GetTitle(title);
  EXPECT_STREQ(title, "Off2 on Merge1.Size");

  // Saved and loaded again, the second Offset still drives the size by its distance.
  auto again = LoadTextFlow(SaveTextFlow(*doc), ".", &err);
  ASSERT_NE(again, nullptr) << err.message;
  EXPECT_EQ(again->FindTool("Merge1")->FindInput(0, "Size")->ModifierOutput()->Name(), "Distance");
  EXPECT_EQ(Number(*again, Out(again->FindTool("Off1"), "Angle"), 2), Number(*doc, Out(off1, "Angle"), 2));

  const std::string wrong = R"({"kestrion": 1, "tools": {"Merge1": {"class": "Merge", "inputs": {
      "Size": {"modifier": {"class": "Offset", "output": "Position"}}}}}})";
  EXPECT_EQ(LoadTextFlow(wrong, ".", &err), nullptr);
  EXPECT_EQ(err.message,
            "tool \"Merge1\", input \"Size\": Offset has no output \"Position\" for a Numb input (valid: \"Angle\", "
            "\"Distance\")");
}

}  // namespace
}  // namespace kestrion
