// Dissolve: the five operations worked out by hand on one pixel pair, the wrap of a mix typed
// past 1, the common area, a single image passed on as it is, and the random patterns kept or
// re-drawn. (The draws themselves, seed 0 at time 0 in row order: row_kernels_test.cpp.)
#include <gtest/gtest.h>

#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {
namespace {

const std::string kMix = "Background" + std::string(31, ' ') + "Foreground";

class DissolveTest : public ColorToolTest {
 protected:
  Operator* Dissolve(Picture* bg, Picture* fg, double operation, double mix) {
    Operator* d = Tool("Dissolve");
    if (bg) Link(bg, d, "Image");
    if (fg) Link(fg, d, "Foreground");
    Set(d, "Operation", operation);
    Set(d, kMix, mix);
    return d;
  }
};

constexpr Pixel F{200, 100, 10, 255}, B{10, 50, 100, 200}, Black{0, 0, 0, 255};

// Mix 0.3: m = 9830 (truncated, not 9831), n = 22938. Mix 2: m = 65536, n = -32768, so blue
// 2*200 - 10 = 390 keeps its low byte 134 and red 2*10 - 100 = -80 wraps to 176.
TEST_F(DissolveTest, BlendsOnePixelPair) {
  const struct {
    double operation, mix;
    Pixel fg, expected;
  } cases[] = {
      {0, 1, F, F}, {0, 0, F, B}, {0, .5, F, {105, 75, 55, 227}}, {0, .3, F, {66, 64, 73, 216}},
      {0, 2, F, {134, 150, 176, 54}},
      // Blue at 0.5: S = 51200 + 2560, T = (51200 + S) / 2 = 52480, U = (T + 2560) / 2 = 27520.
      // Alpha: S = 65280 + 51200 is held to 65535; unheld it would wrap to 21.
      {1, 1, F, F}, {1, 0, F, B}, {1, .5, F, {107, 87, 80, 227}}, {1, .3, F, {69, 75, 94, 216}},
      // LF = 410 << 8, LB = 210 << 8: at 0.5 the foreground wins and is halved; at 0.3
      // LF*9830 < LB*22938 and the plain dissolve applies, as it always does for black.
      {2, .5, F, {100, 50, 5, 127}}, {2, .3, F, {66, 64, 73, 216}}, {2, .5, Black, {5, 25, 50, 227}},
      {3, 1, F, F}, {4, 1, F, F},
      {5, .5, F, {0, 0, 0, 0}},  // an unknown operation writes nothing
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "operation " << c.operation << ", mix " << c.mix);
    EXPECT_EQ(RenderPixels(Dissolve(Flat(1, 1, B), Flat(1, 1, c.fg), c.operation, c.mix)), std::vector{c.expected});
  }
}

TEST_F(DissolveTest, BlendsOnlyTheCommonArea) {
  const Pixel mixed{105, 75, 55, 227}, zero{};
  EXPECT_EQ(RenderPixels(Dissolve(Flat(2, 3, B), Flat(3, 2, F), 0, .5)),
            (std::vector{mixed, mixed, mixed, mixed, zero, zero}));
}

TEST_F(DissolveTest, OneImagePassesOnAsItIs) {
  for (double operation : {0.0, 3.0, 4.0}) {
    Picture* fg = Flat(2, 2, F);
    Picture* bg = Flat(2, 2, B);
    EXPECT_EQ(Render(Dissolve(nullptr, fg, operation, 0)).get(), fg->image.get()) << operation;
    EXPECT_EQ(Render(Dissolve(bg, nullptr, operation, 1)).get(), bg->image.get()) << operation;
    EXPECT_FALSE(Render(Dissolve(nullptr, nullptr, operation, .5))) << operation;
  }
}

// "Random" keeps one pattern for the tool's life; "Random Noise" changes it with the time. Every
// pixel of the common area is one of the two images' pixels, and the rest stays zero.
TEST_F(DissolveTest, RandomPatternsRepeatOrChangeAsSeeded) {
  const Pixel fg{255, 255, 255, 255}, bg{9, 9, 9, 9};
  Operator* d = Dissolve(Flat(10, 6, bg), Flat(12, 5, fg), 4, .5);
  const auto taken = [&](double time) {
    const std::vector<Pixel> px = RenderPixels(d, time);
    std::vector<bool> take;
    for (size_t i = 0; i < px.size(); ++i) {
      if (i < 50) take.push_back(px[i] == fg);
      EXPECT_EQ(px[i], i >= 50 ? Pixel{} : take.back() ? fg : bg);
    }
    return take;
  };
  EXPECT_NE(taken(1), taken(2));

  Set(d, "Operation", 3);
  const std::vector<bool> random = taken(1);
  EXPECT_EQ(taken(7), random);
  // The same frame again, after another tool has drawn from the generator.
  Render(Dissolve(Flat(3, 3, bg), Flat(3, 3, fg), 4, .5), 5);
  doc_.InvalidateFrom(d);
  EXPECT_EQ(taken(1), random);
}

}  // namespace
}  // namespace kestrion::test
