// Time Stretcher: the three source frames chosen around the source time on the source's frame
// grid, their blend by the hand-worked weights, the missing frames at the clip's ends, and the
// blend against a plain Scale8 reference on random rows at several thread counts.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "host/document/flow_file.h"
#include "host/graph/threads.h"
#include "host/image/tables.h"
#include "tests/tools/clip/clip_fixture.h"

namespace kestrion::clip_test {
namespace {

using test::Bgra;

// Frame n of the clip: two pixels whose every byte differs from frame to frame.
std::vector<uint32_t> ClipFrame(int n) {
  return {Bgra(40 * n, 200 - 40 * n, 7 + n, 255), Bgra(255 - 9 * n, 3 * n, 60 * n, 255 - 10 * n)};
}

// The blend of frames p, b and n (clip frame numbers) by the weights, through the host's
// Scale8 table: (Scale8[N][wN] + Scale8[B][wB] + Scale8[P][wP]) >> 8 per byte.
uint32_t BlendByte(uint32_t p, uint32_t b, uint32_t n, int wp, int wb, int wn, int shift) {
  const auto byte = [shift](uint32_t w) { return (w >> shift) & 255; };
  return uint32_t((Scale8[byte(n)][wn] + Scale8[byte(b)][wb] + Scale8[byte(p)][wp]) >> 8) << shift;
}
uint32_t BlendWord(uint32_t p, uint32_t b, uint32_t n, int wp, int wb, int wn) {
  uint32_t out = 0;
  for (int shift = 0; shift < 32; shift += 8) out |= BlendByte(p, b, n, wp, wb, wn, shift);
  return out;
}
std::vector<uint32_t> Blend(int p, int b, int n, int wp, int wb, int wn) {
  std::vector<uint32_t> out;
  for (size_t i = 0; i < 2; ++i) out.push_back(BlendWord(ClipFrame(p)[i], ClipFrame(b)[i], ClipFrame(n)[i], wp, wb, wn));
  return out;
}

class TimeStretcherTest : public ClipToolTest {
 protected:
  void SetUp() override {
    ClipToolTest::SetUp();
    ClipParameter clip(dir_ / "f.####.png");
    for (int n = 0; n <= 4; ++n) ASSERT_EQ(clip.WriteFrame(n, Frame(2, 1, ClipFrame(n)).get(), nullptr), 1u);
  }

  // What a Time Stretcher renders at time 1 in a flow of the clip (frames 0 to 4 at global frames
  // 0 to 4, on the Loader's frame grid of `step` from `origin`), its inputs given as a text flow
  // writes them; null for nothing, which is no failure.
  Ref<Image> Stretched(const std::string& stretcher_inputs, double step = 1, double origin = 0) {
    const std::string flow = R"({"kestrion": 1, "range": [0, 9], "tools": {
        "Loader1": {"class": "Loader", "inputs": {"Filename": "f.####.png"}},
        "Stretch1": {"class": "TimeInterpolator", "inputs": {)" + stretcher_inputs + "}}}}";
    HostError err;
    std::unique_ptr<CPipelineDoc> doc = LoadTextFlow(flow, dir_.path().string(), &err);
    EXPECT_NE(doc, nullptr) << err.message;
    if (!doc) return {};
    doc->FindTool("Loader1")->time_step = step;
    doc->FindTool("Loader1")->time_origin = origin;
    Ref<Parameter> out = doc->Render(doc->FindTool("Stretch1")->Outputs()[0].get(), 1.0, 0, &err);
    EXPECT_EQ(err.message, "");
    return Ref<Image>::Share(dynamic_cast<Image*>(out.get()));
  }
};

