// Blue/Green Keyer: pulls a matte from a blue or green backing. A pixel whose colour-difference
// bytes fall inside all four ranges is backing (alpha 0), any other foreground (255); the matte
// then goes through a fixed chain: pre-matte blur and contrast, suppression of the alpha where
// the backing outweighs red, matte blur, contrast and gamma, and a halo that takes the spill out
// of the edges. The matte moves between the stages as mask images, one pass per blur; the
// stages between the blurs run on each row as it comes out. Pick and Reset set the ranges.
#include <algorithm>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/matte/matte.h"

namespace kestrion::tools {

namespace {

using namespace matte;

constexpr uint32_t kClassId = FourCC("BKey");

enum KeyerInput {
  RedLow, RedHigh, GreenLow, GreenHigh, BlueLow, BlueHigh, LuminanceLow, LuminanceHigh,
  Backing, PreBlur, PreContrast, ResetButton, MatteBlur, MatteContrast, MatteGamma, MatteHalo, HaloGamma,
  ImageIn, kInputCount
};
// The backing colour: the list's two entries; any other value suppresses against green but
// takes no spill out.
enum BackingColour { BlueBacking, GreenBacking, OtherBacking };

struct KeyerRender;
using RowStage = void (*)(const KeyerRender& k, const uint32_t* in, uint8_t* alpha, uint32_t* out, int count);

// Everything the passes need, worked out once per render in Process.
struct KeyerRender {
  const Image* src = nullptr;
  // The ranges as bounds on the pixel's differences from its luminance, R - Y, G - Y, B - Y,
  // and on Y itself: each colour-difference byte grows with its difference.
  KeyRanges differences;
  int pre_pass = 0;            // the pass after which the pre-matte stages run (1 after its blur)
  AlphaMap pre_map, post_map;  // pre-matte contrast; matte contrast then gamma
  bool pre_mapped = false, post_mapped = false;
  RowStage suppress = nullptr;  // the alpha scaled by min(R - X + 255, 255) >> 8
  RowStage finish = nullptr;    // halo, or the colour joined to the matte
  int32_t halo_k = 0;           // trunc(halo * 4096)
  AlphaMap halo_table;          // gamma table of Halo Gamma
};

// The differences d (-255 .. 255) whose colour-difference bytes 128 + q(d, k) lie in each
// colour's range: one interval per colour, as q never falls (empty where none does).
KeyRanges DifferenceBounds(const KeyRanges& ranges) {
  constexpr int kScale[KeyLuminance] = {kRedDifferenceScale, kGreenDifferenceScale, kBlueDifferenceScale};
  KeyRanges d;
  for (int c = 0; c < KeyLuminance; ++c) {
    d.low[c] = 256;
    d.high[c] = -256;
    for (int32_t v = 255; v >= -255; --v)
      if (const int32_t byte = 128 + ScaledDifference(v, kScale[c]); byte >= ranges.low[c] && byte <= ranges.high[c])
        d.low[c] = v;
    for (int32_t v = -255; v <= 255; ++v)
      if (const int32_t byte = 128 + ScaledDifference(v, kScale[c]); byte >= ranges.low[c] && byte <= ranges.high[c])
        d.high[c] = v;
  }
  d.low[KeyLuminance] = ranges.low[KeyLuminance];
  d.high[KeyLuminance] = ranges.high[KeyLuminance];
  return d;
}

// 0 inside every range, else 255.
void KeyRow(const KeyRanges& d, const uint32_t* in, uint8_t* __restrict alpha, int count) {
  for (int x = 0; x < count; ++x) {
    const int32_t b = int32_t(in[x] & 255), g = int32_t(in[x] >> 8 & 255), r = int32_t(in[x] >> 16 & 255);
    const int32_t y = Luminance(r, g, b);
    const int32_t v[kKeyChannels] = {r - y, g - y, b - y, y};
    bool inside = true;
    for (int c = 0; c < kKeyChannels; ++c) inside &= (v[c] >= d.low[c]) & (v[c] <= d.high[c]);
    alpha[x] = inside ? 0 : 255;
  }
}

// Backing suppression: X is blue for a blue backing, else green; A = (A * min(R - X + 255, 255))
// >> 8. The shift by 8 takes an opaque pixel to 254; saved flows render so.
template <int Colour>
void SuppressRow(const KeyerRender&, const uint32_t* in, uint8_t* alpha, uint32_t*, int count) {
  for (int x = 0; x < count; ++x) {
    const int32_t red = int32_t(in[x] >> 16 & 255), backing = int32_t(in[x] >> (Colour == BlueBacking ? 0 : 8) & 255);
    alpha[x] = uint8_t((alpha[x] * std::min(red - backing + 255, 255)) >> 8);
  }
}

// The halo: a pixel with alpha 0 becomes 0. Otherwise, below alpha 241, the backing channel moves
// toward the other of blue and green by hk / 4096; then each colour byte v blends toward T[v] as
// the matte thins: (T[v] * (255 - A) + v * A) >> 8.
template <int Colour>
void HaloRow(const KeyerRender& k, const uint32_t* in, uint8_t* alpha, uint32_t* __restrict out, int count) {
  const int32_t hk = k.halo_k;
  const int32_t* t = k.halo_table.data();
  const auto blend = [](int32_t table, int32_t v, int32_t a) {
    return uint32_t(std::clamp((table * (255 - a) + v * a) >> 8, 0, 255));
  };
  for (int x = 0; x < count; ++x) {
    const int32_t a = alpha[x];
    int32_t b = int32_t(in[x] & 255), g = int32_t(in[x] >> 8 & 255);
    const int32_t r = int32_t(in[x] >> 16 & 255);
    const int32_t kept = -int32_t(a > 240);  // all ones where the backing channel stays
    if constexpr (Colour == BlueBacking) {
      b = (b & kept) | (std::clamp((g * hk + (4096 - hk) * b) >> 12, 0, 255) & ~kept);
    } else if constexpr (Colour == GreenBacking) {
      g = (g & kept) | (std::clamp((b * hk + (4096 - hk) * g) >> 12, 0, 255) & ~kept);
    }
    const uint32_t p = blend(t[b], b, a) | blend(t[g], g, a) << 8 | blend(t[r], r, a) << 16 | uint32_t(a) << 24;
    out[x] = p & -uint32_t(a != 0);
  }
}

void JoinStage(const KeyerRender&, const uint32_t* in, uint8_t* alpha, uint32_t* out, int count) {
  JoinRow(in, alpha, out, count);
}

constexpr RowStage kSuppress[3] = {SuppressRow<BlueBacking>, SuppressRow<GreenBacking>, SuppressRow<OtherBacking>};
constexpr RowStage kHalo[3] = {HaloRow<BlueBacking>, HaloRow<GreenBacking>, HaloRow<OtherBacking>};

class Keyer final : public RangeKeyer {
 public:
  Keyer(Registry* reg, CArchive* ar, TagList* tags)
      : RangeKeyer(reg, ar, tags, "Blue/Green Keyer Pick", "Blue/Green Keyer Reset") {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      RangeInput(KeyRed, false),       RangeInput(KeyRed, true),
      RangeInput(KeyGreen, false),     RangeInput(KeyGreen, true),
      RangeInput(KeyBlue, false),      RangeInput(KeyBlue, true),
      RangeInput(KeyLuminance, false), RangeInput(KeyLuminance, true),
      {"Color Background",   vtype::Number, FourCC("BGCl"),  {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Blue"),
                                                              Tag(in::ListEntry, "Green")}},
      {"Pre Matte Blur",     vtype::Number, FourCC("PrBl"),  {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0),
                                                              Tag(in::Highest, 50.0), Tag(in::Default, 0.1), Tag(in::Steps, 51)}},
      {"Pre Matte Contrast", vtype::Number, FourCC("PrCn"),  {Tag(in::Control, control::Slider), Tag(in::Lowest, -1.0),
                                                              Tag(in::SliderHigh, 1.0), Tag(in::Default, 0.0), Tag(in::Steps, 101)}},
      ResetInput(),
      {"Matte Blur",         vtype::Number, 0x72756CC2,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0),
                                                              Tag(in::Highest, 50.0), Tag(in::Default, 0.0), Tag(in::Steps, 51)}},
      {"Matte Contrast",     vtype::Number, 0x746E6FC3,      {Tag(in::Control, control::Slider), Tag(in::Lowest, -1.0),
                                                              Tag(in::SliderHigh, 1.0), Tag(in::Default, 0.0), Tag(in::Steps, 101)}},
      {"Matte Gamma",        vtype::Number, 0x616D61C7,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.01),
                                                              Tag(in::SliderHigh, 3.0), Tag(in::Default, 1.0), Tag(in::Steps, 101)}},
      {"Matte Halo",         vtype::Number, FourCC("Halo"),  {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0),
                                                              Tag(in::Highest, 1.0), Tag(in::Default, 0.0)}},
      {"Halo Gamma",         vtype::Number, FourCC("HlGm"),  {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.01),
                                                              Tag(in::SliderHigh, 3.0), Tag(in::Default, 1.0), Tag(in::Steps, 101)}},
      {"Image",              vtype::Image,  ImageInputId(1), {}},
    };
    // clang-format on
    Declare(ar, table, in_, ResetButton, ImageIn);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    const auto number = [&](KeyerInput i) { return float(module::NumberInput(req, in_[i])); };
    const float pre_blur = number(PreBlur), pre_contrast = number(PreContrast), matte_blur = number(MatteBlur);
    const float matte_contrast = number(MatteContrast), matte_gamma = number(MatteGamma), halo = number(MatteHalo);
    const float halo_gamma = number(HaloGamma);
    const int backing = module::TruncToInt(module::NumberInput(req, in_[Backing]));
    auto* given = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!given) return req->SetOutputData(image_out_, nullptr);

    KeyerRender& k = render_;
    k.src = module::ColourImage(req, given);
    k.differences = DifferenceBounds(RangesOf(req));
    const int colour = backing == 0 ? BlueBacking : backing == 1 ? GreenBacking : OtherBacking;
    k.suppress = kSuppress[colour];
    k.pre_mapped = NonZero(pre_contrast);
    if (k.pre_mapped) k.pre_map = ContrastMap(pre_contrast);
    k.post_map = IdentityMap();
    if (NonZero(matte_contrast)) k.post_map = ContrastMap(matte_contrast);
    if (!IsOne(matte_gamma)) k.post_map = Then(k.post_map, GammaMap(matte_gamma));
    k.post_mapped = NonZero(matte_contrast) || !IsOne(matte_gamma);
    k.finish = JoinStage;
    if (Positive(halo)) {
      k.finish = kHalo[colour];
      k.halo_k = module::TruncToInt(double(halo) * 4096.0);
      k.halo_table = GammaMap(halo_gamma);
    }
    float blurs[2];
    size_t count = 0;
    if (Positive(pre_blur)) blurs[count++] = pre_blur;
    k.pre_pass = int(count);
    if (Positive(matte_blur)) blurs[count++] = matte_blur;
    return req->SetOutputData(image_out_, passes_.Run(*this, req, *k.src, {blurs, count}));
  }

  // Keying makes the matte; the pre-matte contrast and the suppression follow the pre-matte
  // blur (or the keying, without one); the matte's contrast, gamma and halo finish it.
  void ProcessChunk(Request*, long band) override {
    const KeyerRender& k = render_;
    passes_.Chunk(
        *this, band, [&](int y, int x, uint8_t* alpha, int count) { KeyRow(k.differences, k.src->Row(y) + x, alpha, count); },
        [&](int pass, int y, int x, uint8_t* alpha, int count) {
          if (pass != k.pre_pass) return;
          if (k.pre_mapped) MapRow(k.pre_map, alpha, count);
          k.suppress(k, k.src->Row(y) + x, alpha, nullptr, count);
        },
        [&](int y, int x, uint8_t* alpha, uint32_t* out, int count) {
          if (k.post_mapped) MapRow(k.post_map, alpha, count);
          k.finish(k, k.src->Row(y) + x, alpha, out, count);
        });
  }

 private:
  Input* in_[kInputCount];
  KeyerRender render_;
  MattePasses passes_;
};

}  // namespace

Object* NewKeyer(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Keyer>(reg, ar, tags); }

}  // namespace kestrion::tools
