// Filter: one of eight small neighbourhood or noise effects on the channels switched on, mixed
// back over the source by the blend: relief and emboss shading from a direction, a median that
// picks whole pixels by their brightness, noise, a ring-shaped defocus, Sobel edges, a
// Laplacian and film grain. Each output row depends only on the source, so the rows run in
// bands on the worker threads; noise and grain draw one number per pixel in row order from the
// host's C-runtime generator, which the render takes in one go and each band jumps into.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "host/base/random.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/filter/filter_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("FILT");

enum FilterInput { Effect, Red, Green, Blue, Alpha, Power, Angle, MedianPoint, Blend, Source, kInputCount };
enum Effects { Relief, EmbossOver, Median, Noise, Defocus, Sobel, Laplacian, Grain, kEffectCount };

// The inputs in panel order.
const module::InputDecl (&InputTable())[kInputCount] {
  // "Power" and "Angle" step in whole numbers over their sliders; values typed beyond them
  // behave as each effect says.
  // clang-format off
  static const module::InputDecl table[kInputCount] = {
    {"FilterType",   vtype::Number, FourCC("Type"),     {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Relief"), Tag(in::ListEntry, "Emboss Over"),
                                                         Tag(in::ListEntry, "Median"), Tag(in::ListEntry, "Noise"), Tag(in::ListEntry, "Defocus"),
                                                         Tag(in::ListEntry, "Sobel"), Tag(in::ListEntry, "Laplacian"), Tag(in::ListEntry, "Grain"),
                                                         Tag(in::Default, 0.0)}},
    filter::ChannelSwitch("Red", filter::kRedId),
    filter::ChannelSwitch("Green", filter::kGreenId),
    filter::ChannelSwitch("Blue", filter::kBlueId),
    filter::ChannelSwitch("Alpha", filter::kAlphaId),
    {"Power",        vtype::Number, HighFourCC("Strn"), {Tag(in::Control, control::Slider), Tag(in::Steps, 11), Tag(in::WholeNumber, 1),
                                                         Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 10.0), Tag(in::Default, 1.0)}},
    {"Angle",        vtype::Number, HighFourCC("Angl"), {Tag(in::Control, control::Slider), Tag(in::Steps, 8), Tag(in::WholeNumber, 1),
                                                         Tag(in::SliderLow, 0.0), Tag(in::SliderHigh, 315.0), Tag(in::Default, 45.0)}},
    {"Median Point", vtype::Number, FourCC("MedP"),     {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::Highest, 1.0),
                                                         Tag(in::Default, 0.5)}},
    {"Blend",        vtype::Number, filter::kBlendId,   {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::Highest, 1.0),
                                                         Tag(in::Default, 1.0)}},
    {"Image",        vtype::Image,  ImageInputId(1),    {}},
  };
  // clang-format on
  return table;
}

// Power beyond this gives the same bytes in the shading effects (every difference already
// saturates); it keeps their products within 32 bits.
constexpr int32_t kShadingPowerLimit = 256;
// A median radius typed beyond this is held there (a window of 40401 pixels).
constexpr int kMedianRadiusLimit = 100;
// The largest window that sorts through a network: 5 x 5 pixels.
constexpr int kNetworkCount = 25;
constexpr int kGroup = 8;

struct FilterRender;
struct BandScratch;
using RowKernel = void (*)(const FilterRender& t, BandScratch& s, int y);

// Everything the rows need, worked out once per render in Process.
struct FilterRender {
  const Image* src = nullptr;
  Image* out = nullptr;
  int width = 0, height = 0;
  long bands = 1;
  RowKernel kernel = nullptr;
  uint32_t kept = 0;    // the source bytes kept: channels switched off
  int32_t blend = 256;  // B = trunc(Blend x 256)
  int32_t power = 1;
  int dx = 0, dy = 0;   // Relief and Emboss Over: the direction
  // Median: the radius, the sorted place taken, and for the windows that sort through a network
  // (radius 1 or 2) each window place's offset from the window's top-left pixel in the padded
  // rows.
  int radius = 0, rank = 0;
  uint32_t window_offsets[kNetworkCount] = {};
  // Defocus: the ring's offsets.
  std::vector<std::pair<int, int>> ring;
  // Noise and Grain: the state before the render's first draw, and the maps from a row's first
  // state to each of its draws.
  uint32_t first_state = 0;
  CrtRowSteps draws;
};

