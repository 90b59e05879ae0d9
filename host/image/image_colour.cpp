// Host image operations that convert colour: YUV, HLS, the green-difference and the keyers'
// colour-difference forms, and saturation.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "host/image/image.h"
#include "host/image/image_internal.h"
#include "host/image/image_rows.h"

namespace kestrion {

using image_internal::ForColourRows;
using image_internal::MapColourPixels;
using image_internal::MapWords;
using image_internal::RoundToByte;

namespace {

// --- HLS ---
//
// The conversions are defined on doubles. Computed exactly in integers they agree with the
// double formulas except where the exact value lies on a rounding tie, where the doubles may
// fall either side. RGB to HLS meets such ties: the lightness and saturation ties depend only
// on (max, min) and are tabled once from the doubles; the hue ties (about 2% of colours) are
// marked by the integer pass and recomputed by the doubles themselves.

// The double formulas: r, g, b = bytes / 255; each result byte is the value * 255, rounded.
// Returns the pixel word with H, L, S in the red, green and blue bytes, alpha kept.
uint32_t HlsByDoubles(uint32_t p) {
  const double r = (p >> 16 & 255) / 255.0, g = (p >> 8 & 255) / 255.0, b = (p & 255) / 255.0;
  const double mx = std::max({r, g, b}), mn = std::min({r, g, b});
  const double l = (mx + mn) / 2.0;
  double h = 0.0, s = 0.0;
  if (mx != mn) {
    s = l <= 0.5 ? (mx - mn) / (mx + mn) : (mx - mn) / (2.0 - mx - mn);
    const double rc = (mx - r) / (mx - mn), gc = (mx - g) / (mx - mn), bc = (mx - b) / (mx - mn);
    h = r == mx ? bc - gc : g == mx ? 2.0 + rc - bc : 4.0 + gc - rc;
    h /= 6.0;
    h -= std::floor(h);
  }
  return (p & 0xFF000000u) | uint32_t(RoundToByte(h * 255.0)) << 16 | uint32_t(RoundToByte(l * 255.0)) << 8 |
         RoundToByte(s * 255.0);
}

// A set of bits indexed by (max << 8 | min).
using PairBits = std::array<uint32_t, 2048>;
inline uint32_t Bit(const PairBits& bits, uint32_t index) { return bits[index >> 5] >> (index & 31) & 1; }

struct HlsTables {
  // floor(2^32 / (12 d)) + 1 and floor(2^32 / (2 d)) + 1: x * recip >> 32 is x / (12 d) or
  // x / (2 d) for every x used here (x < 2^20, so the error stays below 1 / (12 d)).
  std::array<uint32_t, 256> hue_recip{}, saturation_recip{};
  // Where the doubles round lightness up from trunc((max + min) / 2), and where they round
  // saturation down from its exact rounding.
  PairBits lightness_up{}, saturation_down{};

  HlsTables() {
    for (uint64_t d = 1; d < 256; ++d) {
      hue_recip[d] = uint32_t((uint64_t(1) << 32) / (12 * d) + 1);
      saturation_recip[d] = uint32_t((uint64_t(1) << 32) / (2 * d) + 1);
    }
    for (uint32_t mx = 0; mx < 256; ++mx)
      for (uint32_t mn = 0; mn <= mx; ++mn) {
        const uint32_t hls = HlsByDoubles(mx << 16 | mn << 8 | mn);
        const uint32_t index = mx << 8 | mn;
        if ((hls >> 8 & 255) != (mx + mn) >> 1) lightness_up[index >> 5] |= 1u << (index & 31);
        if ((hls & 255) != SaturationRounded(mx, mn)) saturation_down[index >> 5] |= 1u << (index & 31);
      }
  }

