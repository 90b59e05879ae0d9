// The row kernels of Channel Booleans, Dissolve, Color Gain and Color Space against plain scalar
// references, on random rows of every length from 1 to 67 for every operation.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "host/base/random.h"
#include "tests/host/colour_references.h"
#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {
namespace {

const std::string kMix = "Background" + std::string(31, ' ') + "Foreground";

// --- scalar references, one pixel at a time ---

// Channel Booleans: selectors[c] for red, green, blue, alpha names the foreground channel
// (0..3, in that order) feeding channel c, or 4 to pass the background through.
int BooleansByte(int operation, int f, int p) {
  switch (operation) {
    case 0: return f;
    case 1: return std::min(255, f + p);
    case 2: return p - f < 1 ? 0 : p - f;
    case 3: return f & p;
    case 4: return f | p;
    case 5: return f ^ p;
    case 6: return (f * p) >> 8;
    case 7: return f == 0 ? 0 : std::min(255, (p << 8) / f);
    case 8: return std::max(f, p);
    case 9: return std::min(f, p);
    case 10: return 255 - f;
    case 11: return 255;
    case 12: return 0;
    case 13: return std::abs(p - f);
    case 14: return std::clamp(p + 2 * f - 256, 0, 255);
    default: return p;
  }
}

uint32_t BooleansPixel(int operation, int blend, const std::vector<int>& selectors, uint32_t f, uint32_t p) {
  constexpr int kByte[4] = {2, 1, 0, 3};  // red, green, blue, alpha
  uint32_t out = 0;
  for (int c = 0; c < 4; ++c) {
    const int pc = Byte(p, kByte[c]);
    const int r = selectors[size_t(c)] < 4 ? BooleansByte(operation, Byte(f, kByte[selectors[size_t(c)]]), pc) : pc;
    out |= uint32_t(uint8_t(blend < 255 ? (pc * (255 - blend) + r * blend) >> 8 : r)) << (8 * kByte[c]);
  }
  return out;
}

// Dissolve's blends, m = trunc(mix * 32768) and n = 32768 - m, in 32-bit arithmetic that wraps.
uint32_t DissolvePixel(int operation, uint32_t m, uint32_t f, uint32_t b) {
  const uint32_t n = 32768u - m;
  const auto wide = [](uint32_t v) { return int32_t(v); };
  uint32_t out = 0;
  const bool foreground_only = operation == 2 && wide(((f & 255) + 2 * (f >> 8 & 255) + (f >> 16 & 255)) * 256 * m) >
                                                     wide(((b & 255) + 2 * (b >> 8 & 255) + (b >> 16 & 255)) * 256 * n);
  for (int c = 0; c < 4; ++c) {
    const uint32_t fc = Byte(f, c), bc = Byte(b, c);
    uint32_t v = 0;
    if (operation == 0) v = (fc * m + bc * n) >> 15;
    if (operation == 1) {
      const uint32_t sum = std::min(fc * 256 + bc * 256, 65535u);
      const uint32_t t = uint32_t(wide(fc * 256 * m + sum * n) >> 15);
      v = uint32_t(wide(t * m + bc * 256 * n) >> 15) >> 8;
    }
    if (operation == 2) v = uint32_t(wide(fc * 256 * m + (foreground_only ? 0 : bc * 256 * n)) >> 15) >> 8;
    out |= (v & 255) << (8 * c);
  }
  return out;
}

// Color Space by its exact definitions; other values copy.
uint32_t ConvertedPixel(int conversion, uint32_t p) {
  switch (conversion) {
    case 1: return HlsByDoubles(p);
    case 2: return RgbOfHlsByDoubles(p);
    case 3: return YuvExact(p);
    case 4: return RgbOfYuvExact(p);
    default: return p;
  }
}

// --- the tools rendered on random rows ---

template <class Fn>
Vec PerPixel(const Vec& bg, const Vec& fg, Fn fn) {
  Vec out;
  for (size_t i = 0; i < bg.size(); ++i) out.push_back(fn(bg[i], fg[i]));
  return out;
}

using RowKernelTest = RandomRowsTest;

TEST_F(RowKernelTest, ChannelBooleansMatchesTheReference) {
  const std::vector<std::vector<int>> selectors = {{0, 1, 2, 3}, {2, 4, 3, 1}, {3, 3, 0, 4}};
  // No blend, and blends in 16-bit lanes up to the last step below 1 (Divide takes 32-bit lanes).
  const double blends[] = {1.0, 0.6, 0.0, 0.999};
  // Settings: 17 operations (16 is unknown) x 4 blends x 3 selector lists.
  const auto operation = [](int setting) { return setting / 12; };
  const auto blend = [&](int setting) { return blends[setting / 3 % 4]; };
  const auto selector = [&](int setting) { return selectors[size_t(setting % 3)]; };
  CheckEveryWidth(
      "BoolImg", 17 * 12,
      [&](Operator* op, int setting) {
        Set(op, "Operation", operation(setting));
        Set(op, "Blend", blend(setting));
        const char* labels[] = {"Red", "Green", "Blue", "Alpha"};
        for (size_t c = 0; c < 4; ++c) Set(op, labels[c], selector(setting)[c]);
      },
      [&](int setting, const Vec& bg, const Vec& fg, int, int) {
        return PerPixel(bg, fg, [&](uint32_t b, uint32_t f) {
          return BooleansPixel(operation(setting), int(blend(setting) * 255.0), selector(setting), f, b);
        });
      });
}

TEST_F(RowKernelTest, DissolveBlendsMatchTheReference) {
  const double mixes[] = {0.0, 0.3, 0.5, 0.97, 1.0, 2.0};
  CheckEveryWidth(
      "Dissolve", 3 * 6,
      [&](Operator* op, int setting) {
        Set(op, "Operation", setting / 6);
        Set(op, kMix, mixes[setting % 6]);
      },
      [&](int setting, const Vec& bg, const Vec& fg, int, int) {
        const uint32_t m = uint32_t(int32_t(mixes[setting % 6] * 32768.0));
        return PerPixel(bg, fg, [&](uint32_t b, uint32_t f) { return DissolvePixel(setting / 6, m, f, b); });
      });
}

// "Random Noise" at time 0 seeds the generator with 0 and draws once per pixel, row after row;
// the render leaves the generator just after its last draw.
TEST_F(RowKernelTest, DissolveRandomDrawsInRowOrder) {
  const double mixes[] = {0.2, 0.5, 0.9};
  CheckEveryWidth(
      "Dissolve", 3,
      [&](Operator* op, int setting) {
        Set(op, "Operation", 4);
        Set(op, kMix, mixes[setting]);
      },
      [&](int setting, const Vec& bg, const Vec& fg, int, int) {
        const int after_render = crt_rand();
        const int k = int(mixes[setting] * 32767.0) + 1;
        crt_srand(0);
        const Vec out = PerPixel(bg, fg, [&](uint32_t b, uint32_t f) { return crt_rand() < k ? f : b; });
        EXPECT_EQ(after_render, crt_rand()) << "the draw after the render's, setting " << setting;
        return out;
      });
}

TEST_F(RowKernelTest, ColorGainMatchesTheReference) {
  const char* labels[11] = {"Gain Blue",       "Gain Green",       "Gain Red",       "Gain Alpha",
                            "Gamma Blue",      "Gamma Green",      "Gamma Red",      "Gamma Alpha",
                            "Saturation Blue", "Saturation Green", "Saturation Red"};
  // Each value 1 (an operation is skipped when all of its values are) or random.
  std::uniform_real_distribution<float> level(0.0f, 3.0f);
  std::vector<std::array<float, 11>> settings(12);
  for (auto& v : settings)
    for (float& x : v) x = random_() % 2 ? 1.0f : level(random_);
  // Saturations that fixed-point products cannot take: the tables' kernel.
  settings[10][8] = 9.5f;
  settings[11][10] = 12.0f;
  CheckEveryWidth(
      "ColorGain", int(settings.size()),
      [&](Operator* op, int setting) {
        for (size_t i = 0; i < 11; ++i) Set(op, labels[i], settings[size_t(setting)][i]);
      },
      [&](int setting, const Vec& bg, const Vec&, int, int) {
        const float* v = settings[size_t(setting)].data();
        return PerPixel(bg, bg, [&](uint32_t p, uint32_t) {
          return SaturateByDoubles(GammaByDoubles(GainByDoubles(p, v), v + 4), v + 8);
        });
      });
}

TEST_F(RowKernelTest, ColorSpaceMatchesTheReference) {
  const int conversions[] = {0, 1, 2, 3, 4, 7};
  CheckEveryWidth(
      "ColorSpace", 6, [&](Operator* op, int setting) { Set(op, "Color Space Conversion", conversions[setting]); },
      [&](int setting, const Vec& bg, const Vec&, int, int) {
        return PerPixel(bg, bg, [&](uint32_t p, uint32_t) { return ConvertedPixel(conversions[setting], p); });
      });
}

}  // namespace
}  // namespace kestrion::test
