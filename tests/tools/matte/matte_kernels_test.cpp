// The matte tools against their plain scalar references, on random images of every row length
// from 1 to 67 and 17 rows, for a spread of settings that turns every stage on and off, every
// backing, channel and garbage mode, and blurs from a fraction of a pixel to wider than the
// image (sums of 64 bits included).
#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/tools/color/color_fixture.h"
#include "tests/tools/matte/matte_references.h"

namespace kestrion::test {
namespace {

constexpr int kLongestRow = 67, kRows = 17;
const char* const kRangeLabels[8] = {"Red Low",  "Red High",  "Green Low",     "Green High",
                                     "Blue Low", "Blue High", "Luminance Low", "Luminance High"};

class MatteKernelTest : public ColorToolTest {
 protected:
  Vec Noise(int count) {
    Vec out(static_cast<size_t>(count));
    for (uint32_t& p : out) p = uint32_t(random_());
    return out;
  }
  // For every row length w, a random image through the tool under each setting, against the
  // reference; set(tool, setting, w) sets the inputs and links anything else the tool takes.
  template <class Settings>
  void CheckEveryLength(const char* tool, const std::vector<Settings>& settings,
                        const std::function<void(Operator*, const Settings&, int)>& set,
                        const std::function<Vec(const Vec&, int, const Settings&)>& expected) {
    for (int w = 1; w <= kLongestRow; ++w) {
      const Vec pixels = Noise(w * kRows);
      Picture* src = test_tools::Make<Picture>(doc_, "TestPicture");
      src->image = MakeFrame(w, kRows, Rows::Owned, pixels).image;
      Operator* op = Tool(tool);
      Link(src, op, "Image");
      for (size_t i = 0; i < settings.size(); ++i) {
        set(op, settings[i], w);
        const Ref<Image> out = Render(op);
        ASSERT_TRUE(out) << "width " << w;
        ASSERT_EQ(Words(*out), expected(pixels, w, settings[i])) << "width " << w << ", setting " << i;
      }
    }
  }
  static void SetRanges(Operator* op, const double (&ranges)[8]) {
    for (int i = 0; i < 8; ++i) Set(op, kRangeLabels[i], ranges[i]);
  }
  static void SetAll(Operator* op, std::initializer_list<std::pair<const char*, double>> values) {
    for (const auto& [label, v] : values) Set(op, label, v);
  }

