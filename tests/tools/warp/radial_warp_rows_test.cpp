// The rows of Ripple, Vortex, Dent and Coordinate Space against their plain references, byte for
// byte: random frames of every width from 1 to 67 at random settings of every mode, full and
// quick, square and stretched pixels, and a mask; then larger frames, where the fast forms run
// on long rows, at settings that push them past their reach.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "host/base/random.h"
#include "tests/tools/warp/warp_fixture.h"
#include "tests/tools/warp/radial_warp_references.h"

namespace kestrion::test {
namespace {

class RadialWarpRowsTest : public RadialWarpTest {
 protected:
  double Uniform(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(random_); }
  int Pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(random_); }

  // A w x h frame of noise (a mask when asked), its pixels stretched by the aspects.
  Picture* NoisePicture(int w, int h, float x_aspect = 1, float y_aspect = 1, bool mask = false) {
    const std::vector<Pixel> pixels = Noise(random_, w * h);
    Picture* pic = Source(w, h, pixels);
    if (mask) {
      std::vector<uint8_t> values;
      for (const Pixel& p : pixels) values.push_back(p.b);
      pic->image = MakeMask(w, h, Rows::Owned, values).image;
    }
    pic->image->x_aspect = x_aspect;
    pic->image->y_aspect = y_aspect;
    return pic;
  }

  // The tool over `src`, its numbers set and its centre at (cx, cy), against the reference's words
  // (a mask's value in all four bytes).
  void Expect(const char* tool, Picture* src, const Numbers& numbers, float cx, float cy, bool quick,
              const std::vector<uint32_t>& expected) {
    SCOPED_TRACE(testing::Message() << tool << " " << testing::PrintToString(numbers) << " at " << cx << ", " << cy
                                    << (quick ? ", quick" : ""));
    Ref<Image> out = Render(Warp(tool, src, numbers, cx, cy), 0, quick ? rflag::Quick : 0);
    ASSERT_TRUE(out);
    EXPECT_EQ(Unchanged(*out), expected);
  }

  // Ripple's random shape draws from the generator as the reference does, and leaves it where the
  // reference does.
  void ExpectRipple(Picture* src, const RippleSettings& s, bool quick) {
    crt_srand(11);
    const std::vector<uint32_t> expected = RippleReference(*src->image, s, quick);
    const int next = crt_rand();
    crt_srand(11);
    Expect("Drip", src,
           {{"Shape", s.shape}, {"Amplitude", s.amplitude}, {"Dampening", s.dampening}, {"Frequency", s.frequency},
            {"Phase", s.phase}},
           s.cx, s.cy, quick, expected);
    EXPECT_EQ(crt_rand(), next) << "the generator is left elsewhere";
  }

  void ExpectVortex(Picture* src, const VortexSettings& s, bool quick) {
    Expect("Vortex", src, {{"Size", s.size}, {"Angle", s.angle}, {"Power", s.power}}, s.cx, s.cy, quick,
           VortexReference(*src->image, s, quick));
  }

  void ExpectDent(Picture* src, const DentSettings& s, bool quick) {
    Expect("Dent", src, {{"Type", s.type}, {"Size", s.size}, {"Strength", s.strength}}, s.cx, s.cy, quick,
           DentReference(*src->image, s, quick));
  }

  void ExpectCoordinateSpace(Picture* src, int shape) {
    Expect("CoordSpace", src, {{"Shape", shape}}, 0.5f, 0.5f, false, CoordinateSpaceReference(*src->image, shape));
  }

  std::mt19937 random_{29};
};

TEST_F(RadialWarpRowsTest, RandomRowsMatchTheReferences) {
  for (int width = 1; width <= 67; ++width) {
    const int height = Pick(1, 6);
    const bool stretched = width % 3 == 0, quick = width % 4 == 1;
    Picture* src = NoisePicture(width, height, stretched ? float(Uniform(0.5, 2)) : 1.0f, stretched ? float(Uniform(0.5, 2)) : 1.0f,
                         width == 20);
    const float cx = float(Uniform(-0.3, 1.3)), cy = float(Uniform(-0.3, 1.3));
    ExpectRipple(src,
                 {.shape = double(width % 9), .cx = cx, .cy = cy, .amplitude = Uniform(0.01, 1),
                  .dampening = width % 2 ? 0.0 : Uniform(0, 3), .frequency = Uniform(0.5, 100), .phase = Uniform(-2, 2)},
                 quick);
    ExpectVortex(src,
                 {.cx = cx, .cy = cy, .size = Uniform(0.05, 3),
                  .angle = Uniform(-720, 720), .power = width % 5 ? Uniform(-1, 10) : double(Pick(-1, 10))},
                 quick);
    ExpectDent(src,
               {.type = double(width % 8 - 1), .cx = cx, .cy = cy, .size = Uniform(0, 3), .strength = Uniform(-5, 10)},
               quick);
    ExpectCoordinateSpace(src, width % 3);
  }
}

// Long rows through the fast forms, at the tools' defaults and at settings beyond their reach:
// turns of millions of degrees, powers that blow up towards the edge, frequencies far past the
// slider, dents many frames wide.
TEST_F(RadialWarpRowsTest, LongRowsMatchTheReferences) {
  Picture* src = NoisePicture(301, 40);
  Picture* stretched = NoisePicture(257, 33, 0.9f, 1.2f);
  for (bool quick : {false, true}) {
    for (int shape = 0; shape < 8; ++shape) {
      ExpectRipple(src, {.shape = double(shape), .cx = 0.45f, .cy = 0.6f, .amplitude = 0.3, .frequency = 40}, quick);
      ExpectRipple(stretched, {.shape = double(shape), .amplitude = 0.2, .dampening = 0.5, .frequency = 7, .phase = 0.3},
                   quick);
    }
    ExpectRipple(src, {.shape = 1, .amplitude = 0.5, .frequency = 3e7}, quick);
    ExpectRipple(src, {.shape = 4, .amplitude = 0.5, .frequency = 1e300, .phase = -1e300}, quick);
    ExpectVortex(src, {}, quick);
    ExpectVortex(stretched, {.cx = 0.3f, .cy = 0.7f, .size = 1.1, .angle = -250, .power = 1.37}, quick);
    ExpectVortex(src, {.size = 2, .angle = 3e6, .power = 0.5}, quick);
    ExpectVortex(src, {.size = 0.9, .angle = 90, .power = -1}, quick);
    ExpectVortex(src, {.cx = 0.2f, .size = 0.7, .angle = 45, .power = -10}, quick);
    for (int type = 0; type < 6; ++type) {
      ExpectDent(src, {.type = double(type), .cx = 0.4f, .cy = 0.55f, .size = 0.8, .strength = 2.5}, quick);
      ExpectDent(stretched, {.type = double(type), .size = 30, .strength = -4}, quick);
    }
  }
  ExpectCoordinateSpace(src, 0);
  ExpectCoordinateSpace(src, 1);
  ExpectCoordinateSpace(stretched, 1);
}

}  // namespace
}  // namespace kestrion::test
