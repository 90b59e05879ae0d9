// Colour conversions: hand-worked pixels, and every conversion over the whole RGB cube compared
// bit for bit with the formulas it is defined by.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "host/image/image.h"
#include "tests/host/colour_references.h"
#include "tests/host/image/image_fixtures.h"

namespace kestrion {
namespace {

using namespace test;

enum class Op { RGBtoYUV, YUVtoRGB, RGBtoHLS, HLStoRGB, RGBtoGUV, ColourDifference, Saturate };

// `factors` (red, green, blue) are Saturate's.
void Apply(Image& img, Op op, const float factors[3]) {
  switch (op) {
    case Op::RGBtoYUV: img.RGBtoYUV(); break;
    case Op::YUVtoRGB: img.YUVtoRGB(); break;
    case Op::RGBtoHLS: img.RGBtoHLS(); break;
    case Op::HLStoRGB: img.HLStoRGB(); break;
    case Op::RGBtoGUV: img.RGBtoGUV(); break;
    case Op::ColourDifference: img.ColourDifference(); break;
    case Op::Saturate: img.Saturate(factors[0], factors[1], factors[2]); break;
  }
}

// A pixel by its red, green and blue bytes (the order the spaces are written in), alpha 0x5A.
struct Rgb {
  uint32_t r, g, b;
  uint32_t Word(uint32_t a = 0x5A) const { return Bgra(b, g, r, a); }
};

struct ConversionCase {
  const char* what;
  Op op;
  Rgb in, out;
  uint32_t alpha_out = 0x5A;
  float factors[3] = {};
};

// clang-format off
const ConversionCase kConversions[] = {
  // YUV: Y = 0.299 R + 0.587 G + 0.114 B, U = 128 - 0.168736 R - 0.331264 G + 0.5 B,
  // V = 128 + 0.5 R - 0.418688 G - 0.081312 B. Red: 76.245, 84.97, 255.5 held to 255.
  {"red to YUV",         Op::RGBtoYUV, {255, 0, 0},     {76, 85, 255}},
  // 149.685, 43.53, 21.23.
  {"green to YUV",       Op::RGBtoYUV, {0, 255, 0},     {150, 44, 21}},
  // Y = 0.114 * 250 = 28.5 exactly: half away from zero.
  {"Y on a tie",         Op::RGBtoYUV, {0, 0, 250},     {29, 253, 108}},
  // R = 76 + 1.402 * 127 = 254.05; G = 76 + 14.80 - 90.70 = 0.10; B = 76 - 76.196 < 0.
  {"red back",           Op::YUVtoRGB, {76, 85, 255},   {254, 0, 0}},
  // B = 1.772 * 125 = 221.5 exactly; G = -43.02 held to 0.
  {"B on a tie",         Op::YUVtoRGB, {0, 253, 128},   {0, 0, 222}},
  // HLS: H, L, S in the red, green and blue bytes.
  {"red to HLS",         Op::RGBtoHLS, {255, 0, 0},     {0, 128, 255}},
  {"green to HLS",       Op::RGBtoHLS, {0, 255, 0},     {85, 128, 255}},
  {"blue to HLS",        Op::RGBtoHLS, {0, 0, 255},     {170, 128, 255}},
  {"dark red to HLS",    Op::RGBtoHLS, {128, 0, 0},     {0, 64, 255}},
  {"grey to HLS",        Op::RGBtoHLS, {100, 100, 100}, {0, 100, 0}},
  // l = 128/255 > 0.5: m2 = l + s - l s = 1, m1 = 2 l - 1 = 1/255.
  {"red back from HLS",  Op::HLStoRGB, {0, 128, 255},   {255, 1, 1}},
  // l = 127/255: m2 = 2 l = 254/255, m1 = 0.
  {"darker red back",    Op::HLStoRGB, {0, 127, 255},   {254, 0, 0}},
  // Hue 1/3: red at t = 2/3 (m1), green on the plateau (m2), blue at t = 0 (m1).
  {"green back",         Op::HLStoRGB, {85, 128, 255},  {1, 255, 1}},
  {"no saturation",      Op::HLStoRGB, {200, 77, 0},    {77, 77, 77}},
  // Green difference: G, (B - G + 256) >> 1, (R - G + 256) >> 1.
  {"GUV",                Op::RGBtoGUV, {200, 100, 50},  {100, 103, 178}},
  {"GUV extremes",       Op::RGBtoGUV, {0, 255, 0},     {255, 0, 0}},
  {"GUV other extreme",  Op::RGBtoGUV, {255, 0, 255},   {0, 255, 255}},
  // Y = 76; 179 * 40000 / 65536 = 109.25; -76 * 50000 / 65536 = -57.98 and
  // -76 * 30000 / 65536 = -34.79 round toward zero.
  {"colour difference",  Op::ColourDifference, {255, 0, 0}, {237, 71, 94}, 76},
  // Y = (19595 * 10 + 38470 * 200 + 7471 * 30) >> 16 = 123: 40000 * -113, 50000 * 77,
  // 30000 * -93 over 65536 give -68.97, 58.75, -42.57.
  {"colour difference 2", Op::ColourDifference, {10, 200, 30}, {60, 186, 86}, 123},
  // Saturation about Y = (19595 * 200 + 38470 * 100 + 7471 * 50) >> 16 = 124.
  {"saturate to grey",   Op::Saturate, {200, 100, 50},  {124, 124, 124}, 0x5A, {0.0f, 0.0f, 0.0f}},
  {"saturate by 2",      Op::Saturate, {200, 100, 50},  {255, 76, 0},    0x5A, {2.0f, 2.0f, 2.0f}},
  {"saturate by 1",      Op::Saturate, {200, 100, 50},  {200, 100, 50},  0x5A, {1.0f, 1.0f, 1.0f}},
  // Y = 124 again; 124 + 77 / 2 = 162.5 and 124 - 73 / 2 = 87.5 both round up (half away
  // from zero on positive values), 124 - 24 / 2 = 112.
  {"saturate by a half", Op::Saturate, {201, 100, 51},  {163, 112, 88},  0x5A, {0.5f, 0.5f, 0.5f}},
  // One factor per channel, in the order red, green, blue.
  {"saturate per channel", Op::Saturate, {200, 100, 50}, {124, 100, 0}, 0x5A, {0.0f, 1.0f, 2.0f}},
};
// clang-format on

class ColourTest : public ::testing::TestWithParam<Rows> {};

TEST_P(ColourTest, HandWorkedPixels) {
  for (const ConversionCase& c : kConversions) {
    auto img = MakeFrame(1, 1, GetParam(), {c.in.Word()});
    Apply(*img.get(), c.op, c.factors);
    EXPECT_EQ(Words(*img.get())[0], c.out.Word(c.alpha_out)) << c.what;
  }
}

TEST_P(ColourTest, MasksHaveNoColour) {
  for (const ConversionCase& c : kConversions) {
    auto mask = MakeMask(2, 1, GetParam(), {7, 200});
    Apply(*mask.get(), c.op, c.factors);
    EXPECT_EQ(test::MaskValues(*mask.get()), (std::vector<uint8_t>{7, 200})) << c.what;
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, ColourTest, ::testing::ValuesIn(test::kAllRows), test::RowsTestName);

// --- Over the whole cube, one 256 x 256 slice per first byte ---

// Every pixel of a slice: x runs through the blue byte, y through green, red is the slice.
Vec Slice(uint32_t red) {
  Vec words;
  for (uint32_t g = 0; g < 256; ++g)
    for (uint32_t b = 0; b < 256; ++b) words.push_back(Bgra(b, g, red, 0xA5));
  return words;
}

// The keyers' colour difference: C++ division truncates toward zero, as their form asks.
uint32_t ColourDifferenceTruncated(uint32_t word) {
  const int r = Byte(word, 2), g = Byte(word, 1), b = Byte(word, 0);
  const int y = (19595 * r + 38470 * g + 7471 * b) >> 16;
  return Bgra(uint32_t(128 + (b - y) * 30000 / 65536), uint32_t(128 + (g - y) * 50000 / 65536),
              uint32_t(128 + (r - y) * 40000 / 65536), uint32_t(y));
}

// Each conversion over the whole cube against its formulas: HLS in doubles, YUV in exact
// rationals with rounding ties included, the colour difference truncated. The backward
// conversions read the same slices as their own three bytes. (Round trips follow from these.)
TEST(ColourCube, ConversionsMatchTheirFormulasEverywhere) {
  const struct {
    void (Image::*convert)();
    uint32_t (*expected)(uint32_t);
  } kConversions[] = {{&Image::RGBtoHLS, HlsByDoubles},
                      {&Image::HLStoRGB, RgbOfHlsByDoubles},
                      {&Image::RGBtoYUV, YuvExact},
                      {&Image::YUVtoRGB, RgbOfYuvExact},
                      {&Image::ColourDifference, ColourDifferenceTruncated}};
  Ref<Image> img = Ref<Image>::Adopt(new Image(256, 256));
  for (uint32_t red = 0; red < 256; ++red) {
    const Vec in = Slice(red);
    for (const auto& c : kConversions) {
      std::copy(in.begin(), in.end(), img->Row(0));
      (img.get()->*c.convert)();
      const Vec out = Words(*img);
      for (size_t i = 0; i < in.size(); ++i) ASSERT_EQ(out[i], c.expected(in[i])) << std::hex << in[i];
    }
  }
}

}  // namespace
}  // namespace kestrion
