#include "host/base/animation.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "host/base/archive.h"

namespace kestrion {

void Spline::SetKey(const KeyPoint& key) {
  auto it = std::lower_bound(keys_.begin(), keys_.end(), key.time,
                             [](const KeyPoint& k, double t) { return k.time < t; });
  if (it != keys_.end() && it->time == key.time)
    *it = key;
  else
    keys_.insert(it, key);
}

bool Spline::RemoveKey(double time) {
  auto it = std::find_if(keys_.begin(), keys_.end(), [time](const KeyPoint& k) { return k.time == time; });
  if (it == keys_.end()) return false;
  keys_.erase(it);
  return true;
}

// Slope at key i from its neighbours; flat at the ends.
double Spline::Slope(size_t i, int c) const {
  if (i == 0 || i + 1 >= keys_.size()) return 0.0;
  const KeyPoint& a = keys_[i - 1];
  const KeyPoint& b = keys_[i + 1];
  return (b.value[c] - a.value[c]) / (b.time - a.time);
}

double Spline::Evaluate(double time, int c) const {
  if (keys_.empty()) return 0.0;
  if (time <= keys_.front().time) return keys_.front().value[c];
  if (time >= keys_.back().time) return keys_.back().value[c];
  auto it = std::upper_bound(keys_.begin(), keys_.end(), time,
                             [](double t, const KeyPoint& k) { return t < k.time; });
  const size_t i1 = size_t(it - keys_.begin());
  const size_t i0 = i1 - 1;
  const KeyPoint& k0 = keys_[i0];
  const KeyPoint& k1 = keys_[i1];
  const double h = k1.time - k0.time;
  const double s = (time - k0.time) / h;
  if (curve_ != Bezier) return k0.value[c] + (k1.value[c] - k0.value[c]) * s;
  // Cubic Hermite form of the Bezier segment whose handles sit at a third of the interval.
  const double s2 = s * s, s3 = s2 * s;
  const double h00 = 2 * s3 - 3 * s2 + 1, h10 = s3 - 2 * s2 + s, h01 = -2 * s3 + 3 * s2, h11 = s3 - s2;
  return h00 * k0.value[c] + h10 * h * Slope(i0, c) + h01 * k1.value[c] + h11 * h * Slope(i1, c);
}

// Keys carry a flags word only when one of them has flags: the top bit of the count says so,
// so splines without flags keep the record they always had.
constexpr uint32_t kKeysWithFlags = 0x80000000u;

void Spline::Save(CArchive& ar) const {
  const bool flagged = std::any_of(keys_.begin(), keys_.end(), [](const KeyPoint& k) { return k.flags != 0; });
  ar.WriteWord(curve_);
  ar.WriteWord(uint32_t(keys_.size()) | (flagged ? kKeysWithFlags : 0));
  for (const auto& k : keys_) {
    ar.WriteDouble(k.time);
    ar.WriteDouble(k.value[0]);
    ar.WriteDouble(k.value[1]);
    if (flagged) ar.WriteWord(k.flags);
  }
}

Spline Spline::Load(CArchive& ar) {
  const uint32_t curve = ar.ReadWord();
  if (curve != Linear && curve != Bezier)
    throw ArchiveError("the document is corrupt: an animation has the unknown curve kind '" + FourCCText(curve) + "'");
  const uint32_t word = ar.ReadWord();
  const bool flagged = word & kKeysWithFlags;
  const uint32_t count = word & ~kKeysWithFlags;
  if (count > ar.Remaining() / (flagged ? 28 : 24))
    throw ArchiveError("the document is corrupt: an animation claims " + std::to_string(count) + " keys");
  Spline s(curve);
  s.keys_.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    KeyPoint k;
    k.time = ar.ReadDouble();
    k.value[0] = ar.ReadDouble();
    k.value[1] = ar.ReadDouble();
    if (flagged) k.flags = ar.ReadWord();
    if (!std::isfinite(k.time) || (!s.keys_.empty() && !(k.time > s.keys_.back().time)))
      throw ArchiveError("the document is corrupt: animation keys are out of order");
    s.keys_.push_back(k);
  }
  return s;
}

}  // namespace kestrion