  // round(255 d / e) with e = max + min up to half lightness, else 510 - max - min:
  // floor((510 d + e) / (2 e)). Greys give floor(e / 2 e) = 0 (and black and white, with
  // e = 0, the 0 of saturation_recip[0]), so they need no test.
  uint32_t SaturationRounded(uint32_t mx, uint32_t mn) const {
    const uint32_t d = mx - mn, sum = mx + mn, e = sum <= 255 ? sum : 510 - sum;
    return uint32_t((uint64_t(510 * d + e) * saturation_recip[e]) >> 32);
  }
};

const HlsTables& TheHlsTables() {
  static const HlsTables tables;
  return tables;
}

// The integer form of RGB to HLS; `tied` is set where the hue lies on a rounding tie. With
// d = max - min the hue is N / (6 d) of a turn (N whole, 0 <= N < 6 d) and its byte
// round(255 N / (6 d)) = floor((510 N + 6 d) / (12 d)); a remainder of 0 is a tie. Written
// without branches, so the row loop vectorises.
inline uint32_t HlsByIntegers(const HlsTables& t, uint32_t p, uint32_t& tied) {
  const int b = int(p & 255), g = int(p >> 8 & 255), r = int(p >> 16 & 255);
  const int mx = std::max({r, g, b}), mn = std::min({r, g, b});
  const int d = mx - mn;
  const uint32_t index = uint32_t(mx << 8 | mn);
  // N from the channel that is largest (red first, then green).
  int from_red = g - b;
  from_red += (from_red >> 31) & (6 * d);
  const int red_max = -int(r == mx), green_max = -int(g == mx) & ~red_max;
  const int n = (from_red & red_max) | ((2 * d + b - r) & green_max) | ((4 * d + r - g) & ~(red_max | green_max));
  const uint32_t x = uint32_t(510 * n + 6 * d);
  const uint32_t h = uint32_t((uint64_t(x) * t.hue_recip[size_t(d)]) >> 32);
  tied = uint32_t(h * uint32_t(12 * d) == x) & uint32_t(d != 0);
  const uint32_t l = uint32_t(mx + mn) / 2 + Bit(t.lightness_up, index);
  const uint32_t s = t.SaturationRounded(uint32_t(mx), uint32_t(mn)) - Bit(t.saturation_down, index);
  return (p & 0xFF000000u) | h << 16 | l << 8 | s;
}

// One colour byte of HLS to RGB. With m1 = a / 65025 and m2 = b / 65025 and t = tp / 255
// (the hue turned by the channel's third), the value * 255 is
// (1530 a + 6 (b - a) w) / 390150 with w = clamp(min(6 tp, 1020 - 6 tp), 0, 255): the rising
// ramp, the plateau at m2 and the falling ramp in one expression. Twice its numerator is even
// and the tie numerator odd, so no value lies on a tie and the doubles round the same way.
inline uint8_t RgbByteOfHls(int a, int b, int tp) {
  const int w = std::clamp(std::min(6 * tp, 1020 - 6 * tp), 0, 255);
  return uint8_t(uint32_t(1530 * a + 6 * (b - a) * w + 195075) / 390150u);
}

// The coefficients in millionths share factors with the scale: Y is exact in thousandths,
// U and V in 1/31250 after dividing by 32, and U and V never fall below 0.5.
inline uint32_t YuvOfRgb(uint32_t p) {
  const uint32_t b = p & 255, g = p >> 8 & 255, r = p >> 16 & 255;
  const uint32_t y = (299 * r + 587 * g + 114 * b + 500) / 1000;
  const uint32_t u = std::min((4000000 + 15625 - 5273 * r - 10352 * g + 15625 * b) / 31250, 255u);
  const uint32_t v = std::min((4000000 + 15625 + 15625 * r - 13084 * g - 2541 * b) / 31250, 255u);
  return (p & 0xFF000000u) | y << 16 | u << 8 | v;
}

// R and B exact in thousandths, G in 1/125000 after dividing by 8.
inline uint32_t RgbOfYuv(uint32_t p) {
  const int v = int(p & 255) - 128, u = int(p >> 8 & 255) - 128, y = int(p >> 16 & 255);
  const auto rounded = [](int n, int half, uint32_t scale) {
    return std::min(uint32_t(std::max(n + half, 0)) / scale, 255u);
  };
  const uint32_t r = rounded(1000 * y + 1402 * v, 500, 1000);
  const uint32_t g = rounded(125000 * y - 43017 * u - 89267 * v, 62500, 125000);
  const uint32_t b = rounded(1000 * y + 1772 * u, 500, 1000);
  return (p & 0xFF000000u) | r << 16 | g << 8 | b;
}

inline uint32_t RgbOfHls(uint32_t p) {
  const int s = int(p & 255), l = int(p >> 8 & 255), h = int(p >> 16 & 255);
  // m2 and m1 in 1/65025: l (1 + s) up to half lightness, else l + s - l s; m1 = 2 l - m2.
  const int m2 = l <= 127 ? l * (255 + s) : 255 * (l + s) - l * s;
  const int m1 = 510 * l - m2;
  // The hue turned by +1/3, 0 and -1/3 of a turn, in 255ths (255 itself is a whole turn).
  const int hr = h + 85 >= 255 ? h + 85 - 255 : h + 85;
  const int hg = h == 255 ? 0 : h;
  const int hb = h + 170 >= 255 ? h + 170 - 255 : h + 170;
  return (p & 0xFF000000u) | uint32_t(RgbByteOfHls(m1, m2, hr)) << 16 | uint32_t(RgbByteOfHls(m1, m2, hg)) << 8 |
         RgbByteOfHls(m1, m2, hb);
}

// The integer pass of RGB to HLS over n pixels; returns non-zero where any lies on a hue tie,
// and marks those in `tied`. Kept out of line: inlined, the compiler loses sight of the
// pointers' promise that no store changes a table, and the loop no longer vectorises.
[[gnu::noinline]] uint32_t HlsByIntegersRow(const HlsTables& t, const uint32_t* in, uint32_t* __restrict out,
                                           uint32_t* __restrict tied, int n) {
  uint32_t ties = 0;
  for (int x = 0; x < n; ++x) {
    uint32_t tie;
    out[x] = HlsByIntegers(t, in[x], tie);
    tied[x] = tie;
    ties |= tie;
  }
  return ties;
}

// RGB to HLS in blocks held on the stack: the integer pass over a block, then the doubles for
// its pixels on hue ties, from the block's original words (so `out` may be `in`).
void HlsOfRgbRow(const uint32_t* in, uint32_t* out, int count) {
  constexpr int kBlock = 256;
  const HlsTables& t = TheHlsTables();
  uint32_t original[kBlock], tied[kBlock];
  for (int start = 0; start < count; start += kBlock) {
    const int n = std::min(kBlock, count - start);
    std::copy_n(in + start, n, original);
    if (HlsByIntegersRow(t, original, out + start, tied, n) == 0) continue;
    for (int x = 0; x < n; ++x)
      if (tied[x]) out[start + x] = HlsByDoubles(original[x]);
  }
}

}  // namespace

void ConvertRow(ColourConversion conversion, const uint32_t* in, uint32_t* out, int count) {
  switch (conversion) {
    // Each map as a lambda, which the row loop inlines (a function pointer it would call).
    case ColourConversion::RgbToYuv: MapWords(in, out, count, [](uint32_t p) { return YuvOfRgb(p); }); break;
    case ColourConversion::YuvToRgb: MapWords(in, out, count, [](uint32_t p) { return RgbOfYuv(p); }); break;
    case ColourConversion::RgbToHls: HlsOfRgbRow(in, out, count); break;
    case ColourConversion::HlsToRgb: MapWords(in, out, count, [](uint32_t p) { return RgbOfHls(p); }); break;
  }
}

namespace {
void ConvertImage(Image& img, ColourConversion conversion) {
  ForColourRows(img, [conversion](uint32_t* row, int w) { ConvertRow(conversion, row, row, w); });
}
}  // namespace

void Image::RGBtoYUV() { ConvertImage(*this, ColourConversion::RgbToYuv); }
void Image::YUVtoRGB() { ConvertImage(*this, ColourConversion::YuvToRgb); }
void Image::RGBtoHLS() { ConvertImage(*this, ColourConversion::RgbToHls); }
void Image::HLStoRGB() { ConvertImage(*this, ColourConversion::HlsToRgb); }

void Image::RGBtoGUV() {
  MapColourPixels(*this, [](uint32_t p) {
    const uint32_t b = p & 255, g = p >> 8 & 255, r = p >> 16 & 255;
    return (p & 0xFF000000u) | g << 16 | (b - g + 256) >> 1 << 8 | (r - g + 256) >> 1;
  });
}

Saturation::Saturation(float red, float green, float blue) {
  // With Y whole, round(Y + (c - Y) s) = Y + floor((c - Y) s + 0.5) exactly (the product of a
  // byte difference and a float is exact in double), so one table per channel over c - Y.
  const float factors[3] = {blue, green, red};
  for (size_t c = 0; c < 3; ++c)
    for (int d = -255; d <= 255; ++d) {
      const double v = std::floor(d * double(factors[c]) + 0.5);
      delta_[c][size_t(d + 255)] = int32_t(v >= 256.0 ? 256 : v <= -256.0 ? -256 : v == v ? v : 0.0);
    }
}

void Saturation::Row(const uint32_t* in, uint32_t* out, int count) const {
  MapWords(in, out, count, [this](uint32_t p) {
    const int b = int(p & 255), g = int(p >> 8 & 255), r = int(p >> 16 & 255);
    const int y = Luminance(r, g, b);
    const auto moved = [y](const std::array<int32_t, 511>& t, int c) {
      return uint32_t(std::clamp(y + t[size_t(c - y + 255)], 0, 255));
    };
    return (p & 0xFF000000u) | moved(delta_[2], r) << 16 | moved(delta_[1], g) << 8 | moved(delta_[0], b);
  });
}

void Image::Saturate(float red, float green, float blue) {
  const Saturation saturation(red, green, blue);
  ForColourRows(*this, [&](uint32_t* row, int w) { saturation.Row(row, row, w); });
}

void Image::ColourDifference() {
  // The differences stay within -108..109, so the bytes never need holding.
  MapColourPixels(*this, [](uint32_t p) {
    const ColourDifferences cd = ColourDifferencesOf(int(p >> 16 & 255), int(p >> 8 & 255), int(p & 255));
    return uint32_t(cd.luminance) << 24 | uint32_t(128 + cd.red) << 16 | uint32_t(128 + cd.green) << 8 |
           uint32_t(128 + cd.blue);
  });
}

}  // namespace kestrion