// A band's row buffers.
struct BandScratch {
  std::vector<uint32_t> padded;  // source rows around the output row, columns held at the edges
  std::vector<uint32_t> keys;    // Median: their luminance keys
  std::vector<int32_t> values;   // 16-bit values of a row
  std::vector<uint64_t> window;  // Median's sort for wide windows
};

// --- helpers ---

// Source rows y - r .. y + r (held to the image), each padded by r columns on both sides that
// repeat the edge column: row dy + r starts at padded[(dy + r) * (width + 2r)].
const uint32_t* PaddedRows(const FilterRender& t, BandScratch& s, int y, int r) {
  const size_t line = size_t(t.width + 2 * r);
  s.padded.resize(line * size_t(2 * r + 1) + kGroup);
  for (int dy = -r; dy <= r; ++dy) {
    const uint32_t* row = t.src->Row(std::clamp(y + dy, 0, t.height - 1));
    uint32_t* p = &s.padded[line * size_t(dy + r)];
    std::fill_n(p, r, row[0]);
    std::copy_n(row, t.width, p + r);
    std::fill_n(p + r + t.width, r, row[t.width - 1]);
  }
  return s.padded.data();
}

// The 16-bit values of a row mixed over the source and stored (see filter::Mix16); Noise
// stores its values unmixed (blend 256). Channels switched off keep the source bytes.
[[gnu::noinline]] void StoreRow(const int32_t* v, const uint32_t* src, uint32_t* __restrict out, int width,
                                uint32_t kept, int32_t blend) {
  const auto* s = reinterpret_cast<const uint8_t*>(src);
  auto* o = reinterpret_cast<uint8_t*>(out);
  if (blend == 256)
    for (int i = 0; i < 4 * width; ++i) o[i] = uint8_t(std::clamp(v[i], 0, 65535) >> 8);
  else
    for (int i = 0; i < 4 * width; ++i) o[i] = uint8_t(filter::Mix16(v[i], s[i] << 8, blend) >> 8);
  if (kept)
    for (int x = 0; x < width; ++x) out[x] = (out[x] & ~kept) | (src[x] & kept);
}

inline int32_t Channel(uint32_t word, int c) { return int32_t(word >> (8 * c) & 255); }

// --- Relief and Emboss Over ---

// The neighbour at (x + dx, y + dy): a row outside the image is read from the current row, and
// a column outside it gives the current pixel.
template <bool kEmboss>
void ShadingRow(const FilterRender& t, BandScratch& s, int y) {
  const int w = t.width;
  const auto neighbours = [&](int dx, int dy, uint32_t* into) {
    const int ny = y + dy;
    const uint32_t* row = t.src->Row(ny >= 0 && ny < t.height ? ny : y);
    const uint32_t* here = t.src->Row(y);
    for (int x = 0; x < w; ++x) into[x] = x + dx >= 0 && x + dx < w ? row[x + dx] : here[x];
  };
  s.padded.resize(2 * size_t(w));
  s.values.resize(4 * size_t(w));
  uint32_t* forward = s.padded.data();
  uint32_t* backward = forward + w;
  neighbours(t.dx, t.dy, forward);
  neighbours(-t.dx, -t.dy, backward);
  const auto* f = reinterpret_cast<const uint8_t*>(forward);
  const auto* k = reinterpret_cast<const uint8_t*>(backward);
  const auto* src = reinterpret_cast<const uint8_t*>(t.src->Row(y));
  const int32_t scale = 256 * t.power;
  int32_t* v = s.values.data();
  for (int i = 0; i < 4 * w; ++i) v[i] = scale * (f[i] - k[i]) + (kEmboss ? src[i] << 8 : 32768);
  StoreRow(v, t.src->Row(y), t.out->Row(y), w, t.kept, t.blend);
}

// --- Median ---

// A pixel's 16-bit luminance key.
inline uint32_t LuminanceKey(uint32_t p) {
  return (uint32_t(Channel(p, 2)) * 5016320u + uint32_t(Channel(p, 1)) * 9848320u +
          uint32_t(Channel(p, 0)) * 1912576u) >> 16;
}

