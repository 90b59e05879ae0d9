// The Corner and Perspective Positioners: frame corners (near identity), a smaller rectangle,
// the first source row and column that the Perspective Positioner leaves black, quick renders,
// and corners that cross (a bow-tie) or lie on one line; and both tools' rows against plain
// per-pixel references written from their formulas, at random corners.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "module/image_model.h"
#include "tests/tools/warp/warp_fixture.h"

namespace kestrion::test {
namespace {

// Top left, top right, bottom left, bottom right.
struct Corner {
  float x, y;
};
using Corners = std::array<Corner, 4>;
const char* const kCornerLabels[] = {"Top Left", "Top Right", "Bottom Left", "Bottom Right"};
const Corners kFrame{Corner{0, 0}, Corner{1, 0}, Corner{0, 1}, Corner{1, 1}};
const Corners kBowTie{Corner{0, 0}, Corner{1, 0}, Corner{1, 1}, Corner{0, 1}};
const Corners kLine{Corner{0, 0.5f}, Corner{1, 0.5f}, Corner{0, 0.5f}, Corner{1, 0.5f}};

class PositionerTest : public WarpTest {
 protected:
  Operator* Positioner(const char* tool, Picture* source, const Corners& corners) {
    Operator* op = Tool(tool);
    Link(source, op, "Image");
    for (int i = 0; i < 4; ++i) In(op, kCornerLabels[i])->SetValue(new Point(corners[size_t(i)].x, corners[size_t(i)].y));
    return op;
  }
};

// Quick renders on 8 x 8 coordinate sources, read by hand. Corner Positioner at the frame
// corners: the nudges leave the positions a hair from whole pixels, which nearest sampling
// reads as the pixel itself. In the rectangle from (2, 2) to (6, 6) each output pixel reads
// the source at twice its distance from (2, 2). Perspective Positioner: the source's first and
// last rows and columns are black (a position whose whole part is 0 or the last index).
TEST_F(PositionerTest, QuickRendersAsWorkedByHand) {
  using XY = std::pair<int, int>;
  const Corners inner{Corner{0.25f, 0.25f}, Corner{0.75f, 0.25f}, Corner{0.25f, 0.75f}, Corner{0.75f, 0.75f}};
  const struct {
    const char* what;
    const char* tool;
    Corners corners;
    std::vector<Pixel> expected;
  } cases[] = {
      {"corner, frame corners", "CornerPin", kFrame, Coordinates(8, 8)},
      {"corner, inner rectangle", "CornerPin", inner, Reads(8, 8, [](int x, int y) {
         const bool inside = x >= 2 && x < 6 && y >= 2 && y < 6;
         return inside ? XY{2 * (x - 2), 2 * (y - 2)} : XY{-1, -1};
       })},
      {"perspective, frame corners", "PerspectivePin", kFrame, Reads(8, 8, [](int x, int y) {
         const bool inside = x >= 1 && x < 7 && y >= 1 && y < 7;
         return inside ? XY{x, y} : XY{-1, -1};
       })},
      // Four corners on the middle row: a quadrilateral without area, which no point maps into.
      {"corner, a line", "CornerPin", kLine, std::vector<Pixel>(64)},
      // Every output row reads along source row 4.
      {"perspective, a line", "PerspectivePin", kLine, Reads(8, 8, [](int x, int) { return XY{x >= 1 && x < 7 ? x : -1, 4}; })},
      // The bottom edge reversed: row y reads source x y + x (1 - y / 4), crossing at row 4.
      {"perspective, bow-tie", "PerspectivePin", kBowTie, Reads(8, 8, [](int x, int y) {
         const double from = y + x * (1 - y / 4.0);
         return from >= 1 && from < 7 && y >= 1 && y < 7 ? XY{int(from + 0.5), y} : XY{-1, -1};
       })},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(RenderPixels(Positioner(c.tool, Source(8, 8, Coordinates(8, 8)), c.corners), 0, rflag::Quick), c.expected);
  }
}

// Full quality at the frame corners. Perspective Positioner: weights 254 and 2 for the pixel
// and the one below right, so blue (254 * 10 x + 2 * 10 (x + 1) + 127) >> 8 = 10 x, green
// likewise, red and alpha kept. Corner Positioner: within 1 of the source in every byte.
TEST_F(PositionerTest, FrameCornersKeepThePicture) {
  Picture* source = Source(8, 8, Coordinates(8, 8));
  EXPECT_EQ(RenderPixels(Positioner("PerspectivePin", source, kFrame)),
            Reads(8, 8, [](int x, int y) { return x >= 1 && x < 7 && y >= 1 && y < 7 ? std::pair{x, y} : std::pair{-1, -1}; }));
  const std::vector<Pixel> corner = RenderPixels(Positioner("CornerPin", source, kFrame));
  const std::vector<Pixel> picture = Coordinates(8, 8);
  ASSERT_EQ(corner.size(), picture.size());
  for (size_t i = 0; i < picture.size(); ++i) {
    const uint8_t* got = &corner[i].b;
    const uint8_t* want = &picture[i].b;
    for (int c = 0; c < 4; ++c) EXPECT_LE(std::abs(got[c] - want[c]), 1) << "pixel " << i << ", byte " << c;
  }
}

// --- Plain per-pixel references ---

// The Corner Positioner as first written: the setup with its nudges, then every pixel traced
// back through the vanishing points and sampled on its own with DoSample_Black.
std::vector<Pixel> PerPixelCornerPin(const Image& src, const Corners& corners, long quality) {
  double x[4], y[4];
  for (int i = 0; i < 4; ++i) {
    x[i] = corners[size_t(i)].x;
    y[i] = corners[size_t(i)].y;
  }
  const double e = 0.000001;
  if (x[0] == x[2]) x[2] -= e;
  if (x[1] == x[3]) x[1] += e;
  if (x[1] == x[0]) x[0] -= e;
  if (x[3] == x[2]) x[3] += e;
  if (y[0] == y[2]) y[0] -= e;
  if (y[1] == y[3]) y[3] -= e;
  if (y[1] == y[0]) y[1] += e;
  if (y[3] == y[2]) y[2] += e;
  const double tx = x[1] - x[0], ty = y[1] - y[0], lx = x[2] - x[0], ly = y[2] - y[0];
  double den1 = lx * (y[3] - y[1]) - (x[3] - x[1]) * ly, den2 = tx * (y[3] - y[2]) - ty * (x[3] - x[2]);
  if (den1 == 0) den1 = 0.0000001;
  if (den2 == 0) den2 = 0.0000001;
  const double t1 = ((y[0] - y[1]) * (x[3] - x[1]) - (x[0] - x[1]) * (y[3] - y[1])) / den1;
  const double t2 = ((y[0] - y[2]) * (x[3] - x[2]) - (x[0] - x[2]) * (y[3] - y[2])) / den2;
  const double v1x = x[0] + t1 * lx, v1y = y[0] + t1 * ly, v2x = x[0] + t2 * tx, v2y = y[0] + t2 * ty;
  std::vector<Pixel> out;
  for (int row = 0; row < src.Height(); ++row) {
    const double yn = double(row) / src.Height();
    for (int col = 0; col < src.Width(); ++col) {
      const double xn = float(col) / float(src.Width());
      const double s = ((y[0] - yn) * (v1x - xn) - (x[0] - xn) * (v1y - yn)) / ((v1y - yn) * tx - ty * (v1x - xn));
      const double t = ((y[0] - yn) * (v2x - xn) - (x[0] - xn) * (v2y - yn)) / ((v2y - yn) * lx - ly * (v2x - xn));
      double u = std::sqrt(s * tx * (s * tx) + s * ty * (s * ty)) / std::sqrt(tx * tx + ty * ty);
      double v = std::sqrt(t * lx * (t * lx) + t * ly * (t * ly)) / std::sqrt(lx * lx + ly * ly);
      if (s < 0) u = -u;
      if (t < 0) v = -v;
      Pixel p;
      src.DoSample_Black(&p, module::TruncToInt(u * src.Width() * 256), module::TruncToInt(v * src.Height() * 256), quality);
      out.push_back(p);
    }
  }
  return out;
}

// The Perspective Positioner pixel by pixel: the bilinear blend of the corners, the black
// first and last rows and columns, and the four weights of each channel summed one by one.
std::vector<Pixel> PerPixelPerspectivePin(const Image& src, const Corners& c, bool quick) {
  const int w = src.Width(), h = src.Height();
  const double ex = double(c[3].x) - c[2].x - c[1].x + c[0].x, ey = double(c[3].y) - c[2].y - c[1].y + c[0].y;
  std::vector<Pixel> out;
  for (int row = 0; row < h; ++row) {
    for (int col = 0; col < w; ++col) {
      const double px = 256.0 * (w * double(c[0].x) + row * (double(w) / h) * (double(c[2].x) - c[0].x)) +
                        col * (256.0 * ((double(c[1].x) - c[0].x) + row * ex / h));
      const double py = 256.0 * (h * double(c[0].y) + row * (double(c[2].y) - c[0].y)) +
                        col * (256.0 * ((double(h) / w) * (double(c[1].y) - c[0].y) + row * ey / w));
      if (!(px >= 256 && py >= 256 && px < 256.0 * (w - 1) && py < 256.0 * (h - 1))) {
        out.push_back(Pixel{});
        continue;
      }
      const int sx = int(px), sy = int(py), ix = sx >> 8, iy = sy >> 8, fx = sx & 255, fy = sy & 255;
      const Pixel p00 = Pixel::FromWord(src.Row(iy)[ix]), p10 = Pixel::FromWord(src.Row(iy)[ix + 1]);
      const Pixel p01 = Pixel::FromWord(src.Row(iy + 1)[ix]), p11 = Pixel::FromWord(src.Row(iy + 1)[ix + 1]);
      if (quick) {
        out.push_back(fy < 128 ? (fx < 128 ? p00 : p10) : (fx < 128 ? p01 : p11));
        continue;
      }
      const int w00 = ((255 - fy) * (255 - fx)) >> 8, w10 = (fx * (255 - fy)) >> 8, w01 = (fy * (255 - fx)) >> 8;
      const int w11 = 256 - w00 - w10 - w01;
      const auto mix = [&](uint8_t a, uint8_t b, uint8_t c0, uint8_t d) {
        return uint8_t((w00 * a + w10 * b + w01 * c0 + w11 * d + 127) >> 8);
      };
      out.push_back(Pixel{mix(p00.b, p10.b, p01.b, p11.b), mix(p00.g, p10.g, p01.g, p11.g), mix(p00.r, p10.r, p01.r, p11.r),
                          mix(p00.a, p10.a, p01.a, p11.a)});
    }
  }
  return out;
}

// Corners that cross (the bottom edge reversed, a bow-tie), that lie on one line, that
// coincide, or that spread past the frame, and random ones; rows of every length 1 to 67.
TEST_F(PositionerTest, RowsMatchThePerPixelReferences) {
  std::mt19937 random(37);
  const auto uniform = [&](double lo, double hi) { return float(std::uniform_real_distribution<double>(lo, hi)(random)); };
  std::vector<std::pair<std::string, Corners>> corners = {
      {"frame", kFrame},
      {"defaults", {Corner{0.1f, 0.1f}, Corner{0.9f, 0}, Corner{0, 0.7f}, Corner{1, 0.9f}}},
      {"bow-tie", kBowTie},
      {"a line", kLine},
      {"a slanted line", {Corner{0, 0}, Corner{0.5f, 0.5f}, Corner{0.25f, 0.25f}, Corner{1, 1}}},
      {"one point", {Corner{0.3f, 0.3f}, Corner{0.3f, 0.3f}, Corner{0.3f, 0.3f}, Corner{0.3f, 0.3f}}},
      {"past the frame", {Corner{-0.5f, -0.2f}, Corner{1.5f, 0.1f}, Corner{-0.3f, 1.4f}, Corner{1.2f, 1.6f}}},
  };
  for (int width = 1; width <= 67; ++width)
    corners.push_back({"random, width " + std::to_string(width),
                       Corners{Corner{uniform(-0.3, 0.6), uniform(-0.3, 0.6)}, Corner{uniform(0.4, 1.3), uniform(-0.3, 0.6)},
                               Corner{uniform(-0.3, 0.6), uniform(0.4, 1.3)}, Corner{uniform(0.4, 1.3), uniform(0.4, 1.3)}}});
  for (size_t i = 0; i < corners.size(); ++i) {
    const int width = i < 7 ? 9 : int(i) - 6, height = 1 + int(i) % 6;
    Picture* source = Source(width, height, Noise(random, width * height));
    for (bool quick : {false, true}) {
      SCOPED_TRACE(corners[i].first + (quick ? ", quick" : ""));
      const uint32_t flags = quick ? rflag::Quick : 0;
      EXPECT_EQ(RenderPixels(Positioner("CornerPin", source, corners[i].second), 0, flags),
                PerPixelCornerPin(*source->image, corners[i].second, quick ? 0 : 1));
      EXPECT_EQ(RenderPixels(Positioner("PerspectivePin", source, corners[i].second), 0, flags),
                PerPixelPerspectivePin(*source->image, corners[i].second, quick));
    }
  }
}

}  // namespace
}  // namespace kestrion::test
