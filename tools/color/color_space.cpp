// Color Space: converts the colour bytes of the input between RGB and HLS or YUV as the host
// image operations of those names do it. The rows run in bands on the worker threads, each
// converted from the input into the output in one pass.
#include <cstring>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "host/image/image_rows.h"
#include "tools/color/color_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("CSpc");

enum ColorSpaceInput { Conversion, ImageIn, kInputCount };
enum Conversions { NoChange = 0, RgbToHls = 1, HlsToRgb = 2, RgbToYuv = 3, YuvToRgb = 4 };

class ColorSpace final : public ThreadedOperator {
 public:
  ColorSpace(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // The reverse entries keep their upper-case "TO"; saved panels show them so.
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Color Space Conversion", vtype::Number, FourCC("CSpc"), {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "No Change"),
                                                                 Tag(in::ListEntry, "RGB to HLS"), Tag(in::ListEntry, "HLS TO RGB"),
                                                                 Tag(in::ListEntry, "RGB to YUV"), Tag(in::ListEntry, "YUV TO RGB"),
                                                                 Tag(in::Default, 0.0)}},
      {"Image",                  vtype::Image,  ImageInputId(1), {}},
    };
    // clang-format on
    image_out_ = module::DeclareImageTool(this, ar, table, in_);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    const int conversion = int(module::NumberInput(req, in_[Conversion]));
    auto* src = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!src) return req->SetOutputData(image_out_, nullptr);
    SpaceRender& s = render_;
    s.src = src;
    s.out = NewImageUnset(req, src);
    // "No Change", unknown values and masks (which have no colour) copy the input.
    s.converts = src->Depth() == 32 && conversion >= RgbToHls && conversion <= YuvToRgb;
    switch (conversion) {
      case RgbToHls: s.conversion = ColourConversion::RgbToHls; break;
      case HlsToRgb: s.conversion = ColourConversion::HlsToRgb; break;
      case RgbToYuv: s.conversion = ColourConversion::RgbToYuv; break;
      case YuvToRgb: s.conversion = ColourConversion::YuvToRgb; break;
      default: break;
    }
    s.bands = module::RowBands(src->Height());
    DoMultiProcess(req, s.bands);
    return req->SetOutputData(image_out_, s.out);
  }

  void ProcessChunk(Request*, long band) override {
    const SpaceRender& s = render_;
    const int width = s.src->Width();
    module::WriteEachRow(*this, *s.out, module::BandRows(s.src->Height(), s.bands, band), [&](int y) {
      if (s.converts)
        ConvertRow(s.conversion, s.src->Row(y), s.out->Row(y), width);
      else
        std::memcpy(s.out->RowTable()[y], s.src->RowTable()[y], size_t(width) * s.src->BytesPerPixel());
    });
  }

 private:
  // Everything the rows need, worked out once per render in Process.
  struct SpaceRender {
    const Image* src = nullptr;
    Image* out = nullptr;
    long bands = 1;
    bool converts = false;
    ColourConversion conversion = ColourConversion::RgbToYuv;
  };

  Input* in_[kInputCount];
  Output* image_out_;
  SpaceRender render_;
};

}  // namespace

Object* NewColorSpace(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<ColorSpace>(reg, ar, tags); }

}  // namespace kestrion::tools