// The comparisons of Batcher's merge exchange, in order, that sort n elements: `visit(a, b)`
// for each pair of places compared.
template <typename Visit>
constexpr void MergeExchange(int n, Visit visit) {
  int t = 0;
  while ((1 << t) < n) ++t;
  for (int p = t > 0 ? 1 << (t - 1) : 0; p > 0; p >>= 1)
    for (int q = 1 << (t - 1), r = 0, d = p;; d = q - p, q >>= 1, r = p) {
      for (int i = 0; i + d < n; ++i)
        if ((i & p) == r) visit(i, i + d);
      if (q == p) break;
    }
}

// The sorting network of n elements as a table, built at compile time.
template <int N>
constexpr auto SortingNetwork() {
  constexpr int kSize = [] {
    int size = 0;
    MergeExchange(N, [&](int, int) { ++size; });
    return size;
  }();
  std::array<std::pair<int, int>, kSize> network{};
  int k = 0;
  MergeExchange(N, [&](int a, int b) { network[size_t(k++)] = {a, b}; });
  return network;
}

// Puts the lower of each lane pair in `low`, the higher in `high`.
template <typename Lanes>
inline void CompareExchange(Lanes& low, Lanes& high) {
  const Lanes lower = low < high ? low : high;
  high = low < high ? high : low;
  low = lower;
}

// The window's pixels in order of key, equal keys in the order of their places in the window
// (row by row): each sorts as key x 512 + place, and the pixel at sorted place `rank` is taken.
// Small windows: eight pixels at a time through a sorting network fixed at compile time, so the
// compiler keeps the window in vector registers.
template <int kSide>
void MedianNetworkRow(const FilterRender& t, BandScratch& s, int y) {
  constexpr int kRadius = kSide / 2, kCount = kSide * kSide;
  static_assert(kCount <= kNetworkCount);
  static constexpr auto kNetwork = SortingNetwork<kCount>();
  const int w = t.width;
  const uint32_t* padded = PaddedRows(t, s, y, kRadius);
  s.keys.resize(s.padded.size());
  for (size_t i = 0; i < s.padded.size(); ++i) s.keys[i] = LuminanceKey(s.padded[i]) << 9;
  // A whole pixel is taken, so with a full blend it is stored as it is; other blends mix it.
  const bool whole = t.blend == 256;
  if (!whole) s.values.resize(4 * size_t(w));
  uint32_t offset[kCount];  // a local copy: the row's stores cannot alias it
  std::copy_n(t.window_offsets, kCount, offset);
  typedef uint32_t Lanes __attribute__((vector_size(kGroup * sizeof(uint32_t))));
  // Keys read eight at a time at any place in a row, straight into registers.
  typedef uint32_t KeyLanes __attribute__((vector_size(kGroup * sizeof(uint32_t)), aligned(4), may_alias));
  const uint32_t* src = t.src->Row(y);
  uint32_t* out = t.out->Row(y);
  for (int x0 = 0; x0 < w; x0 += kGroup) {
    Lanes sorted[kCount];
    for (int place = 0; place < kCount; ++place)
      sorted[place] = *reinterpret_cast<const KeyLanes*>(&s.keys[size_t(x0) + offset[place]]) | uint32_t(place);
    [&]<size_t... I>(std::index_sequence<I...>) {
      (CompareExchange(sorted[kNetwork[I].first], sorted[kNetwork[I].second]), ...);
    }(std::make_index_sequence<kNetwork.size()>());
    const Lanes taken = sorted[t.rank] & 511;
    uint32_t chosen[kGroup];
    for (int l = 0; l < kGroup; ++l) chosen[l] = padded[uint32_t(x0 + l) + offset[taken[l]]];
    const int lanes = std::min(kGroup, w - x0);
    if (whole)
      for (int l = 0; l < lanes; ++l) out[x0 + l] = (chosen[l] & ~t.kept) | (src[x0 + l] & t.kept);
    else
      for (int l = 0; l < lanes; ++l)
        for (int c = 0; c < 4; ++c) s.values[size_t(4 * (x0 + l) + c)] = Channel(chosen[l], c) << 8;
  }
  if (!whole) StoreRow(s.values.data(), src, out, w, t.kept, t.blend);
}

