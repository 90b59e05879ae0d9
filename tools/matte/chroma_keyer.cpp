// Chroma Keyer: pulls a matte from a backing of any colour. Inside all four colour-difference
// ranges a pixel is backing (alpha 0); outside, its alpha grows with its distance from the
// ranges' centres at a rate "Soft Range" sets. The matte may then be blurred and given contrast
// and gamma, and a halo greys the colour where the matte thins. Pick and Reset set the ranges.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/matte/matte.h"

namespace kestrion::tools {

namespace {

using namespace matte;

constexpr uint32_t kClassId = FourCC("CKey");

enum ChromaInput {
  RedLow, RedHigh, GreenLow, GreenHigh, BlueLow, BlueHigh, LuminanceLow, LuminanceHigh,
  SoftRange, ResetButton, MatteBlur, MatteContrast, MatteGamma, MatteHalo, ImageIn, kInputCount
};

// Everything the passes need, worked out once per render in Process.
struct ChromaRender {
  const Image* src = nullptr;
  KeyRanges ranges;
  // Per channel of the colour-difference form: the range's centre, and below and above it the
  // rate k and the distance from which (distance * k) >> 8 reaches 255, beyond which the
  // closeness is 0 or less whatever the distance.
  int32_t centre[kKeyChannels] = {}, rate_below[kKeyChannels] = {}, rate_above[kKeyChannels] = {};
  int32_t reach_below[kKeyChannels] = {}, reach_above[kKeyChannels] = {};
  AlphaMap map;  // matte contrast, then gamma
  bool mapped = false;
  bool halo = false;
  AlphaMap halo_table;          // T[i] = trunc(255 * y^(5h)), y stepping in double precision
  int32_t weight[3] = {};       // wR, wG, wB: the colour's share against grey, in 1/4096
};

// A centre this far out is at least 65281 from every byte, as far as the distance can matter.
constexpr int64_t kFarCentre = 65536;

int32_t Reach(int32_t rate) { return rate > 0 ? (65280 + rate - 1) / rate : 65536; }

// The soft key: alpha 0 inside every range; outside, each channel's closeness is 255 minus
// (distance from its centre * rate) >> 8, and alpha is 255 minus the smallest closeness held
// to 0..255.
void SoftKeyRow(const ChromaRender& k, const uint32_t* in, uint8_t* __restrict alpha, int count) {
  const KeyRanges r = k.ranges;
  int32_t centre[kKeyChannels], rate_below[kKeyChannels], rate_above[kKeyChannels];
  int32_t reach_below[kKeyChannels], reach_above[kKeyChannels];
  for (int c = 0; c < kKeyChannels; ++c) {
    centre[c] = k.centre[c];
    rate_below[c] = k.rate_below[c];
    rate_above[c] = k.rate_above[c];
    reach_below[c] = k.reach_below[c];
    reach_above[c] = k.reach_above[c];
  }
  for (int x = 0; x < count; ++x) {
    const DifferenceBytes d = DifferenceBytesOf(in[x]);
    int32_t closest = 255;
    for (int c = 0; c < kKeyChannels; ++c) {
      const bool below = d.v[c] < centre[c];
      const int32_t distance = std::min(std::abs(d.v[c] - centre[c]), below ? reach_below[c] : reach_above[c]);
      closest = std::min(closest, 255 - ((distance * (below ? rate_below[c] : rate_above[c])) >> 8));
    }
    alpha[x] = InRanges(r, d) ? 0 : uint8_t(255 - std::clamp(closest, 0, 255));
  }
}

// The chroma halo: grey = (R >> 2) + (B >> 2) + (G >> 1); t = T[A]; each colour byte mixes
// toward grey by its weight, then back toward itself by t: c' = ((((4096 - w) grey + w c) >> 12)
// (255 - t) + t c) / 256, held to 0..255. Green mixes from the new red byte, as saved flows
// render. A pixel with alpha 0 becomes 0.
void ChromaHaloRow(const ChromaRender& k, const uint32_t* in, const uint8_t* alpha, uint32_t* __restrict out, int count) {
  const int32_t wr = k.weight[0], wg = k.weight[1], wb = k.weight[2];
  const int32_t* table = k.halo_table.data();
  for (int x = 0; x < count; ++x) {
    const int32_t a = alpha[x];
    const int32_t b = int32_t(in[x] & 255), g = int32_t(in[x] >> 8 & 255), r = int32_t(in[x] >> 16 & 255);
    const int32_t grey = (r >> 2) + (b >> 2) + (g >> 1), t = table[a], inv = 255 - t;
    const auto mix = [&](int32_t w, int32_t from, int32_t own) {
      return std::clamp(((((4096 - w) * grey + w * from) >> 12) * inv + t * own) / 256, 0, 255);
    };
    const int32_t red = mix(wr, r, r), green = mix(wg, red, g), blue = mix(wb, b, b);
    const uint32_t p = uint32_t(blue) | uint32_t(green) << 8 | uint32_t(red) << 16 | uint32_t(a) << 24;
    out[x] = p & -uint32_t(a != 0);
  }
}

// Matte contrast and gamma, then the halo or the colour joined to the matte, into the output.
void Finish(const ChromaRender& k, const uint32_t* in, uint8_t* alpha, uint32_t* out, int count) {
  if (k.mapped) MapRow(k.map, alpha, count);
  if (k.halo) {
    ChromaHaloRow(k, in, alpha, out, count);
  } else {
    JoinRow(in, alpha, out, count);
  }
}

class ChromaKeyer final : public RangeKeyer {
 public:
  ChromaKeyer(Registry* reg, CArchive* ar, TagList* tags) : RangeKeyer(reg, ar, tags, "Chroma Key Pick", "Chroma Key Reset") {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      RangeInput(KeyRed, false),       RangeInput(KeyRed, true),
      RangeInput(KeyGreen, false),     RangeInput(KeyGreen, true),
      RangeInput(KeyBlue, false),      RangeInput(KeyBlue, true),
      RangeInput(KeyLuminance, false), RangeInput(KeyLuminance, true),
      {"Soft Range",     vtype::Number, FourCC("Soft"),  {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::Highest, 1.0)}},
      ResetInput(),
      {"Matte Blur",     vtype::Number, 0x72756CC2,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::Highest, 50.0),
                                                          Tag(in::Default, 0.0)}},
      {"Matte Contrast", vtype::Number, 0x746E6FC3,      {Tag(in::Control, control::Slider), Tag(in::Lowest, -1.0), Tag(in::SliderHigh, 1.0),
                                                          Tag(in::Default, 0.0)}},
      {"Matte Gamma",    vtype::Number, 0x616D61C7,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 3.0),
                                                          Tag(in::Default, 1.0)}},
      {"Matte Halo",     vtype::Number, FourCC("Halo"),  {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::Highest, 1.0),
                                                          Tag(in::Default, 0.0)}},
      {"Image",          vtype::Image,  ImageInputId(1), {}},
    };
    // clang-format on
    Declare(ar, table, in_, ResetButton, ImageIn);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    const auto number = [&](ChromaInput i) { return float(module::NumberInput(req, in_[i])); };
    const float blur = number(MatteBlur), contrast = number(MatteContrast), gamma = number(MatteGamma);
    const float halo = number(MatteHalo);
    const int32_t soft = module::TruncToInt(module::NumberInput(req, in_[SoftRange]) * 255.0);
    auto* given = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!given) return req->SetOutputData(image_out_, nullptr);

    ChromaRender& k = render_;
    k.src = module::ColourImage(req, given);
    k.ranges = RangesOf(req);
    PrepareSoftKey(soft);
    k.map = IdentityMap();
    if (NonZero(contrast)) k.map = ContrastMap(contrast);
    if (!IsOne(gamma)) k.map = Then(k.map, GammaMap(gamma));
    k.mapped = NonZero(contrast) || !IsOne(gamma);
    k.halo = Positive(halo);
    if (k.halo) PrepareHalo(halo);
    return req->SetOutputData(image_out_, passes_.Run(*this, req, *k.src, {&blur, Positive(blur) ? 1u : 0u}));
  }

  void ProcessChunk(Request*, long band) override {
    const ChromaRender& k = render_;
    passes_.Chunk(
        *this, band, [&](int y, int x, uint8_t* alpha, int count) { SoftKeyRow(k, k.src->Row(y) + x, alpha, count); },
        [&](int y, int x, uint8_t* alpha, uint32_t* out, int count) { Finish(k, k.src->Row(y) + x, alpha, out, count); });
  }

 private:
  void PrepareSoftKey(int32_t soft) {
    ChromaRender& k = render_;
    const KeyRanges& r = k.ranges;
    // Soft Range is held to 0 .. 1, so s + 4 is 4 .. 259.
    const int64_t colour_rate = 65500 / std::max<int64_t>(1, int64_t(soft) + 4);
    for (int c = 0; c < kKeyChannels; ++c) {
      const int64_t centre = r.low[c] + (int64_t(r.high[c]) - r.low[c]) / 2;
      k.centre[c] = int32_t(std::clamp(centre, -kFarCentre, 255 + kFarCentre));
      k.rate_below[c] = k.rate_above[c] = int32_t(colour_rate);
    }
    // The luminance's rates follow its own bounds, not Soft Range; saved flows render so.
    k.rate_below[KeyLuminance] = int32_t(65500 / std::max<int64_t>(1, int64_t(r.low[KeyLuminance]) + 4));
    k.rate_above[KeyLuminance] = int32_t(65500 / std::max<int64_t>(1, int64_t(r.high[KeyLuminance]) - 4));
    for (int c = 0; c < kKeyChannels; ++c) {
      k.reach_below[c] = Reach(k.rate_below[c]);
      k.reach_above[c] = Reach(k.rate_above[c]);
    }
  }

  // The halo's table and weights; hh = 1 - h, hk = trunc(hh * 4096), and each channel's weight
  // hk - trunc((4096 - kc) * hh), kc taken from its range ends (blue's factor is 322, red's and
  // green's 32; saved flows render so).
  void PrepareHalo(float h) {
    ChromaRender& k = render_;
    const double e = double(5.0f * h);
    double y = 0.0;
    for (float i = 0.0f; i < 256.0f; i += 1.0f) {
      k.halo_table[size_t(i)] = module::TruncToInt(255.0 * std::pow(y, e)) & 255;
      y += 0.00392156862745098;
    }
    const float hh = 1.0f - h;
    const int32_t hk = module::TruncToInt(hh * 4096.0f);
    const KeyRanges& r = k.ranges;
    const int64_t factor[3] = {32, 32, 322};
    for (int c = 0; c < 3; ++c) {
      const int32_t kc = int32_t(std::clamp((int64_t(r.low[c]) + r.high[c] - 256) * factor[c], int64_t(0), int64_t(4096)));
      k.weight[c] = hk - module::TruncToInt(float(4096 - kc) * hh);
    }
  }

  Input* in_[kInputCount];
  ChromaRender render_;
  MattePasses passes_;
};

}  // namespace

Object* NewChromaKeyer(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<ChromaKeyer>(reg, ar, tags); }

}  // namespace kestrion::tools
