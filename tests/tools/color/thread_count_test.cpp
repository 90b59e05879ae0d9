// Every threaded tool (colour, compositing, matte and warp) gives the same bytes on 1, 2, 3 and 7
// worker threads, and leaves the random generator at the same place: each case is rendered once
// per thread count over 61 rows (several bands), its cached result dropped in between.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

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
  size_t out_pixels = 37 * 61;  // the output's size, where the tool changes it
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
  // The matte tools, with their blurs' running sums started afresh in each band.
  {"Keyer",        {}, false},
  {"Keyer",        {{"Red Low", .3}, {"Red High", .7}, {"Luminance High", .8}, {"Pre Matte Blur", 5}, {"Matte Blur", 20},
                    {"Matte Halo", .5}}, false},
  {"ChromaKey",    {{"Red Low", .3}, {"Red High", .6}, {"Soft Range", .5}, {"Matte Blur", 30}, {"Matte Halo", .3}}, false},
  {"Threshold",    {{"Channel", 2}, {"Low", .2}, {"High", .8}, {"Matte Blur", 50}}, false},
  {"MatteControl", {{"Matte Blur", 12}, {"Matte Contrast", .2}}, false},
  {"MatteControl", {{"Matte Blur", 7000}}, false},  // 64-bit sums
  {"Transform",  {{"Size", 1.3}, {"Angle", 30}, {"Aspect", 1.5}}, false},
  {"Transform",  {{"Size", 0.7}, {"Angle", 200}}, false, rflag::Quick},
  {"Resize",     {{"Width", 23}, {"Height", 67}}, false, 0, 23 * 67},
  {"Resize",     {{"Width", 53}, {"Height", 29}}, false, rflag::Quick, 53 * 29},
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

using ThreadCountTest = ColorToolTest;

TEST_F(ThreadCountTest, BytesDoNotDependOnTheThreadCount) {
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
    ExpectSameOnEveryThreadCount(op, c.out_pixels, 0, c.flags);
  }
}

}  // namespace
}  // namespace kestrion::test
