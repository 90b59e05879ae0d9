// `kestrion values`: one JSON line per frame with the shortest digits that read back the same
// number, non-finite results as strings, names by tool or by output, and wrong names refused
// with the list of valid ones.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/cli/command_fixture.h"

namespace kestrion::cli_test {
namespace {

// Calc1 divides (1 + t) by (t - 2); Big multiplies -1e308 by (10 - 5t), beyond the doubles
// but at t = 2; Off1's aspect is t (a Calculation modifier), its points (0.1, 0.2) and
// (0.2, 0.3). Path1 drives Circle1's centre along one straight segment from (0, 0) to
// (0.75, 0.75), handles at thirds, so the point moves at one speed: displacement t / 4 puts it
// at 0.75 t / 4 on both axes; its heading is 10 + atan2(-0.75 * 0.75, 0.75) degrees, the aspect
// factor 0.75 of a new Path. The Loader and Saver have no clip on disk and take no part.
const char* kFlow = R"({"kestrion": 1, "range": [0, 4], "tools": {
  "Calc1": {"class": "Calculation", "inputs": {"First Operand": {"keys": [[0, 1], [4, 5]]}, "Operator": "Divide",
                                               "Second Operand": {"keys": [[0, -2], [4, 2]]}}},
  "Big":   {"class": "Calculation", "inputs": {"First Operand": -1e308, "Operator": "Multiply",
                                               "Second Operand": {"keys": [[0, 10], [4, -10]]}}},
  "Off1":  {"class": "Offset", "inputs": {"Position": [0.1, 0.2], "Offset": [0.2, 0.3],
            "Image Aspect": {"modifier": {"class": "Calculation", "name": "Calc2",
                             "inputs": {"First Operand": {"keys": [[0, 0], [4, 4]]}, "Operator": 2, "Second Operand": 1}}}}},
  "Loader1": {"class": "Loader", "inputs": {"Filename": "missing.####.png"}},
  "Saver1":  {"class": "Saver", "inputs": {"Filename": "out.####.png", "Image": "Loader1"}},
  "Circle1": {"class": "Circle", "inputs": {"Center": {"modifier": {"class": "Path", "name": "Path1",
    "inputs": {"Displacement": {"keys": [[0, 0], [4, 1]], "curve": "linear"}, "Heading Offset": 10},
    "data": {"nodes": [[0, 0], [0.25, 0.25], [0.5, 0.5], [0.75, 0.75]]}}}}}}})";

class ValuesCommandTest : public CommandTest {
 protected:
  void SetUp() override { WriteBytes(dir_.path() / "values.json", kFlow); }
  Outcome Values(std::vector<std::string> args) {
    args.insert(args.begin(), {"values", (dir_.path() / "values.json").string()});
    return RunAll({args})[0];
  }
};

// Worked in double precision from the float points: dx = 0.2f - 0.1f, dy = (0.3f - 0.2f) / t;
// the position 0.3f + 0.2f rounds to 0.5f and 0.2f + 0.1f to 0.3f.
TEST_F(ValuesCommandTest, EachFrameIsOneLineOfShortestDigits) {
  const struct {
    std::vector<std::string> args;
    std::vector<std::string> lines;
  } cases[] = {
      {{"Calc1", "Big.Result"},
       {R"({"frame": 0, "Calc1.Result": -0.5, "Big.Result": "-inf"})",
        R"({"frame": 1, "Calc1.Result": -2, "Big.Result": "-inf"})",
        R"({"frame": 2, "Calc1.Result": 0, "Big.Result": -0})",
        R"({"frame": 3, "Calc1.Result": 4, "Big.Result": "inf"})",
        R"({"frame": 4, "Calc1.Result": 2.5, "Big.Result": "inf"})"}},
      {{"-F", "0-4x2", "Off1"},
       {R"({"frame": 0, "Off1.Position": [0.3, 0.5], "Off1.Angle": -90, "Off1.Distance": "inf"})",
        R"({"frame": 2, "Off1.Position": [0.3, 0.5], "Off1.Angle": -26.56505288462523, "Off1.Distance": 0.11180340220699048})",
        R"({"frame": 4, "Off1.Position": [0.3, 0.5], "Off1.Angle": -14.036244472366043, "Off1.Distance": 0.10307764262817587})"}},
      {{"-F", "0-4x2", "Path1"},
       {R"({"frame": 0, "Path1.Value": [0, 0], "Path1.Heading": -26.86989764584402})",
        R"({"frame": 2, "Path1.Value": [0.375, 0.375], "Path1.Heading": -26.86989764584402})",
        R"({"frame": 4, "Path1.Value": [0.75, 0.75], "Path1.Heading": -26.86989764584402})"}},
      {{"-F", "3", "Calc2.Result", "Calc1"}, {R"({"frame": 3, "Calc2.Result": 3, "Calc1.Result": 4})"}},
  };
  for (const auto& c : cases) {
    const Outcome run = Values(c.args);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(Lines(run.out), c.lines);
  }
  EXPECT_EQ(dir_.Files(), (std::vector<std::string>{"values.json"})) << "nothing is written";
}

TEST_F(ValuesCommandTest, AWrongNameOrFrameListGivesStatus2) {
  const std::string valid = R"((valid: "Calc1.Result", "Big.Result", "Off1.Position", "Off1.Angle", "Off1.Distance", )"
                            R"("Calc2.Result", "Path1.Value", "Path1.Heading"))";
  const struct {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{"Calc1", "Calc3"}, "has no value \"Calc3\" " + valid},
      {{"Off1.Heading"}, "has no value \"Off1.Heading\" " + valid},
      {{"Saver1"}, "has no value \"Saver1\" " + valid},
      {{"-F", "2-7", "Calc1"}, "frames 5-7 lie outside the range 0-4"},
  };
  for (const auto& c : cases) {
    const Outcome run = Values(c.args);
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(Contains(run.err, c.message)) << run.err;
    EXPECT_EQ(run.out, "");
  }
}

}  // namespace
}  // namespace kestrion::cli_test
