// Tracker: the pattern box cut at selection (edges, smallest size, odd and even sides), the
// outputs before any pattern, a feature followed over frames of known motion, ties resolved to
// the earlier row and column, separate patterns per field, and the reference kept in the record
// and in text flows, from which a loaded tool cuts its pattern again.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "host/base/archive.h"
#include "host/document/flow_file.h"
#include "tests/host/image/image_fixtures.h"
#include "tests/host/test_tools.h"
#include "tests/tools/modifier/feature_frames.h"

namespace kestrion {
namespace {

using test::Bgra;
using test::FeatureFrame;
using test::kFeatureCorners;
using test_tools::Picture;

// A frame whose pixel (x, y) holds x in blue and y in green.
Ref<Image> CoordinateFrame(int w, int h) {
  std::vector<uint32_t> words;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) words.push_back(Bgra(x, y, 0, 255));
  return test::MakeFrame(w, h, test::Rows::Owned, words).image;
}

class TrackerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    source_ = test_tools::Make<Picture>(doc_, "TestPicture");
    tracker_ = doc_.CreateTool("Tracker");
    ASSERT_TRUE(source_ && tracker_);
    ASSERT_TRUE(doc_.Connect(source_->out, In("Image")));
  }
  Input* In(const char* label) const { return tracker_->FindInput(0, label); }

  Ref<Parameter> Render(const char* output, double time, uint32_t flags = 0) {
    HostError err;
    Ref<Parameter> v = doc_.Render(tracker_->FindOutput(0, output), time, flags, &err);
    EXPECT_EQ(err.message, "");
    return v;
  }
  std::vector<float> PointAt(const char* output, double time) {
    auto* p = dynamic_cast<Point*>(Render(output, time).get());
    return p ? std::vector<float>{p->x, p->y} : std::vector<float>{};
  }
  // Selects the pattern around `centre` (pixels) at `time`, then turns selection off again.
  Ref<Image> Select(double time, double cx, double cy) {
    const Ref<Image> frame = source_->frames.count(time) ? source_->frames[time] : source_->image;
    In("Center")->SetValue(new Point(float(cx / frame->Width()), float(cy / frame->Height())));
    In("Select Pattern")->SetValue(new Number(1));
    Ref<Parameter> shown = Render("Image", time);
    selected_at_ = PointAt("Position", time);
    In("Select Pattern")->SetValue(new Number(0));
    return Ref<Image>::Share(dynamic_cast<Image*>(shown.get()));
  }
  // The feature at kFeatureCorners on the first frames, its pattern (Size 0.05: 17 x 13) selected
  // on frame 0 within the feature's centre pixel.
  void SelectMovingFeature(size_t frames) {
    for (size_t t = 0; t < frames; ++t) source_->frames[double(t)] = FeatureFrame(320, 240, {kFeatureCorners[t]});
    Select(0, 104.25, 83.25);
  }
  // The tracked position in pixels at a time.
  std::pair<double, double> TrackedAt(double time, const Image& frame) {
    const std::vector<float> p = PointAt("Position", time);
    EXPECT_EQ(p.size(), 2u);
    return p.size() == 2 ? std::pair<double, double>(p[0] * frame.Width(), p[1] * frame.Height())
                         : std::pair<double, double>();
  }

  test_tools::PictureClass pictures_;
  CPipelineDoc doc_;
  Picture* source_ = nullptr;
  Operator* tracker_ = nullptr;
  std::vector<float> selected_at_;  // "Position" while the last selection was made
};

TEST_F(TrackerTest, BeforeAnyPatternThePositionIsZeroAndTheImagePasses) {
  source_->image = FeatureFrame(32, 24, {{4, 4}});
  EXPECT_EQ(PointAt("Position", 3), (std::vector<float>{0, 0}));
  EXPECT_EQ(PointAt("Steady Position", 3), (std::vector<float>{0.5f, 0.5f}));
  EXPECT_EQ(PointAt("Unsteady Position", 3), (std::vector<float>{0.5f, 0.5f}));
  EXPECT_EQ(Render("Image", 3).get(), source_->image.get());
}

