// Glow: spreads the light of an image into a soft halo and combines the halo with the image in
// one of five ways. The halo is a wide blur boosted by a gain: a rounded kernel of four
// overlapping boxes, or a triangle for "Glow Bartlet". Sums are of bytes and slide down the
// rows and along each row, so the cost per pixel does not grow with the size; the bands of rows
// run on the worker threads.
#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>
#include <vector>

#include "host/graph/threads.h"
#include "host/image/window_sums.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/filter/filter_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Glow");

enum GlowInput { FilterItem, Red, Green, Blue, Alpha, Size, Blend, GlowGain, Source, kInputCount };
enum Mode { GlowSoften, GlowBartlet, GlowBlend, GlowHilight, GlowSolarise, kModeCount };

// The inputs in panel order.
const module::InputDecl (&InputTable())[kInputCount] {
  // clang-format off
  static const module::InputDecl table[kInputCount] = {
    {"Filter",    vtype::Number, FourCC("Type"),     {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Glow Soften"),
                                                      Tag(in::ListEntry, "Glow Bartlet"), Tag(in::ListEntry, "Glow Blend"),
                                                      Tag(in::ListEntry, "Glow Hilight"), Tag(in::ListEntry, "Glow Solarise"),
                                                      Tag(in::Default, 0.0)}},
    filter::ChannelSwitch("Red", filter::kRedId),
    filter::ChannelSwitch("Green", filter::kGreenId),
    filter::ChannelSwitch("Blue", filter::kBlueId),
    filter::ChannelSwitch("Alpha", filter::kAlphaId),
    {"Glow Size", vtype::Number, HighFourCC("Strn"), {Tag(in::Control, control::Slider), Tag(in::Steps, 51), Tag(in::Lowest, 0.0),
                                                      Tag(in::Highest, 50.0), Tag(in::SliderHigh, 50.0), Tag(in::Default, 10.0)}},
    {"Blend",     vtype::Number, filter::kBlendId,   {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::Highest, 1.0),
                                                      Tag(in::Default, 0.2)}},
    {"Glow",      vtype::Number, FourCC("Glow"),     {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::Highest, 1.0),
                                                      Tag(in::Default, 0.8)}},
    {"Image",     vtype::Image,  ImageInputId(1),    {}},
  };
  // clang-format on
  return table;
}

struct GlowRender;
struct BandSums;
using BandKernel = void (*)(const GlowRender& t, BandSums& s, module::RowSpan rows, const Operator& op);

// Everything the bands need, worked out once per render in Process.
struct GlowRender {
  const Image* src = nullptr;
  Image* out = nullptr;
  int width = 0, height = 0;
  long bands = 1;
  bool from_bottom = false;  // "Glow Bartlet" numbers its bands from the bottom
  BandKernel kernel = nullptr;
  uint32_t kept = 0;    // the source bytes kept: channels whose switch is not exactly 1
  int32_t blend = 0;    // Bl = trunc(Blend x 255)
  long radius = 0;      // r = trunc(Glow Size)
  // The four boxes, (width, height) each, for all modes but "Glow Bartlet".
  std::array<std::pair<long, long>, 4> boxes{};
  // The halo h = trunc(S / N): S x (1 / N) plus half a step of 1 / N, exact (see Halo).
  double per_normaliser = 1.0, half_step = 0.5;
};

// A band's running sums and row buffers, kept between renders.
struct BandSums {
  SlidingSums<WindowShape::Box, uint32_t> down[4];
  SlidingSums<WindowShape::Triangle, uint32_t> triangle;
  std::vector<uint32_t> total;
};

const uint8_t* Bytes(const Image& img, long y) {
  return reinterpret_cast<const uint8_t*>(img.Row(int(std::clamp(y, 0L, long(img.Height()) - 1))));
}

