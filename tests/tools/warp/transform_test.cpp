// Transform: on 4 x 4 sources whose pixels name themselves, each flip, turns of 90, -90 and 180
// degrees, a moved centre, sizes 2 and 0, an aspect, quick renders, and the settings that hand
// the input (or its mirrored copy) on without sampling; and the rows, sampled along lines, byte
// for byte the per-pixel path as first written.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>

#include "module/image_model.h"
#include "tests/tools/warp/warp_fixture.h"

namespace kestrion::test {
namespace {

struct TransformSettings {
  double flip_h = 0, flip_v = 0;
  float cx = 0.5f, cy = 0.5f;
  double size = 1, aspect = 1, angle = 0;
};

class TransformTest : public WarpTest {
 protected:
  Operator* Transform(Picture* source, const TransformSettings& s) {
    Operator* op = Tool("Transform");
    Link(source, op, "Image");
    Set(op, "Flip Horiz", s.flip_h);
    Set(op, "Flip Vert", s.flip_v);
    In(op, "Centre")->SetValue(new Point(s.cx, s.cy));
    Set(op, "Size", s.size);
    Set(op, "Aspect", s.aspect);
    Set(op, "Angle", s.angle);
    return op;
  }
};

// With the centre at (0.5, 0.5) the frame's centre is (2, 2), a pixel centre, so a half turn
// maps x to 4 - x: the first column and row read outside. A quarter turn reads (4 - y, x).
// Settings that move nothing hand the input object on; a single flip at identity hands on the
// mirrored copy.
TEST_F(TransformTest, MapsPixelsOrHandsTheImageOn) {
  using XY = std::pair<int, int>;
  const struct {
    const char* what;
    TransformSettings s;
    uint32_t flags;
    std::vector<Pixel> expected;
    bool same_object = false;
  } cases[] = {
      {"defaults", {}, 0, Coordinates(4, 4), true},
      {"angle -0", {.angle = -0.0}, 0, Coordinates(4, 4), true},
      {"both flips and angle -180", {.flip_h = 1, .flip_v = 1, .angle = -180}, 0, Coordinates(4, 4), true},
      {"flip -0 is off", {.flip_h = -0.0}, 0, Coordinates(4, 4), true},
      {"flip horizontally", {.flip_h = 1}, 0, Reads(4, 4, [](int x, int y) { return XY{3 - x, y}; })},
      {"a fractional flip is on", {.flip_h = 0.3}, 0, Reads(4, 4, [](int x, int y) { return XY{3 - x, y}; })},
      {"flip vertically", {.flip_v = 1}, 0, Reads(4, 4, [](int x, int y) { return XY{x, 3 - y}; })},
      {"both flips are a half turn", {.flip_h = 1, .flip_v = 1}, 0, Reads(4, 4, [](int x, int y) { return XY{4 - x, 4 - y}; })},
      {"angle 180", {.angle = 180}, 0, Reads(4, 4, [](int x, int y) { return XY{4 - x, 4 - y}; })},
      {"angle 90", {.angle = 90}, 0, Reads(4, 4, [](int x, int y) { return XY{4 - y, x}; })},
      {"angle -90", {.angle = -90}, 0, Reads(4, 4, [](int x, int y) { return XY{y, 4 - x}; })},
      {"angle 90, quick", {.angle = 90}, rflag::Quick, Reads(4, 4, [](int x, int y) { return XY{4 - y, x}; })},
      {"centre a pixel right", {.cx = 0.75f}, 0, Reads(4, 4, [](int x, int y) { return XY{x - 1, y}; })},
      // Output row y reads source row 2 (y - 1): the frame squeezed to half its height.
      {"aspect 2", {.aspect = 2}, 0, Reads(4, 4, [](int x, int y) { return XY{x, 2 * (y - 1)}; })},
      // Steps of half a pixel from (1, 1): nearest reads 1, 2, 2, 3 ((256 + 128 k + 128) >> 8).
      {"size 2, quick", {.size = 2}, rflag::Quick,
       Reads(4, 4, [](int x, int y) { return XY{"\1\2\2\3"[x], "\1\2\2\3"[y]}; })},
      // Bilinear at 1 + k / 2: blue 10 + 5 x, green 10 + 5 y, exactly.
      {"size 2", {.size = 2}, 0, [] {
         std::vector<Pixel> out;
         for (int y = 0; y < 4; ++y)
           for (int x = 0; x < 4; ++x) out.push_back(Pixel{uint8_t(10 + 5 * x), uint8_t(10 + 5 * y), 100, 255});
         return out;
       }()},
      // Size is held at 0.000001: C and du overflow to INT32_MIN. Only row 2 (dy = 0) starts
      // inside the 32-bit range, at column INT32_MIN; every second step wraps u back to 0.
      {"size typed as 0", {.size = 0}, 0, Reads(4, 4, [](int x, int y) { return XY{y == 2 && x % 2 ? 0 : -1, 2}; })},
      {"size typed negative", {.size = -3}, 0, Reads(4, 4, [](int x, int y) { return XY{y == 2 && x % 2 ? 0 : -1, 2}; })},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Picture* source = Source(4, 4, Coordinates(4, 4));
    Ref<Image> out = Render(Transform(source, c.s), 0, c.flags);
    ASSERT_TRUE(out);
    EXPECT_EQ(out.get() == source->image.get(), c.same_object);
    EXPECT_EQ(Pixels(*out), c.expected);
  }
}

// --- The rows against the per-pixel path ---

// Transform as first written: every pixel sampled on its own with DoSample_Black, its position
// stepped from the row start in 16.16 (flips are left out: they are copies).
std::vector<uint32_t> PerPixelTransform(const Image& src, const TransformSettings& s, long quality) {
  using module::TruncToInt;
  const int w = src.Width(), h = src.Height();
  const float size = float(s.size), aspect = float(s.aspect), xs = src.x_aspect, ys = src.y_aspect;
  const float k = ys / aspect, inverse_aspect = 1 / aspect, x0 = -(float(w) * s.cx) / xs;
  const double theta = float(s.angle) * 0.017453292519943295;
  const int32_t c = TruncToInt(65536.0 * std::cos(theta) / size), sn = TruncToInt(65536.0 * std::sin(theta) / size);
  const int32_t du = TruncToInt(65536.0 * (std::cos(theta) / size) / xs);
  const int32_t dv = TruncToInt(65536.0 * (std::sin(theta) / size) / k);
  std::vector<uint32_t> out;
  for (int y = 0; y < h; ++y) {
    const float yd = (float(y) - float(h) * s.cy) / inverse_aspect;
    int32_t u = TruncToInt((x0 * xs * float(c) - k * float(sn) * yd) / xs + 32768.0f * float(w));
    int32_t v = TruncToInt((float(sn) * x0 * xs + k * float(c) * yd) / k + 32768.0f * float(h));
    for (int x = 0; x < w; ++x) {
      Pixel p;
      src.DoSample_Black(&p, u >> 8, v >> 8, quality);
      out.push_back(src.Depth() == 8 ? p.a : p.Word());
      u = module::WrapAdd(u, du);
      v = module::WrapAdd(v, dv);
    }
  }
  return out;
}

std::vector<uint32_t> Values(const Image& img) {
  std::vector<uint32_t> out;
  for (int y = 0; y < img.Height(); ++y)
    for (int x = 0; x < img.Width(); ++x) out.push_back(img.Depth() == 8 ? img.MaskRow(y)[x] : img.Row(y)[x]);
  return out;
}

// Rows of every length from 1 to 67, at random centres, sizes, aspects, angles and pixel
// scales, full and quick, every third source a mask.
TEST_F(TransformTest, RandomRowsMatchThePerPixelPath) {
  std::mt19937 random(29);
  const auto uniform = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(random); };
  for (int width = 1; width <= 67; ++width) {
    const int height = 1 + width % 5;
    Picture* source = Source(width, height, Noise(random, width * height));
    if (width % 3 == 0) {
      std::vector<uint8_t> values;
      for (int i = 0; i < width * height; ++i) values.push_back(uint8_t(random()));
      source->image = MakeMask(width, height, Rows::Owned, values).image;
    }
    source->image->x_aspect = width % 4 == 0 ? float(uniform(0.5, 2)) : 1.0f;
    source->image->y_aspect = width % 7 == 0 ? float(uniform(0.5, 2)) : 1.0f;
    const TransformSettings s{.cx = float(uniform(-0.2, 1.2)), .cy = float(uniform(-0.2, 1.2)), .size = uniform(0.2, 3),
                              .aspect = width % 2 ? 1.0 : uniform(0.2, 5), .angle = width % 5 ? uniform(-360, 360) : 0.0};
    for (long quality : {1L, 0L}) {
      SCOPED_TRACE(testing::Message() << "width " << width << ", quality " << quality);
      Ref<Image> out = Render(Transform(source, s), 0, quality ? 0 : rflag::Quick);
      ASSERT_TRUE(out);
      EXPECT_EQ(Values(*out), PerPixelTransform(*source->image, s, quality));
    }
  }
}

}  // namespace
}  // namespace kestrion::test
