// Ripple, Vortex, Dent and Coordinate Space on 8 x 8 (or smaller) coordinate sources, worked out
// by hand pixel by pixel, Ripple's random draws, the settings that hand the input on untouched,
// and their records, which saved flows load back. (Their text flow: warp_flow_test.cpp; their
// rows against the references: radial_warp_rows_test.cpp; their bytes at 1, 2, 3 and 7 threads:
// tests/module/thread_count_test.cpp.)
#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

#include "host/base/random.h"
#include "tests/tools/warp/warp_fixture.h"

namespace kestrion::test {
namespace {

using RippleTest = RadialWarpTest;
using VortexTest = RadialWarpTest;
using DentTest = RadialWarpTest;
using CoordinateSpaceTest = RadialWarpTest;

// Ripple about the middle (cx = cy = 4, so fx = (x - 4) / 8 and fy = (y - 4) / 8 exactly). The
// frequencies are chosen so that F' d = pi/2 (F' = frequency pi / 1000) at the pixel's
// distance d: s = 1 + A sin(F' d) = 2, and the pixel reads the point twice as far from the
// centre. The whole-pixel points read their pixel exactly whatever bits sin leaves below them.
TEST_F(RippleTest, ShapesScaleTheOffsetByTheWaveAtTheirDistance) {
  const struct {
    const char* what;
    double shape, frequency, amplitude, dampening, phase;
    uint32_t flags;
    int x, y;
    Pixel expected;
  } cases[] = {
      // r2 = 1/64 picks root table entry 156: int(sqrt(156 * 0.0001f) * 1414.21...) = 176.
      {"circular", 0, 500.0 / 176, 1, 0, 0, 0, 3, 4, At(2, 4)},
      {"square: max(1/8, 2/8) = 1/4, d = 500", 1, 1, 1, 0, 0, 0, 3, 2, At(2, 0)},
      {"horizontal: |fy| = 1/8, d = 250", 3, 2, 1, 0, 0, 0, 5, 3, At(6, 2)},
      {"vertical: |fx| = 1/4, d = 500", 4, 1, 1, 0, 0, 0, 2, 5, At(0, 6)},
      {"exponential: 1/4 * 1/4 * 2000 = 125", 5, 4, 1, 0, 0, 0, 2, 2, At(0, 0)},
      {"star: (1/8) / (1/4) * 2000 * 0.125 = 125", 6, 4, 1, 0, 0, 0, 2, 3, At(0, 2)},
      // atan2(fx, fy) = atan2(1/8, 0) = pi/2, and (pi/2 + pi) * 318.15... = 1499.99..., so d = 1499.
      {"radial", 7, 500.0 / 1499, 1, 0, 0, 0, 5, 4, At(6, 4)},
      {"the centre never moves", 7, 3, 1, 0, 0, 0, 4, 4, At(4, 4)},
      {"sin pi leaves the pixel", 3, 2, 1, 0, 0, 0, 5, 6, At(5, 6)},
      {"sin 3 pi / 2 = -1 draws the centre in", 3, 6, 1, 0, 0, 0, 5, 5, At(4, 4)},
      // a = 0.25 - 1/8 * 1 = 0.125: s = 1.125 reads x = 5.125, 7/8 of 50 and 1/8 of 60.
      {"dampened inside", 4, 2, 0.25, 1, 0, 0, 5, 4, {51, 40, 100, 255}},
      {"dampened to nothing beyond A / D", 4, 2, 0.25, 1, 0, 0, 7, 4, At(7, 4)},
      // Phase 0.75 turns to p = -0.75 + 1: P' = pi/2, and d = 0 on the centre row.
      {"phase", 3, 2, 1, 0, 0.75, 0, 5, 4, At(6, 4)},
      {"phase 1 is phase 0", 3, 2, 1, 0, 1, 0, 5, 4, At(5, 4)},
      // s = 1.5: half way between columns 5 and 6.
      {"full quality", 4, 2, 0.5, 0, 0, 0, 5, 4, {55, 40, 100, 255}},
      // The wave table holds sin(1.570) = 0.99999968 for d = 250: s = 1.49999984 reads x =
      // 1407/256, whose nearest pixel is column 5.
      {"quick", 4, 2, 0.5, 0, 0, rflag::Quick, 5, 4, At(5, 4)},
  };
  Picture* src = CoordinateSource(8, 8);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Operator* ripple = Warp("Drip", src,
                            {{"Shape", c.shape}, {"Frequency", c.frequency}, {"Amplitude", c.amplitude},
                             {"Dampening", c.dampening}, {"Phase", c.phase}});
    EXPECT_EQ(RenderedAt(ripple, c.x, c.y, c.flags), c.expected);
  }
}

// Random draws one number from the C runtime's generator for every pixel but the centre, in
// row order: 5 for a 3 x 2 frame, after which seed 1 goes on with its sixth number, 15724. A
// second render draws on and the pattern changes.
TEST_F(RippleTest, RandomDrawsOncePerPixelButTheCentre) {
  Operator* ripple = Warp("Drip", CoordinateSource(3, 2), {{"Shape", 2}, {"Frequency", 10}, {"Amplitude", 0.5}});
  crt_srand(1);
  Render(ripple);
  EXPECT_EQ(crt_rand(), 15724);

  Operator* large = Warp("Drip", CoordinateSource(16, 16), {{"Shape", 2}, {"Frequency", 10}, {"Amplitude", 0.5}});
  const std::vector<Pixel> first = RenderPixels(large);
  doc_.InvalidateFrom(large);
  EXPECT_NE(RenderPixels(large), first);
}

// Vortex about the middle (4, 4): size 0.5 gives a circle of radius 2 pixels, and a pixel at
// distance r turns by (1 - r / 2)^power times the angle.
TEST_F(VortexTest, TurnsThePixelsInsideTheCircle) {
  const struct {
    const char* what;
    double angle, size, power;
    uint32_t flags;
    int x, y;
    Pixel expected;
  } cases[] = {
      // r = 1, f = 1/2: the turn is 1/4 of 360 degrees, from column 5 down to row 5.
      {"power 2", 360, 0.5, 2, 0, 5, 4, At(4, 5)},
      {"power 1: half of 360", 360, 0.5, 1, 0, 5, 4, At(3, 4)},
      {"power -1: twice 90, growing towards the edge", 90, 0.5, -1, 0, 5, 4, At(3, 4)},
      {"the centre samples itself", 123, 0.5, 2, 0, 4, 4, At(4, 4)},
      {"on the circle: copied", 360, 0.5, 2, 0, 6, 4, At(6, 4)},
      {"outside: copied", 360, 0.5, 2, 0, 7, 7, At(7, 7)},
      // Power 0 turns every pixel inside by the whole angle: column 0 reads column 8, held to 7.
      {"past the frame: its edge", 180, 2, 0, 0, 0, 4, At(7, 4)},
      // A quarter of 180 degrees: the point (4.707, 4.707) mixes four pixels, 47 of 40 and 50...
      {"full quality", 180, 0.5, 2, 0, 5, 4, {47, 47, 100, 255}},
      // ... and its nearest pixel is (5, 5).
      {"quick", 180, 0.5, 2, rflag::Quick, 5, 4, At(5, 5)},
  };
  Picture* src = CoordinateSource(8, 8);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Operator* vortex = Warp("Vortex", src, {{"Angle", c.angle}, {"Size", c.size}, {"Power", c.power}});
    EXPECT_EQ(RenderedAt(vortex, c.x, c.y, c.flags), c.expected);
  }
}

