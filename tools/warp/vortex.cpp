// Vortex: swirls the frame inside a circle about a centre point. Each pixel inside turns about
// the centre by an angle that is largest at the centre and falls to nothing at the circle's
// edge (by the power of the distance to it); pixels on or outside the circle stay as they are.
// Points past the frame read its edge.
#include <cmath>
#include <cstdint>

#include "module/fast_math.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "module/warp_rows.h"
#include "tools/warp/warp_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Vort");
constexpr double kRadiansPerDegree = 0.017453292519943295;
// A presentation attribute of the angle dial, passed to the host as it is.
constexpr uint32_t kAngleDialAttr = 0x10000000;

enum VortexInput { Center, Size, Angle, Power, ImageIn, kInputCount };

// Everything the rows need, worked out once per render in Process.
struct VortexRender {
  const Image* src = nullptr;
  Image* out = nullptr;
  int width = 0, height = 0;
  long bands = 1;
  long quality = 1;
  double angle = 0;             // a: the turn at the centre, in radians
  double cxp = 0, cyp = 0;      // the centre, in pixels
  double radius = 0;            // R, in pixels
  double power = 0;
  float xs = 1, ys = 1;         // the input's pixel aspect
};

// The source point, in 1/256 pixel, of a pixel inside the circle at (dx, dy) from the centre
// (pixels times aspect), at distance r, f = (R - r) / R of the way from the edge to the centre:
// turned about the centre by f^power a, with the C library's functions.
inline void VortexPoint(const VortexRender& t, double dx, double dy, double r, double f, int32_t& sx, int32_t& sy) {
  const double turned = dx == 0 && dy == 0 ? 0.0 : std::atan2(dy, dx);
  const double theta = std::pow(f, t.power) * t.angle + turned;
  sx = module::TruncToInt((std::cos(theta) * r / t.xs + t.cxp) * 256.0);
  sy = module::TruncToInt((std::sin(theta) * r / t.ys + t.cyp) * 256.0);
}

// The source points of pixels x0 .. x0 + count - 1 of a row at dy, all inside the circle: the
// angle and its cosine and sine from the fast forms, the points from both ends of their error,
// and VortexPoint for the pixels where those differ or the fast forms do not reach.
void VortexPoints(const VortexRender& t, double dy, int x0, int count, int32_t* sx, int32_t* sy) {
  bool doubt[module::kSamplePiece];
  for (int k = 0; k < count; ++k) {
    const double dx = (x0 + k - t.cxp) * t.xs, r = std::sqrt(dx * dx + dy * dy), f = (t.radius - r) / t.radius;
    const bool centre = dx == 0 && dy == 0;
    const double turned = centre ? 0.0 : module::FastAtan2(dy, dx);
    const double y = t.power * module::FastLog(f), power = module::FastExp(y), twist = power * t.angle;
    const double theta = twist + turned;
    // The library's angle is within this of theta: the power's and the turn's errors, and the
    // two roundings of its sum.
    const double theta_error = module::FastPowError(power, y, t.power) * std::fabs(t.angle) +
                               (centre ? 0.0 : module::kFastAtan2Error) + 5e-16 * (std::fabs(twist) + std::fabs(theta));
    const module::SinCos turn = module::FastSinCos(theta);
    const double error = theta_error + 2 * module::kFastTrigError;
    const bool reached =
        (f >= 0x1p-1022) & (std::fabs(y) <= module::kFastExpLimit) & (std::fabs(theta) <= module::kFastTrigLimit);
    const module::Bracket bx =
        module::BracketOf(turn.cos, error, [&](double c) { return module::TruncToInt((c * r / t.xs + t.cxp) * 256.0); });
    const module::Bracket by =
        module::BracketOf(turn.sin, error, [&](double s) { return module::TruncToInt((s * r / t.ys + t.cyp) * 256.0); });
    sx[k] = bx.low;
    sy[k] = by.low;
    doubt[k] = !(int(reached) & int(bx.Certain()) & int(by.Certain()));
  }
  for (int k = 0; k < count; ++k) {
    if (!doubt[k]) continue;
    const double dx = (x0 + k - t.cxp) * t.xs, r = std::sqrt(dx * dx + dy * dy);
    VortexPoint(t, dx, dy, r, (t.radius - r) / t.radius, sx[k], sy[k]);
  }
}