  std::mt19937 random_{7011};
};

TEST_F(MatteKernelTest, KeyerMatchesTheReference) {
  // clang-format off
  const std::vector<KeyerSettings> settings = {
    // ranges                                          backing pre blur contrast blur contrast gamma halo  halo gamma
    {{0, 1, 0, 1, 0, 1, 0, 1},                         0,      0.1f,    0,       0,   0,       1,    0,    1},
    {{.3, .7, .3, .7, .3, .7, .3, .7},                 0,      0.1f,    0,       0,   0,       1,    0,    1},
    {{.3, .7, .3, .7, .3, .7, .3, .7},                 1,      0,       .3f,     0,   0,       1,    .5f,  2},
    {{.2, .8, .25, .6, .1, .9, .1, .95},               0,      20,      -.4f,    30,  .5f,     .7f,  .6f,  1.8f},
    {{.2, .8, .25, .6, .1, .9, .1, .95},               1,      0,       0,       45,  -.2f,    2,    1,    .5f},
    {{.35, .65, .2, .8, .3, .7, 0, 1},                 2,      3,       .9f,     .5f, 0,       1,    .3f,  1},
  };
  // clang-format on
  CheckEveryLength<KeyerSettings>(
      "Keyer", settings,
      [](Operator* op, const KeyerSettings& s, int) {
        SetRanges(op, s.ranges);
        SetAll(op, {{"Color Background", s.backing}, {"Pre Matte Blur", s.pre_blur},
                    {"Pre Matte Contrast", s.pre_contrast}, {"Matte Blur", s.blur}, {"Matte Contrast", s.contrast},
                    {"Matte Gamma", s.gamma}, {"Matte Halo", s.halo}, {"Halo Gamma", s.halo_gamma}});
      },
      [](const Vec& in, int w, const KeyerSettings& s) { return KeyerReference(in, w, kRows, s); });
}

TEST_F(MatteKernelTest, ChromaKeyerMatchesTheReference) {
  // clang-format off
  const std::vector<ChromaSettings> settings = {
    // ranges                                          soft  blur contrast gamma halo
    {{.3, .7, .3, .7, .3, .7, .3, .7},                 0,    0,   0,       1,    0},
    {{.4, .6, .45, .5, .2, .7, .1, .9},                .5,   20,  -.3f,    1.5f, .4f},
    {{.6, .9, .1, .4, .5, .55, 0, .01},                1,    0,   .2f,     1,    1},
    {{.7, .3, .5, .5, .9, .2, .8, .6},                 .25,  .5f, 0,       .3f,  .05f},
  };
  // clang-format on
  CheckEveryLength<ChromaSettings>(
      "ChromaKey", settings,
      [](Operator* op, const ChromaSettings& s, int) {
        SetRanges(op, s.ranges);
        SetAll(op, {{"Soft Range", s.soft}, {"Matte Blur", s.blur}, {"Matte Contrast", s.contrast},
                    {"Matte Gamma", s.gamma}, {"Matte Halo", s.halo}});
      },
      [](const Vec& in, int w, const ChromaSettings& s) { return ChromaReference(in, w, kRows, s); });
}

TEST_F(MatteKernelTest, LumaKeyerMatchesTheReference) {
  std::vector<LumaSettings> settings;
  for (double channel : {0.0, 1.0, 2.2, 2.6, 4.0, 7.0})
    for (double invert : {0.0, 1.0}) settings.push_back({channel, .2, .7, 0, 0, 1, invert});
  settings.push_back({4, .5, .5, 12, .4, .6, 0});    // no ramp
  settings.push_back({2, .8, .3, 50, -.6, 2.5, 1});  // low above high
  settings.push_back({1, 0, 1, .2, 0, 1, .5});
  CheckEveryLength<LumaSettings>(
      "Threshold", settings,
      [](Operator* op, const LumaSettings& s, int) {
        SetAll(op, {{"Channel", s.channel}, {"Low", s.low}, {"High", s.high}, {"Matte Blur", s.blur},
                    {"Matte Contrast", s.contrast}, {"Matte Gamma", s.gamma}, {"Invert", s.invert}});
      },
      [](const Vec& in, int w, const LumaSettings& s) { return LumaReference(in, w, kRows, s); });
}

TEST_F(MatteKernelTest, MatteControlMatchesTheReference) {
  // Garbage mattes of the image's width and twice it, with rows to spare or too few.
  struct Case {
    ControlSettings s;
    int mask_scale, mask_rows;  // mask width = scale x image width; 0: no mask
  };
  // clang-format off
  const std::vector<Case> cases = {
    // blur  contrast gamma invert mode  mask
    {{0,     0,       1,    0,     0},   0, 0},
    {{0,     .3f,     .8f,  1,     0},   1, kRows},
    {{7,     0,       1,    .5,    1},   1, kRows - 5},
    {{30,    -.5f,    1.5f, 1,     1},   2, 2 * kRows},
    {{.4f,   0,       2,    0,     0},   2, 2 * kRows - 3},
    {{4000,  0,       1,    0,     1},   1, kRows},   // wider than the image: 64-bit sums from width 58
    {{20,    0,       1,    0,     3},   1, kRows},   // a mode off the list
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "blur " << c.s.blur << ", mode " << c.s.mode << ", mask x" << c.mask_scale);
    Bytes mask;
    int mask_w = 0;
    CheckEveryLength<ControlSettings>(
        "MatteControl", {c.s},
        [&](Operator* op, const ControlSettings& s, int w) {
          SetAll(op, {{"Matte Blur", s.blur}, {"Matte Contrast", s.contrast}, {"Matte Gamma", s.gamma},
                      {"Invert Matte", s.invert}});
          op->FindInput(FourCC("GMMd"))->SetValue(new Number(s.mode));
          if (c.mask_scale == 0) return;
          mask_w = c.mask_scale * w;
          mask.resize(size_t(mask_w * c.mask_rows));
          for (uint8_t& m : mask) m = uint8_t(random_() % 4 == 0 ? 1 : random_());
          Picture* g = test_tools::Make<Picture>(doc_, "TestPicture");
          g->image = MakeMask(mask_w, c.mask_rows, Rows::Owned, mask).image;
          ASSERT_TRUE(doc_.Connect(g->out, op->FindInput(FourCC("GMat"))));
        },
        [&](const Vec& in, int w, const ControlSettings& s) {
          return ControlReference(in, w, kRows, s, mask, mask_w, c.mask_rows);
        });
  }
}

}  // namespace
}  // namespace kestrion::test