// Dent about the middle: size 1 gives a circle of radius R = 1/2 frame width (4 pixels), strength
// 1 gives k = -1, and a pixel at distance r (in frame widths) reads the point on its radius at
// the profile's new distance.
TEST_F(DentTest, ProfilesMoveThePixelsAlongTheirRadius) {
  const struct {
    const char* what;
    double type, size;
    uint32_t flags;
    int x, y;
    Pixel expected;
  } cases[] = {
      {"Dent 1: 2r - R = 1/4 from r = 3/8", 0, 1, 0, 7, 4, At(6, 4)},
      {"Dent 1: -1/4 from r = 1/8, across the centre", 0, 1, 0, 5, 4, At(2, 4)},
      {"Kaleidascope: 3r - 1 = 1/8", 1, 1, 0, 7, 4, At(5, 4)},
      {"Kaleidascope: -5/8 lands past the left edge, on black", 1, 1, 0, 5, 4, {0, 0, 0, 0}},
      // 2r^2 = 9/32: x = 6.25, a quarter of the way from 60 to 70 (62.5 rounds up).
      {"Dent 2", 2, 1, 0, 7, 4, {63, 40, 100, 255}},
      {"Dent 2, quick: the nearest pixel", 2, 1, rflag::Quick, 7, 4, At(6, 4)},
      {"Dent 3: r - 2 sqrt(r) (1/2 - r) = 0 at r = 1/4", 3, 1, 0, 6, 4, At(4, 4)},
      // 1 - cos(pi/2) is 1 less an ulp: r' = 0.15 and a hair, x = 5.2 mixes 51/256 of 60.
      {"Cosine Dent", 4, 1, 0, 6, 4, {52, 40, 100, 255}},
      // q = 2.5 - 5, sin q = -0.598: r' = 1/4 (1 - 0.598) = 0.1004, x = 4.803 (1229/256).
      {"Sine Dent", 5, 1, 0, 6, 4, {48, 40, 100, 255}},
      {"a type past the list: its own point", 6, 1, 0, 5, 4, At(5, 4)},
      {"a negative type: its own point", -1, 1, 0, 7, 4, At(7, 4)},
      {"the centre is copied", 1, 1, 0, 4, 4, At(4, 4)},
      {"on the circle: copied", 1, 1, 0, 4, 0, At(4, 0)},
      {"size 0: everything copied", 1, 0, 0, 5, 4, At(5, 4)},
  };
  Picture* src = CoordinateSource(8, 8);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Operator* dent = Warp("Dent", src, {{"Type", c.type}, {"Size", c.size}, {"Strength", 1}});
    EXPECT_EQ(RenderedAt(dent, c.x, c.y, c.flags), c.expected);
  }
}

