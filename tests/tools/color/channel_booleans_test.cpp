// Channel Booleans: the fifteen operations on one pixel pair worked out by hand, the channel
// selectors, the blend back over the background, a missing foreground, the common area, and
// the cases that leave the foreground's tool unrendered.
#include <gtest/gtest.h>

#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {
namespace {

using Selectors = std::vector<double>;  // red, green, blue, alpha

class ChannelBooleansTest : public ColorToolTest {
 protected:
  Operator* Booleans(Picture* bg, Picture* fg, double operation, double blend = 1, Selectors s = {0, 1, 2, 3}) {
    Operator* op = Tool("BoolImg");
    Link(bg, op, "Image");
    if (fg) Link(fg, op, "Foreground");
    Set(op, "Operation", operation);
    Set(op, "Blend", blend);
    const char* labels[] = {"Red", "Green", "Blue", "Alpha"};
    for (size_t c = 0; c < 4; ++c) Set(op, labels[c], s[c]);
    return op;
  }
};

// (f, p) per channel: blue (0, 77), green (200, 100), red (100, 200), alpha (128, 200).
constexpr Pixel F{0, 200, 100, 128}, B{77, 100, 200, 200};

TEST_F(ChannelBooleansTest, Operations) {
  const Pixel expected[] = {
      {0, 200, 100, 128},   {77, 255, 255, 255}, {77, 0, 100, 72},      // Copy, Add, Subtract
      {0, 64, 64, 128},     {77, 236, 236, 200}, {77, 172, 172, 72},    // And, Or, Exclusive Or
      {0, 78, 78, 100},     {0, 128, 255, 255},                         // Multiply, Divide (f 0 gives 0)
      {77, 200, 200, 200},  {0, 100, 100, 128},  {255, 55, 155, 127},   // Maximum, Minimum, Copy & Invert
      {255, 255, 255, 255}, {0, 0, 0, 0},        {77, 100, 100, 72},    // Solid, Clear, Difference
      {0, 244, 144, 200},   B,                                          // Signed Add, unknown
  };
  for (int op = 0; op < 16; ++op)
    EXPECT_EQ(RenderPixels(Booleans(Flat(1, 1, B), Flat(1, 1, F), op)), std::vector{expected[op]}) << op;
}

// Blend 0.5: b = 127 and every byte is (p*128 + R*127) >> 8, passed channels included.
TEST_F(ChannelBooleansTest, SelectorsAndBlend) {
  const struct {
    double operation, blend;
    Selectors selectors;
    Pixel expected;
  } cases[] = {
      {0, 1, {2, 4, 3, 1}, {128, 100, 0, 200}},  // red from blue, green passed, blue from alpha, alpha from green
      {11, 1, {0, 4, 2, 3}, {255, 100, 255, 255}},  // Solid leaves the passed channel
      {0, .5, {0, 1, 2, 3}, {38, 149, 149, 163}},
      {0, 1, {4, 4, 4, 4}, B},
      {0, .5, {4, 4, 4, 4}, {76, 99, 199, 199}},
      {0, 0, {0, 1, 2, 3}, {76, 99, 199, 199}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(RenderPixels(Booleans(Flat(1, 1, B), Flat(1, 1, F), c.operation, c.blend, c.selectors)),
              std::vector{c.expected})
        << testing::PrintToString(c.selectors) << " blend " << c.blend;
}

// Unconnected, the background meets itself: "Subtract" gives 0 except in the passed channel.
TEST_F(ChannelBooleansTest, MissingForegroundAndSizes) {
  EXPECT_EQ(RenderPixels(Booleans(Flat(1, 1, B), nullptr, 2)), std::vector{Pixel{}});
  EXPECT_EQ(RenderPixels(Booleans(Flat(1, 1, B), nullptr, 2, 1, {0, 4, 2, 3})), std::vector{Pixel(0, 100, 0, 0)});
  EXPECT_EQ(RenderPixels(Booleans(Flat(1, 2, B), Flat(2, 1, F), 0)), (std::vector{F, Pixel{}}));
}

TEST_F(ChannelBooleansTest, UnusedForegroundIsNotRendered) {
  const struct {
    double blend;
    Selectors selectors;
    size_t renders;
  } cases[] = {{0, {0, 1, 2, 3}, 0}, {1, {4, 4, 4, 4}, 0}, {1, {4, 4, 4, 3}, 1}};
  for (const auto& c : cases) {
    Picture* fg = Flat(1, 1, F);
    EXPECT_EQ(RenderPixels(Booleans(Flat(1, 1, B), fg, 0, c.blend, c.selectors)).size(), 1u);
    EXPECT_EQ(doc_.ProcessCount(fg), c.renders) << testing::PrintToString(c.selectors) << " blend " << c.blend;
  }
}

}  // namespace
}  // namespace kestrion::test
