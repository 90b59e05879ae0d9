// Color Space: converts the colour bytes of a copy of the input between RGB and HLS or YUV with
// one host image operation.
#include "module/operator_contract.h"
#include "module/registry.h"
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
    module::DeclareInputs(this, table, in_);
    image_out_ = AddOutput("Image", vtype::Image, ImageOutputId(1));
    SetThreadSettings(2, 0);
    if (ar) module::SkipRecordEnd(ar);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    const int conversion = int(module::NumberInput(req, in_[Conversion]));
    auto* src = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!src) return req->SetOutputData(image_out_, nullptr);
    Image* img = src->CopyOfImage(req);
    switch (conversion) {
      case RgbToHls: img->RGBtoHLS(); break;
      case HlsToRgb: img->HLStoRGB(); break;
      case RgbToYuv: img->RGBtoYUV(); break;
      case YuvToRgb: img->YUVtoRGB(); break;
      default: break;  // "No Change" and unknown values pass the copy on
    }
    return req->SetOutputData(image_out_, img);
  }

 private:
  Input* in_[kInputCount];
  Output* image_out_;
};

}  // namespace

Object* NewColorSpace(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<ColorSpace>(reg, ar, tags); }

}  // namespace kestrion::tools