std::vector<Pixel> Sources(const std::vector<std::pair<int, int>>& points) {
  std::vector<Pixel> out;
  for (const auto& [x, y] : points) out.push_back(At(x, y));
  return out;
}

TEST_F(CoordinateSpaceTest, ConvertsBothWaysOnAFourByFour) {
  // Rectangular to polar: column x is the angle (x/4 - 1/2) 2 pi (-pi, -pi/2, 0, pi/2), row y
  // the distance y/4 / sqrt 2; the source is (3 (cos a rho + 1/2), 3 (sin a rho + 1/2)),
  // truncated toward zero (so -0.09 on row 3 still reads column 0). Row 0 repeats (1, 1).
  const std::vector<Pixel> to_polar = Sources({{1, 1}, {1, 1}, {1, 1}, {1, 1},  //
                                               {0, 1}, {1, 0}, {2, 1}, {1, 2},  //
                                               {0, 1}, {1, 0}, {2, 1}, {1, 2},  //
                                               {0, 1}, {1, 0}, {3, 1}, {1, 3}});
  // Polar to rectangular: the source row is 3 rho, rho the distance from (2, 2) over the
  // farthest corner's, and the column 3 (atan2(dy, dx) + pi) / 2 pi; the middle takes (0, 0).
  const std::vector<Pixel> to_rectangular = Sources({{0, 3}, {0, 2}, {0, 2}, {0, 2},  //
                                                     {0, 2}, {0, 1}, {0, 1}, {1, 1},  //
                                                     {3, 2}, {3, 1}, {0, 0}, {1, 1},  //
                                                     {2, 2}, {2, 1}, {2, 1}, {1, 1}});
  Picture* src = CoordinateSource(4, 4);
  EXPECT_EQ(RenderPixels(Warp("CoordSpace", src, {{"Shape", 0}})), to_polar);
  EXPECT_EQ(RenderPixels(Warp("CoordSpace", src, {{"Shape", 1}})), to_rectangular);
}

