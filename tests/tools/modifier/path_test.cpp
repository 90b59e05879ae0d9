// The Path modifier: the point at a displacement by arc length, the heading there (the aspect
// factor making it true on the frame), the edge cases of single key points, zero-length
// segments and displacements outside 0..1, key point displacements, and the save record.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "host/base/archive.h"
#include "host/graph/registry.h"
#include "tests/tools/modifier/path_fixture.h"

namespace kestrion::test {
namespace {

// Straight segments with handles at thirds move at one speed, so lengths and positions come out
// as the plain distances. Lengths 0.1875 and 0.5625 along y = 0.5: key 1 at a quarter of the path.
const std::vector<Node> kStraight = {{0, .5}, {.0625, .5}, {.125, .5}, {.1875, .5}, {.375, .5}, {.5625, .5}, {.75, .5}};
// One segment from (0, 0) to (0.75, 0.75).
const std::vector<Node> kDiagonal = {{0, 0}, {.25, .25}, {.5, .5}, {.75, .75}};
// Three key points on one spot (0.5, whose multiples by 3 are exact in single precision, so no
// rounding of the slope's coefficients gives it a direction), and a path whose first segment has
// no length.
const std::vector<Node> kSpot = {{.5, .5}, {.5, .5}, {.5, .5}, {.5, .5}, {.5, .5}, {.5, .5}, {.5, .5}};
const std::vector<Node> kStall = {{0, .5}, {0, .5}, {0, .5}, {0, .5}, {.25, .5}, {.5, .5}, {.75, .5}};

struct EvaluateCase {
  const char* what;
  std::vector<Node> nodes;
  double displacement;  // as an animation's value, which no limit holds
  float x, y;
  double heading;  // with a Heading Offset of 10
};

// clang-format off
const EvaluateCase kEvaluate[] = {
  {"one key point",          {{.3f, .6f}},  .5,  .3f,    .6f, 10},
  {"displacement 0",         kStraight,     0,   0,      .5,  10},
  {"displacement 1",         kStraight,     1,   .75f,   .5,  10},
  // A quarter of the way ends the first segment; half of it is 0.375 along.
  {"a quarter",              kStraight,     .25, .1875f, .5,  10},
  {"half",                   kStraight,     .5,  .375f,  .5,  10},
  // atan2(-0.75 * 0.75, 0.75): y grows downwards, the aspect factor 0.75 flattens the angle.
  {"diagonal heading",       kDiagonal,     .5,  .375f,  .375f, 10 - 36.86989764584402},
  // Past the end the target outruns the last segment: its end key, no heading.
  {"beyond 1",               kStraight,     1.5, .75f,   .5,  10},
  // Before the start the target is negative: the first segment's end key.
  {"below 0",                kStraight,     -.5, .1875f, .5,  10},
  // Without length nowhere gives a direction.
  {"a path on one spot",     kSpot,         .5,  .5f,    .5f, 10},
  // The first segment spans displacement 0 only; anything above lies on the second.
  {"after a stall",          kStall,        .5,  .375f,  .5,  10},
  {"at a stall",             kStall,        0,   0,      .5,  10},
};
// clang-format on

TEST_F(PathTest, PointAndHeadingAtADisplacement) {
  for (const EvaluateCase& c : kEvaluate) {
    SCOPED_TRACE(c.what);
    Operator* path = NewPath(c.nodes);
    Spline held;
    held.SetKey({0.0, {c.displacement, 0}});
    In(path, "Displacement")->SetAnimation(held);
    In(path, "Heading Offset")->SetValue(new Number(10));
    const auto [x, y, heading] = Evaluate(path);
    EXPECT_NEAR(x, c.x, 2e-6);
    EXPECT_NEAR(y, c.y, 2e-6);
    EXPECT_NEAR(heading, c.heading, 1e-9);
  }
}

// Displacements: the share of the length up to each key point; by node index where the path
// has no length or one segment.
TEST_F(PathTest, KeyPointsShareThePathsLength) {
  const struct {
    const char* what;
    std::vector<Node> nodes;
    std::vector<float> displacements;  // of the key points
  } cases[] = {
      {"straight", kStraight, {0, .25f, 1}},
      {"one segment", kDiagonal, {0, 1}},
      {"no length", kSpot, {0, .5f, 1}},
      {"a stall", kStall, {0, 0, 1}},
      {"one key point", {{.5, .5}}, {0}},
  };
  for (const auto& c : cases) {
    std::vector<float> got;
    const auto nodes = Edit(NewPath(c.nodes)).EditedNodes();
    for (size_t k = 0; k < nodes.size(); k += 3) got.push_back(nodes[k].displacement);
    ASSERT_EQ(got.size(), c.displacements.size()) << c.what;
    for (size_t i = 0; i < got.size(); ++i) EXPECT_FLOAT_EQ(got[i], c.displacements[i]) << c.what << " key " << i;
  }
}

// "Path", the base record, count x 13, per node its flags without the selection, x, y and
// displacement, then "EndC" with no 0 before it.
TEST_F(PathTest, TheSaveRecordHoldsTheNodes) {
  Operator* path = NewPath({{.25, .5, 1 | 2}, {.5, .5}, {.75, .5, 4}, {1, .5, 8 | 1}});
  CArchive whole, base;
  ASSERT_EQ(path->Save(&whole, nullptr), 1u);
  path->Operator::Save(&base, nullptr);
  CArchive expected;
  expected.WriteWord(FourCC("Path"));
  expected.WriteBytes(base.Bytes().data(), base.Bytes().size());
  expected.WriteWord(4 * 13);
  const struct {
    uint8_t flags;
    float x, displacement;
  } saved[] = {{2, .25f, 0}, {0, .5f, 0}, {4, .75f, 0}, {8, 1, 1}};
  for (const auto& n : saved) {
    expected.WriteBytes(&n.flags, 1);
    expected.WriteFloat(n.x);
    expected.WriteFloat(.5f);
    expected.WriteFloat(n.displacement);
  }
  expected.WriteWord(FourCC("EndC"));
  EXPECT_EQ(whole.Bytes(), expected.Bytes());
}

// A record whose node count is not 3k - 2, or longer than the document, loads nothing.
TEST_F(PathTest, BrokenRecordsAreRefused) {
  Registry* reg = ClassRegistry->FindByName("Path");
  for (const auto& [count, nodes] : std::vector<std::pair<uint32_t, uint32_t>>{{2, 2}, {5, 5}, {10, 4}}) {
    CArchive record;
    Operator* path = NewPath({{.5, .5}});
    path->Operator::Save(&record, nullptr);
    record.WriteWord(count * 13);
    for (uint32_t i = 0; i < nodes; ++i) record.WriteBytes(std::string(13, '\0').data(), 13);
    record.WriteWord(FourCC("EndC"));
    CArchive in(record.Bytes());
    EXPECT_THROW(reg->Create(&in, nullptr), ArchiveError) << count << " nodes";
  }
}

}  // namespace
}  // namespace kestrion::test
