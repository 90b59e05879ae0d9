// `kestrion track`: a feature followed over a clip on disk, one JSON line per frame, the flow
// saved with "Center" keyed at every frame (the original kept as .bak) so that it reloads and
// renders the same track; wrong commands refused; a stop signal changes no file.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <signal.h>

#include <chrono>
#include <cmath>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/clip/clip.h"
#include "host/document/flow_file.h"
#include "tests/cli/command_fixture.h"
#include "tests/tools/modifier/feature_frames.h"

namespace kestrion::cli_test {
namespace {

using Json = nlohmann::json;

using test::kFeatureCorners;  // on frames 1 to 6 of the clip

class TrackCommandTest : public CommandTest {
 protected:
  void SetUp() override {
    ClipParameter clip(dir_ / "f.####.png");
    for (size_t i = 0; i < kFeatureCorners.size(); ++i)
      ASSERT_EQ(clip.WriteFrame(int(i + 1), test::FeatureFrame(320, 240, {kFeatureCorners[i]}).get(), nullptr), 1u);
    // The feature's centre on frame 1 is pixel (104, 83); Center lies a little inside it.
    flow_ = R"({"kestrion": 1, "range": [1, 6], "tools": {
      "Loader1": {"class": "Loader", "inputs": {"Filename": "f.####.png"}},
      "Tracker1": {"class": "Tracker", "inputs": {"Center": [0.3255, 0.346], "Image": "Loader1"}}}})";
    WriteBytes(dir_ / "flow.json", flow_);
  }
  Outcome Track(std::vector<std::string> more) {
    more.insert(more.begin(), {"track", dir_ / "flow.json", "Tracker1"});
    return RunAll({more})[0];
  }

  std::string flow_;
};

TEST_F(TrackCommandTest, TheTrackIsPrintedAndSavedInTheFlow) {
  const Outcome run = Track({"-F", "1-6"});
  ASSERT_EQ(run.status, 0) << run.err;
  const std::vector<std::string> lines = Lines(run.out);
  ASSERT_EQ(lines.size(), kFeatureCorners.size());
  EXPECT_TRUE(Contains(run.err, "frame 6 done")) << run.err;
  EXPECT_EQ(ReadBytes(dir_ / "flow.json.bak"), flow_);

  HostError err;
  auto doc = LoadFlowFile(dir_ / "flow.json", &err);
  ASSERT_NE(doc, nullptr) << err.message;
  Operator* tracker = doc->FindTool("Tracker1");
  const Spline* keys = tracker->FindInput(0, "Center")->Animation();
  ASSERT_NE(keys, nullptr);
  ASSERT_EQ(keys->Keys().size(), kFeatureCorners.size());
  EXPECT_EQ(tracker->FindInput(0, "Select Pattern")->ValueAs<Number>()->value, 0.0);
  const Json data = Json::parse(ReadBytes(dir_ / "flow.json"))["tools"]["Tracker1"]["data"];
  EXPECT_EQ(data["reference time"], 1.0);
  EXPECT_EQ(data["reference position"], Json::array({double(0.3255f), double(0.346f)}));
  for (size_t i = 0; i < kFeatureCorners.size(); ++i) {
    SCOPED_TRACE(i + 1);
    const Json line = Json::parse(lines[i]);
    EXPECT_EQ(line["frame"], i + 1);
    const double x = line["Position"][0], y = line["Position"][1];
    EXPECT_NEAR(x * 320, kFeatureCorners[i].first + 4, 1.0);
    EXPECT_NEAR(y * 240, kFeatureCorners[i].second + 3, 1.0);
    EXPECT_NEAR(line["Unsteady Position"][0], x - double(0.3255f) + 0.5, 1e-6);
    const KeyPoint& key = keys->Keys()[i];
    EXPECT_EQ(key.time, double(i + 1));
    EXPECT_EQ(float(key.value[0]), float(x));
    EXPECT_EQ(float(key.value[1]), float(y));
  }
  // The saved flow renders the track: its Tracker cuts the pattern from frame 1 again.
  Ref<Parameter> found = doc->Render(tracker->FindOutput(0, "Position"), 5, 0, &err);
  auto* p = dynamic_cast<Point*>(found.get());
  ASSERT_NE(p, nullptr) << err.message;
  EXPECT_NEAR(p->x * 320, kFeatureCorners[4].first + 4, 1.0);
  EXPECT_NEAR(p->y * 240, kFeatureCorners[4].second + 3, 1.0);
}