// Output row y: the pixels inside the circle turned, the rest copied.
void VortexRow(const VortexRender& t, int y) {
  const double dy = (y - t.cyp) * t.ys;
  const auto inside = [&](int x) {
    const double dx = (x - t.cxp) * t.xs;
    return !((t.radius - std::sqrt(dx * dx + dy * dy)) / t.radius <= 0);
  };
  const module::RowSpan run = module::RunAround(t.width, t.cxp, inside);
  module::CopyRun(*t.src, *t.out, y, 0, run.begin);
  module::CopyRun(*t.src, *t.out, y, run.end, t.width);
  module::SampleMappedRun<module::Edge::Clamp>(
      *t.src, *t.out, y, run.begin, run.end, t.quality,
      [&](int x0, int count, int32_t* sx, int32_t* sy) { VortexPoints(t, dy, x0, count, sx, sy); });
}

class Vortex final : public ThreadedOperator {
 public:
  Vortex(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Center", vtype::Point,  HighFourCC("Cent"), {Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::CrossHair),
                                                     Tag(in::DefaultX, 0.5), Tag(in::DefaultY, 0.5)}},
      {"Size",   vtype::Number, HighFourCC("Size"), {Tag(in::Control, control::Slider), Tag(in::PreviewControl, control::CircleHandle),
                                                     Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 10.0), Tag(in::Default, 0.5),
                                                     Tag(in::SliderPresentation, 0.5)}},
      {"Angle",  vtype::Number, HighFourCC("Angl"), {Tag(in::Control, control::Dial), Tag(in::PreviewControl, control::AngleHandle),
                                                     Tag(in::SliderLow, 0.0), Tag(in::SliderHigh, 360.0), Tag(in::Default, 180.0),
                                                     Tag(kAngleDialAttr, 1)}},
      {"Power",  vtype::Number, FourCC("Powr"),     {Tag(in::Control, control::Slider), Tag(in::SliderLow, -1.0), Tag(in::SliderHigh, 10.0),
                                                     Tag(in::Default, 2.0)}},
      {"Image",  vtype::Image,  ImageInputId(1),    {}},
    };
    // clang-format on
    image_out_ = module::DeclareImageTool(this, ar, table, in_);
    in_[Size]->SetAttrs({Tag(in::TiedInput1, in_[Center])});
    in_[Angle]->SetAttrs({Tag(in::TiedInput1, in_[Center]), Tag(in::TiedInput2, in_[Size])});
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    const double angle = module::NumberInput(req, in_[Angle]);
    const double power = module::NumberInput(req, in_[Power]);
    const module::PointValue centre = module::PointInput(req, in_[Center]);
    const double size = module::NumberInput(req, in_[Size]);
    auto* src = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!src || angle == 0 || size == 0) return module::PassThrough(req, in_[ImageIn], image_out_);

    VortexRender& t = render_;
    t.src = src;
    t.out = NewImage(req, src);
    t.width = src->Width();
    t.height = src->Height();
    t.quality = req->flags & rflag::Quick ? 0 : 1;
    t.angle = angle * kRadiansPerDegree;
    t.cxp = double(centre.x) * t.width;
    t.cyp = t.height * double(centre.y);
    t.radius = t.width * size * 0.5;
    t.power = power;
    t.xs = src->x_aspect;
    t.ys = src->y_aspect;
    t.bands = module::RowBands(t.height);
    DoMultiProcess(req, t.bands);
    return req->SetOutputData(image_out_, t.out);
  }

  void ProcessChunk(Request*, long band) override {
    const VortexRender& t = render_;
    module::ForEachRow(*this, module::BandRows(t.height, t.bands, band), [&](int y) { VortexRow(t, y); });
  }

 private:
  Input* in_[kInputCount];
  Output* image_out_;
  VortexRender render_;
};

}  // namespace

Object* NewVortex(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Vortex>(reg, ar, tags); }

}  // namespace kestrion::tools
