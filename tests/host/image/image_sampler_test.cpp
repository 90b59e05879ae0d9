// The samplers: nearest and bilinear reads at whole and fractional positions (in 1/256 pixel),
// at every edge and outside the image, black or clamped, on images held either way up.
#include <gtest/gtest.h>

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

class SamplerTest : public ::testing::TestWithParam<Rows> {};

TEST_P(SamplerTest, BlackAndClampGiveTheTabledValues) {
  const auto img = MakeFrame(2, 2, GetParam(), {P00, P10, P01, P11});
  for (const SampleCase& c : kCases) {
    Pixel black, clamp;
    img->DoSample_Black(&black, c.x, c.y, c.quality);
    img->DoSample_Clamp(&clamp, c.x, c.y, c.quality);
    EXPECT_EQ(black.Word(), c.black) << c.what;
    EXPECT_EQ(clamp.Word(), c.clamp) << c.what;
  }
}

TEST_P(SamplerTest, BilinearRoundsHalfUp) {
  // Blue 0 and 1: half way is 0.5, which rounds up; a 256th short of it rounds down.
  const auto img = MakeFrame(2, 1, GetParam(), {Bgra(0, 0, 0, 0), Bgra(1, 0, 0, 0)});
  Pixel p;
  img->DoSample_Black(&p, 128, 0, 1);
  EXPECT_EQ(p.b, 1);
  img->DoSample_Black(&p, 127, 0, 1);
  EXPECT_EQ(p.b, 0);
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

TEST_P(SamplerTest, RowsComeFromTheRowTable) {
  // One column, three rows: sampling half way between rows 1 and 2 must mix those rows, not
  // whatever lies next in memory.
  const auto img = MakeFrame(1, 3, GetParam(), {Bgra(0, 0, 0, 0), Bgra(100, 0, 0, 0), Bgra(200, 0, 0, 0)});
  Pixel p;
  img->DoSample_Clamp(&p, 0, 384, 1);
  EXPECT_EQ(p.b, 150);
  img->DoSample_Black(&p, 0, 384, 1);
  EXPECT_EQ(p.b, 150);
}

TEST(Sampler, EmptyImageGivesZero) {
  Ref<Image> img = Ref<Image>::Adopt(new Image(0, 0));
  Pixel p{1, 2, 3, 4};
  img->DoSample_Clamp(&p, 0, 0, 1);
  EXPECT_EQ(p, Pixel{});
}

INSTANTIATE_TEST_SUITE_P(Rows, SamplerTest, ::testing::ValuesIn(test::kAllRows), test::RowsTestName);

}  // namespace
}  // namespace kestrion
