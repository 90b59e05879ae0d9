// Loader: request times mapped to clip frames, frames that cannot be read, the clip
// definitions list that names new Loaders' clips, the title, and the adjustments that keep the
// clip range, the extensions and the global span consistent.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "host/document/flow_file.h"
#include "host/graph/registry.h"
#include "host/document/source_operator.h"
#include "tests/tools/clip/clip_fixture.h"

namespace kestrion::clip_test {
namespace {

// What a render gave: "none", "black WxH", "mixed WxH" for pixels that are not all alike, or
// "N" for a 1 x 1 marker frame of number N ("N WxH" for another size).
std::string Seen(const Ref<Image>& img) {
  if (!img) return "none";
  const std::string size = std::to_string(img->Width()) + "x" + std::to_string(img->Height());
  const std::vector<uint32_t> words = Words(img);
  const uint32_t w = words[0];
  if (std::any_of(words.begin(), words.end(), [&](uint32_t x) { return x != w; })) return "mixed " + size;
  if (w == 0) return "black " + size;
  return std::to_string((w & 0xFF) | (w & 0xFF00)) + (size == "1x1" ? "" : " " + size);
}

// "from" up to or down to "to", one file number a frame.
std::vector<std::string> Numbers(int from, int to) {
  std::vector<std::string> shown;
  for (int n = from;; n += from <= to ? 1 : -1) {
    shown.push_back(std::to_string(n));
    if (n == to) return shown;
  }
}
std::vector<std::string> Repeat(const std::string& seen, int frames) { return std::vector<std::string>(size_t(frames), seen); }
std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

class LoaderTest : public ClipToolTest {
 protected:
  Operator* Loader(const std::string& clip) {
    Operator* op = Tool("Loader");
    if (op) SetClip(op, clip);
    return op;
  }
};

// Frames 100..123, clip frames 10..20 placed at global frame 5.
TEST_F(LoaderTest, RequestTimesMapToClipFrames) {
  const std::string clip = dir_ / "plate.####.png";
  WriteSequence(clip, 100, 123);
  const struct {
    const char* what;
    int ef, el, reverse, loop;
    double gout;
    std::vector<std::pair<double, std::string>> renders;
  } cases[] = {
      {"plain", 0, 0, 0, 0, 15,
       {{5, "110"}, {4.9, "none"}, {7.7, "112"}, {15, "120"}, {15.5, "120"}, {15.6, "none"}}},
      {"reverse", 0, 0, 1, 0, 15, {{5, "120"}, {7, "118"}, {15.5, "110"}}},
      {"extend first", 3, 0, 0, 0, 18, {{5, "110"}, {8, "110"}, {9, "111"}, {18.5, "120"}, {18.6, "none"}}},
      // Global frame gin + ef is clip frame ce.
      {"reverse, extend first", 3, 0, 1, 0, 18, {{5, "120"}, {8, "120"}, {9, "119"}, {18, "110"}}},
      {"extend last", 0, 2, 0, 0, 17, {{16, "120"}, {17.5, "120"}, {17.6, "none"}}},
      // A span of 11 frames: gout + 0.5 stays; gout + 0.6 wraps to gin - 0.4, before the span;
      // gout + 1 wraps to gin; 39 wraps three times, to 6. Nothing wraps backwards.
      {"loop", 0, 0, 0, 1, 15, {{15.5, "120"}, {15.6, "none"}, {16, "110"}, {17.3, "111"}, {39, "111"}, {4, "none"}}},
      {"loop, reverse", 0, 0, 1, 1, 15, {{16, "120"}, {18, "118"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Operator* op = Loader(clip);
    ASSERT_TRUE(op);
    for (const auto& [label, v] : std::vector<std::pair<const char*, double>>{
             {"Clip Time End", 20}, {"Clip Time Start", 10}, {"Extend First Frame", c.ef},
             {"Extend Last Frame", c.el}, {"Global In", 5}, {"Reverse", c.reverse}, {"Loop", c.loop}})
      Set(op, label, v);
    EXPECT_EQ(Get(op, "Global Out"), c.gout);
    EXPECT_EQ(In(op, "Global Out")->GetAttrI(srcattr::LoopOn), uint32_t(c.loop));
    for (const auto& [t, expected] : c.renders) EXPECT_EQ(Seen(Render(op, t)), expected) << "at " << t;
  }
}

// What every frame of a text flow's range shows when a Loader is written with only its clip and
// the inputs of the row: the frames numbered first..last on disk (a still: one file showing
// `first`), the range perhaps changed after loading. How a gap shows is MissingFrames'.
TEST_F(LoaderTest, TextFlowsLayClipsOverTheirRange) {
  const struct {
    const char* what;
    const char* clip;
    int first, last;
    TimeExtent range;
    std::string inputs;
    std::optional<TimeExtent> edit;
    std::vector<std::string> shown;
  } rows[] = {
      {"a still", "logo.png", 7, 7, {1, 20}, "", {}, Repeat("7", 20)},
      {"a still, no extension", "logo.png", 7, 7, {1, 3}, R"(, "Extend Last Frame": 0)", {}, {"7", "none", "none"}},
      {"shorter than the range", "c.####.png", 1, 10, {1, 20}, "", {}, Numbers(1, 10) + Repeat("none", 10)},
      {"longer than the range", "c.####.png", 1, 40, {1, 20}, "", {}, Numbers(1, 20)},
      {"numbered from 0", "c.####.png", 0, 39, {1, 20}, "", {}, Numbers(0, 19)},
      {"numbered from 1001", "c.####.png", 1001, 1040, {1, 20}, "", {}, Numbers(1001, 1020)},
      {"a range from 1001", "c.####.png", 1, 40, {1001, 1020}, "", {}, Numbers(1, 20)},
      {"reverse", "c.####.png", 1, 40, {1, 20}, R"(, "Reverse": 1)", {}, Numbers(20, 1)},
      {"loop", "c.####.png", 1, 5, {1, 12}, R"(, "Loop": 1)", {}, Numbers(1, 5) + Numbers(1, 5) + Numbers(1, 2)},
      {"explicit extents", "c.####.png", 1, 40, {1, 20},
       R"(, "Clip Time Start": 10, "Clip Time End": 29, "Global In": 1, "Global Out": 20)", {}, Numbers(11, 30)},
      // Taken as written: not stretched to the range, not cut to it.
      {"a short explicit span", "c.####.png", 1, 40, {1, 12}, R"(, "Global In": 5, "Global Out": 8)", {},
       Repeat("none", 4) + Numbers(1, 4) + Repeat("none", 4)},
      {"only a start", "c.####.png", 1, 40, {1, 12}, R"(, "Global In": 5)", {}, Repeat("none", 4) + Numbers(1, 8)},
      {"the range shortened", "c.####.png", 1, 40, {1, 40}, "", TimeExtent{1, 12}, Numbers(1, 12)},
      {"the range lengthened", "c.####.png", 1, 10, {1, 10}, "", TimeExtent{1, 12}, Numbers(1, 10) + Repeat("none", 2)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const fs::path folder = dir_.path() / std::to_string(&row - rows);
    fs::create_directory(folder);
    WriteSequence((folder / row.clip).string(), row.first, row.last);
    char range[64];
    std::snprintf(range, sizeof range, "[%g, %g]", row.range.start, row.range.end);
    WriteBytes((folder / "flow.json").string(),
               std::string(R"({"kestrion": 1, "range": )") + range + R"(, "tools": {"L": {"class": "Loader", "inputs": {"Filename": ")" +
                   row.clip + "\"" + row.inputs + "}}}}");
    HostError err;
    auto doc = LoadFlowFile((folder / "flow.json").string(), &err);
    ASSERT_TRUE(doc) << err.message;
    if (row.edit) doc->SetRenderRange(*row.edit);
    Output* out = doc->FindTool("L")->Outputs()[0].get();
    std::vector<std::string> shown;
    for (double t = doc->render_range.start; t <= doc->render_range.end; ++t) {
      Ref<Parameter> v = doc->Render(out, t, 0, &err);
      shown.push_back(Seen(Ref<Image>::Share(dynamic_cast<Image*>(v.get()))));
    }
    EXPECT_EQ(shown, row.shown);
  }
}

// A sequence of one frame and a single file: range limits 0; the sequence spans one frame, the
// still holds to the end of the range (0..200).
TEST_F(LoaderTest, OneFrameClips) {
  WriteSequence(dir_ / "one.####.png", 7, 7);
  WriteSequence(dir_ / "still.png", 9, 9);
  const struct {
    const char* name;
    std::string shown;
    double extend_last, gout;
    std::string at_4;
  } cases[] = {{"one.####.png", "7", 0, 3, "none"}, {"still.png", "9", 200, 200, "9"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Operator* op = Loader(dir_ / c.name);
    ASSERT_TRUE(op);
    for (const char* label : {"Clip Time Start", "Clip Time End"}) {
      EXPECT_EQ(In(op, label)->Highest(), 0.0) << label;
      EXPECT_EQ(In(op, label)->GetAttrI(in::Steps), 1u) << label;
      EXPECT_EQ(Get(op, label), 0.0) << label;
    }
    EXPECT_EQ(Get(op, "Extend Last Frame"), c.extend_last);
    Set(op, "Global In", 3);
    EXPECT_EQ(Get(op, "Global Out"), c.gout);
    EXPECT_EQ(Seen(Render(op, 3.5)), c.shown);
    EXPECT_EQ(Seen(Render(op, 4)), c.at_4);
    Set(op, "Loop", 1);
    EXPECT_EQ(Seen(Render(op, 9)), c.shown);
  }
}

// Frames 10..14 at global frames 0..4 (11 is 2 x 2, 13 is 3 x 1); files go while the Loader runs.
TEST_F(LoaderTest, MissingFrames) {
  struct Step {
    int remove;  // a file to delete first, or -1
    double t;
    std::string expected;
  };
  const struct {
    const char* mode;
    std::vector<Step> steps;
  } cases[] = {
      {"Fail", {{12, 2, "none"}, {-1, 1, "11 2x2"}, {-1, 2, "none"}}},
      // The nearest earlier frame on disk, with or without an earlier read; none before frame 0.
      {"Hold Previous", {{12, 2, "11 2x2"}, {11, 2, "10"}, {-1, 4, "14"}, {-1, 2, "10"}, {10, 2, "none"}}},
      // Black of the last size read; none before a first read.
      {"Output Black",
       {{12, 2, "none"}, {-1, 3, "13 3x1"}, {-1, 2, "black 3x1"}, {-1, 1, "11 2x2"}, {-1, 2, "black 2x2"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mode);
    fs::create_directory(dir_.path() / c.mode);
    const std::string clip = dir_ / (std::string(c.mode) + "/plate.####.png");
    WriteSequence(clip, 10, 14);
    WriteSequence(clip, 11, 11, 2, 2);
    WriteSequence(clip, 13, 13, 3, 1);
    Operator* op = Loader(clip);
    ASSERT_TRUE(op);
    Set(op, "Missing Frames", &c - cases);
    for (const Step& s : c.steps) {
      const std::string file = ClipParameter(clip).FramePath(s.remove);
      if (s.remove >= 0) {
        ASSERT_TRUE(fs::remove(file));
      }
      doc_.InvalidateFrom(op);
      TakeFailures();
      EXPECT_EQ(Seen(Render(op, s.t)), s.expected) << "at " << s.t << " after removing " << s.remove;
      if (s.remove >= 0 && s.expected == "none") {
        const std::vector<Failure> failures = TakeFailures();
        EXPECT_TRUE(std::any_of(failures.begin(), failures.end(),
                                [&](const Failure& f) { return f.message.find("'" + file + "'") != std::string::npos; }));
      }
    }
  }
}

// Clips.def is read from the application folder when the class starts up: the test points
// $KESTRION_HOME at folders of its own and starts the class again, then puts both back.
class ClipDefinitionsTest : public LoaderTest {
 protected:
  void SetUp() override {
    LoaderTest::SetUp();
    if (const char* home = std::getenv("KESTRION_HOME")) saved_home_ = home;
  }
  void TearDown() override {
    saved_home_ ? setenv("KESTRION_HOME", saved_home_->c_str(), 1) : unsetenv("KESTRION_HOME");
    StartLoaderClass();
  }
  static void StartLoaderClass() {
    Registry* record = ClassRegistry->FindByName("Loader");
    ASSERT_TRUE(record);
    auto init = reinterpret_cast<ClassInitFn>(const_cast<void*>(record->Tags().GetPointer(reg::ClassInit)));
    ASSERT_TRUE(init);
    EXPECT_EQ(init(record), 1u);
  }
  std::optional<std::string> saved_home_;
};

TEST_F(ClipDefinitionsTest, NewLoadersTakeTheListedNamesInTurn) {
  const struct {
    const char* what;
    std::optional<std::string> file;
    std::vector<std::string> names;  // of four Loaders made one after another
  } cases[] = {
      {"no file", std::nullopt, {"", "", "", ""}},
      {"a last line without a line break is ignored", "a\nb", {"a", "a", "a", "a"}},
      {"no line break at all", "only", {"", "", "", ""}},
      {"CR LF pairs", "one\r\ntwo\r\nthree\r\n", {"one", "two", "three", "one"}},
      {"CR alone", "x\ry\r", {"x", "y", "x", "y"}},
      {"comments and empty lines", "; clips\n\nfirst\n;second\n\n\nthird\n; end\n", {"first", "third", "first", "third"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const fs::path home = dir_.path() / std::to_string(&c - cases);
    fs::create_directory(home);
    if (c.file) WriteBytes((home / "Clips.def").string(), *c.file);
    ASSERT_EQ(setenv("KESTRION_HOME", home.c_str(), 1), 0);
    StartLoaderClass();
    std::vector<std::string> names;
    for (int i = 0; i < 4; ++i) {
      Ref<Parameter> v = Ref<Parameter>::Adopt(In(Tool("Loader"), "Filename")->CurrentValue());
      names.push_back(dynamic_cast<ClipParameter&>(*v).Name());
    }
    EXPECT_EQ(names, c.names);
  }
}

TEST_F(LoaderTest, TitleMasksTheFrameNumber) {
  for (const auto& [clip, shown] : std::vector<std::pair<std::string, std::string>>{
           {"shot0042.tga", "shot####.tga"}, {"shot.0042", "shot.####"}, {"plate.0042.png", "plate.####.png"},
           {"C:\\clips\\shot0042.tga", "shot####.tga"}, {"take12.v2", "take##.v2"}, {"", "No Clip"}}) {
    Operator* op = Loader(clip);
    ASSERT_TRUE(op);
    char title[kTitleSize];
    op->GetTitle(title);
    EXPECT_EQ(std::string(title), op->Name() + ": " + shown) << clip;
  }
}

TEST_F(LoaderTest, ChangingTheClipSelectsAllOfIt) {
  WriteSequence(dir_ / "ten.####.png", 0, 9);
  WriteSequence(dir_ / "five.####.png", 20, 24);
  Operator* op = Loader(dir_ / "ten.####.png");
  ASSERT_TRUE(op);
  Set(op, "Clip Time Start", 3);
  Set(op, "Clip Time End", 6);
  Set(op, "Global In", 2);
  EXPECT_EQ(Get(op, "Global Out"), 5.0);
  SetClip(op, dir_ / "five.####.png");
  for (const char* label : {"Clip Time Start", "Clip Time End"}) {
    EXPECT_EQ(In(op, label)->Highest(), 4.0) << label;
    EXPECT_EQ(In(op, label)->GetAttrD(in::SliderHigh, -1), 4.0) << label;
    EXPECT_EQ(In(op, label)->GetAttrI(in::Steps), 5u) << label;
  }
  EXPECT_EQ(Get(op, "Clip Time Start"), 0.0);
  EXPECT_EQ(Get(op, "Clip Time End"), 4.0);
  EXPECT_EQ(Get(op, "Global Out"), 6.0);
  EXPECT_EQ(Seen(Render(op, 6)), "24");
}

// Over global frames 0..20 with a clip of 10 frames, an extension is cut to what fits, and a
// change that would carry the Loader past frame 20 is undone by the changed clip bound or, for
// any other input, by moving the Loader earlier. A range that shrinks under the Loader takes
// the excess off the last extension, then the clip span (one frame stays), then the first.
TEST_F(LoaderTest, ChangesStayWithinTheGlobalRange) {
  WriteSequence(dir_ / "ten.####.png", 0, 9);
  using Settings = std::vector<std::pair<const char*, double>>;
  const Settings extended{{"Extend First Frame", 3}, {"Extend Last Frame", 4}};  // frames 0..16
  const struct {
    const char* what;
    Settings setup;
    std::pair<const char*, double> change;
    double ef, el, cs, ce, gin, gout;
  } cases[] = {
      {"first extension cut", {}, {"Extend First Frame", 15}, 11, 0, 0, 9, 0, 20},  // 20 - 10 + 1
      {"no room for the last", {{"Extend First Frame", 11}}, {"Extend Last Frame", 5}, 11, 0, 0, 9, 0, 20},
      {"room for the last", {{"Extend First Frame", 4}}, {"Extend Last Frame", 5}, 4, 5, 0, 9, 0, 18},
      {"last extension cut", {{"Extend First Frame", 4}}, {"Extend Last Frame", 9}, 4, 7, 0, 9, 0, 20},
      // 10 + (10 - 2) + 8 - 1 = 25: the start moves on by 5.
      {"clip start", {{"Extend First Frame", 8}, {"Clip Time Start", 5}, {"Global In", 10}}, {"Clip Time Start", 2},
       8, 0, 7, 9, 10, 20},
      {"clip end", {{"Extend First Frame", 8}, {"Clip Time End", 5}, {"Global In", 10}}, {"Clip Time End", 9},
       8, 0, 0, 2, 10, 20},
      // Already past the end (15 + 8 + 1 - 1 = 23): one clip bound cannot pass the other.
      {"clip end held at the start", {{"Extend First Frame", 8}, {"Clip Time Start", 3}, {"Clip Time End", 3}, {"Global In", 15}},
       {"Clip Time End", 9}, 8, 0, 3, 3, 15, 20},
      {"clip start held at the end", {{"Extend First Frame", 8}, {"Clip Time End", 5}, {"Clip Time Start", 5}, {"Global In", 15}},
       {"Clip Time Start", 0}, 8, 0, 5, 5, 15, 20},
      {"another input", {{"Global In", 15}}, {"Reverse", 1}, 0, 0, 0, 9, 11, 20},
      {"range end 16: nothing to cut", extended, {"range end", 16}, 3, 4, 0, 9, 0, 16},
      {"range end 12", extended, {"range end", 12}, 3, 0, 0, 9, 0, 12},
      {"range end 5", extended, {"range end", 5}, 3, 0, 0, 2, 0, 5},
      {"range end 2", extended, {"range end", 2}, 2, 0, 0, 0, 0, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    doc_.SetRenderRange({0, 20});
    Operator* op = Loader(dir_ / "ten.####.png");
    ASSERT_TRUE(op);
    for (const auto& [label, v] : c.setup) Set(op, label, v);
    if (c.change.first == std::string("range end")) {
      doc_.SetRenderRange({0, c.change.second});
    } else {
      Set(op, c.change.first, c.change.second);
    }
    EXPECT_EQ((std::vector{Get(op, "Extend First Frame"), Get(op, "Extend Last Frame"), Get(op, "Clip Time Start"),
                           Get(op, "Clip Time End"), Get(op, "Global In"), Get(op, "Global Out")}),
              (std::vector{c.ef, c.el, c.cs, c.ce, c.gin, c.gout}));
    for (Input* g : {In(op, "Global In"), In(op, "Global Out")})
      EXPECT_EQ((std::pair{g->GetAttrD(srcattr::ExtendFirst, -1), g->GetAttrD(srcattr::ExtendLast, -1)}),
                (std::pair{c.ef, c.el}));
    doc_.RemoveTool(op);
  }
}

}  // namespace
}  // namespace kestrion::clip_test
