// Host image operations that convert colour: YUV, HLS, the green-difference and the keyers'
// colour-difference forms, and saturation.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
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
// fall either side. RGB to HLS meets such ties: lightness and saturation depend only on the
// largest and smallest byte, so both are tabled once from the doubles; the hue ties (about 2%
// of colours) are marked by the integer pass and recomputed by the doubles themselves.

// The double formulas: r, g, b = bytes / 255; each result byte is the value * 255, rounded.
// The hue byte alone, and the pixel word with H, L, S in the red, green and blue bytes, alpha
// kept.
uint32_t HueByDoubles(uint32_t p) {
  const double r = (p >> 16 & 255) / 255.0, g = (p >> 8 & 255) / 255.0, b = (p & 255) / 255.0;
  const double mx = std::max({r, g, b}), mn = std::min({r, g, b});
  if (mx == mn) return 0;
  const double rc = (mx - r) / (mx - mn), gc = (mx - g) / (mx - mn), bc = (mx - b) / (mx - mn);
  double h = r == mx ? bc - gc : g == mx ? 2.0 + rc - bc : 4.0 + gc - rc;
  h /= 6.0;
  h -= std::floor(h);
  return RoundToByte(h * 255.0);
}

uint32_t HlsByDoubles(uint32_t p) {
  const double r = (p >> 16 & 255) / 255.0, g = (p >> 8 & 255) / 255.0, b = (p & 255) / 255.0;
  const double mx = std::max({r, g, b}), mn = std::min({r, g, b});
  const double l = (mx + mn) / 2.0;
  const double s = mx == mn ? 0.0 : l <= 0.5 ? (mx - mn) / (mx + mn) : (mx - mn) / (2.0 - mx - mn);
  return (p & 0xFF000000u) | HueByDoubles(p) << 16 | uint32_t(RoundToByte(l * 255.0)) << 8 | RoundToByte(s * 255.0);
}

// Colours by their largest and smallest byte, max >= min: index max (max + 1) / 2 + min.
constexpr int PairIndex(int mx, int mn) { return (mx * (mx + 1) >> 1) + mn; }
constexpr size_t kPairs = size_t(PairIndex(255, 255)) + 1;

struct HlsTables {
  // L << 8 | S of the colours with each largest and smallest byte, from the doubles.
  std::vector<uint32_t> lightness_saturation = std::vector<uint32_t>(kPairs);

  HlsTables() {
    for (uint32_t mx = 0; mx < 256; ++mx)
      for (uint32_t mn = 0; mn <= mx; ++mn)
        lightness_saturation[size_t(PairIndex(int(mx), int(mn)))] = HlsByDoubles(mx << 16 | mn << 8 | mn) & 0xFFFF;
  }
};

const HlsTables& TheHlsTables() {
  static const HlsTables tables;
  return tables;
}