// Worked by hand: k = int((d / 2 - t0 + st) / d), tc = k d + t0; f = (0.5 - s)(st - tc) 2 / d;
// wP = int(max(0, s - f) 255), wN = int(max(0, f + s) 255), wB = 255 - wP - wN.
TEST_F(TimeStretcherTest, SourceTimesPickAndBlendTheNearestFrames) {
  const std::string linked = R"("Image": "Loader1")";
  const struct {
    const char* what;
    std::string inputs;
    double step, origin;  // the Loader's frame grid
    std::vector<uint32_t> expected;
  } cases[] = {
      {"on a frame", linked + R"(, "Source Time": 2)", 1, 0, Blend(1, 2, 3, 0, 255, 0)},
      {"a quarter past", linked + R"(, "Source Time": 2.25)", 1, 0, Blend(1, 2, 3, 0, 192, 63)},
      {"a quarter before", linked + R"(, "Source Time": 1.75)", 1, 0, Blend(1, 2, 3, 63, 192, 0)},
      {"halfway picks the later frame", linked + R"(, "Source Time": 2.5)", 1, 0, Blend(2, 3, 4, 127, 128, 0)},
      {"from a modifier", linked + R"(, "Source Time": {"modifier": {"class": "Calculation",
          "inputs": {"First Operand": 2, "Second Operand": 0.25}}})", 1, 0, Blend(1, 2, 3, 0, 192, 63)},
      {"animated", linked + R"(, "Source Time": {"keys": [[0, 0], [4, 9]], "curve": "linear"})", 1, 0,
       Blend(1, 2, 3, 0, 192, 63)},  // 2.25 at frame 1
      {"interpolation off", linked + R"(, "Source Time": 2.25, "Interpolate between frames": 0)", 1, 0,
       Blend(2, 2, 2, 0, 192, 63)},
      {"spread 0.5", linked + R"(, "Source Time": 2, "Sample Spread": 0.5)", 1, 0, Blend(1, 2, 3, 127, 1, 127)},
      {"spread 0.25", linked + R"(, "Source Time": 2.25, "Sample Spread": 0.25)", 1, 0, Blend(1, 2, 3, 31, 129, 95)},
      // At the clip's ends the missing neighbour is the centre frame.
      {"the last frame", linked + R"(, "Source Time": 4)", 1, 0, Blend(3, 4, 4, 0, 255, 0)},
      {"-0.6 rounds to frame 0", linked + R"(, "Source Time": {"keys": [[0, -0.6]]})", 1, 0, Blend(0, 0, 1, 153, 102, 0)},
      // Frames 2 apart: st = 3 lies halfway from 2 to 4 and rounds up to 4; frame 6 is past the clip.
      {"a step of 2", linked + R"(, "Source Time": 3)", 2, 0, Blend(2, 4, 4, 127, 128, 0)},
      {"a step of 2 from 1", linked + R"(, "Source Time": 3.5)", 2, 1, Blend(1, 3, 3, 0, 192, 63)},
      {"a step of 0.5", linked + R"(, "Source Time": 2.7)", 0.5, 0, Blend(2, 2, 3, 0, 153, 102)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Words(Stretched(c.inputs, c.step, c.origin)), c.expected);
  }
}

TEST_F(TimeStretcherTest, WithoutFramesNothingShows) {
  for (const char* inputs : {R"("Source Time": 2)", R"("Image": "Loader1", "Source Time": 8)",
                             R"("Image": "Loader1", "Source Time": {"keys": [[0, -3]]})"})
    EXPECT_FALSE(Stretched(inputs)) << inputs;
}

// Random frames of every width from 1 to 67 (and a few tall ones that make several bands),
// blended at random source times and spreads on 1, 2, 3 and 7 threads, against the reference.
TEST_F(TimeStretcherTest, TheBlendMatchesTheScale8ReferenceOnAnyThreadCount) {
  struct DefaultThreadsAfter {
    ~DefaultThreadsAfter() { SetWorkerThreads(0); }
  } restore;
  std::mt19937 random(5);
  Picture* source = NewPicture();
  Operator* stretch = Tool("TimeInterpolator");
  ASSERT_TRUE(doc_.Connect(source->out, In(stretch, "Image")));
  std::vector<std::pair<int, int>> sizes;
  for (int w = 1; w <= 67; ++w) sizes.emplace_back(w, 1 + w % 3);
  for (int h : {17, 40}) sizes.emplace_back(31, h);
  int case_number = 0;
  for (const auto& [w, h] : sizes) {
    std::vector<std::vector<uint32_t>> words(3);
    for (int t = 0; t < 3; ++t) {
      for (int i = 0; i < w * h; ++i) words[size_t(t)].push_back(uint32_t(random()));
      source->frames[10.0 + t] = Frame(w, h, words[size_t(t)]);
    }
    const double st = 10.5 + std::uniform_real_distribution<double>(0.0, 1.0)(random);
    const double s = std::uniform_real_distribution<double>(0.0, 0.5)(random);
    Set(stretch, "Source Time", st);
    Set(stretch, "Sample Spread", s);
    const double f = (0.5 - s) * (st - 11.0) * 2.0;
    const int wp = int(std::max(0.0, s - f) * 255), wn = int(std::max(0.0, f + s) * 255), wb = 255 - wp - wn;
    std::vector<uint32_t> expected;
    for (int i = 0; i < w * h; ++i)
      expected.push_back(BlendWord(words[0][size_t(i)], words[1][size_t(i)], words[2][size_t(i)], wp, wb, wn));
    const int threads = std::vector<int>{1, 2, 3, 7}[size_t(case_number++ % 4)];
    SetWorkerThreads(threads);
    doc_.InvalidateFrom(source);
    EXPECT_EQ(Words(Render(stretch, 0.0)), expected) << w << "x" << h << " on " << threads << " threads";
  }
}

}  // namespace
}  // namespace kestrion::clip_test
