// What the filter tool tests share: grey rows worked by hand, random images, a pixel's 16-bit
// channel values, and the run of a tool over random images of every width from 1 to 67 against
// a scalar reference.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {

// A pixel whose four bytes are v.
constexpr Pixel Grey(int v) { return {uint8_t(v), uint8_t(v), uint8_t(v), uint8_t(v)}; }

inline std::vector<Pixel> Greys(const std::vector<int>& values) {
  std::vector<Pixel> out;
  for (int v : values) out.push_back(Grey(v));
  return out;
}

// Byte c (0 blue .. 3 alpha) of pixel (x, y) of a w x h image, coordinates held to the image.
inline int HeldByte(const Vec& img, int w, int h, int x, int y, int c) {
  return int(img[size_t(std::clamp(y, 0, h - 1) * w + std::clamp(x, 0, w - 1))] >> (8 * c) & 255);
}

// The byte order of the switches red, green, blue, alpha.
constexpr int kSwitchByte[4] = {2, 1, 0, 3};

class FilterToolTest : public ColorToolTest {
 protected:
  static constexpr int kRows = 9;  // two bands and more, so renders start bands part way down

  Picture* RandomSource(int w, int h) {
    std::vector<Pixel> pixels(size_t(w * h));
    for (Pixel& p : pixels) p = Pixel::FromWord(uint32_t(random_()));
    return Source(w, h, pixels);
  }

  // For every width 1 .. 67: a random w x kRows image into the tool, then for each setting,
  // set(tool, setting) and the render compared with expected(setting, image words, w, h).
  void CheckEveryWidth(const char* tool, int settings, const std::function<void(Operator*, int)>& set,
                       const std::function<Vec(int, const Vec&, int, int)>& expected, int rows = kRows) {
    for (int w = 1; w <= 67; ++w) {
      Picture* src = RandomSource(w, rows);
      Operator* op = Tool(tool);
      Link(src, op, "Image");
      for (int setting = 0; setting < settings; ++setting) {
        set(op, setting);
        const Ref<Image> out = Render(op, 3.0);
        ASSERT_TRUE(out) << "width " << w;
        ASSERT_EQ(Words(*out), expected(setting, Words(*src->image), w, rows))
            << "width " << w << ", setting " << setting;
      }
    }
  }

  // Sets the four switches of a tool from the bits of `mask` (1 red, 2 green, 4 blue, 8 alpha).
  static void SetSwitches(Operator* op, int mask) {
    const char* labels[] = {"Red", "Green", "Blue", "Alpha"};
    for (int c = 0; c < 4; ++c) Set(op, labels[c], mask >> c & 1);
  }

  std::mt19937 random_{20260312};
};

}  // namespace kestrion::test
