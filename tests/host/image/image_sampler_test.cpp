// The samplers: nearest and bilinear reads at whole and fractional positions (in 1/256 pixel),
// at every edge and outside the image, black or clamped, on images held either way up; and the
// row samplers, point for point the same as the single ones.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>
#include <vector>

#include "host/image/image.h"
#include "tests/host/image/image_fixtures.h"

namespace kestrion {
namespace {

using namespace test;

// Each channel of a pixel differs, and the four pixels step by 40 per channel:
//   P00 = (10, 20, 30, 40)    P10 = (50, 60, 70, 80)
//   P01 = (90, 100, 110, 120) P11 = (130, 140, 150, 160)    (blue, green, red, alpha)
constexpr uint32_t P00 = Bgra(10, 20, 30, 40), P10 = Bgra(50, 60, 70, 80);
constexpr uint32_t P01 = Bgra(90, 100, 110, 120), P11 = Bgra(130, 140, 150, 160);

struct SampleCase {
  const char* what;
  long x, y, quality;
  uint32_t black, clamp;
};

// clang-format off
const SampleCase kCases[] = {
  // Whole pixels read the pixel, whatever the quality.
  {"origin",                 0,    0,    1, P00, P00},
  {"column 1",               256,  0,    1, P10, P10},
  {"row 1",                  0,    256,  1, P01, P01},
  {"last pixel",             256,  256,  1, P11, P11},
  // Half way between P00 and P10: (10 + 50) / 2 and so on.
  {"half across",            128,  0,    1, Bgra(30, 40, 50, 60), Bgra(30, 40, 50, 60)},
  {"quality 2 is bilinear",  128,  0,    2, Bgra(30, 40, 50, 60), Bgra(30, 40, 50, 60)},
  // 3/256 of the way: 10 + 40 * 3 / 256 = 10.47 rounds down, as do 20.47, 30.47 and 40.47.
  {"just short of half",     3,    0,    1, P00, P00},
  // fx = 64, fy = 192: 3/16 P00 + 1/16 P10 + 9/16 P01 + 3/16 P11 = 80 in blue, +10 per channel.
  {"quarter, three quarters", 64,  192,  1, Bgra(80, 90, 100, 110), Bgra(80, 90, 100, 110)},
  // Past the right edge: half of P10 and half of black (or of P10 again).
  {"right edge",             384,  0,    1, Bgra(25, 30, 35, 40), P10},
  // Past the bottom-right corner: a quarter of P11 (130/4 = 32.5 and 150/4 = 37.5 round up).
  {"corner",                 384,  384,  1, Bgra(33, 35, 38, 40), P11},
  // Left of column 0: half of P00.
  {"left edge",              -128, 0,    1, Bgra(5, 10, 15, 20), P00},
  // Above row 0 by a quarter pixel: 3/4 of P00 (7.5 and 22.5 round up).
  {"top edge",               0,    -64,  1, Bgra(8, 15, 23, 30), P00},
  // Far outside: black, or the nearest pixel (column 0, row 1).
  {"far outside",            -100000, 5000, 1, 0, P01},
  {"far outside, quick",     -100000, 5000, 0, 0, P01},
  // Quality 0: nearest pixel, (x + 128) >> 8 with arithmetic shifts.
  {"quick rounds down",      127,  127,  0, P00, P00},
  {"quick rounds up",        128,  0,    0, P10, P10},
  {"quick, just inside",     -128, 0,    0, P00, P00},
  {"quick, just outside",    -129, 0,    0, 0,   P00},
  {"quick, past the right",  384,  0,    0, 0,   P10},
  {"quick, last pixel",      383,  383,  0, P11, P11},
};
// clang-format on

// The single-point sample at (x, y), in 1/256 pixel.
uint32_t Sample(const Image& img, long x, long y, long quality, bool clamp) {
  Pixel p;
  clamp ? img.DoSample_Clamp(&p, x, y, quality) : img.DoSample_Black(&p, x, y, quality);
  return p.Word();
}

class SamplerTest : public ::testing::TestWithParam<Rows> {
 protected:
  int Pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random_); }
  // Random pixels, as many as given.
  Vec Noise(size_t n) {
    Vec words(n);
    for (uint32_t& w : words) w = uint32_t(random_());
    return words;
  }
  // A frame of random pixels, from 1 x 1 to 9 x 6.
  TestImage RandomFrame() {
    const int w = Pick(1, 9), h = Pick(1, 6);
    return MakeFrame(w, h, GetParam(), Noise(size_t(w * h)));
  }
  std::mt19937 random_{5};
};

