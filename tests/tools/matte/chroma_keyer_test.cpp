// Chroma Keyer on the pixel (R 200, G 150, B 100, alpha 255), whose colour-difference bytes are
// red 153, green 122, blue 101 and luminance 159 (see keyer_test.cpp), against ranges of width 10
// centred on those bytes except where a case moves one.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/tools/matte/matte_fixture.h"

namespace kestrion::test {
namespace {

using ChromaKeyerTest = ColorToolTest;

TEST_F(ChromaKeyerTest, SoftKeyAndHalo) {
  const Pixel px{100, 150, 200, 255};
  const struct {
    const char* what;
    std::vector<std::pair<const char*, double>> values;
    Pixel expected;
  } cases[] = {
      {"inside every range", {}, {100, 150, 200, 0}},
      // Red range 140 .. 150: centre 145, the pixel 8 above it. Soft 1: s = 255, rate
      // 65500 / 259 = 252, closeness 255 - (8 * 252 >> 8) = 248, alpha 7.
      {"soft 1", {{"Red Low", End(140)}, {"Red High", End(150)}, {"Soft Range", 1}}, {100, 150, 200, 7}},
      // Soft 0.5: s = 127, rate 500, 255 - 15: alpha 15. Soft 0: rate 16375, far below 0: 255.
      {"soft 0.5", {{"Red Low", End(140)}, {"Red High", End(150)}, {"Soft Range", 0.5}}, {100, 150, 200, 15}},
      {"soft 0", {{"Red Low", End(140)}, {"Red High", End(150)}, {"Soft Range", 0}}, {100, 150, 200, 255}},
      // Luminance 150 .. 156 (centre 153, the pixel 6 above): rate 65500 / (156 - 4) = 430,
      // whatever Soft Range says: 255 - (6 * 430 >> 8) = 245, alpha 10.
      {"luminance above", {{"Luminance Low", End(150)}, {"Luminance High", End(156)}}, {100, 150, 200, 10}},
      // 165 .. 171 (centre 168, the pixel 9 below): rate 65500 / (165 + 4) = 387: alpha 13.
      {"luminance below", {{"Luminance Low", End(165)}, {"Luminance High", End(171)}}, {100, 150, 200, 13}},
      // Halo 1: hh 0, every weight 0; T[7] = trunc(255 * (7/255)^5) = 0, so each byte becomes
      // grey (50 + 25 + 75 = 150) * 255 / 256 = 149.
      {"halo 1", {{"Red Low", End(140)}, {"Red High", End(150)}, {"Soft Range", 1}, {"Matte Halo", 1}},
       {149, 149, 149, 7}},
      // Halo 0.5: hk 2048; red's k = (140 + 150 - 256) * 32 = 1088, weight 2048 - 1504 = 544:
      // ((3552 * 150 + 544 * 200) >> 12) * 255 / 256 = 155; green's and blue's weights are 0.
      {"halo 0.5", {{"Red Low", End(140)}, {"Red High", End(150)}, {"Soft Range", 1}, {"Matte Halo", 0.5}},
       {149, 149, 155, 7}},
      {"halo on backing", {{"Matte Halo", 1}}, {0, 0, 0, 0}},
  };
  for (const auto& c : cases) {
    Operator* chroma = Tool("ChromaKey");
    Link(Flat(1, 1, px), chroma, "Image");
    const std::pair<const char*, int> ranges[] = {{"Red Low", 148},   {"Red High", 158},       {"Green Low", 117},
                                                  {"Green High", 127}, {"Blue Low", 96},       {"Blue High", 106},
                                                  {"Luminance Low", 154}, {"Luminance High", 164}};
    for (const auto& [label, end] : ranges) Set(chroma, label, End(end));
    for (const auto& [label, v] : c.values) Set(chroma, label, v);
    EXPECT_EQ(RenderPixels(chroma), std::vector{c.expected}) << c.what;
  }
}

}  // namespace
}  // namespace kestrion::test
