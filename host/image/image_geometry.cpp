// Host image operations that resample or filter: the samplers, resizing and the blurs.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <emmintrin.h>

#include "host/image/image.h"
#include "host/image/image_internal.h"
#include "host/image/image_rows.h"

namespace kestrion {

namespace {

// --- Samplers ---

// Pixel (i, j) as a word, a mask's value in all four bytes; outside the image 0, or with
// kClamp the nearest edge pixel.
template <bool kClamp>
inline uint32_t WordAt(const Image& img, long i, long j) {
  if constexpr (kClamp) {
    i = std::clamp(i, 0L, long(img.Width()) - 1);
    j = std::clamp(j, 0L, long(img.Height()) - 1);
  } else if (i < 0 || j < 0 || i >= img.Width() || j >= img.Height()) {
    return 0;
  }
  return img.Depth() == 8 ? uint32_t(img.MaskRow(int(j))[i]) * 0x01010101u : img.Row(int(j))[i];
}

// Four 32-bit lanes, and their low bytes as one word (a byte shuffle).
typedef uint8_t ByteLanes __attribute__((vector_size(16)));
typedef uint32_t WordLanes __attribute__((vector_size(16)));
inline uint32_t Narrow(WordLanes lanes) {
  const ByteLanes bytes = __builtin_shufflevector((ByteLanes)lanes, (ByteLanes)lanes, 0, 4, 8, 12, 0, 0, 0, 0, 0, 0, 0,
                                                  0, 0, 0, 0, 0);
  return ((WordLanes)bytes)[0];
}

// Four pixel words mixed per byte with weights in 1/256:
// ((p00 (256 - fx) + p10 fx) (256 - fy) + (p01 (256 - fx) + p11 fx) fy + 32768) >> 16.
// The top and bottom sums of each byte (below 65536) side by side in 16-bit lanes; then one
// multiply-add of lane pairs weighs them by 256 - fy and fy. That multiply-add is signed, so the
// sums enter less 32768 and 32768 x 256 is added back.
inline uint32_t Bilinear(uint32_t p00, uint32_t p10, uint32_t p01, uint32_t p11, uint32_t fx, uint32_t fy) {
  const __m128i zero = _mm_setzero_si128();
  const auto pair = [&](uint32_t top, uint32_t bottom) {
    return _mm_unpacklo_epi8(_mm_unpacklo_epi8(_mm_cvtsi32_si128(int(top)), _mm_cvtsi32_si128(int(bottom))), zero);
  };
  const __m128i sums = _mm_add_epi16(_mm_mullo_epi16(pair(p00, p01), _mm_set1_epi16(short(256 - fx))),
                                     _mm_mullo_epi16(pair(p10, p11), _mm_set1_epi16(short(fx))));
  const __m128i biased = _mm_xor_si128(sums, _mm_set1_epi16(short(0x8000)));
  __m128i mixed = _mm_madd_epi16(biased, _mm_set1_epi32(int(fy << 16 | (256 - fy))));
  mixed = _mm_srli_epi32(_mm_add_epi32(mixed, _mm_set1_epi32(32768 * 256 + 32768)), 16);
  mixed = _mm_packs_epi32(mixed, mixed);
  return uint32_t(_mm_cvtsi128_si32(_mm_packus_epi16(mixed, mixed)));
}

template <bool kClamp>
[[gnu::always_inline]] inline uint32_t Sample(const Image& img, long x, long y, long quality) {
  if (img.Width() == 0 || img.Height() == 0) return 0;
  if (quality == 0) return WordAt<kClamp>(img, (x + 128) >> 8, (y + 128) >> 8);
  const long i = x >> 8, j = y >> 8;
  const uint32_t fx = uint32_t(x & 255), fy = uint32_t(y & 255);
  // All four neighbours outside: transparent black (the rotated or moved part of a frame that
  // misses the image).
  if (!kClamp && (i < -1 || j < -1 || i >= img.Width() || j >= img.Height())) return 0;
  if (img.Depth() == 32 && i >= 0 && j >= 0 && i < img.Width() - 1 && j < img.Height() - 1) {
    const uint32_t* top = img.Row(int(j)) + i;
    const uint32_t* bottom = img.Row(int(j + 1)) + i;
    return Bilinear(top[0], top[1], bottom[0], bottom[1], fx, fy);
  }
  return Bilinear(WordAt<kClamp>(img, i, j), WordAt<kClamp>(img, i + 1, j), WordAt<kClamp>(img, i, j + 1),
                  WordAt<kClamp>(img, i + 1, j + 1), fx, fy);
}

// Point k of a line stepped in 32-bit sums that wrap: start + k step.
inline int32_t LinePoint(int32_t start, int32_t step, long k) {
  return int32_t(uint32_t(start) + uint32_t(step) * uint32_t(k));
}

// True when some point of the first `count` leaves the 32-bit range, so that the line wraps.
inline bool LineWraps(int32_t start, int32_t step, int count) {
  const int64_t last = int64_t(start) + int64_t(step) * (count - 1);
  return last < INT32_MIN || last > INT32_MAX;
}

// The first k in [lo, hi) for which `pred` holds, pred being false and then true along k; hi if none.
template <class Pred>
long FirstTrue(long lo, long hi, Pred pred) {
  while (lo < hi) {
    const long mid = lo + (hi - lo) / 2;
    if (pred(mid)) {
      hi = mid;
    } else {
      lo = mid + 1;
    }
  }
  return lo;
}

// Narrows [begin, end) to the points whose pixel index along one axis lies in 0..last. On a
// line that does not wrap the index moves one way only, so the points that pass form a run.
template <class Index>
void KeepInside(long& begin, long& end, int32_t step, long last, Index index) {
  if (step >= 0) {
    begin = FirstTrue(begin, end, [&](long k) { return index(k) >= 0; });
    end = FirstTrue(begin, end, [&](long k) { return index(k) > last; });
  } else {
    begin = FirstTrue(begin, end, [&](long k) { return index(k) <= last; });
    end = FirstTrue(begin, end, [&](long k) { return index(k) < 0; });
  }
}

// The words from one row of a 32-bit image to the next, where every pixel lies at a 32-bit
// offset of words from row 0 (rows are evenly spaced in every image, as both constructors lay
// them); 0 where not, or for an image of one row.
int32_t WordStride(const Image& img) {
  if (img.Height() < 2) return 0;
  const ptrdiff_t bytes = reinterpret_cast<const uint8_t*>(img.Row(1)) - reinterpret_cast<const uint8_t*>(img.Row(0));
  const ptrdiff_t words = bytes / 4;
  if (bytes % 4 != 0 || std::abs(words) * ptrdiff_t(img.Height()) >= (ptrdiff_t(1) << 31) - 1) return 0;
  return int32_t(words);
}

// Bilinear samples along a line whose pixels all lie inside, read at word offsets from row 0
// rather than through the row table, so that the loop vectorises. Kept out of line: inlined,
// the compiler loses the promise that `out` is no pixel it reads.
[[gnu::noinline]] void BilinearAlong(const uint32_t* origin, int32_t stride, uint32_t* __restrict out, long count,
                                     int32_t x, int32_t y, int32_t dx, int32_t dy) {
  for (long k = 0; k < count; ++k) {
    const int32_t px = LinePoint(x, dx, k), py = LinePoint(y, dy, k);
    const int32_t at = (py >> 16) * stride + (px >> 16);
    out[k] = Bilinear(origin[at], origin[at + 1], origin[at + stride], origin[at + stride + 1], uint32_t(px >> 8) & 255,
                      uint32_t(py >> 8) & 255);
  }
}

// Samples whose pixels all lie inside a 32-bit image, read without checks; returns where they
// are: `out`, or the image's own row when whole-pixel steps along it land on whole pixels
// (nearest always does). Other whole-pixel steps along a row keep the fractions, so the samples
// mix two rows with constant weights.
const uint32_t* SampleInside(const Image& img, uint32_t* out, long count, int32_t x, int32_t y, int32_t dx,
                             int32_t dy, long quality) {
  const bool straight = dx == 65536 && dy == 0;
  if (quality == 0) {
    if (straight) return img.Row(((y >> 8) + 128) >> 8) + (((x >> 8) + 128) >> 8);
    for (long k = 0; k < count; ++k) {
      const int32_t px = LinePoint(x, dx, k), py = LinePoint(y, dy, k);
      out[k] = img.Row(((py >> 8) + 128) >> 8)[((px >> 8) + 128) >> 8];
    }
    return out;
  }
  if (straight) {
    const uint32_t* top = img.Row(y >> 16) + (x >> 16);
    const uint32_t* bottom = img.Row((y >> 16) + 1) + (x >> 16);
    const uint32_t fx = uint32_t(x >> 8) & 255, fy = uint32_t(y >> 8) & 255;
    if (fx == 0 && fy == 0) return top;
    for (long k = 0; k < count; ++k) out[k] = Bilinear(top[k], top[k + 1], bottom[k], bottom[k + 1], fx, fy);
    return out;
  }
  if (const int32_t stride = WordStride(img)) {
    BilinearAlong(img.Row(0), stride, out, count, x, y, dx, dy);
    return out;
  }
  for (long k = 0; k < count; ++k) {
    const int32_t px = LinePoint(x, dx, k), py = LinePoint(y, dy, k);
    const uint32_t* top = img.Row(py >> 16) + (px >> 16);
    const uint32_t* bottom = img.Row((py >> 16) + 1) + (px >> 16);
    out[k] = Bilinear(top[0], top[1], bottom[0], bottom[1], uint32_t(px >> 8) & 255, uint32_t(py >> 8) & 255);
  }
  return out;
}

// The samples of SampleRow_Black and SampleRow_Clamp: the run of points whose pixels all lie
// inside goes through SampleInside, the points before and after it (and every point of a mask
// or of a line that wraps) through the checked sampler.
template <bool kClamp>
const uint32_t* SampleRow(const Image& img, uint32_t* out, int count, int32_t x, int32_t y, int32_t dx, int32_t dy,
                          long quality) {
  long begin = 0, end = 0;
  if (img.Depth() == 32 && !LineWraps(x, dx, count) && !LineWraps(y, dy, count)) {
    // Nearest reads pixel ((X >> 8) + 128) >> 8; bilinear reads X >> 16 and the pixel after it.
    const auto pixel = [quality](int32_t v) { return quality == 0 ? ((v >> 8) + 128) >> 8 : v >> 16; };
    const long lastx = img.Width() - (quality == 0 ? 1 : 2), lasty = img.Height() - (quality == 0 ? 1 : 2);
    end = count;
    KeepInside(begin, end, dx, lastx, [&](long k) { return pixel(LinePoint(x, dx, k)); });
    KeepInside(begin, end, dy, lasty, [&](long k) { return pixel(LinePoint(y, dy, k)); });
  }
  if (begin < end) {
    const uint32_t* inside =
        SampleInside(img, out + begin, end - begin, LinePoint(x, dx, begin), LinePoint(y, dy, begin), dx, dy, quality);
    if (begin == 0 && end == count) return inside;
    if (inside != out + begin) std::memcpy(out + begin, inside, size_t(end - begin) * 4);
  }
  const auto checked = [&](long k) { out[k] = Sample<kClamp>(img, LinePoint(x, dx, k) >> 8, LinePoint(y, dy, k) >> 8, quality); };
  for (long k = 0; k < begin; ++k) checked(k);
  for (long k = end; k < count; ++k) checked(k);
  return out;
}

// The samples of SamplePoints_Black and SamplePoints_Clamp. Bilinear samples whose four pixels
// lie inside a 32-bit image are mixed straight from its rows, the size held in locals (stores
// to `out` could otherwise change it, as far as the compiler knows); the rest go through the
// checked sampler.
template <bool kClamp>
void SamplePoints(const Image& img, uint32_t* __restrict out, int count, const int32_t* x, const int32_t* y,
                  long quality) {
  const uint32_t last_x = uint32_t(img.Width() - 1), last_y = uint32_t(img.Height() - 1);
  if (img.Depth() != 32 || quality == 0 || img.Width() == 0 || img.Height() == 0) {
    for (int k = 0; k < count; ++k) out[k] = Sample<kClamp>(img, x[k], y[k], quality);
    return;
  }
  void* const* rows = img.RowTable();
  for (int k = 0; k < count; ++k) {
    const int32_t i = x[k] >> 8, j = y[k] >> 8;
    if (uint32_t(i) < last_x && uint32_t(j) < last_y) {
      const uint32_t* top = static_cast<const uint32_t*>(rows[j]) + i;
      const uint32_t* bottom = static_cast<const uint32_t*>(rows[j + 1]) + i;
      out[k] = Bilinear(top[0], top[1], bottom[0], bottom[1], uint32_t(x[k]) & 255, uint32_t(y[k]) & 255);
    } else {
      out[k] = Sample<kClamp>(img, x[k], y[k], quality);
    }
  }
}

// --- Resampling ---

}  // namespace

// Area average (box): destination pixel o covers source [o s, (o + 1) s), s = src / dst, and
// each source pixel weighs by the length it shares. Triangle: centred at (o + 0.5) s - 0.5,
// radius max(s, 1), source positions past the edges taken by the edge pixel.
Resampler::Taps Resampler::MakeTaps(int src, int dst, bool triangle) {
  const double s = double(src) / double(dst);
  const double radius = std::max(s, 1.0);
  std::vector<std::vector<std::pair<int, double>>> all(static_cast<size_t>(dst));
  Taps t;
  for (int o = 0; o < dst; ++o) {
    auto& taps = all[size_t(o)];
    if (triangle) {
      const double c = (o + 0.5) * s - 0.5;
      for (long k = long(std::ceil(c - radius)); k <= long(std::floor(c + radius)); ++k) {
        const double w = 1.0 - std::abs(double(k) - c) / radius;
        if (w > 0.0) taps.push_back({int(std::clamp(k, 0L, long(src) - 1)), w});
      }
    } else {
      const double lo = o * s, hi = (o + 1) * s;
      for (int k = int(lo); k < src && k < hi; ++k) {
        const double w = std::min(hi, k + 1.0) - std::max(lo, double(k));
        if (w > 0.0) taps.push_back({k, w});
      }
    }
    t.count = std::max(t.count, int(taps.size()));
  }
  t.index.assign(size_t(dst) * size_t(t.count), 0);
  t.weight.assign(size_t(dst) * size_t(t.count), 0);
  for (int o = 0; o < dst; ++o) {
    const auto& taps = all[size_t(o)];
    double sum = 0.0;
    for (const auto& tap : taps) sum += tap.second;
    int total = 0;
    size_t largest = 0;
    for (size_t k = 0; k < taps.size(); ++k) {
      const size_t at = size_t(o) * size_t(t.count) + k;
      t.index[at] = taps[k].first;
      t.weight[at] = uint32_t(std::lround(taps[k].second / sum * 16384.0));
      total += int(t.weight[at]);
      if (taps[k].second > taps[largest].second) largest = k;
    }
    // Rounding leftovers go to the heaviest tap, so a flat area stays flat.
    const size_t at = size_t(o) * size_t(t.count) + largest;
    t.weight[at] = uint32_t(int(t.weight[at]) + 16384 - total);
  }
  return t;
}

Resampler::Resampler(const Image& src, Image& dst, bool triangle) : src_(src), dst_(dst) {
  image_internal::RequireSameDepth(src, dst);
  if (src.Width() == 0 || src.Height() == 0 || dst.Width() == 0 || dst.Height() == 0) return;
  x_ = MakeTaps(src.Width(), dst.Width(), triangle);
  y_ = MakeTaps(src.Height(), dst.Height(), triangle);
  halves_ = triangle && src.Depth() == 32 && src.Width() == 2 * dst.Width() && src.Height() == 2 * dst.Height();
}

namespace {

// One destination row of 32-bit pixels from the row of 16-bit values (bytes x 256) of the
// vertical pass: the four channels of a pixel summed side by side.
void HorizontalPass(const Resampler::Taps& t, const uint32_t* mid, uint32_t* out, int width) {
  for (int ox = 0; ox < width; ++ox) {
    const int* index = &t.index[size_t(ox) * size_t(t.count)];
    const uint32_t* weight = &t.weight[size_t(ox) * size_t(t.count)];
    uint32_t acc[4] = {0, 0, 0, 0};
    for (int k = 0; k < t.count; ++k) {
      const uint32_t* m = mid + size_t(index[k]) * 4;
      for (int c = 0; c < 4; ++c) acc[c] += weight[k] * m[c];
    }
    uint32_t word = 0;
    for (int c = 0; c < 4; ++c) word |= ((acc[c] + (1u << 21)) >> 22) << (8 * c);
    out[ox] = word;
  }
}

// The same for a mask, one channel.
void HorizontalMaskPass(const Resampler::Taps& t, const uint32_t* mid, uint8_t* out, int width) {
  for (int ox = 0; ox < width; ++ox) {
    const int* index = &t.index[size_t(ox) * size_t(t.count)];
    const uint32_t* weight = &t.weight[size_t(ox) * size_t(t.count)];
    uint32_t acc = 0;
    for (int k = 0; k < t.count; ++k) acc += weight[k] * mid[index[k]];
    out[ox] = uint8_t((acc + (1u << 21)) >> 22);
  }
}

// A frame halved both ways with the triangle filter. Its taps are source pixels 2o - 1 .. 2o + 2
// (held to the edges) at 2048, 6144, 6144 and 2048 in 1/16384 each way, so the general passes
// come to (T + 32) >> 6, T the 4 x 4 sum weighted 1, 3, 3, 1 each way: the columns summed
// exactly into 32-bit lanes, then the rows, each pixel's four channels side by side.
void HalvedRow(const Resampler::Taps& rows, int y, const Image& src, uint32_t* sum, uint32_t* out, int width) {
  const auto row = [&](int k) { return reinterpret_cast<const uint8_t*>(src.Row(rows.index[size_t(y) * 4 + size_t(k)])); };
  const uint8_t *r0 = row(0), *r1 = row(1), *r2 = row(2), *r3 = row(3);
  const size_t line = size_t(src.Width()) * 4;
  for (size_t i = 0; i < line; ++i) sum[i] = r0[i] + 3 * (uint32_t(r1[i]) + r2[i]) + r3[i];
  const auto pixel = [sum](int j) {
    WordLanes lanes;
    std::memcpy(&lanes, sum + size_t(j) * 4, 16);
    return lanes;
  };
  const int last = src.Width() - 1;
  const auto mix = [&](int o, int left, int right) {
    out[o] = Narrow((pixel(left) + 3 * (pixel(2 * o) + pixel(2 * o + 1)) + pixel(right) + 32) >> 6);
  };
  // The first and last pixels hold their outer taps to the edges; the others need no holding.
  mix(0, 0, std::min(2, last));
  for (int o = 1; o < width - 1; ++o) mix(o, 2 * o - 1, 2 * o + 2);
  if (width > 1) mix(width - 1, 2 * width - 3, last);
}

}  // namespace

size_t Resampler::ScratchWords() const { return size_t(src_.Width()) * src_.BytesPerPixel(); }

// Vertical pass into a row of 16-bit values (bytes x 256), then horizontal pass to bytes.
void Resampler::Row(int y, uint32_t* sum) const {
  const size_t line = ScratchWords();
  if (src_.Width() == 0 || src_.Height() == 0) {
    std::memset(dst_.RowTable()[y], 0, size_t(dst_.Width()) * dst_.BytesPerPixel());
    return;
  }
  if (dst_.Width() == 0) return;
  if (halves_) {
    HalvedRow(y_, y, src_, sum, dst_.Row(y), dst_.Width());
    return;
  }
  std::fill(sum, sum + line, 0u);
  for (int k = 0; k < y_.count; ++k) {
    const size_t at = size_t(y) * size_t(y_.count) + size_t(k);
    const uint32_t w = y_.weight[at];
    if (w == 0) continue;
    const auto* row = static_cast<const uint8_t*>(src_.RowTable()[y_.index[at]]);
    for (size_t i = 0; i < line; ++i) sum[i] += w * row[i];
  }
  for (size_t i = 0; i < line; ++i) sum[i] = (sum[i] + 32) >> 6;
  if (dst_.Depth() == 32) {
    HorizontalPass(x_, sum, dst_.Row(y), dst_.Width());
  } else {
    HorizontalMaskPass(x_, sum, dst_.MaskRow(y), dst_.Width());
  }
}

void Resampler::Rows(int begin, int end) const {
  std::vector<uint32_t> scratch(ScratchWords());
  for (int y = begin; y < end; ++y) Row(y, scratch.data());
}

namespace {

// --- Blurs ---

__extension__ typedef unsigned __int128 Wide;

// Division by a fixed divisor as a multiply and a shift, exact for every x below 2^63.
class Reciprocal {
 public:
  explicit Reciprocal(uint64_t d) {
    int bits = 0;
    while ((uint64_t(1) << bits) < d) ++bits;
    shift_ = 63 + bits;
    m_ = uint64_t((Wide(1) << shift_) / d) + 1;
  }
  uint64_t Divide(uint64_t x) const { return uint64_t((Wide(x) * m_) >> shift_); }

