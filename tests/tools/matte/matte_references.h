// Plain scalar references of the matte tools, written from their definitions one pixel at a time:
// the colour-difference key, the matte blur with its column sums padded after every update, the
// contrast and gamma tables, the stages of each tool, in the order the tools run them.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

#include "tests/host/colour_references.h"
#include "tests/host/image/image_fixtures.h"

namespace kestrion::test {

using Alphas = std::vector<int64_t>;

inline bool PositiveBits(float v) { return std::bit_cast<int32_t>(v) > 0; }
inline bool ZeroBits(float v) { return v == 0.0f; }  // +0 and -0
inline int Trunc255(double v) { return int(v * 255.0); }

// Y and the colour-difference bytes: red, green, blue 128 + (c - Y) * k / 65536 toward zero.
struct Difference {
  int v[4];  // red, green, blue, luminance
};
inline Difference DifferenceOf(uint32_t p) {
  const int r = Byte(p, 2), g = Byte(p, 1), b = Byte(p, 0);
  const int y = (19595 * r + 38470 * g + 7471 * b) >> 16;
  return {{128 + (r - y) * 40000 / 65536, 128 + (g - y) * 50000 / 65536, 128 + (b - y) * 30000 / 65536, y}};
}

inline std::vector<int> ContrastTable(float c) {
  int k = std::clamp(int(c * 256.0f), -250, 250);
  std::vector<int> t(256);
  for (int i = 0; i < 256; ++i) {
    if (k >= 0) {
      t[i] = std::clamp((i * (16383 / (255 - k))) >> 6, 0, 255);
    } else {
      t[i] = i < -k ? 0 : std::clamp((k + i) * (16400 / (k + 255)) / 64, 0, 255);
    }
  }
  return t;
}

inline std::vector<int> GammaTable(float g) {
  std::vector<int> t(256);
  const float e = 1 / g;
  float y = 0.0f;
  for (float i = 0.0f; i < 256.0f; i += 1.0f) {
    t[int(i)] = int(255 * std::pow(double(y), double(e))) & 255;
    y += 0.003921568859368563f;
  }
  return t;
}

inline void Apply(const std::vector<int>& table, Alphas& a) {
  for (int64_t& v : a) v = table[size_t(v)];
}

// The matte blur: two boxes, each a row of column sums over its rows (clamped to the image),
// padded by its half-width: on the right with the last column's sum, on the left, first column
// included, with the second column's. A sliding sum along the row gives each box sum.
inline Alphas BlurReference(const Alphas& a, int w, int h, float s) {
  const double r = double(float(w) * s) * 0.003125;
  const int n = int(r);
  const double t = r - n;
  const int64_t w_small = int64_t((1 - t) * 1024), w_big = int64_t(t * 1024);
  const auto at = [&](int x, int y) { return a[size_t(std::clamp(y, 0, h - 1) * w + x)]; };
  struct Box {
    int half;
    std::vector<int64_t> col;
  } boxes[2] = {{n, {}}, {n + 1, {}}};
  for (Box& b : boxes) {
    b.col.assign(size_t(w + 2 * b.half), 0);
    for (int x = 0; x < w; ++x)
      for (int dy = -b.half; dy <= b.half; ++dy) b.col[size_t(x + b.half)] += at(x, dy);
  }
  Alphas out(a.size());
  for (int y = 0; y < h; ++y) {
    std::vector<int64_t> sums[2] = {std::vector<int64_t>(size_t(w)), std::vector<int64_t>(size_t(w))};
    for (int k = 0; k < 2; ++k) {
      Box& b = boxes[k];
      for (int i = b.half + w; i < w + 2 * b.half; ++i) b.col[size_t(i)] = b.col[size_t(b.half + w - 1)];
      // (A one-column image has no second column: its own stands in.)
      const int second = std::min(b.half + 1, w + 2 * b.half - 1);
      for (int i = 0; i <= b.half; ++i) b.col[size_t(i)] = b.col[size_t(second)];
      int64_t sum = 0;
      for (int i = 0; i <= 2 * b.half && i < w + 2 * b.half; ++i) sum += b.col[size_t(i)];
      for (int x = 0; x < w; ++x) {
        sums[k][size_t(x)] = sum;
        if (x + 2 * b.half + 1 < w + 2 * b.half) sum += b.col[size_t(x + 2 * b.half + 1)] - b.col[size_t(x)];
      }
    }
    const int64_t small_area = int64_t(2 * n + 1) * (2 * n + 1), big_area = int64_t(2 * n + 3) * (2 * n + 3);
    for (int x = 0; x < w; ++x)
      out[size_t(y * w + x)] =
          std::min<int64_t>(255, ((4 * sums[1][size_t(x)] / big_area) * w_big + (4 * sums[0][size_t(x)] / small_area) * w_small) >> 12);
    for (Box& b : boxes)
      for (int x = 0; x < w; ++x) b.col[size_t(x + b.half)] += at(x, y + b.half + 1) - at(x, y - b.half);
  }
  return out;
}

inline Vec Joined(const Vec& in, const Alphas& a) {
  Vec out(in.size());
  for (size_t i = 0; i < in.size(); ++i) out[i] = (in[i] & 0xFFFFFF) | uint32_t(a[i]) << 24;
  return out;
}

// --- the tools ---

struct KeyerSettings {
  double ranges[8];  // red low, red high, green low, ... luminance high
  int backing;
  float pre_blur, pre_contrast, blur, contrast, gamma, halo, halo_gamma;
};

inline Vec KeyerReference(const Vec& in, int w, int h, const KeyerSettings& s) {
  Alphas a(in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    const Difference d = DifferenceOf(in[i]);
    bool inside = true;
    for (int c = 0; c < 4; ++c) inside = inside && Trunc255(s.ranges[2 * c]) <= d.v[c] && d.v[c] <= Trunc255(s.ranges[2 * c + 1]);
    a[i] = inside ? 0 : 255;
  }
  if (PositiveBits(s.pre_blur)) a = BlurReference(a, w, h, s.pre_blur);
  if (!ZeroBits(s.pre_contrast)) Apply(ContrastTable(s.pre_contrast), a);
  for (size_t i = 0; i < in.size(); ++i)
    if (a[i] != 0) a[i] = (a[i] * std::min(Byte(in[i], 2) - Byte(in[i], s.backing == 0 ? 0 : 1) + 255, 255)) >> 8;
  if (PositiveBits(s.blur)) a = BlurReference(a, w, h, s.blur);
  if (!ZeroBits(s.contrast)) Apply(ContrastTable(s.contrast), a);
  if (s.gamma != 1.0f) Apply(GammaTable(s.gamma), a);
  Vec out = Joined(in, a);
  if (!PositiveBits(s.halo)) return out;
  const int hk = int(s.halo * 4096);
  const std::vector<int> t = GammaTable(s.halo_gamma);
  for (uint32_t& p : out) {
    const int alpha = int(p >> 24);
    if (alpha == 0) {
      p = 0;
      continue;
    }
    int c[3] = {Byte(p, 0), Byte(p, 1), Byte(p, 2)};
    if (alpha <= 240 && s.backing == 0) c[0] = std::clamp((c[1] * hk + (4096 - hk) * c[0]) >> 12, 0, 255);
    if (alpha <= 240 && s.backing == 1) c[1] = std::clamp((c[0] * hk + (4096 - hk) * c[1]) >> 12, 0, 255);
    for (int& v : c) v = std::clamp((t[size_t(v)] * (255 - alpha) + v * alpha) >> 8, 0, 255);
    p = Bgra(uint32_t(c[0]), uint32_t(c[1]), uint32_t(c[2]), uint32_t(alpha));
  }
  return out;
}

struct ChromaSettings {
  double ranges[8];
  double soft;
  float blur, contrast, gamma, halo;
};

inline Vec ChromaReference(const Vec& in, int w, int h, const ChromaSettings& s) {
  int lo[4], hi[4], centre[4];
  for (int c = 0; c < 4; ++c) {
    lo[c] = Trunc255(s.ranges[2 * c]);
    hi[c] = Trunc255(s.ranges[2 * c + 1]);
    centre[c] = lo[c] + (hi[c] - lo[c]) / 2;
  }
  const int colour_rate = 65500 / (Trunc255(s.soft) + 4);
  const int luma_low = 65500 / std::max(1, lo[3] + 4), luma_high = 65500 / std::max(1, hi[3] - 4);
  Alphas a(in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    const Difference d = DifferenceOf(in[i]);
    bool inside = true;
    int closest = 255;
    for (int c = 0; c < 4; ++c) {
      inside = inside && lo[c] <= d.v[c] && d.v[c] <= hi[c];
      int closeness = 255;
      if (d.v[c] < centre[c]) closeness = 255 + ((d.v[c] - centre[c]) * (c == 3 ? luma_low : colour_rate)) / 256;
      if (d.v[c] > centre[c]) closeness = 255 + ((centre[c] - d.v[c]) * (c == 3 ? luma_high : colour_rate)) / 256;
      closest = std::min(closest, closeness);
    }
    a[i] = inside ? 0 : 255 - std::clamp(closest, 0, 255);
  }
  if (PositiveBits(s.blur)) a = BlurReference(a, w, h, s.blur);
  if (!ZeroBits(s.contrast)) Apply(ContrastTable(s.contrast), a);
  if (s.gamma != 1.0f) Apply(GammaTable(s.gamma), a);
  Vec out = Joined(in, a);
  if (!PositiveBits(s.halo)) return out;
  int table[256];
  double y = 0.0;
  for (float i = 0.0f; i < 256.0f; i += 1.0f, y += 0.00392156862745098) table[int(i)] = int(255 * std::pow(y, 5 * s.halo));
  const float hh = 1 - s.halo;
  const int hk = int(hh * 4096);
  const int k[3] = {std::clamp((lo[0] + hi[0] - 256) * 32, 0, 4096), std::clamp((lo[1] + hi[1] - 256) * 32, 0, 4096),
                    std::clamp((lo[2] + hi[2] - 256) * 322, 0, 4096)};
  int weight[3];
  for (int c = 0; c < 3; ++c) weight[c] = hk - int((4096 - k[c]) * hh);
  for (uint32_t& p : out) {
    const int alpha = int(p >> 24), r = Byte(p, 2), g = Byte(p, 1), b = Byte(p, 0);
    const int grey = (r >> 2) + (b >> 2) + (g >> 1), t = table[alpha], inv = 255 - t;
    const int red = std::clamp(((((4096 - weight[0]) * grey + weight[0] * r) >> 12) * inv + t * r) / 256, 0, 255);
    const int green = std::clamp(((((4096 - weight[1]) * grey + weight[1] * red) >> 12) * inv + t * g) / 256, 0, 255);
    const int blue = std::clamp(((((4096 - weight[2]) * grey + weight[2] * b) >> 12) * inv + t * b) / 256, 0, 255);
    p = alpha == 0 ? 0 : Bgra(uint32_t(blue), uint32_t(green), uint32_t(red), uint32_t(alpha));
  }
  return out;
}

struct LumaSettings {
  double channel, low, high, blur, contrast, gamma, invert;
};

// For a tool made new, whose check box inverts when it is ticked.
inline Vec LumaReference(const Vec& in, int w, int h, const LumaSettings& s) {
  const int c = int(s.channel + 0.5), lo = Trunc255(s.low), hi = Trunc255(s.high);
  const int k = hi != lo ? 65280 / (hi - lo) : 0;
  Alphas a(in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    const int v = c >= 0 && c <= 3 ? Byte(in[i], c)
                                   : (19595 * Byte(in[i], 2) + 38470 * Byte(in[i], 1) + 7471 * Byte(in[i], 0)) >> 16;
    a[i] = v <= lo ? 0 : v >= hi ? 255 : ((v - lo) * k >> 8) & 255;
  }
  if (s.blur > 0) a = BlurReference(a, w, h, float(s.blur));
  if (s.contrast != 0) Apply(ContrastTable(float(s.contrast)), a);
  if (s.gamma != 1) Apply(GammaTable(float(s.gamma)), a);
  if (s.invert != 0)
    for (int64_t& v : a) v = 255 - v;
  return Joined(in, a);
}

struct ControlSettings {
  float blur, contrast, gamma;
  double invert, mode;
};

// `mask` is a garbage matte of mask_w x mask_h bytes, or empty for none.
inline Vec ControlReference(const Vec& in, int w, int h, const ControlSettings& s, const Bytes& mask, int mask_w,
                            int mask_h) {
  Alphas a(in.size());
  for (size_t i = 0; i < in.size(); ++i) a[i] = in[i] >> 24;
  if (PositiveBits(s.blur)) a = BlurReference(a, w, h, s.blur);
  if (!ZeroBits(s.contrast)) Apply(ContrastTable(s.contrast), a);
  if (s.gamma != 1.0f) Apply(GammaTable(s.gamma), a);
  if (s.invert == 1.0)
    for (int64_t& v : a) v = 255 - v;
  const auto m_at = [&](int x, int y) { return y < mask_h ? int(mask[size_t(y * mask_w + x)]) : 0; };
  if (!mask.empty() && (mask_w == w || mask_w == 2 * w))
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        int m = mask_w == w ? m_at(x, y) : (m_at(2 * x, 2 * y) + m_at(2 * x, 2 * y + 1)) / 2;
        if (m == 1) m = 0;
        int64_t& v = a[size_t(y * w + x)];
        if (m > 0 && int(s.mode) == 0) v = std::min<int64_t>(v, 255 - m);
        if (m > 0 && int(s.mode) == 1) v = std::max<int64_t>(v, m);
      }
  return Joined(in, a);
}

}  // namespace kestrion::test
