// Merge: the foreground placed by centre, size and angle, the over/additive mix worked out by
// hand per pixel, full and quick sampling, and the background shown as it is.
#include <gtest/gtest.h>

#include <utility>

#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {
namespace {

const std::string kAdditive = "Subtractive" + std::string(36, ' ') + "Additive";
using MergeTest = ColorToolTest;

TEST_F(MergeTest, Inputs) {
  ExpectInputs(*Tool("Merge"), {{"Center", vtype::Point, 0x746E65C3, kNoDefault},
                                {"Size", vtype::Number, 0x657A69D3, 1.0},
                                {"Angle", vtype::Number, 0x6C676EC1, 0.0},
                                {kAdditive, vtype::Number, FourCC("AdSb"), 0.0},
                                {"Alpha Gain", vtype::Number, FourCC("AlGn"), 1.0},
                                {"Image", vtype::Image, ImageInputId(1), kNoDefault},
                                {"Foreground", vtype::Image, ImageInputId(2), kNoDefault, {}, true}});
}

constexpr Pixel P{100, 150, 250, 200};  // the background everywhere
constexpr Pixel F0{10, 20, 30, 255}, F1{40, 50, 60, 0}, F2{200, 100, 50, 128};
constexpr Pixel G0{10, 10, 10, 255}, G1{51, 51, 51, 255};

// F2 over P: alpha' = 128, inv = 127, over = (c*128 + P*127) >> 8 = (149, 124, 149),
// add = c + (P*127 >> 8) = (249, 174, 174), alpha (200*127 >> 8) + 128 = 227; the result is
// (over*(255 - A) + add*A) >> 8.
TEST_F(MergeTest, PlacesAndMixesTheForeground) {
  const struct {
    const char* what;
    int fw, fh;
    std::vector<Pixel> fg;
    int bw, bh;
    double size, angle, cx, additive, alpha_gain;
    uint32_t flags;
    std::vector<Pixel> expected;
  } cases[] = {
      {"identity", 3, 1, {F0, F1, F2}, 3, 1, 1, 0, .5, 0, 1, 0, {F0, P, {148, 123, 148, 227}}},
      {"identity, quick", 3, 1, {F0, F1, F2}, 3, 1, 1, 0, .5, 0, 1, rflag::Quick, {F0, P, {148, 123, 148, 227}}},
      {"additive", 3, 1, {F0, F1, F2}, 3, 1, 1, 0, .5, 1, 1, 0, {F0, P, {248, 173, 173, 227}}},
      {"A = 127", 3, 1, {F0, F1, F2}, 3, 1, 1, 0, .5, .5, 1, 0, {F0, P, {198, 148, 160, 227}}},
      // G = 128: alpha' is (255*128 + 127) >> 8 = 127 for F0 and 64 for F2.
      {"alpha gain 0.5", 3, 1, {F0, F1, F2}, 3, 1, 1, 0, .5, 0, .5, 0, {{53, 83, 138, 227}, P, {123, 135, 198, 213}}},
      {"smaller foreground", 2, 1, {G0, G1}, 4, 1, 1, 0, .5, 0, 1, 0, {G0, G1, P, P}},
      {"centre a pixel right", 2, 1, {G0, G1}, 4, 1, 1, 0, .75, 0, 1, 0, {P, G0, G1, P}},
      // Half-pixel steps: x = 1 reads (G0 + G1 + 1) >> 1; x = 3 reads G1 half with the black
      // past the edge, (26, 26, 26, 128), which mixes over P.
      {"size 2", 2, 1, {G0, G1}, 4, 1, 2, 0, .5, 0, 1, 0, {G0, {31, 31, 31, 255}, G1, {61, 86, 136, 227}}},
      // Nearest: (128 + 128) >> 8 = 1 reads G1; (384 + 128) >> 8 = 2 is outside.
      {"size 2, quick", 2, 1, {G0, G1}, 4, 1, 2, 0, .5, 0, 1, rflag::Quick, {G0, G1, G1, P}},
      // Output (x, y) reads the foreground at (-y, x): its first column lies along row 0.
      {"angle 90", 2, 2, {G0, F0, G1, F2}, 2, 2, 1, 90, .5, 0, 1, 0, {G0, G1, P, P}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Operator* merge = Tool("Merge");
    Link(Source(c.fw, c.fh, c.fg), merge, "Foreground");
    Link(Flat(c.bw, c.bh, P), merge, "Image");
    In(merge, "Center")->SetValue(new Point(float(c.cx), 0.5f));
    Set(merge, "Size", c.size);
    Set(merge, "Angle", c.angle);
    Set(merge, kAdditive, c.additive);
    Set(merge, "Alpha Gain", c.alpha_gain);
    Ref<Image> out = Render(merge, 0, c.flags);
    ASSERT_TRUE(out);
    EXPECT_EQ(std::pair(out->Width(), out->Height()), std::pair(c.bw, c.bh));
    EXPECT_EQ(Pixels(*out), c.expected);
  }
}

// Without a foreground, or with one that a zero size or alpha gain hides, the output is the
// background image object and the foreground's tool is not rendered.
TEST_F(MergeTest, HiddenForegroundPassesTheBackgroundOn) {
  const struct {
    bool connected;
    double size, alpha_gain;
    bool hidden;
  } cases[] = {{false, 1, 1, true}, {true, 0, 1, true}, {true, 1, 0, true}, {true, 1, 1, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.connected << " " << c.size << " " << c.alpha_gain);
    Operator* merge = Tool("Merge");
    Picture* fg = Flat(2, 2, F0);
    Picture* bg = Flat(2, 2, P);
    Link(bg, merge, "Image");
    if (c.connected) Link(fg, merge, "Foreground");
    Set(merge, "Size", c.size);
    Set(merge, "Alpha Gain", c.alpha_gain);
    Ref<Image> out = Render(merge);
    ASSERT_TRUE(out);
    EXPECT_EQ(out.get() == bg->image.get(), c.hidden);
    EXPECT_EQ(Pixels(*out), std::vector<Pixel>(4, c.hidden ? P : F0));
    EXPECT_EQ(doc_.ProcessCount(fg), c.hidden ? 0u : 1u);
  }
}

}  // namespace
}  // namespace kestrion::test
