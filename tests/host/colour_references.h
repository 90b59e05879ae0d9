// Scalar references of the host's colour operations, written plainly from their definitions,
// one pixel word at a time: what the fast row kernels are compared with.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "tests/host/image/image_fixtures.h"

namespace kestrion::test {

inline uint8_t Byte(uint32_t word, int index) { return uint8_t(word >> (8 * index)); }

// The HLS formulas in double precision, each result byte the value * 255 rounded half away
// from zero.
inline double Round255(double v) { return std::clamp(std::floor(v * 255.0 + 0.5), 0.0, 255.0); }

inline uint32_t HlsByDoubles(uint32_t word) {
  const double r = Byte(word, 2) / 255.0, g = Byte(word, 1) / 255.0, b = Byte(word, 0) / 255.0;
  const double mx = std::max({r, g, b}), mn = std::min({r, g, b});
  const double l = (mx + mn) / 2.0;
  double h = 0.0, s = 0.0;
  if (mx != mn) {
    s = l <= 0.5 ? (mx - mn) / (mx + mn) : (mx - mn) / (2.0 - mx - mn);
    const double rc = (mx - r) / (mx - mn), gc = (mx - g) / (mx - mn), bc = (mx - b) / (mx - mn);
    if (r == mx)
      h = bc - gc;
    else if (g == mx)
      h = 2.0 + rc - bc;
    else
      h = 4.0 + gc - rc;
    h = h / 6.0;
    h = h - std::floor(h);
  }
  return Bgra(uint32_t(Round255(s)), uint32_t(Round255(l)), uint32_t(Round255(h)), word >> 24);
}

inline double HlsValue(double m1, double m2, double t) {
  t = t - std::floor(t);
  if (t < 1.0 / 6.0) return m1 + (m2 - m1) * 6.0 * t;
  if (t < 0.5) return m2;
  if (t < 2.0 / 3.0) return m1 + (m2 - m1) * (2.0 / 3.0 - t) * 6.0;
  return m1;
}

inline uint32_t RgbOfHlsByDoubles(uint32_t word) {
  const double h = Byte(word, 2) / 255.0, l = Byte(word, 1) / 255.0, s = Byte(word, 0) / 255.0;
  double r = l, g = l, b = l;
  if (s != 0.0) {
    const double m2 = l <= 0.5 ? l * (1.0 + s) : l + s - l * s;
    const double m1 = 2.0 * l - m2;
    r = HlsValue(m1, m2, h + 1.0 / 3.0);
    g = HlsValue(m1, m2, h);
    b = HlsValue(m1, m2, h - 1.0 / 3.0);
  }
  return Bgra(uint32_t(Round255(b)), uint32_t(Round255(g)), uint32_t(Round255(r)), word >> 24);
}

// n / d rounded half away from zero, d > 0, held to 0..255.
inline uint32_t RoundedByte(int64_t n, int64_t d) {
  if (n <= 0) return 0;
  return uint32_t(std::min<int64_t>((2 * n + d) / (2 * d), 255));
}

// YUV with the coefficients in millionths, in exact integers.
inline uint32_t YuvExact(uint32_t word) {
  const int64_t r = Byte(word, 2), g = Byte(word, 1), b = Byte(word, 0);
  return Bgra(RoundedByte(128000000 + 500000 * r - 418688 * g - 81312 * b, 1000000),
              RoundedByte(128000000 - 168736 * r - 331264 * g + 500000 * b, 1000000),
              RoundedByte(299000 * r + 587000 * g + 114000 * b, 1000000), word >> 24);
}

inline uint32_t RgbOfYuvExact(uint32_t word) {
  const int64_t y = Byte(word, 2), u = int64_t(Byte(word, 1)) - 128, v = int64_t(Byte(word, 0)) - 128;
  return Bgra(RoundedByte(1000000 * y + 1772000 * u, 1000000),
              RoundedByte(1000000 * y - 344136 * u - 714136 * v, 1000000),
              RoundedByte(1000000 * y + 1402000 * v, 1000000), word >> 24);
}

// round-half-away-from-zero(v) held to 0..255 (NaN gives 0).
inline uint32_t HeldRound(double v) { return v > 0.0 ? uint32_t(std::min(std::floor(v + 0.5), 255.0)) : 0; }

// Gain, gamma and saturation of one pixel word, each as its Image operation defines it.
inline uint32_t GainByDoubles(uint32_t word, const float gains[4]) {
  uint32_t out = 0;
  for (int c = 0; c < 4; ++c) out |= HeldRound(Byte(word, c) * double(gains[c])) << (8 * c);
  return out;
}

inline uint32_t GammaByDoubles(uint32_t word, const float gammas[4]) {
  uint32_t out = 0;
  for (int c = 0; c < 4; ++c)
    out |= HeldRound(255.0 * std::pow(Byte(word, c) / 255.0, 1.0 / double(gammas[c]))) << (8 * c);
  return out;
}

// factors[c] for blue, green, red.
inline uint32_t SaturateByDoubles(uint32_t word, const float factors[3]) {
  const int y = (19595 * Byte(word, 2) + 38470 * Byte(word, 1) + 7471 * Byte(word, 0)) >> 16;
  uint32_t out = word & 0xFF000000u;
  for (int c = 0; c < 3; ++c) out |= HeldRound(y + (Byte(word, c) - y) * double(factors[c])) << (8 * c);
  return out;
}

}  // namespace kestrion::test