// Wide windows: each pixel's window sorted as far as the place taken.
void MedianWideRow(const FilterRender& t, BandScratch& s, int y) {
  const long r = t.radius, side = 2 * r + 1;
  const int w = t.width;
  s.values.resize(4 * size_t(w));
  s.window.resize(size_t(side * side));
  for (int x = 0; x < w; ++x) {
    size_t place = 0;
    for (long dy = -r; dy <= r; ++dy) {
      const uint32_t* row = t.src->Row(int(std::clamp(y + dy, 0L, long(t.height) - 1)));
      for (long dx = -r; dx <= r; ++dx, ++place)
        s.window[place] = uint64_t(LuminanceKey(row[std::clamp(x + dx, 0L, long(w) - 1)])) << 32 | place;
    }
    std::nth_element(s.window.begin(), s.window.begin() + t.rank, s.window.end());
    const uint64_t chosen = s.window[size_t(t.rank)] & 0xFFFFFFFFu;
    const uint32_t p = t.src->Row(int(std::clamp(y + long(chosen) / side - r, 0L, long(t.height) - 1)))[std::clamp(
        x + long(chosen) % side - r, 0L, long(w) - 1)];
    for (int c = 0; c < 4; ++c) s.values[size_t(4 * x + c)] = Channel(p, c) << 8;
  }
  StoreRow(s.values.data(), t.src->Row(y), t.out->Row(y), w, t.kept, t.blend);
}

// --- Noise and Grain ---

// One draw per pixel of the row, in order: q = 0 .. 32767.
void RowDraws(const FilterRender& t, int y, int32_t* q) {
  const uint32_t state = CrtSteps::Of(uint64_t(y) * uint64_t(t.width)).Apply(t.first_state);
  const uint32_t* multiplier = t.draws.multiplier.data();
  const uint32_t* increment = t.draws.increment.data();
  for (int x = 0; x < t.width; ++x) q[x] = CrtDraw(state * multiplier[x] + increment[x]);
}

// Noise: n = ((q - 16384) B Power) >> 12 added to every channel switched on; the blend scales
// the noise and is not a mix. Grain: n = ((q - 16384) Power) >> 12, weighed by
// w = ((32768 - |32767 - s|) x 3) / 2 + 16384, strongest in the mid-tones, then mixed.
template <bool kGrain>
void NoiseRow(const FilterRender& t, BandScratch& s, int y) {
  const int w = t.width;
  s.values.resize(5 * size_t(w));
  int32_t* q = s.values.data() + 4 * size_t(w);
  RowDraws(t, y, q);
  const auto* src = reinterpret_cast<const uint8_t*>(t.src->Row(y));
  int32_t* v = s.values.data();
  const int64_t amplitude = kGrain ? t.power : int64_t(t.blend) * t.power;
  for (int x = 0; x < w; ++x) {
    const int64_t n = (int64_t(q[x] - 16384) * amplitude) >> 12;
    for (int c = 0; c < 4; ++c) {
      const int64_t s16 = src[4 * x + c] << 8;
      int64_t value = s16 + n;
      if constexpr (kGrain) {
        const int64_t weight = (((32768 - std::abs(32767 - s16)) * 3) >> 1) + 16384;
        value = s16 + ((weight * n) >> 8);
      }
      v[4 * x + c] = int32_t(std::clamp<int64_t>(value, 0, 65535));
    }
  }
  StoreRow(v, t.src->Row(y), t.out->Row(y), w, t.kept, kGrain ? t.blend : 256);
}

// --- Defocus ---

// The ring of radius p: for p = 1 to 4 the border of the (2p + 1)-square; beyond, the lattice
// points nearest the circle of radius p, whole symmetric sets of them in order of nearness, as
// many as the ring's count (8, 16, 24, 32, 32, 40, 48, 48, 56, 64 for p = 1 to 10) allows. Each
// set is given by one point (a, b), a >= b >= 0: all of (+-a, +-b) and (+-b, +-a).
constexpr int kRings = 10;
const std::vector<std::pair<int, int>> kRingSets[kRings - 4] = {
    {{4, 3}, {5, 0}, {5, 1}, {5, 2}, {4, 4}},
    {{6, 0}, {6, 1}, {5, 3}, {6, 2}, {4, 4}, {5, 4}},
    {{7, 0}, {5, 5}, {7, 1}, {6, 4}, {7, 2}, {6, 3}, {5, 4}},
    {{8, 0}, {7, 4}, {8, 1}, {6, 5}, {8, 2}, {7, 3}, {6, 6}},
    {{9, 0}, {9, 1}, {8, 4}, {7, 6}, {9, 2}, {7, 5}, {8, 5}, {6, 6}},
    {{8, 6}, {10, 0}, {10, 1}, {7, 7}, {9, 4}, {10, 2}, {9, 5}, {10, 3}, {9, 3}},
};

