// Blur / Sharpen: rows worked by hand for each kernel (an 8-pixel row, so a size of 40 is a
// radius of exactly 1), the blend and the switches, the pass-through, and every kernel against
// direct sums on random images of every width.
#include <cmath>
#include <cstdint>

#include "tests/tools/filter/filter_fixture.h"

namespace kestrion::test {
namespace {

enum { Soften, Box, Bartlett, BoxAgain, Sharpen };

class BlurTest : public FilterToolTest {
 protected:
  Operator* Blur(Picture* src, int kernel, double size, double blend = 1.0, int switches = 15) {
    Operator* op = Tool("Blur");
    Link(src, op, "Image");
    Set(op, "Filter", kernel);
    Set(op, "Blur Size", size);
    Set(op, "Blend", blend);
    SetSwitches(op, switches);
    return op;
  }
};

// One-row images: every row of the kernel reads the same row.
struct HandRow {
  const char* name;
  int kernel;
  double size;
  std::vector<int> row, expected;
};

// Box, r 1: 3 x 256 x (three columns) / 9. Box, r 1.25: fractions 256/1024, so a column adds
// 896 b inside and 224 b on the edge, divided by 3.5 x 3.5. Bartlett, r 1: 4 x (1 2 1) x 256 / 16.
// Sharpen: 4 s - 3 Bartlett, held to 0..65535.
const HandRow kHandRows[] = {
    {"box", Box, 40, {0, 90, 0, 0, 0, 0, 0, 180}, {30, 30, 30, 0, 0, 0, 60, 120}},
    {"box listed twice", BoxAgain, 40, {0, 90, 0, 0, 0, 0, 0, 180}, {30, 30, 30, 0, 0, 0, 60, 120}},
    {"fractional box", Box, 50, {0, 0, 0, 100, 0, 0, 0, 0}, {0, 7, 28, 28, 28, 7, 0, 0}},
    {"box below a pixel", Box, 10, {0, 0, 0, 100, 0, 0, 0, 0}, {0, 0, 16, 66, 16, 0, 0, 0}},
    {"bartlett", Bartlett, 40, {0, 0, 0, 64, 0, 0, 0, 0}, {0, 0, 16, 32, 16, 0, 0, 0}},
    {"sharpen overshoots", Sharpen, 40, {0, 0, 0, 128, 0, 0, 0, 0}, {0, 0, 0, 255, 0, 0, 0, 0}},
    {"sharpen", Sharpen, 40, {0, 0, 0, 64, 64, 64, 0, 0}, {0, 0, 0, 112, 64, 112, 0, 0}},
    {"bartlett below a pixel", Bartlett, 30, {9, 0, 200, 64, 7, 0, 1, 2}, {9, 0, 200, 64, 7, 0, 1, 2}},
    {"sharpen below a pixel", Sharpen, 30, {9, 0, 200, 64, 7, 0, 1, 2}, {9, 0, 200, 64, 7, 0, 1, 2}},
    {"uniform soften", Soften, 50, {77, 77, 77, 77, 77, 77, 77, 77}, {76, 76, 76, 76, 76, 76, 76, 76}},
};

TEST_F(BlurTest, HandWorkedRows) {
  for (const HandRow& c : kHandRows)
    EXPECT_EQ(RenderPixels(Blur(Source(8, 1, Greys(c.row)), c.kernel, c.size)), Greys(c.expected)) << c.name;
}

// Blend 0.5 (B 128): (v x 128 + 128 s) >> 8; blend 0 gives the source back. Red and alpha only:
// the other bytes keep the source.
TEST_F(BlurTest, BlendAndSwitches) {
  const std::vector<int> row = {0, 90, 0, 0, 0, 0, 0, 180};
  EXPECT_EQ(RenderPixels(Blur(Source(8, 1, Greys(row)), Box, 40, 0.5)), Greys({15, 60, 15, 0, 0, 0, 30, 150}));
  EXPECT_EQ(RenderPixels(Blur(Source(8, 1, Greys(row)), Soften, 40, 0.0)), Greys(row));
  const std::vector<Pixel> got = RenderPixels(Blur(Source(8, 1, Greys(row)), Box, 40, 1.0, 1 | 8));
  ASSERT_EQ(got.size(), 8u);
  EXPECT_EQ(got[0], (Pixel{0, 0, 30, 30}));
  EXPECT_EQ(got[7], (Pixel{180, 180, 120, 120}));
}

TEST_F(BlurTest, SizeZeroOrBelowPassesTheImageThrough) {
  Picture* src = Source(2, 1, Greys({1, 200}));
  for (double size : {0.0, -3.0}) {
    Operator* op = Blur(src, Sharpen, size);
    EXPECT_EQ(Render(op).get(), src->image.get()) << size;
  }
}

// Sharpen takes only switches of exactly 1; the other kernels any but 0.
TEST_F(BlurTest, SwitchValuesOtherThanOne) {
  const std::vector<int> row = {0, 0, 0, 128, 0, 0, 0, 0};
  Operator* box = Blur(Source(8, 1, Greys(row)), Bartlett, 40);
  Set(box, "Red", 2);
  EXPECT_EQ(RenderPixels(box)[3].r, 64);
  Operator* sharpen = Blur(Source(8, 1, Greys(row)), Sharpen, 40);
  Set(sharpen, "Red", 2);
  EXPECT_EQ(RenderPixels(sharpen)[2], (Pixel{0, 0, 0, 0}));
  EXPECT_EQ(RenderPixels(sharpen)[3], (Pixel{255, 255, 128, 255}));
}

// --- the reference: direct sums over the whole kernel at every pixel ---

// Box and Soften: weight 1024 inside the whole radii, the 1024ths fraction on the rows and
// columns just outside; a pixel adds byte x 256 x wx x wy / 2^20, truncated.
int64_t BoxSum(const Vec& img, int w, int h, int x, int y, int c, double rx, double ry) {
  const int ix = int(rx), iy = int(ry);
  const int64_t fx = int64_t((rx - ix) * 1024.0), fy = int64_t((ry - iy) * 1024.0);
  int64_t sum = 0;
  for (int dy = -iy - 1; dy <= iy + 1; ++dy)
    for (int dx = -ix - 1; dx <= ix + 1; ++dx) {
      const int64_t wx = std::abs(dx) <= ix ? 1024 : fx, wy = std::abs(dy) <= iy ? 1024 : fy;
      sum += HeldByte(img, w, h, x + dx, y + dy, c) * 256 * wx * wy / (1 << 20);
    }
  return sum;
}

// rx and ry: the radii in pixels.
Vec ReferenceBlur(int kernel, double rx, double ry, double blend, int switches, const Vec& img, int w, int h) {
  const int b = int(blend * 256.0);
  const int r = int(rx);
  const int64_t volume = int64_t(r + 1) * (r + 1) * (r + 1) * (r + 1);
  Vec out;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint32_t word = 0;
      for (int k = 0; k < 4; ++k) {
        const int c = kSwitchByte[k];
        const int64_t s = HeldByte(img, w, h, x, y, c) * 256;
        const bool on = switches >> k & 1;
        int64_t v = 0;
        if (kernel == Box || kernel == BoxAgain) {
          v = int64_t(double(BoxSum(img, w, h, x, y, c, rx, ry)) / ((2 * rx + 1) * (2 * ry + 1)));
        } else if (kernel == Soften) {
          int64_t sum = 0;
          double area = 0;
          for (int a = 1; a <= 7; a += 2) {
            const double kx = a * rx * 0.14285714285714285, ky = (8 - a) * ry * 0.14285714285714285;
            sum += BoxSum(img, w, h, x, y, c, kx, ky);
            area += (2 * kx + 1) * (2 * ky + 1);
          }
          v = int64_t(double(sum) / area);
        } else {
          int64_t sum = 0;
          for (int dy = -r; dy <= r; ++dy)
            for (int dx = -r; dx <= r; ++dx)
              sum += int64_t(HeldByte(img, w, h, x + dx, y + dy, c)) * 256 * (r + 1 - std::abs(dx)) *
                     (r + 1 - std::abs(dy));
          v = kernel == Bartlett ? sum / volume : (4 * s * volume - 3 * sum) / volume;
        }
        v = std::clamp<int64_t>(v, 0, 65535);
        const int64_t mixed = (v * b + (256 - b) * s) >> 8;
        word |= uint32_t(on ? mixed >> 8 : s >> 8) << (8 * c);
      }
      out.push_back(word);
    }
  return out;
}

TEST_F(BlurTest, EveryKernelMatchesDirectSums) {
  // Sizes: below a pixel on the narrowest rows, fractions, and a radius past the image's edges.
  const double sizes[] = {3.3, 17.0, 41.7};
  const double blends[] = {1.0, 0.37};
  const int switches[] = {15, 5};
  CheckEveryWidth(
      "Blur", 5 * 3,
      [&](Operator* op, int setting) {
        Set(op, "Filter", setting / 3);
        Set(op, "Blur Size", sizes[setting % 3]);
        Set(op, "Blend", blends[setting % 2]);
        SetSwitches(op, switches[setting / 2 % 2]);
      },
      [&](int setting, const Vec& img, const Vec&, int w, int h) {
        const double r = double(float(sizes[setting % 3])) * w / 320.0;
        return ReferenceBlur(setting / 3, r, r, blends[setting % 2], switches[setting / 2 % 2], img, w, h);
      });
}

// A narrow pixel aspect makes the radius across some 312 pixels on a 6-pixel row: the sums go
// to 64 bits, the area is no simple fraction, and the triangle's volume passes 2^32.
TEST_F(BlurTest, WideRadiiMatchDirectSums) {
  constexpr int w = 6, h = 5;
  for (int kernel : {Soften, Box, Bartlett, Sharpen}) {
    Picture* src = RandomSource(w, h);
    src->image->x_aspect = 0.004f;
    const Vec expected = ReferenceBlur(kernel, 50.0 * w / (double(0.004f) * 320.0), 50.0 * w / 320.0, 0.8, 15,
                                       Words(*src->image), w, h);
    EXPECT_EQ(Words(*Render(Blur(src, kernel, 50.0, 0.8))), expected) << kernel;
  }
}

}  // namespace
}  // namespace kestrion::test
