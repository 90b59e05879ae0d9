// `kestrion values` of a Path driving a Circle's centre: the point and heading frame by frame.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/cli/command_fixture.h"

namespace kestrion::cli_test {
namespace {

using PathValuesTest = CommandTest;

// One straight segment from (0, 0) to (0.75, 0.75), handles at thirds, so the point moves at one
// speed: displacement t / 4 puts it at 0.75 t / 4 on both axes. Heading: 10 + atan2(-0.75 *
// 0.75, 0.75) degrees, the aspect factor 0.75 of a new Path.
TEST_F(PathValuesTest, APathsValueAndHeadingOverARange) {
  WriteBytes(dir_.path() / "path.json", R"({"kestrion": 1, "range": [0, 4], "tools": {
    "Circle1": {"class": "Circle", "inputs": {"Center": {"modifier": {"class": "Path", "name": "Path1",
      "inputs": {"Displacement": {"keys": [[0, 0], [4, 1]], "curve": "linear"}, "Heading Offset": 10},
      "data": {"nodes": [[0, 0], [0.25, 0.25], [0.5, 0.5], [0.75, 0.75]]}}}}}}})");
  const Outcome run = RunAll({{"values", (dir_.path() / "path.json").string(), "-F", "0-4", "Path1"}})[0];
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(Lines(run.out), (std::vector<std::string>{
                                R"({"frame": 0, "Path1.Value": [0, 0], "Path1.Heading": -26.86989764584402})",
                                R"({"frame": 1, "Path1.Value": [0.1875, 0.1875], "Path1.Heading": -26.86989764584402})",
                                R"({"frame": 2, "Path1.Value": [0.375, 0.375], "Path1.Heading": -26.86989764584402})",
                                R"({"frame": 3, "Path1.Value": [0.5625, 0.5625], "Path1.Heading": -26.86989764584402})",
                                R"({"frame": 4, "Path1.Value": [0.75, 0.75], "Path1.Heading": -26.86989764584402})"}));
}

}  // namespace
}  // namespace kestrion::cli_test