// The halo h = trunc(S / N), N whole. S / N is a fraction of denominator N at least 1 / N from
// a whole number when not whole, and S x (1 / N) in double precision lies within 2^-36 of it
// (h is below 2^16 and N below 2^20), so half a step of 1 / N put beside it truncates exactly.
inline int32_t Halo(uint32_t sum, const GlowRender& t) {
  return int32_t(double(int32_t(sum)) * t.per_normaliser + t.half_step);
}

// The halo h combined with the source byte s by Bl, in 32-bit arithmetic that wraps as the
// tool's products do for bright halos and blends, held to 0..255. The weights sum to 255 and
// are divided by 256, so even a zero halo darkens by a step; kept so.
template <int kMode>
int32_t Combine(int32_t h, int32_t s, int32_t bl) {
  using module::WrapAdd;
  using module::WrapMul;
  int32_t v;
  if constexpr (kMode == GlowSoften || kMode == GlowBartlet)
    v = WrapAdd(WrapMul(h, bl), WrapMul(s, 255 - bl)) >> 8;
  else if constexpr (kMode == GlowBlend)
    v = WrapAdd(WrapMul(WrapMul(h, 256 - s), bl), s * 65280) >> 16;
  else if constexpr (kMode == GlowHilight)
    v = WrapMul(WrapAdd(WrapMul(h, bl), (255 - bl) * 256), s) >> 16;
  else
    v = WrapAdd(WrapMul(WrapMul(h, 256 - s), bl), WrapMul(s * (255 - bl), 256)) >> 16;
  return std::clamp(v, 0, 255);
}

// The halo sums of a row combined with the source row into the output row.
template <int kMode>
[[gnu::noinline]] void CombineRow(const uint32_t* total, const uint32_t* src, uint32_t* __restrict out, int width,
                                  const GlowRender& t) {
  const auto* s = reinterpret_cast<const uint8_t*>(src);
  auto* o = reinterpret_cast<uint8_t*>(out);
  const int32_t bl = t.blend;
  for (int i = 0; i < 4 * width; ++i) o[i] = uint8_t(Combine<kMode>(Halo(total[i], t), s[i], bl));
  const uint32_t kept = t.kept;
  if (kept)
    for (int x = 0; x < width; ++x) out[x] = (out[x] & ~kept) | (src[x] & kept);
}

// The four boxes, each of weight 1: box j sums `height` rows down, then `width` columns along.
template <int kMode>
void FourBoxBand(const GlowRender& t, BandSums& s, module::RowSpan rows, const Operator& op) {
  const int w = t.width, h = t.height;
  const size_t lanes = 4 * size_t(w);
  const auto row = [&t](int y) { return Bytes(*t.src, y); };
  s.total.resize(lanes);
  for (int j = 0; j < 4; ++j) s.down[j].Start(h, (t.boxes[size_t(j)].second - 1) / 2, lanes, rows.begin, row);
  module::ForEachRow(op, rows, [&](int y) {
    std::fill(s.total.begin(), s.total.end(), 0u);
    for (int j = 0; j < 4; ++j) {
      if (y > rows.begin) s.down[j].Advance(row);
      SlideAlong<WindowShape::Box, 4, true>(s.down[j].Sums(), w, (t.boxes[size_t(j)].first - 1) / 2, s.total.data());
    }
    CombineRow<kMode>(s.total.data(), t.src->Row(y), t.out->Row(y), w, t);
  });
}

// The triangle: weights (r + 1 - |dx|)(r + 1 - |dy|).
void TriangleBand(const GlowRender& t, BandSums& s, module::RowSpan rows, const Operator& op) {
  const int w = t.width, h = t.height;
  const size_t lanes = 4 * size_t(w);
  const auto row = [&t](int y) { return Bytes(*t.src, y); };
  s.total.resize(lanes);
  s.triangle.Start(h, t.radius, lanes, rows.begin, row);
  module::ForEachRow(op, rows, [&](int y) {
    if (y > rows.begin) s.triangle.Advance(row);
    SlideAlong<WindowShape::Triangle, 4>(s.triangle.Sums(), w, t.radius, s.total.data());
    CombineRow<GlowBartlet>(s.total.data(), t.src->Row(y), t.out->Row(y), w, t);
  });
}

