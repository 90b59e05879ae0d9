// Matte Control: the matte blur worked out by hand on rows and columns of three pixels, the
// inversion, and the garbage matte from a mask of the image's width or twice it.
#include <gtest/gtest.h>

#include <vector>

#include "tests/tools/matte/matte_fixture.h"

namespace kestrion::test {
namespace {

class MatteControlTest : public ColorToolTest {
 protected:
  // A w x h image of grey pixels (10, 20, 30) with the given alphas, through a new Matte Control.
  Operator* Control(int w, int h, const std::vector<uint8_t>& alphas) {
    std::vector<Pixel> pixels;
    for (uint8_t a : alphas) pixels.push_back({10, 20, 30, a});
    Operator* op = Tool("MatteControl");
    Link(Source(w, h, pixels), op, "Image");
    return op;
  }
  std::vector<int> Alphas(Operator* op) {
    std::vector<int> out;
    for (const Pixel& p : RenderPixels(op)) out.push_back(p.a);
    return out;
  }
  // Feeds a w x h mask to the garbage matte input.
  void Garbage(Operator* op, int w, int h, const std::vector<uint8_t>& mask) {
    Picture* g = test_tools::Make<Picture>(doc_, "TestPicture");
    g->image = MakeMask(w, h, Rows::Owned, mask).image;
    ASSERT_TRUE(doc_.Connect(g->out, op->FindInput(FourCC("GMat"))));
  }
};

// Amounts giving r = 0.5 (n 0, weights 512 and 512): 160 / 3 across three columns, 160 down one.
// Only an Invert Matte of exactly 1 inverts.
TEST_F(MatteControlTest, BlurAndInvertByHand) {
  const struct {
    const char* what;
    int w, h;
    const char* label;
    double value;
    std::vector<uint8_t> alphas;
    std::vector<int> expected;
  } cases[] = {
      // Column 0 takes column 1's sums, so the opaque pixel there counts for nothing.
      {"left column", 3, 1, "Matte Blur", 160.0f / 3, {255, 0, 0}, {0, 0, 0}},
      // Big-box sums 2295, 1530, 765 (4 Sb / 9: 1020, 680, 340), small 255, 255, 0 (1020, 1020, 0):
      // (1020 + 1020) * 512 >> 12 = 255, (680 + 1020) * 512 >> 12 = 212, 340 * 512 >> 12 = 42.
      {"middle column", 3, 1, "Matte Blur", 160.0f / 3, {0, 255, 0}, {255, 212, 42}},
      // Rows are clamped alike at both ends: big sums 3 * (510, 255, 0), small 255, 0, 0.
      {"top row", 1, 3, "Matte Blur", 160.0f, {255, 0, 0}, {212, 42, 0}},
      {"no blur", 3, 1, "Matte Blur", 0, {7, 8, 9}, {7, 8, 9}},
      {"invert 0.5", 3, 1, "Invert Matte", 0.5, {0, 77, 255}, {0, 77, 255}},
      {"invert 1", 3, 1, "Invert Matte", 1, {0, 77, 255}, {255, 178, 0}},
  };
  for (const auto& c : cases) {
    Operator* op = Control(c.w, c.h, c.alphas);
    Set(op, c.label, c.value);
    EXPECT_EQ(Alphas(op), c.expected) << c.what;
  }
}

// Over the alphas 200 and 100 (a second row 50 and 60 where the image has one).
TEST_F(MatteControlTest, GarbageMatte) {
  const struct {
    const char* what;
    double mode;
    int mask_w, mask_h;
    std::vector<uint8_t> mask;
    std::vector<int> expected;
  } cases[] = {
      {"transparent", 0, 2, 1, {0, 255}, {200, 0}},
      {"solid", 1, 2, 1, {0, 255}, {200, 255}},
      {"transparent, partly", 0, 2, 1, {60, 150}, {195, 100}},
      {"solid, partly", 1, 2, 1, {60, 150}, {200, 150}},
      // Twice the width: (G[0][2x] + G[1][2x]) / 2, so (254 + 3) / 2 = 128 and (1 + 2) / 2 = 1.
      {"twice the width", 1, 4, 2, {254, 9, 1, 9, 3, 9, 2, 9}, {200, 100}},
      {"twice the width, transparent", 0, 4, 2, {254, 9, 1, 9, 3, 9, 2, 9}, {127, 100}},
      // A missing second row reads 0: (210 + 0) / 2 = 105.
      {"twice the width, one row", 1, 4, 1, {210, 0, 240, 0}, {200, 120}},
      {"any other width", 0, 3, 1, {255, 255, 255}, {200, 100}},
      {"a mode off the list", 2, 2, 1, {255, 255}, {200, 100}},
  };
  for (const auto& c : cases) {
    Operator* op = Control(2, 1, {200, 100});
    op->FindInput(FourCC("GMMd"))->SetValue(new Number(c.mode));
    ASSERT_NO_FATAL_FAILURE(Garbage(op, c.mask_w, c.mask_h, c.mask));
    EXPECT_EQ(Alphas(op), c.expected) << c.what;
  }
  Operator* op = Control(2, 2, {200, 100, 50, 60});
  ASSERT_NO_FATAL_FAILURE(Garbage(op, 2, 1, {255, 255}));
  EXPECT_EQ(Alphas(op), (std::vector<int>{0, 0, 50, 60})) << "rows past the mask's last are left";
  EXPECT_EQ(Alphas(Control(2, 1, {200, 100})), (std::vector<int>{200, 100})) << "no garbage matte";
}

}  // namespace
}  // namespace kestrion::test
