// Every filter tool gives the same bytes on 1, 2, 3 and 7 worker threads, and leaves the random
// generator at the same place: each case is rendered once per thread count over 61 rows (bands
// of every tool start part way down), its cached result dropped in between.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "host/graph/filter_matrix.h"
#include "tests/tools/filter/filter_fixture.h"

namespace kestrion::test {
namespace {

struct ToolCase {
  const char* tool;
  std::vector<std::pair<std::string, double>> numbers;
  int matrix_size = 0;  // Custom Filter: a random matrix of this size
};

// clang-format off
const ToolCase kCases[] = {
  {"Blur",       {{"Filter", 0}, {"Blur Size", 13.3}}},
  {"Blur",       {{"Filter", 1}, {"Blur Size", 7.7}, {"Blend", 0.4}}},
  {"Blur",       {{"Filter", 2}, {"Blur Size", 21}}},
  {"Blur",       {{"Filter", 4}, {"Blur Size", 9}}},
  {"Glow",       {{"Filter", 0}, {"Glow Size", 4}}},
  {"Glow",       {{"Filter", 1}, {"Glow Size", 6}}},
  {"UserFilter", {}, 3},
  {"UserFilter", {{"Normalize", -0.3}}, 7},
  {"Filter",     {{"FilterType", 0}, {"Power", 2}}},
  {"Filter",     {{"FilterType", 2}, {"Power", 1}}},
  {"Filter",     {{"FilterType", 2}, {"Power", 2}, {"Median Point", 0.3}}},
  {"Filter",     {{"FilterType", 2}, {"Power", 3}}},
  {"Filter",     {{"FilterType", 3}, {"Power", 4}}},
  {"Filter",     {{"FilterType", 4}, {"Power", 6}}},
  {"Filter",     {{"FilterType", 5}}},
  {"Filter",     {{"FilterType", 6}}},
  {"Filter",     {{"FilterType", 7}, {"Power", 5}}},
  {"MotionBlur", {{"Type", 0}, {"Length", -0.07}, {"Angle", 25}}},
  {"MotionBlur", {{"Type", 1}, {"Length", 0.05}, {"Angle", 70}, {"Edges", 1}}},
};
// clang-format on

using FilterThreadCountTest = FilterToolTest;

TEST_F(FilterThreadCountTest, BytesDoNotDependOnTheThreadCount) {
  std::uniform_int_distribution<int> weight(-128, 127);
  for (const ToolCase& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.tool << " " << (c.numbers.empty() ? 0.0 : c.numbers[0].second));
    Operator* op = Tool(c.tool);
    Link(RandomSource(37, 61), op, "Image");
    for (const auto& [label, value] : c.numbers) Set(op, label, value);
    if (c.matrix_size) {
      std::vector<int> block(size_t(c.matrix_size * c.matrix_size));
      for (int& v : block) v = weight(random_);
      In(op, "Matrix")->SetValue(new LookUpTable(filter_matrix::OfBlock(c.matrix_size, block)));
    }
    ExpectSameOnEveryThreadCount(op, 37 * 61, 2.0);
  }
}

}  // namespace
}  // namespace kestrion::test
