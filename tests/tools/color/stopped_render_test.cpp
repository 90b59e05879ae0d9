// The tools that write every row of an uncleared output frame: a render stopped before its first
// row hands on transparent black, also where the frame reuses the memory of an earlier one
// (frames of 256 KiB and more do).
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {
namespace {

struct StoppedCase {
  const char* tool;
  std::vector<std::pair<std::string, double>> numbers;
  bool foreground = true;
};

// clang-format off
const StoppedCase kCases[] = {
  {"ColorGain",  {{"Gain Red", 1.2}}, false},
  {"ColorSpace", {{"Color Space Conversion", 3}}, false},
  {"Dissolve",   {{"Operation", 0}, {"Background" + std::string(31, ' ') + "Foreground", 0.4}}},
  {"BoolImg",    {{"Operation", 1}, {"Blend", 0.7}}},
  {"Merge",      {{"Size", 1.3}, {"Angle", 30}, {"Alpha Gain", 1}}},
};
// clang-format on

using StoppedRenderTest = ColorToolTest;

TEST_F(StoppedRenderTest, UnwrittenRowsAreTransparentBlack) {
  std::mt19937 random(41);
  const auto noise = [&] {
    Vec words(256 * 256);
    for (uint32_t& w : words) w = uint32_t(random()) | 0x01010101u;  // no byte is 0
    return MakeFrame(256, 256, Rows::Owned, words).image;
  };
  const Ref<Image> bg = noise(), fg = noise();
  for (const StoppedCase& c : kCases) {
    SCOPED_TRACE(c.tool);
    Operator* op = Tool(c.tool);
    for (const bool stopped : {false, true}) {
      op->Abort(stopped);
      Request req(op, 0.0, 0);
      req.status = 0;
      for (const auto& [label, value] : c.numbers) req.SetInputData(In(op, label), new Number(value));
      bg->Use();
      req.SetInputData(In(op, "Image"), bg.get());
      if (c.foreground) {
        fg->Use();
        req.SetInputData(In(op, "Foreground"), fg.get());
      }
      op->Process(&req);
      auto* out = dynamic_cast<Image*>(req.GetOutputData(op->Outputs()[0].get()));
      ASSERT_TRUE(out);
      const Vec words = Words(*out);
      const size_t black = size_t(std::count(words.begin(), words.end(), 0u));
      // Rendered, the frame leaves dirty memory for the next; stopped, it is all black.
      EXPECT_EQ(black == words.size(), stopped) << black << " black pixels";
    }
    op->Abort(0);
  }
}

}  // namespace
}  // namespace kestrion::test
