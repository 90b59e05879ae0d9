// Plain references of Ripple, Vortex, Dent and Coordinate Space: one pixel at a time, straight
// from the tools' definitions, with the C library's functions and the host's single-point
// samplers. The tools' rows (their fast forms, their runs and copies) are tied to them byte for
// byte. Each takes the tool's input values as a flow would set them.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "host/base/random.h"
#include "host/image/image.h"
#include "host/image/tables.h"
#include "module/image_model.h"

namespace kestrion::test {

using module::TruncToInt;

struct RippleSettings {
  double shape = 0;
  float cx = 0.5f, cy = 0.5f;
  double amplitude = 0.1, dampening = 0, frequency = 10, phase = 0;
};

struct VortexSettings {
  float cx = 0.5f, cy = 0.5f;
  double size = 0.5, angle = 180, power = 2;
};

struct DentSettings {
  double type = 0;
  float cx = 0.5f, cy = 0.5f;
  double size = 0.5, strength = 1;
};

// Pixel (x, y) of an image as a word (a mask's value in all four bytes).
inline uint32_t WordAt(const Image& img, int x, int y) {
  return img.Depth() == 32 ? img.Row(y)[x] : uint32_t(img.MaskRow(y)[x]) * 0x01010101u;
}

// The frame unchanged, row after row.
inline std::vector<uint32_t> Unchanged(const Image& src) {
  std::vector<uint32_t> out;
  for (int y = 0; y < src.Height(); ++y)
    for (int x = 0; x < src.Width(); ++x) out.push_back(WordAt(src, x, y));
  return out;
}

inline uint32_t Sampled(const Image& src, int32_t x, int32_t y, long quality, bool clamp) {
  Pixel p;
  clamp ? src.DoSample_Clamp(&p, x, y, quality) : src.DoSample_Black(&p, x, y, quality);
  return p.Word();
}

// Ripple, drawing Random's numbers from the C runtime's generator pixel by pixel.
inline std::vector<uint32_t> RippleReference(const Image& src, const RippleSettings& s, bool quick) {
  const int shape = int(s.shape), W = src.Width(), H = src.Height();
  if (s.frequency <= 0 || s.amplitude <= 0 || shape < 0 || shape > 7) return Unchanged(src);
  const double A = s.amplitude, D = s.dampening, F = s.frequency * 0.0031415926535897933;
  double p = -s.phase;
  if (p < 0) p = p + (std::llabs(TruncToInt(p)) + 1);
  const double P = p * 6.283185307179586;
  const int cx = int(W * double(s.cx)), cy = int(H * double(s.cy));
  const float xs = src.x_aspect, ys = src.y_aspect;
  std::vector<int> root(20000);
  for (int i = 0; i < 20000; ++i) root[i] = int(std::sqrt(i * double(0.0001f)) * 2000 * 0.707106781186595);
  std::vector<float> wave(2000);
  for (int i = 0; i < 2000; ++i) {
    const int k = TruncToInt((i * F + P) * 1000);
    wave[i] = float(SinTable[6284 + k % 6284] * A + 1.0);
  }
  const auto distance = [&](float fx, float fy) -> int {
    const double ax = std::fabs(fx), ay = std::fabs(fy);
    switch (shape) {
      case 0: {
        const float r2 = float(double(fx) * fx + double(fy) * fy);
        return r2 < 2.0 ? root[int(r2 * 10000.0)] : TruncToInt(std::sqrt(double(r2)) * 1414.21356237319);
      }
      case 1: return TruncToInt(std::max(ax, ay) * 2000);
      case 2: return crt_rand() % 2000;
      case 3: return TruncToInt(ay * 2000);
      case 4: return TruncToInt(ax * 2000);
      case 5: return TruncToInt(ax * ay * 2000);
      case 6: return TruncToInt(std::min(ax, ay) / std::max(ax, ay) * 2000 * 0.125);
      default: return fx == 0 && fy == 0 ? 0 : TruncToInt((std::atan2(double(fx), double(fy)) + 3.141592653589793) * 318.1507312406988);
    }
  };
  std::vector<uint32_t> out;
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const float fx = float(double(x - cx) / W * xs), fy = float(double(y - cy) / W * ys);
      double scale = 1;
      if (fx != 0 || fy != 0) {
        const int d = distance(fx, fy);
        if (quick && D == 0 && d >= 0 && d < 2000) {
          scale = wave[d];
        } else {
          double a = A;
          if (D != 0) {
            a = A - std::sqrt(double(fx) * fx + double(fy) * fy) * D;
            if (a <= 0) a = 0;
          }
          scale = 1 + a * std::sin(F * d + P);
        }
      }
      out.push_back(Sampled(src, TruncToInt((cx + double(fx) * W * scale / xs) * 256),
                            TruncToInt((cy + double(fy) * W * scale / ys) * 256),
                            quick ? 0 : 1, true));
    }
  return out;
}

