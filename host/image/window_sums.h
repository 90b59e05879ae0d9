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
#include <cstring>
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

// sums[l] += the sum over offsets d = lo .. hi of weight(d) * map(at(clamp(k + d))[l]), one
// read per distinct position: the offsets that fall before 0 or past n - 1 are counted in one
// go. The weights must be linear over lo .. hi (one side of 0, or a box).
template <WindowShape kShape, class Sum, class At, class Map>
void AddWindow(Sum* sums, size_t lanes, int n, long k, long lo, long hi, long r, At& at, Map& map) {
  if (lo > hi) return;
  const auto weights = [r](long a, long b) {  // offsets a .. b, by the arithmetic series
    return static_cast<unsigned long long>(b - a + 1) * (Weight<kShape>(r, a) + Weight<kShape>(r, b)) / 2;
  };
  const auto add = [&](long p, unsigned long long w) {
    const auto* v = at(int(p));
    for (size_t l = 0; l < lanes; ++l) sums[l] += Sum(w) * Sum(map(v[l]));
  };
  const long first = std::max(lo, -k), last = std::min(hi, long(n) - 1 - k);
  if (lo < first) add(0, weights(lo, std::min(first, hi + 1) - 1));
  for (long d = first; d <= last; ++d) add(k + d, Weight<kShape>(r, d));
  if (hi > last) add(n - 1, weights(std::max(last + 1, lo), hi));
}

// One step of a box: each sum gains the value entering and loses the one leaving. The steps are
// kept out of line with their pointers declared apart, so that the loops vectorise.
template <class Sum, class Value, class Map>
[[gnu::noinline]] void SlideBox(Sum* __restrict sum, const Value* enter, const Value* leave, size_t lanes, Map map) {
  for (size_t l = 0; l < lanes; ++l) sum[l] += Sum(map(enter[l])) - Sum(map(leave[l]));
}

// One step of a triangle: the sum moves by ahead - behind, and the value at the next position
// passes from the box ahead to the box behind.
template <class Sum, class Value, class Map>
[[gnu::noinline]] void SlideTriangle(Sum* __restrict sum, Sum* __restrict ahead, Sum* __restrict behind,
                                     const Value* enter, const Value* next, const Value* leave, size_t lanes,
                                     Map map) {
  for (size_t l = 0; l < lanes; ++l) {
    const Sum middle = Sum(map(next[l]));
    sum[l] += ahead[l] - behind[l];
    ahead[l] += Sum(map(enter[l])) - middle;
    behind[l] += middle - Sum(map(leave[l]));
  }
}

}  // namespace window_detail

// The window of radius r at position k of a line of n positions, `lanes` values each, into
// sum (and, for a triangle, its box sums of the offsets 1 .. r + 1 into ahead and -r .. 0 into
// behind). at(p) gives position p's values (0 <= p < n); map(value) is what a value adds.
template <WindowShape kShape, class Sum, class At, class Map = SameValue>
void WindowAt(int n, long r, size_t lanes, int k, At at, Sum* sum, Sum* ahead, Sum* behind, Map map = {}) {
  std::fill(sum, sum + lanes, Sum(0));
  window_detail::AddWindow<kShape>(sum, lanes, n, k, -r, -1, r, at, map);
  window_detail::AddWindow<kShape>(sum, lanes, n, k, 0, r, r, at, map);
  if constexpr (kShape == WindowShape::Triangle) {
    std::fill(ahead, ahead + lanes, Sum(0));
    std::fill(behind, behind + lanes, Sum(0));
    window_detail::AddWindow<WindowShape::Box>(ahead, lanes, n, k, 1, r + 1, r, at, map);
    window_detail::AddWindow<WindowShape::Box>(behind, lanes, n, k, -r, 0, r, at, map);
  }
}

// The window sums of one line, position by position, `lanes` values per position; map(value)
// is what a value adds (SameValue, or a function of a byte, such as a weighting, applied before
// summing). The storage is kept from line to line.
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
    if constexpr (kShape == WindowShape::Triangle) {
      ahead_.resize(lanes);
      behind_.resize(lanes);
    }
    WindowAt<kShape>(n, r, lanes, k, at, sum_.data(), ahead_.data(), behind_.data(), map);
  }

  // Moves to the next position.
  template <class At, class Map = SameValue>
  void Advance(At at, Map map = {}) {
    const long k = k_;
    if constexpr (kShape == WindowShape::Box)
      window_detail::SlideBox(sum_.data(), at(Held(k + 1 + r_)), at(Held(k - r_)), lanes_, map);
    else
      window_detail::SlideTriangle(sum_.data(), ahead_.data(), behind_.data(), at(Held(k + 2 + r_)), at(Held(k + 1)),
                                   at(Held(k - r_)), lanes_, map);
    k_ = int(k + 1);
  }

  const Sum* Sums() const { return sum_.data(); }
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

// The window sums at every position of a line whose positions hold kLanes values each (kLanes
// a power of two): out[k * kLanes + l] from in[p * kLanes + l], or added to out with kAdd. A
// position's lanes move as one vector, which stays in registers along the line.
template <WindowShape kShape, int kLanes, bool kAdd = false, class Sum, class Value>
void SlideAlong(const Value* in, int n, long r, Sum* out) {
  if (n <= 0) return;
  typedef Sum Lanes __attribute__((vector_size(kLanes * sizeof(Sum))));
  // Vectors pass by reference only: their passing by value differs between targets.
  const auto at = [in](int p) { return in + size_t(p) * kLanes; };
  const auto load = [in](long p, Lanes& v) {
    for (int l = 0; l < kLanes; ++l) v[l] = Sum(in[size_t(p) * kLanes + size_t(l)]);
  };
  Sum first[3][kLanes];
  WindowAt<kShape>(n, r, kLanes, 0, at, first[0], first[1], first[2]);
  Lanes sum, ahead, behind, enter, leave, next;
  std::memcpy(&sum, first[0], sizeof sum);
  std::memcpy(&ahead, first[1], sizeof ahead);
  std::memcpy(&behind, first[2], sizeof behind);
  const long last = long(n) - 1;
  const auto emit = [out, &sum](long k) {
    Lanes v = sum;
    if constexpr (kAdd) {
      Lanes before;
      std::memcpy(&before, out + k * kLanes, sizeof before);
      v += before;
    }
    std::memcpy(out + k * kLanes, &v, sizeof v);
  };
  // Moving from k to k + 1 reads position k + reach ahead and k - r behind: held to the line
  // near its ends, read straight through between them.
  const long reach = kShape == WindowShape::Box ? r + 1 : r + 2;
  const auto step = [&](long k, long entering, long leaving) {
    load(entering, enter);
    load(leaving, leave);
    if constexpr (kShape == WindowShape::Box) {
      sum += enter - leave;
    } else {
      load(k + 1, next);
      sum += ahead - behind;
      ahead += enter - next;
      behind += next - leave;
    }
  };
  const auto held_step = [&](long k) { step(k, std::min(k + reach, last), std::max(k - r, 0L)); };
  long k = 0;
  for (; k < std::min(r, last); ++k) {
    emit(k);
    held_step(k);
  }
  for (; k < last - reach + 1; ++k) {
    emit(k);
    step(k, k + reach, k - r);
  }
  for (; k < last; ++k) {
    emit(k);
    held_step(k);
  }
  emit(last);
}

}  // namespace kestrion
