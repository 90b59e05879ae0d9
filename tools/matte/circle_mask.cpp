// Circle: a mask of a circle whose Size (its diameter) is in frame widths on both axes, so it
// stays round in pixels on frames of any shape. The bounding box is worked out in double
// precision and truncated to whole pixels.
#include "host/draw/mask_operator.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/matte/masks.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("CrMs");

enum CircleInput { Center, Size, kInputCount };

class CircleMask final : public MaskOperator {
 public:
  CircleMask(Registry* reg, CArchive* ar, TagList* tags) : MaskOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Center", vtype::Point,  0x746E65C3, {Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::CrossHair),
                                             Tag(in::DefaultX, 0.5), Tag(in::DefaultY, 0.5)}},
      {"Size",   vtype::Number, 0x657A69D3, {Tag(in::Control, control::Slider), Tag(in::PreviewControl, control::CircleHandle),
                                             Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 10.0), Tag(in::Default, 0.5),
                                             Tag(in::SliderPresentation, 0.5)}},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    in_[Size]->SetAttrs({Tag(in::TiedInput1, in_[Center])});
    if (ar) module::SkipRecordEnd(ar);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  long Draw(Request* req, MaskSurface& surface, const MaskFrame& frame) override {
    const float r = float(module::NumberInput(req, in_[Size]) * 0.5);
    using module::TruncToInt;
    const int wp = TruncToInt(frame.width * double(frame.sx)), hp = TruncToInt(frame.height * double(frame.sy));
    if (NotPositive(r)) return 0;
    const module::PointValue c = module::PointInput(req, in_[Center]);
    return surface.Ellipse(TruncToInt((double(c.x) - r) * wp), TruncToInt(double(c.y) * hp - double(r) * wp),
                           TruncToInt((double(r) + c.x) * wp), TruncToInt(double(r) * wp + double(c.y) * hp));
  }

 private:
  Input* in_[kInputCount];
};

}  // namespace

Object* NewCircleMask(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<CircleMask>(reg, ar, tags); }

}  // namespace kestrion::tools