TEST_F(TrackCommandTest, AnOutputFlowLeavesTheFlowAlone) {
  const Outcome run = Track({"-F", "2-3", "-o", dir_ / "out.kfl"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(Lines(run.out).size(), 2u);
  EXPECT_EQ(ReadBytes(dir_ / "flow.json"), flow_);
  EXPECT_EQ(dir_.Files(), (std::vector<std::string>{"f.0001.png", "f.0002.png", "f.0003.png", "f.0004.png",
                                                    "f.0005.png", "f.0006.png", "flow.json", "out.kfl"}));
}

TEST_F(TrackCommandTest, WrongCommandsGiveStatus2) {
  WriteBytes(dir_ / "flow.json", R"({"kestrion": 1, "range": [1, 6], "tools": {
      "Loader1": {"class": "Loader", "inputs": {"Filename": "f.####.png"}},
      "Tracker1": {"class": "Tracker", "inputs": {"Image": "Loader1"}}, "Tracker2": {"class": "Tracker"}}})");
  const struct {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{"track", dir_ / "flow.json", "Loader1", "-F", "1-3"}, R"(has no Tracker "Loader1" (valid: "Tracker1", "Tracker2"))"},
      {{"track", dir_ / "flow.json", "Tracker2", "-F", "1-3"}, R"(tool "Tracker2": its "Image" input is not connected)"},
      {{"track", dir_ / "flow.json", "Tracker1", "-F", "1-5x2"}, "a track runs over every frame"},
      {{"track", dir_ / "flow.json", "Tracker1", "-F", "1-9"}, "frames 7-9 lie outside the range 1-6"},
      {{"track", dir_ / "flow.json", "Tracker1", "-F", "1-3", "-o", dir_ / "out.txt"}, "a flow file ends in .json or .kfl"},
      {{"track", dir_ / "flow.json", "Tracker1"}, "--frames is required"},
  };
  for (const auto& c : cases) {
    const Outcome run = RunAll({c.args})[0];
    EXPECT_EQ(run.status, 2) << c.message;
    EXPECT_TRUE(Contains(run.err, c.message)) << run.err;
  }
  EXPECT_EQ(dir_.Files().size(), 7u) << "nothing written";
}

// A long track (the clip looped) stopped by SIGINT: status 130, the flow as it was, nothing new.
TEST_F(TrackCommandTest, AStopSignalChangesNoFile) {
  const std::string long_flow = R"({"kestrion": 1, "range": [1, 100000], "tools": {
      "Loader1": {"class": "Loader", "inputs": {"Filename": "f.####.png", "Loop": 1}},
      "Tracker1": {"class": "Tracker", "inputs": {"Center": [0.3255, 0.346], "Image": "Loader1"}}}})";
  WriteBytes(dir_ / "flow.json", long_flow);
  const std::vector<std::string> before = dir_.Files();
  const pid_t pid = Start({"track", dir_ / "flow.json", "Tracker1", "-F", "1-100000"}, "long");
  ASSERT_GT(pid, 0);
  using Clock = std::chrono::steady_clock;
  for (const auto give_up = Clock::now() + std::chrono::seconds(60);
       Lines(ReadBytes(dir_ / "long.out")).size() < 3 && Clock::now() < give_up;)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_EQ(::kill(pid, SIGINT), 0);
  int wait_status = 0;
  ASSERT_EQ(::waitpid(pid, &wait_status, 0), pid);
  EXPECT_EQ(StatusOf(wait_status), 128 + SIGINT);
  EXPECT_EQ(ReadBytes(dir_ / "flow.json"), long_flow);
  std::vector<std::string> after = dir_.Files();
  std::erase(after, "long.out");
  std::erase(after, "long.err");
  EXPECT_EQ(after, before);
}

}  // namespace
}  // namespace kestrion::cli_test
