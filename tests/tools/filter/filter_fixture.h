// What the filter tool tests share: grey rows worked by hand, a pixel's bytes held to the image,
// the switches, and random images of every width from 1 to 67 against a scalar reference.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
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

class FilterToolTest : public RandomRowsTest {
 protected:
  // Two bands and more, so renders start bands part way down; the time seeds noise with 3.
  FilterToolTest() {
    rows_ = 9;
    time_ = 3.9;
  }

  // Sets the four switches of a tool from the bits of `mask` (1 red, 2 green, 4 blue, 8 alpha).
  static void SetSwitches(Operator* op, int mask) {
    const char* labels[] = {"Red", "Green", "Blue", "Alpha"};
    for (int c = 0; c < 4; ++c) Set(op, labels[c], mask >> c & 1);
  }
};

}  // namespace kestrion::test
