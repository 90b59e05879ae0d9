// Pick and Reset on both range keyers, over a 4 x 2 image whose colour-difference bytes (red,
// green, blue, luminance) are worked out in keyer_test.cpp:
//   row 0: warm (153, 122, 101, 159), warm, green (38, 208, 60, 149), green
//   row 1: blue (138, 104, 182, 82),  warm, green,                     green
// A pick takes each examined pixel's bytes -2 .. +2; the first pixel after a Reset replaces the
// ranges and later ones widen them.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "tests/tools/matte/matte_fixture.h"

namespace kestrion::test {
namespace {

class PickTest : public ColorToolTest {
 protected:
  void Pick(Operator* op, float left, float top, float right, float bottom) {
    float rect[4] = {left, top, right, bottom};
    EXPECT_TRUE(op->ControlCommand(nullptr, nullptr, nullptr, 2, rect));
  }
  // The eight range ends as integers (value * 255).
  static std::vector<int> Ends(Operator* op) {
    std::vector<int> ends;
    for (int i = 0; i < 8; ++i) ends.push_back(int(std::lround(test_tools::CurrentNumber(op->Inputs()[size_t(i)].get()) * 255)));
    return ends;
  }
};

const std::vector<int> kFull = {0, 255, 0, 255, 0, 255, 0, 255};

TEST_F(PickTest, PickWidensResetRestoresUndoRedoTakeThemBack) {
  const struct {
    const char* tool;
    std::string name;  // of the undo steps
  } tools[] = {{"Keyer", "Blue/Green Keyer"}, {"ChromaKey", "Chroma Key"}};
  const Pixel warm{100, 150, 200, 255}, blue{200, 50, 100, 255}, green{0, 255, 0, 255};
  for (const auto& t : tools) {
    SCOPED_TRACE(t.tool);
    Operator* keyer = Tool(t.tool);
    const std::string last_step = doc_.UndoName();
    Pick(keyer, 0, 0, 1, 1);
    EXPECT_EQ(doc_.UndoName(), last_step) << "a pick without an image records nothing";
    Link(Source(4, 2, {warm, warm, green, green, blue, warm, green, green}), keyer, "Image");

    // Columns 0 .. trunc(4 * 0.25) = 1, rows 0 .. 1: warm and blue.
    Pick(keyer, 0, 0, 0.25f, 0.5f);
    const std::vector<int> first = {136, 155, 102, 124, 99, 184, 80, 161};
    EXPECT_EQ(Ends(keyer), first);
    EXPECT_EQ(doc_.UndoName(), t.name + " Pick");
    // Columns 2 .. 3 of row 0, green: the ranges widen.
    Pick(keyer, 0.5f, 0, 0.75f, 0.25f);
    const std::vector<int> second = {36, 155, 102, 210, 58, 184, 80, 161};
    EXPECT_EQ(Ends(keyer), second);
    // Right of the left edge: nothing examined, an undo step with the same values.
    Pick(keyer, 0.6f, 0, 0.1f, 1);
    EXPECT_EQ(Ends(keyer), second);
    ASSERT_TRUE(doc_.Undo());
    EXPECT_EQ(Ends(keyer), second) << "the empty pick's step";
    ASSERT_TRUE(doc_.Undo());
    EXPECT_EQ(Ends(keyer), first);
    ASSERT_TRUE(doc_.Redo());
    EXPECT_EQ(Ends(keyer), second);

    In(keyer, "Reset")->SetValue(new Number(1));
    EXPECT_EQ(Ends(keyer), kFull);
    EXPECT_EQ(doc_.UndoName(), t.name + " Reset");
    // After a Reset the first pixel replaces the ranges again. The rectangle, partly outside,
    // keeps to column 0 of row 1 (blue).
    Pick(keyer, -0.5f, 0.5f, 0.1f, 1.5f);
    EXPECT_EQ(Ends(keyer), (std::vector<int>{136, 140, 102, 106, 180, 184, 80, 84}));
    ASSERT_TRUE(doc_.Undo());
    EXPECT_EQ(Ends(keyer), kFull);
    ASSERT_TRUE(doc_.Undo());
    EXPECT_EQ(Ends(keyer), second) << "Reset undone";
    In(keyer, "Reset")->SetValue(new Number(1));
    EXPECT_EQ(Ends(keyer), kFull) << "a second press";
    EXPECT_EQ(test_tools::CurrentNumber(In(keyer, "Reset")), 0.0) << "the button goes back to 0";
  }
}

}  // namespace
}  // namespace kestrion::test
