// Color Gain: per-channel gain, then gamma, then saturation, as the host image operations of
// those names do them, each skipped when all of its values are exactly 1. Gain and gamma are
// joined into one byte map per channel; the rows run in bands on the worker threads, each read
// from the input, mapped and saturated into the output in one pass.
#include <cstring>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "host/image/image_rows.h"
#include "tools/color/color_tools.h"

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
    image_out_ = module::DeclareImageTool(this, ar, table, in_);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    double v[SaturationBlue + 1];
    for (int i = GainRed; i <= SaturationBlue; ++i) v[i] = module::NumberInput(req, in_[i]);
    auto* src = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!src) return req->SetOutputData(image_out_, nullptr);
    const auto any_not_one = [&](int first, int last) {
      for (int i = first; i <= last; ++i)
        if (v[i] != 1.0) return true;
      return false;
    };
    GainRender& g = render_;
    g.src = src;
    g.out = NewImageUnset(req, src);
    g.maps = ChannelMaps();
    g.mapped = any_not_one(GainRed, GammaAlpha);
    if (any_not_one(GainRed, GainAlpha))
      g.maps = ChannelMaps::Gain(float(v[GainRed]), float(v[GainGreen]), float(v[GainBlue]), float(v[GainAlpha]));
    if (any_not_one(GammaRed, GammaAlpha))
      g.maps = g.maps.Then(
          ChannelMaps::Gamma(float(v[GammaRed]), float(v[GammaGreen]), float(v[GammaBlue]), float(v[GammaAlpha])));
    // Masks have no colour to saturate.
    g.saturates = any_not_one(SaturationRed, SaturationBlue) && src->Depth() == 32;
    if (g.saturates)
      g.saturation = Saturation(float(v[SaturationRed]), float(v[SaturationGreen]), float(v[SaturationBlue]));
    g.bands = module::RowBands(src->Height());
    DoMultiProcess(req, g.bands);
    return req->SetOutputData(image_out_, g.out);
  }

  void ProcessChunk(Request*, long band) override {
    const GainRender& g = render_;
    const int width = g.src->Width();
    module::WriteEachRow(*this, *g.out, module::BandRows(g.src->Height(), g.bands, band), [&](int y) {
      if (g.src->Depth() == 8) {
        if (g.mapped)
          g.maps.MaskRow(g.src->MaskRow(y), g.out->MaskRow(y), width);
        else
          std::memcpy(g.out->MaskRow(y), g.src->MaskRow(y), size_t(width));
        return;
      }
      const uint32_t* from = g.src->Row(y);
      uint32_t* to = g.out->Row(y);
      if (g.mapped) {
        g.maps.Row(from, to, width);
        from = to;
      }
      if (g.saturates) {
        g.saturation.Row(from, to, width);
        from = to;
      }
      if (from != to) std::memcpy(to, from, size_t(width) * 4);
    });
  }

 private:
  // Everything the rows need, worked out once per render in Process.
  struct GainRender {
    const Image* src = nullptr;
    Image* out = nullptr;
    long bands = 1;
    bool mapped = false, saturates = false;
    ChannelMaps maps;  // gain, then gamma
    Saturation saturation{1.0f, 1.0f, 1.0f};
  };

  Input* in_[kInputCount];
  Output* image_out_;
  GainRender render_;
};

}  // namespace

Object* NewColorGain(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<ColorGain>(reg, ar, tags); }

}  // namespace kestrion::tools
