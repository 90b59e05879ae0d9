// Luma Keyer: makes a matte from one channel of the image (luminance by default): transparent at
// or below "Low", opaque at or above "High", a straight ramp between. The matte may then be
// blurred, given contrast and gamma, and inverted. Its check box is "Invert" on tools made new
// and "Vert", with the opposite sense, on tools loaded from records that do not say (flows saved
// before the flag existed show it so).
#include <algorithm>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/matte/matte.h"

namespace kestrion::tools {

namespace {

using namespace matte;

constexpr uint32_t kClassId = FourCC("LKey");
// The attribute of the saved record that holds the check box's sense.
constexpr uint32_t kInvertMeaningAttr = 0x100000C8;

enum LumaInput { Channel, Low, High, MatteBlur, MatteContrast, MatteGamma, Invert, ImageIn, kInputCount };
// The channels of the list: bytes 0 to 3 of the pixel, and any other value the luminance.
enum LumaChannel { BlueChannel, GreenChannel, RedChannel, AlphaChannel, LuminanceChannel };

struct LumaRender;
using KeyKernel = void (*)(const LumaRender& k, const uint32_t* in, uint8_t* alpha, int count);

// Everything the passes need, worked out once per render in Process.
struct LumaRender {
  const Image* src = nullptr;
  KeyKernel key = nullptr;
  int32_t low = 0, high = 0;  // trunc(Low * 255), trunc(High * 255), held to -65536 .. 65536
  int32_t rate = 0;           // 65280 / (high - low) where high is above low, else 0
  AlphaMap map;               // contrast, gamma, inversion
  bool mapped = false;
};

// v <= low: 0; v >= high: 255; between: ((v - low) * rate) >> 8, its low byte kept.
template <int Channel>
void LumaKeyRow(const LumaRender& k, const uint32_t* in, uint8_t* __restrict alpha, int count) {
  const int32_t low = k.low, high = k.high, rate = k.rate;
  for (int x = 0; x < count; ++x) {
    const uint32_t p = in[x];
    int32_t v;
    if constexpr (Channel == LuminanceChannel) {
      v = Luminance(int(p >> 16 & 255), int(p >> 8 & 255), int(p & 255));
    } else {
      v = int32_t(p >> (8 * Channel) & 255);
    }
    // Wrapping: where the ramp is not taken the ends may be far apart.
    const int32_t ramp = module::WrapMul(v - low, rate) >> 8 & 255;
    alpha[x] = uint8_t(v <= low ? 0 : v >= high ? 255 : ramp);
  }
}

constexpr KeyKernel kKeys[5] = {LumaKeyRow<BlueChannel>, LumaKeyRow<GreenChannel>, LumaKeyRow<RedChannel>,
                                LumaKeyRow<AlphaChannel>, LumaKeyRow<LuminanceChannel>};

class LumaKeyer final : public ThreadedOperator {
 public:
  LumaKeyer(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    const Tag* kept = Attrs().Find(kInvertMeaningAttr);
    invert_meaning_ = kept ? kept->integer : ar ? 0 : 1;
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Channel",        vtype::Number, 0x6E6168C3,      {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Blue"), Tag(in::ListEntry, "Green"),
                                                          Tag(in::ListEntry, "Red"), Tag(in::ListEntry, "Alpha"), Tag(in::ListEntry, "Luminance"),
                                                          Tag(in::Default, 4.0)}},
      {"Low",            vtype::Number, 0x774C68D4,      {Tag(in::Control, control::Range), Tag(in::SliderLow, 0.0), Tag(in::SliderHigh, 1.0),
                                                          Tag(in::Default, 0.0), Tag(in::GroupNumber, 1), Tag(in::GroupIndex, 0)}},
      {"High",           vtype::Number, 0x694868D4,      {Tag(in::Control, control::Range), Tag(in::SliderLow, 0.0), Tag(in::SliderHigh, 1.0),
                                                          Tag(in::Default, 1.0), Tag(in::GroupNumber, 1), Tag(in::GroupIndex, 1)}},
      {"Matte Blur",     vtype::Number, 0x72756CC2,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 50.0),
                                                          Tag(in::Default, 0.0), Tag(in::Steps, 51)}},
      {"Matte Contrast", vtype::Number, 0x746E6FC3,      {Tag(in::Control, control::Slider), Tag(in::Lowest, -1.0), Tag(in::SliderHigh, 1.0),
                                                          Tag(in::Default, 0.0), Tag(in::Steps, 101)}},
      {"Matte Gamma",    vtype::Number, 0x616D61C7,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.000001), Tag(in::SliderHigh, 3.0),
                                                          Tag(in::Default, 1.0), Tag(in::Steps, 101)}},
      {invert_meaning_ ? "Invert" : "Vert",
                         vtype::Number, 0x74766EC9,      {Tag(in::Control, control::CheckBox), Tag(in::Default, 0.0)}},
      {"Image",          vtype::Image,  ImageInputId(1), {}},
    };
    // clang-format on
    image_out_ = module::DeclareImageTool(this, ar, table, in_, 3, 0);
  }

  // The record keeps the check box's sense as an attribute of the base record.
  uint32_t Save(CArchive* ar, TagList* tags) override {
    TagList kept = tags ? *tags : TagList{};
    kept.Set(Tag(kInvertMeaningAttr, invert_meaning_));
    return module::SaveWithoutFields(this, kClassId, ar, &kept);
  }

  uint32_t Process(Request* req) override {
    const int channel = module::TruncToInt(module::NumberInput(req, in_[Channel]) + 0.5);
    const int64_t low = module::TruncToInt(module::NumberInput(req, in_[Low]) * 255.0);
    const int64_t high = module::TruncToInt(module::NumberInput(req, in_[High]) * 255.0);
    const double blur = module::NumberInput(req, in_[MatteBlur]);
    const double contrast = module::NumberInput(req, in_[MatteContrast]);
    const double gamma = module::NumberInput(req, in_[MatteGamma]);
    const double invert = module::NumberInput(req, in_[Invert]);
    auto* given = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!given) return req->SetOutputData(image_out_, nullptr);

    LumaRender& k = render_;
    k.src = module::ColourImage(req, given);
    k.key = kKeys[channel >= BlueChannel && channel <= AlphaChannel ? channel : LuminanceChannel];
    // The ramp only runs where high is above low, and then high - low is at most 65280 for any
    // rate above 0, so holding the ends changes no comparison with a byte and no ramp value.
    k.rate = high > low ? int32_t(65280 / (high - low)) : 0;
    k.low = int32_t(std::clamp<int64_t>(low, -65536, 65536));
    k.high = int32_t(std::clamp<int64_t>(high, -65536, 65536));
    // Contrast and gamma are the matte helpers' single-precision stages.
    k.map = IdentityMap();
    if (contrast != 0.0) k.map = ContrastMap(float(contrast));
    if (gamma != 1.0) k.map = Then(k.map, GammaMap(float(gamma)));
    const bool ticked = invert != 0.0;
    const bool inverts = invert_meaning_ ? ticked : !ticked;
    if (inverts) k.map = Then(k.map, InvertMap());
    k.mapped = contrast != 0.0 || gamma != 1.0 || inverts;

    const float amount = float(blur);
    return req->SetOutputData(image_out_, passes_.Run(*this, req, *k.src, {&amount, blur > 0.0 ? 1u : 0u}));
  }

  void ProcessChunk(Request*, long band) override {
    const LumaRender& k = render_;
    passes_.Chunk(
        *this, band, [&](int y, int x, uint8_t* alpha, int count) { k.key(k, k.src->Row(y) + x, alpha, count); },
        [&](int y, int x, uint8_t* alpha, uint32_t* out, int count) {
          if (k.mapped) MapRow(k.map, alpha, count);
          JoinRow(k.src->Row(y) + x, alpha, out, count);
        });
  }

 private:
  Input* in_[kInputCount];
  Output* image_out_;
  uint32_t invert_meaning_ = 1;
  LumaRender render_;
  MattePasses passes_;
};

}  // namespace

Object* NewLumaKeyer(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<LumaKeyer>(reg, ar, tags); }

}  // namespace kestrion::tools