std::vector<std::pair<int, int>> Ring(int p) {
  std::vector<std::pair<int, int>> sets;
  if (p <= 4)
    for (int b = 0; b <= p; ++b) sets.push_back({p, b});
  else
    sets = kRingSets[p - 5];
  std::vector<std::pair<int, int>> ring;
  for (auto [a, b] : sets)
    for (auto [x, y] : {std::pair{a, b}, std::pair{b, a}})
      for (int sx : {1, -1})
        for (int sy : {1, -1})
          if (std::find(ring.begin(), ring.end(), std::pair{sx * x, sy * y}) == ring.end())
            ring.push_back({sx * x, sy * y});
  return ring;
}

// The mean of the ring's 16-bit values (sum / count, truncated), every sample held to the
// image.
void DefocusRow(const FilterRender& t, BandScratch& s, int y) {
  const int w = t.width, r = t.radius;
  const size_t line = size_t(w + 2 * r);
  const uint32_t* padded = PaddedRows(t, s, y, r);
  s.values.assign(4 * size_t(w), 0);
  int32_t* v = s.values.data();
  for (const auto& [dx, dy] : t.ring) {
    const auto* p = reinterpret_cast<const uint8_t*>(padded + line * size_t(dy + r) + size_t(dx + r));
    for (int i = 0; i < 4 * w; ++i) v[i] += p[i];
  }
  const int32_t count = int32_t(t.ring.size());
  for (int i = 0; i < 4 * w; ++i) v[i] = (v[i] << 8) / count;
  StoreRow(v, t.src->Row(y), t.out->Row(y), w, t.kept, t.blend);
}

// --- Sobel and Laplacian ---

// Sobel: gx = right column - left column and gy = bottom row - top row with weights 1, 2, 1,
// in 16-bit values; v = trunc(sqrt(gx^2 + gy^2)), exact in double precision (the squares are
// whole numbers below 2^37, and a square root that is not whole lies further from a whole
// number than its rounding). Laplacian: (4 centre - the four beside it) x 256, below 0 held
// at 0.
template <bool kSobel>
void EdgeRow(const FilterRender& t, BandScratch& s, int y) {
  const int w = t.width;
  const size_t line = size_t(w + 2);
  const uint8_t* top = reinterpret_cast<const uint8_t*>(PaddedRows(t, s, y, 1));
  const uint8_t* mid = top + 4 * line;
  const uint8_t* bottom = mid + 4 * line;
  s.values.resize(4 * size_t(w));
  int32_t* v = s.values.data();
  for (int i = 0; i < 4 * w; ++i) {
    // Byte i of the output sits at byte i + 4 of each padded row.
    if constexpr (kSobel) {
      const int32_t gx = (top[i + 8] + 2 * mid[i + 8] + bottom[i + 8]) - (top[i] + 2 * mid[i] + bottom[i]);
      const int32_t gy = (bottom[i] + 2 * bottom[i + 4] + bottom[i + 8]) - (top[i] + 2 * top[i + 4] + top[i + 8]);
      const double x16 = 256.0 * gx, y16 = 256.0 * gy;
      v[i] = int32_t(std::sqrt(x16 * x16 + y16 * y16));
    } else {
      v[i] = std::max(4 * mid[i + 4] - top[i + 4] - bottom[i + 4] - mid[i] - mid[i + 8], 0) << 8;
    }
  }
  StoreRow(v, t.src->Row(y), t.out->Row(y), w, t.kept, t.blend);
}

class Filter final : public filter::FilterTool<kClassId, kInputCount> {
 public:
  Filter(Registry* reg, CArchive* ar, TagList* tags) : FilterTool(reg, ar, tags, InputTable()) {}

