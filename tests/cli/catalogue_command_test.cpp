// `kestrion tools --json` shows every registration tag: here the two that came last, the flag
// of the tools that make or reshape frames (0x1000000e) and the value type a modifier gives
// (0x10000010).
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <map>
#include <string>

#include "tests/cli/command_fixture.h"

namespace kestrion::cli_test {
namespace {

using CatalogueCommandTest = CommandTest;

TEST_F(CatalogueCommandTest, ToolsShowTheFrameFlagAndTheModifiersValueType) {
  const Outcome run = RunAll({{"tools", "--json"}})[0];
  ASSERT_EQ(run.status, 0) << run.err;
  std::map<std::string, std::pair<int, std::string>> shown;
  int flagged = 0;
  for (const auto& c : nlohmann::json::parse(run.out)) {
    const int flag = c["makes_frames"];
    flagged += flag;
    shown[c["name"]] = {flag, c["modifier_type"].is_null() ? "-" : c["modifier_type"].get<std::string>()};
  }
  const std::map<std::string, std::pair<int, std::string>> expected = {
      {"TimeInterpolator", {1, "-"}}, {"Tracker", {1, "-"}}, {"Merge", {0, "-"}},
      {"Path", {0, "Poin"}},          {"Calculation", {0, "Numb"}}, {"Offset", {0, "-"}}};
  for (const auto& [name, facts] : expected) EXPECT_EQ(shown[name], facts) << name;
  EXPECT_EQ(flagged, 9);
}

}  // namespace
}  // namespace kestrion::cli_test
