// Glow: the five modes on one pixel worked by hand, the shapes of the four boxes and of the
// triangle around a single bright pixel, the pass-through cases, and every mode against direct
// sums on random images of every width.
#include <cstdint>

#include "tests/tools/filter/filter_fixture.h"

namespace kestrion::test {
namespace {

class GlowTest : public FilterToolTest {
 protected:
  Operator* Glow(Picture* src, int mode, double size, double blend = 0.2, double glow = 0.8) {
    Operator* op = Tool("Glow");
    Link(src, op, "Image");
    Set(op, "Filter", mode);
    Set(op, "Glow Size", size);
    Set(op, "Blend", blend);
    Set(op, "Glow", glow);
    return op;
  }
};

// One pixel of 100, size 0.5 (r 0: boxes 3x3, 3x3, 5x1, 1x5, area 28), blend 0.2 (Bl 51),
// glow 0.8 (G 204): N = 28 x 52 >> 8 = 5, h = 2800 / 5 = 560. The triangle of r 0 is the pixel
// itself, N = max(52 >> 8, 1) = 1, h = 100. An unknown mode leaves the new frame clear.
TEST_F(GlowTest, ModesOnOnePixel) {
  const int expected[] = {
      191,  // (560 x 51 + 100 x 204) >> 8
      99,   // (100 x 51 + 100 x 204) >> 8
      167,  // (560 x 156 x 51 + 100 x 65280) >> 16
      123,  // ((560 x 51 + 204 x 256) x 100) >> 16
      147,  // (560 x 156 x 51 + (100 x 204 << 8)) >> 16
      0,
  };
  for (int mode = 0; mode < 6; ++mode)
    EXPECT_EQ(RenderPixels(Glow(Flat(1, 1, Grey(100)), mode, 0.5)), std::vector{Grey(expected[mode])}) << mode;
}

// A lone white pixel in black, glow 0.5 (G 127, 256 - G = 129), blend 1 (Bl 255, so the source
// adds nothing). Four boxes, r 0: N = 28 x 129 >> 8 = 14, and a pixel sees the white one through
// as many boxes as cover their offset (4 at it, 3 beside, 2 diagonally, 1 two away):
// h = 255 n / 14, out = h x 255 >> 8. Triangle, r 1: weights 4, 2, 1, N = 16 x 129 >> 8 = 8.
TEST_F(GlowTest, KernelShapes) {
  std::vector<int> dot(25, 0);
  dot[12] = 255;
  const std::vector<int> boxes = {0,  0,  17, 0,  0,   //
                                  0,  35, 53, 35, 0,   //
                                  17, 53, 71, 53, 17,  //
                                  0,  35, 53, 35, 0,   //
                                  0,  0,  17, 0,  0};
  const std::vector<int> triangle = {0, 0,  0,   0,  0,  //
                                     0, 30, 62,  30, 0,  //
                                     0, 62, 126, 62, 0,  //
                                     0, 30, 62,  30, 0,  //
                                     0, 0,  0,   0,  0};
  EXPECT_EQ(RenderPixels(Glow(Source(5, 5, Greys(dot)), 0, 0.5, 1.0, 0.5)), Greys(boxes));
  EXPECT_EQ(RenderPixels(Glow(Source(5, 5, Greys(dot)), 1, 1.5, 1.0, 0.5)), Greys(triangle));
}

TEST_F(GlowTest, NeutralSettingsPassTheImageThrough) {
  Picture* src = Flat(2, 2, Grey(100));
  EXPECT_EQ(Render(Glow(src, 0, 0.0)).get(), src->image.get());
  EXPECT_EQ(Render(Glow(src, 0, 3.0, 0.0)).get(), src->image.get());
  Operator* off = Glow(src, 0, 3.0);
  SetSwitches(off, 0);
  EXPECT_EQ(Render(off).get(), src->image.get());
}

// A switch of 2 is not off, so the tool runs, but only switches of exactly 1 take the glow.
TEST_F(GlowTest, OnlySwitchesOfOneTakeTheGlow) {
  Operator* op = Glow(Flat(1, 1, Grey(100)), 0, 0.5);
  SetSwitches(op, 0);
  Set(op, "Red", 2);
  Set(op, "Blue", 1);
  EXPECT_EQ(RenderPixels(op), std::vector<Pixel>({{191, 100, 100, 100}}));
}

// --- the reference: direct sums of the kernel at every pixel ---

int32_t Wrap(int64_t v) { return int32_t(uint32_t(uint64_t(v))); }

Vec ReferenceGlow(int mode, double size, double blend, double glow, const Vec& img, int w, int h) {
  const int r = int(float(size)), bl = int(float(blend) * 255.0), g = int(float(glow) * 255.0);
  const int64_t gain = 256 - (g == 0 ? 1 : g);
  const int k1 = std::max(2 * r + 1, 3), k2 = std::max(k1 - 2 * (k1 / 5), 1), k3 = k1 - 2 * (k1 / 5) + 2,
            k4 = 2 * (k1 / 8) + 1;
  const int boxes[4][2] = {{k1, k2}, {k2, k1}, {k3, k4}, {k4, k3}};
  const int64_t n = std::max<int64_t>(
      mode == 1 ? (gain * (r + 1) * (r + 1) * (r + 1) * (r + 1)) >> 8 : ((2 * k1 * k2 + 2 * k3 * k4) * gain) >> 8, 1);
  Vec out;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint32_t word = 0;
      for (int c = 0; c < 4; ++c) {
        int64_t sum = 0;
        if (mode == 1) {
          for (int dy = -r; dy <= r; ++dy)
            for (int dx = -r; dx <= r; ++dx)
              sum += (r + 1 - std::abs(dx)) * (r + 1 - std::abs(dy)) * HeldByte(img, w, h, x + dx, y + dy, c);
        } else {
          for (const auto& box : boxes)
            for (int dy = -(box[1] / 2); dy <= box[1] / 2; ++dy)
              for (int dx = -(box[0] / 2); dx <= box[0] / 2; ++dx) sum += HeldByte(img, w, h, x + dx, y + dy, c);
        }
        const int64_t halo = sum / n, s = HeldByte(img, w, h, x, y, c);
        int32_t v = 0;
        if (mode <= 1) v = Wrap(halo * bl + s * (255 - bl)) >> 8;
        if (mode == 2) v = Wrap(halo * (256 - s) * bl + s * 65280) >> 16;
        if (mode == 3) v = Wrap((halo * bl + (255 - bl) * 256) * s) >> 16;
        if (mode == 4) v = Wrap(halo * (256 - s) * bl + ((s * (255 - bl)) << 8)) >> 16;
        word |= uint32_t(std::clamp(v, 0, 255)) << (8 * c);
      }
      out.push_back(word);
    }
  return out;
}

TEST_F(GlowTest, EveryModeMatchesDirectSums) {
  // Sizes below a pixel, small and past the narrow images' edges; a glow of 1 saturates the
  // halo and wraps the 32-bit products of the bright modes.
  const double sizes[] = {0.7, 2.0, 6.5}, blends[] = {0.2, 0.9}, glows[] = {0.8, 0.0, 1.0};
  CheckEveryWidth(
      "Glow", 5 * 3,
      [&](Operator* op, int setting) {
        Set(op, "Filter", setting / 3);
        Set(op, "Glow Size", sizes[setting % 3]);
        Set(op, "Blend", blends[setting % 2]);
        Set(op, "Glow", glows[setting / 2 % 3]);
      },
      [&](int setting, const Vec& img, const Vec&, int w, int h) {
        return ReferenceGlow(setting / 3, sizes[setting % 3], blends[setting % 2], glows[setting / 2 % 3], img, w, h);
      });
}

}  // namespace
}  // namespace kestrion::test
