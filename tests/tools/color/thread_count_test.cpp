// Every threaded tool (colour, compositing and warp) gives the same bytes on 1, 2, 3 and 7 worker
// threads, and leaves the random generator at the same place: each case is rendered once per
// thread count over 61 rows (several bands), its cached result dropped in between.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "host/base/random.h"
#include "host/graph/threads.h"
#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {
namespace {

const std::string kMix = "Background" + std::string(31, ' ') + "Foreground";
const std::string kAdditive = "Subtractive" + std::string(36, ' ') + "Additive";

// A tool of the catalogue, the numbers it is given and whether it takes a foreground.
struct ToolCase {
  const char* tool;
  std::vector<std::pair<std::string, double>> numbers;
  bool foreground = true;
  uint32_t flags = 0;
};

// clang-format off
const ToolCase kCases[] = {
  {"ColorGain",  {{"Gain Red", 1.2}, {"Gamma Green", 1.4}, {"Saturation Blue", 0.8}}, false},
  {"ColorSpace", {{"Color Space Conversion", 1}}, false},
  {"ColorSpace", {{"Color Space Conversion", 4}}, false},
  {"Dissolve",   {{"Operation", 0}, {kMix, 0.4}}},
  {"Dissolve",   {{"Operation", 1}, {kMix, 0.4}}},
  {"Dissolve",   {{"Operation", 2}, {kMix, 0.4}}},
  {"Dissolve",   {{"Operation", 3}, {kMix, 0.4}}},
  {"Dissolve",   {{"Operation", 4}, {kMix, 0.4}}},
  {"BoolImg",    {{"Operation", 1}, {"Blend", 0.7}}},
  {"BoolImg",    {{"Operation", 7}, {"Blend", 1.0}}},
  {"Merge",      {}},
  {"Merge",      {{"Size", 1.3}, {"Angle", 30}, {kAdditive, 0.5}, {"Alpha Gain", 0.8}}},
  {"Merge",      {{"Size", 1.3}, {"Angle", 30}}, true, rflag::Quick},
  {"Transform",  {{"Size", 1.3}, {"Angle", 30}, {"Aspect", 1.5}}, false},
  {"Transform",  {{"Size", 0.7}, {"Angle", 200}}, false, rflag::Quick},
  {"Resize",     {{"Width", 23}, {"Height", 67}}, false},
  {"Resize",     {{"Width", 53}, {"Height", 29}}, false, rflag::Quick},
  {"CornerPin",  {}, false},
  {"CornerPin",  {}, false, rflag::Quick},
  {"PerspectivePin", {}, false},
  {"PerspectivePin", {}, false, rflag::Quick},
  {"Drip",       {{"Shape", 0}, {"Amplitude", 0.3}, {"Frequency", 20}}, false},
  {"Drip",       {{"Shape", 2}, {"Amplitude", 0.3}, {"Frequency", 20}}, false},
  {"Drip",       {{"Shape", 2}, {"Amplitude", 0.3}, {"Frequency", 20}}, false, rflag::Quick},
  {"Drip",       {{"Shape", 7}, {"Amplitude", 0.3}, {"Dampening", 0.5}, {"Frequency", 20}}, false},
  {"Vortex",     {{"Size", 1.2}, {"Angle", 200}, {"Power", 1.5}}, false},
  {"Vortex",     {{"Size", 1.2}, {"Angle", 200}, {"Power", 1.5}}, false, rflag::Quick},
  {"CoordSpace", {{"Shape", 0}}, false},
  {"CoordSpace", {{"Shape", 1}}, false},
  {"Dent",       {{"Type", 3}, {"Size", 1.5}, {"Strength", 2}}, false},
  {"Dent",       {{"Type", 5}, {"Size", 1.5}, {"Strength", 2}}, false, rflag::Quick},
};
// clang-format on

// Puts the default thread count back when the test ends.
struct DefaultThreadsAfter {
  ~DefaultThreadsAfter() { SetWorkerThreads(0); }
};

using ThreadCountTest = ColorToolTest;

TEST_F(ThreadCountTest, BytesDoNotDependOnTheThreadCount) {
  DefaultThreadsAfter restore;
  std::mt19937 random(23);
  const auto noise = [&](int n) {
    std::vector<Pixel> out;
    for (int k = 0; k < n; ++k) out.push_back(Pixel::FromWord(uint32_t(random())));
    return out;
  };
  for (const ToolCase& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.tool << " " << (c.numbers.empty() ? 0.0 : c.numbers[0].second));
    Operator* op = Tool(c.tool);
    Link(Source(37, 61, noise(37 * 61)), op, "Image");
    if (c.foreground) Link(Source(31, 53, noise(31 * 53)), op, "Foreground");
    for (const auto& [label, value] : c.numbers) Set(op, label, value);
    std::vector<Pixel> one_thread;
    int next_draw = 0;
    for (int threads : {1, 2, 3, 7}) {
      SetWorkerThreads(threads);
      doc_.InvalidateFrom(op);
      crt_srand(5);
      const std::vector<Pixel> bytes = RenderPixels(op, 0, c.flags);
      const int draw = crt_rand();
      ASSERT_FALSE(bytes.empty());
      if (threads == 1) {
        one_thread = bytes;
        next_draw = draw;
      }
      EXPECT_EQ(bytes, one_thread) << threads << " threads";
      EXPECT_EQ(draw, next_draw) << threads << " threads";
    }
  }
}

}  // namespace
}  // namespace kestrion::test
