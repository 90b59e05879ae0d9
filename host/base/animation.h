// Animation of an input: keys on a spline, evaluated at any time. Linear splines join keys
// with straight lines; Bezier splines ("BzSp") join them with cubic curves whose handles lie a
// third of the way to the neighbouring keys, with slopes from the keys on either side
// (flat at the first and last key). Before the first key and after the last the value holds.
#pragma once

#include <cstdint>
#include <vector>

#include "host/base/tags.h"

namespace kestrion {

class CArchive;

struct KeyPoint {
  double time = 0.0;
  double value[2] = {0.0, 0.0};  // a Number uses value[0]; a Point uses both
  uint32_t flags = 0;             // KeyPoint::Locked, or marks a tool keeps on its keys
  bool operator==(const KeyPoint&) const = default;

  // A key that a tool keeps in line with its own data (the Path modifier's locked points).
  static constexpr uint32_t Locked = 8;
};

// A node of a path: a key point or one of the handles between key points, in frame
// coordinates (0 to 1 across the width and down the height).
struct PathKeyPoint {
  uint8_t flags = 0;         // PathKeyPoint::Selected, marks, PathKeyPoint::Locked
  float x = 0.0f;
  float y = 0.0f;
  float displacement = 0.0f;  // key points: the share of the path's length up to here
  bool operator==(const PathKeyPoint&) const = default;

  static constexpr uint8_t Selected = 1;
  static constexpr uint8_t Locked = 8;
  // The bits a saved node keeps: every mark but the selection.
  static constexpr uint8_t SavedFlags = 14;
};

class Spline {
 public:
  static constexpr uint32_t Linear = FourCC("LnSp");
  static constexpr uint32_t Bezier = control::BezierCurve;

  explicit Spline(uint32_t curve = Linear) : curve_(curve) {}

  uint32_t Curve() const { return curve_; }
  void SetCurve(uint32_t curve) { curve_ = curve; }
  // Adds a key, or replaces the key at the same time.
  void SetKey(const KeyPoint& key);
  bool RemoveKey(double time);
  const std::vector<KeyPoint>& Keys() const { return keys_; }
  bool Empty() const { return keys_.empty(); }

  // The value at a time; component 0 or 1.
  double Evaluate(double time, int component = 0) const;

  void Save(CArchive& ar) const;
  // Throws ArchiveError on a corrupt spline (unknown curve, keys out of order, absurd count).
  static Spline Load(CArchive& ar);

  bool operator==(const Spline&) const = default;

 private:
  double Slope(size_t i, int component) const;

  uint32_t curve_;
  std::vector<KeyPoint> keys_;  // ordered by time, no two at one time
};

}  // namespace kestrion
