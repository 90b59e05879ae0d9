// Blue/Green Keyer on single pixels whose colour-difference bytes are worked out by hand:
//   (R 200, G 150, B 100): Y 159; red 128 + 41*40000/65536 = 153, green 128 - 9*50000/65536 =
//   122, blue 128 - 59*30000/65536 = 101.
//   (R 100, G 50, B 200): Y 82; red 138, green 104, blue 182.
//   (R 0, G 255, B 0): Y 149; red 38, green 208, blue 60.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/tools/matte/matte_fixture.h"

namespace kestrion::test {
namespace {

using KeyerTest = ColorToolTest;

const Pixel kWarm{100, 150, 200, 255}, kBlue{200, 50, 100, 255}, kGreen{0, 255, 0, 255};

struct KeyerCase {
  const char* what;
  Pixel in;
  std::vector<std::pair<const char*, double>> values;
  Pixel expected;
};

// Inside every range (ends included) is backing, alpha 0; outside one is foreground, alpha 255,
// which the blue backing's suppression takes to (255 * min(R - B + 255, 255)) >> 8 = 254.
TEST_F(KeyerTest, EachRangeEndDecides) {
  const struct {
    const char* label;
    double value;
    Pixel in;
    int alpha;
  } cases[] = {
      {"Red Low", End(153), kWarm, 0},         {"Red Low", End(154), kWarm, 254},
      {"Red High", End(152), kWarm, 254},      {"Green Low", End(123), kWarm, 254},
      {"Green High", End(121), kWarm, 254},    {"Blue Low", End(102), kWarm, 254},
      {"Blue High", End(100), kWarm, 254},     {"Luminance Low", End(160), kWarm, 254},
      {"Luminance High", End(158), kWarm, 254}, {"Luminance High", End(159), kWarm, 0},
      // White has luminance 255: a high end of 1.0 is 255, of 0.999 is 254.
      {"Luminance High", 1.0, {255, 255, 255, 9}, 0}, {"Luminance High", 0.999, {255, 255, 255, 9}, 254},
  };
  for (const auto& c : cases) {
    Operator* keyer = Tool("Keyer");
    Link(Flat(1, 1, c.in), keyer, "Image");
    Set(keyer, "Pre Matte Blur", 0);
    Set(keyer, c.label, c.value);
    const Pixel expected{c.in.b, c.in.g, c.in.r, uint8_t(c.alpha)};
    EXPECT_EQ(RenderPixels(keyer), std::vector{expected}) << c.label << " " << c.value * 255;
  }
}

// The blue-ish pixel made foreground by its luminance (82, below a low end of 83): alpha 255,
// then suppression (255 * (100 - 200 + 255)) >> 8 = 154 unless a stage says otherwise.
TEST_F(KeyerTest, TheStagesInTheirOrder) {
  const std::vector<KeyerCase> cases = {
      // 1 x 1 pre-matte blur 0.1: r = 0.0003125, weights 1023 and 0: (1020 * 1023) >> 12 = 254,
      // then (254 * 155) >> 8 = 153.
      {"defaults", kBlue, {}, {200, 50, 100, 153}},
      {"no pre-matte blur", kBlue, {{"Pre Matte Blur", 0}}, {200, 50, 100, 154}},
      {"green backing", kBlue, {{"Pre Matte Blur", 0}, {"Color Background", 1}}, {200, 50, 100, 254}},
      // k = -230, step 16400 / 25 = 656: 254 -> 24 * 656 / 64 = 246; (246 * 155) >> 8 = 148.
      {"pre-matte contrast", kBlue, {{"Pre Matte Contrast", -0.9}}, {200, 50, 100, 148}},
      // Weights 3 and 1020 sum to 1023: (4 * 154 * 1023) >> 12 = 153.
      {"matte blur", kBlue, {{"Pre Matte Blur", 0}, {"Matte Blur", 1}}, {200, 50, 100, 153}},
      // k = 64, step 85: (154 * 85) >> 6 = 204. k = -64, step 85: 90 * 85 / 64 = 119.
      {"matte contrast", kBlue, {{"Pre Matte Blur", 0}, {"Matte Contrast", 0.25}}, {200, 50, 100, 204}},
      {"negative contrast", kBlue, {{"Pre Matte Blur", 0}, {"Matte Contrast", -0.25}}, {200, 50, 100, 119}},
      // 255 * sqrt(154 / 255) = 198.2; after contrast 255 * sqrt(204 / 255) = 228.1.
      {"matte gamma", kBlue, {{"Pre Matte Blur", 0}, {"Matte Gamma", 2}}, {200, 50, 100, 198}},
      {"contrast then gamma", kBlue, {{"Pre Matte Blur", 0}, {"Matte Contrast", 0.25}, {"Matte Gamma", 2}},
       {200, 50, 100, 228}},
      // Halo 0.5: hk 2048, blue (50 * 2048 + 2048 * 200) >> 12 = 125; gamma 1 keeps T[v] = v, so
      // each byte becomes (v * 101 + v * 154) >> 8.
      {"halo", kBlue, {{"Pre Matte Blur", 0}, {"Matte Halo", 0.5}}, {124, 49, 99, 154}},
      // Halo Gamma 2: T[100] = 159, T[50] = 112, T[125] = 178; red (159 * 101 + 100 * 154) >> 8 = 122.
      {"halo with gamma", kBlue, {{"Pre Matte Blur", 0}, {"Matte Halo", 0.5}, {"Halo Gamma", 2}}, {145, 74, 122, 154}},
      // Green backing: alpha 254, above 240, so green keeps its byte; each becomes (v * 255) >> 8.
      {"halo above 240", kBlue, {{"Pre Matte Blur", 0}, {"Color Background", 1}, {"Matte Halo", 1}}, {199, 49, 99, 254}},
      {"halo on backing", kGreen, {{"Luminance Low", 0}, {"Matte Halo", 1}}, {0, 0, 0, 0}},
  };
  for (const KeyerCase& c : cases) {
    Operator* keyer = Tool("Keyer");
    Link(Flat(1, 1, c.in), keyer, "Image");
    Set(keyer, "Luminance Low", End(83));
    for (const auto& [label, v] : c.values) Set(keyer, label, v);
    EXPECT_EQ(RenderPixels(keyer), std::vector{c.expected}) << c.what;
  }
}

}  // namespace
}  // namespace kestrion::test
