// Merge: the foreground placed by centre, size and angle, the over/additive mix worked out by
// hand per pixel, full and quick sampling, and the background shown as it is; and the rows as
// sampled and blended in pieces, byte for byte those of the plain per-pixel path.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <utility>

#include "module/image_model.h"
#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {
namespace {

const std::string kAdditive = "Subtractive" + std::string(36, ' ') + "Additive";

// The Merge inputs and the images' own settings that place the foreground.
struct Placement {
  float cx = 0.5f, cy = 0.5f;
  double size = 1, angle = 0, additive = 0, alpha_gain = 1;
  float fg_x_aspect = 1, fg_origin_x = 0.5f, fg_origin_y = 0.5f;
  float bg_x_aspect = 1, bg_origin_x = 0.5f, bg_origin_y = 0.5f;
};

class MergeTest : public ColorToolTest {
 protected:
  Operator* Merge(Picture* fg, Picture* bg, const Placement& p) {
    Operator* merge = Tool("Merge");
    Link(fg, merge, "Foreground");
    Link(bg, merge, "Image");
    In(merge, "Center")->SetValue(new Point(p.cx, p.cy));
    Set(merge, "Size", p.size);
    Set(merge, "Angle", p.angle);
    Set(merge, kAdditive, p.additive);
    Set(merge, "Alpha Gain", p.alpha_gain);
    return merge;
  }
};

constexpr Pixel P{100, 150, 250, 200};  // the background everywhere
constexpr Pixel F0{10, 20, 30, 255}, F1{40, 50, 60, 0}, F2{200, 100, 50, 128};
constexpr Pixel G0{10, 10, 10, 255}, G1{51, 51, 51, 255};

// F2 over P: alpha' = 128, inv = 127, over = (c*128 + P*127) >> 8 = (149, 124, 149),
// add = c + (P*127 >> 8) = (249, 174, 174), alpha (200*127 >> 8) + 128 = 227; the result is
// (over*(255 - A) + add*A) >> 8.
TEST_F(MergeTest, PlacesAndMixesTheForeground) {
  const struct {
    const char* what;
    int fw, fh;
    std::vector<Pixel> fg;
    int bw, bh;
    Placement p;
    uint32_t flags;
    std::vector<Pixel> expected;
  } cases[] = {
      {"identity", 3, 1, {F0, F1, F2}, 3, 1, {}, 0, {F0, P, {148, 123, 148, 227}}},
      {"identity, quick", 3, 1, {F0, F1, F2}, 3, 1, {}, rflag::Quick, {F0, P, {148, 123, 148, 227}}},
      {"additive", 3, 1, {F0, F1, F2}, 3, 1, {.additive = 1}, 0, {F0, P, {248, 173, 173, 227}}},
      {"A = 127", 3, 1, {F0, F1, F2}, 3, 1, {.additive = .5}, 0, {F0, P, {198, 148, 160, 227}}},
      // G = 128: alpha' is (255*128 + 127) >> 8 = 127 for F0 and 64 for F2.
      {"alpha gain 0.5", 3, 1, {F0, F1, F2}, 3, 1, {.alpha_gain = .5}, 0,
       {{53, 83, 138, 227}, P, {123, 135, 198, 213}}},
      {"smaller foreground", 2, 1, {G0, G1}, 4, 1, {}, 0, {G0, G1, P, P}},
      {"centre a pixel right", 2, 1, {G0, G1}, 4, 1, {.cx = .75f}, 0, {P, G0, G1, P}},
      // Half-pixel steps: x = 1 reads (G0 + G1 + 1) >> 1; x = 3 reads G1 half with the black
      // past the edge, (26, 26, 26, 128), which mixes over P.
      {"size 2", 2, 1, {G0, G1}, 4, 1, {.size = 2}, 0, {G0, {31, 31, 31, 255}, G1, {61, 86, 136, 227}}},
      // Nearest: (128 + 128) >> 8 = 1 reads G1; (384 + 128) >> 8 = 2 is outside.
      {"size 2, quick", 2, 1, {G0, G1}, 4, 1, {.size = 2}, rflag::Quick, {G0, G1, G1, P}},
      // Output (x, y) reads the foreground at (-y, x): its first column lies along row 0.
      {"angle 90", 2, 2, {G0, F0, G1, F2}, 2, 2, {.angle = 90}, 0, {G0, G1, P, P}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Ref<Image> out = Render(Merge(Source(c.fw, c.fh, c.fg), Flat(c.bw, c.bh, P), c.p), 0, c.flags);
    ASSERT_TRUE(out);
    EXPECT_EQ(std::pair(out->Width(), out->Height()), std::pair(c.bw, c.bh));
    EXPECT_EQ(Pixels(*out), c.expected);
  }
}

// Without a foreground, or with one that a zero size or alpha gain hides, the output is the
// background image object and the foreground's tool is not rendered.
TEST_F(MergeTest, HiddenForegroundPassesTheBackgroundOn) {
  const struct {
    bool connected;
    double size, alpha_gain;
    bool hidden;
  } cases[] = {{false, 1, 1, true}, {true, 0, 1, true}, {true, 1, 0, true}, {true, 1, 1, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.connected << " " << c.size << " " << c.alpha_gain);
    Operator* merge = Tool("Merge");
    Picture* fg = Flat(2, 2, F0);
    Picture* bg = Flat(2, 2, P);
    Link(bg, merge, "Image");
    if (c.connected) Link(fg, merge, "Foreground");
    Set(merge, "Size", c.size);
    Set(merge, "Alpha Gain", c.alpha_gain);
    Ref<Image> out = Render(merge);
    ASSERT_TRUE(out);
    EXPECT_EQ(out.get() == bg->image.get(), c.hidden);
    EXPECT_EQ(Pixels(*out), std::vector<Pixel>(4, c.hidden ? P : F0));
    EXPECT_EQ(doc_.ProcessCount(fg), c.hidden ? 0u : 1u);
  }
}

// --- The rows against the per-pixel path ---

// Merge as it was first written, every pixel sampled on its own with DoSample_Black, its
// position stepped from the row start, then mixed; the reference for the rows.
std::vector<Pixel> PerPixelMerge(const Image& fg, const Image& bg, const Placement& p, long quality) {
  using module::TruncToInt;
  const int additive = TruncToInt(p.additive * 255.0), gain = TruncToInt(p.alpha_gain * 256.0);
  const double fg_x0 = fg.Width() * (0.5 - fg.origin_x), fg_y0 = fg.Height() * (0.5 - fg.origin_y);
  const double centre_x = bg.Width() * (p.cx - bg.origin_x), centre_y = bg.Height() * (p.cy - bg.origin_y);
  const double r = p.angle * 0.017453292519943295;
  const int32_t c = TruncToInt(65536.0 * std::cos(r) / p.size), s = TruncToInt(65536.0 * std::sin(r) / p.size);
  const int32_t step_x = TruncToInt(65536.0 * (std::cos(r) / p.size) / fg.x_aspect);
  const int32_t step_y = TruncToInt(65536.0 * (std::sin(r) / p.size) / fg.y_aspect);
  std::vector<Pixel> out;
  for (int y = 0; y < bg.Height(); ++y) {
    const double dy = y - centre_y, dx = -centre_x;
    int32_t sx = TruncToInt(65536.0 * fg_x0 + (bg.x_aspect * dx * c - bg.y_aspect * dy * s) / fg.x_aspect);
    int32_t sy = TruncToInt(65536.0 * fg_y0 + (bg.y_aspect * dy * c + bg.x_aspect * dx * s) / fg.y_aspect);
    for (int x = 0; x < bg.Width(); ++x) {
      Pixel f;
      fg.DoSample_Black(&f, sx >> 8, sy >> 8, quality);
      const Pixel b = Pixel::FromWord(bg.Row(y)[x]);
      const int alpha = (f.a * gain + 127) >> 8, inv = 255 - alpha;
      const auto mix = [&](int fc, int bc) {
        const int over = (fc * alpha + bc * inv) >> 8, add = fc + ((bc * inv) >> 8);
        return uint8_t(std::min(255, (over * (255 - additive) + add * additive) >> 8));
      };
      out.push_back(alpha == 255 ? Pixel{f.b, f.g, f.r, 255}
                    : alpha == 0 ? b
                                 : Pixel{mix(f.b, b.b), mix(f.g, b.g), mix(f.r, b.r),
                                         uint8_t(std::min(255, ((b.a * inv) >> 8) + alpha))});
      sx = module::WrapAdd(sx, step_x);
      sy = module::WrapAdd(sy, step_y);
    }
  }
  return out;
}

// Noise whose alphas are 0, 255 or anything, a third each, so that every branch of the mix
// is taken.
std::vector<Pixel> Noise(std::mt19937& random, int n) {
  std::vector<Pixel> out;
  for (int k = 0; k < n; ++k) {
    const uint32_t w = uint32_t(random());
    const uint8_t alpha = w % 3 == 0 ? 0 : w % 3 == 1 ? 255 : uint8_t(w >> 24);
    out.push_back(Pixel{uint8_t(w), uint8_t(w >> 8), uint8_t(w >> 16), alpha});
  }
  return out;
}

class MergeRowsTest : public MergeTest {
 protected:
  // Merges fg_w x fg_h over bg_w x bg_h of noise, full and quick, and expects the bytes of the
  // per-pixel path.
  void ExpectPerPixelBytes(int fg_w, int fg_h, int bg_w, int bg_h, const Placement& p) {
    Picture* fg = Source(fg_w, fg_h, Noise(random_, fg_w * fg_h));
    Picture* bg = Source(bg_w, bg_h, Noise(random_, bg_w * bg_h));
    fg->image->x_aspect = p.fg_x_aspect;
    fg->image->origin_x = p.fg_origin_x;
    fg->image->origin_y = p.fg_origin_y;
    bg->image->x_aspect = p.bg_x_aspect;
    bg->image->origin_x = p.bg_origin_x;
    bg->image->origin_y = p.bg_origin_y;
    for (long quality : {1L, 0L}) {
      SCOPED_TRACE(quality == 0 ? "quick" : "full");
      EXPECT_EQ(RenderPixels(Merge(fg, bg, p), 0, quality == 0 ? rflag::Quick : 0),
                PerPixelMerge(*fg->image, *bg->image, p, quality));
    }
  }

  std::mt19937 random_{17};
};

// Whole-pixel steps (size 1 at angle 0, or a size that the foreground's aspect undoes) read each
// row of the foreground straight, at a fraction that stays the same along the row; the other
// placements step between pixels.
TEST_F(MergeRowsTest, RowsMatchThePerPixelPath) {
  const struct {
    const char* what;
    int fg_w, fg_h, bg_w, bg_h;
    Placement p;
  } cases[] = {
      {"same size, centred", 9, 5, 9, 5, {}},
      {"smaller foreground moved by whole pixels", 4, 3, 8, 4, {.cx = 0.75f, .cy = 0.25f}},
      {"moved half a pixel", 4, 3, 8, 4, {.cx = 0.5625f, .cy = 0.625f}},
      {"moved by bits below 1/256", 6, 4, 9, 5, {.cx = 0.51f, .cy = 0.47f}},
      {"larger foreground", 12, 7, 5, 3, {.cx = 0.3f, .cy = 0.6f}},
      {"past the left and top edges", 6, 4, 9, 5, {.cx = 0.1f, .cy = 0.05f}},
      {"past the right and bottom edges", 6, 4, 9, 5, {.cx = 0.93f, .cy = 0.88f}},
      {"far outside", 6, 4, 9, 5, {.cx = 40.0f, .cy = -3.0f}},
      {"one pixel", 1, 1, 3, 2, {.cx = 0.6f}},
      {"rows longer than a piece", 590, 2, 600, 3, {.cx = 0.52f}},
      {"alpha gain and additive", 9, 5, 9, 5, {.additive = 0.5, .alpha_gain = 0.7}},
      {"additive", 9, 5, 9, 5, {.cx = 0.45f, .additive = 1}},
      {"angle 360", 9, 5, 9, 5, {.angle = 360}},
      {"size 0.5 undone by foreground aspect 2", 6, 5, 9, 5, {.size = 0.5, .fg_x_aspect = 2}},
      {"foreground aspect 2", 6, 5, 9, 5, {.fg_x_aspect = 2}},
      {"origins and background aspect", 6, 5, 9, 5,
       {.fg_origin_x = 0.2f, .fg_origin_y = 0.7f, .bg_x_aspect = 1.5f, .bg_origin_x = 0.6f, .bg_origin_y = 0.4f}},
      {"angle 90", 6, 5, 9, 5, {.angle = 90}},
      {"angle 30, size 1.3", 9, 5, 9, 5, {.size = 1.3, .angle = 30, .additive = 0.5, .alpha_gain = 0.8}},
      {"rotated, rows longer than a piece", 500, 4, 600, 3, {.size = 0.9, .angle = 2}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ExpectPerPixelBytes(c.fg_w, c.fg_h, c.bg_w, c.bg_h, c.p);
  }
}

// Rows of every length from 1 to 67 (every tail of the vector loops), straight and rotated,
// over, additive and between, at random alpha gains and centres.
TEST_F(MergeRowsTest, RandomRowsMatchThePerPixelPath) {
  const auto uniform = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(random_); };
  for (int width = 1; width <= 67; ++width) {
    for (bool straight : {true, false}) {
      for (double additive : {0.0, 1.0, uniform(0, 1)}) {
        SCOPED_TRACE(testing::Message() << width << (straight ? " straight " : " rotated ") << additive);
        Placement p{.cx = float(uniform(-0.2, 1.2)), .cy = float(uniform(-0.2, 1.2)), .additive = additive,
                    .alpha_gain = width % 2 ? 1.0 : uniform(0, 1)};
        if (!straight) {
          p.size = uniform(0.3, 3);
          p.angle = uniform(0, 360);
        }
        ExpectPerPixelBytes(int(uniform(1, 80)), int(uniform(1, 5)), width, 2, p);
      }
    }
  }
}

}  // namespace
}  // namespace kestrion::test
