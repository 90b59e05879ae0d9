// Window sums that slide along a line, the heart of the box and triangle blurs: for every
// position k of a line of n positions, the sum of the values at positions k - r .. k + r, each
// weighed 1 (a box) or r + 1 - |d| (a triangle); positions past either end read the end
// position. Moving on costs the same whatever r is: a box adds the position that enters and
// drops the one that leaves; a triangle also keeps the box sums just ahead of k (offsets
// 1 .. r + 1) and just behind it (-r .. 0), and moves on by sum + ahead - behind. Sums are
// exact in the caller's unsigned Sum type (differences wrap and come back).
//
// A line runs along a row (each position a pixel, its channels the lanes) or down the rows of a
// band (each position a row, every value of the row a lane). Starting part way down a line costs
// one read per distinct position in the window, so a band can start anywhere.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace kestrion {

enum class WindowShape { Box, Triangle };

// Each value as it stands.
struct SameValue {
  template <class V>
  constexpr V operator()(V v) const {
    return v;
  }
};

namespace window_detail {

// Weight of offset d in a window of radius r.
template <WindowShape kShape>
constexpr unsigned long long Weight(long r, long d) {
  if constexpr (kShape == WindowShape::Box) return 1;
  return static_cast<unsigned long long>(r + 1 - (d < 0 ? -d : d));
}

// The total weight of offsets d = lo .. hi (lo <= hi) in a window of radius r, every offset
// lying on one side of 0 or at it.
template <WindowShape kShape>
constexpr unsigned long long Weights(long r, long lo, long hi) {
  const unsigned long long count = static_cast<unsigned long long>(hi - lo + 1);
  if constexpr (kShape == WindowShape::Box) return count;
  return count * (Weight<kShape>(r, lo) + Weight<kShape>(r, hi)) / 2;
}

// sums[l] = sum over offsets d = lo .. hi of weight(d) * map(at(clamp(k + d))[l]), one read per
// distinct position: the offsets that fall before 0 or past n - 1 are counted in one go.
template <class Sum, class At, class Map, class WeightOf, class WeightsOf>
void WindowStart(Sum* sums, size_t lanes, int n, long k, long lo, long hi, At& at, Map& map, WeightOf weight,
                 WeightsOf weights) {
  std::fill(sums, sums + lanes, Sum(0));
  if (lo > hi) return;
  const auto add = [&](long p, unsigned long long w) {
    const auto* v = at(int(p));
    for (size_t l = 0; l < lanes; ++l) sums[l] += Sum(w) * Sum(map(v[l]));
  };
  const long first = std::max(lo, -k), last = std::min(hi, long(n) - 1 - k);
  if (lo < first) add(0, weights(lo, std::min(first, hi + 1) - 1));
  for (long d = first; d <= last; ++d) add(k + d, weight(d));
  if (hi > last) add(n - 1, weights(std::max(last + 1, lo), hi));
}

}  // namespace window_detail

// The window sums of one line, position by position, `lanes` values per position. at(p) gives
// position p's values (0 <= p < n); map(value) is what a value adds (SameValue, or a function of
// a byte, such as a weighting, applied before summing).
template <WindowShape kShape, class Sum>
class SlidingSums {
 public:
  // The sums at position `k` of the line.
  template <class At, class Map = SameValue>
  void Start(int n, long r, size_t lanes, int k, At at, Map map = {}) {
    n_ = n;
    r_ = r;
    k_ = k;
    lanes_ = lanes;
    sum_.resize(lanes);
    const auto weight = [r](long d) { return window_detail::Weight<kShape>(r, d); };
    const auto weights = [r](long lo, long hi) { return window_detail::Weights<kShape>(r, lo, hi); };
    // Both halves of the window lie on one side of 0, as Weights needs.
    std::vector<Sum> part(lanes);
    window_detail::WindowStart(sum_.data(), lanes, n, k, -r, -1, at, map, weight, weights);
    window_detail::WindowStart(part.data(), lanes, n, k, 0, r, at, map, weight, weights);
    for (size_t l = 0; l < lanes; ++l) sum_[l] += part[l];
    if constexpr (kShape == WindowShape::Triangle) {
      ahead_.resize(lanes);
      behind_.resize(lanes);
      const auto one = [](long) { return 1ull; };
      const auto count = [](long lo, long hi) { return static_cast<unsigned long long>(hi - lo + 1); };
      window_detail::WindowStart(ahead_.data(), lanes, n, k, 1, r + 1, at, map, one, count);
      window_detail::WindowStart(behind_.data(), lanes, n, k, -r, 0, at, map, one, count);
    }
  }

