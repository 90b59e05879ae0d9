// Blue/Green Keyer: pulls a matte from a blue or green backing. A pixel whose colour-difference
// bytes fall inside all four ranges is backing (alpha 0), any other foreground (255); the matte
// then goes through a fixed chain: pre-matte blur and contrast, suppression of the alpha where
// the backing outweighs red, matte blur, contrast and gamma, and a halo that takes the spill out
// of the edges. The matte moves between the stages as mask images, one pass per blur; the
// stages between the blurs run on each row as it comes out. Pick and Reset set the ranges.
#include <algorithm>
#include <cstring>

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

// The passes of a render: keying, then each blur that is on.
enum class Pass { Key, PreBlur, MatteBlur };

struct KeyerRender;
using RowStage = void (*)(const KeyerRender& k, const uint32_t* in, uint8_t* alpha, uint32_t* out, int count);

// Everything the passes need, worked out once per render in Process.
struct KeyerRender {
  const Image* src = nullptr;
  const Image* from = nullptr;  // the matte a blur pass reads
  Image* to = nullptr;          // the mask or the output the pass writes
  Pass pass = Pass::Key;
  bool pre_stages = false, post_stages = false;  // whether this pass runs them on its rows
  int width = 0;
  long bands = 1;
  // The ranges as bounds on the pixel's differences from its luminance, R - Y, G - Y, B - Y,
  // and on Y itself: each colour-difference byte grows with its difference.
  KeyRanges differences;
  AlphaMap pre_map, post_map;  // pre-matte contrast; matte contrast then gamma
  bool pre_mapped = false, post_mapped = false;
  RowStage suppress = nullptr;  // the alpha scaled by min(R - X + 255, 255) >> 8
  RowStage finish = nullptr;    // halo, or the colour joined to the matte
  int32_t halo_k = 0;           // trunc(halo * 4096)
  AlphaMap halo_table;          // gamma table of Halo Gamma
  AlphaBlur pre_blur, matte_blur;
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

// The stages this pass runs on `count` pixels of row y from column x: the pre-matte contrast
// and the suppression, then either the matte's contrast, gamma and halo into the output or the
// matte into the next mask.
void Stages(const KeyerRender& k, int y, int x, uint8_t* alpha, int count) {
  const uint32_t* in = k.src->Row(y) + x;
  if (k.pre_stages) {
    if (k.pre_mapped) MapRow(k.pre_map, alpha, count);
    k.suppress(k, in, alpha, nullptr, count);
  }
  if (k.post_stages) {
    if (k.post_mapped) MapRow(k.post_map, alpha, count);
    k.finish(k, in, alpha, k.to->Row(y) + x, count);
  } else if (alpha != k.to->MaskRow(y) + x) {
    std::memcpy(k.to->MaskRow(y) + x, alpha, size_t(count));
  }
}

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
    module::DeclareInputs(this, table, in_);
    ranges_ = in_;
    reset_ = in_[ResetButton];
    image_ = in_[ImageIn];
    image_out_ = AddOutput("Image", vtype::Image, ImageOutputId(1));
    SetThreadSettings(3, 0);
    if (ar) module::SkipRecordEnd(ar);
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
    k.src = ColourImage(req, given);
    const int w = k.src->Width(), h = k.src->Height();
    k.width = w;
    k.bands = module::RowBands(h);
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
    const bool pre = Positive(pre_blur), post = Positive(matte_blur);
    Image* out = NewImage(req, k.src);
    const auto mask = [&] { return NewImage(req, w, h, 8, k.src); };

    k.pass = Pass::Key;
    k.to = pre || post ? mask() : out;
    k.pre_stages = !pre;
    k.post_stages = !pre && !post;
    DoMultiProcess(req, k.bands);
    if (pre) {
      k.pre_blur.Prepare(pre_blur, w, h);
      RunBlur(req, Pass::PreBlur, post ? mask() : out, true, !post);
    }
    if (post) {
      k.matte_blur.Prepare(matte_blur, w, h);
      RunBlur(req, Pass::MatteBlur, out, false, true);
    }
    return req->SetOutputData(image_out_, out);
  }

  void ProcessChunk(Request*, long band) override {
    const KeyerRender& k = render_;
    if (k.pass == Pass::PreBlur || k.pass == Pass::MatteBlur) {
      const AlphaBlur& blur = k.pass == Pass::PreBlur ? k.pre_blur : k.matte_blur;
      blur.Band(*this, *k.from, band, [&](int y, uint8_t* alpha) { Stages(k, y, 0, alpha, k.width); });
      return;
    }
    const bool to_mask = k.to->Depth() == 8;
    module::ForEachRow(*this, module::BandRows(k.src->Height(), k.bands, band), [&](int y) {
      uint8_t piece[kPiece];
      for (int x = 0; x < k.width; x += kPiece) {
        const int count = std::min(kPiece, k.width - x);
        uint8_t* alpha = to_mask ? k.to->MaskRow(y) + x : piece;
        KeyRow(k.differences, k.src->Row(y) + x, alpha, count);
        Stages(k, y, x, alpha, count);
      }
    });
  }

 private:
  // A blur pass from the matte the last pass wrote into `to`; that matte is released after it.
  void RunBlur(Request* req, Pass pass, Image* to, bool pre_stages, bool post_stages) {
    KeyerRender& k = render_;
    k.pass = pass;
    k.from = k.to;
    k.to = to;
    k.pre_stages = pre_stages;
    k.post_stages = post_stages;
    DoMultiProcess(req, (pass == Pass::PreBlur ? k.pre_blur : k.matte_blur).Bands());
    req->Release(const_cast<Image*>(k.from));
    k.from = nullptr;
  }

  Input* in_[kInputCount];
  Output* image_out_;
  KeyerRender render_;
};

}  // namespace

Object* NewKeyer(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Keyer>(reg, ar, tags); }

}  // namespace kestrion::tools