TEST_P(SamplerTest, BlackAndClampGiveTheTabledValues) {
  const auto img = MakeFrame(2, 2, GetParam(), {P00, P10, P01, P11});
  for (const SampleCase& c : kCases) {
    EXPECT_EQ(Sample(*img.get(), c.x, c.y, c.quality, false), c.black) << c.what;
    EXPECT_EQ(Sample(*img.get(), c.x, c.y, c.quality, true), c.clamp) << c.what;
  }
}

TEST_P(SamplerTest, MaskValueFillsAllFourBytes) {
  const auto mask = MakeMask(2, 1, GetParam(), {0, 200});
  Pixel p;
  mask->DoSample_Black(&p, 128, 0, 1);
  EXPECT_EQ(p, (Pixel{100, 100, 100, 100}));
  mask->DoSample_Clamp(&p, 1000, 0, 0);
  EXPECT_EQ(p, (Pixel{200, 200, 200, 200}));
  mask->DoSample_Black(&p, 1000, 0, 0);
  EXPECT_EQ(p, Pixel{});
}

// A line of samples as the row samplers take it: from (x, y) in steps of (dx, dy), 1/65536 pixel.
struct Line {
  const char* what;
  int32_t x, y, dx, dy;
  int count;
};

// Sample k of the line read one at a time; the steps wrap at 32 bits.
Vec OneByOne(const Image& img, const Line& l, long quality, bool clamp) {
  Vec out;
  for (int k = 0; k < l.count; ++k) {
    const int32_t x = int32_t(uint32_t(l.x) + uint32_t(k) * uint32_t(l.dx));
    const int32_t y = int32_t(uint32_t(l.y) + uint32_t(k) * uint32_t(l.dy));
    out.push_back(Sample(img, x >> 8, y >> 8, quality, clamp));
  }
  return out;
}

void ExpectRowsMatchOneByOne(const Image& img, const Line& l) {
  SCOPED_TRACE(testing::Message() << l.what << ": " << l.x << ", " << l.y << " by " << l.dx << ", " << l.dy << " x "
                                  << l.count);
  for (long quality : {0L, 1L}) {
    Vec buffer(size_t(l.count));
    const uint32_t* black = img.SampleRow_Black(buffer.data(), l.count, l.x, l.y, l.dx, l.dy, quality);
    EXPECT_EQ(Vec(black, black + l.count), OneByOne(img, l, quality, false)) << "quality " << quality;
    const uint32_t* clamp = img.SampleRow_Clamp(buffer.data(), l.count, l.x, l.y, l.dx, l.dy, quality);
    EXPECT_EQ(Vec(clamp, clamp + l.count), OneByOne(img, l, quality, true)) << "quality " << quality;
  }
}

constexpr int32_t kOne = 65536;

// clang-format off
const Line kLines[] = {
  {"whole pixels along a row, in from the left and out to the right", -3 * kOne, 2 * kOne, kOne, 0, 16},
  {"whole pixels at a constant fraction",                     -3 * kOne + 0x5A00, kOne + 0x2300, kOne, 0, 16},
  {"bits below 1/256 are dropped",                            0x1FF, kOne + 0xFF, kOne, 0, 12},
  {"whole pixels inside one row",                             kOne, 2 * kOne, kOne, 0, 4},
  {"half a pixel off in both directions",                     -kOne / 2, kOne / 2, kOne, 0, 9},
  {"along the last row, whose neighbours lie outside",        0, 4 * kOne, kOne, 0, 9},
  {"above the image",                                         0, -3 * kOne, kOne, 0, 9},
  {"rotated and scaled",                                      -2 * kOne, -kOne, 50412, 29106, 20},
  {"backwards and up",                                        9 * kOne, 6 * kOne, -40000, -30000, 20},
  {"down a column",                                           kOne + 0x8000, -2 * kOne, 0, kOne, 10},
  {"one point again and again",                               3 * kOne + 5, kOne + 77, 0, 0, 5},
  {"wrapping past the largest position",                      INT32_MAX - 4 * kOne, kOne, kOne, 0, 8},
  {"wrapping past the smallest position",                     kOne, INT32_MIN + 2 * kOne, 1000, -kOne, 8},
};
// clang-format on