// On an 8 x 16 frame the last row reaches 15/16 / sqrt 2 of the way out, past the frame at the
// four axis angles: columns 0, 2, 4 and 6 of row 15 read column -1 or 8, or row -2 or 17, and
// are black.
TEST_F(CoordinateSpaceTest, PolarRowsPastTheFrameAreBlack) {
  Operator* tool = Warp("CoordSpace", CoordinateSource(8, 16), {{"Shape", 0}});
  Ref<Image> out = Render(tool);
  ASSERT_TRUE(out);
  for (int x = 0; x < 8; ++x) {
    SCOPED_TRACE(x);
    EXPECT_EQ(Pixel::FromWord(out->Row(15)[x]) == Pixel{}, x % 2 == 0);
  }
}

TEST_F(CoordinateSpaceTest, AShapePastTheListLeavesTheFrameAsMade) {
  EXPECT_EQ(RenderPixels(Warp("CoordSpace", CoordinateSource(3, 2), {{"Shape", 2}})), std::vector<Pixel>(6));
}

// Settings at which a tool hands its input on as the very same image, and one at which Dent
// still renders (size 0 with a strength copies every pixel into a new frame).
TEST_F(RadialWarpTest, NeutralSettingsHandTheInputOn) {
  const struct {
    const char* tool;
    Numbers numbers;
    bool same;
  } cases[] = {
      {"Drip", {{"Amplitude", 0}}, true},
      {"Drip", {{"Frequency", 0}}, true},
      {"Drip", {{"Shape", 8}}, true},
      {"Vortex", {{"Angle", 0}}, true},
      {"Vortex", {{"Angle", -0.0}}, true},
      {"Vortex", {{"Size", 0}}, true},
      {"Dent", {{"Size", 0}, {"Strength", 0}}, true},
      {"Dent", {{"Size", 0}, {"Strength", 1}}, false},
  };
  Picture* src = CoordinateSource(5, 4);
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.tool << " " << c.numbers[0].first << " " << c.numbers[0].second);
    Ref<Image> out = Render(Warp(c.tool, src, c.numbers));
    ASSERT_TRUE(out);
    EXPECT_EQ(out.get() == src->image.get(), c.same);
    EXPECT_EQ(Pixels(*out), Pixels(*src->image));
  }
}

// A record is the class id, the base record, 0 and "EndC"; a saved flow loads back with every
// input's value.
TEST_F(RadialWarpTest, RecordsSaveAndLoad) {
  const struct {
    const char* tool;
    uint32_t class_id;
    Numbers numbers;
  } cases[] = {{"Drip", FourCC("Drip"), {{"Shape", 7}, {"Amplitude", 0.3}, {"Phase", 0.25}}},
               {"Vortex", FourCC("Vort"), {{"Angle", 45}, {"Power", -0.5}}},
               {"CoordSpace", FourCC("CrdS"), {{"Shape", 1}}},
               {"Dent", FourCC("Dent"), {{"Type", 4}, {"Strength", -2}}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tool);
    Operator* op = Warp(c.tool, CoordinateSource(2, 2), c.numbers);
    CArchive whole, base;
    EXPECT_EQ(op->Save(&whole, nullptr), 1u);
    op->Operator::Save(&base, nullptr);
    CArchive expected;
    expected.WriteWord(c.class_id);
    expected.WriteBytes(base.Bytes().data(), base.Bytes().size());
    expected.WriteWord(0);
    expected.WriteWord(FourCC("EndC"));
    EXPECT_EQ(whole.Bytes(), expected.Bytes());
  }
  CArchive saved;
  doc_.Save(saved);
  HostError err;
  CArchive reading(saved.Bytes());
  std::unique_ptr<CPipelineDoc> loaded = CPipelineDoc::Load(reading, &err);
  ASSERT_TRUE(loaded) << err.message;
  CArchive again;
  loaded->Save(again);
  EXPECT_EQ(again.Bytes(), saved.Bytes());
}

}  // namespace
}  // namespace kestrion::test
