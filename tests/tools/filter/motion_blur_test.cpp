// Motion Blur: linear samples in both directions with both edge modes, the quick render's
// sparser samples, a radial zoom worked by hand, and both types against a plain reference on
// random images of every width (a zero length copies).
#include <cmath>
#include <cstdint>

#include "tests/tools/filter/filter_fixture.h"

namespace kestrion::test {
namespace {

class MotionBlurTest : public FilterToolTest {
 protected:
  Operator* Motion(Picture* src, int type, int edges, double length, double angle = 0) {
    Operator* op = Tool("MotionBlur");
    Link(src, op, "Image");
    Set(op, "Type", type);
    Set(op, "Edges", edges);
    Set(op, "Length", length);
    Set(op, "Angle", angle);
    return op;
  }
};

// Eight pixels, Length -0.5: L = 4, samples at k = 1, 2, 3 along (-cos 0, sin 0) = one pixel to
// the left each; a positive Length turns them to the right. Duplicate leaves out the samples
// past the edge; Black counts them as black.
TEST_F(MotionBlurTest, LinearSamples) {
  const std::vector<int> dot = {0, 0, 0, 0, 100, 0, 0, 0}, flat(8, 80);
  EXPECT_EQ(RenderPixels(Motion(Source(8, 1, Greys(dot)), 0, 0, -0.5)), Greys({0, 0, 0, 0, 25, 25, 25, 25}));
  EXPECT_EQ(RenderPixels(Motion(Source(8, 1, Greys(dot)), 0, 0, 0.5)), Greys({0, 25, 25, 25, 25, 0, 0, 0}));
  EXPECT_EQ(RenderPixels(Motion(Source(8, 1, Greys(flat)), 0, 0, -0.5)), Greys(flat));
  EXPECT_EQ(RenderPixels(Motion(Source(8, 1, Greys(flat)), 0, 1, -0.5)), Greys({20, 40, 60, 80, 80, 80, 80, 80}));
  // Angle 90: (0, 1), rows down; an 8 x 8 frame (L counts in widths) with row 4 lit.
  std::vector<int> lit_row(64, 0);
  std::fill_n(lit_row.begin() + 32, 8, 100);
  const std::vector<Pixel> down = RenderPixels(Motion(Source(8, 8, Greys(lit_row)), 0, 0, -0.5, 90));
  ASSERT_EQ(down.size(), 64u);
  for (int y = 0; y < 8; ++y) EXPECT_EQ(down[size_t(8 * y + 3)], Grey(y >= 1 && y <= 4 ? 25 : 0)) << y;
}

// 150 pixels, Length -0.1: L = 15, k = 1 .. 14; a quick render steps by (150 + 50) / 100 = 2:
// k = 1, 3, .. 13. Pixel 101 sees the dot at k = 1 in both; pixel 102 at k = 2 only when full.
TEST_F(MotionBlurTest, QuickRendersTakeEveryNthSample) {
  std::vector<int> row(150, 0);
  row[100] = 120;
  Operator* op = Motion(Source(150, 1, Greys(row)), 0, 0, -0.1);
  const std::vector<Pixel> full = RenderPixels(op, 0.0, 0), quick = RenderPixels(op, 0.0, rflag::Quick);
  EXPECT_EQ(full[101], Grey(8));    // 120 / 15
  EXPECT_EQ(quick[101], Grey(15));  // 120 / 8
  EXPECT_EQ(full[102], Grey(8));
  EXPECT_EQ(quick[102], Grey(0));
}

// Eight pixels about x = 4, Length -0.25 (L = 2) and no spin: n = 2, one sample a pixel further
// out from the centre (x = 4 itself goes towards angle 0, to the right).
TEST_F(MotionBlurTest, RadialZoom) {
  EXPECT_EQ(RenderPixels(Motion(Source(8, 1, Greys({0, 10, 20, 30, 40, 50, 60, 70})), 1, 0, -0.25)),
            Greys({0, 5, 15, 25, 45, 55, 65, 70}));
}

// --- the reference, a pixel and a sample at a time ---

struct MotionSetting {
  int type, edges;
  double length, angle;
  float cx, cy;
};

Vec ReferenceMotion(const MotionSetting& m, const Vec& img, int w, int h) {
  const long l = long(-w * m.length);
  const int cx = int(m.cx * float(w)), cy = int(m.cy * float(h));
  const double a = m.angle * 6.283185307179586 * 0.002777777777777778, spin = a * 0.1;
  double dx = -std::cos(a), dy = std::sin(a);
  if (l < 0) dx = -dx, dy = -dy;
  Vec out;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      int64_t sum[4] = {}, count = 1;
      const auto sample = [&](long sx, long sy) {
        if (sx < 0 || sx >= w || sy < 0 || sy >= h) {
          count += m.edges;
          return;
        }
        ++count;
        for (int c = 0; c < 4; ++c) sum[c] += (img[size_t(sy * w + sx)] >> (8 * c) & 255) * 256;
      };
      if (m.type == 0) {
        for (long k = 1; k < std::abs(l); ++k) sample(x + long(dx * double(k)), y + long(dy * double(k)));
      } else {
        const double rx = double(x - cx) / w, ry = double(y - cy) / w;
        const double rho = w * std::sqrt(rx * rx + ry * ry), theta = std::atan2(ry, rx);
        long n = long(rho * std::fabs(spin));
        if (n <= std::abs(l)) n = std::abs(l);
        for (long k = 1; k < n; ++k) {
          const double angle = theta + double(k) * (spin / double(n));
          const double radius = rho + double(k) * (double(l) / double(n));
          sample(long(double(long(std::cos(angle) * radius)) + cx), long(double(long(radius * std::sin(angle))) + cy));
        }
      }
      uint32_t word = 0;
      for (int c = 0; c < 4; ++c) {
        const int64_t own = (img[size_t(y * w + x)] >> (8 * c) & 255) * 256;
        word |= uint32_t(((sum[c] + own) / count) >> 8) << (8 * c);
      }
      out.push_back(word);
    }
  return out;
}

TEST_F(MotionBlurTest, BothTypesMatchTheReference) {
  const std::vector<MotionSetting> settings = {
      {0, 0, -0.08, 0, 0.5f, 0.5f},  {0, 1, 0.1, 33, 0.5f, 0.5f},    {0, 0, 0.06, 200, 0.5f, 0.5f},
      {0, 1, -0.8, 290, 0.5f, 0.5f}, {1, 0, -0.05, 40, 0.3f, 0.6f},  {1, 1, 0.07, 300, 0.5f, 0.5f},
      {1, 0, 0.0, 120, 0.9f, 0.1f},  {1, 1, -0.3, 0, 0.25f, 0.75f},  {0, 1, 0.0, 30, 0.5f, 0.5f},
  };
  CheckEveryWidth(
      "MotionBlur", int(settings.size()),
      [&](Operator* op, int setting) {
        const MotionSetting& m = settings[size_t(setting)];
        Set(op, "Type", m.type);
        Set(op, "Edges", m.edges);
        Set(op, "Length", m.length);
        Set(op, "Angle", m.angle);
        In(op, "Center")->SetValue(new Point(m.cx, m.cy));
      },
      [&](int setting, const Vec& img, const Vec&, int w, int h) {
        return ReferenceMotion(settings[size_t(setting)], img, w, h);
      });
}

}  // namespace
}  // namespace kestrion::test
