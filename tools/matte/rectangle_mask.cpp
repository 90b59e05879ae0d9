// Rectangle: a mask of a rectangle turned about its centre. Width is in frame widths and Height
// in frame heights; the corners are worked out in double precision (two of their terms rounded
// to single precision) and truncated to whole pixels.
#include <cmath>

#include "host/draw/mask_operator.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/matte/masks.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("RcMs");

enum RectangleInput { Center, Width, Height, Angle, kInputCount };

TagList SideTags(int which) {
  return {Tag(in::Control, control::Slider), Tag(in::PreviewControl, control::RectangleHandle), Tag(in::Lowest, 0.0),
          Tag(in::SliderHigh, 2.0), Tag(in::Default, 0.5), Tag(in::Presentation0B, 1), Tag(in::Presentation0C, which)};
}

class RectangleMask final : public MaskOperator {
 public:
  RectangleMask(Registry* reg, CArchive* ar, TagList* tags) : MaskOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Center", vtype::Point,  0x746E65C3, {Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::CrossHair),
                                             Tag(in::DefaultX, 0.5), Tag(in::DefaultY, 0.5)}},
      {"Width",  vtype::Number, 0x687464D7, SideTags(0)},
      {"Height", vtype::Number, 0x746867C8, SideTags(1)},
      {"Angle",  vtype::Number, 0x6C676EC1, {Tag(in::Control, control::Dial), Tag(in::PreviewControl, control::AngleHandle),
                                             Tag(in::SliderLow, 0.0), Tag(in::SliderHigh, 360.0), Tag(in::Default, 0.0),
                                             Tag(in::Steps, 3601), Tag(in::Presentation64, 450), Tag(in::Presentation00, 1)}},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    for (Input* side : {in_[Width], in_[Height]})
      side->SetAttrs({Tag(in::TiedInput1, in_[Center]), Tag(in::TiedInput2, in_[Angle])});
    in_[Angle]->SetAttrs({Tag(in::TiedInput1, in_[Center]), Tag(in::TiedInput2, in_[Width])});
    if (ar) module::SkipRecordEnd(ar);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  long Draw(Request* req, MaskSurface& surface, const MaskFrame& frame) override {
    const float w = float(module::NumberInput(req, in_[Width])), h = float(module::NumberInput(req, in_[Height]));
    if (NotPositive(w) || NotPositive(h)) return w > 0;
    const module::PointValue c = module::PointInput(req, in_[Center]);
    const double theta = module::NumberInput(req, in_[Angle]) * kRadiansPerDegree;
    const double px = frame.width * double(frame.sx), py = frame.height * double(frame.sy);
    const double hw = w * px * 0.5, hh = h * py * 0.5;
    const double x = c.x * px, y = c.y * py;
    const double a = float(std::cos(theta) * hw), b = float(std::sin(theta) * hh);
    const double d = std::cos(theta) * hh, e = std::sin(theta) * hw;
    using module::TruncToInt;
    const CPoint corners[4] = {
        {TruncToInt(b + a + x), TruncToInt(d - e + y)},
        {TruncToInt(a - b + x), TruncToInt(-(d + e) + y)},
        {TruncToInt(-(b + a) + x), TruncToInt(e - d + y)},
        {TruncToInt(b - a + x), TruncToInt(y + d + e)},
    };
    return surface.Polygon(corners, 4);
  }

 private:
  Input* in_[kInputCount];
};

}  // namespace

Object* NewRectangleMask(Registry* reg, CArchive* ar, TagList* tags) {
  return module::Factory<RectangleMask>(reg, ar, tags);
}

}  // namespace kestrion::tools
