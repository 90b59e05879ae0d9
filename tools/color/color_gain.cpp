// Color Gain: per-channel gain, then gamma, then saturation, each done by one host image
// operation on a copy of the input and skipped when all of its values are exactly 1.
#include "tools/color/color_tools.h"

#include "module/operator_contract.h"
#include "module/registry.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Colr");

enum ColorGainInput {
  GainRed, GainGreen, GainBlue, GainAlpha,
  GammaRed, GammaGreen, GammaBlue, GammaAlpha,
  SaturationRed, SaturationGreen, SaturationBlue,
  ImageIn, kInputCount
};

// Every numeric input: a slider over 0 to 5 (values above 5 may be typed), default 1.
TagList LevelTags() {
  return {Tag(in::Control, control::Slider), Tag(in::Steps, 100), Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 5.0),
          Tag(in::Default, 1.0), Tag(in::SliderPresentation, 1.0)};
}

class ColorGain final : public ThreadedOperator {
 public:
  ColorGain(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Gain Red",         vtype::Number, 0x764C64D2,      LevelTags()},
      {"Gain Green",       vtype::Number, 0x764C6EC7,      LevelTags()},
      {"Gain Blue",        vtype::Number, 0x764C6CC2,      LevelTags()},
      {"Gain Alpha",       vtype::Number, 0x764C6CC1,      LevelTags()},
      {"Gamma Red",        vtype::Number, FourCC("RdGm"),  LevelTags()},
      {"Gamma Green",      vtype::Number, FourCC("GnGm"),  LevelTags()},
      {"Gamma Blue",       vtype::Number, FourCC("BlGm"),  LevelTags()},
      {"Gamma Alpha",      vtype::Number, FourCC("AlGm"),  LevelTags()},
      {"Saturation Red",   vtype::Number, FourCC("RdSt"),  LevelTags()},
      {"Saturation Green", vtype::Number, FourCC("GnSt"),  LevelTags()},
      {"Saturation Blue",  vtype::Number, FourCC("BlSt"),  LevelTags()},
      {"Image",            vtype::Image,  ImageInputId(1), {}},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    image_out_ = AddOutput("Image", vtype::Image, ImageOutputId(1));
    SetThreadSettings(2, 0);
    if (ar) module::SkipRecordEnd(ar);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    double v[SaturationBlue + 1];
    for (int i = GainRed; i <= SaturationBlue; ++i) v[i] = module::NumberInput(req, in_[i]);
    auto* src = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!src) return req->SetOutputData(image_out_, nullptr);
    Image* img = src->CopyOfImage(req);
    const auto any_not_one = [&](int first, int last) {
      for (int i = first; i <= last; ++i)
        if (v[i] != 1.0) return true;
      return false;
    };
    if (any_not_one(GainRed, GainAlpha))
      img->Gain(float(v[GainRed]), float(v[GainGreen]), float(v[GainBlue]), float(v[GainAlpha]));
    if (any_not_one(GammaRed, GammaAlpha))
      img->Gamma(float(v[GammaRed]), float(v[GammaGreen]), float(v[GammaBlue]), float(v[GammaAlpha]));
    if (any_not_one(SaturationRed, SaturationBlue))
      img->Saturate(float(v[SaturationRed]), float(v[SaturationGreen]), float(v[SaturationBlue]));
    return req->SetOutputData(image_out_, img);
  }

 private:
  Input* in_[kInputCount];
  Output* image_out_;
};

}  // namespace

Object* NewColorGain(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<ColorGain>(reg, ar, tags); }

}  // namespace kestrion::tools
