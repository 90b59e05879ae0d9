// Frames for the tracker tests: a feature of fixed-seed noise on flat grey, wherever a test
// moves it.
#pragma once

#include <random>
#include <utility>
#include <vector>

#include "tests/host/image/image_fixtures.h"

namespace kestrion::test {

// The feature's size: 9 x 7 pixels; its centre pixel is (4, 3) from its top-left corner.
constexpr int kFeatureWidth = 9, kFeatureHeight = 7;

// Where the feature's top-left corner is on six frames of a 320 x 240 clip, moving by known steps.
inline const std::vector<std::pair<int, int>> kFeatureCorners = {{100, 80}, {103, 81}, {107, 79},
                                                                 {104, 85}, {98, 90},  {99, 90}};

// A w x h frame of flat grey with the feature at each top-left corner given.
inline Ref<Image> FeatureFrame(int w, int h, const std::vector<std::pair<int, int>>& corners) {
  std::vector<uint32_t> words(size_t(w * h), Bgra(90, 90, 90, 255));
  for (const auto& [fx, fy] : corners) {
    std::mt19937 random(17);
    for (int y = 0; y < kFeatureHeight; ++y)
      for (int x = 0; x < kFeatureWidth; ++x) words[size_t((fy + y) * w + fx + x)] = uint32_t(random()) | 0xFF000000u;
  }
  return MakeFrame(w, h, Rows::Owned, words).image;
}

}  // namespace kestrion::test
