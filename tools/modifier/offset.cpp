// Offset: drives a point input with the sum of two points, and offers the angle and distance
// from the first point to the second, measured on the frame with its aspect taken into account.
#include <cmath>
#include <utility>

#include "host/base/prefs.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/modifier/modifier_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Offs");
constexpr double kDegreesPerRadian = 57.29577951308232;

enum OffsetInput { Position, Offset, ImageAspect, kInputCount };
enum OffsetOutput { PositionOut, AngleOut, DistanceOut, kOutputCount };

// The frame's display aspect from the video-mode preferences: width over height, each times
// its pixel aspect.
double VideoAspect() { return PVidMode.width * PVidMode.aspect_x / (PVidMode.height * PVidMode.aspect_y); }

class OffsetModifier final : public ThreadedOperator {
 public:
  OffsetModifier(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Position",     vtype::Point,  ImageInputId(1), {Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::CrossHair),
                                                        Tag(in::DefaultX, 0.5), Tag(in::DefaultY, 0.5)}},
      {"Offset",       vtype::Point,  ImageInputId(2), {Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::CrossHair),
                                                        Tag(in::DefaultX, 0.0), Tag(in::DefaultY, 0.0)}},
      {"Image Aspect", vtype::Number, 0x637073C1,      {Tag(in::Control, control::Slider), Tag(in::SliderLow, 0.1), Tag(in::SliderHigh, 10.0),
                                                        Tag(in::SliderPresentation, 1.0), Tag(in::Default, VideoAspect())}},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    out_[PositionOut] = AddOutput("Position", vtype::Point, ImageOutputId(1));
    out_[AngleOut] = AddOutput("Angle", vtype::Number, ImageOutputId(2));
    out_[DistanceOut] = AddOutput("Distance", vtype::Number, ImageOutputId(3));
    if (ar) module::SkipRecordEnd(ar);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  void GetTitle(char* title) override { module::ModifierTitle(*this, title); }

  // Driving a point input, the modifier starts from that input's value, so nothing moves.
  void SetSource(Output* out, Parameter* current, double) override {
    auto* p = dynamic_cast<Point*>(current);
    if (out == out_[PositionOut] && p) in_[Position]->SetValue(p->Copy());
  }

  uint32_t Process(Request* req) override {
    const auto [px, py] = PointInput(req, Position);
    const auto [ox, oy] = PointInput(req, Offset);
    const double aspect = module::NumberInput(req, in_[ImageAspect]);
    const double dx = ox - px, dy = (oy - py) / aspect;
    const double distance = std::sqrt(dy * dy + dx * dx);
    const double angle = ox == px && oy == py ? 0.0 : std::atan2(-dy, dx) * kDegreesPerRadian;
    uint32_t ok = req->SetOutputData(out_[PositionOut], new Point(float(ox + px), float(oy + py)));
    ok &= req->SetOutputData(out_[AngleOut], new Number(angle));
    ok &= req->SetOutputData(out_[DistanceOut], new Number(distance));
    return ok;
  }

 private:
  // A point input's coordinates, widened to double.
  std::pair<double, double> PointInput(Request* req, OffsetInput i) const {
    auto* p = dynamic_cast<Point*>(req->GetInputData(in_[i]));
    return p ? std::pair<double, double>(p->x, p->y) : std::pair<double, double>(0.0, 0.0);
  }

  Input* in_[kInputCount];
  Output* out_[kOutputCount];
};

}  // namespace

Object* NewOffset(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<OffsetModifier>(reg, ar, tags); }

}  // namespace kestrion::tools