inline std::vector<uint32_t> VortexReference(const Image& src, const VortexSettings& s, bool quick) {
  if (s.angle == 0 || s.size == 0) return Unchanged(src);
  const int W = src.Width(), H = src.Height();
  const double a = s.angle * 0.017453292519943295, cxp = s.cx * double(W), cyp = H * double(s.cy), R = W * s.size * 0.5;
  const float xs = src.x_aspect, ys = src.y_aspect;
  std::vector<uint32_t> out;
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const double dx = (x - cxp) * xs, dy = (y - cyp) * ys, r = std::sqrt(dx * dx + dy * dy), f = (R - r) / R;
      if (f <= 0) {
        out.push_back(WordAt(src, x, y));
        continue;
      }
      const double theta = std::pow(f, s.power) * a + (dx == 0 && dy == 0 ? 0.0 : std::atan2(dy, dx));
      out.push_back(Sampled(src, TruncToInt((std::cos(theta) * r / xs + cxp) * 256),
                            TruncToInt((std::sin(theta) * r / ys + cyp) * 256), quick ? 0 : 1, true));
    }
  return out;
}

inline std::vector<uint32_t> DentReference(const Image& src, const DentSettings& s, bool quick) {
  if (s.size == 0 && s.strength == 0) return Unchanged(src);
  const int W = src.Width(), H = src.Height(), type = int(s.type);
  const double cxp = W * double(s.cx), cyp = H * double(s.cy), R = s.size * 0.5, k = -s.strength;
  const double pi = 3.141592653589793;
  const float xs = src.x_aspect, ys = src.y_aspect;
  std::vector<uint32_t> out;
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const double dx = (x - cxp) / W * xs, dy = (y - cyp) / W * ys, r = std::sqrt(dx * dx + dy * dy);
      if ((dx == 0 && dy == 0) || !(r < R)) {
        out.push_back(WordAt(src, x, y));
        continue;
      }
      double moved = r;
      if (type == 0) moved = r + (R - r) * k;
      if (type == 1) moved = r + (R - r) * k / R;
      if (type == 2) moved = ((R - r) * k / R + 1) * r;
      if (type == 3) moved = r + std::sqrt(r) * (R - r) * k / R;
      if (type == 4) moved = r + (1 - std::cos((R - r) / R * pi)) * k * 0.1;
      if (type == 5) moved = r + std::sin(std::min(r * 10 - R * 10, 0.0)) * k * (r * 0.2) * -5.0;
      out.push_back(Sampled(src, TruncToInt((moved * dx / r * W / xs + cxp) * 256),
                            TruncToInt((moved * dy / r * W / ys + cyp) * 256), quick ? 0 : 1, false));
    }
  return out;
}

inline std::vector<uint32_t> CoordinateSpaceReference(const Image& src, int shape) {
  const int W = src.Width(), H = src.Height();
  std::vector<uint32_t> out;
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      if (shape == 0) {
        const double theta = (double(x) / W - 0.5) * 6.283185307179586, rho = (double(y) / H) / std::sqrt(2.0);
        const int sx = TruncToInt((W - 1) * (std::cos(theta) * rho + 0.5));
        const int sy = TruncToInt((H - 1) * (std::sin(theta) * rho + 0.5));
        out.push_back(sx < 0 || sx >= W || sy < 0 || sy >= H ? 0 : WordAt(src, sx, sy));
      } else if (shape == 1) {
        const double dy = double(y) / H - 0.5, dx = double(x) / W - 0.5;
        const double rho = std::sqrt(dx * dx + dy * dy) / std::sqrt(0.5);
        const double a = dx == 0 && dy == 0 ? 0.0 : (std::atan2(dy, dx) + 3.141592653589793) * 0.15915494309189535;
        out.push_back(WordAt(src, TruncToInt((W - 1) * a), TruncToInt((H - 1) * rho)));
      } else {
        out.push_back(0);
      }
    }
  return out;
}

}  // namespace kestrion::test