 private:
  uint64_t m_;
  int shift_;
};

constexpr long kMaxBlurRadius = 65535;

// The window sums along one direction of n positions, `lanes` values per position:
// at(k) gives the lanes at position k (0 <= k < n), emit(k, sums) takes the sums at k.
// Box: the 2r + 1 positions around k alike. Triangle: offset d weighs r + 1 - |d|; moving on
// adds the r + 1 positions ahead and drops the r + 1 behind. Positions past the ends repeat
// the end. `scratch` holds the running sums; the caller keeps it between calls so that a pass
// over many rows allocates once.
template <bool kTriangle, class At, class Emit>
void WindowSums(int n, long r, size_t lanes, std::vector<uint64_t>& scratch, At at, Emit emit) {
  const auto held = [n, &at](long k) { return at(int(std::clamp(k, 0L, long(n) - 1))); };
  scratch.assign(3 * lanes, 0);
  uint64_t* const sum = scratch.data();
  uint64_t* const ahead = sum + lanes;
  uint64_t* const behind = ahead + lanes;
  for (long d = -r; d <= r; ++d) {
    const auto* p = held(d);
    const uint64_t w = kTriangle ? uint64_t(r + 1 - std::abs(d)) : 1;
    for (size_t l = 0; l < lanes; ++l) sum[l] += w * p[l];
    if (kTriangle && d <= 0)
      for (size_t l = 0; l < lanes; ++l) behind[l] += p[l];
  }
  if (kTriangle) {
    for (long k = 1; k <= r + 1; ++k) {
      const auto* p = held(k);
      for (size_t l = 0; l < lanes; ++l) ahead[l] += p[l];
    }
  }
  for (int k = 0;; ++k) {
    emit(k, sum);
    if (k + 1 == n) break;
    if constexpr (kTriangle) {
      const auto* enter = held(k + 2 + r);
      const auto* next = held(k + 1);
      const auto* leave = held(k - r);
      for (size_t l = 0; l < lanes; ++l) {
        sum[l] = sum[l] + ahead[l] - behind[l];
        ahead[l] = ahead[l] + enter[l] - next[l];
        behind[l] = behind[l] + next[l] - leave[l];
      }
    } else {
      const auto* enter = held(k + 1 + r);
      const auto* leave = held(k - r);
      for (size_t l = 0; l < lanes; ++l) sum[l] = sum[l] + enter[l] - leave[l];
    }
  }
}

// Horizontal pass into 16-bit values (bytes x 256, rounded), vertical pass back to bytes
// (rounded), written only to the chosen channels.
template <bool kTriangle>
void BlurImage(Image& img, const bool (&on)[4], long x_radius, long y_radius) {
  const int channels = int(img.BytesPerPixel());
  // A mask's one channel follows the alpha switch.
  bool write[4];
  for (int c = 0; c < channels; ++c) write[c] = channels == 1 ? on[3] : on[c];
  if (std::none_of(write, write + channels, [](bool b) { return b; })) return;
  const int w = img.Width(), h = img.Height();
  if (w == 0 || h == 0) return;
  const long rx = std::clamp(x_radius, 0L, kMaxBlurRadius), ry = std::clamp(y_radius, 0L, kMaxBlurRadius);
  const uint64_t nx = kTriangle ? uint64_t(rx + 1) * uint64_t(rx + 1) : uint64_t(2 * rx + 1);
  const uint64_t ny = kTriangle ? uint64_t(ry + 1) * uint64_t(ry + 1) : uint64_t(2 * ry + 1);
  const Reciprocal across(2 * nx), down(512 * ny);
  const size_t line = size_t(w) * size_t(channels);
  std::vector<uint16_t> plane(line * size_t(h));
  std::vector<uint64_t> scratch;
  for (int y = 0; y < h; ++y) {
    const auto* row = static_cast<const uint8_t*>(img.RowTable()[y]);
    uint16_t* out = &plane[line * size_t(y)];
    WindowSums<kTriangle>(
        w, rx, size_t(channels), scratch, [&](int k) { return row + size_t(k) * size_t(channels); },
        [&](int k, const uint64_t* s) {
          for (int c = 0; c < channels; ++c)
            out[size_t(k) * size_t(channels) + size_t(c)] = uint16_t(across.Divide(512 * s[c] + nx));
        });
  }
  WindowSums<kTriangle>(
      h, ry, line, scratch, [&](int k) { return &plane[line * size_t(k)]; },
      [&](int k, const uint64_t* s) {
        auto* row = static_cast<uint8_t*>(img.RowTable()[k]);
        for (size_t i = 0; i < line; ++i)
          if (write[i & size_t(channels - 1)]) row[i] = uint8_t(down.Divide(2 * s[i] + 256 * ny));
      });
}

}  // namespace

Image* Image::ResizeOfImage(Request* req, int width, int height, int quality) const {
  Image* out = NewImage(req, width, height, depth_, this);
  Resampler(*this, *out, quality != 0).Rows(0, height);
  return out;
}

Image* Image::ScaleOfImage(Request* req, int factor) const {
  if (factor < 1) throw ImageSizeError("scale factor " + std::to_string(factor) + " is below 1");
  Image* out = NewImage(req, std::max(1, width_ / factor), std::max(1, height_ / factor), depth_, this);
  Resampler(*this, *out, false).Rows(0, out->Height());
  return out;
}

void Image::ImageResize(Image* dst) const { Resampler(*this, *dst, true).Rows(0, dst->Height()); }

void Image::Blur(long red, long green, long blue, long alpha, long x_radius, long y_radius) {
  const bool on[4] = {blue != 0, green != 0, red != 0, alpha != 0};
  BlurImage<false>(*this, on, x_radius, y_radius);
}

void Image::Bartlet(long red, long green, long blue, long alpha, long x_radius, long y_radius) {
  const bool on[4] = {blue != 0, green != 0, red != 0, alpha != 0};
  BlurImage<true>(*this, on, x_radius, y_radius);
}

void Image::DoSample_Black(Pixel* out, long x, long y, long quality) const {
  *out = Pixel::FromWord(Sample<false>(*this, x, y, quality));
}

void Image::DoSample_Clamp(Pixel* out, long x, long y, long quality) const {
  *out = Pixel::FromWord(Sample<true>(*this, x, y, quality));
}

const uint32_t* Image::SampleRow_Black(uint32_t* out, int count, int32_t x, int32_t y, int32_t dx, int32_t dy,
                                       long quality) const {
  return SampleRow<false>(*this, out, count, x, y, dx, dy, quality);
}

const uint32_t* Image::SampleRow_Clamp(uint32_t* out, int count, int32_t x, int32_t y, int32_t dx, int32_t dy,
                                       long quality) const {
  return SampleRow<true>(*this, out, count, x, y, dx, dy, quality);
}

void Image::SamplePoints_Black(uint32_t* out, int count, const int32_t* x, const int32_t* y, long quality) const {
  SamplePoints<false>(*this, out, count, x, y, quality);
}

void Image::SamplePoints_Clamp(uint32_t* out, int count, const int32_t* x, const int32_t* y, long quality) const {
  SamplePoints<true>(*this, out, count, x, y, quality);
}

}  // namespace kestrion