  uint32_t Process(Request* req) override {
    const Image* src = filter::FilterSource(req, in_[Source]);
    if (!src) return req->SetOutputData(image_out_, nullptr);
    const int32_t power = module::TruncToInt(module::NumberInput(req, in_[Power]));
    if (power == 0) return module::PassThrough(req, in_[Source], image_out_);
    FilterRender& t = render_;
    t.src = src;
    t.out = NewImage(req, src);
    t.width = src->Width();
    t.height = src->Height();
    int32_t switches[4];
    for (int c = 0; c < 4; ++c) switches[c] = module::TruncToInt(module::NumberInput(req, in_[Red + c]));
    t.kept = ~filter::SwitchedBytes(switches, [](int32_t s) { return s != 0; });
    t.blend = module::TruncToInt(module::NumberInput(req, in_[Blend]) * 256.0);
    t.power = power;
    const int effect = module::TruncToInt(module::NumberInput(req, in_[Effect]));
    t.kernel = nullptr;
    switch (effect) {
      case Relief:
      case EmbossOver: PrepareShading(t, effect, module::TruncToInt(module::NumberInput(req, in_[Angle]))); break;
      case Median: PrepareMedian(t, float(module::NumberInput(req, in_[MedianPoint]))); break;
      case Noise:
      case Grain: PrepareDraws(t, effect, req->time); break;
      case Defocus:
        t.radius = std::min(power, kRings);
        t.ring = Ring(t.radius);
        t.kernel = &DefocusRow;
        break;
      case Sobel: t.kernel = &EdgeRow<true>; break;
      case Laplacian: t.kernel = &EdgeRow<false>; break;
    }
    if (!t.kernel || t.width == 0 || t.height == 0) return req->SetOutputData(image_out_, t.out);
    t.bands = module::RowBands(t.height);
    DoMultiProcess(req, t.bands);
    return req->SetOutputData(image_out_, t.out);
  }

  void ProcessChunk(Request*, long band) override {
    const FilterRender& t = render_;
    BandScratch scratch;
    module::ForEachRow(*this, module::BandRows(t.height, t.bands, band), [&](int y) { t.kernel(t, scratch, y); });
  }

 private:
  // Only the eight multiples of 45 degrees give a direction; any other angle gives none, which
  // is flat mid-grey for Relief and the source for Emboss Over.
  static void PrepareShading(FilterRender& t, int effect, int32_t angle) {
    constexpr int kDirections[8][2] = {{-1, 0}, {-1, -1}, {0, -1}, {1, -1}, {1, 0}, {1, 1}, {0, 1}, {-1, 1}};
    const bool listed = angle >= 0 && angle <= 315 && angle % 45 == 0;
    t.dx = listed ? kDirections[angle / 45][0] : 0;
    t.dy = listed ? kDirections[angle / 45][1] : 0;
    t.power = std::clamp(t.power, -kShadingPowerLimit, kShadingPowerLimit);
    t.kernel = effect == Relief ? &ShadingRow<false> : &ShadingRow<true>;
  }

  // The window holds (2r + 1)^2 pixels, r = Power; the place taken is
  // trunc((count - 1) x Median Point + 0.5), the product in single precision.
  static void PrepareMedian(FilterRender& t, float median_point) {
    t.radius = std::min(t.power, kMedianRadiusLimit);
    const long side = 2 * long(t.radius) + 1, count = side * side;
    t.rank = int(std::clamp(long(double(float(count - 1) * median_point) + 0.5), 0L, count - 1));
    t.kernel = t.radius == 1 ? &MedianNetworkRow<3> : t.radius == 2 ? &MedianNetworkRow<5> : &MedianWideRow;
    if (count <= kNetworkCount)
      for (int place = 0; place < count; ++place)
        t.window_offsets[place] = uint32_t(t.width + 2 * t.radius) * uint32_t(place / side) + uint32_t(place % side);
  }

  // Seeds the generator with the request's time (truncated), takes one draw per pixel and
  // tables the steps from a row's start to each of its draws.
  static void PrepareDraws(FilterRender& t, int effect, double time) {
    crt_srand(uint32_t(module::TruncToInt(time)));
    t.first_state = crt_rand_take(uint64_t(t.width) * uint64_t(t.height));
    t.draws.Prepare(size_t(t.width));
    t.kernel = effect == Noise ? &NoiseRow<false> : &NoiseRow<true>;
  }

  FilterRender render_;
};

}  // namespace

Object* NewFilter(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Filter>(reg, ar, tags); }

}  // namespace kestrion::tools
