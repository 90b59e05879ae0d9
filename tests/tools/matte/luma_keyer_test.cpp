// Luma Keyer on the pixel (B 100, G 150, R 200, A 80), luminance 159, with Low 50 and High 200:
// the ramp's rate is 65280 / 150 = 435, so a value v between gives ((v - 50) * 435) >> 8.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "host/base/archive.h"
#include "module/operator_contract.h"
#include "tests/tools/matte/matte_fixture.h"

namespace kestrion::test {
namespace {

using LumaKeyerTest = ColorToolTest;

const Pixel kPixel{100, 150, 200, 80};

TEST_F(LumaKeyerTest, EveryChannelWithAndWithoutInvert) {
  const struct {
    double channel;
    int alpha;
  } cases[] = {
      {0, 84},    // blue 100: (50 * 435) >> 8
      {1, 169},   // green 150
      {2, 255},   // red 200, at High
      {3, 50},    // alpha 80
      {4, 185},   // luminance 159
      {2.5, 50},  // trunc(2.5 + 0.5) = 3, alpha
      {4.7, 185}, // 5: any other value keys on the luminance
  };
  for (const auto& c : cases)
    for (double invert : {0.0, 1.0}) {
      Operator* luma = Tool("Threshold");
      Link(Flat(1, 1, kPixel), luma, "Image");
      Set(luma, "Channel", c.channel);
      Set(luma, "Low", End(50));
      Set(luma, "High", End(200));
      Set(luma, "Invert", invert);
      const int alpha = invert != 0.0 ? 255 - c.alpha : c.alpha;
      EXPECT_EQ(RenderPixels(luma), (std::vector<Pixel>{{100, 150, 200, uint8_t(alpha)}}))
          << "channel " << c.channel << ", invert " << invert;
    }
}

// Without a ramp, at or below Low is transparent and everything else opaque.
TEST_F(LumaKeyerTest, LowAtOrAboveHigh) {
  const struct {
    int low, high;
    double channel;
    int alpha;
  } cases[] = {{150, 150, 1, 0}, {150, 150, 2, 255}, {180, 100, 2, 255}, {180, 100, 4, 0}};
  for (const auto& c : cases) {
    Operator* luma = Tool("Threshold");
    Link(Flat(1, 1, kPixel), luma, "Image");
    Set(luma, "Channel", c.channel);
    Set(luma, "Low", End(c.low));
    Set(luma, "High", End(c.high));
    EXPECT_EQ(RenderPixels(luma)[0].a, c.alpha) << c.low << " .. " << c.high << ", channel " << c.channel;
  }
}

// The check box's sense travels in the record; a record without it (flows saved before it
// existed) shows "Vert" and inverts when the box is clear.
TEST_F(LumaKeyerTest, TheInvertSenseTravelsInTheRecord) {
  Registry* reg = ClassRegistry->FindByName("Threshold");
  Operator* made = Tool("Threshold");
  CArchive with, without;
  ASSERT_EQ(made->Save(&with, nullptr), 1u);
  without.WriteWord(FourCC("LKey"));
  made->Operator::Save(&without, nullptr);
  module::WriteRecordEnd(&without);
  const struct {
    CArchive* record;
    const char* label;
    int alpha;  // Invert clear, luminance keyed with the defaults 0 .. 255: 159 -> 159 * 256 >> 8
  } cases[] = {{&with, "Invert", 159}, {&without, "Vert", 96}};
  for (const auto& c : cases) {
    CArchive in(c.record->Bytes());
    in.ReadWord();
    auto* luma = dynamic_cast<Operator*>(reg->Create(&in, nullptr));
    ASSERT_NE(luma, nullptr);
    EXPECT_TRUE(in.AtEnd());
    doc_.AddTool(luma, std::string("Loaded") + c.label);
    EXPECT_EQ(luma->Inputs()[6]->Name(), c.label);
    Link(Flat(1, 1, kPixel), luma, "Image");
    EXPECT_EQ(RenderPixels(luma)[0].a, c.alpha) << c.label;
  }
}

}  // namespace
}  // namespace kestrion::test
