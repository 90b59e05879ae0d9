// Filter: each effect on small images worked by hand (the shading directions and their
// fall-backs at the edges, the median's whole pixels and its order for equal keys, the defocus
// rings, Sobel and Laplacian), the pass-through, and every effect against a plain reference on
// random images of every width, noise and grain drawn in row order from the generator seeded
// with the time.
#include <cmath>
#include <cstdint>

#include "host/base/random.h"
#include "tests/tools/filter/filter_fixture.h"

namespace kestrion::test {
namespace {

enum { Relief, Emboss, Median, Noise, Defocus, Sobel, Laplacian, Grain };

class FilterTest : public FilterToolTest {
 protected:
  Operator* Filter(Picture* src, int effect, double power = 1, double angle = 45, double median_point = 0.5,
                   double blend = 1.0) {
    Operator* op = Tool("Filter");
    Link(src, op, "Image");
    Set(op, "FilterType", effect);
    Set(op, "Power", power);
    Set(op, "Angle", angle);
    Set(op, "Median Point", median_point);
    Set(op, "Blend", blend);
    return op;
  }
};

// Row 10, 20, 40. Angle 0 reads F at x - 1 and K at x + 1; a column outside gives the pixel
// itself, a row outside the current row. Relief: 256 P (F - K) + 32768; Emboss Over: + s.
TEST_F(FilterTest, ShadingDirections) {
  const struct {
    int effect;
    double power, angle;
    std::vector<int> expected;
  } cases[] = {
      {Relief, 1, 0, {118, 98, 108}},    // (10 - 20), (10 - 40), (20 - 40) around 128
      {Relief, 2, 0, {108, 68, 88}},     // twice the differences
      {Relief, 1, 180, {138, 158, 148}}, // the other way
      {Emboss, 1, 0, {0, 0, 20}},        // s + 256 (F - K), held at 0
      {Relief, 1, 90, {128, 128, 128}},  // rows above and below fall back on the row itself
      {Relief, 1, 30, {128, 128, 128}},  // no direction
      {Emboss, 1, 30, {10, 20, 40}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(RenderPixels(Filter(Source(3, 1, Greys({10, 20, 40})), c.effect, c.power, c.angle)), Greys(c.expected))
        << c.effect << " " << c.power << " " << c.angle;
}

// A grey pixel's key is 256 x its value, so the window's order is its values; the alpha of each
// pixel (its place) shows that the whole pixel is taken.
TEST_F(FilterTest, MedianTakesWholePixels) {
  const int values[9] = {90, 10, 50, 70, 30, 80, 20, 60, 40};
  std::vector<Pixel> pixels;
  for (int i = 0; i < 9; ++i) {
    const auto v = uint8_t(values[i]);
    pixels.push_back({v, v, v, uint8_t(i)});
  }
  const Pixel darkest{10, 10, 10, 1}, median{50, 50, 50, 2}, brightest{90, 90, 90, 0};
  EXPECT_EQ(RenderPixels(Filter(Source(3, 3, pixels), Median, 1, 45, 0.0))[4], darkest);
  EXPECT_EQ(RenderPixels(Filter(Source(3, 3, pixels), Median, 1, 45, 0.5))[4], median);
  EXPECT_EQ(RenderPixels(Filter(Source(3, 3, pixels), Median, 1, 45, 1.0))[4], brightest);
  // Equal keys keep their places' order: row by row through the window.
  for (Pixel& p : pixels) p.b = p.g = p.r = 50;
  EXPECT_EQ(RenderPixels(Filter(Source(3, 3, pixels), Median, 1, 45, 0.0))[4].a, 0);
  EXPECT_EQ(RenderPixels(Filter(Source(3, 3, pixels), Median, 1, 45, 0.7))[4].a, 6);  // place 6 = trunc(8 x 0.7 + 0.5)
}

// Power 1: the eight neighbours, held to the image, so each pixel around a white centre sees it
// once: 255 x 256 / 8 >> 8 = 31; the centre is not sampled.
TEST_F(FilterTest, DefocusRings) {
  std::vector<int> dot(9, 0);
  dot[4] = 255;
  EXPECT_EQ(RenderPixels(Filter(Source(3, 3, Greys(dot)), Defocus, 1)), Greys({31, 31, 31, 31, 0, 31, 31, 31, 31}));
  // Around a lone white pixel the lit pixels are the ring itself: as many as its count, none
  // beyond its radius; powers above 10 keep the ring of 10.
  const int counts[] = {8, 16, 24, 32, 32, 40, 48, 48, 56, 64, 64};
  for (int p = 1; p <= 11; ++p) {
    std::vector<int> lone(23 * 23, 0);
    lone[11 * 23 + 11] = 255;
    const std::vector<Pixel> got = RenderPixels(Filter(Source(23, 23, Greys(lone)), Defocus, p));
    int lit = 0, reach = 0;
    for (int i = 0; i < 23 * 23; ++i)
      if (got[size_t(i)].r) {
        ++lit;
        reach = std::max({reach, std::abs(i % 23 - 11), std::abs(i / 23 - 11)});
      }
    EXPECT_EQ(lit, counts[p - 1]) << p;
    EXPECT_EQ(reach, std::min(p, 10)) << p;
  }
}

TEST_F(FilterTest, EdgesWorkedByHand) {
  // Sobel, a column of 20 on the right: gx = 4 x 20 x 256. A corner of 30: gx = gy = 30 x 256,
  // sqrt(2) x 7680 = 10861.
  EXPECT_EQ(RenderPixels(Filter(Source(3, 3, Greys({0, 0, 20, 0, 0, 20, 0, 0, 20})), Sobel))[4], Grey(80));
  EXPECT_EQ(RenderPixels(Filter(Source(3, 3, Greys({0, 0, 0, 0, 0, 0, 0, 0, 30})), Sobel))[4], Grey(42));
  // Laplacian: (4 x 40 - 4 x 10) x 256; a dark centre is held at 0; a uniform image is black.
  EXPECT_EQ(RenderPixels(Filter(Source(3, 3, Greys({0, 10, 0, 10, 40, 10, 0, 10, 0})), Laplacian))[4], Grey(120));
  EXPECT_EQ(RenderPixels(Filter(Source(3, 3, Greys({0, 40, 0, 40, 10, 40, 0, 40, 0})), Laplacian))[4], Grey(0));
  EXPECT_EQ(RenderPixels(Filter(Flat(3, 2, Grey(90)), Laplacian)), std::vector<Pixel>(6, Grey(0)));
}

TEST_F(FilterTest, PowerZeroPassesThroughAndUnknownEffectsLeaveTheFrameClear) {
  Picture* src = Flat(2, 2, Grey(9));
  EXPECT_EQ(Render(Filter(src, Sobel, 0)).get(), src->image.get());
  EXPECT_EQ(RenderPixels(Filter(src, 8)), std::vector<Pixel>(4, Grey(0)));
}

// --- the references, a pixel at a time ---

int Key(uint32_t p) {
  return int((uint64_t(p >> 16 & 255) * 5016320 + uint64_t(p >> 8 & 255) * 9848320 + uint64_t(p & 255) * 1912576) >>
             16);
}

// The rings: the square's border up to 4; beyond, whole symmetric sets of lattice points in
// order of their distance from the circle, each taken while it fits the count.
std::vector<std::pair<int, int>> ReferenceRing(int p) {
  const int counts[] = {8, 16, 24, 32, 32, 40, 48, 48, 56, 64};
  std::vector<std::tuple<double, int, int>> sets;
  for (int a = 0; a <= p; ++a)
    for (int b = 0; b <= a; ++b) sets.push_back({p <= 4 ? (a == p ? 0.0 : 9.0) : std::abs(std::hypot(a, b) - p), a, b});
  std::sort(sets.begin(), sets.end());
  std::vector<std::pair<int, int>> ring;
  for (const auto& [distance, a, b] : sets) {
    std::vector<std::pair<int, int>> set;
    for (auto [x, y] : {std::pair{a, b}, std::pair{b, a}})
      for (int sx : {1, -1})
        for (int sy : {1, -1})
          if (std::find(set.begin(), set.end(), std::pair{sx * x, sy * y}) == set.end())
            set.push_back({sx * x, sy * y});
    if (ring.size() + set.size() <= size_t(counts[p - 1])) ring.insert(ring.end(), set.begin(), set.end());
  }
  return ring;
}

struct FilterSetting {
  int effect, power, angle;
  double median_point, blend;
  int switches;
};

Vec ReferenceFilter(const FilterSetting& f, const Vec& img, int w, int h) {
  const auto pixel = [&](int x, int y) { return img[size_t(std::clamp(y, 0, h - 1) * w + std::clamp(x, 0, w - 1))]; };
  const int b = int(f.blend * 256.0);
  const int directions[8][2] = {{-1, 0}, {-1, -1}, {0, -1}, {1, -1}, {1, 0}, {1, 1}, {0, 1}, {-1, 1}};
  const bool listed = f.angle % 45 == 0;
  const int dx = listed ? directions[f.angle / 45][0] : 0, dy = listed ? directions[f.angle / 45][1] : 0;
  const auto shaded = [&](int x, int y, int sx, int sy) {
    const int ny = y + sy >= 0 && y + sy < h ? y + sy : y;
    return x + sx >= 0 && x + sx < w ? img[size_t(ny * w + x + sx)] : img[size_t(y * w + x)];
  };
  std::vector<std::pair<int, int>> ring;
  if (f.effect == Defocus) ring = ReferenceRing(std::min(f.power, 10));
  crt_srand(3);
  Vec out;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const int q = f.effect == Noise || f.effect == Grain ? crt_rand() : 0;
      uint32_t chosen = 0;
      if (f.effect == Median) {
        std::vector<int64_t> window;
        const int r = f.power, side = 2 * r + 1;
        for (int wy = -r; wy <= r; ++wy)
          for (int wx = -r; wx <= r; ++wx)
            window.push_back(int64_t(Key(pixel(x + wx, y + wy))) * 512 + (wy + r) * side + wx + r);
        std::sort(window.begin(), window.end());
        const int place = int(window[size_t(int(double(float(side * side - 1) * float(f.median_point)) + 0.5))] % 512);
        chosen = pixel(x + place % side - r, y + place / side - r);
      }
      uint32_t word = 0;
      for (int k = 0; k < 4; ++k) {
        const int c = kSwitchByte[k];
        const auto at = [&](int ax, int ay) { return int(pixel(ax, ay) >> (8 * c) & 255); };
        const int64_t s = at(x, y) * 256;
        int64_t v = 0;
        switch (f.effect) {
          case Relief:
          case Emboss:
            v = 256 * f.power * (int(shaded(x, y, dx, dy) >> (8 * c) & 255) - int(shaded(x, y, -dx, -dy) >> (8 * c) & 255));
            v += f.effect == Relief ? 32768 : s;
            break;
          case Median: v = int(chosen >> (8 * c) & 255) * 256; break;
          case Noise: v = s + (((q - 16384) * int64_t(b) * f.power) >> 12); break;
          case Defocus:
            for (auto [rx, ry] : ring) v += at(x + rx, y + ry) * 256;
            v /= int64_t(ring.size());
            break;
          case Sobel: {
            const auto column = [&](int cx) { return at(cx, y - 1) + 2 * at(cx, y) + at(cx, y + 1); };
            const auto row = [&](int cy) { return at(x - 1, cy) + 2 * at(x, cy) + at(x + 1, cy); };
            const int64_t gx = (column(x + 1) - column(x - 1)) * 256, gy = (row(y + 1) - row(y - 1)) * 256;
            v = int64_t(std::floor(std::sqrt(double(gx * gx + gy * gy))));
            break;
          }
          case Laplacian:
            v = std::max(0, 4 * at(x, y) - at(x, y - 1) - at(x, y + 1) - at(x - 1, y) - at(x + 1, y)) * 256;
            break;
          case Grain: {
            const int64_t n = ((q - 16384) * int64_t(f.power)) >> 12;
            v = s + (((((32768 - std::abs(32767 - s)) * 3) >> 1) + 16384) * n >> 8);
            break;
          }
        }
        v = std::clamp<int64_t>(v, 0, 65535);
        const int64_t mixed = f.effect == Noise ? v : (v * b + (256 - b) * s) >> 8;
        word |= uint32_t(f.switches >> k & 1 ? mixed >> 8 : s >> 8) << (8 * c);
      }
      out.push_back(word);
    }
  return out;
}

TEST_F(FilterTest, EveryEffectMatchesTheReference) {
  const std::vector<FilterSetting> settings = {
      {Relief, 1, 45, 0.5, 1.0, 15},    {Relief, 3, 270, 0.5, 0.6, 7},   {Relief, 300, 135, 0.5, 1.0, 15},
      {Emboss, 2, 315, 0.5, 1.0, 13},   {Emboss, 1, 90, 0.5, 0.3, 15},   {Median, 1, 45, 0.5, 1.0, 15},
      {Median, 1, 45, 0.13, 0.7, 11},   {Median, 2, 45, 0.5, 1.0, 15},   {Median, 2, 45, 0.91, 1.0, 6},
      {Median, 3, 45, 0.5, 1.0, 15},    {Noise, 2, 45, 0.5, 0.8, 15},    {Noise, 9, 45, 0.5, 1.0, 5},
      {Noise, 5, 45, 0.5, 0.0, 15},
      {Defocus, 1, 45, 0.5, 1.0, 15},   {Defocus, 4, 45, 0.5, 0.5, 15},  {Defocus, 7, 45, 0.5, 1.0, 9},
      {Defocus, 13, 45, 0.5, 1.0, 15},  {Sobel, 1, 45, 0.5, 1.0, 15},    {Sobel, 1, 45, 0.5, 0.4, 12},
      {Laplacian, 1, 45, 0.5, 1.0, 15}, {Laplacian, 5, 45, 0.5, 0.2, 3}, {Grain, 4, 45, 0.5, 1.0, 15},
      {Grain, 40, 45, 0.5, 0.7, 10},
  };
  CheckEveryWidth(
      "Filter", int(settings.size()),
      [&](Operator* op, int setting) {
        const FilterSetting& f = settings[size_t(setting)];
        Set(op, "FilterType", f.effect);
        Set(op, "Power", f.power);
        Set(op, "Angle", f.angle);
        Set(op, "Median Point", f.median_point);
        Set(op, "Blend", f.blend);
        SetSwitches(op, f.switches);
      },
      [&](int setting, const Vec& img, const Vec&, int w, int h) {
        const int after_render = crt_rand();
        const Vec expected = ReferenceFilter(settings[size_t(setting)], img, w, h);
        // Noise and grain leave the generator just after their last draw.
        const int effect = settings[size_t(setting)].effect;
        if (effect == Noise || effect == Grain) {
          EXPECT_EQ(after_render, crt_rand()) << "setting " << setting;
        }
        return expected;
      });
}

}  // namespace
}  // namespace kestrion::test