TEST_P(SamplerTest, RowsGiveTheSinglePointSamples) {
  const auto img = MakeFrame(7, 5, GetParam(), Noise(35));
  for (const Line& l : kLines) ExpectRowsMatchOneByOne(*img.get(), l);
  const auto mask = MakeMask(7, 5, GetParam(), Bytes(35, 90));
  for (const Line& l : kLines) ExpectRowsMatchOneByOne(*mask.get(), l);
}

// Random lines of every length up to 67 through, past and around images from 1 x 1 to 9 x 6,
// a third of them whole pixels along a row.
TEST_P(SamplerTest, RandomRowsGiveTheSinglePointSamples) {
  for (int count = 1; count <= 67; ++count) {
    const auto img = RandomFrame();
    const int w = img->Width(), h = img->Height();
    const bool straight = count % 3 == 0;
    const Line l{straight ? "straight" : "any", Pick(-3 * w * kOne, 3 * w * kOne), Pick(-2 * h * kOne, 3 * h * kOne),
                 straight ? kOne : Pick(-2 * kOne, 2 * kOne), straight ? 0 : Pick(-2 * kOne, 2 * kOne), count};
    ExpectRowsMatchOneByOne(*img.get(), l);
  }
}

// Points given one by one: random points in and around images from 1 x 1 to 9 x 6, and far
// outside, each exactly the single-point sample.
TEST_P(SamplerTest, PointsGiveTheSinglePointSamples) {
  for (int count = 1; count <= 67; ++count) {
    const auto img = RandomFrame();
    std::vector<int32_t> x, y;
    for (int k = 0; k < count; ++k) {
      x.push_back(k == 0 ? INT32_MIN : Pick(-2 * 256, (img->Width() + 2) * 256));
      y.push_back(k == 1 ? INT32_MAX : Pick(-2 * 256, (img->Height() + 2) * 256));
    }
    for (long quality : {0L, 1L}) {
      Vec black(static_cast<size_t>(count)), clamp(static_cast<size_t>(count)), black_one, clamp_one;
      img->SamplePoints_Black(black.data(), count, x.data(), y.data(), quality);
      img->SamplePoints_Clamp(clamp.data(), count, x.data(), y.data(), quality);
      for (size_t k = 0; k < x.size(); ++k) {
        black_one.push_back(Sample(*img.get(), x[k], y[k], quality, false));
        clamp_one.push_back(Sample(*img.get(), x[k], y[k], quality, true));
      }
      EXPECT_EQ(black, black_one) << count << " points, quality " << quality;
      EXPECT_EQ(clamp, clamp_one) << count << " points, quality " << quality;
    }
  }
}

TEST(Sampler, EmptyImageGivesZero) {
  Ref<Image> img = Ref<Image>::Adopt(new Image(0, 0));
  Pixel p{1, 2, 3, 4};
  img->DoSample_Clamp(&p, 0, 0, 1);
  EXPECT_EQ(p, Pixel{});
  Vec row(3, 7);
  EXPECT_EQ(img->SampleRow_Black(row.data(), 3, 0, 0, 65536, 0, 1), row.data());
  EXPECT_EQ(row, Vec(3, 0));
}

INSTANTIATE_TEST_SUITE_P(Rows, SamplerTest, ::testing::ValuesIn(test::kAllRows), test::RowsTestName);

}  // namespace
}  // namespace kestrion