// On an 8 x 8 frame every size up to 0.6 gives half-sides of 2 (trunc(8 Size / 2) < 3): 5 x 5
// patterns. A 20 x 16 frame at 0.4 gives 4 and 3: 9 x 7. Patterns are listed by the source
// pixels they hold, (x, y), top row first.
TEST_F(TrackerTest, SelectingCutsThePatternBoxInsideTheFrame) {
  const auto box = [](int left, int top, int w, int h, int width, int height) {
    std::vector<uint32_t> words;
    for (int y = top; y < top + h; ++y)
      for (int x = left; x < left + w; ++x)
        words.push_back(Bgra(std::clamp(x, 0, width - 1), std::clamp(y, 0, height - 1), 0, 255));
    return words;
  };
  const struct {
    const char* what;
    int width, height;
    double size, cx, cy;  // centre in pixels
    std::vector<uint32_t> pattern;
  } cases[] = {
      {"tiny size", 8, 8, 0.001, 4, 4, box(2, 2, 5, 5, 8, 8)},
      {"over the right edge: moved in", 8, 8, 0.1, 7.6, 4, box(3, 2, 5, 5, 8, 8)},
      {"over the bottom edge: moved in", 8, 8, 0.1, 4, 7.9, box(2, 3, 5, 5, 8, 8)},
      {"over the left edge: edge repeated", 8, 8, 0.1, 0.8, 4, box(-1, 2, 5, 5, 8, 8)},
      {"over the top edge: edge repeated", 8, 8, 0.1, 4, 0.4, box(2, -1, 5, 5, 8, 8)},
      {"larger", 20, 16, 0.4, 10, 8, box(6, 5, 9, 7, 20, 16)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    source_->image = CoordinateFrame(c.width, c.height);
    doc_.InvalidateFrom(source_);
    In("Size")->SetValue(new Number(c.size));
    const Ref<Image> pattern = Select(0, c.cx, c.cy);
    ASSERT_TRUE(pattern);
    EXPECT_EQ(test::Words(*pattern), c.pattern);
    EXPECT_EQ(selected_at_, (std::vector<float>{float(c.cx / c.width), float(c.cy / c.height)}));
  }
}

// The feature is followed to within a pixel, and "Center" is keyed where it was found.
TEST_F(TrackerTest, AFeatureIsFollowedWithinAPixel) {
  SelectMovingFeature(kFeatureCorners.size());
  for (size_t t = 1; t < kFeatureCorners.size(); ++t) {
    SCOPED_TRACE(t);
    const auto [x, y] = TrackedAt(double(t), *source_->frames[0]);
    EXPECT_NEAR(x, kFeatureCorners[t].first + 4, 1.0);
    EXPECT_NEAR(y, kFeatureCorners[t].second + 3, 1.0);
    Ref<Point> keyed = In("Center")->ValueAs<Point>(double(t));
    EXPECT_EQ((std::vector<float>{keyed->x, keyed->y}), PointAt("Position", double(t)));
  }
  const std::vector<float> position = PointAt("Position", 5), steady = PointAt("Steady Position", 5);
  const float ref_x = float(104.25 / 320), ref_y = float(83.25 / 240);
  EXPECT_FLOAT_EQ(steady[0], ref_x - position[0] + 0.5f);
  EXPECT_FLOAT_EQ(steady[1], ref_y - position[1] + 0.5f);
  EXPECT_FLOAT_EQ(PointAt("Unsteady Position", 5)[0], position[0] - ref_x + 0.5f);
}

// Two copies of the feature match equally: the one in the earlier row wins, and on one row the
// one in the earlier column.
TEST_F(TrackerTest, TiesGoToTheEarlierRowThenColumn) {
  const struct {
    std::vector<std::pair<int, int>> copies;
    std::pair<int, int> winner;
  } cases[] = {
      {{{40, 150}, {200, 60}}, {200, 60}},
      {{{200, 60}, {40, 60}}, {40, 60}},
  };
  for (const auto& c : cases) {
    source_->frames = {{0.0, FeatureFrame(320, 240, {{120, 100}})}, {1.0, FeatureFrame(320, 240, c.copies)}};
    doc_.InvalidateFrom(source_);
    doc_.RemoveTool(tracker_);
    tracker_ = doc_.CreateTool("Tracker");
    ASSERT_TRUE(doc_.Connect(source_->out, In("Image")));
    Select(0, 124.25, 103.25);
    const auto [x, y] = TrackedAt(1, *source_->frames[0]);
    EXPECT_NEAR(x, c.winner.first + 4, 1.0);
    EXPECT_NEAR(y, c.winner.second + 3, 1.0);
  }
}

// The fields of an interlaced clip (times n and n + 0.5) keep patterns of their own: selected
// on the first field, the tool cuts the second field's pattern from the second field of the
// reference frame, and follows the feature in both though its pixels differ between fields.
TEST_F(TrackerTest, EachFieldKeepsItsOwnPattern) {
  // The second field's feature is the first field's mirrored.
  const auto field = [](std::pair<int, int> at, bool second) {
    Ref<Image> img = FeatureFrame(320, 240, {at});
    if (!second) return img;
    Ref<Image> feature = FeatureFrame(320, 240, {{0, 0}});
    for (int y = 0; y < 7; ++y)
      for (int x = 0; x < 9; ++x) img->Row(at.second + y)[at.first + x] = feature->Row(6 - y)[8 - x];
    return img;
  };
  source_->frames = {{0.0, field({60, 60}, false)}, {0.5, field({60, 60}, true)},
                     {1.0, field({63, 62}, false)}, {1.5, field({63, 62}, true)}};
  Select(0, 64.25, 63.25);
  for (double time : {1.0, 1.5}) {
    const auto [x, y] = TrackedAt(time, *source_->frames[0]);
    EXPECT_NEAR(x, 67, 1.0) << time;
    EXPECT_NEAR(y, 65, 1.0) << time;
  }
  EXPECT_EQ(std::count(source_->times_asked.begin(), source_->times_asked.end(), 0.5), 1)
      << "the second field of the reference frame";
}

// The record holds the reference time and position and the odd-size flag; a loaded tool cuts
// its pattern again from the reference frame and finds the feature where the first one did.
// Text flows hold the same under "data" by name.
TEST_F(TrackerTest, ALoadedTrackerCutsItsPatternFromTheReferenceFrameAgain) {
  SelectMovingFeature(3);
  PointAt("Position", 1);
  const std::vector<float> tracked = PointAt("Position", 2);

  CArchive record, base;
  tracker_->Save(&record, nullptr);
  tracker_->Operator::Save(&base, nullptr);
  CArchive fields;
  fields.WriteDouble(0.0);
  fields.WriteDouble(double(float(104.25 / 320)));
  fields.WriteDouble(double(float(83.25 / 240)));
  fields.WriteInt(1);
  std::vector<uint8_t> expected = {'T', 'r', 'a', 'k'};
  expected.insert(expected.end(), base.Bytes().begin(), base.Bytes().end());
  expected.insert(expected.end(), fields.Bytes().begin(), fields.Bytes().end());
  for (char b : {'\0', '\0', '\0', '\0', 'E', 'n', 'd', 'C'}) expected.push_back(uint8_t(b));
  EXPECT_EQ(record.Bytes(), expected);

  CArchive document;
  doc_.Save(document);
  CArchive in(document.Bytes());
  HostError err;
  auto loaded = CPipelineDoc::Load(in, &err);
  ASSERT_NE(loaded, nullptr) << err.message;
  auto* picture = dynamic_cast<Picture*>(loaded->FindTool(source_->Name()));
  picture->frames = source_->frames;
  Operator* again = loaded->FindTool(tracker_->Name());
  Ref<Parameter> v = loaded->Render(again->FindOutput(0, "Position"), 2, 0, &err);
  auto* p = dynamic_cast<Point*>(v.get());
  ASSERT_NE(p, nullptr) << err.message;
  EXPECT_EQ((std::vector<float>{p->x, p->y}), tracked);
  EXPECT_EQ(picture->times_asked, (std::vector<double>{2.0, 0.0})) << "the reference frame is asked for";

  const std::string text = SaveTextFlow(doc_);
  EXPECT_NE(text.find(R"("reference time": 0.0)"), std::string::npos) << text;
  auto from_text = LoadTextFlow(text, ".", &err);
  ASSERT_NE(from_text, nullptr) << err.message;
  CArchive record_again;
  from_text->FindTool(tracker_->Name())->Save(&record_again, nullptr);
  EXPECT_EQ(record_again.Bytes(), record.Bytes());
}

// Written by hand, the data may leave fields out; "odd sides": 0 cuts patterns of even sides.
TEST_F(TrackerTest, HandWrittenDataTakesDefaultsAndEvenSides) {
  const struct {
    std::string data;
    int pattern_width;
    std::string error;
  } cases[] = {
      {R"({"reference time": 0, "reference position": [0.5, 0.5]})", 5, ""},
      {R"({"reference time": 0, "reference position": [0.5, 0.5], "odd sides": 0})", 4, ""},
      {R"({"reference": 0})", 0, R"(tool "Track1": unknown key "reference" in "data" (valid: "reference time", )"
                                  R"("reference position", "odd sides"))"},
      {R"({"reference position": 0.5})", 0, R"(tool "Track1": "data"."reference position" must be 2 numbers)"},
  };
  for (const auto& c : cases) {
    const std::string flow = R"({"kestrion": 1, "tools": {"Track1": {"class": "Tracker", "data": )" + c.data + "}}}";
    HostError err;
    auto loaded = LoadTextFlow(flow, ".", &err);
    EXPECT_EQ(err.message, c.error);
    if (!loaded) continue;
    Operator* t = loaded->FindTool("Track1");
    Picture* pic = test_tools::Make<Picture>(*loaded, "TestPicture");
    pic->image = CoordinateFrame(8, 8);
    ASSERT_TRUE(loaded->Connect(pic->out, t->FindInput(0, "Image")));
    t->FindInput(0, "Select Pattern")->SetValue(new Number(1));
    Ref<Parameter> shown = loaded->Render(t->FindOutput(0, "Image"), 0, 0, &err);
    auto* pattern = dynamic_cast<Image*>(shown.get());
    ASSERT_NE(pattern, nullptr);
    EXPECT_EQ(pattern->Width(), c.pattern_width);
  }
}

}  // namespace
}  // namespace kestrion
