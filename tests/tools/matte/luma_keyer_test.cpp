// Luma Keyer on the pixel (B 100, G 150, R 200, A 80), luminance 159, mostly with Low 50 and
// High 200: the ramp's rate is 65280 / 150 = 435, so a value v between gives ((v - 50) * 435) >> 8.
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

// Without a ramp (Low at or above High), at or below Low is transparent and everything else
// opaque.
TEST_F(LumaKeyerTest, EveryChannelAndRangeWithAndWithoutInvert) {
  const struct {
    double channel;
    int low, high, alpha;
  } cases[] = {
      {0, 50, 200, 84},    // blue 100: (50 * 435) >> 8
      {1, 50, 200, 169},   // green 150
      {2, 50, 200, 255},   // red 200, at High
      {3, 50, 200, 50},    // alpha 80
      {4, 50, 200, 185},   // luminance 159
      {2.5, 50, 200, 50},  // trunc(2.5 + 0.5) = 3, alpha
      {4.7, 50, 200, 185}, // 5: any other value keys on the luminance
      {1, 150, 150, 0},    {2, 150, 150, 255}, {2, 180, 100, 255}, {4, 180, 100, 0},
  };
  for (const auto& c : cases)
    for (double invert : {0.0, 1.0}) {
      Operator* luma = Tool("Threshold");
      Link(Flat(1, 1, kPixel), luma, "Image");
      Set(luma, "Channel", c.channel);
      Set(luma, "Low", End(c.low));
      Set(luma, "High", End(c.high));
      Set(luma, "Invert", invert);
      const int alpha = invert != 0.0 ? 255 - c.alpha : c.alpha;
      EXPECT_EQ(RenderPixels(luma), (std::vector<Pixel>{{100, 150, 200, uint8_t(alpha)}}))
          << "channel " << c.channel << ", " << c.low << " .. " << c.high << ", invert " << invert;
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
