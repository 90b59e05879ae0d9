// Triangle: a mask of the triangle through three points, each truncated to whole pixels. Three
// points on one line give an empty mask.
#include "host/draw/mask_operator.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/matte/masks.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("TrMs");

enum TriangleInput { Point1, Point2, Point3, kInputCount };

TagList VertexTags(double x, double y) {
  return {Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::PointHandle), Tag(in::DefaultX, x),
          Tag(in::DefaultY, y)};
}

class TriangleMask final : public MaskOperator {
 public:
  TriangleMask(Registry* reg, CArchive* ar, TagList* tags) : MaskOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Point 1", vtype::Point, FourCC("Pnt1"), VertexTags(0.1, 0.1)},
      {"Point 2", vtype::Point, FourCC("Pnt2"), VertexTags(0.9, 0.1)},
      {"Point 3", vtype::Point, FourCC("Pnt3"), VertexTags(0.5, 0.9)},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    if (ar) module::SkipRecordEnd(ar);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  long Draw(Request* req, MaskSurface& surface, const MaskFrame& frame) override {
    using module::TruncToInt;
    const int wp = TruncToInt(frame.width * double(frame.sx)), hp = TruncToInt(frame.height * double(frame.sy));
    CPoint vertices[kInputCount];
    for (int i = 0; i < kInputCount; ++i) {
      const module::PointValue p = module::PointInput(req, in_[i]);
      vertices[i] = {TruncToInt(double(p.x) * wp), TruncToInt(double(p.y) * hp)};
    }
    return surface.Polygon(vertices, kInputCount);
  }

 private:
  Input* in_[kInputCount];
};

}  // namespace

Object* NewTriangleMask(Registry* reg, CArchive* ar, TagList* tags) {
  return module::Factory<TriangleMask>(reg, ar, tags);
}

}  // namespace kestrion::tools
