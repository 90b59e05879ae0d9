// Transform: moves, scales, stretches, rotates and mirrors the whole frame. Each output row is a
// straight line through the source: its start is worked out in single precision, its steps in
// 16.16 fixed point, and the host's sampler reads it bilinearly (nearest for quick renders) with
// transparent black outside. Settings that change nothing hand the input on untouched.
#include <cmath>
#include <cstdint>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "module/warp_rows.h"
#include "tools/warp/warp_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Tran");
constexpr double kRadiansPerDegree = 0.017453292519943295;

enum TransformInput { FlipHoriz, FlipVert, Centre, Size, Aspect, Angle, ImageIn, kInputCount };

// Everything the rows need, worked out once per render in Process. The single-precision values
// are kept as floats on purpose: the row starts are computed in single precision.
struct TransformRender {
  const Image* src = nullptr;  // the input or its mirrored copy
  Image* out = nullptr;
  long quality = 1;
  int32_t cos_step = 0, sin_step = 0;  // C and S: cos and sin over the size, in 16.16
  int32_t x_step = 0, y_step = 0;      // du and dv, per output pixel
  float k = 1;                         // y pixel scale / aspect
  float inverse_aspect = 1;            // 1 / aspect
  float x_scale = 1;                   // the input's x pixel scale
  float fixed_width = 0, fixed_height = 0;  // 32768 W and 32768 H: the frame's centre in 16.16
  float centre_row = 0;                     // H cy
  float x0 = 0;                             // -(W cx) / x pixel scale
};

// Output row y: the row's offset from the centre, stretched by the aspect, gives the source
// position of pixel 0; du and dv step along the row.
void TransformRow(const TransformRender& t, int y) {
  const float yd = (float(y) - t.centre_row) / t.inverse_aspect;
  const float c = float(t.cos_step), s = float(t.sin_step);
  const int32_t u = module::TruncToInt((t.x0 * t.x_scale * c - t.k * s * yd) / t.x_scale + t.fixed_width);
  const int32_t v = module::TruncToInt((s * t.x0 * t.x_scale + t.k * c * yd) / t.k + t.fixed_height);
  module::SampleLine<module::Edge::Black>(*t.src, *t.out, y, u, v, t.x_step, t.y_step, t.quality);
}

class Transform final : public ThreadedOperator {
 public:
  Transform(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Flip Horiz", vtype::Number, FourCC("FlpH"),  {Tag(in::Control, control::CheckBox), Tag(in::Default, 0.0), Tag(in::Presentation06, 2)}},
      {"Flip Vert",  vtype::Number, FourCC("FlpV"),  {Tag(in::Control, control::CheckBox), Tag(in::Default, 0.0), Tag(in::Presentation06, 2)}},
      {"Centre",     vtype::Point,  0x746E65C3,      {Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::CrossHair),
                                                      Tag(in::DefaultX, 0.5), Tag(in::DefaultY, 0.5)}},
      {"Size",       vtype::Number, 0x657A69D3,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.000001), Tag(in::SliderHigh, 5.0),
                                                      Tag(in::Default, 1.0), Tag(in::SliderPresentation, 1.0)}},
      {"Aspect",     vtype::Number, 0x637073C1,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.2), Tag(in::SliderHigh, 5.0),
                                                      Tag(in::Default, 1.0)}},
      {"Angle",      vtype::Number, 0x6C676EC1,      {Tag(in::Control, control::Dial), Tag(in::PreviewControl, control::AngleHandle),
                                                      Tag(in::SliderLow, 0.0), Tag(in::SliderHigh, 360.0), Tag(in::Default, 0.0),
                                                      Tag(in::Steps, 3600), Tag(in::Presentation64, 450)}},
      {"Image",      vtype::Image,  ImageInputId(1), {}},
    };
    // clang-format on
    image_out_ = module::DeclareImageTool(this, ar, table, in_);
    in_[Angle]->SetAttrs({Tag(in::TiedInput1, in_[Centre]), Tag(in::TiedInput2, in_[Size])});
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    auto* centre = dynamic_cast<Point*>(req->GetInputData(in_[Centre]));
    const float cx = centre ? centre->x : 0.5f, cy = centre ? centre->y : 0.5f;
    const float size = float(module::NumberInput(req, in_[Size]));
    const float aspect = float(module::NumberInput(req, in_[Aspect]));
    float angle = float(module::NumberInput(req, in_[Angle]));
    auto* input = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    // Any value but zero (fractions from animation too) turns a flip on; -0 is off.
    const bool flip_h = module::NumberInput(req, in_[FlipHoriz]) != 0.0;
    const bool flip_v = module::NumberInput(req, in_[FlipVert]) != 0.0;
    if (!input) return req->SetOutputData(image_out_, nullptr);
    const auto at_identity = [&] {
      return cx == 0.5f && cy == 0.5f && size == 1.0f && aspect == 1.0f && angle == 0.0f;
    };
    if (at_identity() && !flip_h && !flip_v) return module::PassThrough(req, in_[ImageIn], image_out_);

    // One flip mirrors a copy; two are a half turn, which the sampler does.
    Image* source = input;
    if (flip_h != flip_v) {
      source = input->CopyOfImage(req);
      if (flip_h) {
        source->FlipX();
      } else {
        source->FlipY();
      }
    } else if (flip_h) {
      angle += 180;
    }
    if (at_identity()) {
      if (source == input) input->Use();
      return req->SetOutputData(image_out_, source);
    }

    TransformRender& t = render_;
    t.src = source;
    t.out = NewImage(req, input);
    t.quality = (req->flags & rflag::Quick) ? 0 : 1;
    const float xs = input->x_aspect, ys = input->y_aspect;
    t.k = ys / aspect;
    t.inverse_aspect = 1 / aspect;
    t.x_scale = xs;
    t.fixed_width = 32768.0f * float(input->Width());
    t.fixed_height = 32768.0f * float(input->Height());
    t.centre_row = float(input->Height()) * cy;
    t.x0 = -(float(input->Width()) * cx) / xs;
    const double theta = angle * kRadiansPerDegree;
    t.cos_step = module::TruncToInt(65536.0 * std::cos(theta) / size);
    t.sin_step = module::TruncToInt(65536.0 * std::sin(theta) / size);
    t.x_step = module::TruncToInt(65536.0 * (std::cos(theta) / size) / xs);
    t.y_step = module::TruncToInt(65536.0 * (std::sin(theta) / size) / t.k);
    DoMultiProcess(req, input->Height());
    return req->SetOutputData(image_out_, t.out);
  }

  void ProcessChunk(Request*, long row) override {
    if (abort_flag.load(std::memory_order_relaxed) == 0) TransformRow(render_, int(row));
  }

 private:
  Input* in_[kInputCount];
  Output* image_out_;
  TransformRender render_;
};

}  // namespace

Object* NewTransform(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Transform>(reg, ar, tags); }

}  // namespace kestrion::tools