constexpr BandKernel kKernels[kModeCount] = {&FourBoxBand<GlowSoften>, &TriangleBand, &FourBoxBand<GlowBlend>,
                                             &FourBoxBand<GlowHilight>, &FourBoxBand<GlowSolarise>};

class Glow final : public filter::FilterTool<kClassId, kInputCount> {
 public:
  Glow(Registry* reg, CArchive* ar, TagList* tags) : FilterTool(reg, ar, tags, InputTable()) {}

  uint32_t Process(Request* req) override {
    const Image* src = filter::FilterSource(req, in_[Source]);
    if (!src) return req->SetOutputData(image_out_, nullptr);
    const float size = float(module::NumberInput(req, in_[Size]));
    const float blend = float(module::NumberInput(req, in_[Blend]));
    const float gain = float(module::NumberInput(req, in_[GlowGain]));
    int32_t switches[4];
    for (int c = 0; c < 4; ++c) switches[c] = module::TruncToInt(module::NumberInput(req, in_[Red + c]));
    const bool any_on = std::any_of(switches, switches + 4, [](int32_t s) { return s != 0; });
    if (!(size > 0.0f) || !(blend > 0.0f) || !any_on) return module::PassThrough(req, in_[Source], image_out_);
    GlowRender& t = render_;
    t.src = src;
    t.out = NewImage(req, src);
    t.width = src->Width();
    t.height = src->Height();
    const int mode = module::TruncToInt(module::NumberInput(req, in_[FilterItem]));
    if (mode < 0 || mode >= kModeCount || t.width == 0 || t.height == 0) return req->SetOutputData(image_out_, t.out);
    t.kept = ~filter::SwitchedBytes(switches, [](int32_t s) { return s == 1; });
    t.blend = module::TruncToInt(double(blend) * 255.0);
    t.radius = long(size);
    // The gain: (256 - G') / 256 with G' = G, or 1 where G is 0.
    const int32_t g = module::TruncToInt(double(gain) * 255.0), kept_gain = 256 - (g == 0 ? 1 : g);
    const long r = t.radius;
    int64_t normaliser;
    if (mode == GlowBartlet) {
      normaliser = (kept_gain * (r + 1) * (r + 1) * (r + 1) * (r + 1)) >> 8;
    } else {
      const long k1 = std::max(2 * r + 1, 3L), k2 = std::max(k1 - 2 * (k1 / 5), 1L), k3 = k1 - 2 * (k1 / 5) + 2,
                 k4 = 2 * (k1 / 8) + 1;
      t.boxes = {{{k1, k2}, {k2, k1}, {k3, k4}, {k4, k3}}};
      normaliser = ((2 * k1 * k2 + 2 * k3 * k4) * kept_gain) >> 8;
    }
    normaliser = std::max<int64_t>(normaliser, 1);
    t.per_normaliser = 1.0 / double(normaliser);
    t.half_step = 0.5 / double(normaliser);
    t.kernel = kKernels[mode];
    t.from_bottom = mode == GlowBartlet;
    t.bands = std::clamp(long(WorkerThreads()), 1L, long(t.height));
    sums_.resize(size_t(t.bands));
    DoMultiProcess(req, t.bands);
    return req->SetOutputData(image_out_, t.out);
  }

  void ProcessChunk(Request*, long band) override {
    const GlowRender& t = render_;
    const module::RowSpan rows = t.from_bottom ? module::BandRowsFromBottom(t.height, t.bands, band)
                                               : module::BandRows(t.height, t.bands, band);
    if (rows.begin < rows.end) t.kernel(t, sums_[size_t(band)], rows, *this);
  }

 private:
  GlowRender render_;
  std::vector<BandSums> sums_;
};

}  // namespace

Object* NewGlow(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Glow>(reg, ar, tags); }

}  // namespace kestrion::tools
