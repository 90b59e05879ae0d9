// Resizing and the blurs: hand-worked small cases, cheap properties, and for Blur and Bartlet a
// slow reference that sums every weight directly, compared bit for bit.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "host/image/image.h"
#include "host/graph/request.h"
#include "tests/host/image/image_fixtures.h"

namespace kestrion {
namespace {

using namespace test;

// A row of blue values (other channels 0).
Vec Blues(const std::vector<uint32_t>& values) {
  Vec out;
  for (uint32_t v : values) out.push_back(Bgra(v, 0, 0, 0));
  return out;
}

class ResizeTest : public ::testing::TestWithParam<Rows> {
 protected:
  test::NullTool tool;
  Request req{&tool, 0.0, 0};
};

// Blue values in, row after row, and out.
struct ResizeCase {
  const char* what;
  std::vector<uint32_t> in;
  int out_width, quality;
  std::vector<uint32_t> out;
  int in_height = 1, out_height = 1;
};

// clang-format off
const ResizeCase kResizeCases[] = {
  // Area average: 4 -> 2 takes pairs; 3 -> 2 takes 1 + 1/2 and 1/2 + 1 source pixels
  // ((0 + 45) / 1.5 = 30, (45 + 180) / 1.5 = 150); enlarging repeats pixels.
  {"area 4 to 2",       {0, 100, 200, 50}, 2, 0, {50, 125}},
  {"area 3 to 2",       {0, 90, 180},      2, 0, {30, 150}},
  {"area 2 to 4",       {0, 200},          4, 0, {0, 0, 200, 200}},
  // Triangle 4 -> 2: weights 1/8, 3/8, 3/8, 1/8 around 0.5 and 2.5, the edge repeated:
  // 37.5 + 25 = 62.5 gives 63; 12.5 + 75 + 18.75 + 6.25 = 112.5 gives 113.
  {"triangle 4 to 2",   {0, 100, 200, 50}, 2, 1, {63, 113}},
  // Triangle 2 -> 4 is bilinear between centres at -0.25, 0.25, 0.75, 1.25.
  {"triangle 2 to 4",   {0, 200},          4, 1, {0, 50, 150, 200}},
  {"same size, area",   {7, 8, 9},         3, 0, {7, 8, 9}},
  {"same size, tri",    {7, 8, 9},         3, 1, {7, 8, 9}},
  // Down a column, the same weights as across a row.
  {"triangle 4 to 2 down a column", {0, 100, 200, 50}, 1, 1, {63, 113}, 4, 2},
  // A checkerboard halved by area average is mid grey, not the black or white that skipping
  // pixels would give; 127.5 rounds up.
  {"area checkerboard", {0, 255, 0, 255, 255, 0, 255, 0, 0, 255, 0, 255, 255, 0, 255, 0}, 2, 0, Vec(4, 128), 4, 2},
};
// clang-format on

TEST_P(ResizeTest, HandWorkedSizes) {
  for (const ResizeCase& c : kResizeCases) {
    const auto img = MakeFrame(int(c.in.size()) / c.in_height, c.in_height, GetParam(), Blues(c.in));
    Image* out = img->ResizeOfImage(&req, c.out_width, c.out_height, c.quality);
    EXPECT_EQ(Words(*out), Blues(c.out)) << c.what;
  }
}

TEST_P(ResizeTest, ScaleByProxyFactorTakesBlockMeans) {
  const auto img = MakeFrame(4, 2, GetParam(), Blues({0, 40, 80, 120, 20, 60, 100, 140}));
  img->x_aspect = 1.5f;
  Image* half = img->ScaleOfImage(&req, 2);
  EXPECT_EQ(Words(*half), Blues({30, 110}));
  EXPECT_EQ(half->x_aspect, 1.5f);
  // Sizes never drop below one pixel.
  Image* tiny = img->ScaleOfImage(&req, 9);
  EXPECT_EQ(tiny->Width(), 1);
  EXPECT_EQ(tiny->Height(), 1);
}

TEST_P(ResizeTest, FlatStaysFlatAtAnySize) {
  const uint32_t colour = Bgra(17, 130, 255, 3);
  const auto img = MakeFrame(7, 5, GetParam(), Vec(35, colour));
  for (int quality : {0, 1})
    for (auto [w, h] : {std::pair{3, 2}, std::pair{11, 9}, std::pair{1, 1}, std::pair{7, 13}}) {
      Image* out = img->ResizeOfImage(&req, w, h, quality);
      EXPECT_EQ(Words(*out), Vec(size_t(w * h), colour)) << w << "x" << h << " quality " << quality;
    }
}

TEST_P(ResizeTest, MasksResizeAndDepthsMustMatch) {
  const auto mask = MakeMask(2, 1, GetParam(), {0, 200});
  Image* out = mask->ResizeOfImage(&req, 4, 1, 1);
  EXPECT_EQ(test::MaskValues(*out), (Bytes{0, 50, 150, 200}));
  auto frame = MakeFrame(4, 1, GetParam(), Vec(4, 0));
  EXPECT_THROW(mask->ImageResize(frame.get()), std::invalid_argument);
}

// A frame halved both ways takes a path of its own: each channel must come out as the general
// passes make it, which a mask of that channel still takes. Hand-worked 4 x 2 -> 2 x 1: the
// columns sum to 4 (r0 + r1) = 160, 560, 960, 360, and (S0 + 3 S0 + 3 S1 + S2 + 32) >> 6 = 51,
// (S1 + 3 S2 + 3 S3 + S3 + 32) >> 6 = 76.
TEST_P(ResizeTest, HalvingBothWaysIsTheGeneralFilter) {
  const auto hand = MakeFrame(4, 2, GetParam(), Blues({0, 100, 200, 50, 40, 40, 40, 40}));
  auto half = MakeFrame(2, 1, GetParam(), Vec(2, 0));
  hand->ImageResize(half.get());
  EXPECT_EQ(Words(*half.get()), Blues({51, 76}));
  EXPECT_TRUE(half.PaddingIntact());
  std::mt19937 random(11);
  for (auto [w, h] : {std::pair{1, 1}, std::pair{2, 3}, std::pair{9, 4}, std::pair{33, 17}}) {
    Vec words(size_t(4 * w * h));
    for (uint32_t& v : words) v = uint32_t(random());
    const auto img = MakeFrame(2 * w, 2 * h, GetParam(), words);
    Image* out = img->ResizeOfImage(&req, w, h, 1);
    for (int c = 0; c < 4; ++c) {
      Bytes channel;
      for (uint32_t v : words) channel.push_back(uint8_t(v >> (8 * c)));
      Bytes expected = test::MaskValues(*MakeMask(2 * w, 2 * h, Rows::Owned, channel)->ResizeOfImage(&req, w, h, 1));
      Bytes got;
      for (uint32_t v : Words(*out)) got.push_back(uint8_t(v >> (8 * c)));
      EXPECT_EQ(got, expected) << w << " x " << h << ", byte " << c;
    }
  }
}

TEST_P(ResizeTest, EmptySourceGivesTransparentBlack) {
  Ref<Image> empty = Ref<Image>::Adopt(new Image(0, 3));
  Image* out = empty->ResizeOfImage(&req, 2, 2, 1);
  EXPECT_EQ(Words(*out), Vec(4, 0));
}

// --- Blur and Bartlet ---

class BlurTest : public ::testing::TestWithParam<Rows> {};

TEST_P(BlurTest, HandWorkedRows) {
  // Box of 3: a single 255 spreads to 85, 85, 85. Triangle 1, 2, 1 over 4: 63.75 and 127.5
  // round up. Edges and columns are compared with the direct sums below.
  auto box = MakeFrame(5, 1, GetParam(), Blues({0, 0, 255, 0, 0}));
  box->Blur(1, 1, 1, 1, 1, 0);
  EXPECT_EQ(Words(*box.get()), Blues({0, 85, 85, 85, 0}));
  auto tri = MakeFrame(5, 1, GetParam(), Blues({0, 0, 255, 0, 0}));
  tri->Bartlet(1, 1, 1, 1, 1, 0);
  EXPECT_EQ(Words(*tri.get()), Blues({0, 64, 128, 64, 0}));
}

TEST_P(BlurTest, SwitchesChooseTheChannels) {
  const uint32_t hot = Bgra(255, 255, 255, 255);
  auto img = MakeFrame(3, 1, GetParam(), {0, hot, 0});
  img->Blur(1, 0, 0, 1, 1, 0);  // red and alpha only
  EXPECT_EQ(Words(*img.get()), (Vec{Bgra(0, 0, 85, 85), Bgra(255, 255, 85, 85), Bgra(0, 0, 85, 85)}));
  // A mask follows the alpha switch.
  auto mask = MakeMask(3, 1, GetParam(), {0, 255, 0});
  mask->Blur(1, 1, 1, 0, 1, 0);
  EXPECT_EQ(test::MaskValues(*mask.get()), (Bytes{0, 255, 0}));
  mask->Blur(0, 0, 0, 1, 1, 0);
  EXPECT_EQ(test::MaskValues(*mask.get()), (Bytes{85, 85, 85}));
}

// Direct sums for one channel: pass one rounds to 1/256, pass two to a byte; edges repeat.
std::vector<int> ReferenceBlur(const std::vector<int>& src, int w, int h, int rx, int ry, bool triangle) {
  const auto weight = [triangle](int d, int r) { return triangle ? int64_t(r + 1 - std::abs(d)) : int64_t(1); };
  const auto count = [triangle](int r) { return triangle ? int64_t(r + 1) * (r + 1) : int64_t(2 * r + 1); };
  std::vector<int64_t> across(src.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      int64_t s = 0;
      for (int d = -rx; d <= rx; ++d) s += weight(d, rx) * src[size_t(y * w + std::clamp(x + d, 0, w - 1))];
      across[size_t(y * w + x)] = (512 * s + count(rx)) / (2 * count(rx));
    }
  std::vector<int> out(src.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      int64_t s = 0;
      for (int d = -ry; d <= ry; ++d) s += weight(d, ry) * across[size_t(std::clamp(y + d, 0, h - 1) * w + x)];
      out[size_t(y * w + x)] = int((2 * s + 256 * count(ry)) / (512 * count(ry)));
    }
  return out;
}

TEST_P(BlurTest, MatchesDirectSumsBitForBit) {
  std::mt19937 random(20240611);
  for (bool triangle : {false, true})
    for (auto [w, h] : {std::pair{1, 1}, std::pair{2, 2}, std::pair{3, 1}, std::pair{1, 3}, std::pair{5, 4},
                        std::pair{7, 3}})
      for (int rx : {0, 1, 2, 5})
        for (int ry : {0, 1, 3}) {
          Vec words(size_t(w * h));
          for (uint32_t& v : words) v = uint32_t(random());
          auto img = MakeFrame(w, h, GetParam(), words);
          if (triangle)
            img->Bartlet(1, 1, 1, 1, rx, ry);
          else
            img->Blur(1, 1, 1, 1, rx, ry);
          const Vec got = Words(*img.get());
          ASSERT_TRUE(img.PaddingIntact());
          for (int shift = 0; shift < 32; shift += 8) {
            std::vector<int> channel;
            for (uint32_t v : words) channel.push_back(int(v >> shift & 255));
            const std::vector<int> expected = ReferenceBlur(channel, w, h, rx, ry, triangle);
            for (size_t i = 0; i < got.size(); ++i)
              ASSERT_EQ(int(got[i] >> shift & 255), expected[i])
                  << (triangle ? "Bartlet " : "Blur ") << w << "x" << h << " r " << rx << "," << ry << " pixel " << i
                  << " byte " << shift / 8;
          }
        }
}

TEST_P(BlurTest, NegativeRadiiCountAsZero) {
  auto img = MakeFrame(3, 1, GetParam(), {1, 2, 3});
  img->Blur(1, 1, 1, 1, -4, -1);
  EXPECT_EQ(Words(*img.get()), (Vec{1, 2, 3}));
}

INSTANTIATE_TEST_SUITE_P(Rows, ResizeTest, ::testing::ValuesIn(test::kAllRows), test::RowsTestName);
INSTANTIATE_TEST_SUITE_P(Rows, BlurTest, ::testing::ValuesIn(test::kAllRows), test::RowsTestName);

}  // namespace
}  // namespace kestrion