// The integer form of RGB to HLS; `tied` is set where the hue lies on a rounding tie. With
// d = max - min the hue is N / (6 d) of a turn (N whole, 0 <= N < 6 d) and its byte
// round(255 N / (6 d)) = floor(x / (12 d)), x = 510 N + 6 d; a remainder of 0 is a tie. The
// quotient is taken in single precision, correctly rounded: x and 12 d are exact, the quotient
// is below 256 (half a unit in its last place is below 2^-17), and one that is not whole lies
// at least 1 / (12 d) >= 1 / 3060 from a whole number, so its truncation is exact. Written
// without branches, so the row loop vectorises.
inline uint32_t HlsByIntegers(const uint32_t* lightness_saturation, uint32_t p, uint8_t& tied) {
  const int b = int(p & 255), g = int(p >> 8 & 255), r = int(p >> 16 & 255);
  const int mx = std::max({r, g, b}), mn = std::min({r, g, b});
  const int d = mx - mn;
  // N from the channel that is largest (red first, then green).
  int from_red = g - b;
  from_red += (from_red >> 31) & (6 * d);
  const int red_max = -int(r == mx), green_max = -int(g == mx) & ~red_max;
  const int n = (from_red & red_max) | ((2 * d + b - r) & green_max) | ((4 * d + r - g) & ~(red_max | green_max));
  const int x = 510 * n + 6 * d, divisor = 12 * d + (d == 0);  // greys: 0 / 1
  const int h = int(float(x) / float(divisor));
  tied = uint8_t((h * divisor == x) & (d != 0));
  return (p & 0xFF000000u) | uint32_t(h) << 16 | lightness_saturation[PairIndex(mx, mn)];
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

// floor(n / d) through a single-precision product, for 0 <= n < 2^24 with a quotient below 256;
// `up` is 1 / d rounded up, d being 1000 or 15625. The product is never below the quotient, so
// a whole quotient stays whole, and at most 256 (e + 2^-24) = 4.4e-5 above it, e being up's
// relative error (4.8e-8 and 1.1e-7): less than 1 / d, the least distance from a quotient that
// is not whole to the next whole number.
constexpr float kThousandthUp = 0x1.0624dep-10f, k15625thUp = 0x1.0c6f7cp-14f;
inline uint32_t Quotient(int32_t n, float up) { return uint32_t(int32_t(float(n) * up)); }

// The coefficients in millionths share factors with the scale: Y is exact in thousandths,
// U and V in 1/31250 after dividing by 32 (and in 1/15625 once the even numerator is halved),
// and U and V never fall below 0.5.
inline uint32_t YuvOfRgb(uint32_t p) {
  const int32_t b = int32_t(p & 255), g = int32_t(p >> 8 & 255), r = int32_t(p >> 16 & 255);
  const uint32_t y = Quotient(299 * r + 587 * g + 114 * b + 500, kThousandthUp);
  const uint32_t u = std::min(Quotient((4000000 + 15625 - 5273 * r - 10352 * g + 15625 * b) >> 1, k15625thUp), 255u);
  const uint32_t v = std::min(Quotient((4000000 + 15625 + 15625 * r - 13084 * g - 2541 * b) >> 1, k15625thUp), 255u);
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

// The integer pass of RGB to HLS over n pixels, marking the hue ties in `tied`. Kept out of
// line: inlined, the compiler loses sight of the pointers' promise that no store changes a
// table, and the loop no longer vectorises.
[[gnu::noinline]] void HlsByIntegersRow(const uint32_t* lightness_saturation, const uint32_t* in,
                                       uint32_t* __restrict out, uint8_t* __restrict tied, int n) {
  for (int x = 0; x < n; ++x) out[x] = HlsByIntegers(lightness_saturation, in[x], tied[x]);
}

// RGB to HLS in blocks: the integer pass over a block, then the hue of the doubles for its
// pixels on hue ties, found eight marks at a time. The doubles read the original words, kept
// on the stack when the row is converted in place.
void HlsOfRgbRow(const uint32_t* in, uint32_t* out, int count) {
  constexpr int kBlock = 256;
  const uint32_t* lightness_saturation = TheHlsTables().lightness_saturation.data();
  uint32_t original[kBlock];
  alignas(8) uint8_t tied[kBlock + 8];
  for (int start = 0; start < count; start += kBlock) {
    const int n = std::min(kBlock, count - start);
    const uint32_t* source = in + start;
    if (in == out) source = std::copy_n(source, n, original) - n;
    HlsByIntegersRow(lightness_saturation, source, out + start, tied, n);
    std::fill_n(tied + n, 8, uint8_t(0));
    for (int x = 0; x < n; x += 8) {
      uint64_t marks;
      std::memcpy(&marks, tied + x, 8);
      for (; marks != 0; marks &= marks - 1) {
        const int i = x + std::countr_zero(marks) / 8;
        out[start + i] = (out[start + i] & 0xFF00FFFFu) | HueByDoubles(source[i]) << 16;
      }
    }
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
  // The factor in 1/2^20, checked against the table for every difference.
  by_products_ = true;
  for (size_t c = 0; c < 3; ++c) {
    by_products_ = by_products_ && factors[c] >= 0.0f && factors[c] < 8.0f;
    if (!by_products_) break;
    step_[c] = int32_t(std::lround(double(factors[c]) * (1 << 20)));
    for (int d = -255; d <= 255; ++d)
      by_products_ = by_products_ && std::clamp((d * step_[c] + (1 << 19)) >> 20, -256, 256) == delta_[c][size_t(d + 255)];
  }
}

void Saturation::Row(const uint32_t* in, uint32_t* out, int count) const {
  if (by_products_) {
    // The deltas need no holding here: past -256 or 256 the byte is held to 0 or 255 anyway.
    const int32_t blue = step_[0], green = step_[1], red = step_[2];
    MapWords(in, out, count, [blue, green, red](uint32_t p) {
      const int b = int(p & 255), g = int(p >> 8 & 255), r = int(p >> 16 & 255);
      const int y = Luminance(r, g, b);
      const auto moved = [y](int32_t step, int c) {
        return uint32_t(std::clamp(y + (((c - y) * step + (1 << 19)) >> 20), 0, 255));
      };
      return (p & 0xFF000000u) | moved(red, r) << 16 | moved(green, g) << 8 | moved(blue, b);
    });
    return;
  }
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