  // Moves to the next position.
  template <class At, class Map = SameValue>
  void Advance(At at, Map map = {}) {
    const long k = k_;
    Sum* __restrict sum = sum_.data();
    if constexpr (kShape == WindowShape::Box) {
      const auto* enter = at(Held(k + 1 + r_));
      const auto* leave = at(Held(k - r_));
      for (size_t l = 0; l < lanes_; ++l) sum[l] += Sum(map(enter[l])) - Sum(map(leave[l]));
    } else {
      const auto* enter = at(Held(k + 2 + r_));
      const auto* next = at(Held(k + 1));
      const auto* leave = at(Held(k - r_));
      Sum* __restrict ahead = ahead_.data();
      Sum* __restrict behind = behind_.data();
      for (size_t l = 0; l < lanes_; ++l) {
        const Sum middle = Sum(map(next[l]));
        sum[l] += ahead[l] - behind[l];
        ahead[l] += Sum(map(enter[l])) - middle;
        behind[l] += middle - Sum(map(leave[l]));
      }
    }
    k_ = int(k + 1);
  }

  const Sum* Sums() const { return sum_.data(); }
  // A triangle's box sums of the offsets 1 .. r + 1 and -r .. 0.
  const Sum* Ahead() const { return ahead_.data(); }
  const Sum* Behind() const { return behind_.data(); }
  int Position() const { return k_; }

 private:
  int Held(long p) const { return int(std::clamp(p, 0L, long(n_) - 1)); }

  int n_ = 0, k_ = 0;
  long r_ = 0;
  size_t lanes_ = 0;
  std::vector<Sum> sum_, ahead_, behind_;
};

// Runs emit(k, sums) for every position k of a line of n positions, `lanes` values each, in
// order, reusing `sums` (and its storage) from line to line.
template <WindowShape kShape, class Sum, class At, class Emit, class Map = SameValue>
void EveryWindow(SlidingSums<kShape, Sum>& sums, int n, long r, size_t lanes, At at, Emit emit, Map map = {}) {
  if (n <= 0) return;
  sums.Start(n, r, lanes, 0, at, map);
  for (int k = 0;; ++k) {
    emit(k, sums.Sums());
    if (k + 1 == n) break;
    sums.Advance(at, map);
  }
}

// The window sums at every position of a line whose positions hold kLanes values each:
// out[k * kLanes + l] from in[p * kLanes + l]. The sums stay in registers along the line, so
// a row of pixels goes at the speed of one addition chain per channel.
template <WindowShape kShape, int kLanes, class Sum, class Value>
void SlideAlong(const Value* in, int n, long r, Sum* out) {
  if (n <= 0) return;
  const auto at = [in](int p) { return in + size_t(p) * kLanes; };
  SlidingSums<kShape, Sum> start;
  start.Start(n, r, kLanes, 0, at);
  Sum sum[kLanes], ahead[kLanes] = {}, behind[kLanes] = {};
  for (int l = 0; l < kLanes; ++l) sum[l] = start.Sums()[l];
  if constexpr (kShape == WindowShape::Triangle)
    for (int l = 0; l < kLanes; ++l) {
      ahead[l] = start.Ahead()[l];
      behind[l] = start.Behind()[l];
    }
  const long last = long(n) - 1;
  for (int k = 0;; ++k) {
    for (int l = 0; l < kLanes; ++l) out[size_t(k) * kLanes + l] = sum[l];
    if (k == n - 1) break;
    if constexpr (kShape == WindowShape::Box) {
      const Value* enter = at(int(std::min(k + 1 + r, last)));
      const Value* leave = at(int(std::max(k - r, 0L)));
      for (int l = 0; l < kLanes; ++l) sum[l] += Sum(enter[l]) - Sum(leave[l]);
    } else {
      const Value* enter = at(int(std::min(k + 2 + r, last)));
      const Value* next = at(k + 1);
      const Value* leave = at(int(std::max(k - r, 0L)));
      for (int l = 0; l < kLanes; ++l) {
        sum[l] += ahead[l] - behind[l];
        ahead[l] += Sum(enter[l]) - Sum(next[l]);
        behind[l] += Sum(next[l]) - Sum(leave[l]);
      }
    }
  }
}

}  // namespace kestrion
