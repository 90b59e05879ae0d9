// Time Stretcher: shows its input at an animatable "Source Time", blending the source frames
// on either side of it to interpolate between frames or to smear motion. CheckRequest asks for
// three samples of the one input: the source frame nearest the source time and its two
// neighbours on the source's own frame grid; Process blends them with 8-bit weights.
#include "tools/clip/time_stretcher.h"

#include <algorithm>
#include <cstdint>

#include "host/image/tables.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("TmIn");

enum TimeStretcherInput { SourceTime, SampleSpread, Interpolate, ImageIn, kInputCount };
// The samples of the image input: the previous, centre and next source frames.
enum Sample { Previous = 0, Centre = 1, Next = 2 };

// Weights of the three samples, in 1/256, summing to 255 (the weights of an exact frame are 0,
// 255, 0, so even it comes out a little darker: saved flows render so).
struct SampleWeights {
  uint16_t previous = 0, centre = 255, next = 0;
};

// The weights for a source time st between the centre frame tc and its neighbours d frames
// away, spread by s: f = (0.5 - s)(st - tc) 2 / d, previous = int(max(0, s - f) 255), next =
// int(max(0, f + s) 255), centre the rest. A spread outside 0 .. 0.5 (an animation is not held
// to it) could take the weights past the table's range: they are held to 0 .. 255 in sum.
SampleWeights WeightsFor(double st, double tc, double d, double s) {
  const double f = (0.5 - s) * (st - tc) * 2.0 / d;
  const int previous = std::clamp(module::TruncToInt(std::max(0.0, s - f) * 255), 0, 255);
  const int next = std::clamp(module::TruncToInt(std::max(0.0, f + s) * 255), 0, 255 - previous);
  return {uint16_t(previous), uint16_t(255 - previous - next), uint16_t(next)};
}

// One row of channel bytes: (Scale8[N][wN] + Scale8[B][wB] + Scale8[P][wP]) >> 8 per byte. Every
// product and their sum stay below 65536, so the sum is taken in 16-bit lanes.
void BlendSamplesRow(const uint8_t* p, const uint8_t* b, const uint8_t* n, uint8_t* __restrict out, int bytes,
                     SampleWeights w) {
  for (int i = 0; i < bytes; ++i)
    out[i] = uint8_t(uint16_t(n[i] * w.next + b[i] * w.centre + p[i] * w.previous) >> 8);
}

// The source's frame step (unset reads 1.0) and time origin, from the tool feeding `in`;
// nothing when the input has no connection.
struct SourceGrid {
  double step = 1.0, origin = 0.0;
};
bool SourceGridOf(const Input* in, SourceGrid& grid) {
  if (!in->Link()) return false;
  const Operator* feed = in->Link()->Owner();
  grid = {feed->TimeStep(), feed->time_origin};
  return true;
}

// Everything the rows need, worked out once per render in Process.
struct StretchRender {
  const Image* previous = nullptr;
  const Image* centre = nullptr;
  const Image* next = nullptr;
  Image* out = nullptr;
  int height = 0, row_bytes = 0;
  long bands = 1;
  SampleWeights weights;
};

class TimeStretcher final : public ThreadedOperator {
 public:
  TimeStretcher(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Source Time",                vtype::Number, FourCC("SrTm"),  {Tag(in::Control, control::Slider), Tag(in::CurveKind, control::BezierCurve),
                                                                      Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 100.0), Tag(in::Default, 0.0)}},
      {"Sample Spread",              vtype::Number, FourCC("SmSp"),  {Tag(in::Control, control::Slider), Tag(in::Default, 0.0), Tag(in::Lowest, 0.0),
                                                                      Tag(in::Highest, 0.5)}},
      {"Interpolate between frames", vtype::Number, FourCC("IntF"),  {Tag(in::Control, control::CheckBox), Tag(in::Default, 1.0)}},
      {"Image",                      vtype::Image,  ImageInputId(1), {Tag(in::Presentation11, 3), Tag(in::Presentation05, -1), Tag(in::Required, 0)}},
    };
    // clang-format on
    image_out_ = module::DeclareImageTool(this, ar, table, in_);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  // The centre sample is the source frame nearest the source time: k = int((d / 2 - t0 + st) / d),
  // truncated toward zero (so -0.6 picks frame 0, and a half frame the later one), at k d + t0.
  void CheckRequest(Request* req) override {
    ThreadedOperator::CheckRequest(req);
    SourceGrid grid;
    if (req->status != -1 || !SourceGridOf(in_[ImageIn], grid)) return;
    const double st = module::NumberInput(req, in_[SourceTime]);
    const double tc = module::TruncToInt((grid.step * 0.5 - grid.origin + st) / grid.step) * grid.step + grid.origin;
    const bool interpolate = module::TruncToInt(module::NumberInput(req, in_[Interpolate])) != 0;
    req->SetInputTime(in_[ImageIn], interpolate ? tc - grid.step : tc, Previous);
    req->SetInputTime(in_[ImageIn], tc, Centre);
    req->SetInputTime(in_[ImageIn], interpolate ? tc + grid.step : tc, Next);
  }

  uint32_t Process(Request* req) override {
    auto sample = [&](Sample s) { return dynamic_cast<Image*>(req->GetInputData(in_[ImageIn], s)); };
    Image* a = sample(Previous);
    Image* b = sample(Centre);
    Image* c = sample(Next);
    // With at most one sample, it shows unblended (or nothing does); with the previous and next
    // frames but no centre, the previous one stands in for the centre.
    if ((a != nullptr) + (b != nullptr) + (c != nullptr) <= 1) return Pass(req, a ? a : b ? b : c);
    if (!b) b = a;
    StretchRender& r = render_;
    r.previous = a ? a : b;
    r.centre = b;
    r.next = c ? c : b;
    if (r.previous->Depth() != b->Depth() || r.next->Depth() != b->Depth()) return Pass(req, b);
    r.out = NewImage(req, b);
    SourceGrid grid;
    SourceGridOf(in_[ImageIn], grid);
    r.weights = WeightsFor(module::NumberInput(req, in_[SourceTime]), req->GetInputTime(in_[ImageIn], Centre),
                           grid.step, module::NumberInput(req, in_[SampleSpread]));
    // Only the area the three frames and the output share is blended; the rest stays clear.
    r.height = std::min({r.previous->Height(), b->Height(), r.next->Height()});
    r.row_bytes = std::min({r.previous->Width(), b->Width(), r.next->Width()}) * int(b->BytesPerPixel());
    r.bands = module::RowBands(r.height);
    if (r.height > 0) DoMultiProcess(req, r.bands);
    return req->SetOutputData(image_out_, r.out);
  }

  void ProcessChunk(Request*, long band) override {
    const StretchRender& r = render_;
    const auto bytes = [](const Image* img, int y) { return img->MaskRow(y); };  // a row's bytes, of any depth
    module::ForEachRow(*this, module::BandRows(r.height, r.bands, band), [&](int y) {
      BlendSamplesRow(bytes(r.previous, y), bytes(r.centre, y), bytes(r.next, y), bytes(r.out, y), r.row_bytes,
                      r.weights);
    });
  }

 private:
  uint32_t Pass(Request* req, Image* img) {
    if (img) img->Use();
    return req->SetOutputData(image_out_, img);
  }

  Input* in_[kInputCount];
  Output* image_out_;
  StretchRender render_;
};

}  // namespace

Object* NewTimeStretcher(Registry* reg, CArchive* ar, TagList* tags) {
  return module::Factory<TimeStretcher>(reg, ar, tags);
}

}  // namespace kestrion::tools
