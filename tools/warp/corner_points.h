// What the Corner and Perspective Positioners share: their inputs (four corner points, in
// normalised frame coordinates, 0 to 1 across the frame and 0 at the top row, and the image),
// their output, record and thread settings.
#pragma once

#include "module/operator_contract.h"
#include "module/registry.h"

namespace kestrion::tools {

enum CornerInput { TopLeft, TopRight, BottomLeft, BottomRight, CornerImage, kCornerInputCount };

// The inputs in panel order. The default corners are not a rectangle on purpose, so that a new
// tool shows its effect at once.
inline const module::InputDecl (&CornerInputTable())[kCornerInputCount] {
  const auto corner = [](double x, double y) {
    return TagList{Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::PointHandle), Tag(in::DefaultX, x),
                   Tag(in::DefaultY, y)};
  };
  // clang-format off
  static const module::InputDecl table[kCornerInputCount] = {
    {"Top Left",     vtype::Point, FourCC("TpLt"),  corner(0.1, 0.1)},
    {"Top Right",    vtype::Point, FourCC("TpRt"),  corner(0.9, 0.0)},
    {"Bottom Left",  vtype::Point, FourCC("BtLt"),  corner(0.0, 0.7)},
    {"Bottom Right", vtype::Point, FourCC("BtRt"),  corner(1.0, 0.9)},
    {"Image",        vtype::Image, ImageInputId(1), {}},
  };
  // clang-format on
  return table;
}

// The corners of a request as doubles: P0 top left, P1 top right, P2 bottom left, P3 bottom
// right. A corner the request does not carry is at its default, as a point holds it (in floats).
struct CornerPoints {
  double x[4], y[4];
};

inline CornerPoints ReadCorners(Request* req, Input* const (&inputs)[kCornerInputCount]) {
  CornerPoints c;
  for (int i = TopLeft; i <= BottomRight; ++i) {
    auto* p = dynamic_cast<Point*>(req->GetInputData(inputs[i]));
    c.x[i] = p ? p->x : float(inputs[i]->GetAttrD(in::DefaultX));
    c.y[i] = p ? p->y : float(inputs[i]->GetAttrD(in::DefaultY));
  }
  return c;
}

// The base of both positioners, a tool of class `ClassId` that saves no fields of its own.
template <uint32_t ClassId>
class CornerTool : public ThreadedOperator {
 public:
  CornerTool(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    image_out_ = module::DeclareImageTool(this, ar, CornerInputTable(), in_);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, ClassId, ar, tags); }

 protected:
  Input* in_[kCornerInputCount];
  Output* image_out_;
};

}  // namespace kestrion::tools
